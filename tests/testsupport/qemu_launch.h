// The emulator as a child process of a test or benchmark, with its GDB server
// on a loopback port that the kernel gives it when it binds. No port is
// chosen before the start, so no other process (another test's emulator, an
// outgoing connection's ephemeral port) can take it in between; the port is
// read from /proc once the emulator's own socket listens.
#pragma once
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

// The TCP port on which process Pid listens; 0 while it has none.
inline int ListeningPort(pid_t Pid) {
  std::set<unsigned long> Inodes;  // of the process's sockets
  std::error_code Ec;
  for (const auto& e : std::filesystem::directory_iterator("/proc/" + std::to_string(Pid) + "/fd", Ec))
    if (unsigned long Inode; sscanf(std::filesystem::read_symlink(e, Ec).c_str(), "socket:[%lu]", &Inode) == 1)
      Inodes.insert(Inode);
  for (const char* sTable : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream f(sTable);
    // "0: 0100007F:9E1F 00000000:0000 0A 00000000:00000000 00:00000000 00000000 0 0 1197265 ..."
    unsigned Port, State;
    unsigned long Inode;
    for (std::string s; std::getline(f, s);)
      if (sscanf(s.c_str(), " %*s %*[0-9A-F]:%x %*s %x %*s %*s %*s %*s %*s %lu", &Port, &State, &Inode) == 3 &&
          State == 0x0A && Inodes.count(Inode))
        return int(Port);
  }
  return 0;
}

class CQemuProcess {
 public:
  CQemuProcess() = default;
  CQemuProcess(const CQemuProcess&) = delete;
  CQemuProcess& operator=(const CQemuProcess&) = delete;
  ~CQemuProcess() { Stop(), unlink(ErrFile().c_str()); }

  // Starts qemu-system-arm with Args (all but -gdb, which is added) and
  // waits until its GDB server listens, at most TimeoutMs: on a loaded
  // machine the start can take seconds. False, with the reason and what the
  // emulator wrote to standard error, when it exited or did not listen.
  bool Start(const std::vector<std::string>& Args, std::string& sError, int TimeoutMs = 60000) {
    Stop();
    std::vector<std::string> All = {"qemu-system-arm", "-gdb", "tcp:127.0.0.1:0"};
    All.insert(All.end(), Args.begin(), Args.end());
    std::vector<char*> Argv;
    for (std::string& a : All) Argv.push_back(a.data());
    Argv.push_back(nullptr);
    const std::string sErrFile = ErrFile();
    if ((pid = fork()) == 0) {
      const int Nul = open("/dev/null", O_RDWR), Err = open(sErrFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      dup2(Nul, 0), dup2(Nul, 1), dup2(Err >= 0 ? Err : Nul, 2);
      close_range(3, ~0u, 0);  // nothing of the test's own (its servers' sockets) goes along
      execvp(Argv[0], Argv.data());
      _exit(127);
    }
    const auto Deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(TimeoutMs);
    for (int Wait = 2; pid > 0; Wait = std::min(Wait * 2, 50)) {
      if ((port = ListeningPort(pid)) > 0) return true;
      if (int St; waitpid(pid, &St, WNOHANG) == pid) {
        pid = -1;
        return sError = (WIFEXITED(St) && WEXITSTATUS(St) == 127 ? "qemu-system-arm could not be run"
                                                                 : "the emulator exited before its GDB server listened") + ErrText(), false;
      }
      if (std::chrono::steady_clock::now() > Deadline) {
        Stop(SIGKILL);
        return sError = "the emulator's GDB server did not listen within " + std::to_string(TimeoutMs) + " ms" + ErrText(), false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(Wait));
    }
    return sError = "cannot fork the emulator", false;
  }

  // Ends the emulator with Sig (SIGKILL when it has not gone 2 s later).
  void Stop(int Sig = SIGTERM) {
    if (pid <= 0) return;
    kill(pid, Sig), kill(pid, SIGCONT);  // a stopped process ends only once it runs
    int St;
    for (int i = 0; i < 200; ++i, std::this_thread::sleep_for(std::chrono::milliseconds(10)))
      if (waitpid(pid, &St, WNOHANG) == pid) return void(pid = -1);
    kill(pid, SIGKILL), waitpid(pid, &St, 0);
    pid = -1;
  }

  pid_t pid = -1;
  int port = 0;

 private:
  // The emulator's standard error, beside the test's other scratch files.
  std::string ErrFile() const {
    const char* sTmp = getenv("TAVIT_TEST_TMP");
    return std::string(sTmp && *sTmp ? sTmp : "/tmp") + "/qemu-" + std::to_string(getpid()) + "-" +
           std::to_string(reinterpret_cast<uintptr_t>(this)) + ".err";
  }
  std::string ErrText() const {
    std::ifstream f(ErrFile());
    std::string s((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    while (!s.empty() && isspace((unsigned char)s.back())) s.pop_back();
    return s.empty() ? s : ": " + s.substr(0, 600);
  }
};

}  // namespace testsupport
