#include "ui/framework/tableview.h"

#include "settings/colors.h"
#include "ui/framework/tablemodel.h"

#include <QContextMenuEvent>
#include <QDialogButtonBox>
#include <QFormLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QScrollBar>
#include <QTimer>
#include <QVBoxLayout>

// ---------------------------------------------------------------- CFilterHeaderView

CFilterHeaderView::CFilterHeaderView(QHeaderView* pHeader, CSortFilter* pProxy)
    : QWidget(pHeader), m_pHeader(pHeader), m_pProxy(pProxy) {
  m_pTimer = new QTimer(this);
  m_pTimer->setSingleShot(true);
  m_pTimer->setInterval(0);
  connect(m_pTimer, &QTimer::timeout, this, &CFilterHeaderView::OnFilterTimerTimeout);
  connect(pHeader, &QHeaderView::sectionResized, this, &CFilterHeaderView::Sync);
  connect(pHeader, &QHeaderView::sectionMoved, this, &CFilterHeaderView::Sync);
  connect(pHeader, &QHeaderView::geometriesChanged, this, &CFilterHeaderView::Sync);
  connect(pHeader, &QHeaderView::sectionCountChanged, this, &CFilterHeaderView::Rebuild);
  Rebuild();
}

int CFilterHeaderView::BarHeight() const {
  QLineEdit Probe;
  Probe.setFont(font());
  return Probe.sizeHint().height();
}

void CFilterHeaderView::Rebuild() {
  qDeleteAll(m_Edits);
  m_Edits.clear();
  for (int c = 0; c < m_pHeader->count(); ++c) {
    auto* e = new QLineEdit(this);
    e->setPlaceholderText(QStringLiteral("Filter"));
    e->setClearButtonEnabled(true);
    e->setText(m_pProxy->FilterText(c));
    connect(e, &QLineEdit::textChanged, this, [this, c](const QString& s) { OnFilterBarTextChanged(c, s); });
    m_Edits.append(e);
  }
  Sync();
}

void CFilterHeaderView::Sync() {
  if (m_Edits.size() != m_pHeader->count()) return;
  const int h = BarHeight();
  for (int c = 0; c < m_Edits.size(); ++c) {
    QLineEdit* e = m_Edits[c];
    if (m_pHeader->isSectionHidden(c)) {
      e->hide();
      continue;
    }
    e->setGeometry(m_pHeader->sectionViewportPosition(c), 0, m_pHeader->sectionSize(c), h);
    e->show();
  }
}

void CFilterHeaderView::SetFilterText(int LogicalCol, const QString& sText) {
  if (QLineEdit* e = m_Edits.value(LogicalCol)) e->setText(sText);
  else OnFilterBarTextChanged(LogicalCol, sText);
}

void CFilterHeaderView::OnFilterBarTextChanged(int LogicalCol, const QString& sText) {
  m_pProxy->SetFilterText(LogicalCol, sText);
  m_pTimer->start();
}

void CFilterHeaderView::OnFilterTimerTimeout() {
  m_pProxy->invalidate();
  emit FiltersApplied();
}

void CFilterHeaderView::OnActionClearAllFiltersTriggered() {
  for (QLineEdit* e : m_Edits) {
    const QSignalBlocker b(e);
    e->clear();
  }
  m_pProxy->ClearFilters();
  emit FiltersApplied();
}

void CFilterHeaderView::OnActionSetFilterTriggered(int LogicalCol) {
  if (LogicalCol < 0 || LogicalCol >= m_Edits.size()) return;
  const int Kind = m_pProxy->sourceModel()
                       ? m_pProxy->sourceModel()->headerData(LogicalCol, Qt::Horizontal, ROLE_FILTER_KIND).toInt()
                       : FILTER_KIND_TEXT;
  CFilterHeaderDialog d(Kind, m_pProxy->FilterText(LogicalCol), this);
  if (d.exec() == QDialog::Accepted) SetFilterText(LogicalCol, d.FilterText());
}

int CFilterHeaderView::ColumnAt(QPoint Pos) const { return m_pHeader->logicalIndexAt(Pos.x()); }

void CFilterHeaderView::contextMenuEvent(QContextMenuEvent* pEvent) {
  const int Col = ColumnAt(pEvent->pos());
  QMenu Menu(this);
  Menu.addAction(QStringLiteral("Clear All Filters"), this, &CFilterHeaderView::OnActionClearAllFiltersTriggered);
  if (Col >= 0) Menu.addAction(QStringLiteral("Set Filter..."), this, [this, Col] { OnActionSetFilterTriggered(Col); });
  Menu.exec(pEvent->globalPos());
}

// ---------------------------------------------------------------- CTableHeader

CTableHeader::CTableHeader(QWidget* pParent) : QHeaderView(Qt::Horizontal, pParent) {
  setSectionsMovable(true);
  setSectionsClickable(true);
  setSortIndicatorShown(true);
  setStretchLastSection(true);
  setContextMenuPolicy(Qt::CustomContextMenu);
}

void CTableHeader::SetFilterBar(CFilterHeaderView* pBar) {
  m_pBar = pBar;
  pBar->setVisible(m_BarShown);
  updateGeometries();
}

void CTableHeader::ShowFilterBar(bool On) {
  m_BarShown = On;
  if (m_pBar) m_pBar->setVisible(On);
  updateGeometries();
  updateGeometry();
}

void CTableHeader::SetLocked(bool Locked) { setSectionsMovable(!Locked); }

QSize CTableHeader::sizeHint() const {
  QSize s = QHeaderView::sizeHint();
  if (m_pBar && m_BarShown) s.setHeight(s.height() + m_pBar->BarHeight());
  return s;
}

