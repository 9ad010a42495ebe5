// The local data and watched data against gdb: the test programs of the call
// stack oracle run on the emulator under gdb-multiarch to the same stops,
// and gdb prints the arguments and locals of every frame and two globals.
// The same programs run to the same stops on each back end, and the rows of
// the local data window for each frame, and of the watched data window,
// must show the same values; what gdb calls optimised out has no value.
#include "symbols_target.h"
#include "testsupport/process.h"
#include "testsupport/testapp.h"
#include "ui/symbols/framedata.h"

#include <QApplication>
#include <regex>
#include <sstream>

namespace {

using namespace symtest;
using VARS = std::map<std::string, std::string>;

struct STOP {
  const char* sMark;
  int Hits;
};
struct PROGRAM {
  const char *sName, *sSource;
  std::vector<STOP> Stops;
  std::vector<const char*> Globals;
};

const std::vector<STOP> kUnwindStops = {{"STOP_BOTTOM", 1}, {"STOP_RECURSE_BACK", 1}, {"STOP_RECURSE_BACK", 10},
                                        {"STOP_MIX", 1},    {"STOP_INNER", 1},        {"STOP_IRQ", 1},
                                        {"STOP_MAIN", 1},   {"STOP_BOTTOM", 1},       {"STOP_MIX", 1},
                                        {"STOP_IRQ", 1}};
const std::vector<STOP> kLeafStops = {{"STOP_IN_LEAF", 1}, {"STOP_IN_LEAF", 2}, {"STOP_IN_LEAF", 4}};
const PROGRAM kPrograms[] = {{"unwind-O0", "unwind.c", kUnwindStops, {"g_sink", "g_round"}},
                             {"unwind-O2", "unwind.c", kUnwindStops, {"g_sink", "g_round"}},
                             {"frames-O0", "frames_main.c", kLeafStops, {"g_tick", "shade", "g_pair.b"}},
                             {"frames-O2", "frames_main.c", kLeafStops, {"g_tick", "shade", "g_pair.a"}}};

struct GDB_STOP {
  std::vector<U32> Addresses;
  std::vector<VARS> Frames;  // args and locals of each frame
  VARS Globals;
};

const std::vector<GDB_STOP>& GdbRun(const PROGRAM& p) {
  static std::map<std::string, std::vector<GDB_STOP>> s_Runs;
  if (s_Runs.count(p.sName)) return s_Runs[p.sName];
  std::ostringstream Cmds;
  for (size_t i = 0; i < p.Stops.size(); ++i) {
    Cmds << "break " << testsupport::MarkedLine(gdbtest::SourceDir(), p.sSource, p.Stops[i].sMark) << "\nignore $bpnum "
         << p.Stops[i].Hits - 1 << "\necho @@BP" << i << "\\n\ninfo breakpoints\ncontinue\necho @@ARGS" << i
         << "\\n\nframe apply all -s info args\necho @@LOCALS" << i << "\\n\nframe apply all -s info locals\n";
    for (const char* g : p.Globals) Cmds << "echo @@G" << i << g << "\\n\nprint " << g << "\n";
    Cmds << "echo @@END\\n\ndelete\n";
  }
  const auto Parts = testsupport::SplitAtMarkers(
      testsupport::RunGdbOnQemu(ElfPath(p.sName).toStdString(), Cmds.str(), "/tmp/tavit-symbols-" + std::string(p.sName)));
  std::vector<GDB_STOP>& r = s_Runs[p.sName];
  static const std::regex Loc(R"(\s0x([0-9a-f]+)\s+in\s)"), Print(R"(\$\d+ = (.*))");
  for (size_t i = 0; i < p.Stops.size(); ++i) {
    GDB_STOP s;
    const std::string Bp = Parts.count("BP" + std::to_string(i)) ? Parts.at("BP" + std::to_string(i)) : "";
    for (auto m = std::sregex_iterator(Bp.begin(), Bp.end(), Loc); m != std::sregex_iterator(); ++m)
      s.Addresses.push_back(U32(std::stoul((*m)[1], nullptr, 16)));
    s.Frames = testsupport::ParseGdbFrameVariables(Parts.count("ARGS" + std::to_string(i)) ? Parts.at("ARGS" + std::to_string(i)) : "");
    const auto Locals = testsupport::ParseGdbFrameVariables(Parts.count("LOCALS" + std::to_string(i)) ? Parts.at("LOCALS" + std::to_string(i)) : "");
    s.Frames.resize(std::max(s.Frames.size(), Locals.size()));
    for (size_t k = 0; k < Locals.size(); ++k) s.Frames[k].insert(Locals[k].begin(), Locals[k].end());
    for (const char* g : p.Globals) {
      const std::string Key = "G" + std::to_string(i) + g;
      std::smatch m;
      const std::string Text = Parts.count(Key) ? Parts.at(Key) : "";
      if (std::regex_search(Text, m, Print)) s.Globals[g] = m[1];
    }
    r.push_back(s);
  }
  return r;
}

// A value gdb prints as a plain number, and the first word of ours.
bool IsNumber(const std::string& s) { return std::regex_match(s, std::regex(R"(-?\d+)")); }
// Digit groups may be set apart by a thin space.
std::string FirstWord(const QString& s) {
  std::string Out;
  for (QChar c : s) {
    if (c.isDigit() || c == '-') Out += char(c.unicode());
    else if (!c.isSpace() || c == ' ') break;
  }
  return Out;
}

void ExpectSame(const VARS& Gdb, const std::map<QString, QStringList>& Ours, const std::string& sWhat) {
  for (const auto& [sName, sValue] : Gdb) {
    if (sName.empty()) continue;
    SCOPED_TRACE(sWhat + " " + sName + " = " + sValue);
    if (sValue != "<optimized out>" && !IsNumber(sValue)) continue;
    const auto it = Ours.find(QString::fromStdString(sName));
    ASSERT_NE(it, Ours.end()) << "no row";
    const QString sOurs = it->second.value(0);
    if (sValue == "<optimized out>") EXPECT_TRUE(sOurs.isEmpty()) << it->second.join('|').toStdString();
    else EXPECT_EQ(FirstWord(sOurs), sValue) << it->second.join('|').toStdString();
  }
}

class SymbolsOracle : public CSymbolsTargetSuite<::testing::TestWithParam<std::tuple<BACKEND, PROGRAM>>> {
 protected:
  void SetUp() override {
    CSymbolsTargetSuite::SetUp();
    if (!devtest::CTargetRig::HaveQemu() || RunToolOutput("command -v gdb-multiarch").empty())
      GTEST_SKIP() << "emulator or gdb missing";
  }
};

TEST_P(SymbolsOracle, LocalsAndWatchesEqualGdbs) {
  const PROGRAM& p = std::get<1>(GetParam());
  const std::vector<GDB_STOP>& g = GdbRun(p);
  Start(std::get<0>(GetParam()), p.sName);
  CWatchDataModel& w = CWatchDataModel::Instance();
  for (const char* s : p.Globals) ASSERT_EQ(Run(AID_WATCH_ADD, s), 0);
  CLocalsDataModel& l = CLocalsDataModel::Instance();
  int Compared = 0;
  for (size_t i = 0; i < p.Stops.size(); ++i) {
    SCOPED_TRACE(std::string(p.sName) + " stop " + std::to_string(i) + " " + p.Stops[i].sMark);
    ASSERT_FALSE(g[i].Addresses.empty());
    RunTo(g[i].Addresses, p.Stops[i].Hits);
    // gdb's frames by function, in order; a tail call frame that gdb makes
    // up from call-site information has no counterpart.
    size_t j = 0;
    for (int k = 0; k < CCallStack::Instance().FrameCount() && j < g[i].Frames.size(); ++k) {
      CCallStack::Instance().SetSelectedFrame(k);
      l.ShowFrame(k);
      if (l.FunctionName().isEmpty()) break;
      while (j < g[i].Frames.size() && g[i].Frames[j].at("") != l.FunctionName().toStdString()) ++j;
      if (j == g[i].Frames.size()) break;
      l.ReadAllNow();
      ExpectSame(g[i].Frames[j], RowsByName(&l), "frame " + std::to_string(k) + " " + l.Title().toStdString());
      Compared += int(g[i].Frames[j++].size()) - 1;
    }
    CCallStack::Instance().SetSelectedFrame(0);
    w.Reevaluate();
    w.ReadAllNow();
    ASSERT_EQ(g[i].Globals.size(), p.Globals.size());
    ExpectSame(g[i].Globals, RowsByName(&w), "watched");
  }
  EXPECT_GT(Compared, int(p.Stops.size()));
}

INSTANTIATE_TEST_SUITE_P(Backends, SymbolsOracle,
                         ::testing::Combine(::testing::Values(kSimMps2, devtest::kQemu), ::testing::ValuesIn(kPrograms)),
                         [](const auto& i) {
                           std::string s = std::string(std::get<0>(i.param).sName) + "_" + std::get<1>(i.param).sName;
                           std::replace(s.begin(), s.end(), '-', '_');
                           return s;
                         });

}  // namespace
