#include "ui/framework/window.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/device.h"
#include "elf/elf.h"
#include "log/messagebox.h"
#include "ui/framework/dockwindow.h"

#include <QAction>
#include <QActionGroup>
#include <QApplication>
#include <QContextMenuEvent>
#include <QMenu>
#include <QPainter>
#include <QPushButton>
#include <QTimer>

namespace {

QList<CWindow*>& Windows() {
  static QList<CWindow*> s_Windows;
  return s_Windows;
}

std::function<bool(U32*)>& PcSource() {
  static std::function<bool(U32*)> s_Source = [](U32* pPC) {
    CDevice* d = CDevice::InstanceIfCreated();
    if (!d) return false;
    *pPC = d->CurrentPC();
    return true;
  };
  return s_Source;
}

struct FORMAT_ACTION {
  int Format;
  const char* Text;
  const char* Shortcut;
};
// Menu order; the shortcut numbers are those of the format dialog.
constexpr FORMAT_ACTION kFormats[5] = {{0, "&Auto", "Alt+1"},
                                       {2, "&Binary", "Alt+4"},
                                       {10, "&Decimal", "Alt+2"},
                                       {16, "&Hexadecimal", "Alt+3"},
                                       {8, "&Character", "Alt+5"}};

struct ALIAS {
  const char* Alias;
  const char* Name;
};
constexpr ALIAS kAliases[] = {
    {"Threads", "Tasks"},
    {"Registers", "Registers 1"},
    {"Memory Content", "Memory"},
    {"Memory Content1", "Memory 1"},
    {"Memory Content2", "Memory 2"},
    {"Memory Content3", "Memory 3"},
    {"Memory Content4", "Memory 4"},
    {"Memory1", "Memory 1"},
    {"Memory2", "Memory 2"},
    {"Memory3", "Memory 3"},
    {"Memory4", "Memory 4"},
    {"Vorden Web Control", "Vorden Control Panel"},
    {"Data Breakpoints", "Break & Tracepoints"},
    {"Breakpoints", "Break & Tracepoints"},
    {"Breakpoints on Data", "Break & Tracepoints"},
    {"Tracepoints", "Break & Tracepoints"},
    {"Breakpoints/Tracepoints", "Break & Tracepoints"},
};

constexpr std::pair<int, const char*> kAreas[] = {
    {DOCK_AREA_LEFT, "LEFT"}, {DOCK_AREA_RIGHT, "RIGHT"}, {DOCK_AREA_BOTTOM, "BOTTOM"}, {DOCK_AREA_FLOATING, "FLOATING"}};

constexpr const char* kAttributeNames[WIN_ATTR_FIRST_OWN] = {
    "OpenWindow", "DockArea", "x", "y", "w", "h", "FilterBarShown", nullptr, nullptr, nullptr, nullptr, nullptr,
    "DisplayFormat"};

QString Quoted(const QString& s) { return QLatin1Char('"') + s + QLatin1Char('"'); }

}  // namespace

CWindow::CWindow(QWidget* pParent) : QMainWindow(pParent) {
  Windows().append(this);
  std::fill(std::begin(m_aAttributes), std::end(m_aAttributes), 0);
  setWindowFlags(Qt::Widget);
  setContextMenuPolicy(Qt::DefaultContextMenu);
  m_pFormatGroup = new QActionGroup(this);
  for (int i = 0; i < 5; ++i) {
    QAction* a = new QAction(QString::fromLatin1(kFormats[i].Text), this);
    a->setCheckable(true);
    a->setData(kFormats[i].Format);
    a->setShortcut(QKeySequence(QString::fromLatin1(kFormats[i].Shortcut)));
    a->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    m_pFormatGroup->addAction(a);
    addAction(a);
    Connect(a, SIGNAL(triggered()), this, SLOT(OnActionSetDispFormTriggered()));
    m_apFormatActions[i] = a;
  }
  m_apFormatActions[0]->setChecked(true);
  m_pActionClear = new QAction(QStringLiteral("Clear"), this);
  Connect(m_pActionClear, SIGNAL(triggered()), this, SLOT(OnActionClearTriggered()));
  m_pActionAdd = new QAction(QStringLiteral("Add..."), this);
  Connect(m_pActionAdd, SIGNAL(triggered()), this, SLOT(OnActionAddTriggered()));
  m_pEmptyButton = new QPushButton(this);
  m_pEmptyButton->hide();
  connect(m_pEmptyButton, &QPushButton::clicked, this, &CWindow::OnEmptyWindowButtonClicked);
  m_pDeactivateTimer = new QTimer(this);
  m_pDeactivateTimer->setSingleShot(true);
  m_pDeactivateTimer->setInterval(500);
  connect(m_pDeactivateTimer, &QTimer::timeout, this, &CWindow::OnDeactivateTimerTimeout);
  connect(this, &CWindow::ContentChanged, this, &CWindow::OnContentChanged);
  connect(this, &CWindow::DisplayFormatChanged, this, &CWindow::OnDisplayFormatChanged);
  connect(this, &CWindow::FlagChanged, this, &CWindow::OnFlagChanged);
}

