// ELF symbol tables: reading, size completion, the function symbol list,
// symbol handles and the address and name look-ups.
#include "elf/elf_file.h"

#include <algorithm>
#include <cstring>

using namespace elf_internal;

namespace {
char s_acName[512]; // shared text buffer of the name getters

bool IsFunc(const ELF_SYMBOL& s) { return ELF_IsFunctionType(s.st_info & 15); }

bool HasHiddenPrefix(const char* n) {
  return strncmp(n, ".L", 2) == 0 || n[0] == '$' || n[0] == '?';
}

// End of the section a symbol belongs to; false if it has no valid section.
bool SectionEnd(const ELF_FILE* f, const ELF_SYMBOL& s, U32* pEnd) {
  if (s.st_shndx == 0 || s.st_shndx >= f->sections.size()) return false;
  const ELF_SECTION& sec = f->sections[s.st_shndx];
  *pEnd = sec.sh_addr + sec.sh_size;
  return true;
}

U32 CheckedSize(U32 Address, U32 Size) {
  if (Size > ELF_SIZE_SANITY_LIMIT) {
    ELF_ReportLine("Symbol at %X: did not pass allocation size sanity check", Address);
    return 0;
  }
  return Size;
}

// Fills in st_size for symbols that have none: objects first, then functions.
void CompleteSizes(ELF_FILE* f) {
  std::vector<U32>& byValue = f->symbolsByValue;
  const size_t n = byValue.size();
  for (size_t i = 0; i < n; ++i) {
    ELF_SYMBOL& s = f->symbols[byValue[i]];
    if (s.st_size != 0 || (s.st_info & 15) != ELF_STT_OBJECT) continue;
    for (size_t j = i + 1; j < n && j <= i + 9; ++j) {
      const U32 v = f->symbols[byValue[j]].st_value;
      if (v <= s.st_value) continue;
      U32 end;
      if (SectionEnd(f, s, &end) && v <= end) s.st_size = CheckedSize(s.st_value, v - s.st_value);
      break;
    }
  }
  // nextFunc[p]: the first function symbol at sorted position >= p (n if none).
  std::vector<U32> nextFunc(n + 1, (U32)n);
  for (size_t p = n; p-- > 0;) nextFunc[p] = IsFunc(f->symbols[byValue[p]]) ? (U32)p : nextFunc[p + 1];
  size_t groupEnd = 0; // first sorted position with a value above the current one
  for (size_t i = 0; i < n; ++i) {
    ELF_SYMBOL& s = f->symbols[byValue[i]];
    if (groupEnd <= i) {
      groupEnd = i + 1;
      while (groupEnd < n && f->symbols[byValue[groupEnd]].st_value == s.st_value) ++groupEnd;
    }
    if (s.st_size != 0 || !IsFunc(s)) continue;
    U32 secEnd;
    if (!SectionEnd(f, s, &secEnd)) continue;
    const U32 start = ELF_AlignAddress(s.st_value);
    U32 end = ELF_AlignAddress(secEnd);
    if (end <= start) continue;
    const U32 p = nextFunc[groupEnd];
    if (p < n) {
      const U32 next = ELF_AlignAddress(f->symbols[byValue[p]].st_value);
      if (next < end) end = next;
    }
    if (end > start) s.st_size = CheckedSize(s.st_value, end - start);
  }
}

void BuildFunctionList(ELF_FILE* f) {
  std::vector<U32> list;
  for (U32 row : f->symbolsByValue) {
    const ELF_SYMBOL& s = f->symbols[row];
    if (!IsFunc(s) || s.st_value < 2) continue;
    const char* name = SymbolName(f, row);
    if (!name || !*name || name[0] == '?' || name[0] == '$') continue;
    if (list.empty() || f->symbols[list.back()].st_value != s.st_value) {
      list.push_back(row);
      continue;
    }
    const ELF_SYMBOL& kept = f->symbols[list.back()];
    if (s.st_size > kept.st_size || (s.st_size == kept.st_size && row < list.back())) list.back() = row;
  }
  f->functionSymbols.assign(list.begin(), list.end());
  f->functionSymbolCount = (U32)list.size();
}

// Validates a handle of an ELF symbol and gives its file and row.
bool DecodeSymbolHandle(ELF_SYM_HANDLE h, ELF_FILE** pf, U32* pRow) {
  if ((h & 0xFFFFFF0000000000ull) != ELF_HANDLE_TAG) return false;
  if (((h >> 32) & 7) != 2 || ((h >> 38) & 3) != 0) return false;
  const U32 slot = (U32)(h >> 35) & 7;
  if (slot >= ELF_MAX_FILES) return false;
  ELF_FILE* f = g_aSlots[slot];
  if (!ELF_IsValidFile(f)) return false;
  const U32 row = (U32)h;
  if (row >= f->symbols.size()) return false;
  *pf = f;
  *pRow = row;
  return true;
}

const char* CopyName(const char* s) {
  if (!s) s = "";
  strncpy(s_acName, s, sizeof(s_acName) - 1);
  s_acName[sizeof(s_acName) - 1] = 0;
  return s_acName;
}

// Position in the value-sorted list: exact hit or the last element that
// compared lower; -1 if neither.
int NearestIndex(const ELF_FILE* f, U32 Address) {
  return FindAtOrBelow((int)f->symbolsByValue.size(), Address,
                       [f](int i) { return f->symbols[f->symbolsByValue[i]].st_value; });
}

bool TypeMatches(int Want, int Have) {
  if (Want == -1) return true;
  if (ELF_IsFunctionType(Want)) return ELF_IsFunctionType(Have);
  return Want == Have;
}
} // namespace

