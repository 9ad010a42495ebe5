// CDevice: the one object through which the program reaches the debug probe.
// It is a worker thread with three job rings (control, reads, slow jobs) and a
// notification ring for reports that belong to no queued job. Callers fill a
// DEVICE_JOB and schedule it; the worker runs it against the probe and posts
// the report as a device event (device/events.h).
#pragma once
#include "common/types.h"
#include "device/bptypes.h"
#include "device/devconfig.h"
#include "device/job.h"
#include "device/listener.h"
#include "device/probe_funcs.h"
#include "device/runstate.h"

#include <QString>
#include <QThread>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

constexpr U32 DEVICE_RING_SIZE = 10000;
constexpr U32 DEVICE_NUM_QUEUES = 3;
constexpr U32 QUEUE_SEL_CLASS_OF_TYPE = 3, QUEUE_SEL_ALL = 4;

// Memory access flags.
constexpr U32 MEM_FLAG_ITEM_RETRY = 8, MEM_FLAG_HALT_AROUND = 16, MEM_FLAG_DOWNLOAD = 32;
// A program download: the write opens the download bracket, and the
// JT_END_DOWNLOAD job that follows closes it.
constexpr U32 MEM_FLAG_BEGIN_DOWNLOAD = 64;
enum AW : I8 { AW_ANY = 0, AW_BYTE = 1, AW_HALF_WORD = 2, AW_WORD = 4 };

struct DEVICE_COUNTERS {
  U64 NextJobID, Started, Cancelled, Recycled, EventsPosted;
};

class CDevice : public QThread {
 public:
  // The process-wide device; created on first use with the probe library of
  // the install tree. Null after Destroy.
  static CDevice* Instance();
  static CDevice* InstanceIfCreated();
  // Creates the device over a given probe table (tests), replacing any other.
  static CDevice* CreateWithProbe(const VORDEN_FUNCS& Funcs, const QString& sLibPath = QString());
  static void Destroy();

  ~CDevice() override;

  // ---- scheduling (any thread)
  // Copies the template into the ring of its class. 0, or -1 (type out of
  // range, missing parameter, queue full); the parameters belong to the ring
  // either way. *pQueue/*pSlot name where it went.
  int ScheduleJob(DEVICE_JOB* pTemplate, U32* pQueue = nullptr, U32* pSlot = nullptr);
  bool IsValidJob(const DEVICE_JOB* pJob) const;
  bool IsJobPending(U32 Type) const;
  void CancelJobs(U32 Type, U32 Selector);
  void RecycleJob(DEVICE_JOB* pJob);
  void SetMute(U32 Type, bool On) { m_abMute[Type < JT_LAST ? Type : 0].store(On ? 1 : 0); }
  bool IsMuted(U32 Type) const { return Type < JT_LAST && m_abMute[Type].load() != 0; }
  // A report that belongs to no queued job, through the notification ring.
  int PostJobEvent(U32 Type, U32 Status, U64 Arg0, I64 Result, U64 Out0);
  DEVICE_COUNTERS Counters() const;

  // ---- waiting (GUI thread)
  U64 WaitForJob(U32 Queue, U32 Slot, bool DoProcessEvents, int TimeoutMS);
  U64 WaitForJobOfType(U32 Type, bool DoProcessEvents, int TimeoutMS);
  U64 WaitAndDeliver(U32 Type, bool DoProcessEvents);
  // Waits until no job is pending and every report is delivered; 0, or -1
  // after TimeoutMS or with the worker gone.
  int WaitIdle(int TimeoutMS);

