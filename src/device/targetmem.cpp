#include "device/targetmem.h"

#include "device/device.h"
#include "settings/ids.h"
#include "settings/sysvars.h"

#include <vector>

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
  if (nBytes > 5000) {
    if (psReason) *psReason = QStringLiteral("cannot access target memory: more than 5000 bytes requested");
    return -1;
  }
  QByteArray sZone;
  if (!d->HaltReported()) {
    sZone = SysVars::GetString(VAR_MEM_ZONE_RUNNING).toUtf8();
    if (sZone == "Default") sZone.clear();
  }
  return d->ReadMem(Addr, nBytes, 0, AW_ANY, MEM_FLAG_ITEM_RETRY, sZone.isEmpty() ? nullptr : sZone.constData(),
                    paData, paStatus);
}

bool CTargetSymbolMemory::IsAccessible() const {
  CDevice* d = CDevice::InstanceIfCreated();
  if (d && d->IsConnected()) return d->CanAccessMemory();
  return m_Image.IsAccessible();
}

int CTargetSymbolMemory::ReadMemory(U32 Address, U32 Size, const QString& sZone, QByteArray& Out) {
  CDevice* d = CDevice::InstanceIfCreated();
  if (!d || !d->IsConnected()) return m_Image.ReadMemory(Address, Size, sZone, Out);
  if (Size == 0 || Size > 5000) return TARGET_READ_FAILED;
  Out.resize(int(Size));
  std::vector<U8> St(Size, 1);
  const int n = DEV_ReadTargetMemory(Address, Size, reinterpret_cast<U8*>(Out.data()), St.data());
  return n == int(Size) ? TARGET_READ_OK : TARGET_READ_FAILED;
}
