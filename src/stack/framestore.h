// The frame store: frames of the two call stacks (0 the public one, 1 the
// one being unwound) and, apart from them, each frame's register values with
// their known flags and its register rules. Locations resolve against it
// (ICallFrameStore); the unwinder (stack/callstack.h) fills it.
#pragma once
#include "common/types.h"
#include "elf/dwarf/location.h"

#include <vector>

class CFrameStore : public ICallFrameStore {
public:
  // Register count and the PC and SP register numbers come from the core
  // plug-in. A change empties both stacks.
  void Configure(U32 RegisterCount, U32 PcRegister, U32 SpRegister, int DepthLimit = 100);
  void Clear(int Stack);
  U32 GetRegisterCount() const { return m_RegisterCount; }
  int GetDepthLimit() const { return m_DepthLimit; }

  // Stores a frame under its stack and index (Frame.index must be the next
  // index or an existing one). False if it doesn't fit.
  bool SetFrame(const CCallFrame& Frame);
  // Status 0 known, 1 unknown.
  void SetRegister(int Stack, int Index, U32 Register, U64 Value, U8 Status);
  void SetRules(int Stack, int Index, const ELF_SYM_LOCS& Rows);
  void SetSelectedFrame(int Index) { m_Selected = Index; }
  // Frames and register rows of one stack copied to the other (frames take
  // the target stack's index).
  void CopyStack(int From, int To);
  // Keeps the first Count frames of a stack.
  void Truncate(int Stack, int Count);

  bool GetFrame(int Stack, int Index, CCallFrame& Out) const override;
  int GetFrameCount(int Stack) const override;
  bool GetRegister(int Stack, int Index, U32 Register, U64& Value) const override;
  ELF_SYM_LOC GetRule(int Stack, int Index, U32 Register) const override;
  U32 GetPcRegister() const override { return m_PcRegister; }
  U32 GetSpRegister() const override { return m_SpRegister; }
  int GetSelectedFrame() const override { return m_Selected; }

private:
  struct REGISTERS {
    std::vector<U64> values;
    std::vector<U8> status;   // 0 known, 1 unknown
    ELF_SYM_LOCS rules;       // one per register, empty until set
  };
  REGISTERS* Row(int Stack, int Index);
  const REGISTERS* Row(int Stack, int Index) const;

  U32 m_RegisterCount = 16, m_PcRegister = 15, m_SpRegister = 13;
  int m_DepthLimit = 100;
  int m_Selected = -1;
  std::vector<CCallFrame> m_Frames[2];
  std::vector<REGISTERS> m_Registers[2];
};

