// Call frame rules against readelf --debug-dump=frames-interp, row by row,
// and the text forms of locations.
#include "dwarf_test_util.h"
#include "testsupport/readelf_oracle.h"
#include "elf/dwarf/location.h"

#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <string.h>

namespace {

// readelf's spelling of one of our rules for a register column.
bool SameRule(const std::string& theirs, const ELF_SYM_LOC& ours, U32 col) {
  const ELF_LOC_PART& p = ours.parts[0];
  if (ours.count != 1) return false;
  if (theirs == "s") return p.kind == ELF_LOC_REG && p.reg == col;
  // readelf shows "u" both for DW_CFA_undefined and for a column without a
  // rule yet; the reader's initial rule for every column is "same value".
  if (theirs == "u")
    return p.kind == ELF_LOC_REG && (p.reg == col || p.reg == ELF_REG_UNDEFINED);
  // Column 0 reads like a CFA rule (kind 5 on the CFA column) by the
  // reader's rule, which takes column 0 for the CFA's own row.
  if (theirs[0] == 'c' && col == 0)
    return p.kind == ELF_LOC_REG_VALUE && p.reg == 1436 && p.offset == atoi(theirs.c_str() + 1);
  if (theirs[0] == 'c') return p.kind == ELF_LOC_AT_CFA && p.offset == atoi(theirs.c_str() + 1);
  if (theirs[0] == 'v') return p.kind == ELF_LOC_CFA_VALUE && p.offset == atoi(theirs.c_str() + 1);
  if (theirs[0] == 'r') return p.kind == ELF_LOC_REG && p.reg == (U32)atoi(theirs.c_str() + 1);
  return false;
}

bool SameCfa(const std::string& theirs, const ELF_SYM_LOC& ours) {
  std::smatch m;
  static const std::regex re(R"(^r(\d+)([+-]\d+)$)");
  if (!std::regex_match(theirs, m, re) || ours.count != 1) return false;
  const ELF_LOC_PART& p = ours.parts[0];
  return p.kind == ELF_LOC_REG_VALUE && p.reg == (U32)std::stoul(m[1]) && p.offset == std::stoi(m[2]);
}

class CfaVsReadelf : public DebugCorpusTest {};

TEST_P(CfaVsReadelf, RowByRow) {
  const int ra = ELF_GetReturnAddressColumn(df.f);
  EXPECT_EQ(ra, 14);
  std::string cieCfa;
  int fdes = 0, rows = 0;
  std::vector<std::pair<U32, U32>> fdeRanges;
  for (const readelf::CfiTable& d : readelf::FrameTables(path)) {
    if (d.Cie) {
      if (!d.Rows.empty()) cieCfa = d.Rows.back().Cfa;
      continue;
    }
    ++fdes;
    fdeRanges.emplace_back(d.Start, d.End);
    // A description without instructions keeps the CIE's rule.
    if (d.Rows.empty() && !cieCfa.empty())
      EXPECT_TRUE(SameCfa(cieCfa, ELF_GetCfaRule(df.f, d.Start))) << std::hex << d.Start;
    for (const readelf::CfiRow& r : d.Rows) {
      // An advance to the very end of a description makes readelf print a
      // row for an address the description doesn't hold: no rules there.
      if (r.Loc >= d.End) continue;
      ELF_SYM_LOCS ours;
      ASSERT_GT(ELF_GetRegisterRules(df.f, r.Loc, 320, ours), 13) << std::hex << r.Loc;
      EXPECT_TRUE(SameCfa(r.Cfa, ours[13])) << std::hex << r.Loc << " CFA " << r.Cfa << " vs "
                                            << ELF_LocationToText(ours[13]);
      EXPECT_TRUE(SameCfa(r.Cfa, ELF_GetCfaRule(df.f, r.Loc))) << std::hex << r.Loc;
      for (size_t i = 0; i < d.Columns.size() && i < r.Rules.size(); ++i) {
        const U32 col = d.Columns[i] == "ra" ? (U32)ra : (U32)atoi(d.Columns[i].c_str() + 1);
        ASSERT_LT(col, ours.size());
        EXPECT_TRUE(SameRule(r.Rules[i], ours[col], col))
            << std::hex << r.Loc << " " << d.Columns[i] << ": " << r.Rules[i] << " vs " << ELF_LocationToText(ours[col]);
      }
      ++rows;
    }
  }
  EXPECT_GT(fdes, 10);
  EXPECT_GT(rows, 10);
  // The same descriptions with the same ranges.
  ASSERT_EQ(ELF_GetNumFrameDescriptions(df.f), fdes);
  for (int i = 0; i < fdes; ++i) {
    U32 lo, hi;
    ASSERT_TRUE(ELF_GetFrameDescriptionRange(df.f, i, &lo, &hi));
    EXPECT_EQ(lo, fdeRanges[i].first);
    EXPECT_EQ(hi, fdeRanges[i].second);
  }
  // No description outside the code: no rules.
  ELF_SYM_LOCS none;
  EXPECT_EQ(ELF_GetRegisterRules(df.f, 0x20000000, 16, none), 0);
  EXPECT_EQ(ELF_GetCfaRule(df.f, 0x20000000).count, 0u);
}

INSTANTIATE_TEST_SUITE_P(Corpus, CfaVsReadelf,
                         ::testing::Values("app-dwarf2-O0.elf", "app-dwarf2-O2.elf", "app-dwarf3-O2.elf",
                                           "app-dwarf4-O0.elf", "app-dwarf4-O2.elf", "app-dwarf4-O2-be.elf",
                                           "app-dwarf5-O2.elf", "newlib-dwarf5-O2-full.elf", "newlib-mixed-O2.elf"),
                         CorpusParamName);

ELF_SYM_LOC Part(U32 kind, I32 offset, U32 reg = 0, U32 addr = 0) {
  ELF_SYM_LOC l;
  memset(&l, 0, sizeof l);
  l.count = 1;
  l.parts[0].kind = kind;
  l.parts[0].offset = offset;
  l.parts[0].reg = reg;
  l.parts[0].address = addr;
  return l;
}

TEST(LocationText, FormsWithAndWithoutOffset) {
  ELF_SYM_LOC empty;
  memset(&empty, 0, sizeof empty);
  EXPECT_STREQ(ELF_LocationToText(empty), "N/A");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_ADDR, 0, 0, 0x20000010)), "[20000010]");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_ADDR_OFFSET, 4, 0, 0x20000010)), "[20000010] + 4");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_REG, 0, 3)), "R3");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_REG, 0, ELF_REG_UNDEFINED)), "<undefined>");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_REG, 0, ELF_REG_SAME)), "same as caller");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_REG_VALUE, -8, 7)), "R7 - 8");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_AT_REG, 0, 7)), "[R7]");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_AT_REG, 12, 7)), "[R7] + 12");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_AT_BP, -20)), "[BP - 20]");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_CFA_VALUE, 0)), "CFA");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_AT_CFA, -4)), "[CFA - 4]");
  EXPECT_STREQ(ELF_LocationToText(Part(ELF_LOC_PARENT_LOC, 2)), "Parent loc + 2");
  EXPECT_STREQ(ELF_LocationToText(Part(99, 0)), "N/A");
}

