// Data locations and call frame rules as one small value, ELF_SYM_LOC: a
// count and up to two parts. Plain data: copied, compared bytewise, queued.
#pragma once
#include "common/types.h"
#include "elf/elf.h"
#include <vector>

enum ELF_LOC_KIND : U32 {
  ELF_LOC_NONE = 0,
  ELF_LOC_CONST = 1,          // constant value
  ELF_LOC_ADDR = 2,           // at an address
  ELF_LOC_ADDR_OFFSET = 3,    // at address + offset
  ELF_LOC_REG = 4,            // in a register
  ELF_LOC_REG_VALUE = 5,      // value register + offset
  ELF_LOC_AT_REG = 6,         // at [register + offset]
  ELF_LOC_SP_VALUE = 7,       // value SP + offset
  ELF_LOC_BP_VALUE = 8,       // value BP + offset
  ELF_LOC_CFA_VALUE = 9,      // value CFA + offset
  ELF_LOC_AT_SP = 10,         // at [SP + offset]
  ELF_LOC_AT_BP = 11,         // at [BP + offset]
  ELF_LOC_AT_CFA = 12,        // at [CFA + offset]
  ELF_LOC_PARENT_VALUE = 13,  // parent value + offset
  ELF_LOC_PARENT_LOC = 14,    // parent location + offset
  ELF_LOC_ENTRY_VALUE = 15,   // value on function entry
  ELF_LOC_INNER_VALUE = 16,   // value of the inner location
  ELF_LOC_EXPR = 17,          // a DWARF expression evaluated against the frame;
                              // address holds its number (ELF_GetLocationExpression)
};

// libdwarf's pseudo registers for "undefined" and "same value".
constexpr U32 ELF_REG_UNDEFINED = 1034;
constexpr U32 ELF_REG_SAME = 1035;

struct ELF_LOC_PART {
  U32 kind;
  U32 address;
  U32 reg;
  I32 offset;
  U32 size;
  U32 pad;
  U64 value;
  U32 baseKind;
  U32 baseAddress;
  U32 baseRegister;
  I32 baseOffset;
};

struct ELF_SYM_LOC {
  U32 count;
  U32 pad;
  ELF_LOC_PART parts[2];
};
static_assert(sizeof(ELF_SYM_LOC) == 8 + 2 * 48);

typedef std::vector<ELF_SYM_LOC> ELF_SYM_LOCS;

// Text of the first part (64-byte shared buffer).
const char* ELF_LocationToText(const ELF_SYM_LOC& Loc);
bool ELF_IsMixedLocation(const ELF_SYM_LOC& Loc);
bool ELF_IsMemoryLocation(const ELF_SYM_LOC& Loc);

// The stack pointer's DWARF register number (from the core plug-in; 13 on ARM).
void ELF_SetSpRegister(U32 Reg);
U32 ELF_GetSpRegister();

// One call frame rule as a location (see the rules in location.cpp).
ELF_SYM_LOC ELF_RuleToLocation(U32 ValueType, bool OffsetRelevant, U32 Column, U32 Register, I32 Offset);

// Rules of columns 0..Count-1 at pc (file address). The SP column holds the
// CFA rule, its offset times the file's cfaScale. Returns the number of rows
// written, 0 if no frame description holds pc.
int ELF_GetRegisterRules(ELF_FILE* pFile, U32 Pc, int Count, ELF_SYM_LOCS& Rows);
// The CFA rule at pc (one part, column = SP), cached for one pc; empty if none.
ELF_SYM_LOC ELF_GetCfaRule(ELF_FILE* pFile, U32 Pc);
// Return address column of the first CIE, -1 if none.
int ELF_GetReturnAddressColumn(const ELF_FILE* pFile);
// Frame descriptions: count and the range of one.
int ELF_GetNumFrameDescriptions(const ELF_FILE* pFile);
bool ELF_GetFrameDescriptionRange(const ELF_FILE* pFile, int Index, U32* pStart, U32* pEnd);
// Addresses at which the rows of one frame description begin.
std::vector<U32> ELF_GetFrameRowAddresses(const ELF_FILE* pFile, int Index);

