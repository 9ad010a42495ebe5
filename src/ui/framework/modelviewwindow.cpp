#include "ui/framework/modelviewwindow.h"

#include <QEvent>

#include "commands/actionids.h"
#include "commands/actions.h"
#include "log/log.h"
#include "settings/colors.h"
#include "settings/fonts.h"
#include "settings/ids.h"
#include "settings/store.h"
#include "settings/sysvars.h"
#include "ui/framework/tableview.h"
#include "ui/framework/viewexport.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QFileDialog>
#include <QKeyEvent>
#include <QMenu>
#include <QScrollBar>
#include <QTimer>
#include <QVBoxLayout>

namespace {
constexpr int kWatchdogMs = 1000;
constexpr int kFormats[5] = {0, 2, 10, 16, 8};
constexpr const char* kFormatTexts[5] = {"&Auto", "&Binary", "&Decimal", "&Hexadecimal", "&Character"};
}  // namespace

CModelViewWindow::CModelViewWindow(QWidget* pParent) : CWindow(pParent) {
  m_pProxy = new CSortFilter(this);
  auto* pCentral = new QWidget(this);
  m_pView = new CTreeView(pCentral);
  m_pHeader = new CTableHeader(m_pView);
  m_pView->setHeader(m_pHeader);
  m_pFilterBar = new CFilterHeaderView(m_pHeader, m_pProxy);
  m_pHeader->SetFilterBar(m_pFilterBar);
  m_pDelegate = new CFilterMatchDelegate(m_pProxy, this);
  m_pView->setItemDelegate(m_pDelegate);
  m_pView->setModel(m_pProxy);
  auto* pLayout = new QVBoxLayout(pCentral);
  pLayout->setContentsMargins(0, 0, 0, 0);
  pLayout->addWidget(m_pView);
  setCentralWidget(pCentral);
  setFocusProxy(m_pView);
  m_pUpdateTimer = new QTimer(this);
  m_pUpdateTimer->setSingleShot(true);
  m_pUpdateTimer->setInterval(10);
  connect(m_pUpdateTimer, &QTimer::timeout, this, &CModelViewWindow::OnUpdateTimerTimeout);
  m_pWatchdogTimer = new QTimer(this);
  m_pWatchdogTimer->setSingleShot(true);
  m_pWatchdogTimer->setInterval(kWatchdogMs);
  connect(m_pWatchdogTimer, &QTimer::timeout, this, &CModelViewWindow::OnWatchdogTimerTimeout);
  m_pItemFormatMenu = new QMenu(QStringLiteral("Displa&y As"), this);
  for (int i = 0; i < 5; ++i) {
    QAction* a = m_pItemFormatMenu->addAction(QString::fromLatin1(kFormatTexts[i]));
    a->setData(kFormats[i]);
    Connect(a, SIGNAL(triggered()), this, SLOT(OnItemDisplayFormatActionTriggered()));
  }
  connect(m_pView, &QTreeView::clicked, this, &CModelViewWindow::OnItemClicked);
  connect(m_pView, &QTreeView::doubleClicked, this, &CModelViewWindow::OnItemDoubleClicked);
  connect(m_pView, &QTreeView::expanded, this, &CModelViewWindow::OnItemExpanded);
  connect(m_pView, &QTreeView::collapsed, this, &CModelViewWindow::OnItemCollapsed);
  connect(m_pView, &CTreeView::KeyPressed, this, &CModelViewWindow::OnKeyPressed);
  connect(m_pView->verticalScrollBar(), &QScrollBar::valueChanged, this, &CModelViewWindow::OnScrollBarValueChanged);
  m_pView->viewport()->installEventFilter(this);
  connect(m_pHeader, &QHeaderView::customContextMenuRequested, this, &CModelViewWindow::OnHeaderContextMenuRequested);
  connect(m_pHeader, &QHeaderView::sortIndicatorChanged, this, &CModelViewWindow::OnSortIndicatorChanged);
  connect(m_pHeader, &QHeaderView::sectionHandleDoubleClicked, this, &CModelViewWindow::OnTableHeaderColDividerDoubleClicked);
  m_pHeader->SetLocked(SysVars::GetValue(PREF_LOCK_HEADER_BAR) != 0);
  m_pHeader->setSortIndicator(-1, Qt::AscendingOrder);
  QFont Name = Fonts::GetFont(FONT_ITEM_NAME), Value = Fonts::GetFont(FONT_ITEM_VALUE);
  m_RowHeight = qMax(QFontMetrics(Name).height(), QFontMetrics(Value).height()) + 3;
  m_pDelegate->SetRowHeight(m_RowHeight);
}

