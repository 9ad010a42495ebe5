// Run control: the halt poll, the halt sequence, resume, halt, reset,
// run-to and the instruction step, and the notification words.
#include "device/device.h"

#include "device/events.h"

#include <QElapsedTimer>

namespace {

qint64 NowMs() {
  static QElapsedTimer t = [] {
    QElapsedTimer e;
    e.start();
    return e;
  }();
  return t.elapsed();
}

}  // namespace

// ---- halt state (the poll; the full halt sequence comes with run control)

void CDevice::CheckHandleHalt() {
  if (!m_bConnected.load() || !ProbeOpen()) return;
  const qint64 Now = NowMs();
  if (m_bRunning.load()) {
    if (Now - m_LastHaltPollMs < 50) return;
    m_LastHaltPollMs = Now;
    const int r = m_Probe.VORDENARM_IsHalted();
    if (r < 0) return OnInvalidHaltStatus();
    if (r == 0) return;
    OnHaltDetected(true);
    return;
  }
  if (m_bHalted.load() && Now - m_LastRunCheckMs >= 5000) {
    m_LastRunCheckMs = Now;
    const int r = m_Probe.VORDENARM_IsHalted();
    if (r < 0) return OnInvalidHaltStatus();
    if (r == 0) {
      m_bRunning.store(true);
      m_bHalted.store(false);
      m_bHaltReported.store(false);
      PostJobEvent(JT_CONTINUE, 0, RESUME_CONTINUE, 0, 0);
    }
  }
}

void CDevice::OnHaltDetected(bool Report) {
  m_bRunning.store(false);
  m_bHalted.store(true);
  U64 Pc = 0;
  ReadReg(VORDENARM_REG_PC, &Pc);
  m_PC.store(U32(Pc));
  if (!m_bReportHalts.load()) return;
  m_bHaltReported.store(true);
  if (Report) PostJobEvent(JT_HALT, 0, 0, I64(U32(Pc)), HALT_REASON_PLAIN);
  else m_bHaltReportDue = true;
}

void CDevice::OnInvalidHaltStatus() {
  m_bConnectionLost.store(true);
  CancelJobs(JT_ALL, QUEUE_SEL_ALL);
  PostDeviceEvent(DEV_EVENT_CONNECTION_LOST);
}

void CDevice::ResetState() {
  m_bHalted.store(false);
  m_bHaltReported.store(false);
  m_bRunning.store(false);
  m_bSourceStep.store(false);
  m_PC.store(0);
}

int CDevice::Halt() {
  if (!m_bConnected.load()) return -1;
  if (m_Probe.VORDENARM_Halt() != 0) {
    DeviceLogError("Halt: VORDEN API call failed");
    return -1;
  }
  m_bReportHalts.store(true);
  OnHaltDetected(true);
  return 0;
}

int CDevice::Continue() {
  if (!m_bConnected.load()) return -1;
  m_Probe.VORDENARM_GoEx(0, VORDENARM_GO_FLAG_OVERSTEP_BP);
  m_bHalted.store(false);
  m_bHaltReported.store(false);
  m_bRunning.store(true);
  m_LastHaltPollMs = NowMs();
  return 0;
}

int CDevice::StepInst() {
  if (!m_bConnected.load() || !m_bHalted.load()) return -1;
  if (m_Probe.VORDENARM_Step() != 0) {
    DeviceLogError("Step: VORDEN API call failed");
    return -1;
  }
  U64 Pc = 0;
  ReadReg(VORDENARM_REG_PC, &Pc);
  m_PC.store(U32(Pc));
  m_bHaltReported.store(true);
  return 0;
}

int CDevice::Reset(RESET_MODES) {
  if (!m_bConnected.load()) return -1;
  if (m_Probe.VORDENARM_Reset() != 0) {
    DeviceLogError("Reset: VORDEN API call failed");
    return -1;
  }
  m_bRunning.store(false);
  m_bHalted.store(true);
  U64 Pc = 0;
  ReadReg(VORDENARM_REG_PC, &Pc);
  m_PC.store(U32(Pc));
  m_bReportHalts.store(true);
  m_bHaltReported.store(true);
  return 0;
}

void CDevice::SetReportHalts(bool On) { m_bReportHalts.store(On); }

DEVICE_EXEC_STATE CDevice::ExecState() const {
  std::lock_guard<std::mutex> g(m_ExecMx);
  return m_Exec;
}

void CDevice::SetReturnAddr(U64 Addr) {
  std::lock_guard<std::mutex> g(m_ExecMx);
  m_Exec.ReturnAddr = Addr;
  m_Exec.ReturnAddrStatus = EXEC_STATUS_VALID;
}
