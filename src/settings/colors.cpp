#include "settings/colors.h"

#include <QGuiApplication>
#include <algorithm>
#include <array>
#include <atomic>
#include "settings/store.h"
#include "settings/textvalue.h"

namespace {

using namespace Colors;

const COLOR_ROW kRows[COLOR_COUNT] = {
    {COLOR_SELECTION_HIGHLIGHT, "COLOR_SELECTION_HIGHLIGHT", kPaletteHighlight, "Selection Background",
     "Selection Background"},
    {COLOR_SELECTION_HIGHLIGHT_TEXT, "COLOR_SELECTION_HIGHLIGHT_TEXT", kPaletteHighlightedText, "Selection Foreground",
     "Selection Foreground"},
    {COLOR_CHANGE_LEVEL_1_BG, "COLOR_CHANGE_LEVEL_1_BG", kPaletteBase, "Change Level 1 Fill Color",
     "Change Level 1 background color"},
    {COLOR_CHANGE_LEVEL_2_BG, "COLOR_CHANGE_LEVEL_2_BG", kPaletteBase, "Change Level 2 Fill Color",
     "Change Level 2 background color"},
    {COLOR_CHANGE_LEVEL_3_BG, "COLOR_CHANGE_LEVEL_3_BG", kPaletteBase, "Change Level 3 Fill Color",
     "Change Level 3 background color"},
    {COLOR_CHANGE_LEVEL_1_FG, "COLOR_CHANGE_LEVEL_1_FG", 0xFFFF0000u, "Change Level 1 Text Color",
     "Change Level 1 foreground color"},
    {COLOR_CHANGE_LEVEL_2_FG, "COLOR_CHANGE_LEVEL_2_FG", 0xFFAA0000u, "Change Level 2 Text Color",
     "Change Level 2 foreground color"},
    {COLOR_CHANGE_LEVEL_3_FG, "COLOR_CHANGE_LEVEL_3_FG", 0xFF770000u, "Change Level 3 Text Color",
     "Change Level 3 foreground color"},
    {COLOR_PC_ACTIVE, "COLOR_PC_ACTIVE", 0xFF77FF6Du, "PC Row Active",
     "Program counter highlight"},
    {COLOR_PC_INACTIVE, "COLOR_PC_INACTIVE", 0xFFE3FFC1u, "PC Row Inactive",
     "Program counter highlight inactive window"},
    {COLOR_PC_BACKTRACE, "COLOR_PC_BACKTRACE", 0xFFFFFF00u, "PC Backtrace Highlight",
     "PC backtrace highlight"},
    {COLOR_CALL_SITE_ACTIVE, "COLOR_CALL_SITE_ACTIVE", 0xFFFFFCD6u, "Callsite Row Active",
     "Callsite highlight"},
    {COLOR_CALL_SITE_INACTIVE, "COLOR_CALL_SITE_INACTIVE", 0xFFFFFCD6u, "Callsite Row Inactive",
     "Callsite highlight, inactive window"},
    {COLOR_TABLE_GRID_LINES, "COLOR_TABLE_GRID_LINES", kPaletteGridShade, "Table Grid Lines",
     "Table grid line color"},
    {COLOR_SYNTAX_REGISTER, "COLOR_SYNTAX_REGISTER", 0xFF00008Bu, "Syntax Register",
     "Syntax color of register names in the disassembly window"},
    {COLOR_SYNTAX_LABEL, "COLOR_SYNTAX_LABEL", 0xFF000000u, "Syntax Label",
     "Syntax color of labels in the disassembly window"},
    {COLOR_SYNTAX_MNEMONIC, "COLOR_SYNTAX_MNEMONIC", 0xFF8B008Bu, "Syntax Mnemonic",
     "Syntax color of mnemonics in the disassembly window"},
    {COLOR_SYNTAX_IMMEDIATE, "COLOR_SYNTAX_IMMEDIATE", 0xFF8B0000u, "Syntax Immediate",
     "Syntax color of immediate values in the disassembly window"},
    {COLOR_SYNTAX_KEYWORD, "COLOR_SYNTAX_KEYWORD", 0xFF0000FAu, "Syntax Keyword",
     "Syntax color of C keywords"},
    {COLOR_SYNTAX_DIRECTIVE, "COLOR_SYNTAX_DIRECTIVE", 0xFF0000FAu, "Syntax Directive",
     "Syntax color of C directives"},
    {COLOR_SYNTAX_STRING, "COLOR_SYNTAX_STRING", 0xFFB22222u, "Syntax String",
     "Syntax color of source code strings"},
    {COLOR_SYNTAX_COMMENT, "COLOR_SYNTAX_COMMENT", 0xFF008000u, "Syntax Comment",
     "Syntax color of C comments"},
    {COLOR_SYNTAX_TEXT, "COLOR_SYNTAX_TEXT", 0xFF000000u, "Syntax Text",
     "Source code text color"},
    {COLOR_LOGGING_SCRIPT, "COLOR_LOGGING_SCRIPT", 0xFF009900u, "Console Text (Script)",
     "Color used for script event logging"},
    {COLOR_LOGGING_USER, "COLOR_LOGGING_USER", kPaletteText, "Console Text (User)",
     "Color used for user event logging"},
    {COLOR_LOGGING_ERROR, "COLOR_LOGGING_ERROR", 0xFFB22222u, "Console Text (Error)",
     "Color used for error logging"},
    {COLOR_LOGGING_VORDEN, "COLOR_LOGGING_VORDEN", 0xFF00008Bu, "Console Text (Vorden)",
     "Color used for Vorden logging"},
    {COLOR_PROGRESS_BAR_PROGRESS, "COLOR_PROGRESS_BAR_PROGRESS", 0xFFF7FFE4u, "Progress Bar Progress",
     "Color used for rendering the progress slice of a p-bar"},
    {COLOR_PROGRESS_BAR_REMAINING, "COLOR_PROGRESS_BAR_REMAINING", kPaletteBase, "Progress Bar Remaining",
     "Color used for rendering the remaining slice of a p-bar"},
    {COLOR_SYMBOL_GLOBAL_VAR, "COLOR_SYMBOL_GLOBAL_VAR", 0xFF64005Cu, "Symbol Icon Global Variable",
     "Color used for rendering icons of global variables"},
    {COLOR_SYMBOL_LOCAL_VAR, "COLOR_SYMBOL_LOCAL_VAR", 0xFF64005Cu, "Symbol Icon Local Variable",
     "Color used for rendering icons of local variables"},
    {COLOR_SYMBOL_CONSTANT, "COLOR_SYMBOL_CONSTANT", 0xFF000000u, "Symbol Icon Constant",
     "Color used for rendering icons of constants"},
    {COLOR_SYMBOL_MEMBER, "COLOR_SYMBOL_MEMBER", 0xFF000000u, "Symbol Icon Member",
     "Color used for rendering icons of symbol members"},
    {COLOR_SYMBOL_FUNCTION, "COLOR_SYMBOL_FUNCTION", 0xFF000000u, "Symbol Icon Function",
     "Color used for rendering icons of functions"},
    {COLOR_ASM_LABEL_BACKG, "COLOR_ASM_LABEL_BACKG", 0xFFE5F1FFu, "Label Background",
     "Color used for highlighting disassembly labels"},
    {COLOR_ASM_BACKG, "COLOR_ASM_BACKG", 0xFFF8FFFFu, "Background Color",
     "Disassembly window background color"},
    {COLOR_EXEC_PROFILE_GOOD_INSTR, "COLOR_EXEC_PROFILE_GOOD_INSTR", 0xFFE3FFC1u, "Execution Profile - good instruction",
     "Execution Profile - good instruction"},
    {COLOR_EXEC_PROFILE_BAD_INSTR, "COLOR_EXEC_PROFILE_BAD_INSTR", 0xFFFFD700u, "Execution Profile - bad instruction",
     "Execution Profile - bad instruction"},
    {COLOR_TABLE_FILTER_MATCH, "COLOR_TABLE_FILTER_MATCH", 0xFFCC0000u, "Text Filter Match",
     "Text Filter Match"},
};

struct ColorValues {
  std::array<std::atomic<U32>, COLOR_COUNT> V;
  ColorValues() {
    for (int i = 0; i < COLOR_COUNT; ++i) V[i].store(kRows[i].Default);
  }
};

std::array<std::atomic<U32>, COLOR_COUNT>& Values() {
  static ColorValues v;
  return v.V;
}

bool Valid(int Id) { return Id >= 0 && Id < COLOR_COUNT; }

const QString kGroup = QStringLiteral("AppData/Preferences/Colors/");

}  // namespace

