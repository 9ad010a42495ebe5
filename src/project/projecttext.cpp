#include "project/projecttext.h"

#include "commands/actions.h"

#include <QRegularExpression>
#include <QFile>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace ProjectText {

namespace {
const IEventTextSource* g_pEventText = nullptr;
IFileCommitGuard* g_pCommitGuard = nullptr;
}  // namespace

void SetEventTextSource(const IEventTextSource* pSource) { g_pEventText = pSource; }
void SetFileCommitGuard(IFileCommitGuard* pGuard) { g_pCommitGuard = pGuard; }

const char* const kDialogMarker = "  //\n  // Dialog-generated settings\n  //\n";
const char* const kUserMarker = "  //\n  // User settings\n  //\n";

namespace {

// clang-format off
const EVENT_ROW kEvents[EVENT_COUNT] = {
  {1, "void OnProjectLoad (void);", "Project load routine. Required."},
  {2, "void TargetReset (void);", "Replaces the default target device reset routine. Optional."},
  {3, "void BeforeTargetReset (void);", "Event handler routine. Optional."},
  {4, "void AfterTargetReset (void);", "Event handler routine."},
  {5, "void DebugStart (void);", "Replaces the default debug session startup routine. Optional."},
  {6, "void TargetConnect (void);", "Replaces the default target IF connection routine. Optional."},
  {7, "void BeforeTargetConnect (void);", "Event handler routine. Optional."},
  {8, "void AfterTargetConnect (void);", "Event handler routine. Optional."},
  {9, "void TargetDownload (void);", "Replaces the default program download routine. Optional."},
  {10, "void BeforeTargetDownload (void);", "Event handler routine. Optional."},
  {11, "void AfterTargetDownload (void);", "Event handler routine."},
  {12, "void BeforeTargetDisconnect (void);", "Event handler routine. Optional."},
  {13, "void AfterTargetDisconnect (void);", "Event handler routine. Optional."},
  {14, "void AfterTargetHalt (void);", "Event handler routine. Optional."},
  {15, "void BeforeTargetResume (void);", "Event handler routine. Optional."},
};

// Commands written by the settings dialogs: probe, trace, system variables
// (the commands that set a variable, and Edit.SysVar), memory map, others.
const char* const kDialogCommands[] = {
  "Project.SetCorePlugin", "Project.SetDevice", "Project.SetHostIF", "Project.SetTargetIF",
  "Project.SetTIFSpeed", "Project.SetJTAGConfig", "Target.SetEndianess",
  "Project.SetTraceSource", "Project.SetTraceTiming", "Project.SetTraceFile", "Project.SetTracePortWidth",
  "Project.ConfigSWO", "Edit.SysVar",
  "Debug.SetResetMode", "Debug.SetConnectMode", "Project.SetSemihosting", "Project.SetLVT",
  "Target.SetAccessWidth", "Project.SetBPType", "Project.SetMemZoneRunning",
  "Target.AddMemorySegment",
  "Project.AddSvdFile", "Project.AddPathSubstitute",
};
// clang-format on

constexpr int kCommentWidth = 70;

QString Pad(const QString& s) { return s.leftJustified(kCommentWidth, QLatin1Char(' ')); }

// The command name of a statement: the dotted word in front of its first "(".
QString StatementCommand(const QString& sStatement) {
  static const QRegularExpression re(QStringLiteral("([A-Za-z_][A-Za-z0-9_.]*)\\s*\\("));
  const auto m = re.match(sStatement);
  return m.hasMatch() ? m.captured(1) : QString();
}

// Removes // and /* */ comments; string literals are kept as they are.
QString StripComments(const QString& s) {
  QString out;
  out.reserve(s.size());
  for (qsizetype i = 0; i < s.size(); ++i) {
    const QChar c = s[i];
    if (c == QLatin1Char('"')) {
      qsizetype j = i + 1;
      while (j < s.size() && s[j] != QLatin1Char('"') && s[j] != QLatin1Char('\n')) {
        if (s[j] == QLatin1Char('\\')) ++j;
        ++j;
      }
      out += s.mid(i, j - i + 1);
      i = j;
    } else if (c == QLatin1Char('/') && i + 1 < s.size() && s[i + 1] == QLatin1Char('/')) {
      while (i < s.size() && s[i] != QLatin1Char('\n')) ++i;
      out += QLatin1Char('\n');
    } else if (c == QLatin1Char('/') && i + 1 < s.size() && s[i + 1] == QLatin1Char('*')) {
      const qsizetype e = s.indexOf(QLatin1String("*/"), i + 2);
      i = e < 0 ? s.size() : e + 1;
      out += QLatin1Char(' ');
    } else {
      out += c;
    }
  }
  return out;
}

// Finds three lines "//", "// <Title>", "//" (compared trimmed) from line
// From on; returns the index of the first of them or -1.
int FindMarker(const QStringList& Lines, const QString& sTitle, int From = 0) {
  const QString sMid = QStringLiteral("// ") + sTitle;
  for (int i = From; i + 2 < Lines.size(); ++i) {
    if (Lines[i].trimmed() == QLatin1String("//") && Lines[i + 1].trimmed() == sMid &&
        Lines[i + 2].trimmed() == QLatin1String("//"))
      return i;
  }
  return -1;
}

QString Indent(const QString& s) {
  const QString t = s.trimmed();
  return t.isEmpty() ? QString() : QStringLiteral("  ") + t;
}

// Merges Commands into the lines [First, Last) of Lines.
void MergeSection(QStringList& Lines, int First, int Last, const QStringList& Commands, bool Replace) {
  QStringList Old;
  for (int i = First; i < Last; ++i) Old.append(Lines[i]);
  // Trailing empty lines of a section stay behind the new commands.
  while (!Old.isEmpty() && Old.last().trimmed().isEmpty()) Old.removeLast();
  QStringList New;
  for (const QString& c : Commands) New.append(Indent(c));
  QStringList Section;
  if (Replace) Section = New + Old;
  else Section = Old + New;
  for (QString& s : Section) s = Indent(s);
  // Keep the blank lines that ended the section.
  for (int i = First + int(Old.size()); i < Last; ++i) Section.append(Lines[i]);
  Lines = Lines.mid(0, First) + Section + Lines.mid(Last);
}

}  // namespace