TEST(LocationText, RuleToLocation) {
  // Saved at CFA + offset for an ordinary column, the CFA rule for SP.
  ELF_SYM_LOC l = ELF_RuleToLocation(0, true, 4, 1436, -8);
  EXPECT_EQ(l.parts[0].kind, (U32)ELF_LOC_AT_CFA);
  EXPECT_EQ(l.parts[0].offset, -8);
  l = ELF_RuleToLocation(0, true, 13, 13, 16);
  EXPECT_EQ(l.parts[0].kind, (U32)ELF_LOC_REG_VALUE);
  EXPECT_EQ(l.parts[0].reg, 13u);
  l = ELF_RuleToLocation(0, false, 5, ELF_REG_SAME, 0);
  EXPECT_EQ(l.parts[0].kind, (U32)ELF_LOC_REG);
  EXPECT_EQ(l.parts[0].reg, 5u);
  l = ELF_RuleToLocation(1, true, 5, 0, 12);
  EXPECT_EQ(l.parts[0].kind, (U32)ELF_LOC_CFA_VALUE);
  EXPECT_EQ(ELF_RuleToLocation(2, false, 5, 0, 3).count, 0u); // expressions aren't supported
  EXPECT_TRUE(ELF_IsMemoryLocation(Part(ELF_LOC_AT_CFA, -4)));
  EXPECT_FALSE(ELF_IsMemoryLocation(Part(ELF_LOC_REG, 0, 4)));
  ELF_SYM_LOC mixed = Part(ELF_LOC_REG, 0, 4);
  mixed.count = 2;
  mixed.parts[1].kind = ELF_LOC_ADDR;
  EXPECT_TRUE(ELF_IsMixedLocation(mixed));
}

} // namespace
