#include "testsupport/readelf_oracle.h"

#include <cstdlib>
#include <regex>
#include <sstream>

#include "testsupport/tools.h"

namespace readelf {
namespace {

std::string Run(const std::string& sOptions, const std::string& sPath) {
  return RunToolOutput("arm-none-eabi-readelf " + sOptions + " '" + sPath + "' 2>/dev/null");
}

uint32_t Hex(const std::string& s) { return uint32_t(strtoull(s.c_str(), nullptr, 16)); }
uint32_t Dec(const std::string& s) { return uint32_t(strtoull(s.c_str(), nullptr, 10)); }
// readelf prints large sizes in hexadecimal with "0x".
uint32_t Size(const std::string& s) { return s.rfind("0x", 0) == 0 ? Hex(s.substr(2)) : Dec(s); }

std::string Trim(const std::string& s) {
  const size_t b = s.find_first_not_of(" \t"), e = s.find_last_not_of(" \t");
  return b == std::string::npos ? std::string() : s.substr(b, e - b + 1);
}

Listing Parse(const std::string& sOut) {
  static const std::regex Hdr(R"(^  ([A-Za-z][^:]*):\s+(.*)$)");
  static const std::regex Sec(
      R"(^\s*\[\s*(\d+)\]\s+(\S*)\s+(\S+)\s+([0-9a-f]{8})\s+([0-9a-f]{6,})\s+([0-9a-f]{6,})\s+([0-9a-f]{2})\s+([A-Za-z]*)\s+(\d+)\s+(\d+)\s+(\d+)$)");
  static const std::regex Seg(
      R"(^\s+(\S+)\s+0x([0-9a-f]+)\s+0x([0-9a-f]+)\s+0x([0-9a-f]+)\s+0x([0-9a-f]+)\s+0x([0-9a-f]+)\s+([RWE ]{3})\s+0x([0-9a-f]+)$)");
  static const std::regex Sym(
      R"(^\s*(\d+):\s+([0-9a-f]{8})\s+(0x[0-9a-f]+|\d+)\s+(\S+)\s+(\S+)\s+(\S+)\s+(\S+)\s?(.*)$)");
  Listing L;
  bool InHeader = false;
  std::smatch m;
  for (const std::string& Line : SplitLines(sOut)) {
    if (Line == "ELF Header:") {
      InHeader = true;
    } else if (InHeader) {
      if (std::regex_match(Line, m, Hdr)) L.Header[Trim(m[1])] = Trim(m[2]);
      else InHeader = false;
    } else if (std::regex_match(Line, m, Sec)) {
      L.Sections.push_back({std::stoi(m[1]), m[2], m[3], m[8], Hex(m[4]), Hex(m[5]), Hex(m[6]), Hex(m[7]),
                            Dec(m[9]), Dec(m[10]), Dec(m[11])});
    } else if (std::regex_match(Line, m, Seg)) {
      L.Segments.push_back({m[1], m[7], Hex(m[2]), Hex(m[3]), Hex(m[4]), Hex(m[5]), Hex(m[6]), Hex(m[8])});
    } else if (std::regex_match(Line, m, Sym)) {
      L.Symbols.push_back({Hex(m[2]), Size(m[3]), m[4], m[5], m[6], m[7], m[8]});
    }
  }
  return L;
}

}  // namespace

bool Available() { return !RunToolOutput("arm-none-eabi-readelf --version 2>/dev/null").empty(); }

std::map<std::string, std::string> Header(const std::string& sPath) { return Parse(Run("-hW", sPath)).Header; }
std::vector<Section> Sections(const std::string& sPath) { return Parse(Run("-SW", sPath)).Sections; }
std::vector<Segment> Segments(const std::string& sPath) { return Parse(Run("-lW", sPath)).Segments; }
std::vector<Symbol> Symbols(const std::string& sPath) { return Parse(Run("-sW", sPath)).Symbols; }
Listing All(const std::string& sPath) { return Parse(Run("-hSlsW", sPath)); }

std::string Attr::Text() const {
  if (Value.empty() || Value[0] != '(') return Value;
  const size_t At = Value.find("): ");
  return At == std::string::npos ? Value : Value.substr(At + 3);
}

uint32_t Attr::Number() const {
  const size_t At = Value.find("0x");
  return At == std::string::npos ? Dec(Value) : Hex(Value.substr(At + 2));
}

const Attr* Die::Find(const std::string& sName) const {
  for (const Attr& a : Attrs)
    if (a.Name == sName) return &a;
  return nullptr;
}

std::vector<Unit> DebugInfo(const std::string& sPath) {
  static const std::regex UnitRe(R"(^\s*Compilation Unit @ offset (0x[0-9a-f]+|[0-9a-f]+):)");
  static const std::regex VersionRe(R"(^\s+Version:\s+(\d+)\s*$)");
  static const std::regex DieRe(R"(^\s*<(\d+)><([0-9a-f]+)>: Abbrev Number: (\d+)(?: \((DW_TAG_\w+)\))?)");
  static const std::regex AttrRe(R"(^\s*<([0-9a-f]+)>\s+(DW_AT_\w+)\s*:\s*(.*)$)");
  std::vector<Unit> Units;
  bool Types = false;
  std::smatch m;
  for (const std::string& Line : SplitLines(Run("--debug-dump=info", sPath))) {
    if (Line.find("Contents of the .debug_types section") != std::string::npos) {
      Types = true;
    } else if (std::regex_search(Line, m, UnitRe)) {
      Unit u;
      u.Offset = Hex(m[1].str().rfind("0x", 0) == 0 ? m[1].str().substr(2) : m[1].str());
      u.TypeUnit = Types;
      Units.push_back(u);
    } else if (Units.empty()) {
      continue;
    } else if (Units.back().Dies.empty() && std::regex_match(Line, m, VersionRe)) {
      Units.back().Version = std::stoi(m[1]);
    } else if (std::regex_search(Line, m, DieRe)) {
      if (m[3] != "0") Units.back().Dies.push_back({std::stoi(m[1]), Hex(m[2]), m[4], {}});
    } else if (!Units.back().Dies.empty() && std::regex_search(Line, m, AttrRe)) {
      Units.back().Dies.back().Attrs.push_back({Hex(m[1]), m[2], m[3]});
    }
  }
  return Units;
}

std::map<uint32_t, std::vector<std::pair<uint32_t, uint32_t>>> RangeLists(const std::string& sPath) {
  static const std::regex Re(R"(^\s+([0-9a-f]{8}) ([0-9a-f]{8}) ([0-9a-f]{8}))");
  std::map<uint32_t, std::vector<std::pair<uint32_t, uint32_t>>> Lists;
  std::smatch m;
  for (const std::string& Line : SplitLines(Run("-wR", sPath)))
    if (std::regex_search(Line, m, Re)) Lists[Hex(m[1])].push_back({Hex(m[2]), Hex(m[3])});
  return Lists;
}

std::vector<LineRow> DecodedLines(const std::string& sPath) {
  static const std::regex Re(R"(^(\S+)\s+(\d+)\s+(0x[0-9a-f]+)(\s.*)?$)");
  std::vector<LineRow> Rows;
  std::smatch m;
  for (const std::string& Line : SplitLines(Run("-W --debug-dump=decodedline", sPath)))
    if (std::regex_match(Line, m, Re)) {
      const std::string Name = m[1];
      Rows.push_back({Name.substr(Name.find_last_of('/') + 1), Dec(m[2]), Hex(m[3].str().substr(2))});
    }
  return Rows;
}

std::vector<std::pair<uint32_t, std::string>> MacroDefinitions(const std::string& sPath) {
  static const std::regex Re(R"(^ DW_MAC(?:INFO|RO)_define\w* - lineno ?: (\d+) macro : (.*)$)");
  std::vector<std::pair<uint32_t, std::string>> Defs;
  std::smatch m;
  for (const std::string& Line : SplitLines(Run("--debug-dump=macro", sPath)))
    if (std::regex_match(Line, m, Re)) Defs.push_back({Dec(m[1]), m[2]});
  return Defs;
}

std::vector<CfiTable> FrameTables(const std::string& sPath) {
  static const std::regex CieRe(R"(^[0-9a-f]+ [0-9a-f]+ [0-9a-f]+ CIE)");
  static const std::regex FdeRe(R"(FDE cie=[0-9a-f]+ pc=([0-9a-f]+)\.\.([0-9a-f]+))");
  static const std::regex RowRe(R"(^([0-9a-f]{8}) (\S+)\s*(.*)$)");
  std::vector<CfiTable> Tables;
  std::smatch m;
  for (const std::string& Line : SplitLines(Run("-W --debug-dump=frames-interp", sPath))) {
    if (std::regex_search(Line, m, CieRe)) {
      Tables.emplace_back().Cie = true;
    } else if (std::regex_search(Line, m, FdeRe)) {
      CfiTable& t = Tables.emplace_back();
      t.Start = Hex(m[1]);
      t.End = Hex(m[2]);
    } else if (Tables.empty()) {
      continue;
    } else if (Line.rfind("   LOC   CFA", 0) == 0) {
      std::istringstream In(Line.substr(12));
      Tables.back().Columns.clear();
      for (std::string c; In >> c;) Tables.back().Columns.push_back(c);
    } else if (std::regex_match(Line, m, RowRe)) {
      CfiRow r{Hex(m[1]), m[2], {}};
      std::istringstream In(m[3].str());
      for (std::string c; In >> c;) r.Rules.push_back(c);
      Tables.back().Rows.push_back(r);
    }
  }
  return Tables;
}

}  // namespace readelf
