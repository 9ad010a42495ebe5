// Debug sessions through the program in batch mode, on the simulator's MPS2
// board and on QEMU with the same firmware: the start chain with the
// project's event functions, reset modes, the halt wait of batch lines and
// its limit, conditional breakpoints, attach modes, the boxes, the reload of
// a rebuilt program and a lost connection. Addresses come from nm.
#include <gtest/gtest.h>

#include "device/target_support.h"
#include "testsupport/process.h"

#include <QElapsedTimer>
#include <QFileInfo>
#include <QProcess>
#include <QThread>

namespace {

using devtest::BACKEND;
using testsupport::ResultAfter;
using testsupport::RUN;

const BACKEND kMps2Sim{"sim", "MPS2-AN385", "USB", "firmware/gdb/elf/gdbtest_an385.elf", "g_table", "", 0x24000000, false};
// "main.c:N", the line of acc = Mix(...) inside the loop over i in Work.
int LoopLineNumber() {
  QFile f(devtest::SourcePath("firmware/gdb/main.c"));
  if (!f.open(QIODevice::ReadOnly)) return 0;
  const QList<QByteArray> Lines = f.readAll().split('\n');
  for (int i = 0; i < Lines.size(); ++i)
    if (Lines[i].contains("acc = Mix(")) return i + 1;
  return 0;
}
const QString kLoopLine = QStringLiteral("main.c:%1").arg(LoopLineNumber());

qint64 SymbolAddr(const QString& sElf, const char* sSym) {
  const QString Nm = QString::fromStdString(RunToolOutput("arm-none-eabi-nm " + sElf.toStdString()));
  const auto m = QRegularExpression(QStringLiteral("^([0-9a-f]+) \\w %1$").arg(sSym), QRegularExpression::MultilineOption).match(Nm);
  return m.hasMatch() ? m.captured(1).toLongLong(nullptr, 16) : -1;
}

// Logs each event function of a session in the order it runs.
QString EventProject(const QStringList& Settings) {
  QString s = QStringLiteral("void OnProjectLoad (void) {\n");
  for (const QString& l : Settings) s += "  " + l + ";\n";
  s += "}\n";
  for (const char* e : {"BeforeTargetConnect", "AfterTargetConnect", "BeforeTargetReset", "BeforeTargetDownload",
                        "AfterTargetHalt", "BeforeTargetResume", "BeforeTargetDisconnect", "AfterTargetDisconnect"})
    s += QStringLiteral("void %1 (void) {\n  Util.Log(\"event %1\");\n}\n").arg(QLatin1String(e));
  return s;
}

class SessionBatch : public devtest::CBackendBatch {
 protected:
  QString Elf() const { return devtest::SourcePath(GetParam().sFirmware); }
  QStringList Open(const devtest::CTargetRig& Rig) const {
    return Setup(Rig) << QStringLiteral("File.Open(\"%1\")").arg(Elf());
  }
  RUN Batch(const QStringList& Lines, QStringList Extra = {}) {
    if (!Extra.contains("-batchtimelimit")) Extra << "-batchtimelimit" << "20";
    Extra << "-logfile" << Dir.filePath("app.log");
    return testsupport::RunBatch(Dir.filePath("cmds.txt"), Lines.join('\n').toUtf8() + "\n", Extra, {.TimeoutMs = 120000});
  }
  // Runs the batch; once sMarker is on standard output, Act runs. Returns the
  // run and, in *pMs, how long after Act the text sAfter appeared (-1 never).
  RUN BatchLive(const QStringList& Lines, const QString& sMarker, const std::function<void()>& Act,
                const QString& sAfter, qint64* pMs) {
    QFile f(Dir.filePath("live.txt"));
    f.open(QIODevice::WriteOnly);
    f.write(Lines.join('\n').toUtf8() + "\n");
    f.close();
    QProcess p;
    p.start(testsupport::BuiltProgram("tavit"), {"-batch", f.fileName()});
    RUN r;
    QElapsedTimer t;
    bool Acted = false;
    *pMs = -1;
    t.start();
    while (t.elapsed() < 90000 && p.state() != QProcess::NotRunning) {
      p.waitForReadyRead(10);
      r.Out += QString::fromUtf8(p.readAllStandardOutput());
      if (!Acted && r.Out.contains(sMarker)) {
        Act();
        Acted = true;
        t.restart();
      }
      if (Acted && *pMs < 0 && r.Out.contains(sAfter)) *pMs = t.elapsed();
    }
    if (!p.waitForFinished(100)) p.kill();
    p.waitForFinished();
    r.Out += QString::fromUtf8(p.readAllStandardOutput());
    if (Acted && *pMs < 0 && r.Out.contains(sAfter)) *pMs = t.elapsed();
    r.Exit = p.exitStatus() == QProcess::NormalExit ? p.exitCode() : -1;
    return r;
  }
};

TEST_P(SessionBatch, ResetBreaksAtMainAfterConnectAndDownload) {
  devtest::CTargetRig Rig(GetParam());
  const RUN r = Batch(Open(Rig) << "Debug.SetResetMode(RM_BREAK_AT_SYMBOL)" << "Exec.Connect()" << "Debug.Download()"
                                << "Debug.Reset()" << "Target.GetReg(\"PC\")");
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_EQ(r.Exit, 0);
  EXPECT_EQ(ResultAfter(r.Out, "Target.GetReg"), SymbolAddr(Elf(), "main"));
  EXPECT_TRUE(devtest::ReadFileText(Dir.filePath("app.log")).contains("Target has halted. Evaluating halt conditions..."));
}

TEST_P(SessionBatch, StartRunsTheEventChainAndStopDisconnects) {
  // On QEMU the run to main after the download does not halt yet.
  devtest::CTargetRig Rig(GetParam());
  QFile f(Dir.filePath("p.vdebug"));
  ASSERT_TRUE(f.open(QIODevice::WriteOnly));
  QStringList Settings = Setup(Rig);
  Settings << QStringLiteral("File.Open(\"%1\")").arg(Elf());
  f.write(EventProject(Settings).toUtf8());
  f.close();
  const RUN r = Batch({"Debug.Start()", "Target.GetReg(\"PC\")", "Debug.Start()", "Debug.Stop()"}, {f.fileName()});
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_EQ(ResultAfter(r.Out, "Target.GetReg"), SymbolAddr(Elf(), "main"));
  qsizetype At = 0;
  for (const char* e : {"event BeforeTargetConnect", "Vorden: connected to target device", "event AfterTargetConnect",
                        "event BeforeTargetReset", "event BeforeTargetDownload", "event AfterTargetHalt",
                        "already connected", "event BeforeTargetDisconnect",
                        "Vorden: disconnected from target device", "event AfterTargetDisconnect"}) {
    const qsizetype Next = r.Out.indexOf(QLatin1String(e), At);
    EXPECT_GT(Next, At) << e;
    At = std::max(At, Next);
  }
  EXPECT_EQ(r.Out.count("event AfterTargetHalt"), 1);
  EXPECT_EQ(r.Exit, 1);  // the second Debug.Start fails
}

TEST_P(SessionBatch, AttachModesNeitherResetNorDownload) {
  for (const char* Mode : {"CM_ATTACH_HALT", "CM_ATTACH"}) {
    SCOPED_TRACE(Mode);
    devtest::CTargetRig Rig(GetParam());
    const RUN r = Batch(Open(Rig) << QStringLiteral("Debug.SetConnectMode(%1)").arg(Mode) << "Debug.Start()" << "Debug.Stop()");
    SCOPED_TRACE(r.Out.toStdString());
    EXPECT_EQ(r.Exit, 0);
    const QByteArray Calls = devtest::ReadFileText(Dir.filePath("calls.log"));
    EXPECT_FALSE(Calls.contains("VORDENARM_Reset"));
    EXPECT_FALSE(Calls.contains("VORDENARM_BeginDownload"));
  }
}

// The loop counter of Work is a local on the stack in the unoptimised build
// of the same program (examples/qemu), read in the frame of each hit.
TEST_P(SessionBatch, ConditionalBreakpointStopsWhereItHolds) {
  devtest::CTargetRig Rig(GetParam());
  const RUN r = Batch(Setup(Rig) << QStringLiteral("File.Open(\"%1\")").arg(devtest::SourcePath("examples/qemu/mps2demo.elf"))
                                 << "Debug.Start()" << QStringLiteral("Break.SetOnSrc(\"%1\")").arg(kLoopLine)
                                << QStringLiteral("Break.Edit(\"%1\", \"i == 5\", 0, 0, \"\", \"\", \"\")").arg(kLoopLine)
                                << "Debug.Continue()" << "Elf.GetExprValue(\"i\")" << "Target.GetReg(\"PC\")"
                                << "Debug.StepOver()" << "Target.GetReg(\"PC\")");
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_EQ(r.Exit, 0);
  EXPECT_EQ(ResultAfter(r.Out, "Elf.GetExprValue"), 5);
  // The PC has a source line, so the step is a source step: it leaves the
  // breakpoint's line (checked loosely: the PC moved on).
  const qsizetype Step = r.Out.indexOf("Debug.StepOver");
  ASSERT_GT(Step, 0);
  EXPECT_NE(ResultAfter(r.Out.mid(Step), "Target.GetReg"), ResultAfter(r.Out, "Target.GetReg"));
}

TEST_P(SessionBatch, UnknownBreakSymbolTellsAndStaysAtTheResetVector) {
  devtest::CTargetRig Rig(GetParam());
  const RUN r = Batch(Open(Rig) << "Edit.SysVar(VAR_BREAK_AT_THIS_SYMBOL, \"no_such_symbol\")" << "Debug.Start()"
                                << "Target.GetReg(\"PC\")");
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_TRUE(r.Out.contains("[box] Break at Symbol: Symbol no_such_symbol is unknown. Program halts at first instruction."));
  EXPECT_EQ(ResultAfter(r.Out, "Target.GetReg"), SymbolAddr(Elf(), "Reset_Handler"));
}

TEST_P(SessionBatch, TimeLimitHaltsTheTargetAndFailsTheRun) {
  devtest::CTargetRig Rig(GetParam());
  const RUN r = Batch(Open(Rig) << "Debug.Start()" << "Debug.Continue()" << "Target.GetReg(\"PC\")",
                      {"-batchtimelimit", "3"});
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_TRUE(r.Out.contains("batch: target did not halt within 3 s; halted it"));
  EXPECT_EQ(r.Exit, 1);
  // Halted: the registers can be read again.
  EXPECT_GE(ResultAfter(r.Out, "Target.GetReg"), 0);
}

// Disabled: the reload question comes and the new file is opened, but the
// restart after it still stops at the old program's main (the new program's
// download and its break symbol address are not yet followed through).
TEST_P(SessionBatch, RebuiltProgramIsReloadedWithItsBreakpoints) {
  devtest::CTargetRig Rig(GetParam());
  const QString sCopy = Dir.filePath("fw.elf"), sRebuilt = Dir.filePath("rebuilt.elf");
  const QString Src = devtest::SourcePath("firmware/gdb");
  RunToolOutput(QStringLiteral("arm-none-eabi-gcc -mcpu=cortex-m3 -mthumb -O0 -g -nostartfiles -nostdlib -ffreestanding "
                               "-T %1/mps2.ld -o %2 %1/startup.c %1/main.c -lgcc")
                    .arg(Src, sRebuilt).toStdString());
  ASSERT_TRUE(QFileInfo::exists(sRebuilt));
  ASSERT_NE(SymbolAddr(sRebuilt, "main"), SymbolAddr(Elf(), "main"));
  QFile::copy(Elf(), sCopy);
  QStringList Lines = Setup(Rig);
  Lines << QStringLiteral("File.Open(\"%1\")").arg(sCopy) << "Debug.Start()" << QStringLiteral("Break.SetOnSrc(\"%1\")").arg(kLoopLine)
        << "Util.Log(\"rebuild now\")" << "Util.Sleep(1500)" << "Target.GetReg(\"PC\")" << "Window.Export(\"Breakpoints\", \"-\")"
        << "Debug.Continue()" << "Target.GetReg(\"PC\")";
  qint64 Ms = 0;
  const RUN r = BatchLive(Lines, "rebuild now", [&] {
    QFile::remove(sCopy);
    QFile::copy(sRebuilt, sCopy);
  }, "Reload Program File", &Ms);
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_TRUE(r.Out.contains("[box] Reload Program File:"));
  const qint64 Main = SymbolAddr(sRebuilt, "main");
  EXPECT_EQ(ResultAfter(r.Out, "Target.GetReg"), Main);
  const QString sBp = QString::fromStdString(RunToolOutput(
      QStringLiteral("arm-none-eabi-objdump --dwarf=decodedline %1 | awk '$1==\"main.c\" && $2==%2 {print $3; exit}'").arg(sRebuilt).arg(LoopLineNumber()).toStdString()));
  const qsizetype LastPC = r.Out.lastIndexOf("Target.GetReg");
  ASSERT_GT(LastPC, 0);
  EXPECT_EQ(ResultAfter(r.Out.mid(LastPC), "Target.GetReg"), sBp.trimmed().toLongLong(nullptr, 16));
}

TEST_P(SessionBatch, LostServerEndsTheSessionWithoutAHang) {
  if (QString(GetParam().sHostIF) != "IP") GTEST_SKIP() << "the server is QEMU's";
  devtest::CTargetRig Rig(GetParam());
  qint64 Ms = 0;
  const RUN r = BatchLive(Open(Rig) << "Debug.Start()" << "Util.Log(\"running\")" << "Debug.Continue()", "running",
                          [&] { QThread::msleep(300); Rig.Qemu()->Stop(SIGKILL); }, "Target Connection Lost", &Ms);
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_TRUE(r.Out.contains("Vorden: connection to target device lost."));
  EXPECT_TRUE(r.Out.contains("[box] Target Connection Lost: Failed to read target status. Abort Debug Session? -> Yes"));
  EXPECT_GE(Ms, 0);
  EXPECT_LE(Ms, 2300);  // 2 s after the kill, with the 300 ms before it
  EXPECT_NE(r.Exit, -1);
}

INSTANTIATE_TEST_SUITE_P(Backends, SessionBatch, ::testing::Values(kMps2Sim, devtest::kQemu), devtest::PrintBackend);

}  // namespace
