// Entry queries by handle: tree, attributes, types, names, members, extents.
#include "elf/dwarf/dwarf_internal.h"
#include "elf/elf_file.h"

#include <algorithm>
#include <string.h>

namespace dwarf_internal {
dwb::Die GetDieOf(DW_CTX* c, U32 key);
U32 TagOfKey(DW_CTX* c, U32 key);
ELF_DIE_INFO* InfoOf(DW_CTX* c, U32 key);
ELF_DIE_EXTRA* ExtraOf(DW_CTX* c, U32 key);
bool Attr(DW_CTX* c, U32 key, U32 code, dwb::AttrValue* v);
U64 AttrNumber(DW_CTX* c, U32 key, U32 code, bool* pFound);
bool HasOwnAttr(DW_CTX* c, U32 key, U32 code);
U32 RefAttr(DW_CTX* c, U32 key, U32 code);
U32 InheritedOwner(DW_CTX* c, U32 key, U32 code);
const DW_UNIT* UnitOf(DW_CTX* c, U32 key);
bool StaticAddr(DW_CTX* c, U32 key, U32* pAddr);
U32 KeyOfDie(dwb::Die d);
} // namespace dwarf_internal
using namespace dwarf_internal;

namespace {

enum : U32 {
  AT_LOCATION = 2, AT_BYTE_SIZE = 11, AT_BIT_OFFSET = 12, AT_BIT_SIZE = 13, AT_LOW_PC = 17, AT_HIGH_PC = 18,
  AT_CONST_VALUE = 28, AT_LOWER_BOUND = 34, AT_UPPER_BOUND = 47, AT_ABSTRACT_ORIGIN = 49, AT_ACCESSIBILITY = 50,
  AT_ARTIFICIAL = 52, AT_COUNT = 55, AT_DATA_MEMBER_LOCATION = 56, AT_DECLARATION = 60, AT_ENCODING = 62,
  AT_SPECIFICATION = 71, AT_TYPE = 73, AT_VIRTUALITY = 76, AT_RANGES = 85, AT_OBJECT_POINTER = 100,
  AT_DATA_BIT_OFFSET = 107,
};

struct Ref {
  ELF_FILE* f = nullptr;
  DW_CTX* c = nullptr;
  U32 key = 0;
  explicit operator bool() const { return c && key; }
};

Ref Decode(ELF_SYM_HANDLE h) {
  Ref r;
  if ((h & 0xFFFFFF0000000000ull) != ELF_HANDLE_TAG || ((h >> 32) & 7) != 1) return r;
  const U32 slot = (U32)(h >> 35) & 7;
  if (slot >= ELF_MAX_FILES) return r;
  ELF_FILE* f = elf_internal::g_aSlots[slot];
  DW_CTX* c = DwCtx(f);
  if (!c || !(U32)h) return r;
  if (!GetDieOf(c, (U32)h)) return r;
  r.f = f;
  r.c = c;
  r.key = (U32)h;
  return r;
}

ELF_SYM_HANDLE H(const Ref& r, U32 key) { return key ? ELF_MakeDieHandle(r.f, key) : 0; }

bool Has(const Ref& r, U32 key, U32 code) { return HasOwnAttr(r.c, key, code); }
U64 Num(const Ref& r, U32 key, U32 code, bool* found) { return AttrNumber(r.c, key, code, found); }
U32 Tag(const Ref& r, U32 key) { return TagOfKey(r.c, key); }
const char* OwnName(const Ref& r, U32 key) {
  dwb::Die d = GetDieOf(r.c, key);
  return d ? dwb::Name(d) : nullptr;
}

bool IsTypeTagK(U32 t) {
  switch (t) {
  case ELF_TAG_BASE_TYPE: case ELF_TAG_ARRAY: case ELF_TAG_CLASS: case ELF_TAG_STRUCT: case ELF_TAG_ENUM:
  case ELF_TAG_UNION: case ELF_TAG_PTR_TO_MEMBER: case ELF_TAG_POINTER: case ELF_TAG_REFERENCE:
  case ELF_TAG_SUBPROGRAM:
    return true;
  default:
    return false;
  }
}

U32 DefinitionKey(const Ref& r, U32 key);

U32 DefOrSelf(const Ref& r, U32 key) {
  const U32 d = DefinitionKey(r, key);
  return d ? d : key;
}

U32 DefinitionKey(const Ref& r, U32 key) {
  if (!Has(r, key, AT_DECLARATION) && Has(r, key, AT_BYTE_SIZE)) return 0;
  ELF_DIE_INFO* i = InfoOf(r.c, key);
  if (i && i->definition) return i->definition;
  // A type unit stub names its type by signature.
  if (const U32 sig = RefAttr(r.c, key, 105 /* DW_AT_signature */)) return sig;
  const char* n = OwnName(r, key);
  if (!n) return 0;
  U64 v;
  if (!r.c->nameIndex.Find(ELF_HashName(n), &v)) return 0;
  const U32 k = (U32)v;
  if (k == key || Has(r, k, AT_DECLARATION)) return 0;
  // Only a type of the same kind stands in for a declared one.
  if (Tag(r, k) != Tag(r, key)) return 0;
  return k;
}

U32 TypeKey(const Ref& r, U32 key, bool skipSelf) {
  if (skipSelf && IsTypeTagK(Tag(r, key))) return DefOrSelf(r, key);
  U32 cur = key;
  for (int i = 0; i < 64; ++i) {
    const U32 t = RefAttr(r.c, cur, AT_TYPE);
    if (!t) return 0;
    if (IsTypeTagK(Tag(r, t))) return DefOrSelf(r, t);
    cur = t;
  }
  return 0;
}

U32 SizeOf(const Ref& r, U32 key, int depth = 0);

U32 SubrangeCount(const Ref& r, U32 key) {
  bool f;
  const U64 n = Num(r, key, AT_COUNT, &f);
  if (f) return (U32)n;
  bool fu, fl;
  const U64 up = Num(r, key, AT_UPPER_BOUND, &fu);
  if (!fu) return 1;
  const U64 lo = Num(r, key, AT_LOWER_BOUND, &fl);
  return (U32)(up - (fl ? lo : 0) + 1);
}

ELF_ARRAY_INFO ArrayInfo(const Ref& r, U32 key, int depth) {
  ELF_ARRAY_INFO a{};
  if (Tag(r, key) != ELF_TAG_ARRAY) return a;
  U64 count = 1;
  dwb::Die d = GetDieOf(r.c, key);
  dwb::Die ch = d && dwb::HasChildren(d) ? dwb::Child(r.c->s, d) : nullptr;
  bool any = false;
  for (int n = 0; ch && n < 100; ++n) {
    const U32 k = KeyOfDie(ch);
    if (dwb::Tag(ch) == ELF_TAG_SUBRANGE) {
      dwb::FreeDie(r.c->s, ch);
      ch = nullptr;
      const U32 cnt = SubrangeCount(r, k);
      count *= cnt;
      if (a.dimensionCount < 10) a.dimensions[a.dimensionCount] = cnt;
      ++a.dimensionCount;
      any = true;
      dwb::Die kd = GetDieOf(r.c, k);
      ch = kd ? dwb::Sibling(r.c->s, kd, dwb::IsInfo(kd)) : nullptr;
      continue;
    }
    dwb::Die next = dwb::Sibling(r.c->s, ch, dwb::IsInfo(ch));
    dwb::FreeDie(r.c->s, ch);
    ch = next;
  }
  if (ch) dwb::FreeDie(r.c->s, ch);
  if (!any) count = 0;
  const U32 et = RefAttr(r.c, key, AT_TYPE);
  a.elementBytes = et ? SizeOf(r, et, depth + 1) : 0;
  a.elementCount = (U32)count;
  a.total = (U32)(a.elementBytes * count);
  if (a.dimensionCount > 10) a.dimensionCount = 10;
  return a;
}

U32 ByteSize(const Ref& r, U32 key, int depth = 0) {
  const U32 t = Tag(r, key);
  if (t == ELF_TAG_POINTER) {
    const DW_UNIT* u = UnitOf(r.c, key);
    return u ? u->addrSize : 4;
  }
  if (t == ELF_TAG_ARRAY) return depth < 16 ? ArrayInfo(r, key, depth).total : 0;
  bool f;
  const U64 b = Num(r, key, AT_BYTE_SIZE, &f);
  if (f) return (U32)b;
  const U64 bits = Num(r, key, AT_BIT_SIZE, &f);
  return f ? (U32)(bits / 8) : 0;
}

std::vector<ELF_RANGE> Ranges(const Ref& r, U32 key) {
  std::vector<ELF_RANGE> out;
  dwb::AttrValue v;
  if (Attr(r.c, key, AT_RANGES, &v) && (v.cls == dwb::AC_SECOFF || v.cls == dwb::AC_UNSIGNED)) {
    const DW_UNIT* u = UnitOf(r.c, key);
    std::vector<std::pair<U64, U64>> raw;
    dwb::Die d = GetDieOf(r.c, key);
    if (d && dwb::GetRanges(r.c->s, d, u ? u->lowPc : 0, raw)) {
      for (auto& p : raw) {
        if (p.second == 0 || p.second < p.first) continue;
        out.push_back({(U32)p.first, (U32)p.second, 0});
      }
    }
    return out;
  }
  dwb::AttrValue lo, hi;
  const bool hasLo = Attr(r.c, key, AT_LOW_PC, &lo) && lo.cls != dwb::AC_NONE;
  const bool hasHi = Attr(r.c, key, AT_HIGH_PC, &hi) && hi.cls != dwb::AC_NONE;
  if (!hasLo && !hasHi) return out;
  ELF_RANGE rg{hasLo ? (U32)lo.u : 0xFFFFFFFFu, 0, 0};
  if (hasHi) rg.end = hi.cls == dwb::AC_ADDR ? (U32)hi.u : (U32)(rg.start + hi.u);
  out.push_back(rg);
  return out;
}

U32 SizeOf(const Ref& r, U32 key, int depth) {
  // Code entries measure by their ranges; their DW_AT_type is a return type.
  const U32 tag = Tag(r, key);
  const bool code = tag == ELF_TAG_SUBPROGRAM || tag == ELF_TAG_INLINED || tag == ELF_TAG_COMPILE_UNIT || tag == 11;
  U32 cur = code ? 0 : key;
  // A chain that comes back to an entry has no size: without this stop, an
  // array whose element type leads back to it would be measured again at
  // every step of every level, exponentially.
  U32 seen[64];
  for (int i = 0; cur && i < 64 && depth < 16; ++i) {
    if (std::find(seen, seen + i, cur) != seen + i) break;
    seen[i] = cur;
    const U32 s = ByteSize(r, cur, depth);
    if (s) return s;
    const U32 next = RefAttr(r.c, cur, AT_TYPE);
    if (!next) break;
    cur = DefOrSelf(r, next);
  }
  const auto rs = Ranges(r, key);
  if (rs.empty()) return 0;
  U32 lo = 0xFFFFFFFFu, hi = 0;
  for (auto& x : rs) {
    lo = std::min(lo, x.start);
    hi = std::max(hi, x.end);
  }
  if (hi <= lo) return 0;
  const U32 size = hi - lo;
  if (size > ELF_SIZE_SANITY_LIMIT && Tag(r, key) != ELF_TAG_COMPILE_UNIT) {
    ELF_ReportLine("Symbol at %X: did not pass allocation size sanity check", lo);
    return 0;
  }
  return size;
}

// Ancestor search through parent, specification and abstract origin. The
// budget bounds the walk when malformed references form cycles.
U32 FindAncestor(const Ref& r, U32 key, U32 tag, int depth, int* pBudget) {
  if (!key || --*pBudget < 0) return 0;
  if (depth >= 1000) {
    ELF_ReportLogged(101);
    return 0;
  }
  if (Tag(r, key) == tag) return key;
  ELF_DIE_INFO* i = InfoOf(r.c, key);
  if (i && i->parent) {
    const U32 a = FindAncestor(r, i->parent, tag, depth + 1, pBudget);
    if (a) return a;
  }
  if (i && i->specification) {
    const U32 a = FindAncestor(r, i->specification, tag, depth + 1, pBudget);
    if (a) return a;
  }
  const U32 o = RefAttr(r.c, key, AT_ABSTRACT_ORIGIN);
  return o ? FindAncestor(r, o, tag, depth + 1, pBudget) : 0;
}

char g_acName[512];

const char* NameOf(const Ref& r, U32 key, int depth) {
  if (depth >= 5 || !key) return nullptr;
  const char* n = OwnName(r, key);
  if (n) {
    strncpy(g_acName, n, 511);
    g_acName[511] = 0;
    if (Tag(r, key) == ELF_TAG_BASE_TYPE) ELF_ShortenTypeName(g_acName);
    return g_acName;
  }
  const U32 o = RefAttr(r.c, key, AT_ABSTRACT_ORIGIN);
  if (o && o != key) {
    if (const char* x = NameOf(r, o, depth + 1)) return x;
  }
  ELF_DIE_INFO* i = InfoOf(r.c, key);
  if (i && i->specification && i->specification != key) {
    if (const char* x = NameOf(r, i->specification, depth + 1)) return x;
  }
  const U32 d = DefinitionKey(r, key);
  if (d && d != key) return NameOf(r, d, depth + 2);
  return nullptr;
}

std::string NameText(const Ref& r, U32 key) {
  const char* n = NameOf(r, key, 0);
  return n ? std::string(n) : std::string();
}

// Parameter types of a function or subroutine type, artificial ones skipped.
std::string ParamList(const Ref& r, U32 key, int depth);

bool IsStaticStorage(const Ref& r, U32 key) {
  if (Tag(r, key) != ELF_TAG_VARIABLE) return false;
  ELF_DIE_INFO* i = InfoOf(r.c, key);
  if (!i || !i->parent) return false;
  const U32 pt = Tag(r, i->parent);
  if (pt != ELF_TAG_SUBPROGRAM && pt != ELF_TAG_INLINED && pt != 11 /* lexical block */) return false;
  return StaticAddr(r.c, key, nullptr);
}

std::string TypeNameOf(const Ref& r, U32 key, int depth) {
  if (depth > 4) return std::string();
  ELF_DIE_EXTRA* x = ExtraOf(r.c, key);
  if (x && x->typeNameDone) return x->qualifiedTypeName;
  std::string text, typedefName, qualifier;
  U32 cur = key;
  for (int step = 0; cur && step < 25; ++step) {
    U32 t = Tag(r, cur);
    if (t == ELF_TAG_CLASS || t == ELF_TAG_STRUCT || t == ELF_TAG_UNION || t == ELF_TAG_ENUM) {
      // A declaration or type unit stub stands for its definition.
      cur = DefOrSelf(r, cur);
      t = Tag(r, cur);
    }
    bool stop = false;
    switch (t) {
    case ELF_TAG_ARRAY: {
      ELF_ARRAY_INFO a = ArrayInfo(r, cur, 0);
      std::string dims = "[";
      for (U32 i = 0; i < a.dimensionCount; ++i) {
        if (i) dims += "][";
        dims += std::to_string(a.dimensions[i]);
      }
      text = dims + "]" + text;
      break;
    }
    case ELF_TAG_CLASS:
    case ELF_TAG_STRUCT:
    case ELF_TAG_UNION:
    case ELF_TAG_ENUM: {
      const char* n = OwnName(r, cur);
      std::string name = n ? std::string(n) : typedefName;
      const char* kw = t == ELF_TAG_CLASS ? "class" : t == ELF_TAG_STRUCT ? "struct" : t == ELF_TAG_UNION ? "union" : "enum";
      text = std::string(kw) + " " + name + text;
      if (t == ELF_TAG_ENUM) stop = true;
      break;
    }
    case ELF_TAG_POINTER:
      text = "*" + text;
      break;
    case ELF_TAG_REFERENCE:
      text = "&" + text;
      break;
    case ELF_TAG_SUBROUTINE_TYPE:
    case ELF_TAG_INLINED:
    case ELF_TAG_SUBPROGRAM:
      text = "(" + ParamList(r, cur, depth) + ")" + text;
      if (!RefAttr(r.c, cur, AT_TYPE)) {
        text = "void" + text;
        stop = true;
      }
      break;
    case ELF_TAG_TYPEDEF: {
      const char* n = OwnName(r, cur);
      typedefName = n ? n : "";
      break;
    }
    case ELF_TAG_BASE_TYPE:
      text = NameText(r, cur) + text;
      break;
    case ELF_TAG_CONST:
      qualifier = "const ";
      break;
    case ELF_TAG_VOLATILE:
      qualifier = "volatile ";
      break;
    default:
      break;
    }
    if (stop) break;
    cur = RefAttr(r.c, cur, AT_TYPE);
  }
  if (text.empty() || text == "*") {
    if (!typedefName.empty()) text = typedefName + text;
    else text = "void*";
  }
  text = qualifier + text;
  if (IsStaticStorage(r, key)) text = "static " + text;
  bool f;
  if (Num(r, key, AT_VIRTUALITY, &f) && f) text = "virtual " + text;
  if (text.size() > 511) text.resize(511);
  if (x) {
    x->qualifiedTypeName = text;
    x->typeNameDone = true;
  }
  return text;
}

std::string ParamList(const Ref& r, U32 key, int depth) {
  std::string out;
  dwb::Die d = GetDieOf(r.c, key);
  if (!d || !dwb::HasChildren(d)) return out;
  dwb::Die ch = dwb::Child(r.c->s, d);
  int n = 0;
  std::vector<U32> params;
  while (ch && n++ < 1000) {
    if (dwb::Tag(ch) == ELF_TAG_PARAMETER) params.push_back(KeyOfDie(ch));
    dwb::Die next = dwb::Sibling(r.c->s, ch, dwb::IsInfo(ch));
    dwb::FreeDie(r.c->s, ch);
    ch = next;
  }
  if (ch) dwb::FreeDie(r.c->s, ch);
  bool first = true;
  for (U32 p : params) {
    bool f;
    if (Num(r, p, AT_ARTIFICIAL, &f) && f) continue;
    const U32 t = RefAttr(r.c, p, AT_TYPE);
    if (!first) out += ", ";
    first = false;
    out += t ? TypeNameOf(r, t, depth + 1) : std::string("void*");
  }
  return out;
}

void ScopeChain(const Ref& r, U32 key, int depth, std::vector<U32>& cur, std::vector<U32>& best, int* pBudget) {
  if (!key || depth >= 64 || --*pBudget < 0) return;
  ELF_DIE_INFO* i = InfoOf(r.c, key);
  bool any = false;
  auto visit = [&](U32 up) {
    if (!up || up == key) return;
    const U32 t = Tag(r, up);
    const bool isScope = t == ELF_TAG_NAMESPACE || t == ELF_TAG_CLASS || t == ELF_TAG_STRUCT || t == ELF_TAG_UNION ||
                         t == ELF_TAG_SUBPROGRAM || t == ELF_TAG_ENUM;
    if (isScope) cur.push_back(up);
    any = true;
    ScopeChain(r, up, depth + 1, cur, best, pBudget);
    if (isScope) cur.pop_back();
  };
  if (i && i->parent) visit(i->parent);
  if (i && i->specification) visit(i->specification);
  const U32 o = RefAttr(r.c, key, AT_ABSTRACT_ORIGIN);
  if (o) visit(o);
  if (!any && cur.size() > best.size()) best = cur;
}

} // namespace

