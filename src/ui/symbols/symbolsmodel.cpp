#include "ui/symbols/symbolsmodel.h"

#include "device/datamanager.h"
#include "device/device.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "log/log.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr int kMaxChildRows = 10000;
constexpr U32 kMaxTextBytes = 32;

QByteArray LocKey(const ELF_SYM_LOC& l, U32 nBytes, const QByteArray& sZone) {
  QByteArray k(reinterpret_cast<const char*>(&l.count), 4);
  for (U32 i = 0; i < l.count && i < 2; ++i) k.append(reinterpret_cast<const char*>(&l.parts[i]), sizeof(l.parts[i]));
  k.append(reinterpret_cast<const char*>(&nBytes), 4);
  return k + '@' + sZone;
}

QByteArray MemKey(U32 Addr, U32 nBytes, const QByteArray& sZone) {
  return QByteArray::number(Addr, 16) + ':' + QByteArray::number(nBytes) + '@' + sZone;
}

bool IsAggregate(const CSymbol* s) { return s->GetChildCount() > 0 && !s->IsPointer() && !s->IsReference() && !s->IsArray(); }

// The value held in a location with an offset (a register or an address
// plus a constant) is the bytes read plus that constant.
QByteArray WithOffset(const SYM_LOC& Loc, QByteArray Bytes, bool Subtract) {
  if (!Loc.count) return Bytes;
  const SYM_LOC_PART& p = Loc.parts[0];
  if ((p.kind != SYM_LOC_ADDR_OFFSET && p.kind != SYM_LOC_REG_OFFSET && p.kind != SYM_LOC_REG_INDIRECT) || !p.offset)
    return Bytes;
  const int n = qMin(8, int(Bytes.size()));
  U64 v = 0;
  for (int i = 0; i < n; ++i) v |= U64(U8(Bytes[i])) << (8 * i);
  v = Subtract ? v - U64(p.offset) : v + U64(p.offset);
  for (int i = 0; i < n; ++i) Bytes[i] = char((v >> (8 * i)) & 0xFF);
  return Bytes;
}

bool CanRead(bool WhileRunning) {
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected()) return false;
  return d->HaltReported() || (WhileRunning && d->CanAccessMemory());
}

}  // namespace

// Pending reads: the rows waiting for one answer, by location or address.
struct PENDING_READS {
  QMultiHash<QByteArray, CSymbol*> Locs;
  QMultiHash<QByteArray, CSymbol*> Mems;
  void Drop(CSymbol* p) {
    for (auto* h : {&Locs, &Mems})
      for (auto it = h->begin(); it != h->end();) {
        if (it.value() == p) it = h->erase(it);
        else ++it;
      }
  }
  bool Holds(CSymbol* p) const {
    for (const auto* h : {&Locs, &Mems})
      for (auto it = h->cbegin(); it != h->cend(); ++it)
        if (it.value() == p) return true;
    return false;
  }
};
static QHash<const CSymbolsDataModel*, PENDING_READS>& Pendings() {
  static QHash<const CSymbolsDataModel*, PENDING_READS> s;
  return s;
}

CSymbolsDataModel::CSymbolsDataModel(QObject* pParent) : CTableModel(pParent) {
  SetColumns({QStringLiteral("Name"), QStringLiteral("Value"), QStringLiteral("Location"), QStringLiteral("Size"),
              QStringLiteral("Refresh"), QStringLiteral("Type"), QStringLiteral("Access"), QStringLiteral("Scope")});
  const int Kinds[SYM_COL_COUNT] = {1, 4, 8, 16, 16, 2, 2, 1};
  for (int c = 0; c < SYM_COL_COUNT; ++c) SetColumnFilterKind(c, Kinds[c]);
  SetColumnConstWidth(SYM_COL_VALUE, true);
}

CSymbolsDataModel::~CSymbolsDataModel() {
  if (CDeviceDataManager* m = CDeviceDataManager::InstanceIfCreated()) m->CancelRequests(this);
  Pendings().remove(this);
}

// ---------------------------------------------------------------- roots

CSymbol* CSymbolsDataModel::Root(int Row) const {
  if (Row < 0 || Row >= RootCount()) return nullptr;
  std::unique_ptr<CSymbol>& p = m_Roots[size_t(Row)];
  if (!p && m_MakeRoot) p = m_MakeRoot(Row);
  if (!p) p = std::make_unique<CSymbol>();
  return p.get();
}

