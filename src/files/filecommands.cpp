#include "files/filecommands.h"

#include "commands/actionids.h"
#include "commands/actions.h"
#include "device/datamanager.h"
#include "device/device.h"
#include "elf/elfapi.h"
#include "files/filetypes.h"
#include "files/fileworker.h"
#include "log/log.h"
#include "log/messagebox.h"

#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>

namespace {

QString s_sPendingFile;
I64 s_PendingBase = -1;
QString s_sLastDir;

QString Unquote(QString s) {
  s = s.trimmed();
  if (s.size() >= 2 && s.startsWith('"') && s.endsWith('"')) s = s.mid(1, s.size() - 2);
  return s;
}

bool ArgU32(const QString& s, U32* pOut) {
  bool Ok = false;
  const U64 v = s.trimmed().toULongLong(&Ok, 0);
  if (!Ok || v > 0xFFFFFFFFull) return false;
  *pOut = U32(v);
  return true;
}

QString ExpandPath(const QString& sPath) {
  QString s = Unquote(sPath);
  if (s.startsWith(QLatin1String("~/"))) s = QDir::homePath() + s.mid(1);
  return s.isEmpty() ? s : QDir::cleanPath(QFileInfo(s).absoluteFilePath());
}

int Fail(int Id, const QString& sWord, const QString& sDetail = QString()) {
  SetActionError(Id, sWord, sDetail);
  SetActionResult(Id, -1);
  return -1;
}

bool IsConnected() {
  CDevice* d = CDevice::InstanceIfCreated();
  return d && d->IsConnected();
}

bool IsProgramFile(const QString& sPath) {
  CElfApi& Api = CElfApi::Instance();
  if (!Api.IsLoaded()) return false;
  const QString a = QFileInfo(sPath).canonicalFilePath();
  return !a.isEmpty() && a == QFileInfo(Api.GetFilePath()).canonicalFilePath();
}

// ---- File.Load

void OnFileLoad(int Id) {
  if (!CheckArgCount(Id, 0)) return;
  const QStringList a = GetActionArgs(Id);
  QString sPath = ExpandPath(a.value(0));
  if (sPath.isEmpty() && !CMessageBox::IsBatchMode()) {
    sPath = QFileDialog::getOpenFileName(nullptr, QStringLiteral("Load File"), s_sLastDir, VFile::DataFilesFilter());
    if (sPath.isEmpty()) return (void)SetActionResult(Id, -1);
  }
  if (sPath.isEmpty() || !QFileInfo(sPath).isFile()) return (void)Fail(Id, QStringLiteral("file not found"), sPath);
  s_sLastDir = QFileInfo(sPath).absolutePath();
  U32 Addr = 0;
  const bool HaveAddr = ArgU32(a.value(1), &Addr);
  const QString sSuffix = QFileInfo(sPath).suffix().toLower();
  if (sSuffix == QLatin1String("bin") && !HaveAddr) return (void)Fail(Id, QStringLiteral("Invalid Address Parameter"));
  const I64 Base = VFile::IsInFileGroup(sPath, VFile::FG_PROGRAM) || !HaveAddr ? -1 : I64(Addr);
  s_sPendingFile = sPath;
  s_PendingBase = Base;
  if (!IsConnected()) return (void)SetActionResult(Id, 0);
  FilesModule::DownloadDataFile(Id, sPath, Base, 0);
}

// ---- Target.LoadMemory

void OnTargetLoadMemory(int Id) {
  if (!CheckArgCount(Id)) return;
  if (!IsConnected()) return (void)Fail(Id, QStringLiteral("not connected"));
  const QStringList a = GetActionArgs(Id);
  const QString sPath = ExpandPath(a.value(0));
  if (sPath.isEmpty() || !QFileInfo(sPath).isFile()) return (void)Fail(Id, QStringLiteral("file not found"), sPath);
  U32 Addr = 0;
  if (!ArgU32(a.value(1), &Addr)) return (void)Fail(Id, QStringLiteral("invalid parameter"));
  FilesModule::DownloadDataFile(Id, sPath, Addr, 2);
}

// ---- Target.SaveMemory: the read is asynchronous; the file is written when
// its report arrives.

struct SAVE_REQUEST {
  int Id = -1;
  QString sPath;
  U32 Addr = 0, Size = 0;
};

class CSaveMemoryReader : public CDeviceEventListener {
 public:
  SAVE_REQUEST m_Req;
  VFile::CFileWorker m_Worker;

