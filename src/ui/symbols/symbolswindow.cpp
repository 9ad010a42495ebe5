#include "ui/symbols/symbolswindow.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/device.h"
#include "stack/callstack.h"
#include "ui/framework/tableview.h"
#include "ui/symbols/framedata.h"

#include <QAction>
#include <QElapsedTimer>
#include <QInputDialog>
#include <QMenu>
#include <QTimer>

namespace {

constexpr int kLiveTickMs = 50;
constexpr int kLiveCheckMs = 100;

QElapsedTimer& Clock() {
  static QElapsedTimer t;
  if (!t.isValid()) t.start();
  return t;
}

bool LiveAccessPossible() {
  CDevice* d = CDevice::InstanceIfCreated();
  return d && d->IsConnected() && d->Info().aCaps[0] == 1;
}

}  // namespace

// ---------------------------------------------------------------- base

CSymbolsWindow::CSymbolsWindow(CSymbolsDataModel* pModel, QWidget* pParent)
    : CModelViewWindow(pParent), m_pSymModel(pModel) {
  SetFlag(WINDOW_FLAG_CLEAR_WHEN_HIDDEN, false);
  m_pSymModel->SetFormatSource([this] { return GetDisplayFormat(); });
  Proxy()->SetSortable(false);
  View()->setEditTriggers(QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed);
  SetModel(pModel);
  connect(pModel, &CSymbolsDataModel::ReadsWanted, this, [this] { UpdateTimer()->start(10); });
  m_pActionRemove = new QAction(QStringLiteral("&Remove"), this);
  m_pActionRemove->setObjectName(QStringLiteral("actionSymRemove"));
  m_pActionRemove->setToolTip(QStringLiteral("Remove Selected Item"));
  m_pActionRemove->setStatusTip(QStringLiteral("Remove Symbol from Watched Data"));
  m_pActionRemove->setShortcut(QKeySequence(QStringLiteral("Shift+R")));
  m_pActionRemove->setShortcutContext(Qt::WidgetWithChildrenShortcut);
  addAction(m_pActionRemove);
  connect(m_pActionRemove, &QAction::triggered, this, &CSymbolsWindow::OnActionRemoveTriggered);
  m_pActionAutoMode = new QAction(QStringLiteral("&Auto Mode"), this);
  m_pActionAutoMode->setObjectName(QStringLiteral("actionSymAutoMode"));
  m_pActionAutoMode->setShortcut(QKeySequence(QStringLiteral("Shift+A")));
  m_pActionAutoMode->setShortcutContext(Qt::WidgetWithChildrenShortcut);
  m_pActionAutoMode->setCheckable(true);
}

bool CSymbolsWindow::IsEmpty() const { return m_pSymModel->RootCount() == 0; }

void CSymbolsWindow::AddSymbol(QString Name) { Q_UNUSED(Name); }
void CSymbolsWindow::AddSymbols(QStringList Names) {
  for (const QString& s : Names) AddSymbol(s);
}
void CSymbolsWindow::RemoveSymbol(QString Name) {
  const int r = GetIndexOf(Name, Qt::CaseSensitive);
  if (r >= 0) m_pSymModel->RemoveRoot(r);
}
void CSymbolsWindow::RemoveSymbol(QModelIndex Index) {
  const QModelIndex s = ToSource(Index);
  if (s.isValid() && !s.parent().isValid()) m_pSymModel->RemoveRoot(s.row());
}

CSymbol* CSymbolsWindow::GetSymbol(QModelIndex Index) const { return m_pSymModel->NodeOf(ToSource(Index)); }

QStringList CSymbolsWindow::GetSymbolNames() const {
  QStringList l;
  for (int r = 0; r < m_pSymModel->RootCount(); ++r) l << m_pSymModel->index(r, 0).data().toString();
  return l;
}

int CSymbolsWindow::GetIndexOf(QString Name, Qt::CaseSensitivity Case) const {
  const QStringList l = GetSymbolNames();
  for (int r = 0; r < l.size(); ++r)
    if (l[r].compare(Name, Case) == 0) return r;
  return -1;
}

bool CSymbolsWindow::HasLocalSymbols() const {
  for (int r = 0; r < m_pSymModel->RootCount(); ++r)
    if (m_pSymModel->Root(r)->IsLocal()) return true;
  return false;
}

