// The job engine of the device layer against a fake probe: scheduling and
// rings, the worker's ordering and cancelling, report delivery with its skip
// rules, the text ring and the wait helpers. The same source runs under
// ThreadSanitizer (device_engine_tsan), where the concurrent cases count.
#include "log/log.h"
#include "device/device.h"
#include "device/events.h"
#include "fake_probe.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

struct CRecorder : CDeviceEventListener {
  std::vector<std::string> Log;
  std::vector<U32> Stepped;
  int ReadMemDone = 0, HaltDone = 0, ConnectDone = 0, ExecDone = 0, ExecFailed = 0;
  void OnDeviceLogMsg(const char* s, U32) override { Log.push_back(s); }
  void OnDeviceReadMemDone(U32, U32, const char*, U8*, U8*) override { ++ReadMemDone; }
  void OnDeviceHaltDone(U32, HALT_REASONS) override { ++HaltDone; }
  void OnDeviceConnectDone(CONNECT_MODES) override { ++ConnectDone; }
  void OnDeviceStepped(U32 PC) override { Stepped.push_back(PC); }
  void OnDeviceExecVordenCmdDone(const char*) override { ++ExecDone; }
  void OnDeviceExecVordenCmdFailed(const char*, const char*) override { ++ExecFailed; }
  bool Logged(const std::string& s) const {
    for (const auto& l : Log)
      if (l.find(s) != std::string::npos) return true;
    return false;
  }
};

class DeviceEngine : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QCoreApplication>();
    SetDeviceGuiThread();
    SetDebugMode(true);  // debug and warning texts are posted
  }
  void SetUp() override {
    fakeprobe::S().Halted = 1;
    fakeprobe::OpenGate();
    d = CDevice::CreateWithProbe(fakeprobe::Table());
    rec = std::make_unique<CRecorder>();
  }
  void TearDown() override {
    fakeprobe::OpenGate();
    CDevice::Destroy();
    while (DeliverDeviceEvents(1000) > 0) {
    }
  }
  void ConnectHalted() {
    ASSERT_EQ(d->PostConnect(CM_ATTACH), 0);
    ASSERT_EQ(d->WaitIdle(5000), 0);
    ASSERT_TRUE(d->IsConnected());
    ASSERT_TRUE(d->HaltReported());
    rec->Log.clear();
  }
  // Holds the worker inside a control job until OpenGate.
  void HoldWorker() {
    fakeprobe::CloseGate();
    ASSERT_EQ(d->PostExecVordenCmd("Gate"), 0);
    QElapsedTimer t;
    t.start();
    while (fakeprobe::S().InGate.load() == 0 && t.elapsed() < 5000) QThread::msleep(1);
    ASSERT_EQ(fakeprobe::S().InGate.load(), 1);
  }
  CDevice* d = nullptr;
  std::unique_ptr<CRecorder> rec;
};

TEST_F(DeviceEngine, JobTableClassesTimeoutsAndNames) {
  EXPECT_EQ(JobQueueClass(JT_CONTINUE), 0u);
  EXPECT_EQ(JobQueueClass(JT_READ_MEM), 1u);
  EXPECT_EQ(JobQueueClass(JT_WRITE_MEM), 0u);
  EXPECT_EQ(JobQueueClass(JT_MEASURE_CORE_SPEED), 2u);
  EXPECT_EQ(JobQueueClass(99), 1u);
  EXPECT_EQ(JobDefaultTimeout(JT_CONNECT), 120000);
  EXPECT_EQ(JobDefaultTimeout(JT_READ_MEM), 10000);
  EXPECT_EQ(JobDefaultTimeout(JT_HALT), 5000);
  EXPECT_STREQ(JobName(JT_READ_MEM), "JT_READ_MEM");
  EXPECT_STREQ(JobName(10), "Unknown");
  EXPECT_STREQ(JobName(67), "Unknown");
  EXPECT_STREQ(JobName(68), "Last");
  EXPECT_STREQ(JobName(500), "Unknown");
  // A job that needs a parameter and has none is refused.
  DEVICE_JOB j{};
  j.Type = JT_READ_LOCS;
  EXPECT_EQ(d->ScheduleJob(&j), -1);
  j = {};
  j.Type = 0;
  EXPECT_EQ(d->ScheduleJob(&j), -1);
}

