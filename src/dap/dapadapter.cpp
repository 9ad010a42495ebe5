// Session and run control of the adapter: initialize, launch and attach,
// configurationDone, threads, stackTrace, the resume requests, pause,
// restart, terminate and disconnect; stopped events from halt reports.
#include "dap/dapadapter.h"

#include "commands/actions.h"
#include "device/device.h"
#include "device/module.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "elf/symbol/symbol.h"
#include "files/filefinder.h"
#include "log/console.h"
#include "session/debugsession.h"
#include "settings/sysvars.h"
#include "stack/callstack.h"
#include "ui/callstack/callstackmodel.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QMutexLocker>
#include <QThread>
#include <QTimer>

namespace {

CDevice* Dev() { return CDevice::InstanceIfCreated(); }

QString Quoted(const QString& s) {
  QString t = s;
  t.replace(QLatin1Char('"'), QLatin1Char('\''));
  return QLatin1Char('"') + t + QLatin1Char('"');
}

}  // namespace

CDapAdapter::CDapAdapter(CDapDispatcher* pDispatcher, QObject* pParent) : QObject(pParent), m_pDisp(pDispatcher) {
  auto Bind = [this](const char* sCommand, DAP_REPLY (CDapAdapter::*Fn)(const QJsonObject&)) {
    m_pDisp->On(QLatin1String(sCommand), [this, Fn](const QJsonObject& a) { return (this->*Fn)(a); });
  };
  Bind("initialize", &CDapAdapter::Initialize);
  m_pDisp->On(QStringLiteral("launch"), [this](const QJsonObject& a) { return Launch(a, false); });
  m_pDisp->On(QStringLiteral("attach"), [this](const QJsonObject& a) { return Launch(a, true); });
  Bind("configurationDone", &CDapAdapter::ConfigurationDone);
  Bind("threads", &CDapAdapter::Threads);
  Bind("stackTrace", &CDapAdapter::StackTrace);
  m_pDisp->On(QStringLiteral("continue"), [this](const QJsonObject& a) { return Resume(QStringLiteral("Debug.Continue()"), QStringLiteral("breakpoint"), a); });
  m_pDisp->On(QStringLiteral("next"), [this](const QJsonObject& a) { return Resume(QStringLiteral("Debug.StepOver()"), QStringLiteral("step"), a); });
  m_pDisp->On(QStringLiteral("stepIn"), [this](const QJsonObject& a) { return Resume(QStringLiteral("Debug.StepInto()"), QStringLiteral("step"), a); });
  m_pDisp->On(QStringLiteral("stepOut"), [this](const QJsonObject& a) { return Resume(QStringLiteral("Debug.StepOut()"), QStringLiteral("step"), a); });
  Bind("pause", &CDapAdapter::Pause);
  Bind("restart", &CDapAdapter::Restart);
  Bind("terminate", &CDapAdapter::Terminate);
  Bind("disconnect", &CDapAdapter::Disconnect);
  Bind("setBreakpoints", &CDapAdapter::SetBreakpoints);
  Bind("setFunctionBreakpoints", &CDapAdapter::SetFunctionBreakpoints);
  Bind("setInstructionBreakpoints", &CDapAdapter::SetInstructionBreakpoints);
  Bind("dataBreakpointInfo", &CDapAdapter::DataBreakpointInfo);
  Bind("setDataBreakpoints", &CDapAdapter::SetDataBreakpoints);
  Bind("scopes", &CDapAdapter::Scopes);
  Bind("variables", &CDapAdapter::Variables);
  Bind("setVariable", &CDapAdapter::SetVariable);
  Bind("evaluate", &CDapAdapter::Evaluate);
  Bind("disassemble", &CDapAdapter::Disassemble);
  Bind("readMemory", &CDapAdapter::ReadMemory);
  Bind("writeMemory", &CDapAdapter::WriteMemory);
  // The console ring is this adapter's to read; a full ring is drained at
  // once so that no line is lost.
  SetConsoleOverflowDrain([this] { DrainConsole(); });
  // A stop seen while a request was answered is sent after its response.
  m_pDisp->SetIdleHook([this] { CheckStopped(); });
  auto* pTimer = new QTimer(this);
  connect(pTimer, &QTimer::timeout, this, &CDapAdapter::DrainConsole);
  pTimer->start(50);
}

