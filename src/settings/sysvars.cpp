#include "settings/sysvars.h"

#include <QMutex>
#include <QMutexLocker>
#include <QRegularExpression>
#include <array>
#include <atomic>
#include <bitset>
#include "settings/textvalue.h"

namespace {

const SYSVAR kRows[SYSVAR_COUNT] = {
    {VAR_RESET_MODE, "VAR_RESET_MODE", SysVarType::Selection, 1, nullptr, "Reset & Halt=0,Reset & Break At Symbol=1,Reset & Run=2", false,
     "Reset mode",
     "Reset mode"},
    {VAR_CONNECT_MODE, "VAR_CONNECT_MODE", SysVarType::Selection, 0, nullptr, "Download & Reset Program=0,Attach to Running Program=1,Attach & Halt Program=2", false,
     "Connection mode",
     "Connection mode"},
    {VAR_SEMIHOSTING_ENABLED, "VAR_SEMIHOSTING_ENABLED", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Enable / Disable semihosting io",
     "Enable / Disable semihosting io"},
    {VAR_LVT_ENABLED, "VAR_LVT_ENABLED", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Enable / Disable LVT",
     "Enable / Disable LVT"},
    {VAR_TIF_SPEED, "VAR_TIF_SPEED", SysVarType::Selection, 0, nullptr, "Auto Speed=0,Adaptive Speed=0xFFFF,1 kHz=1000,2 kHz=2000,5 kHz=5000,10 kHz=10000,20 kHz=20000,50 kHz=50000,100 kHz=100000,200 kHz=200000,500 kHz=500000,1 MHz=1000000,2 MHz=2000000,3 MHz=3000000,4 MHz=4000000,5 MHz=5000000,8 MHz=8000000,10 MHz=10000000,12 MHz=12000000,15 MHz=15000000,20 MHz=20000000,25 MHz=25000000,50 MHz=50000000", false,
     "Target interface speed",
     "Target interface speed"},
    {VAR_TIF_SCAN_CHAIN_POS, "VAR_TIF_SCAN_CHAIN_POS", SysVarType::Selection, 0, nullptr, "0=0,1=1,2=2,3=3,4=4,5=5,6=6,7=7", false,
     "JTAG scan-chain position",
     "JTAG scan-chain position"},
    {VAR_TIF_SCAN_CHAIN_LEN, "VAR_TIF_SCAN_CHAIN_LEN", SysVarType::Unsigned, 0, nullptr, "SysVarMin=0,SysVarMax=1000000000", false,
     "JTAG scan-chain length",
     "JTAG scan-chain length"},
    {VAR_SWO_CPU_SPEED, "VAR_SWO_CPU_SPEED", SysVarType::Frequency, 0, nullptr, "SysVarMin=0,SysVarMax=2000000000", false,
     "SWO cpu frequency parameter",
     "SWO cpu frequency parameter"},
    {VAR_SWO_SPEED, "VAR_SWO_SPEED", SysVarType::Frequency, 0, nullptr, "SysVarMin=0,SysVarMax=2000000000", false,
     "SWO data transmission speed",
     "SWO data transmission speed"},
    {VAR_ACCESS_WIDTH, "VAR_ACCESS_WIDTH", SysVarType::Selection, 0, nullptr, "Auto Access=0,Byte=1,HalfWord=2,Word=4", true,
     "Default memory access width",
     "Default memory access width"},
    {VAR_BREAKPOINT_TYPE, "VAR_BREAKPOINT_TYPE", SysVarType::Selection, 0, nullptr, "Any=0,Hardware=1,Software=2", true,
     "Permitted breakpoint implementation type",
     "Permitted breakpoint implementation type"},
    {VAR_VERIFY_DOWNLOAD, "VAR_VERIFY_DOWNLOAD", SysVarType::Selection, 1, nullptr, "no=0,yes=1", true,
     "Verify download of program images",
     "Verify download of program images"},
    {VAR_BREAK_AT_THIS_SYMBOL, "VAR_BREAK_AT_THIS_SYMBOL", SysVarType::String, 0, "main", nullptr, true,
     "Break at this symbol on debug session start",
     "Break at this symbol on debug session start"},
    {VAR_HSS_SPEED, "VAR_HSS_SPEED", SysVarType::Selection, 1000, nullptr, "1 Hz=1,2 Hz=2,5 Hz=5,10 Hz=10,20 Hz=20,50 Hz=50,100 Hz=100,200 Hz=200,500 Hz=500,1 kHz=1000,2 kHz=2000,5 kHz=5000,10 kHz=10000,max=0", false,
     "Data graph sampling speed",
     "Data graph sampling speed"},
    {VAR_POWER_SAMPLING_SPEED, "VAR_POWER_SAMPLING_SPEED", SysVarType::Selection, 10000, nullptr, "1 kHz=1000,2 kHz=2000,4 kHz=4000,5 kHz=5000,10 kHz=10000,12.5 kHz=12500,20 kHz=20000,25 kHz=25000,33.3 kHz=33333,50 kHz=50000,100 kHz=100000", false,
     "Power sampling speed",
     "Power sampling speed"},
    {VAR_ALLOW_BMA_EMULATION, "VAR_ALLOW_BMA_EMULATION", SysVarType::Selection, 0, nullptr, "no=0,yes=1", true,
     "Allow background memory access emulation",
     "Allow background memory access emulation"},
    {VAR_MEM_ZONE_RUNNING, "VAR_MEM_ZONE_RUNNING", SysVarType::String, 0, "Default", nullptr, true,
     "Default memory zone accessed when the program is running",
     "Default memory zone accessed when the program is running"},
    {VAR_TARGET_POWER_ON, "VAR_TARGET_POWER_ON", SysVarType::Selection, 0, nullptr, "no=0,yes=1", true,
     "Vorden supplies power to the target",
     "Vorden supplies power to the target"},
    {VAR_TRACE_SOURCE, "VAR_TRACE_SOURCE", SysVarType::Selection, 0, nullptr, "None=0,Trace Pins=1,Trace Buffer=2,SWO=3", false,
     "Trace source",
     "Trace source"},
    {VAR_TRACE_PORT_WIDTH, "VAR_TRACE_PORT_WIDTH", SysVarType::Selection, 4, nullptr, "1 bit=1,2 bit=2,4 bit=4", false,
     "Trace port width",
     "Trace port width"},
    {VAR_TRACE_OVERRIDE_TIMINGS, "VAR_TRACE_OVERRIDE_TIMINGS", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Override trace timings",
     "Override trace timings"},
    {VAR_TRACE_PORT_DELAY_0, "VAR_TRACE_PORT_DELAY_0", SysVarType::Signed, 2000, nullptr, "SysVarMin=-100000,SysVarMax=100000", false,
     "Trace port data line 0 delay [ps]",
     "Trace port data line 0 delay [ps]"},
    {VAR_TRACE_PORT_DELAY_1, "VAR_TRACE_PORT_DELAY_1", SysVarType::Signed, 2000, nullptr, "SysVarMin=-100000,SysVarMax=100000", false,
     "Trace port data line 1 delay [ps]",
     "Trace port data line 1 delay [ps]"},
    {VAR_TRACE_PORT_DELAY_2, "VAR_TRACE_PORT_DELAY_2", SysVarType::Signed, 2000, nullptr, "SysVarMin=-100000,SysVarMax=100000", false,
     "Trace port data line 2 delay [ps]",
     "Trace port data line 2 delay [ps]"},
    {VAR_TRACE_PORT_DELAY_3, "VAR_TRACE_PORT_DELAY_3", SysVarType::Signed, 2000, nullptr, "SysVarMin=-100000,SysVarMax=100000", false,
     "Trace port data line 3 delay [ps]",
     "Trace port data line 3 delay [ps]"},
    {VAR_TRACE_INIT_ON_ATTACH, "VAR_TRACE_INIT_ON_ATTACH", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Explicitly initialize trace cache on program attach",
     "Explicitly initialize trace cache on program attach"},
    {VAR_TRACE_MAX_INST_CNT, "VAR_TRACE_MAX_INST_CNT", SysVarType::UInt64, 10000000, nullptr, "SysVarMin=0,SysVarMax=0xFFFFFFFFFFFFFFFF", false,
     "Maximum number of traced instructions",
     "Maximum number of traced instructions"},
    {VAR_TRACE_FILE_ENABLED, "VAR_TRACE_FILE_ENABLED", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Enable / Disable trace file",
     "Enable / Disable trace file"},
    {VAR_TRACE_FILE_PATH, "VAR_TRACE_FILE_PATH", SysVarType::String, 0, "", nullptr, false,
     "Trace file path",
     "Trace file path"},
    {VAR_TRACE_FILE_MAX_SIZE, "VAR_TRACE_FILE_MAX_SIZE", SysVarType::UInt64, 4000000000, nullptr, "SysVarMin=0,SysVarMax=0xFFFFFFFFFFFFFFFF", false,
     "Maximum trace file size (bytes)",
     "Maximum trace file size (bytes)"},
    {VAR_TRACE_FILE_KEEP_START, "VAR_TRACE_FILE_KEEP_START", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Stop recording when file size reached",
     "Stop recording when file size reached"},
    {VAR_TRACE_TIMESTAMPS_ENABLED, "VAR_TRACE_TIMESTAMPS_ENABLED", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Enable / Disable ITM timestamps",
     "Enable / Disable ITM timestamps"},
    {VAR_TRACE_CORE_CLOCK, "VAR_TRACE_CORE_CLOCK", SysVarType::UInt64, 100000000, nullptr, "SysVarMin=0,SysVarMax=0xFFFFFFFFFFFFFFFF", false,
     "CPU Clock [Hz]",
     "CPU Clock [Hz]"},
    {PREF_SHOW_EXPANSION_BAR, "PREF_SHOW_EXPANSION_BAR", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Show line expansion indicators\" | \"Show line expansion bar",
     "Show line expansion indicators\" | \"Show line expansion bar"},
    {PREF_SHOW_SIDEBAR_SRC, "PREF_SHOW_SIDEBAR_SRC", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Show sidebar in source viewer\" | \"Show sidebar",
     "Show sidebar in source viewer\" | \"Show sidebar"},
    {PREF_SHOW_SIDEBAR_ASM, "PREF_SHOW_SIDEBAR_ASM", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Show sidebar in disassembly window\" | \"Show sidebar",
     "Show sidebar in disassembly window\" | \"Show sidebar"},
    {PREF_SHOW_SRC_CODE_PROFILE, "PREF_SHOW_SRC_CODE_PROFILE", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show code profile in source viewer\" | \"Show code profile",
     "Show code profile in source viewer\" | \"Show code profile"},
    {PREF_SHOW_ASM_CODE_PROFILE, "PREF_SHOW_ASM_CODE_PROFILE", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show code profile in disassembly window\" | \"Show code profile",
     "Show code profile in disassembly window\" | \"Show code profile"},
    {PREF_SHOW_SYMBOL_ICONS, "PREF_SHOW_SYMBOL_ICONS", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show symbol icons",
     "Show symbol icons"},
    {PREF_SHOW_PROJECT_WARNINGS_DIALOG, "PREF_SHOW_PROJECT_WARNINGS_DIALOG", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Show a popup dialog when project settings are erroneous",
     "Show a popup dialog when project settings are erroneous"},
    {PREF_INDENT_INLINE_ASSEMBLY, "PREF_INDENT_INLINE_ASSEMBLY", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Indent inline assembly code",
     "Indent inline assembly code"},
    {PREF_LINE_NUMBER_FREQ, "PREF_LINE_NUMBER_FREQ", SysVarType::Selection, 2, nullptr, "Off=0,Current Line=1,All Lines=2,Every 5 Lines=3,Every 10 Lines=4", false,
     "Line number frequency",
     "Line number frequency"},
    {PREF_LOCK_HEADER_BAR, "PREF_LOCK_HEADER_BAR", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Lock header bar",
     "Lock header bar"},
    {PREF_SHOW_ASM_SOURCE, "PREF_SHOW_ASM_SOURCE", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Show source code in disassembly\" | \"Show source",
     "Show source code in disassembly\" | \"Show source"},
    {PREF_SHOW_ASM_LABELS, "PREF_SHOW_ASM_LABELS", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Show labels in disassembly\" | \"Show labels",
     "Show labels in disassembly\" | \"Show labels"},
    {PREF_TAB_SPACING, "PREF_TAB_SPACING", SysVarType::Selection, 2, nullptr, "0=0,1=1,2=2,3=3,4=4,5=5,6=6,7=7,8=8", false,
     "Source viewer tab spacing\" | \"Tab spacing",
     "Source viewer tab spacing\" | \"Tab spacing"},
    {PREF_START_WITH_MOST_RECENT_PROJ, "PREF_START_WITH_MOST_RECENT_PROJ", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Open the most recent poject on startup\" | \"Open the most recent project on startup",
     "Open the most recent poject on startup\" | \"Open the most recent project on startup"},
    {PREF_PREPEND_FUNC_CLASS_NAMES, "PREF_PREPEND_FUNC_CLASS_NAMES", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Prepend class names to function names",
     "Prepend class names to function names"},
    {PREF_SHOW_PROGBAR_WHILE_RUNNING, "PREF_SHOW_PROGBAR_WHILE_RUNNING", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show progress bar while running",
     "Show progress bar while running"},
    {PREF_SHOW_CHAR_TEXT, "PREF_SHOW_CHAR_TEXT", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Show text value for (u)char\" | \"(unsigned) char",
     "Show text value for (u)char\" | \"(unsigned) char"},
    {PREF_SHOW_SHORT_TEXT, "PREF_SHOW_SHORT_TEXT", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show text value for (u)short\" | \"(unsigned) short",
     "Show text value for (u)short\" | \"(unsigned) short"},
    {PREF_SHOW_INT_TEXT, "PREF_SHOW_INT_TEXT", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show text value for (u)int\" | \"(unsigned) int",
     "Show text value for (u)int\" | \"(unsigned) int"},
    {PREF_SHOW_CHAR_PTR_TEXT, "PREF_SHOW_CHAR_PTR_TEXT", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Show text value for (u)char*\" | \"(unsigned) char*",
     "Show text value for (u)char*\" | \"(unsigned) char*"},
    {PREF_SHOW_SHORT_PTR_TEXT, "PREF_SHOW_SHORT_PTR_TEXT", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show text value for (u)short*\" | \"(unsigned) short*",
     "Show text value for (u)short*\" | \"(unsigned) short*"},
    {PREF_SHOW_INT_PTR_TEXT, "PREF_SHOW_INT_PTR_TEXT", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show text value for (u)int*\" | \"(unsigned) int*",
     "Show text value for (u)int*\" | \"(unsigned) int*"},
    {PREF_DIALOG_SHOW_DNSA, "PREF_DIALOG_SHOW_DNSA", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Show dialog option \"do not show again\"",
     "Show dialog option \"do not show again\""},
    {PREF_SHOW_HEX_BLOCKS, "PREF_SHOW_HEX_BLOCKS", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Divide big hexadecimal numbers into blocks",
     "Divide big hexadecimal numbers into blocks"},
    {PREF_SHOW_TOOLTIPS, "PREF_SHOW_TOOLTIPS", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Show symbol tooltips",
     "Show symbol tooltips"},
    {PREF_RESIZE_COL_ON_EXPAND, "PREF_RESIZE_COL_ON_EXPAND", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Resize column when item is expanded",
     "Resize column when item is expanded"},
    {PREF_RESIZE_COL_ON_COLLAPSE, "PREF_RESIZE_COL_ON_COLLAPSE", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Resize column when item is collapsed",
     "Resize column when item is collapsed"},
    {PREF_FILTER_BARS_DISABLED, "PREF_FILTER_BARS_DISABLED", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Globally hide filter bars",
     "Globally hide filter bars"},
    {PREF_MAX_SYMBOL_MEMBERS, "PREF_MAX_SYMBOL_MEMBERS", SysVarType::Unsigned, 512, nullptr, "SysVarMin=0,SysVarMax=100000", false,
     "Symbol member count display limit",
     "Symbol member count display limit"},
    {PREF_SHOW_ENCODINGS_SRC, "PREF_SHOW_ENCODINGS_SRC", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show instruction encodings in source viewer\" | \"Show instruction encodings",
     "Show instruction encodings in source viewer\" | \"Show instruction encodings"},
    {PREF_SHOW_ENCODINGS_ASM, "PREF_SHOW_ENCODINGS_ASM", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show instruction encodings in disassembly window\" | \"Show instruction encodings",
     "Show instruction encodings in disassembly window\" | \"Show instruction encodings"},
    {PREF_SHOW_ENCODINGS_ITRACE, "PREF_SHOW_ENCODINGS_ITRACE", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show instruction encodings in instruction trace window\" | \"Show instruction encodings",
     "Show instruction encodings in instruction trace window\" | \"Show instruction encodings"},
    {PREF_TIMESTAMP_FORMAT, "PREF_TIMESTAMP_FORMAT", SysVarType::Selection, 3, nullptr, "Off=0,Instruction Count=1,Cycles=2,Time=3", false,
     "Timestamps/Timescale",
     "Timestamps/Timescale"},
    {PREF_RESTRICT_SRC_EDIT, "PREF_RESTRICT_SRC_EDIT", SysVarType::Selection, 0, nullptr, "no restriction=0,not while debugging=1,never allow editing=2", false,
     "Document editing restriction",
     "Document editing restriction"},
    {PREF_TERMINAL_EOL_FORMAT, "PREF_TERMINAL_EOL_FORMAT", SysVarType::Selection, 1, nullptr, "Windows format (CR+LF)=0,Unix format (LF)=1,Mac format (CR)=2,None=3", false,
     "Terminal window newline input termination format\" | \"Newline input termination format",
     "Terminal window newline input termination format\" | \"Newline input termination format"},
    {PREF_TERMINAL_ECHO_INPUT, "PREF_TERMINAL_ECHO_INPUT", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Terminal window echo input\" | \"Echo input",
     "Terminal window echo input\" | \"Echo input"},
    {PREF_TERMINAL_ZERO_TERM_INPUT, "PREF_TERMINAL_ZERO_TERM_INPUT", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Terminal zero terminate input\" | \"Zero-terminate input",
     "Terminal zero terminate input\" | \"Zero-terminate input"},
    {PREF_TERMINAL_NO_CONTROL_CHARS, "PREF_TERMINAL_NO_CONTROL_CHARS", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Suppress control characters in terminal window\" | \"Supress control characters",
     "Suppress control characters in terminal window\" | \"Supress control characters"},
    {PREF_TERMINAL_CLEAR_ON_RESET, "PREF_TERMINAL_CLEAR_ON_RESET", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Clear window when program is reset\" | \"Clear on reset",
     "Clear window when program is reset\" | \"Clear on reset"},
    {PREF_TERMINAL_CAPTURE_SIZE_LIMIT, "PREF_TERMINAL_CAPTURE_SIZE_LIMIT", SysVarType::Unsigned, 10000000, nullptr, "SysVarMin=0,SysVarMax=0xFFFFFFFF", false,
     "Terminal window capture size limit\" | \"Data limit (KB)",
     "Terminal window capture size limit\" | \"Data limit (KB)"},
    {PREF_SHOW_TIMESTAMPS_CONSOLE, "PREF_SHOW_TIMESTAMPS_CONSOLE", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Show timestamps in console window\" | \"Show timestamps",
     "Show timestamps in console window\" | \"Show timestamps"},
    {PREF_RESET_DIALOG_DNSA, "PREF_RESET_DIALOG_DNSA", SysVarType::Selection, 0, nullptr, "no=0,yes=1", false,
     "Reset all dialog options \"do not show again\"",
     "Reset all dialog options \"do not show again\""},
    {PREF_SESSION_SAVE_FLAGS, "PREF_SESSION_SAVE_FLAGS", SysVarType::Unsigned, 0, nullptr, "SysVarMin=0,SysVarMax=0xFFFFFFFF", false,
     "Session information not to be saved\" | \"Session information not to be safed",
     "Session information not to be saved\" | \"Session information not to be safed"},
    {PREF_TIMELINE_TOOLTIPS, "PREF_TIMELINE_TOOLTIPS", SysVarType::Selection, 7, nullptr, "None=0,Only Sample Cursor=1,Only Hover Cursor=2,Sample + Hover Cursor=3,Only Reference Cursor=4,Sample + Reference Cursor=5,Hover + Reference Cursor=6,All=7", false,
     "Tooltips",
     "Tooltips"},
    {PREF_CALLSTACK_LAYOUT, "PREF_CALLSTACK_LAYOUT", SysVarType::Selection, 0, nullptr, "Current Frame at Top=0,Current Frame at Bottom=1", false,
     "Callstack Layout",
     "Callstack Layout"},
    {PREF_CALLSTACK_DEPTH_LIMIT, "PREF_CALLSTACK_DEPTH_LIMIT", SysVarType::Unsigned, 50, nullptr, "SysVarMin=0,SysVarMax=100000", false,
     "Callstack Depth Limit",
     "Callstack Depth Limit"},
    {PREF_CG_GROUP_BY_ROOT_FUNCS, "PREF_CG_GROUP_BY_ROOT_FUNCS", SysVarType::Selection, 1, nullptr, "no=0,yes=1", false,
     "Group by root functions",
     "Group by root functions"},
    {PREF_MAX_POWER_SAMPLES, "PREF_MAX_POWER_SAMPLES", SysVarType::UInt64, 1000000, nullptr, "SysVarMin=0,SysVarMax=0xFFFFFFFFFFFFFFFF", false,
     "Maximum sample count",
     "Maximum sample count"},
    {PREF_HEX_BLOCK_SEPARATOR, "PREF_HEX_BLOCK_SEPARATOR", SysVarType::Selection, 0, nullptr, "Half Space=0,Space=1,Comma=2,Colon=3", false,
     "Hexadecimal block separator",
     "Hexadecimal block separator"},
    {PREF_DEC_BLOCK_SEPARATOR, "PREF_DEC_BLOCK_SEPARATOR", SysVarType::Selection, 0, nullptr, "Half Space=0,Space=1,Comma=2,Colon=3", false,
     "Decimal block separator",
     "Decimal block separator"},
    {PREF_BIN_BLOCK_SEPARATOR, "PREF_BIN_BLOCK_SEPARATOR", SysVarType::Selection, 0, nullptr, "Half Space=0,Space=1,Comma=2,Colon=3", false,
     "Binary block separator",
     "Binary block separator"},
};

struct State {
  std::array<std::atomic<I64>, SYSVAR_COUNT> Value{};
  std::array<std::atomic<I64>, SYSVAR_COUNT> Stored{};
  std::array<std::atomic<U32*>, SYSVAR_COUNT> External{};
  QMutex StringMutex;  // guards the string values, read by other threads
  std::array<QString, SYSVAR_COUNT> Str;
  std::array<QString, SYSVAR_COUNT> StoredStr;
  std::bitset<SYSVAR_COUNT> ExplicitlySet;
  SysVars::ConstantLookup Lookup;

