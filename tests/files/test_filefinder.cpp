// The file finder's rules over a tree of sources moved away from where a
// build machine left them: one table of rule sets and paths, the messages
// and statistics a resolution leaves, and a program whose compile directory
// is a Windows path (firmware/tests/elf/winpath.elf).
#include "elf/dwarf/debuginfo.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "files/filefinder.h"
#include "log/logcapture.h"
#include "testsupport/files.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>
#include <QDir>
#include <QMutexLocker>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

// A project directory and the places its sources were moved to.
class FinderTree : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { NewTestApp<QCoreApplication>(); }
  void SetUp() override {
    ASSERT_TRUE(m_Dir.isValid());
    for (const char* f : {"project/beside.c", "project/beside.bin", "moved/src/app.c", "moved/src/app.zzz",
                          "roots/r1/lib/util.c", "roots/r1/lib/util.bin", "alias/new_main.c", "data/nosuffix",
                          "search/s1/chip.svd", "search/s1/LibOS.SO", "search/s2/readme.txt"})
      Make(f);
    QDir(m_Dir.path()).mkpath(QStringLiteral("dirfile.c"));
    FileFinder().Reset();
    FileFinder().SetProjectDirSource([this] { return At("@/project"); });
    FileFinder().SetSourceFileSource([this] { return m_DebugSources; });
  }
  void TearDown() override {
    FileFinder().Reset();
    FileFinder().SetSourceFileSource(nullptr);
  }
  void Make(const QString& sRel) {
    QDir().mkpath(QFileInfo(m_Dir.filePath(sRel)).path());
    WriteAll(m_Dir.filePath(sRel), "x");
  }
  // "@" stands for the tree's directory.
  QString At(const char* s) const { return QString::fromUtf8(s).replace(QLatin1Char('@'), m_Dir.path()); }

  QTemporaryDir m_Dir;
  QStringList m_DebugSources;
};

struct RULE { char Kind; const char *a, *b; };  // 'R' root path, 'S' search path, 'A' alias, 'P' substitute
struct FINDER_CASE { const char* Name; std::vector<RULE> Rules; const char *Path, *Want; };  // Want "": not found

const FINDER_CASE kCases[] = {
    {"moved source by search path", {{'S', "@/moved/src", ""}}, "/build/host/src/app.c", "@/moved/src/app.c"},
    {"moved tree by substitute", {{'P', "/build/host", "@/moved"}}, "/build/host/src/app.c", "@/moved/src/app.c"},
    {"Windows path by substitute", {{'P', "C:\\Build\\Fw", "@/moved/src"}}, "C:\\Build\\Fw\\app.c", "@/moved/src/app.c"},
    {"Windows path by search path", {{'S', "@/moved/src", ""}}, "c:\\Build\\Fw\\app.c", "@/moved/src/app.c"},
    {"substitutes chain in key order", {{'P', "/b/mid", "@/moved"}, {'P', "/a/old", "/b/mid"}}, "/a/old/src/app.c", "@/moved/src/app.c"},
    {"a later key does not act on an earlier result", {{'P', "/z/old", "/b/mid"}, {'P', "/b/mid", "@/moved"}}, "/z/old/src/app.c", ""},
    {"substitute key in another case is not replaced", {{'P', "/BUILD/host", "@/moved"}}, "/build/host/src/app.c", ""},
    {"alias key differing in case", {{'A', "/old/Main.C", "@/alias/new_main.c"}}, "/OLD/main.c", "@/alias/new_main.c"},
    {"alias key compared normalised", {{'A', "\\old\\\\x.c", "@/alias//new_main.c"}}, "/old/x.c", "@/alias/new_main.c"},
    {"substitute acts on an alias", {{'A', "/old/y.c", "/build/host/src/app.c"}, {'P', "/build/host", "@/moved"}}, "/old/y.c", "@/moved/src/app.c"},
    {"alias after macro expansion", {{'A', "@/project/gone.c", "@/alias/new_main.c"}}, "$(ProjectDir)/gone.c", "@/alias/new_main.c"},
    {"relative path by root path", {{'R', "@/roots/r1", ""}}, "lib/util.c", "@/roots/r1/lib/util.c"},
    {"empty root path skipped", {{'R', "", ""}, {'R', "@/roots/r1", ""}}, "lib/util.c", "@/roots/r1/lib/util.c"},
    {"relative root path from the project", {{'R', "../roots/r1", ""}}, "lib/util.c", "@/roots/r1/lib/util.c"},
    {"relative search path from the project", {{'S', "../moved/src", ""}}, "/else/app.c", "@/moved/src/app.c"},
    {"beside the project", {}, "beside.c", "@/project/beside.c"},
    {"macro in any case", {}, "$(projectdir)/beside.c", "@/project/beside.c"},
    {"environment %VAR%", {}, "%TAVIT_FINDER_DIR%/beside.c", "@/project/beside.c"},
    {"environment $(VAR)", {}, "$(TAVIT_FINDER_DIR)/beside.c", "@/project/beside.c"},
    {"unset environment variable kept", {}, "%TAVIT_FINDER_UNSET%/beside.c", ""},
    {"a directory is no result", {}, "@/dirfile.c", ""},
    {"source known to the debug information", {}, "APP.c", "@/moved/src/app.c"},
    {"unknown suffix taken for a source", {}, "app.zzz", "@/moved/src/app.zzz"},
    {"no suffix taken for data", {}, "nosuffix", ""},
    {"data without suffix by search path", {{'S', "@/data", ""}}, "/else/nosuffix", "@/data/nosuffix"},
    {"document by search path", {{'S', "@/search/s2", ""}}, "/else/readme.txt", "@/search/s2/readme.txt"},
    {"register description under either suffix", {{'S', "@/search/s1", ""}}, "/else/chip.xml", "@/search/s1/chip.svd"},
    {"plug-in name in any case", {{'S', "@/search/s1", ""}}, "/else/libos.so", "@/search/s1/LibOS.SO"},
};