CDapAdapter::~CDapAdapter() { SetConsoleOverflowDrain(nullptr); }

void CDapAdapter::DrainConsole() {
  ConsoleRingTake([this](const CONSOLE_ENTRY& e) {
    const QString s = QString::fromUtf8(e.Text);
    if (m_pDisp->IsInitialized())
      m_pDisp->SendEvent(QStringLiteral("output"),
                         {{QStringLiteral("category"), QStringLiteral("console")}, {QStringLiteral("output"), s + QLatin1Char('\n')}});
  });
}

DAP_REPLY CDapAdapter::RunCommand(const QString& sLine, I64* pResult) {
  // Lines printed before the command are not its own.
  DrainConsole();
  int Id = -1;
  const int r = ExecuteCommand(sLine, &Id);
  if (r == 1 && Id >= 0) WaitForCommand(Id);
  QString sError;
  ConsoleRingTake([&](const CONSOLE_ENTRY& e) {
    const QString s = QString::fromUtf8(e.Text);
    if (e.ColorID == ErrorColorId()) sError = s;
    if (m_pDisp->IsInitialized())
      m_pDisp->SendEvent(QStringLiteral("output"),
                         {{QStringLiteral("category"), QStringLiteral("console")}, {QStringLiteral("output"), s + QLatin1Char('\n')}});
  });
  if (r != 1 && sError.isEmpty()) sError = sLine + QStringLiteral(": unknown command");
  if (!sError.isEmpty()) return DAP_REPLY::Fail(sError);
  const I64 v = Id >= 0 ? GetActionResult(Id) : 0;
  if (pResult) *pResult = v;
  DAP_REPLY Ok;
  Ok.Body.insert(QStringLiteral("result"), QStringLiteral("%1 (0x%2)").arg(v).arg(quint64(v), 0, 16));
  return Ok;
}

QString CDapAdapter::HaltedError() const {
  CDevice* d = Dev();
  if (!d || !d->IsConnected()) return QStringLiteral("not connected");
  if (d->IsRunning() || m_State == DAP_RUNNING) return QStringLiteral("program is running");
  return QString();
}

// ---------------------------------------------------------------- session

DAP_REPLY CDapAdapter::Initialize(const QJsonObject& a) {
  m_bLinesStartAt1 = a.value(QStringLiteral("linesStartAt1")).toBool(true);
  QJsonObject c;
  for (const char* s : {"supportsConfigurationDoneRequest", "supportsFunctionBreakpoints", "supportsConditionalBreakpoints",
                        "supportsHitConditionalBreakpoints", "supportsLogPoints", "supportsSetVariable",
                        "supportsDataBreakpoints", "supportsDisassembleRequest", "supportsReadMemoryRequest",
                        "supportsWriteMemoryRequest", "supportsInstructionBreakpoints", "supportsSteppingGranularity",
                        "supportsRestartRequest", "supportsTerminateRequest", "supportsEvaluateForHovers"})
    c.insert(QLatin1String(s), true);
  return DAP_REPLY::Done(c);
}

