// Language rules of the script interpreter, driven by a table of small
// programs with their expected result or error (message and line).
#include "scripthost.h"

#include <gtest/gtest.h>

#include <climits>
#include <thread>

namespace {

// A row runs "main". Without Full the text is wrapped as
//   line 1: int main(void) {
//   line 2..: Body
//   last:   }
struct ROW {
  const char* Name;
  const char* Text;
  I64 Result = 0;           // expected result when Error is null
  const char* Error = nullptr;  // expected message (without " at line N")
  int Line = 0;             // expected error line
  bool Full = false;        // Text is the whole script
  bool AtParse = false;     // the error comes from Parse
};

void PrintTo(const ROW& r, std::ostream* os) { *os << r.Name; }

std::string Wrap(const ROW& r) {
  return r.Full ? std::string(r.Text) : "int main(void) {\n" + std::string(r.Text) + "\n}\n";
}

const ROW kRows[] = {
  // Operator levels: each binary operator has its own level, and one level
  // groups to the right.
  {"sub_add_right_assoc", "return 10 - 4 + 3;", 3},
  {"sub_sub_right_assoc", "return 10 - 4 - 3;", 9},
  {"div_mul_right_assoc", "return 64 / 4 * 2;", 8},
  {"mul_over_add", "return 2 * 3 + 4;", 10},
  {"add_over_mul_rhs", "return 1 + 2 * 3;", 7},
  {"add_binds_tighter_than_sub", "return 2 * 5 - 1 + 1;", 8},
  {"shift_below_add", "return 1 << 2 + 1;", 8},
  {"shr_then_shl_right", "return 8 >> 1 << 1;", 2},
  {"shift_count_mod_64", "return 1 << 65;", 2},
  {"shr_arithmetic", "return -8 >> 1;", -4},
  {"lt_chain_right", "return 3 < 2 < 1;", 0},
  {"bit_levels", "return 0x10 | 1 ^ 3 & 1;", 16},
  {"signed_compare", "return -1 < 0;", 1},
  {"ge_signed", "return -5 >= 0;", 0},
  {"unsigned_equality", "return -1 == 0xFFFFFFFFFFFFFFFF;", 1},
  {"neq", "return 3 != 3;", 0},
  {"logic_and_or", "return 0 || 2 && 3;", 1},
  {"and_evaluates_both_sides", "__int64 x;\n x = 0 && Test.Count();\n return Test.Count();", 2},
  {"or_evaluates_both_sides", "__int64 x;\n x = 1 || Test.Count();\n return Test.Count();", 2},
  {"hex_literal_mixed_case", "return 0xfF;", 255},
  {"literal_64_bits", "return 0x7FFFFFFFFFFFFFFF + 1;", INT64_MIN},
  {"min_div_minus_one_wraps", "return -9223372036854775808 / -1;", INT64_MIN},
  {"signed_division", "return -7 / 2;", -3},
  {"comment_between_operands", "return 1 /* { */ + // }\n 2;", 3},
  // Prefix operators, one per operand.
  {"neg_paren", "return -(1);", -1},
  {"not_paren", "return !(0);", 1},
  {"tilde", "return ~0;", -1},
  {"preinc_is_plus_one", "int x;\n x = 5;\n if (++x != 6) return 0;\n return x;", 5},
  {"predec", "return --5;", 4},
  {"unary_plus", "return +5;", 5},
  {"prefix_binds_tighter", "return -2 * 3 - 1;", -7},
  {"double_prefix", "return !!1;", 0, "expected a value or an identifier.", 2},
  // Values: reading zero-extends, storing keeps the low bytes.
  {"int_minus_one_reads_unsigned", "int x;\n x = -1;\n return x;", 4294967295LL},
  {"char_keeps_low_byte", "char c;\n c = 300;\n return c;", 44},
  {"int64_keeps_sign", "__int64 y;\n y = -1;\n return y;", -1},
  {"int_stores_low_four_bytes", "int i;\n i = 0x100000000;\n return i;", 0},
  {"signed_has_no_effect", "signed int s;\n s = -2;\n return s;", 4294967294LL},
  {"constant_sign_extends", "return DISABLE_SAVE_ANY + RM_RESET_HALT;", -1},
  {"constants", "return FREQ_1_MHZ / 1000;", 1000},
  // Assignments.
  {"compound_add", "int x;\n x = 1;\n x += 2;\n return x;", 3},
  {"compound_all",
   "__int64 x;\n x = 100;\n x -= 4;\n x *= 3;\n x /= 2;\n x &= 0xFF;\n x |= 0x100;\n x ^= 1;\n x <<= 4;\n x >>= 2;\n return x;",
   ((((((100 - 4) * 3 / 2) & 0xFF) | 0x100) ^ 1) << 4) >> 2},
  {"compound_div_zero", "int x;\n x = 1;\n x /= 0;", 0, "division by zero.", 4},
  {"statement_without_assignment", "int x;\n x = 3;\n x;\n return x;", 3},
  {"void_store", "void v;\n v = 1;", 0, "base type size must be at least 1 byte", 3},
  {"void_read", "void v;\n return v;", 0, "unsupported base type size.", 3},
  {"pointer_declaration", "int* p;", 0, "currently only basic data types for local variables are allowed.", 2},
  {"declaration_without_name", "int ;", 0, "expected an identifier.", 2},
  {"array_size_not_literal", "int n;\n int a[n];", 0, "expected an integer value", 3},
  {"array_size_zero", "int a[0];", 0, "invalid array size.", 2},
  {"assign_missing_semicolon", "int x;\n x = 1\n return x;", 0, "Expected a ';'", 4},
  {"qualifier_without_type", "unsigned x;", 0, "syntax error.", 2},
  // Arrays.
  {"array_store_read", "int a[2];\n a[1] = 5;\n a[0] = 7;\n return a[1] * 10 + a[0];", 57},
  {"array_out_of_range", "int a[2];\n a[0] = 1;\n a[2] = 1;", 0, "array index out of range.", 4},
  {"array_negative_index", "int a[2];\n a[-1] = 1;", 0, "array index out of range.", 3},
  {"array_read_out_of_range", "int a[2];\n return a[2];", 0, "array index out of range.", 3},
  {"array_untaken_not_checked", "int a[2];\n if (0) { a[2] = 1; return a[5]; }\n return 9;", 9},
  {"array_compound", "int a[2];\n a[0] += 1;", 0, "expected a base type.", 3},
  {"array_empty_index", "int a[2];\n return a[];", 0, "expected a value.", 3},
  {"array_empty_index_store", "int a[2];\n a[] = 1;", 0, "expected a value.", 3},
  {"array_element_zero_extends", "char b[3];\n b[2] = -1;\n return b[2];", 255},
  // Declarations take effect in branches that are not taken, and a name
  // keeps meaning its first variable.
  {"declaration_in_untaken_branch", "if (0) { int y; }\n y = 4;\n return y;", 4},
  {"redeclared_in_loop_keeps_first",
   "int i;\n i = 0;\n while (i < 3) { int k; if (i == 0) k = 42; i += 1; }\n return k;", 42},
  {"untaken_return", "int x;\n x = 7;\n if (0) { return 1; x = 2; }\n return x;", 7},
  {"untaken_branch_is_parsed", "if (0) { foo; }\n return 1;", 0, "syntax error.", 2},
  {"untaken_division_by_zero", "if (0) return 1 / 0;\n return 2;", 2},
  {"untaken_call_not_made", "if (0) Test.Count();\n return Test.Count();", 1},
  // Statements.
  {"if_else", "int x;\n if (1 > 2) x = 1; else x = 2;\n return x;", 2},
  {"nested_if_else", "if (1) if (0) return 1; else return 2;\n return 3;", 2},
  {"while_sum", "int i;\n int s;\n i = 0;\n s = 0;\n while (i < 10) { s += i; i += 1; }\n return s;", 45},
  {"do_while_runs_once", "int i;\n i = 10;\n do i += 1; while (i < 5);\n return i;", 11},
  {"do_while_loop", "int i;\n i = 0;\n do { i += 2; } while (i < 9);\n return i;", 10},
  {"return_in_loop", "int i;\n i = 0;\n while (1) { i += 1; if (i == 4) return i * 100; }", 400},
  {"empty_statements", ";;\n return 1;", 1},
  {"no_return_gives_minus_one", "int x;\n x = 1;", -1},
  {"return_needs_value", "return;", 0, "expected a value or an identifier.", 2},
  {"for_not_supported", "int i;\n for (i = 0; i < 3; i += 1) ;", 0, "keyword \"for\" is not yet supported", 3},
  {"else_without_if", "\n else return 1;", 0, "keyword \"else\" is not allowed without \"if\"", 3},
  {"do_without_while", "int i;\n do { i = 1; }\n return i;", 0, "syntax error. Missing \"while\" at line 4", 4},
  {"if_needs_paren", "if 1) return 1;", 0, "Expected a '('", 2},
  {"unclosed_paren", "return (1 + 2;", 0, "Expected a ')'", 2},
  {"unknown_statement", "\n\n bar = 1;", 0, "syntax error.", 4},
  {"unknown_identifier", "return zz;", 0, "unknown identifier.", 2},
  {"type_in_expression", "return int;", 0, "syntax error. Unexpected type", 2},
  {"number_as_statement", "1;", 0, "syntax error.", 2},
  {"division_by_zero", "int z;\n z = 0;\n return 5 / z;", 0, "division by zero.", 4},
  {"error_line_in_callee",
   "int main(void) {\n  return f(1);\n}\nint f(int n) {\n  int a[1];\n  return a[n];\n}\n", 0, "array index out of range.",
   6, true},
  // Strings and host calls.
  {"string_escapes", "Util.Log(\"a\\tb\\\\n\\0zz\");\n return 0;", 0},
  {"string_quote_escape", "Util.Log(\"a\\\"\");", 0, "unexpected escape character.", 2},
  {"string_newline", "Util.Log(\"abc\n\");", 0, "illegal character in string", 2},
  {"two_strings_fail_on_second", "Util.Log(\"a\" \"b\");", 0, "Expected a ')'", 2},
  {"comma_optional", "Target.WriteU32(0x100 1);\n Target.WriteU32(0x104, 2,);\n return 0;", 0},
  {"too_few_arguments", "Target.WriteU32(1);", 0, "expected a value or an identifier.", 2},
  {"too_many_arguments", "Target.WriteU32(1, 2, 3);", 0, "Expected a ')'", 2},
  {"call_missing_semicolon", "Test.Count()\n return 1;", 0, "Expected a ';'", 3},
  {"host_result_is_value", "return Test.Count() + Test.Count() * 10;", 21},
  {"string_is_heap_pointer_value", "return \"abc\" != 0;", 1},
  // Script functions.
  {"call_before_definition", "int main(void) {\n return g(2) + g(3);\n}\nint g(int n) {\n return n * n;\n}\n", 13, nullptr, 0, true},
  {"param_zero_extends", "int main(void) {\n return f(-1);\n}\nint f(int n) {\n return n;\n}\n", 4294967295LL, nullptr, 0, true},
  {"recursion", "int main(void) {\n return fact(10);\n}\nint fact(int n) {\n if (n < 2) return 1;\n return n * fact(n - 1);\n}\n",
   3628800, nullptr, 0, true},
  {"call_in_middle_of_expression", "int main(void) {\n return 1 + id(2) * id(3) + 4;\n}\nint id(int v) {\n return v;\n}\n", 11,
   nullptr, 0, true},
  {"locals_are_per_call",
   "int main(void) {\n int x;\n x = 5;\n set();\n return x;\n}\nvoid set(void) {\n int x;\n x = 9;\n}\n", 5, nullptr, 0, true},
  {"runaway_recursion", "int main(void) {\n return f(0);\n}\nint f(int n) {\n return f(n + 1);\n}\n", 0,
   "maximum call depth of 100 exceeded.", 5, true},
  {"pointer_param_read", "int main(void) {\n return f(\"x\");\n}\nint f(const char* s) {\n return s;\n}\n", 0,
   "expected a base type.", 5, true},
  {"pointer_param_store", "int main(void) {\n return f(\"x\");\n}\nint f(const char* s) {\n s = 1;\n}\n", 0,
   "assignments are allowed for base types only", 5, true},
  // Errors found by Parse.
  {"global_variable", "int x;\nint main(void) {\n return 1;\n}\n", 0, "Expected a '('", 1, true, true},
  {"top_level_garbage", "int main(void) { return 1; }\n\n 123", 0, "syntax error.", 3, true, true},
  {"prototype_without_body", "int f(void);\n", 0, "expected '{'", 1, true, true},
  {"unclosed_body", "int main(void) {\n return 1;\n", 0, "unexpected end of file looking for '}'", 3, true, true},
  {"unclosed_comment_at_end", "int main(void) {\n return 1;\n}\n/* open\n\n", 0, "C-comment has not been closed properly", 6, true,
   true},
  {"brace_in_string_disturbs_skip", "int main(void) {\n Util.Log(\"}\");\n}\nint g(void) {\n return 1;\n}\n", 0, "syntax error.",
   2, true, true},
  {"braces_in_comments_ignored", "int main(void) {\n // }\n /* } { */\n return 4;\n}\n", 4, nullptr, 0, true},
  {"unnamed_parameter", "int f(int) {\n}\n", 0, "expected an identifier.", 1, true, true},
  {"unknown_parameter_type", "int f(foo x) {\n}\n", 0, "syntax error.", 1, true, true},
  {"missing_return_type", "main(void) {\n}\n", 0, "syntax error.", 1, true, true},
  {"missing_function_name", "int (void) {\n}\n", 0, "expected an identifier.", 1, true, true},
  {"script_may_not_define_host_function", "__api__ int f(void) {\n}\n", 0, "invalid function attribute.", 1, true, true},
  {"too_many_parameters",
   "int f(int a0, int a1, int a2, int a3, int a4, int a5, int a6, int a7, int a8, int a9, int a10, int a11, int a12, int a13, "
   "int a14, int a15, int a16, int a17, int a18, int a19, int a20, int a21, int a22, int a23, int a24, int a25, int a26, int a27, "
   "int a28, int a29, int a30, int a31, int a32) {\n}\n",
   0, "a function may have at most 32 parameters.", 1, true, true},
  {"body_error_only_when_run", "int main(void) {\n return 1;\n}\nint bad(void) {\n @@@\n}\n", 1, nullptr, 0, true},
};

class ScriptTable : public ::testing::TestWithParam<ROW> {};

TEST_P(ScriptTable, Row) {
  const ROW& r = GetParam();
  CTestHost h;
  const SCRIPT_RUN& run = h.LoadAndCall(Wrap(r));
  if (r.AtParse) {
    EXPECT_EQ(run.ParseRc, -1);
  } else {
    ASSERT_EQ(run.ParseRc, 0) << run.Error;
  }
  if (r.Error) {
    if (!r.AtParse) {
      EXPECT_EQ(run.Rc, -1);
    }
    EXPECT_EQ(run.ErrorText, r.Error);
    EXPECT_EQ(run.ErrorLine, r.Line);
    EXPECT_EQ(run.Reports, 1) << "the error handler runs once per error";
    // Every error message carries its line.
    std::string suffix = " at line " + std::to_string(r.Line);
    EXPECT_EQ(run.Error.substr(run.Error.size() - std::min(run.Error.size(), suffix.size())), suffix) << run.Error;
  } else {
    EXPECT_EQ(run.Rc, 0) << run.Error;
    EXPECT_EQ(run.Result, r.Result);
    EXPECT_EQ(run.Reports, 0);
  }
}

INSTANTIATE_TEST_SUITE_P(Language, ScriptTable, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<ROW>& i) { return std::string(i.param.Name); });

