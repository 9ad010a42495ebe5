// The data channels of the simulated target (see sim_channels.h).
#include "sim/sim_channels.h"

#include <algorithm>
#include <cstring>

namespace vorden {

namespace {
// Power model (microamperes).
constexpr U32 POWER_RUN_UA = 12000, POWER_SLEEP_UA = 3000, POWER_LED_UA = 5000;

const char* kLvtId = "MARLEK LVT";

void OpenLog(FILE*& f, const std::string& sPath, std::string& sError) {
  if (f) fclose(f);
  f = nullptr;
  if (sPath.empty()) return;
  f = fopen(sPath.c_str(), "wb");
  if (!f) sError = "cannot open file " + sPath;
}
}  // namespace

CSimChannels::CSimChannels(const DeviceDesc& Dev, const CSimMemory& Mem, CSimSystem& Sys, ISimCore& Core)
    : m_dev(Dev), m_mem(Mem), m_sys(Sys), m_core(Core) {}

CSimChannels::~CSimChannels() {
  if (m_powerLog) fclose(m_powerLog);
}

bool CSimChannels::ExecCommand(const std::string& sName, const std::string& sValue, std::string& sError) {
  if (sName == "simpowerlog") {
    std::lock_guard<std::mutex> lk(m_dataMx);
    OpenLog(m_powerLog, sValue, sError);
    return true;
  }
  if (sName == "supplypower") {
    U32 v;
    if (!ParseKnobU32(sValue, v)) {
      sError = "invalid value";
      return true;
    }
    m_supplyOn = v != 0;
    return true;
  }
  if (sName == "setlvtaddr") {
    U32 v;
    if (!ParseKnobU32(sValue, v)) {
      sError = "invalid address";
      return true;
    }
    std::lock_guard<std::mutex> lk(m_dataMx);
    m_lvtAddr = v;
    m_lvtFound = 0xFFFFFFFF;
    return true;
  }
  if (sName == "setlvtsearchranges") {
    // "0xA 0xS, 0xA 0xS": pairs of start address and size.
    std::vector<std::pair<U32, U32>> ranges;
    std::string s = sValue;
    for (char& ch : s)
      if (ch == ',') ch = ' ';
    char* p = s.data();
    for (;;) {
      while (*p == ' ') ++p;
      if (!*p) break;
      char* e1;
      unsigned long long a = strtoull(p, &e1, 0);
      if (e1 == p) {
        sError = "invalid search range";
        return true;
      }
      char* e2;
      unsigned long long n = strtoull(e1, &e2, 0);
      if (e2 == e1 || a > 0xFFFFFFFFull || n > 0xFFFFFFFFull) {
        sError = "invalid search range";
        return true;
      }
      ranges.push_back({(U32)a, (U32)n});
      p = e2;
    }
    std::lock_guard<std::mutex> lk(m_dataMx);
    m_lvtRanges = ranges;
    m_lvtFound = 0xFFFFFFFF;
    return true;
  }
  return false;
}

// The emulation thread asks at every timed event; with sampling and power off
// (the usual case) neither call takes the lock.
U64 CSimChannels::NextEvent() {
  if (!m_hssOn && !m_powerOn) return ~0ull;
  std::lock_guard<std::mutex> lk(m_dataMx);
  U64 n = ~0ull;
  if (m_hssOn) n = std::min(n, m_hssNext);
  if (m_powerOn) n = std::min(n, m_powerNext);
  return n;
}

void CSimChannels::Service(U64 c) {
  if (!m_hssOn && !m_powerOn) return;
  std::lock_guard<std::mutex> lk(m_dataMx);
  while (m_hssOn && c >= m_hssNext) {
    HSSSample(m_hssNext);
    m_hssNext += m_hssPeriod;
  }
  while (m_powerOn && c >= m_powerNext) {
    PowerSample(m_powerNext);
    m_powerAcc += m_powerStep;
    m_powerNext = (U64)m_powerAcc;
  }
}

// ---------------------------------------------------------------------------
// LVT terminal: a control block in target RAM (see firmware/sim/lvt.h).
//   char acID[16]; int MaxNumUp; int MaxNumDown; LVT_BUFFER aUp[], aDown[];
//   LVT_BUFFER: U32 sName, U32 pBuffer, U32 SizeOfBuffer, U32 WrOff, U32 RdOff, U32 Flags
// The terminal touches RAM only, directly: no peripheral, no code cache.
// ---------------------------------------------------------------------------

bool CSimChannels::LVTFind() {
  if (m_lvtFound != 0xFFFFFFFF) {
    char id[16];
    if (m_mem.Read(m_lvtFound, 16, (U8*)id) && memcmp(id, kLvtId, strlen(kLvtId) + 1) == 0) return true;
    m_lvtFound = 0xFFFFFFFF;
  }
  size_t idLen = strlen(kLvtId) + 1;
  if (m_lvtAddr != 0xFFFFFFFF) {
    char id[16];
    if (m_mem.Read(m_lvtAddr, 16, (U8*)id) && memcmp(id, kLvtId, idLen) == 0) {
      m_lvtFound = m_lvtAddr;
      return true;
    }
    return false;
  }
  std::vector<std::pair<U32, U32>> ranges = m_lvtRanges;
  if (ranges.empty()) ranges.push_back({m_dev.RAMAddr, m_dev.RAMSize});
  for (auto& rg : ranges) {
    U8* p = m_mem.HostPtr(rg.first, 1);
    const CSimMemory::Region* r = m_mem.Find(rg.first, 1);
    if (!p || !r) continue;
    U32 len = (U32)std::min<U64>(rg.second, (U64)r->Addr + r->Size - rg.first);
    for (U32 off = 0; off + 16 <= len; off += 4)
      if (memcmp(p + off, kLvtId, idLen) == 0) {
        m_lvtFound = rg.first + off;
        return true;
      }
  }
  return false;
}

int CSimChannels::LVTControl(U32 Cmd) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  if (Cmd == 0) {
    m_lvtStarted = true;
    LVTFind();  // may succeed later, once the firmware has set the block up
    return 0;
  }
  if (Cmd == 1) {
    m_lvtStarted = false;
    return 0;
  }
  return -1;
}

