// The watched expressions of CWatchDataModel: evaluation into root rows, the
// merge that keeps rows (and their expansion) across halts, live refresh
// rates and the lines of the user file.
#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/device.h"
#include "expr/evaluator.h"
#include "log/log.h"
#include "stack/callstack.h"
#include "ui/symbols/symbolsmodel.h"

#include <QElapsedTimer>
#include <QRegularExpression>

namespace {

constexpr quintptr kEntryRowId = quintptr(-2);

const char* const kFormatNames[][2] = {{"0", "DISPLAY_FORMAT_AUTO"}, {"2", "DISPLAY_FORMAT_BINARY"},
                                        {"8", "DISPLAY_FORMAT_CHAR"}, {"10", "DISPLAY_FORMAT_DEC"},
                                        {"16", "DISPLAY_FORMAT_HEX"}};

QString FormatName(int Format) {
  for (const auto& f : kFormatNames)
    if (QString::number(Format) == QLatin1String(f[0])) return QLatin1String(f[1]);
  return QString();
}

int FormatOfName(const QString& s, bool* pOk) {
  for (const auto& f : kFormatNames)
    if (s.compare(QLatin1String(f[1]), Qt::CaseInsensitive) == 0) return *pOk = true, QString(f[0]).toInt();
  return *pOk = false, 0;
}

// The PC that watched expressions see: the selected frame's, else the
// current one.
U32 SelectedFramePc() {
  CCallStack* s = CCallStack::InstanceIfCreated();
  U64 Pc = 0;
  if (s && s->SelectedFrame() > 0) {
    const CCallFrame F = s->GetFrame(s->SelectedFrame());
    if (F.IsValid() && s->GetRegister(F, s->Facts().pcRegister, Pc)) return U32(Pc);
  }
  CDevice* d = CDevice::InstanceIfCreated();
  return d && d->IsConnected() && d->HaltReported() ? d->CurrentPC() : 0xFFFFFFFFu;
}

}  // namespace

CWatchDataModel::CWatchDataModel(QObject* pParent) : CSymbolsDataModel(pParent) {
  setObjectName(QStringLiteral("WatchDataModel"));
  SetReadsWhileRunning(true);
}

CWatchDataModel& CWatchDataModel::Instance() {
  static CWatchDataModel* s_p = new CWatchDataModel;
  return *s_p;
}

QStringList CWatchDataModel::ExpressionTexts() const {
  QStringList l;
  for (const WATCH_ITEM& i : m_Items) l << i.Expression.GetText();
  return l;
}

int CWatchDataModel::RowOfText(const QString& sText) const {
  for (int r = 0; r < ExpressionCount(); ++r)
    if (m_Items[size_t(r)].Expression.GetText() == sText) return r;
  return -1;
}

std::unique_ptr<CSymbol> CWatchDataModel::MakeRowSymbol(WATCH_ITEM& Item) {
  auto p = std::make_unique<CSymbol>();
  const QString sText = Item.Expression.GetText();
  if (Item.Expression.GetStatus() == EXPR_ERR_SYNTAX || Evaluate(Item.Expression) < 0) {
    p->SetName(sText);
    return p;
  }
  const std::shared_ptr<CSymbol> r = GetResult(Item.Expression);
  if (!r || r->IsEmpty()) {
    p->SetName(sText);
    return p;
  }
  *p = *r;
  // The row keeps the place the result had at this stop: the nodes the
  // result hangs on belong to the expression and go at its next evaluation.
  p->location = UsableLocation(r->GetLocation());
  p->isFixedLocation = 1;
  p->parent = nullptr;
  p->adoptedParent.clear();
  p->isDetached = 1;
  p->SetName(sText);
  return p;
}

