// The PC's file and line in the main window's view, against addr2line, for
// the demo program whose recorded paths the project maps back to the tree.
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"
#include "files/filefinder.h"
#include "testsupport/testapp.h"
#include "testsupport/tools.h"
#include "ui/source/pclineview.h"

#include <QApplication>
#include <algorithm>
#include <gtest/gtest.h>

TEST(PcLineView, ShowsTheLineOfThePcAndSaysWhenThereIsNone) {
  NewTestApp<QApplication>();
  DWARF_Install();
  const QString sElf = QStringLiteral(TAVIT_SOURCE_DIR "/examples/demo/demo.elf");
  // With the debug reader installed a load passes through all its stages.
  static int s_MaxStage = 0;
  CElfApi::SetLoadProgressHook([](int Done, int) { s_MaxStage = std::max(s_MaxStage, Done); });
  ASSERT_EQ(CElfApi::Instance().Load(sElf), 0);
  CElfApi::SetLoadProgressHook(nullptr);
  EXPECT_EQ(s_MaxStage, CElfApi::kLoadStages);
  FileFinder().AddPathSubstitute(QStringLiteral("/tavit"), QStringLiteral(TAVIT_SOURCE_DIR));
  CPcLineView View;
  for (const char* sFunc : {"main", "SysTick_Handler"}) {
    const std::string Nm = RunToolOutput("arm-none-eabi-nm " + sElf.toStdString() + " | grep ' T " + sFunc + "$'");
    ASSERT_FALSE(Nm.empty()) << sFunc;
    const U32 Addr = U32(std::stoul(Nm, nullptr, 16));
    // "/tavit/firmware/sim/demo.c:64"
    const std::string Line = RunToolOutput("arm-none-eabi-addr2line -e " + sElf.toStdString() + QStringLiteral(" 0x%1").arg(Addr, 0, 16).toStdString());
    View.ShowPC(Addr);
    EXPECT_EQ(View.CurrentFile(), QStringLiteral(TAVIT_SOURCE_DIR "/firmware/sim/demo.c")) << sFunc;
    EXPECT_EQ(View.CurrentLine(), std::stoi(Line.substr(Line.rfind(':') + 1))) << sFunc;
  }
  View.ShowPC(0xFFFFFF00u);
  EXPECT_EQ(View.CurrentLine(), 0);
  CElfApi::Instance().Close();
}
