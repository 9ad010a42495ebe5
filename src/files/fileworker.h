// VFile::CFileWorker turns a data file (raw binary, S-record, Intel
// hexadecimal, ELF) into a list of memory blocks, and writes raw binary
// files. It keeps no state between calls.
#pragma once
#include "files/memblock.h"

#include <QObject>
#include <QString>

struct ELF_PROGRAM_DATA;

namespace VFile {

// Where the readers and the writer show their progress (the status bar).
class IFileProgress {
 public:
  virtual ~IFileProgress() = default;
  virtual void StartProgress(const QString& sText, qint64 Total) = 0;
  virtual void SetProgress(qint64 Value) = 0;
  virtual void EndProgress() = 0;
};
void SetFileProgress(IFileProgress* pProgress);  // null: no progress shown
IFileProgress* FileProgress();                   // the installed one, or null

class CFileWorker : public QObject {
  Q_OBJECT
 public:
  using QObject::QObject;
  // The blocks of a file; empty if it is missing, not a regular file, not a
  // data file or corrupt. BaseAddr -1 keeps the file's addresses, otherwise
  // the blocks are moved so that the lowest one starts there.
  CMemBlockList Read(const QString& sFilePath, I64 BaseAddr = -1);
  // Dispatch by the file's suffix.
  CMemBlockList ReadFile(const QString& sFilePath);
  static void Relocate(CMemBlockList& Blocks, U32 BaseAddr);
  // Blocks over an in-memory segment table, sharing its bytes (valid as
  // long as the table's data are).
  static CMemBlockList FromSegments(U32 Cnt, const ELF_PROGRAM_DATA* paSegments);
  // Writes a raw binary file: 0, or -1 after a short write (the file is
  // removed). FileSaved is emitted either way.
  int Save(const QString& sFilePath, const U8* pData, U32 NumBytes);

 signals:
  void FileSaved(QString FilePath, U32 nBytes);

 private:
  CMemBlockList ReadBinary(const QString& sFilePath);
  CMemBlockList ReadElf(const QString& sFilePath);
  CMemBlockList ReadTextRecordFile(const QString& sFilePath);
};

}  // namespace VFile
