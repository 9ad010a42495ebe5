// The device module's commands (Target.*, Exec.*), the receiver of the
// project's connection settings, the console reports of connections and
// downloads, and the installation of all of it.
#include "device/module.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/device.h"
#include "device/events.h"
#include "device/loadimage.h"
#include "device/projectsettings.h"
#include "device/targetmem.h"
#include "elf/dwarf/location.h"
#include "log/log.h"
#include "log/messagebox.h"
#include "settings/ids.h"
#include "settings/sysvars.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <cstring>

namespace {

bool ArgU64(const QString& s, U64* pOut) {
  bool Ok = false;
  QString t = s.trimmed();
  U64 v = t.toULongLong(&Ok, 0);
  if (!Ok) {
    const I64 sv = t.toLongLong(&Ok, 0);
    v = U64(sv);
  }
  if (Ok) *pOut = v;
  return Ok;
}

QString Unquote(QString s) {
  s = s.trimmed();
  if (s.size() >= 2 && s.startsWith('"') && s.endsWith('"')) s = s.mid(1, s.size() - 2);
  return s;
}

// Console reports of the connection and the results of asynchronous commands.
class CDeviceReports : public CDeviceEventListener {
 public:
  void OnDeviceConnectDone(CONNECT_MODES) override {
    ConsolePrintLine(QStringLiteral("Vorden: connected to target device"), 0, false, COLOR_LOGGING_VORDEN);
    SetActionResult(AID_EXEC_CONNECT, 0);
  }
  void OnDeviceConnectFailed(CONNECT_MODES) override {
    ConsolePrintLine(QStringLiteral("Connection failed"), 0, false, COLOR_LOGGING_VORDEN);
    SetActionResult(AID_EXEC_CONNECT, -1);
  }
  void OnDeviceDisconnectDone() override {
    ConsolePrintLine(QStringLiteral("Vorden: disconnected from target device"), 0, false, COLOR_LOGGING_VORDEN);
  }
  void OnDeviceConnectionLost() override {
    ConsolePrintLine(QStringLiteral("Vorden: connection to target device lost."), 0, false, COLOR_LOGGING_VORDEN);
  }
  void OnDeviceEndDownloadDone(const char*, DOWNLOAD_MODES) override { SetActionResult(AID_EXEC_DOWNLOAD, 0); }
  void OnDeviceEndDownloadFailed(const char*, DOWNLOAD_MODES, int Code) override {
    SetActionResult(AID_EXEC_DOWNLOAD, Code < 0 ? Code : -1);
    if (SysVars::GetValue(VAR_VERIFY_DOWNLOAD) != 0)
      CMessageBox::Ask(QStringLiteral("Download failed"), QStringLiteral("Parts of the program file could not be written."), 0,
                       QDialogButtonBox::Ok);
  }
  void OnDeviceExecVordenCmdDone(const char*) override { SetActionResult(AID_EXEC_COMMAND, 0); }
  void OnDeviceExecVordenCmdFailed(const char*, const char*) override { SetActionResult(AID_EXEC_COMMAND, -1); }
  void OnDeviceResetDone(U32 PC, RESET_MODES) override { SetActionResult(AID_EXEC_RESET, 0); }
  void OnDeviceResetFailed(U32, RESET_MODES) override { SetActionResult(AID_EXEC_RESET, -1); }
  void OnDeviceLogMsg(const char* sMsg, U32 Flags) override { ::OnDeviceLogMsg(sMsg, Flags); }
};

// The project's settings go to the device as configuration jobs.
class CProjectSettingsReceiver : public IDeviceProjectSettings {
 public:
  void SetDevice(const QString& s) override { Device()->PostSetConfigParam(DEV_CFG_DEVICE_NAME, s.toUtf8().constData()); }
  void SetHostIF(const QString& sIF, const QString& sIdent) override {
    CDevice* d = Device();
    if (sIF.compare(QLatin1String("IP"), Qt::CaseInsensitive) == 0) {
      d->PostSetConfigParam(DEV_CFG_HOST_IF, DEV_HOST_IF_IP);
      d->PostSetConfigParam(DEV_CFG_HOST_NAME, sIdent.toUtf8().constData());
      return;
    }
    d->PostSetConfigParam(DEV_CFG_HOST_IF, DEV_HOST_IF_USB);
    U64 SN = 0;
    const bool Use = !sIdent.isEmpty() && ArgU64(sIdent, &SN) && SN > 0;
    d->PostSetConfigParam(DEV_CFG_USB_SERIAL_NO, int(SN));
    d->PostSetConfigParam(DEV_CFG_USE_SERIAL_NO, Use ? 1 : 0);
  }
  void SetTargetIF(const QString& s) override {
    static const struct { const char* n; int v; } k[] = {{"JTAG", 0}, {"SWD", 1}, {"FINE", 3}, {"cJTAG", 7}};
    for (const auto& e : k)
      if (s.compare(QLatin1String(e.n), Qt::CaseInsensitive) == 0) Device()->PostSetConfigParam(DEV_CFG_TARGET_IF, e.v);
  }
  void SetSpeed(I64 Hz) override { Device()->PostSetConfigParam(DEV_CFG_SPEED, int(Hz)); }
  void SetJTAGConfig(int DRPre, int IRPre) override {
    Device()->PostSetConfigParam(DEV_CFG_DR_PRE, DRPre);
    Device()->PostSetConfigParam(DEV_CFG_IR_PRE, IRPre);
    Device()->PostSetConfigParam(DEV_CFG_MULTIPLE_TARGETS, 1);
  }
  void SetScriptFile(const QString& s) override { Device()->PostSetConfigParam(DEV_CFG_SCRIPT_FILE, s.toUtf8().constData()); }
  void SetLogFile(const QString& s) override { Device()->PostSetConfigParam(DEV_CFG_LOG_FILE, s.toUtf8().constData()); }
};

bool RequireConnected(int Id) {
  CDevice* d = CDevice::InstanceIfCreated();
  if (d && d->IsConnected()) return true;
  SetActionError(Id, QStringLiteral("not connected"));
  SetActionResult(Id, -1);
  return false;
}

void Scheduled(int Id, int r) {
  if (r < 0) {
    SetActionError(Id, QStringLiteral("job not scheduled"));
    SetActionResult(Id, -1);
  } else {
    SetActionResult(Id, 0);
  }
}

// ---- Exec.*

void OnExecConnect(int Id) {
  if (!CheckArgCount(Id)) return;
  CDevice* d = Device();
  if (d->IsConnected()) {
    SetActionResult(Id, 0);
    return;
  }
  Scheduled(Id, d->PostConnect(CM_ATTACH));
}

void OnExecReset(int Id) {
  if (!CheckArgCount(Id) || !RequireConnected(Id)) return;
  Scheduled(Id, Device()->PostReset());
}

void OnExecCommand(int Id) {
  if (!CheckArgCount(Id)) return;
  const QByteArray s = Unquote(GetActionArgs(Id).value(0)).toUtf8();
  if (s.isEmpty()) {
    SetActionError(Id, QStringLiteral("invalid parameter"));
    SetActionResult(Id, -1);
    return;
  }
  Scheduled(Id, Device()->PostExecVordenCmd(s.constData()));
}

void OnExecDownload(int Id) {
  if (!CheckArgCount(Id) || !RequireConnected(Id)) return;
  const QString sPath = Unquote(GetActionArgs(Id).value(0));
  std::vector<DEV_LOAD_BLOCK> Blocks;
  QString sErr;
  if (!QFileInfo(sPath).isFile()) {
    SetActionError(Id, QStringLiteral("file not found"), sPath);
    SetActionResult(Id, -1);
    return;
  }
  if (!DEV_ReadLoadSegments(sPath, &Blocks, &sErr)) {
    SetActionError(Id, QStringLiteral("invalid parameter"), sErr);
    SetActionResult(Id, -1);
    return;
  }
  Scheduled(Id, Device()->PostDownload(Blocks, sPath.toUtf8().constData(), 0));
}

// ---- Target.*

void OnTargetRead(int Id, U32 Size) {
  if (!CheckArgCount(Id)) return;
  U64 Addr = 0;
  if (!ArgU64(GetActionArgs(Id).value(0), &Addr) || Addr > 0xFFFFFFFFull) {
    SetActionError(Id, QStringLiteral("invalid parameter"));
    SetActionResult(Id, -1);
    return;
  }
  U8 Buf[8] = {}, St[8];
  QString sReason;
  const int n = DEV_ReadTargetMemory(U32(Addr), Size, Buf, St, &sReason);
  if (n < 0) {
    SetActionError(Id, sReason);
    SetActionResult(Id, 0);
    return;
  }
  U64 v = 0;
  if (n != int(Size)) {
    SetActionError(Id, Size == 4 ? QStringLiteral("ReadWord: Vorden API call failed")
                       : Size == 2 ? QStringLiteral("ReadHalfWord: Vorden API call failed")
                                   : QStringLiteral("ReadByte: Vorden API call failed"));
    SetActionResult(Id, 0);
    return;
  }
  memcpy(&v, Buf, Size);
  SetActionResult(Id, I64(v));
}

bool CheckWriteAccess(int Id) {
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected()) {
    SetActionError(Id, QStringLiteral("cannot access target memory: target not connected"));
  } else if (!d->CanAccessMemory()) {
    SetActionError(Id, QStringLiteral("cannot access target memory: target not halted and background memory access not supported"));
  } else {
    return true;
  }
  SetActionResult(Id, -1);
  return false;
}

