// Batch files through the program on both back ends: configure, open,
// connect, download and read back, checked against the cross toolchain's view
// of the firmware; and the connection faults a batch must survive.
#include <gtest/gtest.h>

#include "target_support.h"
#include "testsupport/process.h"

#include <QDir>
#include <QTemporaryDir>

namespace {

using devtest::BACKEND;
using testsupport::ResultAfter;
using testsupport::RUN;

// The batch lines through the application, its log in the directory.
RUN RunBatch(const QTemporaryDir& Dir, const QStringList& Lines) {
  return testsupport::RunBatch(Dir.filePath("cmds.txt"), Lines.join('\n').toUtf8() + "\n",
                               {"-logfile", Dir.filePath("app.log")}, {.TimeoutMs = 120000});
}

QString Hex(U32 v) { return QStringLiteral("0x%1").arg(v, 8, 16, QLatin1Char('0')); }

class DeviceBatch : public devtest::CBackendBatch {};

TEST_P(DeviceBatch, ConnectDownloadAndReadBackTheImage) {
  const BACKEND& b = GetParam();
  devtest::CTargetRig Rig(b);
  const QString sElf = devtest::SourcePath(b.sFirmware);
  const devtest::IMAGE_WORD Data = devtest::ImageWord(sElf, b.sDataSym, 1);
  ASSERT_TRUE(Data.Found);
  ASSERT_NE(Data.LoadAddr, Data.RunAddr) << "an initialised .data word has a load address of its own";
  QStringList Lines = Setup(Rig);
  Lines << QStringLiteral("File.Open(\"%1\")").arg(sElf) << "Exec.Connect()"
        << QStringLiteral("Exec.Download(\"%1\")").arg(sElf) << QStringLiteral("Target.ReadU32(%1)").arg(Hex(Data.LoadAddr));
  devtest::IMAGE_WORD Const;
  if (*b.sConstSym) {
    Const = devtest::ImageWord(sElf, b.sConstSym, 3, 2);
    ASSERT_TRUE(Const.Found);
    Lines << QStringLiteral("Elf.GetExprValue(\"%1[3]\")").arg(b.sConstSym);
  }
  const RUN r = RunBatch(Dir, Lines);
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_EQ(r.Exit, 0);
  EXPECT_TRUE(r.Out.contains("Vorden: connected to target device"));
  EXPECT_EQ(ResultAfter(r.Out, "Exec.Connect"), 0);
  EXPECT_EQ(ResultAfter(r.Out, "Exec.Download"), 0);
  EXPECT_EQ(quint32(ResultAfter(r.Out, "Target.ReadU32")), Data.Value);
  if (Const.Found) EXPECT_EQ(quint32(ResultAfter(r.Out, "Elf.GetExprValue")), Const.Value);
  const QString Log = QString::fromUtf8(devtest::ReadFileText(Dir.filePath("app.log")));
  EXPECT_TRUE(Log.contains("Opening connection to Vorden...")) << Log.toStdString();
  EXPECT_TRUE(Log.contains("Configuring hardware..."));
  // The probe's own call log: the download bracket around the writes.
  const QString Calls = QString::fromUtf8(devtest::ReadFileText(Dir.filePath("calls.log")));
  const qsizetype Begin = Calls.indexOf("VORDENARM_BeginDownload"), End = Calls.indexOf("VORDENARM_EndDownload");
  const qsizetype Write = Calls.indexOf(QRegularExpression("VORDENARM_Write(MemEx|U32)"), Begin);
  EXPECT_GE(Begin, 0) << Calls.toStdString();
  EXPECT_GT(Write, Begin);
  EXPECT_GT(End, Write);
}

TEST_P(DeviceBatch, ReadAcrossTheEndOfRamGivesTheReadablePart) {
  const BACKEND& b = GetParam();
  devtest::CTargetRig Rig(b);
  QStringList Lines = Setup(Rig);
  Lines << "Exec.Connect()";
  if (b.PlainRAMAtEnd) Lines << QStringLiteral("Target.WriteU32(%1, 0x12345678)").arg(Hex(b.RAMEnd - 4));
  Lines << QStringLiteral("Target.ReadU32(%1)").arg(Hex(b.RAMEnd - 4)) << QStringLiteral("Target.ReadU32(%1)").arg(Hex(b.RAMEnd - 2));
  const RUN r = RunBatch(Dir, Lines);
  SCOPED_TRACE(r.Out.toStdString());
  const qsizetype Good = r.Out.indexOf(QStringLiteral("Target.ReadU32 (%1)").arg(Hex(b.RAMEnd - 4)));
  const qsizetype Bad = r.Out.indexOf(QStringLiteral("Target.ReadU32 (%1)").arg(Hex(b.RAMEnd - 2)));
  ASSERT_GT(Good, 0);
  ASSERT_GT(Bad, Good);
  EXPECT_FALSE(r.Out.mid(Good, Bad - Good).contains("Vorden API call failed"));
  if (b.PlainRAMAtEnd) EXPECT_EQ(ResultAfter(r.Out, QStringLiteral("Target.ReadU32 (%1)").arg(Hex(b.RAMEnd - 4))), 0x12345678);
  EXPECT_TRUE(r.Out.mid(Bad).contains("ReadWord: Vorden API call failed"));
}

TEST_P(DeviceBatch, DownloadErrorIsReportedWithItsCode) {
  const BACKEND& b = GetParam();
  if (QString(b.sHostIF) != "USB") GTEST_SKIP() << "the error knob is the simulator's";
  devtest::CTargetRig Rig(b);
  const QString sElf = devtest::SourcePath(b.sFirmware);
  QStringList Lines = Setup(Rig);
  Lines << "Exec.Connect()" << "Exec.Command(\"SimDownloadError=-3\")" << QStringLiteral("Exec.Download(\"%1\")").arg(sElf);
  const RUN r = RunBatch(Dir, Lines);
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_TRUE(r.Out.contains("VORDENARM_EndDownload: Vorden API call returned error code -3"));
  EXPECT_EQ(ResultAfter(r.Out, "Exec.Download"), -3);
  EXPECT_TRUE(r.Out.contains("[box] Download failed: Parts of the program file could not be written."));
}

INSTANTIATE_TEST_SUITE_P(Backends, DeviceBatch, ::testing::Values(devtest::kSim, devtest::kQemu), devtest::PrintBackend);

TEST(DeviceBatchFaults, ClosedPortFailsQuickly) {
  QTemporaryDir Dir;
  const CClosedPort Closed;
  const int Port = Closed.Port();
  const RUN r = RunBatch(Dir, {"Project.SetDevice(\"MPS2-AN385\")", QStringLiteral("Project.SetHostIF(\"IP\", \"127.0.0.1:%1\")").arg(Port),
                               "Exec.Connect()", "Util.Log \"after\""});
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_TRUE(r.Out.contains("Connect: error during configuration of IP interface"));
  EXPECT_TRUE(r.Out.contains("Connection failed"));
  EXPECT_TRUE(r.Out.contains("after"));
  EXPECT_EQ(ResultAfter(r.Out, "Exec.Connect"), -1);
  EXPECT_LT(r.Ms, 5000 + 3000) << "start-up and shut-down included";
}

}  // namespace
