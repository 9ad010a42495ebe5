// The main window: the single top-level window. It owns one QAction per
// command of the action table and dispatches each to its registered slot,
// builds the menus and tool bars from the table, holds every debug window in
// a dock (the window registry, in creation order), keeps the layout in the
// settings store, shows the status bar and the title, and runs the shut-down
// sequence when it closes.
#pragma once
#include "ui/framework/window.h"
#include "ui/shell/recentlists.h"
#include "ui/shell/shellstate.h"

#include <QList>
#include <QMainWindow>
#include <QPointer>
#include <QStringList>
#include <functional>

class CConsoleWindow;
class CStatusBar;
class CToolBar;
class QAction;
class QCloseEvent;
class QDockWidget;
class QMenu;
class QTimer;

// Through these the top lets modules take part in closing the main window.
// They may be installed before the window exists.
namespace ShellHooks {
// Asked first, in the order installed; one that answers false cancels the
// close (unsaved project, modified documents).
void AddCloseQuery(const std::function<bool()>& Fn);
// Work of the shut-down sequence, run in ascending step order after the
// closing flag is set (6: close the project, 7-8: device, ...).
void AddShutDownStep(int Step, const std::function<void()>& Fn);
// The state the actions, the title and the status bar follow.
void SetStateSource(const SHELL_STATE_SOURCE& Fn);
}  // namespace ShellHooks

// The debug windows in the order of the registry. Memory and register
// windows exist in any number and stand apart.
enum SHELL_WINDOW_KINDS : int {
  SWK_CALL_STACK = 0, SWK_SOURCE_FILES, SWK_DISASSEMBLY, SWK_SOURCE, SWK_BREAKPOINTS, SWK_GLOBALS, SWK_LOCALS,
  SWK_WATCH, SWK_FUNCTIONS, SWK_CALL_GRAPH, SWK_TIMELINE, SWK_MEMORY_USAGE, SWK_CODE_PROFILE, SWK_INSTR_TRACE,
  SWK_TERMINAL, SWK_DATA_GRAPH, SWK_FIND_RESULTS, SWK_CONSOLE, SWK_VORDEN_WEB_CONTROL, SWK_POWER_GRAPH,
  SWK_MEMORY, SWK_REGISTERS, SWK_COUNT
};

// Makes a window of a kind; Index counts memory and register windows from 1.
// Window libraries install their factories at start-up, so that the shell
// does not link them; a kind without a factory has no window.
using SHELL_WINDOW_FACTORY = std::function<QWidget*(QWidget* pParent, int Index)>;
namespace ShellWindows {
void SetFactory(SHELL_WINDOW_KINDS Kind, const SHELL_WINDOW_FACTORY& Fn);
bool HasFactory(SHELL_WINDOW_KINDS Kind);
}  // namespace ShellWindows

// One window of the registry with its dock.
struct SHELL_WINDOW {
  SHELL_WINDOW_KINDS Kind;
  int Index = 0;                 // memory and register windows: 1, 2, ...
  QWidget* pWindow = nullptr;
  QDockWidget* pDock = nullptr;
  QString sName;                 // the dock's object name, also the title
  QStringList Aliases;
  bool IsOpen() const;
};

class CMainWindow : public CWindow {
  Q_OBJECT
 public:
  explicit CMainWindow(QWidget* pParent = nullptr);
  ~CMainWindow() override;

  CConsoleWindow* ConsoleWindow() const { return m_pConsole; }
  CStatusBar* StatusBar() const { return m_pStatusBar; }
  bool IsClosing() const { return m_IsClosing; }
  // File.Exit asked for the end of the program.
  bool IsExitRequested() const { return m_ExitRequested; }

  // Runs once after the first show (or at once in batch mode).
  void SetWindowShownHandler(const std::function<void()>& Fn) { m_OnShown = Fn; }
  void RunWindowShown();
  // The shut-down sequence; false when it was cancelled.
  bool OnWindowClosed(QCloseEvent* pEvent);

  // ---- title, actions, status
  void UpdateTitle();
  void UpdateActions();
  SHELL_STATE State() const;

  // ---- recent lists
  CRecentList& RecentProjects() { return m_RecentProjects; }
  CRecentList& RecentPrograms() { return m_RecentPrograms; }
  void AddRecentProject(const QString& sPath);
  void AddRecentProgram(const QString& sPath);

