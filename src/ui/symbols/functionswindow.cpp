#include "ui/symbols/functionswindow.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/bptypes.h"
#include "device/device.h"
#include "disasm/instcache.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/line_tables.h"
#include "elf/dwarf/source_queries.h"
#include "elf/elfapi.h"
#include "elf/symbol/symbol.h"
#include "log/log.h"
#include "settings/ids.h"
#include "settings/sysvars.h"
#include "stack/callstack.h"
#include "ui/framework/tableview.h"

#include <QAction>
#include <QApplication>
#include <QComboBox>
#include <QCompleter>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLineEdit>
#include <QMenu>
#include <QStringListModel>
#include <QThread>

namespace {

constexpr U32 kAtAbstractOrigin = 0x31;
constexpr U32 kAtDeclFile = 0x3a;
constexpr quintptr kTopMark = quintptr(1) << 62;

bool LocValid(const CSrcLoc& l) { return !l.IsNull(); }

// Name of the nearest enclosing structure, class, enumeration or union.
QString ClassNameOf(ELF_SYM_HANDLE h) {
  if (!ELF_IsDieHandle(h)) return QString();
  ELF_SYM_HANDLE d = ELF_GetDeclaration(h);
  if (!d) d = ELF_GetRefAttr(h, kAtAbstractOrigin);
  if (!d) d = h;
  int Guard = 0;
  for (ELF_SYM_HANDLE p = ELF_GetParent(d); p && Guard < 1000; p = ELF_GetParent(p), ++Guard) {
    const U32 t = ELF_GetTag(p);
    if (t == ELF_TAG_STRUCT || t == ELF_TAG_CLASS || t == ELF_TAG_ENUM || t == ELF_TAG_UNION)
      return QString::fromUtf8(ELF_GetName(p));
    if (t == ELF_TAG_COMPILE_UNIT) break;
  }
  return QString();
}

QString DeclFileText(ELF_SYM_HANDLE h) {
  if (!ELF_IsDieHandle(h)) return QString();
  bool Found = false;
  const U64 n = ELF_GetAttrValue(h, kAtDeclFile, &Found);
  ELF_FILE* f = CElfApi::Instance().GetFile();
  QString s;
  if (Found && f && n > 0 && int(n) <= ELF_GetNumSourceFiles(f)) s = QString::fromUtf8(ELF_GetSourceFile(f, int(n) - 1));
  if (s.isEmpty()) s = QString::fromUtf8(ELF_GetName(ELF_GetUnitRoot(h)));
  return s.left(511);
}

bool IsFunctionLike(ELF_SYM_HANDLE h) {
  if (!ELF_IsDieHandle(h)) {
    const int t = ELF_GetSymbolType(h);
    return t == 2 || t == 13;
  }
  const U32 t = ELF_GetTag(h);
  return t == ELF_TAG_SUBPROGRAM || t == ELF_TAG_INLINED || t == ELF_TAG_SUBROUTINE_TYPE;
}

ELF_SYM_HANDLE OriginOf(ELF_SYM_HANDLE h) {
  if (!ELF_IsDieHandle(h)) return h;
  const ELF_SYM_HANDLE o = ELF_GetRefAttr(h, kAtAbstractOrigin);
  return o ? o : h;
}

}  // namespace

// ---------------------------------------------------------------- items

