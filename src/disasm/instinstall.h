// Installs the instruction analysis: the debug layer's IInstructionAnalysis
// over the instruction cache while a program and a core plug-in are loaded,
// the refills on plug-in changes, and the command Debug.ReadIntoInstCache.
#pragma once
#include "common/types.h"

#include <QString>

namespace DisasmModule {
void Install();
// Rebuilds the mapping ranges and the cache when the program or the plug-in
// changed since the last build (or always with Force). GUI thread.
void Sync(bool Force = false);
// Debug.ReadIntoInstCache: 0 when the read was asked for, -1 with the reason.
int ReadIntoInstCache(U32 Addr, U32 Size, QString* psReason = nullptr);
// Reads the program's executable load ranges from the target into the cache
// (after a download); the number of reads asked for.
int ReadProgramIntoInstCache();
}  // namespace DisasmModule
