// The wrapper's load with the debug reader installed: the tables exist while
// the program is loaded and are gone after the close.
#include "dwarf_test_util.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "log/diag.h"
#include "log/log.h"

#include <QFile>
#include <gtest/gtest.h>

namespace {

TEST(Wrapper, TablesLiveFromLoadToClose) {
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
  // The stage lines and counts of a load are checked on a batch run of the
  // application (dwarf_tables_counts); here only that the log got them.
  QFile f(logPath);
  ASSERT_TRUE(f.open(QIODevice::ReadOnly));
  const QString log = QString::fromUtf8(f.readAll());
  EXPECT_TRUE(log.contains("ELF-API wrapper initialized in "));
  EXPECT_TRUE(log.contains("DWARF Version: 4"));
}

} // namespace
