// The window registry of the main window: the debug windows in their docks,
// lookup by name, the commands Window.* and Toolbar.*, the Window menu and
// the focus that decides the active window.
#include "commands/actions.h"
#include "ui/framework/dockwindow.h"
#include "ui/framework/window.h"
#include "ui/shell/consolewindow.h"
#include "ui/shell/mainwindow.h"
#include "ui/shell/statusbar.h"
#include "ui/shell/toolbars.h"

#include <QAction>
#include <QApplication>
#include <QDockWidget>
#include <QMenu>
#include <QToolTip>

namespace {

SHELL_WINDOW_FACTORY& Factory(SHELL_WINDOW_KINDS Kind) {
  static SHELL_WINDOW_FACTORY s_Factories[SWK_COUNT];
  return s_Factories[Kind];
}

// Object names of the windows and their titles, by kind.
struct WINDOW_NAMES {
  const char* sObjectName;
  const char* sTitle;
  Qt::DockWidgetArea Area;
};
const WINDOW_NAMES& NamesOf(SHELL_WINDOW_KINDS Kind) {
  static const WINDOW_NAMES s_Names[SWK_COUNT] = {
      {"CallStackWindow", "Call Stack", Qt::RightDockWidgetArea},
      {"SourceFilesWindow", "Source Files", Qt::LeftDockWidgetArea},
      {"DisassemblyWindow", "Disassembly", Qt::RightDockWidgetArea},
      {"SourceWindow", "Source", Qt::RightDockWidgetArea},
      {"BreakpointWindow", "Break & Tracepoints", Qt::BottomDockWidgetArea},
      {"GlobalsWindow", "Global Data", Qt::BottomDockWidgetArea},
      {"LocalsWindow", "Local Data", Qt::BottomDockWidgetArea},
      {"WatchWindow", "Watched Data", Qt::BottomDockWidgetArea},
      {"FunctionsWindow", "Functions", Qt::LeftDockWidgetArea},
      {"CallGraphWindow", "Call Graph Window", Qt::BottomDockWidgetArea},
      {"TimelineWindow", "Timeline", Qt::BottomDockWidgetArea},
      {"MemoryUsageWindow", "Memory Usage Window", Qt::BottomDockWidgetArea},
      {"CodeProfileWindow", "Code Profile", Qt::BottomDockWidgetArea},
      {"InstrTraceWindow", "Instruction Trace", Qt::BottomDockWidgetArea},
      {"TerminalWindow", "Terminal", Qt::BottomDockWidgetArea},
      {"DataGraphWindow", "Data Graph", Qt::BottomDockWidgetArea},
      {"FindResultsWindow", "Find Results", Qt::BottomDockWidgetArea},
      {"ConsoleWindow", "Console", Qt::BottomDockWidgetArea},
      {"VordenWebControlWindow", "Vorden Control Panel", Qt::BottomDockWidgetArea},
      {"PowerGraphWindow", "Power Graph", Qt::BottomDockWidgetArea},
      {"MemoryWindow", "Memory", Qt::RightDockWidgetArea},
      {"RegisterWindow", "Registers", Qt::LeftDockWidgetArea},
  };
  return s_Names[Kind];
}

// Old and other names by which a window is found.
QString TranslateAlias(const QString& s) {
  static const QHash<QString, QString> s_Aliases = [] {
    QHash<QString, QString> h;
    h.insert(QStringLiteral("threads"), QStringLiteral("Tasks"));
    h.insert(QStringLiteral("registers"), QStringLiteral("Registers 1"));
    h.insert(QStringLiteral("memory content"), QStringLiteral("Memory"));
    for (int i = 1; i <= 4; ++i) {
      h.insert(QStringLiteral("memory content%1").arg(i), QStringLiteral("Memory %1").arg(i));
      h.insert(QStringLiteral("memory%1").arg(i), QStringLiteral("Memory %1").arg(i));
    }
    h.insert(QStringLiteral("vorden web control"), QStringLiteral("Vorden Control Panel"));
    for (const char* s : {"data breakpoints", "breakpoints", "breakpoints on data", "tracepoints", "breakpoints/tracepoints"})
      h.insert(QLatin1String(s), QStringLiteral("Break & Tracepoints"));
    return h;
  }();
  return s_Aliases.value(s.toLower(), s);
}

bool Matches(const SHELL_WINDOW* p, const QString& sInput) {
  const QString s = TranslateAlias(sInput.trimmed());
  if (s.isEmpty()) return false;
  if (auto* w = qobject_cast<CWindow*>(p->pWindow); w && w->IsMatched(sInput)) return true;
  if (s.compare(p->sName, Qt::CaseInsensitive) == 0) return true;
  if (p->pWindow && s.compare(p->pWindow->objectName(), Qt::CaseInsensitive) == 0) return true;
  for (const QString& a : p->Aliases)
    if (s.compare(a, Qt::CaseInsensitive) == 0) return true;
  return false;
}

// A display format given by value or by constant name.
bool ParseDisplayFormat(const QString& s, int* pFormat) {
  I64 v = 0;
  bool Ok = FindConstant(s.trimmed(), &v);
  if (!Ok) v = s.trimmed().toLongLong(&Ok, 0);
  if (!Ok || !(v == 0 || v == 2 || v == 8 || v == 10 || v == 16)) return false;
  *pFormat = int(v);
  return true;
}

// A truth value: a constant (ON, YES, ...) or a number.
bool ParseTruth(const QString& s, bool* pOn) {
  I64 v = 0;
  bool Ok = FindConstant(s.trimmed(), &v);
  if (!Ok) v = s.trimmed().toLongLong(&Ok, 0);
  if (!Ok) return false;
  *pOn = v != 0;
  return true;
}

// The lowest number that no window of a list has (the list is sorted).
int FreeIndex(const QList<SHELL_WINDOW*>& List) {
  int Index = 1;
  for (const SHELL_WINDOW* p : List) {
    if (p->Index != Index) break;
    ++Index;
  }
  return Index;
}

}  // namespace

