// Run control on both back ends with the MPS2 firmware: where and why the
// target halts, what the halt sequence logs, breakpoint conditions decided on
// this thread with one resume per unmet hit (the probe's call log), skip
// counts, run-to with and without the hidden breakpoint, reset and the reset
// word, a compiled-in break instruction, and a GDB server that dies.
#include <gtest/gtest.h>

#include "device/bpmodel.h"
#include "device/device.h"
#include "device/events.h"
#include "device/loadimage.h"
#include "device/module.h"
#include "device/projectsettings.h"
#include "device/targetmem.h"
#include "disasm/instinstall.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "plugins/corehost.h"
#include "target_support.h"
#include "testsupport/readelf_oracle.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <csignal>

namespace {

using devtest::BACKEND;

// The simulator models the QEMU board: one firmware for both back ends.
const BACKEND kSimMps2{"sim", "MPS2-AN385", "USB", "firmware/gdb/elf/gdbtest_an385.elf", "g_table", "", 0x24000000, false};

struct NoProject : ICorePluginProject {
  QString CorePluginPath() const override { return {}; }
  void SetCorePluginPath(const QString&) override {}
  bool DialogsAllowed() const override { return false; }
  QString AskCorePluginFile(const QString&, const QString&, const QString&) override { return {}; }
};

struct CRecorder : CDeviceEventListener {
  QStringList Log;
  std::vector<std::pair<U32, int>> Halts;
  std::vector<U32> RunToDone, Resets, ResetsFailed;
  int Lost = 0;
  void OnDeviceLogMsg(const char* s, U32) override { Log << s; }
  void OnDeviceHaltDone(U32 Pc, HALT_REASONS r) override { Halts.emplace_back(Pc, int(r)); }
  void OnDeviceRunToSymbolDone(U32 Pc) override { RunToDone.push_back(Pc); }
  void OnDeviceResetDone(U32 Pc, RESET_MODES) override { Resets.push_back(Pc); }
  void OnDeviceResetFailed(U32 Pc, RESET_MODES) override { ResetsFailed.push_back(Pc); }
  void OnDeviceConnectionLost() override { ++Lost; }
  bool Logged(const char* s) const { return Log.contains(QString::fromLatin1(s)); }
};

class RunControl : public ::testing::TestWithParam<BACKEND> {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QCoreApplication>();
    static NoProject s_Project;
    CORE_SetProject(&s_Project);
    DeviceModule::Install();
    DisasmModule::Install();
    DWARF_Install();
    ASSERT_EQ(CElfApi::Instance().Load(devtest::SourcePath(kSimMps2.sFirmware)), 0);
    ASSERT_GE(LoadCorePlugin(CORE_CoreOfDevice("MPS2-AN385")), 0);
    DisasmModule::Sync(true);
    CBreakpointsDataModel::Instance();  // the condition side listens from now on
  }
  void SetUp() override {
    const BACKEND& b = GetParam();
    if (QString(b.sHostIF) == "IP" && !devtest::CTargetRig::HaveQemu()) GTEST_SKIP() << "no qemu-system-arm";
    Rig = std::make_unique<devtest::CTargetRig>(b);
    IDeviceProjectSettings& p = DeviceModule::ProjectSettings();
    p.SetDevice(b.sDevice), p.SetHostIF(b.sHostIF, Rig->Ident()), p.SetTargetIF("SWD"), p.SetLogFile(Dir.filePath("calls.log"));
    Idle();
    ConnectAndDownload();
  }
  void TearDown() override {
    if (!Rig) return;
    Device()->PostClearAllBPs(), Device()->PostDisconnect();
    Idle();
  }
  void Idle() { ASSERT_EQ(DeviceModule::WaitUntilIdle(20000), 0); }
  void ConnectAndDownload() {
    Device()->PostConnect(CM_DOWNLOAD_RESET);
    Idle();
    ASSERT_TRUE(Device()->IsConnected());
    std::vector<DEV_LOAD_BLOCK> Blocks;
    ASSERT_TRUE(DEV_ReadLoadSegments(devtest::SourcePath(GetParam().sFirmware), &Blocks, nullptr));
    Device()->PostHalt();
    for (const DEV_LOAD_BLOCK& b : Blocks) {
      const U32 r[2] = {b.LoadAddr, b.LoadAddr + U32(b.Data.size())};
      Device()->PostWriteMemMultiple(1, r, r[1] - r[0], (const U8*)b.Data.constData(), 0, AW_ANY, MEM_FLAG_BEGIN_DOWNLOAD);
    }
    Device()->PostEndDownload("fw", 0), Device()->PostReset(RM_RESET_HALT);
    Idle();
    ASSERT_TRUE(Device()->HaltReported());
  }
  // Waits (delivering reports, so that conditions get their answers) until
  // the halt is reported; false after Ms.
  bool WaitHalted(int Ms = 5000) {
    Idle();  // the job that resumes has run
    QElapsedTimer t;
    // The sequence ends after its report is queued.
    auto Stopped = [] { return Device()->HaltReported() && !Device()->IsHaltSeqActive(); };
    for (t.start(); !Stopped() && t.elapsed() < Ms;) DeviceModule::WaitUntilIdle(20);
    Idle();
    return Device()->HaltReported();
  }
  // Resumes and waits: the PC of the halt, 0 when it still runs (then halted).
  U32 Go(int Ms = 5000) {
    Device()->PostContinue();
    if (WaitHalted(Ms)) return Device()->CurrentPC();
    Device()->PostHalt();
    WaitHalted();
    return 0;
  }
  U32 Sym(const char* s) {
    for (const readelf::Symbol& x : readelf::Symbols(devtest::SourcePath(GetParam().sFirmware).toStdString()))
      if (x.Name == s) return U32(x.Value) & ~1u;
    ADD_FAILURE() << "no symbol " << s;
    return 0;
  }
  U32 Word(const char* s) {
    U32 v = 0;
    U8 St[4];
    EXPECT_EQ(DEV_ReadTargetMemory(Sym(s), 4, (U8*)&v, St, nullptr), 4);
    return v;
  }
  void SetBP(U32 a, BP_STATES s = BP_STATE_ON) { Device()->PostSetBP(a, s, BP_TYPE_ANY), Idle(); }
  // Breakpoint with edit fields through the model, as the window sets it.
  void SetBPWith(U32 a, const QString& sCond, int Skip = 0, bool Reload = false) {
    SetBP(a);
    CBreakpointInfo i;
    i.Addr = a, i.Condition = sCond, i.SkipCount = Skip, i.ReloadSkip = Reload;
    ASSERT_TRUE(CBreakpointsDataModel::Instance().Edit(i));
  }
  int GoCalls() const {
    return QString(devtest::ReadFileText(Dir.filePath("calls.log"))).split('\n').filter(QRegularExpression("^VORDENARM_GoEx")).size();
  }
  QTemporaryDir Dir;
  std::unique_ptr<devtest::CTargetRig> Rig;
  CRecorder Rec;
};