void CSymbolsDataModel::SetLazyRoots(int Count, const std::function<std::unique_ptr<CSymbol>(int)>& Make) {
  std::vector<std::unique_ptr<CSymbol>> Empty(size_t(qMax(0, Count)));
  SetRoots(std::move(Empty));
  m_MakeRoot = Make;
}

void CSymbolsDataModel::InsertRoot(std::unique_ptr<CSymbol> pSym, int Index) {
  if (Index < 0 || Index > RootCount()) Index = RootCount();
  pSym->ClearData();
  beginInsertRows(QModelIndex(), Index, Index);
  m_Roots.insert(m_Roots.begin() + Index, std::move(pSym));
  endInsertRows();
}

void CSymbolsDataModel::RemoveRoot(int Row) {
  if (!Root(Row)) return;
  beginRemoveRows(QModelIndex(), Row, Row);
  Forget(Root(Row));
  m_Roots.erase(m_Roots.begin() + Row);
  endRemoveRows();
}

void CSymbolsDataModel::ReplaceRoot(int Row, std::unique_ptr<CSymbol> pSym) {
  if (!Root(Row)) return;
  const int n = rowCount(index(Row, 0));
  if (n > 0) {
    beginRemoveRows(index(Row, 0), 0, n - 1);
    if (NODE_INFO* i = Info(Root(Row))) i->Fetched = false;
    endRemoveRows();
  }
  Forget(Root(Row));
  m_Roots[size_t(Row)] = std::move(pSym);
  emit dataChanged(index(Row, 0), index(Row, SYM_COL_COUNT - 1));
}

void CSymbolsDataModel::SetRoots(std::vector<std::unique_ptr<CSymbol>> Roots) {
  beginResetModel();
  m_MakeRoot = nullptr;
  for (auto& r : m_Roots) Forget(r.get());
  m_Roots = std::move(Roots);
  m_IdOf.clear();
  m_Nodes.clear();
  ForgetAllRoles();
  endResetModel();
}

void CSymbolsDataModel::ClearRoots() { SetRoots({}); }

void CSymbolsDataModel::Forget(CSymbol* pSym) {
  if (!pSym) return;
  std::vector<CSymbol*> Stack{pSym};
  PENDING_READS* pr = Pendings().contains(this) ? &Pendings()[this] : nullptr;
  while (!Stack.empty()) {
    CSymbol* s = Stack.back();
    Stack.pop_back();
    for (auto& [k, c] : s->children)
      if (c) Stack.push_back(c.get());
    if (pr) pr->Drop(s);
    const U64 Id = m_IdOf.take(s);
    if (Id) {
      m_Nodes.remove(Id);
      ForgetRoles(Id);
    }
  }
}

// ---------------------------------------------------------------- nodes

U64 CSymbolsDataModel::Register(CSymbol* pSym, CSymbol* pParent) const {
  auto it = m_IdOf.constFind(pSym);
  if (it != m_IdOf.constEnd()) return *it;
  const U64 Id = m_NextId++;
  m_IdOf.insert(pSym, Id);
  m_Nodes.insert(Id, NODE_INFO{pSym, pParent, false});
  return Id;
}

CSymbolsDataModel::NODE_INFO* CSymbolsDataModel::Info(const CSymbol* pSym) const {
  auto it = m_IdOf.constFind(pSym);
  if (it == m_IdOf.constEnd()) return nullptr;
  auto n = m_Nodes.find(*it);
  return n == m_Nodes.end() ? nullptr : &*n;
}

CSymbol* CSymbolsDataModel::NodeOf(const QModelIndex& Index) const {
  if (!Index.isValid() || Index.model() != this) return nullptr;
  auto it = m_Nodes.constFind(U64(Index.internalId()));
  return it == m_Nodes.constEnd() ? nullptr : it->pSym;
}

int CSymbolsDataModel::ChildRows(const CSymbol* pSym) const {
  if (!pSym || pSym->IsEmpty()) return 0;
  return qBound(0, pSym->GetChildCount(), kMaxChildRows);
}

CSymbol* CSymbolsDataModel::ChildAt(CSymbol* pSym, int Row) const {
  CSymbol& c = pSym->GetChild(Row);
  return &c == &CSymbol::Empty() ? nullptr : &c;
}

int CSymbolsDataModel::RowInParent(const CSymbol* pSym) const {
  const NODE_INFO* i = Info(pSym);
  if (!i) return -1;
  if (!i->pParent) {
    for (int r = 0; r < RootCount(); ++r)
      if (m_Roots[size_t(r)].get() == pSym) return r;
    return -1;
  }
  for (const auto& [k, c] : i->pParent->children)
    if (c.get() == pSym) return k;
  return -1;
}

