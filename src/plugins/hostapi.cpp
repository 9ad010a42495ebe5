// The host table that every core plug-in gets: program image, symbols and
// mapping ranges from the ELF module, target memory through the device, and
// the log.
#include "device/device.h"
#include "elf/elf.h"
#include "elf/elfapi.h"
#include "log/log.h"
#include "plugins/corestate.h"
#include "plugins/corewrappers.h"

#include <QMutexLocker>
#include <algorithm>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace {

// Mapping ranges of the open program, sorted by start: each runs to the next
// one's start or to the end of its section.
struct MAPPING_RANGE {
  U32 Start, SectionEnd;
  U32 Type;  // 1 data
  const char* sName;
};

struct MAPPING_TABLE {
  std::mutex Mx;
  const ELF_FILE* pFile = nullptr;  // with its path and size: a new program at the same address is seen
  QString sPath;
  U32 FileSize = 0;
  std::string sPrefix;
  std::vector<MAPPING_RANGE> Ranges;
  // The names handed to the plug-in stay valid until the program changes
  // (the ELF API's own name texts are for immediate use only).
  std::set<std::string> Names;
};
MAPPING_TABLE g_Map;

// Rebuilds the table for the open program when it or the plug-in changed.
// Called with g_Map.Mx and the ELF mutex held.
void UpdateMappingTable(const ELF_FILE* pFile, const QString& sPath) {
  const std::string sPrefix = CORE_GetMappingSymPrefix();
  const U32 Size = pFile ? ELF_GetFileSize(pFile) : 0;
  if (g_Map.pFile == pFile && g_Map.sPath == sPath && g_Map.FileSize == Size && g_Map.sPrefix == sPrefix) return;
  g_Map.pFile = pFile;
  g_Map.sPath = sPath;
  g_Map.FileSize = Size;
  g_Map.sPrefix = sPrefix;
  g_Map.Ranges.clear();
  g_Map.Names.clear();
  if (!pFile || sPrefix.empty()) return;
  const int n = ELF_GetNumSymbols(pFile);
  for (int Row = 0; Row < n; ++Row) {
    const ELF_SYM_HANDLE h = ELF_GetSymbolHandle(pFile, Row);
    const char* p = ELF_GetSymbolName(h);
    if (!p || std::strncmp(p, sPrefix.c_str(), sPrefix.size()) != 0) continue;
    const std::string sName = p;
    U32 Type = 0;
    if (CORE_ParseMappingSym(sName.c_str(), &Type) != 0) continue;
    const int Sec = ELF_GetSymbolSection(h);
    if (Sec <= 0 || Sec >= ELF_GetNumSections(pFile)) continue;
    const U32 End = ELF_GetSectionAddr(pFile, Sec) + ELF_GetSectionSize(pFile, Sec);
    g_Map.Ranges.push_back({ELF_GetSymbolValue(h), End, Type, g_Map.Names.insert(sName).first->c_str()});
  }
  std::stable_sort(g_Map.Ranges.begin(), g_Map.Ranges.end(),
                   [](const MAPPING_RANGE& a, const MAPPING_RANGE& b) { return a.Start < b.Start; });
}

// The range holding Addr; false if none.
bool FindRange(U64 Addr, MAPPING_RANGE* pRange, U64* pEnd) {
  CElfApi& Elf = CElfApi::Instance();
  QMutexLocker ElfLock(&Elf.Mutex());
  std::lock_guard<std::mutex> Lock(g_Map.Mx);
  UpdateMappingTable(Elf.IsLoaded() ? Elf.GetFile() : nullptr, Elf.GetFilePath());
  const auto& v = g_Map.Ranges;
  auto It = std::upper_bound(v.begin(), v.end(), Addr, [](U64 a, const MAPPING_RANGE& r) { return a < r.Start; });
  if (It == v.begin()) return false;
  const MAPPING_RANGE& r = *(It - 1);
  const U64 End = std::min<U64>(It == v.end() ? r.SectionEnd : It->Start, r.SectionEnd);
  if (Addr >= End) return false;
  *pRange = r;
  *pEnd = End;
  return true;
}

int GetCodeRange(U64 Addr, const char** psName, U64* pStart, U64* pEnd) {
  MAPPING_RANGE r{};
  U64 End = 0;
  if (!FindRange(Addr, &r, &End)) return -1;
  if (psName) *psName = r.sName;
  if (pStart) *pStart = r.Start;
  if (pEnd) *pEnd = End;
  return 0;
}

bool IsNoSymbolName(const char* s) {
  return !s || !*s || s[0] == '$' || s[0] == '?' || (s[0] == '.' && s[1] == 'L');
}

// The symbol exactly at Addr, a function first.
int SymbolRowAt(const ELF_FILE* f, U32 Addr) {
  for (int Type : {2, -1}) {
    const int Row = ELF_FindSymbolAt(f, Addr, true, Type);
    if (Row >= 0 && !IsNoSymbolName(ELF_GetSymbolName(ELF_GetSymbolHandle(f, Row)))) return Row;
  }
  return -1;
}

