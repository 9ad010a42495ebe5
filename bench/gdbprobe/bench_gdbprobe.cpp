// Figures of the GDB remote protocol back end (emulator MPS2-AN385 over
// loopback) beside the built-in simulator: single steps per second, 4-byte and
// 2 KiB memory reads, and the time from a resume to a breakpoint stop.
#include <chrono>
#include <algorithm>
#include <cstdio>
#include <thread>

#include "devices.h"
#include "qemu_util.h"
#include "sim/sim_target.h"

using namespace vorden;
using namespace gdbtest;
using Clock = std::chrono::steady_clock;

namespace {

double Seconds(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

bool WaitHalted(CBackend& b) {
  auto end = Clock::now() + std::chrono::seconds(5);
  while (Clock::now() < end) {
    int h = b.IsHalted();
    if (h != 0) return h == 1;
  }
  return false;
}

bool Measure(const char* sName, CBackend& b, const std::vector<Segment>& segs, U32 Main, U32 Work) {
  for (const Segment& s : segs)
    if (b.WriteMem(s.Addr, (U32)s.Bytes.size(), (const U8*)s.Bytes.data()) != (int)s.Bytes.size()) return false;
  if (b.Reset() != 0) return false;
  int h = b.SetBP(Main, 0xFFFFFFF0);
  if (h <= 0 || b.Go(0) != 0 || !WaitHalted(b)) return false;
  b.ClrBP(h);

  const int kSteps = 3000;
  auto t0 = Clock::now();
  for (int i = 0; i < kSteps; ++i)
    if (b.Step() != 0) return false;
  double steps = kSteps / Seconds(t0);

  U8 buf[2048];
  const int kSmall = 3000;
  t0 = Clock::now();
  for (int i = 0; i < kSmall; ++i)
    if (b.ReadMem(0x20000000 + (U32)(i % 64) * 4, 4, buf) != 4) return false;
  double small = kSmall / Seconds(t0);
  const int kLarge = 500;
  t0 = Clock::now();
  for (int i = 0; i < kLarge; ++i)
    if (b.ReadMem(0x20000000, 2048, buf) != 2048) return false;
  double large = kLarge * 2048.0 / 1024.0 / Seconds(t0);

  h = b.SetBP(Work, 0xFFFFFFF0);
  if (h <= 0) return false;
  const int kStops = 300;
  double total = 0, worst = 0;
  for (int i = 0; i < kStops; ++i) {
    auto s0 = Clock::now();
    if (b.Go(VORDENARM_GO_FLAG_OVERSTEP_BP) != 0 || !WaitHalted(b)) return false;
    double d = Seconds(s0);
    total += d;
    worst = std::max(worst, d);
  }
  printf("%-10s  %10.0f steps/s  %9.0f reads/s (4 B, %6.0f KiB/s)  %8.0f KiB/s (2 KiB reads)  go->bp %7.1f us mean %7.1f us max\n",
         sName, steps, small, small * 4 / 1024.0, large, total / kStops * 1e6, worst * 1e6);
  return true;
}

}  // namespace

int main() {
  std::string elf = SourceDir() + "/firmware/gdb/elf/gdbtest_an385.elf";
  std::vector<Segment> segs;
  U32 entry;
  if (!LoadSegments(elf, segs, entry)) {
    fprintf(stderr, "cannot load %s\n", elf.c_str());
    return 1;
  }
  auto syms = Symbols(elf);
  int dev = FindDevice("MPS2-AN385");
  printf("MPS2-AN385 test firmware; the steps run through main and its computation loop\n");

  CSimTarget sim(dev, [](int, const std::string&) {});
  std::string err;
  if (!sim.Init(err) || !Measure("simulator", sim, segs, syms["main"], syms["Work"])) {
    fprintf(stderr, "simulator run failed %s\n", err.c_str());
    return 1;
  }
  Qemu qemu("mps2-an385");
  auto gdb = qemu.Connect(dev, err);
  if (!gdb || !Measure("gdb/qemu", *gdb, segs, syms["main"], syms["Work"])) {
    fprintf(stderr, "GDB server run failed %s\n", err.c_str());
    return 1;
  }
  return 0;
}