void ShellWindows::SetFactory(SHELL_WINDOW_KINDS Kind, const SHELL_WINDOW_FACTORY& Fn) { Factory(Kind) = Fn; }
bool ShellWindows::HasFactory(SHELL_WINDOW_KINDS Kind) { return bool(Factory(Kind)); }

bool SHELL_WINDOW::IsOpen() const { return pDock && !pDock->isHidden(); }

SHELL_WINDOW* CMainWindow::CreateWindow(SHELL_WINDOW_KINDS Kind, int Index, QWidget* pWidget) {
  const WINDOW_NAMES& n = NamesOf(Kind);
  auto* p = new SHELL_WINDOW;
  p->Kind = Kind;
  p->Index = Index;
  p->pWindow = pWidget;
  p->sName = Index > 0 ? QStringLiteral("%1 %2").arg(QLatin1String(n.sTitle)).arg(Index) : QLatin1String(n.sTitle);
  if (Kind == SWK_MEMORY) p->Aliases << QStringLiteral("Memory");
  if (Kind == SWK_REGISTERS) p->Aliases << QStringLiteral("Registers");
  if (pWidget->objectName().isEmpty()) pWidget->setObjectName(QLatin1String(n.sObjectName));
  if (pWidget->windowTitle().isEmpty()) pWidget->setWindowTitle(p->sName);
  if (auto* w = qobject_cast<CWindow*>(pWidget)) {
    // A framework window's dock turns a close by its title bar into the
    // command itself.
    p->pDock = new CDockWindow(w, this);
  } else {
    p->pDock = new QDockWidget(p->sName, this);
    p->pDock->setWidget(pWidget);
    // Closing such a dock by its title bar is turned into the command by
    // the main window's event filter, so that the console shows it.
  }
  p->pDock->setObjectName(p->sName);
  p->pDock->setWindowTitle(p->sName);
  p->pDock->setAllowedAreas(Qt::AllDockWidgetAreas);
  p->pDock->hide();
  addDockWidget(n.Area, p->pDock);
  p->pDock->hide();
  connect(p->pDock, &QDockWidget::topLevelChanged, this, [this] { UpdateActions(); });
  return p;
}

