// Thumb-2 instruction analysis for M-profile cores.
//
// Capstone decodes one instruction at a time, but the condition of an
// instruction inside an IT block is only known when the IT instruction was
// decoded in the same call. Capstone keeps that state in the handle; its
// cs_disasm() resets it at entry, so every decode here is one cs_disasm() call
// that starts either at the instruction itself or at the IT instruction that
// governs it (found by FindITStart). Nothing depends on earlier calls.
#include "thumb_decoder.h"

#include <capstone/capstone.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace armcore {
namespace {

// One Capstone handle per thread: the plug-in is called from the worker and
// from the user interface thread at the same time, and a handle is not
// thread-safe.
struct Handle {
  csh h = 0;
  bool ok = false;
  Handle() {
    if (cs_open(CS_ARCH_ARM, cs_mode(CS_MODE_THUMB | CS_MODE_MCLASS), &h) == CS_ERR_OK) {
      cs_option(h, CS_OPT_DETAIL, CS_OPT_ON);
      cs_option(h, CS_OPT_SYNTAX, CS_OPT_SYNTAX_NOREGNAME);  // r9..r12, not sb/sl/fp/ip
      ok = true;
    }
  }
  ~Handle() {
    if (ok) cs_close(&h);
  }
};

csh GetHandle() {
  thread_local Handle s;
  return s.ok ? s.h : 0;
}

struct InsnList {
  cs_insn* p = nullptr;
  size_t n = 0;
  ~InsnList() {
    if (p) cs_free(p, n);
  }
};

inline bool Is32BitPrefix(U16 h) { return (h >> 11) >= 0x1D; }

// Reads NumBytes instruction bytes in the order Capstone wants (little-endian
// halfwords).
bool ReadCode(const DecodeEnv& Env, U64 Addr, U32 NumBytes, U8* p) {
  if (!Env.pfRead || Addr + NumBytes > 0x100000000ull) return false;
  if (Env.pfRead(Addr, NumBytes, p, Env.pCtx) != 0) return false;
  if (Env.InstBigEndian) {
    for (U32 i = 0; i + 1 < NumBytes; i += 2) {
      U8 t = p[i];
      p[i] = p[i + 1];
      p[i + 1] = t;
    }
  }
  return true;
}

bool ReadHalf(const DecodeEnv& Env, U64 Addr, U16* pH) {
  U8 b[2];
  if (!ReadCode(Env, Addr, 2, b)) return false;
  *pH = U16(b[0] | (b[1] << 8));
  return true;
}

bool ReadData32(const DecodeEnv& Env, U64 Addr, U32* pV) {
  U8 b[4];
  if (!Env.pfRead || Addr + 4 > 0x100000000ull || Env.pfRead(Addr, 4, b, Env.pCtx) != 0) return false;
  *pV = Env.DataBigEndian ? (U32(b[0]) << 24 | U32(b[1]) << 16 | U32(b[2]) << 8 | b[3])
                          : (U32(b[3]) << 24 | U32(b[2]) << 16 | U32(b[1]) << 8 | b[0]);
  return true;
}

// True when an instruction may start at I, judged from the halfwords before
// it: a halfword that cannot start a 32-bit instruction ends an instruction
// whichever way it is read, so the run of "prefix-looking" halfwords between
// such a halfword (or the start of the code range) and I decides by parity.
bool IsBoundary(const DecodeEnv& Env, U64 I, U64 RangeStart) {
  int m = 0;
  for (U64 a = I; m < 64; ++m) {
    if (a < 2 || a - 2 < RangeStart) break;
    U16 h;
    if (!ReadHalf(Env, a - 2, &h)) break;
    if (!Is32BitPrefix(h)) break;
    a -= 2;
  }
  return (m & 1) == 0;
}

U64 CodeRangeStart(const DecodeEnv& Env, U64 Addr) {
  U64 Start = 0;
  if (Env.pfCodeRange && Env.pfCodeRange(Addr, &Start, Env.pCtx) == 0 && Start <= Addr) return Start;
  return 0;
}

bool IsCoreReg(const char* s, size_t n, const char** psOut) {
  static const char* const aNames[] = {"R0", "R1", "R2", "R3", "R4", "R5", "R6", "R7",
                                       "R8", "R9", "R10", "R11", "R12", "SP", "LR", "PC"};
  char w[8];
  if (n == 0 || n >= sizeof w) return false;
  for (size_t i = 0; i < n; ++i) w[i] = char(std::tolower((unsigned char)s[i]));
  w[n] = 0;
  int idx = -1;
  if (w[0] == 'r' && n >= 2 && n <= 3 && std::isdigit((unsigned char)w[1]) && (n == 2 || std::isdigit((unsigned char)w[2]))) {
    idx = std::atoi(w + 1);
    if (n == 3 && w[1] == '0') idx = -1;
    if (idx > 15) idx = -1;
  } else if (!strcmp(w, "sb")) idx = 9;
  else if (!strcmp(w, "sl")) idx = 10;
  else if (!strcmp(w, "fp")) idx = 11;
  else if (!strcmp(w, "ip")) idx = 12;
  else if (!strcmp(w, "sp")) idx = 13;
  else if (!strcmp(w, "lr")) idx = 14;
  else if (!strcmp(w, "pc")) idx = 15;
  if (idx < 0) return false;
  *psOut = aNames[idx];
  return true;
}

// Copies Capstone's operand text, renaming core registers to R0-R12/SP/LR/PC.
void RewriteOperands(const char* sIn, char* acOut, size_t OutSize) {
  size_t o = 0;
  auto put = [&](char c) {
    if (o + 1 < OutSize) acOut[o++] = c;
  };
  for (size_t i = 0; sIn[i];) {
    unsigned char c = (unsigned char)sIn[i];
    if (std::isalpha(c) || c == '_') {
      size_t j = i;
      while (std::isalnum((unsigned char)sIn[j]) || sIn[j] == '_') ++j;
      const char* sReg;
      bool PrevHash = i > 0 && sIn[i - 1] == '#';
      if (!PrevHash && IsCoreReg(sIn + i, j - i, &sReg)) {
        for (const char* p = sReg; *p; ++p) put(*p);
      } else {
        for (size_t k = i; k < j; ++k) put(sIn[k]);
      }
      i = j;
    } else if (std::isdigit(c)) {
      // Numbers (including hex digits after 0x) pass unchanged.
      size_t j = i;
      while (std::isalnum((unsigned char)sIn[j]) || sIn[j] == '.') ++j;
      for (size_t k = i; k < j; ++k) put(sIn[k]);
      i = j;
    } else {
      put(sIn[i]);
      ++i;
    }
  }
  acOut[o] = 0;
}

bool OpIsReg(const cs_arm_op& op, arm_reg r) { return op.type == ARM_OP_REG && op.reg == r; }


int CoreRegNum(unsigned r) {
  if (r >= ARM_REG_R0 && r <= ARM_REG_R12) return int(r - ARM_REG_R0);
  if (r == ARM_REG_SP) return 13;
  if (r == ARM_REG_LR) return 14;
  if (r == ARM_REG_PC) return 15;
  return -1;
}

// A load whose base register was set by an ADR in the 8 bytes before it reads
// a literal that the compiler moved out of PC range ("adr r2, .L; ldrd r0, r1,
// [r2]"). Returns the ADR's target, or -1.
long long AdrBefore(const DecodeEnv& Env, csh h, U64 Addr, int BaseReg) {
  bool HaveRange = false;
  U64 RangeStart = 0;
  for (U64 Back = 2; Back <= 8 && Back <= Addr; Back += 2) {
    U64 Q = Addr - Back;
    U16 h0, h1 = 0;
    if (!ReadHalf(Env, Q, &h0)) return -1;
    int Rd = -1;
    U32 Size = 0;
    U64 Target = 0;
    U64 Pc = (Q + 4) & ~3ull;
    if ((h0 & 0xF800) == 0xA000) {
      Rd = (h0 >> 8) & 7;
      Size = 2;
      Target = Pc + U64(h0 & 0xFF) * 4;
    } else if (Back >= 4 && ReadHalf(Env, Q + 2, &h1)) {
      U32 W = (U32(h0) << 16) | h1;
      if ((W & 0xFBFF8000u) == 0xF20F0000u || (W & 0xFBFF8000u) == 0xF2AF0000u) {
        U32 Imm = ((W >> 26) & 1) << 11 | ((W >> 12) & 7) << 8 | (W & 0xFF);
        Rd = (W >> 8) & 0xF;
        Size = 4;
        Target = (W & 0x00A00000u) ? Pc - Imm : Pc + Imm;
      }
    }
    if (Rd != BaseReg) continue;
    if (!HaveRange) {
      RangeStart = CodeRangeStart(Env, Addr);
      HaveRange = true;
    }
    if (Q < RangeStart || !IsBoundary(Env, Q, RangeStart)) continue;
    // Nothing in between may change the register.
    U64 From = Q + Size;
    if (From < Addr) {
      U8 Buf[8];
      if (!ReadCode(Env, From, U32(Addr - From), Buf)) return -1;
      InsnList L;
      L.n = cs_disasm(h, Buf, size_t(Addr - From), From, 0, &L.p);
      U64 End = From;
      for (size_t i = 0; i < L.n; ++i) {
        End = L.p[i].address + L.p[i].size;
        const cs_arm& A = L.p[i].detail->arm;
        for (int k = 0; k < A.op_count; ++k) {
          const cs_arm_op& op = A.operands[k];
          if (op.type == ARM_OP_REG && CoreRegNum(op.reg) == BaseReg && (op.access & CS_AC_WRITE)) return -1;
          if (op.type == ARM_OP_MEM && CoreRegNum(op.mem.base) == BaseReg && A.writeback) return -1;
        }
      }
      if (End != Addr) return -1;
    }
    return (long long)U32(Target);
  }
  return -1;
}

}  // namespace

