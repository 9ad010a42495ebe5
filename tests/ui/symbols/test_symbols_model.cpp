// The data window models without a target: watched expressions (the entry
// row, Watch.Insert's swaps, refresh rates, the user file lines and random
// lines), and the function list of a program with an inline function placed
// in three callers, its breakpoint marks and the find pop-up's order.
#include "commands/actions.h"
#include "device/headless_app.h"
#include "disasm/instinstall.h"
#include "plugins/corehost.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "probe/gdb/qemu_util.h"
#include "testsupport/randomtext.h"
#include "testsupport/testapp.h"
#include "testsupport/tools.h"
#include "ui/symbols/functionswindow.h"
#include "ui/symbols/symbolsmodule.h"
#include "ui/symbols/symbolsmodel.h"

#include <QApplication>
#include <QStringListModel>
#include <gtest/gtest.h>

namespace {

class SymbolsModel : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QApplication>();
    InstallHeadlessDeviceApp();
    DWARF_Install();
    SymbolsModule::Install();
    DisasmModule::Install();
  }
  void SetUp() override { W().ClearExpressions(); }
  static CWatchDataModel& W() { return CWatchDataModel::Instance(); }
};

TEST_F(SymbolsModel, RatesMapAndInsertSwapsRows) {
  const std::pair<int, int> Rates[] = {{-3, 0}, {0, 0}, {1, 1}, {2, 2}, {4, 2}, {5, 5}, {60, 5}};
  for (auto [In, Out] : Rates) EXPECT_EQ(CWatchDataModel::MapRate(In), Out) << In;
  for (const char* s : {"a", "b", "c"}) W().AddExpression(s);
  W().SetRate(0, 2);
  W().InsertBefore("a", "c");  // both exist: they change places, attributes with them
  EXPECT_EQ(W().ExpressionTexts(), (QStringList{"c", "b", "a"}));
  EXPECT_EQ(W().Item(2).RateHz, 2);
  W().InsertBefore("d", "b");  // b gives way to a new expression
  EXPECT_EQ(W().ExpressionTexts(), (QStringList{"c", "d", "a"}));
  W().InsertBefore("c", "zz");  // no such row: to the end
  EXPECT_EQ(W().ExpressionTexts(), (QStringList{"d", "a", "c"}));
  W().InsertBefore("a", "a");
  EXPECT_EQ(W().ExpressionTexts(), (QStringList{"d", "a", "c"}));
}

TEST_F(SymbolsModel, EntryRowAndEditsAreCommands) {
  CWatchDataModel& m = W();
  EXPECT_EQ(m.rowCount(), 1);
  EXPECT_TRUE(m.flags(m.index(0, 0)) & Qt::ItemIsEditable);
  ASSERT_TRUE(m.setData(m.index(0, 0), "unknown_name"));
  WaitForCommand(AID_WATCH_ADD);
  ASSERT_EQ(m.rowCount(), 2) << "the new row and a new entry row";
  EXPECT_EQ(m.index(0, SYM_COL_NAME).data().toString(), "unknown_name");
  EXPECT_TRUE(m.index(0, SYM_COL_VALUE).data().toString().isEmpty());
  EXPECT_TRUE(m.index(1, SYM_COL_NAME).data().toString().isEmpty());
  m.SetRate(0, 5);
  ASSERT_TRUE(m.setData(m.index(0, 0), "other_name"));  // the row's text replaced, its rate kept
  EXPECT_EQ(m.ExpressionTexts(), QStringList{"other_name"});
  EXPECT_EQ(m.Item(0).RateHz, 5);
  EXPECT_EQ(m.index(0, SYM_COL_REFRESH).data().toString(), "5 Hz");
  EXPECT_EQ(ExecuteCommand("Watch.Remove(\"nothing\")"), 1);
  EXPECT_EQ(m.ExpressionCount(), 1);
  ExecAction(AID_WATCH_REMOVE, "other_name");
  WaitForCommand(AID_WATCH_REMOVE);
  EXPECT_EQ(m.ExpressionCount(), 0);
}