int CWatchDataModel::AddExpression(const QString& sText, int Row, const WATCH_ITEM* pAttribs) {
  const QString t = sText.trimmed();
  if (t.isEmpty()) return -1;
  QElapsedTimer Timer;
  Timer.start();
  if (Row < 0 || Row > ExpressionCount()) Row = ExpressionCount();
  WATCH_ITEM Item;
  if (pAttribs) Item = *pAttribs;
  Item.Expression = CExpression(t);
  SYM_SetCurrentPc(SelectedFramePc());
  std::unique_ptr<CSymbol> p = MakeRowSymbol(Item);
  m_Items.insert(m_Items.begin() + Row, std::move(Item));
  InsertRoot(std::move(p), Row);
  const qint64 Us = Timer.nsecsElapsed() / 1000;
  LogMessage(QStringLiteral("Watched expressions evaluated in %1:%2 ms").arg(Us / 1000).arg(Us % 1000, 3, 10, QLatin1Char('0')),
             MSG_INFO | MSG_STDOUT);
  emit ExpressionsChanged();
  emit ReadsWanted();
  return Row;
}

bool CWatchDataModel::RemoveExpression(int Row, WATCH_ITEM* pAttribs) {
  if (Row < 0 || Row >= ExpressionCount()) return false;
  if (pAttribs) *pAttribs = m_Items[size_t(Row)];
  m_Items.erase(m_Items.begin() + Row);
  RemoveRoot(Row);
  emit ExpressionsChanged();
  return true;
}

void CWatchDataModel::InsertBefore(const QString& sExpr, const QString& sBefore) {
  const int r = RowOfText(sExpr), s = RowOfText(sBefore);
  if (r == s && r != -1) return;
  WATCH_ITEM Ar, As;
  if (s == -1) {
    if (r != -1) RemoveExpression(r, &Ar);
    AddExpression(sExpr, -1, r != -1 ? &Ar : nullptr);
    return;
  }
  // The lower row goes first, so that the other keeps its number.
  if (r > s) RemoveExpression(r, &Ar);
  RemoveExpression(s, &As);
  if (r != -1 && r < s) RemoveExpression(r, &Ar);
  if (r != -1 && r < s) {
    AddExpression(sBefore, r, &As);
    AddExpression(sExpr, s, &Ar);
  } else {
    AddExpression(sExpr, s, r != -1 ? &Ar : nullptr);
    if (r != -1) AddExpression(sBefore, r, &As);
  }
}

void CWatchDataModel::ClearExpressions() {
  m_Items.clear();
  m_LocationByName.clear();
  ClearRoots();
  emit ExpressionsChanged();
}

int CWatchDataModel::MapRate(int Hz) {
  if (Hz < 1) return 0;
  if (Hz == 1) return 1;
  if (Hz < 5) return 2;
  return 5;
}

void CWatchDataModel::SetRate(int Row, int Hz) {
  if (Row < 0 || Row >= ExpressionCount()) return;
  m_Items[size_t(Row)].RateHz = MapRate(Hz);
  emit dataChanged(index(Row, SYM_COL_REFRESH), index(Row, SYM_COL_REFRESH));
  emit ExpressionsChanged();
}

void CWatchDataModel::SetFormat(int Row, int Format) {
  if (Row < 0 || Row >= ExpressionCount()) return;
  m_Items[size_t(Row)].Format = Format;
  emit dataChanged(index(Row, 0), index(Row, SYM_COL_COUNT - 1));
  emit ExpressionsChanged();
}

void CWatchDataModel::SetZone(int Row, const QString& sZone) {
  if (Row < 0 || Row >= ExpressionCount()) return;
  m_Items[size_t(Row)].Zone = sZone;
  emit dataChanged(index(Row, 0), index(Row, SYM_COL_COUNT - 1));
  emit ExpressionsChanged();
  emit ReadsWanted();
}

bool CWatchDataModel::MergeRow(int Row, std::unique_ptr<CSymbol> pNew) {
  CSymbol* o = Root(Row);
  if (!o) return false;
  const SYM_LOC NewLoc = pNew->location;
  m_LocationByName.insert(qHash(pNew->GetDisplayName()), NewLoc);
  if (o->location == NewLoc && o->GetDisplayName() == pNew->GetDisplayName() && o->typeName == pNew->typeName &&
      o->handle == pNew->handle) {
    o->constData = pNew->constData;
    o->SetData(pNew->data);
    o->textData = pNew->textData;
    return true;
  }
  pNew->ClearData();
  ReplaceRoot(Row, std::move(pNew));
  return false;
}

