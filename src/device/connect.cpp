// Configuration and connection of CDevice: the configuration block with its
// side effects, the open/configure/connect sequence, device information and
// capability flags.
#include "device/device.h"

#include "device/events.h"
#include "settings/ids.h"
#include "settings/sysvars.h"

#include <QThread>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

std::mutex s_InfoMx;
DEVICE_INFO_FIELDS s_Info;
std::vector<U32> s_Cores;
QString s_aErrorMsg[3];
// The probe's optional functions (fetched again after each connect and device change).
std::atomic<int (*)()> s_pfnEndian{nullptr};
std::atomic<int (*)()> s_pfnBMA{nullptr};
std::atomic<void*> s_pfnWebPort{nullptr};

// Whether "host[:port]" accepts a TCP connection within TimeoutMs, so that a
// network probe that is not there fails here rather than inside the library.
bool IsReachable(const QByteArray& sHostPort, int DefaultPort, int TimeoutMs) {
  QByteArray sHost = sHostPort;
  int Port = DefaultPort;
  const int Colon = sHost.lastIndexOf(':');
  if (Colon > 0 && sHost.count(':') == 1) {
    bool Ok = false;
    Port = sHost.mid(Colon + 1).toInt(&Ok);
    if (!Ok) return false;
    sHost.truncate(Colon);
  } else if (sHost.startsWith('[') && sHost.contains("]:")) {
    const int End = sHost.indexOf("]:");
    bool Ok = false;
    Port = sHost.mid(End + 2).toInt(&Ok);
    if (!Ok) return false;
    sHost = sHost.mid(1, End - 1);
  }
  addrinfo Hints{};
  Hints.ai_socktype = SOCK_STREAM;
  addrinfo* pList = nullptr;
  if (getaddrinfo(sHost.constData(), QByteArray::number(Port).constData(), &Hints, &pList) != 0) return false;
  bool Ok = false;
  for (addrinfo* a = pList; a && !Ok; a = a->ai_next) {
    const int fd = socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
    if (fd < 0) continue;
    if (::connect(fd, a->ai_addr, a->ai_addrlen) == 0) {
      Ok = true;
    } else if (errno == EINPROGRESS) {
      pollfd p{fd, POLLOUT, 0};
      int Err = 0;
      socklen_t Len = sizeof Err;
      Ok = poll(&p, 1, TimeoutMs) == 1 && getsockopt(fd, SOL_SOCKET, SO_ERROR, &Err, &Len) == 0 && Err == 0;
    }
    close(fd);
  }
  freeaddrinfo(pList);
  return Ok;
}

void OnProbeLog(const char* s) { DeviceLogDebug("%s", s); }
void OnProbeError(const char* s) { DeviceLogError("%s", s); }
void OnProbeWarn(const char* s) { DeviceLogWarning("%s", s); }

}  // namespace

bool CDevice::ProbeOpen() const { return m_Probe.VORDENARM_IsOpen && m_Probe.VORDENARM_IsOpen(); }

DEVICE_INFO_FIELDS CDevice::Info() const {
  std::lock_guard<std::mutex> g(s_InfoMx);
  return s_Info;
}

std::vector<U32> CDevice::SupportedCores() const {
  std::lock_guard<std::mutex> g(s_InfoMx);
  return s_Cores;
}

QString CDevice::LibVersionText() const {
  std::lock_guard<std::mutex> g(s_InfoMx);
  return DEV_LibVersionText(s_Info.LibVersion);
}

void CDevice::SetErrorMsg(int Slot, const char* sErrorMsg) {
  if (Slot < 0 || Slot > 2) return;
  {
    std::lock_guard<std::mutex> g(s_InfoMx);
    s_aErrorMsg[Slot] = QString::fromUtf8(sErrorMsg ? sErrorMsg : "").left(2047);
  }
  if (sErrorMsg && *sErrorMsg) DeviceLogWarning("%s", sErrorMsg);
}

