// Call stacks against gdb: the test programs run on the emulator's MPS2
// machine under gdb-multiarch to a series of breakpoints (deep recursion, an
// exception handler, -O2 code with inlining and tail calls), and gdb prints
// every frame. The same programs run to the same breakpoints on each back end
// (the simulator's MPS2 board and the emulator behind its GDB server), and
// the call stack rows exported from the window's model must name the same
// frames: function, PC, CFA, return address, source line.
#include <gtest/gtest.h>

#include "commands/actions.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "stack/callstack.h"
#include "target_support.h"
#include "testsupport/gdb_frames.h"
#include "testsupport/process.h"
#include "testsupport/testapp.h"
#include "ui/callstack/callstackmodel.h"
#include "ui/framework/viewexport.h"

#include <QApplication>
#include <QElapsedTimer>
#include <fstream>
#include <regex>

namespace {

using devtest::BACKEND;
using testsupport::GDB_FRAME;

struct STOP {
  const char* sMark;  // a comment in the source marks the line
  int Hits;           // counted from the previous stop
};
struct PROGRAM {
  const char* sName;  // firmware/tests/elf/<name>.elf
  const char* sSource;
  std::vector<STOP> Stops;
};

const std::vector<STOP> kUnwindStops = {{"STOP_BOTTOM", 1}, {"STOP_RECURSE_BACK", 1}, {"STOP_RECURSE_BACK", 10},
                                        {"STOP_MIX", 1},    {"STOP_INNER", 1},        {"STOP_IRQ", 1},
                                        {"STOP_MAIN", 1},   {"STOP_BOTTOM", 1},       {"STOP_MIX", 1},
                                        {"STOP_IRQ", 1}};
const PROGRAM kPrograms[] = {
    {"unwind-O0", "unwind.c", kUnwindStops},
    {"unwind-O2", "unwind.c", kUnwindStops},
    {"frames-O0", "frames_main.c", {{"STOP_IN_LEAF", 1}, {"STOP_IN_LEAF", 2}, {"STOP_IN_LEAF", 4}}},
    {"frames-O2", "frames_main.c", {{"STOP_IN_LEAF", 1}, {"STOP_IN_LEAF", 2}, {"STOP_IN_LEAF", 4}}},
    {"inline3", "inline3.c", {{"/* MIX_LINE */", 1}, {"/* MIX_LINE */", 1}, {"/* MIX_LINE */", 1}, {"/* MIX_LINE */", 2}}},
};

std::string ElfPath(const PROGRAM& p) { return gdbtest::SourceDir() + "/firmware/tests/elf/" + p.sName + ".elf"; }

int MarkLine(const PROGRAM& p, const char* sMark) {
  std::ifstream f(gdbtest::SourceDir() + "/firmware/tests/" + p.sSource);
  std::string s;
  for (int n = 1; std::getline(f, s); ++n)
    if (s.find(sMark) != std::string::npos) return n;
  return 0;
}

// What gdb saw at each stop: the breakpoint's addresses and the frames.
struct GDB_RUN {
  std::vector<std::vector<uint64_t>> Addresses;
  std::vector<std::vector<GDB_FRAME>> Frames;
};

const GDB_RUN& GdbRun(const PROGRAM& p) {
  static std::map<std::string, GDB_RUN> s_Runs;
  auto It = s_Runs.find(p.sName);
  if (It != s_Runs.end()) return It->second;
  std::ostringstream Cmds;
  Cmds << "set backtrace past-main on\nset backtrace past-entry on\n";
  for (size_t i = 0; i < p.Stops.size(); ++i) {
    Cmds << "break " << p.sSource << ":" << MarkLine(p, p.Stops[i].sMark) << "\n";
    if (p.Stops[i].Hits > 1) Cmds << "ignore $bpnum " << p.Stops[i].Hits - 1 << "\n";
    Cmds << "echo @@BP" << i << "\\n\ninfo breakpoints\ncontinue\necho @@STOP" << i
         << "\\n\nbt\nframe apply all -s info frame\necho @@END\\n\ndelete\n";
  }
  const std::string Out =
      testsupport::RunGdbOnQemu(ElfPath(p), Cmds.str(), "/tmp/tavit-callstack-" + std::string(p.sName));
  const std::map<std::string, std::string> Parts = testsupport::SplitAtMarkers(Out);
  GDB_RUN r;
  static const std::regex Loc(R"(\s0x([0-9a-f]+)\s+in\s)");
  for (size_t i = 0; i < p.Stops.size(); ++i) {
    std::vector<uint64_t> a;
    const std::string Bp = Parts.count("BP" + std::to_string(i)) ? Parts.at("BP" + std::to_string(i)) : "";
    for (auto m = std::sregex_iterator(Bp.begin(), Bp.end(), Loc); m != std::sregex_iterator(); ++m)
      a.push_back(std::stoull((*m)[1], nullptr, 16));
    r.Addresses.push_back(a);
    const std::string St = Parts.count("STOP" + std::to_string(i)) ? Parts.at("STOP" + std::to_string(i)) : "";
    r.Frames.push_back(testsupport::ParseGdbFrames(St));
  }
  return s_Runs[p.sName] = r;
}

// One exported row of the call stack.
struct ROW {
  std::string Function, StackInfo, Source, Pc, Return, Frame;
};

std::vector<ROW> ExportRows(CCallStackDataModel& Model, std::string& sStop) {
  EXPECT_TRUE(Model.UnwindForExport(10000));
  const QStringList Lines = WIN_ModelLines(&Model);
  std::vector<ROW> Rows;
  for (int i = 1; i < Lines.size(); ++i) {
    const QStringList c = Lines[i].split('\t');
    if (c.size() < CS_COL_COUNT || (c[0].startsWith("Top of stack") && c[3].isEmpty())) {
      sStop = c.value(0).toStdString();
      continue;
    }
    Rows.push_back({c[0].toStdString(), c[1].toStdString(), c[2].toStdString(), c[3].toStdString(),
                    c[4].toStdString(), c[5].toStdString()});
  }
  return Rows;
}

uint64_t HexOf(const std::string& s) {
  const size_t x = s.rfind("0x");
  return x == std::string::npos ? ~0ull : std::stoull(s.substr(x + 2), nullptr, 16);
}

// gdb's frames that Tavit is to show: up to an exception entry or a frame
// without symbols.
size_t Comparable(const std::vector<GDB_FRAME>& g) {
  size_t n = 0;
  while (n < g.size() && !g[n].signal && !g[n].function.empty()) ++n;
  return n;
}

const BACKEND kSimMps2{"sim", "MPS2-AN385", "USB", "", "", "", 0x20010000, true};

struct HALTS : CDeviceEventListener {
  int n = 0;
  void OnDeviceHaltDone(U32, HALT_REASONS) override { ++n; }
};

class CallStackOracle : public ::testing::TestWithParam<std::tuple<BACKEND, PROGRAM>> {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QApplication>();
    InstallHeadlessDeviceApp();
    DWARF_Install();
    s_pModel = new CCallStackDataModel(&CCallStack::Instance());
  }
  void SetUp() override {
    const BACKEND& b = std::get<0>(GetParam());
    if (!devtest::CTargetRig::HaveQemu() || RunToolOutput("command -v gdb-multiarch").empty())
      GTEST_SKIP() << "emulator or gdb missing";
    m_pRig = std::make_unique<devtest::CTargetRig>(b);
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_DEVICE, b.sDevice), 0);
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_HOST_IF, b.sHostIF, m_pRig->Ident()), 0);
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_TARGET_IF, "SWD"), 0);
  }
  void TearDown() override {
    if (CDevice* d = CDevice::InstanceIfCreated()) {
      d->PostClearAllBPs();
      d->PostDisconnect();
      d->WaitIdle(10000);
    }
    m_pRig.reset();
  }
  I64 Run(int Id, const QVariant& a = {}) {
    ExecAction(Id, a);
    WaitForCommand(Id);
    return GetActionResult(Id);
  }
  bool WaitHalts(HALTS& h, int n) {
    QElapsedTimer t;
    t.start();
    while (h.n < n && t.elapsed() < 10000) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    return h.n >= n;
  }
  static CCallStackDataModel* s_pModel;
  std::unique_ptr<devtest::CTargetRig> m_pRig;
};
CCallStackDataModel* CallStackOracle::s_pModel = nullptr;

