// The diagnostic catalogue and its once-per-program reporter.
#include "log/console.h"
#include "log/diag.h"
#include "log/log.h"

#include <gtest/gtest.h>

#include <QThread>
#include <vector>

namespace {

std::vector<std::string> TakeTexts() {
  std::vector<std::string> v;
  ConsoleRingTake([&](const CONSOLE_ENTRY& e) { v.push_back(e.Text); });
  return v;
}

TEST(Diag, RowsAreRenderedWithDomainLevelAndCode) {
  DIAG_Init();
  const DIAG_ROW* r = DIAG_GetRow(0);
  ASSERT_NE(r, nullptr);
  EXPECT_EQ(r->Code, 1001u);
  EXPECT_STREQ(r->acFormat, "ELF warning (1001): insufficient memory.");
  r = DIAG_GetRow(23);
  EXPECT_EQ(r->Code, 1118u);
  EXPECT_STREQ(r->acFormat, "ELF error (1118): file not tagged with ELF magic number.");
  r = DIAG_GetRow(34);
  EXPECT_EQ(r->Code, 1133u);
  // The three target-check rows have no reporter code: the id counts.
  EXPECT_EQ(DIAG_GetRow(35)->Code, 1035u);
  EXPECT_EQ(DIAG_GetRow(38)->Code, 1024u);
  EXPECT_EQ(DIAG_GetRow(66)->Code, 1117u);
  EXPECT_EQ(DIAG_GetRow(5)->NumPercent, 3);
  EXPECT_EQ(DIAG_GetRow(74)->Code, 2074u);
  EXPECT_EQ(DIAG_GetRow(DIAG_NUM_ROWS), nullptr);
  EXPECT_EQ(DIAG_GetRow(-1), nullptr);
}

TEST(Diag, EveryRowHasAFormatThatFitsAndMatchesItsPercentCount) {
  for (int i = 0; i < DIAG_NUM_ROWS; ++i) {
    const DIAG_ROW* r = DIAG_GetRow(i);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->Id, U32(i));
    EXPECT_LT(strlen(r->acFormat), sizeof(r->acFormat) - 1);
    int n = 0;
    for (const char* p = r->acFormat; *p; ++p) n += *p == '%';
    EXPECT_EQ(n, r->NumPercent) << i;
  }
}

TEST(Diag, ReporterCodesMapToRows) {
  EXPECT_EQ(DIAG_RowFromElfCode(1), 0);
  EXPECT_EQ(DIAG_RowFromElfCode(23), 22);
  EXPECT_EQ(DIAG_RowFromElfCode(118), 23);
  EXPECT_EQ(DIAG_RowFromElfCode(133), 34);
  EXPECT_EQ(DIAG_RowFromElfCode(24), 38);
  EXPECT_EQ(DIAG_RowFromElfCode(34), 48);
  EXPECT_EQ(DIAG_RowFromElfCode(100), 49);
  EXPECT_EQ(DIAG_RowFromElfCode(117), 66);
  for (int c : {0, -1, 35, 99, 129, 132, 134}) EXPECT_EQ(DIAG_RowFromElfCode(c), -1) << c;
}

TEST(Diag, FormatFillsArgumentsAndHint) {
  EXPECT_EQ(DIAG_Format(31 + 14, 0x1234u), "ELF warning (1031): no call frame information for PC 0x1234.");
  EXPECT_EQ(DIAG_Format(73, "line 3: syntax error"), "Project error (2073): script interpretation failure: line 3: syntax error.");
  EXPECT_EQ(DIAG_Format(81, "/tmp/t.log"), "logging terminal content to /tmp/t.log.");
  EXPECT_EQ(DIAG_FormatHint(24),
            "ELF error (1119): not an executable ELF file. Refer to the user guide and application logfile for further information.");
  EXPECT_EQ(DIAG_Format(999), QString());
}

TEST(Diag, ReportShowsATextOncePerProgramAndFromWorkersAlways) {
  SetUiThread();
  ConsoleRingStart();
  DIAG_NewEpoch();
  ReportDiagnostic(2, ".debug_info");
  ReportDiagnostic(2, ".debug_info");
  ReportDiagnostic(2, ".debug_line");  // another text
  auto v = TakeTexts();
  ASSERT_EQ(v.size(), 2u);
  EXPECT_EQ(v[0], "ELF warning (1003): ELF data section .debug_info is empty..");
  DIAG_NewEpoch();  // a new program: the text may show again
  ReportDiagnostic(2, ".debug_info");
  EXPECT_EQ(TakeTexts().size(), 1u);
  QThread* t = QThread::create([] {
    ReportDiagnostic(2, ".debug_info");
    ReportDiagnostic(2, ".debug_info");
  });
  t->start();
  t->wait();
  delete t;
  EXPECT_EQ(TakeTexts().size(), 2u);
}

TEST(Diag, NothingIsFormattedForADeadChannel) {
  SetUiThread();
  ConsoleRingStop();
  SetDebugMode(false);
  CloseLogFiles();
  ReportDiagnostic(38);  // flags 26: stdout and file only, both closed
  ConsoleRingStart();
  EXPECT_TRUE(TakeTexts().empty());
}

}  // namespace
