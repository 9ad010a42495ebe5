// CCallStackDataModel: the rows of the call stack window over the public
// stack, one per frame and a last one with the stop text. It exists without
// a window, so the rows can be exported in batch mode. A flat table model of
// the framework: its rows keep their order in every sort order (they follow
// the layout preference), and row id n + 1 is row n.
#pragma once
#include "common/types.h"
#include "ui/framework/tablemodel.h"

class CCallStack;

enum CALLSTACK_COLUMNS : int {
  CS_COL_FUNCTION = 0, CS_COL_STACK_INFO, CS_COL_SOURCE, CS_COL_PC, CS_COL_RETURN, CS_COL_FRAME, CS_COL_COUNT
};

class CCallStackDataModel : public CTableModel {
  Q_OBJECT
 public:
  // Role of a row that holds a frame (false on the stop row).
  static constexpr int FrameRowRole = 37;

  explicit CCallStackDataModel(CCallStack* pStack = nullptr, QObject* pParent = nullptr);
  QModelIndex index(int Row, int Column, const QModelIndex& Parent = QModelIndex()) const override;
  QModelIndex parent(const QModelIndex& Child) const override;
  QModelIndex IndexOfRow(U64 Id, int Col = 0) const override;
  int rowCount(const QModelIndex& Parent = QModelIndex()) const override;
  int columnCount(const QModelIndex& Parent = QModelIndex()) const override;
  QVariant data(const QModelIndex& Index, int Role = Qt::DisplayRole) const override;
  QVariant headerData(int Section, Qt::Orientation Orientation, int Role = Qt::DisplayRole) const override;

  // Frame index of a row, -1 for the stop row (rows follow the layout preference).
  int FrameOfRow(int Row) const;
  int RowOfFrame(int Frame) const;
  // While a window shows the rows, each frame is unwound as soon as the one
  // below it is; otherwise a halt gives frame 0 and its caller.
  void SetWindowOpen(bool Open);
  bool WindowOpen() const { return m_bWindowOpen; }
  // The whole stack of the current halt, up to its stop reason or the depth
  // limit, before the rows are read without a window. False when the reads
  // did not complete within TimeoutMs.
  bool UnwindForExport(int TimeoutMs = 10000);
  // Core facts and depth limit from the core plug-in and the preferences.
  void ApplySettings();
  // The rows in the order of the layout preference again.
  void Relayout();
  // The row of the stop text.
  int StopRow() const { return m_Rows - 1; }
  CCallStack& Stack() const { return *m_pStack; }


 signals:
  void ContentChanged();
  void CallStackChanged();

 public slots:
  void OnCallStackUnwinded();

 private:
  CCallStack* m_pStack;
  bool m_bWindowOpen = false;
  int m_Rows = 1;
  quint64 m_TopFunction = 0;
};
