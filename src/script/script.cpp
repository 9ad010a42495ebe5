// Project script interpreter: scanner, function heads, statements and
// expressions over one cursor, with all records in one fixed heap.
#include "script/script.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>
#include <unordered_map>
#include <vector>

namespace {

enum SCRIPT_KIND : int {
  SK_BASE_TYPE = 0,
  SK_CONSTANT = 4,
  SK_POINTER_TYPE = 6,
  SK_FUNCTION = 7,
  SK_QUALIFIER = 8,
  SK_ATTRIBUTE = 9,
  SK_FUNCTION_TYPE = 10,
  SK_VARIABLE = 11,
  SK_ARRAY_TYPE = 12,
};

struct SCRIPT_SYM;

struct SCRIPT_ATTR {
  SCRIPT_ATTR* Next;
  SCRIPT_SYM* Sym;
};

struct SCRIPT_SYM {
  SCRIPT_SYM* Next;
  SCRIPT_ATTR* Attributes;
  const char* Name;
  U32 NameLen;
  int Kind;
  I64 Size;             // base type: bytes
  I32 Value;            // constant, qualifier, attribute
  SCRIPT_SYM* Type;     // pointer target, array element, function type of a
                        // function, return type of a function type, type of
                        // a variable
  I64 Count;            // array type: element count
  SCRIPT_SYM* Params;   // function: parameters (variables), linked by Next
  int NumParams;
  const char* Body;     // script function: position of "{"
  const char* BodyLineStart;
  int BodyLine;
  int HostIndex;        // host function: index into the callback table
  U8* Storage;          // variable
};

// Interpreter state; it stands at the start of the heap block.
struct SCRIPT_CTX {
  U8* HeapLow;
  U8* HeapHigh;
  const char* Text;
  const char* Cursor;
  const char* LineStart;
  int Line;
  bool ErrorFlag;
  std::atomic<bool> StopFlag;
  char ErrorText[200];
  SCRIPT_SYM* GlobalHead;
  SCRIPT_SYM* GlobalTail;
  SCRIPT_SYM* LocalHead;
  SCRIPT_SYM* LocalTail;
  SCRIPT_SYM* ConstCharType;
  SCRIPT_SYM* ConstQualifier;
  // Bookkeeping of this implementation.
  int ErrorLine;
  int CallDepth;        // script function calls in progress
  int Nesting;          // statements and expressions in progress
  int RunDepth;         // CallFunction* in progress
  U64 StatementCount;
  I64* pResult;         // result of the running function
  bool Stopped;         // the stop flag was seen; unwinding
  U8* HeapHighMin;      // lowest HeapHigh ever reached, to re-zero the heap
  U8* HeapLowMax;
};

constexpr size_t kAlign = 8;
inline size_t AlignUp(size_t n) { return (n + kAlign - 1) & ~(kAlign - 1); }

inline bool IsIdentStart(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}
inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }
inline bool IsIdentChar(char c) { return IsIdentStart(c) || IsDigit(c) || c == '.'; }
inline int HexVal(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

struct BIN_OP {
  const char* Text;
  int Len;
  int Prec;
};
// Scan order: two-character operators first.
const BIN_OP kBinOps[] = {
  {">=", 2, 11}, {"<=", 2, 13}, {"&&", 2, 5},  {"||", 2, 4},  {"==", 2, 10}, {"!=", 2, 9},
  {"<<", 2, 16}, {">>", 2, 15}, {"*", 1, 21},  {"/", 1, 20},  {"+", 1, 18},  {"-", 1, 17},
  {">", 1, 12},  {"<", 1, 14},  {"&", 1, 8},   {"|", 1, 6},   {"^", 1, 7},
};
const char* const kAssignOps[] = {"+=", "-=", "*=", "/=", "&=", "|=", "^=", "<<=", ">>=", "="};
const char* const kPrefixOps[] = {"++", "--", "!", "~", "-", "+"};

// Where the cursor stands, to go back.
struct MARK {
  const char* Cursor;
  const char* LineStart;
  int Line;
};

}  // namespace

struct CScriptEngine::Impl {
  CScriptEngine* pOwner = nullptr;
  std::unique_ptr<U8[]> Heap;
  std::string Text;
  SCRIPT_CTX* Ctx = nullptr;
  std::vector<SCRIPT_HOST_FUNC> HostFuncs;
  SCRIPT_ERROR_FUNC OnError;
  SCRIPT_TRACE_FUNC OnTrace;
  U64 Budget = SCRIPT_DEFAULT_STATEMENT_BUDGET;
  bool QuietErrors = false;       // registration: no handler call
  std::string ErrorText;          // copy that survives Close
  int ErrorLine = -1;
  bool ErrorSet = false;
  std::string RegisterError;
  bool HeapClean = false;
  // String literals already on the heap, by their place in the text: a
  // literal takes heap once however often it runs (the records are
  // read-only, so one copy serves every turn of a loop).
  std::unordered_map<const char*, I64> Literals;

  // ---------------------------------------------------------------- heap

