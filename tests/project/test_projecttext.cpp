// Project text handling: templates, the settings editor, the duplicate
// test, user file records and the atomic writer. The generated template is
// checked against the interpreter itself.
#include "project/projecttext.h"
#include "script/script.h"
#include "testsupport/files.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <gtest/gtest.h>

using namespace ProjectText;

TEST(ProjectTemplate, CommentBlocksHaveTheirShape) {
  for (int Id = 1; Id <= EVENT_COUNT; ++Id) {
    const QStringList L = EventCommentBlock(Id).split('\n', Qt::SkipEmptyParts);
    ASSERT_GE(L.size(), 9) << Id;
    EXPECT_EQ(L.first(), "/" + QString(69, '*'));
    EXPECT_EQ(L.last(), "*/");
    for (int i = 0; i + 1 < L.size(); ++i) EXPECT_EQ(L[i].size(), 70) << Id << ":" << i;
    EXPECT_EQ(L[L.size() - 2], QString(70, '*'));
    const int Gap = (Id == 2 || Id == 11) ? 6 : 7;
    EXPECT_EQ(L[2].trimmed(), "*" + QString(Gap, ' ') + EventName(Id));
    EXPECT_TRUE(L[2].startsWith("*" + QString(Gap, ' ') + EventName(Id)));
  }
  EXPECT_TRUE(EventCommentBlock(4).contains("*   - Sets the PC register to program reset value."));
  EXPECT_TRUE(EventCommentBlock(11).contains("*   - Sets the SP register to program reset value on Cortex-M."));
  EXPECT_TRUE(EventCommentBlock(2).contains("debugging a RAM program on a Cortex-M target device"));
  EXPECT_FALSE(EventCommentBlock(3).contains("Sets the PC"));
  EXPECT_TRUE(EventCommentBlock(0).isEmpty());
  EXPECT_TRUE(EventCommentBlock(16).isEmpty());
}

TEST(ProjectTemplate, NewProjectTextLoadsInTheInterpreter) {
  const QStringList Cmds{"Project.SetDevice (\"X\");", "File.Open (\"a.elf\");", "Project.SetTargetIF (\"SWD\");",
                         "File.Open (\"b.elf\");"};
  const QString s = BuildProjectText(Cmds);
  // Dialog section, then user section with the first File.Open only.
  const qsizetype d = s.indexOf("  // Dialog-generated settings\n");
  const qsizetype u = s.indexOf("  // User settings\n");
  ASSERT_GT(d, 0);
  ASSERT_GT(u, d);
  EXPECT_GT(s.indexOf("  Project.SetTargetIF (\"SWD\");"), d);
  EXPECT_LT(s.indexOf("  Project.SetTargetIF (\"SWD\");"), u);
  EXPECT_GT(s.indexOf("  File.Open (\"a.elf\");"), u);
  EXPECT_LT(s.indexOf("  File.Open (\"b.elf\");"), u);
  // Every event in id order, each with its comment block.
  qsizetype Last = -1;
  for (int Id = 1; Id <= EVENT_COUNT; ++Id) {
    const qsizetype p = s.indexOf("*" + QString((Id == 2 || Id == 11) ? 6 : 7, ' ') + EventName(Id) + " ");
    EXPECT_GT(p, Last) << Id;
    Last = p;
  }

  // The interpreter reads the text: OnProjectLoad is the only function.
  CScriptEngine E;
  const QByteArray t = s.toUtf8();
  ASSERT_EQ(E.Load(std::string_view(t.constData(), size_t(t.size()))), 0);
  for (const char* p : {"__api__ int Project.SetDevice (const char* s);", "__api__ int File.Open (const char* s);",
                        "__api__ int Project.SetTargetIF (const char* s);"})
    E.RegisterHostFunction(p, [](const SCRIPT_HOST_CALL&) -> I64 { return 0; });
  ASSERT_EQ(E.Parse(), 0) << E.GetErrorMessage();
  EXPECT_TRUE(E.IsFunctionDefined("OnProjectLoad"));
  EXPECT_FALSE(E.IsFunctionDefined("TargetReset"));
  EXPECT_EQ(E.CallFunction("OnProjectLoad"), 0) << E.GetErrorMessage();
}

