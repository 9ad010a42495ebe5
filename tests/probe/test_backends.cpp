// Target-side scenarios through the exported C functions, the same on every
// back end: the built-in simulator (device MPS2-AN385) and the emulator's
// MPS2-AN385 and MPS2-AN386 machines through the GDB back end. All run the
// firmware of firmware/gdb; expected values come from its ELF file and the
// cross tools' nm and objdump output. Emulator instances are skipped when
// qemu-system-arm is not installed.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <memory>
#include <regex>
#include <thread>

#include "device/vorden_api.h"
#include "probe/gdb/qemu_util.h"
#include "probe/probe_util.h"

using namespace gdbtest;
using probetest::Mem32;
using probetest::Reg;
using Clock = std::chrono::steady_clock;

namespace {

struct BackendParam {
  const char* sName;
  const char* sQemuMachine;  // null: the simulator
  const char* sDevice;
  const char* sElf;
};

void PrintTo(const BackendParam& p, std::ostream* os) { *os << p.sName; }

bool HaveQemu() { return system("command -v qemu-system-arm >/dev/null 2>&1") == 0; }

std::string Exec(const std::string& sCmd) {
  char out[256] = {};
  VORDENARM_ExecCommand(sCmd.c_str(), out, sizeof out);
  return out;
}

// Code of a SysTick handler placed in RAM by the tests: counts its entries
// in the word at HANDLER_ADDR + 12.
//   ldr r0, [pc, #8]; ldr r1, [r0]; adds r1, #1; str r1, [r0]; bx lr; nop
constexpr U32 HANDLER_ADDR = 0x20100000;
constexpr U32 HANDLER_COUNT = HANDLER_ADDR + 0x40;
constexpr U16 kHandlerCode[6] = {0x4802, 0x6801, 0x3101, 0x6001, 0x4770, 0xBF00};

constexpr U32 STORE_ADDR = 0x20100080;  // str r1, [r0]; b .
constexpr U16 kStoreCode[2] = {0x6001, 0xE7FE};
constexpr U32 SCB_ICSR = 0xE000ED04, ICSR_PENDSTSET = 1u << 26;
constexpr U32 ST_CSR = 0xE000E010, ST_RVR = 0xE000E014, ST_CVR = 0xE000E018;

class Backends : public ::testing::TestWithParam<BackendParam> {
 protected:
  void SetUp() override {
    const BackendParam& p = GetParam();
    if (p.sQemuMachine && !HaveQemu()) GTEST_SKIP() << "qemu-system-arm is not installed";
    elf = SourceDir() + "/firmware/gdb/elf/" + p.sElf;
    ASSERT_TRUE(LoadSegments(elf, segs, entry)) << elf;
    syms = Symbols(elf);
    dis = objdump::Disassemble(elf);
    for (const char* s : {"main", "Work", "g_watched", "g_counter"}) ASSERT_TRUE(syms.count(s)) << s;
    VORDENARM_Close();
    if (p.sQemuMachine) {
      qemu = std::make_unique<Qemu>(p.sQemuMachine);
      ASSERT_EQ(VORDENARM_SelectIP("127.0.0.1", qemu->port), 0);
      ASSERT_EQ(VORDENARM_Open(), nullptr);
    } else {
      // A fresh simulated board.
      ASSERT_EQ(VORDENARM_SelectUSB(0), 0);
      ASSERT_EQ(VORDENARM_Open(), nullptr);
      Exec("SimPowerOff");
      VORDENARM_Close();
      ASSERT_EQ(VORDENARM_Open(), nullptr);
    }
    ASSERT_EQ(Exec(std::string("device=") + p.sDevice), "");
    ASSERT_EQ(VORDENARM_Connect(), 0);  // the emulator listens once started
    ASSERT_EQ(VORDENARM_IsConnected(), 1);
    if (!p.sQemuMachine) ASSERT_EQ(Exec("SimUnpaced=1"), "");
  }
  void TearDown() override {
    VORDENARM_Close();
    qemu.reset();
  }

