// CCallStackWindow: the call stack rows in a model-view window of the
// framework (object name CallStackWindow, shown as "Call Stack"). The rows
// keep their order, reversed by the layout preference; a click selects a
// frame, a double click shows its source or instructions.
#pragma once
#include "common/types.h"
#include "ui/callstack/callstackmodel.h"
#include "ui/framework/modelviewwindow.h"

#include <QModelIndex>

class QAction;

class CCallStackWindow : public CModelViewWindow {
  Q_OBJECT
 public:
  explicit CCallStackWindow(CCallStackDataModel* pModel = nullptr, QWidget* pParent = nullptr);
  ~CCallStackWindow() override;
  CCallStackDataModel* Model() const { return m_pModel; }
  QString GetDisplayName() const override { return QStringLiteral("Call Stack"); }
  // Selects a frame: its row becomes the current row.
  void SelectFrame(int Frame);
  // The rows mirror the stack; there is nothing of the window's own to clear.
  void Clear() override {}
  void Update(U32 NewPC) override;
  void SetPreference(int SysVarID, I64 Value) override;
  // "&Current Frame on Top": checked for layout 0; a click sets the layout
  // preference by command.
  QAction* LayoutAction() const { return m_pLayoutAction; }

 public slots:
  void OnOpened() override;
  void OnClosed() override;
  void OnVisibilityChanged(bool Visible) override;
  void OnCallFrameEvaluated(int StackIdx) override;
  void OnItemClicked(QModelIndex Index) override;
  void OnItemDoubleClicked(QModelIndex Index) override;

 protected:
  void FillContextMenu(QMenu* pMenu) override;

 private:
  // The stop row spans the columns; the view follows a growing stack.
  void OnRowsChanged();
  QString SelectedPcText() const;
  CCallStackDataModel* m_pModel;
  QAction* m_pLayoutAction;
};