namespace elf_internal {
const char* SymbolName(const ELF_FILE* f, U32 Row) {
  for (const ELF_SYMTAB_PART& p : f->symtabParts)
    if (Row >= p.FirstRow && Row - p.FirstRow < p.NumRows) return StringAt(f, p.StrSection, f->symbols[Row].st_name);
  return nullptr;
}

int FindSymbolByName(const ELF_FILE* f, const char* sName) {
  if (!sName) return -1;
  for (U32 i = 0; i < f->symbols.size(); ++i) {
    const char* n = SymbolName(f, i);
    if (n && strcmp(n, sName) == 0) return (int)i;
  }
  return -1;
}

int ParseSymbols(ELF_FILE* f) {
  U64 total = 0, bytes = 0;
  for (const ELF_SECTION& s : f->sections)
    if ((s.sh_type == ELF_SHT_SYMTAB || s.sh_type == ELF_SHT_DYNSYM) && s.sh_entsize != 0) {
      if (!RangeInFile(f, s.sh_offset, s.sh_size)) return 126;
      total += s.sh_size / s.sh_entsize;
      bytes += s.sh_size;
    }
  // Symbol tables of a real file do not overlap; tables that together are
  // larger than the file would only multiply the same bytes.
  if (bytes > f->fileSize) return 126;
  f->symbols.resize(total);
  U32 row = 0;
  for (U32 i = 0; i < f->sections.size(); ++i) {
    const ELF_SECTION& s = f->sections[i];
    if ((s.sh_type != ELF_SHT_SYMTAB && s.sh_type != ELF_SHT_DYNSYM) || s.sh_entsize == 0) continue;
    const U32 count = s.sh_size / s.sh_entsize;
    const U32 n = s.sh_entsize < sizeof(ELF_SYMBOL) ? s.sh_entsize : (U32)sizeof(ELF_SYMBOL);
    f->symtabParts.push_back({row, count, i, s.sh_link});
    for (U32 k = 0; k < count; ++k, ++row) {
      ELF_SYMBOL& sym = f->symbols[row];
      memset(&sym, 0, sizeof(sym));
      memcpy(&sym, f->fileData + s.sh_offset + (size_t)k * s.sh_entsize, n);
      if (f->bigEndian) {
        sym.st_name = __builtin_bswap32(sym.st_name);
        sym.st_value = __builtin_bswap32(sym.st_value);
        sym.st_size = __builtin_bswap32(sym.st_size);
        sym.st_shndx = (U16)((sym.st_shndx >> 8) | (sym.st_shndx << 8));
      }
    }
  }
  f->elfSymbolCount = row;
  f->symbolsByValue.resize(row);
  for (U32 i = 0; i < row; ++i) f->symbolsByValue[i] = i;
  std::stable_sort(f->symbolsByValue.begin(), f->symbolsByValue.end(),
                   [f](U32 a, U32 b) { return f->symbols[a].st_value < f->symbols[b].st_value; });
  CompleteSizes(f);
  BuildFunctionList(f);
  return 0;
}
} // namespace elf_internal

