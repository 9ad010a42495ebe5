#include "expr/evaluator.h"

#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "expr/exprprogram.h"

#include <QMutexLocker>
#include <cmath>
#include <cstring>

namespace {

using SymPtr = std::shared_ptr<CSymbol>;

// Memo tables for one program: leaves that are numbers or globals, and type texts.
struct MEMO {
  U64 identity = 0;
  QHash<QString, CSymbol> numbers;
  QHash<ELF_SYM_HANDLE, CSymbol> globals;
  QHash<QString, CType> types;
  QHash<QString, QString> macros;
  bool macrosBuilt = false;
  QHash<QString, QPair<I64, ELF_SYM_HANDLE>> enumerators;  // name -> (value, enumeration type)
  bool enumeratorsBuilt = false;
};
MEMO& Memo() {
  static MEMO m;
  return m;
}
void CheckProgramIdentity() {
  const U64 Identity = SYM_GetProgramIdentity();
  MEMO& m = Memo();
  if (m.identity != Identity) {
    m = MEMO();
    m.identity = Identity;
  }
}

EXPR_NAME_RESOLVER s_ConstantResolver, s_SysVarResolver;
int s_MacroDepth = 0;

// Everything an operator application needs.
struct OP_CTX {
  U32 id = 0;
  QList<CAddrRange>* reads = nullptr;
  const CExprSnapshot* snapshot = nullptr;
  U8 isBinary = 0;
  U8 errorSide = 0;
  QString text;
};

SymPtr EmptyPtr() { return std::make_shared<CSymbol>(); }

QString Capped(QString s);

// Deeper than this, a result in memory at a known address is detached from
// the tree it hangs in (below), so that chains such as p->next->next->...
// cost time linear in their length.
constexpr size_t kMaxOwnedPath = 32;

// A result that stands on its own: a copy of the tree the node hangs in,
// pointing at the node's place in the copy. A node deep in its tree whose
// location resolves to one address becomes a root of its own at that fixed
// address, keeping its full name.
SymPtr Own(CSymbol* p) {
  std::vector<int> Keys;
  CSymbol* cur = p;
  for (int Guard = 0; cur->parent && cur->parent != cur && Guard < 100000; ++Guard) {
    bool Found = false;
    for (auto& c : cur->parent->children)
      if (c.second.get() == cur) {
        Keys.push_back(c.first);
        Found = true;
        break;
      }
    if (!Found) break;
    cur = cur->parent;
  }
  if (Keys.size() > kMaxOwnedPath) {
    const SYM_LOC l = p->GetLocation();
    if (l.count == 1 && l.IsMemory() && l.IsResolved()) {
      const QString sFull = Capped(p->GetFullName());
      auto r = std::make_shared<CSymbol>(*p);
      r->parent = nullptr;
      r->adoptedParent.clear();
      r->location = l;
      r->isFixedLocation = 1;
      r->fullName = sFull;
      return r;
    }
  }
  auto Root = std::make_shared<CSymbol>(*cur);
  Root->parent = nullptr;
  Root->adoptedParent.clear();
  CSymbol* q = Root.get();
  for (auto it = Keys.rbegin(); it != Keys.rend(); ++it) {
    auto c = q->children.find(*it);
    if (c == q->children.end()) return SymPtr(Root, Root.get());
    q = c->second.get();
  }
  return SymPtr(Root, q);
}

QByteArray Le8(U64 v) {
  QByteArray b(8, 0);
  for (int i = 0; i < 8; ++i) b[i] = (char)(v >> (8 * i));
  return b;
}

SymPtr MakeConst(const QString& sText, U32 Kind, U64 Bits, int Bytes = 8) {
  auto s = std::make_shared<CSymbol>(sText, Kind, SYM_LOC::Make(SYM_LOC_CONST, Bits));
  QByteArray b = Le8(Bits);
  b.resize(Bytes);
  s->data = b;
  if (Kind == 4 || Kind == 5 || Kind == 6) s->byteSize = 8;
  return s;
}

bool IsValidName(const CSymbol& s) {
  QString n = s.GetDisplayName();
  n.remove("[]");
  n.remove("->");
  n.remove(".");
  return CType::IsValidName(n.trimmed());
}

bool IsPtr(const CSymbol& s) { return s.type.IsPointer() || s.IsPointer(); }
bool IsArr(const CSymbol& s) { return s.type.IsArray() || s.IsArray(); }
bool IsPlain(const CSymbol& s) { return s.type.IsPlain(); }
bool IsIntegral(const CSymbol& s) { return IsPtr(s) || s.type.IsIntegral(); }
bool PtrOrPlain(const CSymbol& s) { return IsPtr(s) || IsPlain(s); }
bool TypeSigned(const CSymbol& s) { return s.type.IsSigned(); }

// Reads an operand that has no bytes yet.
int ReadOperand(OP_CTX& c, CSymbol& s, int Side) {
  if (!s.data.isEmpty() || !s.constData.isEmpty()) return 0;
  if (s.IsEmpty()) {
    c.errorSide = (U8)Side;
    return -1;
  }
  if (!s.HasLocation()) return 0;
  I64 Address = -1;
  s.GetAddress(Address);
  const U32 Size = s.GetSize();
  if (Size && Address >= 0) c.reads->append(CAddrRange((U32)Address, Size));
  const int r = s.LoadFromBlock(Address, Size, c.snapshot);
  if (r >= 0) return 0;
  c.errorSide = (U8)Side;
  if (r == -3) return -4;
  if (r == -4) return -5;
  return -1;
}

int Fail(OP_CTX& c, int Code, int Side) {
  c.errorSide = (U8)Side;
  return Code;
}

// ---- leaves ----------------------------------------------------------------------

bool ResolveNumber(const QString& sText, SymPtr& Out) {
  QString s = sText;
  s.replace(QLatin1Char(','), QLatin1Char('.'));
  for (QChar c : EXPR_GetBlockSeparators()) s.remove(c);
  for (QChar c : QString("\u2008 ,:")) if (c != QLatin1Char(',') && c != QLatin1Char(' ')) s.remove(c);
  if (s.startsWith(QLatin1String("b'"))) s = s.mid(2);
  if (s.isEmpty()) return false;
  const QChar c0 = s[0];
  if (!(c0.isDigit() || c0 == QLatin1Char('-') || c0 == QLatin1Char('.'))) return false;
  MEMO& m = Memo();
  auto it = m.numbers.constFind(sText);
  if (it != m.numbers.constEnd()) {
    Out = std::make_shared<CSymbol>(*it);
    return true;
  }
  static const QString kUnits = "kKmMgGtTpP";
  const bool Hex = s.startsWith(QLatin1String("0x"), Qt::CaseInsensitive) ||
                   s.startsWith(QLatin1String("-0x"), Qt::CaseInsensitive);
  if (!s.isEmpty() && kUnits.contains(s.back()) && !(Hex && QString("abcdefABCDEF").contains(s.back()))) s.chop(1);
  for (int i = 0; i < 2 && !s.isEmpty() && QString("lLuU").contains(s.back()); ++i) s.chop(1);
  const bool Neg = s.startsWith(QLatin1Char('-'));
  bool ok = false;
  const U64 v = (Neg ? s.mid(1) : s).toULongLong(&ok, 0);
  SymPtr r;
  if (ok && !(Neg && s.size() == 1)) {
    const U64 Bits = Neg ? 0 - v : v;
    r = MakeConst(sText, Neg ? 4 : 5, Bits);
    r->typeName = Neg ? "long long" : "unsigned long long";
  } else {
    const double d = s.toDouble(&ok);
    if (!ok) return false;
    U64 Bits;
    memcpy(&Bits, &d, 8);
    r = MakeConst(sText, 6, Bits);
    r->typeName = "double";
  }
  r->type = CType(r->typeName);
  r->isSigned = r->type.IsSigned();
  if (m.numbers.size() < 100000) m.numbers.insert(sText, *r);
  Out = r;
  return true;
}

bool ResolveCommandName(const EXPR_NAME_RESOLVER& Resolver, const QString& sText, SymPtr& Out) {
  if (!Resolver || !CType::IsValidName(sText)) return false;
  U64 v = 0;
  int Bytes = 4;
  if (!Resolver(sText, v, Bytes)) return false;
  auto r = MakeConst(sText, 3, (U32)v, 4);
  r->typeName = "unsigned int";
  r->type = CType(r->typeName);
  r->byteSize = 4;
  r->isSigned = 0;
  Out = r;
  return true;
}

void BuildMacros() {
  MEMO& m = Memo();
  if (m.macrosBuilt) return;
  m.macrosBuilt = true;
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  ELF_FILE* f = CElfApi::Instance().GetFile();
  if (!f) return;
  const int n = ELF_GetNumMacros(f);
  for (int i = 0; i < n; ++i) {
    const ELF_MACRO* p = ELF_GetMacro(f, i);
    if (!p || !p->text || (p->kind != 0 && p->kind != 1)) continue;
    const QString s = QString::fromUtf8(p->text);
    int e = 0;
    while (e < s.size() && (s[e].isLetterOrNumber() || s[e] == QLatin1Char('_'))) ++e;
    const QString sName = s.left(e);
    if (sName.isEmpty()) continue;
    if (p->kind == 1) {
      m.macros.remove(sName);
      continue;
    }
    if (e < s.size() && s[e] == QLatin1Char('(')) continue;  // function-like
    const QString sValue = s.mid(e).trimmed();
    if (!sValue.isEmpty()) m.macros.insert(sName, sValue);
  }
}

bool ResolveMacro(const QString& sText, SymPtr& Out) {
  if (!CType::IsValidName(sText)) return false;
  BuildMacros();
  auto it = Memo().macros.constFind(sText);
  if (it == Memo().macros.constEnd() || s_MacroDepth >= 8) return false;
  ++s_MacroDepth;
  CExpression e(*it);
  const int r = Evaluate(e, CSrcLoc());
  --s_MacroDepth;
  if (r < 0) return false;
  SymPtr Res = GetResult(e);
  if (Res->IsEmpty()) return false;
  SymPtr Copy = Own(Res.get());
  Copy->SetName(sText);
  Out = Copy;
  return true;
}

// The scope of the evaluation in progress: the null location stands for the
// current PC.
CSrcLoc s_Scope;

int CountScopes(const QString& s) { return s.count(QLatin1String("::")); }

// Several results of one name: the nearest enclosing scope first, unrelated
// symbols keep their order at the end.
QList<ELF_SYM_HANDLE> ScopeFilter(const QList<ELF_SYM_HANDLE>& Found) {
  if (Found.size() <= 1) return Found;
  U32 Pc = SYM_GetCurrentPc();
  if (!s_Scope.IsNull()) {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    const I64 a = DWARF_GetProgramTables().GetFirstLocAddress(s_Scope);
    Pc = a >= 0 ? (U32)a : 0xFFFFFFFFu;
  }
  const ELF_SYM_HANDLE c = SYM_GetScopeAt(Pc);
  const QString sContext = c ? GetQualifiedName(c, 1) : QString();
  QList<QPair<U64, ELF_SYM_HANDLE>> Ranked;
  for (ELF_SYM_HANDLE h : Found) {
    U64 Distance = ~0ull;
    const QString sScope = ELF_IsDieHandle(h) ? GetSymbolScope(h) : QString();
    if (c && !sScope.isEmpty() && sContext.startsWith(sScope))
      Distance = (U64)(I64)(CountScopes(sContext) - CountScopes(sScope));
    Ranked.append(qMakePair(Distance, h));
  }
  std::stable_sort(Ranked.begin(), Ranked.end(),
                   [](const QPair<U64, ELF_SYM_HANDLE>& a, const QPair<U64, ELF_SYM_HANDLE>& b) { return a.first < b.first; });
  QList<ELF_SYM_HANDLE> Out;
  for (const auto& r : Ranked) Out.append(r.second);
  return Out;
}

bool ProgramIsCpp() {
  const CExprProgramInfo* p = EXPR_GetProgramInfo();
  return p && p->IsCpp();
}

// A local of the function at the current PC. Without a location in the
// current frame it gives way to a global of the same name.
bool ResolveLocal(const QString& sText, SymPtr& Out) {
  if (!CType::IsValidName(sText)) return false;
  const QList<ELF_SYM_HANDLE> Found = ScopeFilter(FindSymbols(sText, false, true, false, false, true));
  SymPtr s;
  if (!Found.isEmpty()) {
    s = std::make_shared<CSymbol>(Found.first(), -1, 0);
    if (s->IsEmpty()) s.reset();
  }
  static bool s_InMemberLookup = false;
  if (!s && !s_InMemberLookup && ProgramIsCpp() && sText != QLatin1String("this")) {
    // A member of the object of the current method.
    s_InMemberLookup = true;
    SymPtr m = EvaluateSymbol("this->" + sText, s_Scope);
    s_InMemberLookup = false;
    if (m && !m->IsEmpty()) s = m;
  }
  if (!s) return false;
  // The location in the current frame, so that operators read the value.
  if (!s->HasLocation() && s->IsLocal()) s->location = s->GetLocation();
  if (!s->HasLocation() && !ScopeFilter(FindSymbols(sText, true, false, false, true, true)).isEmpty()) return false;
  Out = s;
  return true;
}

bool ResolveGlobal(const QString& sText, SymPtr& Out) {
  if (!CType::IsValidName(sText) && !sText.contains(QLatin1Char('.'))) return false;
  const QList<ELF_SYM_HANDLE> Found = ScopeFilter(FindSymbols(sText, true, false, false, true, true));
  if (Found.isEmpty()) return false;
  const ELF_SYM_HANDLE h = Found.first();
  MEMO& m = Memo();
  auto it = m.globals.constFind(h);
  if (it == m.globals.constEnd()) it = m.globals.insert(h, CSymbol(h, -1, 0));
  Out = std::make_shared<CSymbol>(*it);
  return !Out->IsEmpty();
}

// Enumerator names of the program's enumerations, as constants of their type.
bool ResolveEnumerator(const QString& sText, SymPtr& Out) {
  if (!CType::IsValidName(sText)) return false;
  MEMO& m = Memo();
  if (!m.enumeratorsBuilt) {
    m.enumeratorsBuilt = true;
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    ELF_FILE* f = CElfApi::Instance().GetFile();
    const int n = f ? ELF_GetListCount(f, ELF_LIST_TYPES) : 0;
    for (int i = 0; i < n; ++i) {
      ELF_SYM_HANDLE t = ELF_GetListItem(f, ELF_LIST_TYPES, i);
      for (int k = 0; k < 16 && t && ELF_GetTag(t) == ELF_TAG_TYPEDEF; ++k) t = ELF_GetRefAttr(t, 0x49);
      if (!t || ELF_GetTag(t) != ELF_TAG_ENUM) continue;
      for (ELF_SYM_HANDLE e = ELF_GetFirstChild(t); e; e = ELF_GetNextSibling(e)) {
        if (ELF_GetTag(e) != ELF_TAG_ENUMERATOR) continue;
        std::vector<U8> b;
        I64 v = 0;
        if (ELF_GetConstBlock(e, b)) memcpy(&v, b.data(), b.size() < 8 ? b.size() : 8);
        const QString sName = QString::fromUtf8(ELF_GetName(e));
        if (!sName.isEmpty() && !m.enumerators.contains(sName)) m.enumerators.insert(sName, qMakePair(v, t));
      }
    }
  }
  auto it = m.enumerators.constFind(sText);
  if (it == m.enumerators.constEnd()) return false;
  QString sType;
  U32 Size;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    sType = QString::fromUtf8(ELF_GetTypeName(it->second));
    if (sType.isEmpty()) sType = "enum " + QString::fromUtf8(ELF_GetName(it->second));
    Size = ELF_GetByteSize(it->second);
  }
  auto s = std::make_shared<CSymbol>(it->second, sText, sType, SYM_LOC::Make(SYM_LOC_CONST, (U64)it->first),
                                     Size ? Size : 4, true, 0, nullptr);
  s->data = Le8((U64)it->first);
  s->data.resize((int)s->byteSize);
  Out = s;
  return true;
}

