// The cross binutils' objdump as an oracle: its disassembly listing parsed
// into one record per instruction. A tool that is missing or a file it cannot
// read gives an empty listing.
#pragma once
#include <cstdint>
#include <map>
#include <string>

namespace objdump {

struct Inst {
  uint32_t Addr = 0, Size = 0;  // Size in bytes
  std::string Mnemonic, Operands;  // operands as printed, without the comment
  std::string Comment;             // "@ ..." when objdump adds one
};

// -d over the file, or over [Start, Stop) when Stop is not 0: the Thumb
// instructions by address. Data lines (".word", ".short", ...; also any
// 32-bit word printed whole) go to pData instead, their value as Operands.
std::map<uint32_t, Inst> Disassemble(const std::string& sPath, std::map<uint32_t, Inst>* pData = nullptr,
                                     uint32_t Start = 0, uint32_t Stop = 0);

}  // namespace objdump
