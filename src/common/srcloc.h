// Program-wide value records: a source location and a target address range.
#pragma once
#include "common/types.h"

// A source location: file id, line, column. All three 0, or file 0xFFFFFFFF,
// is the null location.
struct CSrcLoc {
  U32 file = 0;
  U32 line = 0;
  U32 column = 0;

  CSrcLoc() = default;
  CSrcLoc(U32 File, U32 Line, U32 Column = 0) : file(File), line(Line), column(Column) {}
  bool IsNull() const { return file == 0xFFFFFFFFu || (file == 0 && line == 0 && column == 0); }
  // (file + 713) * 31 + line in 32 bits; equality is decided by all three fields.
  U32 Key() const { return (file + 713u) * 31u + line; }
  bool operator==(const CSrcLoc& o) const { return file == o.file && line == o.line && column == o.column; }
  bool operator!=(const CSrcLoc& o) const { return !(*this == o); }
};

// A target address range. Its end is computed in 64 bits and capped at 4 GiB.
struct CAddrRange {
  U32 start = 0;
  U32 size = 0;

  CAddrRange() = default;
  CAddrRange(U32 Start, U32 Size) : start(Start), size(Size) {}
  U64 End() const {
    U64 e = (U64)start + size;
    return e > 0x100000000ull ? 0x100000000ull : e;
  }
  bool IsEmpty() const { return (start == 0 && size == 0) || start == 0xFFFFFFFFu; }
  bool operator==(const CAddrRange& o) const { return start == o.start && size == o.size; }
  bool operator!=(const CAddrRange& o) const { return !(*this == o); }
};
