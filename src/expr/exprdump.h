// Text rendering of a parsed expression, for inspection tools and logs.
#pragma once
#include "expr/expression.h"

#include <QStringList>

// Lines describing how a text parses:
//   expression: <text>
//   status: <code> (<words>)[: <error text>]
//   ignored from column <c>: <rest>    only if the text was cut short
//   tokens: <n>
//     <i>  <token>  <kind>           one line per token, i from 0
//   postfix: <t> <t> ...               tokens with blanks in double quotes
//   tree: <code> (<words>)
// A token's kind is "operator <id> <meaning>, unary|binary, left|right,
// precedence <p>", "number", "type text", "file name", or for names "name",
// "type name" or "macro" (the last two only with a loaded program).
QStringList EXPR_RenderTokenLines(const QString& sText);
QStringList EXPR_RenderTokenLines(const CExpression& Expr);