const EVENT_ROW* GetEventRow(int Id) {
  if (Id < 1 || Id > EVENT_COUNT) return nullptr;
  return &kEvents[Id - 1];
}

QString FunctionName(const QString& sPrototype) {
  const qsizetype p = sPrototype.indexOf(QLatin1Char('('));
  if (p < 0) return QString();
  static const QRegularExpression re(QStringLiteral("([A-Za-z_][A-Za-z0-9_]*)\\s*$"));
  const auto m = re.match(sPrototype.left(p));
  return m.hasMatch() ? m.captured(1) : QString();
}

QString EventName(int Id) {
  const EVENT_ROW* r = GetEventRow(Id);
  return r ? FunctionName(QString::fromLatin1(r->Prototype)) : QString();
}

QString EventCommentBlock(int Id) {
  const EVENT_ROW* r = GetEventRow(Id);
  if (!r) return QString();
  QStringList L;
  L << QStringLiteral("/") + QString(kCommentWidth - 1, QLatin1Char('*'));
  L << QStringLiteral("*");
  const int Gap = (Id == EVENT_TARGET_RESET || Id == EVENT_AFTER_TARGET_DOWNLOAD) ? 6 : 7;
  L << QStringLiteral("*") + QString(Gap, QLatin1Char(' ')) + EventName(Id);
  L << QStringLiteral("*");
  L << QStringLiteral("* Function description");
  L << QStringLiteral("*   ") + QString::fromLatin1(r->Description);
  if (Id == EVENT_AFTER_TARGET_RESET || Id == EVENT_AFTER_TARGET_DOWNLOAD) {
    L << QStringLiteral("*   - Sets the PC register to program reset value.");
    L << QStringLiteral("*   - Sets the SP register to program reset value on Cortex-M.");
  }
  if (Id == EVENT_TARGET_RESET) {
    L << QStringLiteral("*   This example demonstrates the usage when");
    L << QStringLiteral("*   debugging a RAM program on a Cortex-M target device");
  }
  L << QStringLiteral("*");
  L << QString(kCommentWidth, QLatin1Char('*'));
  QString s;
  for (const QString& l : L) s += Pad(l) + QLatin1Char('\n');
  s += QStringLiteral("*/\n");
  return s;
}

