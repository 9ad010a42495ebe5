#include "ui/shell/mainwindow.h"

#include <map>
#include <vector>

#include "commands/actions.h"
#include "log/log.h"
#include "settings/edit.h"
#include "settings/store.h"
#include "ui/framework/dockwindow.h"
#include "ui/shell/consolewindow.h"
#include "ui/shell/statusbar.h"
#include "ui/shell/toolbars.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDockWidget>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QKeyEvent>
#include <QTabBar>
#include <QMenu>
#include <QMenuBar>
#include <QThread>
#include <QTimer>

namespace {
// Reads a number argument: a constant name, or an integer in any base.
bool ArgNumber(const QString& s, qint64* pValue) {
  I64 v = 0;
  if (FindConstant(s, &v)) {
    *pValue = v;
    return true;
  }
  bool ok = false;
  *pValue = s.trimmed().toLongLong(&ok, 0);
  if (!ok) *pValue = qint64(s.trimmed().toULongLong(&ok, 0));
  return ok;
}
}  // namespace

namespace {
std::vector<std::function<bool()>>& CloseQueries() {
  static std::vector<std::function<bool()>> s_Queries;
  return s_Queries;
}
std::multimap<int, std::function<void()>>& ShutDownSteps() {
  static std::multimap<int, std::function<void()>> s_Steps;
  return s_Steps;
}
SHELL_STATE_SOURCE& StateSource() {
  static SHELL_STATE_SOURCE s_Source;
  return s_Source;
}
}  // namespace

void ShellHooks::SetStateSource(const SHELL_STATE_SOURCE& Fn) { StateSource() = Fn; }

QString ShellTitleText(const QString& sAppTitle, const SHELL_STATE& St) {
  QString sProject;
  if (!St.ProjectOpen || St.ProjectPath.isEmpty())
    sProject = QStringLiteral("New Project");
  else if (St.Connected)
    sProject = QFileInfo(St.ProjectPath).completeBaseName();
  else
    sProject = St.ProjectPath;
  if (St.Connected && !St.ProgramPath.isEmpty()) return sAppTitle + QStringLiteral(" - ") + St.ProgramPath;
  QString s = sAppTitle + QStringLiteral(" - ") + sProject;
  if (St.ProjectModified) s += QStringLiteral(" - *");
  return s;
}

void ShellHooks::AddCloseQuery(const std::function<bool()>& Fn) { CloseQueries().push_back(Fn); }
void ShellHooks::AddShutDownStep(int Step, const std::function<void()>& Fn) { ShutDownSteps().emplace(Step, Fn); }

// The icons live in a resource of this static library, which the linker
// keeps only when it is named.
static void InitShellResources() { Q_INIT_RESOURCE(shellicons); }

CMainWindow::CMainWindow(QWidget* pParent) : CWindow(pParent) {
  InitShellResources();
  setObjectName(QStringLiteral("MainWindow"));
  setWindowFlags(Qt::Window);
  // The display formats belong to the debug windows; here their keys would
  // collide with the windows' own.
  for (int Format : {0, 2, 8, 10, 16})
    if (QAction* a = DisplayFormatAction(Format)) removeAction(a);
  setDockOptions(QMainWindow::AnimatedDocks | QMainWindow::AllowTabbedDocks | QMainWindow::AllowNestedDocks);
  // 1. Fields; the device event timer (single shot, 1 ms) for the device layer.
  m_pDeviceEventTimer = new QTimer(this);
  m_pDeviceEventTimer->setSingleShot(true);
  m_pDeviceEventTimer->setInterval(1);
  // 2. Messages of the following steps go to the log sink.
  InstallLogMessageHandler();
  // 4. Settings into memory.
  Settings::Load();
  // 5. User interface: the actions, identity, user settings, the debug
  // windows in their docks, the menus and the tool bars.
  m_pStatusBar = new CStatusBar(this);
  setStatusBar(m_pStatusBar);
  setCentralWidget(new QWidget(this));
  CreateActions();
  LinkActions(this);
  UserSettings::Load();
  CreateWindows();
  CreateMenus();
  CreateToolBars();
  RegisterOwnSlots();
  RegisterWindowSlots();
  // 6. Connections: the first show event starts OnWindowShown; the focus
  // decides the active window.
  qApp->installEventFilter(this);
  connect(qApp, &QApplication::focusChanged, this, qOverload<QWidget*, QWidget*>(&CMainWindow::OnFocusChanged));
  m_pShownTimer = new QTimer(this);
  m_pShownTimer->setSingleShot(true);
  m_pShownTimer->setInterval(10);
  connect(m_pShownTimer, &QTimer::timeout, this, &CMainWindow::RunWindowShown);
  m_pPeriodicTimer = new QTimer(this);
  m_pPeriodicTimer->setInterval(200);
  connect(m_pPeriodicTimer, &QTimer::timeout, this, &CMainWindow::UpdateActions);
  connect(m_pPeriodicTimer, &QTimer::timeout, this, &CMainWindow::UpdateTabBars);
  // 7.-8. Modes, window frame, file lists and the debug perspective.
  resize(1000, 700);
  m_RecentProjects.Load(Settings::Value(QStringLiteral("AppData/RecentProjects")).toStringList());
  m_RecentPrograms.Load(Settings::Value(QStringLiteral("AppData/RecentPrograms")).toStringList());
  const QByteArray Geometry = Settings::Value(QStringLiteral("AppData/Geometry")).toByteArray();
  if (!Geometry.isEmpty()) restoreGeometry(Geometry);
  RebuildRecentMenus();
  ApplyDefaultLayout();
  RestorePerspective();
  m_Perspective = 1;
  // 9. Title and actions.
  UpdateTitle();
  UpdateActions();
}

