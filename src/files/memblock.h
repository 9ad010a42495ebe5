// One contiguous piece of a memory image: where it loads, where it runs, and
// its bytes. Lists of blocks are what the data file readers produce and what a
// download writes.
#pragma once
#include "common/types.h"

#include <QByteArray>
#include <QList>

struct CMemBlock {
  U32 Addr = 0;      // load (physical) address
  U32 Size = 0;      // number of bytes; the length of Data once a file is read
  U32 VirtAddr = 0;  // run (virtual) address; differs from Addr only in ELF files
  QByteArray Data;
  QByteArray Mask;   // unused by the readers and the download
  U32 Type = 0;      // record type, in the transient record of a text parser
};

using CMemBlockList = QList<CMemBlock>;