// ---- handles -----------------------------------------------------------------

ELF_SYM_HANDLE ELF_MakeDieHandle(const ELF_FILE* f, U32 Key) {
  const int slot = ELF_GetSlot(f);
  if (slot < 0) {
    // While a file is opening it stands in a slot but isn't valid yet.
    for (int i = 0; i < ELF_MAX_FILES; ++i)
      if (elf_internal::g_aSlots[i] == f) return ELF_HANDLE_TAG | ELF_HANDLE_KIND_DIE | ((U64)i << 35) | Key;
    return 0;
  }
  return ELF_HANDLE_TAG | ELF_HANDLE_KIND_DIE | ((U64)slot << 35) | Key;
}
U32 ELF_GetDieKey(ELF_SYM_HANDLE h) { return Decode(h).key; }
bool ELF_IsDieHandle(ELF_SYM_HANDLE h) { return (bool)Decode(h); }
U32 ELF_GetTag(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  return r ? Tag(r, r.key) : 0;
}

// ---- tree ------------------------------------------------------------------------

ELF_SYM_HANDLE ELF_GetParent(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return 0;
  ELF_DIE_INFO* i = InfoOf(r.c, r.key);
  return i ? H(r, i->parent) : 0;
}

ELF_SYM_HANDLE ELF_GetFirstChild(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return 0;
  dwb::Die d = GetDieOf(r.c, r.key);
  dwb::Die ch = d && dwb::HasChildren(d) ? dwb::Child(r.c->s, d) : nullptr;
  if (!ch) return 0;
  const U32 k = KeyOfDie(ch);
  dwb::FreeDie(r.c->s, ch);
  if (!GetDieOf(r.c, k)) return 0;
  if (ELF_DIE_INFO* i = InfoOf(r.c, k)) i->parent = r.key;
  return H(r, k);
}

