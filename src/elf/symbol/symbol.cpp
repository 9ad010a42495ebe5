#include "elf/symbol/symbol.h"

#include "elf/elf_file.h"
#include "elf/elfapi.h"
#include "elf/symbol/exprsnapshot.h"
#include "log/log.h"

#include <QMutexLocker>
#include <cstring>

namespace {

U32 s_NextId = 0;

// DWARF numbers the symbol service reads itself.
constexpr U32 AT_TYPE = 0x49;
constexpr U32 AT_CONST_VALUE = 0x1c;
constexpr U32 AT_SIGNATURE = 0x69;

bool IsModifierTag(U32 Tag) {
  return Tag == ELF_TAG_TYPEDEF || Tag == ELF_TAG_CONST || Tag == ELF_TAG_VOLATILE || Tag == ELF_TAG_RESTRICT;
}

// The type a handle stands for, through typedefs and qualifiers: a type entry
// from itself, anything else (variable, member, inheritance) from its type.
ELF_SYM_HANDLE StripTypeOnce(ELF_SYM_HANDLE h);

ELF_SYM_HANDLE StripType(ELF_SYM_HANDLE h) {
  if (!h) return 0;
  // Kept per program: the chain walk reads attributes through libdwarf.
  static QHash<ELF_SYM_HANDLE, ELF_SYM_HANDLE> Memo;
  static U64 Identity = 0;
  const U64 Now = SYM_GetProgramIdentity();
  if (Now != Identity) {
    Memo.clear();
    Identity = Now;
  }
  auto it = Memo.constFind(h);
  if (it != Memo.constEnd()) return *it;
  const ELF_SYM_HANDLE t = StripTypeOnce(h);
  Memo.insert(h, t);
  return t;
}

ELF_SYM_HANDLE StripTypeOnce(ELF_SYM_HANDLE h) {
  if (!h || !ELF_IsDieHandle(h)) return 0;
  U32 Tag = ELF_GetTag(h);
  if (Tag == ELF_TAG_SUBPROGRAM || Tag == ELF_TAG_INLINED) return h;
  if (!ELF_IsTypeTag(Tag) || Tag == ELF_TAG_ENUMERATOR) {
    h = ELF_GetRefAttr(h, AT_TYPE);
    Tag = ELF_GetTag(h);
  }
  for (int i = 0; h && i < 64; ++i) {
    if (IsModifierTag(Tag)) {
      h = ELF_GetRefAttr(h, AT_TYPE);
    } else if (ELF_IsDeclaration(h) || ELF_HasAttr(h, AT_SIGNATURE)) {
      // A declaration stands for its definition; a stub for its type unit's.
      ELF_SYM_HANDLE d = ELF_HasAttr(h, AT_SIGNATURE) ? ELF_GetRefAttr(h, AT_SIGNATURE) : 0;
      if (!d) d = ELF_GetDefinition(h);
      if (!d || d == h) break;
      h = d;
    } else {
      break;
    }
    Tag = ELF_GetTag(h);
  }
  return h;
}

// Bytes of a value of the type of a handle.
U32 HandleSize(ELF_SYM_HANDLE h) {
  if (!h) return 0;
  if (!ELF_IsDieHandle(h)) return ELF_GetSymbolSize(h);
  const ELF_SYM_HANDLE t = StripType(h);
  if (!t) return 0;
  const U32 Tag = ELF_GetTag(t);
  if (Tag == ELF_TAG_ARRAY) return ELF_GetArrayInfo(t).total;
  if (Tag == ELF_TAG_POINTER || Tag == ELF_TAG_REFERENCE) return 4;
  return ELF_GetByteSize(t);
}

// The program identity: changes with every load.
ELF_FILE* CurrentFile() { return CElfApi::Instance().GetFile(); }

bool IsBigEndianProgram() {
  ELF_FILE* f = CurrentFile();
  return f && f->bigEndian;
}


// Location memo of handles at the default pc, kept for one program.
QHash<ELF_SYM_HANDLE, SYM_LOC>& LocMemo() {
  static QHash<ELF_SYM_HANDLE, SYM_LOC> h;
  return h;
}
U64 s_LocMemoIdentity = 0;

SYM_LOC HandleLocation(ELF_SYM_HANDLE h) {
  const U64 Identity = SYM_GetProgramIdentity();
  if (Identity != s_LocMemoIdentity) {
    LocMemo().clear();
    s_LocMemoIdentity = Identity;
  }
  auto it = LocMemo().constFind(h);
  if (it != LocMemo().constEnd()) return *it;
  SYM_LOC Loc;
  if (h && !ELF_IsDieHandle(h)) {
    if (!ELF_IsFunctionType(ELF_GetSymbolType(h))) Loc = SYM_LOC::Make(SYM_LOC_ADDR, ELF_GetSymbolValue(h));
  } else if (h) {
    const U32 Tag = ELF_GetTag(h);
    if (Tag == ELF_TAG_MEMBER || Tag == ELF_TAG_INHERITANCE) {
      const bool InUnion = ELF_GetTag(ELF_GetParent(h)) == ELF_TAG_UNION;
      Loc = SYM_LOC::Make(SYM_LOC_PARENT_LOC, 0, InUnion ? 0 : (I64)ELF_GetMemberOffset(h));
    } else if (Tag == ELF_TAG_VARIABLE || Tag == ELF_TAG_PARAMETER) {
      U32 Addr = 0;
      if (ELF_GetStaticAddress(h, &Addr)) {
        Loc = SYM_LOC::Make(SYM_LOC_ADDR, Addr);
      } else if (ELF_IsDeclaration(h)) {
        // A declaration (extern) takes the place of its definition.
        const ELF_SYM_HANDLE d = ELF_GetDefinition(h);
        if (d && d != h && ELF_GetStaticAddress(d, &Addr)) Loc = SYM_LOC::Make(SYM_LOC_ADDR, Addr);
      }
    }
  }
  LocMemo().insert(h, Loc);
  return Loc;
}

// Parsed type texts: a node is made for every child and every leaf, and the
// same few texts come back all the time.
const CType& CachedType(const QString& sText) {
  static QHash<QString, CType> Cache;
  auto it = Cache.constFind(sText);
  if (it != Cache.constEnd()) return *it;
  if (Cache.size() > 20000) Cache.clear();
  return *Cache.insert(sText, CType(sText));
}

U64 ReadLe(const QByteArray& b, int n) {
  U64 v = 0;
  for (int i = n - 1; i >= 0; --i) v = (v << 8) | (U8)b[i];
  return v;
}

}  // namespace

// ---- locations -----------------------------------------------------------------

SYM_LOC SYM_LOC::Make(U32 Kind, U64 AddressOrValue, I64 Offset) {
  SYM_LOC l;
  l.count = 1;
  l.parts[0].kind = Kind;
  if (Kind == SYM_LOC_CONST) l.parts[0].value = AddressOrValue;
  else l.parts[0].address = AddressOrValue;
  l.parts[0].offset = Offset;
  return l;
}

