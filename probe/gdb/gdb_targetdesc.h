// Readers of the two XML documents a GDB server describes its target with:
// the target description (register names, numbers and sizes, possibly split
// over included files) and the memory map (flash regions and their erase
// block size). Plain text in, plain records out; no I/O.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common/types.h"

namespace vorden::gdbdesc {

struct Register {
  std::string Name;  // lower case
  int Num;
  int Bits;
};

struct FlashRegion {
  U32 Addr, Size, Block;  // Block 0: the whole region erases at once
};

// Value of attribute sName in a tag's text ("" when absent or unquoted).
std::string Attr(const std::string& sTag, const char* sName);

// Registers of a target description in document order. Numbers follow the
// protocol's rule: a "regnum" attribute sets the number, every register
// without one takes the next. Next carries the count across included
// documents, which Include fetches by name (false: the description is
// unusable). Depth bounds nested includes.
bool ParseRegisters(const std::string& sXml, int& Next, std::vector<Register>& Out,
                    const std::function<bool(const std::string& sHref)>& Include, int Depth = 0);

// Flash regions of a memory map; other region types are skipped, and so are
// regions outside the 32-bit address space.
std::vector<FlashRegion> ParseMemoryMap(const std::string& sXml);

}  // namespace vorden::gdbdesc
