// Opening and closing of ELF files, the header check, the reading of program
// and section headers, and the diagnostic reporters of the ELF API.
#include "elf/elf_file.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

namespace elf_internal {
bool g_Opening = false;
bool g_Closing = false;
ELF_FILE* g_aSlots[ELF_MAX_FILES] = {};
ELF_FILE* g_pCurrent = nullptr;
}
using namespace elf_internal;

namespace {
ELF_DIAG_HOOK s_pfHook = nullptr;
ELF_DEBUG_PARSER s_pfDebugParser = nullptr;
ELF_DEBUG_CLOSER s_pfDebugCloser = nullptr;
U32 s_InstAlignment = 2;
bool s_TargetBigEndian = false;
U32 s_SymbolLow = 0xFFFFFFFF, s_SymbolHigh = 0;
int s_LastOpenError = 0;
// The class word of the last header refused with 120 ("ELF_CLASS_NONE", ...).
const char* s_sRefusedClass = "ELF_CLASS_NONE";

void Report(int Code, U32 Flags, const char* a0, const char* a1, const char* a2, const char* a3) {
  if (Code == 0 || !ELF_IsReporterCode(Code)) return;
  if (!s_pfHook) return;
  ELF_DIAG d{};
  d.Code = Code;
  d.Flags = Flags;
  d.asArg[0] = a0 ? a0 : "";
  d.asArg[1] = a1 ? a1 : "";
  d.asArg[2] = a2 ? a2 : "";
  d.asArg[3] = a3 ? a3 : "";
  d.sText = "";
  s_pfHook(&d);
}

U16 Swap16(U16 v) { return (U16)((v >> 8) | (v << 8)); }
U32 Swap32(U32 v) { return __builtin_bswap32(v); }

void SwapHeader(ELF_HEADER& h) {
  h.e_type = Swap16(h.e_type);
  h.e_machine = Swap16(h.e_machine);
  h.e_version = Swap32(h.e_version);
  h.e_entry = Swap32(h.e_entry);
  h.e_phoff = Swap32(h.e_phoff);
  h.e_shoff = Swap32(h.e_shoff);
  h.e_flags = Swap32(h.e_flags);
  h.e_ehsize = Swap16(h.e_ehsize);
  h.e_phentsize = Swap16(h.e_phentsize);
  h.e_phnum = Swap16(h.e_phnum);
  h.e_shentsize = Swap16(h.e_shentsize);
  h.e_shnum = Swap16(h.e_shnum);
  h.e_shstrndx = Swap16(h.e_shstrndx);
}

// Swaps an array of u32 words in place.
void SwapWords(void* p, size_t nWords) {
  U32* w = static_cast<U32*>(p);
  for (size_t i = 0; i < nWords; ++i) w[i] = Swap32(w[i]);
}

// Header check in the fixed order; 0 or the reporter code.
int ParseHeader(ELF_FILE* f) {
  static const U8 kMagic[4] = {0x7F, 'E', 'L', 'F'};
  if (f->fileSize < sizeof(ELF_HEADER)) {
    // Too short for a header: say "not ELF" unless what is there is the magic.
    size_t n = f->fileSize < 4 ? f->fileSize : 4;
    return memcmp(f->fileData, kMagic, n) != 0 ? 118 : 126;
  }
  memcpy(&f->header, f->fileData, sizeof(ELF_HEADER));
  ELF_HEADER& h = f->header;
  f->bigEndian = h.e_ident[5] == 2;
  if (f->bigEndian) SwapHeader(h);
  if (memcmp(h.e_ident, kMagic, 4) != 0) return 118;
  // Only the 32-bit layouts are parsed. A 64-bit file is refused for its
  // class whatever its type (a position-independent 64-bit executable is
  // still an executable), the other classes after the type check.
  if (h.e_ident[4] == 2) {
    s_sRefusedClass = "ELF_CLASS_64; only 32-bit program files are supported";
    return 120;
  }
  if (h.e_type != ELF_ET_EXEC) return 119;
  if (h.e_ident[4] != 1) {
    s_sRefusedClass = h.e_ident[4] == 0 ? "ELF_CLASS_NONE" : "unknown; only 32-bit program files are supported";
    return 120;
  }
  if (h.e_ident[5] != 1 && h.e_ident[5] != 2) return 121;
  if (h.e_ident[6] != 1) return 122;
  if (h.e_version == 0) return 123;
  return 0;
}

// Copies Count records of EntSize bytes at Offset into records of RecSize
// bytes (zero-filled when the file's entries are shorter).
template <typename T>
int ReadTable(ELF_FILE* f, U32 Offset, U32 Count, U32 EntSize, std::vector<T>& out) {
  out.clear();
  if (Count == 0) return 0;
  if (EntSize == 0 || !RangeInFile(f, Offset, (U64)Count * EntSize)) return 126;
  out.resize(Count);
  const U32 n = EntSize < sizeof(T) ? EntSize : (U32)sizeof(T);
  for (U32 i = 0; i < Count; ++i) {
    memset(&out[i], 0, sizeof(T));
    memcpy(&out[i], f->fileData + Offset + (size_t)i * EntSize, n);
    if (f->bigEndian) SwapWords(&out[i], sizeof(T) / 4);
  }
  return 0;
}

void FreeFile(ELF_FILE* f) {
  delete[] f->fileData;
  delete f;
}

I64 NowMicros() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::steady_clock::now().time_since_epoch()).count();
}

