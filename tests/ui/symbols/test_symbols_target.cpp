// The data windows on both back ends: watched expressions (a structure, an
// array element, an unknown name) and a structure opened in the view, the
// locals of a caller frame of a recursion, values written through the data
// cache (a bit field keeps its neighbours), the reasons a value cannot be
// written, expressions kept in the user file, and the live refresh limit
// counted in the probe call log.
#include "symbols_target.h"
#include "testsupport/consolelines.h"
#include "testsupport/files.h"
#include "testsupport/testapp.h"
#include "ui/framework/tableview.h"
#include "ui/symbols/framedata.h"
#include "ui/symbols/symbolswindow.h"

#include <QApplication>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

namespace {

using namespace symtest;

class SymbolsTarget : public CSymbolsTargetSuite<devtest::CBackendBatch> {};

U32 HexOf(QString s) { return s.remove("0x").remove(QRegularExpression("[^0-9A-Fa-f]")).toUInt(nullptr, 16); }

U32 AddressOf(const char* sName) {
  int Kind = 0;
  return U32(ResolveToAddress(sName, Kind).start);
}

TEST_P(SymbolsTarget, WatchesAndCallerLocals) {
  Start(GetParam(), "frames-O0");
  RunTo(MarkAddresses("frames_main.c", "STOP_IN_LEAF"), 2);
  CWatchWindow w;
  w.resize(900, 500);
  w.show();
  for (const char* s : {"g_pair", "arr[2]", "no_such_name"}) ASSERT_EQ(Run(AID_WATCH_ADD, s), 0) << s;
  EXPECT_NE(Run(AID_WATCH_ADD, "  "), 0);
  CWatchDataModel& m = *w.WatchModel();
  ASSERT_EQ(m.rowCount(), 4) << "three rows and the entry row";
  // Rows come from the view's reads of what is on screen.
  QTRY_COMPARE_WITH_TIMEOUT(m.index(1, SYM_COL_VALUE).data().toString().isEmpty(), false, 5000);
  const U32 Pair = AddressOf("g_pair");
  EXPECT_EQ(m.index(0, SYM_COL_TYPE).data().toString(), "struct pair");
  EXPECT_EQ(HexOf(m.index(0, SYM_COL_LOCATION).data().toString()), Pair);
  const U32 ArrAt = HexOf(m.index(1, SYM_COL_LOCATION).data().toString());
  EXPECT_EQ(m.index(1, SYM_COL_VALUE).data().toString().section(' ', 0, 0).toLongLong(), I32(Run(AID_TARGET_READ_U_32, ArrAt)));
  EXPECT_EQ(m.index(2, SYM_COL_NAME).data().toString(), "no_such_name");
  EXPECT_TRUE(m.index(2, SYM_COL_VALUE).data().toString().isEmpty());
  EXPECT_TRUE(m.index(2, SYM_COL_TYPE).data().toString().isEmpty());

  // The structure opened: its members with values.
  w.View()->expand(w.ToProxy(m.index(0, 0)));
  ASSERT_EQ(m.rowCount(m.index(0, 0)), 2);
  QTRY_COMPARE_WITH_TIMEOUT(m.index(1, SYM_COL_VALUE, m.index(0, 0)).data().toString().isEmpty(), false, 5000);
  EXPECT_EQ(m.index(0, 0, m.index(0, 0)).data().toString(), "a");
  EXPECT_EQ(m.index(0, SYM_COL_VALUE, m.index(0, 0)).data().toString().section(' ', 0, 0).toLongLong(),
            I32(Run(AID_TARGET_READ_U_32, Pair)));
  EXPECT_EQ(m.index(1, SYM_COL_VALUE, m.index(0, 0)).data().toString().section(' ', 0, 0).toLongLong(),
            I16(Run(AID_TARGET_READ_U_32, Pair + 4) & 0xFFFF));
  // A step keeps the rows and the expansion (merged, not rebuilt).
  const CSymbol* pBefore = m.Root(0);
  ASSERT_EQ(Run(AID_DEBUG_STEP_INTO), 0);
  Device()->WaitIdle(5000);
  w.Update(Device()->CurrentPC());
  EXPECT_EQ(m.Root(0), pBefore);
  EXPECT_TRUE(w.View()->isExpanded(w.ToProxy(m.index(0, 0))));

  // Local data of the caller frame.
  CLocalsWindow l;
  l.resize(900, 500);
  l.show();
  CCallStack::Instance().SetSelectedFrame(1);
  EXPECT_EQ(l.windowTitle(), "Local Data @ Middle");
  QString sError;
  TakeConsoleLines();
  ASSERT_EQ(WIN_Export("Local Data", "-", &sError), 0) << sError.toStdString();
  const QString sLocals = TakeConsoleLines().join('\n');
  for (const char* s : {"\nn\t", "\ntotal\t", "\nlocal\t", "\ni\t"}) EXPECT_TRUE(sLocals.contains(s)) << s << sLocals.toStdString();
  ASSERT_EQ(WIN_Export("Watched Data", "-", &sError), 0) << sError.toStdString();
  EXPECT_TRUE(TakeConsoleLines().join('\n').contains(QRegularExpression("\nno_such_name\t\t")));
}

TEST_P(SymbolsTarget, RecursionFramesShowTheirOwnLocals) {
  Start(GetParam(), "unwind-O0");
  RunTo(MarkAddresses("unwind.c", "STOP_RECURSE_BACK"), 3);
  CLocalsDataModel& l = CLocalsDataModel::Instance();
  for (int k : {0, 2}) {
    CCallStack::Instance().SetSelectedFrame(k);
    l.ShowFrame(k);
    l.ReadAllNow();
    EXPECT_EQ(l.Title(), "Local Data @ Recurse");
    // Stopped on the way back for the third time, at n = 3; frame k holds n = 3 + k.
    EXPECT_EQ(RowsByName(&l)["n"].value(0).section(' ', 0, 0), QString::number(3 + k));
  }
}

TEST_P(SymbolsTarget, EditingWritesThroughTheCache) {
  Start(GetParam(), "frames-O0");
  RunTo(MarkAddresses("frames_main.c", "STOP_IN_LEAF"), 1);
  CWatchDataModel& m = CWatchDataModel::Instance();
  ASSERT_EQ(Run(AID_WATCH_ADD, "g_tick"), 0);
  ASSERT_EQ(Run(AID_WATCH_ADD, "g_pair.a + 1"), 0);
  m.ReadAllNow();
  const U32 Tick = AddressOf("g_tick");
  ASSERT_TRUE(m.setData(m.index(0, SYM_COL_VALUE), "0x12345678"));
  Device()->WaitIdle(5000);
  EXPECT_EQ(U32(Run(AID_TARGET_READ_U_32, Tick)), 0x12345678u);
  EXPECT_TRUE(m.WhyNotWritable(m.Root(1)).contains("constant")) << m.WhyNotWritable(m.Root(1)).toStdString();
  EXPECT_FALSE(m.setData(m.index(1, SYM_COL_VALUE), "5"));

  // A 3-bit field at bit 4 of g_tick: only its bits change.
  CSymbolsDataModel Bits;
  auto p = std::make_unique<CSymbol>(0, "field", "unsigned int", SYM_LOC::Make(SYM_LOC_ADDR, Tick), 4, false, 0, nullptr);
  p->bitSize = 3;
  p->bitOffset = 4;
  Bits.InsertRoot(std::move(p));
  QString sError;
  ASSERT_EQ(Bits.WriteValue(Bits.Root(0), "5", &sError), 0) << sError.toStdString();
  Device()->WaitIdle(5000);
  EXPECT_EQ(U32(Run(AID_TARGET_READ_U_32, Tick)), (0x12345678u & ~0x70u) | (5u << 4));
  ASSERT_EQ(Bits.WriteValue(Bits.Root(0), "15", &sError), 0);
  Device()->WaitIdle(5000);
  EXPECT_EQ(U32(Run(AID_TARGET_READ_U_32, Tick)), (0x12345678u & ~0x70u) | (7u << 4)) << "cut to the field";
}

TEST_P(SymbolsTarget, ExpressionsSurviveReopenAndLiveRefreshIsLimited) {
  WriteAll(Dir.filePath("p.vdebug"), "void OnProjectLoad (void) {\n}\n");
  ASSERT_EQ(Run(AID_FILE_OPEN, Dir.filePath("p.vdebug")), 0);
  const QString sLog = Dir.filePath("calls.log");
  Start(GetParam(), "unwind-O0", sLog);
  ASSERT_EQ(Run(AID_WATCH_ADD, "g_sink"), 0);
  ASSERT_EQ(Run(AID_WATCH_ADD, "g_round"), 0);
  ASSERT_EQ(ExecuteCommand("Edit.RefreshRate(\"g_sink\", 4)"), 1);
  ASSERT_EQ(ExecuteCommand("Edit.DisplayFormat(\"g_round\", DISPLAY_FORMAT_HEX)"), 1);
  EXPECT_EQ(ExecuteCommand("Edit.RefreshRate(\"nothing\", 1)"), 1);
  CWatchDataModel& m = CWatchDataModel::Instance();
  EXPECT_EQ(m.Item(0).RateHz, 2);

  // While running, a 5 Hz row is read at most five times a second.
  CWatchWindow w;
  w.show();
  m.SetRate(0, 5);
  ASSERT_EQ(Device()->PostContinue(), 0);
  QTest::qWait(300);
  const int Before = m.Item(0).RefreshCount;
  const qsizetype LogBefore = devtest::ReadFileText(sLog).count("VORDENARM_Read");
  QTest::qWait(1000);
  const int Live = m.Item(0).RefreshCount - Before;
  const qsizetype Reads = devtest::ReadFileText(sLog).count("VORDENARM_Read") - LogBefore;
  EXPECT_TRUE(Device()->CanAccessMemory() ? Live >= 3 && Live <= 6 : Live == 0) << Live;
  EXPECT_LE(Reads, 6) << "probe reads in one second";
  EXPECT_EQ(m.Item(1).RefreshCount, 0) << "a row set to Off";
  ASSERT_EQ(Device()->PostHalt(), 0);
  QTest::qWait(200);
  const int Refreshes = m.Item(0).RefreshCount;
  for (int i = 0; i < 5; ++i) EXPECT_EQ(Run(AID_DEBUG_STEP_INTO), 0);
  QTest::qWait(100);
  EXPECT_FALSE(w.LiveTimer()->isActive() || m.Item(0).RefreshCount != Refreshes) << "live refresh while halted or stepping";

  Project().Close();
  EXPECT_EQ(m.ExpressionCount(), 0);
  EXPECT_TRUE(ReadAll(Dir.filePath("p.vdebug.user")).contains("WatchedExpression=\"g_round\", DisplayFormat=DISPLAY_FORMAT_HEX"));
  ASSERT_EQ(Run(AID_FILE_OPEN, Dir.filePath("p.vdebug")), 0);
  ASSERT_EQ(m.ExpressionTexts(), (QStringList{"g_sink", "g_round"}));
  EXPECT_EQ(m.Item(0).RateHz, 5);
  EXPECT_EQ(m.Item(1).Format, 16);
}

INSTANTIATE_TEST_SUITE_P(Backends, SymbolsTarget, ::testing::Values(kSimMps2, devtest::kQemu), devtest::PrintBackend);

}  // namespace
