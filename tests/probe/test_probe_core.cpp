// Session, device list, download knobs, breakpoint and data event limits and
// bad input of the probe library on the simulator. Download, reset, steps and
// data events on every back end are in test_backends.cpp.
#include <fstream>
#include <sstream>

#include "probe_util.h"

using namespace probetest;

TEST(ProbeSession, DeviceListAndInfo) {
  EXPECT_EQ(VORDENARM_GetDLLVersion(), 70000);
  int n = VORDENARM_DEVICE_GetInfo(-1, nullptr);
  ASSERT_GE(n, 12);
  VORDENARM_DEVICE_INFO info{};
  info.SizeOfStruct = sizeof info;
  ASSERT_EQ(VORDENARM_DEVICE_GetInfo(0, &info), 0);
  EXPECT_STREQ(info.sName, "");  // placeholder
  struct Want {
    const char* name;
    U32 family, ram, ramSize;
  } want[] = {{"STM32F407VG", 14, 0x20000000, 0x20000}, {"MK66FN2M0XXX18", 14, 0x1FFF0000, 0x40000},
              {"nRF52840_xxAA", 14, 0x20000000, 0x40000}, {"LPC1768", 3, 0x10000000, 0x8000},
              {"MPS2-AN385", 3, 0x20000000, 0x400000},   {"MPS2-AN386", 14, 0x20000000, 0x400000},
              {"Cortex-M0", 6, 0x20000000, 0x40000},      {"Cortex-M7", 14, 0x20000000, 0x40000}};
  for (const Want& w : want) {
    int idx = VORDENARM_DEVICE_GetIndex(w.name);
    ASSERT_GT(idx, 0) << w.name;
    memset(&info, 0, sizeof info);
    info.SizeOfStruct = sizeof info;
    ASSERT_EQ(VORDENARM_DEVICE_GetInfo(idx, &info), 0);
    EXPECT_STREQ(info.sName, w.name);
    EXPECT_EQ(info.CoreId >> 24, w.family) << w.name;
    EXPECT_EQ(info.RAMAddr, w.ram) << w.name;
    EXPECT_EQ(info.RAMSize, w.ramSize) << w.name;
    char core[32];
    EXPECT_EQ(VORDENARM_Core2CoreName(info.CoreId, core, sizeof core), 0);
    EXPECT_EQ(strncmp(core, "Cortex-M", 8), 0);
  }
  // A short record is filled only as far as its size says.
  struct {
    U32 Size;
    const char* sName;
    U32 Guard[8];
  } shortRec{};
  shortRec.Size = 4 + sizeof(void*) * 2;  // up to and including the name pointer
  for (U32& g : shortRec.Guard) g = 0xDEADBEEF;
  ASSERT_EQ(VORDENARM_DEVICE_GetInfo(1, (VORDENARM_DEVICE_INFO*)&shortRec), 0);
  EXPECT_STREQ(shortRec.sName, "Cortex-M0");
  EXPECT_EQ(shortRec.Guard[1], 0xDEADBEEFu);
  EXPECT_LT(VORDENARM_DEVICE_GetIndex("NoSuchPart"), 0);
  EXPECT_LT(VORDENARM_DEVICE_GetIndex(nullptr), 0);
  EXPECT_LT(VORDENARM_DEVICE_GetInfo(n, &info), 0);
}

