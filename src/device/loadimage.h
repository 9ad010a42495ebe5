// The loadable segments of an ELF program as its program headers give them:
// what a download writes, at the load (physical) addresses.
#pragma once
#include "common/types.h"

#include <QByteArray>
#include <QString>
#include <vector>

struct DEV_LOAD_BLOCK {
  U32 LoadAddr;
  QByteArray Data;
};

// Blocks of the PT_LOAD segments with file data (both byte orders). False
// with a reason for anything that is not a readable 32-bit ELF file.
bool DEV_ParseLoadSegments(const QByteArray& File, std::vector<DEV_LOAD_BLOCK>* pBlocks, QString* psError);
bool DEV_ReadLoadSegments(const QString& sPath, std::vector<DEV_LOAD_BLOCK>* pBlocks, QString* psError);
