// The step test program (firmware/tests/step_main.c) for the step tests and
// the step benchmark: its tagged lines, their addresses by the cross readelf
// and the lines of addresses by addr2line; the program and core plug-in
// loaded as the debugger loads them; the run to a tagged line.
#pragma once
#include "device/device.h"
#include "device/loadimage.h"
#include "device/module.h"
#include "disasm/instinstall.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "target_support.h"
#include "testsupport/coreproject.h"
#include "testsupport/readelf_oracle.h"

#include <QElapsedTimer>
#include <fstream>

namespace steptest {

constexpr const char* kElf = "firmware/tests/elf/step-Og.elf";
// The simulator's model of the MPS2 board runs the program QEMU runs.
inline const devtest::BACKEND kSimMps2{"sim", "MPS2-AN385", "USB", kElf, "", "", 0, false};
inline const devtest::BACKEND kQemuMps2{"qemu", "MPS2-AN385", "IP", kElf, "", "", 0, false};

// The number of the line tagged /* Tag */; 0 if none is.
inline int Line(const std::string& sTag) {
  std::ifstream f(devtest::SourcePath("firmware/tests/step_main.c").toStdString());
  std::string s;
  for (int n = 1; std::getline(f, s); ++n)
    if (s.find("/* " + sTag + " */") != std::string::npos) return n;
  return 0;
}
// First address of a tagged line, plus Offset bytes.
inline U32 Addr(const std::string& sTag, U32 Offset = 0) {
  U32 a = ~0u;
  for (const readelf::LineRow& r : readelf::DecodedLines(devtest::SourcePath(kElf).toStdString()))
    if (r.File == "step_main.c" && int(r.Line) == Line(sTag)) a = std::min(a, r.Addr);
  return a + Offset;
}
// The line of an address; 0 where no line row covers it.
inline int LineAt(U32 a) {
  const std::string s = RunToolOutput(
      QStringLiteral("arm-none-eabi-addr2line -e %1 0x%2").arg(devtest::SourcePath(kElf)).arg(a, 0, 16).toStdString());
  return atoi(s.substr(s.rfind(':') + 1).c_str());
}

// The device and instruction analysis modules, the program, the ARM plug-in.
inline bool LoadProgramAndPlugin() {
  static CNoCoreProject s_Project;
  CORE_SetProject(&s_Project);
  DisasmModule::Install();
  DeviceModule::Install();
  DWARF_Install();
  if (CElfApi::Instance().Load(devtest::SourcePath(kElf)) != 0) return false;
  if (LoadCorePlugin(CORE_CoreOfDevice("MPS2-AN385")) < 0) return false;
  DisasmModule::Sync(true);
  return true;
}

// Connects with the project's settings and downloads the program as the
// download command does, ending halted after a reset; false on failure.
inline bool ConnectAndDownload() {
  Device()->PostConnect(CM_DOWNLOAD_RESET);
  if (DeviceModule::WaitUntilIdle(20000) != 0 || !Device()->IsConnected()) return false;
  std::vector<DEV_LOAD_BLOCK> Blocks;
  if (!DEV_ReadLoadSegments(devtest::SourcePath(kElf), &Blocks, nullptr)) return false;
  Device()->PostHalt();
  for (const DEV_LOAD_BLOCK& b : Blocks) {
    const U32 r[2] = {b.LoadAddr, b.LoadAddr + U32(b.Data.size())};
    Device()->PostWriteMemMultiple(1, r, r[1] - r[0], (const U8*)b.Data.constData(), 0, AW_ANY, MEM_FLAG_BEGIN_DOWNLOAD);
  }
  Device()->PostEndDownload("fw", 0), Device()->PostReset(RM_RESET_HALT);
  return DeviceModule::WaitUntilIdle(20000) == 0;
}

// Until no step and no halt sequence runs, a halt is reported and the reports are delivered; false after 10 s.
inline bool WaitHalted() {
  QElapsedTimer t;
  for (t.start(); t.elapsed() < 10000;)
    if (DeviceModule::WaitUntilIdle(100) == 0 && !Device()->IsSourceStepInProgress() && !Device()->IsHaltSeqActive() &&
        Device()->HaltReported() && Device()->IsTargetHalted() && DeviceModule::WaitUntilIdle(100) == 0)
      return true;
  return false;
}

// Reset, then run to the first address of a tagged line; true when halted there.
inline bool RunToTag(const char* sTag) {
  const U32 a = Addr(sTag);
  Device()->PostReset(RM_RESET_HALT), Device()->PostSetBP(a, BP_STATE_ON, BP_TYPE_ANY), Device()->PostContinue();
  const bool Ok = WaitHalted() && Device()->CurrentPC() == a;
  Device()->PostClearBP(a);
  return DeviceModule::WaitUntilIdle(20000) == 0 && Ok;
}

}  // namespace steptest