FUNC_ITEM CFunctionsDataModel::MakeItem(ELF_SYM_HANDLE h, bool CountInstructions) {
  FUNC_ITEM it;
  if (!h) return it;
  const CLineTables& T = DWARF_GetProgramTables();
  it.hSym = h;
  it.isInlined = ELF_IsDieHandle(h) && ELF_GetTag(h) == ELF_TAG_INLINED;
  it.name = QString::fromUtf8(ELF_GetName(it.isInlined ? OriginOf(h) : h));
  const CAddrRange r = T.GetSymbolRange(h);
  it.address = U32(r.start);
  it.size = r.size;
  if (CountInstructions && IsFunctionLike(h) && it.size && U64(it.address) + it.size <= 0xFFFFFFFFull &&
      QThread::currentThread() == qApp->thread())
    it.instCount = U32(qMax(0, CountInsts(it.address, U64(it.address) + it.size)));
  if (!it.isInlined) {
    it.srcLoc = ELF_IsDieHandle(h) ? DWARF_GetDeclLoc(T, h) : CSrcLoc();
    if (!LocValid(it.srcLoc) && it.size) it.srcLoc = T.GetSrcLoc(it.address);
  } else {
    if (!it.size) return FUNC_ITEM();
    it.srcLoc = DWARF_GetCallLoc(T, h);
    if (!LocValid(it.srcLoc) && T.HasCode(it.address)) it.srcLoc = T.GetLastSrcLoc(it.address);
  }
  it.fileName = LocValid(it.srcLoc) ? T.GetFileName(it.srcLoc.file) : QFileInfo(DeclFileText(h)).fileName();
  if (!LocValid(it.srcLoc) && it.fileName.isEmpty()) it.fileName = DeclFileText(h);
  if (!it.isInlined && ELF_IsDieHandle(h)) {
    for (ELF_SYM_HANDLE i : T.GetInlineExpansions(OriginOf(h))) {
      FUNC_ITEM c = MakeItem(i, CountInstructions);
      if (!c.address || !c.size) continue;
      bool Dup = false;
      for (const FUNC_ITEM* o : it.instances) Dup |= o->hSym == c.hSym || (o->address == c.address && o->size == c.size);
      if (Dup) continue;
      c.rowIndex = int(it.instances.size());
      it.instances << new FUNC_ITEM(c);
    }
    if (!it.instances.isEmpty()) it.instCount = it.instances.first()->instCount;
  }
  it.className = ClassNameOf(h);
  return it;
}

CFunctionsDataModel::CFunctionsDataModel(QObject* pParent) : CTableModel(pParent) {
  setObjectName(QStringLiteral("FunctionsDataModel"));
  SetColumns({QStringLiteral("Name"), QStringLiteral("Address"), QStringLiteral("Size"), QStringLiteral("#Insts"),
              QStringLiteral("Class"), QStringLiteral("Source")});
  const int Kinds[FUNC_COL_COUNT] = {1, 8, 16, 16, 1, 1};
  for (int c = 0; c < FUNC_COL_COUNT; ++c) SetColumnFilterKind(c, Kinds[c]);
}

CFunctionsDataModel::~CFunctionsDataModel() = default;

int CFunctionsDataModel::Build(bool CountInstructions) {
  beginResetModel();
  m_Items.clear();
  m_Children.clear();
  QHash<QString, FUNC_ITEM*> ByName;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    const std::vector<ELF_SYM_HANDLE> List = DWARF_GetProgramTables().GetFunctionList();
    for (ELF_SYM_HANDLE h : List) {
      if (QString::fromUtf8(ELF_GetName(h)).trimmed().isEmpty()) continue;
      FUNC_ITEM it = MakeItem(h, CountInstructions);
      if (!it.instances.isEmpty()) {
        if (FUNC_ITEM* t = ByName.value(it.name)) {
          for (FUNC_ITEM* c : it.instances) {
            c->rowIndex = int(t->instances.size());
            t->instances << c;
          }
          continue;
        }
      }
      m_Items.push_back(std::make_unique<FUNC_ITEM>(std::move(it)));
      if (!ByName.contains(m_Items.back()->name)) ByName.insert(m_Items.back()->name, m_Items.back().get());
    }
  }
  for (size_t r = 0; r < m_Items.size(); ++r) {
    FUNC_ITEM* t = m_Items[r].get();
    t->rowIndex = int(r);
    for (int i = 0; i < t->instances.size(); ++i) {
      t->instances[i]->parent = t;
      t->instances[i]->rowIndex = i;
      m_Children.emplace_back(t->instances[i]);
    }
  }
  ForgetAllRoles();
  endResetModel();
  return TopCount();
}

FUNC_ITEM* CFunctionsDataModel::ItemOf(const QModelIndex& Index) const {
  if (!Index.isValid() || Index.model() != this) return nullptr;
  const quintptr Id = Index.internalId();
  if (Id & kTopMark) return Top(int(Id & ~kTopMark));
  FUNC_ITEM* p = Top(int(Id));
  return p && Index.row() < p->instances.size() ? p->instances[Index.row()] : nullptr;
}

QModelIndex CFunctionsDataModel::IndexOfItem(const FUNC_ITEM* p, int Col) const {
  if (!p) return QModelIndex();
  if (!p->parent) return createIndex(p->rowIndex, Col, kTopMark | quintptr(p->rowIndex));
  return createIndex(p->rowIndex, Col, quintptr(p->parent->rowIndex));
}

U64 CFunctionsDataModel::RowIdOf(const QModelIndex& Index) const {
  const FUNC_ITEM* p = ItemOf(Index);
  if (!p) return 0;
  return p->parent ? (U64(p->parent->rowIndex + 1) << 20) + U64(p->rowIndex) + 1 : U64(p->rowIndex + 1);
}