TEST(ProjectTemplate, CommentedDefaultBodiesAreValidScript) {
  // Removing the "//" of the reset examples gives working functions.
  for (int Id : {2, 11, 3}) {
    QString Body = EventDefaultBody(Id);
    QStringList L = Body.split('\n', Qt::SkipEmptyParts);
    for (QString& l : L) {
      ASSERT_TRUE(l.startsWith("//")) << l.toStdString();
      l = l.mid(2);
    }
    const QByteArray t = ("void OnProjectLoad (void) {\n}\n" + L.join('\n') + "\n").toUtf8();
    CScriptEngine E;
    ASSERT_EQ(E.Load(std::string_view(t.constData(), size_t(t.size()))), 0);
    std::vector<std::string> Calls;
    for (const char* p : {"__api__ int Exec.Reset (void);", "__api__ int Elf.GetBaseAddr (void);",
                          "__api__ int Util.Log (const char* sText);", "__api__ int Target.ReadU32 (unsigned int Address);",
                          "__api__ int Target.SetReg (const char* sRegName, unsigned int Value);"})
      E.RegisterHostFunction(p, [&Calls](const SCRIPT_HOST_CALL& c) -> I64 {
        Calls.emplace_back(c.Name);
        return c.Name == "Target.ReadU32" ? 0x20001000 + c.paArgs[0] : 0;
      });
    ASSERT_EQ(E.Parse(), 0) << E.GetErrorMessage();
    ASSERT_EQ(E.CallFunction(EventName(Id).toStdString()), 0) << E.GetErrorMessage();
    if (Id == 3) {
      EXPECT_TRUE(Calls.empty());
    } else {
      EXPECT_EQ(Calls.front(), Id == 2 ? "Exec.Reset" : "Elf.GetBaseAddr");
      EXPECT_EQ(std::count(Calls.begin(), Calls.end(), "Target.SetReg"), 2);
    }
  }
  EXPECT_EQ(EventDefaultBody(5, "  Util.Log(\"x\");"), "void DebugStart (void) {\n  Util.Log(\"x\");\n}\n");
}

TEST(WriteSettings, SectionsReplaceAndExtend) {
  const QString Base = BuildProjectText({"Project.SetDevice (\"OLD\");", "Project.SetTargetIF (\"JTAG\");"}) ;
  // Replace: the new statement leads its section, the old one of the same
  // command is removed, the user statement lands in the user section.
  auto R = WriteSettingsText(Base, true, {"Project.SetDevice (\"NEW\");", "Util.Log (\"u\");"},
                             {RemovePatternFor("Project.SetDevice (\"NEW\");")});
  ASSERT_TRUE(R.Ok);
  EXPECT_TRUE(R.Warnings.isEmpty());
  EXPECT_FALSE(R.sText.contains("OLD"));
  const qsizetype d = R.sText.indexOf("  Project.SetDevice (\"NEW\");");
  EXPECT_GT(d, R.sText.indexOf("// Dialog-generated settings"));
  EXPECT_LT(d, R.sText.indexOf("Project.SetTargetIF"));
  EXPECT_GT(R.sText.indexOf("  Util.Log (\"u\");"), R.sText.indexOf("// User settings"));
  EXPECT_LT(R.sText.indexOf("  Util.Log (\"u\");"), R.sText.indexOf("\n}\n"));
  // The rest of the file is untouched.
  EXPECT_EQ(R.sText.mid(R.sText.indexOf("\n}\n")), Base.mid(Base.indexOf("\n}\n")));

  // Extend: behind the old lines.
  auto E = WriteSettingsText(Base, false, {"Project.SetTIFSpeed (\"1 MHz\");"}, {});
  ASSERT_TRUE(E.Ok);
  EXPECT_GT(E.sText.indexOf("Project.SetTIFSpeed"), E.sText.indexOf("Project.SetTargetIF"));
  EXPECT_LT(E.sText.indexOf("Project.SetTIFSpeed"), E.sText.indexOf("// User settings"));

  // Edit.SysVar replaces only the statement of the same variable.
  const QString V = "void OnProjectLoad (void) {\n  //\n  // Dialog-generated settings\n  //\n"
                    "  Edit.SysVar (VAR_TIF_SPEED, 1000);\n  Edit.SysVar (VAR_TIF_SPEED_X, 1);\n  //\n  // User settings\n  //\n}\n";
  auto S = WriteSettingsText(V, true, {"Edit.SysVar (VAR_TIF_SPEED, 2000);"}, {RemovePatternFor("Edit.SysVar (VAR_TIF_SPEED, 2000);")});
  ASSERT_TRUE(S.Ok);
  EXPECT_FALSE(S.sText.contains("VAR_TIF_SPEED, 1000"));
  EXPECT_TRUE(S.sText.contains("  Edit.SysVar (VAR_TIF_SPEED_X, 1);"));
  EXPECT_TRUE(S.sText.contains("  Edit.SysVar (VAR_TIF_SPEED, 2000);"));
}

