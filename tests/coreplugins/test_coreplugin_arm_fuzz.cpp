// Random byte streams through instruction analysis and the text functions of
// the ARM core plug-in, built with address and undefined-behaviour sanitizers.
// Besides "no crash", every answer must be self-consistent.
#include "coreplugin_arm.h"
#include "thumb_decoder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <thread>
#include <vector>

namespace {

std::vector<U8> g_Mem;
const U64 kBase = 0x08000000;

int ReadMem(U64 Addr, U32 n, U8* p) {
  if (Addr < kBase || Addr + n > kBase + g_Mem.size()) return -1;
  std::memcpy(p, &g_Mem[Addr - kBase], n);
  return 0;
}
int CodeRange(U64 Addr, const char** psName, U64* pStart, U64* pEnd) {
  if (Addr < kBase || Addr >= kBase + g_Mem.size()) return -1;
  *psName = "$t";
  *pStart = kBase;
  *pEnd = kBase + g_Mem.size();
  return 0;
}
int Log(const char*, U32) { return 0; }
int ProgInfo(U64* p) {
  p[0] = p[1] = kBase;
  p[2] = kBase;
  return 0;
}
U64 g_Regs[56];
int RR(const U32* paIdx, U64* paData, U8* paStatus, U32 n) {
  for (U32 i = 0; i < n; ++i) {
    paData[i] = g_Regs[paIdx[i] % 56];
    paStatus[i] = 0;
  }
  return 0;
}
int WR(U32 Idx, U64 V) {
  g_Regs[Idx % 56] = V;
  return 0;
}

}  // namespace

TEST(CorePluginArmFuzz, RandomBytesNeverCrashAndAnswerConsistently) {
  CORE_PLUGIN_API Api{};
  ASSERT_EQ(CORE_PLUGIN_GetAPI(&Api, sizeof Api), 0);
  CORE_HOST_API H{CodeRange, nullptr, ReadMem, nullptr, ProgInfo, nullptr, Log};
  ASSERT_EQ(CORE_PLUGIN_SetAPI(&H, sizeof H), 0);
  armplugin::SetProbeForTest(RR, WR);
  std::mt19937 Rng(12345);
  for (int Round = 0; Round < 2; ++Round) {
    CORE_CONFIG C{};
    C.InstEndian = C.DataEndian = U32(Round);
    ASSERT_EQ(Api.pfInit(&C), 0);
    for (int Block = 0; Block < 60; ++Block) {
      g_Mem.resize(256 + Rng() % 512);
      // Mix plain random bytes with halfwords biased towards IT, 32-bit
      // prefixes and PC-relative forms.
      for (size_t i = 0; i + 1 < g_Mem.size(); i += 2) {
        U16 h = U16(Rng());
        switch (Rng() % 6) {
          case 0: h = U16(0xBF00 | (h & 0xFF)); break;
          case 1: h = U16(0xE800 | (h & 0x1FFF)) | 0xF000; break;
          case 2: h = U16(0x4800 | (h & 0x7FF)); break;
          default: break;
        }
        g_Mem[i] = U8(h);
        g_Mem[i + 1] = U8(h >> 8);
      }
      for (U64 A = kBase - 4; A < kBase + g_Mem.size() + 4; A += 2) {
        CORE_INST_INFO I;
        int r = Api.pfAnalyzeInst(A, &I);
        char acText[128], acSmall[8];
        int t = Api.pfGetInstText(A, 0, acText, sizeof acText);
        int t2 = Api.pfGetInstDisplayText(A, 2, acSmall, sizeof acSmall);
        int d = Api.pfGetDataText(A, 1 + Rng() % 8, acText, sizeof acText);
        (void)t2;
        (void)d;
        if (r == 0) {
          ASSERT_TRUE(I.Size == 2 || I.Size == 4) << std::hex << A;
          ASSERT_EQ(I.Addr, U32(A));
          ASSERT_EQ(t, int(I.Size));
          ASSERT_LT(std::strlen(acText), sizeof acText);
          if (I.Flags & CORE_INST_CALL) {
            ASSERT_TRUE(I.Flags & CORE_INST_CTRL_TRANSFER);
          }
          if (I.Flags & CORE_INST_RETURN) {
            ASSERT_TRUE(I.Flags & CORE_INST_LEAVES);
          }
        } else {
          ASSERT_EQ(I.Size, 0u);
        }
      }
      // Prologue scans from random starts.
      CORE_UNWIND_RULE aRules[17];
      CORE_FRAME_RECORD Rec{};
      Rec.paRules = aRules;
      Rec.NumRules = 17;
      Rec.FuncStart = kBase + 2 * (Rng() % (g_Mem.size() / 2));
      Rec.PC = Rec.FuncStart + 2 * (Rng() % 64);
      Api.pfUnwindFrame(nullptr, &Rec);
      char acInfo[64];
      Api.pfGetFrameInfoText(&Rec, acInfo, sizeof acInfo);
    }
  }
  // Odd addresses, the top of the address space, tiny buffers.
  CORE_INST_INFO I;
  EXPECT_NE(Api.pfAnalyzeInst(kBase + 1, &I), 0);
  EXPECT_NE(Api.pfAnalyzeInst(0xFFFFFFFE, &I), 0);
  EXPECT_NE(Api.pfAnalyzeInst(0x1FFFFFFFFull, &I), 0);
  EXPECT_LT(Api.pfAnalyzeInst(kBase, nullptr), 0);
  char c[1];
  EXPECT_LT(Api.pfGetInstText(kBase, 0, c, 0), 1);
  EXPECT_LT(Api.pfGetDataText(kBase, 9, c, 1), 1);
  armplugin::SetProbeForTest(nullptr, nullptr);
}

