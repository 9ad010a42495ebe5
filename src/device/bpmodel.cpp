// CBreakpointsDataModel: source breakpoints and their derived addresses, the
// refresh from the device tables, editing, the texts of the window and the
// actions at a stop. The device adapter and the program look-ups that the
// model uses by default stand at the end.
#include "device/bpmodel.h"

#include "device/datamanager.h"
#include "device/device.h"
#include "expr/evaluator.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "elf/symbol/symbol.h"
#include "log/log.h"
#include "settings/ids.h"

#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QMutexLocker>

namespace {

constexpr int MAX_DERIVED = 256;

CBreakpointsDataModel* g_pInstance = nullptr;
BP_LINE_READER g_LineReader;

QString Hex(U64 v) { return QStringLiteral("0x%1").arg(v, 8, 16, QLatin1Char('0')).toUpper().replace(QLatin1String("0X"), QLatin1String("0x")); }

}  // namespace

void BP_SetSourceLineReader(const BP_LINE_READER& Reader) { g_LineReader = Reader; }

void CBreakpointInfo::TakeEditFields(const CBreakpointInfo& o) {
  // Another condition has no value to compare with yet.
  if (Condition != o.Condition || TriggerOnChange != o.TriggerOnChange) LastCondValue = ~0ull;
  Condition = o.Condition;
  TriggerOnChange = o.TriggerOnChange;
  TaskName = o.TaskName;
  SkipCount = o.SkipCount;
  ReloadSkip = o.ReloadSkip;
  ConsoleMsg = o.ConsoleMsg;
  PopupMsg = o.PopupMsg;
  ScriptCallback = o.ScriptCallback;
}

// ---------------------------------------------------------------- the model

CBreakpointsDataModel::CBreakpointsDataModel(IBreakpointDevice* pDevice, IBreakpointProgram* pProgram)
    : m_pDevice(pDevice ? pDevice : &DefaultBreakpointDevice()),
      m_pProgram(pProgram ? pProgram : &DefaultBreakpointProgram()) {}

CBreakpointsDataModel::~CBreakpointsDataModel() {
  if (g_pInstance == this) g_pInstance = nullptr;
}

CBreakpointsDataModel& CBreakpointsDataModel::Instance() {
  if (!g_pInstance) g_pInstance = new CBreakpointsDataModel;  // lives until the process ends
  return *g_pInstance;
}

void CBreakpointsDataModel::SetInstance(CBreakpointsDataModel* p) { g_pInstance = p; }

void CBreakpointsDataModel::Changed() {
  ++m_Generation;
  if (m_Changed) m_Changed();
}

int CBreakpointsDataModel::SetBP(U64 Addr, BP_STATES State, BP_TYPES Type) {
  if (Addr > 0xFFFFFFFFull) return -1;
  if (State != BP_STATE_OFF && State != BP_STATE_ON && State != BP_STATE_DISABLED) return -1;
  return m_pDevice->PostSetBP(U32(Addr), State, Type);
}

int CBreakpointsDataModel::ClearBP(U64 Addr) {
  if (Addr > 0xFFFFFFFFull) return -1;
  return m_pDevice->PostClearBP(U32(Addr));
}

CSrcLoc CBreakpointsDataModel::LandingLoc(const CSrcLoc& Loc) {
  if (Loc.IsNull() || !m_pProgram->LocAddresses(Loc).isEmpty()) return Loc;
  const CSrcLoc Next = m_pProgram->NextLocWithCode(Loc);
  if (Next.IsNull()) return Loc;
  if (Next.file != Loc.file || Next.line != Loc.line)
    LogWarning(QStringLiteral("Cannot set breakpoint on source location ") + m_pProgram->LocText(Loc) +
               QStringLiteral(". Setting breakpoint on next code line ") + m_pProgram->LocText(Next) +
               QStringLiteral(" instead."));
  return CSrcLoc(Next.file, Next.line, Loc.column);
}

