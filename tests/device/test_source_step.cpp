// Source steps on the step test program, on both back ends: each row starts
// at a tagged line, takes one step, and is judged by the line it ends on (the
// cross toolchain's line table) and by the step's debug lines, in order.
#include <gtest/gtest.h>

#include "device_fixture.h"
#include "log/log.h"
#include "step_program.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>

namespace {

using steptest::Addr, steptest::Line, steptest::LineAt;

// What a step writes on the debug stream (the halt sequence's lines are left out).
const QRegularExpression kStepLine(
    "^(-+ Step \\w+ -+|PC is on a new source line|Circular step sequence encountered|.*function was e.*|Stepped .*|"
    "Maximum step count reached|Stepping out.*|User breakpoint hit|Continueing.*|PC entered.*)$",
    QRegularExpression::CaseInsensitiveOption);

struct ROW {
  const char *sName, *sStart;  // the step starts on the line tagged sStart
  U32 Job;
  const char* sEnd;   // and ends on the line tagged sEnd ("": on no line)
  QStringList Lines;  // with these debug lines
  const char* sBP = "";  // a user breakpoint during the step, BPOffset bytes into a tagged line
  U32 BPOffset = 0;
  int Pre = 0;  // 1: the return address is known; 2: known, then made stale by an instruction step
};

const QString H = "-------------------- Step Over -------------------------",
              I = "-------------------- Step Into -------------------------",
              O = "-------------------- Step Out -------------------------", One = "Stepped a total of 1 machine instruction(s)",
              Two = "Stepped a total of 2 machine instruction(s)", Max = "Maximum step count reached",
              New = "PC is on a new source line", In = "Function was entered", Out = "Function was exited";
const ROW kRows[] = {
    {"OneInstruction", "ONE_INST", JT_STEP_OVER, "AFTER_ONE", {H, New, One}},
    {"SelfLoop", "SPIN", JT_STEP_OVER, "SPIN", {H, "Circular step sequence encountered", One}},
    {"OverCall", "CALL_PLAIN", JT_STEP_OVER, "AFTER_CALL", {H, In, One}},
    {"OverCallIntoBreakpoint", "CALL_PLAIN", JT_STEP_OVER, "CALLEE_2", {H, In, One}, "CALLEE_2"},
    // The next line (the call) shares its address with the inlined body: no run there, single steps through it.
    {"OverInline", "AFTER_CALL", JT_STEP_OVER, "AFTER_INLINE", {H, Max, Two, New, "Stepped a total of 8 machine instruction(s)"}},
    {"IntoInline", "AFTER_CALL", JT_STEP_INTO, "IN_INLINE", {I, New, "Stepped 2 machine instruction(s)"}},
    {"IntoCall", "CALL_PLAIN", JT_STEP_INTO, "IN_CALLEE", {I, New, "Stepped 1 machine instruction(s)"}},
    {"OverNoLineInfo", "CALL_NODEBUG", JT_STEP_OVER, "AFTER_NODEBUG", {H, In, One}},
    {"IntoNoLineInfo", "CALL_NODEBUG", JT_STEP_INTO, "", {I, In + " that has no source line info", "Stepped 1 machine instruction(s)"}},
    // A branch behind the call: run to the return address, then on through the rest of the line.
    {"OverCallIntoMidLine", "CALL_BRANCH", JT_STEP_OVER, "CALL_IRQ", {H, In, Two, "Stepping out",
     "Continueing source step after resume/halt cycle", H, Max, "Stepped a total of 3 machine instruction(s)", New,
     "Stepped a total of 4 machine instruction(s)"}},
    {"OutOfRecursion", "RECURSE_BASE", JT_STEP_OUT, "RECURSE_CALL", {O, Out, "Stepped 6 machine instruction(s)"}},
    {"OutOfInterrupt", "IN_HANDLER", JT_STEP_OUT, "IRQ_PEND", {O, Out, "Stepped 7 machine instruction(s)"}},
    {"BreakpointSameLine", "MULTI", JT_STEP_OVER, "CALL_PLAIN", {H, Max, Two}, "MULTI", 2},
    {"BreakpointNextLine", "ONE_INST", JT_STEP_OVER, "AFTER_ONE", {H, "User breakpoint hit", One}, "AFTER_ONE"},
    // Last: the return address stays known until the next halt sets it.
    {"OutToKnownReturn", "RECURSE_BASE", JT_STEP_OUT, "RECURSE_CALL", {O}, "", 0, 1},
    {"OutWithStaleReturn", "RECURSE_BASE", JT_STEP_OUT, "RECURSE_CALL", {O, Out, "Stepped 5 machine instruction(s)"}, "", 0, 2},
};

struct CStepLog : CDeviceEventListener {
  QStringList Lines;
  int BPHalts = 0, Reports = 0;  // a step ended by its own halt sequence is reported as a halt
  void OnDeviceLogMsg(const char* s, U32) override { if (kStepLine.match(s).hasMatch()) Lines << s; }
  void OnDeviceHaltDone(U32, HALT_REASONS r) override { BPHalts += r == HALT_REASON_BREAKPOINT, ++Reports; }
  void OnDeviceStepIntoDone(U32) override { ++Reports; }
  void OnDeviceStepOverDone(U32) override { ++Reports; }
  void OnDeviceStepOutDone(U32) override { ++Reports; }
};

class SourceStep : public devtest::CDeviceFixture {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QCoreApplication>();
    SetDebugMode(true);
    ASSERT_TRUE(steptest::LoadProgramAndPlugin());
  }
};

