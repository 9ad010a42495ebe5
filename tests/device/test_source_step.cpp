// Source steps on the step test program, on both back ends: each row starts
// at a tagged line, takes one step, and is judged by the line it ends on (the
// cross compiler's line table) and by the step's debug lines, in order.
#include <gtest/gtest.h>

#include "device/projectsettings.h"
#include "log/log.h"
#include "step_program.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>

namespace {

using steptest::kElf;

// What a step writes on the debug stream (other lines are the halt sequence's).
const QRegularExpression kStepLine(
    "^(-+ Step \\w+ -+|PC is on a new source line|Circular step sequence encountered|.*function was entered.*|"
    "Function was .*|Maximum step count reached|Stepped .*|Stepping out.*|User breakpoint hit|Continueing.*|PC entered.*)$",
    QRegularExpression::CaseInsensitiveOption);

struct ROW {
  const char* sName;
  const char* sStart;  // tag of the line the step starts on
  U32 Job;
  const char* sEnd;    // tag of the line it ends on; "@name": the start of that symbol
  QStringList Lines;   // the step's debug lines
  const char* sBP = "";    // a user breakpoint during the step (tag, "+2": 2 bytes into the line)
  int Pre = 0;             // 1: return address known; 2: known, then an instruction step makes it stale
};

const QString H = "-------------------- Step Over -------------------------",
              I = "-------------------- Step Into -------------------------",
              O = "-------------------- Step Out -------------------------";
const ROW kRows[] = {
    {"OneInstruction", "ONE_INST", JT_STEP_OVER, "AFTER_ONE", {H, "PC is on a new source line", "Stepped a total of 1 machine instruction(s)"}},
    {"SelfLoop", "SPIN", JT_STEP_OVER, "SPIN", {H, "Circular step sequence encountered", "Stepped a total of 1 machine instruction(s)"}},
    {"OverCall", "CALL_PLAIN", JT_STEP_OVER, "AFTER_CALL", {H, "Function was entered", "Stepped a total of 1 machine instruction(s)"}},
    {"OverCallIntoBreakpoint", "CALL_PLAIN", JT_STEP_OVER, "CALLEE_2", {H, "Function was entered", "Stepped a total of 1 machine instruction(s)"}, "CALLEE_2"},
    {"OverInline", "AFTER_CALL", JT_STEP_OVER, "AFTER_INLINE", {H, "Maximum step count reached", "Stepped a total of 2 machine instruction(s)"}},
    {"IntoInline", "AFTER_CALL", JT_STEP_INTO, "IN_INLINE", {I, "PC is on a new source line", "Stepped 2 machine instruction(s)"}},
    {"IntoCall", "CALL_PLAIN", JT_STEP_INTO, "IN_CALLEE", {I, "PC is on a new source line", "Stepped 1 machine instruction(s)"}},
    {"OverNoLineInfo", "CALL_NODEBUG", JT_STEP_OVER, "AFTER_NODEBUG", {H, "Function was entered", "Stepped a total of 1 machine instruction(s)"}},
    {"IntoNoLineInfo", "CALL_NODEBUG", JT_STEP_INTO, "@nodebug_work", {I, "Function was entered that has no source line info", "Stepped 1 machine instruction(s)"}},
    {"OutOfRecursion", "RECURSE_BASE", JT_STEP_OUT, "RECURSE_CALL", {O, "Function was exited", "Stepped 6 machine instruction(s)"}},
    {"OutToKnownReturn", "RECURSE_BASE", JT_STEP_OUT, "RECURSE_CALL", {O}, "", 1},
    {"OutWithStaleReturn", "RECURSE_BASE", JT_STEP_OUT, "RECURSE_CALL", {O, "Function was exited", "Stepped 5 machine instruction(s)"}, "", 2},
    {"OutOfInterrupt", "IN_HANDLER", JT_STEP_OUT, "IRQ_PEND", {O, "Function was exited", "Stepped 7 machine instruction(s)"}},
    {"BreakpointSameLine", "MULTI", JT_STEP_OVER, "CALL_PLAIN", {H, "Maximum step count reached", "Stepped a total of 2 machine instruction(s)"}, "MULTI+2"},
    {"BreakpointNextLine", "ONE_INST", JT_STEP_OVER, "AFTER_ONE", {H, "User breakpoint hit", "Stepped a total of 1 machine instruction(s)"}, "AFTER_ONE"},
};

struct CStepLog : CDeviceEventListener {
  QStringList Lines;
  int BPHalts = 0, StepReports = 0;
  void OnDeviceLogMsg(const char* s, U32) override { if (kStepLine.match(s).hasMatch()) Lines << s; }
  void OnDeviceHaltDone(U32, HALT_REASONS r) override { BPHalts += r == HALT_REASON_BREAKPOINT; }
  void OnDeviceStepIntoDone(U32) override { ++StepReports; }
  void OnDeviceStepOverDone(U32) override { ++StepReports; }
  void OnDeviceStepOutDone(U32) override { ++StepReports; }
};

class SourceStep : public devtest::CBackendBatch {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QCoreApplication>();
    SetDebugMode(true);
    ASSERT_TRUE(steptest::LoadProgramAndPlugin());
  }
  void Idle() { ASSERT_EQ(DeviceModule::WaitUntilIdle(20000), 0); }
};

