#include "files/filefinder.h"

#include "cmdline/cmdline.h"
#include "elf/dwarf/line_tables.h"
#include "elf/elfapi.h"
#include "log/log.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QMutexLocker>
#include <QTimer>
#include <cstdlib>

namespace {

const char* const SOURCE_PATTERNS = "*.h *.c *.hpp *.cpp *.s";

// Steps of a resolution go to the debug log: the log file and -debug.
void Trace(const QString& sText) { LogMessage(sText, MSG_INFO | MSG_STDOUT | MSG_FILE); }

QString WithoutClosingSlash(QString s) {
  while (s.size() > 1 && s.endsWith(QLatin1Char('/'))) s.chop(1);
  return s;
}

QString DirOf(const QString& sFile) { return sFile.isEmpty() ? QString() : QFileInfo(sFile).absolutePath(); }

bool IsFile(const QString& sPath) { return !sPath.isEmpty() && QFileInfo(sPath).isFile(); }

// The macros in the order of their expansion.
const char* const MACROS[] = {"$(DocDir)",        "$(PluginDir)",  "$(ProjectDir)",
                              "$(InstallDir)",    "$(ExecutableDir)", "$(AppDir)",
                              "$(AppBundleDir)",  "$(ConfigDir)",  "$(LibraryDir)"};

QString ExecutableDir() {
  return QCoreApplication::instance() ? QCoreApplication::applicationDirPath() : WithoutClosingSlash(InstallDir());
}

QStringList ProgramSourceFiles() {
  CElfApi& Elf = CElfApi::Instance();
  QMutexLocker Lock(&Elf.Mutex());
  return Elf.IsLoaded() ? DWARF_GetProgramTables().GetSourceFiles() : QStringList();
}

}  // namespace

// ---------------------------------------------------------------- path functions

namespace FilePaths {

QString Normalise(QString s) {
  s.replace(QLatin1Char('\\'), QLatin1Char('/'));
  s.replace(QLatin1String("//"), QLatin1String("/"));
  return QDir::cleanPath(s);
}

bool HasDriveLetter(const QString& s) { return s.size() >= 2 && s[1] == QLatin1Char(':') && s[0].isLetter(); }

bool IsRelative(const QString& s) { return !HasDriveLetter(s) && QFileInfo(s).isRelative(); }

QString FileName(const QString& s) {
  const int i = std::max(s.lastIndexOf(QLatin1Char('/')), s.lastIndexOf(QLatin1Char('\\')));
  return s.mid(i + 1);
}

bool MatchesPatterns(const QString& sFileName, const QString& sPatterns) {
  const int Dot = sFileName.lastIndexOf(QLatin1Char('.'));
  if (Dot < 0) return false;
  const QString sSuffix = sFileName.mid(Dot + 1).toLower();
  for (QString p : sPatterns.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
    p.remove(QLatin1String("*."));
    if (p == sSuffix) return true;
  }
  return false;
}

QString ExpandEnvironment(const QString& sPath) {
  QString s = sPath;
  int Scan = 0;
  for (;;) {
    int Start = s.indexOf(QLatin1String("$("), Scan);
    if (Start < 0) Start = s.indexOf(QLatin1Char('%'), Scan);
    if (Start < 0) break;
    int End = -1;
    for (int i = Start + 1; i < s.size(); ++i) {
      if (s[i] == QLatin1Char(')') || s[i] == QLatin1Char('%')) {
        End = i;
        break;
      }
    }
    if (End < 0) break;
    const QString sToken = s.mid(Start, End - Start + 1);
    QString sName = sToken;
    if (sName.startsWith(QLatin1String("$("))) sName.remove(0, 2);
    else if (sName.startsWith(QLatin1Char('%')) || sName.startsWith(QLatin1Char('$'))) sName.remove(0, 1);
    if (sName.endsWith(QLatin1Char(')')) || sName.endsWith(QLatin1Char('%'))) sName.chop(1);
    sName = sName.trimmed();
    const char* pValue = sName.isEmpty() ? nullptr : std::getenv(sName.toLocal8Bit().constData());
    const QString sValue = pValue ? QString::fromLocal8Bit(pValue) : QString();
    if (sValue.isEmpty()) {
      Scan = End + 1;
    } else {
      s.replace(Start, sToken.size(), sValue);
      Scan = Start + sValue.size();
    }
  }
  return s;
}

QString Join(const QString& sDir, const QString& sRel) {
  if (sDir.endsWith(QLatin1Char('/')) || sRel.startsWith(QLatin1Char('/'))) return sDir + sRel;
  return sDir + QLatin1Char('/') + sRel;
}

}  // namespace FilePaths

