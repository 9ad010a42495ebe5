// The log sink, its helpers, the three log file slots and the console ring.
#include "log/log.h"
#include "log/logcapture.h"

#include "log/console.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>
#include <QtGlobal>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <thread>

namespace {

constexpr int kMaxLogChars = 2048;
constexpr qint64 kLogFileLimit = 16000000;
constexpr qint64 kLogFileKeep = 16000;

// The console log file is written by the ring's reader under a mutex of its
// own, so that a writer that waits for ring space while holding the sink's
// mutex never blocks the reader. Order: sink mutex before this one.
std::mutex g_ConsoleFileMutex;

std::recursive_mutex& SinkMutex() {
  static std::recursive_mutex m;
  return m;
}

struct LOG_STATE {
  QFile* apFile[3] = {nullptr, nullptr, nullptr};
  bool DebugMode = false;
  QString sInterval;
  int Interval = -1;       // taken from the interval text on the first write
  QByteArray Buffer;       // application log text not yet written
};
LOG_STATE& State() {
  static LOG_STATE s;
  return s;
}

std::atomic<Qt::HANDLE> g_UiThread{nullptr};
std::atomic<int> g_ErrorMessages{0};
CLogCapture* g_pCapture = nullptr;  // the innermost capture, guarded by the sink mutex

// Console ring.
CONSOLE_ENTRY g_aRing[CONSOLE_RING_SIZE];
std::atomic<bool> g_RingActive{false};
int g_RingHead = 0;
int g_RingRead = 0;
std::mutex g_RingWriteMutex;
QElapsedTimer g_UiClock, g_OtherClock;
std::function<void()> g_OverflowDrain;

const char* PrefixOf(U32 Flags) {
  if (Flags & MSG_ERROR) return "[E] ";
  if (Flags & MSG_WARNING) return "[W] ";
  if (Flags & MSG_INFO) return " i  ";
  return "";
}

void CloseSlot(int Kind) {
  LOG_STATE& s = State();
  if (Kind == LOG_FILE_APP && s.apFile[Kind] && !s.Buffer.isEmpty()) {
    WriteLogFile(s.apFile[Kind], s.Buffer);
    s.Buffer.clear();
  }
  std::lock_guard<std::mutex> Lock(g_ConsoleFileMutex);
  delete s.apFile[Kind];
  s.apFile[Kind] = nullptr;
}

}  // namespace

// The log file rule: a file above 16,000,000 bytes is cut back to its first
// 16000 bytes, then the data is written and flushed.
void WriteLogFile(QFile* pFile, const QByteArray& Data) {
  if (!pFile || !pFile->isOpen()) return;
  if (pFile->size() > kLogFileLimit) {
    pFile->resize(kLogFileKeep);
    pFile->seek(kLogFileKeep);
  }
  pFile->write(Data);
  pFile->flush();
}

QFile* GetLogFile(int Kind) {
  if (Kind < 0 || Kind > 2) return nullptr;
  return State().apFile[Kind];
}

int LogMessage(const QString& sText, U32 Flags) {
  if (sText.isEmpty()) return -1;
  std::lock_guard<std::recursive_mutex> Lock(SinkMutex());
  if (HoldCapturedMessage(sText, Flags)) return 0;
  if (Flags & MSG_ERROR) ++g_ErrorMessages;
  LOG_STATE& st = State();
  QString s = sText.left(kMaxLogChars);
  qsizetype n = s.size();
  while (n > 0 && (s[n - 1] == QLatin1Char('\n') || s[n - 1] == QLatin1Char('\r') || s[n - 1] == QLatin1Char(' '))) --n;
  s.truncate(n);
  if (!s.isEmpty()) s[0] = s[0].toUpper();

  if (Flags & (MSG_CONSOLE | MSG_ALL)) {
    if (Flags & MSG_ERROR) ConsolePrintLine(s, 0, false, 25 /* COLOR_LOGGING_ERROR */);
    else if (Flags & MSG_VORDEN) ConsolePrintLine(s, 0xFF00008Bu);
    else ConsolePrintLine(s);
  }
  const char* sPrefix = PrefixOf(Flags);
  if ((Flags & (MSG_STDOUT | MSG_ALL)) && st.DebugMode) {
    const QByteArray Line = QByteArray(sPrefix) + s.toLocal8Bit() + '\n';
    fwrite(Line.constData(), 1, size_t(Line.size()), stdout);
    fflush(stdout);
  }
  if (!(Flags & (MSG_FILE | MSG_ALL))) return 0;
  QFile* f = st.apFile[LOG_FILE_APP];
  if (f) {
    if (st.Interval < 0) {
      bool ok = false;
      st.Interval = st.sInterval.trimmed().toInt(&ok);
      if (!ok || st.Interval < 1) st.Interval = 512;
    }
    QByteArray Line = s.toLocal8Bit();
    if (!Line.startsWith(sPrefix)) Line.prepend(sPrefix);
    st.Buffer += Line + '\n';
    // Nothing is lost: the text that fills the buffer goes out with it, and
    // an error is written at once.
    if (st.Buffer.size() >= st.Interval || (Flags & MSG_ERROR)) {
      WriteLogFile(f, st.Buffer);
      st.Buffer.clear();
    }
  }
  return 0;
}

