// The item model of the breakpoint window: three groups ("Breakpoints",
// "Data Breakpoints", "Tracepoints") with one row per entry and the columns
// "Type", "Location", "Extras". It only shows what CBreakpointsDataModel
// holds; Reset() rebuilds the rows after the model reported a change. A tree
// of the framework's table model: the icon and the extras parts are role
// values of the rows.
#pragma once
#include "device/bpmodel.h"
#include "ui/framework/tablemodel.h"

#include <QColor>
#include <QIcon>

class CBreakpointItemModel : public CTableModel {
  Q_OBJECT
 public:
  enum COLUMNS { COL_TYPE = 0, COL_LOCATION = 1, COL_EXTRAS = 2, COL_COUNT = 3 };
  enum GROUPS { GROUP_CODE = 0, GROUP_DATA = 1, GROUP_TRACE = 2, GROUP_COUNT = 3 };
  // The extras text as parts with their colour roles (BP_TEXT_PART list).
  static constexpr int ExtrasPartsRole = Qt::UserRole + 1;
  // False on a disabled entry (kept on column 0).
  static constexpr int EnabledRole = Qt::UserRole + 2;

  explicit CBreakpointItemModel(CBreakpointsDataModel* pModel, QObject* pParent = nullptr);

  void Reset();
  // "No breakpoints set" when there is no entry at all, else empty.
  QString EmptyMessage() const;

  QVariant data(const QModelIndex& Index, int Role = Qt::DisplayRole) const override;
  bool IsCellChangeable(const QModelIndex&) const override { return false; }

 private:
  static QIcon MakeIcon(int Kind);
  void AddEntry(int Group, const QString& sType, const QString& sLoc, const std::vector<BP_TEXT_PART>& Parts, int Icon,
                bool Enabled);
  CBreakpointsDataModel* m_pModel;
  U64 m_aGroups[GROUP_COUNT] = {};
  int m_aCounts[GROUP_COUNT] = {};
  QIcon m_aIcons[4];
};