TEST_P(RunControl, BreakpointHaltRunsTheSequenceAndReportsReasonTwo) {
  const U32 Work = Sym("Work");
  SetBP(Work);
  Rec.Halts.clear(), Rec.Log.clear();
  ASSERT_EQ(Go(), Work);
  ASSERT_EQ(Rec.Halts.size(), 1u);
  EXPECT_EQ(Rec.Halts[0], std::make_pair(Work, 2));
  const QStringList Want{"Resuming target...", "Target has halted. Evaluating halt conditions...",
                         "Target has halted and all halt conditions were passed"};
  int At = -1;
  for (const QString& s : Want) {
    const int i = Rec.Log.indexOf(s, At + 1);
    EXPECT_GT(i, At) << s.toStdString() << " in order";
    At = std::max(At, i);
  }
  EXPECT_EQ(Device()->GetBreakpoint(Work).HitCount, 1u);
  // The execution state: PC, SP, and the function from the symbol layer.
  const DEVICE_EXEC_STATE e = Device()->ExecState();
  EXPECT_EQ(e.PC, Work);
  EXPECT_EQ(e.PCStatus, EXEC_STATUS_VALID);
  EXPECT_TRUE(e.SP >= 0x20000000 && e.SP < 0x24000000) << std::hex << e.SP;
  EXPECT_EQ(e.FuncStart, Work);
  EXPECT_GT(e.FuncEnd, e.FuncStart);
  EXPECT_GT(e.CurrLine, 0u);
  // An instruction step moves the PC and keeps the target reported halted.
  Device()->PostStepInst();
  Idle();
  EXPECT_NE(Device()->CurrentPC(), Work);
  EXPECT_TRUE(Device()->HaltReported());
}

