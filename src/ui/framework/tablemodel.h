// CTableModel: the item model of every table and tree window. Rows live in a
// tree keyed by row id; values of the extra roles (sort keys, change level,
// read state, display format, ...) are kept per row id and column and read
// and written through data() and setData(). Background, foreground and font
// are asked from the window the model is shown in.
//
// CSortFilter: the proxy between a model and its view; sorts by the rows'
// sort keys and filters top-level rows by a text per column.
#pragma once
#include "common/types.h"

#include <QAbstractItemModel>
#include <QHash>
#include <QMap>
#include <QSortFilterProxyModel>
#include <QStringList>
#include <unordered_map>
#include <vector>

// Roles beyond the toolkit's own.
enum TABLE_ROLES : int {
  ROLE_SORT_KEY = 33,        // primary sort key (number or text)
  ROLE_SORT_KEY_2 = 34,      // secondary sort key
  ROLE_LAST_VALUE = 35,      // the row's value texts at the last update
  ROLE_CHANGE_LEVEL = 36,    // 0 unchanged since the last update, then 1, 2, 3
  ROLE_ROW_ID = 38,          // the row id
  ROLE_PINNED = 40,          // stays on top in either sort order and passes every filter
  ROLE_FILTER_KIND = 46,     // headerData: the column's filter kind (FILTER_KIND bits)
  ROLE_DISPLAY_FORMAT = 47,  // display format of the row, 0 when it follows the window
  ROLE_READ_STATE = 49,      // READ_STATES
  ROLE_REFRESH_RATE = 50,    // refresh rate in Hz, 0 off
  ROLE_ZONE = 51,            // memory zone, empty for the default
  ROLE_CONST_WIDTH = 53,     // headerData: the column shows constant-width text
};

enum FILTER_KIND : int {
  FILTER_KIND_TEXT = 1,
  FILTER_KIND_NUMBER = 4,
  FILTER_KIND_HEX = 8,
  FILTER_KIND_TIME = 64,
};

enum READ_STATES : int { READ_STATE_NONE = 0, READ_STATE_DONE = 1, READ_STATE_PENDING = 2 };

// What a model asks the window it is shown in.
class ITableWindow {
 public:
  virtual ~ITableWindow() = default;
  virtual QVariant CellBackground(const QModelIndex& SourceIndex) const = 0;
  virtual QVariant CellForeground(const QModelIndex& SourceIndex) const = 0;
  virtual QVariant CellFont(const QModelIndex& SourceIndex) const = 0;
};

// Values by row id: ids below 2^22 (the model's own, counted from 1 after
// each clear) in a vector, others in a hash map.
template <class T>
class ROW_ID_TABLE {
 public:
  T* Find(U64 Id) {
    if (Id < m_Dense.size()) return m_Used[Id] ? &m_Dense[Id] : nullptr;
    auto it = m_Sparse.find(Id);
    return it == m_Sparse.end() ? nullptr : &it->second;
  }
  const T* Find(U64 Id) const { return const_cast<ROW_ID_TABLE*>(this)->Find(Id); }
  T& operator[](U64 Id) {
    if (Id >= kDenseLimit) return m_Sparse[Id];
    if (Id >= m_Dense.size()) {
      m_Dense.resize(Id + 1 + Id / 2);
      m_Used.resize(m_Dense.size());
    }
    m_Used[Id] = 1;
    return m_Dense[Id];
  }
  void Erase(U64 Id) {
    if (Id < m_Dense.size()) {
      m_Used[Id] = 0;
      m_Dense[Id] = T{};
    } else {
      m_Sparse.erase(Id);
    }
  }
  void Clear() {
    m_Dense.clear();
    m_Used.clear();
    m_Sparse.clear();
  }
  template <class F>
  void ForEach(F&& Fn) {
    for (size_t i = 0; i < m_Dense.size(); ++i)
      if (m_Used[i]) Fn(m_Dense[i]);
    for (auto& [Id, v] : m_Sparse) Fn(v);
  }

