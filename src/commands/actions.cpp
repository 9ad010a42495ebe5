// Command API: linking, calling, parsing of console lines, statement
// rendering, the echo hooks and the help list.
#include "commands/actions.h"

#include "log/log.h"
#include "settings/ids.h"

#include <QAction>
#include <QElapsedTimer>
#include <QHash>
#include <QKeySequence>
#include <QMap>
#include <QObject>
#include <QRegularExpression>
#include <algorithm>

QString ConstantNameOf(const QString& s);  // constants.cpp

namespace {

const char* const kEnabledProperty = "tavitCommandEnabled";

QHash<const QAction*, int> g_ActionIds;
QHash<int, I64> g_Results;
QStringList g_Unlinked;
int g_ErrorCount = 0;

// Per-row state for rows whose QAction does not exist (yet): argument list,
// error text and command flag live in the QAction once it is linked.
QVariant g_aArgs[ACTION_COUNT + 1];
QString g_asError[ACTION_COUNT + 1];
bool g_aEnabled[ACTION_COUNT + 1];

// Command names and parameter counts are derived once from the prototypes.
struct ROW_INFO {
  QString sName;
  int NumParams = 0;
  QList<bool> TextParams;
};
const QVector<ROW_INFO>& RowInfo() {
  static const QVector<ROW_INFO> v = [] {
    QVector<ROW_INFO> r(ACTION_COUNT + 1);
    for (int i = 0; i <= ACTION_COUNT; ++i) {
      const QString sProto = QString::fromLatin1(g_aActionTable[i].Prototype);
      r[i].sName = GetCommandName(sProto);
      const QStringList Params = SplitCommandArgs(sProto);
      r[i].NumParams = int(Params.size());
      for (const QString& p : Params) r[i].TextParams.append(p.contains(QLatin1String("char")) && p.contains(QLatin1Char('*')));
    }
    return r;
  }();
  return v;
}

bool ValidId(int Id) { return Id >= 0 && Id < ACTION_COUNT; }

QAction* ActionOf(int Id) { return ValidId(Id) ? g_aActionTable[Id].Action : nullptr; }

QVariant GetData(int Id) {
  if (!ValidId(Id)) return QVariant();
  if (QAction* a = ActionOf(Id)) return a->data();
  return g_aArgs[Id];
}

void SetData(int Id, const QVariant& v) {
  if (!ValidId(Id)) return;
  if (QAction* a = ActionOf(Id)) a->setData(v);
  else g_aArgs[Id] = v;
}

bool IsNoEcho(const QVariant& v) { return v.typeId() == QMetaType::Int && v.toInt() == 0; }

void PrintError(const QString& sText) {
  ++g_ErrorCount;
  ConsolePrintLine(sText, 0, false, ErrorColorId());
}

// Frequency text: a number with an optional fraction, then Hz, kHz or MHz.
bool ParseFrequencyText(const QString& s, qint64* pHz) {
  static const QRegularExpression re(QStringLiteral("^\\s*([0-9]+(?:\\.[0-9]+)?)\\s*(hz|khz|mhz)\\s*$"),
                                     QRegularExpression::CaseInsensitiveOption);
  const auto m = re.match(s);
  if (!m.hasMatch()) return false;
  double v = m.captured(1).toDouble();
  const QString u = m.captured(2).toLower();
  if (u == QLatin1String("khz")) v *= 1e3;
  if (u == QLatin1String("mhz")) v *= 1e6;
  *pHz = qint64(v + 0.5);
  return true;
}

bool ParsesAsUnsigned(const QString& s) {
  bool ok = false;
  s.trimmed().toULongLong(&ok, 0);
  return ok;
}

bool ParsesAsSigned(const QString& s) {
  bool ok = false;
  s.trimmed().toLongLong(&ok, 0);
  return ok;
}

// A word the console and a script both take as it stands: an identifier
// (a constant, or one defined by Script.DefineConst).
bool IsPlainWord(const QString& s) {
  static const QRegularExpression re(QStringLiteral("^[A-Za-z_][A-Za-z0-9_]*$"));
  return re.match(s).hasMatch();
}

// A value text in double quotes, so that blanks, commas and operators stay
// one argument. Neither the console nor the script language has an escape
// for a quote inside quotes, so such quotes are dropped.
QString QuoteArg(QString s) {
  if (s.size() >= 2 && s.startsWith(QLatin1Char('"')) && s.endsWith(QLatin1Char('"'))) s = s.mid(1, s.size() - 2);
  s.remove(QLatin1Char('"'));
  return QLatin1Char('"') + s + QLatin1Char('"');
}

QString StripOneQuotePair(QString s) {
  if (s.startsWith(QLatin1Char('"'))) s.remove(0, 1);
  if (s.endsWith(QLatin1Char('"'))) s.chop(1);
  return s;
}

QStringList ArgsFromVariants(std::initializer_list<const QVariant*> Vars) {
  QStringList l;
  for (const QVariant* v : Vars) {
    if (v->isValid()) l.append(v->toString());
  }
  return l;
}

}  // namespace

