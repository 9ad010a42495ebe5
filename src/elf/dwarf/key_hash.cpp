#include "elf/dwarf/key_hash.h"

void KEY_HASH::Create(int Buckets, int Depth, int Tag) {
  m_Buckets.clear();
  m_Buckets.resize(Buckets > 0 ? Buckets : 1021);
  m_Depth = Depth > 0 ? Depth : 10;
  m_Count = 0;
  m_Tag = Tag;
}

void KEY_HASH::Clear() {
  m_Buckets.clear();
  m_Count = 0;
}

int KEY_HASH::GrownSize(int Old) {
  const long long n = 2LL * Old;
  if (n < 100) return 97;
  if (n < 1000) return 997;
  if (n < 10000) return 9967;
  if (n < 100000) return 99991;
  if (n < 1000000) return 999983;
  return (int)(1.33333 * (double)n);
}

// Probe sequence: start at key % n, step 1 + key % (n - 2).
static inline U32 StepOf(U32 Key, U32 n) { return n > 2 ? 1 + Key % (n - 2) : 1; }

bool KEY_HASH::Find(U32 Key, U64* pValue) const {
  const U32 n = (U32)m_Buckets.size();
  if (!n) return false;
  U32 b = Key % n;
  const U32 step = StepOf(Key, n);
  for (U32 i = 0; i < n; ++i) {
    const Bucket& bk = m_Buckets[b];
    if (bk.count == 0) return false;
    for (int j = 0; j < bk.count; ++j)
      if (bk.keys[j] == Key) {
        if (pValue) *pValue = bk.values[j];
        return true;
      }
    if (bk.count < m_Depth) return false; // a bucket with room ends the chain
    b = (b + step) % n;
  }
  return false;
}

bool KEY_HASH::InsertNoGrow(U32 Key, U64 Value) {
  const U32 n = (U32)m_Buckets.size();
  if (!n) return false;
  U32 b = Key % n;
  const U32 step = StepOf(Key, n);
  for (U32 i = 0; i < n; ++i) {
    Bucket& bk = m_Buckets[b];
    for (int j = 0; j < bk.count; ++j)
      if (bk.keys[j] == Key) {
        bk.values[j] = Value;
        return true;
      }
    if (bk.count < m_Depth) {
      bk.keys.push_back(Key);
      bk.values.push_back(Value);
      ++bk.count;
      ++m_Count;
      return true;
    }
    b = (b + step) % n;
  }
  return false;
}

void KEY_HASH::Grow() {
  std::vector<Bucket> old;
  old.swap(m_Buckets);
  m_Buckets.resize(GrownSize((int)old.size()));
  m_Count = 0;
  for (const Bucket& bk : old)
    for (int j = 0; j < bk.count; ++j)
      if (bk.keys[j] != DELETED) InsertNoGrow(bk.keys[j], bk.values[j]);
}

void KEY_HASH::Insert(U32 Key, U64 Value) {
  if (m_Buckets.empty()) Create(0, m_Depth, m_Tag);
  if ((long long)m_Depth * (long long)m_Buckets.size() <= m_Count && !Find(Key, nullptr)) Grow();
  while (!InsertNoGrow(Key, Value)) Grow();
}

bool KEY_HASH::Remove(U32 Key) {
  const U32 n = (U32)m_Buckets.size();
  if (!n) return false;
  U32 b = Key % n;
  const U32 step = StepOf(Key, n);
  for (U32 i = 0; i < n; ++i) {
    Bucket& bk = m_Buckets[b];
    if (bk.count == 0) return false;
    for (int j = 0; j < bk.count; ++j)
      if (bk.keys[j] == Key) {
        bk.keys[j] = DELETED; // keeps the probe chain intact
        return true;
      }
    if (bk.count < m_Depth) return false;
    b = (b + step) % n;
  }
  return false;
}
