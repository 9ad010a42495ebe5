// The DWARF 5 index forms of app-dwarf5-forms.elf (hand-written unit
// src/dwarf5_forms.s: strx1..4/strx, addrx, DW_OP_addrx, rnglistx, loclistx,
// implicit_const, data16, line_strp, a type unit in .debug_info named by
// ref_sig8) read through the reader, against gdb and readelf on the same file.
#include "dwarf_test_util.h"
#include "testsupport/readelf_oracle.h"
#include "elf/dwarf/location.h"
#include "elf/elf_file.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <map>
#include <regex>

namespace {

const char* kFile = "app-dwarf5-forms.elf";

std::string Gdb(const std::vector<std::string>& commands) { return RunGdb(CorpusPath(kFile), commands); }

// Symbol table entry (value without the Thumb bit, size) from readelf.
std::pair<U32, U32> ElfSymbol(const std::string& name) {
  for (const readelf::Symbol& s : readelf::Symbols(CorpusPath(kFile)))
    if (s.Name == name) return {s.Value & ~1u, s.Size};
  return {0, 0};
}

// readelf's entries of the unit of src/dwarf5_forms.c.
std::vector<readelf::Die> FormsUnit() {
  for (const readelf::Unit& u : readelf::DebugInfo(CorpusPath(kFile))) {
    const readelf::Attr* name = u.Dies.empty() ? nullptr : u.Dies.front().Find("DW_AT_name");
    if (name && name->Text() == "src/dwarf5_forms.c") return u.Dies;
  }
  return {};
}

TEST(Dwarf5Forms, NamesAddressesAndTypesAgainstGdb) {
  DebugFile df(CorpusPath(kFile));
  ASSERT_NE(df.f, nullptr);
  // Names through strx (forms_counter), strx4 (forms_pair), strx3 (forms_key),
  // strx1 (functions); the unit's name through line_strp.
  const ELF_SYM_HANDLE counter = ELF_FindName(df.f, "forms_counter");
  const ELF_SYM_HANDLE pair = ELF_FindName(df.f, "forms_pair");
  const ELF_SYM_HANDLE key = ELF_FindName(df.f, "forms_key");
  ASSERT_NE(counter, 0u);
  ASSERT_NE(pair, 0u);
  ASSERT_NE(key, 0u);
  for (const char* fn : {"forms_fail", "forms_scale", "forms_check"}) {
    const ELF_SYM_HANDLE h = ELF_FindName(df.f, fn);
    ASSERT_NE(h, 0u) << fn;
    EXPECT_EQ(ELF_GetTag(h), (U32)ELF_TAG_SUBPROGRAM) << fn;
  }
  EXPECT_STREQ(ELF_GetName(ELF_GetUnitRoot(counter)), "src/dwarf5_forms.c");

  const std::string out = Gdb({"info address forms_counter", "info address forms_pair", "print sizeof(forms_pair)",
                               "print (int)&((struct forms_pair *)0)->tag", "print/x forms_key",
                               "print sizeof(forms_key)"});
  std::smatch m;
  std::map<std::string, U32> gdbAddr;
  std::regex addrRe(R"re(Symbol "(\w+)" is static storage at address (0x[0-9a-f]+)\.)re");
  for (auto& l : SplitLines(out))
    if (std::regex_search(l, m, addrRe)) gdbAddr[m[1]] = (U32)strtoul(m[2].str().c_str(), nullptr, 16);
  ASSERT_EQ(gdbAddr.size(), 2u) << out;
  U32 a = 0;
  EXPECT_TRUE(ELF_GetStaticAddress(counter, &a)) << "DW_OP_addrx";
  EXPECT_EQ(a, gdbAddr["forms_counter"]);
  EXPECT_TRUE(ELF_GetStaticAddress(pair, &a));
  EXPECT_EQ(a, gdbAddr["forms_pair"]);
  const ELF_SYM_LOC loc = ELF_GetSymbolLocation(counter, 0);
  EXPECT_EQ(loc.parts[0].kind, (U32)ELF_LOC_ADDR) << "DW_OP_addrx";
  EXPECT_EQ(loc.parts[0].address, gdbAddr["forms_counter"]) << "DW_OP_addrx";
  EXPECT_EQ(ELF_GetSize(counter), 4u) << "byte size by implicit_const";

  // The type of forms_pair lies in the type unit that ref_sig8 names.
  std::vector<U32> gdbValues;
  std::regex valRe(R"(^\$\d+ = (\d+)$)");
  for (auto& l : SplitLines(out))
    if (std::regex_match(l, m, valRe)) gdbValues.push_back((U32)std::stoul(m[1]));
  ASSERT_EQ(gdbValues.size(), 3u) << out;
  EXPECT_STREQ(ELF_GetTypeName(pair), "struct forms_pair");
  EXPECT_EQ(ELF_GetSize(pair), gdbValues[0]);
  const ELF_SYM_HANDLE st = ELF_GetType(pair, false);
  ASSERT_NE(st, 0u);
  ASSERT_EQ(ELF_GetMemberCount(st), 2);
  EXPECT_STREQ(ELF_GetName(ELF_GetMember(st, 1)), "tag");
  EXPECT_EQ(ELF_GetMemberOffset(ELF_GetMember(st, 1)), gdbValues[1]);

  // DW_AT_const_value in DW_FORM_data16: the four words gdb prints.
  std::regex keyRe(R"(^\$\d+ = \{(0x[0-9a-f]+), (0x[0-9a-f]+), (0x[0-9a-f]+), (0x[0-9a-f]+)\}$)");
  std::vector<U8> want;
  for (auto& l : SplitLines(out))
    if (std::regex_match(l, m, keyRe))
      for (int i = 1; i <= 4; ++i) {
        const U32 w = (U32)strtoul(m[i].str().c_str(), nullptr, 16);
        for (int b = 0; b < 4; ++b) want.push_back((U8)(w >> (8 * b)));
      }
  ASSERT_EQ(want.size(), 16u) << out;
  std::vector<U8> bytes;
  EXPECT_TRUE(ELF_GetConstBlock(key, bytes));
  EXPECT_EQ(bytes, want);
  EXPECT_EQ(ELF_GetArrayInfo(ELF_GetType(key, false)).total, gdbValues[2]);
}

// forms_key names itself by strx3 and stands before the unit's other
// variables and functions: stepping over it must not lose the rest of the
// unit. The entries of the unit in tree order against readelf's dump.
void Walk(ELF_SYM_HANDLE h, int* pCount, std::vector<std::string>* pNames) {
  for (; h; h = ELF_GetNextSibling(h)) {
    ++*pCount;
    if (*ELF_GetName(h)) pNames->push_back(ELF_GetName(h));
    Walk(ELF_GetFirstChild(h), pCount, pNames);
  }
}

TEST(Dwarf5Forms, EveryEntryAfterStrx3Entry) {
  DebugFile df(CorpusPath(kFile));
  ASSERT_NE(df.f, nullptr);
  const std::vector<readelf::Die> unit = FormsUnit();
  ASSERT_FALSE(unit.empty());
  const int want = (int)unit.size();
  std::vector<std::string> wantNames;
  for (const readelf::Die& d : unit)
    if (const readelf::Attr* a = d.Find("DW_AT_name")) wantNames.push_back(a->Text());
  const auto key = std::find(wantNames.begin(), wantNames.end(), "forms_key");
  ASSERT_GE(wantNames.end() - key, 6) << "forms_key must precede most of the unit";
  const ELF_SYM_HANDLE h = ELF_FindName(df.f, "forms_key");
  ASSERT_NE(h, 0u);
  int count = 0;
  std::vector<std::string> names;
  Walk(ELF_GetUnitRoot(h), &count, &names);
  EXPECT_EQ(count, want);
  // From forms_key on: before it the reader shortens base type names.
  const auto from = std::find(names.begin(), names.end(), "forms_key");
  EXPECT_EQ(std::vector<std::string>(from, names.end()), std::vector<std::string>(key, wantNames.end()));
}

TEST(Dwarf5Forms, RangesByIndexAgainstSymbolTable) {
  DebugFile df(CorpusPath(kFile));
  ASSERT_NE(df.f, nullptr);
  // low_pc by addrx with a high_pc length: the symbol's extent.
  for (const char* fn : {"forms_fail", "forms_scale"}) {
    const auto sym = ElfSymbol(fn);
    ASSERT_NE(sym.first, 0u) << fn;
    const auto rs = ELF_GetRanges(ELF_FindName(df.f, fn));
    ASSERT_EQ(rs.size(), 1u) << fn;
    EXPECT_EQ(rs[0].start, sym.first) << fn;
    EXPECT_EQ(rs[0].end, sym.first + sym.second) << fn;
  }
  // forms_check through rnglistx: its hot part and forms_check.cold.
  const auto hot = ElfSymbol("forms_check"), cold = ElfSymbol("forms_check.cold");
  ASSERT_NE(cold.first, 0u);
  const ELF_SYM_HANDLE check = ELF_FindName(df.f, "forms_check");
  const auto rs = ELF_GetRanges(check);
  ASSERT_EQ(rs.size(), 2u);
  EXPECT_EQ(rs[0].start, hot.first);
  EXPECT_EQ(rs[0].end, hot.first + hot.second);
  EXPECT_EQ(rs[1].start, cold.first);
  EXPECT_EQ(rs[1].end, cold.first + cold.second);
  EXPECT_EQ(ELF_GetSize(check), cold.first + cold.second - hot.first);
  // The unit: low_pc by addrx, as readelf resolves it.
  U32 low = 0;
  const std::vector<readelf::Die> unit = FormsUnit();
  ASSERT_FALSE(unit.empty());
  for (const readelf::Die& d : unit)
    if (const readelf::Attr* a = d.Find("DW_AT_low_pc"); a && !low && a->Value.rfind("(index: 0): ", 0) == 0)
      low = a->Number();
  ASSERT_NE(low, 0u);
  EXPECT_EQ(ELF_GetStart(ELF_GetUnitRoot(check), 0), low);
}

// gdb's "info scope" per function: the ranges and register of each
// location list entry (loclistx through the offset table).
struct GdbRange {
  U32 lo, hi, reg;
};
std::map<std::string, std::vector<GdbRange>> GdbScope(const std::string& fn) {
  std::map<std::string, std::vector<GdbRange>> v;
  std::regex symRe(R"(^Symbol (\w+) is (multi-location:|a variable in \$r(\d+)))");
  std::regex rangeRe(R"(Range (0x[0-9a-f]+)-(0x[0-9a-f]+): a variable in \$r(\d+))");
  std::string cur;
  for (auto& l : SplitLines(Gdb({"info scope " + fn}))) {
    std::smatch m;
    if (std::regex_search(l, m, symRe)) {
      cur = m[1];
      if (m[3].matched) v[cur].push_back({0, ~0u, (U32)std::stoul(m[3])});
      else v[cur];
    } else if (std::regex_search(l, m, rangeRe) && !cur.empty()) {
      v[cur].push_back({(U32)strtoul(m[1].str().c_str(), nullptr, 16), (U32)strtoul(m[2].str().c_str(), nullptr, 16),
                        (U32)std::stoul(m[3])});
    }
  }
  return v;
}

TEST(Dwarf5Forms, LocationListsByIndexAgainstGdb) {
  DebugFile df(CorpusPath(kFile));
  ASSERT_NE(df.f, nullptr);
  int checked = 0;
  for (const char* fn : {"forms_fail", "forms_scale", "forms_check"}) {
    const ELF_SYM_HANDLE f = ELF_FindName(df.f, fn);
    ASSERT_NE(f, 0u);
    auto scope = GdbScope(fn);
    ASSERT_EQ((int)scope.size(), ELF_GetLocalCount(f)) << fn;
    const U32 lo = ELF_GetStart(f, 0), hi = lo + ELF_GetSize(f);
    for (int i = 0; i < ELF_GetLocalCount(f); ++i) {
      const ELF_SYM_HANDLE v = ELF_GetLocal(f, i);
      const std::string name = ELF_GetName(v);
      ASSERT_TRUE(scope.count(name)) << fn << " " << name;
      const auto& ranges = scope[name];
      ASSERT_FALSE(ranges.empty()) << name;
      if (ranges[0].hi != ~0u) {
        std::vector<std::pair<U32, U32>> want;
        for (auto& r : ranges) want.emplace_back(r.lo, r.hi);
        EXPECT_EQ(ELF_GetLocationRanges(v, 2 /* DW_AT_location */), want) << name;
      }
      // Every halfword of the function: the register gdb names, or nothing.
      for (U32 pc = lo; pc < hi; pc += 2) {
        const GdbRange* in = nullptr;
        for (auto& r : ranges)
          if (pc >= r.lo && pc < r.hi) in = &r;
        const ELF_SYM_LOC loc = ELF_GetSymbolLocation(v, pc);
        if (in) {
          ASSERT_EQ(loc.count, 1u) << name << " at " << std::hex << pc;
          EXPECT_EQ(loc.parts[0].kind, (U32)ELF_LOC_REG) << name << " at " << std::hex << pc;
          EXPECT_EQ(loc.parts[0].reg, in->reg) << name << " at " << std::hex << pc;
          ++checked;
        } else {
          EXPECT_FALSE(loc.count && loc.parts[0].kind == ELF_LOC_REG) << name << " at " << std::hex << pc;
        }
      }
    }
  }
  EXPECT_GT(checked, 20);
}

} // namespace
