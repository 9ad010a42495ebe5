// The main window offscreen: status bar, recent lists, title rules, the
// commands Window.* and Toolbar.*, and the layout kept across a restart.
#include "commands/actions.h"
#include "settings/store.h"
#include "testsupport/consolelines.h"
#include "testsupport/randomtext.h"
#include "testsupport/testapp.h"
#include "ui/memory/memorywindow.h"
#include "ui/shell/mainwindow.h"
#include "ui/shell/statusbar.h"
#include "ui/shell/toolbars.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QDockWidget>
#include <QFile>
#include <QLabel>
#include <QProgressBar>
#include <QTemporaryDir>
#include <QTest>
#include <QMenu>
#include <QMenuBar>
#include <QToolButton>
#include <memory>

namespace {

QApplication* g_pApp = NewTestApp<QApplication>();

// Runs a console line; its result.
I64 Cmd(const QString& sLine) {
  int Id = -1;
  if (ExecuteCommand(sLine, &Id) != 1) return -2;
  return GetActionResult(Id);
}

// The error text a console line printed behind its statement.
QString ErrorOf(const QString& sLine) {
  TakeConsoleLines();
  ExecuteCommand(sLine);
  for (const QString& l : TakeConsoleLines())
    if (int i = l.indexOf(QLatin1String("): ")); i >= 0) return l.mid(i + 3);
  return QString();
}

class MainWindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ShellWindows::SetFactory(SWK_MEMORY, [](QWidget* p, int i) -> QWidget* { return new CMemoryWindow(i, p); });
    // A stand-in for the registers window, which the shell does not link.
    ShellWindows::SetFactory(SWK_REGISTERS, [](QWidget* p, int) -> QWidget* { return new QLabel(QStringLiteral("regs"), p); });
    Settings::Remove(QStringLiteral("AppData"));
    Settings::Save();  // the main window loads the store again
    m_pMain = std::make_unique<CMainWindow>();
    TakeConsoleLines();
  }
  // A second main window as after a restart, with what the first saved.
  void Restart() {
    m_pMain->SavePerspective();
    m_pMain.reset();
    Settings::Save();  // what the end of the process does
    m_pMain = std::make_unique<CMainWindow>();
  }
  bool IsOpen(const char* sName) {
    SHELL_WINDOW* p = m_pMain->FindWindow(QLatin1String(sName), true);
    return p && p->IsOpen();
  }
  std::unique_ptr<CMainWindow> m_pMain;
};

TEST(StatusBar, FirstValuesOnePaintPerBurstAndProgressWithCancel) {
  CStatusBar Bar;
  EXPECT_EQ(Bar.StatusMessage(), "Ready");
  EXPECT_EQ(Bar.ConnectionInfo(), "Disconnected");
  EXPECT_EQ(Bar.CursorText(), "Ln 0  Ch 0");
  EXPECT_TRUE(Bar.ProgressMessage().isEmpty() && Bar.ActiveWindowStatus().isEmpty());
  for (int i = 0; i < 50; ++i) Bar.SetStatusMessage(QStringLiteral("step %1").arg(i));
  Bar.SetConnectionInfo(QStringLiteral("Connected"));
  EXPECT_NE(Bar.StatusLabel()->text(), "step 49") << "setters only store";
  QTest::qWait(60);
  EXPECT_EQ(Bar.PaintCount(), 1);
  EXPECT_EQ(Bar.StatusLabel()->text(), "step 49");

  Bar.StartProgress(0, 0);  // endless
  QTest::qWait(60);
  EXPECT_EQ(Bar.ProgressBar()->maximum(), 0);
  EXPECT_FALSE(Bar.ProgressBar()->isHidden());
  EXPECT_FALSE(Bar.WasCanceled());
  Bar.CancelButton()->click();
  EXPECT_TRUE(Bar.WasCanceled());
  Bar.StartProgress(0, 10);
  EXPECT_FALSE(Bar.WasCanceled()) << "a new progress starts uncancelled";
  Bar.SetProgressValue(7);
  Bar.EndProgress();
  QTest::qWait(60);
  EXPECT_EQ(Bar.GetProgressValue(), 7);
  EXPECT_TRUE(Bar.ProgressBar()->isHidden());
}

