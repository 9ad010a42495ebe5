// The project commands through the real command path (main window, actions,
// hooks): the user file, failed saves, the settings editor on bad files, and
// the settings the project commands take.
#include "commands/actions.h"
#include "log/console.h"
#include "log/log.h"
#include "log/messagebox.h"
#include "project/project.h"
#include "project/projectcommands.h"
#include "project/projecttext.h"
#include "project/vscript.h"
#include "settings/sysvars.h"
#include "testsupport/consolelines.h"
#include "testsupport/files.h"
#include "testsupport/testapp.h"
#include "ui/shell/consolewindow.h"
#include "ui/shell/mainwindow.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

class ProjectCommands : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s_pApp = NewTestApp<QApplication>();
    CMessageBox::SetBatchMode(true);
    ProjectModule::Install();
    ::ProjectCommands::Install();
    s_pMain = new CMainWindow;
    s_pMain->ConsoleWindow()->SetDrawingEnabled(false);
  }
  void SetUp() override {
    Project().Close();
    Console();
  }
  void TearDown() override {
    ProjectText::SetFileCommitGuard(nullptr);
    ProjectModule::SetProgramFileLoader(nullptr);
    UnregisterUserFileSection("Breakpoint");
    Project().Close();
  }
  // The console text since the last call.
  static QString Console() { return TakeConsoleLines().join('\n'); }
  QString Path(const QString& n) const { return Dir.filePath(n); }
  QTemporaryDir Dir;
  static QApplication* s_pApp;
  static CMainWindow* s_pMain;
};
QApplication* ProjectCommands::s_pApp = nullptr;
CMainWindow* ProjectCommands::s_pMain = nullptr;

const QByteArray kProject = "void OnProjectLoad (void) {\n  //\n  // Dialog-generated settings\n  //\n"
                            "  Project.SetDevice (\"DEV\");\n  //\n  // User settings\n  //\n}\n";

}  // namespace

TEST_F(ProjectCommands, UserFileIsWrittenOnCloseAndReadOnOpen) {
  QStringList Read;
  int Reads = 0;
  QStringList Mine{"Breakpoint=main.c:12, State=1", "Breakpoint=main.c:3"};
  RegisterUserFileSection({"Breakpoint", 8 /* DISABLE_SAVE_BREAKPOINTS */, [&Mine] { return Mine; },
                           [&](const QStringList& l) {
                             ++Reads;
                             Read = l;
                           }});
  WriteAll(Path("p.vdebug"), kProject);
  WriteAll(Path("p.vdebug.user"), "Unknown=\"kept\"\n");
  ASSERT_EQ(ExecAction(AID_FILE_OPEN, Path("p.vdebug")), 0) << Console().toStdString();
  EXPECT_EQ(Reads, 1);
  EXPECT_TRUE(Read.isEmpty());
  EXPECT_EQ(Project().DeviceSettings().Device, "DEV");
  Project().Close();
  EXPECT_EQ(ReadAll(Path("p.vdebug.user")), "Breakpoint=main.c:12, State=1\nBreakpoint=main.c:3\nUnknown=\"kept\"");

  // Reopened: the records come back to their owner.
  Mine.clear();
  ASSERT_EQ(ExecAction(AID_FILE_OPEN, Path("p.vdebug")), 0);
  EXPECT_EQ(Reads, 2);
  EXPECT_EQ(Read, (QStringList{"Breakpoint=main.c:12, State=1", "Breakpoint=main.c:3"}));

  // A kind that does not save leaves its records out; others stay.
  Mine = QStringList{"Breakpoint=main.c:99"};
  ExecAction(AID_PROJECT_DISABLE_SESSION_SAVE, "DISABLE_SAVE_BREAKPOINTS");
  EXPECT_EQ(SysVars::GetValue(PREF_SESSION_SAVE_FLAGS), 8);
  Project().Close();
  EXPECT_EQ(ReadAll(Path("p.vdebug.user")), "Unknown=\"kept\"");
  // Everything disabled: the file is not touched.
  ExecAction(AID_FILE_OPEN, Path("p.vdebug"));
  Console();
  ExecAction(AID_PROJECT_DISABLE_SESSION_SAVE, "DISABLE_SAVE_ANY");
  EXPECT_EQ(SysVars::GetValue(PREF_SESSION_SAVE_FLAGS), 0xFFFFFFFF) << Console().toStdString();
  Mine = QStringList{"Breakpoint=x"};
  Project().Close();
  EXPECT_EQ(ReadAll(Path("p.vdebug.user")), "Unknown=\"kept\"");
  SysVars::SetValue(PREF_SESSION_SAVE_FLAGS, 0);
}

