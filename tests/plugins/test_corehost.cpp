// The core plug-in host: each refusal with its text and nothing left loaded,
// the choice of the file, reconfiguration keeping the library, and the host
// table against nm and readelf.
#include <gtest/gtest.h>
#include <dlfcn.h>

#include "device/coresupport.h"
#include "elf/elf.h"
#include "elf/elfapi.h"
#include "log/log.h"
#include "log/logcapture.h"
#include "plugins/corehost.h"
#include "plugins/corestate.h"
#include "plugins/corewrappers.h"
#include "testsupport/corpus.h"
#include "testsupport/testapp.h"
#include "testsupport/tools.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QRegularExpression>
#include <random>

namespace {

const QString kDir = QStringLiteral(TESTPLUGIN_DIR "/"), kGood = kDir + "TestCorePlugin.so";
constexpr U32 kM3 = 0x030000FF, kM4 = 0x0E0000FF;
#define OFF(f) offsetof(CORE_STATIC_INFO, f)

struct FakeProject : ICorePluginProject {
  QString sPath, sAnswer;
  bool Dialogs = false;
  QStringList Asked;
  QString CorePluginPath() const override { return sPath; }
  void SetCorePluginPath(const QString& s) override { sPath = s; }
  bool DialogsAllowed() const override { return Dialogs; }
  QString AskCorePluginFile(const QString& sTitle, const QString& sText, const QString&) override {
    Asked << sTitle << sText;
    return sAnswer;
  }
};

bool InMemory(const QString& sPath) {
  void* h = dlopen(sPath.toUtf8().constData(), RTLD_NOW | RTLD_NOLOAD);
  if (h) dlclose(h);
  return h != nullptr;
}

class CoreHost : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { NewTestApp<QCoreApplication>(); }
  void SetUp() override {
    CORE_SetProject(&Proj);
    for (auto [pSig, sWhat] : {std::pair{&CCorePluginSignals::PluginLoaded, "loaded"}, {&CCorePluginSignals::PluginUnloaded, "unloaded"},
                               {&CCorePluginSignals::PluginReconfigured, "reconf"}})
      QObject::connect(&CorePluginSignals(), pSig, &Ctx, [this, sWhat](QString s, int t) {
        Signals << QString("%1 %2 %3").arg(QLatin1String(sWhat), QFileInfo(s).fileName()).arg(t);
      });
  }
  void TearDown() override { UnloadCorePlugin(); }
  // Loads in the plug-in mode sMode: the error texts, the result in *pResult.
  QStringList Load(U32 Core, const QString& sPath, const std::string& sMode = "", int* pResult = nullptr) {
    setenv("TAVIT_TESTPLUGIN", sMode.c_str(), 1);
    Proj.sPath = sPath;
    CLogCapture Cap(MSG_ERROR);
    const int r = LoadCorePlugin(Core);
    if (pResult) *pResult = r;
    return Cap.Texts();
  }
  FakeProject Proj;
  QObject Ctx;
  QStringList Signals;
};

struct REFUSAL {
  const char* sLib;
  std::string sMode;  // a fault, or "Offset=Value" changes of the static description
  QStringList Texts;  // in order; a row that loads holds only warnings
  bool Loads = false;
};
std::string Fields(std::initializer_list<std::pair<size_t, U32>> l) {
  std::string s;
  for (auto [Off, Val] : l) s += std::to_string(Off) + "=" + std::to_string(Val) + ",";
  return s;
}
const QString kMissing = "invalid target core support plugin: required function '%1' not found.";
const QString kInit = "Target core support plugin initialization failed: ";

