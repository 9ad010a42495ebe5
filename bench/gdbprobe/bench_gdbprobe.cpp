// Figures of the GDB remote protocol back end (emulator MPS2-AN385 over
// loopback) beside the built-in simulator, and beside a minimal client of the
// same protocol on the same emulator in the same run: single steps per
// second, 4-byte and 2 KiB memory reads, and the time from a resume to a
// breakpoint stop. The machine is shared and its load changes by the second,
// so the back end and the minimal client take turns in short batches (forty
// rounds, each reconnecting) and the times of all batches are added up; the
// ratios back end / minimal client are printed last.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>

#include "devices.h"
#include "qemu_util.h"
#include "sim/sim_target.h"

using namespace vorden;
using namespace gdbtest;
using Clock = std::chrono::steady_clock;

namespace {

double Seconds(Clock::time_point t0) { return std::chrono::duration<double>(Clock::now() - t0).count(); }

bool WaitHalted(CBackend& b) {
  auto end = Clock::now() + std::chrono::seconds(5);
  while (Clock::now() < end) {
    int h = b.IsHalted();
    if (h != 0) return h == 1;
  }
  return false;
}

// Seconds spent on each kind of operation, added up over the rounds.
struct Times {
  double Steps = 0, BareSteps = 0, Small = 0, Large = 0;
  int Rounds = 0;
};

const int kSteps = 100, kSmall = 100, kLarge = 40;

bool Rates(CBackend& b, Times& t) {
  auto t0 = Clock::now();
  for (int i = 0; i < kSteps; ++i)
    if (b.Step() != 0) return false;
  t.Steps += Seconds(t0);
  U8 buf[2048];
  t0 = Clock::now();
  for (int i = 0; i < kSmall; ++i)
    if (b.ReadMem(0x20000000 + (U32)(i % 64) * 4, 4, buf) != 4) return false;
  t.Small += Seconds(t0);
  t0 = Clock::now();
  for (int i = 0; i < kLarge; ++i)
    if (b.ReadMem(0x20000000, 2048, buf) != 2048) return false;
  t.Large += Seconds(t0);
  ++t.Rounds;
  return true;
}

// Download, reset, run to main; the time from a resume to a breakpoint stop.
bool Prepare(CBackend& b, const std::vector<Segment>& segs, U32 Main, U32 Work, double& GoMean, double& GoMax) {
  for (const Segment& s : segs)
    if (b.WriteMem(s.Addr, (U32)s.Bytes.size(), (const U8*)s.Bytes.data()) != (int)s.Bytes.size()) return false;
  if (b.Reset() != 0) return false;
  int h = b.SetBP(Main, 0xFFFFFFF0);
  if (h <= 0 || b.Go(0) != 0 || !WaitHalted(b)) return false;
  b.ClrBP(h);
  h = b.SetBP(Work, 0xFFFFFFF0);
  if (h <= 0) return false;
  const int kStops = 300;
  double total = 0;
  GoMax = 0;
  for (int i = 0; i < kStops; ++i) {
    auto s0 = Clock::now();
    if (b.Go(VORDENARM_GO_FLAG_OVERSTEP_BP) != 0 || !WaitHalted(b)) return false;
    double d = Seconds(s0);
    total += d;
    GoMax = std::max(GoMax, d);
  }
  GoMean = total / kStops;
  return b.ClrBP(h) == 0;
}

struct Rate {
  double Steps, BareSteps, Small, Large;  // per second, per second, per second, MiB/s
};

Rate RateOf(const Times& t) {
  return {t.Rounds * kSteps / t.Steps, t.BareSteps > 0 ? t.Rounds * kSteps / t.BareSteps : 0,
          t.Rounds * kSmall / t.Small, t.Rounds * kLarge * 2048.0 / (1 << 20) / t.Large};
}

void Print(const char* sName, const Rate& f) {
  printf("%-14s %9.0f steps/s  %9.0f reads/s (4 B)  %7.1f MiB/s (2 KiB reads)", sName, f.Steps, f.Small, f.Large);
  if (f.BareSteps > 0) printf("  [%0.f bare steps/s]", f.BareSteps);
  printf("\n");
}

// The least a client of the protocol does: a socket, frames with checksums,
// acknowledgements off when offered, one request and its answer at a time.
class RawClient {
 public:
  ~RawClient() {
    if (m_fd >= 0) close(m_fd);
  }
  bool Connect(int Port) {
    m_fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons((uint16_t)Port);
    if (connect(m_fd, (sockaddr*)&a, sizeof a) != 0) return false;
    int one = 1;
    setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    // Whatever the server says on its own at connection (a stop reply) goes.
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    pollfd p{m_fd, POLLIN, 0};
    char b[4096];
    while (poll(&p, 1, 0) == 1 && read(m_fd, b, sizeof b) > 0) {
    }
    std::string r;
    if (!Cmd("qSupported", r)) return false;
    if (r.find("QStartNoAckMode+") != std::string::npos && Cmd("QStartNoAckMode", r) && r == "OK") m_ack = false;
    return true;
  }
  bool Cmd(const std::string& sCmd, std::string& sReply) { return Send(sCmd) && Recv(sReply); }
  bool Send(const std::string& s) {
    unsigned sum = 0;
    for (unsigned char c : s) sum += c;
    char tail[4];
    snprintf(tail, sizeof tail, "#%02x", sum & 0xFF);
    std::string f = "$" + s + tail;
    if (write(m_fd, f.data(), f.size()) != (ssize_t)f.size()) return false;
    if (!m_ack) return true;
    char c;
    do {
      if (!Byte(c)) return false;
    } while (c != '+');
    return true;
  }
  bool Recv(std::string& s) {
    char c;
    do {
      if (!Byte(c)) return false;
    } while (c != '$');
    s.clear();
    unsigned sum = 0;
    while (Byte(c) && c != '#') s += c, sum += (unsigned char)c;
    char cs[3] = {0, 0, 0};
    if (!Byte(cs[0]) || !Byte(cs[1]) || strtoul(cs, nullptr, 16) != (sum & 0xFF)) return false;
    if (m_ack && write(m_fd, "+", 1) != 1) return false;
    return true;
  }
  bool Hex(const std::string& s, U8* p) {
    auto d = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
    for (size_t i = 0; i + 1 < s.size(); i += 2) p[i / 2] = (U8)(d(s[i]) << 4 | d(s[i + 1]));
    return true;
  }

