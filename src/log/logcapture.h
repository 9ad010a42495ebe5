// Capturing log messages for a moment, so that a caller can fold them into
// a message of its own.
#pragma once
#include "common/types.h"
#include <QList>
#include <QPair>
#include <QString>
#include <QStringList>

// Holds back the messages whose flags meet Mask while it lives, so that a
// caller can fold them into one message of its own (File.Open names the file
// and the ELF layer's reason in one error). Release (or the destructor)
// passes what is still held on to the sink; Discard drops it.
class CLogCapture {
 public:
  explicit CLogCapture(U32 Mask);
  ~CLogCapture();
  CLogCapture(const CLogCapture&) = delete;
  CLogCapture& operator=(const CLogCapture&) = delete;
  QStringList Texts() const;
  void Discard();
  void Release();

 private:
  friend bool HoldCapturedMessage(const QString& sText, U32 Flags);
  U32 m_Mask;
  bool m_Active = true;
  CLogCapture* m_pOuter = nullptr;
  QList<QPair<QString, U32>> m_Held;
};

// Called by the sink: true when an active capture took the message.
bool HoldCapturedMessage(const QString& sText, U32 Flags);
