// Long and deeply nested expressions under a memory cap. Each case runs in a
// forked child whose address space is limited to what it had at the start
// plus kCapBytes, so an evaluation that grows faster than the text fails the
// case (the child dies or exits non-zero) instead of exhausting the machine.
#include "expr/evaluator.h"
#include "expr/expression.h"

#include <gtest/gtest.h>

#include <QString>
#include <fstream>
#include <functional>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr U64 kCapBytes = 256ull << 20;

U64 AddressSpaceNow() {
  std::ifstream f("/proc/self/statm");
  U64 Pages = 0;
  f >> Pages;
  return Pages * (U64)sysconf(_SC_PAGESIZE);
}

// Runs Body in a child under the cap. Result: the child's exit code, or 100
// plus the signal that ended it.
int RunCapped(const std::function<int()>& Body) {
  fflush(nullptr);
  const pid_t Pid = fork();
  if (Pid == 0) {
    rlimit Limit;
    Limit.rlim_cur = Limit.rlim_max = AddressSpaceNow() + kCapBytes;
    setrlimit(RLIMIT_AS, &Limit);
    int r = 99;
    try {
      r = Body();
    } catch (...) {
      r = 98;  // out of memory
    }
    _exit(r);
  }
  int Status = 0;
  waitpid(Pid, &Status, 0);
  return WIFEXITED(Status) ? WEXITSTATUS(Status) : 100 + WTERMSIG(Status);
}

QString Repeat(const QString& s, int n) {
  QString r;
  r.reserve(s.size() * n);
  for (int i = 0; i < n; ++i) r += s;
  return r;
}

// Parses and evaluates; 0 when the value is Expected.
int EvaluatesTo(const QString& sText, I64 Expected) {
  CExpression e(sText);
  if (Evaluate(e) < 0) return 1;
  return GetResult(e)->ReadSigned() == Expected ? 0 : 2;
}

// 0 when parsing refuses the text with a syntax error naming Words.
int Refused(const QString& sText, const char* Words) {
  CExpression e(sText);
  if (e.GetStatus() != EXPR_ERR_SYNTAX) return 1;
  if (!e.GetError().contains(QLatin1String(Words))) return 2;
  return Evaluate(e) == EXPR_ERR_SYNTAX ? 0 : 3;
}

TEST(ExprStress, LongSumsEvaluateWithinTheCap) {
  // 30,000 terms (60 KB): the text of each partial sum used to be kept.
  EXPECT_EQ(RunCapped([] { return EvaluatesTo("1" + Repeat("+1", 29999), 30000); }), 0);
  // Right at the length limit, with a mix of operators.
  const QString Mixed = Repeat("2*3-5+", (EXPR_MAX_TEXT_LENGTH - 1) / 6) + "0";
  ASSERT_LE(Mixed.size(), EXPR_MAX_TEXT_LENGTH);
  EXPECT_EQ(RunCapped([&] { return EvaluatesTo(Mixed, (EXPR_MAX_TEXT_LENGTH - 1) / 6); }), 0);
}

TEST(ExprStress, DeepChainsEvaluateWithinTheCap) {
  // Unary chains have no brackets: only the length limits them.
  EXPECT_EQ(RunCapped([] { return EvaluatesTo(Repeat("~", 40000) + "7", 7); }), 0);
  EXPECT_EQ(RunCapped([] { return EvaluatesTo(Repeat("- ", 40001) + "7", -7); }), 0);
  EXPECT_EQ(RunCapped([] { return EvaluatesTo(Repeat("!", 30001) + "0", 1); }), 0);
  // Nesting right at the limit.
  const int n = EXPR_MAX_NESTING;
  EXPECT_EQ(RunCapped([&] { return EvaluatesTo(Repeat("(1+", n) + "1" + Repeat(")", n), n + 1); }), 0);
  EXPECT_EQ(RunCapped([&] { return EvaluatesTo(Repeat("(", n) + "5" + Repeat(")", n), 5); }), 0);
}

TEST(ExprStress, AbsurdInputIsRefusedWithItsLimit) {
  // 600 KB texts: a flat sum and a nested one.
  EXPECT_EQ(RunCapped([] { return Refused("1" + Repeat("+1", 300000), "expression too long"); }), 0);
  EXPECT_EQ(RunCapped([] { return Refused(Repeat("(", 300000) + "1" + Repeat(")", 300000), "expression too long"); }), 0);
  // One level over the nesting limit, with brackets or parentheses.
  const int n = EXPR_MAX_NESTING + 1;
  EXPECT_EQ(RunCapped([&] { return Refused(Repeat("(", n) + "1" + Repeat(")", n), "nested too deeply"); }), 0);
  EXPECT_EQ(RunCapped([&] { return Refused("a" + Repeat("[a", n) + Repeat("]", n), "nested too deeply"); }), 0);
  // The texts of the refusals.
  CExpression Long(Repeat("1", EXPR_MAX_TEXT_LENGTH + 1));
  EXPECT_EQ(Long.GetError(),
            QString("expression too long: %1 characters, the limit is %2").arg(EXPR_MAX_TEXT_LENGTH + 1).arg(EXPR_MAX_TEXT_LENGTH));
  CExpression Deep(Repeat("(", n) + "1" + Repeat(")", n));
  EXPECT_EQ(Deep.GetError(),
            QString("expression nested too deeply: more than %1 open parentheses or brackets").arg(EXPR_MAX_NESTING));
  // Closing brackets free their level again: many groups side by side are fine.
  EXPECT_EQ(Refused(Repeat("(1)+", 1000) + "1", "nested"), 1);
}

}  // namespace
