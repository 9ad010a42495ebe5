// A captured memory image that symbols and expressions read from instead of
// the target.
#pragma once
#include "common/types.h"
#include "common/srcloc.h"
#include <QByteArray>
#include <QList>
#include <QString>

// Captured target memory: the bytes of all ranges end to end, in range order.
// memoryZone names the zone for device reads, empty for the default zone.
struct CExprSnapshot {
  QList<CAddrRange> ranges;
  QString memoryZone;
  QByteArray data;  // null when nothing was captured
};
