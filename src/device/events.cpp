#include "device/events.h"

#include "device/device.h"
#include "device/listener.h"
#include "log/log.h"

#include <QMetaObject>
#include <QThread>
#include <QTimerEvent>
#include <QtDebug>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace {

struct DEVICE_EVENT {
  U32 Kind;  // 0: free; published last
  U64 P0, P1;
};

struct EVENT_QUEUE {
  DEVICE_EVENT aEvents[DEVICE_EVENT_RING_SIZE] = {};
  U32 WriteIdx = 0;
  U32 ReadIdx = 0;
  std::mutex WriteMx, ReadMx;
  std::atomic<U64> Posted{0}, Delivered{0};
  char aaText[DEVICE_TEXT_RING_SIZE][DEVICE_TEXT_MAX + 1] = {};
  U32 TextIdx = 0;
  std::mutex TextMx;
};

EVENT_QUEUE& Q() {
  static EVENT_QUEUE* p = new EVENT_QUEUE;  // outlives every thread
  return *p;
}

std::atomic<Qt::HANDLE> s_GuiThread{nullptr};
std::atomic<CDeviceEventWorker*> s_pWorker{nullptr};
CDeviceEventListener* s_pReadReportSink = nullptr;  // GUI thread only

U32 KindOf(DEVICE_EVENT& e) { return std::atomic_ref<U32>(e.Kind).load(std::memory_order_acquire); }

U32 StoreText(const char* sText) {
  EVENT_QUEUE& q = Q();
  std::lock_guard<std::mutex> g(q.TextMx);
  const U32 Slot = q.TextIdx;
  q.TextIdx = (q.TextIdx + 1) % DEVICE_TEXT_RING_SIZE;
  strncpy(q.aaText[Slot], sText ? sText : "", DEVICE_TEXT_MAX);
  q.aaText[Slot][DEVICE_TEXT_MAX] = 0;
  return Slot;
}

void TakeText(U64 Slot, char* acOut) {
  EVENT_QUEUE& q = Q();
  std::lock_guard<std::mutex> g(q.TextMx);
  memcpy(acOut, q.aaText[Slot % DEVICE_TEXT_RING_SIZE], DEVICE_TEXT_MAX + 1);
}

void Dispatch(U32 Kind, U64 P0, U64 P1);

void StartWorker() {
  if (CDeviceEventWorker* w = s_pWorker.load()) QMetaObject::invokeMethod(w, "start", Qt::QueuedConnection);
}

int Enqueue(U32 Kind, U64 P0, U64 P1) {
  EVENT_QUEUE& q = Q();
  U32 Slot;
  {
    std::lock_guard<std::mutex> g(q.WriteMx);
    Slot = q.WriteIdx;
    if (KindOf(q.aEvents[Slot]) != 0) {
      qWarning("Target event queue full. job not inserted");
      return -1;
    }
    q.WriteIdx = (q.WriteIdx + 1) % DEVICE_EVENT_RING_SIZE;
    DEVICE_EVENT& e = q.aEvents[Slot];
    e.P0 = P0;
    e.P1 = P1;
    std::atomic_ref<U32>(e.Kind).store(Kind, std::memory_order_release);
  }
  q.Posted.fetch_add(1);
  StartWorker();
  return 0;
}

template <U32 Kind>
int Poster(U64 P0, U64 P1, const char* sText) {
  if (Kind == DEV_EVENT_LOG_MSG || Kind == DEV_EVENT_SET_STATUS_MSG || Kind == DEV_EVENT_SET_PROGRESS_MSG)
    P0 = StoreText(sText);
  if ((Kind == DEV_EVENT_ABOUT_TO_DISCONNECT || Kind == DEV_EVENT_ABOUT_TO_RESUME ||
       Kind == DEV_EVENT_ABOUT_TO_STEP) &&
      IsDeviceGuiThread()) {
    Dispatch(Kind, P0, P1);
    return 0;
  }
  return Enqueue(Kind, P0, P1);
}