static bool IsMemoryKind(U32 k) { return k == 2 || k == 3 || k == 6 || k == 10 || k == 11 || k == 12 || k == 15 || k == 16; }
static bool IsRegisterKind(U32 k) { return k == 4 || k == 5; }

bool SYM_LOC::IsMixed() const {
  bool Reg = false, Mem = false;
  for (U32 i = 0; i < count && i < 2; ++i) {
    Reg |= IsRegisterKind(parts[i].kind);
    Mem |= IsMemoryKind(parts[i].kind);
  }
  return Reg && Mem;
}
bool SYM_LOC::IsMemory() const {
  if (count == 1) return IsMemoryKind(parts[0].kind);
  return count > 1 && IsMemoryKind(parts[0].kind) && !IsMixed();
}
bool SYM_LOC::IsRegister() const {
  if (count == 1) return IsRegisterKind(parts[0].kind);
  return count > 1 && IsRegisterKind(parts[0].kind) && !IsMixed();
}
bool SYM_LOC::IsResolved() const {
  if (!count) return false;
  for (U32 i = 0; i < count && i < 2; ++i) {
    const U32 k = parts[i].kind;
    if (!(k == 1 || k == 2 || k == 3 || (IsRegisterKind(k) && parts[i].reg != 1034 && parts[i].reg != 1035))) return false;
  }
  return true;
}
bool SYM_LOC::operator==(const SYM_LOC& o) const {
  if (count != o.count) return false;
  for (U32 i = 0; i < count && i < 2; ++i) {
    const SYM_LOC_PART &a = parts[i], &b = o.parts[i];
    if (a.kind != b.kind || a.reg != b.reg || a.offset != b.offset || a.address != b.address || a.value != b.value ||
        a.size != b.size || a.baseKind != b.baseKind || a.baseRegister != b.baseRegister ||
        a.baseOffset != b.baseOffset || a.baseAddress != b.baseAddress)
      return false;
  }
  return true;
}

SYM_LOC SYM_FromElfLocation(const ELF_SYM_LOC& Loc) {
  SYM_LOC l;
  l.count = Loc.count > 2 ? 2 : Loc.count;
  for (U32 i = 0; i < l.count; ++i) {
    const ELF_LOC_PART& e = Loc.parts[i];
    SYM_LOC_PART& p = l.parts[i];
    p.kind = e.kind;
    p.reg = e.reg;
    p.offset = e.offset;
    p.address = e.address;
    p.value = e.value;
    p.size = e.size;
    p.baseKind = e.baseKind;
    p.baseRegister = e.baseRegister;
    p.baseOffset = e.baseOffset;
    p.baseAddress = e.baseAddress;
  }
  return l;
}

ELF_SYM_LOC SYM_ToElfLocation(const SYM_LOC& Loc) {
  ELF_SYM_LOC l;
  memset(&l, 0, sizeof l);
  l.count = Loc.count > 2 ? 2 : Loc.count;
  for (U32 i = 0; i < l.count; ++i) {
    const SYM_LOC_PART& p = Loc.parts[i];
    ELF_LOC_PART& e = l.parts[i];
    e.kind = p.kind;
    e.reg = p.reg;
    e.offset = (I32)p.offset;
    e.address = (U32)p.address;
    e.value = p.value;
    e.size = p.size;
    e.baseKind = p.baseKind;
    e.baseRegister = p.baseRegister;
    e.baseOffset = (I32)p.baseOffset;
    e.baseAddress = (U32)p.baseAddress;
  }
  return l;
}


U64 SYM_GetProgramIdentity() {
  ELF_FILE* f = CurrentFile();
  if (!f) return 0x10000;
  return ((U64)(uintptr_t)f) ^ ((U64)f->openTicks << 1) ^ 0x5A5A0000ull;
}

// ---- construction ----------------------------------------------------------------

CSymbol::CSymbol() : id(s_NextId++) {}

CSymbol::CSymbol(const QString& sText, U32 BasicKind, const SYM_LOC& Location) : CSymbol() {
  name = fullName = sText;
  location = Location;
  type = CType(BasicKind);
  typeName = type.text;
  typeClass = BasicKind;
  byteSize = (U32)CType::ClassSize(BasicKind);
  switch (BasicKind) {
    case 134: case 133: case 3: case 132: case 5: case 128: case 0: isSigned = 0; break;
    default: isSigned = 1;
  }
  if (typeClass == 128 || typeClass == 16) memberCount = 1;
}

CSymbol::CSymbol(ELF_SYM_HANDLE Handle, const QString& sName, const QString& sTypeName, const SYM_LOC& Location,
                 U32 Size, bool IsSigned, int Index, CSymbol* pParent) {
  handle = Handle;
  name = sName;
  typeName = sTypeName;
  location = Location;
  isSigned = IsSigned;
  byteSize = Size;
  memberIndex = Index;
  parent = pParent;
  InitFromHandle();
}

CSymbol::CSymbol(ELF_SYM_HANDLE Handle, I64, int Index) {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  handle = Handle;
  location = HandleLocation(Handle);
  name = QString::fromUtf8(ELF_GetName(Handle));
  if (ELF_IsDieHandle(Handle)) {
    const U32 Tag = ELF_GetTag(Handle);
    if (ELF_IsTypeTag(Tag)) {
      const QString Keyword = QString::fromUtf8(ELF_GetTypeKeyword(Handle));
      typeName = Keyword.isEmpty() || name.isEmpty() ? name : Keyword + " " + name;
    } else {
      typeName = QString::fromUtf8(ELF_GetTypeName(Handle));
    }
    isSigned = ELF_IsSigned(Handle) != 0;
    byteSize = HandleSize(Handle);
  } else {
    byteSize = ELF_GetSymbolSize(Handle);
  }
  memberIndex = Index;
  InitFromHandle();
}

CSymbol::CSymbol(const CType& Type, const SYM_LOC& Location) : CSymbol() {
  type = Type;
  typeName = Type.text;
  typeName.replace(QLatin1Char('`'), QLatin1Char('*'));
  name = typeName;
  location = Location;
  isFixedLocation = 1;
  if (Type.IsArray()) {
    const int Elem = Type.GetElementSize();
    arrayInfo.elementBytes = (U32)Elem;
    arrayInfo.elementCount = Type.arrayCount;
    arrayInfo.total = (U32)((U64)Elem * Type.arrayCount);
    arrayInfo.dimensionCount = 1;
    arrayInfo.dimensions[0] = Type.arrayCount;
    if (arrayInfo.elementCount > (U32)SYM_Prefs().maxSymbolMembers)
      arrayInfo.elementCount = (U32)SYM_Prefs().maxSymbolMembers;
    memberCount = (I32)arrayInfo.elementCount;
    byteSize = 4;
    typeClass = 1;
    if (memberCount > 0) GetChild(0);
  } else {
    typeClass = CType::GetClass(typeName);
    byteSize = (U32)CType::ClassSize(typeClass);
    isSigned = Type.IsSigned();
    if (typeClass == 128 || typeClass == 16) memberCount = 1;
  }
}

