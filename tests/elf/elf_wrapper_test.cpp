// The ELF-API wrapper over the corpus: load stages in the log, the Elf.*
// command values against readelf, and the state without a program.
#include "elf/elfapi.h"
#include "log/diag.h"
#include "log/log.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <gtest/gtest.h>
#include <cstring>

namespace {
QString Env(const char* s) { return QString::fromLocal8Bit(qgetenv(s)); }

QString ReadElfHeaders(const QString& file) {
  QProcess p;
  p.start("arm-none-eabi-readelf", {"-hlSW", file});
  p.waitForFinished(30000);
  return QString::fromUtf8(p.readAllStandardOutput());
}

TEST(ElfApiWrapper, LoadLogsStagesAndAnswersElfCommands) {
  if (QStandardPaths::findExecutable("arm-none-eabi-readelf").isEmpty()) GTEST_SKIP() << "no readelf";
  DIAG_Init();
  const QString logPath = Env("TAVIT_TEST_TMP") + "/wrapper.log";
  QFile::remove(logPath);
  SetLogFile(LOG_FILE_APP, logPath);
  CElfApi& api = CElfApi::Instance();
  EXPECT_EQ(api.GetEndianess(), -1);
  EXPECT_EQ(api.GetBaseAddr(), 0xFFFFFFFFu);
  EXPECT_EQ(api.GetEndian(), 2);

  QDirIterator it(Env("TAVIT_SOURCE_DIR") + "/firmware", {"*.elf"}, QDir::Files, QDirIterator::Subdirectories);
  int n = 0;
  while (it.hasNext()) {
    const QString file = it.next();
    SCOPED_TRACE(file.toStdString());
    ASSERT_EQ(api.Load(file), 0);
    ++n;
    const QString re = ReadElfHeaders(file);
    const QRegularExpressionMatch entry = QRegularExpression("Entry point address:\\s+(0x[0-9a-f]+)").match(re);
    ASSERT_TRUE(entry.hasMatch());
    EXPECT_EQ(api.GetEntryPointPC(), entry.captured(1).toUInt(nullptr, 16) & ~1u);
    EXPECT_EQ(api.GetEntryFuncPC(), api.GetEntryPointPC());
    EXPECT_EQ(api.GetEndianess(), re.contains("big endian") ? 1 : 0);
    // Base address: the lowest load address of a section with file contents
    // in a LOAD segment.
    std::vector<std::pair<quint32, quint32>> sections; // addr, size of allocated PROGBITS
    QRegularExpression sec(R"(\]\s+\S+\s+(PROGBITS|INIT_ARRAY|FINI_ARRAY|ARM_EXIDX)\s+([0-9a-f]{8})\s+[0-9a-f]+\s+([0-9a-f]+)\s+\S+\s+\S*A)");
    for (auto m = sec.globalMatch(re); m.hasNext();) {
      auto x = m.next();
      if (x.captured(3).toUInt(nullptr, 16)) sections.push_back({x.captured(2).toUInt(nullptr, 16), x.captured(3).toUInt(nullptr, 16)});
    }
    quint32 lowest = 0xFFFFFFFF;
    QRegularExpression seg(R"(LOAD\s+0x[0-9a-f]+\s+0x([0-9a-f]+)\s+0x([0-9a-f]+)\s+0x([0-9a-f]+))");
    for (auto m = seg.globalMatch(re); m.hasNext();) {
      auto x = m.next();
      const quint32 v = x.captured(1).toUInt(nullptr, 16), p = x.captured(2).toUInt(nullptr, 16),
                    fs = x.captured(3).toUInt(nullptr, 16);
      for (auto [a, s] : sections)
        if (a >= v && quint64(a) + s <= quint64(v) + fs) lowest = std::min(lowest, p + (a - v));
    }
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
