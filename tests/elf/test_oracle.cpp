// Checks tavit-dump on every ELF file under firmware/ against the cross
// binutils: readelf -hSlsW field by field, objcopy -O binary / -O srec for
// the program data, and the function list recomputed from readelf's symbol
// table. Big-endian twins must agree with their little-endian files.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QString>
#include <QStringList>
#include <gtest/gtest.h>

#include "testsupport/process.h"
#include "testsupport/readelf_oracle.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <vector>

// Readable failure messages for Qt texts.
QT_BEGIN_NAMESPACE
inline void PrintTo(const QString& s, std::ostream* os) { *os << '"' << s.toStdString() << '"'; }
inline void PrintTo(const QStringList& l, std::ostream* os) {
  *os << "\n";
  for (const QString& s : l) *os << "  " << s.toStdString() << "\n";
}
QT_END_NAMESPACE

namespace {
using U32 = uint32_t;

QString Env(const char* s) { return QString::fromLocal8Bit(qgetenv(s)); }

QString RunTool(const QString& sProgram, const QStringList& Args, int* pExit = nullptr) {
  const testsupport::RUN r = testsupport::RunProcess(sProgram, Args);
  if (pExit) *pExit = r.Exit;
  return r.Out;
}

QString Dump() { return testsupport::BuiltProgram("tavit-dump"); }

QStringList CorpusFiles() {
  QStringList files;
  QDirIterator it(Env("TAVIT_SOURCE_DIR") + "/firmware", {"*.elf"}, QDir::Files, QDirIterator::Subdirectories);
  while (it.hasNext()) files << it.next();
  files.sort();
  return files;
}

U32 Hex(const QString& s) { return U32(s.toULongLong(nullptr, 16)); }

using Sym = readelf::Symbol;

// The ELF numbers of readelf's texts; unknown texts give -1.
long long Code(const std::map<std::string, long long>& m, const std::string& s) {
  auto i = m.find(s);
  return i == m.end() ? -1 : i->second;
}
long long SectionType(const std::string& s) {
  static const std::map<std::string, long long> m = {
      {"NULL", 0}, {"PROGBITS", 1}, {"SYMTAB", 2}, {"STRTAB", 3}, {"RELA", 4}, {"HASH", 5}, {"DYNAMIC", 6},
      {"NOTE", 7}, {"NOBITS", 8}, {"REL", 9}, {"DYNSYM", 11}, {"INIT_ARRAY", 14}, {"FINI_ARRAY", 15},
      {"PREINIT_ARRAY", 16}, {"GROUP", 17}, {"ARM_EXIDX", 0x70000001}, {"ARM_PREEMPTMAP", 0x70000002},
      {"ARM_ATTRIBUTES", 0x70000003}};
  return Code(m, s);
}
long long SectionFlags(const std::string& sLetters) {
  static const std::map<char, U32> f = {{'W', 1}, {'A', 2}, {'X', 4}, {'M', 0x10}, {'S', 0x20}, {'I', 0x40},
                                        {'L', 0x80}, {'O', 0x100}, {'G', 0x200}, {'T', 0x400}, {'C', 0x800},
                                        {'E', 0x80000000u}, {'y', 0x20000000u}};
  long long Flags = 0;
  for (char c : sLetters) {
    if (!f.count(c)) return -1;
    Flags |= f.at(c);
  }
  return Flags;
}
long long SegmentType(const std::string& s) {
  static const std::map<std::string, long long> t = {{"NULL", 0}, {"LOAD", 1}, {"DYNAMIC", 2}, {"INTERP", 3},
                                                     {"NOTE", 4}, {"PHDR", 6}, {"TLS", 7}, {"EXIDX", 0x70000001},
                                                     {"GNU_STACK", 0x6474E551}};
  return Code(t, s);
}
long long SymbolType(const Sym& s) {
  return Code({{"NOTYPE", 0}, {"OBJECT", 1}, {"FUNC", 2}, {"SECTION", 3}, {"FILE", 4}, {"COMMON", 5}, {"TLS", 6}},
              s.Type);
}
int SymbolNdx(const Sym& s) { return s.Ndx == "ABS" ? 0xFFF1 : s.Ndx == "COM" ? 0xFFF2 : std::max(s.SectionIndex(), 0); }
QString Q(const std::string& s) { return QString::fromStdString(s); }

// The sizes that the debugger completes for symbols without one, recomputed
// from readelf's table with the alignment of 2.
void CompleteSizes(const readelf::Listing& e, std::vector<Sym>& syms) {
  std::vector<int> order(syms.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = int(i);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return syms[a].Value < syms[b].Value; });
  auto secEnd = [&](const Sym& s, U32* end) {
    const int n = SymbolNdx(s);
    if (n <= 0 || size_t(n) >= e.Sections.size()) return false;
    *end = e.Sections[n].Addr + e.Sections[n].Size;
    return true;
  };
  auto isFunc = [](const Sym& s) { return s.Type == "FUNC"; };
  auto align = [](U32 a) { return a & ~1u; };
  for (size_t i = 0; i < order.size(); ++i) {
    Sym& s = syms[order[i]];
    if (s.Size || s.Type != "OBJECT") continue;
    for (size_t j = i + 1; j < order.size() && j <= i + 9; ++j) {
      const U32 v = syms[order[j]].Value;
      if (v <= s.Value) continue;
      U32 end;
      if (secEnd(s, &end) && v <= end) s.Size = v - s.Value > 10000000 ? 0 : v - s.Value;
      break;
    }
  }
  for (size_t i = 0; i < order.size(); ++i) {
    Sym& s = syms[order[i]];
    U32 end;
    if (s.Size || !isFunc(s) || !secEnd(s, &end)) continue;
    const U32 start = align(s.Value);
    end = align(end);
    if (end <= start) continue;
    for (size_t j = i + 1; j < order.size(); ++j)
      if (isFunc(syms[order[j]]) && syms[order[j]].Value > s.Value) {
        end = std::min(end, align(syms[order[j]].Value));
        break;
      }
    if (end > start) s.Size = end - start > 10000000 ? 0 : end - start;
  }
}

