#include "disasm/instcache.h"

#include "elf/elf.h"
#include "elf/elfapi.h"
#include "log/log.h"
#include "plugins/corehost.h"
#include "plugins/corewrappers.h"

#include <QMutexLocker>
#include <QString>
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

constexpr U32 kPageEntries = 32768;
constexpr U32 kNoRange = 0xFFFFFFFFu;
constexpr U64 kWalkLimit = 100000000ull;

// ---- instruction cache -----------------------------------------------------

std::atomic<CORE_INST_INFO*> g_apPages[65536];
std::atomic<bool> g_Initialised{false};
std::unordered_set<U32> g_BranchTargets;

CORE_INST_INFO* Page(U32 Addr, bool Create) {
  std::atomic<CORE_INST_INFO*>& Slot = g_apPages[Addr >> 16];
  CORE_INST_INFO* p = Slot.load(std::memory_order_acquire);
  if (!p && Create) {
    p = static_cast<CORE_INST_INFO*>(std::calloc(kPageEntries, sizeof(CORE_INST_INFO)));
    Slot.store(p, std::memory_order_release);
  }
  return p;
}

const CORE_STATIC_INFO& Info() { return CoreStaticInfo(); }
// Without a plug-in: the ELF layer's default step of 2.
U32 Align() { return Info().InstAlign ? Info().InstAlign : 2; }
U32 MinLen() { return std::max<U32>(1, Info().MinInstLen); }
U32 MaxLen() { return std::max<U32>(MinLen(), Info().MaxInstLen); }
U64 AlignDown(U64 a) { return a - a % Align(); }

void DebugMessage(const QString& s) { LogMessage(s, MSG_INFO | MSG_STDOUT | MSG_FILE); }

// ---- mapping ranges ----------------------------------------------------------

struct CODE_RANGE {
  U64 Addr;
  U32 SymIdx;
  U32 Type;
  const char* sName;
};

struct SECTION {
  U32 Addr, Size;
  bool Exec;
  std::vector<U32> aRangeAt;  // one per 2 bytes: position in g_Ranges, kNoRange until asked
};

std::mutex g_RangeMx;  // guards the lazily filled per-section arrays
std::vector<CODE_RANGE> g_Ranges;
std::vector<U32> g_SymToRange;
std::vector<SECTION> g_Sections;
std::vector<std::string> g_Names;
U64 g_ImageEnd = 0;

// The comparator of bsearch that remembers the last range below the key.
const CODE_RANGE* g_pBelow = nullptr;
int CompareRange(const void* pKey, const void* pElem) {
  const U64 k = *static_cast<const U64*>(pKey);
  const CODE_RANGE* r = static_cast<const CODE_RANGE*>(pElem);
  if (k < r->Addr) return -1;
  if (k > r->Addr) {
    if (!g_pBelow || g_pBelow->Addr < r->Addr) g_pBelow = r;
    return 1;
  }
  return 0;
}

int RangeIndexAt(U64 Addr) {
  for (SECTION& s : g_Sections) {
    if (Addr < s.Addr || Addr >= U64(s.Addr) + s.Size) continue;
    U32& Slot = s.aRangeAt[(Addr - s.Addr) / 2];
    // After the first hit: one array access, no lock.
    if (const U32 v = __atomic_load_n(&Slot, __ATOMIC_RELAXED); v != kNoRange) return v == kNoRange - 1 ? -1 : int(v);
    std::lock_guard<std::mutex> Lock(g_RangeMx);
    U64 Key = AlignDown(Addr);
    g_pBelow = nullptr;
    const void* p = g_Ranges.empty() ? nullptr
                                     : std::bsearch(&Key, g_Ranges.data(), g_Ranges.size(), sizeof(CODE_RANGE), CompareRange);
    const CODE_RANGE* r = p ? static_cast<const CODE_RANGE*>(p) : g_pBelow;
    // A range of another section does not reach into this one.
    const int Idx = r && r->Addr >= s.Addr ? int(r - g_Ranges.data()) : -1;
    __atomic_store_n(&Slot, Idx < 0 ? kNoRange - 1 : U32(Idx), __ATOMIC_RELAXED);
    return Idx;
  }
  return -1;
}