// ---------------------------------------------------------------------------

TEST(Script, HostCallsSeeArgumentsAndTexts) {
  CTestHost h;
  const auto& run = h.LoadAndCall(
      "int main(void) {\n Util.Log(\"a\\tb\\\\n\\0zz\");\n Target.WriteU32(0x100 1);\n Target.WriteU32(-1, 0x1FFFFFFFF,);\n"
      " Util.Log(12345);\n return 0;\n}\n");
  ASSERT_EQ(run.Rc, 0) << run.Error;
  ASSERT_EQ(run.Log.size(), 2u);
  EXPECT_EQ(run.Log[0], "a\tb\\n");  // "\0" ends the text
  EXPECT_EQ(run.Log[1], "<invalid>") << "a number passed for a text is not a heap pointer";
  ASSERT_EQ(run.Writes.size(), 2u);
  EXPECT_EQ(run.Writes[0], std::make_pair(U64(0x100), U64(1)));
  // Host functions get the full 64-bit values; narrowing is their business.
  EXPECT_EQ(run.Writes[1], std::make_pair(U64(-1), U64(0x1FFFFFFFF)));
}

TEST(Script, HeapExhaustion) {
  CTestHost h;
  // A string literal takes heap once however often it runs: a logging loop
  // ends by the statement budget, with the heap as it was after one turn.
  h.Engine.SetStatementBudget(300000);
  auto run = h.LoadAndCall("int main(void) {\n while (1) {\n  Util.Log(\"some text\");\n }\n}\n");
  EXPECT_EQ(run.Rc, -1);
  EXPECT_EQ(run.ErrorText, "statement limit of 300000 exceeded.");
  EXPECT_GT(run.Log.size(), 50000u);
  EXPECT_GT(h.Engine.GetHeapFree(), 900000u);
  h.Engine.SetStatementBudget(SCRIPT_DEFAULT_STATEMENT_BUDGET);

  // Locals are taken from the high end on every declaration.
  run = h.LoadAndCall("int main(void) {\n while (1) {\n  int a[1000];\n }\n}\n");
  EXPECT_EQ(run.ErrorText, "out of memory.");
  EXPECT_EQ(run.ErrorLine, 3);

  run = h.LoadAndCall("int main(void) {\n int a[300000];\n}\n");
  EXPECT_EQ(run.Error, "out of memory. at line 2");
  run = h.LoadAndCall("int main(void) {\n if (0) { int a[0x7FFFFFFFFFFFFFFF]; }\n}\n");
  EXPECT_EQ(run.Error, "out of memory. at line 2") << "declarations take effect even when not executed";

  // A large array that fits works, and its storage lies in the heap.
  run = h.LoadAndCall("int main(void) {\n int a[200000];\n a[199999] = 7;\n return a[199999];\n}\n");
  EXPECT_EQ(run.Rc, 0) << run.Error;
  EXPECT_EQ(run.Result, 7);
}

