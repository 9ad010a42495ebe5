// Headless batch mode: each line of a file goes to the console as if typed;
// every console entry and each command's stored result go to standard output.
#pragma once
#include <QObject>
#include <QStringList>
#include <memory>

class CMainWindow;

// Reads the lines of a batch file ("-" for standard input). False when the
// file cannot be read.
bool ReadBatchFile(const QString& sPath, QStringList* pLines);

class CBatchRunner : public QObject {
  Q_OBJECT
 public:
  // TimeLimitS: the longest time one line may wait (0: no limit).
  // pStartOk: set to false by the start-up when the project named on the
  // command line could not be opened or run.
  CBatchRunner(CMainWindow* pMain, const QStringList& Lines, int TimeLimitS, std::shared_ptr<bool> pStartOk);
  ~CBatchRunner() override;
  // Runs the lines from the event loop, then closes the main window.
  void Start();
  // Writes what the shut-down left in the console ring.
  void Finish();
  // 0 when the start-up and every line went without an error or unknown
  // command, 1 otherwise.
  int ExitStatus() const { return m_HadError ? 1 : 0; }

 private:
  void Run();
  void Drain();
  // False when the line's time limit ended the wait for a halt.
  bool WaitForHalt();
  CMainWindow* m_pMain;
  QStringList m_Lines;
  int m_TimeLimitS = 30;
  std::shared_ptr<bool> m_pStartOk;
  bool m_HadError = false;
};