DAP_REPLY CDapAdapter::Launch(const QJsonObject& a, bool Attach) {
  if (m_State != DAP_IDLE) return DAP_REPLY::Fail(QStringLiteral("already connected"));
  const QString sProject = a.value(QStringLiteral("project")).toString();
  const QString sProgram = a.value(QStringLiteral("program")).toString();
  if (!sProject.isEmpty()) {
    const DAP_REPLY r = RunCommand(QStringLiteral("File.Open(%1)").arg(Quoted(sProject)));
    if (!r.Ok) return r;
  } else {
    const QString sDevice = a.value(QStringLiteral("device")).toString();
    if (sDevice.isEmpty()) return DAP_REPLY::Fail(QStringLiteral("launch: required argument \"device\" is missing"));
    if (sProgram.isEmpty()) return DAP_REPLY::Fail(QStringLiteral("launch: required argument \"program\" is missing"));
    const QString sHostIF = a.value(QStringLiteral("hostInterface")).toString(QStringLiteral("USB"));
    for (const QString& l : {QStringLiteral("Project.SetDevice(%1)").arg(Quoted(sDevice)),
                             QStringLiteral("Project.SetHostIF(%1, %2)").arg(Quoted(sHostIF), Quoted(a.value(QStringLiteral("host")).toString())),
                             QStringLiteral("Project.SetTargetIF(%1)").arg(Quoted(a.value(QStringLiteral("targetInterface")).toString(QStringLiteral("SWD"))))}) {
      const DAP_REPLY r = RunCommand(l);
      if (!r.Ok) return r;
    }
  }
  // Source paths that the program records, mapped to where they lie here.
  const QJsonObject Subst = a.value(QStringLiteral("pathSubstitutes")).toObject();
  for (auto It = Subst.constBegin(); It != Subst.constEnd(); ++It) {
    const DAP_REPLY r = RunCommand(QStringLiteral("Project.AddPathSubstitute(%1, %2)").arg(Quoted(It.key()), Quoted(It.value().toString())));
    if (!r.Ok) return r;
  }
  if (!sProgram.isEmpty()) {
    const DAP_REPLY r = RunCommand(QStringLiteral("File.Open(%1)").arg(Quoted(sProgram)));
    if (!r.Ok) return r;
  }
  // Where the start stops: at the reset (entry), at a symbol (main unless
  // told otherwise), or nowhere.
  const QString sSymbol = a.value(QStringLiteral("stopAtSymbol")).toString(QStringLiteral("main")).trimmed();
  QString sMode = QStringLiteral("RM_RESET_AND_RUN");
  if (a.value(QStringLiteral("stopOnEntry")).toBool()) sMode = QStringLiteral("RM_RESET_HALT");
  else if (!sSymbol.isEmpty()) {
    SysVars::SetString(VAR_BREAK_AT_THIS_SYMBOL, sSymbol);
    sMode = QStringLiteral("RM_BREAK_AT_SYMBOL");
  }
  if (!Attach) {
    const DAP_REPLY r = RunCommand(QStringLiteral("Debug.SetResetMode(%1)").arg(sMode));
    if (!r.Ok) return r;
  }
  const DAP_REPLY r = RunCommand(QStringLiteral("Debug.SetConnectMode(%1)").arg(Attach ? QStringLiteral("CM_ATTACH_HALT") : QStringLiteral("CM_DOWNLOAD_RESET")));
  if (!r.Ok) return r;
  m_LaunchArgs = a;
  m_bAttach = Attach;
  m_State = DAP_LAUNCHED;
  DAP_REPLY Done;
  Done.After = [this] { m_pDisp->SendEvent(QStringLiteral("initialized")); };
  return Done;
}

bool CDapAdapter::WaitSessionIdle(int TimeoutMs) {
  CDebugSession* pSession = SessionModule::DebugSession();
  QElapsedTimer t;
  t.start();
  while (pSession && pSession->IsAwaitingHalt() && t.elapsed() < TimeoutMs) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    if (pSession->IsAwaitingHalt()) QThread::msleep(1);
  }
  return !pSession || !pSession->IsAwaitingHalt();
}

