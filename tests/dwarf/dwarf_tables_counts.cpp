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

#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>

namespace {

struct ReadelfCounts {
  int functions = 0;
  int globals = 0;
};

U32 Hex(const std::string& s) { return (U32)strtoul(s.c_str(), nullptr, 16); }
// The number of an attribute value: hexadecimal behind "0x", else decimal.
U32 HexAfter0x(const std::string& v) {
  const size_t at = v.find("0x");
  return at == std::string::npos ? (U32)strtoul(v.c_str(), nullptr, 10) : Hex(v.substr(at + 2));
}

ReadelfCounts CountWithReadelf(const std::string& path) {
  ReadelfCounts out;
  // Executable sections by index.
  std::map<int, U32> execEnd; // executable section -> its end address
  std::regex secRe(R"(^\s*\[\s*(\d+)\]\s+\S+\s+\S+\s+([0-9a-f]+)\s+[0-9a-f]+\s+([0-9a-f]+)\s+[0-9a-f]+\s+(\S*))");
  for (auto& l : SplitLines(RunTool("arm-none-eabi-readelf -SW " + path))) {
    std::smatch m;
    if (std::regex_search(l, m, secRe) && m[4].str().find('X') != std::string::npos)
      execEnd[atoi(m[1].str().c_str())] = Hex(m[2]) + Hex(m[3]);
  }
  std::set<U32> starts;
  std::regex symRe(R"(^\s*\d+: ([0-9a-f]+)\s+(\d+) FUNC\s+\S+\s+\S+\s+(\S+)\s+(\S+))");
  for (auto& l : SplitLines(RunTool("arm-none-eabi-readelf -sW " + path))) {
    std::smatch m;
    if (!std::regex_search(l, m, symRe)) continue;
    const std::string ndx = m[3], name = m[4];
    if (name[0] == '?' || name[0] == '$') continue;
    if (ndx == "UND" || (isdigit((unsigned char)ndx[0]) && !execEnd.count(atoi(ndx.c_str())))) continue;
    const U32 start = Hex(m[1]) & ~1u;
    // A symbol without size reaches to the next function or its section's end.
    if (strtoul(m[2].str().c_str(), nullptr, 10) == 0 &&
        !(isdigit((unsigned char)ndx[0]) && start < (execEnd[atoi(ndx.c_str())] & ~1u)))
      continue;
    starts.insert(start);
  }
  // .debug_ranges lists by offset.
  std::map<U32, std::vector<std::pair<U32, U32>>> ranges;
  std::regex rngRe(R"(^\s+([0-9a-f]{8}) ([0-9a-f]{8}) ([0-9a-f]{8}))");
  for (auto& l : SplitLines(RunTool("arm-none-eabi-readelf -wR " + path))) {
    std::smatch m;
    if (std::regex_search(l, m, rngRe)) ranges[Hex(m[1])].push_back({Hex(m[2]), Hex(m[3])});
  }
  // The debug entries.
  struct Die {
    std::string tag;
    int depth = 0;
    bool decl = false, artificial = false, staticAddr = false, hasLow = false, hasHigh = false, hasRanges = false;
    U32 low = 0, high = 0, rangesAt = 0, origin = 0;
    bool inFunction = false;
  };
  std::vector<Die> dies;
  std::vector<std::string> stack;
  std::regex dieRe(R"(^\s*<(\d+)><([0-9a-f]+)>: Abbrev Number: (\d+)(?: \((DW_TAG_\w+)\))?)");
  std::regex attrRe(R"(^\s*<[0-9a-f]+>\s+(DW_AT_\w+)\s*:\s*(.*)$)");
  for (auto& l : SplitLines(RunTool("arm-none-eabi-readelf -wi " + path))) {
    if (l.find("Contents of the .debug_types section") != std::string::npos) break;
    std::smatch m;
    if (std::regex_search(l, m, dieRe)) {
      const int depth = atoi(m[1].str().c_str());
      if (m[3] == "0") continue;
      stack.resize((size_t)depth);
      Die d;
      d.tag = m[4];
      d.depth = depth;
      for (auto& t : stack)
        d.inFunction |= t == "DW_TAG_subprogram" || t == "DW_TAG_inlined_subroutine" || t == "DW_TAG_lexical_block";
      stack.push_back(d.tag);
      dies.push_back(d);
      continue;
    }
    if (dies.empty() || !std::regex_search(l, m, attrRe)) continue;
    Die& d = dies.back();
    const std::string a = m[1], v = m[2];
    if (a == "DW_AT_declaration") d.decl = true;
    else if (a == "DW_AT_artificial") d.artificial = true;
    else if (a == "DW_AT_location") {
      const size_t op = v.find("(DW_OP_addr:");
      d.staticAddr = op != std::string::npos && v.find(';', op) == std::string::npos;
    } else if (a == "DW_AT_low_pc") {
      d.hasLow = true;
      d.low = HexAfter0x(v);
    } else if (a == "DW_AT_high_pc") {
      d.hasHigh = true;
      d.high = HexAfter0x(v);
    } else if (a == "DW_AT_ranges") {
      d.hasRanges = true;
      d.rangesAt = HexAfter0x(v);
    } else if (a == "DW_AT_abstract_origin") {
      d.origin = HexAfter0x(v);
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
  std::vector<U32> offsets;
  {
    // Second pass over the dump for the offsets of subprograms.
    std::regex re(R"(^\s*<\d+><([0-9a-f]+)>: Abbrev Number: [1-9]\d* \((DW_TAG_\w+)\))");
    for (auto& l : SplitLines(RunTool("arm-none-eabi-readelf -wi " + path))) {
      if (l.find("Contents of the .debug_types section") != std::string::npos) break;
      std::smatch m;
      if (std::regex_search(l, m, re)) offsets.push_back(Hex(m[1]));
    }
  }
  EXPECT_EQ(offsets.size(), dies.size());
  for (size_t i = 0; i < dies.size() && i < offsets.size(); ++i) {
    const Die& d = dies[i];
    if (d.tag != "DW_TAG_subprogram" || d.decl || d.artificial || origins.count(offsets[i])) continue;
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
  std::regex re(R"(^\s+Version:\s+(\d+)\s*$)");
  for (auto& l : SplitLines(RunTool("arm-none-eabi-readelf --debug-dump=info " + path))) {
    std::smatch m;
    if (std::regex_search(l, m, re)) v = std::max(v, std::stoi(m[1]));
  }
  return v;
}

// File.Open of the program in a batch run of the application, with a log file.
QString BatchOpenLog(const std::string& path, const std::string& name) {
  const QString dir = QString::fromLocal8Bit(qgetenv("TAVIT_TEST_TMP"));
  const QString logPath = dir + "/tables-counts-" + QString::fromStdString(name) + ".log";
  const QString script = dir + "/tables-counts-" + QString::fromStdString(name) + ".txt";
  QFile::remove(logPath);
  QFile sf(script);
  if (!sf.open(QIODevice::WriteOnly)) return QString();
  sf.write(QStringLiteral("File.Open(\"%1\")\n").arg(QString::fromStdString(path)).toUtf8());
  sf.close();
  QProcess p;
  p.start(QString::fromLocal8Bit(qgetenv("TAVIT_BUILD_DIR")) + "/tavit", {"-logfile", logPath, "-batch", script});
  if (!p.waitForFinished(60000) || p.exitCode() != 0) return QString();
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
                         [](const auto& info) {
                           std::string s = info.param;
                           for (char& c : s)
                             if (!isalnum((unsigned char)c)) c = '_';
                           return s;
                         });

} // namespace