void CSymbolsWindow::OnUpdateTimerTimeout() {
  if (IsVisible()) {
    std::vector<CSymbol*> Rows;
    for (const QModelIndex& p : View()->VisibleRows())
      if (CSymbol* s = m_pSymModel->NodeOf(ToSource(p))) Rows.push_back(s);
    m_pSymModel->Prefetch(Rows);
  }
  CModelViewWindow::OnUpdateTimerTimeout();
}

void CSymbolsWindow::OnActionRemoveTriggered() { RemoveSymbol(View()->currentIndex()); }

void CSymbolsWindow::OnDisplayFormatChanged(int Base) {
  Q_UNUSED(Base);
  Repaint();
}

void CSymbolsWindow::FillContextMenu(QMenu* pMenu) {
  CModelViewWindow::FillContextMenu(pMenu);
}

// ---------------------------------------------------------------- watched data

CWatchWindow::CWatchWindow(QWidget* pParent) : CSymbolsWindow(&CWatchDataModel::Instance(), pParent) {
  setObjectName(QStringLiteral("WatchWindow"));
  setWindowTitle(GetDisplayName());
  m_pLiveTimer = new QTimer(this);
  m_pLiveTimer->setInterval(kLiveTickMs);
  connect(m_pLiveTimer, &QTimer::timeout, this, &CWatchWindow::OnLiveUpdateTimerTimeout);
  m_pLiveCheck = new QTimer(this);
  m_pLiveCheck->setSingleShot(true);
  m_pLiveCheck->setInterval(kLiveCheckMs);
  connect(m_pLiveCheck, &QTimer::timeout, this, &CWatchWindow::OnLiveCheck);
  connect(WatchModel(), &CWatchDataModel::ExpressionsChanged, m_pLiveCheck, qOverload<>(&QTimer::start));
  UpdateRefreshColumn();
}

CWatchDataModel* CWatchWindow::WatchModel() const { return static_cast<CWatchDataModel*>(m_pSymModel); }

void CWatchWindow::UpdateRefreshColumn() { View()->setColumnHidden(SYM_COL_REFRESH, !LiveAccessPossible()); }

void CWatchWindow::Update(U32 NewPC) {
  BackupState(1);
  if (WatchModel()->Reevaluate()) RestoreState(1, 1);
  CSymbolsWindow::Update(NewPC);
  // The expressions were just evaluated for this stop: their rows are read
  // at once, not after the framework's gathering delay.
  UpdateTimer()->start(0);
  m_pLiveTimer->stop();
}

void CWatchWindow::AddSymbol(QString Name) { ExecAction(AID_WATCH_ADD, Name); }
void CWatchWindow::RemoveSymbol(QString Name) { ExecAction(AID_WATCH_REMOVE, Name); }
void CWatchWindow::RemoveSymbol(QModelIndex Index) {
  const QModelIndex s = ToSource(Index);
  if (s.isValid() && !s.parent().isValid() && s.row() < WatchModel()->ExpressionCount())
    WatchModel()->RemoveExpression(s.row());
}

void CWatchWindow::OnCallFrameEvaluated(int) { Update(0); }

void CWatchWindow::OnItemRefreshRateChanged(QModelIndex Index, int FreqHz) {
  const QModelIndex s = ToSource(Index);
  if (s.isValid() && !s.parent().isValid()) WatchModel()->SetRate(s.row(), FreqHz);
}

bool CWatchWindow::LiveRefreshWanted() const {
  CDevice* d = CDevice::InstanceIfCreated();
  return IsVisible() && WatchModel()->HasLiveRows() && d && d->IsConnected() && d->IsRunning() && !d->HaltReported() &&
         d->CanAccessMemory();
}

void CWatchWindow::OnLiveCheck() {
  UpdateRefreshColumn();
  if (LiveRefreshWanted()) {
    if (!m_pLiveTimer->isActive()) m_pLiveTimer->start();
  } else {
    m_pLiveTimer->stop();
  }
}

void CWatchWindow::OnLiveUpdateTimerTimeout() {
  if (!LiveRefreshWanted()) return m_pLiveTimer->stop();
  if (UpdateTimer()->isActive()) return;
  const QList<int> Due = WatchModel()->DueRows(Clock().elapsed());
  if (Due.isEmpty()) return;
  BackupState(2);
  if (WatchModel()->ReevaluateRows(Due)) RestoreState(2, 1);
}

