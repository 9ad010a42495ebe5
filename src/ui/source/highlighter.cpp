#include "ui/source/highlighter.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace {

bool IsLetter(QChar c) {
  const char16_t u = c.unicode();
  return (u >= u'a' && u <= u'z') || (u >= u'A' && u <= u'Z');
}
bool IsDigit(QChar c) { return c.unicode() >= u'0' && c.unicode() <= u'9'; }
bool IsIdent(QChar c) { return IsLetter(c) || IsDigit(c) || c == u'_'; }

// Sorted, so that a lookup is a binary search over views without allocation.
constexpr std::array kKeywords = {
    "alignas", "alignof", "and", "and_eq", "asm", "auto", "bitand", "bitor", "bool", "break", "case", "catch",
    "char", "char16_t", "char32_t", "class", "compl", "const", "const_cast", "constexpr", "continue", "decltype",
    "default", "delete", "do", "double", "dynamic_cast", "else", "enum", "explicit", "export", "extern", "false",
    "final", "float", "for", "friend", "goto", "if", "inline", "int", "long", "mutable", "namespace", "new",
    "noexcept", "not", "not_eq", "null", "nullptr", "operator", "or", "or_eq", "override", "private", "protected",
    "public", "register", "reinterpret_cast", "return", "short", "signed", "sizeof", "static", "static_assert",
    "static_cast", "struct", "switch", "template", "this", "thread_local", "throw", "true", "try", "typedef",
    "typeid", "typename", "uchar", "uint", "ulong", "union", "unsigned", "ushort", "using", "virtual", "void",
    "volatile", "wchar_t", "while", "xor", "xor_eq"};
static_assert(std::is_sorted(kKeywords.begin(), kKeywords.end(),
                             [](const char* a, const char* b) { return std::string_view(a) < std::string_view(b); }));
constexpr std::array kDirectives = {"#include", "#define", "#undef",   "#if",    "#ifdef",
                                                     "#ifndef",  "#error",  "#pragma",  "#else",  "#elif",
                                                     "#endif",   "#if defined", "#elif defined"};

// Compares a view of ASCII text with a C string, byte order.
int CompareAscii(QStringView w, const char* s) {
  const qsizetype n = qsizetype(std::strlen(s));
  for (qsizetype i = 0; i < std::min(w.size(), n); ++i) {
    const int d = int(w[i].unicode()) - int(static_cast<unsigned char>(s[i]));
    if (d) return d;
  }
  return int(w.size() - n);
}

bool InList(QStringView w, const char* const* begin, const char* const* end) {
  for (auto it = begin; it != end; ++it)
    if (CompareAscii(w, *it) == 0) return true;
  return false;
}

}  // namespace

bool SRC_IsKeyword(QStringView Word) {
  const auto end = kKeywords.end();
  auto it = std::lower_bound(kKeywords.begin(), end, Word,
                             [](const char* s, QStringView w) { return CompareAscii(w, s) > 0; });
  return it != end && CompareAscii(Word, *it) == 0;
}

bool SRC_IsDirective(QStringView Word) { return InList(Word, kDirectives.data(), kDirectives.data() + kDirectives.size()); }

SRC_LANGUAGE SRC_LanguageOfSuffix(const QString& Suffix) {
  const QString s = Suffix.toLower();
  if (s == u"c" || s == u"h") return SRC_LANG_C;
  static const char* const kCpp[] = {"cpp", "cc", "cxx", "c++", "hpp", "hh", "hxx", "h++", "inl"};
  for (const char* c : kCpp)
    if (s == QLatin1String(c)) return SRC_LANG_CPP;
  if (s == u"s" || s == u"asm") return SRC_LANG_ASM;
  return SRC_LANG_OTHER;
}

