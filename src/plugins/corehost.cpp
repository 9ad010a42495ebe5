#include "plugins/corehost.h"

#include "cmdline/cmdline.h"
#include "device/coresupport.h"
#include "device/device.h"
#include "device/listener.h"
#include "elf/elf.h"
#include "log/log.h"
#include "plugins/corestate.h"
#include "plugins/corewrappers.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLibrary>
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

ICorePluginProject* g_pProject = nullptr;

// Held while the plug-in is replaced; without a device no worker can be in it.
class CReplaceLock {
 public:
  CReplaceLock() {
    if (CDevice* d = CDevice::InstanceIfCreated()) m_pMx = &d->DeviceMutex();
    if (m_pMx) m_pMx->lock();
  }
  ~CReplaceLock() {
    if (m_pMx) m_pMx->unlock();
  }

 private:
  std::recursive_mutex* m_pMx = nullptr;
};

// The device layer's view of the plug-in while one is initialised.
class CPluginCoreSupport : public ICoreSupport {
 public:
  U32 NumProbeRegs() const override { return CoreHostState().Info.NumProbeRegs; }
  int GetRegIndex(U32 CoreRegIdx) const override { return CORE_GetRegIndex(CoreRegIdx); }
  U32 GetBPFlags(U32 Addr) const override { return CORE_GetBPFlags(Addr); }
  int ReadReg(U32 Idx, U64* pValue) override { return CORE_ReadReg(Idx, pValue); }
  int ReadRegs(U32 Cnt, const U32* paIdx, U64* paValues, U8* paStatus) override {
    return CORE_ReadRegs(Cnt, paIdx, paValues, paStatus);
  }
  int WriteReg(U32 Idx, U64 Value) override { return CORE_WriteReg(Idx, Value); }
  int ReadCPReg(const char* sName, U64* pValue) override { return CORE_ReadCPReg(sName, pValue); }
  int WriteCPReg(const char* sName, U64 Value) override { return CORE_WriteCPReg(sName, Value); }
};
CPluginCoreSupport g_Support;

// A byte order learnt at connection reconfigures the plug-in in force.
class CEndianListener : public CDeviceEventListener {
 public:
  void OnDeviceEndianessChanged(int, int) override {
    if (IsCorePluginLoaded()) ReconfigureCorePlugin();
  }
};

bool IsArmFamily(U32 Family) {
  switch (Family) {
    case 3: case 6: case 7: case 8: case 9: case 10: case 11: case 12: case 14: case 15: return true;
    default: return false;
  }
}

void CopyPath(CORE_CONFIG* pConfig, const QString& sPath) {
  const QByteArray b = QFile::encodeName(sPath);
  const size_t n = std::min<size_t>(size_t(b.size()), sizeof pConfig->acFilePath - 1);
  std::memcpy(pConfig->acFilePath, b.constData(), n);
  pConfig->acFilePath[n] = 0;
}

CORE_CONFIG MakeConfig(U32 Core, const QString& sPath) {
  CORE_CONFIG c{};
  c.Core = Core;
  if (CDevice* d = CDevice::InstanceIfCreated()) {
    const DEVICE_INFO_FIELDS i = d->Info();
    c.InstEndian = U32(i.InstEndian == 1);
    c.DataEndian = U32(i.DataEndian == 1);
  }
  CopyPath(&c, sPath);
  return c;
}

// The static description, checked in the order the messages are given in;
// false after the first refusal.
bool CheckStaticInfo(const CORE_STATIC_INFO& i) {
  auto Fail = [](const char* s) {
    CoreReportError(QString::fromLatin1(s));
    return false;
  };
  if (i.MinInstLen == 0) return Fail("invalid minimum instruction length.");
  if (i.MaxInstLen == 0 || i.MaxInstLen < i.MinInstLen) return Fail("invalid maximum instruction length");
  if (i.MaxMnemonicLen == 0) return Fail("invalid maximum mnemonic length");
  if (i.InstAlign == 0) return Fail("invalid instruction alignment");
  if (i.NumRegs == 0) return Fail("invalid register count");
  if (i.RegSize == 0) return Fail("invalid register size");
  // Wider registers are shown cut to 64 bits; only the SP must fit.
  if (i.RegSize > 8) CoreReportError(QStringLiteral("Warning: register sizes > 64 bit are not yet supported"));
  if (i.SPSize > 8)
    return Fail("Error: SP register is larger than 64 bit. This is not supported. Check core plugin compatibility.");
  if (i.PCSize > 8) CoreReportError(QStringLiteral("Warning: PC register is larger than 64 bit. This is not yet supported"));
  if (i.SPIdx >= i.NumRegs) return Fail("invalid SP register index");
  if (i.PCIdx >= i.NumRegs) return Fail("invalid PC register index");
  if (i.LRIdx >= i.NumRegs) return Fail("invalid LR register index");
  if (i.CFAIdx >= i.NumRegs) return Fail("invalid CFA register index");
  if (i.RAIdx >= i.NumRegs) return Fail("invalid RA register index");
  if (i.MaxUnwindRegIdx >= i.NumRegs) return Fail("invalid maximum unwindable register index");
  return true;
}

