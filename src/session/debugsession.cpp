#include "session/debugsession.h"

#include "commands/actions.h"
#include "device/bpmodel.h"
#include "device/device.h"
#include "device/loadimage.h"
#include "log/log.h"
#include "log/messagebox.h"
#include "plugins/corewrappers.h"
#include "project/projecttext.h"
#include "project/vscript.h"
#include "settings/ids.h"
#include "settings/sysvars.h"

#include <QFile>
#include <QFileInfo>

namespace {

CDevice* Dev() { return CDevice::InstanceIfCreated(); }
bool IsConnected() { return Dev() && Dev()->IsConnected(); }
bool Defined(int Event) { return VScript::IsEventDefined(Event); }
void Run(int Event) {
  if (Defined(Event)) VScript::RunEventLogged(Event);
}

// The project's event function runs while the report of the job it performs
// is held back; the notification word brings the report afterwards.
template <class F>
void RunMuted(std::initializer_list<U32> Types, int Event, F&& AfterMute) {
  CDevice* d = Device();
  for (U32 t : Types) d->SetMute(t, true);
  Run(Event);
  for (U32 t : Types) d->SetMute(t, false);
  AfterMute(d);
}

bool IsElfFile(const QString& sPath) {
  QFile f(sPath);
  return f.open(QIODevice::ReadOnly) && f.read(4) == QByteArray("\x7f" "ELF", 4);
}

}  // namespace

CDebugSession::CDebugSession(QObject* pParent) : QObject(pParent) {
  m_HaltTimer.setSingleShot(true);
  m_HaltTimer.setInterval(100);
  m_MessageBoxTimer.setSingleShot(true);
  m_MessageBoxTimer.setInterval(100);
  m_PeriodicUpdateTimer.setInterval(200);
  connect(&m_HaltTimer, &QTimer::timeout, this, &CDebugSession::OnTargetHaltedAndTOElapsed);
  connect(&m_MessageBoxTimer, &QTimer::timeout, this, &CDebugSession::OnMessageBoxTimerTimeout);
  connect(&m_PeriodicUpdateTimer, &QTimer::timeout, this, &CDebugSession::OnPeriodicUpdateTimerTimeout);
}

CDebugSession::~CDebugSession() = default;

void CDebugSession::SetStatus(const QString& sText) {
  if (m_sStatus == sText) return;
  m_sStatus = sText;
  emit StatusChanged(sText);
}

RUN_CONTROL_STATES CDebugSession::RunControls() const {
  RUN_CONTROL_STATES s;
  CDevice* d = Dev();
  const bool Conn = d && d->IsConnected();
  const bool Halted = Conn && d->IsTargetHalted();
  s.Start = !Conn;
  s.Stop = s.Reset = Conn;
  s.Halt = Conn && !Halted;
  s.Continue = s.Step = Halted && !d->IsSourceStepInProgress();
  return s;
}

void CDebugSession::UpdateActions() { emit RunControlsChanged(); }

// ---- start and connection

int CDebugSession::Start(QString* pError) {
  if (IsConnected()) {
    if (pError) *pError = QStringLiteral("already connected");
    return -1;
  }
  // The source viewer tells whether open documents differ from the files
  // that were built; without one the sources count as matching.
  if (Defined(EVENT_DEBUG_START)) {
    Run(EVENT_DEBUG_START);
    return 0;
  }
  const I64 Mode = SysVars::GetValue(VAR_CONNECT_MODE), Reset = SysVars::GetValue(VAR_RESET_MODE);
  m_bExpectHalt = Mode == CM_ATTACH_HALT || (Mode == CM_DOWNLOAD_RESET && Reset != RM_RESET_AND_RUN);
  m_bChain = Mode == CM_DOWNLOAD_RESET;
  return Connect(CONNECT_MODES(Mode));
}