void CMainWindow::CreateWindows() {
  for (int k = 0; k < SWK_MEMORY; ++k) {
    const auto Kind = SHELL_WINDOW_KINDS(k);
    QWidget* w = nullptr;
    if (Factory(Kind))
      w = Factory(Kind)(this, 0);
    else if (Kind == SWK_CONSOLE)
      w = new CConsoleWindow(this);
    if (!w) continue;
    if (Kind == SWK_CONSOLE) m_pConsole = qobject_cast<CConsoleWindow*>(w);
    m_Windows.append(CreateWindow(Kind, 0, w));
  }
  AddMemoryWindow();
  AddRegisterWindow();
}

// One more window of a kind that exists in any number, at the lowest free
// index of its list.
SHELL_WINDOW* CMainWindow::AddNumberedWindow(SHELL_WINDOW_KINDS Kind, QList<SHELL_WINDOW*>& List) {
  if (!Factory(Kind)) return nullptr;
  const int Index = FreeIndex(List);
  QWidget* w = Factory(Kind)(this, Index);
  if (!w) return nullptr;
  SHELL_WINDOW* p = CreateWindow(Kind, Index, w);
  List.insert(Index - 1 < List.size() ? Index - 1 : List.size(), p);
  return p;
}

void CMainWindow::RemoveNumberedWindow(QList<SHELL_WINDOW*>& List, SHELL_WINDOW* p) {
  if (!List.removeOne(p)) return;
  if (m_pActive == p) m_pActive = nullptr;
  removeDockWidget(p->pDock);
  p->pDock->deleteLater();
  delete p;
}

SHELL_WINDOW* CMainWindow::AddMemoryWindow() {
  SHELL_WINDOW* p = AddNumberedWindow(SWK_MEMORY, m_MemoryWindows);
  if (p && p->Index > 1)
    if (SHELL_WINDOW* pFirst = m_MemoryWindows.first(); pFirst != p && pFirst->IsOpen())
      tabifyDockWidget(pFirst->pDock, p->pDock);
  return p;
}

SHELL_WINDOW* CMainWindow::AddRegisterWindow() { return AddNumberedWindow(SWK_REGISTERS, m_RegisterWindows); }
void CMainWindow::RemoveMemoryWindow(SHELL_WINDOW* p) { RemoveNumberedWindow(m_MemoryWindows, p); }
void CMainWindow::RemoveRegisterWindow(SHELL_WINDOW* p) { RemoveNumberedWindow(m_RegisterWindows, p); }

QList<SHELL_WINDOW*> CMainWindow::AllWindows() const { return m_Windows + m_MemoryWindows + m_RegisterWindows; }

SHELL_WINDOW* CMainWindow::FindWindow(const QString& sInput, bool PreferOpen) const {
  SHELL_WINDOW* pOther = nullptr;
  for (SHELL_WINDOW* p : AllWindows()) {
    if (!Matches(p, sInput)) continue;
    if (p->IsOpen() == PreferOpen) return p;
    if (!pOther) pOther = p;
  }
  return pOther;
}

SHELL_WINDOW* CMainWindow::EntryOf(const QWidget* pWidget) const {
  for (const QWidget* w = pWidget; w; w = w->parentWidget())
    for (SHELL_WINDOW* p : AllWindows())
      if (p->pDock == w || p->pWindow == w) return p;
  return nullptr;
}

void CMainWindow::ShowWindow(SHELL_WINDOW* p) {
  if (!p) return;
  p->pDock->show();
  p->pDock->raise();
  p->pWindow->setFocus();
  m_pActive = p;
}

void CMainWindow::CloseWindow(SHELL_WINDOW* p) {
  if (!p || p->Kind == SWK_SOURCE) return;
  if (auto* d = qobject_cast<CDockWindow*>(p->pDock)) d->CloseWindow();
  // A dock whose main window is not on the screen takes no close event.
  p->pDock->hide();
  // Further memory and register windows go when they are closed.
  if (p->Kind == SWK_MEMORY && p->Index > 1) RemoveMemoryWindow(p);
  else if (p->Kind == SWK_REGISTERS && p->Index > 1) RemoveRegisterWindow(p);
  else if (m_pActive == p) m_pActive = nullptr;
}

