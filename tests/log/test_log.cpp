// The log sink: channels, text clean-up, cut lengths, buffering of the
// application log, the log file rule and the console ring.
#include "log/console.h"
#include "log/log.h"
#include "log/logcapture.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QString>
#include <QThread>
#include <vector>

namespace {

QString TmpPath(const QString& sName) {
  QString d = qEnvironmentVariable("TAVIT_TEST_TMP", QDir::tempPath());
  QDir().mkpath(d);
  return d + QLatin1Char('/') + sName;
}

std::vector<CONSOLE_ENTRY> TakeAll() {
  std::vector<CONSOLE_ENTRY> v;
  ConsoleRingTake([&](const CONSOLE_ENTRY& e) { v.push_back(e); });
  return v;
}

QByteArray ReadFile(const QString& sPath) {
  QFile f(sPath);
  return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray();
}

class LogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    SetUiThread();
    ConsoleRingStart();
    SetDebugMode(false);
    SetLogInterval(QString());
    CloseLogFiles();
  }
  void TearDown() override {
    CloseLogFiles();
    SetDebugMode(false);
    SetConsoleOverflowDrain(nullptr);
  }
};

// A capture holds back the messages its mask names (errors not counted
// yet); the rest pass. Released, they reach the sink in their order;
// discarded, they are gone. Captures nest.
TEST_F(LogTest, CaptureHoldsReleasesAndDiscards) {
  const int Errors = GetErrorMessageCount();
  {
    CLogCapture Outer(MSG_DIAG);
    LogMessage(QStringLiteral("held one"), MSG_CONSOLE | MSG_ERROR | MSG_DIAG);
    LogMessage(QStringLiteral("passes"), MSG_CONSOLE);
    {
      CLogCapture Inner(MSG_DIAG);
      LogMessage(QStringLiteral("inner dropped"), MSG_CONSOLE | MSG_DIAG);
      EXPECT_EQ(Inner.Texts(), QStringList{"inner dropped"});
      Inner.Discard();
    }
    LogMessage(QStringLiteral("held two"), MSG_CONSOLE | MSG_DIAG);
    EXPECT_EQ(Outer.Texts(), QStringList({"held one", "held two"}));
    EXPECT_EQ(GetErrorMessageCount(), Errors);
    std::vector<std::string> Seen;
    for (const CONSOLE_ENTRY& e : TakeAll()) Seen.push_back(e.Text);
    EXPECT_EQ(Seen, std::vector<std::string>{"Passes"});
  }
  std::vector<std::string> Seen;
  for (const CONSOLE_ENTRY& e : TakeAll()) Seen.push_back(e.Text);
  EXPECT_EQ(Seen, std::vector<std::string>({"Held one", "Held two"}));
  EXPECT_EQ(GetErrorMessageCount(), Errors + 1);
  LogMessage(QStringLiteral("after"), MSG_CONSOLE | MSG_DIAG);
  EXPECT_EQ(TakeAll().size(), 1u);
}

TEST_F(LogTest, EmptyTextIsRefused) {
  EXPECT_EQ(LogMessage(QString(), MSG_ALL), -1);
  EXPECT_EQ(LogMessage(static_cast<const char*>(nullptr), MSG_ALL), -1);
  EXPECT_EQ(LogMessage("", MSG_ALL), -1);
  EXPECT_TRUE(TakeAll().empty());
}

TEST_F(LogTest, TrailingBlanksGoAndFirstLetterIsUpperCase) {
  const QString sPath = TmpPath("clean.log");
  SetLogInterval("1");
  SetLogFile(LOG_FILE_APP, sPath);
  EXPECT_EQ(LogMessage(QStringLiteral("target halted \r\n \n"), MSG_CONSOLE | MSG_FILE), 0);
  auto v = TakeAll();
  ASSERT_EQ(v.size(), 1u);
  EXPECT_STREQ(v[0].Text, "Target halted");
  EXPECT_EQ(v[0].NewLine, 1);
  LogFlush();
  EXPECT_EQ(ReadFile(sPath), QByteArray("Target halted\n"));
}

TEST_F(LogTest, LongMessageIsCutFor2048InFileAnd1000InConsole) {
  const QString sPath = TmpPath("long.log");
  SetLogFile(LOG_FILE_APP, sPath);
  QString s(3000, QLatin1Char('x'));
  s[0] = QLatin1Char('a');
  LogMessage(s, MSG_ALL);
  LogFlush();
  const QByteArray File = ReadFile(sPath);
  ASSERT_TRUE(File.endsWith('\n'));
  EXPECT_EQ(File.size() - 1, 2048);
  EXPECT_EQ(File[0], 'A');
  auto v = TakeAll();
  ASSERT_EQ(v.size(), 1u);
  EXPECT_EQ(strlen(v[0].Text), 1000u);
  EXPECT_EQ(v[0].Text[0], 'A');
}

