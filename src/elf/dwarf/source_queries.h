// Source positions of debug entries (declaration, call site, the location a
// symbol is shown at, the source span of a function) and the instruction-level
// walks over the line tables (statement runs, line starts, line and
// instruction blocks of a function, code ranges split by data symbols).
// Everything here reads the program tables; callers hold the wrapper mutex.
#pragma once
#include "common/srcloc.h"
#include "common/types.h"
#include "elf/elf.h"

#include <QList>

class CLineTables;

// Call location of a debug entry (DW_AT_call_file / DW_AT_call_line, with the
// fallback through the enclosing function's lines for an inlined instance);
// the null location if there is none. Memoised per handle until
// DWARF_ClearSourceQueryMemos().
CSrcLoc DWARF_GetCallLoc(const CLineTables& Tables, ELF_SYM_HANDLE h);
// Declaration location (DW_AT_decl_file / DW_AT_decl_line), memoised likewise.
CSrcLoc DWARF_GetDeclLoc(const CLineTables& Tables, ELF_SYM_HANDLE h);
// Empties the memo tables of this file; the wrapper calls it at close. (A
// new file in a slot also voids the memos made from the one before.)
void DWARF_ClearSourceQueryMemos();

// The location a symbol is shown at: the call location of an inlined
// instance, else the declaration, else the first location of its start, else
// the declaration of the enclosing function. Memoised.
CSrcLoc DWARF_GetSymbolLoc(const CLineTables& Tables, ELF_SYM_HANDLE h);

// Top and bottom source location of a function (debug tags 46, 29, 21 and ELF
// function symbols): the declaration (else the first line with code) and the
// last line of its code (column 0); both null for anything else. Memoised.
struct FUNC_SRC_RANGE {
  CSrcLoc top;
  CSrcLoc bottom;
};
FUNC_SRC_RANGE DWARF_GetFuncSrcRange(const CLineTables& Tables, ELF_SYM_HANDLE h);

// The instruction starts from Start (aligned) up to Start + 256 that belong
// to the file and line of Loc, ending at the first that doesn't. Empty
// without an installed instruction analysis.
QList<U32> DWARF_GetLocAddressRun(const CLineTables& Tables, const CSrcLoc& Loc, U32 Start);
// All instructions of a location: the runs from its addresses, each cut at
// the first address that LineStartKind marks 1, concatenated.
QList<U32> DWARF_GetLocInstructions(const CLineTables& Tables, const CSrcLoc& Loc);
// 1 if Address begins data (a data row of the instruction analysis, or an
// object symbol there); 0 if it is the first address of its location; -1
// otherwise and for an address without location.
int DWARF_LineStartKind(const CLineTables& Tables, U32 Address);

// One block of a line in a function: the location (column 0) and the
// addresses from start, size bytes.
struct LINE_BLOCK {
  CSrcLoc loc;
  CAddrRange range;
};
// Line analysis of a function range: per line, the first block it got, in
// the order the lines appear. Empty above 10,000,000 bytes (logged) and
// without instruction analysis.
QList<LINE_BLOCK> DWARF_GetFunctionLineBlocks(const CLineTables& Tables, const CAddrRange& Range);
// Instruction analysis of a function range for one line: every block of
// addresses of the range that belong to that line's file and line. Empty
// above 10,000,000 bytes (logged) and without instruction analysis.
QList<CAddrRange> DWARF_GetFunctionInstBlocks(const CLineTables& Tables, const CAddrRange& Range, const CSrcLoc& Loc);
// A range split into its code parts by the symbols inside it that begin
// data; the whole range above 10,000,000 bytes (logged), without symbols, or
// without a symbol at or below its start.
QList<CAddrRange> DWARF_GetCodeRanges(const CLineTables& Tables, const CAddrRange& Range);
