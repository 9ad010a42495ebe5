// What the address mapping needs to know about the instructions of the
// program: where instructions start and how long they are, which addresses
// hold data, which are call or branch targets. The processor layer
// implements it over its instruction cache; the target access
// (elf/dwarf/target_access.h) hands it out. Without one the
// instruction-level walks of the address mapping answer empty.
#pragma once
#include "common/types.h"

class IInstructionAnalysis {
public:
  virtual ~IInstructionAnalysis() = default;
  // True if an instruction starts at Address (never inside a data range).
  virtual bool IsInstructionStart(U32 Address) const = 0;
  // Size of the instruction that starts at Address, 0 if none does.
  virtual U32 GetInstructionSize(U32 Address) const = 0;
  // Kind of the row at Address: 0 code, 1 data (a data mapping range).
  virtual int GetKind(U32 Address) const = 0;
  // True if some call or branch of the program goes to Address.
  virtual bool IsBranchTarget(U32 Address) const = 0;
  // Step of instruction starts (2 for Thumb) and the largest instruction size.
  virtual U32 GetInstAlignment() const = 0;
  virtual U32 GetMaxInstSize() const = 0;
  // True when no jump or return lies in [Start, End) (calls may); without
  // branch knowledge an analysis answers false.
  virtual bool IsStraightCode(U32 Start, U32 End) const { return false; }
};
