// The debug parse and the entry queries of the ELF API.
#include "elf/dwarf/dwarf_internal.h"
#include "elf/elf_file.h"
#include "elf/elfapi.h"

#include <algorithm>
#include <chrono>
#include <string.h>

using namespace elf_internal;

int DWARF_LoadCallFrames(ELF_FILE* f);
void DWARF_RunWrapperStages(ELF_FILE* f, const QElapsedTimer* pTimer, int* pFunctionCount, int* pGlobalCount);
void DWARF_ForgetCallFrames(const ELF_FILE* f);

namespace {

// Attribute codes used here.
enum : U32 {
  AT_LOCATION = 2, AT_NAME = 3, AT_BYTE_SIZE = 11, AT_BIT_OFFSET = 12, AT_BIT_SIZE = 13, AT_STMT_LIST = 16,
  AT_LOW_PC = 17, AT_HIGH_PC = 18, AT_LANGUAGE = 19, AT_CONST_VALUE = 28, AT_LOWER_BOUND = 34, AT_PRODUCER = 37,
  AT_UPPER_BOUND = 47, AT_ABSTRACT_ORIGIN = 49, AT_ACCESSIBILITY = 50, AT_ARTIFICIAL = 52, AT_COUNT = 55,
  AT_DATA_MEMBER_LOCATION = 56, AT_DECLARATION = 60, AT_EXTERNAL = 63, AT_SPECIFICATION = 71, AT_TYPE = 73,
  AT_VIRTUALITY = 76, AT_EXTENSION = 84, AT_RANGES = 85, AT_OBJECT_POINTER = 100, AT_MAIN_SUBPROGRAM = 106,
  AT_DATA_BIT_OFFSET = 107, AT_CALL_RETURN_PC = 0x7d,
  TAG_CALL_SITE = 0x48, TAG_CALL_SITE_PARAMETER = 0x49, TAG_GNU_CALL_SITE = 0x4109,
  TAG_GNU_CALL_SITE_PARAMETER = 0x410a,
};

constexpr U32 KEY_TYPES_BIT = 0x80000000u;

I64 NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

// ---- tables ------------------------------------------------------------------

bool KeyIndex(const DW_CTX* c, U32 key, U32* pIdx) {
  const U32 off = key & 0x7FFFFFFFu;
  if (key & KEY_TYPES_BIT) {
    if (off >= c->typesSize) return false;
    *pIdx = off + c->infoSize;
  } else {
    if (off >= c->infoSize) return false;
    *pIdx = off;
  }
  return true;
}

U32 KeyOf(dwb::Die d) {
  const U64 off = dwb::Offset(d);
  if (off > 0x7FFFFFFFu) return 0;
  return (U32)off | (dwb::IsInfo(d) ? 0 : KEY_TYPES_BIT);
}

ELF_DIE_INFO* Info(DW_CTX* c, U32 key) {
  U32 idx;
  if (!KeyIndex(c, key, &idx)) return nullptr;
  ELF_DIE_INFO*& p = c->dieInfoTable[idx];
  if (!p) p = new ELF_DIE_INFO;
  return p;
}

ELF_DIE_EXTRA* Extra(DW_CTX* c, U32 key) {
  ELF_DIE_INFO* i = Info(c, key);
  if (!i) return nullptr;
  if (!i->extra) i->extra = new ELF_DIE_EXTRA;
  return i->extra;
}

const DW_UNIT* UnitOfKey(const DW_CTX* c, U32 key) {
  const bool info = !(key & KEY_TYPES_BIT);
  const U64 off = key & 0x7FFFFFFFu;
  const DW_UNIT* best = nullptr;
  // Units of one section are in ascending order.
  auto it = std::upper_bound(c->units.begin(), c->units.end(), std::make_pair(!info, off),
                             [](const std::pair<bool, U64>& k, const DW_UNIT& u) {
                               const bool ut = !u.isInfo;
                               if (k.first != ut) return k.first < ut;
                               return k.second < u.offset;
                             });
  if (it != c->units.begin()) {
    --it;
    if (it->isInfo == info && off >= it->offset && off < it->nextOffset) best = &*it;
  }
  return best;
}

U32 GetRefAttr(DW_CTX* c, U32 key, U32 code);
U32 AttrOwner(DW_CTX* c, U32 key, U32 code, int depth);
dwb::Die GetDie(DW_CTX* c, U32 key);

// Fills the slot of an entry, counts it, stores its tag and links
// specification and definition. False if the slot can't take it.
bool RegisterDie(DW_CTX* c, dwb::Die d) {
  const U32 key = KeyOf(d);
  U32 idx;
  if (!key || !KeyIndex(c, key, &idx)) return false;
  if (c->dieTable[idx]) return c->dieTable[idx] == d;
  c->dieTable[idx] = d;
  ++c->dieCount;
  ELF_DIE_INFO* i = Info(c, key);
  i->tag = dwb::Tag(d);
  if (dwb::HasAttr(d, AT_SPECIFICATION)) {
    const U32 declKey = GetRefAttr(c, key, AT_SPECIFICATION);
    if (declKey) {
      i->specification = declKey;
      if (ELF_DIE_INFO* si = Info(c, declKey)) si->definition = key;
    }
  }
  return true;
}

dwb::Die GetDie(DW_CTX* c, U32 key) {
  U32 idx;
  if (!key || !KeyIndex(c, key, &idx)) return nullptr;
  if (c->dieTable[idx]) return c->dieTable[idx];
  dwb::Die d = dwb::OffDie(c->s, key & 0x7FFFFFFFu, !(key & KEY_TYPES_BIT));
  if (!d) return nullptr;
  if (KeyOf(d) != key || !RegisterDie(c, d)) {
    dwb::FreeDie(c->s, d);
    return nullptr;
  }
  return d;
}

U32 TagOf(DW_CTX* c, U32 key) {
  ELF_DIE_INFO* i = Info(c, key);
  if (!i) return 0;
  if (!i->tag) {
    dwb::Die d = GetDie(c, key);
    if (d) i->tag = dwb::Tag(d);
  }
  return i->tag;
}

// ---- attributes --------------------------------------------------------------

bool GetAttr(DW_CTX* c, U32 key, U32 code, dwb::AttrValue* v) {
  dwb::Die d = GetDie(c, key);
  return d && dwb::GetAttr(c->s, d, code, v);
}

bool HasAttr(DW_CTX* c, U32 key, U32 code) {
  dwb::Die d = GetDie(c, key);
  return d && dwb::HasAttr(d, code);
}

// A number by form; found stays false for forms that aren't numbers.
U64 AttrValue(DW_CTX* c, U32 key, U32 code, bool* pFound) {
  dwb::AttrValue v;
  *pFound = false;
  if (!GetAttr(c, key, code, &v)) return 0;
  switch (v.cls) {
  case dwb::AC_ADDR:
  case dwb::AC_UNSIGNED:
  case dwb::AC_SIGNED:
  case dwb::AC_FLAG:
  case dwb::AC_SECOFF:
  case dwb::AC_REF:
    *pFound = true;
    return v.u;
  default:
    return 0;
  }
}

bool Flag(DW_CTX* c, U32 key, U32 code) {
  bool found;
  return AttrValue(c, key, code, &found) != 0 && found;
}

U32 GetRefAttr(DW_CTX* c, U32 key, U32 code) {
  dwb::AttrValue v;
  dwb::Die d = GetDie(c, key);
  if (!d) return 0;
  if (!dwb::GetAttr(c->s, d, code, &v)) {
    // The type of an entry that completes a declaration stands at the declaration.
    if (code != AT_TYPE || dwb::HasAttr(d, code)) return 0;
    const U32 owner = AttrOwner(c, key, code, 0);
    if (!owner || owner == key) return 0;
    return GetRefAttr(c, owner, code);
  }
  U32 ref = 0;
  if (v.cls == dwb::AC_REF) {
    if (v.ref > 0x7FFFFFFFu) return 0;
    ref = (U32)v.ref | (v.refIsInfo ? 0 : KEY_TYPES_BIT);
  } else if (v.cls == dwb::AC_SIG8) {
    for (const DW_UNIT& u : c->units)
      if (u.isTypeUnit && u.signature == v.u && u.typeKey) {
        ref = u.typeKey;
        break;
      }
    if (!ref) return 0;
  } else {
    return 0;
  }
  if (ref == key || !GetDie(c, ref)) return 0;
  return ref;
}

// An own attribute, else one inherited through namespace extensions,
// specification, abstract origin and definition.
U32 AttrOwner(DW_CTX* c, U32 key, U32 code, int depth) {
  if (depth >= 6 || !key) return 0;
  if (HasAttr(c, key, code)) return key;
  if (code == AT_SPECIFICATION || code == AT_ABSTRACT_ORIGIN || code == AT_DECLARATION || code == AT_EXTENSION)
    return 0;
  if (TagOf(c, key) == ELF_TAG_NAMESPACE) {
    for (U64 ext : c->lists[ELF_LIST_NAMESPACE_EXTENSIONS])
      if (GetRefAttr(c, (U32)ext, AT_EXTENSION) == key) return HasAttr(c, (U32)ext, code) ? (U32)ext : 0;
  }
  ELF_DIE_INFO* i = Info(c, key);
  if (i && i->specification) return HasAttr(c, i->specification, code) ? i->specification : 0;
  const U32 origin = GetRefAttr(c, key, AT_ABSTRACT_ORIGIN);
  if (origin && origin != key) return AttrOwner(c, origin, code, depth + 1);
  if (i && i->definition && i->definition != key) return HasAttr(c, i->definition, code) ? i->definition : 0;
  return 0;
}

bool IsArtificial(DW_CTX* c, U32 key) { return Flag(c, key, AT_ARTIFICIAL); }
bool IsDeclAttr(DW_CTX* c, U32 key) { return HasAttr(c, key, AT_DECLARATION); }

// One plain DW_OP_addr (or its DWARF 5 index form) makes a static address.
bool StaticAddress(DW_CTX* c, U32 key, U32* pAddr) {
  dwb::AttrValue v;
  if (!GetAttr(c, key, AT_LOCATION, &v) || v.cls != dwb::AC_BLOCK || v.blockLen < 1) return false;
  const U8* b = v.block;
  if (b[0] == 0x03) {
    const DW_UNIT* u = UnitOfKey(c, key);
    const U32 as = u ? u->addrSize : 4;
    if (v.blockLen != 1 + as || as > 8) return false;
    U64 a = 0;
    const bool be = c->f->bigEndian;
    for (U32 i = 0; i < as; ++i) a |= (U64)b[1 + (be ? as - 1 - i : i)] << (8 * i);
    if (pAddr) *pAddr = (U32)a;
    return true;
  }
  if (b[0] == 0xa1 || b[0] == 0xfb) { // DW_OP_addrx, DW_OP_GNU_addr_index: one index that fills the block
    U64 index = 0;
    U32 at = 1;
    for (int shift = 0; at < v.blockLen; shift += 7) {
      const U8 x = b[at++];
      if (shift < 64) index |= (U64)(x & 0x7F) << shift;
      if (!(x & 0x80)) break;
      if (at == v.blockLen) return false;
    }
    if (at != v.blockLen) return false;
    dwb::Die d = GetDie(c, key);
    U64 a = 0;
    if (!d || !dwb::AddrByIndex(c->s, d, index, &a)) return false;
    if (pAddr) *pAddr = (U32)a;
    return true;
  }
  return false;
}

// ---- collectors ----------------------------------------------------------------

bool IsAggregateTag(U32 t) {
  return t == ELF_TAG_CLASS || t == ELF_TAG_STRUCT || t == ELF_TAG_UNION || t == ELF_TAG_ENUM;
}

// All collectors for one entry; answers whether the entry must be kept.
bool Collect(DW_CTX* c, U32 key, U32 tag, bool typeUnit, U32 parent, I64 func, int depth,
             std::vector<U32>& unitFunctions) {
  bool keep = false;
  const U32 parentTag = parent ? TagOf(c, parent) : 0;
  if (!typeUnit) {
    if (tag == ELF_TAG_VARIABLE && !IsDeclAttr(c, key) && !IsArtificial(c, key)) {
      if (func < 0 || StaticAddress(c, key, nullptr)) {
        c->lists[ELF_LIST_GLOBALS].push_back(key);
        keep = true;
      }
    }
    if ((tag == ELF_TAG_SUBPROGRAM || tag == ELF_TAG_INLINED) && !IsDeclAttr(c, key) && !IsArtificial(c, key)) {
      c->lists[tag == ELF_TAG_SUBPROGRAM ? ELF_LIST_FUNCTIONS : ELF_LIST_INLINED].push_back(key);
      unitFunctions.push_back(key);
      keep = true;
    }
    if (tag == ELF_TAG_NAMESPACE) {
      c->lists[ELF_LIST_NAMESPACES].push_back(key);
      keep = true;
      if (HasAttr(c, key, AT_EXTENSION)) c->lists[ELF_LIST_NAMESPACE_EXTENSIONS].push_back(key);
    }
    if ((tag == ELF_TAG_VARIABLE || tag == ELF_TAG_PARAMETER) && func >= 0 && !IsDeclAttr(c, key)) {
      if (ELF_DIE_EXTRA* x = Extra(c, (U32)func)) x->locals.push_back(key);
    }
    // Call sites (DWARF 5 and the GNU forerunners), for values on function entry.
    if (tag == TAG_CALL_SITE || tag == TAG_GNU_CALL_SITE) {
      bool found = false;
      U64 pc = tag == TAG_CALL_SITE ? AttrValue(c, key, AT_CALL_RETURN_PC, &found) : 0;
      if (!found) pc = AttrValue(c, key, AT_LOW_PC, &found);
      if (found && pc <= 0xFFFFFFFFu) c->callSites.push_back({(U32)pc, key, (U32)c->callParams.size(), 0});
    } else if ((tag == TAG_CALL_SITE_PARAMETER || tag == TAG_GNU_CALL_SITE_PARAMETER) && !c->callSites.empty() &&
               c->callSites.back().key == parent) {
      c->callParams.push_back(key);
      ++c->callSites.back().paramCount;
    }
  }
  if (tag == ELF_TAG_TYPEDEF ||
      (IsAggregateTag(tag) && !IsDeclAttr(c, key) && !IsArtificial(c, key) && HasAttr(c, key, AT_BYTE_SIZE))) {
    c->lists[ELF_LIST_TYPES].push_back(key);
    keep = true;
  }
  if ((tag == ELF_TAG_MEMBER || tag == ELF_TAG_SUBPROGRAM || tag == ELF_TAG_ENUMERATOR) && IsAggregateTag(parentTag) &&
      !IsArtificial(c, key)) {
    ELF_DIE_INFO* i = Info(c, key);
    const U32 def = (i && i->definition) ? i->definition : key;
    if (ELF_DIE_EXTRA* x = Extra(c, parent)) x->members.push_back(def);
    keep |= def == key;
  }
  if (tag == ELF_TAG_INHERITANCE && parent && !IsArtificial(c, key)) {
    if (ELF_DIE_EXTRA* x = Extra(c, parent)) x->baseClasses.push_back(key);
    keep = true;
  }
  (void)depth;
  return keep;
}

int UnitLanguage(DW_CTX* c, U32 root) {
  bool found;
  const U64 lang = AttrValue(c, root, AT_LANGUAGE, &found);
  if (found) {
    if (lang == 2) return 1;
    if (lang == 4) return 2;
    // C99, C89, C11 and C17 are C too; C++ 03/11/14 are C++.
    if (lang == 1 || lang == 0xc || lang == 0x1d || lang == 0x2c) return 1;
    if (lang == 0x19 || lang == 0x1a || lang == 0x21) return 2;
    return 0;
  }
  dwb::Die d = GetDie(c, root);
  const char* n = d ? dwb::Name(d) : nullptr;
  if (!n) return 0;
  if (strstr(n, ".cpp")) return 2;
  if (strstr(n, ".c")) return 1;
  return 0;
}

// Walks one unit's entries in file order, parents before children.
int ParseUnitTree(DW_CTX* c, dwb::Die root, bool isInfo, bool typeUnit) {
  std::vector<U32> unitFunctions;
  struct Open {
    dwb::Die d;
    U32 key;
    U32 tag;
    bool keep;
  };
  std::vector<Open> path;
  dwb::Die cur = root;
  int guard = 0;
  dwb::BeginUnitWalk(c->s, root);
  struct EndWalk {
    dwb::Session* s;
    bool checked = false;
    ~EndWalk() { dwb::EndUnitWalk(s, checked); }
  } endWalk{c->s};
  while (cur) {
    if (++guard > 50000000) return -1;
    // A DW_AT_sibling that points back ends the walk here, before any step
    // over a subtree could follow it.
    if (!dwb::SiblingAttrSane(c->s, cur)) return -1;
    const U32 key = KeyOf(cur);
    ELF_DIE_INFO* info = key ? Info(c, key) : nullptr;
    if (!info) return -1;
    const U32 tag = dwb::Tag(cur);
    if (!info->tag) info->tag = tag;
    U32 parent = path.empty() ? 0 : path.back().key;
    I64 func = -1;
    for (size_t i = path.size(); i-- > 0;)
      if (path[i].tag == ELF_TAG_SUBPROGRAM || path[i].tag == ELF_TAG_INLINED) {
        func = path[i].key;
        break;
      }
    if (parent) info->parent = parent;
    // The walk needs the object itself to answer attribute questions; it
    // stands in the table while the collectors run.
    U32 idx = 0;
    KeyIndex(c, key, &idx);
    const bool wasKept = c->dieTable[idx] != nullptr;
    bool keep = cur == root;
    if (!wasKept) c->dieTable[idx] = cur;
    if (!info->visited) {
      keep |= Collect(c, key, tag, typeUnit, parent, func, (int)path.size(), unitFunctions);
      info->visited = 1;
    }
    if (!wasKept) c->dieTable[idx] = nullptr;
    if (wasKept) {
      keep = c->dieTable[idx] == cur; // the table owns it already, or holds another copy
    } else if (keep && !RegisterDie(c, cur)) {
      keep = false;
    }

    dwb::Die child = dwb::HasChildren(cur) ? dwb::Child(c->s, cur) : nullptr;
    if (child) {
      path.push_back({cur, key, tag, keep});
      cur = child;
      continue;
    }
    bool curKeep = keep;
    for (;;) {
      dwb::Die sib = path.empty() ? nullptr : dwb::Sibling(c->s, cur, isInfo);
      if (!curKeep) dwb::FreeDie(c->s, cur);
      if (sib) {
        cur = sib;
        break;
      }
      if (path.empty()) {
        cur = nullptr;
        break;
      }
      cur = path.back().d;
      curKeep = path.back().keep;
      path.pop_back();
    }
  }
  (void)unitFunctions;
  endWalk.checked = true;
  return 0;
}

void ReportTime(const char* fmt, I64 ms) { ELF_ReportLine(fmt, (long)ms); }

void AddFile(DW_CTX* c, const std::string& path, U32 unitKey) {
  if (path.find("<built-in>") != std::string::npos || path.find("<stdin>") != std::string::npos) return;
  const U32 h = ELF_HashName(path.c_str());
  U64 v;
  if (!c->fileTable.Find(h, &v)) {
    v = c->fileRecs.size();
    c->fileRecs.emplace_back();
    c->fileTable.Insert(h, v);
    c->sourceFiles.push_back(path);
  }
  if (v < c->fileRecs.size()) {
    auto& u = c->fileRecs[v].units;
    if (std::find(u.begin(), u.end(), unitKey) == u.end()) u.push_back(unitKey);
  }
}

int AddUnitLines(DW_CTX* c, U32 rootKey, std::vector<dwb::LineRow>& rows, std::vector<std::string>& files) {
  dwb::Die root = GetDie(c, rootKey);
  if (!root) return -1;
  const int r = dwb::GetLines(c->s, root, rows, files);
  if (r <= 0) return r;
  std::vector<U32> map(files.size());
  for (size_t i = 0; i < files.size(); ++i) {
    auto it = std::find(c->linePaths.begin(), c->linePaths.end(), files[i]);
    if (it == c->linePaths.end()) {
      map[i] = (U32)c->linePaths.size();
      c->linePaths.push_back(files[i]);
    } else {
      map[i] = (U32)(it - c->linePaths.begin());
    }
    AddFile(c, files[i], rootKey);
  }
  for (const auto& r2 : rows) {
    ELF_LINE_ROW row{};
    row.address = (U32)r2.addr;
    row.line = r2.line;
    row.column = r2.column;
    row.fileIndex = r2.fileIndex < map.size() ? map[r2.fileIndex] : 0;
    row.unitOffset = rootKey;
    row.isStmt = r2.isStmt;
    row.endSequence = r2.endSequence;
    c->lineRows.push_back(row);
  }
  return 1;
}

void AddMacros(DW_CTX* c, U32 rootKey) {
  dwb::Die root = GetDie(c, rootKey);
  if (!root) return;
  std::vector<dwb::MacroRecord> recs;
  if (dwb::GetMacros(c->s, root, recs) <= 0) return;
  for (const auto& m : recs) {
    int kind = 5;
    switch (m.code) {
    case 1: case 5: case 8: case 11: kind = 0; break;
    case 2: case 6: case 9: case 12: kind = 1; break;
    case 3: kind = 2; break;
    case 4: kind = 3; break;
    case 7: kind = 4; break;
    }
    if (kind != 0) continue;
    std::unique_ptr<char[]> t(new char[m.text.size() + 1]);
    memcpy(t.get(), m.text.c_str(), m.text.size() + 1);
    c->macros.push_back({kind, m.fileIndex, m.line, t.get()});
    c->macroTexts.push_back(std::move(t));
  }
}

bool NameIndexTag(U32 t) {
  switch (t) {
  case 1: case 2: case 4: case 19: case 23: case 31: case 15: case 16: case 38: case 53: case 55: case 13: case 5:
  case 52: case 21: case 46: case 29: case 25: case 32: case 66: case 39:
    return true;
  default:
    return false;
  }
}

void BuildNameIndex(DW_CTX* c) {
  const size_t sum = c->lists[ELF_LIST_TYPES].size() + c->lists[ELF_LIST_GLOBALS].size() +
                     c->lists[ELF_LIST_FUNCTIONS].size();
  c->nameIndex.Create(sum ? (int)std::min<size_t>(sum, 0x7FFFFFF) : 1021, 1, KEY_HASH::TAG_NAME_INDEX);
  for (int l : {ELF_LIST_TYPES, ELF_LIST_GLOBALS, ELF_LIST_FUNCTIONS}) {
    for (U64 k : c->lists[l]) {
      const U32 key = (U32)k;
      const U32 tag = TagOf(c, key);
      if (!NameIndexTag(tag) || IsDeclAttr(c, key)) continue;
      dwb::Die d = GetDie(c, key);
      const char* n = d ? dwb::Name(d) : nullptr;
      if (!n) continue;
      c->nameIndex.Insert(ELF_HashName(n), key);
    }
  }
}

} // namespace

