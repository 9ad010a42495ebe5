// The Debug.* command slots: each checks what its command requires, answers
// with the error word when that is missing, and hands the work to the
// session or posts the device job.
#include "session/debugsession.h"

#include "commands/actions.h"
#include "device/bpmodel.h"
#include "device/device.h"
#include "disasm/instcache.h"
#include "plugins/corehost.h"
#include "settings/ids.h"
#include "settings/sysvars.h"

namespace {

CDebugSession& S() { return *SessionModule::DebugSession(); }

bool Fail(int Id, const char* sWord) {
  SetActionError(Id, QLatin1String(sWord));
  SetActionResult(Id, -1);
  return false;
}

bool Result(int Id, int r) {
  if (r < 0) return Fail(Id, "job not scheduled");
  SetActionResult(Id, 0);
  return true;
}

QString Unquote(QString s) {
  s = s.trimmed();
  if (s.size() >= 2 && s.startsWith('"') && s.endsWith('"')) s = s.mid(1, s.size() - 2);
  return s;
}

bool RequireConnected(int Id) {
  CDevice* d = CDevice::InstanceIfCreated();
  return (d && d->IsConnected()) || Fail(Id, "not connected");
}

bool RequireHalted(int Id) {
  if (!RequireConnected(Id)) return false;
  CDevice* d = Device();
  return (d->IsTargetHalted() && !d->IsRunning()) || Fail(Id, "program is running");
}

// An address from any of the forms a user gives: a number, a symbol or
// function, a source location "file:line".
bool AddressOfAny(const QString& sText, U64* pAddr) {
  IBreakpointProgram& Prog = CBreakpointsDataModel::Instance().Prog();
  const QString s = Unquote(sText);
  if (s.isEmpty()) return false;
  if (Prog.ParseAddress(s, pAddr)) return *pAddr <= 0xFFFFFFFFull;
  CSrcLoc Loc;
  if (!Prog.ParseLocation(s, &Loc)) return false;
  const QList<U32> a = CBreakpointsDataModel::Instance().LocAddresses(CBreakpointsDataModel::Instance().LandingLoc(Loc));
  if (a.isEmpty()) return false;
  *pAddr = a.first();
  return true;
}

// The register index of the PC: the plug-in's, else the probe's.
U32 PCRegIndex() {
  return IsCorePluginLoaded() ? CoreStaticInfo().PCIdx : U32(VORDENARM_REG_PC);
}

bool HasSourceLine(U32 PC) {
  const CSrcLoc Loc = CBreakpointsDataModel::Instance().Prog().LocOfAddr(PC);
  return !Loc.IsNull() && Loc.line != 0;
}

// Step Into, Step Over and Step Out: a source step when the source view is
// the active code view and the PC has a source line, else an instruction
// step. An instruction step over a call runs to the instruction behind it.
void OnStep(int Id, U32 SrcJob) {
  if (!CheckArgCount(Id) || !RequireConnected(Id)) return;
  CDevice* d = Device();
  if (SrcJob != JT_STEP_OUT && d->IsSourceStepInProgress()) return void(Fail(Id, "step in progress"));
  if (!RequireHalted(Id)) return;
  const U32 PC = d->CurrentPC();
  int r;
  if (SrcJob == JT_STEP_OUT || (S().ActiveCodeView() == CODE_VIEW_SOURCE && HasSourceLine(PC))) {
    r = d->PostStep(SrcJob);
  } else if (SrcJob == JT_STEP_OVER && IsCallInst(PC) && GetInstSize(PC) > 0) {
    r = d->PostRunTo(PC + GetInstSize(PC));
  } else {
    r = d->PostStepInst();
  }
  if (Result(Id, r)) S().ExpectHalt(true);
}

// Debug.SetResetMode and Debug.SetConnectMode: an id or a name of the
// variable's selection.
void OnSetMode(int Id, int VarId, const char* sPrefix) {
  if (!CheckArgCount(Id)) return;
  I64 v = -1;
  const QString s = Unquote(GetActionArgs(Id).value(0));
  if (SysVars::ValueFromText(VarId, s, v) != SysVars::TEXT_OK || !SysVars::GetSelectionValues(VarId).contains(v))
    return void(Fail(Id, "invalid parameter"));
  SysVars::SetValue(VarId, v);
  const QString sName = GetConstantName(QLatin1String(sPrefix), v);
  if (!sName.isEmpty()) SetActionArgs(Id, {sName});
  SetActionResult(Id, 0);
}

void OnStart(int Id) {
  if (!CheckArgCount(Id)) return;
  QString sError;
  if (S().Start(&sError) < 0) return void(Fail(Id, sError.isEmpty() ? "job not scheduled" : qPrintable(sError)));
  SetActionResult(Id, 0);
}

void OnStop(int Id) {
  if (!CheckArgCount(Id) || !RequireConnected(Id)) return;
  Result(Id, S().Stop());
}

void OnConnect(int Id) {
  if (!CheckArgCount(Id)) return;
  if (CDevice* d = CDevice::InstanceIfCreated(); d && d->IsConnected()) return void(Fail(Id, "already connected"));
  Result(Id, S().Connect(CONNECT_MODES(SysVars::GetValue(VAR_CONNECT_MODE))));
}

void OnDownload(int Id) {
  if (!CheckArgCount(Id) || !RequireConnected(Id)) return;
  Result(Id, S().DownloadProgram(S().ProgramPath(), 0));
}

void OnContinue(int Id) {
  if (!CheckArgCount(Id) || !RequireHalted(Id)) return;
  if (Result(Id, Device()->PostContinue())) S().ExpectHalt(true);
}

void OnHalt(int Id) {
  if (!CheckArgCount(Id)) return;
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected()) return void(SetActionResult(Id, 0));
  Result(Id, d->PostHalt());
}