 private:
  static constexpr U64 kDenseLimit = U64(1) << 22;
  std::vector<T> m_Dense;
  std::vector<char> m_Used;
  std::unordered_map<U64, T> m_Sparse;
};

class CTableModel : public QAbstractItemModel {
  Q_OBJECT
 public:
  explicit CTableModel(QObject* pParent = nullptr);
  ~CTableModel() override;

  void SetWindow(ITableWindow* pWindow) { m_pWindow = pWindow; }
  ITableWindow* Window() const { return m_pWindow; }

  // Columns: header text and filter kind (FILTER_KIND bits; default text).
  void SetColumns(const QStringList& Headers);
  void SetColumnFilterKind(int Col, int Kind);
  void SetColumnConstWidth(int Col, bool On);

  // ---- the row tree (row id 0 is the invisible root)
  // Appends a row under ParentId with the display texts of its cells;
  // returns the new row's id.
  U64 AddRow(U64 ParentId, const QStringList& Texts);
  void RemoveRow(U64 Id);
  // Removes every row and every stored role value.
  void ClearRows();
  // A rebuild of all rows as one model reset: ClearRows, then AddRow calls
  // without a signal each.
  void BeginRebuild();
  void EndRebuild();
  bool HasRow(U64 Id) const;
  // Whether any row was ever pinned (role 40) since the last clear; the
  // proxy skips the pinned test without.
  bool HasPinnedRows() const { return m_HasPinned; }
  U64 ParentOf(U64 Id) const;
  const std::vector<U64>& ChildrenOf(U64 Id) const;
  void SetText(U64 Id, int Col, const QString& sText);
  QString Text(U64 Id, int Col) const;

  // ---- role values by row id and column, for the roles above 32
  void SetRole(U64 Id, int Col, int Role, const QVariant& Value);
  QVariant Role(U64 Id, int Col, int Role) const;

  // The row id behind an index (0 for none). Models with their own rows
  // override it together with index(), parent(), rowCount() and data().
  virtual U64 RowIdOf(const QModelIndex& Index) const;
  virtual QModelIndex IndexOfRow(U64 Id, int Col = 0) const;

  // ---- updates
  // A row read after an update: its texts replace the old ones, the change
  // level counts on (at most 3) when a text of a changeable column differs
  // from the last update, and falls to 0 when none does. The read state
  // becomes READ_STATE_DONE.
  void FillRow(U64 Id, const QStringList& Texts);
  // Marks every row for reading (read state 0).
  void InvalidateReads();
  // Clears the last values, change levels and read states of all rows.
  void ResetChangeMarks();
  // Whether a cell's value can change between halts (its change level
  // colours it); by default every column but the first.
  virtual bool IsCellChangeable(const QModelIndex& Index) const;
  // Starts the read of a row; the model fills it later (FillRow) or at
  // once. False when the row needs no read. The default reads nothing.
  virtual bool ReadRow(U64 Id);
  // Repaints every cell (dataChanged from the first to the last index).
  void RepaintAll();

  QModelIndex index(int Row, int Column, const QModelIndex& Parent = QModelIndex()) const override;
  QModelIndex parent(const QModelIndex& Child) const override;
  int rowCount(const QModelIndex& Parent = QModelIndex()) const override;
  int columnCount(const QModelIndex& Parent = QModelIndex()) const override;
  QVariant data(const QModelIndex& Index, int Role = Qt::DisplayRole) const override;
  bool setData(const QModelIndex& Index, const QVariant& Value, int Role = Qt::EditRole) override;
  QVariant headerData(int Section, Qt::Orientation Orientation, int Role = Qt::DisplayRole) const override;

 protected:
  // For models with their own rows: the stored role values of a row are
  // dropped with it.
  void ForgetRoles(U64 Id);
  void ForgetAllRoles();
  // The cell text for a model whose rows come from elsewhere; the default
  // reads the row tree.
  virtual QString CellText(const QModelIndex& Index) const;

