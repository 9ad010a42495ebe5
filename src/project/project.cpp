#include "project/project.h"

#include "cmdline/cmdline.h"
#include "commands/actions.h"
#include "common/hash.h"
#include "files/filefinder.h"
#include "log/diag.h"
#include "log/log.h"
#include "log/messagebox.h"
#include "plugins/corehost.h"
#include "project/projecttext.h"
#include "project/vscript.h"
#include "settings/store.h"
#include "settings/sysvars.h"
#include "settings/textvalue.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QStringDecoder>
#include <QTimer>

namespace {

QList<USER_FILE_SECTION>& Sections() {
  static QList<USER_FILE_SECTION> l;
  return l;
}

bool Batch() { return CMessageBox::IsBatchMode(); }

IProgramFileLoader* g_pProgramLoader = nullptr;
IDeviceProjectSettings* g_pDeviceSettings = nullptr;
IProjectDialogs* g_pDialogs = nullptr;

// A warning for the console and the log file.
void ConsoleWarning(const QString& s) { LogMessage(s, MSG_WARNING | MSG_CONSOLE | MSG_FILE | MSG_OWN); }

QString ProjectSaveError(const QString& sReason) {
  return QStringLiteral("Project settings could not be saved: ") + sReason;
}

void TellNotSaved(const QString& sReason) {
  LogError(ProjectSaveError(sReason));
  TellProjectNotSaved(sReason);
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

// The records of a user file, one a line; empty lines are dropped. A line
// that is not valid UTF-8 cannot be any module's record: it is dropped with
// a warning rather than carried on re-encoded (which would grow the file on
// every close).
QStringList ReadUserFileLines(const QString& sPath) {
  QStringList Lines;
  QFile f(sPath);
  if (!f.open(QIODevice::ReadOnly)) return Lines;
  int Dropped = 0;
  for (QByteArray l : f.readAll().split('\n')) {
    if (l.endsWith('\r')) l.chop(1);
    if (l.trimmed().isEmpty()) continue;
    QStringDecoder Decode(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    const QString s = Decode(l);
    if (Decode.hasError() || l.contains('\0')) {
      ++Dropped;
      continue;
    }
    Lines.append(s);
  }
  if (Dropped > 0)
    ConsoleWarning(QStringLiteral("User preference file (.vdebug.user) %1: %2 line(s) that are not valid UTF-8 text were dropped")
                       .arg(sPath)
                       .arg(Dropped));
  return Lines;
}

using ProjectModule::IsProjectPath;

bool g_Installed = false;
bool g_InOpenSlot = false;     // File.Open of a project is running
bool g_ProjectLoading = false;
QString g_LoadingPath;         // the project whose OnProjectLoad runs
// Projects whose OnProjectLoad led to the open that runs now (A opens B
// opens ...); a project in this chain may not be opened again by it.
QStringList g_LoadChain;
QStringList g_PendingChain;    // the chain of the open that waits

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
  FileFinder().SetProjectDirSource([] { return VScript::ScriptDir(); });
}

CProject& Project() {
  static CProject* p = new CProject;  // lives until the process ends
  return *p;
}

void CProject::AnnounceTitle() { emit TitleChanged(VScript::ScriptFilePath()); }

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
  g_LoadChain = g_PendingChain;
  g_PendingChain.clear();
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
  m_CorePluginPath.clear();
  UnloadCorePlugin();
  m_SvdFiles.clear();
  // Root paths, search paths, aliases and substitutes belong to the project.
  FileFinder().Reset();
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
    const QString d = VScript::ScriptDir();
    Add(AID_FILE_OPEN, {FileFinder().Collapse(m_ProgramFilePath, QStringLiteral("$(ProjectDir)"))});
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
    const QStringList Cmds = ProjectModule::CommandsFromCmdLine(GetCmdLineOptions());
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
    if (IProjectDialogs* d = ProjectModule::Dialogs()) {
      const QString sDir = VScript::ScriptDir().isEmpty() ? QDir::homePath() : VScript::ScriptDir();
      const QString s = d->AskSaveProjectFile(sDir);
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
  // A device with a core whose support plug-in could not be loaded.
  if (!m_Dev.Device.isEmpty() && ProjectModule::DeviceSettingsSink() && !IsCorePluginLoaded() &&
      CORE_CoreOfDevice(m_Dev.Device) != 0)
    l.append(DiagText(68, m_Dev.Device));
  for (const auto& src : WarningSources()) l += src.second();
  for (const QString& d : ProjectText::FindDuplicateCommands(VScript::ScriptText()))
    l.append(DiagText(74, d));
  return l;
}

int CProject::CheckWarnings(bool AllowDialogs) {
  const QStringList l = GetWarnings();
  if (l.isEmpty()) return 0;
  int Result = 1;
  IProjectDialogs* d = ProjectModule::Dialogs();
  if (AllowDialogs && d && SysVars::GetValue(PREF_SHOW_PROJECT_WARNINGS_DIALOG) != 0)
    Result = d->ShowProjectWarnings(l, VScript::ScriptFilePath());
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
  ProjectModule::AddRecentProject(sPath);
  P.AnnounceTitle();
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
  g_LoadingPath = sPath;
  VScript::RunFunctionLogged(QStringLiteral("OnProjectLoad"), EVENT_ON_PROJECT_LOAD);
  g_ProjectLoading = false;
  g_LoadingPath.clear();
  // e. Warnings.
  if (P.CheckWarnings(true) < 0) {
    ProjectModule::NewProject();
    return;
  }
  // g. The user file.
  P.LoadUserFile();
}

}  // namespace

// ---------------------------------------------------------------- module

namespace {

// The project side of the core plug-in host: the path a project names and
// the file dialog of a run that may show dialogs.
class CProjectCorePlugin : public ICorePluginProject {
 public:
  QString CorePluginPath() const override { return Project().CorePluginPath(); }
  void SetCorePluginPath(const QString& sPath) override { Project().SetCorePluginPath(sPath); }
  bool DialogsAllowed() const override { return ProjectModule::Dialogs() != nullptr; }
  QString AskCorePluginFile(const QString& sTitle, const QString& sText, const QString& sDir) override {
    IProjectDialogs* d = ProjectModule::Dialogs();
    return d ? d->AskFileWithText(sTitle, sText, sDir) : QString();
  }
};

}  // namespace

namespace ProjectModule {

bool IsInstalled() { return g_Installed; }

void Install() {
  if (g_Installed) return;
  g_Installed = true;
  static CProjectCorePlugin s_CorePlugin;
  CORE_SetProject(&s_CorePlugin);
  SysVars::SetConstantLookup([](const QString& sName, I64& Value) {
    return FindConstant(sName, &Value) || VScript::FindDefinedConstant(sName, &Value);
  });
  SetUserConstants(&VScript::UserConstants());
  QObject::connect(&Project(), &CProject::Opened, &Project(), [](const QString& sPath) { OnProjectFileOpened(sPath); });
  // Programs without a main window still close the project on exit.
  QObject::connect(qApp, &QCoreApplication::aboutToQuit, &Project(), [] {
    if (!VScript::ScriptFilePath().isEmpty() || Project().IsOpen()) Project().Close();
  });
}

void SetProgramFileLoader(IProgramFileLoader* pLoader) { g_pProgramLoader = pLoader; }
void SetDeviceSettings(IDeviceProjectSettings* pSettings) { g_pDeviceSettings = pSettings; }
IDeviceProjectSettings* DeviceSettingsSink() { return g_pDeviceSettings; }
IProgramFileLoader* ProgramFileLoader() { return g_pProgramLoader; }
void SetDialogs(IProjectDialogs* pDialogs) { g_pDialogs = pDialogs; }
IProjectDialogs* Dialogs() { return Batch() ? nullptr : g_pDialogs; }

bool QueryClose() {
  // A modified project may be saved first (a cancel keeps the window open).
  // In batch mode nobody can answer, so the question is not asked there.
  if (!Project().IsModified() || Batch()) return true;
  const int r = AskSaveProjectChanges();
  if (r == CMessageBox::RESULT_CANCEL) return false;
  if (r == CMessageBox::RESULT_YES && !VScript::ScriptFilePath().isEmpty()) return Project().SaveAs(VScript::ScriptFilePath());
  return true;
}

bool IsProjectPath(const QString& sPath) { return sPath.endsWith(QLatin1String(".vdebug"), Qt::CaseInsensitive); }

QString ResolvePath(const QString& sPath) {
  Project();  // tells the finder where the project lies
  // The command reports a missing or unfit file itself, with its own words.
  const bool Report = FileFinder().SetReport(false);
  const QString sFound = FileFinder().Resolve(sPath);
  FileFinder().SetReport(Report);
  if (!sFound.isEmpty()) return sFound;
  QString s = FilePaths::Normalise(FileFinder().Expand(sPath));
  if (FilePaths::IsRelative(s) && !s.isEmpty() && !VScript::ScriptDir().isEmpty()) s = QDir(VScript::ScriptDir()).filePath(s);
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

QString RefuseReopen(const QString& sPath) {
  const QString a = QFileInfo(sPath).absoluteFilePath();
  if (!Project().PendingPath().isEmpty() && Project().PendingPath() == a)
    return QStringLiteral("project is already being opened: ") + a;
  if (g_ProjectLoading && (a == g_LoadingPath || g_LoadChain.contains(a)))
    return QStringLiteral("project not opened: its own OnProjectLoad (or that of a project it opened) opens it again: ") + a;
  return QString();
}

QStringList CommandsFromCmdLine(const CMDLINE_OPTIONS& o) {
  QStringList Cmds;
  auto Add = [&](int Id, const QStringList& Args) {
    if (Args.isEmpty() || Args.first().isEmpty()) return;
    Cmds.append(RenderCommand(Id, Args));
  };
  Add(AID_PROJECT_SET_DEVICE, {o.Device});
  Add(AID_PROJECT_SET_HOST_IF, {o.HostIF, o.HostID});
  Add(AID_PROJECT_SET_TARGET_IF, {o.TargetIF});
  Add(AID_PROJECT_SET_TIF_SPEED, {o.Speed});
  Add(AID_PROJECT_SET_VORDEN_SCRIPT, {o.VordenScriptFile});
  const QStringList Jtag = o.JTAGConfig.split(QLatin1Char(','));
  if (Jtag.size() == 2) Add(AID_PROJECT_SET_JTAG_CONFIG, {Jtag[0].trimmed(), Jtag[1].trimmed()});
  // The default register description files of the device's core are added
  // by the register description module once it knows the core.
  Add(AID_FILE_OPEN, {o.ProgramFile});
  return Cmds;
}

bool CheckCmdLineProject(const CMDLINE_OPTIONS& o) {
  const QString sPrefix = QStringLiteral("failed to create project from command line arguments: required argument \"");
  if (o.Device.isEmpty()) {
    LogError(sPrefix + QStringLiteral("device\" is missing."));
    return false;
  }
  if (o.HostIF.isEmpty()) {
    LogError(sPrefix + QStringLiteral("host interface\" is missing."));
    return false;
  }
  if (o.TargetIF.isEmpty()) {
    LogError(sPrefix + QStringLiteral("target interface\" is missing."));
    return false;
  }
  return true;
}

bool CreateFromCmdLine(const CMDLINE_OPTIONS& o) {
  if (!CheckCmdLineProject(o)) return false;
  const QStringList Cmds = CommandsFromCmdLine(o);
  Project().SetFromCmdLine(true);
  if (!o.ProjectFile.isEmpty() && QFileInfo(o.ProjectFile).isFile()) return OpenExistingFromCmdLine(o.ProjectFile, Cmds);
  return CreateProject(o.ProjectFile, Cmds, false);
}

bool OpenProject(const QString& sPath, int ActionId) {
  if (!QFileInfo(sPath).isFile()) return false;
  CProject& P = Project();
  if (P.IsModified()) {
    const int r = AskSaveProjectChanges();
    if (r == CMessageBox::RESULT_CANCEL) return false;
    if (r == CMessageBox::RESULT_YES && !VScript::ScriptFilePath().isEmpty()) P.SaveAs(VScript::ScriptFilePath());
  }
  // An open asked for by a running OnProjectLoad carries its chain along.
  g_PendingChain = g_ProjectLoading ? g_LoadChain + QStringList{g_LoadingPath} : QStringList();
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
  Project().AnnounceTitle();
  if (P.CheckWarnings(AllowDialogs) < 0) {
    NewProject();
    return false;
  }
  P.LoadUserFile();
  return true;
}

void NewProject() {
  Project().Close();
  Project().AnnounceTitle();
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
