// Benchmark of the ARM core plug-in: walks every code range of the largest
// firmware ELF (or the file given as argument) the way the instruction cache
// is filled, and prints instructions per second for AnalyzeInst and for
// GetInstText.
//
//   bench_coreplugin [file.elf|""] [rounds]
#include "coreplugin_arm.h"
#include "coreplugins/elf_image.h"

#include <capstone/capstone.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {
const TestElf* g_pElf = nullptr;

int ReadMem(U64 Addr, U32 n, U8* p) { return g_pElf->Read(Addr, n, p) ? 0 : -1; }
int CodeRange(U64 Addr, const char** psName, U64* pStart, U64* pEnd) {
  int i = g_pElf->RangeAt(Addr);
  if (i < 0) return -1;
  char k = g_pElf->Ranges[i].Kind;
  *psName = k == 't' ? "$t" : k == 'a' ? "$a" : "$d";
  *pStart = g_pElf->Ranges[i].Start;
  *pEnd = size_t(i + 1) < g_pElf->Ranges.size() ? g_pElf->Ranges[i + 1].Start : ~0ull;
  return 0;
}
int Log(const char*, U32) { return 0; }

std::string LargestElf() {
  const char* s = std::getenv("TAVIT_SOURCE_DIR");
  std::string Root = s ? s : TAVIT_SOURCE_DIR_DEFAULT;
  std::string Best;
  uintmax_t BestSize = 0;
  std::error_code ec;
  for (auto& e : std::filesystem::recursive_directory_iterator(Root + "/firmware", ec))
    if (e.is_regular_file() && e.path().extension() == ".elf" && e.file_size() > BestSize) {
      BestSize = e.file_size();
      Best = e.path().string();
    }
  return Best;
}
}  // namespace

int main(int argc, char** argv) {
  std::string Path = argc > 1 && argv[1][0] ? argv[1] : LargestElf();
  int Rounds = argc > 2 ? std::atoi(argv[2]) : 20;
  TestElf E;
  if (Path.empty() || !E.Load(Path)) {
    std::fprintf(stderr, "cannot load an ELF file (%s)\n", Path.c_str());
    return 1;
  }
  g_pElf = &E;
  CORE_PLUGIN_API Api{};
  CORE_PLUGIN_GetAPI(&Api, sizeof Api);
  CORE_HOST_API H{CodeRange, nullptr, ReadMem, nullptr, nullptr, nullptr, Log};
  CORE_PLUGIN_SetAPI(&H, sizeof H);
  CORE_CONFIG C{};
  C.DataEndian = E.Big ? 1 : 0;
  C.InstEndian = (E.Big && !(E.Flags & 0x00800000u)) ? 1 : 0;
  Api.pfInit(&C);

  // Code ranges: from each $t symbol to the next mapping symbol, within the
  // loaded image.
  struct R { U64 Start, End; };
  std::vector<R> Code;
  for (size_t i = 0; i < E.Ranges.size(); ++i) {
    if (E.Ranges[i].Kind != 't') continue;
    U64 End = i + 1 < E.Ranges.size() ? E.Ranges[i + 1].Start : E.Ranges[i].Start;
    U8 b[2];
    while (End > E.Ranges[i].Start && !E.Read(End - 2, 2, b)) End -= 2;
    if (End > E.Ranges[i].Start) Code.push_back({E.Ranges[i].Start, End});
  }
  auto Walk = [&](bool Text) {
    size_t n = 0;
    char acBuf[128];
    for (const R& r : Code)
      for (U64 A = r.Start; A < r.End;) {
        CORE_INST_INFO I;
        U32 Size = 2;
        if (Text) {
          int k = Api.pfGetInstText(A, 0, acBuf, sizeof acBuf);
          if (k > 0) Size = U32(k);
        } else if (Api.pfAnalyzeInst(A, &I) == 0) {
          Size = I.Size;
        }
        A += Size;
        ++n;
      }
    return n;
  };
  std::printf("file: %s\ncode ranges: %zu\n", Path.c_str(), Code.size());
  for (bool Text : {false, true}) {
    size_t Total = 0;
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < Rounds; ++i) Total += Walk(Text);
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::printf("%-12s %zu instructions in %.3f s: %.2f M instructions/s\n", Text ? "GetInstText" : "AnalyzeInst",
                Total, s, Total / s / 1e6);
  }
  // Reference: Capstone alone, one call per instruction, same walk.
  csh h;
  if (cs_open(CS_ARCH_ARM, cs_mode(CS_MODE_THUMB | CS_MODE_MCLASS), &h) == CS_ERR_OK) {
    cs_option(h, CS_OPT_DETAIL, CS_OPT_ON);
    size_t Total = 0;
    auto t0 = std::chrono::steady_clock::now();
    for (int i = 0; i < Rounds; ++i)
      for (const R& r : Code)
        for (U64 A = r.Start; A < r.End;) {
          U8 b[4];
          U32 n = E.Read(A, 4, b) ? 4 : 2;
          E.Read(A, n, b);
          cs_insn* p = nullptr;
          size_t c = cs_disasm(h, b, n, A, 1, &p);
          A += c ? p[0].size : 2;
          if (p) cs_free(p, c);
          ++Total;
        }
    double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
    std::printf("%-12s %zu instructions in %.3f s: %.2f M instructions/s\n", "Capstone", Total, s, Total / s / 1e6);
    cs_close(&h);
  }
  return 0;
}
