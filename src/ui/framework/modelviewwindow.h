// CModelViewWindow: a window over a CTableModel, shown through CSortFilter in
// a CTreeView with CTableHeader and the filter bar. It colours rows by their
// change level, reads only the visible rows after a halt (one timer tick per
// burst of updates), keeps the header state in the settings and the user
// file, fits column widths, backs up selection and expansion around a
// rebuild, and exports or copies its rows.
#pragma once
#include "ui/framework/tablemodel.h"
#include "ui/framework/window.h"

#include <QHash>
#include <QModelIndex>
#include <QSet>

class CFilterHeaderView;
class CFilterMatchDelegate;
class CTableHeader;
class CTreeView;
class QKeyEvent;
class QMouseEvent;

class CModelViewWindow : public CWindow, public ITableWindow {
  Q_OBJECT
 public:
  explicit CModelViewWindow(QWidget* pParent = nullptr);
  ~CModelViewWindow() override;

  // Shows pModel (not owned) and registers it for Window.Export under the
  // display name, unless a provider of that name exists already.
  void SetModel(CTableModel* pModel);
  CTableModel* Model() const { return m_pModel; }
  CSortFilter* Proxy() const { return m_pProxy; }
  CTreeView* View() const { return m_pView; }
  CTableHeader* Header() const { return m_pHeader; }
  CFilterHeaderView* FilterBar() const { return m_pFilterBar; }
  int RowHeight() const { return m_RowHeight; }
  QTimer* UpdateTimer() const { return m_pUpdateTimer; }
  QTimer* WatchdogTimer() const { return m_pWatchdogTimer; }

  // ---- CWindow
  void Clear() override;
  void Repaint() override;
  void Update(U32 NewPC) override;
  void SetFont(int FontID, QFont& Font) override;
  void SetPreference(int SysVarID, I64 Value) override;
  void ScrollToTop() override;
  void ScrollToBottom() override;
  void ClearStateBackup() override { m_Backups.clear(); }
  // DoNotRestoreFlags: 1 selection, 2 expansion, 4 scroll position.
  void BackupState(int StateID) override;
  void RestoreState(int StateID, U32 DoNotRestoreFlags) override;
  using CWindow::RestoreState;
  void ExpandAll() override;
  void CollapseAll() override;
  bool IsEmpty() const override;

  // ---- ITableWindow: the colours and fonts of a source cell
  QVariant CellBackground(const QModelIndex& SourceIndex) const override;
  QVariant CellForeground(const QModelIndex& SourceIndex) const override;
  QVariant CellFont(const QModelIndex& SourceIndex) const override;
  bool IsRowSelected(const QModelIndex& SourceIndex) const;
  QModelIndex ToSource(const QModelIndex& ProxyIndex) const;
  QModelIndex ToProxy(const QModelIndex& SourceIndex) const;

  // ---- header state: settings (TableHeaderState/<name>) and user file
  // (TableHeader="name", SortCol, SortOrder, VisibleCols, ColWidths)
  QByteArray HeaderState() const;
  // The state is the text of the TableHeader line. False, with the defaults
  // restored and a warning, when it does not fit the table.
  bool SetHeaderState(const QByteArray& State);
  void SaveHeaderState() const;
  bool LoadHeaderState();
  void ResetHeader();
  QString HeaderLine() const;
  bool ParseHeaderLine(const QString& sLine);
  static QString HeaderSettingsKey(const QString& sName);

  // ---- export and copy
  // Writes the rows as comma-separated values (the rows of Window.Export).
  bool ExportCsv(const QString& sFilePath, QString* psError) const;
  QString SelectedRowsText() const;
  void CopySelectedRows() const;

  // ---- column width
  // The width of a column from the widths of its rows: 90 % of the rows fit
  // (histogram of 400 buckets of 5 pixels), never below the header's width;
  // a column whose widest row is at most 27 pixels takes that width.
  static int FitWidth(const QVector<int>& RowWidths, int HeaderWidth);
  int FitColumn(int LogicCol);

 public slots:
  virtual void OnActionExpandAllTriggered() { ExpandAll(); }
  virtual void OnActionCollapseAllTriggered() { CollapseAll(); }
  virtual void OnActionRefreshItemTriggered();
  virtual void OnActionRefreshAllTriggered();
  virtual void OnActionToggleFilterBarTriggered();
  virtual void OnKeyPressed(QKeyEvent* pEvent);
  virtual void OnKeyPlusPressed();
  virtual void OnKeyMinusPressed();
  virtual void OnUpdateTimerTimeout();
  virtual void OnWatchdogTimerTimeout();
  virtual void OnItemClicked(QModelIndex Index) { Q_UNUSED(Index); }
  virtual void OnItemDoubleClicked(QModelIndex Index) { Q_UNUSED(Index); }
  virtual void OnItemDisplayFormatActionTriggered();
  virtual void OnItemExpanded(QModelIndex Index);
  virtual void OnItemCollapsed(QModelIndex Index);
  virtual void OnSelectionChanged(QModelIndex Current, QModelIndex Previous);
  virtual void OnScrollBarValueChanged();
  virtual void OnHeaderContextMenuRequested(QPoint Pos);
  virtual void OnSortIndicatorChanged(int Col, Qt::SortOrder SortOrder);
  virtual void OnHeaderContextMenuActionTriggered();
  virtual void OnTableHeaderColDividerDoubleClicked(int LogicCol);
  void OnFlagChanged(WINDOW_FLAGS Flag, bool Value) override;
  void OnVisibilityChanged(bool Visible) override;

 protected:
  // Rows that become visible by a layout (a window shown just before a stop,
  // a resize) are read as they appear.
  bool eventFilter(QObject* pObject, QEvent* pEvent) override;
  void FillContextMenu(QMenu* pMenu) override;
  // The export dialog's work: asks for a file and runs Window.Export.
  virtual void OnActionExportTriggered();
  void ApplyFilterBarVisibility();

 private:
  struct STATE_BACKUP {
    QList<U64> Selected;
    QSet<U64> Expanded;
    U64 Current = 0;
    int ScrollX = 0, ScrollY = 0;
  };
  void CollectExpanded(const QModelIndex& ProxyParent, QSet<U64>& Out) const;
  void RestoreExpanded(const QModelIndex& ProxyParent, const QSet<U64>& Expanded);
  CTableModel* m_pModel = nullptr;
  CSortFilter* m_pProxy;
  CTreeView* m_pView;
  CTableHeader* m_pHeader;
  CFilterHeaderView* m_pFilterBar;
  CFilterMatchDelegate* m_pDelegate;
  QTimer* m_pUpdateTimer;
  QTimer* m_pWatchdogTimer;
  QMenu* m_pItemFormatMenu = nullptr;
  int m_RowHeight = 0;
  QByteArray m_DefaultHeader;
  QString m_sExportName;
  QHash<int, STATE_BACKUP> m_Backups;
};