int CSimChannels::LVTRead(U32 BufIdx, U8* pData, U32 NumBytes) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  if (!m_lvtStarted) return -1;
  if (!LVTFind()) return 0;
  U32 hdr[2];
  if (!m_mem.Read(m_lvtFound + 16, 8, (U8*)hdr)) return -1;
  if (BufIdx >= hdr[0] || BufIdx > 16) return -1;
  U32 desc = m_lvtFound + 24 + 24 * BufIdx, d[6];
  if (!m_mem.Read(desc, 24, (U8*)d)) return -1;
  U32 buf = d[1], size = d[2], wr = d[3], rd = d[4];
  if (size == 0 || wr >= size || rd >= size) return -1;
  U32 done = 0;
  while (done < NumBytes && rd != wr) {
    U32 chunk = (wr > rd ? wr : size) - rd;
    chunk = std::min(chunk, NumBytes - done);
    if (!m_mem.Read(buf + rd, chunk, pData + done)) return -1;
    done += chunk;
    rd += chunk;
    if (rd == size) rd = 0;
  }
  if (done) m_mem.Write(desc + 16, 4, (const U8*)&rd);
  return (int)done;
}

int CSimChannels::LVTWrite(U32 BufIdx, const U8* pData, U32 NumBytes) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  if (!m_lvtStarted) return -1;
  if (!LVTFind()) return -1;
  U32 hdr[2];
  if (!m_mem.Read(m_lvtFound + 16, 8, (U8*)hdr)) return -1;
  if (BufIdx >= hdr[1] || BufIdx > 16) return -1;
  U32 desc = m_lvtFound + 24 + 24 * (hdr[0] + BufIdx), d[6];
  if (!m_mem.Read(desc, 24, (U8*)d)) return -1;
  U32 buf = d[1], size = d[2], wr = d[3], rd = d[4];
  if (size == 0 || wr >= size || rd >= size) return -1;
  U32 done = 0;
  while (done < NumBytes) {
    U32 next = wr + 1 == size ? 0 : wr + 1;
    if (next == rd) break;  // full
    if (!m_mem.Write(buf + wr, 1, pData + done)) return -1;
    wr = next;
    ++done;
  }
  if (done) m_mem.Write(desc + 12, 4, (const U8*)&wr);
  return (int)done;
}