bool ResolveType(const QString& sText, SymPtr& Out) {
  const QList<ELF_SYM_HANDLE> Found =
      CType::IsValidName(sText) ? ScopeFilter(FindSymbols(sText, false, false, true, false, true)) : QList<ELF_SYM_HANDLE>();
  if (!Found.isEmpty()) {
    const ELF_SYM_HANDLE h = Found.first();
    U32 Size = 0;
    bool Signed = false;
    {
      QMutexLocker Lock(&CElfApi::Instance().Mutex());
      Size = ELF_GetSize(h);
      Signed = ELF_IsSigned(h) != 0;
    }
    Out = std::make_shared<CSymbol>(h, sText, sText, SYM_LOC(), Size, Signed, 0, nullptr);
    return true;
  }
  MEMO& m = Memo();
  auto it = m.types.constFind(sText);
  if (it == m.types.constEnd()) it = m.types.insert(sText, CType(sText));
  const CType& t = *it;
  if (t.modifiers.isEmpty() && t.declarators.isEmpty() && t.kind == TYPE_KIND_UNKNOWN) return false;
  if (t.identifier.isEmpty()) return false;
  auto s = std::make_shared<CSymbol>();
  s->name = s->typeName = sText.trimmed();
  s->type = CType(s->typeName);
  s->typeClass = CType::GetClass(s->typeName);
  Out = s;
  return true;
}

