// From a stop to the PC's line on screen in the source viewer, on the
// simulator and on the emulator behind its GDB server: the time from the step
// report to the repainted editor with the PC row marked (the line's file
// already open), medians over instruction steps.
// Usage: bench_source_halt [STEPS]   (default 200)
#include <gtest/gtest.h>  // the shared target helpers use its parameter type

#include "../../tests/device/target_support.h"
#include "../benchsupport.h"
#include "commands/actions.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "ui/source/sourceeditor.h"
#include "ui/source/sourcewindow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <algorithm>
#include <cstdio>

namespace {

using bench::Median;
using bench::Run;
using bench::STEP_CLOCK;
using bench::WaitFor;

void Measure(const devtest::BACKEND& b, int Steps) {
  if (QString(b.sHostIF) == "IP" && !devtest::CTargetRig::HaveQemu()) {
    printf("%s: no qemu-system-arm\n", b.sName);
    return;
  }
  devtest::CTargetRig Rig(b);
  STEP_CLOCK Clock;
  const QString sElf = devtest::SourcePath(b.sFirmware);
  CElfApi::Instance().Load(sElf);
  if (!bench::StartTarget(b.sDevice, b.sHostIF, Rig.Ident(), sElf)) {
    printf("%s: could not connect and download\n", b.sName);
    return;
  }
  CSourceWindow w;
  w.resize(1000, 800);
  w.show();
  w.Update(Device()->CurrentPC());
  std::vector<double> WithLine, All;
  for (int i = 0; i < Steps; ++i) {
    const int Before = Clock.n;
    Device()->PostStepInst();
    if (!WaitFor([&] { return Clock.n > Before && w.HasPC(); })) break;
    // The window updated itself in the report; the repaint puts it on screen.
    QCoreApplication::processEvents();
    w.GetTextEditor()->viewport()->repaint();
    const double Ms = Clock.t.nsecsElapsed() / 1e6;
    All.push_back(Ms);
    if (!w.GetPcLoc().IsNull()) WithLine.push_back(Ms);
  }
  printf("%-5s stop to PC line painted: %.2f ms median over %zu stops with a source line (%.2f ms over all %zu stops)\n",
         b.sName, Median(WithLine), WithLine.size(), Median(All), All.size());
  Device()->PostDisconnect();
  DeviceModule::WaitUntilIdle(10000);
  CElfApi::Instance().Close();
}

}  // namespace

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication App(argc, argv);
  const int Steps = argc > 1 ? std::max(1, atoi(argv[1])) : 200;
  DWARF_Install();
  InstallHeadlessDeviceApp();
  for (const devtest::BACKEND& b : {devtest::kSim, devtest::kQemu}) Measure(b, Steps);
  return 0;
}
