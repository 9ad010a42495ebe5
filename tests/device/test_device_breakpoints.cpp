// The breakpoint tables of the device: their rules without a target (fake
// probe), then breakpoints, data breakpoints and tracepoints on real firmware
// on both back ends, judged by where the target halts, by the probe's own
// look-ups and by its call log.
#include <gtest/gtest.h>

#include "device/device.h"
#include "device/loadimage.h"
#include "device/module.h"
#include "fake_probe.h"
#include "target_support.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

namespace {

void App() { static QCoreApplication* p = NewTestApp<QCoreApplication>(); (void)p; }

WP MakeWP(U32 Addr, BP_STATES State, U32 Size = AW_ANY) {
  WP w;
  w.Addr = Addr, w.State = State, w.AccessSize = Size;
  return w;
}

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
  for (U32 a : {0x20000000u, 0x20000004u, 0x20000008u}) d->SetWatchpoint(MakeWP(a, BP_STATE_ON));
  ASSERT_EQ(d->ClearWatchpoint(MakeWP(0x20000004, BP_STATE_ON)), 0);
  EXPECT_FALSE(d->WpListOccupied(1));
  EXPECT_EQ(d->WpListInsert(MakeWP(0x2000000C, BP_STATE_ON)), 1);
  EXPECT_EQ(d->WpListInsert(MakeWP(0x20000000, BP_STATE_DISABLED)), 0);
  EXPECT_EQ(d->WpCount(), 3);
  CDevice::Destroy();
}

struct CRecorder : CDeviceEventListener {
  QStringList Log;
  std::vector<WP> WPsDone;
  void OnDeviceLogMsg(const char* s, U32) override { Log << s; }
  void OnDeviceSetWPsDone(U32 n, WP* p) override { WPsDone.assign(p, p + n); }
};

// An address (and size) from the firmware's symbol table.
U32 Sym(const devtest::BACKEND& b, const char* s, U32* pSize = nullptr) {
  const QString Nm = QString::fromStdString(RunToolOutput("arm-none-eabi-nm -S " + devtest::SourcePath(b.sFirmware).toStdString()));
  const auto m = QRegularExpression(QStringLiteral("^(\\w+) (\\w+) \\w %1$").arg(s), QRegularExpression::MultilineOption).match(Nm);
  if (pSize) *pSize = m.captured(2).toUInt(nullptr, 16);
  return m.captured(1).toUInt(nullptr, 16);
}

class DeviceBreakpoints : public ::testing::TestWithParam<devtest::BACKEND> {
 protected:
  void SetUp() override {
    const devtest::BACKEND& b = GetParam();
    if (QString(b.sHostIF) == "IP" && !devtest::CTargetRig::HaveQemu()) GTEST_SKIP() << "no qemu-system-arm";
    App();
    DeviceModule::Install();
    Rig = std::make_unique<devtest::CTargetRig>(b);
    // A function the main loop calls and a word it writes.
    const bool Sim = QString(b.sName) == "sim";
    Func = Sym(b, Sim ? "mix_state" : "Mix"), Var = Sym(b, Sim ? "g_bss_word" : "g_watched");
    ASSERT_TRUE(Func && Var);
    CDevice* d = Device();
    d->PostSetConfigParam(DEV_CFG_DEVICE_NAME, b.sDevice);
    d->PostSetConfigParam(DEV_CFG_HOST_IF, Sim ? DEV_HOST_IF_USB : DEV_HOST_IF_IP);
    d->PostSetConfigParam(DEV_CFG_TARGET_IF, 1);
    d->PostSetConfigParam(DEV_CFG_HOST_NAME, Rig->Ident().toUtf8().constData());
    d->PostSetConfigParam(DEV_CFG_LOG_FILE, Dir.filePath("calls.log").toUtf8().constData());
    Idle();
  }
  void TearDown() override {
    Device()->PostClearAllBPs(), Device()->PostClearAllWPs(), Device()->PostClearAllTPs(), Device()->PostDisconnect();
    Idle();
  }
  void Idle() { ASSERT_EQ(DeviceModule::WaitUntilIdle(20000), 0); }
  // Connects, and downloads the firmware as the download command does.
  void ConnectAndDownload() {
    Device()->PostConnect(CM_DOWNLOAD_RESET);
    Idle();
    ASSERT_TRUE(Device()->IsConnected());
    std::vector<DEV_LOAD_BLOCK> Blocks;
    ASSERT_TRUE(DEV_ReadLoadSegments(devtest::SourcePath(GetParam().sFirmware), &Blocks, nullptr));
    std::vector<U32> Ranges;
    QByteArray Data;
    for (const DEV_LOAD_BLOCK& b : Blocks) Ranges.push_back(b.LoadAddr), Ranges.push_back(b.LoadAddr + U32(b.Data.size())), Data += b.Data;
    Device()->PostHalt();
    Device()->PostWriteMemMultiple(U32(Blocks.size()), Ranges.data(), U32(Data.size()), (const U8*)Data.constData(), 0, AW_ANY,
                                   MEM_FLAG_BEGIN_DOWNLOAD);
    Device()->PostEndDownload("fw", 0), Device()->PostReset();
    Idle();
  }
  // Resumes and waits for a halt: the PC, or 0 when it still runs.
  U32 RunToHalt(int Ms = 5000) {
    Device()->PostContinue();
    Idle();
    QElapsedTimer t;
    for (t.start(); !Device()->HaltReported() && t.elapsed() < Ms;) DeviceModule::WaitUntilIdle(200);
    if (Device()->HaltReported()) return Device()->CurrentPC();
    Device()->PostHalt();
    Idle();
    return 0;
  }
  void SetBP(U32 a, BP_STATES s, BP_TYPES t) { Device()->PostSetBP(a, s, t), Idle(); }
  QStringList Calls() const { return QString(devtest::ReadFileText(Dir.filePath("calls.log"))).split('\n'); }
  int ProbeBP(U32 a) const { return Device()->Probe().VORDENARM_FindBP(a); }
  QTemporaryDir Dir;
  std::unique_ptr<devtest::CTargetRig> Rig;
  CRecorder Rec;
  U32 Func = 0, Var = 0;
};

