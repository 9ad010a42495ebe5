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

#include <QMutexLocker>
#include <QObject>
#include <algorithm>

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
};
CCacheAnalysis g_Analysis;

// What the cache was built from: program file and plug-in.
struct BUILT {
  const ELF_FILE* pFile = nullptr;
  QString sPath;
  U32 FileSize = 0;
  bool Plugin = false;
} g_Built;

// Reads of Debug.ReadIntoInstCache and after downloads: a report of exactly
// the range asked for goes into the cache.
class CInstReader : public CDeviceEventListener {
 public:
  U32 m_Addr = 0, m_Size = 0;
  void OnDeviceReadMemDone(U32 Addr, U32 nBytes, const char*, U8* paData, U8* paStatus) override {
    if (!m_Size || Addr != m_Addr || nBytes != m_Size) return;
    m_Size = 0;
    for (U32 i = 0; i < nBytes; ++i)
      if (paStatus && paStatus[i]) return;
    Core::AnalyzeAdd(Addr, U64(Addr) + nBytes, paData);
  }
  void OnDeviceReadMemFailed(U32 Addr, U32 nBytes, const char*) override {
    if (Addr == m_Addr && nBytes == m_Size) m_Size = 0;
  }
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
  if (!g_pReader) g_pReader = new CInstReader;
  g_pReader->m_Addr = Addr;
  g_pReader->m_Size = Size;
  CDeviceDataManager::Instance().CancelRequests(g_pReader);
  const int r = CDeviceDataManager::Instance().ReadMemAsync(g_pReader, Addr, Size, nullptr, 0, AW_ANY, 0);
  if (r == 1 && g_pReader->m_Size) {
    g_pReader->m_Size = 0;
    return Fail("cannot read target memory");
  }
  return 0;
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
