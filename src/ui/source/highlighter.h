// The syntax scanner of the source viewer: a small line-by-line state machine
// for C, C++ and assembler text, and a second one for the text of one
// disassembled instruction. No widgets: pure functions over one line.
#pragma once
#include <QString>
#include <QStringList>
#include <QStringView>
#include <QVector>
#include "common/types.h"

enum SRC_LANGUAGE { SRC_LANG_OTHER = 0, SRC_LANG_C = 1, SRC_LANG_CPP = 2, SRC_LANG_ASM = 3, SRC_LANG_INST = 4 };

// Token classes; each has its colour (COLOR_SYNTAX_*).
enum SRC_TOKEN_CLASS : U8 {
  SRC_TOK_COMMENT = 1,
  SRC_TOK_STRING = 2,
  SRC_TOK_KEYWORD = 3,
  SRC_TOK_DIRECTIVE = 4,
  SRC_TOK_TEXT = 5,
  SRC_TOK_MNEMONIC = 6,
  SRC_TOK_LABEL = 7,
  SRC_TOK_IMMEDIATE = 8,
  SRC_TOK_REGISTER = 9,
};

// Scanner states of a source line. Block comment, string and angle include
// carry into the next line; the others end with the line.
enum SRC_SCAN_STATE {
  SRC_STATE_DEFAULT = 0,
  SRC_STATE_BLOCK_COMMENT = 1,
  SRC_STATE_LINE_COMMENT = 2,
  SRC_STATE_ASM_COMMENT = 3,
  SRC_STATE_WORD = 4,
  SRC_STATE_STRING = 5,
  SRC_STATE_ANGLE_INCLUDE = 6,
  SRC_STATE_DIRECTIVE = 7,
};

struct CSyntaxToken {
  int Pos;   // first character in the line
  int Len;
  U8 Class;  // SRC_TOKEN_CLASS
  bool operator==(const CSyntaxToken& o) const { return Pos == o.Pos && Len == o.Len && Class == o.Class; }
};

// The language of a file by its suffix (without the dot, any case):
// c/h are C; cpp, cc, cxx, c++, hpp, hh, hxx, h++, inl are C++; s and asm are
// assembler; everything else is other text.
SRC_LANGUAGE SRC_LanguageOfSuffix(const QString& Suffix);

// Scans one line of a document (without its line end). State is the state at
// the end of the line above on entry (0 for the first line) and the state at
// the end of this line on return. Tokens is replaced.
void SRC_Highlight(SRC_LANGUAGE Language, QStringView Line, QVector<CSyntaxToken>& Tokens, int& State);

// Scans the text of one instruction. Words that start inside the mnemonic
// field [MnemonicStart, MnemonicStart + MnemonicWidth) are mnemonics; register
// names are compared without regard to case. Tokens is replaced.
void SRC_HighlightInst(QStringView Text, int MnemonicStart, int MnemonicWidth, const QStringList& RegNames,
                       QVector<CSyntaxToken>& Tokens);

bool SRC_IsKeyword(QStringView Word);    // the C/C++ keyword list, with regard to case
bool SRC_IsDirective(QStringView Word);  // "#include", "#define", ...
