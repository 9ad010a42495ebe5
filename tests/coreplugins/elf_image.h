// The core plug-in tests' view of an ELF file: the shared reader, with the
// image cut as the program's loader cuts it and the ARM mapping symbols
// ($t, $a, $d) as sorted ranges.
#pragma once
#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "testsupport/elf_file.h"

struct TestElf : testsupport::ElfFile {
  struct Range { uint32_t Start; char Kind; };  // 't', 'a' or 'd'
  std::vector<Range> Ranges;  // sorted mapping ranges

  bool Load(const std::string& sPath) {
    if (!ElfFile::Load(sPath)) return false;
    for (const Symbol& y : Symbols)
      if (y.Name.size() >= 2 && y.Name[0] == '$' && (y.Name[1] == 't' || y.Name[1] == 'a' || y.Name[1] == 'd') &&
          (y.Name.size() == 2 || y.Name[2] == '.') && y.Shndx < Sections.size() && (Sections[y.Shndx].Flags & 2))
        Ranges.push_back({y.Value & ~1u, y.Name[1]});
    // Like the program's loader, skip the part of a segment before its first
    // allocated section (ELF and program headers in the first segment).
    for (Segment& g : Segments) {
      uint64_t First = ~0ull;
      for (const Section& c : Sections)
        if ((c.Flags & 2) && c.Type != 8 && c.Size && c.Addr >= g.VAddr && c.Addr < g.VAddr + g.Data.size())
          First = std::min<uint64_t>(First, c.Addr);
      if (First != ~0ull && First > g.VAddr) {
        const uint32_t Cut = uint32_t(First - g.VAddr);
        g.Data.erase(g.Data.begin(), g.Data.begin() + Cut);
        g.VAddr += Cut;
        g.Addr += Cut;
      }
    }
    std::stable_sort(Ranges.begin(), Ranges.end(), [](const Range& a, const Range& b) { return a.Start < b.Start; });
    return true;
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
    for (const Segment& s : Segments) m = std::min(m, s.VAddr);
    return m;
  }
};
