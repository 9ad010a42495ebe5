// CDebugSession: what happens between the device's reports during a debug
// session. It runs the project's event functions in their order, decides
// when the program is downloaded and where execution stops after a start,
// asks the user what has to be asked, and keeps the status text and the
// enabled state of the run controls for the main window to show. Nothing
// here talks to the probe: every target operation is a job of CDevice, and
// the chain goes on when the job's report comes back.
//
// Everything runs on the user interface thread.
#pragma once
#include "common/types.h"
#include "device/listener.h"

#include <QDateTime>
#include <QObject>
#include <QString>
#include <QTimer>
#include <functional>

// Which code view the user works in; it decides the level of a step.
enum CODE_VIEWS : int { CODE_VIEW_SOURCE = 0, CODE_VIEW_DISASSEMBLY = 1 };

// The enabled state of the run controls, as the main window shows them.
struct RUN_CONTROL_STATES {
  bool Start = true, Stop = false, Continue = false, Halt = false, Reset = false, Step = false;
};

class CDebugSession : public QObject, public CDeviceEventListener {
  Q_OBJECT
 public:
  explicit CDebugSession(QObject* pParent = nullptr);
  ~CDebugSession() override;

  // ---- sequences. Each ends by posting a job (or does nothing); 0, or -1
  // with pError (optional) set to the error word.
  int Start(QString* pError = nullptr);
  int Stop();
  int Connect(CONNECT_MODES Mode);
  int Reset(RESET_MODES Mode);
  int DownloadProgram(const QString& sPath, int Mode);
  // 0: running to the break symbol (or already there); -1: no symbol address
  // or not connected.
  int RunToBreakSymbol();
  // Resolves VAR_BREAK_AT_THIS_SYMBOL into device configuration parameter 14.
  void ApplyBreakSymbol();
  // A program file was opened (File.Open); ByUser: chosen by dialog or list.
  void OnDataFileOpened(const QString& sFilePath);
  // Asks about a program file changed on disk since it was opened; reloads
  // it on yes. True when a reload ran.
  bool CheckProgramFileChanged();

  // ---- state for views
  QString StatusText() const { return m_sStatus; }
  RUN_CONTROL_STATES RunControls() const;
  void SetActiveCodeView(CODE_VIEWS View) { m_CodeView = View; }
  CODE_VIEWS ActiveCodeView() const { return m_CodeView; }
  QString ProgramPath() const { return m_sProgramPath; }
  void SetOpenFlags(U32 Flags) { m_OpenFlags = Flags; }
  U32 ResumeMode() const { return m_ResumeMode; }
  // A resume, step or start was posted and its halt (with AfterTargetHalt)
  // has not been delivered yet. Batch mode waits while this is true.
  bool IsAwaitingHalt() const {
    return m_bExpectHalt || m_HaltTimer.isActive() || m_MessageBoxTimer.isActive() || m_nDeferred > 0;
  }
  void ExpectHalt(bool On) { m_bExpectHalt = On; }
  // Number of halt and step reports delivered so far.
  U64 HaltCount() const { return m_HaltCount; }

 signals:
  void StatusChanged(const QString& sText);
  void RunControlsChanged();
  void DataFileOpened(const QString& sPath);
  void DataFileAboutToDownload(const QString& sPath);
  void DataFileDownloaded(const QString& sPath);

