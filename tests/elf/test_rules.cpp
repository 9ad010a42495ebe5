// Symbol, program data and relocation rules of the ELF layer, over small
// executables written by TestElfBuilder in both byte orders.
#include "elf/elf.h"
#include "elf/elf_builder.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {
std::vector<std::string> g_Lines;
void CaptureHook(const ELF_DIAG* d) {
  if (d->Code == 0) g_Lines.push_back(d->sText);
}

struct Opened {
  ELF_FILE* f = nullptr;
  explicit Opened(TestElfBuilder& b) {
    std::vector<U8> data = b.Build();
    f = ELF_OpenMemory(data.data(), U32(data.size()), false);
  }
  ~Opened() { ELF_Close(f); }
  ELF_SYM_HANDLE H(int row) const { return ELF_GetSymbolHandle(f, row); }
};

class ElfRules : public ::testing::TestWithParam<bool> {
protected:
  void SetUp() override {
    ELF_ClearRelocations();
    ELF_SetInstAlignment(2);
    g_Lines.clear();
    ELF_SetDiagHook(CaptureHook);
    b.BigEndian = GetParam();
    text = b.AddSection(".text", 1, 6, 0x08000000, 0x400);
    data = b.AddSection(".data", 1, 3, 0x20000000, 0x40);
  }
  void TearDown() override {
    ELF_SetDiagHook(nullptr);
    ELF_ClearRelocations();
  }
  TestElfBuilder b;
  int text = 0, data = 0;
};

TEST_P(ElfRules, ObjectSizeCompletionLooksNineEntriesAhead) {
  // a: its successor is the 9th entry after it; z: the 10th.
  const int a = b.AddSymbol("a", 0x20000000, 0, 1, U16(data));
  for (int i = 0; i < 8; ++i) b.AddSymbol("pad" + std::to_string(i), 0x20000000, 4, 1, U16(data));
  b.AddSymbol("next_a", 0x20000010, 4, 1, U16(data));
  const int z = b.AddSymbol("z", 0x20000020, 0, 1, U16(data));
  for (int i = 0; i < 9; ++i) b.AddSymbol("zpad" + std::to_string(i), 0x20000020, 4, 1, U16(data));
  b.AddSymbol("next_z", 0x20000030, 4, 1, U16(data));
  // Successor past the end of the section: stays 0.
  const int last = b.AddSymbol("last", 0x2000003C, 0, 1, U16(data));
  b.AddSymbol("beyond", 0x20000100, 4, 1, U16(data));
  Opened o(b);
  ASSERT_TRUE(o.f);
  U32 lo = 0, hi = 0;
  ELF_GetSymbolAddressSpan(&lo, &hi);
  EXPECT_EQ(lo, 0u) << "the null symbol counts";
  EXPECT_EQ(hi, 0x20000104u);
  EXPECT_EQ(ELF_IsTargetBigEndian(), GetParam());
  EXPECT_EQ(ELF_GetEndian(o.f), GetParam() ? 1 : 0);
  EXPECT_EQ(ELF_GetSymbolSize(o.H(a)), 0x10u);
  EXPECT_EQ(ELF_GetSymbolSize(o.H(z)), 0u);
  EXPECT_EQ(ELF_GetSymbolSize(o.H(last)), 0u);
}

TEST_P(ElfRules, SizeSanityLimitIsLogged) {
  const int big = b.AddSection(".big", 8, 3, 0x30000000, 20000000);
  const int big2 = b.AddSection(".big2", 8, 7, 0x40000000, 20000000);
  const int o1 = b.AddSymbol("huge", 0x30000000, 0, 1, U16(big));
  b.AddSymbol("after", 0x30000000 + 10000001, 4, 1, U16(big));
  const int f1 = b.AddSymbol("hugefn", 0x40000001, 0, 2, U16(big2));
  Opened o(b);
  ASSERT_TRUE(o.f);
  EXPECT_EQ(ELF_GetSymbolSize(o.H(o1)), 0u);
  EXPECT_EQ(ELF_GetSymbolSize(o.H(f1)), 0u);
  ASSERT_EQ(g_Lines.size(), 2u);
  EXPECT_EQ(g_Lines[0], "Symbol at 30000000: did not pass allocation size sanity check");
  EXPECT_EQ(g_Lines[1], "Symbol at 40000001: did not pass allocation size sanity check");
}