SymPtr ResolveLeaf(const QString& sText, int& Status) {
  Status = 0;
  if (sText.isEmpty()) {
    Status = -3;
    return EmptyPtr();
  }
  SymPtr r;
  if (ResolveNumber(sText, r)) return r;
  if (ResolveCommandName(s_ConstantResolver, sText, r)) return r;
  if (ResolveCommandName(s_SysVarResolver, sText, r)) return r;
  if (ResolveMacro(sText, r)) return r;
  if (ResolveLocal(sText, r)) return r;
  if (ResolveGlobal(sText, r)) return r;
  if (ResolveEnumerator(sText, r)) return r;
  if (ResolveType(sText, r)) return r;
  r = EmptyPtr();
  r->name = sText;
  return r;
}

// ---- operators ----------------------------------------------------------------------

// Names of intermediate results are cut at this length, so that a long
// expression costs time and memory linear in its length, not in the sum of
// the lengths of all its partial texts.
constexpr int kMaxResultName = 256;

QString Capped(QString s) {
  if (s.size() > kMaxResultName) {
    s.truncate(kMaxResultName - 3);
    s += QLatin1String("...");
  }
  return s;
}

QString OperandText(CSymbol& s) { return Capped(s.GetFullName()); }
QString Joined(CSymbol& L, const QString& sOp, CSymbol& R) { return Capped(OperandText(L) + sOp + OperandText(R)); }

