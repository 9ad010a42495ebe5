// GDB remote serial protocol back end (see gdb_backend.h).
#include "gdb_backend.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

#include "devices.h"
#include "gdb/rsp.h"

namespace vorden {

namespace {

using Clock = std::chrono::steady_clock;

// Semihosting operation numbers whose results need translating between the
// semihosting convention (bytes NOT transferred) and File-I/O (bytes done).
constexpr U32 SEMI_WRITEC = 0x03, SEMI_WRITE0 = 0x04, SEMI_WRITE = 0x05, SEMI_READ = 0x06, SEMI_READC = 0x07,
              SEMI_FLEN = 0x0C;
constexpr U16 BKPT_SEMIHOST = 0xBEAB;
constexpr int MAX_XML = 1 << 20;

std::string Hex32(U64 v) {
  char b[24];
  snprintf(b, sizeof b, "%llx", (unsigned long long)v);
  return b;
}

std::string Attr(const std::string& sTag, const char* sName) {
  std::string key = std::string(sName) + "=";
  size_t p = 0;
  while ((p = sTag.find(key, p)) != std::string::npos) {
    if (p > 0 && !isspace((unsigned char)sTag[p - 1])) {
      p += key.size();
      continue;
    }
    p += key.size();
    if (p >= sTag.size()) return "";
    char q = sTag[p];
    if (q != '"' && q != '\'') return "";
    size_t e = sTag.find(q, p + 1);
    if (e == std::string::npos) return "";
    return sTag.substr(p + 1, e - p - 1);
  }
  return "";
}

bool ParseNum(const std::string& s, U64& v) {
  if (s.empty()) return false;
  char* end = nullptr;
  errno = 0;
  v = strtoull(s.c_str(), &end, 0);
  return end && !*end && errno == 0;
}

// Little-endian hex bytes of a register value.
bool RegFromHex(const std::string& s, U64& v) {
  std::string bytes;
  if (s.empty() || !CRspLink::FromHex(s, bytes) || bytes.size() > 8) return false;
  v = 0;
  for (size_t i = 0; i < bytes.size(); ++i) v |= (U64)(U8)bytes[i] << (8 * i);
  return true;
}

std::string RegToHex(U64 v, int Bytes) {
  U8 b[8];
  for (int i = 0; i < Bytes && i < 8; ++i) b[i] = (U8)(v >> (8 * i));
  return CRspLink::ToHex(b, (size_t)std::min(Bytes, 8));
}

bool IsConsoleOutput(const std::string& p) {
  if (p.size() < 3 || p[0] != 'O' || p.size() % 2 == 0) return false;
  std::string tmp;
  return CRspLink::FromHex(p.substr(1), tmp);
}

class CGdbBackend : public CBackend {
 public:
  CGdbBackend(int DeviceIdx, LogFn Log) : m_devIdx(DeviceIdx), m_log(std::move(Log)), m_link(m_log) {
    std::fill(std::begin(m_probeToGdb), std::end(m_probeToGdb), -1);
    SetLimits(-1, -1);
  }
  ~CGdbBackend() override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_link.IsOpen() && !m_lost) {
      // Leave the target as it is; a server keeps running after a detach.
      if (m_running) m_link.SendRaw("\x03"), WaitStop(nullptr);
      m_link.Send("D");
      std::string r;
      m_link.Receive(r, 200);
    }
    m_link.Close();
  }

  bool Connect(const std::string& sHost, int Port, std::string& sError) {
    if (!m_link.ConnectTcp(sHost, Port, m_timeout, sError)) return false;
    return Init(sError);
  }
  bool Attach(int Fd, int TimeoutMs, std::string& sError) {
    m_timeout = TimeoutMs;
    m_link.SetAckTimeout(TimeoutMs);
    m_link.Adopt(Fd);
    return Init(sError);
  }

  int DeviceIndex() const override { return m_devIdx; }

