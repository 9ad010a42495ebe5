#include "ui/source/sourcewindow.h"

#include "commands/actions.h"
#include "device/bpmodel.h"
#include "device/device.h"
#include "disasm/instcache.h"
#include "elf/dwarf/line_tables.h"
#include "elf/dwarf/source_queries.h"
#include "elf/elfapi.h"
#include "expr/evaluator.h"
#include "files/filefinder.h"
#include "log/log.h"
#include "log/messagebox.h"
#include "settings/colors.h"
#include "settings/ids.h"
#include "settings/sysvars.h"
#include "stack/callstack.h"
#include "ui/source/sidebar.h"
#include "ui/source/sourceeditor.h"
#include "ui/source/sourcerows.h"
#include "ui/framework/viewexport.h"

#include <QAction>
#include <QComboBox>
#include <QFileInfo>
#include <QFileSystemWatcher>
#include <QGuiApplication>
#include <QRegularExpression>
#include <QTimer>
#include <QHBoxLayout>
#include <QInputDialog>
#include <QLabel>
#include <QMenu>
#include <QMutexLocker>
#include <QTabBar>
#include <QToolTip>
#include <QVBoxLayout>

namespace {

CSourceWindow* g_pInstance = nullptr;

// Sidebar icons by their numbers in the sidebar's table.
enum SIDEBAR_ICONS {
  ICON_NONE = 0, ICON_BP_SMALL = 1, ICON_BP_CLEAR_SMALL = 2, ICON_BP = 3, ICON_BP_DISABLED = 4, ICON_TP_SMALL = 5,
  ICON_TP_DISABLED_SMALL = 6, ICON_TP = 7, ICON_TP_DISABLED = 8, ICON_CODE = 9, ICON_PC = 10, ICON_CALLER = 11
};

// Holds the ELF API's lock for the line tables.
struct CTables {
  CTables() : Lock(&CElfApi::Instance().Mutex()) {}
  bool Loaded() const { return CElfApi::Instance().IsLoaded(); }
  const CLineTables& t() const { return DWARF_GetProgramTables(); }
  QMutexLocker<QRecursiveMutex> Lock;
};

bool IsConnected() {
  CDevice* d = CDevice::InstanceIfCreated();
  return d && d->IsConnected();
}

QString Hex8(U64 Addr) { return QStringLiteral("0x%1").arg(Addr, 8, 16, QLatin1Char('0')).toUpper().replace(QLatin1String("0X"), QLatin1String("0x")); }

// Runs a command through its action so that the console shows the statement.
void RunLogged(int Id, const QStringList& Args) {
  if (!IsCommandEnabled(Id)) return;
  SetActionArgs(Id, Args);
  TriggerAction(Id);
}

}  // namespace

CSourceWindow* CSourceWindow::Instance() { return g_pInstance; }

CSourceWindow::CSourceWindow(QWidget* pParent) : CWindow(pParent) {
  setObjectName(QStringLiteral("SourceWindow"));
  SetName(QStringLiteral("SourceWindow"));
  setWindowTitle(GetDisplayName());
  // The documents stay open across sessions and whatever is on screen.
  SetFlag(WINDOW_FLAG_CLEAR_WHEN_HIDDEN, false);
  SetFlag(WINDOW_FLAG_CLEAR_ON_DISCONNECT, false);
  SetUpdateMode(WIN_UPDATE_ALWAYS);
  auto* pBody = new QWidget(this);
  auto* pColumn = new QVBoxLayout(pBody);
  pColumn->setContentsMargins(0, 0, 0, 0);
  pColumn->setSpacing(0);
  m_pTabs = new QTabBar(pBody);
  m_pTabs->setObjectName(QStringLiteral("SourceTabs"));
  m_pTabs->setTabsClosable(true);
  m_pTabs->setMovable(true);
  m_pTabs->setDocumentMode(true);
  m_pTabs->setExpanding(false);
  m_pTabs->setElideMode(Qt::ElideNone);
  pColumn->addWidget(m_pTabs);
  m_pHeader = new QWidget(pBody);
  auto* pHeaderRow = new QHBoxLayout(m_pHeader);
  pHeaderRow->setContentsMargins(2, 1, 2, 1);
  m_pScope = new QComboBox(m_pHeader);
  m_pScope->setObjectName(QStringLiteral("SourceScope"));
  m_pScope->setSizeAdjustPolicy(QComboBox::AdjustToContents);
  m_pScope->setMinimumContentsLength(24);
  pHeaderRow->addWidget(m_pScope);
  pHeaderRow->addStretch(1);
  pColumn->addWidget(m_pHeader);
  auto* pText = new QHBoxLayout;
  pText->setSpacing(0);
  m_pEditor = new CSourceEditor(pBody);
  m_pSideBar = new CSideBar(m_pEditor, pBody);
  pText->addWidget(m_pSideBar);
  pText->addWidget(m_pEditor, 1);
  pColumn->addLayout(pText, 1);
  setCentralWidget(pBody);

  m_pSideBar->SetIconProvider([this](int Row) { return SidebarIcon(Row); });
  m_pSideBar->SetExecCountProvider([](int) { return QString(); });
  m_pEditor->SetInstructionProvider([this](int DocLine) {
    QVector<SRC_INST_ROW> Rows;
    for (const auto& [Addr, sText] : LineInstructions(DocLine)) Rows.append({Addr, sText});
    return Rows;
  });
  m_pEditor->SetEditGate([this] { return GateEdit(); });
  connect(m_pTabs, &QTabBar::currentChanged, this, &CSourceWindow::OnTabIndexChanged);
  connect(m_pTabs, &QTabBar::tabCloseRequested, this, &CSourceWindow::OnTabCloseRequested);
  connect(m_pSideBar, &CSideBar::MouseClicked, this, &CSourceWindow::OnSidebarClicked);
  connect(m_pEditor, &CSourceEditor::Clicked, this, &CSourceWindow::OnEditorClicked);
  connect(m_pEditor, &CSourceEditor::CursorPositionChanged, this, &CSourceWindow::OnCursorPositionChanged);
  connect(m_pEditor, &CSourceEditor::DocumentStateChanged, this, &CSourceWindow::OnDocumentStateChanged);
  connect(m_pEditor, &CSourceEditor::RowsChanged, this, [this] { RefreshRowAddrs(); });
  connect(m_pEditor, &CSourceEditor::SymbolTooltipRequest, this, &CSourceWindow::OnSymbolTooltip);
  connect(m_pEditor, &CSourceEditor::CustomContextMenuRequested, this,
          [this](QPoint Pos) { ShowContextMenu(m_pEditor->mapTo(this, Pos)); });
  connect(m_pScope, QOverload<int>::of(&QComboBox::activated), this, &CSourceWindow::OnScopeActivated);
  // New path rules may find files that were missing.
  connect(&FileFinder(), &CFileFinder::RulesChanged, this, [this] { ReopenResolvedDocuments(); });
  // A file that changes on disk is looked at shortly after (an editor may
  // write it in several steps) and only while the program is in front, so
  // that the question finds the user.
  m_pWatcher = new QFileSystemWatcher(this);
  m_pDiskTimer = new QTimer(this);
  m_pDiskTimer->setSingleShot(true);
  m_pDiskTimer->setInterval(150);
  connect(m_pWatcher, &QFileSystemWatcher::fileChanged, m_pDiskTimer, qOverload<>(&QTimer::start));
  connect(m_pDiskTimer, &QTimer::timeout, this, [this] {
    if (CMessageBox::IsBatchMode() || QGuiApplication::applicationState() == Qt::ApplicationActive) CheckDiskChanges();
    else m_DiskCheckPending = true;
  });
  connect(qApp, &QGuiApplication::applicationStateChanged, this, [this](Qt::ApplicationState State) {
    if (State == Qt::ApplicationActive && m_DiskCheckPending) {
      m_DiskCheckPending = false;
      CheckDiskChanges();
    }
  });
  CreateActions();
  m_pRows = new CSourceRowsModel(this);
  WIN_RegisterViewModel(GetDisplayName(), [this] {
    StoreViewState();
    m_pRows->Reset();
    return m_pRows;
  });
  g_pInstance = this;
  ShowDocument(nullptr);
}