QString EventDefaultBody(int Id, const QString& sPluginText) {
  const QString sName = EventName(Id);
  if (sName.isEmpty()) return QString();
  if (!sPluginText.isEmpty())
    return QStringLiteral("void ") + sName + QStringLiteral(" (void) {\n") + sPluginText.left(10000) +
           QStringLiteral("\n}\n");
  QStringList L;
  L << QStringLiteral("void ") + sName + QStringLiteral(" (void) {");
  if (Id == EVENT_TARGET_RESET || Id == EVENT_AFTER_TARGET_DOWNLOAD) {
    L << QStringLiteral("  unsigned int SP;") << QStringLiteral("  unsigned int PC;")
      << QStringLiteral("  unsigned int VectorTableAddr;") << QString();
    if (Id == EVENT_TARGET_RESET) L << QStringLiteral("  Exec.Reset();");
    L << QStringLiteral("  VectorTableAddr = Elf.GetBaseAddr();");
    L << QStringLiteral("  if (VectorTableAddr != 0xFFFFFFFF) {");
    L << QStringLiteral("    Util.Log(\"") +
             (Id == EVENT_TARGET_RESET ? QStringLiteral("Resetting Program.") : QStringLiteral("Initializing PC and SP.")) +
             QStringLiteral("\");");
    L << QStringLiteral("    SP = Target.ReadU32(VectorTableAddr);") << QStringLiteral("    Target.SetReg(\"SP\", SP);")
      << QStringLiteral("    PC = Target.ReadU32(VectorTableAddr + 4);") << QStringLiteral("    Target.SetReg(\"PC\", PC);");
    L << QStringLiteral("  }");
  }
  L << QStringLiteral("}");
  QString s;
  for (const QString& l : L) s += QStringLiteral("//") + l + QLatin1Char('\n');
  return s;
}

QString BuildProjectText(const QStringList& Commands) {
  QString s;
  for (int Id = 1; Id <= EVENT_COUNT; ++Id) {
    if (Id > 1) s += QLatin1Char('\n');
    s += EventCommentBlock(Id);
    if (Id != EVENT_ON_PROJECT_LOAD) {
      s += EventDefaultBody(Id, g_pEventText ? g_pEventText->EventDefaultText(Id) : QString());
      continue;
    }
    s += QStringLiteral("void OnProjectLoad (void) {\n");
    s += QLatin1String(kDialogMarker);
    QString sOpen;
    for (const QString& c : Commands) {
      if (sOpen.isEmpty() && c.contains(QLatin1String("File.Open"))) {
        sOpen = c;
        continue;
      }
      s += QStringLiteral("  ") + c.trimmed() + QLatin1Char('\n');
    }
    s += QLatin1String(kUserMarker);
    if (!sOpen.isEmpty()) s += QStringLiteral("  ") + sOpen.trimmed() + QLatin1Char('\n');
    s += QStringLiteral("}\n");
  }
  return s;
}

bool FindFunctionBody(const QString& sText, const QString& sName, qsizetype* pStart, qsizetype* pEnd) {
  const qsizetype n = sText.indexOf(sName);
  if (n < 0) return false;
  const qsizetype b = sText.indexOf(QLatin1Char('{'), n + sName.size());
  if (b < 0) return false;
  qsizetype start = sText.indexOf(QLatin1Char('\n'), b);
  if (start < 0) return false;
  ++start;
  int Depth = 1;
  for (qsizetype i = b + 1; i < sText.size(); ++i) {
    const QChar c = sText[i];
    if (c == QLatin1Char('{')) ++Depth;
    else if (c == QLatin1Char('}') && --Depth == 0) {
      if (i < start) return false;  // "{ }" on one line: no body lines
      *pStart = start;
      *pEnd = i;
      return true;
    }
  }
  return false;
}

bool IsDialogCommand(const QString& sCommand) {
  const QString s = sCommand.trimmed();
  for (const char* n : kDialogCommands) {
    if (s.startsWith(QLatin1String(n), Qt::CaseInsensitive)) {
      const qsizetype l = qsizetype(strlen(n));
      // "Project.SetTraceSource" must not match "Project.SetTrace...".
      if (s.size() == l || !(s[l].isLetterOrNumber() || s[l] == QLatin1Char('_'))) return true;
    }
  }
  return false;
}

