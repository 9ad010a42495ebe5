// CStatusBar: the fields at the bottom of the main window (status message,
// progress message with bar and cancel button, active window status,
// connection info, cursor text). Setters only store the value; one
// single-shot timer paints all fields, so a burst of changes costs one update.
#pragma once
#include <QElapsedTimer>
#include <QFont>
#include <QStatusBar>
#include <QString>

class QLabel;
class QProgressBar;
class QToolButton;
class QTimer;

class CStatusBar : public QStatusBar {
  Q_OBJECT
 public:
  explicit CStatusBar(QWidget* pParent = nullptr);

  void SetProgressValue(int Value);
  int GetProgressValue() const { return m_ProgressValue; }
  int GetWindowActionTextWidth() const;
  // (0, 0) gives an endless bar. Clears the cancel flag.
  void StartProgress(int Minimum, int Maximum);
  void EndProgress();
  bool WasCanceled() const { return m_Canceled; }
  bool IsProgressActive() const { return m_ProgressActive; }
  void SetStatusMessage(const QString& Message);
  void SetProgressMessage(const QString& Message);
  void SetConnectionInfo(const QString& Info);
  void SetActiveWindowStatus(const QString& Text);
  void SetCursorText(const QString& Text);
  void SetFont(const QFont& Font);
  // For work that holds the event loop (a program load, a file read) the
  // timer cannot fire: this paints the fields at once, at most every 50 ms
  // unless forced. Only on the thread of the widget.
  void PaintNow(bool Force = false);

  // The stored values (what the next paint shows).
  QString StatusMessage() const { return m_sStatus; }
  QString ProgressMessage() const { return m_sProgress; }
  QString ConnectionInfo() const { return m_sConnection; }
  QString ActiveWindowStatus() const { return m_sWindowStatus; }
  QString CursorText() const { return m_sCursor; }
  // Number of paints so far; a burst of setters adds one.
  int PaintCount() const { return m_nPaints; }
  // The labels as painted.
  QLabel* StatusLabel() const { return m_pStatus; }
  QProgressBar* ProgressBar() const { return m_pBar; }
  QToolButton* CancelButton() const { return m_pCancel; }

 signals:
  void Canceled();

 public slots:
  void OnTempStatusMsgChanged(const QString& Message);
  void OnButtonCancelClicked();
  void OnTimerTimeout();

 private:
  void Schedule();
  QLabel *m_pStatus, *m_pProgressText, *m_pWindowStatus, *m_pConnection, *m_pCursor;
  QProgressBar* m_pBar;
  QToolButton* m_pCancel;
  QTimer* m_pTimer;
  QString m_sStatus = QStringLiteral("Ready");
  QString m_sProgress, m_sWindowStatus, m_sTemp;
  QString m_sConnection = QStringLiteral("Disconnected");
  QString m_sCursor = QStringLiteral("Ln 0  Ch 0");
  QFont m_Font;
  bool m_FontChanged = false;
  int m_ProgressMin = 0, m_ProgressMax = 100, m_ProgressValue = 0;
  bool m_ProgressActive = false, m_Canceled = false;
  int m_nPaints = 0;
  QElapsedTimer m_LastPaintNow;
};