  State() { ResetValues(); }
  void ResetValues() {
    for (int i = 0; i < SYSVAR_COUNT; ++i) {
      const SYSVAR& r = kRows[i];
      Value[i].store(r.Default, std::memory_order_relaxed);
      Stored[i].store(r.Default, std::memory_order_relaxed);
      if (U32* p = External[i].load()) *p = static_cast<U32>(r.Default);
    }
    QMutexLocker lock(&StringMutex);
    for (int i = 0; i < SYSVAR_COUNT; ++i) {
      const char* d = kRows[i].sDefault;
      Str[i] = StoredStr[i] = d ? QString::fromUtf8(d) : QString();
    }
    ExplicitlySet.reset();
  }
};

State& S() {
  static State s;
  return s;
}

bool Valid(int Id) { return Id >= 0 && Id < SYSVAR_COUNT; }

// The enumeration names that matter for selection rows, used when no constant
// lookup of the script host is installed.
bool BuiltInConstant(const QString& sName, I64& Value) {
  struct Pair {
    const char* Name;
    I64 Value;
  };
  static const Pair kConstants[] = {
      {"YES", 1}, {"ON", 1}, {"TRUE", 1}, {"ACTIVE", 1}, {"ENABLED", 1},
      {"NO", 0}, {"OFF", 0}, {"FALSE", 0}, {"INACTIVE", 0}, {"DISABLED", 0},
      {"RM_RESET_HALT", 0}, {"RM_BREAK_AT_SYMBOL", 1}, {"RM_BREAK_AT_MAIN", 1}, {"RM_RESET_AND_RUN", 2},
      {"CM_DOWNLOAD_RESET", 0}, {"CM_ATTACH", 1}, {"CM_ATTACH_HALT", 2},
      {"AW_ANY", 0}, {"AW_AUTO", 0}, {"AW_BYTE", 1}, {"AW_HALF_WORD", 2}, {"AW_WORD", 4},
      {"BP_TYPE_ANY", 0}, {"BP_TYPE_HARD", 1}, {"BP_TYPE_SOFT", 2},
      {"TRACE_SOURCE_NONE", 0}, {"TRACE_SOURCE_ETM", 1}, {"TRACE_SOURCE_ETB", 2}, {"TRACE_SOURCE_SWO", 3},
      {"EOL_FORMAT_WIN", 0}, {"EOL_FORMAT_UNIX", 1}, {"EOL_FORMAT_MAC", 2}, {"EOL_FORMAT_NONE", 3},
      {"LAYOUT_CURR_FRAME_ON_TOP", 0}, {"LAYOUT_CURR_FRAME_ON_BOTTOM", 1},
      {"TIMESTAMP_FORMAT_OFF", 0}, {"TIMESTAMP_FORMAT_INST_CNT", 1}, {"TIMESTAMP_FORMAT_CYCLES", 2},
      {"TIMESTAMP_FORMAT_TIME", 3}, {"FREQ_AUTO", 0}, {"FREQ_ADAPTIVE", 65535},
  };
  for (const Pair& p : kConstants)
    if (sName.compare(QLatin1String(p.Name), Qt::CaseInsensitive) == 0) {
      Value = p.Value;
      return true;
    }
  // FREQ_<n>_HZ, FREQ_<n>_KHZ, FREQ_<n>_MHZ
  static const QRegularExpression kFreq(QStringLiteral("^FREQ_([0-9]+)_(HZ|KHZ|MHZ)$"),
                                        QRegularExpression::CaseInsensitiveOption);
  const auto m = kFreq.match(sName);
  if (m.hasMatch()) {
    const QString unit = m.captured(2).toUpper();
    const I64 mult = unit == QLatin1String("MHZ") ? 1000000 : unit == QLatin1String("KHZ") ? 1000 : 1;
    bool ok = false;
    const qlonglong n = m.captured(1).toLongLong(&ok);
    if (ok && n < 1000000) {
      Value = n * mult;
      return true;
    }
  }
  return false;
}

bool LookupConstant(const QString& sName, I64& Value) {
  const auto& lookup = S().Lookup;
  return lookup ? lookup(sName, Value) : BuiltInConstant(sName, Value);
}

struct Selection {
  QStringList Labels;
  QList<I64> Values;
};

Selection ParseSelection(const char* Range) {
  Selection sel;
  if (!Range) return sel;
  const QStringList items = QString::fromUtf8(Range).split(QLatin1Char(','));
  for (const QString& item : items) {
    const qsizetype eq = item.indexOf(QLatin1Char('='));
    I64 v = 0;
    if (eq < 0 || !SettingsText::ParseInt(item.mid(eq + 1), v)) continue;
    sel.Labels.append(item.left(eq));
    sel.Values.append(v);
  }
  return sel;
}

// The number rows accept a number in any base, else a frequency text.
bool NumberFromText(const QString& sText, I64& Out) {
  if (SettingsText::ParseInt(sText, Out)) return true;
  const I64 f = SettingsText::FrequencyFromText(sText);
  if (f < 0) return false;
  Out = f;
  return true;
}

QString NumberText(const SYSVAR& r, I64 v) {
  I64 mn = 0;
  U64 mx = 0;
  const bool haveRange = SysVars::ParseRange(QString::fromUtf8(r.Range ? r.Range : ""), mn, mx);
  if (r.Type == SysVarType::Signed) {
    const I32 s = static_cast<I32>(v);
    if (!haveRange) return QStringLiteral("%1 (Could not check range).").arg(s);
    if (s < mn || s > static_cast<I64>(mx))
      return QStringLiteral("Value %1 is out of range (Min: %2, Max: %3)").arg(s).arg(mn).arg(static_cast<I64>(mx));
    return QString::number(s);
  }
  const U32 u = static_cast<U32>(v);
  if (!haveRange) return QStringLiteral("%1 (Could not check range).").arg(u);
  if (static_cast<I64>(u) < mn || u > mx)
    return QStringLiteral("Value %1 is out of range (Min: %2, Max: %3)").arg(u).arg(static_cast<U32>(mn)).arg(static_cast<U32>(mx));
  return QString::number(u);
}

}  // namespace

