#include "device/targetmem.h"

#include "device/coresupport.h"
#include "device/datamanager.h"
#include "device/device.h"

#include <cstring>
#include <vector>

namespace {
constexpr U32 kMaxDebugRead = 0x10000;
}

int DEV_ReadTargetMemory(U32 Addr, U32 nBytes, U8* paData, U8* paStatus, QString* psReason) {
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected()) {
    if (psReason) *psReason = QStringLiteral("cannot access target memory: target not connected");
    return -1;
  }
  if (!d->CanAccessMemory()) {
    if (psReason) *psReason = QStringLiteral("cannot access target memory: target not halted and background memory access not supported");
    return -1;
  }
  if (nBytes > DM_MAX_DIRECT_READ) {
    if (psReason) *psReason = QStringLiteral("cannot access target memory: more than 5000 bytes requested");
    return -1;
  }
  if (!nBytes) return 0;
  if (CDeviceDataManager::Instance().ReadMemSync(Addr, nBytes, nullptr, paData, paStatus) < 0) {
    memset(paStatus, 1, nBytes);
    return 0;
  }
  int n = 0;
  for (U32 i = 0; i < nBytes; ++i) n += paStatus[i] == 0;
  return n;
}

CTargetSymbolMemory::CTargetSymbolMemory() { CDeviceDataManager::Instance(); }

bool CTargetSymbolMemory::IsAccessible() const {
  CDevice* d = CDevice::InstanceIfCreated();
  if (d && d->IsConnected()) return d->CanAccessMemory();
  return m_Image.IsAccessible();
}

int CTargetSymbolMemory::ReadMemory(U32 Address, U32 Size, const QString& sZone, QByteArray& Out) {
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected()) return m_Image.ReadMemory(Address, Size, sZone, Out);
  if (Size == 0 || Size > kMaxDebugRead) return TARGET_READ_FAILED;
  Out.resize(int(Size));
  std::vector<U8> St(Size, 1);
  const QByteArray Zn = sZone.toUtf8();
  const int s = CDeviceDataManager::Instance().ReadMemSync(Address, Size, Zn.isEmpty() ? nullptr : Zn.constData(),
                                                           reinterpret_cast<U8*>(Out.data()), St.data());
  return s == 0 ? TARGET_READ_OK : TARGET_READ_FAILED;
}

bool CTargetSymbolMemory::ReadRegister(int Stack, int Index, U32 Register, U64& Value) const {
  CDevice* d = CDevice::InstanceIfCreated();
  const ICoreSupport* cs = DEV_GetCoreSupport();
  if (Stack == 0 && Index == 0 && cs && d && d->IsConnected() && d->IsStandingForReaders()) {
    const int Idx = cs->GetRegIndex(Register);
    if (Idx >= 0) return CDeviceDataManager::Instance().ReadRegNow(U32(Idx), &Value) == 0;
  }
  return ITargetAccess::ReadRegister(Stack, Index, Register, Value);
}
