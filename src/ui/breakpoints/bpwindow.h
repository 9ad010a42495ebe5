// CBreakpointWindow: the breakpoint rows in a model-view window of the
// framework (object name BreakpointWindow, shown as "Break & Tracepoints",
// found by the aliases "Breakpoints", "Tracepoints", ...). While no
// breakpoint is set it shows "No breakpoints set" instead of the table.
#pragma once
#include "ui/breakpoints/bpitemmodel.h"
#include "ui/framework/modelviewwindow.h"

class CBreakpointWindow : public CModelViewWindow {
  Q_OBJECT
 public:
  explicit CBreakpointWindow(CBreakpointsDataModel* pModel = nullptr, QWidget* pParent = nullptr);
  ~CBreakpointWindow() override;
  CBreakpointItemModel* ItemModel() const { return m_pItems; }
  QString GetDisplayName() const override { return QStringLiteral("Break & Tracepoints"); }
  QString EmptyText() const;
  bool IsEmpty() const override;
  QString GetEmptyWindowText(DEBUG_STATES State) const override;
  // The rows mirror the breakpoint model; there is nothing of the window's
  // own to clear.
  void Clear() override {}
  void Update(U32) override {}
  // Rebuilds now (normally collapsed by a 10 ms timer after each change).
  void Rebuild();

 private:
  CBreakpointsDataModel* m_pModel;
  CBreakpointItemModel* m_pItems;
  QTimer* m_pTimer;
};
