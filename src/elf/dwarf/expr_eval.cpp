#include "elf/dwarf/expr_eval.h"
#include "elf/dwarf/leb128.h"

#include <string.h>

namespace dwexpr {

namespace {

enum : U8 {
  OP_ADDR = 0x03, OP_DEREF = 0x06, OP_CONST1U = 0x08, OP_CONST1S = 0x09, OP_CONST2U = 0x0a, OP_CONST2S = 0x0b,
  OP_CONST4U = 0x0c, OP_CONST4S = 0x0d, OP_CONST8U = 0x0e, OP_CONST8S = 0x0f, OP_CONSTU = 0x10, OP_CONSTS = 0x11,
  OP_DUP = 0x12, OP_DROP = 0x13, OP_OVER = 0x14, OP_PICK = 0x15, OP_SWAP = 0x16, OP_ROT = 0x17, OP_XDEREF = 0x18,
  OP_ABS = 0x19, OP_AND = 0x1a, OP_DIV = 0x1b, OP_MINUS = 0x1c, OP_MOD = 0x1d, OP_MUL = 0x1e, OP_NEG = 0x1f,
  OP_NOT = 0x20, OP_OR = 0x21, OP_PLUS = 0x22, OP_PLUS_UCONST = 0x23, OP_SHL = 0x24, OP_SHR = 0x25, OP_SHRA = 0x26,
  OP_XOR = 0x27, OP_BRA = 0x28, OP_EQ = 0x29, OP_GE = 0x2a, OP_GT = 0x2b, OP_LE = 0x2c, OP_LT = 0x2d, OP_NE = 0x2e,
  OP_SKIP = 0x2f, OP_LIT0 = 0x30, OP_LIT31 = 0x4f, OP_REG0 = 0x50, OP_REG31 = 0x6f, OP_BREG0 = 0x70, OP_BREG31 = 0x8f,
  OP_REGX = 0x90, OP_FBREG = 0x91, OP_BREGX = 0x92, OP_PIECE = 0x93, OP_DEREF_SIZE = 0x94, OP_XDEREF_SIZE = 0x95,
  OP_NOP = 0x96, OP_PUSH_OBJECT_ADDRESS = 0x97, OP_CALL2 = 0x98, OP_CALL4 = 0x99, OP_CALL_REF = 0x9a,
  OP_FORM_TLS_ADDRESS = 0x9b, OP_CALL_FRAME_CFA = 0x9c, OP_BIT_PIECE = 0x9d, OP_IMPLICIT_VALUE = 0x9e,
  OP_STACK_VALUE = 0x9f, OP_IMPLICIT_POINTER = 0xa0, OP_ADDRX = 0xa1, OP_CONSTX = 0xa2, OP_ENTRY_VALUE = 0xa3,
  OP_CONST_TYPE = 0xa4, OP_REGVAL_TYPE = 0xa5, OP_DEREF_TYPE = 0xa6, OP_XDEREF_TYPE = 0xa7, OP_CONVERT = 0xa8,
  OP_REINTERPRET = 0xa9, OP_GNU_PUSH_TLS_ADDRESS = 0xe0, OP_GNU_UNINIT = 0xf0, OP_GNU_IMPLICIT_POINTER = 0xf2,
  OP_GNU_ENTRY_VALUE = 0xf3, OP_GNU_PARAMETER_REF = 0xfa,
};

constexpr size_t kStackLimit = 256;
constexpr int kStepLimit = 100000;

using dwleb::ReadSleb;
using dwleb::ReadUleb;

bool Fixed(const U8*& p, const U8* end, U32 n, U64* v) {
  if ((size_t)(end - p) < n || n > 8) return false;
  U64 r = 0;
  for (U32 i = 0; i < n; ++i) r |= (U64)p[i] << (8 * i);
  p += n;
  *v = r;
  return true;
}

bool Block(const U8*& p, const U8* end, U64 n, std::vector<U8>* pOut) {
  if ((U64)(end - p) < n) return false;
  pOut->assign(p, p + n);
  p += n;
  return true;
}

U64 SignExtend(U64 v, U32 Bits) {
  if (Bits >= 64) return v;
  const U64 m = (U64)1 << (Bits - 1);
  v &= ((U64)1 << Bits) - 1;
  return (v ^ m) - m;
}

RESULT Fail(const char* sWhy) {
  RESULT r;
  r.sError = sWhy;
  return r;
}

}  // namespace

bool DecodeOps(const U8* p, size_t n, U32 AddrSize, std::vector<dwb::LocOp>& Out) {
  const U8* const begin = p;
  const U8* const end = p + n;
  if (AddrSize == 0 || AddrSize > 8) return false;
  while (p < end) {
    dwb::LocOp op{};
    op.offset = (U64)(p - begin);
    op.atom = *p++;
    const U8 a = op.atom;
    bool ok = true;
    U64 len = 0;
    if (a == OP_ADDR) ok = Fixed(p, end, AddrSize, &op.op1);
    else if (a == OP_CONST1U || a == OP_CONST1S || a == OP_PICK || a == OP_DEREF_SIZE || a == OP_XDEREF_SIZE)
      ok = Fixed(p, end, 1, &op.op1);
    else if (a == OP_CONST2U || a == OP_CONST2S || a == OP_SKIP || a == OP_BRA || a == OP_CALL2)
      ok = Fixed(p, end, 2, &op.op1);
    else if (a == OP_CONST4U || a == OP_CONST4S || a == OP_CALL4 || a == OP_CALL_REF || a == OP_GNU_PARAMETER_REF)
      ok = Fixed(p, end, 4, &op.op1);
    else if (a == OP_CONST8U || a == OP_CONST8S) ok = Fixed(p, end, 8, &op.op1);
    else if (a == OP_CONSTU || a == OP_PLUS_UCONST || a == OP_REGX || a == OP_PIECE || a == OP_ADDRX ||
             a == OP_CONSTX || a == OP_CONVERT || a == OP_REINTERPRET)
      ok = ReadUleb(p, end, &op.op1);
    else if (a == OP_CONSTS || a == OP_FBREG || (a >= OP_BREG0 && a <= OP_BREG31)) ok = ReadSleb(p, end, &op.op1);
    else if (a == OP_BREGX) ok = ReadUleb(p, end, &op.op1) && ReadSleb(p, end, &op.op2);
    else if (a == OP_BIT_PIECE || a == OP_REGVAL_TYPE) ok = ReadUleb(p, end, &op.op1) && ReadUleb(p, end, &op.op2);
    else if (a == OP_IMPLICIT_POINTER || a == OP_GNU_IMPLICIT_POINTER)
      ok = Fixed(p, end, 4, &op.op1) && ReadSleb(p, end, &op.op2);
    else if (a == OP_IMPLICIT_VALUE || a == OP_ENTRY_VALUE || a == OP_GNU_ENTRY_VALUE) {
      ok = ReadUleb(p, end, &len) && Block(p, end, len, &op.block);
      op.op1 = len;
    } else if (a == OP_CONST_TYPE) {
      ok = ReadUleb(p, end, &op.op1) && Fixed(p, end, 1, &len) && Block(p, end, len, &op.block);
    } else if (a == OP_DEREF_TYPE || a == OP_XDEREF_TYPE)
      ok = Fixed(p, end, 1, &op.op1) && ReadUleb(p, end, &op.op2);
    else if (!(a == OP_DEREF || (a >= OP_DUP && a <= OP_ROT && a != OP_PICK) || a == OP_XDEREF ||
               (a >= OP_ABS && a <= OP_XOR && a != OP_PLUS_UCONST) || (a >= OP_EQ && a <= OP_NE) ||
               (a >= OP_LIT0 && a <= OP_REG31) || a == OP_NOP || a == OP_PUSH_OBJECT_ADDRESS ||
               a == OP_FORM_TLS_ADDRESS || a == OP_CALL_FRAME_CFA || a == OP_STACK_VALUE ||
               a == OP_GNU_PUSH_TLS_ADDRESS || a == OP_GNU_UNINIT))
      ok = false;
    if (!ok) return false;
    Out.push_back(std::move(op));
  }
  return true;
}

bool IsLoneRegister(const std::vector<dwb::LocOp>& Ops, U32* pReg) {
  if (Ops.size() != 1) return false;
  const U8 a = Ops[0].atom;
  if (a >= OP_REG0 && a <= OP_REG31) *pReg = a - OP_REG0;
  else if (a == OP_REGX) *pReg = (U32)Ops[0].op1;
  else return false;
  return true;
}

RESULT Evaluate(const std::vector<dwb::LocOp>& Ops, IFrameContext& Ctx, bool AsValue, U32 AddrSize) {
  if (AddrSize == 0 || AddrSize > 8) return Fail("bad address size");
  if (Ops.empty()) return Fail("optimised out");
  const U32 Bits = AddrSize * 8;
  const U64 Mask = Bits >= 64 ? ~0ull : (((U64)1 << Bits) - 1);
  U32 Reg;
  if (IsLoneRegister(Ops, &Reg)) {
    RESULT r;
    if (!AsValue) {
      r.kind = RESULT_REGISTER;
      r.reg = Reg;
      return r;
    }
    if (!Ctx.Register(Reg, r.value)) return Fail("register not available");
    r.kind = RESULT_VALUE;
    return r;
  }
  std::vector<U64> st;
  st.reserve(16);
  auto Push = [&](U64 v) {
    if (st.size() >= kStackLimit) return false;
    st.push_back(v & Mask);
    return true;
  };
  auto Signed = [&](U64 v) { return (I64)SignExtend(v, Bits); };
  int Steps = 0;
  for (size_t i = 0; i < Ops.size(); ++i) {
    if (++Steps > kStepLimit) return Fail("expression does not end");
    const dwb::LocOp& op = Ops[i];
    const U8 a = op.atom;
    U64 v = 0;
    // Operations that take operands from the stack check its depth first.
    const size_t Need = (a == OP_DEREF || a == OP_DEREF_SIZE || a == OP_DUP || a == OP_DROP || a == OP_ABS ||
                         a == OP_NEG || a == OP_NOT || a == OP_PLUS_UCONST || a == OP_BRA || a == OP_STACK_VALUE)
                            ? 1
                        : (a == OP_OVER || a == OP_SWAP || (a >= OP_AND && a <= OP_XOR && a != OP_NEG &&
                                                             a != OP_NOT && a != OP_PLUS_UCONST) ||
                           (a >= OP_EQ && a <= OP_NE))
                            ? 2
                        : a == OP_ROT ? 3
                                      : 0;
    if (st.size() < Need) return Fail("stack underflow");
    if (a == OP_ADDR) v = Ctx.Relocate(op.op1);
    else if (a == OP_CONST1U || a == OP_CONST2U || a == OP_CONST4U || a == OP_CONST8U || a == OP_CONSTU) v = op.op1;
    else if (a == OP_CONST1S) v = SignExtend(op.op1, 8);
    else if (a == OP_CONST2S) v = SignExtend(op.op1, 16);
    else if (a == OP_CONST4S) v = SignExtend(op.op1, 32);
    else if (a == OP_CONST8S || a == OP_CONSTS) v = op.op1;
    else if (a >= OP_LIT0 && a <= OP_LIT31) v = a - OP_LIT0;
    else if ((a >= OP_BREG0 && a <= OP_BREG31) || a == OP_BREGX) {
      const U32 r = a == OP_BREGX ? (U32)op.op1 : (U32)(a - OP_BREG0);
      if (!Ctx.Register(r, v)) return Fail("register not available");
      v += a == OP_BREGX ? op.op2 : op.op1;
    } else if (a == OP_FBREG) {
      if (!Ctx.FrameBase(v)) return Fail("frame base not available");
      v += op.op1;
    } else if (a == OP_CALL_FRAME_CFA) {
      if (!Ctx.Cfa(v)) return Fail("CFA not available");
    } else if (a == OP_ENTRY_VALUE || a == OP_GNU_ENTRY_VALUE) {
      std::vector<dwb::LocOp> Sub;
      if (!DecodeOps(op.block.data(), op.block.size(), AddrSize, Sub) || !IsLoneRegister(Sub, &Reg))
        return Fail("entry value of something other than a register");
      if (!Ctx.EntryValue(Reg, v)) return Fail("entry value not available");
    } else if (a == OP_DEREF || a == OP_DEREF_SIZE) {
      const U32 n = a == OP_DEREF ? AddrSize : (U32)op.op1;
      if (n == 0 || n > AddrSize) return Fail("bad dereference size");
      const U64 At = st.back();
      st.pop_back();
      if (!Ctx.Memory(At, n, v)) return Fail("memory not readable");
    } else if (a == OP_DUP) v = st.back();
    else if (a == OP_DROP) {
      st.pop_back();
      continue;
    } else if (a == OP_OVER) v = st[st.size() - 2];
    else if (a == OP_PICK) {
      if (op.op1 >= st.size()) return Fail("stack underflow");
      v = st[st.size() - 1 - op.op1];
    } else if (a == OP_SWAP) {
      std::swap(st[st.size() - 1], st[st.size() - 2]);
      continue;
    } else if (a == OP_ROT) {
      // Top moves to third; second to top; third to second.
      const U64 t = st[st.size() - 1];
      st[st.size() - 1] = st[st.size() - 2];
      st[st.size() - 2] = st[st.size() - 3];
      st[st.size() - 3] = t;
      continue;
    } else if (a == OP_ABS || a == OP_NEG || a == OP_NOT || a == OP_PLUS_UCONST) {
      const U64 t = st.back();
      st.pop_back();
      if (a == OP_ABS) v = Signed(t) < 0 ? 0 - t : t;
      else if (a == OP_NEG) v = 0 - t;
      else if (a == OP_NOT) v = ~t;
      else v = t + op.op1;
    } else if ((a >= OP_AND && a <= OP_XOR) || (a >= OP_EQ && a <= OP_NE)) {
      const U64 t = st.back();
      st.pop_back();
      const U64 s = st.back();
      st.pop_back();
      switch (a) {
        case OP_AND: v = s & t; break;
        case OP_DIV:
          if (!t) return Fail("division by zero");
          v = Signed(t) == -1 ? 0 - s : (U64)(Signed(s) / Signed(t));
          break;
        case OP_MINUS: v = s - t; break;
        case OP_MOD:
          if (!t) return Fail("division by zero");
          v = s % t;
          break;
        case OP_MUL: v = s * t; break;
        case OP_OR: v = s | t; break;
        case OP_PLUS: v = s + t; break;
        case OP_SHL: v = t >= Bits ? 0 : s << t; break;
        case OP_SHR: v = t >= Bits ? 0 : s >> t; break;
        case OP_SHRA: v = (U64)(Signed(s) >> (t >= Bits ? Bits - 1 : t)); break;
        case OP_XOR: v = s ^ t; break;
        case OP_EQ: v = Signed(s) == Signed(t); break;
        case OP_GE: v = Signed(s) >= Signed(t); break;
        case OP_GT: v = Signed(s) > Signed(t); break;
        case OP_LE: v = Signed(s) <= Signed(t); break;
        case OP_LT: v = Signed(s) < Signed(t); break;
        case OP_NE: v = Signed(s) != Signed(t); break;
        default: return Fail("unsupported DWARF operation");
      }
    } else if (a == OP_SKIP || a == OP_BRA) {
      bool Take = true;
      if (a == OP_BRA) {
        Take = st.back() != 0;
        st.pop_back();
      }
      if (!Take) continue;
      // The target is counted in bytes from the end of this operation.
      const U64 Next = i + 1 < Ops.size() ? Ops[i + 1].offset : op.offset + 3;
      const I64 Target = (I64)Next + (I16)(U16)op.op1;
      size_t j = 0;
      while (j < Ops.size() && (I64)Ops[j].offset != Target) ++j;
      if (j == Ops.size()) {
        const I64 End = Ops.back().offset;
        // A branch just past the last operation ends the expression.
        if (Target <= End) return Fail("branch into an operation");
        break;
      }
      i = j - 1;
      continue;
    } else if (a == OP_NOP) {
      continue;
    } else if (a == OP_STACK_VALUE) {
      RESULT r;
      r.kind = RESULT_VALUE;
      r.value = st.back();
      return r;
    } else if (a == OP_IMPLICIT_VALUE) {
      if (i + 1 != Ops.size() || op.block.size() > 8) return Fail("implicit value not representable");
      RESULT r;
      r.kind = RESULT_VALUE;
      for (size_t k = 0; k < op.block.size(); ++k) r.value |= (U64)op.block[k] << (8 * k);
      return r;
    } else if ((a >= OP_REG0 && a <= OP_REG31) || a == OP_REGX) {
      return Fail("register operation inside an expression");
    } else {
      return Fail("unsupported DWARF operation");
    }
    if (!Push(v)) return Fail("stack overflow");
  }
  if (st.empty()) return Fail("empty stack");
  RESULT r;
  r.kind = AsValue ? RESULT_VALUE : RESULT_MEMORY;
  r.value = st.back();
  return r;
}

}  // namespace dwexpr