TEST_F(LogTest, ConsoleEntryOfMultiByteTextKeeps1000Characters) {
  ConsolePrintLine(QString(1500, QChar(0x20AC)));  // three UTF-8 bytes each
  auto v = TakeAll();
  ASSERT_EQ(v.size(), 1u);
  EXPECT_EQ(QString::fromUtf8(v[0].Text).size(), 1000);
}

TEST_F(LogTest, DebugModeCopiesToStdoutWithLevelPrefixes) {
  SetDebugMode(true);
  testing::internal::CaptureStdout();
  LogInfo("info text");
  LogWarning("warning text");
  LogError("error text");
  LogScript("script only goes to the file");
  LogMessage("no level", MSG_STDOUT);
  const std::string Out = testing::internal::GetCapturedStdout();
  EXPECT_EQ(Out, " i  Info text\n[W] Warning text\n[E] Error text\nNo level\n");
  // Info and error are for every channel, so the console has them too.
  auto v = TakeAll();
  ASSERT_EQ(v.size(), 2u);
  EXPECT_STREQ(v[0].Text, "Info text");
  EXPECT_STREQ(v[1].Text, "Error text");
  EXPECT_GE(v[1].ColorID, 0);
}

TEST_F(LogTest, WarningIsRefusedWithoutFileOrDebug) {
  testing::internal::CaptureStdout();
  EXPECT_EQ(LogWarning("nobody listens"), -1);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  SetLogFile(LOG_FILE_APP, TmpPath("warn.log"));
  EXPECT_EQ(LogWarning("now a file listens"), 0);
  LogFlush();
  EXPECT_EQ(ReadFile(TmpPath("warn.log")), QByteArray("[W] Now a file listens\n"));
}

TEST_F(LogTest, ApplicationLogIsBufferedByIntervalAndLosesNothing) {
  const QString sPath = TmpPath("interval.log");
  SetLogInterval("40");
  SetLogFile(LOG_FILE_APP, sPath);
  LogScript("first line");   // " i  First line\n" = 15 bytes
  LogScript("second line");  // 31 bytes buffered
  EXPECT_EQ(ReadFile(sPath), QByteArray());
  LogScript("third line");   // fills the buffer: written with the rest
  EXPECT_EQ(ReadFile(sPath), QByteArray(" i  First line\n i  Second line\n i  Third line\n"));
  LogScript("fourth");
  EXPECT_EQ(ReadFile(sPath).count('\n'), 3);
  LogError("broken");        // an error is written at once
  EXPECT_TRUE(ReadFile(sPath).endsWith(" i  Fourth\n[E] Broken\n"));
  LogScript("tail");
  CloseLogFiles();           // closing the file writes what is left
  EXPECT_TRUE(ReadFile(sPath).endsWith("[E] Broken\n i  Tail\n"));
}

TEST_F(LogTest, IntervalBelowOneCountsAs512) {
  const QString sPath = TmpPath("interval0.log");
  SetLogInterval("0");
  SetLogFile(LOG_FILE_APP, sPath);
  for (int i = 0; i < 20; ++i) LogScript(QStringLiteral("line %1").arg(i));  // ~20 * 12 bytes
  EXPECT_EQ(ReadFile(sPath), QByteArray());
  for (int i = 0; i < 40; ++i) LogScript(QStringLiteral("line %1").arg(i));
  EXPECT_FALSE(ReadFile(sPath).isEmpty());
}

TEST_F(LogTest, UnopenableLogFileLeavesTheSlotEmpty) {
  SetLogFile(LOG_FILE_APP, "/nonexistent-dir/x/y.log");
  EXPECT_FALSE(IsLogFileOpen(LOG_FILE_APP));
  EXPECT_EQ(LogScript("goes nowhere"), 0);
}