using namespace FilePaths;

// ---------------------------------------------------------------- CFileFinder

CFileFinder& FileFinder() {
  static CFileFinder* p = new CFileFinder;  // lives until the process ends
  return *p;
}

CFileFinder::CFileFinder(QObject* pParent) : QObject(pParent) {
  m_pDelayTimer = new QTimer(this);
  m_pDelayTimer->setSingleShot(true);
  m_pDelayTimer->setInterval(500);
  connect(m_pDelayTimer, &QTimer::timeout, this, &CFileFinder::OnDelayTimerTimeout);
  m_SourceFiles = ProgramSourceFiles;
}

CFileFinder::FILE_CLASS CFileFinder::ClassOf(const QString& sPath) {
  const QString sName = FileName(sPath);
  if (MatchesPatterns(sName, QLatin1String(SOURCE_PATTERNS))) return FC_SOURCE;
  if (MatchesPatterns(sName, QStringLiteral("*.svd *.xml"))) return FC_REGISTER_DESC;
  if (MatchesPatterns(sName, QStringLiteral("*.dll *.so *.dylib"))) return FC_PLUGIN;
  if (MatchesPatterns(sName, QStringLiteral("*.bin *.mot *.srec *.hex *.elf *.out *.axf"))) return FC_DATA;
  if (MatchesPatterns(sName, QStringLiteral("*.vdebug"))) return FC_DATA;
  if (MatchesPatterns(sName, QStringLiteral("*.txt *.pdf *.html"))) return FC_DOCUMENT;
  if (!sName.contains(QLatin1Char('.'))) return FC_DATA;
  return FC_SOURCE;
}

void CFileFinder::OnDelayTimerTimeout() { emit SrcFileResStatsChanged(); }

void CFileFinder::ClearStats() {
  m_Resolved.clear();
  m_Unresolved.clear();
}

void CFileFinder::Reset() {
  m_Aliases.clear();
  m_Substitutes.clear();
  m_Reported.clear();
  m_SearchPaths.clear();
  m_RootPaths.clear();
  m_Silent = false;
  m_Report = true;
  ClearStats();
  emit RulesChanged();
}

void CFileFinder::RulesAdded() {
  ClearStats();
  emit RulesChanged();
}

void CFileFinder::AddRootPath(const QString& sPath) {
  QString s = Normalise(Expand(sPath));
  if (!sPath.isEmpty() && IsRelative(s)) {
    const QString r = ResolveRelative(s, false);
    if (!r.isEmpty()) s = r;
    m_Silent = false;
  }
  if (sPath.isEmpty()) s.clear();
  m_RootPaths.append(s);
  RulesAdded();
}

void CFileFinder::AddSearchPath(const QString& sPath) {
  m_SearchPaths.append(Normalise(Expand(sPath)));
  RulesAdded();
}

void CFileFinder::AddFileAlias(const QString& sOldPath, const QString& sNewPath) {
  m_Aliases.insert(Expand(sOldPath), Normalise(Expand(sNewPath)));
  RulesAdded();
}

void CFileFinder::AddPathSubstitute(const QString& sPath, const QString& sSubstitute) {
  QString a = Expand(sPath), b = Expand(sSubstitute);
  a.replace(QLatin1Char('\\'), QLatin1Char('/'));
  b.replace(QLatin1Char('\\'), QLatin1Char('/'));
  m_Substitutes.insert(a, b);
  RulesAdded();
}