QStringList ExpectedFunctions(const std::vector<Sym>& syms) {
  std::vector<int> order(syms.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = int(i);
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return syms[a].Value < syms[b].Value; });
  std::vector<int> kept;
  for (int r : order) {
    const Sym& s = syms[r];
    if (s.Type != "FUNC" || s.Value < 2 || s.Name.empty() || s.Name[0] == '$' || s.Name[0] == '?')
      continue;
    if (kept.empty() || syms[kept.back()].Value != s.Value) kept.push_back(r);
    else if (s.Size > syms[kept.back()].Size || (s.Size == syms[kept.back()].Size && r < kept.back())) kept.back() = r;
  }
  QStringList out;
  for (int r : kept)
    out << QString::asprintf("0x%08X 0x%X %s", syms[r].Value & ~1u, syms[r].Size, syms[r].Name.c_str());
  return out;
}

// Splits tavit-dump's output into its tables: rows of whitespace-separated
// columns, the name (last column) kept whole even when it is empty.
std::map<QString, std::vector<QStringList>> ParseDump(const QString& out, std::map<QString, int> nCols) {
  std::map<QString, std::vector<QStringList>> t;
  QString current;
  for (const QString& line : out.split('\n')) {
    if (line.isEmpty()) continue;
    if (!line.startsWith(' ') && line.contains(':') && !line.startsWith("0x")) {
      current = line.left(line.indexOf(':'));
      continue;
    }
    if (line.startsWith("  Nr ") || line.startsWith("   Row ")) continue;
    const int n = nCols.count(current) ? nCols[current] : 0;
    QStringList parts = line.trimmed().split(QRegularExpression("\\s+"));
    if (n && parts.size() >= n - 1) {
      // Re-split keeping the name intact.
      QString rest = line.trimmed();
      QStringList cols;
      for (int i = 0; i < n - 1; ++i) {
        const int sp = rest.indexOf(QRegularExpression("\\s"));
        cols << (sp < 0 ? rest : rest.left(sp));
        rest = sp < 0 ? QString() : rest.mid(sp).trimmed();
      }
      cols << rest;
      t[current].push_back(cols);
    } else {
      t[current].push_back(parts);
    }
  }
  return t;
}