CModelViewWindow::~CModelViewWindow() {
  if (!m_sExportName.isEmpty()) WIN_UnregisterViewModel(m_sExportName);
  if (m_pModel) m_pModel->SetWindow(nullptr);
}

void CModelViewWindow::SetModel(CTableModel* pModel) {
  if (m_pModel) {
    m_pModel->SetWindow(nullptr);
    disconnect(m_pModel, nullptr, this, nullptr);
  }
  m_pModel = pModel;
  m_pProxy->setSourceModel(pModel);
  if (!pModel) return;
  pModel->SetWindow(this);
  connect(m_pView->selectionModel(), &QItemSelectionModel::currentChanged, this, &CModelViewWindow::OnSelectionChanged);
  connect(m_pView->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] { Repaint(); });
  auto Changed = [this] { emit ContentChanged(); };
  connect(pModel, &QAbstractItemModel::modelReset, this, Changed);
  connect(pModel, &QAbstractItemModel::rowsInserted, this, Changed);
  connect(pModel, &QAbstractItemModel::rowsRemoved, this, Changed);
  m_DefaultHeader = m_pHeader->saveState();
  const QString sName = GetDisplayName();
  bool Known = false;
  for (const QString& s : WIN_ExportableWindows()) Known |= s.compare(sName, Qt::CaseInsensitive) == 0;
  if (!Known && !sName.isEmpty()) {
    m_sExportName = sName;
    WIN_RegisterViewModel(sName, [pModel] { return pModel; });
  }
  emit ContentChanged();
}

QModelIndex CModelViewWindow::ToSource(const QModelIndex& ProxyIndex) const { return m_pProxy->mapToSource(ProxyIndex); }
QModelIndex CModelViewWindow::ToProxy(const QModelIndex& SourceIndex) const { return m_pProxy->mapFromSource(SourceIndex); }

// ---------------------------------------------------------------- state

void CModelViewWindow::Clear() {
  if (m_pModel) m_pModel->ClearRows();
}

void CModelViewWindow::Repaint() {
  CWindow::Repaint();
  if (m_pModel && IsVisible()) m_pModel->RepaintAll();
  m_pView->viewport()->update();
}

void CModelViewWindow::Update(U32) {
  if (!m_pModel) return;
  m_pModel->InvalidateReads();
  m_pUpdateTimer->stop();
  m_pUpdateTimer->start(10);
}

void CModelViewWindow::OnUpdateTimerTimeout() {
  if (!m_pModel || !IsVisible()) return;
  bool Pending = false;
  for (const QModelIndex& p : m_pView->VisibleRows()) {
    const U64 Id = m_pModel->RowIdOf(ToSource(p));
    if (!Id || m_pModel->Role(Id, 0, ROLE_READ_STATE).toInt() != READ_STATE_NONE) continue;
    if (!m_pModel->ReadRow(Id)) continue;
    if (m_pModel->Role(Id, 0, ROLE_READ_STATE).toInt() == READ_STATE_NONE) {
      m_pModel->SetRole(Id, 0, ROLE_READ_STATE, int(READ_STATE_PENDING));
      Pending = true;
    }
  }
  if (Pending) m_pWatchdogTimer->start();
}

void CModelViewWindow::OnWatchdogTimerTimeout() {
  if (!m_pModel) return;
  std::vector<U64> Stack(m_pModel->ChildrenOf(0).rbegin(), m_pModel->ChildrenOf(0).rend());
  while (!Stack.empty()) {
    const U64 Id = Stack.back();
    Stack.pop_back();
    if (m_pModel->Role(Id, 0, ROLE_READ_STATE).toInt() == READ_STATE_PENDING)
      m_pModel->SetRole(Id, 0, ROLE_READ_STATE, int(READ_STATE_NONE));
    for (U64 c : m_pModel->ChildrenOf(Id)) Stack.push_back(c);
  }
  Repaint();
  m_pUpdateTimer->start(10);
}