CWindow::~CWindow() { Windows().removeAll(this); }

const QList<CWindow*>& CWindow::AllWindows() { return Windows(); }

CWindow* CWindow::FindWindow(const QString& sInput) {
  for (CWindow* w : Windows())
    if (w->IsMatched(sInput)) return w;
  return nullptr;
}

void CWindow::SetDevicePcSource(const std::function<bool(U32*)>& Source) { PcSource() = Source; }

QString CWindow::ResolveAlias(const QString& sInput) {
  const QString s = sInput.trimmed();
  for (const ALIAS& a : kAliases)
    if (s.compare(QLatin1String(a.Alias), Qt::CaseInsensitive) == 0) return QString::fromLatin1(a.Name);
  return s;
}

// ---------------------------------------------------------------- state

void CWindow::Repaint() {
  update();
  if (centralWidget()) centralWidget()->update();
}

void CWindow::SetWindowTitle(QString Title) {
  setWindowTitle(Title);
  if (m_pDock) m_pDock->setWindowTitle(Title);
}

void CWindow::ShowContextMenu(QPoint Pos) {
  QMenu Menu(this);
  FillContextMenu(&Menu);
  if (!Menu.isEmpty()) Menu.exec(mapToGlobal(Pos));
}

void CWindow::FillContextMenu(QMenu* pMenu) {
  if (!IsEmpty()) pMenu->addAction(m_pActionClear);
  AddDisplayFormatMenu(pMenu);
}

void CWindow::contextMenuEvent(QContextMenuEvent* pEvent) {
  OnContextMenuRequested(pEvent->pos());
  pEvent->accept();
}

void CWindow::SetEnabled(bool Enabled) {
  if (m_Enabled == Enabled) return;
  m_Enabled = Enabled;
  emit StateChanged(Enabled);
}

void CWindow::SetActive(bool Active) {
  if (Active) m_pDeactivateTimer->stop();
  if (m_Active == Active) return;
  m_Active = Active;
  emit ActivationChanged(Active);
}

void CWindow::SetName(QString Name) {
  setObjectName(Name);
  if (m_pDock) m_pDock->setObjectName(Name);
}

QString CWindow::GetName() const { return m_pDock ? m_pDock->objectName() : objectName(); }

void CWindow::SetFlag(WINDOW_FLAGS Flag, bool Enabled) {
  const U32 Old = m_Flags;
  m_Flags = Enabled ? (m_Flags | Flag) : (m_Flags & ~U32(Flag));
  if (Old != m_Flags) emit FlagChanged(Flag, Enabled);
}

void CWindow::SetDisplayFormat(int DisplayFormat) {
  m_DisplayFormat = U8(DisplayFormat);
  m_aAttributes[WIN_ATTR_DISPLAY_FORMAT] = DisplayFormat;
  if (QAction* a = DisplayFormatAction(DisplayFormat)) a->setChecked(true);
  emit DisplayFormatChanged(DisplayFormat);
}

QAction* CWindow::DisplayFormatAction(int Format) const {
  for (QAction* a : m_apFormatActions)
    if (a->data().toInt() == Format) return a;
  return nullptr;
}