void CWatchWindow::OnActionAddTriggered() {
  bool Ok = false;
  const QString s = QInputDialog::getText(this, QStringLiteral("Add Watch"), QStringLiteral("Expression:"), QLineEdit::Normal,
                                          QString(), &Ok);
  if (Ok && !s.trimmed().isEmpty()) ExecAction(AID_WATCH_ADD, s.trimmed());
}

void CWatchWindow::OnDeviceResumeDone(RESUME_MODES Mode) {
  CSymbolsWindow::OnDeviceResumeDone(Mode);
  m_pLiveCheck->start();
}

void CWatchWindow::OnDeviceConnectDone(CONNECT_MODES Mode) {
  CSymbolsWindow::OnDeviceConnectDone(Mode);
  m_pLiveCheck->start();
}

void CWatchWindow::OnDeviceWriteAccess() { Update(0); }

void CWatchWindow::FillContextMenu(QMenu* pMenu) {
  const QModelIndex s = ToSource(View()->currentIndex());
  if (s.isValid() && !s.parent().isValid() && s.row() < WatchModel()->ExpressionCount()) {
    QMenu* pRate = pMenu->addMenu(QStringLiteral("Refresh Rate"));
    for (int Hz : {0, 1, 2, 5}) {
      QAction* a = pRate->addAction(Hz ? QStringLiteral("%1 Hz").arg(Hz) : QStringLiteral("Off"));
      a->setCheckable(true);
      a->setChecked(WatchModel()->Item(s.row()).RateHz == Hz);
      connect(a, &QAction::triggered, this, [this, s, Hz] { WatchModel()->SetRate(s.row(), Hz); });
    }
    pMenu->addAction(m_pActionRemove);
    pMenu->addSeparator();
  }
  CSymbolsWindow::FillContextMenu(pMenu);
}

// ---------------------------------------------------------------- locals

CLocalsWindow::CLocalsWindow(QWidget* pParent) : CSymbolsWindow(&CLocalsDataModel::Instance(), pParent) {
  setObjectName(QStringLiteral("LocalsWindow"));
  setWindowTitle(GetDisplayName());
  CCallStack& s = CCallStack::Instance();
  connect(&s, &CCallStack::UnwindComplete, this, &CLocalsWindow::OnCallStackUnwinded);
  connect(&s, &CCallStack::SelectedFrameChanged, this, &CLocalsWindow::OnCallFrameEvaluated);
  addAction(m_pActionAutoMode);
  connect(m_pActionAutoMode, &QAction::triggered, this, &CLocalsWindow::OnActionAutoModeTriggered);
}

CLocalsDataModel* CLocalsWindow::LocalsModel() const { return static_cast<CLocalsDataModel*>(m_pSymModel); }

void CLocalsWindow::ShowFrame(int Frame) {
  BackupState(1);
  const ELF_SYM_HANDLE Before = LocalsModel()->Function();
  LocalsModel()->ShowFrame(Frame);
  if (LocalsModel()->Function() == Before) RestoreState(1, 1);
  SetWindowTitle(LocalsModel()->Title());
  CSymbolsWindow::Update(0);
}

void CLocalsWindow::Update(U32) { ShowFrame(-1); }

void CLocalsWindow::Clear() {
  LocalsModel()->Reset();
  SetWindowTitle(LocalsModel()->Title());
}

void CLocalsWindow::OnCallStackUnwinded() {
  if (IsVisible()) ShowFrame(-1);
}

void CLocalsWindow::OnCallFrameEvaluated(int CallFrameIdx) {
  if (IsVisible()) ShowFrame(CallFrameIdx);
}

void CLocalsWindow::OnActionAutoModeTriggered() {
  LocalsModel()->SetAutoMode(m_pActionAutoMode->isChecked());
  QTimer::singleShot(10, this, [this] { LocalsModel()->Rebuild(qMax(0, LocalsModel()->Frame())); });
}

// ---------------------------------------------------------------- globals

CGlobalsWindow::CGlobalsWindow(QWidget* pParent) : CSymbolsWindow(&CGlobalsDataModel::Instance(), pParent) {
  setObjectName(QStringLiteral("GlobalsWindow"));
  setWindowTitle(GetDisplayName());
  Init();
}

bool CGlobalsWindow::IsAcceptingUpdates() const { return true; }

void CGlobalsWindow::Init() {
  auto& m = CGlobalsDataModel::Instance();
  if (!m.IsBuilt()) m.Init();
}

void CGlobalsWindow::Update(U32 NewPC) {
  Init();
  CSymbolsWindow::Update(NewPC);
}
