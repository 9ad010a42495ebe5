// How parsing and evaluating an expression grows with its length: sums,
// unary chains and nested groups of increasing size, each measured in a
// forked child (so that peak memory is its own). Linear growth shows as a
// time ratio near 2 and a memory ratio near 2 for twice the length; gdb is
// the peer for the sum of 30,000 terms.
#include "expr/evaluator.h"
#include "expr/expression.h"

#include <QElapsedTimer>
#include <QString>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

struct FIGURE {
  double ms = 0;
  double mb = 0;  // peak resident growth
};

long MaxRssKb() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return u.ru_maxrss;
}

// Runs one parse and evaluation of the text in a child; the child writes its
// figures into a pipe.
FIGURE Measure(const QString& sText) {
  int Fd[2];
  if (pipe(Fd) != 0) return {};
  fflush(nullptr);
  const pid_t Pid = fork();
  if (Pid == 0) {
    close(Fd[0]);
    const long Before = MaxRssKb();
    QElapsedTimer t;
    t.start();
    CExpression e(sText);
    const int r = Evaluate(e);
    FIGURE f;
    f.ms = (double)t.nsecsElapsed() / 1e6;
    f.mb = (double)(MaxRssKb() - Before) / 1024.0;
    if (r < 0) f.ms = -1;
    if (write(Fd[1], &f, sizeof f) != (ssize_t)sizeof f) _exit(1);
    _exit(0);
  }
  close(Fd[1]);
  FIGURE f;
  if (read(Fd[0], &f, sizeof f) != (ssize_t)sizeof f) f.ms = -2;
  close(Fd[0]);
  waitpid(Pid, nullptr, 0);
  return f;
}

QString Repeat(const QString& s, int n) {
  QString r;
  r.reserve(s.size() * n);
  for (int i = 0; i < n; ++i) r += s;
  return r;
}

double GdbMs(int Terms) {
  const QString sFile = QString("/tmp/bench_expr_scale_%1.gdb").arg(getpid());
  FILE* f = fopen(sFile.toLocal8Bit().constData(), "w");
  if (!f) return -1;
  fprintf(f, "print 1%s\n", Repeat("+1", Terms - 1).toLatin1().constData());
  fclose(f);
  QElapsedTimer t;
  t.start();
  const int r = system(("gdb-multiarch -nx -batch -x " + sFile + " > /dev/null 2>&1").toLocal8Bit().constData());
  const double Ms = (double)t.nsecsElapsed() / 1e6;
  QElapsedTimer t0;
  t0.start();
  const int r0 = system("gdb-multiarch -nx -batch -ex 'print 1' > /dev/null 2>&1");
  const double Start = (double)t0.nsecsElapsed() / 1e6;
  remove(sFile.toLocal8Bit().constData());
  return r == 0 && r0 == 0 ? Ms - Start : -1;
}

}  // namespace

int main() {
  struct SHAPE {
    const char* name;
    std::function<QString(int)> make;  // text of about 2 n characters
  };
  const SHAPE Shapes[] = {
      {"sum 1+1+...", [](int n) { return "1" + Repeat("+1", n - 1); }},
      {"unary chain - - ... 7", [](int n) { return Repeat("- ", n) + "7"; }},
      {"groups (1)+(1)+...", [](int n) { return "0" + Repeat("+(1)", n / 2); }},
  };
  printf("expression length limit %d characters, nesting limit %d\n", EXPR_MAX_TEXT_LENGTH, EXPR_MAX_NESTING);
  for (const SHAPE& s : Shapes) {
    printf("%s\n", s.name);
    FIGURE Prev;
    for (int n = 6000; n <= 48000; n *= 2) {
      const QString t = s.make(n);
      const FIGURE f = Measure(t);
      printf("  %6d chars: %8.2f ms  %7.1f MB peak growth", (int)t.size(), f.ms, f.mb);
      if (Prev.ms > 0) printf("   x%.2f time, x%.2f memory for x2 length", f.ms / Prev.ms, Prev.mb > 0.5 ? f.mb / Prev.mb : 0.0);
      printf("\n");
      Prev = f;
    }
  }
  const FIGURE Ours = Measure("1" + Repeat("+1", 29999));
  const double Gdb = GdbMs(30000);
  printf("sum of 30,000 terms: %.1f ms, %.1f MB; gdb-multiarch %.1f ms (ratio %.2f)\n", Ours.ms, Ours.mb, Gdb,
         Gdb > 0 ? Ours.ms / Gdb : 0.0);
  return 0;
}
