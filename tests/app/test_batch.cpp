// The built program in headless batch mode: console entries and results on
// standard output, exit status, log files and the settings store.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QStringList>

#include "testsupport/files.h"
#include "testsupport/process.h"
#include "testsupport/testapp.h"

namespace {

struct RUN {
  QStringList Out;  // standard output, line by line
  QString sErr;
  int Exit = -1;
};

QString Tmp() {
  const QString d = qEnvironmentVariable("TAVIT_TEST_TMP", QDir::tempPath() + "/tavit-batch");
  QDir().mkpath(d);
  return d;
}

QString WriteFile(const QString& sName, const QString& sText) {
  const QString p = Tmp() + "/" + sName;
  WriteAll(p, sText.toUtf8());
  return p;
}

RUN RunProgram(const QStringList& Args, const QString& sSettingsDir = QString(), const QByteArray& Stdin = QByteArray()) {
  QProcessEnvironment Env = QProcessEnvironment::systemEnvironment();
  Env.remove("DISPLAY");
  Env.remove("QT_QPA_PLATFORM");  // batch mode picks the offscreen platform itself
  Env.insert("TAVIT_SETTINGS_DIR", sSettingsDir.isEmpty() ? Tmp() + "/settings" : sSettingsDir);
  const testsupport::RUN p = testsupport::RunProcess(testsupport::BuiltProgram("tavit"), Args, {{}, Env, Stdin});
  RUN r{p.Out.split('\n'), p.Err, p.Exit};
  if (!r.Out.isEmpty() && r.Out.last().isEmpty()) r.Out.removeLast();
  return r;
}

// The lines that follow the start-up lines.
QStringList Body(const RUN& r) {
  QStringList l = r.Out;
  while (!l.isEmpty() && l.first().startsWith("Vorden software found at")) l.removeFirst();
  return l;
}

// Index of the first line in which the pattern matches, -1 when none.
int FindLine(const QStringList& l, const char* sPattern) {
  const QRegularExpression re(QString::fromLatin1(sPattern));
  for (int i = 0; i < l.size(); ++i)
    if (re.match(l[i]).hasMatch()) return i;
  return -1;
}

class Batch : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QCoreApplication>();
  }
};

TEST_F(Batch, WrongParameterCountAndUnknownCommand) {
  RUN r = RunProgram({"-batch", WriteFile("b1.txt", "Debug.Start(1)\n")});
  EXPECT_EQ(Body(r), QStringList({"Debug.Start (1);", "Debug.Start (1): wrong parameter count", "=> 0 (0x0)"}));
  EXPECT_EQ(r.Exit, 1);
  r = RunProgram({"-batch", WriteFile("b2.txt", "foo;\n")});
  EXPECT_EQ(Body(r), QStringList({"foo: unknown command. Type ? or help for a list of available commands."}));
  EXPECT_EQ(r.Exit, 1);
}

TEST_F(Batch, ArgumentsQuotesAliasesCommentsAndCleanExit) {
  const QString sFile = WriteFile("b3.txt",
                                  "# a comment\n"
                                  "\n"
                                  "Util.Log \"a b\"\r\n"
                                  "   \n"
                                  "util.loghex \"value: \" 0x1f\n"
                                  "Project.SetRootPath(\"/src/root\")\n"
                                  "File.Exit()\n"
                                  "Util.Log \"not reached\"\n");
  RUN r = RunProgram({"-batch", sFile});
  EXPECT_EQ(Body(r), QStringList({"a b", "=> 0 (0x0)", "value: 0x0000001F", "=> 0 (0x0)",
                                  "Project.AddRootPath (\"/src/root\");", "=> 0 (0x0)", "File.Exit();", "=> 0 (0x0)"}));
  EXPECT_EQ(r.Exit, 0);
}

TEST_F(Batch, RefusedArgumentsAndSlotsOfLaterModules) {
  RUN r = RunProgram({"-batch", WriteFile("b4.txt", "Util.Log a b\nEdit.MemZone(\"main\", \"a,b\")\n")});
  EXPECT_EQ(Body(r), QStringList({"Util.Log (\"a\", b);", "Util.Log (\"a\", b): wrong parameter count", "=> 0 (0x0)",
                                  "Edit.MemZone (\"main\", \"a,b\");",
                                  "Edit.MemZone (\"main\", \"a,b\"): expression not watched: main",
                                  "=> -1 (0xFFFFFFFFFFFFFFFF)"}));
  EXPECT_EQ(r.Exit, 1);
}