TEST_F(FinderTree, RulesResolveMovedFiles) {
  qputenv("TAVIT_FINDER_DIR", At("@/project").toUtf8());
  qunsetenv("TAVIT_FINDER_UNSET");
  m_DebugSources = {At("@/moved/src/app.c"), At("@/moved/src/app.zzz"), At("@/data/nosuffix")};
  for (const FINDER_CASE& c : kCases) {
    SCOPED_TRACE(c.Name);
    CFileFinder& F = FileFinder();
    F.Reset();
    for (const RULE& r : c.Rules) {
      switch (r.Kind) {
        case 'R': F.AddRootPath(At(r.a)); break;
        case 'S': F.AddSearchPath(At(r.a)); break;
        case 'A': F.AddFileAlias(At(r.a), At(r.b)); break;
        default: F.AddPathSubstitute(At(r.a), At(r.b)); break;
      }
    }
    EXPECT_EQ(F.Resolve(At(c.Path)).toStdString(), At(c.Want).toStdString());
  }
}

// Which resolutions the user hears of, what the debug log gets, the source
// statistics, and paths written with a macro in front.
TEST_F(FinderTree, MessagesStatisticsAndMacros) {
  CFileFinder& F = FileFinder();
  F.AddRootPath(At("@/roots/r1"));
  QStringList Debug;  // the other lines of the last resolution
  auto Told = [&](const char* sPath) {
    CLogCapture Capture(0xFFFFFFFFu);
    F.Resolve(At(sPath));
    QStringList Console;
    Debug.clear();
    for (const QString& s : Capture.Texts()) (s.startsWith(QLatin1String("File ")) ? Console : Debug) << s;
    Capture.Discard();
    return Console.join('\n');
  };
  const std::pair<const char*, const char*> kTold[] = {
      {"beside.bin", ""}, {"lib/util.bin", "File path resolved: \"lib/util.bin\" was found at \"@/roots/r1/lib/util.bin\""},
      {"lib/util.bin", ""}, {"/no/such.bin", "File not found: /no/such.bin"}, {"/no/such.bin", ""}, {"$(ProjectDir)/beside.bin", ""}};
  for (const auto& [sPath, sWant] : kTold) EXPECT_EQ(Told(sPath), At(sWant)) << sPath;
  F.Reset();
  EXPECT_EQ(Told("/no/such.bin"), QStringLiteral("File not found: /no/such.bin"));
  F.AddPathSubstitute(QStringLiteral("/build/host"), At("@/moved"));
  EXPECT_EQ(Told("/build/host/src/app.c"), QString());
  EXPECT_EQ(Debug, QStringList({"Starting to resolve: /build/host/src/app.c", "Applying path substitutes in : /build/host/src/app.c",
                                "Path substituted: /build/host -> " + At("@/moved")}));

  // Source results are counted, and a burst of them is told once.
  QSignalSpy Stats(&F, &CFileFinder::SrcFileResStatsChanged);
  QSignalSpy Resolved(&F, &CFileFinder::SrcFilePathResolved);
  for (const char* s : {"app.c", "gone.c", "gone.h"}) F.Resolve(QStringLiteral("/build/host/src/") + s);
  EXPECT_EQ(F.ResolvedSources(), QSet<QString>{QStringLiteral("/build/host/src/app.c")});
  EXPECT_EQ(F.UnresolvedSources().size(), 2);
  ASSERT_EQ(Resolved.size(), 1);
  EXPECT_EQ(Resolved[0][1].toString(), At("@/moved/src/app.c"));
  EXPECT_TRUE(Stats.wait(2000));
  EXPECT_EQ(Stats.size(), 1);
  F.AddSearchPath(At("@/search/s1"));
  EXPECT_TRUE(F.ResolvedSources().isEmpty() && F.UnresolvedSources().isEmpty());

  // The reverse way, for the project file writer; macro values.
  EXPECT_EQ(F.Collapse(At("@/project/sub/x.c"), QStringLiteral("$(ProjectDir)")), QStringLiteral("$(ProjectDir)/sub/x.c"));
  EXPECT_EQ(F.Collapse(At("@/project\\x.c"), QStringLiteral("$(ProjectDir)")), QStringLiteral("$(ProjectDir)/x.c"));
  EXPECT_EQ(F.Collapse(At("@/projectx/x.c"), QStringLiteral("$(ProjectDir)")), At("@/projectx/x.c"));
  EXPECT_EQ(F.Collapse(QStringLiteral("/else/x.c"), QStringLiteral("$(ProjectDir)")), QStringLiteral("/else/x.c"));
  EXPECT_EQ(F.Expand(QStringLiteral("$(PROJECTDIR)/a/$(NoSuchMacro)")), At("@/project/a/$(NoSuchMacro)"));
  EXPECT_EQ(F.GetMacroValue(QStringLiteral("$(NoSuchMacro)")), QString());
  F.AddFileAlias(QStringLiteral("/old/A.c"), QStringLiteral("/new/a.c"));
  EXPECT_EQ(F.GetAliasOrigin(QStringLiteral("/NEW/A.C")), QStringLiteral("/old/A.c"));
  EXPECT_EQ(F.GetAliasOrigin(QStringLiteral("/other.c")), QStringLiteral("/other.c"));
}