int LogMessage(const char* sText, U32 Flags) {
  if (!sText || !*sText) return -1;
  return LogMessage(QString::fromLocal8Bit(sText), Flags);
}

int LogScript(const QString& sText) { return LogMessage(sText, MSG_INFO | MSG_FILE | MSG_OWN); }
int LogInfo(const QString& sText) { return LogMessage(sText, MSG_INFO | MSG_ALL | MSG_OWN); }
int LogWarning(const QString& sText) {
  if (!IsLogFileOpen(LOG_FILE_APP) && !IsDebugMode()) return -1;
  return LogMessage(sText, MSG_WARNING | MSG_STDOUT | MSG_FILE | MSG_OWN);
}
int LogError(const QString& sText) { return LogMessage(sText, MSG_ERROR | MSG_ALL | MSG_OWN); }

void SetLogFile(int Kind, const QString& sPath) {
  if (Kind < 0 || Kind > 2) return;
  std::lock_guard<std::recursive_mutex> Lock(SinkMutex());
  CloseSlot(Kind);
  if (sPath.isEmpty()) return;
  auto* f = new QFile(sPath.left(511));
  if (!f->open(QIODevice::ReadWrite | QIODevice::Truncate | QIODevice::Text)) {
    delete f;
    return;
  }
  std::lock_guard<std::mutex> FileLock(g_ConsoleFileMutex);
  State().apFile[Kind] = f;
}

bool IsLogFileOpen(int Kind) {
  std::lock_guard<std::recursive_mutex> Lock(SinkMutex());
  return Kind >= 0 && Kind <= 2 && State().apFile[Kind] != nullptr;
}

void LogFlush() {
  std::lock_guard<std::recursive_mutex> Lock(SinkMutex());
  LOG_STATE& st = State();
  if (st.apFile[LOG_FILE_APP] && !st.Buffer.isEmpty()) WriteLogFile(st.apFile[LOG_FILE_APP], st.Buffer);
  st.Buffer.clear();
}

void CloseLogFiles() {
  std::lock_guard<std::recursive_mutex> Lock(SinkMutex());
  for (int k = 0; k < 3; ++k) CloseSlot(k);
}

void SetDebugMode(bool On) { State().DebugMode = On; }
bool IsDebugMode() { return State().DebugMode; }
void SetLogInterval(const QString& sInterval) {
  std::lock_guard<std::recursive_mutex> Lock(SinkMutex());
  State().sInterval = sInterval;
  State().Interval = -1;
}

QString LogTimeText(qint64 Microseconds) {
  return QString::asprintf("%d:%03d ms", int(Microseconds / 1000), int(Microseconds % 1000));
}

// ---------------------------------------------------------------- toolkit messages

static void QtMessageToLog(QtMsgType Type, const QMessageLogContext&, const QString& sMsg) {
  U32 Flags;
  switch (Type) {
    case QtDebugMsg: Flags = 25; break;
    case QtWarningMsg: Flags = 26; break;
    case QtCriticalMsg:
    case QtFatalMsg: Flags = 60; break;
    default: Flags = 25; break;
  }
  Flags |= MSG_QT;
  if (!IsLogFileOpen(LOG_FILE_APP) && !IsDebugMode() && !(Flags & MSG_CONSOLE)) return;
  LogMessage(sMsg, Flags);
}

void InstallLogMessageHandler() { qInstallMessageHandler(QtMessageToLog); }

// ---------------------------------------------------------------- console ring

void SetUiThread() { g_UiThread = QThread::currentThreadId(); }
bool IsUiThread() { return g_UiThread.load() == QThread::currentThreadId(); }

void ConsoleRingStart() {
  std::lock_guard<std::mutex> Lock(g_RingWriteMutex);
  for (CONSOLE_ENTRY& e : g_aRing) e.IsInUse = 0;
  g_RingHead = g_RingRead = 0;
  g_UiClock.start();
  g_OtherClock.start();
  g_RingActive = true;
}

void ConsoleRingStop() { g_RingActive = false; }
bool IsConsoleRingActive() { return g_RingActive; }

void SetConsoleOverflowDrain(const std::function<void()>& Fn) { g_OverflowDrain = Fn; }

