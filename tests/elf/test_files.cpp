// Opening files: crafted bad files with their catalogue texts, the three file
// slots, the symbol relocation list and relocation entries.
#include "elf/elf.h"
#include "elf/elf_builder.h"
#include "log/diag.h"

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>
#include <gtest/gtest.h>
#include <cstdlib>
#include <string>
#include <vector>

namespace {
std::vector<std::string> g_Errors;
void CaptureHook(const ELF_DIAG* d) {
  if (d->Code == 0) return;
  const int row = DIAG_RowFromElfCode(d->Code);
  g_Errors.push_back(DIAG_Format(row, d->asArg[0], d->asArg[1], d->asArg[2], d->asArg[3]).toStdString());
}

QString TmpDir() {
  const char* t = getenv("TAVIT_TEST_TMP");
  return QString::fromLocal8Bit(t ? t : "/tmp");
}

QString WriteFile(const QString& sName, const std::vector<U8>& Data) {
  const QString path = TmpDir() + "/" + sName;
  QFile f(path);
  f.open(QIODevice::WriteOnly | QIODevice::Truncate);
  f.write(reinterpret_cast<const char*>(Data.data()), qint64(Data.size()));
  return path;
}

// Opens a file and expects it to be refused with exactly one catalogue text.
void ExpectRefused(const QString& sPath, const std::string& sText, const char* sWhat) {
  g_Errors.clear();
  ELF_FILE* f = ELF_Open(sPath.toLocal8Bit().constData(), true);
  EXPECT_EQ(f, nullptr) << sWhat;
  if (f) ELF_Close(f);
  ASSERT_EQ(g_Errors.size(), 1u) << sWhat;
  EXPECT_EQ(g_Errors[0], sText) << sWhat;
}

const std::string kMagic = "ELF error (1118): file not tagged with ELF magic number.";
const std::string kNotExec = "ELF error (1119): not an executable ELF file.";
const std::string kClass = "ELF error (1120): file class is ELF_CLASS_NONE.";
const std::string kClass64 =
    "ELF error (1120): file class is ELF_CLASS_64; only 32-bit program files are supported.";
const std::string kClassOther = "ELF error (1120): file class is unknown; only 32-bit program files are supported.";
const std::string kData = "ELF error (1121): data encoding is ELF_DATA_NONE.";
const std::string kHdrVersion = "ELF error (1122): header version number is not EV_CURRENT.";
const std::string kVersion = "ELF error (1123): unsupported file version number.";
const std::string kMaxOpen = "ELF error (1124): a maximum number of ELF files are already open.";
const std::string kNoOpen = "ELF error (1125): file could not be opened for reading.";
const std::string kSize = "ELF error (1126): unexpected file size.";

class ElfFiles : public ::testing::Test {
protected:
  void SetUp() override {
    DIAG_Init();
    ELF_SetDiagHook(CaptureHook);
    ELF_ClearRelocations();
    text = b.AddSection(".text", 1, 6, 0x08000000, 0x100);
    data = b.AddSection(".data", 1, 3, 0x20000000, 0x40);
    fn = b.AddSymbol("main", 0x08000041, 0x20, 2, U16(text));
    obj = b.AddSymbol("counter", 0x20000010, 4, 1, U16(data));
    b.Segments.push_back({1, text, text, false, 0});
  }
  void TearDown() override {
    ELF_SetDiagHook(nullptr);
    ELF_ClearRelocations();
  }
  TestElfBuilder b;
  int text = 0, data = 0, fn = 0, obj = 0;
};

TEST_F(ElfFiles, BadHeadersGiveTheirCatalogueTexts) {
  const std::vector<U8> good = b.Build();
  {
    g_Errors.clear();
    ELF_FILE* f = ELF_Open(WriteFile("good.elf", good).toLocal8Bit().constData(), true);
    ASSERT_TRUE(f);
    EXPECT_TRUE(g_Errors.empty());
    ELF_Close(f);
  }
  struct Case {
    int Offset;
    U8 Value;
    const std::string* Text;
  };
  const Case cases[] = {
      {0, 0x7E, &kMagic}, {1, 'e', &kMagic}, {2, 'l', &kMagic}, {3, 'f', &kMagic},
      {16, 1, &kNotExec},   // relocatable object
      {16, 3, &kNotExec},   // shared object
      {4, 0, &kClass},      {4, 2, &kClass64}, {4, 7, &kClassOther},
      {5, 0, &kData},       {5, 3, &kData},
      {6, 0, &kHdrVersion}, {6, 2, &kHdrVersion},
  };
  for (const Case& c : cases) {
    std::vector<U8> bad = good;
    bad[c.Offset] = c.Value;
    ExpectRefused(WriteFile("bad.elf", bad), *c.Text, ("byte " + std::to_string(c.Offset)).c_str());
  }
  std::vector<U8> v0 = good;
  v0[20] = v0[21] = v0[22] = v0[23] = 0; // e_version
  ExpectRefused(WriteFile("bad.elf", v0), kVersion, "e_version");

  // Every header boundary: inside the ELF header, the program headers, the
  // section data, the section headers.
  const U32 shoff = U32(good[32] | good[33] << 8 | good[34] << 16 | good[35] << 24);
  std::vector<size_t> cuts = {1, 4, 16, 51, 52, 52 + 31, good.size() - 1, shoff, shoff + 40, shoff + 39};
  for (size_t cut : cuts) {
    std::vector<U8> t(good.begin(), good.begin() + long(cut));
    ExpectRefused(WriteFile("cut.elf", t), kSize, ("cut at " + std::to_string(cut)).c_str());
  }
  // Section table past the end; program headers past the end; a symbol table
  // whose data lies outside the file.
  std::vector<U8> far = good;
  far[35] = 0x7F;
  ExpectRefused(WriteFile("far.elf", far), kSize, "e_shoff");
  far = good;
  far[28] = 0xF0;
  far[29] = 0xFF;
  ExpectRefused(WriteFile("far.elf", far), kSize, "e_phoff");
  far = good;
  far[46] = 0xFF; // e_shentsize 255: the table no longer fits
  ExpectRefused(WriteFile("far.elf", far), kSize, "e_shentsize");

  far = good;
  const U32 symtabHdr = shoff + 3 * 40; // null, .text, .data, then .symtab
  ASSERT_EQ(far[symtabHdr + 4], 2) << "sh_type of .symtab";
  far[symtabHdr + 16 + 3] = 0x7F; // sh_offset far behind the end
  ExpectRefused(WriteFile("far.elf", far), kSize, "symbol table data");

  ExpectRefused(WriteFile("empty.elf", {}), kSize, "empty file");
  ExpectRefused(TmpDir() + "/no-such-file.elf", kNoOpen, "missing file");
  // A real 64-bit executable of the host, where one exists: refused for its
  // class, also when it is position-independent (type 3).
  for (const char* host : {"/bin/sh", "/usr/bin/env"})
    if (QFile::exists(host)) {
      g_Errors.clear();
      EXPECT_EQ(ELF_Open(host, false), nullptr);
      ASSERT_EQ(g_Errors.size(), 1u);
      EXPECT_EQ(g_Errors[0], kClass64);
      break;
    }
  // A 64-bit relocatable object still names its class, not its type.
  std::vector<U8> obj64 = good;
  obj64[4] = 2;
  obj64[16] = 1;
  ExpectRefused(WriteFile("obj64.elf", obj64), kClass64, "64-bit relocatable");
}

TEST_F(ElfFiles, ThreeSlots) {
  const QString path = WriteFile("slots.elf", b.Build());
  const QByteArray p = path.toLocal8Bit();
  ELF_FILE* a = ELF_Open(p.constData(), false);
  ELF_FILE* c = ELF_Open(p.constData(), false);
  ASSERT_TRUE(a && c);
  ELF_FILE* d = ELF_Open(p.constData(), false);
  ASSERT_TRUE(d) << "with two open files the third succeeds";
  EXPECT_EQ(ELF_GetSlot(d), 2);
  EXPECT_EQ(ELF_GetCurrentProgram(), d);
  ExpectRefused(path, kMaxOpen, "fourth open");
  // The refusal depends on the third slot alone.
  ELF_Close(a);
  ExpectRefused(path, kMaxOpen, "third slot still in use");
  const ELF_SYM_HANDLE h = ELF_GetSymbolHandle(d, fn);
  EXPECT_STREQ(ELF_GetSymbolName(h), "main");
  ELF_Close(d);
  EXPECT_STREQ(ELF_GetSymbolName(h), "") << "handle of a closed file";
  EXPECT_EQ(ELF_GetNumSymbols(d), 0);
  ELF_Close(d); // closing twice does nothing
  a = ELF_Open(p.constData(), false);
  ASSERT_TRUE(a);
  EXPECT_EQ(ELF_GetSlot(a), 0);
  ELF_Close(a);
  ELF_Close(c);
}

TEST_F(ElfFiles, RelocationRanges) {
  ELF_SetInstAlignment(2);
  // "*": everything up to 0xFFFFFFFD; an addition that would wrap tries the
  // next row.
  ASSERT_EQ(ELF_AddRelocation("*", 0x10), 0);
  ASSERT_EQ(ELF_AddRelocation("*", -0x10), 0);
  EXPECT_EQ(ELF_RelocateAddress(0, 1, 0), 0x10u);
  EXPECT_EQ(ELF_RelocateAddress(0xFFFFFFEF, 1, 0), 0xFFFFFFFFu);
  EXPECT_EQ(ELF_RelocateAddress(0xFFFFFFF0, 1, 0), 0xFFFFFFE0u);
  EXPECT_EQ(ELF_RelocateAddress(0xFFFFFFFD, 1, 0), 0xFFFFFFEDu);
  EXPECT_EQ(ELF_RelocateAddress(0xFFFFFFFE, 1, 0), 0xFFFFFFFEu);
  EXPECT_EQ(ELF_UnrelocateAddress(0x10, 1, 0), 0u);
  EXPECT_EQ(ELF_UnrelocateAddress(0xFFFFFFE0, 1, 0), 0xFFFFFFD0u);
  ELF_ClearRelocations();

  // Number ranges: end exclusive for a start address, inclusive for an end.
  ASSERT_EQ(ELF_AddRelocation("0x1000-0x2000", 0x100), 0);
  EXPECT_EQ(ELF_RelocateAddress(0x1000, 1, 0), 0x1100u);
  EXPECT_EQ(ELF_RelocateAddress(0x1000, 0, 1), 0x1000u);
  EXPECT_EQ(ELF_RelocateAddress(0x2000, 1, 0), 0x2000u);
  EXPECT_EQ(ELF_RelocateAddress(0x2000, 0, 1), 0x2100u);
  EXPECT_EQ(ELF_UnrelocateAddress(0x1100, 1, 0), 0x1000u);
  EXPECT_EQ(ELF_UnrelocateAddress(0x10FF, 1, 0), 0x10FFu);
  EXPECT_EQ(ELF_AddRelocation("0-0", 4), -1);
  EXPECT_EQ(ELF_AddRelocation("0x10-junk", 4), -1);
  ELF_ClearRelocations();

  // Names given before a program exists are resolved when it opens.
  ASSERT_EQ(ELF_AddRelocation(".data", 0x1000), 0);
  ASSERT_EQ(ELF_AddRelocation("main", -0x08000000), 0);
  EXPECT_EQ(ELF_GetRelocation(0)->end, 0u);
  const std::vector<U8> bytes = b.Build();
  ELF_FILE* f = ELF_OpenMemory(bytes.data(), U32(bytes.size()), false);
  ASSERT_TRUE(f);
  EXPECT_EQ(ELF_GetRelocation(0)->start, 0x20000000u);
  EXPECT_EQ(ELF_GetRelocation(0)->end, 0x20000040u);
  EXPECT_EQ(ELF_GetRelocation(1)->start, 0x08000040u); // function: aligned
  EXPECT_EQ(ELF_GetRelocation(1)->end, 0x08000060u);
  EXPECT_EQ(ELF_GetSymbolValue(ELF_GetSymbolHandle(f, obj)), 0x20001010u);
  EXPECT_EQ(ELF_GetSymbolValue(ELF_GetSymbolHandle(f, fn)), 0x41u);
  EXPECT_EQ(ELF_GetSectionAddr(f, data), 0x20001000u);
  EXPECT_EQ(ELF_GetSectionAddr(f, text), 0x08000000u);
  EXPECT_EQ(ELF_GetEntryPoint(f), 0x08000100u); // outside "main": unchanged
  // With a program open an unknown name is an error.
  EXPECT_EQ(ELF_AddRelocation("no_such_symbol", 4), -1);
  ELF_Close(f);
}

TEST_F(ElfFiles, RelocationEntries) {
  // .rel.text: entries at 0x08000010 and 0x08000020 (symbol 2); .rela.data
  // for .data with an addend.
  TestElfBuilder::Section rel;
  rel.Name = ".rel.text";
  rel.Type = 9;
  rel.Flags = 0;
  rel.EntSize = 8;
  rel.Info = U32(text);
  rel.Link = U32(b.Sections.size() + 2); // .symtab follows the user's sections
  TestElfBuilder::Section rela = rel;
  rela.Name = ".rela.data";
  rela.Type = 4;
  rela.EntSize = 12;
  rela.Info = U32(data);
  for (bool big : {false, true}) {
    TestElfBuilder bb = b;
    bb.BigEndian = big;
    auto put = [big](std::vector<U8>& v, U32 x) {
      if (big) x = __builtin_bswap32(x);
      for (int i = 0; i < 4; ++i) v.push_back(U8(x >> (8 * i)));
    };
    TestElfBuilder::Section r1 = rel, r2 = rela;
    r1.Link = r2.Link = U32(bb.Sections.size() + 2);
    put(r1.Data, 0x08000010); put(r1.Data, (2u << 8) | 10);
    put(r1.Data, 0x08000020); put(r1.Data, (1u << 8) | 30);
    put(r2.Data, 0x20000004); put(r2.Data, (2u << 8) | 2); put(r2.Data, 0xFFFFFFF0u);
    bb.Sections.push_back(r1);
    bb.Sections.push_back(r2);
    const std::vector<U8> bytes = bb.Build();
    ELF_FILE* f = ELF_OpenMemory(bytes.data(), U32(bytes.size()), false);
    ASSERT_TRUE(f);
    ELF_RELOC_ENTRY e{};
    EXPECT_EQ(ELF_FindRelocEntry(f, 0x08000020, 0, &e), 1);
    EXPECT_EQ(e.Symbol, 1u);
    EXPECT_EQ(e.Type, 30u);
    EXPECT_EQ(ELF_FindRelocEntry(f, 0x08000018, 0, &e), 0) << "a miss takes the row below";
    EXPECT_EQ(e.r_offset, 0x08000010u);
    EXPECT_EQ(ELF_FindRelocEntry(f, 0x08000004, 0, &e), -1);
    EXPECT_EQ(ELF_FindRelocEntry(f, 0x08000010, 8, &e), -1) << "holding section of another type";
    EXPECT_EQ(ELF_FindRelocEntry(f, 0x20000004, 1, &e), 0);
    EXPECT_TRUE(e.IsRela);
    EXPECT_EQ(e.Addend, -16);
    U32 value = 0;
    const char* name = nullptr;
    EXPECT_EQ(ELF_FindSymbolByReloc(f, 0x08000010, &value, &name), 2);
    EXPECT_EQ(value, 0x20000010u);
    EXPECT_STREQ(name, "counter");
    EXPECT_EQ(ELF_FindSymbolByReloc(f, 0x08000014, &value, &name), -1);
    ELF_Close(f);
  }
}
} // namespace