int CBreakpointsDataModel::SetSourceBP(const CSrcLoc& Loc, BP_STATES State, BP_TYPES Type) {
  if (Loc.IsNull()) return 0;
  const QList<U32> Addrs = m_pProgram->LocAddresses(Loc);
  if (Addrs.size() > MAX_DERIVED) {
    LogError(QStringLiteral("Cannot set source breakpoint: too many derived breakpoints"));
    return -1;
  }
  CBreakpointInfo& b = m_Src[Loc.Key()];
  b.Loc = Loc;
  b.State = State;
  b.PermittedImpl = Type;
  Changed();
  if (Addrs.isEmpty()) return m_pDevice->PostSetBP(0, BP_STATE_OFF, Type);
  if (State == BP_STATE_MIXED) {
    int r = 0;
    for (U32 a : Addrs) {
      const DEVICE_BP d = m_pDevice->GetBreakpoint(a);
      if (m_pDevice->PostSetBP(a, d.Occupied ? d.State : BP_STATE_ON, Type) < 0) r = -1;
    }
    return r;
  }
  if (Addrs.size() == 1) return m_pDevice->PostSetBP(Addrs[0], State, Type);
  return m_pDevice->PostSetBPs(std::vector<U32>(Addrs.begin(), Addrs.end()), State, Type);
}

int CBreakpointsDataModel::ClearSourceBP(const CSrcLoc& Loc) {
  const QList<U32> Addrs = m_pProgram->LocAddresses(Loc);
  if (Addrs.size() > MAX_DERIVED) {
    LogError(QStringLiteral("Cannot clear source breakpoint: too many derived breakpoints."));
    return -1;
  }
  m_Src.remove(Loc.Key());
  Changed();
  if (Addrs.isEmpty()) return m_pDevice->PostClearBP(0xFFFFFFFFu);
  return m_pDevice->PostClearBPs(std::vector<U32>(Addrs.begin(), Addrs.end()));
}

QList<QPair<QString, CBreakpointInfo>> CBreakpointsDataModel::DetachSourceBPs() {
  QList<QPair<QString, CBreakpointInfo>> List;
  for (const CBreakpointInfo& b : m_Src) List.append({m_pProgram->LocText(b.Loc), b});
  for (const auto& e : List) ClearSourceBP(e.second.Loc);
  return List;
}

void CBreakpointsDataModel::ReattachSourceBPs(const QList<QPair<QString, CBreakpointInfo>>& List) {
  for (const auto& [sLoc, Old] : List) {
    CSrcLoc Loc;
    if (!m_pProgram->ParseLocation(sLoc, &Loc) || Loc.IsNull()) {
      LogWarning(QStringLiteral("Breakpoint at ") + sLoc + QStringLiteral(" removed: the location is not in the reloaded program"));
      continue;
    }
    if (SetSourceBP(Loc, Old.State, Old.PermittedImpl) < 0) continue;
    CBreakpointInfo b = Old;
    b.Loc = Loc;
    Edit(b);
  }
}

void CBreakpointsDataModel::ClearAll() {
  m_Src.clear();
  Changed();
  m_pDevice->PostClearAllBPs();
}

void CBreakpointsDataModel::Forget() {
  m_Src.clear();
  m_Addr.clear();
  m_WPs.clear();
  m_TPs.clear();
  Changed();
  m_pDevice->PostClearAllBPs();
  m_pDevice->PostClearAllWPs();
  m_pDevice->PostClearAllTPs();
}

void CBreakpointsDataModel::SetAllType(BP_TYPES Type) {
  const QList<CBreakpointInfo> Src = m_Src.values();
  for (const CBreakpointInfo& b : Src) SetSourceBP(b.Loc, b.State, Type);
  const QList<CBreakpointInfo> Addr = m_Addr.values();
  for (const CBreakpointInfo& b : Addr)
    if (!b.Derived) SetBP(b.Addr, b.State, Type);
}

void CBreakpointsDataModel::ApplyAll() {
  const QList<CBreakpointInfo> Src = m_Src.values();
  for (const CBreakpointInfo& b : Src) SetSourceBP(b.Loc, b.State, b.PermittedImpl);
  for (const DEVICE_BP& d : m_pDevice->Breakpoints()) {
    const CBreakpointInfo* b = FindAddr(d.Addr);
    if (b && b->Derived) continue;
    m_pDevice->PostSetBP(d.Addr, d.State == BP_STATE_ON_HIDDEN ? BP_STATE_ON : d.State, d.Type);
  }
  const std::vector<WP> Wps = m_pDevice->Watchpoints();
  if (!Wps.empty()) m_pDevice->PostSetWPs(Wps);
  const std::vector<TP> Tps = m_pDevice->Tracepoints();
  if (!Tps.empty()) m_pDevice->PostSetTPs(Tps);
}