// ---- public: parse -------------------------------------------------------------

DW_CTX* DwCtx(const ELF_FILE* f) { return f ? static_cast<DW_CTX*>(f->dwarf) : nullptr; }

U32 ELF_HashName(const char* s) {
  if (!s) return 0;
  U32 h = 5381;
  for (; *s; ++s) h = h * 33u + (U32)(I32)(signed char)*s;
  return h;
}

void DWARF_Install() {
  ELF_SetDebugInfoParser(ELF_ParseDebugInfo);
  ELF_SetDebugInfoCloser(ELF_FreeDebugInfo);
  CElfApi::SetDebugStagesHook(DWARF_RunWrapperStages);
}

int ELF_ParseDebugInfo(ELF_FILE* f) {
  if (!f) return -1;
  ELF_FreeDebugInfo(f);
  const I64 t0 = NowMs();
  int err = 0;
  dwb::Session* s = dwb::Open(f, &err);
  if (!s) {
    // A program without debug sections is no failure.
    if (err == 0) return 0;
    ELF_ReportLogged(133);
    return -1;
  }
  DW_CTX* c = new DW_CTX;
  c->s = s;
  c->f = f;
  f->dwarf = c;
  f->cfaScale = FindSection(f, ".note.iar") >= 0 ? 4 : 1;
  f->sourceLanguage = ELF_SRC_LANG_C;
  const int iInfo = FindSection(f, ".debug_info");
  const int iTypes = FindSection(f, ".debug_types");
  c->infoSize = iInfo >= 0 ? f->sections[iInfo].sh_size : 0;
  c->typesSize = iTypes >= 0 ? f->sections[iTypes].sh_size : 0;
  if (c->infoSize > 0x7FFFFFFF || c->typesSize > 0x7FFFFFFF) {
    ELF_ReportLogged(133);
    return -1;
  }
  c->debugSize = c->infoSize + c->typesSize;
  c->dieTable.assign(c->debugSize, nullptr);
  c->dieInfoTable.assign(c->debugSize, nullptr);
  c->fileTable.Create(10000, 1, KEY_HASH::TAG_FILE_TABLE);

  // Units of both sections, headers first so that unit look-ups work during the walk.
  std::vector<DW_UNIT> typeUnits, infoUnits;
  for (int sect = 0; sect < 2; ++sect) {
    const bool isInfo = sect == 0;
    if (isInfo ? !c->infoSize : !c->typesSize) continue;
    for (int n = 0; n < 10000000; ++n) {
      dwb::UnitHeader h;
      if (dwb::NextUnit(s, isInfo, &h) != 1) break;
      dwb::Die root = dwb::UnitRoot(s, isInfo);
      DW_UNIT u;
      u.offset = h.offset;
      u.nextOffset = h.nextOffset;
      u.version = h.version;
      u.addrSize = h.addrSize;
      u.isInfo = isInfo;
      u.signature = h.signature;
      const U64 tk = h.offset + h.typeOffset;
      u.isTypeUnit = !isInfo || h.unitType == 2 /* DW_UT_type */ || h.unitType == 6 /* split type */;
      if (root) {
        u.rootKey = KeyOf(root);
        dwb::FreeDie(s, root);
      }
      if (u.isTypeUnit && h.typeOffset && tk <= 0x7FFFFFFFu) u.typeKey = (U32)tk | (isInfo ? 0 : KEY_TYPES_BIT);
      if (h.version > c->dwarfVersion) c->dwarfVersion = h.version;
      c->units.push_back(u);
      if (h.nextOffset <= h.offset) break;
    }
  }
  std::stable_sort(c->units.begin(), c->units.end(), [](const DW_UNIT& a, const DW_UNIT& b) {
    if (a.isInfo != b.isInfo) return a.isInfo;
    return a.offset < b.offset;
  });

  // Type units first (.debug_types, then DWARF 5 type units), then compile units.
  I64 tTypes = 0;
  for (int pass = 0; pass < 2; ++pass) {
    for (DW_UNIT& u : c->units) {
      if (!u.rootKey || (pass == 0) != u.isTypeUnit) continue;
      dwb::Die root = GetDie(c, u.rootKey);
      if (!root) continue;
      if (pass == 0) {
        const I64 t = NowMs();
        ParseUnitTree(c, root, u.isInfo, true);
        tTypes += NowMs() - t;
        ++c->typeUnitCount;
        continue;
      }
      c->lists[ELF_LIST_UNITS].push_back(u.rootKey);
      bool found;
      u.lowPc = AttrValue(c, u.rootKey, AT_LOW_PC, &found);
      u.language = UnitLanguage(c, u.rootKey);
      if (u.language == 2) f->sourceLanguage = ELF_SRC_LANG_CPP;
      if (!c->producerKnown) {
        dwb::AttrValue v;
        if (GetAttr(c, u.rootKey, AT_PRODUCER, &v) && v.str) {
          c->producer = v.str;
          c->producerKnown = true;
        }
      }
      I64 t = NowMs();
      if (ParseUnitTree(c, root, u.isInfo, false) < 0) ELF_ReportLogged(109);
      ReportTime("parsed debug info tree in ms:  %ld", NowMs() - t);
      t = NowMs();
      std::vector<dwb::LineRow> rows;
      std::vector<std::string> files;
      const int lr = AddUnitLines(c, u.rootKey, rows, files);
      ReportTime("parsed source file info in ms: %ld", NowMs() - t);
      if (lr < 0) ELF_ReportLogged(110);
      ReportTime("parsed source line info in ms: %ld", 0);
    }
    if (pass == 0 && c->typeUnitCount) ReportTime("parsed type unit tree in ms:   %ld", tTypes);
  }

  // Entry function: DW_AT_main_subprogram, else "main".
  for (U64 k : c->lists[ELF_LIST_FUNCTIONS])
    if (Flag(c, (U32)k, AT_MAIN_SUBPROGRAM)) {
      c->entryFunction = (U32)k;
      break;
    }
  if (!c->entryFunction)
    for (U64 k : c->lists[ELF_LIST_FUNCTIONS]) {
      dwb::Die d = GetDie(c, (U32)k);
      const char* n = d ? dwb::Name(d) : nullptr;
      if (n && !strcmp(n, "main")) {
        c->entryFunction = (U32)k;
        break;
      }
    }

  I64 t = NowMs();
  for (U64 k : c->lists[ELF_LIST_UNITS]) AddMacros(c, (U32)k);
  ReportTime("parsed macro info in ms: %ld", NowMs() - t);

  t = NowMs();
  if (DWARF_LoadCallFrames(f) < 0) ELF_ReportLogged(113);
  ReportTime("parsed call frame info in ms:  %ld", NowMs() - t);

  t = NowMs();
  BuildNameIndex(c);
  ReportTime("intialized symbol name index in ms:  %ld", NowMs() - t);

  ELF_ReportLine("File Size: %u", f->fileSize);
  ELF_ReportLine("DWARF Symbol Count: %u", c->dieCount);
  ELF_ReportLine("ELF Symbol Count: %u", (unsigned)f->symbols.size());
  ELF_ReportLine("Data Encoding: %s", f->bigEndian ? "Big Endian" : "Little Endian");
  ELF_ReportLine("Source Language: %s", f->sourceLanguage == ELF_SRC_LANG_CPP ? "C++" : "C");
  ELF_ReportLine("total init time: %ld ms", (long)(NowMs() - t0));
  ELF_ReportLine("DWARF Version: %d", (int)c->dwarfVersion);
  f->dwarfVersion = (U16)c->dwarfVersion;
  return 0;
}