QString CDevice::ErrorMsg(int Slot) const {
  std::lock_guard<std::mutex> g(s_InfoMx);
  return Slot >= 0 && Slot <= 2 ? s_aErrorMsg[Slot] : QString();
}

// ---- the configuration block

int CDevice::SetConfigParam(DEV_CONFIG_PARAMS Param, int Value) {
  if (Param < 0 || Param >= DEV_CFG_NUM_INT) {
    DeviceLogWarning("Unknown configuration parameter with ID %d", int(Param));
    return -1;
  }
  m_Config.Store(Param, Value);
  switch (Param) {
    case DEV_CFG_SPEED:
      m_Config.Store(DEV_CFG_USE_MAX_SPEED, Value == 0);
      m_Config.Store(DEV_CFG_USE_ADAPTIVE, Value == 65535);
      break;
    case DEV_CFG_USE_ADAPTIVE:
      if (Value > 0) m_Config.Store(DEV_CFG_SPEED, 65535);
      break;
    case DEV_CFG_USE_MAX_SPEED:
      if (Value > 0) m_Config.Store(DEV_CFG_SPEED, 0);
      break;
    case DEV_CFG_DEVICE_INDEX:
      UpdateDeviceInfo();
      UpdateVordenFuncPtrs();
      UpdateMemZones();
      ResetHWCapabilityFlags();
      break;
    case DEV_CFG_ENDIAN: ApplyDataEndianess(Value); break;
    default: break;
  }
  if ((Param == DEV_CFG_SPEED || Param == DEV_CFG_USE_MAX_SPEED || Param == DEV_CFG_USE_ADAPTIVE) &&
      m_bConnected.load() && m_Probe.VORDENARM_SetSpeed) {
    const U32 s = U32(m_Config.Get(DEV_CFG_SPEED));
    m_Probe.VORDENARM_SetSpeed(s == 0 || s == 65535 ? s : s / 1000);
    UpdateTIFSpeed();
  }
  m_Config.RewriteXml();
  PostDeviceEvent(DEV_EVENT_CONFIG_PARAM_CHANGED, U64(Param), U64(I64(Value)));
  return 0;
}

int CDevice::SetConfigParam(DEV_CONFIG_PARAMS Param, const char* sValue) {
  if (!sValue) {
    DeviceLogWarning("Invalid configuration parameter string value");
    return -1;
  }
  if (Param < DEV_CFG_HOST_NAME || Param > DEV_CFG_LOG_FILE) {
    DeviceLogWarning("Invalid configuration parameter");
    return -1;
  }
  m_Config.StoreString(Param, QString::fromUtf8(sValue));
  if (Param == DEV_CFG_DEVICE_NAME) {
    int Idx = -1;
    if (*sValue && m_Probe.VORDENARM_DEVICE_GetIndex) Idx = m_Probe.VORDENARM_DEVICE_GetIndex(sValue);
    if (Idx < 0) Idx = -1;
    m_Config.Store(DEV_CFG_DEVICE_INDEX, Idx);
    UpdateDeviceInfo();
    UpdateVordenFuncPtrs();
    UpdateMemZones();
    ResetHWCapabilityFlags();
    m_Config.RewriteXml();
    PostDeviceEvent(DEV_EVENT_CONFIG_PARAM_CHANGED, DEV_CFG_DEVICE_INDEX, U64(I64(Idx)));
    PostDeviceEvent(DEV_EVENT_CONFIG_PARAM_CHANGED, DEV_CFG_DEVICE_NAME, 0);
    return 0;
  }
  if (Param == DEV_CFG_LOG_FILE && m_Probe.VORDENARM_SetLogFile)
    m_Probe.VORDENARM_SetLogFile(m_Config.GetString(DEV_CFG_LOG_FILE).toUtf8().constData());
  m_Config.RewriteXml();
  PostDeviceEvent(DEV_EVENT_CONFIG_PARAM_CHANGED, U64(Param), 0);
  return 0;
}