int Arithmetic(OP_CTX& c, CSymbol& L, CSymbol& R, SymPtr& Out) {
  const U32 Id = c.id;
  bool LeftOk, RightOk;
  switch (Id) {
    case EXPR_OP_ADD: case EXPR_OP_SUB:
      LeftOk = PtrOrPlain(L) || (Id == EXPR_OP_ADD && IsArr(L));
      RightOk = PtrOrPlain(R);
      break;
    case EXPR_OP_MOD:
      LeftOk = PtrOrPlain(L);
      RightOk = IsIntegral(R);
      break;
    default:
      LeftOk = IsPlain(L);
      RightOk = IsPlain(R);
  }
  if (L.IsEmpty() || !LeftOk) return Fail(c, -2, 0);
  if (R.IsEmpty() || !RightOk) return Fail(c, -2, 1);
  int r = ReadOperand(c, L, 0);
  if (r) return r;
  if ((r = ReadOperand(c, R, 1))) return r;
  const bool LInt = IsIntegral(L), RInt = IsIntegral(R);
  bool ok1 = false, ok2 = false;
  I64 li = 0, ri = 0;
  double ld = 0, rd = 0;
  if (LInt) li = L.ReadInteger(&ok1); else ld = L.ReadDouble(&ok1);
  if (!ok1) return Fail(c, -3, 0);
  if (RInt) ri = R.ReadInteger(&ok2); else rd = R.ReadDouble(&ok2);
  if (!ok2) return Fail(c, -3, 1);
  const QString sText = Joined(L, c.text, R);
  if (LInt && RInt) {
    const U64 a = (U64)li, b = (U64)ri;
    U64 v = 0;
    switch (Id) {
      case EXPR_OP_ADD: v = a + b; break;
      case EXPR_OP_SUB: v = a - b; break;
      case EXPR_OP_MUL: v = a * b; break;
      case EXPR_OP_DIV:
        if (ri == 0) v = 0;
        else if (li == INT64_MIN && ri == -1) v = (U64)INT64_MIN;
        else v = (U64)(li / ri);
        break;
      case EXPR_OP_MOD:
        if (ri == 0 || ri == -1) v = 0;
        else v = (U64)(li % ri);
        break;
    }
    const bool Unsigned = !TypeSigned(L) && !TypeSigned(R);
    Out = MakeConst(sText, Unsigned ? 5 : 4, v);
    return 0;
  }
  const double a = LInt ? (double)li : ld, b = RInt ? (double)ri : rd;
  double v = 0;
  switch (Id) {
    case EXPR_OP_ADD: v = a + b; break;
    case EXPR_OP_SUB: v = a - b; break;
    case EXPR_OP_MUL: v = a * b; break;
    case EXPR_OP_DIV: v = (b == 0) ? 0.0 : a / b; break;
    case EXPR_OP_MOD: {
      if (b == 0 || std::isnan(b) || std::isnan(a)) {
        v = 0.0;
        break;
      }
      auto Trunc = [](double d) -> I64 {
        if (!(d > -9.2e18 && d < 9.2e18)) return 0;
        return (I64)d;
      };
      const I64 q = Trunc(a / b), bi = Trunc(b);
      v = a - (double)(I64)((U64)q * (U64)bi);
      break;
    }
  }
  U64 Bits;
  memcpy(&Bits, &v, 8);
  Out = MakeConst(sText, 6, Bits);
  return 0;
}

int PointerAdd(OP_CTX& c, CSymbol& L, CSymbol& R, SymPtr& Out) {
  if (L.IsEmpty() || !(IsPtr(L) || IsArr(L))) return Fail(c, -2, 0);
  if (R.IsEmpty() || !IsIntegral(R)) return Fail(c, -2, 1);
  int r;
  if (!IsArr(L) && (r = ReadOperand(c, L, 0))) return r;
  if ((r = ReadOperand(c, R, 1))) return r;
  bool ok1 = false, ok2 = false;
  I64 Base;
  if (IsArr(L)) ok1 = L.GetAddress(Base);
  else Base = L.ReadInteger(&ok1);
  if (!ok1 || Base < 0) return Fail(c, -3, 0);
  const I64 Right = R.ReadInteger(&ok2);
  if (!ok2 || Right < 0) return Fail(c, -3, 1);
  I64 Elem = -1;
  if (IsArr(L)) Elem = L.arrayInfo.elementBytes ? L.arrayInfo.elementBytes : L.type.GetElementSize();
  else {
    CSymbol& t = L.GetChild(0);
    Elem = t.IsEmpty() ? -1 : (I64)t.GetSize();
    if (Elem == 0) Elem = -1;
  }
  const U64 v = Elem < 0 ? (U64)Base + (U64)Right : (U64)Base + (U64)Right * (U64)Elem;
  const QString sName = Capped("(" + OperandText(L) + "+" + OperandText(R) + ")");
  auto s = std::make_shared<CSymbol>(L);
  s->parent = nullptr;
  s->adoptedParent.clear();
  s->children.clear();
  s->SetName(sName);
  s->data = Le8(v);
  if (IsArr(L)) {
    s->location = SYM_LOC::Make(SYM_LOC_ADDR, v & 0xFFFFFFFFull);
    s->data.clear();
  } else {
    s->location = SYM_LOC::Make(SYM_LOC_CONST, v);
    s->data.resize(4);
  }
  Out = s;
  return 0;
}

int Compare(OP_CTX& c, CSymbol& L, CSymbol& R, SymPtr& Out) {
  if (L.IsEmpty() || !PtrOrPlain(L)) return Fail(c, -2, 0);
  if (R.IsEmpty() || !PtrOrPlain(R)) return Fail(c, -2, 1);
  int r;
  if ((r = ReadOperand(c, L, 0))) return r;
  if ((r = ReadOperand(c, R, 1))) return r;
  const bool And = c.id == EXPR_OP_LOG_AND;
  auto Pair = [&](CSymbol& s, I64& i, double& f, bool& ok) {
    if (IsIntegral(s)) {
      i = s.ReadInteger(&ok);
      f = And ? 1 : 0;
    } else {
      f = s.ReadDouble(&ok);
      i = And ? 1 : 0;
    }
  };
  I64 li, ri;
  double lf, rf;
  bool ok1, ok2;
  Pair(L, li, lf, ok1);
  if (!ok1) return Fail(c, -3, 0);
  Pair(R, ri, rf, ok2);
  if (!ok2) return Fail(c, -3, 1);
  int v = 0;
  const double a = (double)li + lf, b = (double)ri + rf;
  switch (c.id) {
    case EXPR_OP_LOG_AND: v = (li == 0 || lf == 0 || ri == 0 || rf == 0) ? 0 : 1; break;
    case EXPR_OP_LOG_OR: v = (li == 0 && lf == 0 && ri == 0 && rf == 0) ? 0 : 1; break;
    case EXPR_OP_EQ: v = a == b; break;
    case EXPR_OP_NE: v = a != b; break;
    case EXPR_OP_LT: v = a < b; break;
    case EXPR_OP_GT: v = a > b; break;
    case EXPR_OP_LE: v = a <= b; break;
    case EXPR_OP_GE: v = a >= b; break;
  }
  Out = MakeConst(Joined(L, c.text, R), 4, (U64)v);
  return 0;
}

