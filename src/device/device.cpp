// The job engine of CDevice: rings, scheduling, the worker loop, running and
// reporting jobs, waiting, and delivery of job reports.
#include "device/device.h"

#include "device/events.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QtDebug>
#include <algorithm>
#include <cstddef>
#include <cstring>

namespace {

std::atomic<CDevice*> s_pDevice{nullptr};
std::mutex s_CreateMx;

U32 LoadType(const DEVICE_JOB* p) {
  return std::atomic_ref<U32>(const_cast<DEVICE_JOB*>(p)->Type).load(std::memory_order_acquire);
}
void PublishType(DEVICE_JOB* p, U32 Type) { std::atomic_ref<U32>(p->Type).store(Type, std::memory_order_release); }
U32 LoadFlags(const DEVICE_JOB* p) {
  return std::atomic_ref<U32>(const_cast<DEVICE_JOB*>(p)->Flags).load(std::memory_order_acquire);
}
// Copies all fields but Type, which only moves atomically.
void CopyBehindType(DEVICE_JOB* pDst, const DEVICE_JOB& Src) {
  static_assert(offsetof(DEVICE_JOB, Type) == 0 && offsetof(DEVICE_JOB, JobID) == 8);
  pDst->Queue = Src.Queue;
  std::atomic_ref<U64>(pDst->JobID).store(Src.JobID, std::memory_order_relaxed);
  pDst->Status = Src.Status;
  std::atomic_ref<U32>(pDst->Flags).store(Src.Flags, std::memory_order_relaxed);
  constexpr size_t From = offsetof(DEVICE_JOB, Result);
  memcpy(reinterpret_cast<char*>(pDst) + From, reinterpret_cast<const char*>(&Src) + From, sizeof(DEVICE_JOB) - From);
}
U64 LoadJobID(const DEVICE_JOB* p) {
  return std::atomic_ref<U64>(const_cast<DEVICE_JOB*>(p)->JobID).load(std::memory_order_relaxed);
}
// Clears the pending flag; true when this call cleared it.
bool ClearPending(DEVICE_JOB* p) {
  return std::atomic_ref<U32>(p->Flags).fetch_and(~JOB_FLAG_PENDING, std::memory_order_acq_rel) & JOB_FLAG_PENDING;
}

qint64 NowMs() { return DeviceNowMs(); }

}  // namespace

qint64 DeviceNowMs() {
  static QElapsedTimer t = [] {
    QElapsedTimer e;
    e.start();
    return e;
  }();
  return t.elapsed();
}

// ---- life

CDevice::CDevice(const VORDEN_FUNCS& Funcs, const QString& sLibPath) : m_Probe(Funcs), m_sLibPath(sLibPath) {
  memset(m_aaJobs, 0, sizeof m_aaJobs);
  memset(m_aNotify, 0, sizeof m_aNotify);
  m_Config.Reset();
}

CDevice::~CDevice() {
  m_bStop.store(true);
  Wake();
  while (isRunning() || (m_WorkerThread.load() && !m_bRunDone.load(std::memory_order_acquire))) {
    Wake();
    wait(10);
  }
  // Jobs and reports that nobody will deliver any more.
  for (auto& Ring : m_aaJobs)
    for (DEVICE_JOB& j : Ring) FreeJobParams(&j);
  for (DEVICE_JOB& j : m_aNotify) FreeJobParams(&j);
}

CDevice* CDevice::InstanceIfCreated() { return s_pDevice.load(); }

CDevice* CDevice::Instance() {
  if (CDevice* p = s_pDevice.load()) return p;
  std::lock_guard<std::mutex> g(s_CreateMx);
  if (CDevice* p = s_pDevice.load()) return p;
  VORDEN_FUNCS f;
  QString sErr;
  const QString sPath = VORDEN_DefaultLibraryPath();
  if (!VORDEN_LoadLibrary(sPath, &f, &sErr)) qWarning("Vorden software could not be loaded from %s: %s", qPrintable(sPath), qPrintable(sErr));
  auto* p = new CDevice(f, sPath);
  s_pDevice.store(p);
  p->start(QThread::LowestPriority);
  return p;
}

CDevice* CDevice::CreateWithProbe(const VORDEN_FUNCS& Funcs, const QString& sLibPath) {
  Destroy();
  std::lock_guard<std::mutex> g(s_CreateMx);
  auto* p = new CDevice(Funcs, sLibPath);
  s_pDevice.store(p);
  p->start(QThread::LowestPriority);
  return p;
}

