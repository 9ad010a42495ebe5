#include "ui/shell/mainwindow.h"

#include <map>
#include <vector>

#include "commands/actions.h"
#include "log/log.h"
#include "settings/edit.h"
#include "settings/store.h"
#include "ui/shell/consolewindow.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QDockWidget>
#include <QElapsedTimer>
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
}  // namespace

void ShellHooks::AddCloseQuery(const std::function<bool()>& Fn) { CloseQueries().push_back(Fn); }
void ShellHooks::AddShutDownStep(int Step, const std::function<void()>& Fn) { ShutDownSteps().emplace(Step, Fn); }

CMainWindow::CMainWindow(QWidget* pParent) : QMainWindow(pParent) {
  setObjectName(QStringLiteral("MainWindow"));
  // 1. Fields; the device event timer (single shot, 1 ms) for the device layer.
  m_pDeviceEventTimer = new QTimer(this);
  m_pDeviceEventTimer->setSingleShot(true);
  m_pDeviceEventTimer->setInterval(1);
  // 2. Messages of the following steps go to the log sink.
  InstallLogMessageHandler();
  // 4. Settings into memory.
  Settings::Load();
  // 5. User interface: the console window, the actions, identity, user settings.
  m_pConsole = new CConsoleWindow(this);
  auto* pDock = new QDockWidget(QStringLiteral("Console"), this);
  pDock->setObjectName(QStringLiteral("ConsoleDock"));
  pDock->setWidget(m_pConsole);
  addDockWidget(Qt::BottomDockWidgetArea, pDock);
  setCentralWidget(new QWidget(this));
  CreateActions();
  LinkActions(this);
  UserSettings::Load();
  RegisterOwnSlots();
  // 6. Connections: the first show event starts OnWindowShown.
  qApp->installEventFilter(this);
  m_pShownTimer = new QTimer(this);
  m_pShownTimer->setSingleShot(true);
  m_pShownTimer->setInterval(10);
  connect(m_pShownTimer, &QTimer::timeout, this, &CMainWindow::RunWindowShown);
  // 9. Title.
  UpdateTitle();
  resize(1000, 700);
}

CMainWindow::~CMainWindow() { qApp->removeEventFilter(this); }

void CMainWindow::UpdateTitle() {
  setWindowTitle(QApplication::applicationName() + QLatin1Char(' ') + QApplication::applicationVersion() +
                 QStringLiteral(" - ") + (m_sProjectPath.isEmpty() ? QStringLiteral("New Project") : m_sProjectPath));
}

void CMainWindow::SetProjectTitle(const QString& sProjectPath) {
  m_sProjectPath = sProjectPath;
  UpdateTitle();
}

void CMainWindow::CreateActions() {
  // One action per command row. Rows without a prototype belong to the
  // context menus of the debug windows, which create and link them.
  QMap<QString, QMenu*> Menus;
  for (int Id = 0; Id < ACTION_COUNT; ++Id) {
    const ACTION_DESC* r = GetActionDesc(Id);
    const QString sName = GetCommandName(Id);
    if (sName.isEmpty()) continue;
    auto* a = new QAction(sName.section(QLatin1Char('.'), 1), this);
    a->setObjectName(QString::fromLatin1(r->ActionName));
    const QString sFamily = sName.section(QLatin1Char('.'), 0, 0);
    QMenu*& m = Menus[sFamily];
    if (!m) m = menuBar()->addMenu(sFamily);
    m->addAction(a);
    addAction(a);
    ConnectAction(a, this, [Id] { RunCommandSlot(Id); });
  }
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
  if (auto* pDock = qobject_cast<QDockWidget*>(m_pConsole->parentWidget())) pDock->show();
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
  return QMainWindow::eventFilter(pObject, pEvent);
}

void CMainWindow::RunWindowShown() {
  if (m_ShownDone) return;
  m_ShownDone = true;
  if (m_OnShown) m_OnShown();
  emit InitComplete();
  for (const QString& s : GetUnlinkedActionNames()) LogWarning(QStringLiteral("Unknown GUI action could not be linked: ") + s);
}

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
  for (const auto& Step : ShutDownSteps()) Step.second();
  // Colours, fonts and preferences back to the settings store.
  UserSettings::Save();
  LogFlush();
  pEvent->accept();
  QApplication::closeAllWindows();
  QApplication::quit();
  return true;
}
