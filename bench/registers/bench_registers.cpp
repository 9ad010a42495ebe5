// One refresh of a register window after a stop, on the simulator and on the
// emulator behind its GDB server: the time from the step report to the last
// group's values in the rows (the framework's 10 ms update timer included),
// and the read alone (the cache emptied, every group read and filled).
// Usage: bench_registers [ROUNDS]   (default 100)
#include <gtest/gtest.h>  // the shared target helpers use its parameter type

#include "../../tests/device/target_support.h"
#include "../benchsupport.h"
#include "commands/actions.h"
#include "device/datamanager.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "ui/registers/registermodel.h"
#include "ui/registers/registerwindow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <algorithm>
#include <cstdio>

namespace {

using bench::Median;
using bench::Run;
using bench::STEP_CLOCK;
using bench::WaitFor;

void Measure(const devtest::BACKEND& b, int Rounds) {
  if (QString(b.sHostIF) == "IP" && !devtest::CTargetRig::HaveQemu()) {
    printf("%s: no qemu-system-arm\n", b.sName);
    return;
  }
  devtest::CTargetRig Rig(b);
  STEP_CLOCK Clock;
  if (!bench::StartTarget(b.sDevice, b.sHostIF, Rig.Ident(), devtest::SourcePath(b.sFirmware))) {
    printf("%s: could not connect and download\n", b.sName);
    return;
  }
  CRegisterWindow w(nullptr, 1);
  CRegistersDataModel& m = *w.RegModel();
  w.resize(500, 2400);
  w.show();
  const int Groups = int(m.ChildrenOf(m.ChildrenOf(0).front()).size());
  int Filled = 0;
  QObject::connect(&m, &CRegistersDataModel::ValuesRead, &m, [&Filled] { ++Filled; });
  // The first fill, for the stop before the window was made.
  w.Update(Device()->CurrentPC());
  WaitFor([&] { return Filled >= Groups; });
  std::vector<double> Stop, Read;
  for (int i = 0; i < Rounds; ++i) {
    Filled = 0;
    const int Steps = Clock.n;
    Device()->PostStepInst();
    if (!WaitFor([&] { return Clock.n > Steps && Filled >= Groups; })) {
      printf("%s: stop %d: %d step reports, %d of %d groups filled\n", b.sName, i, Clock.n - Steps, Filled, Groups);
      break;
    }
    Stop.push_back(Clock.t.nsecsElapsed() / 1e6);
  }
  for (int i = 0; i < Rounds; ++i) {
    Filled = 0;
    CDeviceDataManager::Instance().ClearCaches();
    m.InvalidateReads();
    QElapsedTimer t;
    t.start();
    for (U64 g : m.ChildrenOf(m.ChildrenOf(0).front())) m.ReadRow(m.ChildrenOf(g).front());
    if (!WaitFor([&] { return Filled >= Groups; })) break;
    Read.push_back(t.nsecsElapsed() / 1e6);
  }
  printf("%-5s %d registers in %d groups: stop to rows %.2f ms median (%zu stops), read and fill %.2f ms median\n",
         b.sName, m.RegisterCount(), Groups, Median(Stop), Stop.size(), Median(Read));
  Device()->PostDisconnect();
  DeviceModule::WaitUntilIdle(10000);
}

}  // namespace

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication App(argc, argv);
  const int Rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 100;
  InstallHeadlessDeviceApp();
  for (const devtest::BACKEND& b : {devtest::kSim, devtest::kQemu}) Measure(b, Rounds);
  return 0;
}
