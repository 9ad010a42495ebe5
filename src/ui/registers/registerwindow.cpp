#include "ui/registers/registerwindow.h"

#include "device/device.h"
#include "plugins/corehost.h"
#include "ui/framework/tableview.h"
#include "ui/registers/registermodel.h"

#include <QAbstractItemView>

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

QWidget* REG_CreateRegisterWindow(QWidget* pParent, int Index) { return new CRegisterWindow(pParent, Index); }
