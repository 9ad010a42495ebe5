// The address mapping tables against addr2line at sampled addresses: the
// source line of an address (also inside a statement) and the function that
// holds it; and the table rules on the reference build.
#include "dwarf_test_util.h"
#include "elf/dwarf/line_tables.h"
#include "elf/dwarf/source_queries.h"

#include <QFileInfo>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>

namespace {

class LinesVsAddr2line : public DebugCorpusTest {};

TEST_P(LinesVsAddr2line, SourceLineAndFunctionAtAddress) {
  CLineTables t;
  t.Build(df.f);
  const auto& addrs = t.GetProgramAddresses();
  ASSERT_GT(addrs.size(), 100u);
  // Row addresses and addresses a little behind them.
  std::mt19937 rng(11);
  std::vector<U32> sample;
  // Addresses past a function's end (padding) read as the next row for
  // addr2line, but as no function and no line for the tables: the samples
  // inside statements are taken only where an ELF function symbol holds them.
  for (size_t i = 0; i < addrs.size(); i += 1 + rng() % 4) {
    sample.push_back(addrs[i]);
    ELF_SYM_HANDLE fs[4];
    if (i + 1 < addrs.size() && addrs[i + 1] - addrs[i] > 2 &&
        ELF_GetFunctionSymbols(df.f, addrs[i] + 2, true, fs, 4) > 0)
      sample.push_back(addrs[i] + 2);
  }
  // Assembler functions carry the Thumb bit in low_pc, so for addr2line
  // their range reaches one byte into the next function.
  struct Odd {
    std::string name;
    U32 end;
  };
  std::vector<Odd> odd;
  for (int i = 0; i < ELF_GetListCount(df.f, ELF_LIST_FUNCTIONS); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(df.f, ELF_LIST_FUNCTIONS, i);
    for (const ELF_RANGE& r : ELF_GetRanges(h))
      if (r.start != 0xFFFFFFFF && (r.start & 1)) odd.push_back({ELF_GetName(h), r.end & ~1u});
  }
  // The start of an inlined instance that has no line row of its own gets
  // the instance's call location (the line of the call, where addr2line
  // reads the line table's row before it): such addresses, and those behind
  // them, are checked against the call location instead.
  std::set<U32> rowAddrs;
  for (int i = 0; i < ELF_GetNumLineRows(df.f); ++i) rowAddrs.insert(ELF_GetLineRow(df.f, i)->address);
  std::map<U32, CSrcLoc> callAt;
  for (int i = 0; i < ELF_GetListCount(df.f, ELF_LIST_INLINED); ++i) {
    const ELF_SYM_HANDLE h = ELF_GetListItem(df.f, ELF_LIST_INLINED, i);
    const CAddrRange r = t.GetSymbolRange(h);
    if (!r.IsEmpty() && !rowAddrs.count(r.start) && !callAt.count(r.start)) callAt[r.start] = DWARF_GetCallLoc(t, h);
  }
  int callChecked = 0;
  std::string cmd = "arm-none-eabi-addr2line -f -e " + path;
  for (U32 a : sample) {
    char buf[16];
    snprintf(buf, sizeof buf, " 0x%x", a);
    cmd += buf;
  }
  auto lines = SplitLines(RunTool(cmd));
  ASSERT_GE(lines.size(), sample.size() * 2);
  int checked = 0, fnChecked = 0;
  for (size_t i = 0; i < sample.size(); ++i) {
    const std::string fn = lines[2 * i];
    const std::string where = lines[2 * i + 1];
    const size_t colon = where.rfind(':');
    if (where.rfind("??", 0) == 0 || colon == std::string::npos) continue;
    const std::string file = QFileInfo(QString::fromStdString(where.substr(0, colon))).fileName().toStdString();
    const U32 line = (U32)atoi(where.c_str() + colon + 1);
    if (!line) continue;
    const QList<CSrcLoc> locs = t.GetSrcLocs(sample[i]);
    const I64 rowAt = t.GetExactSrcLoc(sample[i]).IsNull() ? t.PrevCodeAddress(sample[i]) : (I64)sample[i];
    auto call = rowAt >= 0 ? callAt.find((U32)rowAt) : callAt.end();
    if (call != callAt.end() && !call->second.IsNull()) {
      EXPECT_TRUE(locs.contains(call->second)) << std::hex << sample[i];
      ++callChecked;
      continue;
    }
    bool found = false;
    for (const CSrcLoc& l : locs) found |= l.line == line && t.GetFileName(l.file).toStdString() == file;
    EXPECT_TRUE(found) << std::hex << sample[i] << " addr2line " << where << " (" << locs.size() << " locations)";
    ++checked;
    // addr2line names the innermost function, inlined or not. Where no
    // function symbol holds the address (library code without symbols)
    // it names the nearest symbol below, which the tables don't.
    ELF_SYM_HANDLE syms[8];
    const int nSyms = ELF_GetFunctionSymbols(df.f, sample[i], true, syms, 8);
    if (fn != "??" && nSyms > 0) {
      const QList<ELF_SYM_HANDLE> hs = t.GetFunctionHandles(sample[i]);
      bool named = false;
      for (ELF_SYM_HANDLE h : hs) named |= fn == ELF_GetName(h);
      // Weak aliases share one address; the tables keep one of them.
      for (int k = 0; k < nSyms && k < 8 && !hs.isEmpty(); ++k) named |= fn == ELF_GetSymbolName(syms[k]);
      const int row = ELF_FindSymbolByName(df.f, fn.c_str());
      if (row >= 0)
        for (ELF_SYM_HANDLE h : hs)
          named |= ELF_AlignAddress(ELF_GetSymbolRow(df.f, row)->st_value) == t.GetSymbolRange(h).start;
      for (auto& o : odd) named |= o.name == fn && o.end == sample[i];
      EXPECT_TRUE(named) << std::hex << sample[i] << " " << fn;
      ++fnChecked;
    }
  }
  EXPECT_GT(checked, 100);
  EXPECT_GT(fnChecked, 100);
}

INSTANTIATE_TEST_SUITE_P(Corpus, LinesVsAddr2line,
                         ::testing::Values("app-dwarf2-O0.elf", "app-dwarf3-O2.elf", "app-dwarf4-O0.elf",
                                           "app-dwarf4-O2.elf", "app-dwarf4-O2-be.elf", "app-dwarf5-O2.elf",
                                           "newlib-dwarf5-O2-full.elf"),
                         CorpusParamName);

TEST(LineTables, RulesOnTheReferenceBuild) {
  DebugFile df(CorpusPath("app-dwarf4-O0.elf"));
  ASSERT_NE(df.f, nullptr);
  CLineTables t;
  t.Build(df.f);
  // Upper and lower case spellings are one file.
  const U32 id = t.GetFileId("/tavit/firmware/corpus/src/main.c");
  EXPECT_EQ(id, t.GetFileId("/TAVIT/firmware/corpus/SRC/main.C"));
  EXPECT_EQ(t.GetFileName(id), "main.c");
  const CAddrRange fr = t.GetFileRange(id);
  ASSERT_FALSE(fr.IsEmpty());
  // Every address of main.c lies in its range after the clean-up.
  for (auto& p : t.GetAddressMap()) {
    if (p.second.file == id) {
      EXPECT_TRUE(p.first >= fr.start && p.first < fr.End()) << std::hex << p.first;
    }
  }
  // An address inside a statement reports the statement, up to 256 bytes
  // behind it in the same function; none in another function.
  const ELF_SYM_HANDLE mainFn = ELF_FindName(df.f, "main");
  const CAddrRange mr = t.GetSymbolRange(mainFn);
  ASSERT_GT(mr.size, 8u);
  EXPECT_EQ(t.GetFunction(mr.start + 2, true), mainFn);
  const I64 next = t.NextCodeAddress(mr.start);
  ASSERT_GT(next, (I64)mr.start);
  if ((U32)next - mr.start > 2) {
    EXPECT_EQ(t.GetSrcLoc(mr.start + 2), t.GetSrcLoc(mr.start));
  }
  EXPECT_EQ(t.PrevCodeAddress(mr.start + 1), (I64)mr.start);
  EXPECT_EQ(t.PrevCodeAddress(t.GetProgramAddresses().front()), -1);
  EXPECT_TRUE(t.GetSrcLocs(0).isEmpty());
  EXPECT_TRUE(t.GetSrcLocs(0x20000000).isEmpty());
  // Source to address and back.
  const CSrcLoc l = t.GetSrcLoc(mr.start);
  ASSERT_FALSE(l.IsNull());
  EXPECT_TRUE(t.GetLocAddresses(l).contains(mr.start));
  EXPECT_EQ(t.GetFileAt(mr.start), (I64)id);
  EXPECT_TRUE(t.GetFileFunctions(id).contains(mainFn));
  const CSrcLoc n = t.NextLocWithCode(CSrcLoc(l.file, l.line, 0));
  EXPECT_GT(n.line, l.line);
  // Function list sorted by start, without duplicates of one start.
  const auto& fl = t.GetFunctionList();
  ASSERT_GT(fl.size(), 40u);
  for (size_t i = 1; i < fl.size(); ++i) EXPECT_LT(t.GetSymbolRange(fl[i - 1]).start, t.GetSymbolRange(fl[i]).start);
}

TEST(IntervalTree, SearchOrderAndBounds) {
  CIntervalTree tree;
  std::vector<CIntervalTree::Interval> v;
  for (U32 i = 0; i < 1000; ++i) v.push_back({i * 10, i * 10 + 9, i});
  v.push_back({0, 0xFFFFFFFE, 5000});
  tree.Build(v);
  std::vector<U64> out;
  tree.Find(55, 55, out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_TRUE((out[0] == 5 && out[1] == 5000) || (out[0] == 5000 && out[1] == 5));
  out.clear();
  tree.Find(9, 10, out); // inclusive bounds touch two neighbours
  EXPECT_EQ(out.size(), 3u);
  out.clear();
  tree.Find(0xFFFFFFFF, 0xFFFFFFFF, out);
  EXPECT_TRUE(out.empty());
}

} // namespace
