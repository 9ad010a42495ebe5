// Elf.GetExprValue: evaluates an expression over the loaded program (the
// program image while no target is connected) and prints its value block in
// the console. Installed with the other session commands.
#include "commands/actionids.h"
#include "commands/actions.h"
#include "elf/dwarf/debuginfo.h"
#include "expr/evaluator.h"
#include "log/log.h"
#include "session/program.h"
#include "settings/sysvars.h"

namespace {

// The value-text preferences of the symbol service, from the preference rows.
void SyncSymbolPrefs() {
  auto Pref = [](const char* sName, int& Field) {
    const int Id = SysVars::FindSysVar(sName);
    if (Id >= 0) Field = (int)SysVars::GetValue(Id);
  };
  SYMBOL_PREFS& p = SYM_Prefs();
  Pref("PREF_SHOW_CHAR_TEXT", p.showCharText);
  Pref("PREF_SHOW_SHORT_TEXT", p.showShortText);
  Pref("PREF_SHOW_INT_TEXT", p.showIntText);
  Pref("PREF_SHOW_CHAR_PTR_TEXT", p.showCharPtrText);
  Pref("PREF_SHOW_SHORT_PTR_TEXT", p.showShortPtrText);
  Pref("PREF_SHOW_INT_PTR_TEXT", p.showIntPtrText);
  Pref("PREF_SHOW_HEX_BLOCKS", p.showHexBlocks);
  Pref("PREF_MAX_SYMBOL_MEMBERS", p.maxSymbolMembers);
  Pref("PREF_HEX_BLOCK_SEPARATOR", p.hexBlockSeparator);
  Pref("PREF_DEC_BLOCK_SEPARATOR", p.decBlockSeparator);
  Pref("PREF_BIN_BLOCK_SEPARATOR", p.binBlockSeparator);
  if (p.maxSymbolMembers < 0 || p.maxSymbolMembers > 100000) p.maxSymbolMembers = 512;
}

void OnGetExprValue(int Id) {
  if (!CheckArgCount(Id, 1)) return;
  SyncSymbolPrefs();
  QString sText = GetActionArgs(Id).value(0).trimmed();
  if (sText.size() >= 2 && sText.startsWith('"') && sText.endsWith('"')) sText = sText.mid(1, sText.size() - 2);
  CExpression e(sText);
  const int r = e.GetStatus() < 0 ? e.GetStatus() : Evaluate(e);
  if (GetResult(e)->IsEmpty()) {
    SetActionError(Id, "Error parsing expression");
    SetActionResult(Id, -1);
    return;
  }
  ConsolePrintLines(EXPR_GetFramedValueBlock(sText, e, r), 0, false, CommandColorId());
  if (r < 0) {
    SetActionError(Id, "Error evaluating expression.: " + e.GetError());
    SetActionResult(Id, -1);
    return;
  }
  SetActionResult(Id, GetResult(e)->ReadSigned());
}

}  // namespace

namespace SessionModule {

void InstallExprCommands() {
  DWARF_Install();
  EXPR_SetConstantResolver([](const QString& sName, U64& Value, int& Bytes) {
    static const QHash<QString, QString> kAlias{{"RM_BREAK_AT_MAIN", "RM_BREAK_AT_SYMBOL"}, {"AW_AUTO", "AW_ANY"}};
    const QString sUpper = sName.toUpper();
    I64 v = 0;
    if (!FindConstant(kAlias.value(sUpper, sName), &v)) return false;
    Value = (U64)v;
    Bytes = 4;
    return true;
  });
  EXPR_SetSysVarResolver([](const QString& sName, U64& Value, int& Bytes) {
    const int Id = SysVars::FindSysVar(sName);
    const SYSVAR* pRow = Id >= 0 ? SysVars::Row(Id) : nullptr;
    if (!pRow || pRow->Type == SysVarType::String) return false;
    Value = (U64)SysVars::GetValue(Id);
    Bytes = pRow->Type == SysVarType::UInt64 ? 8 : 4;
    return true;
  });
  SyncSymbolPrefs();
  SetCommandSlot(AID_ELF_GET_EXPR_VALUE, OnGetExprValue);
}

}  // namespace SessionModule
