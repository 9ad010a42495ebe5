// Prints the data cache's figures against the counting fake probe: probe
// reads (and bytes) per window refresh with ten windows asking overlapping
// ranges, through the cache and straight to the probe, and the time of a
// look-up the cache answers.
// Usage: bench_datacache [lookups] (default 1000000)
#include "device/coresupport.h"
#include "device/datamanager.h"
#include "device/device.h"
#include "device/events.h"
#include "device/fake_probe.h"  // tests/device

#include <QCoreApplication>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

using fakeprobe::kRAM;

struct CWindow : CDeviceEventListener {
  int Done = 0;
  void OnDeviceReadMemDone(U32, U32, const char*, U8*, U8*) override { ++Done; }
};

// CPU time of this thread: the machine may be shared, wall time says little.
double ThreadNs() {
  timespec t;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return double(t.tv_sec) * 1e9 + double(t.tv_nsec);
}

struct RANGE {
  U32 Off, Size;
};

// Probe read calls and bytes of one refresh of the windows, each asking for
// its ranges at once, as windows do on a halt.
void Refresh(const char* sName, const std::vector<std::vector<RANGE>>& Windows) {
  CDevice* d = Device();
  CDeviceDataManager& Cache = CDeviceDataManager::Instance();
  std::vector<CWindow> Wins(Windows.size());
  U32 DirectBytes = 0, DirectCalls = 0;
  for (const auto& w : Windows)
    for (const RANGE& r : w) DirectBytes += r.Size, ++DirectCalls;
  Cache.ClearCaches();
  const int r0 = fakeprobe::S().ReadCalls.load();
  const U64 j0 = d->Counters().NextJobID, b0 = Cache.BytesScheduled();
  for (size_t i = 0; i < Windows.size(); ++i)
    for (const RANGE& r : Windows[i]) Cache.ReadMemAsync(&Wins[i], kRAM + r.Off, r.Size, nullptr, 0, AW_ANY, 0);
  d->WaitIdle(10000);
  const int Cached = fakeprobe::S().ReadCalls.load() - r0;
  const U64 Jobs = d->Counters().NextJobID - j0, Bytes = Cache.BytesScheduled() - b0;
  // A second refresh in the same halt.
  const int r1 = fakeprobe::S().ReadCalls.load();
  for (size_t i = 0; i < Windows.size(); ++i)
    for (const RANGE& r : Windows[i]) Cache.ReadMemAsync(&Wins[i], kRAM + r.Off, r.Size, nullptr, 0, AW_ANY, 0);
  d->WaitIdle(10000);
  const int Again = fakeprobe::S().ReadCalls.load() - r1;
  // Straight to the probe, one read per range.
  const int r2 = fakeprobe::S().ReadCalls.load();
  for (const auto& w : Windows)
    for (const RANGE& r : w) {
      std::vector<U8> Buf(r.Size);
      Cache.ReadMemDirect(kRAM + r.Off, r.Size, Buf.data());
    }
  const int Direct = fakeprobe::S().ReadCalls.load() - r2;
  printf("%-34s probe reads with cache %3d (%llu jobs, %llu bytes), without %3d (%u bytes): ratio %.2f reads, "
         "%.2f bytes; second refresh in the same halt: %d reads\n",
         sName, Cached, (unsigned long long)Jobs, (unsigned long long)Bytes, Direct, DirectBytes,
         Direct ? double(Cached) / Direct : 0.0, DirectBytes ? double(Bytes) / DirectBytes : 0.0, Again);
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication App(argc, argv);
  SetDeviceGuiThread();
  const long Lookups = argc > 1 ? atol(argv[1]) : 1000000;
  struct : ICoreSupport {
    U32 NumProbeRegs() const override { return 32; }
    int GetRegIndex(U32 r) const override { return r < 32 ? int(r) : -1; }
    U32 GetBPFlags(U32) const override { return 0; }
    int ReadReg(U32, U64*) override { return -1; }
    int ReadRegs(U32, const U32*, U64*, U8*) override { return -1; }
    int WriteReg(U32, U64) override { return -1; }
    int ReadCPReg(const char*, U64*) override { return -1; }
    int WriteCPReg(const char*, U64) override { return -1; }
  } Core;
  DEV_SetCoreSupport(&Core);
  CDevice* d = CDevice::CreateWithProbe(fakeprobe::Table());
  CDeviceDataManager& Cache = CDeviceDataManager::Instance();
  d->PostConnect(CM_ATTACH);
  d->WaitIdle(5000);
  if (!d->HaltReported()) return printf("fake probe: no halted target\n"), 1;

  // Ten memory windows over one buffer, each 256 bytes, 64 bytes apart.
  std::vector<std::vector<RANGE>> Staggered(10);
  for (U32 i = 0; i < 10; ++i) Staggered[i] = {{64 * i, 256}};
  Refresh("10 windows, staggered 256-byte", Staggered);
  // Ten watch windows showing the same six variables, plus one of their own.
  std::vector<std::vector<RANGE>> Same(10);
  for (U32 i = 0; i < 10; ++i) {
    for (U32 v = 0; v < 6; ++v) Same[i].push_back({0x400 + 16 * v, 4});
    Same[i].push_back({0x800 + 32 * i, 8});
  }
  Refresh("10 watch windows, 6 shared vars", Same);

  CWindow w;
  double t0 = ThreadNs();
  for (long i = 0; i < Lookups; ++i) Cache.ReadMemAsync(&w, kRAM + 0x400 + 4 * U32(i % 24), 4, nullptr, 0, AW_ANY, 0);
  const double NsValue = (ThreadNs() - t0) / double(Lookups);
  U8 Buf[64], St[64];
  t0 = ThreadNs();
  for (long i = 0; i < Lookups; ++i) Cache.ReadMemSync(kRAM + 16 * U32(i % 32), 64, nullptr, Buf, St);
  const double NsRange = (ThreadNs() - t0) / double(Lookups);
  printf("cached look-up (thread CPU time): 4-byte value with callback %.0f ns, 64-byte range (debug layer) %.0f ns\n",
         NsValue, NsRange);
  CDevice::Destroy();
  DEV_SetCoreSupport(nullptr);
  return 0;
}
