// Text handling of project files: the event table, the text of a new
// project, the editor that writes settings into OnProjectLoad, the duplicate
// command test, the records of the user file and the atomic file writer.
// Everything here works on plain text and has no state.
#pragma once
#include <QString>
#include <QStringList>

// The event functions a project may define; ids 1..EVENT_COUNT.
enum PROJECT_EVENT : int {
  EVENT_ON_PROJECT_LOAD = 1,
  EVENT_TARGET_RESET = 2,
  EVENT_BEFORE_TARGET_RESET = 3,
  EVENT_AFTER_TARGET_RESET = 4,
  EVENT_DEBUG_START = 5,
  EVENT_TARGET_CONNECT = 6,
  EVENT_BEFORE_TARGET_CONNECT = 7,
  EVENT_AFTER_TARGET_CONNECT = 8,
  EVENT_TARGET_DOWNLOAD = 9,
  EVENT_BEFORE_TARGET_DOWNLOAD = 10,
  EVENT_AFTER_TARGET_DOWNLOAD = 11,
  EVENT_BEFORE_TARGET_DISCONNECT = 12,
  EVENT_AFTER_TARGET_DISCONNECT = 13,
  EVENT_AFTER_TARGET_HALT = 14,
  EVENT_BEFORE_TARGET_RESUME = 15,
  EVENT_COUNT = 15,
};

struct EVENT_ROW {
  int Id;
  const char* Prototype;    // "void OnProjectLoad (void);"
  const char* Description;  // first description line of the comment block
};

namespace ProjectText {

const EVENT_ROW* GetEventRow(int Id);  // null outside 1..EVENT_COUNT
// The function name of a prototype: the word in front of the "(";
// empty when there is none.
QString FunctionName(const QString& sPrototype);
QString EventName(int Id);

// The comment block that stands in front of an event function.
QString EventCommentBlock(int Id);
// The default body of an event (ids 2..15): the function commented out line
// by line. A core plug-in may offer its own text of the function body; it is
// then used uncommented.
QString EventDefaultBody(int Id, const QString& sPluginText = QString());
// A core plug-in's default text for an event, or empty. The plug-in host
// implements it; the top installs it at start-up.
class IEventTextSource {
 public:
  virtual ~IEventTextSource() = default;
  virtual QString EventDefaultText(int EventId) const = 0;
};
void SetEventTextSource(const IEventTextSource* pSource);  // null removes it

// The text of a new project made from a list of command statements.
QString BuildProjectText(const QStringList& Commands);

// The section markers inside OnProjectLoad.
extern const char* const kDialogMarker;  // "  //\n  // Dialog-generated settings\n  //\n"
extern const char* const kUserMarker;    // "  //\n  // User settings\n  //\n"

// Bounds of the body of a function: from behind the line feed that follows
// its "{" up to (not including) the "}" that closes it. False when the name,
// the "{" or the closing "}" cannot be found.
bool FindFunctionBody(const QString& sText, const QString& sName, qsizetype* pStart, qsizetype* pEnd);

struct WRITE_SETTINGS_RESULT {
  bool Ok = false;           // false: bounds not found, nothing to write
  QString sText;             // the new text
  QStringList Warnings;      // missing section markers
};
// Writes Commands into OnProjectLoad: lines matching one of NamesToRemove
// (regular expressions on the trimmed line) go, commands of the dialog groups
// go into "Dialog-generated settings", all others into "User settings";
// with Replace the new commands stand in front of the old lines of their
// section, otherwise behind them.
WRITE_SETTINGS_RESULT WriteSettingsText(const QString& sText, bool Replace, const QStringList& Commands,
                                        const QStringList& NamesToRemove);
// True when a command statement belongs to one of the dialog groups.
bool IsDialogCommand(const QString& sCommand);
// The pattern that removes earlier statements of the same command (for
// Edit.SysVar / Edit.Preference: of the same variable).
QString RemovePatternFor(const QString& sCommand);

// Statements of OnProjectLoad (split at ";") whose command occurs more than
// once although its row is not repeatable; each repeat once, trimmed.
QStringList FindDuplicateCommands(const QString& sText);

// ---------------------------------------------------------------- user file

// The path of the user file beside a project: up to and including the last
// ".", then "vdebug.user".
QString UserFilePath(const QString& sProjectPath);
// The key of a record line: the text in front of the first "=".
QString UserFileKey(const QString& sLine);
// Sorts lines by key, keeping the order within one key.
QStringList SortUserFileLines(const QStringList& Lines);
// Splits a record into its fields at ", " outside double quotes; each field
// is "Name=value". Fields without "=" are returned in pBad.
QList<QPair<QString, QString>> ParseUserFileRecord(const QString& sLine, QStringList* pBad = nullptr);

// ---------------------------------------------------------------- files

// Writes Data to sPath through a temporary file in the same directory
// (TempFilePath) that then replaces the old file; on failure the old file is
// left as it was and pError holds the reason. A temporary file that a killed
// save left behind is replaced by the next save.
bool AtomicWriteFile(const QString& sPath, const QByteArray& Data, QString* pError);
QString TempFilePath(const QString& sPath);  // sPath + ".saving"

// Asked after the data is written and before it replaces the old file; a
// guard that answers false makes the write fail with its reason. Used to
// prove that a failed save leaves the old file.
class IFileCommitGuard {
 public:
  virtual ~IFileCommitGuard() = default;
  virtual bool BeforeCommit(const QString& sPath, QString* pReason) = 0;
};
void SetFileCommitGuard(IFileCommitGuard* pGuard);  // null removes it

}  // namespace ProjectText
