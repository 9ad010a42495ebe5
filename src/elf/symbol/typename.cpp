#include "elf/symbol/typename.h"

#include "elf/symbol/exprtoken.h"
#include "log/log.h"

#include <QHash>
#include <cstring>
#include <QSet>

namespace {

const QSet<QString>& Modifiers() {
  static const QSet<QString> s{"const", "restrict", "volatile", "static", "register", "extern", "typedef", "auto"};
  return s;
}
const QSet<QString>& TypeKeywords() {
  static const QSet<QString> s{"struct", "union", "class", "enum"};
  return s;
}

struct SPELLING {
  const char* sLong;
  const char* sShort;
};
const SPELLING kSpellings[] = {
  {"unsigned char", "uchar"},
  {"short unsigned int", "ushort"}, {"unsigned short int", "ushort"}, {"unsigned short", "ushort"},
  {"unsigned int", "uint"},
  {"long unsigned int", "ulong"}, {"unsigned long int", "ulong"}, {"unsigned long", "ulong"}, {"long uint", "ulong"},
  {"long long unsigned int", "long ulong"}, {"unsigned long long int", "long ulong"}, {"unsigned long long", "long ulong"},
  {"signed char", "char"},
  {"short signed int", "short"}, {"signed short int", "short"}, {"signed short", "short"}, {"short int", "short"},
  {"signed int", "int"},
  {"long signed int", "long"}, {"signed long int", "long"}, {"signed long", "long"}, {"long int", "long"},
  {"long long signed int", "long long"}, {"signed long long int", "long long"}, {"signed long long", "long long"},
  {"long long int", "long long"},
};

}  // namespace

bool CType::IsValidName(const QString& sName) {
  if (sName.isEmpty()) return false;
  const QChar c0 = sName[0];
  if (!(c0.isLetter() || c0 == QLatin1Char('_') || c0 == QLatin1Char('$'))) return false;
  for (QChar c : sName)
    if (!(c.isLetterOrNumber() || c == QLatin1Char('_') || c == QLatin1Char('$'))) return false;
  return true;
}

QString CType::ShortenTypeName(const QString& sText) {
  QString s = sText;
  for (const SPELLING& r : kSpellings) s.replace(QLatin1String(r.sLong), QLatin1String(r.sShort));
  return s;
}

int CType::KindSize(U32 Kind) {
  switch (Kind) {
    case 2: case 3: case 128: case 129: case 132: case 135: return 4;
    case 4: case 5: case 6: return 8;
    case 130: case 133: return 2;
    case 131: case 134: return 1;
    default: return 0;
  }
}

int CType::ClassSize(U32 Class) {
  switch (Class) {
    case 1: case 131: case 134: return 1;
    case 2: case 3: case 16: case 128: case 129: case 132: case 135: return 4;
    case 4: case 5: case 6: case 23: return 8;
    case 130: case 133: return 2;
    default: return 0;
  }
}

QString CType::GetKindName(U32 Kind) {
  switch (Kind) {
    case 1: return "bool";
    case 2: return "int";
    case 3: return "unsigned int";
    case 4: return "long long int";
    case 5: return "long long unsigned int";
    case 6: return "double";
    case 16: case 128: return "void*";
    case 129: return "long int";
    case 130: return "short";
    case 131: return "char";
    case 132: return "long unsigned int";
    case 133: return "unsigned short";
    case 134: return "unsigned char";
    case 135: return "float";
    default: return QString();
  }
}

static U32 ClassOfText(const QString& sText);

U32 CType::GetClass(const QString& sText) {
  // Few distinct texts come by, many times: keep their answers.
  static QHash<QString, U32> Cache;
  auto it = Cache.constFind(sText);
  if (it != Cache.constEnd()) return *it;
  if (Cache.size() > 20000) Cache.clear();
  const U32 c = ClassOfText(sText);
  Cache.insert(sText, c);
  return c;
}

// s ends with End; a one-word End must stand as a whole word there, so that
// a struct "Point" is no "int" (the spellings of several words keep their
// plain ending, as "ulong long" ends in "long long").
static bool EndsWithWord(const QString& s, const char* End) {
  const qsizetype n = qsizetype(strlen(End));
  if (!s.endsWith(QLatin1String(End))) return false;
  if (s.size() == n || End[0] == '*' || strchr(End, ' ')) return true;
  const QChar c = s.at(s.size() - n - 1);
  return !(c.isLetterOrNumber() || c == QLatin1Char('_'));
}

