// The ELF-API wrapper: load and close sequence of the current program.
#include "elf/elfapi.h"
#include "elf/elf_file.h"
#include "log/diag.h"
#include "log/log.h"

#include <QElapsedTimer>
#include <algorithm>
#include <QFile>
#include <QMutexLocker>

namespace {
void LogStage(const char* sText, const QElapsedTimer& Timer) {
  LogInfo(QString::fromLatin1(sText) + LogTimeText(Timer.nsecsElapsed() / 1000));
  CElfApi::ReportLoadStage();
}
} // namespace

void ElfApiDiagHook(const ELF_DIAG* pDiag) {
  if (!pDiag) return;
  if (pDiag->Code == 0) {
    LogMessage(QString::fromUtf8(pDiag->sText), MSG_INFO | MSG_FILE);
    return;
  }
  const int row = DIAG_RowFromElfCode(pDiag->Code);
  if (row < 0) return;
  if (pDiag->Code == 31) // "no call frame information for PC 0x%X"
    ReportDiagnostic(row, (unsigned)pDiag->Value);
  else
    ReportDiagnostic(row, pDiag->asArg[0], pDiag->asArg[1], pDiag->asArg[2], pDiag->asArg[3]);
}

namespace {
CElfApi::STAGES_HOOK s_pfStagesHook = nullptr;
CElfApi::PROGRESS_HOOK s_pfProgressHook = nullptr;
int s_StagesDone = -1;  // -1: no load running
}

void CElfApi::SetDebugStagesHook(STAGES_HOOK pfHook) { s_pfStagesHook = pfHook; }
void CElfApi::SetLoadProgressHook(PROGRESS_HOOK pfHook) { s_pfProgressHook = pfHook; }

void CElfApi::ReportLoadStage() {
  if (s_StagesDone < 0) return;
  s_StagesDone = std::min(s_StagesDone + 1, kLoadStages);
  if (s_pfProgressHook) s_pfProgressHook(s_StagesDone, kLoadStages);
}

namespace {
// Brackets one load for the progress hook, whichever way the load ends.
struct CLoadProgress {
  CLoadProgress() {
    s_StagesDone = 0;
    if (s_pfProgressHook) s_pfProgressHook(0, CElfApi::kLoadStages);
  }
  ~CLoadProgress() {
    s_StagesDone = -1;
    if (s_pfProgressHook) s_pfProgressHook(-1, CElfApi::kLoadStages);
  }
};
}  // namespace

CElfApi& CElfApi::Instance() {
  static CElfApi s_Api;
  return s_Api;
}

int CElfApi::Load(const QString& sFilePath) {
  QMutexLocker lock(&m_Mutex);
  QElapsedTimer timer;
  timer.start();
  const CLoadProgress Progress;
  // Stage 0: the previous program goes, the new one is opened with its debug
  // information.
  Close();
  m_Loading = true;
  ELF_SetDiagHook(ElfApiDiagHook);
  DIAG_NewEpoch();
  const QByteArray path = QFile::encodeName(sFilePath);
  m_pFile = ELF_Open(path.constData(), true);
  if (!m_pFile) {
    m_Loading = false;
    return -1;
  }
  // Stage 2: path and source language.
  m_sPath = sFilePath;
  m_SourceLanguage = m_pFile->sourceLanguage;
  // Stage 3: program data segments.
  BuildProgramData();
  LogStage("Program data segments initialized in: ", timer);
  // Stages 4-19 in the debug reader.
  int functionCount = ELF_GetNumFunctionSymbols(m_pFile), globalCount = 0;
  if (s_pfStagesHook) s_pfStagesHook(m_pFile, &timer, &functionCount, &globalCount);

  m_Loading = false;
  m_Loaded = true;
  LogStage("ELF-API wrapper initialized in ", timer);
  LogInfo(QStringLiteral("Function count: %1").arg(functionCount));
  LogInfo(QStringLiteral("Global variable count: %1").arg(globalCount));
  return 0;
}