  // ---- job posters
  int PostConnect(CONNECT_MODES Mode);
  int PostDisconnect();
  int PostHalt();
  int PostContinue();
  int PostStepInst();
  // JT_STEP_INST, JT_STEP_INTO, JT_STEP_OVER or JT_STEP_OUT; -1 for another type.
  int PostStep(U32 Type);
  // JT_RUN_TO: Arg0 the address.
  int PostRunTo(U32 Addr);
  // JT_RESET: Arg0 the mode (RM_RESET_HARDWARE_ONLY: the hardware reset alone).
  int PostReset(RESET_MODES Mode = RM_RESET_HALT);
  int PostConfigure(const char* sXml);
  int PostSetConfigParam(DEV_CONFIG_PARAMS Param, int Value);
  int PostSetConfigParam(DEV_CONFIG_PARAMS Param, const char* sValue);
  int PostExecVordenCmd(const char* sCmd);
  int PostGetDeviceInfo();
  int PostReadMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const char* sZone);
  int PostWriteMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const U8* paData);
  int PostWriteMemMultiple(U32 Cnt, const U32* paAddrRanges, U32 NumBytes, const U8* paData, U32 ChunkSize,
                           I8 AccessWidth, U32 Flags);
  int PostEndDownload(const char* sFilePath, int Mode);
  // A program download: the blocks written in one job that opens the download
  // bracket, then the job that closes it with the file's name and mode.
  int PostDownload(const std::vector<struct DEV_LOAD_BLOCK>& Blocks, const char* sFilePath, int Mode);
  int PostReadReg(U32 Idx);
  int PostWriteReg(U32 Idx, U64 Value);
  int PostReadRegs(U32 Cnt, const U32* paIdx);
  int PostReadLocs(U32 Cnt, const ELF_SYM_LOC* paLocs, U64 Context);
  // Breakpoint jobs. JT_SET_BP: Arg0 Addr, Arg1 State, Arg2 Type. JT_SET_BPS:
  // Arg0 Cnt, Arg1 State, Arg2 Type, parameter 0 the U32 addresses.
  // JT_CLEAR_BP: Arg0 Addr. JT_CLEAR_BPS: Arg0 Cnt, parameter 0 the addresses.
  // JT_CLEAR_ALL_BPS: Arg1 0 clears all; Arg1 1 clears those in State Arg0.
  // JT_SET_WPS / JT_CLEAR_WPS: Arg0 Cnt, parameter 0 the WP records (State and
  // ErrCode are written back into it for the report). JT_SET_TPS /
  // JT_CLEAR_TPS: Arg0 Cnt, parameter 0 the TP records.
  int PostSetBP(U32 Addr, BP_STATES State, BP_TYPES Type);
  int PostSetBPs(U32 Cnt, const U32* paAddrs, BP_STATES State, BP_TYPES Type);
  int PostClearBP(U32 Addr);
  int PostClearBPs(U32 Cnt, const U32* paAddrs);
  int PostClearAllBPs();
  int PostClearAllBPs(BP_STATES State);
  int PostResetBPs();
  int PostSetWPs(U32 Cnt, const WP* paWPs);
  int PostClearWPs(U32 Cnt, const WP* paWPs);
  int PostClearAllWPs();
  int PostSetTPs(U32 Cnt, const TP* paTPs);
  int PostClearTPs(U32 Cnt, const TP* paTPs);
  int PostClearAllTPs();

  // ---- configuration and connection (worker; devconfig.cpp, connect.cpp)
  CDeviceConfig& Config() { return m_Config; }
  const CDeviceConfig& Config() const { return m_Config; }
  int Configure(const char* sXmlConfigStr);
  int SetConfigParam(DEV_CONFIG_PARAMS Param, int Value);
  int SetConfigParam(DEV_CONFIG_PARAMS Param, const char* sValue);
  int Connect(CONNECT_MODES Mode);
  int ConnectSimple();
  int FinishConnect(CONNECT_MODES Mode);
  int Disconnect();
  int SelectHostIF();
  int ExecVordenCmd(const char* sVordenCmd, U32 Len, char* acOut, U8 LogMsg);
  int ExecVordenScript(const char* sFilePath);
  int SetSuppressDeviceSelectionDialog(bool Enabled);
  int UpdateDeviceInfo();
  int UpdateSupportedCoresList();
  void UpdateVordenFuncPtrs();
  void UpdateVordenWebserverURL();
  void UpdateMemZones();
  void UpdateTIFSpeed();
  void UpdateEndianess();
  void ApplyDataEndianess(int Endian);
  void UpdateHWCapabilityFlags();
  void ResetHWCapabilityFlags();
  int ReadBMACapability();
  bool ReadSWOTraceCapability();
  bool ReadStreamingTraceCapability();
  bool TurnOnTargetPower();
  bool TurnOffTargetPower();
  void SetErrorMsg(int Slot, const char* sErrorMsg);
  QString ErrorMsg(int Slot) const;
  DEVICE_INFO_FIELDS Info() const;
  QString LibVersionText() const;
  std::vector<U32> SupportedCores() const;
  const QString& LibPath() const { return m_sLibPath; }

  // ---- memory and registers (memory.cpp)
  int ValidateMemoryAccessParams(bool IsRead, U32 Addr, U32 nBytes, const U8* paData, const U8* paStatus);
  bool CanAccessMemory() const;
  int ReadMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const char* sZone, U8* paData,
              U8* paStatus);
  int ReadMemSimple(U32 Addr, U32 nBytes, I8 AccessWidth, U32 Flags, const char* sZone, U8* paData, U8* paStatus);
  int ReadMemItemWise(U32 Addr, U32 nBytes, I8 AccessWidth, U32 Flags, const char* sZone, U8* pData,
                      U8* paStatus);
  int ReadMemChunkWise(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const char* sZone,
                       U8* pData, U8* paStatus);
  int WriteMem(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const char* sZone,
               const U8* paData);
  int WriteMemSimple(U32 Addr, U32 nBytes, I8 AccessWidth, const char* sZone, const U8* paData);
  int WriteMemItemWise(U32 Addr, U32 nBytes, I8 AccessWidth, const char* sZone, const U8* pData);
  int WriteMemChunkWise(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AccessWidth, U32 Flags, const char* sZone,
                        const U8* paData);
  int WriteMemMultiple(U32 Cnt, const U32* paAddrRanges, U32 NumBytes, const U8* paData, U32 ChunkSize,
                       I8 AccessWidth, U32 Flags, const char* sZone);
  int ReadWord(U32 Addr, U32* pOutWord);
  int ReadHalfWord(U32 Addr, U16* pOutHW);
  int ReadByte(U32 Addr, U8* pOutByte);
  int ReadInt(U32 Addr, U8 Size, U32* pOutData);
  int ReadLocs(U32 Cnt, const ELF_SYM_LOC* paDataLocs, U64* paOutVals, U8* pOutStatus);
  int ReadReg(U32 VordenRegIdx, U64* pOutRegVal);
  int WriteReg(U32 VordenRegIdx, U64 RegValue);
  int ReadRegs(U32 Cnt, const U32* paVordenRegIdxs, U64* paOutRegVals, U8* pOutRegStatus);
  int ReadCPReg(const char* sReg, U64* pOutValue);
  int WriteCPReg(const char* sReg, U64 Value);
  int HaltBeforeMemoryIO();
  int ResumeAfterMemoryIO();
  int BeginDownload();
  int EndDownload(bool DoHalt = false);
  int LastDownloadError() const { return m_LastDownloadError.load(); }
  // Chunk size of a download at the configured interface speed.
  U32 DownloadChunkSize() const;

  // ---- run control (worker; runcontrol.cpp). -1 after the logged message.
  int Continue();
  int Halt();
  int Reset(RESET_MODES Mode);
  int ResetHardware();
  // Runs to Addr through the hidden breakpoint (or a user breakpoint there);
  // 1 when the target was resumed, -1 when it could not be.
  int RunTo(U64 Addr);
  int StepInstBasic();
  int StepInst();
  // Worker: asks the probe (at most every 51 ms); other threads read Halted.
  bool IsTargetHaltedNow();
  // -2 no answer yet (too soon), -1 invalid, 0 running, 1 halted.
  int PollTargetHaltStatus(U32 MinQueryIntervalMS);
  int SetTargetExecState(U64 PC, U64 SP);
  void ResetTargetExecState();
  void CheckHandleResume(int TargetHaltState);
  void CheckHandleNotifications();
  void OnHalted();
  void OnStepped();
  void OnDeviceBPConditionEvaluated(U64 PC, bool CondMet);
  bool TestConnectionLost();
  bool IsHaltedAtBreakpoint(U64 PC);
  int CompleteSrcStepAndContHaltSeq(U32 PC);
  int EvalBPCondAndContinueHaltSeq(U32 PC);
  void HandleUnconditionalHalt();
  int FinishReset(RESET_MODES ResetMode);
  // Connected, halted, no hidden breakpoint in force; logs why not.
  bool CanStep();
  // 0: not a semihosting stop; non-zero: the stop was a request and is handled.
  int CheckHandleSemihostingIRQ(U32 PC, int Mode);
  // User interface thread: HaltReported within 100 ms (polled each ms).
  bool WaitForHalt();
  // User interface thread, with event processing: no JT_CONNECT pending and
  // halts reported, or the worker ended; false after TimeoutMS.
  bool WaitForConnect(int TimeoutMS = 120000);

  // ---- source stepping (worker; srcstep.cpp). 1 running towards a hidden
  // breakpoint, 0 finished, -1 could not step.
  int StepInto();
  int StepIntoSimple();
  int StepOver(U8 DoStoreContext);
  // 0 complete, 1 a function was entered, 2 circular sequence, 3 count used up, -1 failed.
  int StepOverSimple(int MaxSingleSteps);
  int StepOut();
  int StepOutSimple();
  int CompleteSrcStepOnHiddenBP(U32 PC);
  // The step's start (PC, SP, return address, line, functions), history emptied.
  void StoreContext();
  // The first address of the next line, when the rest of the line at PC can
  // be passed by running there; 0 if not.
  U64 FindStepOverTarget(U64 PC, const CSrcLoc& Loc);

  // ---- notification words (any thread writes one; the worker takes it in
  // its next round). ~0 = empty.
  void SetConditionWord(U64 PcAndMet) { m_CondWord.store(PcAndMet); Wake(); }
  void SetConnectWord(U64 Mode) { m_ConnectWord.store(Mode); Wake(); }
  void SetResetWord(U64 Mode) { m_ResetWord.store(Mode); Wake(); }
  // Halt reports go to listeners only while this is set (off during download
  // and the start of a session).
  void SetReportHalts(bool On);
  bool ReportHalts() const { return m_bReportHalts.load(); }
  // A copy of the execution state (any thread).
  DEVICE_EXEC_STATE ExecState() const;
  // The unwinder's return address of frame 0 for the current halt (any thread).
  void SetReturnAddr(U64 Addr);
  U32 LastResetMode() const { return m_LastResetMode.load(); }
  U32 PendingOp() const { return m_PendingOp.load(); }

  // ---- breakpoint tables (written on the worker, breakpoints.cpp; the GUI
  // thread reads them without a lock and reads again on each change report)
  int SetBreakpoint(U32 Addr, BP_STATES State, BP_TYPES Type);
  int SetBreakpoints(U32 Cnt, const U32* paAddrs, BP_STATES State, BP_TYPES Type);
  int ClearBreakpoint(U32 Addr);
  int ClearBreakpoints(U32 Cnt, const U32* paAddrs);
  int ClearAllBreakpoints();
  int ClearAllBreakpoints(BP_STATES State);
  int ResetBreakpoints();
  int BpListGetInsertPos() const;
  int BpListInsert(U32 Addr, BP_STATES State, BP_TYPES Type);
  int BpListRemove(int Idx);
  bool BpListOccupied(int Idx) const;
  int BpListFind(U32 Addr) const;
  int ClearBreakpointsBeforeFlashDL();
  int RestoreBreakpointsAfterFlashDL();
  void UpdateBPImplTypes();
  int SetWatchpoint(WP Wp);
  int SetWatchpoints(U32 Cnt, WP* paWPs);
  int ClearWatchpoint(WP Wp);
  int ClearWatchpoints(U32 Cnt, WP* paWPs);
  int ClearAllWatchpoints();
  int ClearAllWatchpoints(BP_STATES State);
  int WpListGetInsertPos() const;
  int WpListInsert(const WP& Wp);
  int WpListFind(const WP& Wp) const;
  int WpListRemove(int Idx);
  bool WpListOccupied(int Idx) const;
  int SetTracepoint(TP Tp);
  int SetTracepoints(U32 Cnt, TP* paTps);
  int ClearTracepoint(TP Tp);
  int ClearTracepoints(U32 Cnt, TP* paTps);
  int ClearAllTracepoints();
  int UpdateTraceEventsVorden();
  int TpListGetInsertPos() const;
  int TpListInsert(const TP& Tp);
  int TpListFind(U64 Addr) const;
  int TpListRemove(int Idx);
  bool TpListOccupied(int Idx) const;
  // Readers (any thread).
  int BpCount() const { return m_NumBPs.load(); }
  const DEVICE_BP& BpEntry(int Idx) const { return m_aBP[Idx < 0 || Idx >= DEVICE_MAX_BPS ? 0 : Idx]; }
  // The entry at Addr; the made-up hidden entry; else all zeros.
  DEVICE_BP GetBreakpoint(U32 Addr) const;
  int WpCount() const { return m_NumWPs.load(); }
  int TpCount() const { return m_NumTPs.load(); }
  // The occupied records in slot order.
  std::vector<WP> OccupiedWatchpoints() const;
  std::vector<TP> OccupiedTracepoints() const;
  U32 HiddenBPAddr() const { return m_HiddenBPAddr.load(); }
  // The one table field the GUI thread writes.
  void SetBPHasCondition(U32 Addr, bool On);
  // Held while the processor support is replaced, so that the worker is
  // never inside it meanwhile.
  std::recursive_mutex& DeviceMutex() { return m_DeviceMx; }

  // ---- state (any thread)
  bool IsConnected() const { return m_bConnected.load(); }
  bool IsConnectionLost() const { return m_bConnectionLost.load(); }
  bool HaltReported() const { return m_bHaltReported.load(); }
  bool IsTargetHalted() const { return m_bHalted.load(); }
  bool IsRunning() const { return m_bRunning.load(); }
  bool IsSourceStepInProgress() const { return m_bSourceStep.load(); }
  bool IsHaltSeqActive() const { return m_bHaltSeqActive.load(); }
  // The target stands for readers on other threads: the halt was reported,
  // or a halt sequence waits for a breakpoint condition to be evaluated.
  bool IsStandingForReaders() const {
    return m_bHaltReported.load() || (m_bHalted.load() && m_bHaltSeqActive.load());
  }
  bool IsUserHaltPending() const { return m_bUserHaltPending.load(); }
  U32 CurrentPC() const { return m_PC.load(); }
  bool IsWorkerRunning() const { return isRunning() && !m_bStop.load(); }
  bool IsWorkerThread() const;
  // The probe table (tests and the host-side readers).
  const VORDEN_FUNCS& Probe() const { return m_Probe; }

  // Delivery of one job report on the GUI thread (events.cpp calls it).
  void DispatchJobEvent(DEVICE_JOB* pJob);
  bool ShouldSkipJobEvent(const DEVICE_JOB* pJob) const;

 protected:
  void run() override;

 private:
  CDevice(const VORDEN_FUNCS& Funcs, const QString& sLibPath);
  void Wake();
  int RunBatch();
  void RunJob(DEVICE_JOB* pJob);
  I64 ExecuteJob(DEVICE_JOB* pJob);
  DEVICE_JOB* NextJob();
  void CheckHandleHalt();
  void OnInvalidHaltStatus();
  // The connection found the target standing: state, PC, and its halt
  // report after the connect report.
  void OnConnectedHalted();
  // Running although nobody resumed it: mark it and report a resume.
  void MarkRunningBehindOurBack();
  // How long the idle worker may sleep before the halt poll is due.
  int HaltPollWaitMs() const;
  // The interval of the halt poll while the target runs.
  int HaltPollIntervalMs() const;
  void ResetState();
  void ShutdownProbe();
  bool ProbeOpen() const;
  // Source steps (srcstep.cpp).
  void FinishSrcStep();
  bool ReadStepRegs(U64* pPC, U64* pSP);
  bool ContinueStepAt(U64 Addr, U32 Op);

  VORDEN_FUNCS m_Probe;
  QString m_sLibPath;
  CDeviceConfig m_Config;

  DEVICE_JOB m_aaJobs[DEVICE_NUM_QUEUES][DEVICE_RING_SIZE];
  U32 m_aWrite[DEVICE_NUM_QUEUES] = {};
  U32 m_aRead[DEVICE_NUM_QUEUES] = {};
  mutable std::mutex m_WriteMx;
  DEVICE_JOB m_aNotify[DEVICE_RING_SIZE];
  U32 m_NotifyIdx = 0;
  std::mutex m_NotifyMx;

  std::atomic<U64> m_NextJobID{0}, m_JobsStarted{0}, m_JobsCancelled{0}, m_JobsRecycled{0}, m_EventsPosted{0};
  std::atomic<U8> m_abMute[JT_LAST] = {};
  std::atomic<int> m_PendingJobs{0};  // scheduled jobs whose pending flag is still set

  std::recursive_mutex m_DeviceMx;
  std::mutex m_WakeMx;
  std::condition_variable m_WakeCv;
  bool m_bWake = false;
  std::atomic<bool> m_bStop{false};
  std::atomic<bool> m_bRunDone{false};  // set last by the worker: nothing of it runs any more
  std::atomic<Qt::HANDLE> m_WorkerThread{nullptr};

  std::atomic<bool> m_bConnected{false}, m_bConnectionLost{false}, m_bHalted{false}, m_bHaltReported{false},
      m_bRunning{false}, m_bSourceStep{false}, m_bReportHalts{false}, m_bHaltSeqActive{false},
      m_bUserHaltPending{false};
  std::atomic<U32> m_PC{0};
  // Execution state: written by the worker under m_ExecMx, copied by readers.
  mutable std::mutex m_ExecMx;
  DEVICE_EXEC_STATE m_Exec;
  std::atomic<U32> m_PendingOp{0}, m_LastResetMode{0};
  DEVICE_BP m_SavedBP = {};          // worker only: the user's entry a hidden breakpoint replaced
  STEP_CONTEXT m_StepCtx = {};       // worker only
  std::atomic<U64> m_CondWord{~0ull}, m_ConnectWord{~0ull}, m_ResetWord{~0ull};
  DEVICE_BP m_aBP[DEVICE_MAX_BPS] = {};
  WP m_aWP[DEVICE_MAX_WPS] = {};
  TP m_aTP[DEVICE_MAX_TPS] = {};
  std::atomic<int> m_NumBPs{0}, m_NumWPs{0}, m_NumTPs{0};
  std::atomic<U32> m_HiddenBPAddr{~0u};
  int m_NumBPsBeforeDL = 0;  // worker only: kept between the two halves of a download
  std::atomic<int> m_LastDownloadError{0};
  qint64 m_LastHaltQueryMs = 0;   // worker only: the stamp every halt query shares
  qint64 m_LastResumeMs = 0;      // worker only: when the target was last resumed
  bool m_bHaltReportDue = false;  // worker only
};

// Milliseconds of a steady clock shared by the worker's polls and waits.
qint64 DeviceNowMs();

// The process-wide device (created on first use).
inline CDevice* Device() { return CDevice::Instance(); }