TEST(RecentList, TenNewestFirstMovedToTopAndFilteredOnLoad) {
  QTemporaryDir Dir;
  auto Make = [&](const QString& sName) {
    QFile f(Dir.filePath(sName));
    f.open(QIODevice::WriteOnly);
    return Dir.filePath(sName);
  };
  CRecentList List(RecentProjectsFilter());
  for (int i = 0; i < 11; ++i) List.Add(QStringLiteral("/p/%1.vdebug").arg(i));
  ASSERT_EQ(List.Paths().size(), 10);
  EXPECT_EQ(List.First(), "/p/10.vdebug");
  EXPECT_FALSE(List.Paths().contains("/p/0.vdebug")) << "the eleventh pushes out the oldest";
  List.Add(QStringLiteral("/p/5.vdebug"));
  EXPECT_EQ(List.First(), "/p/5.vdebug");
  EXPECT_EQ(List.Paths().count("/p/5.vdebug"), 1);

  const QString a = Make("a.vdebug"), b = Make("b.elf"), c = Make("c.AXF"), d = Make("d.txt");
  List.Load({a, QStringLiteral("/missing/x.vdebug"), b, a});
  EXPECT_EQ(List.Paths(), QStringList{a});
  CRecentList Programs(RecentProgramsFilter());
  Programs.Load({a, b, c, d});
  EXPECT_EQ(Programs.Paths(), (QStringList{b, c}));
}

TEST(Title, FollowsProjectConnectionProgramAndModification) {
  struct ROW {
    bool Open, Modified, Connected;
    const char *sProject, *sProgram, *sExpected;
  } Rows[] = {
      {false, false, false, "", "", "T - New Project"},
      {true, false, false, "/w/demo.vdebug", "/w/demo.elf", "T - /w/demo.vdebug"},
      {true, true, false, "/w/demo.vdebug", "", "T - /w/demo.vdebug - *"},
      {true, true, true, "/w/demo.vdebug", "", "T - demo - *"},
      {true, true, true, "/w/demo.vdebug", "/w/demo.elf", "T - /w/demo.elf"},
  };
  for (const ROW& r : Rows) {
    SHELL_STATE St;
    St.ProjectOpen = r.Open;
    St.ProjectModified = r.Modified;
    St.Connected = r.Connected;
    St.ProjectPath = QLatin1String(r.sProject);
    St.ProgramPath = QLatin1String(r.sProgram);
    EXPECT_EQ(ShellTitleText(QStringLiteral("T"), St), QLatin1String(r.sExpected));
  }
}

TEST_F(MainWindowTest, WindowCommandsAndTheirErrors) {
  EXPECT_EQ(Cmd(QStringLiteral("Window.Show(\"NoSuch\")")), -1);
  EXPECT_EQ(ErrorOf(QStringLiteral("Window.Show(\"NoSuch\")")), "unknown window");
  EXPECT_EQ(ErrorOf(QStringLiteral("Window.Close(\"NoSuch\")")), "unknown window");
  EXPECT_EQ(ErrorOf(QStringLiteral("Window.Clear(\"NoSuch\")")), "unknown window");
  EXPECT_EQ(ErrorOf(QStringLiteral("Window.SetDisplayFormat(\"Memory 1\", 7)")), "invalid parameter: 7");

  // "Memory" shows the first closed memory window, then makes one more.
  Cmd(QStringLiteral("Window.CloseAll()"));
  EXPECT_FALSE(IsOpen("Memory 1"));
  EXPECT_EQ(Cmd(QStringLiteral("Window.Show(\"Memory\")")), 0);
  EXPECT_EQ(Cmd(QStringLiteral("Window.Show(\"Memory\")")), 0);
  ASSERT_EQ(m_pMain->MemoryWindows().size(), 2);
  EXPECT_TRUE(IsOpen("Memory 1") && IsOpen("Memory 2"));
  EXPECT_EQ(m_pMain->MemoryWindows()[1]->pWindow->windowTitle(), "Memory 2");
  // Aliases and case: "memory2" is Memory 2, "breakpoints" the breakpoint
  // window when it exists; the console by its object name.
  EXPECT_EQ(Cmd(QStringLiteral("Window.Close(\"memory2\")")), 0);
  EXPECT_EQ(m_pMain->MemoryWindows().size(), 1) << "a further memory window goes when closed";
  EXPECT_EQ(Cmd(QStringLiteral("window.show(\"consolewindow\")")), 0);
  EXPECT_TRUE(IsOpen("Console"));
  EXPECT_EQ(Cmd(QStringLiteral("Window.Show(\"Registers\")")), 0);
  EXPECT_EQ(Cmd(QStringLiteral("Window.Show(\"Registers\")")), 0);
  EXPECT_EQ(m_pMain->RegisterWindows().size(), 2);

  // A window closed by its title bar is the command, shown in the console.
  TakeConsoleLines();
  m_pMain->FindWindow(QStringLiteral("Console"), true)->pDock->close();
  EXPECT_FALSE(IsOpen("Console"));
  EXPECT_TRUE(TakeConsoleLines().join('\n').contains("Window.Close (\"Console\");"));
}