CSourceWindow::~CSourceWindow() {
  if (g_pInstance == this) {
    g_pInstance = nullptr;
    WIN_UnregisterViewModel(GetDisplayName());
  }
  delete m_pRows;
}

void CSourceWindow::CreateActions() {
  auto Make = [this](const char* sName, const QString& sText, const std::function<void()>& Slot) {
    auto* a = new QAction(sText, this);
    a->setObjectName(QLatin1String(sName));
    a->setShortcutContext(Qt::WindowShortcut);
    addAction(a);
    connect(a, &QAction::triggered, this, Slot);
    return a;
  };
  m_pRunToCursor = Make("actionSrcRunToCursor", QStringLiteral("Run To Cursor"), [this] { RunToCursor(); });
  m_pSetNextStmnt = Make("actionSrcSetNextStmnt", QStringLiteral("Set Next Statement"), [this] { SetNextStatement(); });
  m_pExpandLine = Make("actionSrcExpandLine", QStringLiteral("Expand Line"),
                       [this] { SetLineExpanded(GetCursorTextPos().y(), true); });
  m_pCollapseLine = Make("actionSrcCollapseLine", QStringLiteral("Collapse Line"),
                         [this] { SetLineExpanded(GetCursorTextPos().y(), false); });
  Make("actionSrcExpandAllLines", QStringLiteral("Expand All Lines"), [this] { ExpandAll(); });
  Make("actionSrcCollapseAllLines", QStringLiteral("Collapse All Lines"), [this] { CollapseAll(); });
  Make("actionSrcViewPC", QStringLiteral("View PC"), [this] { ViewPC(); });
  // Go to line: asks for the number, then runs View.Line so that the
  // console shows it.
  Make("actionSrcViewLine", QStringLiteral("Go To Line..."), [this] {
    if (!ActiveDocument()) return;
    bool Ok = false;
    const int Line = QInputDialog::getInt(this, QStringLiteral("Go To Line"), QStringLiteral("Line:"), GetCursorTextPos().y(), 1,
                                          qMax(1, m_pEditor->DocLineCount()), 1, &Ok);
    if (Ok) RunLogged(AID_VIEW_LINE, {QString::number(Line)});
  });
  Make("actionSrcFindNext", QStringLiteral("Find Next"), [this] { FindText(GetSelectedTextOrWordUnderCursor(), true); });
  Make("actionSrcFindPrev", QStringLiteral("Find Previous"), [this] { FindText(GetSelectedTextOrWordUnderCursor(), false); });
  Make("actionSrcShowNextDocument", QStringLiteral("Next Document"), [this] {
    if (m_pTabs->count() > 1) m_pTabs->setCurrentIndex((m_pTabs->currentIndex() + 1) % m_pTabs->count());
  });
  // F9 toggles a breakpoint on the cursor line; Set and Clear share the key,
  // so only the one that applies is enabled.
  Make("actionBPSet", QStringLiteral("Set Breakpoint"), [this] { ToggleBreakpointAtCursor(); });
  Make("actionBPClear", QStringLiteral("Clear Breakpoint"), [this] { ToggleBreakpointAtCursor(); });
  LinkActions(this);
  UpdateCursorActions();
}

// ---------------------------------------------------------------- documents

int CSourceWindow::TabOf(U32 FileNo) const {
  for (int i = 0; i < m_pTabs->count(); ++i)
    if (m_pTabs->tabData(i).toUInt() == FileNo) return i;
  return -1;
}

CSourceFile* CSourceWindow::ActiveDocument() const {
  return m_HasActive ? const_cast<CSourceDocuments&>(m_Docs).Get(m_ActiveFileNo) : nullptr;
}

CSourceFile* CSourceWindow::Open(const QString& sFilePath, int Mode, int SliderPos, QPoint CursorPos) {
  if (sFilePath.isEmpty()) return nullptr;
  CSourceFile* d = m_Docs.Load(sFilePath);
  if (!d) return nullptr;
  if (SliderPos >= 0) d->ScrollPos = SliderPos;
  if (CursorPos.y() > 0) d->Line = CursorPos.y(), d->Col = qMax(0, CursorPos.x());
  if (Mode == DOC_OPEN_LOAD_ONLY) {
    emit ContentChanged();
    return d;
  }
  int Tab = TabOf(d->FileNo);
  if (Tab < 0) {
    const bool Front = Mode != DOC_OPEN_APPEND;
    m_InTabChange = true;
    Tab = Front ? m_pTabs->insertTab(0, d->Name()) : m_pTabs->addTab(d->Name());
    m_pTabs->setTabData(Tab, d->FileNo);
    m_pTabs->setTabToolTip(Tab, d->FilePath);
    m_InTabChange = false;
    UpdateDocTabBar();
    // Any other mode than the first two leaves the current tab as it is.
    if (Mode != DOC_OPEN_FRONT && Mode != DOC_OPEN_APPEND && m_HasActive) return d;
    if (Mode == DOC_OPEN_APPEND && m_HasActive) return d;
  }
  if (m_pTabs->currentIndex() != Tab) m_pTabs->setCurrentIndex(Tab);
  else if (!m_HasActive || m_ActiveFileNo != d->FileNo) ShowDocument(d);
  UpdateSidebar();
  WatchFiles();
  return d;
}

