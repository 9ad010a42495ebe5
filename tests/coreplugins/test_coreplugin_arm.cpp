// The ARM core plug-in through its binary contract: a host loads the built
// library by its four exports, serves memory from real ELF files and registers
// from an array (the probe's register operations are exported by this test
// program), and checks the results against objdump and readelf.
#include "inst_normalize.h"
#include "plugin_host.h"
#include "testsupport/objdump_oracle.h"
#include "testsupport/readelf_oracle.h"
#include "testsupport/tools.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

namespace fs = std::filesystem;

// ---- the probe's register operations, as the plug-in finds them --------------
static U64 g_aRegs[64];
static bool g_RegsFail = false;
extern "C" __attribute__((visibility("default"))) int VORDENARM_ReadRegs(const U32* paIdx, U64* paData, U8* paStatus,
                                                                        U32 Num) {
  if (g_RegsFail) return -1;
  for (U32 i = 0; i < Num; ++i) {
    bool Ok = paIdx[i] < 56;
    paData[i] = Ok ? g_aRegs[paIdx[i]] : 0;
    paStatus[i] = Ok ? 0 : 1;
  }
  return 0;
}
extern "C" __attribute__((visibility("default"))) int VORDENARM_WriteReg(U32 Idx, U64 Data) {
  if (g_RegsFail || Idx >= 56) return -1;
  g_aRegs[Idx] = Data;
  return 0;
}

