// The symbol table of the wrapper against readelf's symbol list, and the
// address-list queries (next line address, statement starts, counts, code in
// a range, symbols at an address, file aliases) against readelf's decoded
// line rows on the reference build.
#include "dwarf_test_util.h"
#include "testsupport/readelf_oracle.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "log/diag.h"
#include "log/log.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <gtest/gtest.h>
#include <map>
#include <set>

namespace {

struct Tables {
  DebugFile df;
  CLineTables t;
  explicit Tables(const std::string& name) : df(CorpusPath(name)) {
    if (df.f) t.Build(df.f);
  }
};

TEST(TablesSymbols, SymbolTableAgainstReadelf) {
  for (const char* name : {"app-dwarf4-O0.elf", "app-dwarf4-O2-be.elf"}) {
    SCOPED_TRACE(name);
    const std::string path = CorpusPath(name);
    Tables x(name);
    ASSERT_NE(x.df.f, nullptr);
    const CLineTables& t = x.t;
    std::set<int> exec;
    for (const readelf::Section& s : readelf::Sections(path))
      if (s.Has('X')) exec.insert(s.Index);
    ASSERT_FALSE(exec.empty());
    // Symbols of executable sections and of none (ABS): all but '?'/'$'
    // functions; the section-less null symbol is UND and goes.
    std::multiset<std::string> want, wantFn;
    std::set<U32> wantAddrs;
    std::map<U32, bool> hasFunction;
    for (const readelf::Symbol& s : readelf::Symbols(path)) {
      const bool inExec = s.InSection() ? exec.count(s.SectionIndex()) > 0 : s.Ndx != "UND";
      if (!inExec) continue;
      const bool fn = s.Type == "FUNC";
      if (fn && (s.Name[0] == '?' || s.Name[0] == '$')) continue;
      // readelf shows a section symbol by its section's name; it has none.
      want.insert(s.Type == "SECTION" ? std::string() : s.Name);
      if (fn) wantFn.insert(s.Name);
      const U32 a = s.Value & ~1u;
      wantAddrs.insert(a);
      hasFunction[a] |= fn;
    }
    std::multiset<std::string> got, gotFn;
    for (ELF_SYM_HANDLE h : t.GetElfSymbolList()) got.insert(ELF_GetSymbolName(h));
    for (ELF_SYM_HANDLE h : t.GetElfFunctionList()) gotFn.insert(ELF_GetSymbolName(h));
    EXPECT_EQ(got, want);
    EXPECT_EQ(gotFn, wantFn);
    EXPECT_EQ(std::set<U32>(t.GetSymbolAddressList().begin(), t.GetSymbolAddressList().end()), wantAddrs);
    EXPECT_TRUE(std::is_sorted(t.GetSymbolAddressList().begin(), t.GetSymbolAddressList().end()));
    // A function symbol leads wherever one stands (mapping symbols share
    // every function's address).
    int shared = 0;
    for (auto& [a, fn] : hasFunction) {
      const QList<ELF_SYM_HANDLE> at = t.GetSymbolsByAddress(a);
      ASSERT_FALSE(at.isEmpty()) << std::hex << a;
      if (fn) EXPECT_TRUE(ELF_IsFunctionType(ELF_GetSymbolType(at.first()))) << std::hex << a;
      shared += fn && at.size() > 1;
    }
    EXPECT_GT(shared, 5);
    EXPECT_EQ(t.GetSymbolsByType(2).size(), (qsizetype)wantFn.size());
  }
}

// One function per start: a debug function wins over an ELF function symbol
// of the same size, a larger symbol replaces it.
TEST(TablesSymbols, FunctionListPrefersDebugFunctionOfEqualSize) {
  for (const char* name : {"app-dwarf4-O0.elf", "app-dwarf4-O2.elf", "newlib-dwarf4-O2.elf"}) {
    SCOPED_TRACE(name);
    Tables x(name);
    ASSERT_NE(x.df.f, nullptr);
    const CLineTables& t = x.t;
    std::map<U32, U32> elfSize; // aligned start -> largest FUNC size there
    for (const readelf::Symbol& s : readelf::Symbols(CorpusPath(name)))
      if (s.Type == "FUNC" && s.Name[0] != '$' && s.Name[0] != '?') elfSize[s.Value & ~1u] = std::max(elfSize[s.Value & ~1u], s.Size);
    std::map<U32, U32> debugSize;
    for (int i = 0; i < ELF_GetListCount(x.df.f, ELF_LIST_FUNCTIONS); ++i) {
      const CAddrRange r = t.GetSymbolRange(ELF_GetListItem(x.df.f, ELF_LIST_FUNCTIONS, i));
      if (!r.IsEmpty() && r.size) debugSize[r.start] = std::max(debugSize[r.start], r.size);
    }
    int both = 0;
    for (ELF_SYM_HANDLE h : t.GetFunctionList()) {
      const CAddrRange r = t.GetSymbolRange(h);
      auto e = elfSize.find(r.start);
      auto d = debugSize.find(r.start);
      if (e == elfSize.end() || d == debugSize.end() || !e->second) continue;
      ++both;
      if (d->second >= e->second) EXPECT_TRUE(ELF_IsDieHandle(h)) << std::hex << r.start;
      else EXPECT_FALSE(ELF_IsDieHandle(h)) << std::hex << r.start;
      EXPECT_EQ(r.size, std::max(d->second, e->second)) << std::hex << r.start;
    }
    EXPECT_GT(both, 20);
  }
}

TEST(TablesSymbols, SymbolsAtAnAddress) {
  Tables x("app-dwarf4-O0.elf");
  ASSERT_NE(x.df.f, nullptr);
  const CLineTables& t = x.t;
  const ELF_SYM_HANDLE mainFn = ELF_FindName(x.df.f, "main");
  const U32 at = t.GetSymbolRange(mainFn).start;
  const QList<ELF_SYM_HANDLE> fns = t.GetSymbolsAt(at, false, true, false);
  EXPECT_EQ(fns, QList<ELF_SYM_HANDLE>{mainFn});
  // ELF symbols alone: the function symbol "main" and the mapping symbol.
  const QList<ELF_SYM_HANDLE> elf = t.GetSymbolsAt(at, true, false, false);
  ASSERT_GE(elf.size(), 1);
  EXPECT_STREQ(ELF_GetSymbolName(elf.first()), "main");
  // Together the debug function hides the ELF function symbol.
  const QList<ELF_SYM_HANDLE> both = t.GetSymbolsAt(at, true, true, false);
  EXPECT_EQ(both.first(), mainFn);
  for (ELF_SYM_HANDLE h : both) EXPECT_FALSE(!ELF_IsDieHandle(h) && ELF_IsFunctionType(ELF_GetSymbolType(h)));
  EXPECT_EQ(both.size(), elf.size());
  // Objects: a global variable at readelf's address of its symbol.
  for (const readelf::Symbol& s : readelf::Symbols(CorpusPath("app-dwarf4-O0.elf")))
    if (s.Name == "g_matrix") {
      const QList<ELF_SYM_HANDLE> obj = t.GetSymbolsAt(s.Value, true, true, true);
      ASSERT_EQ(obj.size(), 1);
      EXPECT_STREQ(ELF_GetName(obj.first()), "g_matrix");
      EXPECT_TRUE(t.GetSymbolsAt(s.Value, true, true, false).isEmpty());
    }
  EXPECT_TRUE(t.GetSymbolsAt(at + 2, true, true, true).isEmpty());
}

// readelf's decoded rows of one file name: address -> lines.
std::map<U32, std::set<U32>> DecodedRows(const std::string& path, const std::string& file) {
  std::map<U32, std::set<U32>> rows;
  for (const readelf::LineRow& r : readelf::DecodedLines(path))
    if (r.File == file) rows[r.Addr].insert(r.Line);
  return rows;
}

TEST(TablesQueries, AddressListQueriesAgainstDecodedRows) {
  const std::string path = CorpusPath("app-dwarf4-O0.elf");
  Tables x("app-dwarf4-O0.elf");
  ASSERT_NE(x.df.f, nullptr);
  const CLineTables& t = x.t;
  const CAddrRange mr = t.GetSymbolRange(ELF_FindName(x.df.f, "main"));
  ASSERT_GT(mr.size, 100u);
  const auto rows = DecodedRows(path, "main.c");
  std::vector<U32> inMain;
  for (auto& r : rows)
    if (r.first >= mr.start && r.first < mr.End()) inMain.push_back(r.first);
  ASSERT_GT(inMain.size(), 10u);
  // Counts of addresses with a line in the function, and in parts of it.
  EXPECT_EQ(t.LocAddressCount(mr), inMain.size());
  EXPECT_EQ(t.LocAddressCount(mr), inMain.size()); // memoised answer
  EXPECT_EQ(t.LocAddressCount(CAddrRange(inMain[1], inMain[4] - inMain[1])), 3u);
  EXPECT_EQ(t.LocAddressCount(CAddrRange()), 0u);
  // Next line address: the first row behind with another (smallest) line.
  int checked = 0;
  for (size_t i = 0; i < inMain.size(); ++i) {
    const U32 a = inMain[i], base = *rows.at(a).begin();
    U32 want = 0;
    for (size_t k = i + 1; k < inMain.size() && !want; ++k)
      if (*rows.at(inMain[k]).begin() != base && inMain[k] < a + 1000) want = inMain[k];
    if (!want) continue;
    U32 next = 0;
    ASSERT_TRUE(t.NextLineAddress(a, &next)) << std::hex << a;
    EXPECT_EQ(next, want) << std::hex << a;
    // From inside the statement too.
    if (i + 1 < inMain.size() && inMain[i + 1] - a > 2 && want > a + 2) {
      ASSERT_TRUE(t.NextLineAddress(a + 2, &next));
      EXPECT_EQ(next, want) << std::hex << a + 2;
    }
    ++checked;
  }
  EXPECT_GT(checked, 10);
  U32 next = 0;
  EXPECT_FALSE(t.NextLineAddress(t.GetAddressRange().start + t.GetAddressRange().size, &next));
  // Statement starts: a row's first address is one; an address inside the
  // statement is not.
  EXPECT_TRUE(t.IsStatementStart(mr.start));
  for (size_t i = 0; i + 1 < inMain.size(); ++i)
    if (inMain[i + 1] - inMain[i] > 2 && rows.at(inMain[i]).size() == 1) {
      EXPECT_FALSE(t.IsStatementStart(inMain[i] + 2)) << std::hex << inMain[i] + 2;
    }
  // Code in a range.
  EXPECT_TRUE(t.RangeHasCode(CAddrRange(mr.start, 2)));
  EXPECT_TRUE(t.RangeHasCode(CAddrRange(inMain[0] + 1, inMain[1] - inMain[0])));
  EXPECT_FALSE(t.RangeHasCode(CAddrRange(inMain[0] + 1, 0)));
  EXPECT_FALSE(t.RangeHasCode(CAddrRange()));
  EXPECT_FALSE(t.RangeHasCode(CAddrRange(0x20000000, 0x100)));
  // A line that has several addresses and shares none with the next line
  // (the loop header of main) is a multi-address line; a line with a single
  // address is not.
  int multi = 0, single = 0;
  std::map<U32, std::vector<U32>> addrsOfLine;
  for (U32 a : inMain)
    for (U32 l : rows.at(a)) addrsOfLine[l].push_back(a);
  const U32 file = t.GetSrcLoc(mr.start).file;
  for (auto& [line, v] : addrsOfLine) {
    const CSrcLoc loc(file, line, 0);
    if (v.size() == 1 && t.GetLocAddresses(loc).size() == 1) {
      EXPECT_FALSE(t.IsMultiLine(loc)) << line;
      ++single;
    }
    if (v.size() > 1) multi += t.IsMultiLine(loc);
  }
  EXPECT_GT(single, 0);
  EXPECT_GT(multi, 0);
}

// Rows of several lines at one address (optimised code): all locations are
// kept, sorted, the first and last answer from the ends.
TEST(TablesQueries, SeveralLinesAtOneAddress) {
  const std::string path = CorpusPath("app-dwarf4-O2.elf");
  Tables x("app-dwarf4-O2.elf");
  ASSERT_NE(x.df.f, nullptr);
  const CLineTables& t = x.t;
  const U32 file = t.GetFileId("/tavit/firmware/corpus/src/main.c");
  const CAddrRange fr = t.GetFileRange(file);
  int checked = 0;
  for (auto& [a, lines] : DecodedRows(path, "main.c")) {
    if (lines.size() < 2 || a < fr.start || a >= fr.End()) continue;
    const QList<CSrcLoc> locs = t.GetSrcLocs(a);
    std::set<U32> got;
    for (const CSrcLoc& l : locs)
      if (l.file == file) got.insert(l.line);
    EXPECT_EQ(got, lines) << std::hex << a;
    for (int i = 1; i < locs.size(); ++i) {
      const CSrcLoc &p = locs[i - 1], &q = locs[i];
      EXPECT_TRUE(p.file < q.file || (p.file == q.file && (p.line < q.line || (p.line == q.line && p.column < q.column))));
    }
    EXPECT_EQ(t.GetSrcLoc(a), locs.first());
    EXPECT_EQ(t.GetLastSrcLoc(a), locs.last());
    EXPECT_EQ(t.GetExactSrcLoc(a), locs.first());
    for (const CSrcLoc& l : locs) EXPECT_TRUE(t.GetLocAddresses(l).contains(a));
    ++checked;
  }
  EXPECT_GT(checked, 3);
}

TEST(TablesQueries, FileAliasesAndExistsFlags) {
  Tables x("app-dwarf4-O0.elf");
  ASSERT_NE(x.df.f, nullptr);
  CLineTables& t = x.t;
  const QString orig = "/tavit/firmware/corpus/src/main.c";
  const U32 id = t.GetFileId(orig);
  const CAddrRange mr = t.GetSymbolRange(ELF_FindName(x.df.f, "main"));
  ASSERT_EQ(t.GetFileAt(mr.start), (I64)id);
  // The debug paths are mapped to a directory that doesn't exist here.
  EXPECT_FALSE(t.FileExists(id));
  EXPECT_TRUE(t.GetSourceFiles().contains(orig));
  const QString dir = QString::fromLocal8Bit(qgetenv("TAVIT_TEST_TMP")) + "/tables-alias";
  QDir().mkpath(dir);
  const QString copy = dir + "/main.c";
  QFile::remove(copy);
  ASSERT_TRUE(QFile::copy(QString::fromStdString(CorpusPath("src/main.c")), copy));
  t.SetFileAlias(orig, copy);
  EXPECT_EQ(t.GetFileAlias(id), t.GetFileId(copy));
  EXPECT_TRUE(t.FileExists(id));
  QStringList files = t.GetSourceFiles();
  EXPECT_TRUE(files.contains(copy));
  EXPECT_FALSE(files.contains(orig));
  // The file tree is built again without the replaced file; the ranges come
  // back on demand.
  EXPECT_NE(t.GetFileAt(mr.start), (I64)id);
  EXPECT_FALSE(t.GetFileRange(id).IsEmpty());
  t.ClearFileAlias(id);
  EXPECT_EQ(t.GetFileAlias(id), id);
  EXPECT_EQ(t.GetFileAt(mr.start), (I64)id);
  EXPECT_TRUE(t.GetSourceFiles().contains(orig));
  EXPECT_FALSE(t.FileExists(id));
}

// Without debug information the tables are empty, but functions still come
// from the ELF symbols.
TEST(TablesQueries, ProgramWithoutDebugInformation) {
  const std::string path = CorpusPath("app-nodebug.elf");
  Tables x("app-nodebug.elf");
  ASSERT_NE(x.df.f, nullptr);
  const CLineTables& t = x.t;
  EXPECT_TRUE(t.GetProgramAddresses().empty());
  // All function symbols lie in .text; one without size is given the size up
  // to the next by the ELF layer.
  std::set<U32> starts;
  for (const readelf::Symbol& s : readelf::Symbols(path))
    if (s.Type == "FUNC" && s.Name[0] != '$' && s.Name[0] != '?') starts.insert(s.Value & ~1u);
  ASSERT_GT(starts.size(), 10u);
  EXPECT_EQ(t.GetFunctionList().size(), starts.size());
  for (U32 a : starts) {
    const ELF_SYM_HANDLE h = t.GetFunction(a, false);
    ASSERT_NE(h, 0u) << std::hex << a;
    EXPECT_EQ(t.GetSymbolRange(h).start, a);
    EXPECT_TRUE(t.GetSrcLocs(a).isEmpty());
    EXPECT_FALSE(t.HasCode(a));
    EXPECT_EQ(t.GetFileAt(a), -1);
  }
  U32 next = 0;
  EXPECT_FALSE(t.NextLineAddress(*starts.begin(), &next));
  EXPECT_FALSE(t.IsStatementStart(*starts.begin()));
  EXPECT_EQ(t.LocAddressCount(CAddrRange(0, 0xFFFFFFFF)), 0u);
  EXPECT_TRUE(t.GetSourceFiles().isEmpty());
}

// The control block of the terminal: a program with `_MARLEK_LVT`
// (firmware/tests/lvt.c).
TEST(TablesWrapper, LvtSymbolRemembered) {
  const char* src = getenv("TAVIT_SOURCE_DIR");
  const std::string elf = std::string(src ? src : ".") + "/firmware/tests/elf/lvt.elf";
  ASSERT_TRUE(QFileInfo::exists(QString::fromStdString(elf))) << elf;
  U32 want = 0;
  for (const readelf::Symbol& s : readelf::Symbols(elf))
    if (s.Name == "_MARLEK_LVT") want = s.Value;
  ASSERT_NE(want, 0u);
  DIAG_Init();
  DWARF_Install();
  CElfApi& api = CElfApi::Instance();
  ASSERT_EQ(api.Load(QString::fromStdString(elf)), 0);
  {
    QMutexLocker lock(&api.Mutex());
    const ELF_SYM_HANDLE h = DWARF_GetProgramTables().GetLvtSymbol();
    ASSERT_NE(h, 0u);
    EXPECT_STREQ(ELF_GetName(h), "_MARLEK_LVT");
    U32 addr = 0;
    EXPECT_TRUE(ELF_GetStaticAddress(h, &addr));
    EXPECT_EQ(addr, want);
  }
  ASSERT_EQ(api.Load(QString::fromStdString(CorpusPath("app-dwarf4-O0.elf"))), 0);
  {
    QMutexLocker lock(&api.Mutex());
    EXPECT_EQ(DWARF_GetProgramTables().GetLvtSymbol(), 0u);
  }
  api.Close();
}

} // namespace