U32 Num(const QString& s) { return U32(s.toULongLong(nullptr, 0)); }

class ElfOracle : public ::testing::Test {
protected:
  void SetUp() override {
    if (!readelf::Available()) GTEST_SKIP() << "arm-none-eabi-readelf not installed";
    files = CorpusFiles();
    ASSERT_FALSE(files.isEmpty()) << "no ELF files under firmware/";
  }
  QStringList files;
};

TEST_F(ElfOracle, SectionsSegmentsSymbolsAndFunctionsMatchReadelf) {
  for (const QString& file : files) {
    SCOPED_TRACE(file.toStdString());
    const readelf::Listing e = readelf::All(file.toStdString());
    auto H = [&](const char* k) { return Q(e.Header.at(k)); };
    int rc = 0;
    const QString out = RunTool(Dump(), {"--header", "--sections", "--segments", "--symbols", file}, &rc);
    ASSERT_EQ(rc, 0);
    auto t = ParseDump(out, {{"Sections", 11}, {"Symbols", 8}});
    // Header.
    std::map<QString, QString> h;
    for (const QString& line : out.split('\n'))
      if (line.startsWith("  ") && line.contains(':') && !line.startsWith("  Nr"))
        h[line.left(line.indexOf(':')).trimmed()] = line.mid(line.indexOf(':') + 1).trimmed();
    EXPECT_EQ(Num(h["Entry"]), Num(H("Entry point address")));
    EXPECT_EQ(Num(h["Entry PC"]), Num(H("Entry point address")) & ~1u);
    EXPECT_EQ(Num(h["Flags"]), Num(H("Flags").section(',', 0, 0)));
    EXPECT_EQ(h["Data"].startsWith("big"), H("Data").contains("big endian"));
    EXPECT_EQ(Num(h["Program headers at"]), H("Start of program headers").section(' ', 0, 0).toUInt());
    EXPECT_EQ(Num(h["Section headers at"]), H("Start of section headers").section(' ', 0, 0).toUInt());
    EXPECT_EQ(h["Program headers"], H("Number of program headers"));
    EXPECT_EQ(h["Section headers"], H("Number of section headers"));
    EXPECT_EQ(h["Section names index"], H("Section header string table index"));
    EXPECT_EQ(h["Type"], "2");
    EXPECT_EQ(h["Machine"], "40");
    // Sections.
    const auto& secs = t["Sections"];
    ASSERT_EQ(secs.size(), e.Sections.size());
    for (size_t i = 0; i < secs.size(); ++i) {
      const QStringList& c = secs[i];
      const readelf::Section& s = e.Sections[i];
      SCOPED_TRACE(s.Name);
      EXPECT_EQ(c[0].toUInt(), i);
      if (SectionType(s.Type) >= 0) {EXPECT_EQ(Num(c[1]), SectionType(s.Type));}
      if (SectionFlags(s.Flags) >= 0) {EXPECT_EQ(Num(c[2]), SectionFlags(s.Flags));}
      EXPECT_EQ(Num(c[3]), s.Addr);
      EXPECT_EQ(Num(c[4]), s.Offset);
      EXPECT_EQ(Num(c[5]), s.Size);
      EXPECT_EQ(Num(c[6]), s.EntSize);
      EXPECT_EQ(c[7].toUInt(), s.Link);
      EXPECT_EQ(c[8].toUInt(), s.Info);
      EXPECT_EQ(c[9].toUInt(), s.Align);
      EXPECT_EQ(c[10], Q(s.Name));
    }
    // Segments.
    const auto& segs = t["Segments"];
    ASSERT_EQ(segs.size(), e.Segments.size());
    for (size_t i = 0; i < segs.size(); ++i) {
      const QStringList& c = segs[i];
      const readelf::Segment& s = e.Segments[i];
      if (SegmentType(s.Type) >= 0) {EXPECT_EQ(Num(c[1]), SegmentType(s.Type));}
      EXPECT_EQ(Num(c[2]), s.Offset);
      EXPECT_EQ(Num(c[3]), s.VAddr);
      EXPECT_EQ(Num(c[4]), s.PAddr);
      EXPECT_EQ(Num(c[5]), s.FileSize);
      EXPECT_EQ(Num(c[6]), s.MemSize);
      EXPECT_EQ(Num(c[7]), U32((s.Flags[0] == 'R' ? 4 : 0) | (s.Flags[1] == 'W' ? 2 : 0) | (s.Flags[2] == 'E' ? 1 : 0)));
      EXPECT_EQ(Num(c[8]), s.Align);
    }
    // Symbols, with completed sizes.
    std::vector<Sym> syms = e.Symbols;
    CompleteSizes(e, syms);
    const auto& rows = t["Symbols"];
    ASSERT_EQ(rows.size(), syms.size());
    for (size_t i = 0; i < rows.size(); ++i) {
      const QStringList& c = rows[i];
      const Sym& s = syms[i];
      SCOPED_TRACE(s.Name);
      EXPECT_EQ(Num(c[1]), s.Value);
      EXPECT_EQ(Num(c[2]), s.Size);
      if (SymbolType(s) >= 0) {EXPECT_EQ(c[3].toInt(), SymbolType(s));}
      const long long Bind = Code({{"LOCAL", 0}, {"GLOBAL", 1}, {"WEAK", 2}}, s.Bind);
      if (Bind >= 0) {EXPECT_EQ(c[4].toInt(), Bind);}
      const long long Vis = Code({{"DEFAULT", 0}, {"INTERNAL", 1}, {"HIDDEN", 2}, {"PROTECTED", 3}}, s.Vis);
      if (Vis >= 0) {EXPECT_EQ(Num(c[5]) & 3, U32(Vis));}
      EXPECT_EQ(c[6].toInt(), SymbolNdx(s));
      // readelf shows a section symbol by its section's name.
      if (s.Type != "SECTION" || !c[7].isEmpty()) {EXPECT_EQ(c[7], Q(s.Name));}
    }
    // Function list.
    const QString fout = RunTool(Dump(), {"--functions", file}, &rc);
    ASSERT_EQ(rc, 0);
    EXPECT_EQ(fout.split('\n', Qt::SkipEmptyParts), ExpectedFunctions(syms));
  }
}

