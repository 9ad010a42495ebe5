// The DWARF expression stack machine: decodes expression bytes into
// operations and evaluates one piece of a location against what a frame can
// tell (registers, memory, frame base, CFA, values on function entry).
#pragma once
#include "common/types.h"
#include "elf/dwarf/dwarf_bridge.h"
#include <vector>

namespace dwexpr {

// What an evaluation asks of its frame; each answer is false when unknown.
class IFrameContext {
public:
  virtual ~IFrameContext() = default;
  virtual bool Register(U32 Reg, U64& Value) = 0;
  // Size bytes (1-8) at Address, in the program's byte order.
  virtual bool Memory(U64 Address, U32 Size, U64& Value) = 0;
  virtual bool FrameBase(U64& Value) = 0;
  virtual bool Cfa(U64& Value) = 0;
  // The value Reg held when the frame's function was entered.
  virtual bool EntryValue(U32 Reg, U64& Value) = 0;
  // A DW_OP_addr operand as the target sees it.
  virtual U64 Relocate(U64 FileAddress) { return FileAddress; }
};

enum RESULT_KIND { RESULT_NONE, RESULT_MEMORY, RESULT_REGISTER, RESULT_VALUE };

struct RESULT {
  RESULT_KIND kind = RESULT_NONE;
  U64 value = 0;                 // the address (memory) or the value
  U32 reg = 0;                   // the register
  const char* sError = nullptr;  // why there is no result
};

// Decodes an expression block (DW_FORM_exprloc, the operand of
// DW_OP_entry_value) with AddrSize-byte addresses and little-endian fixed
// operands. False on a truncated block or an unknown operation.
bool DecodeOps(const U8* p, size_t n, U32 AddrSize, std::vector<dwb::LocOp>& Out);

// Evaluates the operations of one piece (no DW_OP_piece among them), in
// arithmetic of AddrSize bytes. Without AsValue the result is where the
// object lies: in memory at the top of the stack, in a register (a lone
// DW_OP_reg), or an implicit value (DW_OP_stack_value, DW_OP_implicit_value).
// With AsValue (call-site values, DW_OP_entry_value operands) the top of the
// stack is the value and a lone DW_OP_reg yields the register's value.
RESULT Evaluate(const std::vector<dwb::LocOp>& Ops, IFrameContext& Ctx, bool AsValue = false, U32 AddrSize = 4);

// The register a lone DW_OP_reg0..31 or DW_OP_regx names; false otherwise.
bool IsLoneRegister(const std::vector<dwb::LocOp>& Ops, U32* pReg);

}  // namespace dwexpr
