#include "device/probe_funcs.h"

#include <QCoreApplication>
#include <QDir>
#include <QLibrary>

bool VORDEN_LoadLibrary(const QString& sPath, VORDEN_FUNCS* pFuncs, QString* psError) {
  *pFuncs = VORDEN_FUNCS();
  // The library stays loaded for the life of the process: the worker may
  // still be inside it when the application object goes.
  auto* pLib = new QLibrary(sPath);
  if (!pLib->load()) {
    if (psError) *psError = pLib->errorString();
    delete pLib;
    return false;
  }
  VORDEN_FUNCS f;
  QString sMissing;
#define VORDEN_FUNC_RESOLVE(n)                                  \
  f.n = reinterpret_cast<decltype(f.n)>(pLib->resolve(#n));     \
  if (!f.n) sMissing += QStringLiteral(" " #n);
  VORDEN_FUNC_LIST(VORDEN_FUNC_RESOLVE)
#undef VORDEN_FUNC_RESOLVE
  if (!sMissing.isEmpty()) {
    if (psError) *psError = QStringLiteral("missing functions:") + sMissing;
    return false;
  }
  *pFuncs = f;
  return true;
}

QString VORDEN_DefaultLibraryPath() {
  const QString sDir = QCoreApplication::instance() ? QCoreApplication::applicationDirPath() : QDir::currentPath();
  QString s = QDir(sDir).absoluteFilePath(QStringLiteral("libVorden.so"));
  // Test programs live one level below the install tree.
  if (!QFile::exists(s)) s = QDir(sDir + QStringLiteral("/..")).absoluteFilePath(QStringLiteral("libVorden.so"));
  return QDir::cleanPath(s);
}
