#include "elf/dwarf/location.h"
#include "elf/dwarf/dwarf_internal.h"
#include "elf/dwarf/expr_eval.h"
#include "elf/dwarf/target_access.h"
#include "elf/elf_file.h"
#include "elf/elfapi.h"
#include "log/log.h"

#include <QMutexLocker>

#include <algorithm>
#include <deque>
#include <mutex>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unordered_map>

namespace {
U32 g_SpRegister = 13;
char g_acLocText[64];

const char* RegText(U32 reg, char* buf, size_t n) {
  if (reg == ELF_REG_UNDEFINED) return "<undefined>";
  if (reg == ELF_REG_SAME) return "same as caller";
  snprintf(buf, n, "R%u", reg);
  return buf;
}

bool IsMemoryKind(U32 k) {
  return k == 2 || k == 3 || k == 6 || k == 10 || k == 11 || k == 12 || k == 15 || k == 16;
}
bool IsRegisterKind(U32 k) { return k == 4 || k == 5; }
} // namespace

void ELF_SetSpRegister(U32 Reg) { g_SpRegister = Reg; }
U32 ELF_GetSpRegister() { return g_SpRegister; }

const char* ELF_LocationToText(const ELF_SYM_LOC& Loc) {
  char* out = g_acLocText;
  const size_t n = sizeof g_acLocText;
  if (Loc.count == 0) {
    snprintf(out, n, "N/A");
    return out;
  }
  const ELF_LOC_PART& p = Loc.parts[0];
  const char* sign = p.offset >= 1 ? "+" : "-";
  const int mag = p.offset < 0 ? -(int)p.offset : (int)p.offset;
  const bool off = p.offset != 0;
  char reg[32];
  switch (p.kind) {
  case 1: snprintf(out, n, "const"); break;
  case 2: snprintf(out, n, "[%X]", p.address); break;
  case 3:
    if (off) snprintf(out, n, "[%X] %s %d", p.address, sign, mag);
    else snprintf(out, n, "[%X]", p.address);
    break;
  case 4: snprintf(out, n, "%s", RegText(p.reg, reg, sizeof reg)); break;
  case 5:
    if (off) snprintf(out, n, "%s %s %d", RegText(p.reg, reg, sizeof reg), sign, mag);
    else snprintf(out, n, "%s", RegText(p.reg, reg, sizeof reg));
    break;
  case 6:
    if (off) snprintf(out, n, "[R%u] %s %d", p.reg, sign, mag);
    else snprintf(out, n, "[%s]", RegText(p.reg, reg, sizeof reg));
    break;
  case 7: off ? snprintf(out, n, "SP %s %d", sign, mag) : snprintf(out, n, "SP"); break;
  case 8: off ? snprintf(out, n, "BP %s %d", sign, mag) : snprintf(out, n, "BP"); break;
  case 9: off ? snprintf(out, n, "CFA %s %d", sign, mag) : snprintf(out, n, "CFA"); break;
  case 10: off ? snprintf(out, n, "[SP %s %d]", sign, mag) : snprintf(out, n, "[SP]"); break;
  case 11: off ? snprintf(out, n, "[BP %s %d]", sign, mag) : snprintf(out, n, "[BP]"); break;
  case 12: off ? snprintf(out, n, "[CFA %s %d]", sign, mag) : snprintf(out, n, "[CFA]"); break;
  case 13: off ? snprintf(out, n, "Parent value %s %d", sign, mag) : snprintf(out, n, "Parent value"); break;
  case 14: off ? snprintf(out, n, "Parent loc %s %d", sign, mag) : snprintf(out, n, "Parent loc"); break;
  case 15: snprintf(out, n, "%s (on entry)", "?"); break;
  case 17: snprintf(out, n, "DWARF expression"); break;
  default: snprintf(out, n, "N/A"); break;
  }
  return out;
}

bool ELF_IsMixedLocation(const ELF_SYM_LOC& Loc) {
  bool reg = false, mem = false;
  for (U32 i = 0; i < Loc.count && i < 2; ++i) {
    reg |= IsRegisterKind(Loc.parts[i].kind);
    mem |= IsMemoryKind(Loc.parts[i].kind);
  }
  return reg && mem;
}

bool ELF_IsMemoryLocation(const ELF_SYM_LOC& Loc) {
  if (Loc.count == 0) return false;
  if (Loc.count == 1) return IsMemoryKind(Loc.parts[0].kind);
  return IsMemoryKind(Loc.parts[0].kind) && !ELF_IsMixedLocation(Loc);
}

ELF_SYM_LOC ELF_RuleToLocation(U32 ValueType, bool OffsetRelevant, U32 Column, U32 Register, I32 Offset) {
  ELF_SYM_LOC l;
  memset(&l, 0, sizeof l);
  ELF_LOC_PART& p = l.parts[0];
  if (Register == ELF_REG_SAME) {
    l.count = 1;
    p.kind = ELF_LOC_REG;
    p.reg = Column;
    return l;
  }
  if (ValueType == 1) {
    l.count = 1;
    p.kind = ELF_LOC_CFA_VALUE;
    p.offset = Offset;
    return l;
  }
  if (ValueType != 0) {
    ELF_ReportLogged(ValueType == 2 ? 115 : ValueType == 3 ? 116 : 117);
    return l;
  }
  l.count = 1;
  if (!OffsetRelevant) {
    p.kind = ELF_LOC_REG;
    p.reg = Register;
    return l;
  }
  p.offset = Offset;
  if (Column != 0 && Column != g_SpRegister) {
    p.kind = ELF_LOC_AT_CFA; // saved at CFA + offset
  } else {
    p.kind = ELF_LOC_REG_VALUE; // the CFA rule itself
    p.reg = Register;
  }
  return l;
}

