#include "device/loadimage.h"

#include <QFile>

namespace {

U32 Get(const QByteArray& b, U64 Off, int Size, bool Big) {
  U32 v = 0;
  for (int i = 0; i < Size; ++i) v = (v << 8) | U8(b[qsizetype(Off + U64(Big ? i : Size - 1 - i))]);
  return v;
}

}  // namespace

bool DEV_ParseLoadSegments(const QByteArray& File, std::vector<DEV_LOAD_BLOCK>* pBlocks, QString* psError,
                           const std::function<void(const QString&)>& Log) {
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
  const U32 PhOff = Get(File, 28, 4, Big), ShOff = Get(File, 32, 4, Big);
  const U32 PhEntSize = Get(File, 42, 2, Big), PhNum = Get(File, 44, 2, Big);
  const U32 ShEntSize = Get(File, 46, 2, Big), ShNum = Get(File, 48, 2, Big);
  if (PhNum && (PhEntSize < 32 || U64(PhOff) + U64(PhEntSize) * PhNum > Size)) return Fail("program headers outside the file");
  // Allocated sections with a size: (address, size). A table outside the
  // file is ignored, and so is the skip rule then.
  std::vector<std::pair<U32, U32>> Sections;
  if (ShEntSize >= 40 && U64(ShOff) + U64(ShEntSize) * ShNum <= Size) {
    for (U32 i = 0; i < ShNum; ++i) {
      const U64 h = U64(ShOff) + U64(i) * ShEntSize;
      const U32 Flags = Get(File, h + 8, 4, Big), Addr = Get(File, h + 12, 4, Big), SecSize = Get(File, h + 20, 4, Big);
      if ((Flags & 2) && SecSize) Sections.push_back({Addr, SecSize});
    }
  }
  for (U32 i = 0; i < PhNum; ++i) {
    const U64 h = U64(PhOff) + U64(i) * PhEntSize;
    if (Get(File, h, 4, Big) != 1) continue;  // PT_LOAD
    const U32 Off = Get(File, h + 4, 4, Big);
    U32 VAddr = Get(File, h + 8, 4, Big), PAddr = Get(File, h + 12, 4, Big), FileSz = Get(File, h + 16, 4, Big);
    if (FileSz == 0) continue;  // no file image
    if (U64(Off) + FileSz > Size) return Fail("segment data outside the file");
    bool Found = false;
    U32 Lowest = 0;
    for (const auto& s : Sections) {
      if (s.first < VAddr || U64(s.first) + s.second > U64(VAddr) + FileSz) continue;
      if (!Found || s.first < Lowest) Lowest = s.first;
      Found = true;
    }
    const U32 Skip = Found ? Lowest - VAddr : 0;
    if (VAddr != PAddr && Log)
      Log(QString::asprintf("Virtual segment address differs from physical address by 0x%X bytes",
                            VAddr > PAddr ? VAddr - PAddr : PAddr - VAddr));
    U32 DataOff = Off;
    if (Skip <= FileSz) {
      DataOff += Skip;
      PAddr += Skip;
      VAddr += Skip;
      FileSz -= Skip;
    }
    if (FileSz == 0) continue;
    if (U64(PAddr) + FileSz > 0x100000000ull) return Fail("segment outside the address space");
    pBlocks->push_back({PAddr, VAddr, File.mid(qsizetype(DataOff), qsizetype(FileSz))});
  }
  return true;
}

bool DEV_ReadLoadSegments(const QString& sPath, std::vector<DEV_LOAD_BLOCK>* pBlocks, QString* psError) {
  QFile f(sPath);
  if (!f.open(QIODevice::ReadOnly)) {
    if (psError) *psError = QStringLiteral("file could not be opened: ") + sPath;
    return false;
  }
  if (!DEV_ParseLoadSegments(f.readAll(), pBlocks, psError)) return false;
  if (pBlocks->empty()) {
    if (psError) *psError = QStringLiteral("no loadable data");
    return false;
  }
  return true;
}