void CModelViewWindow::OnActionRefreshItemTriggered() {
  if (!m_pModel) return;
  const U64 Id = m_pModel->RowIdOf(ToSource(m_pView->currentIndex()));
  if (Id) m_pModel->SetRole(Id, 0, ROLE_READ_STATE, QVariant());
  m_pUpdateTimer->start(10);
}

void CModelViewWindow::OnActionRefreshAllTriggered() { Update(0); }

void CModelViewWindow::SetFont(int FontID, QFont& Font) {
  if (FontID == FONT_ITEM_NAME || FontID == FONT_ITEM_VALUE) {
    const QFont Other = Fonts::GetFont(FontID == FONT_ITEM_NAME ? FONT_ITEM_VALUE : FONT_ITEM_NAME);
    m_RowHeight = qMax(QFontMetrics(Font).height(), QFontMetrics(Other).height()) + 3;
    m_pDelegate->SetRowHeight(m_RowHeight);
    m_pView->setFont(Font);
  } else if (FontID == FONT_TABLE_HEADER) {
    m_pHeader->setFont(Font);
    m_pFilterBar->setFont(Font);
    m_pHeader->ShowFilterBar(m_pHeader->IsFilterBarShown());
  } else {
    return;
  }
  m_pView->doItemsLayout();
  Repaint();
  if (m_pModel)
    for (int c = 0; c + 1 < m_pModel->columnCount(); ++c) FitColumn(c);
}

void CModelViewWindow::SetPreference(int SysVarID, I64 Value) {
  if (SysVarID == PREF_FILTER_BARS_DISABLED) ApplyFilterBarVisibility();
  if (SysVarID == PREF_LOCK_HEADER_BAR) m_pHeader->SetLocked(Value != 0);
}

void CModelViewWindow::ApplyFilterBarVisibility() {
  m_pHeader->ShowFilterBar(TestFlag(WINDOW_FLAG_FILTER_BAR) && SysVars::GetValue(PREF_FILTER_BARS_DISABLED) == 0);
}

void CModelViewWindow::OnFlagChanged(WINDOW_FLAGS Flag, bool Value) {
  CWindow::OnFlagChanged(Flag, Value);
  if (Flag == WINDOW_FLAG_FILTER_BAR) ApplyFilterBarVisibility();
}

void CModelViewWindow::OnActionToggleFilterBarTriggered() {
  SetFlag(WINDOW_FLAG_FILTER_BAR, !TestFlag(WINDOW_FLAG_FILTER_BAR));
}

void CModelViewWindow::OnVisibilityChanged(bool Visible) {
  CWindow::OnVisibilityChanged(Visible);
  if (Visible) ApplyFilterBarVisibility();
}

void CModelViewWindow::ScrollToTop() { m_pView->scrollToTop(); }
void CModelViewWindow::ScrollToBottom() { m_pView->scrollToBottom(); }
void CModelViewWindow::ExpandAll() { m_pView->expandAll(); }
void CModelViewWindow::CollapseAll() { m_pView->collapseAll(); }
bool CModelViewWindow::IsEmpty() const { return !m_pModel || m_pModel->rowCount() == 0; }

// ---------------------------------------------------------------- state backup

void CModelViewWindow::CollectExpanded(const QModelIndex& ProxyParent, QSet<U64>& Out) const {
  for (int r = 0; r < m_pProxy->rowCount(ProxyParent); ++r) {
    const QModelIndex i = m_pProxy->index(r, 0, ProxyParent);
    if (!m_pView->isExpanded(i)) continue;
    Out.insert(m_pModel->RowIdOf(ToSource(i)));
    CollectExpanded(i, Out);
  }
}

void CModelViewWindow::RestoreExpanded(const QModelIndex& ProxyParent, const QSet<U64>& Expanded) {
  for (int r = 0; r < m_pProxy->rowCount(ProxyParent); ++r) {
    const QModelIndex i = m_pProxy->index(r, 0, ProxyParent);
    if (!Expanded.contains(m_pModel->RowIdOf(ToSource(i)))) continue;
    m_pView->expand(i);
    RestoreExpanded(i, Expanded);
  }
}