  void OnDeviceReadMemDone(U32 Addr, U32 nBytes, const char*, U8* paData, U8* paStatus) override {
    if (m_Req.Id < 0 || Addr != m_Req.Addr || nBytes != m_Req.Size) return;
    const SAVE_REQUEST r = std::exchange(m_Req, SAVE_REQUEST());
    U32 Bad = 0;
    for (U32 i = 0; i < nBytes; ++i) Bad += paStatus[i] != 0;
    if (Bad) return (void)Unreadable(r, Bad);
    if (m_Worker.Save(r.sPath, paData, nBytes) < 0)
      return (void)Fail(r.Id, QStringLiteral("could not write file"), r.sPath);
    SetActionResult(r.Id, 0);
  }
  void OnDeviceReadMemFailed(U32 Addr, U32 nBytes, const char*) override {
    if (m_Req.Id < 0 || Addr != m_Req.Addr || nBytes != m_Req.Size) return;
    Unreadable(std::exchange(m_Req, SAVE_REQUEST()), nBytes);
  }

 private:
  static void Unreadable(const SAVE_REQUEST& r, U32 Bad) {
    const QString s = QStringLiteral("Target memory readout of %1 bytes @ 0x%2 failed (%3 bytes unreadable); %4 not written.")
                          .arg(r.Size).arg(r.Addr, 8, 16, QLatin1Char('0')).arg(Bad).arg(r.sPath);
    LogError(s);
    Fail(r.Id, QStringLiteral("cannot read target memory"), s);
  }
};

CSaveMemoryReader* s_pSaver = nullptr;

void OnTargetSaveMemory(int Id) {
  if (!CheckArgCount(Id)) return;
  if (!IsConnected()) return (void)Fail(Id, QStringLiteral("not connected"));
  const QStringList a = GetActionArgs(Id);
  const QString sPath = ExpandPath(a.value(0));
  if (sPath.isEmpty() || QFileInfo(sPath).isDir()) return (void)Fail(Id, QStringLiteral("invalid filename"), sPath);
  if (!QFileInfo::exists(sPath)) {
    QFile Probe(sPath);
    if (!Probe.open(QIODevice::WriteOnly)) return (void)Fail(Id, QStringLiteral("invalid filename"), sPath);
    Probe.close();
    Probe.remove();
  }
  U32 Addr = 0, Size = 0;
  if (!ArgU32(a.value(1), &Addr) || !ArgU32(a.value(2), &Size) || Size == 0 || Size > 0x10000000u ||
      U64(Addr) + Size > 0x100000000ull)
    return (void)Fail(Id, QStringLiteral("invalid parameter"));
  CDevice* d = Device();
  if (!d->CanAccessMemory())
    return (void)Fail(Id, QStringLiteral("cannot access target memory: target not halted and background memory access not supported"));
  // The read of a memory window: through the data cache, which answers at
  // once for what it holds and reads the rest.
  s_pSaver->m_Req = {Id, sPath, Addr, Size};
  CDeviceDataManager::Instance().CancelRequests(s_pSaver);
  const int r = CDeviceDataManager::Instance().ReadMemAsync(s_pSaver, Addr, Size, nullptr, 0x10000, AW_ANY,
                                                            MEM_FLAG_ITEM_RETRY);
  if (r == 1 && s_pSaver->m_Req.Id == Id) {
    s_pSaver->m_Req = SAVE_REQUEST();
    return (void)Fail(Id, QStringLiteral("cannot read target memory"));
  }
  // Other reads may be queued before this one; the report may also still be
  // on its way once the job is done.
  while (s_pSaver->m_Req.Id == Id && d->IsJobPending(JT_READ_MEM)) d->WaitAndDeliver(JT_READ_MEM, true);
  if (s_pSaver->m_Req.Id == Id) d->WaitIdle(30000);
  // A read dropped by a resume or a lost connection never reports.
  if (s_pSaver->m_Req.Id == Id) {
    s_pSaver->m_Req = SAVE_REQUEST();
    Fail(Id, QStringLiteral("cannot read target memory"), QStringLiteral("the read was cancelled"));
  }
}

}  // namespace

