// Per-file state of the debug-information reader, hung on ELF_FILE::dwarf.
#pragma once
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/dwarf_bridge.h"
#include "elf/dwarf/key_hash.h"
#include <memory>
#include <string>
#include <vector>

// Lists and text of an entry, made only for entries that need them.
struct ELF_DIE_EXTRA {
  std::string qualifiedTypeName;
  bool typeNameDone = false;
  std::vector<U64> locals;
  std::vector<U64> members;
  std::vector<U64> baseClasses;
};

struct ELF_DIE_INFO {
  U32 tag = 0;
  U32 parent = 0;
  U32 specification = 0;
  U32 definition = 0;
  U8 visited = 0;
  ELF_DIE_EXTRA* extra = nullptr;
};

struct DW_UNIT {
  U64 offset = 0;
  U64 nextOffset = 0;
  U32 rootKey = 0;
  U16 version = 0;
  U8 addrSize = 4;
  bool isInfo = true;
  bool isTypeUnit = false;
  U64 signature = 0;
  U32 typeKey = 0; // type units: the entry the signature names
  U64 lowPc = 0;
  int language = 0;
};

struct DW_FILE_REC {
  std::vector<U32> units; // keys of compile unit roots
};

// A call site and its parameters (keys in DW_CTX::callParams).
struct DW_CALL_SITE {
  U32 returnPc = 0;  // file address after the call
  U32 key = 0;
  U32 firstParam = 0;
  U32 paramCount = 0;
};

struct DW_CTX {
  dwb::Session* s = nullptr;
  ELF_FILE* f = nullptr;
  U32 infoSize = 0, typesSize = 0, debugSize = 0;
  std::vector<dwb::Die> dieTable;
  std::vector<ELF_DIE_INFO*> dieInfoTable;
  U32 dieCount = 0;
  U32 typeUnitCount = 0;
  U32 dwarfVersion = 0;
  U32 entryFunction = 0;
  std::string producer;
  bool producerKnown = false;
  std::vector<U64> lists[ELF_LIST_COUNT];
  std::vector<DW_UNIT> units; // .debug_info units then .debug_types units, each in order
  std::vector<ELF_LINE_ROW> lineRows;
  std::vector<std::string> linePaths;           // path of each row by ELF_LINE_ROW::fileIndex
  std::vector<std::string> sourceFiles;         // file table order
  KEY_HASH fileTable;                           // hash of path -> index into fileRecs
  std::vector<DW_FILE_REC> fileRecs;
  KEY_HASH nameIndex;
  std::vector<ELF_MACRO> macros;
  std::vector<std::unique_ptr<char[]>> macroTexts;
  std::string typeNameBuf;
  std::vector<DW_CALL_SITE> callSites; // in walk order until sorted by return address
  std::vector<U32> callParams;
  bool callSitesSorted = false;
};

DW_CTX* DwCtx(const ELF_FILE* f);
