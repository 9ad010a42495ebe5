// Helpers for tests and benchmarks that run firmware on the emulator's MPS2
// machines behind its GDB server: start and stop the emulator, load an ELF
// file's program segments, and read symbols from the cross tools' own output.
#pragma once
#include "testsupport/elf_file.h"
#include "testsupport/objdump_oracle.h"
#include "testsupport/tools.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "gdb/gdb_backend.h"

namespace gdbtest {

inline std::string SourceDir() {
  const char* s = getenv("TAVIT_SOURCE_DIR");
  return s ? s : TAVIT_SOURCE_DIR_FALLBACK;
}

// The emulator with its GDB server on a free loopback port: stopped at reset
// and empty by default; given sKernel it loads that program itself (and
// again on every reset), and Running starts it without waiting for a
// debugger.
class Qemu {
 public:
  explicit Qemu(const std::string& sMachine, const std::string& sKernel = "", bool Running = false) {
    port = FreePort();
    std::string gdb = "tcp:127.0.0.1:" + std::to_string(port);
    std::vector<std::string> args = {"qemu-system-arm", "-M", sMachine, "-gdb", gdb, "-display", "none",
                                     "-monitor", "none", "-serial", "null", "-semihosting-config",
                                     "enable=on,target=gdb"};
    if (!Running) args.push_back("-S");
    if (!sKernel.empty()) args.insert(args.end(), {"-kernel", sKernel});
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    pid = fork();
    if (pid == 0) {
      int nul = open("/dev/null", O_RDWR);
      dup2(nul, 0);
      dup2(nul, 1);
      dup2(nul, 2);
      execvp("qemu-system-arm", argv.data());
      _exit(127);
    }
  }
  ~Qemu() { Stop(); }
  void Stop(int Sig = SIGTERM) {
    if (pid <= 0) return;
    kill(pid, Sig);
    int st;
    for (int i = 0; i < 200; ++i) {
      if (waitpid(pid, &st, WNOHANG) == pid) {
        pid = -1;
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid, SIGKILL);
    waitpid(pid, &st, 0);
    pid = -1;
  }
  // Connects the back end, retrying while the emulator starts up.
  std::unique_ptr<vorden::CBackend> Connect(int DeviceIndex, std::string& sError,
                                            vorden::LogFn Log = [](int, const std::string&) {}) {
    for (int i = 0; i < 100; ++i) {
      auto b = vorden::CreateGdbBackend("127.0.0.1:" + std::to_string(port), DeviceIndex, Log, sError);
      if (b) return b;
      int st;
      if (pid > 0 && waitpid(pid, &st, WNOHANG) == pid) {
        pid = -1;
        sError = "the emulator exited";
        return nullptr;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    return nullptr;
  }
  pid_t pid = -1;
  int port = -1;
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
