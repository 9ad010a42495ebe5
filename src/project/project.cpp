#include "project/project.h"

#include "app/cmdline.h"
#include "device/projectsettings.h"
#include "commands/actions.h"
#include "common/hash.h"
#include "log/diag.h"
#include "log/log.h"
#include "log/messagebox.h"
#include "project/projecttext.h"
#include "project/settingsdialog.h"
#include "project/vscript.h"
#include "settings/edit.h"
#include "settings/store.h"
#include "settings/sysvars.h"
#include "settings/textvalue.h"
#include "ui/shell/mainwindow.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QTimer>
#include <QWidget>

int (*g_pfnOpenProgramFile)(const QString& sFilePath, int ActionId) = nullptr;

namespace {

QList<USER_FILE_SECTION>& Sections() {
  static QList<USER_FILE_SECTION> l;
  return l;
}

CMainWindow* MainWindow() {
  for (QWidget* w : QApplication::topLevelWidgets())
    if (auto* m = qobject_cast<CMainWindow*>(w)) return m;
  return nullptr;
}

bool Batch() { return CMessageBox::IsBatchMode(); }

// A warning for the console and the log file.
void ConsoleWarning(const QString& s) { LogMessage(s, MSG_WARNING | MSG_CONSOLE | MSG_FILE | MSG_OWN); }

QString ProjectSaveError(const QString& sReason) {
  return QStringLiteral("Project settings could not be saved: ") + sReason;
}

void TellNotSaved(const QString& sReason) {
  LogError(ProjectSaveError(sReason));
  TellProjectNotSaved(sReason);
}

// Number argument: a constant name, or an integer in any base.
bool ArgNumber(const QString& s, I64* pValue) {
  if (FindConstant(s, pValue) || VScript::FindDefinedConstant(s.trimmed(), pValue)) return true;
  return SettingsText::ParseInt(s, *pValue);
}

// A path as the project sees it: "$(ProjectDir)" and "$(InstallDir)"
// expanded, relative paths taken from the project directory.
QString ResolvePath(const QString& sPath) {
  QString s = sPath;
  s.replace(QLatin1String("$(ProjectDir)"), VScript::ScriptDir(), Qt::CaseInsensitive);
  s.replace(QLatin1String("$(InstallDir)"), InstallDir(), Qt::CaseInsensitive);
  s.replace(QLatin1Char('\\'), QLatin1Char('/'));
  if (QFileInfo(s).isRelative() && !VScript::ScriptDir().isEmpty()) {
    const QString p = QDir(VScript::ScriptDir()).filePath(s);
    if (QFileInfo::exists(p) || !QFileInfo::exists(s)) s = p;
  }
  return QDir::cleanPath(s);
}

void AddRecentProject(const QString& sPath) {
  const QString sKey = QStringLiteral("AppData/RecentProjects");
  QStringList l = Settings::Value(sKey).toStringList();
  const QString a = QFileInfo(sPath).absoluteFilePath();
  l.removeAll(a);
  l.prepend(a);
  while (l.size() > 10) l.removeLast();
  Settings::SetValue(sKey, l);
}

void UpdateTitle() {
  CMainWindow* m = MainWindow();
  if (!m) return;
  const QString sPath = VScript::ScriptFilePath();
  m->setWindowTitle(QApplication::applicationName() + QLatin1Char(' ') + QApplication::applicationVersion() +
                    QStringLiteral(" - ") + (sPath.isEmpty() ? QStringLiteral("New Project") : sPath));
}

// Ends a command that failed: the error text (and detail) and result -1.
void FailAction(int Id, const QString& sError, const QString& sDetail = QString()) {
  SetActionError(Id, sError, sDetail);
  SetActionResult(Id, -1);
}

// Applies the result of a settings edit to the action.
void ApplyEdit(int Id, const SettingsEditResult& r) {
  if (!r.Ok()) {
    FailAction(Id, r.sError, r.sErrorText);
    return;
  }
  SetActionResult(Id, 0);
  if (r.bReplaceArgs) SetActionArgs(Id, r.EchoArgs);
  else if (r.bClearData) SetActionNoEcho(Id);
}

// Runs Edit.SysVar for a project command without a second echo.
bool SetVar(int Id, int VarId, const QString& sValue) {
  const SettingsEditResult r = EditSysVar({QString::fromLatin1(SysVars::Row(VarId)->Name), sValue, QStringLiteral("0")});
  if (!r.Ok()) {
    FailAction(Id, r.sError, r.sErrorText);
    return false;
  }
  SetActionResult(Id, 0);
  return true;
}

// A message of the diagnostic catalogue with its one text argument, without
// the catalogue's domain prefix.
QString DiagText(int Row, const QString& sArg) {
  const DIAG_ROW* r = DIAG_GetRow(Row);
  if (!r) return sArg;
  QString s = QString::fromLatin1(r->sMessage);
  s.replace(QLatin1String("%s"), sArg);
  return s;
}

// The records of a user file, one a line; empty lines are dropped.
QStringList ReadUserFileLines(const QString& sPath) {
  QStringList Lines;
  QFile f(sPath);
  if (!f.open(QIODevice::ReadOnly)) return Lines;
  for (const QString& l : QString::fromUtf8(f.readAll()).split(QLatin1Char('\n')))
    if (!l.trimmed().isEmpty()) Lines.append(l.endsWith(QLatin1Char('\r')) ? l.chopped(1) : l);
  return Lines;
}

bool IsProjectPath(const QString& sPath) { return sPath.endsWith(QLatin1String(".vdebug"), Qt::CaseInsensitive); }

bool g_Installed = false;
bool g_InOpenSlot = false;     // File.Open of a project is running
bool g_ProjectLoading = false;

}  // namespace

