// CSourceWindow: the central window of the debugger. Tabs of source
// documents over one shared editor with its sidebar, a header bar with the
// scope of the cursor, the PC line and the call sites of the selected frame,
// breakpoints in the sidebar, inline expansion of a line into its
// instructions, and the document rules of CSourceDocuments. The window
// cannot be closed or hidden by Window.Close.
#pragma once
#include "common/srcloc.h"
#include "elf/elf.h"
#include "ui/framework/window.h"
#include "ui/source/sourcedocs.h"

#include <QPoint>

class CSideBar;
class CSourceRowsModel;
class CSourceEditor;
class QComboBox;
class QFileSystemWatcher;
class QTimer;
class QTabBar;
class QWidget;

enum DOC_OPEN_MODES : int { DOC_OPEN_FRONT = 0, DOC_OPEN_APPEND = 1, DOC_OPEN_LOAD_ONLY = 2 };

enum CURSOR_INFO : int { CURSOR_INFO_LINE = 0, CURSOR_INFO_COLUMN = 1, CURSOR_INFO_FILE = 2 };

class CSourceWindow : public CWindow {
  Q_OBJECT
 public:
  explicit CSourceWindow(QWidget* pParent = nullptr);
  ~CSourceWindow() override;
  // The one source window of the program (null before it is made).
  static CSourceWindow* Instance();

  QString GetDisplayName() const override { return QStringLiteral("Source"); }
  QString GetStatusText() const override;
  void Update(U32 NewPC) override;
  void Clear() override;
  void SetPreference(int SysVarID, I64 Value) override;
  void ExpandAll() override;
  void CollapseAll() override;

  // ---- opening and closing. Open returns the document, null for an empty path.
  CSourceFile* Open(const QString& sFilePath, int Mode = DOC_OPEN_FRONT, int SliderPos = -1, QPoint CursorPos = QPoint(-1, -1));
  bool IsOpen(const QString& sFilePathOrName);
  // Close without questions; false when no such document is open.
  bool Close(const QString& sFilePathOrName);
  void CloseAll();
  void CloseAllButThis();
  void CloseAllUneditedDocuments();
  // With the questions for modified documents; false when the user cancelled.
  bool NotifyUserClose(const QString& sFilePathOrName);
  bool NotifyUserCloseAll();
  bool NotifyUserCloseAllButThis();
  // ---- saving
  bool Save(const QString& sFileNameOrPath, QString* pError = nullptr);
  bool SaveAll(QString* pError = nullptr);
  bool SaveDocument(U32 FileNo, QString* pError = nullptr);
  bool IsDocumentModified(U32 FileNo);
  bool HasDocumentWithUnsavedChanges();
  QStringList GetDocsWithUnsavedChangesFileNames();
  void SetShowDocOutOfDateNotifications(bool DoShow) { m_ShowOutOfDate = DoShow; }
  // Reloads documents changed on disk (asks); the main window calls it when
  // it gets the focus, commands before they touch documents.
  void CheckDiskChanges();
  // Documents the file finder can find now that it could not before.
  void ReopenResolvedDocuments();
  // The user file's OpenDocument records: written in tab order, read back
  // as appended tabs at their lines.
  QStringList WriteDocumentLines();
  void ReadDocumentLines(const QStringList& Lines);

