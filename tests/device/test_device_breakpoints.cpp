// The breakpoint tables: their rules without a target, then real firmware on
// both back ends, judged by where it halts, the probe's look-ups and call log.
#include <gtest/gtest.h>

#include "device/device.h"
#include "device_fixture.h"
#include "fake_probe.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>

namespace {

void App() { static QCoreApplication* p = NewTestApp<QCoreApplication>(); (void)p; }

TEST(DeviceBpTables, TableRulesWithoutATarget) {
  App();
  CDevice* d = CDevice::CreateWithProbe(fakeprobe::Table());
  for (U32 a : {0x100u, 0x200u, 0x300u}) ASSERT_EQ(d->SetBreakpoint(a, BP_STATE_ON, BP_TYPE_SOFT), 0);
  for (int i = 0; i < 3; ++i) const_cast<DEVICE_BP&>(d->BpEntry(i)).HitCount = 10 + i;  // the halt sequence's count
  d->SetBPHasCondition(0x300, true);
  ASSERT_EQ(d->ClearBreakpoint(0x200), 0);
  EXPECT_EQ(d->BpCount(), 2);
  EXPECT_TRUE(d->BpEntry(0).HitCount == 10 && d->BpEntry(1).Addr == 0x300 && d->BpEntry(1).HitCount == 12 && d->BpEntry(1).HasCondition);
  for (U32 a = 0; d->BpCount() < DEVICE_MAX_BPS; a += 2) d->SetBreakpoint(0x1000 + a, BP_STATE_DISABLED, BP_TYPE_ANY);
  EXPECT_EQ(d->SetBreakpoint(0x8000, BP_STATE_ON, BP_TYPE_ANY), -1) << "a full table";
  // Data breakpoints keep their slots; State is not part of the identity.
  for (U32 a : {0x20000000u, 0x20000004u, 0x20000008u}) d->SetWatchpoint(WP{.Addr = a, .State = BP_STATE_ON});
  ASSERT_EQ(d->ClearWatchpoint(WP{.Addr = 0x20000004}), 0);
  EXPECT_FALSE(d->WpListOccupied(1));
  EXPECT_EQ(d->WpListInsert(WP{.Addr = 0x2000000C, .State = BP_STATE_ON}), 1);
  EXPECT_EQ(d->WpListInsert(WP{.Addr = 0x20000000, .State = BP_STATE_DISABLED}), 0);
  EXPECT_EQ(d->WpCount(), 3);
  CDevice::Destroy();
}

struct CRecorder : CDeviceEventListener {
  QStringList Log;
  std::vector<WP> WPsDone;
  void OnDeviceLogMsg(const char* s, U32) override { Log << s; }
  void OnDeviceSetWPsDone(U32 n, WP* p) override { WPsDone.assign(p, p + n); }
};

class DeviceBreakpoints : public devtest::CDeviceFixture {
 protected:
  void SetUp() override {
    App();
    DeviceModule::Install();
    devtest::CDeviceFixture::SetUp();
    if (IsSkipped()) return;
    // A function the main loop calls and a word it writes.
    const bool Sim = QString(GetParam().sName) == "sim";
    Func = Sym(Sim ? "mix_state" : "Mix"), Var = Sym(Sim ? "g_bss_word" : "g_watched");
    Idle();
  }
  // Resumes and waits for a halt: the PC, or 0 when it still runs.
  U32 RunToHalt(int Ms = 5000) { return Go(Ms); }
  int ProbeBP(U32 a) const { return Device()->Probe().VORDENARM_FindBP(a); }
  CRecorder Rec;
  U32 Func = 0, Var = 0;
};

TEST_P(DeviceBreakpoints, BreakpointsAroundADownloadThenRunToThemAndToAWrite) {
  SetBP(Func, BP_STATE_ON, BP_TYPE_ANY);
  ASSERT_EQ(Device()->GetBreakpoint(Func).State, BP_STATE_ON) << "the table fills without a target";
  ConnectAndDownload();
  const QStringList c = Calls();
  const int Begin = c.indexOf(QRegularExpression("^VORDENARM_BeginDownload.*")), End = c.indexOf(QRegularExpression("^VORDENARM_EndDownload.*"));
  ASSERT_TRUE(Begin > 0 && End > Begin);
  EXPECT_TRUE(c[Begin - 1].startsWith("VORDENARM_ClrBPEx(-1)")) << c[Begin - 1].toStdString();
  EXPECT_TRUE(c.mid(Begin, End - Begin).filter("SetBPEx").isEmpty()) << "none inside the download";
  EXPECT_FALSE(c.mid(End).filter("VORDENARM_SetBPEx(0x" + QString("%1").arg(Func, 8, 16, QChar('0')).toUpper()).isEmpty());
  EXPECT_EQ(RunToHalt(), Func);
  SetBP(Func, BP_STATE_DISABLED, BP_TYPE_ANY);
  EXPECT_TRUE(ProbeBP(Func) == 0 && Device()->GetBreakpoint(Func).State == BP_STATE_DISABLED);
  EXPECT_EQ(RunToHalt(500), 0u) << "a disabled breakpoint does not stop";
  SetBP(Func, BP_STATE_ON, BP_TYPE_ANY);
  EXPECT_EQ(RunToHalt(), Func);
  Device()->PostClearBP(Func);  // now past the start-up code, which clears the word too
  const WP w{.Addr = Var, .State = BP_STATE_ON};
  Device()->PostSetWPs(1, &w);
  const U32 Pc = RunToHalt();
  const readelf::Symbol Main = Symbol("main");
  EXPECT_TRUE(Pc >= Main.Value && Pc < Main.Value + Main.Size + 4) << "stopped in main, where the word is written: " << Pc;
  SetBP(Func, BP_STATE_DISABLED, BP_TYPE_SOFT);  // a hidden breakpoint over it gives it back
  SetBP(Func, BP_STATE_ON_HIDDEN, BP_TYPE_ANY);
  EXPECT_TRUE(Device()->HiddenBPAddr() == Func && ProbeBP(Func) != 0);
  Device()->PostClearAllBPs(BP_STATE_ON_HIDDEN);
  Idle();
  const DEVICE_BP b = Device()->GetBreakpoint(Func);
  EXPECT_TRUE(Device()->HiddenBPAddr() == ~0u && ProbeBP(Func) == 0 && Device()->BpCount() == 1);
  EXPECT_TRUE(b.State == BP_STATE_DISABLED && b.Type == BP_TYPE_SOFT);
}

TEST_P(DeviceBreakpoints, ComparatorLimitsRefusalsAndTracepoints) {
  ConnectAndDownload();
  VORDENARM_DEVICE_INFO Lim{sizeof Lim};
  Device()->Probe().VORDENARM_DEVICE_GetInfo(Device()->Probe().VORDENARM_DEVICE_GetIndex(GetParam().sDevice), &Lim);
  SetBP(Func, BP_STATE_ON, BP_TYPE_SOFT);
  EXPECT_NE(Device()->GetBreakpoint(Func).ImplType, BP_TYPE_HARD);
  Device()->Probe().VORDENARM_EnableSoftBPs(0);
  std::vector<U32> Addrs;
  for (U32 i = 1; i <= Lim.NumHWBPs + 1; ++i) Addrs.push_back(Func + 2 * i);
  Device()->PostSetBPs(U32(Addrs.size()), Addrs.data(), BP_STATE_ON, BP_TYPE_HARD);
  Idle();
  EXPECT_EQ(Device()->BpCount(), int(Lim.NumHWBPs) + 1) << "the one too many is not in the table";
  EXPECT_TRUE(Rec.Log.contains("SetBreakpoint: VORDEN API call failed"));
  SetBP(Func, BP_STATE_ON, BP_TYPE_HARD);  // a type the probe cannot give: kept, disabled
  const DEVICE_BP b = Device()->GetBreakpoint(Func);
  EXPECT_TRUE(b.State == BP_STATE_DISABLED && b.Type == BP_TYPE_HARD && ProbeBP(Func) == 0);
  Device()->Probe().VORDENARM_EnableSoftBPs(1);
  // Data breakpoints: one more than comparators stands disabled with its code.
  std::vector<WP> Wps;
  for (U32 i = 0; i <= Lim.NumDataEvents; ++i) Wps.push_back(WP{.Addr = Var + 4 * i, .State = BP_STATE_ON, .AccessSize = AW_WORD});
  Device()->PostSetWPs(U32(Wps.size()), Wps.data());
  Idle();
  ASSERT_EQ(Rec.WPsDone.size(), Wps.size());
  EXPECT_TRUE(Rec.WPsDone.back().State == BP_STATE_DISABLED && Rec.WPsDone.front().ErrCode == 0);
  EXPECT_EQ(U32(Rec.WPsDone.back().ErrCode) & 0x80000002u, 0x80000002u);
  EXPECT_EQ(Device()->WpCount(), int(Wps.size()));
  Wps.front().State = BP_STATE_DISABLED;  // found on the probe, whose mask is widened to the word
  Device()->PostSetWPs(1, Wps.data());
  Idle();
  EXPECT_EQ(Device()->Probe().VORDENARM_GetWPInfoEx(-1, nullptr), int(Lim.NumDataEvents) - 1);
  // Tracepoints: the probe's event list is rewritten from the table after each record.
  TP t[2] = {{.Addr = Func, .State = BP_STATE_ON}, {.Op = TP_OP_STOP, .Addr = Func + 8, .State = BP_STATE_DISABLED}};
  const int Before = Calls().size();
  Device()->PostSetTPs(2, t);
  Idle();
  const QStringList c = Calls().mid(Before - 1);
  const int Rewrites = c.filter("VORDEN_STRACE_Control(2) = 0").size();  // each adds the enabled one only
  EXPECT_TRUE(c.filter("VORDEN_STRACE_Control(2)").size() == 2 && c.filter("VORDEN_STRACE_Control(0)").size() == Rewrites);
  EXPECT_TRUE(Device()->TpCount() == 2 && (Rewrites == 2 || QString(GetParam().sName) != "sim"));
}

INSTANTIATE_TEST_SUITE_P(Backends, DeviceBreakpoints, ::testing::Values(devtest::kSim, devtest::kQemu), devtest::PrintBackend);

}  // namespace
