// Minimal ELF32 reader for the core plug-in tests: loadable content, sections
// and the symbol table, in either byte order. Independent of the program's
// own ELF layer on purpose.
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

struct TestElf {
  struct Segment { uint32_t Addr; std::vector<uint8_t> Data; };
  struct Section { std::string Name; uint32_t Addr, Size, Flags, Type; };
  struct Symbol { std::string Name; uint32_t Value, Size; uint8_t Type; uint16_t Shndx; };
  struct Range { uint32_t Start; char Kind; };  // 't', 'a' or 'd'

  std::vector<uint8_t> File;
  bool Big = false;
  uint32_t Flags = 0, Entry = 0;
  std::vector<Segment> Segments;
  std::vector<Section> Sections;
  std::vector<Symbol> Symbols;
  std::vector<Range> Ranges;  // sorted mapping ranges

  uint32_t U32At(size_t o) const {
    if (o + 4 > File.size()) return 0;
    const uint8_t* p = &File[o];
    return Big ? (uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3])
               : (uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]);
  }
  uint16_t U16At(size_t o) const {
    if (o + 2 > File.size()) return 0;
    const uint8_t* p = &File[o];
    return Big ? uint16_t(p[0] << 8 | p[1]) : uint16_t(p[1] << 8 | p[0]);
  }

  bool Load(const std::string& sPath) {
    std::ifstream f(sPath, std::ios::binary);
    if (!f) return false;
    File.assign(std::istreambuf_iterator<char>(f), {});
    if (File.size() < 52 || memcmp(File.data(), "\x7f" "ELF", 4) != 0 || File[4] != 1) return false;
    Big = File[5] == 2;
    Entry = U32At(24);
    uint32_t PhOff = U32At(28), ShOff = U32At(32);
    Flags = U32At(36);
    uint16_t PhEntSize = U16At(42), PhNum = U16At(44), ShEntSize = U16At(46), ShNum = U16At(48), ShStrNdx = U16At(50);
    for (uint16_t i = 0; i < PhNum; ++i) {
      size_t o = PhOff + size_t(i) * PhEntSize;
      if (U32At(o) != 1) continue;  // PT_LOAD
      uint32_t Off = U32At(o + 4), PAddr = U32At(o + 12), FileSz = U32At(o + 16);
      (void)PAddr;
      uint32_t VAddr = U32At(o + 8);
      if (FileSz == 0 || size_t(Off) + FileSz > File.size()) continue;
      Segments.push_back({VAddr, std::vector<uint8_t>(File.begin() + Off, File.begin() + Off + FileSz)});
    }
    std::vector<uint32_t> ShOffs;
    uint32_t StrOff = 0;
    if (ShStrNdx < ShNum) StrOff = U32At(ShOff + size_t(ShStrNdx) * ShEntSize + 16);
    uint32_t SymOff = 0, SymSize = 0, SymStrOff = 0;
    for (uint16_t i = 0; i < ShNum; ++i) {
      size_t o = ShOff + size_t(i) * ShEntSize;
      Section s{Str(StrOff + U32At(o)), U32At(o + 12), U32At(o + 20), U32At(o + 8), U32At(o + 4)};
      Sections.push_back(s);
      if (s.Type == 2) {  // SHT_SYMTAB
        SymOff = U32At(o + 16);
        SymSize = U32At(o + 20);
        uint32_t Link = U32At(o + 24);
        if (Link < ShNum) SymStrOff = U32At(ShOff + size_t(Link) * ShEntSize + 16);
      }
    }
    for (uint32_t o = SymOff; o + 16 <= SymOff + SymSize && o + 16 <= File.size(); o += 16) {
      Symbol y{Str(SymStrOff + U32At(o)), U32At(o + 4), U32At(o + 8), uint8_t(File[o + 12] & 0xF), U16At(o + 14)};
      Symbols.push_back(y);
      if (y.Name.size() >= 2 && y.Name[0] == '$' && (y.Name[1] == 't' || y.Name[1] == 'a' || y.Name[1] == 'd') &&
          (y.Name.size() == 2 || y.Name[2] == '.') && y.Shndx < Sections.size() && (Sections[y.Shndx].Flags & 2))
        Ranges.push_back({y.Value & ~1u, y.Name[1]});
    }
    // Like the program's loader, skip the part of a segment before its first
    // allocated section (ELF and program headers in the first segment).
    for (Segment& g : Segments) {
      uint64_t First = ~0ull;
      for (const Section& c : Sections)
        if ((c.Flags & 2) && c.Type != 8 && c.Size && c.Addr >= g.Addr && c.Addr < g.Addr + g.Data.size())
          First = std::min<uint64_t>(First, c.Addr);
      if (First != ~0ull && First > g.Addr) {
        g.Data.erase(g.Data.begin(), g.Data.begin() + (First - g.Addr));
        g.Addr = uint32_t(First);
      }
    }
    std::stable_sort(Ranges.begin(), Ranges.end(), [](const Range& a, const Range& b) { return a.Start < b.Start; });
    return true;
  }

  std::string Str(size_t o) const {
    std::string s;
    while (o < File.size() && File[o]) s += char(File[o++]);
    return s;
  }

  bool Read(uint64_t Addr, uint32_t n, uint8_t* p) const {
    for (const Segment& s : Segments)
      if (Addr >= s.Addr && Addr + n <= uint64_t(s.Addr) + s.Data.size()) {
        memcpy(p, &s.Data[Addr - s.Addr], n);
        return true;
      }
    return false;
  }

  // Index of the mapping range that holds Addr, -1 if none.
  int RangeAt(uint64_t Addr) const {
    auto it = std::upper_bound(Ranges.begin(), Ranges.end(), Addr,
                               [](uint64_t a, const Range& r) { return a < r.Start; });
    if (it == Ranges.begin()) return -1;
    return int(it - Ranges.begin()) - 1;
  }

  uint32_t LowestAddr() const {
    uint32_t m = 0xFFFFFFFF;
    for (const Segment& s : Segments) m = std::min(m, s.Addr);
    return m;
  }
};