CSymbol::CSymbol(const CSymbol& o) { CopyFrom(o); }
CSymbol& CSymbol::operator=(const CSymbol& o) {
  if (this != &o) {
    // The source may be one of our own children: copy before dropping them.
    CSymbol Tmp(o);
    children.clear();
    CopyFrom(Tmp);
    for (auto& c : children) c.second->parent = this;
  }
  return *this;
}
CSymbol::~CSymbol() = default;

void CSymbol::CopyFrom(const CSymbol& o) {
  location = o.location;
  type = o.type;
  typeClass = o.typeClass;
  typeName = o.typeName;
  byteSize = o.byteSize;
  bitSize = o.bitSize;
  bitOffset = o.bitOffset;
  id = o.id;
  isSigned = o.isSigned;
  arrayInfo = o.arrayInfo;
  memberIndex = o.memberIndex;
  memberCount = o.memberCount;
  baseClassCount = o.baseClassCount;
  isDetached = o.isDetached;
  isFixedLocation = o.isFixedLocation;
  baseClassNames = o.baseClassNames;
  children.clear();
  for (const auto& c : o.children) {
    auto p = std::make_unique<CSymbol>(*c.second);
    p->parent = this;
    children.emplace(c.first, std::move(p));
  }
  adoptedParent = o.adoptedParent;
  parent = o.parent;
  data = o.data;
  constData = o.constData;
  textData = o.textData;
  enumerators = o.enumerators;
  userData = o.userData;
  handle = o.handle;
  name = o.name;
  fullName = o.fullName;
}

CSymbol& CSymbol::Empty() {
  static CSymbol s;
  // Nobody may keep changes in the shared empty symbol.
  if (!s.name.isEmpty() || !s.typeName.isEmpty() || !s.children.empty() || !s.data.isEmpty()) s = CSymbol();
  s.parent = nullptr;
  s.adoptedParent.clear();
  return s;
}

void CSymbol::InitFromHandle() {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  if (handle && ELF_IsDieHandle(handle)) {
    bitOffset = ELF_GetBitOffset(handle);
    bitSize = ELF_GetBitSize(handle);
  }
  type = CachedType(typeName);
  id = s_NextId++;
  if (handle && ELF_IsDieHandle(handle)) {
    bool Found = false;
    const U64 v = ELF_GetAttrValue(handle, AT_CONST_VALUE, &Found);
    if (Found) {
      constData.resize(4);
      for (int i = 0; i < 4; ++i) constData[i] = (char)(v >> (8 * i));
    } else if (ELF_HasAttr(handle, AT_CONST_VALUE)) {
      std::vector<U8> b;
      if (ELF_GetConstBlock(handle, b)) constData = QByteArray((const char*)b.data(), (int)b.size());
      // A block holds the value in target byte order: bytes enter here.
      if (IsBigEndianProgram() && (constData.size() == 2 || constData.size() == 4 || constData.size() == 8))
        std::reverse(constData.begin(), constData.end());
    }
  }
  InitTypeClass();
}

void CSymbol::InitTypeClass() {
  const int Limit = SYM_Prefs().maxSymbolMembers;
  if (handle && !ELF_IsDieHandle(handle)) {
    // An ELF symbol without debug entry.
    if (ELF_IsFunctionType(ELF_GetSymbolType(handle))) {
      typeClass = 46;
      byteSize = ELF_GetSymbolSize(handle);
    } else {
      typeClass = CType::GetClass(typeName);
    }
    return;
  }
  const ELF_SYM_HANDLE t = StripType(handle);
  if (!t) {
    typeClass = CType::GetClass(typeName);
    if (typeClass == 128 || typeClass == 16) memberCount = 1;
    if (byteSize == 0) byteSize = (U32)CType::ClassSize(typeClass);
    return;
  }
  switch (ELF_GetTag(t)) {
    case ELF_TAG_ARRAY: {
      arrayInfo = ELF_GetArrayInfo(t);
      if (arrayInfo.elementCount > (U32)Limit) arrayInfo.elementCount = (U32)Limit;
      byteSize = 4;
      typeClass = 1;
      memberCount = (I32)arrayInfo.elementCount;
      break;
    }
    case ELF_TAG_STRUCT:
    case ELF_TAG_CLASS:
    case ELF_TAG_UNION: {
      const U32 Tag = ELF_GetTag(t);
      byteSize = ELF_GetByteSize(t);
      typeClass = Tag == ELF_TAG_STRUCT ? 19 : Tag == ELF_TAG_CLASS ? 0x1000B : 23;
      memberCount = ELF_GetMemberCount(t);
      if (memberCount > Limit) memberCount = Limit;
      if (Tag != ELF_TAG_UNION) {
        baseClassCount = ELF_GetBaseClassCount(t);
        QStringList Names;
        for (int i = 0; i < baseClassCount; ++i)
          Names << QString::fromUtf8(ELF_GetTypeName(ELF_GetBaseClass(t, i)));
        baseClassNames = Names.join(", ");
      }
      break;
    }
    case ELF_TAG_ENUM: {
      typeClass = 4;
      if (byteSize == 0 || byteSize > 8) byteSize = 4;
      int n = 0;
      for (ELF_SYM_HANDLE e = ELF_GetFirstChild(t); e && n < Limit; e = ELF_GetNextSibling(e)) {
        if (ELF_GetTag(e) != ELF_TAG_ENUMERATOR) continue;
        ++n;
        const QString sName = QString::fromUtf8(ELF_GetName(e));
        if (sName.isEmpty()) continue;
        std::vector<U8> b;
        U32 v = 0;
        if (ELF_GetConstBlock(e, b)) memcpy(&v, b.data(), b.size() < 4 ? b.size() : 4);
        enumerators.insert(v, sName);
      }
      break;
    }
    case ELF_TAG_POINTER:
      typeClass = 128;
      byteSize = 4;
      memberCount = 1;
      break;
    case ELF_TAG_REFERENCE:
      typeClass = 16;
      byteSize = 4;
      memberCount = 1;
      break;
    case ELF_TAG_BASE_TYPE:
      typeClass = CType::GetClass(QString::fromUtf8(ELF_GetName(t)));
      if (typeClass == 128 || typeClass == 16) memberCount = 1;
      if (byteSize == 0) byteSize = (U32)CType::ClassSize(typeClass);
      break;
    case ELF_TAG_SUBPROGRAM:
    case ELF_TAG_INLINED: {
      typeClass = 46;
      const std::vector<ELF_RANGE> r = ELF_GetRanges(t);
      byteSize = r.empty() ? 0 : r[0].end - r[0].start;
      memberCount = 0;
      break;
    }
    default:
      typeClass = 0;
  }
}

// ---- tree --------------------------------------------------------------------------

CSymbol* CSymbol::GetParent(bool IncludeDetached) const {
  if (isDetached && !IncludeDetached) return nullptr;
  if (!adoptedParent.isEmpty() && adoptedParent.first() != this) return adoptedParent.first();
  return parent;
}

