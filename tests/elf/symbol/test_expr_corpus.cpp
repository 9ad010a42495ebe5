// The expression corpus. The agreement set is evaluated over the program
// image and compared with gdb reading the same file: `print/d`, `print/x`
// (the hex of our value cut to the width of gdb's type) and, where the type
// is comparable, `ptype`. The divergence set holds what the evaluator does by
// its own rules: 64-bit wrapping arithmetic, division by zero giving 0,
// 32-bit bit operations, pointer minus integer giving a number, "++", casts
// to non-pointer types, and its error texts.
#include "expr/evaluator.h"
#include "elf/symbol/symbol_test_util.h"

#include <gtest/gtest.h>

#include <QRegularExpression>
#include <iterator>
#include <cmath>

namespace {

enum { D = 1, X = 2, T = 4, DXT = 7, DX = 3 };

struct AGREE {
  const char* ours;
  const char* gdb;  // nullptr: the same text
  int checks;
};

const AGREE kAgreement[] = {
  // plain globals of every integer kind
  {"g_char", nullptr, DXT}, {"g_schar", nullptr, DX}, {"g_uchar", nullptr, DXT}, {"g_short", nullptr, DXT},
  {"g_ushort", nullptr, DXT}, {"g_int", nullptr, DXT}, {"g_uint", nullptr, X | T}, {"g_long", nullptr, DXT},
  {"g_ulong", nullptr, X | T}, {"g_llong", nullptr, DXT}, {"g_ullong", nullptr, X | T}, {"g_bool", nullptr, DX},
  {"g_kind", nullptr, DX}, {"g_build_id", nullptr, DXT}, {"s_file_counter", nullptr, DXT},
  {"filter_alpha", nullptr, T},
  // member, index and pointer paths
  {"recs[0].raw", nullptr, DXT}, {"recs[1].offset", nullptr, DXT}, {"recs[2].kind", nullptr, DX},
  {"recs[4].raw", nullptr, DXT}, {"recs[3].stats.flags", nullptr, DXT}, {"recs[1].stats.hits", nullptr, DXT},
  {"recs[4].offset", nullptr, DXT}, {"recs[1].name", nullptr, DXT}, {"recs[2].name[1]", nullptr, DXT},
  {"*recs[3].name", nullptr, DXT}, {"g_config.version", nullptr, DXT}, {"g_config.flags", nullptr, DXT},
  {"g_config.origin.x", nullptr, DXT}, {"g_config.origin.y", nullptr, DXT}, {"g_config.label", nullptr, DXT},
  {"g_config.label[2]", nullptr, DXT}, {"g_ctrl.word", nullptr, DXT}, {"g_ctrl.bits.enable", nullptr, DX},
  {"g_ctrl.bits.mode", nullptr, DX}, {"g_ctrl.bits.prescale", nullptr, DX}, {"g_ctrl.bits.irq_mask", nullptr, DX},
  {"g_ctrl.bytes[0]", nullptr, DXT}, {"g_ctrl.bytes[3]", nullptr, DXT}, {"g_pun.u", nullptr, DXT},
  {"g_pun.b[3]", nullptr, DXT}, {"g_array[0]", nullptr, DXT}, {"g_array[3]", nullptr, DXT},
  {"g_array[7]", nullptr, DXT}, {"g_matrix[0][0]", nullptr, DXT}, {"g_matrix[1][2]", nullptr, DXT},
  {"g_matrix[2][3]", nullptr, DXT}, {"g_text[0]", nullptr, DXT}, {"g_text[4]", nullptr, DXT},
  {"g_text[12]", nullptr, DXT}, {"s_lookup[2]", nullptr, DXT}, {"crc_table[5]", nullptr, DXT},
  {"crc_table[15]", nullptr, DXT}, {"g_commands[1].code", nullptr, DXT}, {"g_commands[3].min_len", nullptr, DXT},
  {"g_commands[2].handler", nullptr, DX}, {"g_nodes[2].value", nullptr, DXT}, {"g_nodes[6].value", nullptr, DXT},
  {"g_nodes[0].left", nullptr, DXT}, {"g_root", nullptr, DXT}, {"g_root->value", nullptr, DXT},
  {"g_root->left->value", nullptr, DXT}, {"g_root->right->left->value", nullptr, DXT},
  {"g_root->left->right->value", nullptr, DXT}, {"g_nodes[1].right->value", nullptr, DXT},
  {"g_root->left", nullptr, DXT}, {"*g_int_ptr", nullptr, DXT}, {"g_int_ptr[1]", nullptr, DXT},
  {"g_int_ptr[4]", nullptr, DXT}, {"g_int_ptr", nullptr, DXT}, {"g_greeting", nullptr, DXT},
  {"g_greeting[0]", nullptr, DXT}, {"*g_greeting", nullptr, DXT}, {"g_mode_names[1]", nullptr, DX},
  {"g_mode_names[2][3]", nullptr, DX}, {"tx_ring.buf[1]", nullptr, DXT}, {"tx_ring.tail", nullptr, DXT},
  {"tx_ring.next", nullptr, DXT}, {"UART1", nullptr, DX}, {"g_array_ptr", nullptr, DX},
  {"g_fib_ptr", nullptr, DX}, {"g_default_handler", nullptr, DX},
  // address-of
  {"&g_int", nullptr, DXT}, {"&g_array[3]", nullptr, DXT}, {"&recs[2]", nullptr, DXT},
  {"&recs[2].raw", nullptr, DXT}, {"&g_config.origin.y", nullptr, DX}, {"&g_nodes[4]", nullptr, DXT},
  {"&g_text[2]", nullptr, DXT}, {"&tx_ring.head", nullptr, DXT}, {"*&g_int", nullptr, DXT},
  {"*&recs[1].raw", nullptr, DXT},
  // sizeof
  {"sizeof(g_int)", nullptr, DX}, {"sizeof(recs)", nullptr, DX}, {"sizeof(recs[0])", nullptr, DX},
  {"sizeof(g_config)", nullptr, DX}, {"sizeof(int)", nullptr, DX}, {"sizeof(char *)", nullptr, DX},
  {"sizeof(g_matrix)", nullptr, DX}, {"sizeof(g_text)", nullptr, DX}, {"sizeof(tx_ring)", nullptr, DX},
  {"sizeof(g_llong)", nullptr, DX}, {"sizeof(short)", nullptr, DX},
  // casts to pointers
  {"*(int *)0x20000008", nullptr, DX}, {"*(char *)0x20000000", nullptr, DX}, {"*(unsigned short *)0x20000006", nullptr, DX},
  {"(char *)0x20000000", nullptr, DX}, {"*(unsigned int *)0x2000009C", nullptr, DX}, {"*(short *)0x20000066", nullptr, DX},
  {"*(unsigned char *)g_greeting", nullptr, DX}, {"((struct node *)0x200000C4)->value", nullptr, DX},
  // file scope
  {"main.c::s_file_counter", "'main.c'::s_file_counter", DXT}, {"main.c::g_int", "'main.c'::g_int", DXT},
  {"sensors.c::recs[1].raw", "'sensors.c'::recs[1].raw", DXT}, {"comm.c::crc_table[3]", "'comm.c'::crc_table[3]", DXT},
  // enumeration values
  {"CHAN_SPEED", nullptr, DX}, {"CHAN_VOLT", nullptr, DX}, {"MODE_FAULT", nullptr, DX}, {"MODE_CALIBRATE", nullptr, DX},
  {"recs[1].kind == CHAN_VOLT", nullptr, DX},
  // integer arithmetic within 32 bits
  {"g_array[3] + g_array[4]", nullptr, DX}, {"g_array[7] * 3", nullptr, DX}, {"g_array[6] / 4", nullptr, DX},
  {"g_array[6] % 5", nullptr, DX}, {"s_file_counter - 2", nullptr, DX}, {"100 - g_array[5]", nullptr, DX},
  {"(g_array[2] + 1) * (g_array[3] + 2)", nullptr, DX}, {"g_short + 2000", nullptr, DX}, {"g_schar * -3", nullptr, DX},
  {"g_int / 1000", nullptr, DX}, {"g_int % 1000", nullptr, DX}, {"recs[1].raw * 2 + 1", nullptr, DX},
  {"g_uchar - 100", nullptr, DX}, {"-g_array[3]", nullptr, DX}, {"+g_array[5]", nullptr, DX},
  {"g_int_ptr + 1", nullptr, DX}, {"*(g_int_ptr + 2)", nullptr, DX}, {"g_matrix[1][1] * g_matrix[2][2]", nullptr, DX},
  {"1000 * 1000 * 2", nullptr, DX}, {"(7 + 5) / 3 - 1", nullptr, DX},
  // comparisons and logic
  {"g_int < 0", nullptr, DX}, {"g_array[3] == 3", nullptr, DX}, {"g_uchar > 100", nullptr, DX},
  {"g_short != -1234", nullptr, DX}, {"recs[1].raw >= 3300", nullptr, DX}, {"g_array[1] <= 0", nullptr, DX},
  {"g_int && g_array[0]", nullptr, DX}, {"0 || g_array[0]", nullptr, DX}, {"!g_array[0]", nullptr, DX},
  {"!0", nullptr, DX}, {"g_root->value > g_root->left->value", nullptr, DX},
  // bit operations within 32 bits
  {"g_uint & 0xFFFF", nullptr, DX}, {"g_array[7] | 0x100", nullptr, DX}, {"g_array[7] ^ 0xF", nullptr, DX},
  {"g_array[5] << 3", nullptr, DX}, {"g_array[7] >> 2", nullptr, DX}, {"g_ushort & 0xFF00", nullptr, DX},
  {"g_uint >> 16", nullptr, DX}, {"g_ctrl.word & 0xFF", nullptr, DX},
  // bit-fields take part in operators with their field's value
  {"g_ctrl.bits.trim", nullptr, D},
};

// Bit-fields in operators, checked with gdb on several builds of the corpus
// program: DWARF 2 (bit offsets from the top of the storage unit), DWARF 4
// and 5 (data bit offsets), big-endian, -O2.
const char* const kBitFieldExprs[] = {
  "g_ctrl.bits.mode == 5", "g_ctrl.bits.mode + 0", "g_ctrl.bits.mode - 10", "g_ctrl.bits.prescale * g_ctrl.bits.mode",
  "g_ctrl.bits.irq_mask >> 4", "g_ctrl.bits.irq_mask & 0xF0", "g_ctrl.bits.irq_mask != 2748",
  "g_ctrl.bits.enable && g_ctrl.bits.mode", "!g_ctrl.bits.enable", "~g_ctrl.bits.mode", "g_ctrl.bits.trim + 0",
  "g_ctrl.bits.trim < 0", "g_ctrl.bits.trim == -3", "-g_ctrl.bits.trim", "g_ctrl.bits.trim * g_ctrl.bits.mode",
  "g_ctrl.bits.trim / 2", "g_array[g_ctrl.bits.enable]", "g_ctrl.bits.mode > g_ctrl.bits.enable",
};

struct DIVERGE {
  const char* text;
  int status;        // Evaluate result: > 0 bytes, or the status
  double value;      // signed value (ReadSigned), or the double for type "double"
  const char* type;  // type text, or the error text for a failure
};

const double kMin = -9223372036854775808.0;

const DIVERGE kDivergence[] = {
  {"10 / 0", 8, 0, "long long int"},
  {"1.5 / 0", 8, 0.0, "double"},
  {"7 % 0", 8, 0, "long long int"},
  {"g_int / 0", 8, 0, "long long int"},
  {"g_int % 0", 8, 0, "long long int"},
  {"1.5 % 0", 8, 0.0, "double"},
  {"7.5 % 2", 8, 1.5, "double"},
  {"0xFFFFFFFF", 8, 4294967295.0, "unsigned long long"},
  {"-1", 8, -1, "long long int"},  // unary minus on a literal
  {"1 << 31", 8, -2147483648.0, "long long int"},
  {"0x12345678 << 4", 8, 591751040, "long long int"},
  {"0xFFFF0000 | 1", 8, -65535, "long long int"},
  {"0x180000000 | 0", 8, -2147483648.0, "long long int"},
  {"0x100000000 & 0xFFFFFFFF", 8, 0, "long long int"},
  {"-1 >> 1", 8, -1, "long long int"},
  {"g_uint & 0xFFFF0000", 8, -559087616, "long long unsigned int"},
  {"~0", 8, -1, "long long unsigned int"},
  {"~g_array[0]", 8, -2, "long long unsigned int"},
  {"-9223372036854775808 / -1", 8, kMin, "long long int"},
  {"-9223372036854775808 % -1", 8, 0, "long long int"},
  {"9223372036854775807 + 1", 8, kMin, "long long int"},
  {"0xFFFFFFFFFFFFFFFF * 0xFFFFFFFFFFFFFFFF", 8, 1, "long long int"},
  {"g_int + 1", 8, -123455, "long long int"},
  {"g_int_ptr - 1", 8, 536870983, "long long int"},
  {"g_double * 2", 8, 5.43656365691809, "double"},
  {"g_float + 1", 8, 4.14159011840820, "double"},
  {"1 < 2.5", 8, 1, "long long int"},
  {"0.0 && 1", 8, 0, "long long int"},
  {"g_int_ptr == &g_array[3]", 8, 1, "long long int"},
  {"g_text", 4, 0x20000074, "char[16]"},
  {"g_matrix[1]", 4, 536871012, "short[4]"},
  {"10u", 8, 10, "unsigned long long"},
  {"0xFFul", 8, 255, "unsigned long long"},
  {"1,5", 8, 1.5, "double"},
  {"MODE_SHUTDOWN", 1, -1, "enum "},
  {"1 << 32", -3, 0, "Error evaluating operator << : right operand has invalid value 32 (0x20)"},
  {"1 << 64", -3, 0, "Error evaluating operator << : right operand has invalid value 64 (0x40)"},
  {"g_array[7] << 40", -3, 0, "Error evaluating operator << : right operand has invalid value 40 (0x28)"},
  {"++g_int", -1, 0, "Error evaluating operator ++ : unknown error"},
  {"g_int--", -1, 0, "Error evaluating operator -- : unknown error"},
  {"*g_nodes[3].left", -3, 0, "Error evaluating operator ` : left operand has invalid value 0 (0x0)"},
  {"g_root->nosuch", -3, 0, "Error evaluating operator -> : right operand has invalid value 0 (0x0)"},
  {"g_int.x", -3, 0, "Error evaluating operator . : left operand has invalid type \"int\""},
  {"g_int[0]", -3, 0, "Error evaluating operator [] : left operand has invalid type \"int\""},
  {"recs + 1.5", -3, 0, "Error evaluating operator + : right operand has invalid type \"double\""},
  {"g_nodes[3].left->value", -4, 0, "data readout error"},
  {"g_config", -5, 0, "invalid data buffer size"},
  {"main.c::nosuch", -1, 0, "Error evaluating operator :: : unknown error"},
};

class ExprCorpus : public ::testing::Test {
protected:
  void SetUp() override { ASSERT_TRUE(LoadProgram("app-dwarf4-O0.elf")); }
};

QString NormType(QString t) {
  const int Open = t.indexOf('{');
  if (Open >= 0) t = t.left(Open) + t.mid(t.lastIndexOf('}') + 1);
  t.remove("type = ");
  t = CType::ShortenTypeName(t.simplified());
  t.remove(' ');
  t.replace("ulonglong", "longulong");  // "unsigned long long" shortens to "ulong long"
  return t;
}

TEST_F(ExprCorpus, AgreementSetEqualsGdb) {
  if (!HaveGdb()) GTEST_SKIP() << "gdb-multiarch not installed";
  QStringList Commands;
  for (const AGREE& a : kAgreement) {
    const QString g = a.gdb ? a.gdb : a.ours;
    Commands << "print/d " + g << "print/x " + g << "ptype " + g << "print sizeof(" + g + ")";
  }
  const QStringList Out = RunGdbBatch(SymCorpusPath("app-dwarf4-O0.elf"), Commands);
  ASSERT_GE(Out.size(), Commands.size());
  int Compared = 0;
  for (int i = 0; i < (int)(sizeof(kAgreement) / sizeof(kAgreement[0])); ++i) {
    const AGREE& a = kAgreement[i];
    SCOPED_TRACE(a.ours);
    CExpression e(QString::fromUtf8(a.ours));
    const int r = Evaluate(e);
    ASSERT_GE(r, 0) << e.GetError().toStdString();
    CSymbol& s = *GetResult(e);
    const QString GDec = Out[4 * i].section(" = ", 1).trimmed().section(' ', 0, 0);
    const QString GHex = Out[4 * i + 1].section(" = ", 1).trimmed().section(' ', 0, 0);
    const int GSize = Out[4 * i + 3].section(" = ", 1).trimmed().toInt();
    ASSERT_GT(GSize, 0) << Out[4 * i + 3].toStdString();
    bool ok;
    const I64 v = s.type.IsSigned() || s.enumerators.size() ? s.ReadSigned(&ok) : (I64)s.ReadUnsigned(&ok, true);
    ASSERT_TRUE(ok);
    // gdb's /d reads the bits of the value at the width of its type as signed.
    const int Bits = 8 * (GSize > 8 ? 8 : GSize);
    const I64 AsSigned = Bits >= 64 ? v : (I64)((U64)v << (64 - Bits)) >> (64 - Bits);
    if (a.checks & D) EXPECT_EQ(QString::number(AsSigned), GDec) << Out[4 * i].toStdString();
    if (a.checks & X) {
      const U64 Mask = GSize >= 8 ? ~0ull : ((1ull << (8 * GSize)) - 1);
      EXPECT_EQ("0x" + QString::number((U64)v & Mask, 16), GHex) << Out[4 * i + 1].toStdString();
    }
    if (a.checks & T) EXPECT_EQ(NormType(s.GetTypeText().section('[', 0, 0) + (s.IsArray() ? "[" + s.GetTypeText().section('[', 1) : "")),
                                NormType(Out[4 * i + 2].trimmed()));
    ++Compared;
  }
  EXPECT_EQ(Compared, (int)(sizeof(kAgreement) / sizeof(kAgreement[0])));
}

class BitFields : public ::testing::TestWithParam<const char*> {};

TEST_P(BitFields, OperatorsSeeTheFieldValueLikeGdb) {
  if (!HaveGdb()) GTEST_SKIP() << "gdb-multiarch not installed";
  ASSERT_TRUE(LoadProgram(GetParam()));
  QStringList Commands;
  for (const char* t : kBitFieldExprs) Commands << QString("print/d (long long)(%1)").arg(t);
  // The display texts of a signed and an unsigned field.
  const char* const Shown[] = {"g_ctrl.bits.trim", "g_ctrl.bits.mode"};
  for (const char* t : Shown) Commands << QString("print/d %1").arg(t) << QString("print/x %1").arg(t);
  const QStringList Out = RunGdbBatch(SymCorpusPath(GetParam()), Commands);
  ASSERT_GE(Out.size(), Commands.size());
  for (int i = 0; i < 2; ++i) {
    CExpression e(QString::fromUtf8(Shown[i]));
    ASSERT_GE(Evaluate(e), 0);
    const int At = (int)std::size(kBitFieldExprs) + 2 * i;
    EXPECT_EQ(GetResult(e)->GetValueText(DISPLAY_FORMAT_DEC, false), Out[At].section(" = ", 1).trimmed()) << Shown[i];
    EXPECT_EQ(GetResult(e)->GetValueText(DISPLAY_FORMAT_HEX, false).toLower().simplified().remove(' ').remove(QRegularExpression("^0x0*")),
              Out[At + 1].section(" = ", 1).trimmed().remove(QRegularExpression("^0x0*")))
        << Shown[i];
  }
  for (int i = 0; i < (int)std::size(kBitFieldExprs); ++i) {
    SCOPED_TRACE(kBitFieldExprs[i]);
    CExpression e(QString::fromUtf8(kBitFieldExprs[i]));
    ASSERT_GE(Evaluate(e), 0) << e.GetError().toStdString();
    CSymbol& s = *GetResult(e);
    bool ok;
    const I64 v = s.ReadSigned(&ok);
    ASSERT_TRUE(ok);
    // Our 64-bit results against gdb's int arithmetic: compare in 32 bits.
    const QString g = Out[i].section(" = ", 1).trimmed();
    EXPECT_EQ(QString::number((I64)(I32)(U32)(U64)v), QString::number((I64)(I32)(U32)(U64)g.toLongLong()))
        << Out[i].toStdString();
  }
}

INSTANTIATE_TEST_SUITE_P(Corpus, BitFields,
                         ::testing::Values("app-dwarf2-O0.elf", "app-dwarf4-O0.elf", "app-dwarf4-O0-be.elf",
                                           "app-dwarf5-O0.elf", "app-dwarf4-O2.elf"),
                         [](const ::testing::TestParamInfo<const char*>& i) {
                           std::string n = i.param;
                           for (char& c : n)
                             if (!isalnum((unsigned char)c)) c = '_';
                           return n;
                         });

TEST_F(ExprCorpus, DivergenceSetFollowsTheRules) {
  for (const DIVERGE& d : kDivergence) {
    SCOPED_TRACE(d.text);
    CExpression e(QString::fromUtf8(d.text));
    const int r = Evaluate(e);
    EXPECT_EQ(r, d.status) << e.GetError().toStdString();
    if (r < 0) {
      EXPECT_EQ(e.GetError(), QString::fromUtf8(d.type));
      continue;
    }
    CSymbol& s = *GetResult(e);
    EXPECT_EQ(s.GetTypeText(), QString::fromUtf8(d.type));
    if (s.typeClass == 6) EXPECT_NEAR(s.ReadDouble(), d.value, 1e-9 * std::fabs(d.value) + 1e-12);
    else EXPECT_EQ(s.ReadSigned(), (I64)d.value);
  }
}

TEST(ExprMacros, MacrosEvaluateLikeTheirValueAgainstGdb) {
  if (!HaveGdb()) GTEST_SKIP() << "gdb-multiarch not installed";
  ASSERT_TRUE(LoadProgram("app-dwarf4-macro.elf"));
  const char* const kMacros[] = {"BOARD_REV", "NUM_RECS", "TICKS_PER_SEC", "RING_SIZE", "SYSCLK_HZ",
                                 "HSE_HZ", "NUM_CHANNELS * 2", "NUM_RECS + RING_SIZE"};
  QStringList Commands{"list main"};
  for (const char* m : kMacros) Commands << QString("print/d %1").arg(m);
  const QStringList Out = RunGdbBatch(SymCorpusPath("app-dwarf4-macro.elf"), Commands);
  ASSERT_GE(Out.size(), Commands.size());
  for (int i = 0; i < (int)(sizeof(kMacros) / sizeof(kMacros[0])); ++i) {
    SCOPED_TRACE(kMacros[i]);
    CExpression e(kMacros[i]);
    ASSERT_GT(Evaluate(e), 0) << e.GetError().toStdString();
    EXPECT_EQ(QString::number(GetResult(e)->ReadSigned()), Out[i + 1].section(" = ", 1).trimmed());
  }
  // A macro shows its own name.
  EXPECT_EQ(EvaluateSymbol("BOARD_REV")->GetDisplayName(), "BOARD_REV");
}

TEST_F(ExprCorpus, ReadsListAndSnapshot) {
  CExpression e("g_root->left->value");
  ASSERT_EQ(Evaluate(e), 4);
  // g_root, g_root->left (the pointer in g_nodes[0]) and the value itself.
  ASSERT_EQ(e.reads.size(), 3);
  EXPECT_EQ(e.reads.last().size, 4u);
  // The same expression against a snapshot that says otherwise.
  CExpression s("g_array[2] + 1");
  s.snapshot.ranges << CAddrRange(0x20000044, 4);
  s.snapshot.data = QByteArray("\x10\0\0\0", 4);
  ASSERT_EQ(Evaluate(s), 8);
  EXPECT_EQ(GetResult(s)->ReadSigned(), 17);
  EXPECT_EQ(s.reads.value(0).start, 0x20000044u);
  // A second evaluation keeps the tree and gives the same answer.
  ASSERT_EQ(Evaluate(s), 8);
  EXPECT_EQ(GetResult(s)->ReadSigned(), 17);
}

TEST_F(ExprCorpus, ResultsOutliveTheirExpression) {
  // A struct of 4 bytes is a value too; its members read after the
  // expression is gone.
  std::shared_ptr<CSymbol> p = EvaluateSymbol("recs[2].stats");
  ASSERT_FALSE(p->IsEmpty());
  EXPECT_EQ(p->GetFullName(), "recs[2].stats");
  CSymbol& Flags = p->FindMember("flags");
  EXPECT_EQ(Flags.LoadFromBlock(-1, 2, nullptr), 0);
  EXPECT_EQ(Flags.ReadSigned(), 4);
  std::shared_ptr<CSymbol> n = EvaluateSymbol("recs[2].name");
  ASSERT_FALSE(n->IsEmpty());
  EXPECT_EQ(n->GetFullName(), "recs[2].name");
  CSymbol& Target = n->GetChild(0);
  EXPECT_EQ(Target.GetFullName(), "recs[2].name[0]");
  std::shared_ptr<CSymbol> a = EvaluateSymbol("&g_int");
  ASSERT_FALSE(a->IsEmpty());
  EXPECT_EQ(a->GetChild(0).GetDisplayName(), "g_int");
}

// A target that answers from a byte map, or refuses every read.
class CFakeTarget : public CProgramImageAccess {
public:
  bool accessible = true, refuse = false;
  int reads = 0;
  bool IsAccessible() const override { return accessible; }
  int ReadMemory(U32 Address, U32 Size, const QString&, QByteArray& Out) override {
    ++reads;
    if (refuse) return TARGET_READ_FAILED;
    Out.resize((int)Size);
    for (U32 i = 0; i < Size; ++i) Out[(int)i] = (char)(Address + i);
    return TARGET_READ_OK;
  }
};

TEST_F(ExprCorpus, TargetReadsGoThroughTheSeam) {
  CFakeTarget Target;
  ELF_SetTargetAccess(&Target);
  CExpression e("g_int");
  EXPECT_EQ(Evaluate(e), 4);
  EXPECT_EQ(GetResult(e)->ReadUnsigned(), 0x0B0A0908u);  // bytes 08 09 0A 0B at 0x20000008
  EXPECT_EQ(Target.reads, 1);
  Target.refuse = true;
  CExpression f("g_int + 1");
  EXPECT_EQ(Evaluate(f), -4);
  EXPECT_EQ(f.GetError(), "Error evaluating operator + : left operand value could not be read from target hardware");
  CExpression g("1 + g_int");
  EXPECT_EQ(Evaluate(g), -4);
  EXPECT_EQ(g.GetError(), "Error evaluating operator + : right operand value could not be read from target hardware");
  CExpression h("g_int");
  EXPECT_EQ(Evaluate(h), -4);  // at the root: a data readout error
  Target.refuse = false;
  Target.accessible = false;
  CExpression k("g_uint");
  EXPECT_EQ(Evaluate(k), -4);
  ELF_SetTargetAccess(nullptr);
  CExpression m("g_uint");
  EXPECT_EQ(Evaluate(m), 4);
  EXPECT_EQ(GetResult(m)->ReadUnsigned(), 0xDEADBEEFu);
}

// The two rings point at each other once the program runs (rx_ring.next is
// set at run time): a pointer chain as long as the text allows.
class CRingTarget : public CProgramImageAccess {
public:
  U32 patchAddress = 0, patchValue = 0;
  int ReadMemory(U32 Address, U32 Size, const QString& sZone, QByteArray& Out) override {
    const int r = CProgramImageAccess::ReadMemory(Address, Size, sZone, Out);
    for (U32 i = 0; r == TARGET_READ_OK && i < 4; ++i)
      if (patchAddress + i >= Address && patchAddress + i < Address + Size)
        Out[(int)(patchAddress + i - Address)] = (char)(patchValue >> (8 * i));
    return r;
  }
};

TEST_F(ExprCorpus, LongPointerChainsResolveLikeShortOnes) {
  CRingTarget Target;
  Target.patchAddress = (U32)EvaluateSymbol("&rx_ring.next")->ReadUnsigned();
  Target.patchValue = (U32)EvaluateSymbol("&tx_ring")->ReadUnsigned();
  ASSERT_NE(Target.patchAddress, 0u);
  ELF_SetTargetAccess(&Target);
  auto Chain = [](int n) {
    QString s = "tx_ring.next";
    for (int i = 0; i < n; ++i) s += "->next";
    return s;
  };
  // After an odd number of steps the chain stands at rx_ring.next, which
  // points at tx_ring (tail 2); after an even number the other way round.
  for (int n : {1, 2, 2001, 4000}) {
    SCOPED_TRACE(n);
    CExpression e(Chain(n) + "->tail");
    ASSERT_EQ(Evaluate(e), 2) << e.GetError().toStdString();
    EXPECT_EQ(GetResult(e)->ReadUnsigned(), (n % 2) ? 2u : EvaluateSymbol("rx_ring.tail")->ReadUnsigned());
    CExpression a("&" + Chain(n));
    ASSERT_EQ(Evaluate(a), 4) << a.GetError().toStdString();
    EXPECT_EQ(GetResult(a)->ReadUnsigned(), EvaluateSymbol((n % 2) ? "&rx_ring.next" : "&tx_ring.next")->ReadUnsigned());
  }
  ELF_SetTargetAccess(nullptr);
}

TEST_F(ExprCorpus, FileStaticsOfOneNameByFileScope) {
  auto a = EvaluateSymbol("sensors.c::helper");
  auto b = EvaluateSymbol("comm.c::helper");
  ASSERT_FALSE(a->IsEmpty());
  ASSERT_FALSE(b->IsEmpty());
  EXPECT_EQ(a->typeClass, 46u);
  EXPECT_NE(a->GetAddress(), b->GetAddress());
  // Both against the symbol table of the cross tool chain (local symbols "helper").
  const QString Nm = RunOracle("arm-none-eabi-nm " + SymCorpusPath("app-dwarf4-O0.elf") + " | grep ' t helper$'");
  const QStringList Lines = Nm.split('\n', Qt::SkipEmptyParts);
  if (Lines.size() == 2) {
    QList<I64> Expected{Lines[0].section(' ', 0, 0).toLongLong(nullptr, 16) & ~1ll,
                        Lines[1].section(' ', 0, 0).toLongLong(nullptr, 16) & ~1ll};
    EXPECT_TRUE(Expected.contains(a->GetAddress()));
    EXPECT_TRUE(Expected.contains(b->GetAddress()));
  }
  // A root whose name is not unique names its file.
  CSymbol h(FindSymbols("helper", true, false, false, false, false).value(0), -1, 0);
  EXPECT_TRUE(h.GetFullName().endsWith(".c::helper")) << h.GetFullName().toStdString();
}

TEST_F(ExprCorpus, LocalsOfTheFunctionAtThePc) {
  int Kind;
  const CAddrRange Fib = ResolveToAddress("fib", Kind);
  ASSERT_EQ(Kind, 2);
  EXPECT_TRUE(FindSymbols("n", false, true, false, false, true).isEmpty());  // no PC: no locals
  SYM_SetCurrentPc(Fib.start + 2);
  const QList<ELF_SYM_HANDLE> n = FindSymbols("n", false, true, false, false, true);
  ASSERT_EQ(n.size(), 1);
  // A parameter lives in the frame: without one it has no location, and with
  // no global of that name it stands as the local.
  CExpression e("n");
  EXPECT_EQ(Evaluate(e), 0);
  CSymbol& s = *GetResult(e);
  EXPECT_EQ(s.handle, n.first());
  EXPECT_EQ(s.GetScopeCode(), 'l');
  EXPECT_EQ(s.GetLocationText(), "<outofscope>");
  EXPECT_EQ(s.GetTypeText(), "int");
  // Globals are still found from inside the function.
  CExpression g("g_int");
  EXPECT_EQ(Evaluate(g), 4);
  SYM_SetCurrentPc(0xFFFFFFFFu);
  EXPECT_TRUE(FindSymbols("n", false, true, false, false, true).isEmpty());
}

}  // namespace