  bool IsQemu() const { return GetParam().sQemuMachine != nullptr; }
  static bool WaitHalted() { return probetest::WaitHalt(5000); }
  void Download() {
    VORDENARM_BeginDownload(0);
    for (const Segment& s : segs)
      ASSERT_EQ(VORDENARM_WriteMemEx(s.Addr, (U32)s.Bytes.size(), s.Bytes.data(), 0), (int)s.Bytes.size());
    ASSERT_EQ(VORDENARM_EndDownload(), 0);
  }
  // Resume and expect a halt at a breakpoint.
  void GoTo(U32 Addr, U32 Flags) {
    VORDENARM_GoEx(0, Flags);
    ASSERT_TRUE(WaitHalted());
    ASSERT_EQ(Reg(VORDENARM_REG_PC), Addr);
  }
  // Download, reset and run to main; with interrupts on, the start-up's
  // "cpsid i" (among the reset handler's first instructions) is skipped.
  void ToMain(bool bInterruptsOn = false) {
    Download();
    ASSERT_EQ(VORDENARM_Reset(), 0);
    if (bInterruptsOn) {
      U32 pc = Reg(VORDENARM_REG_PC);
      for (int i = 0; i < 4 && dis.count(pc) && dis[pc].Mnemonic != "cpsid"; ++i) {
        ASSERT_EQ(VORDENARM_Step(), 0);
        pc = Reg(VORDENARM_REG_PC);
      }
      ASSERT_TRUE(dis.count(pc));
      ASSERT_EQ(dis[pc].Mnemonic, "cpsid");
      ASSERT_EQ(VORDENARM_WriteReg(VORDENARM_REG_PC, pc + dis[pc].Size), 0);
    }
    int h = VORDENARM_SetBPEx(syms["main"], 0xFFFFFFF0);
    ASSERT_GT(h, 0);
    GoTo(syms["main"], 0);
    ASSERT_EQ(VORDENARM_ClrBPEx(h), 0);
  }
  // A SysTick handler in RAM that counts its entries.
  void InstallTickCounter() {
    ASSERT_EQ(VORDENARM_WriteMemEx(HANDLER_ADDR, sizeof kHandlerCode, kHandlerCode, 0), (int)sizeof kHandlerCode);
    ASSERT_EQ(VORDENARM_WriteU32(HANDLER_ADDR + 12, HANDLER_COUNT), 0);
    ASSERT_EQ(VORDENARM_WriteU32(HANDLER_COUNT, 0), 0);
    ASSERT_EQ(VORDENARM_WriteU32(15 * 4, HANDLER_ADDR | 1), 0);  // vector table at 0
  }
  // Stores Value at Addr with the target's own STR, stepped in RAM (the
  // emulator's GDB server drops debugger writes to the system registers);
  // PC, R0 and R1 are put back.
  void TargetStore(U32 Addr, U32 Value) {
    const U32 r0 = Reg(0), r1 = Reg(1), pc = Reg(VORDENARM_REG_PC);
    ASSERT_EQ(VORDENARM_WriteMemEx(STORE_ADDR, sizeof kStoreCode, kStoreCode, 0), (int)sizeof kStoreCode);
    ASSERT_EQ(VORDENARM_WriteReg(0, Addr), 0);
    ASSERT_EQ(VORDENARM_WriteReg(1, Value), 0);
    ASSERT_EQ(VORDENARM_WriteReg(VORDENARM_REG_PC, STORE_ADDR), 0);
    ASSERT_EQ(VORDENARM_Step(), 0);
    ASSERT_EQ(Reg(VORDENARM_REG_PC), STORE_ADDR + 2) << "store to 0x" << std::hex << Addr;
    ASSERT_EQ(VORDENARM_WriteReg(0, r0), 0);
    ASSERT_EQ(VORDENARM_WriteReg(1, r1), 0);
    ASSERT_EQ(VORDENARM_WriteReg(VORDENARM_REG_PC, pc), 0);
  }
  // The address behind the instruction at Pc.
  U32 Next(U32 Pc) {
    EXPECT_TRUE(dis.count(Pc)) << std::hex << Pc;
    return Pc + (dis.count(Pc) ? dis[Pc].Size : 0);
  }

