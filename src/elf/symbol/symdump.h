// Text dumps of symbol trees for tools and tests.
#pragma once
#include "elf/symbol/symbol.h"
#include <QStringList>

// Loads a node's value from the current memory seam (program image without
// a target): scalars into data, char arrays and char pointers into textData.
void SYM_LoadValue(CSymbol& Symbol);
// One line per node to MaxDepth levels below Symbol: indent, name, type text,
// offset from Symbol's address, size, decimal and hex value texts.
QStringList SYM_DumpTree(CSymbol& Symbol, int MaxDepth);
// The node of a global (first debug symbol or ELF function of that name), or
// an empty symbol.
CSymbol SYM_MakeGlobal(const QString& sName);
