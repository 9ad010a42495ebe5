// Prints the instruction analysis' figures over the largest firmware ELF of
// the corpus: the fill after opening, and queries per second of the cache
// against asking the core plug-in for each address (ratio).
// Usage: bench_disasm [rounds] (default 20)
#include "disasm/instcache.h"
#include "disasm/instinstall.h"
#include "elf/elf.h"
#include "elf/elfapi.h"
#include "plugins/corehost.h"
#include "plugins/corewrappers.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

struct NoProject : ICorePluginProject {
  QString CorePluginPath() const override { return {}; }
  void SetCorePluginPath(const QString&) override {}
  bool DialogsAllowed() const override { return false; }
  QString AskCorePluginFile(const QString&, const QString&, const QString&) override { return {}; }
};

// Queries per second of Fn over [Lo, Hi) in 2-byte steps, best of Rounds.
template <class F>
double PerSecond(U64 Lo, U64 Hi, int Rounds, F&& Fn) {
  double Best = 0;
  volatile U64 Sink = 0;
  for (int r = 0; r < Rounds; ++r) {
    QElapsedTimer t;
    t.start();
    U64 n = 0;
    for (U64 a = Lo; a < Hi; a += 2, ++n) Sink = Sink + Fn(a);
    Best = std::max(Best, n / std::max(1e-9, t.nsecsElapsed() / 1e9));
  }
  return Best;
}

}  // namespace

int main(int argc, char** argv) {
  QCoreApplication App(argc, argv);
  const int Rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;
  const char* s = std::getenv("TAVIT_SOURCE_DIR");
  const QString Dir = QString::fromUtf8(s ? s : TAVIT_SOURCE_DIR_FALLBACK) + QStringLiteral("/firmware/corpus");
  QFileInfo Largest;
  for (const QFileInfo& f : QDir(Dir).entryInfoList({QStringLiteral("*.elf")}, QDir::Files))
    if (!f.fileName().contains(QLatin1String("-be")) && f.size() > Largest.size()) Largest = f;
  static NoProject s_Project;
  CORE_SetProject(&s_Project);
  if (CElfApi::Instance().Load(Largest.absoluteFilePath()) != 0 || LoadCorePlugin(0x0E0000FF) < 0) {
    std::printf("bench_disasm: cannot load %s or the ARM plug-in\n", qPrintable(Largest.filePath()));
    return 1;
  }
  QElapsedTimer t;
  t.start();
  DisasmModule::Sync(true);
  const double FillMs = t.nsecsElapsed() / 1e6;
  // The span of the executable sections.
  U64 Lo = ~0ull, Hi = 0;
  {
    const ELF_FILE* f = CElfApi::Instance().GetFile();
    for (int i = 0; i < ELF_GetNumSections(f); ++i)
      if ((ELF_GetSectionFlags(f, i) & 6) == 6 && ELF_GetSectionSize(f, i)) {
        Lo = std::min<U64>(Lo, ELF_GetSectionAddr(f, i));
        Hi = std::max<U64>(Hi, U64(ELF_GetSectionAddr(f, i)) + ELF_GetSectionSize(f, i));
      }
  }
  const int Insts = CountInsts(Lo, Hi);
  std::printf("program %s: %d instructions in %llu bytes, %d cache pages\n", qPrintable(Largest.fileName()), Insts,
              (unsigned long long)(Hi - Lo), CORE_NumCachePages());
  std::printf("fill after opening: %.1f ms\n", FillMs);
  const double Cached = PerSecond(Lo, Hi, Rounds, [](U64 a) {
    CORE_INST_INFO i;
    return GetCachedInst(&i, U32(a)) == 0 ? U64(i.Size) : 0;
  });
  std::printf("is-instruction (mapping range and cache): %.2f M queries/s\n",
              PerSecond(Lo, Hi, Rounds, [](U64 a) { return U64(IsInstruction(a)); }) / 1e6);
  const double Plugin = PerSecond(Lo, Hi, std::max(1, Rounds / 10), [](U64 a) {
    const CORE_INST_INFO* p = CORE_AnalyzeInst(a);
    return U64(p ? p->Size : 0);
  });
  std::printf("cached analysis: %.2f M queries/s (plug-in per address: %.2f M/s, ratio %.1f)\n", Cached / 1e6,
              Plugin / 1e6, Cached / std::max(1.0, Plugin));
  std::printf("previous instruction: %.2f M queries/s\n", PerSecond(Lo, Hi, Rounds, [](U64 a) {
                U64 p = 0;
                return U64(GetPrevInst(a, &p)) + p;
              }) / 1e6);
  std::printf("branch target: %.2f M queries/s\n", PerSecond(Lo, Hi, Rounds, [](U64 a) {
                U64 p = 0;
                return U64(GetBranchTarget(a, &p)) + p;
              }) / 1e6);
  t.restart();
  const int Listed = ListInsts(Lo, Hi, 0, nullptr);
  const double ListMs = t.nsecsElapsed() / 1e6;
  std::printf("first text walk of the program: %d items in %.1f ms (%.2f M items/s)\n", Listed, ListMs,
              Listed / std::max(1e-6, ListMs * 1e3));
  UnloadCorePlugin();
  CElfApi::Instance().Close();
  return 0;
}