bool CSourceWindow::IsOpen(const QString& sFilePathOrName) {
  CSourceFile* d = m_Docs.Find(sFilePathOrName);
  return d && TabOf(d->FileNo) >= 0;
}

void CSourceWindow::StoreViewState() {
  CSourceFile* d = ActiveDocument();
  if (!d || !m_pEditor->FileNo() || m_pEditor->FileNo() != d->FileNo) return;
  if (d->Exists) d->Text = m_pEditor->Text();
  const QPoint c = m_pEditor->CursorTextPos();
  d->Line = qMax(1, c.y());
  d->Col = c.x();
  d->ScrollPos = m_pEditor->ScrollPos();
  d->ScrollCol = m_pEditor->ScrollCol();
}

void CSourceWindow::OnTabIndexChanged(int Index) {
  if (m_InTabChange) return;
  StoreViewState();
  ShowDocument(Index < 0 ? nullptr : m_Docs.Get(m_pTabs->tabData(Index).toUInt()));
}

void CSourceWindow::ShowDocument(CSourceFile* d) {
  m_HasActive = d != nullptr;
  m_ActiveFileNo = d ? d->FileNo : 0;
  if (!d) {
    m_pEditor->Clear();
    m_pHeader->setVisible(false);
    UpdateSidebar();
    emit StatusTextChanged();
    return;
  }
  if (!d->Exists) {
    m_pEditor->ShowMessage(QStringLiteral("File not found:\n\n") + d->DebugPath +
                           QStringLiteral("\n\nPlease use the source files window to locate the file manually"));
  } else {
    m_pEditor->LoadDocument(d->Text, d->FilePath, d->FileNo);
    m_pEditor->SetModified(d->HasUnsavedChanges);
    RefreshRowAddrs();
    m_pEditor->SetScrollPos(d->ScrollPos);
    m_pEditor->SetScrollCol(d->ScrollCol);
    m_pEditor->SetCursorTextPos(QPoint(d->Col, d->Line));
  }
  InitHeaderBar(d->FileNo);
  HighlightPcLine();
  HighlightCallSites();
  UpdateSidebar();
  UpdateCursorActions();
  emit StatusTextChanged();
  if (d->Exists && d->ModifiedOnDisk && m_ShowOutOfDate) {
    d->ModifiedOnDisk = false;  // told once
    TellSourceFileChanged();
  }
}

void CSourceWindow::RemoveTab(int Index) {
  const U32 No = m_pTabs->tabData(Index).toUInt();
  const bool WasActive = m_HasActive && m_ActiveFileNo == No;
  if (WasActive) m_HasActive = false;  // its text is not stored back
  m_pTabs->removeTab(Index);
  m_Docs.Remove(No);
  WatchFiles();
  if (WasActive && m_pTabs->count() == 0) ShowDocument(nullptr);
  UpdateDocTabBar();
  emit ContentChanged();
}

bool CSourceWindow::Close(const QString& sFilePathOrName) {
  StoreViewState();
  CSourceFile* d = sFilePathOrName.isEmpty() ? ActiveDocument() : m_Docs.Find(sFilePathOrName);
  if (!d) return false;
  const int Tab = TabOf(d->FileNo);
  if (Tab < 0) return false;
  RemoveTab(Tab);
  return true;
}

void CSourceWindow::CloseAll() {
  while (m_pTabs->count()) RemoveTab(m_pTabs->count() - 1);
}

void CSourceWindow::CloseAllButThis() {
  const int Keep = m_pTabs->currentIndex();
  for (int i = m_pTabs->count() - 1; i >= 0; --i)
    if (i != Keep) RemoveTab(i);
}

void CSourceWindow::CloseAllUneditedDocuments() {
  StoreViewState();
  for (int i = m_pTabs->count() - 1; i >= 0; --i) {
    CSourceFile* d = m_Docs.Get(m_pTabs->tabData(i).toUInt());
    if (d && !d->HasUnsavedChanges) RemoveTab(i);
  }
}

bool CSourceWindow::NotifyUserClose(const QString& sFilePathOrName) {
  StoreViewState();
  CSourceFile* d = sFilePathOrName.isEmpty() ? ActiveDocument() : m_Docs.Find(sFilePathOrName);
  if (!d) return true;
  if (d->HasUnsavedChanges) {
    const int r = AskSaveDocumentChanges(d->Name());
    if (r == CMessageBox::RESULT_CANCEL) return false;
    if (r == CMessageBox::RESULT_YES && !SaveDocument(d->FileNo)) return false;
  }
  return true;
}

// The question for several modified documents; Yes saves them all. A save
// that fails cancels, so that nothing is lost.
static bool AskAndSave(CSourceWindow* w, const QList<CSourceFile*>& Docs) {
  QStringList Names;
  for (CSourceFile* d : Docs)
    if (d->HasUnsavedChanges) Names << d->Name();
  if (Names.isEmpty()) return true;
  const int r = Names.size() == 1 ? AskSaveDocumentChanges(Names[0]) : AskSaveAllDocuments(Names);
  if (r == CMessageBox::RESULT_CANCEL) return false;
  if (r == CMessageBox::RESULT_YES) {
    for (CSourceFile* d : Docs)
      if (d->HasUnsavedChanges && !w->SaveDocument(d->FileNo)) return false;
  }
  return true;
}

bool CSourceWindow::NotifyUserCloseAll() {
  StoreViewState();
  QList<CSourceFile*> Docs;
  for (int i = 0; i < m_pTabs->count(); ++i) Docs << m_Docs.Get(m_pTabs->tabData(i).toUInt());
  Docs.removeAll(nullptr);
  return AskAndSave(this, Docs);
}

bool CSourceWindow::NotifyUserCloseAllButThis() {
  StoreViewState();
  QList<CSourceFile*> Docs;
  for (int i = 0; i < m_pTabs->count(); ++i)
    if (i != m_pTabs->currentIndex()) Docs << m_Docs.Get(m_pTabs->tabData(i).toUInt());
  Docs.removeAll(nullptr);
  return AskAndSave(this, Docs);
}

void CSourceWindow::OnTabCloseRequested(int Index) {
  CSourceFile* d = m_Docs.Get(m_pTabs->tabData(Index).toUInt());
  if (d) RunLogged(AID_FILE_CLOSE, {d->FilePath});
}

