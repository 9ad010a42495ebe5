// CRecentList: the recent projects or programs, newest first, at most 10.
// A path already in the list moves to the top; on loading only existing
// files whose suffix matches the list's filter stay.
#pragma once
#include <QString>
#include <QStringList>

class CRecentList {
 public:
  static constexpr int MAX_ENTRIES = 10;
  // Filter: blank-separated patterns such as "*.vdebug".
  explicit CRecentList(const QString& sFilter) : m_sFilter(sFilter) {}

  void Add(const QString& sPath);
  void Remove(const QString& sPath);
  void Clear() { m_Paths.clear(); }
  // Takes a stored list; drops missing files, non-matching suffixes, doubles.
  void Load(const QStringList& Stored);
  const QStringList& Paths() const { return m_Paths; }
  QString First() const { return m_Paths.value(0); }
  bool Matches(const QString& sPath) const;
  const QString& Filter() const { return m_sFilter; }

 private:
  QString m_sFilter;
  QStringList m_Paths;
};

// The two lists of the main window and their filters.
inline QString RecentProjectsFilter() { return QStringLiteral("*.vdebug"); }
inline QString RecentProgramsFilter() { return QStringLiteral("*.bin *.mot *.srec *.hex *.elf *.out *.axf"); }
