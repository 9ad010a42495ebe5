// The Debug Adapter Protocol server of `tavit -dap`: the transport (standard
// input and output, or one client on a loopback TCP port), the framer, the
// dispatcher and the adapter. Runs inside the application's event loop.
#pragma once
#include <QObject>
#include <atomic>
#include <memory>

class CDapFramer;
class CDapDispatcher;
class CDapAdapter;
class QTcpServer;
class QTcpSocket;

class CDapServer : public QObject {
  Q_OBJECT
 public:
  explicit CDapServer(QObject* pParent = nullptr);
  ~CDapServer() override;
  // Standard input and output carry the protocol; what the process would
  // print on standard output goes to standard error instead.
  bool StartStdio();
  // Listens on 127.0.0.1:Port for one client; false when the port is taken.
  bool StartTcp(int Port);
  // Bytes from the client (any transport, and the fuzz test).
  void Feed(const QByteArray& Bytes);

 signals:
  // The session is over: disconnect, or the client went away.
  void Finished();

 private:
  void Write(const QByteArray& Body);
  void OnInputEnd();

  std::unique_ptr<CDapFramer> m_pFramer;
  std::unique_ptr<CDapDispatcher> m_pDispatcher;
  CDapAdapter* m_pAdapter = nullptr;
  int m_OutFd = -1;
  QTcpServer* m_pTcp = nullptr;
  QTcpSocket* m_pClient = nullptr;
  bool m_bDone = false;
  std::shared_ptr<std::atomic<bool>> m_pAlive = std::make_shared<std::atomic<bool>>(true);
};