TEST_F(LogTest, LogFileRuleCutsBigFilesToTheirBeginning) {
  const QString sPath = TmpPath("big.log");
  QFile f(sPath);
  ASSERT_TRUE(f.open(QIODevice::ReadWrite | QIODevice::Truncate));
  f.write("HEAD");
  ASSERT_TRUE(f.resize(16000001));  // sparse
  f.seek(f.size());
  WriteLogFile(&f, "tail\n");
  EXPECT_EQ(f.size(), 16000 + 5);
  f.close();
  const QByteArray All = ReadFile(sPath);
  EXPECT_TRUE(All.startsWith("HEAD"));
  EXPECT_TRUE(All.endsWith("tail\n"));
  // Exactly at the limit nothing is cut.
  ASSERT_TRUE(f.open(QIODevice::ReadWrite | QIODevice::Truncate));
  ASSERT_TRUE(f.resize(16000000));
  f.seek(f.size());
  WriteLogFile(&f, "x");
  EXPECT_EQ(f.size(), 16000001);
  f.close();
  QFile::remove(sPath);
}

TEST_F(LogTest, ConsoleLogFileGetsWhatTheReaderTakes) {
  const QString sPath = TmpPath("console.log");
  SetLogFile(LOG_FILE_CONSOLE, sPath);
  ConsolePrint("part ");
  ConsolePrintLine("line");
  TakeAll();
  SetLogFile(LOG_FILE_CONSOLE, QString());
  EXPECT_EQ(ReadFile(sPath), QByteArray("part line\n"));
}

TEST_F(LogTest, RingDropsWhenFullAndKeepsOrder) {
  for (int i = 0; i < CONSOLE_RING_SIZE + 5; ++i) ConsolePrintLine(QString::number(i));
  auto v = TakeAll();
  ASSERT_EQ(v.size(), size_t(CONSOLE_RING_SIZE));
  EXPECT_STREQ(v.front().Text, "0");
  EXPECT_STREQ(v.back().Text, "999");
  // The reader frees the slots: writing goes on at the head.
  ConsolePrintLine("a\nb\nc");
  v = TakeAll();
  ASSERT_EQ(v.size(), 1u);
  EXPECT_EQ(v[0].LineCount, 3u);
}

TEST_F(LogTest, OverflowDrainLosesNothingOnTheUserInterfaceThread) {
  int Taken = 0;
  SetConsoleOverflowDrain([&] { Taken += ConsoleRingTake(nullptr); });
  for (int i = 0; i < 2500; ++i) ConsolePrintLine(QString::number(i));
  auto v = TakeAll();
  EXPECT_EQ(Taken + int(v.size()), 2500);
  ASSERT_FALSE(v.empty());
  EXPECT_STREQ(v.back().Text, "2499");
}

TEST_F(LogTest, RingIsClosedBeforeStart) {
  ConsoleRingStop();
  ConsolePrintLine("lost");
  EXPECT_TRUE(TakeAll().empty());
  ConsoleRingStart();
  ConsolePrintLine("kept");
  EXPECT_EQ(TakeAll().size(), 1u);
}

TEST_F(LogTest, ManyThreadsLogWithoutLosingEntriesBelowRingSize) {
  std::vector<QThread*> Threads;
  for (int t = 0; t < 4; ++t) {
    Threads.push_back(QThread::create([t] {
      for (int i = 0; i < 200; ++i) LogMessage(QStringLiteral("t%1 %2").arg(t).arg(i), MSG_CONSOLE);
    }));
    Threads.back()->start();
  }
  for (QThread* p : Threads) {
    p->wait();
    delete p;
  }
  EXPECT_EQ(TakeAll().size(), 800u);
}

TEST_F(LogTest, ToolkitMessagesAndProbeTextReachTheSink) {
  InstallLogMessageHandler();
  testing::internal::CaptureStdout();
  qWarning("toolkit warning");  // flags 26: stdout and file, dropped without either
  SetDebugMode(true);
  qWarning("toolkit warning");
  qCritical("toolkit critical");
  qInstallMessageHandler(nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "[W] Toolkit warning\n[E] Toolkit critical\n");
  auto v = TakeAll();  // critical messages also go to the console
  ASSERT_EQ(v.size(), 1u);
  EXPECT_STREQ(v[0].Text, "Toolkit critical");
  SetDebugMode(false);
  EXPECT_EQ(OnDeviceLogMsg("probe says hi", MSG_CONSOLE), 0);
  EXPECT_EQ(OnDeviceLogMsg("nobody hears", MSG_FILE), 0);
  v = TakeAll();
  ASSERT_EQ(v.size(), 1u);
  EXPECT_STREQ(v[0].Text, "Probe says hi");
  EXPECT_EQ(v[0].Color, 0xFF00008Bu);
}

TEST(LogTimeText, Format) {
  EXPECT_EQ(LogTimeText(0), "0:000 ms");
  EXPECT_EQ(LogTimeText(1234567), "1234:567 ms");
}

}  // namespace
