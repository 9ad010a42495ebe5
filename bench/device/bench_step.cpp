// Prints the median time of a source-level Step Over on the simulator and on
// QEMU, over the lines of the step test program's main: plain lines, a line
// with a call, an inlined helper, a call of a function without line rows.
// Usage: bench_step [steps] (default 200)
#include <gtest/gtest.h>  // the shared target helpers use its parameter type

#include "../../tests/device/step_program.h"
#include "device/projectsettings.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>
#include <algorithm>
#include <cstdio>

namespace {

void Measure(const devtest::BACKEND& b, int Steps) {
  devtest::CTargetRig Rig(b);
  IDeviceProjectSettings& p = DeviceModule::ProjectSettings();
  p.SetDevice(b.sDevice), p.SetHostIF(b.sHostIF, Rig.Ident()), p.SetTargetIF("SWD");
  if (!steptest::ConnectAndDownload()) return (void)printf("%-5s connect failed\n", b.sName);
  using steptest::Line;
  const U32 Last = steptest::Addr("CALL_IRQ");
  std::vector<double> PlainMs, CallMs;
  while (int(PlainMs.size() + CallMs.size()) < Steps) {
    if (!steptest::RunToTag("ONE_INST")) return (void)printf("%-5s cannot reach the first line\n", b.sName);
    for (U32 Pc = Device()->CurrentPC(); Pc < Last && int(PlainMs.size() + CallMs.size()) < Steps;) {
      const int L = steptest::LineAt(Pc);
      const bool Call = L == Line("CALL_PLAIN") || L == Line("CALL_NODEBUG") || L == Line("CALL_RECURSE");
      QElapsedTimer t;
      t.start();
      Device()->PostStep(JT_STEP_OVER);
      if (!steptest::WaitHalted()) return (void)printf("%-5s a step did not end\n", b.sName);
      (Call ? CallMs : PlainMs).push_back(t.nsecsElapsed() / 1e6);
      if (Device()->CurrentPC() == Pc) return (void)printf("%-5s a step did not move\n", b.sName);
      Pc = Device()->CurrentPC();
    }
  }
  auto Median = [](std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::nth_element(v.begin(), v.begin() + v.size() / 2, v.end());
    return v[v.size() / 2];
  };
  std::vector<double> All = PlainMs;
  All.insert(All.end(), CallMs.begin(), CallMs.end());
  printf("%-5s step over: median %.2f ms over %zu steps (plain lines %.2f ms, lines with a call %.2f ms)\n", b.sName,
         Median(All), All.size(), Median(PlainMs), Median(CallMs));
  Device()->PostDisconnect();
  DeviceModule::WaitUntilIdle(20000);
}

}  // namespace

int main(int argc, char** argv) {
  NewTestApp<QCoreApplication>();
  const int Steps = argc > 1 ? std::max(1, atoi(argv[1])) : 200;
  if (!steptest::LoadProgramAndPlugin()) return printf("cannot load the step test program\n"), 1;
  Measure(steptest::kSimMps2, Steps);
  if (devtest::CTargetRig::HaveQemu()) Measure(steptest::kQemuMps2, Steps);
  else printf("qemu  skipped: no qemu-system-arm\n");
  return 0;
}
