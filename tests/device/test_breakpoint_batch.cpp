// Break.* and Trace.* in batch files on both back ends: error words, a source
// breakpoint made before connecting that reaches the probe after the download,
// data breakpoints beyond the comparators, breakpoints kept in the user file.
#include <gtest/gtest.h>

#include <QRegularExpression>

#include "target_support.h"
#include "testsupport/process.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

namespace {

using devtest::BACKEND;
using testsupport::RUN;

QString Hex(U32 v) { return QStringLiteral("0x%1").arg(v, 8, 16, QLatin1Char('0')); }
QString HexUp(U32 v) { return "0x" + QStringLiteral("%1").arg(v, 8, 16, QLatin1Char('0')).toUpper(); }

// A batch line and what it must answer: the error word, or "" for success.
struct STEP {
  QString sLine;
  const char* sWord;
};

// Each batch line's output (what stands before its result line) checked
// against its step; the setup lines come first.
void CheckSteps(const QString& sOut, int nSetup, const std::vector<STEP>& Steps) {
  static const QRegularExpression Re(QStringLiteral(R"(([\s\S]*?)^=> (-?\d+) )"), QRegularExpression::MultilineOption);
  std::vector<std::pair<QString, qint64>> Results;
  for (auto It = Re.globalMatch(sOut); It.hasNext();) {
    const auto m = It.next();
    Results.push_back({m.captured(1), m.captured(2).toLongLong()});
  }
  ASSERT_EQ(Results.size(), size_t(nSetup) + Steps.size());
  for (size_t i = 0; i < Steps.size(); ++i) {
    const auto& [sText, Result] = Results[size_t(nSetup) + i];
    if (*Steps[i].sWord) EXPECT_TRUE(sText.contains(QLatin1String(Steps[i].sWord))) << Steps[i].sLine.toStdString();
    EXPECT_EQ(Result, *Steps[i].sWord ? -1 : 0) << Steps[i].sLine.toStdString() << sText.toStdString();
  }
}

QStringList LinesOf(QStringList Lines, const std::vector<STEP>& Steps) {
  for (const STEP& s : Steps) Lines << s.sLine;
  return Lines;
}

// "file.c:line" of a function's first address, and that address, from nm
// and addr2line.
struct FUNC_LOC {
  QString sLoc;
  U32 Addr = 0;
};
FUNC_LOC FuncLoc(const QString& sElf, const char* sFunc) {
  FUNC_LOC f;
  const QString Nm = QString::fromStdString(RunToolOutput("arm-none-eabi-nm " + sElf.toStdString()));
  const auto m = QRegularExpression(QStringLiteral("^([0-9a-f]+) T %1$").arg(sFunc), QRegularExpression::MultilineOption).match(Nm);
  if (!m.hasMatch()) return f;
  f.Addr = m.captured(1).toUInt(nullptr, 16) & ~1u;
  const QString Line = QString::fromStdString(RunToolOutput("arm-none-eabi-addr2line -e " + sElf.toStdString() + " " +
                                                            Hex(f.Addr).toStdString())).trimmed();
  f.sLoc = QFileInfo(Line.section(' ', 0, 0)).fileName();
  return f;
}

class BreakpointBatch : public devtest::CBackendBatch {
 protected:
  RUN Run(const QStringList& Lines, const QStringList& Args = {}) {
    testsupport::RUN_OPTIONS o;
    o.TimeoutMs = 120000;
    return testsupport::RunBatch(Dir.filePath("cmds.txt"), Lines.join('\n').toUtf8() + "\n",
                                 Args + QStringList{"-logfile", Dir.filePath("app.log")}, o);
  }
};

TEST_P(BreakpointBatch, ErrorWordsAndASourceBreakpointAppliedAfterTheDownload) {
  const BACKEND& b = GetParam();
  devtest::CTargetRig Rig(b);
  const QString sElf = devtest::SourcePath(b.sFirmware);
  const FUNC_LOC Main = FuncLoc(sElf, "main");
  ASSERT_FALSE(Main.sLoc.isEmpty());
  const QString sSrc = QStringLiteral("Break.SetOnSrc(\"%1\")").arg(Main.sLoc), sAt = Hex(Main.Addr + 8);
  const std::vector<STEP> Steps = {
      {QStringLiteral("File.Open(\"%1\")").arg(sElf), ""}, {sSrc, ""}, {sSrc, "Breakpoint already set"},
      {"Break.SetOnSrc(\"nosuchfile.c:3\")", "invalid parameter"}, {"Exec.Connect()", ""},
      {QStringLiteral("Exec.Download(\"%1\")").arg(sElf), ""}, {"Break.Set(" + sAt + ")", ""},
      {"Break.Set(" + sAt + ")", "Breakpoint already set"}, {"Break.Clear(" + Hex(Main.Addr + 12) + ")", "Breakpoint not set"},
      {"Break.Enable(" + sAt + ")", "Breakpoint not disabled"}, {"Break.Disable(" + sAt + ")", ""},
      {"Break.Disable(" + sAt + ")", "Breakpoint not set"}, {"Break.Clear(" + sAt + ")", ""},
      {"Trace.SetPoint(0, " + Hex(Main.Addr) + ")", ""}, {"Trace.SetPoint(0, " + Hex(Main.Addr) + ")", "Tracepoint already set"},
      {"Trace.ClearPoint(" + Hex(Main.Addr + 4) + ")", "Tracepoint not set"}};
  const QStringList Setup_ = Setup(Rig);
  const RUN r = Run(LinesOf(Setup_, Steps));
  SCOPED_TRACE(r.Out.toStdString());
  CheckSteps(r.Out, int(Setup_.size()), Steps);
  // The probe sees the source breakpoint once the download has ended.
  const QString Calls = QString::fromUtf8(devtest::ReadFileText(Dir.filePath("calls.log")));
  const qsizetype End = Calls.indexOf("VORDENARM_EndDownload");
  ASSERT_GE(End, 0) << Calls.toStdString();
  EXPECT_GT(Calls.indexOf(QStringLiteral("VORDENARM_SetBPEx(%1").arg(HexUp(Main.Addr)), End), End) << Calls.toStdString();
}

TEST_P(BreakpointBatch, OneDataBreakpointMoreThanTheComparators) {
  const BACKEND& b = GetParam();
  devtest::CTargetRig Rig(b);
  const U32 Base = b.RAMEnd - 0x100;
  // Cortex-M3 and M4 have four address comparators; a fifth data breakpoint
  // finds none left.
  std::vector<STEP> Steps = {{"Exec.Connect()", ""}};
  for (U32 i = 0; i < 4; ++i) Steps.push_back({QStringLiteral("Break.SetOnData(%1, 0, 1, 4)").arg(Hex(Base + 16 * i)), ""});
  const QByteArray sErr = QStringLiteral("Error setting data breakpoint @ %1: no more address comparision units").arg(HexUp(Base + 64)).toUtf8();
  Steps.insert(Steps.end(), {{QStringLiteral("Break.SetOnData(%1, 0, 1, 4)").arg(Hex(Base + 64)), sErr.constData()},
                             {"Break.SetOnData()", "wrong parameter count"},
                             {"Break.ClearOnData(" + Hex(Base + 0x80) + ")", "No breakpoint matches the given parameters."},
                             {"Break.DisableOnData(" + Hex(Base) + ")", ""},
                             {"Window.Export(\"Breakpoints\", \"-\")", ""}});
  const QStringList Setup_ = Setup(Rig);
  const RUN r = Run(LinesOf(Setup_, Steps));
  SCOPED_TRACE(r.Out.toStdString());
  CheckSteps(r.Out, int(Setup_.size()), Steps);
  // The window's rows without a window: the five data breakpoints.
  const QString sRows = r.Out.mid(r.Out.indexOf("Type\tLocation\tExtras"));
  EXPECT_EQ(sRows.count(QRegularExpression("\n  Data\t")), 5) << sRows.toStdString();
}

// A project's breakpoints with their conditions and skip counts outlive the
// session in its user file; a malformed field there costs nothing else.
TEST_P(BreakpointBatch, BreakpointsSurviveCloseAndReopenThroughTheUserFile) {
  const BACKEND& b = GetParam();
  devtest::CTargetRig Rig(b);
  const QString sElf = devtest::SourcePath(b.sFirmware);
  const FUNC_LOC Main = FuncLoc(sElf, "main");
  QString sProject = "void OnProjectLoad (void) {\n";
  for (const QString& l : Setup(Rig)) sProject += "  " + l + ";\n";
  sProject += QStringLiteral("  File.Open(\"%1\");\n}\n").arg(sElf);
  const QString sProj = Dir.filePath("p.vdebug");
  QFile f(sProj);
  ASSERT_TRUE(f.open(QIODevice::WriteOnly));
  f.write(sProject.toUtf8());
  f.close();
  RUN r = Run({QStringLiteral("Break.SetOnSrc(\"%1\")").arg(Main.sLoc),
               QStringLiteral("Break.Edit(\"%1\", \"g_counter > 2\", 0, 3, \"\", \"reached main\", \"\")").arg(Main.sLoc),
               QStringLiteral("Break.Set(%1)").arg(Hex(Main.Addr + 8)),
               QStringLiteral("Break.SetCmdOnAddr(%1, \"OnHit\")").arg(Hex(Main.Addr + 8)),
               QStringLiteral("Break.SetOnData(%1, 0, 2)").arg(Hex(b.RAMEnd - 0x40))},
              {sProj});
  ASSERT_EQ(r.Exit, 0) << r.Out.toStdString();
  const QString sUser = sProj + ".user", First = QString::fromUtf8(devtest::ReadFileText(sUser));
  SCOPED_TRACE(First.toStdString());
  EXPECT_TRUE(First.contains(QStringLiteral("Breakpoint=%1, State=BP_STATE_ON, Condition=\"g_counter > 2\", SkipCount=3, "
                                            "ConsoleMsg=\"reached main\"").arg(Main.sLoc)));
  EXPECT_TRUE(First.contains(QStringLiteral("Breakpoint=%1, State=BP_STATE_ON, ScriptCallback=OnHit").arg(HexUp(Main.Addr + 8))));
  EXPECT_TRUE(First.contains(QStringLiteral("DataBreakpoint=%1, AccessType=AT_READ_WRITE").arg(HexUp(b.RAMEnd - 0x40))));

  // Reopened: the same records come back, and the breakpoint stands again.
  QFile u(sUser);
  ASSERT_TRUE(u.open(QIODevice::Append));
  u.write("\nBreakpoint=0x100, State=BP_STATE_ON, broken\nGraphedExpression=\"keep\"\n");
  u.close();
  r = Run({QStringLiteral("Break.SetOnSrc(\"%1\")").arg(Main.sLoc)}, {sProj});
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_TRUE(r.Out.contains("Syntax error in user preference file (.vdebug.user): broken"));
  EXPECT_TRUE(r.Out.mid(r.Out.lastIndexOf("Break.SetOnSrc")).contains("Breakpoint already set"));
  const QString Second = QString::fromUtf8(devtest::ReadFileText(sUser));
  for (const QString& l : First.split('\n', Qt::SkipEmptyParts)) EXPECT_TRUE(Second.contains(l)) << l.toStdString();
  EXPECT_TRUE(Second.contains("Breakpoint=0x00000100, State=BP_STATE_ON")) << "the fields around a bad one load";
  EXPECT_TRUE(Second.contains("GraphedExpression=\"keep\"")) << "records of others stay";
}

INSTANTIATE_TEST_SUITE_P(Backends, BreakpointBatch, ::testing::Values(devtest::kSim, devtest::kQemu), devtest::PrintBackend);

}  // namespace
