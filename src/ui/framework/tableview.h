// The widgets of a table window: the tree view with constant row height and
// the filter-match delegate, the table header with its column menu and the
// filter bar below it, and the dialog that sets one column's filter.
#pragma once
#include <QDialog>
#include <QHeaderView>
#include <QStyledItemDelegate>
#include <QTreeView>
#include <QVector>

class CSortFilter;
class QLineEdit;
class QTimer;

// A row of edit cells, one per visible column, kept in step with the
// header's sections. Typing stores the text in the proxy and starts a timer;
// the filter is applied once per burst of typing.
class CFilterHeaderView : public QWidget {
  Q_OBJECT
 public:
  CFilterHeaderView(QHeaderView* pHeader, CSortFilter* pProxy);
  void Sync();
  int BarHeight() const;
  QLineEdit* Edit(int LogicalCol) const { return m_Edits.value(LogicalCol); }
  void SetFilterText(int LogicalCol, const QString& sText);
  QTimer* Timer() const { return m_pTimer; }

 signals:
  void FiltersApplied();

 public slots:
  void OnFilterBarTextChanged(int LogicalCol, const QString& sText);
  void OnActionClearAllFiltersTriggered();
  void OnActionSetFilterTriggered(int LogicalCol);
  void OnFilterTimerTimeout();

 protected:
  void contextMenuEvent(QContextMenuEvent* pEvent) override;

 private:
  void Rebuild();
  int ColumnAt(QPoint Pos) const;
  QHeaderView* m_pHeader;
  CSortFilter* m_pProxy;
  QVector<QLineEdit*> m_Edits;
  QTimer* m_pTimer;
};

// The header: sections movable unless locked, a context menu request, a
// double click on a divider, and room for the filter bar below the sections.
class CTableHeader : public QHeaderView {
  Q_OBJECT
 public:
  explicit CTableHeader(QWidget* pParent = nullptr);
  void SetFilterBar(CFilterHeaderView* pBar);
  CFilterHeaderView* FilterBar() const { return m_pBar; }
  void ShowFilterBar(bool On);
  bool IsFilterBarShown() const { return m_BarShown; }
  void SetLocked(bool Locked);
  QSize sizeHint() const override;

 protected:
  void updateGeometries() override;

 private:
  CFilterHeaderView* m_pBar = nullptr;
  bool m_BarShown = false;
};

// Paints a cell and marks the part of its text that a text filter matched;
// every row has the window's row height.
class CFilterMatchDelegate : public QStyledItemDelegate {
  Q_OBJECT
 public:
  CFilterMatchDelegate(CSortFilter* pProxy, QObject* pParent);
  void SetRowHeight(int h) { m_RowHeight = h; }
  void paint(QPainter* pPainter, const QStyleOptionViewItem& Option, const QModelIndex& Index) const override;
  QSize sizeHint(const QStyleOptionViewItem& Option, const QModelIndex& Index) const override;

 private:
  CSortFilter* m_pProxy;
  int m_RowHeight = 0;
};

class CTreeView : public QTreeView {
  Q_OBJECT
 public:
  explicit CTreeView(QWidget* pParent = nullptr);
  // Proxy rows from the first visible to the last visible one.
  QModelIndexList VisibleRows() const;

 signals:
  void KeyPressed(QKeyEvent* pEvent);

 protected:
  void keyPressEvent(QKeyEvent* pEvent) override;
};

class CFilterHeaderDialog : public QDialog {
  Q_OBJECT
 public:
  // Kind: the column's filter kind (FILTER_KIND bits); numeric columns get
  // "Min:" and "Max:", others the substring field.
  CFilterHeaderDialog(int Kind, const QString& sCurrent, QWidget* pParent = nullptr);
  QString FilterText() const;
  QLineEdit* TextEdit() const { return m_pText; }
  QLineEdit* MinEdit() const { return m_pMin; }
  QLineEdit* MaxEdit() const { return m_pMax; }

 private:
  QLineEdit* m_pText = nullptr;
  QLineEdit* m_pMin = nullptr;
  QLineEdit* m_pMax = nullptr;
};