TEST_F(ProjectCommands, FailedSavesLeaveTheOldFile) {
  WriteAll(Path("p.vdebug"), kProject);
  ASSERT_EQ(ExecAction(AID_FILE_OPEN, Path("p.vdebug")), 0);
  Console();
  struct INJECTED : ProjectText::IFileCommitGuard {
    bool BeforeCommit(const QString&, QString* r) override {
      *r = "injected failure";
      return false;
    }
  } Injected;
  ProjectText::SetFileCommitGuard(&Injected);
  EXPECT_EQ(ExecAction(AID_FILE_SAVE_PROJECT_AS, Path("p.vdebug")), -1);
  EXPECT_EQ(ReadAll(Path("p.vdebug")), kProject);
  const QString c = Console();
  EXPECT_TRUE(c.contains("Project settings could not be saved: injected failure")) << c.toStdString();
  EXPECT_TRUE(c.contains("[box] Project Warning")) << c.toStdString();

  EXPECT_EQ(Project().WriteSettings(Path("p.vdebug"), true, {"Project.SetDevice (\"NEW\");"}), -1);
  EXPECT_EQ(ReadAll(Path("p.vdebug")), kProject);
  ProjectText::SetFileCommitGuard(nullptr);

  // Without OnProjectLoad there is no place for the settings.
  WriteAll(Path("q.vdebug"), "void Other (void) {\n}\n");
  Console();
  EXPECT_EQ(Project().WriteSettings(Path("q.vdebug"), true, {"Project.SetDevice (\"NEW\");"}), -1);
  EXPECT_EQ(ReadAll(Path("q.vdebug")), "void Other (void) {\n}\n");
  EXPECT_TRUE(Console().contains("could not determine text insertion position."));

  // And with it, the write works.
  EXPECT_EQ(Project().WriteSettings(Path("p.vdebug"), true, {"Project.SetDevice (\"NEW\");"},
                                    {ProjectText::RemovePatternFor("Project.SetDevice (\"NEW\");")}),
            1);
  EXPECT_TRUE(ReadAll(Path("p.vdebug")).contains("  Project.SetDevice (\"NEW\");\n"));
  EXPECT_FALSE(VScript::IsScriptFileModified());
}

TEST_F(ProjectCommands, SaveProjectAsNames) {
  WriteAll(Path("p.vdebug"), kProject);
  ASSERT_EQ(ExecAction(AID_FILE_OPEN, Path("p.vdebug")), 0);
  EXPECT_EQ(ExecAction(AID_FILE_SAVE_PROJECT_AS, Path("plain")), 1);
  EXPECT_TRUE(QFileInfo::exists(Path("plain.vdebug")));
  EXPECT_EQ(VScript::ScriptFilePath(), Path("plain.vdebug"));
  Console();
  EXPECT_EQ(ExecAction(AID_FILE_SAVE_PROJECT_AS, Path("x.txt")), -1);
  EXPECT_TRUE(Console().contains("invalid project filename"));
  EXPECT_EQ(ExecAction(AID_FILE_SAVE_PROJECT_AS, Path("no/such/dir/x.vdebug")), -1);
  EXPECT_TRUE(Console().contains("invalid filename"));
  EXPECT_FALSE(QFileInfo::exists(Path("x.txt")));
}

