// The item model of the breakpoint window: three groups ("Breakpoints",
// "Data Breakpoints", "Tracepoints") with one row per entry and the columns
// "Type", "Location", "Extras". It only shows what CBreakpointsDataModel
// holds; Reset() rebuilds the rows after the model reported a change.
#pragma once
#include "device/bpmodel.h"

#include <QAbstractItemModel>
#include <QColor>
#include <QIcon>
#include <vector>

class CBreakpointItemModel : public QAbstractItemModel {
  Q_OBJECT
 public:
  enum COLUMNS { COL_TYPE = 0, COL_LOCATION = 1, COL_EXTRAS = 2, COL_COUNT = 3 };
  enum GROUPS { GROUP_CODE = 0, GROUP_DATA = 1, GROUP_TRACE = 2, GROUP_COUNT = 3 };
  // The extras text as parts with their colour roles (BP_TEXT_PART list).
  static constexpr int ExtrasPartsRole = Qt::UserRole + 1;

  explicit CBreakpointItemModel(CBreakpointsDataModel* pModel, QObject* pParent = nullptr);

  void Reset();
  // "No breakpoints set" when there is no entry at all, else empty.
  QString EmptyMessage() const;

  QModelIndex index(int Row, int Column, const QModelIndex& Parent = QModelIndex()) const override;
  QModelIndex parent(const QModelIndex& Child) const override;
  int rowCount(const QModelIndex& Parent = QModelIndex()) const override;
  int columnCount(const QModelIndex& Parent = QModelIndex()) const override;
  QVariant data(const QModelIndex& Index, int Role = Qt::DisplayRole) const override;
  QVariant headerData(int Section, Qt::Orientation Orientation, int Role = Qt::DisplayRole) const override;

 private:
  struct ROW {
    QString Type, Location, Extras;
    std::vector<BP_TEXT_PART> Parts;
    int Icon;       // 0 breakpoint, 1 data, 2 trace start, 3 trace stop
    bool Enabled;
  };
  static QIcon MakeIcon(int Kind);
  CBreakpointsDataModel* m_pModel;
  std::vector<ROW> m_aRows[GROUP_COUNT];
  QIcon m_aIcons[4];
};