void CWindow::AddDisplayFormatMenu(QMenu* pMenu) {
  QMenu* m = pMenu->addMenu(QStringLiteral("Display &All As"));
  for (QAction* a : m_apFormatActions) m->addAction(a);
}

// ---------------------------------------------------------------- actions

bool CWindow::Connect(QObject* pSender, const char* sSignal, QObject* pReceiver, const char* sSlot) {
  auto* pAction = qobject_cast<QAction*>(pSender);
  const bool Bracket = pAction && QByteArray(sSignal).contains("triggered(");
  if (Bracket && !connect(pAction, SIGNAL(triggered()), this, SLOT(OnActionTriggered()))) return false;
  const bool Ok = bool(connect(pSender, sSignal, pReceiver, sSlot));
  if (Bracket) connect(pAction, SIGNAL(triggered()), this, SLOT(OnActionPerformed()));
  return Ok;
}

bool CWindow::Disconnect(QObject* pSender, const char* sSignal, QObject* pReceiver, const char* sSlot) {
  auto* pAction = qobject_cast<QAction*>(pSender);
  if (pAction && QByteArray(sSignal).contains("triggered(")) {
    disconnect(pAction, SIGNAL(triggered()), this, SLOT(OnActionTriggered()));
    disconnect(pAction, SIGNAL(triggered()), this, SLOT(OnActionPerformed()));
  }
  return disconnect(pSender, sSignal, pReceiver, sSlot);
}

void CWindow::Connect(QAction* pAction, const std::function<void()>& Slot) {
  connect(pAction, &QAction::triggered, this, [this, pAction] { emit ActionTriggered(pAction); });
  connect(pAction, &QAction::triggered, this, [Slot] { Slot(); });
  connect(pAction, &QAction::triggered, this, [this, pAction] { emit ActionPerformed(pAction); });
}

void CWindow::OnActionTriggered() { emit ActionTriggered(qobject_cast<QAction*>(sender())); }
void CWindow::OnActionPerformed() { emit ActionPerformed(qobject_cast<QAction*>(sender())); }

void CWindow::OnActionSetDispFormTriggered() {
  auto* a = qobject_cast<QAction*>(sender());
  if (!a) return;
  // The checked mark follows the command, not the click.
  if (QAction* Cur = DisplayFormatAction(m_DisplayFormat)) Cur->setChecked(true);
  ExecAction(AID_WINDOW_SET_DISPLAY_FORMAT, GetDisplayName(), GetConstantName(QStringLiteral("DISPLAY_FORMAT_"), a->data().toInt()));
}

void CWindow::OnActionClearTriggered() {
  if (TestFlag(WINDOW_FLAG_CONFIRM_CLEAR)) {
    const int r = CMessageBox::Ask(QStringLiteral("Clear"), QStringLiteral("Do you want to clear ") + GetClearAllPostfix() + QLatin1Char('?'),
                                   0, QDialogButtonBox::Yes | QDialogButtonBox::No);
    if (r != CMessageBox::RESULT_YES) return;
  }
  ExecAction(AID_WINDOW_CLEAR, GetDisplayName());
}

// ---------------------------------------------------------------- queries

QStringList CWindow::GetAliasNames() const {
  QStringList l;
  for (const ALIAS& a : kAliases) {
    const QString sName = QString::fromLatin1(a.Name);
    if (sName.compare(GetDisplayName(), Qt::CaseInsensitive) == 0 || sName.compare(GetName(), Qt::CaseInsensitive) == 0)
      l << QString::fromLatin1(a.Alias);
  }
  return l;
}

bool CWindow::IsMatched(QString Input) const {
  Input = Input.trimmed();
  if (Input.isEmpty()) return false;
  if (!GetAliasNames().isEmpty()) Input = ResolveAlias(Input);
  return Input.compare(GetName(), Qt::CaseInsensitive) == 0 || Input.compare(GetDisplayName(), Qt::CaseInsensitive) == 0;
}