static U32 ClassOfText(const QString& sText) {
  QString s = sText;
  for (const char* w : {"const", "volatile", "register", "static"}) s.replace(QLatin1String(w), QString());
  s = CType::ShortenTypeName(s.trimmed());
  static const struct { const char* end; U32 cls; } kEnds[] = {
    {"bool", 1}, {"_Bool", 1}, {"uchar", 134}, {"char", 131}, {"ushort", 133}, {"short", 130},
    {"long ulong", 5}, {"long long", 4}, {"uint", 3}, {"ulong", 132}, {"int", 2}, {"long", 129},
    {"float", 135}, {"double", 6}, {"*", 128},
  };
  for (const auto& e : kEnds)
    if (EndsWithWord(s, e.end)) return e.cls;
  return 0;
}

CType::CType(U32 Kind) : kind(Kind) {
  text = identifier = GetKindName(Kind);
  size = ClassSize(Kind);
}

CType::CType(const QString& sText) {
  text = sText;
  text.replace(QLatin1Char('*'), QLatin1Char('`'));
  if (sText.trimmed().isEmpty()) return;
  QStringList Tokens;
  int Pos = 0;
  QString sToken;
  int Guard = 0;
  while (Guard++ < 4096) {
    const int r = EXPR_NextToken(sText, Pos, sToken);
    if (r == -1) break;
    if (r == -2) {
      LogWarning("Error parsing type declarators: " + sText);
      break;
    }
    Tokens << sToken;
  }
  int i = 0;
  while (i < Tokens.size() && Modifiers().contains(Tokens[i])) modifiers << Tokens[i++];
  for (const QString& t : Tokens) {
    const bool Name = IsValidName(t) && !Modifiers().contains(t);
    if (Name) {
      if (!identifier.isEmpty()) identifier += QLatin1Char(' ');
      identifier += t;
    } else if (!identifier.isEmpty()) {
      break;
    }
  }
  for (int k = Tokens.size() - 1; k >= 0; --k) {
    if (Tokens[k] == QLatin1String("[")) declarators.prepend("[]");
    else if (Tokens[k] == QLatin1String("*") || Tokens[k] == QLatin1String("`")) declarators.prepend("`");
  }
  const QString sShort = ShortenTypeName(identifier);
  static const struct { const char* end; U32 kind; } kEnds[] = {
    {"bool", 1}, {"_Bool", 1}, {"uchar", 134}, {"ushort", 133}, {"uint", 3}, {"long ulong", 5}, {"ulong", 132},
    {"char", 131}, {"short", 130}, {"int", 2}, {"long long", 4}, {"long", 129}, {"float", 135}, {"double", 6},
  };
  for (const auto& e : kEnds)
    if (EndsWithWord(sShort, e.end)) {
      kind = e.kind;
      break;
    }
  if (kind == TYPE_KIND_UNKNOWN && sShort.startsWith(QLatin1String("enum"))) kind = TYPE_KIND_ENUM;
  if (sText.contains(QLatin1Char('['))) {
    U64 Count = 1;
    int p = 0;
    while ((p = sText.indexOf(QLatin1Char('['), p)) >= 0) {
      const int q = sText.indexOf(QLatin1Char(']'), p);
      if (q < 0) break;
      bool ok = false;
      const U64 n = sText.mid(p + 1, q - p - 1).trimmed().toULongLong(&ok, 10);
      if (!ok) break;
      Count = (Count * n) & 0xFFFFFFFFull;
      p = q + 1;
    }
    arrayCount = (U32)Count;
  }
  size = GetByteSize();
}

bool CType::IsSigned() const {
  if (IsPointer()) return false;
  if (kind == TYPE_KIND_ENUM) return true;
  if (!declarators.isEmpty()) return false;
  switch (kind) {
    case TYPE_KIND_UNKNOWN: case 134: case 133: case 3: case 132: case 5: case 0: case 128: return false;
    default: return true;
  }
}

bool CType::IsIntegral() const {
  if (IsPointer() || kind == TYPE_KIND_ENUM) return true;
  if (!declarators.isEmpty()) return false;
  switch (kind) {
    case 1: case 131: case 134: case 130: case 133: case 2: case 3: case 129: case 132: case 4: case 5: case 128:
      return true;
    default: return false;
  }
}

int CType::GetByteSize() const {
  if (text.isEmpty()) return 0;
  if (IsPointer() || kind == TYPE_KIND_ENUM) return 4;
  if (IsArray()) {
    const U64 n = (U64)GetElementSize() * arrayCount;
    return n == 0 ? 4 : (int)(n & 0x7FFFFFFF);
  }
  return KindSize(kind);
}

int CType::GetElementSize() const { return CType(identifier).size; }

void CType::StripTypeKeywords() {
  QStringList Words = identifier.split(QLatin1Char(' '), Qt::SkipEmptyParts);
  while (!Words.isEmpty() && TypeKeywords().contains(Words.first())) Words.removeFirst();
  identifier = Words.join(QLatin1Char(' ')).trimmed();
}