const SECTION* SectionAt(U64 Addr) {
  for (const SECTION& s : g_Sections)
    if (Addr >= s.Addr && Addr < U64(s.Addr) + s.Size) return &s;
  return nullptr;
}

U64 RangeEnd(int Idx) {
  const SECTION* s = SectionAt(g_Ranges[Idx].Addr);
  U64 End = size_t(Idx + 1) < g_Ranges.size() ? g_Ranges[Idx + 1].Addr : g_ImageEnd;
  if (s) End = std::min<U64>(End, U64(s->Addr) + s->Size);
  return End;
}

bool InDataRange(U64 Addr) {
  U32 Type = 0;
  return FindCodeRange(Addr, &Type) == 0 && Type == 1;
}

// ---- text and count caches ---------------------------------------------------

std::mutex g_TextMx;
std::unordered_map<U64, std::string> g_Texts;
std::unordered_map<U64, int> g_Counts;
int g_CountHits = 0;

// The first tab pads the mnemonic to its column, the second starts the comment.
std::string AlignColumns(const char* s) {
  std::string Out;
  int Tabs = 0;
  for (const char* p = s; *p; ++p) {
    if (*p != '\t' || Tabs == 2) {
      Out += *p;
      continue;
    }
    if (Tabs++ == 0) {
      const size_t Col = std::max<size_t>(Info().MaxMnemonicLen + 1, Out.size() + 1);
      Out.append(Col - Out.size(), ' ');
    } else {
      Out += "  ";
    }
  }
  return Out;
}

bool HasSymbols() {
  CElfApi& Elf = CElfApi::Instance();
  return Elf.IsLoaded() && Elf.GetFile();
}

}  // namespace

// ---- the cache -------------------------------------------------------------------

U64 Core::AnalyzeAdd(U64 Start, U64 End, const U8* pData) {
  if (!g_Initialised.load()) {
    DebugMessage(QStringLiteral("Failed to analyze instruction byte stream: module not initialized"));
    return 0;
  }
  if (Start >= End) {
    DebugMessage(QStringLiteral("Invalid address range input to function Core::AnalyzeAdd"));
    return 0;
  }
  if (!pData) return 0;
  if (Start >= 0xFFFFFFFFull || End >= 0xFFFFFFFFull) {
    DebugMessage(QStringLiteral("Cannot add to instruction cache outside 32-bit address range"));
    return 0;
  }
  // The plug-in decodes the bytes given, not the image's.
  CORE_SetReadOverlay(Start, End, pData);
  struct CLEAR {
    ~CLEAR() { CORE_SetReadOverlay(0, 0, nullptr); }
  } Clear;
  U64 Sum = 0;
  for (U64 A = AlignDown(Start); A < End;) {
    int r = -1;
    const CORE_INST_INFO* p = CORE_AnalyzeInst(A, &r);
    if (!p || r != 0) {
      A += Align();
      continue;
    }
    CORE_INST_INFO* pg = Page(U32(A), true);
    if (!pg) return Sum;
    pg[(A >> 1) & 0x7FFF] = *p;
    if ((p->Flags & CORE_INST_CTRL_TRANSFER) && (p->Flags & CORE_INST_TARGET_KNOWN) && p->Target <= 0xFFFFFFFFull)
      g_BranchTargets.insert(U32(p->Target));
    Sum += p->Size;
    A += std::max<U64>(Align(), p->Size);
  }
  return Sum;
}

int GetCachedInst(CORE_INST_INFO* pInfo, U32 Addr) {
  const CORE_INST_INFO* pg = g_apPages[Addr >> 16].load(std::memory_order_acquire);
  if (!pg) return -1;
  const CORE_INST_INFO& e = pg[(Addr >> 1) & 0x7FFF];
  if (e.Size == 0 || I32(e.Size) < 0) return -1;
  if (pInfo) *pInfo = e;
  return 0;
}

