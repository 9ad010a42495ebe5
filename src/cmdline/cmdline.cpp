#include "cmdline/cmdline.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>

namespace {

enum VALUE_RULE { VALUE_NONE, VALUE_OPTIONAL, VALUE_REQUIRED };

struct OPTION {
  const char* sName;
  VALUE_RULE Rule;
  bool IsPath;
};

// Compared in this order, case-insensitively, after the leading "-" are gone.
const OPTION kOptions[] = {
    {"device", VALUE_REQUIRED, false},     {"select", VALUE_REQUIRED, false},
    {"usb", VALUE_OPTIONAL, false},        {"ip", VALUE_OPTIONAL, false},
    {"if", VALUE_REQUIRED, false},         {"speed", VALUE_REQUIRED, false},
    {"datafile", VALUE_REQUIRED, true},    {"programfile", VALUE_REQUIRED, true},
    {"project", VALUE_REQUIRED, true},     {"kestrel", VALUE_NONE, false},
    {"logfile", VALUE_REQUIRED, true},     {"loginterval", VALUE_REQUIRED, false},
    {"debug", VALUE_NONE, false},          {"vordenscriptfile", VALUE_REQUIRED, false},
    {"jtagconfig", VALUE_REQUIRED, false}, {"batch", VALUE_REQUIRED, false},
    {"batchtimelimit", VALUE_REQUIRED, false},
    {"dap", VALUE_NONE, false},            {"dapport", VALUE_REQUIRED, false},
};

const char* const kBatchUsage = "batch mode needs a file: -batch FILE, or -batch - for standard input";

QString CleanValue(QString s) {
  if (s.startsWith(QLatin1Char('"'))) s.remove(0, 1);
  if (s.endsWith(QLatin1Char('"'))) s.chop(1);
  return s.trimmed();
}

QString NormalisePath(QString s) {
  s.replace(QLatin1Char('\\'), QLatin1Char('/'));
  while (s.contains(QLatin1String("//"))) s.replace(QLatin1String("//"), QLatin1String("/"));
  return QDir::cleanPath(s);
}

void ApplyOption(CMDLINE_OPTIONS& o, const QString& sName, bool HasValue, const QString& sRawValue) {
  for (const OPTION& opt : kOptions) {
    if (sName.compare(QLatin1String(opt.sName), Qt::CaseInsensitive) != 0) continue;
    if (opt.Rule == VALUE_REQUIRED && !HasValue) {
      // A batch run without its file must not fall back to the window.
      if (QLatin1String(opt.sName) == QLatin1String("batch")) {
        o.IsBatch = true;
        o.BatchError = QLatin1String(kBatchUsage);
      }
      return;
    }
    QString v = HasValue ? CleanValue(sRawValue) : QString();
    if (opt.IsPath && HasValue) v = NormalisePath(v);
    const QString n = QLatin1String(opt.sName);
    if (n == QLatin1String("device")) o.Device = v;
    else if (n == QLatin1String("select")) {
      // "USB=123" acts as "-usb 123", "IP=host" as "-ip host".
      const QString s = v.toLower();
      const int Eq = s.indexOf(QLatin1Char('='));
      if (Eq < 0) ApplyOption(o, s, false, QString());
      else ApplyOption(o, s.left(Eq), true, s.mid(Eq + 1));
    } else if (n == QLatin1String("usb") || n == QLatin1String("ip")) {
      o.HostIF = n.toUpper();
      if (HasValue) o.HostID = v;
    } else if (n == QLatin1String("if")) o.TargetIF = v;
    else if (n == QLatin1String("speed")) o.Speed = v;
    else if (n == QLatin1String("datafile") || n == QLatin1String("programfile")) o.ProgramFile = v;
    else if (n == QLatin1String("project")) o.ProjectFile = v;
    else if (n == QLatin1String("kestrel")) {
      o.Device = QStringLiteral("MK66FN2M0XXX18");
      o.TargetIF = QStringLiteral("SWD");
      o.Speed = QStringLiteral("2000");
    } else if (n == QLatin1String("logfile")) o.LogFile = v;
    else if (n == QLatin1String("loginterval")) o.LogInterval = v;
    else if (n == QLatin1String("debug")) o.DebugMode = true;
    else if (n == QLatin1String("vordenscriptfile")) o.VordenScriptFile = v;
    else if (n == QLatin1String("jtagconfig")) o.JTAGConfig = v;
    else if (n == QLatin1String("batch")) {
      o.IsBatch = true;
      o.BatchFile = v;
      if (v.isEmpty()) o.BatchError = QLatin1String(kBatchUsage);
    } else if (n == QLatin1String("batchtimelimit")) {
      bool ok = false;
      const int Seconds = v.toInt(&ok);
      if (ok && Seconds >= 0) o.BatchTimeLimitS = Seconds;
    } else if (n == QLatin1String("dap")) o.IsDap = true;
    else if (n == QLatin1String("dapport")) {
      bool ok = false;
      const int Port = v.toInt(&ok);
      o.IsDap = true;
      o.DapPort = ok && Port > 0 && Port < 65536 ? Port : -1;
    }
    return;
  }
}

}  // namespace