void OnReset(int Id) {
  if (!CheckArgCount(Id) || !RequireConnected(Id)) return;
  const I64 Mode = SysVars::GetValue(VAR_RESET_MODE);
  if (!Result(Id, S().Reset(RESET_MODES(Mode)))) return;
  if (Mode == RM_BREAK_AT_SYMBOL) S().ExpectHalt(true);
}

void OnSetNextPC(int Id) {
  if (!CheckArgCount(Id) || !RequireConnected(Id)) return;
  bool Ok = false;
  QString s = Unquote(GetActionArgs(Id).value(0));
  if (s.startsWith(QLatin1String("0x"), Qt::CaseInsensitive)) s = s.mid(2);
  const U64 Addr = s.toULongLong(&Ok, 16);
  if (!Ok || Addr > 0xFFFFFFFFull) return void(Fail(Id, "invalid parameter"));
  Result(Id, Device()->PostWriteReg(PCRegIndex(), Addr));
}

void OnSetNextStatement(int Id) {
  if (!CheckArgCount(Id) || !RequireConnected(Id)) return;
  U64 Addr = 0;
  if (!AddressOfAny(GetActionArgs(Id).value(0), &Addr)) return void(Fail(Id, "invalid parameter"));
  Result(Id, Device()->PostWriteReg(PCRegIndex(), Addr & ~1ull));
}

void OnRunTo(int Id) {
  if (!CheckArgCount(Id) || !RequireConnected(Id)) return;
  U64 Addr = 0;
  if (!AddressOfAny(GetActionArgs(Id).value(0), &Addr)) return void(Fail(Id, "invalid parameter"));
  if (Result(Id, Device()->PostRunTo(U32(Addr & ~1ull)))) S().ExpectHalt(true);
}

}  // namespace

namespace SessionModule {

static CDebugSession* s_pSession = nullptr;

CDebugSession* DebugSession() { return s_pSession; }

void InstallDebugSession() {
  if (s_pSession) return;
  s_pSession = new CDebugSession;
  SetCommandSlot(AID_DEBUG_START, OnStart);
  SetCommandSlot(AID_DEBUG_STOP, OnStop);
  SetCommandSlot(AID_DEBUG_DISCONNECT, OnStop);
  SetCommandSlot(AID_DEBUG_CONNECT, OnConnect);
  SetCommandSlot(AID_DEBUG_DOWNLOAD, OnDownload);
  SetCommandSlot(AID_DEBUG_CONTINUE, OnContinue);
  SetCommandSlot(AID_DEBUG_HALT, OnHalt);
  SetCommandSlot(AID_DEBUG_RESET, OnReset);
  SetCommandSlot(AID_DEBUG_STEP_INTO, [](int Id) { OnStep(Id, JT_STEP_INTO); });
  SetCommandSlot(AID_DEBUG_STEP_OVER, [](int Id) { OnStep(Id, JT_STEP_OVER); });
  SetCommandSlot(AID_DEBUG_STEP_OUT, [](int Id) { OnStep(Id, JT_STEP_OUT); });
  SetCommandSlot(AID_DEBUG_SET_NEXT_PC, OnSetNextPC);
  SetCommandSlot(AID_DEBUG_SET_NEXT_STATEMENT, OnSetNextStatement);
  SetCommandSlot(AID_DEBUG_RUN_TO, OnRunTo);
  SetCommandSlot(AID_DEBUG_SET_RESET_MODE, [](int Id) { OnSetMode(Id, VAR_RESET_MODE, "RM_"); });
  SetCommandSlot(AID_DEBUG_SET_CONNECT_MODE, [](int Id) { OnSetMode(Id, VAR_CONNECT_MODE, "CM_"); });
  // A change of the break symbol takes effect at once.
  if (COMMAND_SLOT SysVarSlot = GetCommandSlot(AID_EDIT_SYS_VAR)) {
    SetCommandSlot(AID_EDIT_SYS_VAR, [SysVarSlot](int Id) {
      const QString sBefore = SysVars::GetString(VAR_BREAK_AT_THIS_SYMBOL);
      SysVarSlot(Id);
      if (SysVars::GetString(VAR_BREAK_AT_THIS_SYMBOL) != sBefore) s_pSession->ApplyBreakSymbol();
    });
  }
}

}  // namespace SessionModule
