// The core plug-in in the running program on both back ends: the device
// chooses the ARM plug-in, a second Cortex-M device reconfigures it, and the
// registers the device layer reads through it are the probe library's own.
#include <gtest/gtest.h>

#include "commands/actions.h"
#include "device/coresupport.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "device/module.h"
#include "log/messagebox.h"
#include "plugins/corehost.h"
#include "project/project.h"
#include "project/projectcommands.h"
#include "target_support.h"
#include "testsupport/testapp.h"
#include "ui/shell/mainwindow.h"

#include <QApplication>
#include <QFileInfo>
#include <iterator>

namespace {

using devtest::BACKEND;

class CoreHostTarget : public CHeadlessTargetSuite<::testing::TestWithParam<BACKEND>> {};

TEST_P(CoreHostTarget, RegistersGoThroughThePluginOfTheDevice) {
  const BACKEND& b = GetParam();
  if (QString(b.sHostIF) == "IP" && !devtest::CTargetRig::HaveQemu()) GTEST_SKIP() << "no qemu-system-arm";
  devtest::CTargetRig Rig(b);
  QObject Ctx;
  QStringList Signals;
  for (auto pSig : {&CCorePluginSignals::PluginLoaded, &CCorePluginSignals::PluginReconfigured})
    QObject::connect(&CorePluginSignals(), pSig, &Ctx, [&Signals](QString s, int) { Signals << QFileInfo(s).fileName(); });
  // Another Cortex-M device first: the back end's own one reconfigures.
  ASSERT_EQ(Run(AID_PROJECT_SET_DEVICE, QString(b.sDevice) == "STM32F407VG" ? "LPC1768" : "STM32F407VG"), 0);
  EXPECT_EQ(Signals, QStringList{"CorePluginARM.so"});
  ASSERT_EQ(Run(AID_PROJECT_SET_DEVICE, b.sDevice), 0);
  EXPECT_EQ(CoreConfig().Core, CORE_CoreOfDevice(b.sDevice));
  EXPECT_EQ(Run(AID_PROJECT_SET_CORE_PLUGIN, "NoSuchPlugin"), -1);
  EXPECT_EQ(Run(AID_PROJECT_SET_CORE_PLUGIN, "CorePluginARM"), 0) << "found in the plug-in directory, already in force";
  EXPECT_EQ(Project().CorePluginPath(), CORE_PluginDir() + "CorePluginARM.so");
  ASSERT_EQ(Signals.size(), 2);
  ASSERT_EQ(Run(AID_PROJECT_SET_HOST_IF, b.sHostIF, Rig.Ident()), 0);
  ASSERT_EQ(Run(AID_PROJECT_SET_TARGET_IF, "SWD"), 0);
  ASSERT_EQ(Run(AID_EXEC_CONNECT), 0);
  ASSERT_EQ(Run(AID_EXEC_DOWNLOAD, devtest::SourcePath(b.sFirmware)), 0);
  ASSERT_EQ(Run(AID_EXEC_RESET), 0);
  ASSERT_NE(DEV_GetCoreSupport(), nullptr);

  // R0-PC, xPSR, MSP, PSP, PRIMASK, CONTROL through the plug-in and straight
  // from the probe, with the worker held so that both see one halt.
  const U32 aIdx[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 22};
  constexpr U32 n = std::size(aIdx);
  U64 Via[n], Direct[n], Primask = 7, Bad = 0;
  U8 StVia[n], StDirect[n];
  std::lock_guard<std::recursive_mutex> Lock(Device()->DeviceMutex());
  const int rVia = Device()->ReadRegs(n, aIdx, Via, StVia);
  EXPECT_EQ(rVia, Device()->Probe().VORDENARM_ReadRegs(aIdx, Direct, StDirect, n) < 0 ? -1 : 0);
  for (U32 i = 0; i < n; ++i) {
    if (aIdx[i] <= 16) EXPECT_EQ(StDirect[i], 0) << i;  // a register the back end lacks fails both ways
    EXPECT_EQ(StVia[i], StDirect[i] ? 1 : 0) << "register " << aIdx[i];
    if (!StDirect[i]) EXPECT_EQ(Via[i], aIdx[i] == 15 ? Direct[i] & ~1ull : Direct[i]) << "register " << aIdx[i];
  }
  EXPECT_EQ(Device()->ReadCPReg("PRIMASK", &Primask) == 0, StDirect[19] == 0);
  if (!StDirect[19]) EXPECT_EQ(Primask, Direct[19] & 1);
  EXPECT_EQ(Device()->ReadCPReg("nosuchregister", &Bad), -1);
  EXPECT_EQ(Bad, U64(-1));
}

INSTANTIATE_TEST_SUITE_P(Backends, CoreHostTarget, ::testing::Values(devtest::kSim, devtest::kQemu), devtest::PrintBackend);

}  // namespace