TEST_P(CallStackOracle, FramesEqualGdbs) {
  const PROGRAM& p = std::get<1>(GetParam());
  const GDB_RUN& g = GdbRun(p);
  ASSERT_EQ(g.Frames.size(), p.Stops.size());
  const QString sElf = QString::fromStdString(ElfPath(p));
  ASSERT_EQ(CElfApi::Instance().Load(sElf), 0);
  ASSERT_EQ(Run(AID_EXEC_CONNECT), 0);
  ASSERT_EQ(Run(AID_EXEC_DOWNLOAD, sElf), 0);
  ASSERT_EQ(Run(AID_EXEC_RESET), 0);
  CDevice* d = Device();
  d->PostClearAllBPs();
  for (size_t i = 0; i < p.Stops.size(); ++i) {
    SCOPED_TRACE(std::string(p.sName) + " stop " + std::to_string(i) + " " + p.Stops[i].sMark);
    ASSERT_FALSE(g.Addresses[i].empty());
    ASSERT_GE(g.Frames[i].size(), 1u);
    for (uint64_t a : g.Addresses[i]) ASSERT_EQ(d->PostSetBP(U32(a), BP_STATE_ON, BP_TYPE_ANY), 0);
    HALTS h;
    for (int k = 0; k < p.Stops[i].Hits; ++k) {
      ASSERT_EQ(d->PostContinue(), 0);
      ASSERT_TRUE(WaitHalts(h, k + 1)) << "no halt";
    }
    std::string sStop;
    const std::vector<ROW> Rows = ExportRows(*s_pModel, sStop);
    // gdb rebuilds frames of tail calls from call-site information; a
    // tail call leaves no frame on the target, so the unwinder has none.
    std::vector<GDB_FRAME> G;
    for (const GDB_FRAME& f : g.Frames[i]) {
      if (!f.tailCall) G.push_back(f);
      else if (!G.empty()) G.back().hasSavedPc = false;  // gdb gives the guessed frame's PC
    }
    const size_t n = Comparable(G);
    std::string sRows;
    for (const ROW& r : Rows) sRows += r.Function + " | " + r.Source + " | " + r.Pc + " | " + r.Return + " | " + r.Frame + "\n";
    std::string sGdb;
    for (const GDB_FRAME& f : G)
      sGdb += "gdb " + f.function + (f.inlined ? " (inline)" : "") + (f.signal ? " <signal>" : "") + " " + f.file + ":" +
              std::to_string(f.line) + "\n";
    SCOPED_TRACE(sRows + sStop + "\n" + sGdb);
    ASSERT_EQ(Rows.size(), n);
    EXPECT_EQ(sStop.rfind("Top of stack - ", 0), 0u);
    for (size_t k = 0; k < n; ++k) {
      const ROW& r = Rows[k];
      SCOPED_TRACE("frame " + std::to_string(k));
      EXPECT_EQ(r.Function, G[k].function);
      const bool BelowInline = k > 0 && G[k - 1].inlined;
      if (k == 0) EXPECT_EQ(HexOf(r.Pc), G[k].pc);
      else if (!BelowInline) EXPECT_TRUE(G[k].pc - HexOf(r.Pc) == 2 || G[k].pc - HexOf(r.Pc) == 4) << r.Pc;
      if (!G[k].inlined && G[k].hasCfa) EXPECT_EQ(HexOf(r.Frame), G[k].cfa);
      if (!G[k].inlined && G[k].hasSavedPc && k + 1 < n) EXPECT_EQ(HexOf(r.Return), G[k].savedPc);
      if (G[k].inlined) EXPECT_EQ(r.Return.rfind("<inline>: 0x", 0), 0u) << r.Return;
      const std::string File = G[k].file.substr(G[k].file.rfind('/') + 1);
      if (!BelowInline) EXPECT_EQ(r.Source, File + ":" + std::to_string(G[k].line));
      else EXPECT_EQ(r.Source.substr(0, r.Source.find(':')), File);
    }
    // Where gdb goes on through an exception entry, the return address
    // there is the exception return value.
    if (n < G.size() && G[n].signal) EXPECT_NE(sStop.find("return address out of range: 0xFFFFFF"), std::string::npos);
    for (uint64_t a : g.Addresses[i]) d->PostClearBP(U32(a));
    d->WaitIdle(5000);
  }
}

