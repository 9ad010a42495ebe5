// Breakpoints of the adapter: each request replaces the client's set of its
// kind, through the Break.* commands of the console.
#include "dap/dapadapter.h"

#include "device/bpmodel.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "elf/symbol/symbol.h"
#include "expr/evaluator.h"
#include "files/filefinder.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QMutexLocker>

namespace {

QString Quoted(const QString& s) {
  QString t = s;
  t.replace(QLatin1Char('"'), QLatin1Char('\''));
  return QLatin1Char('"') + t + QLatin1Char('"');
}

// "0x20000010" or a decimal; false for anything else.
bool ParseAddress(const QString& s, U64* pValue) {
  bool Ok = false;
  const QString t = s.trimmed();
  *pValue = t.startsWith(QLatin1String("0x"), Qt::CaseInsensitive) ? t.mid(2).toULongLong(&Ok, 16) : t.toULongLong(&Ok, 10);
  return Ok && *pValue <= 0xFFFFFFFFull;
}

// The client names a source file by where it lies here; the program knows
// it by the path its compiler recorded. The recorded path whose file, found
// as the source views find it, is the client's; the client's path otherwise.
QString ProgramSourcePath(const QString& sClientPath) {
  const QString sWant = QFileInfo(sClientPath).canonicalFilePath();
  QStringList Files;
  {
    QMutexLocker Lock(&CElfApi::Instance().Mutex());
    if (CElfApi::Instance().IsLoaded()) Files = DWARF_GetProgramTables().GetSourceFiles();
  }
  for (const QString& sRecorded : std::as_const(Files)) {
    if (QFileInfo(sRecorded).fileName() != QFileInfo(sClientPath).fileName()) continue;
    const QString sFound = FileFinder().Resolve(sRecorded);
    if (!sFound.isEmpty() && QFileInfo(sFound).canonicalFilePath() == sWant) return sRecorded;
  }
  return sClientPath;
}

}  // namespace

void CDapAdapter::ClearBreakpoints(QSet<QString>* pSet) {
  for (const QString& sLoc : std::as_const(*pSet)) RunCommand(QStringLiteral("Break.ClearOnSrc(%1)").arg(Quoted(sLoc)));
  pSet->clear();
}

// A stop at a breakpoint whose console message is one of the client's log
// messages: the model printed it, the target goes on.
bool CDapAdapter::IsLogPoint(U32 Pc) const {
  const CBreakpointInfo* b = CBreakpointsDataModel::Instance().FindAddr(Pc & ~1u);
  return b && !b->ConsoleMsg.isEmpty() && m_LogMessages.contains(b->ConsoleMsg);
}

// Sets one breakpoint at a location text and applies condition, hit count
// and log message. The DAP breakpoint record of the result.
QJsonObject CDapAdapter::ApplyBreakpoint(const QString& sLocation, const QJsonObject& Bp, int Line) {
  QJsonObject o{{QStringLiteral("verified"), false}};
  if (Line > 0) o.insert(QStringLiteral("line"), Line);
  DAP_REPLY r = RunCommand(QStringLiteral("Break.SetOnSrc(%1)").arg(Quoted(sLocation)));
  const QString sCond = Bp.value(QStringLiteral("condition")).toString();
  const QString sHits = Bp.value(QStringLiteral("hitCondition")).toString().trimmed();
  const QString sLog = Bp.value(QStringLiteral("logMessage")).toString();
  if (r.Ok && (!sCond.isEmpty() || !sHits.isEmpty() || !sLog.isEmpty())) {
    // A hit count N stops at every Nth hit: the breakpoint skips N - 1.
    int Skip = 0;
    if (!sHits.isEmpty()) {
      bool Ok = false;
      const int n = QString(sHits).remove(QLatin1String(">=")).remove(QLatin1Char('=')).trimmed().toInt(&Ok);
      if (!Ok || n < 1) r = DAP_REPLY::Fail(QStringLiteral("invalid parameter"));
      Skip = n - 1;
    }
    if (r.Ok)
      r = RunCommand(QStringLiteral("Break.Edit(%1, %2, 0, %3, \"\", %4, \"\")")
                         .arg(Quoted(sLocation), Quoted(sCond)).arg(Skip).arg(Quoted(sLog)));
  }
  if (!r.Ok) {
    o.insert(QStringLiteral("message"), r.sError);
    return o;
  }
  if (!sLog.isEmpty()) m_LogMessages.insert(sLog);
  int Kind = -1;
  const CAddrRange a = ResolveToAddress(sLocation, Kind);
  if (Kind >= 0) {
    o.insert(QStringLiteral("instructionReference"), QStringLiteral("0x%1").arg(a.start, 8, 16, QLatin1Char('0')));
  }
  o.insert(QStringLiteral("verified"), true);
  return o;
}

