// Mutation fuzzing of the debug sections under ASan/UBSan: corpus files with
// bytes of .debug_info, .debug_abbrev, .debug_line, .debug_loc(lists),
// .debug_frame, .debug_ranges/rnglists, .debug_str and the macro sections
// changed are opened from memory and read through every listing. The count
// of mutations comes from TAVIT_DWARF_FUZZ_ITERATIONS (default 600).
#include "dwarf_test_util.h"
#include "elf/dwarf/debug_dump.h"
#include "elf/dwarf/location.h"
#include "elf/elf_file.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <string.h>

namespace {

volatile size_t g_Sink;

std::vector<U8> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<U8>(std::istreambuf_iterator<char>(in), {});
}

struct Section {
  U32 offset, size;
};

// Debug sections of a clean file, located through the ELF layer.
std::vector<Section> DebugSections(const std::vector<U8>& bytes) {
  std::vector<Section> v;
  ELF_FILE* f = ELF_OpenMemory(bytes.data(), (U32)bytes.size(), false);
  if (!f) return v;
  for (int i = 0; i < ELF_GetNumSections(f); ++i)
    if (!strncmp(ELF_GetSectionName(f, i), ".debug_", 7) && ELF_GetSectionSize(f, i))
      v.push_back({ELF_GetSectionOffset(f, i), ELF_GetSectionSize(f, i)});
  ELF_Close(f);
  return v;
}

void ReadAll(ELF_FILE* f) {
  size_t acc = DWARF_DumpGlobals(f).size() + DWARF_DumpFunctions(f).size() + DWARF_DumpTypes(f).size() +
               DWARF_DumpInlines(f).size() + DWARF_DumpLines(f).size() + DWARF_DumpFiles(f).size() +
               DWARF_DumpMacros(f).size() + DWARF_DumpCfa(f).size();
  for (int l = 0; l < ELF_LIST_COUNT; ++l)
    for (int i = 0; i < ELF_GetListCount(f, l); ++i) {
      const ELF_SYM_HANDLE h = ELF_GetListItem(f, l, i);
      acc += ELF_GetQualifiedScope(h).size() + ELF_GetByteSize(h) + ELF_GetArrayInfo(h).total +
             (size_t)ELF_IsSigned(h) + ELF_GetBaseClassCount(h) + ELF_FindAncestor(h, ELF_TAG_COMPILE_UNIT) +
             strlen(ELF_GetTypeName(h)) + ELF_GetSize(h);
      // A sibling step scans the subtree of the entry: a few of each list.
      if (i < 8) acc += ELF_GetFirstChild(h) + ELF_GetNextSibling(h);
    }
  ELF_SYM_LOCS rows;
  acc += ELF_GetRegisterRules(f, 0x08000200, 16, rows);
  for (int i = 0; i < ELF_GetListCount(f, ELF_LIST_FUNCTIONS); ++i) {
    const ELF_SYM_HANDLE fn = ELF_GetListItem(f, ELF_LIST_FUNCTIONS, i);
    const U32 pc = ELF_GetStart(fn, 0);
    acc += ELF_GetSymbolLocation(fn, pc).count;
    for (int k = 0; k < ELF_GetLocalCount(fn); ++k) {
      const ELF_SYM_HANDLE v = ELF_GetLocal(fn, k);
      acc += ELF_GetSymbolLocation(v, pc).count + ELF_GetSymbolLocation(v, pc + 8).count +
             ELF_GetLocationRanges(v, 2).size();
    }
  }
  g_Sink = acc;
}

void Fuzz(const char* name, int iterations, U32 seed) {
  DWARF_DumpGlobals(nullptr); // nothing to read: empty text
  std::vector<U8> clean = ReadFile(CorpusPath(name));
  ASSERT_FALSE(clean.empty()) << name;
  auto sections = DebugSections(clean);
  ASSERT_GT(sections.size(), 3u);
  DWARF_Install();
  std::mt19937 rng(seed);
  std::vector<U8> work;
  for (int it = 0; it < iterations; ++it) {
    work = clean;
    const Section& s = sections[rng() % sections.size()];
    const int edits = 1 + (int)(rng() % 8);
    for (int e = 0; e < edits; ++e) {
      const U32 at = s.offset + (U32)(rng() % s.size);
      switch (rng() % 4) {
      case 0: work[at] = (U8)rng(); break;
      case 1: work[at] ^= (U8)(1u << (rng() % 8)); break;
      case 2: work[at] = (rng() & 1) ? 0xFF : 0x00; break;
      default: // a run of bytes, as a length or offset field would take
        for (U32 k = 0; k < 4 && at + k < s.offset + s.size; ++k) work[at + k] = (U8)rng();
      }
    }
    ELF_FILE* f = ELF_OpenMemory(work.data(), (U32)work.size(), true);
    if (!f) continue;
    ReadAll(f);
    ELF_Close(f);
  }
}

int Iterations() {
  const char* e = getenv("TAVIT_DWARF_FUZZ_ITERATIONS");
  return e ? atoi(e) : 600;
}

TEST(DwarfFuzz, Dwarf4Optimised) { Fuzz("app-dwarf4-O2.elf", Iterations() / 4, 1); }
TEST(DwarfFuzz, Dwarf2BigSections) { Fuzz("app-dwarf2-O2.elf", Iterations() / 4, 2); }
TEST(DwarfFuzz, Dwarf5WithTypeUnitsAndMacros) {
  Fuzz("app-dwarf5-O2.elf", Iterations() / 8, 3);
  Fuzz("app-dwarf4-types.elf", Iterations() / 8, 4);
  Fuzz("app-dwarf4-macro.elf", Iterations() / 8, 5);
  Fuzz("app-dwarf4-macinfo.elf", Iterations() / 8, 6);
}

} // namespace
