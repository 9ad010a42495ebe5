// The plain breakpoint window.
#include "ui/breakpoints/bpwindow.h"

#include <QHeaderView>
#include <QLabel>
#include <QTimer>
#include <QTreeView>
#include <QVBoxLayout>

CBreakpointWindow::CBreakpointWindow(CBreakpointsDataModel* pModel, QWidget* pParent)
    : QWidget(pParent), m_pModel(pModel ? pModel : &CBreakpointsDataModel::Instance()) {
  setWindowTitle(QStringLiteral("Breakpoints"));
  m_pItems = new CBreakpointItemModel(m_pModel, this);
  m_pView = new QTreeView(this);
  m_pView->setModel(m_pItems);
  m_pView->setRootIsDecorated(true);
  m_pView->setUniformRowHeights(true);
  m_pView->header()->setStretchLastSection(true);
  m_pEmpty = new QLabel(this);
  m_pEmpty->setAlignment(Qt::AlignCenter);
  auto* pLayout = new QVBoxLayout(this);
  pLayout->setContentsMargins(0, 0, 0, 0);
  pLayout->addWidget(m_pEmpty);
  pLayout->addWidget(m_pView);
  m_pTimer = new QTimer(this);
  m_pTimer->setSingleShot(true);
  m_pTimer->setInterval(10);
  connect(m_pTimer, &QTimer::timeout, this, &CBreakpointWindow::Rebuild);
  m_pModel->SetChangedCallback([this] { m_pTimer->start(); });
  Rebuild();
}

QString CBreakpointWindow::EmptyText() const { return m_pEmpty->isHidden() ? QString() : m_pEmpty->text(); }

void CBreakpointWindow::Rebuild() {
  m_pItems->Reset();
  m_pView->expandAll();
  const QString s = m_pItems->EmptyMessage();
  m_pEmpty->setText(s);
  m_pEmpty->setVisible(!s.isEmpty());
  m_pView->setVisible(s.isEmpty());
}