namespace {
QList<QPair<QString, std::function<QStringList()>>>& WarningSources() {
  static QList<QPair<QString, std::function<QStringList()>>> l;
  return l;
}
}  // namespace

void SetProjectWarningSource(const QString& sKey, const std::function<QStringList()>& Source) {
  auto& l = WarningSources();
  l.removeIf([&](const auto& p) { return p.first == sKey; });
  if (Source) l.append({sKey, Source});
}

void RegisterUserFileSection(const USER_FILE_SECTION& Section) {
  UnregisterUserFileSection(Section.Key);
  Sections().append(Section);
}

void UnregisterUserFileSection(const QString& sKey) {
  Sections().removeIf([&](const USER_FILE_SECTION& s) { return s.Key == sKey; });
}

// ---------------------------------------------------------------- CProject

CProject::CProject(QObject* pParent) : QObject(pParent) {
  m_pOpenTimer = new QTimer(this);
  m_pOpenTimer->setSingleShot(true);
  m_pOpenTimer->setInterval(10);
  connect(m_pOpenTimer, &QTimer::timeout, this, &CProject::OnOpenTimeout);
  connect(this, &CProject::AboutToClose, this, [this](const QString&) { WriteUserFile(); });
}

CProject& Project() {
  static CProject* p = new CProject;  // lives until the process ends
  return *p;
}

void CProject::SetModified(bool On) {
  m_IsModified = On;
  emit ModifiedChanged(On);
}

void CProject::SetProgramFile(const QString& sPath) {
  m_ProgramFilePath = sPath;
  m_ProgramFileTime = sPath.isEmpty() ? QDateTime() : QFileInfo(sPath).lastModified();
}

void CProject::Open(const QString& sPath) {
  VScript::SetClosing();
  emit AboutToOpen(sPath);
  m_PendingPath = sPath;
  m_pOpenTimer->start();
}

void CProject::WaitForOpen(int TimeoutMs) {
  QElapsedTimer t;
  t.start();
  while (!m_PendingPath.isEmpty() && t.elapsed() < TimeoutMs) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    if (!m_PendingPath.isEmpty() && !m_pOpenTimer->isActive()) break;  // lapsed
  }
}

void CProject::OnOpenTimeout() {
  if (m_PendingPath.isEmpty()) return;
  if (VScript::CurrentEvent() != -1 || VScript::CallLevel() != 0) {
    // A script is still running: the request lapses.
    m_PendingPath.clear();
    return;
  }
  m_pOpenTimer->stop();
  const QString sPath = m_PendingPath;
  Close();
  VScript::Load(sPath);
  m_IsOpen = QFileInfo(sPath).isFile();
  if (!m_IsOpen) LogError(QStringLiteral("file not found"));
  SetModified(false);
  m_PendingPath.clear();
  emit Opened(sPath);
}

void CProject::Close() {
  m_ShownWarnings.clear();
  const QString sPath = VScript::ScriptFilePath();
  if (!sPath.isEmpty()) emit AboutToClose(sPath);
  VScript::SetClosing();
  VScript::SetScriptFilePath(QString());
  m_Warnings.clear();
  SetProgramFile(QString());
  m_SettingsFile.clear();
  m_SvdFiles.clear();
  m_Dev = PROJECT_DEVICE_SETTINGS();
  m_UserLines.clear();
  m_UserPath.clear();
  SetModified(false);
  m_IsOpen = false;
  if (!sPath.isEmpty()) emit Closed(sPath);
}

QStringList CProject::CurrentStateCommands() const {
  QStringList c;
  auto Add = [&c](int Id, const QStringList& Args) {
    if (Args.isEmpty() || Args.first().isEmpty()) return;
    c.append(RenderCommand(Id, Args));
  };
  Add(AID_PROJECT_SET_DEVICE, {m_Dev.Device});
  Add(AID_PROJECT_SET_HOST_IF, {m_Dev.HostIF, m_Dev.HostID});
  Add(AID_PROJECT_SET_TARGET_IF, {m_Dev.TargetIF});
  if (m_Dev.HasTIFSpeed)
    Add(AID_PROJECT_SET_TIF_SPEED, {SettingsText::FrequencyToText(U64(SysVars::GetValue(VAR_TIF_SPEED)))});
  for (QString s : m_SvdFiles) {
    if (s.startsWith(InstallDir())) s = QStringLiteral("$(InstallDir)/") + s.mid(InstallDir().size());
    Add(AID_PROJECT_ADD_SVD_FILE, {s});
  }
  if (!m_ProgramFilePath.isEmpty()) {
    QString s = m_ProgramFilePath;
    const QString d = VScript::ScriptDir();
    if (!d.isEmpty() && s.startsWith(d + QLatin1Char('/'))) s = QStringLiteral("$(ProjectDir)") + s.mid(d.size());
    Add(AID_FILE_OPEN, {s});
    if (!d.isEmpty()) {
      Add(AID_PROJECT_ADD_PATH_SUBSTITUTE, {d, QStringLiteral("$(ProjectDir)")});
      Add(AID_PROJECT_ADD_PATH_SUBSTITUTE, {d.toLower(), QStringLiteral("$(ProjectDir)")});
    }
  }
  return c;
}

