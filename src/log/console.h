// The console ring: a fixed array of entries that any thread may append to and
// that the user interface thread drains (the console window every 100 ms, batch
// mode after each command). The reader also writes the console log file.
#pragma once
#include "common/types.h"
#include <QString>
#include <functional>

constexpr int CONSOLE_RING_SIZE = 1000;
constexpr int CONSOLE_MAX_TEXT = 1000;  // characters

struct CONSOLE_ENTRY {
  U8 IsInUse;
  U8 NewLine;
  U8 UseCodeFont;
  U32 Color;     // 0xAARRGGBB, 0 for the default colour
  I32 ColorID;   // row of the colour table, -1 when Color counts
  U32 LineCount; // 1 plus the number of line feeds
  char Text[CONSOLE_MAX_TEXT * 3 + 1];  // UTF-8, at most 1000 characters
  U64 TimeMS;
};

// Clears the ring, starts the clocks and opens the ring for writers. Until
// this is called console text is dropped.
void ConsoleRingStart();
void ConsoleRingStop();
bool IsConsoleRingActive();

// Takes at most Max entries from the read index on (stops at a free slot),
// hands each to Fn and writes it to the console log file. Returns the count.
int ConsoleRingTake(const std::function<void(const CONSOLE_ENTRY&)>& Fn, int Max = CONSOLE_RING_SIZE);

// When set, a writer on the user interface thread that finds the ring full
// drains it through this function instead of dropping text (batch mode).
void SetConsoleOverflowDrain(const std::function<void()>& Fn);

// Remembers the calling thread as the user interface thread.
void SetUiThread();
bool IsUiThread();