void OnTargetWrite(int Id, U32 Size) {
  if (!CheckArgCount(Id)) return;
  const QStringList a = GetActionArgs(Id);
  U64 Addr = 0, Value = 0;
  if (!ArgU64(a.value(0), &Addr) || !ArgU64(a.value(1), &Value) || Addr > 0xFFFFFFFFull) {
    SetActionError(Id, QStringLiteral("invalid parameter"));
    SetActionResult(Id, -1);
    return;
  }
  if (Size != 1 && Size != 2 && Size != 4 && Size != 8) {
    qWarning("Unsupported write size");
    return;
  }
  if (!CheckWriteAccess(Id)) return;
  U8 Buf[8];
  memcpy(Buf, &Value, 8);
  CDevice* d = Device();
  if (d->PostWriteMem(U32(Addr), Size, 0, I8(Size), 0, Buf) < 0) return Scheduled(Id, -1);
  d->WaitAndDeliver(JT_WRITE_MEM, true);
  SetActionResult(Id, 0);
}

void OnTargetFill(int Id) {
  if (!CheckArgCount(Id)) return;
  if (!CDevice::InstanceIfCreated() || !Device()->IsConnected()) {
    SetActionError(Id, QStringLiteral("not connected"));
    SetActionResult(Id, -1);
    return;
  }
  const QStringList a = GetActionArgs(Id);
  U64 Addr = 0, Size = 0, Value = 0;
  if (!ArgU64(a.value(0), &Addr) || !ArgU64(a.value(1), &Size) || !ArgU64(a.value(2), &Value) || Size == 0 ||
      Size > 0x10000000ull || Addr + Size > 0x100000000ull) {
    SetActionError(Id, QStringLiteral("invalid parameter"));
    SetActionResult(Id, -1);
    return;
  }
  if (!CheckWriteAccess(Id)) return;
  const QByteArray Data(qsizetype(Size), char(Value & 0xFF));
  CDevice* d = Device();
  Scheduled(Id, d->PostWriteMem(U32(Addr), U32(Size), d->DownloadChunkSize(), AW_ANY, 0,
                                reinterpret_cast<const U8*>(Data.constData())));
  d->WaitAndDeliver(JT_WRITE_MEM, true);
}