namespace {
const ISourceLocationText* g_pSrcLocText = nullptr;
QElapsedTimer g_Clock;
qint64 g_DeadlineMs = -1;
int g_LimitSeconds = 0;
}  // namespace

void SetSourceLocationText(const ISourceLocationText* pConverter) { g_pSrcLocText = pConverter; }

void SetCommandDeadline(qint64 DeadlineMs, int LimitSeconds) {
  if (!g_Clock.isValid()) g_Clock.start();
  g_DeadlineMs = DeadlineMs < 0 ? -1 : g_Clock.elapsed() + DeadlineMs;
  g_LimitSeconds = LimitSeconds;
}

qint64 CommandTimeLeftMs() {
  if (g_DeadlineMs < 0) return -1;
  return std::max<qint64>(0, g_DeadlineMs - g_Clock.elapsed());
}

int CommandTimeLimitSeconds() { return g_LimitSeconds; }

ACTION_DESC* GetActionDesc(int Id) {
  if (ValidId(Id) && g_aActionTable[Id].Id == U32(Id)) return &g_aActionTable[Id];
  for (int i = 0; i < ACTION_COUNT; ++i) {
    if (g_aActionTable[i].Id == U32(Id)) return &g_aActionTable[i];
  }
  return &g_aActionTable[ACTION_COUNT];
}

int GetActionId(const QAction* pAction) { return g_ActionIds.value(pAction, -1); }

QString GetCommandName(const QString& sPrototype) {
  const int p = sPrototype.indexOf(QLatin1Char('('));
  if (p < 0) {
    const QStringList w = sPrototype.split(QLatin1Char(' '), Qt::SkipEmptyParts);
    return w.isEmpty() ? QString() : w.first();
  }
  int e = p;
  while (e > 0 && sPrototype.at(e - 1) == QLatin1Char(' ')) --e;
  int b = e;
  while (b > 0 && sPrototype.at(b - 1) != QLatin1Char(' ')) --b;
  return sPrototype.mid(b, e - b);
}

QString GetCommandName(int Id) { return ValidId(Id) ? RowInfo()[Id].sName : QString(); }

int GetParamCount(int Id) { return ValidId(Id) ? RowInfo()[Id].NumParams : 0; }

bool IsTextParam(int Id, int Index) {
  if (!ValidId(Id)) return false;
  const auto& t = RowInfo()[Id].TextParams;
  return Index >= 0 && Index < t.size() && t[Index];
}

