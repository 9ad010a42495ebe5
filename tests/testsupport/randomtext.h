// Reproducible random text for tests that feed a parser or a command path
// with input nobody wrote by hand: numbers in every base, quoted and long
// strings, expressions and raw bytes, from one seeded generator.
#pragma once
#include <QString>
#include <QStringList>
#include <cstdint>
#include <iterator>
#include <random>

class CRandomText {
 public:
  explicit CRandomText(uint64_t Seed) : m_Gen(Seed) {}

  // An integer in [Lo, Hi].
  int64_t Int(int64_t Lo, int64_t Hi) { return std::uniform_int_distribution<int64_t>(Lo, Hi)(m_Gen); }
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
  std::mt19937_64 m_Gen;
};
