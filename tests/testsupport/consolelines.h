// The console lines the code under test wrote.
#pragma once
#include <QString>
#include <QStringList>

#include "log/console.h"

// The console ring's texts since the last call, oldest first.
inline QStringList TakeConsoleLines() {
  QStringList l;
  ConsoleRingTake([&l](const CONSOLE_ENTRY& e) { l.append(QString::fromUtf8(e.Text)); });
  return l;
}