  void* AllocLow(size_t n) {
    n = AlignUp(n);
    if (n > size_t(Ctx->HeapHigh - Ctx->HeapLow)) return nullptr;
    void* p = Ctx->HeapLow;
    Ctx->HeapLow += n;
    if (Ctx->HeapLow > Ctx->HeapLowMax) Ctx->HeapLowMax = Ctx->HeapLow;
    return p;
  }
  void* AllocHigh(size_t n) {
    n = AlignUp(n);
    if (n > size_t(Ctx->HeapHigh - Ctx->HeapLow)) return nullptr;
    Ctx->HeapHigh -= n;
    if (Ctx->HeapHigh < Ctx->HeapHighMin) Ctx->HeapHighMin = Ctx->HeapHigh;
    return Ctx->HeapHigh;
  }
  // A symbol with its name copied next to it. No message on failure.
  SCRIPT_SYM* NewSym(int Kind, std::string_view Name, bool High) {
    size_t n = AlignUp(sizeof(SCRIPT_SYM)) + Name.size() + 1;
    void* p = High ? AllocHigh(n) : AllocLow(n);
    if (!p) return nullptr;
    SCRIPT_SYM* s = new (p) SCRIPT_SYM{};
    char* name = static_cast<char*>(p) + AlignUp(sizeof(SCRIPT_SYM));
    if (!Name.empty()) memcpy(name, Name.data(), Name.size());
    name[Name.size()] = 0;
    s->Name = name;
    s->NameLen = U32(Name.size());
    s->Kind = Kind;
    s->HostIndex = -1;
    return s;
  }
  void AddGlobal(SCRIPT_SYM* s) {
    if (Ctx->GlobalTail) Ctx->GlobalTail->Next = s; else Ctx->GlobalHead = s;
    Ctx->GlobalTail = s;
  }
  void AddLocal(SCRIPT_SYM* s) {
    if (Ctx->LocalTail) Ctx->LocalTail->Next = s; else Ctx->LocalHead = s;
    Ctx->LocalTail = s;
  }
  static SCRIPT_SYM* Find(SCRIPT_SYM* s, std::string_view Name) {
    for (; s; s = s->Next)
      if (s->NameLen == Name.size() && memcmp(s->Name, Name.data(), Name.size()) == 0) return s;
    return nullptr;
  }
  SCRIPT_SYM* Lookup(std::string_view Name) const {
    if (SCRIPT_SYM* s = Find(Ctx->LocalHead, Name)) return s;
    return Find(Ctx->GlobalHead, Name);
  }
  static bool IsHostFunction(const SCRIPT_SYM* s) {
    for (const SCRIPT_ATTR* a = s->Attributes; a; a = a->Next)
      if (a->Sym && a->Sym->Value == 0) return true;
    return false;
  }

  // ---------------------------------------------------------------- errors

  bool Bad() {
    if (Ctx->ErrorFlag || Ctx->Stopped) return true;
    if (Ctx->StopFlag.load(std::memory_order_relaxed)) {
      Ctx->Stopped = true;
      return true;
    }
    return false;
  }

  void Error(const char* Fmt, ...) __attribute__((format(printf, 2, 3))) {
    if (Ctx->ErrorFlag) return;
    va_list ap;
    va_start(ap, Fmt);
    vsnprintf(Ctx->ErrorText, sizeof(Ctx->ErrorText), Fmt, ap);
    va_end(ap);
    Ctx->ErrorFlag = true;
    Ctx->ErrorLine = Ctx->Line;
    ErrorText = Ctx->ErrorText;
    ErrorLine = Ctx->Line;
    ErrorSet = true;
    if (QuietErrors || !OnError) return;
    // Source of the error line up to its first ';'.
    const char* p = Ctx->LineStart ? Ctx->LineStart : Ctx->Text;
    size_t n = 0;
    while (p[n] && n < 512) {
      if (p[n++] == ';') break;
    }
    SCRIPT_ERROR e{ErrorText, ErrorLine, std::string_view(p, n)};
    OnError(e);
  }

  // Counts nesting of the recursive descent; refuses too deep input.
  struct DEPTH {
    Impl* p;
    bool Ok;
    explicit DEPTH(Impl* pImpl) : p(pImpl) {
      Ok = ++p->Ctx->Nesting <= SCRIPT_MAX_NESTING;
      if (!Ok) p->Error("statements or expressions nested too deeply.");
    }
    ~DEPTH() { --p->Ctx->Nesting; }
  };

  // ---------------------------------------------------------------- scanner

  MARK Mark() const { return MARK{Ctx->Cursor, Ctx->LineStart, Ctx->Line}; }
  void Restore(const MARK& m) {
    Ctx->Cursor = m.Cursor;
    Ctx->LineStart = m.LineStart;
    Ctx->Line = m.Line;
  }

  // White space and comments, alternating until neither is left.
  void SkipWs() {
    if (Ctx->ErrorFlag) return;
    const char* p = Ctx->Cursor;
    for (;;) {
      char c = *p;
      if (c == ' ' || c == '\t' || c == '\r') {
        p++;
      } else if (c == '\n') {
        p++;
        Ctx->Line++;
        Ctx->LineStart = p;
      } else if (c == '/' && p[1] == '/') {
        p += 2;
        while (*p && *p != '\r' && *p != '\n') p++;
      } else if (c == '/' && p[1] == '*') {
        p += 2;
        for (;;) {
          if (!*p) {
            Ctx->Cursor = p;
            Error("C-comment has not been closed properly");
            return;
          }
          if (p[0] == '*' && p[1] == '/') {
            p += 2;
            break;
          }
          if (*p == '\n') {
            p++;
            Ctx->Line++;
            Ctx->LineStart = p;
          } else {
            p++;
          }
        }
      } else {
        break;
      }
    }
    Ctx->Cursor = p;
  }

  bool Accept(char c) {
    SkipWs();
    if (Ctx->ErrorFlag) return false;
    if (*Ctx->Cursor != c) return false;
    Ctx->Cursor++;
    return true;
  }
  bool Expect(char c) {
    if (Accept(c)) return true;
    if (!Ctx->ErrorFlag) Error("Expected a '%c'", c);
    return false;
  }
  bool AcceptText(const char* s) {
    SkipWs();
    if (Ctx->ErrorFlag) return false;
    size_t n = strlen(s);
    if (strncmp(Ctx->Cursor, s, n) != 0) return false;
    Ctx->Cursor += n;
    return true;
  }
  bool AcceptKeyword(const char* kw) {
    SkipWs();
    if (Ctx->ErrorFlag) return false;
    size_t n = strlen(kw);
    if (strncmp(Ctx->Cursor, kw, n) != 0 || IsIdentChar(Ctx->Cursor[n])) return false;
    Ctx->Cursor += n;
    return true;
  }
  bool ReadIdent(std::string_view* pName) {
    SkipWs();
    if (Ctx->ErrorFlag) return false;
    const char* p = Ctx->Cursor;
    if (!IsIdentStart(*p)) return false;
    const char* s = p;
    while (IsIdentChar(*p)) p++;
    *pName = std::string_view(s, size_t(p - s));
    Ctx->Cursor = p;
    return true;
  }
  // Decimal or "0x" hexadecimal, with an optional "-"; 64 bits, wrapping.
  bool ReadInteger(I64* pValue) {
    SkipWs();
    if (Ctx->ErrorFlag) return false;
    const char* p = Ctx->Cursor;
    bool neg = false;
    if (*p == '-') {
      neg = true;
      p++;
    }
    if (!IsDigit(*p)) return false;
    U64 v = 0;
    if (p[0] == '0' && p[1] == 'x' && HexVal(p[2]) >= 0) {
      p += 2;
      for (int d; (d = HexVal(*p)) >= 0; p++) v = (v << 4) | U64(d);
    } else {
      for (; IsDigit(*p); p++) v = v * 10 + U64(*p - '0');
    }
    Ctx->Cursor = p;
    *pValue = I64(neg ? U64(0) - v : v);
    return true;
  }

