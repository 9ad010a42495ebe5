// The console path end to end: linking, typed lines, echo and error lines,
// the result store and the help list, read back from the console ring.
#include "commands/actions.h"
#include "log/console.h"
#include "log/log.h"
#include "testsupport/consolelines.h"
#include "testsupport/testapp.h"

#include <gtest/gtest.h>

#include <QAction>
#include <QGuiApplication>
#include <QObject>

namespace {

// A window with one action per command, linked and connected like the main
// window's, plus a few unknown GUI actions.
class Console : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    s_pApp = NewTestApp<QGuiApplication>();
    SetUiThread();
    ConsoleRingStart();
    s_pWindow = new QObject;
    for (int Id = 0; Id < ACTION_COUNT; ++Id) {
      if (GetCommandName(Id).isEmpty() && Id != AID_GUI_DEBUG_ATTACH) continue;
      auto* a = new QAction(s_pWindow);
      a->setObjectName(QString::fromLatin1(GetActionDesc(Id)->ActionName).toUpper());  // case does not matter
      ConnectAction(a, s_pWindow, [Id] { RunCommandSlot(Id); });
    }
    (new QAction(s_pWindow))->setObjectName("actionNobodyKnows");
    (new QAction(s_pWindow))->setObjectName("actionNobodyKnows2");
    LinkActions(s_pWindow);
    LinkActions(s_pWindow);  // a second link adds no duplicate unlinked names
  }
  void SetUp() override { TakeConsoleLines(); }

  static QGuiApplication* s_pApp;
  static QObject* s_pWindow;
};
QGuiApplication* Console::s_pApp = nullptr;
QObject* Console::s_pWindow = nullptr;

TEST_F(Console, LinkingSetsShortcutsTipsAndCollectsUnknownNames) {
  QAction* a = GetActionDesc(AID_FILE_NEW_PROJECT)->Action;
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(GetActionId(a), AID_FILE_NEW_PROJECT);
  EXPECT_EQ(a->shortcut().toString(QKeySequence::PortableText), "Ctrl+N");
  EXPECT_EQ(a->toolTip(), "New project (Ctrl+N)");
  EXPECT_EQ(a->statusTip(), "Creates a new project");
  // Alternative forms of shortcuts reach the same row.
  QAction* h = GetActionDesc(AID_DEBUG_HALT)->Action;
  ASSERT_EQ(h->shortcuts().size(), 2);
  EXPECT_EQ(h->shortcuts()[1].toString(QKeySequence::PortableText), "F6");
  EXPECT_EQ(GetUnlinkedActionNames(), QStringList({"actionNobodyKnows", "actionNobodyKnows2"}));
  EXPECT_EQ(GetActionId(nullptr), -1);
}

TEST_F(Console, WrongParameterCountIsEchoedThenReported) {
  EXPECT_EQ(ExecuteCommand("Debug.Start(1)"), 1);
  EXPECT_EQ(TakeConsoleLines(), QStringList({"Debug.Start (1);", "Debug.Start (1): wrong parameter count"}));
}

TEST_F(Console, UnknownAndBlankLines) {
  const int Errors = GetCommandErrorCount();
  EXPECT_EQ(ExecuteCommand("foo;"), 0);
  EXPECT_EQ(ExecuteCommand("   "), 0);
  EXPECT_EQ(ExecuteCommand("(1)"), 0);
  EXPECT_EQ(TakeConsoleLines(), QStringList({"foo: unknown command. Type ? or help for a list of available commands.",
                                 ": unknown command. Type ? or help for a list of available commands.",
                                 "(1): unknown command. Type ? or help for a list of available commands."}));
  EXPECT_EQ(GetCommandErrorCount(), Errors + 3);
}

TEST_F(Console, BothArgumentFormsAreTheSameCall) {
  int Calls = 0;
  QStringList Seen;
  SetCommandSlot(AID_BREAK_SET, [&](int Id) {
    ++Calls;
    Seen += GetActionArgs(Id);
    SetActionResult(Id, 7);
  });
  ExecuteCommand("break.set 0x20000000");
  ExecuteCommand("Break.Set(0x20000000)");
  EXPECT_EQ(Calls, 2);
  EXPECT_EQ(Seen, QStringList({"0x20000000", "0x20000000"}));
  EXPECT_EQ(TakeConsoleLines(), QStringList({"Break.Set (0x20000000);", "Break.Set (0x20000000);"}));
  // The argument list and error text are cleared after the call; the result stays.
  EXPECT_TRUE(GetActionArgs(AID_BREAK_SET).isEmpty());
  EXPECT_EQ(GetActionResult(AID_BREAK_SET), 7);
  SetCommandSlot(AID_BREAK_SET, nullptr);
}