void ELF_FreeDebugInfo(ELF_FILE* f) {
  DW_CTX* c = DwCtx(f);
  if (!c) return;
  for (ELF_DIE_INFO* i : c->dieInfoTable) {
    if (!i) continue;
    delete i->extra;
    delete i;
  }
  DWARF_ForgetCallFrames(f);
  for (dwb::Die d : c->dieTable)
    if (d) dwb::FreeDie(c->s, d);
  dwb::Close(c->s);
  delete c;
  f->dwarf = nullptr;
}

bool ELF_HasDebugInfo(const ELF_FILE* f) { return DwCtx(f) != nullptr; }

// ---- public: lists and facts --------------------------------------------------------

int ELF_GetListCount(const ELF_FILE* f, int List) {
  DW_CTX* c = DwCtx(f);
  if (!c || List < 0 || List >= ELF_LIST_COUNT) return 0;
  return (int)c->lists[List].size();
}

ELF_SYM_HANDLE ELF_GetListItem(const ELF_FILE* f, int List, int Index) {
  DW_CTX* c = DwCtx(f);
  if (!c || List < 0 || List >= ELF_LIST_COUNT || Index < 0 || (size_t)Index >= c->lists[List].size()) return 0;
  return ELF_MakeDieHandle(f, (U32)c->lists[List][Index]);
}

