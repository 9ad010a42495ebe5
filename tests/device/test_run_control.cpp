// Run control on both back ends with the MPS2 firmware: where and why the
// target halts and what the halt sequence logs, conditions decided on this
// thread with one resume per unmet hit (the probe's call log), skip counts,
// run-to, reset and the reset word, a compiled-in break, a dying GDB server.
#include <gtest/gtest.h>

#include "device/bpmodel.h"
#include "device/targetmem.h"
#include "device_fixture.h"
#include "disasm/instinstall.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "plugins/corehost.h"
#include "testsupport/coreproject.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>
#include <csignal>

namespace {

using devtest::BACKEND;
using HALTS = std::vector<std::pair<U32, int>>;
// The simulator models the QEMU board: one firmware for both back ends.
const BACKEND kSimMps2{"sim", "MPS2-AN385", "USB", "firmware/gdb/elf/gdbtest_an385.elf", "g_table", "", 0x24000000, false};

struct CRecorder : CDeviceEventListener {
  QStringList Log;
  HALTS Halts, Resets;  // (PC, reason) and (PC, failed)
  std::vector<U32> RunToDone;
  int Lost = 0;
  void OnDeviceLogMsg(const char* s, U32) override { Log << s; }
  void OnDeviceHaltDone(U32 Pc, HALT_REASONS r) override { Halts.emplace_back(Pc, int(r)); }
  void OnDeviceRunToSymbolDone(U32 Pc) override { RunToDone.push_back(Pc); }
  void OnDeviceResetDone(U32 Pc, RESET_MODES) override { Resets.emplace_back(Pc, 0); }
  void OnDeviceResetFailed(U32 Pc, RESET_MODES) override { Resets.emplace_back(Pc, 1); }
  void OnDeviceConnectionLost() override { ++Lost; }
  bool Logged(const char* s) const { return Log.contains(QString::fromLatin1(s)); }
};

class RunControl : public devtest::CDeviceFixture {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QCoreApplication>();
    static CNoCoreProject s_Project;
    CORE_SetProject(&s_Project);
    DeviceModule::Install(), DisasmModule::Install(), DWARF_Install();
    ASSERT_EQ(CElfApi::Instance().Load(devtest::SourcePath(kSimMps2.sFirmware)), 0);
    ASSERT_GE(LoadCorePlugin(CORE_CoreOfDevice("MPS2-AN385")), 0);
    DisasmModule::Sync(true);
    CBreakpointsDataModel::Instance();  // the condition side listens from now on
  }
  void SetUp() override {
    devtest::CDeviceFixture::SetUp();
    if (!IsSkipped()) ConnectAndDownload();
  }
  U32 Word(const char* s) {
    U32 v = 0, St;
    EXPECT_EQ(DEV_ReadTargetMemory(Sym(s), 4, (U8*)&v, (U8*)&St), 4);
    return v;
  }
  // A breakpoint with edit fields, set through the model as the window does.
  void SetBPWith(U32 a, const QString& sCond, int Skip = 0, bool Reload = false, bool OnChange = false) {
    SetBP(a);
    CBreakpointInfo i;
    i.Addr = a, i.Condition = sCond, i.SkipCount = Skip, i.ReloadSkip = Reload, i.TriggerOnChange = OnChange;
    ASSERT_TRUE(CBreakpointsDataModel::Instance().Edit(i));
  }
  int GoCalls() const { return Calls().filter(QRegularExpression("^VORDENARM_GoEx")).size(); }
  CRecorder Rec;
};