// Reads and checks the description of the initialised plug-in.
bool ReadStaticInfo() {
  CORE_HOST_STATE& s = CoreHostState();
  CORE_STATIC_INFO i{};
  if (!s.Api.pfGetStaticInfo || s.Api.pfGetStaticInfo(&i, sizeof i) != 0) {
    CoreReportError(QStringLiteral("Error reading static core information from plugin"));
    return false;
  }
  if (!CheckStaticInfo(i)) return false;
  s.Info = i;
  ELF_SetInstAlignment(i.InstAlign);
  return true;
}

// Library out, tables zeroed, no processor support in the device layer.
// False when the library would not unload.
bool TearDown() {
  CORE_HOST_STATE& s = CoreHostState();
  s.Initialised = false;
  DEV_SetCoreSupport(nullptr);
  s.Info = CORE_STATIC_INFO{};
  s.Config = CORE_CONFIG{};
  ELF_SetInstAlignment(2);
  s.Api = CORE_PLUGIN_API{};
  s.pfGetVersion = s.pfGetName = nullptr;
  bool Ok = true;
  if (s.pLib) {
    Ok = s.pLib->unload();
    delete s.pLib;
    s.pLib = nullptr;
  }
  return Ok;
}

}  // namespace

CORE_HOST_STATE& CoreHostState() {
  static CORE_HOST_STATE s;
  return s;
}

void CoreReportError(const QString& sText) { LogError(sText); }

CCorePluginSignals& CorePluginSignals() {
  static CCorePluginSignals s;
  return s;
}

void CORE_SetProject(ICorePluginProject* pProject) { g_pProject = pProject; }

QString CORE_PluginDir() {
  const QString sDir = InstallDir() + QStringLiteral("Plugins/Core/");
  if (QDir(sDir).exists()) return sDir;
  // Test programs live one level below the install tree.
  const QString sUp = QDir::cleanPath(InstallDir() + QStringLiteral("../Plugins/Core")) + QLatin1Char('/');
  return QDir(sUp).exists() ? sUp : sDir;
}

QString CORE_DefaultPluginPath(U32 Core) {
  const U32 Family = Core >> 24;
  QString sName;
  if (IsArmFamily(Family)) sName = QStringLiteral("CorePluginARM");
  else if (Family == 19) sName = QStringLiteral("CorePluginRISCV");
  else return QString();
  return CORE_PluginDir() + sName + QStringLiteral(".so");
}

U32 CORE_CoreOfDevice(const QString& sDevice) {
  const VORDEN_FUNCS& p = Device()->Probe();
  if (!p.VORDENARM_DEVICE_GetIndex || !p.VORDENARM_DEVICE_GetInfo || sDevice.isEmpty()) return 0;
  const QByteArray s = sDevice.toUtf8();
  const int Idx = p.VORDENARM_DEVICE_GetIndex(s.constData());
  if (Idx < 1) return 0;
  VORDENARM_DEVICE_INFO di{};
  di.SizeOfStruct = sizeof di;
  return p.VORDENARM_DEVICE_GetInfo(Idx, &di) < 0 ? 0 : di.CoreId;
}

