#include "ui/callstack/callstackwindow.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/device.h"
#include "stack/callstack.h"
#include "settings/ids.h"
#include "settings/sysvars.h"
#include "ui/framework/tableview.h"

#include <QAction>
#include <QMenu>
#include <QScrollBar>

CCallStackWindow::CCallStackWindow(CCallStackDataModel* pModel, QWidget* pParent)
    : CModelViewWindow(pParent), m_pModel(pModel ? pModel : new CCallStackDataModel(nullptr, this)) {
  setObjectName(QStringLiteral("CallStackWindow"));
  setWindowTitle(QStringLiteral("Call Stack"));
  SetFlag(WINDOW_FLAG_CLEAR_WHEN_HIDDEN, false);
  SetFlag(WINDOW_FLAG_CLEAR_ON_DISCONNECT, false);
  SetModel(m_pModel);
  View()->setRootIsDecorated(false);
  connect(&m_pModel->Stack(), &CCallStack::EvalFrameDone, this, &CCallStackWindow::OnCallFrameEvaluated);
  connect(m_pModel, &QAbstractItemModel::modelReset, this, &CCallStackWindow::OnRowsChanged);
  m_pLayoutAction = new QAction(QStringLiteral("&Current Frame on Top"), this);
  m_pLayoutAction->setObjectName(QStringLiteral("actionCallstackCurrFrameOnTop"));
  m_pLayoutAction->setCheckable(true);
  m_pLayoutAction->setChecked(SysVars::GetValue(PREF_CALLSTACK_LAYOUT) == 0);
  Connect(m_pLayoutAction, [this] {
    // The check mark follows the preference, not the click.
    const bool OnTop = SysVars::GetValue(PREF_CALLSTACK_LAYOUT) == 0;
    m_pLayoutAction->setChecked(OnTop);
    ExecAction(AID_EDIT_PREFERENCE, QStringLiteral("PREF_CALLSTACK_LAYOUT"),
               OnTop ? QStringLiteral("LAYOUT_CURR_FRAME_ON_BOTTOM") : QStringLiteral("LAYOUT_CURR_FRAME_ON_TOP"));
  });
  OnRowsChanged();
}

void CCallStackWindow::SetPreference(int SysVarID, I64 Value) {
  CModelViewWindow::SetPreference(SysVarID, Value);
  if (SysVarID != PREF_CALLSTACK_LAYOUT) return;
  m_pLayoutAction->setChecked(Value == 0);
  const int Selected = m_pModel->Stack().SelectedFrame();
  m_pModel->Relayout();
  SelectFrame(Selected);
}

void CCallStackWindow::OnRowsChanged() {
  for (int r = 0; r < m_pModel->rowCount(); ++r) {
    const QModelIndex p = ToProxy(m_pModel->index(r, 0));
    if (p.isValid()) View()->setFirstColumnSpanned(p.row(), QModelIndex(), r == m_pModel->StopRow());
  }
  if (SysVars::GetValue(PREF_CALLSTACK_LAYOUT) == 1) View()->scrollToBottom();
}

QString CCallStackWindow::SelectedPcText() const {
  const CCallStack& s = m_pModel->Stack();
  const int Frame = qMax(0, s.SelectedFrame());
  U64 Pc;
  if (!s.GetRegister(s.GetFrame(Frame), s.Facts().pcRegister, Pc)) return QString();
  return QStringLiteral("0x%1").arg(U32(Pc), 8, 16, QLatin1Char('0')).toUpper().replace("0X", "0x");
}

void CCallStackWindow::FillContextMenu(QMenu* pMenu) {
  const QString sPc = SelectedPcText();
  if (!sPc.isEmpty()) {
    const std::pair<int, const char*> kViews[] = {
        {AID_VIEW_SOURCE, "View Source"}, {AID_VIEW_DISASSEMBLY, "View Disassembly"}, {AID_VIEW_DATA, "View Data"}};
    for (const auto& [Id, sText] : kViews) {
      QAction* a = pMenu->addAction(QString::fromLatin1(sText));
      const int Cmd = Id;
      Connect(a, [Cmd, sPc] { ExecAction(Cmd, sPc); });
    }
    pMenu->addSeparator();
  }
  pMenu->addAction(m_pLayoutAction);
  pMenu->addSeparator();
  CModelViewWindow::FillContextMenu(pMenu);
}

CCallStackWindow::~CCallStackWindow() { m_pModel->SetWindowOpen(false); }

void CCallStackWindow::OnVisibilityChanged(bool Visible) {
  m_pModel->SetWindowOpen(Visible);
  CModelViewWindow::OnVisibilityChanged(Visible);
  if (Visible) OnRowsChanged();
}

void CCallStackWindow::Update(U32) {
  CDevice* d = CDevice::InstanceIfCreated();
  if (d && d->ReportHalts()) m_pModel->Stack().Unwind();
}

void CCallStackWindow::OnOpened() {
  m_pModel->SetWindowOpen(true);
  m_pModel->Stack().Unwind();
}

void CCallStackWindow::OnClosed() { m_pModel->SetWindowOpen(false); }

void CCallStackWindow::OnCallFrameEvaluated(int StackIdx) { SelectFrame(StackIdx); }

void CCallStackWindow::SelectFrame(int Frame) {
  const int Row = m_pModel->RowOfFrame(Frame);
  if (Row < 0) return;
  m_pModel->Stack().SetSelectedFrame(Frame);
  const QModelIndex i = ToProxy(m_pModel->index(Row, 0));
  if (View()->currentIndex() != i) View()->setCurrentIndex(i);
}

void CCallStackWindow::OnItemClicked(QModelIndex Index) {
  int Frame = m_pModel->FrameOfRow(ToSource(Index).row());
  if (Frame < 0) {
    Frame = m_pModel->Stack().SelectedFrame();
    SelectFrame(Frame);
  } else {
    m_pModel->Stack().SetSelectedFrame(Frame);
  }
  emit CallSiteSelected(Frame < 0 ? 0 : Frame);
}

void CCallStackWindow::OnItemDoubleClicked(QModelIndex Index) {
  const int Frame = m_pModel->FrameOfRow(ToSource(Index).row());
  if (Frame < 0) return;
  const CCallStack& s = m_pModel->Stack();
  const CCallFrame F = s.GetFrame(Frame);
  U64 Pc;
  if (!s.GetRegister(F, s.Facts().pcRegister, Pc)) return;
  const QString sPc = QStringLiteral("0x%1").arg(U32(Pc), 8, 16, QLatin1Char('0')).toUpper().replace("0X", "0x");
  const bool HasSource = Frame < s.GetFrameLocs().size() && !s.GetFrameLocs()[Frame].IsNull();
  ExecAction(HasSource ? AID_VIEW_SOURCE : AID_VIEW_DISASSEMBLY, sPc);
}