namespace {
struct CfiState {
  bool loaded = false;
  int status = 0;
  int raColumn = -1;
  U32 cachePc = 0;
  ELF_SYM_LOC cacheLoc{};
};
// Per file, beside the reader's context (one entry per slot).
CfiState g_aCfi[ELF_MAX_FILES];
const ELF_FILE* g_aCfiOwner[ELF_MAX_FILES];

CfiState* Cfi(const ELF_FILE* f) {
  DW_CTX* c = DwCtx(f);
  if (!c) return nullptr;
  for (int i = 0; i < ELF_MAX_FILES; ++i)
    if (elf_internal::g_aSlots[i] == f) {
      if (g_aCfiOwner[i] != f || !g_aCfi[i].loaded) {
        g_aCfi[i] = CfiState();
        g_aCfiOwner[i] = f;
        g_aCfi[i].loaded = true;
        g_aCfi[i].status = dwb::CfiLoad(c->s, &g_aCfi[i].raColumn);
      }
      return &g_aCfi[i];
    }
  return nullptr;
}
} // namespace

// Called by the debug parse (load step 7) and by ELF_FreeDebugInfo.
int DWARF_LoadCallFrames(ELF_FILE* f) {
  for (int i = 0; i < ELF_MAX_FILES; ++i)
    if (g_aCfiOwner[i] == f) {
      g_aCfiOwner[i] = nullptr;
      g_aCfi[i] = CfiState();
    }
  CfiState* s = Cfi(f);
  return s ? (s->status < 0 ? -1 : 0) : 0;
}
void DWARF_ForgetCallFrames(const ELF_FILE* f) {
  for (int i = 0; i < ELF_MAX_FILES; ++i)
    if (g_aCfiOwner[i] == f) {
      g_aCfiOwner[i] = nullptr;
      g_aCfi[i] = CfiState();
    }
}

int ELF_GetReturnAddressColumn(const ELF_FILE* f) {
  CfiState* s = Cfi(f);
  return s ? s->raColumn : -1;
}

int ELF_GetNumFrameDescriptions(const ELF_FILE* f) {
  CfiState* s = Cfi(f);
  return s && s->status > 0 ? dwb::CfiFdeCount(DwCtx(f)->s) : 0;
}

bool ELF_GetFrameDescriptionRange(const ELF_FILE* f, int i, U32* pStart, U32* pEnd) {
  if (i < 0 || i >= ELF_GetNumFrameDescriptions(f)) return false;
  U64 lo, hi;
  if (!dwb::CfiFdeRange(DwCtx(f)->s, i, &lo, &hi)) return false;
  *pStart = (U32)lo;
  *pEnd = (U32)hi;
  return true;
}

std::vector<U32> ELF_GetFrameRowAddresses(const ELF_FILE* f, int i) {
  std::vector<U32> out;
  if (i < 0 || i >= ELF_GetNumFrameDescriptions(f)) return out;
  std::vector<U64> pcs;
  dwb::CfiRowPcs(DwCtx(f)->s, i, pcs);
  for (U64 p : pcs) out.push_back((U32)p);
  return out;
}

int ELF_GetRegisterRules(ELF_FILE* f, U32 Pc, int Count, ELF_SYM_LOCS& Rows) {
  Rows.clear();
  CfiState* s = Cfi(f);
  if (!s || s->status <= 0 || Count <= 0) return 0;
  if (Count > 16400) Count = 16400;
  std::vector<dwb::CfiRule> regs;
  dwb::CfiRule cfa{};
  U64 rowPc = 0;
  if (dwb::CfiRulesAt(DwCtx(f)->s, Pc, Count, regs, cfa, &rowPc) <= 0) return 0;
  const U32 sp = g_SpRegister;
  for (int col = 0; col < Count; ++col) {
    if ((U32)col == sp) {
      Rows.push_back(ELF_RuleToLocation(cfa.valueType, cfa.offsetRelevant, sp, cfa.reg,
                                        (I32)(cfa.offset * f->cfaScale)));
    } else if ((size_t)col < regs.size()) {
      const dwb::CfiRule& r = regs[col];
      Rows.push_back(ELF_RuleToLocation(r.valueType, r.offsetRelevant, (U32)col, r.reg, (I32)r.offset));
    } else {
      // Columns beyond the library's table keep their value.
      Rows.push_back(ELF_RuleToLocation(0, false, (U32)col, ELF_REG_SAME, 0));
    }
  }
  return (int)Rows.size();
}

ELF_SYM_LOC ELF_GetCfaRule(ELF_FILE* f, U32 Pc) {
  ELF_SYM_LOC none;
  memset(&none, 0, sizeof none);
  CfiState* s = Cfi(f);
  if (!s || s->status <= 0) return none;
  if (s->cachePc && s->cachePc == Pc) return s->cacheLoc;
  std::vector<dwb::CfiRule> regs;
  dwb::CfiRule cfa{};
  U64 rowPc = 0;
  if (dwb::CfiRulesAt(DwCtx(f)->s, Pc, 1, regs, cfa, &rowPc) <= 0) return none;
  s->cacheLoc = ELF_RuleToLocation(cfa.valueType, cfa.offsetRelevant, g_SpRegister, cfa.reg, (I32)cfa.offset);
  s->cachePc = Pc;
  return s->cacheLoc;
}

// ---- location decoder -------------------------------------------------------------

namespace dwarf_internal {
dwb::Die GetDieOf(DW_CTX* c, U32 key);
U32 TagOfKey(DW_CTX* c, U32 key);
ELF_DIE_INFO* InfoOf(DW_CTX* c, U32 key);
bool Attr(DW_CTX* c, U32 key, U32 code, dwb::AttrValue* v);
U32 InheritedOwner(DW_CTX* c, U32 key, U32 code);
bool HasOwnAttr(DW_CTX* c, U32 key, U32 code);
U32 RefAttr(DW_CTX* c, U32 key, U32 code);
} // namespace dwarf_internal