QModelIndex CSymbolsDataModel::IndexOfNode(const CSymbol* pSym, int Col) const {
  const int Row = RowInParent(pSym);
  if (Row < 0) return QModelIndex();
  return createIndex(Row, Col, quintptr(m_IdOf.value(pSym)));
}

int CSymbolsDataModel::RootRowOf(const CSymbol* pSym) const {
  const CSymbol* s = pSym;
  for (int Guard = 0; s && Guard < 10000; ++Guard) {
    const NODE_INFO* i = Info(s);
    if (!i) return -1;
    if (!i->pParent) break;
    s = i->pParent;
  }
  for (int r = 0; r < RootCount(); ++r)
    if (m_Roots[size_t(r)].get() == s) return r;
  return -1;
}

std::vector<CSymbol*> CSymbolsDataModel::RowNodes() const {
  std::vector<CSymbol*> Out, Stack;
  for (auto it = m_Roots.rbegin(); it != m_Roots.rend(); ++it)
    if (*it) Stack.push_back(it->get());
  while (!Stack.empty()) {
    CSymbol* s = Stack.back();
    Stack.pop_back();
    Out.push_back(s);
    const NODE_INFO* i = Info(s);
    if (!i || !i->Fetched) continue;
    std::vector<CSymbol*> Kids;
    for (auto& [k, c] : s->children)
      if (c && m_IdOf.contains(c.get())) Kids.push_back(c.get());
    Stack.insert(Stack.end(), Kids.rbegin(), Kids.rend());
  }
  return Out;
}

std::vector<CSymbol*> CSymbolsDataModel::PointerParents(CSymbol* pSym) const {
  std::vector<CSymbol*> Out;
  const NODE_INFO* i = Info(pSym);
  for (int Guard = 0; i && i->pParent && Guard < 10000; ++Guard) {
    CSymbol* p = i->pParent;
    if (p->IsPointer() || p->IsReference()) Out.push_back(p);
    i = Info(p);
  }
  return Out;
}

// ---------------------------------------------------------------- model

U64 CSymbolsDataModel::RowIdOf(const QModelIndex& Index) const {
  return NodeOf(Index) ? U64(Index.internalId()) : 0;
}

QModelIndex CSymbolsDataModel::IndexOfRow(U64 Id, int Col) const {
  auto it = m_Nodes.constFind(Id);
  return it == m_Nodes.constEnd() ? QModelIndex() : IndexOfNode(it->pSym, Col);
}

QModelIndex CSymbolsDataModel::index(int Row, int Column, const QModelIndex& Parent) const {
  if (Row < 0 || Column < 0 || Column >= SYM_COL_COUNT) return QModelIndex();
  if (!Parent.isValid()) {
    CSymbol* s = Root(Row);
    return s ? createIndex(Row, Column, quintptr(Register(s, nullptr))) : QModelIndex();
  }
  CSymbol* p = NodeOf(Parent);
  if (!p || Row >= ChildRows(p)) return QModelIndex();
  CSymbol* c = ChildAt(p, Row);
  return c ? createIndex(Row, Column, quintptr(Register(c, p))) : QModelIndex();
}

QModelIndex CSymbolsDataModel::parent(const QModelIndex& Child) const {
  CSymbol* s = NodeOf(Child);
  const NODE_INFO* i = s ? Info(s) : nullptr;
  return i && i->pParent ? IndexOfNode(i->pParent) : QModelIndex();
}

int CSymbolsDataModel::rowCount(const QModelIndex& Parent) const {
  if (!Parent.isValid()) return RootCount();
  if (Parent.column() != 0) return 0;
  CSymbol* s = NodeOf(Parent);
  const NODE_INFO* i = s ? Info(s) : nullptr;
  return i && i->Fetched ? ChildRows(s) : 0;
}

bool CSymbolsDataModel::hasChildren(const QModelIndex& Parent) const {
  if (!Parent.isValid()) return RootCount() > 0;
  return Parent.column() == 0 && ChildRows(NodeOf(Parent)) > 0;
}

bool CSymbolsDataModel::canFetchMore(const QModelIndex& Parent) const {
  CSymbol* s = NodeOf(Parent);
  const NODE_INFO* i = s ? Info(s) : nullptr;
  return i && !i->Fetched && ChildRows(s) > 0;
}

void CSymbolsDataModel::fetchMore(const QModelIndex& Parent) {
  CSymbol* s = NodeOf(Parent);
  NODE_INFO* i = s ? Info(s) : nullptr;
  if (!i || i->Fetched) return;
  const int n = ChildRows(s);
  if (n <= 0) return;
  beginInsertRows(Parent.siblingAtColumn(0), 0, n - 1);
  Info(s)->Fetched = true;
  endInsertRows();
  emit ReadsWanted();
}