int CDebugSession::Connect(CONNECT_MODES Mode) {
  if (IsConnected()) return 0;
  SetStatus(QStringLiteral("Connecting..."));
  UpdateActions();
  Run(EVENT_BEFORE_TARGET_CONNECT);
  m_bSessionConnect = true;
  ApplyBreakSymbol();
  if (!Defined(EVENT_TARGET_CONNECT)) return Device()->PostConnect(Mode) < 0 ? -1 : 0;
  RunMuted({JT_CONNECT}, EVENT_TARGET_CONNECT,
           [](CDevice* d) { d->SetConnectWord(U64(SysVars::GetValue(VAR_CONNECT_MODE))); });
  return 0;
}

void CDebugSession::HandleConnectDone(CONNECT_MODES Mode) {
  UpdateActions();
  SetStatus(QStringLiteral("Connected"));
  m_PeriodicUpdateTimer.start();
  if (!m_bSessionConnect) return;  // Exec.Connect outside a session: no chain
  m_bSessionConnect = false;
  CORE_OnConnected();
  Run(EVENT_AFTER_TARGET_CONNECT);
  if (SysVars::GetValue(VAR_CONNECT_MODE) != Mode)
    LogError(QStringLiteral("Changing the connection mode while the connection sequence is in progress may lead to undefined behaviour"));
  CDevice* d = Device();
  switch (Mode) {
    case CM_DOWNLOAD_RESET: Reset(RM_RESET_SESSION); break;
    case CM_ATTACH:
      if (d->IsTargetHalted()) {
        d->SetReportHalts(true);
        d->PostHalt();
      } else {
        d->SetReportHalts(true);
        SetStatus(QStringLiteral("CPU running..."));
      }
      break;
    case CM_ATTACH_HALT:
      d->SetReportHalts(true);
      d->PostHalt();
      break;
    default: break;
  }
}

void CDebugSession::OnDeviceConnectFailed(CONNECT_MODES) {
  m_bChain = false;
  m_bSessionConnect = false;
  EndWait();
  SetStatus(QStringLiteral("Vorden: error connecting to device"));
  UpdateActions();
}

void CDebugSession::OnDeviceConnectCanceled(CONNECT_MODES) {
  m_bChain = false;
  m_bSessionConnect = false;
  EndWait();
  SetStatus(QStringLiteral("Ready"));
  ConsolePrintLine(QStringLiteral("Connection aborted"));
  UpdateActions();
}

// ---- stop

int CDebugSession::Stop() {
  if (!IsConnected()) return -1;
  CORE_OnAboutToDisconnect();
  Run(EVENT_BEFORE_TARGET_DISCONNECT);
  EndWait();
  return Device()->PostDisconnect() < 0 ? -1 : 0;
}

void CDebugSession::HandleDisconnectDone() {
  m_bChain = false;
  EndWait();
  m_HaltTimer.stop();
  m_PeriodicUpdateTimer.stop();
  SetStatus(QStringLiteral("Ready"));
  UpdateActions();
  Run(EVENT_AFTER_TARGET_DISCONNECT);
}

void CDebugSession::HandleConnectionLost() {
  m_bChain = false;
  EndWait();
  m_HaltTimer.stop();
  // The device's console report has said that the connection is lost.
  if (IsConnected() && AskAbortAfterConnectionLost() == CMessageBox::RESULT_YES) Stop();
  UpdateActions();
}

// ---- reset

int CDebugSession::Reset(RESET_MODES Mode) {
  if (!IsConnected()) return -1;
  SetStatus(QStringLiteral("Resetting Device..."));
  Run(EVENT_BEFORE_TARGET_RESET);
  m_bSessionReset = true;
  // The session's reset goes on with the download and the initial program
  // operation; halts before that are not the one a waiter waits for.
  if (Mode == RM_RESET_SESSION) m_bChain = true;
  if (!Defined(EVENT_TARGET_RESET)) return Device()->PostReset(Mode) < 0 ? -1 : 0;
  RunMuted({JT_RESET}, EVENT_TARGET_RESET, [Mode](CDevice* d) {
    d->SetResetWord(Mode == RM_RESET_SESSION ? U64(RM_RESET_SESSION) : U64(SysVars::GetValue(VAR_RESET_MODE)));
  });
  return 0;
}

