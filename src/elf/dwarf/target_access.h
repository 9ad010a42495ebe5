// The one way the debug layer reaches a target. Data locations, symbol
// values and the instruction-level walks of the address mapping read memory,
// registers of a frame, the frame store and instruction analysis through the
// ITargetAccess installed here, and through nothing else.
//
// Who implements it: the device layer (halted target, symbol data cache) and
// the call stack install theirs; with none installed the program image
// answers: initialised data (.data, .rodata, code) from the file, zero-filled
// sections (.bss) as zeros, no frames, no instruction analysis.
#pragma once
#include "common/types.h"

#include <QByteArray>
#include <QString>

class ICallFrameStore;       // elf/dwarf/location.h
class IInstructionAnalysis;  // elf/dwarf/insn_analysis.h

// Result codes of ITargetAccess::ReadMemory.
enum TARGET_READ_RESULT : int {
  TARGET_READ_OK = 0,       // Out holds exactly Size bytes
  TARGET_READ_FAILED = -1,  // nothing read (no program or target, unmapped, bad range); Out undefined
};

class ITargetAccess {
public:
  virtual ~ITargetAccess() = default;

  // True while memory can be read at all (a program is loaded, or the
  // target is connected and halted). When false, readers answer "no data"
  // without asking ReadMemory.
  virtual bool IsAccessible() const = 0;

  // Reads Size bytes at Address (a relocated target address) into Out, in
  // the target's byte order; sZone names a memory zone, empty for the
  // default one. Result: TARGET_READ_OK or TARGET_READ_FAILED.
  virtual int ReadMemory(U32 Address, U32 Size, const QString& sZone, QByteArray& Out) = 0;

  // Frames of the call stacks with their registers and register rules;
  // nullptr when there are none (frame-relative locations stay unresolved).
  virtual ICallFrameStore* GetFrameStore() const = 0;

  // Where instructions start and what they are; nullptr when unknown (the
  // instruction-level walks of the address mapping then answer empty).
  virtual IInstructionAnalysis* GetInstructionAnalysis() const = 0;

  // The value of a register in frame Index of stack Stack (0 public, 1 being
  // unwound). False when it isn't known. By default the frame store answers.
  virtual bool ReadRegister(int Stack, int Index, U32 Register, U64& Value) const;
};

// The program image as a target: reads as described above. A frame store and
// an instruction analysis may be given (not owned); both default to none.
class CProgramImageAccess : public ITargetAccess {
public:
  explicit CProgramImageAccess(ICallFrameStore* pFrames = nullptr, IInstructionAnalysis* pAnalysis = nullptr)
      : m_pFrames(pFrames), m_pAnalysis(pAnalysis) {}
  bool IsAccessible() const override;
  int ReadMemory(U32 Address, U32 Size, const QString& sZone, QByteArray& Out) override;
  ICallFrameStore* GetFrameStore() const override { return m_pFrames; }
  // The one given, else the processor layer's (ELF_SetInstructionAnalysis).
  IInstructionAnalysis* GetInstructionAnalysis() const override;

private:
  ICallFrameStore* m_pFrames;
  IInstructionAnalysis* m_pAnalysis;
};

// Installs the target access (not owned; the caller removes it with nullptr
// before it goes away). nullptr restores the program image. Install once per
// target, from the thread that owns it.
void ELF_SetTargetAccess(ITargetAccess* pAccess);
// The instruction analysis of the processor layer, which every access that
// was given none answers with (not owned; nullptr removes it).
void ELF_SetInstructionAnalysis(IInstructionAnalysis* pAnalysis);
// The installed access, or the program image; never null.
ITargetAccess& ELF_GetTargetAccess();