TEST_P(ElfRules, FunctionSizesAndFunctionList) {
  const int f1 = b.AddSymbol("f1", 0x08000101, 0, 2, U16(text));     // ends at f2
  const int f2 = b.AddSymbol("f2", 0x08000181, 0x20, 2, U16(text));
  const int f2big = b.AddSymbol("f2big", 0x08000181, 0x40, 2, U16(text)); // larger: replaces f2
  const int g1 = b.AddSymbol("g1", 0x08000201, 0x10, 13, U16(text));
  b.AddSymbol("g1twin", 0x08000201, 0x10, 2, U16(text));             // same size, higher row
  b.AddSymbol("$t", 0x08000301, 0x10, 2, U16(text));
  b.AddSymbol("?odd", 0x08000311, 0x10, 2, U16(text));
  const int noname = b.AddSymbol("", 0x08000321, 0x10, 2, U16(text));
  b.AddSymbol("tiny", 0x00000001, 0x10, 2, U16(text));
  const int local = b.AddSymbol(".Llocal", 0x08000331, 0x4, 2, U16(text));
  const int lastfn = b.AddSymbol("lastfn", 0x08000381, 0, 2, U16(text)); // ends at section end
  const int obj = b.AddSymbol("obj", 0x08000200, 4, 1, U16(text));
  b.AddSymbol(".Lnt", 0x20000008, 0, 0, U16(data));
  b.AddSymbol("$d", 0x20000008, 0, 0, U16(data));
  const int nt = b.AddSymbol("nt", 0x20000008, 0, 0, U16(data));
  Opened o(b);
  ASSERT_TRUE(o.f);
  EXPECT_EQ(ELF_GetSymbolSize(o.H(f1)), 0x80u);
  EXPECT_EQ(ELF_GetSymbolSize(o.H(lastfn)), 0x80u);
  std::vector<int> rows;
  for (int i = 0; i < ELF_GetNumFunctionSymbols(o.f); ++i)
    rows.push_back(ELF_GetSymbolRowOfHandle(ELF_GetFunctionSymbol(o.f, i)));
  EXPECT_EQ(rows, (std::vector<int>{f1, f2big, g1, local, lastfn}));
  (void)f2;

  // Containing function, strict and not.
  ELF_SYM_HANDLE out[4];
  ASSERT_EQ(ELF_GetFunctionSymbols(o.f, 0x08000190, true, out, 4), 1);
  EXPECT_EQ(ELF_GetSymbolRowOfHandle(out[0]), f2big);
  EXPECT_EQ(ELF_GetFunctionSymbols(o.f, 0x08000218, true, out, 4), 0);
  ASSERT_EQ(ELF_GetFunctionSymbols(o.f, 0x08000218, false, out, 4), 1);
  EXPECT_EQ(ELF_GetSymbolRowOfHandle(out[0]), g1);
  EXPECT_EQ(ELF_GetFunctionSymbols(o.f, 0x08000000, false, out, 4), 0);

  // Address searches pass over ".L", "$" and "?" names; exact searches of a
  // function type compare aligned values.
  EXPECT_EQ(ELF_FindSymbolAt(o.f, 0x08000332, false, 2), noname);
  EXPECT_EQ(ELF_FindSymbolAt(o.f, 0x08000330, true, 2), local);
  EXPECT_EQ(ELF_FindSymbolAt(o.f, 0x08000200, true, 1), obj);
  EXPECT_EQ(ELF_FindSymbolAt(o.f, 0x08000200, true, 2), g1);
  // Any type: the first of the entries with that exact value, g1 or its twin.
  const int any = ELF_FindSymbolAt(o.f, 0x08000201, true, -1);
  EXPECT_TRUE(any == g1 || any == g1 + 1) << any;
  EXPECT_EQ(ELF_FindSymbolAt(o.f, 0x20000008, true, 0), nt);
  EXPECT_EQ(ELF_FindSymbolAt(o.f, 0x2000000C, false, 0), nt);
  EXPECT_EQ(ELF_FindSymbolAt(o.f, 0x2000000C, false, 1), obj) << "the downward walk crosses sections";
  EXPECT_EQ(ELF_FindSymbolAt(o.f, 0x08000100, false, 1), -1);
  EXPECT_EQ(ELF_FindSymbolAt(o.f, 0x08000202, true, -1), -1);
}