TEST_P(RunControl, RunToUsesTheUserBreakpointOrAHiddenOne) {
  const U32 Work = Sym("Work"), Mix = Sym("Mix");
  // Onto an enabled user breakpoint: no hidden one, an ordinary breakpoint halt.
  SetBP(Work);
  Rec.Halts.clear();
  Device()->PostRunTo(Work);
  Idle();
  EXPECT_EQ(Device()->HiddenBPAddr(), ~0u);
  ASSERT_TRUE(WaitHalted());
  EXPECT_EQ(Rec.Halts, (std::vector<std::pair<U32, int>>{{Work, 2}}));
  // Elsewhere: the hidden breakpoint, reason 3, and afterwards no trace of it.
  Device()->PostClearBP(Work);
  Rec.Halts.clear();
  Device()->PostRunTo(Mix);
  Idle();
  EXPECT_EQ(Device()->HiddenBPAddr(), Mix);
  EXPECT_EQ(Device()->PendingOp(), U32(JT_RUN_TO));
  ASSERT_TRUE(WaitHalted());
  EXPECT_EQ(Rec.Halts, (std::vector<std::pair<U32, int>>{{Mix, 3}}));
  EXPECT_EQ(Device()->HiddenBPAddr(), ~0u);
  EXPECT_EQ(Device()->Probe().VORDENARM_FindBP(Mix), 0);
  EXPECT_EQ(Device()->PendingOp(), 0u);
  EXPECT_TRUE(Rec.RunToDone.empty()) << "not the break symbol";
  // Over a disabled one, to the break symbol: the run-to report, the
  // disabled entry given back.
  SetBP(Work, BP_STATE_DISABLED);
  Device()->Config().Store(DEV_CFG_BREAK_AT_SYMBOL_ADDR, int(Work));
  Device()->PostRunTo(Work);
  ASSERT_TRUE(WaitHalted());
  EXPECT_EQ(Rec.RunToDone, std::vector<U32>{Work});
  EXPECT_EQ(Device()->GetBreakpoint(Work).State, BP_STATE_DISABLED);
  EXPECT_EQ(Device()->Probe().VORDENARM_FindBP(Work), 0);
  Device()->Config().Store(DEV_CFG_BREAK_AT_SYMBOL_ADDR, 0);
  // A run-to while it runs is refused with the step texts.
  Device()->PostContinue();
  Idle();
  Rec.Log.clear();
  Device()->PostRunTo(Mix);
  Idle();
  EXPECT_TRUE(Rec.Logged("cannot step. target not halted") && Rec.Logged("run to: target not ready"));
  Device()->PostHalt();
  EXPECT_TRUE(WaitHalted());
}

TEST_P(RunControl, ResetHaltsAtTheResetHandlerAndTheResetWordWorksUnconnected) {
  const U32 Entry = Sym("Reset_Handler");
  Go(300);  // somewhere in the loop
  Rec.Resets.clear();
  Device()->PostReset(RM_RESET_HALT);
  Idle();
  EXPECT_EQ(Rec.Resets, std::vector<U32>{Entry});
  EXPECT_EQ(Device()->CurrentPC(), Entry);
  EXPECT_EQ(Device()->LastResetMode(), U32(RM_RESET_HALT));
  EXPECT_TRUE(Device()->HaltReported() && !Device()->IsRunning());
  // Not connected: FinishReset runs anyway and its exec state fails.
  Device()->PostDisconnect();
  Idle();
  Rec.Log.clear();
  Device()->SetResetWord(RM_RESET_HALT);
  Idle();
  QElapsedTimer t;
  for (t.start(); Rec.ResetsFailed.empty() && t.elapsed() < 2000;) DeviceModule::WaitUntilIdle(20);
  EXPECT_EQ(Rec.ResetsFailed.size(), 1u);
  EXPECT_TRUE(Rec.Logged("SetTargetExecState: not connected"));
  ConnectAndDownload();
}