void SRC_Highlight(SRC_LANGUAGE Language, QStringView Line, QVector<CSyntaxToken>& Tokens, int& State) {
  Tokens.clear();
  int st = State;
  if (st != SRC_STATE_BLOCK_COMMENT && st != SRC_STATE_STRING && st != SRC_STATE_ANGLE_INCLUDE) st = SRC_STATE_DEFAULT;
  const bool Keywords = Language == SRC_LANG_C || Language == SRC_LANG_CPP;
  const qsizetype n = Line.size();
  int start = 0;
  bool afterDirective = false;  // a directive was the last token: "<" opens an include name
  auto put = [&](qsizetype to, U8 cls) {
    if (to > start) Tokens.append({start, int(to - start), cls});
  };
  auto closeWord = [&](qsizetype to) {
    const QStringView w = Line.mid(start, to - start);
    put(to, Keywords && w.size() <= 13 && SRC_IsKeyword(w) ? SRC_TOK_KEYWORD : SRC_TOK_TEXT);
  };
  auto closeDirective = [&](qsizetype to) {
    const QStringView w = Line.mid(start, to - start);
    const bool IsDir = w.size() <= 9 && SRC_IsDirective(w);
    put(to, IsDir ? SRC_TOK_DIRECTIVE : SRC_TOK_TEXT);
    afterDirective = IsDir;
  };
  for (qsizetype i = 0; i < n; ++i) {
    const QChar c = Line[i];
    switch (st) {
      case SRC_STATE_BLOCK_COMMENT:
        if (c == u'*' && i + 1 < n && Line[i + 1] == u'/') {
          ++i;
          put(i + 1, SRC_TOK_COMMENT);
          st = SRC_STATE_DEFAULT;
        }
        continue;
      case SRC_STATE_LINE_COMMENT:
      case SRC_STATE_ASM_COMMENT:
        if (c == u'\n') {
          put(i, SRC_TOK_COMMENT);
          st = SRC_STATE_DEFAULT;
        }
        continue;
      case SRC_STATE_STRING:
        if (c == u'"' && !(i > 0 && Line[i - 1] == u'\\')) {
          put(i + 1, SRC_TOK_STRING);
          st = SRC_STATE_DEFAULT;
        }
        continue;
      case SRC_STATE_ANGLE_INCLUDE:
        if (c == u'>') {
          put(i + 1, SRC_TOK_STRING);
          st = SRC_STATE_DEFAULT;
        }
        continue;
      case SRC_STATE_DIRECTIVE:
        if (IsLetter(c) || c == u'_') continue;
        closeDirective(i);
        st = SRC_STATE_DEFAULT;
        break;  // the byte that ended the directive is read again in state 0
      case SRC_STATE_WORD:
        if (IsIdent(c)) continue;
        closeWord(i);
        afterDirective = false;
        st = SRC_STATE_DEFAULT;
        break;
      default:
        break;
    }
    // State 0: the next token may start here.
    const QChar next = i + 1 < n ? Line[i + 1] : QChar();
    const QChar prev = i > 0 ? Line[i - 1] : QChar();
    int open = -1;
    if (c == u'/' && next == u'/') open = SRC_STATE_LINE_COMMENT;
    else if (c == u'/' && next == u'*') open = SRC_STATE_BLOCK_COMMENT;
    else if (c == u';' && Language == SRC_LANG_ASM) open = SRC_STATE_ASM_COMMENT;
    else if (c == u'"' && prev != u'\'') open = SRC_STATE_STRING;
    else if (c == u'<' && afterDirective) open = SRC_STATE_ANGLE_INCLUDE;
    else if (IsLetter(c) || (c == u'_' && !IsIdent(prev))) open = SRC_STATE_WORD;
    else if (c == u'#') open = SRC_STATE_DIRECTIVE;
    if (open >= 0) {
      st = open;
      start = int(i);
      afterDirective = false;
      if (open == SRC_STATE_BLOCK_COMMENT) ++i;  // "/*/" does not close the comment it opens
    } else if (c != u' ' && c != u'\t') {
      afterDirective = false;
    }
  }
  switch (st) {
    case SRC_STATE_BLOCK_COMMENT: put(n, SRC_TOK_COMMENT); break;
    case SRC_STATE_LINE_COMMENT:
    case SRC_STATE_ASM_COMMENT: put(n, SRC_TOK_COMMENT); st = SRC_STATE_DEFAULT; break;
    case SRC_STATE_WORD: closeWord(n); st = SRC_STATE_DEFAULT; break;
    case SRC_STATE_STRING:
    case SRC_STATE_ANGLE_INCLUDE: put(n, SRC_TOK_STRING); break;
    case SRC_STATE_DIRECTIVE: closeDirective(n); st = SRC_STATE_DEFAULT; break;
    default: break;
  }
  State = st;
}

void SRC_HighlightInst(QStringView Text, int MnemonicStart, int MnemonicWidth, const QStringList& RegNames,
                       QVector<CSyntaxToken>& Tokens) {
  enum { kDefault = 0, kImmediate = 8, kWord = 9, kAngle = 10 };
  Tokens.clear();
  const qsizetype n = Text.size();
  int st = kDefault;
  int start = 0;
  auto closeWord = [&](qsizetype to) {
    const QStringView w = Text.mid(start, to - start);
    U8 cls = SRC_TOK_LABEL;
    if (RegNames.contains(w, Qt::CaseInsensitive)) cls = SRC_TOK_REGISTER;
    else if (start >= MnemonicStart && start < MnemonicStart + MnemonicWidth) cls = SRC_TOK_MNEMONIC;
    Tokens.append({start, int(to - start), cls});
  };
  auto isImmediate = [](QChar c) {
    const char16_t u = c.unicode();
    return IsDigit(c) || u == u'x' || u == u'X' || (u >= u'A' && u <= u'F') || (u >= u'a' && u <= u'f') ||
           u == u'.' || u == u',' || u == u'+' || u == u'-';
  };
  auto opensWord = [&](qsizetype i) {
    if (i == 0) return true;
    const char16_t p = Text[i - 1].unicode();
    return p == u'[' || p == u' ' || p == u'{' || p == u',' || p == u'(' || p == u'-' || p == u'.' || p == u'=';
  };
  for (qsizetype i = 0; i < n; ++i) {
    const QChar c = Text[i];
    if (st == kAngle) {
      if (c == u'>') {
        Tokens.append({start, int(i + 1 - start), SRC_TOK_LABEL});
        st = kDefault;
      }
      continue;
    }
    if (st == kImmediate) {
      if (isImmediate(c)) continue;
      Tokens.append({start, int(i - start), SRC_TOK_IMMEDIATE});
      st = kDefault;
    } else if (st == kWord) {
      if (IsIdent(c)) continue;
      closeWord(i);
      st = kDefault;
    }
    if (c == u'<') st = kAngle;
    else if (c == u'#') st = kImmediate;
    else if ((IsLetter(c) || c == u'_') && opensWord(i)) st = kWord;
    if (st != kDefault) start = int(i);
  }
  if (st == kAngle) Tokens.append({start, int(n - start), SRC_TOK_LABEL});
  else if (st == kImmediate) Tokens.append({start, int(n - start), SRC_TOK_IMMEDIATE});
  else if (st == kWord) closeWord(n);
}
