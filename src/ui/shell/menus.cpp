// The main window's actions, menus and tool bars, built from the action
// table, and the enabled states of the commands.
#include "commands/actions.h"
#include "ui/shell/mainwindow.h"
#include "ui/shell/statusbar.h"
#include "ui/shell/toolbars.h"

#include <QAction>
#include <QActionGroup>
#include <QApplication>
#include <QDockWidget>
#include <QFileInfo>
#include <QHash>
#include <QMenu>
#include <QMenuBar>

namespace {

constexpr int SEP = -1;       // a separator
constexpr int SUBMENU = -2;   // the next entry names a submenu

// Icons of the tool bars and menus, by action name. The files stand in the
// resource under ":/Resources/".
const QHash<QString, QString>& IconNames() {
  static const QHash<QString, QString> s_Icons = {
      {QStringLiteral("actionFileNewProject"), QStringLiteral("document-new")},
      {QStringLiteral("actionFileOpen"), QStringLiteral("document-open")},
      {QStringLiteral("actionFileSave"), QStringLiteral("document-save")},
      {QStringLiteral("actionFileSaveAll"), QStringLiteral("document-save-as")},
      {QStringLiteral("actionFileExit"), QStringLiteral("application-exit")},
      {QStringLiteral("actionFindText"), QStringLiteral("edit-find")},
      {QStringLiteral("actionEditCopy"), QStringLiteral("edit-copy")},
      {QStringLiteral("actionDebugStart"), QStringLiteral("media-playback-start")},
      {QStringLiteral("actionDebugStop"), QStringLiteral("media-playback-stop")},
      {QStringLiteral("actionDebugContinue"), QStringLiteral("media-seek-forward")},
      {QStringLiteral("actionDebugHalt"), QStringLiteral("media-playback-pause")},
      {QStringLiteral("actionDebugReset"), QStringLiteral("view-refresh")},
      {QStringLiteral("actionDebugStepInto"), QStringLiteral("go-down")},
      {QStringLiteral("actionDebugStepOver"), QStringLiteral("go-jump")},
      {QStringLiteral("actionDebugStepOut"), QStringLiteral("go-up")},
      {QStringLiteral("actionBreakClearAll"), QStringLiteral("edit-clear-all")},
      {QStringLiteral("actionBreakClearAllOnData"), QStringLiteral("edit-clear")},
      {QStringLiteral("actionTraceClearAllPoints"), QStringLiteral("list-remove-all")},
      {QStringLiteral("actionWindowShowConsole"), QStringLiteral("utilities-terminal")},
      {QStringLiteral("actionWindowShowCallStack"), QStringLiteral("view-list-ordered")},
      {QStringLiteral("actionWindowShowBreakpoints"), QStringLiteral("mark-location")},
      {QStringLiteral("actionWindowShowRegisters"), QStringLiteral("view-grid")},
      {QStringLiteral("actionWindowShowMemory"), QStringLiteral("view-paged")},
      {QStringLiteral("actionWindowShowFullScreen"), QStringLiteral("view-fullscreen")},
      {QStringLiteral("actionHelpCommands"), QStringLiteral("help-about")},
  };
  return s_Icons;
}

// Labels that read better than the tool tip of the row.
const QHash<int, QString>& Labels() {
  static const QHash<int, QString> s_Labels = {
      {AID_FILE_NEW_PROJECT, QStringLiteral("&New Project")},
      {AID_FILE_NEW_PROJECT_WIZARD, QStringLiteral("New Project &Wizard...")},
      {AID_FILE_OPEN, QStringLiteral("&Open...")},
      {AID_FILE_LOAD, QStringLiteral("&Load Data File...")},
      {AID_FILE_SAVE, QStringLiteral("&Save")},
      {AID_FILE_SAVE_PROJECT_AS, QStringLiteral("Save Project &As...")},
      {AID_FILE_SAVE_ALL, QStringLiteral("Save A&ll")},
      {AID_FILE_EXIT, QStringLiteral("E&xit")},
      {AID_DEBUG_START, QStringLiteral("&Start Debugging")},
      {AID_DEBUG_STOP, QStringLiteral("S&top Debugging")},
      {AID_DEBUG_CONTINUE, QStringLiteral("&Continue")},
      {AID_DEBUG_HALT, QStringLiteral("&Halt")},
      {AID_DEBUG_RESET, QStringLiteral("&Reset")},
      {AID_DEBUG_STEP_INTO, QStringLiteral("Step &Into")},
      {AID_DEBUG_STEP_OVER, QStringLiteral("Step &Over")},
      {AID_DEBUG_STEP_OUT, QStringLiteral("Step O&ut")},
      {AID_GUI_DEBUG_DOWNLOAD_RESET, QStringLiteral("Download && Reset Program")},
      {AID_GUI_DEBUG_ATTACH, QStringLiteral("Attach to Running Program")},
      {AID_GUI_DEBUG_ATTACH_HALT, QStringLiteral("Attach && Halt Program")},
      {AID_GUI_DEBUG_RESET_HALT, QStringLiteral("Reset && Halt")},
      {AID_GUI_DEBUG_RESET_BREAK_AT_SYMBOL, QStringLiteral("Reset && Break at Symbol")},
      {AID_GUI_DEBUG_RESET_RUN, QStringLiteral("Reset && Run")},
      {AID_GUI_WINDOW_DOCK, QStringLiteral("&Dock")},
      {AID_GUI_WINDOW_UNDOCK, QStringLiteral("&Undock")},
      {AID_GUI_TOOLBAR_SHOW_FILE, QStringLiteral("File")},
      {AID_GUI_TOOLBAR_SHOW_VIEWS, QStringLiteral("Windows")},
      {AID_GUI_TOOLBAR_SHOW_DEBUG, QStringLiteral("Debug")},
      {AID_GUI_TOOLBAR_SHOW_BREAKPOINTS, QStringLiteral("Breakpoints")},
      {AID_WINDOW_CLOSE, QStringLiteral("&Close Window")},
      {AID_WINDOW_CLOSE_ALL, QStringLiteral("Close &All Windows")},
      {AID_WINDOW_SHOW_FULL_SCREEN, QStringLiteral("Enter Full Screen")},
      {AID_HELP_ABOUT, QStringLiteral("&About")},
      {AID_HELP_USER_GUIDE, QStringLiteral("User &Guide")},
      {AID_HELP_COMMANDS, QStringLiteral("&Commands")},
  };
  return s_Labels;
}

QString LabelOf(int Id) {
  const QString s = Labels().value(Id);
  if (!s.isEmpty()) return s;
  const ACTION_DESC* r = GetActionDesc(Id);
  QString sTip = QString::fromUtf8(r->ToolTip);
  if (!sTip.isEmpty()) sTip[0] = sTip[0].toUpper();
  if (GetParamCount(Id) > 0 && IsTextParam(Id, 0)) sTip += QStringLiteral("...");
  return sTip;
}

// The main window's own rows without a prototype: the start and reset mode
// items, the window and tool bar items.
bool IsMainWindowGuiRow(int Id) { return Id >= AID_GUI_FILE_CLOSE_ALL_UNEDITED && Id <= AID_GUI_TOOLBAR_SHOW_BREAKPOINTS; }

QAction* Act(int Id) { return GetActionDesc(Id)->Action; }

void AddEntries(QMenu* pMenu, std::initializer_list<int> Ids) {
  for (int Id : Ids) {
    if (Id == SEP) {
      pMenu->addSeparator();
      continue;
    }
    if (QAction* a = Act(Id)) pMenu->addAction(a);
  }
}

}  // namespace

