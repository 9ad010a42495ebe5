// The C-level ELF API: reads one 32-bit ELF program file whole into memory and
// answers questions about its header, sections, segments, ELF symbols,
// relocation entries and program data. Free functions over ELF_FILE handles;
// no locking (the ELF-API wrapper in elfapi.h holds the mutex).
//
// Addresses that leave this API through getters (symbol values, section
// addresses, the entry point) are relocated by the symbol relocation list
// when it is not empty. Look-up functions take file (unrelocated) addresses.
#pragma once
#include "common/types.h"
#include <stddef.h>

struct ELF_FILE;

typedef U64 ELF_SYM_HANDLE;

constexpr int ELF_MAX_FILES = 3;
constexpr U32 ELF_SIZE_SANITY_LIMIT = 10000000;
constexpr U64 ELF_HANDLE_TAG = 0xE0FE0F0000000000ull;
constexpr U64 ELF_HANDLE_KIND_DIE = 0x0000000100000000ull;
constexpr U64 ELF_HANDLE_KIND_SYMBOL = 0x0000000200000000ull;

// ELF constants used by the API and its callers.
enum {
  ELF_ET_EXEC = 2,
  ELF_PT_LOAD = 1,
  ELF_SHT_SYMTAB = 2,
  ELF_SHT_RELA = 4,
  ELF_SHT_NOBITS = 8,
  ELF_SHT_REL = 9,
  ELF_SHT_DYNSYM = 11,
  ELF_SHF_ALLOC = 2,
  ELF_STT_NOTYPE = 0,
  ELF_STT_OBJECT = 1,
  ELF_STT_FUNC = 2,
  ELF_STT_FILE = 4,
  ELF_STT_ARM_TFUNC = 13,
};

#pragma pack(push, 1)
struct ELF_HEADER {
  U8 e_ident[16];
  U16 e_type;
  U16 e_machine;
  U32 e_version;
  U32 e_entry;
  U32 e_phoff;
  U32 e_shoff;
  U32 e_flags;
  U16 e_ehsize;
  U16 e_phentsize;
  U16 e_phnum;
  U16 e_shentsize;
  U16 e_shnum;
  U16 e_shstrndx;
};
struct ELF_SEGMENT {
  U32 p_type, p_offset, p_vaddr, p_paddr, p_filesz, p_memsz, p_flags, p_align;
};
struct ELF_SECTION {
  U32 sh_name, sh_type, sh_flags, sh_addr, sh_offset, sh_size, sh_link, sh_info, sh_addralign, sh_entsize;
};
struct ELF_SYMBOL {
  U32 st_name;
  U32 st_value;
  U32 st_size;
  U8 st_info;
  U8 st_other;
  U16 st_shndx;
};
#pragma pack(pop)
static_assert(sizeof(ELF_HEADER) == 52);
static_assert(sizeof(ELF_SEGMENT) == 32);
static_assert(sizeof(ELF_SECTION) == 40);
static_assert(sizeof(ELF_SYMBOL) == 16);

struct ELF_IMAGE_SEGMENT {
  U32 vaddr, paddr, filesz, type;
  const U8* pData; // null if the segment has no valid data
};

// One block of program data for download: load address (physical), run
// address (virtual) and the bytes, which point into the file buffer.
struct ELF_PROGRAM_DATA {
  U32 LoadAddr;
  U32 RunAddr;
  U32 Size;
  const U8* pData;
};

struct ELF_RELOC_ENTRY {
  U32 r_offset;
  U32 Symbol; // r_info >> 8
  U32 Type;   // r_info & 255
  I32 Addend; // RELA only, else 0
  int IsRela;
};

// ---- diagnostics ---------------------------------------------------------
// A report handed to the installed hook. Code is the reporter code (1-34,
// 100-128, 133); 0 means a plain log line in sText. Args are texts (never
// null); Value is the numeric argument of the rows that take one.
struct ELF_DIAG {
  int Code;
  U32 Flags; // 68 message box error, 66 warning, 26 logged, 9 plain log line
  const char* asArg[4];
  U32 Value;
  const char* sText;
};
typedef void (*ELF_DIAG_HOOK)(const ELF_DIAG* pDiag);
void ELF_SetDiagHook(ELF_DIAG_HOOK pfHook); // null removes it
ELF_DIAG_HOOK ELF_GetDiagHook();
// Reporters: error with message box, logged error, plain log line.
void ELF_ReportError(int Code, const char* sArg0 = "", const char* sArg1 = "", const char* sArg2 = "", const char* sArg3 = "");
void ELF_ReportLogged(int Code, const char* sArg0 = "", const char* sArg1 = "", const char* sArg2 = "", const char* sArg3 = "");
void ELF_ReportValue(int Code, U32 Value);
void ELF_ReportLine(const char* sFormat, ...) __attribute__((format(printf, 1, 2)));
// True for the reporter codes that exist: 1-34, 100-128, 133.
bool ELF_IsReporterCode(int Code);
// Code of the last error reported by ELF_Open (0 after a successful open).
int ELF_GetLastOpenError();