  // A string literal at the cursor. With Copy the text goes to the low end
  // of the heap with its two records, and the value is its address.
  I64 ReadString(bool Copy) {
    const char* p = Ctx->Cursor + 1;  // behind the opening quote
    size_t len = 0;
    for (;;) {
      char c = *p;
      if (c == 0 || c == '\n') {
        Ctx->Cursor = p;
        Error("illegal character in string");
        return 0;
      }
      if (c == '"') break;
      if (c == '\\') {
        char e = p[1];
        if (e != '0' && e != '\\' && e != 'b' && e != 'n' && e != 'r' && e != 't') {
          Ctx->Cursor = p;
          Error("unexpected escape character.");
          return 0;
        }
        p += 2;
      } else {
        p++;
      }
      len++;
    }
    const char* src = Ctx->Cursor + 1;
    Ctx->Cursor = p + 1;
    if (!Copy) return 0;
    if (const auto it = Literals.find(src); it != Literals.end()) return it->second;
    char* dst = static_cast<char*>(AllocLow(len + 1));
    if (!dst) {
      Error("out of memory.");
      return 0;
    }
    size_t i = 0;
    for (const char* q = src; q < p; q++) {
      char c = *q;
      if (c == '\\') {
        switch (*++q) {
          case '0': c = 0; break;
          case 'b': c = '\b'; break;
          case 'n': c = '\n'; break;
          case 'r': c = '\r'; break;
          case 't': c = '\t'; break;
          default: c = '\\'; break;
        }
      }
      dst[i++] = c;
    }
    dst[i] = 0;
    SCRIPT_SYM* arr = NewSym(SK_ARRAY_TYPE, {}, false);
    SCRIPT_SYM* var = arr ? NewSym(SK_VARIABLE, {}, false) : nullptr;
    if (!var) {
      Error("out of memory.");
      return 0;
    }
    arr->Type = Ctx->ConstCharType;
    arr->Count = I64(len + 1);
    var->Type = arr;
    var->Storage = reinterpret_cast<U8*>(dst);
    const I64 Address = I64(reinterpret_cast<uintptr_t>(dst));
    Literals.emplace(src, Address);
    return Address;
  }

  // ---------------------------------------------------------------- values

  bool CheckReadType(const SCRIPT_SYM* t) {
    if (t->Kind != SK_BASE_TYPE) {
      Error("expected a base type.");
      return false;
    }
    if (t->Size < 1 || t->Size > 8) {
      Error("unsupported base type size.");
      return false;
    }
    return true;
  }
  I64 ReadValue(const SCRIPT_SYM* t, const U8* pStorage) {
    if (!pStorage) {
      Error("out of memory.");
      return 0;
    }
    U64 v = 0;
    for (I64 i = t->Size - 1; i >= 0; i--) v = (v << 8) | pStorage[i];
    return I64(v);
  }
  bool CheckStoreType(const SCRIPT_SYM* t) {
    if (t->Kind != SK_BASE_TYPE) {
      Error("assignments are allowed for base types only");
      return false;
    }
    if (t->Size < 1) {
      Error("base type size must be at least 1 byte");
      return false;
    }
    if (t->Size > 8) {
      Error("base type size exceeds 8 bytes");
      return false;
    }
    return true;
  }
  void StoreValue(const SCRIPT_SYM* t, U8* pStorage, I64 Value) {
    if (!pStorage) {
      Error("out of memory.");
      return;
    }
    U64 v = U64(Value);
    for (I64 i = 0; i < t->Size; i++, v >>= 8) pStorage[i] = U8(v);
  }

  // Binary operation; the index is into kBinOps or names an assignment.
  I64 Apply(int Prec, I64 a, I64 b, bool E) {
    U64 ua = U64(a), ub = U64(b);
    switch (Prec) {
      case 4: return (a || b) ? 1 : 0;
      case 5: return (a && b) ? 1 : 0;
      case 6: return I64(ua | ub);
      case 7: return I64(ua ^ ub);
      case 8: return I64(ua & ub);
      case 9: return ua != ub;
      case 10: return ua == ub;
      case 11: return a >= b;
      case 12: return a > b;
      case 13: return a <= b;
      case 14: return a < b;
      case 15: return a >> (ub & 63);
      case 16: return I64(ua << (ub & 63));
      case 17: return I64(ua - ub);
      case 18: return I64(ua + ub);
      case 20:
        if (!E) return 0;
        if (b == 0) {
          Error("division by zero.");
          return 0;
        }
        if (b == -1) return I64(U64(0) - ua);
        return a / b;
      case 21: return I64(ua * ub);
    }
    return 0;
  }

  // ---------------------------------------------------------------- expressions

  I64 Expression(bool E, int MinPrec = 0) {
    DEPTH d(this);
    if (!d.Ok) return 0;
    I64 lhs = Unary(E);
    for (;;) {
      SkipWs();
      if (Bad()) return 0;
      const char* at = Ctx->Cursor;
      const BIN_OP* op = nullptr;
      for (const BIN_OP& o : kBinOps) {
        if (strncmp(at, o.Text, size_t(o.Len)) == 0) {
          op = &o;
          break;
        }
      }
      if (!op || op->Prec < MinPrec) return lhs;
      Ctx->Cursor = at + op->Len;
      I64 rhs = Expression(E, op->Prec);
      if (Bad()) return 0;
      lhs = Apply(op->Prec, lhs, rhs, E);
    }
  }

  I64 Unary(bool E) {
    int prefix = -1;
    SkipWs();
    if (strchr("+-!~", *Ctx->Cursor) && *Ctx->Cursor) {
      for (int i = 0; i < 6; i++) {
        if (AcceptText(kPrefixOps[i])) {
          prefix = i;
          break;
        }
      }
    }
    I64 v = Operand(E);
    if (Bad()) return 0;
    switch (prefix) {
      case 0: return I64(U64(v) + 1);
      case 1: return I64(U64(v) - 1);
      case 2: return v == 0;
      case 3: return I64(~U64(v));
      case 4: return I64(U64(0) - U64(v));
      default: return v;
    }
  }