CSymbol* CSymbol::GetRoot() {
  CSymbol* p = this;
  for (int i = 0; i < 10000; ++i) {
    CSymbol* q = p->GetParent();
    if (!q || q == p) break;
    p = q;
  }
  return p;
}

void CSymbol::SetParent(CSymbol* pParent) {
  adoptedParent.clear();
  if (pParent) adoptedParent << pParent;
  fullName.clear();
}

void CSymbol::SetName(const QString& sName) {
  name = sName;
  fullName.clear();
}

CSymbol* CSymbol::FindById(U32 Id) {
  for (auto& c : children)
    if (c.second->id == Id) return c.second.get();
  for (auto& c : children)
    if (CSymbol* p = c.second->FindById(Id)) return p;
  return nullptr;
}

bool CSymbol::IsPointer() const {
  if (typeClass == 128) return true;
  const ELF_SYM_HANDLE t = StripType(handle);
  return t && ELF_GetTag(t) == ELF_TAG_POINTER;
}
bool CSymbol::IsReference() const {
  if (typeClass == 16) return true;
  const ELF_SYM_HANDLE t = StripType(handle);
  return t && ELF_GetTag(t) == ELF_TAG_REFERENCE;
}

CSymbol& CSymbol::GetChild(int Index) {
  const bool Ptr = IsPointer();
  if (!Ptr && (Index < 0 || Index >= memberCount + baseClassCount)) return Empty();
  auto it = children.find(Index);
  if (it != children.end()) return *it->second;
  CSymbol* p = MakeChild(Index);
  if (!p) return Empty();
  if (p->IsEmpty()) {
    delete p;
    return Empty();
  }
  p->parent = this;
  children[Index].reset(p);
  return *p;
}

void CSymbol::ElementType(ELF_SYM_HANDLE& h, U32& Size, bool& Signed, QString&) {
  auto first = children.find(0);
  if (first != children.end() && first->second && first != children.end()) {
    h = first->second->handle;
    Size = first->second->IsArray() ? first->second->GetSize() : first->second->byteSize;
    Signed = first->second->isSigned;
    return;
  }
  const ELF_SYM_HANDLE t = StripType(handle);
  h = t ? ELF_GetRefAttr(t, AT_TYPE) : 0;
  Size = h ? HandleSize(h) : 0;
  Signed = h && ELF_IsSigned(h);
}

CSymbol* CSymbol::MakeChild(int Index) {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  if (arrayInfo.elementCount > 0 || (typeClass == 1 && arrayInfo.dimensionCount > 0 && IsArray())) {
    QString sName;
    for (U32 d = 0; d < arrayInfo.dimensionCount && d < 10; ++d) {
      U64 Product = 1;
      for (U32 k = d + 1; k < arrayInfo.dimensionCount && k < 10; ++k)
        Product *= arrayInfo.dimensions[k] ? arrayInfo.dimensions[k] : 1;
      const U32 Dim = arrayInfo.dimensions[d] ? arrayInfo.dimensions[d] : 1;
      sName += QString("[%1]").arg((U64)Index / Product % Dim);
    }
    const int b = typeName.indexOf(QLatin1Char('['));
    const QString sType = (b < 0 ? typeName : typeName.left(b)).trimmed();
    ELF_SYM_HANDLE h = 0;
    U32 Size = 0;
    bool Signed = false;
    QString Unused;
    ElementType(h, Size, Signed, Unused);
    if (!h && !handle) {
      const CType t(sType);
      Size = (U32)(t.size ? t.size : CType::ClassSize(CType::GetClass(sType)));
      Signed = t.IsSigned();
    }
    if (Size == 0 && arrayInfo.elementBytes) Size = arrayInfo.elementBytes;
    const SYM_LOC Loc = SYM_LOC::Make(SYM_LOC_PARENT_LOC, 0, (I64)Index * (I64)(arrayInfo.elementBytes ? arrayInfo.elementBytes : Size));
    auto* p = new CSymbol(h, sName, sType, Loc, Size, Signed, Index, this);
    return p;
  }
  if (typeClass == 19 || typeClass == 0x1000B || typeClass == 23) {
    const ELF_SYM_HANDLE t = StripType(handle);
    if (!t) return nullptr;
    if (Index < memberCount) {
      const ELF_SYM_HANDLE m = ELF_GetMember(t, Index);
      if (!m) return nullptr;
      SYM_LOC Loc = HandleLocation(m);
      if (typeClass == 23) Loc = SYM_LOC::Make(SYM_LOC_PARENT_LOC, 0, 0);
      return new CSymbol(m, QString::fromUtf8(ELF_GetName(m)), QString::fromUtf8(ELF_GetTypeName(m)), Loc,
                         HandleSize(m), ELF_IsSigned(m) != 0, Index, this);
    }
    const ELF_SYM_HANDLE b = ELF_GetBaseClass(t, Index - memberCount);
    if (!b) return nullptr;
    return new CSymbol(b, "<inherited members>", QString::fromUtf8(ELF_GetTypeName(b)), HandleLocation(b),
                       HandleSize(b), ELF_IsSigned(b) != 0, Index, this);
  }
  if (IsPointer() || IsReference()) {
    QString sType = typeName.trimmed();
    if (sType.endsWith(QLatin1Char('*'))) sType.chop(1);
    if (sType.endsWith(QLatin1Char('&'))) sType.chop(1);
    sType = sType.trimmed();
    ELF_SYM_HANDLE h = 0;
    U32 Size = 0;
    bool Signed = false;
    QString Unused;
    ElementType(h, Size, Signed, Unused);
    if (!h) {
      const CType t(sType);
      Size = (U32)(t.size ? t.size : CType::ClassSize(CType::GetClass(sType)));
      Signed = t.IsSigned();
    }
    const SYM_LOC Loc = SYM_LOC::Make(SYM_LOC_PARENT_VALUE, 0, (I64)Index * (I64)Size);
    return new CSymbol(h, QString("[%1]").arg(Index), sType, Loc, Size, Signed, 0, this);
  }
  return nullptr;
}

CSymbol& CSymbol::FindMemberIn(ELF_SYM_HANDLE h, const QString& sName, bool& Found) {
  Found = false;
  const ELF_SYM_HANDLE t = StripType(h);
  if (!t) return Empty();
  const QByteArray Utf8 = sName.toUtf8();
  const int i = ELF_GetMemberIndex(t, Utf8.constData());
  if (i >= 0) {
    Found = true;
    return GetChild(i);
  }
  // Members of base classes, one level at a time.
  const int nb = ELF_GetBaseClassCount(t);
  for (int b = 0; b < nb; ++b) {
    const ELF_SYM_HANDLE bt = StripType(ELF_GetBaseClass(t, b));
    if (bt && ELF_GetMemberIndex(bt, Utf8.constData()) >= 0) {
      CSymbol& Base = GetChild(memberCount + b);
      if (Base.IsEmpty()) continue;
      bool f;
      CSymbol& r = Base.FindMemberIn(Base.handle, sName, f);
      Found = f;
      if (f) return r;
    }
  }
  return Empty();
}