TEST_P(DeviceBreakpoints, SetBeforeConnectingReachesTheProbeAfterTheDownloadAndHalts) {
  SetBP(Func, BP_STATE_ON, BP_TYPE_ANY);
  ASSERT_EQ(Device()->GetBreakpoint(Func).State, BP_STATE_ON) << "the table fills without a target";
  ConnectAndDownload();
  const QStringList c = Calls();
  const int Begin = c.indexOf(QRegularExpression("^VORDENARM_BeginDownload.*")), End = c.indexOf(QRegularExpression("^VORDENARM_EndDownload.*"));
  ASSERT_TRUE(Begin > 0 && End > Begin);
  EXPECT_TRUE(c[Begin - 1].startsWith("VORDENARM_ClrBPEx(-1)")) << c[Begin - 1].toStdString();
  EXPECT_TRUE(c.mid(Begin, End - Begin).filter("SetBPEx").isEmpty()) << "none inside the download";
  EXPECT_FALSE(c.mid(End).filter("VORDENARM_SetBPEx(0x" + QString("%1").arg(Func, 8, 16, QChar('0')).toUpper()).isEmpty());
  EXPECT_EQ(Device()->BpCount(), 1);
  EXPECT_EQ(RunToHalt(), Func);
  SetBP(Func, BP_STATE_DISABLED, BP_TYPE_ANY);
  EXPECT_TRUE(ProbeBP(Func) == 0 && Device()->GetBreakpoint(Func).State == BP_STATE_DISABLED);
  EXPECT_EQ(RunToHalt(500), 0u) << "a disabled breakpoint does not stop";
  SetBP(Func, BP_STATE_ON, BP_TYPE_ANY);
  EXPECT_EQ(RunToHalt(), Func);
  Device()->PostClearBP(Func);
  Idle();
  EXPECT_TRUE(ProbeBP(Func) == 0 && Device()->BpCount() == 0);
}

