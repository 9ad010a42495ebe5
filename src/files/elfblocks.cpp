#include "files/elfblocks.h"

#include "device/loadimage.h"

#include <vector>

namespace VFile {

bool ParseElfLoadBlocks(const QByteArray& File, CMemBlockList* pBlocks, QString* psError,
                        const std::function<void(const QString&)>& Log) {
  pBlocks->clear();
  std::vector<DEV_LOAD_BLOCK> Segments;
  if (!DEV_ParseLoadSegments(File, &Segments, psError, Log)) return false;
  for (DEV_LOAD_BLOCK& g : Segments) {
    CMemBlock b;
    b.Addr = g.LoadAddr;
    b.VirtAddr = g.VirtAddr;
    b.Size = U32(g.Data.size());
    b.Data = std::move(g.Data);
    pBlocks->append(std::move(b));
  }
  return true;
}

}  // namespace VFile
