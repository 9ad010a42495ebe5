// CSymbolsDataModel: rows of CSymbol nodes for the data windows. Root nodes
// are owned by the model; a row below a root is a child of its node, made
// when the row is first expanded. Values are read lazily, per row that is on
// screen, through the data cache: a row's read state (role 49) goes from 0
// to 2 while its read is in flight and to 1 when it is done, and a row below
// a pointer waits until the pointer has its value. Answers are matched to the
// rows by location, size and zone, never by row position, since the rows may
// have changed meanwhile.
//
// CWatchDataModel adds the watched expressions: one per root row, with the
// row's refresh rate, display format and memory zone, and an empty entry row
// behind the last one that takes a new expression.
#pragma once
#include "device/listener.h"
#include "elf/symbol/symbol.h"
#include "expr/expression.h"
#include "ui/framework/tablemodel.h"

#include <QElapsedTimer>
#include <functional>
#include <memory>
#include <vector>

enum SYMBOLS_COLUMNS : int {
  SYM_COL_NAME = 0, SYM_COL_VALUE, SYM_COL_LOCATION, SYM_COL_SIZE, SYM_COL_REFRESH, SYM_COL_TYPE, SYM_COL_ACCESS,
  SYM_COL_SCOPE, SYM_COL_COUNT
};

// Role of the count of live refreshes of a row.
constexpr int ROLE_REFRESH_COUNT = 36;

class CSymbolsDataModel : public CTableModel, public CDeviceEventListener {
  Q_OBJECT
 public:
  explicit CSymbolsDataModel(QObject* pParent = nullptr);
  ~CSymbolsDataModel() override;

  // ---- root rows
  int RootCount() const { return int(m_Roots.size()); }
  // A root made on demand (SetLazyRoots) is made here.
  CSymbol* Root(int Row) const;
  // Count roots that are made when a view first asks for them.
  void SetLazyRoots(int Count, const std::function<std::unique_ptr<CSymbol>(int Row)>& Make);
  // Inserts a root (Index -1 or beyond: at the end); its data is cleared.
  void InsertRoot(std::unique_ptr<CSymbol> pSym, int Index = -1);
  void RemoveRoot(int Row);
  // Replaces a root node in place; the subtree below it goes.
  void ReplaceRoot(int Row, std::unique_ptr<CSymbol> pSym);
  // All roots anew, as one reset.
  void SetRoots(std::vector<std::unique_ptr<CSymbol>> Roots);
  void ClearRoots();

  // ---- nodes and indexes
  CSymbol* NodeOf(const QModelIndex& Index) const;
  QModelIndex IndexOfNode(const CSymbol* pSym, int Col = 0) const;
  // Every node that has a row (roots and the children of expanded rows),
  // depth first.
  std::vector<CSymbol*> RowNodes() const;
  // The root row a node hangs under, -1 if none.
  int RootRowOf(const CSymbol* pSym) const;

  // ---- reading
  // The display format of a row: its own, the window's, else hex for a
  // pointer, a reference or an array and decimal for others.
  int FormatOf(CSymbol* pSym) const;
  void SetFormatSource(const std::function<int()>& Source) { m_WindowFormat = Source; }
  // Whether reads are allowed now (device reachable; halted unless the
  // window reads while running).
  void SetReadsWhileRunning(bool On) { m_ReadsWhileRunning = On; }
  // Deals with one row (UpdateItem): false when the row must wait or
  // cannot be read now.
  bool UpdateItem(const QModelIndex& Index);
  // Before the rows are read one by one: the memory of those that lie close
  // together is asked for in a few range reads, which the rows' reads then
  // wait for instead of reading each its own bytes.
  void Prefetch(const std::vector<CSymbol*>& Rows);
  // Reads every row at once, waiting for the target (batch export, tests).
  void ReadAllNow();
  // The memory zone a row reads in (its root's).
  virtual QString ZoneOf(const CSymbol* pSym) const;
  // Marks all rows unread and repaints.
  void InvalidateAll();

