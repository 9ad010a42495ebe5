// The expression evaluator: walks the operator tree of a CExpression,
// resolves every leaf to a CSymbol and applies the operators. Integer
// arithmetic runs in 64 bits with wrapping, bit operations give 32-bit
// results, comparisons run in double precision; division by zero gives 0.
// Memory is read through the symbol service's memory seam, or from the
// expression's snapshot when it holds ranges.
//
// Evaluation is not re-entrant across threads: callers serialise it.
#pragma once
#include "common/srcloc.h"
#include "elf/symbol/symbol.h"
#include "expr/expression.h"

#include <functional>
#include <memory>

// Evaluates the expression in a scope (null: the current PC). Result: the
// byte count of the value (0 or above) or a negative status; status and
// errorText of the expression are set.
int Evaluate(CExpression& Expression, const CSrcLoc& Scope = CSrcLoc());
// Parses and evaluates a text at once. The result keeps the nodes it hangs
// on alive; an empty symbol on failure.
std::shared_ptr<CSymbol> EvaluateSymbol(const QString& sText, const CSrcLoc& Scope = CSrcLoc());
// The root's result, or an empty symbol.
std::shared_ptr<CSymbol> GetResult(const CExpression& Expression);

// Names the command layer knows: named constants and system variables. The
// session installs them; without them those resolvers answer nothing.
using EXPR_NAME_RESOLVER = std::function<bool(const QString& sName, U64& Value, int& Bytes)>;
void EXPR_SetConstantResolver(const EXPR_NAME_RESOLVER& Resolver);
void EXPR_SetSysVarResolver(const EXPR_NAME_RESOLVER& Resolver);

// The lines of the console block of Elf.GetExprValue for an evaluated
// expression (without the dashed frame lines).
QStringList EXPR_GetValueBlock(CExpression& Expression, int Result);
// The whole console block: the expression text and its value block framed by
// dashed lines.
QStringList EXPR_GetFramedValueBlock(const QString& sText, CExpression& Expression, int Result);
