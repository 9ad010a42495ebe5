#include "dap/dapdispatch.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>

CDapDispatcher::CDapDispatcher(SEND Send, LOG Log) : m_Send(std::move(Send)), m_Log(std::move(Log)) {}

void CDapDispatcher::On(const QString& sCommand, HANDLER Handler) { m_Handlers.insert(sCommand, std::move(Handler)); }

void CDapDispatcher::Send(QJsonObject Message) {
  Message.insert(QStringLiteral("seq"), m_Seq++);
  m_Send(QJsonDocument(Message).toJson(QJsonDocument::Compact));
}

void CDapDispatcher::SendEvent(const QString& sEvent, const QJsonObject& Body) {
  QJsonObject m{{QStringLiteral("type"), QStringLiteral("event")}, {QStringLiteral("event"), sEvent}};
  if (!Body.isEmpty()) m.insert(QStringLiteral("body"), Body);
  Send(m);
}

void CDapDispatcher::Respond(const QJsonObject& Request, const DAP_REPLY& Reply) {
  QJsonObject m{{QStringLiteral("type"), QStringLiteral("response")},
                {QStringLiteral("request_seq"), Request.value(QStringLiteral("seq")).toInteger()},
                {QStringLiteral("command"), Request.value(QStringLiteral("command")).toString()},
                {QStringLiteral("success"), Reply.Ok}};
  if (Reply.Ok) {
    if (!Reply.Body.isEmpty()) m.insert(QStringLiteral("body"), Reply.Body);
  } else {
    m.insert(QStringLiteral("message"), Reply.sError);
    QJsonObject Error{{QStringLiteral("id"), 1}, {QStringLiteral("format"), Reply.sError},
                      {QStringLiteral("showUser"), false}};
    m.insert(QStringLiteral("body"), QJsonObject{{QStringLiteral("error"), Error}});
  }
  ++m_nAnswered;
  Send(m);
}

void CDapDispatcher::HandleBody(const QByteArray& Body) {
  QJsonParseError Err{};
  const QJsonDocument Doc = QJsonDocument::fromJson(Body, &Err);
  if (Err.error != QJsonParseError::NoError || !Doc.isObject()) {
    m_Log(QStringLiteral("dap: message dropped: %1").arg(Err.error != QJsonParseError::NoError ? Err.errorString()
                                                                                               : QStringLiteral("not an object")));
    return;
  }
  const QJsonObject m = Doc.object();
  const QJsonValue Seq = m.value(QStringLiteral("seq"));
  const bool HasSeq = Seq.isDouble() && Seq.toDouble() == double(Seq.toInteger()) && Seq.toInteger() >= 0;
  const QString sType = m.value(QStringLiteral("type")).toString();
  if (sType == QLatin1String("response") || sType == QLatin1String("event")) {
    m_Log(QStringLiteral("dap: %1 from the client ignored").arg(sType));
    return;
  }
  if (!HasSeq || sType != QLatin1String("request") || !m.value(QStringLiteral("command")).isString()) {
    m_Log(QStringLiteral("dap: message dropped: not a request with seq and command"));
    if (HasSeq && m.value(QStringLiteral("command")).isString()) Respond(m, DAP_REPLY::Fail(QStringLiteral("not a request")));
    return;
  }
  if (m.contains(QStringLiteral("arguments")) && !m.value(QStringLiteral("arguments")).isObject()) {
    Respond(m, DAP_REPLY::Fail(QStringLiteral("arguments must be an object")));
    return;
  }
  m_Queue.append(m);
  if (m_bBusy) return;
  m_bBusy = true;
  while (!m_Queue.isEmpty()) Dispatch(m_Queue.takeFirst());
  m_bBusy = false;
  if (m_Idle) m_Idle();
}

void CDapDispatcher::Dispatch(const QJsonObject& Request) {
  const QString sCommand = Request.value(QStringLiteral("command")).toString();
  const auto It = m_Handlers.constFind(sCommand);
  if (It == m_Handlers.constEnd()) {
    Respond(Request, DAP_REPLY::Fail(QStringLiteral("unknown command: %1").arg(sCommand.left(100))));
    return;
  }
  const bool IsInit = sCommand == QLatin1String("initialize");
  if (IsInit && m_bInitialized) {
    Respond(Request, DAP_REPLY::Fail(QStringLiteral("already initialized")));
    return;
  }
  if (!IsInit && !m_bInitialized && sCommand != QLatin1String("disconnect")) {
    Respond(Request, DAP_REPLY::Fail(QStringLiteral("request before initialize: %1").arg(sCommand)));
    return;
  }
  const DAP_REPLY Reply = (*It)(Request.value(QStringLiteral("arguments")).toObject());
  if (IsInit && Reply.Ok) m_bInitialized = true;
  Respond(Request, Reply);
  if (Reply.After) Reply.After();
}