bool CBreakpointsDataModel::Edit(const CBreakpointInfo& Info, QString* pError) {
  auto Fail = [&] {
    const QString s = QStringLiteral("cannot edit breakpoint: breakpoint is not set");
    if (pError) *pError = s;
    LogError(s);
    return false;
  };
  auto EditAddr = [&](U64 Addr) {
    auto It = m_Addr.find(Addr);
    if (It == m_Addr.end()) return false;
    It->TakeEditFields(Info);
    m_pDevice->SetBPHasCondition(U32(Addr), It->NeedsEvaluation());
    return true;
  };
  if (Info.IsSource()) {
    auto It = m_Src.find(Info.Loc.Key());
    if (It == m_Src.end()) return Fail();
    It->TakeEditFields(Info);
    for (U32 a : m_pProgram->LocAddresses(Info.Loc)) EditAddr(a);
  } else if (!EditAddr(Info.Addr)) {
    return Fail();
  }
  Changed();
  return true;
}

const CBreakpointInfo* CBreakpointsDataModel::FindAddr(U64 Addr) const {
  auto It = m_Addr.constFind(Addr);
  return It == m_Addr.constEnd() ? nullptr : &*It;
}

const CBreakpointInfo* CBreakpointsDataModel::FindSource(const CSrcLoc& Loc) const {
  auto It = m_Src.constFind(Loc.Key());
  return It == m_Src.constEnd() ? nullptr : &*It;
}

bool CBreakpointsDataModel::IsSetAt(U64 Addr, BP_STATES State) const {
  const CBreakpointInfo* b = FindAddr(Addr);
  return b && b->State == State;
}

bool CBreakpointsDataModel::IsSetAt(const CSrcLoc& Loc, BP_STATES State) const {
  const CBreakpointInfo* b = FindSource(Loc);
  return b && b->State == State;
}

QString CBreakpointsDataModel::LocationText(const CBreakpointInfo& b) {
  return b.IsSource() ? m_pProgram->LocText(b.Loc) : Hex(b.Addr);
}

void CBreakpointsDataModel::Refresh() {
  // 1.-2. The address map anew from the device table, keeping what the user
  // gave each entry.
  QMap<U64, CBreakpointInfo> New;
  int n = 0;
  for (const DEVICE_BP& d : m_pDevice->Breakpoints()) {
    if (d.Addr == 0) continue;
    if (++n > MAX_DERIVED) break;
    CBreakpointInfo b;
    auto Old = m_Addr.constFind(d.Addr);
    if (Old != m_Addr.constEnd()) {
      b = *Old;
    } else {
      b.Addr = d.Addr;
      b.PermittedImpl = d.Type;
      b.Loc = CSrcLoc(0xFFFFFFFFu, 0, 0);
      b.Condition.clear();
      b.TaskName.clear();
    }
    b.State = d.State;
    b.ActualImpl = d.ImplType;
    b.HitCount = d.HitCount;
    b.SourceText = m_pProgram->SourceText(d.Addr);
    New.insert(d.Addr, b);
  }
  m_Addr = New;
  // 3. Source entries from their derived ones; a walk ends at the first
  // difference, the remaining flags follow on the next refresh.
  for (CBreakpointInfo& s : m_Src) {
    bool First = true;
    for (U32 a : m_pProgram->LocAddresses(s.Loc)) {
      auto It = m_Addr.find(a);
      if (It == m_Addr.end()) continue;
      It->Derived = 1;
      if (First) {
        s.State = It->State;
        s.ActualImpl = It->ActualImpl;
        s.HitCount = It->HitCount;
        First = false;
        continue;
      }
      s.HitCount += It->HitCount;
      if (It->State != s.State) {
        s.State = BP_STATE_MIXED;
        break;
      }
      if (It->ActualImpl != s.ActualImpl) {
        s.ActualImpl = BP_TYPE_MIXED;
        break;
      }
    }
    if (s.SourceText.isEmpty()) {
      const QList<U32> a = m_pProgram->LocAddresses(s.Loc);
      if (!a.isEmpty()) s.SourceText = m_pProgram->SourceText(a.first());
    }
  }
  Changed();
}

void CBreakpointsDataModel::OnDeviceWPStateChanged() {
  m_WPs = m_pDevice->Watchpoints();
  Changed();
}

void CBreakpointsDataModel::OnDeviceTPStateChanged() {
  m_TPs = m_pDevice->Tracepoints();
  Changed();
}

void CBreakpointsDataModel::OnDeviceSetWPsDone(U32 Cnt, WP* paWPs) {
  for (U32 i = 0; paWPs && i < Cnt; ++i) {
    const QString s = BP_DataBreakpointError(paWPs[i]);
    if (!s.isEmpty()) LogError(s);
  }
  OnDeviceWPStateChanged();
}