QString CSymbolsDataModel::RootNameText(int Row) const { return Root(Row) ? Root(Row)->GetDisplayName() : QString(); }
QString CSymbolsDataModel::RefreshText(const CSymbol*) const { return QString(); }
QString CSymbolsDataModel::ZoneSuffix(const CSymbol*) const { return QString(); }
int CSymbolsDataModel::OwnFormat(const CSymbol* pSym) const {
  const auto it = m_IdOf.constFind(pSym);
  return it == m_IdOf.constEnd() ? 0 : Role(*it, 0, ROLE_DISPLAY_FORMAT).toInt();
}
QString CSymbolsDataModel::ZoneOf(const CSymbol*) const { return QString(); }

int CSymbolsDataModel::FormatOf(CSymbol* pSym) const {
  if (const int Own = OwnFormat(pSym)) return Own;
  if (const int w = m_WindowFormat ? m_WindowFormat() : 0) return w;
  if (pSym->IsPointer() || pSym->IsReference() || pSym->IsArray()) return DISPLAY_FORMAT_HEX;
  return DISPLAY_FORMAT_DEC;
}

QString CSymbolsDataModel::CellTextOf(CSymbol* s, int Col, int RootRow) const {
  switch (Col) {
    case SYM_COL_NAME: return RootRow >= 0 ? RootNameText(RootRow) : s->GetDisplayName();
    case SYM_COL_VALUE: return s->IsEmpty() ? QString() : s->GetValueText(FormatOf(s), true);
    case SYM_COL_LOCATION: return s->IsEmpty() ? QString() : s->GetLocationText(true);
    case SYM_COL_SIZE: return s->IsEmpty() ? QString() : s->GetSizeText(false);
    case SYM_COL_REFRESH: return RefreshText(s);
    case SYM_COL_TYPE: return s->GetTypeText() + ZoneSuffix(s);
    case SYM_COL_ACCESS: {
      if (!s->handle || !ELF_IsDieHandle(s->handle)) return QString();
      return QString::fromUtf8(ELF_GetAccessibilityText(ELF_GetAccessibility(s->handle)));
    }
    case SYM_COL_SCOPE: return s->GetScopeText();
    default: return QString();
  }
}

QVariant CSymbolsDataModel::data(const QModelIndex& Index, int Role) const {
  CSymbol* s = NodeOf(Index);
  if (!s) return QVariant();
  if (Role == Qt::DisplayRole || Role == Qt::EditRole) {
    const NODE_INFO* i = Info(s);
    return CellTextOf(s, Index.column(), i && !i->pParent ? Index.row() : -1);
  }
  if (Role == ROLE_DISPLAY_FORMAT) return OwnFormat(s);
  if (Role == Qt::ToolTipRole) return s->IsEmpty() ? QVariant() : QVariant(s->GetToolTipText(true));
  return CTableModel::data(Index, Role);
}

Qt::ItemFlags CSymbolsDataModel::flags(const QModelIndex& Index) const {
  Qt::ItemFlags f = CTableModel::flags(Index);
  if (Index.column() == SYM_COL_VALUE && NodeOf(Index)) f |= Qt::ItemIsEditable;
  return f;
}

bool CSymbolsDataModel::IsCellChangeable(const QModelIndex& Index) const { return Index.column() == SYM_COL_VALUE; }

bool CSymbolsDataModel::setData(const QModelIndex& Index, const QVariant& Value, int Role) {
  CSymbol* s = NodeOf(Index);
  if (!s) return false;
  if (Role == Qt::EditRole && Index.column() == SYM_COL_VALUE) {
    QString sError;
    if (WriteValue(s, Value.toString(), &sError) == 0) return true;
    if (!sError.isEmpty()) LogMessage(sError, MSG_WARNING | MSG_CONSOLE | MSG_FILE | MSG_OWN);
    return false;
  }
  if (Role == Qt::EditRole) return false;
  return CTableModel::setData(Index, Value, Role);
}

// ---------------------------------------------------------------- reading

void CSymbolsDataModel::SetState(CSymbol* pSym, int St) {
  const U64 Id = m_IdOf.value(pSym);
  if (!Id) return;
  SetRole(Id, 0, ROLE_READ_STATE, St);
  if (St == READ_STATE_DONE) {
    const QModelIndex i = IndexOfNode(pSym);
    if (i.isValid()) emit dataChanged(i, i.siblingAtColumn(SYM_COL_COUNT - 1));
  }
}