TEST(Script, LocalsAreReleasedWhenFunctionReturns) {
  CTestHost h;
  ASSERT_EQ(h.Load("int main(void) {\n int a[10000];\n a[0] = 1;\n return 0;\n}\n"), 0);
  U32 before = h.Engine.GetHeapFree();
  for (int i = 0; i < 100; i++) ASSERT_EQ(h.Call().Rc, 0);
  EXPECT_EQ(h.Engine.GetHeapFree(), before);
}

TEST(Script, RunawayLoopIsStoppedByBudgetOrStopFlag) {
  CTestHost h;
  h.Engine.SetStatementBudget(100000);
  auto run = h.LoadAndCall("int main(void) {\n while (1) ;\n}\n");
  EXPECT_EQ(run.Rc, -1);
  EXPECT_EQ(run.Error, "statement limit of 100000 exceeded. at line 2");
  // The budget restarts with every call.
  ASSERT_EQ(h.Load("int main(void) {\n int i;\n i = 0;\n while (i < 1000) i += 1;\n return i;\n}\n"), 0);
  for (int k = 0; k < 200; k++) ASSERT_EQ(h.Call().Rc, 0);
  // int, =, while, 1000 turns and the last read of the body, return
  EXPECT_EQ(h.Engine.GetStatementCount(), 1u + 1u + 1u + 1001u + 1u);

  // A host function sets the stop flag: everything unwinds, no error report.
  h.Engine.SetStatementBudget(0);
  run = h.LoadAndCall("int main(void) {\n while (1) { Test.Stop(); }\n}\n");
  EXPECT_EQ(run.Rc, -1);
  EXPECT_EQ(run.Reports, 0);
  EXPECT_TRUE(h.Engine.GetStopFlag());
  EXPECT_EQ(h.Call().Rc, -1) << "calls are refused while the flag is set";
  h.Engine.SetStopFlag(false);
  ASSERT_EQ(h.Load("int main(void) {\n while (1) ;\n}\n"), 0);
  // Another thread stops an endless loop.
  std::thread t([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    h.Engine.SetStopFlag(true);
  });
  EXPECT_EQ(h.Call().Rc, -1);
  t.join();
}