ELF_FILE* Leave(int Code) {
  s_LastOpenError = Code;
  g_Opening = false;
  if (Code == 120) ELF_ReportError(Code, s_sRefusedClass);
  else ELF_ReportError(Code);
  return nullptr;
}
} // namespace

namespace elf_internal {
bool RangeInFile(const ELF_FILE* f, U64 Offset, U64 Size) {
  return Offset <= f->fileSize && Size <= f->fileSize - Offset;
}

const U8* SectionData(const ELF_FILE* f, U32 Index) {
  if (Index >= f->sections.size()) return nullptr;
  const ELF_SECTION& s = f->sections[Index];
  if (s.sh_type == ELF_SHT_NOBITS || s.sh_type == 0) return nullptr;
  if (!RangeInFile(f, s.sh_offset, s.sh_size)) return nullptr;
  return f->fileData + s.sh_offset;
}

const char* StringAt(const ELF_FILE* f, U32 StrSection, U32 Offset) {
  const U8* p = SectionData(f, StrSection);
  if (!p) return nullptr;
  const U32 size = f->sections[StrSection].sh_size;
  if (Offset >= size) return nullptr;
  if (!memchr(p + Offset, 0, size - Offset)) return nullptr;
  return reinterpret_cast<const char*>(p + Offset);
}

const char* SectionName(const ELF_FILE* f, U32 Index) {
  if (Index >= f->sections.size()) return nullptr;
  return StringAt(f, f->header.e_shstrndx, f->sections[Index].sh_name);
}

int FindSection(const ELF_FILE* f, const char* sName) {
  if (!sName) return -1;
  for (U32 i = 0; i < f->sections.size(); ++i) {
    const char* n = SectionName(f, i);
    if (n && strcmp(n, sName) == 0) return (int)i;
  }
  return -1;
}
} // namespace elf_internal

// ---- diagnostics -----------------------------------------------------------

void ELF_SetDiagHook(ELF_DIAG_HOOK pfHook) { s_pfHook = pfHook; }
ELF_DIAG_HOOK ELF_GetDiagHook() { return s_pfHook; }

bool ELF_IsReporterCode(int Code) {
  return (Code >= 1 && Code <= 34) || (Code >= 100 && Code <= 128) || Code == 133;
}

void ELF_ReportError(int Code, const char* a0, const char* a1, const char* a2, const char* a3) {
  // Warnings (1-23) and errors (118-133) show a message box; the others are
  // logged errors.
  U32 flags = (Code >= 1 && Code <= 23) ? 66 : (Code >= 118) ? 68 : 26;
  Report(Code, flags, a0, a1, a2, a3);
}

void ELF_ReportLogged(int Code, const char* a0, const char* a1, const char* a2, const char* a3) {
  Report(Code, 26, a0, a1, a2, a3);
}

void ELF_ReportValue(int Code, U32 Value) {
  if (!ELF_IsReporterCode(Code) || !s_pfHook) return;
  ELF_DIAG d{};
  d.Code = Code;
  d.Flags = 26;
  d.asArg[0] = d.asArg[1] = d.asArg[2] = d.asArg[3] = "";
  d.Value = Value;
  d.sText = "";
  s_pfHook(&d);
}

void ELF_ReportLine(const char* sFormat, ...) {
  if (!s_pfHook) return;
  char ac[512];
  va_list ap;
  va_start(ap, sFormat);
  vsnprintf(ac, sizeof(ac), sFormat, ap);
  va_end(ap);
  ELF_DIAG d{};
  d.Code = 0;
  d.Flags = 9;
  d.asArg[0] = d.asArg[1] = d.asArg[2] = d.asArg[3] = "";
  d.sText = ac;
  s_pfHook(&d);
}

int ELF_GetLastOpenError() { return s_LastOpenError; }

// ---- alignment and global state ---------------------------------------------

void ELF_SetInstAlignment(U32 Alignment) { s_InstAlignment = Alignment ? Alignment : 1; }
U32 ELF_GetInstAlignment() { return s_InstAlignment; }
U32 ELF_AlignAddress(U32 Address) { return Address - Address % s_InstAlignment; }
bool ELF_IsTargetBigEndian() { return s_TargetBigEndian; }
void ELF_GetSymbolAddressSpan(U32* pLow, U32* pHigh) {
  if (pLow) *pLow = s_SymbolLow;
  if (pHigh) *pHigh = s_SymbolHigh;
}
void ELF_SetDebugInfoParser(ELF_DEBUG_PARSER pfParser) { s_pfDebugParser = pfParser; }
void ELF_SetDebugInfoCloser(ELF_DEBUG_CLOSER pfCloser) { s_pfDebugCloser = pfCloser; }
ELF_FILE* ELF_GetCurrentProgram() { return g_pCurrent; }

