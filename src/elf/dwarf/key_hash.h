// An open-addressing table of fixed-depth buckets keyed by 32-bit hashes,
// used for the source file table and the name index. Two texts with equal
// hash are the same key: a later insert replaces the earlier value.
#pragma once
#include "common/types.h"
#include <vector>

class KEY_HASH {
public:
  static constexpr U32 DELETED = 0xFDCB4982u;
  static constexpr int TAG_NAME_INDEX = 253;
  static constexpr int TAG_FILE_TABLE = 254;

  void Create(int Buckets, int Depth, int Tag);
  void Clear();
  void Insert(U32 Key, U64 Value);
  bool Find(U32 Key, U64* pValue) const;
  bool Remove(U32 Key);
  int Count() const { return m_Count; }
  int BucketCount() const { return (int)m_Buckets.size(); }
  int Tag() const { return m_Tag; }

  // The next bucket count after growth from Old.
  static int GrownSize(int Old);

private:
  struct Bucket {
    std::vector<U64> values;
    std::vector<U32> keys;
    int count = 0;
  };
  bool InsertNoGrow(U32 Key, U64 Value);
  void Grow();
  std::vector<Bucket> m_Buckets;
  int m_Depth = 10;
  int m_Count = 0;
  int m_Tag = 0;
};