TEST(Script, DeepNestingIsRefused) {
  CTestHost h;
  std::string deep(100000, '(');
  auto run = h.LoadAndCall("int main(void) {\n return " + deep + "1;\n}\n");
  EXPECT_EQ(run.Error, "statements or expressions nested too deeply. at line 2");
  std::string blocks(100000, '{');
  run = h.LoadAndCall("int main(void) {\n" + blocks + std::string(100000, '}') + "\n}\n");
  EXPECT_EQ(run.ErrorText, "statements or expressions nested too deeply.");
  // Nesting a little below the limit works.
  std::string ok = std::string(500, '(') + "1" + std::string(500, ')');
  run = h.LoadAndCall("int main(void) {\n return " + ok + ";\n}\n");
  EXPECT_EQ(run.Rc, 0) << run.Error;
  EXPECT_EQ(run.Result, 1);
}

TEST(Script, CallApi) {
  CTestHost h;
  ASSERT_EQ(h.Load("void OnProjectLoad(void) {\n}\nint add(int a, __int64 b) {\n return a + b;\n}\n"), 0);
  EXPECT_TRUE(h.Engine.IsFunctionDefined("OnProjectLoad"));
  EXPECT_TRUE(h.Engine.IsFunctionDefined("add"));
  EXPECT_FALSE(h.Engine.IsFunctionDefined("TargetReset"));
  EXPECT_FALSE(h.Engine.IsFunctionDefined("Util.Log")) << "host functions are no script functions";
  EXPECT_TRUE(h.Engine.IsSymbolDefined("Util.Log"));
  EXPECT_TRUE(h.Engine.IsSymbolDefined("FREQ_1_MHZ"));

  I64 r = 0;
  EXPECT_EQ(h.Engine.CallFunction("OnProjectLoad", &r), 0);
  EXPECT_EQ(r, -1);
  I64 args[7] = {3, 4, 5, 6, 7, 8, 9};
  EXPECT_EQ(h.Engine.CallFunctionArgs("add", 7, args, &r), 0);
  EXPECT_EQ(r, 7);
  EXPECT_EQ(h.Engine.CallFunctionArgs("add", 1, args, &r), 0);
  EXPECT_EQ(r, 3) << "missing arguments are 0";
  EXPECT_EQ(h.Engine.CallFunction("nothing", &r), -2);
  EXPECT_EQ(h.Engine.CallFunction("Util.Log", &r), -2);
  EXPECT_EQ(h.Engine.CallFunction("FREQ_1_MHZ", &r), -2);
  EXPECT_EQ(h.Engine.CallFunctionArgs("add", 33, args, &r), -1);

  // An error does not block later calls.
  ASSERT_EQ(h.Load("int main(int n) {\n if (n) return 1 / 0;\n return 5;\n}\n"), 0);
  EXPECT_EQ(h.Call("main", {1}).Rc, -1);
  EXPECT_EQ(h.Call("main", {0}).Rc, 0);
  EXPECT_EQ(h.Run.Result, 5);
  EXPECT_FALSE(h.Engine.HasError());

  // No script: everything refuses politely.
  CScriptEngine e;
  EXPECT_EQ(e.Parse(), -1);
  EXPECT_EQ(e.CallFunction("main"), -1);
  EXPECT_EQ(e.RegisterConstant("X", 1), -1);
  EXPECT_EQ(e.RegisterHostFunction("__api__ int X(void);", nullptr), -1);
  EXPECT_FALSE(e.IsHeapPointer(0));
  EXPECT_EQ(e.GetHeapBase(), 0u);
}

