#include "ui/symbols/framedata.h"

#include "device/device.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "log/log.h"
#include "stack/callstack.h"

#include <QElapsedTimer>
#include <QSet>
#include <algorithm>
#include <memory>

namespace {

QString MsText(const QElapsedTimer& t) {
  const qint64 Us = t.nsecsElapsed() / 1000;
  return QStringLiteral("%1:%2 ms").arg(Us / 1000).arg(Us % 1000, 3, 10, QLatin1Char('0'));
}

// The PC that a frame's location lists are read at. A function and the
// inlined calls in it share one place: the PC of the innermost of them (the
// frame of the function itself stands at the end of the inlined call). A
// caller's return address may lie behind the range of the call, so the
// call's last byte stands for it.
U64 LookupPc(int Frame, U64 Pc) {
  CCallStack& s = CCallStack::Instance();
  while (Frame > 0) {
    const CCallFrame Callee = s.GetFrame(Frame - 1);
    if (!Callee.IsValid() || !Callee.isInline) break;
    --Frame;
    U64 v = 0;
    if (s.GetRegister(Callee, s.Facts().pcRegister, v)) Pc = v;
  }
  return Frame > 0 && Pc ? Pc - 1 : Pc;
}

// Where a local lies in one frame; empty where it has no location (the
// variable is optimised out there).
SYM_LOC FrameLocation(CSymbol& s, const CCallFrame& F, U64 Pc) {
  if (!s.handle || !ELF_IsDieHandle(s.handle) || !s.IsLocal()) return s.GetLocation(F);
  ELF_SYM_LOC e = SYM_GetLocalLocation(s.handle, U32(Pc));
  if (!e.count) return SYM_LOC();
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    ResolveLocation(F, e);
  }
  const SYM_LOC l = CSymbolsDataModel::UsableLocation(SYM_FromElfLocation(e));
  for (U32 i = 0; i < l.count; ++i)
    if (l.parts[i].kind == SYM_LOC_NONE) return SYM_LOC();
  return F.IsValid() || l.IsResolved() ? l : SYM_LOC();
}

// A root row whose place is that of one frame: its members and pointer
// targets follow from it.
std::unique_ptr<CSymbol> FrameRow(ELF_SYM_HANDLE h, U64 Pc, int Index, const CCallFrame& F, U64 AtPc) {
  auto p = std::make_unique<CSymbol>(h, I64(Pc), Index);
  p->location = FrameLocation(*p, F, AtPc);
  p->isFixedLocation = 1;
  return p;
}

}  // namespace

// ---------------------------------------------------------------- locals

CLocalsDataModel::CLocalsDataModel(QObject* pParent) : CSymbolsDataModel(pParent) {
  setObjectName(QStringLiteral("LocalsDataModel"));
}

CLocalsDataModel& CLocalsDataModel::Instance() {
  static CLocalsDataModel* s_p = new CLocalsDataModel;
  return *s_p;
}

void CLocalsDataModel::Reset() {
  m_Frame = -1;
  m_hFunction = 0;
  m_FramePc = 0;
  m_sFunction.clear();
  ClearRoots();
}

QString CLocalsDataModel::Title() const {
  CDevice* d = CDevice::InstanceIfCreated();
  const bool Halted = d && d->IsConnected() && d->HaltReported();
  return Halted && !m_sFunction.isEmpty() ? QStringLiteral("Local Data @ ") + m_sFunction : QStringLiteral("Local Data");
}

bool CLocalsDataModel::ShowFrame(int Frame) {
  CCallStack& s = CCallStack::Instance();
  if (Frame < 0) Frame = qMax(0, s.SelectedFrame());
  const CCallFrame F = s.GetFrame(Frame);
  if (!F.IsValid()) {
    Reset();
    return false;
  }
  U64 Pc = 0;
  s.GetRegister(F, s.Facts().pcRegister, Pc);
  if (Frame == m_Frame && F.function == m_hFunction && Pc == m_FramePc && RootCount() > 0) {
    // The same place, maybe at another depth: the rows stay, their
    // locations follow this frame.
    SYM_SetCurrentPc(U32(Pc));
    for (int r = 0; r < RootCount(); ++r) {
      CSymbol* p = Root(r);
      if (!p->handle) continue;
      p->location = FrameLocation(*p, F, LookupPc(Frame, Pc));
      p->ClearData();
    }
    InvalidateReads();
    RepaintAll();
    return true;
  }
  Rebuild(Frame);
  return true;
}

