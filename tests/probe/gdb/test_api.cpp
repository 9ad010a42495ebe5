// The GDB remote protocol back end through the exported C functions of the
// probe library: "IP" with "host:port" reaches the emulator's GDB server.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "device/vorden_api.h"
#include "probe/probe_util.h"
#include "qemu_util.h"

using namespace gdbtest;
using probetest::Reg;
using Clock = std::chrono::steady_clock;

namespace {

bool WaitHalted() { return probetest::WaitHalt(3000); }

class GdbApi : public ::testing::TestWithParam<Machine> {};

}  // namespace

TEST_P(GdbApi, SessionOnTheEmulatorThroughTheCFunctions) {
  std::string elf = SourceDir() + "/firmware/gdb/elf/" + GetParam().sElf;
  std::vector<Segment> segs;
  U32 entry;
  ASSERT_TRUE(LoadSegments(elf, segs, entry));
  auto syms = Symbols(elf);
  Qemu qemu(GetParam().sQemu);

  // "host:port" in one, or the port on its own.
  if (std::string(GetParam().sQemu) == "mps2-an385")
    ASSERT_EQ(VORDENARM_SelectIP(("127.0.0.1:" + std::to_string(qemu.port)).c_str(), 0), 0);
  else
    ASSERT_EQ(VORDENARM_SelectIP("127.0.0.1", qemu.port), 0);
  ASSERT_EQ(VORDENARM_Open(), nullptr);
  // Background memory access is emulated; no SWO, no streaming trace.
  auto bma = (int (*)(void))VORDEN_GetpFunc(10);
  ASSERT_TRUE(bma);
  EXPECT_EQ(bma(), 2);
  EXPECT_EQ(VORDENARM_EMU_HasCapEx(23), 0);
  U32 caps = 0xFFFFFFFF;
  ASSERT_EQ(VORDENARM_RAWTRACE_Control(4, &caps), 0);
  EXPECT_EQ(caps & (1u << 5), 0u);
  char err[256];
  ASSERT_EQ(VORDENARM_ExecCommand((std::string("device=") + GetParam().sDevice).c_str(), err, sizeof err), 0) << err;
  ASSERT_EQ(VORDENARM_Connect(), 0);
  ASSERT_EQ(VORDENARM_IsConnected(), 1);

  VORDENARM_BeginDownload(0);
  for (const Segment& s : segs)
    ASSERT_EQ(VORDENARM_WriteMemEx(s.Addr, (U32)s.Bytes.size(), s.Bytes.data(), 0), (int)s.Bytes.size());
  ASSERT_EQ(VORDENARM_EndDownload(), 0);
  ASSERT_EQ(VORDENARM_Reset(), 0);
  EXPECT_EQ(Reg(15), entry & ~1u);

  int h = VORDENARM_SetBPEx(syms["main"], 0xFFFFFFF0);
  ASSERT_GT(h, 0);
  VORDENARM_GoEx(0, 0);
  ASSERT_TRUE(WaitHalted());
  EXPECT_EQ(Reg(15), syms["main"]);
  ASSERT_EQ(VORDENARM_Step(), 0);
  EXPECT_NE(Reg(15), syms["main"]);

  // Registers the server does not describe carry the "not readable" status.
  U32 idx[3] = {VORDENARM_REG_R0, VORDENARM_REG_MSP, VORDENARM_REG_CONTROL};
  U64 val[3];
  U8 st[3];
  EXPECT_EQ(VORDENARM_ReadRegs(idx, val, st, 3), -1);
  EXPECT_EQ(st[0], 0);
  EXPECT_EQ(st[1], 1);
  EXPECT_EQ(st[2], 1);

  // Write data event on a global.
  VORDENARM_DATA_EVENT ev{};
  ev.SizeOfStruct = sizeof ev;
  ev.Type = 1;
  ev.Addr = syms["g_watched"];
  ev.DataMask = 0xFFFFFFFF;
  ev.Access = 1 | 4;
  ev.AccessMask = 0x10;
  U32 dh = 0;
  ASSERT_EQ(VORDENARM_SetDataEvent(&ev, &dh), 0);
  VORDENARM_GoEx(0, 0);
  ASSERT_TRUE(WaitHalted());
  U32 value = 0;
  ASSERT_EQ(VORDENARM_ReadMemEx(syms["g_watched"], 4, &value, 4), 4);
  EXPECT_NE(value, 0u);
  ASSERT_EQ(VORDENARM_ClrDataEvent(dh), 0);
  ASSERT_EQ(VORDENARM_ClrBPEx(-1), 0);

  // Halt while running, then the server disappears.
  VORDENARM_GoEx(0, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_EQ(VORDENARM_IsHalted(), 0);
  EXPECT_EQ(VORDENARM_Halt(), 0);
  EXPECT_GT(VORDENARM_IsHalted(), 0);
  VORDENARM_GoEx(0, 0);
  auto t0 = Clock::now();
  qemu.Stop(SIGKILL);
  char hs = 0;
  while (hs == 0 && Clock::now() - t0 < std::chrono::seconds(3)) hs = VORDENARM_IsHalted();
  EXPECT_LT(hs, 0);
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count(), 1000);
  VORDENARM_Close();
}

INSTANTIATE_TEST_SUITE_P(Mps2, GdbApi,
                         ::testing::ValuesIn(kMps2Machines), [](const auto& i) { return MachineName(i.param); });
