// Prints the wall time of Tavit's batch mode: start-up to ready (the first
// line on standard output, written when the start-up sequence has finished),
// a whole run with an empty batch file, and a run of 10,000 Util.Log lines.
// Usage: bench_batch [path to tavit] [repetitions]
#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

struct TIMES {
  double ReadyMs = 0;
  double TotalMs = 0;
  int Lines = 0;
};

TIMES RunOnce(const QString& sTavit, const QString& sBatch, const QString& sSettings) {
  QProcess p;
  QProcessEnvironment Env = QProcessEnvironment::systemEnvironment();
  Env.remove("DISPLAY");
  Env.insert("TAVIT_SETTINGS_DIR", sSettings);
  p.setProcessEnvironment(Env);
  TIMES t;
  QElapsedTimer Clock;
  Clock.start();
  p.start(sTavit, {"-batch", sBatch});
  p.waitForStarted();
  QByteArray Out;
  while (p.state() != QProcess::NotRunning) {
    p.waitForReadyRead(5);
    const QByteArray Chunk = p.readAllStandardOutput();
    if (!Chunk.isEmpty() && Out.isEmpty()) t.ReadyMs = Clock.nsecsElapsed() / 1e6;
    Out += Chunk;
  }
  Out += p.readAllStandardOutput();
  t.TotalMs = Clock.nsecsElapsed() / 1e6;
  t.Lines = int(Out.count('\n'));
  return t;
}

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication App(argc, argv);
  const QStringList Args = App.arguments();
  const QString sTavit = Args.size() > 1 ? Args[1] : App.applicationDirPath() + "/tavit";
  const int Reps = Args.size() > 2 ? std::max(1, Args[2].toInt()) : 5;
  if (!QFile::exists(sTavit)) {
    fprintf(stderr, "tavit not found at %s\n", qPrintable(sTavit));
    return 1;
  }
  QTemporaryDir Dir;
  const QString sEmpty = Dir.filePath("empty.txt");
  const QString sLog = Dir.filePath("log10000.txt");
  {
    QFile f(sEmpty);
    f.open(QIODevice::WriteOnly);
    QFile g(sLog);
    g.open(QIODevice::WriteOnly);
    for (int i = 0; i < 10000; ++i) g.write(QStringLiteral("Util.Log \"benchmark line %1\"\n").arg(i).toUtf8());
  }
  std::vector<double> Ready, Empty, Log;
  int LogLines = 0;
  for (int r = 0; r < Reps; ++r) {
    const TIMES a = RunOnce(sTavit, sEmpty, Dir.filePath("settings"));
    Ready.push_back(a.ReadyMs);
    Empty.push_back(a.TotalMs);
    const TIMES b = RunOnce(sTavit, sLog, Dir.filePath("settings"));
    Log.push_back(b.TotalMs);
    LogLines = b.Lines;
  }
  printf("batch benchmark, %d runs each, median wall time\n", Reps);
  printf("  start-up to ready:                 %8.1f ms\n", Median(Ready));
  printf("  empty batch run (start to exit):   %8.1f ms\n", Median(Empty));
  printf("  10,000 Util.Log lines (whole run): %8.1f ms  (%d output lines)\n", Median(Log), LogLines);
  printf("  per command line:                  %8.3f ms\n", (Median(Log) - Median(Empty)) / 10000.0);
  return 0;
}