bool ELF_IsFunctionType(int Type) { return Type == ELF_STT_FUNC || Type == ELF_STT_ARM_TFUNC; }

int ELF_GetNumSymbols(const ELF_FILE* pFile) {
  return ELF_IsValidFile(pFile) ? (int)pFile->symbols.size() : 0;
}

ELF_SYM_HANDLE ELF_GetSymbolHandle(const ELF_FILE* pFile, int Row) {
  if (!ELF_IsValidFile(pFile) || Row < 0 || (size_t)Row >= pFile->symbols.size()) return 0;
  return ELF_HANDLE_TAG | ELF_HANDLE_KIND_SYMBOL | ((U64)ELF_GetSlot(pFile) << 35) | (U32)Row;
}

const ELF_SYMBOL* ELF_GetSymbolRow(const ELF_FILE* pFile, int Row) {
  if (!ELF_IsValidFile(pFile) || Row < 0 || (size_t)Row >= pFile->symbols.size()) return nullptr;
  return &pFile->symbols[Row];
}

int ELF_GetSymbolRowOfHandle(ELF_SYM_HANDLE Handle) {
  ELF_FILE* f;
  U32 row;
  return DecodeSymbolHandle(Handle, &f, &row) ? (int)row : -1;
}

ELF_FILE* ELF_GetFileOfHandle(ELF_SYM_HANDLE Handle) {
  if ((Handle & 0xFFFFFF0000000000ull) != ELF_HANDLE_TAG) return nullptr;
  const U32 slot = (U32)(Handle >> 35) & 7;
  if (slot >= ELF_MAX_FILES || !ELF_IsValidFile(g_aSlots[slot])) return nullptr;
  return g_aSlots[slot];
}

int ELF_GetSymbolType(ELF_SYM_HANDLE Handle) {
  ELF_FILE* f;
  U32 row;
  return DecodeSymbolHandle(Handle, &f, &row) ? (f->symbols[row].st_info & 15) : -1;
}

int ELF_GetSymbolBinding(ELF_SYM_HANDLE Handle) {
  ELF_FILE* f;
  U32 row;
  return DecodeSymbolHandle(Handle, &f, &row) ? (f->symbols[row].st_info >> 4) : 16;
}

U32 ELF_GetSymbolValue(ELF_SYM_HANDLE Handle) {
  ELF_FILE* f;
  U32 row;
  if (!DecodeSymbolHandle(Handle, &f, &row)) return 0;
  const U32 v = f->symbols[row].st_value;
  return HaveRelocations() ? ELF_RelocateAddress(v, 1, 0) : v;
}

U32 ELF_GetSymbolSize(ELF_SYM_HANDLE Handle) {
  ELF_FILE* f;
  U32 row;
  return DecodeSymbolHandle(Handle, &f, &row) ? f->symbols[row].st_size : 0;
}

const char* ELF_GetSymbolName(ELF_SYM_HANDLE Handle) {
  ELF_FILE* f;
  U32 row;
  if (!DecodeSymbolHandle(Handle, &f, &row)) return CopyName("");
  return CopyName(SymbolName(f, row));
}

int ELF_GetSymbolSection(ELF_SYM_HANDLE Handle) {
  ELF_FILE* f;
  U32 row;
  if (DecodeSymbolHandle(Handle, &f, &row)) return f->symbols[row].st_shndx;
  // A debug entry answers with the section that holds it.
  if ((Handle & 0xFFFFFF0000000000ull) != ELF_HANDLE_TAG || ((Handle >> 32) & 7) != 1) return -1;
  f = ELF_GetFileOfHandle(Handle);
  if (!f) return -1;
  return FindSection(f, (Handle & 0x80000000u) ? ".debug_types" : ".debug_info");
}

