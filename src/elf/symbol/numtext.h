// Number, character and value texts shared by every value view: hex in blocks
// of four digits, decimal grouped by three, binary, characters and doubles.
#pragma once
#include "common/types.h"
#include <QByteArray>
#include <QString>

// Display formats (script constants).
enum DISPLAY_FORMAT : int {
  DISPLAY_FORMAT_AUTO = 0, DISPLAY_FORMAT_BINARY = 2, DISPLAY_FORMAT_CHAR = 8,
  DISPLAY_FORMAT_DEC = 10, DISPLAY_FORMAT_HEX = 16,
};

// The preferences that shape value texts; defaults as a fresh installation.
// Separators: 0 half space U+2008, 1 space, 2 comma, 3 colon.
struct SYMBOL_PREFS {
  int showCharText = 1, showShortText = 0, showIntText = 0;
  int showCharPtrText = 1, showShortPtrText = 0, showIntPtrText = 0;
  int showHexBlocks = 1;
  int maxSymbolMembers = 512;
  int hexBlockSeparator = 0, decBlockSeparator = 0, binBlockSeparator = 0;
};
SYMBOL_PREFS& SYM_Prefs();
// The character of a separator preference value.
QChar SYM_SeparatorChar(int Pref);

QString HexText(U64 Value, int Width = 0, bool Prefix = true, bool Blocks = true);
QString DecText(I64 Value, bool Blocks = true);
QString DecTextU(U64 Value, bool Blocks = true);
QString BinaryText(U64 Value, int Width = 0, bool Prefix = false, int Group = 0);
QString CharText(U32 Code);
QString DoubleText(double Value);
// The text of a value image of a symbol class in a display format.
QString NumberText(const QByteArray& Bytes, U32 Class, int Format, int Width = 0, bool Prefix = true);