TEST_P(ElfRules, HandlesAndTheirLayout) {
  const int r = b.AddSymbol("sym", 0x20000004, 4, 1, U16(data), 0);
  Opened o(b);
  ASSERT_TRUE(o.f);
  const int slot = ELF_GetSlot(o.f);
  const ELF_SYM_HANDLE h = o.H(r);
  EXPECT_EQ(h, 0xE0FE0F0200000000ull + (U64(slot) << 35) + U64(r));
  EXPECT_EQ(ELF_GetSymbolType(h), 1);
  EXPECT_EQ(ELF_GetSymbolBinding(h), 0);
  EXPECT_STREQ(ELF_GetSymbolName(h), "sym");
  EXPECT_EQ(ELF_GetSymbolSection(h), data);
  const ELF_SYM_HANDLE bads[] = {0, h ^ (1ull << 63), h + 100000, (h & ~(7ull << 32)) | (1ull << 32)};
  for (ELF_SYM_HANDLE bad : bads) {
    EXPECT_EQ(ELF_GetSymbolType(bad), -1);
    EXPECT_EQ(ELF_GetSymbolBinding(bad), 16);
    EXPECT_STREQ(ELF_GetSymbolName(bad), "");
  }
}

TEST_P(ElfRules, DataSkipAndProgramData) {
  // .text in a segment that also holds the ELF headers; .data loaded at a
  // different address; a segment with no allocated section loads whole.
  const int note = b.AddSection(".note", 1, 0, 0x08100000, 0x20);
  b.Segments.push_back({1, text, text, true, 0});
  b.Segments.push_back({1, data, data, false, 0x1000});
  b.Segments.push_back({1, note, note, false, 0});
  std::vector<U8> bytes = b.Build();
  Opened o(b);
  ASSERT_TRUE(o.f);
  ELF_PROGRAM_DATA blocks[4];
  ASSERT_EQ(ELF_GetProgramData(o.f, blocks, 4), 3);
  const U32 textOff = ELF_GetSectionOffset(o.f, text);
  EXPECT_EQ(ELF_GetSegmentDataSkip(o.f, 0), textOff);
  EXPECT_EQ(blocks[0].LoadAddr, 0x08000000u);
  EXPECT_EQ(blocks[0].RunAddr, 0x08000000u);
  EXPECT_EQ(blocks[0].Size, 0x400u);
  EXPECT_EQ(0, memcmp(blocks[0].pData, bytes.data() + textOff, 0x400));
  EXPECT_EQ(blocks[1].LoadAddr, 0x20001000u);
  EXPECT_EQ(blocks[1].RunAddr, 0x20000000u);
  EXPECT_EQ(blocks[2].RunAddr, 0x08100000u);
  EXPECT_EQ(blocks[2].Size, 0x20u);
  ASSERT_EQ(g_Lines.size(), 1u);
  EXPECT_EQ(g_Lines[0], "Virtual segment address differs from physical address by 0x1000 bytes");
  // The image segment table reads by run address.
  EXPECT_EQ(ELF_ReadImage(o.f, 0x08000010, 0x08000020), ELF_GetFileData(o.f) + textOff + 0x10);
  EXPECT_EQ(ELF_ReadImage(o.f, 0x08000020, 0x08000020), nullptr);
  EXPECT_EQ(ELF_ReadImage(o.f, 0x083FFFF0, 0x08400010), nullptr);
}

INSTANTIATE_TEST_SUITE_P(ByteOrder, ElfRules, ::testing::Values(false, true),
                         [](const auto& i) { return i.param ? "Big" : "Little"; });
} // namespace