void CMainWindow::CreateActions() {
  // One action per command row, and the main window's own GUI rows. The
  // other rows without a prototype belong to the context menus of the debug
  // windows, which create and link them.
  for (int Id = 0; Id < ACTION_COUNT; ++Id) {
    const ACTION_DESC* r = GetActionDesc(Id);
    const bool IsCommand = !GetCommandName(Id).isEmpty();
    if (!IsCommand && !IsMainWindowGuiRow(Id)) continue;
    auto* a = new QAction(LabelOf(Id), this);
    a->setObjectName(QString::fromLatin1(r->ActionName));
    const QString sIcon = IconNames().value(a->objectName());
    if (!sIcon.isEmpty()) a->setIcon(QIcon(QStringLiteral(":/Resources/") + sIcon + QStringLiteral(".png")));
    a->setShortcutContext(Qt::WindowShortcut);
    addAction(a);
    if (IsCommand) ConnectAction(a, this, [Id] { RunCommandSlot(Id); });
  }
}

void CMainWindow::CreateMenus() {
  QMenuBar* pBar = menuBar();
  // File
  QMenu* pFile = pBar->addMenu(QStringLiteral("&File"));
  AddEntries(pFile, {AID_FILE_NEW_PROJECT, AID_FILE_NEW_PROJECT_WIZARD, AID_FILE_OPEN});
  m_pRecentProjectsMenu = pFile->addMenu(QStringLiteral("Recent &Projects"));
  m_pRecentProgramsMenu = pFile->addMenu(QStringLiteral("Recent P&rograms"));
  AddEntries(pFile, {AID_FILE_LOAD, SEP, AID_FILE_CLOSE, AID_FILE_CLOSE_ALL, AID_FILE_CLOSE_ALL_BUT_THIS,
                     AID_GUI_FILE_CLOSE_ALL_UNEDITED, SEP, AID_FILE_SAVE, AID_FILE_SAVE_PROJECT_AS, AID_FILE_SAVE_ALL, SEP,
                     AID_FILE_FIND, AID_FILE_EXPORT_DISASSEMBLY, SEP, AID_FILE_EXIT});
  // Edit
  QMenu* pEdit = pBar->addMenu(QStringLiteral("&Edit"));
  AddEntries(pEdit, {AID_EDIT_COPY, SEP, AID_FIND_TEXT, AID_FIND_FUNC, AID_FIND_SYMBOL, SEP, AID_WATCH_ADD,
                     AID_DATAGRAPH_ADD});
  // View: the windows, the views of a location, the tool bars.
  QMenu* pView = pBar->addMenu(QStringLiteral("&View"));
  AddEntries(pView, {AID_GUI_WINDOW_SHOW_CONSOLE, AID_GUI_WINDOW_SHOW_CALL_STACK, AID_GUI_WINDOW_SHOW_BREAKPOINTS,
                     AID_GUI_WINDOW_SHOW_REGISTERS, AID_GUI_WINDOW_SHOW_MEMORY, AID_GUI_WINDOW_SHOW_SRC_FILES,
                     AID_GUI_WINDOW_SHOW_DISASSEMBLY, AID_GUI_WINDOW_SHOW_WATCHED_DATA, AID_GUI_WINDOW_SHOW_LOCAL_DATA,
                     AID_GUI_WINDOW_SHOW_GLOBAL_DATA, AID_GUI_WINDOW_SHOW_FUNCTIONS, AID_GUI_WINDOW_SHOW_CALL_GRAPH,
                     AID_GUI_WINDOW_SHOW_FIND_RESULTS, AID_GUI_WINDOW_SHOW_TERMINAL, AID_GUI_WINDOW_SHOW_INSTR_TRACE,
                     AID_GUI_WINDOW_SHOW_CODE_PROFILE, AID_GUI_WINDOW_SHOW_TIMELINE, AID_GUI_WINDOW_SHOW_DATA_GRAPH,
                     AID_GUI_WINDOW_SHOW_POWER_GRAPH, AID_GUI_WINDOW_SHOW_MEMORY_USAGE,
                     AID_GUI_WINDOW_SHOW_VORDEN_WEB_CONTROL, SEP, AID_VIEW_SOURCE, AID_VIEW_DISASSEMBLY, AID_VIEW_DATA,
                     AID_VIEW_MEMORY, AID_VIEW_MEMORY_MAP, AID_VIEW_CALL_GRAPH, AID_VIEW_INST_TRACE, AID_VIEW_LINE,
                     AID_VIEW_PC, AID_VIEW_PC_LINE, AID_VIEW_NEXT_RESULT, AID_VIEW_PREV_RESULT, SEP});
  m_pToolbarsMenu = pView->addMenu(QStringLiteral("&Toolbars"));
  AddEntries(m_pToolbarsMenu, {AID_GUI_TOOLBAR_SHOW_FILE, AID_GUI_TOOLBAR_SHOW_VIEWS, AID_GUI_TOOLBAR_SHOW_DEBUG,
                               AID_GUI_TOOLBAR_SHOW_BREAKPOINTS});
  AddEntries(pView, {AID_WINDOW_SHOW_FULL_SCREEN});
  // Debug, with the start and reset menus and their mode items.
  QMenu* pDebug = pBar->addMenu(QStringLiteral("&Debug"));
  m_pStartMenu = new QMenu(QStringLiteral("Start Mode"), this);
  m_pStartMenu->setObjectName(QStringLiteral("menuDebugStart"));
  AddEntries(m_pStartMenu, {AID_GUI_DEBUG_DOWNLOAD_RESET, AID_GUI_DEBUG_ATTACH, AID_GUI_DEBUG_ATTACH_HALT});
  m_pResetMenu = new QMenu(QStringLiteral("Reset Mode"), this);
  m_pResetMenu->setObjectName(QStringLiteral("menuDebugReset"));
  AddEntries(m_pResetMenu, {AID_GUI_DEBUG_RESET_HALT, AID_GUI_DEBUG_RESET_BREAK_AT_SYMBOL, AID_GUI_DEBUG_RESET_RUN});
  AddEntries(pDebug, {AID_DEBUG_START});
  pDebug->addMenu(m_pStartMenu);
  AddEntries(pDebug, {AID_DEBUG_STOP, SEP, AID_DEBUG_CONTINUE, AID_DEBUG_HALT, AID_DEBUG_RESET});
  pDebug->addMenu(m_pResetMenu);
  AddEntries(pDebug, {SEP, AID_DEBUG_STEP_INTO, AID_DEBUG_STEP_OVER, AID_DEBUG_STEP_OUT, SEP, AID_DEBUG_RUN_TO,
                      AID_DEBUG_SET_NEXT_STATEMENT, AID_DEBUG_SET_NEXT_PC, SEP, AID_DEBUG_CONNECT, AID_DEBUG_DISCONNECT,
                      AID_DEBUG_DOWNLOAD});
  auto* pStartModes = new QActionGroup(this);
  auto* pResetModes = new QActionGroup(this);
  const struct {
    int Item, ModeCommand, Mode, MenuCommand;
    QActionGroup* pGroup;
  } Modes[] = {{AID_GUI_DEBUG_DOWNLOAD_RESET, AID_DEBUG_SET_CONNECT_MODE, 0, AID_DEBUG_START, pStartModes},
               {AID_GUI_DEBUG_ATTACH, AID_DEBUG_SET_CONNECT_MODE, 1, AID_DEBUG_START, pStartModes},
               {AID_GUI_DEBUG_ATTACH_HALT, AID_DEBUG_SET_CONNECT_MODE, 2, AID_DEBUG_START, pStartModes},
               {AID_GUI_DEBUG_RESET_HALT, AID_DEBUG_SET_RESET_MODE, 0, AID_DEBUG_RESET, pResetModes},
               {AID_GUI_DEBUG_RESET_BREAK_AT_SYMBOL, AID_DEBUG_SET_RESET_MODE, 1, AID_DEBUG_RESET, pResetModes},
               {AID_GUI_DEBUG_RESET_RUN, AID_DEBUG_SET_RESET_MODE, 2, AID_DEBUG_RESET, pResetModes}};
  for (const auto& m : Modes) {
    QAction* a = Act(m.Item);
    if (!a) continue;
    a->setCheckable(true);
    a->setData(m.Mode);
    m.pGroup->addAction(a);
    const int ModeCommand = m.ModeCommand, Mode = m.Mode, MenuCommand = m.MenuCommand;
    connect(a, &QAction::triggered, this, [this, ModeCommand, Mode, MenuCommand] {
      OnModeItemTriggered(ModeCommand, Mode, MenuCommand);
    });
  }
  connect(pDebug, &QMenu::aboutToShow, this, &CMainWindow::ApplyModeChecks);
  // Break
  QMenu* pBreak = pBar->addMenu(QStringLiteral("&Break"));
  AddEntries(pBreak, {AID_BREAK_CLEAR_ALL, AID_BREAK_CLEAR_ALL_ON_DATA, AID_TRACE_CLEAR_ALL_POINTS});
  // Tools
  QMenu* pTools = pBar->addMenu(QStringLiteral("&Tools"));
  AddEntries(pTools, {AID_TOOLS_VORDEN_SETTINGS, AID_TOOLS_TRACE_SETTINGS, SEP, AID_TOOLS_SYS_VARS, AID_TOOLS_PREFERENCES});
  // Window: rebuilt each time it opens.
  m_pWindowMenu = pBar->addMenu(QStringLiteral("&Window"));
  m_pWindowMenu->setObjectName(QStringLiteral("menuWindow"));
  connect(m_pWindowMenu, &QMenu::aboutToShow, this, &CMainWindow::UpdateWindowMenu);
  UpdateWindowMenu();
  // Help
  QMenu* pHelp = pBar->addMenu(QStringLiteral("&Help"));
  AddEntries(pHelp, {AID_HELP_USER_GUIDE, AID_HELP_COMMANDS, SEP, AID_HELP_ABOUT});
  // The window items of the View menu show their window.
  const struct {
    int Id;
    SHELL_WINDOW_KINDS Kind;
  } Shows[] = {{AID_GUI_WINDOW_SHOW_CONSOLE, SWK_CONSOLE}, {AID_GUI_WINDOW_SHOW_CALL_STACK, SWK_CALL_STACK},
               {AID_GUI_WINDOW_SHOW_BREAKPOINTS, SWK_BREAKPOINTS}, {AID_GUI_WINDOW_SHOW_REGISTERS, SWK_REGISTERS},
               {AID_GUI_WINDOW_SHOW_MEMORY, SWK_MEMORY}, {AID_GUI_WINDOW_SHOW_SRC_FILES, SWK_SOURCE_FILES},
               {AID_GUI_WINDOW_SHOW_DISASSEMBLY, SWK_DISASSEMBLY}, {AID_GUI_WINDOW_SHOW_WATCHED_DATA, SWK_WATCH},
               {AID_GUI_WINDOW_SHOW_LOCAL_DATA, SWK_LOCALS}, {AID_GUI_WINDOW_SHOW_GLOBAL_DATA, SWK_GLOBALS},
               {AID_GUI_WINDOW_SHOW_FUNCTIONS, SWK_FUNCTIONS}, {AID_GUI_WINDOW_SHOW_CALL_GRAPH, SWK_CALL_GRAPH},
               {AID_GUI_WINDOW_SHOW_FIND_RESULTS, SWK_FIND_RESULTS}, {AID_GUI_WINDOW_SHOW_TERMINAL, SWK_TERMINAL},
               {AID_GUI_WINDOW_SHOW_INSTR_TRACE, SWK_INSTR_TRACE}, {AID_GUI_WINDOW_SHOW_CODE_PROFILE, SWK_CODE_PROFILE},
               {AID_GUI_WINDOW_SHOW_TIMELINE, SWK_TIMELINE}, {AID_GUI_WINDOW_SHOW_DATA_GRAPH, SWK_DATA_GRAPH},
               {AID_GUI_WINDOW_SHOW_POWER_GRAPH, SWK_POWER_GRAPH}, {AID_GUI_WINDOW_SHOW_MEMORY_USAGE, SWK_MEMORY_USAGE},
               {AID_GUI_WINDOW_SHOW_VORDEN_WEB_CONTROL, SWK_VORDEN_WEB_CONTROL}};
  for (const auto& s : Shows) {
    QAction* a = Act(s.Id);
    if (!a) continue;
    const SHELL_WINDOW_KINDS Kind = s.Kind;
    // Windows that do not exist in this build have no item.
    bool Exists = false;
    for (SHELL_WINDOW* p : AllWindows()) Exists |= p->Kind == Kind;
    a->setVisible(Exists);
    connect(a, &QAction::triggered, this, [this, Kind] {
      // Through the command, so that the console shows what happened.
      for (SHELL_WINDOW* p : AllWindows())
        if (p->Kind == Kind) {
          ExecAction(AID_WINDOW_SHOW, Kind == SWK_MEMORY ? QStringLiteral("Memory")
                                      : Kind == SWK_REGISTERS ? QStringLiteral("Registers")
                                                              : p->sName);
          return;
        }
    });
  }
  connect(Act(AID_GUI_WINDOW_DOCK), &QAction::triggered, this, [this] { OnWindowDockUndock(true); });
  connect(Act(AID_GUI_WINDOW_UNDOCK), &QAction::triggered, this, [this] { OnWindowDockUndock(false); });
}

