// Call stacks against gdb: the test programs run on the emulator's MPS2
// machine under gdb-multiarch to a series of breakpoints (deep recursion, an
// exception handler, -O2 code with inlining and tail calls), and gdb prints
// every frame. The same programs run to the same breakpoints on each back end
// (the simulator's MPS2 board, the emulator behind its GDB server), and the
// rows exported from the call stack window's model must name the same frames:
// function, PC, CFA, return address, source line.
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
#include <regex>

namespace {

using devtest::BACKEND;
using testsupport::GDB_FRAME;

struct STOP {
  const char* sMark;  // a comment in the source marks the line
  int Hits;           // counted from the previous stop
};
struct PROGRAM {
  const char *sName, *sSource;  // firmware/tests/elf/<name>.elf
  std::vector<STOP> Stops;
};

const std::vector<STOP> kUnwindStops = {{"STOP_BOTTOM", 1}, {"STOP_RECURSE_BACK", 1}, {"STOP_RECURSE_BACK", 10},
                                        {"STOP_MIX", 1},    {"STOP_INNER", 1},        {"STOP_IRQ", 1},
                                        {"STOP_MAIN", 1},   {"STOP_BOTTOM", 1},       {"STOP_MIX", 1},
                                        {"STOP_IRQ", 1}};
const std::vector<STOP> kLeafStops = {{"STOP_IN_LEAF", 1}, {"STOP_IN_LEAF", 2}, {"STOP_IN_LEAF", 4}};
const PROGRAM kPrograms[] = {{"unwind-O0", "unwind.c", kUnwindStops},
                             {"unwind-O2", "unwind.c", kUnwindStops},
                             {"frames-O0", "frames_main.c", kLeafStops},
                             {"frames-O2", "frames_main.c", kLeafStops},
                             {"inline3", "inline3.c", {{"/* MIX_LINE */", 1}, {"/* MIX_LINE */", 1}, {"/* MIX_LINE */", 1}, {"/* MIX_LINE */", 2}}}};
const BACKEND kSimMps2{"sim", "MPS2-AN385", "USB", "", "", "", 0x20010000, true};

std::string ElfPath(const char* sName) { return gdbtest::SourceDir() + "/firmware/tests/elf/" + sName + ".elf"; }

// What gdb saw at each stop: the breakpoint's addresses and the frames.
struct GDB_RUN {
  std::vector<std::vector<uint64_t>> Addresses;
  std::vector<std::vector<GDB_FRAME>> Frames;
};

const GDB_RUN& GdbRun(const PROGRAM& p) {
  static std::map<std::string, GDB_RUN> s_Runs;
  if (s_Runs.count(p.sName)) return s_Runs[p.sName];
  std::ostringstream Cmds;
  Cmds << "set backtrace past-main on\nset backtrace past-entry on\n";
  for (size_t i = 0; i < p.Stops.size(); ++i)
    Cmds << "break " << testsupport::MarkedLine(gdbtest::SourceDir(), p.sSource, p.Stops[i].sMark) << "\nignore $bpnum " << p.Stops[i].Hits - 1
         << "\necho @@BP" << i << "\\n\ninfo breakpoints\ncontinue\necho @@STOP" << i
         << "\\n\nbt\nframe apply all -s info frame\necho @@END\\n\ndelete\n";
  std::map<std::string, std::string> Parts = testsupport::SplitAtMarkers(
      testsupport::RunGdbOnQemu(ElfPath(p.sName), Cmds.str(), "/tmp/tavit-callstack-" + std::string(p.sName)));
  GDB_RUN& r = s_Runs[p.sName];
  static const std::regex Loc(R"(\s0x([0-9a-f]+)\s+in\s)");
  for (size_t i = 0; i < p.Stops.size(); ++i) {
    const std::string& Bp = Parts["BP" + std::to_string(i)];
    r.Addresses.emplace_back();
    for (auto m = std::sregex_iterator(Bp.begin(), Bp.end(), Loc); m != std::sregex_iterator(); ++m)
      r.Addresses.back().push_back(std::stoull((*m)[1], nullptr, 16));
    // A tail call leaves no frame on the target; gdb rebuilds one from
    // call-site information, and its callee's saved PC is then that guess.
    r.Frames.emplace_back();
    for (const GDB_FRAME& f : testsupport::ParseGdbFrames(Parts["STOP" + std::to_string(i)])) {
      if (!f.tailCall) r.Frames.back().push_back(f);
      else if (!r.Frames.back().empty()) r.Frames.back().back().hasSavedPc = false;
    }
  }
  return r;
}

uint64_t HexOf(const QString& s) { return s.mid(s.lastIndexOf("0x") + 2).toULongLong(nullptr, 16); }

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
    if (!devtest::CTargetRig::HaveQemu() || RunToolOutput("command -v gdb-multiarch").empty())
      GTEST_SKIP() << "emulator or gdb missing";
    const BACKEND& b = std::get<0>(GetParam());
    m_pRig = std::make_unique<devtest::CTargetRig>(b);
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_DEVICE, b.sDevice), 0);
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_HOST_IF, b.sHostIF, m_pRig->Ident()), 0);
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_TARGET_IF, "SWD"), 0);
  }
  void TearDown() override {
    if (CDevice* d = CDevice::InstanceIfCreated()) d->PostClearAllBPs(), d->PostDisconnect(), d->WaitIdle(10000);
    m_pRig.reset();
  }
  I64 Run(int Id, const QVariant& a = {}) {
    ExecAction(Id, a);
    WaitForCommand(Id);
    return GetActionResult(Id);
  }
  static CCallStackDataModel* s_pModel;
  std::unique_ptr<devtest::CTargetRig> m_pRig;
};
CCallStackDataModel* CallStackOracle::s_pModel = nullptr;