namespace {

LoadedPlugin& Plugin() {
  static LoadedPlugin P;
  static bool Done = false;
  if (!Done) {
    Done = true;
    P.Load(LoadedPlugin::DefaultPath());
  }
  return P;
}

// ELF files to check: every program of the firmware tree, the Thumb-2 forms
// files of firmware/tests among them.
std::vector<std::string> OracleFiles() {
  std::vector<std::string> v;
  const char* src = std::getenv("TAVIT_SOURCE_DIR");
  std::string Root = src ? src : ".";
  std::error_code ec;
  if (fs::is_directory(Root + "/firmware", ec))
    for (auto& e : fs::recursive_directory_iterator(Root + "/firmware", ec))
      if (e.is_regular_file() && e.path().extension() == ".elf") v.push_back(e.path().string());
  std::sort(v.begin(), v.end());
  return v;
}

U64 HexAfter(const std::string& s, size_t Pos) {
  while (Pos < s.size() && !std::isxdigit((unsigned char)s[Pos])) ++Pos;
  return std::strtoull(s.c_str() + Pos, nullptr, 16);
}

struct Expected {
  bool Ctrl = false, Call = false, Ret = false, Cond = false, Direct = false, Literal = false, Break = false, Nop = false;
  U64 Target = 0;
  bool HasAdr = false;
  U64 AdrTarget = 0;
};

// Flags that objdump's listing implies, derived from its text alone.
// The register and target of an ADR in objdump's listing ("add rN, pc, #n
// @ (adr rN, ADDR ...)", "addw/subw rN, pc, #n"); register -1 if it is none.
std::pair<int, U64> AdrOf(const objdump::Inst& I) {
  std::string m = StripWidth(Lower(I.Mnemonic)), o = Lower(I.Operands);
  static const std::regex R(R"(^r(\d+), pc, #(\d+)$)");
  std::smatch sm;
  if (!std::regex_match(o, sm, R)) return {-1, 0};
  U64 Pc = (I.Addr + 4) & ~3ull, Imm = std::stoull(sm[2].str());
  if (m == "add" && I.Comment.find("(adr") != std::string::npos)
    return {std::stoi(sm[1].str()), HexAfter(I.Comment, I.Comment.rfind(", ") + 2)};
  if (m == "addw") return {std::stoi(sm[1].str()), U32(Pc + Imm)};
  if (m == "subw") return {std::stoi(sm[1].str()), U32(Pc - Imm)};
  return {-1, 0};
}

Expected ExpectFromObjdump(const objdump::Inst& I, bool InIT, const std::vector<objdump::Inst>& Recent) {
  Expected E;
  std::string m = StripWidth(Lower(I.Mnemonic));
  std::string o = Lower(I.Operands);
  static const std::regex Cc(R"(^(.*?)(eq|ne|cs|cc|hs|lo|mi|pl|vs|vc|hi|ls|ge|lt|gt|le)$)");
  std::string Base = m;
  std::smatch cm;
  // Only instructions inside an IT block, and conditional branches, carry a condition.
  if (InIT && std::regex_match(m, cm, Cc)) Base = cm[1].str();
  bool CondBranch = false;
  if (!InIT && m.size() > 1 && m[0] == 'b' && std::regex_match(m, cm, Cc) && (cm[1].str() == "b")) {
    Base = "b";
    CondBranch = true;
  }
  E.Cond = InIT || CondBranch || Base == "cbz" || Base == "cbnz";
  bool PcDest = o.rfind("pc,", 0) == 0 || o == "pc";
  bool PcInList = o.find("pc}") != std::string::npos;
  if (Base == "b" || Base == "bl" || Base == "cbz" || Base == "cbnz") {
    E.Ctrl = E.Direct = true;
    size_t c = o.rfind(", ");
    E.Target = HexAfter(o, c == std::string::npos ? 0 : c + 2);
  }
  if (Base == "bl" || Base == "blx") E.Call = E.Ctrl = true;
  if (Base == "bx") { E.Ctrl = true; E.Ret = o == "lr"; }
  if (Base == "tbb" || Base == "tbh") E.Ctrl = true;
  if ((Base == "pop" || Base.rfind("ldm", 0) == 0) && PcInList) {
    E.Ctrl = true;
    E.Ret = Base == "pop" || o.rfind("sp!", 0) == 0;
  }
  if ((Base == "ldr" || Base == "mov" || Base == "add") && PcDest) {
    E.Ctrl = true;
    E.Ret = (Base == "mov" && o == "pc, lr") || (Base == "ldr" && o.find("[sp], #") != std::string::npos);
  }
  if (o.find("[pc") != std::string::npos && Base != "tbb" && Base != "tbh" && Base != "pld" && Base != "pli") {
    E.Literal = true;
    size_t p = I.Comment.find_first_of("0123456789abcdef", 1);
    if (I.Comment.find('(') != std::string::npos) p = I.Comment.find('(') + 1;
    E.Target = HexAfter(I.Comment, p);
  }
  if (Base == "add" && o.find(", pc, #") != std::string::npos && I.Comment.find("(adr") != std::string::npos) {
    E.HasAdr = true;
    size_t c = I.Comment.rfind(", ");
    E.AdrTarget = HexAfter(I.Comment, c + 2);
  }
  if ((Base == "addw" || Base == "subw") && o.find(", pc, #") != std::string::npos) {
    E.HasAdr = true;
    U64 Imm = std::strtoull(o.c_str() + o.find('#') + 1, nullptr, 0);
    U64 Pc = (I.Addr + 4) & ~3ull;
    E.AdrTarget = U32(Base == "addw" ? Pc + Imm : Pc - Imm);
  }
  // A load from a register that an ADR set in the 8 bytes before reads a
  // moved literal, unless something in between changed the register.
  static const std::regex BaseLoad(R"(\[r(\d+)(?:, #(-?\d+))?\]$)");
  std::smatch bm;
  bool IsLoad = Base == "ldr" || Base == "ldrb" || Base == "ldrh" || Base == "ldrsb" || Base == "ldrsh" ||
                Base == "ldrd" || Base == "vldr";
  if (!E.Literal && IsLoad && std::regex_search(o, bm, BaseLoad)) {
    int Rn = std::stoi(bm[1].str());
    long Off = bm[2].matched ? std::stol(bm[2].str()) : 0;
    for (auto it = Recent.rbegin(); it != Recent.rend() && I.Addr - it->Addr <= 8; ++it) {
      auto [Reg, T] = AdrOf(*it);
      if (Reg == Rn) {
        E.Literal = true;
        E.Target = U32(T + Off);
        break;
      }
      std::string po = Lower(it->Operands), pm = Lower(it->Mnemonic);
      if (po.rfind("r" + std::to_string(Rn) + ",", 0) == 0 && pm.rfind("st", 0) != 0 && pm.rfind("cmp", 0) != 0 &&
          pm.rfind("tst", 0) != 0)
        break;
    }
  }
  E.Break = Base == "bkpt";
  E.Nop = Base == "nop";
  return E;
}

std::string FlagText(U64 F) {
  std::string s;
  const std::pair<U64, const char*> a[] = {{CORE_INST_CTRL_TRANSFER, "ctrl"}, {CORE_INST_DIRECT, "direct"},
      {CORE_INST_CALL, "call"}, {CORE_INST_RETURN, "ret"}, {CORE_INST_LITERAL, "lit"}, {CORE_INST_TARGET_KNOWN, "known"},
      {CORE_INST_LEAVES, "leaves"}, {CORE_INST_NOP, "nop"}, {CORE_INST_CONDITIONAL, "cond"}, {CORE_INST_BREAK, "break"}};
  for (auto& p : a)
    if (F & p.first) s += std::string(p.second) + " ";
  return s;
}

}  // namespace

// ---- loading and the static description ------------------------------------

