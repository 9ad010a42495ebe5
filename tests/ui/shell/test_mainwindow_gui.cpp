// The main window under a real X server: the demo project is opened by the
// program itself, F5 and F10 twice are real key events delivered to the main
// window, and the results are read from the windows' models and palettes.
// Then the source viewer: the PC line against addr2line, F9 and its echo,
// a line expanded against objdump, and Run to Cursor (Ctrl+F10).
// Without a display the test starts itself again under xvfb-run; without
// xvfb-run it is skipped.
#include "app/startup.h"
#include "commands/actions.h"
#include "device/device.h"
#include "testsupport/tools.h"
#include "ui/source/sidebar.h"
#include "ui/source/sourceeditor.h"
#include "ui/source/sourcerows.h"
#include "ui/source/sourcewindow.h"
#include "session/debugsession.h"
#include "session/program.h"
#include "ui/callstack/callstackwindow.h"
#include "ui/shell/consolewindow.h"
#include "ui/shell/mainwindow.h"

#include <QAbstractItemView>
#include <QAction>
#include <QApplication>
#include <QDir>
#include <QDockWidget>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>
#include <QToolTip>
#include <cstdio>

namespace {

constexpr int kSkip = 77;
int g_nFailures = 0;

void Check(bool Ok, const QString& sWhat) {
  std::printf("%s: %s\n", Ok ? "PASS" : "FAIL", qPrintable(sWhat));
  if (!Ok) ++g_nFailures;
}

QString Artefacts() {
  const QString s = qEnvironmentVariable("TAVIT_BUILD_DIR", QDir::currentPath()) + QStringLiteral("/test-artefacts");
  QDir().mkpath(s);
  return s;
}

// Runs this program again under a virtual X server; its exit status.
int RunUnderXvfb(int argc, char** argv) {
  const QString sXvfbRun = QStandardPaths::findExecutable(QStringLiteral("xvfb-run"));
  if (sXvfbRun.isEmpty()) {
    std::printf("SKIPPED: xvfb-run is not installed, and the GUI acceptance test needs a real X server\n");
    return kSkip;
  }
  QStringList Args = {QStringLiteral("-a"), QStringLiteral("-s"), QStringLiteral("-screen 0 1280x800x24"),
                      QString::fromLocal8Bit(argv[0])};
  for (int i = 1; i < argc; ++i) Args << QString::fromLocal8Bit(argv[i]);
  QProcess p;
  QProcessEnvironment Env = QProcessEnvironment::systemEnvironment();
  Env.insert(QStringLiteral("TAVIT_UNDER_XVFB"), QStringLiteral("1"));
  Env.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
  p.setProcessEnvironment(Env);
  p.setProcessChannelMode(QProcess::ForwardedChannels);
  p.start(sXvfbRun, Args);
  if (!p.waitForFinished(240000)) {
    p.kill();
    std::printf("FAIL: the program under xvfb-run did not end within 240 s\n");
    return 1;
  }
  return p.exitStatus() == QProcess::NormalExit ? p.exitCode() : 1;
}

SHELL_WINDOW* Window(CMainWindow* pMain, const char* sName) { return pMain->FindWindow(QLatin1String(sName), true); }

QString TopFrame(CMainWindow* pMain) {
  SHELL_WINDOW* p = Window(pMain, "Call Stack");
  auto* v = p ? p->pWindow->findChild<QAbstractItemView*>() : nullptr;
  if (!v || !v->model() || v->model()->rowCount() == 0) return QString();
  return v->model()->index(0, 0).data().toString();
}

// Waits until the session has delivered the halt of the last resume.
bool WaitHalted(CDebugSession* s, U64 HaltsBefore) {
  return QTest::qWaitFor([&] { return s->HaltCount() > HaltsBefore && !s->IsAwaitingHalt(); }, 30000);
}

// The rows of a view whose cells carry a change colour: a background or
// foreground that differs from the palette's plain colours.
int ChangeColouredRows(QAbstractItemView* v) {
  const QAbstractItemModel* m = v->model();
  const QColor Base = v->palette().color(QPalette::Base), Text = v->palette().color(QPalette::Text);
  int n = 0;
  std::function<void(const QModelIndex&)> Walk = [&](const QModelIndex& Parent) {
    for (int r = 0; r < m->rowCount(Parent); ++r) {
      bool Marked = false;
      for (int c = 0; c < m->columnCount(Parent); ++c) {
        const QModelIndex i = m->index(r, c, Parent);
        const QVariant Bg = i.data(Qt::BackgroundRole), Fg = i.data(Qt::ForegroundRole);
        if (Bg.isValid() && Bg.value<QBrush>().color() != Base && Bg.value<QBrush>().style() != Qt::NoBrush) Marked = true;
        if (Fg.isValid() && Fg.value<QBrush>().color() != Text) Marked = true;
      }
      n += Marked;
      Walk(m->index(r, 0, Parent));
    }
  };
  Walk(QModelIndex());
  return n;
}

int DemoLine(const char* sText) {
  QFile f(qEnvironmentVariable("TAVIT_SOURCE_DIR") + QStringLiteral("/firmware/sim/demo.c"));
  if (!f.open(QIODevice::ReadOnly)) return 0;
  const QList<QByteArray> Lines = f.readAll().split('\n');
  for (int i = 0; i < Lines.size(); ++i)
    if (Lines[i].contains(sText)) return i + 1;
  return 0;
}

// The source viewer, halted in main.
void SourceScenario(CMainWindow* pMain, CDebugSession* s) {
  CSourceWindow* w = CSourceWindow::Instance();
  Check(w && pMain->centralWidget() == w, "the source viewer is the central window");
  if (!w) return;
  CSourceEditor* e = w->GetTextEditor();
  const QString sElf = qEnvironmentVariable("TAVIT_SOURCE_DIR") + QStringLiteral("/examples/demo/demo.elf");
  auto LineOfPc = [&] {
    const U32 PC = CDevice::Instance()->CurrentPC();
    const std::string Where = RunToolOutput("arm-none-eabi-addr2line -e " + sElf.toStdString() + QStringLiteral(" 0x%1").arg(PC, 0, 16).toStdString());
    return std::stoi("0" + Where.substr(Where.rfind(':') + 1));
  };
  const int PcLine = LineOfPc();
  Check(PcLine > 0 && int(w->GetPcLoc().line) == PcLine && w->IsPcRow(e->RowOfDocLine(PcLine)),
        QStringLiteral("the PC line is the halt's line %1 (viewer: %2)").arg(PcLine).arg(w->GetPcLoc().line));
  Check(w->ActiveDocument() && w->ActiveDocument()->Name() == QLatin1String("demo.c"), "demo.c is the active document");

  // The tool tip of a word: the variable's value.
  emit e->SymbolTooltipRequest(e->mapToGlobal(QPoint(40, 40)), QStringLiteral("g_Seconds"));
  QTest::qWait(100);
  Check(QToolTip::text().startsWith(QLatin1String("g_Seconds = ")), "the tool tip shows the value: " + QToolTip::text());

  // F9 on a line sets a breakpoint: the console shows the statement, the
  // sidebar the mark; F9 again clears it.
  const int BpLine = DemoLine("g_Fib = Fibonacci(");
  w->SelectFileLine(w->ActiveDocument()->FilePath, BpLine, true);
  QTest::qWait(50);
  QTest::keyClick(e, Qt::Key_F9);
  QTest::qWait(300);
  const int BpRow = e->RowOfDocLine(BpLine);
  Check(w->GetSideBar()->IconAt(BpRow) == 3, QStringLiteral("the sidebar shows a breakpoint on line %1 (icon %2)").arg(BpLine).arg(w->GetSideBar()->IconAt(BpRow)));
  const QString sConsole = pMain->ConsoleWindow()->PlainText();
  Check(sConsole.contains(QStringLiteral("Break.SetOnSrc (\"demo.c:%1\");").arg(BpLine)) ||
            sConsole.contains(QStringLiteral(":%1\");").arg(BpLine)),
        "the console echoed Break.SetOnSrc for the line");
  QTest::keyClick(e, Qt::Key_F9);
  QTest::qWait(300);
  Check(w->GetSideBar()->IconAt(BpRow) != 3, "F9 again cleared it");

  // A line expanded lists the instructions objdump lists for its addresses.
  const int ExpLine = DemoLine("uint32_t s = g_Seconds;");
  w->SelectFileLine(w->ActiveDocument()->FilePath, ExpLine, true);
  QTest::keyClick(e, Qt::Key_Plus, Qt::ControlModifier);
  QTest::qWait(100);
  if (!e->IsExpanded(ExpLine)) w->SetLineExpanded(ExpLine, true);  // a keyboard without the key
  const int Row = e->RowOfDocLine(ExpLine);
  QList<U32> Addrs;
  QStringList Texts;
  for (int r = Row + 1; r < e->RowCount() && e->RowKind(r) == 0; ++r) Addrs << U32(e->RowAddr(r)), Texts << CSourceRowsModel::RowText(e, r);
  // objdump -dl marks each group of instructions with its file and line.
  QList<U32> RefAddrs;
  QStringList RefMnemonics;
  {
    const QString sDump = QString::fromStdString(RunToolOutput("arm-none-eabi-objdump -dl " + sElf.toStdString()));
    const QRegularExpression Marker(QStringLiteral(R"(^\S*demo\.c:(\d+))")), Other(QStringLiteral(R"(^\S+:\d+( \(discriminator \d+\))?$)"));
    const QRegularExpression Inst(QStringLiteral(R"(^\s+([0-9a-f]+):\s+[0-9a-f]{4}(?: [0-9a-f]{4})?\s+(\S+))"));
    bool In = false;
    for (const QString& l : sDump.split('\n')) {
      if (const auto m = Marker.match(l); m.hasMatch()) In = m.captured(1).toInt() == ExpLine;
      else if (Other.match(l).hasMatch()) In = false;
      else if (const auto i = Inst.match(l); In && i.hasMatch()) RefAddrs << i.captured(1).toUInt(nullptr, 16), RefMnemonics << i.captured(2);
    }
  }
  bool Same = !Addrs.isEmpty() && Addrs == RefAddrs;
  QString sWhy;
  for (int i = 0; Same && i < Addrs.size(); ++i)
    if (!Texts[i].contains(RefMnemonics[i], Qt::CaseInsensitive)) Same = false, sWhy = Texts[i] + " / " + RefMnemonics[i];
  if (Addrs != RefAddrs) sWhy = QStringLiteral("%1 rows, objdump %2").arg(Addrs.size()).arg(RefAddrs.size());
  Check(Same, QStringLiteral("the %1 instruction rows of line %2 match objdump %3").arg(Addrs.size()).arg(ExpLine).arg(sWhy));
  QTest::qWait(200);
  const QString sShot = Artefacts() + QStringLiteral("/ui_source_gui_screen.png");
  QProcess::execute(QStringLiteral("import"), {QStringLiteral("-window"), QStringLiteral("root"), sShot});
  Check(QFile::exists(sShot), "screenshot of the source viewer: " + sShot);
  w->CollapseAll();

  // Run to Cursor on a line of the loop stops there.
  w->SelectFileLine(w->ActiveDocument()->FilePath, ExpLine, true);
  const U64 Halts = s->HaltCount();
  QTest::keyClick(e, Qt::Key_F10, Qt::ControlModifier);
  Check(WaitHalted(s, Halts), "Ctrl+F10 ran and halted");
  QTest::qWait(200);
  Check(LineOfPc() == ExpLine && int(w->GetPcLoc().line) == ExpLine,
        QStringLiteral("Run to Cursor stopped on line %1 (PC line %2)").arg(ExpLine).arg(LineOfPc()));
}

// The names in column 0 of a window's rows (top level).
QStringList RowNames(CMainWindow* pMain, const char* sWindow) {
  SHELL_WINDOW* p = Window(pMain, sWindow);
  auto* v = p ? p->pWindow->findChild<QAbstractItemView*>() : nullptr;
  QStringList l;
  if (v && v->model())
    for (int r = 0; r < v->model()->rowCount(); ++r) l << v->model()->index(r, 0).data().toString();
  return l;
}

// The data windows, halted inside a function of the demo.
void DataScenario(CMainWindow* pMain, CDebugSession* s) {
  CSourceWindow* w = CSourceWindow::Instance();
  if (!w || !w->ActiveDocument()) return;
  // Room for the data windows in the picture.
  pMain->resize(1280, 800);
  for (const char* c : {"Window.Close(\"Memory 1\")", "Window.Close(\"Breakpoints\")", "Window.Close(\"Console\")",
                        "Window.Show(\"Watched Data\")", "Window.Show(\"Local Data\")", "Watch.Add(\"g_Seconds\")",
                        "Watch.Add(\"g_aPrimes[3]\")", "Watch.Add(\"g_Fib\")"})
    ExecuteCommand(QLatin1String(c));
  const int Line = DemoLine("uint64_t t = a + b;");
  w->SelectFileLine(w->ActiveDocument()->FilePath, Line, true);
  const U64 Halts = s->HaltCount();
  QTest::keyClick(w->GetTextEditor(), Qt::Key_F10, Qt::ControlModifier);
  Check(WaitHalted(s, Halts) && int(w->GetPcLoc().line) == Line, QStringLiteral("halted in Fibonacci at line %1").arg(Line));
  SHELL_WINDOW* pLocals = Window(pMain, "Local Data");
  Check(pLocals && QTest::qWaitFor([&] { return pLocals->pWindow->windowTitle().contains(QLatin1String("Fibonacci")); }, 5000),
        "the local data window is titled for Fibonacci: " + (pLocals ? pLocals->pWindow->windowTitle() : QString()));
  Check(QTest::qWaitFor([&] { return RowNames(pMain, "Local Data").contains(QLatin1String("n")); }, 5000),
        "the local data window lists n: " + RowNames(pMain, "Local Data").join(','));
  Check(RowNames(pMain, "Watched Data").contains(QLatin1String("g_aPrimes[3]")), "the watched data window lists the expressions: " +
                                                                                     RowNames(pMain, "Watched Data").join(','));
  QTest::qWait(300);
  const QString sShot = Artefacts() + QStringLiteral("/ui_data_gui_screen.png");
  QProcess::execute(QStringLiteral("import"), {QStringLiteral("-window"), QStringLiteral("root"), sShot});
  Check(QFile::exists(sShot), "screenshot of the data windows: " + sShot);
}

void Scenario(CMainWindow* pMain) {
  pMain->raise();
  pMain->activateWindow();
  Check(QTest::qWaitForWindowActive(pMain, 5000), "the main window is the active window");
  CDebugSession* s = SessionModule::DebugSession();
  Check(s != nullptr, "the debug session exists");
  if (!s) return;
  Check(pMain->windowTitle().contains(QLatin1String("demo")), "the title names the demo project: " + pMain->windowTitle());

  U64 Halts = s->HaltCount();
  QTest::keyClick(pMain, Qt::Key_F5);
  Check(WaitHalted(s, Halts), "F5 started the session and it halted");
  Check(QTest::qWaitFor([&] { return TopFrame(pMain).contains(QLatin1String("main")); }, 10000),
        "the call stack shows main: " + TopFrame(pMain));
  for (int i = 0; i < 2; ++i) {
    Halts = s->HaltCount();
    QTest::keyClick(pMain, Qt::Key_F10);
    Check(WaitHalted(s, Halts), QStringLiteral("F10 number %1 stepped and halted").arg(i + 1));
  }
  Check(QTest::qWaitFor([&] { return TopFrame(pMain).contains(QLatin1String("main")); }, 10000),
        "after two steps the call stack shows main: " + TopFrame(pMain));
  QTest::qWait(300);  // the console paints on its timer
  const QString sConsole = pMain->ConsoleWindow()->PlainText();
  Check(sConsole.contains(QLatin1String("Debug.Start();")), "the console echoed Debug.Start();");
  Check(sConsole.count(QLatin1String("Debug.StepOver();")) == 2, "the console echoed Debug.StepOver(); twice");

  // The registers window, when there is one, marks what the steps changed.
  if (SHELL_WINDOW* r = pMain->FindWindow(QStringLiteral("Registers 1"), true)) {
    auto* v = r->pWindow->findChild<QAbstractItemView*>();
    Check(v && QTest::qWaitFor([&] { return ChangeColouredRows(v) > 0; }, 5000),
          "the registers window shows changed registers in the change colour");
  } else {
    std::printf("NOTE: no window \"Registers 1\"; its change colours are not checked\n");
  }

  SourceScenario(pMain, s);
  DataScenario(pMain, s);

  // The pictures: the whole screen, and the main window alone.
  QTest::qWait(200);
  const QString sScreen = Artefacts() + QStringLiteral("/ui_shell_gui_screen.png");
  const int rc = QProcess::execute(QStringLiteral("import"), {QStringLiteral("-window"), QStringLiteral("root"), sScreen});
  Check(rc == 0 && QFile::exists(sScreen), "screenshot of the whole screen: " + sScreen);
  pMain->grab().save(Artefacts() + QStringLiteral("/mainwindow.png"));
}

}  // namespace

int main(int argc, char** argv) {
  if (!qEnvironmentVariableIsSet("TAVIT_UNDER_XVFB")) return RunUnderXvfb(argc, argv);
  const QString sProject = qEnvironmentVariable("TAVIT_SOURCE_DIR", QStringLiteral(".")) +
                           QStringLiteral("/examples/demo/demo.vdebug");
  // Each run starts from the project alone: the user file a run before
  // wrote (windows, breakpoints, watched expressions) goes.
  QFile::remove(sProject + QStringLiteral(".user"));
  QByteArray Program = argv[0], Project = sProject.toLocal8Bit();
  char* Args[] = {Program.data(), Project.data(), nullptr};
  SetMainWindowStartedHook([](CMainWindow* pMain) {
    Scenario(pMain);
    pMain->close();
  });
  const int Exit = RunTavit(2, Args);
  Check(Exit == 0, QStringLiteral("the program ended with status %1").arg(Exit));
  std::printf("%d failure(s)\n", g_nFailures);
  return g_nFailures == 0 ? 0 : 1;
}