U32 ELF_GetDwarfVersion(const ELF_FILE* f) { return DwCtx(f) ? DwCtx(f)->dwarfVersion : 0; }
U32 ELF_GetDieCount(const ELF_FILE* f) { return DwCtx(f) ? DwCtx(f)->dieCount : 0; }
U32 ELF_GetTypeUnitCount(const ELF_FILE* f) { return DwCtx(f) ? DwCtx(f)->typeUnitCount : 0; }
ELF_SYM_HANDLE ELF_GetEntryFunction(const ELF_FILE* f) {
  DW_CTX* c = DwCtx(f);
  return c && c->entryFunction ? ELF_MakeDieHandle(f, c->entryFunction) : 0;
}
const char* ELF_GetProducer(const ELF_FILE* f) { return DwCtx(f) ? DwCtx(f)->producer.c_str() : ""; }

int ELF_GetNumLineRows(const ELF_FILE* f) { return DwCtx(f) ? (int)DwCtx(f)->lineRows.size() : 0; }
const ELF_LINE_ROW* ELF_GetLineRow(const ELF_FILE* f, int i) {
  DW_CTX* c = DwCtx(f);
  if (!c || i < 0 || (size_t)i >= c->lineRows.size()) return nullptr;
  return &c->lineRows[i];
}
const char* ELF_GetLineRowPath(const ELF_FILE* f, int i) {
  const ELF_LINE_ROW* r = ELF_GetLineRow(f, i);
  DW_CTX* c = DwCtx(f);
  if (!r || r->fileIndex >= c->linePaths.size()) return "";
  return c->linePaths[r->fileIndex].c_str();
}
int ELF_GetNumSourceFiles(const ELF_FILE* f) { return DwCtx(f) ? (int)DwCtx(f)->sourceFiles.size() : 0; }
const char* ELF_GetSourceFile(const ELF_FILE* f, int i) {
  DW_CTX* c = DwCtx(f);
  if (!c || i < 0 || (size_t)i >= c->sourceFiles.size()) return "";
  return c->sourceFiles[i].c_str();
}
std::vector<ELF_SYM_HANDLE> ELF_GetFileUnits(const ELF_FILE* f, const char* sPath) {
  std::vector<ELF_SYM_HANDLE> out;
  DW_CTX* c = DwCtx(f);
  U64 v;
  if (!c || !sPath || !c->fileTable.Find(ELF_HashName(sPath), &v) || v >= c->fileRecs.size()) return out;
  for (U32 k : c->fileRecs[v].units) out.push_back(ELF_MakeDieHandle(f, k));
  return out;
}
int ELF_GetNumMacros(const ELF_FILE* f) { return DwCtx(f) ? (int)DwCtx(f)->macros.size() : 0; }
const ELF_MACRO* ELF_GetMacro(const ELF_FILE* f, int i) {
  DW_CTX* c = DwCtx(f);
  if (!c || i < 0 || (size_t)i >= c->macros.size()) return nullptr;
  return &c->macros[i];
}

