#include "elf/dwarf/target_access.h"

#include "elf/dwarf/location.h"
#include "elf/elf_file.h"
#include "elf/elfapi.h"

#include <QMutexLocker>
#include <atomic>

namespace {
CProgramImageAccess s_Image;
std::atomic<ITargetAccess*> s_pAccess{nullptr};
std::atomic<IInstructionAnalysis*> s_pAnalysis{nullptr};
}  // namespace

bool ITargetAccess::ReadRegister(int Stack, int Index, U32 Register, U64& Value) const {
  const ICallFrameStore* s = GetFrameStore();
  return s && Stack >= 0 && Index >= 0 && s->GetRegister(Stack, Index, Register, Value);
}

bool CProgramImageAccess::IsAccessible() const { return CElfApi::Instance().GetFile() != nullptr; }

int CProgramImageAccess::ReadMemory(U32 Address, U32 Size, const QString&, QByteArray& Out) {
  QMutexLocker Lock(&CElfApi::Instance().Mutex());
  ELF_FILE* f = CElfApi::Instance().GetFile();
  if (!f || Size == 0 || Size > 0x7FFFFFFFu || (U64)Address + Size > 0x100000000ull) return TARGET_READ_FAILED;
  const U8* p = ELF_ReadImage(f, Address, Address + Size);
  if (!p) {
    // Zero-initialised sections read as the zeros the program starts with.
    for (int i = 0; i < ELF_GetNumSections(f); ++i) {
      const U32 a = ELF_GetSectionAddr(f, i);
      if (ELF_GetSectionType(f, i) == 8 && (ELF_GetSectionFlags(f, i) & 2) && a <= Address &&
          (U64)Address + Size <= (U64)a + ELF_GetSectionSize(f, i)) {
        Out = QByteArray((int)Size, 0);
        return TARGET_READ_OK;
      }
    }
    return TARGET_READ_FAILED;
  }
  Out = QByteArray((const char*)p, (int)Size);
  return TARGET_READ_OK;
}

IInstructionAnalysis* CProgramImageAccess::GetInstructionAnalysis() const {
  return m_pAnalysis ? m_pAnalysis : s_pAnalysis.load();
}

void ELF_SetInstructionAnalysis(IInstructionAnalysis* pAnalysis) { s_pAnalysis.store(pAnalysis); }

void ELF_SetTargetAccess(ITargetAccess* pAccess) { s_pAccess.store(pAccess); }

ITargetAccess& ELF_GetTargetAccess() {
  ITargetAccess* p = s_pAccess.load();
  return p ? *p : s_Image;
}

int ELF_ReadTargetValue(U32 Address, U32 Size, U64* pValue) {
  ITargetAccess& a = ELF_GetTargetAccess();
  QByteArray b;
  if (!pValue || Size == 0 || Size > 8 || !a.IsAccessible() || a.ReadMemory(Address, Size, QString(), b) != TARGET_READ_OK ||
      b.size() != (int)Size)
    return -1;
  bool Big;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    const ELF_FILE* f = CElfApi::Instance().GetFile();
    Big = f && f->bigEndian;
  }
  U64 v = 0;
  for (U32 i = 0; i < Size; ++i) v |= (U64)(U8)b[Big ? Size - 1 - i : i] << (8 * i);
  *pValue = v;
  return 0;
}

int ELF_ReadTargetWord(U32 Address, U32* pWord) {
  U64 v;
  if (!pWord || ELF_ReadTargetValue(Address, 4, &v) != 0) return -1;
  *pWord = (U32)v;
  return 0;
}
