// Random and mutated scripts against the interpreter, built with ASan and
// UBSan: no input may crash, hang or read out of bounds, and every error
// must come with its line.
//
// TAVIT_FUZZ_COUNT and TAVIT_FUZZ_SEED override the number of inputs and the
// seed; a failure prints the seed and the input index to replay.
#include "scripthost.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include "testsupport/randomtext.h"

namespace {

const char* const kSeeds[] = {
  "int main(void) {\n int i;\n int s;\n i = 0;\n s = 0;\n while (i < 10) { s += i; i += 1; }\n return s;\n}\n",
  "int main(void) {\n return fact(6);\n}\nint fact(int n) {\n if (n < 2) return 1;\n return n * fact(n - 1);\n}\n",
  "void OnProjectLoad (void) {\n  //\n  // Dialog-generated settings\n  //\n  Util.Log(\"STM32F407VE\");\n"
  "  Target.WriteU32(0x20000000, FREQ_1_MHZ);\n  //\n  // User settings\n  //\n  Util.Log(\"$(ProjectDir)/a.elf\");\n}\n"
  "/*********************************************************************\n*  TargetReset\n*/\n"
  "//void TargetReset (void) {\n//  unsigned int SP;\n//}\n",
  "int main(void) {\n char b[4];\n __int64 x;\n b[3] = -1;\n x = b[3] << 8 | b[0];\n x <<= 3;\n x /= 2;\n do { x -= 1; } while (x > 0);\n"
  " if (x == 0) return ~x; else return !x;\n}\n",
  "int main(int a, int b) {\n return a - b + a * b / (b + 1) >> 1 || a && b ^ 3 & 1 | 4 != 2 == 1 >= 0 > -1 <= 7 < 8;\n}\n",
  "int f(int n) {\n int k[3];\n k[n] = n;\n return k[n] + g(n);\n}\nint g(const char* s) {\n Util.Log(\"x\\t\\n\\\\\");\n return Test.Count();\n}\n"
  "int main(void) {\n return f(1) + f(2);\n}\n",
  "int main(void) {\n int i;\n i = 0;\n while (1) { Util.Log(\"loop\"); i += 1; if (i > 3) return i; }\n}\n",
};

const char* const kTokens[] = {
  "{", "}", "(", ")", "[", "]", ";", ",", "\"", "\\", "/*", "*/", "//", "\n", " ", "=", "==", "+=", "<<=", ">>=", "-", "--",
  "++", "!", "~", "*", "/", "0", "-1", "0x", "0xFFFFFFFFFFFFFFFF", "9223372036854775808", "int ", "char ", "__int64 ",
  "void ", "unsigned ", "const ", "__api__ ", "__const_char ", "if", "else", "while", "do", "for", "return ", "main",
  "f(", "g(", "fact(", "Util.Log(", "Target.WriteU32(", "Test.Count()", "FREQ_1_MHZ", "a[", "x", "i", "k[",
  "\"abc\"", "\\0", "while (1) ", "if (0) ", "int a[100000];", "((((((((", "))))))))", ".", "_",
};

TEST(ScriptFuzz, RandomAndMutatedScripts) {
  U64 seed = 20261122;
  long count = 100000;
  if (const char* e = getenv("TAVIT_FUZZ_SEED")) seed = strtoull(e, nullptr, 0);
  if (const char* e = getenv("TAVIT_FUZZ_COUNT")) count = strtol(e, nullptr, 0);
  testsupport::RandomText gen({std::begin(kTokens), std::end(kTokens)}, {std::begin(kSeeds), std::end(kSeeds)}, seed);
  auto rng = [&gen] { return gen.Next(); };
  CTestHost h;
  h.Engine.SetStatementBudget(3000);
  long parsed = 0, ran = 0, failed = 0;
  const char* names[] = {"main", "f", "g", "fact", "OnProjectLoad"};
  for (long i = 0; i < count; i++) {
    std::string text;
    switch (rng() % 8) {
      case 0: text = gen.Text(0, 59, 3, testsupport::RandomText::Byte); break;
      case 1: text = "int main(void) {\n" + gen.Text(0, 59, 3, testsupport::RandomText::Byte) + "\n}\n"; break;
      default: text = gen.Mutate(gen.Seed(), 3, testsupport::RandomText::Byte); break;
    }
    SCOPED_TRACE("seed " + std::to_string(seed) + " input " + std::to_string(i));
    if (h.Load(text) != 0) {
      ASSERT_FALSE(h.Run.Error.empty()) << text;
      ASSERT_NE(h.Run.Error.find(" at line "), std::string::npos) << text;
      continue;
    }
    parsed++;
    U32 freeBefore = h.Engine.GetHeapFree();
    for (const char* n : names) {
      I64 args[3] = {I64(rng() % 5) - 1, I64(rng()), 0};
      int rc = h.Engine.CallFunctionArgs(n, 3, args, nullptr);
      ASSERT_TRUE(rc == 0 || rc == -1 || rc == -2) << text;
      if (rc == -2) continue;
      ran++;
      ASSERT_FALSE(h.Engine.IsRunning());
      if (rc == -1) {
        failed++;
        std::string m = h.Engine.GetErrorMessage();
        ASSERT_NE(m.find(" at line "), std::string::npos) << m << "\n" << text;
      }
      // Locals are given back; only the low end may have grown.
      ASSERT_LE(h.Engine.GetHeapFree(), freeBefore);
    }
  }
  // The mix must reach the interpreter, not only the parser.
  EXPECT_GT(parsed, count / 10);
  EXPECT_GT(ran, count / 10);
  printf("%ld inputs: %ld parsed, %ld function runs, %ld of them ended in an error\n", count, parsed, ran, failed);
}

}  // namespace

namespace {

// The deepest stack the limits allow, under the sanitizers' larger frames:
// script calls at the depth limit, each inside nested parentheses, and
// nesting at its limit.
TEST(ScriptFuzz, DeepestStackStaysInBounds) {
  CTestHost h;
  for (int parens : {1, 5, 10, 19, 25, 60}) {
    std::string open(size_t(parens), '('), close(size_t(parens), ')');
    auto& run = h.LoadAndCall("int main(void) {\n return f(0);\n}\nint f(int n) {\n if (n > 1000) return n;\n return " + open +
                              "f(n + 1)" + close + ";\n}\n");
    EXPECT_EQ(run.Rc, -1);
    EXPECT_NE(run.Error.find("exceeded") == std::string::npos ? run.Error.find("nested too deeply") : 0, std::string::npos)
        << run.Error;
  }
  std::string deep(200000, '(');
  auto& run = h.LoadAndCall("int main(void) {\n if (0) { return " + deep + "1; }\n}\n");
  EXPECT_EQ(run.ErrorText, "statements or expressions nested too deeply.");
  std::string ifs;
  for (int i = 0; i < 5000; i++) ifs += "if (1) while (0) do ";
  run = h.LoadAndCall("int main(void) {\n" + ifs + ";\n}\n");
  EXPECT_EQ(run.ErrorText, "statements or expressions nested too deeply.");
}

}  // namespace