void CDebugSession::SetDefaultExecState() {
  if (CORE_SetDefaultExecState() >= 0) return;
  // Without the plug-in's answer the device takes PC and SP from the program.
  DEVICE_JOB j{};
  j.Type = JT_SET_TARGET_EXEC_STATE;
  Device()->ScheduleJob(&j);
}

void CDebugSession::HandleResetDone(U32 NewPC, RESET_MODES Mode) {
  (void)NewPC;
  const int m = int(Mode);
  if (m < 0 || m == RM_RESET_HARDWARE_ONLY || m > RM_EXEC_STATE_SET) {
    LogWarning(QStringLiteral("In function OnDeviceResetDone: unknown reset mode"));
    return;
  }
  if (m == RM_EXEC_STATE_SET || !m_bSessionReset) return;  // Exec.Reset outside a session: no chain
  m_bSessionReset = false;
  if (Defined(EVENT_AFTER_TARGET_RESET)) Run(EVENT_AFTER_TARGET_RESET);
  else SetDefaultExecState();
  if (m == RM_RESET_SESSION) {
    DownloadProgram(m_sProgramPath, 0);
    return;
  }
  if (m == RM_RESET_HALT) {
    SetStatus(QStringLiteral("Device was reset"));
    ReportHaltsOn(false);
  } else if (m == RM_RESET_AND_RUN) {
    ReportHaltsOn(false);
    EndWait();
    Device()->PostContinue();
  } else if (RunToBreakSymbol() < 0) {
    ReportHaltsOn(false);
    m_MessageBoxTimer.start();
  }
  UpdateActions();
}

// ---- download

int CDebugSession::DownloadProgram(const QString& sPath, int Mode) {
  if (!IsConnected() || (sPath.isEmpty() && Mode != 0)) return -1;
  SetStatus(QStringLiteral("Writing Memory..."));
  emit DataFileAboutToDownload(sPath);
  if (Mode == 1) {
    Run(EVENT_BEFORE_TARGET_DOWNLOAD);
    WriteProgram(sPath, 1);
    return 0;
  }
  if (Mode == 2) {
    WriteProgram(sPath, 2);
    return 0;
  }
  if (Mode != 0) {
    LogError(QStringLiteral("Error downloading file content: unknown download mode"));
    return -1;
  }
  Run(EVENT_BEFORE_TARGET_DOWNLOAD);
  if (Defined(EVENT_TARGET_DOWNLOAD)) {
    RunMuted({JT_WRITE_MEM_MULTIPLE, JT_END_DOWNLOAD}, EVENT_TARGET_DOWNLOAD, [this](CDevice* d) {
      if (d->LastDownloadError() < 0) OnDownloadFailed(0, d->LastDownloadError());
      OnDownloadDone(0);
    });
    return 0;
  }
  if (sPath.isEmpty()) OnDownloadDone(0);
  else WriteProgram(sPath, 0);
  return 0;
}

void CDebugSession::WriteProgram(const QString& sPath, int Mode) {
  std::vector<DEV_LOAD_BLOCK> Blocks;
  QString sErr;
  if (!DEV_ReadLoadSegments(sPath, &Blocks, &sErr)) {
    LogError(sPath + QStringLiteral(": ") + sErr);
    OnDownloadDone(Mode);
    return;
  }
  m_DownloadMode = Mode;
  const int r = Device()->PostDownload(Blocks, sPath.toUtf8().constData(), Mode);
  if (r < 0) {
    m_DownloadMode = -1;
    OnDownloadDone(Mode);
  }
}

void CDebugSession::HandleEndDownloadDone() {
  const int Mode = m_DownloadMode;
  m_DownloadMode = -1;
  if (Mode >= 0) OnDownloadDone(Mode);
}

void CDebugSession::HandleEndDownloadFailed(int Code) {
  const int Mode = m_DownloadMode;
  m_DownloadMode = -1;
  if (Mode < 0) return;
  OnDownloadFailed(Mode, Code);
  OnDownloadDone(Mode);
}