void CBreakpointsDataModel::OnDeviceConnectDone(CONNECT_MODES Mode) {
  const bool WithFile = Mode == CM_DOWNLOAD_RESET && m_HasProgramFile && m_HasProgramFile();
  if (Mode == CM_ATTACH || Mode == CM_ATTACH_HALT || (Mode == CM_DOWNLOAD_RESET && !WithFile)) {
    m_ApplyAfterDownload = false;
    ApplyAll();
  } else if (WithFile) {
    m_ApplyAfterDownload = true;
  }
}

void CBreakpointsDataModel::OnDeviceEndDownloadDone(const char* sFilePath, DOWNLOAD_MODES) {
  OnDataFileDownloaded(QString::fromUtf8(sFilePath ? sFilePath : ""));
}

void CBreakpointsDataModel::OnDataFileDownloaded(const QString& sFilePath) {
  if (sFilePath.isEmpty() || !m_ApplyAfterDownload) return;
  m_ApplyAfterDownload = false;
  ApplyAll();
}

void CBreakpointsDataModel::OnDeviceResetDone(U32, RESET_MODES Mode) {
  if (int(Mode) == 3 || int(Mode) == 5) return;
  m_pDevice->PostResetBPs();
}

void CBreakpointsDataModel::OnDeviceHaltDone(U32 NewPC, HALT_REASONS Reason) {
  if (Reason == HALT_REASON_BREAKPOINT) RunStopActions(NewPC);
}

void CBreakpointsDataModel::RunStopActions(U32 NewPC) {
  const CBreakpointInfo* p = FindAddr(NewPC);
  if (!p || p->State != BP_STATE_ON) return;
  const CBreakpointInfo b = *p;  // an action may change the map
  if (!b.ScriptCallback.isEmpty() && m_Hooks.CallScript) m_Hooks.CallScript(b.ScriptCallback);
  if (!b.ConsoleMsg.isEmpty()) ConsolePrintLine(b.ConsoleMsg, 0, false, COLOR_LOGGING_SCRIPT);
  if (!b.PopupMsg.isEmpty() && m_Hooks.MessageBox) m_Hooks.MessageBox(QStringLiteral("Breakpoint"), b.PopupMsg);
}

// ---------------------------------------------------------------- conditions

void IBreakpointDevice::SetConditionWord(U64 PcAndMet) {
  if (CDevice* d = CDevice::InstanceIfCreated()) d->SetConditionWord(PcAndMet);
}

void CBreakpointsDataModel::SetConditionFrameHook(std::function<void()> Fn) { m_ConditionFrameHook = std::move(Fn); }

void CBreakpointsDataModel::OnDeviceEvalBPCondition(U32 Addr) {
  // Frame 0 of this stop first: the condition's locals live in it.
  if (m_ConditionFrameHook) m_ConditionFrameHook();
  const bool Met = EvaluateCondition(Addr);
  m_pDevice->SetConditionWord((U64(Addr) & ~1ull) | (Met ? 1 : 0));
}

bool CBreakpointsDataModel::EvaluateCondition(U32 Addr) {
  auto It = m_Addr.find(Addr);
  if (It == m_Addr.end()) return true;
  CBreakpointInfo& b = *It;
  if (b.State != BP_STATE_ON) return true;
  // The device counted this hit before it asked.
  const U64 Hits = m_pDevice->GetBreakpoint(Addr).HitCount;
  b.HitCount = Hits;
  if (b.SkipCount > 0 && (b.ReloadSkip || Hits <= U64(b.SkipCount)) && Hits % (U64(b.SkipCount) + 1) != 0) return false;
  // Task filter: a number, else a task name of the RTOS plug-in's table,
  // against the current task. No RTOS plug-in is loaded in this program, so
  // there is no current task: a filter is met only when it is empty.
  if (!b.TaskName.trimmed().isEmpty()) return false;
  if (b.Condition.trimmed().isEmpty()) return true;
  qDebug().noquote() << "Evaluating BP condition: " + b.Condition;
  // The target stands at Addr, unreported: the caches hold the last stop's
  // data, and locals belong to this PC.
  CDeviceDataManager::Instance().ClearCaches();
  const U32 OldPc = SYM_GetCurrentPc();
  SYM_SetCurrentPc(Addr);
  CExpression e(b.Condition);
  const bool Parsed = e.GetStatus() >= 0 && e.BuildTree() >= 0;
  const int r = Parsed ? Evaluate(e) : -1;
  SYM_SetCurrentPc(OldPc);
  const std::shared_ptr<CSymbol> pRes = Parsed ? GetResult(e) : nullptr;
  bool Met;
  if (!Parsed) {
    Met = true;  // a condition that cannot be parsed stops every time
  } else if (r < 0 || !pRes) {
    LogError(QStringLiteral("error: ") + (e.GetError().isEmpty() ? CExpression::StatusText(r) : e.GetError()));
    Met = false;
  } else {
    bool Ok = false;
    const U32 v = U32(pRes->IsEmpty() ? 0 : pRes->ReadUnsigned(&Ok));
    if (!Ok) {
      Met = true;  // nothing to compare: stop
    } else if (b.TriggerOnChange) {
      // "When the expression changes": the first evaluation has nothing to
      // compare with; afterwards a changed value stops.
      Met = b.LastCondValue != ~0ull && U32(b.LastCondValue) != v;
      b.LastCondValue = v;
    } else {
      b.LastCondValue = v;
      Met = v != 0;
    }
  }
  qDebug().noquote() << QStringLiteral("result: %1").arg(Met ? 1 : 0);
  return Met;
}