// The program as a Windows machine built it: the line tables name
// "C:\Build\Fw" as the compile directory of shapes.c and shapes.h.
TEST_F(FinderTree, ProgramBuiltOnWindows) {
  FileFinder().SetSourceFileSource(nullptr);
  DWARF_Install();
  CElfApi& Elf = CElfApi::Instance();
  ASSERT_EQ(Elf.Load(QStringLiteral(TAVIT_SOURCE_DIR "/firmware/tests/elf/winpath.elf")), 0);
  const QStringList Sources = (QMutexLocker(&Elf.Mutex()), DWARF_GetProgramTables().GetSourceFiles());
  ASSERT_FALSE(Sources.isEmpty());
  for (const char* f : {"shapes.c", "shapes.h"}) Make(QStringLiteral("fw/") + f);
  for (const QString& s : Sources) {
    SCOPED_TRACE(s.toStdString());
    EXPECT_TRUE(s.startsWith(QLatin1String("C:\\Build\\Fw"))) << "the compile directory as recorded";
    const QString Want = At("@/fw/") + FilePaths::FileName(s);
    CFileFinder& F = FileFinder();
    F.Reset();
    EXPECT_EQ(F.Resolve(s), QString());
    F.AddPathSubstitute(QStringLiteral("c:\\build\\fw"), At("@/fw"));
    EXPECT_EQ(F.Resolve(s), QString()) << "replaced in the key's own case only";
    F.AddPathSubstitute(QStringLiteral("C:\\Build\\Fw"), At("@/fw"));
    EXPECT_EQ(F.Resolve(s).toStdString(), Want.toStdString());
    F.Reset();
    F.AddSearchPath(At("@/fw"));
    EXPECT_EQ(F.Resolve(s).toStdString(), Want.toStdString());
  }
  Elf.Close();
}

}  // namespace
