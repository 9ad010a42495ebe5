// Prints the time from Debug.Start() to the report of the halt at main (the
// whole start chain: connect, reset, download, run to the break symbol) for
// the MPS2 firmware on the simulator and on QEMU; median and spread of the
// runs. Usage: bench_session [runs] (default 7)
#include <gtest/gtest.h>  // the shared target helpers use its parameter type

#include "../../tests/device/target_support.h"
#include "commands/actions.h"
#include "device/bpmodel.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "session/debugsession.h"
#include "session/program.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QThread>
#include <algorithm>
#include <cstdio>

namespace {

I64 Run(int Id, const QVariant& a = {}, const QVariant& b = {}) {
  ExecAction(Id, a, b);
  WaitForCommand(Id);
  return GetActionResult(Id);
}

void Measure(const devtest::BACKEND& b, int Runs) {
  devtest::CTargetRig Rig(b);
  Run(AID_PROJECT_SET_DEVICE, b.sDevice);
  Run(AID_PROJECT_SET_HOST_IF, b.sHostIF, Rig.Ident());
  Run(AID_PROJECT_SET_TARGET_IF, "SWD");
  Run(AID_FILE_OPEN, devtest::SourcePath(b.sFirmware));
  CDebugSession* s = SessionModule::DebugSession();
  U64 Main = 0;
  CBreakpointsDataModel::Instance().Prog().ParseAddress(QStringLiteral("main"), &Main);
  auto AtMain = [&] { return Device()->IsTargetHalted() && Device()->CurrentPC() == U32(Main & ~1ull); };
  std::vector<double> Ms;
  U32 PC = 0;
  for (int i = 0; i < Runs; ++i) {
    const U64 Halts = s->HaltCount();
    QElapsedTimer t;
    t.start();
    ExecAction(AID_DEBUG_START);
    WaitForCommand(AID_DEBUG_START);
    // The session is done 100 ms after the halt at the break symbol, when
    // AfterTargetHalt has run; that fixed delay is taken off.
    while ((s->IsAwaitingHalt() || s->HaltCount() == Halts) && t.elapsed() < 30000) {
      QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
      QThread::usleep(100);
    }
    if (!AtMain()) break;
    Ms.push_back(t.nsecsElapsed() / 1e6 - 100);
    PC = Device()->CurrentPC();
    Run(AID_DEBUG_STOP);
  }
  if (Ms.empty()) {
    printf("%-5s Debug.Start did not reach a halt\n", b.sName);
    return;
  }
  std::sort(Ms.begin(), Ms.end());
  printf("%-5s Debug.Start() to the halt at 0x%08X: median %7.1f ms (min %.1f, max %.1f, %zu runs)\n", b.sName, PC,
         Ms[Ms.size() / 2], Ms.front(), Ms.back(), Ms.size());
}

}  // namespace

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication App(argc, argv);
  const int Runs = argc > 1 ? atoi(argv[1]) : 7;
  auto* pMain = InstallHeadlessDeviceApp();
  SessionModule::Install();
  ProjectModule::SetProgramFileLoader(&SessionModule::ProgramFileLoader());
  SessionModule::InstallDebugSession();
  Measure({"sim", "MPS2-AN385", "USB", "firmware/gdb/elf/gdbtest_an385.elf", "g_table", "", 0x24000000, false}, Runs);
  if (devtest::CTargetRig::HaveQemu()) Measure(devtest::kQemu, Runs);
  delete pMain;
  return 0;
}
