// The ELF-API wrapper: keeps the one current program, runs the stages of its
// load sequence and answers for it under one recursive mutex. All addresses
// in its interface are relocated target addresses.
#pragma once
#include "common/types.h"
#include "elf/elf.h"

#include <QByteArray>
#include <QList>
#include <QRecursiveMutex>
#include <QString>
#include <vector>

// One contiguous block of program data for download and for the comparison
// with target memory: load (physical) address, run (virtual) address, bytes.
struct CProgramDataSegment {
  U32 LoadAddr = 0;
  U32 RunAddr = 0;
  QByteArray Data;
};

class QElapsedTimer;

class CElfApi {
public:
  static CElfApi& Instance();

  // Load stages 4-19 (address mapping, debug lists, symbol table, function
  // list, interval trees, call frame table, the terminal's control block)
  // belong to the debug reader above this layer, which installs itself here. Called under the mutex at the end of a load with the timer
  // of the load (it fills the sizes of the function and global variable
  // lists), and with a null file when the program closes.
  typedef void (*STAGES_HOOK)(ELF_FILE* pFile, const QElapsedTimer* pTimer, int* pFunctionCount, int* pGlobalCount);
  static void SetDebugStagesHook(STAGES_HOOK pfHook);

  // Progress of a load, for a status bar: (0, n) when it begins, (k, n)
  // after each of its n stages, (-1, n) when it ended. The hook runs on the
  // loading thread, under the mutex; it must not touch the program.
  static constexpr int kLoadStages = 17;
  typedef void (*PROGRESS_HOOK)(int Done, int Total);
  static void SetLoadProgressHook(PROGRESS_HOOK pfHook);
  // Counts one stage of the running load (the debug reader's stages too).
  static void ReportLoadStage();

  // Closes the previous program, opens sFilePath and runs the load stages.
  // 0 on success, -1 on failure (reported through the diagnostic catalogue).
  int Load(const QString& sFilePath);
  void Close();

  bool IsLoaded() const { return m_Loaded; }
  bool IsLoading() const { return m_Loading; }
  QRecursiveMutex& Mutex() { return m_Mutex; }
  ELF_FILE* GetFile() const { return m_pFile; }
  QString GetFilePath() const { return m_sPath; }
  U32 GetSourceLanguage() const { return m_SourceLanguage; }

  // Program data (stage 3). The plain table holds (load, run, size, data)
  // with data pointing into the segments' bytes, for the memory layer.
  QList<CProgramDataSegment> GetProgramDataSegments();
  std::vector<ELF_PROGRAM_DATA> GetProgramDataTable();
  // Bytes of the segment whose run addresses hold [Addr, Addr + Size); null
  // otherwise. Valid until the program is closed.
  const U8* GetProgramData(U32 Addr, U32 Size);
  // Span of the program data: lowest and highest (exclusive) run and load
  // address; 0xFFFFFFFF and 0 without program data.
  U32 GetLowestRunAddr() const { return m_LowRun; }
  U32 GetHighestRunAddr() const { return m_HighRun; }
  U32 GetLowestLoadAddr() const { return m_LowLoad; }
  U32 GetHighestLoadAddr() const { return m_HighLoad; }

  // Header queries: byte order 0 little, 1 big, 2 without a program.
  int GetEndian();
  U32 GetEntryPoint(); // aligned, relocated; 0xFFFFFFFF without a program

  // The Elf.* commands.
  U32 GetBaseAddr();     // lowest load address of the program data, 0xFFFFFFFF if none
  U32 GetEntryPointPC(); // e_entry without the instruction-set bit, relocated
  U32 GetEntryFuncPC();  // start of the entry function (the entry point until debug info exists)
  int GetEndianess();    // 0 little, 1 big, -1 without a program

private:
  CElfApi() = default;
  void BuildProgramData();
  void ResetTables();

  QRecursiveMutex m_Mutex;
  ELF_FILE* m_pFile = nullptr;
  bool m_Loading = false;
  bool m_Loaded = false;
  int m_NumRowsLeftOut = 0;
  QString m_sPath;
  U32 m_SourceLanguage = 1;
  QList<CProgramDataSegment> m_ProgramData;
  std::vector<ELF_PROGRAM_DATA> m_ProgramTable;
  U32 m_LowRun = 0xFFFFFFFF, m_HighRun = 0, m_LowLoad = 0xFFFFFFFF, m_HighLoad = 0;
};

// The hook that the wrapper installs into the ELF API at load: hands reports
// to the diagnostic catalogue, plain lines to the log.
void ElfApiDiagHook(const ELF_DIAG* pDiag);
