// The breakpoint model over a device that applies each job at once: derived
// addresses of a source line against the cross toolchain's line table,
// refresh with mixed states, editing and the condition flag, the limits of a
// line, connect and download, and the window's rows.
#include <gtest/gtest.h>

#include "device/bpmodel.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "target_support.h"
#include "testsupport/randomtext.h"
#include "testsupport/testapp.h"
#include "ui/breakpoints/bpwindow.h"

#include <QApplication>
#include <QRegularExpression>
#include <QTreeView>
#include <map>

namespace {

// The device tables as the worker keeps them, with the jobs in a log.
class CFakeDevice : public IBreakpointDevice {
 public:
  bool Connected = false;
  std::map<U32, DEVICE_BP> Bps;
  QStringList Log;
  std::map<U32, bool> Cond;
  bool IsConnected() const override { return Connected; }
  std::vector<DEVICE_BP> Breakpoints() const override {
    std::vector<DEVICE_BP> v;
    for (const auto& [a, b] : Bps) v.push_back(b);
    return v;
  }
  DEVICE_BP GetBreakpoint(U32 Addr) const override {
    auto It = Bps.find(Addr);
    return It == Bps.end() ? DEVICE_BP{} : It->second;
  }
  std::vector<WP> Watchpoints() const override { return {}; }
  std::vector<TP> Tracepoints() const override { return {}; }
  void SetBPHasCondition(U32 Addr, bool On) override { Cond[Addr] = On; }
  int PostSetBP(U32 Addr, BP_STATES State, BP_TYPES Type) override {
    Log << QStringLiteral("SetBP %1 %2").arg(Addr, 0, 16).arg(State);
    Set(Addr, State, Type);
    return 0;
  }
  int PostSetBPs(const std::vector<U32>& a, BP_STATES St, BP_TYPES Ty) override {
    for (U32 x : a) Set(x, St, Ty);
    return Log << QStringLiteral("SetBPs %1").arg(a.size()), 0;
  }
  int PostClearBP(U32 Addr) override { Log << QStringLiteral("ClearBP %1").arg(Addr, 0, 16); Bps.erase(Addr); return 0; }
  int PostClearBPs(const std::vector<U32>& a) override {
    for (U32 x : a) Bps.erase(x);
    return Log << QStringLiteral("ClearBPs %1").arg(a.size()), 0;
  }
  int PostClearAllBPs() override { Bps.clear(); Log << "ClearAll"; return 0; }
  int PostResetBPs() override { Log << "ResetBPs"; return 0; }
  int PostSetWPs(const std::vector<WP>&) override { return 0; }  // data breakpoints and tracepoints:
  int PostClearWPs(const std::vector<WP>&) override { return 0; }  // the batch tests on both back ends
  int PostClearAllWPs() override { return 0; }
  int PostSetTPs(const std::vector<TP>&) override { return 0; }
  int PostClearTPs(const std::vector<TP>&) override { return 0; }
  int PostClearAllTPs() override { return 0; }
  void WaitForBreakpointJobs() override {}

