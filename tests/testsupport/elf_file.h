// A small ELF32 reader for tests and benchmarks: loadable segments, sections,
// the symbol table, entry point and byte order, in either byte order. It is
// independent of the program's own ELF layer on purpose, so that tests can
// hold that layer against it. Every read is bounds-checked; a file it cannot
// make sense of gives false from Load, never a crash.
#pragma once
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
#include <optional>
#include <string>
#include <vector>

namespace testsupport {

struct ElfFile {
  struct Segment {
    uint32_t Addr;   // load address (p_paddr): where a download writes it
    uint32_t VAddr;  // run-time address (p_vaddr)
    std::vector<uint8_t> Data;  // the file bytes (p_filesz of them)
  };
  struct Section {
    std::string Name;
    uint32_t Addr, Size, Flags, Type;
  };
  struct Symbol {
    std::string Name;
    uint32_t Value, Size;
    uint8_t Type;  // STT_*
    uint16_t Shndx;
  };

  std::vector<uint8_t> File;
  bool Big = false;
  uint32_t Entry = 0, Flags = 0;
  std::vector<Segment> Segments;  // PT_LOAD with file bytes, in header order
  std::vector<Section> Sections;
  std::vector<Symbol> Symbols;  // .symtab in file order

  bool Load(const std::string& sPath) {
    std::ifstream f(sPath, std::ios::binary);
    if (!f) return false;
    File.assign(std::istreambuf_iterator<char>(f), {});
    return Parse();
  }

  // Reads the header tables of File; false when it is no ELF32 file or a
  // table points outside it.
  bool Parse() {
    Segments.clear();
    Sections.clear();
    Symbols.clear();
    if (File.size() < 52 || memcmp(File.data(), "\x7f" "ELF", 4) != 0 || File[4] != 1) return false;
    Big = File[5] == 2;
    Entry = U32At(24);
    Flags = U32At(36);
    const uint32_t PhOff = U32At(28), ShOff = U32At(32);
    const uint16_t PhEntSize = U16At(42), PhNum = U16At(44), ShEntSize = U16At(46), ShNum = U16At(48),
                   ShStrNdx = U16At(50);
    for (uint16_t i = 0; i < PhNum; ++i) {
      const size_t o = PhOff + size_t(i) * PhEntSize;
      if (o + 32 > File.size()) return false;
      if (U32At(o) != 1) continue;  // PT_LOAD
      const uint32_t Off = U32At(o + 4), FileSz = U32At(o + 16);
      if (FileSz == 0) continue;
      if (size_t(Off) + FileSz > File.size()) return false;
      Segments.push_back({U32At(o + 12), U32At(o + 8),
                          std::vector<uint8_t>(File.begin() + Off, File.begin() + Off + FileSz)});
    }
    auto ShAt = [&](size_t i) { return ShOff + i * ShEntSize; };
    if (ShNum && (ShEntSize < 40 || ShAt(ShNum) > File.size())) return false;
    const uint32_t StrOff = ShStrNdx < ShNum ? U32At(ShAt(ShStrNdx) + 16) : 0;
    uint32_t SymOff = 0, SymSize = 0, SymStrOff = 0;
    for (uint16_t i = 0; i < ShNum; ++i) {
      const size_t o = ShAt(i);
      Sections.push_back({Str(size_t(StrOff) + U32At(o)), U32At(o + 12), U32At(o + 20), U32At(o + 8), U32At(o + 4)});
      if (Sections.back().Type == 2) {  // SHT_SYMTAB
        SymOff = U32At(o + 16);
        SymSize = U32At(o + 20);
        const uint32_t Link = U32At(o + 24);
        if (Link < ShNum) SymStrOff = U32At(ShAt(Link) + 16);
      }
    }
    for (size_t o = SymOff; o + 16 <= size_t(SymOff) + SymSize && o + 16 <= File.size(); o += 16)
      Symbols.push_back({Str(size_t(SymStrOff) + U32At(o)), U32At(o + 4), U32At(o + 8), uint8_t(File[o + 12] & 0xF),
                         U16At(o + 14)});
    return true;
  }

  // The value of the first defined symbol of that name; for functions
  // without the Thumb bit.
  std::optional<uint32_t> Find(const std::string& sName) const {
    for (const Symbol& s : Symbols)
      if (s.Name == sName && s.Shndx != 0) return s.Type == 2 ? s.Value & ~1u : s.Value;  // STT_FUNC
    return std::nullopt;
  }

  // n bytes of the image at a run-time address (ByLoadAddr: at a load
  // address), from one segment; false when no segment holds all of them.
  bool Read(uint64_t Addr, uint32_t n, uint8_t* p, bool ByLoadAddr = false) const {
    for (const Segment& s : Segments) {
      const uint64_t Base = ByLoadAddr ? s.Addr : s.VAddr;
      if (Addr >= Base && Addr + n <= Base + s.Data.size()) {
        memcpy(p, &s.Data[Addr - Base], n);
        return true;
      }
    }
    return false;
  }

  uint32_t U32At(size_t o) const {
    if (o + 4 > File.size() || o + 4 < o) return 0;
    const uint8_t* p = &File[o];
    return Big ? (uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3])
               : (uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]);
  }
  uint16_t U16At(size_t o) const {
    if (o + 2 > File.size() || o + 2 < o) return 0;
    const uint8_t* p = &File[o];
    return Big ? uint16_t(p[0] << 8 | p[1]) : uint16_t(p[1] << 8 | p[0]);
  }
  std::string Str(size_t o) const {
    std::string s;
    while (o < File.size() && File[o]) s += char(File[o++]);
    return s;
  }
};

}  // namespace testsupport
