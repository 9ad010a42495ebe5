// CBreakpointWindow: a tree view over the breakpoint item model, with the
// empty message over the view while no breakpoint is set. The window
// framework gives it docking and its place in the perspective later.
#pragma once
#include "ui/breakpoints/bpitemmodel.h"

#include <QWidget>

class QLabel;
class QTimer;
class QTreeView;

class CBreakpointWindow : public QWidget {
  Q_OBJECT
 public:
  explicit CBreakpointWindow(CBreakpointsDataModel* pModel = nullptr, QWidget* pParent = nullptr);
  CBreakpointItemModel* ItemModel() const { return m_pItems; }
  QTreeView* View() const { return m_pView; }
  QString EmptyText() const;
  // Rebuilds now (normally collapsed by a 10 ms timer after each change).
  void Rebuild();

 private:
  CBreakpointsDataModel* m_pModel;
  CBreakpointItemModel* m_pItems;
  QTreeView* m_pView;
  QLabel* m_pEmpty;
  QTimer* m_pTimer;
};
