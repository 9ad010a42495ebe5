// CWindow: the base of every debug window. A QMainWindow that lives in a
// dock (CDockWindow), listens to the device, answers a uniform set of
// operations the main window calls on any window, keeps a slot of persistent
// attributes for the user file, and shows a text instead of its contents
// while it has none.
#pragma once
#include "common/srcloc.h"
#include "common/types.h"
#include "device/listener.h"

#include <QMainWindow>
#include <QStringList>
#include <functional>

class CDockWindow;
class QAction;
class QActionGroup;
class QMenu;
class QPushButton;
class QTimer;

enum WINDOW_FLAGS : U32 {
  WINDOW_FLAG_INACTIVE_WHILE_RUNNING = 1,
  WINDOW_FLAG_CLEAR_WHEN_HIDDEN = 4,
  WINDOW_FLAG_CLEAR_ON_DISCONNECT = 8,
  WINDOW_FLAG_CONFIRM_CLEAR = 32,
  WINDOW_FLAG_FILTER_BAR = 256,
};

enum WIN_UPDATE_MODES : int { WIN_UPDATE_VISIBLE = 0, WIN_UPDATE_OPEN = 1, WIN_UPDATE_ALWAYS = 2 };

enum DEBUG_STATES : int {
  DEBUG_STATE_NONE = 0, DEBUG_STATE_RUNNING = 1, DEBUG_STATE_HALTED = 2, DEBUG_STATE_NO_CONNECTION = 3
};

// Dock areas as the user file writes them.
enum WINDOW_DOCK_AREAS : int { DOCK_AREA_LEFT = 1, DOCK_AREA_RIGHT = 2, DOCK_AREA_BOTTOM = 8, DOCK_AREA_FLOATING = 22 };

enum WINDOW_ATTRIBUTES : int {
  WIN_ATTR_OPEN_WINDOW = 0, WIN_ATTR_DOCK_AREA = 1, WIN_ATTR_X = 2, WIN_ATTR_Y = 3, WIN_ATTR_W = 4, WIN_ATTR_H = 5,
  WIN_ATTR_FILTER_BAR_SHOWN = 6, WIN_ATTR_DISPLAY_FORMAT = 12, WIN_ATTR_FIRST_OWN = 13, WIN_ATTR_COUNT = 100
};

class CWindow : public QMainWindow, public CDeviceEventListener {
  Q_OBJECT
 public:
  explicit CWindow(QWidget* pParent = nullptr);
  ~CWindow() override;

  // Every live window, in the order made.
  static const QList<CWindow*>& AllWindows();
  // The window whose name, display name or alias matches, else null.
  static CWindow* FindWindow(const QString& sInput);
  // The device's current PC for the superseded-stop rule; false when no
  // device exists. Tests install their own source.
  static void SetDevicePcSource(const std::function<bool(U32* pPC)>& Source);
  // The connection and run state (CurrentDebugState); tests install their
  // own source, null restores the device's.
  static void SetDebugStateSource(const std::function<DEBUG_STATES()>& Source);
  // The translation of an alias to a window name; the input when none.
  static QString ResolveAlias(const QString& sInput);

