#include "ui/framework/tablemodel.h"

#include "settings/ids.h"
#include "settings/sysvars.h"

#include <algorithm>
#include <cmath>

namespace {
const std::vector<U64> kNoChildren;
int RoleKey(int Col, int Role) { return (Col << 12) | (Role & 0xFFF); }
}  // namespace

// ---------------------------------------------------------------- CTableModel

CTableModel::CTableModel(QObject* pParent) : QAbstractItemModel(pParent) { m_Nodes[0] = NODE{}; }

CTableModel::~CTableModel() = default;

void CTableModel::SetColumns(const QStringList& Headers) {
  beginResetModel();
  m_Headers = Headers;
  endResetModel();
}

void CTableModel::SetColumnFilterKind(int Col, int Kind) { m_FilterKinds[Col] = Kind; }
void CTableModel::SetColumnConstWidth(int Col, bool On) { m_ConstWidth[Col] = On; }

const CTableModel::NODE* CTableModel::Node(U64 Id) const {
  return m_Nodes.Find(Id);
}

int CTableModel::RowInParent(U64 Id) const {
  const NODE* n = Id ? Node(Id) : nullptr;
  return n ? n->Row : -1;
}

U64 CTableModel::AddRow(U64 ParentId, const QStringList& Texts) {
  NODE* pParent = m_Nodes.Find(ParentId);
  if (!pParent) return 0;
  const int Row = int(pParent->Children.size());
  const QModelIndex P = ParentId && !m_Rebuilding ? IndexOfRow(ParentId) : QModelIndex();
  if (!m_Rebuilding) beginInsertRows(P, Row, Row);
  const U64 Id = m_NextId++;
  NODE n;
  n.Parent = ParentId;
  n.Row = Row;
  n.Texts = Texts;
  m_Nodes[Id] = std::move(n);
  m_Nodes[ParentId].Children.push_back(Id);
  if (!m_Rebuilding) endInsertRows();
  return Id;
}

void CTableModel::RemoveRow(U64 Id) {
  const int Row = RowInParent(Id);
  if (Row < 0) return;
  const U64 ParentId = m_Nodes[Id].Parent;
  beginRemoveRows(ParentId ? IndexOfRow(ParentId) : QModelIndex(), Row, Row);
  std::vector<U64> Stack{Id};
  while (!Stack.empty()) {
    const U64 x = Stack.back();
    Stack.pop_back();
    for (U64 c : m_Nodes[x].Children) Stack.push_back(c);
    m_Nodes.Erase(x);
    m_Roles.Erase(x);
    m_ReadStates.Erase(x);
  }
  auto& Sibs = m_Nodes[ParentId].Children;
  Sibs.erase(Sibs.begin() + Row);
  for (size_t i = size_t(Row); i < Sibs.size(); ++i) m_Nodes[Sibs[i]].Row = int(i);
  endRemoveRows();
}

void CTableModel::ClearRows() {
  beginResetModel();
  m_Nodes.Clear();
  m_Nodes[0] = NODE{};
  m_NextId = 1;
  ForgetAllRoles();
  endResetModel();
}

void CTableModel::BeginRebuild() {
  beginResetModel();
  m_Rebuilding = true;
  m_Nodes.Clear();
  m_Nodes[0] = NODE{};
  m_NextId = 1;
  ForgetAllRoles();
}

void CTableModel::EndRebuild() {
  m_Rebuilding = false;
  endResetModel();
}

bool CTableModel::HasRow(U64 Id) const { return Id != 0 && Node(Id) != nullptr; }
U64 CTableModel::ParentOf(U64 Id) const {
  const NODE* n = Node(Id);
  return n ? n->Parent : 0;
}
const std::vector<U64>& CTableModel::ChildrenOf(U64 Id) const {
  const NODE* n = Node(Id);
  return n ? n->Children : kNoChildren;
}

void CTableModel::SetText(U64 Id, int Col, const QString& sText) {
  NODE* pNode = m_Nodes.Find(Id);
  if (!pNode || Id == 0 || Col < 0) return;
  QStringList& t = pNode->Texts;
  while (t.size() <= Col) t.append(QString());
  if (t[Col] == sText) return;
  t[Col] = sText;
  if (m_Rebuilding) return;
  const QModelIndex i = IndexOfRow(Id, Col);
  emit dataChanged(i, i, {Qt::DisplayRole});
}