// ---- internal access for the entry queries ------------------------------------------
namespace dwarf_internal {
dwb::Die GetDieOf(DW_CTX* c, U32 key) { return GetDie(c, key); }
U32 TagOfKey(DW_CTX* c, U32 key) { return TagOf(c, key); }
ELF_DIE_INFO* InfoOf(DW_CTX* c, U32 key) { return Info(c, key); }
ELF_DIE_EXTRA* ExtraOf(DW_CTX* c, U32 key) { return Extra(c, key); }
bool Attr(DW_CTX* c, U32 key, U32 code, dwb::AttrValue* v) { return GetAttr(c, key, code, v); }
U64 AttrNumber(DW_CTX* c, U32 key, U32 code, bool* pFound) { return AttrValue(c, key, code, pFound); }
bool HasOwnAttr(DW_CTX* c, U32 key, U32 code) { return HasAttr(c, key, code); }
U32 RefAttr(DW_CTX* c, U32 key, U32 code) { return GetRefAttr(c, key, code); }
U32 InheritedOwner(DW_CTX* c, U32 key, U32 code) { return AttrOwner(c, key, code, 0); }
const DW_UNIT* UnitOf(DW_CTX* c, U32 key) { return UnitOfKey(c, key); }
bool StaticAddr(DW_CTX* c, U32 key, U32* pAddr) { return StaticAddress(c, key, pAddr); }
U32 KeyOfDie(dwb::Die d) { return KeyOf(d); }
} // namespace dwarf_internal
