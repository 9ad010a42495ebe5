// The documents of the source viewer, apart from any widget: what is open,
// where it came from, its text with the user's edits, and the rules that keep
// those edits safe (atomic save, the question when the file changes on disk,
// the question before a modified document closes). Commands and the window
// both work on this store, so a script runs the same code as a click.
#pragma once
#include "common/srcloc.h"
#include "common/types.h"

#include <QDateTime>
#include <QHash>
#include <map>
#include <memory>
#include <QList>
#include <QString>
#include <QStringList>

struct CSourceFile {
  U32 FileNo = 0;
  bool InProgram = false;  // FileNo is the program's number of the file
  QString FilePath;    // absolute path of the file read
  QString DebugPath;   // the path as the debug information names it (or as given)
  bool Exists = false;
  QString Suffix;      // lower case
  QString Text;
  int Line = 1, Col = 0;
  int ScrollPos = 0, ScrollCol = 0;
  U32 FirstAddr = 0, LastAddr = 0;
  bool HasUnsavedChanges = false;
  bool ModifiedOnDisk = false;  // newer than the program
  // What the file on disk looked like when it was read or written last.
  QDateTime DiskTime;
  qint64 DiskSize = -1;
  QString Name() const;  // the file name without directories
};

// Line ending forms a save can convert to.
enum SRC_EOL_FORMAT { SRC_EOL_KEEP = 0, SRC_EOL_LF = 1, SRC_EOL_CRLF = 2 };

class CSourceDocuments {
 public:
  // Loads a document (or finds the loaded one). Paths that do not exist are
  // resolved through the file finder; a file that cannot be found still gets
  // a document, with Exists false. Null for an empty path.
  CSourceFile* Load(const QString& sPath);
  // By file number; by absolute path, debug path or file name (any case for
  // the name). Null when not loaded.
  CSourceFile* Get(U32 FileNo);
  CSourceFile* Find(const QString& sPathOrName);
  QList<CSourceFile*> All();
  void Remove(U32 FileNo);
  void Clear();

  // Writes the document through a temporary file that replaces the old one
  // only when completely written. Mixed line endings ask for a form first
  // (see SetEolChooser). False with the reason in pError.
  bool Save(CSourceFile& d, QString* pError = nullptr);
  // Reads the file again; the edits go.
  bool Reload(CSourceFile& d);
  // The file on disk differs from what was read or written last.
  bool ChangedOnDisk(const CSourceFile& d) const;
  // Asks about every document whose file changed on disk: reload, or keep
  // the text in the viewer. Returns the file numbers reloaded.
  QList<U32> CheckDiskChanges();

  // The address range and file number of a document after a program change.
  void Renumber();

  // Replaces the questions (tests and batch); null restores the boxes.
  static void SetEolChooser(SRC_EOL_FORMAT (*Chooser)(const QString& sFileName));
  static void SetReloadQuestion(bool (*Ask)(const QString& sFileName, bool HasEdits));

  static bool HasMixedLineEndings(const QString& sText);
  static QString ConvertLineEndings(const QString& sText, SRC_EOL_FORMAT Format);

 private:
  void ReadFile(CSourceFile& d);
  void Number(CSourceFile& d);
  std::map<U32, std::unique_ptr<CSourceFile>> m_Docs;
};