int CSymbolsDataModel::State(const CSymbol* pSym) const {
  const U64 Id = m_IdOf.value(pSym);
  return Id ? Role(Id, 0, ROLE_READ_STATE).toInt() : READ_STATE_DONE;
}

void CSymbolsDataModel::InvalidateAll() {
  InvalidateReads();
  RepaintAll();
}

bool CSymbolsDataModel::ReadRow(U64 Id) { return UpdateItem(IndexOfRow(Id)); }

bool CSymbolsDataModel::UpdateItem(const QModelIndex& Index) {
  CSymbol* s = NodeOf(Index);
  if (!s || s->IsEmpty()) return false;
  if (!CanRead(m_ReadsWhileRunning)) return false;
  for (CSymbol* p : PointerParents(s)) {
    const int St = State(p);
    if (St == READ_STATE_PENDING) return false;
    if (St == READ_STATE_NONE) {
      UpdateItem(IndexOfNode(p));
      return false;
    }
  }
  const SYM_LOC Loc = s->GetLocation();
  if (!Loc.count) {
    s->data.clear();
    s->textData.clear();
    SetState(s, READ_STATE_DONE);
    return true;
  }
  const QByteArray Zone = ZoneOf(s).toUtf8();
  const QByteArray Key = CDeviceDataManager::ResolveZone(Zone.isEmpty() ? nullptr : Zone.constData());
  CDeviceDataManager& Dm = CDeviceDataManager::Instance();
  if (IsAggregate(s)) {
    SetState(s, READ_STATE_DONE);
    return true;
  }
  if (s->IsArray()) {
    I64 Addr = 0;
    if (!s->ShowsText() || !s->GetAddress(Addr)) {
      SetState(s, READ_STATE_DONE);
      return true;
    }
    const U32 Elem = s->arrayInfo.elementBytes ? s->arrayInfo.elementBytes : 1;
    const U32 n = qMin<U32>(kMaxTextBytes, Elem * U32(qMax(0, s->GetChildCount())));
    SetState(s, READ_STATE_PENDING);
    Pendings()[this].Mems.insert(MemKey(U32(Addr), n, Key), s);
    ++m_Counts.Queued;
    const int r = n ? Dm.ReadMemAsync(this, U32(Addr), n, Zone.isEmpty() ? nullptr : Zone.constData(), 0, AW_ANY, 0) : 1;
    Settle(s, r);
    return true;
  }
  const U32 Size = s->GetSize();
  if (s->byteSize > 8 || Size == 0 || Size > 8 || s->IsFunction()) {
    SetState(s, READ_STATE_DONE);
    return true;
  }
  const ELF_SYM_LOC e = SYM_ToElfLocation(Loc);
  SetState(s, READ_STATE_PENDING);
  Pendings()[this].Locs.insert(LocKey(e, Size, Key), s);
  ++m_Counts.Queued;
  Settle(s, Dm.ReadSymDataAsync(this, e, Size, Zone.isEmpty() ? nullptr : Zone.constData()));
  return true;
}

void CSymbolsDataModel::Settle(CSymbol* s, int ReadResult) {
  // Without an answer to come, a row still waiting is done (its old data
  // stays).
  PENDING_READS& pr = Pendings()[this];
  if (ReadResult == 2 || !pr.Holds(s)) return;
  pr.Drop(s);
  SetState(s, READ_STATE_DONE);
}