ELF_SYM_HANDLE ELF_GetNextSibling(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return 0;
  dwb::Die d = GetDieOf(r.c, r.key);
  dwb::Die s = d ? dwb::Sibling(r.c->s, d, dwb::IsInfo(d)) : nullptr;
  if (!s) return 0;
  const U32 k = KeyOfDie(s);
  dwb::FreeDie(r.c->s, s);
  if (!GetDieOf(r.c, k)) return 0;
  ELF_DIE_INFO* mine = InfoOf(r.c, r.key);
  if (ELF_DIE_INFO* i = InfoOf(r.c, k); i && mine) i->parent = mine->parent;
  return H(r, k);
}

ELF_SYM_HANDLE ELF_GetUnitRoot(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return 0;
  const DW_UNIT* u = UnitOf(r.c, r.key);
  return u ? H(r, u->rootKey) : 0;
}

// ---- attributes ----------------------------------------------------------------------

U64 ELF_GetAttrValue(ELF_SYM_HANDLE h, U32 Code, bool* pFound) {
  bool f = false;
  Ref r = Decode(h);
  U64 v = r ? Num(r, r.key, Code, &f) : 0;
  if (pFound) *pFound = f;
  return v;
}
bool ELF_HasAttr(ELF_SYM_HANDLE h, U32 Code) {
  Ref r = Decode(h);
  return r && Has(r, r.key, Code);
}
ELF_SYM_HANDLE ELF_GetRefAttr(ELF_SYM_HANDLE h, U32 Code) {
  Ref r = Decode(h);
  return r ? H(r, RefAttr(r.c, r.key, Code)) : 0;
}
bool ELF_GetConstBlock(ELF_SYM_HANDLE h, std::vector<U8>& Bytes) {
  Bytes.clear();
  Ref r = Decode(h);
  dwb::AttrValue v;
  if (!r || !Attr(r.c, r.key, AT_CONST_VALUE, &v)) return false;
  if (v.cls == dwb::AC_BLOCK) {
    Bytes.assign(v.block, v.block + v.blockLen);
    return true;
  }
  if (v.cls == dwb::AC_UNSIGNED || v.cls == dwb::AC_SIGNED) {
    for (int i = 0; i < 8; ++i) Bytes.push_back((U8)(v.u >> (8 * i)));
    return true;
  }
  return false;
}
bool ELF_GetExprBlock(ELF_SYM_HANDLE h, U32 Code, const U8** ppData, U32* pSize) {
  Ref r = Decode(h);
  dwb::AttrValue v;
  if (!r || !Attr(r.c, r.key, Code, &v) || v.cls != dwb::AC_BLOCK) return false;
  *ppData = v.block;
  *pSize = (U32)v.blockLen;
  return true;
}