void CModelViewWindow::BackupState(int StateID) {
  if (!m_pModel) return;
  STATE_BACKUP b;
  for (const QModelIndex& i : m_pView->selectionModel()->selectedRows()) b.Selected << m_pModel->RowIdOf(ToSource(i));
  b.Current = m_pModel->RowIdOf(ToSource(m_pView->currentIndex()));
  CollectExpanded(QModelIndex(), b.Expanded);
  b.ScrollX = m_pView->horizontalScrollBar()->value();
  b.ScrollY = m_pView->verticalScrollBar()->value();
  m_Backups[StateID] = b;
}

void CModelViewWindow::RestoreState(int StateID, U32 DoNotRestoreFlags) {
  if (!m_pModel || !m_Backups.contains(StateID)) return;
  const STATE_BACKUP& b = m_Backups[StateID];
  if (!(DoNotRestoreFlags & 2)) RestoreExpanded(QModelIndex(), b.Expanded);
  if (!(DoNotRestoreFlags & 1)) {
    QItemSelectionModel* s = m_pView->selectionModel();
    s->clearSelection();
    for (U64 Id : b.Selected) {
      const QModelIndex p = ToProxy(m_pModel->IndexOfRow(Id));
      if (p.isValid()) s->select(p, QItemSelectionModel::Select | QItemSelectionModel::Rows);
    }
    const QModelIndex c = ToProxy(m_pModel->IndexOfRow(b.Current));
    if (c.isValid()) s->setCurrentIndex(c, QItemSelectionModel::NoUpdate);
  }
  if (!(DoNotRestoreFlags & 4)) {
    m_pView->horizontalScrollBar()->setValue(b.ScrollX);
    m_pView->verticalScrollBar()->setValue(b.ScrollY);
  }
}

// ---------------------------------------------------------------- colours

bool CModelViewWindow::IsRowSelected(const QModelIndex& SourceIndex) const {
  const QModelIndex p = ToProxy(SourceIndex);
  return p.isValid() && m_pView->selectionModel() && m_pView->selectionModel()->isRowSelected(p.row(), p.parent());
}

QVariant CModelViewWindow::CellBackground(const QModelIndex& SourceIndex) const {
  if (IsRowSelected(SourceIndex)) return Colors::GetColor(COLOR_SELECTION_HIGHLIGHT);
  const int Level = SourceIndex.data(ROLE_CHANGE_LEVEL).toInt();
  if (Level >= 1 && Level <= 3) return Colors::GetColor(COLOR_CHANGE_LEVEL_1_BG + Level - 1);
  return palette().color(QPalette::Base);
}

QVariant CModelViewWindow::CellForeground(const QModelIndex& SourceIndex) const {
  if (IsRowSelected(SourceIndex)) return Colors::GetColor(COLOR_SELECTION_HIGHLIGHT_TEXT);
  const int Level = SourceIndex.data(ROLE_CHANGE_LEVEL).toInt();
  if (CurrentDebugState() != DEBUG_STATE_NO_CONNECTION && Level >= 1 && Level <= 3 && m_pModel &&
      m_pModel->IsCellChangeable(SourceIndex))
    return Colors::GetColor(COLOR_CHANGE_LEVEL_1_FG + Level - 1);
  return palette().color(QPalette::Text);
}

QVariant CModelViewWindow::CellFont(const QModelIndex& SourceIndex) const {
  return Fonts::GetFont(SourceIndex.column() == 0 ? FONT_ITEM_NAME : FONT_ITEM_VALUE);
}

// ---------------------------------------------------------------- header state

QString CModelViewWindow::HeaderSettingsKey(const QString& sName) {
  return QStringLiteral("AppData/Perspectives/Debug/TableHeaderState/") + sName;
}

// The settings hold the text of the user file's TableHeader line: the
// toolkit's own header state does not survive corrupt bytes.
QByteArray CModelViewWindow::HeaderState() const { return HeaderLine().toUtf8(); }

void CModelViewWindow::ResetHeader() {
  if (!m_DefaultHeader.isEmpty()) m_pHeader->restoreState(m_DefaultHeader);
  for (int c = 0; c < m_pHeader->count(); ++c) m_pHeader->setSectionHidden(c, false);
}