TEST(CorePluginArm, LoadsThroughExportsAndDescribesTheCore) {
  LoadedPlugin& P = Plugin();
  ASSERT_TRUE(P.hLib) << P.Error;
  ASSERT_EQ(P.Error, "");
  // Wrong table sizes are refused.
  CORE_PLUGIN_API Small{};
  EXPECT_NE(P.pfGetAPI(&Small, 319), 0);
  EXPECT_NE(P.pfGetAPI(nullptr, 320), 0);
  CORE_HOST_API H = TestHost::Table();
  EXPECT_NE(P.pfSetAPI(&H, 48), 0);
  EXPECT_EQ(P.pfSetAPI(&H, 56), 0);
  EXPECT_GT(((U32(*)())P.pfGetVersion)(), 0u);
  EXPECT_STRNE(((const char* (*)())P.pfGetName)(), "");

  // Every slot a caller uses is filled; the reserved ones are null.
  void* const* apSlots = reinterpret_cast<void* const*>(&P.Api);
  for (int i = 0; i < 40; ++i) {
    if (i == 1 || i == 8 || i == 28) EXPECT_EQ(apSlots[i], nullptr) << "slot " << i;
    else EXPECT_NE(apSlots[i], nullptr) << "slot " << i;
  }

  CORE_STATIC_INFO S;
  EXPECT_NE(P.Api.pfGetStaticInfo(&S, 100), 0);
  ASSERT_EQ(P.Api.pfGetStaticInfo(&S, sizeof S), 0);
  // What the host requires beyond the values below.
  EXPECT_GT(S.MaxMnemonicLen, 0u);
  EXPECT_GT(S.RegSize, 0u);
  EXPECT_LE(S.SPSize, 8u);
  EXPECT_LE(S.PCSize, 8u);
  EXPECT_LT(S.MaxUnwindRegIdx, S.NumRegs);
  EXPECT_EQ(S.AddrSize, 4u);
  EXPECT_EQ(S.NumRegs, 17u);
  EXPECT_EQ(S.InstAlign, 2u);
  EXPECT_EQ(S.MinInstLen, 2u);
  EXPECT_EQ(S.MaxInstLen, 4u);
  EXPECT_EQ(S.SPIdx, 13u);
  EXPECT_EQ(S.LRIdx, 14u);
  EXPECT_EQ(S.PCIdx, 15u);
  EXPECT_EQ(S.RAIdx, 14u);
  EXPECT_EQ(S.CFAIdx, 16u);
  // Core indices and DWARF numbers to probe indices; the CFA has none.
  for (U32 i = 0; i < 16; ++i) EXPECT_EQ(P.Api.pfGetRegIndex(i), int(i));
  EXPECT_EQ(P.Api.pfGetRegIndex(S.CFAIdx), -1);
  EXPECT_EQ(P.Api.pfGetRegIndex(64), 24);   // s0
  EXPECT_EQ(P.Api.pfGetRegIndex(95), 55);   // s31
  EXPECT_EQ(P.Api.pfGetRegIndex(200), 16);  // XPSR
  EXPECT_EQ(P.Api.pfGetRegIndex(207), 23);  // FPSCR
  EXPECT_EQ(P.Api.pfGetRegIndex(1000), -1);

  // The CPU register description is shipped beside the library and names
  // every core register with its index.
  char acFile[2048];
  ASSERT_EQ(P.Api.pfGetRegisterFile(0x0E0000FF, acFile, sizeof acFile), 0);
  fs::path Svd = fs::path(LoadedPlugin::DefaultPath()).parent_path() / acFile;
  ASSERT_TRUE(fs::exists(Svd)) << Svd;
  std::string Xml = RunToolOutput("cat '" + Svd.string() + "'");
  EXPECT_NE(Xml.find("<cpu"), std::string::npos);
  for (const char* r : {"R0", "R12", "SP", "LR", "PC", "XPSR", "PRIMASK", "CONTROL"})
    EXPECT_NE(Xml.find(std::string("<name>") + r + "</name>"), std::string::npos) << r;
  // Every <index> of the file maps to a probe register.
  size_t NumIdx = 0;
  for (size_t p = Xml.find("<index>"); p != std::string::npos; p = Xml.find("<index>", p + 1), ++NumIdx)
    EXPECT_GE(P.Api.pfGetRegIndex(U32(std::atoi(Xml.c_str() + p + 7))), 0) << Xml.substr(p, 20);
  EXPECT_EQ(NumIdx, 16u + 8u + 32u);
  EXPECT_NE(P.Api.pfGetPeripheralFile(0, acFile, sizeof acFile), 0);

  char acName[64];
  EXPECT_EQ(P.Api.pfGetCoreName(0x0E0000FF, acName, sizeof acName), 0);
  EXPECT_STRNE(acName, "");
  EXPECT_EQ(P.Api.pfGetModeName(0, acName, 64), 0);
  EXPECT_STREQ(acName, "Thread");
  EXPECT_EQ(P.Api.pfGetModeName(15, acName, 64), 0);
  EXPECT_STREQ(acName, "Handler (SysTick)");
  EXPECT_EQ(P.Api.pfGetModeName(16 + 5, acName, 64), 0);
  EXPECT_STREQ(acName, "Handler (IRQ 5)");
  char acBody[16];
  EXPECT_NE(P.Api.pfGetDefaultScriptBody(4, acBody, sizeof acBody), 0);
  for (auto f : {P.Api.pfOnConnected, P.Api.pfOnAboutToDisconnect, P.Api.pfOnTargetHalted, P.Api.pfOnAboutToResume})
    EXPECT_EQ(f(), 0);
  EXPECT_EQ(P.Api.pfGetBPFlags(0x08000000), 0u);
  CORE_CONFIG C{};
  C.Core = 0x060000FF;
  EXPECT_EQ(P.Api.pfReconfigure(&C), 0);
  EXPECT_NE(P.Api.pfReconfigure(nullptr), 0);
}