 private:
  void Set(U32 Addr, BP_STATES State, BP_TYPES Type) {
    if (State == BP_STATE_OFF) Bps.erase(Addr);
    if (State == BP_STATE_OFF || Addr == 0) return;
    DEVICE_BP& b = Bps[Addr];
    b.Addr = Addr;
    b.State = State;
    b.Type = Type;
    b.ImplType = BP_TYPE_HARD;
    b.Occupied = 1;
  }
};

// A program whose every line has N code addresses.
struct CWideLines : IBreakpointProgram {
  int N = 0;
  QList<U32> LocAddresses(const CSrcLoc&) override {
    QList<U32> v;
    for (int i = 0; i < N; ++i) v << U32(0x1000 + 4 * i);
    return v;
  }
  CSrcLoc NextLocWithCode(const CSrcLoc& l) override { return l; }
  CSrcLoc LocOfAddr(U32) override { return {}; }
  QString LocText(const CSrcLoc&) override { return {}; }
  QString SourceText(U32) override { return {}; }
  bool ParseLocation(const QString&, CSrcLoc*) override { return false; }
  bool ParseAddress(const QString&, U64*) override { return false; }
};

const QString kInline3 = QStringLiteral("firmware/tests/elf/inline3.elf");

// The line of the inline function's body and, for each function that holds
// it, the first address of that line, from nm and objdump's line table.
std::vector<U32> OracleBlocks(int* pLine) {
  const QString Src = QString::fromUtf8(devtest::ReadFileText(devtest::SourcePath("firmware/tests/inline3.c")));
  *pLine = int(Src.left(Src.indexOf("/* MIX_LINE */")).count('\n')) + 1;
  const std::string sElf = devtest::SourcePath(kInline3.toUtf8()).toStdString();
  const QString Dump = QString::fromStdString(RunToolOutput("arm-none-eabi-objdump --dwarf=decodedline " + sElf));
  const QString Nm = QString::fromStdString(RunToolOutput("arm-none-eabi-nm -S " + sElf));
  std::map<U32, U32> Funcs;  // start -> end
  static const QRegularExpression Fn(QStringLiteral(R"(^([0-9a-f]+) ([0-9a-f]+) [Tt] )"), QRegularExpression::MultilineOption);
  for (auto It = Fn.globalMatch(Nm); It.hasNext();) {
    const auto m = It.next();
    const U32 a = m.captured(1).toUInt(nullptr, 16) & ~1u;
    Funcs[a] = a + m.captured(2).toUInt(nullptr, 16);
  }
  std::map<U32, U32> First;  // function start -> lowest address of the line
  static const QRegularExpression Row(QStringLiteral(R"(^inline3\.c\s+(\d+)\s+0x([0-9a-f]+))"), QRegularExpression::MultilineOption);
  for (auto It = Row.globalMatch(Dump); It.hasNext();) {
    const auto m = It.next();
    if (m.captured(1).toInt() != *pLine) continue;
    const U32 a = m.captured(2).toUInt(nullptr, 16);
    auto f = Funcs.upper_bound(a);
    if (f == Funcs.begin() || a >= (--f)->second) continue;
    auto [Pos, New] = First.emplace(f->first, a);
    if (!New && a < Pos->second) Pos->second = a;
  }
  std::vector<U32> v;
  for (const auto& [f, a] : First) v.push_back(a);
  return v;
}

class BreakpointModel : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    DWARF_Install();
    ASSERT_EQ(CElfApi::Instance().Load(devtest::SourcePath(kInline3.toUtf8())), 0);
    // The program names its sources under /tavit/firmware.
    BP_SetSourceLineReader([](const QString& sPath, U32 Line) {
      QString s = QString::fromUtf8(devtest::ReadFileText(QString(sPath).replace("/tavit/firmware", devtest::SourcePath("firmware"))));
      return s.split('\n').value(int(Line) - 1);
    });
  }
  CFakeDevice Dev;
  CBreakpointsDataModel Model{&Dev};
  CSrcLoc MixLoc(int* pLine = nullptr) {
    int Line = 0;
    OracleBlocks(&Line);
    if (pLine) *pLine = Line;
    CSrcLoc l;
    EXPECT_TRUE(Model.Prog().ParseLocation(QStringLiteral("inline3.c:%1").arg(Line), &l));
    return l;
  }
};

TEST_F(BreakpointModel, InlinedLineGivesOneDerivedBreakpointPerPlace) {
  int Line = 0;
  const std::vector<U32> Oracle = OracleBlocks(&Line);
  ASSERT_EQ(Oracle.size(), 3u) << "the compiler placed the body three times";
  const CSrcLoc Loc = MixLoc();
  const QList<U32> Addrs = Model.LocAddresses(Loc);
  EXPECT_EQ(std::vector<U32>(Addrs.begin(), Addrs.end()), Oracle);
  ASSERT_EQ(Model.SetSourceBP(Loc, BP_STATE_ON, BP_TYPE_ANY), 0);
  EXPECT_EQ(Dev.Log, QStringList{"SetBPs 3"}) << "one job carries the whole line";
  Model.Refresh();
  ASSERT_EQ(Model.AddressMap().size(), 3);
  for (const CBreakpointInfo& b : Model.AddressMap()) EXPECT_EQ(b.Derived, 1);
  EXPECT_TRUE(Model.AddressMap().first().SourceText.contains("v * 2654435761u")) << "the line's text, simplified";
  Model.SetSourceBP(CSrcLoc(Loc.file, Loc.line, 5), BP_STATE_ON, BP_TYPE_ANY);
  EXPECT_EQ(Model.SourceMap().size(), 1) << "the column takes no part in the key";
  ASSERT_EQ(Model.ClearSourceBP(Loc), 0);
  Model.Refresh();
  EXPECT_TRUE(Model.AddressMap().isEmpty() && Model.SourceMap().isEmpty());
}

