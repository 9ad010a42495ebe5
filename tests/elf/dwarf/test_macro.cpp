// Macro definitions against readelf --debug-dump=macro, for a build with
// .debug_macinfo and one with .debug_macro (whose units import shared
// definition units, read here through the imports).
#include "dwarf_test_util.h"
#include "testsupport/readelf_oracle.h"

#include <gtest/gtest.h>
#include <set>

namespace {

// A definition with an empty value keeps its separating blank in some
// records and not in others; both mean the same (name, empty value).
std::string Trim(std::string s) {
  while (!s.empty() && s.back() == ' ') s.pop_back();
  return s;
}

std::multiset<std::string> Ours(ELF_FILE* f) {
  std::multiset<std::string> s;
  for (int i = 0; i < ELF_GetNumMacros(f); ++i) {
    const ELF_MACRO* m = ELF_GetMacro(f, i);
    EXPECT_EQ(m->kind, 0);
    s.insert(Trim(std::to_string(m->line) + " " + m->text));
  }
  return s;
}

std::multiset<std::string> Theirs(const std::string& path) {
  std::multiset<std::string> s;
  for (const auto& [line, text] : readelf::MacroDefinitions(path)) s.insert(Trim(std::to_string(line) + " " + text));
  return s;
}

TEST(Macros, MacinfoEqualsReadelf) {
  const std::string path = CorpusPath("app-dwarf4-macinfo.elf");
  DebugFile df(path);
  ASSERT_NE(df.f, nullptr);
  auto ours = Ours(df.f), theirs = Theirs(path);
  ASSERT_GT(theirs.size(), 1000u);
  EXPECT_TRUE(ours == theirs) << ours.size() << " vs " << theirs.size();
}

TEST(Macros, DebugMacroWithImportsHasEveryDefinition) {
  const std::string path = CorpusPath("app-dwarf4-macro.elf");
  DebugFile df(path);
  ASSERT_NE(df.f, nullptr);
  auto ours = Ours(df.f), theirs = Theirs(path);
  ASSERT_GT(theirs.size(), 200u);
  // readelf lists each shared unit once, the reader once per unit that
  // imports it: the same definitions, repeated.
  std::set<std::string> a(ours.begin(), ours.end()), b(theirs.begin(), theirs.end());
  EXPECT_TRUE(a == b) << a.size() << " vs " << b.size();
  EXPECT_GE(ours.size(), theirs.size());
}

TEST(Macros, BothFormsGiveTheSameDefinitions) {
  DebugFile a(CorpusPath("app-dwarf4-macinfo.elf")), b(CorpusPath("app-dwarf4-macro.elf"));
  auto x = Ours(a.f), y = Ours(b.f);
  std::set<std::string> sx(x.begin(), x.end()), sy(y.begin(), y.end());
  EXPECT_TRUE(sx == sy) << sx.size() << " vs " << sy.size();
}

} // namespace
