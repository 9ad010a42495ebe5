// The lexical level of the expression language: the operator table, the
// tokeniser and number texts. One constant table drives the tokeniser, the
// parser's rewrite passes, its postfix conversion and tree builder. It lies
// with the symbol service because type names are split by the same
// tokeniser; the parser (expr/expression.h) stands on it.
#pragma once
#include "common/types.h"
#include <QString>

// One row of the operator table.
struct CExprToken {
  U32 id;          // operator id; 0 for a token that is not an operator
  U8 isBinary;     // takes two operands
  U8 leftAssoc;    // groups from the left
  I32 precedence;  // 1 binds tightest
  const char* text;
  const char* meaning;
};

// Operator ids.
enum EXPR_OP_IDS : U32 {
  EXPR_OP_NONE = 0,
  EXPR_OP_INC = 1, EXPR_OP_DEC = 2, EXPR_OP_PRE_INC = 3, EXPR_OP_PRE_DEC = 4,
  EXPR_OP_PLUS = 5, EXPR_OP_NEG = 6,
  EXPR_OP_ADD = 7, EXPR_OP_SUB = 8, EXPR_OP_MUL = 9, EXPR_OP_DIV = 10, EXPR_OP_MOD = 11,
  EXPR_OP_BIT_NOT = 12, EXPR_OP_BIT_AND = 13, EXPR_OP_BIT_OR = 14, EXPR_OP_BIT_XOR = 15,
  EXPR_OP_SHL = 16, EXPR_OP_SHR = 17,
  EXPR_OP_LOG_AND = 18, EXPR_OP_LOG_OR = 19, EXPR_OP_LOG_NOT = 20,
  EXPR_OP_EQ = 21, EXPR_OP_NE = 22, EXPR_OP_LT = 23, EXPR_OP_GT = 24, EXPR_OP_LE = 25, EXPR_OP_GE = 26,
  EXPR_OP_INDEX = 27, EXPR_OP_INDEX_OPEN = 28, EXPR_OP_INDEX_CLOSE = 29,
  EXPR_OP_ADDR_OF = 30, EXPR_OP_DEREF = 31, EXPR_OP_ARROW = 32, EXPR_OP_MEMBER = 33,
  EXPR_OP_CAST = 34, EXPR_OP_SIZEOF = 35, EXPR_OP_SCOPE = 36,
  EXPR_OP_OPEN = 37, EXPR_OP_CLOSE = 38,
};

// Number of rows and row access in table order (0-based).
int EXPR_GetNumOperators();
const CExprToken* EXPR_GetOperator(int Index);

// First row with this spelling, or nullptr. Constant time.
const CExprToken* EXPR_FindOperator(const QString& sText);
// Row of an operator id, or nullptr.
const CExprToken* EXPR_FindOperatorById(U32 Id);
// True if the text has a row.
inline bool EXPR_IsOperator(const QString& sText) { return EXPR_FindOperator(sText) != nullptr; }

// Reads one token from Pos on; Pos then stands behind it. Result 0 for a
// token, -1 at the end of the text, -2 if no valid token starts at Pos.
// Blanks separate tokens; numbers (with their l/L/u/U suffix), names and the
// operator spellings of the table (two characters before one) are tokens.
int EXPR_NextToken(const QString& sText, int& Pos, QString& sToken);

// True if the text reads as a number: its first character is a digit, x, X,
// A-F, a-f or "-", and it reads as a 64-bit unsigned number in base 16 or, with
// block separators removed and "," read as ".", as a double.
bool EXPR_IsNumberText(const QString& sText);

// Characters that group digits in number texts and are ignored when numbers
// are read. Default: U+2008.
void EXPR_SetBlockSeparators(const QString& sSeparators);
QString EXPR_GetBlockSeparators();
