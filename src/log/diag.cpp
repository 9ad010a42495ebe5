// The diagnostic catalogue: numbered messages with their flags and domain,
// rendered once at start-up into printf formats, and the reporter that shows
// each text once per loaded program.
#include "log/diag.h"

#include "common/hash.h"
#include "log/console.h"
#include "log/log.h"

#include <QSet>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

struct ROW_SRC {
  U32 Flags;
  U32 Domain;
  int ReporterCode;  // 0 where the row has none
  const char* sMessage;
};

// clang-format off
const ROW_SRC kRows[DIAG_NUM_ROWS] = {
  // ELF warnings, reporter codes 1-23
  {66, 1000, 1, "insufficient memory"},
  {66, 1000, 2, "the external ELF (data section) parser that feeds to libdwarf encountered an internal error"},
  {66, 1000, 3, "ELF data section %s is empty."},
  {66, 1000, 4, "the ELF parser encountered an invalid debug information entry reference"},
  {66, 1000, 5, "the ELF parser encountered an invalid location list reference"},
  {66, 1000, 6, "attribute %s of symbol %s has unsupported format %s"},
  {66, 1000, 7, "the program file does not contain debug information"},
  {66, 1000, 8, "the byte size of a compilation unit is less than expected from the unit's header information"},
  {66, 1000, 9, "the debug information for symbol %s is encoded in an unsupported version"},
  {66, 1000, 10, "the symbol location decoder encountered an unsupported operand: %s"},
  {66, 1000, 11, "ELF data section '.debug_loc' has an unexpected byte size"},
  {66, 1000, 12, "ELF data section '.debug_line' has an unexpected byte size"},
  {66, 1000, 13, "the address mapping table decoder encountered an invalid file index"},
  {66, 1000, 14, "the address mapping table decoder encountered an invalid directory index"},
  {66, 1000, 15, "ELF data section 'debug.frame' has an unexpected byte size"},
  {66, 1000, 16, "ELF data section 'debug.frame' contains an unsupported address size field"},
  {66, 1000, 17, "ELF data section 'debug.frame' contains an unsupported segment size field"},
  {66, 1000, 18, "the call frame decoder encountered an inconsistency within data section '.debug_frame'"},
  {66, 1000, 19, "ELF data section 'debug.frame' contains an unsupported data augmentation"},
  {66, 1000, 20, "the call frame decoder encountered an internal error state"},
  {66, 1000, 21, "ELF data section 'debug.frame' is encoded in an unsupported version"},
  {66, 1000, 22, "the address range decoder encountered an address range with an invalid debug section offset"},
  {66, 1000, 23, "the program macro information decoder encountered an internal error state"},
  // ELF errors, reporter codes 118-128 and 133
  {68, 1000, 118, "file not tagged with ELF magic number"},
  {68, 1000, 119, "not an executable ELF file"},
  {68, 1000, 120, "file class is %s"},
  {68, 1000, 121, "data encoding is ELF_DATA_NONE"},
  {68, 1000, 122, "header version number is not EV_CURRENT"},
  {68, 1000, 123, "unsupported file version number"},
  {68, 1000, 124, "a maximum number of ELF files are already open"},
  {68, 1000, 125, "file could not be opened for reading"},
  {68, 1000, 126, "unexpected file size"},
  {68, 1000, 127, "parser is out of memory"},
  {68, 1000, 128, "error reading file data"},
  {68, 1000, 133, "error parsing debug symbols"},
  // Target checks of the program file (no reporter code)
  {68, 1000, 0, "this ELF file cannot be executed on the selected target"},
  {68, 1000, 0, "the ELF file's data endianess does not match the target configuration"},
  {68, 1000, 0, "the ELF file's instruction endianess does not match the target configuration"},
  // Logged, reporter codes 24-34
  {26, 1000, 24, "generic DWARF library error"},
  {26, 1000, 25, "invalid argument to libdwarf function"},
  {26, 1000, 26, "the data section %s was not found"},
  {26, 1000, 27, "the program file does not contain macro information"},
  {26, 1000, 28, "a requested abbreviation entry was not found"},
  {26, 1000, 29, "attribute %s for symbol %s was not found"},
  {26, 1000, 30, "a debug information entry at debug section offset %s was not found"},
  {26, 1000, 31, "no call frame information for PC 0x%X"},
  {26, 1000, 32, "a requested debug information is not available"},
  {26, 1000, 33, "the compilation unit was not made current for the input DIE"},
  {26, 1000, 34, "error only applicable for DWARF producers"},
  // Logged, reporter codes 100-117
  {26, 1000, 100, "Invalid ELF file handle"},
  {26, 1000, 101, "recursion limit exceeded in ELF parser"},
  {26, 1000, 102, "Symbol constant value data exceeds allocation size limit"},
  {26, 1000, 103, "DW_OP_implicit_value with data size greater than 8 bytes is not supported"},
  {26, 1000, 104, "DW_OP_entry_value opcode encountered that does not specify an entry location"},
  {26, 1000, 105, "symbol location description contains more parts than can be stored"},
  {26, 1000, 106, "byte-unaligned symbol data pieces not yet supported"},
  {26, 1000, 107, "failed to parse location description element"},
  {26, 1000, 108, "could not parse debug info for type unit"},
  {26, 1000, 109, "could not parse debug info for compilation unit"},
  {26, 1000, 110, "could not parse source file info for compilation unit"},
  {26, 1000, 111, "could not parse source line info for compilation unit"},
  {26, 1000, 112, "could not parse macro information"},
  {26, 1000, 113, "could not parse call frame info for compilation unit"},
  {26, 1000, 114, "could not initialize symbol name index"},
  {26, 1000, 115, "evaluation of opcode 'DW_EXPR_EXPRESSION' not yet implemented"},
  {26, 1000, 116, "evaluation of opcode 'DW_EXPR_VAL_EXPRESSION' not yet implemented"},
  {26, 1000, 117, "unknown cfi register table value type"},
  // Project (rows 67-74)
  {26, 2000, 0, "project file not found: %s"},
  {26, 2000, 0, "the core support plug-in of device %s is missing"},
  {26, 2000, 0, "register description file could not be found: %s"},
  {1, 2000, 0, "loading default register description file %s"},
  {26, 2000, 0, "the program uses a real-time kernel (symbol OS_Global) but no RTOS plug-in is set"},
  {26, 2000, 0, "the program uses a real-time kernel (symbol pxCurrentTCB) but no RTOS plug-in is set"},
  {28, 2000, 0, "script interpretation failure: %s"},
  {26, 2000, 0, "project command specified twice: %s"},
  // Target channels (rows 75-79)
  {26, 3000, 0, "semihosting request %u is not supported"},
  {26, 3000, 0, "terminal input could not be sent to the target"},
  {26, 3000, 0, "terminal output dropped: capture size limit reached"},
  {26, 3000, 0, "SWO output could not be started"},
  {26, 3000, 0, "LVT control block not found in the search ranges"},
  // Files and target configuration (rows 80-82)
  {26, 4000, 0, "log file could not be opened: %s"},
  {1, 4000, 0, "logging terminal content to %s"},
  {1, 4000, 0, "target configured for %s endian program data"},
  // Further groups (rows 83-84)
  {26, 5000, 0, "trace data could not be read: %s"},
  {26, 5000, 0, "power sampling could not be started"},
};
// clang-format on