int FilesModule::DownloadDataFile(int Id, const QString& sFilePath, I64 BaseAddr, int Mode) {
  if (!IsConnected()) return Fail(Id, QStringLiteral("not connected"));
  if (sFilePath.isEmpty()) return Fail(Id, QStringLiteral("file not found"));
  VFile::CFileWorker Worker;
  CMemBlockList Blocks;
  std::vector<ELF_PROGRAM_DATA> Table;
  if (IsProgramFile(sFilePath) && BaseAddr == -1) {
    // The program's own image: its segments, without a second read.
    Table = CElfApi::Instance().GetProgramDataTable();
    Blocks = VFile::CFileWorker::FromSegments(U32(Table.size()), Table.data());
  } else {
    Blocks = Worker.Read(sFilePath, BaseAddr);
  }
  s_sPendingFile.clear();
  s_PendingBase = -1;
  std::vector<U32> Ranges;
  QByteArray Data;
  for (const CMemBlock& b : Blocks) {
    if (b.Data.isEmpty()) continue;
    if (U64(b.Addr) + U64(b.Data.size()) > 0x100000000ull)
      return Fail(Id, QStringLiteral("invalid parameter"), QStringLiteral("data relocated past the end of the address space"));
    Ranges.push_back(b.Addr);
    Ranges.push_back(b.Addr + U32(b.Data.size()));
    Data += b.Data;
  }
  if (Ranges.empty()) return Fail(Id, QStringLiteral("no data loaded"), sFilePath);
  CDevice* d = Device();
  const U32 Flags = MEM_FLAG_BEGIN_DOWNLOAD | (d->Info().aCaps[0] == 1 ? 0 : MEM_FLAG_HALT_AROUND);
  int r = d->PostWriteMemMultiple(U32(Ranges.size() / 2), Ranges.data(), U32(Data.size()),
                                  reinterpret_cast<const U8*>(Data.constData()), d->DownloadChunkSize(), AW_ANY, Flags);
  if (r == 0) r = d->PostEndDownload(sFilePath.toUtf8().constData(), Mode);
  if (r < 0) return Fail(Id, QStringLiteral("job not scheduled"));
  d->WaitAndDeliver(JT_END_DOWNLOAD, true);
  const int Err = d->LastDownloadError();
  if (Err < 0) {
    SetActionError(Id, QStringLiteral("download failed"), QString::number(Err));
    SetActionResult(Id, Err);
    return -1;
  }
  SetActionResult(Id, 0);
  return 0;
}

QString FilesModule::PendingDataFile(I64* pBaseAddr) {
  if (pBaseAddr) *pBaseAddr = s_PendingBase;
  return s_sPendingFile;
}

void FilesModule::Install() {
  static bool s_Done = false;
  if (s_Done) return;
  s_Done = true;
  s_pSaver = new CSaveMemoryReader;
  SetCommandSlot(AID_FILE_LOAD, OnFileLoad);
  SetCommandSlot(AID_TARGET_LOAD_MEMORY, OnTargetLoadMemory);
  SetCommandSlot(AID_TARGET_SAVE_MEMORY, OnTargetSaveMemory);
}