QString CWindow::GetEmptyWindowText(DEBUG_STATES State) const {
  switch (State) {
    case DEBUG_STATE_RUNNING: return QStringLiteral("Program running");
    case DEBUG_STATE_NO_CONNECTION: return QStringLiteral("No target connection");
    default: return QStringLiteral("No data");
  }
}

namespace {
std::function<DEBUG_STATES()>& StateSource() {
  static std::function<DEBUG_STATES()> s_Source;
  return s_Source;
}
}  // namespace

void CWindow::SetDebugStateSource(const std::function<DEBUG_STATES()>& Source) { StateSource() = Source; }

DEBUG_STATES CWindow::CurrentDebugState() {
  if (StateSource()) return StateSource()();
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected()) return DEBUG_STATE_NO_CONNECTION;
  return d->IsRunning() ? DEBUG_STATE_RUNNING : DEBUG_STATE_HALTED;
}

bool CWindow::HasFocus() const { return isAncestorOf(QApplication::focusWidget()) || hasFocus(); }

bool CWindow::IsOpen() const { return m_pDock ? !m_pDock->isHidden() : !isHidden(); }

bool CWindow::IsVisible() const { return isVisible() && !visibleRegion().isEmpty(); }

bool CWindow::IsFloating() const { return m_pDock && m_pDock->isFloating(); }

// ---------------------------------------------------------------- device reports

void CWindow::OnStopped(U32 NewPC) {
  if (TestFlag(WINDOW_FLAG_INACTIVE_WHILE_RUNNING)) SetActive(true);
  U32 DevicePC = 0;
  if (PcSource() && PcSource()(&DevicePC)) {
    const U32 Align = qMax<U32>(1, ELF_GetInstAlignment());
    if ((NewPC & ~(Align - 1)) != DevicePC) {
      qDebug("Not updating window as PC is superseeded");
      return;
    }
  }
  if (m_UpdateMode == WIN_UPDATE_VISIBLE && !IsVisible()) return;
  if (m_UpdateMode == WIN_UPDATE_OPEN && !IsOpen()) return;
  Update(NewPC);
  if (IsEmpty()) Repaint();
  UpdateActions();
}

void CWindow::OnDeviceHaltDone(U32 NewPC, HALT_REASONS) { OnStopped(NewPC); }
void CWindow::OnDeviceResetDone(U32 NewPC, RESET_MODES) { OnStopped(NewPC); }
void CWindow::OnDeviceStepped(U32 NewPC) { OnStopped(NewPC); }

void CWindow::OnDeviceResumeDone(RESUME_MODES) {
  if (IsEmpty()) Repaint();
  if (TestFlag(WINDOW_FLAG_INACTIVE_WHILE_RUNNING)) StartDeactivateTimer(500);
  UpdateActions();
}

void CWindow::OnDeviceDisconnectDone() {
  if (TestFlag(WINDOW_FLAG_CLEAR_ON_DISCONNECT)) Clear();
  SetWindowTitle(GetDisplayName());
  Repaint();
  UpdateActions();
}

void CWindow::StartDeactivateTimer(int Ms) { m_pDeactivateTimer->start(Ms); }

// ---------------------------------------------------------------- visibility and contents

void CWindow::showEvent(QShowEvent* pEvent) {
  QMainWindow::showEvent(pEvent);
  if (m_LastVisible) return;
  m_LastVisible = true;
  emit VisibilityChanged(true);
  OnVisibilityChanged(true);
}

void CWindow::hideEvent(QHideEvent* pEvent) {
  QMainWindow::hideEvent(pEvent);
  if (!m_LastVisible) return;
  m_LastVisible = false;
  emit VisibilityChanged(false);
  OnVisibilityChanged(false);
}

void CWindow::OnVisibilityChanged(bool Visible) {
  if (Visible) {
    U32 PC = 0;
    if (PcSource()) PcSource()(&PC);
    Update(PC);
    UpdateActions();
  } else if (TestFlag(WINDOW_FLAG_CLEAR_WHEN_HIDDEN)) {
    Clear();
  }
}

