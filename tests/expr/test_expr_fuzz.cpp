// Robustness of the parser over random and mutated texts, built with
// AddressSanitizer and UBSan: every text parses to a status with its words,
// the tokeniser always advances, and every postfix list either makes a tree
// whose node count equals its length or is refused. Deep and long inputs check
// that nothing recurses or grows quadratically with the text.
#include "expr/expression.h"
#include "expr/exprdump.h"

#include <gtest/gtest.h>

#include "testsupport/randomtext.h"

namespace {

const char* const kFragments[] = {
  "a", "b", "p", "x1", "_v", "sizeof", "main", "c", "::", ".", "->", "[", "]", "[]", "(", ")", "*", "&",
  "+", "-", "/", "%", "<<", ">>", "<", "<=", ">", ">=", "==", "!=", "^", "|", "&&", "||", "~", "!",
  "`", "@", "#", "'", "$", "++", "--", "0", "1", "0x20000000", "1.5", "1,5", "10u", "0xFFul", "1e3",
  " ", " ", "  ", "char", "int", "unsigned", "(char *)", "(int [4])", "main.c::", "=", "\t", ";", "\"",
  "\xC3\xA4", "\xE2\x80\x88", "\xC2\xBD", "9", "F", "..", ",",
};

const char* const kSeeds[] = {
  "a.b->c[1]", "-a.b", "*p + 1", "a - -b", "a[1]-2", "(a)-2", "1 << 2 + 3", "sizeof(int)", "sizeof x",
  "(char*)a.b", "*(unsigned int *)0x20000000", "main.c::counter", "Ns::Class::member", "a[1][2]",
  "(int [4])buf", "!(x && y) || z != 3", "~mask & 0xFF", "&s.field", "p->next->next->value",
  "sizeof(char *)", "((a + b) * (c - d)) / e % f", "x[i+1].y[j-1]",
};

testsupport::RandomText Generator(uint64_t Seed) {
  return testsupport::RandomText({std::begin(kFragments), std::end(kFragments)}, {std::begin(kSeeds), std::end(kSeeds)},
                                 Seed);
}

int CountNodes(CExprNode* root) {
  int n = 0;
  EXPR_VisitPostOrder(root, [&](CExprNode&) { ++n; return 0; });
  return n;
}

void CheckOne(const QString& s, bool Render) {
  // The tokeniser advances on every token and stops inside the text.
  int pos = 0;
  QString tok;
  int r;
  int guard = 0;
  while ((r = CExpression::NextToken(s, pos, tok)) == 0) {
    ASSERT_FALSE(tok.isEmpty());
    ASSERT_LE(pos, s.size());
    ASSERT_LT(++guard, s.size() + 2);
  }
  ASSERT_TRUE(r == -1 || r == -2);

  CExpression e(s);
  const int st = e.GetStatus();
  ASSERT_TRUE(st == 0 || st == -2) << st;
  if (st == 0) {
    ASSERT_TRUE(e.GetError().isEmpty());
    std::shared_ptr<CExprNode> tree;
    const int t = CExpression::BuildTree(e.GetPostfix(), tree);
    ASSERT_TRUE(t == 0 || t == -2);
    if (t == 0) {
      ASSERT_EQ(CountNodes(tree.get()), e.GetPostfix().size());
      // Every operator node has the operands its row asks for.
      EXPR_VisitPostOrder(tree.get(), [](CExprNode& n) {
        if (n.op) {
          EXPECT_TRUE(n.left != nullptr);
          EXPECT_EQ(n.right != nullptr, bool(n.op->isBinary));
        }
        return 0;
      });
    } else {
      ASSERT_EQ(tree, nullptr);
    }
  } else {
    ASSERT_FALSE(e.GetError().isEmpty());
    ASSERT_TRUE(e.GetPostfix().isEmpty());
  }
  if (Render) {
    const QStringList lines = EXPR_RenderTokenLines(e);
    ASSERT_EQ(lines.size(), 5 + e.GetTokens().size() + (r == -2 ? 1 : 0));
  }
}

TEST(ExprFuzz, RandomAndMutatedTexts) {
  testsupport::RandomText gen = Generator(0x7A17u);
  const int kInputs = 100000;
  for (int i = 0; i < kInputs; ++i) {
    const QString s = QString::fromUtf8((i & 1) ? gen.Text(0, 23, 5, testsupport::RandomText::Character)
                                                : gen.Mutate(gen.Seed(), 4, testsupport::RandomText::Printable));
    ASSERT_NO_FATAL_FAILURE(CheckOne(s, (i & 7) == 0)) << s.toStdString();
  }
}

TEST(ExprFuzz, DeepAndLongTexts) {
  const int n = 60000;
  // A long chain of unary operators makes a tree as deep as the text.
  {
    CExpression e(QString(n, QChar('-')) .replace(QStringLiteral("--"), QStringLiteral("-~")) + QStringLiteral("a"));
    ASSERT_EQ(e.GetStatus(), 0);
    ASSERT_EQ(e.BuildTree(), 0);
    ASSERT_EQ(CountNodes(e.GetTree()), n + 1);
  }
  // Deep brackets, balanced and not: up to the nesting limit they parse,
  // beyond it they are refused before any pass runs.
  {
    const int d = EXPR_MAX_NESTING;
    CExpression e(QString(d, QChar('(')) + QStringLiteral("a") + QString(d, QChar(')')));
    ASSERT_EQ(e.GetStatus(), 0);
    ASSERT_EQ(e.GetPostfix(), QStringList{QStringLiteral("a")});
    CExpression u(QString(d, QChar('(')) + QStringLiteral("a"));
    ASSERT_EQ(u.GetStatus(), -2);
    CExpression v(QString(n / 2, QChar('(')) + QStringLiteral("a") + QString(n / 2, QChar(')')));
    ASSERT_EQ(v.GetStatus(), -2);
    ASSERT_TRUE(v.GetError().startsWith(QStringLiteral("expression nested too deeply")));
  }
  {
    QString s;
    for (int i = 0; i < EXPR_MAX_NESTING; ++i) s += QStringLiteral("a[");
    CExpression e(s);
    ASSERT_EQ(e.GetStatus(), 0);
    ASSERT_EQ(e.BuildTree(), -2);
  }
  // Many casts, nested casts, and stray "*)" with no "(" before them: each
  // pass stays linear in the number of tokens.
  {
    QString casts, nested, stray;
    for (int i = 0; i < n / 8; ++i) {
      casts += QStringLiteral("(T*)");
      stray += QStringLiteral("a*)");
    }
    casts += QStringLiteral("p");
    CExpression e(casts);
    ASSERT_EQ(e.GetStatus(), 0);
    ASSERT_EQ(e.BuildTree(), 0);
    ASSERT_EQ(CountNodes(e.GetTree()), 2 * (n / 8) + 1);
    CExpression s(stray);
    ASSERT_EQ(s.GetStatus(), -2);
    const int Depth = EXPR_MAX_NESTING - 1;  // the cast's "(" is one level more
    for (int i = 0; i < Depth; ++i) nested += QStringLiteral("(a+");
    nested += QStringLiteral("(T*)p") + QString(Depth, QChar(')'));
    CExpression d(nested);
    ASSERT_EQ(d.GetStatus(), 0);
    ASSERT_EQ(d.BuildTree(), 0);
  }
  // A long left-grouping chain.
  {
    QString s = QStringLiteral("a");
    for (int i = 0; i < n / 2; ++i) s += QStringLiteral(".b");
    CExpression e(s);
    ASSERT_EQ(e.BuildTree(), 0);
    ASSERT_EQ(CountNodes(e.GetTree()), n + 1);
  }
}

}  // namespace
