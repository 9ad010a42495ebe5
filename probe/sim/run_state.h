// The run state of the simulated core. Every change goes through To(), which
// allows only the transitions listed in Allowed() and is atomic, so the debug
// path (Go, Step, Halt, Reset) and the emulation thread (and its hooks) never
// overwrite each other's change.
#pragma once

#include <atomic>

namespace vorden {

enum class RunState : unsigned char {
  Halted,    // the core stands; the debug path may use the engine
  LockedUp,  // halted by a fault that cannot be escalated; only a reset leaves it
  Step,      // one instruction at the PC with interrupts masked, then Halted
  StepOver,  // the same, ignoring a breakpoint at the PC, then Running
  Running,
  Sleeping,  // in WFI/WFE: target time jumps to the next timed event
  Halting,   // a halt was requested; the core stops before its next instruction
  Quit,      // the emulation thread ends
};

class CRunState {
 public:
  static constexpr bool Allowed(RunState From, RunState To) {
    switch (From) {
      case RunState::Halted:
        return To == RunState::Running || To == RunState::StepOver || To == RunState::Step || To == RunState::Quit;
      case RunState::LockedUp:
        return To == RunState::Halted || To == RunState::Quit;
      case RunState::Step:
        return To == RunState::Halted || To == RunState::LockedUp || To == RunState::Halting;
      case RunState::StepOver:
        return To == RunState::Running || To == RunState::Sleeping || To == RunState::Halted ||
               To == RunState::LockedUp || To == RunState::Halting;
      case RunState::Running:
        return To == RunState::Sleeping || To == RunState::Halted || To == RunState::LockedUp ||
               To == RunState::Halting;
      case RunState::Sleeping:
        return To == RunState::Running || To == RunState::Halted || To == RunState::LockedUp ||
               To == RunState::Halting;
      case RunState::Halting:
        return To == RunState::Halted || To == RunState::LockedUp;
      case RunState::Quit:
        return false;
    }
    return false;
  }

  RunState Get() const { return m_s.load(std::memory_order_acquire); }
  bool Is(RunState S) const { return Get() == S; }
  bool Stands() const {
    RunState s = Get();
    return s == RunState::Halted || s == RunState::LockedUp;
  }
  // One instruction still to execute with interrupts masked.
  bool Stepping() const {
    RunState s = Get();
    return s == RunState::Step || s == RunState::StepOver;
  }

  // false when the current state does not lead to Next (nothing changes).
  bool To(RunState Next) {
    RunState cur = m_s.load(std::memory_order_acquire);
    for (;;) {
      if (cur == Next) return true;
      if (!Allowed(cur, Next)) return false;
      if (m_s.compare_exchange_weak(cur, Next, std::memory_order_acq_rel)) return true;
    }
  }
  // Only from the given state (a hook's change that a concurrent halt wins).
  bool From(RunState Cur, RunState Next) {
    return Allowed(Cur, Next) && m_s.compare_exchange_strong(Cur, Next, std::memory_order_acq_rel);
  }

 private:
  std::atomic<RunState> m_s{RunState::Halted};
};

}  // namespace vorden