QString CFileFinder::GetMacroValue(const QString& sMacro) const {
  const QString m = sMacro.toLower();
  auto Is = [&](const char* p) { return m == QLatin1String(p).toString().toLower(); };
  QString v;
  if (Is("$(DocDir)")) v = DocumentationDir();
  else if (Is("$(PluginDir)")) v = PluginDir();
  else if (Is("$(ProjectDir)")) v = m_ProjectDir ? m_ProjectDir() : QString();
  else if (Is("$(InstallDir)")) v = InstallDir();
  else if (Is("$(ExecutableDir)") || Is("$(AppBundleDir)")) v = ExecutableDir();
  else if (Is("$(AppDir)")) {
    CElfApi& Elf = CElfApi::Instance();
    QMutexLocker Lock(&Elf.Mutex());
    if (Elf.IsLoaded()) v = DirOf(Elf.GetFilePath());
  } else if (Is("$(ConfigDir)")) v = ConfigDir();
  else if (Is("$(LibraryDir)")) v = LibraryDir();
  return WithoutClosingSlash(v);
}

QString CFileFinder::Expand(const QString& sPath) const {
  QString s = sPath;
  if (s.contains(QLatin1Char('$'))) {
    for (const char* pMacro : MACROS) {
      const QLatin1String Macro(pMacro);
      if (s.contains(Macro, Qt::CaseInsensitive)) s.replace(Macro, GetMacroValue(Macro), Qt::CaseInsensitive);
    }
    if (s != sPath) Trace(QStringLiteral("FileFinder: expanded ") + sPath + QStringLiteral(" to ") + s);
  }
  return ExpandEnvironment(s);
}

QString CFileFinder::Collapse(const QString& sPath, const QString& sMacro) const {
  const QString sValue = GetMacroValue(sMacro);
  if (sValue.isEmpty()) return sPath;
  const QDir Dir(Normalise(sValue));
  for (int i = sPath.size() - 1; i > 0; --i) {
    if (sPath[i] != QLatin1Char('/') && sPath[i] != QLatin1Char('\\')) continue;
    if (QDir(sPath.left(i)) == Dir) {
      const QString r = sMacro + QLatin1Char('/') + sPath.mid(i + 1);
      Trace(QStringLiteral("FileFinder: collapsed ") + sPath + QStringLiteral(" to ") + r);
      return r;
    }
  }
  return sPath;
}

QString CFileFinder::GetAliasOrigin(const QString& sPath) const {
  for (auto it = m_Aliases.cbegin(); it != m_Aliases.cend(); ++it)
    if (it.value().compare(sPath, Qt::CaseInsensitive) == 0) return it.key();
  return sPath;
}

QString CFileFinder::ApplyAliases(const QString& sPath) const {
  if (m_Aliases.isEmpty()) return QString();
  Trace(QStringLiteral("Applying file aliases to ") + sPath);
  const QString sNorm = Normalise(sPath);
  for (auto it = m_Aliases.cbegin(); it != m_Aliases.cend(); ++it) {
    if (it.key().compare(sPath, Qt::CaseInsensitive) == 0 ||
        Normalise(it.key()).compare(sNorm, Qt::CaseInsensitive) == 0) {
      Trace(QStringLiteral("mapped ") + sPath + QStringLiteral(" to ") + it.value());
      return it.value();
    }
  }
  return QString();
}

QString CFileFinder::ApplySubstitutes(const QString& sPath) const {
  if (m_Substitutes.isEmpty()) return QString();
  Trace(QStringLiteral("Applying path substitutes in : ") + sPath);
  QString s = sPath;
  s.replace(QLatin1Char('\\'), QLatin1Char('/'));
  bool Applied = false;
  for (auto it = m_Substitutes.cbegin(); it != m_Substitutes.cend(); ++it) {
    if (it.key().isEmpty() || !s.contains(it.key(), Qt::CaseInsensitive)) continue;
    s.replace(it.key(), it.value(), Qt::CaseSensitive);
    Trace(QStringLiteral("Path substituted: ") + it.key() + QStringLiteral(" -> ") + it.value());
    Applied = true;
  }
  return Applied ? s : QString();
}

