// The children tree and the values of every initialised global, read from the
// program image without a target, against gdb reading the same file:
// member names, order, offsets and sizes against `ptype/o`, each leaf's
// value against `print` (decimal) and `print/x` (hex). Both byte orders.
//
// Deliberate differences, each checked by its own rule:
//  - number texts: decimal grouped by three with U+2008, hex in blocks of
//    four without "0x", floats with 20 significant digits;
//  - an enumeration value reads "NAME (n)" where gdb prints NAME;
//  - a bool reads 1/0 where gdb prints true/false;
//  - a signed bit field reads its unsigned field bits (no sign extension);
//  - a float's hex text is its decimal text (gdb shows the raw bits);
//  - a nameless member is called <<anonymous>_n>;
//  - at most PREF_MAX_SYMBOL_MEMBERS children per level (own test).
#include "elf/symbol/symdump.h"
#include "elf/symbol/symbol_test_util.h"

#include <QRegularExpression>
#include <gtest/gtest.h>
#include <cmath>

namespace {

const char* const kGlobals[] = {
  "g_char", "g_schar", "g_uchar", "g_short", "g_ushort", "g_int", "g_uint", "g_long", "g_ulong", "g_llong",
  "g_ullong", "g_float", "g_double", "g_bool", "g_mode", "g_kind", "g_array", "g_matrix", "g_text", "g_greeting",
  "g_mode_names", "g_int_ptr", "g_array_ptr", "g_build_id", "s_file_counter", "s_lookup", "g_ctrl", "g_pun",
  "g_config", "g_commands", "g_default_handler", "g_fib_ptr", "g_nodes", "g_root", "UART1", "recs", "tx_ring",
  "filter_alpha", "crc_table", "last_round",
};

// ---- gdb's value syntax, flattened to its leaves --------------------------------

void SkipBlanks(const QString& s, int& i) {
  while (i < s.size() && s[i] == QLatin1Char(' ')) ++i;
}

QString ReadLeaf(const QString& s, int& i) {
  const int Start = i;
  int Depth = 0;
  while (i < s.size()) {
    const QChar c = s[i];
    if (c == QLatin1Char('"') || c == QLatin1Char('\'')) {
      ++i;
      while (i < s.size() && s[i] != c) i += s[i] == QLatin1Char('\\') ? 2 : 1;
      ++i;
      continue;
    }
    if (c == QLatin1Char('<') || c == QLatin1Char('(')) ++Depth;
    if ((c == QLatin1Char('>') || c == QLatin1Char(')')) && Depth) --Depth;
    if (!Depth && (c == QLatin1Char(',') || c == QLatin1Char('}'))) break;
    ++i;
  }
  return s.mid(Start, i - Start).trimmed();
}

void ParseValue(const QString& s, int& i, QStringList& Leaves) {
  SkipBlanks(s, i);
  if (i < s.size() && s[i] == QLatin1Char('{')) {
    ++i;
    static const QRegularExpression Name("\\G[A-Za-z_][A-Za-z0-9_]* = ");
    while (i < s.size()) {
      SkipBlanks(s, i);
      if (i < s.size() && s[i] == QLatin1Char('}')) {
        ++i;
        return;
      }
      const auto m = Name.match(s, i);
      if (m.hasMatch()) i += m.capturedLength();
      ParseValue(s, i, Leaves);
      SkipBlanks(s, i);
      if (i < s.size() && s[i] == QLatin1Char(',')) ++i;
    }
    return;
  }
  const QString Leaf = ReadLeaf(s, i);
  if (Leaf.startsWith("<incomplete") && !Leaves.isEmpty() && Leaves.last().startsWith('"')) return;
  Leaves << Leaf;
}

QStringList GdbLeaves(const QString& sOutput) {
  QString s = sOutput.trimmed();
  const int Eq = s.indexOf(" = ");
  if (Eq < 0) return {};
  s = s.mid(Eq + 3);
  QStringList Leaves;
  int i = 0;
  ParseValue(s, i, Leaves);
  return Leaves;
}

// The bytes of the first C string literal in a gdb leaf, up to its first NUL.
QByteArray GdbString(const QString& s) {
  QByteArray Out;
  int i = s.indexOf('"');
  if (i < 0) return Out;
  for (++i; i < s.size() && s[i] != QLatin1Char('"'); ++i) {
    if (s[i] != QLatin1Char('\\')) {
      Out += (char)s[i].unicode();
      continue;
    }
    ++i;
    if (i >= s.size()) break;
    if (s[i].isDigit()) {
      int v = 0, n = 0;
      while (n < 3 && i < s.size() && s[i] >= QLatin1Char('0') && s[i] <= QLatin1Char('7')) v = v * 8 + (s[i++].unicode() - '0'), ++n;
      --i;
      Out += (char)v;
    } else if (s[i] == QLatin1Char('n')) Out += '\n';
    else Out += (char)s[i].unicode();
  }
  const int Nul = Out.indexOf('\0');
  return Nul < 0 ? Out : Out.left(Nul);
}

// ---- our tree, flattened the same way ------------------------------------------------

void OurLeaves(CSymbol& s, bool Hex, QList<CSymbol*>& Out) {
  SYM_LoadValue(s);
  const bool Aggregate = s.typeClass == 19 || s.typeClass == 23 || s.typeClass == 0x1000B;
  if (s.IsArray() && !Hex && s.ShowsText()) {
    Out << &s;
    return;
  }
  if (Aggregate || s.IsArray()) {
    for (int i = 0; i < s.GetChildCount(); ++i) {
      CSymbol& c = s.GetChild(i);
      if (!c.IsEmpty()) OurLeaves(c, Hex, Out);
    }
    return;
  }
  Out << &s;
}

QString Plain(QString s) {
  s.remove(QChar(0x2008));
  return s;
}

U64 FieldMask(const CSymbol& s) { return s.bitSize >= 64 ? ~0ull : ((1ull << s.bitSize) - 1); }

// Empty when equal by the rules, else a description.
QString CompareNatural(CSymbol& s, const QString& g) {
  const QString Ours = s.GetValueText(DISPLAY_FORMAT_DEC, true);
  const QString Where = s.GetFullName() + ": ours " + Ours + " gdb " + g;
  if (s.IsArray()) {
    const QString Text = QString::fromLatin1(GdbString(g));
    QString q = s.GetQuotedText();
    q = q.mid(1, q.size() - 2);
    return (Text.isEmpty() || q.startsWith(Text)) ? QString() : Where;
  }
  if (s.IsPointer()) {
    static const QRegularExpression Hex("0x([0-9a-f]+)");
    const auto m = Hex.match(g);
    const U64 v = m.hasMatch() ? m.captured(1).toULongLong(nullptr, 16) : 0;
    if ((U64)s.GetPointerValue() != v) return Where;
    if (g.contains('"') && !Ours.contains("\"" + QString::fromLatin1(GdbString(g)) + "\"")) return Where;
    return QString();
  }
  if (!s.enumerators.isEmpty()) {
    if (g.size() && (g[0].isLetter() || g[0] == QLatin1Char('_')))
      return Ours.startsWith(g + " (") ? QString() : Where;  // "NAME (n)" for gdb's NAME
    return Plain(Ours) == g ? QString() : Where;
  }
  if (s.typeClass == 135 || s.typeClass == 6) {
    const double a = Ours.toDouble(), b = g.toDouble();
    return std::fabs(a - b) <= 1e-6 * std::fabs(b) ? QString() : Where;
  }
  if (s.typeClass == 1) return Ours == (g == "true" ? "1" : "0") ? QString() : Where;
  QString Num = Plain(Ours);
  Num = Num.left(Num.indexOf(" (") < 0 ? Num.size() : Num.indexOf(" ("));
  const QString G = g.section(' ', 0, 0);
  if (Num == G) return QString();
  if (s.bitSize && s.type.IsSigned() && (U64)Num.toLongLong() == ((U64)G.toLongLong() & FieldMask(s)))
    return QString();  // a signed bit field reads its field bits
  return Where;
}

QString CompareHex(CSymbol& s, const QString& g) {
  const QString Ours = s.GetValueText(DISPLAY_FORMAT_HEX, false);
  const QString Where = s.GetFullName() + ": ours " + Ours + " gdb " + g;
  if (s.typeClass == 135 || s.typeClass == 6)  // a float's hex text is its decimal text
    return Ours == s.GetValueText(DISPLAY_FORMAT_DEC, false) ? QString() : Where;
  const U64 G = g.section(' ', 0, 0).mid(2).toULongLong(nullptr, 16);
  QString h = Plain(Ours);
  if (!s.enumerators.isEmpty() && h.contains(" (")) h = h.section(" (", 1).chopped(1);
  if (s.typeClass == 1) return h == QString::number(G) ? QString() : Where;
  if (h.startsWith("0x")) h = h.mid(2);
  bool ok;
  const U64 v = h.toULongLong(&ok, 16);
  if (!ok) return Where;
  if (v == G) return QString();
  if (s.bitSize && s.type.IsSigned() && v == (G & FieldMask(s))) return QString();
  return Where;
}

// ---- layout from ptype/o --------------------------------------------------------------

struct MEMBER {
  QString name;
  int offset;  // -1: gdb shows none (union members)
  int size;
};

QList<MEMBER> GdbLayout(const QString& sOut) {
  QList<MEMBER> Out;
  QList<int> Open;  // indices of aggregates waiting for their name
  static const QRegularExpression Row("^/\\*\\s*(?:(\\d+)(?::\\s*\\d+)?\\s*\\|)?\\s*(\\d+)\\s*\\*/\\s*(.*)$");
  static const QRegularExpression Close("^\\s*}\\s*([A-Za-z_][A-Za-z0-9_]*)?[^;]*;");
  const QStringList Lines = sOut.split('\n');
  for (int k = 1; k < Lines.size(); ++k) {  // the first line is the outer type
    const QString& L = Lines[k];
    const auto m = Row.match(L);
    if (m.hasMatch()) {
      MEMBER e{QString(), m.captured(1).isEmpty() ? -1 : m.captured(1).toInt(), m.captured(2).toInt()};
      QString Decl = m.captured(3).trimmed();
      if (Decl.endsWith('{')) {
        Open << Out.size();
      } else {
        Decl.chop(1);  // ';'
        Decl = Decl.section(" : ", 0, 0);
        while (Decl.endsWith(']')) Decl = Decl.left(Decl.lastIndexOf('['));
        const int Fp = Decl.indexOf("(*");
        if (Fp >= 0) Decl = Decl.mid(Fp + 2).section(')', 0, 0);
        static const QRegularExpression Last("([A-Za-z_][A-Za-z0-9_]*)\\s*$");
        const auto n = Last.match(Decl);
        // "u32_t : 8" has no name: the type is the only word.
        e.name = n.hasMatch() && Decl.trimmed().contains(QRegularExpression("[\\s*]")) ? n.captured(1) : QString();
      }
      Out << e;
      continue;
    }
    const auto c = Close.match(L);
    if (c.hasMatch() && !Open.isEmpty()) Out[Open.takeLast()].name = c.captured(1);
  }
  return Out;
}

void OurLayout(CSymbol& s, I64 Base, QList<MEMBER>& Out) {
  for (int i = 0; i < s.GetChildCount(); ++i) {
    CSymbol& c = s.GetChild(i);
    if (c.IsEmpty()) continue;
    I64 a = -1;
    c.GetAddress(a);
    Out << MEMBER{c.GetDisplayName(), (int)(a - Base), (int)c.GetSize()};
    // gdb opens nested types in place only where they have no name.
    const QString t = c.typeName.trimmed();
    if ((c.typeClass == 19 || c.typeClass == 23) && (t == "struct" || t == "union")) OurLayout(c, Base, Out);
  }
}

class SymbolOracle : public ::testing::TestWithParam<const char*> {};

TEST_P(SymbolOracle, TreesAndValuesAgreeWithGdb) {
  if (!HaveGdb()) GTEST_SKIP() << "gdb-multiarch not installed";
  ASSERT_TRUE(LoadProgram(GetParam()));
  QStringList Commands;
  for (const char* g : kGlobals)
  {
    // gdb names a function's static through the function.
    const QString n = QString(g) == "last_round" ? QString("sensors_poll::last_round") : QString(g);
    Commands << QString("ptype/o %1").arg(n) << QString("print %1").arg(n) << QString("print/x %1").arg(n);
  }
  const QStringList Out = RunGdbBatch(SymCorpusPath(GetParam()), Commands);
  ASSERT_GE(Out.size(), Commands.size());
  int Leaves = 0, Members = 0;
  for (int k = 0; k < (int)(sizeof(kGlobals) / sizeof(kGlobals[0])); ++k) {
    const QString sName = kGlobals[k];
    SCOPED_TRACE(sName.toStdString());
    CSymbol s = SYM_MakeGlobal(sName);
    ASSERT_FALSE(s.IsEmpty());
    // Layout.
    CSymbol* pRoot = &s;
    if (s.IsArray() && (s.GetChild(0).typeClass == 19 || s.GetChild(0).typeClass == 23)) pRoot = &s.GetChild(0);
    if (pRoot->typeClass == 19 || pRoot->typeClass == 23) {
      const QList<MEMBER> G = GdbLayout(Out[3 * k]);
      QList<MEMBER> O;
      I64 Base = -1;
      pRoot->GetAddress(Base);
      OurLayout(*pRoot, Base, O);
      ASSERT_EQ(O.size(), G.size()) << Out[3 * k].toStdString();
      for (int i = 0; i < O.size(); ++i) {
        if (G[i].name.isEmpty()) EXPECT_TRUE(O[i].name.startsWith("<<anonymous>_")) << O[i].name.toStdString();
        else EXPECT_EQ(O[i].name, G[i].name);
        if (G[i].offset >= 0) EXPECT_EQ(O[i].offset, G[i].offset) << G[i].name.toStdString();
        EXPECT_EQ(O[i].size, G[i].size) << G[i].name.toStdString();
        ++Members;
      }
    }
    // Values.
    for (int Hex = 0; Hex < 2; ++Hex) {
      const QStringList G = GdbLeaves(Out[3 * k + 1 + Hex]);
      QList<CSymbol*> O;
      OurLeaves(s, Hex, O);
      ASSERT_EQ(O.size(), G.size()) << Out[3 * k + 1 + Hex].toStdString();
      for (int i = 0; i < O.size(); ++i) {
        const QString Err = Hex ? CompareHex(*O[i], G[i]) : CompareNatural(*O[i], G[i]);
        EXPECT_TRUE(Err.isEmpty()) << Err.toStdString();
        ++Leaves;
      }
    }
  }
  EXPECT_GT(Leaves, 300);
  EXPECT_GT(Members, 25);
}

INSTANTIATE_TEST_SUITE_P(Corpus, SymbolOracle,
                         ::testing::Values("app-dwarf4-O0.elf", "app-dwarf4-O0-be.elf", "app-dwarf2-O0.elf",
                                           "app-dwarf5-O0.elf", "app-dwarf4-O2-be.elf", "app-dwarf4-types.elf",
                                           "app-dwarf3-O2.elf", "app-dwarf4-O2.elf", "newlib-dwarf5-O2.elf", "app-dwarf5-O2.elf",
                                           "newlib-dwarf5-O2-full.elf", "app-dwarf5-forms.elf"));

}  // namespace
