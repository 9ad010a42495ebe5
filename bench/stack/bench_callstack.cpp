// Unwinding a 20-deep recursion (23 frames: Bottom, Recurse x 21, main,
// Reset_Handler) of firmware/tests/elf/unwind-O2.elf on the simulator's MPS2
// board and on the emulator behind its GDB server: the median time of a whole
// unwind as the call stack export runs it, and the share of it spent waiting
// for target reads.
// Usage: bench_callstack [ROUNDS]   (default 50)
#include <gtest/gtest.h>  // the shared target helpers use its parameter type

#include "../../tests/device/target_support.h"
#include "commands/actions.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "stack/callstack.h"
#include "ui/callstack/callstackmodel.h"

#include <QApplication>
#include <QElapsedTimer>
#include <algorithm>
#include <cstdio>
#include <fstream>

namespace {

struct HALTS : CDeviceEventListener {
  int n = 0;
  void OnDeviceHaltDone(U32, HALT_REASONS) override { ++n; }
};

I64 Run(int Id, const QVariant& a = {}) {
  ExecAction(Id, a);
  WaitForCommand(Id);
  return GetActionResult(Id);
}

// Address of the STOP_BOTTOM line from gdb.
U32 BottomAddress(const std::string& sElf) {
  std::ifstream f(gdbtest::SourceDir() + "/firmware/tests/unwind.c");
  std::string s;
  int Line = 0;
  for (int n = 1; std::getline(f, s); ++n)
    if (s.find("STOP_BOTTOM") != std::string::npos) Line = n;
  const std::string Out = RunGdb(sElf, {"break unwind.c:" + std::to_string(Line)});
  const size_t At = Out.find(" at 0x");
  return At == std::string::npos ? 0 : U32(std::stoul(Out.substr(At + 4), nullptr, 16));
}

void Measure(const devtest::BACKEND& b, int Rounds, CCallStackDataModel& Model) {
  devtest::CTargetRig Rig(b);
  ExecAction(AID_PROJECT_SET_DEVICE, b.sDevice);
  ExecAction(AID_PROJECT_SET_HOST_IF, b.sHostIF, Rig.Ident());
  ExecAction(AID_PROJECT_SET_TARGET_IF, "SWD");
  const std::string sElf = gdbtest::SourceDir() + "/firmware/tests/elf/unwind-O2.elf";
  CElfApi::Instance().Load(QString::fromStdString(sElf));
  if (Run(AID_EXEC_CONNECT) != 0 || Run(AID_EXEC_DOWNLOAD, QString::fromStdString(sElf)) != 0 || Run(AID_EXEC_RESET) != 0) {
    printf("%s: could not connect and download\n", b.sName);
    return;
  }
  const U32 Bp = BottomAddress(sElf);
  HALTS h;
  Device()->PostSetBP(Bp, BP_STATE_ON, BP_TYPE_ANY);
  Device()->PostContinue();
  QElapsedTimer t;
  t.start();
  while (h.n < 1 && t.elapsed() < 10000) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
  if (h.n < 1) {
    printf("%s: no halt at the breakpoint\n", b.sName);
    return;
  }
  CCallStack& s = CCallStack::Instance();
  std::vector<double> Ms;
  U64 Reads = 0;
  qint64 WaitNs = 0, TotalNs = 0;
  for (int i = 0; i < Rounds; ++i) {
    s.TakeReadStats();
    t.restart();
    Model.UnwindForExport(10000);
    const qint64 Ns = t.nsecsElapsed();
    const CCallStack::READ_STATS r = s.TakeReadStats();
    Ms.push_back(Ns / 1e6);
    TotalNs += Ns;
    WaitNs += r.WaitNs;
    Reads += r.Reads;
  }
  std::sort(Ms.begin(), Ms.end());
  printf("%-5s frames %d (%s): median %.2f ms per unwind, %.1f memory reads each, %.0f%% of the time waiting for them\n",
         b.sName, s.FrameCount(), s.GetStopText().toUtf8().constData(), Ms[Ms.size() / 2], double(Reads) / Rounds,
         TotalNs ? 100.0 * double(WaitNs) / double(TotalNs) : 0.0);
  Device()->PostDisconnect();
  Device()->WaitIdle(10000);
}

}  // namespace

int main(int argc, char** argv) {
  QApplication App(argc, argv);
  InstallHeadlessDeviceApp();
  DWARF_Install();
  const int Rounds = argc > 1 ? std::max(1, atoi(argv[1])) : 50;
  CCallStackDataModel Model(&CCallStack::Instance());
  const devtest::BACKEND Sim{"sim", "MPS2-AN385", "USB", "", "", "", 0x20010000, true};
  Measure(Sim, Rounds, Model);
  if (devtest::CTargetRig::HaveQemu()) Measure(devtest::kQemu, Rounds, Model);
  return 0;
}