// ---------------------------------------------------------------- texts

std::vector<BP_TEXT_PART> CBreakpointsDataModel::ExtrasParts(const CBreakpointInfo& b) const {
  std::vector<BP_TEXT_PART> v;
  auto Label = [&](const QString& s) { v.push_back({s, BP_ROLE_LABEL}); };
  auto Value = [&](const QString& s) { v.push_back({s, BP_ROLE_VALUE}); };
  auto Sep = [&] {
    if (!v.empty()) Label(QStringLiteral(", "));
  };
  if (!b.Condition.isEmpty()) {
    Label(QStringLiteral("When "));
    Value(b.Condition);
    if (b.TriggerOnChange) Label(QStringLiteral(" changes"));
  }
  if (!b.TaskName.isEmpty()) {
    Label(v.empty() ? QStringLiteral("Task ") : QStringLiteral(" in task "));
    Value(b.TaskName);
  }
  if (b.SkipCount > 0) {
    if (v.empty()) {
      Label(QStringLiteral("Skip "));
      Value(QString::number(b.SkipCount));
    } else {
      Label(QStringLiteral(" and "));
      Value(QString::number(b.SkipCount));
      Label(QStringLiteral(" skipped"));
    }
    if (b.ReloadSkip) Label(QStringLiteral(" (reload)"));
  }
  if (!b.ScriptCallback.isEmpty()) {
    Sep();
    Label(QStringLiteral("call "));
    Value(b.ScriptCallback);
  }
  if (!b.ConsoleMsg.isEmpty() || !b.PopupMsg.isEmpty()) {
    Sep();
    Label(QStringLiteral("show "));
    Value(QStringLiteral("message"));
  }
  const bool Conn = m_pDevice->IsConnected();
  if ((Conn && b.ActualImpl != BP_TYPE_HARD) || (!Conn && b.PermittedImpl != BP_TYPE_ANY)) {
    Sep();
    Label(QStringLiteral("Type="));
    Value(BP_TypeText(Conn ? b.ActualImpl : b.PermittedImpl));
  }
  if (!b.SourceText.isEmpty()) {
    Sep();
    Value(b.SourceText);
  }
  return v;
}

QString CBreakpointsDataModel::JoinParts(const std::vector<BP_TEXT_PART>& v) {
  QString s;
  for (const BP_TEXT_PART& p : v) s += p.Text;
  return s;
}

QString CBreakpointsDataModel::DataBreakpointText(const WP& w) {
  static const char* const kAccess[] = {"Read", "Write", "Read/Write", "No Access"};
  QStringList Parts;
  Parts << QString::fromLatin1(w.AccessType < 4 ? kAccess[w.AccessType] : "?");
  switch (w.AccessSize) {
    case 0: Parts << QStringLiteral("Any Size"); break;
    case 1: Parts << QStringLiteral("Byte"); break;
    case 2: Parts << QStringLiteral("Half Word"); break;
    case 4: Parts << QStringLiteral("Word"); break;
    default: Parts << QStringLiteral("Size %1").arg(w.AccessSize);
  }
  if (w.AddrMask != 0) {
    const U32 Keep = ~w.AddrMask;
    const bool Range = ((w.AddrMask + 1u) & w.AddrMask) == 0;  // low bits only: a range
    if (Range)
      Parts << QStringLiteral("Addr = %1 - %2").arg(Hex(w.Addr & Keep), Hex((w.Addr & Keep) | w.AddrMask));
    else
      Parts << QStringLiteral("Addr & %1 = %2").arg(Hex(Keep), Hex(w.Addr & Keep));
  }
  if (w.ValueMask != ~0ull && U32(w.ValueMask) != 0xFFFFFFFFu) {
    if (U32(w.ValueMask) == 0)
      Parts << QStringLiteral("Value = %1").arg(Hex(w.MatchValue));
    else
      Parts << QStringLiteral("Value & %1 = %2").arg(Hex(U32(~w.ValueMask)), Hex(w.MatchValue & U32(~w.ValueMask)));
  }
  return Parts.join(QStringLiteral(", "));
}