void CTableHeader::updateGeometries() {
  const int Bar = m_pBar && m_BarShown ? m_pBar->BarHeight() : 0;
  setViewportMargins(0, 0, 0, Bar);
  QHeaderView::updateGeometries();
  if (m_pBar && Bar) {
    m_pBar->setGeometry(0, height() - Bar, width(), Bar);
    m_pBar->Sync();
  }
}

// ---------------------------------------------------------------- CFilterMatchDelegate

CFilterMatchDelegate::CFilterMatchDelegate(CSortFilter* pProxy, QObject* pParent)
    : QStyledItemDelegate(pParent), m_pProxy(pProxy) {}

void CFilterMatchDelegate::paint(QPainter* pPainter, const QStyleOptionViewItem& Option, const QModelIndex& Index) const {
  QStyledItemDelegate::paint(pPainter, Option, Index);
  int Start = 0, Length = 0;
  if (!m_pProxy || Index.model() != m_pProxy || !m_pProxy->FilterMatch(Index, &Start, &Length)) return;
  QStyleOptionViewItem o = Option;
  initStyleOption(&o, Index);
  const QWidget* w = o.widget;
  const QStyle* s = w ? w->style() : nullptr;
  if (!s) return;
  const QRect TextRect = s->subElementRect(QStyle::SE_ItemViewItemText, &o, w).adjusted(3, 0, 0, 0);
  const QFontMetrics fm(o.font);
  const int x = TextRect.left() + fm.horizontalAdvance(o.text.left(Start));
  QColor c = Colors::GetColor(COLOR_TABLE_FILTER_MATCH);
  c.setAlpha(110);
  pPainter->fillRect(QRect(x, TextRect.top() + 1, fm.horizontalAdvance(o.text.mid(Start, Length)), TextRect.height() - 2), c);
}

QSize CFilterMatchDelegate::sizeHint(const QStyleOptionViewItem& Option, const QModelIndex& Index) const {
  QSize s = QStyledItemDelegate::sizeHint(Option, Index);
  if (m_RowHeight > 0) s.setHeight(m_RowHeight);
  return s;
}

// ---------------------------------------------------------------- CTreeView

CTreeView::CTreeView(QWidget* pParent) : QTreeView(pParent) {
  setUniformRowHeights(true);
  setAllColumnsShowFocus(true);
  setSelectionMode(QAbstractItemView::ExtendedSelection);
  setSelectionBehavior(QAbstractItemView::SelectRows);
}

QModelIndexList CTreeView::VisibleRows() const {
  QModelIndexList l;
  QModelIndex i = indexAt(QPoint(1, 1));
  if (!i.isValid() && model()) i = model()->index(0, 0);
  const int Bottom = viewport()->height();
  while (i.isValid()) {
    const QRect r = visualRect(i);
    if (r.top() > Bottom) break;
    l << i.siblingAtColumn(0);
    i = indexBelow(i);
  }
  return l;
}

void CTreeView::keyPressEvent(QKeyEvent* pEvent) {
  emit KeyPressed(pEvent);
  if (!pEvent->isAccepted()) return;
  QTreeView::keyPressEvent(pEvent);
}

// ---------------------------------------------------------------- CFilterHeaderDialog

CFilterHeaderDialog::CFilterHeaderDialog(int Kind, const QString& sCurrent, QWidget* pParent) : QDialog(pParent) {
  setWindowTitle(QStringLiteral("Set Filter"));
  auto* pForm = new QFormLayout;
  if (Kind & FILTER_KIND_NUMBER) {
    m_pMin = new QLineEdit(this);
    m_pMax = new QLineEdit(this);
    double a, b;
    if (CSortFilter::ParseRange(sCurrent, Kind, &a, &b)) {
      const int Dash = sCurrent.indexOf(QLatin1Char('-'), 1);
      if (Dash < 0 && !sCurrent.startsWith(QLatin1Char('-'))) {
        m_pMin->setText(sCurrent.trimmed());
        m_pMax->setText(sCurrent.trimmed());
      } else if (sCurrent.startsWith(QLatin1Char('-'))) {
        m_pMax->setText(sCurrent.mid(1).trimmed());
      } else {
        m_pMin->setText(sCurrent.left(Dash).trimmed());
        m_pMax->setText(sCurrent.mid(Dash + 1).trimmed());
      }
    }
    pForm->addRow(QStringLiteral("Min:"), m_pMin);
    pForm->addRow(QStringLiteral("Max:"), m_pMax);
  } else {
    m_pText = new QLineEdit(sCurrent, this);
    pForm->addRow(new QLabel(QStringLiteral("Filter substring (case-insensitive):"), this));
    pForm->addRow(m_pText);
  }
  auto* pButtons = new QDialogButtonBox(QDialogButtonBox::Ok | QDialogButtonBox::Cancel, this);
  connect(pButtons, &QDialogButtonBox::accepted, this, &QDialog::accept);
  connect(pButtons, &QDialogButtonBox::rejected, this, &QDialog::reject);
  auto* pLayout = new QVBoxLayout(this);
  pLayout->addLayout(pForm);
  pLayout->addWidget(pButtons);
}

QString CFilterHeaderDialog::FilterText() const {
  if (m_pText) return m_pText->text().trimmed();
  const QString a = m_pMin->text().trimmed(), b = m_pMax->text().trimmed();
  if (!a.isEmpty() && b.isEmpty()) return a + QLatin1Char('-');
  if (a.isEmpty() && !b.isEmpty()) return QLatin1Char('-') + b;
  return CSortFilter::RangeText(a, b);
}
