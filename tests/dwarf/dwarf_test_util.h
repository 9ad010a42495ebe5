// Helpers of the debug-information tests: corpus paths, running the oracle
// tools, opening a file with the reader installed.
#pragma once
#include "elf/dwarf/debuginfo.h"
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <vector>

inline std::string CorpusPath(const std::string& name) {
  const char* src = getenv("TAVIT_SOURCE_DIR");
  return std::string(src ? src : ".") + "/firmware/corpus/" + name;
}

inline std::string RunTool(const std::string& cmd) {
  std::string out;
  FILE* p = popen((cmd + " 2>&1").c_str(), "r");
  if (!p) return out;
  char buf[8192];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) out.append(buf, n);
  pclose(p);
  return out;
}

inline std::vector<std::string> SplitLines(const std::string& s) {
  std::vector<std::string> v;
  size_t a = 0;
  while (a < s.size()) {
    size_t b = s.find('\n', a);
    if (b == std::string::npos) b = s.size();
    v.push_back(s.substr(a, b - a));
    a = b + 1;
  }
  return v;
}

// Opens a corpus file with the debug reader; closes it on destruction.
struct DebugFile {
  ELF_FILE* f = nullptr;
  explicit DebugFile(const std::string& path) {
    DWARF_Install();
    f = ELF_Open(path.c_str(), true);
  }
  ~DebugFile() {
    if (f) ELF_Close(f); // frees the debug information through the closer hook
  }
  DebugFile(const DebugFile&) = delete;
  DebugFile& operator=(const DebugFile&) = delete;
};

// The files with debug information of our own units.
inline std::vector<std::string> DebugCorpus() {
  return {"app-dwarf2-O0.elf",    "app-dwarf2-O2.elf",     "app-dwarf3-O0.elf",        "app-dwarf3-O2.elf",
          "app-dwarf4-O0.elf",    "app-dwarf4-O2.elf",     "app-dwarf4-O0-be.elf",     "app-dwarf4-O2-be.elf",
          "app-dwarf4-types.elf", "app-dwarf4-macinfo.elf", "app-dwarf4-macro.elf",    "app-dwarf4-hdrseg.elf",
          "app-dwarf5-O0.elf",    "app-dwarf5-O2.elf",     "newlib-dwarf4-O2.elf",     "newlib-dwarf5-O2.elf",
          "newlib-dwarf5-O2-full.elf", "newlib-mixed-O2.elf"};
}