bool CProject::SaveAs(const QString& sPath) {
  VScript::SetScriptFilePath(sPath);
  if (m_FromCmdLine && IsProjectPath(sPath) && QFileInfo(sPath).isFile()) {
    const QStringList Cmds = BuildCmdLineCommands(GetCmdLineOptions());
    QStringList Names;
    for (const QString& c : Cmds) Names.append(ProjectText::RemovePatternFor(c));
    if (WriteSettings(sPath, true, Cmds, Names) < 0) return false;
  } else {
    const QString sText = ProjectText::BuildProjectText(CurrentStateCommands());
    if (!VScript::IsLoaded()) {
      VScript::LoadText(sText);
    }
    QString sReason;
    const QByteArray Data = sText.toUtf8();
    if (!ProjectText::AtomicWriteFile(sPath, Data, &sReason)) {
      TellNotSaved(sReason);
      return false;
    }
    VScript::SetScriptHash(TextHash(std::string_view(Data.constData(), size_t(Data.size()))));
  }
  SetModified(false);
  return true;
}

int CProject::WriteSettings(const QString& sPathIn, bool Replace, const QStringList& Commands,
                            const QStringList& NamesToRemove) {
  QString sPath = sPathIn;
  if (sPath.isEmpty() || !QFileInfo(sPath).isFile()) {
    if (!Batch()) {
      const QString sDir = VScript::ScriptDir().isEmpty() ? QDir::homePath() : VScript::ScriptDir();
      const QString s = QFileDialog::getSaveFileName(nullptr, QStringLiteral("Save Project as..."), sDir,
                                                     QStringLiteral("Project files (*.vdebug)"));
      if (!s.isEmpty() && SaveAs(s)) sPath = s;
    }
    if (sPath.isEmpty() || !QFileInfo(sPath).isFile()) {
      LogError(QStringLiteral("project file path not specified"));
      return -1;
    }
  }
  QFile f(sPath);
  QString sText;
  if (f.open(QIODevice::ReadOnly)) sText = QString::fromUtf8(f.readAll());
  f.close();
  if (sText.isEmpty()) {
    LogError(QStringLiteral("file contents could not be read"));
    return -1;
  }
  qsizetype a = 0, b = 0;
  if (!ProjectText::FindFunctionBody(sText, QStringLiteral("OnProjectLoad"), &a, &b))
    ConsoleWarning(QStringLiteral("Could not determine text bounds of script function OnProjectLoad"));
  const ProjectText::WRITE_SETTINGS_RESULT R = ProjectText::WriteSettingsText(sText, Replace, Commands, NamesToRemove);
  if (!R.Ok) {
    const QString sReason =
        QStringLiteral("could not determine text insertion position.\nVerify that script function 'OnProjectLoad' is present.");
    LogError(QStringLiteral("Error writing project settings :") + sReason);
    TellProjectNotSaved(sReason);
    return -1;
  }
  for (const QString& w : R.Warnings) ConsoleWarning(w);
  if (R.sText == sText) return 0;
  QString sReason;
  const QByteArray Data = R.sText.toUtf8();
  if (!ProjectText::AtomicWriteFile(sPath, Data, &sReason)) {
    TellNotSaved(sReason);
    return -1;
  }
  if (QFileInfo(sPath).absoluteFilePath() == QFileInfo(VScript::ScriptFilePath()).absoluteFilePath())
    VScript::SetScriptHash(TextHash(std::string_view(Data.constData(), size_t(Data.size()))));
  return 1;
}

QStringList CProject::GetWarnings() const {
  QStringList l = m_Warnings;
  if (VScript::HasError()) l.append(DiagText(73, VScript::GetLastError()));
  for (const QString& s : m_SvdFiles)
    if (!QFileInfo::exists(s)) l.append(DiagText(69, s));
  if (!m_SettingsFile.isEmpty() && !QFileInfo::exists(m_SettingsFile)) l.append(DiagText(69, m_SettingsFile));
  for (const auto& src : WarningSources()) l += src.second();
  for (const QString& d : ProjectText::FindDuplicateCommands(VScript::ScriptText()))
    l.append(DiagText(74, d));
  return l;
}

int CProject::CheckWarnings(bool AllowDialogs) {
  const QStringList l = GetWarnings();
  if (l.isEmpty()) return 0;
  int Result = 1;
  if (AllowDialogs && !Batch() && SysVars::GetValue(PREF_SHOW_PROJECT_WARNINGS_DIALOG) != 0)
    Result = ShowProjectWarningsDialog(l, VScript::ScriptFilePath());
  for (const QString& s : l) {
    const U32 h = TextHash(s.toLower().toStdString());
    if (m_ShownWarnings.contains(h)) continue;
    m_ShownWarnings.insert(h);
    ConsoleWarning(s);
  }
  return Result;
}

bool CProject::WriteUserFile() {
  const QString sProject = VScript::ScriptFilePath();
  if (sProject.isEmpty()) return false;
  const U64 Flags = U64(SysVars::GetValue(PREF_SESSION_SAVE_FLAGS)) & 0xFFFFFFFFu;
  if (Flags == 0xFFFFFFFFu) return false;
  const QString sPath = ProjectText::UserFilePath(sProject);
  if (m_UserPath != sPath) {
    // Never read in this session (the script did not load, or the project
    // was saved under a new name): its records are still the user's.
    m_UserPath = sPath;
    m_UserLines = ReadUserFileLines(sPath);
  }
  QStringList Lines;
  QSet<QString> Owned;
  for (const USER_FILE_SECTION& s : Sections()) {
    Owned.insert(s.Key);
    if ((s.DisableFlag & Flags) || !s.Write) continue;
    Lines += s.Write();
  }
  // Records nobody owns stay as they were read from this project's file.
  if (m_UserPath == sPath) {
    for (const QString& l : m_UserLines)
      if (!Owned.contains(ProjectText::UserFileKey(l))) Lines.append(l);
  }
  if (Lines.isEmpty() && !QFileInfo::exists(sPath)) return true;
  const QByteArray Data = ProjectText::SortUserFileLines(Lines).join(QLatin1Char('\n')).toUtf8();
  QString sReason;
  if (!ProjectText::AtomicWriteFile(sPath, Data, &sReason)) {
    TellNotSaved(sReason);
    return false;
  }
  return true;
}