void Dispatch(U32 Kind, U64 P0, U64 P1) {
  char acText[DEVICE_TEXT_MAX + 1];
  switch (Kind) {
    case DEV_EVENT_JOB_DONE:
      if (CDevice* d = CDevice::InstanceIfCreated()) {
        auto* pJob = reinterpret_cast<DEVICE_JOB*>(P0);
        const bool ToSink = s_pReadReportSink && d->IsValidJob(pJob) &&
                            (pJob->Type == JT_READ_REG || pJob->Type == JT_READ_REGS || pJob->Type == JT_READ_MEM);
        if (!ToSink) return d->DispatchJobEvent(pJob);
        s_pReadReportSink->OnDeviceJobDone(pJob);
        d->RecycleJob(pJob);
      }
      return;
    case DEV_EVENT_EVAL_BP_CONDITION: ForEachDeviceListener([&](auto* l) { l->OnDeviceEvalBPCondition(U32(P0)); }); return;
    case DEV_EVENT_CONFIG_PARAM_CHANGED:
      ForEachDeviceListener([&](auto* l) { l->OnDeviceConfigParamChanged(int(P0), int(P1)); });
      return;
    case DEV_EVENT_HW_CAPABILITY_CHANGED:
      ForEachDeviceListener([&](auto* l) { l->OnDeviceHWCapabilityChanged(int(P0), int(P1)); });
      return;
    case DEV_EVENT_CONNECTION_LOST: ForEachDeviceListener([&](auto* l) { l->OnDeviceConnectionLost(); }); return;
    case DEV_EVENT_ABOUT_TO_DISCONNECT: ForEachDeviceListener([&](auto* l) { l->OnDeviceAboutToDisconnect(); }); return;
    case DEV_EVENT_ABOUT_TO_RESUME:
      ForEachDeviceListener([&](auto* l) { l->OnDeviceAboutToResume(RESUME_MODES(P0)); });
      return;
    case DEV_EVENT_ABOUT_TO_STEP: ForEachDeviceListener([&](auto* l) { l->OnDeviceAboutToStep(); }); return;
    case DEV_EVENT_ENDIANESS_CHANGED:
      ForEachDeviceListener([&](auto* l) { l->OnDeviceEndianessChanged(int(P0), int(P1)); });
      return;
    case DEV_EVENT_LOG_MSG:
      TakeText(P0, acText);
      ForEachDeviceListener([&](auto* l) { l->OnDeviceLogMsg(acText, U32(P1)); });
      return;
    case DEV_EVENT_SET_STATUS_MSG:
      TakeText(P0, acText);
      ForEachDeviceListener([&](auto* l) { l->OnDeviceSetStatusMsg(acText); });
      return;
    case DEV_EVENT_SET_PROGRESS_MSG:
      TakeText(P0, acText);
      ForEachDeviceListener([&](auto* l) { l->OnDeviceSetProgressMsg(acText); });
      return;
    case DEV_EVENT_START_PROGRESS:
      ForEachDeviceListener([&](auto* l) { l->OnDeviceStartProgress(int(P0), int(P1)); });
      return;
    case DEV_EVENT_END_PROGRESS: ForEachDeviceListener([&](auto* l) { l->OnDeviceEndProgress(); }); return;
    case DEV_EVENT_SET_PROGRESS_VALUE: ForEachDeviceListener([&](auto* l) { l->OnDeviceSetProgressValue(int(P0)); }); return;
    default: return;
  }
}

void LogV(U32 Flags, bool Verbose, const char* sFmt, va_list Args) {
  if (Verbose && !(IsLogFileOpen(LOG_FILE_APP) || IsDebugMode())) return;
  char acBuf[2048];
  vsnprintf(acBuf, sizeof acBuf, sFmt, Args);
  PostDeviceEvent(DEV_EVENT_LOG_MSG, 0, Flags, acBuf);
}

}  // namespace

const DEVICE_EVENT_POSTER g_apfnPostDeviceEvent[DEV_EVENT_KIND_COUNT] = {
    nullptr, Poster<1>, Poster<2>, Poster<3>, Poster<4>, Poster<5>, Poster<6>, Poster<7>, Poster<8>, Poster<9>,
    nullptr, Poster<11>, Poster<12>, Poster<13>, Poster<14>, Poster<15>, Poster<16>};

int PostDeviceEvent(U32 Kind, U64 P0, U64 P1, const char* sText) {
  if (Kind == 0 || Kind >= DEV_EVENT_KIND_COUNT || !g_apfnPostDeviceEvent[Kind]) return -1;
  return g_apfnPostDeviceEvent[Kind](P0, P1, sText);
}

