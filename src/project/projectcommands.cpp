// The command slots of the project module: File.Open / File.New* /
// File.SaveProjectAs, Script.Exec and Script.DefineConst, the Edit.* settings
// commands, Tools.Preferences / Tools.SysVars and the Project.* settings.
#include "project/projectcommands.h"

#include "commands/actions.h"
#include "device/projectsettings.h"
#include "expr/evaluator.h"
#include "files/filefinder.h"
#include "cmdline/cmdline.h"
#include "log/log.h"
#include "log/messagebox.h"
#include "plugins/corehost.h"
#include "project/project.h"
#include "project/projecttext.h"
#include "project/vscript.h"
#include "settings/edit.h"
#include "settings/sysvars.h"
#include "settings/textvalue.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <algorithm>

namespace {

using ProjectModule::AddRecentProject;
using ProjectModule::IsProjectPath;
using ProjectModule::ResolvePath;

bool Batch() { return CMessageBox::IsBatchMode(); }

// A warning for the console and the log file.
void ConsoleWarning(const QString& s) { LogMessage(s, MSG_WARNING | MSG_CONSOLE | MSG_FILE | MSG_OWN); }

QString ProjectSaveError(const QString& sReason) {
  return QStringLiteral("Project settings could not be saved: ") + sReason;
}

// Number argument: a constant name, or an integer in any base.
bool ArgNumber(const QString& s, I64* pValue) {
  if (FindConstant(s, pValue) || VScript::FindDefinedConstant(s.trimmed(), pValue)) return true;
  return SettingsText::ParseInt(s, *pValue);
}

// A value argument: a number in any base, a constant, or an expression over
// them (evaluated as Elf.GetExprValue does). False with the reason otherwise.
bool ArgValue(const QString& sArg, I64* pValue, QString* pError) {
  QString s = sArg.trimmed();
  if (s.size() >= 2 && s.startsWith(QLatin1Char('"')) && s.endsWith(QLatin1Char('"'))) s = s.mid(1, s.size() - 2).trimmed();
  if (s.isEmpty()) {
    *pError = QStringLiteral("empty");
    return false;
  }
  if (ArgNumber(s, pValue)) return true;
  CExpression e(s);
  if (e.GetStatus() < 0) {
    *pError = e.GetError().isEmpty() ? QStringLiteral("syntax error") : e.GetError();
    return false;
  }
  const int r = Evaluate(e);
  const auto pResult = GetResult(e);
  // A name that is no constant and no symbol of the program evaluates to
  // an empty, out-of-scope result: that is no value either.
  if (r < 0 || !pResult || pResult->IsEmpty() || !pResult->HasValue()) {
    *pError = e.GetError().isEmpty() ? QStringLiteral("unknown name or no value") : e.GetError();
    return false;
  }
  *pValue = pResult->ReadSigned();
  return true;
}

// Ends a command that failed: the error text (and detail) and result -1.
void FailAction(int Id, const QString& sError, const QString& sDetail = QString()) {
  SetActionError(Id, sError, sDetail);
  SetActionResult(Id, -1);
}

// The echo must run unchanged in a script as in the console. A script hands
// a value parameter over as a number, so a label such as "Reset & Run" (which
// only the console could read) is echoed by its value; numbers and constant
// names stay as they are.
QStringList ScriptSafeEcho(int Id, QStringList Echo) {
  if ((Id != AID_EDIT_SYS_VAR && Id != AID_EDIT_PREFERENCE) || Echo.size() < 2 || IsTextParam(Id, 1)) return Echo;
  const int Row = SysVars::FindSysVar(Echo[0]);
  if (Row < 0 || SysVars::Row(Row)->Type == SysVarType::String) return Echo;
  static const QRegularExpression reName(QStringLiteral("^[A-Za-z_][A-Za-z0-9_]*$"));
  I64 v = 0;
  const QString& s = Echo[1];
  if (SettingsText::ParseInt(s, v) || (reName.match(s).hasMatch() && FindConstant(s, &v))) return Echo;
  Echo[1] = QString::number(SysVars::GetValue(Row));
  return Echo;
}

// Applies the result of a settings edit to the action.
void ApplyEdit(int Id, const SettingsEditResult& r) {
  if (!r.Ok()) {
    FailAction(Id, r.sError, r.sErrorText);
    return;
  }
  SetActionResult(Id, 0);
  if (r.bReplaceArgs) SetActionArgs(Id, ScriptSafeEcho(Id, r.EchoArgs));
  else if (r.bClearData) SetActionNoEcho(Id);
}

// Runs Edit.SysVar for a project command without a second echo.
bool SetVar(int Id, int VarId, const QString& sValue) {
  const SettingsEditResult r = EditSysVar({QString::fromLatin1(SysVars::Row(VarId)->Name), sValue, QStringLiteral("0")});
  if (!r.Ok()) {
    FailAction(Id, r.sError, r.sErrorText);
    return false;
  }
  SetActionResult(Id, 0);
  return true;
}


// Whether the program suits the core plug-in in force; a misfit becomes a
// project warning (the host logs a header it cannot read).
void CheckProgramAgainstCore(const QString& sProgram) {
  U32 DataEndian = 0, InstEndian = 0;
  const int r = CORE_CheckProgramFile(sProgram, &DataEndian, &InstEndian);
  if (r == -1)
    Project().AddWarning(QStringLiteral("program file %1 does not suit the target core (refused by the core plugin)")
                             .arg(QFileInfo(sProgram).fileName()));
  if (r == 0 && (DataEndian | InstEndian) != 0)
    LogInfo(QStringLiteral("Program file byte order: data %1, instructions %2")
                .arg(QLatin1String(DataEndian ? "big" : "little"), QLatin1String(InstEndian ? "big" : "little")));
}

void OnFileOpen(int Id) {
  if (!CheckArgCount(Id, 0)) return;
  QStringList Args = GetActionArgs(Id);
  QString sPath = Args.value(0);
  if (Args.isEmpty()) {
    IProjectDialogs* d = ProjectModule::Dialogs();
    if (!d) {
      SetActionError(Id, QStringLiteral("wrong parameter count"));
      return;
    }
    sPath = d->AskOpenFile(VScript::ScriptDir());
    if (sPath.isEmpty()) {
      SetActionNoEcho(Id);
      SetActionResult(Id, 2);
      return;
    }
    SetActionArgs(Id, {sPath});
  }
  if (IsProjectPath(sPath)) {
    if (!QFileInfo(sPath).isFile()) {
      FailAction(Id, QStringLiteral("file not found"));
      return;
    }
    const QString sRefused = ProjectModule::RefuseReopen(sPath);
    if (!sRefused.isEmpty()) {
      FailAction(Id, sRefused);
      return;
    }
    // A project the user opens is no longer the one of the command line.
    Project().SetFromCmdLine(false);
    SetActionResult(Id, ProjectModule::OpenProject(sPath, Id) ? 0 : -1);
    return;
  }
  const QString sProgram = ResolvePath(sPath);
  if (IProgramFileLoader* pLoader = ProjectModule::ProgramFileLoader()) {
    const int r = pLoader->OpenProgramFile(sProgram, Id);
    // The project remembers its program, so that a saved project opens it.
    if (r == 0) {
      Project().SetProgramFile(QFileInfo(sProgram).absoluteFilePath());
      CheckProgramAgainstCore(sProgram);
    }
    SetActionResult(Id, r);
    return;
  }
  FailAction(Id, QFileInfo::exists(sProgram) ? QStringLiteral("no program loader installed: ") + sProgram
                                             : QStringLiteral("file not found: ") + sProgram);
}

void OnFileNewProject(int Id) {
  if (!CheckArgCount(Id)) return;
  if (Project().IsModified()) {
    const int r = AskSaveProjectChanges();
    if (r == CMessageBox::RESULT_CANCEL) return;
    if (r == CMessageBox::RESULT_YES && !VScript::ScriptFilePath().isEmpty()) Project().SaveAs(VScript::ScriptFilePath());
  }
  ProjectModule::NewProject();
  SetActionResult(Id, 0);
}

void OnFileNewProjectWizard(int Id) {
  if (!CheckArgCount(Id)) return;
  IProjectDialogs* d = ProjectModule::Dialogs();
  if (!d) {
    SetActionResult(Id, 2);
    return;
  }
  QString sPath;
  const QStringList Cmds = d->RunProjectWizard(&sPath);
  if (Cmds.isEmpty()) {
    SetActionResult(Id, 2);
    return;
  }
  ProjectModule::CreateProject(sPath, Cmds, true);
  if (!sPath.isEmpty() && Project().SaveAs(sPath)) {
    AddRecentProject(sPath);
    LogInfo(QStringLiteral("Project settings were written to the project file"));
  }
  Project().AnnounceTitle();
  SetActionResult(Id, 1);
}

void OnFileSaveProjectAs(int Id) {
  if (!CheckArgCount(Id, 0)) return;
  QString sPath = GetActionArgs(Id).value(0).trimmed();
  if (sPath.isEmpty()) {
    if (IProjectDialogs* d = ProjectModule::Dialogs()) {
      const QString sDir = VScript::ScriptDir().isEmpty() ? QDir::homePath() : VScript::ScriptDir();
      sPath = d->AskSaveProjectFile(sDir);
    }
    if (sPath.isEmpty()) {
      SetActionNoEcho(Id);
      SetActionResult(Id, 2);
      return;
    }
    SetActionArgs(Id, {sPath});
  }
  if (QFileInfo(sPath).suffix().isEmpty()) sPath += QStringLiteral(".vdebug");
  if (!IsProjectPath(sPath)) {
    FailAction(Id, QStringLiteral("invalid project filename"));
    return;
  }
  sPath = QFileInfo(sPath).absoluteFilePath();
  // The file must be writable, or creatable.
  QFile f(sPath);
  const bool Existed = f.exists();
  if (!f.open(QIODevice::ReadWrite)) {
    FailAction(Id, QStringLiteral("invalid filename"));
    return;
  }
  f.close();
  if (!Existed) f.remove();
  if (!Project().SaveAs(sPath)) {
    FailAction(Id, ProjectSaveError(QStringLiteral("write failed")));
    return;
  }
  AddRecentProject(sPath);
  Project().AnnounceTitle();
  SetActionResult(Id, 1);
}

void OnScriptExec(int Id) {
  const QStringList Args = GetActionArgs(Id);
  QString sStatement = GetCommandText(Id);
  ConsolePrintLine(sStatement, 0, false, CommandColorId());
  sStatement.remove(QLatin1Char(';'));
  const QString sSyntax = QStringLiteral("\"Script.Exec(<funcname> [,<para1>, <para2>,...])\"");
  auto Done = [Id] { SetActionNoEcho(Id); };
  if (Args.isEmpty() || Args.first().trimmed().isEmpty()) {
    LogError(QStringLiteral("Script.Exec: no function name given"));
    SetActionResult(Id, -1);
    Done();
    return;
  }
  const QString sFunc = Args.first().trimmed();
  I64 Argv[VScript::kMaxArgs] = {};
  int Argc = 0;
  for (int i = 1; i < Args.size() && Argc < VScript::kMaxArgs; ++i) {
    QString sError;
    if (!ArgValue(Args[i], &Argv[Argc++], &sError)) {
      LogError(sStatement + QStringLiteral(": argument ") + QString::number(i + 1) + QStringLiteral(" (") + Args[i].trimmed() +
               QStringLiteral(") is not a number, constant or expression: ") + sError);
      SetActionResult(Id, -1);
      Done();
      return;
    }
  }
  if (VScript::IsMainWindowClosing()) {
    ConsoleWarning(QStringLiteral("Not executing script function: ") + sFunc + QStringLiteral(". Project is about to close"));
    Done();
    return;
  }
  const QString sExec = QStringLiteral("Executing script function: ") + sFunc;
  ConsolePrintLine(sExec, 0, false, ScriptColorId());
  LogScript(sExec);
  I64 Result = 0;
  const int Rc = VScript::ExecScriptFunction(sFunc, -1, Argc, Argc ? Argv : nullptr, &Result);
  if (Rc == VScript::EXEC_OK) {
    SetActionResult(Id, Result);
    const QString s = QStringLiteral("Script function ") + sFunc + QStringLiteral(" executed");
    ConsolePrintLine(s, 0, false, ScriptColorId());
    LogScript(s);
  } else if (Rc == VScript::EXEC_UNKNOWN_FUNCTION) {
    LogError(sStatement + QStringLiteral(" first parameter not a function name or function unknown. Compare with valid command syntax: ") + sSyntax);
    SetActionResult(Id, -1);
  } else if (Rc < 0) {
    LogError(sStatement + QStringLiteral(": ") + VScript::GetLastError() + QStringLiteral(". Check for valid command syntax: ") + sSyntax);
    SetActionResult(Id, -1);
  }
  // The function may have asked for a project to open; with no script left
  // on the stack that happens now.
  if (VScript::CallLevel() == 0 && !Project().PendingPath().isEmpty()) Project().WaitForOpen();
  Done();
}

void OnScriptDefineConst(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  const QString sName = Args[0].trimmed();
  I64 v = 0;
  QString sError;
  if (!ArgValue(Args[1], &v, &sError)) {
    FailAction(Id, QStringLiteral("invalid parameter"), Args[1] + QStringLiteral(" (") + sError + QLatin1Char(')'));
    return;
  }
  if (!VScript::DefineConstant(sName, v)) {
    FailAction(Id, QStringLiteral("invalid parameter"), sName);
    return;
  }
  SetActionResult(Id, 0);
}

void OnToolsSettings(int Id, bool SysVarsOnly) {
  if (!CheckArgCount(Id)) return;
  IProjectDialogs* d = ProjectModule::Dialogs();
  if (!d) {
    SetActionResult(Id, 2);
    return;
  }
  const bool Accepted = d->RunSettingsDialog(SysVarsOnly);
  SetActionResult(Id, Accepted ? 1 : 2);
}

// ---- project commands

void OnSetDevice(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = GetActionArgs(Id).at(0).trimmed();
  if (s.isEmpty()) {
    SetActionError(Id, QStringLiteral("invalid parameter"));
    return;
  }
  Project().DeviceSettings().Device = s;
  if (auto* d = ProjectModule::DeviceSettingsSink()) {
    d->SetDevice(s);
    // The core plug-in follows the device; refusals are logged by the host.
    LoadCorePlugin(CORE_CoreOfDevice(s));
  }
  SetActionResult(Id, 0);
}

// A plug-in file: as given (project and install directory expanded), else
// below the core plug-in directory, with or without the library extension.
QString FindCorePluginFile(const QString& sArg) {
  const QString s = ResolvePath(sArg);
  if (QFileInfo(s).isFile()) return QFileInfo(s).absoluteFilePath();
  for (const QString& sName : {sArg, sArg + QStringLiteral(".so")}) {
    const QString p = CORE_PluginDir() + sName;
    if (!sArg.isEmpty() && QFileInfo(p).isFile()) return p;
  }
  return QString();
}

void OnSetCorePlugin(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString sPath = FindCorePluginFile(GetActionArgs(Id).at(0).trimmed());
  if (sPath.isEmpty()) {
    FailAction(Id, QStringLiteral("file not found"));
    return;
  }
  Project().SetCorePluginPath(sPath);
  const QString sDevice = Project().DeviceSettings().Device;
  if (ProjectModule::DeviceSettingsSink() && !sDevice.isEmpty() && LoadCorePlugin(CORE_CoreOfDevice(sDevice)) < 0) {
    FailAction(Id, QStringLiteral("could not load core plugin: ") + sPath);
    return;
  }
  SetActionResult(Id, 0);
}

void OnSetHostIF(int Id) {
  if (!CheckArgCount(Id, 1)) return;
  const QStringList Args = GetActionArgs(Id);
  const QString sIF = Args[0].trimmed();
  const QString sIdent = Args.value(1).trimmed();
  I64 v = 0;
  QString sName;
  if (sIF.compare(QLatin1String("USB"), Qt::CaseInsensitive) == 0) sName = QStringLiteral("USB");
  else if (sIF.compare(QLatin1String("IP"), Qt::CaseInsensitive) == 0) sName = QStringLiteral("IP");
  else if (SettingsText::ParseInt(sIF, v) && (v == 1 || v == 2)) sName = v == 1 ? QStringLiteral("USB") : QStringLiteral("IP");
  if (sName.isEmpty()) {
    FailAction(Id, QStringLiteral("unknown host interface"), sIF);
    return;
  }
  if (sName == QLatin1String("USB") && !sIdent.isEmpty()) {
    U64 n = 0;
    if (!SettingsText::ParseUInt(sIdent, n)) {
      FailAction(Id, QStringLiteral("invalid parameter"), QLatin1Char('"') + sIdent + QLatin1Char('"'));
      return;
    }
  }
  Project().DeviceSettings().HostIF = sName;
  Project().DeviceSettings().HostID = sIdent;
  if (auto* d = ProjectModule::DeviceSettingsSink()) d->SetHostIF(sName, sIdent);
  SetActionResult(Id, 0);
}

void OnSetTargetIF(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = GetActionArgs(Id).at(0).trimmed();
  static const char* const kNames[] = {"JTAG", "SWD", "FINE", "cJTAG"};
  for (const char* n : kNames) {
    if (s.compare(QLatin1String(n), Qt::CaseInsensitive) == 0) {
      Project().DeviceSettings().TargetIF = QLatin1String(n);
      if (auto* d = ProjectModule::DeviceSettingsSink()) d->SetTargetIF(QLatin1String(n));
      SetActionResult(Id, 0);
      return;
    }
  }
  FailAction(Id, QStringLiteral("unknown target interface"));
}

void OnSetTIFSpeed(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = GetActionArgs(Id).at(0).trimmed();
  I64 Hz = -1;
  U64 n = 0;
  if (SettingsText::ParseUInt(s, n)) {
    Hz = (n == 0 || n == 0xFFFF) ? I64(n) : I64(n) * 1000;  // a plain number counts as kHz
  } else if (s.compare(QLatin1String("auto"), Qt::CaseInsensitive) == 0) {
    Hz = 0;
  } else {
    Hz = SettingsText::FrequencyFromText(s);
  }
  if (Hz < 0) {
    FailAction(Id, QStringLiteral("invalid number"));
    return;
  }
  if (Hz != 0 && Hz != 0xFFFF) Hz = std::max<I64>(1000, (Hz + 500) / 1000 * 1000);
  SysVars::SetValue(VAR_TIF_SPEED, Hz);
  Project().DeviceSettings().HasTIFSpeed = true;
  if (auto* d = ProjectModule::DeviceSettingsSink()) d->SetSpeed(Hz);
  SetActionResult(Id, 0);
}

void OnSetJTAGConfig(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  I64 Pos = 0, Len = 0;
  if (!ArgNumber(Args[0], &Pos) || Pos < 0) {
    SetActionError(Id, QStringLiteral("invalid parameter"), Args[0]);
    return;
  }
  if (!ArgNumber(Args[1], &Len) || Len < 0) {
    SetActionError(Id, QStringLiteral("invalid parameter"), Args[1]);
    return;
  }
  SysVars::SetValue(VAR_TIF_SCAN_CHAIN_POS, Pos);
  SysVars::SetValue(VAR_TIF_SCAN_CHAIN_LEN, Len);
  Project().DeviceSettings().HasScanChain = true;
  if (auto* d = ProjectModule::DeviceSettingsSink()) d->SetJTAGConfig(int(Pos), int(Len));
  SetActionResult(Id, 0);
}

void OnSetVordenScript(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = ResolvePath(GetActionArgs(Id).at(0).trimmed());
  if (!QFileInfo(s).isFile()) {
    FailAction(Id, QStringLiteral("file not found: ") + s);
    return;
  }
  Project().DeviceSettings().VordenScript = s;
  if (auto* d = ProjectModule::DeviceSettingsSink()) d->SetScriptFile(s);
  SetActionResult(Id, 0);
}

void OnSetVordenLogFile(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = ResolvePath(GetActionArgs(Id).at(0).trimmed());
  const QFileInfo fi(s);
  const QFileInfo dir(fi.absolutePath());
  if (s.isEmpty() || fi.isDir() || !dir.isDir() || !dir.isWritable() || (fi.exists() && !fi.isWritable())) {
    FailAction(Id, QStringLiteral("invalid filename: ") + s);
    return;
  }
  Project().DeviceSettings().VordenLogFile = s;
  if (auto* d = ProjectModule::DeviceSettingsSink()) d->SetLogFile(s);
  SetActionResult(Id, 0);
}

void OnAddSvdFile(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = ResolvePath(GetActionArgs(Id).at(0).trimmed());
  if (!QFileInfo(s).isFile()) {
    FailAction(Id, QStringLiteral("file not found"));
    return;
  }
  const QString sSuffix = QFileInfo(s).suffix().toLower();
  if (sSuffix != QLatin1String("svd") && sSuffix != QLatin1String("xml")) {
    FailAction(Id, QStringLiteral("invalid parameter"));
    return;
  }
  // Register windows learn about the file when they exist.
  // (The list is read by CurrentStateCommands and GetWarnings.)
  Project().AddSvdFile(s);
  SetActionResult(Id, 0);
}

void OnVarCommand(int Id, int VarId) {
  if (!CheckArgCount(Id)) return;
  SetVar(Id, VarId, GetActionArgs(Id).at(0));
}

void OnSetTraceTiming(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  for (int i = 0; i < 4; ++i)
    if (!SetVar(Id, VAR_TRACE_PORT_DELAY_0 + i, Args[i])) return;
  SysVars::SetValue(VAR_TRACE_OVERRIDE_TIMINGS, 1);
}

void OnSetTraceFile(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  if (Args[0].trimmed().isEmpty()) {
    SetActionError(Id, QStringLiteral("invalid filename"));
    return;
  }
  if (!SetVar(Id, VAR_TRACE_FILE_PATH, Args[0].trimmed()) || !SetVar(Id, VAR_TRACE_FILE_MAX_SIZE, Args[1]) ||
      !SetVar(Id, VAR_TRACE_FILE_KEEP_START, Args[2]))
    return;
  if (SysVars::GetValue(VAR_TRACE_FILE_ENABLED) != 0)
    SetActionError(Id, QStringLiteral("Trace file not yet supported. Support will be added soon."));
}

void OnConfigSWO(int Id, bool WithOnOff) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  const int o = WithOnOff ? 1 : 0;
  if (!SetVar(Id, VAR_SWO_SPEED, Args[o]) || !SetVar(Id, VAR_SWO_CPU_SPEED, Args[o + 1])) return;
  if (WithOnOff) {
    bool On = false;
    I64 v = 0;
    if (!SettingsText::ParseTruth(Args[0], On) && ArgNumber(Args[0], &v)) On = v != 0;
    SetVar(Id, VAR_TRACE_SOURCE, On ? QStringLiteral("3") : QStringLiteral("0"));
  }
}