TEST(ProbeSession, CommandsAndCallLog) {
  std::string log = TmpDir() + "/calls.log";
  remove(log.c_str());
  VORDENARM_SetLogFile(log.c_str());
  ConnectFresh("STM32F407VG");
  char out[64];
  EXPECT_LT(VORDENARM_ExecCommand("FrobnicateTarget=1", out, sizeof out), 0);
  EXPECT_NE(out[0], 0);
  EXPECT_LT(VORDENARM_ExecCommand("device=NoSuchPart", out, sizeof out), 0);
  EXPECT_NE(std::string(out).find("NoSuchPart"), std::string::npos);
  EXPECT_LT(VORDENARM_ExecCommand("SimBMA=7", out, sizeof out), 0);
  EXPECT_LT(VORDENARM_ExecCommand(nullptr, out, sizeof out), 0);
  EXPECT_LT(VORDENARM_ExecCommand("x", nullptr, 0), 0);  // no buffer: no crash
  EXPECT_EQ(VORDENARM_ExecCommand("HideDeviceSelection=1", out, sizeof out), 0);
  // Blanks around the "=" belong to neither side.
  EXPECT_EQ(VORDENARM_ExecCommand("SimBMA = 1", out, sizeof out), 0) << out;
  EXPECT_EQ(VORDENARM_ExecCommand("device = Cortex-M3", out, sizeof out), 0) << out;
  EXPECT_EQ(out[0], 0);
  // Capabilities and optional functions.
  EXPECT_NE(VORDENARM_EMU_HasCapEx(23), 0);
  U32 caps = 0;
  EXPECT_EQ(VORDENARM_RAWTRACE_Control(4, &caps), 0);
  EXPECT_TRUE(caps & 0x20);
  EXPECT_EQ(Exec("SimStreamingTrace=0"), "");
  EXPECT_EQ(VORDENARM_RAWTRACE_Control(4, &caps), 0);
  EXPECT_FALSE(caps & 0x20);
  EXPECT_EQ(Exec("SimStreamingTrace=1"), "");
  auto bma = (int (*)(void))VORDEN_GetpFunc(10);
  ASSERT_NE(bma, nullptr);
  EXPECT_EQ(Exec("SimBMA=2"), "");
  EXPECT_EQ(bma(), 2);
  EXPECT_EQ(Exec("SimBMA=1"), "");
  auto endian = (int (*)(void))VORDEN_GetpFunc(12);
  ASSERT_NE(endian, nullptr);
  EXPECT_EQ(endian(), 0);
  EXPECT_EQ(VORDEN_GetpFunc(99), nullptr);
  // Unmodelled peripherals: zero, and one log line per range.
  U32 v = 1;
  EXPECT_EQ(VORDENARM_ReadMemEx(0x40023800, 4, &v, 4), 4);
  EXPECT_EQ(VORDENARM_ReadMemEx(0x40023804, 4, &v, 4), 4);
  EXPECT_EQ(v, 0u);
  VORDENARM_SetLogFile(nullptr);
  std::ifstream f(log);
  std::stringstream ss;
  ss << f.rdbuf();
  std::string text = ss.str();
  EXPECT_NE(text.find("VORDENARM_Connect() = 0\n"), std::string::npos);
  EXPECT_NE(text.find("VORDENARM_ExecCommand(\"FrobnicateTarget=1\") = -1\n"), std::string::npos);
  EXPECT_NE(text.find("VORDENARM_ExecCommand(\"device=STM32F407VG\") = 0\n"), std::string::npos);
  const char* once = "APB/AHB1 (0x40000000..0x4007FFFF) is not modelled";
  size_t first = text.find(once);
  EXPECT_NE(first, std::string::npos);
  EXPECT_EQ(text.find(once, first + 1), std::string::npos);
}