void CMainWindow::RegisterWindowSlots() {
  SetCommandSlot(AID_WINDOW_SHOW, [this](int Id) { OnWindowShow(Id); });
  SetCommandSlot(AID_WINDOW_CLOSE, [this](int Id) { OnWindowClose(Id); });
  SetCommandSlot(AID_WINDOW_CLOSE_ALL, [this](int Id) { OnWindowCloseAll(Id); });
  SetCommandSlot(AID_WINDOW_SET_DISPLAY_FORMAT, [this](int Id) { OnWindowSetDisplayFormat(Id); });
  for (int Id : {AID_WINDOW_ADD, AID_WINDOW_INSERT, AID_WINDOW_REMOVE, AID_WINDOW_CLEAR, AID_WINDOW_EXPAND_ALL,
                 AID_WINDOW_COLLAPSE_ALL})
    SetCommandSlot(Id, [this](int Id) { OnWindowPerform(Id); });
  SetCommandSlot(AID_WINDOW_SHOW_FULL_SCREEN, [this](int Id) { OnWindowShowFullScreen(Id); });
  SetCommandSlot(AID_TOOLBAR_SHOW, [this](int Id) { OnToolbarShowClose(Id, true); });
  SetCommandSlot(AID_TOOLBAR_CLOSE, [this](int Id) { OnToolbarShowClose(Id, false); });
}

// A window command's failure: the error word, the name given, result -1.
static void FailWindowCommand(int Id, const QString& sWhat, const QString& sDetail) {
  SetActionError(Id, sWhat, sDetail);
  SetActionResult(Id, -1);
}

void CMainWindow::OnWindowShow(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString sName = GetActionArgs(Id).at(0).trimmed();
  SHELL_WINDOW* p = nullptr;
  // "Memory" and "Registers": the first closed one, or one more.
  const bool IsMemory = sName.compare(QLatin1String("Memory"), Qt::CaseInsensitive) == 0;
  const bool IsRegisters = sName.compare(QLatin1String("Registers"), Qt::CaseInsensitive) == 0;
  if (IsMemory || IsRegisters) {
    for (SHELL_WINDOW* q : IsMemory ? m_MemoryWindows : m_RegisterWindows)
      if (!q->IsOpen()) {
        p = q;
        break;
      }
    if (!p) p = IsMemory ? AddMemoryWindow() : AddRegisterWindow();
  } else {
    p = FindWindow(sName, false);
  }
  if (!p) return FailWindowCommand(Id, QStringLiteral("unknown window"), sName);
  ShowWindow(p);
  SetActionArgs(Id, {p->sName});
  SetActionResult(Id, 0);
}

void CMainWindow::OnWindowClose(int Id) {
  if (!CheckArgCount(Id, 0)) return;
  const QStringList Args = GetActionArgs(Id);
  SHELL_WINDOW* p = Args.isEmpty() ? m_pActive : FindWindow(Args.at(0), true);
  if (!p) return FailWindowCommand(Id, QStringLiteral("unknown window"), Args.value(0));
  if (Args.isEmpty()) SetActionArgs(Id, {p->sName});
  CloseWindow(p);
  SetActionResult(Id, 0);
}

void CMainWindow::OnWindowCloseAll(int Id) {
  if (!CheckArgCount(Id)) return;
  for (SHELL_WINDOW* p : AllWindows())
    if (p->IsOpen()) CloseWindow(p);
  SetActionResult(Id, 0);
}

void CMainWindow::OnWindowSetDisplayFormat(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  SHELL_WINDOW* p = FindWindow(Args.at(0), true);
  if (!p) return FailWindowCommand(Id, QStringLiteral("unknown window"), Args.at(0));
  int Format = 0;
  if (!ParseDisplayFormat(Args.at(1), &Format)) return FailWindowCommand(Id, QStringLiteral("invalid parameter"), Args.at(1));
  if (auto* w = qobject_cast<CWindow*>(p->pWindow)) {
    w->SetDisplayFormat(Format);
  } else if (!QMetaObject::invokeMethod(p->pWindow, "SetDisplayFormat", Q_ARG(int, Format))) {
    return FailWindowCommand(Id, QStringLiteral("invalid parameter"), p->sName + QStringLiteral(" has no display format"));
  }
  SetActionResult(Id, 0);
}