long long FindITStart(const DecodeEnv& Env, U64 Addr) {
  if (Addr < 2) return -1;
  // The IT instruction is at most 4 instructions before Addr: IT + 3 32-bit.
  // Read the 14 bytes before Addr at once where possible.
  U8 Win[14];
  U64 WinStart = Addr >= 14 ? Addr - 14 : 0;
  bool HaveWin = ReadCode(Env, WinStart, U32(Addr - WinStart), Win);
  bool HaveRange = false;
  U64 RangeStart = 0;
  for (U64 d = 2; d <= 14 && d <= Addr; d += 2) {
    U64 I = Addr - d;
    U16 h;
    if (HaveWin) h = U16(Win[I - WinStart] | (Win[I - WinStart + 1] << 8));
    else if (!ReadHalf(Env, I, &h)) break;
    if ((h & 0xFF00) != 0xBF00 || (h & 0x000F) == 0) continue;
    // A candidate: it counts only inside the code range that holds Addr.
    if (!HaveRange) {
      RangeStart = CodeRangeStart(Env, Addr);
      HaveRange = true;
    }
    if (I < RangeStart) break;
    if (!IsBoundary(Env, I, RangeStart)) continue;
    unsigned Mask = h & 0xF;
    int n = (Mask & 1) ? 4 : (Mask & 2) ? 3 : (Mask & 4) ? 2 : 1;
    U64 Pos = I + 2;
    for (int k = 0; k < n && Pos <= Addr; ++k) {
      if (Pos == Addr) return (long long)I;
      U16 hw;
      if (!ReadHalf(Env, Pos, &hw)) return -1;
      Pos += Is32BitPrefix(hw) ? 4 : 2;
    }
    // The nearest IT instruction at an instruction boundary does not cover
    // Addr; an IT further back cannot either, since blocks do not nest.
    return -1;
  }
  return -1;
}