TEST_P(CallStackOracle, FramesEqualGdbs) {
  const PROGRAM& p = std::get<1>(GetParam());
  const GDB_RUN& g = GdbRun(p);
  const QString sElf = QString::fromStdString(ElfPath(p.sName));
  ASSERT_EQ(CElfApi::Instance().Load(sElf), 0);
  ASSERT_EQ(Run(AID_EXEC_CONNECT), 0);
  ASSERT_EQ(Run(AID_EXEC_DOWNLOAD, sElf), 0);
  ASSERT_EQ(Run(AID_EXEC_RESET), 0);
  CDevice* d = Device();
  d->PostClearAllBPs();
  for (size_t i = 0; i < p.Stops.size(); ++i) {
    SCOPED_TRACE(std::string(p.sName) + " stop " + std::to_string(i) + " " + p.Stops[i].sMark);
    ASSERT_FALSE(g.Addresses[i].empty());
    for (uint64_t a : g.Addresses[i]) ASSERT_EQ(d->PostSetBP(U32(a), BP_STATE_ON, BP_TYPE_ANY), 0);
    HALTS h;
    QElapsedTimer t;
    for (int k = 0; k < p.Stops[i].Hits; ++k) {
      ASSERT_EQ(d->PostContinue(), 0);
      for (t.start(); h.n <= k && t.elapsed() < 10000;) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
      ASSERT_GT(h.n, k) << "no halt";
    }
    ASSERT_TRUE(s_pModel->UnwindForExport(10000));
    const QStringList Lines = WIN_ModelLines(s_pModel);
    SCOPED_TRACE(Lines.join('\n').toStdString());
    const std::vector<GDB_FRAME>& G = g.Frames[i];
    // gdb's frames up to an exception entry; the unwinder stops there, at
    // the EXC_RETURN value.
    size_t n = 0;
    while (n < G.size() && !G[n].signal && !G[n].function.empty()) ++n;
    ASSERT_EQ(size_t(Lines.size()), n + 2);
    EXPECT_TRUE(Lines.last().startsWith("Top of stack - "));
    if (n < G.size() && G[n].signal) EXPECT_TRUE(Lines.last().contains("return address out of range: 0xFFFFFF"));
    for (size_t k = 0; k < n; ++k) {
      SCOPED_TRACE("frame " + std::to_string(k));
      const QStringList c = Lines[int(k) + 1].split('\t');
      ASSERT_EQ(c.size(), CS_COL_COUNT);
      const GDB_FRAME& f = G[k];
      EXPECT_EQ(c[CS_COL_FUNCTION].toStdString(), f.function);
      const bool BelowInline = k > 0 && G[k - 1].inlined;
      const uint64_t Pc = HexOf(c[CS_COL_PC]);
      if (k == 0) EXPECT_EQ(Pc, f.pc);
      else if (!BelowInline) EXPECT_TRUE(f.pc - Pc == 2 || f.pc - Pc == 4) << Pc;  // the call before the return address
      if (!f.inlined && f.hasCfa) EXPECT_EQ(HexOf(c[CS_COL_FRAME]), f.cfa);
      if (!f.inlined && f.hasSavedPc && k + 1 < n) EXPECT_EQ(HexOf(c[CS_COL_RETURN]), f.savedPc);
      if (f.inlined) EXPECT_TRUE(c[CS_COL_RETURN].startsWith("<inline>: 0x"));
      const std::string File = f.file.substr(f.file.rfind('/') + 1), Src = c[CS_COL_SOURCE].toStdString();
      EXPECT_EQ(BelowInline ? Src.substr(0, Src.find(':')) : Src, BelowInline ? File : File + ":" + std::to_string(f.line));
    }
    for (uint64_t a : g.Addresses[i]) d->PostClearBP(U32(a));
    d->WaitIdle(5000);
  }
}

