// CProject: the open project. It opens project files (deferred by a timer so
// that a running script can unwind first), runs OnProjectLoad, checks the
// project for warnings, saves the project, writes settings into its text and
// keeps the user file (.vdebug.user) beside it. The command slots of the
// module stand in projectcommands.*.
#pragma once
#include "common/types.h"

#include <QDateTime>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <functional>

class QTimer;

// What the project commands set for the next connection; the device layer
// reads it when it connects.
struct PROJECT_DEVICE_SETTINGS {
  QString Device;
  QString HostIF;          // "USB" or "IP"; empty when not set
  QString HostID;          // serial number or address, may be empty
  QString TargetIF;        // "JTAG", "SWD", "FINE", "cJTAG"
  bool HasTIFSpeed = false;
  bool HasScanChain = false;
  QString VordenScript;
  QString VordenLogFile;
};

// A record kind of the user file, written and read by the module that owns
// the state (windows, breakpoints, expressions). Records of keys nobody has
// registered are kept as they were.
struct USER_FILE_SECTION {
  QString Key;                                    // "Breakpoint", "OpenDocument", ...
  U32 DisableFlag = 0;                            // DISABLE_SAVE_* bit that skips it
  std::function<QStringList()> Write;             // the lines to store
  std::function<void(const QStringList&)> Read;   // the lines found on load
};
void RegisterUserFileSection(const USER_FILE_SECTION& Section);
void UnregisterUserFileSection(const QString& sKey);

// Checks of other modules that add to the project warnings (register
// description files, plug-ins, a program that does not suit the target);
// each source returns its texts. They stand between the script errors and
// the duplicate command test. A source of the same key replaces the old one.
void SetProjectWarningSource(const QString& sKey, const std::function<QStringList()>& Source);

struct CMDLINE_OPTIONS;

// Opening a file that is no project (a program or data file). The program
// layer implements it; the top installs it with SetProgramFileLoader.
class IDeviceProjectSettings;

class IProgramFileLoader {
 public:
  virtual ~IProgramFileLoader() = default;
  // 0 on success, -1 with the action's error set.
  virtual int OpenProgramFile(const QString& sFilePath, int ActionId) = 0;
};

// The dialogs that project flows open. The user interface implements them;
// without an implementation (tests, batch mode) no dialog opens and the flows
// take the answer a dialog's cancel button gives.
class IProjectDialogs {
 public:
  virtual ~IProjectDialogs() = default;
  // The preferences / system variable table; true when accepted.
  virtual bool RunSettingsDialog(bool SysVarsOnly) = 0;
  // The warnings of a project: 1 accepted, -1 cancelled.
  virtual int ShowProjectWarnings(const QStringList& Warnings, const QString& sProjectPath) = 0;
  // The commands of a new project, empty when cancelled.
  virtual QStringList RunProjectWizard(QString* pProjectPath) = 0;
  // File choosers; empty when cancelled.
  virtual QString AskOpenFile(const QString& sDir) = 0;
  virtual QString AskSaveProjectFile(const QString& sDir) = 0;
  // A file chooser with its own title and text (the core plug-in file the
  // host could not find); the plain chooser unless the interface shows them.
  virtual QString AskFileWithText(const QString& sTitle, const QString& sText, const QString& sDir) {
    return AskOpenFile(sDir);
  }
};

class CProject : public QObject {
  Q_OBJECT
 public:
  explicit CProject(QObject* pParent = nullptr);

  bool IsOpen() const { return m_IsOpen; }
  bool IsModified() const { return m_IsModified; }
  bool IsFromCmdLine() const { return m_FromCmdLine; }
  void SetFromCmdLine(bool On) { m_FromCmdLine = On; }
  QString PendingPath() const { return m_PendingPath; }
  const QStringList& SvdFiles() const { return m_SvdFiles; }
  QString ProgramFilePath() const { return m_ProgramFilePath; }
  void SetProgramFile(const QString& sPath);
  // The core plug-in file the project names (Project.SetCorePlugin); empty
  // for the default of the device's core.
  QString CorePluginPath() const { return m_CorePluginPath; }
  void SetCorePluginPath(const QString& sPath) { m_CorePluginPath = sPath; }
  QString SettingsFile() const { return m_SettingsFile; }
  void SetSettingsFile(const QString& sPath) { m_SettingsFile = sPath; }
  const PROJECT_DEVICE_SETTINGS& DeviceSettings() const { return m_Dev; }
  PROJECT_DEVICE_SETTINGS& DeviceSettings() { return m_Dev; }
  void AddWarning(const QString& sText) { m_Warnings.append(sText); }
  void AddSvdFile(const QString& sPath) { m_SvdFiles.append(sPath); }
  // A project made in memory: open and modified.
  void MarkNew() {
    m_IsOpen = true;
    SetModified(true);
  }