// ---------------------------------------------------------------------------
// SWO
// ---------------------------------------------------------------------------

int CSimChannels::SWOEnable(U32 PortMask) {
  {
    std::lock_guard<std::mutex> lk(m_dataMx);
    m_swoPortMask = PortMask;
  }
  // What the probe sets up on the target: ITM on, the ports enabled.
  m_sys.EnableItm(PortMask);
  return 0;
}

int CSimChannels::SWODisable(U32 PortMask) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  m_swoPortMask &= ~PortMask;
  return 0;
}

void CSimChannels::SwoPut(U32 Port, U32 V, unsigned Size) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  if (Port > 31 || !(m_swoPortMask & (1u << Port))) return;
  auto& buf = m_swo[Port];
  if (buf.size() < (16u << 20))
    for (unsigned i = 0; i < Size; ++i) buf.push_back((U8)(V >> (8 * i)));
}

int CSimChannels::SWORead(int Port, U8* pData, U32 NumBytes) {
  if (Port < 0 || Port > 31) return -1;
  std::lock_guard<std::mutex> lk(m_dataMx);
  auto& b = m_swo[Port];
  U32 n = (U32)std::min<size_t>(NumBytes, b.size());
  if (n) memcpy(pData, b.data(), n);
  m_swoLastPort = Port;
  return (int)n;
}

int CSimChannels::SWOFlush(U32 NumBytes) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  auto& b = m_swo[m_swoLastPort];
  if (NumBytes >= b.size()) b.clear();
  else b.erase(b.begin(), b.begin() + NumBytes);
  return 0;
}

int CSimChannels::SWOCount() {
  std::lock_guard<std::mutex> lk(m_dataMx);
  size_t n = 0;
  for (auto& b : m_swo) n += b.size();
  return (int)n;
}

// ---------------------------------------------------------------------------
// High speed sampling and power
// ---------------------------------------------------------------------------

int CSimChannels::HSSStart(const VORDEN_HSS_MEM_BLOCK_DESC* paDesc, int NumBlocks, int PeriodUs) {
  if (!paDesc || NumBlocks < 1) return -1;
  if (NumBlocks > 64) return -3;
  std::vector<HSSBlock> blocks;
  for (int i = 0; i < NumBlocks; ++i) {
    if (paDesc[i].NumBytes == 0 || paDesc[i].NumBytes > 256 || !m_mem.Find(paDesc[i].Addr, paDesc[i].NumBytes)) return -1;
    blocks.push_back({paDesc[i].Addr, paDesc[i].NumBytes});
  }
  std::lock_guard<std::mutex> dl(m_dataMx);
  m_hssBlocks = blocks;
  U64 period = (U64)std::max(PeriodUs, 10) * m_dev.ClockHz / 1000000;
  m_hssPeriod = std::max<U64>(period, 1);
  m_hssNext = m_core.Cycles() + m_hssPeriod;
  m_hssBuf.clear();
  m_hssOn = true;
  m_core.EventsChanged();
  return 0;
}

int CSimChannels::HSSStop() {
  std::lock_guard<std::mutex> lk(m_dataMx);
  m_hssOn = false;
  m_core.EventsChanged();
  return 0;
}

// Called with m_dataMx held.
void CSimChannels::HSSSample(U64 Cycle) {
  if (m_hssBuf.size() > (32u << 20)) return;  // buffer full: samples are dropped
  U32 t = (U32)(Cycle * 1000000 / m_dev.ClockHz);
  const U8* pt = (const U8*)&t;
  m_hssBuf.insert(m_hssBuf.end(), pt, pt + 4);
  for (const HSSBlock& b : m_hssBlocks) {
    U8* p = m_mem.HostPtr(b.Addr, b.NumBytes);
    if (p) m_hssBuf.insert(m_hssBuf.end(), p, p + b.NumBytes);
    else m_hssBuf.insert(m_hssBuf.end(), b.NumBytes, 0);
  }
}

