// Prints the device layer's figures on the simulator and on QEMU:
// Target.ReadU32 calls per second from a project script function, and the
// download throughput of a 256 KB program image.
// Usage: bench_device [reads] (default 20000)
#include <gtest/gtest.h>  // the shared target helpers use its parameter type

#include "../../tests/device/target_support.h"
#include "commands/actions.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "device/module.h"
#include "log/messagebox.h"
#include "project/project.h"
#include "project/projectcommands.h"
#include "project/vscript.h"
#include "ui/shell/consolewindow.h"
#include "ui/shell/mainwindow.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <cstdio>

namespace {

// A 32-bit little-endian ELF file with one loadable segment of Size bytes.
QByteArray MakeImage(U32 LoadAddr, U32 Size) {
  QByteArray f(52 + 32, 0);
  auto Put = [&](int Off, U32 v, int n) {
    for (int i = 0; i < n; ++i) f[Off + i] = char((v >> (8 * i)) & 0xFF);
  };
  f.replace(0, 4, "\x7f" "ELF");
  f[4] = 1, f[5] = 1, f[6] = 1;
  Put(16, 2, 2), Put(18, 40, 2), Put(20, 1, 4), Put(24, LoadAddr, 4), Put(28, 52, 4);
  Put(40, 52, 2), Put(42, 32, 2), Put(44, 1, 2);
  Put(52, 1, 4), Put(56, 84, 4), Put(60, LoadAddr, 4), Put(64, LoadAddr, 4), Put(68, Size, 4), Put(72, Size, 4);
  Put(76, 5, 4), Put(80, 4, 4);
  QByteArray Data(qsizetype(Size), 0);
  for (U32 i = 0; i < Size; ++i) Data[i] = char(i * 7 + (i >> 8));
  return f + Data;
}

I64 Run(int Id, const QVariant& a = {}, const QVariant& b = {}) {
  ExecAction(Id, a, b);
  WaitForCommand(Id);
  return GetActionResult(Id);
}

void Measure(const devtest::BACKEND& b, int Reads, U32 FlashAddr) {
  devtest::CTargetRig Rig(b);
  Run(AID_PROJECT_SET_DEVICE, b.sDevice);
  Run(AID_PROJECT_SET_HOST_IF, b.sHostIF, Rig.Ident());
  Run(AID_PROJECT_SET_TARGET_IF, "SWD");
  if (Run(AID_EXEC_CONNECT) != 0) {
    printf("%-5s connect failed\n", b.sName);
    return;
  }
  QTemporaryDir Dir;
  const QString sImage = Dir.filePath("image256k.elf");
  QFile f(sImage);
  f.open(QIODevice::WriteOnly);
  f.write(MakeImage(FlashAddr, 256 * 1024));
  f.close();
  double BestKBs = 0;
  for (int i = 0; i < 3; ++i) {
    QElapsedTimer t;
    t.start();
    const I64 r = Run(AID_EXEC_DOWNLOAD, sImage);
    const double s = t.nsecsElapsed() / 1e9;
    if (r == 0) BestKBs = std::max(BestKBs, 256.0 / s);
  }
  const QString sScript = QStringLiteral(
                              "int Bench (void) {\n  int i;\n  int v;\n  i = 0;\n  while (i < %1) {\n"
                              "    v = Target.ReadU32 (0x%2);\n    i = i + 1;\n  }\n  return v;\n}\n")
                              .arg(Reads)
                              .arg(FlashAddr, 0, 16);
  VScript::LoadText(sScript);
  I64 Result = 0;
  QElapsedTimer t;
  t.start();
  const int r = VScript::ExecScriptFunction("Bench", -1, 0, nullptr, &Result);
  const double s = t.nsecsElapsed() / 1e9;
  printf("%-5s Target.ReadU32 from a script: %8.0f calls/s (%d calls, %s)\n", b.sName, Reads / s, Reads,
         r == VScript::EXEC_OK ? "ok" : qPrintable(VScript::GetLastError()));
  // The parts of one call: the command alone, and the wait that follows it.
  QElapsedTimer t2;
  t2.start();
  for (int i = 0; i < 2000; ++i) ExecAction(AID_TARGET_READ_U_32, QStringLiteral("0x%1").arg(FlashAddr, 0, 16));
  const double Cmd = t2.nsecsElapsed() / 2000e3;
  t2.restart();
  for (int i = 0; i < 2000; ++i) DeviceModule::WaitUntilIdle(1000);
  const double Wait = t2.nsecsElapsed() / 2000e3;
  printf("%-5s   per call: command %.1f us, wait for the device %.1f us\n", b.sName, Cmd, Wait);
  printf("%-5s download of a 256 KB image:  %8.0f KB/s (best of 3)\n", b.sName, BestKBs);
  Device()->PostDisconnect();
  DeviceModule::WaitUntilIdle(10000);
  VScript::Release();
}

}  // namespace

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication App(argc, argv);
  const int Reads = argc > 1 ? atoi(argv[1]) : 20000;
  auto* pMain = InstallHeadlessDeviceApp();
  Measure(devtest::kSim, Reads, 0x08000000);
  if (devtest::CTargetRig::HaveQemu()) Measure(devtest::kQemu, Reads, 0x00000000);
  delete pMain;
  return 0;
}
