// The request layer of the GDB remote serial protocol: one method per packet
// kind, each sending exactly one request and matching exactly one answer to
// it, plus what the server said it supports. It knows packets and replies,
// not targets: which register is the PC, what a breakpoint handle is and when
// to step over something is the back end's business (gdb_backend.cpp).
//
// Return codes of the request methods, unless a method says otherwise:
//   1  the server answered as asked (OK, the data, a stop reply)
//   0  the server refused (an error reply "Exx", or the empty reply of a
//      packet it does not know)
//  -1  the connection is lost (closed, no answer in time, garbage beyond
//      repair); every later request fails at once with -1.
//
// Stop replies that arrive while a request waits for its answer belong to no
// request: the server sent them on its own (an emulator reports the stop of
// a running target when a debugger connects; an interrupt may cross a stop of
// the target's own). They are kept aside (UnsolicitedStop) and never taken as
// the answer to anything. Console output ('O' packets) goes to the log.
#pragma once

#include <string>

#include "gdb/rsp.h"

namespace vorden {

class CGdbClient {
 public:
  using LogFn = CRspLink::LogFn;

  // What the server offers, from qSupported and vCont?.
  struct Caps {
    size_t PacketSize = 400;   // bounds every packet we send and every reply we ask for
    bool Features = false;     // qXfer:features:read
    bool MemoryMap = false;    // qXfer:memory-map:read
    bool NoAck = false;        // acknowledgements are off (QStartNoAckMode accepted)
    bool VCont = false;        // vCont;c and vCont;s
    int BinaryWrite = -1;      // 'X': -1 not tried yet, 0 not supported, 1 supported
  };

  explicit CGdbClient(LogFn Log);
  CGdbClient(const CGdbClient&) = delete;
  CGdbClient& operator=(const CGdbClient&) = delete;

  bool ConnectTcp(const std::string& sHost, int Port, std::string& sError);
  void Adopt(int Fd);  // an already connected stream socket
  void Close();
  bool Lost() const { return m_lost; }
  bool IsOpen() const { return m_link.IsOpen() && !m_lost; }
  // Marks the connection lost (logs the reason once).
  void Lose(const char* sWhy);

  // Every wait for the server, in milliseconds.
  void SetTimeout(int Ms);
  int Timeout() const { return m_timeout; }
  const Caps& Capabilities() const { return m_caps; }

  // qSupported, then QStartNoAckMode when offered and vCont? when vCont is
  // offered. false (with sError) when the server does not answer like a GDB
  // server.
  bool Handshake(std::string& sError);

  // A stop reply the server sent unasked, since the last call (the latest
  // one); false when there was none.
  bool TakeUnsolicitedStop(std::string& sStop);

  // '?': the reason the target stopped. 1 with a stop reply in sStop; 0 when
  // the server answers something else (no stopped target), in sStop too.
  int HaltReason(std::string& sStop);

  // qXfer:<object>:read:<annex>, the whole document in pieces that fit the
  // packet size, at most MaxBytes. 0 also for a malformed or over-long one.
  int ReadXfer(const std::string& sObject, const std::string& sAnnex, std::string& sDoc, size_t MaxBytes = 1 << 20);

  // 'g': all registers as the server's hex text; 'p'/'P': one register as
  // little-endian hex.
  int ReadRegisters(std::string& sHex);
  int ReadRegister(int Num, std::string& sHex);
  int WriteRegister(int Num, const std::string& sHex);

  // 'm': up to Len bytes (a server may answer fewer).
  int ReadMemory(U32 Addr, U32 Len, std::string& sBytes);
  // 'X' with binary data; 2 when the server does not know 'X' (the caller
  // then uses WriteMemoryHex). Writes as many bytes of n as fit one packet;
  // Done says how many.
  int WriteMemoryBinary(U32 Addr, const U8* p, U32 n, U32& Done);
  // 'M' with hex data; as many bytes as fit one packet.
  int WriteMemoryHex(U32 Addr, const U8* p, U32 n, U32& Done);

  // vFlashErase / vFlashWrite (as many bytes as fit one packet) / vFlashDone.
  int FlashErase(U32 Addr, U32 Len);
  int FlashWrite(U32 Addr, const U8* p, U32 n, U32& Done);
  int FlashDone();

  // 'Z'/'z' with type '0'-'4'.
  int InsertPoint(char Type, U32 Addr, U32 Kind);
  int RemovePoint(char Type, U32 Addr, U32 Kind);

  // qRcmd: monitor output collected into sOut; 0 with sError when refused.
  int Monitor(const std::string& sCmd, std::string& sOut, std::string& sError);

  // A packet the server may not know (Qqemu.sstep=..., qqemu.sstepbits):
  // the reply as it is. 1 with the reply (possibly empty), -1 lost.
  int Query(const std::string& sPacket, std::string& sReply);

  // Resuming packets: no answer until the target stops (WaitStop).
  // 'vCont;c' / 'c', 'vCont;s' / 's', the 0x03 interrupt, an 'F' reply to a
  // File-I/O request. false: lost.
  bool Continue();
  bool StepStart();
  bool Interrupt();
  bool FileIoReply(const std::string& sReply);

  // Waits up to TimeoutMs (0: only what has arrived) for a stop reply
  // ('S', 'T', 'W', 'X', 'F'). 1 with the reply, 0 none yet, -1 lost. A
  // stop reply kept aside as unsolicited is taken first.
  int PollStop(std::string& sStop, int TimeoutMs);
  // PollStop with the time-out: no stop in time loses the connection.
  int WaitStop(std::string& sStop);

  // 'D' (the server lets the target run) and 'k' (the server ends it); both
  // close the connection. A short wait for the 'D' answer, none for 'k'.
  void Detach();
  void Kill();

  // How many of n bytes fit one packet after a header of HeaderLen
  // characters, counting the escapes framing adds (at least one).
  U32 FitBinary(const U8* p, U32 n, size_t HeaderLen) const;

  static bool IsStopReply(const std::string& p);
  static int Signal(const std::string& sStop);   // -1 when none
  static bool IsWatchStop(const std::string& sStop);
  static bool IsConsoleOutput(const std::string& p);

  // Packet statistics of the link (tests and the log).
  const CRspLink& Link() const { return m_link; }

 private:
  // One request, its answer in sReply. 1 answered, -1 lost.
  int Command(const std::string& sCmd, std::string& sReply, int TimeoutMs = -1);
  int Simple(const std::string& sCmd, int TimeoutMs = -1);  // OK / refused / lost
  void ConsoleOutput(const std::string& p);
  void KeepStop(const std::string& p);

  LogFn m_log;
  CRspLink m_link;
  Caps m_caps;
  int m_timeout = 2000;
  bool m_lost = false;
  std::string m_unsolicited;
};

}  // namespace vorden
