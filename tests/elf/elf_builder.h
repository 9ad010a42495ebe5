// Writes small 32-bit ELF executables in either byte order, for tests that
// need exact control over sections, segments and symbols.
#pragma once
#include "common/types.h"

#include <cstring>
#include <string>
#include <vector>

struct TestElfBuilder {
  struct Section {
    std::string Name;
    U32 Type = 1, Flags = 2, Addr = 0, Size = 0, Link = 0, Info = 0, Align = 4, EntSize = 0;
    std::vector<U8> Data; // for types other than NOBITS; Size follows it
    U32 Offset = 0;       // set by Build
  };
  struct Symbol {
    std::string Name;
    U32 Value = 0, Size = 0;
    U8 Type = 0, Bind = 1;
    U16 Shndx = 1;
  };
  struct Segment {
    U32 Type = 1;
    int FirstSection = 1, LastSection = 1;
    bool WithHeaders = false; // the segment starts at file offset 0
    U32 LoadDelta = 0;        // paddr - vaddr
  };

  static Section MakeSection(const std::string& Name, U32 Type, U32 Flags) {
    Section s;
    s.Name = Name;
    s.Type = Type;
    s.Flags = Flags;
    return s;
  }

  bool BigEndian = false;
  U32 Entry = 0x08000101;
  U16 Type = 2;
  std::vector<Section> Sections{MakeSection("", 0, 0)};
  std::vector<Symbol> Symbols;
  std::vector<Segment> Segments;

  int AddSection(const std::string& Name, U32 Type, U32 Flags, U32 Addr, U32 Size) {
    Section s;
    s.Name = Name;
    s.Type = Type;
    s.Flags = Flags;
    s.Addr = Addr;
    s.Size = Size;
    if (Type != 8)
      for (U32 i = 0; i < Size; ++i) s.Data.push_back(U8(i * 7 + Addr));
    Sections.push_back(s);
    return int(Sections.size()) - 1;
  }
  int AddSymbol(const std::string& Name, U32 Value, U32 Size, U8 Type, U16 Shndx, U8 Bind = 1) {
    Symbols.push_back({Name, Value, Size, Type, Bind, Shndx});
    return int(Symbols.size()); // row, counting the null symbol at row 0
  }

  std::vector<U8> Build() {
    std::vector<Section> secs = Sections;
    // String tables and the symbol table go behind the user's sections.
    std::string strtab(1, '\0'), shstrtab(1, '\0');
    std::vector<U8> symData(16, 0);
    for (const Symbol& s : Symbols) {
      U32 nameOff = 0;
      if (!s.Name.empty()) {
        nameOff = U32(strtab.size());
        strtab += s.Name + '\0';
      }
      Put32(symData, nameOff);
      Put32(symData, s.Value);
      Put32(symData, s.Size);
      symData.push_back(U8((s.Bind << 4) | s.Type));
      symData.push_back(0);
      Put16(symData, s.Shndx);
    }
    const int symIdx = int(secs.size());
    Section sym = MakeSection(".symtab", 2, 0);
    sym.Data = symData;
    sym.Link = U32(symIdx + 1);
    sym.EntSize = 16;
    secs.push_back(sym);
    Section str = MakeSection(".strtab", 3, 0);
    str.Data.assign(strtab.begin(), strtab.end());
    secs.push_back(str);
    Section shs = MakeSection(".shstrtab", 3, 0);
    secs.push_back(shs);
    std::vector<U32> nameOffs;
    for (Section& s : secs) {
      nameOffs.push_back(U32(shstrtab.size()));
      shstrtab += s.Name + '\0';
    }
    secs.back().Data.assign(shstrtab.begin(), shstrtab.end());
    for (Section& s : secs)
      if (s.Type != 8) s.Size = U32(s.Data.size());

    std::vector<U8> out(52 + 32 * Segments.size(), 0);
    U32 off = 0x100;
    if (out.size() > off) off = U32(out.size() + 3) & ~3u;
    for (size_t i = 1; i < secs.size(); ++i) {
      Section& s = secs[i];
      s.Offset = off;
      if (s.Type != 8) off += U32(s.Data.size());
      off = (off + 3) & ~3u;
    }
    out.resize(off, 0);
    for (const Section& s : secs)
      if (s.Type != 8 && !s.Data.empty()) memcpy(&out[s.Offset], s.Data.data(), s.Data.size());
    const U32 shoff = U32(out.size());
    for (size_t i = 0; i < secs.size(); ++i) {
      const Section& s = secs[i];
      for (U32 v : {nameOffs[i], s.Type, s.Flags, s.Addr, s.Offset, s.Size, s.Link, s.Info, s.Align, s.EntSize})
        Put32(out, v);
    }
    // Header.
    std::vector<U8> h;
    for (int c : {0x7F, int('E'), int('L'), int('F'), 1, BigEndian ? 2 : 1, 1, 0}) h.push_back(U8(c));
    h.resize(16, 0);
    Put16(h, Type);
    Put16(h, 40);
    Put32(h, 1);
    Put32(h, Entry);
    Put32(h, Segments.empty() ? 0 : 52);
    Put32(h, shoff);
    Put32(h, 0x05000200);
    Put16(h, 52);
    Put16(h, 32);
    Put16(h, U16(Segments.size()));
    Put16(h, 40);
    Put16(h, U16(secs.size()));
    Put16(h, U16(secs.size() - 1));
    for (const Segment& g : Segments) {
      const Section& a = secs[g.FirstSection];
      const Section& b = secs[g.LastSection];
      const U32 offset = g.WithHeaders ? 0 : a.Offset;
      const U32 vaddr = a.Addr - (a.Offset - offset);
      const U32 filesz = b.Offset + (b.Type == 8 ? 0 : b.Size) - offset;
      const U32 memsz = b.Addr + b.Size - vaddr;
      for (U32 v : {g.Type, offset, vaddr, vaddr + g.LoadDelta, filesz, memsz, 5u, 4u}) Put32(h, v);
    }
    memcpy(out.data(), h.data(), h.size());
    return out;
  }

private:
  void Put16(std::vector<U8>& v, U16 x) {
    if (BigEndian) x = U16((x >> 8) | (x << 8));
    v.push_back(U8(x));
    v.push_back(U8(x >> 8));
  }
  void Put32(std::vector<U8>& v, U32 x) {
    if (BigEndian) x = __builtin_bswap32(x);
    for (int i = 0; i < 4; ++i) v.push_back(U8(x >> (8 * i)));
  }
};