void CDevice::Destroy() {
  std::lock_guard<std::mutex> g(s_CreateMx);
  CDevice* p = s_pDevice.exchange(nullptr);
  // Reports still queued for this device are dropped with it.
  if (p) {
    DeliverDeviceEvents(0);
    delete p;
  }
}

bool CDevice::IsWorkerThread() const { return m_WorkerThread.load() == QThread::currentThreadId(); }

void CDevice::Wake() {
  {
    std::lock_guard<std::mutex> g(m_WakeMx);
    m_bWake = true;
  }
  m_WakeCv.notify_one();
}

// ---- scheduling

int CDevice::ScheduleJob(DEVICE_JOB* pTemplate, U32* pQueue, U32* pSlot) {
  const U32 Type = pTemplate->Type;
  if (Type == 0 || Type >= JT_ALL || Type == JT_ANY_STEP) {
    FreeJobParams(pTemplate);
    return -1;
  }
  if (JobNeedsParam(Type) && !pTemplate->apDynParam[0]) {
    FreeJobParams(pTemplate);
    return -1;
  }
  const U32 Q = JobQueueClass(Type);
  DEVICE_JOB* pSlotJob;
  U32 Slot;
  {
    std::lock_guard<std::mutex> g(m_WriteMx);
    Slot = m_aWrite[Q];
    pSlotJob = &m_aaJobs[Q][Slot];
    if (LoadType(pSlotJob) != 0) {
      DeviceLogWarning("Job %s not scheduled. Queue is full.", JobName(Type));
      FreeJobParams(pTemplate);
      memset(pTemplate, 0, sizeof *pTemplate);
      return -1;
    }
    m_aWrite[Q] = (Slot + 1) % DEVICE_RING_SIZE;
    pTemplate->JobID = m_NextJobID.fetch_add(1);
  }
  // Fill the record, then publish it by its type.
  DEVICE_JOB Copy = *pTemplate;
  Copy.Queue = Q;
  Copy.Status = 0;
  Copy.Flags = JOB_FLAG_PENDING;
  CopyBehindType(pSlotJob, Copy);
  m_PendingJobs.fetch_add(1);
  PublishType(pSlotJob, Type);
  if (pQueue) *pQueue = Q;
  if (pSlot) *pSlot = Slot;
  Wake();
  return 0;
}

bool CDevice::IsValidJob(const DEVICE_JOB* pJob) const {
  const auto* b = reinterpret_cast<const char*>(pJob);
  const auto* r0 = reinterpret_cast<const char*>(&m_aaJobs[0][0]);
  const auto* r1 = reinterpret_cast<const char*>(&m_aaJobs[DEVICE_NUM_QUEUES - 1][DEVICE_RING_SIZE]);
  const auto* n0 = reinterpret_cast<const char*>(&m_aNotify[0]);
  const auto* n1 = reinterpret_cast<const char*>(&m_aNotify[DEVICE_RING_SIZE]);
  bool In = false;
  if (b >= r0 && b < r1) In = (b - r0) % sizeof(DEVICE_JOB) == 0;
  else if (b >= n0 && b < n1) In = (b - n0) % sizeof(DEVICE_JOB) == 0;
  if (!In) return false;
  const U32 Type = LoadType(pJob);
  if (Type == 0) return false;
  return !JobNeedsParam(Type) || pJob->apDynParam[0];
}

bool CDevice::IsJobPending(U32 Type) const {
  if (Type == JT_ANY_STEP) {
    for (U32 t : {JT_STEP_INST, JT_STEP_INTO, JT_STEP_OVER, JT_STEP_OUT})
      for (const DEVICE_JOB& j : m_aaJobs[0])
        if (LoadType(&j) == t && (LoadFlags(&j) & JOB_FLAG_PENDING)) return true;
    return false;
  }
  for (const auto& Ring : m_aaJobs)
    for (const DEVICE_JOB& j : Ring)
      if (LoadType(&j) == Type && (LoadFlags(&j) & JOB_FLAG_PENDING)) return true;
  return false;
}