int DecodeAt(const DecodeEnv& Env, U64 Addr, Decoded* pOut, bool WantText) {
  std::memset(&pOut->Info, 0, sizeof pOut->Info);
  pOut->Info.Addr = U32(Addr);
  pOut->acText[0] = 0;
  if (Addr >= 0xFFFFFFFEull || (Addr & 1)) return 1;
  csh h = GetHandle();
  if (!h) return -1;

  U8 Buf[20];
  U32 n = 0;
  long long IT = FindITStart(Env, Addr);
  U64 Base = Addr;
  if (IT >= 0) {
    U32 Lead = U32(Addr - U64(IT));
    if (ReadCode(Env, U64(IT), Lead + 4, Buf)) n = Lead + 4;
    else if (ReadCode(Env, U64(IT), Lead + 2, Buf)) n = Lead + 2;
    if (n) Base = U64(IT);
  }
  if (!n) {
    if (ReadCode(Env, Addr, 4, Buf)) n = 4;
    else if (ReadCode(Env, Addr, 2, Buf)) n = 2;
    else return 1;
  }

  InsnList L;
  L.n = cs_disasm(h, Buf, n, Base, Base == Addr ? 1 : 0, &L.p);
  const cs_insn* pI = nullptr;
  for (size_t i = 0; i < L.n; ++i)
    if (L.p[i].address == Addr) pI = &L.p[i];
  if (!pI && Base != Addr) {
    // The IT walk ran out of step (data or an undefined halfword inside the
    // block): decode the instruction on its own.
    if (L.p) cs_free(L.p, L.n);
    L.p = nullptr;
    if (ReadCode(Env, Addr, 4, Buf)) n = 4;
    else if (ReadCode(Env, Addr, 2, Buf)) n = 2;
    else return 1;
    L.n = cs_disasm(h, Buf, n, Addr, 1, &L.p);
    if (L.n == 1) pI = &L.p[0];
  }
  if (!pI || !pI->detail) return 1;

  const cs_arm& A = pI->detail->arm;
  CORE_INST_INFO& R = pOut->Info;
  R.Size = pI->size;
  U64 F = 0;
  const unsigned Id = pI->id;
  const U64 PCVal = ((Addr + 4) & ~3ull);  // PC as seen by literal addressing
  bool IsAdr = false;
  bool IsPadNop = false;
  U64 AdrTarget = 0;
  long long Literal = -1;

  switch (Id) {
    case ARM_INS_B:
    case ARM_INS_BL:
    case ARM_INS_CBZ:
    case ARM_INS_CBNZ: {
      F |= CORE_INST_CTRL_TRANSFER;
      if (A.op_count > 0 && A.operands[A.op_count - 1].type == ARM_OP_IMM) {
        R.Target = U32(A.operands[A.op_count - 1].imm);
        F |= CORE_INST_DIRECT | CORE_INST_TARGET_KNOWN;
      }
      if (Id == ARM_INS_BL) F |= CORE_INST_CALL;
      if (Id == ARM_INS_CBZ || Id == ARM_INS_CBNZ) F |= CORE_INST_CONDITIONAL;
      break;
    }
    case ARM_INS_BLX:
      F |= CORE_INST_CTRL_TRANSFER | CORE_INST_CALL;
      if (A.op_count > 0 && A.operands[0].type == ARM_OP_IMM) {
        R.Target = U32(A.operands[0].imm);
        F |= CORE_INST_DIRECT | CORE_INST_TARGET_KNOWN;
      }
      break;
    case ARM_INS_BX:
      F |= CORE_INST_CTRL_TRANSFER;
      if (A.op_count > 0 && OpIsReg(A.operands[0], ARM_REG_LR)) F |= CORE_INST_RETURN | CORE_INST_LEAVES;
      break;
    case ARM_INS_TBB:
    case ARM_INS_TBH:
      F |= CORE_INST_CTRL_TRANSFER;
      break;
    case ARM_INS_POP:
    case ARM_INS_LDM:
    case ARM_INS_LDMDB: {
      bool HasPC = false;
      for (int i = 0; i < A.op_count; ++i)
        if (OpIsReg(A.operands[i], ARM_REG_PC) && (Id == ARM_INS_POP || i > 0)) HasPC = true;
      if (HasPC) {
        F |= CORE_INST_CTRL_TRANSFER;
        bool FromSP = Id == ARM_INS_POP || (A.op_count > 0 && OpIsReg(A.operands[0], ARM_REG_SP));
        if (FromSP) F |= CORE_INST_RETURN | CORE_INST_LEAVES;
      }
      break;
    }
    case ARM_INS_NOP:
      F |= CORE_INST_NOP;
      break;
    case ARM_INS_MOV:
      // mov r8, r8: the padding NOP of cores without the NOP hint (ARMv6-M).
      if (pI->size == 2 && pI->bytes[0] == 0xC0 && pI->bytes[1] == 0x46) {
        F |= CORE_INST_NOP;
        IsPadNop = true;
      }
      break;
    case ARM_INS_BKPT:
      F |= CORE_INST_BREAK;
      break;
    case ARM_INS_ADR:
      if (A.op_count >= 2 && A.operands[1].type == ARM_OP_IMM) {
        IsAdr = true;
        AdrTarget = U32(PCVal + A.operands[1].imm);
      }
      break;
    case ARM_INS_ADDW:
    case ARM_INS_SUBW:
      if (A.op_count >= 3 && OpIsReg(A.operands[1], ARM_REG_PC) && A.operands[2].type == ARM_OP_IMM) {
        IsAdr = true;
        AdrTarget = U32(Id == ARM_INS_ADDW ? PCVal + A.operands[2].imm : PCVal - A.operands[2].imm);
      }
      break;
    default:
      break;
  }

  // Any other instruction whose destination is the PC: loads, moves and
  // arithmetic. mov pc, lr and ldr pc, [sp], #4 are returns.
  if (!(F & CORE_INST_CTRL_TRANSFER) && Id != ARM_INS_PUSH && Id != ARM_INS_STM && Id != ARM_INS_STMDB &&
      Id != ARM_INS_IT && A.op_count > 0 && OpIsReg(A.operands[0], ARM_REG_PC) &&
      (A.operands[0].access & CS_AC_WRITE)) {
    F |= CORE_INST_CTRL_TRANSFER;
    if (Id == ARM_INS_MOV && A.op_count == 2 && OpIsReg(A.operands[1], ARM_REG_LR))
      F |= CORE_INST_RETURN | CORE_INST_LEAVES;
    if (Id == ARM_INS_LDR && A.op_count >= 2 && A.operands[1].type == ARM_OP_MEM &&
        A.operands[1].mem.base == ARM_REG_SP && A.op_count == 3)  // post-indexed pop of the PC
      F |= CORE_INST_RETURN | CORE_INST_LEAVES;
  }

  // PC-relative literal loads.
  for (int i = 0; i < A.op_count; ++i) {
    const cs_arm_op& op = A.operands[i];
    if (op.type == ARM_OP_MEM && op.mem.base == ARM_REG_PC && op.mem.index == ARM_REG_INVALID &&
        Id != ARM_INS_TBB && Id != ARM_INS_TBH) {
      Literal = (long long)U32(PCVal + (I64)op.mem.disp);
      break;
    }
  }
  if (Literal < 0 && !A.writeback &&
      (Id == ARM_INS_LDR || Id == ARM_INS_LDRB || Id == ARM_INS_LDRH || Id == ARM_INS_LDRSB ||
       Id == ARM_INS_LDRSH || Id == ARM_INS_LDRD || Id == ARM_INS_VLDR)) {
    const cs_arm_op& M = A.operands[A.op_count - 1];
    if (A.op_count >= 2 && M.type == ARM_OP_MEM && M.mem.index == ARM_REG_INVALID) {
      int Base = CoreRegNum(M.mem.base);
      if (Base >= 0 && Base < 13) {
        long long T = AdrBefore(Env, h, Addr, Base);
        if (T >= 0) Literal = (long long)U32(U64(T) + (I64)M.mem.disp);
      }
    }
  }
  if (Literal >= 0 && !(Id == ARM_INS_PLD || Id == ARM_INS_PLI)) {
    F |= CORE_INST_LITERAL;
    R.Target = U64(Literal);
  } else {
    Literal = -1;
  }
  if (IsAdr) R.Target = AdrTarget;

  if (Id != ARM_INS_IT && A.cc != ARM_CC_AL && A.cc != ARM_CC_INVALID) F |= CORE_INST_CONDITIONAL;
  R.Flags = F;

  if (WantText) {
    char acOps[256];
    if (IsPadNop) {
      std::snprintf(pOut->acText, sizeof pOut->acText, "nop");
      return 0;
    }
    if (IsAdr) {
      const char* sReg = "R0";
      if (A.operands[0].type == ARM_OP_REG) {
        const char* sName = cs_reg_name(h, A.operands[0].reg);
        if (!sName || !IsCoreReg(sName, std::strlen(sName), &sReg)) sReg = "R0";
      }
      std::snprintf(pOut->acText, sizeof pOut->acText, "adr\t%s, 0x%08X", sReg, U32(AdrTarget));
      return 0;
    }
    if (F & CORE_INST_DIRECT) {
      // Replace the trailing "#0x..." of the branch by the absolute target.
      char acTmp[192];
      std::snprintf(acTmp, sizeof acTmp, "%s", pI->op_str);
      char* pHash = std::strrchr(acTmp, '#');
      if (pHash) *pHash = 0;
      char acHead[192];
      RewriteOperands(acTmp, acHead, sizeof acHead);
      std::snprintf(acOps, sizeof acOps, "%s0x%08X", acHead, U32(R.Target));
    } else {
      RewriteOperands(pI->op_str, acOps, sizeof acOps);
    }
    int k;
    if (acOps[0])
      k = std::snprintf(pOut->acText, sizeof pOut->acText, "%s\t%s", pI->mnemonic, acOps);
    else
      k = std::snprintf(pOut->acText, sizeof pOut->acText, "%s", pI->mnemonic);
    if (Literal >= 0 && k > 0 && size_t(k) < sizeof pOut->acText) {
      U32 V;
      if (ReadData32(Env, U64(Literal), &V))
        std::snprintf(pOut->acText + k, sizeof pOut->acText - k, "\t; [0x%08X] = 0x%08X", U32(Literal), V);
      else
        std::snprintf(pOut->acText + k, sizeof pOut->acText - k, "\t; [0x%08X] = 0x????????", U32(Literal));
    }
  }
  return 0;
}