  // A location that names a place: two parts without piece sizes are what
  // is left of an expression with operations the debug layer does not take
  // over (arithmetic on registers); such a value is shown as not available
  // rather than read from a wrong place.
  static SYM_LOC UsableLocation(const SYM_LOC& Loc);

  // ---- editing
  // Writes a value text into a row through the data cache. 0, or -1 with the
  // reason in *psError.
  int WriteValue(CSymbol* pSym, const QString& sText, QString* psError);
  // Why a row cannot be written; empty when it can.
  QString WhyNotWritable(CSymbol* pSym);

  // ---- CTableModel / QAbstractItemModel
  U64 RowIdOf(const QModelIndex& Index) const override;
  QModelIndex IndexOfRow(U64 Id, int Col = 0) const override;
  bool ReadRow(U64 Id) override;
  bool IsCellChangeable(const QModelIndex& Index) const override;
  QModelIndex index(int Row, int Column, const QModelIndex& Parent = QModelIndex()) const override;
  QModelIndex parent(const QModelIndex& Child) const override;
  int rowCount(const QModelIndex& Parent = QModelIndex()) const override;
  bool hasChildren(const QModelIndex& Parent = QModelIndex()) const override;
  bool canFetchMore(const QModelIndex& Parent) const override;
  void fetchMore(const QModelIndex& Parent) override;
  QVariant data(const QModelIndex& Index, int Role = Qt::DisplayRole) const override;
  bool setData(const QModelIndex& Index, const QVariant& Value, int Role = Qt::EditRole) override;
  Qt::ItemFlags flags(const QModelIndex& Index) const override;

  // ---- device reports
  void OnDeviceReadLocDone(ELF_SYM_LOC Loc, U32 nBytes, const char* sZone, U8* paData) override;
  void OnDeviceReadLocFailed(ELF_SYM_LOC Loc, U32 nBytes, const char* sZone) override;
  void OnDeviceReadMemDone(U32 Addr, U32 nBytes, const char* sZone, U8* paData, U8* paStatus) override;
  void OnDeviceReadMemFailed(U32 Addr, U32 nBytes, const char* sZone) override;

  // Reads queued and answers received since the last call (benchmarks).
  struct READ_COUNTS {
    int Queued = 0, Answered = 0;
  };
  READ_COUNTS TakeReadCounts();

 signals:
  // Rows came back to read state 0 and want a read (a pointer's children).
  void ReadsWanted();
  // A read answered.
  void RowRead();

 protected:
  virtual QString RootNameText(int Row) const;
  virtual QString RefreshText(const CSymbol* pSym) const;
  virtual QString ZoneSuffix(const CSymbol* pSym) const;
  virtual int OwnFormat(const CSymbol* pSym) const;
  // Cell text without caching.
  QString CellTextOf(CSymbol* pSym, int Col, int RootRow) const;
  // Drops the registrations of a subtree before it is deleted.
  void Forget(CSymbol* pSym);
  // Sets a row's state and repaints it.
  void SetState(CSymbol* pSym, int State);
  int State(const CSymbol* pSym) const;
  mutable std::vector<std::unique_ptr<CSymbol>> m_Roots;

 private:
  std::function<std::unique_ptr<CSymbol>(int)> m_MakeRoot;
  struct NODE_INFO {
    CSymbol* pSym = nullptr;
    CSymbol* pParent = nullptr;  // the row above, null at root level
    bool Fetched = false;        // children have rows
  };
  U64 Register(CSymbol* pSym, CSymbol* pParent) const;
  NODE_INFO* Info(const CSymbol* pSym) const;
  int RowInParent(const CSymbol* pSym) const;
  int ChildRows(const CSymbol* pSym) const;
  CSymbol* ChildAt(CSymbol* pSym, int Row) const;
  // The pointer and reference rows above a node, nearest first.
  std::vector<CSymbol*> PointerParents(CSymbol* pSym) const;
  void ReadNodeNow(CSymbol* pSym);
  void ApplyLocData(CSymbol* pSym, const SYM_LOC& Loc, const U8* paData, U32 nBytes);
  void ChildrenUnread(CSymbol* pSym);
  void Settle(CSymbol* pSym, int ReadResult);
  mutable QHash<const CSymbol*, U64> m_IdOf;
  mutable QHash<U64, NODE_INFO> m_Nodes;
  mutable U64 m_NextId = 1;
  std::function<int()> m_WindowFormat;
  bool m_ReadsWhileRunning = false;
  READ_COUNTS m_Counts;
};