QString BP_DataBreakpointError(const WP& w) {
  const U32 c = U32(w.ErrCode);
  if (w.ErrCode == 0) return QString();
  const char* s = nullptr;
  auto All = [c](U32 m) { return (c & m) == m; };
  if (c == 0x80000000u) s = "unknown error";
  else if (All(0x80000001u)) s = "no more events";
  else if (All(0x80000002u)) s = "no more address comparision units";
  else if (All(0x80000004u)) s = "no more data comparision units";
  else if (All(0x80000020u)) s = "address mask invalid or not supported by target device";
  else if (All(0x80000080u)) s = "access mask invalid or not supported by target device";
  else if (All(0x80000040u)) s = "value mask invalid or not supported by target device";
  if (!s) return QString();
  return QStringLiteral("Error setting data breakpoint @ ") + Hex(w.Addr) + QStringLiteral(": ") + QLatin1String(s);
}

// ---------------------------------------------------------------- the user file

QStringList CBreakpointsDataModel::WriteUserLines() {
  Refresh();
  QStringList Lines;
  for (const CBreakpointInfo& b : m_Src) Lines << BP_FormatBreakpoint(b, LocationText(b));
  for (const CBreakpointInfo& b : m_Addr)
    if (!b.Derived) Lines << BP_FormatBreakpoint(b, LocationText(b));
  for (const WP& w : m_pDevice->Watchpoints()) Lines << BP_FormatDataBreakpoint(w);
  for (const TP& t : m_pDevice->Tracepoints()) {
    QString sLoc = Hex(t.Addr);
    if (t.FromSource && t.Addr <= 0xFFFFFFFFull) {
      const CSrcLoc l = m_pProgram->LocOfAddr(U32(t.Addr));
      if (!l.IsNull()) sLoc = m_pProgram->LocText(CSrcLoc(l.file, l.line, 0));
    }
    Lines << BP_FormatTracepoint(t, sLoc);
  }
  return Lines;
}

void CBreakpointsDataModel::ReadUserLines(const QStringList& Lines, QStringList* pErrors) {
  std::vector<WP> Wps;
  std::vector<TP> Tps;
  QStringList Errors;
  for (const QString& l : Lines) {
    BP_USER_RECORD r;
    if (!BP_ParseUserLine(l, &r, &Errors)) continue;
    if (r.Kind == 0) {
      CBreakpointInfo b = r.Bp;
      const BP_STATES St = b.State == BP_STATE_MIXED ? BP_STATE_MIXED : b.State;
      if (r.HasAddr) {
        if (SetBP(b.Addr, St, b.PermittedImpl) < 0) continue;
      } else {
        CSrcLoc Loc;
        if (!m_pProgram->ParseLocation(r.sLoc, &Loc)) {
          Errors << QStringLiteral("Cannot set breakpoint on source location ") + r.sLoc;
          continue;
        }
        if (SetSourceBP(Loc, St, b.PermittedImpl) < 0) continue;
        b.Loc = Loc;
      }
      m_pDevice->WaitForBreakpointJobs();
      Refresh();
      Edit(b);
    } else if (r.Kind == 1) {
      if (!r.HasAddr) {
        U64 a = 0;
        if (!m_pProgram->ParseAddress(r.sLoc, &a) || a > 0xFFFFFFFFull) continue;
        r.Wp.Addr = U32(a);
      }
      Wps.push_back(r.Wp);
    } else if (r.Kind == 2) {
      if (!r.HasAddr) {
        CSrcLoc Loc;
        if (!m_pProgram->ParseLocation(r.sLoc, &Loc)) continue;
        const QList<U32> a = m_pProgram->LocAddresses(Loc);
        if (a.isEmpty()) continue;
        r.Tp.Addr = a.first();
      }
      if (r.Tp.Addr == ~0ull) continue;
      Tps.push_back(r.Tp);
    }
  }
  if (!Wps.empty()) m_pDevice->PostSetWPs(Wps);
  if (!Tps.empty()) m_pDevice->PostSetTPs(Tps);
  // The project's loader has already warned about fields without "=".
  for (const QString& e : Errors)
    if (!e.startsWith(QLatin1String("Syntax error"))) LogError(e);
  if (pErrors) *pErrors += Errors;
}