void CSymbolsDataModel::Prefetch(const std::vector<CSymbol*>& Rows) {
  constexpr U32 kMaxGap = 256, kMaxRange = 4096;
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected() || !d->HaltReported()) return;
  // Ranges by zone: (start, end) of each row's bytes.
  QHash<QByteArray, std::vector<std::pair<U32, U32>>> ByZone;
  for (CSymbol* s : Rows) {
    if (!s || s->IsEmpty() || State(s) != READ_STATE_NONE || IsAggregate(s) || s->IsFunction()) continue;
    const U32 Size = s->IsArray() ? qMin<U32>(kMaxTextBytes, s->GetSize()) : s->GetSize();
    if (!Size || Size > kMaxTextBytes) continue;
    const SYM_LOC Loc = s->GetLocation();
    if (Loc.count != 1 || Loc.parts[0].kind != SYM_LOC_ADDR) continue;
    const U64 a = Loc.parts[0].address & 0xFFFFFFFFull;
    if (a + Size > 0x100000000ull) continue;
    ByZone[ZoneOf(s).toUtf8()].push_back({U32(a), U32(a + Size)});
  }
  for (auto it = ByZone.begin(); it != ByZone.end(); ++it) {
    std::vector<std::pair<U32, U32>>& v = it.value();
    if (v.size() < 2) continue;
    std::sort(v.begin(), v.end());
    const char* pZone = it.key().isEmpty() ? nullptr : it.key().constData();
    auto Flush = [&](U32 a, U32 e, int n) {
      if (n >= 2) CDeviceDataManager::Instance().ReadMemAsync(this, a, e - a, pZone, 0, AW_ANY, 0);
    };
    U32 Start = v[0].first, End = v[0].second;
    int n = 1;
    for (size_t i = 1; i < v.size(); ++i) {
      if (v[i].first <= End + kMaxGap && qMax(End, v[i].second) - Start <= kMaxRange) {
        End = qMax(End, v[i].second);
        ++n;
        continue;
      }
      Flush(Start, End, n);
      Start = v[i].first, End = v[i].second, n = 1;
    }
    Flush(Start, End, n);
  }
}

void CSymbolsDataModel::ChildrenUnread(CSymbol* pSym) {
  bool Any = false;
  for (auto& [k, c] : pSym->children) {
    const U64 Id = c ? m_IdOf.value(c.get()) : 0;
    if (!Id) continue;
    SetRole(Id, 0, ROLE_READ_STATE, int(READ_STATE_NONE));
    Any = true;
  }
  if (Any) emit ReadsWanted();
}

void CSymbolsDataModel::ApplyLocData(CSymbol* s, const SYM_LOC& Loc, const U8* paData, U32 nBytes) {
  const QByteArray Old = s->data;
  s->SetData(WithOffset(Loc, QByteArray(reinterpret_cast<const char*>(paData), int(nBytes)), false));
  SetState(s, READ_STATE_DONE);
  if (s->IsPointer() && s->ShowsText() && (s->data != Old || s->textData.isEmpty())) {
    bool Ok = false;
    const U64 v = s->ReadUnsigned(&Ok, false);
    if (Ok && v) {
      const QByteArray Zone = ZoneOf(s).toUtf8();
      const char* pZone = Zone.isEmpty() ? nullptr : Zone.constData();
      Pendings()[this].Mems.insert(MemKey(U32(v), kMaxTextBytes, CDeviceDataManager::ResolveZone(pZone)), s);
      ++m_Counts.Queued;
      if (CDeviceDataManager::Instance().ReadMemAsync(this, U32(v), kMaxTextBytes, pZone, 0, AW_ANY, 0) != 2)
        Pendings()[this].Mems.remove(MemKey(U32(v), kMaxTextBytes, CDeviceDataManager::ResolveZone(pZone)), s);
    }
  }
  if (s->IsPointer() || s->IsReference()) ChildrenUnread(s);
}

void CSymbolsDataModel::OnDeviceReadLocDone(ELF_SYM_LOC Loc, U32 nBytes, const char* sZone, U8* paData) {
  ++m_Counts.Answered;
  if (nBytes < 1 || nBytes > 8 || !paData) return;
  const QByteArray Key = LocKey(Loc, nBytes, QByteArray(sZone ? sZone : ""));
  PENDING_READS& pr = Pendings()[this];
  const QList<CSymbol*> Rows = pr.Locs.values(Key);
  pr.Locs.remove(Key);
  const SYM_LOC l = SYM_FromElfLocation(Loc);
  for (CSymbol* s : Rows) ApplyLocData(s, l, paData, nBytes);
  if (!Rows.isEmpty()) emit RowRead();
}

void CSymbolsDataModel::OnDeviceReadLocFailed(ELF_SYM_LOC Loc, U32 nBytes, const char* sZone) {
  ++m_Counts.Answered;
  const QByteArray Key = LocKey(Loc, nBytes, QByteArray(sZone ? sZone : ""));
  PENDING_READS& pr = Pendings()[this];
  for (CSymbol* s : pr.Locs.values(Key)) SetState(s, READ_STATE_DONE);
  pr.Locs.remove(Key);
  emit RowRead();
}