TEST_P(SourceStep, EveryScenarioEndsOnItsLineWithItsDebugLines) {
  devtest::CTargetRig Rig(GetParam());
  IDeviceProjectSettings& p = DeviceModule::ProjectSettings();
  p.SetDevice(GetParam().sDevice), p.SetHostIF(GetParam().sHostIF, Rig.Ident()), p.SetTargetIF("SWD");
  ASSERT_TRUE(devtest::ConnectAndDownload(devtest::SourcePath(kElf)));
  const steptest::PROGRAM& P = steptest::Program();
  for (const ROW& r : kRows) {
    SCOPED_TRACE(r.sName);
    ASSERT_TRUE(steptest::RunToTag(r.sStart)) << r.sStart;
    const U32 Ret = P.Addr("RECURSE_CALL+6");  // behind the recursive call
    if (r.Pre) Device()->SetReturnAddr(Ret);
    if (r.Pre == 2) Device()->PostStepInst(), Idle();
    if (*r.sBP) Device()->PostSetBP(P.Addr(r.sBP), BP_STATE_ON, BP_TYPE_ANY), Idle();
    CStepLog Log;
    const U32 Start = Device()->CurrentPC();
    Device()->PostStep(r.Job);
    ASSERT_TRUE(steptest::WaitHalted()) << "the step ends with the target halted";
    const U32 End = Device()->CurrentPC();
    if (*r.sEnd == '@') EXPECT_EQ(End, P.Symbol(r.sEnd + 1));
    else if (QString(r.sName) == "OutOfInterrupt") EXPECT_TRUE(P.LineAt(End) == P.Line("IRQ_PEND") || P.LineAt(End) == P.Line("IRQ_AFTER"));
    else EXPECT_EQ(P.LineAt(End), P.Line(r.sEnd)) << std::hex << End;
    if (QString(r.sName) == "SelfLoop") EXPECT_EQ(End, Start);
    if (r.Pre == 1) EXPECT_EQ(End, Ret);
    EXPECT_EQ(Log.Lines.join('\n').toStdString(), r.Lines.join('\n').toStdString());
    EXPECT_EQ(Log.BPHalts + Log.StepReports, 1) << "one report: a breakpoint halt or the step's";
    EXPECT_EQ(Log.BPHalts, *r.sBP && r.Job == JT_STEP_OVER && QString(r.sBP) == "CALLEE_2" ? 1 : 0);
    if (*r.sBP) Device()->PostClearBP(P.Addr(r.sBP)), Idle();
    EXPECT_EQ(Device()->HiddenBPAddr(), ~0u) << "no hidden breakpoint is left behind";
  }
  Device()->PostDisconnect();
  Idle();
}

INSTANTIATE_TEST_SUITE_P(Backends, SourceStep, ::testing::Values(steptest::kSimMps2, steptest::kQemuMps2), devtest::PrintBackend);

}  // namespace