 private:
  struct NODE {
    U64 Parent = 0;
    int Row = 0;  // position among the parent's children
    std::vector<U64> Children;
    QStringList Texts;
  };
  const NODE* Node(U64 Id) const;
  int RowInParent(U64 Id) const;
  ITableWindow* m_pWindow = nullptr;
  QStringList m_Headers;
  QHash<int, int> m_FilterKinds;
  QHash<int, bool> m_ConstWidth;
  ROW_ID_TABLE<NODE> m_Nodes;
  U64 m_NextId = 1;
  bool m_Rebuilding = false;
  // Role values by row id: a short list of (column << 12 | role, value).
  struct ROLE_VALUE {
    int Key;
    QVariant Value;
  };
  ROW_ID_TABLE<std::vector<ROLE_VALUE>> m_Roles;
  // Read states by row id with the update they belong to; an update only
  // counts the generation on, so that all rows need reading again at once.
  ROW_ID_TABLE<std::pair<U32, int>> m_ReadStates;
  U32 m_ReadGeneration = 1;
  bool m_HasPinned = false;
};

class CSortFilter : public QSortFilterProxyModel {
  Q_OBJECT
 public:
  explicit CSortFilter(QObject* pParent = nullptr);

  // Without sorting the rows keep the order of the source.
  void SetSortable(bool On);
  bool IsSortable() const { return m_Sortable; }

  void SetFilterText(int Col, const QString& sText);
  QString FilterText(int Col) const { return m_Filters.value(Col); }
  const QMap<int, QString>& FilterTexts() const { return m_Filters; }
  void ClearFilters();

  // Whether a cell matched a text filter, and where (for the delegate).
  bool FilterMatch(const QModelIndex& ProxyIndex, int* pStart, int* pLength) const;

  // A numeric filter text: "Min-Max", "Min-", "-Max" or one value; the
  // numbers in base 16 or 10 (a "0x" prefix is allowed either way), times
  // with the units s, ms, us or ns. False when the text is no range.
  static bool ParseRange(const QString& sText, int Kind, double* pMin, double* pMax);
  static QString RangeText(const QString& sMin, const QString& sMax);

  // A sort asks each row for its keys once, not at every comparison.
  void sort(int Column, Qt::SortOrder Order = Qt::AscendingOrder) override;

 protected:
  bool lessThan(const QModelIndex& Left, const QModelIndex& Right) const override;
  bool filterAcceptsRow(int SourceRow, const QModelIndex& SourceParent) const override;

 private:
  struct SORT_KEYS {
    bool Pinned = false;
    QString Text;
    QVariant Key1, Key2;
  };
  // What one sort needs to know of the source, the same for every pair.
  struct SORT_CONTEXT {
    bool Ascending = true, MayPin = true, KeepOrder = false;
    int Kind = 1;
  };
  SORT_CONTEXT ContextFor(int Column) const;
  static SORT_KEYS KeysFor(const QModelIndex& Index);
  const SORT_KEYS& CachedKeys(const QModelIndex& Index) const;
  static bool Less(const QModelIndex& Left, const QModelIndex& Right, const SORT_KEYS& L, const SORT_KEYS& R,
                   const SORT_CONTEXT& c);
  bool CellPasses(const QModelIndex& Cell, const QString& sFilter) const;
  struct INDEX_HASH {
    size_t operator()(const QModelIndex& i) const { return qHash(i); }
  };
  // Node-based, so that the keys of one side stay put while the other's are
  // added.
  mutable std::unordered_map<QModelIndex, SORT_KEYS, INDEX_HASH> m_KeyCache;
  SORT_CONTEXT m_SortContext;
  bool m_InSort = false;
  bool m_Sortable = true;
  QMap<int, QString> m_Filters;
};
