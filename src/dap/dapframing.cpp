#include "dap/dapframing.h"

#include <QList>

QByteArray CDapFramer::Frame(const QByteArray& Body) {
  return "Content-Length: " + QByteArray::number(Body.size()) + "\r\n\r\n" + Body;
}

int CDapFramer::Next(QByteArray* pBody, QString* psError) {
  const qsizetype End = m_Buffer.indexOf("\r\n\r\n");
  if (End < 0) {
    // A header that grows without end is garbage: drop it, keep the tail
    // that may begin the next header.
    if (m_Buffer.size() > kMaxHeaderBytes) {
      m_Buffer = m_Buffer.right(3);
      *psError = QStringLiteral("header longer than %1 bytes dropped").arg(kMaxHeaderBytes);
      return DAP_FRAME_BAD_HEADER;
    }
    return DAP_FRAME_NEED_MORE;
  }
  const QByteArray Header = m_Buffer.left(End);
  qint64 Length = -1;
  QString sError;
  if (End > kMaxHeaderBytes) sError = QStringLiteral("header longer than %1 bytes").arg(kMaxHeaderBytes);
  for (const QByteArray& Line : Header.split('\n')) {
    if (!sError.isEmpty()) break;
    const QByteArray l = Line.endsWith('\r') ? Line.chopped(1) : Line;
    const qsizetype Colon = l.indexOf(':');
    if (Colon <= 0) {
      if (!l.trimmed().isEmpty()) sError = QStringLiteral("malformed header line");
      continue;
    }
    if (l.left(Colon).trimmed().toLower() != "content-length") continue;  // other fields are ignored
    const QByteArray v = l.mid(Colon + 1).trimmed();
    bool Ok = !v.isEmpty();
    for (char c : v) Ok = Ok && c >= '0' && c <= '9';
    const qint64 n = Ok && v.size() <= 12 ? v.toLongLong(&Ok) : -1;
    if (!Ok || n < 0) sError = QStringLiteral("bad Content-Length \"%1\"").arg(QString::fromLatin1(v.left(40)));
    else if (n > kMaxBodyBytes) sError = QStringLiteral("Content-Length %1 exceeds %2 bytes").arg(n).arg(kMaxBodyBytes);
    else Length = n;
  }
  if (sError.isEmpty() && Length < 0) sError = QStringLiteral("missing Content-Length");
  if (!sError.isEmpty()) {
    // The stream goes on at the next header that names a length (after the
    // start, so that a bad one is passed); without one, behind this block.
    const qsizetype Next = m_Buffer.toLower().indexOf("content-length", 1);
    m_Buffer.remove(0, Next > 0 ? Next : End + 4);
    *psError = sError;
    return DAP_FRAME_BAD_HEADER;
  }
  if (m_Buffer.size() - (End + 4) < Length) return DAP_FRAME_NEED_MORE;
  *pBody = m_Buffer.mid(End + 4, Length);
  m_Buffer.remove(0, End + 4 + Length);
  return DAP_FRAME_MESSAGE;
}