  // "[" index "]" of an array; the index, checked when executing.
  bool ReadIndex(const SCRIPT_SYM* ArrType, bool E, I64* pIndex) {
    if (!Expect('[')) return false;
    SkipWs();
    if (Bad()) return false;
    if (*Ctx->Cursor == ']') {
      Error("expected a value.");
      return false;
    }
    I64 idx = Expression(E);
    if (!Expect(']')) return false;
    if (E && (idx < 0 || idx >= ArrType->Count)) {
      Error("array index out of range.");
      return false;
    }
    *pIndex = idx;
    return true;
  }

  I64 Operand(bool E) {
    SkipWs();
    if (Bad()) return 0;
    char c = *Ctx->Cursor;
    if (c == '(') {
      Ctx->Cursor++;
      I64 v = Expression(E);
      Expect(')');
      return v;
    }
    if (c == '"') return ReadString(E);
    I64 v;
    if (ReadInteger(&v)) return v;
    std::string_view name;
    if (!ReadIdent(&name)) {
      Error("expected a value or an identifier.");
      return 0;
    }
    SCRIPT_SYM* s = Lookup(name);
    if (!s) {
      Error("unknown identifier.");
      return 0;
    }
    switch (s->Kind) {
      case SK_CONSTANT: return I64(s->Value);
      case SK_VARIABLE: {
        const SCRIPT_SYM* t = s->Type;
        if (t->Kind == SK_ARRAY_TYPE) {
          I64 idx = 0;
          if (!ReadIndex(t, E, &idx)) return 0;
          const SCRIPT_SYM* et = t->Type;
          if (et->Kind != SK_BASE_TYPE) {
            Error("currently, only arrays of base type variables are allowed.");
            return 0;
          }
          if (!CheckReadType(et) || !E) return 0;
          return ReadValue(et, s->Storage ? s->Storage + idx * et->Size : nullptr);
        }
        if (!CheckReadType(t) || !E) return 0;
        return ReadValue(t, s->Storage);
      }
      case SK_FUNCTION: {
        I64 v = 0;
        Call(s, E, nullptr, Ctx->Line, &v);
        return v;
      }
      default:
        Error("syntax error. Unexpected type");
        return 0;
    }
  }

  // A call in an expression (Start null) or as a statement (Start is the
  // statement's text, ";" follows). Kept out of line so that the frames of
  // the recursive descent stay small.
  __attribute__((noinline)) bool Call(SCRIPT_SYM* Fn, bool E, const char* Start, int Line, I64* pValue) {
    I64 args[SCRIPT_MAX_PARAMS];
    if (!ReadArgs(Fn, E, args)) return false;
    if (Start && !Expect(';')) return false;
    if (!E) return true;
    if (Start) Trace(Start, Line);
    *pValue = Invoke(Fn, args, Fn->NumParams, Line);
    return !Bad();
  }

  // "(" one expression per parameter, each optionally followed by "," ")".
  bool ReadArgs(const SCRIPT_SYM* Fn, bool E, I64* paArgs) {
    if (!Expect('(')) return false;
    for (int i = 0; i < Fn->NumParams; i++) {
      paArgs[i] = Expression(E);
      if (Bad()) return false;
      Accept(',');
    }
    return Expect(')');
  }

  I64 Invoke(SCRIPT_SYM* Fn, const I64* paArgs, int NumArgs, int Line) {
    if (IsHostFunction(Fn)) {
      if (Fn->NumParams > SCRIPT_MAX_HOST_ARGS) return 0;
      if (Fn->HostIndex < 0 || size_t(Fn->HostIndex) >= HostFuncs.size() || !HostFuncs[size_t(Fn->HostIndex)]) {
        Error("host function is not available.");
        return 0;
      }
      U32 mask = 0;
      int i = 0;
      for (const SCRIPT_SYM* p = Fn->Params; p && i < 32; p = p->Next, i++) {
        const SCRIPT_SYM* t = p->Type;
        if (t->Kind == SK_POINTER_TYPE && t->Type && t->Type->Kind == SK_BASE_TYPE && t->Type->Size == 1)
          mask |= 1u << i;
      }
      SCRIPT_HOST_CALL call{pOwner, std::string_view(Fn->Name, Fn->NameLen), NumArgs, paArgs, mask, Line};
      // Copy: the callback may register further host functions.
      SCRIPT_HOST_FUNC f = HostFuncs[size_t(Fn->HostIndex)];
      return f(call);
    }
    I64 result = -1;
    CallScript(Fn, paArgs, NumArgs, &result);
    return result;
  }

  // Runs the body of a script function; the position is saved and restored
  // exactly, so a call may stand anywhere in a statement.
  __attribute__((noinline)) void CallScript(SCRIPT_SYM* Fn, const I64* paArgs, int NumArgs, I64* pResult) {
    if (Bad()) return;
    if (Ctx->CallDepth >= SCRIPT_MAX_CALL_DEPTH) {
      Error("maximum call depth of %d exceeded.", SCRIPT_MAX_CALL_DEPTH);
      return;
    }
    MARK saved = Mark();
    U8* savedHigh = Ctx->HeapHigh;
    SCRIPT_SYM* savedHead = Ctx->LocalHead;
    SCRIPT_SYM* savedTail = Ctx->LocalTail;
    I64* savedResult = Ctx->pResult;
    U8 slots[SCRIPT_MAX_PARAMS][8];
    memset(slots, 0, sizeof(slots));
    for (int i = 0; i < NumArgs && i < SCRIPT_MAX_PARAMS; i++) {
      U64 v = U64(paArgs[i]);
      for (int b = 0; b < 8; b++, v >>= 8) slots[i][b] = U8(v);
    }
    Ctx->LocalHead = Ctx->LocalTail = nullptr;
    int i = 0;
    for (const SCRIPT_SYM* p = Fn->Params; p && i < SCRIPT_MAX_PARAMS; p = p->Next, i++) {
      SCRIPT_SYM* v = NewSym(SK_VARIABLE, std::string_view(p->Name, p->NameLen), true);
      if (!v) {
        Error("out of memory.");
        break;
      }
      v->Type = p->Type;
      v->Storage = slots[i];
      AddLocal(v);
    }
    Ctx->Cursor = Fn->Body;
    Ctx->Line = Fn->BodyLine;
    Ctx->LineStart = Fn->BodyLineStart;
    Ctx->pResult = pResult;
    Ctx->CallDepth++;
    if (!Bad() && Expect('{')) Block(true);
    Ctx->CallDepth--;
    Ctx->pResult = savedResult;
    Ctx->LocalHead = savedHead;
    Ctx->LocalTail = savedTail;
    Ctx->HeapHigh = savedHigh;
    Restore(saved);
  }

