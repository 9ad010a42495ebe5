// The record and ELF header readers under ASan/UBSan with mutated and random
// input: no crash, and valid results are sorted disjoint blocks below 4 GiB.
#include "files/elfblocks.h"
#include "files/textrecords.h"
#include "testsupport/imageforms.h"
#include "testsupport/randomtext.h"

#include <QBuffer>
#include <QTemporaryDir>
#include <gtest/gtest.h>

namespace {

const int kIterations = qEnvironmentVariableIntValue("TAVIT_FILES_FUZZ_ITERATIONS") ?: 2500;
using testsupport::RandomText;

std::vector<std::string> Pieces(const QString& sPath) {
  QFile f(sPath);
  const QList<QByteArray> Lines = f.open(QIODevice::ReadOnly) ? f.readAll().split('\n') : QList<QByteArray>();
  std::vector<std::string> v;
  for (qsizetype At = 0; At + 40 < Lines.size(); At += Lines.size() / 8 + 1) v.push_back(Lines.mid(At, 40).join('\n').toStdString());
  return v;
}

TEST(FilesFuzz, TextRecordReadersSurviveMutationsAndRandomText) {
  QTemporaryDir Dir;
  const auto f = testsupport::MakeImageForms(qEnvironmentVariable("TAVIT_SOURCE_DIR") + "/firmware/corpus/app-dwarf4-O2.elf", Dir.path());
  for (VFile::TEXT_FORMAT Format : {VFile::TEXT_FORMAT_SREC, VFile::TEXT_FORMAT_IHEX}) {
    const std::vector<std::string> Seeds = Pieces(Format == VFile::TEXT_FORMAT_SREC ? f.sSrec : f.sHex);
    RandomText r({":", "S1", "S3", "S5", "0", "F", "FF", "04", "\n", "\r", " ", ":020000040800F2", ":00000001FF", "FFFFFFFF"}, Seeds,
                 17 + Format);
    int Valid = 0;
    for (int i = 0; i < kIterations; ++i) {
      const std::string In = i % 4 ? r.Mutate(r.Seed(), 6, RandomText::Byte) : r.Text(1, 200, 5, RandomText::Byte);
      QBuffer Buf;
      Buf.setData(QByteArray::fromStdString(In));
      Buf.open(QIODevice::ReadOnly);
      const VFile::TEXT_READ_RESULT Out = VFile::ReadTextRecords(Buf, Format);
      if (Out.BadLine >= 0) ASSERT_TRUE(Out.Blocks.isEmpty());
      Valid += Out.BadLine < 0;
      for (qsizetype k = 0; k < Out.Blocks.size(); ++k) {
        const CMemBlock& b = Out.Blocks[k];
        ASSERT_TRUE(b.Size == U32(b.Data.size()) && b.Size > 0 && U64(b.Addr) + b.Size <= 0x100000000ull);
        if (k) ASSERT_GT(b.Addr, Out.Blocks[k - 1].Addr + Out.Blocks[k - 1].Size - 1);
      }
    }
    EXPECT_GT(Valid, 0) << "mutations must reach the data path";
  }
}

TEST(FilesFuzz, ElfLoadBlocksSurviveMutatedHeaders) {
  QFile f(qEnvironmentVariable("TAVIT_SOURCE_DIR") + "/firmware/corpus/app-dwarf4-O0-be.elf");
  ASSERT_TRUE(f.open(QIODevice::ReadOnly));
  const QByteArray Valid = f.readAll();
  CMemBlockList Blocks;
  QString sErr;
  // The program headers lie at the start and the section table at the end.
  RandomText r({std::string(4, '\0'), std::string(4, '\xFF'), "\x01", "\x7F" "ELF"}, {Valid.left(2048).toStdString(), Valid.right(2048).toStdString()}, 5);
  for (int i = 0; i < kIterations; ++i) {
    QByteArray In = Valid;
    const qsizetype At = i % 2 ? 0 : In.size() - 2048;
    In.replace(At, 2048, QByteArray::fromStdString(r.Mutate(In.mid(At, 2048).toStdString(), 8, RandomText::Byte)));
    if (i % 16 == 0) In.truncate(qsizetype(r.Below(size_t(In.size()))));
    if (VFile::ParseElfLoadBlocks(In, &Blocks, &sErr))
      for (const CMemBlock& b : Blocks) ASSERT_EQ(b.Size, U32(b.Data.size()));
  }
}

}  // namespace
