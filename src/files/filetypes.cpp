#include "files/filetypes.h"

#include <QFileInfo>
#include <QStringList>

namespace VFile {

namespace {

struct FILE_TYPE {
  const char* sSuffix;
  const char* sDescription;
};

const FILE_TYPE kTypes[] = {
    {"elf", "Executable and Linkable Format File"}, {"out", "Executable and Linkable Format File"},
    {"axf", "Executable and Linkable Format File"}, {"bin", "Binary Data FIle"},
    {"mot", "Motorola S-Record File"},              {"hex", "Intel Hexadecimal File"},
    {"srec", "S-Record File"},                      {"h", "C Header File"},
    {"c", "C Source File"},                         {"s", "Assembly Script"},
    {"hpp", "C++ Header File"},                     {"cpp", "C++ Source File"},
    {"svd", "System View Descr. File"},             {"xml", "Xml File"},
    {"vorden", "Vorden Script file"},
};

const char* const kGroups[FG_COUNT] = {
    "*.vdebug",
    "*.bin *.mot *.srec *.hex *.elf *.out *.axf",
    "*.elf *.out *.axf",
    "*.mot *.srec *.hex",
    "*.h *.c *.hpp *.cpp *.s",
    "*.svd *.xml",
    "*.txt *.pdf *.html",
    "*.dll *.so *.dylib",
};

}  // namespace

QString FileTypeDescription(const QString& sSuffix) {
  const QString s = sSuffix.toLower();
  for (const FILE_TYPE& t : kTypes)
    if (s == QLatin1String(t.sSuffix)) return QString::fromLatin1(t.sDescription);
  return QString();
}

QString FileGroupPatterns(FILE_GROUP Group) {
  return Group >= 0 && Group < FG_COUNT ? QString::fromLatin1(kGroups[Group]) : QString();
}

bool IsInFileGroup(const QString& sFilePath, FILE_GROUP Group) {
  const QString sSuffix = QFileInfo(sFilePath).suffix().toLower();
  if (sSuffix.isEmpty()) return false;
  return FileGroupPatterns(Group).split(QLatin1Char(' ')).contains(QStringLiteral("*.") + sSuffix);
}

QString DialogFilter(const QString& sLabel, const QString& sPatterns) {
  return sLabel + QStringLiteral(" (") + sPatterns + QStringLiteral(");;");
}

QString OpenDialogFilters() {
  QStringList All;
  for (int g = 0; g < FG_COUNT; ++g) All << FileGroupPatterns(FILE_GROUP(g));
  All << QStringLiteral("*");
  return DialogFilter(QStringLiteral("All Files"), All.join(QLatin1Char(' '))) +
         DialogFilter(QStringLiteral("Project Files"), FileGroupPatterns(FG_PROJECT)) + DataFilesFilter() +
         DialogFilter(QStringLiteral("Source Files"), FileGroupPatterns(FG_SOURCE));
}

QString DataFilesFilter() {
  return DialogFilter(QStringLiteral("Data Files"), FileGroupPatterns(FG_DATA));
}

}  // namespace VFile
