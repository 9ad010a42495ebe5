// Running the oracle tools (readelf, objdump, nm, gdb, the emulator) from
// tests: the command's standard output as text, and its lines.
#pragma once
#include <arpa/inet.h>
#include <netinet/in.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>
#include <string>
#include <vector>

// Runs a shell command and returns what it wrote to standard output (append
// " 2>&1" to the command to take standard error too). Empty when it could not
// be started.
inline std::string RunToolOutput(const std::string& sCmd) {
  std::string Out;
  FILE* p = popen(sCmd.c_str(), "r");
  if (!p) return Out;
  char Buf[65536];
  size_t n;
  while ((n = fread(Buf, 1, sizeof Buf, p)) > 0) Out.append(Buf, n);
  pclose(p);
  return Out;
}

// The lines of a tool's output, without their line ends.
inline std::vector<std::string> SplitLines(const std::string& s) {
  std::vector<std::string> Lines;
  size_t Pos = 0;
  while (Pos < s.size()) {
    size_t End = s.find('\n', Pos);
    if (End == std::string::npos) End = s.size();
    Lines.push_back(s.substr(Pos, End - Pos));
    Pos = End + 1;
  }
  return Lines;
}

// Runs gdb-multiarch in batch mode over a file with the commands in order;
// returns what it printed, standard error included.
inline std::string RunGdb(const std::string& sFile, const std::vector<std::string>& Commands) {
  std::string Cmd = "gdb-multiarch -nx -batch";
  for (std::string c : Commands) {
    for (size_t p = 0; (p = c.find('\'', p)) != std::string::npos; p += 4) c.replace(p, 1, "'\\''");
    Cmd += " -ex '" + c + "'";
  }
  return RunToolOutput(Cmd + " '" + sFile + "' 2>&1");
}

// A loopback port that refuses connections for as long as this lives: a
// socket bound to it that never listens, so no other process can take the
// port meanwhile. Port() is -1 when none could be had.
class CClosedPort {
 public:
  CClosedPort() {
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (m_fd >= 0 && bind(m_fd, (sockaddr*)&a, sizeof a) == 0 && getsockname(m_fd, (sockaddr*)&a, &len) == 0)
      m_port = ntohs(a.sin_port);
  }
  ~CClosedPort() {
    if (m_fd >= 0) close(m_fd);
  }
  CClosedPort(const CClosedPort&) = delete;
  CClosedPort& operator=(const CClosedPort&) = delete;
  int Port() const { return m_port; }

 private:
  int m_fd = -1, m_port = -1;
};
