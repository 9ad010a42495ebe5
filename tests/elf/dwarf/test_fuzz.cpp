// Mutation fuzzing of the debug sections under ASan/UBSan: corpus files with
// bytes of one debug section changed (.debug_info, .debug_abbrev, .debug_line,
// .debug_loc/.debug_loclists, .debug_frame, .debug_ranges/.debug_rnglists,
// .debug_str, .debug_line_str, .debug_str_offsets, .debug_addr, .debug_types
// and the macro sections, whichever a file has) are opened from memory and
// read through every listing.
//
// Every iteration draws from its own generator, seeded from the group seed
// and the iteration number, so one input can be replayed alone:
//   TAVIT_DWARF_FUZZ_ITERATIONS  mutations in all (default 10000), shared out
//                                among the groups by their weight
//   TAVIT_DWARF_FUZZ_ONLY=N      run iteration N only and print its edits
//   TAVIT_DWARF_FUZZ_LIMIT_MS    time one input may take (default 10000); a
//                                watchdog ends the process naming the input
// The default keeps the suite short; the 50,000-mutation run of all groups is
//   TAVIT_DWARF_FUZZ_ITERATIONS=50000 ctest -R dwarf_fuzz -j2
#include "dwarf_test_util.h"
#include "elf/dwarf/debug_dump.h"
#include "elf/dwarf/location.h"
#include "elf/elf_file.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <sanitizer/common_interface_defs.h>
#include <string.h>
#include <thread>

namespace {

volatile size_t g_Sink;

std::vector<U8> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<U8>(std::istreambuf_iterator<char>(in), {});
}

struct Section {
  std::string name;
  U32 offset, size;
};

// Debug sections of a clean file, located through the ELF layer.
std::vector<Section> DebugSections(const std::vector<U8>& bytes) {
  std::vector<Section> v;
  ELF_FILE* f = ELF_OpenMemory(bytes.data(), (U32)bytes.size(), false);
  if (!f) return v;
  for (int i = 0; i < ELF_GetNumSections(f); ++i)
    if (!strncmp(ELF_GetSectionName(f, i), ".debug_", 7) && ELF_GetSectionSize(f, i))
      v.push_back({ELF_GetSectionName(f, i), ELF_GetSectionOffset(f, i), ELF_GetSectionSize(f, i)});
  ELF_Close(f);
  return v;
}

// What a mutation of each section can change, so that one input costs no
// more reading than its section feeds: call frame information comes from
// .debug_frame alone, line rows from .debug_line, location lists only reach
// the locations. Mutations of the unit sections (.debug_info, .debug_abbrev,
// the string and index sections, type units) read everything but the frames.
enum READ { R_SYMBOLS = 1, R_LINES = 2, R_LOCATIONS = 4, R_MACROS = 8, R_FRAMES = 16 };

int ReadsFor(const std::string& section) {
  if (section == ".debug_frame") return R_FRAMES;
  if (section == ".debug_line") return R_LINES;
  if (section == ".debug_loc" || section == ".debug_loclists") return R_LOCATIONS;
  if (section == ".debug_ranges" || section == ".debug_rnglists") return R_LOCATIONS | R_SYMBOLS;
  if (section == ".debug_macro" || section == ".debug_macinfo") return R_MACROS;
  return R_SYMBOLS | R_LINES | R_LOCATIONS | R_MACROS;
}

void Read(ELF_FILE* f, int what) {
  size_t acc = 0;
  if (what & R_SYMBOLS) {
    acc += DWARF_DumpGlobals(f).size() + DWARF_DumpFunctions(f).size() + DWARF_DumpTypes(f).size() +
           DWARF_DumpInlines(f).size();
    for (int l = 0; l < ELF_LIST_COUNT; ++l)
      for (int i = 0; i < ELF_GetListCount(f, l); ++i) {
        const ELF_SYM_HANDLE h = ELF_GetListItem(f, l, i);
        acc += ELF_GetQualifiedScope(h).size() + ELF_GetByteSize(h) + ELF_GetArrayInfo(h).total +
               (size_t)ELF_IsSigned(h) + ELF_GetBaseClassCount(h) + ELF_FindAncestor(h, ELF_TAG_COMPILE_UNIT) +
               strlen(ELF_GetTypeName(h)) + ELF_GetSize(h);
        // A sibling step scans the subtree of the entry: a few of each list.
        if (i < 8) acc += ELF_GetFirstChild(h) + ELF_GetNextSibling(h);
      }
  }
  if (what & R_LINES) acc += DWARF_DumpLines(f).size() + DWARF_DumpFiles(f).size();
  if (what & R_MACROS) acc += DWARF_DumpMacros(f).size();
  if (what & R_FRAMES) {
    ELF_SYM_LOCS rows;
    acc += DWARF_DumpCfa(f).size() + ELF_GetRegisterRules(f, 0x08000200, 16, rows);
  }
  if (what & R_LOCATIONS)
    for (int i = 0; i < ELF_GetListCount(f, ELF_LIST_FUNCTIONS); ++i) {
      const ELF_SYM_HANDLE fn = ELF_GetListItem(f, ELF_LIST_FUNCTIONS, i);
      const U32 pc = ELF_GetStart(fn, 0);
      acc += ELF_GetSymbolLocation(fn, pc).count + ELF_GetSize(fn);
      for (int k = 0; k < ELF_GetLocalCount(fn); ++k) {
        const ELF_SYM_HANDLE v = ELF_GetLocal(fn, k);
        acc += ELF_GetSymbolLocation(v, pc).count + ELF_GetSymbolLocation(v, pc + 8).count +
               ELF_GetLocationRanges(v, 2).size();
      }
    }
  g_Sink = acc;
}

