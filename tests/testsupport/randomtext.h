// Random and mutated texts for the fuzz tests of the text parsers: pieces
// drawn from a vocabulary of fragments that the parser knows, mixed with raw
// characters, and mutations of seed texts. Deterministic for a given seed, so
// that a failing input can be made again from the seed and its number.
#pragma once
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace testsupport {

class RandomText {
 public:
  // What a raw piece of a text is.
  enum Raw {
    Printable,  // a printable ASCII character
    Byte,       // any byte, the zero byte and broken UTF-8 included
    Character,  // any character below U+3000 as UTF-8, control characters included
  };

  RandomText(std::vector<std::string> Fragments, std::vector<std::string> Seeds, uint64_t Seed)
      : m_Fragments(std::move(Fragments)), m_Seeds(std::move(Seeds)), m_Rng(Seed) {}

  uint64_t Next() { return m_Rng(); }
  // A number below n (0 when n is 0).
  size_t Below(size_t n) { return n ? size_t(m_Rng() % n) : 0; }
  const std::string& Fragment() { return m_Fragments[Below(m_Fragments.size())]; }
  const std::string& Seed() { return m_Seeds[Below(m_Seeds.size())]; }

  // MinPieces to MaxPieces pieces; each is a raw piece of kind eRaw with odds
  // 1 in RawOdds, else a fragment.
  std::string Text(int MinPieces, int MaxPieces, unsigned RawOdds, Raw eRaw) {
    std::string s;
    const int n = MinPieces + int(Below(size_t(MaxPieces - MinPieces + 1)));
    for (int i = 0; i < n; ++i) {
      if (RawOdds && Below(RawOdds) == 0) s += RawPiece(eRaw);
      else s += Fragment();
    }
    return s;
  }

  // 1 to MaxSteps edits of s: insert a fragment or a raw piece, delete a run,
  // overwrite a byte, duplicate a slice, splice in part of a seed, cut the
  // end off.
  std::string Mutate(std::string s, int MaxSteps, Raw eRaw) {
    const int Steps = 1 + int(Below(size_t(MaxSteps)));
    for (int k = 0; k < Steps; ++k) {
      const size_t At = Below(s.size() + 1);
      switch (Below(7)) {
        case 0: s.insert(At, Fragment()); break;
        case 1: s.insert(At, RawPiece(eRaw)); break;
        case 2:
          if (!s.empty()) s.erase(At < s.size() ? At : s.size() - 1, 1 + Below(12));
          break;
        case 3:
          if (!s.empty()) s[Below(s.size())] = eRaw == Byte ? char(Next()) : char(0x20 + Below(0x5F));
          break;
        case 4:
          if (!s.empty()) s.insert(At, s.substr(Below(s.size()), 1 + Below(40)));
          break;
        case 5: {
          const std::string& Other = Seed();
          const size_t From = Below(Other.size());
          s.insert(At, Other.substr(From, Below(Other.size() - From + 1)));
          break;
        }
        default: s.resize(At); break;
      }
    }
    return s;
  }

  std::string RawPiece(Raw eRaw) {
    if (eRaw == Printable) return std::string(1, char(0x20 + Below(0x5F)));
    if (eRaw == Byte) return std::string(1, char(Next()));
    const uint32_t c = uint32_t(Below(0x3000));
    if (c < 0x80) return std::string(1, char(c));
    if (c < 0x800) return {char(0xC0 | (c >> 6)), char(0x80 | (c & 0x3F))};
    return {char(0xE0 | (c >> 12)), char(0x80 | ((c >> 6) & 0x3F)), char(0x80 | (c & 0x3F))};
  }

 private:
  std::vector<std::string> m_Fragments, m_Seeds;
  std::mt19937_64 m_Rng;
};

}  // namespace testsupport
