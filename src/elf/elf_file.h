// The per-file object behind an ELF_FILE handle. Internal to src/elf: the
// DWARF reader adds its tables here and reads sections straight from fileData.
#pragma once
#include "elf/elf.h"
#include <vector>

struct ELF_SYMTAB_PART {
  U32 FirstRow;  // first row in symbols
  U32 NumRows;
  U32 Section;   // the symbol table section
  U32 StrSection; // its string table (sh_link), may be invalid
};

enum ELF_SRC_LANG { ELF_SRC_LANG_C = 1, ELF_SRC_LANG_CPP = 2 };

struct ELF_FILE {
  U32 state = 0; // 0 while loading, 1 once ELF_Open finished
  U32 elfSymbolCount = 0;
  U32 functionSymbolCount = 0;
  U32 fileSize = 0;
  I64 openTicks = 0; // steady clock in microseconds
  U8* fileData = nullptr;
  ELF_HEADER header{};
  bool bigEndian = false;
  std::vector<ELF_SECTION> sections;
  std::vector<ELF_SEGMENT> segments;
  std::vector<ELF_SYMBOL> symbols;
  std::vector<U32> symbolsByValue;   // rows, sorted by st_value
  std::vector<U32> functionSymbols;  // rows, see BuildFunctionList
  std::vector<ELF_SYMTAB_PART> symtabParts;
  int strtabIndex = -1;
  int symtabIndex = -1;
  void* dwarf = nullptr; // libdwarf session of the DWARF reader
  U16 dwarfVersion = 0;
  U32 sourceLanguage = ELF_SRC_LANG_C;
  I32 cfaScale = 1;
  std::vector<ELF_IMAGE_SEGMENT> imageSegments;
};

// Internal helpers shared by the sources of the module (no handle checks).
namespace elf_internal {
extern bool g_Opening;
extern bool g_Closing;
extern ELF_FILE* g_aSlots[ELF_MAX_FILES];
extern ELF_FILE* g_pCurrent;

// A NUL-terminated string at Offset inside section StrSection, or null if
// the section or offset is invalid or the text is not terminated inside it.
const char* StringAt(const ELF_FILE* f, U32 StrSection, U32 Offset);
const char* SectionName(const ELF_FILE* f, U32 Index);
const char* SymbolName(const ELF_FILE* f, U32 Row); // null if it has none
int FindSection(const ELF_FILE* f, const char* sName);
int FindSymbolByName(const ELF_FILE* f, const char* sName);
// Data of a section inside the file, or null.
const U8* SectionData(const ELF_FILE* f, U32 Index);
bool RangeInFile(const ELF_FILE* f, U64 Offset, U64 Size);
// Re-parses the ranges of relocation rows that name sections or symbols.
void ReparseRelocations();
bool HaveRelocations();
// Reading steps of ELF_Open; each returns 0 or a reporter code.
int ParseSymbols(ELF_FILE* f);
void BuildImageSegments(ELF_FILE* f);

// Binary search over Count entries whose keys (KeyAt(i)) ascend: an entry
// whose key equals Key, else the last entry below it; -1 if all lie above.
template <class KeyAtFn>
int FindAtOrBelow(int Count, U32 Key, KeyAtFn KeyAt) {
  int lo = 0, hi = Count - 1, at = -1;
  while (lo <= hi) {
    const int mid = lo + (hi - lo) / 2;
    const U32 k = KeyAt(mid);
    if (k == Key) return mid;
    if (k < Key) {
      at = mid;
      lo = mid + 1;
    } else {
      hi = mid - 1;
    }
  }
  return at;
}
}
