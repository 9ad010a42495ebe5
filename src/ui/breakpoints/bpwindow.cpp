// The breakpoint window.
#include "ui/breakpoints/bpwindow.h"

#include "ui/framework/tableview.h"

#include <QTimer>

CBreakpointWindow::CBreakpointWindow(CBreakpointsDataModel* pModel, QWidget* pParent)
    : CModelViewWindow(pParent), m_pModel(pModel ? pModel : &CBreakpointsDataModel::Instance()) {
  setObjectName(QStringLiteral("BreakpointWindow"));
  setWindowTitle(QStringLiteral("Break & Tracepoints"));
  SetFlag(WINDOW_FLAG_CLEAR_WHEN_HIDDEN, false);
  SetFlag(WINDOW_FLAG_CLEAR_ON_DISCONNECT, false);
  m_pItems = new CBreakpointItemModel(m_pModel, this);
  SetModel(m_pItems);
  View()->setRootIsDecorated(true);
  m_pTimer = new QTimer(this);
  m_pTimer->setSingleShot(true);
  m_pTimer->setInterval(10);
  connect(m_pTimer, &QTimer::timeout, this, &CBreakpointWindow::Rebuild);
  m_pModel->SetChangedCallback([this] { m_pTimer->start(); });
  Rebuild();
}

CBreakpointWindow::~CBreakpointWindow() { m_pModel->SetChangedCallback(nullptr); }

bool CBreakpointWindow::IsEmpty() const { return !m_pItems->EmptyMessage().isEmpty(); }

QString CBreakpointWindow::GetEmptyWindowText(DEBUG_STATES) const { return m_pItems->EmptyMessage(); }

QString CBreakpointWindow::EmptyText() const { return IsEmpty() ? m_pItems->EmptyMessage() : QString(); }

void CBreakpointWindow::Rebuild() {
  BackupState(0);
  m_pItems->Reset();
  View()->expandAll();
  RestoreState(0, 2);
  emit ContentChanged();
}
