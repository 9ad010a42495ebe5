// The program in batch mode with projects: opening, events, errors, saving,
// the command-line project, the user file and settings across restarts.
#include "settings/colors.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QSettings>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "testsupport/files.h"
#include "testsupport/process.h"

namespace {

struct RUN : testsupport::RUN {
  QStringList Lines() const { return Out.split('\n'); }
  qsizetype Find(const QString& s) const { return Out.indexOf(s); }
};

class ProjectBatch : public ::testing::Test {
 protected:
  QTemporaryDir Dir;
  QString Exe() const { return testsupport::BuiltProgram("tavit"); }
  QString Path(const QString& n) const { return Dir.filePath(n); }
  void Write(const QString& n, const QByteArray& d) { WriteAll(Path(n), d); }
  QByteArray Read(const QString& n) { return ReadAll(Path(n)); }
  RUN Run(const QStringList& Args, const QByteArray& Batch) {
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("TAVIT_SETTINGS_DIR", Path("settings"));
    return {testsupport::RunBatch(Path("cmds.txt"), Batch, Args, {Dir.path(), env})};
  }
  void SetUp() override { ASSERT_TRUE(QFileInfo::exists(Exe())) << Exe().toStdString(); }
};

const QByteArray kProject =
    "void OnProjectLoad (void) {\n"
    "  //\n  // Dialog-generated settings\n  //\n"
    "  Project.SetDevice (\"STM32F407VG\");\n"
    "  Project.SetHostIF (\"USB\", \"123456\");\n"
    "  Project.SetTargetIF (\"JTAG\");\n"
    "  Project.SetTIFSpeed (\"4 MHz\");\n"
    "  //\n  // User settings\n  //\n"
    "  Util.Log(\"user section ran\");\n"
    "}\n"
    "int Sum7(int a, int b, int c, int d, int e, int f, int g) {\n"
    "  return a + b * 10 + c * 100 + d * 1000 + e * 10000 + f * 100000 + g * 1000000;\n"
    "}\n";

}  // namespace

TEST_F(ProjectBatch, OpensRunsOnProjectLoadThenBatchLines) {
  Write("p.vdebug", kProject);
  const RUN r = Run({"p.vdebug"}, "Util.Log(\"batch line\")\nScript.Exec(Sum7, 1, 2, 3, 4, 5, 6, 7, 8)\n");
  ASSERT_EQ(r.Exit, 0) << r.Out.toStdString();
  const qsizetype Exec = r.Find("Executing script function: OnProjectLoad");
  ASSERT_GE(Exec, 0) << r.Out.toStdString();
  // Each statement is echoed, in order, before the batch lines run.
  const qsizetype Dev = r.Find("Project.SetDevice (\"STM32F407VG\");");
  const qsizetype Host = r.Find("Project.SetHostIF (\"USB\", \"123456\");");
  const qsizetype User = r.Find("user section ran");
  const qsizetype Batch = r.Find("batch line");
  EXPECT_LT(Exec, Dev);
  EXPECT_LT(Dev, Host);
  EXPECT_LT(Host, User);
  EXPECT_LT(User, Batch);
  // Eight numbers: the first seven are passed.
  EXPECT_TRUE(r.Out.contains("Script function Sum7 executed"));
  EXPECT_TRUE(r.Out.contains("=> 7654321 (0x74CBB1)")) << r.Out.toStdString();
}