// ---- opening and closing ---------------------------------------------------
ELF_FILE* ELF_Open(const char* sPath, bool ParseDebugInfo);
// The same over a copy of bytes already in memory (the file name is not known).
ELF_FILE* ELF_OpenMemory(const void* pData, U32 Size, bool ParseDebugInfo);
void ELF_Close(ELF_FILE* pFile);
ELF_FILE* ELF_GetCurrentProgram();   // the file opened last (may be closed)
bool ELF_IsValidFile(const ELF_FILE* pFile); // in a slot, not opening/closing
int ELF_GetSlot(const ELF_FILE* pFile);      // -1 if not in a slot
// The DWARF reader hooks in here: called by ELF_Open with parseDebugInfo set,
// result < 0 reports error 133 and the file stays open.
typedef int (*ELF_DEBUG_PARSER)(ELF_FILE* pFile);
void ELF_SetDebugInfoParser(ELF_DEBUG_PARSER pfParser);
// ...and frees what it read here: called by ELF_Close before the file goes.
typedef void (*ELF_DEBUG_CLOSER)(ELF_FILE* pFile);
void ELF_SetDebugInfoCloser(ELF_DEBUG_CLOSER pfCloser);

// Process-wide instruction alignment (from the core plug-in, default 2).
void ELF_SetInstAlignment(U32 Alignment);
U32 ELF_GetInstAlignment();
U32 ELF_AlignAddress(U32 Address);
// Byte order of the file opened last, for the memory layer.
bool ELF_IsTargetBigEndian();
// Lowest symbol address and highest symbol end (value plus size) over all ELF
// symbols of the file opened last, relocated; 0xFFFFFFFF and 0 before any.
void ELF_GetSymbolAddressSpan(U32* pLow, U32* pHigh);

// ---- header ----------------------------------------------------------------
int ELF_GetEndian(const ELF_FILE* pFile);   // 0 little, 1 big, 2 unknown
U32 ELF_GetEntryPoint(const ELF_FILE* pFile); // aligned, relocated; 0xFFFFFFFF stays
int ELF_GetClass(const ELF_FILE* pFile);    // e_ident[4], -1 without file
U32 ELF_GetFileSize(const ELF_FILE* pFile);
int ELF_GetMachine(const ELF_FILE* pFile);  // e_machine, -1 without file
const ELF_HEADER* ELF_GetHeader(const ELF_FILE* pFile); // host order copy
const U8* ELF_GetFileData(const ELF_FILE* pFile);

// ---- sections --------------------------------------------------------------
int ELF_GetNumSections(const ELF_FILE* pFile);
const char* ELF_GetSectionName(const ELF_FILE* pFile, int Index); // "" if none
U32 ELF_GetSectionType(const ELF_FILE* pFile, int Index);
U32 ELF_GetSectionFlags(const ELF_FILE* pFile, int Index);
U32 ELF_GetSectionAddr(const ELF_FILE* pFile, int Index); // relocated
U32 ELF_GetSectionOffset(const ELF_FILE* pFile, int Index);
U32 ELF_GetSectionSize(const ELF_FILE* pFile, int Index);
U32 ELF_GetSectionEntSize(const ELF_FILE* pFile, int Index);
const ELF_SECTION* ELF_GetSectionHeader(const ELF_FILE* pFile, int Index); // raw, host order
// File base plus sh_offset; null for SHT_NOBITS or data outside the file.
const U8* ELF_GetSectionData(const ELF_FILE* pFile, int Index);
int ELF_FindSection(const ELF_FILE* pFile, const char* sName); // -1 if none
int ELF_FindSectionByInfo(const ELF_FILE* pFile, U32 Info);    // -1 if none