namespace {
using namespace dwarf_internal;

enum : U32 { AT_LOCATION = 2, AT_DATA_MEMBER_LOCATION = 56, AT_FRAME_BASE = 64, AT_DATA_BIT_OFFSET = 107 };


struct Ctx {
  ELF_FILE* f = nullptr;
  DW_CTX* c = nullptr;
  U32 key = 0;
};

Ctx DecodeHandle(ELF_SYM_HANDLE h) {
  Ctx x;
  if ((h & 0xFFFFFF0000000000ull) != ELF_HANDLE_TAG || ((h >> 32) & 7) != 1) return x;
  const U32 slot = (U32)(h >> 35) & 7;
  if (slot >= ELF_MAX_FILES) return x;
  ELF_FILE* f = elf_internal::g_aSlots[slot];
  DW_CTX* c = DwCtx(f);
  if (!c || !(U32)h || !GetDieOf(c, (U32)h)) return x;
  x.f = f;
  x.c = c;
  x.key = (U32)h;
  return x;
}

ELF_SYM_LOC Empty() {
  ELF_SYM_LOC l;
  memset(&l, 0, sizeof l);
  return l;
}

ELF_SYM_LOC ParseOps(const Ctx& x, U32 pc, U32 attr, const std::vector<dwb::LocOp>& ops, int depth);

// ---- locations that only an evaluation can give ---------------------------------

// Operation lists of such locations, numbered in the order first seen; equal
// lists share a number. A location part keeps the number, so it stays plain data.
std::mutex g_ExprMutex;
std::deque<std::vector<dwb::LocOp>> g_Exprs;
std::unordered_map<std::string, U32> g_ExprNumbers;
constexpr size_t kMaxExpressions = 1u << 20;

std::string ExprKey(const std::vector<dwb::LocOp>& ops) {
  std::string k;
  for (const dwb::LocOp& op : ops) {
    k.append((const char*)&op.atom, 1);
    k.append((const char*)&op.op1, 8);
    k.append((const char*)&op.op2, 8);
    k.append((const char*)&op.offset, 8);
    const U32 n = (U32)op.block.size();
    k.append((const char*)&n, 4);
    k.append((const char*)op.block.data(), n);
  }
  return k;
}

// The number of a list, 0 when the table is full.
U32 InternExpression(const std::vector<dwb::LocOp>& ops) {
  std::lock_guard<std::mutex> Lock(g_ExprMutex);
  const std::string k = ExprKey(ops);
  const auto it = g_ExprNumbers.find(k);
  if (it != g_ExprNumbers.end()) return it->second;
  if (g_Exprs.size() >= kMaxExpressions) return 0;
  g_Exprs.push_back(ops);
  return g_ExprNumbers[k] = (U32)g_Exprs.size();
}

// Whether the two-part model states a location list exactly: lone places
// (address, register, register or frame base with offset, CFA, implicit
// value), a place and DW_OP_plus_uconst, a register-based value
// (DW_OP_stack_value after one of them), or pieces of lone places.
bool FitsPartModel(const std::vector<dwb::LocOp>& ops) {
  auto Place = [](U8 a) {
    return a == 0x03 || (a >= 0x50 && a <= 0x6F) || (a >= 0x70 && a <= 0x8F) || a == 0x91 || a == 0x92 || a == 0x9C ||
           a == 0x9E;
  };
  auto Based = [](U8 a) { return (a >= 0x50 && a <= 0x8F) || a == 0x91 || a == 0x92 || a == 0x9C; };
  if (ops.size() == 1) return Place(ops[0].atom);
  if (ops.size() == 2 && ops[1].atom == 0x23) return Place(ops[0].atom) && ops[0].atom != 0x9E;
  if (ops.size() == 2 && ops[1].atom == 0x9F) return Based(ops[0].atom);
  // Pieces: each a lone place followed by DW_OP_piece.
  if (ops.empty() || ops.size() % 2) return false;
  for (size_t i = 0; i < ops.size(); i += 2)
    if (!Place(ops[i].atom) || ops[i + 1].atom != 0x93) return false;
  return true;
}

// A location of up to two pieces, each evaluated when it is resolved.
ELF_SYM_LOC ExpressionLocation(const std::vector<dwb::LocOp>& ops) {
  ELF_SYM_LOC l = Empty();
  std::vector<dwb::LocOp> piece;
  auto Flush = [&](U32 Size) {
    if (l.count >= 2) {
      ELF_ReportLogged(105);
      return false;
    }
    ELF_LOC_PART& p = l.parts[l.count++];
    memset(&p, 0, sizeof p);
    p.size = Size;
    // An empty piece is optimised out: the part stays kind 0.
    if (!piece.empty()) {
      p.address = InternExpression(piece);
      if (p.address) p.kind = ELF_LOC_EXPR;
    }
    piece.clear();
    return true;
  };
  bool Pieces = false;
  for (const dwb::LocOp& op : ops) {
    if (op.atom == 0x93) {
      Pieces = true;
      if (!Flush((U32)op.op1)) break;
    } else if (op.atom == 0x9D) {
      ELF_ReportLogged(106);
      return Empty();
    } else {
      piece.push_back(op);
    }
  }
  if (!piece.empty() || !Pieces) Flush(0);
  return l;
}

// A sub-expression of DW_OP_entry_value, as a one-entry list.
ELF_SYM_LOC ParseBlock(const Ctx& x, U32 pc, U32 attr, const std::vector<U8>& block, int depth) {
  std::vector<dwb::LocOp> sub;
  if (depth > 4 || !dwexpr::DecodeOps(block.data(), block.size(), 4, sub)) return Empty();
  return ParseOps(x, pc, attr, sub, depth + 1);
}

ELF_SYM_LOC ParseOps(const Ctx& x, U32 pc, U32 attr, const std::vector<dwb::LocOp>& ops, int depth) {
  if (attr == AT_LOCATION && !FitsPartModel(ops)) return ExpressionLocation(ops);
  ELF_SYM_LOC l = Empty();
  for (const dwb::LocOp& op : ops) {
    const U8 a = op.atom;
    ELF_LOC_PART p;
    memset(&p, 0, sizeof p);
    bool made = true;
    if (a == 0x03) {
      p.kind = ELF_LOC_ADDR;
      p.address = (U32)op.op1;
    } else if (a >= 0x08 && a <= 0x0F) {
      p.kind = ELF_LOC_CONST;
      p.value = op.op1;
    } else if (a >= 0x50 && a <= 0x6F) {
      p.kind = ELF_LOC_REG;
      p.reg = a - 0x50;
    } else if ((a >= 0x70 && a <= 0x8F) || a == 0x92) {
      const U32 reg = a == 0x92 ? (U32)op.op1 : (U32)(a - 0x70);
      const I32 off = (I32)(a == 0x92 ? op.op2 : op.op1);
      if (attr == AT_FRAME_BASE) {
        p.kind = ELF_LOC_REG_VALUE;
        p.reg = reg;
        p.offset = off;
      } else {
        p.kind = ELF_LOC_AT_REG;
        p.baseKind = ELF_LOC_REG_VALUE;
        p.baseRegister = reg;
        p.baseOffset = off;
      }
    } else if (a == 0x91) {
      p.kind = ELF_LOC_AT_BP;
      p.offset = (I32)op.op1;
    } else if (a == 0x23) {
      p.kind = ELF_LOC_PARENT_LOC;
      p.offset = (I32)op.op1;
    } else if (a == 0x9C) {
      const ELF_SYM_LOC cfa = ELF_GetCfaRule(x.f, pc);
      if (cfa.count) p = cfa.parts[0];
      else made = false;
    } else if (a == 0x9E) {
      p.kind = ELF_LOC_CONST;
      size_t n = op.block.size();
      if (n > 8) {
        ELF_ReportLogged(103);
        n = 8;
      }
      U64 v = 0;
      memcpy(&v, op.block.data(), n);
      p.value = v;
    } else if (a == 0xA3 || a == 0xF3) {
      const ELF_SYM_LOC inner = ParseBlock(x, pc, attr, op.block, depth);
      if (!inner.count) {
        ELF_ReportLogged(104);
        made = false;
      } else {
        p.kind = ELF_LOC_ENTRY_VALUE;
        p.baseKind = inner.parts[0].kind;
        p.baseAddress = inner.parts[0].address;
        p.baseRegister = inner.parts[0].reg;
        p.baseOffset = inner.parts[0].offset;
      }
    } else {
      made = false;
    }
    if (made) {
      if (l.count >= 2) {
        ELF_ReportLogged(105);
        break;
      }
      l.parts[l.count++] = p;
      continue;
    }
    if (a == 0x93) {
      if (l.count) l.parts[l.count - 1].size = (U32)op.op1;
    } else if (a == 0x9D) {
      ELF_ReportLogged(106);
    } else if (a != 0x9F) {
      ELF_ReportLogged(107);
    }
  }
  if (!l.count) return l;
  if (l.count == 2 && l.parts[1].kind == ELF_LOC_PARENT_LOC) {
    ELF_LOC_PART& p = l.parts[0];
    const I32 off = l.parts[1].offset;
    if (p.kind == ELF_LOC_ADDR) p.address += (U32)off;
    else if (p.kind == ELF_LOC_REG) {
      p.kind = ELF_LOC_REG_VALUE;
      p.offset = off;
    } else p.offset += off;
    memset(&l.parts[1], 0, sizeof l.parts[1]);
    l.count = 1;
  }
  if (!ops.empty() && ops.back().atom == 0x9F && l.count == 1) {
    ELF_LOC_PART& p = l.parts[0];
    // "At [register + offset]" keeps its register in the base fields already.
    if (p.kind != ELF_LOC_AT_REG) p.baseRegister = p.reg;
    p.baseKind = p.kind;
    p.baseAddress = (U32)p.offset;
    p.kind = ELF_LOC_INNER_VALUE;
  }
  return l;
}

ELF_SYM_LOC AttrLocation(const Ctx& x, U32 filePc, U32 attr) {
  const U32 owner = InheritedOwner(x.c, x.key, attr);
  std::vector<dwb::LocEntry> entries;
  int r = 0;
  dwb::AttrValue v;
  bool numeric = false;
  if (owner) {
    numeric = Attr(x.c, owner, attr, &v) &&
              (v.cls == dwb::AC_UNSIGNED || v.cls == dwb::AC_SIGNED) && attr == AT_DATA_MEMBER_LOCATION;
    if (!numeric) r = dwb::GetLocations(x.c->s, GetDieOf(x.c, owner), attr, entries);
  }
  if (r > 0) {
    for (const dwb::LocEntry& e : entries) {
      if (e.ops.empty()) continue;
      bool take;
      if (filePc == 0 || filePc == 0xFFFFFFFFu) take = true;
      else if (e.lo == e.hi) take = filePc == e.hi;
      else take = e.lo <= filePc && filePc < (e.hi > 0xFFFFFFFFull ? 0xFFFFFFFFull : e.hi);
      if (!take) continue;
      ELF_SYM_LOC l = ParseOps(x, filePc, attr, e.ops, 0);
      if (l.count || attr != AT_DATA_MEMBER_LOCATION) return l;
      break;
    }
    if (attr != AT_DATA_MEMBER_LOCATION) return Empty();
  }
  if (attr != AT_DATA_MEMBER_LOCATION) return Empty();
  ELF_SYM_LOC l = Empty();
  ELF_DIE_INFO* i = InfoOf(x.c, x.key);
  const bool inUnion = i && i->parent && TagOfKey(x.c, i->parent) == ELF_TAG_UNION;
  if (inUnion || numeric || HasOwnAttr(x.c, x.key, AT_DATA_BIT_OFFSET)) {
    l.count = 1;
    l.parts[0].kind = ELF_LOC_PARENT_LOC;
    l.parts[0].offset = (!inUnion && numeric) ? (I32)v.u : 0;
  }
  return l;
}

void RelocateParts(ELF_SYM_LOC& l) {
  for (U32 i = 0; i < l.count && i < 2; ++i) {
    if (l.parts[i].address && l.parts[i].kind != ELF_LOC_EXPR)
      l.parts[i].address = ELF_RelocateAddress(l.parts[i].address, 1, 0);
    if (l.parts[i].baseAddress && l.parts[i].baseKind == ELF_LOC_ADDR)
      l.parts[i].baseAddress = ELF_RelocateAddress(l.parts[i].baseAddress, 1, 0);
  }
}
} // namespace

