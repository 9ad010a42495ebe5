// tavit-dump --symbol and --expr: the same children tree and value block for a
// program and its big-endian twin, and a clear error for a bad expression.
#include "testsupport/process.h"
#include <gtest/gtest.h>

namespace {

QString Dump(const QStringList& Args, int* pExit) {
  const testsupport::RUN r = testsupport::RunProcess(testsupport::BuiltProgram("tavit-dump"), Args);
  *pExit = r.Exit;
  return r.Out + r.Err;
}

QString Corpus(const char* sName) { return qEnvironmentVariable("TAVIT_SOURCE_DIR") + "/firmware/corpus/" + sName; }

TEST(DumpValues, LittleAndBigEndianTwinsShowTheSameValues) {
  const QStringList Args{"--symbol", "recs", "--expr", "recs[1].raw + recs[2].offset", "--expr", "recs[1].name"};
  int ExitLe = 0, ExitBe = 0;
  const QString Le = Dump(QStringList(Args) << Corpus("app-dwarf4-O0.elf"), &ExitLe);
  const QString Be = Dump(QStringList(Args) << Corpus("app-dwarf4-O0-be.elf"), &ExitBe);
  ASSERT_EQ(ExitLe, 0) << Le.toStdString();
  ASSERT_EQ(ExitBe, 0) << Be.toStdString();
  // Bytes are converted to host order where they enter a symbol, so even the
  // byte lines agree.
  EXPECT_EQ(Le, Be);
  // Values that the firmware's initialisers fix.
  EXPECT_TRUE(Le.contains("\"vbus\"")) << Le.toStdString();
  EXPECT_TRUE(Le.contains("recs[1].name\n")) << Le.toStdString();
  EXPECT_TRUE(Le.contains("data type: const char*")) << Le.toStdString();
}

TEST(DumpValues, BadInputGivesAnError) {
  int Exit = 0;
  const QString Out = Dump({"--expr", "recs[", Corpus("app-dwarf4-O0.elf")}, &Exit);
  EXPECT_EQ(Exit, 1);
  EXPECT_TRUE(Out.contains("Error parsing expression")) << Out.toStdString();
  const QString Unknown = Dump({"--symbol", "no_such_global", Corpus("app-dwarf4-O0.elf")}, &Exit);
  EXPECT_EQ(Exit, 1);
  EXPECT_TRUE(Unknown.contains("unknown symbol")) << Unknown.toStdString();
}

}  // namespace
