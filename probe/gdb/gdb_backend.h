// The GDB remote serial protocol back end of the probe library: any GDB
// server (an emulator's built-in stub, a probe's GDB server) becomes a
// target. Selected by the "IP" host interface with "host[:port]".
//
// Behaviour that differs from the built-in simulator:
//  - memory access while the target runs interrupts it, accesses and resumes
//    (background access mode 2); that stop is never reported as a halt;
//  - watchpoints that stop before the access are stepped past, so a data
//    event stops after the writing instruction as on the simulator;
//  - registers the server does not describe read as "not readable";
//  - semihosting File-I/O requests of the server appear as a halt at the
//    BKPT 0xAB with R0/R1 as the target set them; the caller serves it the
//    usual way (result into R0, PC past the BKPT) and resumes;
//  - trace, SWO, terminal, sampling and power are not supported.
//
// ExecCommand knobs: "GdbResetCommand = <monitor command>" (default
// "system_reset"; "reset halt" for servers that take that), "GdbTimeout =
// <ms>" (every wait for the server; default 2000), "GdbMonitor = <command>"
// (any monitor command, output to the log), "GdbKill" (ends the target on
// the server side and the connection with it).
#pragma once

#include <memory>
#include <string>

#include "backend.h"

namespace vorden {

constexpr int GDB_DEFAULT_PORT = 3333;

// Connects to a GDB server at "host[:port]" (port 3333 when none is given)
// and reads its capabilities and register layout. Null with sError set when
// the server cannot be reached or does not answer like a GDB server.
std::unique_ptr<CBackend> CreateGdbBackend(const std::string& sHostPort, int DeviceIndex, LogFn Log,
                                           std::string& sError);

// The same over an already connected stream socket, which the back end then
// owns (tests drive it through a socket pair).
std::unique_ptr<CBackend> CreateGdbBackendOnSocket(int Fd, int DeviceIndex, LogFn Log, std::string& sError,
                                                   int TimeoutMs = 2000);

}  // namespace vorden