// ---------------------------------------------------------------- saving

bool CSourceWindow::SaveDocument(U32 FileNo, QString* pError) {
  StoreViewState();
  CSourceFile* d = m_Docs.Get(FileNo);
  if (!d) {
    if (pError) *pError = QStringLiteral("file is not open");
    return false;
  }
  if (!d->Exists && d->Text.isEmpty()) {
    if (pError) *pError = QStringLiteral("file not found");
    return false;
  }
  QString sError;
  if (!m_Docs.Save(*d, &sError)) {
    ConsolePrintLine(d->FilePath + QStringLiteral(": ") + sError);
    if (pError) *pError = sError;
    return false;
  }
  // The save may have converted line endings: the editor shows what was written.
  if (m_HasActive && m_ActiveFileNo == FileNo) {
    if (m_pEditor->Text() != d->Text) ShowDocument(d);
    m_pEditor->SetModified(false);
  }
  OnDocumentStateChanged(FileNo, false);
  WatchFiles();
  return true;
}

bool CSourceWindow::Save(const QString& sFileNameOrPath, QString* pError) {
  StoreViewState();
  CSourceFile* d = sFileNameOrPath.isEmpty() ? ActiveDocument() : m_Docs.Find(sFileNameOrPath);
  if (!d) {
    if (pError) *pError = QStringLiteral("file is not open");
    return false;
  }
  return SaveDocument(d->FileNo, pError);
}

bool CSourceWindow::SaveAll(QString* pError) {
  StoreViewState();
  bool Ok = true;
  for (CSourceFile* d : m_Docs.All())
    if (d->HasUnsavedChanges) Ok = SaveDocument(d->FileNo, pError) && Ok;
  return Ok;
}

bool CSourceWindow::IsDocumentModified(U32 FileNo) {
  // The flags follow the editor's state signal; no copy of the text needed.
  CSourceFile* d = m_Docs.Get(FileNo);
  return d && d->HasUnsavedChanges;
}

bool CSourceWindow::HasDocumentWithUnsavedChanges() { return !GetDocsWithUnsavedChangesFileNames().isEmpty(); }

QStringList CSourceWindow::GetDocsWithUnsavedChangesFileNames() {
  QStringList l;
  for (CSourceFile* d : m_Docs.All())
    if (d->HasUnsavedChanges) l << d->Name();
  return l;
}

void CSourceWindow::OnDocumentStateChanged(U32 FileNo, bool Modified) {
  if (CSourceFile* d = m_Docs.Get(FileNo)) {
    d->HasUnsavedChanges = Modified;
    if (Modified && m_HasActive && m_ActiveFileNo == FileNo) d->Text = m_pEditor->Text();
  }
  UpdateDocTabBar();
  emit DocumentStateChanged(FileNo, Modified);
}

void CSourceWindow::CheckDiskChanges() {
  StoreViewState();
  const QList<U32> Reloaded = m_Docs.CheckDiskChanges();
  for (U32 No : Reloaded) {
    if (m_HasActive && m_ActiveFileNo == No) ShowDocument(m_Docs.Get(No));
    OnDocumentStateChanged(No, false);
  }
  WatchFiles();
}

void CSourceWindow::ReopenResolvedDocuments() {
  StoreViewState();
  bool Active = false;
  for (CSourceFile* d : m_Docs.All()) {
    if (d->Exists) continue;
    const QString sFound = FileFinder().Resolve(d->DebugPath);
    if (sFound.isEmpty()) continue;
    d->FilePath = QFileInfo(sFound).absoluteFilePath();
    d->Suffix = QFileInfo(sFound).suffix().toLower();
    m_Docs.Reload(*d);
    const int Tab = TabOf(d->FileNo);
    if (Tab >= 0) m_pTabs->setTabToolTip(Tab, d->FilePath);
    Active |= m_HasActive && d->FileNo == m_ActiveFileNo;
  }
  if (Active) ShowDocument(ActiveDocument());
}

void CSourceWindow::WatchFiles() {
  QStringList Want;
  for (CSourceFile* d : m_Docs.All())
    if (!d->FilePath.isEmpty() && QFileInfo::exists(d->FilePath)) Want << d->FilePath;
  const QStringList Have = m_pWatcher->files();
  for (const QString& s : Have)
    if (!Want.contains(s)) m_pWatcher->removePath(s);
  for (const QString& s : Want)
    if (!Have.contains(s)) m_pWatcher->addPath(s);
}

QStringList CSourceWindow::WriteDocumentLines() {
  StoreViewState();
  QStringList Lines;
  for (int i = 0; i < m_pTabs->count(); ++i) {
    CSourceFile* d = m_Docs.Get(m_pTabs->tabData(i).toUInt());
    if (!d) continue;
    Lines << QStringLiteral("OpenDocument=\"%1\", FilePath=\"%2\", Line=%3").arg(d->Name(), d->FilePath).arg(d->Line);
  }
  return Lines;
}

void CSourceWindow::ReadDocumentLines(const QStringList& Lines) {
  static const QRegularExpression Field(QStringLiteral("(\\w+)=(\"[^\"]*\"|[^,]*)"));
  for (const QString& sLine : Lines) {
    QString sPath;
    int Line = 1;
    for (auto m = Field.globalMatch(sLine); m.hasNext();) {
      const auto f = m.next();
      QString v = f.captured(2).trimmed();
      if (v.startsWith(QLatin1Char('"'))) v = v.mid(1, v.size() - 2);
      if (f.captured(1) == QLatin1String("FilePath")) sPath = v;
      else if (f.captured(1) == QLatin1String("Line")) Line = qMax(1, v.toInt());
    }
    if (sPath.isEmpty()) {
      ConsolePrintLine(QStringLiteral("Syntax error in user preference file (.vdebug.user): ") + sLine);
      continue;
    }
    Open(sPath, DOC_OPEN_APPEND, -1, QPoint(0, Line));
  }
}

void CSourceWindow::focusInEvent(QFocusEvent* pEvent) {
  CWindow::focusInEvent(pEvent);
  CheckDiskChanges();
}

// ---------------------------------------------------------------- editing

bool CSourceWindow::GateEdit() {
  const I64 Restrict = SysVars::GetValue(PREF_RESTRICT_SRC_EDIT);
  if (Restrict == 2 || (Restrict == 1 && IsConnected())) return false;
  CSourceFile* d = ActiveDocument();
  if (!d || !d->Exists) return false;
  if (!m_EditAllowed) {
    if (AskEditDocument() != CMessageBox::RESULT_YES) return false;
    m_EditAllowed = true;
  }
  return true;
}

