// File.Open in a batch run of the application: its log holds every load stage
// in order with its time, "DWARF Version: " with the highest unit version,
// and "Function count: " and "Global variable count: ", compared with counts made from readelf's symbol table and debug info dump, by
// the rules of the function list (one entry per start address, debug
// functions and sized ELF function symbols; an abstract function that has
// inlined instances stands at its first placed instance) and of the global
// variable collector (variables that are no declaration and not artificial;
// inside a function only with a plain static address).
//
// Deliberate differences from a plain count of readelf's lines, each part of
// the rules above:
// - ELF function symbols outside executable sections, and those whose name
//   starts with '?' or '$', are not functions of the list.
// - An abstract function is counted at the start of its first instance with
//   a range, and not at all if none of its instances has one.
// - Debug functions of size 0 are left out; all starts are aligned to 2.
// - An ELF function symbol of size 0 gets the size up to the next function
//   symbol or its section's end (the ELF layer completes sizes), so it
//   counts.
#include "dwarf_test_util.h"
#include "testsupport/process.h"
#include "testsupport/readelf_oracle.h"

#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>
#include <map>
#include <set>

namespace {

struct ReadelfCounts {
  int functions = 0;
  int globals = 0;
};

ReadelfCounts CountWithReadelf(const std::string& path) {
  ReadelfCounts out;
  std::map<int, U32> execEnd; // executable section -> its end address
  for (const readelf::Section& s : readelf::Sections(path))
    if (s.Has('X')) execEnd[s.Index] = s.Addr + s.Size;
  std::set<U32> starts;
  for (const readelf::Symbol& y : readelf::Symbols(path)) {
    if (y.Type != "FUNC" || y.Name.empty() || y.Name[0] == '?' || y.Name[0] == '$') continue;
    if (y.Ndx == "UND" || (y.InSection() && !execEnd.count(y.SectionIndex()))) continue;
    const U32 start = y.Value & ~1u;
    // A symbol without size reaches to the next function or its section's end.
    if (y.Size == 0 && !(y.InSection() && start < (execEnd[y.SectionIndex()] & ~1u))) continue;
    starts.insert(start);
  }
  auto ranges = readelf::RangeLists(path);
  // The debug entries of .debug_info.
  struct Die {
    std::string tag;
    U32 offset = 0;
    bool decl = false, artificial = false, staticAddr = false, hasLow = false, hasHigh = false, hasRanges = false;
    U32 low = 0, high = 0, rangesAt = 0, origin = 0;
    bool inFunction = false;
  };
  std::vector<Die> dies;
  for (const readelf::Unit& u : readelf::DebugInfo(path)) {
    if (u.TypeUnit) continue;
    std::vector<std::string> stack;
    for (const readelf::Die& e : u.Dies) {
      stack.resize((size_t)e.Depth);
      Die d;
      d.tag = e.Tag;
      d.offset = e.Offset;
      for (auto& t : stack)
        d.inFunction |= t == "DW_TAG_subprogram" || t == "DW_TAG_inlined_subroutine" || t == "DW_TAG_lexical_block";
      stack.push_back(d.tag);
      for (const readelf::Attr& a : e.Attrs) {
        if (a.Name == "DW_AT_declaration") d.decl = true;
        else if (a.Name == "DW_AT_artificial") d.artificial = true;
        else if (a.Name == "DW_AT_location") {
          const size_t op = a.Value.find("(DW_OP_addr:");
          d.staticAddr = op != std::string::npos && a.Value.find(';', op) == std::string::npos;
        } else if (a.Name == "DW_AT_low_pc") {
          d.hasLow = true;
          d.low = a.Number();
        } else if (a.Name == "DW_AT_high_pc") {
          d.hasHigh = true;
          d.high = a.Number();
        } else if (a.Name == "DW_AT_ranges") {
          d.hasRanges = true;
          d.rangesAt = a.Number();
        } else if (a.Name == "DW_AT_abstract_origin") {
          d.origin = a.Number();
        }
      }
      dies.push_back(d);
    }
  }
  // Aligned lowest start and size of an entry's range; false without one.
  auto span = [&](const Die& d, U32* pStart, U32* pSize) {
    U32 lo = 0xFFFFFFFF, hi = 0;
    if (d.hasLow && d.hasHigh) {
      lo = d.low;
      hi = d.high < d.low ? d.low + d.high : d.high;
    } else if (d.hasRanges) {
      for (auto& r : ranges[d.rangesAt]) {
        lo = std::min(lo, r.first);
        hi = std::max(hi, r.second);
      }
    }
    if (lo == 0xFFFFFFFF || hi == 0) return false;
    lo &= ~1u;
    hi &= ~1u;
    *pStart = lo;
    *pSize = hi > lo ? hi - lo : 0;
    return true;
  };
  // Offsets of the entries, to find an instance's abstract function.
  std::map<U32, size_t> abstractFirst; // origin offset -> start of its first placed instance
  std::set<U32> abstractTaken;
  for (const Die& d : dies) {
    if (d.tag == "DW_TAG_variable" && !d.decl && !d.artificial && (!d.inFunction || d.staticAddr)) ++out.globals;
    if (d.tag == "DW_TAG_inlined_subroutine" && !d.decl && !d.artificial && d.origin && !abstractTaken.count(d.origin)) {
      U32 s, n;
      if (span(d, &s, &n) && !(s == 0 && n == 0)) {
        abstractTaken.insert(d.origin);
        starts.insert(s);
      }
    }
  }
  // Debug functions that are the origin of instances count through them only.
  std::set<U32> origins;
  for (const Die& d : dies)
    if (d.tag == "DW_TAG_inlined_subroutine" && d.origin) origins.insert(d.origin);
  for (const Die& d : dies) {
    if (d.tag != "DW_TAG_subprogram" || d.decl || d.artificial || origins.count(d.offset)) continue;
    U32 s, n;
    if (span(d, &s, &n) && n > 0) starts.insert(s);
  }
  out.functions = (int)starts.size();
  return out;
}

class TablesCounts : public ::testing::TestWithParam<std::string> {};

// The highest unit version that readelf reports for the file.
int ReadelfDwarfVersion(const std::string& path) {
  int v = 0;
  for (const readelf::Unit& u : readelf::DebugInfo(path)) v = std::max(v, u.Version);
  return v;
}

// File.Open of the program in a batch run of the application, with a log file.
QString BatchOpenLog(const std::string& path, const std::string& name) {
  const QString dir = QString::fromLocal8Bit(qgetenv("TAVIT_TEST_TMP"));
  const QString logPath = dir + "/tables-counts-" + QString::fromStdString(name) + ".log";
  QFile::remove(logPath);
  if (testsupport::RunBatch(dir + "/tables-counts-" + QString::fromStdString(name) + ".txt",
                            QStringLiteral("File.Open(\"%1\")\n").arg(QString::fromStdString(path)).toUtf8(),
                            {"-logfile", logPath})
          .Exit != 0)
    return QString();
  QFile f(logPath);
  return f.open(QIODevice::ReadOnly) ? QString::fromUtf8(f.readAll()) : QString();
}

TEST_P(TablesCounts, BatchLoadLogsStagesAndCountsMatchReadelf) {
  const std::string path = CorpusPath(GetParam());
  const QString log = BatchOpenLog(path, GetParam());
  ASSERT_FALSE(log.isEmpty()) << "batch run failed";
  const char* stages[] = {"Program data segments initialized in: ",
                          "Parsed source file paths found in address mapping table: ",
                          "Parsed source file paths found in source files table: ",
                          "Initialized file exists flags: ",
                          "Parsed source to address mapping table: ",
                          "parsed file address ranges: ",
                          "Cleaned up address mapping table: ",
                          "Build debug symbol lists: ",
                          "Hashed function inline expansions: ",
                          "Sorted program address list: ",
                          "Build symbol table: ",
                          "Build functions list: ",
                          "build function interval tree: ",
                          "build file interval tree: ",
                          "hashed file functions: ",
                          "parsed call frame information: ",
                          "ELF-API wrapper initialized in "};
  int at = 0;
  for (const char* s : stages) {
    // The log sink writes the first letter of a line in upper case.
    const QRegularExpression re(QRegularExpression::escape(QString::fromLatin1(s)) + "\\d+:\\d{3} ms",
                                QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch m = re.match(log, at);
    ASSERT_TRUE(m.hasMatch()) << s;
    at = (int)m.capturedEnd();
  }
  EXPECT_TRUE(log.contains(QStringLiteral("DWARF Version: %1\n").arg(ReadelfDwarfVersion(path)))) << log.toStdString();
  const QRegularExpressionMatch fc = QRegularExpression("Function count: (\\d+)").match(log, at);
  const QRegularExpressionMatch gc = QRegularExpression("Global variable count: (\\d+)").match(log, at);
  ASSERT_TRUE(fc.hasMatch());
  ASSERT_TRUE(gc.hasMatch());
  const ReadelfCounts want = CountWithReadelf(path);
  EXPECT_GT(want.functions, 10);
  EXPECT_EQ(fc.captured(1).toInt(), want.functions);
  EXPECT_EQ(gc.captured(1).toInt(), want.globals);
}

// DWARF 2 to 4 (readelf's .debug_ranges listing); optimised builds have
// inlined instances and split ranges.
INSTANTIATE_TEST_SUITE_P(Corpus, TablesCounts,
                         ::testing::Values("app-dwarf4-O0.elf", "app-dwarf4-O2.elf", "app-dwarf3-O2.elf",
                                           "app-dwarf2-O2.elf", "app-dwarf4-O2-be.elf", "newlib-dwarf4-O2.elf"),
                         CorpusParamName);

} // namespace