TEST_F(BreakpointModel, RandomLocationTextsResolveOrFailCleanly) {
  testsupport::RandomText Gen({"inline3.c", "startup.c", ":", "0x", "main", "first", "\"", "8", "99999999999", "-1", "/"},
                              {"inline3.c:8", "inline3.c:8:5", "first", "0xa8"}, 5);
  for (int i = 0; i < 3000; ++i) {
    const QString s = QString::fromStdString(Gen.Text(1, 6, 3, testsupport::RandomText::Character));
    CSrcLoc l;
    U64 a = 0;
    if (Model.Prog().ParseLocation(s, &l)) EXPECT_FALSE(l.IsNull()) << s.toStdString();
    Model.Prog().ParseAddress(s, &a);
  }
}

TEST_F(BreakpointModel, RefreshMixesStatesAndTypesOfDerivedEntries) {
  const CSrcLoc Loc = MixLoc();
  Model.SetSourceBP(Loc, BP_STATE_ON, BP_TYPE_ANY);
  const QList<U32> a = Model.LocAddresses(Loc);
  Dev.Bps[a[1]].ImplType = BP_TYPE_FLASH;
  Model.Refresh();
  EXPECT_EQ(Model.FindSource(Loc)->State, BP_STATE_ON);
  EXPECT_EQ(Model.FindSource(Loc)->ActualImpl, BP_TYPE_MIXED);
  Dev.Bps[a[2]].State = BP_STATE_DISABLED;
  Dev.Bps[a[1]].ImplType = BP_TYPE_HARD;
  Model.Refresh();
  EXPECT_EQ(Model.FindSource(Loc)->State, BP_STATE_MIXED);
  // Setting a mixed entry again keeps each address's own state.
  Dev.Log.clear();
  Model.SetSourceBP(Loc, BP_STATE_MIXED, BP_TYPE_ANY);
  EXPECT_EQ(Dev.Log.size(), 3);
  EXPECT_EQ(Dev.Bps[a[2]].State, BP_STATE_DISABLED);
  EXPECT_EQ(Dev.Bps[a[0]].State, BP_STATE_ON);
  Dev.Bps.erase(a[0]);
  Model.Refresh();
  EXPECT_EQ(Model.AddressMap().size(), 2) << "an entry the device dropped leaves the window";
}

TEST_F(BreakpointModel, EditSetsTheConditionFlagOnlyForWhatTheHaltMustEvaluate) {
  const CSrcLoc Loc = MixLoc();
  Model.SetSourceBP(Loc, BP_STATE_ON, BP_TYPE_ANY);
  Model.Refresh();
  const QList<U32> a = Model.LocAddresses(Loc);
  struct { const char* sCond; int Skip; const char* sTask; const char* sMsg; bool Flag; } k[] = {
      {"x > 1", 0, "", "", true}, {"", 2, "", "", true}, {"", 0, "idle", "", true}, {"", 0, "", "hit", false}};
  for (const auto& c : k) {
    CBreakpointInfo e;
    e.Loc = Loc;
    e.Condition = c.sCond;
    e.SkipCount = c.Skip;
    e.TaskName = c.sTask;
    e.ConsoleMsg = c.sMsg;
    ASSERT_TRUE(Model.Edit(e));
    for (U32 x : a) EXPECT_EQ(Dev.Cond[x], c.Flag) << c.sCond << c.Skip << c.sTask << c.sMsg;
    EXPECT_EQ(Model.FindAddr(a[2])->ConsoleMsg, QString(c.sMsg)) << "derived entries take the fields";
  }
  // Fields survive a refresh; editing what is not set fails.
  Model.Refresh();
  EXPECT_EQ(Model.FindSource(Loc)->ConsoleMsg, "hit");
  CBreakpointInfo None;
  QString sErr;
  EXPECT_FALSE(Model.Edit(None, &sErr));
  EXPECT_EQ(sErr, "cannot edit breakpoint: breakpoint is not set");
}