CSymbol& CSymbol::FindMember(const QString& sName) {
  if (sName.isEmpty()) return Empty();
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  bool Found = false;
  if (typeClass == 19 || typeClass == 23 || typeClass == 0x1000B) {
    CSymbol& r = FindMemberIn(handle, sName, Found);
    if (Found) return r;
  }
  if (IsPointer() || IsReference()) {
    CSymbol& u = GetChild(0);
    if (!u.IsEmpty() && (u.typeClass == 19 || u.typeClass == 23 || u.typeClass == 0x1000B)) {
      CSymbol& r = u.FindMemberIn(u.handle, sName, Found);
      if (Found) return r;
    }
  }
  return Empty();
}

void CSymbol::ClearData() {
  SetData(QByteArray());
  SetTextData(QByteArray());
  data.clear();
  for (auto& c : children) c.second->ClearData();
}

// ---- properties ------------------------------------------------------------------------

bool CSymbol::IsBehindPointer() const {
  if (isDetached || !GetParent()) return false;
  int Guard = 0;
  for (const CSymbol* p = GetParent(); p && Guard < 100000; p = p->GetParent(), ++Guard) {
    if (p->IsPointer()) return true;
    if (p->isDetached) return false;
  }
  return false;
}

bool CSymbol::IsConstant() const { return location.IsConst() || !constData.isEmpty(); }

bool CSymbol::IsRootSymbol() const { return !IsEmpty() && !GetParent() && !IsFunction(); }

bool CSymbol::IsLocal() const {
  const CSymbol* r = this;
  for (int i = 0; i < 10000 && r->GetParent(); ++i) r = r->GetParent();
  if (r->name == QLatin1String("this")) return true;
  if (!r->handle || !ELF_IsDieHandle(r->handle)) return false;
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  const U32 Tag = ELF_GetTag(r->handle);
  if (Tag != ELF_TAG_VARIABLE && Tag != ELF_TAG_PARAMETER) return false;
  for (ELF_SYM_HANDLE p = ELF_GetParent(r->handle); p; p = ELF_GetParent(p)) {
    const U32 t = ELF_GetTag(p);
    if (t == ELF_TAG_SUBPROGRAM || t == ELF_TAG_INLINED) return true;
    if (t == ELF_TAG_COMPILE_UNIT) return false;
  }
  return false;
}

bool CSymbol::HasValue() const {
  if (!HasLocation() && !IsConstant()) return false;
  if (IsArray()) return !textData.isEmpty() || !constData.isEmpty();
  if (byteSize < 1 || byteSize > 8) return false;
  if ((U32)ValueBytes().size() < byteSize) return false;
  return typeClass != 0 && typeClass != 19 && typeClass != 23 && typeClass != 0x1000B && typeClass != 46;
}

bool CSymbol::ShowsText() const {
  const QStringList& d = type.declarators;
  const bool IsCharArray = d.size() == 1 && d[0] == QLatin1String("[]");
  const bool IsCharPtr = d.size() == 1 && d[0] == QLatin1String("`");
  const bool IsPlain = d.isEmpty() && type.kind != TYPE_KIND_UNKNOWN;
  const SYMBOL_PREFS& P = SYM_Prefs();
  const bool Indirect = IsCharArray || IsCharPtr;
  if (!Indirect && !IsPlain) return false;
  switch (type.kind) {
    case 131: case 134: return Indirect ? P.showCharPtrText : P.showCharText;
    case 130: case 133: return Indirect ? P.showShortPtrText : P.showShortText;
    case 2: case 3: return Indirect ? P.showIntPtrText : P.showIntText;
    default: return false;
  }
}

int CSymbol::GetScopeCode() const {
  if (name.isEmpty() || typeName.isEmpty()) return 0;
  if (name == QLatin1String("<inherited members>")) return 'i';
  if (IsFunction()) return 'f';
  if (GetParent()) return 'm';
  if (IsConstant()) return 'c';
  if (!IsRootSymbol()) return 0;
  if (IsLocal()) return 'l';
  return 'g';
}

// ---- names ---------------------------------------------------------------------------------

QString CSymbol::GetDisplayName() const {
  if (!name.isEmpty()) return name;
  const CSymbol* p = GetParent();
  if (!p) return QString();
  int n = 0;
  const int Limit = SYM_Prefs().maxSymbolMembers;
  for (const auto& c : p->children) {
    if (c.first >= memberIndex || c.first >= Limit) break;
    if (c.second->name.isEmpty()) ++n;
  }
  // Children not made yet: count from the type of the parent.
  if (p->typeClass == 19 || p->typeClass == 23 || p->typeClass == 0x1000B) {
    n = 0;
    const ELF_SYM_HANDLE t = StripType(p->handle);
    for (int i = 0; t && i < memberIndex && i < Limit; ++i)
      if (!*ELF_GetName(ELF_GetMember(t, i))) ++n;
  }
  return QString("<<anonymous>_%1>").arg(n);
}

QString CSymbol::GetFullName() {
  if (fullName.isEmpty()) fullName = FullName(0);
  return fullName;
}

QString CSymbol::FullName(int Depth) {
  const QString sDisplay = GetDisplayName();
  if (Depth >= 21) return sDisplay;
  CSymbol* p = GetParent();
  for (int i = 0; p && p->name == QLatin1String("<inherited members>") && i < 1000; ++i) p = p->GetParent();
  if (!p) {
    if (handle && ELF_IsDieHandle(handle)) {
      const QList<ELF_SYM_HANDLE> Same = FindSymbols(name, true, false, false, true, false);
      if (Same.size() > 1) {
        const QString Scope = GetSymbolScope(handle);
        if (!Scope.isEmpty()) return Scope + "::" + sDisplay;
      }
    }
    return sDisplay;
  }
  CSymbol* q = p->GetParent();
  if (q && q->IsPointer() && p->name.startsWith(QLatin1Char('['))) return q->FullName(Depth + 1) + "->" + sDisplay;
  if (q && q->IsReference()) return q->FullName(Depth + 1) + "." + sDisplay;
  if ((p->IsPointer() || p->IsReference() || p->IsArray()) && sDisplay.contains(QLatin1Char('[')))
    return p->FullName(Depth + 1) + name;
  if (p->IsPointer()) return p->FullName(Depth + 1) + "->" + name;
  return p->FullName(Depth + 1) + "." + name;
}

QString CSymbol::GetScopeText() const { return handle ? GetSymbolScope(handle) : QString(); }

QString CSymbol::GetTypeText() const {
  if (!bitSize) return typeName;
  return typeName + QString("[%1:%2]").arg(bitOffset).arg(bitOffset + bitSize - 1);
}

U32 CSymbol::GetSize() const { return arrayInfo.elementCount > 0 ? arrayInfo.total : byteSize; }

QString CSymbol::GetSizeText(bool WithUnit) const {
  if (bitSize) return QString::number(bitSize) + (WithUnit ? " Bit" : "");
  return DecTextU(GetSize(), true) + (WithUnit ? " Bytes" : "");
}

