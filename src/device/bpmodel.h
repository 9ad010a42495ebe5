// The user layer of breakpoints: what the user meant (a source line rather
// than an address, a condition, a skip count, actions at a stop), kept on the
// GUI thread and rebuilt from the device tables whenever they report a
// change. The device tables stay the only thing that reaches the probe.
#pragma once
#include "common/srcloc.h"
#include "device/bptypes.h"
#include "device/listener.h"

#include <QList>
#include <QMap>
#include <QString>
#include <QStringList>
#include <functional>
#include <vector>

// One user breakpoint, by address or by source location.
class CBreakpointInfo {
 public:
  U64 Addr = ~0ull;                          // -1 for a source breakpoint
  CSrcLoc Loc{0xFFFFFFFFu, 0, 0};            // null for an address breakpoint
  BP_TYPES PermittedImpl = BP_TYPE_ANY;
  BP_TYPES ActualImpl = BP_TYPE_ANY;         // copied from the device
  BP_STATES State = BP_STATE_UNKNOWN;
  U64 HitCount = 0;                          // copied from the device
  U64 LastCondValue = ~0ull;
  QString Condition;
  QString TaskName;
  bool TriggerOnChange = false;
  bool ReloadSkip = false;
  I32 SkipCount = 0;
  QString ConsoleMsg;
  QString PopupMsg;
  QString ScriptCallback;
  QString SourceText;
  U8 Derived = 0;                            // exists because of a source breakpoint

  bool IsSource() const { return !Loc.IsNull(); }
  // The halt sequence must ask the GUI thread before stopping here.
  bool NeedsEvaluation() const { return SkipCount >= 1 || !TaskName.isEmpty() || !Condition.isEmpty(); }
  // The editable fields (Condition ... ScriptCallback) taken from another.
  void TakeEditFields(const CBreakpointInfo& o);
};

// What the model asks of the device: its tables (read directly, any thread)
// and the breakpoint jobs. The installed one is CDevice; tests give a fake.
class IBreakpointDevice {
 public:
  virtual ~IBreakpointDevice() = default;
  virtual bool IsConnected() const = 0;
  // Occupied entries with a non-zero Addr, in table order.
  virtual std::vector<DEVICE_BP> Breakpoints() const = 0;
  virtual DEVICE_BP GetBreakpoint(U32 Addr) const = 0;
  virtual std::vector<WP> Watchpoints() const = 0;
  virtual std::vector<TP> Tracepoints() const = 0;
  virtual void SetBPHasCondition(U32 Addr, bool On) = 0;
  virtual int PostSetBP(U32 Addr, BP_STATES State, BP_TYPES Type) = 0;
  virtual int PostSetBPs(const std::vector<U32>& Addrs, BP_STATES State, BP_TYPES Type) = 0;
  virtual int PostClearBP(U32 Addr) = 0;
  virtual int PostClearBPs(const std::vector<U32>& Addrs) = 0;
  virtual int PostClearAllBPs() = 0;
  virtual int PostResetBPs() = 0;
  virtual int PostSetWPs(const std::vector<WP>& v) = 0;
  virtual int PostClearWPs(const std::vector<WP>& v) = 0;
  virtual int PostClearAllWPs() = 0;
  virtual int PostSetTPs(const std::vector<TP>& v) = 0;
  virtual int PostClearTPs(const std::vector<TP>& v) = 0;
  virtual int PostClearAllTPs() = 0;
  // Returns once no breakpoint job is pending and its report was delivered.
  virtual void WaitForBreakpointJobs() = 0;
  // The answer to a breakpoint condition: PC with bit 0 set when it is met.
  virtual void SetConditionWord(U64 PcAndMet);
};
IBreakpointDevice& DefaultBreakpointDevice();  // over CDevice

// What the model asks of the program: addresses of a location, the location
// of an address, texts. The default reads the loaded program's line tables.
class IBreakpointProgram {
 public:
  virtual ~IBreakpointProgram() = default;
  // The code addresses a breakpoint on Loc stands for: each line-table
  // address of the location that is the single address of its line or the
  // first address of one of the line's blocks.
  virtual QList<U32> LocAddresses(const CSrcLoc& Loc) = 0;
  // The first location at or after Loc that has code (null when none).
  virtual CSrcLoc NextLocWithCode(const CSrcLoc& Loc) = 0;
  virtual CSrcLoc LocOfAddr(U32 Addr) = 0;
  // "file.c:12" (with ":col" when the column is set).
  virtual QString LocText(const CSrcLoc& Loc) = 0;
  // The source line at Addr with white space simplified; empty when unknown.
  virtual QString SourceText(U32 Addr) = 0;
  // A location text: "file:line[:column]", a function, an address with line
  // information. False when it names nothing.
  virtual bool ParseLocation(const QString& sText, CSrcLoc* pLoc) = 0;
  // An address text: a number, a symbol or function. False when none.
  virtual bool ParseAddress(const QString& sText, U64* pAddr) = 0;
};
IBreakpointProgram& DefaultBreakpointProgram();

