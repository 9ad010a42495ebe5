// Prints two figures of the main window on the simulator's demo project:
// - the time from process start to the main window shown with the demo
//   project open (median of several fresh processes; target 1 s);
// - the cost of one halt refresh with every window open: the median time of
//   Step Over until the windows are idle again with all windows open, less
//   the same with all windows closed (target 30 ms).
// Usage: bench_mainwindow [runs] (default 5). Without a display the
// offscreen platform is used.
#include "app/startup.h"
#include "commands/actions.h"
#include "session/debugsession.h"
#include "session/program.h"
#include "ui/shell/mainwindow.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QThread>
#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

QByteArray ProjectPath() {
  return (qEnvironmentVariable("TAVIT_SOURCE_DIR", QStringLiteral(TAVIT_SOURCE_DIR_FALLBACK)) +
          QStringLiteral("/examples/demo/demo.vdebug"))
      .toLocal8Bit();
}

int RunWithHook(const char* sSelf, const std::function<void(CMainWindow*)>& Hook) {
  QByteArray Self = sSelf, Project = ProjectPath();
  char* Args[] = {Self.data(), Project.data(), nullptr};
  SetMainWindowStartedHook(Hook);
  return RunTavit(2, Args);
}

// Processes events until none came for a few milliseconds in a row.
void DrainEvents() {
  int Quiet = 0;
  while (Quiet < 3) {
    if (QAbstractEventDispatcher::instance()->processEvents(QEventLoop::AllEvents))
      Quiet = 0;
    else {
      ++Quiet;
      QThread::msleep(1);
    }
  }
}

double StepMs(CDebugSession* s) {
  const U64 Halts = s->HaltCount();
  QElapsedTimer t;
  t.start();
  ExecAction(AID_DEBUG_STEP_OVER);
  while ((s->IsAwaitingHalt() || s->HaltCount() == Halts) && t.elapsed() < 20000)
    QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
  DrainEvents();
  return t.nsecsElapsed() / 1e6;
}

void MeasureRefresh(CMainWindow* pMain, int Runs) {
  CDebugSession* s = SessionModule::DebugSession();
  const U64 Halts = s->HaltCount();
  ExecAction(AID_DEBUG_START);
  QElapsedTimer t;
  t.start();
  while ((s->IsAwaitingHalt() || s->HaltCount() == Halts) && t.elapsed() < 20000)
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
  DrainEvents();
  std::vector<double> Open, Closed;
  for (int i = 0; i < Runs * 2; ++i) {
    const bool AllOpen = i % 2 == 0;
    if (AllOpen)
      for (SHELL_WINDOW* p : pMain->AllWindows()) pMain->ShowWindow(p);
    else
      ExecAction(AID_WINDOW_CLOSE_ALL);
    DrainEvents();
    (AllOpen ? Open : Closed).push_back(StepMs(s));
  }
  int nWindows = pMain->AllWindows().size();
  std::printf("Step Over, %d windows open:   %.2f ms (median of %d)\n", nWindows, Median(Open), Runs);
  std::printf("Step Over, all windows closed: %.2f ms (median of %d)\n", Median(Closed), Runs);
  std::printf("Halt refresh with every window open: %.2f ms (target 30 ms)\n", std::max(0.0, Median(Open) - Median(Closed)));
}

}  // namespace

int main(int argc, char** argv) {
  if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
    qputenv("QT_QPA_PLATFORM", "offscreen");
  if (argc > 1 && QByteArray(argv[1]) == "--child-startup") {
    return RunWithHook(argv[0], [](CMainWindow* pMain) {
      std::printf("SHOWN\n");
      std::fflush(stdout);
      pMain->close();
    });
  }
  const int Runs = argc > 1 ? std::max(1, atoi(argv[1])) : 5;
  std::vector<double> Startup;
  for (int i = 0; i < Runs; ++i) {
    QProcess p;
    QElapsedTimer t;
    t.start();
    p.start(QString::fromLocal8Bit(argv[0]), {QStringLiteral("--child-startup")});
    double Ms = -1;
    while (p.state() != QProcess::NotRunning || p.bytesAvailable()) {
      p.waitForReadyRead(50);
      if (p.readAll().contains("SHOWN") && Ms < 0) Ms = t.nsecsElapsed() / 1e6;
      if (t.elapsed() > 30000) break;
    }
    p.waitForFinished(10000);
    if (Ms >= 0) Startup.push_back(Ms);
  }
  std::printf("Process start to main window shown with the demo project open: %.0f ms (median of %zu; target 1000 ms)\n",
              Median(Startup), Startup.size());
  std::fflush(stdout);
  return RunWithHook(argv[0], [Runs](CMainWindow* pMain) {
    MeasureRefresh(pMain, std::max(Runs, 5));
    pMain->close();
  });
}