TEST_F(Batch, SleepWaitsAndChecksItsArgument) {
  QElapsedTimer t;
  t.start();
  RUN r = RunProgram({"-batch", WriteFile("b12.txt", "Util.Sleep(300)\nUtil.Sleep(soon)\n")});
  EXPECT_GE(t.elapsed(), 300);
  EXPECT_EQ(Body(r), QStringList({"Util.Sleep (300);", "=> 0 (0x0)", "Util.Sleep (soon);",
                                  "Util.Sleep (soon): invalid parameter", "=> 0 (0x0)"}));
  EXPECT_EQ(r.Exit, 1);
}

TEST_F(Batch, HelpHeaderColumnsAndMembers) {
  RUN r = RunProgram({"-batch", WriteFile("b5.txt", "?\n")});
  const QStringList l = Body(r);
  const int h = int(FindLine(l, "^Command +Arguments"));
  ASSERT_GE(h, 0);
  EXPECT_EQ(l[h].indexOf("Arguments"), 29);
  EXPECT_EQ(l[h].indexOf("Hotkey"), 56);
  EXPECT_EQ(l[h].indexOf("Description"), 76);
  EXPECT_GE(FindLine(l, "^Find\\.Func +Function +Ctrl\\+M +"), 0);
  EXPECT_LT(FindLine(l, "^Edit\\.Copy "), 0);
  EXPECT_GT(l.size(), 170);  // nothing of the long list is lost
  EXPECT_EQ(l.last(), "=> 0 (0x0)");
  EXPECT_EQ(r.Exit, 0);
}

TEST_F(Batch, StandardInputAndUnreadableFile) {
  RUN r = RunProgram({"-batch", "-"}, QString(), "Util.Log \"from stdin\"\n");
  EXPECT_EQ(Body(r), QStringList({"from stdin", "=> 0 (0x0)"}));
  EXPECT_EQ(r.Exit, 0);
  r = RunProgram({"-batch", Tmp() + "/does-not-exist.txt"});
  EXPECT_EQ(r.Exit, 2);
}

TEST_F(Batch, ManyLinesLoseNothing) {
  QString s;
  for (int i = 0; i < 1500; ++i) s += QStringLiteral("Util.Log \"line %1\"\n").arg(i);
  RUN r = RunProgram({"-batch", WriteFile("b6.txt", s)});
  const QStringList l = Body(r);
  ASSERT_EQ(l.size(), 3000);
  EXPECT_EQ(l[0], "line 0");
  EXPECT_EQ(l[2998], "line 1499");
}

TEST_F(Batch, DebugSwitchAndApplicationLog) {
  const QString sLog = Tmp() + "/app.log";
  QFile::remove(sLog);
  RUN r = RunProgram({"-batch", WriteFile("b7.txt", "Util.Log \"x\"\n"), "-debug", "-device", "X", "-logfile", sLog});
  // Standard output: the prefixed copies and the plain console entries.
  EXPECT_TRUE(r.Out.contains(" i  Vorden software found at: " + QFileInfo(qEnvironmentVariable("TAVIT_BUILD_DIR")).canonicalFilePath() + "/libVorden.so"))
      << qPrintable(r.Out.join('\n'));
  EXPECT_TRUE(r.Out.contains("[E] Failed to create project from command line arguments: required argument \"host interface\" is missing."));
  EXPECT_TRUE(r.Out.contains("Failed to create project from command line arguments: required argument \"host interface\" is missing."));
  QFile f(sLog);
  ASSERT_TRUE(f.open(QIODevice::ReadOnly));
  const QString sFile = QString::fromUtf8(f.readAll());
  EXPECT_TRUE(sFile.startsWith(" i  Vorden software found at: "));
  EXPECT_TRUE(sFile.contains("\n[E] Failed to create project from command line arguments: required argument \"host interface\" is missing.\n"));
  // Without -debug nothing carries a prefix on standard output.
  r = RunProgram({"-batch", WriteFile("b8.txt", "Util.Log \"x\"\n"), "-device", "X"});
  for (const QString& s : r.Out) {
    EXPECT_FALSE(s.startsWith(" i  ") || s.startsWith("[E] ") || s.startsWith("[W] ")) << qPrintable(s);
  }
}