int CDevice::Configure(const char* sXmlConfigStr) {
  DEV_CONFIG_XML x;
  const bool Ok = CDeviceConfig::ParseXml(QString::fromUtf8(sXmlConfigStr ? sXmlConfigStr : ""), &x);
  for (const QString& e : x.Errors) DeviceLogWarning("%s", qPrintable(e));
  if (!Ok) return -1;
  SetConfigParam(DEV_CFG_HOST_IF, int(x.ConnectMode));
  SetConfigParam(DEV_CFG_TARGET_IF, int(x.TargetIF));
  SetConfigParam(DEV_CFG_USB_SERIAL_NO, int(x.USBSerialNo));
  SetConfigParam(DEV_CFG_USE_SERIAL_NO, int(x.UseSerialNo));
  const QByteArray sName = x.sDeviceName.toUtf8();
  int Idx = -1;
  if (!sName.isEmpty() && m_Probe.VORDENARM_DEVICE_GetIndex) Idx = m_Probe.VORDENARM_DEVICE_GetIndex(sName.constData());
  m_Config.StoreString(DEV_CFG_DEVICE_NAME, x.sDeviceName);
  SetConfigParam(DEV_CFG_DEVICE_INDEX, Idx < 0 ? -1 : Idx);
  SetConfigParam(DEV_CFG_CORE_INDEX, int(x.CoreIndex));
  SetConfigParam(DEV_CFG_ENDIAN, int(x.Endian));
  SetConfigParam(DEV_CFG_DR_PRE, int(x.DRPre));
  SetConfigParam(DEV_CFG_IR_PRE, int(x.IRPre));
  SetConfigParam(DEV_CFG_MULTIPLE_TARGETS, int(x.MultipleTargets));
  SetConfigParam(DEV_CFG_SPEED, int(x.Speed));
  SetConfigParam(DEV_CFG_USE_ADAPTIVE, int(x.UseAdaptive));
  SetConfigParam(DEV_CFG_USE_MAX_SPEED, int(x.UseMaxSpeed));
  SetConfigParam(DEV_CFG_HOST_NAME, x.sHostName.toUtf8().constData());
  SetConfigParam(DEV_CFG_DEVICE_NAME, sName.constData());
  return x.Errors.isEmpty() ? 0 : -1;
}

// ---- connection

int CDevice::SelectHostIF() {
  const int IF = m_Config.Get(DEV_CFG_HOST_IF);
  if (IF == DEV_HOST_IF_IP) {
    const QByteArray sHost = m_Config.GetString(DEV_CFG_HOST_NAME).toUtf8();
    if (int(m_Probe.VORDENARM_SelectIP(sHost.constData(), 0)) == 1 || !IsReachable(sHost, 3333, 3000)) {
      DeviceLogError("Connect: error during configuration of IP interface");
      return -1;
    }
    return 0;
  }
  if (IF == DEV_HOST_IF_USB) {
    const U32 SN = U32(m_Config.Get(DEV_CFG_USB_SERIAL_NO));
    int r;
    if (m_Config.Get(DEV_CFG_USE_SERIAL_NO) && SN > 0) r = m_Probe.VORDENARM_EMU_SelectByUSBSN(SN);
    else r = m_Probe.VORDENARM_SelectUSB(0);
    if (r < 0) {
      DeviceLogError("Connect: serial number not found on usb");
      return -1;
    }
    return 0;
  }
  DeviceLogError("Connect: unknown host interface");
  return -1;
}

int CDevice::ExecVordenCmd(const char* sVordenCmd, U32 Len, char* acOut, U8 LogMsg) {
  if (!acOut || Len == 0 || !sVordenCmd) return -1;
  memset(acOut, 0, Len);
  char acCmd[1024];
  strncpy(acCmd, sVordenCmd, sizeof acCmd - 1);
  acCmd[sizeof acCmd - 1] = 0;
  const int r = m_Probe.VORDENARM_ExecCommand(acCmd, acOut, int(Len));
  acOut[Len - 1] = 0;
  if (acOut[0]) {
    DeviceLogError("Error executing Vorden command \"%s\": %s", acCmd, acOut);
    return r < 0 ? r : -1;
  }
  if (LogMsg) DeviceLogInfo("Executed Vorden command \"%s\"", acCmd);
  return 0;
}

