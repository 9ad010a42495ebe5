// The wrapper's load with the debug reader installed: every load stage is
// logged in order with its time, the DWARF version line, and the function
// and global variable counts.
#include "dwarf_test_util.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "log/diag.h"
#include "log/log.h"

#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>
#include <regex>
#include <set>

namespace {

// Distinct start addresses of sized function symbols, as readelf lists them.
int ReadelfFunctionStarts(const std::string& path) {
  std::set<unsigned long> starts;
  std::regex re(R"(^\s*\d+: ([0-9a-f]+)\s+(\d+) FUNC\s)");
  for (auto& l : SplitLines(RunTool("arm-none-eabi-readelf -sW " + path))) {
    std::smatch m;
    if (std::regex_search(l, m, re) && std::stoul(m[2]) > 0) starts.insert(std::stoul(m[1], nullptr, 16) & ~1ul);
  }
  return (int)starts.size();
}

TEST(Wrapper, LoadStagesAndCounts) {
  DIAG_Init();
  DWARF_Install();
  const QString logPath = QString::fromLocal8Bit(qgetenv("TAVIT_TEST_TMP")) + "/dwarf-wrapper.log";
  QFile::remove(logPath);
  SetLogFile(LOG_FILE_APP, logPath);
  const std::string path = CorpusPath("app-dwarf4-O0.elf");
  CElfApi& api = CElfApi::Instance();
  ASSERT_EQ(api.Load(QString::fromStdString(path)), 0);
  {
    QMutexLocker lock(&api.Mutex());
    const CLineTables& t = DWARF_GetProgramTables();
    EXPECT_GT(t.GetProgramAddresses().size(), 100u);
    const ELF_SYM_HANDLE mainFn = ELF_FindName(api.GetFile(), "main");
    EXPECT_EQ(t.GetFunction(t.GetSymbolRange(mainFn).start + 2, true), mainFn);
  }
  api.Close();
  EXPECT_TRUE(DWARF_GetProgramTables().GetProgramAddresses().empty());
  LogFlush();
  SetLogFile(LOG_FILE_APP, QString());
  QFile f(logPath);
  ASSERT_TRUE(f.open(QIODevice::ReadOnly));
  const QString log = QString::fromUtf8(f.readAll());
  const char* stages[] = {"Program data segments initialized in: ",
                          "Parsed source file paths found in address mapping table: ",
                          "Parsed source file paths found in source files table: ",
                          "Initialized file exists flags: ",
                          "Parsed source to address mapping table: ",
                          "parsed file address ranges: ",
                          "Cleaned up address mapping table: ",
                          "Build debug symbol lists: ",
                          "Hashed function inline expansions: ",
                          "Sorted program address list: ",
                          "Build symbol table: ",
                          "Build functions list: ",
                          "build function interval tree: ",
                          "build file interval tree: ",
                          "hashed file functions: ",
                          "parsed call frame information: ",
                          "ELF-API wrapper initialized in "};
  int at = 0;
  for (const char* s : stages) {
    // The log sink writes the first letter of a line in upper case.
    const QRegularExpression re(QRegularExpression::escape(QString::fromLatin1(s)) + "\\d+:\\d{3} ms",
                                QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch m = re.match(log, at);
    ASSERT_TRUE(m.hasMatch()) << s;
    at = (int)m.capturedEnd();
  }
  EXPECT_TRUE(log.contains("DWARF Version: 4"));
  // The function list joins ELF functions and debug functions by start:
  // at least every sized function symbol's start is in it.
  const QRegularExpressionMatch fc = QRegularExpression("Function count: (\\d+)").match(log);
  ASSERT_TRUE(fc.hasMatch());
  EXPECT_GE(fc.captured(1).toInt(), ReadelfFunctionStarts(path));
  const QRegularExpressionMatch gc = QRegularExpression("Global variable count: (\\d+)").match(log);
  ASSERT_TRUE(gc.hasMatch());
  DebugFile df(path);
  EXPECT_EQ(gc.captured(1).toInt(), ELF_GetListCount(df.f, ELF_LIST_GLOBALS));
}

} // namespace