// The demo program on every part of the list: its memory map and linker
// script agree, and its UART text comes out.
TEST(ProbeSession, DemoRunsOnEveryListedPart) {
  struct {
    const char* device;
    const char* elf;
  } parts[] = {{"STM32F407VG", "demo_stm32f407vg"}, {"MK66FN2M0XXX18", "demo_mk66fn2m0"},
               {"nRF52840_xxAA", "demo_nrf52840"},  {"LPC1768", "demo_lpc1768"},
               {"MPS2-AN385", "demo_mps2"},         {"MPS2-AN386", "demo_mps2"},
               {"Cortex-M4", "demo_cortex-m4"}};
  for (auto& p : parts) {
    SCOPED_TRACE(p.device);
    ConnectFresh(p.device);
    std::string uart = TmpDir() + "/uart_" + p.device + ".txt";
    remove(uart.c_str());
    ASSERT_EQ(Exec("SimUARTFile=" + uart), "");
    ElfImage img = LoadElf(FirmwarePath(p.elf));
    Download(img);
    ASSERT_EQ(VORDENARM_Reset(), 0);
    VORDENARM_GoEx(0, 1);
    U32 secs = 0;
    for (int i = 0; i < 5000 && secs < 3; ++i) {
      secs = Mem32(img.Sym("g_Seconds"));
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_EQ(VORDENARM_Halt(), 0);
    EXPECT_GE(secs, 3u);  // "second 2" is out once second 3 has begun
    ASSERT_EQ(Exec("SimUARTFile="), "");
    std::ifstream f(uart);
    std::stringstream ss;
    ss << f.rdbuf();
    EXPECT_NE(ss.str().find("Tavit demo"), std::string::npos);
    EXPECT_NE(ss.str().find("second 2"), std::string::npos);
    EXPECT_EQ(Mem32(0x4FFF000C), Mem32(img.Sym("g_Seconds")) & 1);  // LED on in odd seconds
  }
}

TEST(ProbeSession, ConnectionCutAndIPBackEnd) {
  ConnectFresh("Cortex-M3");
  EXPECT_EQ(VORDENARM_IsHalted(), 1);
  EXPECT_EQ(Exec("SimCutConnection"), "");
  EXPECT_LT(VORDENARM_IsHalted(), 0);
  EXPECT_EQ(VORDENARM_IsConnected(), 0);
  U32 v;
  EXPECT_LT(VORDENARM_ReadMemEx(0x20000000, 4, &v, 0), 0);
  VORDENARM_Close();
  // "IP" selects the GDB remote back end; without it (or without a server
  // at that port) the session does not come up.
  EXPECT_EQ(VORDENARM_SelectIP("127.0.0.1:1", 0), 0);
  if (VORDENARM_Open() == nullptr) {
    EXPECT_NE(VORDENARM_Connect(), 0);
    EXPECT_LT(VORDENARM_IsHalted(), 0);
    VORDENARM_Close();
  }
  EXPECT_EQ(VORDENARM_SelectIP(nullptr, 0), 1);
  EXPECT_EQ(VORDENARM_SelectUSB(0), 0);
  EXPECT_EQ(VORDENARM_Open(), nullptr);
  EXPECT_EQ(VORDENARM_Connect(), 0);
  EXPECT_EQ(VORDENARM_IsHalted(), 1);
}

TEST(ProbeRun, DownloadErrorsFromKnobs) {
  ConnectFresh("STM32F407VG");
  U8 data[16] = {1, 2, 3};
  for (int code = -1; code >= -4; --code) {
    EXPECT_EQ(Exec("SimDownloadError=" + std::to_string(code)), "");
    VORDENARM_BeginDownload(0);
    EXPECT_EQ(VORDENARM_WriteMemEx(0x08000000, sizeof data, data, 0), (int)sizeof data);
    EXPECT_EQ(VORDENARM_EndDownload(), code);
  }
  EXPECT_EQ(Exec("SimDownloadError=0"), "");
  VORDENARM_BeginDownload(0);
  EXPECT_EQ(VORDENARM_EndDownload(), 0);
  EXPECT_LT(VORDENARM_EndDownload(), 0);  // no download open
}

TEST(ProbeRun, BreakpointKindsAndLimits) {
  ConnectFresh("STM32F407VG");
  EXPECT_EQ(Exec("SimMaxHWBPs=2"), "");
  VORDENARM_EnableSoftBPs(1);
  int h1 = VORDENARM_SetBPEx(0x08000100, 0xFFFFFF00);
  int h2 = VORDENARM_SetBPEx(0x08000104, 0xFFFFFF00);
  EXPECT_NE(h1, 0);
  EXPECT_NE(h2, 0);
  EXPECT_EQ(VORDENARM_SetBPEx(0x08000108, 0xFFFFFF00), 0);  // no third comparator
  int hs = VORDENARM_SetBPEx(0x0800010C, 0x000000F0);      // software in flash
  int hr = VORDENARM_SetBPEx(0x20000100, 0xFFFFFFF0);      // RAM: software
  int ha = VORDENARM_SetBPEx(0x08000110, 0xFFFFFFF0);      // any: comparators used up
  ASSERT_NE(hs, 0);
  ASSERT_NE(hr, 0);
  ASSERT_NE(ha, 0);
  auto imp = [](int h) {
    VORDENARM_BP_INFO bi{};
    bi.SizeOfStruct = sizeof bi;
    bi.Handle = (U32)h;
    EXPECT_GT(VORDENARM_GetBPInfoEx(-1, &bi), 0);
    return bi.ImpFlags;
  };
  EXPECT_EQ(imp(h1), 1u);
  EXPECT_EQ(imp(hs), 16u);
  EXPECT_EQ(imp(hr), 2u);
  EXPECT_EQ(imp(ha), 16u);
  EXPECT_EQ(VORDENARM_ClrBPEx(h1), 0);
  EXPECT_NE(VORDENARM_ClrBPEx(h1), 0);  // already gone
  EXPECT_NE(VORDENARM_SetBPEx(0x08000108, 0xFFFFFF00), 0);
  // Software breakpoints need EnableSoftBPs.
  VORDENARM_EnableSoftBPs(0);
  EXPECT_EQ(VORDENARM_SetBPEx(0x08000200, 0x000000F0), 0);
  VORDENARM_EnableSoftBPs(1);
  EXPECT_EQ(VORDENARM_ClrBPEx(-1), 0);
  EXPECT_EQ(VORDENARM_FindBP(0x0800010C), 0);
  EXPECT_EQ(Exec("SimMaxHWBPs=-1"), "");
}

TEST(ProbeRun, DataEventComparatorLimitsAndMasks) {
  ConnectFresh("STM32F407VG");
  VORDENARM_DATA_EVENT ev{};
  ev.SizeOfStruct = sizeof ev;
  ev.Type = 1;
  ev.DataMask = 0xFFFFFFFF;
  ev.AccessMask = 0x17;
  U32 h;
  for (int i = 0; i < 4; ++i) {
    ev.Addr = 0x20000000 + 16 * i;
    ASSERT_EQ(VORDENARM_SetDataEvent(&ev, &h), 0) << i;
  }
  ev.Addr = 0x20000100;
  int r = VORDENARM_SetDataEvent(&ev, &h);
  EXPECT_LT(r, 0);
  EXPECT_EQ((U32)r & 0x80000002u, 0x80000002u);  // "no more address comparision units"
  EXPECT_EQ(VORDENARM_ClrDataEvent(0xFFFFFFFF), 0);
  EXPECT_EQ(VORDENARM_GetWPInfoEx(-1, nullptr), 0);
  ev.AddrMask = 0x5;  // not a run of low bits
  r = VORDENARM_SetDataEvent(&ev, &h);
  EXPECT_EQ((U32)r & 0x80000020u, 0x80000020u);
  ev.AddrMask = 0;
  ev.AccessMask = 0x40;
  r = VORDENARM_SetDataEvent(&ev, &h);
  EXPECT_EQ((U32)r & 0x80000080u, 0x80000080u);
  ev.AccessMask = 0x17;
  ev.DataMask = 0;  // one data comparator on this core
  EXPECT_EQ(VORDENARM_SetDataEvent(&ev, &h), 0);
  ev.Addr += 4;
  r = VORDENARM_SetDataEvent(&ev, &h);
  EXPECT_EQ((U32)r & 0x80000004u, 0x80000004u);
  EXPECT_EQ(Exec("SimMaxDataEvents=0"), "");
  ev.DataMask = 0xFFFFFFFF;
  EXPECT_LT(VORDENARM_SetDataEvent(&ev, &h), 0);
  EXPECT_EQ(Exec("SimMaxDataEvents=-1"), "");
  VORDENARM_ClrDataEvent(0xFFFFFFFF);
}

TEST(ProbeRun, BadInputNeverCrashes) {
  ConnectFresh("STM32F407VG");
  U8 buf[64];
  // Across the end of RAM: the readable prefix comes back.
  EXPECT_EQ(VORDENARM_ReadMemEx(0x20020000 - 8, 16, buf, 0), 8);
  EXPECT_LT(VORDENARM_ReadMemEx(0x30000000, 4, buf, 0), 0);
  EXPECT_LT(VORDENARM_ReadMemEx(0xFFFFFFFC, 64, buf, 0), 0);
  EXPECT_LT(VORDENARM_ReadMemEx(0x20000000, 4, nullptr, 0), 0);
  EXPECT_LT(VORDENARM_ReadMemEx(0x20000000, 4, buf, 3), 0);
  EXPECT_NE(VORDENARM_ReadMem(0x20020000 - 2, 4, buf), 0);
  U32 words[4];
  U8 st[4];
  EXPECT_EQ(VORDENARM_ReadMemU32(0x20020000 - 8, 4, words, st), 2);
  EXPECT_EQ(st[0], 0);
  EXPECT_EQ(st[1], 0);
  EXPECT_EQ(st[2], 1);
  EXPECT_EQ(st[3], 1);
  EXPECT_LT(VORDENARM_ReadMemU32(0x20000000, 1, nullptr, st), 0);
  EXPECT_EQ(VORDEN_ReadMemZonedU32(0x20000000, 1, words, st, nullptr), 4);
  EXPECT_LT(VORDEN_ReadMemZonedU32(0x20000000, 1, words, st, "NoZone"), 0);
  EXPECT_LT(VORDENARM_WriteMemEx(0x30000000, 4, buf, 0), 0);
  EXPECT_NE(VORDENARM_WriteU32(0xFFFFFFFE, 1), 0);
  EXPECT_LT(VORDENARM_WriteMemEx(0x20000000, 4, nullptr, 0), 0);
  // Unmodelled peripherals read as zero; writes are accepted and ignored.
  U32 v = 0xFFFFFFFF;
  EXPECT_EQ(VORDENARM_ReadMemEx(0x40023800, 4, &v, 4), 4);
  EXPECT_EQ(v, 0u);
  EXPECT_EQ(VORDENARM_WriteU32(0x40023800, 0x1234), 0);
  // Flash is written through the debug path.
  EXPECT_EQ(VORDENARM_WriteU32(0x08000400, 0xA5A5A5A5), 0);
  EXPECT_EQ(Mem32(0x08000400), 0xA5A5A5A5u);
  // Registers.
  U32 idx[3] = {0, 99, VORDENARM_REG_FPSCR};
  U64 vals[3];
  U8 rst[3];
  EXPECT_LT(VORDENARM_ReadRegs(idx, vals, rst, 3), 0);
  EXPECT_EQ(rst[0], 0);
  EXPECT_EQ(rst[1], 1);
  EXPECT_EQ(rst[2], 0);  // this part has an FPU
  EXPECT_LT(VORDENARM_ReadRegs(nullptr, vals, rst, 1), 0);
  EXPECT_LT(VORDENARM_ReadRegs(idx, vals, rst, 0), 0);
  EXPECT_NE(VORDENARM_WriteReg(200, 1), 0);
  // Breakpoints, events, trace, terminals with nonsense.
  EXPECT_NE(VORDENARM_ClrBPEx(12345), 0);
  VORDENARM_BP_INFO bi{};
  EXPECT_LT(VORDENARM_GetBPInfoEx(0, &bi), 0);  // SizeOfStruct 0
  EXPECT_LT(VORDENARM_GetBPInfoEx(0, nullptr), 0);
  EXPECT_LT(VORDENARM_SetDataEvent(nullptr, nullptr), 0);
  VORDENARM_DATA_EVENT ev{};
  EXPECT_LT(VORDENARM_SetDataEvent(&ev, nullptr), 0);
  EXPECT_LT(VORDENARM_GetWPInfoEx(7, nullptr), 0);
  EXPECT_LT(VORDEN_STRACE_Read(nullptr, 10), 0);
  EXPECT_LT(VORDEN_STRACE_Control(7, nullptr), 0);
  EXPECT_LT(VORDEN_STRACE_Control(0, nullptr), 0);
  EXPECT_LT(VORDEN_STRACE_Config(nullptr), 0);
  EXPECT_LT(VORDEN_STRACE_Config("Bogus=1"), 0);
  EXPECT_LT(VORDEN_STRACE_GetInstStats(nullptr, 0, 10, 8, 9), 0);
  EXPECT_LT(VORDEN_LVTERMINAL_Read(0, buf, sizeof buf), 0);  // not started
  EXPECT_LT(VORDEN_LVTERMINAL_Write(0, nullptr, 4), 0);
  EXPECT_LT(VORDEN_HSS_Start(nullptr, 1, 100, 0), 0);
  EXPECT_LT(VORDEN_HSS_Read(nullptr, 10), 0);
  EXPECT_LT(VORDEN_POWERTRACE_Control(0, nullptr, nullptr), 0);
  EXPECT_LT(VORDEN_POWERTRACE_Control(17, nullptr, nullptr), 0);
  EXPECT_LT(VORDENARM_SWO_ReadStimulus(40, buf, 4), 0);
  EXPECT_LT(VORDENARM_SWO_GetCompatibleSpeeds(0, 0, words, 4), 0);
  EXPECT_EQ(Exec("SetLVTSearchRanges 0x20000000"), "invalid search range");
  EXPECT_NE(Exec("SetLVTAddr zz"), "");
  // The target is still fine.
  EXPECT_EQ(VORDENARM_IsHalted(), 1);
  EXPECT_EQ(Mem32(0x08000400), 0xA5A5A5A5u);
}

// Random calls with random arguments: every one returns, and the library
// still serves a fresh target afterwards.
TEST(ProbeRun, RandomCallsNeverCrash) {
  ConnectFresh("STM32F407VG");
  ElfImage img = LoadElf(FirmwarePath("tests_stm32f407vg"));
  Download(img);
  ASSERT_EQ(VORDENARM_Reset(), 0);
  U32 seed = 12345;
  auto rnd = [&] {
    seed = seed * 1664525u + 1013904223u;
    return seed;
  };
  auto addr = [&] {
    static const U32 bases[] = {0, 0x08000000, 0x20000000, 0x2001FFF0, 0xE000E000, 0xE0000000, 0x4FFF0000, 0x40000000, 0xFFFFFFF0};
    return (rnd() & 3) ? bases[rnd() % 9] + (rnd() % 0x100) : rnd();
  };
  static const char* cmds[] = {"SetLVTAddr 0x%x", "SetLVTSearchRanges 0x%x 0x%x", "SimBMA=%d", "device=%x",
                               "SimMaxHWBPs=%d", "PortWidth=%d", "SupplyPower=%d", "SimUARTInput=%x", "=%d", " %x"};
  std::vector<U8> buf(4096);
  for (int i = 0; i < 20000; ++i) {
    U32 n = rnd() % 5 == 0 ? rnd() % 4096 : rnd() % 16;
    switch (rnd() % 12) {
      case 0: VORDENARM_ReadMemEx(addr(), n, buf.data(), rnd() % 6); break;
      case 1: VORDENARM_WriteMemEx(addr() | 0x20000000, n, buf.data(), 0); break;  // RAM-ish only
      case 2: VORDENARM_ReadMemU32(addr(), n / 4, (U32*)buf.data(), buf.data() + 2048); break;
      case 3: {
        U32 idx = rnd() % 70;
        U64 v;
        U8 st;
        VORDENARM_ReadRegs(&idx, &v, &st, 1);
        break;
      }
      case 4: VORDENARM_SetBPEx(addr(), rnd()); break;
      case 5: VORDENARM_ClrBPEx((int)(rnd() % 8) - 1); break;
      case 6: {
        VORDENARM_DATA_EVENT ev{28, 1, addr(), rnd() & 0xFF, rnd(), rnd(), (U8)rnd(), (U8)rnd(), {}};
        U32 h;
        VORDENARM_SetDataEvent(&ev, &h);
        break;
      }
      case 7: VORDENARM_ClrDataEvent(rnd() % 4 == 0 ? 0xFFFFFFFF : rnd() % 8); break;
      case 8: {
        char c[80];
        snprintf(c, sizeof c, cmds[rnd() % 10], rnd(), rnd());
        if (strncmp(c, "device=", 7) != 0) Exec(c);
        break;
      }
      case 9: VORDEN_STRACE_Read((U32*)buf.data(), 1 + n / 4); break;
      case 10: VORDEN_STRACE_GetInstStats(buf.data(), addr(), 2 + (n / 8 & ~1u), 8, 9); break;
      case 11: VORDEN_LVTERMINAL_Read(rnd() % 4, buf.data(), n); break;
    }
  }
  VORDENARM_ClrBPEx(-1);
  VORDENARM_ClrDataEvent(0xFFFFFFFF);
  EXPECT_EQ(Exec("SimBMA=1"), "");
  EXPECT_EQ(Exec("SimMaxHWBPs=-1"), "");
  EXPECT_EQ(VORDENARM_IsHalted(), 1);
  // A fresh target still runs the program.
  img = StartCase("STM32F407VG", "tests_stm32f407vg", 4);
  RunToDone(img);
  EXPECT_EQ(Mem32(img.Sym("g_Result")), 0x12345678u);
}
