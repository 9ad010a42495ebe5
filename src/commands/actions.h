// The action table and the command API: every operation of the program is one
// row, linked to a QAction. Console lines, script calls and clicks all reach
// the same slot by triggering that QAction; arguments travel as a text list in
// the action's data, errors in its whatsThis text, results in a side table.
#pragma once
#include "common/types.h"
#include "commands/actionids.h"

#include <QString>
#include <QStringList>
#include <QVariant>
#include <functional>

class QAction;
class QObject;

// Script entry point of a command (the generated function). Bound by the
// script host; the table itself holds null until then.
using ACTION_HANDLER = void (*)();

struct ACTION_DESC {
  U32 Id;
  U8 IsListed;       // stands in the help list and is echoed in the console
  U8 IsRepeatable;   // may stand several times in a project's OnProjectLoad
  U8 KeepArgText;    // ExecActionLogged stores argument text unchanged
  U8 EchoAfter;      // echo printed after the slot ran
  ACTION_HANDLER Handler;
  const char* Shortcut;
  const char* Prototype;
  const char* ArgHint;
  const char* Description;
  const char* ToolTip;
  const char* ActionName;
  QAction* Action;   // filled by LinkActions
  int VarId;         // system variable set by this command; 84 = none
};

constexpr int ACTION_COUNT = 354;
constexpr int ACTION_NO_VAR = 84;

// The table: ACTION_COUNT rows plus an empty row behind them.
extern ACTION_DESC g_aActionTable[ACTION_COUNT + 1];

// Row by id; the empty row behind the table for an unknown id.
ACTION_DESC* GetActionDesc(int Id);
// Id of a linked action, -1 when it is not in the table.
int GetActionId(const QAction* pAction);

// Row helpers.
QString GetCommandName(const QString& sPrototype);    // "File.Open"
QString GetCommandName(int Id);
int GetParamCount(int Id);                             // from the prototype
bool IsTextParam(int Id, int Index);                   // declaration holds "char" and "*"
QStringList SplitCommandArgs(const QString& sText);
// Id of the row whose command name (or alias) matches, case-insensitive;
// with several rows the one with ParamCount == NumArgs, else the largest.
// NumArgs < 0 picks the largest. -1 when nothing matches.
int FindCommand(const QString& sName, int NumArgs = -1);

// Aliases: the current name for an old one and vice versa; empty when none.
QString GetCommandAlias(const QString& sName);
// The alternative form of a shortcut ("Ctrl++" -> "Ctrl+="), empty when none.
QString GetShortcutAlias(const QString& sShortcut);

// Constants (enumeration vocabulary). Lookup is case-insensitive and matches
// the display text as well as the name.
struct ACTION_CONST {
  I64 Value;
  const char* sName;
  const char* sText;
};
int GetNumConstants();
const ACTION_CONST* GetConstant(int Index);
bool FindConstant(const QString& sNameOrText, I64* pValue);
// Constants defined at run time (Script.DefineConst), asked after the table.
// The script host implements the source; the top installs it at start-up.
class IUserConstants {
 public:
  virtual ~IUserConstants() = default;
  virtual bool FindUserConstant(const QString& sName, I64* pValue) const = 0;
};
void SetUserConstants(const IUserConstants* pSource);  // null removes it
// Name of the constant with this value among the constants whose names begin
// with sPrefix (e.g. "RM_"); empty when none.
QString GetConstantName(const QString& sPrefix, I64 Value);

// Linking of QAction children of a window to the table.
void LinkActions(QObject* pWindow);
void UnlinkActions(QObject* pWindow);
QStringList GetUnlinkedActionNames();

// The command-enabled flag, kept apart from the GUI enabled state.
void SetCommandEnabled(int Id, bool On);
bool IsCommandEnabled(int Id);
// Sets both the GUI enabled state and the command flag.
void SetActionEnabled(int Id, bool On);

