// Rules of the reader that a corpus file can't show on its own: the key
// hash table, the name hash, the short spellings of base types, and the
// name index order on a real file.
#include "dwarf_test_util.h"
#include "elf/dwarf/key_hash.h"

#include <gtest/gtest.h>
#include <string.h>

TEST(KeyHash, InsertFindReplaceAndGrow) {
  KEY_HASH t;
  t.Create(0, 0, KEY_HASH::TAG_NAME_INDEX);
  EXPECT_EQ(t.BucketCount(), 1021);
  U64 v = 0;
  EXPECT_FALSE(t.Find(42, &v));
  t.Insert(42, 7);
  t.Insert(42, 9); // same key: the later value wins
  ASSERT_TRUE(t.Find(42, &v));
  EXPECT_EQ(v, 9u);
  EXPECT_EQ(t.Count(), 1);
  // Depth 1 and many keys that share a start bucket: probing and growth keep
  // every key reachable.
  KEY_HASH s;
  s.Create(5, 1, KEY_HASH::TAG_FILE_TABLE);
  for (U32 k = 0; k < 3000; ++k) s.Insert(k * 5, k);
  EXPECT_GE(s.BucketCount(), 3000);
  for (U32 k = 0; k < 3000; ++k) {
    ASSERT_TRUE(s.Find(k * 5, &v)) << k;
    EXPECT_EQ(v, k);
  }
  EXPECT_FALSE(s.Find(3, &v));
  EXPECT_TRUE(s.Remove(10));
  EXPECT_FALSE(s.Find(10, &v));
  EXPECT_TRUE(s.Find(15, &v)); // a removed key doesn't break the chain of others
}

TEST(KeyHash, GrowthSizes) {
  EXPECT_EQ(KEY_HASH::GrownSize(10), 97);
  EXPECT_EQ(KEY_HASH::GrownSize(97), 997);
  EXPECT_EQ(KEY_HASH::GrownSize(997), 9967);
  EXPECT_EQ(KEY_HASH::GrownSize(9967), 99991);
  EXPECT_EQ(KEY_HASH::GrownSize(99991), 999983);
  EXPECT_EQ(KEY_HASH::GrownSize(999983), (int)(1.33333 * 2 * 999983.0));
}

TEST(NameHash, Djb2WithSignedBytes) {
  EXPECT_EQ(ELF_HashName(""), 5381u);
  EXPECT_EQ(ELF_HashName(nullptr), 0u);
  EXPECT_EQ(ELF_HashName("a"), 5381u * 33u + 'a');
  // Bytes above 127 count as negative.
  EXPECT_EQ(ELF_HashName("\xE9"), 5381u * 33u + (U32)(I32)(signed char)0xE9);
}

TEST(NameHash, CollidingNamesShareOneKey) {
  // "Aa" and "B@" have the same hash: the later value answers for both.
  ASSERT_EQ(ELF_HashName("Aa"), ELF_HashName("B@"));
  KEY_HASH t;
  t.Create(0, 1, KEY_HASH::TAG_NAME_INDEX);
  t.Insert(ELF_HashName("Aa"), 1);
  t.Insert(ELF_HashName("B@"), 2);
  U64 v;
  ASSERT_TRUE(t.Find(ELF_HashName("Aa"), &v));
  EXPECT_EQ(v, 2u);
}

TEST(ShortenTypeName, FirstOccurrenceOfEachRow) {
  struct {
    const char* in;
    const char* out;
  } cases[] = {
      {"unsigned char", "uchar"},
      {"short unsigned int", "ushort"},
      {"long unsigned int", "ulong"},
      {"long long unsigned int", "long ulong"},
      {"unsigned long long", "ulong long"}, // the "unsigned long" row comes first
      {"long long int", "long long"},
      {"signed char", "char"},
      {"short int", "short"},
      {"long int", "long"},
      {"_Bool", "_Bool"},
      {"char", "char"},
      {"uint", "uint"},
  };
  for (auto& c : cases) {
    char buf[512];
    strcpy(buf, c.in);
    ELF_ShortenTypeName(buf);
    EXPECT_STREQ(buf, c.out) << c.in;
  }
}

TEST(DebugParse, FileWithoutDebugSectionsHasEmptyLists) {
  DebugFile df(CorpusPath("app-nodebug.elf"));
  ASSERT_NE(df.f, nullptr);
  EXPECT_FALSE(ELF_HasDebugInfo(df.f));
  for (int l = 0; l < ELF_LIST_COUNT; ++l) EXPECT_EQ(ELF_GetListCount(df.f, l), 0);
  EXPECT_EQ(ELF_GetNumLineRows(df.f), 0);
  EXPECT_EQ(ELF_GetName(0), std::string());
  EXPECT_EQ(ELF_GetTag(0x1234), 0u);
}