TEST_P(RunControl, ConditionStopsWhereItHoldsWithOneResumePerUnmetHit) {
  const U32 Work = Sym("Work");
  SetBPWith(Work, "g_counter == 5");
  const int Before = GoCalls();
  ASSERT_EQ(Go(), Work);
  EXPECT_EQ(Word("g_counter"), 5u);
  EXPECT_EQ(Device()->GetBreakpoint(Work).HitCount, 5u);
  EXPECT_EQ(GoCalls() - Before, 5) << "the resume, then one per unmet hit";
  // A condition that fails to evaluate never stops; one that cannot be parsed always does.
  SetBPWith(Work, "g_no_such_variable == 1");
  EXPECT_EQ(Go(800), 0u);
  EXPECT_GE(Device()->GetBreakpoint(Work).HitCount, 7u);
  SetBPWith(Work, "g_counter ==");
  const U32 c = Word("g_counter");
  EXPECT_EQ(Go(), Work);
  EXPECT_EQ(Word("g_counter"), c + 1);
}

TEST_P(RunControl, SkipCountsStopAtTheHitsTheyLeave) {
  const U32 Work = Sym("Work");
  for (bool Reload : {false, true}) {
    SCOPED_TRACE(Reload ? "reload" : "no reload");
    Device()->PostReset(RM_RESET_HALT);  // counter and hits from zero
    Device()->PostResetBPs();
    Idle();
    SetBPWith(Work, "", 2, Reload);
    std::vector<U32> Stops;
    for (int i = 0; i < 3; ++i) {
      ASSERT_EQ(Go(), Work);
      Stops.push_back(Word("g_counter"));
    }
    EXPECT_EQ(Stops, Reload ? (std::vector<U32>{3, 6, 9}) : (std::vector<U32>{3, 4, 5}));
  }
}

TEST_P(RunControl, UserHaltStopsAtAFalseCondition) {
  const U32 Work = Sym("Work");
  SetBPWith(Work, "0");
  Device()->PostContinue();
  Idle();
  QElapsedTimer t;
  for (t.start(); Device()->GetBreakpoint(Work).HitCount < 3 && t.elapsed() < 5000;) DeviceModule::WaitUntilIdle(20);
  ASSERT_GE(Device()->GetBreakpoint(Work).HitCount, 3u) << "the condition was asked and the target went on";
  EXPECT_FALSE(Device()->HaltReported());
  Device()->PostHalt();
  EXPECT_TRUE(WaitHalted(2000));
  const U64 Hits = Device()->GetBreakpoint(Work).HitCount;
  DeviceModule::WaitUntilIdle(300);
  EXPECT_TRUE(Device()->HaltReported() && Device()->GetBreakpoint(Work).HitCount == Hits) << "it stays stopped";
}

TEST_P(RunControl, ContinueStepsOverACompiledInBreak) {
  // QEMU's M-profile model takes a BKPT other than the semihosting one as a
  // HardFault, not as a debug stop, so only the simulator stops there.
  if (QString(GetParam().sHostIF) == "IP") GTEST_SKIP() << "QEMU faults on BKPT instead of halting";
  const U32 Break = Sym("BreakHere"), Work = Sym("Work");
  Go(300);  // past the start-up code, which clears the flag
  ASSERT_TRUE(Device()->HaltReported());
  const U32 One = 1;
  Device()->PostWriteMem(Sym("g_break"), 4, 0, AW_WORD, 0, (const U8*)&One);
  Idle();
  ASSERT_EQ(Go(), Break) << "stops at the break instruction";
  SetBP(Work);
  EXPECT_EQ(Go(), Work) << "went on past it";
  EXPECT_EQ(Word("g_breaks"), 1u);
}

TEST_P(RunControl, DeadServerGivesConnectionLostInTime) {
  if (QString(GetParam().sHostIF) != "IP") GTEST_SKIP() << "a GDB server only";
  Device()->PostContinue();
  Idle();
  Rec.Lost = 0, Rec.Log.clear();
  QElapsedTimer t;
  t.start();
  kill(Rig->Qemu()->pid, SIGKILL);
  while (Rec.Lost == 0 && t.elapsed() < 5000) DeviceModule::WaitUntilIdle(20);
  EXPECT_EQ(Rec.Lost, 1);
  EXPECT_LT(t.elapsed(), 2000);
  EXPECT_TRUE(Rec.Logged("Invalid connection status received"));
  EXPECT_TRUE(Device()->IsConnectionLost());
  EXPECT_EQ(Device()->PostContinue(), 0);
  Idle();
  EXPECT_TRUE(Rec.Logged("Continue: connection lost"));
}

INSTANTIATE_TEST_SUITE_P(Backends, RunControl, ::testing::Values(kSimMps2, devtest::kQemu), devtest::PrintBackend);

}  // namespace