int BitOp(OP_CTX& c, CSymbol& L, CSymbol& R, SymPtr& Out) {
  if (L.IsEmpty() || !IsIntegral(L)) return Fail(c, -2, 0);
  if (R.IsEmpty() || !IsIntegral(R)) return Fail(c, -2, 1);
  int r;
  if ((r = ReadOperand(c, L, 0))) return r;
  if ((r = ReadOperand(c, R, 1))) return r;
  bool ok1, ok2;
  const I64 a = L.ReadInteger(&ok1);
  if (!ok1) return Fail(c, -3, 0);
  const I64 b = R.ReadInteger(&ok2);
  if (!ok2) return Fail(c, -3, 1);
  if ((c.id == EXPR_OP_SHL || c.id == EXPR_OP_SHR) && (b > 31 || b < 0)) return Fail(c, -3, 1);
  U64 v = 0;
  switch (c.id) {
    case EXPR_OP_BIT_AND: v = (U64)a & (U64)b; break;
    case EXPR_OP_BIT_OR: v = (U64)a | (U64)b; break;
    case EXPR_OP_BIT_XOR: v = (U64)a ^ (U64)b; break;
    case EXPR_OP_SHL: v = (U64)a << b; break;
    case EXPR_OP_SHR: v = a < 0 ? ~(~(U64)a >> b) : (U64)a >> b; break;
  }
  const U64 Res = (U64)(I64)(I32)(U32)v;
  Out = MakeConst(Joined(L, c.text, R), TypeSigned(L) ? 4 : 5, Res);
  return 0;
}

int Unary(OP_CTX& c, CSymbol& S, SymPtr& Out) {
  const bool Ok = c.id == EXPR_OP_BIT_NOT ? IsIntegral(S) : PtrOrPlain(S);
  if (S.IsEmpty() || !Ok) return Fail(c, -2, 1);
  int r;
  if ((r = ReadOperand(c, S, 1))) return r;
  const bool Int = IsIntegral(S);
  bool ok;
  I64 i = 0;
  double d = 0;
  if (Int) i = S.ReadInteger(&ok); else d = S.ReadDouble(&ok);
  if (!ok) return Fail(c, -3, 1);
  const QString sText = Capped(c.text + OperandText(S));
  switch (c.id) {
    case EXPR_OP_BIT_NOT: Out = MakeConst(sText, 5, ~(U64)(Int ? i : 0)); return 0;
    case EXPR_OP_LOG_NOT: Out = MakeConst(sText, 4, Int ? (i == 0) : (d == 0)); return 0;
    case EXPR_OP_PLUS:
      if (Int) Out = MakeConst(sText, TypeSigned(S) ? 4 : 5, (U64)i);
      else {
        U64 b;
        memcpy(&b, &d, 8);
        Out = MakeConst(sText, 6, b);
      }
      return 0;
    default:  // unary minus
      if (Int) Out = MakeConst(sText, 4, 0 - (U64)i);
      else {
        U64 b;
        memcpy(&b, &d, 8);
        Out = MakeConst(sText, 6, b ^ 0x8000000000000000ull);
      }
      return 0;
  }
}

int SizeOf(OP_CTX& c, CSymbol& S, SymPtr& Out) {
  if (S.IsEmpty()) return Fail(c, -2, 1);
  const U32 Size = (S.type.kind != TYPE_KIND_UNKNOWN || S.type.identifier.isEmpty()) && !S.handle
                       ? (U32)S.type.size
                       : S.GetSize();
  Out = MakeConst(Capped("sizeof(" + OperandText(S) + ")"), 3, Size, 4);
  Out->byteSize = 4;
  return 0;
}

int AddressOf(OP_CTX& c, CSymbol& S, SymPtr& Out) {
  if (S.IsEmpty()) return Fail(c, -2, 1);
  I64 a;
  if (!S.GetAddress(a)) return Fail(c, S.HasLocation() ? -3 : -4, 1);
  auto s = std::make_shared<CSymbol>((ELF_SYM_HANDLE)0, Capped("@" + OperandText(S)), S.typeName + "*",
                                     SYM_LOC::Make(SYM_LOC_CONST, (U64)a), 4, false, 0, nullptr);
  s->data = Le8((U64)a);
  s->data.resize(4);
  auto Child = std::make_unique<CSymbol>(S);
  // The operand keeps its place: it now reads at the value of its new parent.
  Child->location = SYM_LOC::Make(SYM_LOC_PARENT_VALUE, 0, 0);
  Child->parent = s.get();
  Child->adoptedParent.clear();
  Child->isDetached = 0;
  s->children[0] = std::move(Child);
  s->memberCount = 1;
  s->typeClass = 128;
  Out = s;
  return 0;
}

int Deref(OP_CTX& c, CSymbol& S, SymPtr& Out) {
  if (S.IsEmpty() || !(IsPtr(S) || IsArr(S))) return Fail(c, -2, 1);
  if (S.IsPointer()) {
    int r = ReadOperand(c, S, 0);
    if (r) return r;
    bool ok;
    if (S.ReadSigned(&ok) == 0) return Fail(c, -3, 0);
  }
  CSymbol& Child = S.GetChild(0);
  if (Child.IsEmpty()) return Fail(c, -3, 0);
  Out = Own(&Child);
  return 0;
}