void OnDisableSessionSave(int Id) {
  if (!CheckArgCount(Id)) return;
  // Flags are a number or one of the DISABLE_SAVE_* names.
  QString sFlags = GetActionArgs(Id).at(0).trimmed();
  I64 v = 0;
  if (ArgNumber(sFlags, &v)) sFlags = QString::number(U64(v) & 0xFFFFFFFFu);
  const SettingsEditResult r =
      EditPreference({QStringLiteral("PREF_SESSION_SAVE_FLAGS"), sFlags, QStringLiteral("0"), QStringLiteral("0")});
  if (!r.Ok()) {
    FailAction(Id, r.sError, r.sErrorText);
    return;
  }
  SetActionResult(Id, 0);
}

// The file a path names, as one text: the real path of an existing file.
QString FileKey(const QString& sPath) {
  const QFileInfo fi(sPath);
  const QString c = fi.canonicalFilePath();
  return c.isEmpty() ? fi.absoluteFilePath() : c;
}

// A log file is truncated when it opens: the files of the session itself
// must never become one. The reason, or empty.
QString RefuseLogFile(const QString& sPath) {
  if (sPath.trimmed().isEmpty()) return QString();
  const QString k = FileKey(sPath);
  const QString sProject = VScript::ScriptFilePath();
  const QPair<QString, const char*> Own[] = {
      {Project().ProgramFilePath(), "the open program file"},
      {sProject, "the project file"},
      {sProject.isEmpty() ? QString() : ProjectText::UserFilePath(sProject), "the project's user file"},
  };
  for (const auto& o : Own)
    if (!o.first.isEmpty() && FileKey(o.first) == k)
      return QStringLiteral("refused: ") + sPath + QStringLiteral(" is ") + QLatin1String(o.second) +
             QStringLiteral(" and would be overwritten by the log");
  return QString();
}

