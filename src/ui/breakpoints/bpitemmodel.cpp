// Rows of the breakpoint window from the breakpoint model: source entries
// and address entries that are not derived from one, the data breakpoints,
// the tracepoints.
#include "ui/breakpoints/bpitemmodel.h"

#include <QBrush>
#include <QPainter>
#include <QPixmap>

namespace {

constexpr quintptr GROUP_ID = 0xFFFFFFFFu;
const char* const kGroupTitles[] = {"Breakpoints", "Data Breakpoints", "Tracepoints"};

bool IsEnabled(U32 State) { return State == BP_STATE_ON || State == BP_STATE_ON_HIDDEN || State == BP_STATE_MIXED; }

}  // namespace

CBreakpointItemModel::CBreakpointItemModel(CBreakpointsDataModel* pModel, QObject* pParent)
    : QAbstractItemModel(pParent), m_pModel(pModel) {
  for (int i = 0; i < 4; ++i) m_aIcons[i] = MakeIcon(i);
  Reset();
}

// Small drawn icons: a red disc, a blue square, a green and a red triangle.
QIcon CBreakpointItemModel::MakeIcon(int Kind) {
  QPixmap p(12, 12);
  p.fill(Qt::transparent);
  QPainter g(&p);
  g.setRenderHint(QPainter::Antialiasing);
  g.setPen(Qt::NoPen);
  switch (Kind) {
    case 0: g.setBrush(QColor(0xD0, 0x20, 0x20)); g.drawEllipse(1, 1, 10, 10); break;
    case 1: g.setBrush(QColor(0x20, 0x50, 0xC0)); g.drawRect(2, 2, 8, 8); break;
    default: {
      g.setBrush(Kind == 2 ? QColor(0x20, 0xA0, 0x40) : QColor(0xC0, 0x30, 0x30));
      const QPointF Tri[3] = {{2, 1}, {11, 6}, {2, 11}};
      g.drawPolygon(Tri, 3);
    }
  }
  return QIcon(p);
}

void CBreakpointItemModel::Reset() {
  beginResetModel();
  for (auto& v : m_aRows) v.clear();
  for (const CBreakpointInfo& b : m_pModel->SourceMap()) {
    const auto Parts = m_pModel->ExtrasParts(b);
    m_aRows[GROUP_CODE].push_back({QStringLiteral("Code"), m_pModel->LocationText(b), CBreakpointsDataModel::JoinParts(Parts),
                                   Parts, 0, IsEnabled(b.State)});
  }
  for (const CBreakpointInfo& b : m_pModel->AddressMap()) {
    if (b.Derived) continue;
    const auto Parts = m_pModel->ExtrasParts(b);
    m_aRows[GROUP_CODE].push_back({QStringLiteral("Code"), m_pModel->LocationText(b), CBreakpointsDataModel::JoinParts(Parts),
                                   Parts, 0, IsEnabled(b.State)});
  }
  for (const WP& w : m_pModel->DataBreakpoints()) {
    const QString sSym = QString::fromUtf8(w.Symbol, int(strnlen(w.Symbol, sizeof w.Symbol)));
    const QString sLoc = sSym.isEmpty() ? QStringLiteral("0x%1").arg(w.Addr, 8, 16, QLatin1Char('0')) : sSym;
    const QString sText = CBreakpointsDataModel::DataBreakpointText(w);
    m_aRows[GROUP_DATA].push_back({QStringLiteral("Data"), sLoc, sText, {{sText, BP_ROLE_VALUE}}, 1, IsEnabled(w.State)});
  }
  for (const TP& t : m_pModel->Tracepoints()) {
    QString sLoc = QStringLiteral("0x%1").arg(t.Addr, 8, 16, QLatin1Char('0'));
    if (t.FromSource && t.Addr <= 0xFFFFFFFFull) {
      const CSrcLoc l = m_pModel->Prog().LocOfAddr(U32(t.Addr));
      if (!l.IsNull()) sLoc = m_pModel->Prog().LocText(CSrcLoc(l.file, l.line, 0));
    }
    const bool Stop = t.Op == TP_OP_STOP;
    m_aRows[GROUP_TRACE].push_back({Stop ? QStringLiteral("Trace Stop") : QStringLiteral("Trace Start"), sLoc, QString(), {},
                                    Stop ? 3 : 2, IsEnabled(t.State)});
  }
  endResetModel();
}

QString CBreakpointItemModel::EmptyMessage() const {
  for (const auto& v : m_aRows)
    if (!v.empty()) return QString();
  return QStringLiteral("No breakpoints set");
}

QModelIndex CBreakpointItemModel::index(int Row, int Column, const QModelIndex& Parent) const {
  if (Row < 0 || Column < 0 || Column >= COL_COUNT) return QModelIndex();
  if (!Parent.isValid()) return Row < GROUP_COUNT ? createIndex(Row, Column, GROUP_ID) : QModelIndex();
  if (Parent.internalId() != GROUP_ID || Parent.row() >= GROUP_COUNT) return QModelIndex();
  if (size_t(Row) >= m_aRows[Parent.row()].size()) return QModelIndex();
  return createIndex(Row, Column, quintptr(Parent.row()));
}

QModelIndex CBreakpointItemModel::parent(const QModelIndex& Child) const {
  if (!Child.isValid() || Child.internalId() == GROUP_ID) return QModelIndex();
  return createIndex(int(Child.internalId()), 0, GROUP_ID);
}

int CBreakpointItemModel::rowCount(const QModelIndex& Parent) const {
  if (!Parent.isValid()) return GROUP_COUNT;
  if (Parent.internalId() != GROUP_ID || Parent.column() != 0) return 0;
  return int(m_aRows[Parent.row()].size());
}

int CBreakpointItemModel::columnCount(const QModelIndex&) const { return COL_COUNT; }

QVariant CBreakpointItemModel::data(const QModelIndex& Index, int Role) const {
  if (!Index.isValid()) return QVariant();
  if (Index.internalId() == GROUP_ID) {
    if (Role == Qt::DisplayRole && Index.column() == 0)
      return QStringLiteral("%1 (%2)").arg(QLatin1String(kGroupTitles[Index.row()])).arg(m_aRows[Index.row()].size());
    return QVariant();
  }
  const ROW& r = m_aRows[Index.internalId()][size_t(Index.row())];
  switch (Role) {
    case Qt::DisplayRole:
      return Index.column() == COL_TYPE ? r.Type : Index.column() == COL_LOCATION ? r.Location : r.Extras;
    case Qt::DecorationRole:
      return Index.column() == COL_TYPE ? QVariant(m_aIcons[r.Icon]) : QVariant();
    case Qt::ForegroundRole:
      return r.Enabled ? QVariant() : QVariant(QBrush(Qt::gray));
    case ExtrasPartsRole: {
      QVariantList l;
      for (const BP_TEXT_PART& p : r.Parts) l << QVariant(QVariantList{p.Text, int(p.Role)});
      return l;
    }
    default: return QVariant();
  }
}

QVariant CBreakpointItemModel::headerData(int Section, Qt::Orientation Orientation, int Role) const {
  static const char* const kCols[] = {"Type", "Location", "Extras"};
  if (Orientation == Qt::Horizontal && Role == Qt::DisplayRole && Section >= 0 && Section < COL_COUNT)
    return QLatin1String(kCols[Section]);
  return QVariant();
}