  bool Rates(Times& t) {
    std::string r;
    if (!Cmd("?", r)) return false;
    auto t0 = Clock::now();
    for (int i = 0; i < kSteps; ++i)
      if (!Cmd("vCont;s", r) || r[0] != 'T' || !Cmd("g", r)) return false;
    t.Steps += Seconds(t0);
    t0 = Clock::now();
    for (int i = 0; i < kSteps; ++i)
      if (!Cmd("vCont;s", r) || r[0] != 'T') return false;
    t.BareSteps += Seconds(t0);
    U8 buf[2048];
    char cmd[32];
    t0 = Clock::now();
    for (int i = 0; i < kSmall; ++i) {
      snprintf(cmd, sizeof cmd, "m%x,4", 0x20000000 + (i % 64) * 4);
      if (!Cmd(cmd, r) || r.size() != 8 || !Hex(r, buf)) return false;
    }
    t.Small += Seconds(t0);
    t0 = Clock::now();
    for (int i = 0; i < kLarge; ++i)
      if (!Cmd("m20000000,800", r) || r.size() != 4096 || !Hex(r, buf)) return false;
    t.Large += Seconds(t0);
    ++t.Rounds;
    return true;
  }

 private:
  bool Byte(char& c) {
    if (m_pos == m_len) {
      pollfd p{m_fd, POLLIN, 0};
      if (poll(&p, 1, 2000) != 1) return false;
      ssize_t n = read(m_fd, m_buf, sizeof m_buf);
      if (n <= 0) return false;
      m_len = (size_t)n;
      m_pos = 0;
    }
    c = m_buf[m_pos++];
    return true;
  }
  int m_fd = -1;
  bool m_ack = true;
  char m_buf[16384];
  size_t m_pos = 0, m_len = 0;
};

}  // namespace

int main() {
  std::string elf = SourceDir() + "/firmware/gdb/elf/gdbtest_an385.elf";
  std::vector<Segment> segs;
  U32 entry;
  if (!LoadSegments(elf, segs, entry)) {
    fprintf(stderr, "cannot load %s\n", elf.c_str());
    return 1;
  }
  auto syms = Symbols(elf);
  int dev = FindDevice("MPS2-AN385");
  printf("MPS2-AN385 test firmware; the steps run through main and its computation loop\n");

  CSimTarget sim(dev, [](int, const std::string&) {});
  std::string err;
  double goMean = 0, goMax = 0;
  Times simT;
  if (!sim.Init(err) || !Prepare(sim, segs, syms["main"], syms["Work"], goMean, goMax) || !Rates(sim, simT)) {
    fprintf(stderr, "simulator run failed %s\n", err.c_str());
    return 1;
  }
  Print("simulator", RateOf(simT));
  printf("%-14s resume to breakpoint stop %7.1f us mean %7.1f us max\n", "simulator", goMean * 1e6, goMax * 1e6);

  Qemu qemu("mps2-an385");
  Times back, raw;
  for (int round = 0; round < 40; ++round) {
    {
      auto gdb = qemu.Connect(dev, err);
      if (!gdb) {
        fprintf(stderr, "GDB server run failed %s\n", err.c_str());
        return 1;
      }
      if (gdb->IsHalted() == 0 && gdb->Halt() != 0) return 1;
      if (round == 0) {
        if (!Prepare(*gdb, segs, syms["main"], syms["Work"], goMean, goMax)) return 1;
        printf("%-14s resume to breakpoint stop %7.1f us mean %7.1f us max\n", "gdb/qemu", goMean * 1e6,
               goMax * 1e6);
      }
      if (!Rates(*gdb, back)) {
        fprintf(stderr, "GDB back end run failed\n");
        return 1;
      }
    }  // detached: the emulator runs on
    RawClient rc;
    if (!rc.Connect(qemu.port) || !rc.Rates(raw)) {
      fprintf(stderr, "minimal client run failed\n");
      return 1;
    }
  }  // the minimal client leaves without a detach: the target stays stopped
  Rate b = RateOf(back), r = RateOf(raw);
  Print("gdb/qemu", b);
  Print("minimal client", r);
  printf("ratios back end / minimal client: steps %.2f (against a step and a register read; %.2f against a bare "
         "step), 4-byte reads %.2f, 2 KiB reads %.2f\n",
         b.Steps / r.Steps, b.Steps / r.BareSteps, b.Small / r.Small, b.Large / r.Large);
  return 0;
}
