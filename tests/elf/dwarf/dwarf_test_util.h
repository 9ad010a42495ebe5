// Helpers of the debug-information tests: corpus paths, running the oracle
// tools, opening a file with the reader installed.
#pragma once
#include "testsupport/corpus.h"
#include "testsupport/tools.h"
#include "elf/dwarf/debuginfo.h"
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <vector>

inline std::string RunTool(const std::string& cmd) { return RunToolOutput(cmd + " 2>&1"); }

// Opens a corpus file with the debug reader; closes it on destruction.
struct DebugFile {
  ELF_FILE* f = nullptr;
  DebugFile() = default;
  explicit DebugFile(const std::string& path) { Open(path); }
  void Open(const std::string& path) {
    DWARF_Install();
    f = ELF_Open(path.c_str(), true);
  }
  ~DebugFile() {
    if (f) ELF_Close(f); // frees the debug information through the closer hook
  }
  DebugFile(const DebugFile&) = delete;
  DebugFile& operator=(const DebugFile&) = delete;
};

// A test over corpus files: each one opened with the debug reader.
class DebugCorpusTest : public ::testing::TestWithParam<std::string> {
 protected:
  void SetUp() override {
    path = CorpusPath(GetParam());
    df.Open(path);
    ASSERT_NE(df.f, nullptr) << path;
  }
  std::string path;
  DebugFile df;
};

// The files with debug information of our own units.
inline std::vector<std::string> DebugCorpus() {
  return {"app-dwarf2-O0.elf",    "app-dwarf2-O2.elf",     "app-dwarf3-O0.elf",        "app-dwarf3-O2.elf",
          "app-dwarf4-O0.elf",    "app-dwarf4-O2.elf",     "app-dwarf4-O0-be.elf",     "app-dwarf4-O2-be.elf",
          "app-dwarf4-types.elf", "app-dwarf4-macinfo.elf", "app-dwarf4-macro.elf",    "app-dwarf4-hdrseg.elf",
          "app-dwarf5-O0.elf",    "app-dwarf5-O2.elf",     "newlib-dwarf4-O2.elf",     "newlib-dwarf5-O2.elf",
          "newlib-dwarf5-O2-full.elf", "newlib-mixed-O2.elf"};
}
