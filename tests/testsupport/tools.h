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

// A loopback port that is free now, for a server the test starts; -1 when
// none could be had.
inline int FreePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  int port = -1;
  if (bind(fd, (sockaddr*)&a, sizeof a) == 0 && getsockname(fd, (sockaddr*)&a, &len) == 0) port = ntohs(a.sin_port);
  close(fd);
  return port;
}