int ELF_FindNearestIndex(const ELF_FILE* pFile, U32 Address) {
  return ELF_IsValidFile(pFile) ? NearestIndex(pFile, Address) : -1;
}

int ELF_GetSortedSymbolRow(const ELF_FILE* pFile, int SortedIndex) {
  if (!ELF_IsValidFile(pFile) || SortedIndex < 0 || (size_t)SortedIndex >= pFile->symbolsByValue.size()) return -1;
  return (int)pFile->symbolsByValue[SortedIndex];
}

int ELF_FindSymbolAt(const ELF_FILE* pFile, U32 Address, bool Exact, int Type) {
  if (!ELF_IsValidFile(pFile)) return -1;
  const ELF_FILE* f = pFile;
  const int idx = NearestIndex(f, Address);
  if (idx < 0) return -1;
  const int n = (int)f->symbolsByValue.size();
  auto rowAt = [f](int i) { return f->symbolsByValue[i]; };
  auto typeOf = [f](U32 row) { return f->symbols[row].st_info & 15; };
  if (Exact) {
    const bool aligned = ELF_IsFunctionType(Type);
    const U32 want = aligned ? ELF_AlignAddress(Address) : Address;
    auto same = [&](int i) {
      const U32 v = f->symbols[rowAt(i)].st_value;
      return (aligned ? ELF_AlignAddress(v) : v) == want;
    };
    std::vector<U32> gathered;
    for (int i = idx; i >= 0 && same(i); --i) gathered.push_back(rowAt(i));
    for (int i = idx + 1; i < n && same(i); ++i) gathered.push_back(rowAt(i));
    for (U32 row : gathered) {
      if (Type == 0) {
        if (typeOf(row) != 0) continue;
        const char* name = SymbolName(f, row);
        if (!name || !*name || !HasHiddenPrefix(name)) return (int)row;
      } else if (TypeMatches(Type, typeOf(row))) {
        return (int)row;
      }
    }
    return -1;
  }
  for (int i = idx; i >= 0; --i) {
    const U32 row = rowAt(i);
    if (!TypeMatches(Type, typeOf(row))) continue;
    const char* name = SymbolName(f, row);
    if (!name || !*name || !HasHiddenPrefix(name)) return (int)row;
  }
  return -1;
}

int ELF_FindSymbolByName(const ELF_FILE* pFile, const char* sName) {
  return ELF_IsValidFile(pFile) ? FindSymbolByName(pFile, sName) : -1;
}

int ELF_GetNumFunctionSymbols(const ELF_FILE* pFile) {
  return ELF_IsValidFile(pFile) ? (int)pFile->functionSymbols.size() : 0;
}

ELF_SYM_HANDLE ELF_GetFunctionSymbol(const ELF_FILE* pFile, int Index) {
  if (!ELF_IsValidFile(pFile) || Index < 0 || (size_t)Index >= pFile->functionSymbols.size()) return 0;
  return ELF_GetSymbolHandle(pFile, (int)pFile->functionSymbols[Index]);
}

int ELF_GetFunctionSymbols(const ELF_FILE* pFile, U32 Address, bool Strict, ELF_SYM_HANDLE* pOut, int MaxOut) {
  if (!ELF_IsValidFile(pFile)) return 0;
  const ELF_FILE* f = pFile;
  const U32 a = Address | 1;
  const int at = FindAtOrBelow((int)f->functionSymbols.size(), a,
                               [f](int i) { return f->symbols[f->functionSymbols[i]].st_value; });
  if (at < 0) return 0;
  auto contains = [f, a](int i) {
    const ELF_SYMBOL& s = f->symbols[f->functionSymbols[i]];
    return s.st_value <= a && (U64)a < (U64)s.st_value + s.st_size;
  };
  int count = 0;
  for (int i = at; i >= 0 && contains(i); --i) {
    if (count < MaxOut && pOut) pOut[count] = ELF_GetSymbolHandle(f, (int)f->functionSymbols[i]);
    ++count;
  }
  if (count == 0 && !Strict) {
    if (MaxOut > 0 && pOut) pOut[0] = ELF_GetSymbolHandle(f, (int)f->functionSymbols[at]);
    count = 1;
  }
  return count;
}
