#include "project/vscript.h"

#include "commands/actions.h"
#include "common/hash.h"
#include "log/log.h"
#include "project/projecttext.h"
#include "script/script.h"
#include "settings/colors.h"
#include "settings/fonts.h"
#include "settings/sysvars.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QMap>
#include <QRegularExpression>
#include <QThread>
#include <memory>

namespace VScript {

namespace {

struct VSCRIPT_STATE {
  QString sFilePath, sDir;
  QString sText;
  U32 Hash = 0;
  std::unique_ptr<CScriptEngine> pEngine;
  bool HasError = false;
  bool IsClosing = false;
  int CallLevel = 0;
  int CurrentEvent = -1;
  QString sLastError;
  int LastErrorLine = -1;
  QString sLastErrorText;
  QList<QPair<QString, I64>> Defined;  // Script.DefineConst
  std::function<bool()> ClosingTest;
  QString sLastReported;               // last error reported by RunFunctionLogged
};

VSCRIPT_STATE& S() {
  static VSCRIPT_STATE s;
  return s;
}

bool IsIdentifier(const QString& s) {
  static const QRegularExpression re(QStringLiteral("^[A-Za-z_][A-Za-z0-9_]*$"));
  return re.match(s).hasMatch();
}

// Commands that have no script entry; they are console commands only.
bool IsConsoleOnly(int Id) {
  switch (Id) {
    case AID_EDIT_COPY:
    case AID_FIND_FUNC:
    case AID_FIND_SYMBOL:
    case AID_WATCH_ADD:
    case AID_WATCH_INSERT:
    case AID_WATCH_REMOVE:
    case AID_BREAK_ON_CHANGE:
    case AID_SOURCE_OPEN_INCLUDE_FILE:
    case AID_DATAGRAPH_ADD: return true;
    default: return false;
  }
}

// The script side of one command: checks the text arguments, renders the
// numbers, runs the action and waits for its asynchronous part.
I64 CallCommand(int Id, const SCRIPT_HOST_CALL& Call) {
  // In batch mode a line has a time limit; a script that outlives it stops
  // at its next command.
  if (CommandTimeLeftMs() == 0) {
    Call.pEngine->RaiseError(QStringLiteral("batch time limit of %1 s per line exceeded").arg(CommandTimeLimitSeconds()).toStdString());
    return -1;
  }
  const QString sName = GetCommandName(Id);
  const QStringList Decls = SplitCommandArgs(QString::fromLatin1(GetActionDesc(Id)->Prototype));
  QVariant A[8];
  for (int i = 0; i < Call.NumArgs && i < 8; ++i) {
    const I64 v = Call.paArgs[i];
    if (Call.IsTextArg(i) || IsTextParam(Id, i)) {
      std::string s;
      if (!Call.pEngine->GetText(U64(v), &s)) {
        QString sMsg = QStringLiteral("Invalid command argument");
        if (!sName.isEmpty()) sMsg += QStringLiteral(" in command \"") + sName + QLatin1Char('"');
        sMsg += QStringLiteral(": 0x") + QString::number(U64(v), 16).toUpper() + QStringLiteral(" (") +
                QString::number(v) + QLatin1Char(')');
        LogError(sMsg);
        return -1;
      }
      A[i] = QString::fromUtf8(s.data(), qsizetype(s.size()));
    } else {
      A[i] = RenderNumberArg(i < Decls.size() ? Decls[i] : QString(), sName, v);
    }
  }
  const I64 r = ExecAction(Id, A[0], A[1], A[2], A[3], A[4], A[5], A[6], A[7]);
  WaitForCommand(Id);
  return r;
}

void RegisterConstants(CScriptEngine& E) {
  for (int i = 0; i < GetNumConstants(); ++i) {
    const ACTION_CONST* c = GetConstant(i);
    if (!c || !c->sName) continue;
    const QString n = QString::fromLatin1(c->sName);
    if (IsIdentifier(n) && !E.IsSymbolDefined(n.toStdString())) E.RegisterConstant(n.toStdString(), I32(c->Value));
  }
  // The older spellings beside their current names.
  I64 v = 0;
  if (FindConstant(QStringLiteral("RM_BREAK_AT_SYMBOL"), &v)) E.RegisterConstant("RM_BREAK_AT_MAIN", I32(v));
  if (FindConstant(QStringLiteral("AW_ANY"), &v)) E.RegisterConstant("AW_AUTO", I32(v));
  for (int i = 0; i < SYSVAR_COUNT; ++i)
    if (const SYSVAR* r = SysVars::Row(i)) E.RegisterConstant(r->Name, r->Id);
  for (int i = 0; i < COLOR_COUNT; ++i)
    if (const COLOR_ROW* r = Colors::Row(i)) E.RegisterConstant(r->Name, r->Id);
  for (int i = 0; i < FONT_COUNT; ++i)
    if (const FONT_ROW* r = Fonts::Row(i)) E.RegisterConstant(r->Name, r->Id);
  for (const auto& d : S().Defined) {
    if (!E.IsSymbolDefined(d.first.toStdString())) E.RegisterConstant(d.first.toStdString(), I32(d.second));
  }
}

void RegisterFunctions(CScriptEngine& E) {
  auto Register = [&E](const QString& sProto, int Id) {
    const QByteArray p = sProto.toLatin1();
    if (E.RegisterHostFunction(std::string_view(p.constData(), size_t(p.size())),
                               [Id](const SCRIPT_HOST_CALL& c) -> I64 { return CallCommand(Id, c); }) != 0)
      LogError(QStringLiteral("Error registering API function ") + sProto);
  };
  QSet<QString> Names;
  for (int Id = 0; Id < ACTION_COUNT; ++Id) Names.insert(GetCommandName(Id).toLower());
  QSet<QString> Done;
  for (int Id = 0; Id < ACTION_COUNT; ++Id) {
    const ACTION_DESC* r = GetActionDesc(Id);
    if (!r->Prototype || !*r->Prototype || IsConsoleOnly(Id)) continue;
    const QString sName = GetCommandName(Id);
    // A command that stands in several rows is bound to its first row.
    if (sName.isEmpty() || Done.contains(sName.toLower())) continue;
    Done.insert(sName.toLower());
    const QString sProto = QString::fromLatin1(r->Prototype);
    Register(sProto, Id);
    const QString sAlias = GetCommandAlias(sName);
    if (!sAlias.isEmpty() && !Names.contains(sAlias.toLower()) && !Done.contains(sAlias.toLower())) {
      Done.insert(sAlias.toLower());
      Register(AliasPrototype(sProto, sAlias), Id);
    }
  }
}

void ReleaseEngine() {
  VSCRIPT_STATE& s = S();
  if (s.pEngine) {
    s.pEngine->SetErrorHandler(nullptr);
    s.pEngine->Close();
    s.pEngine.reset();
  }
  s.sText.clear();
  s.Hash = 0;
}

}  // namespace

QString AliasPrototype(const QString& sPrototype, const QString& sAlias) {
  const QString sName = GetCommandName(sPrototype);
  const qsizetype p = sPrototype.indexOf(QLatin1Char('('));
  const qsizetype n = sPrototype.lastIndexOf(sName, p);
  if (sName.isEmpty() || n < 0) return sPrototype;
  return sPrototype.left(n) + sAlias + sPrototype.mid(n + sName.size());
}

QString RenderNumberArg(const QString& sDecl, const QString& sCommand, I64 Value) {
  const QString d = sDecl.simplified();
  const QStringList Words = d.split(QLatin1Char(' '), Qt::SkipEmptyParts);
  const QString sParam = Words.isEmpty() ? QString() : Words.last();
  const bool Unsigned = d.contains(QLatin1String("unsigned"));
  const bool Wide = d.contains(QLatin1String("__int64"));
  const bool Byte = d.contains(QLatin1String("char"));
  // Addresses (and masks), and the values of target writes, read best in hex.
  const bool Hex = sParam.contains(QLatin1String("Addr")) || sParam.contains(QLatin1String("Mask")) ||
                   ((sCommand.startsWith(QLatin1String("Target.Write")) || sCommand == QLatin1String("Target.SetReg")) &&
                    sParam.contains(QLatin1String("Value")));
  U64 u;
  I64 s;
  if (Wide) {
    u = U64(Value);
    s = Value;
  } else if (Byte) {
    u = U8(Value);
    s = Unsigned ? I64(U8(Value)) : I64(I8(Value));
  } else {
    u = U32(Value);
    s = Unsigned ? I64(U32(Value)) : I64(I32(U32(Value)));
  }
  if (Hex) return QStringLiteral("0x") + QString::number(u, 16).toUpper();
  return Unsigned ? QString::number(u) : QString::number(s);
}

int Load(const QString& sPath) {
  VSCRIPT_STATE& s = S();
  s.IsClosing = false;
  SetScriptFilePath(sPath);
  const QString sWarn = QStringLiteral("VScript::Load: could not load project file");
  QFile f(sPath);
  if (sPath.isEmpty() || !QFileInfo(sPath).isFile() || !f.open(QIODevice::ReadOnly)) {
    s.HasError = true;
    s.sLastError = QStringLiteral("file not found");
    s.LastErrorLine = -1;
    LogWarning(sWarn);
    return -1;
  }
  const QString sText = QString::fromUtf8(f.readAll());
  if (LoadText(sText) < 0) {
    LogWarning(sWarn);
    return -1;
  }
  if (!s.pEngine->IsFunctionDefined("OnProjectLoad")) {
    SetError(QStringLiteral("Required user function missing: OnProjectLoad"), -1);
    return -1;
  }
  return 0;
}

int LoadText(const QString& sText) {
  VSCRIPT_STATE& s = S();
  // 1. A loaded script is told to stop and given time to unwind.
  if (s.pEngine) {
    LogScript(QStringLiteral("Script waiting to close."));
    s.IsClosing = true;
    s.pEngine->SetStopFlag(true);
    QElapsedTimer t;
    t.start();
    while (s.CallLevel != 0 && t.elapsed() < 100000) {
      QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
      if (s.CallLevel != 0) QThread::msleep(1);
    }
    if (s.CallLevel != 0) {
      SetError(QStringLiteral("script is still running"));
      return -1;
    }
    ReleaseEngine();
    s.HasError = false;
    s.sLastError.clear();
    s.LastErrorLine = -1;
    s.sLastErrorText.clear();
    s.CurrentEvent = -1;
    LogScript(QStringLiteral("Script closed."));
  }
  // 2. Empty text.
  if (sText.isEmpty()) {
    SetError(QStringLiteral("empty file"));
    LogScript(QStringLiteral("Script file not parsed. Empty script text"));
    return -1;
  }
  // 3. Heap and interpreter.
  const QByteArray Utf8 = sText.toUtf8();
  s.pEngine = std::make_unique<CScriptEngine>();
  s.pEngine->SetErrorHandler([](const SCRIPT_ERROR& e) {
    SetError(QString::fromUtf8(e.Text.data(), qsizetype(e.Text.size())), e.Line);
    S().sLastErrorText = QString::fromUtf8(e.LineText.data(), qsizetype(e.LineText.size())).left(512);
  });
  if (s.pEngine->Load(std::string_view(Utf8.constData(), size_t(Utf8.size()))) != 0) {
    LogScript(QStringLiteral("Script file not parsed. could not allocate script heap"));
    ReleaseEngine();
    SetError(QStringLiteral("could not allocate script heap"));
    return -1;
  }
  s.sText = sText;
  s.Hash = TextHash(std::string_view(Utf8.constData(), size_t(Utf8.size())));
  s.HasError = false;
  // 4., 5. Constants and host functions.
  RegisterConstants(*s.pEngine);
  RegisterFunctions(*s.pEngine);
  // 6. The function heads.
  if (s.pEngine->Parse() != 0) {
    LogScript(QStringLiteral("Script file not parsed. could not create globals"));
    const QString sErr = s.sLastError;
    const int Line = s.LastErrorLine;
    const QString sErrText = s.sLastErrorText;
    const U32 Hash = s.Hash;
    ReleaseEngine();
    s.Hash = Hash;  // the file is still the one that was read
    s.HasError = true;
    s.sLastError = sErr.isEmpty() ? QStringLiteral("could not create globals") : sErr;
    s.LastErrorLine = Line;
    s.sLastErrorText = sErrText;
    return -1;
  }
  s.HasError = false;
  s.IsClosing = false;
  return 0;
}

void Release() {
  ReleaseEngine();
  VSCRIPT_STATE& s = S();
  s.HasError = false;
  s.IsClosing = false;
  s.sLastError.clear();
  s.LastErrorLine = -1;
  s.sLastErrorText.clear();
  s.CurrentEvent = -1;
}

int ExecScriptFunction(const QString& sName, int EventId, int Argc, const I64* paArgv, I64* pResult) {
  VSCRIPT_STATE& s = S();
  auto Fail = [&s](int Rc, const char* sText) {
    s.sLastError = QString::fromLatin1(sText);
    s.LastErrorLine = -1;
    return Rc;
  };
  if (!s.pEngine) return Fail(EXEC_NO_INTERPRETER, "Script interpreter not allocated");
  if (s.IsClosing) return Fail(EXEC_CLOSING, "script is closing");
  if (s.HasError) return Fail(EXEC_HAS_ERROR, "script has error");
  if (sName.isEmpty()) return Fail(EXEC_UNKNOWN_FUNCTION, "empty function name");
  if (s.CallLevel >= kMaxCallLevel) return Fail(EXEC_MAX_CALL_LEVEL, "maximum call level reached.");
  if (Argc > kMaxArgs) return Fail(EXEC_TOO_MANY_ARGS, "maximum amount of parameters (7) exceeded");
  const QByteArray n = sName.toUtf8();
  const std::string_view Name(n.constData(), size_t(n.size()));
  if (!s.pEngine->IsFunctionDefined(Name)) return Fail(EXEC_UNKNOWN_FUNCTION, "unknown function");
  CScriptEngine* pEngine = s.pEngine.get();
  const int SavedEvent = s.CurrentEvent;
  ++s.CallLevel;
  s.CurrentEvent = EventId;
  I64 Result = 0;
  s.sLastError.clear();
  s.LastErrorLine = -1;
  const int Rc = pEngine->CallFunctionArgs(Name, Argc, paArgv, &Result);
  --s.CallLevel;
  s.CurrentEvent = s.CallLevel == 0 ? -1 : SavedEvent;
  if (pResult) *pResult = Result;
  // A failed call with arguments (Script.Exec) does not block later calls.
  if (Argc > 0) s.HasError = false;
  if (Rc == 0) return EXEC_OK;
  if (s.sLastError.isEmpty()) {
    // Stopped without an error: the script is being replaced or closed.
    if (s.IsClosing) return Fail(EXEC_CLOSING, "script is closing");
    return Fail(EXEC_FAILED, "script stopped");
  }
  return EXEC_FAILED;
}

int ExecEvent(int Id, I64* pResult) {
  if (!ProjectText::GetEventRow(Id)) {
    S().sLastError = QStringLiteral("unknown function");
    return EXEC_UNKNOWN_FUNCTION;
  }
  const QString sName = ProjectText::EventName(Id);
  if (sName.isEmpty()) {
    S().sLastError = QStringLiteral("invalid function prototype");
    return EXEC_INVALID_PROTOTYPE;
  }
  return ExecScriptFunction(sName, Id, 0, nullptr, pResult);
}

bool IsEventDefined(int Id) {
  VSCRIPT_STATE& s = S();
  if (!s.pEngine || s.HasError || s.IsClosing) return false;
  const QString sName = ProjectText::EventName(Id);
  return !sName.isEmpty() && s.pEngine->IsFunctionDefined(sName.toStdString());
}

bool IsFunctionDefined(const QString& sName) {
  return S().pEngine && S().pEngine->IsFunctionDefined(sName.toStdString());
}

QString GetLastError() {
  QString e = S().sLastError.simplified();
  e.remove(QLatin1Char('.'));
  if (S().LastErrorLine >= 0) e += QStringLiteral(" at line ") + QString::number(S().LastErrorLine);
  return e;
}

QString LastErrorRaw() { return S().sLastError; }
int LastErrorLine() { return S().LastErrorLine; }
QString LastErrorText() { return S().sLastErrorText; }
bool HasError() { return S().HasError; }

void SetError(const QString& sText, int Line) {
  S().sLastError = sText;
  S().LastErrorLine = Line;
  S().HasError = true;
}

void ClearError() {
  S().HasError = false;
  S().sLastError.clear();
  S().LastErrorLine = -1;
}

bool IsLoaded() { return S().pEngine != nullptr; }
bool IsClosing() { return S().IsClosing; }

void SetClosing() {
  S().IsClosing = true;
  if (S().pEngine) S().pEngine->SetStopFlag(true);
}

int CallLevel() { return S().CallLevel; }
int CurrentEvent() { return S().CurrentEvent; }
QString ScriptFilePath() { return S().sFilePath; }
QString ScriptDir() { return S().sDir; }

void SetScriptFilePath(const QString& sPath) {
  S().sFilePath = sPath;
  S().sDir = sPath.isEmpty() ? QString() : QFileInfo(sPath).absolutePath();
}

QString ScriptText() { return S().sText; }
U32 ScriptHash() { return S().Hash; }
void SetScriptHash(U32 Hash) { S().Hash = Hash; }

bool IsScriptFileModified() {
  QFile f(S().sFilePath);
  if (S().sFilePath.isEmpty() || !f.open(QIODevice::ReadOnly)) return false;
  const QByteArray d = f.readAll();
  return TextHash(std::string_view(d.constData(), size_t(d.size()))) != S().Hash;
}

bool DefineConstant(const QString& sName, I64 Value) {
  if (sName.size() > 127 || !IsIdentifier(sName)) return false;
  for (auto& d : S().Defined) {
    if (d.first == sName) {
      d.second = Value;
      return true;
    }
  }
  S().Defined.append({sName, Value});
  return true;
}

bool FindDefinedConstant(const QString& sName, I64* pValue) {
  for (const auto& d : S().Defined) {
    if (d.first.compare(sName, Qt::CaseInsensitive) == 0) {
      if (pValue) *pValue = d.second;
      return true;
    }
  }
  return false;
}

namespace {
class CDefinedConstants : public IUserConstants {
 public:
  bool FindUserConstant(const QString& sName, I64* pValue) const override { return FindDefinedConstant(sName.trimmed(), pValue); }
};
}  // namespace

const IUserConstants& UserConstants() {
  static const CDefinedConstants s_Constants;
  return s_Constants;
}

QStringList DefinedConstantNames() {
  QStringList l;
  for (const auto& d : S().Defined) l.append(d.first);
  return l;
}

CScriptEngine* Engine() { return S().pEngine.get(); }

void SetClosingTest(std::function<bool()> Test) { S().ClosingTest = std::move(Test); }
bool IsMainWindowClosing() { return S().ClosingTest && S().ClosingTest(); }

int RunFunctionLogged(const QString& sName, int EventId, I64* pResult) {
  if (IsMainWindowClosing()) {
    LogMessage(QStringLiteral("Not executing script function: ") + sName + QStringLiteral(". Project is about to close"),
               MSG_WARNING | MSG_CONSOLE | MSG_FILE | MSG_OWN);
    return -1;
  }
  const QString sExec = QStringLiteral("Executing script function: ") + sName;
  ConsolePrintLine(sExec, 0, false, ScriptColorId());
  LogScript(sExec);
  const int Rc = ExecScriptFunction(sName, EventId, 0, nullptr, pResult);
  if (HasError()) {
    const QString e = GetLastError();
    if (e != S().sLastReported) {
      S().sLastReported = e;
      LogError(QStringLiteral("Error in script function ") + sName + QStringLiteral(": ") + e);
    }
  } else if (Rc < 0 && Rc != EXEC_FAILED) {
    LogError(QStringLiteral("Error in script function ") + sName + QStringLiteral(": ") + GetLastError());
  }
  return Rc;
}

int RunEventLogged(int Id, I64* pResult) {
  if (!ProjectText::GetEventRow(Id)) return ExecEvent(Id, pResult);
  return RunFunctionLogged(ProjectText::EventName(Id), Id, pResult);
}

}  // namespace VScript