CMainWindow::~CMainWindow() {
  qApp->removeEventFilter(this);
  disconnect(qApp, &QApplication::focusChanged, this, nullptr);
  UnlinkActions(this);
  for (SHELL_WINDOW* p : AllWindows()) delete p;
}

SHELL_STATE CMainWindow::State() const {
  SHELL_STATE St;
  if (StateSource()) St = StateSource()();
  if (St.ProjectPath.isEmpty() && !m_sProjectPath.isEmpty()) {
    St.ProjectPath = m_sProjectPath;
    St.ProjectOpen = true;
  }
  return St;
}

void CMainWindow::UpdateTitle() {
  const QString sApp = QApplication::applicationName() + QLatin1Char(' ') + QApplication::applicationVersion();
  const QString s = ShellTitleText(sApp, State());
  if (s != windowTitle()) setWindowTitle(s);
}

void CMainWindow::SetProjectTitle(const QString& sProjectPath) {
  m_sProjectPath = sProjectPath;
  if (!sProjectPath.isEmpty()) AddRecentProject(sProjectPath);
  UpdateTitle();
}

void CMainWindow::OnProjectModifiedChanged() { UpdateTitle(); }

void CMainWindow::AddRecentProject(const QString& sPath) {
  m_RecentProjects.Add(sPath);
  RebuildRecentMenus();
}

void CMainWindow::AddRecentProgram(const QString& sPath) {
  m_RecentPrograms.Add(sPath);
  RebuildRecentMenus();
}

void CMainWindow::RegisterOwnSlots() {
  SetCommandSlot(AID_UTIL_LOG, [this](int Id) { OnUtilLog(Id); });
  SetCommandSlot(AID_UTIL_LOG_HEX, [this](int Id) { OnUtilLogHex(Id); });
  SetCommandSlot(AID_UTIL_SLEEP, [this](int Id) { OnUtilSleep(Id); });
  SetCommandSlot(AID_HELP_COMMANDS, [this](int Id) { OnHelpCommands(Id); });
  SetCommandSlot(AID_HELP_ABOUT, [this](int Id) { OnHelpAbout(Id); });
  SetCommandSlot(AID_FILE_EXIT, [this](int Id) { OnFileExit(Id); });
}

void CMainWindow::OnUtilLog(int Id) {
  if (!CheckArgCount(Id)) return;
  ConsolePrintLine(GetActionArgs(Id).at(0), 0, false, ScriptColorId());
  SetActionNoEcho(Id);
}

void CMainWindow::OnUtilLogHex(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  qint64 v = 0;
  if (!ArgNumber(Args[1], &v)) {
    SetActionError(Id, QStringLiteral("invalid parameter"), Args[1]);
    return;
  }
  ConsolePrintLine(Args[0] + QStringLiteral("0x") + QString::number(quint32(v), 16).toUpper().rightJustified(8, QLatin1Char('0')), 0, false,
                   ScriptColorId());
  SetActionNoEcho(Id);
}

void CMainWindow::OnUtilSleep(int Id) {
  if (!CheckArgCount(Id)) return;
  qint64 ms = 0;
  if (!ArgNumber(GetActionArgs(Id).at(0), &ms) || ms < 0) {
    SetActionError(Id, QStringLiteral("invalid parameter"));
    return;
  }
  // Events go on being processed while the time passes, so the window stays
  // usable; closing it ends the wait. In batch mode the wait counts against
  // the time limit of the line.
  const qint64 Left = CommandTimeLeftMs();
  const bool Limited = Left >= 0 && Left < ms;
  const qint64 Wait = Limited ? Left : ms;
  QElapsedTimer t;
  t.start();
  while (t.elapsed() < Wait && !m_IsClosing) {
    QApplication::processEvents(QEventLoop::AllEvents, 5);
    QThread::msleep(std::min<qint64>(5, std::max<qint64>(0, Wait - t.elapsed())));
  }
  if (Limited) {
    SetActionError(Id, QStringLiteral("batch time limit of %1 s per line exceeded").arg(CommandTimeLimitSeconds()));
    SetActionResult(Id, -1);
    return;
  }
  SetActionResult(Id, 0);
}

