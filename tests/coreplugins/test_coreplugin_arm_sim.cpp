// The ARM core plug-in against the simulated target of the probe library:
// the plug-in finds the probe's register operations in the process, the test
// host serves memory from the program image first and then from the target.
#include "plugin_host.h"
#include "probe/probe_util.h"

#include <gtest/gtest.h>

namespace {

const TestElf* g_pImage = nullptr;

int SimReadMem(U64 Addr, U32 n, U8* p) {
  if (g_pImage && g_pImage->Read(Addr, n, p)) return 0;
  if (Addr + n > 0x100000000ull) return -1;
  return VORDENARM_ReadMemEx(U32(Addr), n, p, 0) == int(n) ? 0 : -1;
}
int SimProgramInfo(U64* paOut) {
  paOut[0] = paOut[1] = g_pImage ? g_pImage->LowestAddr() : 0;
  paOut[2] = g_pImage ? g_pImage->Entry : ~0ull;
  return 0;
}

// Loads the plug-in with a host whose memory reads and program information
// come from the simulator.
void LoadOnSimulator(LoadedPlugin& P) {
  ASSERT_TRUE(P.Load(LoadedPlugin::DefaultPath())) << P.Error;
  CORE_HOST_API H = TestHost::Table();
  H.pfReadMem = SimReadMem;
  H.pfGetProgramInfo = SimProgramInfo;
  ASSERT_EQ(P.pfSetAPI(&H, sizeof H), 0);
}

}  // namespace

TEST(CorePluginArmSim, DefaultExecStateAndRegistersOnTheSimulator) {
  LoadedPlugin P;
  ASSERT_NO_FATAL_FAILURE(LoadOnSimulator(P));

  probetest::ConnectFresh("STM32F407VG");
  std::string Path = probetest::FirmwarePath("tests_stm32f407vg");
  probetest::ElfImage Img = probetest::LoadElf(Path);
  probetest::Download(Img);
  ASSERT_EQ(VORDENARM_Reset(), 0);
  TestElf E;
  ASSERT_TRUE(E.Load(Path));
  U32 Sp0 = 0, Pc0 = 0;
  ASSERT_TRUE(Img.Read32(0x08000000, Sp0));
  ASSERT_TRUE(Img.Read32(0x08000004, Pc0));

  // From the program image, and without one from the target's vector table.
  const TestElf* apImages[2] = {&E, nullptr};
  for (const TestElf* pImage : apImages) {
    g_pImage = pImage;
    ASSERT_EQ(VORDENARM_WriteReg(13, 0x20000100), 0);
    ASSERT_EQ(VORDENARM_WriteReg(15, 0x08000100), 0);
    ASSERT_EQ(P.Api.pfSetDefaultExecState(), 0);
    EXPECT_EQ(probetest::Reg(13), Sp0);
    EXPECT_EQ(probetest::Reg(15), Pc0 & ~1u);
  }
  g_pImage = &E;

  // Registers through the plug-in equal the simulator's own answers.
  U32 aIdx[23];
  for (U32 i = 0; i < 23; ++i) aIdx[i] = i;
  U64 aMine[23], aSim[23];
  U8 aMineSt[23], aSimSt[23];
  ASSERT_EQ(P.Api.pfReadRegs(23, aIdx, 23 * 8, aMine, aMineSt), 0);
  ASSERT_EQ(VORDENARM_ReadRegs(aIdx, aSim, aSimSt, 23), 0);
  for (U32 i = 0; i < 23; ++i) {
    EXPECT_EQ(aMineSt[i], aSimSt[i]) << i;
    EXPECT_EQ(aMine[i], aSim[i]) << i;
  }
  U64 V = 0x12345678;
  ASSERT_EQ(P.Api.pfWriteReg(5, 8, &V), 0);
  EXPECT_EQ(probetest::Reg(5), 0x12345678u);
  ASSERT_EQ(P.Api.pfReadReg(5, 8, &V), 0);
  EXPECT_EQ(V, 0x12345678u);
  ASSERT_EQ(P.Api.pfReadCPReg("XPSR", 8, &V), 0);
  EXPECT_EQ(V, probetest::Reg(16));
  ASSERT_EQ(P.Api.pfReadCPReg("MSP", 8, &V), 0);
  EXPECT_EQ(V, probetest::Reg(17));
  U32 Mode = 99;
  ASSERT_EQ(P.Api.pfGetCPUMode(&Mode), 0);
  EXPECT_EQ(Mode, 0u);  // thread mode after reset

  // One step, and the PC moves by the size the plug-in gives for the
  // instruction at the reset vector (unless that instruction branches).
  CORE_INST_INFO I;
  U32 Pc = probetest::Reg(15);
  ASSERT_EQ(P.Api.pfAnalyzeInst(Pc, &I), 0);
  g_pImage = nullptr;  // the same answer from target memory
  CORE_INST_INFO I2;
  ASSERT_EQ(P.Api.pfAnalyzeInst(Pc, &I2), 0);
  EXPECT_EQ(std::memcmp(&I, &I2, sizeof I), 0);
  ASSERT_EQ(VORDENARM_Step(), 0);
  U32 Pc2 = probetest::Reg(15);
  if (I.Flags & CORE_INST_CTRL_TRANSFER) {
    if (I.Flags & CORE_INST_TARGET_KNOWN) {
      EXPECT_TRUE(Pc2 == I.Target || Pc2 == Pc + I.Size);
    }
  } else {
    EXPECT_EQ(Pc2, Pc + I.Size);
  }
  VORDENARM_Close();
}