// Program data blocks from tavit-dump: load address -> bytes.
std::map<U32, QByteArray> ProgramData(const QString& file, const QStringList& extra = {}) {
  std::map<U32, QByteArray> blocks;
  const QString out = RunTool(Dump(), QStringList{"--program-data"} + extra + QStringList{file});
  static const QRegularExpression block(R"(^Block load=0x([0-9A-F]+) run=0x([0-9A-F]+) size=0x([0-9A-F]+)$)");
  U32 current = 0;
  for (const QString& line : out.split('\n')) {
    QRegularExpressionMatch m = block.match(line);
    if (m.hasMatch()) {
      current = Hex(m.captured(1));
      blocks[current];
    } else if (line.startsWith("  ") && line.contains(':')) {
      for (const QString& b : line.mid(line.indexOf(':') + 1).split(' ', Qt::SkipEmptyParts))
        blocks[current].append(char(b.toUInt(nullptr, 16)));
    }
  }
  return blocks;
}

TEST_F(ElfOracle, ProgramDataMatchesObjcopy) {
  const QString tmp = Env("TAVIT_TEST_TMP");
  for (const QString& file : files) {
    SCOPED_TRACE(file.toStdString());
    const std::map<U32, QByteArray> blocks = ProgramData(file);
    ASSERT_FALSE(blocks.empty());
    // Each byte of the S-records stands in one of our blocks, and each of our
    // bytes that S-records do not cover is padding (zero).
    const QString srec = tmp + "/data.srec";
    int rc = 0;
    RunTool("arm-none-eabi-objcopy", {"-O", "srec", file, srec}, &rc);
    ASSERT_EQ(rc, 0);
    QFile f(srec);
    ASSERT_TRUE(f.open(QIODevice::ReadOnly));
    std::map<U32, char> covered;
    for (const QByteArray& raw : f.readAll().split('\n')) {
      const QString line = QString::fromLatin1(raw).trimmed();
      if (line.size() < 4 || line[0] != 'S') continue;
      const int kind = line[1].digitValue();
      if (kind < 1 || kind > 3) continue;
      const int addrLen = (kind + 1) * 2;
      const int count = line.mid(2, 2).toInt(nullptr, 16);
      U32 addr = Hex(line.mid(4, addrLen));
      const int nData = count - (kind + 1) - 1;
      for (int i = 0; i < nData; ++i) covered[addr++] = char(line.mid(4 + addrLen + 2 * i, 2).toUInt(nullptr, 16));
    }
    size_t ours = 0;
    for (const auto& [load, bytes] : blocks) {
      for (int i = 0; i < bytes.size(); ++i) {
        auto it = covered.find(load + U32(i));
        if (it == covered.end()) {
          ASSERT_EQ(bytes[i], 0) << "uncovered byte at " << std::hex << load + i;
        } else {
          ASSERT_EQ(bytes[i], it->second) << "at " << std::hex << load + i;
          ++ours;
        }
      }
    }
    EXPECT_EQ(ours, covered.size());
    // The flat binary from the lowest to the highest load address.
    const U32 lo = blocks.begin()->first;
    U32 hi = 0;
    for (const auto& [load, bytes] : blocks) hi = std::max<U32>(hi, load + U32(bytes.size()));
    if (hi - lo > (16u << 20)) continue;
    QByteArray image(int(hi - lo), 0);
    for (const auto& [load, bytes] : blocks) image.replace(int(load - lo), bytes.size(), bytes);
    const QString bin = tmp + "/data.bin";
    RunTool("arm-none-eabi-objcopy", {"-O", "binary", file, bin}, &rc);
    ASSERT_EQ(rc, 0);
    QFile fb(bin);
    ASSERT_TRUE(fb.open(QIODevice::ReadOnly));
    EXPECT_TRUE(fb.readAll() == image);
  }
}