TEST(WriteSettings, MissingMarkersAndBounds) {
  // No markers: a warning, and the settings go behind the start of the
  // function; nested braces do not end the body early.
  const QString T = "int X(void) { return 1; }\nvoid OnProjectLoad (void) {\n  if (1) {\n    Util.Log(\"a\");\n  }\n}\nvoid After(void) {\n}\n";
  auto R = WriteSettingsText(T, true, {"Project.SetDevice (\"D\");"}, {});
  ASSERT_TRUE(R.Ok);
  ASSERT_EQ(R.Warnings.size(), 1);
  EXPECT_TRUE(R.Warnings[0].contains("dialog-generated"));
  EXPECT_TRUE(R.sText.startsWith("int X(void) { return 1; }\nvoid OnProjectLoad (void) {\n  Project.SetDevice (\"D\");\n  if (1) {"));
  EXPECT_TRUE(R.sText.endsWith("}\nvoid After(void) {\n}\n"));
  auto U = WriteSettingsText(T, false, {"Util.Log (\"z\");"}, {});
  ASSERT_TRUE(U.Ok);
  EXPECT_TRUE(U.Warnings.value(0).contains("user settings"));
  EXPECT_TRUE(U.sText.contains("  }\n  Util.Log (\"z\");\n}\nvoid After"));

  for (const char* Bad : {"", "void Other (void) {\n}\n", "void OnProjectLoad (void) {\n  Util.Log(\"a\");\n",
                          "void OnProjectLoad (void);"}) {
    EXPECT_FALSE(WriteSettingsText(Bad, true, {"Project.SetDevice (\"D\");"}, {}).Ok) << Bad;
  }
}

TEST(Duplicates, OnlyNonRepeatableCommandsCount) {
  const QString T =
      "void OnProjectLoad (void) {\n"
      "  Project.SetDevice(\"A\");\n"
      "  // Project.SetDevice(\"commented\");\n"
      "  /* Project.SetTargetIF(\"SWD\"); */\n"
      "  Project.SetTargetIF(\"SWD\");\n"
      "  Edit.SysVar(VAR_ACCESS_WIDTH, 1);\n  Edit.SysVar(VAR_ACCESS_WIDTH, 2);\n"
      "  Project.SetDevice (\"B\");\n"
      "  Project.SetTIFScanChain(1, 2);\n  Project.SetJTAGConfig(1, 2);\n"
      "}\n"
      "void Later(void) { Project.SetDevice(\"C\"); }\n";
  const QStringList d = FindDuplicateCommands(T);
  ASSERT_EQ(d.size(), 2) << d.join('|').toStdString();
  EXPECT_EQ(d[0], "Project.SetDevice (\"B\");");
  EXPECT_EQ(d[1], "Project.SetJTAGConfig(1, 2);");  // the alias counts as the same command
  EXPECT_TRUE(FindDuplicateCommands("no function here").isEmpty());
}

TEST(UserFile, PathKeysSortingAndFields) {
  EXPECT_EQ(UserFilePath("/a/b/p.vdebug"), "/a/b/p.vdebug.user");
  EXPECT_EQ(UserFilePath("/a/b.c/p.x.vdebug"), "/a/b.c/p.x.vdebug.user");
  const QStringList L{"OpenWindow=\"Console\", x=1", "Breakpoint=main.c:10, State=1", "OpenWindow=\"Memory\", x=2",
                      "Breakpoint=main.c:5", "Custom=1"};
  EXPECT_EQ(SortUserFileLines(L), (QStringList{"Breakpoint=main.c:10, State=1", "Breakpoint=main.c:5", "Custom=1",
                                               "OpenWindow=\"Console\", x=1", "OpenWindow=\"Memory\", x=2"}));
  QStringList Bad;
  const auto F = ParseUserFileRecord("OpenDocument=\"a, b.c\", FilePath=\"/x/a, b.c\", Line=12, junk", &Bad);
  ASSERT_EQ(F.size(), 3);
  EXPECT_EQ(F[0].first, "OpenDocument");
  EXPECT_EQ(F[0].second, "a, b.c");
  EXPECT_EQ(F[1].second, "/x/a, b.c");
  EXPECT_EQ(F[2].second, "12");
  EXPECT_EQ(Bad, QStringList{"junk"});
}

