// A device test on one back end: the rig, the project's connection settings
// with the probe's call log, a download as the download command does it, and
// waits for halts that deliver the reports meanwhile.
#pragma once
#include "device/device.h"
#include "device/loadimage.h"
#include "device/module.h"
#include "device/projectsettings.h"
#include "target_support.h"
#include "testsupport/readelf_oracle.h"

#include <QElapsedTimer>

namespace devtest {

class CDeviceFixture : public ::testing::TestWithParam<BACKEND> {
 protected:
  void SetUp() override {
    const BACKEND& b = GetParam();
    if (QString(b.sHostIF) == "IP" && !CTargetRig::HaveQemu()) GTEST_SKIP() << "no qemu-system-arm";
    Rig = std::make_unique<CTargetRig>(b);
    IDeviceProjectSettings& p = DeviceModule::ProjectSettings();
    p.SetDevice(b.sDevice), p.SetHostIF(b.sHostIF, Rig->Ident()), p.SetTargetIF("SWD"), p.SetLogFile(Dir.filePath("calls.log"));
  }
  void TearDown() override {
    if (!Rig) return;
    Device()->PostClearAllBPs(), Device()->PostClearAllWPs(), Device()->PostClearAllTPs(), Device()->PostDisconnect();
    Idle();
  }
  void Idle() { ASSERT_EQ(DeviceModule::WaitUntilIdle(20000), 0); }
  void ConnectAndDownload() {
    Device()->PostConnect(CM_DOWNLOAD_RESET);
    Idle();
    ASSERT_TRUE(Device()->IsConnected());
    std::vector<DEV_LOAD_BLOCK> Blocks;
    ASSERT_TRUE(DEV_ReadLoadSegments(SourcePath(GetParam().sFirmware), &Blocks, nullptr));
    Device()->PostHalt();
    for (const DEV_LOAD_BLOCK& b : Blocks) {
      const U32 r[2] = {b.LoadAddr, b.LoadAddr + U32(b.Data.size())};
      Device()->PostWriteMemMultiple(1, r, r[1] - r[0], (const U8*)b.Data.constData(), 0, AW_ANY, MEM_FLAG_BEGIN_DOWNLOAD);
    }
    Device()->PostEndDownload("fw", 0), Device()->PostReset(RM_RESET_HALT);
    Idle();
  }
  // How long a halt that is due may take: the emulator on a loaded machine
  // answers in seconds; a wait for a condition costs nothing when it holds.
  static constexpr int kHaltDueMs = 20000;
  // Delivers reports (conditions get their answers) until the halt sequence
  // has ended with the target standing; false after Ms.
  bool WaitHalted(int Ms = kHaltDueMs) {
    Idle();
    WaitFor([] { return Device()->HaltReported() && !Device()->IsHaltSeqActive(); }, Ms);
    Idle();
    return Device()->HaltReported();
  }
  // Delivers reports until Done() holds; false after Ms.
  template <class F>
  static bool WaitFor(F Done, int Ms) {
    QElapsedTimer t;
    for (t.start(); !Done() && t.elapsed() < Ms;) DeviceModule::WaitUntilIdle(20);
    return Done();
  }
  // Resumes: the PC of the next halt, or 0 when it still ran after Ms (then halted).
  U32 Go(int Ms = kHaltDueMs) {
    Device()->PostContinue();
    if (WaitHalted(Ms)) return Device()->CurrentPC();
    Device()->PostHalt(), WaitHalted();
    return 0;
  }
  readelf::Symbol Symbol(const char* s) const {
    for (const readelf::Symbol& x : readelf::Symbols(SourcePath(GetParam().sFirmware).toStdString()))
      if (x.Name == s) return readelf::Symbol{x.Value & ~1u, x.Size};
    return ADD_FAILURE() << "no symbol " << s, readelf::Symbol{};
  }
  U32 Sym(const char* s) const { return U32(Symbol(s).Value); }
  void SetBP(U32 a, BP_STATES s = BP_STATE_ON, BP_TYPES t = BP_TYPE_ANY) { Device()->PostSetBP(a, s, t), Idle(); }
  QStringList Calls() const { return QString(ReadFileText(Dir.filePath("calls.log"))).split('\n'); }
  QTemporaryDir Dir;
  std::unique_ptr<CTargetRig> Rig;
};

}  // namespace devtest
