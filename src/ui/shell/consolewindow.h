// The console window: the output side shows the entries of the console ring,
// drained by a 100 ms timer; the input line runs typed commands and keeps a
// history walked with Up and Down. A debug window of the framework (object
// name ConsoleWindow, shown as "Console") that keeps its text when hidden or
// disconnected.
#pragma once
#include "ui/framework/window.h"

#include <QLineEdit>
#include <QStringList>
#include <QWidget>

class QTextEdit;
class QTimer;
struct CONSOLE_ENTRY;

// The input field with its history keys.
class CConsoleInput : public QLineEdit {
  Q_OBJECT
 public:
  using QLineEdit::QLineEdit;
  // Adds a line at the front unless it is there already; resets the cursor.
  void AddToHistory(const QString& sLine);
  const QStringList& History() const { return m_History; }
  int HistoryCursor() const { return m_Cursor; }
  void HistoryUp();
  void HistoryDown();

 protected:
  void keyPressEvent(QKeyEvent* pEvent) override;

 private:
  QStringList m_History;  // newest first
  int m_Cursor = -1;      // -1: no entry selected
};

class CConsoleWindow : public CWindow {
  Q_OBJECT
 public:
  explicit CConsoleWindow(QWidget* pParent = nullptr);
  ~CConsoleWindow() override;

  QString GetDisplayName() const override { return QStringLiteral("Console"); }
  // Window.Clear: the output and its time stamps go.
  void Clear() override;

  // Draws at most 100 entries of the ring (the timer's work).
  void OnUpdateTimerTimeout();
  // Batch mode: the window leaves the ring to the batch driver.
  void SetDrawingEnabled(bool On);
  QString PlainText() const;
  CConsoleInput* Input() const { return m_pInput; }

 signals:
  void CommandEntered(const QString& sLine);

 private:
  void OnCommandEntered();
  void Draw(const CONSOLE_ENTRY& e);
  QTextEdit* m_pOutput = nullptr;
  QTextEdit* m_pSidebar = nullptr;
  CConsoleInput* m_pInput = nullptr;
  QTimer* m_pTimer = nullptr;
  bool m_CodeFont = false;
};
