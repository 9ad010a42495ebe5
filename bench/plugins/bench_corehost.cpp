// Prints the core plug-in host's figures: loading and reconfiguring the ARM
// plug-in, and register reads of the device layer through the plug-in
// against the same reads straight from the probe (ratio), on the simulator
// and on QEMU.
// Usage: bench_corehost [reads] (default 20000)
#include <gtest/gtest.h>  // the shared target helpers use its parameter type

#include "../../tests/device/target_support.h"
#include "commands/actions.h"
#include "device/coresupport.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "device/module.h"
#include "log/messagebox.h"
#include "plugins/corehost.h"
#include "project/project.h"
#include "project/projectcommands.h"
#include "ui/shell/mainwindow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <cstdio>

namespace {

I64 Run(int Id, const QVariant& a = {}, const QVariant& b = {}) {
  ExecAction(Id, a, b);
  WaitForCommand(Id);
  return GetActionResult(Id);
}

// Microseconds per call of Fn, best of 5 rounds of n calls.
template <class F>
double BestUs(int n, F&& Fn) {
  double Best = 1e30;
  for (int Round = 0; Round < 5; ++Round) {
    QElapsedTimer t;
    t.start();
    for (int i = 0; i < n; ++i) Fn();
    Best = std::min(Best, t.nsecsElapsed() / 1e3 / n);
  }
  return Best;
}

void MeasureLoad() {
  const double Load = BestUs(20, [] {
    UnloadCorePlugin();
    LoadCorePlugin(0x0E0000FF);
  });
  U32 Core = 0x030000FF;
  const double Reconf = BestUs(200, [&Core] { LoadCorePlugin(Core ^= 0x030000FF ^ 0x0E0000FF); });
  printf("ARM plug-in: load %.0f us, reconfigure for another core %.1f us\n", Load, Reconf);
}

void MeasureRegs(const devtest::BACKEND& b, int Reads) {
  devtest::CTargetRig Rig(b);
  Run(AID_PROJECT_SET_DEVICE, b.sDevice);
  Run(AID_PROJECT_SET_HOST_IF, b.sHostIF, Rig.Ident());
  Run(AID_PROJECT_SET_TARGET_IF, "SWD");
  if (Run(AID_EXEC_CONNECT) != 0 || Run(AID_EXEC_RESET) != 0 || !DEV_GetCoreSupport()) {
    printf("%-5s connect, reset or plug-in failed\n", b.sName);
    return;
  }
  const U32 aIdx[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  U64 aVal[17];
  U8 aSt[17];
  CDevice* d = Device();
  std::unique_lock<std::recursive_mutex> Lock(d->DeviceMutex());  // the worker stays out meanwhile
  const double Via = BestUs(Reads / 5, [&] { d->ReadRegs(17, aIdx, aVal, aSt); });
  const double Direct = BestUs(Reads / 5, [&] { d->Probe().VORDENARM_ReadRegs(aIdx, aVal, aSt, 17); });
  const double ViaOne = BestUs(Reads / 5, [&] { d->ReadReg(15, aVal); });
  printf("%-5s 17 core registers: through the plug-in %.2f us, probe directly %.2f us (ratio %.2f); one PC read %.2f us\n",
         b.sName, Via, Direct, Direct / Via, ViaOne);
  Lock.unlock();
  d->PostDisconnect();
  DeviceModule::WaitUntilIdle(10000);
}

}  // namespace

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication App(argc, argv);
  const int Reads = argc > 1 ? atoi(argv[1]) : 20000;
  auto* pMain = InstallHeadlessDeviceApp();
  Device();
  MeasureLoad();
  MeasureRegs(devtest::kSim, Reads);
  if (devtest::CTargetRig::HaveQemu()) MeasureRegs(devtest::kQemu, Reads / 10);
  delete pMain;
  return 0;
}
