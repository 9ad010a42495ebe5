// Rows of the breakpoint window from the breakpoint model: source entries
// and address entries that are not derived from one, the data breakpoints,
// the tracepoints.
#include "ui/breakpoints/bpitemmodel.h"

#include <QBrush>
#include <QPainter>
#include <QPixmap>

namespace {

const char* const kGroupTitles[] = {"Breakpoints", "Data Breakpoints", "Tracepoints"};

bool IsEnabled(U32 State) { return State == BP_STATE_ON || State == BP_STATE_ON_HIDDEN || State == BP_STATE_MIXED; }

}  // namespace

CBreakpointItemModel::CBreakpointItemModel(CBreakpointsDataModel* pModel, QObject* pParent)
    : CTableModel(pParent), m_pModel(pModel) {
  for (int i = 0; i < 4; ++i) m_aIcons[i] = MakeIcon(i);
  SetColumns({QStringLiteral("Type"), QStringLiteral("Location"), QStringLiteral("Extras")});
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

void CBreakpointItemModel::AddEntry(int Group, const QString& sType, const QString& sLoc,
                                    const std::vector<BP_TEXT_PART>& Parts, int Icon, bool Enabled) {
  const U64 Id = AddRow(m_aGroups[Group], {sType, sLoc, CBreakpointsDataModel::JoinParts(Parts)});
  QVariantList l;
  for (const BP_TEXT_PART& p : Parts) l << QVariant(QVariantList{p.Text, int(p.Role)});
  SetRole(Id, COL_EXTRAS, ExtrasPartsRole, l);
  SetRole(Id, COL_TYPE, Qt::DecorationRole, m_aIcons[Icon]);
  SetRole(Id, 0, EnabledRole, Enabled);
  ++m_aCounts[Group];
}

void CBreakpointItemModel::Reset() {
  BeginRebuild();
  for (int g = 0; g < GROUP_COUNT; ++g) {
    m_aGroups[g] = AddRow(0, {QString(), QString(), QString()});
    m_aCounts[g] = 0;
  }
  for (const CBreakpointInfo& b : m_pModel->SourceMap())
    AddEntry(GROUP_CODE, QStringLiteral("Code"), m_pModel->LocationText(b), m_pModel->ExtrasParts(b), 0, IsEnabled(b.State));
  for (const CBreakpointInfo& b : m_pModel->AddressMap()) {
    if (b.Derived) continue;
    AddEntry(GROUP_CODE, QStringLiteral("Code"), m_pModel->LocationText(b), m_pModel->ExtrasParts(b), 0, IsEnabled(b.State));
  }
  for (const WP& w : m_pModel->DataBreakpoints()) {
    const QString sSym = QString::fromUtf8(w.Symbol, int(strnlen(w.Symbol, sizeof w.Symbol)));
    const QString sLoc = sSym.isEmpty() ? QStringLiteral("0x%1").arg(w.Addr, 8, 16, QLatin1Char('0')) : sSym;
    const QString sText = CBreakpointsDataModel::DataBreakpointText(w);
    AddEntry(GROUP_DATA, QStringLiteral("Data"), sLoc, {{sText, BP_ROLE_VALUE}}, 1, IsEnabled(w.State));
  }
  for (const TP& t : m_pModel->Tracepoints()) {
    QString sLoc = QStringLiteral("0x%1").arg(t.Addr, 8, 16, QLatin1Char('0'));
    if (t.FromSource && t.Addr <= 0xFFFFFFFFull) {
      const CSrcLoc l = m_pModel->Prog().LocOfAddr(U32(t.Addr));
      if (!l.IsNull()) sLoc = m_pModel->Prog().LocText(CSrcLoc(l.file, l.line, 0));
    }
    const bool Stop = t.Op == TP_OP_STOP;
    AddEntry(GROUP_TRACE, Stop ? QStringLiteral("Trace Stop") : QStringLiteral("Trace Start"), sLoc, {}, Stop ? 3 : 2,
             IsEnabled(t.State));
  }
  for (int g = 0; g < GROUP_COUNT; ++g)
    SetText(m_aGroups[g], 0, QStringLiteral("%1 (%2)").arg(QLatin1String(kGroupTitles[g])).arg(m_aCounts[g]));
  EndRebuild();
}

QString CBreakpointItemModel::EmptyMessage() const {
  for (int c : m_aCounts)
    if (c) return QString();
  return QStringLiteral("No breakpoints set");
}

QVariant CBreakpointItemModel::data(const QModelIndex& Index, int Role) const {
  if (Role == Qt::ForegroundRole && Index.isValid() && ParentOf(RowIdOf(Index)) != 0 &&
      !CTableModel::Role(RowIdOf(Index), 0, EnabledRole).toBool())
    return QBrush(Qt::gray);
  return CTableModel::data(Index, Role);
}