void CWindow::OnContentChanged() {
  setMinimumSize(0, 0);
  setMaximumSize(QWIDGETSIZE_MAX, QWIDGETSIZE_MAX);
  const bool HadFocus = HasFocus();
  SetContentVisible(!IsEmpty());
  if (!IsEmpty()) {
    if (HadFocus && focusProxy()) focusProxy()->setFocus();
  } else if (HadFocus) {
    setFocus();
  }
  ShowEmptyState();
  UpdateActions();
}

void CWindow::SetContentVisible(bool Visible) {
  if (QWidget* c = centralWidget()) c->setVisible(Visible);
}

void CWindow::UpdateActions() {
  m_pActionClear->setVisible(!IsEmpty());
  if (QAction* a = DisplayFormatAction(m_DisplayFormat)) a->setChecked(true);
}

void CWindow::ShowEmptyState() {
  const QString sButton = IsEmpty() ? GetEmptyWindowButtonText(CurrentDebugState()) : QString();
  m_pEmptyButton->setText(sButton);
  m_pEmptyButton->setVisible(!sButton.isEmpty());
  if (!sButton.isEmpty()) PlaceEmptyButton();
  update();
}

void CWindow::PlaceEmptyButton() {
  const QFontMetrics fm(m_pEmptyButton->font());
  const QSize Size(fm.horizontalAdvance(m_pEmptyButton->text()) + 39, fm.height() + 19);
  const int TextBottom = height() / 2 + fontMetrics().height();
  m_pEmptyButton->setGeometry(QRect(QPoint((width() - Size.width()) / 2, TextBottom + 4), Size));
  m_pEmptyButton->raise();
}

void CWindow::resizeEvent(QResizeEvent* pEvent) {
  QMainWindow::resizeEvent(pEvent);
  if (m_pEmptyButton->isVisible()) PlaceEmptyButton();
  emit SizeChanged(width(), height());
}

void CWindow::paintEvent(QPaintEvent* pEvent) {
  if (!IsEmpty()) {
    QMainWindow::paintEvent(pEvent);
    return;
  }
  QPainter p(this);
  p.fillRect(rect(), palette().color(QPalette::Window));
  p.setPen(palette().color(QPalette::WindowText));
  p.drawText(rect(), Qt::AlignCenter, GetEmptyWindowText(CurrentDebugState()));
}

// ---------------------------------------------------------------- attributes

QList<int> CWindow::GetAttributeIds() const {
  return {WIN_ATTR_OPEN_WINDOW, WIN_ATTR_DOCK_AREA, WIN_ATTR_X, WIN_ATTR_Y, WIN_ATTR_W, WIN_ATTR_H,
          WIN_ATTR_FILTER_BAR_SHOWN, WIN_ATTR_DISPLAY_FORMAT};
}

int CWindow::GetAttributeId(const QString& sName) const {
  const QString s = sName.trimmed();
  for (int Id : GetAttributeIds())
    if (GetAttributeName(Id).compare(s, Qt::CaseInsensitive) == 0) return Id;
  return -1;
}

QString CWindow::GetAttributeName(int Id) const {
  return Id >= 0 && Id < WIN_ATTR_FIRST_OWN && kAttributeNames[Id] ? QString::fromLatin1(kAttributeNames[Id]) : QString();
}

QString CWindow::GetAttributeText(int Id) const {
  if (Id == WIN_ATTR_OPEN_WINDOW) return Quoted(GetName());
  const int v = GetAttribute(Id, false);
  if (Id == WIN_ATTR_DOCK_AREA) return DockAreaText(v);
  return QString::number(v);
}

int CWindow::GetAttribute(int Id, bool FromStore) const {
  if (Id < 0 || Id >= WIN_ATTR_COUNT) return 0;
  if (FromStore || !m_pDock || !IsFrameAttribute(Id)) {
    if (Id == WIN_ATTR_FILTER_BAR_SHOWN && !FromStore) return TestFlag(WINDOW_FLAG_FILTER_BAR) ? 1 : 0;
    if (Id == WIN_ATTR_DISPLAY_FORMAT && !FromStore) return m_DisplayFormat;
    return m_aAttributes[Id];
  }
  const QRect r = m_pDock->frameGeometry();
  switch (Id) {
    case WIN_ATTR_DOCK_AREA: return m_pDock->DockAreaValue();
    case WIN_ATTR_X: return r.x();
    case WIN_ATTR_Y: return r.y();
    case WIN_ATTR_W: return r.width();
    default: return r.height();
  }
}