std::string Name(const ::testing::TestParamInfo<std::tuple<BACKEND, PROGRAM>>& i) {
  std::string s = std::string(std::get<0>(i.param).sName) + "_" + std::get<1>(i.param).sName;
  for (char& c : s)
    if (!isalnum(c)) c = '_';
  return s;
}

INSTANTIATE_TEST_SUITE_P(Backends, CallStackOracle,
                         ::testing::Combine(::testing::Values(kSimMps2, devtest::kQemu), ::testing::ValuesIn(kPrograms)),
                         Name);

// The rows without a window, in a batch run: after a reset the stack is the
// reset handler alone, at the address nm gives, and the stop row ends it.
class CallStackBatch : public devtest::CBackendBatch {};

TEST_P(CallStackBatch, ExportAfterResetShowsTheResetHandler) {
  devtest::CTargetRig Rig(GetParam());
  const QString sElf = QString::fromStdString(gdbtest::SourceDir() + "/firmware/tests/elf/unwind-O0.elf");
  QStringList Lines = Setup(Rig);
  Lines << QStringLiteral("File.Open(\"%1\")").arg(sElf) << "Exec.Connect()"
        << QStringLiteral("Exec.Download(\"%1\")").arg(sElf) << "Exec.Reset()"
        << "Window.Export(\"Call Stack\", \"-\")";
  testsupport::RUN_OPTIONS o;
  o.TimeoutMs = 60000;
  const testsupport::RUN r = testsupport::RunBatch(Dir.filePath("cmds.txt"), Lines.join('\n').toUtf8() + "\n", {}, o);
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_EQ(r.Exit, 0);
  const QString Nm = QString::fromStdString(RunToolOutput("arm-none-eabi-nm " + sElf.toStdString()));
  const auto m = QRegularExpression(QStringLiteral("^([0-9a-f]+) T Reset_Handler$"), QRegularExpression::MultilineOption).match(Nm);
  ASSERT_TRUE(m.hasMatch());
  const QString Pc = QStringLiteral("0x%1").arg(m.captured(1).toUInt(nullptr, 16) & ~1u, 8, 16, QLatin1Char('0')).toUpper().replace("0X", "0x");
  EXPECT_TRUE(r.Out.contains("Function\tStack Info\tSource\tPC\tReturn Address\tFrame Address\n"));
  EXPECT_TRUE(r.Out.contains(QRegularExpression("\nReset_Handler\t0 @ 0x[0-9A-F]{8}\tunwind.c:\\d+\t" + Pc + "\t")));
  EXPECT_TRUE(r.Out.contains("\nTop of stack - "));
}

INSTANTIATE_TEST_SUITE_P(Backends, CallStackBatch, ::testing::Values(kSimMps2, devtest::kQemu), devtest::PrintBackend);

}  // namespace