TEST_P(RunControl, BreakpointHaltRunsTheSequenceAndReportsReasonTwo) {
  const U32 Work = Sym("Work");
  SetBP(Work);
  Rec.Halts.clear(), Rec.Log.clear();
  ASSERT_EQ(Go(), Work);
  EXPECT_EQ(Rec.Halts, (HALTS{{Work, 2}}));
  EXPECT_TRUE(Rec.Logged("Resuming target...") && Rec.Logged("Target has halted. Evaluating halt conditions...") &&
              Rec.Logged("Target has halted and all halt conditions were passed"));
  EXPECT_EQ(Device()->GetBreakpoint(Work).HitCount, 1u);
  const DEVICE_EXEC_STATE e = Device()->ExecState();  // PC, SP, and the function from the symbol layer
  EXPECT_TRUE(e.PC == Work && e.PCStatus == EXEC_STATUS_VALID && e.FuncStart == Work && e.FuncEnd > Work && e.CurrLine > 0);
  EXPECT_TRUE(e.SP >= 0x20000000 && e.SP < 0x24000000) << std::hex << e.SP;
  Device()->PostStepInst(), Idle();
  EXPECT_TRUE(Device()->CurrentPC() != Work && Device()->HaltReported());
}

TEST_P(RunControl, RunToUsesTheUserBreakpointOrAHiddenOne) {
  const U32 Work = Sym("Work"), Mix = Sym("Mix");
  SetBP(Work);  // an enabled user breakpoint there: no hidden one, reason 2
  Rec.Halts.clear();
  Device()->PostRunTo(Work), Idle();
  EXPECT_EQ(Device()->HiddenBPAddr(), ~0u);
  ASSERT_TRUE(WaitHalted());
  // (Whether the hidden breakpoint is still in force when the jobs are done
  // depends on how soon the poll sees the stop; reason 3 tells it was used.)
  Device()->PostClearBP(Work), Device()->PostRunTo(Mix), Idle();
  ASSERT_TRUE(WaitHalted());
  EXPECT_EQ(Rec.Halts, (HALTS{{Work, 2}, {Mix, 3}}));
  EXPECT_TRUE(Device()->HiddenBPAddr() == ~0u && Device()->Probe().VORDENARM_FindBP(Mix) == 0 && Device()->PendingOp() == 0);
  // Over a disabled one, to the break symbol: the run-to report, the entry given back.
  SetBP(Work, BP_STATE_DISABLED);
  Device()->Config().Store(DEV_CFG_BREAK_AT_SYMBOL_ADDR, int(Work));
  Device()->PostRunTo(Work);
  ASSERT_TRUE(WaitHalted());
  Device()->Config().Store(DEV_CFG_BREAK_AT_SYMBOL_ADDR, 0);
  EXPECT_EQ(Rec.RunToDone, std::vector<U32>{Work});
  EXPECT_TRUE(Device()->GetBreakpoint(Work).State == BP_STATE_DISABLED && Device()->Probe().VORDENARM_FindBP(Work) == 0);
  Device()->PostContinue(), Idle();
  Device()->PostRunTo(Mix), Idle();  // not while it runs
  EXPECT_TRUE(Rec.Logged("cannot step. target not halted") && Rec.Logged("run to: target not ready"));
  Device()->PostHalt();
  EXPECT_TRUE(WaitHalted());
}

TEST_P(RunControl, ResetHaltsAtTheResetHandlerAndTheResetWordWorksUnconnected) {
  Go(300);
  Rec.Resets.clear();
  Device()->PostReset(RM_RESET_HALT), Idle();
  EXPECT_EQ(Rec.Resets, (HALTS{{Sym("Reset_Handler"), 0}}));
  EXPECT_TRUE(Device()->CurrentPC() == Sym("Reset_Handler") && Device()->HaltReported() && !Device()->IsRunning());
  Device()->PostDisconnect(), Idle();
  Device()->SetResetWord(RM_RESET_HALT);  // FinishReset runs anyway; its exec state fails
  WaitFor([&] { return Rec.Resets.size() >= 2; }, 2000);
  EXPECT_TRUE(Rec.Resets.size() == 2 && Rec.Resets[1].second == 1 && Rec.Logged("SetTargetExecState: not connected"));
  ConnectAndDownload();
}

