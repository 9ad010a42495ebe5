// Parser behaviour over a table of texts: tokens after all rewrite passes,
// postfix order, parse status and error text, and the shape of the tree.
#include "expr/expression.h"
#include "expr/exprdump.h"
#include "expr/exprprogram.h"

#include <gtest/gtest.h>

#include <QStringList>

namespace {

// The tree as an S-expression: leaves as their text ("<>" around texts with
// blanks), operators as "(op left [right])".
QString Shape(const CExprNode* n) {
  if (!n) return QStringLiteral("null");
  if (n->IsLeaf()) return n->text.contains(' ') ? QLatin1Char('<') + n->text + QLatin1Char('>') : n->text;
  QString s = QLatin1Char('(') + n->text + QLatin1Char(' ') + Shape(n->left.get());
  if (n->right) s += QLatin1Char(' ') + Shape(n->right.get());
  return s + QLatin1Char(')');
}

struct Case {
  const char* text;
  const char* tokens;   // joined by '|'
  const char* postfix;  // joined by '|'
  int parseStatus;
  const char* tree;     // S-expression, or "-2" when building fails
};

const char* kPostfixError = "error converting expression to postfix notation";

const Case kCases[] = {
  // Empty text: success without tokens; there is nothing to evaluate.
  {"", "", "", 0, "-2"},
  {"   ", "", "", 0, "-2"},
  // Member and index chains group from the left.
  {"a.b->c[1]", "a|.|b|->|c|[|1|]", "a|b|.|c|->|1|[]", 0, "([] (-> (. a b) c) 1)"},
  {"p->a.b", "p|->|a|.|b", "p|a|->|b|.", 0, "(. (-> p a) b)"},
  // Unary operators bind below member access and above arithmetic.
  {"-a.b", "'|a|.|b", "a|b|.|'", 0, "(' (. a b))"},
  {"*p + 1", "`|p|+|1", "p|`|1|+", 0, "(+ (` p) 1)"},
  {"&x", "@|x", "x|@", 0, "(@ x)"},
  {"+1", "#|1", "1|#", 0, "(# 1)"},
  {"a - -b", "a|-|'|b", "a|b|'|-", 0, "(- a (' b))"},
  {"a * *b", "a|*|`|b", "a|b|`|*", 0, "(* a (` b))"},
  {"- - a", "'|'|a", "a|'|'", 0, "(' (' a))"},
  {"!~a", "!|~|a", "a|~|!", 0, "(! (~ a))"},
  // Behind ")" and "]" the operator stays binary.
  {"a[1]-2", "a|[|1|]|-|2", "a|1|[]|2|-", 0, "(- ([] a 1) 2)"},
  {"(a)-2", "(|a|)|-|2", "a|2|-", 0, "(- a 2)"},
  {"(a)*b", "(|a|)|*|b", "a|b|*", 0, "(* a b)"},
  {"a&b", "a|&|b", "a|b|&", 0, "(& a b)"},
  // Precedences of the table.
  {"1 << 2 + 3", "1|<<|2|+|3", "1|2|3|+|<<", 0, "(<< 1 (+ 2 3))"},
  {"a || b && c | d ^ e & f == g < h", "a|\\|\\||b|&&|c|\\||d|^|e|&|f|==|g|<|h", "", 0,
   "(|| a (&& b (| c (^ d (& e (== f (< g h)))))))"},
  {"a - b - c", "a|-|b|-|c", "a|b|-|c|-", 0, "(- (- a b) c)"},
  {"a / b * c % d", "a|/|b|*|c|%|d", "a|b|/|c|*|d|%", 0, "(% (* (/ a b) c) d)"},
  {"x >= 1 != y <= 2", "x|>=|1|!=|y|<=|2", "x|1|>=|y|2|<=|!=", 0, "(!= (>= x 1) (<= y 2))"},
  // An expression ending in an operator fails in the tree.
  {"a +", "a|+", "a|+", 0, "-2"},
  {"a b", "a|b", "a|b", 0, "-2"},
  {"f(x)", "f|(|x|)", "f|x", 0, "-2"},
  // Unbalanced brackets.
  {")", ")", "", -2, nullptr},
  {"(a", "(|a", "", -2, nullptr},
  {"a)", "a|)", "", -2, nullptr},
  {"a]", "a|]", "", -2, nullptr},
  {"(a]", "(|a|]", "", -2, nullptr},
  {"a[1", "a|[|1", "a|1|[", 0, "-2"},
  {"a[(1])", "a|[|(|1|]|)", "", -2, nullptr},
  // "[]" is one token and lacks an operand.
  {"a[]", "a|[]", "a|[]", 0, "-2"},
  {"a[1][2]", "a|[|1|]|[|2|]", "a|1|[]|2|[]", 0, "([] ([] a 1) 2)"},
  {"a[i+1]", "a|[|i|+|1|]", "a|i|1|+|[]", 0, "([] a (+ i 1))"},
  // sizeof is a unary row found by the identifier's text.
  {"sizeof(int)", "sizeof|(|int|)", "int|sizeof", 0, "(sizeof int)"},
  {"sizeof x", "sizeof|x", "x|sizeof", 0, "(sizeof x)"},
  {"sizeof -1", "sizeof|'|1", "1|'|sizeof", 0, "(sizeof (' 1))"},
  {"sizeof(char *)", "sizeof|char *", "char *|sizeof", 0, "(sizeof <char *>)"},
  {"sizeof x + 1", "sizeof|x|+|1", "x|sizeof|1|+", 0, "(+ (sizeof x) 1)"},
  // Unknown characters end the expression.
  {"a = 1", "a", "a", 0, "a"},
  {"a\tb", "a", "a", 0, "a"},
  {"a<<=b", "a|<<", "a|<<", 0, "-2"},
  {"x == 1; y", "x|==|1", "x|1|==", 0, "(== x 1)"},
  {"=a", "", "", 0, "-2"},
  {"a \xC3\xA4 b", "a", "a", 0, "a"},
  // Casts to pointer and array types.
  {"(char *)p", "char *|$|p", "char *|p|$", 0, "($ <char *> p)"},
  {"(unsigned int*)0x20000000", "unsigned int *|$|0x20000000", "unsigned int *|0x20000000|$", 0,
   "($ <unsigned int *> 0x20000000)"},
  {"*(char *)0x20000000", "`|char *|$|0x20000000", "char *|0x20000000|$|`", 0,
   "(` ($ <char *> 0x20000000))"},
  {"(int [4])p", "int [ 4 ]|$|p", "int [ 4 ]|p|$", 0, "($ <int [ 4 ]> p)"},
  {"(char*)a.b", "char *|$|a|.|b", "char *|a|$|b|.", 0, "(. ($ <char *> a) b)"},
  {"(T*)p + 1", "T *|$|p|+|1", "T *|p|$|1|+", 0, "(+ ($ <T *> p) 1)"},
  {"(T*)(p)", "T *|$|(|p|)", "T *|p|$", 0, "($ <T *> p)"},
  // Not casts: a plain type, a parenthesised index, or no "(".
  {"(int)x", "(|int|)|x", "int|x", 0, "-2"},
  {"(a[1])", "(|a|[|1|]|)", "a|1|[]", 0, "([] a 1)"},
  {"(a[1]) + 2", "(|a|[|1|]|)|+|2", "a|1|[]|2|+", 0, "(+ ([] a 1) 2)"},
  {"a*)b", "a*|)|b", "", -2, nullptr},
  {"a[1])b", "a|[|1*|)|b", "", -2, nullptr},
  {"])b", "]|)|b", "", -2, nullptr},
  {"((char *))p", "(|char *|)|p", "char *|p", 0, "-2"},
  // The token after ")" was judged as binary, so these fail.
  {"(char *)-1", "char *|$|-|1", "char *|$|1|-", 0, "-2"},
  {"(char *)&x", "char *|$|&|x", "char *|$|x|&", 0, "-2"},
  // File scopes.
  {"main.c::x", "main.c|::|x", "main.c|x|::", 0, "(:: main.c x)"},
  {"a.b.c::x", "a|.|b.c|::|x", "a|b.c|.|x|::", 0, "(:: (. a b.c) x)"},
  {"Ns::Class::member", "Ns|::|Class|::|member", "Ns|Class|::|member|::", 0, "(:: (:: Ns Class) member)"},
  // "++" and "--" are tokens; the tree takes them as unary operators.
  {"a++", "a|++", "a|++", 0, "(++ a)"},
  {"--a", "--|a", "a|--", 0, "(-- a)"},
  {"a ++ b", "a|++|b", "a|b|++", 0, "-2"},
  // Inner spellings typed by the user.
  {"`p", "`|p", "p|`", 0, "(` p)"},
  {"@x", "@|x", "x|@", 0, "(@ x)"},
  {"a $ b", "a|$|b", "a|b|$", 0, "($ a b)"},
  // Numbers: hex digits, "." and "," in the body, then l/L/u/U.
  {"0x1F+10u", "0x1F|+|10u", "0x1F|10u|+", 0, "(+ 0x1F 10u)"},
  {"1.5e3*2", "1.5e3|*|2", "1.5e3|2|*", 0, "(* 1.5e3 2)"},
  {"1,5", "1,5", "1,5", 0, "1,5"},
  {"0xFFFFFFFFul", "0xFFFFFFFFul", "0xFFFFFFFFul", 0, "0xFFFFFFFFul"},
  {"12abc_x", "12abc|_x", "12abc|_x", 0, "-2"},
  {"1.2.3 + a", "", "", 0, "-2"},
  {"0xZZ", "", "", 0, "-2"},
  {"a + 1.2.3", "a|+", "a|+", 0, "-2"},
  {"_a1 + B_2", "_a1|+|B_2", "_a1|B_2|+", 0, "(+ _a1 B_2)"},
};

QStringList Split(const char* s) {
  if (!s || !*s) return {};
  // '|' separates; "\|" is a literal bar.
  QStringList out;
  QString cur;
  for (const char* p = s; *p; ++p) {
    if (*p == '\\' && p[1]) { cur += QChar(p[1]); ++p; continue; }
    if (*p == '|') { out << cur; cur.clear(); continue; }
    cur += QChar(*p);
  }
  out << cur;
  return out;
}

TEST(ExprParser, EdgeCaseTable) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.text);
    CExpression e(QString::fromUtf8(c.text));
    EXPECT_EQ(e.GetText(), QString::fromUtf8(c.text));
    EXPECT_EQ(e.GetTokens(), Split(c.tokens)) << e.GetTokens().join(QChar('|')).toStdString();
    if (*c.postfix || c.parseStatus != 0) {
      EXPECT_EQ(e.GetPostfix(), Split(c.postfix)) << e.GetPostfix().join(QChar('|')).toStdString();
    }
    EXPECT_EQ(e.GetStatus(), c.parseStatus);
    if (c.parseStatus == 0) {
      EXPECT_TRUE(e.GetError().isEmpty());
      std::shared_ptr<CExprNode> tree;
      const int r = CExpression::BuildTree(e.GetPostfix(), tree);
      if (QByteArray(c.tree) == "-2") {
        EXPECT_EQ(r, -2);
        EXPECT_EQ(tree, nullptr);
        EXPECT_EQ(e.BuildTree(), -2);
        EXPECT_EQ(e.GetStatus(), -2);
        EXPECT_EQ(e.GetError(), QStringLiteral("syntax error"));
      } else {
        ASSERT_EQ(r, 0);
        EXPECT_EQ(Shape(tree.get()), QString::fromUtf8(c.tree));
      }
    } else {
      EXPECT_EQ(e.GetError(), QString::fromLatin1(kPostfixError));
      // The failure stays; no tree is built over it.
      EXPECT_EQ(e.BuildTree(), c.parseStatus);
      EXPECT_EQ(e.GetTree(), nullptr);
    }
  }
}

