// Interpreter speed: statements per second on loop-heavy scripts, once with
// only the built-in symbols and once with a global list the size of the
// debugger's (several hundred constants and host functions in front of the
// names a script uses).
#include "script/script.h"

#include <chrono>
#include <cstdio>
#include <string>

namespace {

const char* kLoop =
    "int main(int n) {\n"
    "  int i;\n"
    "  __int64 s;\n"
    "  int a[16];\n"
    "  i = 0;\n"
    "  s = 0;\n"
    "  while (i < n) {\n"
    "    a[i & 15] = i * 3;\n"
    "    s += a[i & 15] + (i >> 2);\n"
    "    if (s > 1000000000) s = 0; else s -= 1;\n"
    "    i += 1;\n"
    "  }\n"
    "  return s;\n"
    "}\n"
    "int calls(int n) {\n"
    "  int i;\n"
    "  i = 0;\n"
    "  while (i < n) {\n"
    "    Util.Nop(i);\n"
    "    i += 1 + sq(i) - i * i;\n"  // 1 + (sq(i) - i * i): one level groups to the right
    "  }\n"
    "  return i;\n"
    "}\n"
    "int sq(int v) {\n"
    "  return v * v;\n"
    "}\n"
    "int logs(int n) {\n"
    "  int i;\n"
    "  i = 0;\n"
    "  while (i < n) {\n"
    "    Util.Text(\"a string literal that a project logs\");\n"
    "    i += 1;\n"
    "  }\n"
    "  return i;\n"
    "}\n";

void Run(const char* Label, const char* Func, I64 N, int Globals) {
  CScriptEngine e;
  e.SetStatementBudget(0);
  e.Load(kLoop);
  for (int i = 0; i < Globals; i++) e.RegisterConstant("CONST_NUMBER_" + std::to_string(i), i);
  for (int i = 0; i < Globals / 2; i++)
    e.RegisterHostFunction("__api__ int Family.Command" + std::to_string(i) + "(const char* sText, int Value);",
                           [](const SCRIPT_HOST_CALL&) -> I64 { return 0; });
  e.RegisterHostFunction("__api__ int Util.Nop(int v);", [](const SCRIPT_HOST_CALL&) -> I64 { return 0; });
  e.RegisterHostFunction("__api__ int Util.Text(const char* sText);", [](const SCRIPT_HOST_CALL&) -> I64 { return 0; });
  if (e.Parse() != 0) {
    printf("parse failed: %s\n", e.GetErrorMessage().c_str());
    return;
  }
  I64 result = 0;
  const U32 HeapBefore = e.GetHeapFree();
  auto t0 = std::chrono::steady_clock::now();
  int rc = e.CallFunctionArgs(Func, 1, &N, &result);
  double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  U64 stmts = e.GetStatementCount();
  printf("%-40s rc %d  %10llu statements  %7.3f s  %8.2f M statements/s  heap used %u bytes\n", Label, rc,
         static_cast<unsigned long long>(stmts), s, double(stmts) / s / 1e6, HeapBefore - e.GetHeapFree());
}

}  // namespace

int main() {
  Run("loop, built-in symbols only", "main", 500000, 0);
  Run("loop, 300 constants + 150 host functions", "main", 500000, 300);
  Run("calls, built-in symbols only", "calls", 200000, 0);
  Run("calls, 300 constants + 150 host functions", "calls", 200000, 300);
  // A string literal in a loop takes heap once, however often it runs.
  Run("literal in a loop, 1,000 turns", "logs", 1000, 0);
  Run("literal in a loop, 1,000,000 turns", "logs", 1000000, 0);
  return 0;
}