void CDebugSession::OnDownloadFailed(int, int Code) {
  // The device's report shows the "Download failed" box; the session adds
  // the reason and goes on, since a failed download completes the start.
  if (SysVars::GetValue(VAR_VERIFY_DOWNLOAD) == 0) return;
  static const char* const k[] = {"", "Vorden reports an unspecified error", "error during compare phase",
                                  "error during program/erase phase", "error during verification phase"};
  SetStatus(QStringLiteral("Download Failed."));
  if (Code < 0 && Code >= -4) ConsolePrintLine(QLatin1String(k[-Code]));
}

void CDebugSession::OnDownloadDone(int Mode) {
  if (Mode == 2) return;
  if (Mode != 0 && Mode != 1) {
    LogWarning(QStringLiteral("In function OnDownloadDone: unimplemented download mode %1").arg(Mode));
    return;
  }
  if (Defined(EVENT_AFTER_TARGET_DOWNLOAD)) Run(EVENT_AFTER_TARGET_DOWNLOAD);
  else SetDefaultExecState();
  emit DataFileDownloaded(m_sProgramPath);
  if (Mode == 0) PerformInitialProgramOperation();
}

void CDebugSession::PerformInitialProgramOperation() {
  m_bChain = false;
  if (SysVars::GetValue(VAR_CONNECT_MODE) != CM_DOWNLOAD_RESET) return;
  CDevice* d = Device();
  switch (const I64 Mode = SysVars::GetValue(VAR_RESET_MODE)) {
    case RM_RESET_HALT:
      m_bExpectHalt = true;
      ReportHaltsOn(d->IsTargetHalted());
      if (!d->IsTargetHalted()) d->PostHalt();
      break;
    case RM_BREAK_AT_SYMBOL:
      m_bExpectHalt = true;
      if (RunToBreakSymbol() < 0) {
        m_MessageBoxTimer.start();
        ReportHaltsOn(true);
      } else {
        ReportHaltsOn(false);
      }
      break;
    case RM_RESET_AND_RUN:
      ReportHaltsOn(false);
      EndWait();
      d->PostContinue();
      break;
    default:
      LogWarning(QStringLiteral("In function PerformInitialProgramOperation: unimplemented reset mode: %1").arg(Mode));
      EndWait();
  }
}

void CDebugSession::ReportHaltsOn(bool ReportStop) {
  CDevice* d = Device();
  d->SetReportHalts(true);
  // The halt happened while reports were off: report the stop now.
  if (ReportStop && d->IsTargetHalted() && !d->IsRunning())
    d->PostJobEvent(JT_HALT, 0, 0, I64(d->CurrentPC()), HALT_REASON_PLAIN);
}

// ---- the break symbol

void CDebugSession::ApplyBreakSymbol() {
  CDevice* d = Dev();
  if (!d) return;
  const QString sName = SysVars::GetString(VAR_BREAK_AT_THIS_SYMBOL).trimmed();
  int Addr = -1;
  U64 v = 0;
  if (!sName.isEmpty() && !m_sProgramPath.isEmpty()) {
    if (CBreakpointsDataModel::Instance().Prog().ParseAddress(sName, &v) && v <= 0xFFFFFFFFull) Addr = int(U32(v));
    else LogWarning(QStringLiteral("Cannot break at symbol ") + sName + QStringLiteral(": unknown address"));
  }
  d->Config().Store(DEV_CFG_BREAK_AT_SYMBOL_ADDR, Addr);
}

int CDebugSession::RunToBreakSymbol() {
  CDevice* d = Dev();
  if (!d || !d->IsConnected()) return -1;
  ApplyBreakSymbol();  // the connection may have reset the configuration
  const int Param = d->Config().Get(DEV_CFG_BREAK_AT_SYMBOL_ADDR);
  if (Param == -1) return -1;
  const U32 Addr = U32(Param) & ~1u;  // instruction alignment of the Thumb code
  if (Addr == d->CurrentPC() && d->IsTargetHalted()) {
    EndWait();  // already there: no halt will be reported
    return 0;
  }
  if (!d->IsTargetHalted()) d->PostHalt();
  return d->PostRunTo(Addr) < 0 ? -1 : 0;
}

void CDebugSession::OnMessageBoxTimerTimeout() {
  EndWait();
  TellUnknownBreakSymbol(SysVars::GetString(VAR_BREAK_AT_THIS_SYMBOL));
}