TEST_F(DeviceEngine, WaitForJobOfTypeReturnsAtOnceWithNothingPending) {
  QElapsedTimer t;
  t.start();
  EXPECT_EQ(d->WaitForJobOfType(JT_READ_MEM, false, 5000), 1u);
  EXPECT_LT(t.elapsed(), 100);
}

TEST_F(DeviceEngine, HaltOnHaltedTargetGivesNoEvent) {
  ConnectHalted();
  const int Calls = fakeprobe::S().HaltCalls.load();
  const U64 Posted = PostedDeviceEvents();
  ASSERT_EQ(d->PostHalt(), 0);
  ASSERT_EQ(d->WaitIdle(5000), 0);
  EXPECT_EQ(fakeprobe::S().HaltCalls.load(), Calls);
  EXPECT_EQ(PostedDeviceEvents(), Posted);
  EXPECT_EQ(rec->HaltDone, 1);  // only the one of the connect
}

TEST_F(DeviceEngine, ResumeDropsPendingReads) {
  ConnectHalted();
  HoldWorker();
  for (int i = 0; i < 500; ++i) ASSERT_EQ(d->PostReadMem(fakeprobe::kRAM, 4, 0, AW_WORD, 0, nullptr), 0);
  ASSERT_EQ(d->PostContinue(), 0);
  const int Reads = fakeprobe::S().ReadCalls.load();
  fakeprobe::OpenGate();
  ASSERT_EQ(d->WaitIdle(5000), 0);
  EXPECT_EQ(fakeprobe::S().ReadCalls.load(), Reads);
  EXPECT_EQ(rec->ReadMemDone, 0);
  EXPECT_EQ(fakeprobe::S().GoCalls.load() > 0, true);
  EXPECT_GE(d->Counters().Cancelled, 500u);
  EXPECT_FALSE(d->IsJobPending(JT_READ_MEM));
}

TEST_F(DeviceEngine, FullRingRefusesAndFreesParameters) {
  ConnectHalted();
  HoldWorker();
  DEVICE_JOB j{};
  int Accepted = 0;
  for (;;) {
    j = {};
    j.Type = JT_READ_REG;
    if (d->ScheduleJob(&j) < 0) break;
    ++Accepted;
  }
  EXPECT_EQ(Accepted, int(DEVICE_RING_SIZE));
  // The refused template lost its parameters and is zeroed.
  j = {};
  j.Type = JT_READ_LOCS;
  ASSERT_EQ(SetJobParam(&j, 0, 64, nullptr), 0);
  EXPECT_EQ(d->ScheduleJob(&j), -1);
  EXPECT_EQ(j.apDynParam[0], nullptr);
  EXPECT_EQ(j.Type, 0u);
  // Control jobs have a ring of their own.
  EXPECT_EQ(d->PostSetConfigParam(DEV_CFG_CORE_INDEX, 0), 0);
  d->CancelJobs(JT_ALL, 1);
  fakeprobe::OpenGate();
  ASSERT_EQ(d->WaitIdle(10000), 0);
  EXPECT_TRUE(rec->Logged("Job JT_READ_LOCS not scheduled. Queue is full."));
}

TEST_F(DeviceEngine, LongMessagesArriveCutTo1000) {
  DeviceLogInfo("%s", std::string(1500, 'x').c_str());
  while (DeliverDeviceEvents(10) > 0) {
  }
  ASSERT_FALSE(rec->Log.empty());
  EXPECT_EQ(rec->Log.back().size(), 1000u);
}