void CMainWindow::OnModeItemTriggered(int ModeCommand, int Mode, int MenuCommand) {
  // The mode first, then the menu's own command.
  ExecAction(ModeCommand, Mode);
  ExecAction(MenuCommand);
}

void CMainWindow::ApplyModeChecks() {
  // The current modes are checked.
  const SHELL_STATE St = State();
  for (int Id : {AID_GUI_DEBUG_DOWNLOAD_RESET, AID_GUI_DEBUG_ATTACH, AID_GUI_DEBUG_ATTACH_HALT,
                 AID_GUI_DEBUG_RESET_HALT, AID_GUI_DEBUG_RESET_BREAK_AT_SYMBOL, AID_GUI_DEBUG_RESET_RUN}) {
    QAction* a = Act(Id);
    if (!a) continue;
    const bool IsStart = Id <= AID_GUI_DEBUG_ATTACH_HALT;
    a->setChecked(a->data().toInt() == (IsStart ? St.ConnectMode : St.ResetMode));
  }
}

void CMainWindow::CreateToolBars() {
  const struct {
    const char* sName;
    const char* sKey;
    int ToggleId;
    std::initializer_list<int> Ids;
  } Bars[] = {
      {"File", "ToolbarFileState", AID_GUI_TOOLBAR_SHOW_FILE,
       {AID_FILE_NEW_PROJECT, AID_FILE_OPEN, AID_FILE_SAVE, AID_FILE_SAVE_ALL}},
      {"Windows", "ToolbarWindowState", AID_GUI_TOOLBAR_SHOW_VIEWS,
       {AID_GUI_WINDOW_SHOW_CONSOLE, AID_GUI_WINDOW_SHOW_CALL_STACK, AID_GUI_WINDOW_SHOW_BREAKPOINTS,
        AID_GUI_WINDOW_SHOW_REGISTERS, AID_GUI_WINDOW_SHOW_MEMORY}},
      {"Debug", "ToolbarDebugState", AID_GUI_TOOLBAR_SHOW_DEBUG,
       {AID_DEBUG_START, AID_DEBUG_STOP, SEP, AID_DEBUG_CONTINUE, AID_DEBUG_HALT, AID_DEBUG_RESET, SEP,
        AID_DEBUG_STEP_INTO, AID_DEBUG_STEP_OVER, AID_DEBUG_STEP_OUT}},
      {"Breakpoints", "ToolbarBreakpointState", AID_GUI_TOOLBAR_SHOW_BREAKPOINTS,
       {AID_BREAK_CLEAR_ALL, AID_BREAK_CLEAR_ALL_ON_DATA, AID_TRACE_CLEAR_ALL_POINTS}},
  };
  for (const auto& b : Bars) {
    auto* pBar = new CToolBar(QLatin1String(b.sName), QLatin1String(b.sKey), this);
    for (int Id : b.Ids) {
      if (Id == SEP) {
        pBar->addSeparator();
        continue;
      }
      QAction* a = Act(Id);
      if (!a) continue;
      if (Id == AID_DEBUG_START) a->setMenu(m_pStartMenu);
      if (Id == AID_DEBUG_RESET) a->setMenu(m_pResetMenu);
      pBar->addAction(a);
    }
    addToolBar(Qt::TopToolBarArea, pBar);
    if (QAction* t = Act(b.ToggleId)) {
      pBar->SetToggleAction(t);
      const QString sName = pBar->Name();
      connect(t, &QAction::triggered, this, [sName](bool On) {
        ExecAction(On ? AID_TOOLBAR_SHOW : AID_TOOLBAR_CLOSE, sName);
      });
    }
    m_ToolBars.append(pBar);
  }
}