ELF_SYM_LOC ELF_GetAttrLocation(ELF_SYM_HANDLE h, U32 Pc, U32 Attribute) {
  Ctx x = DecodeHandle(h);
  if (!x.c) return Empty();
  const U32 filePc = (Pc == 0 || Pc == 0xFFFFFFFFu) ? Pc : ELF_UnrelocateAddress(Pc, 1, 0);
  ELF_SYM_LOC l = AttrLocation(x, filePc, Attribute);
  RelocateParts(l);
  return l;
}

ELF_SYM_LOC ELF_GetSymbolLocation(ELF_SYM_HANDLE h, U32 Pc) {
  const int row = ELF_GetSymbolRowOfHandle(h);
  if (row >= 0) {
    ELF_SYM_LOC l = Empty();
    if (ELF_IsFunctionType(ELF_GetSymbolType(h))) return l;
    l.count = 1;
    l.parts[0].kind = ELF_LOC_ADDR;
    l.parts[0].address = ELF_GetSymbolValue(h);
    return l;
  }
  Ctx x = DecodeHandle(h);
  if (!x.c) return Empty();
  const U32 tag = TagOfKey(x.c, x.key);
  U32 attr = AT_LOCATION;
  if (tag == ELF_TAG_MEMBER || tag == ELF_TAG_INHERITANCE) attr = AT_DATA_MEMBER_LOCATION;
  else if (tag == ELF_TAG_INLINED || tag == ELF_TAG_SUBPROGRAM) attr = AT_FRAME_BASE;
  ELF_SYM_LOC l = ELF_GetAttrLocation(h, Pc, attr);
  if (!l.count && tag == ELF_TAG_MEMBER) l = ELF_GetAttrLocation(h, Pc, AT_LOCATION);
  return l;
}