TEST_P(DeviceBreakpoints, ComparatorLimitsAndRefusals) {
  ConnectAndDownload();
  VORDENARM_DEVICE_INFO Lim{};
  Lim.SizeOfStruct = sizeof Lim;
  Device()->Probe().VORDENARM_DEVICE_GetInfo(Device()->Probe().VORDENARM_DEVICE_GetIndex(GetParam().sDevice), &Lim);
  ASSERT_GT(Lim.NumHWBPs, 0u);
  SetBP(Func, BP_STATE_ON, BP_TYPE_SOFT);
  EXPECT_NE(Device()->GetBreakpoint(Func).ImplType, BP_TYPE_HARD);
  Device()->Probe().VORDENARM_EnableSoftBPs(0);
  std::vector<U32> Addrs;
  for (U32 i = 1; i <= Lim.NumHWBPs + 1; ++i) Addrs.push_back(Func + 2 * i);
  Device()->PostSetBPs(U32(Addrs.size()), Addrs.data(), BP_STATE_ON, BP_TYPE_HARD);
  Idle();
  EXPECT_EQ(Device()->BpCount(), int(Lim.NumHWBPs) + 1) << "the one too many is not in the table";
  EXPECT_TRUE(Rec.Log.contains("SetBreakpoint: VORDEN API call failed"));
  // Set again with a type the probe cannot give: kept, disabled.
  SetBP(Func, BP_STATE_ON, BP_TYPE_HARD);
  const DEVICE_BP b = Device()->GetBreakpoint(Func);
  EXPECT_TRUE(b.State == BP_STATE_DISABLED && b.Type == BP_TYPE_HARD && ProbeBP(Func) == 0);
  Device()->Probe().VORDENARM_EnableSoftBPs(1);
  // Data breakpoints: one more than comparators stands disabled with its code.
  std::vector<WP> Wps;
  for (U32 i = 0; i <= Lim.NumDataEvents; ++i) Wps.push_back(MakeWP(Var + 4 * i, BP_STATE_ON, AW_WORD));
  Device()->PostSetWPs(U32(Wps.size()), Wps.data());
  Idle();
  ASSERT_EQ(Rec.WPsDone.size(), Wps.size());
  EXPECT_TRUE(Rec.WPsDone.back().State == BP_STATE_DISABLED && Rec.WPsDone.front().ErrCode == 0);
  EXPECT_EQ(U32(Rec.WPsDone.back().ErrCode) & 0x80000002u, 0x80000002u);
  EXPECT_EQ(Device()->WpCount(), int(Wps.size()));
  // Found again on the probe (whose mask is widened to the word) and taken off.
  Wps.front().State = BP_STATE_DISABLED;
  Device()->PostSetWPs(1, Wps.data());
  Idle();
  VORDENARM_WP_INFO Info{};
  EXPECT_EQ(Device()->Probe().VORDENARM_GetWPInfoEx(-1, &Info), int(Lim.NumDataEvents) - 1);
}

TEST_P(DeviceBreakpoints, DataBreakpointHaltsOnAWrite) {
  ConnectAndDownload();
  U32 MainSize = 0;
  const U32 Main = Sym(GetParam(), "main", &MainSize);
  SetBP(Func, BP_STATE_ON, BP_TYPE_ANY);  // past the start-up code, which clears the word too
  ASSERT_EQ(RunToHalt(), Func);
  Device()->PostClearBP(Func);
  Device()->PostSetWPs(1, std::vector<WP>{MakeWP(Var, BP_STATE_ON)}.data());
  const U32 Pc = RunToHalt();
  EXPECT_TRUE(Pc >= Main && Pc < Main + MainSize + 4) << "stopped in main, where the word is written: " << Pc;
}

TEST_P(DeviceBreakpoints, TracepointsRewriteTheEventListAndHiddenBreakpointsRestore) {
  ConnectAndDownload();
  TP t[2];
  t[0].Addr = Func, t[0].State = BP_STATE_ON;
  t[1].Addr = Func + 8, t[1].State = BP_STATE_DISABLED, t[1].Op = TP_OP_STOP;
  const int Before = Calls().size();
  Device()->PostSetTPs(2, t);
  Idle();
  const QStringList c = Calls().mid(Before - 1);
  EXPECT_EQ(c.filter("VORDEN_STRACE_Control(2)").size(), 2) << "cleared before each record";
  // Each rewrite that could clear the list adds the enabled tracepoint only.
  const int Rewrites = c.filter("VORDEN_STRACE_Control(2) = 0").size();
  EXPECT_EQ(c.filter("VORDEN_STRACE_Control(0)").size(), Rewrites);
  EXPECT_TRUE(Rewrites == 2 || QString(GetParam().sName) != "sim");
  EXPECT_EQ(Device()->TpCount(), 2);
  // A hidden breakpoint over a user's disabled one gives the user's back.
  SetBP(Func, BP_STATE_DISABLED, BP_TYPE_SOFT);
  SetBP(Func, BP_STATE_ON_HIDDEN, BP_TYPE_ANY);
  EXPECT_TRUE(Device()->HiddenBPAddr() == Func && ProbeBP(Func) != 0);
  Device()->PostClearAllBPs(BP_STATE_ON_HIDDEN);
  Idle();
  const DEVICE_BP b = Device()->GetBreakpoint(Func);
  EXPECT_TRUE(Device()->HiddenBPAddr() == ~0u && ProbeBP(Func) == 0 && Device()->BpCount() == 1);
  EXPECT_TRUE(b.State == BP_STATE_DISABLED && b.Type == BP_TYPE_SOFT);
}

INSTANTIATE_TEST_SUITE_P(Backends, DeviceBreakpoints, ::testing::Values(devtest::kSim, devtest::kQemu), devtest::PrintBackend);

}  // namespace