TEST(ExprParser, NextTokenPositions) {
  QString tok;
  int pos = -5;  // a negative position counts from the start
  EXPECT_EQ(CExpression::NextToken(QStringLiteral("  ab+1"), pos, tok), 0);
  EXPECT_EQ(tok, QStringLiteral("ab"));
  EXPECT_EQ(pos, 4);
  EXPECT_EQ(CExpression::NextToken(QStringLiteral("  ab+1"), pos, tok), 0);
  EXPECT_EQ(tok, QStringLiteral("+"));
  EXPECT_EQ(CExpression::NextToken(QStringLiteral("  ab+1"), pos, tok), 0);
  EXPECT_EQ(tok, QStringLiteral("1"));
  EXPECT_EQ(pos, 6);
  EXPECT_EQ(CExpression::NextToken(QStringLiteral("  ab+1"), pos, tok), -1);
  pos = 100;
  EXPECT_EQ(CExpression::NextToken(QStringLiteral("ab"), pos, tok), -1);
  pos = 0;
  EXPECT_EQ(CExpression::NextToken(QStringLiteral("   "), pos, tok), -1);
  pos = 1;
  EXPECT_EQ(CExpression::NextToken(QStringLiteral("a = b"), pos, tok), -2);
  // Only U+0020 is a blank.
  pos = 0;
  EXPECT_EQ(CExpression::NextToken(QStringLiteral("\tb"), pos, tok), -2);
  // Two-character rows win over one-character rows.
  for (const char* op : {"->", "::", "<<", ">>", "<=", ">=", "==", "!=", "&&", "||", "[]", "++", "--"}) {
    pos = 0;
    EXPECT_EQ(CExpression::NextToken(QString::fromLatin1(op) + QStringLiteral("x"), pos, tok), 0);
    EXPECT_EQ(tok, QString::fromLatin1(op));
  }
  // A suffix-only run is not a number on its own, but follows one.
  pos = 0;
  EXPECT_EQ(CExpression::NextToken(QStringLiteral("7uLx"), pos, tok), 0);
  EXPECT_EQ(tok, QStringLiteral("7uL"));
}

