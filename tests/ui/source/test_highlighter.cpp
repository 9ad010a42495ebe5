// The syntax scanners on their edge cases, written as the expected tokens
// (text and class, found left to right in the line), and on random text.
#include "testsupport/randomtext.h"
#include "ui/source/highlighter.h"

#include <gtest/gtest.h>

namespace {

struct TokenCase {
  int Language;  // 4: the instruction scanner, mnemonic field [0, 8)
  const char* Line;
  int StateIn, StateOut;
  std::vector<std::pair<const char*, int>> Tokens;
};

QString Show(QStringView Line, const QVector<CSyntaxToken>& Tokens) {
  QString s;
  for (const CSyntaxToken& t : Tokens) s += QStringLiteral("[%1|%2] ").arg(Line.mid(t.Pos, t.Len)).arg(t.Class);
  return s;
}

const TokenCase kCases[] = {
    {1, "int x = 5; // c /* not a block", 0, 0, {{"int", 3}, {"x", 5}, {"// c /* not a block", 1}}},
    {1, "a /* open", 0, 1, {{"a", 5}, {"/* open", 1}}},
    {1, "still */ b", 1, 0, {{"still */", 1}, {"b", 5}}},
    {1, "", 1, 1, {}},
    {1, "/*/ x", 0, 1, {{"/*/ x", 1}}},
    {1, "c = '\"'; s = \"str\";", 0, 0, {{"c", 5}, {"s", 5}, {"\"str\"", 2}}},
    {1, "\"a\\\"b\" x", 0, 0, {{"\"a\\\"b\"", 2}, {"x", 5}}},
    {1, "f(\"a\", \"b\")", 0, 0, {{"f", 5}, {"\"a\"", 2}, {"\"b\"", 2}}},
    {1, "\"open", 0, 5, {{"\"open", 2}}},
    {1, "rest\" y", 5, 0, {{"rest\"", 2}, {"y", 5}}},
    {2, "static_assert reinterpret_cast", 0, 0, {{"static_assert", 3}, {"reinterpret_cast", 5}}},
    {2, "Int nullptr else", 0, 0, {{"Int", 5}, {"nullptr", 3}, {"else", 3}}},
    {3, "int", 0, 0, {{"int", 5}}},
    {0, "int", 0, 0, {{"int", 5}}},
    {1, "#include <stdio.h>", 0, 0, {{"#include", 4}, {"<stdio.h>", 2}}},
    {1, "#include \"x.h\"", 0, 0, {{"#include", 4}, {"\"x.h\"", 2}}},
    {1, "#includexx <a>", 0, 0, {{"#includexx", 5}, {"a", 5}}},
    {1, "a < b", 0, 0, {{"a", 5}, {"b", 5}}},
    {1, "#if defined(X)", 0, 0, {{"#if", 4}, {"defined", 5}, {"X", 5}}},
    {1, "#include <foo", 0, 6, {{"#include", 4}, {"<foo", 2}}},
    {1, "bar> x", 6, 0, {{"bar>", 2}, {"x", 5}}},
    {1, "#endif", 0, 0, {{"#endif", 4}}},
    {1, "_x a_b 1_c", 0, 0, {{"_x", 5}, {"a_b", 5}, {"c", 5}}},
    {1, "x; y", 0, 0, {{"x", 5}, {"y", 5}}},
    {3, "mov r0, #1 ; note", 0, 0, {{"mov", 5}, {"r0", 5}, {"#", 5}, {"; note", 1}}},
    {1, "a // b", 2, 0, {{"a", 5}, {"// b", 1}}},  // a line comment never carries
    {4, "ldr     r0, [pc, #4]", 0, 0, {{"ldr", 6}, {"r0", 9}, {"pc", 9}, {"#4", 8}}},
    {4, "bl      0x8000120 <main>", 0, 0, {{"bl", 6}, {"<main>", 7}}},
    {4, "b.n     <loop+0x4>", 0, 0, {{"b", 6}, {"n", 6}, {"<loop+0x4>", 7}}},
    {4, "push    {r4, LR}", 0, 0, {{"push", 6}, {"r4", 7}, {"LR", 9}}},
    {4, "movs    r1, #-1", 0, 0, {{"movs", 6}, {"r1", 9}, {"#-1", 8}}},
    {4, "str     r1,[sp,#0x8]", 0, 0, {{"str", 6}, {"r1", 9}, {"sp", 9}, {"#0x8", 8}}},
    {4, "b       <lab", 0, 0, {{"b", 6}, {"<lab", 7}}},
    {4, "4b01", 0, 0, {}},
};

class Scanner : public testing::TestWithParam<TokenCase> {};

TEST_P(Scanner, GivesTheTokensOfTheLine) {
  const TokenCase& c = GetParam();
  const QString Line = QString::fromUtf8(c.Line);
  QVector<CSyntaxToken> Expected, Got;
  int From = 0;
  for (const auto& [Text, Class] : c.Tokens) {
    const int Pos = int(Line.indexOf(QString::fromUtf8(Text), From));
    ASSERT_GE(Pos, 0) << Text;
    Expected.append({Pos, int(strlen(Text)), U8(Class)});
    From = Pos + int(strlen(Text));
  }
  int State = c.StateIn;
  if (c.Language == 4) SRC_HighlightInst(Line, 0, 8, {"r0", "R1", "sp", "PC", "lr"}, Got);
  else SRC_Highlight(SRC_LANGUAGE(c.Language), Line, Got, State);
  EXPECT_EQ(Show(Line, Got), Show(Line, Expected));
  EXPECT_EQ(State, c.StateOut);
}

INSTANTIATE_TEST_SUITE_P(Cases, Scanner, testing::ValuesIn(kCases));

TEST(Scanner, LanguageOfSuffix) {
  for (const char* s : {"c", "h", "C"}) EXPECT_EQ(SRC_LanguageOfSuffix(s), SRC_LANG_C) << s;
  for (const char* s : {"cpp", "hpp", "CC", "cxx", "inl"}) EXPECT_EQ(SRC_LanguageOfSuffix(s), SRC_LANG_CPP) << s;
  for (const char* s : {"s", "S", "asm"}) EXPECT_EQ(SRC_LanguageOfSuffix(s), SRC_LANG_ASM) << s;
  for (const char* s : {"", "txt", "cp"}) EXPECT_EQ(SRC_LanguageOfSuffix(s), SRC_LANG_OTHER) << s;
}

// Random lines from the characters that drive the state machines: tokens
// stay inside the line, in order and apart; only the carrying states leave a
// line, and a line scanned twice from the same state gives the same result.
TEST(Scanner, RandomTextKeepsTheTokenInvariants) {
  testsupport::RandomText Rng({"/*", "*/", "//", "\"", "'", "\\", "<", ">", "#include", "#", "_", "int", "r0", "x",
                               "1", " ", ";", "[", ",", "(", "-", ".", "=", "{", "\t", "static_assert"},
                              {""}, 21);
  for (int i = 0; i < 20000; ++i) {
    const QString Line = QString::fromStdString(Rng.Text(0, 14, 6, testsupport::RandomText::Character));
    QVector<CSyntaxToken> Tokens, Again;
    const int Lang = int(Rng.Below(5));
    int State = int(Rng.Below(8)), In = State;
    if (Lang == 4) SRC_HighlightInst(Line, int(Rng.Below(4)), int(Rng.Below(10)), {"r0", "PC"}, Tokens);
    else SRC_Highlight(SRC_LANGUAGE(Lang), Line, Tokens, State);
    int End = 0;
    for (const CSyntaxToken& t : Tokens) {
      ASSERT_GE(t.Pos, End) << Line.toStdString();
      ASSERT_GT(t.Len, 0) << Line.toStdString();
      ASSERT_TRUE(t.Class >= 1 && t.Class <= 9);
      End = t.Pos + t.Len;
    }
    ASSERT_LE(End, Line.size());
    if (Lang != 4) {
      ASSERT_TRUE(State == 0 || State == 1 || State == 5 || State == 6) << State;
      SRC_Highlight(SRC_LANGUAGE(Lang), Line, Again, In);
      ASSERT_EQ(Again, Tokens);
      ASSERT_EQ(In, State);
    }
  }
}

}  // namespace