QString CFileFinder::Test(const QString& sDir, const QString& sRel) const {
  if (sDir.isEmpty()) return QString();
  const QString s = Join(sDir, sRel);
  Trace(QStringLiteral("Testing ") + s);
  return QFileInfo::exists(s) ? QDir::cleanPath(s) : QString();
}

QString CFileFinder::ResolveRelative(const QString& sRel, bool StopBeforeCurrentDir) {
  for (const QString& sRoot : m_RootPaths) {
    const QString r = Test(sRoot, sRel);
    if (!r.isEmpty()) return r;
  }
  if (m_ProjectDir) {
    const QString r = Test(m_ProjectDir(), sRel);
    if (!r.isEmpty()) {
      m_Silent = true;
      return r;
    }
  }
  const QString r = Test(GetMacroValue(QStringLiteral("$(AppDir)")), sRel);
  if (!r.isEmpty()) return r;
  if (!StopBeforeCurrentDir) return Test(QDir::currentPath(), sRel);
  return QString();
}

QString CFileFinder::SearchDirs(const QString& sName, const QStringList& Dirs, bool List) {
  if (Dirs.isEmpty()) return QString();
  Trace(QStringLiteral("Looking for ") + sName + QStringLiteral(" in search directories."));
  for (QString sDir : Dirs) {
    if (sDir.isEmpty()) continue;
    if (IsRelative(sDir)) sDir = ResolveRelative(sDir, false);
    if (sDir.isEmpty()) continue;
    QString r;
    if (!List) {
      const QString c = Normalise(sDir + QLatin1Char('/') + sName);
      if (IsFile(c)) r = c;
    } else {
      const QStringList Entries = QDir(sDir).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
      for (const QString& e : Entries) {
        if (e.compare(sName, Qt::CaseInsensitive) == 0) {
          r = Normalise(sDir + QLatin1Char('/') + e);
          break;
        }
      }
    }
    if (!r.isEmpty()) {
      Trace(QStringLiteral("Found ") + sName + QStringLiteral(" in ") + r);
      return r;
    }
  }
  return QString();
}

QString CFileFinder::SourceOfDebugInfo(const QString& sPath) const {
  if (!m_SourceFiles) return QString();
  const QString sWant = Normalise(sPath).toLower();
  if (sWant.isEmpty()) return QString();
  for (const QString& sFull : m_SourceFiles()) {
    const QString f = Normalise(sFull).toLower();
    if (FileName(f) == sWant || f == sWant || f.endsWith(QLatin1Char('/') + sWant)) return sFull;
  }
  return QString();
}

QString CFileFinder::ResolveSource(const QString& sPath) {
  Trace(QStringLiteral("Resolving source file path: ") + sPath);
  QString p = sPath;
  if (IsRelative(p)) {
    const QString r = ResolveRelative(p, true);
    if (!r.isEmpty()) {
      p = r;
    } else {
      const QString k = SourceOfDebugInfo(p);
      if (!k.isEmpty()) p = k;
    }
  }
  if (IsFile(p)) return QDir::cleanPath(p);
  return SearchDirs(FileName(sPath), m_SearchPaths, false);
}

QString CFileFinder::ResolveData(const QString& sPath, const QStringList& Dirs, bool List) {
  QString p = sPath;
  if (IsRelative(p)) {
    const QString r = ResolveRelative(p, true);
    if (!r.isEmpty()) p = r;
  }
  if (IsFile(p)) return QDir::cleanPath(p);
  return SearchDirs(FileName(sPath), Dirs, List);
}