QModelIndex CFunctionsDataModel::index(int Row, int Column, const QModelIndex& Parent) const {
  if (Row < 0 || Column < 0 || Column >= FUNC_COL_COUNT) return QModelIndex();
  if (!Parent.isValid()) return Row < TopCount() ? createIndex(Row, Column, kTopMark | quintptr(Row)) : QModelIndex();
  const FUNC_ITEM* p = ItemOf(Parent);
  if (!p || p->parent || Row >= p->instances.size()) return QModelIndex();
  return createIndex(Row, Column, quintptr(p->rowIndex));
}

QModelIndex CFunctionsDataModel::parent(const QModelIndex& Child) const {
  const FUNC_ITEM* p = ItemOf(Child);
  return p && p->parent ? IndexOfItem(p->parent) : QModelIndex();
}

int CFunctionsDataModel::rowCount(const QModelIndex& Parent) const {
  if (!Parent.isValid()) return TopCount();
  const FUNC_ITEM* p = Parent.column() == 0 ? ItemOf(Parent) : nullptr;
  return p && !p->parent ? int(p->instances.size()) : 0;
}

QString CFunctionsDataModel::NameText(const FUNC_ITEM* p) const {
  QString s = m_ClassNames && !p->className.isEmpty() ? p->className + QStringLiteral("::") + p->name : p->name;
  return p->parent ? QStringLiteral("inlined in:  ") + s : s;
}

QVariant CFunctionsDataModel::data(const QModelIndex& Index, int Role) const {
  const FUNC_ITEM* p = ItemOf(Index);
  if (!p) return QVariant();
  if (Role == Qt::DisplayRole || Role == Qt::EditRole) {
    switch (Index.column()) {
      case FUNC_COL_NAME: return NameText(p);
      case FUNC_COL_ADDRESS: return p->size ? QStringLiteral("%1").arg(p->address, 8, 16, QLatin1Char('0')).toUpper() : QString();
      case FUNC_COL_SIZE: return QString::number(p->size);
      case FUNC_COL_INSTS: return QString::number(p->instCount);
      case FUNC_COL_CLASS: return p->className;
      case FUNC_COL_SOURCE: return LocValid(p->srcLoc) ? STACK_SrcLocText(p->srcLoc) : p->fileName;
      default: return QVariant();
    }
  }
  if (Role == ROLE_SORT_KEY) {
    switch (Index.column()) {
      case FUNC_COL_ADDRESS: return p->address;
      case FUNC_COL_SIZE: return p->size;
      case FUNC_COL_INSTS: return p->instCount;
      default: return data(Index, Qt::DisplayRole);
    }
  }
  if (Role == ROLE_ROW_ID) return QVariant::fromValue<qulonglong>(RowIdOf(Index));
  if (Role == Qt::BackgroundRole || Role == Qt::ForegroundRole || Role == Qt::FontRole) return CTableModel::data(Index, Role);
  return QVariant();
}

int CFunctionsDataModel::UpdateBreakpointMarks() {
  for (auto& t : m_Items) {
    t->hasBreakpoint = 0;
    for (FUNC_ITEM* c : t->instances) c->hasBreakpoint = 0;
  }
  int Marked = 0;
  CDevice* d = CDevice::InstanceIfCreated();
  for (int i = 0; d && i < DEVICE_MAX_BPS; ++i) {
    const DEVICE_BP& b = d->BpEntry(i);
    if (!b.Occupied || !b.Addr || b.State != BP_STATE_ON) continue;
    ELF_SYM_HANDLE h = 0;
    {
      QMutexLocker Lock(&CElfApi::Instance().Mutex());
      const CLineTables& T = DWARF_GetProgramTables();
      for (ELF_SYM_HANDLE f : T.GetFunctionHandles(b.Addr))
        if (ELF_IsDieHandle(f) && ELF_GetTag(f) == ELF_TAG_INLINED) h = f;
      if (!h) h = T.GetFunction(b.Addr, true);
    }
    for (auto& t : m_Items) {
      FUNC_ITEM* Hit = t->hSym == h ? t.get() : nullptr;
      for (FUNC_ITEM* c : t->instances)
        if (!Hit && c->hSym == h) Hit = c;
      if (!Hit) continue;
      Hit->hasBreakpoint = 1;
      if (Hit->parent) Hit->parent->hasBreakpoint = 1;
      ++Marked;
      break;
    }
  }
  if (TopCount()) emit dataChanged(index(0, 0), index(TopCount() - 1, FUNC_COL_COUNT - 1));
  return Marked;
}