const REFUSAL kRefusals[] = {
    {"TestCorePluginNoExports.so", "",
     {kMissing.arg("CORE_PLUGIN_GetAPI"), kMissing.arg("CORE_PLUGIN_SetAPI"), kMissing.arg("CORE_PLUGIN_GetVersion"),
      kMissing.arg("CORE_PLUGIN_GetName")}},
    {"TestCorePluginNoSetAPI.so", "", {kMissing.arg("CORE_PLUGIN_SetAPI")}},
    {"TestCorePlugin.so", "getapi", {kInit + "incompatible plugin API"}},
    {"TestCorePlugin.so", "setapi", {kInit + "incompatible debugger API"}},
    {"TestCorePlugin.so", "nullinit", {kInit + "plugin API is missing init function"}},
    {"TestCorePlugin.so", "init", {kInit + "plugin API function 'Init' returned error code 7"}},
    {"TestCorePlugin.so", "nostatic", {"Error reading static core information from plugin"}},
    {"TestCorePlugin.so", "staticfails", {"Error reading static core information from plugin"}},
    // With two bad fields only the one checked first is named.
    {"TestCorePlugin.so", Fields({{OFF(MinInstLen), 0}, {OFF(MaxInstLen), 0}}), {"invalid minimum instruction length."}},
    {"TestCorePlugin.so", Fields({{OFF(MinInstLen), 4}, {OFF(MaxInstLen), 2}, {OFF(MaxMnemonicLen), 0}}),
     {"invalid maximum instruction length"}},
    {"TestCorePlugin.so", Fields({{OFF(MaxMnemonicLen), 0}, {OFF(InstAlign), 0}}), {"invalid maximum mnemonic length"}},
    {"TestCorePlugin.so", Fields({{OFF(InstAlign), 0}, {OFF(NumRegs), 0}}), {"invalid instruction alignment"}},
    {"TestCorePlugin.so", Fields({{OFF(NumRegs), 0}, {OFF(RegSize), 0}}), {"invalid register count"}},
    {"TestCorePlugin.so", Fields({{OFF(RegSize), 0}, {OFF(SPSize), 9}}), {"invalid register size"}},
    {"TestCorePlugin.so", Fields({{OFF(SPSize), 9}, {OFF(SPIdx), 17}}),
     {"Error: SP register is larger than 64 bit. This is not supported. Check core plugin compatibility."}},
    {"TestCorePlugin.so", Fields({{OFF(SPIdx), 17}, {OFF(PCIdx), 17}}), {"invalid SP register index"}},
    {"TestCorePlugin.so", Fields({{OFF(PCIdx), 17}, {OFF(LRIdx), 17}}), {"invalid PC register index"}},
    {"TestCorePlugin.so", Fields({{OFF(LRIdx), 17}, {OFF(CFAIdx), 17}}), {"invalid LR register index"}},
    {"TestCorePlugin.so", Fields({{OFF(CFAIdx), 17}, {OFF(RAIdx), 17}}), {"invalid CFA register index"}},
    {"TestCorePlugin.so", Fields({{OFF(RAIdx), 17}, {OFF(MaxUnwindRegIdx), 17}}), {"invalid RA register index"}},
    {"TestCorePlugin.so", Fields({{OFF(MaxUnwindRegIdx), 17}}), {"invalid maximum unwindable register index"}},
    {"TestCorePlugin.so", Fields({{OFF(RegSize), 9}, {OFF(PCSize), 9}}),
     {"Warning: register sizes > 64 bit are not yet supported",
      "Warning: PC register is larger than 64 bit. This is not yet supported"},
     true},
};

class CoreHostRefusal : public CoreHost, public ::testing::WithParamInterface<REFUSAL> {};

TEST_P(CoreHostRefusal, NamesTheFaultAndLeavesNothingLoaded) {
  const REFUSAL& R = GetParam();
  int r = 0;
  EXPECT_EQ(Load(kM4, kDir + R.sLib, R.sMode, &r), R.Texts);
  EXPECT_EQ(r, R.Loads ? 0 : -1);
  EXPECT_EQ(IsCorePluginLoaded(), R.Loads);
  EXPECT_EQ(DEV_GetCoreSupport() != nullptr, R.Loads);
  EXPECT_EQ(InMemory(kDir + R.sLib), R.Loads);
  EXPECT_EQ(ELF_GetInstAlignment(), 2u);
  EXPECT_EQ(Signals, R.Loads ? QStringList{"loaded " + QString(R.sLib) + " 0"} : QStringList{});
}
INSTANTIATE_TEST_SUITE_P(Table, CoreHostRefusal, ::testing::ValuesIn(kRefusals));