  std::string elf;
  std::vector<Segment> segs;
  U32 entry = 0;
  std::map<std::string, U32> syms;
  std::map<U32, objdump::Inst> dis;
  std::unique_ptr<Qemu> qemu;
};

}  // namespace

TEST_P(Backends, DownloadResetBreakpointAndSteps) {
  Download();
  for (const Segment& s : segs) {
    std::string back(s.Bytes.size(), '\0');
    ASSERT_EQ(VORDENARM_ReadMemEx(s.Addr, (U32)back.size(), back.data(), 0), (int)back.size());
    EXPECT_EQ(back, s.Bytes);
  }
  // Reset: SP and PC from the vector table at 0, Thumb state.
  ASSERT_EQ(VORDENARM_Reset(), 0);
  EXPECT_EQ(VORDENARM_IsHalted(), 1);
  ASSERT_EQ(segs[0].Addr, 0u);
  U32 vec[2];
  memcpy(vec, segs[0].Bytes.data(), 8);
  EXPECT_EQ(Reg(VORDENARM_REG_SP), vec[0]);
  EXPECT_EQ(Reg(VORDENARM_REG_PC), vec[1] & ~1u);
  EXPECT_EQ(vec[1], entry);
  EXPECT_EQ(Reg(VORDENARM_REG_XPSR) & (1u << 24), 1u << 24);

  // A breakpoint at main takes a hardware comparator; the Thumb bit of the
  // address does not make a second one.
  U32 mainAddr = syms["main"];
  int h = VORDENARM_SetBPEx(mainAddr | 1, 0xFFFFFFF0);
  ASSERT_GT(h, 0);
  EXPECT_EQ(VORDENARM_SetBPEx(mainAddr, 0xFFFFFFF0), h);
  EXPECT_EQ(VORDENARM_FindBP(mainAddr), h);
  VORDENARM_BP_INFO bi{};
  bi.SizeOfStruct = sizeof bi;
  EXPECT_EQ(VORDENARM_GetBPInfoEx(0, &bi), 1);
  EXPECT_EQ(bi.ImpFlags, VORDENARM_BP_IMP_HW);
  GoTo(mainAddr, 0);
  // Resuming without the step-over flag stops at the same breakpoint again.
  GoTo(mainAddr, 0);

  // Single steps: the PC moves by the instruction's length unless it
  // branches (the breakpoint at the PC is stepped over); an IT block is one
  // step; immediate moves leave their value behind.
  int seen16 = 0, seen32 = 0, movChecked = 0, seenIT = 0;
  static const std::regex movImm(R"(^r(\d+), #(\d+)$)");
  for (int i = 0; i < 80; ++i) {
    U32 pc = Reg(VORDENARM_REG_PC);
    ASSERT_TRUE(dis.count(pc)) << std::hex << pc;
    const objdump::Inst in = dis[pc];
    ASSERT_EQ(VORDENARM_Step(), 0);
    ASSERT_EQ(VORDENARM_IsHalted(), 1);
    U32 npc = Reg(VORDENARM_REG_PC);
    bool branch = in.Mnemonic[0] == 'b' || in.Mnemonic.rfind("cb", 0) == 0 ||
                  (in.Mnemonic == "pop" && in.Operands.find("pc") != std::string::npos);
    if (in.Mnemonic.rfind("it", 0) == 0) {
      U32 next = pc + in.Size;
      for (size_t k = 1; k < in.Mnemonic.size() && dis.count(next); ++k) next += dis[next].Size;
      EXPECT_EQ(npc, next) << in.Mnemonic;
      ++seenIT;
    } else if (!branch) {
      EXPECT_EQ(npc, pc + in.Size) << in.Mnemonic << " " << in.Operands;
      (in.Size == 2 ? seen16 : seen32)++;
    }
    std::smatch m;
    if ((in.Mnemonic == "movs" || in.Mnemonic == "movw" || in.Mnemonic == "mov") &&
        std::regex_match(in.Operands, m, movImm)) {
      EXPECT_EQ(Reg((U32)std::stoi(m[1])), (U32)std::stoul(m[2])) << in.Mnemonic << " " << in.Operands;
      ++movChecked;
    }
  }
  EXPECT_GT(seen16, 5);
  EXPECT_GT(seen32, 0);
  EXPECT_GT(movChecked, 0);
  EXPECT_GT(seenIT, 0);
  // Register writes are seen by the core.
  ASSERT_EQ(VORDENARM_WriteReg(0, 0x55AA), 0);
  EXPECT_EQ(Reg(0), 0x55AAu);
  EXPECT_EQ(VORDENARM_ClrBPEx(-1), 0);
  EXPECT_EQ(VORDENARM_FindBP(mainAddr), 0);
}