TEST_F(MainWindowTest, FullScreenTogglesAndToolbarsByName) {
  QAction* a = GetActionDesc(AID_WINDOW_SHOW_FULL_SCREEN)->Action;
  ASSERT_TRUE(a);
  EXPECT_EQ(Cmd(QStringLiteral("Window.ShowFullScreen()")), 0);
  EXPECT_TRUE(m_pMain->windowState() & Qt::WindowFullScreen);
  EXPECT_EQ(a->text(), "Exit Full Screen");
  EXPECT_EQ(Cmd(QStringLiteral("Window.ShowFullScreen(1)")), 0);
  EXPECT_TRUE(m_pMain->windowState() & Qt::WindowFullScreen) << "with an argument it is idempotent";
  EXPECT_EQ(Cmd(QStringLiteral("Window.ShowFullScreen()")), 0);
  EXPECT_FALSE(m_pMain->windowState() & Qt::WindowFullScreen);
  EXPECT_TRUE(m_pMain->windowState() & Qt::WindowMaximized);
  EXPECT_EQ(a->text(), "Enter Full Screen");
  EXPECT_EQ(ErrorOf(QStringLiteral("Window.ShowFullScreen(\"maybe\")")), "invalid parameter");

  EXPECT_EQ(ErrorOf(QStringLiteral("Toolbar.Show(\"Nope\")")), "unknown toolbar");
  EXPECT_EQ(ErrorOf(QStringLiteral("Toolbar.Close(\"\")")), "unknown toolbar");
  CToolBar* pDebug = m_pMain->FindToolBar(QStringLiteral("debug"));
  ASSERT_TRUE(pDebug);
  EXPECT_EQ(Cmd(QStringLiteral("Toolbar.Close(\"Debug\")")), 0);
  EXPECT_TRUE(pDebug->isHidden());
  EXPECT_FALSE(pDebug->ToggleAction()->isChecked());
  EXPECT_EQ(Cmd(QStringLiteral("Toolbar.Show(\"File\")")), 0);
  EXPECT_FALSE(m_pMain->FindToolBar(QStringLiteral("File"))->isHidden());
}

TEST_F(MainWindowTest, MenusFromTheTableWithTheModeMenus) {
  QStringList Menus;
  for (QAction* a : m_pMain->menuBar()->actions()) Menus << a->text().remove('&');
  EXPECT_EQ(Menus, (QStringList{"File", "Edit", "View", "Debug", "Break", "Tools", "Window", "Help"}));
  ASSERT_TRUE(m_pMain->StartMenu() && m_pMain->ResetMenu());
  EXPECT_EQ(m_pMain->StartMenu()->actions().size(), 3);
  EXPECT_EQ(m_pMain->ResetMenu()->actions().size(), 3);
  // Every icon of the tool bars comes from the resource.
  for (CToolBar* p : m_pMain->ToolBars())
    for (QAction* a : p->actions())
      if (!a->isSeparator()) EXPECT_FALSE(a->icon().isNull()) << a->objectName().toStdString();
  // The Window menu lists the windows with their state.
  m_pMain->UpdateWindowMenu();
  bool Found = false;
  for (QAction* a : m_pMain->WindowMenu()->actions())
    if (a->text() == "Console") Found = a->isCheckable() && a->isChecked();
  EXPECT_TRUE(Found);
  // Without a core plug-in the run controls stay disabled.
  EXPECT_FALSE(GetActionDesc(AID_DEBUG_START)->Action->isEnabled());
}