void GetInstInfo(U64 Addr, CORE_INST_INFO* pInfo) {
  if (g_Initialised.load() && Addr <= 0xFFFFFFFFull && GetCachedInst(pInfo, U32(Addr)) == 0) return;
  if (const CORE_INST_INFO* p = CORE_AnalyzeInst(Addr)) {
    *pInfo = *p;
    return;
  }
  *pInfo = CORE_INST_INFO{};
}

U32 GetInstSize(U64 Addr) {
  CORE_INST_INFO i;
  GetInstInfo(Addr, &i);
  return i.Size;
}

bool IsCallInst(U64 Addr) {
  CORE_INST_INFO i;
  GetInstInfo(Addr, &i);
  return i.Flags & CORE_INST_CALL;
}

int GetBranchTarget(U64 Addr, U64* pTarget) {
  CORE_INST_INFO i;
  GetInstInfo(Addr, &i);
  if (!(i.Flags & CORE_INST_CTRL_TRANSFER) || !(i.Flags & CORE_INST_TARGET_KNOWN)) return -1;
  if (pTarget) *pTarget = i.Target;
  return 0;
}

bool IsConditionalInst(U64 Addr) {
  CORE_INST_INFO i;
  GetInstInfo(Addr, &i);
  return i.Flags & CORE_INST_CONDITIONAL;
}

bool IsInstruction(U64 Addr) {
  if (Addr > 0xFFFFFFFFull || InDataRange(Addr)) return false;
  return GetCachedInst(nullptr, U32(Addr)) == 0;
}

U32 GetDataItemLen(U64 Addr) {
  U32 Type = 0;
  U64 End = 0;
  if (FindCodeRange(Addr, &Type, nullptr, &End) != 0 || Type != 1 || End <= Addr) return 0;
  return U32(std::min<U64>(End - Addr, std::max<U32>(1, Info().AddrSize)));
}

static int WalkInst(U64 Addr, U64* pOut, bool Back) {
  for (U64 d = Align(); d <= MaxLen(); d += Align()) {
    if (Back && d > Addr) break;
    const U64 a = Back ? Addr - d : Addr + d;
    if (IsInstruction(a)) {
      if (pOut) *pOut = a;
      return 0;
    }
  }
  return -1;
}
int GetPrevInst(U64 Addr, U64* pOut) { return WalkInst(Addr, pOut, true); }
int GetNextInst(U64 Addr, U64* pOut) { return WalkInst(Addr, pOut, false); }

U32 GetItemLen(U64 Addr) {
  if (IsInstruction(Addr)) return GetInstSize(Addr);
  U64 Next = 0;
  if (GetNextInst(Addr, &Next) == 0 && Next - Addr <= MaxLen()) return U32(Next - Addr);
  return MinLen();
}

bool IsStraightCode(U64 Start, U64 End) {
  for (U64 a = AlignDown(Start); a < End; a += Align()) {
    CORE_INST_INFO i;
    if (!IsInstruction(a) || GetCachedInst(&i, U32(a)) != 0) continue;
    if (i.Flags & CORE_INST_LEAVES) return false;
    if ((i.Flags & CORE_INST_CTRL_TRANSFER) && !(i.Flags & CORE_INST_CALL)) return false;
  }
  return true;
}

U32 ClipItemLen(U64 Addr, U32 Len) {
  U64 End = Addr + Len;
  const int Idx = RangeIndexAt(Addr);
  if (Idx >= 0 && size_t(Idx + 1) < g_Ranges.size()) End = std::min(End, std::max(Addr, g_Ranges[Idx + 1].Addr));
  for (const SECTION& s : g_Sections)
    if (s.Addr > Addr) End = std::min<U64>(End, s.Addr);
  if (g_ImageEnd) End = std::min(End, std::max(Addr, g_ImageEnd));
  return U32(End - Addr);
}