void CProject::LoadUserFile() {
  const QString sProject = VScript::ScriptFilePath();
  if (sProject.isEmpty()) return;
  const QString sPath = ProjectText::UserFilePath(sProject);
  m_UserPath = sPath;
  m_UserLines = ReadUserFileLines(sPath);
  if (m_UserLines.isEmpty()) return;
  for (const QString& l : m_UserLines) {
    QStringList Bad;
    ProjectText::ParseUserFileRecord(l, &Bad);
    for (const QString& b : Bad) ConsoleWarning(QStringLiteral("Syntax error in user preference file (.vdebug.user): ") + b);
  }
  for (const USER_FILE_SECTION& s : Sections()) {
    if (!s.Read) continue;
    QStringList Mine;
    for (const QString& l : m_UserLines)
      if (ProjectText::UserFileKey(l) == s.Key) Mine.append(l);
    s.Read(Mine);
  }
}

// ---------------------------------------------------------------- flows

namespace {

void OnProjectFileOpened(const QString& sPath) {
  CProject& P = Project();
  // a. Recent list and title.
  AddRecentProject(sPath);
  UpdateTitle();
  // b. A script that did not load.
  if (VScript::HasError()) {
    const QString e = DiagText(73, VScript::GetLastError());
    if (g_InOpenSlot) SetActionError(AID_FILE_OPEN, e);
    else LogError(e);
    return;
  }
  // The probe settings file beside the project ("p.vorden" for "p.vdebug").
  QString sSettings = sPath;
  sSettings.replace(sSettings.lastIndexOf(QLatin1String("vdebug")), 6, QStringLiteral("vorden"));
  if (QFileInfo(sSettings).isFile()) P.SetSettingsFile(sSettings);
  // c. Variables that belong to a project.
  SysVars::ResetRow(VAR_BREAK_AT_THIS_SYMBOL);
  SysVars::ResetRow(VAR_TRACE_SOURCE);
  const QString sText = VScript::ScriptText();
  if (sText.contains(QLatin1String("Project.SetTraceTiming"))) SysVars::SetValue(VAR_TRACE_OVERRIDE_TIMINGS, 1);
  if (sText.contains(QLatin1String("Project.SetTraceFile"))) SysVars::SetValue(VAR_TRACE_FILE_ENABLED, 1);
  // d. OnProjectLoad.
  g_ProjectLoading = true;
  VScript::RunFunctionLogged(QStringLiteral("OnProjectLoad"), EVENT_ON_PROJECT_LOAD);
  g_ProjectLoading = false;
  // e. Warnings.
  if (P.CheckWarnings(true) < 0) {
    ProjectModule::NewProject();
    return;
  }
  // g. The user file.
  P.LoadUserFile();
}

// ---------------------------------------------------------------- slots

void OnFileOpen(int Id) {
  if (!CheckArgCount(Id, 0)) return;
  QStringList Args = GetActionArgs(Id);
  QString sPath = Args.value(0);
  if (Args.isEmpty()) {
    if (Batch()) {
      SetActionError(Id, QStringLiteral("wrong parameter count"));
      return;
    }
    sPath = QFileDialog::getOpenFileName(nullptr, QStringLiteral("Open File"), VScript::ScriptDir());
    if (sPath.isEmpty()) {
      SetActionNoEcho(Id);
      SetActionResult(Id, 2);
      return;
    }
    SetActionArgs(Id, {sPath});
  }
  if (IsProjectPath(sPath)) {
    if (!QFileInfo(sPath).isFile()) {
      FailAction(Id, QStringLiteral("file not found"));
      return;
    }
    // A project the user opens is no longer the one of the command line.
    Project().SetFromCmdLine(false);
    SetActionResult(Id, ProjectModule::OpenProject(sPath, Id) ? 0 : -1);
    return;
  }
  if (g_pfnOpenProgramFile) {
    SetActionResult(Id, g_pfnOpenProgramFile(ResolvePath(sPath), Id));
    return;
  }
  FailAction(Id, QFileInfo::exists(ResolvePath(sPath)) ? QStringLiteral("not implemented yet") : QStringLiteral("file not found"));
}

void OnFileNewProject(int Id) {
  if (!CheckArgCount(Id)) return;
  if (Project().IsModified()) {
    const int r = AskSaveProjectChanges();
    if (r == CMessageBox::RESULT_CANCEL) return;
    if (r == CMessageBox::RESULT_YES && !VScript::ScriptFilePath().isEmpty()) Project().SaveAs(VScript::ScriptFilePath());
  }
  ProjectModule::NewProject();
  SetActionResult(Id, 0);
}

void OnFileNewProjectWizard(int Id) {
  if (!CheckArgCount(Id)) return;
  if (Batch()) {
    // No dialog opens in batch mode.
    SetActionResult(Id, 2);
    return;
  }
  QString sPath;
  const QStringList Cmds = RunProjectWizard(&sPath);
  if (Cmds.isEmpty()) {
    SetActionResult(Id, 2);
    return;
  }
  ProjectModule::CreateProject(sPath, Cmds, true);
  if (!sPath.isEmpty() && Project().SaveAs(sPath)) {
    AddRecentProject(sPath);
    LogInfo(QStringLiteral("Project settings were written to the project file"));
  }
  UpdateTitle();
  SetActionResult(Id, 1);
}

void OnFileSaveProjectAs(int Id) {
  if (!CheckArgCount(Id, 0)) return;
  QString sPath = GetActionArgs(Id).value(0).trimmed();
  if (sPath.isEmpty()) {
    if (!Batch()) {
      const QString sDir = VScript::ScriptDir().isEmpty() ? QDir::homePath() : VScript::ScriptDir();
      sPath = QFileDialog::getSaveFileName(nullptr, QStringLiteral("Save Project as..."), sDir,
                                           QStringLiteral("Project files (*.vdebug)"));
    }
    if (sPath.isEmpty()) {
      SetActionNoEcho(Id);
      SetActionResult(Id, 2);
      return;
    }
    SetActionArgs(Id, {sPath});
  }
  if (QFileInfo(sPath).suffix().isEmpty()) sPath += QStringLiteral(".vdebug");
  if (!IsProjectPath(sPath)) {
    FailAction(Id, QStringLiteral("invalid project filename"));
    return;
  }
  sPath = QFileInfo(sPath).absoluteFilePath();
  // The file must be writable, or creatable.
  QFile f(sPath);
  const bool Existed = f.exists();
  if (!f.open(QIODevice::ReadWrite)) {
    FailAction(Id, QStringLiteral("invalid filename"));
    return;
  }
  f.close();
  if (!Existed) f.remove();
  if (!Project().SaveAs(sPath)) {
    FailAction(Id, ProjectSaveError(QStringLiteral("write failed")));
    return;
  }
  AddRecentProject(sPath);
  UpdateTitle();
  SetActionResult(Id, 1);
}

void OnScriptExec(int Id) {
  const QStringList Args = GetActionArgs(Id);
  QString sStatement = GetCommandText(Id);
  ConsolePrintLine(sStatement, 0, false, CommandColorId());
  sStatement.remove(QLatin1Char(';'));
  const QString sSyntax = QStringLiteral("\"Script.Exec(<funcname> [,<para1>, <para2>,...])\"");
  auto Done = [Id] { SetActionNoEcho(Id); };
  if (Args.isEmpty() || Args.first().trimmed().isEmpty()) {
    LogError(QStringLiteral("Script.Exec: no function name given"));
    SetActionResult(Id, -1);
    Done();
    return;
  }
  const QString sFunc = Args.first().trimmed();
  I64 Argv[VScript::kMaxArgs] = {};
  int Argc = 0;
  for (int i = 1; i < Args.size() && Argc < VScript::kMaxArgs; ++i) {
    bool ok = false;
    Argv[Argc++] = Args[i].trimmed().toLongLong(&ok, 10);
  }
  if (VScript::IsMainWindowClosing()) {
    ConsoleWarning(QStringLiteral("Not executing script function: ") + sFunc + QStringLiteral(". Project is about to close"));
    Done();
    return;
  }
  const QString sExec = QStringLiteral("Executing script function: ") + sFunc;
  ConsolePrintLine(sExec, 0, false, ScriptColorId());
  LogScript(sExec);
  I64 Result = 0;
  const int Rc = VScript::ExecScriptFunction(sFunc, -1, Argc, Argc ? Argv : nullptr, &Result);
  if (Rc == VScript::EXEC_OK) {
    SetActionResult(Id, Result);
    const QString s = QStringLiteral("Script function ") + sFunc + QStringLiteral(" executed");
    ConsolePrintLine(s, 0, false, ScriptColorId());
    LogScript(s);
  } else if (Rc == VScript::EXEC_UNKNOWN_FUNCTION) {
    LogError(sStatement + QStringLiteral(" first parameter not a function name or function unknown. Compare with valid command syntax: ") + sSyntax);
    SetActionResult(Id, -1);
  } else if (Rc < 0) {
    LogError(sStatement + QStringLiteral(": ") + VScript::GetLastError() + QStringLiteral(". Check for valid command syntax: ") + sSyntax);
    SetActionResult(Id, -1);
  }
  // The function may have asked for a project to open; with no script left
  // on the stack that happens now.
  if (VScript::CallLevel() == 0 && !Project().PendingPath().isEmpty()) Project().WaitForOpen();
  Done();
}

void OnScriptDefineConst(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  const QString sName = Args[0].trimmed();
  // Until the expression evaluator is wired in, the expression is a number
  // or the name of a known constant.
  I64 v = 0;
  if (!ArgNumber(Args[1].trimmed(), &v)) {
    FailAction(Id, QStringLiteral("invalid parameter"), Args[1]);
    return;
  }
  if (!VScript::DefineConstant(sName, v)) {
    FailAction(Id, QStringLiteral("invalid parameter"), sName);
    return;
  }
  SetActionResult(Id, 0);
}

void OnToolsSettings(int Id, bool SysVarsOnly) {
  if (!CheckArgCount(Id)) return;
  if (Batch()) {
    SetActionResult(Id, 2);
    return;
  }
  const bool Accepted = RunSettingsDialog(SysVarsOnly);
  SetActionResult(Id, Accepted ? 1 : 2);
}

// ---- project commands

void OnSetDevice(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = GetActionArgs(Id).at(0).trimmed();
  if (s.isEmpty()) {
    SetActionError(Id, QStringLiteral("invalid parameter"));
    return;
  }
  Project().DeviceSettings().Device = s;
  if (g_pDeviceProjectSettings) g_pDeviceProjectSettings->SetDevice(s);
  SetActionResult(Id, 0);
}

void OnSetHostIF(int Id) {
  if (!CheckArgCount(Id, 1)) return;
  const QStringList Args = GetActionArgs(Id);
  const QString sIF = Args[0].trimmed();
  const QString sIdent = Args.value(1).trimmed();
  I64 v = 0;
  QString sName;
  if (sIF.compare(QLatin1String("USB"), Qt::CaseInsensitive) == 0) sName = QStringLiteral("USB");
  else if (sIF.compare(QLatin1String("IP"), Qt::CaseInsensitive) == 0) sName = QStringLiteral("IP");
  else if (SettingsText::ParseInt(sIF, v) && (v == 1 || v == 2)) sName = v == 1 ? QStringLiteral("USB") : QStringLiteral("IP");
  if (sName.isEmpty()) {
    FailAction(Id, QStringLiteral("unknown host interface"), sIF);
    return;
  }
  if (sName == QLatin1String("USB") && !sIdent.isEmpty()) {
    U64 n = 0;
    if (!SettingsText::ParseUInt(sIdent, n)) {
      FailAction(Id, QStringLiteral("invalid parameter"), QLatin1Char('"') + sIdent + QLatin1Char('"'));
      return;
    }
  }
  Project().DeviceSettings().HostIF = sName;
  Project().DeviceSettings().HostID = sIdent;
  if (g_pDeviceProjectSettings) g_pDeviceProjectSettings->SetHostIF(sName, sIdent);
  SetActionResult(Id, 0);
}

void OnSetTargetIF(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = GetActionArgs(Id).at(0).trimmed();
  static const char* const kNames[] = {"JTAG", "SWD", "FINE", "cJTAG"};
  for (const char* n : kNames) {
    if (s.compare(QLatin1String(n), Qt::CaseInsensitive) == 0) {
      Project().DeviceSettings().TargetIF = QLatin1String(n);
      if (g_pDeviceProjectSettings) g_pDeviceProjectSettings->SetTargetIF(QLatin1String(n));
      SetActionResult(Id, 0);
      return;
    }
  }
  FailAction(Id, QStringLiteral("unknown target interface"));
}

void OnSetTIFSpeed(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = GetActionArgs(Id).at(0).trimmed();
  I64 Hz = -1;
  U64 n = 0;
  if (SettingsText::ParseUInt(s, n)) {
    Hz = (n == 0 || n == 0xFFFF) ? I64(n) : I64(n) * 1000;  // a plain number counts as kHz
  } else if (s.compare(QLatin1String("auto"), Qt::CaseInsensitive) == 0) {
    Hz = 0;
  } else {
    Hz = SettingsText::FrequencyFromText(s);
  }
  if (Hz < 0) {
    FailAction(Id, QStringLiteral("invalid number"));
    return;
  }
  if (Hz != 0 && Hz != 0xFFFF) Hz = std::max<I64>(1000, (Hz + 500) / 1000 * 1000);
  SysVars::SetValue(VAR_TIF_SPEED, Hz);
  Project().DeviceSettings().HasTIFSpeed = true;
  if (g_pDeviceProjectSettings) g_pDeviceProjectSettings->SetSpeed(Hz);
  SetActionResult(Id, 0);
}

void OnSetJTAGConfig(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  I64 Pos = 0, Len = 0;
  if (!ArgNumber(Args[0], &Pos) || Pos < 0) {
    SetActionError(Id, QStringLiteral("invalid parameter"), Args[0]);
    return;
  }
  if (!ArgNumber(Args[1], &Len) || Len < 0) {
    SetActionError(Id, QStringLiteral("invalid parameter"), Args[1]);
    return;
  }
  SysVars::SetValue(VAR_TIF_SCAN_CHAIN_POS, Pos);
  SysVars::SetValue(VAR_TIF_SCAN_CHAIN_LEN, Len);
  Project().DeviceSettings().HasScanChain = true;
  if (g_pDeviceProjectSettings) g_pDeviceProjectSettings->SetJTAGConfig(int(Pos), int(Len));
  SetActionResult(Id, 0);
}

void OnSetVordenScript(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = ResolvePath(GetActionArgs(Id).at(0).trimmed());
  if (!QFileInfo(s).isFile()) {
    FailAction(Id, QStringLiteral("file not found: ") + s);
    return;
  }
  Project().DeviceSettings().VordenScript = s;
  if (g_pDeviceProjectSettings) g_pDeviceProjectSettings->SetScriptFile(s);
  SetActionResult(Id, 0);
}

void OnSetVordenLogFile(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = ResolvePath(GetActionArgs(Id).at(0).trimmed());
  const QFileInfo fi(s);
  const QFileInfo dir(fi.absolutePath());
  if (s.isEmpty() || fi.isDir() || !dir.isDir() || !dir.isWritable() || (fi.exists() && !fi.isWritable())) {
    FailAction(Id, QStringLiteral("invalid filename: ") + s);
    return;
  }
  Project().DeviceSettings().VordenLogFile = s;
  if (g_pDeviceProjectSettings) g_pDeviceProjectSettings->SetLogFile(s);
  SetActionResult(Id, 0);
}

void OnAddSvdFile(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = ResolvePath(GetActionArgs(Id).at(0).trimmed());
  if (!QFileInfo(s).isFile()) {
    FailAction(Id, QStringLiteral("file not found"));
    return;
  }
  const QString sSuffix = QFileInfo(s).suffix().toLower();
  if (sSuffix != QLatin1String("svd") && sSuffix != QLatin1String("xml")) {
    FailAction(Id, QStringLiteral("invalid parameter"));
    return;
  }
  // Register windows learn about the file when they exist.
  // (The list is read by CurrentStateCommands and GetWarnings.)
  Project().AddSvdFile(s);
  SetActionResult(Id, 0);
}

void OnVarCommand(int Id, int VarId) {
  if (!CheckArgCount(Id)) return;
  SetVar(Id, VarId, GetActionArgs(Id).at(0));
}

void OnSetTraceTiming(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  for (int i = 0; i < 4; ++i)
    if (!SetVar(Id, VAR_TRACE_PORT_DELAY_0 + i, Args[i])) return;
  SysVars::SetValue(VAR_TRACE_OVERRIDE_TIMINGS, 1);
}

void OnSetTraceFile(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  if (Args[0].trimmed().isEmpty()) {
    SetActionError(Id, QStringLiteral("invalid filename"));
    return;
  }
  if (!SetVar(Id, VAR_TRACE_FILE_PATH, Args[0].trimmed()) || !SetVar(Id, VAR_TRACE_FILE_MAX_SIZE, Args[1]) ||
      !SetVar(Id, VAR_TRACE_FILE_KEEP_START, Args[2]))
    return;
  if (SysVars::GetValue(VAR_TRACE_FILE_ENABLED) != 0)
    SetActionError(Id, QStringLiteral("Trace file not yet supported. Support will be added soon."));
}

void OnConfigSWO(int Id, bool WithOnOff) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  const int o = WithOnOff ? 1 : 0;
  if (!SetVar(Id, VAR_SWO_SPEED, Args[o]) || !SetVar(Id, VAR_SWO_CPU_SPEED, Args[o + 1])) return;
  if (WithOnOff) {
    bool On = false;
    I64 v = 0;
    if (!SettingsText::ParseTruth(Args[0], On) && ArgNumber(Args[0], &v)) On = v != 0;
    SetVar(Id, VAR_TRACE_SOURCE, On ? QStringLiteral("3") : QStringLiteral("0"));
  }
}