TEST(AtomicWrite, FailureKeepsTheOldFile) {
  QTemporaryDir Dir;
  ASSERT_TRUE(Dir.isValid());
  const QString p = Dir.filePath("p.vdebug");
  QString e;
  ASSERT_TRUE(AtomicWriteFile(p, "first", &e)) << e.toStdString();
  EXPECT_EQ(ReadAll(p), "first");
  ASSERT_TRUE(AtomicWriteFile(p, "second", &e));
  EXPECT_EQ(ReadAll(p), "second");

  struct DISK_FULL : IFileCommitGuard {
    bool BeforeCommit(const QString&, QString* r) override {
      *r = "disk full";
      return false;
    }
  } Full;
  SetFileCommitGuard(&Full);
  EXPECT_FALSE(AtomicWriteFile(p, "third", &e));
  SetFileCommitGuard(nullptr);
  EXPECT_EQ(e, "disk full");
  EXPECT_EQ(ReadAll(p), "second");
  // No temporary file is left behind.
  EXPECT_EQ(QDir(Dir.path()).entryList(QDir::Files), QStringList{"p.vdebug"});
  // One that a killed save left is replaced by the next save.
  {
    QFile Stray(TempFilePath(p));
    ASSERT_TRUE(Stray.open(QIODevice::WriteOnly));
    Stray.write(QByteArray(100000, 'x'));
  }
  ASSERT_TRUE(AtomicWriteFile(p, "fourth", &e));
  EXPECT_EQ(ReadAll(p), "fourth");
  EXPECT_EQ(QDir(Dir.path()).entryList(QDir::Files), QStringList{"p.vdebug"});

  e.clear();
  EXPECT_FALSE(AtomicWriteFile(Dir.filePath("missing/dir/p.vdebug"), "x", &e));
  EXPECT_FALSE(e.isEmpty());
  // A directory in the way of the file.
  QDir(Dir.path()).mkdir("d.vdebug");
  EXPECT_FALSE(AtomicWriteFile(Dir.filePath("d.vdebug"), "x", &e));
  EXPECT_TRUE(QFileInfo(Dir.filePath("d.vdebug")).isDir());
}

TEST(ProjectTextRobustness, MutatedTextsNeverBreakTheEditor) {
  // Damaged project files: unbalanced braces, stray quotes and comments.
  const QString Base = BuildProjectText({"Project.SetDevice (\"X\");", "File.Open (\"a.elf\");"});
  const QString Pieces[] = {"{", "}", "\"", "//", "/*", "*/", ";", "\n", "OnProjectLoad", "(", "Project.SetDevice("};
  U32 Seed = 12345;
  auto Rand = [&Seed](U32 n) {
    Seed = Seed * 1103515245u + 12345u;
    return (Seed >> 8) % n;
  };
  for (int i = 0; i < 3000; ++i) {
    QString t = Base;
    for (int k = int(Rand(6)); k >= 0; --k) {
      const qsizetype p = Rand(U32(t.size() + 1));
      switch (Rand(3)) {
        case 0: t.insert(p, Pieces[Rand(std::size(Pieces))]); break;
        case 1: t.remove(p, Rand(40)); break;
        default: t = t.left(p); break;
      }
    }
    const auto R = WriteSettingsText(t, Rand(2) == 0, {"Project.SetDevice (\"Y\");", "Util.Log (\"u\");"},
                                     {RemovePatternFor("Project.SetDevice (\"Y\");")});
    qsizetype s = 0, e = 0;
    if (FindFunctionBody(t, "OnProjectLoad", &s, &e)) {
      ASSERT_TRUE(R.Ok) << i;
      // Only the body changes.
      ASSERT_EQ(R.sText.left(s), t.left(s)) << i;
      ASSERT_TRUE(R.sText.endsWith(t.mid(e))) << i;
      ASSERT_TRUE(R.sText.contains("  Project.SetDevice (\"Y\");")) << i;
    } else {
      ASSERT_FALSE(R.Ok) << i;
    }
    FindDuplicateCommands(t);
    ParseUserFileRecord(t.left(200));
  }
}