void CFunctionsDataModel::SetDisplayClassNames(bool On) {
  m_ClassNames = On;
  if (TopCount()) emit dataChanged(index(0, 0), index(TopCount() - 1, FUNC_COL_COUNT - 1));
}

QStringList CFunctionsDataModel::GetFuncNames(bool PrependClassNames) const {
  QMap<QString, QString> ByLower;
  for (const auto& t : m_Items) {
    const QString s = PrependClassNames && !t->className.isEmpty() ? t->className + QStringLiteral("::") + t->name : t->name;
    ByLower.insert(s.toLower(), s);
  }
  return ByLower.values();
}

// ---------------------------------------------------------------- window

CFunctionsWindow::CFunctionsWindow(QWidget* pParent) : CModelViewWindow(pParent) {
  setObjectName(QStringLiteral("FunctionsWindow"));
  setWindowTitle(GetDisplayName());
  SetFlag(WINDOW_FLAG_CLEAR_WHEN_HIDDEN, false);
  m_pFuncModel = new CFunctionsDataModel(this);
  SetModel(m_pFuncModel);
  m_pActionSetBP = new QAction(QStringLiteral("Set Breakpoint"), this);
  m_pActionSetBP->setObjectName(QStringLiteral("actionFuncSetBP"));
  m_pActionSetBP->setShortcut(QKeySequence(Qt::Key_F9));
  m_pActionSetBP->setShortcutContext(Qt::WidgetWithChildrenShortcut);
  m_pActionClearBP = new QAction(QStringLiteral("Clear Breakpoint(s)"), this);
  m_pActionClearBP->setObjectName(QStringLiteral("actionFuncClearAllBP"));
  m_pActionClearBP->setShortcut(QKeySequence(Qt::Key_F9));
  m_pActionClearBP->setShortcutContext(Qt::WidgetWithChildrenShortcut);
  addAction(m_pActionSetBP);
  addAction(m_pActionClearBP);
  connect(m_pActionSetBP, &QAction::triggered, this, &CFunctionsWindow::OnActionSetBpTriggered);
  connect(m_pActionClearBP, &QAction::triggered, this, &CFunctionsWindow::OnActionClearAllBpTriggered);
  m_pFuncModel->SetDisplayClassNames(SysVars::GetValue(PREF_PREPEND_FUNC_CLASS_NAMES) != 0);
  Init();
}

void CFunctionsWindow::Init() {
  QElapsedTimer t;
  t.start();
  m_pFuncModel->Build(true);
  m_Identity = SYM_GetProgramIdentity();
  m_pFuncModel->UpdateBreakpointMarks();
  const qint64 Us = t.nsecsElapsed() / 1000;
  LogMessage(QStringLiteral("Function window initialized in %1:%2 ms").arg(Us / 1000).arg(Us % 1000, 3, 10, QLatin1Char('0')),
             MSG_INFO | MSG_STDOUT);
  UpdateActions();
  emit ContentChanged();
  emit Initialized();
}

void CFunctionsWindow::SetPreference(int SysVarID, I64 Value) {
  CModelViewWindow::SetPreference(SysVarID, Value);
  if (SysVarID == PREF_PREPEND_FUNC_CLASS_NAMES) SetDisplayClassNames(Value != 0);
}

void CFunctionsWindow::SetDisplayClassNames(bool Enabled) {
  m_pFuncModel->SetDisplayClassNames(Enabled);
  if (Proxy()->sortColumn() >= 0) Proxy()->sort(Proxy()->sortColumn(), Proxy()->sortOrder());
}

FUNC_ITEM* CFunctionsWindow::GetFuncInfo(QModelIndex Index) const { return m_pFuncModel->ItemOf(ToSource(Index)); }
FUNC_ITEM* CFunctionsWindow::Current() const { return GetFuncInfo(View()->currentIndex()); }

void CFunctionsWindow::UpdateActions() {
  CModelViewWindow::UpdateActions();
  if (!m_pActionSetBP) return;  // during construction
  const FUNC_ITEM* p = Current();
  const bool HasCode = p && (p->size || !p->instances.isEmpty());
  m_pActionSetBP->setVisible(HasCode && !p->hasBreakpoint);
  m_pActionSetBP->setEnabled(HasCode && !p->hasBreakpoint);
  m_pActionClearBP->setVisible(HasCode && p->hasBreakpoint);
  m_pActionClearBP->setEnabled(HasCode && p->hasBreakpoint);
}

