// Random input under ASan/UBSan: the file finder fed random paths and rules
// (macros, environment tokens, drive letters, backslashes, dots, broken
// characters), and the CPU register description reader fed mutations of the
// ARM plug-in's file. Nothing crashes, a found path is an existing file,
// normalising twice changes nothing, a refused file says why.
#include "files/filefinder.h"
#include "testsupport/files.h"
#include "testsupport/randomtext.h"
#include "testsupport/testapp.h"
#include "ui/registers/cpuregfile.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

using testsupport::RandomText;

TEST(FileFinderFuzz, RandomPathsAndRules) {
  NewTestApp<QCoreApplication>();
  QTemporaryDir Dir;
  for (const char* f : {"a/b.c", "a/B.H", "c/lib.so", "c/x.svd", "d/nosuffix", "d/readme.txt"}) {
    QDir().mkpath(QFileInfo(Dir.filePath(f)).path());
    WriteAll(Dir.filePath(f), "x");
  }
  CFileFinder& F = FileFinder();
  F.SetProjectDirSource([&] { return Dir.path(); });
  F.SetSourceFileSource([&] { return QStringList{Dir.filePath("a/b.c")}; });
  qputenv("TAVIT_FUZZ_DIR", Dir.path().toUtf8());
  const std::string Root = Dir.path().toStdString();
  RandomText Rnd({"/", "\\", "//", "$(", ")", "%", "$", "C:", "..", ".", "a", "B", "b.c", ".so", ".svd", ".xml", ".txt",
                  " ", "$(ProjectDir)", "$(projectdir)", "$(AppDir)", "%TAVIT_FUZZ_DIR%", "$(TAVIT_FUZZ_DIR)",
                  "%UNSET_VAR_X%", "nosuffix", Root, Root + "/a", Root + "/c"},
                 {Root + "/a/b.c", "C:\\build\\a\\b.c", "$(ProjectDir)/d/readme.txt", "%TAVIT_FUZZ_DIR%/c/lib.so"}, 20261126);
  auto Path = [&] {
    const std::string s = Rnd.Chance(30) ? Rnd.Mutate(Rnd.Seed(), 4, RandomText::Character) : Rnd.Text(0, 8, 6, RandomText::Character);
    return QString::fromUtf8(s.data(), qsizetype(s.size()));
  };
  for (int i = 0; i < 3000; ++i) {
    switch (Rnd.Below(12)) {
      case 0: F.AddRootPath(Path()); break;
      case 1: F.AddSearchPath(Path()); break;
      case 2: F.AddFileAlias(Path(), Path()); break;
      case 3: F.AddPathSubstitute(Path(), Path()); break;
      case 4: F.Reset(); break;
      default: break;
    }
    const QString p = Path(), n = FilePaths::Normalise(p);
    ASSERT_EQ(FilePaths::Normalise(n), n) << i;
    if (!p.contains('$') && !p.contains('%')) ASSERT_EQ(F.Expand(p), p) << i;
    F.Collapse(p, QStringLiteral("$(ProjectDir)"));
    const QString r = Rnd.Chance(20) ? F.ResolvePlugin(p) : F.Resolve(p);
    ASSERT_TRUE(r.isEmpty() || QFileInfo(r).isFile()) << i << " " << r.toStdString();
  }
  F.Reset();
}

TEST(FileFinderFuzz, CpuRegisterFiles) {
  QFile Seed(QStringLiteral(TAVIT_SOURCE_DIR "/coreplugins/arm/CortexM_CPU.svd"));
  ASSERT_TRUE(Seed.open(QIODevice::ReadOnly));
  const std::string Text = Seed.readAll().toStdString();
  QTemporaryDir Dir;
  const QString sFile = Dir.filePath("cpu.svd");
  QList<CPU_REG_DESC> Regs;
  QString sError;
  ASSERT_EQ(REG_ReadCpuFile(QStringLiteral(TAVIT_SOURCE_DIR "/coreplugins/arm/CortexM_CPU.svd"), &Regs, &sError), 0);
  EXPECT_EQ(Regs.size(), 56);
  RandomText Rnd({"<register>", "</register>", "<index>", "</index>", "<size>99</size>", "<group derivedFrom=\"x\">",
                  "<groups>", "</groups>", "&amp;", "<!--", "#101", "4k", "0x", "<cpu>", "<device>", "<peripheral>"},
                 {Text}, 7);
  for (int i = 0; i < 400; ++i) {
    const std::string s = Rnd.Mutate(Text, 6, RandomText::Byte);
    WriteAll(sFile, QByteArray::fromStdString(s));
    sError.clear();
    const int r = REG_ReadCpuFile(sFile, &Regs, &sError);
    ASSERT_TRUE(r == 0 ? sError.isEmpty() : r == -1 && !sError.isEmpty() && Regs.isEmpty()) << i;
    for (const CPU_REG_DESC& d : Regs) ASSERT_TRUE(!d.Name.isEmpty() && d.Bits >= 1 && d.Bits <= 64) << i;
  }
  U64 v = 0;
  EXPECT_TRUE(REG_ParseNumber("#101", &v) && v == 5);
  EXPECT_TRUE(REG_ParseNumber("+4k", &v) && v == 4000);
  EXPECT_FALSE(REG_ParseNumber("0xZ", &v));
}

}  // namespace
