// Grouping checked against the C compiler: each integer expression below is
// compiled as C++ and also parsed by the expression parser; a small C-rules
// interpreter over the parser's tree must give the compiler's value. Any
// mistake in precedence, associativity or the unary/binary decision shows up
// as a different value.
#include "expr/expression.h"

#include <gtest/gtest.h>

#include <optional>

#pragma GCC diagnostic ignored "-Wparentheses"
#pragma GCC diagnostic ignored "-Wint-in-bool-context"
#pragma GCC diagnostic ignored "-Wbool-operation"

namespace {

struct Sample {
  const char* text;
  long long value;
};

#define X(e) {#e, (long long)(e)}
const Sample kSamples[] = {
  X(1 + 2 * 3), X((1 + 2) * 3), X(10 - 4 - 3), X(10 - (4 - 3)), X(100 / 10 / 5), X(100 / (10 / 5)),
  X(17 % 5 * 3), X(2 * 17 % 5), X(7 - -3), X(-7 - 3), X(- -7), X(-(3 + 4) * 2), X(+5 - +2),
  X(~5 & 0xFF), X(~(5 & 3)), X(!0 + 1), X(!5 * 7), X(!!9), X(-~3), X(~-3),
  X(1 << 2 + 3), X((1 << 2) + 3), X(256 >> 2 >> 1), X(1 << 3 << 2), X(3 * 4 >> 1),
  X(1 < 2 == 1), X(3 > 2 > 1), X(2 <= 2 != 0), X(5 >= 6 == 0), X(1 == 1 == 1), X(2 != 3 != 1),
  X(6 & 3 == 3), X((6 & 3) == 2), X(6 ^ 3 & 5), X(6 | 3 ^ 5), X(12 | 3 & 5 ^ 6), X(1 | 2 << 3),
  X(1 && 0 || 1), X(0 || 0 && 1), X(1 || 0 && 0), X(3 && 4 == 4), X(0x10 + 0x0F * 2), X(0x7 & ~0x2),
  X(1 - 2 + 3 - 4 + 5), X(2 * 3 % 4 * 5), X(-2 * -3), X(8 / -2 / 2), X(-8 % 3), X(1 + 2 < 3 + 4 && 5 > 4 - 1),
  X((1 + 2) * (3 + 4) - (5 - 6) * -(7 + 8)), X(((((9))))), X(-(-(-(4)))), X(!(1 < 2) || ~0 == -1),
  X(1+2*3-4/2), X(5-3-1), X(010 + 0x10), X(7 & 3 | 8), X(2 * -3 << 2), X(1 < 2 < 3 < 4),
};
#undef X

std::optional<long long> Eval(const CExprNode* n) {
  if (!n) return std::nullopt;
  if (n->IsLeaf()) {
    bool ok = false;
    const long long v = n->text.toLongLong(&ok, 0);
    if (!ok) return std::nullopt;
    return v;
  }
  const auto a = Eval(n->left.get());
  if (!a) return std::nullopt;
  const QString& op = n->text;
  if (!n->right) {
    if (op == QLatin1String("'")) return -*a;
    if (op == QLatin1String("#")) return +*a;
    if (op == QLatin1String("~")) return ~*a;
    if (op == QLatin1String("!")) return (long long)!*a;
    return std::nullopt;
  }
  const auto b = Eval(n->right.get());
  if (!b) return std::nullopt;
  const long long x = *a, y = *b;
  if (op == QLatin1String("+")) return x + y;
  if (op == QLatin1String("-")) return x - y;
  if (op == QLatin1String("*")) return x * y;
  if (op == QLatin1String("/")) return y ? std::optional<long long>(x / y) : std::nullopt;
  if (op == QLatin1String("%")) return y ? std::optional<long long>(x % y) : std::nullopt;
  if (op == QLatin1String("<<")) return x << y;
  if (op == QLatin1String(">>")) return x >> y;
  if (op == QLatin1String("<")) return (long long)(x < y);
  if (op == QLatin1String("<=")) return (long long)(x <= y);
  if (op == QLatin1String(">")) return (long long)(x > y);
  if (op == QLatin1String(">=")) return (long long)(x >= y);
  if (op == QLatin1String("==")) return (long long)(x == y);
  if (op == QLatin1String("!=")) return (long long)(x != y);
  if (op == QLatin1String("&")) return x & y;
  if (op == QLatin1String("^")) return x ^ y;
  if (op == QLatin1String("|")) return x | y;
  if (op == QLatin1String("&&")) return (long long)(x && y);
  if (op == QLatin1String("||")) return (long long)(x || y);
  return std::nullopt;
}

TEST(ExprGrouping, MatchesCompiler) {
  for (const Sample& s : kSamples) {
    SCOPED_TRACE(s.text);
    CExpression e(QString::fromLatin1(s.text));
    ASSERT_EQ(e.GetStatus(), 0) << e.GetError().toStdString();
    ASSERT_EQ(e.BuildTree(), 0) << e.GetPostfix().join(QChar(' ')).toStdString();
    const auto v = Eval(e.GetTree());
    ASSERT_TRUE(v.has_value()) << e.GetPostfix().join(QChar(' ')).toStdString();
    EXPECT_EQ(*v, s.value) << e.GetPostfix().join(QChar(' ')).toStdString();
  }
}

}  // namespace