// ---- resume and halt

void CDebugSession::OnDeviceAboutToResume(RESUME_MODES Mode) {
  if (Mode != RESUME_CONTINUE) return;
  CORE_OnAboutToResume();
  Run(EVENT_BEFORE_TARGET_RESUME);
}

void CDebugSession::OnDeviceResumeDone(RESUME_MODES Mode) {
  m_ResumeMode = U32(Mode);
  SetStatus(QStringLiteral("CPU running..."));
  UpdateActions();
}

void CDebugSession::HandleHaltDone(HALT_REASONS Reason) {
  ++m_HaltCount;
  SetStatus(QStringLiteral("CPU halted"));
  UpdateActions();
  // Halts of the reset and the download inside the start chain are not the
  // one the chain waits for.
  if (Reason == HALT_REASON_PC_WRITE || m_bChain) return;
  // A report of a stop that is already over (the reset's, when its run to the
  // break symbol has begun) is not the halt the session waits for.
  if (CDevice* d = Dev(); d && (d->IsJobPending(JT_RUN_TO) || d->IsRunning())) return;
  m_bExpectHalt = false;
  if (Reason == HALT_REASON_RUN_TO) m_HaltTimer.start();
  else OnTargetHaltedAndTOElapsed();
}

void CDebugSession::HandleStepped() {
  ++m_HaltCount;
  m_bExpectHalt = false;
  SetStatus(QStringLiteral("CPU halted"));
  m_HaltTimer.start();
  UpdateActions();
}

void CDebugSession::OnTargetHaltedAndTOElapsed() {
  CheckProgramFileChanged();
  CDevice* d = Dev();
  if (!d || !d->ReportHalts()) return;
  CORE_OnTargetHalted();
  Run(EVENT_AFTER_TARGET_HALT);
}

void CDebugSession::OnPeriodicUpdateTimerTimeout() { UpdateActions(); }

// ---- program files

void CDebugSession::OnDataFileOpened(const QString& sFilePath) {
  const QString sPath = QFileInfo(sFilePath).absoluteFilePath();
  const bool Same = sPath == m_sProgramPath;
  const U32 Flags = m_OpenFlags;
  m_sProgramPath = sPath;
  m_ProgramTime = QFileInfo(sPath).lastModified();
  ApplyBreakSymbol();
  emit DataFileOpened(sPath);
  CDevice* d = Dev();
  if (!IsConnected()) SetStatus(QStringLiteral("Ready"));
  else if (d->ReportHalts() && IsElfFile(sPath)) {
    if ((Flags & 2) && Same) {
      m_bExpectHalt = SysVars::GetValue(VAR_RESET_MODE) != RM_RESET_AND_RUN;
      Reset(RM_RESET_SESSION);
    } else if ((Flags & 1) && AskDownloadAfterOpen() == CMessageBox::RESULT_YES) {
      Reset(RM_RESET_SESSION);
    }
  }
  m_OpenFlags = 0;
  UpdateActions();
}

bool CDebugSession::CheckProgramFileChanged() {
  if (m_bAskingReload || m_sProgramPath.isEmpty()) return false;
  const QFileInfo Info(m_sProgramPath);
  if (!Info.exists() || Info.lastModified() == m_ProgramTime) return false;
  m_ProgramTime = Info.lastModified();  // one question for each change
  m_bAskingReload = true;
  const bool Yes = AskReloadProgramFile() == CMessageBox::RESULT_YES;
  m_bAskingReload = false;
  if (Yes) ReloadProgram(m_sProgramPath);
  return Yes;
}

void CDebugSession::ReloadProgram(const QString& sPath) {
  // Breakpoints stay on their source lines: they leave the old addresses and
  // are set again at the addresses of the new line tables.
  CBreakpointsDataModel& Bps = CBreakpointsDataModel::Instance();
  const auto Src = Bps.DetachSourceBPs();
  m_OpenFlags |= 2;
  ExecActionLogged(AID_FILE_OPEN, sPath);
  TriggerAction(AID_FILE_OPEN);
  Bps.ReattachSourceBPs(Src);
}
