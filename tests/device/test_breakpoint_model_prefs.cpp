// Breakpoint records of the user preference file: round trips of each kind
// with the fields that differ from an empty record, the refusals with their
// texts, and random lines under the sanitizers.
#include <gtest/gtest.h>

#include "device/bpmodel.h"
#include "testsupport/randomtext.h"

namespace {

CBreakpointInfo Bp(BP_STATES State, const char* sCond, int Skip, const char* sMsg, BP_TYPES Type = BP_TYPE_ANY) {
  CBreakpointInfo b;
  b.State = State;
  b.Condition = sCond;
  b.SkipCount = Skip;
  b.ConsoleMsg = sMsg;
  b.PermittedImpl = Type;
  return b;
}

TEST(BreakpointUserFile, BreakpointRecordsRoundTrip) {
  struct { CBreakpointInfo b; const char* sLoc; const char* sLine; } k[] = {
      {Bp(BP_STATE_ON, "", 0, ""), "0x8000100", "Breakpoint=0x8000100, State=BP_STATE_ON"},
      {Bp(BP_STATE_DISABLED, "i > 3", 2, "hit here", BP_TYPE_HARD), "main.c:12",
       "Breakpoint=main.c:12, Permitted Impl.=BP_TYPE_HARD, State=BP_STATE_DISABLED, Condition=\"i > 3\", SkipCount=2, "
       "ConsoleMsg=\"hit here\""},
      {Bp(BP_STATE_ON, "a,b", 0, ""), "my dir/x.c:3", "Breakpoint=\"my dir/x.c:3\", State=BP_STATE_ON, Condition=\"a,b\""},
  };
  for (const auto& c : k) {
    const QString sLine = BP_FormatBreakpoint(c.b, c.sLoc);
    EXPECT_EQ(sLine, QString(c.sLine));
    BP_USER_RECORD r;
    QStringList Err;
    ASSERT_TRUE(BP_ParseUserLine(sLine, &r, &Err)) << sLine.toStdString();
    EXPECT_TRUE(Err.isEmpty());
    EXPECT_EQ(r.Kind, 0);
    EXPECT_EQ(r.HasAddr, QString(c.sLoc).startsWith("0x"));
    // What was read writes the same line again.
    EXPECT_EQ(BP_FormatBreakpoint(r.Bp, r.HasAddr ? QString(c.sLoc) : r.sLoc), sLine);
  }
}

TEST(BreakpointUserFile, DataBreakpointsAndTracepointsRoundTrip) {
  WP w;
  w.Addr = 0x20000040;
  w.AddrMask = 3;
  w.AccessType = AT_READ_WRITE;
  w.AccessSize = 4;
  w.ValueMask = 0xFF;
  w.State = BP_STATE_ON;
  const QString sW = BP_FormatDataBreakpoint(w);
  EXPECT_EQ(sW, "DataBreakpoint=0x20000040, AddrMask=0x3, AccessType=AT_READ_WRITE, AccessSize=AW_WORD, ValueMask=0xFF, "
                "State=BP_STATE_ON");
  BP_USER_RECORD r;
  ASSERT_TRUE(BP_ParseUserLine(sW, &r, nullptr));
  EXPECT_EQ(r.Kind, 1);
  EXPECT_EQ(BP_FormatDataBreakpoint(r.Wp), sW);
  EXPECT_FALSE(BP_ParseUserLine("DataBreakpoint=0x20000040", &r, nullptr)) << "a record left BP_STATE_UNKNOWN is dropped";
  TP t;
  t.Addr = 0x8000200;
  t.Op = TP_OP_STOP;
  t.State = BP_STATE_ON;
  EXPECT_EQ(BP_FormatTracepoint(t, "0x8000200"), "Tracepoint=0x8000200, Type=TP_OP_STOP, State=BP_STATE_ON");
  ASSERT_TRUE(BP_ParseUserLine(BP_FormatTracepoint(t, "main.c:4"), &r, nullptr));
  EXPECT_EQ(r.Tp.FromSource, 1);
  EXPECT_EQ(BP_FormatTracepoint(r.Tp, r.sLoc), "Tracepoint=main.c:4, Type=TP_OP_STOP, State=BP_STATE_ON");
}

TEST(BreakpointUserFile, BadFieldsAreRefusedWithTheirTexts) {
  struct { const char* sLine; bool Ok; const char* sError; } k[] = {
      {"Breakpoint=0x100, State=7", false, "configuration error. not a valid breakpoint state"},
      {"Breakpoint=0x100, Permitted Impl.=BP_TYPE_FAST", false, "configuration error. not a valid breakpoint type"},
      {"Breakpoint=0x100, Permitted Impl.=7", false, "configuration error. not a valid breakpoint type"},
      {"DataBreakpoint=0x4, AccessType=AT_SOMETIMES, State=1", false, "configuration error. not a valid access type"},
      {"DataBreakpoint=0x4, AccessSize=3, State=1", false, "configuration error. not a valid access size"},
      {"Tracepoint=0x4, Type=2", false, "configuration error. not a valid tracepoint operation"},
      {"Tracepoint=0x4, State=6", false, "configuration error. not a valid breakpoint state"},
      {"Breakpoint=0x100, State=BP_STATE_ON, oops, SkipCount=4", true,
       "Syntax error in user preference file (.vdebug.user): oops"},
  };
  for (const auto& c : k) {
    BP_USER_RECORD r;
    QStringList Err;
    EXPECT_EQ(BP_ParseUserLine(c.sLine, &r, &Err), c.Ok) << c.sLine;
    EXPECT_EQ(Err, QStringList{c.sError}) << c.sLine;
  }
  BP_USER_RECORD r;
  BP_ParseUserLine("Breakpoint=0x100, State=BP_STATE_ON, oops, SkipCount=4", &r, nullptr);
  EXPECT_EQ(r.Bp.SkipCount, 4) << "the fields after a bad one load";
}

TEST(BreakpointUserFile, RandomLinesNeitherCrashNorHang) {
  testsupport::RandomText Gen({"Breakpoint=", "DataBreakpoint=", "Tracepoint=", ", ", "=", "\"", "State=", "Type=",
                               "Permitted Impl.=", "AccessType=", "AccessSize=", "ValueMask=", "0x", "BP_STATE_ON",
                               "BP_TYPE_HARD", "AT_READ_ONLY", "AW_WORD", "TP_OP_STOP", "main.c:3", "-1", "99999999999999999999"},
                              {"Breakpoint=0x100, State=BP_STATE_ON, Condition=\"i > 3\"",
                               "DataBreakpoint=g_x, AccessSize=AW_WORD, State=1", "Tracepoint=0x10, Type=1, State=1"},
                              17);
  for (int i = 0; i < 20000; ++i) {
    const std::string s = (i & 1) ? Gen.Text(1, 20, 4, testsupport::RandomText::Character)
                                   : Gen.Mutate(Gen.Text(1, 3, 0, testsupport::RandomText::Printable), 6,
                                                testsupport::RandomText::Byte);
    BP_USER_RECORD r;
    QStringList Err;
    if (BP_ParseUserLine(QString::fromUtf8(s), &r, &Err) && r.Kind == 1) {
      EXPECT_NE(r.Wp.State, BP_STATE_UNKNOWN);
      EXPECT_LT(strnlen(r.Wp.Symbol, sizeof r.Wp.Symbol), sizeof r.Wp.Symbol);
    }
  }
}

}  // namespace
