// CSymbol: the value that windows, conditions and scripts hold. A typed node
// with a name, a location, current bytes, constant bytes and children made on
// demand: a debug symbol, a member, an array element, a pointer's target, or
// the result of an expression. Copies are values: they own their children.
#pragma once
#include "common/srcloc.h"
#include "common/types.h"
#include "elf/elf.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/location.h"
#include "elf/dwarf/target_access.h"
#include "elf/symbol/numtext.h"
#include "elf/symbol/typename.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>
#include <QVariant>
#include <map>
#include <memory>
#include <vector>

struct CExprSnapshot;

// Location kinds the symbol service works with.
enum SYM_LOC_KIND : U32 {
  SYM_LOC_NONE = 0, SYM_LOC_CONST = 1, SYM_LOC_ADDR = 2, SYM_LOC_ADDR_OFFSET = 3, SYM_LOC_REG = 4,
  SYM_LOC_REG_OFFSET = 5, SYM_LOC_REG_INDIRECT = 6, SYM_LOC_SP_OFFSET = 10, SYM_LOC_FB_OFFSET = 11,
  SYM_LOC_PARENT_VALUE = 13, SYM_LOC_PARENT_LOC = 14,
};

// One part of a data location.
struct SYM_LOC_PART {
  U32 kind = 0;
  U32 reg = 0;
  I64 offset = 0;
  U64 address = 0;
  U64 value = 0;
  U32 size = 0;          // bytes of this piece, 0 if not a piece
  U32 baseKind = 0;      // inner location of kinds 6, 15, 16
  U32 baseRegister = 0;
  I64 baseOffset = 0;
  U64 baseAddress = 0;
};

// A data location of fixed size: a count and up to two parts.
struct SYM_LOC {
  U32 count = 0;
  SYM_LOC_PART parts[2];

  static SYM_LOC Make(U32 Kind, U64 AddressOrValue = 0, I64 Offset = 0);
  bool IsEmpty() const { return count == 0; }
  bool IsMixed() const;
  bool IsMemory() const;
  bool IsConst() const { return count && parts[0].kind == SYM_LOC_CONST && !IsMixed(); }
  bool IsRegister() const;
  bool IsResolved() const;
  bool operator==(const SYM_LOC& o) const;
};

// The same location in the form of the debug information layer and back.
SYM_LOC SYM_FromElfLocation(const ELF_SYM_LOC& Loc);
ELF_SYM_LOC SYM_ToElfLocation(const SYM_LOC& Loc);

class CSymbol {
public:
  CSymbol();
  CSymbol(const QString& sText, U32 BasicKind, const SYM_LOC& Location);
  CSymbol(ELF_SYM_HANDLE Handle, const QString& sName, const QString& sTypeName, const SYM_LOC& Location, U32 Size,
          bool IsSigned, int Index, CSymbol* pParent);
  CSymbol(ELF_SYM_HANDLE Handle, I64 Pc, int Index);
  CSymbol(const CType& Type, const SYM_LOC& Location);
  CSymbol(const CSymbol& o);
  CSymbol& operator=(const CSymbol& o);
  ~CSymbol();

  // The shared empty symbol.
  static CSymbol& Empty();
  bool IsEmpty() const { return name.isEmpty() && typeName.isEmpty(); }

  // Tree.
  CSymbol& GetChild(int Index);
  CSymbol& FindMember(const QString& sName);
  CSymbol* GetParent(bool IncludeDetached = false) const;
  CSymbol* GetRoot();
  bool HasParent() const { return GetParent() != nullptr; }
  CSymbol* FindById(U32 Id);
  void SetParent(CSymbol* pParent);
  void SetName(const QString& sName);
  void ClearData();
  int GetChildCount() const { return memberCount + baseClassCount; }

  // Properties.
  bool IsPointer() const;
  bool IsReference() const;
  bool IsArray() const { return arrayInfo.elementCount > 0 || (typeClass == 1 && arrayInfo.dimensionCount > 0); }
  bool IsFunction() const { return typeClass == 46; }
  bool IsBehindPointer() const;
  bool IsConstant() const;
  bool IsRootSymbol() const;
  bool IsLocal() const;
  bool HasLocation() const { return location.count != 0; }
  bool HasValue() const;
  bool ShowsText() const;
  int GetScopeCode() const;

  // Names.
  QString GetDisplayName() const;
  QString GetFullName();
  QString GetScopeText() const;
  QString GetTypeText() const;
  QString GetSizeText(bool WithUnit = true) const;