TEST_F(ProjectCommands, ProjectSettingsCommands) {
  auto Run = [](int Id, const QStringList& Args) {
    QVariant A[8];
    for (int i = 0; i < Args.size(); ++i) A[i] = Args[i];
    Console();
    ExecAction(Id, A[0], A[1], A[2], A[3]);
    return Console();
  };
  EXPECT_TRUE(Run(AID_PROJECT_SET_HOST_IF, {"USB", "abc"}).contains("invalid parameter: \"abc\""));
  EXPECT_TRUE(Run(AID_PROJECT_SET_HOST_IF, {"SERIAL", ""}).contains("unknown host interface"));
  EXPECT_FALSE(Run(AID_PROJECT_SET_HOST_IF, {"IP", "10.0.0.1"}).contains(": "));
  EXPECT_EQ(Project().DeviceSettings().HostIF, "IP");
  EXPECT_EQ(Project().DeviceSettings().HostID, "10.0.0.1");
  EXPECT_TRUE(Run(AID_PROJECT_SET_TARGET_IF, {"SPI"}).contains("unknown target interface"));
  Run(AID_PROJECT_SET_TARGET_IF, {"cjtag"});
  EXPECT_EQ(Project().DeviceSettings().TargetIF, "cJTAG");

  const struct {
    const char* sText;
    I64 Hz;
  } Speeds[] = {{"100", 100000}, {"2,5 MHz", 2500000}, {"12.4 kHz", 12000}, {"12.5 kHz", 13000},
                {"0.2 kHz", 1000}, {"0", 0},           {"65535", 65535},   {"auto", 0}};
  for (const auto& s : Speeds) {
    Run(AID_PROJECT_SET_TIF_SPEED, {s.sText});
    EXPECT_EQ(SysVars::GetValue(VAR_TIF_SPEED), s.Hz) << s.sText;
  }
  EXPECT_TRUE(Run(AID_PROJECT_SET_TIF_SPEED, {"fast"}).contains("invalid number"));

  Run(AID_PROJECT_SET_JTAG_CONFIG, {"2", "12"});
  EXPECT_EQ(SysVars::GetValue(VAR_TIF_SCAN_CHAIN_POS), 2);
  EXPECT_EQ(SysVars::GetValue(VAR_TIF_SCAN_CHAIN_LEN), 12);
  EXPECT_TRUE(Run(AID_PROJECT_SET_JTAG_CONFIG, {"x", "12"}).contains("invalid parameter"));
  Run(AID_PROJECT_SET_BP_TYPE, {"BP_TYPE_HARD"});
  EXPECT_EQ(SysVars::GetValue(VAR_BREAKPOINT_TYPE), 1);
  Run(AID_PROJECT_SET_SWO, {"1", "2 MHz", "72 MHz"});
  EXPECT_EQ(SysVars::GetValue(VAR_SWO_SPEED), 2000000);
  EXPECT_EQ(SysVars::GetValue(VAR_SWO_CPU_SPEED), 72000000);
  EXPECT_EQ(SysVars::GetValue(VAR_TRACE_SOURCE), 3);
  EXPECT_TRUE(Run(AID_PROJECT_ADD_SVD_FILE, {Path("none.svd")}).contains("file not found"));
  WriteAll(Path("regs.txt"), "x");
  EXPECT_TRUE(Run(AID_PROJECT_ADD_SVD_FILE, {Path("regs.txt")}).contains("invalid parameter"));
  // Duplicate-free state commands of what was set.
  Run(AID_PROJECT_SET_DEVICE, {"D1"});
  const QStringList c = Project().CurrentStateCommands();
  EXPECT_EQ(c.value(0), "Project.SetDevice (\"D1\");");
  EXPECT_TRUE(c.contains("Project.SetTargetIF (\"cJTAG\");"));
}

TEST_F(ProjectCommands, ScriptCommands) {
  Console();
  ExecAction(AID_SCRIPT_EXEC);
  EXPECT_TRUE(Console().contains("Script.Exec: no function name given"));
  EXPECT_EQ(ExecAction(AID_SCRIPT_DEFINE_CONST, "BASE_ADDR", "0x20000000"), 0);
  EXPECT_EQ(ExecAction(AID_SCRIPT_DEFINE_CONST, "OTHER", "BASE_ADDR"), 0);
  ExecAction(AID_SCRIPT_DEFINE_CONST, "bad name", "1");
  EXPECT_TRUE(Console().contains("invalid parameter"));
  ExecAction(AID_SCRIPT_DEFINE_CONST, "X", "NO_SUCH_NAME");
  EXPECT_TRUE(Console().contains("invalid parameter: NO_SUCH_NAME"));
  // A project loaded afterwards sees the constants.
  WriteAll(Path("c.vdebug"), "void OnProjectLoad (void) {\n}\nint Get(void) { return OTHER + 1; }\n");
  ASSERT_EQ(ExecAction(AID_FILE_OPEN, Path("c.vdebug")), 0);
  EXPECT_EQ(ExecAction(AID_SCRIPT_EXEC, "Get"), 0x20000001);
  EXPECT_EQ(ExecAction(AID_SCRIPT_EXEC, "Nothing"), -1);
  EXPECT_TRUE(Console().contains("first parameter not a function name or function unknown"));

  // Files that are no project go to the program file layer.
  EXPECT_EQ(ExecAction(AID_FILE_OPEN, Path("prog.elf")), -1);
  EXPECT_TRUE(Console().contains("file not found"));
  WriteAll(Path("prog.elf"), "x");
  struct LOADER : IProgramFileLoader {
    QString sSeen;
    int OpenProgramFile(const QString& p, int) override {
      sSeen = p;
      return 0;
    }
  } Loader;
  ProjectModule::SetProgramFileLoader(&Loader);
  EXPECT_EQ(ExecAction(AID_FILE_OPEN, Path("prog.elf")), 0);
  ProjectModule::SetProgramFileLoader(nullptr);
  EXPECT_EQ(Loader.sSeen, Path("prog.elf"));
}