QString CTableModel::Text(U64 Id, int Col) const {
  const NODE* n = Node(Id);
  return n ? n->Texts.value(Col) : QString();
}

void CTableModel::SetRole(U64 Id, int Col, int Role, const QVariant& Value) {
  if (Role == ROLE_READ_STATE) {
    if (Value.isValid()) m_ReadStates[Id] = {m_ReadGeneration, Value.toInt()};
    else m_ReadStates.Erase(Id);
    return;
  }
  if (Role == ROLE_PINNED && Value.toBool()) m_HasPinned = true;
  const int Key = RoleKey(Col, Role);
  if (!Value.isValid()) {
    auto* pv = m_Roles.Find(Id);
    if (!pv) return;
    auto& v = *pv;
    v.erase(std::remove_if(v.begin(), v.end(), [Key](const ROLE_VALUE& r) { return r.Key == Key; }), v.end());
    return;
  }
  auto& v = m_Roles[Id];
  for (ROLE_VALUE& r : v)
    if (r.Key == Key) {
      r.Value = Value;
      return;
    }
  v.push_back({Key, Value});
}

QVariant CTableModel::Role(U64 Id, int Col, int Role) const {
  if (Role == ROLE_READ_STATE) {
    const auto* p = m_ReadStates.Find(Id);
    return p && p->first == m_ReadGeneration ? QVariant(p->second) : QVariant();
  }
  const auto* pv = m_Roles.Find(Id);
  if (!pv) return QVariant();
  const int Key = RoleKey(Col, Role);
  for (const ROLE_VALUE& r : *pv)
    if (r.Key == Key) return r.Value;
  return QVariant();
}

void CTableModel::ForgetRoles(U64 Id) {
  m_Roles.Erase(Id);
  m_ReadStates.Erase(Id);
}

void CTableModel::ForgetAllRoles() {
  m_Roles.Clear();
  m_ReadStates.Clear();
  m_HasPinned = false;
}

U64 CTableModel::RowIdOf(const QModelIndex& Index) const {
  return Index.isValid() && Index.model() == this ? U64(Index.internalId()) : 0;
}

QModelIndex CTableModel::IndexOfRow(U64 Id, int Col) const {
  const int Row = RowInParent(Id);
  return Row < 0 ? QModelIndex() : createIndex(Row, Col, quintptr(Id));
}

void CTableModel::FillRow(U64 Id, const QStringList& Texts) {
  const QModelIndex First = IndexOfRow(Id, 0);
  if (!First.isValid()) return;
  const bool NewUpdate = Role(Id, 0, ROLE_READ_STATE).toInt() != READ_STATE_DONE;
  const QVariant Last = Role(Id, 0, ROLE_LAST_VALUE);
  m_Nodes[Id].Texts = Texts;
  if (NewUpdate) {
    int Level = Role(Id, 0, ROLE_CHANGE_LEVEL).toInt();
    bool Changed = false;
    if (Last.isValid()) {
      const QStringList Old = Last.toStringList();
      for (int c = 0; c < Texts.size() && !Changed; ++c)
        Changed = IsCellChangeable(IndexOfRow(Id, c)) && Old.value(c) != Texts[c];
    }
    SetRole(Id, 0, ROLE_CHANGE_LEVEL, Changed ? qMin(Level + 1, 3) : 0);
    SetRole(Id, 0, ROLE_LAST_VALUE, Texts);
  }
  SetRole(Id, 0, ROLE_READ_STATE, int(READ_STATE_DONE));
  emit dataChanged(First, IndexOfRow(Id, qMax(0, columnCount() - 1)));
}

void CTableModel::InvalidateReads() { ++m_ReadGeneration; }

void CTableModel::ResetChangeMarks() {
  const int a = RoleKey(0, ROLE_LAST_VALUE), b = RoleKey(0, ROLE_CHANGE_LEVEL);
  m_Roles.ForEach([a, b](std::vector<ROLE_VALUE>& v) {
    v.erase(std::remove_if(v.begin(), v.end(), [a, b](const ROLE_VALUE& r) { return r.Key == a || r.Key == b; }), v.end());
  });
  m_ReadStates.Clear();
  RepaintAll();
}

bool CTableModel::IsCellChangeable(const QModelIndex& Index) const { return Index.column() > 0; }
bool CTableModel::ReadRow(U64) { return false; }