void CDevice::CancelJobs(U32 Type, U32 Selector) {
  for (U32 q = 0; q < DEVICE_NUM_QUEUES; ++q) {
    if (Selector < 3 && q != Selector) continue;
    if (Selector == QUEUE_SEL_CLASS_OF_TYPE && q != JobQueueClass(Type)) continue;
    for (DEVICE_JOB& j : m_aaJobs[q]) {
      const U32 t = LoadType(&j);
      if (t == 0 || (Type != JT_ALL && t != Type)) continue;
      if (ClearPending(&j)) {
        m_JobsCancelled.fetch_add(1);
        m_PendingJobs.fetch_sub(1);
      }
    }
  }
}

void CDevice::RecycleJob(DEVICE_JOB* pJob) {
  if (ClearPending(pJob) && pJob->Queue < DEVICE_NUM_QUEUES) m_PendingJobs.fetch_sub(1);
  FreeJobParams(pJob);
  // Zero everything but the type, then free the slot by its type.
  CopyBehindType(pJob, DEVICE_JOB{});
  PublishType(pJob, 0);
  m_JobsRecycled.fetch_add(1);
}

int CDevice::PostJobEvent(U32 Type, U32 Status, U64 Arg0, I64 Result, U64 Out0) {
  if (Type == 0 || Type >= JT_LAST || IsMuted(Type)) return 0;
  DEVICE_JOB* p;
  {
    std::lock_guard<std::mutex> g(m_NotifyMx);
    p = &m_aNotify[m_NotifyIdx];
    if (LoadType(p) != 0) {
      qWarning("Target event queue full. job not inserted");
      return -1;
    }
    m_NotifyIdx = (m_NotifyIdx + 1) % DEVICE_RING_SIZE;
  }
  DEVICE_JOB j{};
  j.Queue = DEVICE_NUM_QUEUES;
  j.JobID = m_NextJobID.fetch_add(1);
  j.Status = Status;
  j.Arg0 = Arg0;
  j.Result = Result;
  j.Out0 = Out0;
  CopyBehindType(p, j);
  PublishType(p, Type);
  m_EventsPosted.fetch_add(1);
  if (PostDeviceEvent(DEV_EVENT_JOB_DONE, reinterpret_cast<U64>(p)) < 0) {
    RecycleJob(p);
    return -1;
  }
  return 0;
}

DEVICE_COUNTERS CDevice::Counters() const {
  return {m_NextJobID.load(), m_JobsStarted.load(), m_JobsCancelled.load(), m_JobsRecycled.load(),
          m_EventsPosted.load()};
}

// ---- the worker

void CDevice::run() {
  m_WorkerThread.store(QThread::currentThreadId());
  setPriority(QThread::LowestPriority);
  // What the library tells before any connection: version, optional functions.
  if (m_Probe.VORDEN_GetpFunc) {
    std::lock_guard<std::recursive_mutex> g(m_DeviceMx);
    UpdateVordenFuncPtrs();
  }
  while (!m_bStop.load()) {
    int Rounds;
    {
      std::lock_guard<std::recursive_mutex> g(m_DeviceMx);
      Rounds = RunBatch();
    }
    if (Rounds < 100) {
      std::unique_lock<std::mutex> lk(m_WakeMx);
      if (m_bConnected.load())
        m_WakeCv.wait_for(lk, std::chrono::milliseconds(HaltPollWaitMs()), [this] { return m_bWake || m_bStop.load(); });
      else
        m_WakeCv.wait(lk, [this] { return m_bWake || m_bStop.load(); });
      m_bWake = false;
    }
  }
  {
    std::lock_guard<std::recursive_mutex> g(m_DeviceMx);
    ShutdownProbe();
  }
  m_bRunDone.store(true, std::memory_order_release);
}

DEVICE_JOB* CDevice::NextJob() {
  for (U32 q = 0; q < DEVICE_NUM_QUEUES; ++q) {
    DEVICE_JOB* p = &m_aaJobs[q][m_aRead[q]];
    // A slot that was run and waits for delivery is not a new job.
    if (LoadType(p) == 0 || (LoadFlags(p) & JOB_FLAG_TAKEN)) continue;
    std::atomic_ref<U32>(p->Flags).fetch_or(JOB_FLAG_TAKEN, std::memory_order_acq_rel);
    m_aRead[q] = (m_aRead[q] + 1) % DEVICE_RING_SIZE;
    return p;
  }
  return nullptr;
}