QStringList SplitCommandArgs(const QString& sText) {
  QString sInner;
  QChar Sep;
  const int Open = sText.indexOf(QLatin1Char('('));
  if (Open >= 0) {
    const int Close = sText.lastIndexOf(QLatin1Char(')'));
    if (Close <= Open + 1) return {};
    sInner = sText.mid(Open + 1, Close - Open - 1);
    Sep = QLatin1Char(',');
  } else {
    const int Blank = sText.indexOf(QLatin1Char(' '));
    if (Blank < 0) return {};
    sInner = sText.mid(Blank + 1).trimmed();
    Sep = QLatin1Char(' ');
  }
  if (sInner.trimmed().isEmpty()) return {};
  bool InQuotes = false;
  for (qsizetype i = 0; i < sInner.size(); ++i) {
    if (sInner[i] == QLatin1Char('"')) InQuotes = !InQuotes;
    else if (InQuotes && sInner[i] == Sep) sInner[i] = QLatin1Char('^');
  }
  const QStringList Parts = sInner.split(Sep, Sep == QLatin1Char(' ') ? Qt::SkipEmptyParts : Qt::KeepEmptyParts);
  QStringList Out;
  for (QString p : Parts) {
    p.replace(QLatin1Char('^'), Sep);
    Out.append(StripOneQuotePair(p.trimmed()));
  }
  if (Out.size() == 1 && Out.first().compare(QLatin1String("void"), Qt::CaseInsensitive) == 0) return {};
  return Out;
}

int FindCommand(const QString& sName, int NumArgs) {
  if (sName.isEmpty()) return -1;
  const QString sAlias = GetCommandAlias(sName);
  QMap<int, int> Candidates;
  for (int i = 0; i < ACTION_COUNT; ++i) {
    const QString& n = RowInfo()[i].sName;
    if (n.isEmpty()) continue;
    if (n.compare(sName, Qt::CaseInsensitive) == 0 || (!sAlias.isEmpty() && n.compare(sAlias, Qt::CaseInsensitive) == 0))
      Candidates.insert(RowInfo()[i].NumParams, i);
  }
  if (Candidates.isEmpty()) return -1;
  if (NumArgs >= 0 && Candidates.contains(NumArgs)) return Candidates.value(NumArgs);
  return Candidates.last();
}

int ParseCommandLineText(const QString& sText) {
  const QString sName = GetCommandName(sText.trimmed());
  if (sName.isEmpty()) return -1;
  const QStringList Args = SplitCommandArgs(sText.trimmed());
  const int Id = FindCommand(sName, int(Args.size()));
  if (Id < 0) return -1;
  SetData(Id, Args.isEmpty() ? QVariant() : QVariant(Args));
  if (ValidId(Id)) {
    if (QAction* a = ActionOf(Id)) a->setWhatsThis(QString());
    else g_asError[Id].clear();
  }
  return Id;
}

// ---------------------------------------------------------------- linking

void LinkActions(QObject* pWindow) {
  if (!pWindow) return;
  static QHash<QString, int> ByName;
  if (ByName.isEmpty()) {
    for (int i = 0; i < ACTION_COUNT; ++i) ByName.insert(QString::fromLatin1(g_aActionTable[i].ActionName).toLower(), i);
  }
  const QList<QAction*> Actions = pWindow->findChildren<QAction*>();
  for (QAction* a : Actions) {
    const QString sName = a->objectName();
    const int Id = ByName.value(sName.toLower(), -1);
    if (Id < 0) {
      if (!sName.isEmpty() && !g_Unlinked.contains(sName)) g_Unlinked.append(sName);
      continue;
    }
    ACTION_DESC& Row = g_aActionTable[Id];
    const QString sShortcut = QString::fromLatin1(Row.Shortcut);
    QList<QKeySequence> Keys;
    if (!sShortcut.isEmpty()) {
      Keys.append(QKeySequence(sShortcut, QKeySequence::PortableText));
      const QString sAlt = GetShortcutAlias(sShortcut);
      if (!sAlt.isEmpty()) Keys.append(QKeySequence(sAlt, QKeySequence::PortableText));
    }
    a->setShortcuts(Keys);
    a->setStatusTip(QString::fromUtf8(Row.Description));
    QString sTip = QString::fromUtf8(Row.ToolTip);
    if (!a->shortcut().isEmpty()) sTip += QStringLiteral(" (") + a->shortcut().toString(QKeySequence::PortableText) + QLatin1Char(')');
    a->setToolTip(sTip);
    // The state collected before linking moves into the action.
    if (!Row.Action) {
      if (g_aArgs[Id].isValid()) a->setData(g_aArgs[Id]);
      g_aArgs[Id] = QVariant();
    }
    Row.Action = a;
    g_ActionIds.insert(a, Id);
    a->setProperty(kEnabledProperty, a->isEnabled());
  }
}