bool CWatchDataModel::Reevaluate() {
  if (m_Items.empty()) return false;
  QElapsedTimer Timer;
  Timer.start();
  SYM_SetCurrentPc(SelectedFramePc());
  std::vector<std::unique_ptr<CSymbol>> New;
  for (WATCH_ITEM& i : m_Items) New.push_back(MakeRowSymbol(i));
  m_LastEvalMs = Timer.nsecsElapsed() / 1e6;
  bool Changed = false;
  if (int(New.size()) != RootCount()) {
    SetRoots(std::move(New));
    Changed = true;
  } else {
    for (int r = 0; r < int(New.size()); ++r) Changed |= !MergeRow(r, std::move(New[size_t(r)]));
  }
  InvalidateReads();
  RepaintAll();
  return Changed;
}

bool CWatchDataModel::ReevaluateRows(const QList<int>& Rows) {
  bool Changed = false;
  for (int r : Rows) {
    if (r < 0 || r >= ExpressionCount()) continue;
    Changed |= !MergeRow(r, MakeRowSymbol(m_Items[size_t(r)]));
    // A value the evaluation has just read needs no read of its own.
    CSymbol* pRoot = Root(r);
    for (CSymbol* s : RowNodes())
      if (RootRowOf(s) == r) SetState(s, s == pRoot && U32(s->data.size()) == s->GetSize() && s->GetSize() ? READ_STATE_DONE : READ_STATE_NONE);
  }
  emit ReadsWanted();
  return Changed;
}

bool CWatchDataModel::HasLiveRows() const {
  for (const WATCH_ITEM& i : m_Items)
    if (i.RateHz > 0) return true;
  return false;
}

QList<int> CWatchDataModel::DueRows(qint64 NowMs) {
  QList<int> Due;
  for (int r = 0; r < ExpressionCount(); ++r) {
    WATCH_ITEM& i = m_Items[size_t(r)];
    if (i.RateHz <= 0) continue;
    if (i.LastRefreshMs >= 0 && NowMs - i.LastRefreshMs < 1000 / i.RateHz) continue;
    i.LastRefreshMs = NowMs;
    ++i.RefreshCount;
    Due << r;
  }
  return Due;
}

// ---------------------------------------------------------------- user file

QStringList CWatchDataModel::WriteUserLines() const {
  QStringList Out;
  for (const WATCH_ITEM& i : m_Items) {
    QString s = QStringLiteral("WatchedExpression=\"%1\"").arg(QString(i.Expression.GetText()).replace('"', QLatin1String("\\\"")));
    if (i.RateHz) s += QStringLiteral(", RefreshRate=%1").arg(i.RateHz);
    if (i.Format) s += QStringLiteral(", DisplayFormat=") + FormatName(i.Format);
    if (!i.Zone.isEmpty()) s += QStringLiteral(", MemoryZone=\"%1\"").arg(i.Zone);
    Out << s;
  }
  return Out;
}

