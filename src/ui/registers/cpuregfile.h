// The CPU registers of a core as its description file lists them (the file
// the core plug-in names for the core): the groups and, in each, the
// registers with the logical index the plug-in maps to a probe register.
// Of the bit fields only the one-bit ones are kept, for the flag text;
// peripherals and dimensions are not read here.
#pragma once
#include "common/types.h"

#include <QList>
#include <QPair>
#include <QString>

struct CPU_REG_DESC {
  QString Group;        // the group's name
  QString Name;
  QString Description;  // white space simplified
  U32 LogicIdx = 0;     // element index
  U32 Bits = 32;        // element size, else the group's or the file's
  // The one-bit fields in file order: name and bit position.
  QList<QPair<QString, U8>> Flags;
};

// Reads sPath. 0 with the registers in file order; -1 with the console text in
// *psError: a file that cannot be read, is not XML, or whose root element is
// neither "cpu" nor "device". A file under 10 bytes gives 0 and no registers.
// Registers without a name or without an index are left out; a group with
// the attribute derivedFrom is skipped.
int REG_ReadCpuFile(const QString& sPath, QList<CPU_REG_DESC>* pRegs, QString* psError);

// A number field of a description file: "+" removed, a last k/K, m/M, g/G,
// t/T multiplies by a power of 1000, a leading "#" is binary, otherwise the
// base follows the prefix ("0x", "0"). False when it is no number.
bool REG_ParseNumber(const QString& sText, U64* pValue);