QString GetCorePluginPath(U32 Core) {
  CORE_HOST_STATE& s = CoreHostState();
  const QString sDefault = CORE_DefaultPluginPath(Core);
  QString sProject = g_pProject ? g_pProject->CorePluginPath() : QString();
  if (s.ChosenByHand && !sProject.isEmpty() && sProject == sDefault && g_pProject) {
    g_pProject->SetCorePluginPath(QString());
    sProject.clear();
  }
  if (!sProject.isEmpty()) return sProject;
  const bool Silent = !g_pProject || !g_pProject->DialogsAllowed();
  if (!sDefault.isEmpty() && (Silent || QFileInfo(sDefault).isFile())) return sDefault;
  if (Silent) return QString();
  const QString sChosen = g_pProject->AskCorePluginFile(
      QStringLiteral("Project Warning"),
      QStringLiteral("Tavit could not locate the target core support plugin for the selected device.\n"
                     "Please specify the file location manually."),
      CORE_PluginDir());
  if (sChosen.isEmpty()) return QString();
  g_pProject->SetCorePluginPath(sChosen);
  s.ChosenByHand = true;
  return sChosen;
}

int ValidateCoreConfig(const CORE_CONFIG& Config) {
  if (Config.Core < 1) {
    CoreReportError(QStringLiteral("Project Warning: unknown target device specified."));
    return -1;
  }
  const QString sPath = QFile::decodeName(QByteArray(Config.acFilePath, int(strnlen(Config.acFilePath, sizeof Config.acFilePath))));
  if (sPath.isEmpty()) {
    CoreReportError(QStringLiteral("Project Warning: target core support plugin not specified and could not determine default."));
    return -1;
  }
  if (!QFileInfo(sPath).isFile()) {
    // The message lives in a buffer of 256 characters.
    CoreReportError(QStringLiteral("Project Warning: target core support plugin not found at %1").arg(sPath).left(255));
    return -1;
  }
  return 0;
}

int InitCore(const CORE_CONFIG& Config) {
  CORE_HOST_STATE& s = CoreHostState();
  if (s.pLib || s.Initialised) TearDown();
  const QString sPath = QFile::decodeName(Config.acFilePath);
  auto* pLib = new QLibrary(sPath);
  if (!pLib->load()) {
    delete pLib;
    CoreReportError(QStringLiteral("Failed to load library at %1").arg(sPath));
    return -1;
  }
  s.pLib = pLib;
  static const char* const aExports[] = {"CORE_PLUGIN_GetAPI", "CORE_PLUGIN_SetAPI", "CORE_PLUGIN_GetVersion",
                                         "CORE_PLUGIN_GetName"};
  void* ap[4] = {};
  bool Missing = false;
  for (int i = 0; i < 4; ++i) {
    ap[i] = reinterpret_cast<void*>(pLib->resolve(aExports[i]));
    if (!ap[i]) {
      CoreReportError(QStringLiteral("invalid target core support plugin: required function '%1' not found.")
                          .arg(QLatin1String(aExports[i])));
      Missing = true;
    }
  }
  auto Fail = [](const QString& sText) {
    if (!sText.isEmpty()) CoreReportError(sText);
    TearDown();
    return -1;
  };
  if (Missing) return Fail(QString());
  s.pfGetVersion = ap[2];
  s.pfGetName = ap[3];
  CORE_PLUGIN_API Api{};
  if (reinterpret_cast<CORE_PLUGIN_GETAPI_FUNC>(ap[0])(&Api, sizeof Api) != 0)
    return Fail(QStringLiteral("Target core support plugin initialization failed: incompatible plugin API"));
  if (reinterpret_cast<CORE_PLUGIN_SETAPI_FUNC>(ap[1])(&CoreHostApi(), sizeof(CORE_HOST_API)) != 0)
    return Fail(QStringLiteral("Target core support plugin initialization failed: incompatible debugger API"));
  if (!Api.pfInit)
    return Fail(QStringLiteral("Target core support plugin initialization failed: plugin API is missing init function"));
  s.Api = Api;
  if (const int r = Api.pfInit(&Config); r != 0)
    return Fail(QStringLiteral("Target core support plugin initialization failed: plugin API function 'Init' returned error code %1").arg(r));
  s.Config = Config;
  if (!ReadStaticInfo()) return Fail(QString());
  s.Initialised = true;
  DEV_SetCoreSupport(&g_Support);
  return 0;
}