TEST_F(DeviceEngine, QueuedStepReportsCollapseToTheLast) {
  ConnectHalted();
  HoldWorker();
  for (int i = 0; i < 20; ++i) ASSERT_EQ(d->PostStepInst(), 0);
  const U32 Start = fakeprobe::S().PC.load();
  fakeprobe::OpenGate();
  // All steps run before anything is delivered.
  QElapsedTimer t;
  t.start();
  while ((d->IsJobPending(JT_ANY_STEP) || PendingDeviceEvents() < 21) && t.elapsed() < 5000) QThread::msleep(1);
  ASSERT_EQ(d->WaitIdle(5000), 0);
  ASSERT_EQ(rec->Stepped.size(), 1u);
  EXPECT_EQ(rec->Stepped.back(), Start + 40);
}

TEST_F(DeviceEngine, ReportsFollowTheirJobs) {
  ConnectHalted();
  ASSERT_EQ(d->PostExecVordenCmd("Fail"), 0);
  ASSERT_EQ(d->PostExecVordenCmd("Ok"), 0);
  d->WaitAndDeliver(JT_EXEC_VORDEN_CMD, false);
  ASSERT_EQ(d->WaitIdle(5000), 0);
  EXPECT_EQ(rec->ExecFailed, 1);
  EXPECT_EQ(rec->ExecDone, 1);
  EXPECT_TRUE(rec->Logged("Error executing Vorden command \"Fail\": Unknown command"));
  // A muted type reports nothing.
  d->SetMute(JT_EXEC_VORDEN_CMD, true);
  ASSERT_EQ(d->PostExecVordenCmd("Ok"), 0);
  ASSERT_EQ(d->WaitIdle(5000), 0);
  EXPECT_EQ(rec->ExecDone, 1);
  d->SetMute(JT_EXEC_VORDEN_CMD, false);
}

TEST_F(DeviceEngine, ListenersDestroyedDuringDeliveryAreSkipped) {
  struct CSelfDestroying : CDeviceEventListener {
    std::unique_ptr<CDeviceEventListener>* pOther = nullptr;
    int Calls = 0;
    void OnDeviceSetStatusMsg(const char*) override {
      ++Calls;
      pOther->reset();
    }
  };
  struct CCounting : CDeviceEventListener {
    int* pCalls;
    explicit CCounting(int* p) : pCalls(p) {}
    void OnDeviceSetStatusMsg(const char*) override { ++*pCalls; }
  };
  int OtherCalls = 0;
  std::unique_ptr<CDeviceEventListener> Other;
  CSelfDestroying First;
  Other = std::make_unique<CCounting>(&OtherCalls);
  First.pOther = &Other;
  PostDeviceEvent(DEV_EVENT_SET_STATUS_MSG, 0, 0, "status");
  while (DeliverDeviceEvents(10) > 0) {
  }
  EXPECT_EQ(First.Calls, 1);
  EXPECT_EQ(OtherCalls, 0);
  // The freed node is used again.
  CCounting Again(&OtherCalls);
  PostDeviceEvent(DEV_EVENT_SET_STATUS_MSG, 0, 0, "status");
  while (DeliverDeviceEvents(10) > 0) {
  }
  EXPECT_EQ(OtherCalls, 1);
}

// Several threads schedule while the worker runs jobs and this thread
// delivers: every accepted job reports exactly once.
TEST_F(DeviceEngine, ConcurrentSchedulingReportsEveryJobOnce) {
  ConnectHalted();
  constexpr int kThreads = 4, kJobs = 1500;
  std::atomic<int> Accepted{0};
  std::vector<std::thread> Threads;
  for (int t = 0; t < kThreads; ++t)
    Threads.emplace_back([&] {
      for (int i = 0; i < kJobs; ++i)
        if (d->PostReadMem(fakeprobe::kRAM + 4 * (i % 16), 4, 0, AW_WORD, 0, nullptr) == 0) ++Accepted;
    });
  QElapsedTimer t;
  t.start();
  while (rec->ReadMemDone < kThreads * kJobs && t.elapsed() < 60000) {
    if (DeliverDeviceEvents(100) == 0) QThread::yieldCurrentThread();
  }
  for (auto& th : Threads) th.join();
  ASSERT_EQ(d->WaitIdle(10000), 0);
  EXPECT_EQ(Accepted.load(), kThreads * kJobs);
  EXPECT_EQ(rec->ReadMemDone, Accepted.load());
}

}  // namespace