TEST_F(ElfOracle, BigEndianTwinsAgree) {
  int pairs = 0;
  for (const QString& be : files) {
    if (!be.endsWith("-be.elf")) continue;
    const QString le = be.left(be.size() - 7) + ".elf";
    if (!QFile::exists(le)) continue;
    SCOPED_TRACE(be.toStdString());
    ++pairs;
    // The twins are compiled separately, so code sizes and addresses may
    // differ; everything else must read the same.
    auto symbols = [&](const QString& f) {
      QStringList out;
      auto t = ParseDump(RunTool(Dump(), {"--symbols", f}), {{"Symbols", 8}});
      for (const QStringList& c : t["Symbols"]) {
        // name, type, binding, section; object sizes too
        QString row = c[7] + " " + c[3] + " " + c[4] + " " + c[6];
        if (c[3] == "1") row += " " + c[2];
        out << row;
      }
      return out;
    };
    EXPECT_EQ(symbols(be), symbols(le));
    auto functions = [&](const QString& f) {
      QStringList out;
      for (const QString& line : RunTool(Dump(), {"--functions", f}).split('\n', Qt::SkipEmptyParts))
        out << line.section(' ', 2);
      return out;
    };
    EXPECT_EQ(functions(be), functions(le));
    auto secs = [&](const QString& f) {
      QStringList out;
      auto t = ParseDump(RunTool(Dump(), {"--sections", f}), {{"Sections", 11}});
      for (const QStringList& c : t["Sections"]) out << c[10] + " " + c[1] + " " + c[2];
      return out;
    };
    EXPECT_EQ(secs(be), secs(le));
    const auto a = ProgramData(be), b = ProgramData(le);
    ASSERT_EQ(a.size(), b.size());
    if (!a.empty()) {EXPECT_EQ(a.begin()->first, b.begin()->first) << "vector table";}
  }
  if (!pairs) GTEST_SKIP() << "no big-endian twin in the corpus";
}

