// Random expression texts evaluated against corpus programs, built with
// AddressSanitizer and UBSan: every text ends in a status with its words,
// nothing reads out of bounds, and the arithmetic has no undefined behaviour
// (INT64_MIN / -1, shifts by 64 or more, signed overflow).
#include "expr/evaluator.h"
#include "elf/symbol/symbol_test_util.h"

#include <gtest/gtest.h>
#include "testsupport/randomtext.h"

namespace {

const char* const kFragments[] = {
  "g_int", "g_uint", "g_char", "g_llong", "g_ullong", "g_float", "g_double", "g_bool", "g_kind", "g_mode",
  "g_array", "g_matrix", "g_text", "g_greeting", "g_mode_names", "g_int_ptr", "g_array_ptr", "g_ctrl", "g_pun",
  "g_config", "g_commands", "g_nodes", "g_root", "UART1", "recs", "tx_ring", "rx_ring", "crc_table", "fib",
  "main", "helper", "main.c", "sensors.c", "CHAN_SPEED", "MODE_SHUTDOWN", "BOARD_REV", "SYSCLK_HZ", "int",
  "char", "unsigned", "struct node", "node_t", "chan_rec_t", "nosuch", ".", "->", "::", "[", "]", "(", ")",
  "*", "&", "+", "-", "/", "%", "<<", ">>", "<", "<=", ">", ">=", "==", "!=", "^", "|", "&&", "||", "~", "!",
  "++", "--", "sizeof", "(char *)", "(int *)", "(struct node *)", "(int [4])", "(u32_t *)", "0", "1", "2", "7",
  "31", "32", "63", "64", "-1", "0x7FFFFFFFFFFFFFFF", "0x8000000000000000", "9223372036854775807",
  "-9223372036854775808", "0xFFFFFFFFFFFFFFFF", "0x20000000", "0x200000C4", "1.5", "1e308", "0.0", "1,5",
  "name", "value", "left", "right", "next", "bits", "word", "trim", "raw", "stats", "flags", "origin", "x",
  " ", " ", "`", "@", "#", "'", "$",
};

const char* const kSeeds[] = {
  "-9223372036854775808 / -1", "-9223372036854775808 % -1", "9223372036854775807 * 2", "1 << 63",
  "-1 >> 64", "g_llong * g_llong * g_llong", "-(-9223372036854775808)", "~g_ullong + 1",
  "1e308 * 1e308 % 3", "0.0 / 0.0 % 0.0", "g_root->left->left->left->value", "*(int *)0xFFFFFFFC",
  "*(char *)0xFFFFFFFF", "recs[4].name[100000]", "g_int_ptr[2147483647]", "g_matrix[2][1000]",
  "(int [4])g_array", "((int [1000000])g_array)[999999]", "&*&*&g_int", "sizeof(sizeof(g_int))",
  "g_mode_names[2][1]", "main.c::main.c::g_int", "g_ctrl.bits.trim << 31", "g_float % g_double",
};

void Fuzz(const char* File, int Count, unsigned Seed) {
  ASSERT_TRUE(LoadProgram(File));
  testsupport::RandomText gen({std::begin(kFragments), std::end(kFragments)}, {std::begin(kSeeds), std::end(kSeeds)},
                              Seed);
  int Ok = 0, Failed = 0;
  for (int i = 0; i < Count; ++i) {
    // Now and then a seed with one edit, else a text of fragments.
    CExpression e(QString::fromUtf8(gen.Below(8) == 0 ? gen.Mutate(gen.Seed(), 1, testsupport::RandomText::Printable)
                                                      : gen.Text(1, 12, 16, testsupport::RandomText::Printable)));
    const int r = Evaluate(e);
    if (r >= 0) {
      ++Ok;
      ASSERT_EQ(r, GetResult(e)->ValueBytes().size());
      GetResult(e)->GetValueText(DISPLAY_FORMAT_DEC, true);
      GetResult(e)->GetLocationText(true);
      GetResult(e)->GetFullName();
    } else {
      ++Failed;
      ASSERT_GE(r, -5);
      ASSERT_FALSE(e.GetError().isEmpty()) << e.GetText().toStdString();
    }
    // A second evaluation of the same tree must give the same status.
    if (i % 16 == 0) ASSERT_EQ(Evaluate(e), r) << e.GetText().toStdString();
  }
  printf("%s: %d evaluated, %d failed\n", File, Ok, Failed);
  // Both outcomes must occur, or the generator tests nothing.
  EXPECT_GT(Ok, Count / 50);
  EXPECT_GT(Failed, Count / 50);
}

TEST(ExprEvalFuzz, LittleEndian) { Fuzz("app-dwarf4-O0.elf", 50000, 1); }
TEST(ExprEvalFuzz, BigEndianOptimised) { Fuzz("app-dwarf4-O2-be.elf", 30000, 2); }
TEST(ExprEvalFuzz, Macros) { Fuzz("app-dwarf4-macro.elf", 20000, 3); }

}  // namespace