bool CWindow::ParseAttribute(int Id, const QString& sText) {
  if (Id < 0 || Id >= WIN_ATTR_COUNT) return false;
  const QString s = sText.trimmed();
  if (Id == WIN_ATTR_OPEN_WINDOW) return true;
  if (Id == WIN_ATTR_DOCK_AREA) {
    const int a = ParseDockArea(s);
    if (a < 0) return false;
    m_aAttributes[Id] = a;
    return true;
  }
  bool ok = false;
  int v = s.toInt(&ok, 0);
  if (!ok && Id == WIN_ATTR_DISPLAY_FORMAT) {
    I64 c = 0;
    ok = FindConstant(s, &c);
    v = int(c);
  }
  if (!ok) return false;
  m_aAttributes[Id] = v;
  if (Id == WIN_ATTR_FILTER_BAR_SHOWN) SetFlag(WINDOW_FLAG_FILTER_BAR, v != 0);
  if (Id == WIN_ATTR_DISPLAY_FORMAT) SetDisplayFormat(v);
  return true;
}

bool CWindow::SetAttribute(const QString& sName, const QString& sText) {
  const int Id = GetAttributeId(sName);
  if (Id < 0 || Id >= WIN_ATTR_COUNT) return false;
  return ParseAttribute(Id, sText);
}

void CWindow::ClearAttributes() { std::fill(std::begin(m_aAttributes), std::end(m_aAttributes), 0); }

int CWindow::FindOwnLine(const QStringList& Lines) const {
  QStringList Names = GetAliasNames();
  Names << GetName() << GetDisplayName();
  for (int i = 0; i < Lines.size(); ++i) {
    const QString sLine = Lines[i].trimmed();
    if (!sLine.startsWith(QLatin1String("OpenWindow"), Qt::CaseInsensitive)) continue;
    QString sName = sLine.section(QLatin1Char(','), 0, 0).section(QLatin1Char('='), 1).trimmed();
    if (sName.size() >= 2 && sName.startsWith(QLatin1Char('"')) && sName.endsWith(QLatin1Char('"')))
      sName = sName.mid(1, sName.size() - 2);
    for (const QString& n : Names)
      if (!n.isEmpty() && n.compare(sName, Qt::CaseInsensitive) == 0) return i;
  }
  return -1;
}

bool CWindow::LoadFromLines(const QStringList& Lines) {
  const int i = FindOwnLine(Lines);
  if (i < 0) return false;
  for (const QString& Field : Lines[i].split(QLatin1Char(','))) {
    const int Eq = Field.indexOf(QLatin1Char('='));
    if (Eq < 0) continue;
    SetAttribute(Field.left(Eq).trimmed(), Field.mid(Eq + 1).trimmed());
  }
  return true;
}

void CWindow::SaveToLine(QStringList& Lines) const {
  if (!IsOpen()) return;
  QStringList Fields;
  for (int Id : GetAttributeIds()) {
    if (Id < 0 || Id >= WIN_ATTR_COUNT) continue;
    Fields << GetAttributeName(Id) + QLatin1Char('=') + GetAttributeText(Id);
  }
  Lines << Fields.join(QStringLiteral(", "));
}

QString CWindow::DockAreaText(int Area) {
  for (const auto& a : kAreas)
    if (a.first == Area) return QString::fromLatin1(a.second);
  return QString::number(Area);
}

int CWindow::ParseDockArea(const QString& sText) {
  const QString s = sText.toLower();
  // "FLOATING" before the sides, so that a text naming both is floating.
  for (int i = int(std::size(kAreas)) - 1; i >= 0; --i)
    if (s.contains(QString::fromLatin1(kAreas[i].second).toLower())) return kAreas[i].first;
  bool ok = false;
  const int v = sText.trimmed().toInt(&ok);
  return ok ? v : -1;
}