int EnvInt(const char* name, int dflt) {
  const char* e = getenv(name);
  return e && *e ? atoi(e) : dflt;
}

// Ends the process when one input runs over the time limit: a hang inside
// the reader can't be interrupted otherwise. The message names the input.
class Watchdog {
public:
  static Watchdog& Get() {
    static Watchdog w;
    return w;
  }
  void Begin(const char* file, U32 seed, int iteration) {
    file_ = file;
    seed_ = seed;
    iteration_ = iteration;
    start_ = Now();
  }
  void End() { start_ = 0; }
  int LimitMs() const { return limitMs_; }
  void Print(const char* what) const {
    fprintf(stderr, "%s: %s seed %u iteration %d (replay: TAVIT_DWARF_FUZZ_ONLY=%d)\n", what, file_.load(),
            seed_.load(), iteration_.load(), iteration_.load());
    fflush(stderr);
  }

private:
  Watchdog() : limitMs_(EnvInt("TAVIT_DWARF_FUZZ_LIMIT_MS", 10000)) {
    // A sanitizer report ends the process too: name the input first.
    __sanitizer_set_death_callback([] { Get().Print("SANITIZER REPORT"); });
    std::thread([this] {
      for (;;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        const long long t = start_;
        if (t && Now() - t > limitMs_) {
          fprintf(stderr, "ran over %d ms\n", limitMs_);
          Print("HANG");
          _Exit(3);
        }
      }
    }).detach();
  }
  static long long Now() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }
  const int limitMs_;
  std::atomic<const char*> file_{""};
  std::atomic<U32> seed_{0};
  std::atomic<int> iteration_{0};
  std::atomic<long long> start_{0};
};

// Writes a 32-bit value in the file's byte order, clipped to the section.
void Put32(std::vector<U8>& w, U32 at, U32 end, U32 v, bool big) {
  for (U32 k = 0; k < 4 && at + k < end; ++k) w[at + k] = (U8)(big ? v >> (24 - 8 * k) : v >> (8 * k));
}

// Applies 1..8 edits to one debug section; describes them when asked.
const Section& Mutate(std::vector<U8>& w, const std::vector<Section>& sections, std::mt19937& rng, bool big,
                      std::string* pLog) {
  const Section& s = sections[rng() % sections.size()];
  const U32 end = s.offset + s.size;
  const int edits = 1 + (int)(rng() % 8);
  for (int e = 0; e < edits; ++e) {
    const U32 at = s.offset + (U32)(rng() % s.size);
    const U32 before = w[at];
    const int kind = (int)(rng() % 7);
    switch (kind) {
    case 0: w[at] = (U8)rng(); break;
    case 1: w[at] ^= (U8)(1u << (rng() % 8)); break;
    case 2: w[at] = (rng() & 1) ? 0xFF : 0x00; break;
    case 3: // a run of bytes, as a length or offset field would take
      for (U32 k = 0; k < 4 && at + k < end; ++k) w[at + k] = (U8)rng();
      break;
    case 4: { // a length or offset just beyond, far beyond or inside the section
      static const U32 kValues[] = {0, 1, 0xFFFFFFFF, 0x7FFFFFFF, 0xFFFFFFF0};
      const U32 r = rng() % 8;
      const U32 v = r < 5 ? kValues[r] : r == 5 ? s.size : r == 6 ? s.size + 1 + rng() % 64 : rng() % s.size;
      Put32(w, at, end, v, big);
      break;
    }
    case 5: { // bytes of another place of the section: plausible headers and entries
      const U32 from = s.offset + (U32)(rng() % s.size);
      const U32 n = 1 + rng() % 32;
      for (U32 k = 0; k < n && at + k < end && from + k < end; ++k) w[at + k] = w[from + k];
      break;
    }
    default: // LEB128 continuation bits that run on
      for (U32 k = 0, n = 1 + rng() % 12; k < n && at + k < end; ++k) w[at + k] |= 0x80;
    }
    if (pLog) {
      char line[160];
      snprintf(line, sizeof line, "  %s+0x%x (file 0x%x) kind %d: %02x -> %02x\n", s.name.c_str(), at - s.offset, at,
               kind, before, w[at]);
      *pLog += line;
    }
  }
  return s;
}

