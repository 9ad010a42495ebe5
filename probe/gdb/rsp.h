// The packet layer of the GDB remote serial protocol: framing with
// checksums, acknowledgements and retransmission, run-length encoded replies,
// binary escapes, and a time-out on every wait. It knows nothing about
// targets; CGdbBackend builds the debugger operations on top of it.
#pragma once

#include <functional>
#include <string>

#include "common/types.h"

namespace vorden {

class CRspLink {
 public:
  using LogFn = std::function<void(int Level, const std::string& sText)>;

  explicit CRspLink(LogFn Log);
  ~CRspLink();
  CRspLink(const CRspLink&) = delete;
  CRspLink& operator=(const CRspLink&) = delete;

  // Connects to "host:port" within TimeoutMs.
  bool ConnectTcp(const std::string& sHost, int Port, int TimeoutMs, std::string& sError);
  // Takes over an already connected stream socket (tests use a socket pair).
  void Adopt(int Fd);
  void Close();
  bool IsOpen() const { return m_fd >= 0 && !m_lost; }
  bool Lost() const { return m_lost; }

  // With acknowledgements off (after QStartNoAckMode) no '+'/'-' is sent or
  // expected.
  void SetAckMode(bool On) { m_ack = On; }
  bool AckMode() const { return m_ack; }
  void SetAckTimeout(int Ms) { m_ackTimeoutMs = Ms; }

  // Sends one packet; in ack mode waits for '+' and retransmits on '-'.
  // false: the connection is lost (closed, no acknowledgement in time, or
  // refused too often).
  bool Send(const std::string& sPayload);
  // Sends bytes outside any packet (the 0x03 interrupt).
  bool SendRaw(const std::string& sBytes);
  // Waits up to TimeoutMs (0: only what is already there) for one packet,
  // acknowledges it and returns its payload with run-length encoding
  // expanded (binary escapes stay; see Unescape).
  // Result: 1 packet, 0 time-out, -1 connection lost.
  int Receive(std::string& sPayload, int TimeoutMs);

  // Statistics for tests and the log.
  int ChecksumErrors() const { return m_csErrors; }
  int Retransmissions() const { return m_retrans; }

  // Helpers shared with the back end.
  static std::string Frame(const std::string& sPayload);   // "$...#cs", escaping '$', '#', '}', '*'
  static std::string Unescape(const std::string& s);
  static bool ExpandRunLength(const std::string& sIn, std::string& sOut);
  static std::string ToHex(const U8* p, size_t n);
  static std::string ToHex(const std::string& s) { return ToHex((const U8*)s.data(), s.size()); }
  static bool FromHex(const std::string& s, std::string& sOut);
  static bool ParseHex(const std::string& s, U64& Value);

 private:
  // Reads what is available within TimeoutMs into m_in; false when the
  // connection closed or failed.
  bool Fill(int TimeoutMs);
  bool WriteAll(const char* p, size_t n);
  // Takes one complete frame from m_in if there is one: 1 good, 0 none yet,
  // -1 a frame with a bad checksum or encoding (already refused).
  int TakeFrame(std::string& sPayload);
  void MarkLost(const char* sWhy);

  LogFn m_log;
  int m_fd = -1;
  bool m_lost = false;
  bool m_ack = true;
  int m_ackTimeoutMs = 1000;
  std::string m_in;
  int m_csErrors = 0;
  int m_retrans = 0;
};

}  // namespace vorden