TEST_F(BreakpointModel, ConnectAppliesAtOnceOrAfterTheProgramDownload) {
  bool HasFile = true;
  Model.SetHasProgramFile([&] { return HasFile; });
  Model.SetBP(0x100, BP_STATE_ON, BP_TYPE_HARD);
  Dev.Log.clear();
  Model.OnDeviceConnectDone(CM_DOWNLOAD_RESET);
  EXPECT_TRUE(Dev.Log.isEmpty()) << "waits for the download";
  Model.OnDataFileDownloaded("prog.elf");
  EXPECT_EQ(Dev.Log, QStringList{"SetBP 100 1"});
  Model.OnDataFileDownloaded("prog.elf");
  EXPECT_EQ(Dev.Log.size(), 1) << "once per connect";
  HasFile = false;
  for (CONNECT_MODES m : {CM_ATTACH, CM_ATTACH_HALT, CM_DOWNLOAD_RESET}) {
    Dev.Log.clear();
    Model.OnDeviceConnectDone(m);
    EXPECT_EQ(Dev.Log, QStringList{"SetBP 100 1"});
  }
  // Hit counters reset after a reset, except for modes 3 and 5.
  Dev.Log.clear();
  for (int m : {0, 3, 5, 2}) Model.OnDeviceResetDone(0, RESET_MODES(m));
  EXPECT_EQ(Dev.Log, (QStringList{"ResetBPs", "ResetBPs"}));
}

TEST_F(BreakpointModel, StopActionsRunInOrderOnlyAtAnEnabledBreakpoint) {
  QStringList Calls;
  Model.SetStopHooks({[&](const QString& f) { Calls << "call " + f; },
                      [&](const QString& t, const QString& m) { Calls << t + ": " + m; }});
  Model.SetBP(0x300, BP_STATE_ON, BP_TYPE_ANY);
  Model.Refresh();
  CBreakpointInfo e;
  e.Addr = 0x300;
  e.ScriptCallback = "OnHit";
  e.PopupMsg = "stopped";
  ASSERT_TRUE(Model.Edit(e));
  EXPECT_FALSE(Dev.Cond[0x300]) << "actions alone need no evaluation";
  Model.OnDeviceHaltDone(0x300, HALT_REASON_BREAKPOINT);
  Model.RunStopActions(0x304);
  EXPECT_EQ(Calls, (QStringList{"call OnHit", "Breakpoint: stopped"}));
  Model.SetBP(0x300, BP_STATE_DISABLED, BP_TYPE_ANY);
  Model.Refresh();
  Model.RunStopActions(0x300);
  EXPECT_EQ(Calls.size(), 2);
}

TEST(BreakpointModelLimits, At256DerivedAddressesAndOneMore) {
  CFakeDevice Dev;
  CWideLines Prog;
  CBreakpointsDataModel Model(&Dev, &Prog);
  Prog.N = 257;
  EXPECT_EQ(Model.SetSourceBP(CSrcLoc(1, 10), BP_STATE_ON, BP_TYPE_ANY), -1);
  EXPECT_EQ(Model.ClearSourceBP(CSrcLoc(1, 10)), -1);
  EXPECT_TRUE(Dev.Log.isEmpty());
  EXPECT_TRUE(Model.SourceMap().isEmpty());
  Prog.N = 256;
  EXPECT_EQ(Model.SetSourceBP(CSrcLoc(1, 10), BP_STATE_ON, BP_TYPE_ANY), 0);
  EXPECT_EQ(Dev.Bps.size(), 256u);
  // A line without code still refreshes the window through a no-op job.
  Prog.N = 0;
  Dev.Log.clear();
  Model.SetSourceBP(CSrcLoc(1, 11), BP_STATE_ON, BP_TYPE_ANY);
  EXPECT_EQ(Dev.Log, QStringList{"SetBP 0 0"});
}