TEST(CorePluginArm, MappingSymbolsAndElfHeaders) {
  LoadedPlugin& P = Plugin();
  ASSERT_TRUE(P.hLib);
  char acBuf[8];
  EXPECT_NE(P.Api.pfGetMappingSymPrefix(acBuf, sizeof acBuf), 0);
  EXPECT_STREQ(acBuf, "$");
  U32 Type = 9;
  char acDesc[64];
  EXPECT_EQ(P.Api.pfParseMappingSym("$t", &Type, acDesc, sizeof acDesc), 0);
  EXPECT_EQ(Type, 0u);
  EXPECT_EQ(P.Api.pfParseMappingSym("$d.realdata", &Type, acDesc, sizeof acDesc), 0);
  EXPECT_EQ(Type, 1u);
  EXPECT_EQ(P.Api.pfParseMappingSym("$a", &Type, acDesc, sizeof acDesc), 0);
  EXPECT_EQ(Type, 0u);
  EXPECT_EQ(P.Api.pfParseMappingSym("$d", nullptr, acDesc, sizeof acDesc), 0);
  EXPECT_STREQ(acDesc, "Data");
  for (const char* s : {"$x", "$tt", "main", "$", ""}) EXPECT_NE(P.Api.pfParseMappingSym(s, &Type, acDesc, 64), 0) << s;
  EXPECT_NE(P.Api.pfParseMappingSym(nullptr, &Type, acDesc, 64), 0);

  // Byte order and machine from real ELF headers: little-endian, BE8, and the
  // host's own (not ARM) executable.
  for (const std::string& f : OracleFiles()) {
    TestElf E;
    ASSERT_TRUE(E.Load(f));
    U32 D = 9, I = 9;
    ASSERT_EQ(P.Api.pfGetELFByteOrder(52, E.File.data(), &D, &I), 0) << f;
    const auto Hdr = readelf::Header(f);
    const bool Big = Hdr.count("Data") && Hdr.at("Data").find("big endian") != std::string::npos;
    const bool BE8 = Hdr.count("Flags") && Hdr.at("Flags").find("BE8") != std::string::npos;
    EXPECT_EQ(D, Big ? 1u : 0u) << f;
    EXPECT_EQ(I, (Big && !BE8) ? 1u : 0u) << f;
    EXPECT_EQ(P.Api.pfCheckELFFile(52, E.File.data()), 0) << f;
  }
  std::string Self = RunToolOutput("head -c 52 /proc/self/exe");
  EXPECT_NE(P.Api.pfCheckELFFile(52, Self.data()), 0);
  EXPECT_NE(P.Api.pfGetELFByteOrder(51, Self.data(), nullptr, nullptr), 0);
  char Junk[52] = {};
  EXPECT_NE(P.Api.pfCheckELFFile(52, Junk), 0);
  EXPECT_NE(P.Api.pfGetELFByteOrder(52, nullptr, nullptr, nullptr), 0);
}

// ---- registers through the probe's operations --------------------------------