int FormatData(const DecodeEnv& Env, U64 Addr, U32 Size, char* acBuf, U32 BufSize) {
  if (!acBuf || BufSize == 0 || Size == 0 || Size > 8 || !Env.pfRead) return -1;
  if (Addr + Size > 0x100000000ull) return -1;
  U8 b[8];
  if (Env.pfRead(Addr, Size, b, Env.pCtx) != 0) return -1;
  if (Size == 1 || Size == 2 || Size == 4 || Size == 8) {
    U64 V = 0;
    for (U32 i = 0; i < Size; ++i) {
      U32 Idx = Env.DataBigEndian ? i : Size - 1 - i;
      V = (V << 8) | b[Idx];
    }
    int k = std::snprintf(acBuf, BufSize, "DC%u\t0x%0*llX", Size * 8, int(Size * 2), (unsigned long long)V);
    if (k < 0 || U32(k) >= BufSize) return -1;
    return int(Size);
  }
  int k = std::snprintf(acBuf, BufSize, "DC8\t");
  for (U32 i = 0; i < Size && k >= 0 && U32(k) < BufSize; ++i)
    k += std::snprintf(acBuf + k, BufSize - k, i ? ", 0x%02X" : "0x%02X", b[i]);
  if (k < 0 || U32(k) >= BufSize) return -1;
  return int(Size);
}

}  // namespace armcore