namespace Colors {

const COLOR_ROW* Row(int Id) { return Valid(Id) ? &kRows[Id] : nullptr; }

int FindColor(const QString& sText) { return SettingsText::FindRow(sText, kRows, true); }

U32 GetValue(int Id) { return Valid(Id) ? Values()[Id].load(std::memory_order_relaxed) : 0; }

U32 GetDefault(int Id) { return Valid(Id) ? kRows[Id].Default : 0; }

void SetValue(int Id, U32 Value) {
  if (Valid(Id)) Values()[Id].store(Value, std::memory_order_relaxed);
}

void ResetToDefaults() {
  for (int i = 0; i < COLOR_COUNT; ++i) SetValue(i, kRows[i].Default);
}

QColor Resolve(U32 Value, const QPalette& Palette) {
  switch (Value) {
    case kPaletteBase: return Palette.color(QPalette::Base);
    case kPaletteText: return Palette.color(QPalette::Text);
    case kPaletteHighlight: return Palette.color(QPalette::Highlight);
    case kPaletteHighlightedText: return Palette.color(QPalette::HighlightedText);
    case kPaletteGridShade: {
      const QColor base = Palette.color(QPalette::Base);
      const int d = base.lightness() >= 129 ? -40 : 40;
      auto ch = [d](int c) { return std::clamp(c + d, 0, 255); };
      return QColor(ch(base.red()), ch(base.green()), ch(base.blue()));
    }
    default: return QColor::fromRgba(Value);
  }
}

QColor Resolve(U32 Value) {
  if (qGuiApp) return Resolve(Value, QGuiApplication::palette());
  return Resolve(Value, QPalette(Qt::black, Qt::white));
}

QColor GetColor(int Id) { return Resolve(GetValue(Id)); }

bool ParseColorText(const QString& sText, U32& Out) {
  const QString s = sText.trimmed();
  if (s.isEmpty()) return false;
  // Colour names and "#RRGGBB"; a bare number such as "255" is no name.
  if (QColor::isValidColorName(s)) {
    Out = QColor::fromString(s).rgba();
    return true;
  }
  U64 u = 0;
  if (!SettingsText::ParseUInt(s, u) || u > 0xFFFFFFFFull) return false;
  Out = static_cast<U32>(u);
  return true;
}

void Load() {
  for (int i = 0; i < COLOR_COUNT; ++i) {
    const QString key = kGroup + QLatin1String(kRows[i].Name);
    if (!Settings::Contains(key)) continue;
    const QString text = Settings::Value(key).toString().trimmed();
    if (QColor::isValidColorName(text)) SetValue(i, QColor::fromString(text).rgba());
  }
}

void Save() {
  for (int i = 0; i < COLOR_COUNT; ++i) {
    const QString key = kGroup + QLatin1String(kRows[i].Name);
    const QColor current = Resolve(GetValue(i));
    if (current.rgba() != Resolve(kRows[i].Default).rgba())
      Settings::SetValue(key, current.name());
    else
      Settings::Remove(key);
  }
}

}  // namespace Colors
