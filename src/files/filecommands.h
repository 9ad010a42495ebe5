// The commands that bring data files into target memory and target memory
// into files: File.Load, Target.LoadMemory, Target.SaveMemory.
#pragma once
#include "common/types.h"

#include <QString>

namespace FilesModule {
// Call once after the device module is installed.
void Install();
// A data file given to File.Load while no target is connected waits here
// for the download at the next connection: its path and base address (-1
// keeps the file's addresses). Empty path when none waits.
QString PendingDataFile(I64* pBaseAddr = nullptr);
// Downloads a data file now: 0, or -1 with the error set on action Id.
int DownloadDataFile(int Id, const QString& sFilePath, I64 BaseAddr, int Mode);
}  // namespace FilesModule