int Index(OP_CTX& c, CSymbol& L, CSymbol& R, SymPtr& Out) {
  if (L.IsEmpty() || !(IsPtr(L) || IsArr(L))) return Fail(c, -2, 0);
  if (R.IsEmpty() || !IsIntegral(R)) return Fail(c, -2, 1);
  int r;
  if ((r = ReadOperand(c, R, 1))) return r;
  bool ok;
  const U64 Idx = R.ReadUnsigned(&ok, true);
  if (!ok) return Fail(c, -3, 1);
  if (L.IsPointer()) {
    if ((r = ReadOperand(c, L, 0))) return r;
    bool ok2;
    if (L.ReadSigned(&ok2) == 0) return Fail(c, -3, 0);
  }
  if (Idx > 0x7FFFFFFF) return Fail(c, -3, 1);
  if (L.arrayInfo.dimensionCount > 1) {
    // One dimension less: a sub-array at its address.
    ELF_ARRAY_INFO Info = L.arrayInfo;
    U32 Count = 1;
    for (U32 d = 1; d < Info.dimensionCount && d < 10; ++d) Count *= Info.dimensions[d] ? Info.dimensions[d] : 1;
    if (Idx >= (Info.dimensions[0] ? Info.dimensions[0] : 1)) return Fail(c, -1, 1);
    ELF_ARRAY_INFO Sub{};
    Sub.dimensionCount = Info.dimensionCount - 1;
    for (U32 d = 0; d < Sub.dimensionCount && d < 9; ++d) Sub.dimensions[d] = Info.dimensions[d + 1];
    Sub.elementBytes = Info.elementBytes;
    Sub.elementCount = Count;
    Sub.total = Count * Info.elementBytes;
    I64 Base;
    const SYM_LOC Loc = L.GetLocation();
    if (Loc.count && Loc.parts[0].kind == SYM_LOC_ADDR) Base = (I64)Loc.parts[0].address;
    else if (!L.GetAddress(Base)) return Fail(c, -4, 0);
    const U64 Address = (U64)Base + Idx * Info.elementBytes * Count;
    QString sType = L.typeName;
    const int b = sType.indexOf(QLatin1Char('[')), e = sType.indexOf(QLatin1Char(']'), b + 1);
    if (b >= 0 && e > b) sType.remove(b, e - b + 1);
    auto s = std::make_shared<CSymbol>(L.handle, L.GetDisplayName() + QString("[%1]").arg(Idx), sType,
                                       SYM_LOC::Make(SYM_LOC_ADDR, Address & 0xFFFFFFFFull), 4, L.isSigned, 0, nullptr);
    Sub.elementCount = Sub.elementCount > (U32)SYM_Prefs().maxSymbolMembers ? (U32)SYM_Prefs().maxSymbolMembers : Sub.elementCount;
    s->arrayInfo = Sub;
    s->memberCount = (I32)Sub.elementCount;
    s->baseClassCount = 0;
    s->byteSize = 4;
    s->typeClass = 1;
    s->isFixedLocation = 1;
    s->fullName = Capped(L.GetFullName() + QString("[%1]").arg(Idx));
    Out = s;
    return 0;
  }
  CSymbol& Child = L.GetChild((int)Idx);
  if (Child.IsEmpty()) return Fail(c, -3, 1);
  Out = Own(&Child);
  return 0;
}

int Member(OP_CTX& c, CSymbol& L, CSymbol& R, SymPtr& Out) {
  const bool Arrow = c.id == EXPR_OP_ARROW;
  bool LeftOk;
  if (Arrow) LeftOk = L.type.kind == TYPE_KIND_UNKNOWN && !L.type.identifier.isEmpty() && L.type.declarators.size() == 1 && L.type.IsPointer();
  else LeftOk = L.type.kind == TYPE_KIND_UNKNOWN && !L.type.identifier.isEmpty() && L.type.declarators.isEmpty();
  if (L.IsEmpty() || !LeftOk) return Fail(c, -2, 0);
  if (R.IsEmpty() || !IsValidName(R)) return Fail(c, -2, 1);
  CSymbol* p = &L;
  if (Arrow || L.IsReference()) {
    if (ReadOperand(c, L, 0)) L.data.clear();
    c.errorSide = 0;
  }
  if (Arrow) {
    p = &L.GetChild(0);
    if (p->IsEmpty()) return Fail(c, -3, 1);
  }
  CSymbol& Res = p->FindMember(R.GetDisplayName());
  if (Res.IsEmpty()) return Fail(c, -3, 1);
  Out = Own(&Res);
  return 0;
}

int Cast(OP_CTX& c, CSymbol& L, CSymbol& R, SymPtr& Out) {
  if (L.IsEmpty() || !(L.type.IsPointer() || L.type.IsArray())) return Fail(c, -2, 0);
  const bool RightStruct = R.type.kind == TYPE_KIND_UNKNOWN && !R.type.identifier.isEmpty() && !R.type.IsPointer() && !R.type.IsArray();
  if (R.IsEmpty() || !(IsIntegral(R) || RightStruct)) return Fail(c, -2, 1);
  SYM_LOC Loc;
  if (RightStruct) {
    I64 a;
    if (!R.GetAddress(a)) return Fail(c, -3, 1);
    Loc = SYM_LOC::Make(SYM_LOC_ADDR, (U64)a);
  } else {
    int r = ReadOperand(c, R, 1);
    if (r) return r;
    bool ok;
    U64 v = R.ReadUnsigned(&ok, true);
    if (!ok) v = 0;
    Loc = SYM_LOC::Make(SYM_LOC_ADDR, v & 0xFFFFFFFFull);
  }
  if (L.type.IsPointer()) {
    QString t = L.typeName.trimmed();
    const int Star = t.lastIndexOf(QLatin1Char('*'));
    if (Star >= 0) t = t.left(Star).trimmed();
    CType Target(t);
    Target.StripTypeKeywords();
    const QList<ELF_SYM_HANDLE> Found = CType::IsValidName(Target.identifier)
                                            ? FindSymbols(Target.identifier, false, false, true, false, true)
                                            : QList<ELF_SYM_HANDLE>();
    ELF_SYM_HANDLE h = 0;
    for (ELF_SYM_HANDLE f : Found) {
      h = f;
      break;
    }
    if (CType(t).IsPlain() || CType(t).IsPointer()) h = 0;
    U32 Size;
    if (h) {
      QMutexLocker Lock(&CElfApi::Instance().Mutex());
      Size = ELF_GetSize(h);
    } else {
      const CType ct(t);
      Size = (U32)(ct.size ? ct.size : CType::ClassSize(CType::GetClass(t)));
    }
    CSymbol s(h, "[0]", t, Loc, Size, CType(t).IsSigned(), 0, nullptr);
    s.isFixedLocation = 1;
    // The cast value is a pointer that dereferences to s.
    auto p = std::make_shared<CSymbol>((ELF_SYM_HANDLE)0, Capped("(" + L.typeName + ")" + OperandText(R)), L.typeName,
                                       SYM_LOC::Make(SYM_LOC_CONST, Loc.parts[0].address), 4, false, 0, nullptr);
    p->typeClass = 128;
    p->memberCount = 1;
    p->data = Le8(Loc.parts[0].address);
    p->data.resize(4);
    auto Child = std::make_unique<CSymbol>(s);
    Child->location = SYM_LOC::Make(SYM_LOC_PARENT_VALUE, 0, 0);
    Child->parent = p.get();
    p->children[0] = std::move(Child);
    Out = p;
    return 0;
  }
  auto s = std::make_shared<CSymbol>(L.type, Loc);
  Out = s;
  return 0;
}