void CFunctionsWindow::OnItemClicked(QModelIndex Index) {
  const FUNC_ITEM* p = GetFuncInfo(Index);
  UpdateActions();
  emit FuncSelected(p ? p->hSym : 0);
}

void CFunctionsWindow::OnItemDoubleClicked(QModelIndex Index) {
  if (GetFuncInfo(Index)) OnActionViewSourceTriggered();
}

void CFunctionsWindow::OnActionViewSourceTriggered() {
  const FUNC_ITEM* p = Current();
  if (!p) return;
  const QString sArg = QStringLiteral("0x%1").arg(p->address, 8, 16, QLatin1Char('0')).toUpper().replace("0X", "0x");
  if (IsCommandEnabled(AID_VIEW_SOURCE) && GetCommandSlot(AID_VIEW_SOURCE)) ExecAction(AID_VIEW_SOURCE, sArg);
  else ExecAction(AID_VIEW_DISASSEMBLY, sArg);
}

void CFunctionsWindow::OnActionSetBpTriggered() {
  const FUNC_ITEM* p = Current();
  if (!p) return;
  CSrcLoc Loc;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    Loc = DWARF_GetProgramTables().GetSrcLoc(p->address);
  }
  if (!LocValid(Loc)) Loc = p->srcLoc;
  const QString sAddr = QStringLiteral("0x%1").arg(p->address, 8, 16, QLatin1Char('0')).toUpper().replace("0X", "0x");
  if (p->parent || !LocValid(Loc)) ExecAction(AID_BREAK_SET, sAddr);
  else ExecAction(AID_BREAK_SET_ON_SRC, STACK_SrcLocText(Loc));
}

void CFunctionsWindow::OnActionClearAllBpTriggered() {
  const FUNC_ITEM* p = Current();
  CDevice* d = CDevice::InstanceIfCreated();
  if (!p || !d) return;
  auto In = [](const FUNC_ITEM* f, U32 a) { return f->address <= a && U64(a) < U64(f->address) + f->size; };
  QList<U32> Hits;
  for (int i = 0; i < DEVICE_MAX_BPS; ++i) {
    const DEVICE_BP& b = d->BpEntry(i);
    if (!b.Occupied || !b.Addr) continue;
    bool Hit = In(p, b.Addr);
    for (const FUNC_ITEM* c : p->instances) Hit |= In(c, b.Addr);
    if (Hit) Hits << b.Addr;
  }
  for (U32 a : Hits)
    ExecAction(AID_BREAK_CLEAR, QStringLiteral("0x%1").arg(a, 8, 16, QLatin1Char('0')).toUpper().replace("0X", "0x"));
}

void CFunctionsWindow::OnDeviceBPStateChanged() {
  m_pFuncModel->UpdateBreakpointMarks();
  UpdateActions();
}

void CFunctionsWindow::FillContextMenu(QMenu* pMenu) {
  if (Current()) {
    UpdateActions();
    pMenu->addAction(m_pActionClearBP);
    pMenu->addAction(m_pActionSetBP);
    pMenu->addSeparator();
    QAction* pView = pMenu->addAction(QStringLiteral("View Source"));
    connect(pView, &QAction::triggered, this, &CFunctionsWindow::OnActionViewSourceTriggered);
    pMenu->addSeparator();
  }
  CModelViewWindow::FillContextMenu(pMenu);
}

// ---------------------------------------------------------------- find pop-up

void CCompletionModel::SetText(const QString& s) {
  m_sText = s;
  invalidate();
  sort(0);
}

bool CCompletionModel::filterAcceptsRow(int SourceRow, const QModelIndex& SourceParent) const {
  if (m_sText.isEmpty()) return true;
  return sourceModel()->index(SourceRow, 0, SourceParent).data().toString().contains(m_sText, Qt::CaseInsensitive);
}

bool CCompletionModel::lessThan(const QModelIndex& Left, const QModelIndex& Right) const {
  const QString l = Left.data().toString(), r = Right.data().toString();
  const int a = l.indexOf(m_sText, 0, Qt::CaseInsensitive), b = r.indexOf(m_sText, 0, Qt::CaseInsensitive);
  if (a != b) return a < b;
  return l.compare(r, Qt::CaseInsensitive) < 0;
}