namespace {

// Reconfiguration of the initialised plug-in for Core (and the device's
// byte order): 0, 1 when nothing changed, or the failing value.
int ReconfigureTo(U32 Core) {
  CORE_HOST_STATE& s = CoreHostState();
  if (!s.Initialised) {
    LogMessage(QStringLiteral("Target core support plugin reconfiguration requested but plugin is not initialized"),
               MSG_INFO | MSG_STDOUT | MSG_FILE);
    return -1;
  }
  const CORE_CONFIG c = MakeConfig(Core, s.sPath);
  if (ValidateCoreConfig(c) != 0) return -1;
  if (std::memcmp(&c, &s.Config, sizeof c) == 0) return 1;
  CReplaceLock Lock;
  if (!s.Api.pfReconfigure) return -1;
  if (const int r = s.Api.pfReconfigure(&c); r != 0) return r;
  s.Config = c;
  s.Core = Core;
  if (!ReadStaticInfo()) {
    TearDown();
    return -1;
  }
  DEV_SetCoreSupport(&g_Support);
  return 0;
}

}  // namespace

int ReconfigureCorePlugin() { return ReconfigureTo(CoreHostState().Core); }

int LoadCorePlugin(U32 Core) {
  static CEndianListener s_Listener;
  CORE_HOST_STATE& s = CoreHostState();
  const QString sPath = Core < 1 ? QString() : GetCorePluginPath(Core);
  const CORE_CONFIG c = MakeConfig(Core, sPath);
  if (ValidateCoreConfig(c) != 0) {
    UnloadCorePlugin();
    return -1;
  }
  const QString sFile = QFile::decodeName(c.acFilePath);
  if (s.Initialised && sFile == s.sPath) {
    const int r = ReconfigureTo(Core);
    if (r == 1) return 1;
    if (r == 0) {
      emit CorePluginSignals().PluginReconfigured(sFile, PLUGIN_TYPE_CORE);
      return 2;
    }
  }
  if (UnloadCorePlugin() != 0) {
    CoreReportError(QStringLiteral("Failed to deinitialize target core support plugin prior to initialization"));
    return -1;
  }
  s.Core = Core;
  s.sPath = sFile;
  int r;
  {
    CReplaceLock Lock;
    r = InitCore(c);
  }
  if (r != 0) {
    s.Core = 0;
    s.sPath.clear();
    return -1;
  }
  emit CorePluginSignals().PluginLoaded(sFile, PLUGIN_TYPE_CORE);
  return 0;
}

int UnloadCorePlugin() {
  CORE_HOST_STATE& s = CoreHostState();
  if (!s.pLib && !s.Initialised) return 0;
  const QString sPath = s.sPath;
  bool Ok;
  {
    CReplaceLock Lock;
    Ok = TearDown();
  }
  if (!Ok) {
    CoreReportError(QStringLiteral("Target core support plugin deinitialization failed"));
    return -1;
  }
  s.Core = 0;
  s.sPath.clear();
  emit CorePluginSignals().PluginUnloaded(sPath, PLUGIN_TYPE_CORE);
  return 0;
}

bool IsCorePluginLoaded() { return CoreHostState().Initialised.load(); }
const CORE_CONFIG& CoreConfig() { return CoreHostState().Config; }
const CORE_STATIC_INFO& CoreStaticInfo() { return CoreHostState().Info; }
void* CoreCallGraphCallback() { return CoreHostState().Api.pReserved28; }
void CORE_SetFrameTable(void* pTable) { CoreHostState().pFrameTable = pTable; }

int CORE_CheckProgramFile(const QString& sPath, U32* pDataEndian, U32* pInstEndian) {
  if (!IsCorePluginLoaded()) return 1;
  QFile f(sPath);
  QByteArray Hdr;
  if (f.open(QIODevice::ReadOnly)) Hdr = f.read(52);
  if (Hdr.size() < 52) Hdr.append(QByteArray(52 - Hdr.size(), '\0'));
  if (CORE_CheckELFFile(Hdr.constData()) != 0) return -1;
  U32 Data = 0, Inst = 0;
  if (CORE_GetELFByteOrder(Hdr.constData(), &Data, &Inst) != 0) {
    CoreReportError(QStringLiteral("failed to obtain ELF file byte order information"));
    return -2;
  }
  if (pDataEndian) *pDataEndian = Data;
  if (pInstEndian) *pInstEndian = Inst;
  return 0;
}
