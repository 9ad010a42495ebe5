// The parsed command line, the application identity and the fixed
// directories below the install directory.
#pragma once
#include <QString>
#include <QStringList>

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
  // Headless batch mode: -batch FILE ("-" for standard input) or
  // -batch=FILE. A batch option without a file leaves BatchError set.
  bool IsBatch = false;
  QString BatchFile;
  QString BatchError;
  // -batchtimelimit SECONDS: the longest time one batch line may take
  // (waits such as Util.Sleep count); 0 means no limit.
  int BatchTimeLimitS = 30;
  // Debug Adapter Protocol server without a window: -dap speaks on standard
  // input and output, -dapport PORT on a loopback TCP port (-1: a bad port).
  bool IsDap = false;
  int DapPort = 0;
};

// Parses an argument list whose first entry is the program path.
CMDLINE_OPTIONS ParseCmdLine(const QStringList& Args);
// Parses QCoreApplication::arguments().
CMDLINE_OPTIONS ParseCmdLine();

// The process-wide options, filled once at start-up.
CMDLINE_OPTIONS& GetCmdLineOptions();

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
