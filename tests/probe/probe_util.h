// Helpers for the probe library tests: a small ELF reader for the committed
// firmware, connecting to a fresh simulated device, running to a halt.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "device/vorden_api.h"
#include "testsupport/elf_file.h"

namespace probetest {

inline std::string SourceDir() {
  const char* s = getenv("TAVIT_SOURCE_DIR");
  return s ? s : ".";
}

inline std::string TmpDir() {
  const char* s = getenv("TAVIT_TEST_TMP");
  return s ? s : "/tmp";
}

inline std::string FirmwarePath(const std::string& name) { return SourceDir() + "/firmware/sim/elf/" + name + ".elf"; }

struct Segment {
  U32 Addr;
  std::vector<U8> Data;
};

struct ElfImage {
  std::vector<Segment> Segments;
  std::map<std::string, U32> Symbols;
  U32 Sym(const std::string& n) const {
    auto it = Symbols.find(n);
    EXPECT_NE(it, Symbols.end()) << "symbol " << n;
    return it == Symbols.end() ? 0 : it->second;
  }
  // Bytes of the program image at an address (from the loadable segments).
  bool Read32(U32 Addr, U32& V) const {
    for (const Segment& s : Segments)
      if (Addr >= s.Addr && Addr + 4 <= s.Addr + s.Data.size()) {
        memcpy(&V, &s.Data[Addr - s.Addr], 4);
        return true;
      }
    return false;
  }
};

inline ElfImage LoadElf(const std::string& path) {
  ElfImage img;
  testsupport::ElfFile f;
  if (!f.Load(path)) {
    ADD_FAILURE() << "cannot read " << path;
    return img;
  }
  for (const testsupport::ElfFile::Segment& s : f.Segments)
    img.Segments.push_back({s.Addr, s.Data});  // load address (data goes to flash)
  for (const testsupport::ElfFile::Symbol& y : f.Symbols)
    if (!y.Name.empty() && y.Shndx != 0) img.Symbols[y.Name] = y.Type == 2 ? y.Value & ~1u : y.Value;  // STT_FUNC
  return img;
}

inline std::string Exec(const std::string& cmd) {
  char out[512] = {};
  VORDENARM_ExecCommand(cmd.c_str(), out, sizeof out);
  return out;
}

// A fresh target of the named device, connected, halted, unpaced.
inline void ConnectFresh(const char* device) {
  VORDENARM_Close();
  ASSERT_EQ(VORDENARM_SelectUSB(0), 0);
  ASSERT_EQ(VORDENARM_Open(), nullptr);
  Exec("SimPowerOff");
  VORDENARM_Close();
  ASSERT_EQ(VORDENARM_Open(), nullptr);
  ASSERT_EQ(Exec(std::string("device=") + device), "");
  ASSERT_EQ(VORDENARM_Connect(), 0);
  ASSERT_EQ(VORDENARM_IsConnected(), 1);
  ASSERT_EQ(Exec("SimUnpaced=1"), "");
}

inline void Download(const ElfImage& img) {
  VORDENARM_BeginDownload(0);
  for (const Segment& s : img.Segments)
    ASSERT_EQ(VORDENARM_WriteMemEx(s.Addr, (U32)s.Data.size(), s.Data.data(), 0), (int)s.Data.size());
  ASSERT_GE(VORDENARM_EndDownload(), 0);
}

inline U32 Reg(U32 idx) {
  U64 v = 0;
  U8 st = 0xFF;
  EXPECT_EQ(VORDENARM_ReadRegs(&idx, &v, &st, 1), 0);
  EXPECT_EQ(st, 0);
  return (U32)v;
}

inline U32 Mem32(U32 addr) {
  U32 v = 0;
  EXPECT_EQ(VORDENARM_ReadMemEx(addr, 4, &v, 4), 4);
  return v;
}

inline bool WaitHalt(int timeoutMs = 20000) {
  auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < end) {
    if (VORDENARM_IsHalted() >= 1) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return false;
}

// Connect, download, reset, run to main, select a test case, and leave the
// target halted at main with a breakpoint on TestDone.
inline ElfImage StartCase(const char* device, const char* elf, U32 testCase) {
  ConnectFresh(device);
  ElfImage img = LoadElf(FirmwarePath(elf));
  Download(img);
  EXPECT_EQ(VORDENARM_Reset(), 0);
  VORDENARM_EnableSoftBPs(1);
  int bp = VORDENARM_SetBPEx(img.Sym("main"), 0xFFFFFFF0);
  EXPECT_NE(bp, 0);
  VORDENARM_GoEx(0, 1);
  EXPECT_TRUE(WaitHalt());
  EXPECT_EQ(Reg(VORDENARM_REG_PC), img.Sym("main"));
  VORDENARM_ClrBPEx(bp);
  EXPECT_EQ(VORDENARM_WriteU32(img.Sym("g_TestCase"), testCase), 0);
  EXPECT_NE(VORDENARM_SetBPEx(img.Sym("TestDone"), 0xFFFFFFF0), 0);
  return img;
}

inline void RunToDone(const ElfImage& img, int timeoutMs = 30000) {
  VORDENARM_GoEx(0, 1);
  ASSERT_TRUE(WaitHalt(timeoutMs));
  ASSERT_EQ(Reg(VORDENARM_REG_PC), img.Sym("TestDone"));
}

}  // namespace probetest