  // ---- window registry
  const QList<SHELL_WINDOW*>& Windows() const { return m_Windows; }
  const QList<SHELL_WINDOW*>& MemoryWindows() const { return m_MemoryWindows; }
  const QList<SHELL_WINDOW*>& RegisterWindows() const { return m_RegisterWindows; }
  SHELL_WINDOW* AddMemoryWindow();
  SHELL_WINDOW* AddRegisterWindow();
  void RemoveMemoryWindow(SHELL_WINDOW* pEntry);
  void RemoveRegisterWindow(SHELL_WINDOW* pEntry);
  // All windows: the registry list, then memory and register windows.
  QList<SHELL_WINDOW*> AllWindows() const;
  // Lookup by text (name, title or alias, without regard to case). Matches of
  // the preferred state come first.
  SHELL_WINDOW* FindWindow(const QString& sInput, bool PreferOpen) const;
  SHELL_WINDOW* EntryOf(const QWidget* pWidget) const;
  SHELL_WINDOW* ActiveWindow() const { return m_pActive; }
  void ShowWindow(SHELL_WINDOW* pEntry);
  void CloseWindow(SHELL_WINDOW* pEntry);

  // ---- tool bars
  const QList<CToolBar*>& ToolBars() const { return m_ToolBars; }
  CToolBar* FindToolBar(const QString& sName) const;

  // ---- layout
  int Perspective() const { return m_Perspective; }
  QString PerspectiveGroup() const;
  void ApplyDefaultLayout();
  // False when the stored state was refused (the default layout stays).
  bool RestorePerspective();
  void SavePerspective();
  // The user file's lines of open windows and tool bars, and their reading.
  QStringList WriteWindowLines() const;
  void ReadWindowLines(const QStringList& Lines);
  QStringList WriteToolbarLines() const;
  void ReadToolbarLines(const QStringList& Lines);

  // ---- menus
  QMenu* WindowMenu() const { return m_pWindowMenu; }
  QMenu* StartMenu() const { return m_pStartMenu; }
  QMenu* ResetMenu() const { return m_pResetMenu; }
  void UpdateWindowMenu();
  // Makes tab bars of docked windows movable, once for each new bar.
  void UpdateTabBars();

 public slots:
  // The project shown in the title changed (empty: a new project).
  void SetProjectTitle(const QString& sProjectPath);
  void OnProjectModifiedChanged();
  void OnFocusChanged(QWidget* pOld, QWidget* pNew);

 signals:
  void InitComplete();
  void ActiveWindowChanged(QWidget* pWindow);

 protected:
  void closeEvent(QCloseEvent* pEvent) override;
  void contextMenuEvent(QContextMenuEvent* pEvent) override;
  bool eventFilter(QObject* pObject, QEvent* pEvent) override;

 private:
  void CreateActions();
  void CreateMenus();
  void CreateToolBars();
  void CreateWindows();
  void RegisterOwnSlots();
  void RegisterWindowSlots();
  SHELL_WINDOW* CreateWindow(SHELL_WINDOW_KINDS Kind, int Index, QWidget* pWidget);
  SHELL_WINDOW* AddNumberedWindow(SHELL_WINDOW_KINDS Kind, QList<SHELL_WINDOW*>& List);
  void RemoveNumberedWindow(QList<SHELL_WINDOW*>& List, SHELL_WINDOW* pEntry);
  void RebuildRecentMenus();
  void SetupMenuViewMemory();
  void UpdateMenuViewMemory();
  void ApplyModeChecks();
  void OnUtilLog(int Id);
  void OnUtilLogHex(int Id);
  void OnUtilSleep(int Id);
  void OnHelpCommands(int Id);
  void OnHelpAbout(int Id);
  void OnFileExit(int Id);
  void OnWindowShow(int Id);
  void OnWindowClose(int Id);
  void OnWindowCloseAll(int Id);
  void OnWindowSetDisplayFormat(int Id);
  void OnWindowPerform(int Id);
  void OnWindowShowFullScreen(int Id);
  void OnToolbarShowClose(int Id, bool Show);
  void OnWindowDockUndock(bool Dock);
  void OnModeItemTriggered(int ModeCommand, int Mode, int MenuCommand);

  CConsoleWindow* m_pConsole = nullptr;
  CStatusBar* m_pStatusBar = nullptr;
  QTimer* m_pDeviceEventTimer = nullptr;
  QTimer* m_pShownTimer = nullptr;
  QTimer* m_pPeriodicTimer = nullptr;
  bool m_IsClosing = false;
  bool m_ShownDone = false;
  bool m_ExitRequested = false;
  QString m_sProjectPath;
  std::function<void()> m_OnShown;
  CRecentList m_RecentProjects{RecentProjectsFilter()};
  CRecentList m_RecentPrograms{RecentProgramsFilter()};
  QList<SHELL_WINDOW*> m_Windows, m_MemoryWindows, m_RegisterWindows;
  SHELL_WINDOW* m_pActive = nullptr;
  QPointer<QWidget> m_pFocusBeforeModal;
  QList<CToolBar*> m_ToolBars;
  int m_Perspective = 0;
  QMenu* m_pWindowMenu = nullptr;
  QMenu* m_pStartMenu = nullptr;
  QMenu* m_pResetMenu = nullptr;
  QMenu* m_pRecentProjectsMenu = nullptr;
  QMenu* m_pRecentProgramsMenu = nullptr;
  QMenu* m_pToolbarsMenu = nullptr;
};