TEST_P(RunControl, ConditionsStopWhereTheyHoldWithOneResumePerUnmetHit) {
  const U32 Work = Sym("Work");  // called once per pass, after g_counter counts the pass
  SetBPWith(Work, "g_counter == 5");
  const int Before = GoCalls();
  ASSERT_EQ(Go(), Work);
  EXPECT_TRUE(Word("g_counter") == 5 && Device()->GetBreakpoint(Work).HitCount == 5);
  EXPECT_EQ(GoCalls() - Before, 5) << "the resume, then one per unmet hit";
  SetBPWith(Work, "g_no_such_variable == 1");  // fails to evaluate: never stops
  EXPECT_EQ(Go(800), 0u);
  EXPECT_GE(Device()->GetBreakpoint(Work).HitCount, 7u);
  SetBPWith(Work, "g_counter ==");  // cannot be parsed: always stops
  const U32 c = Word("g_counter");
  EXPECT_EQ(Go(), Work);
  EXPECT_EQ(Word("g_counter"), c + 1);
  for (int Mode : {0, 1, 2}) {  // skip count 2 without and with reload; when g_counter / 3 changes
    Device()->PostReset(RM_RESET_HALT), Device()->PostResetBPs();
    SetBPWith(Work, Mode == 2 ? "g_counter / 3" : "", Mode == 2 ? 0 : 2, Mode == 1, Mode == 2);
    std::vector<U32> Stops;
    for (int i = 0; i < 3 && Go() == Work; ++i) Stops.push_back(Word("g_counter"));
    EXPECT_EQ(Stops, Mode ? (std::vector<U32>{3, 6, 9}) : (std::vector<U32>{3, 4, 5})) << Mode;
  }
}

TEST_P(RunControl, UserHaltStopsAtAFalseCondition) {
  const U32 Work = Sym("Work");
  SetBPWith(Work, "0");
  Device()->PostContinue(), Idle();
  ASSERT_TRUE(WaitFor([&] { return Device()->GetBreakpoint(Work).HitCount >= 3; }, 5000) && !Device()->HaltReported());
  Device()->PostHalt();
  EXPECT_TRUE(WaitHalted(2000));
  const U64 Hits = Device()->GetBreakpoint(Work).HitCount;
  DeviceModule::WaitUntilIdle(300);
  EXPECT_TRUE(Device()->HaltReported() && Device()->GetBreakpoint(Work).HitCount == Hits) << "it stays stopped";
}

TEST_P(RunControl, ContinueStepsOverACompiledInBreak) {
  // QEMU's M-profile model takes a BKPT other than the semihosting one as a
  // HardFault, not as a debug stop: only the simulator stops there.
  if (QString(GetParam().sHostIF) == "IP") GTEST_SKIP() << "QEMU faults on BKPT instead of halting";
  Go(300);  // past the start-up code, which clears the flag
  const U32 One = 1;
  Device()->PostWriteMem(Sym("g_break"), 4, 0, AW_WORD, 0, (const U8*)&One), Idle();
  ASSERT_EQ(Go(), Sym("BreakHere"));
  SetBP(Sym("Work"));
  EXPECT_EQ(Go(), Sym("Work")) << "went on past it";
  EXPECT_EQ(Word("g_breaks"), 1u);
}

TEST_P(RunControl, DeadServerGivesConnectionLostInTime) {
  if (QString(GetParam().sHostIF) != "IP") GTEST_SKIP() << "a GDB server only";
  Device()->PostContinue(), Idle();
  QElapsedTimer t;
  t.start();
  kill(Rig->Qemu()->pid, SIGKILL);
  WaitFor([&] { return Rec.Lost > 0; }, 5000);
  EXPECT_TRUE(Rec.Lost == 1 && t.elapsed() < 2000) << t.elapsed();
  EXPECT_TRUE(Rec.Logged("Invalid connection status received") && Device()->IsConnectionLost());
  Device()->PostContinue(), Idle();
  EXPECT_TRUE(Rec.Logged("Continue: connection lost"));
}

INSTANTIATE_TEST_SUITE_P(Backends, RunControl, ::testing::Values(kSimMps2, devtest::kQemu), devtest::PrintBackend);

}  // namespace