  // ---- run control --------------------------------------------------------
  int IsHalted() override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_lost || !m_link.IsOpen()) return Lose("not connected"), -1;
    if (!m_running) return 1;
    for (;;) {
      std::string p;
      int r = m_link.Receive(p, 0);
      if (r < 0) return Lose("connection closed"), -1;
      if (r == 0) return 0;
      if (IsConsoleOutput(p)) {
        ConsoleOutput(p);
        continue;
      }
      if (p.empty() || (p[0] != 'S' && p[0] != 'T' && p[0] != 'W' && p[0] != 'X' && p[0] != 'F')) {
        m_log(1, "GDB server: unexpected packet \"" + p.substr(0, 40) + "\" while the target runs");
        continue;
      }
      if (!TakeStop(p)) return -1;
      return m_running ? 0 : 1;
    }
  }

  int Halt() override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_lost) return 1;
    if (!m_running) return 0;
    if (!m_link.SendRaw("\x03")) return Lose("send failed"), 1;
    std::string p;
    if (!WaitStop(&p)) return 1;
    if (!TakeStop(p)) return 1;
    return m_running ? 1 : 0;
  }

  int Go(U32 Flags) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_lost) return -1;
    if (m_running) return 0;
    if (!FlushFlash()) return -1;
    if (m_fio.Active) return ReplyFio(false) ? 0 : -1;
    U64 pc = 0;
    if ((Flags & VORDENARM_GO_FLAG_OVERSTEP_BP) && ReadRegRaw(15, pc) && HasBPAt((U32)pc & ~1u)) {
      if (StepInternal() != 0) return -1;
      if (m_fio.Active || m_watchHit) return 0;  // the step itself stopped for a reason
    }
    return Resume() ? 0 : -1;
  }

  int Step() override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_lost || m_running) return 1;
    if (!FlushFlash()) return 1;
    if (m_fio.Active) {
      // The BKPT 0xAB is the instruction being stepped: finish the request
      // and keep the target stopped behind it.
      return ReplyFio(true) ? 0 : 1;
    }
    return StepInternal() == 0 ? 0 : 1;
  }

  int Reset() override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_lost) return -1;
    if (m_running && Halt() != 0) return -1;
    if (m_fio.Active) {
      // Complete the outstanding request so the server is not left waiting.
      m_fio.Active = false;
      if (!m_link.Send("F-1,4,C")) return Lose("send failed"), -1;
      std::string p;
      if (!WaitStop(&p)) return -1;
    }
    if (!FlushFlash()) return -1;
    U32 vec[2] = {0, 0};
    bool haveVec = ReadMemRaw(0, 8, (U8*)vec) == 8;
    bool ok = false;
    std::string out, err;
    if (MonitorCommand(m_resetCmd, out, err)) {
      ok = true;
      if (!out.empty()) m_log(0, out);
      // The server may carry out the reset after it answered: wait until the
      // core shows the reset state.
      auto deadline = Clock::now() + std::chrono::milliseconds(m_timeout);
      while (haveVec) {
        InvalidateRegs();
        U64 pc = 0, sp = 0;
        if (!ReadRegRaw(15, pc) || !ReadRegRaw(13, sp)) break;
        if (((U32)pc & ~1u) == (vec[1] & ~1u) && (U32)sp == (vec[0] & ~3u)) break;
        if (Clock::now() > deadline) {
          m_log(1, "GDB server: the core did not show the reset state after \"" + m_resetCmd + "\"");
          break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
      }
    } else if (!m_lost && haveVec) {
      // No monitor command: a core reset by hand from the vector table.
      m_log(1, "GDB server: reset command \"" + m_resetCmd + "\" failed (" + err + "); setting SP, PC and xPSR from the vector table");
      ok = WriteRegRaw(13, vec[0] & ~3u) && WriteRegRaw(15, vec[1] & ~1u) && WriteRegRaw(16, 0x01000000);
    }
    InvalidateRegs();
    m_watchHit = false;
    return ok ? 0 : -1;
  }

  // ---- registers ------------------------------------------------------------
  int ReadReg(U32 Idx, U64& Value) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    Value = 0;
    if (m_lost || m_running || Idx >= VORDENARM_REG_NUM) return -1;
    U64 v;
    if (!ReadRegRaw(Idx, v)) return -1;
    if (Idx == 15) {
      v &= ~1ull;
      if (m_fio.Active) v -= 2;  // show the BKPT 0xAB being served
    }
    Value = v;
    return 0;
  }

  int WriteReg(U32 Idx, U64 Value) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_lost || m_running || Idx >= VORDENARM_REG_NUM) return -1;
    if (Idx == 15) Value &= ~1ull;
    if (m_fio.Active && Idx == 0) {
      m_fio.R0 = (U32)Value;
      m_fio.R0Written = true;
    }
    if (m_fio.Active && Idx == 15) {
      // PC past the BKPT is where the server already stands.
      if ((U32)Value == m_fio.Pc) return 0;
      m_fio.PcMoved = true;
    }
    return WriteRegRaw(Idx, Value) ? 0 : -1;
  }

  // ---- memory ---------------------------------------------------------------
  int ReadMem(U32 Addr, U32 NumBytes, U8* pData) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_lost || !pData) return 0;
    if (!FlushFlash()) return 0;
    bool paused = false;
    if (m_running && !Pause(paused)) return 0;
    int n = ReadMemRaw(Addr, NumBytes, pData);
    if (paused) Resume();
    return n;
  }

  int WriteMem(U32 Addr, U32 NumBytes, const U8* pData) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_lost || !pData) return 0;
    bool paused = false;
    if (m_running && !Pause(paused)) return 0;
    int n = WriteMemRaw(Addr, NumBytes, pData);
    if (paused) Resume();
    return n;
  }

  // ---- breakpoints ----------------------------------------------------------
  int SetBP(U32 Addr, U32 Flags) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    Addr &= ~1u;
    for (const BP& b : m_bps)
      if (b.Addr == Addr) return b.Handle;
    if (m_lost) return 0;
    int hw = 0;
    for (const BP& b : m_bps) hw += b.Z == '1';
    bool paused = false;
    if (m_running && !Pause(paused)) return 0;
    BP b{m_nextBp, Addr, Flags, 0, 0};
    if ((Flags & VORDENARM_BP_TYPE_HW_MASK) && hw < m_maxHW && ZPacket('Z', '1', Addr, 2)) {
      b.Z = '1';
      b.Imp = VORDENARM_BP_IMP_HW;
    } else if ((Flags & VORDENARM_BP_TYPE_SW_MASK) && !m_lost && ZPacket('Z', '0', Addr, 2)) {
      b.Z = '0';
      b.Imp = InFlash(Addr) ? VORDENARM_BP_IMP_SW_FLASH : VORDENARM_BP_IMP_SW_RAM;
    }
    if (paused) Resume();
    if (!b.Z) return 0;
    ++m_nextBp;
    m_bps.push_back(b);
    return b.Handle;
  }

  int ClrBP(int Handle) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    bool paused = false;
    if (m_running && !m_lost && !Pause(paused)) return -1;
    int r = -1;
    for (size_t i = 0; i < m_bps.size();) {
      if (Handle == -1 || m_bps[i].Handle == Handle) {
        if (!m_lost) ZPacket('z', m_bps[i].Z, m_bps[i].Addr, 2);
        m_bps.erase(m_bps.begin() + (long)i);
        r = 0;
      } else {
        ++i;
      }
    }
    if (Handle == -1) r = 0;
    if (paused) Resume();
    return r;
  }

  int FindBP(U32 Addr) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    Addr &= ~1u;
    for (const BP& b : m_bps)
      if (b.Addr == Addr) return b.Handle;
    return 0;
  }

  int GetBPInfo(int Index, VORDENARM_BP_INFO* pInfo) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (!pInfo) return -1;
    const BP* p = nullptr;
    if (Index == -1) {
      for (const BP& b : m_bps)
        if ((U32)b.Handle == pInfo->Handle) p = &b;
    } else if (Index >= 0 && (size_t)Index < m_bps.size()) {
      p = &m_bps[(size_t)Index];
    }
    if (!p) return -1;
    pInfo->Handle = (U32)p->Handle;
    pInfo->Addr = p->Addr;
    pInfo->Type = p->Flags;
    pInfo->ImpFlags = p->Imp;
    pInfo->UseCnt = 1;
    pInfo->IsPending = 0;
    return (int)m_bps.size();
  }

  int SetDataEvent(const VORDENARM_DATA_EVENT& Ev, U32* pHandle) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (Ev.SizeOfStruct != sizeof(VORDENARM_DATA_EVENT) || Ev.Type != 1) return (int)VORDENARM_EVENT_ERR_UNKNOWN;
    U32 err = 0;
    U32 m = Ev.AddrMask;
    if ((m & (m + 1)) != 0 || m > 0x7FFF) err |= VORDENARM_EVENT_ERR_ADDR_MASK;
    if (Ev.AccessMask & ~0x17u) err |= VORDENARM_EVENT_ERR_ACC_MASK;
    // The protocol has no data comparators.
    if (Ev.DataMask != 0xFFFFFFFF) err |= VORDENARM_EVENT_ERR_NO_MORE_DATA_COMP;
    if ((int)m_des.size() >= m_maxDE) err |= VORDENARM_EVENT_ERR_NO_MORE_EVENTS | VORDENARM_EVENT_ERR_NO_MORE_ADDR_COMP;
    if (err) return (int)(err | 0x80000000u);
    if (m_lost) return (int)VORDENARM_EVENT_ERR_UNKNOWN;
    DE d{m_nextDe, Ev, Ev.AddrMask, '2'};
    if (!(Ev.AccessMask & 6)) {
      if ((Ev.Access & 6) == 2) d.AddrMask |= 1;
      if ((Ev.Access & 6) == 4) d.AddrMask |= 3;
    }
    d.Z = (Ev.AccessMask & 1) ? '4' : (Ev.Access & 1) ? '2' : '3';
    bool paused = false;
    if (m_running && !Pause(paused)) return (int)VORDENARM_EVENT_ERR_UNKNOWN;
    bool ok = ZPacket('Z', d.Z, Ev.Addr & ~d.AddrMask, d.AddrMask + 1);
    if (paused) Resume();
    if (!ok) return (int)(VORDENARM_EVENT_ERR_NO_MORE_EVENTS | VORDENARM_EVENT_ERR_NO_MORE_ADDR_COMP);
    ++m_nextDe;
    m_des.push_back(d);
    if (pHandle) *pHandle = d.Handle;
    return 0;
  }

  int ClrDataEvent(U32 Handle) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    bool paused = false;
    if (m_running && !m_lost && !Pause(paused)) return -1;
    int r = Handle == 0xFFFFFFFF ? 0 : -1;
    for (size_t i = 0; i < m_des.size();) {
      if (Handle == 0xFFFFFFFF || m_des[i].Handle == Handle) {
        const DE& d = m_des[i];
        if (!m_lost) ZPacket('z', d.Z, d.Ev.Addr & ~d.AddrMask, d.AddrMask + 1);
        m_des.erase(m_des.begin() + (long)i);
        r = 0;
      } else {
        ++i;
      }
    }
    if (paused) Resume();
    return r;
  }

  int GetWPInfo(int Index, VORDENARM_WP_INFO* pInfo) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (Index == -1) return (int)m_des.size();
    if (Index < 0 || (size_t)Index >= m_des.size() || !pInfo) return -1;
    FillWPInfo(m_des[(size_t)Index], Index, pInfo);
    return 0;
  }

  void SetLimits(int MaxHWBPs, int MaxDataEvents) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    const auto& l = DeviceList();
    bool dev = m_devIdx > 0 && (size_t)m_devIdx < l.size();
    m_maxHW = MaxHWBPs >= 0 ? MaxHWBPs : dev ? (int)l[(size_t)m_devIdx].NumHWBPs : 6;
    m_maxDE = MaxDataEvents >= 0 ? MaxDataEvents : dev ? (int)l[(size_t)m_devIdx].NumDataEvents : 4;
  }

  bool ExecCommand(const std::string& sName, const std::string& sValue, std::string& sError) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    std::string n = sName;
    std::transform(n.begin(), n.end(), n.begin(), [](unsigned char c) { return (char)tolower(c); });
    if (n == "gdbresetcommand") {
      if (sValue.empty()) sError = "GdbResetCommand needs a monitor command";
      else m_resetCmd = sValue;
      return true;
    }
    if (n == "gdbtimeout") {
      U64 v;
      if (!ParseNum(sValue, v) || v < 10 || v > 600000) {
        sError = "invalid value \"" + sValue + "\" for GdbTimeout";
      } else {
        m_timeout = (int)v;
        m_link.SetAckTimeout((int)v);
      }
      return true;
    }
    if (n == "gdbkill") {
      // Ends the target on the server side (an emulator exits); the
      // connection is gone afterwards.
      if (m_running) m_link.SendRaw("\x03"), WaitStop(nullptr);
      if (!m_lost) m_link.Send("k");
      Lose("target killed");
      m_link.Close();
      return true;
    }
    if (n == "gdbmonitor") {
      std::string out;
      if (m_running || !MonitorCommand(sValue, out, sError)) {
        if (sError.empty()) sError = "the target is running";
      }
      if (!out.empty()) m_log(0, out);
      return true;
    }
    return false;
  }


 private:
  struct RegInfo {
    std::string Name;
    int Num;
    int Bits;
  };
  struct BP {
    int Handle;
    U32 Addr;
    U32 Flags;
    U32 Imp;
    char Z;  // '0' software, '1' hardware
  };
  struct DE {
    U32 Handle;
    VORDENARM_DATA_EVENT Ev;
    U32 AddrMask;  // widened to the access size
    char Z;        // '2' write, '3' read, '4' access
  };
  struct FlashRegion {
    U32 Addr, Size, Block;
  };
  struct Fio {
    bool Active = false;
    std::string Call;
    std::vector<U64> Args;
    U32 Op = 0;       // R0 at the request: the semihosting operation
    U32 Pc = 0;       // the server's PC (behind the BKPT)
    U32 R0 = 0;
    bool R0Written = false;
    bool PcMoved = false;
  };

  void Lose(const char* sWhy) {
    if (!m_lost) m_log(2, std::string("GDB server: connection lost (") + sWhy + ")");
    m_lost = true;
    m_running = false;
  }

  void ConsoleOutput(const std::string& p) {
    std::string text;
    if (CRspLink::FromHex(p.substr(1), text)) m_log(0, text);
  }

  // One command and its reply; console output on the way goes to the log.
  bool Command(const std::string& sCmd, std::string& sReply, int TimeoutMs = -1) {
    if (m_lost) return false;
    if (!m_link.Send(sCmd)) return Lose("send failed"), false;
    auto deadline = Clock::now() + std::chrono::milliseconds(TimeoutMs < 0 ? m_timeout : TimeoutMs);
    for (;;) {
      int left = (int)std::max<long long>(
          0, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
      int r = m_link.Receive(sReply, left);
      if (r < 0) return Lose("connection closed"), false;
      if (r == 0) return Lose("no reply in time"), false;
      if (IsConsoleOutput(sReply)) {
        ConsoleOutput(sReply);
        continue;
      }
      if (IsStopReply(sReply) && sCmd != "?" && sCmd.rfind("qSupported", 0) != 0) {
        // A late stop reply (an interrupt that crossed a stop of the target's
        // own) is not the answer to this command.
        m_log(1, "GDB server: stray stop reply \"" + sReply + "\" ignored");
        continue;
      }
      return true;
    }
  }

  static bool IsStopReply(const std::string& p) {
    U64 v;
    return p.size() >= 3 && (p[0] == 'S' || p[0] == 'T') && CRspLink::ParseHex(p.substr(1, 2), v) &&
           (p.size() == 3 || p[0] == 'T');
  }

  // Waits for a stop reply after a resume, step or interrupt.
  bool WaitStop(std::string* pReply) {
    std::string p;
    auto deadline = Clock::now() + std::chrono::milliseconds(m_timeout);
    for (;;) {
      int left = (int)std::max<long long>(
          0, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
      int r = m_link.Receive(p, left);
      if (r < 0) return Lose("connection closed"), false;
      if (r == 0) return Lose("no stop reply in time"), false;
      if (IsConsoleOutput(p)) {
        ConsoleOutput(p);
        continue;
      }
      if (p.empty() || (p[0] != 'S' && p[0] != 'T' && p[0] != 'W' && p[0] != 'X' && p[0] != 'F')) {
        m_log(1, "GDB server: unexpected reply \"" + p.substr(0, 40) + "\" while waiting for a stop");
        continue;
      }
      if (pReply) *pReply = p;
      return true;
    }
  }

  static int Signal(const std::string& p) {
    U64 v = 0;
    if (p.size() >= 3 && CRspLink::ParseHex(p.substr(1, 2), v)) return (int)v;
    return -1;
  }

  static bool IsWatchStop(const std::string& p) {
    return p[0] == 'T' && (p.find(";watch:") != std::string::npos || p.find("Twatch:") != std::string::npos ||
                           p.find("watch:") == 3 || p.find("rwatch:") != std::string::npos ||
                           p.find("awatch:") != std::string::npos);
  }

  // Takes a stop reply (the target is stopped afterwards unless it says it
  // exited). Semihosting requests become a halt at the BKPT; watchpoints that
  // stop before the access are stepped past. false: connection lost.
  bool TakeStop(const std::string& p) {
    InvalidateRegs();
    m_running = false;
    m_watchHit = false;
    if (p[0] == 'W' || p[0] == 'X') {
      Lose(p[0] == 'W' ? "the target exited" : "the target was terminated");
      return false;
    }
    if (p[0] == 'F') return TakeFio(p);
    if (IsWatchStop(p) && !m_des.empty()) {
      m_watchHit = true;
      return StepPastWatch();
    }
    return true;
  }

  bool TakeFio(const std::string& p) {
    Fio f;
    f.Active = true;
    size_t c = p.find(',');
    f.Call = p.substr(1, c == std::string::npos ? std::string::npos : c - 1);
    while (c != std::string::npos) {
      size_t e = p.find(',', c + 1);
      std::string a = p.substr(c + 1, e == std::string::npos ? std::string::npos : e - c - 1);
      size_t slash = a.find('/');  // "pointer/length" arguments
      U64 v = 0;
      CRspLink::ParseHex(a.substr(0, slash), v);
      f.Args.push_back(v);
      if (slash != std::string::npos) {
        CRspLink::ParseHex(a.substr(slash + 1), v);
        f.Args.push_back(v);
      }
      c = e;
    }
    U64 r0 = 0, pc = 0;
    if (!ReadRegRaw(0, r0) || !ReadRegRaw(15, pc)) {
      if (m_lost) return false;
    }
    f.Op = (U32)r0;
    f.Pc = (U32)pc & ~1u;
    U16 insn = 0;
    if (ReadMemRaw(f.Pc - 2, 2, (U8*)&insn) != 2 || insn != BKPT_SEMIHOST) {
      m_log(1, "GDB server: File-I/O request \"" + f.Call + "\" not behind a BKPT 0xAB");
    }
    m_fio = f;
    return true;
  }

  // Answers the outstanding File-I/O request with what the caller served.
  bool ReplyFio(bool Stay) {
    Fio f = m_fio;
    m_fio.Active = false;
    U64 r0v = f.R0;
    if (!f.R0Written && !ReadRegRaw(0, r0v)) return false;
    I32 res = (I32)(U32)r0v;
    long long ret;
    U64 len = f.Call == "write" || f.Call == "read" ? (f.Args.size() >= 3 ? f.Args[2] : 0) : 0;
    if (f.Op == SEMI_WRITE || f.Op == SEMI_READ) {
      // Semihosting gives the bytes not transferred.
      ret = res < 0 ? -1 : (long long)len - (long long)(U32)res;
      if (ret < 0) ret = 0;
    } else if (f.Op == SEMI_WRITEC || f.Op == SEMI_WRITE0) {
      ret = (long long)len;
    } else if (f.Op == SEMI_FLEN && f.Call == "fstat" && f.Args.size() >= 2) {
      // The server wants a File-I/O stat record (big-endian, size at 28).
      U8 st[64] = {};
      for (int i = 0; i < 8 && res >= 0; ++i) st[28 + i] = (U8)((U64)(U32)res >> (56 - 8 * i));
      ret = res < 0 || WriteMemRaw((U32)f.Args[1], sizeof st, st) != (int)sizeof st ? -1 : 0;
    } else if (f.Op == SEMI_READC) {
      U8 ch = (U8)res;
      ret = res < 0 ? -1 : 1;
      if (ret == 1 && f.Args.size() >= 2 && WriteMemRaw((U32)f.Args[1], 1, &ch) != 1) ret = -1;
    } else {
      ret = res;
    }
    std::string pkt = "F" + (ret < 0 ? std::string("-1,5") : Hex32((U64)ret));
    if (Stay) pkt += ret < 0 ? ",C" : ",0,C";
    InvalidateRegs();
    if (!Stay) {
      if (!m_link.Send(pkt)) return Lose("send failed"), false;
      m_running = true;
      m_watchHit = false;
      return true;
    }
    if (!m_link.Send(pkt)) return Lose("send failed"), false;
    std::string p;
    if (!WaitStop(&p)) return false;
    return TakeStop(p);
  }

  void InvalidateRegs() { m_cache.clear(); }

  // Reads a probe register index without the PC adjustments of ReadReg.
  bool ReadRegRaw(U32 Idx, U64& v) {
    if (Idx >= VORDENARM_REG_NUM) return false;
    if (Idx >= VORDENARM_REG_S0 && m_probeToGdb[Idx] < 0) {
      int d = m_dRegOfS[Idx - VORDENARM_REG_S0];
      U64 dv;
      if (d < 0 || !GdbReg(d, dv)) return false;
      v = (Idx - VORDENARM_REG_S0) & 1 ? dv >> 32 : dv & 0xFFFFFFFFull;
      return true;
    }
    int n = m_probeToGdb[Idx];
    return n >= 0 && GdbReg(n, v);
  }

  bool WriteRegRaw(U32 Idx, U64 v) {
    if (Idx >= VORDENARM_REG_NUM) return false;
    if (Idx >= VORDENARM_REG_S0 && m_probeToGdb[Idx] < 0) {
      int d = m_dRegOfS[Idx - VORDENARM_REG_S0];
      U64 dv;
      if (d < 0 || !GdbReg(d, dv)) return false;
      if ((Idx - VORDENARM_REG_S0) & 1) dv = (dv & 0xFFFFFFFFull) | (v << 32);
      else dv = (dv & ~0xFFFFFFFFull) | (v & 0xFFFFFFFFull);
      return SetGdbReg(d, dv);
    }
    int n = m_probeToGdb[Idx];
    return n >= 0 && SetGdbReg(n, v);
  }

  const RegInfo* Info(int Num) const {
    for (const RegInfo& r : m_regs)
      if (r.Num == Num) return &r;
    return nullptr;
  }

  bool GdbReg(int Num, U64& v) {
    auto it = m_cache.find(Num);
    if (it != m_cache.end()) {
      v = it->second;
      return true;
    }
    if (m_useG && m_cache.empty()) {
      FetchAll();
      it = m_cache.find(Num);
      if (it != m_cache.end()) {
        v = it->second;
        return true;
      }
    }
    std::string r;
    if (!Command("p" + Hex32((U64)Num), r)) return false;
    if (!RegFromHex(r, v)) return false;
    m_cache[Num] = v;
    return true;
  }

  // 'g': the described registers in register number order, as far as the
  // server sends them.
  void FetchAll() {
    std::string r;
    if (!Command("g", r)) return;
    if (r.empty() || r[0] == 'E' || r.size() % 2) return;
    size_t off = 0;
    for (const RegInfo& ri : m_gOrder) {
      size_t n = (size_t)ri.Bits / 4;
      if (off + n > r.size()) break;
      U64 v;
      if (ri.Bits <= 64 && r.compare(off, n, std::string(n, 'x')) != 0 && RegFromHex(r.substr(off, n), v))
        m_cache[ri.Num] = v;
      off += n;
    }
    if (off != r.size()) {
      // The layout does not match the description: never trust 'g' again.
      m_log(1, "GDB server: 'g' reply does not match the register description; reading registers one by one");
      m_useG = false;
      m_cache.clear();
    }
  }

  bool SetGdbReg(int Num, U64 v) {
    const RegInfo* ri = Info(Num);
    int bytes = ri ? ri->Bits / 8 : 4;
    std::string r;
    if (!Command("P" + Hex32((U64)Num) + "=" + RegToHex(v, bytes), r)) return false;
    if (r != "OK") return false;
    m_cache.erase(Num);
    return true;
  }

  int ReadChunk(U32 Addr, U32 Len, U8* p) {
    std::string r, bytes;
    if (!Command("m" + Hex32(Addr) + "," + Hex32(Len), r)) return 0;
    if (!r.empty() && r[0] != 'E' && CRspLink::FromHex(r, bytes) && bytes.size() <= Len) {
      memcpy(p, bytes.data(), bytes.size());
      if (bytes.size() == Len || bytes.empty()) return (int)bytes.size();
      // A short reply: the rest may still be readable in smaller pieces.
      return (int)bytes.size();
    }
    // An error: find the readable prefix by halving.
    if (Len <= 1 || m_lost) return 0;
    U32 half = Len / 2;
    int a = ReadChunk(Addr, half, p);
    if (a < (int)half) return a;
    return (int)half + ReadChunk(Addr + half, Len - half, p + half);
  }

  int ReadMemRaw(U32 Addr, U32 NumBytes, U8* pData) {
    U64 limit = 0x100000000ull - Addr;
    if (NumBytes > limit) NumBytes = (U32)limit;
    // A reply carries two hex digits per byte within the server's packet size.
    U32 chunk = (U32)std::max<size_t>(16, m_packetSize / 2);
    U32 done = 0;
    while (done < NumBytes && !m_lost) {
      U32 n = std::min(chunk, NumBytes - done);
      int got = ReadChunk(Addr + done, n, pData + done);
      done += (U32)got;
      if (got < (int)n) break;
    }
    return (int)done;
  }

  int WriteMemRaw(U32 Addr, U32 NumBytes, const U8* pData) {
    U64 limit = 0x100000000ull - Addr;
    if (NumBytes > limit) NumBytes = (U32)limit;
    U32 done = 0;
    while (done < NumBytes && !m_lost) {
      U32 a = Addr + done;
      const FlashRegion* fr = FlashAt(a);
      if (fr) {
        U32 n = std::min<U64>(NumBytes - done, (U64)fr->Addr + fr->Size - a);
        n = FitBinary(pData + done, n, 22);  // "vFlashWrite:" address ':'
        if (!FlashWrite(*fr, a, n, pData + done)) break;
        done += n;
        continue;
      }
      U32 n = NumBytes - done;
      // Stop short of a flash region.
      for (const FlashRegion& f : m_flash)
        if (f.Addr > a && f.Addr - a < n) n = f.Addr - a;
      std::string r;
      if (m_hasX != 0) {
        n = FitBinary(pData + done, n, 20);  // 'X' address ',' length ':'
        std::string cmd = "X" + Hex32(a) + "," + Hex32(n) + ":" + std::string((const char*)pData + done, n);
        if (!Command(cmd, r)) break;
        if (r.empty() && m_hasX < 0) {
          m_hasX = 0;  // not supported: use 'M'
          continue;
        }
        if (r != "OK") break;
        m_hasX = 1;
      } else {
        n = std::min<U32>(n, (U32)std::max<size_t>(16, (m_packetSize - 20) / 2));
        if (!Command("M" + Hex32(a) + "," + Hex32(n) + ":" + CRspLink::ToHex(pData + done, n), r) || r != "OK") break;
      }
      done += n;
    }
    return (int)done;
  }

  // How many of n bytes fit into one packet after a header of HeaderLen
  // characters, counting the escapes the framing adds.
  U32 FitBinary(const U8* p, U32 n, size_t HeaderLen) const {
    size_t room = m_packetSize > HeaderLen + 2 ? m_packetSize - HeaderLen : 2;
    size_t used = 0;
    U32 k = 0;
    for (; k < n; ++k) {
      size_t w = (p[k] == '$' || p[k] == '#' || p[k] == '}' || p[k] == '*') ? 2 : 1;
      if (used + w > room) break;
      used += w;
    }
    return std::max<U32>(k, 1);
  }

  const FlashRegion* FlashAt(U32 Addr) const {
    for (const FlashRegion& f : m_flash)
      if (Addr >= f.Addr && Addr - f.Addr < f.Size) return &f;
    return nullptr;
  }
  bool InFlash(U32 Addr) const { return FlashAt(Addr) != nullptr; }

  // Flash programming through the server: erase each touched block once,
  // write, and finish with vFlashDone before anything else uses the target.
  bool FlashWrite(const FlashRegion& f, U32 Addr, U32 n, const U8* p) {
    U32 blk = f.Block ? f.Block : f.Size;
    for (U32 b = (Addr - f.Addr) / blk; (U64)b * blk < (U64)Addr - f.Addr + n; ++b) {
      U32 start = f.Addr + b * blk;
      if (m_erased.count(start)) continue;
      std::string r;
      if (!Command("vFlashErase:" + Hex32(start) + "," + Hex32(std::min<U64>(blk, (U64)f.Addr + f.Size - start)), r,
                   5 * m_timeout) ||
          r != "OK") {
        m_log(2, "GDB server: flash erase at 0x" + Hex32(start) + " failed");
        return false;
      }
      m_erased.insert(start);
    }
    std::string r;
    if (!Command("vFlashWrite:" + Hex32(Addr) + ":" + std::string((const char*)p, n), r, 5 * m_timeout) ||
        r != "OK") {
      m_log(2, "GDB server: flash write at 0x" + Hex32(Addr) + " failed");
      return false;
    }
    m_flashDirty = true;
    return true;
  }

  bool FlushFlash() {
    if (!m_flashDirty) return !m_lost;
    m_flashDirty = false;
    m_erased.clear();
    std::string r;
    if (!Command("vFlashDone", r, 5 * m_timeout) || r != "OK") {
      m_log(2, "GDB server: vFlashDone failed");
      return false;
    }
    return true;
  }

  bool ZPacket(char Op, char Type, U32 Addr, U32 Kind) {
    std::string r;
    std::string cmd = std::string(1, Op) + Type + "," + Hex32(Addr) + "," + Hex32(Kind);
    return Command(cmd, r) && r == "OK";
  }

  bool HasBPAt(U32 Addr) const {
    for (const BP& b : m_bps)
      if (b.Addr == Addr) return true;
    return false;
  }

  bool Resume() {
    if (!m_link.Send(m_vCont ? "vCont;c" : "c")) return Lose("send failed"), false;
    InvalidateRegs();
    m_running = true;
    m_watchHit = false;
    return true;
  }

  // Stops a running target for a debug access. Paused is true when the stop
  // was ours (resume afterwards); an event that raced with it is kept.
  bool Pause(bool& Paused) {
    Paused = false;
    if (!m_link.SendRaw("\x03")) return Lose("send failed"), false;
    std::string p;
    if (!WaitStop(&p)) return false;
    int sig = Signal(p);
    bool ours = (p[0] == 'S' || p[0] == 'T') && sig == 2 && !IsWatchStop(p);
    if (!TakeStop(p)) return false;
    Paused = ours;
    return true;
  }

  // One instruction with breakpoints at the PC out of the way; watchpoints
  // that stopped before their access are stepped past.
  int StepInternal() {
    U64 pc = 0;
    if (!ReadRegRaw(15, pc)) return -1;
    std::vector<BP*> lifted;
    for (BP& b : m_bps)
      if (b.Addr == ((U32)pc & ~1u)) {
        if (!ZPacket('z', b.Z, b.Addr, 2)) return -1;
        lifted.push_back(&b);
      }
    bool ok = StepOnce();
    // An IT block is one step, as on the simulator: go on while the IT state
    // says the core is inside one.
    for (int i = 0; ok && i < 4 && !m_fio.Active && !m_watchHit; ++i) {
      U64 xpsr;
      if (!ReadRegRaw(16, xpsr)) break;
      U32 it = (U32)((xpsr >> 25) & 3) | (U32)((xpsr >> 8) & 0xFC);
      if ((it & 0xF) == 0) break;
      ok = StepOnce();
    }
    for (BP* b : lifted)
      if (!m_lost) ZPacket('Z', b->Z, b->Addr, 2);
    return ok ? 0 : -1;
  }

  bool StepOnce() {
    if (!m_link.Send(m_vCont ? "vCont;s" : "s")) return Lose("send failed"), false;
    std::string p;
    if (!WaitStop(&p)) return false;
    return TakeStop(p);
  }

  // The access of a watchpoint that stopped before it: lift the watchpoints,
  // step, put them back.
  bool StepPastWatch() {
    for (const DE& d : m_des)
      if (!ZPacket('z', d.Z, d.Ev.Addr & ~d.AddrMask, d.AddrMask + 1)) return false;
    bool ok = true;
    if (!m_link.Send(m_vCont ? "vCont;s" : "s")) return Lose("send failed"), false;
    std::string p;
    if (!WaitStop(&p)) return false;
    InvalidateRegs();
    if (p[0] == 'W' || p[0] == 'X') return TakeStop(p);
    if (p[0] == 'F') ok = TakeFio(p);
    for (const DE& d : m_des)
      if (!ZPacket('Z', d.Z, d.Ev.Addr & ~d.AddrMask, d.AddrMask + 1)) return false;
    return ok;
  }

  bool MonitorCommand(const std::string& sCmd, std::string& sOut, std::string& sError) {
    if (!m_link.Send("qRcmd," + CRspLink::ToHex(sCmd))) return Lose("send failed"), false;
    auto deadline = Clock::now() + std::chrono::milliseconds(m_timeout);
    for (;;) {
      std::string p;
      int left = (int)std::max<long long>(
          0, std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count());
      int r = m_link.Receive(p, left);
      if (r < 0) return Lose("connection closed"), false;
      if (r == 0) return Lose("no reply in time"), false;
      if (IsConsoleOutput(p)) {
        std::string t;
        CRspLink::FromHex(p.substr(1), t);
        sOut += t;
        continue;
      }
      if (p == "OK") return true;
      if (p.empty()) {
        sError = "monitor commands not supported";
        return false;
      }
      if (p[0] == 'E') {
        sError = "monitor command failed";
        return false;
      }
      // Some servers answer with the output as hex and no "OK".
      std::string t;
      if (CRspLink::FromHex(p, t)) {
        sOut += t;
        return true;
      }
      sError = "unexpected reply";
      return false;
    }
  }

  // ---- connection set-up ------------------------------------------------------
  bool Init(std::string& sError) {
    std::string r;
    if (!Command("qSupported:swbreak+;hwbreak+;xmlRegisters=arm", r)) {
      sError = "no answer from the GDB server";
      return false;
    }
    bool noAck = false;
    size_t pos = 0;
    while (pos <= r.size()) {
      size_t e = r.find(';', pos);
      std::string f = r.substr(pos, e == std::string::npos ? std::string::npos : e - pos);
      if (f.rfind("PacketSize=", 0) == 0) {
        U64 v;
        if (CRspLink::ParseHex(f.substr(11), v) && v >= 64) m_packetSize = (size_t)std::min<U64>(v, 65536);
      } else if (f == "qXfer:features:read+") {
        m_xmlFeatures = true;
      } else if (f == "qXfer:memory-map:read+") {
        m_xmlMemMap = true;
      } else if (f == "QStartNoAckMode+") {
        noAck = true;
      } else if (f == "vContSupported+") {
        m_vContOffered = true;
      }
      if (e == std::string::npos) break;
      pos = e + 1;
    }
    if (noAck && Command("QStartNoAckMode", r) && r == "OK") m_link.SetAckMode(false);
    if (m_lost) return sError = "the GDB server stopped answering", false;
    if (!Command("?", r)) return sError = "no answer to '?'", false;
    if (r.empty() || (r[0] != 'S' && r[0] != 'T')) {
      sError = "the GDB server has no stopped target (\"" + r.substr(0, 40) + "\")";
      return false;
    }
    if (m_xmlFeatures) {
      int next = 0;
      if (!ReadFeatures("target.xml", next, 0)) m_regs.clear();
    }
    if (m_regs.empty()) {
      if (m_lost) return sError = "the GDB server stopped answering", false;
      // No description: the server's default ARM layout.
      m_log(1, "GDB server gives no register description; assuming the default ARM register numbers");
      static const char* names[] = {"r0", "r1", "r2", "r3", "r4", "r5", "r6", "r7",
                                    "r8", "r9", "r10", "r11", "r12", "sp", "lr", "pc"};
      for (int i = 0; i < 16; ++i) m_regs.push_back({names[i], i, 32});
      m_regs.push_back({"xpsr", 25, 32});
      m_useG = false;
    }
    MapRegisters();
    if (m_xmlMemMap) ReadMemoryMap();
    if (m_vContOffered && Command("vCont?", r)) {
      m_vCont = r.find(";c") != std::string::npos && r.find(";s") != std::string::npos;
    }
    if (m_lost) return sError = "the GDB server stopped answering", false;
    return true;
  }

  bool ReadAnnex(const std::string& sObject, const std::string& sAnnex, std::string& sOut) {
    sOut.clear();
    size_t chunk = std::max<size_t>(64, m_packetSize - 8);
    for (int guard = 0; guard < 4096; ++guard) {
      std::string r;
      if (!Command("qXfer:" + sObject + ":read:" + sAnnex + ":" + Hex32(sOut.size()) + "," + Hex32(chunk), r))
        return false;
      if (r.empty() || (r[0] != 'm' && r[0] != 'l')) return false;
      std::string data = CRspLink::Unescape(r.substr(1));
      sOut += data;
      if ((int)sOut.size() > MAX_XML) return false;
      if (r[0] == 'l' || data.empty()) return true;
    }
    return false;
  }

  bool ReadFeatures(const std::string& sAnnex, int& Next, int Depth) {
    if (Depth > 4) return false;
    std::string xml;
    if (!ReadAnnex("features", sAnnex, xml)) return false;
    size_t p = 0;
    for (;;) {
      size_t reg = xml.find("<reg", p), inc = xml.find("<xi:include", p);
      size_t at = std::min(reg, inc);
      if (at == std::string::npos) break;
      size_t end = xml.find('>', at);
      if (end == std::string::npos) break;
      std::string tag = xml.substr(at, end - at);
      p = end;
      if (at == inc) {
        std::string href = Attr(tag, "href");
        if (!href.empty() && !ReadFeatures(href, Next, Depth + 1)) return false;
        continue;
      }
      if (tag.size() > 4 && !isspace((unsigned char)tag[4])) continue;  // "<register..." is not a reg
      RegInfo ri;
      ri.Name = Attr(tag, "name");
      U64 v;
      ri.Bits = ParseNum(Attr(tag, "bitsize"), v) && v > 0 && v <= 1024 ? (int)v : 32;
      std::string rn = Attr(tag, "regnum");
      if (!rn.empty() && ParseNum(rn, v) && v < 100000) Next = (int)v;
      ri.Num = Next++;
      std::transform(ri.Name.begin(), ri.Name.end(), ri.Name.begin(), [](unsigned char c) { return (char)tolower(c); });
      if (!ri.Name.empty()) m_regs.push_back(ri);
    }
    return true;
  }

  void MapRegisters() {
    static const char* probeNames[] = {"r0", "r1", "r2", "r3", "r4", "r5", "r6", "r7", "r8", "r9", "r10", "r11",
                                       "r12", "sp", "lr", "pc", "xpsr", "msp", "psp", "primask", "basepri",
                                       "faultmask", "control", "fpscr"};
    std::fill(std::begin(m_dRegOfS), std::end(m_dRegOfS), -1);
    for (const RegInfo& r : m_regs) {
      for (int i = 0; i < (int)(sizeof probeNames / sizeof *probeNames); ++i)
        if (r.Name == probeNames[i]) m_probeToGdb[i] = r.Num;
      if (r.Name == "r13") m_probeToGdb[13] = r.Num;
      if (r.Name == "r14") m_probeToGdb[14] = r.Num;
      if (r.Name == "r15") m_probeToGdb[15] = r.Num;
      if (r.Name == "cpsr" && m_probeToGdb[16] < 0) m_probeToGdb[16] = r.Num;
      unsigned k;
      char tail;
      if (sscanf(r.Name.c_str(), "s%u%c", &k, &tail) == 1 && k < 32 && r.Bits == 32) m_probeToGdb[VORDENARM_REG_S0 + k] = r.Num;
      if (sscanf(r.Name.c_str(), "d%u%c", &k, &tail) == 1 && k < 16 && r.Bits == 64) {
        m_dRegOfS[2 * k] = r.Num;
        m_dRegOfS[2 * k + 1] = r.Num;
      }
    }
    m_gOrder = m_regs;
    std::sort(m_gOrder.begin(), m_gOrder.end(), [](const RegInfo& a, const RegInfo& b) { return a.Num < b.Num; });
  }

  void ReadMemoryMap() {
    std::string xml;
    if (!ReadAnnex("memory-map", "", xml)) return;
    size_t p = 0;
    while ((p = xml.find("<memory", p)) != std::string::npos) {
      size_t end = xml.find('>', p);
      if (end == std::string::npos) break;
      std::string tag = xml.substr(p, end - p);
      size_t close = xml.find("</memory>", end);
      std::string body = close == std::string::npos ? "" : xml.substr(end, close - end);
      p = end;
      if (Attr(tag, "type") != "flash") continue;
      U64 a, l, b = 0;
      if (!ParseNum(Attr(tag, "start"), a) || !ParseNum(Attr(tag, "length"), l) || a > 0xFFFFFFFFull || l == 0 ||
          a + l > 0x100000000ull)
        continue;
      size_t bp = body.find("name=\"blocksize\"");
      if (bp != std::string::npos) {
        size_t gt = body.find('>', bp), lt = body.find('<', bp);
        if (gt != std::string::npos && lt != std::string::npos && lt > gt) ParseNum(body.substr(gt + 1, lt - gt - 1), b);
      }
      m_flash.push_back({(U32)a, (U32)std::min<U64>(l, 0xFFFFFFFFull), (U32)std::min<U64>(b, l)});
    }
  }

  int m_devIdx;
  LogFn m_log;
  std::recursive_mutex m_mx;
  CRspLink m_link;
  int m_timeout = 2000;
  size_t m_packetSize = 400;
  bool m_xmlFeatures = false, m_xmlMemMap = false, m_vContOffered = false, m_vCont = false;
  int m_hasX = -1;  // unknown until the first write
  bool m_useG = true;
  std::vector<RegInfo> m_regs, m_gOrder;
  int m_probeToGdb[VORDENARM_REG_NUM];
  int m_dRegOfS[32];
  std::map<int, U64> m_cache;
  bool m_running = false;
  bool m_lost = false;
  bool m_watchHit = false;
  Fio m_fio;
  std::string m_resetCmd = "system_reset";
  std::vector<FlashRegion> m_flash;
  std::set<U32> m_erased;
  bool m_flashDirty = false;
  std::vector<BP> m_bps;
  int m_nextBp = 1;
  std::vector<DE> m_des;
  U32 m_nextDe = 1;
  int m_maxHW = 6, m_maxDE = 4;
};

}  // namespace

