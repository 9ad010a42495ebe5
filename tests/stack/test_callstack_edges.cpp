// The unwinder's stop reasons and texts on frames made from chosen register
// values over the committed test programs, with the target's memory as a
// small map: the places come from gdb's breakpoint addresses, the reads are
// answered at once.
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
#include <fstream>
#include <functional>
#include <map>
#include <random>

namespace {

std::string Elf(const char* sName) {
  const char* s = getenv("TAVIT_SOURCE_DIR");
  return std::string(s ? s : ".") + "/firmware/tests/elf/" + sName + ".elf";
}

// gdb's address of a breakpoint spec in a program; for a line that stands
// for several addresses, the first one in function sIn.
U32 GdbAddress(const char* sElf, const std::string& sSpec, const char* sIn = nullptr) {
  const std::string Out = RunGdb(Elf(sElf), {"break " + sSpec, "info breakpoints"});
  const QRegularExpression Re(QStringLiteral(R"(0x([0-9a-f]+) in (\w+))"));
  for (auto It = Re.globalMatch(QString::fromStdString(Out)); It.hasNext();) {
    const auto m = It.next();
    if (!sIn || m.captured(2) == QLatin1String(sIn)) return m.captured(1).toUInt(nullptr, 16);
  }
  return 0;
}

int MarkLine(const char* sFile, const char* sMark) {
  const char* s = getenv("TAVIT_SOURCE_DIR");
  std::ifstream f(std::string(s ? s : ".") + "/firmware/tests/" + sFile);
  std::string l;
  for (int n = 1; std::getline(f, l); ++n)
    if (l.find(sMark) != std::string::npos) return n;
  return 0;
}

// RAM as a word map; the rest of memory from the program image.
class CMapTarget : public CProgramImageAccess {
 public:
  using CProgramImageAccess::CProgramImageAccess;
  std::map<U32, U32> Ram;
  bool IsAccessible() const override { return true; }
  int ReadMemory(U32 Address, U32 Size, const QString& sZone, QByteArray& Out) override {
    if (Address >= 0x20000000 && Address < 0x20100000) {
      if (Size != 4 || !Ram.count(Address)) return TARGET_READ_FAILED;
      const U32 w = Ram.at(Address);
      Out = QByteArray(reinterpret_cast<const char*>(&w), 4);
      return TARGET_READ_OK;
    }
    return CProgramImageAccess::ReadMemory(Address, Size, sZone, Out);
  }
};

constexpr U32 kSp = 0x2000F000;

struct EDGE {
  const char* sName;
  const char* sElf;
  std::function<U32()> Pc;
  int DepthLimit;
  // Registers and RAM beyond PC = Pc() and SP = kSp.
  std::function<void(std::vector<U64>& Regs, std::map<U32, U32>& Ram)> Prepare;
  int Frames;
  const char* sStop;  // %1 stands for the PC of the last frame
  std::function<void(const CCallStack&)> Check;
};

const EDGE kEdges[] = {
    {"NoFrameDescription", "unwind-O0", [] { return 0x4u; }, 50, nullptr, 1,
     "Top of stack - no unwinding symbols at %1",
     [](const CCallStack& s) {
       const CCallFrame F = s.GetFrame(0);
       EXPECT_EQ(s.FrameFunctionText(F), "@ 0x00000004");
       EXPECT_EQ(s.FrameReturnText(F), "<no symbols>");
       EXPECT_TRUE(F.noCfi);
     }},
    {"UndefinedReturnRule", "unwind-O0",
     [] { return GdbAddress("unwind-O0", "unwind.c:" + std::to_string(MarkLine("unwind.c", "unsigned* s = _data_load"))); },
     50, nullptr, 1, "Top of stack - no unwinding symbols at %1",
     [](const CCallStack& s) { EXPECT_EQ(s.FrameFunctionText(s.GetFrame(0)), "Reset_Handler"); }},
    {"ReturnAddressOutsideTheProgram", "unwind-O2", [] { return GdbAddress("unwind-O2", "*Bottom"); }, 50,
     [](std::vector<U64>& r, std::map<U32, U32>&) { r[14] = 0x30000001; }, 1,
     "Top of stack - return address out of range: 0x30000001",
     [](const CCallStack& s) {
       EXPECT_EQ(s.GetFrame(0).raStatus, 1);
       EXPECT_EQ(s.FrameFunctionText(s.GetFrame(0)), "Bottom");
     }},
    {"DepthLimitOne", "unwind-O0", [] { return GdbAddress("unwind-O0", "Recurse"); }, 1,
     [](std::vector<U64>& r, std::map<U32, U32>& Ram) {
       r[7] = kSp;
       for (U32 a = kSp; a < kSp + 64; a += 4) Ram[a] = 0;
     },
     1, "Top of stack - depth limit reached", nullptr},
    {"InlinedFrame", "inline3",
     [] { return GdbAddress("inline3", "inline3.c:" + std::to_string(MarkLine("inline3.c", "/* MIX_LINE */"))); }, 50,
     [](std::vector<U64>& r, std::map<U32, U32>& Ram) {
       r[14] = GdbAddress("inline3", "*main") + 5;
       for (U32 a = kSp; a < kSp + 64; a += 4) Ram[a] = 0;
     },
     -1, nullptr,
     [](const CCallStack& s) {
       ASSERT_GE(s.FrameCount(), 2);
       const CCallFrame F0 = s.GetFrame(0), F1 = s.GetFrame(1);
       EXPECT_EQ(s.FrameFunctionText(F0), "mix");
       EXPECT_EQ(s.FrameFunctionText(F1), "first");
       EXPECT_TRUE(s.FrameReturnText(F0).startsWith("<inline>: 0x")) << s.FrameReturnText(F0).toStdString();
       U64 Sp0 = 0, Sp1 = 1, Pc0 = 0, Pc1 = 0;
       s.GetRegister(F0, 13, Sp0), s.GetRegister(F1, 13, Sp1), s.GetRegister(F0, 15, Pc0), s.GetRegister(F1, 15, Pc1);
       EXPECT_EQ(Sp0, Sp1);
       EXPECT_LT(Pc1, Pc0);
       EXPECT_GT(F0.returnAddress, Pc0);
     }},
    {"FrameSizeAboveTheLimit", "unwind-O0", [] { return GdbAddress("unwind-O0", "Recurse"); }, 50,
     [](std::vector<U64>& r, std::map<U32, U32>&) { r[7] = kSp + 200000; }, -1, nullptr,
     [](const CCallStack& s) {
       const CCallFrame F = s.GetFrame(0);
       EXPECT_EQ(F.cfaStatus, 0);
       EXPECT_GT(F.cfa, U64(kSp) + 100000);
       EXPECT_EQ(F.frameSize, 0u);
       EXPECT_TRUE(s.GetStopText().contains("return address location out of range")) << s.GetStopText().toStdString();
     }},
};

// The call stack over a map target, reads answered at once.
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
  CMapTarget m_Target{&CCallStack::Store()};
};

