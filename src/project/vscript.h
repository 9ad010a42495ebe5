// VScript: the host of the project's script. There is at most one script in
// the process; it is loaded from the project file, has every command of the
// action table as host function and every enumeration, system variable,
// colour and font name as constant, and runs the project's event functions.
//
// All functions run on the user interface thread.
#pragma once
#include "common/types.h"

#include <QString>
#include <QStringList>
#include <functional>

class CScriptEngine;
class IUserConstants;

namespace VScript {

// Result codes of ExecScriptFunction besides success (1).
enum EXEC_RESULT : int {
  EXEC_OK = 1,
  EXEC_NO_INTERPRETER = -1,
  EXEC_CLOSING = 0,
  EXEC_FAILED = -1,          // the function ran and failed or was stopped
  EXEC_UNKNOWN_FUNCTION = -2,
  EXEC_INVALID_PROTOTYPE = -3,
  EXEC_HAS_ERROR = -4,
  EXEC_MAX_CALL_LEVEL = -5,
  EXEC_TOO_MANY_ARGS = -6,
};
constexpr int kMaxCallLevel = 11;
constexpr int kMaxArgs = 7;

// Loads a project file: "file not found", text loading, then the test that
// OnProjectLoad exists. 0 or -1 (the error is in LastError).
int Load(const QString& sPath);
// Loads a script from text (replacing any loaded one, which is told to stop
// first). 0 or -1.
int LoadText(const QString& sText);
// Releases the interpreter and clears all state but the path.
void Release();

int ExecScriptFunction(const QString& sName, int EventId, int Argc, const I64* paArgv, I64* pResult);
int ExecEvent(int Id, I64* pResult = nullptr);
bool IsEventDefined(int Id);
bool IsFunctionDefined(const QString& sName);

// The error for the user: trimmed, white space reduced, "." removed, and
// " at line N" when the line is known.
QString GetLastError();
QString LastErrorRaw();
int LastErrorLine();
QString LastErrorText();
bool HasError();
// Sets the error as the host ("Required user function missing: ...").
void SetError(const QString& sText, int Line = -1);
void ClearError();

bool IsLoaded();
bool IsClosing();
// Marks the script as closing and tells running code to stop.
void SetClosing();
int CallLevel();
int CurrentEvent();

QString ScriptFilePath();
QString ScriptDir();
void SetScriptFilePath(const QString& sPath);  // also sets ScriptDir; "" clears
QString ScriptText();
U32 ScriptHash();
void SetScriptHash(U32 Hash);
// The file on disk differs from the loaded text.
bool IsScriptFileModified();

// Constants added by Script.DefineConst; registered with every later load.
// false when the name is no identifier or longer than 127 characters.
bool DefineConstant(const QString& sName, I64 Value);
bool FindDefinedConstant(const QString& sName, I64* pValue);
QStringList DefinedConstantNames();
// The defined constants as the command layer asks for them.
const IUserConstants& UserConstants();

// The interpreter (null when no script is loaded); for tests and the
// benchmark.
CScriptEngine* Engine();

// The host's view of the main window: whether it is closing. Installed by
// the project module; without it the window is taken as open.
void SetClosingTest(std::function<bool()> Test);
bool IsMainWindowClosing();

// Runs a function as the main window does: refuses while the window closes,
// logs "Executing script function: ", runs, and reports a new error.
int RunFunctionLogged(const QString& sName, int EventId, I64* pResult = nullptr);
// The same for an event of the project (EVENT_* ids of projecttext.h); the
// session runs its events through this.
int RunEventLogged(int Id, I64* pResult = nullptr);

// The prototype under which an alias name is registered: the current
// prototype with the name replaced.
QString AliasPrototype(const QString& sPrototype, const QString& sAlias);
// Renders the value of a numeric parameter as command argument text:
// truncated to the declared type, addresses and masks in hexadecimal.
QString RenderNumberArg(const QString& sDeclaration, const QString& sCommand, I64 Value);

}  // namespace VScript