// ---------------------------------------------------------------- rows and the PC

CSrcLoc CSourceWindow::LocOfRow(int Row) const {
  if (!m_HasActive || Row < 0 || Row >= m_pEditor->RowCount()) return CSrcLoc(0xFFFFFFFFu, 0);
  return CSrcLoc(m_ActiveFileNo, U32(m_pEditor->DocLineOfRow(Row)));
}

void CSourceWindow::RefreshRowAddrs() {
  CSourceFile* d = ActiveDocument();
  if (!d || !d->Exists || m_pEditor->FileNo() != d->FileNo) return;
  CTables T;
  const bool Program = T.Loaded() && d->InProgram;
  for (int r = 0; r < m_pEditor->RowCount(); ++r) {
    if (m_pEditor->RowKind(r) != 1) continue;
    I64 Addr = -1;
    if (Program) Addr = T.t().GetFirstLocAddress(CSrcLoc(d->FileNo, U32(m_pEditor->DocLineOfRow(r))));
    m_pEditor->SetRowAddr(r, Addr < 0 ? ~0ull : U64(Addr));
  }
  m_pSideBar->update();
}

void CSourceWindow::UpdateSidebarRowAddrs() { RefreshRowAddrs(); }

int CSourceWindow::SidebarIcon(int Row) const {
  if (!m_HasActive || Row < 0 || Row >= m_pEditor->RowCount()) return ICON_NONE;
  CBreakpointsDataModel& Bps = CBreakpointsDataModel::Instance();
  const U64 Addr = m_pEditor->RowAddr(Row);
  if (m_pEditor->RowKind(Row) == 0) {
    // An instruction row: its own breakpoint, small when derived from the line's.
    if (const CBreakpointInfo* b = Bps.FindAddr(Addr)) {
      if (b->State == BP_STATE_DISABLED) return ICON_BP_DISABLED;
      return b->Derived ? ICON_BP_SMALL : ICON_BP;
    }
    if (m_HasPC && Addr == m_PC) return ICON_PC;
    return ICON_NONE;
  }
  if (Addr == ~0ull) return ICON_NONE;
  const CSrcLoc Loc = LocOfRow(Row);
  if (const CBreakpointInfo* b = Bps.FindSource(Loc)) {
    if (b->State == BP_STATE_DISABLED) return ICON_BP_DISABLED;
    if (b->State == BP_STATE_MIXED) return ICON_BP_SMALL;
    return ICON_BP;
  }
  // A breakpoint on one of the line's instructions, not on the line.
  for (U32 a : Bps.LocAddresses(Loc)) {
    if (const CBreakpointInfo* b = Bps.FindAddr(a)) return b->State == BP_STATE_DISABLED ? ICON_BP_CLEAR_SMALL : ICON_BP_SMALL;
  }
  for (const TP& t : Bps.Tracepoints()) {
    if (t.Addr == Addr) return t.State == BP_STATE_ON ? ICON_TP : ICON_TP_DISABLED;
  }
  if (m_HasPC && m_PcLoc.file == Loc.file && m_PcLoc.line == Loc.line) return ICON_PC;
  return ICON_CODE;
}

bool CSourceWindow::IsPcRow(int Row) const {
  if (!m_HasPC || !m_HasActive || Row < 0 || Row >= m_pEditor->RowCount()) return false;
  if (m_pEditor->RowKind(Row) == 0) return m_pEditor->RowAddr(Row) == m_PC;
  return m_PcLoc.file == m_ActiveFileNo && U32(m_pEditor->DocLineOfRow(Row)) == m_PcLoc.line;
}

QList<QPair<U64, QString>> CSourceWindow::LineInstructions(int DocLine) const {
  QList<QPair<U64, QString>> Out;
  if (!ActiveDocument() || !ActiveDocument()->InProgram) return Out;
  QList<U32> Addrs;
  {
    CTables T;
    if (!T.Loaded()) return Out;
    Addrs = DWARF_GetLocInstructions(T.t(), CSrcLoc(m_ActiveFileNo, U32(DocLine)));
  }
  // "0800048A: " in front of the instruction: the editor's scanner finds
  // the mnemonic field behind those ten characters.
  char Buf[256];
  for (U32 a : Addrs) {
    Buf[0] = 0;
    GetItemDisplayText(a, Buf, sizeof Buf);
    // The plug-in separates mnemonic, operands and comment by tabs; the
    // rows are drawn in columns of characters.
    QString sInst = QString::fromLatin1(Buf).trimmed();
    const qsizetype Tab = sInst.indexOf(QLatin1Char('\t'));
    if (Tab >= 0) sInst = sInst.left(Tab).leftJustified(CSourceEditor::kMnemonicWidth - 1) + QLatin1Char(' ') + sInst.mid(Tab + 1);
    sInst.replace(QLatin1Char('\t'), QStringLiteral("  "));
    Out.append({U64(a), QStringLiteral("%1: ").arg(a, 8, 16, QLatin1Char('0')).toUpper() + sInst});
  }
  return Out;
}

void CSourceWindow::Update(U32 NewPC) {
  m_pEditor->SetBacktraceMode(false);
  m_PC = NewPC;
  m_HasPC = true;
  {
    CTables T;
    m_PcLoc = T.Loaded() ? T.t().GetLastSrcLoc(NewPC) : CSrcLoc();
  }
  if (!m_PcLoc.IsNull()) {
    QString sPath;
    {
      CTables T;
      sPath = T.t().GetFilePath(m_PcLoc.file);
    }
    if (!m_HasActive || m_ActiveFileNo != m_PcLoc.file) Open(sPath, TabOf(m_PcLoc.file) >= 0 ? DOC_OPEN_APPEND : DOC_OPEN_FRONT);
    if (m_HasActive && m_ActiveFileNo == m_PcLoc.file) {
      if (m_AutoExpandPcLine) m_pEditor->SetExpanded(int(m_PcLoc.line), true);
      m_pEditor->SetCursorTextPos(QPoint(0, int(m_PcLoc.line)));
      EnsureTextLineVisible(int(m_PcLoc.line), false);
    }
  }
  HighlightPcLine();
  HighlightCallSites();
  UpdateSidebar();
  UpdateCursorActions();
}

void CSourceWindow::OnDeviceResumeDone(RESUME_MODES Mode) {
  CWindow::OnDeviceResumeDone(Mode);
  ClearPC();
}