QString RemovePatternFor(const QString& sCommand) {
  const QString sName = StatementCommand(sCommand);
  if (sName.isEmpty()) return QString();
  if (sName.compare(QLatin1String("Edit.SysVar"), Qt::CaseInsensitive) == 0 ||
      sName.compare(QLatin1String("Edit.Preference"), Qt::CaseInsensitive) == 0) {
    const QStringList Args = SplitCommandArgs(sCommand.trimmed());
    if (!Args.isEmpty())
      return QStringLiteral("^") + QRegularExpression::escape(sName) + QStringLiteral("\\b.*\\b") +
             QRegularExpression::escape(Args.first().trimmed()) + QStringLiteral("\\b");
  }
  return QStringLiteral("^") + QRegularExpression::escape(sName) + QStringLiteral("\\s*\\(");
}

WRITE_SETTINGS_RESULT WriteSettingsText(const QString& sText, bool Replace, const QStringList& Commands,
                                        const QStringList& NamesToRemove) {
  WRITE_SETTINGS_RESULT R;
  qsizetype Start = 0, End = 0;
  if (!FindFunctionBody(sText, QStringLiteral("OnProjectLoad"), &Start, &End)) return R;
  QString Body = sText.mid(Start, End - Start);
  const bool EndsWithLf = Body.endsWith(QLatin1Char('\n'));
  if (EndsWithLf) Body.chop(1);
  QStringList Lines = Body.isEmpty() && !EndsWithLf ? QStringList() : Body.split(QLatin1Char('\n'));
  // "}" stood behind text on the last line: that text belongs to the body.
  QString sTail;
  if (!EndsWithLf && !Lines.isEmpty()) {
    sTail = Lines.takeLast();
    if (!sTail.trimmed().isEmpty()) Lines.append(sTail);
    sTail.clear();
  }

  // 4. Old statements that the new ones replace.
  QList<QRegularExpression> Remove;
  for (const QString& n : NamesToRemove) {
    QRegularExpression re(n);
    if (re.isValid() && !n.isEmpty()) Remove.append(re);
  }
  for (int i = int(Lines.size()) - 1; i >= 0; --i) {
    const QString t = Lines[i].trimmed();
    if (t.startsWith(QLatin1String("//"))) continue;
    for (const QRegularExpression& re : Remove) {
      if (re.match(t).hasMatch()) {
        Lines.removeAt(i);
        break;
      }
    }
  }

  // 5. Dialog commands and the others.
  QStringList Dialog, User;
  for (const QString& c : Commands) (IsDialogCommand(c) ? Dialog : User).append(c);

  // 6. User settings: from behind the marker to the end of the function.
  if (!User.isEmpty()) {
    const int m = FindMarker(Lines, QStringLiteral("User settings"));
    if (m < 0) {
      R.Warnings << QStringLiteral("could not find user settings text section in script function 'OnProjectLoad'");
      MergeSection(Lines, 0, int(Lines.size()), User, Replace);
    } else {
      MergeSection(Lines, m + 3, int(Lines.size()), User, Replace);
    }
  }
  // 7. Dialog-generated settings: up to the user marker or the end.
  if (!Dialog.isEmpty()) {
    const int m = FindMarker(Lines, QStringLiteral("Dialog-generated settings"));
    const int First = m < 0 ? 0 : m + 3;
    int Last = FindMarker(Lines, QStringLiteral("User settings"), First);
    if (Last < 0) Last = int(Lines.size());
    if (m < 0)
      R.Warnings << QStringLiteral("could not find dialog-generated text section in script function 'OnProjectLoad'");
    MergeSection(Lines, First, Last, Dialog, Replace);
  }

  QString NewBody = Lines.join(QLatin1Char('\n'));
  if (!Lines.isEmpty()) NewBody += QLatin1Char('\n');
  R.sText = sText.left(Start) + NewBody + sText.mid(End);
  R.Ok = true;
  return R;
}

