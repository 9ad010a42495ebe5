// The project script interpreter.
//
// Projects are written in a small C-like language that is interpreted straight
// from the source text: there is no token stream and no syntax tree. One
// cursor walks over the text and statements run while they are read; a
// function body is read again on every call and a loop body on every turn.
// An "execute" flag travels through the recursive descent, so a branch that
// is not taken is still read (and syntax-checked) but has no effect.
//
// The engine knows nothing about the debugger. The host
//   1. loads a text (Load), which zeroes the 1,000,000-byte heap and creates
//      the built-in symbols,
//   2. registers named integer constants (RegisterConstant) and host
//      functions by their prototype text (RegisterHostFunction), e.g.
//        "__api__ int File.Open (const char* sFileName);"
//   3. collects the function heads of the text (Parse),
//   4. calls script functions by name (CallFunction, CallFunctionArgs) as
//      often as it likes.
//
// Language summary
//   - Types: char (1 byte), int (4), __int64 (8), void (0), qualifiers
//     volatile, const, signed, unsigned; locals may be arrays of one
//     dimension: "int a[4];". No initialisers, no globals, no pointers to
//     declare (a "*" parameter may be passed on but not read).
//   - Every value is a 64-bit integer. A variable is read by zero-extending
//     its bytes (an int set to -1 reads 4294967295); a store writes the low
//     bytes. A string literal is a pointer into the script heap.
//   - Statements: { }, if/else, while, do/while, return expr;, declarations,
//     assignments (= += -= *= /= &= |= ^= <<= >>=), calls, and ";".
//   - Binary operators, each on a level of its own and right-associative
//     within its level (a - b + c is a - (b + c)), from low to high:
//     || && | ^ & != == >= > <= < >> << - + / *. Prefix: ++ -- ! ~ - +
//     (++x is x + 1; no variable changes).
//
// Safety limits (none of these can crash or hang the process; each ends the
// running code with a script error through the error handler):
//   - "division by zero." for x / 0 and x /= 0. INT64_MIN / -1 wraps to
//     INT64_MIN.
//   - Script function calls nest at most SCRIPT_MAX_CALL_DEPTH deep
//     ("maximum call depth of 100 exceeded."), and statements and
//     expressions nest at most SCRIPT_MAX_NESTING deep in total
//     ("statements or expressions nested too deeply.").
//   - Negative array indices are out of range like too large ones.
//   - Runaway loops: every statement that is read counts against a statement
//     budget (default SCRIPT_DEFAULT_STATEMENT_BUDGET, set by
//     SetStatementBudget, 0 = unlimited) that restarts with every outermost
//     call; exceeding it gives "statement limit of N exceeded.". In addition
//     the host may set the stop flag (SetStopFlag, also from another thread);
//     all running code then unwinds at once and the calls return -1 without
//     an error report. The flag stays set until the next Load or until the
//     host clears it.
//
// Errors: every error sets the error flag, stores its text (at most 199
// characters) and line, and calls the error handler once. GetErrorMessage
// gives the text with " at line N". Running code stops reading at once.
//
// Threading: not thread-safe; use one thread (the user interface thread).
// Host functions may call back into the engine (CallFunction...) as long as
// the calls nest strictly; Load and Close are refused while code is running.
#pragma once

#include "common/types.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

constexpr U32 SCRIPT_HEAP_SIZE = 1000000;      // bytes of the script heap
constexpr int SCRIPT_MAX_PARAMS = 32;           // parameters of a function
constexpr int SCRIPT_MAX_HOST_ARGS = 8;         // arguments passed to a host function
constexpr int SCRIPT_MAX_CALL_DEPTH = 100;      // nested script function calls
constexpr int SCRIPT_MAX_NESTING = 2000;        // nested statements and expressions
constexpr U64 SCRIPT_DEFAULT_STATEMENT_BUDGET = 10000000;

class CScriptEngine;

