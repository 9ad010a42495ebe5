// Locals of real frames against the debugger of the cross tool chain: the
// committed test program (firmware/tests, built at -O0 and -O2) runs on the
// emulator's MPS2 machine to a breakpoint inside Leaf, and gdb prints
// registers, RAM and the values of locals in frame 0 (Leaf) and frame 1
// (Middle). Frame 0 is made from gdb's registers, frame 1 by the unwinder
// over gdb's RAM dump; every local is then evaluated by name and compared
// with gdb's value.
#include <gtest/gtest.h>

#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/location.h"
#include "elf/elfapi.h"
#include "elf/symbol/symbol.h"
#include "expr/evaluator.h"
#include "expr/expression.h"
#include "log/log.h"
#include "stack/callstack.h"
#include "testsupport/gdb_frames.h"
#include "testsupport/tools.h"

#include <unistd.h>

#include <QString>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>

namespace {

std::string SourceDir() {
  const char* s = getenv("TAVIT_SOURCE_DIR");
  return s ? s : ".";
}
std::string TmpDir() {
  const char* s = getenv("TAVIT_TEST_TMP");
  const std::string d = s ? s : "/tmp/tavit-stack-frames";
  RunToolOutput("mkdir -p " + d);
  return d;
}
bool HaveTool(const std::string& sName) { return !RunToolOutput("command -v " + sName).empty(); }

const char* const kRam = "0x20000000";
const U32 kRamStart = 0x20000000, kRamSize = 0x10000;

// What gdb saw at the second stop in Leaf (p points at Middle's local).
struct GDB_STOP {
  std::map<std::string, U64> registers;     // r0..r12, sp, lr, pc
  std::map<std::string, std::string> leaf;  // expression -> gdb's print/x text
  std::map<std::string, std::string> middle;
  std::map<std::string, std::string> other; // file-scope names from frames_other.c
  std::vector<U8> ram;
  std::vector<std::string> scope;           // "info scope" at the stop
};

const std::vector<std::string> kLeafExprs = {"x", "y", "p", "shade", "big", "arr[0]", "arr[1]", "arr[2]", "arr[3]",
                                             "p->a", "p->b", "twin", "g_pair.a"};
const std::vector<std::string> kMiddleExprs = {"n", "i", "total", "local.a", "local.b"};

// The committed build of the test program (firmware/tests/build.sh).
std::string ProgramPath(const std::string& sOpt) {
  return SourceDir() + "/firmware/tests/elf/frames-" + sOpt + ".elf";
}

bool RunGdb(const std::string& sElf, const std::string& sScratch, GDB_STOP& Stop) {
  const std::string Ram = sScratch + ".ram";
  std::ostringstream Cmds;
  Cmds << "break " << testsupport::MarkedLine(SourceDir(), "frames_main.c", "STOP_IN_LEAF") << "\ncontinue\ncontinue\n"
       << "echo @@REGS\\n\ninfo registers\n"
       << "echo @@SCOPE\\n\ninfo scope *$pc\n"
       << "dump binary memory " << Ram << " " << kRam << " " << kRamStart + kRamSize << "\n";
  for (const std::string& e : kLeafExprs) Cmds << "echo @@LEAF " << e << "\\n\nprint/x " << e << "\n";
  Cmds << "up\n";
  for (const std::string& e : kMiddleExprs) Cmds << "echo @@MIDDLE " << e << "\\n\nprint/x " << e << "\n";
  Cmds << "echo @@OTHER twin\\n\nprint/x 'frames_other.c'::twin\n";
  Cmds << "echo @@OTHER shade\\n\nprint/x 'frames_main.c'::shade\n";
  const std::string Out = testsupport::RunGdbOnQemu(sElf, Cmds.str(), sScratch);
  std::string Section, Name;
  static const std::regex Reg(R"(^(r\d+|sp|lr|pc)\s+0x([0-9a-f]+)\s.*)");
  static const std::regex Value(R"(^\$\d+ = (.*)$)");
  for (const std::string& Line : SplitLines(Out)) {
    std::smatch m;
    if (Line.rfind("@@", 0) == 0) {
      const size_t Blank = Line.find(' ');
      Section = Line.substr(2, Blank == std::string::npos ? std::string::npos : Blank - 2);
      Name = Blank == std::string::npos ? "" : Line.substr(Blank + 1);
    } else if (Section == "SCOPE") {
      Stop.scope.push_back(Line);
    } else if (Section == "REGS" && std::regex_match(Line, m, Reg)) {
      Stop.registers[m[1]] = std::stoull(m[2], nullptr, 16);
    } else if (std::regex_match(Line, m, Value)) {
      if (Section == "LEAF") Stop.leaf[Name] = m[1];
      if (Section == "MIDDLE") Stop.middle[Name] = m[1];
      if (Section == "OTHER") Stop.other[Name] = m[1];
    }
  }
  std::ifstream r(Ram, std::ios::binary);
  Stop.ram.assign(std::istreambuf_iterator<char>(r), std::istreambuf_iterator<char>());
  return Stop.registers.size() == 16 && Stop.ram.size() == kRamSize;
}

// Target memory as gdb dumped it: RAM from the dump, the rest from the image.
class CDumpedTarget : public CProgramImageAccess {
public:
  using CProgramImageAccess::CProgramImageAccess;
  std::vector<U8> ram;
  bool IsAccessible() const override { return true; }
  int ReadMemory(U32 Address, U32 Size, const QString& sZone, QByteArray& Out) override {
    if (Address >= kRamStart && (U64)Address + Size <= (U64)kRamStart + ram.size()) {
      Out = QByteArray((const char*)&ram[Address - kRamStart], (int)Size);
      return TARGET_READ_OK;
    }
    return CProgramImageAccess::ReadMemory(Address, Size, sZone, Out);
  }
};

class Frames : public ::testing::TestWithParam<const char*> {
protected:
  void SetUp() override {
    if (!HaveTool("qemu-system-arm") || !HaveTool("gdb-multiarch")) GTEST_SKIP() << "emulator or gdb missing";
    m_sElf = ProgramPath(GetParam());
    ASSERT_EQ(access(m_sElf.c_str(), R_OK), 0) << m_sElf;
    ASSERT_TRUE(RunGdb(m_sElf, TmpDir() + "/frames-" + GetParam(), m_Stop)) << "gdb gave no stop";
    DWARF_Install();
    ASSERT_EQ(CElfApi::Instance().Load(QString::fromStdString(m_sElf)), 0);
    m_Target.ram = m_Stop.ram;
    CCallStack::Instance().Configure(STACK_CORE_FACTS{}, 50);
    ELF_SetTargetAccess(&m_Target);
    CCallStack::SetReader([](const ELF_SYM_LOC& Loc, U32) {
      U32 w = 0;
      const bool Ok = ELF_ReadTargetWord(Loc.parts[0].address, &w) == 0;
      CCallStack::Instance().CompleteRead(Loc, Ok, w);
    });
    Init(m_Stop.registers["pc"]);
    ASSERT_TRUE(CCallStack::Instance().UnwindAll(2000));
    m_Frame0 = CCallStack::Instance().GetFrame(0);
    SYM_SetCurrentPc((U32)m_Stop.registers["pc"]);
  }
  // Frame 0 of the public stack from gdb's registers with another PC.
  void Init(U64 Pc) {
    std::vector<U64> Values(16);
    for (int r = 0; r < 13; ++r) Values[r] = m_Stop.registers["r" + std::to_string(r)];
    Values[13] = m_Stop.registers["sp"];
    Values[14] = m_Stop.registers["lr"];
    Values[15] = Pc;
    ASSERT_TRUE(CCallStack::Instance().Init(&Values));
  }
  void TearDown() override {
    CCallStack::SetReader(nullptr);
    ELF_SetTargetAccess(nullptr);
    SYM_SetCurrentPc(0xFFFFFFFFu);
  }
  // Evaluates each expression and compares with gdb's hex text. Returns how
  // many were compared.
  int Compare(const std::map<std::string, std::string>& Gdb) {
    int n = 0;
    for (const auto& [Expr, Text] : Gdb) {
      CExpression e(QString::fromStdString(Expr));
      const int r = Evaluate(e);
      if (Text.find("optimized out") != std::string::npos) continue;
      const size_t Hex = Text.find("0x");
      if (Hex == std::string::npos) continue;
      const U64 Want = std::stoull(Text.substr(Hex + 2), nullptr, 16);
      EXPECT_GT(r, 0) << Expr << ": " << e.GetError().toStdString();
      if (r <= 0) continue;
      CSymbol& s = *GetResult(e);
      U64 Got = s.ReadUnsigned(nullptr, true);
      if (s.byteSize < 8) Got &= (1ull << (8 * s.byteSize)) - 1;
      EXPECT_EQ(Got, Want) << GetParam() << " " << Expr << " at " << s.GetLocationText().toStdString();
      ++n;
    }
    return n;
  }
  std::string m_sElf;
  GDB_STOP m_Stop;
  CFrameStore& m_Store = CCallStack::Store();
  CDumpedTarget m_Target{&m_Store};
  CCallFrame m_Frame0;
};

TEST_P(Frames, LocalsOfTheInnermostFrameMatchGdb) {
  EXPECT_EQ(m_Frame0.cfaStatus, 0);
  EXPECT_EQ(m_Frame0.raStatus, 0);
  EXPECT_EQ(m_Frame0.function, SYM_GetFunctionAt((U32)m_Stop.registers["pc"]));
  // x, y, p, shade (not the global), arr[], members through p, and the static
  // twin of this file rather than the one of frames_other.c.
  int Available = 0;
  for (const auto& [Expr, Text] : m_Stop.leaf) Available += Text.find("optimized out") == std::string::npos;
  EXPECT_GE(Available, 12);  // at -O2 the static twin of this file lives on as a constant only
  EXPECT_EQ(Compare(m_Stop.leaf), Available);
  CExpression Local("shade");
  ASSERT_GT(Evaluate(Local), 0);
  EXPECT_EQ(GetResult(Local)->GetFrameIndex(), 0);
  EXPECT_EQ(GetResult(Local)->GetScopeCode(), 'l');
  // arr lies at the frame base in both builds: without a known BP it has no
  // address, and the log says why.
  const QString sLog = QString::fromStdString(TmpDir()) + "/unsure-bp.log";
  SetLogFile(LOG_FILE_APP, sLog);
  CSymbol Arr(FindSymbols("arr", false, true, false, false, true).value(0), -1, 0);
  CCallFrame NoBp = m_Frame0;
  NoBp.bpStatus = 1;
  const SYM_LOC l = Arr.GetLocation(NoBp);
  EXPECT_FALSE(l.IsResolved());
  EXPECT_TRUE(Arr.GetLocation(m_Frame0).IsResolved());
  LogFlush();
  SetLogFile(LOG_FILE_APP, QString());
  std::ifstream f(sLog.toStdString());
  const std::string Text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  EXPECT_NE(Text.find("Data location of local symbol arr depends on unsure frame base pointer"), std::string::npos);
}

// The register in which gdb sees each symbol at the PC, -1 for none, from
// "info scope": a plain "a variable in $rN" or the range of a location list
// that holds the PC.
std::map<std::string, int> InRegister(const std::vector<std::string>& Scope, U64 Pc) {
  std::map<std::string, int> Out;
  static const std::regex Sym(R"(^Symbol (\w+) is (.*)$)");
  static const std::regex Range(R"(^\s+Range 0x([0-9a-f]+)-0x([0-9a-f]+): (.*)$)");
  static const std::regex Reg(R"(^a variable in \$r(\d+)(.*)$)");
  auto RegisterOf = [](const std::string& s) {
    std::smatch m;
    if (!std::regex_match(s, m, Reg)) return -1;
    return m[2].str().find("piece") == std::string::npos ? std::stoi(m[1]) : -2;  // -2: pieces of registers
  };
  std::string Name;
  for (const std::string& Line : Scope) {
    std::smatch m;
    if (std::regex_match(Line, m, Sym)) {
      Name = m[1];
      Out[Name] = RegisterOf(m[2]);
    } else if (!Name.empty() && std::regex_match(Line, m, Range)) {
      if (std::stoull(m[1], nullptr, 16) <= Pc && Pc < std::stoull(m[2], nullptr, 16)) Out[Name] = RegisterOf(m[3]);
    }
  }
  return Out;
}

TEST_P(Frames, RegisterLocalsMarkTheExpression) {
  const std::map<std::string, int> Gdb = InRegister(m_Stop.scope, m_Stop.registers["pc"]);
  ASSERT_TRUE(Gdb.count("x") && Gdb.count("shade") && Gdb.count("arr"));
  int Registers = 0;
  for (const auto& [Name, Reg] : Gdb) {
    CExpression e(QString::fromStdString(Name));
    if (Evaluate(e) <= 0) continue;  // optimised out
    EXPECT_EQ(e.usesRegister != 0, Reg != -1) << GetParam() << " " << Name;
    if (Reg >= 0) EXPECT_EQ(GetResult(e)->GetLocationText(), QString("R%1").arg(Reg)) << Name;
    Registers += Reg != -1;
  }
  // -O0 keeps every local in the frame; -O2 holds some in registers.
  EXPECT_EQ(Registers > 0, std::string(GetParam()) == "O2");
  // A member path through a register-held pointer counts as well.
  CExpression m("p->a");
  ASSERT_GT(Evaluate(m), 0);
  EXPECT_EQ(m.usesRegister != 0, Gdb.at("p") >= 0);
}

TEST_P(Frames, LocalOutsideItsRangeGivesWayToTheGlobal) {
  // At -O2 the local shade has no location at the entry of Leaf: there the
  // global of that name is meant.
  if (std::string(GetParam()) != "O2") GTEST_SKIP() << "-O0 keeps shade in the frame";
  int Kind;
  const CAddrRange Leaf = ResolveToAddress("Leaf", Kind);
  ASSERT_EQ(Kind, 2);
  Init(Leaf.start);
  SYM_SetCurrentPc(Leaf.start);
  CExpression e("shade");
  ASSERT_GT(Evaluate(e), 0);
  const std::string Want = m_Stop.other.at("shade");
  EXPECT_EQ(GetResult(e)->ReadUnsigned(), std::stoull(Want.substr(Want.find("0x") + 2), nullptr, 16));
  EXPECT_EQ(GetResult(e)->GetScopeCode(), 'g') << GetResult(e)->GetLocationText().toStdString();
}

TEST_P(Frames, CallerFrameByTheRulesMatchesGdb) {
  CCallStack& s = CCallStack::Instance();
  ASSERT_GE(s.FrameCount(), 2) << s.GetStopText().toStdString();
  const CCallFrame F1 = s.GetFrame(1);
  EXPECT_EQ(std::string(ELF_GetName(F1.function)), "Middle");
  U64 Sp = 0;
  ASSERT_TRUE(m_Store.GetRegister(0, 1, 13, Sp));
  // Select the caller: its locals are then those of the current context.
  m_Store.SetSelectedFrame(1);
  U64 Pc = 0;
  ASSERT_TRUE(m_Store.GetRegister(0, 1, 15, Pc));
  SYM_SetCurrentPc((U32)Pc);
  EXPECT_EQ(Compare(m_Stop.middle), (int)kMiddleExprs.size());
  CExpression n("n");
  ASSERT_GT(Evaluate(n), 0);
  EXPECT_EQ(GetResult(n)->GetFrameIndex(), 1);
}

TEST_P(Frames, NamesOfAnotherFileWinInThatFile) {
  // With the PC in OtherTwin, twin is the static of frames_other.c and shade
  // the global, as gdb reads them by file.
  int Kind;
  const CAddrRange Other = ResolveToAddress("OtherTwin", Kind);
  ASSERT_EQ(Kind, 2);
  SYM_SetCurrentPc(Other.start);
  EXPECT_EQ(Compare(m_Stop.other), 2);
  // Both twins stay reachable by their file names (at -O2 the one of
  // frames_main.c is a constant without storage, which the scope operator
  // doesn't find).
  CExpression a("frames_main.c::twin"), b("frames_other.c::twin");
  ASSERT_GT(Evaluate(b), 0);
  if (std::string(GetParam()) == "O0") {
    ASSERT_GT(Evaluate(a), 0);
    EXPECT_NE(GetResult(a)->GetAddress(), GetResult(b)->GetAddress());
  }
}

INSTANTIATE_TEST_SUITE_P(Opt, Frames, ::testing::Values("O0", "O2"));

}  // namespace