DIAG_ROW g_aRows[DIAG_NUM_ROWS];
bool g_Ready = false;
std::atomic<int> g_Epoch{0};
int g_SeenEpoch = 0;
QSet<U32> g_Seen;

const char* kHint = "Refer to the user guide and application logfile for further information";

QString VFormat(int Row, va_list Args) {
  const DIAG_ROW* r = DIAG_GetRow(Row);
  if (!r) return QString();
  return QString::vasprintf(r->acFormat, Args);
}

bool AnyChannel(U32 Flags) {
  if ((Flags & (MSG_CONSOLE | MSG_ALL)) && IsConsoleRingActive()) return true;
  if ((Flags & (MSG_STDOUT | MSG_ALL)) && IsDebugMode()) return true;
  if ((Flags & (MSG_FILE | MSG_ALL)) && IsLogFileOpen(LOG_FILE_APP)) return true;
  return false;
}

}  // namespace

void DIAG_Init() {
  for (int i = 0; i < DIAG_NUM_ROWS; ++i) {
    const ROW_SRC& s = kRows[i];
    DIAG_ROW& r = g_aRows[i];
    r.Id = U32(i);
    r.Flags = s.Flags;
    r.Domain = s.Domain;
    r.Code = s.Domain + U32(s.ReporterCode ? s.ReporterCode : i);
    r.sMessage = s.sMessage;
    r.NumPercent = 0;
    for (const char* p = s.sMessage; *p; ++p) r.NumPercent += (*p == '%');
    if (s.Flags & DIAG_PLAIN) {
      snprintf(r.acFormat, sizeof(r.acFormat), "%s.", s.sMessage);
    } else {
      const char* sDomain = s.Domain == 1000 ? "ELF " : s.Domain == 2000 ? "Project " : "";
      const char* sLevel = (s.Flags & DIAG_ERROR) ? "error" : "warning";
      snprintf(r.acFormat, sizeof(r.acFormat), "%s%s (%u): %s.", sDomain, sLevel, r.Code, s.sMessage);
    }
  }
  g_Ready = true;
}

const DIAG_ROW* DIAG_GetRow(int Row) {
  if (Row < 0 || Row >= DIAG_NUM_ROWS) return nullptr;
  if (!g_Ready) DIAG_Init();
  return &g_aRows[Row];
}

int DIAG_RowFromElfCode(int ReporterCode) {
  if (ReporterCode <= 0) return -1;
  for (int i = 0; i < DIAG_NUM_ROWS; ++i) {
    if (kRows[i].Domain == 1000 && kRows[i].ReporterCode == ReporterCode) return i;
  }
  return -1;
}

QString DIAG_Format(int Row, ...) {
  va_list Args;
  va_start(Args, Row);
  QString s = VFormat(Row, Args);
  va_end(Args);
  return s;
}

QString DIAG_FormatHint(int Row, ...) {
  va_list Args;
  va_start(Args, Row);
  QString s = VFormat(Row, Args);
  va_end(Args);
  if (s.isEmpty()) return s;
  if (s.endsWith(QLatin1Char('.'))) s.chop(1);
  return s + QStringLiteral(". ") + QLatin1String(kHint) + QLatin1Char('.');
}

void DIAG_NewEpoch() { ++g_Epoch; }

void ReportDiagnostic(int Row, ...) {
  const DIAG_ROW* r = DIAG_GetRow(Row);
  if (!r) return;
  va_list Args;
  va_start(Args, Row);
  const QString s = VFormat(Row, Args);
  va_end(Args);
  const bool Ui = IsUiThread();
  if (Ui && g_SeenEpoch != g_Epoch.load()) {
    g_Seen.clear();
    g_SeenEpoch = g_Epoch.load();
  }
  if (!AnyChannel(r->Flags)) return;
  if (!Ui) {
    LogMessage(s, r->Flags | MSG_DIAG);
    return;
  }
  const U32 h = TextHash(s.toStdString());
  if (g_Seen.contains(h)) return;
  g_Seen.insert(h);
  LogMessage(s, r->Flags | MSG_DIAG);
}
