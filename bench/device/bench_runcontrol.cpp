// Prints the halts per second of a breakpoint whose condition is false, on
// the simulator and on QEMU: each hit is noticed by the halt poll, crosses to
// this thread for the condition and resumes through the condition word.
// Usage: bench_runcontrol [seconds per back end] (default 3)
#include <gtest/gtest.h>  // the shared target helpers use its parameter type

#include "../../tests/device/target_support.h"
#include "device/bpmodel.h"
#include "device/device.h"
#include "device/loadimage.h"
#include "device/module.h"
#include "device/projectsettings.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "testsupport/readelf_oracle.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <cstdio>

namespace {

const devtest::BACKEND kSimMps2{"sim", "MPS2-AN385", "USB", "firmware/gdb/elf/gdbtest_an385.elf", "g_table", "", 0x24000000, false};

U32 Sym(const QString& sElf, const char* s) {
  for (const readelf::Symbol& x : readelf::Symbols(sElf.toStdString()))
    if (x.Name == s) return U32(x.Value) & ~1u;
  return 0;
}

bool Idle() { return DeviceModule::WaitUntilIdle(20000) == 0; }

void Measure(const devtest::BACKEND& b, int Seconds) {
  devtest::CTargetRig Rig(b);
  IDeviceProjectSettings& p = DeviceModule::ProjectSettings();
  p.SetDevice(b.sDevice), p.SetHostIF(b.sHostIF, Rig.Ident()), p.SetTargetIF("SWD");
  Device()->PostConnect(CM_DOWNLOAD_RESET);
  Idle();
  if (!Device()->IsConnected()) {
    printf("%-5s connect failed\n", b.sName);
    return;
  }
  const QString sElf = devtest::SourcePath(b.sFirmware);
  std::vector<DEV_LOAD_BLOCK> Blocks;
  DEV_ReadLoadSegments(sElf, &Blocks, nullptr);
  Device()->PostHalt();
  for (const DEV_LOAD_BLOCK& l : Blocks) {
    const U32 r[2] = {l.LoadAddr, l.LoadAddr + U32(l.Data.size())};
    Device()->PostWriteMemMultiple(1, r, r[1] - r[0], (const U8*)l.Data.constData(), 0, AW_ANY, MEM_FLAG_BEGIN_DOWNLOAD);
  }
  Device()->PostEndDownload("fw", 0), Device()->PostReset(RM_RESET_HALT);
  Idle();
  const U32 Work = Sym(sElf, "Work");
  Device()->PostSetBP(Work, BP_STATE_ON, BP_TYPE_ANY);
  Idle();
  CBreakpointInfo i;
  i.Addr = Work, i.Condition = "g_counter == 0";  // false after the first pass
  CBreakpointsDataModel::Instance().Edit(i);
  Device()->PostContinue();
  Idle();
  QElapsedTimer t;
  t.start();
  const U64 From = Device()->GetBreakpoint(Work).HitCount;
  while (t.elapsed() < Seconds * 1000LL) DeviceModule::WaitUntilIdle(10);
  const U64 Hits = Device()->GetBreakpoint(Work).HitCount - From;
  const double s = double(t.elapsed()) / 1000.0;
  printf("%-5s conditional breakpoint, condition false: %6.1f halts/s (%llu halts in %.1f s)%s\n", b.sName,
         double(Hits) / s, (unsigned long long)Hits, s, Device()->HaltReported() ? "  [stopped: condition met?]" : "");
  Device()->PostHalt();
  Idle();
  Device()->PostClearAllBPs(), Device()->PostDisconnect();
  Idle();
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication App(argc, argv);
  const int Seconds = argc > 1 ? std::max(1, atoi(argv[1])) : 3;
  DeviceModule::Install();
  DWARF_Install();
  if (CElfApi::Instance().Load(devtest::SourcePath(kSimMps2.sFirmware)) != 0) {
    printf("cannot load %s\n", kSimMps2.sFirmware);
    return 1;
  }
  CBreakpointsDataModel::Instance();
  Measure(kSimMps2, Seconds);
  if (devtest::CTargetRig::HaveQemu()) Measure(devtest::kQemu, Seconds);
  else printf("qemu  skipped: no qemu-system-arm\n");
  return 0;
}