INSTANTIATE_TEST_SUITE_P(Backends, CallStackOracle,
                         ::testing::Combine(::testing::Values(kSimMps2, devtest::kQemu), ::testing::ValuesIn(kPrograms)),
                         [](const auto& i) {
                           std::string s = std::string(std::get<0>(i.param).sName) + "_" + std::get<1>(i.param).sName;
                           std::replace(s.begin(), s.end(), '-', '_');
                           return s;
                         });

// The rows without a window, in a batch run: after a reset the stack is the
// reset handler alone, at the address nm gives, and the stop row ends it.
class CallStackBatch : public devtest::CBackendBatch {};

TEST_P(CallStackBatch, ExportAfterResetShowsTheResetHandler) {
  devtest::CTargetRig Rig(GetParam());
  const QString sElf = QString::fromStdString(ElfPath("unwind-O0"));
  const QStringList Lines = Setup(Rig) << QStringLiteral("File.Open(\"%1\")").arg(sElf) << "Exec.Connect()"
                                       << QStringLiteral("Exec.Download(\"%1\")").arg(sElf) << "Exec.Reset()"
                                       << "Window.Export(\"Call Stack\", \"-\")";
  const testsupport::RUN r = testsupport::RunBatch(Dir.filePath("cmds.txt"), Lines.join('\n').toUtf8() + "\n");
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_EQ(r.Exit, 0);
  const std::string Nm = RunToolOutput("arm-none-eabi-nm " + sElf.toStdString() + " | grep ' T Reset_Handler'");
  const QString Pc = QStringLiteral("0x%1").arg(std::stoul(Nm, nullptr, 16) & ~1ul, 8, 16, QLatin1Char('0')).toUpper().replace("0X", "0x");
  EXPECT_TRUE(r.Out.contains("Function\tStack Info\tSource\tPC\tReturn Address\tFrame Address\n"));
  EXPECT_TRUE(r.Out.contains(QRegularExpression("\nReset_Handler\t0 @ 0x[0-9A-F]{8}\tunwind.c:\\d+\t" + Pc + "\t")));
  EXPECT_TRUE(r.Out.contains("\nTop of stack - "));
}

INSTANTIATE_TEST_SUITE_P(Backends, CallStackBatch, ::testing::Values(kSimMps2, devtest::kQemu), devtest::PrintBackend);

}  // namespace
