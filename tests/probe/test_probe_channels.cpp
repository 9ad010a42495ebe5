// Terminal channels (SWO stimulus ports, LVT both ways), high speed sampling
// of a counting variable and the power model's busy and sleep levels, all as
// the test firmware produces them.
#include <thread>

#include "probe_util.h"

using namespace probetest;

TEST(ProbeChannels, SWOStimulusPorts) {
  ElfImage img = StartCase("STM32F407VG", "tests_stm32f407vg", 6);
  U32 speeds[8];
  int ns = VORDENARM_SWO_GetCompatibleSpeeds(168000000, 10000000, speeds, 8);
  ASSERT_GT(ns, 0);
  EXPECT_LE(speeds[0], 10000000u);
  EXPECT_EQ(168000000u % speeds[0], 0u);
  ASSERT_EQ(VORDENARM_SWO_DisableTarget(0xFFFFFFFF), 0);
  ASSERT_EQ(VORDENARM_SWO_EnableTarget(168000000, speeds[0], 0, 0x3), 0);
  RunToDone(img);
  U8 buf[64] = {};
  int n = VORDENARM_SWO_ReadStimulus(0, buf, sizeof buf);
  EXPECT_EQ(std::string((char*)buf, n > 0 ? n : 0), "SWO port 0: hello\n");
  // Reading does not consume; the flush does.
  EXPECT_EQ(VORDENARM_SWO_ReadStimulus(0, buf, 4), 4);
  U32 four = 4;
  EXPECT_EQ(VORDENARM_SWO_Control(2, &four), 0);
  n = VORDENARM_SWO_ReadStimulus(0, buf, sizeof buf);
  EXPECT_EQ(std::string((char*)buf, n > 0 ? n : 0), "port 0: hello\n");
  n = VORDENARM_SWO_ReadStimulus(1, buf, sizeof buf);
  EXPECT_EQ(std::string((char*)buf, n > 0 ? n : 0), "P1");
  EXPECT_EQ(VORDENARM_SWO_ReadStimulus(2, buf, sizeof buf), 0);
}

TEST(ProbeChannels, SWOPortDisabledDropsText) {
  ElfImage img = StartCase("STM32F407VG", "tests_stm32f407vg", 6);
  ASSERT_EQ(VORDENARM_SWO_EnableTarget(168000000, 2000000, 0, 0x2), 0);  // port 1 only
  RunToDone(img);
  U8 buf[64];
  EXPECT_EQ(VORDENARM_SWO_ReadStimulus(0, buf, sizeof buf), 0);
  EXPECT_EQ(VORDENARM_SWO_ReadStimulus(1, buf, sizeof buf), 2);
}

