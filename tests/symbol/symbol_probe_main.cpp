// Prints the tree of a global or the value block of an expression, for
// looking at a program by hand: symbol-probe FILE (--symbol NAME | --expr TEXT)...
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "elf/symbol/symdump.h"
#include "expr/evaluator.h"

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  DWARF_Install();
  if (CElfApi::Instance().Load(argv[1]) < 0) {
    printf("load failed\n");
    return 1;
  }
  for (int i = 2; i + 1 < argc; i += 2) {
    if (!strcmp(argv[i], "--symbol")) {
      CSymbol s = SYM_MakeGlobal(QString::fromUtf8(argv[i + 1]));
      for (const QString& l : SYM_DumpTree(s, 3)) printf("%s\n", l.toUtf8().constData());
    } else {
      CExpression e(QString::fromUtf8(argv[i + 1]));
      const int r = e.GetStatus() < 0 ? e.GetStatus() : Evaluate(e);
      printf("--- %s -> %d\n", argv[i + 1], r);
      for (const QString& l : EXPR_GetValueBlock(e, r)) printf("  %s\n", l.toUtf8().constData());
    }
  }
  return 0;
}