class CallStackEdges : public CallStackOnMap, public ::testing::WithParamInterface<EDGE> {
 protected:
  void SetUp() override {
    CallStackOnMap::SetUp();
    if (IsSkipped()) return;
    ASSERT_EQ(CElfApi::Instance().Load(QString::fromStdString(Elf(GetParam().sElf))), 0);
  }
};

TEST_P(CallStackEdges, StopReasonAndTexts) {
  const EDGE& e = GetParam();
  CCallStack& s = CCallStack::Instance();
  s.Configure(STACK_CORE_FACTS{}, e.DepthLimit);
  std::vector<U64> Regs(16, 0);
  Regs[15] = e.Pc();
  ASSERT_NE(Regs[15], 0u) << "no address from gdb";
  Regs[13] = kSp;
  if (e.Prepare) e.Prepare(Regs, m_Target.Ram);
  ASSERT_TRUE(s.Init(&Regs));
  s.Unwind();
  ASSERT_TRUE(s.UnwindToEnd(2000));
  if (e.Frames >= 0) EXPECT_EQ(s.FrameCount(), e.Frames);
  if (e.sStop) {
    U64 Pc = 0;
    s.GetRegister(s.GetTopFrame(), 15, Pc);
    EXPECT_EQ(s.GetStopText(), QString(e.sStop).replace("%1", QStringLiteral("0x%1").arg(U32(Pc), 8, 16, QLatin1Char('0')).toUpper().replace("0X", "0x")));
  }
  if (e.Check) e.Check(s);
}

// Whatever the registers and memory say, an unwind ends with a stop text
// and stays inside the depth limit: random register sets over random stack
// memory, half of its words pointing into the code.
TEST_F(CallStackOnMap, RandomRegistersAndMemoryEndInAStopText) {
  ASSERT_EQ(CElfApi::Instance().Load(QString::fromStdString(Elf("unwind-O2"))), 0);
  CCallStack& s = CCallStack::Instance();
  s.Configure(STACK_CORE_FACTS{}, 12);
  std::mt19937 Rng(20261126);
  const U32 CodeEnd = 0x200;
  for (int Round = 0; Round < 300; ++Round) {
    m_Target.Ram.clear();
    for (U32 a = kSp - 0x40; a < kSp + 0x200; a += 4) m_Target.Ram[a] = Rng() & 1 ? Rng() % CodeEnd | 1 : kSp + Rng() % 0x200;
    std::vector<U64> Regs(16);
    for (U64& r : Regs) r = Rng() & 1 ? kSp + Rng() % 0x100 : Rng() % CodeEnd;
    Regs[13] = kSp + (Rng() % 64) * 4;
    Regs[15] = (Rng() % CodeEnd) & ~1u;
    ASSERT_TRUE(s.Init(&Regs));
    s.Unwind();
    ASSERT_TRUE(s.UnwindToEnd(2000)) << "round " << Round;
    EXPECT_LE(s.FrameCount(), 12);
    EXPECT_TRUE(s.GetStopText().startsWith("Top of stack")) << Round;
  }
}

INSTANTIATE_TEST_SUITE_P(Edges, CallStackEdges, ::testing::ValuesIn(kEdges),
                         [](const ::testing::TestParamInfo<EDGE>& i) { return std::string(i.param.sName); });

}  // namespace
