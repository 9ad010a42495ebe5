#include "ui/shell/consolewindow.h"

#include "commands/actions.h"
#include "log/console.h"
#include "log/log.h"
#include "settings/colors.h"
#include "settings/fonts.h"
#include "settings/sysvars.h"

#include <QColor>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QScrollBar>
#include <QTextCursor>
#include <QTextEdit>
#include <QTimer>
#include <QVBoxLayout>

// ---------------------------------------------------------------- input

void CConsoleInput::AddToHistory(const QString& sLine) {
  m_Cursor = -1;
  if (!m_History.contains(sLine)) m_History.prepend(sLine);
}

void CConsoleInput::HistoryUp() {
  if (m_History.isEmpty()) return;
  // From the newest to older ones; behind the oldest wrap to the newest.
  m_Cursor = (m_Cursor + 1) % int(m_History.size());
  setText(m_History[m_Cursor]);
}

void CConsoleInput::HistoryDown() {
  if (m_History.isEmpty()) return;
  // Starts at the oldest; moves to newer ones; behind the newest wraps to the oldest.
  if (m_Cursor <= 0) m_Cursor = int(m_History.size()) - 1;
  else --m_Cursor;
  setText(m_History[m_Cursor]);
}

void CConsoleInput::keyPressEvent(QKeyEvent* pEvent) {
  if (pEvent->key() == Qt::Key_Up) {
    HistoryUp();
    return;
  }
  if (pEvent->key() == Qt::Key_Down) {
    HistoryDown();
    return;
  }
  QLineEdit::keyPressEvent(pEvent);
}

// ---------------------------------------------------------------- window

CConsoleWindow::CConsoleWindow(QWidget* pParent) : CWindow(pParent) {
  setObjectName(QStringLiteral("ConsoleWindow"));
  setWindowTitle(QStringLiteral("Console"));
  SetFlag(WINDOW_FLAG_CLEAR_WHEN_HIDDEN, false);
  SetFlag(WINDOW_FLAG_CLEAR_ON_DISCONNECT, false);
  auto* pCentral = new QWidget(this);
  setCentralWidget(pCentral);
  m_pOutput = new QTextEdit(pCentral);
  m_pOutput->setReadOnly(true);
  m_pOutput->setObjectName(QStringLiteral("ConsoleOutput"));
  m_pSidebar = new QTextEdit(pCentral);
  m_pSidebar->setReadOnly(true);
  m_pSidebar->setFixedWidth(0);
  m_pSidebar->setVerticalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
  m_pInput = new CConsoleInput(pCentral);
  m_pInput->setObjectName(QStringLiteral("ConsoleInput"));
  auto* pRow = new QHBoxLayout;
  pRow->setContentsMargins(0, 0, 0, 0);
  pRow->setSpacing(0);
  pRow->addWidget(m_pSidebar);
  pRow->addWidget(m_pOutput, 1);
  auto* pLayout = new QVBoxLayout(pCentral);
  pLayout->setContentsMargins(0, 0, 0, 0);
  pLayout->addLayout(pRow, 1);
  pLayout->addWidget(m_pInput);
  setFocusProxy(m_pInput);
  connect(m_pInput, &QLineEdit::returnPressed, this, &CConsoleWindow::OnCommandEntered);
  connect(m_pOutput->verticalScrollBar(), &QScrollBar::valueChanged, m_pSidebar->verticalScrollBar(), &QScrollBar::setValue);

  // The ring opens for writers once the window that reads it exists.
  ConsoleRingStart();
  m_pTimer = new QTimer(this);
  m_pTimer->setInterval(100);
  connect(m_pTimer, &QTimer::timeout, this, &CConsoleWindow::OnUpdateTimerTimeout);
  m_pTimer->start();
}

CConsoleWindow::~CConsoleWindow() = default;

void CConsoleWindow::Clear() {
  m_pOutput->clear();
  m_pSidebar->clear();
  m_pSidebar->setFixedWidth(0);
}

void CConsoleWindow::SetDrawingEnabled(bool On) {
  if (On) m_pTimer->start();
  else m_pTimer->stop();
}

QString CConsoleWindow::PlainText() const { return m_pOutput->toPlainText(); }

void CConsoleWindow::OnUpdateTimerTimeout() {
  ConsoleRingTake([this](const CONSOLE_ENTRY& e) { Draw(e); }, 100);
}

void CConsoleWindow::Draw(const CONSOLE_ENTRY& e) {
  QColor c;
  if (e.ColorID >= 0) c = Colors::GetColor(e.ColorID);
  else if (e.Color != 0) c = QColor::fromRgba(e.Color);
  else c = palette().color(QPalette::Text);
  QTextCursor Cur(m_pOutput->document());
  Cur.movePosition(QTextCursor::End);
  QTextCharFormat Fmt;
  Fmt.setForeground(c);
  if (bool(e.UseCodeFont) != m_CodeFont) m_CodeFont = e.UseCodeFont;
  Fmt.setFont(m_CodeFont ? QFontDatabase::systemFont(QFontDatabase::FixedFont) : m_pOutput->font());
  const QString sText = QString::fromUtf8(e.Text);
  if (e.NewLine && !m_pOutput->document()->isEmpty()) Cur.insertBlock();
  Cur.insertText(sText, Fmt);
  m_pOutput->setTextCursor(Cur);
  // The sidebar keeps one time stamp per entry, in step with the text lines.
  QTextCursor Side(m_pSidebar->document());
  Side.movePosition(QTextCursor::End);
  if (!m_pSidebar->document()->isEmpty()) Side.insertBlock();
  Side.insertText(QString::asprintf("%llu.%03llu", (unsigned long long)(e.TimeMS / 1000), (unsigned long long)(e.TimeMS % 1000)));
  for (U32 i = 1; i < e.LineCount; ++i) Side.insertBlock();
  const bool Show = SysVars::GetValue(PREF_SHOW_TIMESTAMPS_CONSOLE) != 0 && !m_pOutput->document()->isEmpty();
  m_pSidebar->setFixedWidth(Show ? m_pSidebar->fontMetrics().horizontalAdvance(QStringLiteral("0000.000")) + 10 : 0);
}

void CConsoleWindow::OnCommandEntered() {
  const QString sLine = m_pInput->text();
  m_pInput->AddToHistory(sLine);
  m_pInput->clear();
  emit CommandEntered(sLine);
  if (sLine.trimmed().isEmpty()) {
    ConsolePrintLine(QString());
    return;
  }
  ExecuteCommand(sLine);
}