// ---------------------------------------------------------------- defaults

namespace {

class CDeviceAdapter : public IBreakpointDevice {
 public:
  bool IsConnected() const override {
    CDevice* d = CDevice::InstanceIfCreated();
    return d && d->IsConnected();
  }
  std::vector<DEVICE_BP> Breakpoints() const override {
    std::vector<DEVICE_BP> v;
    CDevice* d = CDevice::InstanceIfCreated();
    if (!d) return v;
    const int n = d->BpCount();
    for (int i = 0; i < n && i < DEVICE_MAX_BPS; ++i) {
      const DEVICE_BP e = d->BpEntry(i);
      if (e.Occupied && e.Addr != 0) v.push_back(e);
    }
    return v;
  }
  DEVICE_BP GetBreakpoint(U32 Addr) const override {
    CDevice* d = CDevice::InstanceIfCreated();
    return d ? d->GetBreakpoint(Addr) : DEVICE_BP{};
  }
  std::vector<WP> Watchpoints() const override {
    CDevice* d = CDevice::InstanceIfCreated();
    return d ? d->OccupiedWatchpoints() : std::vector<WP>{};
  }
  std::vector<TP> Tracepoints() const override {
    CDevice* d = CDevice::InstanceIfCreated();
    return d ? d->OccupiedTracepoints() : std::vector<TP>{};
  }
  void SetBPHasCondition(U32 Addr, bool On) override { Device()->SetBPHasCondition(Addr, On); }
  int PostSetBP(U32 Addr, BP_STATES State, BP_TYPES Type) override { return Device()->PostSetBP(Addr, State, Type); }
  int PostSetBPs(const std::vector<U32>& a, BP_STATES State, BP_TYPES Type) override {
    return Device()->PostSetBPs(U32(a.size()), a.data(), State, Type);
  }
  int PostClearBP(U32 Addr) override { return Device()->PostClearBP(Addr); }
  int PostClearBPs(const std::vector<U32>& a) override { return Device()->PostClearBPs(U32(a.size()), a.data()); }
  int PostClearAllBPs() override { return Device()->PostClearAllBPs(); }
  int PostResetBPs() override { return Device()->PostResetBPs(); }
  int PostSetWPs(const std::vector<WP>& v) override { return Device()->PostSetWPs(U32(v.size()), v.data()); }
  int PostClearWPs(const std::vector<WP>& v) override { return Device()->PostClearWPs(U32(v.size()), v.data()); }
  int PostClearAllWPs() override { return Device()->PostClearAllWPs(); }
  int PostSetTPs(const std::vector<TP>& v) override { return Device()->PostSetTPs(U32(v.size()), v.data()); }
  int PostClearTPs(const std::vector<TP>& v) override { return Device()->PostClearTPs(U32(v.size()), v.data()); }
  int PostClearAllTPs() override { return Device()->PostClearAllTPs(); }
  void WaitForBreakpointJobs() override {
    if (CDevice* d = CDevice::InstanceIfCreated()) d->WaitIdle(30000);
  }
};

// The loaded program's line tables, under the wrapper mutex.
class CProgramLocator : public IBreakpointProgram {
 public:
  QList<U32> LocAddresses(const CSrcLoc& Loc) override {
    QList<U32> Out;
    if (Loc.IsNull()) return Out;
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    const CLineTables& t = DWARF_GetProgramTables();
    const QList<U32> All = t.GetLocAddresses(CSrcLoc(Loc.file, Loc.line, 0));
    if (All.size() <= 1) return All;
    // The first block the line got in each function: a line that the
    // compiler spread over one function is one place, a line inlined into
    // three functions is three.
    QList<ELF_SYM_HANDLE> Seen;
    for (U32 a : All) {
      const ELF_SYM_HANDLE f = t.GetFunction(a, true);
      if (f != 0 && Seen.contains(f)) continue;
      Seen.append(f);
      Out.append(a);
    }
    return Out;
  }
  CSrcLoc NextLocWithCode(const CSrcLoc& Loc) override {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    return DWARF_GetProgramTables().NextLocWithCode(Loc);
  }
  CSrcLoc LocOfAddr(U32 Addr) override {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    return DWARF_GetProgramTables().GetSrcLoc(Addr);
  }
  QString LocText(const CSrcLoc& Loc) override {
    QString sName;
    {
      QMutexLocker Lock(&CElfApi::Instance().Mutex());
      sName = DWARF_GetProgramTables().GetFileName(Loc.file);
    }
    if (sName.isEmpty()) sName = QStringLiteral("?");
    QString s = sName + QLatin1Char(':') + QString::number(Loc.line);
    if (Loc.column) s += QLatin1Char(':') + QString::number(Loc.column);
    return s;
  }
  QString SourceText(U32 Addr) override {
    QString sPath;
    U32 Line = 0;
    {
      QMutexLocker Lock(&CElfApi::Instance().Mutex());
      const CLineTables& t = DWARF_GetProgramTables();
      const CSrcLoc l = t.GetSrcLoc(Addr);
      if (l.IsNull()) return QString();
      sPath = t.GetFilePath(l.file);
      Line = l.line;
    }
    const QString s = g_LineReader ? g_LineReader(sPath, Line) : ReadLine(sPath, Line);
    return s.simplified();
  }
  bool ParseLocation(const QString& sText, CSrcLoc* pLoc) override {
    QString s = sText.trimmed();
    if (s.size() >= 2 && s.startsWith(QLatin1Char('"')) && s.endsWith(QLatin1Char('"'))) s = s.mid(1, s.size() - 2);
    if (s.isEmpty()) return false;
    // "file:line" or "file:line:column"
    const QStringList Parts = s.split(QLatin1Char(':'));
    if (Parts.size() >= 2) {
      bool Ok1 = false, Ok2 = true;
      int LineIdx = Parts.size() - 1;
      U32 Col = 0;
      U32 Line = Parts[LineIdx].trimmed().toUInt(&Ok1);
      if (Parts.size() >= 3) {
        const U32 L2 = Parts[LineIdx - 1].trimmed().toUInt(&Ok2);
        if (Ok1 && Ok2) {
          Col = Line;
          Line = L2;
          --LineIdx;
        }
      }
      if (Ok1 && Line > 0) {
        const QString sFile = Parts.mid(0, LineIdx).join(QLatin1Char(':')).trimmed();
        const U32 Id = FileIdOf(sFile);
        if (Id == 0xFFFFFFFFu) return false;
        *pLoc = CSrcLoc(Id, Line, Col);
        return true;
      }
    }
    int Kind = -1;
    const CAddrRange r = ResolveToAddress(s, Kind);
    if (Kind < 0 || r.start == 0) return false;
    const CSrcLoc l = LocOfAddr(r.start);
    if (l.IsNull()) return false;
    *pLoc = CSrcLoc(l.file, l.line, 0);
    return true;
  }
  bool ParseAddress(const QString& sText, U64* pAddr) override {
    QString s = sText.trimmed();
    if (s.size() >= 2 && s.startsWith(QLatin1Char('"')) && s.endsWith(QLatin1Char('"'))) s = s.mid(1, s.size() - 2);
    bool Ok = false;
    const U64 v = s.toULongLong(&Ok, 0);
    if (Ok) {
      *pAddr = v;
      return v <= 0xFFFFFFFFull;
    }
    int Kind = -1;
    const CAddrRange r = ResolveToAddress(s, Kind);
    if (Kind < 0) return false;
    *pAddr = r.start;
    return true;
  }

