// The host of the target core plug-in: finds the library for a core, loads
// it through its four exports, swaps the two function tables, checks the
// static core description, and keeps the plug-in in force across device
// changes (reconfigure) until the project or program closes (unload).
//
// Return codes: LoadCorePlugin 0 loaded, 1 unchanged, 2 reconfigured, -1
// refused (the reason went to the error sink, which logs at error level).
// Everything that replaces the plug-in runs on the GUI thread under the
// device mutex; the calls through the wrappers (corewrappers.h) may come
// from the worker as well.
#pragma once
#include "common/types.h"
#include "plugins/core_plugin_api.h"

#include <QObject>
#include <QString>

enum PLUGIN_TYPES { PLUGIN_TYPE_CORE = 0 };

// Where the host's signals come from; the main window connects to them.
class CCorePluginSignals : public QObject {
  Q_OBJECT
 signals:
  void PluginLoaded(QString FilePath, int Type);
  void PluginUnloaded(QString FilePath, int Type);
  void PluginReconfigured(QString FilePath, int Type);
};
CCorePluginSignals& CorePluginSignals();

// What the host needs of the project above it: the plug-in path a project
// names (empty: none), storing a path chosen by hand, and the file dialog.
// The project layer installs its implementation at start-up.
class ICorePluginProject {
 public:
  virtual ~ICorePluginProject() = default;
  virtual QString CorePluginPath() const = 0;
  virtual void SetCorePluginPath(const QString& sPath) = 0;
  // False in silent runs (batch, tests without dialogs).
  virtual bool DialogsAllowed() const = 0;
  // The file dialog; empty when cancelled.
  virtual QString AskCorePluginFile(const QString& sTitle, const QString& sText, const QString& sDir) = 0;
};
void CORE_SetProject(ICorePluginProject* pProject);

// Directory of the core plug-in files (Plugins/Core/ below the install
// directory; a test program one level below the tree finds the tree's).
QString CORE_PluginDir();
// The file of a core family's own plug-in; empty for a family without one.
QString CORE_DefaultPluginPath(U32 Core);
// The core id of a device of the probe library's device table; 0 unknown.
U32 CORE_CoreOfDevice(const QString& sDevice);

// The file to load for Core: the project's path, else the family's default
// (which must exist unless the run is silent), else the dialog. Empty: none.
QString GetCorePluginPath(U32 Core);
// 0, or -1 with "Project Warning: ..." logged.
int ValidateCoreConfig(const CORE_CONFIG& Config);
int LoadCorePlugin(U32 Core);
int InitCore(const CORE_CONFIG& Config);
int ReconfigureCorePlugin();
int UnloadCorePlugin();
bool IsCorePluginLoaded();

// The record in force and the plug-in's description (zeros when unloaded).
const CORE_CONFIG& CoreConfig();
const CORE_STATIC_INFO& CoreStaticInfo();
// The address of reserved slot 28, kept for the call graph build.
void* CoreCallGraphCallback();

// The frame table handed to the plug-in by GetFrameTable; none until the
// call stack installs one.
void CORE_SetFrameTable(void* pTable);

// Checks a program file against the plug-in: 0 fits, with the byte orders
// the project should use; -1 when the plug-in refuses it, -2 with "failed to
// obtain ELF file byte order information" logged. Without a plug-in: 1.
int CORE_CheckProgramFile(const QString& sPath, U32* pDataEndian, U32* pInstEndian);
