// The unwinder's stop reasons and texts on frames made from chosen register
// values over the committed test programs (places from gdb's breakpoint
// addresses), the stack memory a small map and every read answered at once.
#include <gtest/gtest.h>

#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/target_access.h"
#include "elf/elfapi.h"
#include "stack/callstack.h"
#include "testsupport/gdb_frames.h"
#include "testsupport/testapp.h"
#include "testsupport/tools.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <map>
#include <random>

namespace {

const std::string kSrc = getenv("TAVIT_SOURCE_DIR") ? getenv("TAVIT_SOURCE_DIR") : ".", kDir = kSrc + "/firmware/tests/";
constexpr U32 kSp = 0x2000F000;

// gdb's first address of a breakpoint; "file.c@MARK" stands for the line
// that holds MARK.
U32 GdbAddress(const char* sElf, std::string sSpec) {
  if (const size_t At = sSpec.find('@'); At != std::string::npos)
    sSpec = testsupport::MarkedLine(kSrc, sSpec.substr(0, At), sSpec.substr(At + 1));
  const std::string Out = RunGdb(kDir + "elf/" + sElf + ".elf", {"break " + sSpec, "info breakpoints"});
  const auto m = QRegularExpression(R"(0x([0-9a-f]+) in )").match(QString::fromStdString(Out));
  return m.hasMatch() ? m.captured(1).toUInt(nullptr, 16) : 0;
}

// RAM as a word map; the rest of memory from the program image.
class CMapTarget : public CProgramImageAccess {
 public:
  using CProgramImageAccess::CProgramImageAccess;
  std::map<U32, U32> Ram;
  bool IsAccessible() const override { return true; }
  int ReadMemory(U32 Address, U32 Size, const QString& sZone, QByteArray& Out) override {
    if (Address < 0x20000000 || Address >= 0x20100000) return CProgramImageAccess::ReadMemory(Address, Size, sZone, Out);
    if (Size != 4 || !Ram.count(Address)) return TARGET_READ_FAILED;
    Out = QByteArray(reinterpret_cast<const char*>(&Ram[Address]), 4);
    return TARGET_READ_OK;
  }
};

struct EDGE {
  const char *sName, *sElf, *sWhere;  // where gdb breaks (its break location text); "" for 0x4, outside every function
  U32 Lr, R7;                         // 0: not set
  int DepthLimit, Frames;             // Frames -1: not checked
  const char *sStop, *sFunc0, *sReturn0, *sFunc1;  // prefixes; %1 is the top frame's PC
};

const EDGE kEdges[] = {
    {"NoFrameDescription", "unwind-O0", "", 0, 0, 50, 1, "Top of stack - no unwinding symbols at %1", "@ 0x00000004",
     "<no symbols>", nullptr},
    {"UndefinedReturnRule", "unwind-O0", "unwind.c@unsigned* s = _data_load", 0, 0, 50, 1,
     "Top of stack - no unwinding symbols at %1", "Reset_Handler", nullptr, nullptr},
    {"ReturnAddressOutsideTheProgram", "unwind-O2", "*Bottom", 0x30000001, 0, 50, 1,
     "Top of stack - return address out of range: 0x30000001", "Bottom", "R14: 0x30000001", nullptr},
    {"DepthLimitOne", "unwind-O0", "Recurse", 0, kSp, 1, 1, "Top of stack - depth limit reached", "Recurse", nullptr, nullptr},
    {"InlinedFrame", "inline3", "inline3.c@/* MIX_LINE */", 0x21, 0, 50, -1, nullptr, "mix", "<inline>: 0x", "first"},
    {"FrameSizeAboveTheLimit", "unwind-O0", "Recurse", 0, kSp + 200000, 50, 1,
     "Top of stack - return address location out of range", "Recurse", nullptr, nullptr},
};

class CallStackOnMap : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QCoreApplication>();
    DWARF_Install();
    CCallStack::Instance();
  }
  void SetUp() override {
    if (RunToolOutput("command -v gdb-multiarch").empty()) GTEST_SKIP() << "gdb missing";
    ELF_SetTargetAccess(&m_Target);
    CCallStack::SetReader([](const ELF_SYM_LOC& Loc, U32) {
      U32 w = 0;
      const bool Ok = ELF_ReadTargetWord(Loc.parts[0].address, &w) == 0;
      CCallStack::Instance().CompleteRead(Loc, Ok, w);
    });
  }
  void TearDown() override {
    CCallStack::SetReader(nullptr);
    ELF_SetTargetAccess(nullptr);
  }
  bool Unwind(const char* sElf, std::vector<U64> Regs, int DepthLimit) {
    static std::string s_Loaded;
    if (s_Loaded != sElf) EXPECT_EQ(CElfApi::Instance().Load(QString::fromStdString(kDir + "elf/" + sElf + ".elf")), 0);
    s_Loaded = sElf;
    CCallStack::Instance().Configure(STACK_CORE_FACTS{}, DepthLimit);
    return CCallStack::Instance().Init(&Regs) && CCallStack::Instance().UnwindAll(2000);
  }
  CMapTarget m_Target{&CCallStack::Store()};
};