int CDevice::ExecVordenScript(const char* sFilePath) {
  DeviceLogDebug("Executing Vorden Script");
  char acOut[513];
  const QByteArray sCmd = QByteArray("ScriptFile=") + sFilePath;
  return ExecVordenCmd(sCmd.constData(), sizeof acOut, acOut, 0);
}

int CDevice::SetSuppressDeviceSelectionDialog(bool Enabled) {
  char acOut[513];
  return ExecVordenCmd(Enabled ? "HideDeviceSelection=1" : "HideDeviceSelection=0", sizeof acOut, acOut, 0);
}

bool CDevice::TurnOnTargetPower() {
  char acOut[513];
  return ExecVordenCmd("SupplyPower=1", sizeof acOut, acOut, 0) != 0;
}

bool CDevice::TurnOffTargetPower() {
  char acOut[513];
  return ExecVordenCmd("SupplyPower=0", sizeof acOut, acOut, 0) != 0;
}

int CDevice::ConnectSimple() {
  ResetState();
  if (!m_Probe.VORDENARM_Open) {
    DeviceLogError("Connect: Vorden software not loaded");
    return -1;
  }
  if (SelectHostIF() < 0) return -1;
  m_Probe.VORDENARM_EnableLog(OnProbeLog);
  m_Probe.VORDENARM_SetErrorOutHandler(OnProbeError);
  m_Probe.VORDENARM_SetWarnOutHandler(OnProbeWarn);
  DeviceLogInfo("Opening connection to Vorden...");
  if (const char* sErr = m_Probe.VORDENARM_Open()) {
    DeviceLogWarning("Open: VORDEN API call failed with error message: %s", sErr);
    return -1;
  }
  const QByteArray sLog = m_Config.GetString(DEV_CFG_LOG_FILE).toUtf8();
  if (!sLog.isEmpty()) m_Probe.VORDENARM_SetLogFile(sLog.constData());
  if (m_Config.Get(DEV_CFG_DEVICE_INDEX) == -1) SetSuppressDeviceSelectionDialog(true);
  if (SysVars::GetValue(VAR_TARGET_POWER_ON)) {
    TurnOnTargetPower();
    QThread::msleep(100);
  }
  {
    char acFw[256] = {};
    m_Probe.VORDENARM_GetFirmwareString(acFw, sizeof acFw);
    QString sFw = QString::fromLatin1(acFw);
    const int At = sFw.indexOf(QLatin1String("compiled"));
    if (At >= 0) sFw = sFw.left(At).trimmed();
    std::lock_guard<std::mutex> g(s_InfoMx);
    s_Info.SerialNo = m_Probe.VORDENARM_GetSN();
    s_Info.sFirmware = sFw;
    s_Info.NumDevices = m_Probe.VORDENARM_DEVICE_GetInfo(-1, nullptr);
  }
  UpdateVordenFuncPtrs();
  UpdateVordenWebserverURL();
  const QByteArray sScript = m_Config.GetString(DEV_CFG_SCRIPT_FILE).toUtf8();
  if (!sScript.isEmpty() && ExecVordenScript(sScript.constData()) != 0) DeviceLogWarning("Vorden script failed");
  DeviceLogInfo("Configuring hardware...");
  bool Ok = true;
  {
    char acOut[513];
    const QByteArray sCmd = "device=" + m_Config.GetString(DEV_CFG_DEVICE_NAME).toUtf8();
    Ok = ExecVordenCmd(sCmd.constData(), sizeof acOut, acOut, 0) == 0;
  }
  if (Ok) Ok = m_Probe.VORDENARM_SetEndian(m_Config.Get(DEV_CFG_ENDIAN)) >= 0;
  if (Ok) Ok = m_Probe.VORDENARM_SetCoreIndex(U32(m_Config.Get(DEV_CFG_CORE_INDEX))) >= 0;
  if (Ok) Ok = m_Probe.VORDENARM_TIF_Select(m_Config.Get(DEV_CFG_TARGET_IF)) >= 0;
  if (Ok && m_Config.Get(DEV_CFG_MULTIPLE_TARGETS))
    Ok = m_Probe.VORDENARM_ConfigJTAG(m_Config.Get(DEV_CFG_IR_PRE), m_Config.Get(DEV_CFG_DR_PRE)) >= 0;
  if (Ok) {
    U32 Speed;
    if (m_Config.Get(DEV_CFG_USE_MAX_SPEED)) Speed = 0;
    else if (!m_Config.Get(DEV_CFG_USE_ADAPTIVE)) Speed = U32(m_Config.Get(DEV_CFG_SPEED)) / 1000;
    else Speed = 65535;
    m_Probe.VORDENARM_SetSpeed(Speed);
  }
  if (!Ok) {
    DeviceLogError("Connect: could not configure Vorden");
    m_Probe.VORDENARM_Close();
    return -1;
  }
  bool Connected = m_Probe.VORDENARM_Connect() == 0 && m_Probe.VORDENARM_IsConnected();
  if (!Connected) {
    DeviceLogInfo("Connecting to target...");
    m_Probe.VORDENARM_Connect();
    Connected = m_Probe.VORDENARM_IsConnected();
  }
  if (!Connected) {
    DeviceLogError("Connect: VORDEN API call failed");
    m_Probe.VORDENARM_Close();
    return -1;
  }
  m_bConnected.store(true);
  UpdateTIFSpeed();
  UpdateHWCapabilityFlags();
  UpdateEndianess();
  UpdateMemZones();
  // The next poll finds out whether the target runs.
  m_bRunning.store(true);
  return 0;
}