// Random descriptions: taken, or refused with one text and nothing loaded.
TEST_F(CoreHost, RandomStaticDescriptionsAreTakenOrRefusedCleanly) {
  std::mt19937 Rng(17);
  for (int i = 0; i < 150; ++i) {
    const size_t aOff[] = {4, 8, 12, 16, 56, 60, 64, 68, 76, 80, 84, 88, 92, 96};
    const std::string Mode = Fields({{aOff[Rng() % 14], Rng() % 20}, {aOff[Rng() % 14], Rng() % 3 ? Rng() % 20 : U32(Rng())}});
    int r = 0;
    const QStringList Errors = Load(kM4, kGood, Mode, &r).filter(QRegularExpression("^(?!Warning)"));
    ASSERT_EQ(Errors.size(), r == 0 ? 0 : 1) << Mode;
    ASSERT_EQ(InMemory(kGood), r == 0) << Mode;
    const CORE_STATIC_INFO& s = CoreStaticInfo();
    if (r == 0) EXPECT_TRUE(s.NumRegs > s.SPIdx && s.NumRegs > s.MaxUnwindRegIdx && s.MaxInstLen >= s.MinInstLen) << Mode;
    UnloadCorePlugin();
  }
}

TEST_F(CoreHost, ChoosesTheFileOrSaysWhyNot) {
  int r = 0;
  EXPECT_EQ(Load(0x010000FF, ""), QStringList{"Project Warning: target core support plugin not specified and could not determine default."});
  EXPECT_EQ(Load(0, kGood), QStringList{"Project Warning: unknown target device specified."});
  // A silent run names the family's file without looking for it.
  EXPECT_EQ(Load(0x130000FF, ""), QStringList{"Project Warning: target core support plugin not found at " + CORE_PluginDir() + "CorePluginRISCV.so"});
  // With dialogs the user is asked, and the choice goes into the project.
  Proj.Dialogs = true;
  Proj.sAnswer = kGood;
  EXPECT_EQ(Load(0x130000FF, "", "", &r), QStringList{});
  EXPECT_EQ(r, 0);
  EXPECT_EQ(Proj.Asked, (QStringList{"Project Warning", "Tavit could not locate the target core support plugin for the "
                                     "selected device.\nPlease specify the file location manually."}));
  EXPECT_EQ(Proj.sPath, kGood);
  EXPECT_EQ(GetCorePluginPath(kM4), kGood) << "the project's file wins";
}

TEST_F(CoreHost, SamePathForAnotherCoreReconfiguresAndKeepsTheLibrary) {
  EXPECT_EQ(ReconfigureCorePlugin(), -1) << "nothing loaded";
  int r0 = -1, r1 = -1, r2 = -1;
  Load(kM3, kGood, "", &r0);
  Load(kM4, kGood, "", &r1);
  Load(kM4, kGood, "", &r2);
  EXPECT_EQ(std::vector<int>({r0, r1, r2}), std::vector<int>({0, 2, 1}));
  void* h = dlopen(kGood.toUtf8().constData(), RTLD_NOW | RTLD_NOLOAD);
  ASSERT_TRUE(h);
  const int* pCounters = reinterpret_cast<const int* (*)()>(dlsym(h, "TESTPLUGIN_Counters"))();
  EXPECT_EQ(std::vector<int>(pCounters, pCounters + 3), std::vector<int>({1, 1, int(kM4)})) << "Init, Reconfigure, core";
  dlclose(h);
  ASSERT_TRUE(DEV_GetCoreSupport());
  EXPECT_EQ(DEV_GetCoreSupport()->NumProbeRegs(), 24u);
  EXPECT_EQ(UnloadCorePlugin(), 0);
  EXPECT_FALSE(InMemory(kGood));
  EXPECT_EQ(Signals, (QStringList{"loaded TestCorePlugin.so 0", "reconf TestCorePlugin.so 0", "unloaded TestCorePlugin.so 0"}));
  EXPECT_EQ(CORE_GetRegIndex(15), -1) << "the fallbacks without a plug-in";
  EXPECT_EQ(CORE_CheckProgramFile(QString::fromStdString(CorpusPath("app-dwarf4-O0.elf")), nullptr, nullptr), 1);
}

