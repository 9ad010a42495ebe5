// gdb-multiarch as the oracle of call stacks: a program run on the emulator's
// MPS2 machine under gdb from a command file, and the parser of what gdb
// prints for "frame apply all info frame" at each stop.
#pragma once
#include <cstdint>

#include <map>
#include <string>
#include <vector>

namespace testsupport {

struct GDB_FRAME {
  int level = -1;
  std::string function;  // empty for a frame without symbols
  uint64_t pc = 0;
  uint64_t cfa = 0;           // "frame at"
  bool hasCfa = false;        // "info frame" answered for this frame
  uint64_t savedPc = 0;
  bool hasSavedPc = false;
  std::string file;      // file name as gdb prints it
  int line = 0;
  bool inlined = false;  // "inlined into frame"
  bool signal = false;   // the frame of an exception entry ("<signal handler called>")
  bool tailCall = false; // "tail call frame": gdb's guess from call-site information
};

// The frames of one "bt" and "frame apply all -s info frame" output,
// innermost first (a frame whose "info frame" failed has no CFA).
std::vector<GDB_FRAME> ParseGdbFrames(const std::string& sText);

// The variables gdb prints with "frame apply all info args" (or "info
// locals"), by frame level: "name = value" lines below each "#N ..." frame
// line, and the frame's function under the empty name; entry values
// ("n@entry = 3") and the lines of a value that spans several are left out.
// A frame at "<signal handler called>" ends the list.
std::vector<std::map<std::string, std::string>> ParseGdbFrameVariables(const std::string& sText);

// Output split at marker lines "@@NAME" (echo @@NAME\n in the command file):
// the text after each marker, by name. Text before the first marker is "".
std::map<std::string, std::string> SplitAtMarkers(const std::string& sOut);

// "file.c:N" of the first line of firmware/tests/<sFile> (under sSourceDir)
// that holds sMark: the break location text of a marked stop place.
std::string MarkedLine(const std::string& sSourceDir, const std::string& sFile, const std::string& sMark);

// Starts the emulator's MPS2-AN385 machine halted with the program, runs gdb
// with the commands (after "target remote" to it) and returns its output,
// standard error included. The emulator is stopped afterwards.
std::string RunGdbOnQemu(const std::string& sElf, const std::string& sCommands, const std::string& sScratch,
                         int TimeoutS = 60);

}  // namespace testsupport