void CSourceWindow::OnDeviceDisconnectDone() {
  CWindow::OnDeviceDisconnectDone();
  ClearPC();
}

void CSourceWindow::ClearPC() {
  m_HasPC = false;
  m_PcLoc = CSrcLoc();
  ClearHighlights();
  UpdateSidebar();
  UpdateCursorActions();
}

void CSourceWindow::Clear() { ClearPC(); }

void CSourceWindow::HighlightPcLine() {
  m_pEditor->ClearHighlights(Colors::GetColor(COLOR_PC_ACTIVE));
  if (!m_HasPC || !m_HasActive) return;
  m_pEditor->SetAddrColor(m_PC, Colors::GetColor(COLOR_PC_ACTIVE));
  if (m_PcLoc.file == m_ActiveFileNo)
    m_pEditor->SetLineColor(int(m_PcLoc.line), Colors::GetColor(COLOR_PC_ACTIVE), Colors::GetColor(COLOR_PC_INACTIVE));
}

void CSourceWindow::HighlightCallSites() {
  m_pEditor->ClearHighlights(Colors::GetColor(COLOR_CALL_SITE_ACTIVE));
  if (!m_HasPC || !m_HasActive) return;
  CCallStack* s = CCallStack::InstanceIfCreated();
  if (!s) return;
  // The callers' lines, frame 1 and up; the selected frame's line shows in
  // the call site colour even when it is frame 0's file.
  const QList<CSrcLoc>& Locs = s->GetFrameLocs();
  const QList<U64>& Addrs = s->GetFrameAddresses();
  for (int i = 1; i < Locs.size(); ++i) {
    if (i < Addrs.size()) m_pEditor->SetAddrColor(Addrs[i], Colors::GetColor(COLOR_CALL_SITE_ACTIVE));
    if (Locs[i].file == m_ActiveFileNo && Locs[i] != m_PcLoc)
      m_pEditor->SetLineColor(int(Locs[i].line), Colors::GetColor(COLOR_CALL_SITE_ACTIVE), Colors::GetColor(COLOR_CALL_SITE_INACTIVE));
  }
}

void CSourceWindow::ClearHighlights() { m_pEditor->ClearHighlights(); }

void CSourceWindow::UpdateSidebar() { m_pSideBar->update(); }

void CSourceWindow::UpdateDocTabBar() {
  for (int i = 0; i < m_pTabs->count(); ++i) {
    CSourceFile* d = m_Docs.Get(m_pTabs->tabData(i).toUInt());
    if (!d) continue;
    m_pTabs->setTabText(i, d->Name() + (d->HasUnsavedChanges ? QStringLiteral(" *") : QString()));
  }
}

// ---------------------------------------------------------------- header bar