 private:
  static U32 FileIdOf(const QString& sFile) {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    const CLineTables& t = DWARF_GetProgramTables();
    const QString Want = QString(sFile).replace(QLatin1Char('\\'), QLatin1Char('/'));
    for (const QString& p : t.GetSourceFiles()) {
      if (p == Want || p.endsWith(QLatin1Char('/') + Want)) return t.GetFileId(p);
    }
    return 0xFFFFFFFFu;
  }
  QString ReadLine(const QString& sPath, U32 Line) {
    // Another program (or the same one rebuilt) may name other texts.
    const U64 Id = SYM_GetProgramIdentity();
    if (Id != m_ProgramId) {
      m_Files.clear();
      m_ProgramId = Id;
    }
    auto It = m_Files.find(sPath);
    if (It == m_Files.end()) {
      QStringList Lines;
      QFile f(sPath);
      if (f.open(QIODevice::ReadOnly)) Lines = QString::fromUtf8(f.readAll()).split(QLatin1Char('\n'));
      It = m_Files.insert(sPath, Lines);
    }
    return Line >= 1 && int(Line) <= It->size() ? It->at(int(Line) - 1) : QString();
  }
  QHash<QString, QStringList> m_Files;
  U64 m_ProgramId = 0;
};

}  // namespace

IBreakpointDevice& DefaultBreakpointDevice() {
  static CDeviceAdapter s;
  return s;
}

IBreakpointProgram& DefaultBreakpointProgram() {
  static CProgramLocator s;
  return s;
}