// ---- types -------------------------------------------------------------------------------

ELF_SYM_HANDLE ELF_GetType(ELF_SYM_HANDLE h, bool SkipSelf) {
  Ref r = Decode(h);
  return r ? H(r, TypeKey(r, r.key, SkipSelf)) : 0;
}
U32 ELF_GetByteSize(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  return r ? ByteSize(r, r.key) : 0;
}
U32 ELF_GetBitSize(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  bool f;
  return r ? (U32)Num(r, r.key, AT_BIT_SIZE, &f) : 0;
}
U32 ELF_GetBitOffset(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return 0;
  bool f;
  const U64 dbo = Num(r, r.key, AT_DATA_BIT_OFFSET, &f);
  if (f) return (U32)dbo;
  const U64 b = Num(r, r.key, AT_BIT_OFFSET, &f);
  if (!f) return 0;
  U32 s = ByteSize(r, r.key);
  if (!s) {
    const U32 t = RefAttr(r.c, r.key, AT_TYPE);
    s = t ? SizeOf(r, t) : 0;
  }
  bool fn;
  const U64 n = Num(r, r.key, AT_BIT_SIZE, &fn);
  if (!fn || n == 0) return (U32)b;
  if ((U64)s * 8 >= n + b) return (U32)(s * 8 - n - b);
  return (U32)(32 - n - b);
}
U32 ELF_GetSubrangeCount(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  return r ? SubrangeCount(r, r.key) : 0;
}
ELF_ARRAY_INFO ELF_GetArrayInfo(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  return r ? ArrayInfo(r, r.key, 0) : ELF_ARRAY_INFO{};
}
bool ELF_IsTypeTag(U32 Tag) { return IsTypeTagK(Tag); }
int ELF_IsSigned(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return 0;
  U32 cur = r.key;
  for (int i = 0; cur && i < 64; ++i) {
    const U32 t = Tag(r, cur);
    if (t == ELF_TAG_POINTER) return 0;
    if (t == ELF_TAG_BASE_TYPE) {
      bool f;
      const U64 e = Num(r, cur, AT_ENCODING, &f);
      return (e == 5 || e == 6 || e == 13) ? 1 : 0;
    }
    cur = RefAttr(r.c, cur, AT_TYPE);
  }
  return 0;
}
const char* ELF_GetTypeKeyword(ELF_SYM_HANDLE h) {
  switch (ELF_GetTag(h)) {
  case ELF_TAG_STRUCT: return "struct";
  case ELF_TAG_CLASS: return "class";
  case ELF_TAG_UNION: return "union";
  case ELF_TAG_ENUM: return "enum";
  default: return "";
  }
}
ELF_SYM_HANDLE ELF_GetDeclaration(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return 0;
  ELF_DIE_INFO* i = InfoOf(r.c, r.key);
  return i ? H(r, i->specification) : 0;
}
ELF_SYM_HANDLE ELF_GetDefinition(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  return r ? H(r, DefinitionKey(r, r.key)) : 0;
}
bool ELF_IsDeclaration(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return false;
  ELF_DIE_INFO* i = InfoOf(r.c, r.key);
  return Has(r, r.key, AT_DECLARATION) || (i && i->definition);
}
int ELF_GetAccessibility(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return 0;
  bool f;
  const U64 a = Num(r, r.key, AT_ACCESSIBILITY, &f);
  if (f) return (int)a;
  ELF_DIE_INFO* i = InfoOf(r.c, r.key);
  const U32 pt = i && i->parent ? Tag(r, i->parent) : 0;
  if (pt == ELF_TAG_STRUCT || pt == ELF_TAG_UNION) return 1;
  if (pt == ELF_TAG_CLASS) return 3;
  return 0;
}
const char* ELF_GetAccessibilityText(int a) {
  return a == 1 ? "public" : a == 2 ? "protected" : a == 3 ? "private" : "";
}
int ELF_GetVirtuality(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  bool f;
  return r ? (int)Num(r, r.key, AT_VIRTUALITY, &f) : 0;
}