TEST(ExprParser, NumberTest) {
  EXPECT_FALSE(EXPR_IsNumberText(QStringLiteral("1FFFFFFFFFFFFFFFF")));  // 65 bits, and no double
  EXPECT_TRUE(EXPR_IsNumberText(QStringLiteral("-1.5")));
  // Block separators are ignored when the text is read as a double.
  EXPECT_TRUE(EXPR_IsNumberText(QStringLiteral("1") + QChar(0x2008) + QStringLiteral("000.5")));
  EXPECT_FALSE(EXPR_IsNumberText(QStringLiteral("1_000.5")));
  EXPR_SetBlockSeparators(QStringLiteral("_"));
  EXPECT_TRUE(EXPR_IsNumberText(QStringLiteral("1_000.5")));
  EXPR_SetBlockSeparators(QString(QChar(0x2008)));
  // Digits of other scripts start a number token but fail the test.
  EXPECT_TRUE(CExpression(QString(QChar(0x00BD)) + QStringLiteral("+1")).GetTokens().isEmpty());
}

TEST(ExprParser, StatusWordsAndCopies) {
  CExpression e(QStringLiteral("a + b"));
  EXPECT_EQ(e.GetStatus(), 0);
  e.SetStatus(-4);
  EXPECT_EQ(e.GetError(), QStringLiteral("data readout error"));
  e.SetStatus(-3);  // an existing text is kept
  EXPECT_EQ(e.GetError(), QStringLiteral("data readout error"));
  EXPECT_EQ(e.GetStatus(), -3);
  const int codes[] = {0, -1, -2, -3, -4, -5, -99};
  const char* words[] = {"ok", "unknown error", "syntax error", "evaluation error", "data readout error",
                         "invalid data buffer size", "unknown error"};
  for (int i = 0; i < 7; ++i) EXPECT_EQ(CExpression::StatusText(codes[i]), QString::fromLatin1(words[i]));
  // Look-up by text finds the first row: the "++" of precedence 2 is reachable by id only.
  EXPECT_EQ(EXPR_FindOperator(QStringLiteral("++"))->precedence, 1);
  EXPECT_EQ(EXPR_FindOperatorById(EXPR_OP_PRE_INC)->precedence, 2);

  // A reparse clears the failure and the tree; copies share a built tree.
  EXPECT_EQ(e.Parse(QStringLiteral("x[2]")), 0);
  EXPECT_TRUE(e.GetError().isEmpty());
  EXPECT_EQ(e.GetTree(), nullptr);
  ASSERT_EQ(e.BuildTree(), 0);
  CExpression copy = e;
  EXPECT_EQ(copy.GetTree(), e.GetTree());
  e.Parse(QStringLiteral("y"));
  ASSERT_NE(copy.GetTree(), nullptr);  // the copy keeps the old tree alive
  EXPECT_EQ(copy.GetTree()->text, QStringLiteral("[]"));
}