int CDevice::RunBatch() {
  int Rounds = 0;
  for (; Rounds < 100 && !m_bStop.load(); ++Rounds) {
    CheckHandleNotifications();
    CheckHandleHalt();
    DEVICE_JOB* p = NextJob();
    if (!p) break;
    RunJob(p);
  }
  return Rounds;
}

void CDevice::RunJob(DEVICE_JOB* p) {
  const U32 Type = p->Type;
  if (!(LoadFlags(p) & JOB_FLAG_PENDING)) {
    RecycleJob(p);
    return;
  }
  m_JobsStarted.fetch_add(1);
  bool Skip = false;
  // A halt of a standing target is not run; one that comes while a sequence
  // waits for a breakpoint condition still marks the stop as the user's.
  if (Type == JT_HALT && m_bHalted.load() && !m_bHaltSeqActive.load()) Skip = true;
  switch (Type) {
    case JT_RESET: case JT_HALT: case JT_CONTINUE:
    case JT_STEP_INST: case JT_STEP_INTO: case JT_STEP_OVER: case JT_STEP_OUT:
      // Reads asked for in the old state are worthless now.
      CancelJobs(JT_ALL, 2);
      CancelJobs(JT_ALL, 1);
      break;
    case JT_START_HSS: CancelJobs(JT_READ_HSS, QUEUE_SEL_ALL); break;
    case JT_START_POWER_TRACE: CancelJobs(JT_READ_POWER_TRACE, QUEUE_SEL_ALL); break;
    default: break;
  }
  const I64 R = Skip ? 0 : ExecuteJob(p);
  p->Status = R == -1 ? 1 : (R < 0 ? 2 : 0);
  if (p->Result == 0 && Type != JT_READ_REG) p->Result = R;
  bool Report = true;
  if (p->Status == 2 || Type == JT_HALT || Type == JT_RUN_TO) Report = false;
  if (IsStepJob(Type) || Type == JT_RESET) p->Result = m_PC.load();
  if ((Type == JT_STEP_INTO || Type == JT_STEP_OVER || Type == JT_STEP_OUT) && R == 1) Report = false;
  if (IsMuted(Type)) Report = false;
  if (!Report) {
    RecycleJob(p);
    if (m_bHaltReportDue) {
      m_bHaltReportDue = false;
      PostJobEvent(JT_HALT, 0, 0, I64(m_PC.load()), HALT_REASON_PLAIN);
    }
    return;
  }
  m_EventsPosted.fetch_add(1);
  if (ClearPending(p)) m_PendingJobs.fetch_sub(1);
  if (PostDeviceEvent(DEV_EVENT_JOB_DONE, reinterpret_cast<U64>(p)) < 0) RecycleJob(p);
  // A target found halted by the connection is reported after it.
  if (m_bHaltReportDue) {
    m_bHaltReportDue = false;
    PostJobEvent(JT_HALT, 0, 0, I64(m_PC.load()), HALT_REASON_PLAIN);
  }
}

namespace {

// The record count of a breakpoint job, never more than its parameter holds.
template <class T>
U32 Records(const DEVICE_JOB* p) {
  return p->apDynParam[0] ? std::min<U32>(U32(p->Arg0), U32(p->aDynParamSize[0] / sizeof(T))) : 0;
}

}  // namespace

