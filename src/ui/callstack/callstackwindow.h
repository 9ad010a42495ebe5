// CCallStackWindow: a plain window over the call stack rows. The window
// framework gives it docking and its place in the perspective later.
#pragma once
#include "common/types.h"
#include "ui/callstack/callstackmodel.h"

#include <QModelIndex>
#include <QWidget>

class QTreeView;

class CCallStackWindow : public QWidget {
  Q_OBJECT
 public:
  explicit CCallStackWindow(CCallStackDataModel* pModel = nullptr, QWidget* pParent = nullptr);
  ~CCallStackWindow() override;
  CCallStackDataModel* Model() const { return m_pModel; }
  QTreeView* View() const { return m_pView; }
  // Selects a frame: its row becomes the current row.
  void SelectFrame(int Frame);

 signals:
  void CallSiteSelected(int CallStackIdx);

 public slots:
  void Update(U32 NewPC);
  void OnOpened();
  void OnCallFrameEvaluated(int StackIdx);
  void OnItemClicked(const QModelIndex& Index);
  void OnItemDoubleClicked(const QModelIndex& Index);

 protected:
  void showEvent(QShowEvent* e) override;
  void hideEvent(QHideEvent* e) override;

 private:
  CCallStackDataModel* m_pModel;
  QTreeView* m_pView;
};
