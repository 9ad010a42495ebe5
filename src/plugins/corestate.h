// State of the core plug-in host shared by its files (not for other modules).
#pragma once
#include "plugins/core_plugin_api.h"

#include <QString>
#include <atomic>

class QLibrary;

struct CORE_HOST_STATE {
  QLibrary* pLib = nullptr;          // loaded: library in memory, table filled
  CORE_PLUGIN_API Api{};
  void* pfGetVersion = nullptr;
  void* pfGetName = nullptr;
  std::atomic<bool> Initialised{false};
  CORE_CONFIG Config{};              // the record in force
  CORE_STATIC_INFO Info{};
  U32 Core = 0;                      // stored core and path of the plug-in
  QString sPath;
  bool ChosenByHand = false;         // the path came from the file dialog in this run
  void* pFrameTable = nullptr;
  // Bytes that the plug-in's memory reads see before the image and the
  // target: the target code that the instruction cache is taking in.
  U64 OverlayStart = 0, OverlayEnd = 0;
  const U8* pOverlay = nullptr;
};
CORE_HOST_STATE& CoreHostState();
// The host table handed to every plug-in.
const CORE_HOST_API& CoreHostApi();
// The error sink: error level in the log.
void CoreReportError(const QString& sText);