TEST(CorePluginArm, RegistersAndSystemRegisters) {
  LoadedPlugin& P = Plugin();
  ASSERT_TRUE(P.hLib);
  for (int i = 0; i < 56; ++i) g_aRegs[i] = 0x1000 + i;
  g_aRegs[16] = 0x61000023;  // xPSR: Z, C, Q, T, exception 35
  U64 V = 0;
  ASSERT_EQ(P.Api.pfReadReg(3, 8, &V), 0);
  EXPECT_EQ(V, 0x1003u);
  EXPECT_NE(P.Api.pfReadReg(3, 4, &V), 0);    // size must be 8
  EXPECT_NE(P.Api.pfReadReg(999, 8, &V), 0);
  U32 aIdx[4] = {0, 13, 15, 17};
  U64 aVal[4] = {};
  U8 aSt[4] = {9, 9, 9, 9};
  ASSERT_EQ(P.Api.pfReadRegs(4, aIdx, 32, aVal, aSt), 0);
  for (int i = 0; i < 4; ++i) {
    EXPECT_EQ(aVal[i], 0x1000u + aIdx[i]);
    EXPECT_EQ(aSt[i], 0);
  }
  EXPECT_NE(P.Api.pfReadRegs(4, aIdx, 24, aVal, aSt), 0);
  EXPECT_NE(P.Api.pfReadRegs(0, aIdx, 0, aVal, aSt), 0);
  U64 W = 0x08000123;
  ASSERT_EQ(P.Api.pfWriteReg(15, 8, &W), 0);
  EXPECT_EQ(g_aRegs[15], 0x08000122u);  // no Thumb bit in the PC
  W = 0xAB;
  ASSERT_EQ(P.Api.pfWriteReg(2, 8, &W), 0);
  EXPECT_EQ(g_aRegs[2], 0xABu);

  ASSERT_EQ(P.Api.pfReadCPReg("APSR", 8, &V), 0);
  EXPECT_EQ(V, 0x60000000u);
  ASSERT_EQ(P.Api.pfReadCPReg("ipsr", 8, &V), 0);
  EXPECT_EQ(V, 0x23u);
  ASSERT_EQ(P.Api.pfReadCPReg("MSP", 8, &V), 0);
  EXPECT_EQ(V, 0x1011u);
  EXPECT_NE(P.Api.pfReadCPReg("NOPE", 8, &V), 0);
  EXPECT_NE(P.Api.pfReadCPReg(nullptr, 8, &V), 0);
  W = 0x80000000;  // set N through APSR: the other xPSR bits stay
  ASSERT_EQ(P.Api.pfWriteCPReg("APSR", 8, &W), 0);
  EXPECT_EQ(g_aRegs[16], 0x81000023u);
  W = 1;
  ASSERT_EQ(P.Api.pfWriteCPReg("PRIMASK", 8, &W), 0);
  EXPECT_EQ(g_aRegs[19], 1u);
  U32 Mode = 0;
  ASSERT_EQ(P.Api.pfGetCPUMode(&Mode), 0);
  EXPECT_EQ(Mode, 0x23u);
  ASSERT_EQ(P.Api.pfGetExecMode(&Mode), 0);
  EXPECT_EQ(Mode, 2u);

  g_RegsFail = true;
  EXPECT_NE(P.Api.pfReadReg(0, 8, &V), 0);
  EXPECT_NE(P.Api.pfWriteReg(0, 8, &W), 0);
  EXPECT_NE(P.Api.pfGetCPUMode(&Mode), 0);
  g_RegsFail = false;
}

TEST(CorePluginArm, DefaultExecStateFromVectorTable) {
  LoadedPlugin& P = Plugin();
  ASSERT_TRUE(P.hLib);
  for (const std::string& f : OracleFiles()) {
    TestElf E;
    ASSERT_TRUE(E.Load(f));
    const TestElf::Symbol* pReset = nullptr;
    for (auto& s : E.Symbols)
      if (s.Name == "Reset_Handler") pReset = &s;
    if (!pReset) continue;  // not a complete program
    TestHost::pElf = &E;
    P.SetEndian(E.Big && !(E.Flags & 0x00800000u) ? 1 : 0, E.Big ? 1 : 0);
    g_aRegs[13] = g_aRegs[15] = 0;
    ASSERT_EQ(P.Api.pfSetDefaultExecState(), 0) << f;
    EXPECT_EQ(g_aRegs[15], pReset->Value & ~1u) << f;
    // The initial SP is the linker's stack top symbol where there is one.
    for (auto& s : E.Symbols)
      if (s.Name == "_estack" || s.Name == "__StackTop" || s.Name == "_stack_top") {
        EXPECT_EQ(g_aRegs[13], s.Value) << f;
      }
    EXPECT_NE(g_aRegs[13], 0u);
  }
  // Without a program the table is found through VTOR.
  TestHost::pElf = nullptr;
  P.SetEndian(0, 0);
  TestHost::Ram.clear();
  TestHost::PutRam32(0xE000ED08, 0x20000400);
  TestHost::PutRam32(0x20000400, 0x20008000);
  TestHost::PutRam32(0x20000404, 0x20000501);
  ASSERT_EQ(P.Api.pfSetDefaultExecState(), 0);
  EXPECT_EQ(g_aRegs[13], 0x20008000u);
  EXPECT_EQ(g_aRegs[15], 0x20000500u);
  TestHost::Ram.clear();
  EXPECT_NE(P.Api.pfSetDefaultExecState(), 0);
  EXPECT_NE(TestHost::LastLog, "");
}

