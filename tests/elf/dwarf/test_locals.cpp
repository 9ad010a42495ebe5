// Locations of locals and parameters against gdb's "info scope", at a pc
// inside each range of a location list (or at the function's start for a
// single expression). A complex expression with operations beyond a place
// (arithmetic, constants, memory reads, entry values) must be kept as an
// expression to evaluate; DW_OP_implicit_pointer and the like are passed over.
#include "dwarf_test_util.h"
#include "elf/dwarf/location.h"

#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>

namespace {

U32 GdbReg(const std::string& r) {
  if (r == "sp") return 13;
  if (r == "lr") return 14;
  if (r == "pc") return 15;
  if (r[0] == 'r') return (U32)atoi(r.c_str() + 1);
  return 0xFFFFFFFF;
}

// Compares one description at pc; false with a message on a mismatch,
// *pCompared set when the description was one the reader takes.
bool Check(const std::string& desc, const ELF_SYM_LOC& l, bool* pCompared, std::string* pWhy) {
  std::smatch m;
  static const std::regex inReg(R"(a variable in \$(\w+)$)");
  static const std::regex fbOp(R"(^a complex DWARF expression:\s*0: DW_OP_fbreg (-?\d+)\s*$)");
  static const std::regex fbReg(R"(a variable at frame base reg \$\w+ offset 0\+(-?\d+))");
  static const std::regex stat(R"(static storage at address (0x[0-9a-f]+))");
  static const std::regex entry(R"(0: DW_OP_(GNU_)?entry_value\s+\d+: DW_OP_reg(\d+) \[\$\w+\]\s+\d+: DW_OP_stack_value\s*$)");
  *pCompared = true;
  const ELF_LOC_PART& p = l.parts[0];
  if (std::regex_search(desc, m, inReg)) {
    const U32 r = GdbReg(m[1]);
    if (r == 0xFFFFFFFF) {
      *pCompared = false;
      return true;
    }
    *pWhy = "register " + m[1].str();
    return l.count == 1 && p.kind == ELF_LOC_REG && p.reg == r;
  }
  if (std::regex_search(desc, m, fbOp) || std::regex_search(desc, m, fbReg)) {
    *pWhy = "frame base offset " + m[1].str();
    return l.count == 1 && p.kind == ELF_LOC_AT_BP && p.offset == std::stoi(m[1]);
  }
  if (std::regex_search(desc, m, stat)) {
    *pWhy = "static " + m[1].str();
    return l.count == 1 && p.kind == ELF_LOC_ADDR && p.address == (U32)std::stoul(m[1], nullptr, 16);
  }
  if (std::regex_search(desc, m, entry)) {
    *pWhy = "entry value of r" + m[2].str();
    return l.count == 1 && p.kind == ELF_LOC_EXPR;
  }
  static const std::regex computed(
      R"(^a complex DWARF expression:[\s\S]*DW_OP_(lit\d|const|plus\b|minus|mul|div|mod|and|or|xor|sh|neg|not|abs|deref|bra|skip|eq|ne|lt|gt|le|ge|dup|swap|over|rot|pick|drop))");
  if (std::regex_search(desc, m, computed)) {
    *pWhy = "an expression with DW_OP_" + m[1].str();
    for (U32 i = 0; i < l.count && i < 2; ++i)
      if (l.parts[i].kind == ELF_LOC_EXPR) return true;
    return false;
  }
  *pCompared = false;
  return true;
}

class LocalsVsGdb : public DebugCorpusTest {};

TEST_P(LocalsVsGdb, InfoScope) {
  std::map<std::string, int> nameCount;
  std::vector<ELF_SYM_HANDLE> fns;
  for (int i = 0; i < ELF_GetListCount(df.f, ELF_LIST_FUNCTIONS); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(df.f, ELF_LIST_FUNCTIONS, i);
    ++nameCount[ELF_GetName(h)];
    if (ELF_GetLocalCount(h) > 0 && ELF_GetRangeCount(h) > 0) fns.push_back(h);
  }
  std::vector<std::string> cmds;
  std::vector<ELF_SYM_HANDLE> asked;
  for (auto h : fns)
    if (nameCount[ELF_GetName(h)] == 1) {
      cmds.push_back(std::string("info scope ") + ELF_GetName(h));
      asked.push_back(h);
    }
  ASSERT_GT(asked.size(), 5u);
  auto lines = SplitLines(RunGdb(path, cmds));
  // Group the output: "Scope for F:" then "Symbol X is DESC..., length N."
  int fi = -1, compared = 0;
  std::string sym, desc;
  std::regex symRe(R"(^Symbol (\w+) is (.*)$)");
  auto finish = [&]() {
    if (sym.empty() || fi < 0) return;
    const ELF_SYM_HANDLE fn = asked[fi];
    ELF_SYM_HANDLE local = 0;
    int same = 0;
    for (int i = 0; i < ELF_GetLocalCount(fn); ++i)
      if (sym == ELF_GetName(ELF_GetLocal(fn, i))) {
        local = ELF_GetLocal(fn, i);
        ++same;
      }
    if (same != 1) return; // names of nested blocks can repeat
    const std::string body = desc.substr(0, desc.rfind(", length"));
    std::vector<std::pair<U32, std::string>> parts;
    if (body.rfind("multi-location:", 0) == 0) {
      std::regex rangeRe(R"(Range (0x[0-9a-f]+)-(0x[0-9a-f]+): )");
      auto it = std::sregex_iterator(body.begin(), body.end(), rangeRe);
      std::vector<std::pair<size_t, U32>> starts;
      std::set<U32> emptyAt;
      for (; it != std::sregex_iterator(); ++it) {
        starts.emplace_back(it->position() + it->length(), (U32)std::stoul((*it)[1], nullptr, 16));
        // An empty range [a, a) is the one address a for the reader, so an
        // entry that starts there reads through the empty one before it.
        if ((*it)[1] == (*it)[2]) emptyAt.insert(starts.back().second);
      }
      for (size_t i = 0; i < starts.size(); ++i) {
        const size_t end = i + 1 < starts.size() ? body.rfind("Range", starts[i + 1].first) : body.size();
        std::string d = body.substr(starts[i].first, end - starts[i].first);
        while (!d.empty() && isspace((unsigned char)d.back())) d.pop_back();
        if (!emptyAt.count(starts[i].second)) parts.emplace_back(starts[i].second, d);
      }
    } else {
      parts.emplace_back(ELF_GetStart(fn, 0), body);
    }
    for (auto& pd : parts) {
      bool cmp = false;
      std::string why;
      const ELF_SYM_LOC l = ELF_GetSymbolLocation(local, pd.first);
      const bool ok = Check(pd.second, l, &cmp, &why);
      EXPECT_TRUE(ok) << ELF_GetName(fn) << "." << sym << " at " << std::hex << pd.first << ": gdb " << why
                      << ", ours " << ELF_LocationToText(l) << " (kind " << std::dec << l.parts[0].kind << ")";
      compared += cmp;
    }
  };
  for (auto& l : lines) {
    std::smatch m;
    if (l.rfind("Scope for ", 0) == 0) {
      finish();
      sym.clear();
      ++fi;
      continue;
    }
    if (std::regex_match(l, m, symRe)) {
      finish();
      sym = m[1];
      desc = m[2];
      continue;
    }
    if (!sym.empty()) desc += "\n" + l;
  }
  finish();
  EXPECT_EQ(fi + 1, (int)asked.size());
  EXPECT_GT(compared, 10);
}

INSTANTIATE_TEST_SUITE_P(Corpus, LocalsVsGdb,
                         ::testing::Values("app-dwarf2-O0.elf", "app-dwarf2-O2.elf", "app-dwarf3-O2.elf",
                                           "app-dwarf4-O0.elf", "app-dwarf4-O2.elf", "app-dwarf4-O2-be.elf",
                                           "app-dwarf5-O0.elf", "app-dwarf5-O2.elf", "newlib-mixed-O2.elf"),
                         CorpusParamName);

} // namespace