namespace SysVars {

const SYSVAR* Row(int Id) { return Valid(Id) ? &kRows[Id] : nullptr; }

bool IsPreference(int Id) { return Id >= SYSVAR_FIRST_PREF && Id < SYSVAR_COUNT; }

int FindSysVar(const QString& sText) { return SettingsText::FindRow(sText, kRows); }

const char* TypeName(SysVarType Type) {
  switch (Type) {
    case SysVarType::Selection: return "string selection";
    case SysVarType::Unsigned: return "unsigned int";
    case SysVarType::Signed: return "signed int";
    case SysVarType::Frequency: return "unsigned int";
    case SysVarType::String: return "string";
    case SysVarType::UInt64: return "unsigned long long";
  }
  return "";
}

void Reset() { S().ResetValues(); }

void ResetRow(int Id) {
  if (!Valid(Id)) return;
  State& s = S();
  const SYSVAR& r = kRows[Id];
  if (r.Type == SysVarType::String) {
    QMutexLocker lock(&s.StringMutex);
    s.Str[Id] = s.StoredStr[Id] = QString::fromUtf8(r.sDefault);
  } else {
    if (U32* p = s.External[Id].load()) *p = static_cast<U32>(r.Default);
    s.Value[Id].store(r.Default, std::memory_order_relaxed);
    s.Stored[Id].store(r.Default, std::memory_order_relaxed);
  }
  s.ExplicitlySet.reset(Id);
}

I64 GetValue(int Id) {
  if (!Valid(Id)) return 0;
  if (U32* p = S().External[Id].load()) return *p;
  return S().Value[Id].load(std::memory_order_relaxed);
}

I64 GetDefault(int Id) { return Valid(Id) ? kRows[Id].Default : 0; }

I64 GetStored(int Id) { return Valid(Id) ? S().Stored[Id].load(std::memory_order_relaxed) : 0; }

QString GetString(int Id) {
  if (!Valid(Id)) return QString();
  QMutexLocker lock(&S().StringMutex);
  return S().Str[Id];
}

QString GetStoredString(int Id) {
  if (!Valid(Id)) return QString();
  QMutexLocker lock(&S().StringMutex);
  return S().StoredStr[Id];
}

void SetValue(int Id, I64 Value, bool Store) {
  if (!Valid(Id) || kRows[Id].Type == SysVarType::String) return;
  State& s = S();
  if (kRows[Id].Type != SysVarType::UInt64) {
    // 4-byte fields: unsigned rows keep 0..2^32-1, signed rows -2^31..2^31-1.
    Value = kRows[Id].Type == SysVarType::Signed ? static_cast<I64>(static_cast<I32>(Value))
                                                 : static_cast<I64>(static_cast<U32>(Value));
  }
  if (U32* p = s.External[Id].load())
    *p = static_cast<U32>(Value);
  else
    s.Value[Id].store(Value, std::memory_order_relaxed);
  if (Store) s.Stored[Id].store(Value, std::memory_order_relaxed);
  s.ExplicitlySet.set(Id);
}

void SetString(int Id, const QString& sValue, bool Store) {
  if (!Valid(Id) || kRows[Id].Type != SysVarType::String) return;
  if (sValue.toUtf8().size() > kStringCapacity) return;
  State& s = S();
  {
    QMutexLocker lock(&s.StringMutex);
    s.Str[Id] = sValue;
    if (Store) s.StoredStr[Id] = sValue;
  }
  s.ExplicitlySet.set(Id);
}

TextResult ValueFromText(int Id, const QString& sText, I64& Out) {
  if (!Valid(Id)) return TEXT_INVALID;
  const SYSVAR& r = kRows[Id];
  const QString text = sText.trimmed();
  switch (r.Type) {
    case SysVarType::String:
      return TEXT_INVALID;  // strings are set with SetText / SetString
    case SysVarType::Selection: {
      const Selection sel = ParseSelection(r.Range);
      for (int i = 0; i < sel.Labels.size(); ++i)
        if (text.compare(sel.Labels[i], Qt::CaseInsensitive) == 0) {
          Out = sel.Values[i];
          return TEXT_OK;
        }
      I64 v = 0;
      if (LookupConstant(text, v) && sel.Values.contains(v)) {
        Out = v;
        return TEXT_OK;
      }
      if (SettingsText::ParseInt(text, v)) {
        if (sel.Values.contains(v)) {
          Out = v;
          return TEXT_OK;
        }
        if (v >= 0 && v < sel.Values.size()) {
          Out = sel.Values[static_cast<int>(v)];
          return TEXT_OK;
        }
      }
      // The interface speed is a list of common choices, but any frequency
      // the probe can run at is a valid speed ("2,5 MHz").
      if (Id == VAR_TIF_SPEED) {
        const I64 f = SettingsText::FrequencyFromText(text);
        if (f >= 0 && f <= 0xFFFFFFFFll) {
          Out = f;
          return TEXT_OK;
        }
      }
      return TEXT_INVALID;
    }
    case SysVarType::UInt64: {
      U64 u = 0;
      if (SettingsText::ParseUInt(text, u)) {
        Out = static_cast<I64>(u);
        return TEXT_OK;
      }
      const I64 f = SettingsText::FrequencyFromText(text);
      if (f < 0) return TEXT_NOT_A_NUMBER;
      Out = f;
      return TEXT_OK;
    }
    case SysVarType::Unsigned:
    case SysVarType::Frequency:
    case SysVarType::Signed: {
      I64 v = 0;
      if (!NumberFromText(text, v)) return TEXT_NOT_A_NUMBER;
      I64 mn = 0;
      U64 mx = 0;
      const bool haveRange = ParseRange(QString::fromUtf8(r.Range ? r.Range : ""), mn, mx);
      if (r.Type == SysVarType::Signed) {
        // A script hands its 32-bit ints over zero-extended: -100 arrives as
        // 4294967196. Take such numbers as the two's complement.
        if (v >= 0x80000000ll && v <= 0xFFFFFFFFll) v = static_cast<I32>(static_cast<U32>(v));
        if (v < INT32_MIN || v > INT32_MAX) return TEXT_OUT_OF_RANGE;
        if (haveRange && (v < mn || v > static_cast<I64>(mx))) return TEXT_OUT_OF_RANGE;
      } else {
        if (v < 0 || v > 0xFFFFFFFFll) return TEXT_OUT_OF_RANGE;
        if (haveRange && (v < mn || static_cast<U64>(v) > mx)) return TEXT_OUT_OF_RANGE;
      }
      Out = v;
      return TEXT_OK;
    }
  }
  return TEXT_INVALID;
}

TextResult SetText(int Id, const QString& sText, bool Store) {
  if (!Valid(Id)) return TEXT_INVALID;
  if (kRows[Id].Type == SysVarType::String) {
    if (sText.toUtf8().size() > kStringCapacity) return TEXT_TOO_LONG;
    SetString(Id, sText, Store);
    return TEXT_OK;
  }
  I64 v = 0;
  const TextResult res = ValueFromText(Id, sText, v);
  if (res == TEXT_OK) SetValue(Id, v, Store);
  return res;
}

QString ValueToText(int Id, I64 Value) {
  if (!Valid(Id)) return QString();
  const SYSVAR& r = kRows[Id];
  switch (r.Type) {
    case SysVarType::Selection: {
      const Selection sel = ParseSelection(r.Range);
      const int i = static_cast<int>(sel.Values.indexOf(Value));
      if (i >= 0) return sel.Labels[i];
      if (Id == VAR_TIF_SPEED) return SettingsText::FrequencyToText(static_cast<U32>(Value));
      return QString::number(Value);
    }
    case SysVarType::Frequency: return SettingsText::FrequencyToText(static_cast<U32>(Value));
    case SysVarType::Unsigned: return QString::number(static_cast<U32>(Value));
    case SysVarType::Signed: return QString::number(static_cast<I32>(Value));
    case SysVarType::UInt64: return QString::number(static_cast<U64>(Value));
    case SysVarType::String: return GetString(Id);
  }
  return QString();
}

QString GetText(int Id) {
  if (!Valid(Id)) return QString();
  const SYSVAR& r = kRows[Id];
  if (r.Type == SysVarType::Unsigned || r.Type == SysVarType::Signed) return NumberText(r, GetValue(Id));
  return ValueToText(Id, GetValue(Id));
}

QStringList GetSelectionLabels(int Id) {
  return Valid(Id) && kRows[Id].Type == SysVarType::Selection ? ParseSelection(kRows[Id].Range).Labels
                                                              : QStringList();
}

QList<I64> GetSelectionValues(int Id) {
  return Valid(Id) && kRows[Id].Type == SysVarType::Selection ? ParseSelection(kRows[Id].Range).Values
                                                              : QList<I64>();
}

QString GetRangeText(int Id) {
  return Valid(Id) && kRows[Id].Range ? QString::fromUtf8(kRows[Id].Range) : QString();
}

bool ParseRange(const QString& sRange, I64& Min, U64& Max) {
  static const QRegularExpression kRange(
      QStringLiteral("^SysVarMin=\\s*(-?(?:0x[0-9a-f]+|[0-9]+)),SysVarMax=\\s*(-?(?:0x[0-9a-f]+|[0-9]+))$"),
      QRegularExpression::CaseInsensitiveOption);
  const auto m = kRange.match(sRange);
  if (!m.hasMatch()) return false;
  auto parse = [](QString s, bool& neg) -> U64 {
    neg = s.startsWith(QLatin1Char('-'));
    if (neg) s.remove(0, 1);
    bool ok = false;
    const U64 v = s.toULongLong(&ok, 0);
    return ok ? v : ~0ull;
  };
  bool negMin = false, negMax = false;
  const U64 mn = parse(m.captured(1), negMin);
  const U64 mx = parse(m.captured(2), negMax);
  Min = negMin ? -static_cast<I64>(mn) : static_cast<I64>(mn);
  Max = negMax ? static_cast<U64>(-static_cast<I64>(mx)) : mx;
  return true;
}

bool IsChanged(int Id) {
  if (!Valid(Id)) return false;
  if (kRows[Id].Type == SysVarType::String) return GetString(Id) != QString::fromUtf8(kRows[Id].sDefault);
  return GetValue(Id) != kRows[Id].Default;
}

bool WasExplicitlySet(int Id) { return Valid(Id) && S().ExplicitlySet.test(Id); }

void BindExternal(int Id, U32* pField) {
  if (!Valid(Id)) return;
  const I64 current = GetValue(Id);
  if (pField) *pField = static_cast<U32>(current);
  S().Value[Id].store(current, std::memory_order_relaxed);  // kept when unbound again
  S().External[Id].store(pField);
}

void SetConstantLookup(ConstantLookup Lookup) { S().Lookup = std::move(Lookup); }

}  // namespace SysVars