DAP_REPLY CDapAdapter::StartSession() {
  // The halts inside the start chain (reset, download) are not stops of the
  // client: the state stays "launched" until the chain is over.
  const DAP_REPLY r = RunCommand(QStringLiteral("Debug.Start()"));
  if (!r.Ok) return r;
  if (!WaitSessionIdle(60000)) return DAP_REPLY::Fail(QStringLiteral("target did not halt within 60 s"));
  CDevice* d = Dev();
  if (!d || !d->IsConnected()) {
    m_State = DAP_LAUNCHED;
    return DAP_REPLY::Fail(QStringLiteral("not connected"));
  }
  DAP_REPLY Done;
  Done.After = [this] { AfterStart(); };
  return Done;
}

// After a start or reset: a target standing still stopped at the entry or
// the break symbol; one still on its way there (a run to the symbol not yet
// begun or not yet halted) gives its stopped event with the halt report.
void CDapAdapter::AfterStart() {
  CDevice* d = Dev();
  m_State = DAP_RUNNING;
  m_bStopReported = false;
  const bool RunningTo = d && d->IsJobPending(JT_RUN_TO);
  m_sPendingReason = RunningTo ? QStringLiteral("entry") : QStringLiteral("breakpoint");
  if (d && d->IsConnected() && !d->IsRunning() && !RunningTo && d->IsTargetHalted()) {
    SendStopped(QStringLiteral("entry"));
    return;
  }
  m_pDisp->SendEvent(QStringLiteral("continued"), {{QStringLiteral("threadId"), 1}, {QStringLiteral("allThreadsContinued"), true}});
}

DAP_REPLY CDapAdapter::ConfigurationDone(const QJsonObject&) {
  if (m_State != DAP_LAUNCHED) return DAP_REPLY::Fail(QStringLiteral("configurationDone before launch or attach"));
  return StartSession();
}

DAP_REPLY CDapAdapter::Threads(const QJsonObject&) {
  QJsonArray t;
  t.append(QJsonObject{{QStringLiteral("id"), 1}, {QStringLiteral("name"), QStringLiteral("Core")}});
  return DAP_REPLY::Done({{QStringLiteral("threads"), t}});
}

DAP_REPLY CDapAdapter::StackTrace(const QJsonObject& a) {
  if (const QString e = HaltedError(); !e.isEmpty()) return DAP_REPLY::Fail(e);
  // The rows of the call stack window, unwound to the end as its export does.
  static CCallStackDataModel* s_pRows = new CCallStackDataModel(&CCallStack::Instance());
  s_pRows->UnwindForExport();
  CCallStack& Stack = s_pRows->Stack();
  const int Start = std::max(0, a.value(QStringLiteral("startFrame")).toInt());
  const int Levels = a.value(QStringLiteral("levels")).toInt();
  QList<QPair<int, int>> Frames;  // frame index, row
  for (int Row = 0; Row < s_pRows->rowCount(); ++Row)
    if (const int f = s_pRows->FrameOfRow(Row); f >= 0) Frames.append({f, Row});
  std::sort(Frames.begin(), Frames.end());
  QJsonArray Out;
  const CLineTables& Tables = DWARF_GetProgramTables();
  for (int i = Start; i < Frames.size() && (Levels <= 0 || Out.size() < Levels); ++i) {
    const int f = Frames[i].first;
    const CCallFrame F = Stack.GetFrame(f);
    U64 Pc = 0;
    Stack.GetRegister(F, Stack.Facts().pcRegister, Pc);
    QJsonObject o{{QStringLiteral("id"), f + 1},
                  {QStringLiteral("name"), s_pRows->data(s_pRows->index(Frames[i].second, CS_COL_FUNCTION)).toString()},
                  {QStringLiteral("instructionPointerReference"), QStringLiteral("0x%1").arg(Pc, 8, 16, QLatin1Char('0'))},
                  {QStringLiteral("line"), 0},
                  {QStringLiteral("column"), 0}};
    const CSrcLoc Loc = Stack.FrameSrcLoc(f);
    QString sPath;
    if (!Loc.IsNull()) {
      QMutexLocker Lock(&CElfApi::Instance().Mutex());
      sPath = Tables.GetFilePath(Loc.file);
    }
    if (!sPath.isEmpty()) {
      QString sFile = FileFinder().Resolve(sPath);
      if (sFile.isEmpty()) sFile = sPath;
      o.insert(QStringLiteral("source"), QJsonObject{{QStringLiteral("name"), QFileInfo(sFile).fileName()},
                                                    {QStringLiteral("path"), sFile}});
      o.insert(QStringLiteral("line"), int(Loc.line) - (m_bLinesStartAt1 ? 0 : 1));
      o.insert(QStringLiteral("column"), m_bLinesStartAt1 ? std::max(1, int(Loc.column)) : int(Loc.column));
    }
    Out.append(o);
  }
  return DAP_REPLY::Done({{QStringLiteral("stackFrames"), Out}, {QStringLiteral("totalFrames"), int(Frames.size())}});
}