TEST_F(ProjectBatch, ScriptErrorsReachTheUser) {
  Write("none.vdebug", "void Other (void) {\n}\n");
  RUN r = Run({"none.vdebug"}, "");
  EXPECT_TRUE(r.Out.contains("File.Open (\"none.vdebug\"): script interpretation failure: Required user function missing: OnProjectLoad"))
      << r.Out.toStdString();

  // A syntax error in the body: the error with its line, later events refused.
  Write("body.vdebug", "void OnProjectLoad (void) {\n  Util.Log(\"before\");\n  Util.Log(\"x\" +);\n  Util.Log(\"after\");\n}\n"
                       "int Later(void) { return 1; }\n");
  r = Run({"body.vdebug"}, "Script.Exec(Later)\n");
  EXPECT_TRUE(r.Out.contains("before"));
  EXPECT_FALSE(r.Out.contains("after\n"));
  EXPECT_TRUE(r.Out.contains(" at line 3")) << r.Out.toStdString();
  // Logged lines start with a capital letter.
  EXPECT_TRUE(r.Out.contains(QRegularExpression("Script interpretation failure: .* at line 3\n"))) << r.Out.toStdString();
  EXPECT_TRUE(r.Out.contains("Script.Exec (\"Later\"): script has error")) << r.Out.toStdString();

  // A broken head does not load at all.
  Write("head.vdebug", "void OnProjectLoad (void) {\n}\n\nint 3x(void) {\n}\n");
  r = Run({"head.vdebug"}, "");
  EXPECT_TRUE(r.Out.contains("File.Open (\"head.vdebug\"): script interpretation failure:"));
  EXPECT_TRUE(r.Out.contains("at line 4")) << r.Out.toStdString();
  EXPECT_FALSE(r.Out.contains("Executing script function: OnProjectLoad"));

  r = Run({"missing.vdebug"}, "");
  EXPECT_TRUE(r.Out.contains("File.Open (\"missing.vdebug\"): file not found")) << r.Out.toStdString();
}

TEST_F(ProjectBatch, DuplicateCommandsAreReported) {
  Write("dup.vdebug", "void OnProjectLoad (void) {\n  Project.SetDevice(\"A\");\n  Project.SetDevice(\"B\");\n"
                      "  Edit.SysVar(VAR_ACCESS_WIDTH, 1);\n  Edit.SysVar(VAR_ACCESS_WIDTH, 2);\n}\n");
  const RUN r = Run({"dup.vdebug"}, "");
  EXPECT_EQ(r.Out.count("project command specified twice", Qt::CaseInsensitive), 1) << r.Out.toStdString();
  EXPECT_TRUE(r.Out.contains("Project command specified twice: Project.SetDevice(\"B\");"));
}

TEST_F(ProjectBatch, SaveAsWritesTheTemplateAndReopensTheSameSettings) {
  Write("p.vdebug", kProject);
  RUN r = Run({"p.vdebug"}, "File.SaveProjectAs(\"out\")\nFile.SaveProjectAs(\"bad.txt\")\n");
  EXPECT_TRUE(r.Out.contains("File.SaveProjectAs (\"bad.txt\"): invalid project filename")) << r.Out.toStdString();
  const QString Out = QString::fromUtf8(Read("out.vdebug"));
  ASSERT_NE(Out, "<missing>") << r.Out.toStdString();
  EXPECT_TRUE(Out.contains("  //\n  // Dialog-generated settings\n  //\n"));
  EXPECT_TRUE(Out.contains("  //\n  // User settings\n  //\n"));
  EXPECT_EQ(Out.count("* Function description"), 15);
  EXPECT_EQ(Out.count("//void "), 14);

  // The saved project gives the same settings: saving it again gives the
  // same text.
  r = Run({"out.vdebug"}, "File.SaveProjectAs(\"again.vdebug\")\n");
  ASSERT_TRUE(r.Out.contains("Executing script function: OnProjectLoad"));
  for (const char* s : {"Project.SetDevice (\"STM32F407VG\");", "Project.SetHostIF (\"USB\", \"123456\");",
                        "Project.SetTargetIF (\"JTAG\");", "Project.SetTIFSpeed (\"4 MHz\");"}) {
    EXPECT_TRUE(Out.contains(QString("  ") + s)) << s;
    EXPECT_TRUE(r.Out.contains(s)) << s;
  }
  EXPECT_EQ(Read("again.vdebug"), Out.toUtf8());
}

