// The settings store: QSettings with organisation "MARLEK", application
// "Tavit", held in memory for the whole run and written to its back end once,
// after the event loop ended. TAVIT_SETTINGS_DIR, when set, names the
// directory that holds the store (tests always set it).
#pragma once
#include <QString>
#include <QVariant>
#include <QStringList>

namespace Settings {
void Load();                                   // read the back end into memory
void Save();                                   // write back (once per run)
QVariant Value(const QString& sKey, const QVariant& Default = QVariant());
void SetValue(const QString& sKey, const QVariant& Value);
void Remove(const QString& sKey);              // a key or a whole group
bool Contains(const QString& sKey);
QStringList ChildKeys(const QString& sGroup);
QString FilePath();                            // file of the back end
}
