// The vocabulary of the command language: aliases of old command names,
// alternative shortcut forms and the named constants that the console accepts
// in place of numbers.
#include "commands/actions.h"

namespace {

struct ALIAS {
  const char* sOld;
  const char* sNew;
};

const ALIAS kAliases[] = {
    {"Trace", "Trace.Add"},
    {"Watch", "Watch.Add"},
    {"Window.SetNumberBase", "Window.SetDisplayFormat"},
    {"Break.Edit", "Edit.Break"},
    {"Project.SetPeripheralFile", "Project.AddSvdFile"},
    {"Project.SetRootPath", "Project.AddRootPath"},
    {"Debug.SetNextStmnt", "Debug.SetNextStatement"},
    {"Debug.ReadIntoTraceCache", "Debug.ReadIntoInstCache"},
    {"Project.SetTIFScanChain", "Project.SetJTAGConfig"},
    {"Edit.VordenSettings", "Tools.VordenSettings"},
    {"Edit.Preferences", "Tools.Preferences"},
    {"Edit.TraceSettings", "Tools.TraceSettings"},
    {"Edit.SysVars", "Tools.SysVars"},
    {"Edit.Find", "Find.Text"},
    {"View.InstrTrace", "View.InstTrace"},
    {"Help.Manual", "Help.UserGuide"},
};

const ALIAS kShortcutAliases[] = {
    {"Ctrl++", "Ctrl+="},
    {"Alt++", "Alt+="},
    {"+", "="},
    {"Ctrl+F5", "F6"},
};

// clang-format off
const ACTION_CONST kConstants[] = {
  {0, "RM_RESET_HALT", "Reset and halt"},
  {1, "RM_BREAK_AT_SYMBOL", "Reset and break at symbol"},
  {2, "RM_RESET_AND_RUN", "Reset and run"},
  {0, "CM_DOWNLOAD_RESET", "Download and reset"},
  {1, "CM_ATTACH", "Attach"},
  {2, "CM_ATTACH_HALT", "Attach and halt"},
  {0, "GO_USER", "Go"},
  {1, "GO_RUN_TO", "Run to"},
  {2, "NUMBER_BASE_BINARY", "Binary base"},
  {10, "NUMBER_BASE_DEC", "Decimal base"},
  {16, "NUMBER_BASE_HEX", "Hexadecimal base"},
  {0, "DISPLAY_FORMAT_AUTO", "Auto"},
  {2, "DISPLAY_FORMAT_BINARY", "Binary"},
  {8, "DISPLAY_FORMAT_CHAR", "Character"},
  {10, "DISPLAY_FORMAT_DEC", "Decimal"},
  {16, "DISPLAY_FORMAT_HEX", "Hexadecimal"},
  {0, "AW_ANY", "Any access width"},
  {1, "AW_BYTE", "Byte"},
  {2, "AW_HALF_WORD", "Half word"},
  {4, "AW_WORD", "Word"},
  {0, "AT_READ_ONLY", "Read only"},
  {1, "AT_WRITE_ONLY", "Write only"},
  {2, "AT_READ_WRITE", "Read/write"},
  {3, "AT_NO_ACCESS", "No access"},
  {0, "BP_STATE_OFF", "Off"},
  {1, "BP_STATE_ON", "On"},
  {2, "BP_STATE_ON_HIDDEN", "On, hidden"},
  {3, "BP_STATE_DISABLED", "Disabled state"},
  {4, "BP_STATE_MIXED", "Mixed state"},
  {5, "BP_STATE_UNKNOWN", "Unknown state"},
  {0, "BP_TYPE_ANY", "Any breakpoint type"},
  {1, "BP_TYPE_HARD", "Hardware"},
  {2, "BP_TYPE_SOFT", "Software"},
  {3, "BP_TYPE_FLASH", "Flash"},
  {4, "BP_TYPE_RAM", "RAM"},
  {5, "BP_TYPE_Pending", "Pending"},
  {6, "BP_TYPE_MIXED", "Mixed type"},
  {0, "FREQ_AUTO", "Auto frequency"},
  {65535, "FREQ_ADAPTIVE", "Adaptive"},
  {1, "FREQ_1_HZ", "1 Hz"},
  {2, "FREQ_2_HZ", "2 Hz"},
  {5, "FREQ_5_HZ", "5 Hz"},
  {10, "FREQ_10_HZ", "10 Hz"},
  {20, "FREQ_20_HZ", "20 Hz"},
  {50, "FREQ_50_HZ", "50 Hz"},
  {100, "FREQ_100_HZ", "100 Hz"},
  {200, "FREQ_200_HZ", "200 Hz"},
  {500, "FREQ_500_HZ", "500 Hz"},
  {1000, "FREQ_1_KHZ", "1 kHz"},
  {2000, "FREQ_2_KHZ", "2 kHz"},
  {5000, "FREQ_5_KHZ", "5 kHz"},
  {10000, "FREQ_10_KHZ", "10 kHz"},
  {20000, "FREQ_20_KHZ", "20 kHz"},
  {50000, "FREQ_50_KHZ", "50 kHz"},
  {100000, "FREQ_100_KHZ", "100 kHz"},
  {200000, "FREQ_200_KHZ", "200 kHz"},
  {500000, "FREQ_500_KHZ", "500 kHz"},
  {1000000, "FREQ_1_MHZ", "1 MHz"},
  {2000000, "FREQ_2_MHZ", "2 MHz"},
  {3000000, "FREQ_3_MHZ", "3 MHz"},
  {4000000, "FREQ_4_MHZ", "4 MHz"},
  {5000000, "FREQ_5_MHZ", "5 MHz"},
  {8000000, "FREQ_8_MHZ", "8 MHz"},
  {10000000, "FREQ_10_MHZ", "10 MHz"},
  {12000000, "FREQ_12_MHZ", "12 MHz"},
  {15000000, "FREQ_15_MHZ", "15 MHz"},
  {20000000, "FREQ_20_MHZ", "20 MHz"},
  {25000000, "FREQ_25_MHZ", "25 MHz"},
  {50000000, "FREQ_50_MHZ", "50 MHz"},
  {1, "1", "1"},
  {1, "YES", "Yes"},
  {1, "ON", "On"},
  {1, "TRUE", "True"},
  {1, "0x1", "0x1"},
  {1, "ACTIVE", "Active"},
  {1, "ENABLED", "Enabled"},
  {0, "0", "0"},
  {0, "NO", "No"},
  {0, "OFF", "Off"},
  {0, "FALSE", "False"},
  {0, "0x0", "0x0"},
  {0, "INACTIVE", "Inactive"},
  {0, "DISABLED", "Disabled"},
  {1, "USB", "USB"},
  {2, "IP", "IP"},
  {0, "JTAG", "JTAG"},
  {1, "SWD", "SWD"},
  {3, "FINE", "FINE"},
  {7, "cJTAG", "cJTAG"},
  {0, "TRACE_SOURCE_NONE", "None"},
  {1, "TRACE_SOURCE_ETM", "ETM"},
  {2, "TRACE_SOURCE_ETB", "ETB"},
  {3, "TRACE_SOURCE_SWO", "SWO"},
  {0, "EOL_FORMAT_WIN", "CR LF"},
  {1, "EOL_FORMAT_UNIX", "LF"},
  {2, "EOL_FORMAT_MAC", "CR"},
  {3, "EOL_FORMAT_NONE", "No line end"},
  {0, "CSV_FUNCS", "Functions"},
  {1, "CSV_LINES", "Lines"},
  {2, "CSV_INSTS", "Instructions"},
  {0, "TP_OP_START", "Start trace"},
  {1, "TP_OP_STOP", "Stop trace"},
  {1, "DISABLE_SAVE_WINDOW_LAYOUT", "Window layout"},
  {2, "DISABLE_SAVE_TABLE_LAYOUT", "Table layout"},
  {4, "DISABLE_SAVE_OPEN_FILES", "Open files"},
  {8, "DISABLE_SAVE_BREAKPOINTS", "Breakpoints"},
  {16, "DISABLE_SAVE_EXPRESSIONS", "Expressions"},
  {32, "DISABLE_SAVE_SELECTED_REGS", "Selected registers"},
  {0xFFFFFFFF, "DISABLE_SAVE_ANY", "Any session data"},
  {1000000, "POWER_UNIT_MICROAMPS", "uA"},
  {1000, "POWER_UNIT_MILLIAMPS", "mA"},
  {0, "LAYOUT_CURR_FRAME_ON_TOP", "Current frame on top"},
  {1, "LAYOUT_CURR_FRAME_ON_BOTTOM", "Current frame on bottom"},
  {0, "TIMESTAMP_FORMAT_OFF", "Off"},
  {1, "TIMESTAMP_FORMAT_INST_CNT", "Instruction count"},
  {2, "TIMESTAMP_FORMAT_CYCLES", "Cycles"},
  {3, "TIMESTAMP_FORMAT_TIME", "Time"},
};
// clang-format on

static_assert(sizeof(kConstants) / sizeof(kConstants[0]) == 117, "117 constants");

}  // namespace

