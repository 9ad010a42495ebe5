// The step test program (firmware/tests/step_main.c) for the step tests and
// the step benchmark: its tagged lines and their addresses from the cross
// readelf, the program and core plug-in loaded as the debugger loads them,
// and the run to a tagged line.
#pragma once
#include "device/device.h"
#include "device/module.h"
#include "disasm/instinstall.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "plugins/corehost.h"
#include "target_support.h"
#include "testsupport/readelf_oracle.h"

#include <QElapsedTimer>
#include <fstream>
#include <map>

namespace steptest {

constexpr const char* kElf = "firmware/tests/elf/step-Og.elf";
// The simulator's model of the MPS2 board runs the program QEMU runs.
inline const devtest::BACKEND kSimMps2{"sim", "MPS2-AN385", "USB", kElf, "", "", 0, false};
inline const devtest::BACKEND kQemuMps2{"qemu", "MPS2-AN385", "IP", kElf, "", "", 0, false};

// The program's facts from its source and the cross readelf.
struct PROGRAM {
  std::map<std::string, int> Tags;  // tag -> line
  std::vector<readelf::LineRow> Rows;
  PROGRAM() {
    std::ifstream f(devtest::SourcePath("firmware/tests/step_main.c").toStdString());
    std::string s;
    for (int n = 1; std::getline(f, s); ++n)
      if (auto a = s.find("/* "), b = s.find(" */"); a != std::string::npos && b > a) Tags[s.substr(a + 3, b - a - 3)] = n;
    for (const readelf::LineRow& r : readelf::DecodedLines(devtest::SourcePath(kElf).toStdString()))
      if (r.File == "step_main.c") Rows.push_back(r);
  }
  int Line(const std::string& sTag) const {
    const auto It = Tags.find(sTag);
    return It == Tags.end() ? -1 : It->second;
  }
  U32 Addr(const std::string& sTag) const {  // "TAG+n": n bytes into the line
    const auto p = sTag.find('+');
    U32 a = ~0u;
    for (const readelf::LineRow& r : Rows)
      if (int(r.Line) == Line(sTag.substr(0, p))) a = std::min(a, r.Addr);
    return a + (p == std::string::npos ? 0 : std::stoi(sTag.substr(p + 1)));
  }
  U32 Symbol(const char* sName) const {
    for (const readelf::Symbol& x : readelf::Symbols(devtest::SourcePath(kElf).toStdString()))
      if (x.Name == sName) return x.Value & ~1u;
    return ~0u;
  }
  int LineAt(U32 Addr) const {  // the row at or below Addr
    U32 Best = 0;
    int Line = -1;
    for (const readelf::LineRow& r : Rows)
      if (r.Addr <= Addr && r.Addr >= Best) Best = r.Addr, Line = int(r.Line);
    return Line;
  }
};
inline const PROGRAM& Program() { static PROGRAM p; return p; }

struct NoProject : ICorePluginProject {
  QString CorePluginPath() const override { return {}; }
  void SetCorePluginPath(const QString&) override {}
  bool DialogsAllowed() const override { return false; }
  QString AskCorePluginFile(const QString&, const QString&, const QString&) override { return {}; }
};

// The device and instruction analysis modules, the program, the ARM plug-in.
inline bool LoadProgramAndPlugin() {
  static NoProject s_Project;
  CORE_SetProject(&s_Project);
  DisasmModule::Install();
  DeviceModule::Install();
  DWARF_Install();
  if (CElfApi::Instance().Load(devtest::SourcePath(kElf)) != 0) return false;
  if (LoadCorePlugin(CORE_CoreOfDevice("MPS2-AN385")) < 0) return false;
  DisasmModule::Sync(true);
  return true;
}

// Until no step runs and a halt is reported; false after 10 s.
inline bool WaitHalted() {
  QElapsedTimer t;
  for (t.start(); t.elapsed() < 10000;)
    if (DeviceModule::WaitUntilIdle(100) == 0 && !Device()->IsSourceStepInProgress() && Device()->HaltReported() &&
        Device()->IsTargetHalted())
      return true;
  return false;
}

// Reset, then run to the first address of a tagged line; true when halted there.
inline bool RunToTag(const char* sTag) {
  const U32 a = Program().Addr(sTag);
  Device()->PostReset(RM_RESET_HALT), Device()->PostSetBP(a, BP_STATE_ON, BP_TYPE_ANY), Device()->PostContinue();
  const bool Ok = DeviceModule::WaitUntilIdle(20000) == 0 && WaitHalted() && Device()->CurrentPC() == a;
  Device()->PostClearBP(a);
  return DeviceModule::WaitUntilIdle(20000) == 0 && Ok;
}

}  // namespace steptest
