// The parsed command line, the application identity and the fixed
// directories below the install directory.
#pragma once
#include <QString>
#include <QStringList>
#include <functional>

struct CMDLINE_OPTIONS {
  QString Device;
  QString HostIF;
  QString HostID;
  QString TargetIF;
  QString Speed;
  QString ProgramFile;
  QString ProjectFile;
  QString LogFile;
  QString LogInterval;
  QString VordenScriptFile;
  QString JTAGConfig;
  bool DebugMode = false;
  // Headless batch mode: -batch FILE ("-" for standard input).
  bool IsBatch = false;
  QString BatchFile;
};

// Parses an argument list whose first entry is the program path.
CMDLINE_OPTIONS ParseCmdLine(const QStringList& Args);
// Parses QCoreApplication::arguments().
CMDLINE_OPTIONS ParseCmdLine();

// The process-wide options, filled once at start-up.
CMDLINE_OPTIONS& GetCmdLineOptions();

// The command texts of a project made from the options, in their order.
QStringList BuildCmdLineCommands(const CMDLINE_OPTIONS& Options);

// The project module fills these: OpenExisting writes the commands into the
// project file and opens it; Create makes a project in memory. Until it does,
// the commands are only logged.
struct PROJECT_SEAM {
  std::function<bool(const QString& sProjectFile, const QStringList& Commands)> OpenExisting;
  std::function<bool(const QString& sProjectFile, const QStringList& Commands, bool AllowDialogs)> Create;
  std::function<void(bool FromCmdLine)> SetMadeFromCmdLine;
};
PROJECT_SEAM& GetProjectSeam();

// Builds a project from the global options. False (with an error logged)
// when Device, HostIF or TargetIF is missing.
bool CreateProjectFromCmdLine();
void ApplyCmdLine();

// Application identity.
QString AppOrganisation();            // "MARLEK"
QString AppName();                    // "Tavit"
QString AppLongTitle();               // "Tavit - The Vorden Debugger"
QString VersionText(int Major, int Minor, int Revision);
QString AppVersionText();             // "V2.60"
QString AppTitle();                   // name and version
QString BuildDateText();              // creation date of the program file

// Directories, each ending in "/".
QString InstallDir();
QString ConfigDir();
QString LibraryDir();
QString PeripheralsDir();
QString DocumentationDir();
QString PluginDir();
QString WorkingDir();
enum FILE_KIND { FILE_KIND_OTHER = 0, FILE_KIND_PERIPHERALS, FILE_KIND_DOCUMENT, FILE_KIND_PLUGIN };
QString DefaultDirForFile(const QString& sFilePath, int Kind);