void OnDisableSessionSave(int Id) {
  if (!CheckArgCount(Id)) return;
  // Flags are a number or one of the DISABLE_SAVE_* names.
  QString sFlags = GetActionArgs(Id).at(0).trimmed();
  I64 v = 0;
  if (ArgNumber(sFlags, &v)) sFlags = QString::number(U64(v) & 0xFFFFFFFFu);
  const SettingsEditResult r =
      EditPreference({QStringLiteral("PREF_SESSION_SAVE_FLAGS"), sFlags, QStringLiteral("0"), QStringLiteral("0")});
  if (!r.Ok()) {
    FailAction(Id, r.sError, r.sErrorText);
    return;
  }
  SetActionResult(Id, 0);
}

void RegisterSlots() {
  SetCommandSlot(AID_FILE_OPEN, OnFileOpen);
  SetCommandSlot(AID_FILE_NEW_PROJECT, OnFileNewProject);
  SetCommandSlot(AID_FILE_NEW_PROJECT_WIZARD, OnFileNewProjectWizard);
  SetCommandSlot(AID_FILE_SAVE_PROJECT_AS, OnFileSaveProjectAs);
  SetCommandSlot(AID_SCRIPT_EXEC, OnScriptExec);
  SetCommandSlot(AID_SCRIPT_DEFINE_CONST, OnScriptDefineConst);
  SetCommandSlot(AID_EDIT_SYS_VAR, [](int Id) { ApplyEdit(Id, EditSysVar(GetActionArgs(Id))); });
  SetCommandSlot(AID_EDIT_PREFERENCE, [](int Id) { ApplyEdit(Id, EditPreference(GetActionArgs(Id))); });
  SetCommandSlot(AID_EDIT_COLOR, [](int Id) { ApplyEdit(Id, EditColor(GetActionArgs(Id))); });
  SetCommandSlot(AID_EDIT_FONT, [](int Id) { ApplyEdit(Id, EditFont(GetActionArgs(Id))); });
  SetCommandSlot(AID_TOOLS_PREFERENCES, [](int Id) { OnToolsSettings(Id, false); });
  SetCommandSlot(AID_TOOLS_SYS_VARS, [](int Id) { OnToolsSettings(Id, true); });
  SetCommandSlot(AID_PROJECT_SET_DEVICE, OnSetDevice);
  SetCommandSlot(AID_PROJECT_SET_HOST_IF, OnSetHostIF);
  SetCommandSlot(AID_PROJECT_SET_TARGET_IF, OnSetTargetIF);
  SetCommandSlot(AID_PROJECT_SET_TIF_SPEED, OnSetTIFSpeed);
  SetCommandSlot(AID_PROJECT_SET_JTAG_CONFIG, OnSetJTAGConfig);
  SetCommandSlot(AID_PROJECT_SET_VORDEN_SCRIPT, OnSetVordenScript);
  SetCommandSlot(AID_PROJECT_SET_VORDEN_LOG_FILE, OnSetVordenLogFile);
  SetCommandSlot(AID_PROJECT_ADD_SVD_FILE, OnAddSvdFile);
  SetCommandSlot(AID_PROJECT_SET_BP_TYPE, [](int Id) { OnVarCommand(Id, VAR_BREAKPOINT_TYPE); });
  SetCommandSlot(AID_PROJECT_SET_SEMIHOSTING, [](int Id) { OnVarCommand(Id, VAR_SEMIHOSTING_ENABLED); });
  SetCommandSlot(AID_PROJECT_SET_LVT, [](int Id) { OnVarCommand(Id, VAR_LVT_ENABLED); });
  SetCommandSlot(AID_PROJECT_SET_MEM_ZONE_RUNNING, [](int Id) { OnVarCommand(Id, VAR_MEM_ZONE_RUNNING); });
  SetCommandSlot(AID_PROJECT_SET_TRACE_SOURCE, [](int Id) { OnVarCommand(Id, VAR_TRACE_SOURCE); });
  SetCommandSlot(AID_PROJECT_SET_TRACE_PORT_WIDTH, [](int Id) { OnVarCommand(Id, VAR_TRACE_PORT_WIDTH); });
  SetCommandSlot(AID_PROJECT_SET_TRACE_TIMING, OnSetTraceTiming);
  SetCommandSlot(AID_PROJECT_SET_TRACE_FILE, OnSetTraceFile);
  SetCommandSlot(AID_PROJECT_CONFIG_SWO, [](int Id) { OnConfigSWO(Id, false); });
  SetCommandSlot(AID_PROJECT_SET_SWO, [](int Id) { OnConfigSWO(Id, true); });
  SetCommandSlot(AID_PROJECT_DISABLE_SESSION_SAVE, OnDisableSessionSave);
}

}  // namespace