// ---------------------------------------------------------------- run control

DAP_REPLY CDapAdapter::Resume(const QString& sCommand, const QString& sReason, const QJsonObject& a) {
  // Without a connection the command itself answers, with the console's text.
  if (m_State == DAP_RUNNING) return DAP_REPLY::Fail(QStringLiteral("program is running"));
  const DAP_STATE Was = m_State;
  // Instruction granularity: the disassembly is the active code view for
  // this step, as when the user steps in that window.
  CDebugSession* pSession = SessionModule::DebugSession();
  const bool ByInstruction = a.value(QStringLiteral("granularity")).toString() == QLatin1String("instruction");
  const CODE_VIEWS Before = pSession ? pSession->ActiveCodeView() : CODE_VIEW_SOURCE;
  if (pSession && ByInstruction) pSession->SetActiveCodeView(CODE_VIEW_DISASSEMBLY);
  ForgetRefs();
  m_State = DAP_RUNNING;
  m_sPendingReason = sReason;
  m_bStopReported = false;
  DAP_REPLY r = RunCommand(sCommand);
  if (pSession) pSession->SetActiveCodeView(Before);
  if (!r.Ok) {
    m_State = Was;
    return r;
  }
  r.Body = {};
  if (sCommand.startsWith(QLatin1String("Debug.Continue"))) r.Body.insert(QStringLiteral("allThreadsContinued"), true);
  // A halt reported before the response waits for it.
  r.After = [this] { CheckStopped(); };
  return r;
}

DAP_REPLY CDapAdapter::Pause(const QJsonObject&) {
  CDevice* d = Dev();
  if (!d || !d->IsConnected()) return DAP_REPLY::Fail(QStringLiteral("not connected"));
  m_sPendingReason = QStringLiteral("pause");
  if (m_State != DAP_RUNNING) {
    // Already halted: the client still gets its stopped event.
    DAP_REPLY r = RunCommand(QStringLiteral("Debug.Halt()"));
    r.Body = {};
    r.After = [this] { SendStopped(QStringLiteral("pause")); };
    return r;
  }
  DAP_REPLY r = RunCommand(QStringLiteral("Debug.Halt()"));
  r.Body = {};
  r.After = [this] { CheckStopped(); };
  return r;  // the halt report counts as a stop: the count of the resume stands
}

void CDapAdapter::OnDeviceHaltDone(U32 NewPC, HALT_REASONS Reason) {
  if (m_bAwaitRunTo && Reason != HALT_REASON_RUN_TO) return;
  m_bAwaitRunTo = false;
  // A stop after continue where no code breakpoint stands, with data
  // breakpoints set, is theirs.
  if (m_State == DAP_RUNNING && m_sPendingReason == QLatin1String("breakpoint") && Dev() && Dev()->WpCount() > 0 &&
      !Dev()->GetBreakpoint(NewPC).Occupied)
    m_sPendingReason = QStringLiteral("data breakpoint");
  m_bStopReported = true;
  CheckStopped();
}
void CDapAdapter::OnDeviceStepped(U32) {
  m_bStopReported = true;
  CheckStopped();
}
void CDapAdapter::OnDeviceResumeDone(RESUME_MODES) {}
void CDapAdapter::OnDeviceConnectionLost() {
  QTimer::singleShot(0, this, [this] {
    DrainConsole();
    EndSession(true);
  });
}

