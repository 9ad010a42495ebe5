// Lockstep: the same firmware single-stepped on the built-in simulator and on
// the emulator behind its GDB server; R0-R15 and the APSR flags must agree
// after every step. A divergence names the step, the PC and the instruction.
#include <gtest/gtest.h>

#include <set>
#include <sstream>

#include "devices.h"
#include "qemu_util.h"
#include "sim/sim_target.h"

using namespace vorden;
using namespace gdbtest;

namespace {

class GdbLockstep : public ::testing::TestWithParam<Machine> {};

TEST_P(GdbLockstep, SimulatorAndEmulatorAgreeAfterEveryStep) {
  const int kSteps = 20000;
  std::string elf = SourceDir() + "/firmware/gdb/elf/" + GetParam().sElf;
  std::vector<Segment> segs;
  U32 entry;
  ASSERT_TRUE(LoadSegments(elf, segs, entry));
  auto dis = objdump::Disassemble(elf);
  int dev = FindDevice(GetParam().sDevice);
  ASSERT_GT(dev, 0);

  CSimTarget sim(dev, [](int, const std::string&) {});
  std::string err;
  ASSERT_TRUE(sim.Init(err)) << err;
  Qemu qemu(GetParam().sQemu);
  auto gdb = qemu.Connect(dev, err);
  ASSERT_TRUE(gdb) << err;

  for (CBackend* b : {(CBackend*)&sim, gdb.get()}) {
    for (const Segment& s : segs)
      ASSERT_EQ(b->WriteMem(s.Addr, (U32)s.Bytes.size(), (const U8*)s.Bytes.data()), (int)s.Bytes.size());
    ASSERT_EQ(b->Reset(), 0);
    // Flags and R0-R12 are UNKNOWN after a reset: start both from the same.
    ASSERT_EQ(b->WriteReg(16, 0x01000000), 0);
    for (U32 i = 0; i <= 12; ++i) ASSERT_EQ(b->WriteReg(i, 0), 0);
  }

  auto regs = [](CBackend* b, U32* r) {
    for (U32 i = 0; i < 17; ++i) {
      U64 v = 0;
      if (b->ReadReg(i, v) != 0) return false;
      r[i] = (U32)v;
    }
    r[16] &= 0xF8000000u;  // APSR: N Z C V Q
    return true;
  };
  static const char* names[] = {"r0", "r1", "r2", "r3", "r4", "r5", "r6", "r7", "r8",
                                "r9", "r10", "r11", "r12", "sp", "lr", "pc", "apsr"};
  U32 a[17], b[17];
  ASSERT_TRUE(regs(&sim, a));
  ASSERT_TRUE(regs(gdb.get(), b));
  for (int i = 0; i < 17; ++i) ASSERT_EQ(a[i], b[i]) << "after reset: " << names[i];
  std::set<U32> pcs;
  for (int step = 1; step <= kSteps; ++step) {
    U32 pc = a[15];
    ASSERT_EQ(sim.Step(), 0) << "simulator step " << step;
    ASSERT_EQ(gdb->Step(), 0) << "emulator step " << step;
    ASSERT_TRUE(regs(&sim, a));
    ASSERT_TRUE(regs(gdb.get(), b));
    pcs.insert(pc);
    for (int i = 0; i < 17; ++i) {
      if (a[i] == b[i]) continue;
      std::ostringstream os;
      os << "step " << step << " from pc 0x" << std::hex << pc;
      if (dis.count(pc)) os << " (" << dis[pc].Mnemonic << " " << dis[pc].Operands << ")";
      os << ": " << names[i] << " simulator 0x" << a[i] << " emulator 0x" << b[i];
      FAIL() << os.str();
    }
  }
  // The run went through the start-up code and the computation loops, an IT
  // block included.
  EXPECT_GT(pcs.size(), 60u);
  bool sawIT = false;
  for (const auto& [addr, in] : dis)
    if (in.Mnemonic.rfind("it", 0) == 0 && pcs.count(addr)) sawIT = true;
  EXPECT_TRUE(sawIT);
}

INSTANTIATE_TEST_SUITE_P(Mps2, GdbLockstep,
                         ::testing::ValuesIn(kMps2Machines), [](const auto& i) { return MachineName(i.param); });

}  // namespace