struct Tally {
  int runs = 0, opened = 0;
  long long slowestMs = 0;
  int slowestIteration = -1;
};

// Fuzzes one corpus file; every section named in `need` must be present so
// that a rebuilt corpus can't silently drop a section from the fuzzing.
void Fuzz(const char* name, int iterations, U32 seed, std::vector<std::string> need = {}) {
  std::vector<U8> clean = ReadFile(CorpusPath(name));
  ASSERT_FALSE(clean.empty()) << name;
  auto sections = DebugSections(clean);
  ASSERT_GT(sections.size(), 3u);
  for (const auto& n : need)
    EXPECT_TRUE(std::any_of(sections.begin(), sections.end(), [&](const Section& s) { return s.name == n; }))
        << name << " has no " << n;
  const bool big = clean.size() > 5 && clean[5] == 2; // EI_DATA
  DWARF_Install();
  Watchdog& dog = Watchdog::Get();
  const int only = EnvInt("TAVIT_DWARF_FUZZ_ONLY", -1);
  Tally t;
  std::vector<U8> work;
  const auto t0 = std::chrono::steady_clock::now();
  for (int it = 0; it < iterations; ++it) {
    if (only >= 0 && it != only) continue;
    std::mt19937 rng(seed * 1000003u + (U32)it);
    work = clean;
    std::string log;
    const Section& s = Mutate(work, sections, rng, big, only >= 0 ? &log : nullptr);
    if (only >= 0) fprintf(stderr, "%s seed %u iteration %d:\n%s", name, seed, it, log.c_str());
    const auto s0 = std::chrono::steady_clock::now();
    dog.Begin(name, seed, it);
    ELF_FILE* f = ELF_OpenMemory(work.data(), (U32)work.size(), true);
    if (f) {
      Read(f, ReadsFor(s.name));
      ELF_Close(f);
      ++t.opened;
    }
    dog.End();
    ++t.runs;
    const long long ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - s0).count();
    if (ms > t.slowestMs) t.slowestMs = ms, t.slowestIteration = it;
  }
  const long long total =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
  printf("%-26s seed %u: %d mutations, %d opened, %lld ms, slowest %lld ms (iteration %d)\n", name, seed, t.runs,
         t.opened, total, t.slowestMs, t.slowestIteration);
  // The watchdog ends the process for a hang; a slow input that finished
  // still fails here.
  EXPECT_LT(t.slowestMs, dog.LimitMs()) << name << " seed " << seed << " iteration " << t.slowestIteration;
  if (only < 0 && iterations > 50) EXPECT_GT(t.opened, 0) << name;
}

// Mutations of a group: its share of the total by weight (out of 100).
int Share(int weight) { return std::max(1, EnvInt("TAVIT_DWARF_FUZZ_ITERATIONS", 10000) * weight / 100); }

// DWARF 2 to 4 sections: .debug_loc, .debug_ranges, type units, both macro forms.
TEST(DwarfFuzz, Dwarf2Optimised) {
  Fuzz("app-dwarf2-O2.elf", Share(12), 2, {".debug_loc", ".debug_ranges", ".debug_frame"});
}
TEST(DwarfFuzz, Dwarf4Optimised) {
  Fuzz("app-dwarf4-O2.elf", Share(14), 1, {".debug_loc", ".debug_ranges", ".debug_line", ".debug_str"});
}
TEST(DwarfFuzz, Dwarf4TypeUnitsAndMacros) {
  Fuzz("app-dwarf4-types.elf", Share(8), 4, {".debug_types"});
  Fuzz("app-dwarf4-macro.elf", Share(8), 5, {".debug_macro"});
  Fuzz("app-dwarf4-macinfo.elf", Share(8), 6, {".debug_macinfo"});
}
// DWARF 5: the GCC build's own sections, and the hand-written unit that uses
// the index forms with .debug_str_offsets and .debug_addr.
TEST(DwarfFuzz, Dwarf5Optimised) {
  Fuzz("app-dwarf5-O2.elf", Share(20), 3, {".debug_loclists", ".debug_rnglists", ".debug_line_str"});
}
TEST(DwarfFuzz, Dwarf5Forms) {
  Fuzz("app-dwarf5-forms.elf", Share(30), 7,
       {".debug_str_offsets", ".debug_addr", ".debug_loclists", ".debug_rnglists", ".debug_line_str"});
}

} // namespace
