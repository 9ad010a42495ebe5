// Whole-file reads and writes for tests that check what the code wrote.
#pragma once
#include <QByteArray>
#include <QFile>
#include <QString>
#include <gtest/gtest.h>

// The file's bytes, "<missing>" when it cannot be read.
inline QByteArray ReadAll(const QString& sPath) {
  QFile f(sPath);
  return f.open(QIODevice::ReadOnly) ? f.readAll() : QByteArray("<missing>");
}

inline void WriteAll(const QString& sPath, const QByteArray& Data) {
  QFile f(sPath);
  ASSERT_TRUE(f.open(QIODevice::WriteOnly));
  f.write(Data);
}