int CDevice::Connect(CONNECT_MODES Mode) {
  if (Mode == CM_PROBE_ONLY) return ConnectSimple();
  Disconnect();
  if (ConnectSimple() < 0) return -1;
  return FinishConnect(Mode);
}

int CDevice::FinishConnect(CONNECT_MODES Mode) {
  m_bConnectionLost.store(false);
  m_bSourceStep.store(false);
  if (ProbeOpen()) m_bConnected.store(m_Probe.VORDENARM_IsConnected() != 0);
  if (Mode == CM_ATTACH || Mode == CM_ATTACH_HALT || Mode == CM_DOWNLOAD_RESET) m_bReportHalts.store(true);
  m_Probe.VORDENARM_EnableSoftBPs(1);
  ApplyDataEndianess(m_Config.Get(DEV_CFG_ENDIAN));
  // The first look at the target: a halted one is known before the report.
  if (m_bConnected.load()) {
    const int h = m_Probe.VORDENARM_IsHalted();
    if (h < 0) OnInvalidHaltStatus();
    else if (h > 0) OnConnectedHalted();
  }
  return m_bConnected.load() ? 0 : -1;
}

int CDevice::Disconnect() {
  if (!m_bConnected.load()) return 0;
  if (!m_bConnectionLost.load()) {
    m_Probe.VORDENARM_ClrBPEx(-1);
    m_Probe.VORDENARM_ClrDataEvent(0xFFFFFFFFu);
  }
  ResetState();
  m_bConnected.store(false);
  m_bReportHalts.store(false);
  m_Probe.VORDENARM_Close();
  return 0;
}

void CDevice::ShutdownProbe() {
  if (!m_bConnected.load()) return;
  Disconnect();
}

// ---- device information