TEST_F(ProjectBatch, CommandLineProjectWritesIntoExistingFile) {
  Write("p.vdebug", kProject);
  RUN r = Run({"-device", "MYDEV", "-usb", "-if", "SWD", "-project", Path("p.vdebug")}, "");
  EXPECT_TRUE(r.Out.contains("Project settings were written to the project file")) << r.Out.toStdString();
  const QString T = QString::fromUtf8(Read("p.vdebug"));
  EXPECT_TRUE(T.contains("  Project.SetDevice (\"MYDEV\");\n"));
  EXPECT_FALSE(T.contains("STM32F407VG"));
  EXPECT_TRUE(T.contains("  Project.SetTargetIF (\"SWD\");\n"));
  EXPECT_FALSE(T.contains("JTAG"));
  // Commands not given on the command line stay, the user section too.
  EXPECT_TRUE(T.contains("  Project.SetTIFSpeed (\"4 MHz\");\n"));
  EXPECT_TRUE(T.contains("  Util.Log(\"user section ran\");\n"));
  EXPECT_TRUE(T.contains("int Sum7("));
  // The project was opened with the new settings.
  EXPECT_TRUE(r.Out.contains("Project.SetDevice (\"MYDEV\");"));

  // The same again changes nothing.
  r = Run({"-device", "MYDEV", "-usb", "-if", "SWD", "-project", Path("p.vdebug")}, "");
  EXPECT_FALSE(r.Out.contains("Project settings were written to the project file"));
  EXPECT_EQ(QString::fromUtf8(Read("p.vdebug")), T);

  r = Run({"-usb", "-if", "SWD", "-project", Path("p.vdebug")}, "");
  EXPECT_EQ(QString::fromUtf8(Read("p.vdebug")), T);
}

TEST_F(ProjectBatch, UserFileKeepsUnknownRecords) {
  Write("p.vdebug", kProject);
  Write("p.vdebug.user", "Zeta=1\nOpenWindow=\"Console\", x=1, broken\nAlpha=\"a, b\"\n");
  const RUN r = Run({"p.vdebug"}, "");
  EXPECT_TRUE(r.Out.contains("Syntax error in user preference file (.vdebug.user): broken")) << r.Out.toStdString();
  // Written on close, sorted by key, nothing lost; the window lines are the
  // main window's own, written again from the open windows.
  const QString sUser = QString::fromUtf8(Read("p.vdebug.user"));
  EXPECT_TRUE(sUser.startsWith("Alpha=\"a, b\"\n")) << sUser.toStdString();
  EXPECT_TRUE(sUser.endsWith("\nZeta=1")) << sUser.toStdString();
  EXPECT_TRUE(sUser.contains("OpenWindow=\"Console\", DockArea=")) << sUser.toStdString();

  // A project whose script does not load keeps its user file as it was.
  Write("bad.vdebug", "void Other (void) {\n}\n");
  Write("bad.vdebug.user", "B=1\nA=2");
  Run({"bad.vdebug"}, "");
  EXPECT_EQ(Read("bad.vdebug.user"), "A=2\nB=1");
}