// ---- names ---------------------------------------------------------------------------------

const char* ELF_GetName(ELF_SYM_HANDLE h) {
  if (ELF_GetSymbolRowOfHandle(h) >= 0) return ELF_GetSymbolName(h);
  Ref r = Decode(h);
  if (!r) return "";
  const char* n = NameOf(r, r.key, 0);
  return n ? n : "";
}

const char* ELF_GetTypeName(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return "";
  r.c->typeNameBuf = TypeNameOf(r, r.key, 0);
  return r.c->typeNameBuf.c_str();
}

ELF_SYM_HANDLE ELF_FindAncestor(ELF_SYM_HANDLE h, U32 Tag) {
  Ref r = Decode(h);
  int budget = 10000;
  return r ? H(r, FindAncestor(r, r.key, Tag, 0, &budget)) : 0;
}

std::vector<ELF_SYM_HANDLE> ELF_GetQualifiedScope(ELF_SYM_HANDLE h) {
  std::vector<ELF_SYM_HANDLE> out;
  Ref r = Decode(h);
  if (!r) return out;
  std::vector<U32> cur, best;
  int budget = 4096;
  ScopeChain(r, r.key, 0, cur, best, &budget);
  for (size_t i = best.size(); i-- > 0;) out.push_back(H(r, best[i]));
  return out;
}

