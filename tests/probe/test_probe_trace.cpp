// Streaming trace and instruction statistics against the simulator's own
// ground truth (its PC log file), and IT-block skips against the
// disassembler's view of the same firmware.
#include <cstdio>
#include <map>

#include "probe_util.h"
#include "testsupport/objdump_oracle.h"

using namespace probetest;

namespace {

std::vector<U32> ReadPCLog(const std::string& path) {
  std::vector<U32> v;
  FILE* f = fopen(path.c_str(), "rb");
  if (!f) return v;
  U32 buf[4096];
  size_t n;
  while ((n = fread(buf, 4, 4096, f)) > 0) v.insert(v.end(), buf, buf + n);
  fclose(f);
  return v;
}

}  // namespace

class ProbeTrace : public ::testing::Test {
 protected:
  void SetUp() override {
    img = StartCase("Cortex-M3", "tests_cortex-m3", 5);
    log = TmpDir() + "/trace_pclog.bin";
    ASSERT_EQ(Exec("SimPCLog=" + log), "");
    ASSERT_EQ(VORDEN_STRACE_Config("PortWidth=4"), 0);
    ASSERT_EQ(VORDEN_STRACE_Start(), 0);
    RunToDone(img);
    truth = ReadPCLog(log);
  }
  void TearDown() override {
    VORDEN_STRACE_Stop();
    Exec("SimPCLog=");
  }
  ElfImage img;
  std::string log;
  std::vector<U32> truth;  // oldest first
};

TEST_F(ProbeTrace, ReadsGiveTheGroundTruthNewestFirstInPages) {
  ASSERT_GT(truth.size(), 300000u);
  std::vector<U32> page(100000);
  size_t got = 0;
  bool markers = false;
  while (got < truth.size()) {
    int n = VORDEN_STRACE_Read(page.data(), (U32)page.size());
    ASSERT_GE(n, 0);
    if (n == 0) break;
    for (int i = 0; i < n; ++i) {
      ASSERT_EQ(page[i], truth[truth.size() - 1 - got - i]) << "item " << got + i;
      markers |= page[i] >= 0xFFFFFFF0;
    }
    got += n;
  }
  EXPECT_EQ(got, truth.size());
  EXPECT_TRUE(markers);  // SysTick ran at 10 kHz
  // Newest first: the halt is at TestDone, which has not executed yet; the
  // newest entry is the call to it.
  EXPECT_EQ(VORDEN_STRACE_Read(page.data(), 10), 0);
  // The read position restarts at a halt: after one step the newest is TestDone.
  ASSERT_EQ(VORDENARM_Step(), 0);
  ASSERT_EQ(VORDEN_STRACE_Read(page.data(), 2), 2);
  EXPECT_EQ(page[0], img.Sym("TestDone"));
  EXPECT_EQ(page[1], truth.back());
}

TEST_F(ProbeTrace, TimeStampsFollowTheCycleModel) {
  std::vector<U32> pcs(5000);
  VORDEN_STRACE_TIMESTAMP_INFO st[10];
  int ns = 10;
  int n = VORDEN_STRACE_ReadEx(pcs.data(), (U32)pcs.size(), st, &ns, 0);
  ASSERT_EQ(n, 5000);
  ASSERT_EQ(ns, 5);
  U32 now = Mem32(0x4FFF0010);  // the cycle counter at the halt
  EXPECT_EQ((U32)st[0].Cycles, now - 1);  // the newest instruction ran one cycle ago
  for (int i = 1; i < ns; ++i) {
    EXPECT_EQ(st[i].InstIndex, 1000u * i);
    // Between stamps: one cycle per instruction, markers cost nothing.
    U64 instrs = 0;
    for (U32 k = st[i - 1].InstIndex; k < st[i].InstIndex; ++k) instrs += pcs[k] < 0xFFFFFFF0;
    EXPECT_EQ(st[i - 1].Cycles - st[i].Cycles, instrs);
  }
}

