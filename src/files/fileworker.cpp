#include "files/fileworker.h"

#include "elf/elfapi.h"
#include "files/elfblocks.h"
#include "files/filetypes.h"
#include "files/textrecords.h"
#include "log/log.h"

#include <QFile>
#include <QFileInfo>
#include <QMutexLocker>

namespace VFile {

namespace {

IFileProgress* s_pProgress = nullptr;

void StartProgress(const QString& sText, qint64 Total) {
  if (s_pProgress) s_pProgress->StartProgress(sText, Total);
}
void SetProgress(qint64 Value) {
  if (s_pProgress) s_pProgress->SetProgress(Value);
}
void EndProgress() {
  if (s_pProgress) s_pProgress->EndProgress();
}

bool SameFile(const QString& a, const QString& b) {
  if (a.isEmpty() || b.isEmpty()) return false;
  const QString ca = QFileInfo(a).canonicalFilePath(), cb = QFileInfo(b).canonicalFilePath();
  return !ca.isEmpty() && ca == cb;
}

}  // namespace

void SetFileProgress(IFileProgress* pProgress) { s_pProgress = pProgress; }
IFileProgress* FileProgress() { return s_pProgress; }

CMemBlockList CFileWorker::Read(const QString& sFilePath, I64 BaseAddr) {
  const QFileInfo Info(sFilePath);
  if (!Info.exists() || !Info.isFile()) return {};
  CMemBlockList Blocks = ReadFile(sFilePath);
  if (BaseAddr != -1 && !Blocks.isEmpty()) Relocate(Blocks, U32(BaseAddr));
  return Blocks;
}

CMemBlockList CFileWorker::ReadFile(const QString& sFilePath) {
  if (!IsInFileGroup(sFilePath, FG_DATA)) return {};
  const QString sSuffix = QFileInfo(sFilePath).suffix().toLower();
  if (sSuffix == QLatin1String("bin")) return ReadBinary(sFilePath);
  if (IsInFileGroup(sFilePath, FG_PROGRAM)) return ReadElf(sFilePath);
  return ReadTextRecordFile(sFilePath);
}

CMemBlockList CFileWorker::ReadBinary(const QString& sFilePath) {
  QFile f(sFilePath);
  if (!f.open(QIODevice::ReadOnly)) return {};
  CMemBlock b;
  StartProgress(QStringLiteral("Reading File..."), f.size());
  for (;;) {
    const qsizetype Old = b.Data.size();
    b.Data.resize(Old + FILE_SLICE_SIZE);
    const qint64 Got = f.read(b.Data.data() + Old, FILE_SLICE_SIZE);
    b.Data.resize(Old + std::max<qint64>(Got, 0));
    SetProgress(b.Data.size());
    if (Got < FILE_SLICE_SIZE) {
      if (Got < 0) {
        EndProgress();
        LogError(QStringLiteral("Could not read file %1: %2").arg(sFilePath, f.errorString()));
        return {};
      }
      break;
    }
  }
  EndProgress();
  b.Size = U32(b.Data.size());
  return {b};
}

CMemBlockList CFileWorker::ReadElf(const QString& sFilePath) {
  CElfApi& Api = CElfApi::Instance();
  {
    QMutexLocker Lock(&Api.Mutex());
    if (Api.IsLoaded() && SameFile(sFilePath, Api.GetFilePath())) {
      const std::vector<ELF_PROGRAM_DATA> Table = Api.GetProgramDataTable();
      return FromSegments(U32(Table.size()), Table.data());
    }
  }
  // Not the open program: read the file here, so that the open program's
  // state in the ELF layer stays as it is.
  QFile f(sFilePath);
  if (!f.open(QIODevice::ReadOnly)) return {};
  QByteArray Data;
  StartProgress(QStringLiteral("Reading File..."), f.size());
  for (;;) {
    const QByteArray Slice = f.read(FILE_SLICE_SIZE);
    Data += Slice;
    SetProgress(Data.size());
    if (Slice.size() < FILE_SLICE_SIZE) break;
  }
  EndProgress();
  CMemBlockList Blocks;
  QString sError;
  if (!ParseElfLoadBlocks(Data, &Blocks, &sError, [](const QString& s) { LogInfo(s); })) {
    LogError(QStringLiteral("Could not open file %1: %2").arg(sFilePath, sError));
    return {};
  }
  return Blocks;
}

CMemBlockList CFileWorker::ReadTextRecordFile(const QString& sFilePath) {
  QFile f(sFilePath);
  if (!f.open(QIODevice::ReadOnly)) return {};
  const TEXT_FORMAT Format =
      QFileInfo(sFilePath).suffix().toLower() == QLatin1String("hex") ? TEXT_FORMAT_IHEX : TEXT_FORMAT_SREC;
  TEXT_READ_HOOKS Hooks;
  Hooks.OnBadRecord = [](qint64) { LogWarning(QStringLiteral("Discarded invalid record in s-record file")); };
  Hooks.OnProgress = [](qint64 Done) { SetProgress(Done); };
  StartProgress(QStringLiteral("Reading File..."), f.size());
  TEXT_READ_RESULT r = ReadTextRecords(f, Format, Hooks);
  EndProgress();
  if (r.BadLine >= 0) {
    QString s = QStringLiteral("Could not open file %1: file contains corrupt data record at line %2").arg(sFilePath).arg(r.BadLine);
    if (!r.sProblem.isEmpty()) s += QStringLiteral(" (") + r.sProblem + QLatin1Char(')');
    LogError(s);
    return {};
  }
  if (r.ReadError) {
    LogError(QStringLiteral("Could not read file %1: %2").arg(sFilePath, f.errorString()));
    return {};
  }
  return r.Blocks;
}

void CFileWorker::Relocate(CMemBlockList& Blocks, U32 BaseAddr) {
  if (Blocks.isEmpty()) return;
  U32 Lowest = Blocks[0].Addr;
  for (const CMemBlock& b : Blocks) Lowest = std::min(Lowest, b.Addr);
  if (BaseAddr == Lowest) return;
  const U32 Delta = BaseAddr - Lowest;
  for (CMemBlock& b : Blocks) b.Addr += Delta;
}

CMemBlockList CFileWorker::FromSegments(U32 Cnt, const ELF_PROGRAM_DATA* paSegments) {
  CMemBlockList Blocks;
  for (U32 i = 0; i < Cnt; ++i) {
    const ELF_PROGRAM_DATA& s = paSegments[i];
    CMemBlock b;
    b.Addr = s.LoadAddr;
    b.VirtAddr = s.RunAddr;
    b.Size = s.Size;
    b.Data = QByteArray::fromRawData(reinterpret_cast<const char*>(s.pData), qsizetype(s.Size));
    Blocks.append(std::move(b));
  }
  return Blocks;
}

int CFileWorker::Save(const QString& sFilePath, const U8* pData, U32 NumBytes) {
  QFile f(sFilePath);
  int r = 0;
  if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
    r = -1;
  } else {
    StartProgress(QStringLiteral("Saving File..."), NumBytes);
    const U32 Chunk = std::min<U32>(NumBytes, U32(FILE_SLICE_SIZE));
    U32 Done = 0;
    while (Done < NumBytes) {
      const U32 n = NumBytes - Done <= Chunk ? NumBytes - Done : Chunk;
      if (f.write(reinterpret_cast<const char*>(pData) + Done, n) != qint64(n)) {
        r = -1;
        break;
      }
      Done += n;
      SetProgress(Done);
    }
    if (r == 0 && !f.flush()) r = -1;
    EndProgress();
    f.close();
    // Only a file of our own goes; a device node stays.
    if (r < 0 && QFileInfo(sFilePath).isFile()) f.remove();
  }
  emit FileSaved(sFilePath, NumBytes);
  return r;
}

}  // namespace VFile