void CLocalsDataModel::Rebuild(int Frame) {
  CCallStack& s = CCallStack::Instance();
  const CCallFrame F = s.GetFrame(Frame);
  std::vector<std::unique_ptr<CSymbol>> Rows;
  m_Frame = Frame;
  m_hFunction = F.IsValid() ? F.function : 0;
  m_sFunction = m_hFunction ? QString::fromUtf8(ELF_GetName(m_hFunction)) : QString();
  U64 Pc = 0;
  if (F.IsValid()) s.GetRegister(F, s.Facts().pcRegister, Pc);
  m_FramePc = Pc;
  if (m_hFunction) {
    SYM_SetCurrentPc(U32(Pc));
    ELF_SYM_HANDLE hThis = 0;
    QList<ELF_SYM_HANDLE> Locals;
    {
      QMutexLocker Lock(&CElfApi::Instance().Mutex());
      hThis = ELF_GetObjectPointer(m_hFunction);
      const int n = ELF_GetLocalCount(m_hFunction);
      for (int i = 0; i < n; ++i) Locals << ELF_GetLocal(m_hFunction, i);
    }
    std::unique_ptr<CSymbol> pThis;
    for (int i = 0; i < Locals.size(); ++i) {
      const ELF_SYM_HANDLE h = Locals[i];
      if (!h || h == hThis) continue;
      auto p = FrameRow(h, Pc, i, F, LookupPc(Frame, Pc));
      if (p->GetDisplayName() == QLatin1String("this")) pThis = std::move(p);
      else Rows.push_back(std::move(p));
    }
    if (pThis && pThis->HasLocation()) Rows.push_back(std::move(pThis));
    else if (hThis) Rows.push_back(FrameRow(hThis, Pc, int(Locals.size()), F, LookupPc(Frame, Pc)));
    if (m_AutoMode) {
      int i = 0;
      for (ELF_SYM_HANDLE h : CGlobalsDataModel::GetGlobalVars(m_hFunction))
        Rows.push_back(std::make_unique<CSymbol>(h, I64(Pc), i++));
    }
  }
  SetRoots(std::move(Rows));
}

// ---------------------------------------------------------------- globals

CGlobalsDataModel::CGlobalsDataModel(QObject* pParent) : CSymbolsDataModel(pParent) {
  setObjectName(QStringLiteral("GlobalsDataModel"));
}

CGlobalsDataModel& CGlobalsDataModel::Instance() {
  static CGlobalsDataModel* s_p = new CGlobalsDataModel;
  return *s_p;
}

int CGlobalsDataModel::Init() {
  QElapsedTimer t;
  t.start();
  // One row per place: a variable at an address already taken, or a
  // constant of a name already taken, is left out. The rows are sorted by
  // name; a row's symbol is made when a view first shows it.
  struct ENTRY {
    QString Name;
    ELF_SYM_HANDLE h;
    int Index;
  };
  std::vector<ENTRY> Rows;
  if (ELF_FILE* f = CElfApi::Instance().GetFile()) {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    const int n = ELF_GetListCount(f, ELF_LIST_GLOBALS);
    QSet<U32> SeenAddr;
    QSet<QString> SeenConst;
    for (int i = 0; i < n; ++i) {
      const ELF_SYM_HANDLE h = ELF_GetListItem(f, ELF_LIST_GLOBALS, i);
      const QString sName = QString::fromUtf8(ELF_GetName(h));
      if (!h || sName.isEmpty()) continue;
      U32 a = 0;
      if (!ELF_GetStaticAddress(h, &a)) a = 0;
      if (a > 0) {
        if (SeenAddr.contains(a)) continue;
        SeenAddr.insert(a);
      } else {
        if (SeenConst.contains(sName)) continue;
        SeenConst.insert(sName);
      }
      Rows.push_back({sName, h, i});
    }
  }
  std::stable_sort(Rows.begin(), Rows.end(), [](const ENTRY& x, const ENTRY& y) { return x.Name.compare(y.Name, Qt::CaseInsensitive) < 0; });
  m_Names.clear();
  auto Handles = std::make_shared<std::vector<std::pair<ELF_SYM_HANDLE, int>>>();
  for (const ENTRY& e : Rows) {
    m_Names << e.Name;
    Handles->push_back({e.h, e.Index});
  }
  SetLazyRoots(int(Rows.size()), [Handles](int Row) {
    const auto& [h, i] = (*Handles)[size_t(Row)];
    return std::make_unique<CSymbol>(h, -1, i);
  });
  m_Identity = SYM_GetProgramIdentity();
  m_Built = true;
  LogMessage(QStringLiteral("Globals window initialized in ") + MsText(t), MSG_INFO | MSG_STDOUT);
  return int(Rows.size());
}

QList<ELF_SYM_HANDLE> CGlobalsDataModel::GetGlobalVars(ELF_SYM_HANDLE) { return {}; }
