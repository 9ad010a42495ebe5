// The GDB remote protocol back end against the emulator's MPS2-AN385
// (Cortex-M3) and MPS2-AN386 (Cortex-M4) machines running the test firmware
// of firmware/gdb. Expected values come from the ELF file and the cross
// tools' nm and objdump output.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <thread>

#include "devices.h"
#include "qemu_util.h"

using namespace vorden;
using namespace gdbtest;
using Clock = std::chrono::steady_clock;

namespace {

struct Machine {
  const char* sQemu;
  const char* sDevice;
  const char* sElf;
};

void PrintTo(const Machine& m, std::ostream* os) { *os << m.sQemu; }

class GdbQemu : public ::testing::TestWithParam<Machine> {
 protected:
  void SetUp() override {
    elf = SourceDir() + "/firmware/gdb/elf/" + GetParam().sElf;
    ASSERT_TRUE(LoadSegments(elf, segs, entry)) << elf;
    syms = Symbols(elf);
    ASSERT_TRUE(syms.count("main") && syms.count("g_watched") && syms.count("g_counter") && syms.count("g_semihost"));
    qemu = std::make_unique<Qemu>(GetParam().sQemu);
    std::string err;
    t = qemu->Connect(FindDevice(GetParam().sDevice), err, [this](int, const std::string& s) { log += s + "\n"; });
    ASSERT_TRUE(t) << err;
  }
  void TearDown() override {
    t.reset();
    qemu.reset();
  }

