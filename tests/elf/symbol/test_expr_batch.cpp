// Elf.GetExprValue in batch mode: the application prints the value block of
// an expression over the program image exactly, and the two failure texts.
#include "elf/symbol/symbol_test_util.h"
#include "testsupport/process.h"

#include <QDir>
#include <QFile>
#include <gtest/gtest.h>

TEST(ExprBatch, GetExprValuePrintsTheBlock) {
  const QString Build = qEnvironmentVariable("TAVIT_BUILD_DIR");
  const QString Tavit = Build + "/tavit";
  ASSERT_TRUE(QFile::exists(Tavit)) << "build the tavit target first";
  const testsupport::RUN r = testsupport::RunBatch(
      qEnvironmentVariable("TAVIT_TEST_TMP", QDir::tempPath()) + "/expr_batch.txt",
      QString("File.Open(\"%1\")\n").arg(SymCorpusPath("app-dwarf4-O0.elf")).toUtf8() +
          "Elf.GetExprValue(\"recs[1].name\")\nElf.GetExprValue(\"recs[1].(\")\nElf.GetExprValue(\"*g_nodes[3].left\")\n"
          "Elf.GetExprValue(\"g_root->left->left->left->value\")\n",
      {}, {Build});
  const QString Out = r.Out + r.Err;
  const QString Dashes(40, '-');
  const QStringList Block = {
    Dashes, "recs[1].name", Dashes,
    "value as double: 3.8536947619877084e-34",
    "value as dec int: 134221724",
    "value as hex int: 0x8000F9C",
    "value bytes: 9C 0F 00 08",
    "data location: 2000" + QString(QChar(0x2008)) + "0134",
    "data type: const char*",
    "byte size: 4",
    Dashes,
    "=> 134221724 (0x8000F9C)",
  };
  EXPECT_TRUE(Out.contains(Block.join('\n'))) << Out.toStdString();
  EXPECT_TRUE(Out.contains("Elf.GetExprValue (\"recs[1].(\"): Error parsing expression")) << Out.toStdString();
  // A null pointer dereferenced: the operator's error text, left side.
  EXPECT_TRUE(Out.contains("data location: <outofscope>\ndata type: \nerror code: -3\n"
                           "error: Error evaluating operator ` : left operand has invalid value 0 (0x0)"))
      << Out.toStdString();
  // A member behind a null pointer has no location: the root cannot be read.
  EXPECT_TRUE(Out.contains("data location: <null>\ndata type: int\nerror code: -4\nerror: data readout error"))
      << Out.toStdString();
}
