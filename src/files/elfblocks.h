// The loadable segments of an ELF file as memory blocks, read from the file's
// bytes alone, so that reading a data file leaves the open program's state in
// the ELF layer untouched.
#pragma once
#include "files/memblock.h"

#include <QString>
#include <functional>

namespace VFile {

// Blocks of the PT_LOAD segments with a file image, in header order, both
// byte orders. The head of a segment in front of its lowest allocated section
// (such as the ELF headers) is left out. False with a reason for anything
// that is not a 32-bit ELF file; the "Virtual segment address differs" lines
// go to Log.
bool ParseElfLoadBlocks(const QByteArray& File, CMemBlockList* pBlocks, QString* psError,
                        const std::function<void(const QString&)>& Log = {});

}  // namespace VFile
