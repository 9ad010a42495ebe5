// Figures of the evaluator and the name services:
//  - evaluation rate of a 10-operator expression over a snapshot, for a new
//    expression each time (parse, tree, leaves) and for repeated evaluation;
//  - FindSymbols latency on a large program (bench/gen/gen_large.py output).
// Usage: bench_symbol [LARGE.elf]   (default /tmp/large/large-dwarf4.elf)
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "expr/evaluator.h"

#include <QElapsedTimer>
#include <QFile>
#include <cstdio>

static const char* kExpr = "g_array[1] + g_array[2] * g_array[3] - g_array[4] / 2 + g_int % 7";  // 10 operators

int main(int argc, char** argv) {
  DWARF_Install();
  const QString Corpus = QString(TAVIT_SOURCE_DIR) + "/firmware/corpus/app-dwarf4-O0.elf";
  if (CElfApi::Instance().Load(Corpus) < 0) {
    printf("cannot load %s\n", Corpus.toUtf8().constData());
    return 1;
  }
  // The snapshot: the ranges a first evaluation reads, with their bytes.
  CExpression First(kExpr);
  if (Evaluate(First) < 0) {
    printf("evaluation failed: %s\n", First.GetError().toUtf8().constData());
    return 1;
  }
  CExprSnapshot Snap;
  for (const CAddrRange& r : First.reads) {
    QByteArray b;
    ELF_GetTargetAccess().ReadMemory(r.start, r.size, QString(), b);
    Snap.ranges << r;
    Snap.data += b;
  }
  const I64 Expected = GetResult(First)->ReadSigned();
  printf("expression: %s = %lld, %d ranges in the snapshot\n", kExpr, (long long)Expected, (int)Snap.ranges.size());

  QElapsedTimer t;
  const int NFirst = 20000;
  t.start();
  for (int i = 0; i < NFirst; ++i) {
    CExpression e(kExpr);
    e.snapshot = Snap;
    if (Evaluate(e) < 0 || GetResult(e)->ReadSigned() != Expected) return 2;
  }
  const double UsFirst = t.nsecsElapsed() / 1000.0 / NFirst;
  printf("first evaluation (parse + tree + leaves): %.2f us, %.0f per second\n", UsFirst, 1e6 / UsFirst);

  CExpression Again(kExpr);
  Again.snapshot = Snap;
  const int NAgain = 50000;
  t.start();
  for (int i = 0; i < NAgain; ++i)
    if (Evaluate(Again) < 0) return 2;
  const double UsAgain = t.nsecsElapsed() / 1000.0 / NAgain;
  printf("repeated evaluation over the snapshot: %.2f us, %.0f per second\n", UsAgain, 1e6 / UsAgain);

  const QString Large = argc > 1 ? QString::fromUtf8(argv[1]) : QString("/tmp/large/large-dwarf4.elf");
  if (!QFile::exists(Large)) {
    printf("FindSymbols: %s not found (bench/gen/gen_large.py /tmp/large)\n", Large.toUtf8().constData());
    return 0;
  }
  t.start();
  if (CElfApi::Instance().Load(Large) < 0) return 3;
  printf("loaded %s in %lld ms\n", Large.toUtf8().constData(), (long long)t.elapsed());
  ELF_FILE* f = CElfApi::Instance().GetFile();
  const int NF = ELF_GetListCount(f, ELF_LIST_FUNCTIONS);
  QStringList Names;
  for (int i = 0; i < NF; i += NF / 1000 + 1) Names << QString::fromUtf8(ELF_GetName(ELF_GetListItem(f, ELF_LIST_FUNCTIONS, i)));
  t.start();
  const int FirstCount = FindSymbols(Names.value(0), true, true, true, true, true).size();
  printf("FindSymbols first call (builds the name tables, %d functions): %.2f ms (%d found)\n", NF,
         t.nsecsElapsed() / 1e6, FirstCount);
  t.start();
  int Found = 0;
  const int Rounds = 20;
  for (int r = 0; r < Rounds; ++r)
    for (const QString& n : Names) Found += FindSymbols(n, true, true, true, true, true).size();
  const double Us = t.nsecsElapsed() / 1000.0 / (Rounds * Names.size());
  printf("FindSymbols afterwards: %.2f us per name over %d names (%d results)\n", Us, (int)Names.size(), Found);
  return 0;
}
