// Text listings of the debug information of one file, one item a line, for
// the dump tool and for comparisons against other tools' output.
#pragma once
#include "common/types.h"
#include <string>

struct ELF_FILE;

// "0x%08X <path>:<line>:<column>" per line row, sorted by address (stable).
std::string DWARF_DumpLines(const ELF_FILE* f);
// The address map after the load clean-up: "0x%08X <path>:<line>:<column>"
// per (address, location) pair, by address, locations sorted.
std::string DWARF_DumpAddressMap(ELF_FILE* f);
// One full path a line, in file table order.
std::string DWARF_DumpFiles(const ELF_FILE* f);
// "0x%08X %u <name> <file>:<line>" per debug function, in list order.
std::string DWARF_DumpFunctions(const ELF_FILE* f);
// "0x%08X <name> <call file>:<call line>" per range start of inlined instances.
std::string DWARF_DumpInlines(const ELF_FILE* f);
// "<name> 0x%08X <size> <type text>" per global variable with a static address.
std::string DWARF_DumpGlobals(const ELF_FILE* f);
// "<type text> <size>" then "  +<offset> <name> <type text>[ :bitoffset:bitsize]" per member.
std::string DWARF_DumpTypes(const ELF_FILE* f);
// Per row boundary of each frame description: "0x%08X CFA=<rule> rN=<rule> ..."
// with the registers whose rule isn't "same as caller".
std::string DWARF_DumpCfa(ELF_FILE* f);
// Each local and parameter of the functions and inlined instances that hold
// pc: "<function> <name> <location text>".
std::string DWARF_DumpLocals(const ELF_FILE* f, U32 pc);
// "<kind> <file index> <line> <text>" per macro definition.
std::string DWARF_DumpMacros(const ELF_FILE* f);