QString CFileFinder::ResolveRegisterDesc(const QString& sPath) {
  const QString sConfig = GetMacroValue(QStringLiteral("$(ConfigDir)"));
  QStringList Dirs;
  if (!sConfig.isEmpty()) Dirs << sConfig << sConfig + QStringLiteral("/CPU") << sConfig + QStringLiteral("/Peripherals");
  Dirs << m_SearchPaths;
  const int Slash = std::max(sPath.lastIndexOf(QLatin1Char('/')), sPath.lastIndexOf(QLatin1Char('\\')));
  const int Dot = sPath.lastIndexOf(QLatin1Char('.'));
  const QString sBase = Dot > Slash ? sPath.left(Dot) : sPath;
  for (const char* pSuffix : {".svd", ".xml"}) {
    const QString r = ResolveData(sBase + QLatin1String(pSuffix), Dirs, false);
    if (!r.isEmpty()) return r;
  }
  return QString();
}

QString CFileFinder::Resolve(const QString& sPath) {
  if (sPath.isEmpty()) return QString();
  Trace(QStringLiteral("Starting to resolve: ") + sPath);
  const QString sExpanded = Expand(sPath);
  QString p = sExpanded.isEmpty() ? sPath : sExpanded;
  if (const QString s = ApplyAliases(p); !s.isEmpty()) p = s;
  if (const QString s = ApplySubstitutes(p); !s.isEmpty()) p = s;
  p = Normalise(p);
  QString r;
  if (IsFile(p)) {
    r = p;
  } else {
    switch (ClassOf(p)) {
      case FC_SOURCE: r = ResolveSource(p); break;
      case FC_REGISTER_DESC: r = ResolveRegisterDesc(p); break;
      case FC_PLUGIN: {
        const QString sPlugins = GetMacroValue(QStringLiteral("$(PluginDir)"));
        QStringList Dirs;
        if (!sPlugins.isEmpty()) Dirs << sPlugins << sPlugins + QStringLiteral("/OS") << sPlugins + QStringLiteral("/Core");
        r = ResolveData(p, Dirs + m_SearchPaths, true);
        break;
      }
      case FC_DOCUMENT: {
        QStringList Dirs = m_SearchPaths;
        Dirs << GetMacroValue(QStringLiteral("$(DocDir)")) << GetMacroValue(QStringLiteral("$(AppBundleDir)")) + QStringLiteral("/Doc");
        r = ResolveData(p, Dirs, false);
        break;
      }
      case FC_DATA: r = ResolveData(p, m_SearchPaths, false); break;
    }
  }
  Record(sPath, Normalise(sExpanded), r);
  m_Silent = false;
  return r;
}

QString CFileFinder::ResolvePlugin(const QString& sPath) {
  QString r = Resolve(sPath);
  if (!r.isEmpty() || sPath.isEmpty()) return r;
  const int Dot = sPath.lastIndexOf(QLatin1Char('.'));
  const QString sBase = Dot >= 0 ? sPath.left(Dot) : sPath;
#if defined(Q_OS_WIN)
  const QString sSuffix = QStringLiteral("dll");
#elif defined(Q_OS_MACOS)
  const QString sSuffix = QStringLiteral("dylib");
#else
  const QString sSuffix = QStringLiteral("so");
#endif
  return Resolve(sBase + QLatin1Char('.') + sSuffix);
}

void CFileFinder::Record(const QString& sOrig, const QString& sExpanded, const QString& sResolved) {
  const bool Found = IsFile(sResolved);
  if (ClassOf(sOrig) == FC_SOURCE) {
    if (Found) {
      m_Resolved.insert(sOrig);
      emit SrcFilePathResolved(sOrig, sResolved);
    } else {
      m_Unresolved.insert(sOrig);
    }
    m_pDelayTimer->start();
    return;
  }
  if (m_Reported.contains(sOrig)) return;
  if (Found) {
    // A macro written in front of a path is no relocation worth a message.
    if (sResolved == sOrig || sResolved == sExpanded || m_Silent) return;
    if (m_Report)
      LogInfo(QStringLiteral("File path resolved: \"%1\" was found at \"%2\"").arg(sOrig, sResolved));
  } else if (m_Report) {
    LogInfo(QStringLiteral("File not found: %1").arg(sOrig));
  }
  m_Reported.insert(sOrig);
}
