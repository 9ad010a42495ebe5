#include "app/startup.h"

#include "app/batch.h"
#include "dap/dapserver.h"
#include "ui/registers/registermodel.h"
#include "ui/source/sourceeditor.h"
#include "ui/source/sourcewindow.h"
#include "cmdline/cmdline.h"
#include "commands/actions.h"
#include "device/bpmodel.h"
#include "device/device.h"
#include "device/module.h"
#include "disasm/instinstall.h"
#include "files/filecommands.h"
#include "files/fileworker.h"
#include "device/listener.h"
#include "log/console.h"
#include "log/diag.h"
#include "log/log.h"
#include "log/messagebox.h"
#include "plugins/corehost.h"
#include "project/project.h"
#include "project/projectcommands.h"
#include "project/vscript.h"
#include "session/debugsession.h"
#include "session/program.h"
#include "settings/fonts.h"
#include "settings/store.h"
#include "settings/sysvars.h"
#include "stack/callstack.h"
#include "ui/breakpoints/bpitemmodel.h"
#include "ui/callstack/callstackmodel.h"
#include "ui/dialogs/projectdialogs.h"
#include "ui/framework/viewexport.h"
#include "ui/breakpoints/bpwindow.h"
#include "ui/callstack/callstackwindow.h"
#include "elf/elfapi.h"
#include "ui/memory/memorywindow.h"
#include "ui/registers/registerwindow.h"
#include "ui/symbols/symbolsmodule.h"
#include "ui/shell/consolewindow.h"
#include "ui/shell/mainwindow.h"
#include "ui/shell/statusbar.h"

#include <QAction>
#include <QApplication>
#include <QFile>
#include <QFileInfo>
#include <QFont>
#include <QTimer>
#include <cstdio>
#include <memory>

namespace {
std::function<void(CMainWindow*)>& StartedHook() {
  static std::function<void(CMainWindow*)> s_Hook;
  return s_Hook;
}
}  // namespace

void SetMainWindowStartedHook(const std::function<void(CMainWindow*)>& Fn) { StartedHook() = Fn; }

START_PATH ChooseStartPath(const QStringList& Args, const CMDLINE_OPTIONS& Options, bool RecentEmpty,
                           bool StartWithMostRecent, bool Batch) {
  if (Args.size() > 1) {
    const QString& First = Args[1];
    const int Dot = First.lastIndexOf(QLatin1Char('.'));
    if (Dot >= 0 && First.mid(Dot + 1) == QLatin1String("vdebug")) return START_OPEN_FILE;
  }
  if (!Options.Device.isEmpty()) return START_CMDLINE_PROJECT;
  if (Batch) return START_NOTHING;
  if (RecentEmpty) return START_WIZARD;
  if (StartWithMostRecent) return START_RECENT;
  return START_WELCOME;
}

