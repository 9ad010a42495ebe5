// The instruction cache learns what the target holds: after a download the
// program's code is read back, and Debug.ReadIntoInstCache takes a range the
// target changed, on both back ends with one MPS2 firmware.
#include <gtest/gtest.h>

#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "device/module.h"
#include "disasm/instcache.h"
#include "disasm/instinstall.h"
#include "elf/elfapi.h"
#include "project/project.h"
#include "target_support.h"
#include "testsupport/objdump_oracle.h"
#include "testsupport/testapp.h"

#include <QApplication>

namespace {

using devtest::BACKEND;

const BACKEND kSimMps2{"sim", "MPS2-AN385", "USB", "firmware/gdb/elf/gdbtest_an385.elf", "", "", 0, false};

class DisasmTarget : public ::testing::TestWithParam<BACKEND> {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QApplication>();
    InstallHeadlessDeviceApp();
    DisasmModule::Install();
  }
  void TearDown() override {
    Device()->PostDisconnect();
    DeviceModule::WaitUntilIdle(10000);
    Project().Close();
    CElfApi::Instance().Close();
    DisasmModule::Sync(true);
  }
  static I64 Run(int Id, const QVariant& a = {}, const QVariant& b = {}) {
    ExecAction(Id, a, b);
    WaitForCommand(Id);
    return GetActionResult(Id);
  }
  static bool IsBreak(U32 Addr) {
    CORE_INST_INFO i{};
    GetInstInfo(Addr, &i);
    return i.Size == 2 && (i.Flags & CORE_INST_BREAK);
  }
};

TEST_P(DisasmTarget, DownloadAndReadIntoInstCacheBringTargetCodeIn) {
  const BACKEND& b = GetParam();
  if (QString(b.sHostIF) == "IP" && !devtest::CTargetRig::HaveQemu()) GTEST_SKIP() << "no qemu-system-arm";
  devtest::CTargetRig Rig(b);
  const QString sElf = devtest::SourcePath(b.sFirmware);
  // Two 16-bit instructions of main that are no break: one is patched before
  // the download's read-back, one after it.
  std::vector<U32> Plain;
  for (const auto& [Addr, In] : objdump::Disassemble(sElf.toStdString()))
    if (In.Size == 2 && In.Mnemonic != "bkpt" && Addr >= 0x100 && Plain.size() < 2) Plain.push_back(Addr);
  ASSERT_EQ(Plain.size(), 2u);
  ASSERT_EQ(Run(AID_PROJECT_SET_DEVICE, b.sDevice), 0);
  ASSERT_EQ(Run(AID_PROJECT_SET_HOST_IF, b.sHostIF, Rig.Ident()), 0);
  ASSERT_EQ(Run(AID_PROJECT_SET_TARGET_IF, "SWD"), 0);
  ASSERT_EQ(CElfApi::Instance().Load(sElf), 0);
  DisasmModule::Sync(true);
  QString sWhy;
  EXPECT_EQ(DisasmModule::ReadIntoInstCache(0x100, 2, &sWhy), -1);
  EXPECT_EQ(sWhy, "not connected");
  ASSERT_EQ(Run(AID_EXEC_CONNECT), 0);
  ASSERT_EQ(Run(AID_EXEC_RESET), 0);
  ASSERT_EQ(Run(AID_EXEC_DOWNLOAD, sElf), 0);
  ASSERT_EQ(DeviceModule::WaitUntilIdle(20000), 0);
  EXPECT_FALSE(IsBreak(Plain[0]));
  // The target's code differs from the file: the cache follows a read of the
  // range, not the file.
  const QString sA = QStringLiteral("0x%1").arg(Plain[0], 0, 16), sB = QStringLiteral("0x%1").arg(Plain[1], 0, 16);
  ASSERT_EQ(Run(AID_TARGET_WRITE_U_16, sA, "0xBE00"), 0);
  ASSERT_EQ(Run(AID_TARGET_WRITE_U_16, sB, "0xBE01"), 0);
  EXPECT_FALSE(IsBreak(Plain[0]));
  ASSERT_EQ(Run(AID_DEBUG_READ_INTO_INST_CACHE, sA, "2"), 0);
  ASSERT_EQ(DeviceModule::WaitUntilIdle(20000), 0);
  EXPECT_FALSE(IsBreak(Plain[1])) << "only the range read";
  // A download reads the program's code back: the file's instruction again.
  ASSERT_EQ(Run(AID_EXEC_DOWNLOAD, sElf), 0);
  ASSERT_EQ(DeviceModule::WaitUntilIdle(20000), 0);
  EXPECT_FALSE(IsBreak(Plain[0]));
  EXPECT_EQ(Run(AID_DEBUG_READ_INTO_INST_CACHE, "zz", "4"), -1);
  EXPECT_EQ(DisasmModule::ReadIntoInstCache(0xFFFFFFFF, 4, &sWhy), -1);
  EXPECT_EQ(sWhy, "invalid parameter");
}

INSTANTIATE_TEST_SUITE_P(Backends, DisasmTarget, ::testing::Values(kSimMps2, devtest::kQemu), devtest::PrintBackend);

}  // namespace