TEST(Script, RegisterHostFunctionPrototypes) {
  CScriptEngine e;
  e.Load("int main(void) {\n return Break.SetOnSymbol(\"sym\", 1, 2, 3, 4);\n}\n");
  auto ret = [](const SCRIPT_HOST_CALL& c) -> I64 { return c.NumArgs * 100 + I64(c.TextArgMask); };
  EXPECT_EQ(e.RegisterHostFunction("__api__ int File.Open (const char* sFileName);", ret), 0);
  EXPECT_EQ(e.RegisterHostFunction(
                "__api__ int Break.SetOnSymbol(unsigned char* sSymbolName, unsigned char AccessType, unsigned char AccessSize, "
                "unsigned int MatchValue, unsigned int ValueMask);",
                ret),
            0);
  EXPECT_EQ(e.RegisterHostFunction("__api__ int Debug.Start();", ret), 0);
  EXPECT_EQ(e.RegisterHostFunction("int NoApi(void);", ret), -1);
  EXPECT_EQ(e.GetRegisterError(), "invalid function attribute.");
  EXPECT_EQ(e.RegisterHostFunction("__api__ int Bad(void)", ret), -1);
  EXPECT_EQ(e.GetRegisterError(), "Expected a ';'");
  EXPECT_EQ(e.RegisterHostFunction("__api__ int Bad(long x);", ret), -1);
  EXPECT_EQ(e.GetRegisterError(), "syntax error.");
  EXPECT_FALSE(e.HasError()) << "a failed registration leaves the script's error state alone";
  EXPECT_FALSE(e.IsSymbolDefined("Bad"));
  ASSERT_EQ(e.Parse(), 0);
  I64 r = 0;
  ASSERT_EQ(e.CallFunction("main", &r), 0) << e.GetErrorMessage();
  EXPECT_EQ(r, 5 * 100 + 1);
}