// ---- location and value ----------------------------------------------------------------------

SYM_LOC CSymbol::GetLocation() {
  if (IsFunction()) {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    U32 Start = 0;
    if (handle && ELF_IsDieHandle(handle)) {
      const std::vector<ELF_RANGE> r = ELF_GetRanges(handle);
      if (r.empty()) return SYM_LOC();
      Start = r[0].start;
    } else if (handle) {
      Start = ELF_GetSymbolValue(handle) & ~1u;
    } else {
      return location;
    }
    return SYM_LOC::Make(SYM_LOC_ADDR, Start);
  }
  return GetLocation(GetFrame());
}

namespace {
// The function or inlined instance that holds a debug entry.
ELF_SYM_HANDLE EnclosingFunction(ELF_SYM_HANDLE h) {
  static QHash<ELF_SYM_HANDLE, ELF_SYM_HANDLE> Memo;
  static U64 Identity = 0;
  if (Identity != SYM_GetProgramIdentity()) {
    Memo.clear();
    Identity = SYM_GetProgramIdentity();
  }
  auto it = Memo.constFind(h);
  if (it != Memo.constEnd()) return *it;
  ELF_SYM_HANDLE f = 0;
  int Guard = 0;
  for (ELF_SYM_HANDLE p = ELF_GetParent(h); p && Guard < 10000; p = ELF_GetParent(p), ++Guard) {
    const U32 t = ELF_GetTag(p);
    if (t == ELF_TAG_SUBPROGRAM || t == ELF_TAG_INLINED) {
      f = p;
      break;
    }
    if (t == ELF_TAG_COMPILE_UNIT) break;
  }
  Memo.insert(h, f);
  return f;
}

bool FramePc(const CCallFrame& F, U64& Pc) {
  const ITargetAccess& a = ELF_GetTargetAccess();
  ICallFrameStore* s = a.GetFrameStore();
  return s && F.IsValid() && a.ReadRegister(F.stack, F.index, s->GetPcRegister(), Pc);
}
}  // namespace

int CSymbol::GetFrameIndex() const {
  if (!IsLocal()) return -1;
  const CSymbol* r = this;
  for (int i = 0; i < 10000 && r->GetParent(); ++i) r = r->GetParent();
  if (!r->handle || !ELF_IsDieHandle(r->handle)) return -1;
  ELF_SYM_HANDLE f;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    f = EnclosingFunction(r->handle);
  }
  if (!f) return -1;
  ICallFrameStore* s = ELF_GetTargetAccess().GetFrameStore();
  CCallFrame Frame;
  const int Selected = s ? s->GetSelectedFrame() : -1;
  if (Selected >= 0 && s->GetFrame(0, Selected, Frame) && Frame.function == f) return Selected;
  const U32 Pc = SYM_GetCurrentPc();
  if (Pc != 0xFFFFFFFFu && SYM_GetFunctionAt(Pc) == f) return 0;
  const int n = s ? s->GetFrameCount(0) : 0;
  for (int i = 0; i < n; ++i)
    if (s->GetFrame(0, i, Frame) && Frame.function == f) return i;
  return -1;
}

CCallFrame CSymbol::GetFrame() const {
  CCallFrame Frame;
  ICallFrameStore* s = ELF_GetTargetAccess().GetFrameStore();
  if (!s) return Frame;
  const int Index = GetFrameIndex();
  if (Index != -1) {
    if (!s->GetFrame(0, Index, Frame)) Frame = CCallFrame();
    return Frame;
  }
  const int n = s->GetFrameCount(0);
  if (n <= 0 || !s->GetFrame(0, n - 1, Frame)) Frame = CCallFrame();
  return Frame;
}

SYM_LOC CSymbol::GetLocation(const CCallFrame& Frame) {
  SYM_LOC l = location;
  if (handle && ELF_IsDieHandle(handle) && !isFixedLocation && IsLocal()) {
    U64 Pc = 0;
    if (!FramePc(Frame, Pc)) Pc = SYM_GetCurrentPc();
    const ELF_SYM_LOC e = SYM_GetLocalLocation(handle, (U32)Pc);
    if (e.count) {
      if (e.parts[0].kind == ELF_LOC_AT_BP && Frame.bpStatus != 0)
        LogWarning("Data location of local symbol " + GetDisplayName() + " depends on unsure frame base pointer");
      l = SYM_FromElfLocation(e);
    }
  }
  if (!l.count) return l;
  if (l.parts[0].kind != SYM_LOC_PARENT_LOC && l.parts[0].kind != SYM_LOC_PARENT_VALUE) {
    ELF_SYM_LOC e = SYM_ToElfLocation(l);
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    ResolveLocation(Frame, e);
    l = SYM_FromElfLocation(e);
    // A part that could not be resolved leaves the value without location.
    for (U32 i = 0; i < l.count; ++i)
      if (l.parts[i].kind == SYM_LOC_NONE) return SYM_LOC();
    // Without a frame, a frame-relative location names no place.
    if (!Frame.IsValid() && !l.IsResolved()) return SYM_LOC();
  }
  CSymbol* p = GetParent(true);
  if (l.parts[0].kind == SYM_LOC_PARENT_LOC && p && p != this) {
    SYM_LOC pl = p->GetLocation(Frame);
    if (pl.count == 1) {
      SYM_LOC_PART& a = pl.parts[0];
      switch (a.kind) {
        case 2: case 3: a.address += l.parts[0].offset; break;
        case 5: case 6: case 10: case 11: a.offset += l.parts[0].offset; break;
        default: break;
      }
    }
    return pl;
  }
  if (l.parts[0].kind == SYM_LOC_PARENT_VALUE) {
    if (!p || p == this) return SYM_LOC();
    const QByteArray& b = p->ValueBytes();
    if (b.size() < 4) return SYM_LOC();
    const U32 v = (U32)ReadLe(b, 4);
    if (!v) return SYM_LOC();
    return SYM_LOC::Make(SYM_LOC_ADDR, (U64)(U32)(v + (U32)l.parts[0].offset));
  }
  return l;
}

bool CSymbol::GetAddress(I64& Address) {
  Address = -1;
  const SYM_LOC l = GetLocation();
  if (!l.count || !l.IsMemory()) return false;
  U64 a = l.parts[0].address;
  if (l.parts[0].kind == SYM_LOC_ADDR_OFFSET) a += (U64)l.parts[0].offset;
  Address = (I64)(a & 0xFFFFFFFFull);
  return true;
}

I64 CSymbol::GetPointerValue() {
  if (IsPointer()) {
    bool ok;
    const U64 v = ReadUnsigned(&ok, false);
    return ok ? (I64)v : -1;
  }
  if (IsArray() || byteSize == 1) return GetAddress();
  return -1;
}

