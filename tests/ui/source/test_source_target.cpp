// The source viewer in a debug session, through the program in batch mode on
// the simulator and on QEMU: after each stop the row marked PC is the line
// addr2line gives for the PC, a source breakpoint marks its row, and the
// viewer follows Debug.RunTo and Debug.SetNextStatement.
#include <gtest/gtest.h>

#include "device/target_support.h"
#include "testsupport/process.h"

#include <QFileInfo>

namespace {

using devtest::BACKEND;
using testsupport::RUN;

const BACKEND kMps2Sim{"sim", "MPS2-AN385", "USB", "firmware/gdb/elf/gdbtest_an385.elf", "g_table", "", 0x24000000, false};

struct SOURCE_ROW {
  int Line = 0;
  QString Mark;
};

// The rows of each Window.Export("Source", "-") in the output, in order:
// "Line\tAddress\tMark\tText" behind a header line.
QList<QList<SOURCE_ROW>> Exports(const QString& sOut) {
  QList<QList<SOURCE_ROW>> All;
  QList<SOURCE_ROW>* pCur = nullptr;
  for (const QString& l : sOut.split('\n')) {
    if (l.startsWith("Line\tAddress\tMark\tText")) {
      All.append(QList<SOURCE_ROW>());
      pCur = &All.last();
      continue;
    }
    const QStringList f = l.split('\t');
    if (!pCur || f.size() < 4) {
      if (!l.startsWith(' ') && !l.isEmpty()) pCur = nullptr;
      continue;
    }
    bool Ok = false;
    const int Line = f[0].trimmed().toInt(&Ok);
    if (Ok) pCur->append({Line, f[2].trimmed()});
  }
  return All;
}

int MarkedLine(const QList<SOURCE_ROW>& Rows, const QString& sMark) {
  for (const SOURCE_ROW& r : Rows)
    if (r.Mark.split(' ').contains(sMark)) return r.Line;
  return 0;
}

int LineOf(const char* sText) {
  QFile f(devtest::SourcePath("firmware/gdb/main.c"));
  if (!f.open(QIODevice::ReadOnly)) return 0;
  const QList<QByteArray> Lines = f.readAll().split('\n');
  for (int i = 0; i < Lines.size(); ++i)
    if (Lines[i].contains(sText)) return i + 1;
  return 0;
}

class SourceTarget : public devtest::CBackendBatch {};

TEST_P(SourceTarget, ThePcLineFollowsEveryStop) {
  devtest::CTargetRig Rig(GetParam());
  const QString sElf = devtest::SourcePath(GetParam().sFirmware);
  const std::string Nm = RunToolOutput("arm-none-eabi-nm " + sElf.toStdString() + " | grep ' T main$'");
  ASSERT_FALSE(Nm.empty());
  const std::string Where = RunToolOutput("arm-none-eabi-addr2line -e " + sElf.toStdString() + " 0x" + Nm.substr(0, Nm.find(' ')));
  const int MainLine = std::stoi(Where.substr(Where.rfind(':') + 1));
  // The program was built elsewhere: its sources are found through a substitute.
  const QString sDebugPath = QString::fromStdString(Where.substr(0, Where.rfind(':')));
  const QString sBuiltIn = sDebugPath.left(sDebugPath.indexOf("/firmware/"));
  const int Loop = LineOf("acc = Mix(");
  ASSERT_GT(Loop, 0);
  QStringList Lines = Setup(Rig);
  Lines << QStringLiteral("Project.AddPathSubstitute(\"%1\", \"%2\")").arg(sBuiltIn, devtest::SourcePath("").chopped(1))
        << QStringLiteral("File.Open(\"%1\")").arg(sElf) << "Debug.Start()" << "Window.Export(\"Source\", \"-\")"
        << QStringLiteral("Break.SetOnSrc(\"main.c:%1\")").arg(Loop) << "Debug.Continue()" << "Window.Export(\"Source\", \"-\")"
        << QStringLiteral("Break.ClearOnSrc(\"main.c:%1\")").arg(Loop) << QStringLiteral("Debug.SetNextStatement(\"main.c:%1\")").arg(MainLine)
        << "Window.Export(\"Source\", \"-\")" << QStringLiteral("Debug.RunTo(\"main.c:%1\")").arg(Loop)
        << "View.PCLine()" << "Window.Export(\"Source\", \"-\")" << "File.Close(\"main.c\")" << "File.Close(\"main.c\")" << "Debug.Stop()";
  const RUN r = testsupport::RunBatch(Dir.filePath("cmds.txt"), Lines.join('\n').toUtf8() + "\n", {"-batchtimelimit", "20"},
                                      {.TimeoutMs = 120000});
  SCOPED_TRACE(r.Out.toStdString());
  const QList<QList<SOURCE_ROW>> X = Exports(r.Out);
  ASSERT_EQ(X.size(), 4);
  EXPECT_EQ(MarkedLine(X[0], "PC"), MainLine) << "halted in main";
  EXPECT_EQ(MarkedLine(X[1], "PC"), Loop) << "at the breakpoint";
  EXPECT_EQ(MarkedLine(X[1], "BP"), Loop) << "the breakpoint's row";
  EXPECT_EQ(MarkedLine(X[2], "PC"), MainLine) << "after Set Next Statement";
  EXPECT_EQ(MarkedLine(X[2], "BP"), 0) << "the breakpoint went";
  EXPECT_EQ(MarkedLine(X[3], "PC"), Loop) << "after Run To";
  // The second close finds nothing to close; that is the run's one error.
  EXPECT_TRUE(r.Out.contains("file is not open"));
  EXPECT_EQ(r.Exit, 1);
}

INSTANTIATE_TEST_SUITE_P(Backends, SourceTarget, ::testing::Values(kMps2Sim, devtest::kQemu), devtest::PrintBackend);

}  // namespace
