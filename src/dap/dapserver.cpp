#include "dap/dapserver.h"

#include "dap/dapadapter.h"
#include "dap/dapframing.h"
#include "log/log.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <cstdio>
#include <thread>
#include <unistd.h>

CDapServer::CDapServer(QObject* pParent) : QObject(pParent), m_pFramer(std::make_unique<CDapFramer>()) {
  m_pDispatcher = std::make_unique<CDapDispatcher>([this](const QByteArray& Body) { Write(Body); },
                                                   [](const QString& sLine) {
                                                     LogWarning(sLine);
                                                     fprintf(stderr, "%s\n", qPrintable(sLine));
                                                   });
  m_pAdapter = new CDapAdapter(m_pDispatcher.get(), this);
  connect(m_pAdapter, &CDapAdapter::Finished, this, [this] {
    if (m_bDone) return;
    m_bDone = true;
    emit Finished();
  });
}

CDapServer::~CDapServer() {
  *m_pAlive = false;
  delete m_pAdapter;
  m_pAdapter = nullptr;
}

void CDapServer::Write(const QByteArray& Body) {
  const QByteArray Framed = CDapFramer::Frame(Body);
  if (m_pClient) {
    m_pClient->write(Framed);
    m_pClient->flush();
    return;
  }
  if (m_OutFd < 0) return;
  for (qsizetype At = 0; At < Framed.size();) {
    const ssize_t n = ::write(m_OutFd, Framed.constData() + At, size_t(Framed.size() - At));
    if (n <= 0) return;  // the client is gone; its end of input follows
    At += n;
  }
}

void CDapServer::Feed(const QByteArray& Bytes) {
  m_pFramer->Feed(Bytes);
  for (;;) {
    QByteArray Body;
    QString sError;
    const int r = m_pFramer->Next(&Body, &sError);
    if (r == CDapFramer::DAP_FRAME_NEED_MORE) break;
    if (r == CDapFramer::DAP_FRAME_BAD_HEADER) {
      const QString s = QStringLiteral("dap: ") + sError;
      LogWarning(s);
      fprintf(stderr, "%s\n", qPrintable(s));
      continue;
    }
    m_pDispatcher->HandleBody(Body);
  }
}

void CDapServer::OnInputEnd() {
  if (m_bDone) return;
  if (m_pAdapter) m_pAdapter->OnClientGone();
}

bool CDapServer::StartStdio() {
  // The protocol owns the original standard output; stray prints of the
  // process land on standard error.
  fflush(stdout);
  m_OutFd = ::dup(STDOUT_FILENO);
  if (m_OutFd < 0 || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) return false;
  // A blocking reader thread hands each chunk to the event loop.
  // The server may be gone while the thread still waits for input at exit:
  // the thread then hands nothing over.
  std::shared_ptr<std::atomic<bool>> pAlive = m_pAlive;
  std::thread([this, pAlive] {
    char acBuf[65536];
    for (;;) {
      const ssize_t n = ::read(STDIN_FILENO, acBuf, sizeof(acBuf));
      if (n <= 0 || !*pAlive) break;
      const QByteArray Chunk(acBuf, qsizetype(n));
      QMetaObject::invokeMethod(this, [this, Chunk] { Feed(Chunk); }, Qt::QueuedConnection);
    }
    if (*pAlive) QMetaObject::invokeMethod(this, [this] { OnInputEnd(); }, Qt::QueuedConnection);
  }).detach();
  return true;
}

bool CDapServer::StartTcp(int Port) {
  m_pTcp = new QTcpServer(this);
  if (!m_pTcp->listen(QHostAddress::LocalHost, quint16(Port))) return false;
  fprintf(stderr, "dap: listening on 127.0.0.1:%d\n", int(m_pTcp->serverPort()));
  connect(m_pTcp, &QTcpServer::newConnection, this, [this] {
    QTcpSocket* s = m_pTcp->nextPendingConnection();
    if (m_pClient) {
      // One client at a time.
      s->close();
      s->deleteLater();
      return;
    }
    m_pClient = s;
    connect(s, &QTcpSocket::readyRead, this, [this, s] { Feed(s->readAll()); });
    connect(s, &QTcpSocket::disconnected, this, [this] { OnInputEnd(); });
  });
  return true;
}
