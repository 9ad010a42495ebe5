// Headless batch mode: each line of a file goes to the console as if typed;
// every console entry and each command's stored result go to standard output.
#pragma once
#include <QObject>
#include <QStringList>

class CMainWindow;

// Reads the lines of a batch file ("-" for standard input). False when the
// file cannot be read.
bool ReadBatchFile(const QString& sPath, QStringList* pLines);

class CBatchRunner : public QObject {
  Q_OBJECT
 public:
  CBatchRunner(CMainWindow* pMain, const QStringList& Lines);
  ~CBatchRunner() override;
  // Runs the lines from the event loop, then closes the main window.
  void Start();
  // Writes what the shut-down left in the console ring.
  void Finish();
  // 0 when no line gave an error or unknown-command line, 1 otherwise.
  int ExitStatus() const { return m_HadError ? 1 : 0; }

 private:
  void Run();
  void Drain();
  CMainWindow* m_pMain;
  QStringList m_Lines;
  bool m_HadError = false;
};
