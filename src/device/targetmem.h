// The target side of the debug layer: symbol values and frame words are read
// from target memory while a target is connected and accessible, and from the
// program image otherwise.
#pragma once
#include "elf/dwarf/target_access.h"

class CTargetSymbolMemory : public ITargetAccess {
 public:
  bool IsAccessible() const override;
  int ReadMemory(U32 Address, U32 Size, const QString& sZone, QByteArray& Out) override;
  ICallFrameStore* GetFrameStore() const override { return m_Image.GetFrameStore(); }
  IInstructionAnalysis* GetInstructionAnalysis() const override { return m_Image.GetInstructionAnalysis(); }

 private:
  CProgramImageAccess m_Image;
};

// A synchronous read with the script access rule (connected; halted or
// background access), at most 5000 bytes. Returns the number of bytes read
// and fills paStatus (0 read, 1 failed); -1 when access is refused, with the
// reason in *psReason.
int DEV_ReadTargetMemory(U32 Addr, U32 nBytes, U8* paData, U8* paStatus, QString* psReason = nullptr);