bool CModelViewWindow::SetHeaderState(const QByteArray& State) {
  if (ParseHeaderLine(QString::fromUtf8(State))) return true;
  LogWarning(QStringLiteral("Table header state of \"%1\" is invalid; using the default layout").arg(GetDisplayName()));
  ResetHeader();
  return false;
}

void CModelViewWindow::SaveHeaderState() const { Settings::SetValue(HeaderSettingsKey(GetDisplayName()), HeaderState()); }

bool CModelViewWindow::LoadHeaderState() {
  const QVariant v = Settings::Value(HeaderSettingsKey(GetDisplayName()));
  if (!v.isValid()) return false;
  return SetHeaderState(v.toByteArray());
}

QString CModelViewWindow::HeaderLine() const {
  QStringList Visible, Widths;
  for (int v = 0; v < m_pHeader->count(); ++v) {
    const int c = m_pHeader->logicalIndex(v);
    if (!m_pHeader->isSectionHidden(c)) Visible << QString::number(c);
  }
  for (int c = 0; c < m_pHeader->count(); ++c) Widths << QString::number(m_pHeader->sectionSize(c));
  return QStringLiteral("TableHeader=\"%1\", SortCol=%2, SortOrder=%3, VisibleCols=%4, ColWidths=%5")
      .arg(GetDisplayName())
      .arg(m_pHeader->sortIndicatorSection())
      .arg(int(m_pHeader->sortIndicatorOrder()))
      .arg(Visible.join(QLatin1Char(' ')), Widths.join(QLatin1Char(' ')));
}

bool CModelViewWindow::ParseHeaderLine(const QString& sLine) {
  QHash<QString, QString> f;
  for (const QString& Field : sLine.split(QLatin1Char(','))) {
    const int Eq = Field.indexOf(QLatin1Char('='));
    if (Eq > 0) f.insert(Field.left(Eq).trimmed().toLower(), Field.mid(Eq + 1).trimmed());
  }
  QString sName = f.value(QStringLiteral("tableheader"));
  sName.remove(QLatin1Char('"'));
  if (!IsMatched(sName)) return false;
  const int n = m_pHeader->count();
  QList<int> Visible;
  for (const QString& s : f.value(QStringLiteral("visiblecols")).split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
    bool ok = false;
    const int c = s.toInt(&ok);
    if (!ok || c < 0 || c >= n || Visible.contains(c)) return false;
    Visible << c;
  }
  const QStringList Widths = f.value(QStringLiteral("colwidths")).split(QLatin1Char(' '), Qt::SkipEmptyParts);
  if (Visible.isEmpty() && n > 0) return false;
  for (int c = 0; c < n; ++c) m_pHeader->setSectionHidden(c, !Visible.contains(c));
  for (int v = 0; v < Visible.size(); ++v) m_pHeader->moveSection(m_pHeader->visualIndex(Visible[v]), v);
  for (int c = 0; c < qMin(n, int(Widths.size())); ++c) {
    bool ok = false;
    const int w = Widths[c].toInt(&ok);
    if (ok && w > 0 && w < 10000) m_pHeader->resizeSection(c, w);
  }
  bool ok = false;
  const int Col = f.value(QStringLiteral("sortcol")).toInt(&ok);
  if (ok && Col >= -1 && Col < n)
    m_pHeader->setSortIndicator(Col, f.value(QStringLiteral("sortorder")).toInt() ? Qt::DescendingOrder : Qt::AscendingOrder);
  return true;
}

void CModelViewWindow::OnSortIndicatorChanged(int Col, Qt::SortOrder SortOrder) { m_pProxy->sort(Col, SortOrder); }

void CModelViewWindow::OnHeaderContextMenuRequested(QPoint Pos) {
  QMenu Menu(this);
  for (int c = 0; c < m_pHeader->count(); ++c) {
    QAction* a = Menu.addAction(m_pModel ? m_pModel->headerData(c, Qt::Horizontal).toString() : QString::number(c));
    a->setCheckable(true);
    a->setChecked(!m_pHeader->isSectionHidden(c));
    a->setData(c);
    connect(a, &QAction::triggered, this, &CModelViewWindow::OnHeaderContextMenuActionTriggered);
  }
  Menu.exec(m_pHeader->mapToGlobal(Pos));
}

