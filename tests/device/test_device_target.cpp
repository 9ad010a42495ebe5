// The target path in one process on both back ends: the real probe library
// loaded by the device layer, commands through the action table, memory
// reads with their per-byte status, the access rules while the target runs,
// and a GDB server that stops answering.
#include <gtest/gtest.h>

#include "commands/actions.h"
#include "device/datamanager.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "device/module.h"
#include "elf/dwarf/target_access.h"
#include "log/messagebox.h"
#include "project/project.h"
#include "project/projectcommands.h"
#include "target_support.h"
#include "testsupport/consolelines.h"
#include "testsupport/testapp.h"
#include "ui/shell/consolewindow.h"
#include "ui/shell/mainwindow.h"

#include <QApplication>
#include <QElapsedTimer>

namespace {

using devtest::BACKEND;

class DeviceTarget : public ::testing::TestWithParam<BACKEND> {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QApplication>();
    s_pMain = InstallHeadlessDeviceApp();
  }
  void SetUp() override {
    if (QString(GetParam().sHostIF) == "IP" && !devtest::CTargetRig::HaveQemu()) GTEST_SKIP() << "no qemu-system-arm";
    pRig = std::make_unique<devtest::CTargetRig>(GetParam());
    const BACKEND& b = GetParam();
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_DEVICE, b.sDevice), 0);
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_HOST_IF, b.sHostIF, pRig->Ident()), 0);
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_TARGET_IF, "SWD"), 0);
  }
  void TearDown() override {
    if (CDevice* d = CDevice::InstanceIfCreated()) {
      d->PostDisconnect();
      DeviceModule::WaitUntilIdle(10000);
    }
    pRig.reset();
  }
  // Runs a command to its end; its console text is in sConsole.
  I64 Run(int Id, const QVariant& a = {}, const QVariant& b = {}) {
    TakeConsoleLines();
    ExecAction(Id, a, b);
    WaitForCommand(Id);
    sConsole = TakeConsoleLines().join('\n');
    return GetActionResult(Id);
  }
  QString sConsole;
  void ConnectAndDownload(const char* sFirmware) {
    ASSERT_EQ(Run(AID_EXEC_CONNECT), 0);
    ASSERT_TRUE(Device()->IsConnected());
    ASSERT_EQ(Run(AID_EXEC_DOWNLOAD, devtest::SourcePath(sFirmware)), 0);
  }
  static CMainWindow* s_pMain;
  std::unique_ptr<devtest::CTargetRig> pRig;
};
CMainWindow* DeviceTarget::s_pMain = nullptr;

TEST_P(DeviceTarget, ReadAcrossTheEndOfRamKeepsTheReadablePart) {
  const BACKEND& b = GetParam();
  ASSERT_EQ(Run(AID_EXEC_CONNECT), 0) << sConsole.toStdString();
  const U32 Start = b.RAMEnd - 8;
  U8 Before[8], St0[8];
  ASSERT_EQ(Device()->ReadMem(Start, 8, 0, AW_ANY, 0, nullptr, Before, St0), 8);
  if (b.PlainRAMAtEnd) {
    ASSERT_EQ(Run(AID_TARGET_WRITE_U_32, Start, 0x11223344u), 0) << sConsole.toStdString();
    ASSERT_EQ(Run(AID_TARGET_WRITE_U_32, Start + 4, 0x55667788u), 0);
    const U32 w[2] = {0x11223344u, 0x55667788u};
    memcpy(Before, w, 8);
  }
  U8 Data[16], Status[16];
  memset(Status, 7, sizeof Status);
  const int n = Device()->ReadMem(Start, 16, 4, AW_ANY, MEM_FLAG_ITEM_RETRY, nullptr, Data, Status);
  EXPECT_EQ(n, 8);
  for (int i = 0; i < 16; ++i) EXPECT_EQ(Status[i], i < 8 ? 0 : 1) << i;
  EXPECT_EQ(memcmp(Data, Before, 8), 0);
  // One byte at the very end of the address space is refused by the range rule.
  EXPECT_EQ(Device()->ReadMem(0xFFFFFFFEu, 1, 0, AW_ANY, 0, nullptr, Data, Status), 0);
  U32 Word = 0;
  EXPECT_EQ(Device()->ReadWord(Start + 2, &Word), -1);
  EXPECT_EQ(Word, 0xEEEEEEEEu);
}

TEST_P(DeviceTarget, RunningTargetRefusesScriptReadsWithoutBackgroundAccess) {
  const BACKEND& b = GetParam();
  if (QString(b.sHostIF) == "USB") ASSERT_EQ(Run(AID_EXEC_COMMAND, "SimBMA=0"), 0);
  ConnectAndDownload(b.sFirmware);
  ASSERT_EQ(Run(AID_EXEC_RESET), 0) << sConsole.toStdString();
  ASSERT_EQ(Device()->PostContinue(), 0);
  ASSERT_EQ(DeviceModule::WaitUntilIdle(10000), 0);
  ASSERT_FALSE(Device()->HaltReported());
  Run(AID_TARGET_READ_U_32, 0x20000000u);
  EXPECT_TRUE(sConsole.contains("cannot access target memory: target not halted and background memory access not supported"))
      << sConsole.toStdString();
  Run(AID_TARGET_GET_REG, "PC");
  EXPECT_TRUE(sConsole.contains("cannot access target registers: target not halted")) << sConsole.toStdString();
  ASSERT_EQ(Device()->PostHalt(), 0);
  QElapsedTimer t;
  t.start();
  while (!Device()->HaltReported() && t.elapsed() < 5000) DeviceModule::WaitUntilIdle(1000);
  ASSERT_TRUE(Device()->HaltReported());
  const I64 Pc = Run(AID_TARGET_GET_REG, "PC");
  EXPECT_FALSE(sConsole.contains("cannot access")) << sConsole.toStdString();
  EXPECT_GT(Pc, 0);
  EXPECT_EQ(Pc & 1, 0) << "the Thumb bit never shows";
  if (QString(b.sHostIF) == "USB") Run(AID_EXEC_COMMAND, "SimBMA=1");
}