void UnlinkActions(QObject* pWindow) {
  if (!pWindow) return;
  for (QAction* a : pWindow->findChildren<QAction*>()) {
    const int Id = g_ActionIds.value(a, -1);
    if (Id < 0) continue;
    g_ActionIds.remove(a);
    if (g_aActionTable[Id].Action == a) g_aActionTable[Id].Action = nullptr;
  }
}

QStringList GetUnlinkedActionNames() { return g_Unlinked; }

void SetCommandEnabled(int Id, bool On) {
  if (!ValidId(Id)) return;
  if (QAction* a = ActionOf(Id)) a->setProperty(kEnabledProperty, On);
  g_aEnabled[Id] = On;
}

bool IsCommandEnabled(int Id) {
  QAction* a = ActionOf(Id);
  if (!a) return false;
  const QVariant v = a->property(kEnabledProperty);
  return v.isValid() ? v.toBool() : a->isEnabled();
}

void SetActionEnabled(int Id, bool On) {
  if (QAction* a = ActionOf(Id)) a->setEnabled(On);
  SetCommandEnabled(Id, On);
}

// ---------------------------------------------------------------- calling

void SetActionArgs(int Id, const QStringList& Args) { SetData(Id, Args.isEmpty() ? QVariant() : QVariant(Args)); }

QStringList GetActionArgs(int Id) {
  const QVariant v = GetData(Id);
  return v.typeId() == QMetaType::QStringList ? v.toStringList() : QStringList();
}

void ClearAction(int Id) {
  if (!ValidId(Id)) return;
  SetData(Id, QVariant());
  if (QAction* a = ActionOf(Id)) a->setWhatsThis(QString());
  g_asError[Id].clear();
}

void SetActionNoEcho(int Id) { SetData(Id, QVariant(int(0))); }

void SetActionError(int Id, const QString& sText, const QString& sDetail) {
  if (!ValidId(Id)) return;
  QString s = sText;
  if (GetParamCount(Id) > 1 && !sDetail.isEmpty()) s += QStringLiteral(": ") + sDetail;
  if (QAction* a = ActionOf(Id)) a->setWhatsThis(s);
  else g_asError[Id] = s;
}

QString GetActionError(int Id) {
  if (!ValidId(Id)) return QString();
  if (QAction* a = ActionOf(Id)) return a->whatsThis();
  return g_asError[Id];
}

void SetActionResult(int Id, I64 Result) { g_Results.insert(Id, Result); }
I64 GetActionResult(int Id) { return g_Results.value(Id, 0); }

int TriggerAction(int Id) {
  if (!ValidId(Id)) return -1;
  QAction* a = ActionOf(Id);
  if (!a || !IsCommandEnabled(Id)) {
    QString sName = GetCommandName(Id);
    if (sName.isEmpty()) sName = QString::fromLatin1(g_aActionTable[Id].ActionName);
    PrintError(sName + QStringLiteral(": Command disabled"));
    return -1;
  }
  // Emitted directly so that a greyed menu item does not stop a command: the
  // command flag is what counts for console and script.
  emit a->triggered(false);
  return 0;
}

I64 ExecAction(int Id, const QVariant& A0, const QVariant& A1, const QVariant& A2, const QVariant& A3,
               const QVariant& A4, const QVariant& A5, const QVariant& A6, const QVariant& A7) {
  if (Id < 0 || Id >= ACTION_COUNT) return -1;
  SetActionArgs(Id, ArgsFromVariants({&A0, &A1, &A2, &A3, &A4, &A5, &A6, &A7}));
  if (TriggerAction(Id) != 0) {
    ClearAction(Id);
    return -1;
  }
  return GetActionResult(Id);
}

void ExecActionLogged(int Id, const QVariant& A0, const QVariant& A1, const QVariant& A2, const QVariant& A3,
                      const QVariant& A4, const QVariant& A5, const QVariant& A6, const QVariant& A7) {
  if (!ValidId(Id)) return;
  QStringList Args = ArgsFromVariants({&A0, &A1, &A2, &A3, &A4, &A5, &A6, &A7});
  if (!g_aActionTable[Id].KeepArgText) {
    for (QString& s : Args) {
      s.remove(QChar(0x2008));
      if (s.size() >= 2 && s.startsWith(QLatin1Char('"')) && s.endsWith(QLatin1Char('"'))) s = s.mid(1, s.size() - 2);
    }
  }
  SetActionArgs(Id, Args);
}

