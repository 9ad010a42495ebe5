// The data file readers against objcopy's forms of every committed firmware;
// the record rules and malformed input, table-driven; merging; the dialog.
#include "files/filetypes.h"
#include "files/fileworker.h"
#include "files/memorydialog.h"
#include "files/textrecords.h"
#include "testsupport/corpus.h"
#include "testsupport/files.h"
#include "testsupport/imageforms.h"

#include <QApplication>
#include <QBuffer>
#include <QDirIterator>
#include <QLineEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <gtest/gtest.h>
#include <numeric>

namespace {

using VFile::TEXT_FORMAT_IHEX;
using VFile::TEXT_FORMAT_SREC;

// The bytes of [Addr, Addr + Size) in a block list; empty when not covered.
QByteArray BytesAt(const CMemBlockList& Blocks, U32 Addr, U32 Size) {
  for (const CMemBlock& b : Blocks)
    if (Addr >= b.Addr && U64(Addr) + Size <= U64(b.Addr) + U64(b.Data.size())) return b.Data.mid(Addr - b.Addr, Size);
  return QByteArray();
}

// Every committed firmware ELF, relative to firmware/.
std::vector<std::string> Firmware() {
  const QString sRoot = qEnvironmentVariable("TAVIT_SOURCE_DIR") + "/firmware/";
  std::vector<std::string> v;
  for (QDirIterator It(sRoot, {"*.elf"}, QDir::Files, QDirIterator::Subdirectories); It.hasNext();) v.push_back(It.next().mid(sRoot.size()).toStdString());
  return v;
}

class FileFormsAgainstObjcopy : public ::testing::TestWithParam<std::string> {};

// The ELF reader also leaves the segment heads (ELF headers) out, so its
// lowest block starts where the raw binary does.
TEST_P(FileFormsAgainstObjcopy, EveryFormGivesTheLoadSectionsBytes) {
  QTemporaryDir Dir;
  const testsupport::IMAGE_FORMS f = testsupport::MakeImageForms(qEnvironmentVariable("TAVIT_SOURCE_DIR") + "/firmware/" +
                                                        QString::fromStdString(GetParam()), Dir.path());
  ASSERT_TRUE(f.Ok) << "objcopy/objdump gave no image";
  VFile::CFileWorker w;
  const CMemBlockList Bin = w.Read(f.sBin, f.BinBase);
  EXPECT_TRUE(Bin.size() == 1 && Bin[0].Addr == f.BinBase && Bin[0].Data == f.Bin);
  for (const QString& sForm : {f.sElf, f.sHex, f.sSrec}) {
    const CMemBlockList Blocks = w.Read(sForm);
    ASSERT_FALSE(Blocks.isEmpty()) << sForm.toStdString();
    EXPECT_EQ(std::min_element(Blocks.begin(), Blocks.end(), [](auto& a, auto& b) { return a.Addr < b.Addr; })->Addr, f.BinBase);
    for (const testsupport::LOAD_RANGE& r : f.Ranges)
      EXPECT_EQ(BytesAt(Blocks, r.Addr, r.Size), testsupport::BinBytes(f, r)) << sForm.toStdString() << " at 0x" << std::hex << r.Addr;
  }
}

INSTANTIATE_TEST_SUITE_P(Firmware, FileFormsAgainstObjcopy, ::testing::ValuesIn(Firmware()), CorpusParamName);

// ---- the text record rules

VFile::TEXT_READ_RESULT ReadText(const QByteArray& Text, VFile::TEXT_FORMAT Format) {
  QBuffer In;
  In.setData(Text);
  In.open(QIODevice::ReadOnly);
  return VFile::ReadTextRecords(In, Format);
}

// BadLine -1 for a valid file, whose merged blocks are "addr:hexbytes ..."; else
// the part of the problem text ("" for a corrupt record).
struct TEXT_CASE {
  const char *sName;
  VFile::TEXT_FORMAT Format;
  const char* sText;
  qint64 BadLine;
  const char *sProblem, *sBlocks;
};

// Records with right checksums unless the case is about checksums.
const TEXT_CASE kTextCases[] = {
    {"SrecCountRecordGivesNoBlock", TEXT_FORMAT_SREC, "S00600004844521B\nS1050000AABB95\nS5030001FB\nS9030000FC\n", -1, "", "0:aabb"},
    {"SrecThreeAddressSizes", TEXT_FORMAT_SREC, "S1040010AA41\nS205000100BB3E\nS30720000000CCDD2F\n", -1, "",
     "10:aa 100:bb 20000000:ccdd"},
    {"SrecBadChecksum", TEXT_FORMAT_SREC, "S1050000AABB95\nS1050002AABB94\n", 1, "", ""},
    {"SrecCountDisagreesWithLength", TEXT_FORMAT_SREC, "S1060000AABB95\n", 0, "", ""},
    {"SrecOddDigitCount", TEXT_FORMAT_SREC, "S1050000AABB095\n", 0, "", ""},
    {"SrecNotAHexDigit", TEXT_FORMAT_SREC, "S1050000AAGB95\n", 0, "", ""},
    {"SrecType4IsUnknown", TEXT_FORMAT_SREC, "S1050000AABB95\nS4030000FC\n", 1, "", ""},
    {"SrecPast4GiB", TEXT_FORMAT_SREC, "S307FFFFFFFFAABB97\n", 0, "4 GiB", ""},
    {"SrecOverlap", TEXT_FORMAT_SREC, "S1050000AABB95\nS1050001CCDD50\n", 1, "overlap", ""},
    {"IhexType4ThenData", TEXT_FORMAT_IHEX, ":020000040800F2\n:020010001122BB\n:00000001FF\n", -1, "", "8000010:1122"},
    {"IhexType2ShiftsByFour", TEXT_FORMAT_IHEX, ":020000021000EC\n:0100000055AA\n", -1, "", "10000:55"},
    {"IhexStartAddressesHaveNoEffect", TEXT_FORMAT_IHEX, ":0400000508000111DD\n:0400000300001234B3\n:0100000055AA\n", -1,
     "", "0:55"},
    {"IhexType1MustBeEleven", TEXT_FORMAT_IHEX, ":0100000055AA\n:01000001FFFF\n", 1, "", ""},
    {"IhexExtendedWithNonZeroAddress", TEXT_FORMAT_IHEX, ":020001040800F1\n", 0, "", ""},
    {"IhexBadChecksum", TEXT_FORMAT_IHEX, ":0100000055AB\n", 0, "", ""},
    {"IhexUnknownType", TEXT_FORMAT_IHEX, ":0100000655A4\n", 0, "", ""},
    {"IhexOddDigitCount", TEXT_FORMAT_IHEX, ":0100000055AAA\n", 0, "", ""},
    {"IhexPast4GiB", TEXT_FORMAT_IHEX, ":02000004FFFFFC\n:02FFFF001122CD\n", 1, "4 GiB", ""},
    {"IhexOverlapInAnyOrder", TEXT_FORMAT_IHEX, ":02001100334476\n:020010001122BB\n", 0, "overlap", ""},
    {"IhexAdjacentAndUnorderedMerge", TEXT_FORMAT_IHEX, ":02000200334485\n:020000001122CB\n", -1, "", "0:11223344"},
    {"CrLfAndCrAloneReadAlike", TEXT_FORMAT_IHEX, ":020000001122CB\r\n\r\n:02000200334485\r:00000001FF\r", -1, "", "0:11223344"},
    {"BlankLinesCountInLineNumbers", TEXT_FORMAT_IHEX, ":020000001122CB\r\n\r\n\n:0100000055AB\n", 3, "", ""},
    {"LastLineWithoutLineEnd", TEXT_FORMAT_IHEX, ":020000001122CB", -1, "", "0:1122"},
};

class TextRecordCases : public ::testing::TestWithParam<TEXT_CASE> {};

TEST_P(TextRecordCases, ReadAsTheRulesSay) {
  const TEXT_CASE& c = GetParam();
  const VFile::TEXT_READ_RESULT r = ReadText(c.sText, c.Format);
  EXPECT_EQ(r.BadLine, c.BadLine);
  if (c.BadLine >= 0) {
    EXPECT_TRUE(r.Blocks.isEmpty()) << "a bad line loads nothing";
    EXPECT_TRUE(*c.sProblem ? r.sProblem.contains(c.sProblem) : r.sProblem.isEmpty()) << r.sProblem.toStdString();
    return;
  }
  QStringList Got;
  for (const CMemBlock& b : r.Blocks) Got << QStringLiteral("%1:%2").arg(b.Addr, 0, 16).arg(QString::fromLatin1(b.Data.toHex()));
  EXPECT_EQ(Got.join(' ').toStdString(), c.sBlocks);
}

INSTANTIATE_TEST_SUITE_P(Records, TextRecordCases, ::testing::ValuesIn(kTextCases),
                         [](const auto& i) { return std::string(i.param.sName); });

QByteArray IhexRecord(int Type, U32 Addr16, const QByteArray& Data) {
  const QByteArray Body = char(Data.size()) + QByteArray(1, char(Addr16 >> 8)) + char(Addr16) + char(Type) + Data;
  return ":" + (Body + char(-std::accumulate(Body.begin(), Body.end(), 0, [](int s, char c) { return s + U8(c); }))).toHex().toUpper();
}

// Lines across the 1,000,000-byte slice borders (CR LF pairs split by one
// too) read whole; a line longer than a slice is corrupt.
TEST(TextRecordSlices, LinesCrossSliceBordersWhole) {
  QByteArray Text, Want;
  for (U32 i = 0, Addr = 0x08000000; Text.size() < 2 * VFile::FILE_SLICE_SIZE + 500; ++i) {
    if ((Addr & 0xFFFF) == 0) Text += IhexRecord(4, 0, QByteArray(1, char(Addr >> 24)) + char(Addr >> 16)) + "\n";
    const QByteArray Data = QByteArray::number(i * 7919).leftJustified(int(std::min<U32>(1 + i % 32, 0x10000 - (Addr & 0xFFFF))), '#', true);
    Text += IhexRecord(0, Addr & 0xFFFF, Data) + (i % 3 ? "\r\n" : "\n");
    Want += Data;
    Addr += U32(Data.size());
  }
  const VFile::TEXT_READ_RESULT r = ReadText(Text, TEXT_FORMAT_IHEX);
  EXPECT_TRUE(r.Blocks.size() == 1 && r.Blocks[0].Addr == 0x08000000u && r.Blocks[0].Data == Want);
  EXPECT_EQ(ReadText(Text.left(Text.indexOf('\n') + 1) + QByteArray(VFile::FILE_SLICE_SIZE, '0'), TEXT_FORMAT_IHEX).BadLine, 1);
}

// Merging: a later block in address order wins an overlap, neighbours join.
// Relocation moves the lowest block to the base, run addresses stay.
TEST(MemBlocks, MergeAndRelocate) {
  auto B = [](U32 a, const char* s) { CMemBlock b; b.Addr = b.VirtAddr = a; b.Data = s; return b; };
  CMemBlockList m = VFile::MergeBlocks({B(0x104, "xy"), B(0x100, "abcd"), B(0x102, "QRS"), B(0x200, "z"), B(0x106, "!")});
  ASSERT_EQ(m.size(), 2);
  EXPECT_EQ(m[0].Data, QByteArray("abQRxy!"));
  EXPECT_EQ(m[0].Size, 7u);
  VFile::CFileWorker::Relocate(m, 0x100);
  EXPECT_EQ(m[1].Addr, 0x200u);
  VFile::CFileWorker::Relocate(m, 0xFFFFFF80);
  EXPECT_EQ(m[1].Addr, 0x00000080u);
  EXPECT_EQ(m[1].VirtAddr, 0x200u);
}

// ---- the worker on files: dispatch, corrupt files, saving

TEST(FileWorker, DispatchByTypeAndSave) {
  QTemporaryDir Dir;
  for (const char* s : {"a.HEX", "a.txt"}) WriteAll(Dir.filePath(s), ":020000001122CB\n");
  WriteAll(Dir.filePath("bad.srec"), "S1050000AABB95\nS1050002AABB94\n");
  VFile::CFileWorker w;
  EXPECT_EQ(w.Read(Dir.filePath("a.HEX"), 0x20000000).value(0).Addr, 0x20000000u);
  for (const char* s : {"bad.srec", "a.txt", "missing.bin", "."}) EXPECT_TRUE(w.Read(Dir.filePath(s)).isEmpty()) << s;
  EXPECT_EQ(VFile::DataFilesFilter(), "Data Files (*.bin *.mot *.srec *.hex *.elf *.out *.axf);;");
  // Saving in slices; FileSaved also after a failure; a full disk leaves the device alone.
  QSignalSpy Saved(&w, &VFile::CFileWorker::FileSaved);
  const QByteArray Data = QByteArray("0123456789abc").repeated(200000);
  const U8* p = reinterpret_cast<const U8*>(Data.constData());
  EXPECT_EQ(w.Save(Dir.filePath("out.bin"), p, U32(Data.size())), 0);
  EXPECT_EQ(ReadAll(Dir.filePath("out.bin")), Data);
  EXPECT_EQ(w.Save(Dir.filePath("no/dir.bin"), p, 4), -1);
  EXPECT_EQ(Saved.size(), 2);
  if (QFileInfo::exists("/dev/full")) EXPECT_TRUE(w.Save("/dev/full", p, U32(Data.size())) == -1 && QFileInfo::exists("/dev/full"));
}

// The memory dialog keeps start, end and size consistent and enables its
// button only with everything its mode needs.
TEST(MemoryDialog, FieldsFollowEachOther) {
  static int Argc = 1;
  static char* Argv[] = {const_cast<char*>("test")};
  static QApplication App(Argc, Argv);
  CGenericMemoryDialog d(CGenericMemoryDialog::MODE_FILL);
  auto Fields = [&] { return (d.EndAddrEdit()->text() + "/" + d.NumBytesEdit()->text()).toStdString(); };
  d.StartAddrEdit()->setText("20000000");
  EXPECT_EQ(Fields(), "20000000/") << "no size: the end is the start";
  d.NumBytesEdit()->setText("100");
  EXPECT_EQ(Fields(), "200000FF/100");
  EXPECT_FALSE(d.LoadSaveButton()->isEnabled()) << "no fill value yet";
  d.GenericValEdit()->setText("A5");
  EXPECT_TRUE(d.LoadSaveButton()->isEnabled());
  d.EndAddrEdit()->setText("20000010");
  EXPECT_EQ(Fields(), "20000010/11");
  d.EndAddrEdit()->setText("1FFFFFFF");
  EXPECT_EQ(Fields(), "1FFFFFFF/") << "an end below the start clears the size";
  d.NumBytesEdit()->setText("2");
  d.StartAddrEdit()->setText("FFFFFFFFFFFFFFFE");
  EXPECT_TRUE(Fields() == "/2" && !d.LoadSaveButton()->isEnabled()) << "past 2^64 - 2 the end is cleared";
}

}  // namespace
