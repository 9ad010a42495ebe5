// Random and mutated texts for the fuzz tests of the text parsers and the
// command path: typed pieces (numbers in every base, expressions, raw bytes), or pieces
// drawn from a vocabulary of fragments that the parser knows, mixed with raw
// characters, and mutations of seed texts. Deterministic for a given seed, so
// that a failing input can be made again from the seed and its number.
#pragma once
#include <QString>
#include <QStringList>
#include <cstdint>
#include <iterator>
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
  // Without a vocabulary: for the typed pieces below (numbers, expressions,
  // command arguments).
  explicit RandomText(uint64_t Seed) : m_Rng(Seed) {}

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

  // Typed pieces for command and argument texts.
  // An integer in [Lo, Hi].
  int64_t Int(int64_t Lo, int64_t Hi) { return std::uniform_int_distribution<int64_t>(Lo, Hi)(m_Rng); }
  bool Chance(int Percent) { return Int(0, 99) < Percent; }
  template <class LIST>
  auto Pick(const LIST& l) -> decltype(l[0]) {
    return l[Int(0, int64_t(std::size(l)) - 1)];
  }

  // A number text: decimal, hexadecimal, octal, binary, negative, at the
  // edges of 32 and 64 bits, or too large for any.
  QString Number() {
    static const char* const kEdges[] = {"0", "-1", "0xFFFFFFFF", "0x7FFFFFFF", "0x80000000", "4294967296",
                                         "-9223372036854775808", "18446744073709551615", "99999999999999999999999"};
    switch (Int(0, 5)) {
      case 0: return QString::fromLatin1(Pick(kEdges));
      case 1: return QStringLiteral("0x") + QString::number(quint64(Int(0, INT64_MAX)), 16);
      case 2: return QStringLiteral("0") + QString::number(Int(0, 0777777), 8);
      case 3: return QStringLiteral("0b") + QString::number(Int(0, 0xFFFF), 2);
      case 4: return QString::number(-Int(0, 100000));
      default: return QString::number(Int(0, 100000));
    }
  }

  // Printable text of Len characters from Alphabet.
  QString Text(int Len, const QString& sAlphabet) {
    QString s;
    s.reserve(Len);
    for (int i = 0; i < Len; ++i) s += sAlphabet[qsizetype(Int(0, sAlphabet.size() - 1))];
    return s;
  }

  // An expression over numbers and the given names.
  QString Expression(const QStringList& Names, int Depth = 3) {
    static const char* const kOps[] = {"+", "-", "*", "/", "%", "<<", ">>", "&", "|", "^", "&&", "||", "==", "<"};
    if (Depth <= 0 || Chance(30)) return Names.isEmpty() || Chance(60) ? Number() : Pick(Names);
    if (Chance(15)) return QStringLiteral("(") + Expression(Names, Depth - 1) + QStringLiteral(")");
    if (Chance(10)) return QStringLiteral("-") + Expression(Names, Depth - 1);
    return Expression(Names, Depth - 1) + QLatin1String(Pick(kOps)) + Expression(Names, Depth - 1);
  }

  // Raw bytes, any value.
  QByteArray Bytes(int Len) {
    QByteArray b(Len, 0);
    for (char& c : b) c = char(Int(0, 255));
    return b;
  }

 private:
  std::vector<std::string> m_Fragments, m_Seeds;
  std::mt19937_64 m_Rng;
};

}  // namespace testsupport
