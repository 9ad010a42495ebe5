// Data files into target memory and back, through the program in batch mode
// on both back ends: File.Load of the ELF, Intel HEX, S-record and raw binary
// forms, each read back with Target.SaveMemory and compared with objcopy's
// raw binary; Target.FillMemory read back; and the command errors, with a
// corrupt file that must leave memory as it was.
#include <gtest/gtest.h>

#include "device/target_support.h"
#include "testsupport/files.h"
#include "testsupport/imageforms.h"
#include "testsupport/process.h"

#include <QTemporaryDir>

namespace {

using devtest::BACKEND;
using testsupport::ResultAfter;

QString Hex(U32 v) { return QStringLiteral("0x%1").arg(v, 8, 16, QLatin1Char('0')); }

// RAM the text and binary forms are moved to (the image relocated as a
// whole), and a scratch range behind it.
constexpr U32 kRam = 0x20004000, kScratch = 0x2000C000;

class FilesOnTarget : public ::testing::TestWithParam<BACKEND> {
 protected:
  void SetUp() override {
    if (QString(GetParam().sHostIF) == "IP" && !devtest::CTargetRig::HaveQemu()) GTEST_SKIP() << "no qemu-system-arm";
  }
  QTemporaryDir Dir;
};

TEST_P(FilesOnTarget, EachFormLoadsTheImageAndSavesBackByteForByte) {
  const BACKEND& b = GetParam();
  devtest::CTargetRig Rig(b);
  const testsupport::IMAGE_FORMS f = testsupport::MakeImageForms(devtest::SourcePath(b.sFirmware), Dir.path());
  ASSERT_TRUE(f.Ok);
  const U32 Size = U32(f.Bin.size());
  ASSERT_LT(Size, kScratch - kRam);
  const QString sCorrupt = Dir.filePath("corrupt.hex");
  // Data for the scratch range, then a record with a bad checksum.
  const U32 Page = kScratch >> 16;
  WriteAll(sCorrupt, QStringLiteral(":02000004%1%2\n:04C0000011223344%3\n:04C0040011223344FF\n")
                         .arg(Page, 4, 16, QLatin1Char('0'))
                         .arg(U8(-(2 + 4 + (Page >> 8) + (Page & 0xFF))), 2, 16, QLatin1Char('0'))
                         .arg(U8(-(4 + 0xC0 + 0x11 + 0x22 + 0x33 + 0x44)), 2, 16, QLatin1Char('0'))
                         .toUpper()
                         .toLatin1());
  auto Save = [&](const QString& sName, U32 Addr, U32 n) {
    return QStringLiteral("Target.SaveMemory(\"%1\", %2, %3)").arg(Dir.filePath(sName), Hex(Addr)).arg(n);
  };
  QStringList Lines = {QStringLiteral("Project.SetDevice(\"%1\")").arg(b.sDevice),
                       QStringLiteral("Project.SetHostIF(\"%1\", \"%2\")").arg(b.sHostIF, Rig.Ident()),
                       QStringLiteral("Project.SetTargetIF(\"SWD\")"),
                       QStringLiteral("Target.LoadMemory(\"%1\", 0)").arg(f.sHex),
                       "Exec.Connect()",
                       QStringLiteral("File.Load(\"%1\")").arg(f.sElf),
                       Save("elf.bin", f.BinBase, Size)};
  for (const QString& sForm : {f.sHex, f.sSrec, f.sBin}) {
    const QString sTag = QFileInfo(sForm).suffix();
    Lines << QStringLiteral("Target.FillMemory(%1, %2, 0xA5)").arg(Hex(kRam)).arg(Size)
          << QStringLiteral("File.Load(\"%1\", %2)").arg(sForm, Hex(kRam)) << Save(sTag + ".bin", kRam, Size);
  }
  Lines << QStringLiteral("Target.FillMemory(%1, 256, 0x5A)").arg(Hex(kScratch)) << QStringLiteral("File.Load(\"%1\")").arg(sCorrupt)
        << Save("scratch.bin", kScratch, 256) << QStringLiteral("File.Load(\"%1\")").arg(f.sBin)
        << QStringLiteral("File.Load(\"%1\")").arg(Dir.filePath("missing.hex"))
        << QStringLiteral("Target.SaveMemory(\"%1\", 0, 4)").arg(Dir.filePath("no/dir/x.bin"))
        << QStringLiteral("Target.LoadMemory(\"%1\", \"abc\")").arg(f.sHex);
  testsupport::RUN_OPTIONS o;
  o.TimeoutMs = 120000;
  const testsupport::RUN r = testsupport::RunBatch(Dir.filePath("cmds.txt"), Lines.join('\n').toUtf8() + "\n", {}, o);
  SCOPED_TRACE(r.Out.toStdString());
  EXPECT_TRUE(r.Out.contains("Target.LoadMemory (\"" + f.sHex + "\", 0): not connected")) << "before the connection";
  EXPECT_EQ(ResultAfter(r.Out, "Exec.Connect"), 0);
  EXPECT_EQ(ResultAfter(r.Out, "File.Load (\"" + f.sElf), 0);
  // The ELF at its own load addresses; the other forms moved to RAM as a whole.
  for (const QString& sTag : QStringList{"elf", "hex", "srec", "bin"}) {
    const QByteArray Saved = ReadAll(Dir.filePath(sTag + ".bin"));
    ASSERT_EQ(Saved.size(), f.Bin.size()) << sTag.toStdString();
    for (const testsupport::LOAD_RANGE& g : f.Ranges)
      EXPECT_EQ(Saved.mid(g.Addr - f.BinBase, g.Size), testsupport::BinBytes(f, g))
          << sTag.toStdString() << " at load address " << Hex(g.Addr).toStdString();
  }
  // Filled memory reads back filled; the corrupt file changed none of it.
  EXPECT_TRUE(r.Out.contains(QStringLiteral("Could not open file %1: file contains corrupt data record at line 2").arg(sCorrupt)));
  EXPECT_EQ(ReadAll(Dir.filePath("scratch.bin")), QByteArray(256, char(0x5A)));
  EXPECT_TRUE(r.Out.contains(QStringLiteral("File.Load (\"%1\"): Invalid Address Parameter").arg(f.sBin)));
  EXPECT_TRUE(r.Out.contains("missing.hex\"): file not found"));
  EXPECT_TRUE(r.Out.contains("x.bin\", 0, 4): invalid filename"));
  EXPECT_TRUE(r.Out.contains(", abc): invalid parameter"));
}

INSTANTIATE_TEST_SUITE_P(Backends, FilesOnTarget, ::testing::Values(devtest::kSim, devtest::kQemu), devtest::PrintBackend);

}  // namespace