DAP_REPLY CDapAdapter::SetBreakpoints(const QJsonObject& a) {
  const QString sPath = a.value(QStringLiteral("source")).toObject().value(QStringLiteral("path")).toString();
  if (sPath.isEmpty()) return DAP_REPLY::Fail(QStringLiteral("setBreakpoints: source without a path"));
  QSet<QString>& Set = m_SourceBps[sPath];
  const QString sProgramPath = ProgramSourcePath(sPath);
  ClearBreakpoints(&Set);
  QJsonArray Out;
  for (const QJsonValue& v : a.value(QStringLiteral("breakpoints")).toArray()) {
    const QJsonObject b = v.toObject();
    const int Line = b.value(QStringLiteral("line")).toInt() + (m_bLinesStartAt1 ? 0 : 1);
    const QString sLoc = QStringLiteral("%1:%2").arg(sProgramPath).arg(Line);
    Set.insert(sLoc);
    Out.append(ApplyBreakpoint(sLoc, b, Line));
  }
  return DAP_REPLY::Done({{QStringLiteral("breakpoints"), Out}});
}

DAP_REPLY CDapAdapter::SetFunctionBreakpoints(const QJsonObject& a) {
  ClearBreakpoints(&m_FunctionBps);
  QJsonArray Out;
  for (const QJsonValue& v : a.value(QStringLiteral("breakpoints")).toArray()) {
    const QString sName = v.toObject().value(QStringLiteral("name")).toString().trimmed();
    m_FunctionBps.insert(sName);
    Out.append(ApplyBreakpoint(sName, v.toObject(), 0));
  }
  return DAP_REPLY::Done({{QStringLiteral("breakpoints"), Out}});
}

DAP_REPLY CDapAdapter::SetInstructionBreakpoints(const QJsonObject& a) {
  ClearBreakpoints(&m_InstructionBps);
  QJsonArray Out;
  for (const QJsonValue& v : a.value(QStringLiteral("breakpoints")).toArray()) {
    const QJsonObject b = v.toObject();
    U64 Addr = 0;
    if (!ParseAddress(b.value(QStringLiteral("instructionReference")).toString(), &Addr)) {
      Out.append(QJsonObject{{QStringLiteral("verified"), false}, {QStringLiteral("message"), QStringLiteral("invalid parameter")}});
      continue;
    }
    Addr += U64(b.value(QStringLiteral("offset")).toInteger());
    const QString sLoc = QStringLiteral("0x%1").arg(Addr & 0xFFFFFFFFull, 8, 16, QLatin1Char('0'));
    m_InstructionBps.insert(sLoc);
    Out.append(ApplyBreakpoint(sLoc, b, 0));
  }
  return DAP_REPLY::Done({{QStringLiteral("breakpoints"), Out}});
}

// A data breakpoint watches a symbol that lives in memory; its id is the
// expression, which Break.SetOnSymbol takes as it is.
DAP_REPLY CDapAdapter::DataBreakpointInfo(const QJsonObject& a) {
  const QString sName = a.value(QStringLiteral("name")).toString().trimmed();
  std::shared_ptr<CSymbol> s = sName.isEmpty() ? nullptr : EvaluateSymbol(sName);
  I64 Addr = -1;
  if (s && !s->IsEmpty()) Addr = s->GetAddress();
  if (Addr < 0)
    return DAP_REPLY::Done({{QStringLiteral("dataId"), QJsonValue::Null},
                            {QStringLiteral("description"), QStringLiteral("%1 is not in memory").arg(sName)}});
  return DAP_REPLY::Done({{QStringLiteral("dataId"), sName},
                          {QStringLiteral("description"), QStringLiteral("%1 at 0x%2").arg(sName).arg(Addr, 8, 16, QLatin1Char('0'))},
                          {QStringLiteral("accessTypes"), QJsonArray{QStringLiteral("read"), QStringLiteral("write"), QStringLiteral("readWrite")}},
                          {QStringLiteral("canPersist"), false}});
}

DAP_REPLY CDapAdapter::SetDataBreakpoints(const QJsonObject& a) {
  for (const QString& sArgs : std::as_const(m_DataBps)) RunCommand(QStringLiteral("Break.ClearOnSymbol(%1)").arg(sArgs));
  m_DataBps.clear();
  QJsonArray Out;
  for (const QJsonValue& v : a.value(QStringLiteral("breakpoints")).toArray()) {
    const QJsonObject b = v.toObject();
    const QString sAccess = b.value(QStringLiteral("accessType")).toString(QStringLiteral("write"));
    const char* sType = sAccess == QLatin1String("read") ? "AT_READ_ONLY" : sAccess == QLatin1String("readWrite") ? "AT_READ_WRITE" : "AT_WRITE_ONLY";
    const QString sArgs = QStringLiteral("%1, %2, AW_ANY").arg(Quoted(b.value(QStringLiteral("dataId")).toString()), QLatin1String(sType));
    const DAP_REPLY r = RunCommand(QStringLiteral("Break.SetOnSymbol(%1)").arg(sArgs));
    QJsonObject o{{QStringLiteral("verified"), r.Ok}};
    if (r.Ok) m_DataBps.insert(sArgs);
    else o.insert(QStringLiteral("message"), r.sError);
    Out.append(o);
  }
  return DAP_REPLY::Done({{QStringLiteral("breakpoints"), Out}});
}
