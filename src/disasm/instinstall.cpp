#include "disasm/instinstall.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/coresupport.h"
#include "device/datamanager.h"
#include "device/device.h"
#include "device/listener.h"
#include "disasm/instcache.h"
#include "elf/dwarf/insn_analysis.h"
#include "elf/dwarf/target_access.h"
#include "elf/elf.h"
#include "elf/elfapi.h"
#include "plugins/corehost.h"
#include "settings/ids.h"
#include "settings/sysvars.h"

#include <QMutexLocker>
#include <QObject>
#include <algorithm>
#include <vector>

namespace {

// The debug layer's view of the cache.
class CCacheAnalysis : public IInstructionAnalysis {
 public:
  bool IsInstructionStart(U32 a) const override { return IsInstruction(a); }
  U32 GetInstructionSize(U32 a) const override { return IsInstruction(a) ? GetInstSize(a) : 0; }
  int GetKind(U32 a) const override {
    U32 Type = 0;
    return FindCodeRange(a, &Type) == 0 && Type == 1 ? 1 : 0;
  }
  bool IsBranchTarget(U32 a) const override { return IsKnownBranchTarget(a); }
  U32 GetInstAlignment() const override { return std::max<U32>(1, CoreStaticInfo().InstAlign); }
  U32 GetMaxInstSize() const override { return std::max<U32>(1, CoreStaticInfo().MaxInstLen); }
  bool IsStraightCode(U32 Start, U32 End) const override { return ::IsStraightCode(Start, End); }
};
CCacheAnalysis g_Analysis;

// What the cache was built from: program file and plug-in.
struct BUILT {
  const ELF_FILE* pFile = nullptr;
  QString sPath;
  U32 FileSize = 0;
  bool Plugin = false;
} g_Built;

// Reads of Debug.ReadIntoInstCache and of the program's code after a
// download: a report of exactly a range asked for goes into the cache.
class CInstReader : public CDeviceEventListener {
 public:
  struct RANGE {
    U32 Addr, Size;
  };
  std::vector<RANGE> m_Pending;
  bool Take(U32 Addr, U32 nBytes) {
    const auto It = std::find_if(m_Pending.begin(), m_Pending.end(),
                                 [&](const RANGE& r) { return r.Addr == Addr && r.Size == nBytes; });
    if (It == m_Pending.end()) return false;
    m_Pending.erase(It);
    return true;
  }
  void OnDeviceReadMemDone(U32 Addr, U32 nBytes, const char*, U8* paData, U8* paStatus) override {
    if (!Take(Addr, nBytes)) return;
    for (U32 i = 0; i < nBytes; ++i)
      if (paStatus && paStatus[i]) return;
    Core::AnalyzeAdd(Addr, U64(Addr) + nBytes, paData);
  }
  void OnDeviceReadMemFailed(U32 Addr, U32 nBytes, const char*) override { Take(Addr, nBytes); }
  // What the target holds after a download is what runs: the code ranges are
  // read back into the cache.
  void OnDeviceEndDownloadDone(const char*, DOWNLOAD_MODES) override { DisasmModule::ReadProgramIntoInstCache(); }
};
CInstReader* g_pReader = nullptr;

void OnReadIntoInstCache(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList a = GetActionArgs(Id);
  bool Ok1 = false, Ok2 = false;
  const U32 Addr = a.value(0).trimmed().toUInt(&Ok1, 0), Size = a.value(1).trimmed().toUInt(&Ok2, 0);
  QString sReason;
  if (!Ok1 || !Ok2) sReason = QStringLiteral("invalid parameter");
  if (sReason.isEmpty() && DisasmModule::ReadIntoInstCache(Addr, Size, &sReason) == 0) return (void)SetActionResult(Id, 0);
  SetActionError(Id, sReason);
  SetActionResult(Id, -1);
}

}  // namespace

void DisasmModule::Sync(bool Force) {
  CElfApi& Elf = CElfApi::Instance();
  QMutexLocker Lock(&Elf.Mutex());
  const ELF_FILE* f = Elf.IsLoaded() ? Elf.GetFile() : nullptr;
  const BUILT Now{f, Elf.GetFilePath(), f ? ELF_GetFileSize(f) : 0, IsCorePluginLoaded()};
  if (!Force && Now.pFile == g_Built.pFile && Now.sPath == g_Built.sPath && Now.FileSize == g_Built.FileSize &&
      Now.Plugin == g_Built.Plugin)
    return;
  g_Built = Now;
  // Nobody walks the cache while it is rebuilt.
  ELF_SetInstructionAnalysis(nullptr);
  SetupCodeRanges(f);
  FillInstCache();
  if (f && Now.Plugin) ELF_SetInstructionAnalysis(&g_Analysis);
}