TEST_F(SymbolsModel, UserLinesRoundTripAndRandomLinesAreHarmless) {
  const QStringList Lines{"WatchedExpression=\"g_x, y\"", "WatchedExpression=\"p->q\", RefreshRate=2, DisplayFormat=DISPLAY_FORMAT_HEX",
                          "WatchedExpression=\"s\", RefreshRate=3, MemoryZone=\"AHB-AP\""};
  W().ReadUserLines(Lines);
  EXPECT_EQ(W().ExpressionTexts(), (QStringList{"g_x, y", "p->q", "s"}));
  EXPECT_EQ(W().Item(2).RateHz, 2) << "3 Hz maps to 2";
  EXPECT_EQ(W().Item(2).Zone, "AHB-AP");
  EXPECT_EQ(W().index(2, SYM_COL_TYPE).data().toString(), " via AHB-AP") << "no type for a name that does not resolve";
  QStringList Expected = Lines;
  Expected[2].replace("RefreshRate=3", "RefreshRate=2");
  EXPECT_EQ(W().WriteUserLines(), Expected);
  testsupport::RandomText r({"WatchedExpression=", "RefreshRate=", "DisplayFormat=", "MemoryZone=", "\"", ",", "\\", "DISPLAY_FORMAT_"},
                            {Lines.join('\n').toStdString()}, 22);
  for (int i = 0; i < 3000; ++i) {
    W().ClearExpressions();
    const std::string t = i % 2 ? r.Text(1, 12, 3, testsupport::RandomText::Byte)
                                : r.Mutate(Lines.join('\n').toStdString(), 6, testsupport::RandomText::Byte);
    W().ReadUserLines(QString::fromStdString(t).split('\n'));
    for (const QString& l : W().WriteUserLines()) ASSERT_TRUE(l.startsWith("WatchedExpression=\"")) << l.toStdString();
  }
}

TEST_F(SymbolsModel, FunctionListFoldsInlineCopiesAndMarksBreakpoints) {
  const QString sElf = QString::fromStdString(gdbtest::SourceDir() + "/firmware/tests/elf/inline3.elf");
  ASSERT_EQ(CElfApi::Instance().Load(sElf), 0);
  ASSERT_GE(LoadCorePlugin(0x0E0000FF), 0);  // "#Insts" counts through the instruction analysis
  DisasmModule::Sync(true);
  CFunctionsWindow w;
  CFunctionsDataModel& m = *w.FuncModel();
  QStringList Names;
  for (int r = 0; r < m.TopCount(); ++r) Names << m.Top(r)->name;
  for (const char* s : {"first", "second", "third", "main"}) EXPECT_TRUE(Names.contains(s)) << s;
  // mix lives in the three callers only: its item has three instances,
  // and "#Insts" of the first.
  ELF_SYM_HANDLE hMix = 0;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    hMix = ELF_FindName(CElfApi::Instance().GetFile(), "mix");
  }
  ASSERT_NE(hMix, 0u);
  const FUNC_ITEM Mix = CFunctionsDataModel::MakeItem(hMix, true);
  ASSERT_EQ(Mix.instances.size(), 3);
  EXPECT_EQ(Mix.instCount, Mix.instances[0]->instCount);
  for (const FUNC_ITEM* c : Mix.instances) {
    EXPECT_TRUE(c->address && c->size && c->isInlined && c->name == "mix");
    EXPECT_GT(c->instCount, 0u);
  }
  qDeleteAll(Mix.instances);
  EXPECT_TRUE(CFunctionsDataModel::MakeItem(0, true).name.isEmpty());
  const std::string Nm = RunToolOutput("arm-none-eabi-nm " + sElf.toStdString() + " | grep ' T first$'");
  const int First = int(Names.indexOf("first"));
  EXPECT_EQ(m.index(First, FUNC_COL_ADDRESS).data().toString().toUInt(nullptr, 16), std::stoul(Nm, nullptr, 16) & ~1ul);
  EXPECT_GT(m.Top(First)->instCount, 0u);
  EXPECT_EQ(w.GetFuncNames(false), (QStringList{"Fault_Handler", "first", "main", "Reset_Handler", "second", "third"}));
  EXPECT_EQ(w.GetFuncInfo(QModelIndex()), nullptr);
}

TEST_F(SymbolsModel, FindPopupPutsEarlierMatchesFirst) {
  QStringListModel Src(QStringList{"ab_mix", "mix", "remix", "other"});
  CCompletionModel c;
  c.setSourceModel(&Src);
  c.SetText("MIX");
  QStringList Order;
  for (int r = 0; r < c.rowCount(); ++r) Order << c.index(r, 0).data().toString();
  EXPECT_EQ(Order, (QStringList{"mix", "remix", "ab_mix"}));
  c.SetText("");
  EXPECT_EQ(c.rowCount(), 4);
  EXPECT_EQ(CFindSymbolWidget::ShowSymbol(0, "no_such_function"), -1);
}

}  // namespace