TEST_F(Batch, ConsoleLogFileCommand) {
  const QString sLog = Tmp() + "/console.log";
  QFile::remove(sLog);
  RUN r = RunProgram({"-batch", WriteFile("b9.txt", "Project.SetConsoleLogFile(\"" + sLog + "\")\nUtil.Log \"into the file\"\n")});
  EXPECT_EQ(r.Exit, 0);
  QFile f(sLog);
  ASSERT_TRUE(f.open(QIODevice::ReadOnly));
  const QString s = QString::fromUtf8(f.readAll());
  EXPECT_TRUE(s.contains("into the file\n")) << qPrintable(s);
}

TEST_F(Batch, SettingsAreWrittenOnceUnderTheirIdentity) {
  const QString sDir = Tmp() + "/settings-once";
  QDir(sDir).removeRecursively();
  RUN r = RunProgram({"-batch", WriteFile("b10.txt", "File.Exit()\n")}, sDir);
  EXPECT_EQ(r.Exit, 0);
  const QStringList Files = QDir(sDir + "/MARLEK").entryList(QDir::Files);
  ASSERT_EQ(Files.size(), 1) << qPrintable(Files.join(','));
  EXPECT_TRUE(Files[0].startsWith("Tavit."));
  QSettings s(sDir + "/MARLEK/" + Files[0], QSettings::IniFormat);
  EXPECT_FALSE(s.allKeys().isEmpty());
  // A marker written by another process survives a run that does not change
  // it: the store is read at start and written back whole at the end.
  s.setValue("AppData/TestMarker", 42);
  s.sync();
  r = RunProgram({"-batch", WriteFile("b11.txt", "Util.Log \"x\"\n")}, sDir);
  QSettings s2(sDir + "/MARLEK/" + Files[0], QSettings::IniFormat);
  EXPECT_EQ(s2.value("AppData/TestMarker").toInt(), 42);
}

}  // namespace

namespace {

// A batch option without a usable file is an error, never a window that
// waits for ever.
TEST_F(Batch, BatchOptionWithoutAFileIsAnError) {
  QElapsedTimer t;
  t.start();
  for (const QStringList& Args : {QStringList{"-batch"}, QStringList{"-batch", "-debug"}, QStringList{"--batch="},
                                  QStringList{"-device", "x", "-batch"}}) {
    const RUN r = RunProgram(Args);
    EXPECT_EQ(r.Exit, 2) << Args.join(' ').toStdString();
    EXPECT_TRUE(r.sErr.contains("batch mode needs a file")) << r.sErr.toStdString();
    EXPECT_TRUE(r.Out.isEmpty()) << r.Out.join('\n').toStdString();
  }
  EXPECT_LT(t.elapsed(), 30000);
  // The value may also stand in the same argument.
  const RUN r = RunProgram({"--batch=" + WriteFile("eq.txt", "Util.Log \"from eq\"\n")});
  EXPECT_EQ(r.Exit, 0);
  EXPECT_EQ(Body(r), QStringList({"from eq", "=> 0 (0x0)"}));
}

// A sleep counts against the time limit of its line.
TEST_F(Batch, SleepStopsAtTheLineTimeLimit) {
  QElapsedTimer t;
  t.start();
  const RUN r = RunProgram({"-batchtimelimit", "1", "-batch", WriteFile("sleep.txt", "Util.Sleep(0xFFFFFFFF)\nUtil.Log \"after\"\n")});
  EXPECT_LT(t.elapsed(), 20000);
  EXPECT_EQ(r.Exit, 1);
  EXPECT_EQ(Body(r), QStringList({"Util.Sleep (0xFFFFFFFF);", "Util.Sleep (0xFFFFFFFF): batch time limit of 1 s per line exceeded",
                                  "=> -1 (0xFFFFFFFFFFFFFFFF)", "after", "=> 0 (0x0)"}))
      << r.Out.join('\n').toStdString();
}

}  // namespace
