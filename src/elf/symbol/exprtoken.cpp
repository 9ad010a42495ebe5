#include "expr/operators.h"

#include <QHash>

namespace {

// The rows in the order in which look-up by text finds them: rows 12 and 13
// repeat "++" and "--" and are therefore only reachable by id.
const CExprToken kOperators[] = {
  {EXPR_OP_INC,         0, 1, 1,  "++",     "increment"},
  {EXPR_OP_DEC,         0, 1, 1,  "--",     "decrement"},
  {EXPR_OP_INDEX_OPEN,  1, 1, 1,  "[",      "index open"},
  {EXPR_OP_INDEX_CLOSE, 0, 0, 1,  "]",      "index close"},
  {EXPR_OP_INDEX,       1, 1, 1,  "[]",     "index"},
  {EXPR_OP_MEMBER,      1, 1, 1,  ".",      "member"},
  {EXPR_OP_ARROW,       1, 1, 1,  "->",     "member through pointer"},
  {EXPR_OP_OPEN,        0, 1, 1,  "(",      "open"},
  {EXPR_OP_CLOSE,       0, 1, 1,  ")",      "close"},
  {EXPR_OP_CAST,        1, 1, 1,  "$",      "cast"},
  {EXPR_OP_SCOPE,       1, 1, 1,  "::",     "scope"},
  {EXPR_OP_PRE_INC,     0, 1, 2,  "++",     "increment"},
  {EXPR_OP_PRE_DEC,     0, 1, 2,  "--",     "decrement"},
  {EXPR_OP_BIT_NOT,     0, 0, 2,  "~",      "bit inversion"},
  {EXPR_OP_LOG_NOT,     0, 0, 2,  "!",      "logical not"},
  {EXPR_OP_DEREF,       0, 0, 2,  "`",      "dereference"},
  {EXPR_OP_ADDR_OF,     0, 0, 2,  "@",      "address of"},
  {EXPR_OP_SIZEOF,      0, 0, 2,  "sizeof", "size"},
  {EXPR_OP_PLUS,        0, 0, 2,  "#",      "unary plus"},
  {EXPR_OP_NEG,         0, 0, 2,  "'",      "unary minus"},
  {EXPR_OP_MUL,         1, 1, 3,  "*",      "multiply"},
  {EXPR_OP_DIV,         1, 1, 3,  "/",      "divide"},
  {EXPR_OP_MOD,         1, 1, 3,  "%",      "remainder"},
  {EXPR_OP_ADD,         1, 1, 4,  "+",      "add"},
  {EXPR_OP_SUB,         1, 1, 4,  "-",      "subtract"},
  {EXPR_OP_SHL,         1, 1, 5,  "<<",     "shift left"},
  {EXPR_OP_SHR,         1, 1, 5,  ">>",     "shift right"},
  {EXPR_OP_LT,          1, 1, 6,  "<",      "less"},
  {EXPR_OP_LE,          1, 1, 6,  "<=",     "not greater"},
  {EXPR_OP_GT,          1, 1, 6,  ">",      "greater"},
  {EXPR_OP_GE,          1, 1, 6,  ">=",     "not less"},
  {EXPR_OP_EQ,          1, 1, 7,  "==",     "equal"},
  {EXPR_OP_NE,          1, 1, 7,  "!=",     "not equal"},
  {EXPR_OP_BIT_AND,     1, 1, 8,  "&",      "bit and"},
  {EXPR_OP_BIT_XOR,     1, 1, 9,  "^",      "bit exclusive or"},
  {EXPR_OP_BIT_OR,      1, 1, 10, "|",      "bit or"},
  {EXPR_OP_LOG_AND,     1, 1, 11, "&&",     "logical and"},
  {EXPR_OP_LOG_OR,      1, 1, 12, "||",     "logical or"},
};
constexpr int kNumOperators = int(sizeof(kOperators) / sizeof(kOperators[0]));
static_assert(kNumOperators == 38);

// Both look-up tables are filled once, from the constant table, by a
// thread-safe static initialisation; afterwards they are only read.
struct CLookup {
  QHash<QString, const CExprToken*> byText;
  QHash<U32, const CExprToken*> byId;
  CLookup() {
    for (const CExprToken& r : kOperators) {
      const QString s = QString::fromLatin1(r.text);
      if (!byText.contains(s)) byText.insert(s, &r);
      if (!byId.contains(r.id)) byId.insert(r.id, &r);
    }
  }
};

const CLookup& Lookup() {
  static const CLookup l;
  return l;
}

}  // namespace

int EXPR_GetNumOperators() { return kNumOperators; }

const CExprToken* EXPR_GetOperator(int Index) {
  return (Index >= 0 && Index < kNumOperators) ? &kOperators[Index] : nullptr;
}

const CExprToken* EXPR_FindOperator(const QString& sText) {
  if (sText.isEmpty() || sText.size() > 6) return nullptr;
  return Lookup().byText.value(sText, nullptr);
}

const CExprToken* EXPR_FindOperatorById(U32 Id) { return Lookup().byId.value(Id, nullptr); }