void OnSetConsoleLogFile(int Id) {
  if (!CheckArgCount(Id)) return;
  const QString s = GetActionArgs(Id).at(0);
  const QString sRefused = RefuseLogFile(s);
  if (!sRefused.isEmpty()) {
    FailAction(Id, sRefused);
    return;
  }
  SetLogFile(LOG_FILE_CONSOLE, s);
  SetActionResult(Id, 0);
}

// Project.AddRootPath, AddSearchPath, AddFileAlias, AddPathSubstitute: the
// rules of the file finder, their paths taken as written. A path to replace
// may not be empty; an empty root or search path is kept and passed over.
void OnAddFinderRule(int Id) {
  if (!CheckArgCount(Id)) return;
  const QStringList Args = GetActionArgs(Id);
  CFileFinder& F = FileFinder();
  switch (Id) {
    case AID_PROJECT_ADD_ROOT_PATH: F.AddRootPath(Args[0]); break;
    case AID_PROJECT_ADD_SEARCH_PATH: F.AddSearchPath(Args[0]); break;
    case AID_PROJECT_ADD_FILE_ALIAS:
    case AID_PROJECT_ADD_PATH_SUBSTITUTE:
      if (Args[0].trimmed().isEmpty()) {
        FailAction(Id, QStringLiteral("invalid parameter"), Args[0]);
        return;
      }
      if (Id == AID_PROJECT_ADD_FILE_ALIAS) F.AddFileAlias(Args[0], Args[1]);
      else F.AddPathSubstitute(Args[0], Args[1]);
      break;
  }
  SetActionResult(Id, 0);
}