QStringList FindDuplicateCommands(const QString& sText) {
  QStringList Out;
  qsizetype Start = 0, End = 0;
  if (!FindFunctionBody(sText, QStringLiteral("OnProjectLoad"), &Start, &End)) return Out;
  const QString Body = StripComments(sText.mid(Start, End - Start));
  QHash<QString, int> Count;
  for (const QString& st : Body.split(QLatin1Char(';'))) {
    const QString sName = StatementCommand(st);
    if (sName.isEmpty()) continue;
    const int Id = FindCommand(sName);
    if (Id < 0 || GetActionDesc(Id)->IsRepeatable) continue;
    // Aliases count as the row's own name.
    const QString sKey = GetCommandName(Id).toLower();
    if (++Count[sKey] > 1) Out.append(st.simplified() + QLatin1Char(';'));
  }
  return Out;
}

// ---------------------------------------------------------------- user file

QString UserFilePath(const QString& sProjectPath) {
  const qsizetype Dot = sProjectPath.lastIndexOf(QLatin1Char('.'));
  if (Dot < 0) return sProjectPath + QStringLiteral(".vdebug.user");
  return sProjectPath.left(Dot + 1) + QStringLiteral("vdebug.user");
}

QString UserFileKey(const QString& sLine) {
  const qsizetype e = sLine.indexOf(QLatin1Char('='));
  return (e < 0 ? sLine : sLine.left(e)).trimmed();
}

QStringList SortUserFileLines(const QStringList& Lines) {
  QStringList Out = Lines;
  std::stable_sort(Out.begin(), Out.end(),
                   [](const QString& a, const QString& b) { return UserFileKey(a) < UserFileKey(b); });
  return Out;
}

QList<QPair<QString, QString>> ParseUserFileRecord(const QString& sLine, QStringList* pBad) {
  QList<QPair<QString, QString>> Out;
  QStringList Fields;
  QString Cur;
  bool InQuotes = false;
  for (qsizetype i = 0; i < sLine.size(); ++i) {
    const QChar c = sLine[i];
    if (c == QLatin1Char('"')) InQuotes = !InQuotes;
    if (!InQuotes && c == QLatin1Char(',') && i + 1 < sLine.size() && sLine[i + 1] == QLatin1Char(' ')) {
      Fields.append(Cur);
      Cur.clear();
      ++i;
      continue;
    }
    Cur += c;
  }
  if (!Cur.isEmpty() || !Fields.isEmpty()) Fields.append(Cur);
  for (const QString& f : Fields) {
    const qsizetype e = f.indexOf(QLatin1Char('='));
    if (e < 0) {
      if (pBad) pBad->append(f);
      continue;
    }
    QString v = f.mid(e + 1);
    if (v.size() >= 2 && v.startsWith(QLatin1Char('"')) && v.endsWith(QLatin1Char('"'))) v = v.mid(1, v.size() - 2);
    Out.append({f.left(e), v});
  }
  return Out;
}

// ---------------------------------------------------------------- files

QString TempFilePath(const QString& sPath) { return sPath + QStringLiteral(".saving"); }

bool AtomicWriteFile(const QString& sPath, const QByteArray& Data, QString* pError) {
  // Never write in place: a failure must leave the old file as it was. The
  // temporary file has a fixed name, so that one a killed save left behind
  // is replaced here rather than piling up.
  const QString sTemp = TempFilePath(sPath);
  auto Fail = [&](const QString& sReason) {
    QFile::remove(sTemp);
    if (pError) *pError = sReason;
    return false;
  };
  QFile::remove(sTemp);
  QFile f(sTemp);
  if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate)) return Fail(f.errorString());
  if (f.write(Data) != Data.size() || !f.flush()) return Fail(f.errorString());
  if (::fsync(f.handle()) != 0) return Fail(QString::fromLocal8Bit(strerror(errno)));
  f.close();
  QString sReason;
  if (g_pCommitGuard && !g_pCommitGuard->BeforeCommit(sPath, &sReason)) return Fail(sReason);
  // rename() replaces the old file in one step.
  if (::rename(QFile::encodeName(sTemp).constData(), QFile::encodeName(sPath).constData()) != 0)
    return Fail(QString::fromLocal8Bit(strerror(errno)));
  return true;
}

}  // namespace ProjectText
