// The register window on both back ends: after an instruction step the rows
// whose values changed have change level 1 and the others 0, every value is
// the one the probe reports, and an edit runs Target.SetReg and reads back.
#include "commands/actions.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "device/module.h"
#include "plugins/corehost.h"
#include "target_support.h"
#include "testsupport/consolelines.h"
#include "testsupport/testapp.h"
#include "ui/framework/viewexport.h"
#include "ui/registers/registermodel.h"
#include "ui/registers/registerwindow.h"

#include <QApplication>
#include <QSignalSpy>
#include <map>
#include <numeric>

namespace {

using devtest::BACKEND;

// The core registers by the probe library's numbers (the plug-in's own
// table is what is under test).
const char* const kProbeRegs[] = {"R0", "R1", "R2", "R3", "R4",  "R5", "R6", "R7",   "R8",  "R9",
                                  "R10", "R11", "R12", "SP", "LR", "PC", "XPSR", "MSP", "PSP"};
constexpr U32 kCount = U32(std::size(kProbeRegs));

class RegisterWindowTarget : public CHeadlessTargetSuite<devtest::CBackendBatch> {
 protected:
  // The probe's values, straight from the back end; failed ones left out.
  static std::map<QString, U64> ProbeValues() {
    U32 aIdx[kCount];
    U64 aVal[kCount];
    U8 aSt[kCount];
    std::iota(aIdx, aIdx + kCount, 0u);
    std::lock_guard<std::recursive_mutex> Lock(Device()->DeviceMutex());
    Device()->Probe().VORDENARM_ReadRegs(aIdx, aVal, aSt, kCount);
    std::map<QString, U64> m;
    for (U32 i = 0; i < kCount; ++i)
      if (!aSt[i]) m[kProbeRegs[i]] = i == 15 ? aVal[i] & ~1ull : aVal[i] & 0xFFFFFFFFull;
    return m;
  }
};

TEST_P(RegisterWindowTarget, StepMarksChangesAndEditWrites) {
  const BACKEND& b = GetParam();
  devtest::CTargetRig Rig(b);
  for (const QString& s : Setup(Rig)) ASSERT_EQ(ExecuteCommand(s), 1) << s.toStdString();
  ASSERT_EQ(Run(AID_EXEC_CONNECT), 0);
  ASSERT_EQ(Run(AID_EXEC_DOWNLOAD, devtest::SourcePath(b.sFirmware)), 0);
  ASSERT_EQ(Run(AID_EXEC_RESET), 0);

  CRegisterWindow w(nullptr, 1);
  CRegistersDataModel& m = *w.RegModel();
  ASSERT_GE(m.RegisterCount(), int(kCount)) << "rows from " << m.CpuFile().toStdString();
  w.resize(500, 1600);
  w.show();
  QSignalSpy Read(&m, &CRegistersDataModel::ValuesRead);
  w.Update(Device()->CurrentPC());
  ASSERT_TRUE(Read.wait(5000));
  const std::map<QString, U64> Before = ProbeValues();
  ASSERT_EQ(Device()->PostStepInst(), 0);
  ASSERT_TRUE(Read.wait(5000));
  const std::map<QString, U64> After = ProbeValues();
  ASSERT_EQ(After.count("PC"), 1u);
  EXPECT_NE(After.at("PC"), Before.at("PC"));
  for (const auto& [sName, Value] : After) {
    SCOPED_TRACE(sName.toStdString());
    const QModelIndex i = m.IndexOfRow(m.RowOfRegister(sName), CRegistersDataModel::COL_VALUE);
    U64 v = 0;
    ASSERT_TRUE(m.GetValue(sName, &v)) << i.data().toString().toStdString();
    EXPECT_EQ(v, Value);
    EXPECT_EQ(i.data(ROLE_CHANGE_LEVEL).toInt(), Before.count(sName) && Before.at(sName) != Value ? 1 : 0);
    EXPECT_EQ(i.data().toString(), (CRegistersDataModel::ValueText(Value, 32, 16) + " " + m.FlagText(sName, Value)).trimmed());
  }
  // xPSR's flags, one letter each from N down to T, with the Thumb bit set.
  EXPECT_TRUE(m.FlagText("XPSR", After.at("XPSR")).endsWith('T')) << m.FlagText("XPSR", 0).toStdString();
  EXPECT_EQ(m.FlagText("XPSR", 0), "nzcvqt");
  w.SetDisplayFormat(10);
  EXPECT_EQ(m.IndexOfRow(m.RowOfRegister("PC"), 1).data().toString(), QString::number(After.at("PC")));
  w.SetDisplayFormat(0);

  // An edit is the command, and the window reads the register back.
  TakeConsoleLines();
  const QModelIndex R7 = m.IndexOfRow(m.RowOfRegister("r7"), CRegistersDataModel::COL_VALUE);
  ASSERT_TRUE(m.setData(R7, "0x1234ABCD"));
  EXPECT_TRUE(TakeConsoleLines().join('\n').contains("Target.SetReg (\"R7\", 0x1234ABCD);"));
  ASSERT_TRUE(Read.wait(5000));
  U64 v = 0;
  EXPECT_TRUE(m.GetValue("R7", &v) && v == 0x1234ABCD);
  EXPECT_EQ(ProbeValues().at("R7"), 0x1234ABCDu);
  EXPECT_EQ(R7.data(ROLE_CHANGE_LEVEL).toInt(), 1);
  EXPECT_FALSE(m.setData(R7, "0x1FFFFFFFF")) << "wider than the register";

  QString sError;
  TakeConsoleLines();
  ASSERT_EQ(WIN_Export("Registers 1", "-", &sError), 0) << sError.toStdString();
  EXPECT_TRUE(TakeConsoleLines().contains("    R7\t0x1234ABCD\t\tGeneral purpose register 7"));
}

INSTANTIATE_TEST_SUITE_P(Backends, RegisterWindowTarget, ::testing::Values(devtest::kSim, devtest::kQemu),
                         devtest::PrintBackend);

}  // namespace