// How a source line's text is read (the file finder lives above this layer;
// by default the path of the line tables is read directly).
using BP_LINE_READER = std::function<QString(const QString& sPath, U32 Line)>;
void BP_SetSourceLineReader(const BP_LINE_READER& Reader);

// The actions at a stop that reach layers above: a script function by name,
// and a message box.
struct BP_STOP_HOOKS {
  std::function<void(const QString& sFunc)> CallScript;
  std::function<void(const QString& sTitle, const QString& sText)> MessageBox;
};

// A colour role for a part of the extras text; the view picks the colours.
enum BP_TEXT_ROLE { BP_ROLE_LABEL = 0, BP_ROLE_VALUE = 1 };
struct BP_TEXT_PART {
  QString Text;
  BP_TEXT_ROLE Role;
};

QString BP_StateText(U32 State);  // "BP_STATE_ON", ...; empty above 5
QString BP_TypeText(U32 Type);    // "BP_TYPE_ANY", ...; empty above 6
// Parses a state or type word or a number; -1 when neither.
int BP_ParseState(const QString& s);
int BP_ParseType(const QString& s);

class CBreakpointsDataModel : public CDeviceEventListener {
 public:
  explicit CBreakpointsDataModel(IBreakpointDevice* pDevice = nullptr, IBreakpointProgram* pProgram = nullptr);
  ~CBreakpointsDataModel() override;
  // The model the commands and the window share; created on first use.
  static CBreakpointsDataModel& Instance();
  static void SetInstance(CBreakpointsDataModel* p);  // tests; not owned

  IBreakpointDevice& Dev() { return *m_pDevice; }
  IBreakpointProgram& Prog() { return *m_pProgram; }
  void SetStopHooks(const BP_STOP_HOOKS& h) { m_Hooks = h; }
  // Whether a program file will be downloaded after connecting (then the
  // breakpoints go out only after the download).
  void SetHasProgramFile(const std::function<bool()>& f) { m_HasProgramFile = f; }

  // ---- by address
  // Schedules JT_SET_BP for BP_STATE_OFF, BP_STATE_ON or BP_STATE_DISABLED only.
  int SetBP(U64 Addr, BP_STATES State, BP_TYPES Type);
  int ClearBP(U64 Addr);
  // ---- by source location. 0, or -1 with the error logged.
  int SetSourceBP(const CSrcLoc& Loc, BP_STATES State, BP_TYPES Type);
  int ClearSourceBP(const CSrcLoc& Loc);
  void ClearAll();
  // A program reload keeps the source breakpoints: Detach takes them off
  // their addresses while the old program is open and keeps each with its
  // location text; Reattach looks the texts up in the new program and sets
  // them again with their states and edit fields.
  QList<QPair<QString, CBreakpointInfo>> DetachSourceBPs();
  void ReattachSourceBPs(const QList<QPair<QString, CBreakpointInfo>>& List);
  // Every breakpoint, data breakpoint and tracepoint goes, in the model and
  // in the device (a project closes; its user file has kept them).
  void Forget();
  void SetAllType(BP_TYPES Type);
  // Sets every non-derived breakpoint again, then all data breakpoints and
  // tracepoints.
  void ApplyAll();
  // Stores the edit fields of Info on the breakpoint at Info.Loc (source) or
  // Info.Addr; false with "cannot edit breakpoint: breakpoint is not set".
  bool Edit(const CBreakpointInfo& Info, QString* pError = nullptr);

  // ---- reading
  const QMap<U64, CBreakpointInfo>& AddressMap() const { return m_Addr; }
  const QMap<U32, CBreakpointInfo>& SourceMap() const { return m_Src; }
  const std::vector<WP>& DataBreakpoints() const { return m_WPs; }
  const std::vector<TP>& Tracepoints() const { return m_TPs; }
  const CBreakpointInfo* FindAddr(U64 Addr) const;
  const CBreakpointInfo* FindSource(const CSrcLoc& Loc) const;
  // A breakpoint of that State (and Type unless BP_TYPE_ANY is asked) stands here.
  bool IsSetAt(U64 Addr, BP_STATES State) const;
  bool IsSetAt(const CSrcLoc& Loc, BP_STATES State) const;
  // The addresses a location stands for; more than 256 is the caller's error.
  QList<U32> LocAddresses(const CSrcLoc& Loc) { return m_pProgram->LocAddresses(Loc); }
  // The location a request lands on: Loc itself, or the next line with code
  // (logged with the asked-for and actual texts when they differ).
  CSrcLoc LandingLoc(const CSrcLoc& Loc);
  // Location text of an entry: "file:line", or the address in hexadecimal.
  QString LocationText(const CBreakpointInfo& b);