int GetSymbolAt(U64 Addr, const char** psName, U64* pStart, U64* pEnd) {
  MAPPING_RANGE r{};
  U64 End = 0;
  const bool InData = FindRange(Addr, &r, &End) && r.Type == 1;
  CElfApi& Elf = CElfApi::Instance();
  QMutexLocker ElfLock(&Elf.Mutex());
  const ELF_FILE* f = Elf.IsLoaded() ? Elf.GetFile() : nullptr;
  if (!f || Addr > 0xFFFFFFFFull) return -1;
  U32 At = U32(Addr);
  if (InData) {
    // A word of a literal pool names the symbol it points to.
    const U8* p = Elf.GetProgramData(At, 4);
    if (!p) return -1;
    const bool Big = CoreHostState().Config.InstEndian == 1;
    At = Big ? U32(p[0]) << 24 | U32(p[1]) << 16 | U32(p[2]) << 8 | p[3]
             : U32(p[3]) << 24 | U32(p[2]) << 16 | U32(p[1]) << 8 | p[0];
  }
  const int Row = SymbolRowAt(f, At);
  if (Row < 0) return -1;
  const ELF_SYM_HANDLE h = ELF_GetSymbolHandle(f, Row);
  const U32 Value = ELF_IsFunctionType(ELF_GetSymbolType(h)) ? ELF_AlignAddress(ELF_GetSymbolValue(h)) : ELF_GetSymbolValue(h);
  if (psName) {
    std::lock_guard<std::mutex> Lock(g_Map.Mx);
    UpdateMappingTable(f, Elf.GetFilePath());
    *psName = g_Map.Names.insert(ELF_GetSymbolName(h)).first->c_str();
  }
  if (pStart) *pStart = Value;
  if (pEnd) *pEnd = U64(Value) + ELF_GetSymbolSize(h);
  return 0;
}

int ReadImage(U64 Addr, U32 NumBytes, U8* pData) {
  if (NumBytes == 0) return 0;
  if (!pData || Addr + NumBytes > 0x100000000ull) return -1;
  CElfApi& Elf = CElfApi::Instance();
  QMutexLocker ElfLock(&Elf.Mutex());
  const U8* p = Elf.GetProgramData(U32(Addr), NumBytes);
  if (!p) return -1;
  std::memcpy(pData, p, NumBytes);
  return int(NumBytes);
}

// Image first, then the target through the device, at most 5000 bytes.
int ReadMem(U64 Addr, U32 NumBytes, U8* pData) {
  if (NumBytes == 0) {
    LogMessage(QStringLiteral("invalid target memory read request of size 0"), MSG_INFO | MSG_STDOUT | MSG_FILE);
    return -1;
  }
  if (!pData || Addr + NumBytes > 0x100000000ull) return -1;
  const CORE_HOST_STATE& h = CoreHostState();
  const U64 From = std::max(Addr, h.OverlayStart), To = std::min(Addr + NumBytes, h.OverlayEnd);
  const bool Overlaid = h.pOverlay && From < To;
  if (Overlaid && From == Addr && To == Addr + NumBytes) {
    std::memcpy(pData, h.pOverlay + (Addr - h.OverlayStart), NumBytes);
  } else if (ReadImage(Addr, NumBytes, pData) != int(NumBytes)) {
    CDevice* d = CDevice::InstanceIfCreated();
    if (!d || NumBytes > 5000 || !d->IsConnected() || !d->CanAccessMemory()) return -1;
    std::vector<U8> Status(NumBytes);
    if (d->ReadMem(U32(Addr), NumBytes, 0, AW_ANY, 0, nullptr, pData, Status.data()) != int(NumBytes)) return -1;
  }
  // The part that the overlay holds is its own.
  if (Overlaid) std::memcpy(pData + (From - Addr), h.pOverlay + (From - h.OverlayStart), To - From);
  // A big-endian instruction side reads aligned items in host order.
  if (h.Config.InstEndian == 1 && (NumBytes == 2 || NumBytes == 4 || NumBytes == 8) && Addr % NumBytes == 0)
    std::reverse(pData, pData + NumBytes);
  return 0;
}

int GetProgramInfo(U64* paOut) {
  if (!paOut) return -1;
  CElfApi& Elf = CElfApi::Instance();
  QMutexLocker ElfLock(&Elf.Mutex());
  if (!Elf.IsLoaded()) {
    paOut[0] = paOut[1] = paOut[2] = U64(-1);
    return 0;
  }
  paOut[0] = Elf.GetLowestLoadAddr();
  paOut[1] = Elf.GetLowestRunAddr();
  paOut[2] = Elf.GetEntryPoint();
  return 0;
}

int GetFrameTable(void** ppTable) {
  void* p = CoreHostState().pFrameTable;
  if (!p || !ppTable) return -1;
  *ppTable = p;
  return 0;
}

int Log(const char* sMsg, U32 Level) {
  const QString s = QString::fromUtf8(sMsg ? sMsg : "");
  switch (Level) {
    case CORE_LOG_ERROR: LogError(s); return 0;
    case CORE_LOG_DEBUG: LogMessage(s, MSG_INFO | MSG_STDOUT | MSG_FILE); return 0;
    case CORE_LOG_INFO: LogInfo(s); return 0;
    default: return -1;
  }
}

}  // namespace

const CORE_HOST_API& CoreHostApi() {
  static const CORE_HOST_API s{GetCodeRange, GetSymbolAt, ReadMem, ReadImage, GetProgramInfo, GetFrameTable, Log};
  return s;
}