U64 CSymbol::ReadUnsigned(bool* pOk, bool ApplyBitField) {
  bool Dummy;
  bool& ok = pOk ? *pOk : Dummy;
  ok = false;
  if (IsArray()) {
    I64 a;
    ok = GetAddress(a);
    return ok ? (U64)a : 0;
  }
  const QByteArray& b = ValueBytes();
  if ((U32)b.size() < byteSize || byteSize == 0) return 0;
  U64 v;
  if (byteSize == 1) {
    v = (U8)b[0];
    if (typeClass == 1 && !bitSize) v = v ? 1 : 0;
  } else if (byteSize == 2 || byteSize == 4 || byteSize == 8) {
    v = ReadLe(b, (int)byteSize);
  } else {
    return 0;
  }
  ok = true;
  if (ApplyBitField && bitSize) {
    const U32 Shift = bitOffset & 63;
    v >>= Shift;
    if (bitSize < 64) v &= ((U64)1 << bitSize) - 1;
  }
  return v;
}

I64 CSymbol::ReadSigned(bool* pOk) {
  bool ok;
  if (bitSize && !IsArray()) {
    // A bit-field's value is its field, sign-extended from its top bit.
    const U64 v = ReadUnsigned(&ok, true);
    if (pOk) *pOk = ok;
    if (!ok) return 0;
    if (!isSigned || bitSize >= 64) return (I64)v;
    return (I64)(v << (64 - bitSize)) >> (64 - bitSize);
  }
  const U64 v = ReadUnsigned(&ok, false);
  if (pOk) *pOk = ok;
  if (!ok) return 0;
  if (IsArray()) return (I64)v;
  switch (byteSize) {
    case 1: return (I8)(U8)v;
    case 2: return (I16)(U16)v;
    case 4: return (I32)(U32)v;
    default: return (I64)v;
  }
}

I64 CSymbol::ReadInteger(bool* pOk) {
  if (isSigned) return ReadSigned(pOk);
  return (I64)ReadUnsigned(pOk, true);
}

double CSymbol::ReadDouble(bool* pOk) {
  bool Dummy;
  bool& ok = pOk ? *pOk : Dummy;
  ok = false;
  if (IsArray()) {
    I64 a;
    ok = GetAddress(a);
    return ok ? (double)a : 0.0;
  }
  const QByteArray& b = ValueBytes();
  if (byteSize >= 8 && b.size() >= 8) {
    const U64 v = ReadLe(b, 8);
    double d;
    memcpy(&d, &v, 8);
    ok = true;
    return d;
  }
  if (byteSize >= 4 && b.size() >= 4) {
    const U32 v = (U32)ReadLe(b, 4);
    float f;
    memcpy(&f, &v, 4);
    ok = true;
    return f;
  }
  return 0.0;
}

bool CSymbol::SetData(const QByteArray& Bytes) {
  const bool Aggregate = typeClass == 19 || typeClass == 23 || typeClass == 0x1000B || IsArray();
  if (!Aggregate) {
    if (Bytes.size() > 8) return false;
    QByteArray b = Bytes;
    if (!b.isEmpty() && (U32)b.size() != byteSize && byteSize <= 8) {
      const int Old = b.size();
      b.resize((int)byteSize);
      for (int i = Old; i < b.size(); ++i) b[i] = 0;
    }
    const bool Changed = b != data;
    data = b;
    if (Changed) textData.clear();
    return Changed;
  }
  const bool Changed = Bytes != data;
  data = Bytes;
  return Changed;
}

int CSymbol::SetTextData(const QByteArray& Bytes) {
  const U32 ElementSize = arrayInfo.elementBytes ? arrayInfo.elementBytes : (U32)CType(type.identifier).size;
  QString s;
  if (ElementSize <= 1) {
    const int n = Bytes.indexOf('\0');
    s = QString::fromLatin1(Bytes.constData(), n < 0 ? Bytes.size() : n);
  } else {
    QList<char16_t> Units;
    for (int i = 0; i + 1 < Bytes.size(); i += 2) Units << (char16_t)((U8)Bytes[i] | ((U8)Bytes[i + 1] << 8));
    s = QString((const QChar*)Units.constData(), Units.size());
  }
  s.replace(QLatin1Char('\n'), QLatin1String("\\n"));
  s.replace(QLatin1Char('\r'), QLatin1String("\\r"));
  if (!Bytes.isEmpty() && !Bytes.contains('\0')) s += "...";
  textData = Bytes.isEmpty() ? QByteArray() : s.toUtf8();
  return 1;
}

// A value held in registers (or pieces of registers and memory): each part
// gives its size in bytes, a single part the whole value.
bool CSymbol::ReadRegisterParts(const SYM_LOC& Loc, int Size) {
  QByteArray Bytes;
  const CCallFrame Frame = GetFrame();
  for (U32 i = 0; i < Loc.count && i < 2; ++i) {
    const SYM_LOC_PART& p = Loc.parts[i];
    int n = p.size ? (int)p.size : (Loc.count == 1 ? Size : 4);
    if (n <= 0 || n > 8) return false;
    U64 v = 0;
    if (p.kind == SYM_LOC_REG || p.kind == SYM_LOC_REG_OFFSET) {
      ELF_SYM_LOC e = SYM_ToElfLocation(Loc);
      if (!ELF_ReadRegisterPart(Frame, e.parts[i], v)) return false;
    } else if (p.kind == SYM_LOC_CONST) {
      v = p.value;
    } else if (p.kind == SYM_LOC_ADDR || p.kind == SYM_LOC_ADDR_OFFSET) {
      QByteArray m;
      const U32 a = (U32)(p.address + (p.kind == SYM_LOC_ADDR_OFFSET ? (U64)p.offset : 0));
      if (ELF_GetTargetAccess().ReadMemory(a, (U32)n, QString(), m) != TARGET_READ_OK || m.size() != n) return false;
      if (IsBigEndianProgram()) std::reverse(m.begin(), m.end());
      v = ReadLe(m, n);
    } else {
      return false;
    }
    for (int k = 0; k < n; ++k) Bytes.append((char)(k < 8 ? (v >> (8 * k)) : 0));
  }
  if (Bytes.size() < Size) return false;
  SetData(Bytes.left(Size));
  return true;
}