void CSymbolsDataModel::OnDeviceReadMemDone(U32 Addr, U32 nBytes, const char* sZone, U8* paData, U8* paStatus) {
  ++m_Counts.Answered;
  const QByteArray Key = MemKey(Addr, nBytes, QByteArray(sZone ? sZone : ""));
  PENDING_READS& pr = Pendings()[this];
  const QList<CSymbol*> Rows = pr.Mems.values(Key);
  pr.Mems.remove(Key);
  // The bytes up to the first one that failed make the text.
  U32 Good = 0;
  while (Good < nBytes && paData && (!paStatus || paStatus[Good] == 0)) ++Good;
  for (CSymbol* s : Rows) {
    if (Good) s->SetTextData(QByteArray(reinterpret_cast<const char*>(paData), int(Good)));
    SetState(s, READ_STATE_DONE);
  }
  if (!Rows.isEmpty()) emit RowRead();
}

void CSymbolsDataModel::OnDeviceReadMemFailed(U32 Addr, U32 nBytes, const char* sZone) {
  OnDeviceReadMemDone(Addr, nBytes, sZone, nullptr, nullptr);
}

CSymbolsDataModel::READ_COUNTS CSymbolsDataModel::TakeReadCounts() {
  const READ_COUNTS c = m_Counts;
  m_Counts = {};
  return c;
}

void CSymbolsDataModel::ReadNodeNow(CSymbol* s) {
  if (s->IsEmpty()) return;
  const SYM_LOC Loc = s->GetLocation();
  const QByteArray Zone = ZoneOf(s).toUtf8();
  const char* pZone = Zone.isEmpty() ? nullptr : Zone.constData();
  CDeviceDataManager& Dm = CDeviceDataManager::Instance();
  if (!Loc.count) {
    s->data.clear();
    s->textData.clear();
  } else if (s->IsArray()) {
    I64 Addr = 0;
    if (s->ShowsText() && s->GetAddress(Addr)) {
      const U32 Elem = s->arrayInfo.elementBytes ? s->arrayInfo.elementBytes : 1;
      const U32 n = qMin<U32>(kMaxTextBytes, Elem * U32(qMax(0, s->GetChildCount())));
      U8 Buf[kMaxTextBytes], St[kMaxTextBytes];
      if (n && Dm.ReadMemSync(U32(Addr), n, pZone, Buf, St) == 0)
        s->SetTextData(QByteArray(reinterpret_cast<const char*>(Buf), int(n)));
    }
  } else if (!IsAggregate(s) && s->byteSize <= 8 && s->GetSize() > 0 && s->GetSize() <= 8 && !s->IsFunction()) {
    U8 Buf[8] = {};
    if (Dm.ReadSymData(SYM_ToElfLocation(Loc), s->GetSize(), pZone, Buf) == 0) {
      s->SetData(WithOffset(Loc, QByteArray(reinterpret_cast<const char*>(Buf), int(s->GetSize())), false));
      bool Ok = false;
      const U64 v = s->IsPointer() && s->ShowsText() ? s->ReadUnsigned(&Ok, false) : 0;
      U8 Txt[kMaxTextBytes], St[kMaxTextBytes];
      if (Ok && v && Dm.ReadMemSync(U32(v), kMaxTextBytes, pZone, Txt, St) >= 0) {
        U32 Good = 0;
        while (Good < kMaxTextBytes && St[Good] == 0) ++Good;
        if (Good) s->SetTextData(QByteArray(reinterpret_cast<const char*>(Txt), int(Good)));
      }
    }
  }
  SetState(s, READ_STATE_DONE);
}

void CSymbolsDataModel::ReadAllNow() {
  if (!CanRead(m_ReadsWhileRunning)) return;
  for (CSymbol* s : RowNodes()) ReadNodeNow(s);
  RepaintAll();
}

SYM_LOC CSymbolsDataModel::UsableLocation(const SYM_LOC& Loc) {
  if (Loc.count == 2 && (!Loc.parts[0].size || !Loc.parts[1].size)) return SYM_LOC();
  return Loc;
}

// ---------------------------------------------------------------- editing

QString CSymbolsDataModel::WhyNotWritable(CSymbol* s) {
  if (!s || s->IsEmpty()) return QStringLiteral("no symbol");
  const SYM_LOC Loc = s->GetLocation();
  if (!Loc.count) {
    if (!s->constData.isEmpty()) return QStringLiteral("value of \"%1\" is a constant and cannot be written").arg(s->GetDisplayName());
    return QStringLiteral("\"%1\" has no location and cannot be written").arg(s->GetDisplayName());
  }
  if (Loc.IsConst()) return QStringLiteral("value of \"%1\" is a constant and cannot be written").arg(s->GetDisplayName());
  if (IsAggregate(s)) return QStringLiteral("\"%1\" is a structure; write its members").arg(s->GetDisplayName());
  if (s->IsFunction()) return QStringLiteral("\"%1\" is a function and cannot be written").arg(s->GetDisplayName());
  return QString();
}