void CTableModel::RepaintAll() {
  const int Rows = rowCount();
  const int Cols = columnCount();
  if (Rows > 0 && Cols > 0) emit dataChanged(index(0, 0), index(Rows - 1, Cols - 1));
}

QModelIndex CTableModel::index(int Row, int Column, const QModelIndex& Parent) const {
  const U64 P = Parent.isValid() ? RowIdOf(Parent) : 0;
  const NODE* n = Node(P);
  if (!n || Row < 0 || Column < 0 || Row >= int(n->Children.size()) || Column >= columnCount()) return QModelIndex();
  return createIndex(Row, Column, quintptr(n->Children[size_t(Row)]));
}

QModelIndex CTableModel::parent(const QModelIndex& Child) const {
  const U64 Id = RowIdOf(Child);
  const NODE* n = Node(Id);
  if (!n || n->Parent == 0) return QModelIndex();
  return IndexOfRow(n->Parent, 0);
}

int CTableModel::rowCount(const QModelIndex& Parent) const {
  if (Parent.isValid() && Parent.column() != 0) return 0;
  const NODE* n = Node(Parent.isValid() ? RowIdOf(Parent) : 0);
  return n ? int(n->Children.size()) : 0;
}

int CTableModel::columnCount(const QModelIndex&) const { return int(m_Headers.size()); }

QString CTableModel::CellText(const QModelIndex& Index) const { return Text(RowIdOf(Index), Index.column()); }

QVariant CTableModel::data(const QModelIndex& Index, int Role) const {
  if (!Index.isValid()) return QVariant();
  switch (Role) {
    case Qt::DisplayRole:
    case Qt::EditRole:
      return CellText(Index);
    case Qt::BackgroundRole:
      return m_pWindow ? m_pWindow->CellBackground(Index) : QVariant();
    case Qt::ForegroundRole:
      return m_pWindow ? m_pWindow->CellForeground(Index) : QVariant();
    case Qt::FontRole:
      return m_pWindow ? m_pWindow->CellFont(Index) : QVariant();
    case ROLE_ROW_ID:
      return QVariant::fromValue<qulonglong>(RowIdOf(Index));
    case ROLE_LAST_VALUE:
    case ROLE_CHANGE_LEVEL:
    case ROLE_READ_STATE:
      // Kept once per row.
      return this->Role(RowIdOf(Index), 0, Role);
    default:
      return this->Role(RowIdOf(Index), Index.column(), Role);
  }
}

bool CTableModel::setData(const QModelIndex& Index, const QVariant& Value, int Role) {
  if (!Index.isValid()) return false;
  const U64 Id = RowIdOf(Index);
  if (Role == Qt::DisplayRole || Role == Qt::EditRole) {
    if (!HasRow(Id)) return false;
    SetText(Id, Index.column(), Value.toString());
    return true;
  }
  const bool PerRow = Role == ROLE_LAST_VALUE || Role == ROLE_CHANGE_LEVEL || Role == ROLE_READ_STATE;
  SetRole(Id, PerRow ? 0 : Index.column(), Role, Value);
  emit dataChanged(Index, Index, {Role});
  return true;
}

QVariant CTableModel::headerData(int Section, Qt::Orientation Orientation, int Role) const {
  if (Orientation != Qt::Horizontal) return QVariant();
  if (Role == Qt::DisplayRole) return m_Headers.value(Section);
  if (Role == ROLE_FILTER_KIND) return m_FilterKinds.value(Section, FILTER_KIND_TEXT);
  if (Role == ROLE_CONST_WIDTH) return m_ConstWidth.value(Section, false);
  return QVariant();
}

// ---------------------------------------------------------------- CSortFilter

CSortFilter::CSortFilter(QObject* pParent) : QSortFilterProxyModel(pParent) {
  setSortCaseSensitivity(Qt::CaseInsensitive);
}

void CSortFilter::SetSortable(bool On) {
  m_Sortable = On;
  invalidate();
}

void CSortFilter::SetFilterText(int Col, const QString& sText) {
  if (sText.trimmed().isEmpty()) m_Filters.remove(Col);
  else m_Filters[Col] = sText.trimmed();
}

void CSortFilter::ClearFilters() {
  m_Filters.clear();
  invalidateFilter();
}

