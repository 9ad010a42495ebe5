// The table of file types by suffix and the file groups with the filter texts
// that every file dialog of the program uses.
#pragma once
#include <QString>

namespace VFile {

enum FILE_GROUP {
  FG_PROJECT,
  FG_DATA,
  FG_PROGRAM,
  FG_TEXT_RECORD,
  FG_SOURCE,
  FG_REGISTER_DESC,
  FG_DOCUMENT,
  FG_LIBRARY,
  FG_COUNT
};

// "Executable and Linkable Format File" and so on; empty for an unknown
// suffix. The suffix is compared lower-cased, without the dot.
QString FileTypeDescription(const QString& sSuffix);
// Blank-separated patterns of a group, such as "*.elf *.out *.axf".
QString FileGroupPatterns(FILE_GROUP Group);
// True if the file's suffix matches one of the group's patterns.
bool IsInFileGroup(const QString& sFilePath, FILE_GROUP Group);
// "Label (patterns);;" for a group, with Label such as "Data Files".
QString DialogFilter(const QString& sLabel, const QString& sPatterns);
// The filter list of an open dialog: "All Files", "Project Files", "Data
// Files", "Source Files"; "All Files" offers every group and "*".
QString OpenDialogFilters();
// "Data Files (*.bin *.mot ...);;".
QString DataFilesFilter();

}  // namespace VFile