// The host table as the ARM plug-in (loaded by family) sees it.
TEST_F(CoreHost, HostTableAnswersFromTheProgram) {
  const std::string sElf = CorpusPath("app-dwarf4-O0.elf");
  ASSERT_EQ(CElfApi::Instance().Load(QString::fromStdString(sElf)), 0);
  ASSERT_EQ(Load(kM4, ""), QStringList{});
  const CORE_HOST_API& H = CoreHostApi();
  const QString Nm = QString::fromStdString(RunToolOutput("arm-none-eabi-nm --special-syms -n " + sElf));
  const auto m = QRegularExpression(R"(([0-9a-f]{8}) t \$d\n([0-9a-f]{8}) t \$t)").match(Nm);
  const U64 Data = m.captured(1).toULongLong(nullptr, 16), Next = m.captured(2).toULongLong(nullptr, 16);
  const U64 Main = QRegularExpression(R"(([0-9a-f]{8}) T main\n)").match(Nm).captured(1).toULongLong(nullptr, 16);
  ASSERT_TRUE(Data && Main);
  const char* sName = nullptr;
  U64 s = 0, e = 0;
  ASSERT_EQ(H.pfGetCodeRange(Data + 1, &sName, &s, &e), 0);
  EXPECT_EQ(std::string(sName) + " " + std::to_string(s) + " " + std::to_string(e), "$d " + std::to_string(Data) + " " + std::to_string(Next));
  EXPECT_EQ(H.pfGetCodeRange(0x100, &sName, &s, &e), -1);
  ASSERT_EQ(H.pfGetSymbolAt(Main, &sName, &s, &e), 0);
  EXPECT_EQ(std::string(sName) + " " + std::to_string(s), "main " + std::to_string(Main));
  EXPECT_EQ(H.pfGetSymbolAt(Main + 2, &sName, &s, &e), -1);
  U8 Buf[8];
  EXPECT_EQ(H.pfReadImage(0x100, 4, Buf), -1);
  EXPECT_EQ(H.pfReadMem(0x100, 4, Buf), -1) << "no target";
  EXPECT_EQ(H.pfReadMem(Main, 4, Buf), 0);
  U64 Info[3];
  ASSERT_EQ(H.pfGetProgramInfo(Info), 0);
  const QString Hdr = QString::fromStdString(RunToolOutput("arm-none-eabi-readelf -h " + sElf));
  EXPECT_EQ(Info[2], QRegularExpression(R"(Entry point address:\s+0x([0-9a-f]+))").match(Hdr).captured(1).toULongLong(nullptr, 16) & ~1ull);
  EXPECT_EQ(H.pfLog("x", 3), -1);
  // The program file against the plug-in: an ARM program fits, a host program not.
  U32 DataEndian = 9, InstEndian = 9;
  EXPECT_EQ(CORE_CheckProgramFile(QString::fromStdString(sElf), &DataEndian, &InstEndian), 0);
  EXPECT_EQ(DataEndian + InstEndian, 0u);
  EXPECT_EQ(CORE_CheckProgramFile(QCoreApplication::applicationFilePath(), &DataEndian, &InstEndian), -1);
  CElfApi::Instance().Close();
}

}  // namespace