  // ---- navigation
  void ShowProgramEntryPoint();
  bool ViewPC();
  bool SelectLocation(const CSrcLoc& Loc, bool SetFocus);
  bool SelectFileLine(const QString& sFilePath, int Line, bool SetFocus);
  void EnsureTextLineVisible(int DocLine, bool CenterInEditor);
  void EnsurePcVisible(bool CenterInEditor);
  void SelectPcLine();
  void SelectText(const QString& sFilePath, QPoint TextPos, int Len, bool CenterInEditor);
  // Finds a text in the active document from the cursor; false when absent.
  bool FindText(const QString& sText, bool Forward = true);
  // ---- expansion
  void ExpandPcLine();
  void SetAutoExpandPcLine(bool Enabled);
  void SetLineExpanded(int DocLine, bool Expanded);
  // ---- display
  void HighlightPcLine();
  void HighlightCallSites();
  void ClearHighlights();
  void ClearPC();
  void UpdateSidebar();
  void UpdateSidebarRowAddrs();
  void UpdateDocTabBar();
  void InitHeaderBar(U32 FileNo);
  void SetHeaderBarVisible(bool Visible);
  void SetHeaderBarLocked(bool Locked);
  // ---- queries
  int GetFileCount() const;
  QStringList GetFilePaths() const;  // in tab order
  QString GetDocText(const QString& sFilePathOrName);
  CSourceFile* ActiveDocument() const;
  CSourceDocuments& Documents() { return m_Docs; }
  CSourceEditor* GetTextEditor() const { return m_pEditor; }
  CSideBar* GetSideBar() const { return m_pSideBar; }
  QTabBar* TabBar() const { return m_pTabs; }
  QComboBox* ScopeBox() const { return m_pScope; }
  QString GetSelectedTextOrWordUnderCursor() const;
  QString GetFileNameUnderCursor() const;
  CSrcLoc GetPcLoc() const { return m_PcLoc; }
  bool HasPC() const { return m_HasPC; }
  QPoint GetCursorTextPos() const;
  QString GetCursorInfoStr(CURSOR_INFO Info) const;
  // The location of the cursor line as command text ("file:line"), empty
  // without a document of the program.
  QString CursorLocationText() const;
  // The icon id the sidebar shows on a row (0 none).
  int SidebarIcon(int Row) const;
  // The row stands for the PC: the PC's source line, or its instruction.
  bool IsPcRow(int Row) const;
  // Instructions of a line, as the expansion lists them.
  QList<QPair<U64, QString>> LineInstructions(int DocLine) const;

  // A frame chosen in the call stack: its line comes into view, the cursor
  // row in the backtrace colour for a caller's frame.
  void OnCallSiteSelected(int Frame);
  // ---- the cursor actions
  void RunToCursor();
  void SetNextStatement();
  void ToggleBreakpointAtCursor();

  void OnDeviceResumeDone(RESUME_MODES Mode) override;
  void OnDeviceDisconnectDone() override;

 signals:
  void DocumentStateChanged(U32 FileNo, bool HasUnsavedChanges);
  void SymbolTooltipRequest(QPoint Pos, QString Name);

 protected:
  void FillContextMenu(QMenu* pMenu) override;
  void focusInEvent(QFocusEvent* pEvent) override;

 private:
  void ShowDocument(CSourceFile* pDoc);
  void StoreViewState();
  void RefreshRowAddrs();
  int TabOf(U32 FileNo) const;
  void OnTabIndexChanged(int Index);
  void OnTabCloseRequested(int Index);
  void OnSidebarClicked(int Row, int Button);
  void OnEditorClicked(QPoint TextPos, int Button);
  void OnCursorPositionChanged(QPoint TextPos);
  void OnScopeActivated(int Index);
  void OnDocumentStateChanged(U32 FileNo, bool Modified);
  void OnSymbolTooltip(QPoint GlobalPos, const QString& sName);
  bool GateEdit();
  CSrcLoc LocOfRow(int Row) const;
  void SelectBreakpointTarget(int Row);
  void CreateActions();
  void UpdateCursorActions();
  void RemoveTab(int Index);

  void WatchFiles();
  CSourceDocuments m_Docs;
  CSourceRowsModel* m_pRows = nullptr;
  QFileSystemWatcher* m_pWatcher = nullptr;
  QTimer* m_pDiskTimer = nullptr;
  bool m_DiskCheckPending = false;
  QTabBar* m_pTabs = nullptr;
  QWidget* m_pHeader = nullptr;
  QComboBox* m_pScope = nullptr;
  CSourceEditor* m_pEditor = nullptr;
  CSideBar* m_pSideBar = nullptr;
  U32 m_ActiveFileNo = 0;
  bool m_HasActive = false;
  U32 m_PC = 0;
  bool m_HasPC = false;
  CSrcLoc m_PcLoc;
  bool m_AutoExpandPcLine = false;
  bool m_ShowOutOfDate = true;
  bool m_HeaderLocked = false;
  bool m_EditAllowed = false;  // the first-edit question was answered for this session
  bool m_InTabChange = false;
  QList<ELF_SYM_HANDLE> m_ScopeFuncs;
  QAction* m_pRunToCursor = nullptr;
  QAction* m_pSetNextStmnt = nullptr;
  QAction* m_pExpandLine = nullptr;
  QAction* m_pCollapseLine = nullptr;
};

// The source window's commands (File.Close, File.Save, View.Source, ...):
// installed once; they act on CSourceWindow::Instance().
namespace SourceCommands {
void Install();
}