TEST(Script, HostFunctionWithMoreThanEightParametersIsNotCalled) {
  CScriptEngine e;
  e.Load("int main(void) {\n return Nine(1,2,3,4,5,6,7,8,9) + 1;\n}\n");
  int calls = 0;
  ASSERT_EQ(e.RegisterHostFunction("__api__ int Nine(int a, int b, int c, int d, int e, int f, int g, int h, int i);",
                                   [&](const SCRIPT_HOST_CALL&) -> I64 { return ++calls; }),
            0);
  ASSERT_EQ(e.Parse(), 0);
  I64 r = 0;
  EXPECT_EQ(e.CallFunction("main", &r), 0);
  EXPECT_EQ(r, 1);
  EXPECT_EQ(calls, 0);
}

TEST(Script, ErrorReportCarriesLineText) {
  CScriptEngine e;
  std::vector<SCRIPT_ERROR> seen;
  std::vector<std::string> lineTexts;
  e.Load("void OnProjectLoad (void) {\n  Project.SetDevice(\"X\"); Nope(1);\n}\n");
  e.SetErrorHandler([&](const SCRIPT_ERROR& err) {
    seen.push_back(err);
    lineTexts.emplace_back(err.LineText);
  });
  e.RegisterHostFunction("__api__ int Project.SetDevice(const char* sDevice);", [](const SCRIPT_HOST_CALL&) -> I64 { return 0; });
  ASSERT_EQ(e.Parse(), 0);
  EXPECT_EQ(e.CallFunction("OnProjectLoad"), -1);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].Line, 2);
  EXPECT_EQ(lineTexts[0], "  Project.SetDevice(\"X\");");
  EXPECT_EQ(e.GetErrorMessage(), "syntax error. at line 2");
}

