// Type texts made into small values. A type reaches the symbol service and the
// expression evaluator as a text (DWARF name, a cast the user typed); CType
// reads from that text alone whether it is a pointer, an array, signed or
// integral, and how large a value of it is. There is no type graph here.
#pragma once
#include "common/types.h"
#include <QString>
#include <QStringList>

// Base type kinds of CType.
enum TYPE_KIND : U32 {
  TYPE_KIND_BOOL = 1, TYPE_KIND_INT = 2, TYPE_KIND_UINT = 3, TYPE_KIND_LONGLONG = 4, TYPE_KIND_ULONGLONG = 5,
  TYPE_KIND_DOUBLE = 6, TYPE_KIND_POINTER = 128, TYPE_KIND_LONG = 129, TYPE_KIND_SHORT = 130,
  TYPE_KIND_CHAR = 131, TYPE_KIND_ULONG = 132, TYPE_KIND_USHORT = 133, TYPE_KIND_UCHAR = 134,
  TYPE_KIND_FLOAT = 135, TYPE_KIND_ENUM = 257, TYPE_KIND_UNKNOWN = 0xFFFFFFFFu,
};

class CType {
public:
  CType() = default;
  explicit CType(const QString& sText);
  explicit CType(U32 Kind);

  bool IsPointer() const { return !declarators.isEmpty() && declarators.last() == QLatin1String("`"); }
  bool IsArray() const { return !declarators.isEmpty() && declarators.last() == QLatin1String("[]"); }
  bool IsSigned() const;
  bool IsIntegral() const;
  // A known kind without declarators.
  bool IsPlain() const { return declarators.isEmpty() && kind != TYPE_KIND_UNKNOWN; }
  int GetByteSize() const;
  int GetElementSize() const;

  const QString& GetText() const { return text; }
  const QString& GetIdentifier() const { return identifier; }
  const QStringList& GetModifiers() const { return modifiers; }
  const QStringList& GetDeclarators() const { return declarators; }
  void StripTypeKeywords();

  // Every long spelling of a base type replaced by its short one.
  static QString ShortenTypeName(const QString& sText);
  // The class of a type text for CSymbol.
  static U32 GetClass(const QString& sText);
  // Name of a kind for a value that has a kind but no text.
  static QString GetKindName(U32 Kind);
  // Size of a kind (the CType table) and of a class (the CSymbol table).
  static int KindSize(U32 Kind);
  static int ClassSize(U32 Class);
  // A text that has the form of an identifier.
  static bool IsValidName(const QString& sName);

  I32 size = 0;
  U32 kind = TYPE_KIND_UNKNOWN;
  QString text;
  QString identifier;
  QStringList modifiers;
  QStringList declarators;
  U32 arrayCount = 0;
};
