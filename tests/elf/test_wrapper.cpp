// The ELF-API wrapper over the corpus: load stages in the log, the Elf.*
// command values against readelf, and the state without a program.
#include "elf/elfapi.h"
#include "log/diag.h"
#include "log/log.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>
#include "testsupport/readelf_oracle.h"
#include <cstring>

namespace {
QString Env(const char* s) { return QString::fromLocal8Bit(qgetenv(s)); }

std::vector<std::pair<int, int>> g_Progress;
void RecordProgress(int Done, int Total) { g_Progress.push_back({Done, Total}); }

// Every load, failed or not, is bracketed by (0, n) and (-1, n), with the
// stages counted upwards in between and never past n.
void ExpectBracketedProgress(const char* sWhat) {
  SCOPED_TRACE(sWhat);
  ASSERT_GE(g_Progress.size(), 2u);
  EXPECT_EQ(g_Progress.front(), std::make_pair(0, CElfApi::kLoadStages));
  EXPECT_EQ(g_Progress.back(), std::make_pair(-1, CElfApi::kLoadStages));
  for (size_t i = 1; i + 1 < g_Progress.size(); ++i) {
    EXPECT_GT(g_Progress[i].first, g_Progress[i - 1].first);
    EXPECT_LE(g_Progress[i].first, CElfApi::kLoadStages);
  }
  g_Progress.clear();
}

TEST(ElfApiWrapper, LoadLogsStagesAndAnswersElfCommands) {
  if (!readelf::Available()) GTEST_SKIP() << "no readelf";
  DIAG_Init();
  const QString logPath = Env("TAVIT_TEST_TMP") + "/wrapper.log";
  QFile::remove(logPath);
  SetLogFile(LOG_FILE_APP, logPath);
  CElfApi& api = CElfApi::Instance();
  EXPECT_EQ(api.GetEndianess(), -1);
  EXPECT_EQ(api.GetBaseAddr(), 0xFFFFFFFFu);
  EXPECT_EQ(api.GetEndian(), 2);
  CElfApi::SetLoadProgressHook(RecordProgress);

  QDirIterator it(Env("TAVIT_SOURCE_DIR") + "/firmware", {"*.elf"}, QDir::Files, QDirIterator::Subdirectories);
  int n = 0;
  while (it.hasNext()) {
    const QString file = it.next();
    SCOPED_TRACE(file.toStdString());
    ASSERT_EQ(api.Load(file), 0);
    ExpectBracketedProgress("load");
    ++n;
    const readelf::Listing re = readelf::All(file.toStdString());
    ASSERT_TRUE(re.Header.count("Entry point address"));
    EXPECT_EQ(api.GetEntryPointPC(), U32(std::stoul(re.Header.at("Entry point address"), nullptr, 16)) & ~1u);
    EXPECT_EQ(api.GetEntryFuncPC(), api.GetEntryPointPC());
    EXPECT_EQ(api.GetEndianess(), re.Header.at("Data").find("big endian") != std::string::npos ? 1 : 0);
    // Base address: the lowest load address of an allocated section with
    // file contents in a LOAD segment.
    std::vector<std::pair<quint32, quint32>> sections; // addr, size
    for (const readelf::Section& x : re.Sections)
      if ((x.Type == "PROGBITS" || x.Type == "INIT_ARRAY" || x.Type == "FINI_ARRAY" || x.Type == "ARM_EXIDX") &&
          x.Has('A') && x.Size)
        sections.push_back({x.Addr, x.Size});
    quint32 lowest = 0xFFFFFFFF;
    for (const readelf::Segment& x : re.Segments)
      if (x.Type == "LOAD")
        for (auto [a, s] : sections)
          if (a >= x.VAddr && quint64(a) + s <= quint64(x.VAddr) + x.FileSize)
            lowest = std::min(lowest, x.PAddr + (a - x.VAddr));
    EXPECT_EQ(api.GetBaseAddr(), lowest);
    // The program data answers by run address.
    for (const CProgramDataSegment& s : api.GetProgramDataSegments()) {
      const U8* p = api.GetProgramData(s.RunAddr, quint32(s.Data.size()));
      ASSERT_NE(p, nullptr);
      EXPECT_EQ(0, memcmp(p, s.Data.constData(), size_t(s.Data.size())));
      EXPECT_EQ(api.GetProgramData(s.RunAddr + 1, quint32(s.Data.size())), nullptr);
    }
  }
  ASSERT_GT(n, 0);
  api.Close();
  EXPECT_FALSE(api.IsLoaded());
  EXPECT_EQ(api.GetEndianess(), -1);
  EXPECT_EQ(api.GetEntryPointPC(), 0xFFFFFFFFu);
  EXPECT_EQ(api.Load(Env("TAVIT_TEST_TMP") + "/missing.elf"), -1);
  EXPECT_FALSE(api.IsLoaded());
  ExpectBracketedProgress("failed load");
  CElfApi::SetLoadProgressHook(nullptr);

  LogFlush();
  SetLogFile(LOG_FILE_APP, QString());
  QFile f(logPath);
  ASSERT_TRUE(f.open(QIODevice::ReadOnly));
  const QString log = QString::fromUtf8(f.readAll());
  const QString t = "\\d+:\\d{3} ms";
  for (const char* stage : {"Program data segments initialized in: ", "ELF-API wrapper initialized in ",
                            "ELF_Close\\(\\) after ms: ", "ELF-API Wrapper deinitialized after ms: "}) {
    EXPECT_EQ(log.count(QRegularExpression(QString::fromLatin1(stage) + t)), n)
        << stage;
  }
  EXPECT_TRUE(log.contains("file could not be opened for reading")) << log.toStdString();
}
} // namespace