ELF_SYM_HANDLE ELF_FindName(const ELF_FILE* f, const char* sName) {
  DW_CTX* c = DwCtx(f);
  U64 v;
  if (!c || !sName || !c->nameIndex.Find(ELF_HashName(sName), &v)) return 0;
  return ELF_MakeDieHandle(f, (U32)v);
}

void ELF_ShortenTypeName(char* s) {
  static const char* const rows[][2] = {
      {"unsigned char", "uchar"},
      {"short unsigned int", "ushort"},
      {"unsigned short int", "ushort"},
      {"unsigned short", "ushort"},
      {"unsigned int", "uint"},
      {"long unsigned int", "ulong"},
      {"long uint", "ulong"},
      {"unsigned long int", "ulong"},
      {"unsigned long", "ulong"},
      {"long long unsigned int", "long ulong"},
      {"unsigned long long int", "long ulong"},
      {"unsigned long long", "long ulong"},
      {"signed char", "char"},
      {"short signed int", "short"},
      {"signed short int", "short"},
      {"signed short", "short"},
      {"short int", "short"},
      {"signed int", "int"},
      {"long signed int", "long"},
      {"signed long int", "long"},
      {"signed long", "long"},
      {"long int", "long"},
      {"long long signed int", "long long"},
      {"signed long long int", "long long"},
      {"signed long long", "long long"},
      {"long long int", "long long"},
  };
  if (!s) return;
  for (const auto& row : rows) {
    char* p = strstr(s, row[0]);
    if (!p) continue;
    const size_t lo = strlen(row[0]), ls = strlen(row[1]);
    memcpy(p, row[1], ls); // the short spelling is never longer
    memmove(p + ls, p + lo, strlen(p + lo) + 1);
  }
}