TEST(Script, TraceHookEchoesExecutedStatements) {
  CTestHost h;
  auto run = h.LoadAndCall(
      "int main(void) {\n int x;\n x = 1;\n if (0) Util.Log(\"no\");\n Util.Log (\"yes\") ;\n x += f(2);\n return x;\n}\n"
      "int f(int n) {\n Test.Count();\n return n;\n}\n");
  ASSERT_EQ(run.Rc, 0) << run.Error;
  std::vector<std::string> expect = {"3:x = 1;", "5:Util.Log (\"yes\") ;", "10:Test.Count();", "6:x += f(2);"};
  EXPECT_EQ(h.Trace, expect);
}

TEST(Script, NestedCallsFromHostFunctions) {
  // A host function that processes events may call back into the script.
  CScriptEngine e;
  e.Load("int main(void) {\n int x;\n x = 10;\n Host.Reenter();\n return x + 1;\n}\n"
         "int inner(int n) {\n int x;\n x = n * 2;\n return x;\n}\n"
         "int failing(void) {\n return 1 / 0;\n}\n");
  std::vector<int> results;
  e.RegisterHostFunction("__api__ int Host.Reenter(void);", [&](const SCRIPT_HOST_CALL& c) -> I64 {
    I64 r = 0;
    I64 a = 21;
    results.push_back(c.pEngine->CallFunctionArgs("inner", 1, &a, &r));
    results.push_back(int(r));
    results.push_back(c.pEngine->CallFunction("failing", &r));
    results.push_back(c.pEngine->Load("x") == -1 && c.pEngine->IsRunning());
    return 0;
  });
  ASSERT_EQ(e.Parse(), 0);
  I64 r = 0;
  EXPECT_EQ(e.CallFunction("main", &r), 0);
  EXPECT_EQ(r, 11);
  EXPECT_EQ(results, (std::vector<int>{0, 42, -1, 1}));
  EXPECT_FALSE(e.IsRunning());
}

