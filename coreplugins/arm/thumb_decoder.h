// Thumb-2 (M-profile) instruction analysis and text, on top of Capstone.
// Used by the ARM core plug-in; kept apart from the exports so that tests and
// the benchmark can drive it with their own memory.
#pragma once
#include "plugins/core_plugin_api.h"
#include <cstddef>

namespace armcore {

// Memory access used by the decoder: 0 on success, -1 on failure.
typedef int (*ReadMemFunc)(U64 Addr, U32 NumBytes, U8* pData, void* pCtx);
// Start of the code range (mapping range) holding Addr; -1 if unknown.
typedef int (*CodeRangeFunc)(U64 Addr, U64* pStart, void* pCtx);

struct DecodeEnv {
  ReadMemFunc pfRead = nullptr;
  CodeRangeFunc pfCodeRange = nullptr;
  void* pCtx = nullptr;
  bool InstBigEndian = false;   // instruction halfwords stored big-endian
  bool DataBigEndian = false;   // byte order of literals
};

struct Decoded {
  CORE_INST_INFO Info{};        // Size 0 = no instruction
  char acText[256] = {};        // "mnemonic\toperands[\t; comment]"
};

// Analyses the instruction at Addr. Returns 0 for a valid instruction, 1 when
// no instruction can be decoded there (unreadable or undefined), with Info
// zeroed except for Addr.
int DecodeAt(const DecodeEnv& Env, U64 Addr, Decoded* pOut, bool WantText);

// Data item text, see the header of the plug-in API. Returns the size or -1.
int FormatData(const DecodeEnv& Env, U64 Addr, U32 Size, char* acBuf, U32 BufSize);

// Finds the address of an IT instruction whose block covers Addr, or -1.
// Exposed for tests.
long long FindITStart(const DecodeEnv& Env, U64 Addr);

}  // namespace armcore
