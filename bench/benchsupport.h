// What the target benchmarks share: medians, waiting with the event loop
// running, a clock stamped by the device's step report, and a command run as
// a script runs it.
#pragma once
#include "commands/actions.h"
#include "device/listener.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <algorithm>
#include <functional>
#include <vector>

namespace bench {

inline double Median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  return v[v.size() / 2];
}

// Runs the event loop until Done, at most Ms; whether it is done.
inline bool WaitFor(const std::function<bool()>& Done, int Ms = 5000) {
  QElapsedTimer t;
  t.start();
  while (!Done() && t.elapsed() < Ms) QCoreApplication::processEvents(QEventLoop::AllEvents, 1);
  return Done();
}

// Stamps the step report before any window sees it (listeners are called in
// the order they were made).
struct STEP_CLOCK : CDeviceEventListener {
  QElapsedTimer t;
  int n = 0;
  void OnDeviceStepped(U32) override {
    t.start();
    ++n;
  }
};

// Runs a command as a script would and waits for it; its result.
inline I64 Run(int Id, const QVariant& a = {}) {
  ExecAction(Id, a);
  WaitForCommand(Id);
  return GetActionResult(Id);
}

// Chooses the target, connects, downloads the program and resets, as a
// project and Exec commands would; false when one of them failed.
inline bool StartTarget(const char* sDevice, const char* sHostIF, const QString& sIdent, const QString& sProgram) {
  ExecAction(AID_PROJECT_SET_DEVICE, sDevice);
  ExecAction(AID_PROJECT_SET_HOST_IF, sHostIF, sIdent);
  ExecAction(AID_PROJECT_SET_TARGET_IF, "SWD");
  return Run(AID_EXEC_CONNECT) == 0 && Run(AID_EXEC_DOWNLOAD, sProgram) == 0 && Run(AID_EXEC_RESET) == 0;
}

}  // namespace bench