void RegisterSlots() {
  for (int Id : {AID_PROJECT_ADD_ROOT_PATH, AID_PROJECT_ADD_SEARCH_PATH, AID_PROJECT_ADD_FILE_ALIAS, AID_PROJECT_ADD_PATH_SUBSTITUTE})
    SetCommandSlot(Id, OnAddFinderRule);
  SetCommandSlot(AID_PROJECT_SET_CONSOLE_LOG_FILE, OnSetConsoleLogFile);
  SetCommandSlot(AID_FILE_OPEN, OnFileOpen);
  SetCommandSlot(AID_FILE_NEW_PROJECT, OnFileNewProject);
  SetCommandSlot(AID_FILE_NEW_PROJECT_WIZARD, OnFileNewProjectWizard);
  SetCommandSlot(AID_FILE_SAVE_PROJECT_AS, OnFileSaveProjectAs);
  SetCommandSlot(AID_SCRIPT_EXEC, OnScriptExec);
  SetCommandSlot(AID_SCRIPT_DEFINE_CONST, OnScriptDefineConst);
  SetCommandSlot(AID_EDIT_SYS_VAR, [](int Id) { ApplyEdit(Id, EditSysVar(GetActionArgs(Id))); });
  SetCommandSlot(AID_EDIT_PREFERENCE, [](int Id) { ApplyEdit(Id, EditPreference(GetActionArgs(Id))); });
  SetCommandSlot(AID_EDIT_COLOR, [](int Id) { ApplyEdit(Id, EditColor(GetActionArgs(Id))); });
  SetCommandSlot(AID_EDIT_FONT, [](int Id) { ApplyEdit(Id, EditFont(GetActionArgs(Id))); });
  SetCommandSlot(AID_TOOLS_PREFERENCES, [](int Id) { OnToolsSettings(Id, false); });
  SetCommandSlot(AID_TOOLS_SYS_VARS, [](int Id) { OnToolsSettings(Id, true); });
  SetCommandSlot(AID_PROJECT_SET_DEVICE, OnSetDevice);
  SetCommandSlot(AID_PROJECT_SET_CORE_PLUGIN, OnSetCorePlugin);
  SetCommandSlot(AID_PROJECT_SET_HOST_IF, OnSetHostIF);
  SetCommandSlot(AID_PROJECT_SET_TARGET_IF, OnSetTargetIF);
  SetCommandSlot(AID_PROJECT_SET_TIF_SPEED, OnSetTIFSpeed);
  SetCommandSlot(AID_PROJECT_SET_JTAG_CONFIG, OnSetJTAGConfig);
  SetCommandSlot(AID_PROJECT_SET_VORDEN_SCRIPT, OnSetVordenScript);
  SetCommandSlot(AID_PROJECT_SET_VORDEN_LOG_FILE, OnSetVordenLogFile);
  SetCommandSlot(AID_PROJECT_ADD_SVD_FILE, OnAddSvdFile);
  SetCommandSlot(AID_PROJECT_SET_BP_TYPE, [](int Id) { OnVarCommand(Id, VAR_BREAKPOINT_TYPE); });
  SetCommandSlot(AID_PROJECT_SET_SEMIHOSTING, [](int Id) { OnVarCommand(Id, VAR_SEMIHOSTING_ENABLED); });
  SetCommandSlot(AID_PROJECT_SET_LVT, [](int Id) { OnVarCommand(Id, VAR_LVT_ENABLED); });
  SetCommandSlot(AID_PROJECT_SET_MEM_ZONE_RUNNING, [](int Id) { OnVarCommand(Id, VAR_MEM_ZONE_RUNNING); });
  SetCommandSlot(AID_PROJECT_SET_TRACE_SOURCE, [](int Id) { OnVarCommand(Id, VAR_TRACE_SOURCE); });
  SetCommandSlot(AID_PROJECT_SET_TRACE_PORT_WIDTH, [](int Id) { OnVarCommand(Id, VAR_TRACE_PORT_WIDTH); });
  SetCommandSlot(AID_PROJECT_SET_TRACE_TIMING, OnSetTraceTiming);
  SetCommandSlot(AID_PROJECT_SET_TRACE_FILE, OnSetTraceFile);
  SetCommandSlot(AID_PROJECT_CONFIG_SWO, [](int Id) { OnConfigSWO(Id, false); });
  SetCommandSlot(AID_PROJECT_SET_SWO, [](int Id) { OnConfigSWO(Id, true); });
  SetCommandSlot(AID_PROJECT_DISABLE_SESSION_SAVE, OnDisableSessionSave);
}

}  // namespace

namespace ProjectCommands {
void Install() { RegisterSlots(); }
}  // namespace ProjectCommands