std::unique_ptr<CBackend> CreateGdbBackend(const std::string& sHostPort, int DeviceIndex, LogFn Log,
                                           std::string& sError) {
  // "host", "host:port", "[v6addr]:port" or a bare IPv6 address.
  std::string host = sHostPort, ps;
  if (!host.empty() && host[0] == '[') {
    size_t rb = host.find(']');
    if (rb == std::string::npos) {
      sError = "invalid host \"" + sHostPort + "\"";
      return nullptr;
    }
    if (rb + 1 < host.size()) {
      if (host[rb + 1] != ':') {
        sError = "invalid host \"" + sHostPort + "\"";
        return nullptr;
      }
      ps = host.substr(rb + 2);
    }
    host = host.substr(1, rb - 1);
  } else if (std::count(host.begin(), host.end(), ':') == 1) {
    size_t colon = host.find(':');
    ps = host.substr(colon + 1);
    host = host.substr(0, colon);
  }
  int port = GDB_DEFAULT_PORT;
  if (!ps.empty() || sHostPort.find("]:") != std::string::npos ||
      (std::count(sHostPort.begin(), sHostPort.end(), ':') == 1)) {
    U64 v;
    if (!ParseNum(ps, v) || v == 0 || v > 65535) {
      sError = "invalid port in \"" + sHostPort + "\"";
      return nullptr;
    }
    port = (int)v;
  }
  if (host.empty()) host = "127.0.0.1";
  auto b = std::make_unique<CGdbBackend>(DeviceIndex, Log ? Log : [](int, const std::string&) {});
  if (!b->Connect(host, port, sError)) return nullptr;
  return b;
}

std::unique_ptr<CBackend> CreateGdbBackendOnSocket(int Fd, int DeviceIndex, LogFn Log, std::string& sError,
                                                   int TimeoutMs) {
  auto b = std::make_unique<CGdbBackend>(DeviceIndex, Log ? Log : [](int, const std::string&) {});
  if (!b->Attach(Fd, TimeoutMs, sError)) return nullptr;
  return b;
}

}  // namespace vorden
