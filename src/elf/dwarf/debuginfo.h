// The debug-information reader of the ELF API: parses .debug_info and
// .debug_types of an ELF_FILE into per-offset tables, collects the lists of
// what a user can name (functions, inlined instances, global variables,
// types, namespaces, units), builds the name index, and answers questions
// about single entries by handle. No locking here: the ELF-API wrapper holds
// its mutex around every call.
#pragma once
#include "common/types.h"
#include "elf/elf.h"
#include <string>
#include <vector>

// Tags and attributes by number, as the reader tests them.
enum ELF_DW_TAG : U32 {
  ELF_TAG_ARRAY = 1, ELF_TAG_CLASS = 2, ELF_TAG_ENUM = 4, ELF_TAG_PARAMETER = 5, ELF_TAG_MEMBER = 13,
  ELF_TAG_POINTER = 15, ELF_TAG_REFERENCE = 16, ELF_TAG_COMPILE_UNIT = 17, ELF_TAG_STRUCT = 19,
  ELF_TAG_SUBROUTINE_TYPE = 21, ELF_TAG_TYPEDEF = 22, ELF_TAG_UNION = 23, ELF_TAG_INHERITANCE = 28,
  ELF_TAG_INLINED = 29, ELF_TAG_PTR_TO_MEMBER = 31, ELF_TAG_SUBRANGE = 33, ELF_TAG_BASE_TYPE = 36,
  ELF_TAG_CONST = 38, ELF_TAG_ENUMERATOR = 40, ELF_TAG_SUBPROGRAM = 46, ELF_TAG_VARIABLE = 52,
  ELF_TAG_VOLATILE = 53, ELF_TAG_RESTRICT = 55, ELF_TAG_NAMESPACE = 57, ELF_TAG_TYPE_UNIT = 65,
};

// The reader's own entry point for ELF_Open; DWARF_Install registers it and
// ELF_FreeDebugInfo as the ELF layer's parser and closer (call once at
// start-up, before the first ELF_Open).
int ELF_ParseDebugInfo(ELF_FILE* pFile);
void DWARF_Install();
// Frees everything the reader holds for a file; ELF_Close calls it.
void ELF_FreeDebugInfo(ELF_FILE* pFile);
bool ELF_HasDebugInfo(const ELF_FILE* pFile);

// ---- lists ---------------------------------------------------------------
enum ELF_DEBUG_LIST {
  ELF_LIST_GLOBALS = 0,
  ELF_LIST_NAMESPACES,
  ELF_LIST_NAMESPACE_EXTENSIONS,
  ELF_LIST_TYPES,
  ELF_LIST_UNITS,
  ELF_LIST_FUNCTIONS,
  ELF_LIST_INLINED,
  ELF_LIST_COUNT
};
int ELF_GetListCount(const ELF_FILE* pFile, int List);
ELF_SYM_HANDLE ELF_GetListItem(const ELF_FILE* pFile, int List, int Index);

// Counters and facts of the parse.
U32 ELF_GetDwarfVersion(const ELF_FILE* pFile);       // highest unit version, 0 without units
U32 ELF_GetDieCount(const ELF_FILE* pFile);           // kept entries
U32 ELF_GetTypeUnitCount(const ELF_FILE* pFile);
ELF_SYM_HANDLE ELF_GetEntryFunction(const ELF_FILE* pFile);
const char* ELF_GetProducer(const ELF_FILE* pFile);   // "" if none

// ---- handles ---------------------------------------------------------------
ELF_SYM_HANDLE ELF_MakeDieHandle(const ELF_FILE* pFile, U32 Key);
U32 ELF_GetDieKey(ELF_SYM_HANDLE Handle);   // 0 for a handle that is no entry
bool ELF_IsDieHandle(ELF_SYM_HANDLE Handle);
U32 ELF_GetTag(ELF_SYM_HANDLE Handle);      // 0 if none

// ---- tree --------------------------------------------------------------------
ELF_SYM_HANDLE ELF_GetParent(ELF_SYM_HANDLE h);
ELF_SYM_HANDLE ELF_GetFirstChild(ELF_SYM_HANDLE h);
ELF_SYM_HANDLE ELF_GetNextSibling(ELF_SYM_HANDLE h);
ELF_SYM_HANDLE ELF_GetUnitRoot(ELF_SYM_HANDLE h);

// ---- attributes ----------------------------------------------------------------
// A number by form (see the reader for the forms it accepts).
U64 ELF_GetAttrValue(ELF_SYM_HANDLE h, U32 Code, bool* pFound);
bool ELF_HasAttr(ELF_SYM_HANDLE h, U32 Code);
ELF_SYM_HANDLE ELF_GetRefAttr(ELF_SYM_HANDLE h, U32 Code);
// DW_AT_const_value as bytes.
bool ELF_GetConstBlock(ELF_SYM_HANDLE h, std::vector<U8>& Bytes);
// A raw expression block of an attribute (DW_AT_location, DW_AT_frame_base).
bool ELF_GetExprBlock(ELF_SYM_HANDLE h, U32 Code, const U8** ppData, U32* pSize);