namespace {

// The debug windows of the main window, and what its actions, title and
// status bar follow.
void InstallShellWindows() {
  ShellWindows::SetFactory(SWK_CALL_STACK, [](QWidget* pParent, int) -> QWidget* {
    auto* w = new CCallStackWindow(new CCallStackDataModel(&CCallStack::Instance()), pParent);
    // A chosen frame shows its line in the source viewer.
    if (CSourceWindow* pSource = CSourceWindow::Instance())
      QObject::connect(w, &CWindow::CallSiteSelected, pSource, &CSourceWindow::OnCallSiteSelected, Qt::UniqueConnection);
    return w;
  });
  ShellWindows::SetFactory(SWK_BREAKPOINTS, [](QWidget* pParent, int) -> QWidget* {
    auto* w = new CBreakpointWindow(&CBreakpointsDataModel::Instance(), pParent);
    // The model outlives the window: it forgets the window's callback.
    QObject::connect(w, &QObject::destroyed, [] { CBreakpointsDataModel::Instance().SetChangedCallback({}); });
    return w;
  });
  ShellWindows::SetFactory(SWK_MEMORY, [](QWidget* pParent, int Index) -> QWidget* {
    return new CMemoryWindow(Index, pParent);
  });
  ShellWindows::SetFactory(SWK_REGISTERS, REG_CreateRegisterWindow);
  ShellWindows::SetFactory(SWK_WATCH, SYM_CreateWatchWindow);
  ShellWindows::SetFactory(SWK_LOCALS, SYM_CreateLocalsWindow);
  ShellWindows::SetFactory(SWK_GLOBALS, SYM_CreateGlobalsWindow);
  ShellWindows::SetFactory(SWK_FUNCTIONS, SYM_CreateFunctionsWindow);
  SymbolsModule::SetShowWindowHook([](const QString& sWindow) { ExecAction(AID_WINDOW_SHOW, sWindow); });
  ShellHooks::SetStateSource([] {
    SHELL_STATE St;
    const CProject& p = Project();
    St.ProjectOpen = p.IsOpen();
    St.ProjectModified = p.IsModified();
    St.CorePluginLoaded = IsCorePluginLoaded();
    if (CDevice* d = CDevice::InstanceIfCreated()) {
      St.Connected = d->IsConnected();
      St.BreakpointCount = d->BpCount();
      St.DataBreakpointCount = d->WpCount();
      St.TracepointCount = d->TpCount();
    }
    if (St.Connected) St.ProgramPath = p.ProgramFilePath();
    if (CDebugSession* pSession = SessionModule::DebugSession()) {
      const RUN_CONTROL_STATES c = pSession->RunControls();
      St.Start = c.Start;
      St.Stop = c.Stop;
      St.Continue = c.Continue;
      St.Halt = c.Halt;
      St.Reset = c.Reset;
      St.Step = c.Step;
    }
    if (CSourceWindow* w = CSourceWindow::Instance()) {
      St.DocumentOpen = w->GetFileCount() > 0;
      St.DocumentModified = w->ActiveDocument() && w->ActiveDocument()->HasUnsavedChanges;
    }
    St.ConnectMode = int(SysVars::GetValue(VAR_CONNECT_MODE));
    St.ResetMode = int(SysVars::GetValue(VAR_RESET_MODE));
    return St;
  });
}

// Progress of the device (download, memory reads) and of the data file
// reader and writer in the status bar.
class CStatusProgress : public CDeviceEventListener, public VFile::IFileProgress {
 public:
  explicit CStatusProgress(CStatusBar* pBar) : m_pBar(pBar) {}
  void OnDeviceSetProgressMsg(const char* sMsg) override { m_pBar->SetProgressMessage(QString::fromUtf8(sMsg)); }
  void OnDeviceStartProgress(int Min, int Max) override { m_pBar->StartProgress(Min, Max); }
  void OnDeviceEndProgress() override { m_pBar->EndProgress(); }
  void OnDeviceSetProgressValue(int Value) override { m_pBar->SetProgressValue(Value); }
  void StartProgress(const QString& sText, qint64 Total) override {
    m_Scale = Total > 1000000 ? Total / 1000000 + 1 : 1;
    m_pBar->SetProgressMessage(sText);
    m_pBar->StartProgress(0, int(Total / m_Scale));
  }
  // The data file reader and writer and the program load hold the event
  // loop while they work, so their progress is painted as it comes.
  void SetProgress(qint64 Value) override {
    m_pBar->SetProgressValue(int(Value / m_Scale));
    m_pBar->PaintNow();
  }
  void EndProgress() override {
    m_pBar->EndProgress();
    m_pBar->PaintNow(true);
  }
  static void OnProgramLoad(int Done, int Total) {
    CStatusBar* b = s_pInstance ? s_pInstance->m_pBar : nullptr;
    if (!b) return;
    if (Done == 0) {
      b->SetProgressMessage(QStringLiteral("Opening File..."));
      b->StartProgress(0, Total);
    } else if (Done > 0) {
      b->SetProgressValue(Done);
    } else {
      b->SetProgressMessage(QString());
      b->EndProgress();
    }
    b->PaintNow(Done <= 0);
  }
  static CStatusProgress* s_pInstance;