TEST_F(Console, ResultStoreAndExecAction) {
  EXPECT_EQ(GetActionResult(AID_ELF_GET_BASE_ADDR), 0);  // no entry reads as 0
  SetCommandSlot(AID_ELF_GET_EXPR_VALUE, [](int Id) {
    if (!CheckArgCount(Id)) return;
    SetActionResult(Id, GetActionArgs(Id)[0].toLongLong() * 2);
  });
  EXPECT_EQ(ExecAction(AID_ELF_GET_EXPR_VALUE, 21), 42);
  // A failing call keeps the last stored result.
  EXPECT_EQ(ExecAction(AID_ELF_GET_EXPR_VALUE), 42);
  EXPECT_EQ(ExecAction(ACTION_COUNT), -1);
  EXPECT_EQ(ExecAction(-5), -1);
  SetCommandSlot(AID_ELF_GET_EXPR_VALUE, nullptr);
  TakeConsoleLines();
}

TEST_F(Console, SlotsThatAreNotThereYetAnswerThroughTheErrorPath) {
  ExecuteCommand("Window.Add(\"Watched Data\", \"a,b\")");
  EXPECT_EQ(TakeConsoleLines(), QStringList({"Window.Add (\"Watched Data\", \"a,b\");",
                                 "Window.Add (\"Watched Data\", \"a,b\"): not implemented yet"}));
}

TEST_F(Console, OldNamesEchoWithTheCurrentName) {
  ExecuteCommand("Project.SetRootPath(\"C:\\src\")");
  const QStringList l = TakeConsoleLines();
  ASSERT_FALSE(l.isEmpty());
  EXPECT_EQ(l[0], "Project.AddRootPath (\"C:\\src\");");
}

TEST_F(Console, EchoAfterRowsEchoAfterTheSlot) {
  SetCommandSlot(AID_FILE_CLOSE_ALL, [](int) { ConsolePrintLine("closing"); });
  ExecuteCommand("File.CloseAll()");
  EXPECT_EQ(TakeConsoleLines(), QStringList({"closing", "File.CloseAll();"}));
  SetCommandSlot(AID_FILE_CLOSE_ALL, nullptr);
}

TEST_F(Console, SlotCanSilenceTheEcho) {
  SetCommandSlot(AID_UTIL_LOG, [](int Id) {
    if (!CheckArgCount(Id)) return;
    ConsolePrintLine(GetActionArgs(Id)[0]);
    SetActionNoEcho(Id);
  });
  ExecuteCommand("Util.Log \"a b\"");
  EXPECT_EQ(TakeConsoleLines(), QStringList({"a b"}));
  ExecuteCommand("Util.Log a b");
  EXPECT_EQ(TakeConsoleLines(), QStringList({"Util.Log (\"a\", b);", "Util.Log (\"a\", b): wrong parameter count"}));
  SetCommandSlot(AID_UTIL_LOG, nullptr);
}

TEST_F(Console, CommandFlagGatesConsoleButNotTheGuiState) {
  QAction* a = GetActionDesc(AID_DEBUG_HALT)->Action;
  int Calls = 0;
  SetCommandSlot(AID_DEBUG_HALT, [&](int) { ++Calls; });
  SetCommandEnabled(AID_DEBUG_HALT, false);
  EXPECT_EQ(ExecuteCommand("Debug.Halt()"), 2);
  EXPECT_EQ(TriggerAction(AID_DEBUG_HALT), -1);
  EXPECT_EQ(ExecAction(AID_DEBUG_HALT), -1);
  EXPECT_EQ(Calls, 0);
  EXPECT_EQ(TakeConsoleLines(), QStringList({"Debug.Halt: Command disabled", "Debug.Halt: Command disabled", "Debug.Halt: Command disabled"}));
  // A greyed menu item with the command flag set still runs from the console.
  a->setEnabled(false);
  SetCommandEnabled(AID_DEBUG_HALT, true);
  EXPECT_EQ(ExecuteCommand("Debug.Halt()"), 1);
  EXPECT_EQ(Calls, 1);
  SetActionEnabled(AID_DEBUG_HALT, true);
  EXPECT_TRUE(a->isEnabled());
  SetCommandSlot(AID_DEBUG_HALT, nullptr);
  TakeConsoleLines();
}