// A semihosting call of the test firmware: the target stops at BKPT 0xAB, the
// plug-in names the operation and its argument, and the completion lets the
// program run on to its end.
TEST(CorePluginArmSim, SemihostingCallOfTheFirmware) {
  LoadedPlugin P;
  ASSERT_NO_FATAL_FAILURE(LoadOnSimulator(P));
  g_pImage = nullptr;
  ASSERT_EQ(P.Api.pfInitSemihosting(""), 0);

  probetest::ElfImage Img = probetest::StartCase("STM32F407VG", "tests_stm32f407vg", 10);
  U32 Op = 0;
  U64 Arg = 0;
  // Halted at main: not a semihosting stop.
  EXPECT_EQ(P.Api.pfHandleSemihosting(probetest::Reg(15), &Op, &Arg), 0);
  VORDENARM_GoEx(0, 1);
  ASSERT_TRUE(probetest::WaitHalt());
  U32 Pc = probetest::Reg(15);
  ASSERT_NE(Pc, Img.Sym("TestDone"));
  CORE_INST_INFO I;
  ASSERT_EQ(P.Api.pfAnalyzeInst(Pc, &I), 0);
  EXPECT_TRUE(I.Flags & CORE_INST_BREAK);
  ASSERT_EQ(P.Api.pfHandleSemihosting(Pc, &Op, &Arg), 1);
  EXPECT_EQ(Op, 4u);  // SYS_WRITE0
  char acText[16] = {};
  ASSERT_EQ(VORDENARM_ReadMemEx(U32(Arg), 12, acText, 0), 12);
  EXPECT_STREQ(acText, "semihosting\n");
  ASSERT_EQ(P.Api.pfCompleteSemihosting(0), 0);
  EXPECT_EQ(probetest::Reg(15), Pc + 2);
  EXPECT_EQ(probetest::Reg(0), 0u);
  VORDENARM_GoEx(0, 1);
  ASSERT_TRUE(probetest::WaitHalt());
  EXPECT_EQ(probetest::Reg(15), Img.Sym("TestDone"));
  EXPECT_EQ(probetest::Mem32(Img.Sym("g_Result")), 0u);
  P.Api.pfDeinitSemihosting();
  VORDENARM_Close();
}