class CFakeProgram : public CExprProgramInfo {
public:
  bool IsCpp() const override { return true; }
  bool IsTypeName(const QString& s) const override { return s == QLatin1String("U32"); }
  bool IsMacro(const QString& s) const override { return s == QLatin1String("RAM_BASE"); }
};

TEST(ExprParser, ProgramInfoAndRendering) {
  EXPECT_EQ(CExpression().isCpp, 0);
  CFakeProgram prog;
  EXPR_SetProgramInfo(&prog);
  CExpression e(QStringLiteral("*(U32 *)RAM_BASE + n"));
  EXPECT_EQ(e.isCpp, 1);
  const QStringList lines = EXPR_RenderTokenLines(e);
  EXPR_SetProgramInfo(nullptr);
  const QStringList expected = {
    "expression: *(U32 *)RAM_BASE + n",
    "status: 0 (ok)",
    "tokens: 6",
    "  0  `  operator 31 dereference, unary, right, precedence 2",
    "  1  \"U32 *\"  type text",
    "  2  $  operator 34 cast, binary, left, precedence 1",
    "  3  RAM_BASE  macro",
    "  4  +  operator 7 add, binary, left, precedence 4",
    "  5  n  name",
    "postfix: \"U32 *\" RAM_BASE $ ` n +",
    "tree: 0 (ok)",
  };
  EXPECT_EQ(lines, expected);
  EXPECT_EQ(EXPR_RenderTokenLines(QStringLiteral("U32")).at(3), QStringLiteral("  0  U32  name"));
  EXPECT_EQ(EXPR_RenderTokenLines(QStringLiteral("a  = 1")).at(2), QStringLiteral("ignored from column 4: = 1"));

  const QStringList bad = EXPR_RenderTokenLines(QStringLiteral("(a"));
  EXPECT_EQ(bad.at(1), QStringLiteral("status: -2 (syntax error): error converting expression to postfix notation"));
  EXPECT_EQ(bad.last(), QStringLiteral("tree: -2 (syntax error)"));
}

}  // namespace