void CMainWindow::OnHelpCommands(int Id) {
  if (!CheckArgCount(Id)) return;
  if (SHELL_WINDOW* p = EntryOf(m_pConsole)) ShowWindow(p);
  ConsolePrintLines(GetHelpLines(), 0, false, CommandColorId());
}

void CMainWindow::OnHelpAbout(int Id) {
  if (!CheckArgCount(Id)) return;
  ConsolePrintLine(QApplication::applicationName() + QStringLiteral(" - The Vorden Debugger ") + QApplication::applicationVersion());
}

void CMainWindow::OnFileExit(int Id) {
  if (!CheckArgCount(Id)) return;
  m_ExitRequested = true;
  // Leaves the slot first, so that the echo of this command is complete.
  QTimer::singleShot(0, this, [this] { close(); });
}

bool CMainWindow::eventFilter(QObject* pObject, QEvent* pEvent) {
  if (pObject == this && pEvent->type() == QEvent::Show && !m_ShownDone) m_pShownTimer->start();
  // Escape outside a modal or popup widget returns to the middle of the
  // window, unless the focused window takes the key itself.
  if (pEvent->type() == QEvent::KeyPress && static_cast<QKeyEvent*>(pEvent)->key() == Qt::Key_Escape &&
      !QApplication::activeModalWidget() && !QApplication::activePopupWidget() && centralWidget())
    if (auto* w = qobject_cast<QWidget*>(pObject); w && w->window() == this && w == QApplication::focusWidget()) {
      SHELL_WINDOW* p = EntryOf(w);
      const bool WindowTakesIt = p && p->pWindow->property("EscKeyOpActive").toBool();
      if (!WindowTakesIt) {
        centralWidget()->setFocus(Qt::ShortcutFocusReason);
        return true;
      }
    }
  // A window closed by its title bar: the command does it, so that the
  // console shows the statement.
  if (pEvent->type() == QEvent::Close && !m_IsClosing && !qobject_cast<CDockWindow*>(pObject))
    if (auto* pDock = qobject_cast<QDockWidget*>(pObject))
      if (SHELL_WINDOW* p = EntryOf(pDock); p && p->pDock == pDock) {
        pEvent->ignore();
        ExecAction(AID_WINDOW_CLOSE, p->sName);
        return true;
      }
  return CWindow::eventFilter(pObject, pEvent);
}

void CMainWindow::RunWindowShown() {
  if (m_ShownDone) return;
  m_ShownDone = true;
  m_pPeriodicTimer->start();
  if (m_OnShown) m_OnShown();
  UpdateActions();
  emit InitComplete();
  for (const QString& s : GetUnlinkedActionNames()) LogWarning(QStringLiteral("Unknown GUI action could not be linked: ") + s);
}

void CMainWindow::UpdateTabBars() {
  // Tab bars of docked windows are made as windows are tabified; each new
  // one lets the user move its tabs and shows their texts in full.
  for (QTabBar* t : findChildren<QTabBar*>(QString(), Qt::FindDirectChildrenOnly)) {
    if (t->property("TavitTabBar").toBool()) continue;
    t->setProperty("TavitTabBar", true);
    t->setMovable(true);
    t->setElideMode(Qt::ElideNone);
  }
}

void CMainWindow::contextMenuEvent(QContextMenuEvent* pEvent) { QMainWindow::contextMenuEvent(pEvent); }

void CMainWindow::closeEvent(QCloseEvent* pEvent) {
  if (!OnWindowClosed(pEvent)) return;
  QMainWindow::closeEvent(pEvent);
}

bool CMainWindow::OnWindowClosed(QCloseEvent* pEvent) {
  if (m_IsClosing) {
    pEvent->accept();
    return true;
  }
  // Unsaved project and modified documents may cancel the close.
  for (const auto& Query : CloseQueries()) {
    if (!Query()) {
      pEvent->ignore();
      return false;
    }
  }
  m_IsClosing = true;
  for (QTimer* t : findChildren<QTimer*>()) t->stop();
  // AppData and the perspective.
  Settings::SetValue(QStringLiteral("AppData/RecentProjects"), m_RecentProjects.Paths());
  Settings::SetValue(QStringLiteral("AppData/RecentPrograms"), m_RecentPrograms.Paths());
  Settings::SetValue(QStringLiteral("AppData/Geometry"), saveGeometry());
  Settings::SetValue(QStringLiteral("AppData/Version"), QApplication::applicationVersion());
  SavePerspective();
  for (const auto& Step : ShutDownSteps()) Step.second();
  // Colours, fonts and preferences back to the settings store.
  UserSettings::Save();
  LogFlush();
  pEvent->accept();
  QApplication::closeAllWindows();
  QApplication::quit();
  return true;
}