 private:
  CStatusBar* m_pBar;
  qint64 m_Scale = 1;
};
CStatusProgress* CStatusProgress::s_pInstance = nullptr;

// The user file keeps the open windows and tool bars of the main window.
void RegisterLayoutSections(CMainWindow* pMain) {
  // A project whose script did not load keeps the lines it had.
  static bool s_Loaded = false;
  QObject::connect(&Project(), &CProject::Opened, [] { s_Loaded = Project().IsOpen() && !VScript::HasError(); });
  QObject::connect(&Project(), &CProject::Closed, [] { s_Loaded = false; });
  RegisterUserFileSection({QStringLiteral("OpenWindow"), 1,
                           [pMain] { return s_Loaded ? pMain->WriteWindowLines() : QStringList(); },
                           [pMain](const QStringList& Lines) { pMain->ReadWindowLines(Lines); }});
  RegisterUserFileSection({QStringLiteral("OpenToolbar"), 1,
                           [pMain] { return s_Loaded ? pMain->WriteToolbarLines() : QStringList(); },
                           [pMain](const QStringList& Lines) { pMain->ReadToolbarLines(Lines); }});
}

// The modules install their commands and meet each other here, by direct
// calls, before the main window exists.
void InstallModules() {
  ProjectModule::Install();
  ProjectCommands::Install();
  SessionModule::Install();
  DeviceModule::Install();
  SessionModule::InstallDebugSession();
  WIN_InstallExportCommand();
  SymbolsModule::Install();
  // The breakpoint window's rows, also without the window.
  WIN_RegisterViewModel(QStringLiteral("Breakpoints"), [] {
    static CBreakpointItemModel* s_pRows = new CBreakpointItemModel(&CBreakpointsDataModel::Instance());
    s_pRows->Reset();
    return s_pRows;
  });
  // The call stack follows every halt (frame 0 and its caller; the return
  // address of frame 0 is what stepping out needs). Its window's rows, also
  // without the window, are unwound to the end before they are read.
  CCallStack::Instance();
  // A breakpoint condition reads its locals in frame 0 of the stop.
  CBreakpointsDataModel::Instance().SetConditionFrameHook([] { CCallStack::Instance().Init(); });
  WIN_RegisterViewModel(QStringLiteral("Call Stack"), [] {
    static CCallStackDataModel* s_pStackRows = new CCallStackDataModel(&CCallStack::Instance());
    s_pStackRows->UnwindForExport();
    return s_pStackRows;
  });
  BreakpointModule::Install();
  {
    CBreakpointsDataModel& Bps = CBreakpointsDataModel::Instance();
    Bps.SetHasProgramFile([] { return !Project().ProgramFilePath().isEmpty(); });
    Bps.SetStopHooks({[](const QString& sFunc) { VScript::RunFunctionLogged(sFunc, -1); },
                      [](const QString& sTitle, const QString& sText) {
                        CMessageBox::Ask(sTitle, sText, 0, QDialogButtonBox::Ok);
                      }});
    for (const char* sKey : {"Breakpoint", "DataBreakpoint", "Tracepoint"}) {
      const QString Key = QLatin1String(sKey);
      RegisterUserFileSection({Key, 0,
                               [Key] {
                                 QStringList Out;
                                 for (const QString& l : CBreakpointsDataModel::Instance().WriteUserLines())
                                   if (l.startsWith(Key + QLatin1Char('='))) Out << l;
                                 return Out;
                               },
                               [](const QStringList& Lines) { CBreakpointsDataModel::Instance().ReadUserLines(Lines); }});
    }
    // The next project starts without the breakpoints of the last one.
    QObject::connect(&Project(), &CProject::Closed, [] {
      if (CDevice::InstanceIfCreated()) CBreakpointsDataModel::Instance().Forget();
    });
  }
  FilesModule::Install();
  ProjectModule::SetDeviceSettings(&DeviceModule::ProjectSettings());
  // The program files open through the session; the instruction analysis
  // follows the core plug-in and every program file opened or closed.
  DisasmModule::Install();
  {
    struct CAnalysedLoader : IProgramFileLoader {
      int OpenProgramFile(const QString& sFilePath, int ActionId) override {
        const int r = SessionModule::ProgramFileLoader().OpenProgramFile(sFilePath, ActionId);
        DisasmModule::Sync();
        return r;
      }
    };
    static CAnalysedLoader s_Loader;
    ProjectModule::SetProgramFileLoader(&s_Loader);
    QObject::connect(&Project(), &CProject::Closed, [] { DisasmModule::Sync(); });
  }
  static CProjectDialogs s_Dialogs;
  ProjectModule::SetDialogs(&s_Dialogs);
  // Closing the main window: a modified project may be saved first (a cancel
  // keeps the window open); step 6 of the shut-down closes the project,
  // which writes the user file.
  ShellHooks::AddCloseQuery([] { return ProjectModule::QueryClose(); });
  // Modified documents are saved or given up by the user; a cancel keeps
  // the window open.
  ShellHooks::AddCloseQuery([] {
    CSourceWindow* w = CSourceWindow::Instance();
    return !w || w->NotifyUserCloseAll();
  });
  SourceCommands::Install();
  ShellHooks::AddShutDownStep(6, [] { Project().Close(); });
  // Step 9 lets go of the core plug-in that a device without a project loaded.
  ShellHooks::AddShutDownStep(9, [] { UnloadCorePlugin(); });
  InstallShellWindows();
}

// The source viewer's documents in the user file, the project's life and
// the main window's actions.
void ConnectSourceWindow(CMainWindow* pMain) {
  CSourceWindow* w = CSourceWindow::Instance();
  if (!w) return;
  QObject::connect(w, &CSourceWindow::DocumentStateChanged, pMain, &CMainWindow::UpdateActions);
  // The windows made before the viewer: a frame chosen in the call stack
  // shows its line.
  for (CWindow* p : CWindow::AllWindows())
    if (p != w) QObject::connect(p, &CWindow::CallSiteSelected, w, &CSourceWindow::OnCallSiteSelected, Qt::UniqueConnection);
  QObject::connect(w, &CWindow::ContentChanged, pMain, &CMainWindow::UpdateActions);
  QObject::connect(&Project(), &CProject::Closed, w, [w] {
    if (w->NotifyUserCloseAll()) w->CloseAll();
  });
  // Instruction rows colour the core's register names.
  auto SetRegisterNames = [w] {
    CRegistersDataModel Regs;
    w->GetTextEditor()->SetRegisterNames(Regs.LoadCoreRegisters() == 0 ? Regs.RegisterNames() : QStringList());
  };
  SetRegisterNames();
  QObject::connect(&CorePluginSignals(), &CCorePluginSignals::PluginLoaded, w, SetRegisterNames);
  QObject::connect(&CorePluginSignals(), &CCorePluginSignals::PluginReconfigured, w, SetRegisterNames);
  static bool s_Registered = false;
  if (s_Registered) return;
  s_Registered = true;
  RegisterUserFileSection({QStringLiteral("OpenDocument"), 4,
                           [] {
                             QStringList Lines;
                             if (CSourceWindow* w = CSourceWindow::Instance()) Lines = w->WriteDocumentLines();
                             return Lines;
                           },
                           [](const QStringList& Lines) {
                             if (CSourceWindow* w = CSourceWindow::Instance()) w->ReadDocumentLines(Lines);
                           }});
}

// The main window and the project learn about each other.
void ConnectMainWindow(CMainWindow* pMain) {
  VScript::SetClosingTest([pMain] { return pMain->IsClosing(); });
  QObject::connect(&Project(), &CProject::TitleChanged, pMain, &CMainWindow::SetProjectTitle);
  QObject::connect(&Project(), &CProject::ModifiedChanged, pMain, &CMainWindow::OnProjectModifiedChanged);
  QObject::connect(&Project(), &CProject::Closed, pMain, &CMainWindow::UpdateActions);
  static CStatusProgress* s_pProgress = new CStatusProgress(pMain->StatusBar());
  VFile::SetFileProgress(s_pProgress);
  CStatusProgress::s_pInstance = s_pProgress;
  CElfApi::SetLoadProgressHook(&CStatusProgress::OnProgramLoad);
  RegisterLayoutSections(pMain);
  // The run controls follow the session: F5 starts a session when there is
  // none and continues the target in one, so only one of the two is enabled.
  if (CDebugSession* pSession = SessionModule::DebugSession()) {
    QObject::connect(pSession, &CDebugSession::RunControlsChanged, pMain, &CMainWindow::UpdateActions);
    QObject::connect(pSession, &CDebugSession::StatusChanged, pMain->StatusBar(), &CStatusBar::SetStatusMessage);
    QObject::connect(pSession, &CDebugSession::DataFileOpened, pMain, &CMainWindow::AddRecentProgram);
  }
  pMain->UpdateActions();
}

// True when the start went as asked (batch mode's exit status needs it).
bool OnWindowShown(CMainWindow* pMain) {
  const QString sProbe = InstallDir() + QStringLiteral("libVorden.so");
  LogInfo(QStringLiteral("Vorden software found at: ") + sProbe);
  const CMDLINE_OPTIONS& o = GetCmdLineOptions();
  const QStringList Recent = Settings::Value(QStringLiteral("AppData/RecentProjects")).toStringList();
  const QStringList Args = QCoreApplication::arguments();
  switch (ChooseStartPath(Args, o, Recent.isEmpty(), SysVars::GetValue(PREF_START_WITH_MOST_RECENT_PROJ) != 0,
                          CMessageBox::IsBatchMode())) {
    case START_OPEN_FILE: return ExecAction(AID_FILE_OPEN, Args[1]) >= 0 && !VScript::HasError();
    case START_CMDLINE_PROJECT: return ProjectModule::CreateFromCmdLine(o);
    case START_WIZARD:
      // The project wizard arrives with the project module; until its slot
      // is registered the start leaves the window empty.
      if (GetCommandSlot(AID_FILE_NEW_PROJECT_WIZARD)) ExecAction(AID_FILE_NEW_PROJECT_WIZARD);
      break;
    case START_RECENT:
      if (GetCommandSlot(AID_FILE_OPEN)) ExecAction(AID_FILE_OPEN, Recent.first());
      break;
    case START_WELCOME:
    case START_NOTHING: break;
  }
  (void)pMain;
  return true;
}

}  // namespace