bool CheckArgCount(int Id, int Minimum) {
  const int n = int(GetActionArgs(Id).size());
  const int Max = GetParamCount(Id);
  const int Min = Minimum < 0 ? Max : Minimum;
  if (n < Min || n > Max) {
    SetActionError(Id, QStringLiteral("wrong parameter count"));
    return false;
  }
  return true;
}

// ---------------------------------------------------------------- rendering

QString RenderCommand(int Id, const QStringList& Args) {
  const QString sName = GetCommandName(Id);
  if (sName.isEmpty()) return QString();
  QStringList Out;
  for (int i = 0; i < Args.size(); ++i) {
    QString a = Args[i];
    if (IsTextParam(Id, i)) {
      static const QRegularExpression reLoc(QStringLiteral("^.+:[0-9]+$"));
      if (g_pSrcLocText && reLoc.match(a).hasMatch()) a = g_pSrcLocText->ToRelative(a);
      if (a.size() >= 2 && a.startsWith(QLatin1Char('"')) && a.endsWith(QLatin1Char('"'))) a = a.mid(1, a.size() - 2);
      a = QLatin1Char('"') + a + QLatin1Char('"');
    } else {
      const QString sConst = ConstantNameOf(a);
      qint64 Hz = 0;
      if (!sConst.isEmpty()) a = sConst;
      else if (ParsesAsUnsigned(a) || ParsesAsSigned(a)) { /* stays */ }
      else if (ParseFrequencyText(a, &Hz)) a = QString::number(Hz);
      else if (!IsPlainWord(a)) a = QuoteArg(a);  // a label such as "Reset & Run"
    }
    Out.append(a);
  }
  if (Out.isEmpty()) return sName + QStringLiteral("();");
  return sName + QStringLiteral(" (") + Out.join(QStringLiteral(", ")) + QStringLiteral(");");
}

QString GetCommandText(int Id) { return RenderCommand(Id, GetActionArgs(Id)); }

// ---------------------------------------------------------------- console path

int ExecuteCommand(const QString& sCommand, int* pId) {
  const QString s = sCommand.trimmed();
  if (pId) *pId = -1;
  if (s == QLatin1String("?") || s.compare(QLatin1String("help"), Qt::CaseInsensitive) == 0) {
    if (pId) *pId = AID_HELP_COMMANDS;
    TriggerAction(AID_HELP_COMMANDS);
    return 1;
  }
  auto Unknown = [&] {
    QString t = sCommand;
    t.remove(QLatin1Char(';'));
    PrintError(t.trimmed() + QStringLiteral(": unknown command. Type ? or help for a list of available commands."));
  };
  if (s.isEmpty()) {
    Unknown();
    return 0;
  }
  const int Id = ParseCommandLineText(s);
  if (Id < 0) {
    Unknown();
    return 0;
  }
  if (pId) *pId = Id;
  if (!IsCommandEnabled(Id)) {
    PrintError(GetCommandName(Id) + QStringLiteral(": Command disabled"));
    ClearAction(Id);
    return 2;
  }
  TriggerAction(Id);
  return 1;
}

