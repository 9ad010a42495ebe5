// The DWARF expression machine on exact expression bytes, against a frame
// whose registers, memory, frame base, CFA and entry values are known; then
// random bytes under the sanitizers.
#include "elf/dwarf/expr_eval.h"

#include <gtest/gtest.h>
#include <random>

namespace {

using namespace dwexpr;

// r0 = 0x12345678, rN = 0x1000 + 16 N, r15 unknown; memory answers the
// address xor 0xA5A5A5A5 cut to the size read; entry value of rN is 0x500 + N.
class CKnownFrame : public IFrameContext {
public:
  bool Register(U32 Reg, U64& Value) override {
    if (Reg == 15) return false;
    Value = Reg == 0 ? 0x12345678 : 0x1000 + 16 * Reg;
    return true;
  }
  bool Memory(U64 Address, U32 Size, U64& Value) override {
    if (Address == 0xDEAD) return false;
    Value = (Address ^ 0xA5A5A5A5ull) & (Size >= 8 ? ~0ull : ((1ull << (8 * Size)) - 1));
    return true;
  }
  bool FrameBase(U64& Value) override { return Value = 0x2000, true; }
  bool Cfa(U64& Value) override { return Value = 0x3000, true; }
  bool EntryValue(U32 Reg, U64& Value) override {
    if (Reg == 15) return false;
    return Value = 0x500 + Reg, true;
  }
  U64 Relocate(U64 FileAddress) override { return FileAddress + 0x100; }
};

struct CASE {
  const char* sName;
  std::vector<U8> Bytes;
  RESULT_KIND Kind;  // RESULT_NONE: no result
  U64 Value;         // address, value or register
  bool AsValue = false;
};

RESULT EvalCase(const CASE& c) {
  std::vector<dwb::LocOp> Ops;
  if (!DecodeOps(c.Bytes.data(), c.Bytes.size(), 4, Ops)) return RESULT{};
  CKnownFrame f;
  return Evaluate(Ops, f, c.AsValue);
}

constexpr U64 R0 = 0x12345678;
const CASE kCases[] = {
    // What gcc -O2 emits for a value kept as arithmetic on a register, and
    // for the same value on function entry.
    {"register arithmetic", {0x70, 0x00, 0x37, 0x25, 0x70, 0x00, 0x27, 0x9f}, RESULT_VALUE, (R0 >> 7) ^ R0},
    {"GNU entry values", {0xf3, 0x01, 0x50, 0x37, 0x25, 0xf3, 0x01, 0x50, 0x27, 0x9f}, RESULT_VALUE, (0x500 >> 7) ^ 0x500},
    {"entry value", {0xa3, 0x01, 0x51, 0x9f}, RESULT_VALUE, 0x501},
    {"entry value not known", {0xa3, 0x01, 0x5f, 0x9f}, RESULT_NONE, 0},
    {"entry value of an expression", {0xa3, 0x02, 0x70, 0x00, 0x9f}, RESULT_NONE, 0},
    {"lone register", {0x55}, RESULT_REGISTER, 5},
    {"lone register as value", {0x55}, RESULT_VALUE, 0x1050, true},
    {"regx", {0x90, 0x80, 0x02}, RESULT_REGISTER, 256},
    {"register inside an expression", {0x50, 0x9f}, RESULT_NONE, 0},
    {"relocated address", {0x03, 0x00, 0x10, 0x00, 0x20}, RESULT_MEMORY, 0x20001100},
    {"frame base offset", {0x91, 0x78}, RESULT_MEMORY, 0x2000 - 8},
    {"CFA offset", {0x9c, 0x23, 0x10}, RESULT_MEMORY, 0x3010},
    {"bregx", {0x92, 0x03, 0x7c}, RESULT_MEMORY, 0x1030 - 4},
    {"pointer through memory", {0x71, 0x04, 0x06}, RESULT_MEMORY, (0x1014 ^ 0xA5A5A5A5ull) & 0xFFFFFFFF},
    {"byte read", {0x71, 0x00, 0x94, 0x01, 0x9f}, RESULT_VALUE, (0x1010 ^ 0xA5) & 0xFF},
    {"memory not readable", {0x0a, 0xad, 0xde, 0x06}, RESULT_NONE, 0},
    {"register not known", {0x7f, 0x00, 0x9f}, RESULT_NONE, 0},
    {"as value, top of stack", {0x74, 0x7f}, RESULT_VALUE, 0x1040 - 1, true},
    // Stack operations.
    {"swap minus", {0x31, 0x32, 0x16, 0x1c, 0x9f}, RESULT_VALUE, 1},
    {"rot", {0x31, 0x32, 0x33, 0x17, 0x1c, 0x27, 0x9f}, RESULT_VALUE, 0xFFFFFFFC},
    {"pick", {0x31, 0x32, 0x33, 0x15, 0x02, 0x9f}, RESULT_VALUE, 1},
    {"pick too deep", {0x31, 0x15, 0x01, 0x9f}, RESULT_NONE, 0},
    {"over dup drop", {0x31, 0x32, 0x14, 0x22, 0x12, 0x13, 0x22, 0x9f}, RESULT_VALUE, 4},
    {"underflow", {0x22}, RESULT_NONE, 0},
    {"nothing to show", {0x9f}, RESULT_NONE, 0},
    // Arithmetic in 32 bits, signed where DWARF says so.
    {"const1u", {0x08, 0x80, 0x9f}, RESULT_VALUE, 0x80},
    {"const1s", {0x09, 0x80, 0x9f}, RESULT_VALUE, 0xFFFFFF80},
    {"consts", {0x11, 0x7f, 0x9f}, RESULT_VALUE, 0xFFFFFFFF},
    {"const8u cut to the address size", {0x0e, 1, 2, 3, 4, 5, 6, 7, 8, 0x9f}, RESULT_VALUE, 0x04030201},
    {"shra", {0x09, 0x80, 0x31, 0x26, 0x9f}, RESULT_VALUE, 0xFFFFFFC0},
    {"shift by the width", {0x31, 0x08, 0x20, 0x24, 0x9f}, RESULT_VALUE, 0},
    {"signed division", {0x09, 0xf8, 0x32, 0x1b, 0x9f}, RESULT_VALUE, 0xFFFFFFFC},
    {"division by zero", {0x31, 0x30, 0x1b, 0x9f}, RESULT_NONE, 0},
    {"modulo", {0x37, 0x33, 0x1d, 0x9f}, RESULT_VALUE, 1},
    {"abs", {0x09, 0xfb, 0x19, 0x9f}, RESULT_VALUE, 5},
    {"neg", {0x35, 0x1f, 0x9f}, RESULT_VALUE, 0xFFFFFFFB},
    {"not", {0x30, 0x20, 0x9f}, RESULT_VALUE, 0xFFFFFFFF},
    {"shl", {0x31, 0x44, 0x24, 0x9f}, RESULT_VALUE, 0x100000},
    {"mul and or and", {0x33, 0x34, 0x1e, 0x31, 0x21, 0x3f, 0x1a, 0x9f}, RESULT_VALUE, 13},
    {"signed compare", {0x09, 0xff, 0x30, 0x2d, 0x9f}, RESULT_VALUE, 1},
    {"compares", {0x32, 0x32, 0x29, 0x32, 0x33, 0x2a, 0x22, 0x33, 0x32, 0x2b, 0x22, 0x9f}, RESULT_VALUE, 2},
    // Control flow, counted in bytes from the end of the branch.
    {"branch not taken", {0x30, 0x28, 0x02, 0x00, 0x31, 0x9f, 0x32, 0x9f}, RESULT_VALUE, 1},
    {"branch taken", {0x31, 0x28, 0x02, 0x00, 0x31, 0x9f, 0x32, 0x9f}, RESULT_VALUE, 2},
    {"skip", {0x2f, 0x01, 0x00, 0x31, 0x32, 0x9f}, RESULT_VALUE, 2},
    {"skip to the end", {0x32, 0x2f, 0x02, 0x00, 0x31, 0x9f}, RESULT_MEMORY, 2},
    {"skip into an operation", {0x2f, 0x01, 0x00, 0x08, 0x01, 0x31}, RESULT_NONE, 0},
    {"endless loop", {0x2f, 0xfd, 0xff}, RESULT_NONE, 0},
    {"implicit value", {0x9e, 0x04, 0x78, 0x56, 0x34, 0x12}, RESULT_VALUE, 0x12345678},
    {"nop", {0x96, 0x31}, RESULT_MEMORY, 1},
    // Bytes that do not decode.
    {"truncated address", {0x03, 0x00, 0x10}, RESULT_NONE, 0},
    {"missing LEB", {0x70}, RESULT_NONE, 0},
    {"block past the end", {0x9e, 0x09, 0x00}, RESULT_NONE, 0},
    {"unknown operation", {0xff}, RESULT_NONE, 0},
    {"empty", {}, RESULT_NONE, 0},
};

TEST(ExprEval, ExactBytes) {
  for (const CASE& c : kCases) {
    SCOPED_TRACE(c.sName);
    const RESULT r = EvalCase(c);
    EXPECT_EQ(r.kind, c.Kind);
    if (c.Kind == RESULT_NONE) continue;
    EXPECT_EQ(c.Kind == RESULT_REGISTER ? U64(r.reg) : r.value, c.Value);
  }
}

TEST(ExprEval, DecodedOffsetsAndOperands) {
  const std::vector<U8> b{0x92, 0x03, 0x7c, 0x9e, 0x02, 0xaa, 0xbb, 0x93, 0x04};
  std::vector<dwb::LocOp> Ops;
  ASSERT_TRUE(DecodeOps(b.data(), b.size(), 4, Ops));
  ASSERT_EQ(Ops.size(), 3u);
  EXPECT_EQ(Ops[0].op1, 3u);
  EXPECT_EQ(I64(Ops[0].op2), -4);
  EXPECT_EQ(Ops[1].block, (std::vector<U8>{0xaa, 0xbb}));
  EXPECT_EQ(Ops[1].offset, 3u);
  EXPECT_EQ(Ops[2].offset, 7u);
  EXPECT_EQ(Ops[2].op1, 4u);
}

// Random bytes, weighted towards operations that take stack operands and
// branches, never crash the decoder or the machine and never read out of range.
TEST(ExprEval, RandomBytes) {
  std::mt19937 Rng(20261126);
  const U8 Common[] = {0x06, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x19, 0x1b, 0x1d, 0x22, 0x24, 0x25, 0x26,
                      0x28, 0x2f, 0x30, 0x31, 0x50, 0x70, 0x91, 0x94, 0x9c, 0x9e, 0x9f, 0xa3, 0xf3};
  int Decoded = 0, Results = 0;
  for (int i = 0; i < 40000; ++i) {
    std::vector<U8> b(Rng() % 24);
    for (U8& x : b) x = Rng() % 3 ? Common[Rng() % sizeof Common] : U8(Rng());
    std::vector<dwb::LocOp> Ops;
    const U32 AddrSize = Rng() % 4 ? 4 : 8;
    if (!DecodeOps(b.data(), b.size(), AddrSize, Ops)) continue;
    ++Decoded;
    CKnownFrame f;
    Results += Evaluate(Ops, f, false, AddrSize).kind != RESULT_NONE;
    Evaluate(Ops, f, true, AddrSize);
  }
  EXPECT_GT(Decoded, 1000);
  EXPECT_GT(Results, 100);
}

}  // namespace