int CSimChannels::HSSRead(U8* pBuffer, U32 BufferSize) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  if (m_hssBlocks.empty()) return -1;
  U32 rec = 4;
  for (const HSSBlock& b : m_hssBlocks) rec += b.NumBytes;
  U32 n = (U32)std::min<size_t>(BufferSize / rec, m_hssBuf.size() / rec) * rec;
  if (n) memcpy(pBuffer, m_hssBuf.data(), n);
  m_hssBuf.erase(m_hssBuf.begin(), m_hssBuf.begin() + n);
  return (int)n;
}

U32 CSimChannels::PowerValue() {
  if (!m_supplyOn) return 0;
  U32 base = m_core.Sleeping() ? POWER_SLEEP_UA : POWER_RUN_UA;
  if (m_sys.Led()) base += POWER_LED_UA;
  // Small deterministic noise: +-0.5 %.
  m_noise = m_noise * 1103515245u + 12345u;
  int span = (int)(base / 200);
  int noise = span ? (int)((m_noise >> 16) % (2 * span + 1)) - span : 0;
  return (U32)((int)base + noise);
}

// Called with m_dataMx held.
void CSimChannels::PowerSample(U64 Cycle) {
  U32 ua = PowerValue();
  VORDEN_POWERTRACE_DATA_ITEM it{(U32)(Cycle * 1000000 / m_dev.ClockHz), m_powerHighRes ? ua * 1000 : ua};
  if (m_powerBuf.size() < 4000000) m_powerBuf.push_back(it);
  if (m_powerLog) fprintf(m_powerLog, "%u %u %d\n", it.Time, it.Value, m_core.Sleeping() ? 1 : 0);
}

int CSimChannels::PowerControl(int Cmd, void* pIn, void* pOut) {
  switch (Cmd) {
    case 0: {
      auto* s = (const VORDEN_POWERTRACE_SETUP*)pIn;
      if (!s || s->SizeofStruct != sizeof(VORDEN_POWERTRACE_SETUP) || (s->ChannelMask & ~1u) || !s->ChannelMask) return -1;
      std::lock_guard<std::mutex> lk(m_dataMx);
      U32 f = std::clamp<U32>(s->Freq, 1, 100000);
      m_powerFreq = f;
      m_powerHighRes = (s->Flags & 2) != 0;
      return (int)f;
    }
    case 1: {
      std::lock_guard<std::mutex> lk(m_dataMx);
      m_powerStep = (double)m_dev.ClockHz / m_powerFreq;
      m_powerAcc = (double)m_core.Cycles() + m_powerStep;
      m_powerNext = (U64)m_powerAcc;
      m_powerOn = true;
      m_core.EventsChanged();
      return 0;
    }
    case 2: {
      std::lock_guard<std::mutex> lk(m_dataMx);
      m_powerOn = false;
      m_core.EventsChanged();
      return 0;
    }
    case 3: {
      std::lock_guard<std::mutex> lk(m_dataMx);
      m_powerBuf.clear();
      return 0;
    }
    case 4: {
      auto* c = (VORDEN_POWERTRACE_CAPS*)pOut;
      if (!c) return -1;
      c->SizeofStruct = sizeof(VORDEN_POWERTRACE_CAPS);
      c->ChannelMask = 1;
      c->Caps = 2;
      return 0;
    }
  }
  return -1;
}

int CSimChannels::PowerRead(VORDEN_POWERTRACE_DATA_ITEM* paData, U32 NumItems) {
  std::lock_guard<std::mutex> lk(m_dataMx);
  U32 n = (U32)std::min<size_t>(NumItems, m_powerBuf.size());
  if (n) memcpy(paData, m_powerBuf.data(), n * sizeof(VORDEN_POWERTRACE_DATA_ITEM));
  m_powerBuf.erase(m_powerBuf.begin(), m_powerBuf.begin() + n);
  return (int)n;
}

}  // namespace vorden
