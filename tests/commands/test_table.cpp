// The action table, its vocabulary and the text forms of commands.
#include "commands/actionids.h"
#include "commands/actions.h"

#include <gtest/gtest.h>

#include <QSet>

namespace {

TEST(ActionTable, LayoutRules) {
  QSet<QString> Names;
  for (int i = 0; i < ACTION_COUNT; ++i) {
    const ACTION_DESC* r = GetActionDesc(i);
    ASSERT_EQ(r->Id, U32(i));
    const QString sAction = QString::fromLatin1(r->ActionName).toLower();
    EXPECT_FALSE(Names.contains(sAction)) << r->ActionName;
    Names.insert(sAction);
    const QString sName = GetCommandName(i);
    const bool IsCommand = !QString::fromLatin1(r->Prototype).isEmpty();
    // Listed: rows 53-207 without prototype and the listed commands; never
    // 47-52 or the GUI rows 208-352 (commands added behind them are listed).
    if (i >= 47 && i <= 52) EXPECT_EQ(r->IsListed, 0) << i;
    if (i >= 208 && i <= 352) EXPECT_EQ(r->IsListed, 0) << i;
    if (i >= 53 && i <= 207 && !IsCommand) EXPECT_EQ(r->IsListed, 1) << i;
    if (IsCommand && sName != "Edit.Copy" && !(i >= 47 && i <= 52)) EXPECT_EQ(r->IsListed, 1) << sName.toStdString();
    EXPECT_EQ(r->KeepArgText, sName == "Edit.Copy" ? 1 : 0);
  }
  const ACTION_DESC* Empty = GetActionDesc(ACTION_COUNT);
  EXPECT_EQ(Empty->Id, U32(ACTION_COUNT));
  EXPECT_STREQ(Empty->Prototype, "");
  EXPECT_EQ(GetActionDesc(100000), Empty);
  EXPECT_EQ(GetActionDesc(-1), Empty);
}

TEST(ActionTable, RowsKnownByName) {
  EXPECT_EQ(GetActionDesc(AID_DEBUG_SET_RESET_MODE)->VarId, 0);
  EXPECT_EQ(GetActionDesc(AID_PROJECT_SET_MEM_ZONE_RUNNING)->VarId, 16);
  EXPECT_EQ(GetCommandName(AID_FILE_OPEN), "File.Open");
  EXPECT_EQ(GetParamCount(AID_FILE_OPEN), 1);
  EXPECT_TRUE(IsTextParam(AID_FILE_OPEN, 0));
  EXPECT_EQ(GetParamCount(AID_DEBUG_START), 0);
  EXPECT_EQ(GetParamCount(AID_BREAK_EDIT), 7);
  EXPECT_TRUE(IsTextParam(AID_BREAK_EDIT, 0));  // unsigned char* counts as text
  EXPECT_FALSE(IsTextParam(AID_BREAK_EDIT, 2));
  EXPECT_FALSE(IsTextParam(AID_BREAK_EDIT, 7));
  EXPECT_EQ(GetActionDesc(AID_EDIT_COPY)->EchoAfter, 1);
  EXPECT_EQ(GetActionDesc(AID_GUI_FILE_CLOSE_ALL_UNEDITED)->EchoAfter, 1);
  EXPECT_EQ(GetActionDesc(AID_GUI_WINDOW_DOCK)->IsRepeatable, 1);
  EXPECT_EQ(GetActionDesc(AID_BREAK_SET)->IsRepeatable, 1);
  EXPECT_EQ(GetActionDesc(AID_BREAK_ON_CHANGE)->IsRepeatable, 0);  // no handler
  EXPECT_EQ(GetActionDesc(AID_DEBUG_START)->IsRepeatable, 0);
}

TEST(CommandName, FromPrototypesAndLines) {
  EXPECT_EQ(GetCommandName(QStringLiteral("__api__ int File.Open (const char* sFileName);")), "File.Open");
  EXPECT_EQ(GetCommandName(QStringLiteral("Break.Set(0x20000000)")), "Break.Set");
  EXPECT_EQ(GetCommandName(QStringLiteral("break.set 0x20000000")), "break.set");
  EXPECT_EQ(GetCommandName(QStringLiteral("Util.Log \"a b\"")), "Util.Log");
  EXPECT_EQ(GetCommandName(QStringLiteral("(1)")), "");
  EXPECT_EQ(GetCommandName(QStringLiteral("")), "");
}

TEST(SplitCommandArgs, Cases) {
  struct CASE {
    const char* sIn;
    QStringList Out;
  } Cases[] = {
      {"Break.Set(0x20000000)", {"0x20000000"}},
      {"break.set 0x20000000", {"0x20000000"}},
      {"Util.Log \"a b\"", {"a b"}},
      {"Util.Log a b", {"a", "b"}},
      {"Util.Log   a    b  ", {"a", "b"}},
      {"Window.Add(\"Watched Data\", \"a,b\")", {"Watched Data", "a,b"}},
      {"Debug.Start()", {}},
      {"Debug.Start( )", {}},
      {"Debug.Start(void)", {}},
      {"Debug.Start(VOID)", {}},
      {"Debug.Start(", {}},
      {"Debug.Start", {}},
      {"f(a,,b)", {"a", "", "b"}},
      {"f(\"x^y\")", {"x,y"}},  // a "^" inside quotes stands for the separator
      {"f(\"unterminated, b)", {"unterminated, b"}},
      {"f(g(1), 2)", {"g(1)", "2"}},
  };
  for (const CASE& c : Cases) EXPECT_EQ(SplitCommandArgs(QString::fromLatin1(c.sIn)), c.Out) << c.sIn;
}

TEST(FindCommand, CaseAliasesAndCounts) {
  EXPECT_EQ(FindCommand("break.set"), AID_BREAK_SET);
  EXPECT_EQ(FindCommand("BREAK.SET", 1), AID_BREAK_SET);
  EXPECT_EQ(FindCommand("Project.SetRootPath"), AID_PROJECT_ADD_ROOT_PATH);
  EXPECT_EQ(FindCommand("Edit.Break"), AID_BREAK_EDIT);
  EXPECT_EQ(FindCommand("Break.Edit"), AID_BREAK_EDIT);
  EXPECT_EQ(FindCommand("Help.Manual"), AID_HELP_USER_GUIDE);
  EXPECT_EQ(FindCommand("Edit.Find"), AID_FIND_TEXT);
  EXPECT_EQ(FindCommand("Trace"), -1);  // its current name has no row
  EXPECT_EQ(FindCommand("nope"), -1);
  EXPECT_EQ(FindCommand(""), -1);
  EXPECT_EQ(GetCommandAlias("project.setrootpath"), "Project.AddRootPath");
  EXPECT_EQ(GetCommandAlias("Project.AddRootPath"), "Project.SetRootPath");
  EXPECT_EQ(GetShortcutAlias("Ctrl++"), "Ctrl+=");
  EXPECT_EQ(GetShortcutAlias("Ctrl+F5"), "F6");
  EXPECT_EQ(GetShortcutAlias("F5"), "");
}

TEST(Constants, TableAndLookup) {
  EXPECT_EQ(GetNumConstants(), 117);
  QSet<QString> Names;
  for (int i = 0; i < GetNumConstants(); ++i) {
    EXPECT_FALSE(Names.contains(GetConstant(i)->sName)) << GetConstant(i)->sName;
    Names.insert(GetConstant(i)->sName);
  }
  I64 v = -1;
  EXPECT_TRUE(FindConstant("rm_reset_and_run", &v));
  EXPECT_EQ(v, 2);
  EXPECT_TRUE(FindConstant("RM_BREAK_AT_MAIN", &v));
  EXPECT_EQ(v, 1);
  EXPECT_TRUE(FindConstant("aw_auto", &v));
  EXPECT_EQ(v, 0);
  EXPECT_TRUE(FindConstant("4 mhz", &v));  // display text
  EXPECT_EQ(v, 4000000);
  EXPECT_TRUE(FindConstant("FREQ_500_KHZ", &v));
  EXPECT_EQ(v, 500000);
  EXPECT_TRUE(FindConstant("cjtag", &v));
  EXPECT_EQ(v, 7);
  EXPECT_TRUE(FindConstant("DISABLE_SAVE_ANY", &v));
  EXPECT_EQ(v, 0xFFFFFFFFll);
  EXPECT_TRUE(FindConstant("enabled", &v));
  EXPECT_EQ(v, 1);
  EXPECT_FALSE(FindConstant("FREQ_3_HZ", &v));
  EXPECT_FALSE(FindConstant("", &v));
  EXPECT_EQ(GetConstantName("RM_", 2), "RM_RESET_AND_RUN");
  EXPECT_EQ(GetConstantName("BP_TYPE_", 5), "BP_TYPE_Pending");
  EXPECT_EQ(GetConstantName("RM_", 9), "");
}

TEST(RenderCommand, Arguments) {
  EXPECT_EQ(RenderCommand(AID_DEBUG_START, {}), "Debug.Start();");
  EXPECT_EQ(RenderCommand(AID_DEBUG_START, {"1"}), "Debug.Start (1);");
  EXPECT_EQ(RenderCommand(AID_FILE_OPEN, {"a b.elf"}), "File.Open (\"a b.elf\");");
  EXPECT_EQ(RenderCommand(AID_FILE_OPEN, {"\"q.elf\""}), "File.Open (\"q.elf\");");
  EXPECT_EQ(RenderCommand(AID_DEBUG_SET_RESET_MODE, {"rm_reset_halt"}), "Debug.SetResetMode (RM_RESET_HALT);");
  EXPECT_EQ(RenderCommand(AID_DEBUG_SET_RESET_MODE, {"RM_BREAK_AT_MAIN"}), "Debug.SetResetMode (RM_BREAK_AT_SYMBOL);");
  EXPECT_EQ(RenderCommand(AID_BREAK_SET, {"0x20000000"}), "Break.Set (0x20000000);");
  EXPECT_EQ(RenderCommand(AID_EDIT_REFRESH_RATE, {"x", "2.5 kHz"}), "Edit.RefreshRate (\"x\", 2500);");
  EXPECT_EQ(RenderCommand(AID_EDIT_REFRESH_RATE, {"x", "10 Hz"}), "Edit.RefreshRate (\"x\", FREQ_10_HZ);");
  EXPECT_EQ(RenderCommand(AID_PROJECT_ADD_ROOT_PATH, {"/r"}), "Project.AddRootPath (\"/r\");");
  EXPECT_EQ(RenderCommand(AID_GUI_DEBUG_ATTACH, {"1"}), "");
  // A value that is no number, constant or plain word is quoted, so that the
  // statement parses in a script and in the console alike.
  EXPECT_EQ(RenderCommand(AID_EDIT_SYS_VAR, {"VAR_RESET_MODE", "Reset & Run"}), "Edit.SysVar (VAR_RESET_MODE, \"Reset & Run\");");
  EXPECT_EQ(RenderCommand(AID_EDIT_SYS_VAR, {"VAR_X", "2,5 MHz"}), "Edit.SysVar (VAR_X, \"2,5 MHz\");");
  EXPECT_EQ(RenderCommand(AID_EDIT_SYS_VAR, {"VAR_X", "-5"}), "Edit.SysVar (VAR_X, -5);");
  EXPECT_EQ(RenderCommand(AID_EDIT_SYS_VAR, {"VAR_X", "MYCONST"}), "Edit.SysVar (VAR_X, MYCONST);");
  EXPECT_EQ(RenderCommand(AID_EDIT_SYS_VAR, {"VAR_X", "say \"hi\""}), "Edit.SysVar (VAR_X, \"say hi\");");
  // A rendered statement splits back into the same arguments.
  for (const QString& v : {QString("Reset & Run"), QString("a, b"), QString("1 + 2"), QString("x")}) {
    const QString s = RenderCommand(AID_EDIT_SYS_VAR, {"VAR_X", v});
    EXPECT_EQ(SplitCommandArgs(s), QStringList({"VAR_X", v})) << s.toStdString();
  }
}

TEST(HelpList, ColumnsAndMembers) {
  // The help list shows linked actions only; nothing is linked here.
  const QStringList Lines = GetHelpLines();
  ASSERT_FALSE(Lines.isEmpty());
  const QString& h = Lines[0];
  EXPECT_EQ(h.indexOf("Command"), 0);
  EXPECT_EQ(h.indexOf("Arguments"), 29);
  EXPECT_EQ(h.indexOf("Hotkey"), 56);
  EXPECT_EQ(h.indexOf("Description"), 76);
}

}  // namespace