// Location of a debug entry or ELF symbol at pc (relocated target address;
// 0 or 0xFFFFFFFF take the first entry of a list).
ELF_SYM_LOC ELF_GetSymbolLocation(ELF_SYM_HANDLE h, U32 Pc);
// The same for one attribute (DW_AT_location, DW_AT_frame_base, ...).
ELF_SYM_LOC ELF_GetAttrLocation(ELF_SYM_HANDLE h, U32 Pc, U32 Attribute);
bool ELF_IsRegisterLocation(const ELF_SYM_LOC& Loc);
bool ELF_IsConstLocation(const ELF_SYM_LOC& Loc);
bool ELF_IsResolvedLocation(const ELF_SYM_LOC& Loc);
bool ELF_IsStaticLocation(ELF_SYM_HANDLE h);
// Address ranges over which an entry's location list applies ([0, ~0) for a
// single expression), file addresses.
std::vector<std::pair<U32, U32>> ELF_GetLocationRanges(ELF_SYM_HANDLE h, U32 Attribute);

// A 32-bit word of the target in the program's byte order, read through the
// installed target access (elf/dwarf/target_access.h). 0, or -1 when it
// cannot be read.
int ELF_ReadTargetWord(U32 Address, U32* pWord);
// Size (1-8) bytes of the target as one number in the program's byte order.
int ELF_ReadTargetValue(U32 Address, U32 Size, U64* pValue);

// ---- call frames -------------------------------------------------------------
// One frame of a call stack as locations see it. A value without pointers:
// register values live in the frame store, keyed by (stack, index, register).
struct CCallFrame {
  I32 stack = -1;          // frame store row, -1 for an invalid frame
  I32 index = -1;          // 0 is the innermost frame, -1 invalid
  U8 isInline = 0;         // the function is an inlined instance
  U32 frameSize = 0;       // CFA - SP when 0 <= difference <= 100,000
  U32 registerCount = 0;
  U32 returnColumn = 0;
  U64 returnAddress = 0;
  U64 bp = 0;              // frame base value
  U64 cfa = 0;             // canonical frame address
  U8 raStatus = 3, bpStatus = 3, cfaStatus = 3;  // 0 known, 1 failed, 3 not evaluated
  U8 noCfi = 0;            // no register rules for this frame
  ELF_SYM_LOC frameBase{}; // the function's frame base location, resolved so far
  ELF_SYM_HANDLE function = 0;  // function or inlined instance at the PC

  bool IsValid() const { return stack >= 0 && index >= 0; }
};

// Where frames and their register data are kept. The target access
// (elf/dwarf/target_access.h) hands it out; without one every frame-relative
// location stays unresolved.
class ICallFrameStore {
public:
  virtual ~ICallFrameStore() = default;
  // The frame (Stack, Index); false if the stack has no such frame.
  virtual bool GetFrame(int Stack, int Index, CCallFrame& Out) const = 0;
  virtual int GetFrameCount(int Stack) const = 0;
  // A register's value in a frame; false when it isn't known.
  virtual bool GetRegister(int Stack, int Index, U32 Register, U64& Value) const = 0;
  // The frame's rule for a register (where the caller's value of it lies),
  // empty if there is none.
  virtual ELF_SYM_LOC GetRule(int Stack, int Index, U32 Register) const = 0;
  virtual U32 GetPcRegister() const = 0;
  virtual U32 GetSpRegister() const = 0;
  // The frame the user selected in the public stack, -1 if none.
  virtual int GetSelectedFrame() const { return -1; }
};

// Resolves every part of a location against a frame, in place. A part that
// fails becomes kind 0 and is logged.
void ResolveLocation(const CCallFrame& Frame, ELF_SYM_LOC& Location);
ELF_LOC_PART ResolveLocPart(const CCallFrame& Frame, const ELF_LOC_PART& Part);
// The value a resolved register part (kind 4 or 5) reads: the device's
// register of the innermost frame of the stack, plus the offset of kind 5.
bool ELF_ReadRegisterPart(const CCallFrame& Frame, const ELF_LOC_PART& Part, U64& Value);
// A resolved part as a number: the value of kind 1, the register of kinds 4
// and 5, the word at the address of kinds 2 and 3.
bool ELF_ResolvedPartWord(const CCallFrame& Frame, const ELF_LOC_PART& Part, U64& Value);