int CSymbol::LoadFromBlock(I64 Address, I64 Size, const CExprSnapshot* pSnapshot) {
  if (Size <= 0) return -1;
  if (IsArray()) {
    if (data.isEmpty()) {
      I64 a;
      if (GetAddress(a)) {
        QByteArray b(4, 0);
        for (int i = 0; i < 4; ++i) b[i] = (char)((U64)a >> (8 * i));
        data = b;
      }
    }
    return 0;
  }
  if (Size > 8) return -5;
  QByteArray Bytes;
  const bool HaveRanges = pSnapshot && !pSnapshot->ranges.isEmpty();
  if (Address >= 0 && HaveRanges) {
    const U64 Want = (U64)Size < 1000 ? (U64)Size : 1000;
    U64 Offset = 0;
    bool Found = false;
    for (const CAddrRange& r : pSnapshot->ranges) {
      if ((U64)Address >= r.start && (U64)Address + Want <= r.End()) {
        const U64 At = Offset + ((U64)Address - r.start);
        if (!pSnapshot->data.isNull() && At + (U64)Size <= (U64)pSnapshot->data.size()) {
          Bytes = pSnapshot->data.mid((int)At, (int)Size);
          Found = true;
        }
        break;
      }
      Offset += r.size;
    }
    if (!Found) Bytes = QByteArray((int)Size, 0);
  } else {
    ITargetAccess& Target = ELF_GetTargetAccess();
    if (Address >= 0 && !HaveRanges && !Target.IsAccessible()) return -4;
    const SYM_LOC l = GetLocation();
    if (!l.count || !l.IsResolved()) return -2;
    if (l.parts[0].kind == SYM_LOC_CONST) {
      Bytes.resize((int)Size);
      for (int i = 0; i < Size; ++i) Bytes[i] = (char)(l.parts[0].value >> (8 * i));
      return SetData(Bytes), 0;
    }
    if (!l.IsMemory()) return ReadRegisterParts(l, (int)Size) ? 0 : -4;
    I64 a = Address;
    if (a < 0) {
      a = (I64)l.parts[0].address;
      if (l.parts[0].kind == SYM_LOC_ADDR_OFFSET) a += l.parts[0].offset;
    }
    if (Target.ReadMemory((U32)a, (U32)Size, pSnapshot ? pSnapshot->memoryZone : QString(), Bytes) != TARGET_READ_OK ||
        Bytes.size() != Size)
      return -4;
  }
  // Target bytes enter the symbol here: values are kept little-endian.
  if (IsBigEndianProgram() && (Size == 2 || Size == 4 || Size == 8)) std::reverse(Bytes.begin(), Bytes.end());
  SetData(Bytes);
  return 0;
}

// ---- texts ------------------------------------------------------------------------------------

QString CSymbol::GetQuotedText() const {
  QByteArray t = textData.isEmpty() ? constData : textData;
  if (t.isEmpty() || !ShowsText()) return QString();
  QString s = QString::fromUtf8(t);
  if (s.startsWith(QLatin1Char('"'))) s.remove(0, 1);
  if (s.endsWith(QLatin1Char('"'))) s.chop(1);
  return "\"" + s + "\"";
}

QString CSymbol::FormatValue(U64 Value, int Format, bool WithText) {
  QByteArray Bytes(8, 0);
  for (int i = 0; i < 8; ++i) Bytes[i] = (char)(Value >> (8 * i));
  QString s;
  if (Format == DISPLAY_FORMAT_CHAR) {
    if (!textData.isEmpty() || !constData.isEmpty()) s = GetQuotedText();
    if (s.isEmpty()) s = CharText((U8)Value);
    return s;
  }
  U32 Class = typeClass;
  if (Class == 4 && byteSize < 8 && isSigned) {
    // An enumeration narrower than 8 bytes: widen its sign for the 64-bit text.
    const int Bits = (int)byteSize * 8;
    if (Bits > 0 && Bits < 64 && (Value >> (Bits - 1)) & 1) Value |= ~(U64)0 << Bits;
    for (int i = 0; i < 8; ++i) Bytes[i] = (char)(Value >> (8 * i));
  }
  if (Class == 16) Class = 128;
  s = NumberText(Bytes, Class, Format);
  if (ShowsText() && WithText) {
    const QString Quoted = GetQuotedText();
    if (!Quoted.isEmpty()) s += " " + Quoted;
    else s += " (" + CharText((U8)Value) + ")";
  }
  auto it = enumerators.constFind((U32)Value);
  if (it != enumerators.constEnd()) s = *it + " (" + s + ")";
  return s;
}

QString CSymbol::GetValueText(int Format, bool WithText) {
  if (!HasValue()) return QString();
  if (!IsArray()) {
    bool ok;
    U64 v = ReadUnsigned(&ok, true);
    if (!ok) return QString();
    // A signed bit-field shows as a value of its declared type: its field,
    // sign-extended.
    if (bitSize && bitSize < 64 && isSigned && ((v >> (bitSize - 1)) & 1)) v |= ~(U64)0 << bitSize;
    return FormatValue(v, Format, WithText);
  }
  return WithText ? GetQuotedText() : QString();
}

QString CSymbol::GetLocationText(bool UseBlocks) {
  if (!constData.isEmpty() && !HasLocation()) return "const";
  if (IsBehindPointer() && !GetLocation().count) return "<null>";
  const SYM_LOC l = GetLocation();
  if (!l.count) return "<outofscope>";
  const SYM_LOC_PART& a = l.parts[0];
  auto Mag = [](I64 o) { return QString::number(o < 0 ? 0 - (U64)o : (U64)o, 16); };
  switch (a.kind) {
    case 2: case 3: {
      U64 Addr = a.address + (a.kind == 3 ? (U64)a.offset : 0);
      Addr &= 0xFFFFFFFFull;
      return Addr == 0xFFFFFFFFull ? QString() : HexText(Addr, 8, true, UseBlocks);
    }
    case 4: return "R" + QString::number(a.reg);
    case 5: return "R" + QString::number(a.reg) + (a.offset < 0 ? "-" : "+") + Mag(a.offset);
    case 6: return "[R" + QString::number(a.reg) + "]" + (a.offset < 0 ? "-" : "+") + Mag(a.offset);
    case 1: case 7: case 8: case 9: return "const";
    default: return "<outofscope>";
  }
}

QList<QPair<QString, QString>> CSymbol::GetToolTipRows(bool WithScope) {
  QList<QPair<QString, QString>> Rows;
  const bool PlainFloat = type.declarators.isEmpty() && (type.kind == 6 || type.kind == 135);
  QString Text = PlainFloat ? QString() : GetValueText(DISPLAY_FORMAT_CHAR, true);
  QString Clean;
  for (QChar c : Text)
    if (c == QLatin1Char('\t') || c == QLatin1Char('\n') || c == QLatin1Char('\r') || (c.unicode() >= 0x20 && c.unicode() < 0x7F) ||
        (c.unicode() >= 0xA0 && false))
      Clean += c;
  const QPair<QString, QString> All[] = {
    {"Dec", GetValueText(DISPLAY_FORMAT_DEC, true)},
    {"Hex", PlainFloat ? QString() : GetValueText(DISPLAY_FORMAT_HEX, true)},
    {"Text", Clean},
    {"Loc", GetLocationText(true)},
    {"Size", GetSizeText(true)},
    {"Type", GetTypeText()},
    {"Scope", WithScope ? GetScopeText() : QString()},
  };
  for (const auto& r : All)
    if (!r.second.isEmpty()) Rows << r;
  return Rows;
}

QString CSymbol::GetToolTipText(bool WithScope) {
  const QString sFull = GetFullName();
  QString s = "<b>" + (sFull.size() < 41 ? sFull : GetDisplayName()).toHtmlEscaped() + "</b><table>";
  for (const auto& r : GetToolTipRows(WithScope))
    s += "<tr><td>" + r.first + "</td><td>" + r.second.toHtmlEscaped() + "</td></tr>";
  return s + "</table>";
}