void CModelViewWindow::OnHeaderContextMenuActionTriggered() {
  auto* a = qobject_cast<QAction*>(sender());
  if (!a) return;
  const int c = a->data().toInt();
  int Visible = 0;
  for (int i = 0; i < m_pHeader->count(); ++i) Visible += m_pHeader->isSectionHidden(i) ? 0 : 1;
  // The last visible column stays.
  if (!a->isChecked() && Visible <= 1) return;
  m_pHeader->setSectionHidden(c, !a->isChecked());
}

// ---------------------------------------------------------------- column width

int CModelViewWindow::FitWidth(const QVector<int>& RowWidths, int HeaderWidth) {
  if (RowWidths.isEmpty()) return HeaderWidth;
  int Widest = 0;
  QVector<int> Buckets(400, 0);
  for (int w : RowWidths) {
    Widest = qMax(Widest, w);
    ++Buckets[qBound(0, w / 5, 399)];
  }
  if (Widest <= 27) return Widest;
  const int Need = (RowWidths.size() * 9 + 9) / 10;
  int Sum = 0, j = 0;
  for (; j < 400; ++j) {
    Sum += Buckets[j];
    if (Sum >= Need) break;
  }
  // Bucket j holds widths 5j..5j+4, which are multiples of 5: 5j.
  return qMax(5 * (j + 1) - 5, HeaderWidth);
}

int CModelViewWindow::FitColumn(int LogicCol) {
  if (!m_pModel || LogicCol < 0 || LogicCol >= m_pHeader->count()) return 0;
  const bool Const = m_pModel->headerData(LogicCol, Qt::Horizontal, ROLE_CONST_WIDTH).toBool();
  const QFontMetrics fm(m_pView->font());
  const int CharW = Const ? fm.maxWidth() : fm.averageCharWidth();
  QVector<int> Widths;
  for (const QModelIndex& Row : m_pView->VisibleRows()) {
    const QModelIndex i = Row.siblingAtColumn(LogicCol);
    int Depth = 0;
    for (QModelIndex p = i.parent(); p.isValid(); p = p.parent()) ++Depth;
    int w = int(i.data().toString().size()) * CharW + 14;
    if (LogicCol == 0) w += (Depth + (m_pView->rootIsDecorated() ? 1 : 0)) * m_pView->indentation();
    if (!i.data(Qt::DecorationRole).isNull()) w += 14;
    Widths << (w + 4) / 5 * 5;
  }
  const QString sHeader = m_pModel->headerData(LogicCol, Qt::Horizontal).toString();
  const int HeaderW = QFontMetrics(m_pHeader->font()).horizontalAdvance(sHeader) + 20;
  const int w = FitWidth(Widths, HeaderW);
  m_pHeader->resizeSection(LogicCol, w);
  return w;
}

void CModelViewWindow::OnTableHeaderColDividerDoubleClicked(int LogicCol) { FitColumn(LogicCol); }

void CModelViewWindow::OnItemExpanded(QModelIndex) {
  if (SysVars::GetValue(PREF_RESIZE_COL_ON_EXPAND)) FitColumn(0);
  m_pUpdateTimer->start(10);
}

void CModelViewWindow::OnItemCollapsed(QModelIndex) {
  if (SysVars::GetValue(PREF_RESIZE_COL_ON_COLLAPSE)) FitColumn(0);
}

void CModelViewWindow::OnScrollBarValueChanged() { m_pUpdateTimer->start(10); }

bool CModelViewWindow::eventFilter(QObject* pObject, QEvent* pEvent) {
  if (pObject == m_pView->viewport() && (pEvent->type() == QEvent::Resize || pEvent->type() == QEvent::Show) &&
      m_pModel && !m_pUpdateTimer->isActive())
    m_pUpdateTimer->start(10);
  return CWindow::eventFilter(pObject, pEvent);
}

void CModelViewWindow::OnSelectionChanged(QModelIndex, QModelIndex) { Repaint(); }

// ---------------------------------------------------------------- keys, menus, formats

void CModelViewWindow::OnKeyPressed(QKeyEvent* pEvent) {
  if (pEvent->matches(QKeySequence::Copy)) {
    CopySelectedRows();
    pEvent->ignore();
  } else if (pEvent->key() == Qt::Key_Plus) {
    OnKeyPlusPressed();
    pEvent->ignore();
  } else if (pEvent->key() == Qt::Key_Minus) {
    OnKeyMinusPressed();
    pEvent->ignore();
  }
}