int CDevice::UpdateDeviceInfo() {
  {
    std::lock_guard<std::mutex> g(s_InfoMx);
    s_Info.sCoreName.clear();
    s_Info.CoreFamily = 0;
  }
  if (!m_Probe.VORDENARM_DEVICE_GetInfo) return -1;
  int Idx = m_Config.Get(DEV_CFG_DEVICE_INDEX);
  if (Idx < 1) {
    const QByteArray s = m_Config.GetString(DEV_CFG_DEVICE_NAME).toUtf8();
    Idx = s.isEmpty() ? -1 : m_Probe.VORDENARM_DEVICE_GetIndex(s.constData());
  }
  if (Idx < 1) return -1;
  VORDENARM_DEVICE_INFO di{};
  di.SizeOfStruct = sizeof di;
  if (m_Probe.VORDENARM_DEVICE_GetInfo(Idx, &di) < 0) return -1;
  const QString sName = di.sName && *di.sName ? QString::fromUtf8(di.sName) : QStringLiteral("Unspecified");
  m_Config.StoreString(DEV_CFG_DEVICE_NAME, sName);
  char acCore[32] = {};
  m_Probe.VORDENARM_Core2CoreName(di.CoreId, acCore, sizeof acCore);
  std::lock_guard<std::mutex> g(s_InfoMx);
  s_Info.sDeviceName = sName;
  s_Info.CoreId = di.CoreId;
  s_Info.CoreFamily = di.CoreId >> 24;
  s_Info.RAMAddr = di.RAMAddr;
  s_Info.RAMSize = di.RAMSize;
  s_Info.sCoreName = QString::fromLatin1(acCore, int(strnlen(acCore, sizeof acCore)));
  return 0;
}

int CDevice::UpdateSupportedCoresList() {
  std::vector<U32> Cores;
  const int n = m_Probe.VORDENARM_DEVICE_GetInfo(-1, nullptr);
  static const U32 kFamilies[] = {1, 3, 6, 7, 8, 9, 10, 11, 12, 14, 15, 19};
  for (int i = 0; i < n; ++i) {
    VORDENARM_DEVICE_INFO di{};
    di.SizeOfStruct = sizeof di;
    if (m_Probe.VORDENARM_DEVICE_GetInfo(i, &di) < 0) continue;
    const U32 Fam = di.CoreId >> 24;
    if (std::find(std::begin(kFamilies), std::end(kFamilies), Fam) == std::end(kFamilies)) continue;
    if (std::find(Cores.begin(), Cores.end(), di.CoreId) != Cores.end()) continue;
    if (Cores.size() >= 1024) {
      DeviceLogWarning("Internal error. supported cores list has insufficent size.");
      break;
    }
    Cores.push_back(di.CoreId);
  }
  std::lock_guard<std::mutex> g(s_InfoMx);
  s_Cores = Cores;
  return int(Cores.size());
}

void CDevice::UpdateVordenFuncPtrs() {
  if (!m_Probe.VORDEN_GetpFunc) return;
  s_pfnEndian = reinterpret_cast<int (*)()>(m_Probe.VORDEN_GetpFunc(12));
  s_pfnBMA = reinterpret_cast<int (*)()>(m_Probe.VORDEN_GetpFunc(10));
  s_pfnWebPort = m_Probe.VORDEN_GetpFunc(33);
  std::lock_guard<std::mutex> g(s_InfoMx);
  s_Info.LibVersion = m_Probe.VORDENARM_GetDLLVersion ? m_Probe.VORDENARM_GetDLLVersion() : 0;
}

void CDevice::UpdateVordenWebserverURL() {
  int FuncPort = -1;
  if (void* pf = s_pfnWebPort.load()) {
    U32 aRec[8] = {};
    reinterpret_cast<int (*)(void*)>(pf)(aRec);
    FuncPort = int(aRec[1]);
  }
  std::lock_guard<std::mutex> g(s_InfoMx);
  const int Port = DEV_WebServerPort(s_Info.LibVersion, FuncPort);
  s_Info.sWebServerURL = Port ? QStringLiteral("http://127.0.0.1:%1").arg(Port) : QString();
}