// One watched expression with its row attributes.
struct WATCH_ITEM {
  CExpression Expression;
  int RateHz = 0;
  int Format = 0;
  QString Zone;
  qint64 LastRefreshMs = -1;  // live refresh
  int RefreshCount = 0;
};

class CWatchDataModel : public CSymbolsDataModel {
  Q_OBJECT
 public:
  explicit CWatchDataModel(QObject* pParent = nullptr);

  // The model of the watched data window and of the Watch commands.
  static CWatchDataModel& Instance();

  int ExpressionCount() const { return int(m_Items.size()); }
  const WATCH_ITEM& Item(int Row) const { return m_Items[size_t(Row)]; }
  QStringList ExpressionTexts() const;
  // The first root row holding the text, -1 if none.
  int RowOfText(const QString& sText) const;
  // Adds an expression at a row (-1: at the end). -1 for an empty text,
  // else the row.
  int AddExpression(const QString& sText, int Row = -1, const WATCH_ITEM* pAttribs = nullptr);
  // Removes a row; its attributes are handed back when asked.
  bool RemoveExpression(int Row, WATCH_ITEM* pAttribs = nullptr);
  // Watch.Insert: e goes in before b (rows swap if both exist).
  void InsertBefore(const QString& sExpr, const QString& sBefore);
  void ClearExpressions();

  // Refresh rates: 0, 1, 2 or 5 Hz; other values are mapped.
  static int MapRate(int Hz);
  void SetRate(int Row, int Hz);
  void SetFormat(int Row, int Format);
  void SetZone(int Row, const QString& sZone);

  // Evaluates every expression again at a halt and merges the results into
  // the rows (expansion stays); true when the tree changed its structure.
  bool Reevaluate();
  // Only the rows given (live refresh).
  bool ReevaluateRows(const QList<int>& Rows);
  // Live refresh: rows whose rate is due at Now (ms); their time is noted
  // and their refresh counter counted on.
  QList<int> DueRows(qint64 NowMs);
  bool HasLiveRows() const;

  // The lines of the user file and back.
  QStringList WriteUserLines() const;
  void ReadUserLines(const QStringList& Lines);

  // Evaluation times of the last refresh (ms).
  double LastEvalMs() const { return m_LastEvalMs; }

  int rowCount(const QModelIndex& Parent = QModelIndex()) const override;
  QModelIndex index(int Row, int Column, const QModelIndex& Parent = QModelIndex()) const override;
  QVariant data(const QModelIndex& Index, int Role = Qt::DisplayRole) const override;
  bool setData(const QModelIndex& Index, const QVariant& Value, int Role = Qt::EditRole) override;
  Qt::ItemFlags flags(const QModelIndex& Index) const override;
  QString ZoneOf(const CSymbol* pSym) const override;

 signals:
  void ExpressionsChanged();

 protected:
  QString RootNameText(int Row) const override;
  QString RefreshText(const CSymbol* pSym) const override;
  QString ZoneSuffix(const CSymbol* pSym) const override;
  int OwnFormat(const CSymbol* pSym) const override;

 private:
  std::unique_ptr<CSymbol> MakeRowSymbol(WATCH_ITEM& Item);
  // Merges a new symbol into a root row; false when it had to be replaced.
  bool MergeRow(int Row, std::unique_ptr<CSymbol> pNew);
  std::vector<WATCH_ITEM> m_Items;
  QHash<size_t, SYM_LOC> m_LocationByName;
  double m_LastEvalMs = 0;
};