TEST_F(ProjectCommands, WarningsInOrderAndShownOnce) {
  SetProjectWarningSource("test", [] { return QStringList{"the core support plug-in of device X is missing"}; });
  WriteAll(Path("w.vdebug"), "void OnProjectLoad (void) {\n  Project.SetDevice(\"A\");\n  Project.SetDevice(\"B\");\n}\n");
  ASSERT_EQ(ExecAction(AID_FILE_OPEN, Path("w.vdebug")), 0);
  Project().AddWarning("left by other code");
  const QStringList w = Project().GetWarnings();
  ASSERT_EQ(w.size(), 3) << w.join('|').toStdString();
  EXPECT_EQ(w[0], "left by other code");
  EXPECT_EQ(w[1], "the core support plug-in of device X is missing");
  EXPECT_EQ(w[2], "project command specified twice: Project.SetDevice(\"B\");");
  Console();
  EXPECT_EQ(Project().CheckWarnings(false), 1);
  // Texts printed once are not printed again (compared without case).
  const QString c = Console();
  EXPECT_EQ(c.count("specified twice"), 0) << c.toStdString();
  EXPECT_EQ(c.count("left by other code", Qt::CaseInsensitive), 1) << c.toStdString();
  Project().AddWarning("LEFT BY OTHER CODE");
  Project().CheckWarnings(false);
  EXPECT_EQ(Console().count("other code", Qt::CaseInsensitive), 0);
  SetProjectWarningSource("test", nullptr);
}

// Values of Script.DefineConst and of Script.Exec arguments: numbers in any
// base, constants and expressions; anything else is refused with a reason.
TEST_F(ProjectCommands, ConstantAndExecArgumentsTakeExpressions) {
  EXPECT_EQ(ExecAction(AID_SCRIPT_DEFINE_CONST, "MYC", "0x10 + 4"), 0) << Console().toStdString();
  I64 v = 0;
  ASSERT_TRUE(VScript::FindDefinedConstant("MYC", &v));
  EXPECT_EQ(v, 20);
  EXPECT_EQ(ExecAction(AID_SCRIPT_DEFINE_CONST, "SHIFTED", "(1 << 4) | 0b11"), 0) << Console().toStdString();
  ASSERT_TRUE(VScript::FindDefinedConstant("SHIFTED", &v));
  EXPECT_EQ(v, 19);
  Console();
  EXPECT_EQ(ExecAction(AID_SCRIPT_DEFINE_CONST, "BAD", "1 +"), -1);
  EXPECT_TRUE(Console().contains("invalid parameter")) ;
  EXPECT_FALSE(VScript::FindDefinedConstant("BAD", &v));

  WriteAll(Path("f.vdebug"), "void OnProjectLoad (void) {\n}\nint F(int a, int b) { return a * 1000 + b; }\n");
  ASSERT_EQ(ExecAction(AID_FILE_OPEN, Path("f.vdebug")), 0);
  EXPECT_EQ(ExecAction(AID_SCRIPT_EXEC, "F", "0x10", "0"), 16000);
  EXPECT_EQ(ExecAction(AID_SCRIPT_EXEC, "F", "1+2", "010"), 3008);
  EXPECT_EQ(ExecAction(AID_SCRIPT_EXEC, "F", "MYC", "0b11"), 20003);
  Console();
  for (const char* sBad : {"abc", "1 +", "\"\""}) {
    EXPECT_EQ(ExecAction(AID_SCRIPT_EXEC, "F", sBad, "1"), -1) << sBad;
    const QString c = Console();
    EXPECT_TRUE(c.contains("is not a number, constant or expression")) << sBad << c.toStdString();
    EXPECT_FALSE(c.contains("Executing script function: F")) << sBad;
  }
}