TEST(BreakpointTexts, ExtrasAndDataBreakpoints) {
  CFakeDevice Dev;
  CWideLines Prog;
  CBreakpointsDataModel Model(&Dev, &Prog);
  struct { const char* sCond; bool Trig; const char* sTask; int Skip; bool Reload; const char* sCall; const char* sExpect; } k[] = {
      {"i == 3", true, "main", 2, true, "", "When i == 3 changes in task main and 2 skipped (reload)"},
      {"", false, "idle", 0, false, "f", "Task idle, call f"},
      {"", false, "", 4, false, "", "Skip 4"},
      {"", false, "", 0, false, "", ""}};
  for (const auto& c : k) {
    CBreakpointInfo b;
    b.Condition = c.sCond;
    b.TriggerOnChange = c.Trig;
    b.TaskName = c.sTask;
    b.SkipCount = c.Skip;
    b.ReloadSkip = c.Reload;
    b.ScriptCallback = c.sCall;
    EXPECT_EQ(CBreakpointsDataModel::JoinParts(Model.ExtrasParts(b)), QString(c.sExpect));
  }
  CBreakpointInfo b;
  b.PopupMsg = "x";
  b.PermittedImpl = BP_TYPE_SOFT;
  b.SourceText = "i++;";
  EXPECT_EQ(CBreakpointsDataModel::JoinParts(Model.ExtrasParts(b)), "show message, Type=BP_TYPE_SOFT, i++;");
  Dev.Connected = true;
  b.ActualImpl = BP_TYPE_HARD;
  EXPECT_EQ(CBreakpointsDataModel::JoinParts(Model.ExtrasParts(b)), "show message, i++;");

  WP w{.Addr = 0x20000010, .AddrMask = 0xF, .MatchValue = 0x1234, .ValueMask = 0xFFFF0000u, .ErrCode = I32(0x80000006u),
       .AccessType = AT_READ_WRITE, .AccessSize = 4};
  EXPECT_EQ(BP_DataBreakpointError(w), "Error setting data breakpoint @ 0x20000010: no more address comparision units");
  w.ErrCode = I32(0x80000100u);
  EXPECT_EQ(BP_DataBreakpointError(w), "") << "an unknown code gives no message";
  EXPECT_EQ(CBreakpointsDataModel::DataBreakpointText(w),
            "Read/Write, Word, Addr = 0x20000010 - 0x2000001F, Value & 0x0000FFFF = 0x00001234");
}

TEST_F(BreakpointModel, WindowRowsAndEmptyMessage) {
  if (!qApp) NewTestApp<QApplication>();
  CBreakpointWindow Win(&Model);
  EXPECT_EQ(Win.EmptyText(), "No breakpoints set");
  const CBreakpointItemModel& m = *Win.ItemModel();
  EXPECT_EQ(m.headerData(1, Qt::Horizontal).toString(), "Location");
  Model.SetSourceBP(MixLoc(), BP_STATE_ON, BP_TYPE_ANY);
  Model.SetBP(0x200, BP_STATE_DISABLED, BP_TYPE_ANY);
  Model.Refresh();
  Win.Rebuild();
  EXPECT_EQ(Win.EmptyText(), "");
  const QModelIndex Code = m.index(0, 0);
  EXPECT_TRUE(m.data(Code).toString().startsWith("Breakpoints"));
  EXPECT_TRUE(m.data(m.index(1, 0)).toString().startsWith("Data Breakpoints"));
  ASSERT_EQ(m.rowCount(Code), 2) << "the source line and the address; derived entries are not rows";
  EXPECT_EQ(m.data(m.index(0, 0, Code)).toString(), "Code");
  EXPECT_TRUE(m.data(m.index(0, 1, Code)).toString().startsWith("inline3.c:"));
  EXPECT_EQ(m.data(m.index(1, 1, Code)).toString(), "0x00000200");
  EXPECT_TRUE(m.data(m.index(1, 0, Code), Qt::ForegroundRole).isValid()) << "disabled rows are grey";
}

}  // namespace