TEST_F(ProjectBatch, SettingsCommandsPersistAcrossRestart) {
  RUN r = Run({}, "Edit.SysVar(VAR_ACCESS_WIDTH, 3)\nEdit.SysVar(NOT_A_VAR, 1)\n"
                  "Edit.Preference(PREF_TAB_SPACING, 6, 1)\nEdit.Color(COLOR_PC_ACTIVE, \"#123456\")\n"
                  "Edit.Color(COLOR_PC_INACTIVE, \"#654321\")\nEdit.Font(FONT_CONSOLE, \"Monospace, 11pt, Bold\")\n");
  EXPECT_TRUE(r.Out.contains("Edit.SysVar (VAR_ACCESS_WIDTH, AW_WORD);")) << r.Out.toStdString();
  EXPECT_TRUE(r.Out.contains("Edit.SysVar (NOT_A_VAR, 1): unknown system variable"));
  const QString Ini = Path("settings/MARLEK/Tavit.ini");
  {
    QSettings s(Ini, QSettings::IniFormat);
    EXPECT_EQ(s.value("AppData/Preferences/Preferences/PREF_TAB_SPACING").toInt(), 6) << s.allKeys().join(",").toStdString();
    EXPECT_EQ(s.value("AppData/Preferences/Colors/COLOR_PC_ACTIVE").toString().toLower(), "#123456");
    EXPECT_TRUE(s.value("AppData/Preferences/Fonts/FONT_CONSOLE").toString().contains("Monospace"));
  }
  // The next run starts with them; a colour set back to its default loses
  // its key, the other stays.
  const QByteArray Default = "0x" + QByteArray::number(Colors::GetDefault(COLOR_PC_ACTIVE), 16);
  r = Run({}, "Tools.Preferences()\nTools.SysVars()\nEdit.Color(COLOR_PC_ACTIVE, \"" + Default + "\")\n");
  EXPECT_TRUE(r.Out.contains("=> 2 (0x2)")) << r.Out.toStdString();  // no dialog in batch mode
  EXPECT_FALSE(QSettings(Ini, QSettings::IniFormat).contains("AppData/Preferences/Colors/COLOR_PC_ACTIVE"));
  QSettings s(Ini, QSettings::IniFormat);
  EXPECT_EQ(s.value("AppData/Preferences/Preferences/PREF_TAB_SPACING").toInt(), 6);
  EXPECT_EQ(s.value("AppData/Preferences/Colors/COLOR_PC_INACTIVE").toString().toLower(), "#654321");
  EXPECT_TRUE(s.value("AppData/Preferences/Fonts/FONT_CONSOLE").toString().contains("Monospace"));
}

TEST_F(ProjectBatch, CommandLineProjectInMemoryAndNewProject) {
  // No project file: the project is made in memory from the options.
  RUN r = Run({"-device", "MYDEV", "-ip", "192.0.2.1", "-if", "SWD", "-speed", "2000"},
              "File.SaveProjectAs(\"made.vdebug\")\nFile.NewProject()\nScript.Exec(OnProjectLoad)\n");
  EXPECT_TRUE(r.Out.contains("Executing script function: OnProjectLoad")) << r.Out.toStdString();
  EXPECT_TRUE(r.Out.contains("Project.SetHostIF (\"IP\", \"192.0.2.1\");"));
  const QString T = QString::fromUtf8(Read("made.vdebug"));
  EXPECT_TRUE(T.contains("  Project.SetDevice (\"MYDEV\");\n")) << T.toStdString();
  EXPECT_TRUE(T.contains("  Project.SetTIFSpeed (\"2 MHz\");\n"));
  // After File.NewProject the script is closed: the call is refused quietly.
  EXPECT_TRUE(r.Out.endsWith("Script.Exec (\"OnProjectLoad\");\nExecuting script function: OnProjectLoad\n=> 0 (0x0)\n"))
      << r.Out.toStdString();
  EXPECT_FALSE(r.Out.contains("Script function OnProjectLoad executed"));

  // A missing required option is reported and the program goes on.
  r = Run({"-device", "MYDEV", "-if", "SWD"}, "Util.Log(\"still here\")\n");
  EXPECT_TRUE(r.Out.contains("required argument \"host interface\" is missing.")) << r.Out.toStdString();
  EXPECT_TRUE(r.Out.contains("still here"));
}

TEST_F(ProjectBatch, ProjectOpenedFromAScriptWaitsForItToEnd) {
  Write("r.vdebug", "void OnProjectLoad (void) {\n}\nint Rec(void) { return Script.Exec(\"Rec\"); }\n"
                    "int Switch(void) { File.Open(\"other.vdebug\"); Util.Log(\"not reached\"); return 1; }\n");
  Write("other.vdebug", "void OnProjectLoad (void) {\n  Util.Log(\"other loaded\");\n}\n");
  const RUN r = Run({"r.vdebug"}, "Script.Exec(Rec)\nScript.Exec(Switch)\nUtil.Log(\"end\")\n");
  // Nested Script.Exec ends at the call level limit.
  EXPECT_EQ(r.Out.count("Script.Exec (\"Rec\"): maximum call level reached"), 1) << r.Out.toStdString();
  EXPECT_EQ(r.Out.count("Script function Rec executed"), 11);  // levels 1 to 11
  // The running script is stopped, then the other project loads before the
  // next line.
  EXPECT_FALSE(r.Out.contains("not reached"));
  const qsizetype Loaded = r.Find("other loaded");
  ASSERT_GT(Loaded, 0) << r.Out.toStdString();
  EXPECT_LT(Loaded, r.Find("end\n"));
  EXPECT_FALSE(r.Out.contains("Script.Exec (\"Switch\"):"));
}