  U32 Reg(U32 i) {
    U64 v = 0xDEADBEEF;
    EXPECT_EQ(t->ReadReg(i, v), 0) << "register " << i;
    return (U32)v;
  }
  U32 Mem32(U32 a) {
    U32 v = 0;
    EXPECT_EQ(t->ReadMem(a, 4, (U8*)&v), 4);
    return v;
  }
  bool WaitHalted(int Ms = 3000) {
    auto end = Clock::now() + std::chrono::milliseconds(Ms);
    while (Clock::now() < end) {
      int h = t->IsHalted();
      if (h != 0) return h == 1;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
  }
  void Download() {
    for (const Segment& s : segs)
      ASSERT_EQ(t->WriteMem(s.Addr, (U32)s.Bytes.size(), (const U8*)s.Bytes.data()), (int)s.Bytes.size());
  }
  // Download, reset and run to main.
  void ToMain() {
    Download();
    ASSERT_EQ(t->Reset(), 0);
    int h = t->SetBP(syms["main"], 0xFFFFFFF0);
    ASSERT_GT(h, 0);
    ASSERT_EQ(t->Go(0), 0);
    ASSERT_TRUE(WaitHalted());
    ASSERT_EQ(Reg(15), syms["main"]);
    ASSERT_EQ(t->ClrBP(h), 0);
  }

  std::string elf, log;
  std::vector<Segment> segs;
  U32 entry = 0;
  std::map<std::string, U32> syms;
  std::unique_ptr<Qemu> qemu;
  std::unique_ptr<CBackend> t;
};

TEST_P(GdbQemu, DownloadResetBreakpointAndSteps) {
  Download();
  // Download read back.
  for (const Segment& s : segs) {
    std::string back(s.Bytes.size(), '\0');
    ASSERT_EQ(t->ReadMem(s.Addr, (U32)back.size(), (U8*)back.data()), (int)back.size());
    EXPECT_EQ(back, s.Bytes);
  }
  // Reset: SP and PC from the vector table at 0.
  ASSERT_EQ(t->Reset(), 0);
  U32 vec[2];
  memcpy(vec, segs[0].Bytes.data(), 8);
  ASSERT_EQ(segs[0].Addr, 0u);
  EXPECT_EQ(Reg(13), vec[0]);
  EXPECT_EQ(Reg(15), vec[1] & ~1u);
  EXPECT_EQ(vec[1], entry);
  EXPECT_EQ(Reg(16) & (1u << 24), 1u << 24);  // Thumb state

  // Breakpoint at main: a hardware comparator first.
  U32 mainAddr = syms["main"];
  int h = t->SetBP(mainAddr | 1, 0xFFFFFFF0);
  ASSERT_GT(h, 0);
  EXPECT_EQ(t->SetBP(mainAddr, 0xFFFFFFF0), h);
  EXPECT_EQ(t->FindBP(mainAddr), h);
  VORDENARM_BP_INFO bi{};
  bi.SizeOfStruct = sizeof bi;
  EXPECT_EQ(t->GetBPInfo(0, &bi), 1);
  EXPECT_EQ(bi.ImpFlags, VORDENARM_BP_IMP_HW);
  ASSERT_EQ(t->Go(0), 0);
  ASSERT_TRUE(WaitHalted());
  ASSERT_EQ(Reg(15), mainAddr);

  // Single steps from main: the PC moves by the instruction's length unless
  // it branches, with the breakpoint at the PC stepped over; immediate moves
  // leave their value behind.
  auto dis = Disassembly(elf);
  int seen16 = 0, seen32 = 0, movChecked = 0, seenIT = 0;
  static const std::regex movImm(R"(^r(\d+), #(\d+)$)");
  for (int i = 0; i < 80; ++i) {
    U32 pc = Reg(15);
    ASSERT_TRUE(dis.count(pc)) << std::hex << pc;
    const Insn& in = dis[pc];
    ASSERT_EQ(t->Step(), 0);
    ASSERT_EQ(t->IsHalted(), 1);
    U32 npc = Reg(15);
    bool branch = in.Mnemonic[0] == 'b' || in.Mnemonic.rfind("cb", 0) == 0 ||
                  (in.Mnemonic == "pop" && in.Operands.find("pc") != std::string::npos);
    if (in.Mnemonic.rfind("it", 0) == 0) {
      // An IT block is one step: the IT and the instructions it covers
      // (none of them branches in this firmware).
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
      EXPECT_EQ(Reg((U32)std::stoi(m[1])), (U32)std::stoul(m[2]));
      ++movChecked;
    }
  }
  EXPECT_GT(seen16, 5);
  EXPECT_GT(seen32, 0);
  EXPECT_GT(movChecked, 0);
  EXPECT_GT(seenIT, 0);
  EXPECT_EQ(t->ClrBP(-1), 0);
  EXPECT_EQ(t->FindBP(mainAddr), 0);
}

TEST_P(GdbQemu, RegistersAndMemory) {
  ToMain();
  // Core registers write and read back.
  for (U32 i = 0; i <= 12; ++i) ASSERT_EQ(t->WriteReg(i, 0x11111111u * (i + 1) + i), 0);
  for (U32 i = 0; i <= 12; ++i) EXPECT_EQ(Reg(i), 0x11111111u * (i + 1) + i);
  U32 pc = Reg(15);
  ASSERT_EQ(t->WriteReg(15, pc + 2), 0);
  EXPECT_EQ(Reg(15), pc + 2);
  ASSERT_EQ(t->WriteReg(15, pc), 0);
  // Registers the server does not describe are not readable, never zero.
  for (U32 i = VORDENARM_REG_MSP; i <= VORDENARM_REG_CONTROL; ++i) {
    U64 v = 0;
    EXPECT_NE(t->ReadReg(i, v), 0) << "register " << i;
  }
  U64 dummy;
  EXPECT_NE(t->ReadReg(VORDENARM_REG_NUM, dummy), 0);

  // Memory: words, odd sizes and addresses, a block larger than one packet.
  std::vector<U8> block(5000);
  for (size_t i = 0; i < block.size(); ++i) block[i] = (U8)(i * 7 + 3);
  ASSERT_EQ(t->WriteMem(0x20008001, (U32)block.size(), block.data()), (int)block.size());
  std::vector<U8> back(block.size());
  ASSERT_EQ(t->ReadMem(0x20008001, (U32)back.size(), back.data()), (int)back.size());
  EXPECT_EQ(back, block);
  U8 three[3] = {0xA1, 0xB2, 0xC3};
  ASSERT_EQ(t->WriteMem(0x20008002, 3, three), 3);
  EXPECT_EQ(Mem32(0x20008000), (U32)block[0] << 8 | 0xA1u << 16 | 0xB2u << 24);
  // Unreadable memory: nothing; across the end of a region: the readable prefix.
  U8 buf[16];
  EXPECT_LE(t->ReadMem(0x2FFF0000, 8, buf), 0);
  EXPECT_EQ(t->ReadMem(0x23FFFFF8, 16, buf), 8);
  EXPECT_LE(t->ReadMem(0xFFFFFFFE, 16, buf), 2);
}

TEST_P(GdbQemu, WriteWatchpointStopsAfterTheStore) {
  ToMain();
  U32 addr = syms["g_watched"];
  U32 before = Mem32(addr);
  VORDENARM_DATA_EVENT ev{};
  ev.SizeOfStruct = sizeof ev;
  ev.Type = 1;
  ev.Addr = addr;
  ev.AddrMask = 0;
  ev.DataMask = 0xFFFFFFFF;
  ev.Access = 1 | 4;  // write, word
  ev.AccessMask = 0x10;
  U32 handle = 0;
  ASSERT_EQ(t->SetDataEvent(ev, &handle), 0);
  EXPECT_EQ(t->GetWPInfo(-1, nullptr), 1);
  VORDENARM_WP_INFO wi{};
  wi.SizeOfStruct = sizeof wi;
  ASSERT_EQ(t->GetWPInfo(0, &wi), 0);
  EXPECT_EQ(wi.AddrMask, 3u);
  // A data comparator is something no GDB server has.
  VORDENARM_DATA_EVENT withData = ev;
  withData.DataMask = 0;
  EXPECT_EQ((U32)t->SetDataEvent(withData, nullptr) & VORDENARM_EVENT_ERR_NO_MORE_DATA_COMP,
            VORDENARM_EVENT_ERR_NO_MORE_DATA_COMP);

  auto dis = Disassembly(elf);
  for (int round = 0; round < 2; ++round) {
    ASSERT_EQ(t->Go(0), 0);
    ASSERT_TRUE(WaitHalted());
    // Stopped right behind the storing instruction, the new value in memory.
    U32 pc = Reg(15);
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
  EXPECT_EQ(t->ClrDataEvent(handle), 0);
  EXPECT_EQ(t->GetWPInfo(-1, nullptr), 0);
  EXPECT_NE(t->ClrDataEvent(handle), 0);
}

TEST_P(GdbQemu, HaltWhileRunningAndBackgroundAccess) {
  ToMain();
  ASSERT_EQ(t->Go(0), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(t->IsHalted(), 0);
  // Memory access while running interrupts and resumes behind the scenes.
  U32 c1 = Mem32(syms["g_counter"]);
  EXPECT_EQ(t->IsHalted(), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  U32 c2 = Mem32(syms["g_counter"]);
  EXPECT_GT(c2, c1);
  EXPECT_EQ(t->IsHalted(), 0);
  U64 v;
  EXPECT_NE(t->ReadReg(15, v), 0);  // registers only while halted
  // One thread polls, another reads memory: the target keeps running and no
  // stop of the background accesses ever shows as a halt.
  std::atomic<int> halts{0}, badReads{0};
  std::thread poller([&] {
    for (int i = 0; i < 400; ++i) halts += t->IsHalted() != 0;
  });
  std::thread reader([&] {
    U32 last = 0;
    for (int i = 0; i < 150; ++i) {
      U32 c = 0;
      if (t->ReadMem(syms["g_counter"], 4, (U8*)&c) != 4 || c < last) ++badReads;
      last = c;
    }
  });
  poller.join();
  reader.join();
  EXPECT_EQ(halts, 0);
  EXPECT_EQ(badReads, 0);
  EXPECT_EQ(t->IsHalted(), 0);
  auto t0 = Clock::now();
  ASSERT_EQ(t->Halt(), 0);
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count(), 500);
  EXPECT_EQ(t->IsHalted(), 1);
  U32 c3 = Mem32(syms["g_counter"]);
  EXPECT_GE(c3, c2);
  EXPECT_EQ(Mem32(syms["g_counter"]), c3);  // stays halted
  // A breakpoint set while running takes effect.
  ASSERT_EQ(t->Go(0), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(10));
  int h = t->SetBP(syms["Work"], 0xFFFFFFF0);
  ASSERT_GT(h, 0);
  ASSERT_TRUE(WaitHalted());
  EXPECT_EQ(Reg(15), syms["Work"]);
  // Resuming with the step-over flag leaves the breakpoint behind once.
  ASSERT_EQ(t->Go(VORDENARM_GO_FLAG_OVERSTEP_BP), 0);
  ASSERT_TRUE(WaitHalted());
  EXPECT_EQ(Reg(15), syms["Work"]);
}

TEST_P(GdbQemu, SemihostingRequestsHaltAtTheBkpt) {
  ToMain();
  U32 one = 1;
  ASSERT_EQ(t->WriteMem(syms["g_semihost"], 4, (U8*)&one), 4);
  std::string console;
  for (int i = 0; i < 2; ++i) {
    ASSERT_EQ(t->Go(0), 0);
    ASSERT_TRUE(WaitHalted());
    U32 pc = Reg(15);
    U16 insn = 0;
    ASSERT_EQ(t->ReadMem(pc, 2, (U8*)&insn), 2);
    ASSERT_EQ(insn, 0xBEAB);
    ASSERT_EQ(Reg(0), 4u);  // SYS_WRITE0
    char text[64] = {};
    ASSERT_GT(t->ReadMem(Reg(1), sizeof text - 1, (U8*)text), 0);
    console += text;
    // Served the usual way: past the BKPT and on.
    ASSERT_EQ(t->WriteReg(15, pc + 2), 0);
  }
  EXPECT_EQ(console, "hello from the target\ntick\n");
  ASSERT_EQ(t->Go(0), 0);
  ASSERT_TRUE(WaitHalted());  // the next "tick"
  ASSERT_EQ(t->WriteReg(15, Reg(15) + 2), 0);
  // A step over a served request stays halted behind the BKPT.
  U32 pc = Reg(15);
  ASSERT_EQ(t->Go(0), 0);
  ASSERT_TRUE(WaitHalted());
  pc = Reg(15);
  ASSERT_EQ(t->WriteReg(15, pc + 2), 0);
  ASSERT_EQ(t->Step(), 0);
  EXPECT_EQ(Reg(15), pc + 2);
  ASSERT_EQ(t->Halt(), 0);
}

TEST_P(GdbQemu, KillingTheServerGivesConnectionLostWithinOneSecond) {
  ToMain();
  ASSERT_EQ(t->Go(0), 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  ASSERT_EQ(t->IsHalted(), 0);
  auto t0 = Clock::now();
  qemu->Stop(SIGKILL);
  int h = 0;
  while (h == 0 && Clock::now() - t0 < std::chrono::seconds(3)) {
    h = t->IsHalted();
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
  EXPECT_LT(h, 0);
  EXPECT_LT(ms, 1000);
  // Everything fails fast from then on.
  U8 b[4];
  EXPECT_LE(t->ReadMem(0x20000000, 4, b), 0);
  EXPECT_NE(t->Halt(), 0);
  EXPECT_LT(t->IsHalted(), 0);
  EXPECT_NE(log.find("connection lost"), std::string::npos);
}

TEST_P(GdbQemu, KillEndsTheEmulator) {
  std::string err;
  EXPECT_TRUE(t->ExecCommand("GdbKill", "", err));
  EXPECT_LT(t->IsHalted(), 0);
  int st = 0;
  pid_t r = 0;
  for (int i = 0; i < 200 && r == 0; ++i) {
    r = waitpid(qemu->pid, &st, WNOHANG);
    if (r == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_EQ(r, qemu->pid);
  if (r == qemu->pid) qemu->pid = -1;
}

INSTANTIATE_TEST_SUITE_P(Mps2, GdbQemu,
                         ::testing::Values(Machine{"mps2-an385", "MPS2-AN385", "gdbtest_an385.elf"},
                                           Machine{"mps2-an386", "MPS2-AN386", "gdbtest_an386.elf"}),
                         [](const ::testing::TestParamInfo<Machine>& i) {
                           return std::string(i.param.sDevice).substr(5);
                         });

}  // namespace
