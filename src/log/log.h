// The log sink: one entry point for all text of the program, with a flag word
// that says which channels take it (console ring, standard output with -debug,
// application log file). Depends on QtCore only, so that command-line tools
// can link it.
#pragma once
#include "common/types.h"
#include <QString>
#include <QStringList>

class QFile;
class QByteArray;

enum MSG_FLAGS : U32 {
  MSG_INFO    = 1,     // prefix " i  "
  MSG_WARNING = 2,     // prefix "[W] "
  MSG_ERROR   = 4,     // prefix "[E] ", error colour in the console
  MSG_STDOUT  = 8,
  MSG_FILE    = 16,
  MSG_CONSOLE = 32,
  MSG_ALL     = 64,
  MSG_QT      = 128,   // came from the toolkit's message handler
  MSG_DIAG    = 256,   // came from the diagnostic catalogue
  MSG_VORDEN  = 512,   // text from the probe library
  MSG_OWN     = 1024,  // text of the program's own log helpers
};

// The sink. 0 on success, -1 on an empty text.
int LogMessage(const char* sText, U32 Flags);
int LogMessage(const QString& sText, U32 Flags);

// Helpers with their fixed flag words.
int LogScript(const QString& sText);   // 1041
int LogInfo(const QString& sText);     // 1089
int LogWarning(const QString& sText);  // 1050, refused without log file or -debug
int LogError(const QString& sText);    // 1092

// Log file slots.
enum LOG_FILE_KIND { LOG_FILE_APP = 0, LOG_FILE_CONSOLE = 1, LOG_FILE_TERMINAL = 2 };
void SetLogFile(int Kind, const QString& sPath);
bool IsLogFileOpen(int Kind = LOG_FILE_APP);
void LogFlush();                        // writes the buffered application log text
void SetDebugMode(bool On);             // the -debug switch: copy to stdout
bool IsDebugMode();
void SetLogInterval(const QString& sInterval);

// Console ring. Colour is 0xAARRGGBB; 0 means the console's default colour.
// ColorID is a row of the colour table (COLOR_*), -1 when Color counts.
void ConsolePrint(const QString& sText, U32 Color = 0, bool UseCodeFont = false, int ColorID = -1);
void ConsolePrintLine(const QString& sText, U32 Color = 0, bool UseCodeFont = false, int ColorID = -1);
void ConsolePrintLines(const QStringList& Lines, U32 Color = 0, bool UseCodeFont = false, int ColorID = -1);

// Time text used for load stages and rebuilds: "%d:%03d ms".
QString LogTimeText(qint64 Microseconds);

// Writes by the log file rule: a file above 16,000,000 bytes is first cut to
// its first 16000 bytes; then the data is written and flushed.
void WriteLogFile(QFile* pFile, const QByteArray& Data);
QFile* GetLogFile(int Kind);               // the open file of a slot, or null
void CloseLogFiles();                      // flushes and closes all slots
// Installs the sink as the toolkit's message handler.
void InstallLogMessageHandler();
// Number of messages with the error flag so far (batch mode's exit status).
int GetErrorMessageCount();
// The probe library's log path into the sink (probe text colour); does
// nothing when no channel would take the text.
int OnDeviceLogMsg(const char* sMsg, U32 Flags);
