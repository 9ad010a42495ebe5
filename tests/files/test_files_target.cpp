// Each form of a firmware loaded by batch on both back ends and saved back,
// against objcopy's raw binary; fill read back; command errors; a corrupt
// file leaves memory as it was.
#include <gtest/gtest.h>

#include "device/target_support.h"
#include "testsupport/files.h"
#include "testsupport/imageforms.h"
#include "testsupport/process.h"

#include <QTemporaryDir>

namespace {

using devtest::BACKEND;

QString Hex(U32 v) { return QStringLiteral("0x%1").arg(v, 8, 16, QLatin1Char('0')); }

// RAM the text and binary forms are moved to as a whole, and a scratch range.
constexpr U32 kRam = 0x20004000, kScratch = 0x2000C000;

class FilesOnTarget : public ::testing::TestWithParam<BACKEND> {};

TEST_P(FilesOnTarget, EachFormLoadsTheImageAndSavesBackByteForByte) {
  const BACKEND& b = GetParam();
  if (QString(b.sHostIF) == "IP" && !devtest::CTargetRig::HaveQemu()) GTEST_SKIP() << "no qemu-system-arm";
  devtest::CTargetRig Rig(b);
  QTemporaryDir Dir;
  const testsupport::IMAGE_FORMS f = testsupport::MakeImageForms(devtest::SourcePath(b.sFirmware), Dir.path());
  ASSERT_TRUE(f.Ok);
  const U32 Size = U32(f.Bin.size());
  ASSERT_LT(Size, kScratch - kRam);
  // Data for the scratch range (page 0x2000, offset 0xC000), then a record with a bad checksum.
  const QString sCorrupt = Dir.filePath("corrupt.hex");
  WriteAll(sCorrupt, ":020000042000DA\n:04C000001122334492\n:04C0040011223344FF\n");
  auto Save = [&](const QString& sName, U32 Addr, U32 n) {
    return QStringLiteral("Target.SaveMemory(\"%1\", %2, %3)").arg(Dir.filePath(sName), Hex(Addr)).arg(n);
  };
  QStringList Lines = {QStringLiteral("Project.SetDevice(\"%1\")").arg(b.sDevice),
                       QStringLiteral("Project.SetHostIF(\"%1\", \"%2\")").arg(b.sHostIF, Rig.Ident()),
                       "Project.SetTargetIF(\"SWD\")", QStringLiteral("Target.LoadMemory(\"%1\", 0)").arg(f.sHex),
                       "Target.FillMemory(0x20000000, 4, 0)", "Exec.Connect()",
                       QStringLiteral("File.Load(\"%1\")").arg(f.sElf), Save("elf.bin", f.BinBase, Size)};
  for (const QString& sForm : {f.sHex, f.sSrec, f.sBin})
    Lines << QStringLiteral("Target.FillMemory(%1, %2, 0xA5)").arg(Hex(kRam)).arg(Size)
          << QStringLiteral("File.Load(\"%1\", %2)").arg(sForm, Hex(kRam)) << Save(QFileInfo(sForm).suffix() + ".bin", kRam, Size);
  Lines << QStringLiteral("Target.FillMemory(%1, 256, 0x5A)").arg(Hex(kScratch)) << QStringLiteral("File.Load(\"%1\")").arg(sCorrupt)
        << Save("scratch.bin", kScratch, 256) << QStringLiteral("File.Load(\"%1\")").arg(f.sBin)
        << QStringLiteral("File.Load(\"%1\")").arg(Dir.filePath("missing.hex")) << Save("no/dir/x.bin", 0, 4)
        << QStringLiteral("Target.LoadMemory(\"%1\", \"abc\")").arg(f.sHex);
  testsupport::RUN_OPTIONS o;
  o.TimeoutMs = 120000;
  const testsupport::RUN r = testsupport::RunBatch(Dir.filePath("cmds.txt"), Lines.join('\n').toUtf8() + "\n", {}, o);
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_EQ(testsupport::ResultAfter(r.Out, "File.Load (\"" + f.sElf), 0);
  // The ELF at its own load addresses; the other forms moved to RAM as a whole.
  for (const QString& sTag : QStringList{"elf", "hex", "srec", "bin"}) {
    const QByteArray Saved = ReadAll(Dir.filePath(sTag + ".bin"));
    ASSERT_EQ(Saved.size(), f.Bin.size()) << sTag.toStdString();
    for (const testsupport::LOAD_RANGE& g : f.Ranges)
      EXPECT_EQ(Saved.mid(g.Addr - f.BinBase, g.Size), testsupport::BinBytes(f, g)) << sTag.toStdString() << " at " << Hex(g.Addr).toStdString();
  }
  EXPECT_TRUE(r.Out.contains(QStringLiteral("Could not open file %1: file contains corrupt data record at line 2").arg(sCorrupt)));
  EXPECT_EQ(ReadAll(Dir.filePath("scratch.bin")), QByteArray(256, char(0x5A)));
  for (const char* s : {"hex\", 0): not connected", "Target.FillMemory (0x20000000, 4, 0): not connected", "bin\"): Invalid Address Parameter", "missing.hex\"): file not found",
                        "x.bin\", 0x00000000, 4): invalid filename", ", abc): invalid parameter"})
    EXPECT_TRUE(r.Out.contains(s)) << s;
}

INSTANTIATE_TEST_SUITE_P(Backends, FilesOnTarget, ::testing::Values(devtest::kSim, devtest::kQemu), devtest::PrintBackend);

}  // namespace
