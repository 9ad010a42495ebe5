// What the parts of the simulated target (system model, channels, trace) need
// from the core that runs the engine: time, registers, and ways to make the
// emulation thread look at them.
#pragma once

#include <cstdlib>
#include <mutex>
#include <string>

#include "common/types.h"

namespace vorden {

class ISimCore {
 public:
  virtual U64 Cycles() const = 0;
  virtual U32 Reg(int UcReg) = 0;
  virtual void SetReg(int UcReg, U32 V) = 0;
  // The emulation thread looks at the system before the next instruction.
  virtual void Attention() = 0;
  // A timed event (SysTick, sampling, power) moved.
  virtual void EventsChanged() = 0;
  // A system reset request (AIRCR.SYSRESETREQ).
  virtual void RequestReset() = 0;
  virtual void Log(int Level, const std::string& sText) = 0;
  // Exception entry and return markers for the trace.
  virtual void TraceMarker(U32 Marker) = 0;
  // The core sleeps in WFI/WFE.
  virtual bool Sleeping() const = 0;
  // Held while the core stands; with it held and the core halted, the
  // emulation thread does not run.
  virtual std::mutex& RunMutex() = 0;
  virtual bool Halted() const = 0;
  // The trace event addresses changed: the address filter is rebuilt.
  virtual void TraceEventsChanged() = 0;

 protected:
  ~ISimCore() = default;
};

// A knob's number: decimal, 0x hex or 0 octal, the whole text, 32 bits.
inline bool ParseKnobU32(const std::string& s, U32& v) {
  if (s.empty()) return false;
  char* end = nullptr;
  unsigned long long x = strtoull(s.c_str(), &end, 0);
  if (*end || x > 0xFFFFFFFFull) return false;
  v = (U32)x;
  return true;
}

}  // namespace vorden
