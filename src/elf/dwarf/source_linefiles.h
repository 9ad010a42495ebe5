// The file table of a compile unit's line program, read from the header of
// its .debug_line contribution: the full path of each file number as the
// unit's DW_AT_decl_file and DW_AT_call_file attributes use it. Line tables
// of version 5 count files from 0, older ones from 1.
#pragma once
#include "common/types.h"
#include "elf/elf.h"

#include <string>
#include <vector>

struct SRC_UNIT_FILES {
  U16 version = 0;                 // line table version, 0 if the header was not readable
  std::vector<std::string> paths;  // by index: number - FirstNumber()
  U32 FirstNumber() const { return version >= 5 ? 0 : 1; }
  // The path of a file number, "" if the table hasn't got it.
  const std::string& PathOf(U64 Number) const;
};

// Reads the header at Offset of .debug_line. Relative directories are put
// behind sCompDir. A header that is cut or malformed gives version 0.
SRC_UNIT_FILES SRC_ReadUnitFiles(const ELF_FILE* pFile, U64 Offset, const std::string& sCompDir);