bool ELF_IsRegisterLocation(const ELF_SYM_LOC& Loc) {
  if (!Loc.count) return false;
  const U32 k = Loc.parts[0].kind;
  if (Loc.count == 1) return k == 4 || k == 5;
  return (k == 4 || k == 5) && !ELF_IsMixedLocation(Loc);
}
bool ELF_IsConstLocation(const ELF_SYM_LOC& Loc) {
  return Loc.count && Loc.parts[0].kind == ELF_LOC_CONST && !ELF_IsMixedLocation(Loc);
}
bool ELF_IsResolvedLocation(const ELF_SYM_LOC& Loc) {
  if (!Loc.count) return false;
  for (U32 i = 0; i < Loc.count && i < 2; ++i) {
    const ELF_LOC_PART& p = Loc.parts[i];
    if (p.kind == 1 || p.kind == 2 || p.kind == 3) continue;
    if ((p.kind == 4 || p.kind == 5) && p.reg != ELF_REG_UNDEFINED && p.reg != ELF_REG_SAME) continue;
    return false;
  }
  return true;
}
bool ELF_IsStaticLocation(ELF_SYM_HANDLE h) {
  const ELF_SYM_LOC l = ELF_GetAttrLocation(h, 0, AT_LOCATION);
  return l.count && ELF_IsMemoryLocation(l) && ELF_IsResolvedLocation(l);
}

std::vector<std::pair<U32, U32>> ELF_GetLocationRanges(ELF_SYM_HANDLE h, U32 Attribute) {
  std::vector<std::pair<U32, U32>> out;
  Ctx x = DecodeHandle(h);
  if (!x.c) return out;
  const U32 owner = InheritedOwner(x.c, x.key, Attribute);
  std::vector<dwb::LocEntry> entries;
  if (!owner || dwb::GetLocations(x.c->s, GetDieOf(x.c, owner), Attribute, entries) <= 0) return out;
  for (auto& e : entries)
    if (!e.ops.empty()) out.emplace_back((U32)e.lo, (U32)std::min<U64>(e.hi, 0xFFFFFFFFull));
  return out;
}

// ---- resolution against a call frame ---------------------------------------------