CMDLINE_OPTIONS ParseCmdLine(const QStringList& Args) {
  CMDLINE_OPTIONS o;
  for (int i = 1; i < Args.size(); ++i) {
    const QString& a = Args[i];
    if (!a.startsWith(QLatin1Char('-'))) continue;
    QString sName = a;
    while (sName.startsWith(QLatin1Char('-'))) sName.remove(0, 1);
    // "-batch=FILE": the value stands in the same argument.
    const int Eq = sName.indexOf(QLatin1Char('='));
    if (Eq > 0 && sName.left(Eq).compare(QLatin1String("batch"), Qt::CaseInsensitive) == 0) {
      const QString v = sName.mid(Eq + 1);
      ApplyOption(o, QStringLiteral("batch"), !v.isEmpty(), v);
      continue;
    }
    const bool HasNext = i + 1 < Args.size();
    bool HasValue = HasNext && !Args[i + 1].startsWith(QLatin1Char('-'));
    // "-batch -" reads the commands from standard input.
    if (HasNext && sName.compare(QLatin1String("batch"), Qt::CaseInsensitive) == 0 && Args[i + 1] == QLatin1String("-"))
      HasValue = true;
    ApplyOption(o, sName, HasValue, HasValue ? Args[i + 1] : QString());
  }
  return o;
}

CMDLINE_OPTIONS ParseCmdLine() { return ParseCmdLine(QCoreApplication::arguments()); }

CMDLINE_OPTIONS& GetCmdLineOptions() {
  static CMDLINE_OPTIONS o;
  return o;
}

// ---------------------------------------------------------------- identity

QString AppOrganisation() { return QStringLiteral("MARLEK"); }
QString AppName() { return QStringLiteral("Tavit"); }
QString AppLongTitle() { return AppName() + QStringLiteral(" - The Vorden Debugger"); }

QString VersionText(int Major, int Minor, int Revision) {
  QString s = QStringLiteral("V%1.%2").arg(Major).arg(Minor, 2, 10, QLatin1Char('0'));
  if (Revision >= 1 && Revision <= 26) s += QChar(QLatin1Char('a').unicode() + Revision - 1);
  else if (Revision > 26) s += QStringLiteral("z%1").arg(Revision - 26, 2, 10, QLatin1Char('0'));
  return s;
}

QString AppVersionText() { return VersionText(2, 60, 0); }
QString AppTitle() { return AppName() + QLatin1Char(' ') + AppVersionText(); }

QString BuildDateText() {
  const QFileInfo fi(QCoreApplication::applicationFilePath());
  return fi.birthTime().isValid() ? fi.birthTime().toString(Qt::ISODate).left(10)
                                  : fi.lastModified().toString(Qt::ISODate).left(10);
}

// ---------------------------------------------------------------- directories

QString InstallDir() {
  static const QString s = [] {
    QString d = QCoreApplication::applicationDirPath();
    if (d.isEmpty()) d = QDir::currentPath();
    d = QFileInfo(d).canonicalFilePath();
    return d.endsWith(QLatin1Char('/')) ? d : d + QLatin1Char('/');
  }();
  return s;
}
QString ConfigDir() { return InstallDir() + QStringLiteral("Config/"); }
QString LibraryDir() { return InstallDir() + QStringLiteral("Lib/"); }
QString PeripheralsDir() { return ConfigDir() + QStringLiteral("Peripherals/"); }
QString DocumentationDir() { return InstallDir() + QStringLiteral("Doc/"); }
QString PluginDir() { return InstallDir() + QStringLiteral("Plugins/"); }
QString WorkingDir() { return QDir::currentPath(); }

QString DefaultDirForFile(const QString& sFilePath, int Kind) {
  const QFileInfo fi(sFilePath);
  if (!sFilePath.isEmpty() && fi.exists()) return fi.absolutePath() + QLatin1Char('/');
  const QString sSuffix = fi.suffix().toLower();
  if (Kind == FILE_KIND_PERIPHERALS) return PeripheralsDir();
  if (Kind == FILE_KIND_DOCUMENT || sSuffix == QLatin1String("txt") || sSuffix == QLatin1String("pdf") ||
      sSuffix == QLatin1String("html"))
    return DocumentationDir();
  if (Kind == FILE_KIND_PLUGIN) return PluginDir();
  return InstallDir();
}
