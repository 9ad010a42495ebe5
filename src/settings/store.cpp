// The settings store keeps the whole settings tree in memory, as a map from
// key path ("Group/Sub/Key") to value. The back end (QSettings) is read once by
// Load() and rewritten once by Save(); nothing in between touches it, so a
// process that dies loses only the changes of its own run.
#include "settings/store.h"

#include <QByteArray>
#include <QDir>
#include <QMap>
#include <QMutex>
#include <QMutexLocker>
#include <QSettings>
#include <memory>

namespace {

const char* const kOrganisation = "MARLEK";
const char* const kApplication = "Tavit";

struct Store {
  QMutex Mutex;
  QMap<QString, QVariant> Map;
};

Store& TheStore() {
  static Store s;
  return s;
}

// Key paths are compared without leading, trailing or doubled slashes, the
// way QSettings itself normalises them.
QString Normalise(const QString& sKey) {
  QString s;
  s.reserve(sKey.size());
  for (QChar c : sKey) {
    if (c == QLatin1Char('\\')) c = QLatin1Char('/');
    if (c == QLatin1Char('/') && (s.isEmpty() || s.endsWith(QLatin1Char('/')))) continue;
    s.append(c);
  }
  while (s.endsWith(QLatin1Char('/'))) s.chop(1);
  return s;
}

// The back end: an INI file below TAVIT_SETTINGS_DIR when that is set,
// otherwise the platform's native per-user store.
std::unique_ptr<QSettings> OpenBackEnd() {
  const QByteArray dir = qgetenv("TAVIT_SETTINGS_DIR");
  if (!dir.isEmpty()) {
    const QString sDir = QString::fromLocal8Bit(dir);
    QDir().mkpath(sDir);
    return std::make_unique<QSettings>(sDir + QStringLiteral("/") + QLatin1String(kOrganisation) +
                                           QStringLiteral("/") + QLatin1String(kApplication) +
                                           QStringLiteral(".ini"),
                                       QSettings::IniFormat);
  }
  return std::make_unique<QSettings>(QSettings::NativeFormat, QSettings::UserScope,
                                     QLatin1String(kOrganisation), QLatin1String(kApplication));
}

}  // namespace

namespace Settings {

void Load() {
  auto backEnd = OpenBackEnd();
  QMap<QString, QVariant> map;
  const QStringList keys = backEnd->allKeys();
  for (const QString& k : keys) map.insert(Normalise(k), backEnd->value(k));
  Store& s = TheStore();
  QMutexLocker lock(&s.Mutex);
  s.Map = std::move(map);
}

void Save() {
  QMap<QString, QVariant> map;
  {
    Store& s = TheStore();
    QMutexLocker lock(&s.Mutex);
    map = s.Map;
  }
  auto backEnd = OpenBackEnd();
  backEnd->clear();
  for (auto it = map.cbegin(); it != map.cend(); ++it) backEnd->setValue(it.key(), it.value());
  backEnd->sync();
}

QVariant Value(const QString& sKey, const QVariant& Default) {
  Store& s = TheStore();
  QMutexLocker lock(&s.Mutex);
  auto it = s.Map.constFind(Normalise(sKey));
  return it == s.Map.cend() ? Default : it.value();
}

void SetValue(const QString& sKey, const QVariant& Value) {
  const QString k = Normalise(sKey);
  if (k.isEmpty()) return;
  Store& s = TheStore();
  QMutexLocker lock(&s.Mutex);
  s.Map.insert(k, Value);
}

void Remove(const QString& sKey) {
  const QString k = Normalise(sKey);
  Store& s = TheStore();
  QMutexLocker lock(&s.Mutex);
  if (k.isEmpty()) {
    s.Map.clear();
    return;
  }
  s.Map.remove(k);
  // Keys below k as a group sort directly after "k/".
  const QString prefix = k + QLatin1Char('/');
  auto it = s.Map.lowerBound(prefix);
  while (it != s.Map.end() && it.key().startsWith(prefix)) it = s.Map.erase(it);
}

bool Contains(const QString& sKey) {
  const QString k = Normalise(sKey);
  Store& s = TheStore();
  QMutexLocker lock(&s.Mutex);
  return s.Map.contains(k);
}

QStringList ChildKeys(const QString& sGroup) {
  const QString g = Normalise(sGroup);
  const QString prefix = g.isEmpty() ? QString() : g + QLatin1Char('/');
  QStringList out;
  Store& s = TheStore();
  QMutexLocker lock(&s.Mutex);
  for (auto it = s.Map.lowerBound(prefix); it != s.Map.cend() && it.key().startsWith(prefix); ++it) {
    const QString rest = it.key().mid(prefix.size());
    if (!rest.contains(QLatin1Char('/'))) out.append(rest);
  }
  return out;
}

QString FilePath() { return OpenBackEnd()->fileName(); }

}  // namespace Settings
