// The font table (FONT_*). A font the user set is kept in a map by id;
// every other font is its computed default, derived once from the
// application font and cached.
#pragma once
#include <QFont>
#include <QString>
#include "settings/ids.h"

struct FONT_ROW {
  int Id;
  const char* Name;  // FONT_*; the settings key
  const char* Label;
  const char* Description;
};

namespace Fonts {

const FONT_ROW* Row(int Id);  // null outside 0..10
// A number below 11 or a name, without regard to case; -1 otherwise.
int FindFont(const QString& sText);

QFont GetFont(int Id);       // the user's font, else the default
QFont DefaultFont(int Id);
bool IsUserSet(int Id);
void SetFont(int Id, const QFont& Font);
// Forget the user's fonts and the cached defaults (they are computed again on
// the next use, e.g. after the application font changed).
void ResetToDefaults();

// "Family, Size[pt], Style": exactly three parts, each trimmed and without
// double quotes; size 1 to 59. Bold/Black/Dark make it bold, Medium demi-bold,
// Light light; Italic/Oblique italic. False for anything else.
bool ParseFontText(const QString& sText, QFont& Out);
// "Family,  10pt,  Style", where Style is the font's style name or one of
// "Normal", "Italic", "Bold", "Bold Italic".
QString FontText(const QFont& Font);

// Settings group AppData/Preferences/Fonts: the text of each font the user
// set; the other keys are removed. Load ignores texts that are no font.
void Load();
void Save();

}  // namespace Fonts