// Registers by name: a number is a probe index; otherwise the core registers.
int RegisterIndex(const QString& sName) {
  U64 v = 0;
  if (ArgU64(sName, &v)) return v < VORDENARM_REG_NUM ? int(v) : -1;
  static const struct { const char* n; int i; } k[] = {
      {"SP", 13}, {"R13", 13}, {"LR", 14}, {"R14", 14}, {"PC", 15}, {"R15", 15}, {"XPSR", 16}, {"MSP", 17},
      {"PSP", 18}, {"PRIMASK", 19}, {"BASEPRI", 20}, {"FAULTMASK", 21}, {"CONTROL", 22}, {"FPSCR", 23}};
  const QString s = Unquote(sName).toUpper();
  for (const auto& e : k)
    if (s == QLatin1String(e.n)) return e.i;
  if (s.startsWith('R')) {
    bool Ok = false;
    const int n = s.mid(1).toInt(&Ok);
    if (Ok && n >= 0 && n <= 12) return n;
  }
  if (s.startsWith('S')) {
    bool Ok = false;
    const int n = s.mid(1).toInt(&Ok);
    if (Ok && n >= 0 && n <= 31) return VORDENARM_REG_S0 + n;
  }
  return -1;
}

bool CheckRegAccess(int Id) {
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected()) SetActionError(Id, QStringLiteral("cannot access target registers: target not connected"));
  else if (!d->HaltReported()) SetActionError(Id, QStringLiteral("cannot access target registers: target not halted"));
  else return true;
  SetActionResult(Id, -1);
  return false;
}

void OnTargetGetReg(int Id) {
  if (!CheckArgCount(Id) || !CheckRegAccess(Id)) return;
  const int Idx = RegisterIndex(GetActionArgs(Id).value(0));
  U64 v = 0;
  if (Idx < 0) {
    SetActionError(Id, QStringLiteral("invalid parameter"));
    SetActionResult(Id, -1);
    return;
  }
  SetActionResult(Id, Device()->ReadReg(U32(Idx), &v) == 0 ? I64(U32(v)) : -1);
}

