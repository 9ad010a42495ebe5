#include "app/batch.h"

#include "commands/actions.h"
#include "device/device.h"
#include "device/module.h"
#include "log/console.h"
#include "log/log.h"
#include "session/debugsession.h"
#include "ui/shell/consolewindow.h"
#include "ui/shell/mainwindow.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThread>
#include <QFile>
#include <QTextStream>
#include <QTimer>
#include <cstdio>

bool ReadBatchFile(const QString& sPath, QStringList* pLines) {
  QFile f;
  if (sPath == QLatin1String("-")) {
    if (!f.open(stdin, QIODevice::ReadOnly | QIODevice::Text)) return false;
  } else {
    f.setFileName(sPath);
    if (sPath.isEmpty() || !f.open(QIODevice::ReadOnly | QIODevice::Text)) return false;
  }
  const QString sAll = QString::fromUtf8(f.readAll());
  *pLines = sAll.split(QLatin1Char('\n'));
  return true;
}

// How long the halt at a line's time limit may take to be reported: a
// server on a loaded machine answers slowly, but a target that never stops
// must not hold the run.
static constexpr qint64 kHaltAfterLimitMs = 10000;

static void WriteOut(const QByteArray& s) {
  fwrite(s.constData(), 1, size_t(s.size()), stdout);
  fputc('\n', stdout);
}

CBatchRunner::CBatchRunner(CMainWindow* pMain, const QStringList& Lines, int TimeLimitS, std::shared_ptr<bool> pStartOk)
    : m_pMain(pMain), m_Lines(Lines), m_TimeLimitS(TimeLimitS), m_pStartOk(std::move(pStartOk)) {
  // The window does not read the ring; this runner does, and a full ring is
  // drained at once so that no text is lost.
  pMain->ConsoleWindow()->SetDrawingEnabled(false);
  SetConsoleOverflowDrain([this] { Drain(); });
}

CBatchRunner::~CBatchRunner() { SetConsoleOverflowDrain(nullptr); }

void CBatchRunner::Drain() {
  ConsoleRingTake([](const CONSOLE_ENTRY& e) { WriteOut(QByteArray(e.Text)); });
  fflush(stdout);
}

// A line that resumed the target returns when the target has halted and the
// session has finished with the halt. At the line's time limit the target is
// halted and the line counts as failed.
bool CBatchRunner::WaitForHalt() {
  CDebugSession* pSession = SessionModule::DebugSession();
  if (!pSession || !pSession->IsAwaitingHalt()) return true;
  while (pSession->IsAwaitingHalt()) {
    const qint64 Left = CommandTimeLeftMs();
    if (m_TimeLimitS > 0 && Left <= 0) break;
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    if (!pSession->IsAwaitingHalt()) break;
    QThread::msleep(1);
  }
  if (!pSession->IsAwaitingHalt()) return true;
  pSession->ExpectHalt(false);
  if (CDevice* d = CDevice::InstanceIfCreated(); d && d->IsConnected()) {
    d->PostHalt();
    // The halt job only asks the target to stop; the worker's next poll sees
    // it stand and ends the halt sequence. The next line needs that done.
    QElapsedTimer t;
    t.start();
    while (d->IsConnected() && !d->HaltReported() && t.elapsed() < kHaltAfterLimitMs) {
      d->WaitIdle(10);
      QThread::msleep(1);
    }
    d->WaitIdle(2000);
  }
  ConsolePrintLine(QStringLiteral("batch: target did not halt within %1 s; halted it").arg(m_TimeLimitS));
  return false;
}

void CBatchRunner::Start() { QTimer::singleShot(0, this, &CBatchRunner::Run); }

void CBatchRunner::Run() {
  // The project of the command line opens here: a missing project, one that
  // does not parse or stops with a script error fails the run.
  const int StartErrors = GetCommandErrorCount() + GetErrorMessageCount();
  m_pMain->RunWindowShown();
  Drain();
  if ((m_pStartOk && !*m_pStartOk) || GetCommandErrorCount() + GetErrorMessageCount() != StartErrors) m_HadError = true;
  for (const QString& sRaw : m_Lines) {
    QString sLine = sRaw;
    if (sLine.endsWith(QLatin1Char('\r'))) sLine.chop(1);
    const QString sTrim = sLine.trimmed();
    if (sTrim.isEmpty() || sTrim.startsWith(QLatin1Char('#'))) continue;
    const int Errors = GetCommandErrorCount() + GetErrorMessageCount();
    m_pMain->ConsoleWindow()->Input()->AddToHistory(sLine);
    int Id = -1;
    // Waits of the line (Util.Sleep, device jobs) end at the time limit.
    SetCommandDeadline(m_TimeLimitS > 0 ? qint64(m_TimeLimitS) * 1000 : -1, m_TimeLimitS);
    // Without a change of focus, a rebuilt program file is noticed here; its
    // reload restarts the program before the line runs.
    if (CDebugSession* pSession = SessionModule::DebugSession(); pSession && pSession->CheckProgramFileChanged()) {
      DeviceModule::WaitUntilIdle(int(m_TimeLimitS > 0 ? m_TimeLimitS * 1000 : 130000));
      if (!WaitForHalt()) m_HadError = true;
      SetCommandDeadline(m_TimeLimitS > 0 ? qint64(m_TimeLimitS) * 1000 : -1, m_TimeLimitS);
    }
    const int r = ExecuteCommand(sLine, &Id);
    if (r == 1 && Id >= 0) WaitForCommand(Id);
    if (!WaitForHalt()) m_HadError = true;
    SetCommandDeadline(-1, 0);
    QCoreApplication::processEvents();
    Drain();
    if (r == 1 && Id >= 0) {
      const I64 v = GetActionResult(Id);
      WriteOut(QStringLiteral("=> %1 (0x%2)").arg(v).arg(quint64(v), 0, 16).toUpper().replace(QLatin1String("0X"), QLatin1String("0x")).toUtf8());
      fflush(stdout);
    }
    if (GetCommandErrorCount() + GetErrorMessageCount() != Errors) m_HadError = true;
    if (m_pMain->IsExitRequested() || m_pMain->IsClosing()) break;
  }
  if (!m_pMain->IsClosing()) m_pMain->close();
  Drain();
}

void CBatchRunner::Finish() {
  Drain();
  fflush(stdout);
}
