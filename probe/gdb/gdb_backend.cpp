// GDB remote serial protocol back end (see gdb_backend.h): the debugger's
// policy on top of the request layer of gdb_client.h.
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
#include "gdb/gdb_client.h"
#include "gdb/gdb_targetdesc.h"

namespace vorden {

namespace {

using Clock = std::chrono::steady_clock;
using gdbdesc::FlashRegion;
using RegInfo = gdbdesc::Register;

// Semihosting operation numbers whose results need translating between the
// semihosting convention (bytes NOT transferred) and File-I/O (bytes done).
constexpr U32 SEMI_WRITEC = 0x03, SEMI_WRITE0 = 0x04, SEMI_WRITE = 0x05, SEMI_READ = 0x06, SEMI_READC = 0x07,
              SEMI_FLEN = 0x0C;
constexpr U16 BKPT_SEMIHOST = 0xBEAB;
constexpr U32 XPSR_THUMB = 0x01000000;
// Memory whose content a reset must not change (code, SRAM and external RAM
// of the Cortex-M memory map); peripherals and the system space are left to
// the reset.
constexpr U64 KEEP_LIMIT = 16u << 20;

// The emulator's single-step flags: step, with interrupts and timers held.
constexpr int QEMU_SSTEP_ENABLE = 1, QEMU_SSTEP_NOIRQ = 2, QEMU_SSTEP_NOTIMER = 4;

std::string Hex32(U64 v) {
  char b[24];
  snprintf(b, sizeof b, "%llx", (unsigned long long)v);
  return b;
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

bool KeptAcrossReset(U32 Addr) { return Addr < 0x40000000u || (Addr >= 0x60000000u && Addr < 0xA0000000u); }

// An instruction that changes PRIMASK itself (CPS, MSR): stepping it with
// interrupts held would undo its effect.
bool WritesPrimask(U16 First) { return (First & 0xFFEC) == 0xB660 || (First & 0xFFF0) == 0xF380; }

class CGdbBackend : public CBackend {
 public:
  CGdbBackend(int DeviceIdx, LogFn Log) : m_devIdx(DeviceIdx), m_log(std::move(Log)), m_client(m_log) {
    std::fill(std::begin(m_probeToGdb), std::end(m_probeToGdb), -1);
    SetLimits(-1, -1);
  }
  ~CGdbBackend() override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_client.IsOpen()) {
      // Leave the target running; a server lets it run after a detach.
      std::string p;
      if (m_running && m_client.Interrupt()) m_client.WaitStop(p);
      m_client.Detach();
    }
    m_client.Close();
  }

  bool Connect(const std::string& sHost, int Port, std::string& sError) {
    if (!m_client.ConnectTcp(sHost, Port, sError)) return false;
    return Init(sError);
  }
  bool Attach(int Fd, int TimeoutMs, std::string& sError) {
    m_client.SetTimeout(TimeoutMs);
    m_client.Adopt(Fd);
    return Init(sError);
  }

  int DeviceIndex() const override { return m_devIdx; }

  // ---- run control --------------------------------------------------------
  int IsHalted() override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (!m_client.IsOpen()) return Lose("not connected"), -1;
    if (!m_running) return 1;
    std::string p;
    int r = m_client.PollStop(p, 0);
    if (r < 0) return Lose("connection closed"), -1;
    if (r == 0) return 0;
    if (!TakeStop(p)) return -1;
    return m_running ? 0 : 1;
  }

