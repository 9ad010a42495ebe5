// The emulator as a child process of a test or benchmark, with its GDB server
// on a loopback port that the kernel gives it when it binds. No port is
// chosen before the start, so no other process (another test's emulator, an
// outgoing connection's ephemeral port) can take it in between; the port is
// read from /proc once the emulator's own socket listens.
#pragma once
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

// The inodes of the sockets process Pid has open.
inline std::set<unsigned long> SocketInodes(pid_t Pid) {
  std::set<unsigned long> Inodes;
  const std::string sDir = "/proc/" + std::to_string(Pid) + "/fd";
  DIR* d = opendir(sDir.c_str());
  if (!d) return Inodes;
  while (dirent* e = readdir(d)) {
    char Link[64];
    const ssize_t n = readlink((sDir + "/" + e->d_name).c_str(), Link, sizeof Link - 1);
    if (n <= 0) continue;
    Link[n] = 0;
    unsigned long Inode;
    if (sscanf(Link, "socket:[%lu]", &Inode) == 1) Inodes.insert(Inode);
  }
  closedir(d);
  return Inodes;
}

// The TCP port on which process Pid listens (the first in /proc/net/tcp and
// tcp6 order); 0 while it has none.
inline int ListeningPort(pid_t Pid) {
  const std::set<unsigned long> Inodes = SocketInodes(Pid);
  if (Inodes.empty()) return 0;
  for (const char* sTable : {"/proc/net/tcp", "/proc/net/tcp6"}) {
    std::ifstream f(sTable);
    std::string sLine;
    std::getline(f, sLine);  // the column heads
    while (std::getline(f, sLine)) {
      // "  0: 0100007F:9E1F 00000000:0000 0A 00000000:00000000 00:00000000 00000000  0  0 1197265 ..."
      std::istringstream in(sLine);
      std::string sSlot, sLocal, sRemote, sState, sQueues, sTimer, sRetr, sUid, sTimeout;
      unsigned long Inode = 0;
      if (!(in >> sSlot >> sLocal >> sRemote >> sState >> sQueues >> sTimer >> sRetr >> sUid >> sTimeout >> Inode)) continue;
      const size_t Colon = sLocal.rfind(':');
      if (sState == "0A" && Colon != std::string::npos && Inodes.count(Inode))
        return int(strtol(sLocal.c_str() + Colon + 1, nullptr, 16));
    }
  }
  return 0;
}

class CQemuProcess {
 public:
  CQemuProcess() = default;
  CQemuProcess(const CQemuProcess&) = delete;
  CQemuProcess& operator=(const CQemuProcess&) = delete;
  ~CQemuProcess() {
    Stop();
    if (!m_sErrFile.empty()) unlink(m_sErrFile.c_str());
  }

  // Starts qemu-system-arm with Args (all but -gdb, which is added) and
  // waits until its GDB server listens, at most TimeoutMs: on a loaded
  // machine the start can take seconds. False, with the reason and what the
  // emulator wrote to standard error, when it exited or did not listen.
  bool Start(const std::vector<std::string>& Args, std::string& sError, int TimeoutMs = 60000) {
    Stop();
    port = 0;
    std::vector<std::string> All = {"qemu-system-arm", "-gdb", "tcp:127.0.0.1:0"};
    All.insert(All.end(), Args.begin(), Args.end());
    std::vector<char*> Argv;
    for (std::string& a : All) Argv.push_back(a.data());
    Argv.push_back(nullptr);
    const int ErrFd = OpenErrFile();
    pid = fork();
    if (pid == 0) {
      const int Nul = open("/dev/null", O_RDWR);
      dup2(Nul, 0), dup2(Nul, 1), dup2(ErrFd >= 0 ? ErrFd : Nul, 2);
      // Nothing of the test's own (its servers' sockets above all) goes along.
      close_range(3, ~0u, 0);
      execvp(Argv[0], Argv.data());
      _exit(127);
    }
    if (ErrFd >= 0) close(ErrFd);
    if (pid < 0) return sError = "cannot fork the emulator", false;
    const auto Deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(TimeoutMs);
    for (int Wait = 2;; Wait = std::min(Wait * 2, 50)) {
      if ((port = ListeningPort(pid)) > 0) return true;
      int St = 0;
      if (waitpid(pid, &St, WNOHANG) == pid) {
        pid = -1;
        sError = (WIFEXITED(St) && WEXITSTATUS(St) == 127 ? "qemu-system-arm could not be run"
                                                          : "the emulator exited before its GDB server listened") +
                 ErrText();
        return false;
      }
      if (std::chrono::steady_clock::now() > Deadline) {
        Stop(SIGKILL);
        sError = "the emulator's GDB server did not listen within " + std::to_string(TimeoutMs) + " ms" + ErrText();
        return false;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(Wait));
    }
  }

  // Ends the emulator with Sig (SIGKILL when it has not gone 2 s later).
  void Stop(int Sig = SIGTERM) {
    if (pid <= 0) return;
    kill(pid, Sig);
    kill(pid, SIGCONT);  // a stopped process ends only once it runs
    int St;
    for (int i = 0; i < 200; ++i) {
      if (waitpid(pid, &St, WNOHANG) == pid) return void(pid = -1);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid, SIGKILL);
    waitpid(pid, &St, 0);
    pid = -1;
  }

  pid_t pid = -1;
  int port = 0;

 private:
  int OpenErrFile() {
    if (m_sErrFile.empty()) {
      const char* sTmp = getenv("TAVIT_TEST_TMP");
      std::string sTemplate = std::string(sTmp && *sTmp ? sTmp : "/tmp") + "/qemu-stderr-XXXXXX";
      const int Fd = mkstemp(sTemplate.data());
      if (Fd < 0) return -1;
      m_sErrFile = sTemplate;
      return Fd;
    }
    return open(m_sErrFile.c_str(), O_WRONLY | O_TRUNC);
  }
  std::string ErrText() const {
    std::ifstream f(m_sErrFile);
    std::string s((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
    return s.empty() ? std::string() : ": " + s.substr(0, 600);
  }
  std::string m_sErrFile;
};

}  // namespace testsupport