void CModelViewWindow::OnKeyPlusPressed() { m_pView->expand(m_pView->currentIndex().siblingAtColumn(0)); }
void CModelViewWindow::OnKeyMinusPressed() { m_pView->collapse(m_pView->currentIndex().siblingAtColumn(0)); }

void CModelViewWindow::OnItemDisplayFormatActionTriggered() {
  auto* a = qobject_cast<QAction*>(sender());
  if (!a || !m_pModel) return;
  for (const QModelIndex& i : m_pView->selectionModel()->selectedRows())
    m_pModel->SetRole(m_pModel->RowIdOf(ToSource(i)), 0, ROLE_DISPLAY_FORMAT, a->data().toInt());
  OnDisplayFormatChanged(GetDisplayFormat());
}

void CModelViewWindow::FillContextMenu(QMenu* pMenu) {
  const bool HasRows = !IsEmpty();
  QAction* pCopy = pMenu->addAction(QStringLiteral("Copy"), this, &CModelViewWindow::CopySelectedRows);
  pCopy->setEnabled(HasRows && m_pView->selectionModel()->hasSelection());
  QAction* pExport = pMenu->addAction(QStringLiteral("Export…"));
  Connect(pExport, SIGNAL(triggered()), this, SLOT(OnActionExportTriggered()));
  pExport->setEnabled(HasRows);
  pMenu->addSeparator();
  if (m_pView->rootIsDecorated()) {
    pMenu->addAction(QStringLiteral("Expand All"), this, &CModelViewWindow::OnActionExpandAllTriggered);
    pMenu->addAction(QStringLiteral("Collapse All"), this, &CModelViewWindow::OnActionCollapseAllTriggered);
  }
  QAction* pBar = pMenu->addAction(QStringLiteral("Show Filter Bar"), this, &CModelViewWindow::OnActionToggleFilterBarTriggered);
  pBar->setCheckable(true);
  pBar->setChecked(TestFlag(WINDOW_FLAG_FILTER_BAR));
  pBar->setEnabled(SysVars::GetValue(PREF_FILTER_BARS_DISABLED) == 0);
  if (!m_pProxy->FilterTexts().isEmpty())
    pMenu->addAction(QStringLiteral("Clear All Filters"), m_pFilterBar, &CFilterHeaderView::OnActionClearAllFiltersTriggered);
  pMenu->addSeparator();
  if (m_pView->selectionModel()->hasSelection()) pMenu->addMenu(m_pItemFormatMenu);
  CWindow::FillContextMenu(pMenu);
}

void CModelViewWindow::OnActionExportTriggered() {
  const QString sPath = QFileDialog::getSaveFileName(this, QStringLiteral("Export"), GetDisplayName() + QStringLiteral(".csv"),
                                                     QStringLiteral("CSV files (*.csv);;Text files (*.txt)"));
  if (sPath.isEmpty()) return;
  ExecAction(AID_WINDOW_EXPORT, GetDisplayName(), sPath);
}

bool CModelViewWindow::ExportCsv(const QString& sFilePath, QString* psError) const {
  return WIN_WriteLines(sFilePath, WIN_CsvLines(WIN_ModelLines(m_pModel)), psError);
}

QString CModelViewWindow::SelectedRowsText() const {
  QModelIndexList Rows = m_pView->selectionModel()->selectedRows();
  std::sort(Rows.begin(), Rows.end(), [this](const QModelIndex& a, const QModelIndex& b) {
    return m_pView->visualRect(a).top() < m_pView->visualRect(b).top();
  });
  QStringList Lines;
  for (const QModelIndex& r : Rows) {
    QStringList Cells;
    for (int v = 0; v < m_pHeader->count(); ++v) {
      const int c = m_pHeader->logicalIndex(v);
      if (!m_pHeader->isSectionHidden(c)) Cells << r.siblingAtColumn(c).data().toString();
    }
    Lines << Cells.join(QLatin1Char('\t'));
  }
  return Lines.join(QLatin1Char('\n'));
}

void CModelViewWindow::CopySelectedRows() const {
  if (QClipboard* c = QApplication::clipboard()) c->setText(SelectedRowsText());
}