// What a host function receives. Arguments are the evaluated 64-bit values;
// for a parameter declared as a char pointer (IsTextArg) the value is the
// address of the text in the script heap, or any number the script passed
// instead: read texts only through CScriptEngine::GetText, which checks that
// the address lies in the heap.
struct SCRIPT_HOST_CALL {
  CScriptEngine* pEngine;
  std::string_view Name;      // function name as registered
  int NumArgs;                // 0..SCRIPT_MAX_HOST_ARGS
  const I64* paArgs;
  U32 TextArgMask;            // bit i set: parameter i is a char pointer
  int Line;                   // line of the call
  bool IsTextArg(int i) const { return i >= 0 && i < 32 && ((TextArgMask >> i) & 1); }
};
using SCRIPT_HOST_FUNC = std::function<I64(const SCRIPT_HOST_CALL& Call)>;

// Reported once for every error.
struct SCRIPT_ERROR {
  std::string_view Text;      // message, e.g. "out of memory."
  int Line;                   // line number, from 1
  std::string_view LineText;  // source from the start of that line up to and
                              // including the first ';' (or the end of the
                              // text), at most 512 characters
};
using SCRIPT_ERROR_FUNC = std::function<void(const SCRIPT_ERROR& Error)>;

// Called for every executed call statement and assignment, after it has been
// read and right before its effect: the exact statement text and its line.
using SCRIPT_TRACE_FUNC = std::function<void(int Line, std::string_view Statement)>;

class CScriptEngine {
public:
  CScriptEngine();
  ~CScriptEngine();
  CScriptEngine(const CScriptEngine&) = delete;
  CScriptEngine& operator=(const CScriptEngine&) = delete;

  // Replaces any loaded script: zeroes the heap, keeps a copy of Text (an
  // embedded NUL ends it), creates the built-in symbols and forgets all
  // constants and host functions. 0, or -1 while code is running.
  int Load(std::string_view Text);
  // Collects the function heads of the text. 0, or -1 on a syntax error at
  // top level (reported through the error handler).
  int Parse();
  // Releases the script. Refused (false) while code is running.
  bool Close();
  bool IsLoaded() const;
  bool IsRunning() const;

  // Adds a named constant (a signed 32-bit value, sign-extended when read).
  // 0, or -1 when no script is loaded or the heap is full.
  int RegisterConstant(std::string_view Name, I32 Value);
  // Parses a prototype up to its ';' (it must carry "__api__") and binds it
  // to Func. 0, or -1 with the reason in GetRegisterError; a failed
  // registration does not touch the script's error state.
  int RegisterHostFunction(std::string_view Prototype, SCRIPT_HOST_FUNC Func);
  const std::string& GetRegisterError() const;

  // True when Name is a function defined by the script text.
  bool IsFunctionDefined(std::string_view Name) const;
  // True when Name is any global symbol (constant, type, host or script
  // function).
  bool IsSymbolDefined(std::string_view Name) const;

  // Runs a script function. 0 on success, -1 on error or stop, -2 when Name
  // is no function of the script. A function that ends without "return"
  // gives the result -1. Missing arguments are 0, surplus ones are ignored;
  // at most SCRIPT_MAX_PARAMS arguments.
  int CallFunction(std::string_view Name, I64* pResult = nullptr);
  int CallFunctionArgs(std::string_view Name, int NumArgs, const I64* paArgs, I64* pResult);

  // Error state of the last run (or of Parse).
  bool HasError() const;
  const std::string& GetErrorText() const;  // message alone
  int GetErrorLine() const;                 // -1 when none
  std::string GetErrorMessage() const;      // message + " at line N"
  // Lets a host function end the running script with an error.
  void RaiseError(std::string_view Text);

  void SetErrorHandler(SCRIPT_ERROR_FUNC Func);
  void SetTraceHook(SCRIPT_TRACE_FUNC Func);

  // Stop flag: set, all running code unwinds at once. Safe from any thread.
  void SetStopFlag(bool Stop);
  bool GetStopFlag() const;
  void SetStatementBudget(U64 Budget);
  U64 GetStatementCount() const;            // statements read in the last outermost call

  // The heap, for the host's pointer test of text arguments.
  U64 GetHeapBase() const;                  // 0 when no script is loaded
  U64 GetHeapSize() const { return SCRIPT_HEAP_SIZE; }
  bool IsHeapPointer(U64 Value) const;
  // Copies the NUL-terminated text at Value. false when Value is not inside
  // the heap or the text runs up to the heap's end without a NUL.
  bool GetText(U64 Value, std::string* pText) const;
  U32 GetHeapFree() const;                  // bytes between the two ends

private:
  struct Impl;
  std::unique_ptr<Impl> m_p;
};
