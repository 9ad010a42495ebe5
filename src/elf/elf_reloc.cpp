// The symbol relocation list behind Project.RelocateSymbols. It is global and
// survives ELF_Close; rows that name sections or symbols are parsed again at
// the end of every ELF_Open.
#include "elf/elf_file.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

using namespace elf_internal;

namespace {
std::vector<ELF_RELOC_RANGE> s_Rows;

// The file whose sections and symbols name ranges: the current program while
// it is open (also while ELF_Open is finishing).
const ELF_FILE* RangeFile() {
  const ELF_FILE* f = g_pCurrent;
  return ELF_GetSlot(f) >= 0 ? f : nullptr;
}

// strtol with base 0 over a whole (trimmed) text; false if anything is left.
bool ReadNumber(const char* s, const char* e, U32* pValue) {
  while (s < e && (*s == ' ' || *s == '\t')) ++s;
  while (e > s && (e[-1] == ' ' || e[-1] == '\t')) --e;
  if (s == e) return false;
  std::string t(s, e);
  char* end = nullptr;
  errno = 0;
  const long long v = strtoll(t.c_str(), &end, 0);
  if (*end != 0 || errno) return false;
  *pValue = (U32)v;
  return true;
}
} // namespace

namespace elf_internal {
bool HaveRelocations() { return !s_Rows.empty(); }

void ReparseRelocations() {
  for (ELF_RELOC_RANGE& r : s_Rows) {
    if (!r.acSymbols[0]) continue;
    U32 s = 0, e = 0;
    if (ELF_ParseRelocationRange(r.acSymbols, &s, &e) >= 0) {
      r.start = s;
      r.end = e;
    }
  }
}
} // namespace elf_internal

int ELF_ParseRelocationRange(const char* sText, U32* pStart, U32* pEnd) {
  if (!sText || !*sText) return -1;
  if (strcmp(sText, "*") == 0) {
    *pStart = 0;
    *pEnd = 0xFFFFFFFE;
    return 0;
  }
  if (const char* dash = strchr(sText, '-')) {
    U32 a, b;
    if (!ReadNumber(sText, dash, &a) || !ReadNumber(dash + 1, sText + strlen(sText), &b)) return -1;
    if (a == 0 && b == 0) return -1;
    *pStart = a;
    *pEnd = b;
    return 0;
  }
  const ELF_FILE* f = RangeFile();
  if (!f) return -1;
  const int sec = FindSection(f, sText);
  if (sec >= 0) {
    *pStart = f->sections[sec].sh_addr;
    *pEnd = f->sections[sec].sh_addr + f->sections[sec].sh_size;
    return 0;
  }
  const int row = FindSymbolByName(f, sText);
  if (row >= 0) {
    const ELF_SYMBOL& s = f->symbols[row];
    U32 start = s.st_value;
    if (ELF_IsFunctionType(s.st_info & 15)) start = ELF_AlignAddress(start);
    *pStart = start;
    *pEnd = start + s.st_size;
    return 0;
  }
  return -1;
}

int ELF_AddRelocation(const char* sSymbols, I32 Offset) {
  ELF_RELOC_RANGE r{};
  r.offset = Offset;
  if (sSymbols && *sSymbols) {
    strncpy(r.acSymbols, sSymbols, sizeof(r.acSymbols) - 1);
    U32 s = 0, e = 0;
    if (ELF_ParseRelocationRange(r.acSymbols, &s, &e) < 0) {
      // Names can only be resolved with a program; without one the row waits
      // for the next ELF_Open. A number range that does not parse is wrong.
      if (RangeFile() || strcmp(r.acSymbols, "*") == 0 || strchr(r.acSymbols, '-')) return -1;
    } else {
      r.start = s;
      r.end = e;
    }
  }
  if (s_Rows.size() + 1 >= s_Rows.capacity()) s_Rows.reserve(s_Rows.capacity() < 4 ? 4 : s_Rows.capacity() * 2);
  s_Rows.push_back(r);
  return 0;
}

U32 ELF_RelocateAddress(U32 Address, int Low, int High) {
  for (const ELF_RELOC_RANGE& r : s_Rows) {
    if (!((U64)r.start < (U64)Address + (U32)Low && (U64)Address < (U64)r.end + (U32)High)) continue;
    if (r.offset > 0 ? Address <= ~(U32)r.offset : Address >= (U32)(-(I64)r.offset)) return Address + (U32)r.offset;
  }
  return Address;
}

U32 ELF_UnrelocateAddress(U32 Address, int Low, int High) {
  for (const ELF_RELOC_RANGE& r : s_Rows) {
    const I64 start = (I64)r.start + r.offset, end = (I64)r.end + r.offset;
    if (!(start < (I64)Address + Low && (I64)Address < end + High)) continue;
    if (r.offset > 0 ? Address >= (U32)r.offset : Address <= (U32)((I64)r.offset - 1)) return Address - (U32)r.offset;
  }
  return Address;
}

int ELF_GetNumRelocations() { return (int)s_Rows.size(); }

const ELF_RELOC_RANGE* ELF_GetRelocation(int Index) {
  return Index >= 0 && (size_t)Index < s_Rows.size() ? &s_Rows[Index] : nullptr;
}

void ELF_ClearRelocations() { s_Rows.clear(); }