// The plug-in is called from the worker and the user interface thread at
// once: concurrent analysis gives the same answers as a single thread.
TEST(CorePluginArmFuzz, ConcurrentAnalysisAgreesWithSingleThread) {
  CORE_PLUGIN_API Api{};
  ASSERT_EQ(CORE_PLUGIN_GetAPI(&Api, sizeof Api), 0);
  CORE_HOST_API H{CodeRange, nullptr, ReadMem, nullptr, ProgInfo, nullptr, Log};
  ASSERT_EQ(CORE_PLUGIN_SetAPI(&H, sizeof H), 0);
  CORE_CONFIG C{};
  ASSERT_EQ(Api.pfInit(&C), 0);
  std::mt19937 Rng(777);
  g_Mem.resize(4096);
  for (size_t i = 0; i + 1 < g_Mem.size(); i += 2) {
    U16 h = (Rng() % 4 == 0) ? U16(0xBF00 | (Rng() & 0xFF)) : U16(Rng());
    g_Mem[i] = U8(h);
    g_Mem[i + 1] = U8(h >> 8);
  }
  struct Result {
    CORE_INST_INFO I;
    char acText[128];
  };
  auto Run = [&](std::vector<Result>& Out, bool Backwards) {
    Out.resize(g_Mem.size() / 2);
    for (size_t k = 0; k < Out.size(); ++k) {
      size_t j = Backwards ? Out.size() - 1 - k : k;
      U64 A = kBase + 2 * j;
      std::memset(&Out[j], 0, sizeof Out[j]);
      Api.pfAnalyzeInst(A, &Out[j].I);
      Api.pfGetInstText(A, 0, Out[j].acText, sizeof Out[j].acText);
    }
  };
  std::vector<Result> Ref, A1, A2;
  Run(Ref, false);
  std::thread T1([&] { Run(A1, false); });
  std::thread T2([&] { Run(A2, true); });  // another order: no state carried between calls
  T1.join();
  T2.join();
  for (size_t j = 0; j < Ref.size(); ++j) {
    ASSERT_EQ(std::memcmp(&Ref[j].I, &A1[j].I, sizeof(CORE_INST_INFO)), 0) << j;
    ASSERT_EQ(std::memcmp(&Ref[j].I, &A2[j].I, sizeof(CORE_INST_INFO)), 0) << j;
    ASSERT_STREQ(Ref[j].acText, A1[j].acText) << j;
    ASSERT_STREQ(Ref[j].acText, A2[j].acText) << j;
  }
}
