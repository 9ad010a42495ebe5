// Command line, start path, identity and directories.
#include "cmdline/cmdline.h"
#include "project/project.h"
#include "testsupport/randomtext.h"
#include "app/startup.h"
#include "commands/actions.h"
#include "log/console.h"
#include "log/log.h"

#include <gtest/gtest.h>

#include <QDir>

namespace {

QStringList Argv(const QStringList& Rest) { return QStringList({"/opt/tavit/tavit"}) + Rest; }

TEST(ParseCmdLine, EdgeCases) {
  struct CASE {
    QStringList Args;
    CMDLINE_OPTIONS Want;
  };
  auto O = [](auto f) {
    CMDLINE_OPTIONS o;
    f(o);
    return o;
  };
  const std::vector<CASE> Cases = {
      {{"-DEVICE", "x"}, O([](auto& o) { o.Device = "x"; })},
      {{"--device", "x"}, O([](auto& o) { o.Device = "x"; })},
      {{"-device", "\"x\""}, O([](auto& o) { o.Device = "x"; })},
      {{"-device", "\" x \""}, O([](auto& o) { o.Device = "x"; })},
      // A missing value leaves the record as it was.
      {{"-device", "-usb"}, O([](auto& o) { o.HostIF = "USB"; })},
      {{"-device", "a", "-device"}, O([](auto& o) { o.Device = "a"; })},
      {{"-usb", "-if", "SWD", "-device", "x"}, O([](auto& o) {
         o.HostIF = "USB";
         o.TargetIF = "SWD";
         o.Device = "x";
       })},
      {{"-usb", "123"}, O([](auto& o) {
         o.HostIF = "USB";
         o.HostID = "123";
       })},
      {{"-ip", "10.0.0.2", "-usb"}, O([](auto& o) {
         o.HostIF = "USB";
         o.HostID = "10.0.0.2";
       })},
      {{"-datafile", "a", "-programfile", "b"}, O([](auto& o) { o.ProgramFile = "b"; })},
      {{"-programfile", "C:\\fw\\\\build//app.elf"}, O([](auto& o) { o.ProgramFile = "C:/fw/build/app.elf"; })},
      {{"-project", "\"/p/./q/../x.vdebug\""}, O([](auto& o) { o.ProjectFile = "/p/x.vdebug"; })},
      {{"-select", "USB=123"}, O([](auto& o) {
         o.HostIF = "USB";
         o.HostID = "123";
       })},
      {{"-select", "IP=MyHost"}, O([](auto& o) {
         o.HostIF = "IP";
         o.HostID = "myhost";
       })},
      {{"-select", "USB"}, O([](auto& o) { o.HostIF = "USB"; })},
      {{"-kestrel"}, O([](auto& o) {
         o.Device = "MK66FN2M0XXX18";
         o.TargetIF = "SWD";
         o.Speed = "2000";
       })},
      {{"-kestrel", "-speed", "4000"}, O([](auto& o) {
         o.Device = "MK66FN2M0XXX18";
         o.TargetIF = "SWD";
         o.Speed = "4000";
       })},
      {{"-logfile", "/tmp//l.log", "-loginterval", "100", "-debug"}, O([](auto& o) {
         o.LogFile = "/tmp/l.log";
         o.LogInterval = "100";
         o.DebugMode = true;
       })},
      {{"-vordenscriptfile", "s.txt", "-jtagconfig", "1,4", "-if", "JTAG", "-speed", "auto"}, O([](auto& o) {
         o.VordenScriptFile = "s.txt";
         o.JTAGConfig = "1,4";
         o.TargetIF = "JTAG";
         o.Speed = "auto";
       })},
      // Unknown options and positional arguments are passed over silently.
      {{"-frobnicate", "x", "p.vdebug", "-debug"}, O([](auto& o) { o.DebugMode = true; })},
      {{"-batch", "-"}, O([](auto& o) {
         o.IsBatch = true;
         o.BatchFile = "-";
       })},
      // A batch option without a usable file is an error, never the window.
      {{"-batch"}, O([](auto& o) {
         o.IsBatch = true;
         o.BatchError = "x";
       })},
      {{"-batch", "-debug"}, O([](auto& o) {
         o.IsBatch = true;
         o.BatchError = "x";
         o.DebugMode = true;
       })},
      {{"--batch="}, O([](auto& o) {
         o.IsBatch = true;
         o.BatchError = "x";
       })},
      {{"--BATCH=cmds.txt", "-batchtimelimit", "5"}, O([](auto& o) {
         o.IsBatch = true;
         o.BatchFile = "cmds.txt";
         o.BatchTimeLimitS = 5;
       })},
      {{"-batchtimelimit", "soon"}, CMDLINE_OPTIONS()},
      {{}, CMDLINE_OPTIONS()},
  };
  for (const CASE& c : Cases) {
    const CMDLINE_OPTIONS g = ParseCmdLine(Argv(c.Args));
    const QString sCase = c.Args.join(' ');
    EXPECT_EQ(g.Device, c.Want.Device) << qPrintable(sCase);
    EXPECT_EQ(g.HostIF, c.Want.HostIF) << qPrintable(sCase);
    EXPECT_EQ(g.HostID, c.Want.HostID) << qPrintable(sCase);
    EXPECT_EQ(g.TargetIF, c.Want.TargetIF) << qPrintable(sCase);
    EXPECT_EQ(g.Speed, c.Want.Speed) << qPrintable(sCase);
    EXPECT_EQ(g.ProgramFile, c.Want.ProgramFile) << qPrintable(sCase);
    EXPECT_EQ(g.ProjectFile, c.Want.ProjectFile) << qPrintable(sCase);
    EXPECT_EQ(g.LogFile, c.Want.LogFile) << qPrintable(sCase);
    EXPECT_EQ(g.LogInterval, c.Want.LogInterval) << qPrintable(sCase);
    EXPECT_EQ(g.VordenScriptFile, c.Want.VordenScriptFile) << qPrintable(sCase);
    EXPECT_EQ(g.JTAGConfig, c.Want.JTAGConfig) << qPrintable(sCase);
    EXPECT_EQ(g.DebugMode, c.Want.DebugMode) << qPrintable(sCase);
    EXPECT_EQ(g.BatchError.isEmpty(), c.Want.BatchError.isEmpty()) << qPrintable(sCase);
    EXPECT_EQ(g.BatchTimeLimitS, c.Want.BatchTimeLimitS) << qPrintable(sCase);
    EXPECT_EQ(g.IsBatch, c.Want.IsBatch) << qPrintable(sCase);
    EXPECT_EQ(g.BatchFile, c.Want.BatchFile) << qPrintable(sCase);
  }
  // The program path itself never matches, even when it looks like an option.
  EXPECT_TRUE(ParseCmdLine(QStringList({"-debug"})).DebugMode == false);
}

// Random argument lists: the parser never crashes, a batch request always
// ends with a file or an error, and the time limit is never negative.
TEST(ParseCmdLine, RandomArguments) {
  testsupport::RandomText R(77);
  const QStringList Words = {"-batch", "--batch=", "-batch=x", "-batchtimelimit", "-device", "-usb", "-ip", "-select",
                             "-if", "-speed", "-project", "-kestrel", "-debug", "-", "--", "=", "\"", "\"\"", "USB=",
                             "p.vdebug", "-jtagconfig", "1,2"};
  for (int i = 0; i < 20000; ++i) {
    QStringList Args;
    for (int n = int(R.Int(0, 6)); n > 0; --n)
      Args << (R.Chance(70) ? R.Pick(Words) : R.Chance(50) ? R.Number() : QString::fromLatin1(R.Bytes(int(R.Int(0, 8)))));
    const CMDLINE_OPTIONS o = ParseCmdLine(Argv(Args));
    if (o.IsBatch) EXPECT_TRUE(!o.BatchFile.isEmpty() || !o.BatchError.isEmpty()) << Args.join(' ').toStdString();
    EXPECT_GE(o.BatchTimeLimitS, 0);
  }
}

TEST(StartPath, FirstShowDecision) {
  CMDLINE_OPTIONS None, Dev;
  Dev.Device = "x";
  EXPECT_EQ(ChooseStartPath(Argv({"p.vdebug"}), None, true, false, false), START_OPEN_FILE);
  EXPECT_EQ(ChooseStartPath(Argv({"p.vdebug", "-device", "x"}), Dev, true, false, false), START_OPEN_FILE);
  // The suffix comparison is case-sensitive.
  EXPECT_EQ(ChooseStartPath(Argv({"x.VDEBUG"}), None, false, false, false), START_WELCOME);
  // "-project p.vdebug": the first argument is the option, not the file.
  EXPECT_EQ(ChooseStartPath(Argv({"-project", "p.vdebug"}), None, false, false, false), START_WELCOME);
  EXPECT_EQ(ChooseStartPath(Argv({"-device", "x"}), Dev, true, false, false), START_CMDLINE_PROJECT);
  // "-device -usb": no device, so the welcome path.
  const CMDLINE_OPTIONS NoDev = ParseCmdLine(Argv({"-device", "-usb"}));
  EXPECT_EQ(ChooseStartPath(Argv({"-device", "-usb"}), NoDev, false, false, false), START_WELCOME);
  // An empty recent list opens the wizard even when the preference is set.
  EXPECT_EQ(ChooseStartPath(Argv({}), None, true, true, false), START_WIZARD);
  EXPECT_EQ(ChooseStartPath(Argv({}), None, false, true, false), START_RECENT);
  // Batch mode never shows the wizard or the welcome screen.
  EXPECT_EQ(ChooseStartPath(Argv({}), None, true, false, true), START_NOTHING);
  EXPECT_EQ(ChooseStartPath(Argv({}), None, false, false, true), START_NOTHING);
}

TEST(Identity, VersionText) {
  EXPECT_EQ(AppVersionText(), "V2.60");
  EXPECT_EQ(VersionText(2, 6, 0), "V2.06");
  EXPECT_EQ(VersionText(2, 60, 1), "V2.60a");
  EXPECT_EQ(VersionText(2, 60, 26), "V2.60z");
  EXPECT_EQ(VersionText(2, 60, 27), "V2.60z01");
  EXPECT_EQ(VersionText(2, 60, 38), "V2.60z12");
  EXPECT_EQ(AppOrganisation(), "MARLEK");
  EXPECT_EQ(AppName(), "Tavit");
  EXPECT_EQ(AppLongTitle(), "Tavit - The Vorden Debugger");
}

TEST(Directories, DerivedFromTheInstallDirectory) {
  const QString d = InstallDir();
  EXPECT_TRUE(d.endsWith('/'));
  EXPECT_EQ(ConfigDir(), d + "Config/");
  EXPECT_EQ(PeripheralsDir(), d + "Config/Peripherals/");
  EXPECT_EQ(LibraryDir(), d + "Lib/");
  EXPECT_EQ(DocumentationDir(), d + "Doc/");
  EXPECT_EQ(PluginDir(), d + "Plugins/");
  const QString sTmp = qEnvironmentVariable("TAVIT_TEST_TMP", QDir::tempPath());
  QFile f(sTmp + "/exists.svd");
  ASSERT_TRUE(f.open(QIODevice::WriteOnly));
  f.close();
  EXPECT_EQ(DefaultDirForFile(sTmp + "/exists.svd", FILE_KIND_PERIPHERALS), QFileInfo(sTmp).absoluteFilePath() + "/");
  EXPECT_EQ(DefaultDirForFile("/nope/x.svd", FILE_KIND_PERIPHERALS), PeripheralsDir());
  EXPECT_EQ(DefaultDirForFile("/nope/readme.PDF", FILE_KIND_OTHER), DocumentationDir());
  EXPECT_EQ(DefaultDirForFile("/nope/p.so", FILE_KIND_PLUGIN), PluginDir());
  EXPECT_EQ(DefaultDirForFile("/nope/p.elf", FILE_KIND_OTHER), d);
}

TEST(CmdLineProject, CommandsAndRequiredFields) {
  CMDLINE_OPTIONS o = ParseCmdLine(Argv({"-device", "STM32F407VG", "-usb", "-if", "SWD", "-speed", "4000", "-jtagconfig",
                                         "1,5", "-programfile", "/fw/a.elf"}));
  EXPECT_EQ(ProjectModule::CommandsFromCmdLine(o),
            QStringList({"Project.SetDevice (\"STM32F407VG\");", "Project.SetHostIF (\"USB\", \"\");",
                         "Project.SetTargetIF (\"SWD\");", "Project.SetTIFSpeed (\"4000\");",
                         "Project.SetJTAGConfig (1, 5);", "File.Open (\"/fw/a.elf\");"}));
  o.JTAGConfig = "1,2,3";  // only exactly two parts make the command
  o.ProgramFile.clear();
  EXPECT_EQ(ProjectModule::CommandsFromCmdLine(o).size(), 4);

  SetUiThread();
  ConsoleRingStart();
  ConsoleRingTake(nullptr);
  EXPECT_FALSE(ProjectModule::CheckCmdLineProject(ParseCmdLine(Argv({"-device", "x", "-if", "SWD"}))));
  EXPECT_FALSE(ProjectModule::CheckCmdLineProject(ParseCmdLine(Argv({"-usb", "-if", "SWD"}))));
  EXPECT_FALSE(ProjectModule::CheckCmdLineProject(ParseCmdLine(Argv({"-usb", "-device", "x"}))));
  QStringList Lines;
  ConsoleRingTake([&](const CONSOLE_ENTRY& e) { Lines.append(QString::fromUtf8(e.Text)); });
  const QString p = "Failed to create project from command line arguments: required argument ";
  EXPECT_EQ(Lines, QStringList({p + "\"host interface\" is missing.", p + "\"device\" is missing.",
                                p + "\"target interface\" is missing."}));
  EXPECT_TRUE(ProjectModule::CheckCmdLineProject(ParseCmdLine(Argv({"-usb", "-device", "x", "-if", "SWD"}))));
}

}  // namespace