TEST_P(Backends, WriteDataEventStopsAfterTheStore) {
  ToMain();
  U32 addr = syms["g_watched"];
  U32 before = Mem32(addr);
  VORDENARM_DATA_EVENT ev{};
  ev.SizeOfStruct = sizeof ev;
  ev.Type = 1;
  ev.Addr = addr;
  ev.DataMask = 0xFFFFFFFF;
  ev.Access = 1 | 4;  // write, word
  ev.AccessMask = 0x10;
  U32 handle = 0;
  ASSERT_EQ(VORDENARM_SetDataEvent(&ev, &handle), 0);
  EXPECT_NE(handle, 0u);
  EXPECT_EQ(VORDENARM_GetWPInfoEx(-1, nullptr), 1);
  VORDENARM_WP_INFO wi{};
  wi.SizeOfStruct = sizeof wi;
  ASSERT_EQ(VORDENARM_GetWPInfoEx(0, &wi), 0);
  EXPECT_EQ(wi.Handle, handle);
  EXPECT_EQ(wi.AddrMask, 3u);  // widened to the word access
  for (int round = 0; round < 2; ++round) {
    VORDENARM_GoEx(0, 0);
    ASSERT_TRUE(WaitHalted());
    // Stopped right behind the storing instruction, the new value in memory
    // and in the stored register.
    U32 pc = Reg(VORDENARM_REG_PC);
    auto it = dis.lower_bound(pc);
    ASSERT_NE(it, dis.begin());
    --it;
    EXPECT_EQ(it->first + it->second.Size, pc);
    EXPECT_EQ(it->second.Mnemonic.substr(0, 3), "str") << it->second.Mnemonic;
    U32 now = Mem32(addr);
    EXPECT_NE(now, before);
    std::smatch m;
    std::string ops = it->second.Operands;
    if (std::regex_search(ops, m, std::regex(R"(^r(\d+),)"))) {
      EXPECT_EQ(Reg((U32)std::stoi(m[1])), now);
    }
    before = now;
  }
  EXPECT_EQ(VORDENARM_ClrDataEvent(handle), 0);
  EXPECT_EQ(VORDENARM_GetWPInfoEx(-1, nullptr), 0);
  EXPECT_NE(VORDENARM_ClrDataEvent(handle), 0);
}

// A breakpoint with an interrupt pending: stepping and resuming execute the
// instruction at the breakpoint first (interrupts masked for it), then the
// interrupt is taken; no extra stop at the same breakpoint.
TEST_P(Backends, PendingInterruptAtABreakpoint) {
  ToMain(true);
  InstallTickCounter();
  U32 work = syms["Work"], counter = syms["g_counter"];
  int h = VORDENARM_SetBPEx(work, 0xFFFFFFF0);
  ASSERT_GT(h, 0);
  GoTo(work, 0);
  U32 loops = Mem32(counter);

  // Step with SysTick pending: the instruction at the PC, not the handler's first.
  TargetStore(SCB_ICSR, ICSR_PENDSTSET);
  EXPECT_EQ(Mem32(SCB_ICSR) & ICSR_PENDSTSET, ICSR_PENDSTSET);
  ASSERT_EQ(VORDENARM_Step(), 0);
  EXPECT_EQ(Reg(VORDENARM_REG_PC), Next(work));
  EXPECT_EQ(Mem32(HANDLER_COUNT), 0u);
  EXPECT_EQ(Mem32(SCB_ICSR) & ICSR_PENDSTSET, ICSR_PENDSTSET);
  // Running on takes it; the next stop is the next call.
  GoTo(work, 0);
  EXPECT_EQ(Mem32(HANDLER_COUNT), 1u);
  EXPECT_EQ(Mem32(counter), loops + 1);

  // Resuming from the breakpoint with SysTick pending: one loop, one tick.
  TargetStore(SCB_ICSR, ICSR_PENDSTSET);
  GoTo(work, 1);
  EXPECT_EQ(Mem32(HANDLER_COUNT), 2u);
  EXPECT_EQ(Mem32(counter), loops + 2);

  // With SysTick running fast, every resume is one more loop.
  TargetStore(ST_RVR, 499);
  TargetStore(ST_CVR, 0);
  TargetStore(ST_CSR, 7);  // processor clock, interrupt, on
  for (U32 i = 1; i <= 20; ++i) {
    GoTo(work, 1);
    ASSERT_EQ(Mem32(counter), loops + 2 + i) << "resume " << i;
  }
  EXPECT_GT(Mem32(HANDLER_COUNT), 2u);
  TargetStore(ST_CSR, 0);
  EXPECT_EQ(VORDENARM_ClrBPEx(h), 0);
}

