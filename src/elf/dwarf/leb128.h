// LEB128 numbers of DWARF data: read at p below end, p moved past them.
// False if the number runs over the end.
#pragma once
#include "common/types.h"

namespace dwleb {

inline bool ReadUleb(const U8*& p, const U8* end, U64* pValue) {
  U64 r = 0;
  for (int shift = 0; p < end; shift += 7) {
    const U8 b = *p++;
    if (shift < 64) r |= (U64)(b & 0x7F) << shift;
    if (!(b & 0x80)) {
      *pValue = r;
      return true;
    }
  }
  return false;
}

inline bool ReadSleb(const U8*& p, const U8* end, U64* pValue) {
  U64 r = 0;
  for (int shift = 0; p < end; shift += 7) {
    const U8 b = *p++;
    if (shift < 64) r |= (U64)(b & 0x7F) << shift;
    if (!(b & 0x80)) {
      if (shift + 7 < 64 && (b & 0x40)) r |= ~0ull << (shift + 7);
      *pValue = r;
      return true;
    }
  }
  return false;
}

}  // namespace dwleb