  int Halt() override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_client.Lost()) return 1;
    if (!m_running) return 0;
    std::string p;
    if (!m_client.Interrupt() || m_client.WaitStop(p) < 0) return Lose("no stop after an interrupt"), 1;
    if (!TakeStop(p)) return 1;
    return m_running ? 1 : 0;
  }

  int Go(U32 Flags) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_client.Lost()) return -1;
    if (m_running) return 0;
    if (!FlushFlash()) return -1;
    if (m_fio.Active) return ReplyFio(false) ? 0 : -1;
    U64 pc = 0;
    if ((Flags & VORDENARM_GO_FLAG_OVERSTEP_BP) && !m_bps.empty() && ReadRegRaw(15, pc) &&
        HasBPAt((U32)pc & ~1u)) {
      if (StepInternal() != 0) return -1;
      if (m_fio.Active || m_watchHit) return 0;  // the step itself stopped for a reason
    }
    return Resume() ? 0 : -1;
  }

  int Step() override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_client.Lost() || m_running) return 1;
    if (!FlushFlash()) return 1;
    if (m_fio.Active) {
      // The BKPT 0xAB is the instruction being stepped: finish the request
      // and keep the target stopped behind it.
      return ReplyFio(true) ? 0 : 1;
    }
    return StepInternal() == 0 ? 0 : 1;
  }

  // The server's reset, then whatever it changed in memory we wrote is put
  // back: a server that reloads its own program image on reset (an emulator
  // given a program on its command line) would otherwise undo a download.
  int Reset() override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_client.Lost()) return -1;
    if (m_running && Halt() != 0) return -1;
    if (m_fio.Active) {
      // Complete the outstanding request so the server is not left waiting.
      m_fio.Active = false;
      std::string p;
      if (!m_client.FileIoReply("F-1,4,C") || m_client.WaitStop(p) < 0) return -1;
    }
    if (!FlushFlash()) return -1;
    std::vector<std::string> before;
    for (const auto& [a, n] : m_kept) {
      std::string b(n, '\0');
      b.resize((size_t)std::max(0, ReadMemRaw(a, n, (U8*)b.data())));
      before.push_back(std::move(b));
    }
    bool ok = false;
    std::string out, err;
    int mr = m_client.Monitor(m_resetCmd, out, err);
    if (!out.empty()) m_log(0, out);
    if (mr == 1) {
      ok = WaitResetState();
    } else if (mr == 0) {
      m_log(1, "GDB server: reset command \"" + m_resetCmd + "\" failed (" + err +
                   "); setting SP, PC and xPSR from the vector table");
    }
    InvalidateRegs();
    if (m_client.Lost()) return -1;
    // Put back what the reset changed among the bytes we wrote.
    bool vectorsBack = false;
    size_t i = 0;
    for (const auto& [a, n] : m_kept) {
      const std::string& b = before[i++];
      std::string now(b.size(), '\0');
      if (b.empty() || ReadMemRaw(a, (U32)b.size(), (U8*)now.data()) != (int)b.size() || now == b) continue;
      if (WriteMemRaw(a, (U32)b.size(), (const U8*)b.data()) != (int)b.size()) return -1;
      if (!FlushFlash()) return -1;
      vectorsBack |= a < 8;
      m_log(0, "GDB server: the reset changed 0x" + Hex32(a) + "-0x" + Hex32((U64)a + b.size() - 1) +
                   "; the downloaded content was written back");
    }
    if (vectorsBack || mr == 0) {
      // The core took its reset state from a program that is no longer
      // there (or was not reset at all): take it from the vector table.
      U32 vec[2];
      ok = ReadMemRaw(0, 8, (U8*)vec) == 8 && WriteRegRaw(13, vec[0] & ~3u) && WriteRegRaw(15, vec[1] & ~1u) &&
           WriteRegRaw(16, XPSR_THUMB);
    }
    InvalidateRegs();
    m_watchHit = false;
    return ok ? 0 : -1;
  }

  // ---- registers ------------------------------------------------------------
  int ReadReg(U32 Idx, U64& Value) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    Value = 0;
    if (m_client.Lost() || m_running || Idx >= VORDENARM_REG_NUM) return -1;
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
    if (m_client.Lost() || m_running || Idx >= VORDENARM_REG_NUM) return -1;
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
    if (m_client.Lost() || !pData) return 0;
    if (!FlushFlash()) return 0;
    bool paused = false;
    if (m_running && !Pause(paused)) return 0;
    int n = ReadMemRaw(Addr, NumBytes, pData);
    if (paused) Resume();
    return n;
  }

  int WriteMem(U32 Addr, U32 NumBytes, const U8* pData) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    if (m_client.Lost() || !pData) return 0;
    bool paused = false;
    if (m_running && !Pause(paused)) return 0;
    int n = WriteMemRaw(Addr, NumBytes, pData);
    if (n > 0) Keep(Addr, (U32)n);
    if (paused) Resume();
    return n;
  }

  // ---- breakpoints ----------------------------------------------------------
  int SetBP(U32 Addr, U32 Flags) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    Addr &= ~1u;
    for (const BP& b : m_bps)
      if (b.Addr == Addr) return b.Handle;
    if (m_client.Lost()) return 0;
    int hw = 0;
    for (const BP& b : m_bps) hw += b.Z == '1';
    bool paused = false;
    if (m_running && !Pause(paused)) return 0;
    BP b{m_nextBp, Addr, Flags, 0, 0};
    if ((Flags & VORDENARM_BP_TYPE_HW_MASK) && hw < m_maxHW && m_client.InsertPoint('1', Addr, 2) == 1) {
      b.Z = '1';
      b.Imp = VORDENARM_BP_IMP_HW;
    } else if ((Flags & VORDENARM_BP_TYPE_SW_MASK) && m_client.InsertPoint('0', Addr, 2) == 1) {
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
    if (m_running && !m_client.Lost() && !Pause(paused)) return -1;
    int r = -1;
    for (size_t i = 0; i < m_bps.size();) {
      if (Handle == -1 || m_bps[i].Handle == Handle) {
        if (!m_client.Lost()) m_client.RemovePoint(m_bps[i].Z, m_bps[i].Addr, 2);
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
    if ((int)m_des.size() >= m_maxDE) err |= VORDENARM_EVENT_ERR_NO_MORE_ADDR_COMP;
    if (err) return (int)(err | 0x80000000u);
    if (m_client.Lost()) return (int)VORDENARM_EVENT_ERR_UNKNOWN;
    DE d{m_nextDe, Ev, Ev.AddrMask, '2'};
    if (!(Ev.AccessMask & 6)) {
      if ((Ev.Access & 6) == 2) d.AddrMask |= 1;
      if ((Ev.Access & 6) == 4) d.AddrMask |= 3;
    }
    d.Z = (Ev.AccessMask & 1) ? '4' : (Ev.Access & 1) ? '2' : '3';
    bool paused = false;
    if (m_running && !Pause(paused)) return (int)VORDENARM_EVENT_ERR_UNKNOWN;
    bool ok = m_client.InsertPoint(d.Z, Ev.Addr & ~d.AddrMask, d.AddrMask + 1) == 1;
    if (paused) Resume();
    if (!ok) return (int)VORDENARM_EVENT_ERR_NO_MORE_ADDR_COMP;
    ++m_nextDe;
    m_des.push_back(d);
    if (pHandle) *pHandle = d.Handle;
    return 0;
  }

  int ClrDataEvent(U32 Handle) override {
    std::lock_guard<std::recursive_mutex> lk(m_mx);
    bool paused = false;
    if (m_running && !m_client.Lost() && !Pause(paused)) return -1;
    int r = Handle == 0xFFFFFFFF ? 0 : -1;
    for (size_t i = 0; i < m_des.size();) {
      if (Handle == 0xFFFFFFFF || m_des[i].Handle == Handle) {
        const DE& d = m_des[i];
        if (!m_client.Lost()) m_client.RemovePoint(d.Z, d.Ev.Addr & ~d.AddrMask, d.AddrMask + 1);
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
      if (!ParseNum(sValue, v) || v < 10 || v > 600000) sError = "invalid value \"" + sValue + "\" for GdbTimeout";
      else m_client.SetTimeout((int)v);
      return true;
    }
    if (n == "gdbkill") {
      // Ends the target on the server side (an emulator exits); the
      // connection is gone afterwards.
      std::string p;
      if (m_running && m_client.Interrupt()) m_client.WaitStop(p);
      m_client.Kill();
      Lose("target killed");
      return true;
    }
    if (n == "gdbmonitor") {
      std::string out;
      if (m_running || m_client.Monitor(sValue, out, sError) != 1) {
        if (sError.empty()) sError = m_running ? "the target is running" : "the connection is lost";
      }
      if (!out.empty()) m_log(0, out);
      return true;
    }
    return false;
  }


 private:
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
  // How a single step keeps pending interrupts out: the server holds them
  // (the emulator's step flags), PRIMASK is set around the step, or nothing
  // can (neither is available).
  enum class StepMask { Server, Primask, None };

  void Lose(const char* sWhy) {
    m_client.Lose(sWhy);
    m_running = false;
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
    if (CGdbClient::IsWatchStop(p) && !m_des.empty()) {
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
    if ((!ReadRegRaw(0, r0) || !ReadRegRaw(15, pc)) && m_client.Lost()) return false;
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
    if (!m_client.FileIoReply(pkt)) return Lose("send failed"), false;
    if (!Stay) {
      m_running = true;
      m_watchHit = false;
      return true;
    }
    std::string p;
    if (m_client.WaitStop(p) < 0) return Lose("no stop reply"), false;
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
    if (m_client.ReadRegister(Num, r) != 1 || !RegFromHex(r, v)) return false;
    m_cache[Num] = v;
    return true;
  }

  // 'g': the described registers in register number order, as far as the
  // server sends them.
  void FetchAll() {
    std::string r;
    if (m_client.ReadRegisters(r) != 1) return;
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
    if (m_client.WriteRegister(Num, RegToHex(v, bytes)) != 1) return false;
    m_cache.erase(Num);
    return true;
  }

  int ReadChunk(U32 Addr, U32 Len, U8* p) {
    std::string bytes;
    int r = m_client.ReadMemory(Addr, Len, bytes);
    if (r < 0) return 0;
    if (r == 1) {
      // A short reply: the rest may still be readable in smaller pieces.
      memcpy(p, bytes.data(), bytes.size());
      return (int)bytes.size();
    }
    // An error: find the readable prefix by halving.
    if (Len <= 1) return 0;
    U32 half = Len / 2;
    int a = ReadChunk(Addr, half, p);
    if (a < (int)half) return a;
    return (int)half + ReadChunk(Addr + half, Len - half, p + half);
  }

  int ReadMemRaw(U32 Addr, U32 NumBytes, U8* pData) {
    U64 limit = 0x100000000ull - Addr;
    if (NumBytes > limit) NumBytes = (U32)limit;
    // A reply carries two hex digits per byte within the server's packet size.
    U32 chunk = (U32)std::max<size_t>(16, m_client.Capabilities().PacketSize / 2);
    U32 done = 0;
    while (done < NumBytes && !m_client.Lost()) {
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
    while (done < NumBytes && !m_client.Lost()) {
      U32 a = Addr + done;
      U32 k = 0;
      if (const FlashRegion* fr = FlashAt(a)) {
        U32 n = (U32)std::min<U64>(NumBytes - done, (U64)fr->Addr + fr->Size - a);
        if (!FlashWrite(*fr, a, n, pData + done, k)) break;
        done += k;
        continue;
      }
      U32 n = NumBytes - done;
      // Stop short of a flash region.
      for (const FlashRegion& f : m_flash)
        if (f.Addr > a && f.Addr - a < n) n = f.Addr - a;
      int r = m_client.WriteMemoryBinary(a, pData + done, n, k);
      if (r == 2) r = m_client.WriteMemoryHex(a, pData + done, n, k);
      if (r != 1) break;
      done += k;
    }
    return (int)done;
  }

  // Remembers ranges written through the debugger in memory a reset keeps;
  // Reset puts them back if the server's reset changed them.
  void Keep(U32 Addr, U32 n) {
    if (!KeptAcrossReset(Addr) || m_keepOff) return;
    U64 end = std::min<U64>((U64)Addr + n, Addr < 0x40000000u ? 0x40000000ull : 0xA0000000ull);
    U64 a = Addr;
    // Join with the ranges it touches.
    auto it = m_kept.upper_bound((U32)a);
    if (it != m_kept.begin()) {
      auto prev = std::prev(it);
      if ((U64)prev->first + prev->second >= a) {
        a = prev->first;
        end = std::max<U64>(end, (U64)prev->first + prev->second);
        it = m_kept.erase(prev);
      }
    }
    while (it != m_kept.end() && it->first <= end) {
      end = std::max<U64>(end, (U64)it->first + it->second);
      it = m_kept.erase(it);
    }
    m_kept[(U32)a] = (U32)(end - a);
    U64 total = 0;
    for (const auto& [ka, kn] : m_kept) total += kn;
    if (total > KEEP_LIMIT) {
      m_log(1, "GDB server: more than 16 MiB written; a reset that reloads the server's own image will not be undone");
      m_kept.clear();
      m_keepOff = true;
    }
  }

  // After the reset command: the server may carry out the reset after it
  // answered, so wait until the core shows the vector table's SP and PC (the
  // table as it is now in memory).
  bool WaitResetState() {
    auto deadline = Clock::now() + std::chrono::milliseconds(m_client.Timeout());
    for (;;) {
      InvalidateRegs();
      U32 vec[2];
      U64 pc = 0, sp = 0;
      if (ReadMemRaw(0, 8, (U8*)vec) != 8 || !ReadRegRaw(15, pc) || !ReadRegRaw(13, sp)) return !m_client.Lost();
      if (((U32)pc & ~1u) == (vec[1] & ~1u) && (U32)sp == (vec[0] & ~3u)) return true;
      if (Clock::now() > deadline) {
        m_log(1, "GDB server: the core did not show the reset state after \"" + m_resetCmd + "\"");
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }

  const FlashRegion* FlashAt(U32 Addr) const {
    for (const FlashRegion& f : m_flash)
      if (Addr >= f.Addr && Addr - f.Addr < f.Size) return &f;
    return nullptr;
  }
  bool InFlash(U32 Addr) const { return FlashAt(Addr) != nullptr; }

  // Flash programming through the server: erase each touched block once,
  // write, and finish with vFlashDone before anything else uses the target.
  bool FlashWrite(const FlashRegion& f, U32 Addr, U32 n, const U8* p, U32& Done) {
    n = m_client.FitBinary(p, n, 22);  // what one vFlashWrite carries; its blocks only
    U32 blk = f.Block ? f.Block : f.Size;
    for (U32 b = (Addr - f.Addr) / blk; (U64)b * blk < (U64)Addr - f.Addr + n; ++b) {
      U32 start = f.Addr + b * blk;
      if (m_erased.count(start)) continue;
      if (m_client.FlashErase(start, (U32)std::min<U64>(blk, (U64)f.Addr + f.Size - start)) != 1) {
        m_log(2, "GDB server: flash erase at 0x" + Hex32(start) + " failed");
        return false;
      }
      m_erased.insert(start);
    }
    if (m_client.FlashWrite(Addr, p, n, Done) != 1) {
      m_log(2, "GDB server: flash write at 0x" + Hex32(Addr) + " failed");
      return false;
    }
    m_flashDirty = true;
    return true;
  }

  bool FlushFlash() {
    if (!m_flashDirty) return !m_client.Lost();
    m_flashDirty = false;
    m_erased.clear();
    if (m_client.FlashDone() != 1) {
      m_log(2, "GDB server: vFlashDone failed");
      return false;
    }
    return true;
  }

  bool HasBPAt(U32 Addr) const {
    for (const BP& b : m_bps)
      if (b.Addr == Addr) return true;
    return false;
  }

  bool Resume() {
    if (!m_client.Continue()) return Lose("send failed"), false;
    InvalidateRegs();
    m_running = true;
    m_watchHit = false;
    return true;
  }

  // Stops a running target for a debug access. Paused is true when the stop
  // was ours (resume afterwards); an event that raced with it is kept.
  bool Pause(bool& Paused) {
    Paused = false;
    std::string p;
    if (!m_client.Interrupt() || m_client.WaitStop(p) < 0) return Lose("no stop after an interrupt"), false;
    bool ours = (p[0] == 'S' || p[0] == 'T') && CGdbClient::Signal(p) == 2 && !CGdbClient::IsWatchStop(p);
    if (!TakeStop(p)) return false;
    Paused = ours;
    return true;
  }

  // One instruction with breakpoints at the PC out of the way; watchpoints
  // that stopped before their access are stepped past. An IT block is one
  // step, as on the simulator. The step executes the instruction at the PC
  // even when an interrupt is pending: interrupts are held during the step
  // (as hardware debuggers do) and taken when the target runs on.
  int StepInternal() {
    std::vector<BP*> lifted;
    if (!m_bps.empty()) {
      U64 pc = 0;
      if (!ReadRegRaw(15, pc)) return -1;
      for (BP& b : m_bps)
        if (b.Addr == ((U32)pc & ~1u)) {
          if (m_client.RemovePoint(b.Z, b.Addr, 2) < 0) return -1;
          lifted.push_back(&b);
        }
    }
    bool ok = StepOnce();
    for (int i = 0; ok && i < 4 && !m_fio.Active && !m_watchHit; ++i) {
      U64 xpsr;
      if (!ReadRegRaw(16, xpsr)) break;
      U32 it = (U32)((xpsr >> 25) & 3) | (U32)((xpsr >> 8) & 0xFC);
      if ((it & 0xF) == 0) break;
      ok = StepOnce();
    }
    for (BP* b : lifted)
      if (!m_client.Lost()) m_client.InsertPoint(b->Z, b->Addr, 2);
    return ok ? 0 : -1;
  }

  // One machine step. A server may report a step done without having
  // executed anything (the emulator does when an interrupt or a timer event
  // is pending): the PC did not move and the instruction is no branch to
  // itself. Such a step is repeated.
  bool StepOnce() {
    U64 pc0 = 0;
    bool havePc = ReadRegRaw(15, pc0);
    bool unmask = false;
    if (m_stepMask == StepMask::Primask) {
      U64 primask = 1;
      U16 insn = 0;
      if (havePc && ReadRegRaw(VORDENARM_REG_PRIMASK, primask) && (primask & 1) == 0 &&
          ReadMemRaw((U32)pc0 & ~1u, 2, (U8*)&insn) == 2 && !WritesPrimask(insn))
        unmask = WriteRegRaw(VORDENARM_REG_PRIMASK, 1);
    }
    bool ok = true;
    for (int attempt = 0; ok; ++attempt) {
      std::string p;
      if (!m_client.StepStart() || m_client.WaitStop(p) < 0) return Lose("no stop after a step"), false;
      ok = TakeStop(p);
      U64 pc1 = 0;
      if (!ok || !havePc || m_fio.Active || m_watchHit || !ReadRegRaw(15, pc1) || pc1 != pc0 || attempt == 3 ||
          BranchesToItself((U32)pc0 & ~1u))
        break;
    }
    if (unmask && ok && !m_client.Lost()) ok = WriteRegRaw(VORDENARM_REG_PRIMASK, 0);
    return ok;
  }

  bool BranchesToItself(U32 Pc) {
    U16 h[2] = {0, 0};
    if (ReadMemRaw(Pc, 4, (U8*)h) < 2) return true;  // unknown: take the step as done
    return h[0] == 0xE7FE || ((h[0] & 0xF0FF) == 0xD0FE && (h[0] & 0x0E00) != 0x0E00) ||
           (h[0] == 0xF7FF && h[1] == 0xBFFE);
  }

  // The access of a watchpoint that stopped before it: lift the watchpoints,
  // step, put them back.
  bool StepPastWatch() {
    for (const DE& d : m_des)
      if (m_client.RemovePoint(d.Z, d.Ev.Addr & ~d.AddrMask, d.AddrMask + 1) < 0) return false;
    bool ok = true;
    std::string p;
    if (!m_client.StepStart() || m_client.WaitStop(p) < 0) return Lose("no stop after a step"), false;
    InvalidateRegs();
    if (p[0] == 'W' || p[0] == 'X') return TakeStop(p);
    if (p[0] == 'F') ok = TakeFio(p);
    for (const DE& d : m_des)
      if (m_client.InsertPoint(d.Z, d.Ev.Addr & ~d.AddrMask, d.AddrMask + 1) < 0) return false;
    return ok;
  }

  // ---- connection set-up ------------------------------------------------------
  bool Init(std::string& sError) {
    if (!m_client.Handshake(sError)) return false;
    // A server that stopped a running target for this connection says so
    // with a stop reply of its own: the target goes on running afterwards.
    std::string unasked, r;
    bool wasRunning = m_client.TakeUnsolicitedStop(unasked);
    int hr = m_client.HaltReason(r);
    if (hr < 0) return sError = "no answer to '?'", false;
    if (hr == 0) return sError = "the GDB server has no stopped target (\"" + r.substr(0, 40) + "\")", false;
    if (m_client.Capabilities().Features) {
      int next = 0;
      if (!ReadFeatures("target.xml", next, 0)) m_regs.clear();
    }
    if (m_regs.empty()) {
      if (m_client.Lost()) return sError = "the GDB server stopped answering", false;
      // No description: the server's default ARM layout.
      m_log(1, "GDB server gives no register description; assuming the default ARM register numbers");
      static const char* names[] = {"r0", "r1", "r2", "r3", "r4", "r5", "r6", "r7",
                                    "r8", "r9", "r10", "r11", "r12", "sp", "lr", "pc"};
      for (int i = 0; i < 16; ++i) m_regs.push_back({names[i], i, 32});
      m_regs.push_back({"xpsr", 25, 32});
      m_useG = false;
    }
    MapRegisters();
    if (m_client.Capabilities().MemoryMap) {
      std::string xml;
      if (m_client.ReadXfer("memory-map", "", xml) == 1) m_flash = gdbdesc::ParseMemoryMap(xml);
    }
    ChooseStepMask();
    if (m_client.Lost()) return sError = "the GDB server stopped answering", false;
    if (wasRunning) {
      m_log(0, "GDB server: attached to a running target; it keeps running");
      if (!Resume()) return sError = "the GDB server stopped answering", false;
    }
    return true;
  }

  // Interrupts held during single steps: the emulator's step flags when it
  // has them, else PRIMASK when the server describes it.
  void ChooseStepMask() {
    std::string bits;
    if (m_client.Query("qqemu.sstepbits", bits) == 1 && bits.find("NOIRQ=") != std::string::npos) {
      std::string r;
      int flags = QEMU_SSTEP_ENABLE | QEMU_SSTEP_NOIRQ | QEMU_SSTEP_NOTIMER;
      if (m_client.Query("Qqemu.sstep=" + Hex32((U64)flags), r) == 1 && r == "OK") {
        m_stepMask = StepMask::Server;
        return;
      }
    }
    m_stepMask = m_probeToGdb[VORDENARM_REG_PRIMASK] >= 0 ? StepMask::Primask : StepMask::None;
    if (m_stepMask == StepMask::None)
      m_log(1, "GDB server: interrupts cannot be held during single steps; a pending interrupt is taken by a step");
  }

  bool ReadFeatures(const std::string& sAnnex, int& Next, int Depth) {
    std::string xml;
    if (m_client.ReadXfer("features", sAnnex, xml) != 1) return false;
    return gdbdesc::ParseRegisters(
        xml, Next, m_regs, [&](const std::string& sHref) { return ReadFeatures(sHref, Next, Depth + 1); }, Depth);
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
      if (sscanf(r.Name.c_str(), "s%u%c", &k, &tail) == 1 && k < 32 && r.Bits == 32)
        m_probeToGdb[VORDENARM_REG_S0 + k] = r.Num;
      if (sscanf(r.Name.c_str(), "d%u%c", &k, &tail) == 1 && k < 16 && r.Bits == 64) {
        m_dRegOfS[2 * k] = r.Num;
        m_dRegOfS[2 * k + 1] = r.Num;
      }
    }
    m_gOrder = m_regs;
    std::sort(m_gOrder.begin(), m_gOrder.end(), [](const RegInfo& a, const RegInfo& b) { return a.Num < b.Num; });
  }

  int m_devIdx;
  LogFn m_log;
  std::recursive_mutex m_mx;
  CGdbClient m_client;
  bool m_useG = true;
  std::vector<RegInfo> m_regs, m_gOrder;
  int m_probeToGdb[VORDENARM_REG_NUM];
  int m_dRegOfS[32];
  std::map<int, U64> m_cache;
  bool m_running = false;
  bool m_watchHit = false;
  StepMask m_stepMask = StepMask::None;
  Fio m_fio;
  std::string m_resetCmd = "system_reset";
  std::vector<FlashRegion> m_flash;
  std::set<U32> m_erased;
  bool m_flashDirty = false;
  std::map<U32, U32> m_kept;  // start -> length, disjoint
  bool m_keepOff = false;
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