// ---- members and locals -----------------------------------------------------------------------

int ELF_GetLocalCount(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  ELF_DIE_INFO* i = r ? InfoOf(r.c, r.key) : nullptr;
  return i && i->extra ? (int)i->extra->locals.size() : 0;
}
ELF_SYM_HANDLE ELF_GetLocal(ELF_SYM_HANDLE h, int n) {
  Ref r = Decode(h);
  ELF_DIE_INFO* i = r ? InfoOf(r.c, r.key) : nullptr;
  if (!i || !i->extra || n < 0 || (size_t)n >= i->extra->locals.size()) return 0;
  return H(r, (U32)i->extra->locals[n]);
}
int ELF_GetMemberCount(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return 0;
  const U32 k = DefOrSelf(r, r.key);
  ELF_DIE_INFO* i = InfoOf(r.c, k);
  return i && i->extra ? (int)i->extra->members.size() : 0;
}
ELF_SYM_HANDLE ELF_GetMember(ELF_SYM_HANDLE h, int n) {
  Ref r = Decode(h);
  if (!r) return 0;
  ELF_DIE_INFO* i = InfoOf(r.c, DefOrSelf(r, r.key));
  if (!i || !i->extra || n < 0 || (size_t)n >= i->extra->members.size()) return 0;
  return H(r, (U32)i->extra->members[n]);
}
int ELF_GetMemberIndex(ELF_SYM_HANDLE h, const char* sName) {
  const int n = ELF_GetMemberCount(h);
  for (int i = 0; i < n && sName; ++i)
    if (!strcmp(ELF_GetName(ELF_GetMember(h, i)), sName)) return i;
  return -1;
}
U32 ELF_GetMemberOffset(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return 0;
  dwb::AttrValue v;
  if (!Attr(r.c, r.key, AT_DATA_MEMBER_LOCATION, &v)) return 0;
  if (v.cls == dwb::AC_UNSIGNED || v.cls == dwb::AC_SIGNED) return (U32)v.u;
  // DWARF 2 writes the offset as DW_OP_plus_uconst n.
  if (v.cls == dwb::AC_BLOCK && v.blockLen >= 2 && v.block[0] == 0x23) {
    U64 val = 0;
    int shift = 0;
    for (U64 i = 1; i < v.blockLen && shift < 64; ++i) {
      val |= (U64)(v.block[i] & 0x7F) << shift;
      shift += 7;
      if (!(v.block[i] & 0x80)) break;
    }
    return (U32)val;
  }
  return 0;
}
int ELF_GetBaseClassCount(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  ELF_DIE_INFO* i = r ? InfoOf(r.c, DefOrSelf(r, r.key)) : nullptr;
  return i && i->extra ? (int)i->extra->baseClasses.size() : 0;
}
ELF_SYM_HANDLE ELF_GetBaseClass(ELF_SYM_HANDLE h, int n) {
  Ref r = Decode(h);
  ELF_DIE_INFO* i = r ? InfoOf(r.c, DefOrSelf(r, r.key)) : nullptr;
  if (!i || !i->extra || n < 0 || (size_t)n >= i->extra->baseClasses.size()) return 0;
  return H(r, (U32)i->extra->baseClasses[n]);
}
ELF_SYM_HANDLE ELF_GetObjectPointer(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  return r ? H(r, RefAttr(r.c, r.key, AT_OBJECT_POINTER)) : 0;
}

