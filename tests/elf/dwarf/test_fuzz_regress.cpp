// Inputs the mutation fuzzing found, as a few bytes patched into corpus files:
// each once crashed the reader, hung it or made it run for hours. Run under
// ASan/UBSan; a hang shows as the CTest timeout.
#include "dwarf_test_util.h"
#include "testsupport/readelf_oracle.h"
#include "elf/dwarf/location.h"
#include "elf/elf_file.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string.h>

namespace {

struct Patched {
  std::vector<U8> bytes;
  ELF_FILE* f = nullptr;
  ~Patched() {
    if (f) ELF_Close(f);
  }
  // Section-relative offset to file offset.
  U32 At(const char* section, U32 offset) const {
    ELF_FILE* clean = ELF_OpenMemory(bytes.data(), (U32)bytes.size(), false);
    U32 at = 0;
    for (int i = 0; clean && i < ELF_GetNumSections(clean); ++i)
      if (!strcmp(ELF_GetSectionName(clean, i), section)) at = ELF_GetSectionOffset(clean, i) + offset;
    if (clean) ELF_Close(clean);
    return at;
  }
  void Put32(const char* section, U32 offset, U32 v) {
    const U32 at = At(section, offset);
    ASSERT_NE(at, 0u) << section;
    for (int i = 0; i < 4; ++i) bytes[at + i] = (U8)(v >> (8 * i));
  }
  void Open() {
    DWARF_Install();
    f = ELF_OpenMemory(bytes.data(), (U32)bytes.size(), true);
    ASSERT_NE(f, nullptr);
  }
};

Patched Load(const char* name) {
  Patched p;
  std::ifstream in(CorpusPath(name), std::ios::binary);
  p.bytes.assign(std::istreambuf_iterator<char>(in), {});
  return p;
}

ELF_SYM_HANDLE Local(ELF_SYM_HANDLE fn, const char* name) {
  for (int i = 0; i < ELF_GetLocalCount(fn); ++i)
    if (!strcmp(ELF_GetName(ELF_GetLocal(fn, i)), name)) return ELF_GetLocal(fn, i);
  return 0;
}

// app-dwarf5-forms.elf: .debug_loclists holds one contribution, header 12
// bytes, then the offset table of the lists of value, factor, acc, v.
TEST(DwarfFuzzRegress, LocationListOffsetOutsideSection) {
  Patched p = Load("app-dwarf5-forms.elf");
  p.Put32(".debug_loclists", 12 + 4, 0x0B000016); // list 1 (factor) far behind the section
  p.Open();
  const ELF_SYM_HANDLE fn = ELF_FindName(p.f, "forms_scale");
  ASSERT_NE(fn, 0u);
  const U32 pc = ELF_GetStart(fn, 0);
  EXPECT_EQ(ELF_GetSymbolLocation(Local(fn, "factor"), pc).parts[0].kind, (U32)ELF_LOC_NONE);
  EXPECT_TRUE(ELF_GetLocationRanges(Local(fn, "factor"), 2).empty());
  // The other lists of the table still read.
  EXPECT_EQ(ELF_GetSymbolLocation(Local(fn, "value"), pc).parts[0].kind, (U32)ELF_LOC_REG);
}

TEST(DwarfFuzzRegress, LocationExpressionLengthPastSection) {
  Patched p = Load("app-dwarf5-forms.elf");
  // List 0 at 0x1c: DW_LLE_startx_length, index, length, then the counted
  // expression: its length at 0x1f becomes 65535 (LEB128 ff ff 03), far
  // beyond the end of the file.
  const U32 at = p.At(".debug_loclists", 0x1f);
  ASSERT_EQ(p.bytes[at], 1);
  p.bytes[at] = 0xFF;
  p.bytes[at + 1] = 0xFF;
  p.bytes[at + 2] = 0x03;
  p.Open();
  const ELF_SYM_HANDLE fn = ELF_FindName(p.f, "forms_scale");
  ASSERT_NE(fn, 0u);
  const U32 pc = ELF_GetStart(fn, 0);
  EXPECT_EQ(ELF_GetSymbolLocation(Local(fn, "value"), pc).parts[0].kind, (U32)ELF_LOC_NONE);
  EXPECT_EQ(ELF_GetSymbolLocation(Local(fn, "factor"), pc).parts[0].kind, (U32)ELF_LOC_REG);
}

// Finds, in readelf's dump of .debug_info, the first entry with tag `die`
// that has the attribute `attr`; answers the attribute's section offset and
// the entry's offset.
bool FindAttr(const char* file, const std::string& die, const std::string& attr, U32* pAttrAt, U32* pDieAt) {
  for (const readelf::Unit& u : readelf::DebugInfo(CorpusPath(file)))
    for (const readelf::Die& d : u.Dies)
      if (const readelf::Attr* a = d.Tag == die ? d.Find(attr) : nullptr) {
        *pAttrAt = a->Offset;
        *pDieAt = d.Offset;
        return true;
      }
  return false;
}

// A DW_AT_sibling that points back: the library, skipping the subtree of an
// enclosing entry (the unit root, asked for its sibling), followed it for ever.
TEST(DwarfFuzzRegress, SiblingPointingBack) {
  U32 attrAt = 0, dieAt = 0;
  ASSERT_TRUE(FindAttr("app-dwarf4-O0.elf", "DW_TAG_structure_type", "DW_AT_sibling", &attrAt, &dieAt));
  Patched p = Load("app-dwarf4-O0.elf");
  p.Put32(".debug_info", attrAt, 0x0B); // the unit root of the first unit (ref4, unit-relative)
  p.Open();
  int found = 0;
  for (int l = 0; l < ELF_LIST_COUNT; ++l)
    for (int i = 0; i < ELF_GetListCount(p.f, l); ++i) {
      const ELF_SYM_HANDLE h = ELF_GetListItem(p.f, l, i);
      ELF_GetNextSibling(h);
      ELF_GetNextSibling(ELF_GetFirstChild(h));
      ++found;
    }
  // The walk of the first unit stops at the bad entry; the other units read.
  EXPECT_NE(ELF_FindName(p.f, "comm_feed"), 0u);
  EXPECT_GT(found, 0);
}

// An array whose element type is the array itself: measuring it went down
// every level of the type chain again at every step, exponentially.
TEST(DwarfFuzzRegress, ArrayOfItself) {
  U32 attrAt = 0, dieAt = 0;
  ASSERT_TRUE(FindAttr("app-dwarf4-O0.elf", "DW_TAG_array_type", "DW_AT_type", &attrAt, &dieAt));
  ASSERT_LT(dieAt, 0x1000u) << "first unit";
  Patched p = Load("app-dwarf4-O0.elf");
  p.Put32(".debug_info", attrAt, dieAt); // ref4 relative to the first unit, at offset 0
  p.Open();
  for (int l = 0; l < ELF_LIST_COUNT; ++l)
    for (int i = 0; i < ELF_GetListCount(p.f, l); ++i) {
      const ELF_SYM_HANDLE h = ELF_GetListItem(p.f, l, i);
      ELF_GetSize(h);
      ELF_GetTypeName(h);
    }
  const ELF_SYM_HANDLE self = ELF_MakeDieHandle(p.f, dieAt);
  EXPECT_EQ(ELF_GetSize(self), 0u);
  EXPECT_EQ(ELF_GetArrayInfo(self).elementBytes, 0u);
}

} // namespace
