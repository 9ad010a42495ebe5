// What the expression layer may ask about the loaded program. The symbol
// service installs an implementation when a program is loaded and removes it
// when the program is closed; without one the expression layer works as for a
// C program without symbols.
#pragma once
#include <QString>

class CExprProgramInfo {
public:
  virtual ~CExprProgramInfo() = default;
  // The program's source language is C++ (so that "this" members resolve).
  virtual bool IsCpp() const = 0;
  // A name of a type of the program (base type, typedef, struct, ...).
  virtual bool IsTypeName(const QString& sName) const = 0;
  // A name of a macro with a non-empty value text.
  virtual bool IsMacro(const QString& sName) const = 0;
};

// Installs the program's answers; nullptr means no program. The object must
// live until it is replaced. Safe to call from any thread.
void EXPR_SetProgramInfo(const CExprProgramInfo* pInfo);
const CExprProgramInfo* EXPR_GetProgramInfo();