// ---- extents ----------------------------------------------------------------------------------------

std::vector<ELF_RANGE> ELF_GetRanges(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  return r ? Ranges(r, r.key) : std::vector<ELF_RANGE>();
}
int ELF_GetRangeCount(ELF_SYM_HANDLE h) { return (int)ELF_GetRanges(h).size(); }
U32 ELF_GetStart(ELF_SYM_HANDLE h, int i) {
  auto v = ELF_GetRanges(h);
  return i >= 0 && (size_t)i < v.size() ? v[i].start : 0xFFFFFFFFu;
}
U32 ELF_GetEnd(ELF_SYM_HANDLE h, int i) {
  auto v = ELF_GetRanges(h);
  return i >= 0 && (size_t)i < v.size() ? v[i].end : 0;
}
U32 ELF_GetSize(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  return r ? SizeOf(r, r.key) : 0;
}
int ELF_GetUnitLanguage(ELF_SYM_HANDLE h) {
  Ref r = Decode(h);
  if (!r) return 0;
  for (const DW_UNIT& u : r.c->units)
    if (u.rootKey == r.key) return u.language;
  return 0;
}
bool ELF_GetStaticAddress(ELF_SYM_HANDLE h, U32* pAddr) {
  Ref r = Decode(h);
  return r && StaticAddr(r.c, r.key, pAddr);
}
