// The loadable segments of an ELF program as its program headers give them:
// what a download writes, at the load (physical) addresses. The one reader
// of program headers: data files read their ELF blocks through it too.
#pragma once
#include "common/types.h"

#include <QByteArray>
#include <QString>
#include <functional>
#include <vector>

struct DEV_LOAD_BLOCK {
  U32 LoadAddr;
  U32 VirtAddr;
  QByteArray Data;
};

// Blocks of the PT_LOAD segments with file data, in header order, both byte
// orders. The head of a segment in front of its lowest allocated section
// (such as the ELF headers) is left out. False with a reason for anything
// that is not a readable 32-bit ELF file; true with no blocks when nothing
// is loadable. The "Virtual segment address differs" lines go to Log.
bool DEV_ParseLoadSegments(const QByteArray& File, std::vector<DEV_LOAD_BLOCK>* pBlocks, QString* psError,
                           const std::function<void(const QString&)>& Log = {});
// The same from a file, for a download: a file without loadable data fails.
bool DEV_ReadLoadSegments(const QString& sPath, std::vector<DEV_LOAD_BLOCK>* pBlocks, QString* psError);
