// The one seam to libdwarf. Everything the debug-information reader needs from
// the library goes through these functions; no other file includes libdwarf.h.
// DIE objects are opaque pointers owned by the session; a session is opened
// over the whole-file buffer of an ELF_FILE.
#pragma once
#include "common/types.h"
#include <string>
#include <vector>

struct ELF_FILE;

namespace dwb {

struct Session;
typedef void* Die;

// Opens a session over the file's sections. Null on failure (no debug
// sections, or the library refused the data); *pErr gets the library's code.
Session* Open(ELF_FILE* f, int* pErr);
void Close(Session* s);

// One unit header, in section order.
struct UnitHeader {
  U64 offset = 0;     // offset of the unit header in its section
  U64 nextOffset = 0; // offset of the next unit header
  U16 version = 0;
  U8 addrSize = 4;
  U8 unitType = 0;    // DW_UT_* (DWARF 5 meaning also for older units)
  U64 signature = 0;  // type units
  U64 typeOffset = 0; // type units: offset of the type entry from the header
  bool isInfo = true;
};
// Advances to the next unit of one section: 1 found, 0 at the end, -1 error.
int NextUnit(Session* s, bool isInfo, UnitHeader* pOut);
// Root entry of the unit NextUnit made current.
Die UnitRoot(Session* s, bool isInfo);

Die OffDie(Session* s, U64 offset, bool isInfo);
// The tree walk of a unit marks it: Sibling steps over subtrees only in units
// whose walk ended having found every DW_AT_sibling sane (pointing forward
// inside the unit), and in the unit being walked.
void BeginUnitWalk(Session* s, Die root);
void EndUnitWalk(Session* s, bool Checked);
bool SiblingAttrSane(Session* s, Die d);
Die Child(Session* s, Die d);
Die Sibling(Session* s, Die d, bool isInfo);
void FreeDie(Session* s, Die d);

U64 Offset(Die d);      // section offset
U32 Tag(Die d);         // 0 on failure
bool IsInfo(Die d);     // lies in .debug_info
bool HasChildren(Die d);
U64 UnitOffset(Die d);  // offset of the header of the entry's unit
int UnitVersion(Die d); // 0 on failure
int UnitAddrSize(Die d);
bool HasAttr(Die d, U32 code);
const char* Name(Die d); // own DW_AT_name, null if none

// Value classes of an attribute, as read by form.
enum ATTR_CLASS { AC_NONE, AC_ADDR, AC_UNSIGNED, AC_SIGNED, AC_FLAG, AC_REF, AC_SECOFF, AC_STRING, AC_BLOCK, AC_SIG8 };
struct AttrValue {
  U32 form = 0;      // final form
  int cls = AC_NONE;
  U64 u = 0;         // address, unsigned, flag, section offset
  I64 s = 0;         // signed view of constants
  U64 ref = 0;       // global offset for references
  bool refIsInfo = true;
  const char* str = nullptr;
  const U8* block = nullptr;
  U64 blockLen = 0;
};
// Reads an own attribute. False if the entry hasn't got it or its form is
// not readable (then pValue->form tells the form when known).
bool GetAttr(Session* s, Die d, U32 code, AttrValue* pValue);
// Entry `index` of .debug_addr for the unit of d (DW_OP_addrx, DW_FORM_addrx).
bool AddrByIndex(Session* s, Die d, U64 index, U64* pAddr);
// Resolves a DW_FORM_ref_sig8 signature to the entry it names.
Die FindSig8(Session* s, U64 signature);

// Address ranges of an entry's DW_AT_ranges (any version): raw pairs with
// base selection entries already applied against Base. False if none.
bool GetRanges(Session* s, Die d, U64 Base, std::vector<std::pair<U64, U64>>& out);

// Line table of a compile unit root.
struct LineRow {
  U64 addr;
  U32 line;
  U32 column;
  U32 fileIndex; // index into the unit's file list
  bool isStmt;
  bool endSequence;
};
// -1 error, 0 no table, 1 read. Files are full paths as the table names them.
int GetLines(Session* s, Die cu, std::vector<LineRow>& rows, std::vector<std::string>& files);

// Macro records of a unit (DW_MACRO_* codes, DW_MACINFO codes mapped to them).
struct MacroRecord {
  U32 code;
  U32 fileIndex;
  U32 line;
  std::string text;
};
// -1 error, 0 none, 1 read (imports followed).
int GetMacros(Session* s, Die cu, std::vector<MacroRecord>& out);

// Location expressions and lists of an attribute, decoded into operations.
struct LocOp {
  U8 atom;
  U64 op1, op2, op3;
  std::vector<U8> block; // DW_OP_implicit_value bytes, DW_OP_entry_value sub-expression
  U64 offset = 0;        // of the operation in its expression, for DW_OP_skip and DW_OP_bra
};
struct LocEntry {
  U64 lo, hi; // addresses the entry applies to ([0, ~0) for a single expression)
  bool isExpression;
  std::vector<LocOp> ops;
};
// 1 read, 0 attribute missing or not a location, -1 error.
int GetLocations(Session* s, Die d, U32 code, std::vector<LocEntry>& out);

// Call frame information of .debug_frame (else .eh_frame).
struct CfiRule {
  U8 offsetRelevant;
  U8 valueType; // 0 offset, 1 value offset, 2 expression, 3 value expression
  U32 reg;      // 1034 undefined, 1035 same value, 1436 the CFA column
  I64 offset;   // offset, or block length for expressions
};
constexpr U32 CFI_UNDEFINED = 1034;
constexpr U32 CFI_SAME = 1035;
constexpr U32 CFI_CFA = 1436;
constexpr int CFI_TABLE_SIZE = 320; // covers the VFP registers 256-287
// 1 loaded, 0 no frame section, -1 refused. *pRaColumn gets the return address column.
int CfiLoad(Session* s, int* pRaColumn);
int CfiFdeCount(Session* s);
bool CfiFdeRange(Session* s, int i, U64* pLow, U64* pHigh);
// Rules in effect at pc for columns 0..count-1: 1 found, 0 no FDE holds pc, -1 error.
int CfiRulesAt(Session* s, U64 pc, int count, std::vector<CfiRule>& regs, CfiRule& cfa, U64* pRowPc);
// Start addresses of the rows of one FDE.
int CfiRowPcs(Session* s, int fde, std::vector<U64>& pcs);

const char* FormName(U32 form);
const char* AttrName(U32 code);

} // namespace dwb
