// Source positions of entries against llvm-dwarfdump (declaration and call
// sites with the files resolved through the units' file tables, DWARF 2 to 5,
// both byte orders), and the instruction-level walks with an instruction
// analysis taken from objdump's disassembly, checked against the line rows
// that llvm-dwarfdump decodes from the same file.
#include "dwarf_test_util.h"
#include "testsupport/objdump_oracle.h"
#include "testsupport/readelf_oracle.h"
#include "elf/dwarf/insn_analysis.h"
#include "elf/dwarf/target_access.h"
#include "elf/dwarf/line_tables.h"
#include "elf/dwarf/source_queries.h"
#include "log/log.h"

#include <QFile>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <unistd.h>

namespace {

std::string Lower(std::string s) {
  for (char& c : s) c = (char)tolower((unsigned char)c);
  return s;
}
U64 Num(const std::string& s, int base = 0) { return strtoull(s.c_str(), nullptr, base); }

// ---- llvm-dwarfdump ------------------------------------------------------------------

struct OracleDie {
  std::map<std::string, std::string> attrs; // DW_AT_* -> value text; "tag" -> DW_TAG_*
  bool Has(const char* a) const { return attrs.count(a) != 0; }
  std::string Path(const char* a) const { // ("path") -> path
    const std::string& v = attrs.at(a);
    return v.size() > 2 ? v.substr(1, v.size() - 2) : std::string();
  }
};
typedef std::map<U32, OracleDie> DIES;

// Entries of .debug_info, and of .debug_types with the key bit the reader
// gives them (references there stay inside the section).
DIES ReadDies(const std::string& path) {
  DIES out;
  static const std::regex dieRe(R"(^0x([0-9a-f]{8}):\s+(DW_TAG_\w+))"), attrRe(R"(^\s+(DW_AT_\w+)\s+\((.*)\)\s*$)");
  OracleDie* cur = nullptr;
  std::smatch m;
  for (const char* sec : {"info", "types"})
    for (const std::string& l : SplitLines(RunTool("llvm-dwarfdump --debug-" + std::string(sec) + " " + path))) {
      if (std::regex_search(l, m, dieRe))
        (cur = &out[(U32)Num(m[1], 16) | (sec[0] == 't' ? 0x80000000u : 0)])->attrs["tag"] = m[2];
      else if (cur && std::regex_search(l, m, attrRe))
        cur->attrs[m[1]] = m[2];
    }
  return out;
}

// The entry that holds an attribute, through specification and abstract origin.
const OracleDie* Owner(const DIES& dies, U32 off, const char* attr) {
  for (int depth = 0; depth < 6; ++depth) {
    auto it = dies.find(off);
    if (it == dies.end()) return nullptr;
    const OracleDie& d = it->second;
    if (d.Has(attr)) return &d;
    const char* next = d.Has("DW_AT_specification") ? "DW_AT_specification" : "DW_AT_abstract_origin";
    if (!d.Has(next)) return nullptr;
    off = (U32)Num(d.attrs.at(next), 16);
  }
  return nullptr;
}

// The decoded line rows: address -> (file name, line, column).
struct OracleRow {
  std::string file;
  U32 line, column;
};
std::multimap<U32, OracleRow> ReadRows(const std::string& path) {
  std::multimap<U32, OracleRow> out;
  static const std::regex fileRe(R"(^file_names\[\s*(\d+)\]:)"), nameRe(R"(^\s+name:\s+\"(.*)\")"),
      rowRe(R"(^0x([0-9a-f]{16})\s+(\d+)\s+(\d+)\s+(\d+)\s+\d+\s+\d+\s*(.*)$)");
  std::map<U32, std::string> files;
  int pending = -1;
  std::smatch m;
  for (const std::string& l : SplitLines(RunTool("llvm-dwarfdump --debug-line " + path))) {
    if (std::regex_search(l, m, fileRe)) {
      pending = (int)Num(m[1], 10);
    } else if (pending >= 0 && std::regex_search(l, m, nameRe)) {
      const std::string n = m[1];
      files[(U32)pending] = n.substr(n.find_last_of('/') + 1);
      pending = -1;
    } else if (std::regex_search(l, m, rowRe) && m[5].str().find("end_sequence") == std::string::npos) {
      out.insert({(U32)Num(m[1], 16), {files[(U32)Num(m[4], 10)], (U32)Num(m[2], 10), (U32)Num(m[3], 10)}});
    }
  }
  return out;
}

// ---- declaration and call locations ----------------------------------------------------

struct LocCounts {
  int decls = 0, calls = 0, unknownFiles = 0, headerDecls = 0;
};

// Declaration and call locations of every entry that has them, own or
// inherited: the line, and the file as the unit's file table names it (a
// file the tables don't know stands as the file of the entry's start).
LocCounts CheckDeclAndCall(const std::string& path) {
  LocCounts n;
  DebugFile df(path);
  EXPECT_NE(df.f, nullptr) << path;
  if (!df.f) return n;
  CLineTables t;
  t.Build(df.f);
  const DIES dies = ReadDies(path);
  EXPECT_GT(dies.size(), 10u);
  auto fileMatches = [&](const CSrcLoc& l, const std::string& want, const CAddrRange& r) {
    const U32 id = CLineTables::FileIdOf(QString::fromStdString(want));
    if (want[0] != '/') { // a type unit has no compilation directory to put first
      const std::string got = Lower(t.GetFilePath(l.file).toStdString());
      return got.size() > want.size() && got.compare(got.size() - want.size() - 1, std::string::npos, "/" + Lower(want)) == 0;
    }
    if (!t.GetFilePath(id).isEmpty()) return Lower(t.GetFilePath(l.file).toStdString()) == Lower(want);
    if (!r.IsEmpty() && !t.GetSrcLoc(r.start).IsNull()) return l.file == t.GetSrcLoc(r.start).file;
    return l.file == id;
  };
  for (const auto& [off, d] : dies) {
    if (d.attrs.at("tag") == "DW_TAG_compile_unit" || d.attrs.at("tag") == "DW_TAG_type_unit") continue;
    const ELF_SYM_HANDLE h = ELF_MakeDieHandle(df.f, off);
    const CAddrRange r = t.GetSymbolRange(h);
    const OracleDie* o = Owner(dies, off, "DW_AT_decl_line");
    if (o && o->Has("DW_AT_decl_file")) {
      const std::string want = o->Path("DW_AT_decl_file");
      const CSrcLoc l = DWARF_GetDeclLoc(t, h);
      EXPECT_EQ(l.line, Num(o->attrs.at("DW_AT_decl_line"))) << std::hex << off;
      EXPECT_TRUE(fileMatches(l, want, r)) << std::hex << off << " " << want << " got "
                                           << t.GetFilePath(l.file).toStdString();
      n.unknownFiles += t.GetFilePath(CLineTables::FileIdOf(QString::fromStdString(want))).isEmpty();
      n.headerDecls += want.size() > 2 && want.compare(want.size() - 2, 2, ".h") == 0;
      ++n.decls;
    }
    if (d.Has("DW_AT_call_line")) {
      const CSrcLoc l = DWARF_GetCallLoc(t, h);
      EXPECT_EQ(l.line, Num(d.attrs.at("DW_AT_call_line"))) << std::hex << off;
      EXPECT_TRUE(fileMatches(l, d.Path("DW_AT_call_file"), r)) << std::hex << off;
      EXPECT_EQ(DWARF_GetSymbolLoc(t, h), l) << std::hex << off; // an instance is shown at its call
      ++n.calls;
    } else if (d.attrs.at("tag") == "DW_TAG_subprogram") {
      EXPECT_TRUE(DWARF_GetCallLoc(t, h).IsNull()) << std::hex << off;
    }
  }
  return n;
}

class SourceLocsVsDwarfdump : public ::testing::TestWithParam<std::string> {};

TEST_P(SourceLocsVsDwarfdump, DeclAndCallLocations) {
  const LocCounts n = CheckDeclAndCall(CorpusPath(GetParam()));
  EXPECT_GT(n.decls, 50);
  EXPECT_GT(n.headerDecls, 5);
  if (GetParam().find("O2") != std::string::npos) EXPECT_GT(n.calls, 3);
  if (GetParam().find("full") != std::string::npos) EXPECT_GT(n.unknownFiles, 0); // library headers without code
}

INSTANTIATE_TEST_SUITE_P(Corpus, SourceLocsVsDwarfdump,
                         ::testing::Values("app-dwarf2-O0.elf", "app-dwarf3-O2.elf", "app-dwarf4-O2.elf",
                                           "app-dwarf4-O2-be.elf", "app-dwarf4-types.elf", "app-dwarf5-O2.elf", "newlib-dwarf5-O2-full.elf",
                                           "newlib-mixed-O2.elf"),
                         CorpusParamName);

// Line tables written by the compiler itself (the corpus has the
// assembler's) number files from 0 at version 5 and from 1 before; a
// header's entries land on the header either way. The program is
// firmware/tests/shapes.c, built at both versions by firmware/tests/build.sh.
TEST(SourceLocs, CompilerWrittenFileTables) {
  const char* src = getenv("TAVIT_SOURCE_DIR");
  for (std::string v : {"5", "4"}) {
    const std::string path = std::string(src ? src : ".") + "/firmware/tests/elf/shapes-dwarf" + v + ".elf";
    ASSERT_EQ(access(path.c_str(), R_OK), 0) << path;
    ASSERT_NE(RunTool("llvm-dwarfdump --debug-line " + path).find("version: " + v), std::string::npos);
    const LocCounts n = CheckDeclAndCall(path);
    EXPECT_GE(n.decls, 6) << v;
    EXPECT_GE(n.headerDecls, 3) << v;
    EXPECT_GE(n.calls, 1) << v;
  }
}

// The source span of a function ends on its closing brace in the source
// text; an assembler function known only by its ELF symbol is declared and
// shown one line above its first row.
TEST(SourceLocs, FunctionSpansAndSymbolsWithoutEntries) {
  for (const char* name : {"app-dwarf4-O0.elf", "app-dwarf4-O0-be.elf", "app-dwarf5-O0.elf"}) {
    const std::string path = CorpusPath(name);
    DebugFile df(path);
    ASSERT_NE(df.f, nullptr);
    CLineTables t;
    t.Build(df.f);
    int spans = 0;
    for (int i = 0; i < ELF_GetListCount(df.f, ELF_LIST_FUNCTIONS); ++i) {
      const ELF_SYM_HANDLE fn = ELF_GetListItem(df.f, ELF_LIST_FUNCTIONS, i);
      const CAddrRange r = t.GetSymbolRange(fn);
      if (r.IsEmpty() || !r.size || !t.HasCode(r.start)) continue;
      const FUNC_SRC_RANGE span = DWARF_GetFuncSrcRange(t, fn);
      EXPECT_EQ(span.top, DWARF_GetDeclLoc(t, fn));
      EXPECT_LT(span.top.line, span.bottom.line) << ELF_GetName(fn);
      const std::string file = t.GetFileName(span.bottom.file).toStdString();
      if (file.back() != 'c') continue;
      const auto text = SplitLines(RunTool("cat " + CorpusPath("src/" + file)));
      ASSERT_GE(text.size(), span.bottom.line) << file;
      EXPECT_EQ(text[span.bottom.line - 1].rfind('}', 0), 0u) << ELF_GetName(fn) << " " << file << ":" << span.bottom.line;
      ++spans;
    }
    EXPECT_GT(spans, 20) << name;
    EXPECT_TRUE(DWARF_GetFuncSrcRange(t, ELF_FindName(df.f, "g_char")).top.IsNull()); // not a function

    const int row = ELF_FindSymbolByName(df.f, "Reset_Handler");
    ASSERT_GE(row, 0);
    const ELF_SYM_HANDLE sym = ELF_GetSymbolHandle(df.f, row);
    const auto rows = ReadRows(path);
    auto first = rows.find(ELF_AlignAddress(ELF_GetSymbolRow(df.f, row)->st_value));
    ASSERT_NE(first, rows.end());
    const CSrcLoc decl = DWARF_GetDeclLoc(t, sym);
    EXPECT_EQ(decl.line, first->second.line - 1);
    EXPECT_EQ(t.GetFileName(decl.file).toStdString(), first->second.file);
    EXPECT_TRUE(DWARF_GetCallLoc(t, sym).IsNull());
    EXPECT_EQ(DWARF_GetSymbolLoc(t, sym), decl);
    EXPECT_EQ(DWARF_GetFuncSrcRange(t, sym).top, decl);
  }
}

// Memos belong to the file they were made from: the next file opened in the
// same slot gets its own answers without an explicit clear.
TEST(SourceLocs, MemosFollowTheFileInTheSlot) {
  std::vector<U32> keys;
  {
    DebugFile a(CorpusPath("app-dwarf4-O0.elf"));
    CLineTables t;
    t.Build(a.f);
    for (int i = 0; i < ELF_GetListCount(a.f, ELF_LIST_FUNCTIONS); ++i) {
      const ELF_SYM_HANDLE h = ELF_GetListItem(a.f, ELF_LIST_FUNCTIONS, i);
      DWARF_GetDeclLoc(t, h);
      keys.push_back(ELF_GetDieKey(h));
    }
  }
  const std::string path = CorpusPath("app-dwarf2-O0.elf");
  DebugFile b(path);
  CLineTables t;
  t.Build(b.f);
  const DIES dies = ReadDies(path);
  int checked = 0;
  for (U32 key : keys)
    if (const OracleDie* o = Owner(dies, key, "DW_AT_decl_line")) {
      EXPECT_EQ(DWARF_GetDeclLoc(t, ELF_MakeDieHandle(b.f, key)).line, Num(o->attrs.at("DW_AT_decl_line")));
      ++checked;
    }
  EXPECT_GT(checked, 0);
}

// ---- instruction walks with objdump's instructions -------------------------------------

class ObjdumpAnalysis : public IInstructionAnalysis {
public:
  std::map<U32, U32> insts; // start -> size
  std::set<U32> data;       // every 2-byte step of a data item

