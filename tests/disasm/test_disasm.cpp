// The instruction analysis over the ARM plug-in and the committed firmware,
// against the cross objdump's disassembly of the same files.
#include "disasm/instcache.h"
#include "disasm/instinstall.h"
#include "elf/dwarf/insn_analysis.h"
#include "elf/dwarf/target_access.h"
#include "elf/elfapi.h"
#include "log/log.h"
#include "log/logcapture.h"
#include "plugins/corehost.h"
#include "testsupport/coreproject.h"
#include "testsupport/corpus.h"
#include "testsupport/objdump_oracle.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>
#include <gtest/gtest.h>

#include <iterator>
#include <random>
#include <vector>

namespace {

// A hex number that starts an objdump operand ("8124 <main+0x4>"); 0 if none.
U64 OperandTarget(const std::string& s) {
  if (s.find('<') == std::string::npos) return 0;
  return std::strtoull(s.c_str(), nullptr, 16);
}

class Disasm : public ::testing::TestWithParam<std::string> {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QCoreApplication>();
    static CNoCoreProject s_Project;
    CORE_SetProject(&s_Project);
    DisasmModule::Install();
  }
  void SetUp() override {
    Path = CorpusPath(GetParam());
    Insts = objdump::Disassemble(Path, &Data);
    ASSERT_FALSE(Insts.empty()) << Path;
    ASSERT_EQ(CElfApi::Instance().Load(QString::fromStdString(Path)), 0);
    ASSERT_GE(LoadCorePlugin(0x0E0000FF), 0);
    DisasmModule::Sync(true);
  }
  void TearDown() override {
    UnloadCorePlugin();
    CElfApi::Instance().Close();
    DisasmModule::Sync(true);
  }
  std::string Path;
  std::map<uint32_t, objdump::Inst> Insts, Data;
};

// Starts, sizes, neighbours and branch targets of every instruction, and
// the data words between functions.
TEST_P(Disasm, EveryInstructionAndDataWordAsObjdumpSeesThem) {
  ASSERT_EQ(ELF_GetTargetAccess().GetInstructionAnalysis() != nullptr, true) << "installed with program and plug-in";
  int Calls = 0, Branches = 0;
  for (auto It = Insts.begin(); It != Insts.end(); ++It) {
    const auto& [a, i] = *It;
    SCOPED_TRACE(testing::Message() << std::hex << a << " " << i.Mnemonic << " " << i.Operands);
    ASSERT_TRUE(IsInstruction(a));
    ASSERT_EQ(GetInstSize(a), i.Size);
    ASSERT_EQ(GetItemLen(a), i.Size);
    for (U32 k = 2; k < i.Size; k += 2) ASSERT_FALSE(IsInstruction(a + k)) << "inside an instruction";
    auto Next = std::next(It);
    if (Next != Insts.end() && Next->first == a + i.Size) {
      U64 p = 0, n = 0;
      ASSERT_EQ(GetNextInst(a, &n), 0);
      ASSERT_EQ(n, Next->first);
      ASSERT_EQ(GetPrevInst(Next->first, &p), 0);
      ASSERT_EQ(p, a);
    }
    const std::string m = i.Mnemonic.substr(0, i.Mnemonic.find('.'));
    const U64 Want = OperandTarget(i.Operands);
    U64 Got = 0;
    if ((m == "bl" || m == "b" || m == "cbz" || m == "cbnz") && Want) {
      ASSERT_EQ(GetBranchTarget(a, &Got), 0);
      ASSERT_EQ(Got, Want);
      ASSERT_EQ(IsCallInst(a), m == "bl");
      ASSERT_TRUE(IsKnownBranchTarget(U32(Want)));
      ++(m == "bl" ? Calls : Branches);
    }
    if (m == "bx" || (m == "pop" && i.Operands.find("pc") != std::string::npos)) EXPECT_FALSE(IsStraightCode(a, a + i.Size)) << "leaves";
  }
  EXPECT_GT(Calls + Branches, 0);
  IInstructionAnalysis& An = *ELF_GetTargetAccess().GetInstructionAnalysis();
  for (const auto& [a, d] : Data) {
    SCOPED_TRACE(testing::Message() << std::hex << a << " " << d.Mnemonic);
    EXPECT_FALSE(IsInstruction(a));
    EXPECT_FALSE(An.IsInstructionStart(a));
    EXPECT_EQ(An.GetKind(a), 1);
    const U32 n = GetDataItemLen(a);
    EXPECT_TRUE(n >= 1 && n <= 4) << n;
  }
}