static std::string ReadLVTUntil(const std::string& end, int timeoutMs) {
  std::string got;
  auto stop = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (got.find(end) == std::string::npos && std::chrono::steady_clock::now() < stop) {
    char buf[64];
    int n = VORDEN_LVTERMINAL_Read(0, buf, sizeof buf);
    EXPECT_GE(n, 0);
    if (n > 0) got.append(buf, n);
    else std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return got;
}

static void LVTBothWays(const char* how) {
  ElfImage img = StartCase("Cortex-M3", "tests_cortex-m3", 7);
  if (std::string(how) == "addr") {
    char cmd[64];
    snprintf(cmd, sizeof cmd, "SetLVTAddr 0x%x", img.Sym("_MARLEK_LVT"));
    ASSERT_EQ(Exec(cmd), "");
  } else if (std::string(how) == "ranges") {
    ASSERT_EQ(Exec("SetLVTSearchRanges 0x10000000 0x1000, 0x20000000 0x8000"), "");
  }
  ASSERT_EQ(VORDEN_LVTERMINAL_Control(0, nullptr), 0);  // before the firmware set it up
  VORDENARM_GoEx(0, 1);
  EXPECT_EQ(ReadLVTUntil("\n", 5000), "LVT up: hello\n");
  const char* line = "ping\n";
  EXPECT_EQ(VORDEN_LVTERMINAL_Write(0, line, 5), 5);
  ASSERT_TRUE(WaitHalt());
  EXPECT_EQ(Reg(VORDENARM_REG_PC), img.Sym("TestDone"));
  EXPECT_EQ(Mem32(img.Sym("g_Result")), 5u);
  EXPECT_EQ(ReadLVTUntil("\n", 1000), "echo:ping\n");
  EXPECT_EQ(VORDEN_LVTERMINAL_Write(7, line, 5), -1);  // no such buffer
  EXPECT_EQ(VORDEN_LVTERMINAL_Control(1, nullptr), 0);
  char b[4];
  EXPECT_LT(VORDEN_LVTERMINAL_Read(0, b, 4), 0);
}

TEST(ProbeChannels, LVTFoundBySearch) { LVTBothWays("search"); }
TEST(ProbeChannels, LVTAtItsSymbol) { LVTBothWays("addr"); }
TEST(ProbeChannels, LVTInGivenRanges) { LVTBothWays("ranges"); }

TEST(ProbeChannels, LVTNotInRangesIsNotFound) {
  ElfImage img = StartCase("Cortex-M3", "tests_cortex-m3", 7);
  ASSERT_EQ(Exec("SetLVTSearchRanges 0x20010000 0x1000"), "");
  ASSERT_EQ(VORDEN_LVTERMINAL_Control(0, nullptr), 0);
  VORDENARM_GoEx(0, 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  char buf[16];
  EXPECT_EQ(VORDEN_LVTERMINAL_Read(0, buf, sizeof buf), 0);
  EXPECT_LT(VORDEN_LVTERMINAL_Write(0, "x", 1), 0);
  VORDENARM_Halt();
  VORDEN_LVTERMINAL_Control(1, nullptr);
}

TEST(ProbeChannels, HSSSamplesOfACountingVariable) {
  ElfImage img = StartCase("Cortex-M3", "tests_cortex-m3", 8);
  VORDEN_HSS_MEM_BLOCK_DESC blk[2] = {{img.Sym("g_Counter"), 4, 0, 0}, {img.Sym("g_TestCase"), 4, 0, 0}};
  ASSERT_EQ(VORDEN_HSS_Start(blk, 2, 100, 0), 0);
  RunToDone(img);
  ASSERT_EQ(VORDEN_HSS_Stop(), 0);
  std::vector<U8> buf(250000);
  int n = VORDEN_HSS_Read(buf.data(), (U32)buf.size());
  ASSERT_GT(n, 0);
  ASSERT_EQ(n % 12, 0);
  int recs = n / 12;
  EXPECT_GT(recs, 10);
  U32 lastT = 0, lastC = 0;
  for (int i = 0; i < recs; ++i) {
    U32 t, c, tc;
    memcpy(&t, &buf[12 * i], 4);
    memcpy(&c, &buf[12 * i + 4], 4);
    memcpy(&tc, &buf[12 * i + 8], 4);
    EXPECT_EQ(tc, 8u);
    if (i > 0) {
      EXPECT_EQ(t - lastT, 100u) << i;  // 100 us apart in target time
      EXPECT_GT(c, lastC) << i;         // the loop counts all the time
    }
    lastT = t;
    lastC = c;
  }
  EXPECT_LE(lastC, 200000u);
  // Only whole records, and nothing left.
  EXPECT_EQ(VORDEN_HSS_Read(buf.data(), 11), 0);
  EXPECT_EQ(VORDEN_HSS_Start(blk, 100, 100, 0), -3);
}

TEST(ProbeChannels, PowerModelBusyAndSleepLevels) {
  ElfImage img = StartCase("Cortex-M3", "tests_cortex-m3", 9);
  VORDEN_POWERTRACE_CAPS caps{};
  caps.SizeofStruct = sizeof caps;
  ASSERT_EQ(VORDEN_POWERTRACE_Control(4, nullptr, &caps), 0);
  EXPECT_EQ(caps.ChannelMask & 1, 1u);
  VORDEN_POWERTRACE_SETUP setup{sizeof(VORDEN_POWERTRACE_SETUP), 1, 10000, 2, 1, 0};
  ASSERT_EQ(VORDEN_POWERTRACE_Control(0, &setup, nullptr), 10000);
  ASSERT_EQ(VORDEN_POWERTRACE_Control(1, nullptr, nullptr), 0);
  RunToDone(img);
  ASSERT_EQ(VORDEN_POWERTRACE_Control(2, nullptr, nullptr), 0);
  std::vector<VORDEN_POWERTRACE_DATA_ITEM> s(10000);
  int n = VORDEN_POWERTRACE_Read(s.data(), (U32)s.size());
  // Three phases of 10 ms busy and 10 ms asleep at 10 kHz: about 600 samples.
  ASSERT_GE(n, 560);
  ASSERT_LE(n, 640);
  int busy = 0, sleep = 0, other = 0;
  for (int i = 0; i < n; ++i) {
    if (i) {
      EXPECT_EQ(s[i].Time - s[i - 1].Time, 100u);
    }
    if (s[i].Value >= 11900 && s[i].Value <= 12100) busy++;
    else if (s[i].Value >= 2900 && s[i].Value <= 3100) sleep++;
    else other++;
  }
  EXPECT_GT(busy, 250);
  EXPECT_GT(sleep, 250);
  EXPECT_EQ(other, 0);
  EXPECT_EQ(VORDEN_POWERTRACE_Read(s.data(), 10), 0);
  // Power off: zero current.
  EXPECT_EQ(Exec("SupplyPower=0"), "");
  ASSERT_EQ(VORDEN_POWERTRACE_Control(1, nullptr, nullptr), 0);
  VORDENARM_GoEx(0, 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  VORDENARM_Halt();
  VORDEN_POWERTRACE_Control(2, nullptr, nullptr);
  n = VORDEN_POWERTRACE_Read(s.data(), (U32)s.size());
  ASSERT_GT(n, 0);
  for (int i = 0; i < n; ++i) EXPECT_EQ(s[i].Value, 0u);
  EXPECT_EQ(Exec("SupplyPower=1"), "");
}