namespace {
// The frame store of the installed target access, or null.
ICallFrameStore* Frames() { return ELF_GetTargetAccess().GetFrameStore(); }

bool FrameRegister(const CCallFrame& F, U32 Reg, U64& Value) {
  return F.IsValid() && ELF_GetTargetAccess().ReadRegister(F.stack, F.index, Reg, Value);
}

ELF_LOC_PART Failed() {
  ELF_LOC_PART p;
  memset(&p, 0, sizeof p);
  return p;
}

bool IsPseudoRegister(U32 Reg) { return Reg == ELF_REG_UNDEFINED || Reg == ELF_REG_SAME; }

ELF_LOC_PART ResolvePart(const CCallFrame& F, const ELF_LOC_PART& In, int Depth);

// Where the value of a register of frame F lies: in F's own register for the
// innermost frame, otherwise by the rule of the callee frame.
ELF_LOC_PART RegisterStep(const CCallFrame& F, const ELF_LOC_PART& In, int Depth) {
  ICallFrameStore* const pStore = Frames();
  if (!pStore || !F.IsValid() || F.stack > 1) return Failed();
  CCallFrame Own;
  if (!pStore->GetFrame(F.stack, F.index, Own)) return Failed();
  U64 v;
  if (!FrameRegister(F, pStore->GetPcRegister(), v) || !FrameRegister(F, pStore->GetSpRegister(), v))
    return Failed();
  if (IsPseudoRegister(In.reg)) return Failed();
  CCallFrame Callee;
  if (F.index == 0 || !pStore->GetFrame(F.stack, F.index - 1, Callee)) return In;  // the device reads it
  ELF_SYM_LOC Rule = pStore->GetRule(F.stack, F.index - 1, In.reg);
  ELF_LOC_PART r;
  if (!Rule.count) {
    r = Failed();
    r.kind = ELF_LOC_REG;
    r.reg = ELF_REG_SAME;
  } else {
    r = Rule.parts[0];
  }
  ELF_LOC_PART Out;
  const bool RegRule = r.kind == ELF_LOC_REG || r.kind == ELF_LOC_REG_VALUE;
  if (RegRule && r.reg == ELF_REG_UNDEFINED) return Failed();
  if (RegRule && r.reg == ELF_REG_SAME) {
    ELF_LOC_PART Same = In;
    Same.kind = ELF_LOC_REG;
    Same.offset = 0;
    Out = ResolvePart(Callee, Same, Depth + 1);
  } else {
    Out = ResolvePart(Callee, r, Depth + 1);
  }
  if (Out.kind == ELF_LOC_NONE) return Out;
  if (In.kind == ELF_LOC_REG_VALUE && In.offset) {
    switch (Out.kind) {
      case ELF_LOC_CONST: Out.value += (U64)(I64)In.offset; break;
      case ELF_LOC_ADDR:
      case ELF_LOC_ADDR_OFFSET:
        Out.offset = (Out.kind == ELF_LOC_ADDR_OFFSET ? Out.offset : 0) + In.offset;
        Out.kind = ELF_LOC_ADDR_OFFSET;
        break;
      case ELF_LOC_REG: Out.kind = ELF_LOC_REG_VALUE; Out.offset = In.offset; break;
      case ELF_LOC_REG_VALUE:
      case ELF_LOC_AT_REG: Out.offset += In.offset; break;
      default: break;
    }
  }
  return Out;
}

// A part relative to a base value (BP, CFA, SP): the address base + offset
// for the "at" kinds, the value base + offset for the others.
ELF_LOC_PART OffsetFrom(const ELF_LOC_PART& In, U64 Base, bool At) {
  ELF_LOC_PART p = In;
  if (At) {
    p.kind = ELF_LOC_ADDR;
    p.address = (U32)(Base + (U64)(I64)In.offset);
  } else {
    p.kind = ELF_LOC_CONST;
    p.value = Base + (U64)(I64)In.offset;
  }
  p.offset = 0;
  return p;
}

ELF_LOC_PART EvaluatePart(const CCallFrame& F, const ELF_LOC_PART& In, int Depth);

ELF_LOC_PART ResolvePart(const CCallFrame& F, const ELF_LOC_PART& In, int Depth) {
  if (Depth > 64) return Failed();
  ELF_LOC_PART p = In;
  U64 Sp;
  switch (In.kind) {
    case ELF_LOC_CONST:
    case ELF_LOC_ADDR:
    case ELF_LOC_ADDR_OFFSET: return p;
    case ELF_LOC_AT_BP:
    case ELF_LOC_BP_VALUE:
      if (!F.IsValid() || F.bpStatus != 0) return p;
      return OffsetFrom(In, F.bp, In.kind == ELF_LOC_AT_BP);
    case ELF_LOC_AT_CFA:
    case ELF_LOC_CFA_VALUE:
      if (!F.IsValid() || F.cfaStatus != 0) return p;
      return OffsetFrom(In, F.cfa, In.kind == ELF_LOC_AT_CFA);
    case ELF_LOC_AT_SP:
    case ELF_LOC_SP_VALUE: {
      ICallFrameStore* const pStore = Frames();
      if (!pStore || !FrameRegister(F, pStore->GetSpRegister(), Sp)) return p;
      return OffsetFrom(In, Sp, In.kind == ELF_LOC_AT_SP);
    }
    case ELF_LOC_REG:
    case ELF_LOC_REG_VALUE: return RegisterStep(F, In, Depth);
    case ELF_LOC_AT_REG: {
      // The base register's value, then the address it points at.
      ELF_LOC_PART Base = Failed();
      Base.kind = ELF_LOC_REG;
      Base.reg = In.baseRegister;
      const ELF_LOC_PART b = ResolvePart(F, Base, Depth + 1);
      if (b.kind == ELF_LOC_NONE || ((b.kind == ELF_LOC_REG || b.kind == ELF_LOC_REG_VALUE) && IsPseudoRegister(b.reg)))
        return Failed();
      U64 Word;
      if (!ELF_ResolvedPartWord(F, b, Word)) return Failed();
      p = Failed();
      p.kind = ELF_LOC_ADDR_OFFSET;
      p.address = (U32)(Word + (U64)(I64)In.baseOffset);
      p.offset = In.offset;
      p.size = In.size;
      return p;
    }
    case ELF_LOC_ENTRY_VALUE: {
      CCallFrame Caller;
      U64 v;
      ICallFrameStore* const pStore = Frames();
      if (!pStore || !F.IsValid() || F.isInline || F.index > 1 || !pStore->GetFrame(F.stack, F.index + 1, Caller) ||
          !FrameRegister(F, pStore->GetPcRegister(), v) || !FrameRegister(F, pStore->GetSpRegister(), v))
        return Failed();
      ELF_LOC_PART Inner = Failed();
      Inner.kind = In.baseKind;
      Inner.address = In.baseAddress;
      Inner.reg = In.baseRegister;
      Inner.offset = In.baseOffset;
      Inner.size = In.size;
      return ResolvePart(Caller, Inner, Depth + 1);
    }
    case ELF_LOC_INNER_VALUE: {
      ELF_LOC_PART Inner = Failed();
      Inner.kind = In.baseKind;
      Inner.reg = In.baseRegister;
      Inner.offset = (I32)In.baseAddress;
      if (Inner.kind == ELF_LOC_AT_REG) {
        // breg0..31 outside a frame base: the value is register + offset.
        Inner.kind = ELF_LOC_REG_VALUE;
        Inner.reg = In.baseRegister;
        Inner.offset = In.baseOffset;
      }
      I64 Add = 0;
      if (Inner.kind == ELF_LOC_REG_VALUE) {
        Add = Inner.offset;
        Inner.kind = ELF_LOC_REG;
        Inner.offset = 0;
      }
      const ELF_LOC_PART r = ResolvePart(F, Inner, Depth + 1);
      if (r.kind == ELF_LOC_NONE) return Failed();
      U64 Value;
      // A register's value is read where the frame keeps it; an address
      // formed from SP, BP or CFA is the value itself.
      if (r.kind == ELF_LOC_CONST) Value = r.value;
      else if (Inner.kind != ELF_LOC_REG && (r.kind == ELF_LOC_ADDR || r.kind == ELF_LOC_ADDR_OFFSET))
        Value = r.address + (r.kind == ELF_LOC_ADDR_OFFSET ? (U64)(I64)r.offset : 0);
      else if (!ELF_ResolvedPartWord(F, r, Value)) return Failed();
      Value += (U64)Add;
      p = Failed();
      p.kind = ELF_LOC_CONST;
      p.value = Value;
      p.size = In.size;
      return p;
    }
    case ELF_LOC_EXPR: return EvaluatePart(F, In, Depth);
    default: return p;
  }
}

// ---- evaluation against a frame

bool ExpressionOps(U32 Number, std::vector<dwb::LocOp>& Out) {
  std::lock_guard<std::mutex> Lock(g_ExprMutex);
  if (!Number || Number > g_Exprs.size()) return false;
  Out = g_Exprs[Number - 1];
  return true;
}

bool ValueOnEntry(const CCallFrame& F, U32 Reg, int Depth, U64& Value);

// What a frame tells an expression: registers as the frame sees them (a
// caller's through the rules of its callees), target memory, the frame base
// and CFA, and values on entry from the caller's call site.
class CFrameContext : public dwexpr::IFrameContext {
public:
  CFrameContext(const CCallFrame& F, int Depth) : m_F(F), m_Depth(Depth) {}
  bool Register(U32 Reg, U64& Value) override {
    ELF_LOC_PART In = Failed();
    In.kind = ELF_LOC_REG;
    In.reg = Reg;
    const ELF_LOC_PART r = ResolvePart(m_F, In, m_Depth + 1);
    if (r.kind == ELF_LOC_NONE) return false;
    if ((r.kind == ELF_LOC_REG || r.kind == ELF_LOC_REG_VALUE) && IsPseudoRegister(r.reg)) return false;
    return ELF_ResolvedPartWord(m_F, r, Value);
  }
  bool Memory(U64 Address, U32 Size, U64& Value) override {
    return Address <= 0xFFFFFFFFull && ELF_ReadTargetValue((U32)Address, Size, &Value) == 0;
  }
  bool FrameBase(U64& Value) override {
    if (!m_F.IsValid() || m_F.bpStatus != 0) return false;
    Value = m_F.bp;
    return true;
  }
  bool Cfa(U64& Value) override {
    if (!m_F.IsValid() || m_F.cfaStatus != 0) return false;
    Value = m_F.cfa;
    return true;
  }
  bool EntryValue(U32 Reg, U64& Value) override { return ValueOnEntry(m_F, Reg, m_Depth + 1, Value); }
  U64 Relocate(U64 FileAddress) override { return ELF_RelocateAddress((U32)FileAddress, 1, 0); }

private:
  CCallFrame m_F;
  int m_Depth;
};

ELF_LOC_PART EvaluatePart(const CCallFrame& F, const ELF_LOC_PART& In, int Depth) {
  std::vector<dwb::LocOp> Ops;
  if (!ExpressionOps(In.address, Ops)) return Failed();
  CFrameContext Ctx(F, Depth);
  const dwexpr::RESULT r = dwexpr::Evaluate(Ops, Ctx);
  ELF_LOC_PART p = Failed();
  switch (r.kind) {
    case dwexpr::RESULT_MEMORY:
      p.kind = ELF_LOC_ADDR;
      p.address = (U32)r.value;
      break;
    case dwexpr::RESULT_REGISTER:
      p.kind = ELF_LOC_REG;
      p.reg = r.reg;
      p = ResolvePart(F, p, Depth + 1);
      break;
    case dwexpr::RESULT_VALUE:
      p.kind = ELF_LOC_CONST;
      p.value = r.value;
      break;
    default: return Failed();
  }
  if (p.kind != ELF_LOC_NONE) p.size = In.size;
  return p;
}

// The call site a return address belongs to, or null.
const DW_CALL_SITE* CallSiteAt(DW_CTX* c, U32 ReturnPc) {
  if (!c->callSitesSorted) {
    std::stable_sort(c->callSites.begin(), c->callSites.end(),
                     [](const DW_CALL_SITE& a, const DW_CALL_SITE& b) { return a.returnPc < b.returnPc; });
    c->callSitesSorted = true;
  }
  const auto it = std::lower_bound(c->callSites.begin(), c->callSites.end(), ReturnPc,
                                   [](const DW_CALL_SITE& s, U32 Pc) { return s.returnPc < Pc; });
  return it != c->callSites.end() && it->returnPc == ReturnPc ? &*it : nullptr;
}

// An expression attribute of an entry, decoded.
bool ExprAttr(DW_CTX* c, U32 Key, U32 Code, std::vector<dwb::LocOp>& Out) {
  dwb::AttrValue v;
  if (!Attr(c, Key, Code, &v) || v.cls != dwb::AC_BLOCK || !v.block) return false;
  return dwexpr::DecodeOps(v.block, (size_t)v.blockLen, 4, Out);
}

enum : U32 {
  AT_ABSTRACT_ORIGIN = 0x31, AT_SPECIFICATION = 0x47, AT_CALL_VALUE = 0x7e, AT_CALL_ORIGIN = 0x7f,
  AT_GNU_CALL_SITE_VALUE = 0x2111,
};

// The value Reg had when F's function was entered: the call site at the
// caller's return address names the value it passed in Reg, as an expression
// over the caller's frame.
bool ValueOnEntry(const CCallFrame& F, U32 Reg, int Depth, U64& Value) {
  ICallFrameStore* const pStore = Frames();
  if (Depth > 48 || !pStore || !F.IsValid()) return false;
  CCallFrame Callee = F;  // the function's own frame, not an inlined instance in it
  while (Callee.isInline)
    if (!pStore->GetFrame(Callee.stack, Callee.index + 1, Callee)) return false;
  CCallFrame Caller;
  if (Callee.raStatus != 0 || !pStore->GetFrame(Callee.stack, Callee.index + 1, Caller)) return false;
  const U64 Pc = Callee.returnAddress;
  std::vector<dwb::LocOp> ValueOps;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    const Ctx x = DecodeHandle(Callee.function);
    if (!x.c) return false;
    const DW_CALL_SITE* pSite = CallSiteAt(x.c, ELF_UnrelocateAddress((U32)Pc & ~1u, 1, 0));
    if (!pSite) return false;
    // A call site that names its target must name this function.
    U32 Target = RefAttr(x.c, pSite->key, AT_CALL_ORIGIN);
    if (!Target) Target = RefAttr(x.c, pSite->key, AT_ABSTRACT_ORIGIN);
    if (Target && Target != x.key && Target != RefAttr(x.c, x.key, AT_ABSTRACT_ORIGIN) &&
        Target != RefAttr(x.c, x.key, AT_SPECIFICATION))
      return false;
    for (U32 i = 0; i < pSite->paramCount && ValueOps.empty(); ++i) {
      const U32 Param = x.c->callParams[pSite->firstParam + i];
      std::vector<dwb::LocOp> Where;
      U32 ParamReg;
      if (!ExprAttr(x.c, Param, AT_LOCATION, Where) || !dwexpr::IsLoneRegister(Where, &ParamReg) || ParamReg != Reg)
        continue;
      if (!ExprAttr(x.c, Param, AT_CALL_VALUE, ValueOps)) ExprAttr(x.c, Param, AT_GNU_CALL_SITE_VALUE, ValueOps);
    }
  }
  if (ValueOps.empty()) return false;
  CFrameContext CallerCtx(Caller, Depth);
  const dwexpr::RESULT r = dwexpr::Evaluate(ValueOps, CallerCtx, true);
  if (r.kind != dwexpr::RESULT_VALUE) return false;
  Value = r.value;
  return true;
}
} // namespace