// ---------------------------------------------------------------- module

namespace ProjectModule {

bool IsInstalled() { return g_Installed; }

void Install() {
  if (g_Installed) return;
  g_Installed = true;
  RegisterSlots();
  VScript::SetClosingTest([] {
    CMainWindow* m = MainWindow();
    return m && m->IsClosing();
  });
  SysVars::SetConstantLookup([](const QString& sName, I64& Value) {
    return FindConstant(sName, &Value) || VScript::FindDefinedConstant(sName, &Value);
  });
  PROJECT_SEAM& Seam = GetProjectSeam();
  Seam.OpenExisting = [](const QString& sPath, const QStringList& Cmds) { return OpenExistingFromCmdLine(sPath, Cmds); };
  Seam.Create = [](const QString& sPath, const QStringList& Cmds, bool Allow) { return CreateProject(sPath, Cmds, Allow); };
  Seam.SetMadeFromCmdLine = [](bool On) { Project().SetFromCmdLine(On); };
  QObject::connect(&Project(), &CProject::Opened, &Project(), [](const QString& sPath) { OnProjectFileOpened(sPath); });
  // Closing the main window: a modified project may be saved first (a cancel
  // keeps the window open); then the project closes, writing the user file.
  // In batch mode nobody can answer, so the question is not asked there.
  ShellHooks::AddCloseQuery([] {
    if (!Project().IsModified() || CMessageBox::IsBatchMode()) return true;
    const int r = AskSaveProjectChanges();
    if (r == CMessageBox::RESULT_CANCEL) return false;
    if (r == CMessageBox::RESULT_YES && !VScript::ScriptFilePath().isEmpty()) return Project().SaveAs(VScript::ScriptFilePath());
    return true;
  });
  ShellHooks::AddShutDownStep(6, [] { Project().Close(); });
  g_pfnFindUserConstant = &VScript::FindDefinedConstant;
  // Programs without a main window still close the project on exit.
  QObject::connect(qApp, &QCoreApplication::aboutToQuit, &Project(), [] {
    if (!VScript::ScriptFilePath().isEmpty() || Project().IsOpen()) Project().Close();
  });
}

bool OpenProject(const QString& sPath, int ActionId) {
  if (!QFileInfo(sPath).isFile()) return false;
  CProject& P = Project();
  if (P.IsModified()) {
    const int r = AskSaveProjectChanges();
    if (r == CMessageBox::RESULT_CANCEL) return false;
    if (r == CMessageBox::RESULT_YES && !VScript::ScriptFilePath().isEmpty()) P.SaveAs(VScript::ScriptFilePath());
  }
  P.Close();
  P.Open(QFileInfo(sPath).absoluteFilePath());
  // Nothing of a script is on the stack: the open can complete before the
  // caller goes on (a script that asked for it is left to unwind first).
  if (VScript::CallLevel() == 0) {
    const bool Saved = g_InOpenSlot;
    g_InOpenSlot = ActionId == AID_FILE_OPEN;
    P.WaitForOpen();
    g_InOpenSlot = Saved;
  }
  return !VScript::HasError();
}

bool CreateProject(const QString& sPath, const QStringList& Commands, bool AllowDialogs) {
  CProject& P = Project();
  P.Close();
  VScript::SetScriptFilePath(sPath);
  SysVars::ResetRow(VAR_BREAK_AT_THIS_SYMBOL);
  SysVars::ResetRow(VAR_TRACE_SOURCE);
  const QString sText = ProjectText::BuildProjectText(Commands);
  if (VScript::LoadText(sText) < 0) {
    LogError(DiagText(73, VScript::GetLastError()));
  } else {
    VScript::RunFunctionLogged(QStringLiteral("OnProjectLoad"), EVENT_ON_PROJECT_LOAD);
  }
  // A new project is not saved yet.
  P.MarkNew();
  UpdateTitle();
  if (P.CheckWarnings(AllowDialogs) < 0) {
    NewProject();
    return false;
  }
  P.LoadUserFile();
  return true;
}

void NewProject() {
  Project().Close();
  UpdateTitle();
}

bool OpenExistingFromCmdLine(const QString& sPath, const QStringList& Commands) {
  Project().SetFromCmdLine(true);
  QStringList Names;
  for (const QString& c : Commands) Names.append(ProjectText::RemovePatternFor(c));
  if (Project().WriteSettings(sPath, true, Commands, Names) > 0)
    LogInfo(QStringLiteral("Project settings were written to the project file"));
  return OpenProject(sPath);
}

}  // namespace ProjectModule