int CSymbolsDataModel::WriteValue(CSymbol* s, const QString& sText, QString* psError) {
  const QString sWhy = WhyNotWritable(s);
  auto Fail = [psError](const QString& e) {
    if (psError) *psError = e;
    return -1;
  };
  if (!sWhy.isEmpty()) return Fail(sWhy);
  if (!CanRead(m_ReadsWhileRunning)) return Fail(QStringLiteral("target not halted"));
  const SYM_LOC Loc = s->GetLocation();
  const QByteArray Zone = ZoneOf(s).toUtf8();
  const char* pZone = Zone.isEmpty() ? nullptr : Zone.constData();
  CDeviceDataManager& Dm = CDeviceDataManager::Instance();
  const QString t = sText.trimmed();
  bool Ok = false;
  I64 Number = 0;
  if (t.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) Number = I64(t.mid(2).toULongLong(&Ok, 16));
  else if (t.startsWith(QLatin1String("0b"), Qt::CaseInsensitive)) Number = I64(t.mid(2).toULongLong(&Ok, 2));
  else if (t.startsWith(QLatin1Char('\'')) && t.size() >= 3 && t.endsWith(QLatin1Char('\''))) Number = t[1].unicode(), Ok = true;
  else {
    Number = t.toLongLong(&Ok, 10);
    if (!Ok) Number = I64(t.toULongLong(&Ok, 10));
  }
  QByteArray Bytes;
  const U32 Size = s->GetSize();
  if (s->bitSize && Ok) {
    // A bit field: the storage unit read now, only the field's bits changed.
    U8 Buf[8] = {};
    if (Size < 1 || Size > 8 || Dm.ReadSymData(SYM_ToElfLocation(Loc), Size, pZone, Buf) != 0)
      return Fail(QStringLiteral("cannot read \"%1\"").arg(s->GetDisplayName()));
    U64 Raw = 0;
    for (U32 i = 0; i < Size; ++i) Raw |= U64(Buf[i]) << (8 * i);
    const U64 Mask = s->bitSize >= 64 ? ~0ull : ((1ull << s->bitSize) - 1);
    Raw = (Raw & ~(Mask << s->bitOffset)) | ((U64(Number) & Mask) << s->bitOffset);
    for (U32 i = 0; i < Size; ++i) Bytes.append(char((Raw >> (8 * i)) & 0xFF));
  } else if (Ok && !s->IsArray() && Size >= 1 && Size <= 8) {
    if (s->typeClass == 6 || s->typeClass == 135 || s->type.kind == 6 || s->type.kind == 135) {
      const double d = t.toDouble(&Ok);
      if (Size == 4) {
        const float f = float(d);
        Bytes = QByteArray(reinterpret_cast<const char*>(&f), 4);
      } else if (Size == 8) {
        Bytes = QByteArray(reinterpret_cast<const char*>(&d), 8);
      }
    } else {
      for (U32 i = 0; i < Size; ++i) Bytes.append(char((U64(Number) >> (8 * i)) & 0xFF));
    }
  } else if (s->ShowsText()) {
    QString Str = t;
    if (Str.size() >= 2 && Str.startsWith(QLatin1Char('"')) && Str.endsWith(QLatin1Char('"'))) Str = Str.mid(1, Str.size() - 2);
    QByteArray b = Str.toLatin1();
    if (s->IsArray() || s->IsPointer()) b.append('\0');
    const I64 At = s->GetPointerValue();
    if (At == -1) return Fail(QStringLiteral("\"%1\" has no text address").arg(s->GetDisplayName()));
    if (Dm.WriteMemAsync(U32(At), U32(b.size()), reinterpret_cast<const U8*>(b.constData()), 0, AW_ANY, 0, pZone) < 0)
      return Fail(QStringLiteral("write of \"%1\" failed").arg(s->GetDisplayName()));
    s->textData.clear();
    return 0;
  }
  if (Bytes.isEmpty()) return Fail(QStringLiteral("\"%1\" is no value for %2").arg(t, s->GetDisplayName()));
  if (Bytes == s->data) return 0;
  const QByteArray Raw = WithOffset(Loc, Bytes, true);
  if (Dm.WriteSymDataAsync(SYM_ToElfLocation(Loc), Size, reinterpret_cast<const U8*>(Raw.constData()), pZone) != 0)
    return Fail(QStringLiteral("write of \"%1\" failed").arg(s->GetDisplayName()));
  s->SetData(Bytes);
  SetState(s, READ_STATE_DONE);
  return 0;
}