namespace {

// A number or a time (in ns) of a filter text or a cell.
bool ParseNumber(QString s, int Kind, double* pOut) {
  s = s.trimmed();
  if (s.isEmpty()) return false;
  bool ok = false;
  if (Kind & FILTER_KIND_TIME) {
    static const std::pair<const char*, double> kUnits[] = {{"ns", 1}, {"us", 1e3}, {"ms", 1e6}, {"s", 1e9}};
    double Scale = 1;
    for (const auto& u : kUnits)
      if (s.endsWith(QLatin1String(u.first), Qt::CaseInsensitive)) {
        Scale = u.second;
        s.chop(int(qstrlen(u.first)));
        break;
      }
    *pOut = s.trimmed().toDouble(&ok) * Scale;
    return ok;
  }
  const bool HasPrefix = s.startsWith(QLatin1String("0x"), Qt::CaseInsensitive);
  if (HasPrefix || (Kind & FILTER_KIND_HEX)) {
    const quint64 v = (HasPrefix ? s.mid(2) : s).toULongLong(&ok, 16);
    *pOut = double(v);
    return ok;
  }
  const qint64 v = s.toLongLong(&ok, 10);
  if (ok) {
    *pOut = double(v);
    return true;
  }
  *pOut = s.toDouble(&ok);
  return ok;
}

}  // namespace

bool CSortFilter::ParseRange(const QString& sText, int Kind, double* pMin, double* pMax) {
  const QString s = sText.trimmed();
  const int Dash = s.indexOf(QLatin1Char('-'), 1);
  *pMin = -HUGE_VAL;
  *pMax = HUGE_VAL;
  if (s.startsWith(QLatin1Char('-'))) return ParseNumber(s.mid(1), Kind, pMax);
  if (Dash < 0) {
    if (!ParseNumber(s, Kind, pMin)) return false;
    *pMax = *pMin;
    return true;
  }
  const QString sHigh = s.mid(Dash + 1).trimmed();
  if (!ParseNumber(s.left(Dash), Kind, pMin)) return false;
  return sHigh.isEmpty() || ParseNumber(sHigh, Kind, pMax);
}

QString CSortFilter::RangeText(const QString& sMin, const QString& sMax) {
  const QString a = sMin.trimmed(), b = sMax.trimmed();
  if (a.isEmpty() && b.isEmpty()) return QString();
  if (a == b) return a;
  return a + QLatin1Char('-') + b;
}

void CSortFilter::sort(int Column, Qt::SortOrder Order) {
  m_KeyCache.clear();
  m_SortContext = ContextFor(Column);
  m_SortContext.Ascending = Order == Qt::AscendingOrder;
  m_InSort = true;
  QSortFilterProxyModel::sort(Column, Order);
  m_InSort = false;
  m_KeyCache.clear();
}

CSortFilter::SORT_CONTEXT CSortFilter::ContextFor(int Column) const {
  SORT_CONTEXT c;
  c.Ascending = sortOrder() == Qt::AscendingOrder;
  const QAbstractItemModel* m = sourceModel();
  const auto* pTable = qobject_cast<const CTableModel*>(m);
  c.MayPin = !pTable || pTable->HasPinnedRows();
  c.KeepOrder = !m_Sortable || (m && m->objectName() == QLatin1String("CallStackDataModel"));
  c.Kind = m ? m->headerData(Column, Qt::Horizontal, ROLE_FILTER_KIND).toInt() : FILTER_KIND_TEXT;
  return c;
}

CSortFilter::SORT_KEYS CSortFilter::KeysFor(const QModelIndex& i) {
  // Folded once, so that comparing is a plain compare without regard to case.
  return SORT_KEYS{i.data(ROLE_PINNED).toBool(), i.data().toString().toCaseFolded(), i.data(ROLE_SORT_KEY),
                   i.data(ROLE_SORT_KEY_2)};
}

const CSortFilter::SORT_KEYS& CSortFilter::CachedKeys(const QModelIndex& Index) const {
  auto it = m_KeyCache.find(Index);
  if (it == m_KeyCache.end()) it = m_KeyCache.emplace(Index, KeysFor(Index)).first;
  return it->second;
}

bool CSortFilter::lessThan(const QModelIndex& Left, const QModelIndex& Right) const {
  if (m_InSort) return Less(Left, Right, CachedKeys(Left), CachedKeys(Right), m_SortContext);
  // A sort the proxy starts by itself (a change of data) asks the rows.
  return Less(Left, Right, KeysFor(Left), KeysFor(Right), ContextFor(Left.column()));
}