TEST(DebugParse, NamesTypesAndExtentsOnTheReferenceBuild) {
  DebugFile df(CorpusPath("app-dwarf4-O0.elf"));
  ASSERT_NE(df.f, nullptr);
  EXPECT_EQ(ELF_GetDwarfVersion(df.f), 4u);
  EXPECT_NE(std::string(ELF_GetProducer(df.f)).find("GNU C17"), std::string::npos);
  const ELF_SYM_HANDLE mainFn = ELF_GetEntryFunction(df.f);
  ASSERT_NE(mainFn, 0u);
  EXPECT_STREQ(ELF_GetName(mainFn), "main");
  EXPECT_EQ(ELF_GetTag(mainFn), (U32)ELF_TAG_SUBPROGRAM);
  EXPECT_GT(ELF_GetLocalCount(ELF_FindName(df.f, "comm_feed")), 0);

  // Functions win over globals over types in the name index.
  const ELF_SYM_HANDLE g = ELF_FindName(df.f, "g_matrix");
  ASSERT_NE(g, 0u);
  EXPECT_EQ(ELF_GetTag(g), (U32)ELF_TAG_VARIABLE);
  EXPECT_STREQ(ELF_GetTypeName(g), "short[3][4]");
  const ELF_SYM_HANDLE arr = ELF_GetType(g, false);
  ASSERT_EQ(ELF_GetTag(arr), (U32)ELF_TAG_ARRAY);
  ELF_ARRAY_INFO ai = ELF_GetArrayInfo(arr);
  EXPECT_EQ(ai.total, 24u);
  EXPECT_EQ(ai.elementBytes, 2u);
  EXPECT_EQ(ai.elementCount, 12u);
  EXPECT_EQ(ai.dimensionCount, 2u);
  EXPECT_EQ(ai.dimensions[0], 3u);
  EXPECT_EQ(ai.dimensions[1], 4u);

  EXPECT_STREQ(ELF_GetTypeName(ELF_FindName(df.f, "g_greeting")), "const char*");
  EXPECT_EQ(ELF_IsSigned(ELF_FindName(df.f, "g_schar")), 1);
  EXPECT_EQ(ELF_IsSigned(ELF_FindName(df.f, "g_uchar")), 0);
  EXPECT_EQ(ELF_IsSigned(ELF_FindName(df.f, "g_int_ptr")), 0);

  // A union member without DW_AT_data_member_location sits at offset 0.
  const ELF_SYM_HANDLE ctrl = ELF_GetType(ELF_FindName(df.f, "g_ctrl"), false);
  ASSERT_EQ(ELF_GetTag(ctrl), (U32)ELF_TAG_UNION);
  ASSERT_EQ(ELF_GetMemberCount(ctrl), 3);
  EXPECT_EQ(ELF_GetMemberIndex(ctrl, "bytes"), 2);
  EXPECT_EQ(ELF_GetMemberOffset(ELF_GetMember(ctrl, 2)), 0u);

  // Tree navigation agrees with the walk's parent links.
  const ELF_SYM_HANDLE unit = ELF_GetUnitRoot(mainFn);
  ASSERT_NE(unit, 0u);
  EXPECT_EQ(ELF_GetTag(unit), (U32)ELF_TAG_COMPILE_UNIT);
  EXPECT_EQ(ELF_GetParent(mainFn), unit);
  EXPECT_EQ(ELF_FindAncestor(ELF_GetLocal(mainFn, 0), ELF_TAG_COMPILE_UNIT), unit);
  EXPECT_EQ(ELF_FindAncestor(ELF_GetLocal(mainFn, 0), ELF_TAG_SUBPROGRAM), mainFn);
  const ELF_SYM_HANDLE first = ELF_GetFirstChild(unit);
  ASSERT_NE(first, 0u);
  EXPECT_EQ(ELF_GetParent(first), unit);
  EXPECT_EQ(ELF_GetParent(ELF_GetNextSibling(first)), unit);

  // The function's extent equals its ELF symbol's.
  const int row = ELF_FindSymbolByName(df.f, "main");
  ASSERT_GE(row, 0);
  const ELF_SYMBOL* sym = ELF_GetSymbolRow(df.f, row);
  EXPECT_EQ(ELF_GetStart(mainFn, 0), sym->st_value & ~1u);
  EXPECT_EQ(ELF_GetSize(mainFn), sym->st_size);
}

TEST(DebugParse, BitFieldOffsetsFromBitOffsetAttribute) {
  // DWARF 2 writes DW_AT_bit_offset (from the most significant bit): trim,
  // 4 bits at bit offset 0 of a 4-byte int, starts at bit 28 counted from
  // bit 0; irq_mask (12 bits at DW_AT_bit_offset 4) at bit 16.
  DebugFile df(CorpusPath("app-dwarf2-O0.elf"));
  ASSERT_NE(df.f, nullptr);
  const ELF_SYM_HANDLE ctrl = ELF_GetType(ELF_FindName(df.f, "g_ctrl"), false);
  const ELF_SYM_HANDLE bits = ELF_GetType(ELF_GetMember(ctrl, 1), false);
  ASSERT_EQ(ELF_GetTag(bits), (U32)ELF_TAG_STRUCT);
  const ELF_SYM_HANDLE trim = ELF_GetMember(bits, ELF_GetMemberIndex(bits, "trim"));
  EXPECT_EQ(ELF_GetBitSize(trim), 4u);
  EXPECT_EQ(ELF_GetAttrValue(trim, 12, nullptr), 0u);
  EXPECT_EQ(ELF_GetBitOffset(trim), 28u);
  EXPECT_EQ(ELF_GetBitOffset(ELF_GetMember(bits, ELF_GetMemberIndex(bits, "irq_mask"))), 16u);
}