  // ---------------------------------------------------------------- statements

  // Statements until "}" (the "{" is read). -1 error, 0, 1 after return.
  int Block(bool E) {
    for (;;) {
      SkipWs();
      if (Bad()) return -1;
      if (*Ctx->Cursor == '}') {
        Ctx->Cursor++;
        return 0;
      }
      if (*Ctx->Cursor == 0) {
        Error("Expected a '}'");
        return -1;
      }
      int r = Statement(E);
      if (r != 0) return r;
    }
  }

  void Trace(const char* Start, int Line) {
    if (OnTrace) OnTrace(Line, std::string_view(Start, size_t(Ctx->Cursor - Start)));
  }

  int Statement(bool E) {
    DEPTH d(this);
    if (!d.Ok) return -1;
    SkipWs();
    if (Bad()) return -1;
    if (++Ctx->StatementCount > Budget && Budget) {
      Error("statement limit of %llu exceeded.", static_cast<unsigned long long>(Budget));
      return -1;
    }
    const char* start = Ctx->Cursor;
    int line = Ctx->Line;
    char c = *start;
    if (c == '{') {
      Ctx->Cursor++;
      return Block(E);
    }
    if (c == ';') {
      Ctx->Cursor++;
      return 0;
    }
    if (!strchr("rifewd", c)) goto identifier;
    if (AcceptKeyword("return")) {
      I64 v = Expression(E);
      if (!Expect(';')) return -1;
      if (!E) return 0;
      if (Ctx->pResult) *Ctx->pResult = v;
      return 1;
    }
    if (AcceptKeyword("if")) return IfStatement(E);
    if (AcceptKeyword("else")) {
      Error("keyword \"else\" is not allowed without \"if\"");
      return -1;
    }
    if (AcceptKeyword("for")) {
      Error("keyword \"for\" is not yet supported");
      return -1;
    }
    if (AcceptKeyword("while")) return WhileStatement(E);
    if (AcceptKeyword("do")) return DoStatement(E);
    if (Bad()) return -1;
  identifier:
    std::string_view name;
    if (!ReadIdent(&name)) {
      Error("syntax error.");
      return -1;
    }
    SCRIPT_SYM* s = Lookup(name);
    if (!s) {
      Error("syntax error.");
      return -1;
    }
    switch (s->Kind) {
      case SK_VARIABLE: return Assignment(s, E, start, line);
      case SK_FUNCTION: {
        I64 v = 0;
        return Call(s, E, start, line, &v) ? 0 : -1;
      }
      case SK_QUALIFIER:
      case SK_BASE_TYPE: return Declaration(s);
      default: return 0;
    }
  }

  int IfStatement(bool E) {
    if (!Expect('(')) return -1;
    I64 c = Expression(E);
    if (!Expect(')')) return -1;
    bool cond = c != 0;
    int r = Statement(E && cond);
    if (r != 0) return r;
    if (AcceptKeyword("else")) {
      r = Statement(E && !cond);
      if (r != 0) return r;
    }
    return Bad() ? -1 : 0;
  }

  int WhileStatement(bool E) {
    MARK top = Mark();
    for (;;) {
      if (!Expect('(')) return -1;
      I64 c = Expression(E);
      if (!Expect(')')) return -1;
      bool run = E && c != 0;
      int r = Statement(run);
      if (r != 0) return r;
      if (!run) return 0;
      Restore(top);
    }
  }

  int DoStatement(bool E) {
    MARK top = Mark();
    for (;;) {
      int r = Statement(E);
      if (r != 0) return r;
      if (!AcceptKeyword("while")) {
        if (!Bad()) Error("syntax error. Missing \"while\" at line %d", Ctx->Line);
        return -1;
      }
      if (!Expect('(')) return -1;
      I64 c = Expression(E);
      if (!Expect(')') || !Expect(';')) return -1;
      if (!(E && c != 0)) return 0;
      Restore(top);
    }
  }

  int Assignment(SCRIPT_SYM* Var, bool E, const char* Start, int Line) {
    const SCRIPT_SYM* t = Var->Type;
    U8* storage = Var->Storage;
    bool element = false;
    if (t->Kind == SK_ARRAY_TYPE) {
      I64 idx = 0;
      if (!ReadIndex(t, E, &idx)) return -1;
      element = true;
      t = t->Type;
      if (storage && E) storage += idx * t->Size;
    }
    int op = -1;
    SkipWs();
    if (*Ctx->Cursor && strchr("+-*/&|^<>=", *Ctx->Cursor)) {
      for (int i = 0; i < 10; i++) {
        if (AcceptText(kAssignOps[i])) {
          op = i;
          break;
        }
      }
    }
    if (Bad()) return -1;
    if (op < 0) return 0;  // the statement ends behind the name
    if (op != 9 && element) {
      Error("expected a base type.");
      return -1;
    }
    I64 v = Expression(E);
    if (!Expect(';')) return -1;
    if (!E) return 0;
    Trace(Start, Line);
    if (op != 9) {
      if (!CheckReadType(t)) return -1;
      I64 cur = ReadValue(t, storage);
      static const int kPrec[] = {18, 17, 21, 20, 8, 6, 7, 16, 15};
      v = Apply(kPrec[op], cur, v, true);
      if (Bad()) return -1;
    }
    if (!CheckStoreType(t)) return -1;
    StoreValue(t, storage, v);
    return Bad() ? -1 : 0;
  }