namespace {

// The trace source can take code of its own: trace pins with a streaming
// probe, or the on-chip trace buffer.
bool TraceSourceUsable(CDevice* d) {
  const int Src = int(SysVars::GetValue(VAR_TRACE_SOURCE));
  return Src == 2 || (Src == 1 && d->Info().aCaps[2]);
}

int RequestRead(U32 Addr, U32 Size) {
  if (!g_pReader) g_pReader = new CInstReader;
  g_pReader->m_Pending.push_back({Addr, Size});
  const int r = CDeviceDataManager::Instance().ReadMemAsync(g_pReader, Addr, Size, nullptr, 0, AW_ANY, 0);
  // 1: answered at once from the cache; the report has come already.
  if (r < 0 || (r == 1 && g_pReader->Take(Addr, Size))) return -1;
  return 0;
}

}  // namespace

int DisasmModule::ReadIntoInstCache(U32 Addr, U32 Size, QString* psReason) {
  auto Fail = [psReason](const char* s) {
    if (psReason) *psReason = QLatin1String(s);
    return -1;
  };
  if (Size == 0 || U64(Addr) + Size > 0xFFFFFFFFull) return Fail("invalid parameter");
  if (!IsCorePluginLoaded()) return Fail("no core plug-in loaded");
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected()) return Fail("not connected");
  if (!d->CanAccessMemory())
    return Fail("cannot access target memory: target not halted and background memory access not supported");
  Sync();
  if (RequestRead(Addr, Size) < 0) return Fail("cannot read target memory");
  if (TraceSourceUsable(d)) d->PostExecVordenCmd(QStringLiteral("ReadIntoTraceCache 0x%1 0x%2")
                                                     .arg(Addr, 0, 16)
                                                     .arg(U64(Addr) + Size, 0, 16)
                                                     .toUpper()
                                                     .replace(QLatin1String("0X"), QLatin1String("0x"))
                                                     .toLatin1()
                                                     .constData());
  return 0;
}

int DisasmModule::ReadProgramIntoInstCache() {
  CDevice* d = CDevice::InstanceIfCreated();
  if (!IsCorePluginLoaded() || !d || !d->IsConnected() || !d->CanAccessMemory()) return 0;
  Sync();
  std::vector<CORE_ADDR_RANGE> Ranges;
  {
    CElfApi& Elf = CElfApi::Instance();
    QMutexLocker Lock(&Elf.Mutex());
    const ELF_FILE* f = Elf.IsLoaded() ? Elf.GetFile() : nullptr;
    // Executable sections with bytes in the file (SHT_PROGBITS, SHF_EXECINSTR).
    for (int i = 0, n = f ? ELF_GetNumSections(f) : 0; i < n; ++i)
      if (ELF_GetSectionType(f, i) == 1 && (ELF_GetSectionFlags(f, i) & 4) && ELF_GetSectionSize(f, i))
        Ranges.push_back({ELF_GetSectionAddr(f, i), U64(ELF_GetSectionAddr(f, i)) + ELF_GetSectionSize(f, i)});
  }
  int n = 0;
  for (const CORE_ADDR_RANGE& r : Ranges)
    if (r.End > r.Start && RequestRead(U32(r.Start), U32(r.End - r.Start)) == 0) ++n;
  return n;
}

void DisasmModule::Install() {
  static bool s_Done = false;
  if (s_Done) return;
  s_Done = true;
  SetCommandSlot(AID_DEBUG_READ_INTO_INST_CACHE, OnReadIntoInstCache);
  // Run control asks whether a break instruction stands at the PC.
  DEV_SetInstQuery([](U64 Addr, U32* pSize, U64* pFlags) {
    CORE_INST_INFO i;
    GetInstInfo(Addr, &i);
    *pSize = i.Size;
    *pFlags = i.Flags;
    return i.Size != 0;
  });
  CCorePluginSignals& s = CorePluginSignals();
  QObject::connect(&s, &CCorePluginSignals::PluginLoaded, [] { Sync(true); });
  QObject::connect(&s, &CCorePluginSignals::PluginReconfigured, [] { Sync(true); });
  QObject::connect(&s, &CCorePluginSignals::PluginUnloaded, [] { Sync(true); });
}