 public:
  // ---- device reports
  void OnDeviceConnectDone(CONNECT_MODES Mode) override { Later([=, this] { HandleConnectDone(Mode); }); }
  void OnDeviceConnectFailed(CONNECT_MODES Mode) override;
  void OnDeviceConnectCanceled(CONNECT_MODES Mode) override;
  void OnDeviceDisconnectDone() override { Later([=, this] { HandleDisconnectDone(); }); }
  void OnDeviceConnectionLost() override { Later([=, this] { HandleConnectionLost(); }); }
  void OnDeviceAboutToResume(RESUME_MODES Mode) override;
  void OnDeviceResumeDone(RESUME_MODES Mode) override;
  void OnDeviceResumeFailed(RESUME_MODES) override { EndWait(); }
  void OnDeviceResetDone(U32 NewPC, RESET_MODES Mode) override { Later([=, this] { HandleResetDone(NewPC, Mode); }); }
  void OnDeviceResetFailed(U32, RESET_MODES) override {
    m_bSessionReset = false;
    EndWait();
  }
  void OnDeviceHaltDone(U32, HALT_REASONS Reason) override { Later([=, this] { HandleHaltDone(Reason); }); }
  void OnDeviceHaltFailed() override { EndWait(); }
  void OnDeviceStepped(U32) override { Later([=, this] { HandleStepped(); }); }
  void OnDeviceStepInstFailed(U32) override { EndWait(); }
  void OnDeviceStepIntoFailed(U32) override { EndWait(); }
  void OnDeviceStepOverFailed(U32) override { EndWait(); }
  void OnDeviceStepOutFailed(U32) override { EndWait(); }
  void OnDeviceRunToSymbolFailed(U32) override { EndWait(); }
  void OnDeviceEndDownloadDone(const char*, DOWNLOAD_MODES) override { Later([=, this] { HandleEndDownloadDone(); }); }
  void OnDeviceEndDownloadFailed(const char*, DOWNLOAD_MODES, int Code) override {
    Later([=, this] { HandleEndDownloadFailed(Code); });
  }

 private:
  // A report is handled after its delivery: the event functions it runs may
  // wait for device jobs, and the job of the report must be done by then.
  template <class F>
  void Later(F&& Fn) {
    ++m_nDeferred;
    QTimer::singleShot(0, this, [this, Fn] {
      --m_nDeferred;
      Fn();
    });
  }
  void HandleConnectDone(CONNECT_MODES Mode);
  void HandleDisconnectDone();
  void HandleConnectionLost();
  void HandleResetDone(U32 NewPC, RESET_MODES Mode);
  void HandleHaltDone(HALT_REASONS Reason);
  void HandleStepped();
  void HandleEndDownloadDone();
  void HandleEndDownloadFailed(int Code);
  void SetStatus(const QString& sText);
  void UpdateActions();
  void EndWait() { m_bExpectHalt = m_bChain = false; }
  void SetDefaultExecState();
  void WriteProgram(const QString& sPath, int Mode);
  void OnDownloadFailed(int Mode, int VordenErrCode);
  void OnDownloadDone(int Mode);
  void PerformInitialProgramOperation();
  void ReportHaltsOn(bool ReportStop);
  void OnTargetHaltedAndTOElapsed();
  void OnMessageBoxTimerTimeout();
  void OnPeriodicUpdateTimerTimeout();
  void ReloadProgram(const QString& sPath);

  QString m_sProgramPath;
  QDateTime m_ProgramTime;  // modification time of the program file when it was opened
  U32 m_OpenFlags = 0;
  U32 m_ResumeMode = 0;
  QString m_sStatus = QStringLiteral("Ready");
  CODE_VIEWS m_CodeView = CODE_VIEW_SOURCE;
  // The session's own connection and download are under way (the device
  // also reports those of Exec.Connect and Exec.Download outside a session).
  bool m_bSessionConnect = false, m_bSessionReset = false;
  int m_DownloadMode = -1;
  bool m_bExpectHalt = false;
  bool m_bChain = false;  // a start chain runs until its initial operation
  bool m_bAskingReload = false;
  U64 m_HaltCount = 0;
  int m_nDeferred = 0;  // reports waiting for their handling
  QTimer m_HaltTimer, m_MessageBoxTimer, m_PeriodicUpdateTimer;
};

namespace SessionModule {
// Creates the session and installs the Debug.* command slots. Call after
// DeviceModule::Install(), so that the device's console reports come first.
void InstallDebugSession();
// The session (null before InstallDebugSession).
CDebugSession* DebugSession();
}  // namespace SessionModule