TEST(CorePluginArm, SemihostingStopAndCompletion) {
  LoadedPlugin& P = Plugin();
  ASSERT_TRUE(P.hLib);
  TestHost::pElf = nullptr;
  P.SetEndian(0, 0);
  TestHost::Ram.clear();
  // bkpt 0xab at 0x20000100, bkpt 0x00 at 0x20000102, nop at 0x20000104
  TestHost::PutRam32(0x20000100, 0xBE00BEAB);
  TestHost::PutRam32(0x20000104, 0xBF00BF00);
  ASSERT_EQ(P.Api.pfInitSemihosting("prog arg"), 0);
  g_aRegs[0] = 0x04;  // SYS_WRITE0
  g_aRegs[1] = 0x20001000;
  U32 Op = 0;
  U64 Arg = 0;
  EXPECT_EQ(P.Api.pfHandleSemihosting(0x20000102, &Op, &Arg), 0);
  EXPECT_EQ(P.Api.pfHandleSemihosting(0x20000104, &Op, &Arg), 0);
  EXPECT_EQ(P.Api.pfHandleSemihosting(0x30000000, &Op, &Arg), 0);  // unreadable
  EXPECT_NE(P.Api.pfCompleteSemihosting(0), 0);                     // nothing pending
  ASSERT_EQ(P.Api.pfHandleSemihosting(0x20000100, &Op, &Arg), 1);
  EXPECT_EQ(Op, 4u);
  EXPECT_EQ(Arg, 0x20001000u);
  ASSERT_EQ(P.Api.pfCompleteSemihosting(U64(-1)), 0);
  EXPECT_EQ(g_aRegs[0], 0xFFFFFFFFu);
  EXPECT_EQ(g_aRegs[15], 0x20000102u);
  EXPECT_NE(P.Api.pfCompleteSemihosting(0), 0);  // only once
  ASSERT_EQ(P.Api.pfHandleSemihosting(0x20000100, &Op, &Arg), 1);
  EXPECT_EQ(P.Api.pfDeinitSemihosting(), 0);
  EXPECT_NE(P.Api.pfCompleteSemihosting(0), 0);  // dropped
  // The break flag lets the host step over a compiled-in BKPT.
  CORE_INST_INFO I;
  ASSERT_EQ(P.Api.pfAnalyzeInst(0x20000102, &I), 0);
  EXPECT_TRUE(I.Flags & CORE_INST_BREAK);
  EXPECT_EQ(I.Size, 2u);
  ASSERT_EQ(P.Api.pfAnalyzeInst(0x20000104, &I), 0);
  EXPECT_TRUE(I.Flags & CORE_INST_NOP);
  EXPECT_FALSE(I.Flags & CORE_INST_BREAK);
  TestHost::Ram.clear();
}

// ---- instruction analysis against objdump --------------------------------------

