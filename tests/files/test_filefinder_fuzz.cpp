// The file finder fed random paths and rules (macros, environment tokens,
// drive letters, backslashes, dots, broken characters) under ASan/UBSan:
// nothing crashes, a result is always an existing file, normalising twice
// changes nothing, and the finder's path is never written to disk.
#include "files/filefinder.h"
#include "testsupport/files.h"
#include "testsupport/randomtext.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFileInfo>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

int CountEntries(const QString& sDir) {
  int n = 0;
  for (QDirIterator it(sDir, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden, QDirIterator::Subdirectories); it.hasNext(); it.next()) ++n;
  return n;
}

TEST(FileFinderFuzz, RandomPathsAndRules) {
  NewTestApp<QCoreApplication>();
  QTemporaryDir Dir;
  ASSERT_TRUE(Dir.isValid());
  for (const char* f : {"a/b.c", "a/B.H", "c/lib.so", "c/x.svd", "d/nosuffix", "d/readme.txt"}) {
    QDir().mkpath(QFileInfo(Dir.filePath(QString::fromLatin1(f))).path());
    WriteAll(Dir.filePath(QString::fromLatin1(f)), "x");
  }
  const int Entries = CountEntries(Dir.path());
  CFileFinder& F = FileFinder();
  F.SetProjectDirSource([&] { return Dir.path(); });
  F.SetSourceFileSource([&] { return QStringList{Dir.filePath(QStringLiteral("a/b.c"))}; });
  qputenv("TAVIT_FUZZ_DIR", Dir.path().toUtf8());
  const std::string Root = Dir.path().toStdString();
  testsupport::RandomText Rnd({"/", "\\", "\\\\", "//", "$(", ")", "%", "$", "C:", "z:", "..", ".", "a", "B", "b.c", "B.H",
                               ".c", ".so", ".svd", ".xml", ".txt", ".", " ", "*.", "$(ProjectDir)", "$(projectdir)",
                               "$(AppDir)", "$(PluginDir)", "%TAVIT_FUZZ_DIR%", "$(TAVIT_FUZZ_DIR)", "%UNSET_VAR_X%",
                               "lib", "nosuffix", "readme", Root, Root + "/a", Root + "/c"},
                              {Root + "/a/b.c", "C:\\build\\a\\b.c", "$(ProjectDir)/d/readme.txt", "%TAVIT_FUZZ_DIR%/c/lib.so"},
                              20261126);
  auto Path = [&] {
    const std::string s = Rnd.Chance(30) ? Rnd.Mutate(Rnd.Seed(), 4, testsupport::RandomText::Character)
                                         : Rnd.Text(0, 8, 6, testsupport::RandomText::Character);
    return QString::fromUtf8(s.data(), qsizetype(s.size()));
  };
  for (int i = 0; i < 3000; ++i) {
    SCOPED_TRACE(i);
    switch (Rnd.Below(12)) {
      case 0: F.AddRootPath(Path()); break;
      case 1: F.AddSearchPath(Path()); break;
      case 2: F.AddFileAlias(Path(), Path()); break;
      case 3: F.AddPathSubstitute(Path(), Path()); break;
      case 4: F.Reset(); break;
      default: break;
    }
    const QString p = Path();
    const QString n = FilePaths::Normalise(p);
    ASSERT_EQ(FilePaths::Normalise(n), n) << p.toStdString();
    if (!p.contains(QLatin1Char('$')) && !p.contains(QLatin1Char('%'))) ASSERT_EQ(F.Expand(p), p);
    FilePaths::MatchesPatterns(p, Path());
    F.Collapse(p, QStringLiteral("$(ProjectDir)"));
    F.GetAliasOrigin(p);
    const QString r = Rnd.Chance(20) ? F.ResolvePlugin(p) : F.Resolve(p);
    if (!r.isEmpty()) ASSERT_TRUE(QFileInfo(r).isFile()) << p.toStdString() << " -> " << r.toStdString();
  }
  EXPECT_EQ(CountEntries(Dir.path()), Entries);
  F.Reset();
}

}  // namespace
