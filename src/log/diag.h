// The diagnostic catalogue: 85 numbered messages with flags, domain and a
// printf format. Rows 0-66 are the ELF domain in the order of their reporter
// codes 1-23, 118-128, 133, (three target-check rows), 24-34, 100-117.
#pragma once
#include "common/types.h"
#include <QString>

enum DIAG_FLAGS : U32 {
  DIAG_PLAIN = 1, DIAG_WARNING = 2, DIAG_ERROR = 4, DIAG_LOG = 8, DIAG_CONSOLE = 16, DIAG_USER = 64,
};

struct DIAG_ROW {
  U32 Id;             // row number
  U32 Flags;          // DIAG_FLAGS, used as log flags
  U32 Domain;         // 1000 ELF, 2000 Project, 3000-5000 further groups
  U32 Code;           // Domain + reporter code (or Id where there is none)
  int NumPercent;     // count of '%' in the message
  char acFormat[256]; // rendered format
  const char* sMessage;
};

constexpr int DIAG_NUM_ROWS = 85;

void DIAG_Init();                         // renders the formats (start-up step 4)
const DIAG_ROW* DIAG_GetRow(int Row);     // null for an unknown row
int DIAG_RowFromElfCode(int ReporterCode); // -1 when the code is not reported

// Formats a row with printf arguments.
QString DIAG_Format(int Row, ...);
// Formats a row and drops repeats on the user interface thread (once per
// program load), then hands the text to LogMessage with MSG_DIAG.
void ReportDiagnostic(int Row, ...);
// Formats with the "Refer to the user guide ..." hint appended.
QString DIAG_FormatHint(int Row, ...);
// Called when the current program changes: repeats may show again.
void DIAG_NewEpoch();