class CallStackEdges : public CallStackOnMap, public ::testing::WithParamInterface<EDGE> {};

TEST_P(CallStackEdges, StopReasonAndTexts) {
  const EDGE& e = GetParam();
  std::vector<U64> r(16, 0);
  r[15] = *e.sWhere ? GdbAddress(e.sElf, e.sWhere) : 4;
  ASSERT_NE(r[15], 0u) << "no address from gdb";
  r[13] = kSp, r[14] = e.Lr, r[7] = e.R7;
  for (U32 a = kSp; a < kSp + 64; a += 4) m_Target.Ram[a] = 0;
  ASSERT_TRUE(Unwind(e.sElf, r, e.DepthLimit));
  const CCallStack& s = CCallStack::Instance();
  if (e.Frames >= 0) EXPECT_EQ(s.FrameCount(), e.Frames);
  U64 Pc = 0;
  s.GetRegister(s.GetTopFrame(), 15, Pc);
  const QString sPc = QStringLiteral("0x%1").arg(U32(Pc), 8, 16, QLatin1Char('0')).toUpper().replace("0X", "0x");
  if (e.sStop) EXPECT_TRUE(s.GetStopText().startsWith(QString(e.sStop).replace("%1", sPc))) << s.GetStopText().toStdString();
  const CCallFrame F0 = s.GetFrame(0), F1 = s.GetFrame(1);
  EXPECT_EQ(s.FrameFunctionText(F0), e.sFunc0);
  if (e.sReturn0) EXPECT_TRUE(s.FrameReturnText(F0).startsWith(e.sReturn0)) << s.FrameReturnText(F0).toStdString();
  if (e.sFunc1) {
    // The caller of an inlined frame: same SP, a PC before the inlined range.
    EXPECT_EQ(s.FrameFunctionText(F1), e.sFunc1);
    U64 Sp1 = 0, Pc1 = 0;
    s.GetRegister(F1, 13, Sp1), s.GetRegister(F1, 15, Pc1);
    EXPECT_EQ(Sp1, kSp);
    EXPECT_LT(Pc1, r[15]);
    EXPECT_GT(F0.returnAddress, r[15]);
  }
  if (e.R7 > kSp + 100000) EXPECT_TRUE(F0.cfaStatus == 0 && F0.cfa > e.R7 && F0.frameSize == 0);
}

INSTANTIATE_TEST_SUITE_P(Edges, CallStackEdges, ::testing::ValuesIn(kEdges),
                         [](const ::testing::TestParamInfo<EDGE>& i) { return std::string(i.param.sName); });

// Whatever the registers and memory say, an unwind ends with a stop text
// inside the depth limit: random registers over random stack memory, half of
// its words pointing into the code.
TEST_F(CallStackOnMap, RandomRegistersAndMemoryEndInAStopText) {
  std::mt19937 Rng(20261126);
  for (int Round = 0; Round < 300; ++Round) {
    m_Target.Ram.clear();
    for (U32 a = kSp - 0x40; a < kSp + 0x200; a += 4) m_Target.Ram[a] = Rng() & 1 ? Rng() % 0x200 | 1 : kSp + Rng() % 0x200;
    std::vector<U64> r(16);
    for (U64& v : r) v = Rng() & 1 ? kSp + Rng() % 0x100 : Rng() % 0x200;
    r[13] = kSp + (Rng() % 64) * 4;
    r[15] &= ~1ull;
    ASSERT_TRUE(Unwind(Round < 150 ? "unwind-O2" : "inline3", r, 12)) << "round " << Round;
    EXPECT_LE(CCallStack::Instance().FrameCount(), 12);
    EXPECT_TRUE(CCallStack::Instance().GetStopText().startsWith("Top of stack")) << Round;
  }
}

}  // namespace