I64 CDevice::ExecuteJob(DEVICE_JOB* p) {
  auto Str = [&](int i) { return static_cast<const char*>(p->apDynParam[i]); };
  auto Bytes = [&](int i) { return static_cast<U8*>(p->apDynParam[i]); };
  switch (p->Type) {
    case JT_CONNECT: return Connect(CONNECT_MODES(p->Arg0));
    case JT_DISCONNECT: return Disconnect();
    case JT_RESET: return Reset(RESET_MODES(p->Arg0));
    case JT_HALT: return Halt();
    case JT_CONTINUE: return Continue();
    case JT_STEP_INST: return StepInst();
    case JT_STEP_INTO: return StepInto();
    case JT_STEP_OVER: return StepOver(1);
    case JT_STEP_OUT: return StepOut();
    case JT_RUN_TO: return RunTo(p->Arg0);
    case JT_EXEC_VORDEN_CMD: {
      char* acOut = static_cast<char*>(p->apDynParam[1]);
      return ExecVordenCmd(Str(0), acOut ? p->aDynParamSize[1] : 0, acOut, 1);
    }
    case JT_READ_REG: {
      U64 v = 0;
      const int r = ReadReg(U32(p->Arg0), &v);
      p->Out0 = v;
      return r;
    }
    case JT_WRITE_REG: {
      const int r = WriteReg(U32(p->Arg0), p->Arg1);
      // The stored PC and SP are read again.
      if (m_bHalted.load()) SetTargetExecState(0, 0);
      return r;
    }
    case JT_READ_CP_REG: {
      U64 v = 0;
      const int r = ReadCPReg(Str(0), &v);
      p->Out0 = v;
      return r;
    }
    case JT_WRITE_CP_REG: return WriteCPReg(Str(0), p->Arg1);
    case JT_READ_REGS:
      return ReadRegs(U32(p->Arg0), (const U32*)p->apDynParam[0], (U64*)p->apDynParam[1], Bytes(2));
    case JT_END_DOWNLOAD: {
      const int r = EndDownload(false);
      p->Out0 = U64(I64(r));
      return r < 0 ? -1 : r;
    }
    case JT_READ_MEM:
      return ReadMem(U32(p->Arg0), U32(p->Arg1), p->Arg2, I8(p->Arg3), p->Arg4, Str(2), Bytes(0), Bytes(1));
    case JT_WRITE_MEM:
      return WriteMem(U32(p->Arg0), U32(p->Arg1), p->Arg2, I8(p->Arg3), p->Arg4, nullptr, Bytes(0));
    case JT_WRITE_MEM_MULTIPLE:
      return WriteMemMultiple(U32(p->Arg0), (const U32*)p->apDynParam[0], U32(p->Arg1), Bytes(1), p->Arg2,
                              I8(p->Arg3), p->Arg4, nullptr);
    case JT_READ_LOCS:
      return ReadLocs(U32(p->Arg0), (const ELF_SYM_LOC*)p->apDynParam[0], (U64*)p->apDynParam[1], Bytes(2));
    case JT_CONFIGURE: return Configure(Str(0));
    case JT_SET_CONFIG_PARAM:
      return p->apDynParam[0] ? SetConfigParam(DEV_CONFIG_PARAMS(p->Arg0), Str(0))
                              : SetConfigParam(DEV_CONFIG_PARAMS(p->Arg0), int(p->Arg1));
    case JT_GET_DEVICE_INFO: {
      const int r = UpdateDeviceInfo();
      p->Out0 = Info().CoreId;
      return r;
    }
    case JT_SET_BP: case JT_SET_BPS: case JT_CLEAR_BP: case JT_CLEAR_BPS: {
      int r;
      if (p->Type == JT_SET_BP) r = SetBreakpoint(U32(p->Arg0), BP_STATES(p->Arg1), BP_TYPES(p->Arg2));
      else if (p->Type == JT_CLEAR_BP) r = ClearBreakpoint(U32(p->Arg0));
      else if (p->Type == JT_SET_BPS) r = SetBreakpoints(Records<U32>(p), (const U32*)p->apDynParam[0], BP_STATES(p->Arg1), BP_TYPES(p->Arg2));
      else r = ClearBreakpoints(Records<U32>(p), (const U32*)p->apDynParam[0]);
      UpdateBPImplTypes();
      return r;
    }
    case JT_CLEAR_ALL_BPS: return p->Arg1 ? ClearAllBreakpoints(BP_STATES(p->Arg0)) : ClearAllBreakpoints();
    case JT_RESET_BPS: return ResetBreakpoints();
    case JT_SET_WPS: return SetWatchpoints(Records<WP>(p), (WP*)p->apDynParam[0]);
    case JT_CLEAR_WPS: return ClearWatchpoints(Records<WP>(p), (WP*)p->apDynParam[0]);
    case JT_CLEAR_ALL_WPS: return ClearAllWatchpoints();
    case JT_SET_TPS: return SetTracepoints(Records<TP>(p), (TP*)p->apDynParam[0]);
    case JT_CLEAR_TPS: return ClearTracepoints(Records<TP>(p), (TP*)p->apDynParam[0]);
    case JT_CLEAR_ALL_TPS: return ClearAllTracepoints();
    default: return p->Type > JT_SET_SH_INPUT_TEXT ? -1 : -1;
  }
}

// ---- waiting