int Scope(OP_CTX& c, CSymbol& L, CSymbol& R, SymPtr& Out) {
  if (L.IsEmpty() || L.type.kind != TYPE_KIND_UNKNOWN || L.GetDisplayName().isEmpty()) return Fail(c, -2, 0);
  if (R.IsEmpty() || !IsValidName(R)) return Fail(c, -2, 1);
  ELF_SYM_HANDLE s = 0;
  if (L.userData.toInt() == 1) {
    s = L.handle;
  } else {
    const QList<ELF_SYM_HANDLE> Found = FindSymbols(L.GetDisplayName(), true, false, true, false, true);
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    for (ELF_SYM_HANDLE h : Found) {
      const U32 Tag = ELF_GetTag(h);
      if (Tag == ELF_TAG_COMPILE_UNIT || Tag == ELF_TAG_NAMESPACE || Tag == ELF_TAG_CLASS || Tag == ELF_TAG_STRUCT ||
          Tag == ELF_TAG_SUBPROGRAM) {
        s = h;
        break;
      }
    }
    if (!s && !Found.isEmpty()) s = Found.first();
  }
  if (!s) return -1;
  QString Full;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    if (ELF_GetTag(s) == ELF_TAG_COMPILE_UNIT) {
      Full = QString::fromUtf8(ELF_GetName(s));
      Full = Full.mid(Full.lastIndexOf(QLatin1Char('/')) + 1);
    }
  }
  if (Full.isEmpty()) Full = GetQualifiedName(s, 1);
  Full += "::" + R.GetDisplayName();
  for (ELF_SYM_HANDLE h : FindSymbols(R.GetDisplayName(), true, true, true, true, true)) {
    if (GetQualifiedName(h, 1) == Full) {
      auto r = std::make_shared<CSymbol>(h, -1, 0);
      r->userData = 1;
      r->fullName = Full;
      Out = r;
      return 0;
    }
  }
  return -1;
}

QString ErrorWords(int Code, int Side, CSymbol* pOperand) {
  const char* s = Side ? "right" : "left";
  switch (Code) {
    case -2:
      return QString("%1 operand has invalid type \"%2\"").arg(s, pOperand ? pOperand->GetTypeText() : QString());
    case -3: {
      bool ok = false;
      const I64 v = pOperand ? pOperand->ReadSigned(&ok) : 0;
      return QString("%1 operand has invalid value %2 (%3)").arg(s, QString::number(v), "0x" + QString::number((U64)v, 16).toUpper());
    }
    case -4: return QString("%1 operand has invalid data location").arg(s);
    case -5: return QString("%1 operand value could not be read from target hardware").arg(s);
    default: return "unknown error";
  }
}

int ApplyOperator(CExpression& e, CExprNode& n, OP_CTX& c) {
  SymPtr EmptyL = EmptyPtr(), EmptyR = EmptyPtr();
  CSymbol& L = n.left && n.left->result ? *n.left->result : *EmptyL;
  CSymbol& R = n.right && n.right->result ? *n.right->result : *EmptyR;
  SymPtr Out;
  int r;
  switch (c.id) {
    case EXPR_OP_INDEX: r = Index(c, L, R, Out); break;
    case EXPR_OP_ARROW: case EXPR_OP_MEMBER: r = Member(c, L, R, Out); break;
    case EXPR_OP_DEREF: r = Deref(c, L, Out); break;
    case EXPR_OP_ADDR_OF: r = AddressOf(c, L, Out); break;
    case EXPR_OP_ADD:
      r = (IsPtr(L) || IsArr(L)) ? PointerAdd(c, L, R, Out) : Arithmetic(c, L, R, Out);
      break;
    case EXPR_OP_SUB: case EXPR_OP_MUL: case EXPR_OP_DIV: case EXPR_OP_MOD: r = Arithmetic(c, L, R, Out); break;
    case EXPR_OP_LOG_AND: case EXPR_OP_LOG_OR: case EXPR_OP_EQ: case EXPR_OP_NE: case EXPR_OP_LT: case EXPR_OP_GT:
    case EXPR_OP_LE: case EXPR_OP_GE:
      r = Compare(c, L, R, Out);
      break;
    case EXPR_OP_BIT_AND: case EXPR_OP_BIT_OR: case EXPR_OP_BIT_XOR: case EXPR_OP_SHL: case EXPR_OP_SHR:
      r = BitOp(c, L, R, Out);
      break;
    case EXPR_OP_BIT_NOT: case EXPR_OP_LOG_NOT: case EXPR_OP_PLUS: case EXPR_OP_NEG: r = Unary(c, L, Out); break;
    case EXPR_OP_SIZEOF: r = SizeOf(c, L, Out); break;
    case EXPR_OP_CAST: r = Cast(c, L, R, Out); break;
    case EXPR_OP_SCOPE: r = Scope(c, L, R, Out); break;
    default: r = -1;
  }
  if (r == 0 && Out) {
    n.result = Out;
    return 0;
  }
  n.result = EmptyPtr();
  if (r == 0) return 0;
  // The failed node keeps the text it stands for, so that callers can name it.
  n.result->name = c.isBinary ? Joined(L, c.text, R) : Capped(c.text + OperandText(L));
  if (e.errorText.isEmpty()) {
    // Unary operators keep their operand on the left of the tree.
    CSymbol* pOperand = c.errorSide ? (c.isBinary ? &R : &L) : &L;
    e.errorText = "Error evaluating operator " + c.text + " : " + ErrorWords(r, c.errorSide, pOperand);
  }
  return r == -2 || r == -3 || r == -4 ? -3 : r == -5 ? -4 : -1;
}

}  // namespace