int ELF_GetSlot(const ELF_FILE* pFile) {
  if (!pFile) return -1;
  for (int i = 0; i < ELF_MAX_FILES; ++i)
    if (g_aSlots[i] == pFile) return i;
  return -1;
}

bool ELF_IsValidFile(const ELF_FILE* pFile) {
  return !g_Opening && !g_Closing && ELF_GetSlot(pFile) >= 0;
}

// ---- open and close ---------------------------------------------------------

// Steps of ELF_Open after the file is in memory: slot, headers, symbols,
// debug information, relocation rows, image segments.
static ELF_FILE* ParseLoaded(ELF_FILE* f, bool ParseDebugInfo) {
  int slot = 0;
  while (g_aSlots[slot]) ++slot; // a free slot exists: the last one is free
  g_aSlots[slot] = f;
  f->state = 0;
  g_pCurrent = f;
  f->openTicks = NowMicros();

  int err = ParseHeader(f);
  if (!err) err = ReadTable(f, f->header.e_phoff, f->header.e_phnum, f->header.e_phentsize, f->segments);
  if (!err) err = ReadTable(f, f->header.e_shoff, f->header.e_shnum, f->header.e_shentsize, f->sections);
  if (!err) {
    f->strtabIndex = FindSection(f, ".strtab");
    f->symtabIndex = FindSection(f, ".symtab");
    if (FindSection(f, ".note.iar") >= 0) f->cfaScale = 4;
    err = ParseSymbols(f);
  }
  if (err) {
    g_aSlots[slot] = nullptr;
    if (g_pCurrent == f) g_pCurrent = nullptr;
    FreeFile(f);
    return Leave(err);
  }

  if (ParseDebugInfo && s_pfDebugParser) {
    if (s_pfDebugParser(f) < 0) ELF_ReportError(133);
  }

  f->state = 1;
  g_Opening = false;
  ReparseRelocations();
  s_TargetBigEndian = f->bigEndian;
  BuildImageSegments(f);
  // Address span of the program's symbols, relocated.
  s_SymbolLow = 0xFFFFFFFF;
  s_SymbolHigh = 0;
  for (const ELF_SYMBOL& sym : f->symbols) {
    const U32 lo = HaveRelocations() ? ELF_RelocateAddress(sym.st_value, 1, 0) : sym.st_value;
    const U64 end = (U64)sym.st_value + sym.st_size;
    const U32 hiRaw = end > 0xFFFFFFFF ? 0xFFFFFFFF : (U32)end;
    const U32 hi = HaveRelocations() ? ELF_RelocateAddress(hiRaw, 0, 1) : hiRaw;
    if (lo < s_SymbolLow) s_SymbolLow = lo;
    if (hi > s_SymbolHigh) s_SymbolHigh = hi;
  }
  return f;
}


ELF_FILE* ELF_Open(const char* sPath, bool ParseDebugInfo) {
  g_Opening = true;
  s_LastOpenError = 0;
  if (g_aSlots[ELF_MAX_FILES - 1]) return Leave(124);
  FILE* fp = sPath ? fopen(sPath, "rb") : nullptr;
  if (!fp) return Leave(125);
  long size = -1;
  if (fseek(fp, 0, SEEK_END) == 0) size = ftell(fp);
  if (size <= 0 || size > 0x7FFFFFFF || fseek(fp, 0, SEEK_SET) != 0) {
    fclose(fp);
    return Leave(126);
  }
  ELF_FILE* f = new (std::nothrow) ELF_FILE;
  U8* data = f ? new (std::nothrow) U8[(size_t)size] : nullptr;
  if (!f || !data) {
    delete f;
    fclose(fp);
    return Leave(127);
  }
  f->fileData = data;
  f->fileSize = (U32)size;
  size_t nRead = fread(data, 1, (size_t)size, fp);
  fclose(fp);
  if (nRead != (size_t)size) {
    FreeFile(f);
    return Leave(128);
  }

  return ParseLoaded(f, ParseDebugInfo);
}

ELF_FILE* ELF_OpenMemory(const void* pData, U32 Size, bool ParseDebugInfo) {
  g_Opening = true;
  s_LastOpenError = 0;
  if (g_aSlots[ELF_MAX_FILES - 1]) return Leave(124);
  if (!pData || Size == 0 || Size > 0x7FFFFFFF) return Leave(126);
  ELF_FILE* f = new (std::nothrow) ELF_FILE;
  U8* data = f ? new (std::nothrow) U8[Size] : nullptr;
  if (!f || !data) {
    delete f;
    return Leave(127);
  }
  memcpy(data, pData, Size);
  f->fileData = data;
  f->fileSize = Size;
  return ParseLoaded(f, ParseDebugInfo);
}

void ELF_Close(ELF_FILE* pFile) {
  int slot = ELF_GetSlot(pFile);
  if (slot < 0 || pFile->state != 1 || g_Opening || g_Closing) return;
  pFile->imageSegments.clear();
  if (s_pfDebugCloser && pFile->dwarf) s_pfDebugCloser(pFile);
  g_Closing = true;
  pFile->state = 0;
  g_aSlots[slot] = nullptr;
  FreeFile(pFile);
  g_Closing = false;
}
