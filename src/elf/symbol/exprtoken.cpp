#include "elf/symbol/exprtoken.h"

#include <QHash>
#include <QMutex>
#include <QMutexLocker>

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

// ---------------------------------------------------------------------------
// Numbers

namespace {

QMutex g_SepMutex;
QString g_sBlockSeparators = QString(QChar(0x2008));

bool IsAsciiHexChar(QChar c) {
  const char16_t u = c.unicode();
  return (u >= '0' && u <= '9') || (u >= 'a' && u <= 'f') || (u >= 'A' && u <= 'F');
}

// Characters that may follow the first character of a number.
bool IsNumberBodyChar(QChar c) {
  const char16_t u = c.unicode();
  return IsAsciiHexChar(c) || u == 'x' || u == 'X' || u == '.' || u == ',';
}

bool IsNumberSuffixChar(QChar c) {
  const char16_t u = c.unicode();
  return u == 'l' || u == 'L' || u == 'u' || u == 'U';
}

bool IsIdentChar(QChar c) {
  const char16_t u = c.unicode();
  return (u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z') || u == '_' || (u >= '0' && u <= '9');
}

}  // namespace

void EXPR_SetBlockSeparators(const QString& sSeparators) {
  QMutexLocker lock(&g_SepMutex);
  g_sBlockSeparators = sSeparators;
}

QString EXPR_GetBlockSeparators() {
  QMutexLocker lock(&g_SepMutex);
  return g_sBlockSeparators;
}

bool EXPR_IsNumberText(const QString& sText) {
  if (sText.isEmpty()) return false;
  const QChar c = sText.at(0);
  const char16_t u = c.unicode();
  if (!(c.isDigit() || u == 'x' || u == 'X' || (u >= 'A' && u <= 'F') || (u >= 'a' && u <= 'f') || u == '-'))
    return false;
  bool ok = false;
  sText.toULongLong(&ok, 16);
  if (ok) return true;
  QString s = sText;
  const QString seps = EXPR_GetBlockSeparators();
  for (QChar sep : seps) s.remove(sep);
  s.replace(QChar(','), QChar('.'));
  s.toDouble(&ok);
  return ok;
}

// ---------------------------------------------------------------------------
// Tokeniser

int EXPR_NextToken(const QString& sText, int& Pos, QString& sToken) {
  sToken.clear();
  const int n = int(sText.size());
  if (Pos < 0) Pos = 0;
  while (Pos < n && sText.at(Pos) == QChar(' ')) ++Pos;
  if (Pos >= n) return -1;

  const QChar c = sText.at(Pos);
  const bool startsHex = Pos + 1 < n && c == QChar('0') && sText.at(Pos + 1) == QChar('x');
  if (c.isNumber() || startsHex) {
    int e = Pos + 1;
    while (e < n && IsNumberBodyChar(sText.at(e))) ++e;
    const int digitsEnd = e;
    while (e < n && IsNumberSuffixChar(sText.at(e))) ++e;
    // The suffix is part of the token; the number test reads the digits.
    if (!EXPR_IsNumberText(sText.mid(Pos, digitsEnd - Pos))) return -2;
    sToken = sText.mid(Pos, e - Pos);
    Pos = e;
    return 0;
  }
  if (IsIdentChar(c)) {
    int e = Pos + 1;
    while (e < n && IsIdentChar(sText.at(e))) ++e;
    sToken = sText.mid(Pos, e - Pos);
    Pos = e;
    return 0;
  }
  if (Pos + 1 < n) {
    const QString two = sText.mid(Pos, 2);
    if (EXPR_FindOperator(two)) {
      sToken = two;
      Pos += 2;
      return 0;
    }
  }
  const QString one(c);
  if (EXPR_FindOperator(one)) {
    sToken = one;
    Pos += 1;
    return 0;
  }
  return -2;
}

