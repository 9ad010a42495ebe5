#include "ui/callstack/callstackwindow.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/device.h"
#include "stack/callstack.h"

#include <QHeaderView>
#include <QTreeView>
#include <QVBoxLayout>

CCallStackWindow::CCallStackWindow(CCallStackDataModel* pModel, QWidget* pParent)
    : QWidget(pParent), m_pModel(pModel ? pModel : new CCallStackDataModel(nullptr, this)) {
  setWindowTitle(QStringLiteral("Call Stack"));
  m_pView = new QTreeView(this);
  m_pView->setModel(m_pModel);
  m_pView->setRootIsDecorated(false);
  m_pView->setUniformRowHeights(true);
  m_pView->header()->setStretchLastSection(true);
  auto* pLayout = new QVBoxLayout(this);
  pLayout->setContentsMargins(0, 0, 0, 0);
  pLayout->addWidget(m_pView);
  connect(m_pView, &QTreeView::clicked, this, &CCallStackWindow::OnItemClicked);
  connect(m_pView, &QTreeView::doubleClicked, this, &CCallStackWindow::OnItemDoubleClicked);
  connect(&m_pModel->Stack(), &CCallStack::EvalFrameDone, this, &CCallStackWindow::OnCallFrameEvaluated);
}

CCallStackWindow::~CCallStackWindow() { m_pModel->SetWindowOpen(false); }

void CCallStackWindow::showEvent(QShowEvent* e) {
  QWidget::showEvent(e);
  OnOpened();
}

void CCallStackWindow::hideEvent(QHideEvent* e) {
  m_pModel->SetWindowOpen(false);
  QWidget::hideEvent(e);
}

void CCallStackWindow::Update(U32) {
  CDevice* d = CDevice::InstanceIfCreated();
  if (d && d->ReportHalts()) m_pModel->Stack().Unwind();
}

void CCallStackWindow::OnOpened() {
  m_pModel->SetWindowOpen(true);
  m_pModel->Stack().Unwind();
}

void CCallStackWindow::OnCallFrameEvaluated(int StackIdx) { SelectFrame(StackIdx); }

void CCallStackWindow::SelectFrame(int Frame) {
  const int Row = m_pModel->RowOfFrame(Frame);
  if (Row < 0) return;
  m_pModel->Stack().SetSelectedFrame(Frame);
  const QModelIndex i = m_pModel->index(Row, 0);
  if (m_pView->currentIndex().row() != Row) m_pView->setCurrentIndex(i);
}

void CCallStackWindow::OnItemClicked(const QModelIndex& Index) {
  int Frame = m_pModel->FrameOfRow(Index.row());
  if (Frame < 0) {
    Frame = m_pModel->Stack().SelectedFrame();
    SelectFrame(Frame);
  } else {
    m_pModel->Stack().SetSelectedFrame(Frame);
  }
  emit CallSiteSelected(Frame < 0 ? 0 : Frame);
}

void CCallStackWindow::OnItemDoubleClicked(const QModelIndex& Index) {
  const int Frame = m_pModel->FrameOfRow(Index.row());
  if (Frame < 0) return;
  const CCallStack& s = m_pModel->Stack();
  const CCallFrame F = s.GetFrame(Frame);
  U64 Pc;
  if (!s.GetRegister(F, s.Facts().pcRegister, Pc)) return;
  const QString sPc = QStringLiteral("0x%1").arg(U32(Pc), 8, 16, QLatin1Char('0')).toUpper().replace("0X", "0x");
  const bool HasSource = Frame < s.GetFrameLocs().size() && !s.GetFrameLocs()[Frame].IsNull();
  ExecAction(HasSource ? AID_VIEW_SOURCE : AID_VIEW_DISASSEMBLY, sPc);
}