TEST_F(ProbeTrace, StatisticsEqualGroundTruthAndCountITSkips) {
  std::map<U32, U64> fetch;
  U64 total = 0;
  for (U32 pc : truth)
    if (pc < 0xFFFFFFF0) {
      fetch[pc]++;
      total++;
    }
  // The whole program: flash from 0 up to the end of the code.
  U32 steps = 0x1000 / 2;
  std::vector<U64> buf(2 * (steps + 1));
  ASSERT_EQ(VORDEN_STRACE_GetInstStats(buf.data(), 0, (U32)buf.size(), 8, 9), (int)buf.size());
  // Fetches: what the log shows ran, plus what an IT block skipped.
  U64 skips = 0;
  for (U32 i = 0; i < steps; ++i) {
    U32 a = 2 * i;
    U64 want = (fetch.count(a) ? fetch[a] : 0) + buf[steps + 1 + i];
    ASSERT_EQ(buf[i], want) << std::hex << a;
    skips += buf[steps + 1 + i];
  }
  EXPECT_EQ(buf[steps], total + skips);
  EXPECT_EQ(buf[2 * steps + 1], skips);
  // The IT block: both conditional instructions fetched 100 times, skipped 50.
  std::string elf = FirmwarePath("tests_cortex-m3");
  U32 it = img.Sym("ItBlock");
  std::vector<U32> insn;
  for (const auto& [a, i] : objdump::Disassemble(elf, nullptr, it, it + 8)) insn.push_back(a);
  ASSERT_GE(insn.size(), 3u);
  ASSERT_EQ(insn[0], it);
  for (int k = 1; k <= 2; ++k) {
    U32 a = insn[k];
    EXPECT_EQ(buf[a / 2], 100u) << std::hex << a;
    EXPECT_EQ(buf[steps + 1 + a / 2], 50u) << std::hex << a;
  }
  EXPECT_EQ(buf[steps + 1 + it / 2], 0u);  // the IT instruction itself always runs
  EXPECT_EQ(Mem32(img.Sym("g_ItResult")), (50u << 16) | 50u);
}

TEST_F(ProbeTrace, StatisticsWhileRunningAndTracepoints) {
  U64 before[4];
  ASSERT_EQ(VORDEN_STRACE_GetInstStats(before, 0, 4, 8, 9), 4);
  // A tracepoint pair: record only from StepProbe on.
  VORDEN_STRACE_EVENT_INFO ev{};
  ev.SizeOfStruct = sizeof ev;
  ev.Op = 0;
  ev.Addr = img.Sym("StepProbe");
  ASSERT_EQ(VORDEN_STRACE_Control(0, &ev), 0);
  ASSERT_EQ(VORDEN_STRACE_Start(), 0);  // restart: nothing recorded until StepProbe
  U64 tot[4];
  ASSERT_EQ(VORDEN_STRACE_GetInstStats(tot, 0, 4, 8, 9), 4);
  EXPECT_EQ(tot[1], 0u);
  VORDENARM_ClrBPEx(-1);
  VORDENARM_GoEx(0, 1);  // runs on in the endless loop behind TestDone
  U64 mid[4];
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(VORDEN_STRACE_GetInstStats(mid, 0, 4, 8, 9), 4);
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  VORDENARM_Halt();
  // TestDone leads to an endless loop that never reaches StepProbe.
  EXPECT_EQ(mid[1], 0u);
  U32 pcs[4];
  EXPECT_EQ(VORDEN_STRACE_Read(pcs, 4), 0);
  EXPECT_EQ(VORDEN_STRACE_Control(2, nullptr), 0);
}

// A ring smaller than the run: the newest entries survive, in order.
TEST(ProbeTraceRing, WrapsAndKeepsTheNewest) {
  ElfImage img = StartCase("Cortex-M3", "tests_cortex-m3", 5);
  std::string log = TmpDir() + "/ring_pclog.bin";
  ASSERT_EQ(Exec("SimPCLog=" + log), "");
  EXPECT_NE(Exec("SimTraceSize=1000"), "");  // not a power of two
  ASSERT_EQ(Exec("SimTraceSize=65536"), "");
  ASSERT_EQ(VORDEN_STRACE_Start(), 0);
  EXPECT_NE(Exec("SimTraceSize=1024"), "");  // not while tracing
  RunToDone(img);
  std::vector<U32> truth = ReadPCLog(log);
  ASSERT_GT(truth.size(), 65536u * 4);
  std::vector<U32> all;
  std::vector<U32> page(30000);
  VORDEN_STRACE_TIMESTAMP_INFO st[64];
  int n, ns;
  while (ns = 64, (n = VORDEN_STRACE_ReadEx(page.data(), (U32)page.size(), st, &ns, 0)) > 0) {
    all.insert(all.end(), page.begin(), page.begin() + n);
    for (int i = 1; i < ns; ++i) EXPECT_LT(st[i].Cycles, st[i - 1].Cycles);
  }
  ASSERT_EQ(all.size(), 65536u);
  for (size_t i = 0; i < all.size(); ++i) ASSERT_EQ(all[i], truth[truth.size() - 1 - i]) << i;
  VORDEN_STRACE_Stop();
  EXPECT_EQ(Exec("SimTraceSize=16777216"), "");
  Exec("SimPCLog=");
}