void EXPR_SetConstantResolver(const EXPR_NAME_RESOLVER& Resolver) { s_ConstantResolver = Resolver; }
void EXPR_SetSysVarResolver(const EXPR_NAME_RESOLVER& Resolver) { s_SysVarResolver = Resolver; }

std::shared_ptr<CSymbol> GetResult(const CExpression& Expression) {
  CExprNode* p = Expression.GetTree();
  if (!p || !p->result) return std::make_shared<CSymbol>();
  return p->result;
}

// A leaf that is a local (or "this") held in a register makes the
// expression depend on the registers of the frame.
static bool LeafUsesRegister(CSymbol& s) {
  if (s.IsEmpty() || s.IsFunction()) return false;
  CSymbol* r = s.GetRoot();
  if (!r || !(r->name == QLatin1String("this") || r->IsLocal())) return false;
  const SYM_LOC l = s.GetLocation();
  return l.count && l.IsRegister();
}

int Evaluate(CExpression& e, const CSrcLoc& Scope) {
  e.scope = Scope;
  // Nested evaluations (macros, "this->") keep the outer scope afterwards.
  struct SCOPE_GUARD {
    CSrcLoc saved;
    ~SCOPE_GUARD() { s_Scope = saved; }
  } Guard{s_Scope};
  s_Scope = Scope;
  if (!e.GetTree()) {
    if (e.GetStatus() == EXPR_ERR_SYNTAX && !e.GetError().isEmpty()) return EXPR_ERR_SYNTAX;  // parse failed
    const int r = e.BuildTree();
    if (r || !e.GetTree()) {
      e.status = 0;
      e.SetStatus(EXPR_ERR_SYNTAX);
      return EXPR_ERR_SYNTAX;
    }
  }
  e.errorText.clear();
  e.reads.clear();
  e.usesRegister = 0;
  CheckProgramIdentity();
  int Status = 0;
  const int r = EXPR_VisitPostOrder(e.GetTree(), [&](CExprNode& n) -> int {
    if (n.IsLeaf()) {
      int s = 0;
      n.result = ResolveLeaf(n.text, s);
      if (!s && n.result && LeafUsesRegister(*n.result)) e.usesRegister = 1;
      return s;
    }
    OP_CTX c;
    c.id = n.op ? n.op->id : 0;
    c.isBinary = n.op ? n.op->isBinary : 0;
    c.text = n.op ? QString::fromUtf8(n.op->text) : n.text;
    c.reads = &e.reads;
    c.snapshot = &e.snapshot;
    const int r = ApplyOperator(e, n, c);
    // The operands' results are no longer needed: the node's own result owns
    // what it refers to. Only the root keeps a result.
    if (n.left) n.left->result.reset();
    if (n.right) n.right->result.reset();
    return r;
  });
  Status = r;
  if (Status) {
    e.status = 0;
    e.SetStatus(Status);
    return Status;
  }
  CSymbol& Res = *GetResult(e);
  if (Res.IsEmpty()) {
    e.status = 0;
    e.SetStatus(-1);
    return -1;
  }
  const U32 Size = Res.IsArray() ? Res.arrayInfo.total : Res.byteSize;
  if (Size) {
    if (!Res.HasLocation() && Res.IsLocal()) Res.location = Res.GetLocation();
    if (Res.HasLocation() && !Res.location.IsConst()) {
      const U32 Total = Res.GetSize();
      const SYM_LOC l = Res.GetLocation();
      I64 Address = -1;
      if (l.IsMemory() && l.IsResolved()) Address = (I64)l.parts[0].address;
      else Res.GetAddress(Address);
      if (Total == 0) {
        e.status = 0;
        e.SetStatus(-4);
        return -4;
      }
      if (Address >= 0) e.reads.append(CAddrRange((U32)Address, Total));
      int lr = Res.LoadFromBlock(Address, Total, &e.snapshot);
      if (lr == -1 || lr == -2) lr = -4;
      if (lr) {
        e.status = 0;
        e.SetStatus(lr);
        return lr;
      }
    }
  }
  e.status = 0;
  e.errorText.clear();
  return Res.ValueBytes().size();
}

std::shared_ptr<CSymbol> EvaluateSymbol(const QString& sText, const CSrcLoc& Scope) {
  CExpression e(sText);
  if (e.GetStatus() < 0 || Evaluate(e, Scope) < 0) return std::make_shared<CSymbol>();
  return GetResult(e);
}

QStringList EXPR_GetValueBlock(CExpression& e, int Result) {
  CSymbol& s = *GetResult(e);
  QStringList Lines;
  double d = 0;
  const QByteArray& b = s.ValueBytes();
  if (s.IsArray()) {
    d = (double)s.GetAddress();
  } else if (s.byteSize >= 8 && b.size() >= 8) {
    U64 v = 0;
    for (int i = 7; i >= 0; --i) v = (v << 8) | (U8)b[i];
    memcpy(&d, &v, 8);
  } else if (s.byteSize >= 4 && b.size() >= 4) {
    U32 v = 0;
    for (int i = 3; i >= 0; --i) v = (v << 8) | (U8)b[i];
    float f;
    memcpy(&f, &v, 4);
    d = f;
  }
  bool ok;
  const I64 v = s.ReadSigned(&ok);
  QStringList Hex;
  for (char c : b) Hex << QString("%1").arg((U8)c, 2, 16, QLatin1Char('0')).toUpper();
  Lines << "value as double: " + QString::number(d, 'g', 17);
  Lines << "value as dec int: " + QString::number(v);
  Lines << "value as hex int: 0x" + QString::number((U64)v, 16).toUpper();
  Lines << "value bytes: " + Hex.join(' ');
  Lines << "data location: " + s.GetLocationText(true);
  Lines << "data type: " + s.GetTypeText();
  if (Result < 1) {
    Lines << "error code: " + QString::number(Result);
    Lines << "error: " + e.GetError();
  } else {
    Lines << "byte size: " + QString::number(Result);
  }
  return Lines;
}

QStringList EXPR_GetFramedValueBlock(const QString& sText, CExpression& e, int Result) {
  const QString sDashes(40, QLatin1Char('-'));
  QStringList Lines;
  Lines << sDashes << sText << sDashes << EXPR_GetValueBlock(e, Result) << sDashes;
  return Lines;
}
