// Program files through the console in batch mode: File.Open of every corpus
// ELF and the Elf.* answers, checked against the cross toolchain's readelf.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <gtest/gtest.h>

#include "testsupport/process.h"
#include "testsupport/readelf_oracle.h"

namespace {

QString SourceDir() { return qEnvironmentVariable("TAVIT_SOURCE_DIR"); }
using testsupport::ResultAfter;
using testsupport::RunBatch;

// What the cross toolchain says about a file: entry point and byte order from
// readelf, and the lowest load address of a section that is downloaded
// (objdump's LMA of sections flagged LOAD), which is where the program data
// starts even when the ELF headers share the first segment.
struct READELF_FACTS {
  quint64 Entry = 0;
  bool BigEndian = false;
  quint64 LowestLoad = 0xFFFFFFFF;
};

bool ReadElfFacts(const QString& sFile, READELF_FACTS* pFacts) {
  const auto Header = readelf::Header(sFile.toStdString());
  if (!Header.count("Entry point address") || !Header.count("Data")) return false;
  pFacts->Entry = std::stoull(Header.at("Entry point address"), nullptr, 16);
  pFacts->BigEndian = Header.at("Data").find("big endian") != std::string::npos;
  const testsupport::RUN Objdump = testsupport::RunProcess("arm-none-eabi-objdump", {"-h", sFile});
  if (Objdump.Exit != 0) return false;
  const QString& Sections = Objdump.Out;
  // "  0 .vectors  00000188  08000200  08000200  00000200  2**2" followed by
  // a line of flags.
  const QRegularExpression Row(R"(^\s*\d+\s+\S+\s+([0-9a-f]+)\s+[0-9a-f]+\s+([0-9a-f]+)\s+[0-9a-f]+\s+\S+\n\s+(.*)$)",
                               QRegularExpression::MultilineOption);
  for (auto It = Row.globalMatch(Sections); It.hasNext();) {
    const auto m = It.next();
    if (!m.captured(3).contains("LOAD") || m.captured(1).toULongLong(nullptr, 16) == 0) continue;
    pFacts->LowestLoad = std::min(pFacts->LowestLoad, m.captured(2).toULongLong(nullptr, 16));
  }
  return true;
}

TEST(ProgramBatch, OpenEveryCorpusElfAndAnswerLikeReadelf) {
  ASSERT_TRUE(QFileInfo::exists(testsupport::BuiltProgram("tavit")));
  QStringList Files;
  for (QDirIterator It(SourceDir() + "/firmware", {"*.elf"}, QDir::Files, QDirIterator::Subdirectories); It.hasNext();)
    Files << It.next();
  Files.sort();
  ASSERT_GE(Files.size(), 10);
  QTemporaryDir Dir;
  int Checked = 0;
  for (const QString& sFile : Files) {
    SCOPED_TRACE(sFile.toStdString());
    READELF_FACTS Facts;
    if (!ReadElfFacts(sFile, &Facts)) GTEST_SKIP() << "arm-none-eabi-readelf is not available";
    const testsupport::RUN r = RunBatch(
        Dir.filePath("cmds.txt"),
        QString("File.Open(\"%1\")\nElf.GetEntryPointPC()\nElf.GetBaseAddr()\nElf.GetEndianess()\n").arg(sFile).toUtf8(),
        {}, {Dir.path()});
    const QString& Out = r.Out;
    ASSERT_EQ(r.Exit, 0) << Out.toStdString();
    // The load stages that ran are logged with their times.
    EXPECT_TRUE(Out.contains(QRegularExpression(R"(ELF-API wrapper initialized in \d+:\d{3} ms)"))) << Out.toStdString();
    EXPECT_TRUE(Out.contains(QRegularExpression(R"(File\.Open: completed in \d+ ms)")));
    EXPECT_EQ(ResultAfter(Out, "Elf.GetEntryPointPC();"), qint64(Facts.Entry & ~1ull));
    EXPECT_EQ(ResultAfter(Out, "Elf.GetBaseAddr();"), qint64(Facts.LowestLoad));
    EXPECT_EQ(ResultAfter(Out, "Elf.GetEndianess();"), Facts.BigEndian ? 1 : 0);
    ++Checked;
  }
  EXPECT_EQ(Checked, Files.size());
}

TEST(ProgramBatch, NoProgramAndBadFiles) {
  QTemporaryDir Dir;
  QFile Junk(Dir.filePath("junk.elf"));
  ASSERT_TRUE(Junk.open(QIODevice::WriteOnly));
  Junk.write("\x7f" "ELF this is not a program");
  Junk.close();
  const testsupport::RUN r =
      RunBatch(Dir.filePath("cmds.txt"),
               "Elf.GetBaseAddr()\nElf.GetEndianess()\nFile.Open(\"missing.elf\")\n" +
                   QString("File.Open(\"%1\")\nElf.GetEndianess()\n").arg(Junk.fileName()).toUtf8(),
               {}, {Dir.path()});
  const QString& Out = r.Out;
  EXPECT_EQ(r.Exit, 1);  // the two failed opens are errors
  EXPECT_EQ(ResultAfter(Out, "Elf.GetBaseAddr();"), 0xFFFFFFFFll);
  EXPECT_EQ(ResultAfter(Out, "Elf.GetEndianess();"), -1);
  EXPECT_TRUE(Out.contains("File.Open (\"missing.elf\"): missing.elf: file not found")) << Out.toStdString();
  // A broken file is refused with the catalogue's text and leaves no program.
  EXPECT_TRUE(Out.contains("ELF error (")) << Out.toStdString();
  const qsizetype Second = Out.lastIndexOf("Elf.GetEndianess();");
  ASSERT_GT(Second, 0);
  EXPECT_EQ(ResultAfter(Out.mid(Second), "Elf.GetEndianess();"), -1);
}

// Each file that cannot be a program gets one message that names the file
// and the reason, with the ELF layer's text where it applies.
TEST(ProgramBatch, EachBadFileGetsOneClearMessage) {
  QTemporaryDir Dir;
  auto Make = [&](const QString& sName, const QByteArray& Data) {
    QFile f(Dir.filePath(sName));
    EXPECT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(Data);
    return f.fileName();
  };
  QFile Elf(SourceDir() + "/firmware/corpus/app-dwarf3-O0.elf");
  ASSERT_TRUE(Elf.open(QIODevice::ReadOnly));
  const QByteArray Good = Elf.readAll();
  QDir(Dir.path()).mkpath("adir");
  struct CASE {
    QString sPath;
    const char* sReason;
  } const Cases[] = {
      {Make("empty.elf", ""), "is empty, not an ELF program file"},
      {Make("text.elf", "just some text\n"), "is not an ELF program file"},
      {Dir.filePath("adir"), "is a directory, not a program file"},
      {"/dev/zero", "is not a regular file"},
      {Make("head.elf", Good.left(40)), "ELF error ("},
      {Make("half.elf", Good.left(Good.size() / 2)), "ELF error ("},
      {Dir.filePath("gone.elf"), "file not found"},
  };
  QByteArray Batch;
  for (const CASE& c : Cases) Batch += "File.Open(\"" + c.sPath.toUtf8() + "\")\n";
  const testsupport::RUN r = RunBatch(Dir.filePath("cmds.txt"), Batch, {}, {Dir.path()});
  const QString& Out = r.Out;
  EXPECT_EQ(r.Exit, 1);
  const QStringList Lines = Out.split('\n');
  for (const CASE& c : Cases) {
    SCOPED_TRACE(c.sPath.toStdString());
    const QString sEcho = "File.Open (\"" + c.sPath + "\");";
    const qsizetype At = Lines.indexOf(sEcho);
    ASSERT_GE(At, 0) << Out.toStdString();
    // The echo, one error line, the result.
    ASSERT_LT(At + 2, Lines.size());
    const QString& sError = Lines[At + 1];
    EXPECT_TRUE(sError.startsWith("File.Open (\"" + c.sPath + "\"): " + c.sPath + ": ")) << sError.toStdString();
    EXPECT_TRUE(sError.contains(c.sReason)) << sError.toStdString();
    EXPECT_TRUE(Lines[At + 2].startsWith("=> -1 ")) << Lines[At + 2].toStdString();
    EXPECT_FALSE(sError.contains("invalid parameter"));
    EXPECT_FALSE(sError.contains("not implemented"));
  }
  // No ELF error stands on a line of its own.
  for (const QString& l : Lines) EXPECT_FALSE(l.startsWith("ELF error")) << l.toStdString();
}

}  // namespace
