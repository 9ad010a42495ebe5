// The cross toolchain's forms of a firmware image: Intel HEX, S-record and
// raw binary made by objcopy from the ELF file, and the load ranges of its
// sections from objdump's section table (what those forms hold).
#pragma once
#include "testsupport/tools.h"

#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QRegularExpression>

namespace testsupport {

struct LOAD_RANGE {
  quint32 Addr, Size;
};

struct IMAGE_FORMS {
  QString sElf, sHex, sSrec, sBin;
  quint32 BinBase = 0xFFFFFFFF;  // the raw binary starts at the lowest load address
  QList<LOAD_RANGE> Ranges;      // sections with file contents, at their load addresses
  QByteArray Bin;
  bool Ok = false;
};

// Runs objcopy for the three forms into sDir (file names after the ELF's).
inline IMAGE_FORMS MakeImageForms(const QString& sElf, const QString& sDir) {
  const QString sBase = sDir + "/" + QFileInfo(sElf).completeBaseName();
  IMAGE_FORMS f{sElf, sBase + ".hex", sBase + ".srec", sBase + ".bin", 0xFFFFFFFF, {}, {}, false};
  for (const auto& [sFmt, sOut] : {std::pair{"ihex", f.sHex}, {"srec", f.sSrec}, {"binary", f.sBin}})
    RunToolOutput("arm-none-eabi-objcopy -O " + std::string(sFmt) + " " + sElf.toStdString() + " " + sOut.toStdString());
  // "  1 .data  00000090  20000000  08000f90  00010000  2**2" then the flags.
  static const QRegularExpression Row(R"(^\s*\d+\s+\S+\s+([0-9a-f]+)\s+[0-9a-f]+\s+([0-9a-f]+)\s+\S+\s+\S+\s*\n([^\n]*))",
                                      QRegularExpression::MultilineOption);
  for (auto It = Row.globalMatch(QString::fromStdString(RunToolOutput("arm-none-eabi-objdump -h " + sElf.toStdString()))); It.hasNext();) {
    const auto m = It.next();
    const quint32 Size = m.captured(1).toUInt(nullptr, 16), Lma = m.captured(2).toUInt(nullptr, 16);
    if (!m.captured(3).contains("LOAD") || !m.captured(3).contains("CONTENTS") || Size == 0) continue;
    f.Ranges.append({Lma, Size});
    f.BinBase = std::min(f.BinBase, Lma);
  }
  QFile b(f.sBin);
  if (b.open(QIODevice::ReadOnly)) f.Bin = b.readAll();
  f.Ok = !f.Ranges.isEmpty() && !f.Bin.isEmpty() && QFileInfo::exists(f.sHex) && QFileInfo::exists(f.sSrec);
  return f;
}

inline QByteArray BinBytes(const IMAGE_FORMS& f, LOAD_RANGE r) { return f.Bin.mid(qsizetype(r.Addr - f.BinBase), r.Size); }

}  // namespace testsupport