TEST(CorePluginArm, AnalysisAndTextAgreeWithObjdump) {
  LoadedPlugin& P = Plugin();
  ASSERT_TRUE(P.hLib);
  std::vector<std::string> Files = OracleFiles();
  ASSERT_FALSE(Files.empty());
  size_t Total = 0, DataWords = 0;
  std::set<std::string> Seen;
  for (const std::string& f : Files) {
    TestElf E;
    ASSERT_TRUE(E.Load(f)) << f;
    TestHost::pElf = &E;
    P.SetEndian(E.Big && !(E.Flags & 0x00800000u) ? 1 : 0, E.Big ? 1 : 0);
    std::map<uint32_t, objdump::Inst> Data;
    auto Listing = objdump::Disassemble(f, &Data);
    ASSERT_FALSE(Listing.empty()) << f;
    int ITLeft = 0;
    uint32_t Prev = 0;
    std::vector<objdump::Inst> Recent;
    int Failures = 0;
    for (auto& [Addr, I] : Listing) {
      if (Addr != Prev) {  // a gap: a new function or data
        ITLeft = 0;
        Recent.clear();
      }
      Prev = Addr + I.Size;
      int r = E.RangeAt(Addr);
      if (r < 0 || E.Ranges[r].Kind != 't') continue;  // data, or no mapping symbol
      bool InIT = ITLeft > 0;
      if (ITLeft > 0) --ITLeft;
      std::string m = Lower(I.Mnemonic);
      if (m.size() >= 2 && m.rfind("it", 0) == 0 && m.find_first_not_of("te", 2) == std::string::npos)
        ITLeft = int(m.size()) - 1;
      Expected X = ExpectFromObjdump(I, InIT, Recent);
      Recent.push_back(I);
      if (Recent.size() > 4) Recent.erase(Recent.begin());
      CORE_INST_INFO Info;
      int Res = P.Api.pfAnalyzeInst(Addr, &Info);
      char acText[128];
      int TextRes = P.Api.pfGetInstText(Addr, 0, acText, sizeof acText);
      ++Total;
      std::string Where = f + " @ 0x" + [&] { char b[16]; snprintf(b, 16, "%08X", Addr); return std::string(b); }() +
                          ": " + I.Mnemonic + "\t" + I.Operands + " " + I.Comment;
      if (m == "udf" || m.rfind("udf", 0) == 0) continue;  // undefined on purpose: decoders differ
      ASSERT_EQ(Res, 0) << Where;
      EXPECT_EQ(Info.Size, I.Size) << Where;
      EXPECT_EQ(TextRes, int(I.Size)) << Where;
      U64 F = Info.Flags;
      bool Ok = bool(F & CORE_INST_CTRL_TRANSFER) == X.Ctrl && bool(F & CORE_INST_CALL) == X.Call &&
                bool(F & CORE_INST_RETURN) == X.Ret && bool(F & CORE_INST_LEAVES) == X.Ret &&
                bool(F & CORE_INST_CONDITIONAL) == X.Cond && bool(F & CORE_INST_DIRECT) == X.Direct &&
                bool(F & CORE_INST_LITERAL) == X.Literal && bool(F & CORE_INST_BREAK) == X.Break &&
                bool(F & CORE_INST_NOP) == X.Nop;
      if ((X.Direct || X.Literal) && Info.Target != X.Target) Ok = false;
      if (X.HasAdr && Info.Target != X.AdrTarget) Ok = false;
      EXPECT_TRUE(Ok) << Where << "\n  flags: " << FlagText(F) << " target 0x" << std::hex << Info.Target;
      // Text, after normalisation.
      std::string T = acText;
      std::string Mn = T.substr(0, T.find('\t'));
      std::string Ops = T.find('\t') == std::string::npos ? "" : T.substr(T.find('\t') + 1);
      if (Ops.find("\t;") != std::string::npos) Ops = Ops.substr(0, Ops.find("\t;"));
      std::string Mine = NormalizeInst(Mn, Ops);
      std::string Theirs = NormalizeInst(I.Mnemonic, I.Operands);
      if (X.HasAdr) {
        Theirs = "adr " + Lower(I.Operands.substr(0, I.Operands.find(','))) + ", <T>";
        Theirs = NormalizeInst("adr", Theirs.substr(4));
        Mine = NormalizeInst("adr", Ops.substr(0, Ops.find(',')) + ", <T>");
      }
      if (Mine != Theirs && ++Failures <= 40) ADD_FAILURE() << Where << "\n  plug-in: " << T << "\n  normalised: " << Mine << " | " << Theirs;
      // A literal load's comment names the literal's address and value.
      if (X.Literal) {
        U8 b[4];
        char acWant[48];
        if (E.Read(X.Target, 4, b)) {
          U32 V = E.Big ? (U32(b[0]) << 24 | U32(b[1]) << 16 | U32(b[2]) << 8 | b[3])
                        : (U32(b[3]) << 24 | U32(b[2]) << 16 | U32(b[1]) << 8 | b[0]);
          snprintf(acWant, sizeof acWant, "\t; [0x%08X] = 0x%08X", U32(X.Target), V);
        } else {
          snprintf(acWant, sizeof acWant, "\t; [0x%08X] = 0x????????", U32(X.Target));
        }
        EXPECT_NE(T.find(acWant), std::string::npos) << Where << "\n  plug-in: " << T << "\n  wanted: " << acWant;
      }
      if (!(F & CORE_INST_CTRL_TRANSFER)) Seen.insert("plain");
      if (F & CORE_INST_RETURN) Seen.insert("ret");
      if (F & CORE_INST_CALL) Seen.insert("call");
      if (F & CORE_INST_LITERAL) Seen.insert("lit");
      if (InIT) Seen.insert("it");
    }
    EXPECT_EQ(Failures, 0) << f;
    // Data words in code sections read as objdump shows them.
    for (auto& [Addr, D] : Data) {
      int r = E.RangeAt(Addr);
      if (D.Mnemonic != ".word" || D.Size != 4 || r < 0 || E.Ranges[r].Kind != 'd') continue;
      const uint32_t Value = uint32_t(std::stoul(D.Operands, nullptr, 16));
      char acText[64], acWant[32];
      ASSERT_EQ(P.Api.pfGetDataText(Addr, 4, acText, sizeof acText), 4);
      snprintf(acWant, sizeof acWant, "DC32\t0x%08X", Value);
      EXPECT_STREQ(acText, acWant) << f << " @ " << std::hex << Addr;
      ++DataWords;
    }
  }
  EXPECT_GT(DataWords, 100u);
  std::printf("compared %zu instructions and %zu data words in %zu files\n", Total, DataWords, Files.size());
  TestHost::pElf = nullptr;
  EXPECT_GT(Total, 1000u);
  EXPECT_EQ(Seen.size(), 5u);
}

// ---- frames without call frame information, checked against the CFI ---------