bool ELF_ReadRegisterPart(const CCallFrame& Frame, const ELF_LOC_PART& Part, U64& Value) {
  if (Frame.stack < 0 || IsPseudoRegister(Part.reg)) return false;
  if (Part.kind != ELF_LOC_REG && Part.kind != ELF_LOC_REG_VALUE) return false;
  U64 v;
  if (!ELF_GetTargetAccess().ReadRegister(Frame.stack, 0, Part.reg, v)) return false;
  Value = v + (Part.kind == ELF_LOC_REG_VALUE ? (U64)(I64)Part.offset : 0);
  return true;
}

ELF_LOC_PART ResolveLocPart(const CCallFrame& Frame, const ELF_LOC_PART& Part) {
  ELF_LOC_PART r = ResolvePart(Frame, Part, 0);
  if (r.kind == ELF_LOC_NONE && Part.kind != ELF_LOC_NONE) {
    ELF_SYM_LOC l;
    memset(&l, 0, sizeof l);
    l.count = 1;
    l.parts[0] = Part;
    LogWarning(QString("Failed to evaluate register data location: ") + ELF_LocationToText(l));
  }
  if (r.kind != ELF_LOC_NONE && !r.size) r.size = Part.size;
  return r;
}

void ResolveLocation(const CCallFrame& Frame, ELF_SYM_LOC& Location) {
  for (U32 i = 0; i < Location.count && i < 2; ++i) Location.parts[i] = ResolveLocPart(Frame, Location.parts[i]);
}

// A resolved part as a number: the value of kind 1, the register of kinds 4
// and 5, the word at the address of kinds 2 and 3.
bool ELF_ResolvedPartWord(const CCallFrame& F, const ELF_LOC_PART& p, U64& Value) {
  switch (p.kind) {
    case ELF_LOC_CONST: Value = p.value; return true;
    case ELF_LOC_REG:
    case ELF_LOC_REG_VALUE: return ELF_ReadRegisterPart(F, p, Value);
    case ELF_LOC_ADDR:
    case ELF_LOC_ADDR_OFFSET: {
      U32 w;
      if (ELF_ReadTargetWord(p.address + (p.kind == ELF_LOC_ADDR_OFFSET ? (U32)p.offset : 0u), &w) != 0) return false;
      Value = w;
      return true;
    }
    default: return false;
  }
}
