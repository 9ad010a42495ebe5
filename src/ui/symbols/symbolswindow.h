// The data windows: CSymbolsWindow shows a CSymbolsDataModel as a tree and
// reads the rows that come into view; CWatchWindow holds the watched
// expressions with their live refresh, CLocalsWindow the locals of the
// selected call frame, CGlobalsWindow the program's global variables.
#pragma once
#include "ui/framework/modelviewwindow.h"
#include "ui/symbols/symbolsmodel.h"

class CLocalsDataModel;
class CGlobalsDataModel;
class QAction;
class QTimer;

class CSymbolsWindow : public CModelViewWindow {
  Q_OBJECT
 public:
  CSymbolsWindow(CSymbolsDataModel* pModel, QWidget* pParent = nullptr);
  CSymbolsDataModel* SymModel() const { return m_pSymModel; }
  bool IsEmpty() const override;
  bool IsContentsModifiable() const override { return true; }
  QAction* RemoveAction() const { return m_pActionRemove; }
  QAction* AutoModeAction() const { return m_pActionAutoMode; }

 public slots:
  virtual void AddSymbol(QString Name);
  void AddSymbols(QStringList Names);
  virtual void RemoveSymbol(QString Name);
  virtual void RemoveSymbol(QModelIndex Index);
  CSymbol* GetSymbol(QModelIndex Index) const;
  QStringList GetSymbolNames() const;
  int GetIndexOf(QString Name, Qt::CaseSensitivity Case) const;
  bool HasLocalSymbols() const;
  virtual void OnActionRemoveTriggered();
  void OnDisplayFormatChanged(int Base) override;
  void OnUpdateTimerTimeout() override;

 protected:
  void FillContextMenu(QMenu* pMenu) override;
  CSymbolsDataModel* m_pSymModel;
  QAction* m_pActionRemove;
  QAction* m_pActionAutoMode;
};

class CWatchWindow : public CSymbolsWindow {
  Q_OBJECT
 public:
  explicit CWatchWindow(QWidget* pParent = nullptr);
  CWatchDataModel* WatchModel() const;
  QString GetDisplayName() const override { return QStringLiteral("Watched Data"); }
  QString GetEmptyWindowText(DEBUG_STATES) const override { return QStringLiteral("No variables watched"); }
  void Update(U32 NewPC) override;
  void Clear() override {}
  QTimer* LiveTimer() const { return m_pLiveTimer; }
  // Whether the live timer should run now.
  bool LiveRefreshWanted() const;

 public slots:
  void AddSymbol(QString Name) override;
  void RemoveSymbol(QString Name) override;
  void RemoveSymbol(QModelIndex Index) override;
  void OnCallFrameEvaluated(int CallStackPos) override;
  void OnItemRefreshRateChanged(QModelIndex Index, int FreqHz);
  void OnLiveUpdateTimerTimeout();
  void OnLiveCheck();
  void OnActionAddTriggered() override;

  void OnDeviceResumeDone(RESUME_MODES Mode) override;
  void OnDeviceConnectDone(CONNECT_MODES Mode) override;
  void OnDeviceWriteAccess() override;

 protected:
  void FillContextMenu(QMenu* pMenu) override;

 private:
  void UpdateRefreshColumn();
  QTimer* m_pLiveTimer;
  QTimer* m_pLiveCheck;
};

class CLocalsWindow : public CSymbolsWindow {
  Q_OBJECT
 public:
  explicit CLocalsWindow(QWidget* pParent = nullptr);
  CLocalsDataModel* LocalsModel() const;
  QString GetDisplayName() const override { return QStringLiteral("Local Data"); }
  QString GetEmptyWindowText(DEBUG_STATES) const override { return QStringLiteral("No local data"); }
  void Update(U32 NewPC) override;
  void Clear() override;

 public slots:
  void OnCallStackUnwinded() override;
  void OnCallFrameEvaluated(int CallFrameIdx) override;
  void OnActionAutoModeTriggered();

 private:
  void ShowFrame(int Frame);
};

class CGlobalsWindow : public CSymbolsWindow {
  Q_OBJECT
 public:
  explicit CGlobalsWindow(QWidget* pParent = nullptr);
  QString GetDisplayName() const override { return QStringLiteral("Global Data"); }
  QString GetEmptyWindowText(DEBUG_STATES) const override { return QStringLiteral("No global data"); }
  void Update(U32 NewPC) override;
  void Clear() override {}

 public slots:
  void Init();
  bool IsAcceptingUpdates() const;
};