static void RingPut(const QString& sText, bool NewLine, U32 Color, bool UseCodeFont, int ColorID) {
  if (!g_RingActive) return;
  const QString s = sText.left(CONSOLE_MAX_TEXT);
  const bool Ui = IsUiThread();
  for (int Try = 0;; ++Try) {
    {
      std::lock_guard<std::mutex> Lock(g_RingWriteMutex);
      CONSOLE_ENTRY& e = g_aRing[g_RingHead];
      if (!__atomic_load_n(&e.IsInUse, __ATOMIC_ACQUIRE)) {
        const QByteArray u = s.toUtf8();
        const size_t n = std::min<size_t>(size_t(u.size()), sizeof(e.Text) - 1);
        memcpy(e.Text, u.constData(), n);
        e.Text[n] = 0;
        e.NewLine = NewLine;
        e.UseCodeFont = UseCodeFont;
        e.Color = Color;
        e.ColorID = ColorID;
        e.LineCount = 1 + U32(s.count(QLatin1Char('\n')));
        e.TimeMS = U64(Ui ? g_UiClock.elapsed() : g_OtherClock.elapsed());
        __atomic_store_n(&e.IsInUse, U8(1), __ATOMIC_RELEASE);
        g_RingHead = (g_RingHead + 1) % CONSOLE_RING_SIZE;
        return;
      }
    }
    // Full ring. Batch mode drains on the user interface thread, and other
    // threads wait a little for it; otherwise the text is dropped.
    if (!g_OverflowDrain) return;
    if (Ui) {
      if (Try > 0) return;
      g_OverflowDrain();
    } else {
      if (Try > 200) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
}

int ConsoleRingTake(const std::function<void(const CONSOLE_ENTRY&)>& Fn, int Max) {
  int n = 0;
  while (n < Max) {
    CONSOLE_ENTRY& e = g_aRing[g_RingRead];
    if (!__atomic_load_n(&e.IsInUse, __ATOMIC_ACQUIRE)) break;
    CONSOLE_ENTRY Copy;
    memcpy(&Copy, &e, sizeof(Copy));
    __atomic_store_n(&e.IsInUse, U8(0), __ATOMIC_RELEASE);
    g_RingRead = (g_RingRead + 1) % CONSOLE_RING_SIZE;
    ++n;
    if (Fn) Fn(Copy);
    std::lock_guard<std::mutex> Lock(g_ConsoleFileMutex);
    if (QFile* f = State().apFile[LOG_FILE_CONSOLE]) {
      QByteArray t(Copy.Text);
      if (Copy.NewLine) t += '\n';
      WriteLogFile(f, t);
    }
  }
  return n;
}

void ConsolePrint(const QString& sText, U32 Color, bool UseCodeFont, int ColorID) {
  RingPut(sText, false, Color, UseCodeFont, ColorID);
}

void ConsolePrintLine(const QString& sText, U32 Color, bool UseCodeFont, int ColorID) {
  RingPut(sText, true, Color, UseCodeFont, ColorID);
}

void ConsolePrintLines(const QStringList& Lines, U32 Color, bool UseCodeFont, int ColorID) {
  for (const QString& s : Lines) ConsolePrintLine(s, Color, UseCodeFont, ColorID);
}

int GetErrorMessageCount() { return g_ErrorMessages; }

int OnDeviceLogMsg(const char* sMsg, U32 Flags) {
  if (!sMsg || !*sMsg) return -1;
  // Skip the work when no channel would take the text.
  const bool Console = (Flags & (MSG_CONSOLE | MSG_ALL)) && IsConsoleRingActive();
  const bool Stdout = (Flags & (MSG_STDOUT | MSG_ALL)) && IsDebugMode();
  const bool File = (Flags & (MSG_FILE | MSG_ALL)) && IsLogFileOpen(LOG_FILE_APP);
  if (!Console && !Stdout && !File) return 0;
  return LogMessage(sMsg, Flags | MSG_VORDEN);
}

// ---------------------------------------------------------------- capture

bool HoldCapturedMessage(const QString& sText, U32 Flags) {
  std::lock_guard<std::recursive_mutex> Lock(SinkMutex());
  if (!g_pCapture || !(Flags & g_pCapture->m_Mask)) return false;
  g_pCapture->m_Held.append({sText, Flags});
  return true;
}

CLogCapture::CLogCapture(U32 Mask) : m_Mask(Mask) {
  std::lock_guard<std::recursive_mutex> Lock(SinkMutex());
  m_pOuter = g_pCapture;
  g_pCapture = this;
}

CLogCapture::~CLogCapture() { Release(); }

QStringList CLogCapture::Texts() const {
  std::lock_guard<std::recursive_mutex> Lock(SinkMutex());
  QStringList l;
  for (const auto& m : m_Held) l.append(m.first);
  return l;
}

void CLogCapture::Discard() {
  std::lock_guard<std::recursive_mutex> Lock(SinkMutex());
  m_Held.clear();
}

void CLogCapture::Release() {
  QList<QPair<QString, U32>> Held;
  {
    std::lock_guard<std::recursive_mutex> Lock(SinkMutex());
    if (!m_Active) return;
    m_Active = false;
    // Captures end in the reverse order of their start.
    if (g_pCapture == this) g_pCapture = m_pOuter;
    Held.swap(m_Held);
  }
  for (const auto& m : Held) LogMessage(m.first, m.second);
}