QStringList GetHelpLines() {
  QMap<QString, int> Rows;
  for (int i = 0; i < ACTION_COUNT; ++i) {
    const ACTION_DESC& r = g_aActionTable[i];
    if (r.Action && r.IsListed && !RowInfo()[i].sName.isEmpty()) Rows.insert(RowInfo()[i].sName, i);
  }
  auto Line = [](const QString& a, const QString& b, const QString& c, const QString& d) {
    QString s = a.leftJustified(29);
    if (s.size() > 29) s += QLatin1Char(' ');
    s += b;
    s = s.leftJustified(56);
    if (s.size() > 56 && !s.endsWith(QLatin1Char(' '))) s += QLatin1Char(' ');
    s += c;
    s = s.leftJustified(76);
    if (s.size() > 76 && !s.endsWith(QLatin1Char(' '))) s += QLatin1Char(' ');
    return s + d;
  };
  QStringList Out;
  Out.append(Line(QStringLiteral("Command"), QStringLiteral("Arguments"), QStringLiteral("Hotkey"), QStringLiteral("Description")));
  for (auto it = Rows.cbegin(); it != Rows.cend(); ++it) {
    const ACTION_DESC& r = g_aActionTable[it.value()];
    Out.append(Line(it.key(), QString::fromUtf8(r.ArgHint), QString::fromLatin1(r.Shortcut).trimmed(),
                    QString::fromUtf8(r.Description).trimmed()));
  }
  return Out;
}

// ---------------------------------------------------------------- hooks

// The log commands decide about their own echo: a successful call shows only
// its text, a failed one its statement and error. Their echo therefore waits
// for the slot.
static bool EchoesAfterSlot(int Id) {
  return g_aActionTable[Id].EchoAfter || Id == AID_UTIL_LOG || Id == AID_UTIL_LOG_HEX;
}

void OnActionTriggered(QAction* pAction) {
  const int Id = GetActionId(pAction);
  if (Id < 0) return;
  const ACTION_DESC& r = g_aActionTable[Id];
  if (EchoesAfterSlot(Id)) return;
  const QString s = GetCommandText(Id);
  if (s.isEmpty()) {
    ClearAction(Id);
    return;
  }
  if (r.IsListed) ConsolePrintLine(s, 0, false, CommandColorId());
}

void OnActionPerformed(QAction* pAction) {
  const int Id = GetActionId(pAction);
  if (Id < 0) return;
  const ACTION_DESC& r = g_aActionTable[Id];
  if (IsNoEcho(pAction->data())) {
    ClearAction(Id);
    return;
  }
  const QString s = GetCommandText(Id);
  if (!s.isEmpty()) {
    if (EchoesAfterSlot(Id) && r.IsListed) ConsolePrintLine(s, 0, false, CommandColorId());
    const QString sError = GetActionError(Id);
    if (!sError.isEmpty()) {
      QString t = s;
      t.remove(QLatin1Char(';'));
      PrintError(t + QStringLiteral(": ") + sError);
    }
  }
  ClearAction(Id);
}

void ConnectAction(QAction* pAction, QObject* pContext, const std::function<void()>& Slot) {
  QObject::connect(pAction, &QAction::triggered, pContext, [pAction] { OnActionTriggered(pAction); });
  QObject::connect(pAction, &QAction::triggered, pContext, [Slot] { Slot(); });
  QObject::connect(pAction, &QAction::triggered, pContext, [pAction] { OnActionPerformed(pAction); });
}

int GetCommandErrorCount() { return g_ErrorCount; }

int CommandColorId() { return COLOR_LOGGING_USER; }
int ErrorColorId() { return COLOR_LOGGING_ERROR; }
int ScriptColorId() { return COLOR_LOGGING_SCRIPT; }

// ---------------------------------------------------------------- slots

namespace {
QHash<int, COMMAND_SLOT> g_Slots;
std::function<void(int)> g_Waiter;
}  // namespace

void SetCommandSlot(int Id, const COMMAND_SLOT& Slot) {
  if (!ValidId(Id)) return;
  if (Slot) g_Slots.insert(Id, Slot);
  else g_Slots.remove(Id);
}

COMMAND_SLOT GetCommandSlot(int Id) { return g_Slots.value(Id); }

void RunCommandSlot(int Id) {
  if (!ValidId(Id)) return;
  if (COMMAND_SLOT s = g_Slots.value(Id)) {
    s(Id);
    return;
  }
  if (!CheckArgCount(Id, 0)) return;
  SetActionError(Id, QStringLiteral("not implemented yet"));
}

void SetCommandWaiter(const std::function<void(int Id)>& Waiter) { g_Waiter = Waiter; }

void WaitForCommand(int Id) {
  if (g_Waiter) g_Waiter(Id);
}
