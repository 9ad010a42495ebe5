// The device event queue: reports travel from the worker (or any thread) to
// the user interface thread through a fixed ring of { Kind, P0, P1 } entries;
// texts travel in a ring of 1000 slots beside it. CDeviceEventWorker, a 1 ms
// single-shot timer, delivers at most 10 events per run.
#pragma once
#include "common/types.h"

#include <QTimer>

enum DEVICE_EVENT_KINDS : U32 {
  DEV_EVENT_JOB_DONE = 1, DEV_EVENT_EVAL_BP_CONDITION, DEV_EVENT_CONFIG_PARAM_CHANGED,
  DEV_EVENT_HW_CAPABILITY_CHANGED, DEV_EVENT_CONNECTION_LOST, DEV_EVENT_ABOUT_TO_DISCONNECT,
  DEV_EVENT_ABOUT_TO_RESUME, DEV_EVENT_ABOUT_TO_STEP, DEV_EVENT_ENDIANESS_CHANGED,
  DEV_EVENT_LOG_MSG = 11, DEV_EVENT_SET_STATUS_MSG, DEV_EVENT_SET_PROGRESS_MSG, DEV_EVENT_START_PROGRESS,
  DEV_EVENT_END_PROGRESS, DEV_EVENT_SET_PROGRESS_VALUE, DEV_EVENT_KIND_COUNT
};

constexpr U32 DEVICE_EVENT_RING_SIZE = 10000;
constexpr U32 DEVICE_TEXT_RING_SIZE = 1000;
constexpr U32 DEVICE_TEXT_MAX = 1000;

// Message flag words of device log events.
constexpr U32 DEV_MSG_DEBUG = 2073, DEV_MSG_WARNING = 2074, DEV_MSG_INFO = 2113, DEV_MSG_ERROR = 2116;

// One poster per kind, in kind order (index 0 unused). Texts are cut to 1000
// characters. 0, or -1 when the queue is full.
typedef int (*DEVICE_EVENT_POSTER)(U64 P0, U64 P1, const char* sText);
extern const DEVICE_EVENT_POSTER g_apfnPostDeviceEvent[DEV_EVENT_KIND_COUNT];
int PostDeviceEvent(U32 Kind, U64 P0 = 0, U64 P1 = 0, const char* sText = nullptr);

// Device log helpers: debug and warning only with a log file or -debug.
void DeviceLogDebug(const char* sFmt, ...) __attribute__((format(printf, 1, 2)));
void DeviceLogWarning(const char* sFmt, ...) __attribute__((format(printf, 1, 2)));
void DeviceLogInfo(const char* sFmt, ...) __attribute__((format(printf, 1, 2)));
void DeviceLogError(const char* sFmt, ...) __attribute__((format(printf, 1, 2)));

// The thread that delivers events; kinds 6-8 posted from it are dispatched at
// once. Set by the event worker's constructor.
void SetDeviceGuiThread();
bool IsDeviceGuiThread();

// Delivers at most MaxEvents queued events on the calling (GUI) thread; with
// StopAtJobID set, stops after the report of that job. Returns the number
// delivered; *pFoundStop tells whether the stop job was among them.
int DeliverDeviceEvents(int MaxEvents, U64 StopAtJobID = ~0ull, bool* pFoundStop = nullptr);
// Number of queued, undelivered events.
U32 PendingDeviceEvents();
// Counters of posted and delivered events.
U64 PostedDeviceEvents();
U64 DeliveredDeviceEvents();

// The 1 ms single-shot delivery timer: at most 10 events per run; it stops
// when it finds none and posters start it again.
class CDeviceEventWorker : public QTimer {
  Q_OBJECT
 public:
  explicit CDeviceEventWorker(QObject* pParent = nullptr);
  ~CDeviceEventWorker() override;
  static CDeviceEventWorker* Instance();

 protected:
  void timerEvent(QTimerEvent* e) override;
};

struct DEVICE_JOB;
class CDeviceEventListener;
// The one receiver of the JT_READ_REG, JT_READ_REGS and JT_READ_MEM reports
// (the data cache); without one they go to every listener.
void DEV_SetReadReportSink(CDeviceEventListener* pSink);

// True when one of the next MaxAhead queued events is a job report matching
// pfMatch (the skip rule of step reports).
bool PeekQueuedJobEvents(int MaxAhead, bool (*pfMatch)(const DEVICE_JOB*));
