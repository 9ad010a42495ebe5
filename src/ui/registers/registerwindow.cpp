#include "ui/registers/registerwindow.h"

#include "device/datamanager.h"
#include "device/device.h"
#include "plugins/corehost.h"
#include "ui/framework/tableview.h"
#include "ui/registers/registermodel.h"

#include <QAbstractItemView>
#include <QMenu>

CRegisterWindow::CRegisterWindow(QWidget* pParent, int Index) : CModelViewWindow(pParent), m_Index(qMax(1, Index)) {
  setObjectName(QStringLiteral("RegisterWindow"));
  setWindowTitle(GetDisplayName());
  m_pRegModel = new CRegistersDataModel(this);
  m_pRegModel->SetFormatSource([this] { return GetDisplayFormat(); });
  // Values are kept while the target runs; the rows survive a disconnection.
  SetFlag(WINDOW_FLAG_CLEAR_WHEN_HIDDEN, false);
  SetFlag(WINDOW_FLAG_INACTIVE_WHILE_RUNNING, true);
  View()->setEditTriggers(QAbstractItemView::DoubleClicked | QAbstractItemView::EditKeyPressed);
  SetModel(m_pRegModel);
  EnsureRows();
}

bool CRegisterWindow::EnsureRows() {
  if (m_pRegModel->RegisterCount() > 0) return true;
  if (m_pRegModel->LoadCoreRegisters() < 0) return false;
  ExpandAll();
  emit ContentChanged();
  return true;
}

QString CRegisterWindow::GetDisplayName() const { return QStringLiteral("Registers %1").arg(m_Index); }

QStringList CRegisterWindow::GetAliasNames() const {
  return m_Index == 1 ? QStringList{QStringLiteral("Registers")} : QStringList();
}

bool CRegisterWindow::IsEmpty() const {
  CDevice* d = CDevice::InstanceIfCreated();
  return !d || !d->IsConnected() || m_pRegModel->RegisterCount() == 0;
}

void CRegisterWindow::Clear() { m_pRegModel->OnDeviceDisconnectDone(); }

void CRegisterWindow::Update(U32 NewPC) {
  EnsureRows();
  CModelViewWindow::Update(NewPC);
}

void CRegisterWindow::OnDeviceConnectDone(CONNECT_MODES Mode) {
  CModelViewWindow::OnDeviceConnectDone(Mode);
  EnsureRows();
  emit ContentChanged();
}

void CRegisterWindow::OnActionRefreshItemTriggered() {
  CDeviceDataManager::Instance().ClearCaches();
  CModelViewWindow::OnActionRefreshItemTriggered();
}

void CRegisterWindow::OnActionRefreshAllTriggered() {
  CDeviceDataManager::Instance().ClearCaches();
  CModelViewWindow::OnActionRefreshAllTriggered();
}

void CRegisterWindow::FillContextMenu(QMenu* pMenu) {
  const bool Halted = !IsEmpty() && CDevice::InstanceIfCreated()->HaltReported();
  QAction* pItem = pMenu->addAction(QStringLiteral("Refresh Item"));
  Connect(pItem, SIGNAL(triggered()), this, SLOT(OnActionRefreshItemTriggered()));
  pItem->setEnabled(Halted && View()->currentIndex().isValid());
  QAction* pAll = pMenu->addAction(QStringLiteral("Refresh All"));
  Connect(pAll, SIGNAL(triggered()), this, SLOT(OnActionRefreshAllTriggered()));
  pAll->setEnabled(Halted);
  pMenu->addSeparator();
  CModelViewWindow::FillContextMenu(pMenu);
}

QWidget* REG_CreateRegisterWindow(QWidget* pParent, int Index) { return new CRegisterWindow(pParent, Index); }