int RunTavit(int argc, char** argv) {
  QStringList RawArgs;
  for (int i = 0; i < argc; ++i) RawArgs.append(QString::fromLocal8Bit(argv[i]));
  const CMDLINE_OPTIONS Early = ParseCmdLine(RawArgs);
  // Batch mode needs no screen: without a display the offscreen platform is used.
  if ((Early.IsBatch || Early.IsDap) && qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") &&
      qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
    qputenv("QT_QPA_PLATFORM", "offscreen");
  QStringList BatchLines;
  if (Early.IsBatch && !Early.BatchError.isEmpty()) {
    fprintf(stderr, "%s\n", qPrintable(Early.BatchError));
    return 2;
  }
  if (Early.IsBatch && !ReadBatchFile(Early.BatchFile, &BatchLines)) {
    fprintf(stderr, "cannot read batch file: %s\n", qPrintable(Early.BatchFile));
    return 2;
  }

  // 1. The application object.
  auto pApp = std::make_unique<QApplication>(argc, argv);
  QApplication::setOrganizationName(AppOrganisation());
  QApplication::setApplicationName(AppName());
  QApplication::setApplicationVersion(AppVersionText());
  // 2. Drag distance. The library path list is left as it is: on this
  // platform the toolkit finds its platform plug-ins through it, and no other
  // toolkit plug-in is loaded by the program.
  QApplication::setStartDragDistance(30);
  // 3. The user interface thread.
  SetUiThread();
  // 4. The diagnostic catalogue.
  DIAG_Init();
  // 5. The command line.
  GetCmdLineOptions() = ParseCmdLine();
  const CMDLINE_OPTIONS& o = GetCmdLineOptions();
  SetDebugMode(o.DebugMode);
  // 6. The application log.
  SetLogInterval(o.LogInterval);
  if (!o.LogFile.isEmpty()) SetLogFile(LOG_FILE_APP, o.LogFile.left(511));
  // 7. The default font; the font table derives its defaults from it.
  QFont Font = QApplication::font();
  Font.setPointSize(8);
  Font.setStyleName(QStringLiteral("Normal"));
  QApplication::setFont(Font);
  Fonts::ResetToDefaults();
  // 8. (The device data manager is created by the device module on first use.)
  // 9. The modules, then the main window.
  if (o.IsBatch || o.IsDap) CMessageBox::SetBatchMode(true);
  InstallModules();
  auto* pMain = new CMainWindow;
  ConnectMainWindow(pMain);
  // The source viewer stands in the middle; without a screen it is there
  // too, so that commands and steps work on the same documents.
  pMain->setCentralWidget(new CSourceWindow(pMain));
  ConnectSourceWindow(pMain);
  auto pStartOk = std::make_shared<bool>(true);
  pMain->SetWindowShownHandler([pMain, pStartOk] {
    *pStartOk = OnWindowShown(pMain);
    pMain->UpdateActions();
    if (StartedHook()) QTimer::singleShot(0, pMain, [pMain] { StartedHook()(pMain); });
  });
  // 10. The debug console is the terminal the process was started from.
  if (o.DebugMode) setvbuf(stdout, nullptr, _IONBF, 0);
  // 11. The log sink takes the toolkit's messages.
  InstallLogMessageHandler();
  int Exit = 0;
  std::unique_ptr<CBatchRunner> pBatch;
  std::unique_ptr<CDapServer> pDap;
  if (o.IsBatch) {
    pBatch = std::make_unique<CBatchRunner>(pMain, BatchLines, o.BatchTimeLimitS, pStartOk);
    pBatch->Start();
  } else if (o.IsDap) {
    // The debug adapter: no window; the client's requests run the commands.
    pMain->ConsoleWindow()->SetDrawingEnabled(false);
    pDap = std::make_unique<CDapServer>();
    QObject::connect(pDap.get(), &CDapServer::Finished, pMain, [pMain] {
      if (!pMain->IsClosing()) pMain->close();
      QTimer::singleShot(0, [] { QCoreApplication::quit(); });
    });
    const bool Listening = o.DapPort == 0 ? pDap->StartStdio() : o.DapPort > 0 && pDap->StartTcp(o.DapPort);
    if (!Listening) {
      fprintf(stderr, o.DapPort < 0 ? "dap: -dapport needs a port number from 1 to 65535\n"
                                    : "dap: cannot listen on the port (in use?)\n");
      Exit = 2;
    } else {
      QTimer::singleShot(0, pMain, [pMain] { pMain->RunWindowShown(); });
    }
  } else {
    // 12. Show.
    pMain->show();
  }
  // 13. The event loop.
  if (Exit == 0) Exit = QApplication::exec();
  // 14. After the loop: the main window goes, the settings are written once.
  delete pMain;
  Settings::Save();
  if (pBatch) {
    pBatch->Finish();
    Exit = pBatch->ExitStatus();
  }
  LogFlush();
  CloseLogFiles();
  pDap.reset();
  pBatch.reset();
  pApp.reset();
  return Exit;
}
