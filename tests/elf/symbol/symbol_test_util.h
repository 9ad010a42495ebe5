// Helpers of the symbol and evaluator tests: corpus paths, the oracle tool,
// loading a program through the wrapper.
#pragma once
#include "testsupport/tools.h"
#include "elf/dwarf/debuginfo.h"
#include "elf/elfapi.h"

#include <QString>
#include <QStringList>
#include <stdio.h>
#include <stdlib.h>
#include <string>
#include <ostream>

inline void PrintTo(const QString& s, std::ostream* os) { *os << '"' << s.toStdString() << '"'; }

inline QString SymCorpusPath(const QString& sName) {
  const char* src = getenv("TAVIT_SOURCE_DIR");
  return QString::fromUtf8(src ? src : ".") + "/firmware/corpus/" + sName;
}

inline bool LoadProgram(const QString& sName) {
  DWARF_Install();
  return CElfApi::Instance().Load(SymCorpusPath(sName)) == 0;
}

inline QString RunOracle(const QString& sCommand) {
  return QString::fromStdString(RunToolOutput(sCommand.toStdString() + " 2>&1"));
}

inline bool HaveGdb() { return system("gdb-multiarch --version > /dev/null 2>&1") == 0; }

// Runs gdb once over a file with the commands; returns the output of each
// command in order (split at markers echoed between them).
inline QStringList RunGdbBatch(const QString& sFile, const QStringList& Commands) {
  std::vector<std::string> c = {"set width 0", "set print elements 1000", "set print repeats 1000"};
  for (const QString& q : Commands) c.insert(c.end(), {"echo @@@\\n", q.toStdString()});
  c.push_back("echo @@@\\n");
  QStringList Parts = QString::fromStdString(RunGdb(sFile.toStdString(), c)).split("@@@\n");
  Parts.removeFirst();
  return Parts;
}