// ---- type access -----------------------------------------------------------------
ELF_SYM_HANDLE ELF_GetType(ELF_SYM_HANDLE h, bool SkipSelf);
U32 ELF_GetByteSize(ELF_SYM_HANDLE h);
U32 ELF_GetBitSize(ELF_SYM_HANDLE h);
U32 ELF_GetBitOffset(ELF_SYM_HANDLE h);
U32 ELF_GetSubrangeCount(ELF_SYM_HANDLE h);
struct ELF_ARRAY_INFO {
  U32 total;
  U32 elementBytes;
  U32 elementCount;
  U32 dimensionCount;
  U32 dimensions[10];
};
ELF_ARRAY_INFO ELF_GetArrayInfo(ELF_SYM_HANDLE h);
bool ELF_IsTypeTag(U32 Tag);
int ELF_IsSigned(ELF_SYM_HANDLE h);
const char* ELF_GetTypeKeyword(ELF_SYM_HANDLE h); // "struct", "class", "union", "enum" or ""
ELF_SYM_HANDLE ELF_GetDeclaration(ELF_SYM_HANDLE h); // the entry its specification names
ELF_SYM_HANDLE ELF_GetDefinition(ELF_SYM_HANDLE h);
bool ELF_IsDeclaration(ELF_SYM_HANDLE h);
int ELF_GetAccessibility(ELF_SYM_HANDLE h); // 1 public, 2 protected, 3 private, 0 none
int ELF_GetVirtuality(ELF_SYM_HANDLE h);
const char* ELF_GetAccessibilityText(int Access);

// ---- names -------------------------------------------------------------------------
// Text in a shared buffer of 512 bytes, valid until the next call.
const char* ELF_GetName(ELF_SYM_HANDLE h);
// Cached in the entry's side record; "" if none.
const char* ELF_GetTypeName(ELF_SYM_HANDLE h);
// Enclosing scopes, outermost first (names of namespaces, classes, functions).
std::vector<ELF_SYM_HANDLE> ELF_GetQualifiedScope(ELF_SYM_HANDLE h);
// The entry itself or the nearest one up through parent, specification and
// abstract origin with this tag (the unit of an entry: tag 17); 0 if none.
ELF_SYM_HANDLE ELF_FindAncestor(ELF_SYM_HANDLE h, U32 Tag);
// Looks a name up in the name index: function over global variable over type.
ELF_SYM_HANDLE ELF_FindName(const ELF_FILE* pFile, const char* sName);
// The compiler spellings of base types made short, first occurrence of each
// row only, in place (buffer of at least 512 bytes).
void ELF_ShortenTypeName(char* sBuffer);
// The program's name hash: 5381, then h * 33 + c per (signed) byte.
U32 ELF_HashName(const char* s);

// ---- members and locals ------------------------------------------------------------
int ELF_GetLocalCount(ELF_SYM_HANDLE h);
ELF_SYM_HANDLE ELF_GetLocal(ELF_SYM_HANDLE h, int i);
int ELF_GetMemberCount(ELF_SYM_HANDLE h);
ELF_SYM_HANDLE ELF_GetMember(ELF_SYM_HANDLE h, int i);
int ELF_GetMemberIndex(ELF_SYM_HANDLE h, const char* sName); // -1 if none
U32 ELF_GetMemberOffset(ELF_SYM_HANDLE h);
int ELF_GetBaseClassCount(ELF_SYM_HANDLE h);
ELF_SYM_HANDLE ELF_GetBaseClass(ELF_SYM_HANDLE h, int i);
ELF_SYM_HANDLE ELF_GetObjectPointer(ELF_SYM_HANDLE h);

// ---- extents ------------------------------------------------------------------------
struct ELF_RANGE {
  U32 start;
  U32 end;
  U32 kind;
};
std::vector<ELF_RANGE> ELF_GetRanges(ELF_SYM_HANDLE h);
int ELF_GetRangeCount(ELF_SYM_HANDLE h);
U32 ELF_GetStart(ELF_SYM_HANDLE h, int i);
U32 ELF_GetEnd(ELF_SYM_HANDLE h, int i);
U32 ELF_GetSize(ELF_SYM_HANDLE h);
// Unit language of a compile unit root: 1 C, 2 C++, 0 unknown.
int ELF_GetUnitLanguage(ELF_SYM_HANDLE h);
// True if DW_AT_location is one plain static address; *pAddr gets it.
bool ELF_GetStaticAddress(ELF_SYM_HANDLE h, U32* pAddr);

// ---- source line rows and files -----------------------------------------------------
struct ELF_LINE_ROW {
  U32 address;
  U32 line;
  U32 column;
  U32 fileIndex;   // into the source file list of ELF_GetLineRowPath
  U32 unitOffset;
  U8 isStmt;
  U8 endSequence;
};
int ELF_GetNumLineRows(const ELF_FILE* pFile);
const ELF_LINE_ROW* ELF_GetLineRow(const ELF_FILE* pFile, int Index);
const char* ELF_GetLineRowPath(const ELF_FILE* pFile, int Index); // "" if none
// Source file names in the order of their first appearance (file table).
int ELF_GetNumSourceFiles(const ELF_FILE* pFile);
const char* ELF_GetSourceFile(const ELF_FILE* pFile, int Index);
// Compile unit roots that name a source file (by its path as the unit gives it).
std::vector<ELF_SYM_HANDLE> ELF_GetFileUnits(const ELF_FILE* pFile, const char* sPath);

// ---- macros -------------------------------------------------------------------------------
struct ELF_MACRO {
  I32 kind; // 0 define, 1 undefine, 2 start file, 3 end file, 4 import, 5 other
  U32 fileIndex;
  U32 line;
  const char* text;
};
int ELF_GetNumMacros(const ELF_FILE* pFile);
const ELF_MACRO* ELF_GetMacro(const ELF_FILE* pFile, int Index);
