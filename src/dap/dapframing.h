// Message framing of the Debug Adapter Protocol: a header block of
// "Name: value" lines, each ending in CRLF, an empty line, then exactly
// Content-Length bytes of JSON. The framer collects bytes as they come and
// hands out whole bodies; a broken header is skipped with an error text and
// the stream goes on at the next header that names a length.
#pragma once
#include <QByteArray>
#include <QString>

class CDapFramer {
 public:
  // Results of Next.
  enum RESULT : int {
    DAP_FRAME_NEED_MORE = 0,    // no whole message yet
    DAP_FRAME_MESSAGE = 1,      // *pBody holds one body
    DAP_FRAME_BAD_HEADER = -1,  // a header was dropped; *psError says why
  };
  static constexpr int kMaxHeaderBytes = 8192;
  static constexpr qint64 kMaxBodyBytes = 64 * 1024 * 1024;

  void Feed(const QByteArray& Bytes) { m_Buffer.append(Bytes); }
  int Next(QByteArray* pBody, QString* psError);
  // Bytes held that are not yet a whole message.
  qsizetype Pending() const { return m_Buffer.size(); }

  // The framed form of a body.
  static QByteArray Frame(const QByteArray& Body);

 private:
  QByteArray m_Buffer;
};
