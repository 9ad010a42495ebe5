// CFileFinder: where on this machine is the file that a project script, a
// debug information record or a user names. A path runs through macro
// expansion, file aliases, path substitutes, root paths, search paths and the
// default directories of its file type; every step is written to the debug
// log, and the finder counts the source files it could and could not
// resolve. The rules belong to the open project: Reset empties them when a
// project closes. Used on the user interface thread only.
#pragma once
#include "common/types.h"

#include <QMap>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <functional>

class QTimer;

// The path functions the finder is made of, free of any state.
namespace FilePaths {
// "\" becomes "/", "//" becomes "/", then QDir::cleanPath.
QString Normalise(QString sPath);
// "x:" at the start, x a letter.
bool HasDriveLetter(const QString& sPath);
// No drive letter, and QFileInfo calls the path relative.
bool IsRelative(const QString& sPath);
// The part behind the last "/" or "\".
QString FileName(const QString& sPath);
// Whether the lower-cased suffix of the file name (behind its last ".") is
// one of the items of a blank-separated list such as "*.h *.c".
bool MatchesPatterns(const QString& sFileName, const QString& sPatterns);
// Environment variables written "$(NAME)", "%NAME%" or "$NAME)", each
// replaced by its value; an unset or empty one stays as it is.
QString ExpandEnvironment(const QString& sPath);
// Dir and Rel joined by exactly one "/" (none added when Dir ends in "/" or
// Rel starts with one).
QString Join(const QString& sDir, const QString& sRel);
}  // namespace FilePaths

class CFileFinder : public QObject {
  Q_OBJECT
 public:
  // What a path is taken for, by the suffix of its file name.
  enum FILE_CLASS { FC_SOURCE, FC_REGISTER_DESC, FC_PLUGIN, FC_DATA, FC_DOCUMENT };
  static FILE_CLASS ClassOf(const QString& sPath);

  explicit CFileFinder(QObject* pParent = nullptr);

  // Empties the rules and the statistics; messages are told again.
  void Reset();
  void ClearStats();
  void AddRootPath(const QString& sPath);
  void AddSearchPath(const QString& sPath);
  void AddFileAlias(const QString& sOldPath, const QString& sNewPath);
  void AddPathSubstitute(const QString& sPath, const QString& sSubstitute);

  // Macros (any case), then environment variables.
  QString Expand(const QString& sPath) const;
  // The path written with sMacro in front when it lies below the macro's
  // directory; otherwise the path itself.
  QString Collapse(const QString& sPath, const QString& sMacro) const;
  // The directory a macro stands for, without a closing "/"; empty for an
  // unknown macro or one without a value (no project, no program).
  QString GetMacroValue(const QString& sMacro) const;
  // The existing file the path names; empty when none was found.
  QString Resolve(const QString& sPath);
  // Resolve, then once more with the platform's library suffix.
  QString ResolvePlugin(const QString& sPath);
  // The old path of the first alias whose new path is sPath (any case);
  // otherwise sPath.
  QString GetAliasOrigin(const QString& sPath) const;

  // Whether found and missing non-source files are told in the console;
  // returns the setting before. Reset turns it on.
  bool SetReport(bool On) {
    const bool Old = m_Report;
    m_Report = On;
    return Old;
  }
  // The directory of the project file; the project module tells it.
  void SetProjectDirSource(std::function<QString()> Source) { m_ProjectDir = std::move(Source); }
  // The sources the debug information knows, by their full paths; the
  // program's line tables unless a caller installs another list.
  void SetSourceFileSource(std::function<QStringList()> Source) { m_SourceFiles = std::move(Source); }

  const QStringList& RootPaths() const { return m_RootPaths; }
  const QStringList& SearchPaths() const { return m_SearchPaths; }
  const QMap<QString, QString>& Aliases() const { return m_Aliases; }
  const QMap<QString, QString>& Substitutes() const { return m_Substitutes; }
  const QSet<QString>& ResolvedSources() const { return m_Resolved; }
  const QSet<QString>& UnresolvedSources() const { return m_Unresolved; }

 signals:
  void SrcFilePathResolved(QString OrigPath, QString ResolvedPath);
  void SrcFileResStatsChanged();
  // A rule was added or the rules were reset: views resolve their files again.
  void RulesChanged();

 public slots:
  void OnDelayTimerTimeout();

 private:
  QString ApplyAliases(const QString& sPath) const;
  QString ApplySubstitutes(const QString& sPath) const;
  QString Test(const QString& sDir, const QString& sRel) const;
  QString ResolveRelative(const QString& sRel, bool StopBeforeCurrentDir);
  QString SearchDirs(const QString& sName, const QStringList& Dirs, bool List);
  QString ResolveSource(const QString& sPath);
  QString ResolveData(const QString& sPath, const QStringList& Dirs, bool List);
  QString ResolveRegisterDesc(const QString& sPath);
  QString SourceOfDebugInfo(const QString& sPath) const;
  // sExpanded: sOrig with its macros expanded and normalised.
  void Record(const QString& sOrig, const QString& sExpanded, const QString& sResolved);
  void RulesAdded();

  QTimer* m_pDelayTimer = nullptr;
  QMap<QString, QString> m_Aliases;
  QMap<QString, QString> m_Substitutes;
  QSet<QString> m_Reported;
  QStringList m_SearchPaths;
  QStringList m_RootPaths;
  bool m_Silent = false;
  bool m_Report = true;
  QSet<QString> m_Unresolved;
  QSet<QString> m_Resolved;
  std::function<QString()> m_ProjectDir;
  std::function<QStringList()> m_SourceFiles;
};

// The one finder, made on first use.
CFileFinder& FileFinder();