  // ---- state
  virtual void Clear() {}
  virtual void Repaint();
  virtual void Update(U32 NewPC) { Q_UNUSED(NewPC); }
  virtual void SetFont(int FontID, QFont& Font) { Q_UNUSED(FontID); Q_UNUSED(Font); }
  virtual void SetColor(int ColorID, QColor& Color) { Q_UNUSED(ColorID); Q_UNUSED(Color); Repaint(); }
  virtual void SetPreference(int SysVarID, I64 Value) { Q_UNUSED(SysVarID); Q_UNUSED(Value); }
  virtual void SetWindowTitle(QString Title);
  virtual void ShowContextMenu(QPoint Pos);
  virtual void SetUpdateMode(WIN_UPDATE_MODES Mode) { m_UpdateMode = Mode; }
  virtual void SetEnabled(bool Enabled);
  virtual void SetActive(bool Active);
  // ---- scrolling
  virtual void ScrollToTop() {}
  virtual void ScrollToBottom() {}
  virtual void ScrollBy(int dx, int dy) { Q_UNUSED(dx); Q_UNUSED(dy); }
  // ---- identity and state backup
  virtual void SetName(QString Name);
  virtual void ClearStateBackup() {}
  virtual void BackupState(int StateID) { Q_UNUSED(StateID); }
  virtual void RestoreState(int StateID, U32 DoNotRestoreFlags) { Q_UNUSED(StateID); Q_UNUSED(DoNotRestoreFlags); }
  void RestoreState(int StateID) { RestoreState(StateID, 0); }
  virtual void ExpandAll() {}
  virtual void CollapseAll() {}
  virtual void SetFlag(WINDOW_FLAGS Flag, bool Enabled);
  virtual void SetDisplayFormat(int DisplayFormat);
  // A triggered() of a QAction brackets the receiver: OnActionTriggered,
  // the slot, OnActionPerformed. Other signals connect plainly.
  virtual bool Connect(QObject* pSender, const char* sSignal, QObject* pReceiver, const char* sSlot);
  virtual bool Disconnect(QObject* pSender, const char* sSignal, QObject* pReceiver, const char* sSlot);
  // The same bracket for a callable.
  void Connect(QAction* pAction, const std::function<void()>& Slot);
  // The generic window command; -1 when the window has none.
  virtual int PerformAction(int Action) { Q_UNUSED(Action); return -1; }
  // ---- queries
  int GetDisplayFormat() const { return m_DisplayFormat; }
  virtual QStringList GetAliasNames() const;
  QString GetName() const;
  virtual QString GetDisplayName() const { return windowTitle(); }
  virtual QString GetClearAllPostfix() const { return QStringLiteral("all contents of the window"); }
  virtual QString GetEmptyWindowText(DEBUG_STATES State) const;
  virtual QString GetEmptyWindowButtonText(DEBUG_STATES State) const { Q_UNUSED(State); return QString(); }
  virtual QString GetStatusText() const { return QString(); }
  U32 GetFlags() const { return m_Flags; }
  bool TestFlag(WINDOW_FLAGS Flag) const { return (m_Flags & Flag) != 0; }
  bool HasFocus() const;
  bool IsMatched(QString Input) const;
  virtual bool IsContentsModifiable() const { return false; }
  bool IsEnabled() const { return m_Enabled; }
  virtual bool IsEmpty() const { return false; }
  bool IsOpen() const;
  bool IsVisible() const;
  bool IsFloating() const;
  bool IsActive() const { return m_Active; }
  WIN_UPDATE_MODES GetUpdateMode() const { return m_UpdateMode; }
  // The state the empty-window text is chosen by.
  static DEBUG_STATES CurrentDebugState();

  // ---- session attributes (the window's line in the user file)
  virtual QList<int> GetAttributeIds() const;
  int GetAttributeId(const QString& sName) const;
  virtual QString GetAttributeName(int Id) const;
  virtual QString GetAttributeText(int Id) const;
  virtual int GetAttribute(int Id, bool FromStore) const;
  static bool IsFrameAttribute(int Id) { return Id >= WIN_ATTR_DOCK_AREA && Id <= WIN_ATTR_H; }
  virtual bool ParseAttribute(int Id, const QString& sText);
  bool SetAttribute(const QString& sName, const QString& sText);
  virtual void ClearAttributes();
  int FindOwnLine(const QStringList& Lines) const;
  bool LoadFromLines(const QStringList& Lines);
  // Appends the window's line; nothing when the window is not open.
  void SaveToLine(QStringList& Lines) const;
  static QString DockAreaText(int Area);
  static int ParseDockArea(const QString& sText);  // -1 when no word matches

  // ---- set-up, for derived windows and the main window
  void SetDock(CDockWindow* pDock) { m_pDock = pDock; }
  CDockWindow* Dock() const { return m_pDock; }
  QAction* ClearAction() const { return m_pActionClear; }
  QAction* AddAction() const { return m_pActionAdd; }
  QAction* DisplayFormatAction(int Format) const;
  void AddDisplayFormatMenu(QMenu* pMenu);
  void SetContentVisible(bool Visible);
  virtual void UpdateActions();
  void ShowEmptyState();
  void StartDeactivateTimer(int Ms);
  QPushButton* EmptyWindowButton() const { return m_pEmptyButton; }
  QTimer* DeactivateTimer() const { return m_pDeactivateTimer; }