// A project saved after File.Open of a program opens that program again,
// relative to the project directory.
TEST_F(ProjectBatch, SavedProjectReopensItsProgram) {
  const QString sElf = qEnvironmentVariable("TAVIT_SOURCE_DIR") + "/firmware/corpus/app-dwarf3-O0.elf";
  ASSERT_TRUE(QFile::copy(sElf, Path("prog.elf")));
  RUN r = Run({}, "File.Open(\"prog.elf\")\nElf.GetEntryPointPC()\nFile.SaveProjectAs(\"saved\")\n");
  ASSERT_EQ(r.Exit, 0) << r.Out.toStdString();
  const auto Entry = QRegularExpression("Elf.GetEntryPointPC\\(\\);\\n=> (\\d+)").match(r.Out);
  ASSERT_TRUE(Entry.hasMatch()) << r.Out.toStdString();
  const QString T = QString::fromUtf8(Read("saved.vdebug"));
  EXPECT_TRUE(T.contains("  File.Open (\"$(ProjectDir)/prog.elf\");\n")) << T.toStdString();
  EXPECT_TRUE(T.contains("  Project.AddPathSubstitute (\"" + Dir.path() + "\", \"$(ProjectDir)\");\n")) << T.toStdString();
  r = Run({Path("saved.vdebug")}, "Elf.GetEntryPointPC()\n");
  EXPECT_EQ(r.Exit, 0) << r.Out.toStdString();
  EXPECT_TRUE(r.Out.contains("Elf.GetEntryPointPC();\n=> " + Entry.captured(1) + " ")) << r.Out.toStdString();
  EXPECT_FALSE(r.Out.contains("not implemented")) << r.Out.toStdString();
}

// Every echo is a statement that runs unchanged in the console and in a
// project script, and echoes the same again.
TEST_F(ProjectBatch, EchoesRunUnchangedInConsoleAndScript) {
  const QStringList Cmds = {"Edit.SysVar(VAR_RESET_MODE, 2)", "Edit.SysVar(VAR_ACCESS_WIDTH, 4)",
                            "Edit.SysVar(VAR_TIF_SPEED, \"2,5 MHz\")", "Edit.Preference(PREF_SHOW_HEX_BLOCKS, 1)",
                            "Edit.Color(COLOR_LOGGING_USER, 0xFF112233)",
                            "Edit.Font(FONT_CONSOLE, \"Courier New, 10pt, Bold Italic\")"};
  RUN r = Run({}, Cmds.join('\n').toUtf8() + "\n");
  ASSERT_EQ(r.Exit, 0) << r.Out.toStdString();
  QStringList Echoes;
  for (const QString& l : r.Lines())
    if (l.startsWith("Edit.")) Echoes << l;
  ASSERT_EQ(Echoes.size(), Cmds.size()) << r.Out.toStdString();
  EXPECT_TRUE(r.Out.contains("Edit.SysVar (VAR_RESET_MODE, 2);\n")) << r.Out.toStdString();
  // Pasted into the console.
  r = Run({}, Echoes.join('\n').toUtf8() + "\n");
  EXPECT_EQ(r.Exit, 0) << r.Out.toStdString();
  for (const QString& e : Echoes) EXPECT_TRUE(r.Out.contains(e + "\n")) << e.toStdString() << r.Out.toStdString();
  // Pasted into a project.
  Write("echo.vdebug", "void OnProjectLoad (void) {\n  " + Echoes.join("\n  ").toUtf8() + "\n}\n");
  r = Run({"echo.vdebug"}, "");
  EXPECT_EQ(r.Exit, 0) << r.Out.toStdString();
  EXPECT_FALSE(r.Out.contains("invalid parameter")) << r.Out.toStdString();
  EXPECT_EQ(r.Lines().filter(QRegularExpression("^Edit\\.")).size(), Echoes.size()) << r.Out.toStdString();
}