TEST_P(SourceStep, EveryScenarioEndsOnItsLineWithItsDebugLines) {
  ConnectAndDownload();
  const U32 Ret = Addr("RECURSE_CALL", 6);  // behind the recursive call
  for (const ROW& r : kRows) {
    SCOPED_TRACE(r.sName);
    ASSERT_TRUE(steptest::RunToTag(r.sStart)) << r.sStart;
    if (r.Pre) Device()->SetReturnAddr(Ret);
    if (r.Pre == 2) Device()->PostStepInst(), Idle();
    if (*r.sBP) Device()->PostSetBP(Addr(r.sBP, r.BPOffset), BP_STATE_ON, BP_TYPE_ANY), Idle();
    CStepLog Log;
    const U32 Start = Device()->CurrentPC();
    Device()->PostStep(r.Job);
    ASSERT_TRUE(steptest::WaitHalted()) << "the step ends with the target halted";
    const U32 End = Device()->CurrentPC();
    if (r.sEnd == QString("IRQ_PEND")) EXPECT_TRUE(LineAt(End) == Line("IRQ_PEND") || LineAt(End) == Line("IRQ_AFTER"));
    else EXPECT_EQ(LineAt(End), Line(r.sEnd)) << std::hex << End;
    EXPECT_TRUE(r.sName != QString("SelfLoop") || End == Start);
    EXPECT_TRUE(r.Pre != 1 || End == Ret);
    EXPECT_EQ(Log.Lines.join('\n').toStdString(), r.Lines.join('\n').toStdString());
    const int BPHalt = r.sBP == QString("CALLEE_2");
    EXPECT_TRUE(Log.BPHalts == BPHalt && Log.Reports == 1) << "one report: " << Log.BPHalts << " " << Log.Reports;
    if (*r.sBP) Device()->PostClearBP(Addr(r.sBP, r.BPOffset)), Idle();
    EXPECT_EQ(Device()->HiddenBPAddr(), ~0u) << "no hidden breakpoint is left behind";
  }
}

INSTANTIATE_TEST_SUITE_P(Backends, SourceStep, ::testing::Values(steptest::kSimMps2, steptest::kQemuMps2),
                         devtest::PrintBackend);

}  // namespace
