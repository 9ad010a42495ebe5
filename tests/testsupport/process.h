// Running a program of the build (the application, tavit-dump) or a tool to
// its end from a test, and reading the results the application echoes.
#pragma once
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <climits>

namespace testsupport {

struct RUN {
  QString Out, Err;  // standard output and standard error
  int Exit = -1;     // -1: it crashed or did not end in time (and was killed)
  qint64 Ms = 0;     // how long it ran
};

struct RUN_OPTIONS {
  QString sWorkDir;         // empty: the test's own
  QProcessEnvironment Env;  // empty: the test's own
  QByteArray Stdin;         // written, then the channel is closed
  int TimeoutMs = 60000;
};

inline RUN RunProcess(const QString& sProgram, const QStringList& Args, const RUN_OPTIONS& o = {}) {
  QProcess p;
  if (!o.sWorkDir.isEmpty()) p.setWorkingDirectory(o.sWorkDir);
  if (!o.Env.isEmpty()) p.setProcessEnvironment(o.Env);
  QElapsedTimer t;
  t.start();
  p.start(sProgram, Args);
  if (!o.Stdin.isEmpty() && p.waitForStarted(10000)) p.write(o.Stdin);
  p.closeWriteChannel();
  RUN r;
  if (!p.waitForFinished(o.TimeoutMs)) {
    p.kill();
    p.waitForFinished();
  } else if (p.exitStatus() == QProcess::NormalExit) {
    r.Exit = p.exitCode();
  }
  r.Ms = t.elapsed();
  r.Out = QString::fromUtf8(p.readAllStandardOutput());
  r.Err = QString::fromUtf8(p.readAllStandardError());
  return r;
}

// A program of the build by its name: "tavit", "tavit-dump".
inline QString BuiltProgram(const QString& sName) { return qEnvironmentVariable("TAVIT_BUILD_DIR") + "/" + sName; }

// The application in batch mode: sText written to sBatchFile, the Extra
// arguments before "-batch <file>".
inline RUN RunBatch(const QString& sBatchFile, const QByteArray& sText, const QStringList& Extra = {},
                    const RUN_OPTIONS& o = {}) {
  QFile f(sBatchFile);
  if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate)) return {};
  f.write(sText);
  f.close();
  return RunProcess(BuiltProgram("tavit"), Extra + QStringList{"-batch", sBatchFile}, o);
}

// The number of the "=> <dec> (0x<hex>)" line after the first echo of a
// statement that starts so; LLONG_MIN when there is none.
inline qint64 ResultAfter(const QString& sOut, const QString& sStatement) {
  const qsizetype At = sOut.indexOf(sStatement);
  if (At < 0) return LLONG_MIN;
  const auto m = QRegularExpression(R"(=> (-?\d+) \(0x)").match(sOut, At);
  return m.hasMatch() ? m.captured(1).toLongLong() : LLONG_MIN;
}

}  // namespace testsupport
