// Request layer of the GDB remote serial protocol (see gdb_client.h).
#include "gdb/gdb_client.h"

#include <algorithm>
#include <chrono>
#include <cstdio>

namespace vorden {

namespace {

using Clock = std::chrono::steady_clock;

std::string Hex(U64 v) {
  char b[24];
  snprintf(b, sizeof b, "%llx", (unsigned long long)v);
  return b;
}

int MsLeft(Clock::time_point Deadline) {
  auto d = std::chrono::duration_cast<std::chrono::milliseconds>(Deadline - Clock::now()).count();
  return d < 0 ? 0 : (int)d;
}

bool IsError(const std::string& r) { return r.size() == 3 && r[0] == 'E'; }

}  // namespace

CGdbClient::CGdbClient(LogFn Log) : m_log(std::move(Log)), m_link(m_log) {}

bool CGdbClient::ConnectTcp(const std::string& sHost, int Port, std::string& sError) {
  m_lost = false;
  return m_link.ConnectTcp(sHost, Port, m_timeout, sError);
}

void CGdbClient::Adopt(int Fd) {
  m_lost = false;
  m_link.Adopt(Fd);
}

void CGdbClient::Close() { m_link.Close(); }

void CGdbClient::Lose(const char* sWhy) {
  if (!m_lost) m_log(2, std::string("GDB server: connection lost (") + sWhy + ")");
  m_lost = true;
}

void CGdbClient::SetTimeout(int Ms) {
  m_timeout = Ms;
  m_link.SetAckTimeout(Ms);
}

bool CGdbClient::IsStopReply(const std::string& p) {
  U64 v;
  if (p.size() < 3 || (p[0] != 'S' && p[0] != 'T') || !CRspLink::ParseHex(p.substr(1, 2), v)) return false;
  return p.size() == 3 || p[0] == 'T';
}

int CGdbClient::Signal(const std::string& p) {
  U64 v = 0;
  if (p.size() >= 3 && CRspLink::ParseHex(p.substr(1, 2), v)) return (int)v;
  return -1;
}

bool CGdbClient::IsWatchStop(const std::string& p) {
  if (p.empty() || p[0] != 'T') return false;
  // "T05watch:addr;" / "rwatch:" / "awatch:" anywhere among the pairs.
  for (const char* k : {"watch:", "rwatch:", "awatch:"}) {
    size_t at = p.find(k);
    while (at != std::string::npos) {
      if (at == 3 || p[at - 1] == ';') return true;
      at = p.find(k, at + 1);
    }
  }
  return false;
}

bool CGdbClient::IsConsoleOutput(const std::string& p) {
  if (p.size() < 3 || p[0] != 'O' || p.size() % 2 == 0) return false;
  std::string tmp;
  return CRspLink::FromHex(p.substr(1), tmp);
}

void CGdbClient::ConsoleOutput(const std::string& p) {
  std::string text;
  if (CRspLink::FromHex(p.substr(1), text)) m_log(0, text);
}

void CGdbClient::KeepStop(const std::string& p) {
  m_log(1, "GDB server: stop reply \"" + p.substr(0, 40) + "\" sent unasked; kept aside");
  m_unsolicited = p;
}

bool CGdbClient::TakeUnsolicitedStop(std::string& sStop) {
  if (m_unsolicited.empty()) return false;
  sStop.swap(m_unsolicited);
  m_unsolicited.clear();
  return true;
}

int CGdbClient::Command(const std::string& sCmd, std::string& sReply, int TimeoutMs) {
  if (m_lost) return -1;
  if (!m_link.Send(sCmd)) return Lose("send failed"), -1;
  auto deadline = Clock::now() + std::chrono::milliseconds(TimeoutMs < 0 ? m_timeout : TimeoutMs);
  bool expectStop = sCmd == "?";
  for (;;) {
    int r = m_link.Receive(sReply, MsLeft(deadline));
    if (r < 0) return Lose("connection closed"), -1;
    if (r == 0) return Lose("no reply in time"), -1;
    if (IsConsoleOutput(sReply)) {
      ConsoleOutput(sReply);
      continue;
    }
    if (!expectStop && IsStopReply(sReply)) {
      // No request but '?' is answered with a stop reply.
      KeepStop(sReply);
      continue;
    }
    return 1;
  }
}

int CGdbClient::Simple(const std::string& sCmd, int TimeoutMs) {
  std::string r;
  if (Command(sCmd, r, TimeoutMs) < 0) return -1;
  return r == "OK" ? 1 : 0;
}

bool CGdbClient::Handshake(std::string& sError) {
  std::string r;
  if (Command("qSupported:swbreak+;hwbreak+;xmlRegisters=arm", r) < 0) {
    sError = "no answer from the GDB server";
    return false;
  }
  bool noAck = false, vCont = false;
  size_t pos = 0;
  while (pos <= r.size()) {
    size_t e = r.find(';', pos);
    std::string f = r.substr(pos, e == std::string::npos ? std::string::npos : e - pos);
    if (f.rfind("PacketSize=", 0) == 0) {
      U64 v;
      if (CRspLink::ParseHex(f.substr(11), v) && v >= 64) m_caps.PacketSize = (size_t)std::min<U64>(v, 65536);
    } else if (f == "qXfer:features:read+") {
      m_caps.Features = true;
    } else if (f == "qXfer:memory-map:read+") {
      m_caps.MemoryMap = true;
    } else if (f == "QStartNoAckMode+") {
      noAck = true;
    } else if (f == "vContSupported+") {
      vCont = true;
    }
    if (e == std::string::npos) break;
    pos = e + 1;
  }
  if (noAck && Simple("QStartNoAckMode") == 1) {
    m_link.SetAckMode(false);
    m_caps.NoAck = true;
  }
  if (vCont && Command("vCont?", r) == 1)
    m_caps.VCont = r.find(";c") != std::string::npos && r.find(";s") != std::string::npos;
  if (m_lost) return sError = "the GDB server stopped answering", false;
  return true;
}

int CGdbClient::HaltReason(std::string& sStop) {
  if (Command("?", sStop) < 0) return -1;
  // The answer to '?' supersedes whatever came unasked before it.
  m_unsolicited.clear();
  return IsStopReply(sStop) ? 1 : 0;
}

int CGdbClient::ReadXfer(const std::string& sObject, const std::string& sAnnex, std::string& sDoc,
                         size_t MaxBytes) {
  sDoc.clear();
  size_t chunk = std::max<size_t>(64, m_caps.PacketSize - 8);
  for (;;) {
    std::string r;
    if (Command("qXfer:" + sObject + ":read:" + sAnnex + ":" + Hex(sDoc.size()) + "," + Hex(chunk), r) < 0) return -1;
    if (r.empty() || (r[0] != 'm' && r[0] != 'l')) return 0;
    std::string data = CRspLink::Unescape(r.substr(1));
    sDoc += data;
    if (sDoc.size() > MaxBytes) return 0;
    if (r[0] == 'l') return 1;
    if (data.empty()) return 0;  // 'm' with nothing would never end
  }
}

int CGdbClient::ReadRegisters(std::string& sHex) {
  if (Command("g", sHex) < 0) return -1;
  return sHex.empty() || IsError(sHex) || sHex.size() % 2 ? 0 : 1;
}

int CGdbClient::ReadRegister(int Num, std::string& sHex) {
  if (Command("p" + Hex((U64)Num), sHex) < 0) return -1;
  return sHex.empty() || IsError(sHex) || sHex.size() % 2 ? 0 : 1;
}

int CGdbClient::WriteRegister(int Num, const std::string& sHex) { return Simple("P" + Hex((U64)Num) + "=" + sHex); }

int CGdbClient::ReadMemory(U32 Addr, U32 Len, std::string& sBytes) {
  std::string r;
  sBytes.clear();
  if (Command("m" + Hex(Addr) + "," + Hex(Len), r) < 0) return -1;
  if (r.empty() || IsError(r) || !CRspLink::FromHex(r, sBytes) || sBytes.size() > Len) {
    sBytes.clear();
    return 0;
  }
  return 1;
}

U32 CGdbClient::FitBinary(const U8* p, U32 n, size_t HeaderLen) const {
  size_t room = m_caps.PacketSize > HeaderLen + 2 ? m_caps.PacketSize - HeaderLen : 2;
  size_t used = 0;
  U32 k = 0;
  for (; k < n; ++k) {
    size_t w = (p[k] == '$' || p[k] == '#' || p[k] == '}' || p[k] == '*') ? 2 : 1;
    if (used + w > room) break;
    used += w;
  }
  return std::max<U32>(k, 1);
}

int CGdbClient::WriteMemoryBinary(U32 Addr, const U8* p, U32 n, U32& Done) {
  Done = 0;
  if (m_caps.BinaryWrite == 0) return 2;
  U32 k = FitBinary(p, n, 20);  // 'X' address ',' length ':'
  std::string r;
  if (Command("X" + Hex(Addr) + "," + Hex(k) + ":" + std::string((const char*)p, k), r) < 0) return -1;
  if (r.empty() && m_caps.BinaryWrite < 0) {
    m_caps.BinaryWrite = 0;
    return 2;
  }
  if (r != "OK") return 0;
  m_caps.BinaryWrite = 1;
  Done = k;
  return 1;
}

int CGdbClient::WriteMemoryHex(U32 Addr, const U8* p, U32 n, U32& Done) {
  Done = 0;
  U32 k = std::min<U32>(n, (U32)std::max<size_t>(16, (m_caps.PacketSize - 20) / 2));
  int r = Simple("M" + Hex(Addr) + "," + Hex(k) + ":" + CRspLink::ToHex(p, k));
  if (r == 1) Done = k;
  return r;
}

int CGdbClient::FlashErase(U32 Addr, U32 Len) {
  return Simple("vFlashErase:" + Hex(Addr) + "," + Hex(Len), 5 * m_timeout);
}

int CGdbClient::FlashWrite(U32 Addr, const U8* p, U32 n, U32& Done) {
  Done = 0;
  U32 k = FitBinary(p, n, 22);  // "vFlashWrite:" address ':'
  int r = Simple("vFlashWrite:" + Hex(Addr) + ":" + std::string((const char*)p, k), 5 * m_timeout);
  if (r == 1) Done = k;
  return r;
}

int CGdbClient::FlashDone() { return Simple("vFlashDone", 5 * m_timeout); }

int CGdbClient::InsertPoint(char Type, U32 Addr, U32 Kind) {
  return Simple(std::string("Z") + Type + "," + Hex(Addr) + "," + Hex(Kind));
}

int CGdbClient::RemovePoint(char Type, U32 Addr, U32 Kind) {
  return Simple(std::string("z") + Type + "," + Hex(Addr) + "," + Hex(Kind));
}

int CGdbClient::Monitor(const std::string& sCmd, std::string& sOut, std::string& sError) {
  if (m_lost) return -1;
  if (!m_link.Send("qRcmd," + CRspLink::ToHex(sCmd))) return Lose("send failed"), -1;
  auto deadline = Clock::now() + std::chrono::milliseconds(m_timeout);
  for (;;) {
    std::string p;
    int r = m_link.Receive(p, MsLeft(deadline));
    if (r < 0) return Lose("connection closed"), -1;
    if (r == 0) return Lose("no reply in time"), -1;
    if (IsConsoleOutput(p)) {
      std::string t;
      CRspLink::FromHex(p.substr(1), t);
      sOut += t;
      continue;
    }
    if (IsStopReply(p)) {
      KeepStop(p);
      continue;
    }
    if (p == "OK") return 1;
    if (p.empty()) return sError = "monitor commands not supported", 0;
    if (IsError(p)) return sError = "monitor command failed", 0;
    // Some servers answer with the output as hex and no "OK".
    std::string t;
    if (CRspLink::FromHex(p, t)) {
      sOut += t;
      return 1;
    }
    sError = "unexpected reply";
    return 0;
  }
}

int CGdbClient::Query(const std::string& sPacket, std::string& sReply) { return Command(sPacket, sReply); }

bool CGdbClient::Continue() {
  m_unsolicited.clear();
  if (m_lost) return false;
  if (!m_link.Send(m_caps.VCont ? "vCont;c" : "c")) return Lose("send failed"), false;
  return true;
}

bool CGdbClient::StepStart() {
  m_unsolicited.clear();
  if (m_lost) return false;
  if (!m_link.Send(m_caps.VCont ? "vCont;s" : "s")) return Lose("send failed"), false;
  return true;
}

bool CGdbClient::Interrupt() {
  if (m_lost) return false;
  if (!m_link.SendRaw("\x03")) return Lose("send failed"), false;
  return true;
}

bool CGdbClient::FileIoReply(const std::string& sReply) {
  m_unsolicited.clear();
  if (m_lost) return false;
  if (!m_link.Send(sReply)) return Lose("send failed"), false;
  return true;
}

int CGdbClient::PollStop(std::string& sStop, int TimeoutMs) {
  if (m_lost) return -1;
  if (TakeUnsolicitedStop(sStop)) return 1;
  auto deadline = Clock::now() + std::chrono::milliseconds(TimeoutMs);
  for (;;) {
    int r = m_link.Receive(sStop, MsLeft(deadline));
    if (r < 0) return Lose("connection closed"), -1;
    if (r == 0) return 0;
    if (IsConsoleOutput(sStop)) {
      ConsoleOutput(sStop);
      continue;
    }
    if (sStop.empty() || (sStop[0] != 'S' && sStop[0] != 'T' && sStop[0] != 'W' && sStop[0] != 'X' &&
                          sStop[0] != 'F')) {
      m_log(1, "GDB server: unexpected packet \"" + sStop.substr(0, 40) + "\" while waiting for a stop");
      continue;
    }
    return 1;
  }
}

int CGdbClient::WaitStop(std::string& sStop) {
  int r = PollStop(sStop, m_timeout);
  if (r == 0) return Lose("no stop reply in time"), -1;
  return r;
}

void CGdbClient::Detach() {
  if (IsOpen() && m_link.Send("D")) {
    std::string r;
    m_link.Receive(r, 200);
  }
  m_link.Close();
}

void CGdbClient::Kill() {
  if (IsOpen()) m_link.Send("k");
  Lose("target killed");
  m_link.Close();
}

}  // namespace vorden