void DeviceLogDebug(const char* sFmt, ...) {
  va_list a;
  va_start(a, sFmt);
  LogV(DEV_MSG_DEBUG, true, sFmt, a);
  va_end(a);
}
void DeviceLogWarning(const char* sFmt, ...) {
  va_list a;
  va_start(a, sFmt);
  LogV(DEV_MSG_WARNING, true, sFmt, a);
  va_end(a);
}
void DeviceLogInfo(const char* sFmt, ...) {
  va_list a;
  va_start(a, sFmt);
  LogV(DEV_MSG_INFO, false, sFmt, a);
  va_end(a);
}
void DeviceLogError(const char* sFmt, ...) {
  va_list a;
  va_start(a, sFmt);
  LogV(DEV_MSG_ERROR, false, sFmt, a);
  va_end(a);
}

void DEV_SetReadReportSink(CDeviceEventListener* pSink) { s_pReadReportSink = pSink; }

void SetDeviceGuiThread() { s_GuiThread.store(QThread::currentThreadId()); }
bool IsDeviceGuiThread() { return s_GuiThread.load() == QThread::currentThreadId(); }

int DeliverDeviceEvents(int MaxEvents, U64 StopAtJobID, bool* pFoundStop) {
  EVENT_QUEUE& q = Q();
  if (pFoundStop) *pFoundStop = false;
  int n = 0;
  while (n < MaxEvents) {
    U32 Kind;
    U64 P0, P1;
    {
      std::lock_guard<std::mutex> g(q.ReadMx);
      DEVICE_EVENT& e = q.aEvents[q.ReadIdx];
      Kind = KindOf(e);
      if (Kind == 0) break;
      P0 = e.P0;
      P1 = e.P1;
      e.P0 = e.P1 = 0;
      std::atomic_ref<U32>(e.Kind).store(0, std::memory_order_release);
      q.ReadIdx = (q.ReadIdx + 1) % DEVICE_EVENT_RING_SIZE;
    }
    bool IsStop = false;
    if (Kind == DEV_EVENT_JOB_DONE && StopAtJobID != ~0ull) {
      const auto* pJob = reinterpret_cast<const DEVICE_JOB*>(P0);
      CDevice* d = CDevice::InstanceIfCreated();
      IsStop = d && d->IsValidJob(pJob) && std::atomic_ref<U64>(const_cast<DEVICE_JOB*>(pJob)->JobID).load() == StopAtJobID;
    }
    Dispatch(Kind, P0, P1);
    q.Delivered.fetch_add(1);
    ++n;
    if (IsStop) {
      if (pFoundStop) *pFoundStop = true;
      break;
    }
  }
  return n;
}

bool PeekQueuedJobEvents(int MaxAhead, bool (*pfMatch)(const DEVICE_JOB*)) {
  EVENT_QUEUE& q = Q();
  std::lock_guard<std::mutex> g(q.ReadMx);
  U32 Idx = q.ReadIdx;
  for (int i = 0; i < MaxAhead; ++i) {
    DEVICE_EVENT& e = q.aEvents[Idx];
    const U32 Kind = KindOf(e);
    if (Kind == 0) break;
    if (Kind == DEV_EVENT_JOB_DONE && pfMatch(reinterpret_cast<const DEVICE_JOB*>(e.P0))) return true;
    Idx = (Idx + 1) % DEVICE_EVENT_RING_SIZE;
  }
  return false;
}

U32 PendingDeviceEvents() {
  EVENT_QUEUE& q = Q();
  return U32(q.Posted.load() - q.Delivered.load());
}
U64 PostedDeviceEvents() { return Q().Posted.load(); }
U64 DeliveredDeviceEvents() { return Q().Delivered.load(); }

CDeviceEventWorker::CDeviceEventWorker(QObject* pParent) : QTimer(pParent) {
  setSingleShot(true);
  setInterval(1);
  SetDeviceGuiThread();
  s_pWorker.store(this);
  if (PendingDeviceEvents()) start();
}

CDeviceEventWorker::~CDeviceEventWorker() {
  CDeviceEventWorker* Self = this;
  s_pWorker.compare_exchange_strong(Self, nullptr);
}

CDeviceEventWorker* CDeviceEventWorker::Instance() { return s_pWorker.load(); }

void CDeviceEventWorker::timerEvent(QTimerEvent* e) {
  if (e->timerId() != timerId()) return QTimer::timerEvent(e);
  stop();
  if (DeliverDeviceEvents(10) > 0 || PendingDeviceEvents() > 0) start();
}