  // Location and value.
  SYM_LOC GetLocation();
  // The location against one frame: a local is looked up at the frame's PC
  // and resolved with its registers, frame base and CFA.
  SYM_LOC GetLocation(const CCallFrame& Frame);
  // Which frame of the call stack holds this local, -1 if none.
  int GetFrameIndex() const;
  // The frame that GetLocation() resolves against.
  CCallFrame GetFrame() const;
  bool GetAddress(I64& Address);
  I64 GetAddress() {
    I64 a;
    return GetAddress(a) ? a : -1;
  }
  I64 GetPointerValue();
  U32 GetSize() const;
  U64 ReadUnsigned(bool* pOk = nullptr, bool ApplyBitField = true);
  I64 ReadSigned(bool* pOk = nullptr);
  I64 ReadInteger(bool* pOk = nullptr);
  double ReadDouble(bool* pOk = nullptr);
  bool SetData(const QByteArray& Bytes);
  int SetTextData(const QByteArray& Bytes);
  int LoadFromBlock(I64 Address, I64 Size, const CExprSnapshot* pSnapshot);
  // The bytes a value reads from: data, or constData while data is empty.
  const QByteArray& ValueBytes() const { return data.isEmpty() ? constData : data; }

  // Text.
  QString GetLocationText(bool UseBlocks = true);
  QString GetValueText(int Format = DISPLAY_FORMAT_AUTO, bool WithText = true);
  QString GetQuotedText() const;
  QString FormatValue(U64 Value, int Format, bool WithText = true);
  // Rows of the tool tip table: ("Dec", text), ... only rows with text.
  QList<QPair<QString, QString>> GetToolTipRows(bool WithScope = true);
  QString GetToolTipText(bool WithScope = true);

  // Fields.
  SYM_LOC location;
  CType type;
  U32 typeClass = 0;
  QString typeName;
  U32 byteSize = 0;
  U32 bitSize = 0;
  U32 bitOffset = 0;
  U32 id = 0;
  U32 isSigned = 0;
  ELF_ARRAY_INFO arrayInfo{};
  I32 memberIndex = 0;
  I32 memberCount = 0;
  I32 baseClassCount = 0;
  U8 isDetached = 0;
  U8 isFixedLocation = 0;
  QString baseClassNames;
  std::map<int, std::unique_ptr<CSymbol>> children;
  QList<CSymbol*> adoptedParent;
  CSymbol* parent = nullptr;
  QByteArray data;
  QByteArray constData;
  QByteArray textData;
  QHash<U32, QString> enumerators;
  QVariant userData;
  ELF_SYM_HANDLE handle = 0;
  QString name;
  QString fullName;

private:
  void InitFromHandle();
  void InitTypeClass();
  void CopyFrom(const CSymbol& o);
  CSymbol* MakeChild(int Index);
  void ElementType(ELF_SYM_HANDLE& Handle, U32& Size, bool& Signed, QString& sTypeText);
  QString FullName(int Depth);
  CSymbol& FindMemberIn(ELF_SYM_HANDLE TypeHandle, const QString& sName, bool& Found);
  bool ReadRegisterParts(const SYM_LOC& Loc, int Size);
};

// ---- name services of the wrapper (take the wrapper mutex) ----------------
enum SYM_FIND_FLAGS : U32 {
  SYM_FIND_DEBUG = 1, SYM_FIND_LOCALS = 2, SYM_FIND_TYPES = 4, SYM_FIND_ELF_FUNCTIONS = 8, SYM_FIND_SORT = 16,
  SYM_FIND_ALL = 15,
};
QList<ELF_SYM_HANDLE> FindSymbols(const QString& sName, bool DebugSymbols, bool Locals, bool Types, bool ElfFunctions,
                                  bool Sort);
QString GetSymbolScope(ELF_SYM_HANDLE Handle);
QString GetQualifiedName(ELF_SYM_HANDLE Handle, int Mode);
// Kind: 0 number, 1 source line, 2 symbol, 3 declaration, -1 nothing.
CAddrRange ResolveToAddress(const QString& sText, int& Kind);
// The PC that locals belong to (0xFFFFFFFF: none, as without a halted
// target), announced at each stop. The locals table is dropped and fetched
// anew when the function changes; the per-stop location memo every time.
void SYM_SetCurrentPc(U32 Pc);
U32 SYM_GetCurrentPc();
// The location of a local at a PC, memoised until the next SYM_SetCurrentPc.
ELF_SYM_LOC SYM_GetLocalLocation(ELF_SYM_HANDLE Handle, U32 Pc);
// The innermost function or inlined instance that holds the address, 0 if none.
ELF_SYM_HANDLE SYM_GetFunctionAt(U32 Pc);
// The innermost function, lexical block, inlined instance or compile unit
// that holds the address, 0 if none.
ELF_SYM_HANDLE SYM_GetScopeAt(U32 Pc);
// Forgets the name tables (program closed or loaded).
void SYM_ResetTables();
// A value that changes whenever another program is loaded (0x10000 without one).
U64 SYM_GetProgramIdentity();