TEST_P(DeviceTarget, ServerThatStopsAnsweringGivesAnErrorInTime) {
  const BACKEND& b = GetParam();
  if (QString(b.sHostIF) != "IP") GTEST_SKIP() << "a GDB server only";
  ASSERT_EQ(Run(AID_EXEC_CONNECT), 0);
  ASSERT_EQ(Run(AID_EXEC_COMMAND, "GdbTimeout = 1000"), 0);
  ASSERT_EQ(Run(AID_TARGET_WRITE_U_32, 0x20000000u, 0xCAFEF00Du), 0);
  ASSERT_EQ(U32(Run(AID_TARGET_READ_U_32, 0x20000000u)), 0xCAFEF00Du);
  kill(pRig->Qemu()->pid, SIGSTOP);
  QElapsedTimer t;
  t.start();
  EXPECT_EQ(Run(AID_TARGET_READ_U_32, 0x20100000u), 0);
  const qint64 Ms = t.elapsed();
  EXPECT_TRUE(sConsole.contains("ReadWord: Vorden API call failed")) << sConsole.toStdString();
  EXPECT_LT(Ms, 1000 * 4) << "within the configured time-out";
  // The application stays usable: jobs still run and report.
  t.restart();
  Run(AID_EXEC_COMMAND, "SimNothing");
  EXPECT_EQ(DeviceModule::WaitUntilIdle(10000), 0);
  EXPECT_LT(t.elapsed(), 10000);
  kill(pRig->Qemu()->pid, SIGCONT);
}

// The data cache on a halted target: its answer equals the probe's direct
// read; asked again it does not ask the probe (bytes changed behind its back
// stay unseen, and no job is made); after a resume nothing is valid.
TEST_P(DeviceTarget, CacheReadsEachRangeOncePerHalt) {
  const BACKEND& b = GetParam();
  ConnectAndDownload(b.sFirmware);
  ASSERT_EQ(Run(AID_EXEC_RESET), 0) << sConsole.toStdString();
  ASSERT_TRUE(Device()->HaltReported());
  const devtest::IMAGE_WORD w = devtest::ImageWord(devtest::SourcePath(b.sFirmware), b.sDataSym, 0);
  ASSERT_TRUE(w.Found);
  U8 Direct[64], St[64];
  ASSERT_EQ(Device()->ReadMem(w.RunAddr, 64, 0, AW_ANY, 0, nullptr, Direct, St), 64);
  QByteArray Via;
  ASSERT_EQ(ELF_GetTargetAccess().ReadMemory(w.RunAddr, 64, QString(), Via), TARGET_READ_OK);
  EXPECT_EQ(Via, QByteArray(reinterpret_cast<const char*>(Direct), 64));
  const U8 Changed[4] = {U8(~Direct[0]), U8(~Direct[1]), U8(~Direct[2]), U8(~Direct[3])};
  {
    std::lock_guard<std::recursive_mutex> g(Device()->DeviceMutex());
    ASSERT_EQ(Device()->WriteMem(w.RunAddr, 4, 0, AW_ANY, 0, nullptr, Changed), 4);
  }
  const U64 Jobs = Device()->Counters().NextJobID;
  ASSERT_EQ(ELF_GetTargetAccess().ReadMemory(w.RunAddr, 64, QString(), Via), TARGET_READ_OK);
  EXPECT_EQ(Via, QByteArray(reinterpret_cast<const char*>(Direct), 64));
  struct : CDeviceEventListener {
    QByteArray Data;
    void OnDeviceReadMemDone(U32, U32 n, const char*, U8* p, U8*) override { Data = QByteArray((const char*)p, int(n)); }
  } Window;
  CDeviceDataManager& Cache = CDeviceDataManager::Instance();
  EXPECT_EQ(Cache.ReadMemAsync(&Window, w.RunAddr, 64, nullptr, 0, AW_ANY, 0), 0);
  EXPECT_EQ(Window.Data, Via);
  EXPECT_EQ(Device()->Counters().NextJobID, Jobs);
  ASSERT_EQ(Device()->PostContinue(), 0);
  ASSERT_EQ(DeviceModule::WaitUntilIdle(10000), 0);
  EXPECT_EQ(Cache.MemStatus(w.RunAddr, 64, nullptr), CACHE_INVALID);
}

INSTANTIATE_TEST_SUITE_P(Backends, DeviceTarget, ::testing::Values(devtest::kSim, devtest::kQemu), devtest::PrintBackend);

}  // namespace
