#include "device/loadimage.h"

#include <QFile>

namespace {

U32 Get(const QByteArray& b, U64 Off, int Size, bool Big) {
  U32 v = 0;
  for (int i = 0; i < Size; ++i) {
    const U8 c = U8(b[qsizetype(Off + (Big ? U64(i) : U64(Size - 1 - i)))]);
    v = (v << 8) | c;
  }
  return v;
}

}  // namespace

bool DEV_ParseLoadSegments(const QByteArray& File, std::vector<DEV_LOAD_BLOCK>* pBlocks, QString* psError) {
  pBlocks->clear();
  auto Fail = [&](const char* s) {
    if (psError) *psError = QString::fromLatin1(s);
    pBlocks->clear();
    return false;
  };
  const U64 Size = U64(File.size());
  if (Size < 52 || !File.startsWith("\x7f" "ELF")) return Fail("not an ELF file");
  if (File[4] != 1) return Fail("not a 32-bit ELF file");
  if (File[5] != 1 && File[5] != 2) return Fail("unknown byte order");
  const bool Big = File[5] == 2;
  const U32 PhOff = Get(File, 28, 4, Big);
  const U32 PhEntSize = Get(File, 42, 2, Big);
  const U32 PhNum = Get(File, 44, 2, Big);
  if (PhNum == 0) return Fail("no program headers");
  if (PhEntSize < 32 || U64(PhOff) + U64(PhEntSize) * PhNum > Size) return Fail("program headers outside the file");
  for (U32 i = 0; i < PhNum; ++i) {
    const U64 h = U64(PhOff) + U64(i) * PhEntSize;
    if (Get(File, h, 4, Big) != 1) continue;  // PT_LOAD
    const U32 Off = Get(File, h + 4, 4, Big);
    const U32 PAddr = Get(File, h + 12, 4, Big);
    const U32 FileSz = Get(File, h + 16, 4, Big);
    if (FileSz == 0) continue;
    if (U64(Off) + FileSz > Size) return Fail("segment data outside the file");
    if (U64(PAddr) + FileSz > 0x100000000ull) return Fail("segment outside the address space");
    pBlocks->push_back({PAddr, File.mid(qsizetype(Off), qsizetype(FileSz))});
  }
  if (pBlocks->empty()) return Fail("no loadable data");
  return true;
}

bool DEV_ReadLoadSegments(const QString& sPath, std::vector<DEV_LOAD_BLOCK>* pBlocks, QString* psError) {
  QFile f(sPath);
  if (!f.open(QIODevice::ReadOnly)) {
    if (psError) *psError = QStringLiteral("file could not be opened: ") + sPath;
    return false;
  }
  return DEV_ParseLoadSegments(f.readAll(), pBlocks, psError);
}
