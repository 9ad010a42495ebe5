// Motorola S-record and Intel hexadecimal files: the record parsers of one
// line, the slice reader over a whole file, and the merging of blocks. Pure
// functions over bytes; the caller supplies the reading, the logging and the
// progress.
#pragma once
#include "files/memblock.h"

#include <QIODevice>
#include <QString>
#include <functional>

namespace VFile {

enum TEXT_FORMAT { TEXT_FORMAT_SREC, TEXT_FORMAT_IHEX };

// Files are read in slices of this size through one buffer.
constexpr qint64 FILE_SLICE_SIZE = 1000000;

// One parsed line. pData points at the hexadecimal digits of the data bytes
// inside the line.
struct TEXT_RECORD {
  U32 Type = 0;
  U64 Addr = 0;  // with the extended base of Intel files
  const char* pData = nullptr;
  U32 nBytes = 0;
};

// A line without its line end. False for an invalid record. *pExtBase is the
// extended base address of an Intel file, carried from line to line.
bool ParseSRecordLine(const char* p, size_t Len, TEXT_RECORD* pRec);
bool ParseIntelHexLine(const char* p, size_t Len, U32* pExtBase, TEXT_RECORD* pRec);

struct TEXT_READ_RESULT {
  CMemBlockList Blocks;  // merged, ascending; empty when BadLine >= 0
  qint64 BadLine = -1;   // the first line that spoils the file, counted from 0
  QString sProblem;      // empty for a corrupt record; else why a valid record cannot load
  bool ReadError = false;
};

struct TEXT_READ_HOOKS {
  std::function<void(qint64 Line)> OnBadRecord;      // each invalid record
  std::function<void(qint64 BytesDone)> OnProgress;  // after each slice
};

// Reads a file of records from an open device, slice by slice, until a read
// returns fewer bytes than asked. Lines end in LF or CR; white space between
// lines is skipped; a line may cross a slice border.
TEXT_READ_RESULT ReadTextRecords(QIODevice& In, TEXT_FORMAT Format, const TEXT_READ_HOOKS& Hooks = {});

// Sorts blocks by address and joins those that overlap or touch into one
// block each; a later block in address order overwrites an overlap. Size is
// set from the data, VirtAddr of a joined block is its Addr.
CMemBlockList MergeBlocks(CMemBlockList Blocks);

}  // namespace VFile
