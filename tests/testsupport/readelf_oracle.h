// The cross binutils' readelf as an oracle: each listing the tests compare
// against, run once and parsed into plain records. Texts are kept as readelf
// prints them (types, flags, attribute values), numbers are decoded. A tool
// that is missing or a file it cannot read gives empty listings.
#pragma once
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace readelf {

// True when arm-none-eabi-readelf can be run.
bool Available();

// -h: the ELF header's fields by their names ("Entry point address", "Data",
// "Flags", ...), values trimmed.
std::map<std::string, std::string> Header(const std::string& sPath);

struct Section {  // -S
  int Index;
  std::string Name, Type, Flags;  // Flags as letters ("AX")
  uint32_t Addr, Offset, Size, EntSize, Link, Info, Align;
  bool Has(char cFlag) const { return Flags.find(cFlag) != std::string::npos; }
};
std::vector<Section> Sections(const std::string& sPath);

struct Segment {  // -l
  std::string Type, Flags;  // Flags as readelf's three columns ("R E")
  uint32_t Offset, VAddr, PAddr, FileSize, MemSize, Align;
};
std::vector<Segment> Segments(const std::string& sPath);

struct Symbol {  // -s
  uint32_t Value, Size;
  std::string Type, Bind, Vis, Ndx, Name;  // Ndx: a number, "UND", "ABS", "COM"
  bool InSection() const { return !Ndx.empty() && Ndx[0] >= '0' && Ndx[0] <= '9'; }
  int SectionIndex() const { return InSection() ? std::stoi(Ndx) : -1; }
};
std::vector<Symbol> Symbols(const std::string& sPath);

// All four tables from one run (-hSlsW).
struct Listing {
  std::map<std::string, std::string> Header;
  std::vector<Section> Sections;
  std::vector<Segment> Segments;
  std::vector<Symbol> Symbols;
};
Listing All(const std::string& sPath);

// --debug-dump=info: the units of .debug_info, then those of .debug_types.
struct Attr {
  uint32_t Offset;
  std::string Name, Value;  // Value as printed, e.g. "(indirect string, offset: 0x3e): main"
  // The value without a leading "(...): " form note.
  std::string Text() const;
  // The number in the value: hexadecimal behind "0x", else decimal.
  uint32_t Number() const;
};
struct Die {
  int Depth;
  uint32_t Offset;
  std::string Tag;
  std::vector<Attr> Attrs;  // in listing order
  const Attr* Find(const std::string& sName) const;
};
struct Unit {
  uint32_t Offset = 0;
  int Version = 0;
  bool TypeUnit = false;  // from .debug_types
  std::vector<Die> Dies;  // null entries left out
};
std::vector<Unit> DebugInfo(const std::string& sPath);

// -wR: the address pairs of each .debug_ranges list, by list offset.
std::map<uint32_t, std::vector<std::pair<uint32_t, uint32_t>>> RangeLists(const std::string& sPath);

// --debug-dump=decodedline: every row, the file by its last name part.
struct LineRow {
  std::string File;
  uint32_t Line, Addr;
};
std::vector<LineRow> DecodedLines(const std::string& sPath);

// --debug-dump=macro: line and text of each definition, in listing order.
std::vector<std::pair<uint32_t, std::string>> MacroDefinitions(const std::string& sPath);

// --debug-dump=frames-interp: each CIE and FDE with its table of rules.
struct CfiRow {
  uint32_t Loc;
  std::string Cfa;                 // "r13+8"
  std::vector<std::string> Rules;  // one for each of Columns: "u", "c-4", "r7", ...
};
struct CfiTable {
  bool Cie = false;
  uint32_t Start = 0, End = 0;       // FDE: pc=Start..End
  std::vector<std::string> Columns;  // register columns after LOC and CFA: "r4", "ra", ...
  std::vector<CfiRow> Rows;
};
std::vector<CfiTable> FrameTables(const std::string& sPath);

}  // namespace readelf