  // Deferred opening: stores the path and starts the timer.
  void Open(const QString& sPath);
  void Close();
  // Writes the project; false (with the reason reported) when it failed.
  bool SaveAs(const QString& sPath);
  QStringList GetWarnings() const;
  // The warnings check: 0 none, 1 shown/accepted, -1 rejected.
  int CheckWarnings(bool AllowDialogs);
  // Writes commands into OnProjectLoad of the file. 1 changed, 0 unchanged,
  // -1 failed.
  int WriteSettings(const QString& sPath, bool Replace, const QStringList& Commands,
                    const QStringList& NamesToRemove = QStringList());
  // The commands that recreate the current state.
  QStringList CurrentStateCommands() const;

  // The user file.
  bool WriteUserFile();
  void LoadUserFile();
  QStringList UserFileLines() const { return m_UserLines; }

  // Waits (processing events) until a deferred open has run or lapsed.
  void WaitForOpen(int TimeoutMs = 10000);
  // Tells the title of the current project to whoever shows it.
  void AnnounceTitle();

 signals:
  void ModifiedChanged(bool Modified);
  // The project path the window title shows changed (empty: a new project).
  void TitleChanged(QString ProjectPath);
  void AboutToOpen(QString FilePath);
  void AboutToClose(QString FilePath);
  void Opened(QString FilePath);
  void Closed(QString FilePath);

 public slots:
  void OnOpenTimeout();

 private:
  void SetModified(bool On);
  QTimer* m_pOpenTimer = nullptr;
  bool m_IsOpen = false;
  bool m_IsModified = false;
  bool m_FromCmdLine = false;
  mutable QSet<U32> m_ShownWarnings;
  QStringList m_Warnings;
  QString m_PendingPath;
  QStringList m_SvdFiles;
  QString m_ProgramFilePath;
  QDateTime m_ProgramFileTime;
  QString m_SettingsFile;
  QString m_CorePluginPath;
  PROJECT_DEVICE_SETTINGS m_Dev;
  QStringList m_UserLines;  // records as read, for the keys nobody owns
  QString m_UserPath;       // user file the records belong to
};

CProject& Project();

namespace ProjectModule {
// Wires the project into the layers below it (the constants of
// Script.DefineConst for console arguments and system variable texts, the
// exit of the application). Called once by the top at start-up; the command
// slots are installed apart (ProjectCommands::Install).
void Install();
bool IsInstalled();
void SetProgramFileLoader(IProgramFileLoader* pLoader);
// Where the connection settings (device, interfaces, speed, probe files) go
// besides the project; none until the top installs the device layer's.
void SetDeviceSettings(IDeviceProjectSettings* pSettings);
IDeviceProjectSettings* DeviceSettingsSink();
IProgramFileLoader* ProgramFileLoader();
void SetDialogs(IProjectDialogs* pDialogs);
IProjectDialogs* Dialogs();  // null when none is installed or in batch mode

// The close question of the main window: false cancels the close.
bool QueryClose();
// The main window flows, as the command slots run them.
bool OpenProject(const QString& sPath, int ActionId = -1);
bool CreateProject(const QString& sPath, const QStringList& Commands, bool AllowDialogs);
void NewProject();
// Writes command-line commands into an existing project and opens it.
bool OpenExistingFromCmdLine(const QString& sPath, const QStringList& Commands);
// The command texts of a project made from the command line, in their order.
QStringList CommandsFromCmdLine(const CMDLINE_OPTIONS& Options);
// Builds a project from the command line. False (with an error logged)
// when the device, the host interface or the target interface is missing.
bool CheckCmdLineProject(const CMDLINE_OPTIONS& Options);
bool CreateFromCmdLine(const CMDLINE_OPTIONS& Options);

// Helpers of the command slots.
bool IsProjectPath(const QString& sPath);
// A file a project command names: the file finder's answer, or, for a file
// the finder does not find (one to be written, one that is missing), the
// path with its macros expanded, taken from the project directory when it is
// relative.
QString ResolvePath(const QString& sPath);
void AddRecentProject(const QString& sPath);
// Refuses a project that is being opened, or one a running OnProjectLoad
// chain has opened already: the error text, empty when the open may go on.
QString RefuseReopen(const QString& sPath);
}  // namespace ProjectModule
