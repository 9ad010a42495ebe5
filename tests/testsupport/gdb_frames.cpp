#include "testsupport/gdb_frames.h"

#include "testsupport/qemu_launch.h"
#include "testsupport/tools.h"

#include <fstream>
#include <regex>

namespace testsupport {

std::vector<GDB_FRAME> ParseGdbFrames(const std::string& sText) {
  // "#1  0x0000007c in Recurse (n=0) at unwind.c:29", "#0  Bottom (v=0) at unwind.c:24",
  // "#2  <signal handler called>"
  static const std::regex Head(R"(^#(\d+)\s+(?:0x([0-9a-f]+) in )?(<signal handler called>|[^ (]+)(?: \(.*\))?(?: at ([^ ]+):(\d+))?\s*$)");
  static const std::regex Level(R"(^Stack level (\d+), frame at 0x([0-9a-f]+):)");
  static const std::regex Pc(R"(^ pc = 0x([0-9a-f]+)(?:[^;]*)(?:; saved pc = (?:0x([0-9a-f]+)|.*))?)");
  std::map<int, GDB_FRAME> Frames;
  int Current = -1;
  for (const std::string& Line : SplitLines(sText)) {
    std::smatch m;
    if (std::regex_match(Line, m, Head)) {
      GDB_FRAME& f = Frames[std::stoi(m[1])];
      f.level = std::stoi(m[1]);
      if (m[2].matched) f.pc = std::stoull(m[2], nullptr, 16);
      f.signal = m[3] == "<signal handler called>";
      if (!f.signal) f.function = m[3];
      if (m[4].matched) f.file = m[4], f.line = std::stoi(m[5]);
      Current = -1;
    } else if (std::regex_search(Line, m, Level)) {
      Current = std::stoi(m[1]);
      GDB_FRAME& f = Frames[Current];
      f.level = Current;
      f.cfa = std::stoull(m[2], nullptr, 16);
      f.hasCfa = true;
    } else if (Current >= 0 && std::regex_search(Line, m, Pc)) {
      GDB_FRAME& f = Frames[Current];
      f.pc = std::stoull(m[1], nullptr, 16);
      f.hasSavedPc = m[2].matched;
      if (f.hasSavedPc) f.savedPc = std::stoull(m[2], nullptr, 16);
    } else if (Current >= 0 && Line.find(" inlined into frame") == 0) {
      Frames[Current].inlined = true;
    } else if (Current >= 0 && Line.find(" tail call frame") == 0) {
      Frames[Current].tailCall = true;
    }
  }
  std::vector<GDB_FRAME> Out;
  for (const auto& [Level, f] : Frames) Out.push_back(f);
  return Out;
}

std::vector<std::map<std::string, std::string>> ParseGdbFrameVariables(const std::string& sText) {
  static const std::regex Head(R"(^#(\d+)\s+(?:0x[0-9a-f]+ in )?(\S+)(.*)$)");
  static const std::regex Var(R"(^([A-Za-z_]\w*) = (.*)$)");
  std::vector<std::map<std::string, std::string>> Out;
  for (const std::string& Line : SplitLines(sText)) {
    std::smatch m;
    if (std::regex_match(Line, m, Head)) {
      if (Line.find("<signal handler called>") != std::string::npos) break;
      Out.resize(size_t(std::stoi(m[1])) + 1);
      Out.back()[""] = m[2];
    } else if (!Out.empty() && std::regex_match(Line, m, Var)) {
      Out.back()[m[1]] = m[2];
    }
  }
  return Out;
}

std::map<std::string, std::string> SplitAtMarkers(const std::string& sOut) {
  std::map<std::string, std::string> Out;
  std::string Name;
  for (const std::string& Line : SplitLines(sOut)) {
    if (Line.rfind("@@", 0) == 0) {
      Name = Line.substr(2);
      Out[Name];
      continue;
    }
    Out[Name] += Line + "\n";
  }
  return Out;
}

std::string MarkedLine(const std::string& sSourceDir, const std::string& sFile, const std::string& sMark) {
  std::ifstream f(sSourceDir + "/firmware/tests/" + sFile);
  std::string s;
  for (int n = 1; std::getline(f, s); ++n)
    if (s.find(sMark) != std::string::npos) return sFile + ":" + std::to_string(n);
  return sFile + ":0";
}

std::string RunGdbOnQemu(const std::string& sElf, const std::string& sCommands, const std::string& sScratch,
                         int TimeoutS) {
  CQemuProcess Qemu;
  std::string sError;
  if (!Qemu.Start({"-M", "mps2-an385", "-kernel", sElf, "-S", "-display", "none", "-monitor", "none", "-serial", "null"},
                  sError))
    return "emulator: " + sError + "\n";
  const std::string Script = sScratch + ".gdb";
  std::ofstream(Script) << "set pagination off\nset confirm off\ntarget remote 127.0.0.1:" << Qemu.port << "\n"
                        << sCommands << "kill\n";
  return RunToolOutput("timeout " + std::to_string(TimeoutS) + " gdb-multiarch -batch -nx -x " + Script + " " + sElf +
                       " 2>&1");
}

}  // namespace testsupport