void CFindSymbolWidget::Names(int Mode, QStringList* pNames, QList<ELF_SYM_HANDLE>* pHandles) {
  QMap<QString, QPair<QString, ELF_SYM_HANDLE>> ByLower;
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  const CLineTables& T = DWARF_GetProgramTables();
  const std::vector<ELF_SYM_HANDLE>& List = Mode == 0 ? T.GetFunctionList() : T.GetGlobalVariableList();
  for (ELF_SYM_HANDLE h : List) {
    const QString s = QString::fromUtf8(ELF_GetName(h));
    if (!s.trimmed().isEmpty()) ByLower.insert(s.toLower(), {s, h});
  }
  for (const auto& v : ByLower) {
    *pNames << v.first;
    *pHandles << v.second;
  }
}

int CFindSymbolWidget::ShowSymbol(int Mode, const QString& sName) {
  QStringList Names;
  QList<ELF_SYM_HANDLE> Handles;
  CFindSymbolWidget::Names(Mode, &Names, &Handles);
  const int i = int(Names.indexOf(sName));
  if (i < 0) return -1;
  CSrcLoc Loc;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    Loc = DWARF_GetSymbolLoc(DWARF_GetProgramTables(), Handles[i]);
  }
  ExecAction(LocValid(Loc) ? AID_VIEW_SOURCE : AID_VIEW_DISASSEMBLY, sName);
  return 0;
}

CFindSymbolWidget::CFindSymbolWidget(int Mode, QWidget* pParent) : QDialog(pParent, Qt::Popup), m_Mode(Mode) {
  setAttribute(Qt::WA_DeleteOnClose);
  setWindowIcon(QIcon(Mode == 0 ? QStringLiteral(":/Resources/function-single.png") : QStringLiteral(":/Resources/omega.png")));
  m_pCombo = new QComboBox(this);
  m_pCombo->setEditable(true);
  m_pCombo->setInsertPolicy(QComboBox::NoInsert);
  m_pCombo->setMinimumWidth(300);
  auto* pLayout = new QHBoxLayout(this);
  pLayout->setContentsMargins(2, 2, 2, 2);
  pLayout->addWidget(m_pCombo);
  QStringList Names;
  CFindSymbolWidget::Names(Mode, &Names, &m_Handles);
  m_pCombo->addItems(Names);
  m_pCombo->setCurrentIndex(-1);
  m_pNames = new QStringListModel(Names, this);
  m_pCompletion = new CCompletionModel(this);
  m_pCompletion->setSourceModel(m_pNames);
  m_pCompleter = new QCompleter(m_pCompletion, this);
  m_pCompleter->setCompletionMode(QCompleter::UnfilteredPopupCompletion);
  m_pCombo->setCompleter(m_pCompleter);
  connect(m_pCombo->lineEdit(), &QLineEdit::textEdited, m_pCompletion, &CCompletionModel::SetText);
  connect(m_pCombo->lineEdit(), &QLineEdit::returnPressed, this, &CFindSymbolWidget::OnTextEntered);
  connect(m_pCombo, qOverload<int>(&QComboBox::activated), this, &CFindSymbolWidget::OnComboBoxItemActivated);
  connect(m_pCompleter, qOverload<const QString&>(&QCompleter::activated), this, &CFindSymbolWidget::OnCompleterItemActivated);
}

void CFindSymbolWidget::showEvent(QShowEvent* pEvent) {
  QDialog::showEvent(pEvent);
  if (QWidget* p = parentWidget()) {
    const QPoint TopRight = p->mapToGlobal(p->rect().topRight());
    move(TopRight.x() - width() - 2, TopRight.y() + 1);
  }
  m_pCombo->setFocus();
}

void CFindSymbolWidget::AcceptIndex(int Index) {
  if (Index >= 0 && Index < m_Handles.size()) ShowSymbol(m_Mode, m_pCombo->itemText(Index));
  close();
}

void CFindSymbolWidget::OnTextEntered() {
  int i = m_pCombo->findText(m_pCombo->currentText(), Qt::MatchExactly);
  if (i < 0 && m_pCompletion->rowCount() > 0) i = m_pCombo->findText(m_pCompletion->index(0, 0).data().toString());
  AcceptIndex(i);
}

void CFindSymbolWidget::OnComboBoxItemActivated(int Index) { AcceptIndex(Index); }

void CFindSymbolWidget::OnCompleterItemActivated(QString Index) {
  const int i = m_pCombo->findText(Index, Qt::MatchExactly);
  if (i >= 0) AcceptIndex(i);
  else reject();
}