static int ItemText(U64 Addr, char* pBuf, U32 BufSize, bool Display) {
  if (!pBuf || BufSize == 0) return -1;
  pBuf[0] = 0;
  const bool Data = InDataRange(Addr);
  const U32 Len = Data ? GetDataItemLen(Addr) : GetInstSize(Addr);
  if (Len == 0) return -1;
  auto Make = [&](U32 n, int* pUsed) {
    return Data ? (Display ? CORE_GetDataDisplayText(Addr, n, pUsed) : CORE_GetDataText(Addr, n, pUsed))
                : (Display ? CORE_GetInstDisplayText(Addr, n, pUsed) : CORE_GetInstText(Addr, n, pUsed));
  };
  int Used = 0;
  const char* s = Make(Len, &Used);
  if (!s) return -1;
  const U32 Clipped = ClipItemLen(Addr, U32(std::max(Used, 0)));
  if (Used > 0 && Clipped != U32(Used) && Clipped > 0) s = Make(Clipped, &Used);
  if (!s) return -1;
  std::strncpy(pBuf, s, BufSize - 1);
  pBuf[BufSize - 1] = 0;
  return Used;
}
int GetItemDisplayText(U64 Addr, char* pBuf, U32 BufSize) { return ItemText(Addr, pBuf, BufSize, true); }
int GetItemText(U64 Addr, char* pBuf) { return ItemText(Addr, pBuf, 128, false); }

U64 GetSafeDisasmStart(U64 PC, U8* pIsSafe) {
  U8 Safe = 0;
  U64 Start = 0;
  bool Found = false;
  if (HasSymbols()) {
    U64 rs = 0;
    U32 Type = 0;
    if (FindCodeRange(PC, &Type, &rs) == 0 && AlignDown(rs) <= PC) {
      Start = AlignDown(rs);
      Found = true;
    }
    CElfApi& Elf = CElfApi::Instance();
    QMutexLocker Lock(&Elf.Mutex());
    if (const ELF_FILE* f = Elf.GetFile(); f && PC <= 0xFFFFFFFFull) {
      const int Row = ELF_FindSymbolAt(f, U32(PC), false, -1);
      const ELF_SYM_HANDLE h = Row >= 0 ? ELF_GetSymbolHandle(f, Row) : ELF_SYM_HANDLE{};
      // Only a symbol that holds PC: its extent reaches past it.
      if (Row >= 0 && U64(ELF_GetSymbolValue(h)) + ELF_GetSymbolSize(h) > PC) {
        const U64 s = AlignDown(ELF_GetSymbolValue(h));
        if (s <= PC) {
          Start = Found ? std::max(Start, s) : s;
          Found = true;
        }
      }
    }
  }
  if (Found) Safe = 1;
  if (pIsSafe) *pIsSafe = Safe;
  if (!Found) return PC;
  if (PC - Start <= 10000) return Start;
  DebugMessage(QStringLiteral("A safe disassembly start address for PC 0x%1 could not be determined. Disassembling from PC.")
                   .arg(PC, 8, 16, QLatin1Char('0')).toUpper().replace(QLatin1String("0X"), QLatin1String("0x")));
  return PC;
}

static int CountUncached(U64 Start, U64 End) {
  int n = 0;
  for (U64 a = AlignDown(Start); a < End; a += Align()) n += IsInstruction(a);
  return n;
}

int CountInsts(U64 Start, U64 End) {
  if (End < Start) return 0;
  if (End - Start >= kWalkLimit) {
    DebugMessage(QStringLiteral("Size of function @ 0x%1 exceeds limit for instruction count analysis").arg(Start, 8, 16, QLatin1Char('0')));
    return 0;
  }
  const U64 Key = (Start + 713) * 31 + End;
  {
    std::lock_guard<std::mutex> Lock(g_TextMx);
    if (auto It = g_Counts.find(Key); It != g_Counts.end()) {
      ++g_CountHits;
      return It->second;
    }
  }
  const int n = CountUncached(Start, End);
  std::lock_guard<std::mutex> Lock(g_TextMx);
  g_Counts[Key] = n;
  return n;
}

