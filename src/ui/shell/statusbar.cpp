#include "ui/shell/statusbar.h"

#include <QLabel>
#include <QProgressBar>
#include <QThread>
#include <QTimer>
#include <QToolButton>

CStatusBar::CStatusBar(QWidget* pParent) : QStatusBar(pParent) {
  setObjectName(QStringLiteral("StatusBar"));
  m_pStatus = new QLabel(this);
  m_pProgressText = new QLabel(this);
  m_pBar = new QProgressBar(this);
  m_pBar->setMaximumWidth(160);
  m_pBar->setMaximumHeight(14);
  m_pBar->setTextVisible(false);
  m_pCancel = new QToolButton(this);
  m_pCancel->setText(QStringLiteral("Cancel"));
  m_pCancel->setToolTip(QStringLiteral("Cancel"));
  m_pCancel->setAutoRaise(true);
  m_pWindowStatus = new QLabel(this);
  m_pConnection = new QLabel(this);
  m_pCursor = new QLabel(this);
  m_pStatus->setMinimumWidth(160);
  addWidget(m_pStatus, 1);
  addWidget(m_pProgressText);
  addWidget(m_pBar);
  addWidget(m_pCancel);
  addPermanentWidget(m_pWindowStatus);
  addPermanentWidget(m_pConnection);
  addPermanentWidget(m_pCursor);
  m_pBar->hide();
  m_pCancel->hide();
  m_pTimer = new QTimer(this);
  m_pTimer->setSingleShot(true);
  m_pTimer->setInterval(20);
  connect(m_pTimer, &QTimer::timeout, this, &CStatusBar::OnTimerTimeout);
  connect(m_pCancel, &QToolButton::clicked, this, &CStatusBar::OnButtonCancelClicked);
  connect(this, &QStatusBar::messageChanged, this, &CStatusBar::OnTempStatusMsgChanged);
  OnTimerTimeout();
  m_nPaints = 0;
}

void CStatusBar::Schedule() {
  if (!m_pTimer->isActive()) m_pTimer->start();
}

void CStatusBar::SetProgressValue(int Value) {
  m_ProgressValue = Value;
  Schedule();
}

int CStatusBar::GetWindowActionTextWidth() const { return m_pWindowStatus->fontMetrics().horizontalAdvance(m_sWindowStatus); }

void CStatusBar::StartProgress(int Minimum, int Maximum) {
  m_ProgressMin = Minimum;
  m_ProgressMax = Maximum;
  m_ProgressValue = Minimum;
  m_ProgressActive = true;
  m_Canceled = false;
  Schedule();
}

void CStatusBar::EndProgress() {
  m_ProgressActive = false;
  m_sProgress.clear();
  Schedule();
}

void CStatusBar::SetStatusMessage(const QString& Message) {
  m_sStatus = Message;
  Schedule();
}

void CStatusBar::SetProgressMessage(const QString& Message) {
  m_sProgress = Message;
  Schedule();
}

void CStatusBar::SetConnectionInfo(const QString& Info) {
  m_sConnection = Info;
  Schedule();
}

void CStatusBar::SetActiveWindowStatus(const QString& Text) {
  m_sWindowStatus = Text;
  Schedule();
}

void CStatusBar::SetCursorText(const QString& Text) {
  m_sCursor = Text;
  Schedule();
}

void CStatusBar::SetFont(const QFont& Font) {
  m_Font = Font;
  m_FontChanged = true;
  Schedule();
}

void CStatusBar::OnTempStatusMsgChanged(const QString& Message) {
  // A status tip of a menu item is painted by the bar itself over the
  // fields while it lasts; the fields come back when it ends.
  m_sTemp = Message;
  if (Message.isEmpty()) Schedule();
}

void CStatusBar::OnButtonCancelClicked() {
  m_Canceled = true;
  emit Canceled();
}

void CStatusBar::PaintNow(bool Force) {
  if (QThread::currentThread() != thread()) return;
  if (!Force && m_LastPaintNow.isValid() && m_LastPaintNow.elapsed() < 50) return;
  m_LastPaintNow.start();
  m_pTimer->stop();
  OnTimerTimeout();
  repaint();
}

void CStatusBar::OnTimerTimeout() {
  ++m_nPaints;
  if (m_FontChanged) {
    for (QWidget* w : {static_cast<QWidget*>(m_pStatus), static_cast<QWidget*>(m_pProgressText),
                       static_cast<QWidget*>(m_pWindowStatus), static_cast<QWidget*>(m_pConnection),
                       static_cast<QWidget*>(m_pCursor)})
      w->setFont(m_Font);
    m_FontChanged = false;
  }
  m_pStatus->setText(m_sStatus);
  m_pProgressText->setText(m_sProgress);
  m_pProgressText->setVisible(!m_sProgress.isEmpty());
  m_pWindowStatus->setText(m_sWindowStatus);
  m_pWindowStatus->setVisible(!m_sWindowStatus.isEmpty());
  m_pConnection->setText(m_sConnection);
  m_pCursor->setText(m_sCursor);
  if (m_ProgressActive) {
    m_pBar->setRange(m_ProgressMin, m_ProgressMax);
    if (m_ProgressMax > m_ProgressMin) m_pBar->setValue(m_ProgressValue);
  }
  m_pBar->setVisible(m_ProgressActive);
  m_pCancel->setVisible(m_ProgressActive);
}