  // ---- texts for the window
  std::vector<BP_TEXT_PART> ExtrasParts(const CBreakpointInfo& b) const;
  static QString JoinParts(const std::vector<BP_TEXT_PART>& v);
  static QString DataBreakpointText(const WP& w);

  // ---- halt side
  // The actions of the breakpoint at NewPC, run by the main window after it
  // has updated itself.
  void RunStopActions(U32 NewPC);
  // Decides whether the halt at a conditional breakpoint stops: skip count,
  // task filter, condition expression. The device asks through
  // OnDeviceEvalBPCondition and gets the answer in its condition word.
  bool EvaluateCondition(U32 Addr);
  // Called before a condition is decided, to make frame 0 of the stop (the
  // call stack installs it; the device layer knows no frames).
  void SetConditionFrameHook(std::function<void()> Fn);
  void OnDeviceEvalBPCondition(U32 Addr) override;

  // ---- refresh (device reports)
  void Refresh();
  // A change counter for views.
  U64 Generation() const { return m_Generation; }
  void SetChangedCallback(const std::function<void()>& f) { m_Changed = f; }

  // ---- persistence (bpprefs.cpp)
  QStringList WriteUserLines();
  // Applies the records; texts of refused records in pErrors.
  void ReadUserLines(const QStringList& Lines, QStringList* pErrors = nullptr);

  // Device reports.
  void OnDeviceBPStateChanged() override { Refresh(); }
  void OnDeviceWPStateChanged() override;
  void OnDeviceTPStateChanged() override;
  void OnDeviceSetWPsDone(U32 Cnt, WP* paWPs) override;
  void OnDeviceSetWPsFailed(U32 Cnt, WP* paWPs) override { OnDeviceSetWPsDone(Cnt, paWPs); }
  void OnDeviceConnectDone(CONNECT_MODES Mode) override;
  void OnDeviceEndDownloadDone(const char* sFilePath, DOWNLOAD_MODES) override;
  void OnDeviceResetDone(U32, RESET_MODES Mode) override;
  void OnDeviceHaltDone(U32 NewPC, HALT_REASONS Reason) override;
  // What a download report does once it was a program file.
  void OnDataFileDownloaded(const QString& sFilePath);

 private:
  void Changed();
  IBreakpointDevice* m_pDevice;
  IBreakpointProgram* m_pProgram;
  QMap<U64, CBreakpointInfo> m_Addr;
  QMap<U32, CBreakpointInfo> m_Src;
  std::vector<WP> m_WPs;
  std::vector<TP> m_TPs;
  bool m_ApplyAfterDownload = false;
  BP_STOP_HOOKS m_Hooks;
  std::function<bool()> m_HasProgramFile;
  std::function<void()> m_Changed;
  U64 m_Generation = 0;
  std::function<void()> m_ConditionFrameHook;
};

// Error text of a data breakpoint the probe refused, from its code.
QString BP_DataBreakpointError(const WP& w);

// The parser of one user-file record (bpprefs.cpp), exposed for tests:
// fields split at "," outside double quotes and trimmed, each "key=value"
// with one pair of quotes taken off the value. A field without "=" is
// appended to pBad.
QList<QPair<QString, QString>> BP_ParseUserRecord(const QString& sLine, QStringList* pBad);
// The records of the three kinds parsed into values; pErrors gets the
// "configuration error. ..." texts. Used by ReadUserLines and the fuzz test.
struct BP_USER_RECORD {
  int Kind = -1;  // 0 breakpoint, 1 data breakpoint, 2 tracepoint
  CBreakpointInfo Bp;
  QString sLoc;   // location text of a breakpoint or tracepoint, symbol of a WP
  bool HasAddr = false;
  WP Wp;
  TP Tp;
};
bool BP_ParseUserLine(const QString& sLine, BP_USER_RECORD* pRec, QStringList* pErrors);
QString BP_FormatBreakpoint(const CBreakpointInfo& b, const QString& sLocText);
QString BP_FormatDataBreakpoint(const WP& w);
QString BP_FormatTracepoint(const TP& t, const QString& sLocText);

namespace BreakpointModule {
// Installs the command slots of Break.* and Trace.* and the model as a device
// listener. Call after DeviceModule::Install().
void Install();
}
