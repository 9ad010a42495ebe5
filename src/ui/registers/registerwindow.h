// CRegisterWindow: a register window ("Registers 1", "Registers 2", ...) over
// CRegistersDataModel. The rows come from the core's description file once a
// core plug-in is loaded; the values are read after each stop through the
// framework's update, and the changed ones take the change colours. A value
// edited in the Value column is written by Target.SetReg.
#pragma once
#include "ui/framework/modelviewwindow.h"

class CRegistersDataModel;

class CRegisterWindow : public CModelViewWindow {
  Q_OBJECT
 public:
  // Index counts the register windows from 1 and names the window.
  explicit CRegisterWindow(QWidget* pParent = nullptr, int Index = 1);

  int Index() const { return m_Index; }
  CRegistersDataModel* RegModel() const { return m_pRegModel; }
  // Builds the rows from the core's description file unless they stand.
  bool EnsureRows();

  QString GetDisplayName() const override;
  QStringList GetAliasNames() const override;
  bool IsEmpty() const override;
  bool IsContentsModifiable() const override { return true; }
  // Values are forgotten; the rows stay until the core changes.
  void Clear() override;
  void Update(U32 NewPC) override;

  void OnDeviceConnectDone(CONNECT_MODES Mode) override;

 public slots:
  // Both read anew from the target, past the data cache: the group of the
  // selected register, or every group that shows.
  void OnActionRefreshItemTriggered() override;
  void OnActionRefreshAllTriggered() override;

 protected:
  void FillContextMenu(QMenu* pMenu) override;

 private:
  CRegistersDataModel* m_pRegModel;
  int m_Index;
};

// The factory of the main window's register windows.
QWidget* REG_CreateRegisterWindow(QWidget* pParent, int Index);