// ---- segments --------------------------------------------------------------
int ELF_GetNumSegments(const ELF_FILE* pFile);
U32 ELF_GetSegmentType(const ELF_FILE* pFile, int Index);
U32 ELF_GetSegmentVAddr(const ELF_FILE* pFile, int Index);
U32 ELF_GetSegmentPAddr(const ELF_FILE* pFile, int Index);
U32 ELF_GetSegmentFileSize(const ELF_FILE* pFile, int Index);
const ELF_SEGMENT* ELF_GetSegmentHeader(const ELF_FILE* pFile, int Index);
const U8* ELF_GetSegmentData(const ELF_FILE* pFile, int Index);
U32 ELF_GetSegmentDataSkip(const ELF_FILE* pFile, int Index);
// Program data blocks (PT_LOAD segments with data, data skip applied). Fills
// at most MaxOut blocks and returns the total count, -1 without a file.
int ELF_GetProgramData(const ELF_FILE* pFile, ELF_PROGRAM_DATA* pOut, int MaxOut);
int ELF_GetNumImageSegments(const ELF_FILE* pFile);
const ELF_IMAGE_SEGMENT* ELF_GetImageSegment(const ELF_FILE* pFile, int Index);
// File bytes for the address range [Lo, Hi) of one image segment, or null.
const U8* ELF_ReadImage(const ELF_FILE* pFile, U32 Lo, U32 Hi);

// ---- symbols ---------------------------------------------------------------
int ELF_GetNumSymbols(const ELF_FILE* pFile);
ELF_SYM_HANDLE ELF_GetSymbolHandle(const ELF_FILE* pFile, int Row); // 0 if out of range
const ELF_SYMBOL* ELF_GetSymbolRow(const ELF_FILE* pFile, int Row); // host order, completed sizes
int ELF_GetSymbolRowOfHandle(ELF_SYM_HANDLE Handle);   // -1 for no ELF symbol
ELF_FILE* ELF_GetFileOfHandle(ELF_SYM_HANDLE Handle);  // null if the slot is not valid
int ELF_GetSymbolType(ELF_SYM_HANDLE Handle);          // -1 for no ELF symbol
int ELF_GetSymbolBinding(ELF_SYM_HANDLE Handle);       // 16 for no ELF symbol
U32 ELF_GetSymbolValue(ELF_SYM_HANDLE Handle);         // relocated; 0 for none
U32 ELF_GetSymbolSize(ELF_SYM_HANDLE Handle);
const char* ELF_GetSymbolName(ELF_SYM_HANDLE Handle);  // "" for none
int ELF_GetSymbolSection(ELF_SYM_HANDLE Handle);       // -1 for none
bool ELF_IsFunctionType(int Type);                     // 2 or 13
// Index into the value-sorted list nearest at or below Address; -1 if none.
int ELF_FindNearestIndex(const ELF_FILE* pFile, U32 Address);
int ELF_GetSortedSymbolRow(const ELF_FILE* pFile, int SortedIndex); // -1 if none
// Symbol row at/below an address of a type (-1 any, 0 none, 2/13 function,
// ...), see the rules in elf_symbols.cpp; -1 if none.
int ELF_FindSymbolAt(const ELF_FILE* pFile, U32 Address, bool Exact, int Type);
// First symbol row with exactly this name; -1 if none.
int ELF_FindSymbolByName(const ELF_FILE* pFile, const char* sName);

// Function symbol list: ascending values, one entry per value.
int ELF_GetNumFunctionSymbols(const ELF_FILE* pFile);
ELF_SYM_HANDLE ELF_GetFunctionSymbol(const ELF_FILE* pFile, int Index);
// Functions that contain Address (innermost first); with Strict false the
// nearest one below is given when none contains it. Returns the count found,
// of which at most MaxOut are stored.
int ELF_GetFunctionSymbols(const ELF_FILE* pFile, U32 Address, bool Strict, ELF_SYM_HANDLE* pOut, int MaxOut);

// ---- relocation entries ------------------------------------------------------
// Row of the relocation entry for an address (exact or the one below) in the
// relocation section that applies to the section holding the address; SectionType
// 0 accepts a holding section of any type. -1 if none. pEntry may be null.
int ELF_FindRelocEntry(const ELF_FILE* pFile, U32 Address, U32 SectionType, ELF_RELOC_ENTRY* pEntry);
// Symbol row of the relocation entry at exactly this address, with its value
// and name; -1 if none.
int ELF_FindSymbolByReloc(const ELF_FILE* pFile, U32 Address, U32* pValue, const char** psName);

// ---- symbol relocation list (Project.RelocateSymbols) ------------------------
struct ELF_RELOC_RANGE {
  U32 start;
  U32 end; // exclusive
  I32 offset;
  char acSymbols[64];
};
int ELF_AddRelocation(const char* sSymbols, I32 Offset); // 0, or -1 for a bad range
int ELF_ParseRelocationRange(const char* sText, U32* pStart, U32* pEnd);
U32 ELF_RelocateAddress(U32 Address, int Low, int High);
U32 ELF_UnrelocateAddress(U32 Address, int Low, int High);
int ELF_GetNumRelocations();
const ELF_RELOC_RANGE* ELF_GetRelocation(int Index);
void ELF_ClearRelocations();
