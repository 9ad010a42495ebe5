// The program's own deterministic text hash (start 5381, hash * 33 + char),
// used wherever a hash is stored or compared across runs. Qt's qHash is seeded
// per process and must not be used for that. The hash of an empty text is 0.
#pragma once
#include "common/types.h"
#include <string_view>

inline U32 TextHash(std::string_view s) {
  if (s.empty()) return 0;
  U32 h = 5381;
  for (unsigned char c : s) h = h * 33u + c;
  return h;
}