void CMainWindow::OnWindowPerform(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  SHELL_WINDOW* p = FindWindow(Args.at(0), true);
  if (!p) return FailWindowCommand(Id, QStringLiteral("unknown window"), Args.at(0));
  // The window's generic command takes the id and the further arguments.
  // The arguments stay in the action for the window to read.
  int r = -1;
  if (auto* w = qobject_cast<CWindow*>(p->pWindow)) r = w->PerformAction(Id);
  if (r < 0 && GetActionError(Id).isEmpty())
    SetActionError(Id, QStringLiteral("not supported by window"), p->sName);
  SetActionResult(Id, r < 0 ? -1 : r);
}

void CMainWindow::OnWindowShowFullScreen(int Id) {
  if (!CheckArgCount(Id, 0)) return;
  const QStringList Args = GetActionArgs(Id);
  bool On = !isFullScreen();
  if (!Args.isEmpty() && !ParseTruth(Args.at(0), &On)) {
    SetActionError(Id, QStringLiteral("invalid parameter"));
    SetActionResult(Id, -1);
    return;
  }
  if (On)
    setWindowState(windowState() | Qt::WindowFullScreen | Qt::WindowMaximized);
  else
    setWindowState((windowState() & ~Qt::WindowFullScreen) | Qt::WindowMaximized);
  if (QAction* a = GetActionDesc(AID_WINDOW_SHOW_FULL_SCREEN)->Action)
    a->setText(On ? QStringLiteral("Exit Full Screen") : QStringLiteral("Enter Full Screen"));
  SetActionArgs(Id, {QString::number(On ? 1 : 0)});
  SetActionResult(Id, 0);
}

void CMainWindow::OnToolbarShowClose(int Id, bool Show) {
  if (!CheckArgCount(Id)) return;
  const QString sName = GetActionArgs(Id).at(0);
  CToolBar* p = FindToolBar(sName);
  if (!p) {
    SetActionError(Id, QStringLiteral("unknown toolbar"), sName);
    SetActionResult(Id, -1);
    // The menu item keeps the bar's state.
    return;
  }
  p->setVisible(Show);
  if (p->ToggleAction()) p->ToggleAction()->setChecked(Show);
  SetActionResult(Id, 0);
}

void CMainWindow::OnWindowDockUndock(bool Dock) {
  if (!m_pActive || !m_pActive->IsOpen()) return;
  m_pActive->pDock->setFloating(!Dock);
  UpdateActions();
}

void CMainWindow::OnFocusChanged(QWidget* pOld, QWidget* pNew) {
  QToolTip::hideText();
  SHELL_WINDOW* pNewWindow = pNew ? EntryOf(pNew) : nullptr;
  if (pNewWindow) m_pFocusBeforeModal = pNew;
  if (!pNew && pOld) return;  // the main window lost the focus
  if (pNewWindow && pNewWindow != m_pActive) {
    m_pActive = pNewWindow;
    m_pStatusBar->SetActiveWindowStatus(pNewWindow->sName);
    UpdateActions();
    emit ActiveWindowChanged(pNewWindow->pWindow);
  }
}

void CMainWindow::UpdateWindowMenu() {
  QMenu* m = m_pWindowMenu;
  m->clear();
  // The windows, each shown or hidden by its item.
  for (SHELL_WINDOW* p : AllWindows()) {
    QAction* a = m->addAction(p->sName);
    a->setCheckable(true);
    a->setChecked(p->IsOpen());
    const QString sName = p->sName;
    connect(a, &QAction::triggered, this, [sName](bool On) { ExecAction(On ? AID_WINDOW_SHOW : AID_WINDOW_CLOSE, sName); });
  }
  m->addSeparator();
  // The layout group.
  for (int Id : {AID_GUI_WINDOW_DOCK, AID_GUI_WINDOW_UNDOCK, AID_WINDOW_CLOSE, AID_WINDOW_CLOSE_ALL})
    if (QAction* a = GetActionDesc(Id)->Action) m->addAction(a);
  if (m_pToolbarsMenu) m->addMenu(m_pToolbarsMenu);
  if (QAction* a = GetActionDesc(AID_WINDOW_SHOW_FULL_SCREEN)->Action) m->addAction(a);
}
