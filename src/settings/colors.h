// The colour table (COLOR_*): each colour is 0xAARRGGBB, or one of five
// symbolic values that follow the application's palette and are resolved to a
// real colour at each use, so a palette change needs no table walk.
#pragma once
#include <QColor>
#include <QPalette>
#include <QString>
#include "common/types.h"
#include "settings/ids.h"

struct COLOR_ROW {
  int Id;
  const char* Name;   // COLOR_*; the settings key
  U32 Default;        // 0xAARRGGBB or a symbolic palette value
  const char* Label;
  const char* Description;
};

namespace Colors {

constexpr U32 kPaletteBase = 0xFF000001u;
constexpr U32 kPaletteText = 0xFF000002u;
constexpr U32 kPaletteHighlight = 0xFF000003u;
constexpr U32 kPaletteHighlightedText = 0xFF000004u;
// The base colour 40 units darker on each channel when its lightness is 129
// or more, 40 units lighter otherwise.
constexpr U32 kPaletteGridShade = 0xFF000005u;

const COLOR_ROW* Row(int Id);  // null outside 0..38
// A number below 39, else a name or a label compared without regard to case;
// -1 when nothing matches.
int FindColor(const QString& sText);

U32 GetValue(int Id);
U32 GetDefault(int Id);
void SetValue(int Id, U32 Value);
void ResetToDefaults();

// A symbolic value against the given palette (or the application's);
// real colours are returned as they are.
QColor Resolve(U32 Value, const QPalette& Palette);
QColor Resolve(U32 Value);
QColor GetColor(int Id);  // the resolved current colour

// A colour name of the toolkit or "#RRGGBB", else an unsigned number in any
// base holding 0xAARRGGBB. False for anything else.
bool ParseColorText(const QString& sText, U32& Out);

// Settings group AppData/Preferences/Colors: a colour that differs from its
// default after resolving is written as "#rrggbb"; otherwise its key is
// removed. Load keeps the default for a missing key or a text that is no
// colour.
void Load();
void Save();

}  // namespace Colors
