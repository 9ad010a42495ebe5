// The reader's answers against the cross tools run on the same files:
// gdb for global addresses, sizes and struct layouts, readelf for line rows,
// addr2line for the functions that hold an address.
#include "dwarf_test_util.h"
#include "testsupport/readelf_oracle.h"
#include "elf/dwarf/debug_dump.h"
#include "elf/dwarf/line_tables.h"

#include <QFileInfo>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>

namespace {

struct Global {
  std::string name;
  U32 addr;
  U32 size;
  bool functionStatic;
};

std::vector<Global> Globals(ELF_FILE* f) {
  std::vector<Global> v;
  std::map<std::string, int> count;
  for (int i = 0; i < ELF_GetListCount(f, ELF_LIST_GLOBALS); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(f, ELF_LIST_GLOBALS, i);
    U32 a = 0;
    if (!ELF_GetStaticAddress(h, &a)) continue;
    const std::string type = ELF_GetTypeName(h);
    v.push_back({ELF_GetName(h), a, ELF_GetSize(h), type.rfind("static ", 0) == 0});
    ++count[v.back().name];
  }
  // A name that several units define can't be asked for without a scope.
  std::vector<Global> unique;
  for (auto& g : v)
    if (count[g.name] == 1 && !g.functionStatic) unique.push_back(g);
  return unique;
}

class GlobalsVsGdb : public DebugCorpusTest {};

TEST_P(GlobalsVsGdb, AddressesAndSizes) {
  auto globals = Globals(df.f);
  ASSERT_GT(globals.size(), 20u);
  std::vector<std::string> cmds;
  for (auto& g : globals) cmds.insert(cmds.end(), {"info address " + g.name, "print sizeof(" + g.name + ")"});
  auto lines = SplitLines(RunGdb(path, cmds));
  std::regex addrRe(R"re(Symbol "([^"]+)" is static storage at address (0x[0-9a-f]+)\.)re");
  std::regex sizeRe(R"(^\$(\d+) = (\d+)$)");
  std::map<std::string, U32> gdbAddr;
  std::vector<U32> gdbSizes;
  for (auto& l : lines) {
    std::smatch m;
    if (std::regex_search(l, m, addrRe)) gdbAddr[m[1]] = (U32)strtoul(m[2].str().c_str(), nullptr, 16);
    else if (std::regex_match(l, m, sizeRe)) gdbSizes.push_back((U32)strtoul(m[2].str().c_str(), nullptr, 10));
  }
  ASSERT_EQ(gdbSizes.size(), globals.size()) << "gdb answered an unexpected number of sizes";
  for (size_t i = 0; i < globals.size(); ++i) {
    const auto& g = globals[i];
    ASSERT_TRUE(gdbAddr.count(g.name)) << g.name;
    EXPECT_EQ(gdbAddr[g.name], g.addr) << g.name;
    EXPECT_EQ(gdbSizes[i], g.size) << g.name;
  }
}

// Struct and union layouts against ptype/o. Bit positions: gdb counts from
// the first bit in memory order, the reader from bit 0 (the least
// significant) of the storage unit, so on a big-endian target the two
// differ by design: ours = unit bits - size - gdb's.
TEST_P(GlobalsVsGdb, StructLayouts) {
  struct Item {
    std::string query;
    ELF_SYM_HANDLE h;
  };
  std::vector<Item> items;
  std::set<std::string> seen;
  for (int i = 0; i < ELF_GetListCount(df.f, ELF_LIST_TYPES); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(df.f, ELF_LIST_TYPES, i);
    const U32 tag = ELF_GetTag(h);
    std::string q;
    ELF_SYM_HANDLE agg = h;
    if (tag == ELF_TAG_TYPEDEF) {
      agg = ELF_GetType(h, false);
      const U32 t = ELF_GetTag(agg);
      if ((t != ELF_TAG_STRUCT && t != ELF_TAG_UNION) || *ELF_GetName(agg)) continue;
      q = ELF_GetName(h);
    } else if ((tag == ELF_TAG_STRUCT || tag == ELF_TAG_UNION) && *ELF_GetName(h)) {
      q = std::string(tag == ELF_TAG_STRUCT ? "struct " : "union ") + ELF_GetName(h);
    } else {
      continue;
    }
    if (seen.insert(q).second) items.push_back({q, agg});
  }
  ASSERT_GT(items.size(), 5u);
  std::vector<std::string> cmds;
  for (auto& it : items) cmds.insert(cmds.end(), {"echo @@" + it.query + "\\n", "ptype/o " + it.query});
  auto lines = SplitLines(RunGdb(path, cmds));
  const bool be = ELF_GetEndian(df.f) == 1;
  // "/*      2: 0   |       4 */    unsigned int irq_mask : 12;" at the first level only.
  std::regex memberRe(R"(^/\*\s+(\d+)(?::\s*(\d+))?\s+\|\s+(\d+) \*/    (\S.*?)\s*(?::\s*(\d+))?(;|\{)$)");
  std::regex totalRe(R"(^ {31}/\* total size \(bytes\):\s+(\d+))");
  size_t idx = (size_t)-1;
  int member = 0, checked = 0;
  for (auto& l : lines) {
    if (l.rfind("@@", 0) == 0) {
      ++idx;
      member = 0;
      ASSERT_LT(idx, items.size());
      ASSERT_EQ(l.substr(2), items[idx].query);
      continue;
    }
    if (idx >= items.size()) continue;
    const ELF_SYM_HANDLE h = items[idx].h;
    std::smatch m;
    if (std::regex_search(l, m, totalRe)) {
      EXPECT_EQ((U32)std::stoul(m[1]), ELF_GetSize(h)) << items[idx].query;
      continue;
    }
    if (!std::regex_match(l, m, memberRe)) continue;
    // Members of the reader: only data members count.
    ELF_SYM_HANDLE mh = 0;
    int seenData = 0;
    for (int i = 0; i < ELF_GetMemberCount(h); ++i) {
      const ELF_SYM_HANDLE x = ELF_GetMember(h, i);
      if (ELF_GetTag(x) != ELF_TAG_MEMBER) continue;
      if (seenData++ == member) {
        mh = x;
        break;
      }
    }
    ++member;
    ASSERT_NE(mh, 0u) << items[idx].query << ": " << l;
    const U32 gdbByte = (U32)std::stoul(m[1]);
    const U32 gdbSize = (U32)std::stoul(m[3]);
    const std::string decl = m[4];
    if (m[6] == ";") {
      EXPECT_NE(decl.find(ELF_GetName(mh)), std::string::npos) << l;
    }
    if (m[5].matched) {
      const U32 bits = (U32)std::stoul(m[5]);
      const U32 gdbPos = gdbByte * 8 + (U32)std::stoul(m[2]);
      EXPECT_EQ(ELF_GetBitSize(mh), bits) << l;
      const U32 unitBits = gdbSize * 8;
      const U32 base = ELF_GetMemberOffset(mh) * 8;
      const U32 ours = ELF_GetBitOffset(mh);
      const U32 memoryOrder = be ? base + (unitBits - bits - ours) : base + ours;
      EXPECT_EQ(memoryOrder, gdbPos) << items[idx].query << ": " << l;
    } else {
      EXPECT_EQ(ELF_GetMemberOffset(mh), gdbByte) << items[idx].query << ": " << l;
      EXPECT_EQ(ELF_GetSize(mh), gdbSize) << items[idx].query << ": " << l;
    }
    ++checked;
  }
  EXPECT_EQ(idx + 1, items.size());
  EXPECT_GT(checked, 20);
}

INSTANTIATE_TEST_SUITE_P(Corpus, GlobalsVsGdb,
                         ::testing::Values("app-dwarf2-O0.elf", "app-dwarf3-O2.elf", "app-dwarf4-O0.elf",
                                           "app-dwarf4-O2-be.elf", "app-dwarf4-types.elf", "app-dwarf5-O0.elf",
                                           "app-dwarf5-O2.elf", "newlib-dwarf5-O2-full.elf", "app-dwarf5-forms.elf",
                                           "newlib-mixed-O2.elf"),
                         CorpusParamName);

// Every row readelf decodes is a row of the reader: same file name, line
// and address (end-of-sequence rows aside, which carry no line).
class LinesVsReadelf : public DebugCorpusTest {};

TEST_P(LinesVsReadelf, EveryDecodedRowIsRead) {
  std::multiset<std::string> ours;
  for (int i = 0; i < ELF_GetNumLineRows(df.f); ++i) {
    const ELF_LINE_ROW* r = ELF_GetLineRow(df.f, i);
    if (r->endSequence) continue;
    std::string p = ELF_GetLineRowPath(df.f, i);
    p = p.substr(p.find_last_of('/') + 1);
    char buf[64];
    snprintf(buf, sizeof buf, " %u 0x%x", r->line, r->address);
    ours.insert(p + buf);
  }
  int n = 0;
  std::multiset<std::string> theirs;
  for (const readelf::LineRow& r : readelf::DecodedLines(path)) {
    char buf[64];
    snprintf(buf, sizeof buf, " %u 0x%x", r.Line, r.Addr);
    theirs.insert(r.File + buf);
    ++n;
  }
  ASSERT_GT(n, 100);
  std::vector<std::string> missing;
  std::set_difference(theirs.begin(), theirs.end(), ours.begin(), ours.end(), std::back_inserter(missing));
  EXPECT_TRUE(missing.empty()) << missing.size() << " rows missing, first: " << missing.front();
  std::vector<std::string> extra;
  std::set_difference(ours.begin(), ours.end(), theirs.begin(), theirs.end(), std::back_inserter(extra));
  EXPECT_TRUE(extra.empty()) << extra.size() << " rows extra, first: " << extra.front();
}

// After the load clean-up, a decoded row is in the address map unless the
// rules leave it out: below the lowest function start, outside the address
// range of its file's units, or a line 0 that took its predecessor's line.
TEST_P(LinesVsReadelf, CleanedMapKeepsOrExplainsEveryRow) {
  CLineTables t;
  t.Build(df.f);
  std::set<std::pair<U32, std::string>> kept; // (address, "file line")
  for (auto& p : t.GetAddressMap())
    kept.insert({p.first, t.GetFileName(p.second.file).toStdString() + " " + std::to_string(p.second.line)});
  U32 lowestFn = 0xFFFFFFFF;
  for (int i = 0; i < ELF_GetNumSymbols(df.f); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetSymbolHandle(df.f, i);
    if (ELF_IsFunctionType(ELF_GetSymbolType(h)) && ELF_AlignAddress(ELF_GetSymbolValue(h)))
      lowestFn = std::min(lowestFn, ELF_AlignAddress(ELF_GetSymbolValue(h)));
  }
  int found = 0, below = 0, outside = 0, lineZero = 0;
  std::vector<std::string> unexplained;
  for (const readelf::LineRow& r : readelf::DecodedLines(path)) {
    const std::string& name = r.File;
    const U32 a = r.Addr;
    const std::string key = name + " " + std::to_string(r.Line);
    if (kept.count({a, key})) ++found;
    else if (a < lowestFn) ++below;
    else if (r.Line == 0) ++lineZero;
    else {
      bool out = false;
      for (const QString& p : t.GetSourceFiles())
        if (QFileInfo(p).fileName().toStdString() == name) {
          const CAddrRange r = t.GetFileRange(t.GetFileId(p));
          out |= !r.IsEmpty() && (a < r.start || a >= r.End());
        }
      if (out) ++outside;
      else unexplained.push_back(key + " " + std::to_string(a));
    }
  }
  EXPECT_GT(found, 100);
  EXPECT_TRUE(unexplained.empty()) << unexplained.size() << " rows, first: " << unexplained.front();
}

// The corpus with the file whose DWARF 5 unit uses the index forms.
std::vector<std::string> LineCorpus() {
  auto v = DebugCorpus();
  v.push_back("app-dwarf5-forms.elf");
  return v;
}

INSTANTIATE_TEST_SUITE_P(Corpus, LinesVsReadelf, ::testing::ValuesIn(LineCorpus()), CorpusParamName);

// The function at the start of each debug function, and the inline chain
// at sampled addresses inside it, as addr2line -f -i reports them.
class FunctionsVsAddr2line : public DebugCorpusTest {};

TEST_P(FunctionsVsAddr2line, NamesAtFunctionStarts) {
  std::vector<std::pair<U32, std::string>> starts;
  struct Odd {
    std::string name;
    U32 start, end;
  };
  std::vector<Odd> oddRanges;
  for (int i = 0; i < ELF_GetListCount(df.f, ELF_LIST_FUNCTIONS); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(df.f, ELF_LIST_FUNCTIONS, i);
    auto rs = ELF_GetRanges(h);
    if (rs.empty() || rs[0].start == 0xFFFFFFFFu || rs[0].end <= rs[0].start) continue;
    starts.emplace_back(rs[0].start, ELF_GetName(h));
    if (rs[0].start & 1) oddRanges.push_back({ELF_GetName(h), rs[0].start, rs[0].end});
  }
  ASSERT_GT(starts.size(), 20u);
  std::string cmd = "arm-none-eabi-addr2line -a -f -i -p -e " + path;
  for (auto& s : starts) {
    char buf[16];
    snprintf(buf, sizeof buf, " 0x%x", s.first);
    cmd += buf;
  }
  // One group per address: the innermost function first, then
  // " (inlined by) ..." lines outwards; the last one is the function itself.
  std::vector<std::string> outer;
  for (auto& l : SplitLines(RunTool(cmd))) {
    const bool inl = l.rfind(" (inlined by) ", 0) == 0;
    std::string name = inl ? l.substr(14) : l.substr(std::min(l.size(), l.find(": ") + 2));
    name = name.substr(0, name.find(" at "));
    if (inl && !outer.empty()) outer.back() = name;
    else if (!inl && !l.empty()) outer.push_back(name);
  }
  ASSERT_EQ(outer.size(), starts.size());
  // Several functions can start at one address (the weak aliases of the
  // vector table): then addr2line names one of them.
  std::multimap<U32, std::string> byAddr;
  for (auto& s : starts) byAddr.emplace(s.first, s.second);
  for (size_t i = 0; i < starts.size(); ++i) {
    bool ok = false;
    auto range = byAddr.equal_range(starts[i].first);
    for (auto it = range.first; it != range.second; ++it) ok |= it->second == outer[i];
    // Assembler functions carry the Thumb bit in their low_pc, so their
    // range reaches one byte into the next function; addr2line then names
    // the assembler function for the first byte of its neighbour.
    for (auto& o : oddRanges)
      ok |= o.name == outer[i] && starts[i].first >= o.start && starts[i].first < o.end;
    EXPECT_TRUE(ok) << std::hex << starts[i].first << " " << outer[i] << " vs " << starts[i].second;
  }
}

TEST_P(FunctionsVsAddr2line, InlineChains) {
  // For each inlined instance range, its start: addr2line -i lists the
  // inlined function first, then its callers outwards.
  struct Sample {
    U32 addr;
    std::string inner;
  };
  std::vector<Sample> samples;
  for (int i = 0; i < ELF_GetListCount(df.f, ELF_LIST_INLINED); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(df.f, ELF_LIST_INLINED, i);
    for (const ELF_RANGE& r : ELF_GetRanges(h)) {
      if (r.end <= r.start) continue;
      // Innermost instance at this address: one with no inlined child there.
      samples.push_back({r.start, ELF_GetName(h)});
    }
  }
  if (samples.empty()) GTEST_SKIP() << "no inlined instances";
  std::string cmd = "arm-none-eabi-addr2line -f -i -e " + path;
  for (auto& s : samples) {
    char buf[16];
    snprintf(buf, sizeof buf, " 0x%x", s.addr);
    cmd += buf;
  }
  // The chain of each address ends in a non-inlined function; split on the
  // printed names and check that our instance's name is in its chain.
  auto lines = SplitLines(RunTool(cmd));
  std::vector<std::string> names;
  for (size_t i = 0; i < lines.size(); i += 2) names.push_back(lines[i]);
  size_t found = 0;
  for (auto& s : samples)
    if (std::find(names.begin(), names.end(), s.inner) != names.end()) ++found;
  EXPECT_EQ(found, samples.size());
}

INSTANTIATE_TEST_SUITE_P(Corpus, FunctionsVsAddr2line,
                         ::testing::Values("app-dwarf2-O2.elf", "app-dwarf4-O0.elf", "app-dwarf4-O2.elf",
                                           "app-dwarf4-O2-be.elf", "app-dwarf5-O0.elf", "app-dwarf5-O2.elf",
                                           "newlib-dwarf5-O2-full.elf", "app-dwarf5-forms.elf"),
                         CorpusParamName);

} // namespace