  // Qualifiers, a base type, an optional "*", a name, an optional "[" count
  // "]", ";". Takes effect whether or not the statement executes.
  int Declaration(SCRIPT_SYM* First) {
    SCRIPT_SYM* t = First;
    while (t->Kind == SK_QUALIFIER) {
      std::string_view n;
      if (!ReadIdent(&n) || !(t = Lookup(n)) || (t->Kind != SK_QUALIFIER && t->Kind != SK_BASE_TYPE)) {
        Error("syntax error.");
        return -1;
      }
    }
    if (Accept('*')) {
      Error("currently only basic data types for local variables are allowed.");
      return -1;
    }
    std::string_view name;
    if (!ReadIdent(&name)) {
      Error("expected an identifier.");
      return -1;
    }
    I64 count = -1;
    if (Accept('[')) {
      if (!ReadInteger(&count)) {
        Error("expected an integer value");
        return -1;
      }
      if (!Expect(']')) return -1;
      if (count <= 0) {
        Error("invalid array size.");
        return -1;
      }
    }
    if (!Expect(';')) return -1;
    SCRIPT_SYM* v = NewSym(SK_VARIABLE, name, true);
    SCRIPT_SYM* arr = nullptr;
    if (v && count > 0) {
      arr = NewSym(SK_ARRAY_TYPE, {}, true);
      if (arr) {
        arr->Type = t;
        arr->Count = count;
      }
    }
    if (!v || (count > 0 && !arr)) {
      Error("out of memory.");
      return -1;
    }
    v->Type = arr ? arr : t;
    U64 bytes = U64(t->Size);
    if (count > 0) {
      if (U64(count) > SCRIPT_HEAP_SIZE) bytes = U64(SCRIPT_HEAP_SIZE) + 1;
      else bytes *= U64(count);
    }
    AddLocal(v);
    if (bytes > SCRIPT_HEAP_SIZE || !(v->Storage = static_cast<U8*>(AllocHigh(size_t(bytes))))) {
      Error("out of memory.");
      return -1;
    }
    return 0;
  }

  // ---------------------------------------------------------------- heads

  // Reads a function head. For a host prototype the text ends with ";" and
  // needs "__api__"; a script function may not carry it.
  SCRIPT_SYM* FunctionHead(bool ForHost) {
    SCRIPT_ATTR* attrs = nullptr;
    SCRIPT_ATTR* attrTail = nullptr;
    bool api = false;
    SCRIPT_SYM* t = nullptr;
    for (;;) {
      std::string_view n;
      MARK m = Mark();
      if (!ReadIdent(&n) || !(t = Lookup(n))) {
        if (!Bad()) {
          Restore(m);
          Error("syntax error.");
        }
        return nullptr;
      }
      if (t->Kind != SK_ATTRIBUTE) break;
      if (t->Value != 0) {
        Error("invalid function attribute.");
        return nullptr;
      }
      auto* a = static_cast<SCRIPT_ATTR*>(AllocLow(sizeof(SCRIPT_ATTR)));
      if (!a) {
        Error("Out of memory.");
        return nullptr;
      }
      a->Next = nullptr;
      a->Sym = t;
      if (attrTail) attrTail->Next = a; else attrs = a;
      attrTail = a;
      api = true;
    }
    if (api != ForHost) {
      Error("invalid function attribute.");
      return nullptr;
    }
    while (t->Kind == SK_QUALIFIER) {
      std::string_view n;
      if (!ReadIdent(&n) || !(t = Lookup(n))) {
        if (!Bad()) Error("syntax error.");
        return nullptr;
      }
    }
    if (t->Kind != SK_BASE_TYPE) {
      Error("syntax error.");
      return nullptr;
    }
    SCRIPT_SYM* retType = t;
    std::string_view name;
    if (!ReadIdent(&name)) {
      if (!Bad()) Error("expected an identifier.");
      return nullptr;
    }
    if (!Expect('(')) return nullptr;
    SCRIPT_SYM* params = nullptr;
    SCRIPT_SYM* paramTail = nullptr;
    int numParams = 0;
    MARK m = Mark();
    bool none = (AcceptKeyword("void") && Accept(')'));
    if (!none) {
      Restore(m);
      none = Accept(')');
    }
    while (!none) {
      if (Bad()) return nullptr;
      std::string_view n;
      SCRIPT_SYM* pt = nullptr;
      do {
        if (!ReadIdent(&n) || !(pt = Lookup(n)) || (pt->Kind != SK_QUALIFIER && pt->Kind != SK_BASE_TYPE)) {
          if (!Bad()) Error("syntax error.");
          return nullptr;
        }
      } while (pt->Kind == SK_QUALIFIER);
      if (Accept('*')) {
        SCRIPT_SYM* ptr = NewSym(SK_POINTER_TYPE, {}, false);
        if (!ptr) {
          Error("out of memory.");
          return nullptr;
        }
        ptr->Type = pt;
        pt = ptr;
      }
      if (!ReadIdent(&n)) {
        if (!Bad()) Error("expected an identifier.");
        return nullptr;
      }
      if (++numParams > SCRIPT_MAX_PARAMS) {
        Error("a function may have at most %d parameters.", SCRIPT_MAX_PARAMS);
        return nullptr;
      }
      SCRIPT_SYM* p = NewSym(SK_VARIABLE, n, false);
      if (!p) {
        Error("out of memory.");
        return nullptr;
      }
      p->Type = pt;
      if (paramTail) paramTail->Next = p; else params = p;
      paramTail = p;
      if (Accept(',')) continue;
      if (!Expect(')')) return nullptr;
      break;
    }
    if (ForHost && !Expect(';')) return nullptr;
    SCRIPT_SYM* ft = NewSym(SK_FUNCTION_TYPE, {}, false);
    SCRIPT_SYM* fn = ft ? NewSym(SK_FUNCTION, name, false) : nullptr;
    if (!fn) {
      Error("out of memory.");
      return nullptr;
    }
    ft->Type = retType;
    fn->Type = ft;
    fn->Attributes = attrs;
    fn->Params = params;
    fn->NumParams = numParams;
    AddGlobal(fn);
    return fn;
  }

  // Skips a body by counting braces; comments do not count, strings do.
  bool SkipBody() {
    if (!Accept('{')) {
      if (!Bad()) Error("expected '{'");
      return false;
    }
    int depth = 1;
    for (;;) {
      SkipWs();
      if (Ctx->ErrorFlag) return false;
      char c = *Ctx->Cursor;
      if (c == 0) {
        Error("unexpected end of file looking for '}'");
        return false;
      }
      Ctx->Cursor++;
      if (c == '{') depth++;
      else if (c == '}' && --depth == 0) return true;
    }
  }