void OnTargetSetReg(int Id) {
  if (!CheckArgCount(Id) || !CheckRegAccess(Id)) return;
  const int Idx = RegisterIndex(GetActionArgs(Id).value(0));
  U64 v = 0;
  if (Idx < 0 || !ArgU64(GetActionArgs(Id).value(1), &v)) {
    SetActionError(Id, QStringLiteral("invalid parameter"));
    SetActionResult(Id, -1);
    return;
  }
  CDevice* d = Device();
  if (d->PostWriteReg(U32(Idx), U32(v)) < 0) return Scheduled(Id, -1);
  d->WaitAndDeliver(JT_WRITE_REG, true);
  SetActionResult(Id, 0);
}

void OnTargetPowerOn(int Id) {
  if (!CheckArgCount(Id)) return;
  U64 On = 0;
  ArgU64(GetActionArgs(Id).value(0), &On);
  Scheduled(Id, Device()->PostExecVordenCmd(On ? "SupplyPower=1" : "SupplyPower=0"));
}

void OnTargetSetEndianess(int Id) {
  if (!CheckArgCount(Id)) return;
  U64 Big = 0;
  if (!ArgU64(GetActionArgs(Id).value(0), &Big)) {
    SetActionError(Id, QStringLiteral("invalid parameter"));
    SetActionResult(Id, -1);
    return;
  }
  Scheduled(Id, Device()->PostSetConfigParam(DEV_CFG_ENDIAN, Big ? 1 : 0));
}

CDeviceReports* s_pReports = nullptr;
CProjectSettingsReceiver s_Receiver;
CTargetSymbolMemory* s_pTargetMemory = nullptr;

}  // namespace

int DeviceModule::WaitUntilIdle(int TimeoutMS) {
  CDevice* d = CDevice::InstanceIfCreated();
  return d ? d->WaitIdle(TimeoutMS) : -1;
}

IDeviceProjectSettings& DeviceModule::ProjectSettings() { return s_Receiver; }

void DeviceModule::Install() {
  static bool s_Done = false;
  if (s_Done) return;
  s_Done = true;
  new CDeviceEventWorker(QCoreApplication::instance());
  s_pReports = new CDeviceReports;
  Device();
  s_pTargetMemory = new CTargetSymbolMemory;
  ELF_SetTargetAccess(s_pTargetMemory);
  SetCommandWaiter([](int) { WaitUntilIdle(); });
  QObject::connect(QCoreApplication::instance(), &QCoreApplication::aboutToQuit, [] {
    if (CDevice* d = CDevice::InstanceIfCreated()) d->CancelJobs(JT_ALL, QUEUE_SEL_ALL);
    CDevice::Destroy();
  });

  SetCommandSlot(AID_EXEC_CONNECT, OnExecConnect);
  SetCommandSlot(AID_EXEC_RESET, OnExecReset);
  SetCommandSlot(AID_EXEC_DOWNLOAD, OnExecDownload);
  SetCommandSlot(AID_EXEC_COMMAND, OnExecCommand);
  SetCommandSlot(AID_TARGET_READ_U_8, [](int Id) { OnTargetRead(Id, 1); });
  SetCommandSlot(AID_TARGET_READ_U_16, [](int Id) { OnTargetRead(Id, 2); });
  SetCommandSlot(AID_TARGET_READ_U_32, [](int Id) { OnTargetRead(Id, 4); });
  SetCommandSlot(AID_TARGET_WRITE_U_8, [](int Id) { OnTargetWrite(Id, 1); });
  SetCommandSlot(AID_TARGET_WRITE_U_16, [](int Id) { OnTargetWrite(Id, 2); });
  SetCommandSlot(AID_TARGET_WRITE_U_32, [](int Id) { OnTargetWrite(Id, 4); });
  SetCommandSlot(AID_TARGET_WRITE_U_64, [](int Id) { OnTargetWrite(Id, 8); });
  SetCommandSlot(AID_TARGET_FILL_MEMORY, OnTargetFill);
  SetCommandSlot(AID_TARGET_GET_REG, OnTargetGetReg);
  SetCommandSlot(AID_TARGET_SET_REG, OnTargetSetReg);
  SetCommandSlot(AID_TARGET_POWER_ON, OnTargetPowerOn);
  SetCommandSlot(AID_TARGET_SET_ENDIANESS, OnTargetSetEndianess);
}
