// Random console lines: a few thousand lines drawn from the action table with
// random arguments (numbers, quotes, long strings, expressions, file names of
// copies) run through the sanitized program in batch mode, inside a
// directory of their own. Nothing may crash, hang, trip the sanitizers or
// touch a file outside that directory. TAVIT_RANDOM_SEED picks another run.
#include "commands/actions.h"
#include "testsupport/files.h"
#include "testsupport/randomtext.h"

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <gtest/gtest.h>

namespace {

constexpr int kLines = 3000;

// Every named command but the one that ends the run early.
QList<int> CommandIds() {
  QList<int> Ids;
  for (int Id = 0; Id < ACTION_COUNT; ++Id)
    if (!GetCommandName(Id).isEmpty() && Id != AID_FILE_EXIT) Ids.append(Id);
  return Ids;
}

// An argument: any of the shapes a user or a script might pass.
QString RandomArg(testsupport::RandomText& R, const QStringList& Constants, const QStringList& Files) {
  // No '/', '\\' or '$': file names stay inside the run's directory.
  static const QString kText = QStringLiteral("abcXYZ019 _-.,;:()+*&|^%!?<>=#@~'`{}[]\t\u00e4\u20ac");
  switch (R.Int(0, 9)) {
    case 0: return R.Number();
    case 1: return R.Pick(Constants);
    case 2: return QLatin1Char('"') + R.Pick(Files) + QLatin1Char('"');
    case 3: return R.Pick(Files);
    case 4: return QLatin1Char('"') + R.Text(int(R.Int(0, 20)), kText) + QLatin1Char('"');
    case 5: return QLatin1Char('"') + R.Text(int(R.Int(500, 3000)), kText) + QLatin1Char('"');
    case 6: return R.Expression(Constants);
    case 7: return QLatin1Char('"') + R.Expression(Constants) + QLatin1Char('"');
    case 8: return R.Text(int(R.Int(0, 12)), kText);
    default: return QString::number(R.Int(-3, 300));
  }
}

QString RandomLine(testsupport::RandomText& R, const QList<int>& Ids, const QStringList& Constants, const QStringList& Files) {
  if (R.Chance(3)) return QString::fromLatin1(R.Bytes(int(R.Int(0, 80))).replace('\n', ' ').replace('\r', ' ').replace('\0', ' '));
  const int Id = R.Pick(Ids);
  QString sName = GetCommandName(Id);
  if (R.Chance(20)) sName = sName.toLower();
  const int n = std::max<int>(0, GetParamCount(Id) + int(R.Chance(85) ? 0 : R.Int(-1, 2)));
  QStringList Args;
  for (int i = 0; i < n; ++i) Args << RandomArg(R, Constants, Files);
  if (R.Chance(30)) return sName + QLatin1Char(' ') + Args.join(QLatin1Char(' '));
  return sName + QLatin1Char('(') + Args.join(QStringLiteral(", ")) + QLatin1Char(')') + (R.Chance(50) ? ";" : "");
}

// Every file below a directory with its size and time, to see what changed.
QStringList Snapshot(const QString& sDir) {
  QStringList l;
  for (QDirIterator It(sDir, QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories); It.hasNext();) {
    const QFileInfo fi(It.next());
    l << fi.filePath() + QLatin1Char(' ') + QString::number(fi.size()) + QLatin1Char(' ') +
             QString::number(fi.lastModified().toMSecsSinceEpoch());
  }
  l.sort();
  return l;
}

TEST(RandomConsole, LinesFromTheActionTable) {
  const QString sExe = qEnvironmentVariable("TAVIT_TEST_BIN_DIR", qEnvironmentVariable("TAVIT_BUILD_DIR") + "/tests-bin") + "/tavit_san";
  ASSERT_TRUE(QFileInfo::exists(sExe)) << sExe.toStdString();
  const uint64_t Seed = qEnvironmentVariableIsSet("TAVIT_RANDOM_SEED") ? qEnvironmentVariable("TAVIT_RANDOM_SEED").toULongLong() : 20261125;
  SCOPED_TRACE("seed " + std::to_string(Seed));

  // The run's directory and, beside it, a directory nothing may touch.
  const QString sRoot = qEnvironmentVariable("TAVIT_TEST_TMP", QDir::tempPath()) + "/random-console";
  QDir(sRoot).removeRecursively();
  const QString sWork = sRoot + "/work", sOutside = sRoot + "/outside";
  ASSERT_TRUE(QDir().mkpath(sWork + "/home") && QDir().mkpath(sOutside));
  WriteAll(sOutside + "/keep.txt", "untouched");
  ASSERT_TRUE(QFile::copy(qEnvironmentVariable("TAVIT_SOURCE_DIR") + "/firmware/corpus/app-dwarf3-O0.elf", sWork + "/prog.elf"));
  WriteAll(sWork + "/p.vdebug",
           "void OnProjectLoad (void) {\n  Project.SetDevice (\"DEV\");\n  Util.Log(\"loaded\");\n}\n"
           "int F(int a, int b) { return a / (b + 1); }\n"
           "int Loop(int n) { int i; i = 0; while (i < n) { Util.Log(\"x\"); i += 1; } return i; }\n"
           "int Spin(void) { while (1) { } return 0; }\n");
  WriteAll(sWork + "/p.vdebug.user", "Unknown=\"kept\"\nJunk=\"\xff\xfe\"\n");
  const QStringList Before = Snapshot(sOutside);

  testsupport::RandomText R(Seed);
  QStringList Constants;
  for (int i = 0; i < GetNumConstants(); ++i) Constants << QString::fromLatin1(GetConstant(i)->sName);
  Constants << "VAR_RESET_MODE" << "PREF_SHOW_HEX_BLOCKS" << "COLOR_LOGGING_USER" << "FONT_CONSOLE" << "F" << "Loop";
  const QStringList Files = {"prog.elf", "p.vdebug", "new.vdebug", "new", "log.txt", "sub", ".", "..x", "", "p.vdebug.user"};
  const QList<int> Ids = CommandIds();
  QByteArray Batch;
  for (int i = 0; i < kLines; ++i) Batch += RandomLine(R, Ids, Constants, Files).toUtf8() + '\n';
  WriteAll(sWork + "/lines.txt", Batch);

  QProcess p;
  QProcessEnvironment Env = QProcessEnvironment::systemEnvironment();
  Env.remove("DISPLAY");
  Env.insert("HOME", sWork + "/home");
  Env.insert("XDG_CONFIG_HOME", sWork + "/home/.config");
  Env.insert("TAVIT_SETTINGS_DIR", sWork + "/settings");
  p.setProcessEnvironment(Env);
  p.setWorkingDirectory(sWork);
  p.setStandardOutputFile(sWork + "/out.txt");
  QElapsedTimer t;
  t.start();
  p.start(sExe, {"p.vdebug", "-batchtimelimit", "1", "-batch", "lines.txt"});
  ASSERT_TRUE(p.waitForStarted(10000));
  const bool Finished = p.waitForFinished(150000);
  if (!Finished) p.kill();
  p.waitForFinished();
  const QString sErr = QString::fromUtf8(p.readAllStandardError());
  ASSERT_TRUE(Finished) << "no end after 150 s";
  EXPECT_EQ(p.exitStatus(), QProcess::NormalExit) << sErr.right(4000).toStdString();
  EXPECT_TRUE(p.exitCode() == 0 || p.exitCode() == 1) << p.exitCode() << sErr.right(4000).toStdString();
  EXPECT_FALSE(sErr.contains("AddressSanitizer")) << sErr.right(4000).toStdString();
  EXPECT_FALSE(sErr.contains("runtime error")) << sErr.right(4000).toStdString();
  EXPECT_LT(t.elapsed(), 120000);
  // Every line reached the console: the batch ran to its end.
  const QByteArray Out = ReadAll(sWork + "/out.txt");
  EXPECT_GE(Out.count("\n=> "), kLines / 2);
  // Nothing outside the run's directory changed, nothing new beside it.
  EXPECT_EQ(Snapshot(sOutside), Before);
  EXPECT_EQ(QDir(sRoot).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList({"outside", "work"}));
}

}  // namespace