TEST_F(MainWindowTest, LayoutAndToolbarStatesSurviveARestart) {
  Cmd(QStringLiteral("Window.Close(\"Console\")"));
  Cmd(QStringLiteral("Toolbar.Close(\"Debug\")"));
  Cmd(QStringLiteral("Toolbar.Show(\"Breakpoints\")"));
  Restart();
  EXPECT_FALSE(IsOpen("Console"));
  EXPECT_TRUE(IsOpen("Memory 1"));
  EXPECT_TRUE(m_pMain->FindToolBar(QStringLiteral("Debug"))->isHidden());
  EXPECT_FALSE(m_pMain->FindToolBar(QStringLiteral("Breakpoints"))->isHidden());
  EXPECT_EQ(m_pMain->Perspective(), 1);

  // The user file's lines bring back a second memory window.
  Cmd(QStringLiteral("Window.Show(\"Memory\")"));
  Cmd(QStringLiteral("Window.Show(\"Memory\")"));
  const QStringList Lines = m_pMain->WriteWindowLines();
  EXPECT_TRUE(Lines.join('\n').contains("OpenWindow=\"Memory 2\", DockArea="));
  Restart();
  EXPECT_EQ(m_pMain->MemoryWindows().size(), 1);
  m_pMain->ReadWindowLines(Lines + QStringList{QStringLiteral("OpenWindow=\"Memory 999999999\", DockArea=nowhere"),
                                               QStringLiteral("OpenWindow"), QStringLiteral("=,=,,")});
  EXPECT_TRUE(IsOpen("Memory 2"));
  EXPECT_LE(m_pMain->MemoryWindows().size(), 64) << "a huge number in a line makes no flood of windows";
}

TEST_F(MainWindowTest, CorruptPerspectiveFallsBackToTheDefaultLayout) {
  for (const QVariant& Bad : {QVariant(QByteArray("\x00\x00\x00\xff garbage", 14)), QVariant(QStringLiteral("text")),
                              QVariant(42)}) {
    Settings::SetValue(QStringLiteral("AppData/Perspectives/Debug/WindowState"), Bad);
    Settings::SetValue(QStringLiteral("AppData/Perspectives/Debug/ToolbarDebugState"), false);
    Settings::Save();
    m_pMain.reset();
    TakeConsoleLines();
    m_pMain = std::make_unique<CMainWindow>();
    EXPECT_TRUE(TakeConsoleLines().join('\n').contains("Warning: the stored window layout"));
    EXPECT_TRUE(IsOpen("Console") && IsOpen("Memory 1") && IsOpen("Registers 1"));
    EXPECT_FALSE(m_pMain->FindToolBar(QStringLiteral("Debug"))->isHidden()) << "the default's tool bar, not the stored one";
  }
}

// Random user file lines and stored window states: no crash, no flood of
// windows, and the main window keeps a visible window.
TEST_F(MainWindowTest, RandomLayoutInputIsHarmless) {
  testsupport::RandomText Gen({"OpenWindow=", "OpenToolbar=", "\"Memory 3\"", "\"Registers 2\"", "\"Console\"",
                               ", ", "DockArea=", "FLOATING", "left", "x=", "y=", "w=", "h=", "-99999", "2147483647",
                               "\"", "=", "Floating=1", "\"Debug\"", "DisplayFormat=16"},
                              {"OpenWindow=\"Memory 2\", DockArea=FLOATING, x=10, y=10, w=200, h=100"}, 20);
  for (int i = 0; i < 300; ++i) {
    QStringList Lines;
    for (int n = 0; n < 4; ++n)
      Lines << QString::fromStdString(i % 2 ? Gen.Text(1, 12, 5, testsupport::RandomText::Character)
                                            : Gen.Mutate(Gen.Seed(), 6, testsupport::RandomText::Byte));
    m_pMain->ReadWindowLines(Lines);
    m_pMain->ReadToolbarLines(Lines);
    ASSERT_LE(m_pMain->MemoryWindows().size() + m_pMain->RegisterWindows().size(), 130);
  }
  for (int i = 0; i < 20; ++i) {
    QByteArray State = m_pMain->saveState();
    for (int n = 0; n < 4; ++n) State[int(Gen.Below(State.size()))] = char(Gen.Next());
    Settings::SetValue(QStringLiteral("AppData/Perspectives/Debug/WindowState"), State);
    m_pMain->ApplyDefaultLayout();
    EXPECT_FALSE(m_pMain->RestorePerspective()) << "a damaged state never reaches the toolkit";
    bool AnyOpen = false;
    for (SHELL_WINDOW* p : m_pMain->AllWindows()) AnyOpen |= p->IsOpen();
    EXPECT_TRUE(AnyOpen);
  }
}

}  // namespace
