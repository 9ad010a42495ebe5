// The line table header reader under ASan/UBSan: corpus files whose
// .debug_line unit headers have bytes changed (lengths, versions, format
// descriptions, counts, strings) are read for every unit; the unchanged
// files give the file tables that llvm-dwarfdump shows.
#include "dwarf_test_util.h"
#include "elf/dwarf/source_linefiles.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <random>

namespace {

std::vector<U8> ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<U8>(std::istreambuf_iterator<char>(in), {});
}

// Offsets of the unit headers in .debug_line (32-bit lengths in the corpus).
std::vector<U32> UnitOffsets(ELF_FILE* f) {
  std::vector<U32> out;
  const int sec = ELF_FindSection(f, ".debug_line");
  const U8* p = ELF_GetSectionData(f, sec);
  const U32 size = ELF_GetSectionSize(f, sec);
  const bool big = ELF_GetEndian(f) == 1;
  for (U32 off = 0; p && off + 4 <= size;) {
    out.push_back(off);
    const U32 len = big ? (U32)p[off] << 24 | p[off + 1] << 16 | p[off + 2] << 8 | p[off + 3]
                        : (U32)p[off + 3] << 24 | p[off + 2] << 16 | p[off + 1] << 8 | p[off];
    off += 4 + len;
  }
  return out;
}

TEST(SourceLineFiles, TablesMatchDwarfdump) {
  for (const char* name : {"app-dwarf4-O2-be.elf", "newlib-dwarf5-O2-full.elf"}) {
    const std::string path = CorpusPath(name);
    const std::vector<U8> bytes = ReadFile(path);
    ELF_FILE* f = ELF_OpenMemory(bytes.data(), (U32)bytes.size(), false);
    ASSERT_NE(f, nullptr);
    // llvm-dwarfdump: per unit, the number and name of each file entry.
    std::map<U32, std::map<U32, std::string>> want;
    U32 unit = 0;
    int pending = -1;
    for (const std::string& l : SplitLines(RunTool("llvm-dwarfdump --debug-line " + path))) {
      if (l.rfind("debug_line[0x", 0) == 0) unit = (U32)strtoul(l.c_str() + 13, nullptr, 16);
      if (l.rfind("file_names[", 0) == 0) pending = atoi(l.c_str() + 11);
      const size_t q = l.find("name: \"");
      if (pending >= 0 && q != std::string::npos && l.find("dir_index") == std::string::npos) {
        want[unit][(U32)pending] = l.substr(q + 7, l.rfind('"') - q - 7);
        pending = -1;
      }
    }
    int v5 = 0, checked = 0;
    for (U32 off : UnitOffsets(f)) {
      const SRC_UNIT_FILES t = SRC_ReadUnitFiles(f, off, "/c");
      ASSERT_NE(t.version, 0) << std::hex << off;
      v5 += t.version == 5;
      ASSERT_EQ(t.paths.size(), want[off].size()) << name << std::hex << " " << off;
      for (auto& [n, file] : want[off]) {
        const std::string& p = t.PathOf(n);
        EXPECT_TRUE(p.size() > file.size() && p.compare(p.size() - file.size(), file.size(), file) == 0 && p[0] == '/')
            << name << " " << n << " " << p << " vs " << file;
        ++checked;
      }
      EXPECT_EQ(t.PathOf(t.FirstNumber() + (U32)t.paths.size()), "");
    }
    EXPECT_GT(checked, 10);
    if (std::string(name).find("dwarf5") != std::string::npos) EXPECT_GT(v5, 5);
    ELF_Close(f);
  }
}

TEST(SourceLineFiles, ChangedHeadersNeverCrash) {
  std::mt19937 rng(5);
  for (const char* name : {"app-dwarf4-O2-be.elf", "newlib-dwarf5-O2-full.elf"}) {
    std::vector<U8> bytes = ReadFile(CorpusPath(name));
    ELF_FILE* f0 = ELF_OpenMemory(bytes.data(), (U32)bytes.size(), false);
    ASSERT_NE(f0, nullptr);
    const int sec = ELF_FindSection(f0, ".debug_line");
    const U32 base = ELF_GetSectionOffset(f0, sec);
    const std::vector<U32> units = UnitOffsets(f0);
    ELF_Close(f0);
    for (int it = 0; it < 3000; ++it) {
      std::vector<U8> work = bytes;
      const U32 u = units[rng() % units.size()];
      for (int k = 1 + rng() % 4; k-- > 0;) work[base + u + rng() % 64] = (U8)rng();
      ELF_FILE* f = ELF_OpenMemory(work.data(), (U32)work.size(), false);
      ASSERT_NE(f, nullptr);
      size_t sink = 0;
      for (U32 off : units) {
        const SRC_UNIT_FILES t = SRC_ReadUnitFiles(f, off, "/c");
        for (U32 n = 0; n < 4; ++n) sink += t.PathOf(n).size();
      }
      EXPECT_LT(sink, work.size() * 4);
      ELF_Close(f);
    }
  }
}

} // namespace