QString GetCommandAlias(const QString& sName) {
  for (const ALIAS& a : kAliases) {
    if (sName.compare(QLatin1String(a.sOld), Qt::CaseInsensitive) == 0) return QLatin1String(a.sNew);
    if (sName.compare(QLatin1String(a.sNew), Qt::CaseInsensitive) == 0) return QLatin1String(a.sOld);
  }
  return QString();
}

QString GetShortcutAlias(const QString& sShortcut) {
  for (const ALIAS& a : kShortcutAliases) {
    if (sShortcut.compare(QLatin1String(a.sOld), Qt::CaseInsensitive) == 0) return QLatin1String(a.sNew);
  }
  return QString();
}

int GetNumConstants() { return int(sizeof(kConstants) / sizeof(kConstants[0])); }

const ACTION_CONST* GetConstant(int Index) {
  if (Index < 0 || Index >= GetNumConstants()) return nullptr;
  return &kConstants[Index];
}

// Index of the constant named (or displayed) as s, -1 when none. The two old
// names RM_BREAK_AT_MAIN and AW_AUTO stand for their current constants.
static int FindConstantIndex(const QString& sIn) {
  QString s = sIn.trimmed();
  if (s.compare(QLatin1String("RM_BREAK_AT_MAIN"), Qt::CaseInsensitive) == 0) s = QStringLiteral("RM_BREAK_AT_SYMBOL");
  if (s.compare(QLatin1String("AW_AUTO"), Qt::CaseInsensitive) == 0) s = QStringLiteral("AW_ANY");
  if (s.isEmpty()) return -1;
  for (int i = 0; i < GetNumConstants(); ++i) {
    if (s.compare(QLatin1String(kConstants[i].sName), Qt::CaseInsensitive) == 0) return i;
  }
  for (int i = 0; i < GetNumConstants(); ++i) {
    if (s.compare(QString::fromUtf8(kConstants[i].sText), Qt::CaseInsensitive) == 0) return i;
  }
  return -1;
}

static const IUserConstants* s_pUserConstants = nullptr;

void SetUserConstants(const IUserConstants* pSource) { s_pUserConstants = pSource; }

bool FindConstant(const QString& sNameOrText, I64* pValue) {
  const int i = FindConstantIndex(sNameOrText);
  if (i < 0) return s_pUserConstants && s_pUserConstants->FindUserConstant(sNameOrText, pValue);
  if (pValue) *pValue = kConstants[i].Value;
  return true;
}

QString GetConstantName(const QString& sPrefix, I64 Value) {
  for (const ACTION_CONST& c : kConstants) {
    if (c.Value == Value && QLatin1String(c.sName).startsWith(sPrefix, Qt::CaseInsensitive)) return QLatin1String(c.sName);
  }
  return QString();
}

// Used by the statement renderer: the constant's name for a text that names one.
QString ConstantNameOf(const QString& s) {
  const int i = FindConstantIndex(s);
  return i < 0 ? QString() : QLatin1String(kConstants[i].sName);
}