  int Parse() {
    Ctx->ErrorFlag = false;
    Ctx->Stopped = false;
    Ctx->Cursor = Ctx->Text;
    Ctx->LineStart = Ctx->Text;
    Ctx->Line = 1;
    for (;;) {
      SkipWs();
      if (Ctx->ErrorFlag) return -1;
      if (*Ctx->Cursor == 0) return 0;
      MARK m = Mark();
      std::string_view n;
      if (!ReadIdent(&n) || !Find(Ctx->GlobalHead, n)) {
        Restore(m);
        Error("syntax error.");
        return -1;
      }
      Restore(m);
      SCRIPT_SYM* fn = FunctionHead(false);
      if (!fn) return -1;
      SkipWs();
      if (Ctx->ErrorFlag) return -1;
      fn->Body = Ctx->Cursor;
      fn->BodyLine = Ctx->Line;
      fn->BodyLineStart = Ctx->LineStart;
      if (!SkipBody()) return -1;
    }
  }

  // ---------------------------------------------------------------- load

  void ZeroHeap() {
    // Only what was used since the last load needs zeroing again.
    U8* base = Heap.get();
    U8* end = base + SCRIPT_HEAP_SIZE;
    if (!Ctx) {
      if (!HeapClean) memset(base, 0, SCRIPT_HEAP_SIZE);
      HeapClean = true;
      return;
    }
    U8* lowMax = Ctx->HeapLowMax;
    U8* highMin = Ctx->HeapHighMin;
    Ctx->~SCRIPT_CTX();
    Ctx = nullptr;
    Literals.clear();
    memset(base, 0, size_t(lowMax - base));
    memset(highMin, 0, size_t(end - highMin));
    HeapClean = true;
  }

  SCRIPT_SYM* Builtin(int Kind, const char* Name, I64 Size, I32 Value) {
    SCRIPT_SYM* s = NewSym(Kind, Name, false);
    if (!s) return nullptr;
    s->Size = Size;
    s->Value = Value;
    AddGlobal(s);
    return s;
  }

  bool CreateContext() {
    Literals.clear();
    U8* base = Heap.get();
    HeapClean = false;
    Ctx = new (base) SCRIPT_CTX{};
    Ctx->HeapLow = base + AlignUp(sizeof(SCRIPT_CTX));
    Ctx->HeapHigh = base + SCRIPT_HEAP_SIZE;
    Ctx->HeapLowMax = Ctx->HeapLow;
    Ctx->HeapHighMin = Ctx->HeapHigh;
    Ctx->Text = Text.c_str();
    Ctx->Cursor = Ctx->Text;
    Ctx->LineStart = Ctx->Text;
    Ctx->Line = 1;
    Ctx->ErrorLine = -1;
    Builtin(SK_QUALIFIER, "volatile", 0, 1);
    Ctx->ConstQualifier = Builtin(SK_QUALIFIER, "const", 0, 2);
    Builtin(SK_QUALIFIER, "signed", 0, 3);
    Builtin(SK_QUALIFIER, "unsigned", 0, 4);
    Builtin(SK_ATTRIBUTE, "__api__", 0, 0);
    Builtin(SK_BASE_TYPE, "char", 1, 0);
    Builtin(SK_BASE_TYPE, "int", 4, 0);
    Builtin(SK_BASE_TYPE, "__int64", 8, 0);
    Builtin(SK_BASE_TYPE, "void", 0, 0);
    Ctx->ConstCharType = Builtin(SK_BASE_TYPE, "__const_char", 1, 0);
    auto* a = static_cast<SCRIPT_ATTR*>(AllocLow(sizeof(SCRIPT_ATTR)));
    a->Next = nullptr;
    a->Sym = Ctx->ConstQualifier;
    Ctx->ConstCharType->Attributes = a;
    return true;
  }

  void ClearErrorState() {
    ErrorText.clear();
    ErrorLine = -1;
    ErrorSet = false;
  }
};

// -------------------------------------------------------------------- API

CScriptEngine::CScriptEngine() : m_p(std::make_unique<Impl>()) { m_p->pOwner = this; }
CScriptEngine::~CScriptEngine() {
  if (m_p->Ctx) m_p->Ctx->~SCRIPT_CTX();
}

int CScriptEngine::Load(std::string_view Text) {
  Impl& d = *m_p;
  if (IsRunning()) return -1;
  if (!d.Heap) {
    d.Heap.reset(new (std::nothrow) U8[SCRIPT_HEAP_SIZE]);
    if (!d.Heap) return -1;
    d.Ctx = nullptr;
  }
  d.ZeroHeap();
  d.HostFuncs.clear();
  d.ClearErrorState();
  d.RegisterError.clear();
  // Editors on Windows like to start UTF-8 files with a byte order mark.
  if (Text.substr(0, 3) == "\xEF\xBB\xBF") Text.remove_prefix(3);
  d.Text.assign(Text.substr(0, Text.find('\0')));
  d.CreateContext();
  return 0;
}

int CScriptEngine::Parse() {
  Impl& d = *m_p;
  if (!d.Ctx || IsRunning()) return -1;
  d.ClearErrorState();
  return d.Parse();
}

bool CScriptEngine::Close() {
  Impl& d = *m_p;
  if (!d.Ctx) return true;
  if (IsRunning()) {
    d.Ctx->StopFlag = true;
    return false;
  }
  d.ZeroHeap();
  d.HostFuncs.clear();
  d.Text.clear();
  return true;
}

bool CScriptEngine::IsLoaded() const { return m_p->Ctx != nullptr; }
bool CScriptEngine::IsRunning() const { return m_p->Ctx && m_p->Ctx->RunDepth > 0; }

int CScriptEngine::RegisterConstant(std::string_view Name, I32 Value) {
  Impl& d = *m_p;
  if (!d.Ctx || Name.empty()) return -1;
  SCRIPT_SYM* s = d.NewSym(SK_CONSTANT, Name, false);
  if (!s) return -1;
  s->Value = Value;
  d.AddGlobal(s);
  return 0;
}

