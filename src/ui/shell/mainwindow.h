// The main window: hosts the console window, owns one QAction per command of
// the action table and links them, dispatches each to its registered slot,
// and runs the shut-down sequence when it closes.
#pragma once
#include <QMainWindow>
#include <QStringList>
#include <functional>

class CConsoleWindow;
class QCloseEvent;
class QTimer;

// Through these the top lets modules take part in closing the main window.
// They may be installed before the window exists.
namespace ShellHooks {
// Asked first, in the order installed; one that answers false cancels the
// close (unsaved project, modified documents).
void AddCloseQuery(const std::function<bool()>& Fn);
// Work of the shut-down sequence, run in ascending step order after the
// closing flag is set (6: close the project, 7-8: device, ...).
void AddShutDownStep(int Step, const std::function<void()>& Fn);
}  // namespace ShellHooks

class CMainWindow : public QMainWindow {
  Q_OBJECT
 public:
  explicit CMainWindow(QWidget* pParent = nullptr);
  ~CMainWindow() override;

  CConsoleWindow* ConsoleWindow() const { return m_pConsole; }
  bool IsClosing() const { return m_IsClosing; }
  // File.Exit asked for the end of the program.
  bool IsExitRequested() const { return m_ExitRequested; }

  // Runs once after the first show (or at once in batch mode).
  void SetWindowShownHandler(const std::function<void()>& Fn) { m_OnShown = Fn; }
  void RunWindowShown();
  // The shut-down sequence; false when it was cancelled.
  bool OnWindowClosed(QCloseEvent* pEvent);
  void UpdateTitle();

 public slots:
  // The project shown in the title changed (empty: a new project).
  void SetProjectTitle(const QString& sProjectPath);

 signals:
  void InitComplete();

 protected:
  void closeEvent(QCloseEvent* pEvent) override;
  bool eventFilter(QObject* pObject, QEvent* pEvent) override;

 private:
  void CreateActions();
  void RegisterOwnSlots();
  void OnUtilLog(int Id);
  void OnUtilLogHex(int Id);
  void OnUtilSleep(int Id);
  void OnHelpCommands(int Id);
  void OnHelpAbout(int Id);
  void OnFileExit(int Id);

  CConsoleWindow* m_pConsole = nullptr;
  QTimer* m_pDeviceEventTimer = nullptr;
  QTimer* m_pShownTimer = nullptr;
  bool m_IsClosing = false;
  bool m_ShownDone = false;
  bool m_ExitRequested = false;
  QString m_sProjectPath;
  std::function<void()> m_OnShown;
};