// A project whose OnProjectLoad opens itself, or a project that opened it,
// is refused instead of reloading forever.
TEST_F(ProjectCommands, ProjectThatOpensItselfIsRefused) {
  WriteAll(Path("self.vdebug"), "void OnProjectLoad (void) {\n  Util.Log(\"self loads\");\n  File.Open(\"" +
                                    Path("self.vdebug").toUtf8() + "\");\n}\n");
  ASSERT_EQ(ExecAction(AID_FILE_OPEN, Path("self.vdebug")), 0);
  for (int i = 0; i < 20; ++i) QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  QString c = Console();
  EXPECT_EQ(c.count("self loads"), 1) << c.toStdString();
  EXPECT_TRUE(c.contains("its own OnProjectLoad (or that of a project it opened) opens it again")) << c.toStdString();
  EXPECT_EQ(VScript::ScriptFilePath(), Path("self.vdebug"));

  // A opens B, B opens A: B loads once, A is not loaded again.
  WriteAll(Path("a.vdebug"), "void OnProjectLoad (void) {\n  Util.Log(\"a loads\");\n  File.Open(\"" +
                                 Path("b.vdebug").toUtf8() + "\");\n}\n");
  WriteAll(Path("b.vdebug"), "void OnProjectLoad (void) {\n  Util.Log(\"b loads\");\n  File.Open(\"" +
                                 Path("a.vdebug").toUtf8() + "\");\n}\n");
  ExecAction(AID_FILE_OPEN, Path("a.vdebug"));
  for (int i = 0; i < 20; ++i) QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  c = Console();
  EXPECT_EQ(c.count("a loads"), 1) << c.toStdString();
  EXPECT_EQ(c.count("b loads"), 1) << c.toStdString();
  EXPECT_EQ(VScript::ScriptFilePath(), Path("b.vdebug"));
  // Opened by the user, the same project loads again.
  ExecAction(AID_FILE_OPEN, Path("a.vdebug"));
  for (int i = 0; i < 20; ++i) QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  EXPECT_EQ(Console().count("a loads"), 1);
}

// The session's own files are never truncated as a console log.
TEST_F(ProjectCommands, ConsoleLogRefusesTheSessionsFiles) {
  WriteAll(Path("p.vdebug"), kProject);
  WriteAll(Path("p.vdebug.user"), "Unknown=\"kept\"");
  WriteAll(Path("prog.elf"), "program bytes");
  ASSERT_EQ(ExecAction(AID_FILE_OPEN, Path("p.vdebug")), 0);
  struct LOADER : IProgramFileLoader {
    int OpenProgramFile(const QString&, int) override { return 0; }
  } Loader;
  ProjectModule::SetProgramFileLoader(&Loader);
  ASSERT_EQ(ExecAction(AID_FILE_OPEN, Path("prog.elf")), 0);
  Console();
  const QString sViaDots = Dir.path() + "/./sub/../prog.elf";
  for (const QString& s : {Path("prog.elf"), sViaDots, Path("p.vdebug"), Path("p.vdebug.user")}) {
    EXPECT_EQ(ExecAction(AID_PROJECT_SET_CONSOLE_LOG_FILE, s), -1) << s.toStdString();
    EXPECT_TRUE(Console().contains("would be overwritten by the log")) << s.toStdString();
  }
  EXPECT_EQ(ReadAll(Path("prog.elf")), "program bytes");
  EXPECT_EQ(ReadAll(Path("p.vdebug")), kProject);
  EXPECT_EQ(ReadAll(Path("p.vdebug.user")), "Unknown=\"kept\"");
  EXPECT_EQ(ExecAction(AID_PROJECT_SET_CONSOLE_LOG_FILE, Path("console.log")), 0);
  ConsolePrintLine("into the log");
  Console();  // the console log takes what the console shows
  ExecAction(AID_PROJECT_SET_CONSOLE_LOG_FILE, "");
  EXPECT_TRUE(ReadAll(Path("console.log")).contains("into the log"));
}

// A user file with bytes that are no UTF-8 does not grow on every close.
TEST_F(ProjectCommands, UndecodableUserFileLinesDoNotGrow) {
  WriteAll(Path("u.vdebug"), kProject);
  QByteArray Bad = "Unknown=\"kept\"\n";
  for (int i = 0; i < 200; ++i) Bad += "Junk=\"\xff\xfe\x80\xc3\"\n";
  WriteAll(Path("u.vdebug.user"), Bad);
  qint64 Size = -1;
  for (int Round = 0; Round < 3; ++Round) {
    ASSERT_EQ(ExecAction(AID_FILE_OPEN, Path("u.vdebug")), 0);
    Project().Close();
    const QByteArray Now = ReadAll(Path("u.vdebug.user"));
    EXPECT_LE(Now.size(), Bad.size());
    if (Size >= 0) EXPECT_EQ(Now.size(), Size) << Round;
    Size = Now.size();
    EXPECT_TRUE(Now.contains("Unknown=\"kept\""));
  }
  EXPECT_TRUE(Console().contains("not valid UTF-8")) ;
}