bool CSortFilter::Less(const QModelIndex& Left, const QModelIndex& Right, const SORT_KEYS& L, const SORT_KEYS& R,
                       const SORT_CONTEXT& c) {
  // "Left before Right" in the order shown, whatever the sort order.
  auto Before = [&c](bool LeftFirst) { return c.Ascending ? LeftFirst : !LeftFirst; };
  const bool PinL = c.MayPin && L.Pinned, PinR = c.MayPin && R.Pinned;
  if (PinL != PinR) return Before(PinL);
  if (c.KeepOrder || PinL) {
    if (Left.row() == Right.row()) return false;
    return Before(Left.row() < Right.row());
  }
  auto TextLess = [&] { return L.Text < R.Text; };
  if (!(c.Kind & FILTER_KIND_NUMBER)) return TextLess();
  for (int k = 0; k < 2; ++k) {
    const QVariant& a = k ? L.Key2 : L.Key1;
    const QVariant& b = k ? R.Key2 : R.Key1;
    if (!a.isValid() || !b.isValid()) return TextLess();
    if (a.typeId() == QMetaType::Double || b.typeId() == QMetaType::Double) {
      const double x = a.toDouble(), y = b.toDouble();
      if (std::fabs(x - y) <= 1e-15) continue;
      return x < y;
    }
    if (a.typeId() == QMetaType::QString || b.typeId() == QMetaType::QString) {
      const int cmp = QString::compare(a.toString(), b.toString(), Qt::CaseInsensitive);
      if (cmp == 0) continue;
      return cmp < 0;
    }
    const qlonglong x = a.toLongLong(), y = b.toLongLong();
    if (x == y) {
      const qulonglong ux = a.toULongLong(), uy = b.toULongLong();
      if (ux == uy) continue;
      return ux < uy;
    }
    return x < y;
  }
  return false;
}

bool CSortFilter::CellPasses(const QModelIndex& Cell, const QString& sFilter) const {
  const auto* pTable = qobject_cast<const CTableModel*>(sourceModel());
  if ((!pTable || pTable->HasPinnedRows()) && Cell.data(ROLE_PINNED).toBool()) return true;
  int Kind = sourceModel()->headerData(Cell.column(), Qt::Horizontal, ROLE_FILTER_KIND).toInt();
  if (Kind == 0) Kind = FILTER_KIND_TEXT;
  if (Kind & FILTER_KIND_TEXT) return Cell.data().toString().contains(sFilter, Qt::CaseInsensitive);
  if (!(Kind & FILTER_KIND_NUMBER)) return true;
  double Min, Max, v;
  if (!ParseRange(sFilter, Kind, &Min, &Max)) return false;
  const QVariant Key = Cell.data(ROLE_SORT_KEY);
  bool ok = false;
  v = Key.isValid() && Key.typeId() != QMetaType::QString ? Key.toDouble(&ok) : 0;
  if (!ok && !ParseNumber(Cell.data().toString(), Kind, &v)) return false;
  return v >= Min && v <= Max;
}

bool CSortFilter::filterAcceptsRow(int SourceRow, const QModelIndex& SourceParent) const {
  const QAbstractItemModel* m = sourceModel();
  if (!m || SourceParent.isValid()) return true;
  for (auto it = m_Filters.constBegin(); it != m_Filters.constEnd(); ++it) {
    if (it.key() >= m->columnCount()) continue;
    if (!CellPasses(m->index(SourceRow, it.key()), it.value())) return false;
  }
  return true;
}

bool CSortFilter::FilterMatch(const QModelIndex& ProxyIndex, int* pStart, int* pLength) const {
  const QString sFilter = m_Filters.value(ProxyIndex.column());
  if (sFilter.isEmpty() || ProxyIndex.parent().isValid()) return false;
  const QAbstractItemModel* m = sourceModel();
  const int Kind = m ? m->headerData(ProxyIndex.column(), Qt::Horizontal, ROLE_FILTER_KIND).toInt() : 1;
  if (Kind != 0 && !(Kind & FILTER_KIND_TEXT)) return false;
  const int At = ProxyIndex.data().toString().indexOf(sFilter, 0, Qt::CaseInsensitive);
  if (At < 0) return false;
  *pStart = At;
  *pLength = int(sFilter.size());
  return true;
}
