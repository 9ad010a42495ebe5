// What only the GDB remote protocol back end does, against the emulator's
// MPS2-AN385 (Cortex-M3) and MPS2-AN386 (Cortex-M4) machines running the test
// firmware of firmware/gdb: attaching to a running target, a reset that
// reloads the server's own image, pending interrupts at steps, access while
// running, semihosting through the server, a server that dies. Expected
// values come from the ELF file and the cross tools' nm and objdump output.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <regex>
#include <thread>

#include "devices.h"
#include "gdb/gdb_client.h"
#include "qemu_util.h"

using namespace vorden;
using namespace gdbtest;
using Clock = std::chrono::steady_clock;

namespace {

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

// Connecting to a target that runs (the emulator started without waiting
// for a debugger) leaves it running, and so does the detach when the back
// end goes: connect twice, the program never starts over.
TEST_P(GdbQemu, AttachesToARunningTargetAndLeavesItRunning) {
  t.reset();
  qemu = std::make_unique<Qemu>(GetParam().sQemu, elf, true);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  U32 last = 0;
  for (int round = 0; round < 2; ++round) {
    std::string err;
    t = qemu->Connect(FindDevice(GetParam().sDevice), err, [this](int, const std::string& s) { log += s + "\n"; });
    ASSERT_TRUE(t) << err;
    EXPECT_EQ(t->IsHalted(), 0) << log;
    U32 c1 = Mem32(syms["g_counter"]);
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    U32 c2 = Mem32(syms["g_counter"]);
    EXPECT_GT(c2, c1);
    EXPECT_GT(c1, last) << "the program started over";
    EXPECT_EQ(t->IsHalted(), 0);
    last = c2;
    t.reset();  // detach while it runs
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_NE(log.find("attached to a running target"), std::string::npos);
}

// A changed program survives a reset, whether the emulator loads an image
// of its own on every reset or starts empty.
TEST_P(GdbQemu, ResetKeepsTheDownloadedProgram) {
  // The changed program: g_table starts with 0x77 instead of 1.
  std::vector<Segment> changed = segs;
  const U32 first[4] = {1, 2, 3, 5};
  bool patched = false;
  for (Segment& s : changed) {
    size_t at = s.Bytes.find(std::string((const char*)first, sizeof first));
    if (at != std::string::npos && s.Addr != syms["g_table"]) {
      s.Bytes[at] = 0x77;
      patched = true;
    }
  }
  ASSERT_TRUE(patched);
  for (bool ownImage : {true, false}) {
    SCOPED_TRACE(ownImage ? "emulator given the program" : "emulator started empty");
    t.reset();
    qemu = std::make_unique<Qemu>(GetParam().sQemu, ownImage ? elf : "");
    std::string err;
    t = qemu->Connect(FindDevice(GetParam().sDevice), err, [this](int, const std::string& s) { log += s + "\n"; });
    ASSERT_TRUE(t) << err;
    for (const Segment& s : changed)
      ASSERT_EQ(t->WriteMem(s.Addr, (U32)s.Bytes.size(), (const U8*)s.Bytes.data()), (int)s.Bytes.size());
    for (int reset = 0; reset < 2; ++reset) {
      ASSERT_EQ(t->Reset(), 0);
      for (const Segment& s : changed) {
        std::string back(s.Bytes.size(), '\0');
        ASSERT_EQ(t->ReadMem(s.Addr, (U32)back.size(), (U8*)back.data()), (int)back.size());
        EXPECT_EQ(back, s.Bytes) << "at 0x" << std::hex << s.Addr;
      }
      U32 vec[2];
      memcpy(vec, changed[0].Bytes.data(), 8);
      EXPECT_EQ(Reg(13), vec[0]);
      EXPECT_EQ(Reg(15), vec[1] & ~1u);
      // The program that runs is the changed one.
      int h = t->SetBP(syms["main"], 0xFFFFFFF0);
      ASSERT_GT(h, 0);
      ASSERT_EQ(t->Go(0), 0);
      ASSERT_TRUE(WaitHalted());
      EXPECT_EQ(Reg(15), syms["main"]);
      EXPECT_EQ(Mem32(syms["g_table"]), 0x77u);
      ASSERT_EQ(t->ClrBP(h), 0);
    }
  }
}

namespace {

// A STR R1, [R0] to step through for stores to the system registers (the
// emulator's GDB server drops debugger writes to device memory), and a CPSIE I
// (the firmware runs with interrupts off).
constexpr U32 kCpsie = 0x20100040, kStore = 0x20100050;
const U16 kCpsieCode[] = {0xB662, 0xE7FE}, kStoreCode[] = {0x6001, 0xE7FE};
constexpr U32 ICSR = 0xE000ED04, PENDSTSET = 1u << 26;

}  // namespace

// An earlier client left the emulator's step flags letting interrupts in: a
// single step with SysTick pending still executes the instruction at the PC,
// not the handler's first one. (The shared back-end suite covers the server's
// defaults and resuming from a breakpoint.)
TEST_P(GdbQemu, StepsHoldInterruptsWhateverAnEarlierClientSet) {
  t.reset();
  qemu = std::make_unique<Qemu>(GetParam().sQemu);
  CGdbClient raw([](int, const std::string&) {});
  std::string err, r;
  ASSERT_TRUE(raw.ConnectTcp("127.0.0.1", qemu->port, err)) << err;
  ASSERT_TRUE(raw.Handshake(err)) << err;
  ASSERT_EQ(raw.Query("Qqemu.sstep=1", r), 1);
  ASSERT_EQ(r, "OK");
  raw.Close();
  t = qemu->Connect(FindDevice(GetParam().sDevice), err);
  ASSERT_TRUE(t) << err;
  ToMain();
  // Runs one instruction at Addr with R0/R1 given, then puts PC, R0, R1 back.
  auto stepThrough = [&](U32 Addr, U32 R0, U32 R1) {
    U32 r0 = Reg(0), r1 = Reg(1), pc = Reg(15);
    ASSERT_EQ(t->WriteReg(0, R0), 0);
    ASSERT_EQ(t->WriteReg(1, R1), 0);
    ASSERT_EQ(t->WriteReg(15, Addr), 0);
    ASSERT_EQ(t->Step(), 0);
    ASSERT_EQ(Reg(15), Addr + 2);
    ASSERT_EQ(t->WriteReg(0, r0), 0);
    ASSERT_EQ(t->WriteReg(1, r1), 0);
    ASSERT_EQ(t->WriteReg(15, pc), 0);
  };
  ASSERT_EQ(t->WriteMem(kCpsie, sizeof kCpsieCode, (const U8*)kCpsieCode), (int)sizeof kCpsieCode);
  ASSERT_EQ(t->WriteMem(kStore, sizeof kStoreCode, (const U8*)kStoreCode), (int)sizeof kStoreCode);
  stepThrough(kCpsie, 0, 0);
  stepThrough(kStore, ICSR, PENDSTSET);
  ASSERT_EQ(Mem32(ICSR) & PENDSTSET, PENDSTSET);
  const U32 pc = Reg(15);
  auto dis = objdump::Disassemble(elf);
  ASSERT_TRUE(dis.count(pc));
  ASSERT_EQ(t->Step(), 0);
  EXPECT_EQ(Reg(15), pc + dis[pc].Size);
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
                         ::testing::ValuesIn(kMps2Machines), [](const auto& i) { return MachineName(i.param); });

}  // namespace