void CSourceWindow::InitHeaderBar(U32 FileNo) {
  m_pScope->clear();
  m_ScopeFuncs.clear();
  m_pScope->addItem(QStringLiteral("File Scope"));
  QList<QPair<int, ELF_SYM_HANDLE>> Funcs;
  if (CSourceFile* d = m_Docs.Get(FileNo); d && d->InProgram) {
    CTables T;
    if (T.Loaded()) {
      // The functions declared in the file (an address range says less: a
      // header's inline functions spread its range over other files' code).
      for (ELF_SYM_HANDLE h : T.t().GetFunctionList()) {
        const CSrcLoc Loc = DWARF_GetSymbolLoc(T.t(), h);
        if (Loc.file == FileNo && Loc.line) Funcs.append({int(Loc.line), h});
      }
    }
  }
  std::sort(Funcs.begin(), Funcs.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
  const QIcon Icon(QStringLiteral(":/Resources/document-text.png"));
  for (const auto& [Line, h] : Funcs) {
    m_pScope->addItem(Icon, QString::fromLatin1(ELF_GetName(h)), Line);
    m_ScopeFuncs << h;
  }
  m_pHeader->setVisible(!Funcs.isEmpty() || m_HeaderLocked);
}

void CSourceWindow::SetHeaderBarVisible(bool Visible) { m_pHeader->setVisible(Visible); }
void CSourceWindow::SetHeaderBarLocked(bool Locked) {
  m_HeaderLocked = Locked;
  m_pScope->setEnabled(!Locked);
}

void CSourceWindow::OnScopeActivated(int Index) {
  const int Line = m_pScope->itemData(Index).toInt();
  if (Line > 0) {
    m_pEditor->SetCursorTextPos(QPoint(0, Line));
    EnsureTextLineVisible(Line, true);
    m_pEditor->setFocus();
  }
}

void CSourceWindow::OnCursorPositionChanged(QPoint TextPos) {
  // The scope: the last function that starts at or above the cursor and
  // whose range holds the cursor's code; "<outofscope>" between functions.
  int Best = 0;
  for (int i = 1; i < m_pScope->count(); ++i) {
    const int Line = m_pScope->itemData(i).toInt();
    if (Line > 0 && Line <= TextPos.y()) Best = i;
  }
  if (Best > 0 && m_HasActive) {
    CTables T;
    const FUNC_SRC_RANGE r = DWARF_GetFuncSrcRange(T.t(), m_ScopeFuncs.value(Best - 1));
    if (r.bottom.line && r.bottom.file == m_ActiveFileNo && U32(TextPos.y()) > r.bottom.line) Best = -1;
  }
  const int Out = m_pScope->findText(QStringLiteral("<outofscope>"));
  if (Best < 0) {
    if (Out < 0) m_pScope->addItem(QStringLiteral("<outofscope>"));
    m_pScope->setCurrentIndex(m_pScope->findText(QStringLiteral("<outofscope>")));
  } else {
    if (Out >= 0) m_pScope->removeItem(Out);
    m_pScope->setCurrentIndex(Best);
  }
  UpdateCursorActions();
  emit StatusTextChanged();
}

QString CSourceWindow::GetStatusText() const {
  const QPoint c = GetCursorTextPos();
  return QStringLiteral("Ln %1  Ch %2").arg(c.y()).arg(c.x() + 1);
}

// ---------------------------------------------------------------- navigation

void CSourceWindow::EnsureTextLineVisible(int DocLine, bool CenterInEditor) {
  m_pEditor->EnsureTextLineVisible(DocLine, CenterInEditor);
  m_pSideBar->update();
}

bool CSourceWindow::SelectFileLine(const QString& sFilePath, int Line, bool SetFocus) {
  CSourceFile* d = Open(sFilePath);
  if (!d || !d->Exists) return false;
  Line = qBound(1, Line, qMax(1, m_pEditor->DocLineCount()));
  m_pEditor->SetCursorTextPos(QPoint(0, Line));
  EnsureTextLineVisible(Line, true);
  if (SetFocus) m_pEditor->setFocus();
  return true;
}

bool CSourceWindow::SelectLocation(const CSrcLoc& Loc, bool SetFocus) {
  if (Loc.IsNull()) return false;
  QString sPath;
  {
    CTables T;
    if (!T.Loaded()) return false;
    sPath = T.t().GetFilePath(Loc.file);
  }
  return !sPath.isEmpty() && SelectFileLine(sPath, int(Loc.line), SetFocus);
}

bool CSourceWindow::ViewPC() {
  if (!m_HasPC || m_PcLoc.IsNull()) return false;
  return SelectLocation(m_PcLoc, true);
}

void CSourceWindow::EnsurePcVisible(bool CenterInEditor) {
  if (m_HasPC && m_HasActive && m_PcLoc.file == m_ActiveFileNo) EnsureTextLineVisible(int(m_PcLoc.line), CenterInEditor);
}

void CSourceWindow::SelectPcLine() {
  if (ViewPC()) m_pEditor->SelectText(QPoint(0, int(m_PcLoc.line)), 0);
}

void CSourceWindow::ShowProgramEntryPoint() {
  U64 Addr = 0;
  {
    CTables T;
    if (!T.Loaded()) return;
    Addr = CElfApi::Instance().GetEntryPoint();
  }
  CTables T;
  const CSrcLoc Loc = T.t().GetLastSrcLoc(U32(Addr));
  T.Lock.unlock();
  SelectLocation(Loc, false);
}

void CSourceWindow::SelectText(const QString& sFilePath, QPoint TextPos, int Len, bool CenterInEditor) {
  if (!Open(sFilePath)) return;
  m_pEditor->SelectText(TextPos, Len);
  EnsureTextLineVisible(TextPos.y(), CenterInEditor);
}

bool CSourceWindow::FindText(const QString& sText, bool Forward) {
  CSourceFile* d = ActiveDocument();
  if (!d || sText.isEmpty()) return false;
  StoreViewState();
  const QStringList Lines = d->Text.split(QLatin1Char('\n'));
  const QPoint c = m_pEditor->CursorTextPos();
  const int n = int(Lines.size());
  for (int k = 0; k <= n; ++k) {
    const int Line = Forward ? (c.y() - 1 + k) % n : ((c.y() - 1 - k) % n + n) % n;
    const QString& s = Lines[Line];
    int Col;
    if (Forward) Col = s.indexOf(sText, k == 0 ? c.x() + 1 : 0, Qt::CaseInsensitive);
    else Col = s.lastIndexOf(sText, k == 0 ? c.x() - 1 : -1, Qt::CaseInsensitive);
    if (Col >= 0) {
      m_pEditor->SelectText(QPoint(Col, Line + 1), int(sText.size()));
      EnsureTextLineVisible(Line + 1, false);
      return true;
    }
  }
  return false;
}

QPoint CSourceWindow::GetCursorTextPos() const { return m_HasActive ? m_pEditor->CursorTextPos() : QPoint(0, 0); }

QString CSourceWindow::GetCursorInfoStr(CURSOR_INFO Info) const {
  const QPoint c = GetCursorTextPos();
  switch (Info) {
    case CURSOR_INFO_LINE: return QString::number(c.y());
    case CURSOR_INFO_COLUMN: return QString::number(c.x() + 1);
    default: return ActiveDocument() ? ActiveDocument()->FilePath : QString();
  }
}

QString CSourceWindow::GetSelectedTextOrWordUnderCursor() const { return m_pEditor->SelectedTextOrWordUnderCursor(); }

QString CSourceWindow::GetFileNameUnderCursor() const {
  CSourceFile* d = ActiveDocument();
  if (!d) return QString();
  const QPoint c = GetCursorTextPos();
  const QString sLine = d->Text.section(QLatin1Char('\n'), c.y() - 1, c.y() - 1);
  auto IsNameChar = [](QChar ch) {
    return ch.isLetterOrNumber() || ch == QLatin1Char('_') || ch == QLatin1Char('.') || ch == QLatin1Char('/') || ch == QLatin1Char('\\');
  };
  int Start = c.x();
  const int Inc = int(sLine.indexOf(QLatin1String("#include")));
  if (Inc >= 0) {
    Start = Inc + 8;
    while (Start < sLine.size() && (sLine[Start] == QLatin1Char(' ') || sLine[Start] == QLatin1Char('\t') ||
                                    sLine[Start] == QLatin1Char('"') || sLine[Start] == QLatin1Char('<')))
      ++Start;
  }
  if (Start < 0 || Start > sLine.size()) return QString();
  int b = Start, e = Start;
  while (b > 0 && IsNameChar(sLine[b - 1])) --b;
  while (e < sLine.size() && IsNameChar(sLine[e])) ++e;
  return sLine.mid(b, e - b);
}

int CSourceWindow::GetFileCount() const { return m_pTabs->count(); }

QStringList CSourceWindow::GetFilePaths() const {
  QStringList l;
  for (int i = 0; i < m_pTabs->count(); ++i)
    if (CSourceFile* d = const_cast<CSourceDocuments&>(m_Docs).Get(m_pTabs->tabData(i).toUInt())) l << d->FilePath;
  return l;
}

QString CSourceWindow::GetDocText(const QString& sFilePathOrName) {
  StoreViewState();
  CSourceFile* d = m_Docs.Find(sFilePathOrName);
  return d ? d->Text : QString();
}

QString CSourceWindow::CursorLocationText() const {
  CSourceFile* d = ActiveDocument();
  if (!d || !d->Exists || !d->InProgram) return QString();
  return CBreakpointsDataModel::Instance().Prog().LocText(CSrcLoc(d->FileNo, U32(GetCursorTextPos().y())));
}

// ---------------------------------------------------------------- expansion

void CSourceWindow::SetLineExpanded(int DocLine, bool Expanded) {
  if (!m_HasActive || DocLine < 1) return;
  m_pEditor->SetExpanded(DocLine, Expanded);
  RefreshRowAddrs();
}

void CSourceWindow::ExpandAll() {
  m_pEditor->ExpandAll();
  RefreshRowAddrs();
}

void CSourceWindow::CollapseAll() {
  m_pEditor->CollapseAll();
  RefreshRowAddrs();
}

void CSourceWindow::ExpandPcLine() {
  if (m_HasPC && m_HasActive && m_PcLoc.file == m_ActiveFileNo) SetLineExpanded(int(m_PcLoc.line), true);
}

void CSourceWindow::SetAutoExpandPcLine(bool Enabled) {
  m_AutoExpandPcLine = Enabled;
  if (Enabled) ExpandPcLine();
}

// ---------------------------------------------------------------- clicks and actions

void CSourceWindow::OnSidebarClicked(int Row, int Button) {
  if (!m_HasActive || Row < 0 || Row >= m_pEditor->RowCount()) return;
  const U64 Addr = m_pEditor->RowAddr(Row);
  if (Addr == ~0ull) return;
  const bool Source = m_pEditor->RowKind(Row) == 1;
  if (Source) emit SrcLocSelected(LocOfRow(Row), 0);
  else emit InstSelected(I64(Addr));
  if (Button == Qt::RightButton) return;
  CBreakpointsDataModel& Bps = CBreakpointsDataModel::Instance();
  const QString sAddr = Hex8(Addr);
  if (!Source) {
    const CBreakpointInfo* b = Bps.FindAddr(Addr);
    if (b && b->Derived) RunLogged(b->State == BP_STATE_DISABLED ? AID_BREAK_ENABLE : AID_BREAK_DISABLE, {sAddr});
    else RunLogged(b ? AID_BREAK_CLEAR : AID_BREAK_SET, {sAddr});
    m_pSideBar->update();
    return;
  }
  const CSrcLoc Loc = LocOfRow(Row);
  const QString sLoc = Bps.Prog().LocText(Loc);
  RunLogged(Bps.FindSource(Loc) ? AID_BREAK_CLEAR_ON_SRC : AID_BREAK_SET_ON_SRC, {sLoc});
  m_pSideBar->update();
  UpdateCursorActions();
}

void CSourceWindow::ToggleBreakpointAtCursor() {
  if (!m_HasActive) return;
  const int Row = m_pEditor->RowOfDocLine(GetCursorTextPos().y());
  // F9 acts like a click on the cursor row's mark.
  OnSidebarClicked(Row, Qt::LeftButton);
}

void CSourceWindow::OnEditorClicked(QPoint TextPos, int Button) {
  Q_UNUSED(TextPos);
  const QString sWord = GetSelectedTextOrWordUnderCursor();
  // The word is the argument of the actions that act on one.
  for (int Id : {AID_VIEW_SOURCE, AID_VIEW_DATA, AID_VIEW_MEMORY_MAP})
    if (QAction* a = GetActionDesc(Id)->Action) a->setData(sWord.isEmpty() ? QVariant() : QVariant(QStringList{sWord}));
  if (Button == Qt::RightButton) UpdateCursorActions();
}

void CSourceWindow::UpdateCursorActions() {
  const bool Connected = IsConnected();
  const bool HasLoc = !CursorLocationText().isEmpty();
  if (m_pRunToCursor) m_pRunToCursor->setEnabled(Connected && HasLoc);
  if (m_pSetNextStmnt) m_pSetNextStmnt->setEnabled(Connected && HasLoc && m_HasPC);
  bool HasBp = false, HasCode = false;
  if (m_HasActive) {
    const int Row = m_pEditor->RowOfDocLine(GetCursorTextPos().y());
    HasCode = Row >= 0 && m_pEditor->RowAddr(Row) != ~0ull;
    HasBp = HasCode && CBreakpointsDataModel::Instance().FindSource(LocOfRow(Row));
  }
  if (QAction* a = findChild<QAction*>(QStringLiteral("actionBPSet"))) a->setEnabled(HasCode && !HasBp), a->setVisible(!HasBp);
  if (QAction* a = findChild<QAction*>(QStringLiteral("actionBPClear"))) a->setEnabled(HasBp), a->setVisible(HasBp);
}

void CSourceWindow::OnCallSiteSelected(int Frame) {
  CCallStack* s = CCallStack::InstanceIfCreated();
  if (!s || !m_HasPC) return;
  const CSrcLoc Loc = s->FrameSrcLoc(Frame);
  if (Loc.IsNull() || !SelectLocation(Loc, false)) return;
  m_pEditor->SetBacktraceMode(Frame > 0);
}

void CSourceWindow::RunToCursor() {
  const QString sLoc = CursorLocationText();
  if (!sLoc.isEmpty()) RunLogged(AID_DEBUG_RUN_TO, {sLoc});
}

void CSourceWindow::SetNextStatement() {
  const QString sLoc = CursorLocationText();
  if (!sLoc.isEmpty()) RunLogged(AID_DEBUG_SET_NEXT_STATEMENT, {sLoc});
}

void CSourceWindow::FillContextMenu(QMenu* pMenu) {
  UpdateCursorActions();
  for (const char* s : {"actionBPSet", "actionBPClear"})
    if (QAction* a = findChild<QAction*>(QLatin1String(s)); a && a->isVisible()) pMenu->addAction(a);
  pMenu->addSeparator();
  pMenu->addAction(m_pRunToCursor);
  pMenu->addAction(m_pSetNextStmnt);
  pMenu->addSeparator();
  const int Line = GetCursorTextPos().y();
  pMenu->addAction(m_pEditor->IsExpanded(Line) ? m_pCollapseLine : m_pExpandLine);
  for (const char* s : {"actionSrcExpandAllLines", "actionSrcCollapseAllLines"})
    if (QAction* a = findChild<QAction*>(QLatin1String(s))) pMenu->addAction(a);
  const QString sFile = GetFileNameUnderCursor();
  if (QAction* a = GetActionDesc(AID_SOURCE_OPEN_INCLUDE_FILE)->Action; a && !sFile.isEmpty() &&
                                                                      GetActionDesc(AID_SOURCE_OPEN_INCLUDE_FILE)) {
    pMenu->addSeparator();
    a->setText(QStringLiteral("Open ") + sFile);
    a->setData(QStringList{sFile});
    pMenu->addAction(a);
  }
}

void CSourceWindow::OnSymbolTooltip(QPoint GlobalPos, const QString& sName) {
  if (sName.isEmpty() || !m_HasPC) return;
  std::shared_ptr<CSymbol> p = EvaluateSymbol(sName);
  if (!p || !p->HasValue()) return;
  QToolTip::showText(GlobalPos, sName + QStringLiteral(" = ") + p->GetValueText(), m_pEditor);
  emit SymbolTooltipRequest(GlobalPos, sName);
}

void CSourceWindow::SetPreference(int SysVarID, I64 Value) {
  m_pEditor->SetPreference(SysVarID, int(Value));
  m_pSideBar->SetPreference(SysVarID, int(Value));
  if (SysVarID == PREF_LOCK_HEADER_BAR) SetHeaderBarLocked(Value != 0);
}
