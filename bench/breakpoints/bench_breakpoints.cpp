// Cost of a source breakpoint on a large program: parsing "file:line",
// finding the line's code addresses (derived breakpoints) and scheduling the
// job, as Break.SetOnSrc does it, for lines spread over the program.
// Usage: bench_breakpoints [LARGE.elf]   (default /tmp/large/large-dwarf4.elf;
// make it with bench/gen/gen_large.py /tmp/large)
#include "device/bpmodel.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <cstdio>

namespace {

// Counts the jobs instead of running them.
class CCountingDevice : public IBreakpointDevice {
 public:
  U64 Jobs = 0, Addrs = 0;
  bool IsConnected() const override { return false; }
  std::vector<DEVICE_BP> Breakpoints() const override { return {}; }
  DEVICE_BP GetBreakpoint(U32) const override { return {}; }
  std::vector<WP> Watchpoints() const override { return {}; }
  std::vector<TP> Tracepoints() const override { return {}; }
  void SetBPHasCondition(U32, bool) override {}
  int PostSetBP(U32, BP_STATES, BP_TYPES) override { ++Jobs; ++Addrs; return 0; }
  int PostSetBPs(const std::vector<U32>& a, BP_STATES, BP_TYPES) override { ++Jobs; Addrs += a.size(); return 0; }
  int PostClearBP(U32) override { return 0; }
  int PostClearBPs(const std::vector<U32>&) override { return 0; }
  int PostClearAllBPs() override { return 0; }
  int PostResetBPs() override { return 0; }
  int PostSetWPs(const std::vector<WP>&) override { return 0; }
  int PostClearWPs(const std::vector<WP>&) override { return 0; }
  int PostClearAllWPs() override { return 0; }
  int PostSetTPs(const std::vector<TP>&) override { return 0; }
  int PostClearTPs(const std::vector<TP>&) override { return 0; }
  int PostClearAllTPs() override { return 0; }
  void WaitForBreakpointJobs() override {}
};

}  // namespace

int main(int argc, char** argv) {
  DWARF_Install();
  const QString Large = argc > 1 ? QString::fromUtf8(argv[1]) : QString("/tmp/large/large-dwarf4.elf");
  if (!QFile::exists(Large)) {
    printf("%s not found (bench/gen/gen_large.py /tmp/large)\n", Large.toUtf8().constData());
    return 0;
  }
  QElapsedTimer t;
  t.start();
  if (CElfApi::Instance().Load(Large) < 0) return 1;
  printf("loaded %s in %lld ms\n", Large.toUtf8().constData(), (long long)t.elapsed());
  // Lines with code spread over the program: every 97th function's first line.
  QStringList Texts;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    const CLineTables& Tab = DWARF_GetProgramTables();
    const auto& Fn = Tab.GetFunctionList();
    for (size_t i = 0; i < Fn.size(); i += 97) {
      const CSrcLoc l = Tab.GetSrcLoc(Tab.GetSymbolRange(Fn[i]).start);
      if (!l.IsNull()) Texts << QStringLiteral("%1:%2").arg(Tab.GetFileName(l.file)).arg(l.line + 1);
    }
  }
  CCountingDevice Dev;
  CBreakpointsDataModel Model(&Dev);
  // The first request builds the memo tables behind the look-ups.
  CSrcLoc Loc;
  t.start();
  if (!Model.Prog().ParseLocation(Texts.value(0), &Loc)) return 2;
  Model.SetSourceBP(Model.LandingLoc(Loc), BP_STATE_ON, BP_TYPE_ANY);
  printf("first Break.SetOnSrc (%s): %.3f ms\n", Texts.value(0).toUtf8().constData(), t.nsecsElapsed() / 1e6);
  const int Rounds = 5;
  int Failed = 0;
  t.start();
  for (int r = 0; r < Rounds; ++r)
    for (const QString& s : Texts) {
      if (!Model.Prog().ParseLocation(s, &Loc)) {
        ++Failed;
        continue;
      }
      Model.SetSourceBP(Model.LandingLoc(Loc), BP_STATE_ON, BP_TYPE_ANY);
    }
  const double Us = t.nsecsElapsed() / 1000.0 / (Rounds * Texts.size());
  printf("Break.SetOnSrc on a line (parse, derived addresses, job): %.1f us average over %d lines x %d, "
         "%llu jobs for %llu addresses, %d unresolved\n",
         Us, int(Texts.size()), Rounds, (unsigned long long)Dev.Jobs, (unsigned long long)Dev.Addrs, Failed);
  t.start();
  Model.Refresh();
  printf("refresh of the window model with %d source breakpoints: %.3f ms\n", int(Model.SourceMap().size()), t.nsecsElapsed() / 1e6);
  return 0;
}