void CWatchDataModel::ReadUserLines(const QStringList& Lines) {
  static const QRegularExpression Key(QStringLiteral(R"RX((\w+)=("(?:[^"\\]|\\.)*"|[^,]*))RX"));
  for (const QString& l : Lines) {
    WATCH_ITEM a;
    QString sExpr;
    for (auto m = Key.globalMatch(l); m.hasNext();) {
      const auto h = m.next();
      QString v = h.captured(2).trimmed();
      if (v.startsWith('"') && v.endsWith('"') && v.size() >= 2) v = v.mid(1, v.size() - 2).replace(QLatin1String("\\\""), QLatin1String("\""));
      const QString k = h.captured(1);
      bool Ok = false;
      if (k == QLatin1String("WatchedExpression")) sExpr = v;
      else if (k == QLatin1String("RefreshRate")) a.RateHz = MapRate(v.toInt());
      else if (k == QLatin1String("DisplayFormat") && (FormatOfName(v, &Ok), Ok)) a.Format = FormatOfName(v, &Ok);
      else if (k == QLatin1String("MemoryZone")) a.Zone = v;
    }
    if (sExpr.isEmpty() || RowOfText(sExpr) >= 0) continue;
    AddExpression(sExpr, -1, &a);
  }
}

// ---------------------------------------------------------------- model

QString CWatchDataModel::RootNameText(int Row) const {
  return Row < ExpressionCount() ? m_Items[size_t(Row)].Expression.GetText() : QString();
}

QString CWatchDataModel::RefreshText(const CSymbol* pSym) const {
  const int r = RootRowOf(pSym);
  if (r < 0 || r >= ExpressionCount()) return QString();
  const int Hz = m_Items[size_t(r)].RateHz;
  return Hz ? QString::number(Hz) + QStringLiteral(" Hz") : QStringLiteral("Off");
}

QString CWatchDataModel::ZoneSuffix(const CSymbol* pSym) const {
  const QModelIndex i = IndexOfNode(pSym);
  if (i.parent().isValid() || i.row() >= ExpressionCount()) return QString();
  const QString& z = m_Items[size_t(i.row())].Zone;
  return z.isEmpty() ? QString() : QStringLiteral(" via ") + z;
}

int CWatchDataModel::OwnFormat(const CSymbol* pSym) const {
  const int r = RootRowOf(pSym);
  const int Own = CSymbolsDataModel::OwnFormat(pSym);
  if (Own) return Own;
  return r >= 0 && r < ExpressionCount() ? m_Items[size_t(r)].Format : 0;
}

QString CWatchDataModel::ZoneOf(const CSymbol* pSym) const {
  const int r = RootRowOf(pSym);
  return r >= 0 && r < ExpressionCount() ? m_Items[size_t(r)].Zone : QString();
}

int CWatchDataModel::rowCount(const QModelIndex& Parent) const {
  if (!Parent.isValid()) return RootCount() + 1;
  if (Parent.internalId() == kEntryRowId) return 0;
  return CSymbolsDataModel::rowCount(Parent);
}

QModelIndex CWatchDataModel::index(int Row, int Column, const QModelIndex& Parent) const {
  if (!Parent.isValid() && Row == RootCount() && Column >= 0 && Column < SYM_COL_COUNT)
    return createIndex(Row, Column, kEntryRowId);
  return CSymbolsDataModel::index(Row, Column, Parent);
}

QVariant CWatchDataModel::data(const QModelIndex& Index, int Role) const {
  if (Index.isValid() && Index.internalId() == kEntryRowId)
    return Role == Qt::DisplayRole || Role == Qt::EditRole ? QVariant(QString()) : QVariant();
  return CSymbolsDataModel::data(Index, Role);
}

Qt::ItemFlags CWatchDataModel::flags(const QModelIndex& Index) const {
  Qt::ItemFlags f = CSymbolsDataModel::flags(Index);
  const bool Root = Index.isValid() && !Index.parent().isValid();
  if (Root && Index.column() == SYM_COL_NAME) f |= Qt::ItemIsEditable | Qt::ItemIsEnabled | Qt::ItemIsSelectable;
  return f;
}

bool CWatchDataModel::setData(const QModelIndex& Index, const QVariant& Value, int Role) {
  if (!Index.isValid()) return false;
  if (Role == Qt::EditRole && Index.internalId() == kEntryRowId) {
    const QString s = Value.toString().trimmed();
    if (s.isEmpty()) return false;
    ExecAction(AID_WATCH_ADD, s);
    return true;
  }
  if (Role == Qt::EditRole && Index.column() == SYM_COL_NAME && !Index.parent().isValid()) {
    const int r = Index.row();
    const QString s = Value.toString().trimmed();
    if (r >= ExpressionCount() || s == m_Items[size_t(r)].Expression.GetText()) return false;
    WATCH_ITEM a;
    RemoveExpression(r, &a);
    if (AddExpression(s, r, &a) < 0) return false;
    return true;
  }
  return CSymbolsDataModel::setData(Index, Value, Role);
}
