// The committed firmware corpus: paths of its files, and test names made from
// file names for tests parameterised over the corpus.
#pragma once
#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <string>

inline std::string CorpusPath(const std::string& name) {
  const char* src = getenv("TAVIT_SOURCE_DIR");
  return std::string(src ? src : ".") + "/firmware/corpus/" + name;
}

// "app-dwarf4-O2.elf" gives the test name "app_dwarf4_O2_elf".
inline std::string CorpusParamName(const ::testing::TestParamInfo<std::string>& info) {
  std::string s = info.param;
  for (char& c : s)
    if (!isalnum((unsigned char)c)) c = '_';
  return s;
}