namespace {
struct CfiRow {
  uint32_t Loc = 0;
  int CfaReg = -1;
  long CfaOff = 0;
  std::map<int, long> Saved;  // core register -> offset from the CFA
};
struct Fde {
  uint32_t Start = 0, End = 0;
  std::vector<CfiRow> Rows;
};

// readelf's interpreted .debug_frame descriptions with their rows as
// register numbers and offsets; rows whose CFA is no register plus offset are
// left out.
std::vector<Fde> ReadCfi(const std::string& f) {
  std::vector<Fde> v;
  for (const readelf::CfiTable& T : readelf::FrameTables(f)) {
    if (T.Cie) continue;
    Fde& D = v.emplace_back();
    D.Start = T.Start;
    D.End = T.End;
    std::vector<int> Cols;
    for (const std::string& c : T.Columns)
      Cols.push_back(c == "lr" || c == "ra" ? 14 : c == "sp" ? 13 : (c.size() > 1 && c[0] == 'r') ? std::atoi(c.c_str() + 1) : -1);
    for (const readelf::CfiRow& Row : T.Rows) {
      // A return address made undefined on purpose after the entry
      // (start-up code ending the stack) is nothing a prologue scan can
      // see: the comparison ends there.
      bool Ended = false;
      for (size_t i = 0; i < Row.Rules.size() && i < Cols.size(); ++i)
        Ended |= Cols[i] == 14 && Row.Rules[i] == "u" && &Row != &T.Rows.front();
      if (Ended) break;
      const size_t Plus = Row.Cfa.find('+');
      if (Row.Cfa.empty() || Row.Cfa[0] != 'r' || Plus == std::string::npos) continue;
      CfiRow R;
      R.Loc = Row.Loc;
      R.CfaReg = std::atoi(Row.Cfa.c_str() + 1);
      R.CfaOff = std::atol(Row.Cfa.c_str() + Plus + 1);
      for (size_t i = 0; i < Row.Rules.size() && i < Cols.size(); ++i)
        if (Cols[i] >= 0 && Row.Rules[i].rfind("c", 0) == 0) R.Saved[Cols[i]] = std::atol(Row.Rules[i].c_str() + 1);
      D.Rows.push_back(R);
    }
  }
  return v;
}
}  // namespace

TEST(CorePluginArm, PrologueScanAgreesWithCallFrameInformation) {
  LoadedPlugin& P = Plugin();
  ASSERT_TRUE(P.hLib);
  size_t Compared = 0;
  for (const std::string& f : OracleFiles()) {
    TestElf E;
    ASSERT_TRUE(E.Load(f));
    if (E.Big) continue;
    TestHost::pElf = &E;
    P.SetEndian(0, 0);
    for (const Fde& D : ReadCfi(f)) {
      long Prev = -1;
      int PrevReg = 13;
      for (const CfiRow& R : D.Rows) {
        // The prologue: up to the first row where the frame shrinks again or
        // the frame pointer is given up.
        if (R.CfaOff < Prev || (R.CfaReg != 13 && R.CfaReg != 7) || (PrevReg == 7 && R.CfaReg != 7)) break;
        Prev = R.CfaOff;
        PrevReg = R.CfaReg;
        CORE_UNWIND_RULE aRules[17];
        CORE_FRAME_RECORD Rec{};
        Rec.PC = R.Loc;
        Rec.SP = 0x20001000;
        Rec.FuncStart = D.Start;
        Rec.paRules = aRules;
        Rec.NumRules = 17;
        ASSERT_EQ(P.Api.pfUnwindFrame(nullptr, &Rec), CORE_UNWIND_FILLED);
        char Where[160];
        snprintf(Where, sizeof Where, "%s fde 0x%08X row 0x%08X", f.c_str(), D.Start, R.Loc);
        EXPECT_EQ(Rec.RAIdx, 14u);
        ASSERT_EQ(aRules[16].Kind, U32(CORE_RULE_REG_OFFSET)) << Where;
        EXPECT_EQ(int(aRules[16].Reg), R.CfaReg) << Where;
        EXPECT_EQ(aRules[16].Offset, R.CfaOff) << Where;
        // Callee-saved registers and LR; the CFI need not describe scratch
        // registers that a prologue happens to push (r0-r3, r12).
        for (int r = 4; r < 15; ++r) {
          if (r == 12 || r == 13) continue;
          auto it = R.Saved.find(r);
          if (it != R.Saved.end()) {
            EXPECT_EQ(aRules[r].Kind, U32(CORE_RULE_AT_CFA)) << Where << " r" << r;
            EXPECT_EQ(aRules[r].Offset, it->second) << Where << " r" << r;
          } else {
            EXPECT_NE(aRules[r].Kind, U32(CORE_RULE_AT_CFA)) << Where << " r" << r;
          }
        }
        char acText[64];
        EXPECT_EQ(P.Api.pfGetFrameInfoText(&Rec, acText, sizeof acText), 0);
        EXPECT_STREQ(acText, R.CfaOff ? "Unwound by prologue analysis" : "No frame: return address in LR") << Where;
        ++Compared;
      }
    }
  }
  TestHost::pElf = nullptr;
  EXPECT_GT(Compared, 200u);
  std::printf("compared %zu call frame rows\n", Compared);
  // Without a function start only the leaf rule is possible.
  CORE_UNWIND_RULE aRules[17];
  CORE_FRAME_RECORD Rec{};
  Rec.PC = 0x08000100;
  Rec.paRules = aRules;
  Rec.NumRules = 17;
  ASSERT_EQ(P.Api.pfUnwindFrame(nullptr, &Rec), CORE_UNWIND_FILLED);
  EXPECT_EQ(aRules[16].Reg, 13u);
  EXPECT_EQ(aRules[16].Offset, 0);
  EXPECT_EQ(aRules[14].Kind, U32(CORE_RULE_SAME));
  Rec.NumRules = 10;
  EXPECT_LT(P.Api.pfUnwindFrame(nullptr, &Rec), 0);
}
