// Number texts, type texts and the node rules of CSymbol: table-driven texts,
// children made on demand (pointers at any index, null pointers, the member
// cap), full names, copies that own their children, reads from snapshots, and
// the wrapper's name services on the corpus program.
#include "elf/symbol/symdump.h"
#include "elf/symbol/exprsnapshot.h"
#include "elf/symbol/symbol_test_util.h"

#include <gtest/gtest.h>

namespace {

const QString H = QString(QChar(0x2008));

QByteArray Le(U64 v, int n = 8) {
  QByteArray b(n, 0);
  for (int i = 0; i < n; ++i) b[i] = (char)(v >> (8 * i));
  return b;
}

TEST(NumberText, Table) {
  struct ROW {
    U64 value;
    U32 cls;
    int format;
    int hexBlocks;
    int decSep;
    QString expected;
  } Rows[] = {
    {0x20001000, 128, 16, 1, 0, "2000" + H + "1000"},
    {0x20001000, 128, 10, 1, 0, "2000" + H + "1000"},  // a pointer stays hex in decimal format
    {0x20001000, 128, 0, 1, 0, "2000" + H + "1000"},
    {0x20001000, 3, 16, 0, 0, "0x20001000"},
    {1234567, 2, 10, 1, 0, "1" + H + "234" + H + "567"},
    {1234567, 2, 10, 1, 2, "1,234,567"},
    {1234567, 2, 10, 1, 1, "1 234 567"},
    {999, 2, 10, 1, 0, "999"},
    {(U64)-1000, 2, 10, 1, 0, "-1" + H + "000"},
    {(U64)-1234, 130, 10, 1, 0, "-1" + H + "234"},
    {54321, 133, 10, 1, 0, "54" + H + "321"},
    {(U64)-5, 131, 10, 1, 0, "-5"},
    {200, 134, 10, 1, 0, "200"},
    {200, 134, 16, 1, 0, "0xC8"},
    {0xFFFFF, 3, 16, 1, 0, "0xFFFFF"},        // five digits keep "0x"
    {0x100000, 3, 16, 1, 0, "0010" + H + "0000"},  // six digits: two blocks
    {0x0123456789ABCDEFull, 5, 16, 1, 0, "0123" + H + "4567" + H + "89AB" + H + "CDEF"},
    {0x8000000000000000ull, 4, 10, 1, 3, "-9:223:372:036:854:775:808"},
    {~0ull, 5, 10, 1, 3, "18:446:744:073:709:551:615"},
    {2, 1, 10, 1, 0, "1"},                     // bool: any non-zero byte reads 1
    {0, 1, 16, 1, 0, "0"},
    {'T', 131, 8, 1, 0, "'T'"},
    {'\n', 131, 8, 1, 0, "'\\n'"},
    {0, 131, 8, 1, 0, "'\\0'"},
    {7, 134, 8, 1, 0, "'\\007'"},
    {5, 2, 2, 1, 0, "b'101"},
    {5, 19, 10, 1, 0, ""},                     // no number text for a struct
  };
  for (const ROW& r : Rows) {
    SYM_Prefs().showHexBlocks = r.hexBlocks;
    SYM_Prefs().decBlockSeparator = r.decSep;
    EXPECT_EQ(NumberText(Le(r.value), r.cls, r.format), r.expected) << r.value << " class " << r.cls;
  }
  SYM_Prefs() = SYMBOL_PREFS();
  U32 f;
  const float v = 3.14159f;
  memcpy(&f, &v, 4);
  EXPECT_EQ(NumberText(Le(f, 4), 135, 16), "3.141590118408203125");  // floats ignore the format
  EXPECT_EQ(BinaryText(5, 8, true, 4), "b'0000 0101");
  EXPECT_EQ(HexText(0xABC, 0, false, false), "ABC");
}

TEST(SymbolValue, TextsOfPlainValues) {
  CSymbol b("flag", 1, SYM_LOC::Make(SYM_LOC_CONST, 2));
  b.SetData(QByteArray(1, 2));
  bool ok;
  EXPECT_EQ(b.ReadUnsigned(&ok), 1u);
  EXPECT_TRUE(ok);
  EXPECT_EQ(b.GetValueText(DISPLAY_FORMAT_DEC), "1");

  // A char array of 12 characters without NUL: its text was cut.
  CSymbol a(CType("char[12]"), SYM_LOC::Make(SYM_LOC_ADDR, 0x20000000));
  a.SetTextData("hello, world");
  EXPECT_EQ(a.GetQuotedText(), "\"hello, world...\"");
  a.SetTextData(QByteArray("line\nend\0xx", 11));
  EXPECT_EQ(a.GetQuotedText(), "\"line\\nend\"");
  EXPECT_EQ(a.GetSize(), 12u);

  CSymbol c("c", 131, SYM_LOC::Make(SYM_LOC_CONST, 'A'));
  c.SetData(QByteArray(1, 'A'));
  EXPECT_EQ(c.GetValueText(DISPLAY_FORMAT_DEC), "65 ('A')");
  EXPECT_EQ(c.GetValueText(DISPLAY_FORMAT_HEX, false), "0x41");
  EXPECT_EQ(c.GetLocationText(), "const");
  EXPECT_EQ(c.GetScopeCode(), 'c');

  // Too many bytes for a scalar are refused; short ones are padded.
  CSymbol i("i", 2, SYM_LOC::Make(SYM_LOC_CONST, 0));
  EXPECT_FALSE(i.SetData(QByteArray(9, 1)));
  EXPECT_TRUE(i.SetData(QByteArray(1, 7)));
  EXPECT_EQ(i.data.size(), 4);
  EXPECT_EQ(i.ReadSigned(), 7);
  EXPECT_EQ(i.LoadFromBlock(0, 0, nullptr), -1);
}

TEST(TypeText, Parse) {
  CType p("char*");
  EXPECT_TRUE(p.IsPointer());
  EXPECT_EQ(p.identifier, "char");
  EXPECT_EQ(p.size, 4);
  EXPECT_EQ(p.GetElementSize(), 1);
  CType a("int[3][4]");
  EXPECT_TRUE(a.IsArray());
  EXPECT_EQ(a.arrayCount, 12u);
  EXPECT_EQ(a.size, 48);
  EXPECT_EQ(CType("long long unsigned int").kind, 5u);
  EXPECT_EQ(CType("long long unsigned int").size, 8);
  EXPECT_EQ(CType("long long int").kind, 4u);
  EXPECT_EQ(CType("unsigned long long").kind, 4u);  // reads "ulong long"
  CType cv("const volatile char");
  EXPECT_EQ(cv.modifiers.size(), 2);
  EXPECT_EQ(cv.kind, 131u);
  CType s("struct foo*");
  EXPECT_EQ(s.kind, TYPE_KIND_UNKNOWN);
  EXPECT_EQ(s.identifier, "struct foo");
  EXPECT_TRUE(s.IsPointer());
  // A name that merely ends in a basic type's spelling is none.
  for (const char* n : {"struct Point", "Point", "Mint", "Along", "Ushort_t"}) {
    EXPECT_EQ(CType(n).kind, TYPE_KIND_UNKNOWN) << n;
    EXPECT_EQ(CType::GetClass(n), 0u) << n;
  }
  EXPECT_EQ(CType::GetClass("Point*"), 128u);
  EXPECT_EQ(CType("enum color").kind, 257u);
  EXPECT_EQ(CType("enum color").size, 4);
  EXPECT_EQ(CType("bool").kind, 1u);
  EXPECT_EQ(CType("bool").size, 0);
  EXPECT_EQ(CType::GetClass("bool"), 1u);
  CType u("mystery_t");
  EXPECT_FALSE(u.IsSigned());
  EXPECT_FALSE(u.IsIntegral());
  CType ap("int*[3]");
  EXPECT_EQ(ap.declarators, QStringList({"`", "[]"}));
}

class SymbolTree : public ::testing::Test {
protected:
  void SetUp() override { ASSERT_TRUE(LoadProgram("app-dwarf4-O0.elf")); }
  void TearDown() override { SYM_Prefs() = SYMBOL_PREFS(); }
};

TEST_F(SymbolTree, PointersHaveChildrenAtAnyIndex) {
  CSymbol p = SYM_MakeGlobal("g_int_ptr");  // &g_array[3]
  SYM_LoadValue(p);
  const I64 Target = p.GetPointerValue();
  CSymbol& c2 = p.GetChild(2);
  SYM_LoadValue(c2);
  EXPECT_EQ(c2.GetAddress(), Target + 8);
  EXPECT_EQ(c2.ReadSigned(), 8);  // g_array[5]
  EXPECT_EQ(c2.GetFullName(), "g_int_ptr[2]");
  EXPECT_EQ(p.GetChild(1000).GetAddress(), Target + 4000);
  EXPECT_EQ(p.memberCount, 1);
  EXPECT_TRUE(p.GetChild(-1).IsEmpty() == false);
}

TEST_F(SymbolTree, NullPointerTargetHasNoLocation) {
  CSymbol n = SYM_MakeGlobal("g_nodes");
  CSymbol& Left = n.GetChild(3).FindMember("left");
  SYM_LoadValue(Left);
  EXPECT_EQ(Left.GetPointerValue(), 0);
  CSymbol& t = Left.GetChild(0);
  EXPECT_FALSE(t.GetLocation().count);
  EXPECT_EQ(t.GetLocationText(), "<null>");
  EXPECT_EQ(t.GetFullName(), "g_nodes[3].left[0]");
}

TEST_F(SymbolTree, MemberCapBoundsChildrenNotSize) {
  SYM_Prefs().maxSymbolMembers = 3;
  CSymbol r = SYM_MakeGlobal("recs");
  EXPECT_EQ(r.GetChildCount(), 3);
  EXPECT_TRUE(r.GetChild(3).IsEmpty());
  EXPECT_EQ(r.GetSize(), 120u);
  EXPECT_EQ(r.GetSizeText(), "120 Bytes");
  CSymbol& Rec = r.GetChild(0);
  EXPECT_EQ(Rec.GetChildCount(), 3);  // chan_rec has 7 members
}

TEST_F(SymbolTree, NamesScopesAndLocations) {
  CSymbol r = SYM_MakeGlobal("recs");
  CSymbol& Name = r.GetChild(1).FindMember("name");
  EXPECT_EQ(Name.GetFullName(), "recs[1].name");
  EXPECT_EQ(Name.GetScopeCode(), 'm');
  EXPECT_EQ(r.GetScopeCode(), 'g');
  CSymbol Root = SYM_MakeGlobal("g_root");
  SYM_LoadValue(Root);
  CSymbol& Left = Root.GetChild(0).FindMember("left");
  EXPECT_EQ(Left.GetFullName(), "g_root->left");
  CSymbol Cfg = SYM_MakeGlobal("g_config");
  EXPECT_EQ(Cfg.FindMember("origin").FindMember("x").GetFullName(), "g_config.origin.x");
  // The compiler leaves the unnamed 8-bit gap of ctrl_bits_t out.
  CSymbol Ctrl = SYM_MakeGlobal("g_ctrl");
  CSymbol& Bits = Ctrl.FindMember("bits");
  EXPECT_EQ(Bits.GetChild(3).GetDisplayName(), "irq_mask");
  EXPECT_EQ(Bits.FindMember("mode").GetTypeText(), "uint[1:3]");
  EXPECT_EQ(Bits.FindMember("mode").GetSizeText(), "3 Bit");
  CSymbol Int = SYM_MakeGlobal("g_int");
  EXPECT_EQ(Int.GetLocationText(), "2000" + H + "0008");
  EXPECT_EQ(Int.GetLocationText(false), "0x20000008");
  CSymbol Fib = SYM_MakeGlobal("fib");
  EXPECT_EQ(Fib.GetScopeCode(), 'f');
  EXPECT_EQ(Fib.typeClass, 46u);
  SYM_LoadValue(Int);
  const auto Rows = Int.GetToolTipRows(true);
  QStringList Keys;
  for (const auto& k : Rows) Keys << k.first;
  EXPECT_EQ(Keys, QStringList({"Dec", "Hex", "Text", "Loc", "Size", "Type", "Scope"}));
  EXPECT_EQ(Rows[0].second, "-123" + H + "456");
  EXPECT_EQ(Rows[6].second, "main.c");
}

TEST_F(SymbolTree, EnumerationTexts) {
  CSymbol m = SYM_MakeGlobal("g_mode");
  m.SetData(QByteArray(1, (char)0xFF));
  EXPECT_EQ(m.GetValueText(DISPLAY_FORMAT_DEC), "MODE_SHUTDOWN (-1)");
  m.SetData(QByteArray(1, 1));
  EXPECT_EQ(m.GetValueText(DISPLAY_FORMAT_DEC), "MODE_RUN (1)");
  EXPECT_EQ(m.GetValueText(DISPLAY_FORMAT_HEX), "MODE_RUN (0x1)");
  m.SetData(QByteArray(1, 5));
  EXPECT_EQ(m.GetValueText(DISPLAY_FORMAT_DEC), "5");
}

TEST_F(SymbolTree, CopiesOwnTheirChildren) {
  auto Orig = std::make_unique<CSymbol>(SYM_MakeGlobal("g_config"));
  CSymbol& x = Orig->FindMember("origin").FindMember("x");
  SYM_LoadValue(x);
  CSymbol Copy(*Orig);
  EXPECT_EQ(Copy.id, Orig->id);
  CSymbol& cx = Copy.FindMember("origin").FindMember("x");
  EXPECT_NE(&cx, &x);
  EXPECT_EQ(cx.GetParent()->GetParent(), &Copy);
  Orig.reset();
  EXPECT_EQ(cx.GetFullName(), "g_config.origin.x");
  EXPECT_EQ(cx.ReadSigned(), -10);
  CSymbol Assigned;
  Assigned = Copy;
  EXPECT_EQ(Assigned.FindMember("origin").GetParent(), &Assigned);
}

TEST_F(SymbolTree, SnapshotsAnswerWithoutTheImage) {
  CSymbol v = SYM_MakeGlobal("g_int");
  CExprSnapshot Snap;
  Snap.ranges << CAddrRange(0x20000000, 8) << CAddrRange(0x20000008, 4);
  Snap.data = QByteArray(8, 0) + Le(0x11223344, 4);
  EXPECT_EQ(v.LoadFromBlock(0x20000008, 4, &Snap), 0);
  EXPECT_EQ(v.ReadUnsigned(), 0x11223344u);
  EXPECT_EQ(v.LoadFromBlock(0x30000000, 4, &Snap), 0);  // outside every range: zeros
  EXPECT_EQ(v.ReadUnsigned(), 0u);
  CSymbol s = SYM_MakeGlobal("g_config");
  EXPECT_EQ(s.LoadFromBlock(-1, 24, nullptr), -5);
}

TEST_F(SymbolTree, NameServices) {
  const QList<ELF_SYM_HANDLE> Helpers = FindSymbols("helper", true, false, false, true, true);
  ASSERT_GE(Helpers.size(), 2);
  QStringList Qualified;
  for (ELF_SYM_HANDLE h : Helpers)
    if (ELF_IsDieHandle(h)) Qualified << GetQualifiedName(h, 2);
  Qualified.sort();
  EXPECT_EQ(Qualified, QStringList({"comm.c::helper", "sensors.c::helper"}));
  EXPECT_TRUE(FindSymbols("", true, true, true, true, true).isEmpty());
  EXPECT_EQ(GetQualifiedName(FindSymbols("g_int", true, false, false, false, false).value(0), 2), "g_int");
  EXPECT_EQ(GetQualifiedName(FindSymbols("g_int", true, false, false, false, false).value(0), 1), "main.c::g_int");
  // The compile unit enters under its path and its file name.
  EXPECT_FALSE(FindSymbols("main.c", true, false, false, false, false).isEmpty());
  EXPECT_FALSE(FindSymbols("src/main.c", true, false, false, false, false).isEmpty());
  int Kind;
  CAddrRange r = ResolveToAddress("8000100", Kind);
  EXPECT_EQ(Kind, 0);
  EXPECT_EQ(r.start, 0x8000100u);
  r = ResolveToAddress("fib", Kind);
  EXPECT_EQ(Kind, 2);
  // Against the symbol table, read by the cross tool chain.
  const QString Nm = RunOracle("arm-none-eabi-nm " + SymCorpusPath("app-dwarf4-O0.elf") + " | grep ' fib$'");
  if (!Nm.isEmpty()) EXPECT_EQ(r.start, Nm.section(' ', 0, 0).toUInt(nullptr, 16) & ~1u);
  ResolveToAddress("no_such_name", Kind);
  EXPECT_EQ(Kind, -1);
}

}  // namespace
