// tavit -dap on the simulator, driven over its standard input and output:
// the median time from sending a next request to reading its stopped event,
// and of a variables request for a struct of 100 members. Prints figures.
#include "dap/dapframing.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <algorithm>
#include <cstdio>
#include <vector>

namespace {

QString Dir(const char* sEnv, const char* sFallback) {
  const QByteArray v = qgetenv(sEnv);
  return v.isEmpty() ? QString::fromUtf8(sFallback) : QString::fromUtf8(v);
}

class CClient {
 public:
  explicit CClient(QProcess* p) : m_p(p) {}
  int Send(const QString& sCommand, const QJsonObject& Args = {}) {
    const QJsonObject m{{"seq", m_Seq}, {"type", "request"}, {"command", sCommand}, {"arguments", Args}};
    m_p->write(CDapFramer::Frame(QJsonDocument(m).toJson(QJsonDocument::Compact)));
    m_p->waitForBytesWritten(1000);
    return m_Seq++;
  }
  // The next message that matches: a response to Seq, or an event by name.
  QJsonObject Wait(int Seq, const QString& sEvent = {}, int TimeoutMs = 60000) {
    QElapsedTimer t;
    t.start();
    while (t.elapsed() < TimeoutMs) {
      QByteArray Body;
      QString e;
      while (m_Framer.Next(&Body, &e) == CDapFramer::DAP_FRAME_MESSAGE) {
        const QJsonObject m = QJsonDocument::fromJson(Body).object();
        if (Seq >= 0 && m["type"] == "response" && m["request_seq"].toInt() == Seq) return m;
        if (!sEvent.isEmpty() && m["type"] == "event" && m["event"] == sEvent) return m;
      }
      if (m_p->waitForReadyRead(50)) m_Framer.Feed(m_p->readAllStandardOutput());
      else if (m_p->state() == QProcess::NotRunning) break;
    }
    fprintf(stderr, "bench_dap: no answer (%s)\n", qPrintable(sEvent));
    exit(1);
  }
  QJsonObject Request(const QString& sCommand, const QJsonObject& Args = {}) { return Wait(Send(sCommand, Args)); }

 private:
  QProcess* m_p;
  CDapFramer m_Framer;
  int m_Seq = 1;
};

double Median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.empty() ? 0 : v[v.size() / 2];
}

int MarkerLine(const QString& sSource, const char* sMarker) {
  QFile f(sSource);
  if (!f.open(QIODevice::ReadOnly)) return 0;
  const QList<QByteArray> Lines = f.readAll().split('\n');
  for (int i = 0; i < Lines.size(); ++i)
    if (Lines[i].contains(QByteArray("// @") + sMarker)) return i + 1;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication App(argc, argv);
  const QString sSrc = Dir("TAVIT_SOURCE_DIR", TAVIT_SOURCE_DIR_FALLBACK);
  const QString sBuild = Dir("TAVIT_BUILD_DIR", TAVIT_BUILD_DIR_FALLBACK);
  const QString sSource = sSrc + "/firmware/dap/dapdemo.c";
  const int Rounds = argc > 1 ? atoi(argv[1]) : 50;
  QProcess p;
  p.setProcessChannelMode(QProcess::SeparateChannels);
  p.setStandardErrorFile(QProcess::nullDevice());
  auto Env = QProcessEnvironment::systemEnvironment();
  Env.insert("QT_QPA_PLATFORM", "offscreen");
  p.setProcessEnvironment(Env);
  p.start(sBuild + "/tavit", {"-dap"});
  if (!p.waitForStarted()) return fprintf(stderr, "bench_dap: cannot start tavit\n"), 1;
  CClient c(&p);
  c.Request("initialize", {{"adapterID", "tavit"}});
  c.Request("launch", {{"program", sSrc + "/firmware/dap/elf/dapdemo_an385.elf"}, {"device", "MPS2-AN385"},
                       {"hostInterface", "USB"}, {"pathSubstitutes", QJsonObject{{"/tavit", sSrc}}}});
  c.Request("setBreakpoints", {{"source", QJsonObject{{"path", sSource}}},
                               {"breakpoints", QJsonArray{QJsonObject{{"line", MarkerLine(sSource, "loop-top")}}}}});
  c.Send("configurationDone");
  c.Wait(-1, "stopped");
  c.Send("continue", {{"threadId", 1}});
  c.Wait(-1, "stopped");
  c.Request("setBreakpoints", {{"source", QJsonObject{{"path", sSource}}}, {"breakpoints", QJsonArray{}}});

  // next -> stopped, over the statements of the loop (calls stepped over).
  std::vector<double> Next;
  QElapsedTimer t;
  for (int i = 0; i < Rounds; ++i) {
    t.start();
    c.Send("next", {{"threadId", 1}});
    c.Wait(-1, "stopped");
    Next.push_back(double(t.nsecsElapsed()) / 1e6);
  }
  // variables of g_wide (100 members), a fresh reference each round as an
  // editor asks after every stop.
  std::vector<double> Vars;
  int Members = 0;
  for (int i = 0; i < Rounds; ++i) {
    const QJsonObject e = c.Request("evaluate", {{"expression", "g_wide"}, {"context", "watch"}});
    const int Ref = e["body"].toObject()["variablesReference"].toInt();
    t.start();
    const QJsonObject v = c.Request("variables", {{"variablesReference", Ref}});
    Vars.push_back(double(t.nsecsElapsed()) / 1e6);
    Members = int(v["body"].toObject()["variables"].toArray().size());
  }
  c.Request("disconnect");
  p.waitForFinished(10000);
  printf("dap next->stopped on the simulator: median %.2f ms over %d steps (target <= 10 ms)\n", Median(Next), Rounds);
  printf("dap variables of a %d-member struct: median %.2f ms over %d requests\n", Members, Median(Vars), Rounds);
  return 0;
}
