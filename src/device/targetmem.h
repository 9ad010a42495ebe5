// The target side of the debug layer: symbol values, frame words and the
// registers of the innermost frame come through the data cache while a
// target is connected and accessible, and from the program image otherwise.
#pragma once
#include "elf/dwarf/target_access.h"

class CTargetSymbolMemory : public ITargetAccess {
 public:
  // Makes the data cache, so that it hears of every halt before the windows do.
  CTargetSymbolMemory();
  bool IsAccessible() const override;
  int ReadMemory(U32 Address, U32 Size, const QString& sZone, QByteArray& Out) override;
  ICallFrameStore* GetFrameStore() const override { return m_Image.GetFrameStore(); }
  IInstructionAnalysis* GetInstructionAnalysis() const override { return m_Image.GetInstructionAnalysis(); }
  // Frame 0 of the public stack on a halted target: the register cache.
  bool ReadRegister(int Stack, int Index, U32 Register, U64& Value) const override;

 private:
  CProgramImageAccess m_Image;
};

// A synchronous read with the script access rule (connected; halted or
// background access), at most 5000 bytes; on a halted target through the
// data cache. Returns the number of bytes read and fills paStatus (0 read,
// 1 failed); -1 when access is refused, with the reason in *psReason.
int DEV_ReadTargetMemory(U32 Addr, U32 nBytes, U8* paData, U8* paStatus, QString* psReason = nullptr);