TEST_F(ElfOracle, RelocationShiftsAddresses) {
  const QString file = files.front();
  const QString plain = RunTool(Dump(), {"--sections", "--symbols", file});
  const QString moved = RunTool(Dump(), {"--relocate", "*:0x10000", "--sections", "--symbols", file});
  auto t0 = ParseDump(plain, {{"Sections", 11}, {"Symbols", 8}});
  auto t1 = ParseDump(moved, {{"Sections", 11}, {"Symbols", 8}});
  ASSERT_EQ(t0["Sections"].size(), t1["Sections"].size());
  for (size_t i = 0; i < t0["Sections"].size(); ++i)
    EXPECT_EQ(Num(t1["Sections"][i][3]), Num(t0["Sections"][i][3]) + 0x10000);
  ASSERT_EQ(t0["Symbols"].size(), t1["Symbols"].size());
  for (size_t i = 0; i < t0["Symbols"].size(); ++i)
    EXPECT_EQ(Num(t1["Symbols"][i][1]), Num(t0["Symbols"][i][1]) + 0x10000);
  // Functions: the same list, every start shifted.
  const QStringList f0 = RunTool(Dump(), {"--functions", file}).split('\n', Qt::SkipEmptyParts);
  const QStringList f1 =
      RunTool(Dump(), {"--relocate=*:0x10000", "--functions", file}).split('\n', Qt::SkipEmptyParts);
  ASSERT_EQ(f0.size(), f1.size());
  for (int i = 0; i < f0.size(); ++i) {
    EXPECT_EQ(Num(f1[i].section(' ', 0, 0)), Num(f0[i].section(' ', 0, 0)) + 0x10000);
    EXPECT_EQ(f1[i].section(' ', 1), f0[i].section(' ', 1));
  }
  // A section range moves only what lies in that section.
  const QString text = RunTool(Dump(), {"--relocate", ".text:-0x100", "--functions", file});
  const QStringList ft = text.split('\n', Qt::SkipEmptyParts);
  ASSERT_EQ(ft.size(), f0.size());
  U32 lo = 0, hi = 0;
  for (const readelf::Section& s : readelf::Sections(file.toStdString()))
    if (s.Name == ".text") lo = s.Addr, hi = s.Addr + s.Size;
  for (int i = 0; i < f0.size(); ++i) {
    const U32 a = Num(f0[i].section(' ', 0, 0));
    // Starts are aligned; the raw value (Thumb bit) decides the range.
    const bool inText = a + 1 > lo && a < hi;
    EXPECT_EQ(Num(ft[i].section(' ', 0, 0)), inText ? a - 0x100 : a) << f0[i].toStdString();
  }
  // Errors: a range that names nothing.
  int rc = 0;
  RunTool(Dump(), {"--relocate", "no_such_thing:4", "--functions", file}, &rc);
  EXPECT_EQ(rc, 1);
}

TEST_F(ElfOracle, ExprTokensNeedNoFile) {
  int rc = 0;
  const QStringList lines = RunTool(Dump(), {"--expr-tokens", "a + b * 2"}, &rc).split('\n', Qt::SkipEmptyParts);
  EXPECT_EQ(rc, 0);
  EXPECT_TRUE(lines.contains("postfix: a b 2 * +")) << lines.join('\n').toStdString();
}

TEST_F(ElfOracle, ErrorsGoToStderrWithExitStatus1) {
  testsupport::RUN r = testsupport::RunProcess(Dump(), {"--sections", Env("TAVIT_TEST_TMP") + "/missing.elf"});
  EXPECT_EQ(r.Exit, 1);
  EXPECT_TRUE(r.Out.isEmpty());
  EXPECT_EQ(r.Err.trimmed(), "ELF error (1125): file could not be opened for reading.");
  r = testsupport::RunProcess(Dump(), {"--sections", Env("TAVIT_SOURCE_DIR") + "/CMakeLists.txt"});
  EXPECT_EQ(r.Exit, 1);
  EXPECT_EQ(r.Err.trimmed(), "ELF error (1118): file not tagged with ELF magic number.");
}
} // namespace
