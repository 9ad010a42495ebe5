// Load time and peak memory of the debug reader on a large program, beside
// gdb's full symbol expansion of the same file, and the median times of
// single queries. Prints figures; never run as a test.
//
//   bench_dwarf FILE [--no-gdb | --load-only]
//
// The generated program comes from bench/gen/gen_large.py.
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/line_tables.h"
#include "elf/dwarf/location.h"

#include <algorithm>
#include <chrono>
#include <random>
#include <stdio.h>
#include <string.h>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

long PeakKb() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return ru.ru_maxrss;
}

double NowMs() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

template <class F>
double MedianUs(int n, F f) {
  std::vector<double> t;
  t.reserve(n);
  for (int i = 0; i < n; ++i) {
    const auto a = std::chrono::steady_clock::now();
    f(i);
    t.push_back(std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - a).count());
  }
  std::nth_element(t.begin(), t.begin() + n / 2, t.end());
  return t[n / 2];
}

bool RunGdb(const char* path, double* pSec, long* pKb) {
  std::string cmd = std::string("/usr/bin/time -f '@@ %e %M' gdb-multiarch -nx -batch -iex 'maint set worker-threads 0' "
                                "-ex 'maint expand-symtabs' ") + path + " 2>&1 >/dev/null";
  FILE* p = popen(cmd.c_str(), "r");
  if (!p) return false;
  char line[512];
  bool ok = false;
  while (fgets(line, sizeof line, p))
    if (!strncmp(line, "@@ ", 3)) ok = sscanf(line + 3, "%lf %ld", pSec, pKb) == 2;
  pclose(p);
  return ok;
}

} // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: bench_dwarf FILE [--no-gdb | --load-only]\n");
    return 2;
  }
  const char* path = argv[1];
  bool gdb = true, queries = true;
  for (int i = 2; i < argc; ++i) {
    if (!strcmp(argv[i], "--no-gdb")) gdb = false;
    if (!strcmp(argv[i], "--load-only")) gdb = queries = false;
  }
  DWARF_Install();
  const long kb0 = PeakKb();
  const double t0 = NowMs();
  ELF_FILE* f = ELF_Open(path, true);
  const double parseMs = NowMs() - t0;
  if (!f) {
    fprintf(stderr, "cannot open %s\n", path);
    return 1;
  }
  // The wrapper's stages: address mapping, symbol table, function list,
  // interval trees; the time of each stage is kept for the listing below.
  struct StageTimes {
    double last;
    std::vector<std::pair<std::string, double>> rows;
  } times{NowMs(), {}};
  CLineTables tables;
  tables.Build(f, [](const char* sText, void* p) {
    StageTimes* st = static_cast<StageTimes*>(p);
    const double now = NowMs();
    st->rows.emplace_back(sText, now - st->last);
    st->last = now;
  }, &times);
  const double loadMs = NowMs() - t0;
  const long kb = PeakKb();
  printf("file                  %s\n", path);
  printf("DWARF version         %u\n", ELF_GetDwarfVersion(f));
  printf("functions             %d\n", ELF_GetListCount(f, ELF_LIST_FUNCTIONS));
  printf("global variables      %d\n", ELF_GetListCount(f, ELF_LIST_GLOBALS));
  printf("types                 %d\n", ELF_GetListCount(f, ELF_LIST_TYPES));
  printf("line rows             %d\n", ELF_GetNumLineRows(f));
  printf("debug parse           %.1f ms\n", parseMs);
  printf("load time             %.1f ms (with the address tables)\n", loadMs);
  printf("peak memory           %ld KB (process %ld KB)\n", kb - kb0, kb);
  printf("address tables        %.1f ms, by stage:\n", loadMs - parseMs);
  for (auto& r : times.rows) printf("  %-60s %6.1f ms\n", r.first.c_str(), r.second);

  // Query medians over 100,000 random samples.
  std::mt19937 rng(7);
  const int nFn = ELF_GetListCount(f, ELF_LIST_FUNCTIONS);
  std::vector<U32> pcs;
  std::vector<std::string> names;
  for (int i = 0; i < nFn; ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(f, ELF_LIST_FUNCTIONS, i);
    const U32 s = ELF_GetStart(h, 0), e = ELF_GetEnd(h, 0);
    if (s != 0xFFFFFFFFu && e > s) pcs.push_back(s + (U32)((e - s) / 2 & ~1u));
    names.push_back(ELF_GetName(h));
  }
  const int n = 100000;
  if (queries && !pcs.empty()) {
    std::vector<U32> sample(n);
    for (auto& p : sample) p = pcs[rng() % pcs.size()];
    volatile U32 sink = 0;
    const double cfa = MedianUs(n, [&](int i) { sink = sink + ELF_GetCfaRule(f, sample[i]).count; });
    printf("median CFA rule at pc      %.2f us\n", cfa);
    const double fb = MedianUs(n, [&](int i) {
      sink = sink + ELF_GetSymbolLocation(ELF_GetListItem(f, ELF_LIST_FUNCTIONS, i % nFn), sample[i]).count;
    });
    printf("median frame base at pc    %.2f us\n", fb);
    const double al = MedianUs(n, [&](int i) { sink = sink + tables.GetSrcLocs(sample[i] + 2).size(); });
    printf("median address to line     %.2f us\n", al);
    std::vector<CSrcLoc> locs(n);
    for (int i = 0; i < n; ++i) locs[i] = tables.GetSrcLoc(sample[i]);
    const double la = MedianUs(n, [&](int i) { sink = sink + tables.GetLocAddresses(locs[i]).size(); });
    printf("median line to addresses   %.2f us\n", la);
    const double fa = MedianUs(n, [&](int i) { sink = sink + (U32)tables.GetFunction(sample[i], false); });
    printf("median function at address %.2f us\n", fa);
    const double nl = MedianUs(n, [&](int i) {
      U32 next = 0;
      sink = sink + tables.NextLineAddress(sample[i], &next) + next;
    });
    printf("median next line address   %.2f us\n", nl);
    const double ss = MedianUs(n, [&](int i) { sink = sink + tables.IsStatementStart(sample[i]); });
    printf("median statement start     %.2f us\n", ss);
    const double ml = MedianUs(n, [&](int i) { sink = sink + tables.IsMultiLine(locs[i]); });
    printf("median multi-address line  %.2f us\n", ml);
    const double sa = MedianUs(n, [&](int i) { sink = sink + tables.GetSymbolsAt(sample[i] & ~0xFFu, true, true, true).size(); });
    printf("median symbols at address  %.2f us\n", sa);
  }
  if (queries && !names.empty()) {
    volatile U64 sink = 0;
    const double nm = MedianUs(n, [&](int i) { sink = sink + ELF_FindName(f, names[(i * 7919) % names.size()].c_str()); });
    printf("median name look-up        %.2f us\n", nm);
  }
  ELF_FreeDebugInfo(f);
  ELF_Close(f);

  if (gdb) {
    double sec = 0;
    long gkb = 0;
    if (RunGdb(path, &sec, &gkb)) {
      printf("gdb expand-symtabs    %.1f ms, peak %ld KB\n", sec * 1000, gkb);
      printf("ratio load time       %.2f (target <= 1.5)\n", loadMs / (sec * 1000));
      printf("ratio peak memory     %.2f (target <= 3; ours counted as the growth of this process)\n",
             (double)(kb - kb0) / (double)gkb);
    } else {
      printf("gdb run failed\n");
    }
  }
  return 0;
}
