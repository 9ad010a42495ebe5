#include "stack/stackaccess.h"

#include "elf/dwarf/location.h"
#include "elf/dwarf/target_access.h"

namespace {

class CStackTargetAccess : public ITargetAccess {
 public:
  CStackTargetAccess(ITargetAccess& Inner, ICallFrameStore* pStore) : m_Inner(Inner), m_pStore(pStore) {}
  bool IsAccessible() const override { return m_Inner.IsAccessible(); }
  int ReadMemory(U32 Address, U32 Size, const QString& sZone, QByteArray& Out) override {
    return m_Inner.ReadMemory(Address, Size, sZone, Out);
  }
  ICallFrameStore* GetFrameStore() const override { return m_pStore; }
  IInstructionAnalysis* GetInstructionAnalysis() const override { return m_Inner.GetInstructionAnalysis(); }
  // The target's own answer first (frame 0 of the public stack on a halted
  // target), else the store's.
  bool ReadRegister(int Stack, int Index, U32 Register, U64& Value) const override {
    if (m_Inner.ReadRegister(Stack, Index, Register, Value)) return true;
    return ITargetAccess::ReadRegister(Stack, Index, Register, Value);
  }

 private:
  ITargetAccess& m_Inner;
  ICallFrameStore* m_pStore;
};

}  // namespace

void STACK_InstallTargetAccess(ICallFrameStore* pStore) {
  ITargetAccess& Current = ELF_GetTargetAccess();
  if (Current.GetFrameStore()) return;
  static CStackTargetAccess* s_pAccess = nullptr;
  if (s_pAccess) return;
  s_pAccess = new CStackTargetAccess(Current, pStore);
  ELF_SetTargetAccess(s_pAccess);
}
