// Running the oracle tools (readelf, objdump, nm, gdb) from tests: the
// command's standard output as text, and its lines.
#pragma once
#include <stdio.h>
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
