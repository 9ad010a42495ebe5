#include "testsupport/gdb_frames.h"

#include "testsupport/tools.h"

#include <fstream>
#include <regex>

namespace testsupport {

std::vector<GDB_FRAME> ParseGdbFrames(const std::string& sText) {
  static const std::regex Level(R"(^Stack level (\d+), frame at 0x([0-9a-f]+):)");
  static const std::regex Pc(R"(^ pc = 0x([0-9a-f]+)(?: in ([^ ;(]+))?(?: \(([^:()]+):(\d+)\))?(?:; saved pc = (?:0x([0-9a-f]+)|.*))?)");
  std::vector<GDB_FRAME> Frames;
  bool SignalNext = false;
  for (const std::string& Line : SplitLines(sText)) {
    std::smatch m;
    if (Line.rfind("#", 0) == 0) {
      SignalNext = Line.find("<signal handler called>") != std::string::npos;
    } else if (std::regex_search(Line, m, Level)) {
      GDB_FRAME f;
      f.level = std::stoi(m[1]);
      f.cfa = std::stoull(m[2], nullptr, 16);
      f.signal = SignalNext;
      Frames.push_back(f);
    } else if (!Frames.empty() && std::regex_search(Line, m, Pc)) {
      GDB_FRAME& f = Frames.back();
      f.pc = std::stoull(m[1], nullptr, 16);
      f.function = m[2];
      f.file = m[3];
      f.line = m[4].matched ? std::stoi(m[4]) : 0;
      f.hasSavedPc = m[5].matched;
      if (f.hasSavedPc) f.savedPc = std::stoull(m[5], nullptr, 16);
    } else if (!Frames.empty() && Line.find(" inlined into frame") == 0) {
      Frames.back().inlined = true;
    }
  }
  return Frames;
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

std::map<int, uint64_t> ParseGdbBreakpoints(const std::string& sOut) {
  static const std::regex Bp(R"(^Breakpoint (\d+) at 0x([0-9a-f]+))");
  std::map<int, uint64_t> Out;
  for (const std::string& Line : SplitLines(sOut)) {
    std::smatch m;
    if (std::regex_search(Line, m, Bp)) Out[std::stoi(m[1])] = std::stoull(m[2], nullptr, 16);
  }
  return Out;
}

std::string RunGdbOnQemu(const std::string& sElf, const std::string& sCommands, const std::string& sScratch,
                         int TimeoutS) {
  const int Port = FreePort();
  const std::string Script = sScratch + ".gdb";
  std::ofstream(Script) << "set pagination off\nset confirm off\ntarget remote 127.0.0.1:" << Port << "\n"
                        << sCommands << "kill\n";
  return RunToolOutput("qemu-system-arm -M mps2-an385 -kernel " + sElf + " -S -gdb tcp:127.0.0.1:" +
                       std::to_string(Port) +
                       " -display none -monitor none -serial null >/dev/null 2>&1 & Q=$!; sleep 0.5; timeout " +
                       std::to_string(TimeoutS) + " gdb-multiarch -batch -nx -x " + Script + " " + sElf +
                       " 2>&1; kill $Q 2>/dev/null; wait $Q 2>/dev/null");
}

}  // namespace testsupport