  explicit ObjdumpAnalysis(const std::string& path) {
    std::map<U32, objdump::Inst> listed;
    for (const auto& [a, i] : objdump::Disassemble(path, &listed)) insts[a] = i.Size;
    for (const auto& [a, d] : listed)
      for (U32 k = 0; k < d.Size; k += 2) data.insert(a + k);
  }
  bool IsInstructionStart(U32 a) const override { return insts.count(a) && !data.count(a); }
  U32 GetInstructionSize(U32 a) const override { return insts.count(a) ? insts.at(a) : 0; }
  int GetKind(U32 a) const override { return data.count(a) ? 1 : 0; }
  bool IsBranchTarget(U32) const override { return false; }
  U32 GetInstAlignment() const override { return 2; }
  U32 GetMaxInstSize() const override { return 4; }
};

// The program image as the target, with the analysis installed for one scope.
struct Installed {
  explicit Installed(IInstructionAnalysis* p) : access(nullptr, p) { ELF_SetTargetAccess(&access); }
  ~Installed() { ELF_SetTargetAccess(nullptr); }
  CProgramImageAccess access;
};

struct WalkOracle {
  std::multimap<U32, OracleRow> rows;
  std::map<U32, U32> functions; // ELF function symbols: start -> end

  explicit WalkOracle(const std::string& path) : rows(ReadRows(path)) {
    // A function symbol without size runs to the next one, as the ELF layer completes it.
    for (const readelf::Symbol& y : readelf::Symbols(path))
      if (y.Type == "FUNC") {
        const U32 a = y.Value & ~1u;
        functions[a] = std::max(functions[a], a + y.Size);
      }
    for (auto it = functions.begin(); it != functions.end();) {
      auto next = std::next(it);
      if (it->second == it->first && next == functions.end()) break;
      if (it->second == it->first) it->second = next->first;
      it = next;
    }
  }
  std::pair<U32, U32> FunctionOf(U32 a) const {
    auto it = functions.upper_bound(a);
    if (it == functions.begin() || a >= std::prev(it)->second) return {0, 0};
    return *std::prev(it);
  }
  // True if a row of (file, line) leads a: a's own, else the row address
  // before it in the same function up to 256 bytes back.
  bool LineHolds(U32 a, const std::string& file, U32 line) const {
    auto it = rows.upper_bound(a);
    if (it == rows.begin()) return false;
    const U32 p = std::prev(it)->first;
    if (p != a && (a - p > 256 || FunctionOf(a) != FunctionOf(p) || !FunctionOf(a).second)) return false;
    auto range = rows.equal_range(p);
    for (auto r = range.first; r != range.second; ++r)
      if (r->second.file == file && r->second.line == line) return true;
    return false;
  }
  std::vector<U32> Run(const ObjdumpAnalysis& an, U32 a, const std::string& file, U32 line) const {
    std::vector<U32> run;
    for (U32 x = a; x < a + 256; x += 2)
      if (an.IsInstructionStart(x)) {
        if (!LineHolds(x, file, line)) break;
        run.push_back(x);
      }
    return run;
  }
};

class SourceWalksVsObjdump : public DebugCorpusTest {};

// Statement runs at every row address, line starts at every instruction and
// data item, and the instructions of whole lines.
TEST_P(SourceWalksVsObjdump, RunsAndLineStarts) {
  CLineTables t;
  t.Build(df.f);
  ObjdumpAnalysis an(path);
  const WalkOracle o(path);
  ASSERT_GT(an.insts.size(), 500u);
  ASSERT_GT(o.rows.size(), 200u);
  const U32 firstRow = o.rows.begin()->first;
  EXPECT_TRUE(DWARF_GetLocAddressRun(t, t.GetSrcLoc(firstRow), firstRow).isEmpty()); // no analysis
  Installed inst(&an);
  int runs = 0, starts = 0, lines = 0;
  std::map<std::tuple<std::string, U32, U32>, U32> firstOf;
  std::map<std::pair<std::string, U32>, std::set<U32>> lineRows;
  for (auto& [a, r] : o.rows) {
    auto k = std::make_tuple(r.file, r.line, r.column);
    firstOf[k] = firstOf.count(k) ? std::min(firstOf[k], a) : a;
    lineRows[{r.file, r.line}].insert(a);
    const CSrcLoc loc(t.GetSrcLoc(a).file, r.line, 0);
    if (o.rows.count(a) > 1 || !an.IsInstructionStart(a) || t.GetFileName(loc.file).toStdString() != r.file) continue;
    const QList<U32> got = DWARF_GetLocAddressRun(t, loc, a);
    EXPECT_EQ(std::vector<U32>(got.begin(), got.end()), o.Run(an, a, r.file, r.line)) << std::hex << a;
    ++runs;
  }
  // 1 for data, 0 for the first address of a location (file, line, column).
  std::set<U32> all(an.data.begin(), an.data.end());
  for (auto& p : an.insts) all.insert(p.first);
  for (U32 a : all) {
    if (o.rows.count(a) > 1) continue; // which location is first depends on file ids
    int want = an.data.count(a) ? 1 : -1;
    if (want < 0 && o.rows.count(a)) {
      const OracleRow& r = o.rows.find(a)->second;
      want = firstOf[std::make_tuple(r.file, r.line, r.column)] == a ? 0 : -1;
    }
    EXPECT_EQ(DWARF_LineStartKind(t, a), want) << std::hex << a;
    ++starts;
  }
  for (auto& [k, addrs] : lineRows) {
    const CSrcLoc any = t.GetSrcLoc(*addrs.begin());
    if (t.GetFileName(any.file).toStdString() != k.first || o.rows.count(*addrs.begin()) > 1) continue;
    std::set<U32> want;
    for (U32 a : addrs)
      for (U32 x : o.Run(an, a, k.first, k.second)) want.insert(x);
    const QList<U32> got = DWARF_GetLocInstructions(t, CSrcLoc(any.file, k.second, 0));
    EXPECT_EQ(std::set<U32>(got.begin(), got.end()), want) << k.first << ":" << k.second;
    EXPECT_EQ((size_t)got.size(), want.size()) << k.first << ":" << k.second << " has an address twice";
    ++lines;
  }
  EXPECT_GT(runs, 200);
  EXPECT_GT(starts, 500);
  EXPECT_GT(lines, 100);
}

// Line blocks of whole functions: one per line, holding only addresses that
// line leads; and the blocks of one line cover exactly those addresses.
// Functions with literal pools split into code ranges at the data.
TEST_P(SourceWalksVsObjdump, LineBlocksAndCodeRanges) {
  CLineTables t;
  t.Build(df.f);
  ObjdumpAnalysis an(path);
  const WalkOracle o(path);
  Installed inst(&an);
  int functions = 0, split = 0;
  for (int i = 0; i < ELF_GetListCount(df.f, ELF_LIST_FUNCTIONS); ++i) {
    const ELF_SYM_HANDLE fn = ELF_GetListItem(df.f, ELF_LIST_FUNCTIONS, i);
    const CAddrRange r = t.GetSymbolRange(fn);
    if (r.IsEmpty() || !r.size || !o.rows.count(r.start)) continue;
    std::map<U32, std::pair<std::string, U32>> lineAt; // data keeps the line before it
    std::pair<std::string, U32> cur;
    for (U32 a = r.start; a < r.End(); a += 2) {
      auto rows = o.rows.equal_range(a);
      for (auto x = rows.first; x != rows.second && !an.data.count(a); ++x)
        if (x == rows.first || x->second.line < cur.second) cur = {x->second.file, x->second.line};
      lineAt[a] = cur;
    }
    const QList<LINE_BLOCK> blocks = DWARF_GetFunctionLineBlocks(t, r);
    ASSERT_FALSE(blocks.isEmpty()) << ELF_GetName(fn);
    EXPECT_EQ(blocks.first().range.start, r.start);
    std::set<std::pair<std::string, U32>> seen, want;
    for (auto& p : lineAt) want.insert(p.second);
    for (const LINE_BLOCK& b : blocks) {
      const std::pair<std::string, U32> k{t.GetFileName(b.loc.file).toStdString(), b.loc.line};
      EXPECT_TRUE(seen.insert(k).second) << ELF_GetName(fn) << " line " << b.loc.line << " twice";
      for (U32 a = b.range.start; a < b.range.End(); a += 2) EXPECT_EQ(lineAt[a], k) << std::hex << a;
      EXPECT_TRUE(b.range.size && (b.range.End() == r.End() || lineAt[(U32)b.range.End()] != k)) << std::hex << b.range.start;
    }
    EXPECT_EQ(seen, want) << ELF_GetName(fn);
    std::set<U32> wantAddrs, gotAddrs;
    for (auto& p : lineAt)
      if (p.second == *seen.begin()) wantAddrs.insert(p.first);
    for (const LINE_BLOCK& b : blocks)
      if (std::make_pair(t.GetFileName(b.loc.file).toStdString(), b.loc.line) == *seen.begin())
        for (const CAddrRange& ib : DWARF_GetFunctionInstBlocks(t, r, b.loc))
          for (U32 a = ib.start; a < ib.End(); a += 2) EXPECT_TRUE(gotAddrs.insert(a).second);
    EXPECT_EQ(gotAddrs, wantAddrs) << ELF_GetName(fn);
    ++functions;
  }
  for (auto& [s, e] : o.functions) {
    if (e <= s) continue;
    std::vector<CAddrRange> want;
    for (U32 a = s; a < e; a += 2)
      if (!an.data.count(a)) {
        if (want.empty() || want.back().End() != a) want.push_back(CAddrRange(a, 0));
        want.back().size += 2;
      }
    const QList<CAddrRange> got = DWARF_GetCodeRanges(t, CAddrRange(s, e - s));
    EXPECT_EQ(std::vector<CAddrRange>(got.begin(), got.end()), want) << std::hex << s;
    split += want.size() != 1 || want[0].size != e - s;
  }
  EXPECT_GT(functions, 20);
  EXPECT_GT(split, 5);
}

INSTANTIATE_TEST_SUITE_P(Corpus, SourceWalksVsObjdump,
                         ::testing::Values("app-dwarf2-O0.elf", "app-dwarf4-O0.elf", "app-dwarf4-O0-be.elf",
                                           "app-dwarf5-O0.elf"),
                         CorpusParamName);

// The size limit of the analysis walks, with their log lines.
TEST(SourceWalks, SizeLimits) {
  const QString logPath = QString::fromLocal8Bit(qgetenv("TAVIT_TEST_TMP")) + "/source-limits.log";
  QFile::remove(logPath);
  SetLogFile(LOG_FILE_APP, logPath);
  DebugFile df(CorpusPath("app-dwarf4-O0.elf"));
  CLineTables t;
  t.Build(df.f);
  ObjdumpAnalysis an(CorpusPath("app-dwarf4-O0.elf"));
  Installed inst(&an);
  const CAddrRange big(0x08000000, 10000001);
  EXPECT_TRUE(DWARF_GetFunctionLineBlocks(t, big).isEmpty());
  EXPECT_TRUE(DWARF_GetFunctionInstBlocks(t, big, CSrcLoc(1, 1)).isEmpty());
  EXPECT_EQ(DWARF_GetCodeRanges(t, big), QList<CAddrRange>{big});
  EXPECT_FALSE(DWARF_GetFunctionLineBlocks(t, CAddrRange(0x08000000, 10000000)).isEmpty());
  // No symbol at or below the start: the whole range.
  EXPECT_EQ(DWARF_GetCodeRanges(t, CAddrRange(0x100, 0x40)), QList<CAddrRange>{CAddrRange(0x100, 0x40)});
  LogFlush();
  SetLogFile(LOG_FILE_APP, QString());
  QFile f(logPath);
  ASSERT_TRUE(f.open(QIODevice::ReadOnly));
  const QString log = QString::fromUtf8(f.readAll());
  EXPECT_EQ(log.count("Size of function @ 0x08000000 exceeds limit for line count analysis"), 1);
  EXPECT_EQ(log.count("Size of function @ 0x08000000 exceeds limit for instruction analysis"), 1);
  EXPECT_EQ(log.count("Size of symbol @ 0x08000000 exceeds limit for line count analysis"), 1);
}

} // namespace
