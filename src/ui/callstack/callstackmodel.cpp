#include "ui/callstack/callstackmodel.h"

#include "device/device.h"
#include "plugins/corehost.h"
#include "settings/ids.h"
#include "settings/sysvars.h"
#include "stack/callstack.h"

namespace {
QString Hex8(U64 v) { return QStringLiteral("0x") + QStringLiteral("%1").arg(U32(v), 8, 16, QLatin1Char('0')).toUpper(); }
}  // namespace

CCallStackDataModel::CCallStackDataModel(CCallStack* pStack, QObject* pParent)
    : CTableModel(pParent), m_pStack(pStack ? pStack : &CCallStack::Instance()) {
  setObjectName(QStringLiteral("CallStackDataModel"));
  // Filter kinds of the columns: text, none, text, hexadecimal, none.
  const int kKinds[CS_COL_COUNT] = {FILTER_KIND_TEXT, 2, FILTER_KIND_TEXT, FILTER_KIND_HEX, 2, 2};
  for (int c = 0; c < CS_COL_COUNT; ++c) SetColumnFilterKind(c, kKinds[c]);
  ApplySettings();
  connect(m_pStack, &CCallStack::UnwindComplete, this, &CCallStackDataModel::OnCallStackUnwinded);
}

void CCallStackDataModel::ApplySettings() {
  STACK_CORE_FACTS f = m_pStack->Facts();
  if (IsCorePluginLoaded()) {
    const CORE_STATIC_INFO& i = CoreStaticInfo();
    if (i.PCIdx < f.registerCount && i.SPIdx < f.registerCount && i.LRIdx < f.registerCount) {
      f.pcRegister = i.PCIdx, f.spRegister = i.SPIdx, f.returnRegister = i.LRIdx;
      if (i.InstAlign) f.instAlign = i.InstAlign;
      if (i.AddrSize) f.wordSize = f.codePtrSize = i.AddrSize;
    }
  }
  const int Limit = int(std::max<I64>(1, SysVars::GetValue(PREF_CALLSTACK_DEPTH_LIMIT)));
  const STACK_CORE_FACTS& o = m_pStack->Facts();
  if (Limit != m_pStack->DepthLimit() || f.pcRegister != o.pcRegister || f.spRegister != o.spRegister ||
      f.instAlign != o.instAlign || f.wordSize != o.wordSize) {
    beginResetModel();
    m_pStack->Configure(f, Limit);
    m_Rows = 1;
    endResetModel();
  }
}

QModelIndex CCallStackDataModel::index(int Row, int Column, const QModelIndex& Parent) const {
  if (Parent.isValid() || Row < 0 || Row >= m_Rows || Column < 0 || Column >= CS_COL_COUNT) return QModelIndex();
  return createIndex(Row, Column, quintptr(Row + 1));
}

QModelIndex CCallStackDataModel::parent(const QModelIndex&) const { return QModelIndex(); }

void CCallStackDataModel::Relayout() {
  beginResetModel();
  endResetModel();
}

QModelIndex CCallStackDataModel::IndexOfRow(U64 Id, int Col) const { return index(int(Id) - 1, Col); }

int CCallStackDataModel::rowCount(const QModelIndex& Parent) const { return Parent.isValid() ? 0 : m_Rows; }
int CCallStackDataModel::columnCount(const QModelIndex& Parent) const { return Parent.isValid() ? 0 : CS_COL_COUNT; }

int CCallStackDataModel::FrameOfRow(int Row) const {
  const int n = m_Rows - 1;
  if (Row < 0 || Row >= n) return -1;
  return SysVars::GetValue(PREF_CALLSTACK_LAYOUT) == 1 ? n - 1 - Row : Row;
}

int CCallStackDataModel::RowOfFrame(int Frame) const {
  const int n = m_Rows - 1;
  if (Frame < 0 || Frame >= n) return -1;
  return SysVars::GetValue(PREF_CALLSTACK_LAYOUT) == 1 ? n - 1 - Frame : Frame;
}

QVariant CCallStackDataModel::headerData(int Section, Qt::Orientation Orientation, int Role) const {
  if (Orientation != Qt::Horizontal || Role != Qt::DisplayRole) return CTableModel::headerData(Section, Orientation, Role);
  static const char* const kHeaders[CS_COL_COUNT] = {"Function", "Stack Info", "Source", "PC", "Return Address",
                                                     "Frame Address"};
  return Section >= 0 && Section < CS_COL_COUNT ? QString::fromLatin1(kHeaders[Section]) : QVariant();
}

QVariant CCallStackDataModel::data(const QModelIndex& Index, int Role) const {
  if (!Index.isValid() || Index.row() >= m_Rows) return QVariant();
  const int Frame = FrameOfRow(Index.row());
  if (Role == FrameRowRole) return Frame >= 0;
  if (Role != Qt::DisplayRole) return Role == Qt::EditRole ? QVariant() : CTableModel::data(Index, Role);
  const CCallStack& s = *m_pStack;
  if (Frame < 0) return Index.column() == 0 ? s.GetStopText() : QString();
  const CCallFrame F = s.GetFrame(Frame);
  if (!F.IsValid()) return QString();
  U64 Pc = 0;
  const bool PcKnown = s.GetRegister(F, s.Facts().pcRegister, Pc);
  switch (Index.column()) {
    case CS_COL_FUNCTION: return s.FrameFunctionText(F);
    case CS_COL_STACK_INFO: return s.FrameStackText(F);
    case CS_COL_SOURCE:
      return PcKnown && Frame < s.GetFrameLocs().size() ? STACK_SrcLocText(s.GetFrameLocs()[Frame]) : QString();
    case CS_COL_PC: return PcKnown ? Hex8(Pc) : QStringLiteral("N/A");
    case CS_COL_RETURN: return s.FrameReturnText(F);
    case CS_COL_FRAME: return F.cfaStatus == 0 ? Hex8(F.cfa) : QStringLiteral("N/A");
    default: return QVariant();
  }
}

void CCallStackDataModel::SetWindowOpen(bool Open) {
  m_bWindowOpen = Open;
  CCallStack::SetFollowFrames(Open);
}

void CCallStackDataModel::OnCallStackUnwinded() {
  const int Rows = m_pStack->FrameCount() + 1;
  const quint64 Top = m_pStack->GetFrame(0).function;
  if (Rows != m_Rows) {
    beginResetModel();
    m_Rows = Rows;
    endResetModel();
    emit ContentChanged();
    emit CallStackChanged();
  } else {
    if (Top != m_TopFunction) emit CallStackChanged();
    emit dataChanged(index(0, 0), index(m_Rows - 1, CS_COL_COUNT - 1));
  }
  m_TopFunction = Top;
}

bool CCallStackDataModel::UnwindForExport(int TimeoutMs) {
  ApplySettings();
  CDevice* d = CDevice::InstanceIfCreated();
  if (d && d->IsConnected() && d->HaltReported()) {
    const bool Done = m_pStack->UnwindAll(TimeoutMs);
    OnCallStackUnwinded();
    return Done;
  }
  OnCallStackUnwinded();
  return true;
}