// A font style survives the restart.
TEST_F(ProjectBatch, FontStyleSurvivesRestart) {
  RUN r = Run({}, "Edit.Font(FONT_CONSOLE, \"Courier New, 10pt, Bold Italic\")\n");
  ASSERT_EQ(r.Exit, 0) << r.Out.toStdString();
  QSettings Store(Path("settings") + "/MARLEK/Tavit.ini", QSettings::IniFormat);
  EXPECT_EQ(Store.value("AppData/Preferences/Fonts/FONT_CONSOLE").toString(), "Courier New,  10pt,  Bold Italic");
  // The next start reads it back and writes it again unchanged.
  r = Run({}, "Util.Log(\"second start\")\n");
  ASSERT_EQ(r.Exit, 0);
  QSettings Again(Path("settings") + "/MARLEK/Tavit.ini", QSettings::IniFormat);
  EXPECT_EQ(Again.value("AppData/Preferences/Fonts/FONT_CONSOLE").toString(), "Courier New,  10pt,  Bold Italic");
}

// A project script that logs in a long loop does not run out of heap: a
// string literal takes heap once.
TEST_F(ProjectBatch, LongLoggingLoopsRun) {
  Write("loop.vdebug", "void OnProjectLoad (void) {\n}\n"
                       "int Loop(int n) {\n  int i;\n  i = 0;\n  while (i < n) {\n    Util.Log(\"x\");\n    i += 1;\n  }\n"
                       "  return i;\n}\n");
  const RUN r = Run({"loop.vdebug"}, "Script.Exec(Loop, 5000)\n");
  EXPECT_EQ(r.Exit, 0) << r.Out.right(2000).toStdString();
  EXPECT_FALSE(r.Out.contains("out of memory"));
  EXPECT_EQ(r.Lines().count("x"), 5000);
  EXPECT_TRUE(r.Out.contains("=> 5000 (0x1388)")) << r.Out.right(500).toStdString();

  // A script that outlives the line's time limit stops at its next command.
  QElapsedTimer t;
  t.start();
  const RUN Long = Run({"loop.vdebug", "-batchtimelimit", "1"}, "Script.Exec(Loop, 2000000000)\nUtil.Log(\"next line\")\n");
  EXPECT_LT(t.elapsed(), 30000);
  EXPECT_EQ(Long.Exit, 1);
  EXPECT_TRUE(Long.Out.contains("batch time limit of 1 s per line exceeded")) << Long.Out.right(500).toStdString();
  EXPECT_TRUE(Long.Out.contains("\nnext line\n"));
}

// The batch exit status tells CI about a project that is missing, does not
// parse or stops with a script error.
TEST_F(ProjectBatch, ProjectFailuresMakeTheExitStatusOne) {
  Write("good.vdebug", kProject);
  Write("syntax.vdebug", "void OnProjectLoad (void) {\n  int a = ;\n}\n");
  Write("stops.vdebug", "void OnProjectLoad (void) {\n  int a;\n  a = 1 / 0;\n}\n");
  EXPECT_EQ(Run({"good.vdebug"}, "Util.Log(\"ok\")\n").Exit, 0);
  for (const char* s : {"missing.vdebug", "syntax.vdebug", "stops.vdebug"}) {
    const RUN r = Run({s}, "Util.Log(\"ok\")\n");
    EXPECT_EQ(r.Exit, 1) << s << r.Out.toStdString();
    EXPECT_TRUE(r.Out.contains("ok\n")) << s;  // the lines still run
  }
}