void CDevice::UpdateMemZones() {
  std::vector<QString> Zones;
  if (m_bConnected.load() && m_Probe.VORDEN_GetMemZones) {
    VORDEN_MEM_ZONE_INFO a[16] = {};
    const int n = m_Probe.VORDEN_GetMemZones(a, 16);
    for (int i = 0; i < n && i < 16; ++i) Zones.push_back(QString::fromUtf8(a[i].sName ? a[i].sName : "").left(127));
  }
  std::lock_guard<std::mutex> g(s_InfoMx);
  s_Info.MemZones = Zones;
}

void CDevice::UpdateTIFSpeed() {
  const int v = m_Probe.VORDENARM_GetSpeed();
  const int Hz = (v < 65535 && (v & 0xFFFF)) ? (v & 0xFFFF) * 1000 : (v & 0xFFFF);
  std::lock_guard<std::mutex> g(s_InfoMx);
  s_Info.TIFSpeedHz = Hz;
}

void CDevice::UpdateEndianess() {
  const auto pfEndian = s_pfnEndian.load();
  int e = pfEndian ? pfEndian() : -1;
  if (e < 0) e = m_Config.Get(DEV_CFG_ENDIAN) ? 3 : 0;
  const int Data = (e >> 1) & 1, Inst = e & 1;
  bool Changed;
  {
    std::lock_guard<std::mutex> g(s_InfoMx);
    Changed = s_Info.DataEndian != Data || s_Info.InstEndian != Inst;
    s_Info.DataEndian = Data;
    s_Info.InstEndian = Inst;
  }
  if (Changed) PostDeviceEvent(DEV_EVENT_ENDIANESS_CHANGED, U64(Data), U64(Inst));
}

void CDevice::ApplyDataEndianess(int Endian) {
  std::lock_guard<std::mutex> g(s_InfoMx);
  s_Info.DataEndian = Endian ? 1 : 0;
}

void CDevice::ResetHWCapabilityFlags() {
  std::lock_guard<std::mutex> g(s_InfoMx);
  for (U8& c : s_Info.aCaps) c = 1;
}

int CDevice::ReadBMACapability() {
  const auto pfBMA = s_pfnBMA.load();
  if (!pfBMA) return 0;
  const int v = pfBMA();
  if (v == 2)
    DeviceLogInfo("Using stop mode for background memory accesses: http://www.vorden.example/Memory_accesses");
  return v < 0 ? 0 : v;
}

bool CDevice::ReadSWOTraceCapability() {
  SetErrorMsg(0, "");
  if (!m_bConnected.load()) return true;
  const U32 Fam = Info().CoreFamily;
  if (Fam == 1 || Fam == 3 || Fam == 6 || Fam == 14) {
    if (m_Config.Get(DEV_CFG_TARGET_IF) == 1) {
      if (m_Probe.VORDENARM_EMU_HasCapEx(23)) return true;
      SetErrorMsg(0, "Vorden emulator does not support SWO.");
      return false;
    }
    SetErrorMsg(0, "SWO trace: target interface not set to SWD");
    return false;
  }
  SetErrorMsg(0, "SWO trace: not a Cortex-M target device");
  return false;
}

bool CDevice::ReadStreamingTraceCapability() {
  if (!m_bConnected.load()) return true;
  if (Info().LibVersion < 61000) return false;
  U32 Caps = 0;
  if (m_Probe.VORDENARM_RAWTRACE_Control(4, &Caps) < 0) return false;
  return (Caps >> 5) & 1;
}

void CDevice::UpdateHWCapabilityFlags() {
  if (!m_bConnected.load()) return;
  const int BMA = ReadBMACapability();
  const bool SWO = ReadSWOTraceCapability();
  const bool Streaming = ReadStreamingTraceCapability();
  std::lock_guard<std::mutex> g(s_InfoMx);
  s_Info.aCaps[0] = U8(BMA);
  s_Info.aCaps[1] = SWO;
  s_Info.aCaps[2] = Streaming;
  s_Info.aCaps[3] = s_Info.aCaps[4] = s_Info.aCaps[5] = 1;
}