CToolBar* CMainWindow::FindToolBar(const QString& sName) const {
  const QString s = sName.trimmed();
  for (CToolBar* p : m_ToolBars)
    if (p->Name().compare(s, Qt::CaseInsensitive) == 0 || p->objectName().compare(s, Qt::CaseInsensitive) == 0)
      return p;
  // The windows tool bar also answers to its older name.
  if (s.compare(QLatin1String("Views"), Qt::CaseInsensitive) == 0) return m_ToolBars.value(1);
  return nullptr;
}

void CMainWindow::RebuildRecentMenus() {
  if (!m_pRecentProjectsMenu) return;
  for (auto [pMenu, pList] : {std::pair{m_pRecentProjectsMenu, &m_RecentProjects}, std::pair{m_pRecentProgramsMenu, &m_RecentPrograms}}) {
    pMenu->clear();
    int n = 0;
    for (const QString& sPath : pList->Paths()) {
      QAction* a = pMenu->addAction(QStringLiteral("&%1 %2").arg(++n % 10).arg(sPath));
      connect(a, &QAction::triggered, this, [sPath] { ExecAction(AID_FILE_OPEN, sPath); });
    }
    pMenu->setEnabled(n > 0);
  }
}

void CMainWindow::UpdateActions() {
  const SHELL_STATE St = State();
  auto Enable = [](int Id, bool On) {
    if (QAction* a = Act(Id)) a->setEnabled(On);
  };
  // File: create, open and close always; saving by what is there to save.
  Enable(AID_FILE_SAVE, St.DocumentOpen && St.DocumentModified);
  Enable(AID_FILE_SAVE_PROJECT_AS, St.ProjectOpen);
  Enable(AID_FILE_SAVE_ALL, St.ProjectModified || St.DocumentModified);
  // Run controls follow the session; without a core plug-in none of them.
  const bool Core = St.CorePluginLoaded;
  Enable(AID_DEBUG_START, Core && St.Start);
  Enable(AID_DEBUG_STOP, Core && St.Stop);
  Enable(AID_DEBUG_CONTINUE, Core && St.Continue);
  Enable(AID_DEBUG_HALT, Core && St.Halt);
  Enable(AID_DEBUG_RESET, Core && St.Reset);
  for (int Id : {AID_DEBUG_STEP_INTO, AID_DEBUG_STEP_OVER, AID_DEBUG_STEP_OUT}) Enable(Id, Core && St.Step);
  // The start items while not connected, the reset items while connected.
  for (int Id : {AID_GUI_DEBUG_DOWNLOAD_RESET, AID_GUI_DEBUG_ATTACH, AID_GUI_DEBUG_ATTACH_HALT})
    Enable(Id, Core && !St.Connected);
  for (int Id : {AID_GUI_DEBUG_RESET_HALT, AID_GUI_DEBUG_RESET_BREAK_AT_SYMBOL, AID_GUI_DEBUG_RESET_RUN})
    Enable(Id, Core && St.Connected);
  if (m_pStartMenu) m_pStartMenu->setEnabled(Core && !St.Connected);
  if (m_pResetMenu) m_pResetMenu->setEnabled(Core && St.Connected);
  // Settings of the connection only while not connected.
  for (const char* sName : {"Project.SetDevice", "Project.SetVordenScript", "Project.SetHostIF", "Project.SetTargetIF",
                            "Project.SetJTAGConfig", "Project.SetCorePlugin"})
    Enable(FindCommand(QLatin1String(sName)), !St.Connected);
  for (int Id : {AID_VIEW_INST_TRACE, AID_VIEW_MEMORY, AID_VIEW_PC, AID_VIEW_PC_LINE}) Enable(Id, St.Connected);
  // Location commands while their action carries a location.
  for (int Id : {AID_VIEW_DATA, AID_VIEW_MEMORY_MAP, AID_VIEW_SOURCE, AID_VIEW_DISASSEMBLY, AID_VIEW_CALL_GRAPH,
                 AID_WATCH_ADD, AID_WATCH_INSERT, AID_WATCH_REMOVE, AID_DATAGRAPH_ADD})
    if (QAction* a = Act(Id)) a->setEnabled(a->data().isValid() && !a->data().toStringList().isEmpty());
  Enable(AID_BREAK_CLEAR_ALL, St.BreakpointCount > 0);
  Enable(AID_BREAK_CLEAR_ALL_ON_DATA, St.DataBreakpointCount > 0);
  Enable(AID_TRACE_CLEAR_ALL_POINTS, St.TracepointCount > 0);
  // Window commands need an active window.
  const bool HasActive = m_pActive && m_pActive->IsOpen();
  Enable(AID_GUI_WINDOW_DOCK, HasActive && m_pActive->pDock->isFloating());
  Enable(AID_GUI_WINDOW_UNDOCK, HasActive && !m_pActive->pDock->isFloating());
  m_pStatusBar->SetConnectionInfo(St.Connected ? QStringLiteral("Connected") : QStringLiteral("Disconnected"));
  UpdateTitle();
}