// After the session has handled the report (its handlers run deferred, and
// this check is queued behind them), a halted target is a stop.
void CDapAdapter::CheckStopped() {
  if (m_bCheckQueued) return;
  m_bCheckQueued = true;
  QTimer::singleShot(0, this, [this] {
    m_bCheckQueued = false;
    if (m_State != DAP_RUNNING || m_pDisp->IsBusy()) return;
    // A stop is a halt or step report since the resume.
    if (!m_bStopReported) return;
    CDevice* d = Dev();
    if (!d || !d->IsConnected() || d->IsRunning() || d->IsSourceStepInProgress() || !d->IsTargetHalted()) return;
    const U32 Pc = d->CurrentPC();
    if (IsLogPoint(Pc) && m_sPendingReason != QLatin1String("pause")) {
      // A log point printed its message; the target goes on.
      DrainConsole();
      m_bStopReported = false;
      RunCommand(QStringLiteral("Debug.Continue()"));
      return;
    }
    SendStopped(m_sPendingReason.isEmpty() ? QStringLiteral("pause") : m_sPendingReason);
  });
}

void CDapAdapter::SendStopped(const QString& sReason) {
  DrainConsole();
  ForgetRefs();
  m_State = DAP_STOPPED;
  m_sPendingReason.clear();
  m_pDisp->SendEvent(QStringLiteral("stopped"), {{QStringLiteral("reason"), sReason},
                                                {QStringLiteral("threadId"), 1},
                                                {QStringLiteral("allThreadsStopped"), true}});
}

DAP_REPLY CDapAdapter::Restart(const QJsonObject&) {
  CDevice* d = Dev();
  if (!d || !d->IsConnected()) return DAP_REPLY::Fail(QStringLiteral("not connected"));
  ForgetRefs();
  // With a run to the break symbol, the stop is the halt of that run; the
  // halts of the reset before it are not the client's.
  const bool ToSymbol = SysVars::GetValue(VAR_RESET_MODE) == RM_BREAK_AT_SYMBOL;
  m_State = DAP_LAUNCHED;
  m_bAwaitRunTo = ToSymbol;
  m_bStopReported = false;
  DAP_REPLY r = RunCommand(QStringLiteral("Debug.Reset()"));
  WaitSessionIdle(60000);
  if (!r.Ok) {
    m_bAwaitRunTo = false;
    m_State = DAP_STOPPED;
    return r;
  }
  r.Body = {};
  r.After = [this, ToSymbol] {
    if (!ToSymbol) return AfterStart();
    m_State = DAP_RUNNING;
    m_sPendingReason = QStringLiteral("entry");
    CheckStopped();
  };
  return r;
}

void CDapAdapter::EndSession(bool SendTerminated) {
  if (m_bEnded) return;
  m_bEnded = true;
  ForgetRefs();
  if (CDevice* d = Dev(); d && d->IsConnected()) {
    RunCommand(QStringLiteral("Debug.Stop()"));
    DeviceModule::WaitUntilIdle(10000);
  }
  m_State = DAP_ENDED;
  if (SendTerminated && m_pDisp->IsInitialized()) {
    m_pDisp->SendEvent(QStringLiteral("exited"), {{QStringLiteral("exitCode"), 0}});
    m_pDisp->SendEvent(QStringLiteral("terminated"));
  }
}

DAP_REPLY CDapAdapter::Terminate(const QJsonObject&) {
  DAP_REPLY r;
  r.After = [this] { EndSession(true); };
  return r;
}

DAP_REPLY CDapAdapter::Disconnect(const QJsonObject&) {
  DAP_REPLY r;
  r.After = [this] {
    EndSession(false);
    emit Finished();
  };
  return r;
}

void CDapAdapter::OnClientGone() {
  EndSession(false);
  emit Finished();
}