int CountInstsMulti(int Cnt, const CORE_ADDR_RANGE* paRanges) {
  if (Cnt <= 0 || !paRanges) return 0;
  U64 Key = 23;
  for (int i = 0; i < Cnt; ++i) Key = (Key * 31 + paRanges[i].Start) * 31 + paRanges[i].End;
  {
    std::lock_guard<std::mutex> Lock(g_TextMx);
    if (auto It = g_Counts.find(Key); It != g_Counts.end()) {
      ++g_CountHits;
      return It->second;
    }
  }
  int n = 0;
  for (int i = 0; i < Cnt; ++i) n += CountInsts(paRanges[i].Start, paRanges[i].End);
  std::lock_guard<std::mutex> Lock(g_TextMx);
  g_Counts[Key] = n;
  return n;
}

int ListInsts(U64 Start, U64 End, int MaxItems, U64* paOut) {
  if (End <= Start) return -1;
  if (End - Start >= kWalkLimit) {
    DebugMessage(QStringLiteral("Size of function @ 0x%1 exceeds limit for disassembly analysis").arg(Start, 8, 16, QLatin1Char('0')));
    return -1;
  }
  int n = 0;
  for (U64 a = AlignDown(Start); a < End; a += GetInstTextAndLen(a)) {
    if (paOut && n < MaxItems) paOut[n] = a;
    ++n;
  }
  return n;
}

int AnalyzeRanges(int Cnt, const CORE_ADDR_RANGE* paRanges) {
  int Done = 0;
  for (int i = 0; paRanges && i < Cnt; ++i) Done += ListInsts(paRanges[i].Start, paRanges[i].End, 0, nullptr) >= 0;
  return Done;
}

U32 GetInstTextAndLen(U64 Addr) {
  static char s_acBuf[128];
  const int r = GetItemDisplayText(Addr, s_acBuf, sizeof(s_acBuf));
  U32 Len;
  if (r < 1) {
    Len = GetInstSize(Addr);
  } else {
    Len = U32(r);
    if (s_acBuf[0]) {
      std::lock_guard<std::mutex> Lock(g_TextMx);
      g_Texts[Addr] = AlignColumns(s_acBuf);
    }
  }
  return std::max(Len, MinLen());
}

const char* GetCachedInstText(U64 Addr) {
  std::lock_guard<std::mutex> Lock(g_TextMx);
  auto It = g_Texts.find(Addr);
  return It == g_Texts.end() ? "" : It->second.c_str();
}

// ---- mapping ranges ----------------------------------------------------------------

int FindCodeRange(U64 Addr, U32* pType, U64* pStart, U64* pEnd) {
  const int Idx = RangeIndexAt(Addr);
  if (Idx < 0) return -1;
  const U64 End = RangeEnd(Idx);
  if (Addr >= End) return -1;
  if (pType) *pType = g_Ranges[Idx].Type;
  if (pStart) *pStart = g_Ranges[Idx].Addr;
  if (pEnd) *pEnd = End;
  return 0;
}

void ClearCodeRanges() {
  std::lock_guard<std::mutex> Lock(g_RangeMx);
  g_Ranges.clear();
  g_SymToRange.clear();
  g_Sections.clear();
  g_Names.clear();
  g_ImageEnd = 0;
}