TEST_F(Console, ErrorDetailOnlyForCommandsWithSeveralParameters) {
  SetActionError(AID_FILE_OPEN, "file not found", "x.elf");
  EXPECT_EQ(GetActionError(AID_FILE_OPEN), "file not found");
  SetActionError(AID_FILE_LOAD, "file not found", "x.bin");
  EXPECT_EQ(GetActionError(AID_FILE_LOAD), "file not found: x.bin");
  ClearAction(AID_FILE_OPEN);
  ClearAction(AID_FILE_LOAD);
  EXPECT_EQ(GetActionError(AID_FILE_LOAD), "");
}

TEST_F(Console, CheckArgCountWithMinimum) {
  SetActionArgs(AID_WINDOW_INSERT, {"w", "s"});
  EXPECT_FALSE(CheckArgCount(AID_WINDOW_INSERT));
  EXPECT_EQ(GetActionError(AID_WINDOW_INSERT), "wrong parameter count");
  EXPECT_TRUE(CheckArgCount(AID_WINDOW_INSERT, 2));
  SetActionArgs(AID_WINDOW_INSERT, {"w", "s", "b", "x"});
  EXPECT_FALSE(CheckArgCount(AID_WINDOW_INSERT, 0));
  ClearAction(AID_WINDOW_INSERT);
}

TEST_F(Console, ExecActionLoggedRendersWithoutRunning) {
  int Calls = 0;
  SetCommandSlot(AID_FILE_OPEN, [&](int) { ++Calls; });
  ExecActionLogged(AID_FILE_OPEN, QString::fromUtf8("\"my\u2008file.elf\""));
  EXPECT_EQ(GetCommandText(AID_FILE_OPEN), "File.Open (\"myfile.elf\");");
  ExecActionLogged(AID_EDIT_COPY, QStringLiteral("\"kept\""));
  EXPECT_EQ(GetActionArgs(AID_EDIT_COPY), QStringList({"\"kept\""}));
  EXPECT_EQ(Calls, 0);
  ClearAction(AID_FILE_OPEN);
  ClearAction(AID_EDIT_COPY);
  SetCommandSlot(AID_FILE_OPEN, nullptr);
}

TEST_F(Console, HelpListsLinkedListedCommandsSorted) {
  const QStringList Lines = GetHelpLines();
  auto Has = [&](const char* s) {
    for (const QString& l : Lines)
      if (l.startsWith(QString::fromLatin1(s) + ' ')) return true;
    return false;
  };
  EXPECT_TRUE(Has("Find.Func"));
  EXPECT_TRUE(Has("Find.Symbol"));
  EXPECT_FALSE(Has("Edit.Copy"));
  EXPECT_FALSE(Has("Watch.Add"));
  EXPECT_TRUE(Has("Util.Log"));
  for (int i = 2; i < Lines.size(); ++i) EXPECT_LT(Lines[i - 1].section(' ', 0, 0), Lines[i].section(' ', 0, 0));
  for (const QString& l : Lines.mid(1)) {
    if (l.startsWith("File.Open ")) {
      EXPECT_EQ(l.mid(29, 9), "File name");
      EXPECT_EQ(l.mid(56, 6), "Ctrl+O");
      EXPECT_EQ(l.mid(76), "Opens a file");
    }
  }
  ExecuteCommand("?");
  ExecuteCommand("HELP");
  const QStringList l = TakeConsoleLines();
  // No slot for Help.Commands here: it answers through the error path.
  EXPECT_TRUE(l.contains("Help.Commands(): not implemented yet"));
}

TEST_F(Console, UnlinkedRowsAreNotTriggerable) {
  UnlinkActions(s_pWindow);
  EXPECT_EQ(GetActionDesc(AID_FILE_OPEN)->Action, nullptr);
  EXPECT_EQ(ExecuteCommand("File.Open(x)"), 2);
  EXPECT_EQ(TakeConsoleLines(), QStringList({"File.Open: Command disabled"}));
  LinkActions(s_pWindow);
  EXPECT_NE(GetActionDesc(AID_FILE_OPEN)->Action, nullptr);
}

}  // namespace