TEST(Script, HeapPointerTest) {
  CTestHost h;
  ASSERT_EQ(h.Load("int main(void) {\n return \"text\";\n}\n"), 0);
  ASSERT_EQ(h.Call().Rc, 0);
  U64 p = U64(h.Run.Result);
  EXPECT_TRUE(h.Engine.IsHeapPointer(p));
  std::string s;
  EXPECT_TRUE(h.Engine.GetText(p, &s));
  EXPECT_EQ(s, "text");
  EXPECT_TRUE(h.Engine.GetText(p + 2, &s));
  EXPECT_EQ(s, "xt");
  U64 base = h.Engine.GetHeapBase();
  EXPECT_FALSE(h.Engine.IsHeapPointer(base - 1));
  EXPECT_FALSE(h.Engine.IsHeapPointer(base + SCRIPT_HEAP_SIZE));
  EXPECT_TRUE(h.Engine.IsHeapPointer(base + SCRIPT_HEAP_SIZE - 1));
  EXPECT_FALSE(h.Engine.GetText(12345, &s));
  EXPECT_FALSE(h.Engine.GetText(U64(-1), &s));
}

TEST(Script, ReloadStartsClean) {
  CTestHost h;
  ASSERT_EQ(h.Load("int main(void) {\n int a[1000];\n a[0] = 77;\n Util.Log(\"x\");\n return 0;\n}\n"), 0);
  U32 fresh = h.Engine.GetHeapFree();
  ASSERT_EQ(h.Call().Rc, 0);
  EXPECT_LT(h.Engine.GetHeapFree(), fresh);
  // The storage of a new local is not cleared, but the heap is zeroed on load.
  auto run = h.LoadAndCall("int main(void) {\n int a[1000];\n return a[0];\n}\n");
  EXPECT_EQ(run.Result, 0);
  EXPECT_TRUE(h.Engine.Close());
  EXPECT_FALSE(h.Engine.IsLoaded());
  EXPECT_EQ(h.Engine.CallFunction("main"), -1);
  // A byte order mark and CR LF line ends are read like plain text.
  EXPECT_EQ(h.Load("\xEF\xBB\xBFint main(void) { // c\r\n return 3;\r\n}\r\n"), 0);
  EXPECT_EQ(h.Call().Result, 3);
  auto& bad = h.LoadAndCall("int main(void) {\r\n return x;\r\n}\r\n");
  EXPECT_EQ(bad.Error, "unknown identifier. at line 2");
}

}  // namespace