  // ---- device reports
  void OnDeviceHaltDone(U32 NewPC, HALT_REASONS HaltReason) override;
  void OnDeviceResetDone(U32 NewPC, RESET_MODES ResetMode) override;
  void OnDeviceStepped(U32 NewPC) override;
  void OnDeviceResumeDone(RESUME_MODES ResumeMode) override;
  void OnDeviceDisconnectDone() override;

 signals:
  void StatusTextChanged();
  void ContentChanged();
  void DisplayFormatChanged(int Format);
  void SizeChanged(int w, int h);
  void FocusChanged(bool HasFocus);
  void FlagChanged(WINDOW_FLAGS Flag, bool Value);
  void FloatingStateChanged(bool IsFloating);
  void VisibilityChanged(bool Visible);
  void StateChanged(bool Enabled);
  void ActivationChanged(bool Active);
  void InstSelected(I64 Addr);
  void SrcLocSelected(CSrcLoc Location, int Type);
  void SymbolSelected(U64 SymID);
  void CallSiteSelected(int CallStackIdx);
  void ActionTriggered(QAction* pAction);
  void ActionPerformed(QAction* pAction);

 public slots:
  virtual void OnDisplayFormatChanged(int Format) { Q_UNUSED(Format); Repaint(); }
  virtual void OnFlagChanged(WINDOW_FLAGS Flag, bool Value) { Q_UNUSED(Flag); Q_UNUSED(Value); }
  virtual void OnVisibilityChanged(bool Visible);
  virtual void OnContextMenuRequested(QPoint Pos) { ShowContextMenu(Pos); }
  virtual void OnEmptyWindowButtonClicked() {}
  virtual void OnContentChanged();
  virtual void OnActionAddTriggered() {}
  virtual void OnActionClearTriggered();
  void OnActionTriggered();
  void OnActionPerformed();
  void OnActionSetDispFormTriggered();
  virtual void OnCallFrameEvaluated(int Index) { Q_UNUSED(Index); }
  virtual void OnCallStackUnwinded() {}
  virtual void OnSysVarChanged(int VarID, I64 Value) { SetPreference(VarID, Value); }
  virtual void OnProjectFileOpened(QString FileName) { Q_UNUSED(FileName); }
  virtual void OnProjectFileClosed(QString FileName) { Q_UNUSED(FileName); }
  virtual void OnDeactivateTimerTimeout() { SetActive(false); }
  virtual void OnOpened() {}
  virtual void OnClosed() {}

 protected:
  // The device report shared by halt, reset and step.
  void OnStopped(U32 NewPC);
  void paintEvent(QPaintEvent* pEvent) override;
  void resizeEvent(QResizeEvent* pEvent) override;
  void showEvent(QShowEvent* pEvent) override;
  void hideEvent(QHideEvent* pEvent) override;
  void contextMenuEvent(QContextMenuEvent* pEvent) override;
  // Adds the window's own entries to a context menu (the base: Clear and
  // the display formats).
  virtual void FillContextMenu(QMenu* pMenu);
  int m_aAttributes[WIN_ATTR_COUNT];

 private:
  void PlaceEmptyButton();
  CDockWindow* m_pDock = nullptr;
  QActionGroup* m_pFormatGroup = nullptr;
  QAction* m_apFormatActions[5] = {};
  QAction* m_pActionClear = nullptr;
  QAction* m_pActionAdd = nullptr;
  QPushButton* m_pEmptyButton = nullptr;
  QTimer* m_pDeactivateTimer = nullptr;
  bool m_Enabled = true;
  bool m_Active = true;
  bool m_LastVisible = false;
  U8 m_DisplayFormat = 0;
  U32 m_Flags = WINDOW_FLAG_CLEAR_WHEN_HIDDEN | WINDOW_FLAG_CLEAR_ON_DISCONNECT;
  WIN_UPDATE_MODES m_UpdateMode = WIN_UPDATE_VISIBLE;
};
