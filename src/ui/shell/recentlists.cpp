#include "ui/shell/recentlists.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

namespace {
QString Normalised(const QString& sPath) { return QDir::cleanPath(QDir::fromNativeSeparators(sPath)); }
}  // namespace

bool CRecentList::Matches(const QString& sPath) const {
  const QString sName = QFileInfo(sPath).fileName();
  for (const QString& sPattern : m_sFilter.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
    const QRegularExpression Re(QRegularExpression::wildcardToRegularExpression(sPattern),
                                QRegularExpression::CaseInsensitiveOption);
    if (Re.match(sName).hasMatch()) return true;
  }
  return false;
}

void CRecentList::Add(const QString& sPath) {
  const QString s = Normalised(sPath);
  if (s.isEmpty() || s == QLatin1String(".")) return;
  m_Paths.removeAll(s);
  m_Paths.prepend(s);
  while (m_Paths.size() > MAX_ENTRIES) m_Paths.removeLast();
}

void CRecentList::Remove(const QString& sPath) { m_Paths.removeAll(Normalised(sPath)); }

void CRecentList::Load(const QStringList& Stored) {
  m_Paths.clear();
  for (const QString& sEntry : Stored) {
    const QString s = Normalised(sEntry);
    if (s.isEmpty() || m_Paths.contains(s) || !Matches(s) || !QFileInfo(s).isFile()) continue;
    m_Paths.append(s);
    if (m_Paths.size() == MAX_ENTRIES) break;
  }
}