U64 CDevice::WaitForJob(U32 Queue, U32 Slot, bool DoProcessEvents, int TimeoutMS) {
  if (Slot >= DEVICE_RING_SIZE || Queue >= DEVICE_NUM_QUEUES) {
    DeviceLogWarning("Job not scheduled. Queue is full.");
    return 0;
  }
  const DEVICE_JOB* p = &m_aaJobs[Queue][Slot];
  const U32 Type = LoadType(p);
  const U64 ID = LoadJobID(p);
  if (TimeoutMS == -1) TimeoutMS = JobDefaultTimeout(Type);
  const qint64 Start = NowMs();
  for (;;) {
    if (LoadType(p) != Type || LoadJobID(p) != ID || !(LoadFlags(p) & JOB_FLAG_PENDING)) return ID;
    if (IsStepJob(Type) && !m_bSourceStep.load()) {
      if (!(LoadFlags(p) & JOB_FLAG_PENDING)) return ID;
    }
    if (!isRunning() || m_bStop.load()) return U64(-1);
    if (qAbs(NowMs() - Start) > TimeoutMS) {
      DeviceLogWarning("Timeout while waiting for Job %s", JobName(Type));
      return U64(-1);
    }
    if (DoProcessEvents) QCoreApplication::processEvents();
    QThread::yieldCurrentThread();
  }
}

U64 CDevice::WaitForJobOfType(U32 Type, bool DoProcessEvents, int TimeoutMS) {
  const DEVICE_JOB* pOldest = nullptr;
  U32 Q = 0, Slot = 0;
  for (U32 q = 0; q < DEVICE_NUM_QUEUES; ++q)
    for (U32 i = 0; i < DEVICE_RING_SIZE; ++i) {
      const DEVICE_JOB* p = &m_aaJobs[q][i];
      if (LoadType(p) != Type || !(LoadFlags(p) & JOB_FLAG_PENDING)) continue;
      if (!pOldest || LoadJobID(p) < LoadJobID(pOldest)) {
        pOldest = p;
        Q = q;
        Slot = i;
      }
    }
  if (!pOldest) return 1;
  return WaitForJob(Q, Slot, DoProcessEvents, TimeoutMS);
}

U64 CDevice::WaitAndDeliver(U32 Type, bool DoProcessEvents) {
  const U64 ID = WaitForJobOfType(Type, DoProcessEvents, -1);
  bool Found = false;
  DeliverDeviceEvents(100, ID, &Found);
  return ID;
}

int CDevice::WaitIdle(int TimeoutMS) {
  const qint64 Start = NowMs();
  for (;;) {
    if (m_PendingJobs.load() == 0) {
      while (DeliverDeviceEvents(100) > 0) {
      }
      if (PendingDeviceEvents() == 0) return 0;
    }
    if (!isRunning() || m_bStop.load()) return -1;
    if (NowMs() - Start > TimeoutMS) return -1;
    QCoreApplication::processEvents();
    QThread::msleep(1);
  }
}

// ---- delivery

namespace {
bool IsStepReport(const DEVICE_JOB* p) {
  CDevice* d = CDevice::InstanceIfCreated();
  return d && d->IsValidJob(p) && IsStepJob(p->Type);
}
}  // namespace

bool CDevice::ShouldSkipJobEvent(const DEVICE_JOB* p) const {
  if (!IsValidJob(p)) return true;
  const U32 PC = U32(p->Result);
  switch (p->Type) {
    case JT_CONNECT: return p->Arg0 == CM_PROBE_ONLY || p->Arg0 == CM_PROBE_ONLY_SILENT;
    case JT_RESET: return p->Arg0 == 4;
    case JT_HALT: return !m_bHalted.load() || m_PC.load() != PC;
    case JT_STEP_INST: case JT_STEP_INTO: case JT_STEP_OVER: case JT_STEP_OUT:
      if (!m_bHalted.load() || m_PC.load() != PC || m_bSourceStep.load()) return true;
      return PeekQueuedJobEvents(10, IsStepReport);
    default: return false;
  }
}

void CDevice::DispatchJobEvent(DEVICE_JOB* p) {
  if (!IsValidJob(p)) return;
  if (ShouldSkipJobEvent(p)) {
    qDebug("Skipping job event %s", JobName(p->Type));
  } else {
    ForEachDeviceListener([&](CDeviceEventListener* l) { l->OnDeviceJobDone(p); });
  }
  RecycleJob(p);
}