void CElfApi::Close() {
  QMutexLocker lock(&m_Mutex);
  if (!m_pFile) return;
  m_Loading = true;
  QElapsedTimer timer;
  timer.start();
  if (s_pfStagesHook) s_pfStagesHook(nullptr, nullptr, nullptr, nullptr);
  ELF_Close(m_pFile);
  const qint64 tClose = timer.nsecsElapsed() / 1000;
  m_pFile = nullptr;
  m_Loaded = false;
  m_sPath.clear();
  ResetTables();
  const qint64 tAll = timer.nsecsElapsed() / 1000;
  LogInfo(QStringLiteral("ELF_Close() after ms: ") + LogTimeText(tClose));
  LogInfo(QStringLiteral("ELF-API Wrapper deinitialized after ms: ") + LogTimeText(tAll));
  m_Loading = false;
}

void CElfApi::ResetTables() {
  m_SourceLanguage = 1;
  m_NumRowsLeftOut = 0;
  m_ProgramData.clear();
  m_ProgramTable.clear();
  m_LowRun = m_LowLoad = 0xFFFFFFFF;
  m_HighRun = m_HighLoad = 0;
}

void CElfApi::BuildProgramData() {
  m_ProgramData.clear();
  m_ProgramTable.clear();
  m_LowRun = m_LowLoad = 0xFFFFFFFF;
  m_HighRun = m_HighLoad = 0;
  const int n = ELF_GetProgramData(m_pFile, nullptr, 0);
  if (n <= 0) return;
  std::vector<ELF_PROGRAM_DATA> blocks((size_t)n);
  ELF_GetProgramData(m_pFile, blocks.data(), n);
  for (const ELF_PROGRAM_DATA& b : blocks) {
    CProgramDataSegment s;
    s.LoadAddr = b.LoadAddr;
    s.RunAddr = b.RunAddr;
    s.Data = QByteArray(reinterpret_cast<const char*>(b.pData), (qsizetype)b.Size);
    m_ProgramData.append(s);
    m_LowRun = qMin(m_LowRun, b.RunAddr);
    m_LowLoad = qMin(m_LowLoad, b.LoadAddr);
    m_HighRun = qMax<U64>(m_HighRun, qMin<U64>((U64)b.RunAddr + b.Size, 0xFFFFFFFF));
    m_HighLoad = qMax<U64>(m_HighLoad, qMin<U64>((U64)b.LoadAddr + b.Size, 0xFFFFFFFF));
  }
  for (const CProgramDataSegment& s : m_ProgramData)
    m_ProgramTable.push_back({s.LoadAddr, s.RunAddr, (U32)s.Data.size(), reinterpret_cast<const U8*>(s.Data.constData())});
}

QList<CProgramDataSegment> CElfApi::GetProgramDataSegments() {
  QMutexLocker lock(&m_Mutex);
  return m_ProgramData;
}

std::vector<ELF_PROGRAM_DATA> CElfApi::GetProgramDataTable() {
  QMutexLocker lock(&m_Mutex);
  return m_ProgramTable;
}

const U8* CElfApi::GetProgramData(U32 Addr, U32 Size) {
  QMutexLocker lock(&m_Mutex);
  for (const ELF_PROGRAM_DATA& b : m_ProgramTable)
    if (b.RunAddr <= Addr && (U64)Addr + Size <= (U64)b.RunAddr + b.Size) return b.pData + (Addr - b.RunAddr);
  return nullptr;
}

int CElfApi::GetEndian() {
  QMutexLocker lock(&m_Mutex);
  return m_pFile ? ELF_GetEndian(m_pFile) : 2;
}

U32 CElfApi::GetEntryPoint() {
  QMutexLocker lock(&m_Mutex);
  return m_pFile ? ELF_GetEntryPoint(m_pFile) : 0xFFFFFFFF;
}

U32 CElfApi::GetBaseAddr() {
  QMutexLocker lock(&m_Mutex);
  return m_Loaded && !m_ProgramData.isEmpty() ? m_LowLoad : 0xFFFFFFFF;
}

U32 CElfApi::GetEntryPointPC() { return GetEntryPoint(); }

U32 CElfApi::GetEntryFuncPC() {
  // The entry function is decided from the debug information; without it the
  // entry point stands for it.
  return GetEntryPoint();
}

int CElfApi::GetEndianess() {
  QMutexLocker lock(&m_Mutex);
  if (!m_Loaded) return -1;
  const int e = ELF_GetEndian(m_pFile);
  return e == 2 ? -1 : e;
}