// Calling.
I64 ExecAction(int Id, const QVariant& A0 = QVariant(), const QVariant& A1 = QVariant(),
               const QVariant& A2 = QVariant(), const QVariant& A3 = QVariant(),
               const QVariant& A4 = QVariant(), const QVariant& A5 = QVariant(),
               const QVariant& A6 = QVariant(), const QVariant& A7 = QVariant());
void ExecActionLogged(int Id, const QVariant& A0 = QVariant(), const QVariant& A1 = QVariant(),
                      const QVariant& A2 = QVariant(), const QVariant& A3 = QVariant(),
                      const QVariant& A4 = QVariant(), const QVariant& A5 = QVariant(),
                      const QVariant& A6 = QVariant(), const QVariant& A7 = QVariant());
int TriggerAction(int Id);
bool CheckArgCount(int Id, int Minimum = -1);
void SetActionArgs(int Id, const QStringList& Args);
QStringList GetActionArgs(int Id);
void ClearAction(int Id);
void SetActionNoEcho(int Id);                          // data = integer 0
void SetActionError(int Id, const QString& sText, const QString& sDetail = QString());
QString GetActionError(int Id);
void SetActionResult(int Id, I64 Result);
I64 GetActionResult(int Id);
// The statement for the current argument list, "" when the row has no name.
QString GetCommandText(int Id);
// Renders a statement for a command with the given arguments without running it.
QString RenderCommand(int Id, const QStringList& Args);

// Parses a console line; stores the argument list in the row's action.
// Returns the id, or -1 when no row matches.
int ParseCommandLineText(const QString& sText);

// The console path. ExecuteCommand returns 1 when triggered, 0 unknown,
// 2 disabled.
int ExecuteCommand(const QString& sCommand, int* pId = nullptr);
// Lines of the help list, header first.
QStringList GetHelpLines();

// Echo hooks run around every slot (before and after). They print into the
// console ring.
void OnActionTriggered(QAction* pAction);
void OnActionPerformed(QAction* pAction);
// Connects an action's triggered() three times: hook before, slot, hook after.
void ConnectAction(QAction* pAction, QObject* pContext, const std::function<void()>& Slot);

// Counts error lines printed by the hooks and the console path (unknown
// command, disabled, error text); used by batch mode for its exit status.
int GetCommandErrorCount();

// Console colours used by the hooks (ColorID rows of the colour table).
int CommandColorId();
int ErrorColorId();
int ScriptColorId();

// Slots of commands. A module that implements a command registers its slot
// here; the main window dispatches each linked action to it. A command
// without a registered slot answers "not implemented yet".
using COMMAND_SLOT = std::function<void(int Id)>;
void SetCommandSlot(int Id, const COMMAND_SLOT& Slot);
COMMAND_SLOT GetCommandSlot(int Id);
// Runs the registered slot of a row, or the "not implemented yet" answer.
void RunCommandSlot(int Id);

// Waiting for the asynchronous part of a command (device jobs): the script
// host and batch mode call WaitForCommand after ExecAction/ExecuteCommand.
// The device layer installs the waiter; without one nothing waits.
void SetCommandWaiter(const std::function<void(int Id)>& Waiter);
void WaitForCommand(int Id);

// Turns a source location ("file:line") into its project-relative form for
// rendered statements. The file finder implements it; until one is installed
// the text stays as it is.
class ISourceLocationText {
 public:
  virtual ~ISourceLocationText() = default;
  virtual QString ToRelative(const QString& sLocation) const = 0;
};
void SetSourceLocationText(const ISourceLocationText* pConverter);  // null removes it

// The time by which the running batch line must end. A command that waits
// (Util.Sleep) stops waiting there and fails; an expired timer means none is
// set. Batch mode sets it for each line.
void SetCommandDeadline(qint64 DeadlineMs, int LimitSeconds);  // DeadlineMs < 0: none
// Milliseconds left before the deadline, -1 when none is set.
qint64 CommandTimeLeftMs();
// The limit in seconds, for error texts.
int CommandTimeLimitSeconds();