void SetupCodeRanges(const ELF_FILE* hELF) {
  ClearCodeRanges();
  if (Info().InstAlign) ELF_SetInstAlignment(Info().InstAlign);
  if (!hELF) return;
  const int nSym = ELF_GetNumSymbols(hELF), nSec = ELF_GetNumSections(hELF);
  std::lock_guard<std::mutex> Lock(g_RangeMx);
  for (int i = 0; i < nSec; ++i) {
    const U32 Flags = ELF_GetSectionFlags(hELF, i);
    if (!(Flags & 2)) continue;  // not allocated: no address
    const U32 a = ELF_GetSectionAddr(hELF, i), n = ELF_GetSectionSize(hELF, i);
    if (n == 0) continue;
    g_Sections.push_back({a, n, (Flags & 4) != 0, std::vector<U32>((n + 1) / 2, kNoRange)});
    if (ELF_GetSectionType(hELF, i) != 8) g_ImageEnd = std::max<U64>(g_ImageEnd, U64(a) + n);
  }
  g_Ranges.reserve(nSym);
  g_Names.reserve(nSym);
  g_SymToRange.assign(nSym, kNoRange);
  const std::string sPrefix = CORE_GetMappingSymPrefix();
  if (sPrefix.empty()) return;
  for (int Row = 0; Row < nSym; ++Row) {
    const ELF_SYM_HANDLE h = ELF_GetSymbolHandle(hELF, Row);
    if (ELF_GetSymbolSize(h) != 0 || ELF_IsFunctionType(ELF_GetSymbolType(h))) continue;
    const int Sec = ELF_GetSymbolSection(h);
    if (Sec > 0 && Sec < nSec && !(ELF_GetSectionFlags(hELF, Sec) & 4)) continue;
    const char* s = ELF_GetSymbolName(h);
    if (!s || std::strncmp(s, sPrefix.c_str(), sPrefix.size()) != 0) continue;
    U32 Type = 0;
    if (CORE_ParseMappingSym(s, &Type) != 0) continue;
    g_Names.emplace_back(s);
    g_Ranges.push_back({AlignDown(ELF_GetSymbolValue(h)), U32(Row), Type, g_Names.back().c_str()});
  }
  std::qsort(g_Ranges.data(), g_Ranges.size(), sizeof(CODE_RANGE), [](const void* a, const void* b) {
    const CODE_RANGE *x = static_cast<const CODE_RANGE*>(a), *y = static_cast<const CODE_RANGE*>(b);
    return x->Addr < y->Addr ? -1 : x->Addr > y->Addr ? 1 : (x->SymIdx < y->SymIdx ? -1 : x->SymIdx > y->SymIdx);
  });
  for (size_t i = 0; i < g_Ranges.size(); ++i) g_SymToRange[g_Ranges[i].SymIdx] = U32(i);
}

void ClearInstCache() {
  g_Initialised.store(false);
  for (auto& Slot : g_apPages) std::free(Slot.exchange(nullptr));
  g_BranchTargets.clear();
  std::lock_guard<std::mutex> Lock(g_TextMx);
  g_Texts.clear();
  g_Counts.clear();
  g_CountHits = 0;
}

void FillInstCache() {
  ClearInstCache();
  if (!IsCorePluginLoaded()) return;
  g_Initialised.store(true);
  CElfApi& Elf = CElfApi::Instance();
  QMutexLocker Lock(&Elf.Mutex());
  if (HasSymbols()) {
    for (const SECTION& s : g_Sections) {
      if (!s.Exec) continue;
      const U64 SecEnd = U64(s.Addr) + s.Size;
      for (U64 a = s.Addr; a < SecEnd;) {
        const int Idx = RangeIndexAt(a);
        if (Idx < 0) break;
        const U64 End = std::min(RangeEnd(Idx), SecEnd);
        if (End <= a) break;
        if (g_Ranges[Idx].Type == 0)
          if (const U8* p = Elf.GetProgramData(U32(a), U32(End - a))) Core::AnalyzeAdd(a, End, p);
        a = End;
      }
    }
    return;
  }
  for (const ELF_PROGRAM_DATA& b : Elf.GetProgramDataTable())
    if (b.pData && b.Size) Core::AnalyzeAdd(AlignDown(b.RunAddr), U64(b.RunAddr) + b.Size, b.pData);
}

int CORE_NumCachePages() {
  int n = 0;
  for (auto& Slot : g_apPages) n += Slot.load() != nullptr;
  return n;
}
int CORE_NumCountHits() {
  std::lock_guard<std::mutex> Lock(g_TextMx);
  return g_CountHits;
}
bool IsKnownBranchTarget(U32 Addr) { return g_BranchTargets.count(Addr) != 0; }