// Trace, terminals, sampling and power: the simulator has them; a GDB server
// does not, and the library refuses their calls the documented way.
TEST_P(Backends, OptionalCapabilities) {
  ToMain();
  U32 items[4];
  VORDEN_STRACE_TIMESTAMP_INFO stamps[2];
  int numStamps = 2;
  VORDEN_HSS_MEM_BLOCK_DESC blk{};
  blk.Addr = syms["g_counter"];
  blk.NumBytes = 4;
  VORDEN_POWERTRACE_CAPS caps{};
  U32 swoCount = 0;
  if (IsQemu()) {
    EXPECT_EQ(VORDEN_STRACE_Start(), -1);
    EXPECT_EQ(VORDEN_STRACE_ReadEx(items, 4, stamps, &numStamps, 0), -1);
    EXPECT_EQ(numStamps, 0);
    EXPECT_EQ(VORDEN_LVTERMINAL_Control(0, nullptr), -1);
    EXPECT_EQ(VORDENARM_SWO_EnableTarget(25000000, 1000000, 0, 1), -1);
    EXPECT_EQ(VORDENARM_SWO_Control(0, &swoCount), 0);
    EXPECT_EQ(VORDEN_HSS_Start(&blk, 1, 100, 0), -4);
    EXPECT_EQ(VORDEN_POWERTRACE_Control(4, nullptr, &caps), -1);
  } else {
    EXPECT_EQ(VORDEN_STRACE_Start(), 0);
    ASSERT_EQ(VORDENARM_Step(), 0);
    EXPECT_EQ(VORDEN_STRACE_ReadEx(items, 4, stamps, &numStamps, 0), 1);
    EXPECT_EQ(numStamps, 1);
    EXPECT_EQ(items[0], syms["main"]);
    EXPECT_EQ(VORDEN_LVTERMINAL_Control(0, nullptr), 0);
    EXPECT_EQ(VORDENARM_SWO_EnableTarget(25000000, 1000000, 0, 1), 0);
    EXPECT_EQ(VORDENARM_SWO_Control(0, &swoCount), 0);
    EXPECT_EQ(VORDEN_HSS_Start(&blk, 1, 100, 0), 0);
    EXPECT_EQ(VORDEN_HSS_Stop(), 0);
    EXPECT_EQ(VORDEN_POWERTRACE_Control(4, nullptr, &caps), 0);
    EXPECT_EQ(caps.ChannelMask, 1u);
  }
}

INSTANTIATE_TEST_SUITE_P(Targets, Backends,
                         ::testing::Values(BackendParam{"Simulator", nullptr, "MPS2-AN385", "gdbtest_an385.elf"},
                                           BackendParam{"QemuAN385", "mps2-an385", "MPS2-AN385", "gdbtest_an385.elf"},
                                           BackendParam{"QemuAN386", "mps2-an386", "MPS2-AN386", "gdbtest_an386.elf"}),
                         [](const ::testing::TestParamInfo<BackendParam>& i) { return std::string(i.param.sName); });
