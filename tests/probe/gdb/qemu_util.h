// Helpers for tests and benchmarks that run firmware on the emulator's MPS2
// machines behind its GDB server: start and stop the emulator, load an ELF
// file's program segments, and read symbols from the cross tools' own output.
#pragma once
#include "testsupport/elf_file.h"
#include "testsupport/objdump_oracle.h"
#include "testsupport/qemu_launch.h"
#include "testsupport/tools.h"

#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <regex>
#include <sstream>

#include "gdb/gdb_backend.h"

namespace gdbtest {

inline std::string SourceDir() {
  const char* s = getenv("TAVIT_SOURCE_DIR");
  return s ? s : TAVIT_SOURCE_DIR_FALLBACK;
}

// The emulator with its GDB server on a loopback port of its own: stopped
// at reset and empty by default; given sKernel it loads that program itself
// (and again on every reset), and Running starts it without waiting for a
// debugger. The constructor returns once the server listens; sStartError
// says why it does not (port is 0 then).
class Qemu : public testsupport::CQemuProcess {
 public:
  explicit Qemu(const std::string& sMachine, const std::string& sKernel = "", bool Running = false) {
    std::vector<std::string> Args = {"-M", sMachine, "-display", "none", "-monitor", "none", "-serial", "null",
                                     "-semihosting-config", "enable=on,target=gdb"};
    if (!Running) Args.push_back("-S");
    if (!sKernel.empty()) Args.insert(Args.end(), {"-kernel", sKernel});
    if (!Start(Args, sStartError)) fprintf(stderr, "%s\n", sStartError.c_str());
  }
  // Connects the back end (the server already listens).
  std::unique_ptr<vorden::CBackend> Connect(int DeviceIndex, std::string& sError,
                                            vorden::LogFn Log = [](int, const std::string&) {}) {
    if (port <= 0) return sError = sStartError, nullptr;
    return vorden::CreateGdbBackend("127.0.0.1:" + std::to_string(port), DeviceIndex, Log, sError);
  }
  std::string sStartError;
};

struct Segment {
  U32 Addr;
  std::string Bytes;
};

// The PT_LOAD segments of a 32-bit little-endian ELF file at their load
// addresses.
inline bool LoadSegments(const std::string& sPath, std::vector<Segment>& Out, U32& Entry) {
  testsupport::ElfFile f;
  if (!f.Load(sPath) || f.Big) return false;
  Entry = f.Entry;
  for (const testsupport::ElfFile::Segment& s : f.Segments)
    Out.push_back({s.Addr, std::string(s.Data.begin(), s.Data.end())});
  return !Out.empty();
}

inline std::string RunTool(const std::string& sCmd) { return RunToolOutput(sCmd); }

// Symbol addresses as the cross tool's nm prints them.
inline std::map<std::string, U32> Symbols(const std::string& sElf) {
  std::map<std::string, U32> m;
  std::istringstream in(RunTool("arm-none-eabi-nm " + sElf));
  std::string line;
  while (std::getline(in, line)) {
    char type;
    unsigned addr;
    char name[256];
    if (sscanf(line.c_str(), "%x %c %255s", &addr, &type, name) == 3) m[name] = addr;
  }
  return m;
}

// A machine of the emulator with the device it models and its firmware.
struct Machine {
  const char* sQemu;
  const char* sDevice;
  const char* sElf;
};
inline void PrintTo(const Machine& m, std::ostream* os) { *os << m.sQemu; }
// The two machines the GDB tests run on, and a test's name for each.
inline const Machine kMps2Machines[] = {{"mps2-an385", "MPS2-AN385", "gdbtest_an385.elf"},
                                        {"mps2-an386", "MPS2-AN386", "gdbtest_an386.elf"}};
inline std::string MachineName(const Machine& m) { return std::string(m.sDevice).substr(5); }

}  // namespace gdbtest
