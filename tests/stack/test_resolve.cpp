// Resolution of location parts against frames of a filled frame store: the
// frame-relative kinds, the register rule step through a callee frame, the
// memory step and the entry value step.
#include <gtest/gtest.h>

#include "elf/dwarf/location.h"
#include "log/log.h"
#include "elf/dwarf/target_access.h"
#include "stack/framestore.h"

#include <QFile>

#include <map>

namespace {

ELF_LOC_PART Part(U32 Kind, I32 Offset = 0, U32 Reg = 0) {
  ELF_LOC_PART p{};
  p.kind = Kind;
  p.offset = Offset;
  p.reg = Reg;
  return p;
}
ELF_SYM_LOC Loc(const ELF_LOC_PART& p) {
  ELF_SYM_LOC l{};
  l.count = 1;
  l.parts[0] = p;
  return l;
}

// Words of a made-up target, with the frames of the fixture.
std::map<U32, U32> g_Memory;
class CWordTarget : public CProgramImageAccess {
public:
  using CProgramImageAccess::CProgramImageAccess;
  bool IsAccessible() const override { return true; }
  int ReadMemory(U32 Address, U32 Size, const QString&, QByteArray& Out) override {
    auto it = g_Memory.find(Address);
    if (Size != 4 || it == g_Memory.end()) return TARGET_READ_FAILED;
    Out = QByteArray(4, 0);
    for (int i = 0; i < 4; ++i) Out[i] = (char)(it->second >> (8 * i));
    return TARGET_READ_OK;
  }
};

class Resolve : public ::testing::Test {
protected:
  void SetUp() override {
    m_Store.Configure(16, 15, 13);
    ELF_SetTargetAccess(&m_Target);
    g_Memory.clear();
    // Frame 0 (callee): SP 0x1000, R4 0x44, CFA 0x1010, BP 0x1008.
    m_F0.stack = 0;
    m_F0.index = 0;
    m_F0.cfa = 0x1010;
    m_F0.cfaStatus = 0;
    m_F0.bp = 0x1008;
    m_F0.bpStatus = 0;
    m_Store.SetFrame(m_F0);
    m_Store.SetRegister(0, 0, 13, 0x1000, 0);
    m_Store.SetRegister(0, 0, 15, 0x200, 0);
    m_Store.SetRegister(0, 0, 4, 0x44, 0);
    // Its rules: R4 saved at CFA - 8, R5 undefined, R6 same value, R7 held in R4.
    ELF_SYM_LOCS Rules(16);
    Rules[4] = Loc(Part(ELF_LOC_AT_CFA, -8));
    Rules[5] = Loc(Part(ELF_LOC_REG, 0, ELF_REG_UNDEFINED));
    Rules[6] = Loc(Part(ELF_LOC_REG, 0, ELF_REG_SAME));
    Rules[7] = Loc(Part(ELF_LOC_REG, 0, 4));
    m_Store.SetRules(0, 0, Rules);
    // Frame 1 (caller).
    m_F1 = m_F0;
    m_F1.index = 1;
    m_F1.cfa = 0x1020;
    m_Store.SetFrame(m_F1);
    m_Store.SetRegister(0, 1, 13, 0x1010, 0);
    m_Store.SetRegister(0, 1, 15, 0x300, 0);
  }
  void TearDown() override { ELF_SetTargetAccess(nullptr); }
  CFrameStore m_Store;
  CWordTarget m_Target{&m_Store};
  CCallFrame m_F0, m_F1;
};

TEST_F(Resolve, FrameRelativeKindsNeedTheirBase) {
  ELF_LOC_PART r = ResolveLocPart(m_F0, Part(ELF_LOC_AT_BP, -8));
  EXPECT_EQ(r.kind, (U32)ELF_LOC_ADDR);
  EXPECT_EQ(r.address, 0x1000u);
  r = ResolveLocPart(m_F0, Part(ELF_LOC_CFA_VALUE, 4));
  EXPECT_EQ(r.kind, (U32)ELF_LOC_CONST);
  EXPECT_EQ(r.value, 0x1014u);
  r = ResolveLocPart(m_F0, Part(ELF_LOC_AT_SP, 12));
  EXPECT_EQ(r.address, 0x100Cu);
  // An unknown BP leaves the part as it came.
  CCallFrame NoBp = m_F0;
  NoBp.bpStatus = 1;
  r = ResolveLocPart(NoBp, Part(ELF_LOC_AT_BP, -8));
  EXPECT_EQ(r.kind, (U32)ELF_LOC_AT_BP);
  EXPECT_EQ(r.offset, -8);
}

TEST_F(Resolve, RegistersOfTheCallerFollowTheCalleeRules) {
  // Innermost frame: the register stays for the device to read.
  ELF_LOC_PART r = ResolveLocPart(m_F0, Part(ELF_LOC_REG, 0, 4));
  EXPECT_EQ(r.kind, (U32)ELF_LOC_REG);
  U64 v = 0;
  EXPECT_TRUE(ELF_ReadRegisterPart(m_F0, r, v));
  EXPECT_EQ(v, 0x44u);
  // Caller: R4 was saved at the callee's CFA - 8.
  r = ResolveLocPart(m_F1, Part(ELF_LOC_REG, 0, 4));
  EXPECT_EQ(r.kind, (U32)ELF_LOC_ADDR);
  EXPECT_EQ(r.address, 0x1008u);
  // Register + offset adds to the memory location.
  r = ResolveLocPart(m_F1, Part(ELF_LOC_REG_VALUE, 16, 4));
  EXPECT_EQ(r.kind, (U32)ELF_LOC_ADDR_OFFSET);
  EXPECT_EQ(r.offset, 16);
  // Same value: the callee's own register; held in another register: that one.
  r = ResolveLocPart(m_F1, Part(ELF_LOC_REG, 0, 6));
  EXPECT_EQ(r.kind, (U32)ELF_LOC_REG);
  EXPECT_EQ(r.reg, 6u);
  r = ResolveLocPart(m_F1, Part(ELF_LOC_REG_VALUE, 2, 7));
  EXPECT_EQ(r.kind, (U32)ELF_LOC_REG_VALUE);
  EXPECT_EQ(r.reg, 4u);
  EXPECT_EQ(r.offset, 2);
  // Undefined, or a frame without known PC, fails, and says so in the log.
  const char* const Env = getenv("TAVIT_TEST_TMP");
  const QString sLog = QString::fromUtf8(Env ? Env : "/tmp") + "/resolve.log";
  SetLogFile(LOG_FILE_APP, sLog);
  EXPECT_EQ(ResolveLocPart(m_F1, Part(ELF_LOC_REG, 0, 5)).kind, (U32)ELF_LOC_NONE);
  LogFlush();
  SetLogFile(LOG_FILE_APP, QString());
  QFile f(sLog);
  ASSERT_TRUE(f.open(QIODevice::ReadOnly));
  EXPECT_TRUE(f.readAll().contains("Failed to evaluate register data location: R5"));
  m_Store.SetRegister(0, 1, 15, 0, 1);
  EXPECT_EQ(ResolveLocPart(m_F1, Part(ELF_LOC_REG, 0, 4)).kind, (U32)ELF_LOC_NONE);
  EXPECT_EQ(ResolveLocPart(CCallFrame(), Part(ELF_LOC_REG, 0, 4)).kind, (U32)ELF_LOC_NONE);
}

TEST_F(Resolve, MemoryStepReadsTheBaseRegister) {
  // [R4 + 8] in the caller: R4 is the word at 0x1008.
  ELF_LOC_PART p = Part(ELF_LOC_AT_REG, 2);
  p.baseKind = ELF_LOC_REG_VALUE;
  p.baseRegister = 4;
  p.baseOffset = 8;
  EXPECT_EQ(ResolveLocPart(m_F1, p).kind, (U32)ELF_LOC_NONE);  // word not readable
  g_Memory[0x1008] = 0x2000;
  const ELF_LOC_PART r = ResolveLocPart(m_F1, p);
  EXPECT_EQ(r.kind, (U32)ELF_LOC_ADDR_OFFSET);
  EXPECT_EQ(r.address, 0x2008u);
  EXPECT_EQ(r.offset, 2);
  // In the innermost frame the register itself is the base.
  EXPECT_EQ(ResolveLocPart(m_F0, p).address, 0x4Cu);
}

TEST_F(Resolve, StackValueIsTheNumberOfTheInnerLocation) {
  // DW_OP_breg4 8 DW_OP_stack_value: R4 + 8; DW_OP_fbreg -8 DW_OP_stack_value: BP - 8.
  ELF_LOC_PART p = Part(ELF_LOC_INNER_VALUE);
  p.baseKind = ELF_LOC_AT_REG;
  p.baseRegister = 4;
  p.baseOffset = 8;
  ELF_LOC_PART r = ResolveLocPart(m_F0, p);
  EXPECT_EQ(r.kind, (U32)ELF_LOC_CONST);
  EXPECT_EQ(r.value, 0x4Cu);
  p = Part(ELF_LOC_INNER_VALUE);
  p.baseKind = ELF_LOC_AT_BP;
  p.baseAddress = (U32)-8;
  r = ResolveLocPart(m_F0, p);
  EXPECT_EQ(r.kind, (U32)ELF_LOC_CONST);
  EXPECT_EQ(r.value, 0x1000u);
  // In the caller R4 is read from where the callee saved it.
  g_Memory[0x1008] = 0x500;
  p = Part(ELF_LOC_INNER_VALUE);
  p.baseKind = ELF_LOC_REG;
  p.baseRegister = 4;
  EXPECT_EQ(ResolveLocPart(m_F1, p).value, 0x500u);
}

TEST_F(Resolve, EntryValueResolvesInTheCaller) {
  ELF_LOC_PART p = Part(ELF_LOC_ENTRY_VALUE);
  p.baseKind = ELF_LOC_REG;
  p.baseRegister = 4;
  const ELF_LOC_PART r = ResolveLocPart(m_F0, p);
  EXPECT_EQ(r.kind, (U32)ELF_LOC_ADDR);
  EXPECT_EQ(r.address, 0x1008u);
  // Frame 1 has no caller.
  EXPECT_EQ(ResolveLocPart(m_F1, p).kind, (U32)ELF_LOC_NONE);
}

}  // namespace
