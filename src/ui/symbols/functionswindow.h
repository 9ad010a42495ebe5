// The function list: a table of the program's functions with their inlined
// instances as child rows, the breakpoint marks, and breakpoints set and
// cleared from a row. CFindSymbolWidget is the pop-up of Find.Func and
// Find.Symbol: a combo box over the function or global variable names whose
// completer matches anywhere in a name, earlier matches first.
#pragma once
#include "common/srcloc.h"
#include "elf/elf.h"
#include "ui/framework/modelviewwindow.h"

#include <QDialog>
#include <QSortFilterProxyModel>
#include <memory>
#include <vector>

class QComboBox;
class QCompleter;
class QStringListModel;

struct FUNC_ITEM {
  QString name;
  QString className;
  QString fileName;
  U32 address = 0;
  U32 size = 0;
  CSrcLoc srcLoc;
  ELF_SYM_HANDLE hSym = 0;
  QList<FUNC_ITEM*> instances;
  FUNC_ITEM* parent = nullptr;
  U32 instCount = 0;
  I32 rowIndex = 0;
  U8 hasBreakpoint = 0;
  U8 isInlined = 0;
};

enum FUNC_COLUMNS : int { FUNC_COL_NAME = 0, FUNC_COL_ADDRESS, FUNC_COL_SIZE, FUNC_COL_INSTS, FUNC_COL_CLASS, FUNC_COL_SOURCE, FUNC_COL_COUNT };

class CFunctionsDataModel : public CTableModel {
  Q_OBJECT
 public:
  explicit CFunctionsDataModel(QObject* pParent = nullptr);
  ~CFunctionsDataModel() override;

  // Builds the rows from the program's function list; the count of
  // top-level rows. CountInsts gives "#Insts" (null: 0).
  int Build(bool CountInstructions);
  int TopCount() const { return int(m_Items.size()); }
  FUNC_ITEM* Top(int Row) const { return Row >= 0 && Row < TopCount() ? m_Items[size_t(Row)].get() : nullptr; }
  FUNC_ITEM* ItemOf(const QModelIndex& Index) const;
  QModelIndex IndexOfItem(const FUNC_ITEM* p, int Col = 0) const;
  // Sets the marks from the device's breakpoint table; the rows marked.
  int UpdateBreakpointMarks();
  void SetDisplayClassNames(bool On);
  bool DisplayClassNames() const { return m_ClassNames; }
  QStringList GetFuncNames(bool PrependClassNames) const;
  // The item for one handle (a null handle gives the empty item).
  static FUNC_ITEM MakeItem(ELF_SYM_HANDLE h, bool CountInstructions);

  QModelIndex index(int Row, int Column, const QModelIndex& Parent = QModelIndex()) const override;
  QModelIndex parent(const QModelIndex& Child) const override;
  int rowCount(const QModelIndex& Parent = QModelIndex()) const override;
  QVariant data(const QModelIndex& Index, int Role = Qt::DisplayRole) const override;
  U64 RowIdOf(const QModelIndex& Index) const override;

 private:
  QString NameText(const FUNC_ITEM* p) const;
  std::vector<std::unique_ptr<FUNC_ITEM>> m_Items;
  std::vector<std::unique_ptr<FUNC_ITEM>> m_Children;  // owns the instance rows
  bool m_ClassNames = false;
};

class CFunctionsWindow : public CModelViewWindow {
  Q_OBJECT
 public:
  explicit CFunctionsWindow(QWidget* pParent = nullptr);
  CFunctionsDataModel* FuncModel() const { return m_pFuncModel; }
  QString GetDisplayName() const override { return QStringLiteral("Functions"); }
  QString GetEmptyWindowText(DEBUG_STATES) const override { return QStringLiteral("No functions"); }
  bool IsEmpty() const override { return !m_pFuncModel || m_pFuncModel->TopCount() == 0; }
  void Clear() override {}
  void SetPreference(int SysVarID, I64 Value) override;
  void UpdateActions() override;

 public slots:
  void Init();
  void SetDisplayClassNames(bool Enabled);
  bool GetDisplayClassNames() const { return m_pFuncModel->DisplayClassNames(); }
  FUNC_ITEM* GetFuncInfo(QModelIndex Index) const;
  QStringList GetFuncNames(bool PrependClassNames) const { return m_pFuncModel->GetFuncNames(PrependClassNames); }
  void OnItemClicked(QModelIndex Index) override;
  void OnItemDoubleClicked(QModelIndex Index) override;
  void OnActionViewSourceTriggered();
  void OnActionSetBpTriggered();
  void OnActionClearAllBpTriggered();
  void OnDeviceBPStateChanged();

 signals:
  void Initialized();
  void FuncSelected(ELF_SYM_HANDLE hFunc);

 protected:
  void FillContextMenu(QMenu* pMenu) override;

 private:
  FUNC_ITEM* Current() const;
  CFunctionsDataModel* m_pFuncModel = nullptr;
  QAction* m_pActionSetBP = nullptr;
  QAction* m_pActionClearBP = nullptr;
  U64 m_Identity = 0;
};

// The filter of the pop-up: a name passes if it holds the text (any case);
// earlier positions come first.
class CCompletionModel : public QSortFilterProxyModel {
  Q_OBJECT
 public:
  using QSortFilterProxyModel::QSortFilterProxyModel;
  void SetText(const QString& s);

 protected:
  bool filterAcceptsRow(int SourceRow, const QModelIndex& SourceParent) const override;
  bool lessThan(const QModelIndex& Left, const QModelIndex& Right) const override;

 private:
  QString m_sText;
};

class CFindSymbolWidget : public QDialog {
  Q_OBJECT
 public:
  // Mode 0 functions, 1 global variables.
  CFindSymbolWidget(int Mode, QWidget* pParent = nullptr);
  QComboBox* ComboBox() const { return m_pCombo; }
  CCompletionModel* Completion() const { return m_pCompletion; }
  // The names and their handles, sorted by lower-case text.
  static void Names(int Mode, QStringList* pNames, QList<ELF_SYM_HANDLE>* pHandles);
  // Shows a named symbol as the pop-up's accept does: View.Source with a
  // source location, else View.Disassembly. -1 for an unknown name.
  static int ShowSymbol(int Mode, const QString& sName);

 public slots:
  void OnTextEntered();
  void OnComboBoxItemActivated(int Index);
  void OnCompleterItemActivated(QString Index);

 protected:
  void showEvent(QShowEvent* pEvent) override;

 private:
  void AcceptIndex(int Index);
  int m_Mode;
  QComboBox* m_pCombo;
  QCompleter* m_pCompleter;
  QStringListModel* m_pNames;
  CCompletionModel* m_pCompletion;
  QList<ELF_SYM_HANDLE> m_Handles;
};