// Counts and lists of whole functions: objdump's instruction count, the
// second count from the hash, the listed addresses in objdump's order.
TEST_P(Disasm, CountsAndListsOfFunctions) {
  const U64 Lo = Insts.begin()->first, Hi = std::prev(Insts.end())->first + std::prev(Insts.end())->second.Size;
  int Want = 0;
  std::vector<U64> WantList;
  for (auto It = Data.begin(), Jt = Insts.begin(); Jt != Insts.end() || It != Data.end();) {
    const bool TakeInst = It == Data.end() || (Jt != Insts.end() && Jt->first < It->first);
    if (TakeInst) ++Want;
    WantList.push_back(TakeInst ? (Jt++)->first : (It++)->first);
  }
  // Objdump leaves out runs of zero padding ("..."), which decode as movs r0, r0.
  for (U64 a = Lo; a < Hi; a += 2)
    if (const U8* p = CElfApi::Instance().GetProgramData(U32(a), 2);
        p && !p[0] && !p[1] && IsInstruction(a) && !Insts.count(U32(a)) && !Data.count(U32(a)))
      ++Want;
  const int Hits = CORE_NumCountHits();
  EXPECT_EQ(CountInsts(Lo, Hi), Want);
  EXPECT_EQ(CountInsts(Lo, Hi), Want);
  EXPECT_EQ(CORE_NumCountHits(), Hits + 1);
  const CORE_ADDR_RANGE Halves[2] = {{Lo, (Lo + Hi) / 2 & ~1ull}, {(Lo + Hi) / 2 & ~1ull, Hi}};
  EXPECT_EQ(CountInstsMulti(2, Halves), Want);
  std::vector<U64> Got((Hi - Lo) / 2 + 1);
  const int n = ListInsts(Lo, Hi, int(Got.size()), Got.data());
  Got.resize(std::max(n, 0));
  // Objdump prints long literal pools as words; the walk may take shorter items.
  std::vector<U64> InstsOnly;
  for (U64 a : Got)
    if (Insts.count(U32(a))) InstsOnly.push_back(a);
  EXPECT_EQ(InstsOnly.size(), Insts.size());
  EXPECT_EQ(AnalyzeRanges(2, Halves), 2);
  const char* s = GetCachedInstText(Insts.begin()->first);
  EXPECT_NE(std::string(s).find(Insts.begin()->second.Mnemonic), std::string::npos) << s;
}

INSTANTIATE_TEST_SUITE_P(Corpus, Disasm, ::testing::Values("app-dwarf4-O0.elf", "app-dwarf4-O2.elf", "newlib-dwarf5-O2.elf"),
                         CorpusParamName);

// Safe start, the walk at a gap, the limits and the fall-back without a plug-in.
TEST(DisasmEdges, SafeStartLimitsAndFallback) {
  NewTestApp<QCoreApplication>();
  static CNoCoreProject s_Project;
  CORE_SetProject(&s_Project);
  DisasmModule::Install();
  const std::string Path = CorpusPath("app-dwarf4-O0.elf");
  ASSERT_EQ(CElfApi::Instance().Load(QString::fromStdString(Path)), 0);
  ASSERT_GE(LoadCorePlugin(0x0E0000FF), 0);  // the loaded signal fills the cache
  const auto Insts = objdump::Disassemble(Path);
  const U32 Main = U32(CElfApi::Instance().GetEntryPointPC());
  U8 Safe = 9;
  const auto In = std::next(Insts.upper_bound(Main));
  ASSERT_NE(In, Insts.end());
  EXPECT_LE(GetSafeDisasmStart(In->first, &Safe), In->first);
  EXPECT_GE(GetSafeDisasmStart(In->first, &Safe), Main);
  EXPECT_EQ(Safe, 1);
  EXPECT_EQ(GetSafeDisasmStart(0xF0000000u, &Safe), 0xF0000000u) << "no symbol";
  EXPECT_EQ(Safe, 0);
  {
    CLogCapture Cap(MSG_INFO);
    EXPECT_EQ(CountInsts(0, 100000000), 0);
    EXPECT_EQ(ListInsts(0, 100000000, 0, nullptr), -1);
    EXPECT_EQ(ListInsts(8, 8, 0, nullptr), -1);
    EXPECT_EQ(Core::AnalyzeAdd(8, 8, nullptr), 0u);
    EXPECT_EQ(Core::AnalyzeAdd(0xFFFFFFFFull, 0x100000004ull, reinterpret_cast<const U8*>("")), 0u);
    EXPECT_EQ(Cap.Texts(), (QStringList{"Size of function @ 0x00000000 exceeds limit for instruction count analysis",
                                        "Size of function @ 0x00000000 exceeds limit for disassembly analysis",
                                        "Invalid address range input to function Core::AnalyzeAdd",
                                        "Cannot add to instruction cache outside 32-bit address range"}));
  }
  EXPECT_EQ(GetInstTextAndLen(0xF0000000u), 2u) << "a gap moves on by the shortest instruction";
  // Random addresses, the ends of the address space included: answers stay
  // in their bounds and every walk moves on.
  std::mt19937 Rng(7);
  char Buf[128];
  for (int n = 0; n < 20000; ++n) {
    const U64 a = n < 4 ? (n < 2 ? U64(n) * 2 : 0xFFFFFFFEull - (n - 2) * 2) : Rng() & ~1u;
    U64 x = 0;
    ASSERT_TRUE(!IsInstruction(a) || GetInstSize(a) == 2 || GetInstSize(a) == 4) << a;
    ASSERT_LE(GetDataItemLen(a), 4u);
    ASSERT_GE(GetItemLen(a), 2u);
    ASSERT_LE(ClipItemLen(a, 4), 4u);
    ASSERT_LE(GetItemDisplayText(a, Buf, sizeof(Buf)), 4);
    ASSERT_TRUE(GetPrevInst(a, &x) != 0 || (x < a && a - x <= 4));
    ASSERT_TRUE(GetNextInst(a, &x) != 0 || (x > a && x - a <= 4));
    ASSERT_LE(CountInsts(a, a + 64), 32);
  }
  EXPECT_GT(CORE_NumCachePages(), 0);
  EXPECT_EQ(UnloadCorePlugin(), 0);
  EXPECT_EQ(CORE_NumCachePages(), 0);
  EXPECT_EQ(ELF_GetTargetAccess().GetInstructionAnalysis(), nullptr) << "the walks answer empty again";
  EXPECT_FALSE(IsInstruction(Main));
  EXPECT_EQ(GetInstSize(Main), 0u);
  CElfApi::Instance().Close();
  DisasmModule::Sync();
}

}  // namespace