int CScriptEngine::RegisterHostFunction(std::string_view Prototype, SCRIPT_HOST_FUNC Func) {
  Impl& d = *m_p;
  d.RegisterError.clear();
  if (!d.Ctx) {
    d.RegisterError = "no script loaded";
    return -1;
  }
  SCRIPT_CTX* c = d.Ctx;
  // Parse the prototype as if it were the text, then put everything back.
  std::string proto(Prototype.substr(0, Prototype.find('\0')));
  const char* savedText = c->Text;
  MARK saved = d.Mark();
  bool savedFlag = c->ErrorFlag;
  int savedErrLine = c->ErrorLine;
  char savedErr[sizeof(c->ErrorText)];
  memcpy(savedErr, c->ErrorText, sizeof(savedErr));
  std::string savedText2 = d.ErrorText;
  int savedLine2 = d.ErrorLine;
  bool savedSet = d.ErrorSet;
  c->Text = c->Cursor = c->LineStart = proto.c_str();
  c->Line = 1;
  c->ErrorFlag = false;
  d.QuietErrors = true;
  SCRIPT_SYM* fn = d.FunctionHead(true);
  d.QuietErrors = false;
  if (!fn) d.RegisterError = c->ErrorText;
  c->Text = savedText;
  d.Restore(saved);
  c->ErrorFlag = savedFlag;
  c->ErrorLine = savedErrLine;
  memcpy(c->ErrorText, savedErr, sizeof(savedErr));
  d.ErrorText = savedText2;
  d.ErrorLine = savedLine2;
  d.ErrorSet = savedSet;
  if (!fn) return -1;
  // The name must not point into the temporary prototype: NewSym copied it.
  fn->HostIndex = int(d.HostFuncs.size());
  d.HostFuncs.push_back(std::move(Func));
  return 0;
}

const std::string& CScriptEngine::GetRegisterError() const { return m_p->RegisterError; }

bool CScriptEngine::IsFunctionDefined(std::string_view Name) const {
  if (!m_p->Ctx) return false;
  const SCRIPT_SYM* s = Impl::Find(m_p->Ctx->GlobalHead, Name);
  return s && s->Kind == SK_FUNCTION && !Impl::IsHostFunction(s);
}

bool CScriptEngine::IsSymbolDefined(std::string_view Name) const {
  return m_p->Ctx && Impl::Find(m_p->Ctx->GlobalHead, Name);
}

int CScriptEngine::CallFunction(std::string_view Name, I64* pResult) {
  return CallFunctionArgs(Name, 0, nullptr, pResult);
}

int CScriptEngine::CallFunctionArgs(std::string_view Name, int NumArgs, const I64* paArgs, I64* pResult) {
  Impl& d = *m_p;
  if (pResult) *pResult = -1;
  SCRIPT_CTX* c = d.Ctx;
  if (!c) return -1;
  SCRIPT_SYM* fn = Impl::Find(c->GlobalHead, Name);
  if (!fn || fn->Kind != SK_FUNCTION || Impl::IsHostFunction(fn) || !fn->Body) return -2;
  bool outer = c->RunDepth == 0;
  bool savedFlag = c->ErrorFlag;
  if (outer) {
    c->StatementCount = 0;
    c->Nesting = 0;
    c->CallDepth = 0;
    c->Stopped = false;
    d.ClearErrorState();
  }
  c->ErrorFlag = false;
  if (NumArgs < 0 || NumArgs > SCRIPT_MAX_PARAMS || (NumArgs > 0 && !paArgs)) {
    d.Error("invalid argument count.");
    if (!outer) c->ErrorFlag = savedFlag;
    return -1;
  }
  c->RunDepth++;
  I64 result = -1;
  d.CallScript(fn, paArgs, NumArgs, &result);
  c->RunDepth--;
  bool failed = d.Bad();
  if (!outer) {
    // A nested run reported its own error; the caller goes on.
    c->ErrorFlag = savedFlag;
  }
  if (pResult) *pResult = result;
  return failed ? -1 : 0;
}

bool CScriptEngine::HasError() const { return m_p->ErrorSet; }
const std::string& CScriptEngine::GetErrorText() const { return m_p->ErrorText; }
int CScriptEngine::GetErrorLine() const { return m_p->ErrorSet ? m_p->ErrorLine : -1; }

std::string CScriptEngine::GetErrorMessage() const {
  const Impl& d = *m_p;
  if (!d.ErrorSet) return {};
  std::string s = d.ErrorText;
  if (d.ErrorLine >= 0 && s.find(" at line ") == std::string::npos) s += " at line " + std::to_string(d.ErrorLine);
  return s;
}

void CScriptEngine::RaiseError(std::string_view Text) {
  if (!m_p->Ctx) return;
  std::string t(Text.substr(0, 199));
  m_p->Error("%s", t.c_str());
}

void CScriptEngine::SetErrorHandler(SCRIPT_ERROR_FUNC Func) { m_p->OnError = std::move(Func); }
void CScriptEngine::SetTraceHook(SCRIPT_TRACE_FUNC Func) { m_p->OnTrace = std::move(Func); }

void CScriptEngine::SetStopFlag(bool Stop) {
  if (m_p->Ctx) {
    m_p->Ctx->StopFlag.store(Stop);
    if (!Stop && m_p->Ctx->RunDepth == 0) m_p->Ctx->Stopped = false;
  }
}
bool CScriptEngine::GetStopFlag() const { return m_p->Ctx && m_p->Ctx->StopFlag.load(); }
void CScriptEngine::SetStatementBudget(U64 Budget) { m_p->Budget = Budget; }
U64 CScriptEngine::GetStatementCount() const { return m_p->Ctx ? m_p->Ctx->StatementCount : 0; }

U64 CScriptEngine::GetHeapBase() const {
  return m_p->Ctx ? U64(reinterpret_cast<uintptr_t>(m_p->Heap.get())) : 0;
}

bool CScriptEngine::IsHeapPointer(U64 Value) const {
  U64 base = GetHeapBase();
  return base && Value >= base && Value - base < SCRIPT_HEAP_SIZE;
}

bool CScriptEngine::GetText(U64 Value, std::string* pText) const {
  if (!IsHeapPointer(Value)) return false;
  const U8* base = m_p->Heap.get();
  size_t off = size_t(Value - GetHeapBase());
  const void* nul = memchr(base + off, 0, SCRIPT_HEAP_SIZE - off);
  if (!nul) return false;
  if (pText) pText->assign(reinterpret_cast<const char*>(base + off), size_t(static_cast<const U8*>(nul) - (base + off)));
  return true;
}

U32 CScriptEngine::GetHeapFree() const {
  return m_p->Ctx ? U32(m_p->Ctx->HeapHigh - m_p->Ctx->HeapLow) : 0;
}
