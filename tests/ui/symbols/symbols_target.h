// What the data window suites on both back ends share: the MPS2 machine on
// the simulator and behind the emulator's GDB server, a test program loaded,
// run to a marked line, and the rows of a model by name.
#pragma once
#include "commands/actions.h"
#include "device/device.h"
#include "device/headless_app.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "elf/symbol/symbol.h"
#include "stack/callstack.h"
#include "target_support.h"
#include "testsupport/gdb_frames.h"
#include "ui/framework/viewexport.h"
#include "ui/symbols/symbolsmodel.h"
#include "ui/symbols/symbolsmodule.h"

#include <QElapsedTimer>
#include <map>

namespace symtest {

using devtest::BACKEND;
inline const BACKEND kSimMps2{"sim", "MPS2-AN385", "USB", "", "", "", 0x20010000, true};

inline QString ElfPath(const std::string& sName) {
  return QString::fromStdString(gdbtest::SourceDir() + "/firmware/tests/elf/" + sName + ".elf");
}

struct HALTS : CDeviceEventListener {
  int n = 0;
  void OnDeviceHaltDone(U32, HALT_REASONS) override { ++n; }
};

// Cells of the rows of an exported model by the first column (trimmed):
// the texts of the other columns.
inline std::map<QString, QStringList> RowsByName(QAbstractItemModel* pModel) {
  std::map<QString, QStringList> m;
  const QStringList Lines = WIN_ModelLines(pModel);
  for (int i = 1; i < Lines.size(); ++i) {
    QStringList c = Lines[i].split('\t');
    m[c.takeFirst().trimmed()] = c;
  }
  return m;
}

template <class BASE>
class CSymbolsTargetSuite : public CHeadlessTargetSuite<BASE> {
 protected:
  static void SetUpTestSuite() {
    CHeadlessTargetSuite<BASE>::SetUpTestSuite();
    DWARF_Install();
    SymbolsModule::Install();
  }
  void SetUp() override {
    BASE::SetUp();
    CWatchDataModel::Instance().ClearExpressions();
  }
  // Loads, connects, downloads and resets.
  // A call log path sets the probe's call log.
  void Start(const BACKEND& b, const std::string& sProgram, const QString& sCallLog = QString()) {
    m_pRig = std::make_unique<devtest::CTargetRig>(b);
    if (!sCallLog.isEmpty()) ASSERT_EQ(ExecAction(AID_PROJECT_SET_VORDEN_LOG_FILE, sCallLog), 0);
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_DEVICE, b.sDevice), 0);
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_HOST_IF, b.sHostIF, m_pRig->Ident()), 0);
    ASSERT_EQ(ExecAction(AID_PROJECT_SET_TARGET_IF, "SWD"), 0);
    const QString sElf = ElfPath(sProgram);
    ASSERT_EQ(CElfApi::Instance().Load(sElf), 0);
    ASSERT_EQ(this->Run(AID_EXEC_CONNECT), 0);
    ASSERT_EQ(this->Run(AID_EXEC_DOWNLOAD, sElf), 0);
    ASSERT_EQ(this->Run(AID_EXEC_RESET), 0);
    Device()->PostClearAllBPs();
  }
  // Continues to the breakpoints Hits times and unwinds the whole stack.
  void RunTo(const std::vector<U32>& Addresses, int Hits) {
    CDevice* d = Device();
    ASSERT_FALSE(Addresses.empty()) << "no code at the marked line";
    for (U32 a : Addresses) ASSERT_EQ(d->PostSetBP(a, BP_STATE_ON, BP_TYPE_ANY), 0);
    HALTS h;
    QElapsedTimer t;
    for (int k = 0; k < Hits; ++k) {
      ASSERT_EQ(d->PostContinue(), 0);
      for (t.start(); h.n <= k && t.elapsed() < 10000;) QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
      ASSERT_GT(h.n, k) << "no halt";
    }
    for (U32 a : Addresses) d->PostClearBP(a);
    d->WaitIdle(5000);
    ASSERT_TRUE(CCallStack::Instance().UnwindAll(10000));
  }
  // The addresses of a marked source line of firmware/tests.
  static std::vector<U32> MarkAddresses(const char* sFile, const char* sMark) {
    const QString sLine = QString::fromStdString(testsupport::MarkedLine(gdbtest::SourceDir(), sFile, sMark));
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    const CLineTables& T = DWARF_GetProgramTables();
    for (const QString& sPath : T.GetSourceFiles())
      if (sPath.endsWith(QLatin1Char('/') + sFile)) {
        const I64 a = T.GetFirstLocAddress(CSrcLoc(T.GetFileId(sPath), sLine.section(':', 1).toUInt()));
        if (a >= 0) return {U32(a)};
      }
    return {};
  }
  void TearDown() override {
    if (CDevice* d = CDevice::InstanceIfCreated()) d->PostClearAllBPs(), d->WaitIdle(5000);
    CHeadlessTargetSuite<BASE>::TearDown();
    m_pRig.reset();
  }
  std::unique_ptr<devtest::CTargetRig> m_pRig;
};

}  // namespace symtest
