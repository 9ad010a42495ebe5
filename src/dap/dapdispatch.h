// The request side of the Debug Adapter Protocol: turns message bodies into
// requests, checks their form and order, runs the handler registered for the
// command and sends its response; sends events. Knows nothing of the target.
#pragma once
#include <QByteArray>
#include <QHash>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <functional>

// What a handler answers: success with a body, or failure with the text the
// console would print. After, when set, runs once the response is out (the
// events a request causes follow its response).
struct DAP_REPLY {
  bool Ok = true;
  QJsonObject Body;
  QString sError;
  std::function<void()> After;
  static DAP_REPLY Fail(const QString& sText) {
    DAP_REPLY r;
    r.Ok = false;
    r.sError = sText;
    return r;
  }
  static DAP_REPLY Done(const QJsonObject& Body = {}) {
    DAP_REPLY r;
    r.Body = Body;
    return r;
  }
};

class CDapDispatcher {
 public:
  using SEND = std::function<void(const QByteArray& Body)>;
  using HANDLER = std::function<DAP_REPLY(const QJsonObject& Args)>;
  using LOG = std::function<void(const QString& sLine)>;

  CDapDispatcher(SEND Send, LOG Log);
  // Registers the handler of a command. Before initialize only initialize
  // (and disconnect) are answered; the others fail with an order error.
  void On(const QString& sCommand, HANDLER Handler);
  // One message body from the framer. A body that is not a request object
  // with seq and command is dropped with a log line (a request with a seq
  // but a bad form gets an error response). A request that arrives while a
  // handler runs (handlers may process events while they wait) is queued
  // and runs after it, in order.
  void HandleBody(const QByteArray& Body);
  void SendEvent(const QString& sEvent, const QJsonObject& Body = {});
  // Called when the last queued request is answered.
  void SetIdleHook(std::function<void()> Fn) { m_Idle = std::move(Fn); }
  bool IsInitialized() const { return m_bInitialized; }
  // A handler runs (events that follow a response wait for it).
  bool IsBusy() const { return m_bBusy; }
  // Requests received and answered, for the log and the tests.
  int AnsweredCount() const { return m_nAnswered; }

 private:
  void Dispatch(const QJsonObject& Request);
  void Respond(const QJsonObject& Request, const DAP_REPLY& Reply);
  void Send(QJsonObject Message);

  SEND m_Send;
  LOG m_Log;
  QHash<QString, HANDLER> m_Handlers;
  QList<QJsonObject> m_Queue;
  std::function<void()> m_Idle;
  bool m_bBusy = false;
  bool m_bInitialized = false;
  int m_Seq = 1;
  int m_nAnswered = 0;
};
