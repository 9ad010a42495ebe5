// Packet layer of the GDB remote protocol client, and a fuzz run of the whole
// back end against a server that answers with random and mutated replies.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <random>

#include "fake_gdb_server.h"
#include "gdb/gdb_backend.h"
#include "gdb/rsp.h"

using namespace vorden;
using gdbtest::Framed;
using Clock = std::chrono::steady_clock;

namespace {

struct Pair {
  int a = -1, b = -1;
  Pair() {
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) == 0) a = sv[0], b = sv[1];
  }
  ~Pair() {
    if (b >= 0) close(b);
  }
  void Put(const std::string& s) { ASSERT_EQ(write(b, s.data(), s.size()), (ssize_t)s.size()); }
  std::string Take(int WaitMs = 50) {
    std::string out;
    pollfd p{b, POLLIN, 0};
    while (poll(&p, 1, WaitMs) == 1) {
      char buf[4096];
      ssize_t n = read(b, buf, sizeof buf);
      if (n <= 0) break;
      out.append(buf, (size_t)n);
    }
    return out;
  }
};

void NoLog(int, const std::string&) {}

}  // namespace

TEST(GdbRsp, FramingChecksumsAndEscapes) {
  // Values as any GDB remote protocol peer computes them.
  EXPECT_EQ(CRspLink::Frame("OK"), "$OK#9a");
  EXPECT_EQ(CRspLink::Frame("g"), "$g#67");
  EXPECT_EQ(CRspLink::Frame(""), "$#00");
  // '$', '#', '}' and '*' travel escaped as '}' and the character xor 0x20;
  // the checksum covers the escaped bytes.
  std::string f = CRspLink::Frame(std::string("X0,4:") + "$#}*");
  EXPECT_EQ(f.substr(0, 14), "$X0,4:}\x04}\x03}]}\x0a");
  EXPECT_EQ(f.substr(15), gdbtest::Checksum(f.substr(1, 13)));
  EXPECT_EQ(CRspLink::Unescape("}\x04}\x03}]}\x0a"), "$#}*");

  std::string out;
  ASSERT_TRUE(CRspLink::ExpandRunLength("0* ", out));  // ' ' = 3 more
  EXPECT_EQ(out, "0000");
  ASSERT_TRUE(CRspLink::ExpandRunLength("ab*\"c", out));  // '"' = 5 more
  EXPECT_EQ(out, "abbbbbbc");
  EXPECT_FALSE(CRspLink::ExpandRunLength("*!", out));     // nothing to repeat
  EXPECT_FALSE(CRspLink::ExpandRunLength("a*", out));     // count missing
  EXPECT_FALSE(CRspLink::ExpandRunLength("a*\x01", out));  // count out of range

  std::string bin;
  EXPECT_TRUE(CRspLink::FromHex("00ff7A", bin));
  EXPECT_EQ(bin, std::string("\x00\xff\x7a", 3));
  EXPECT_FALSE(CRspLink::FromHex("0", bin));
  EXPECT_FALSE(CRspLink::FromHex("zz", bin));
  U64 v;
  EXPECT_TRUE(CRspLink::ParseHex("20000088", v));
  EXPECT_EQ(v, 0x20000088u);
  EXPECT_FALSE(CRspLink::ParseHex("", v));
  EXPECT_FALSE(CRspLink::ParseHex("12345678123456789", v));
}

TEST(GdbRsp, ReceiveAcknowledgesAndRefusesBadFrames) {
  Pair p;
  std::vector<std::string> log;
  CRspLink l([&](int, const std::string& s) { log.push_back(s); });
  l.Adopt(p.a);
  std::string r;
  // Noise, a truncated frame, a frame with a bad checksum, then the good one.
  p.Put("xx+$O$OK#00" + Framed("T05thread:01;"));
  ASSERT_EQ(l.Receive(r, 200), 1);
  EXPECT_EQ(r, "T05thread:01;");
  EXPECT_EQ(l.ChecksumErrors(), 1);
  EXPECT_EQ(p.Take(), "-+");
  EXPECT_FALSE(log.empty());

  // Run-length encoded reply; a bad run length is refused like a checksum error.
  p.Put(Framed("0* 1") + Framed("*!"));
  ASSERT_EQ(l.Receive(r, 200), 1);
  EXPECT_EQ(r, "00001");
  EXPECT_EQ(l.Receive(r, 30), 0);
  EXPECT_EQ(l.ChecksumErrors(), 2);
  EXPECT_EQ(p.Take(), "+-");

  // Nothing there: a time-out close to the one asked for.
  auto t0 = Clock::now();
  EXPECT_EQ(l.Receive(r, 100), 0);
  auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
  EXPECT_GE(ms, 90);
  EXPECT_LT(ms, 1000);

  // Without acknowledgements nothing is sent back.
  l.SetAckMode(false);
  p.Put(Framed("OK"));
  ASSERT_EQ(l.Receive(r, 200), 1);
  EXPECT_EQ(p.Take(20), "");

  // The peer closes: connection lost.
  close(p.b);
  p.b = -1;
  EXPECT_EQ(l.Receive(r, 200), -1);
  EXPECT_TRUE(l.Lost());
  EXPECT_FALSE(l.Send("g"));
}

TEST(GdbRsp, SendRetransmitsOnNackAndGivesUpWithoutAck) {
  Pair p;
  CRspLink l(NoLog);
  l.Adopt(p.a);
  l.SetAckTimeout(100);
  p.Put("-+");  // the first copy refused, the second taken
  ASSERT_TRUE(l.Send("m20000000,4"));
  EXPECT_EQ(l.Retransmissions(), 1);
  EXPECT_EQ(p.Take(), Framed("m20000000,4") + Framed("m20000000,4"));

  // A reply arriving without the '+' counts as acknowledged and is kept.
  p.Put(Framed("OK"));
  ASSERT_TRUE(l.Send("Z0,100,2"));
  std::string r;
  ASSERT_EQ(l.Receive(r, 100), 1);
  EXPECT_EQ(r, "OK");
  p.Take();

  // Refused for ever: lost after a bounded number of copies.
  p.Put(std::string(10, '-'));
  EXPECT_FALSE(l.Send("g"));
  EXPECT_TRUE(l.Lost());
  EXPECT_LE(p.Take().size(), 7 * Framed("g").size());
}

TEST(GdbRsp, SilentServerTimesOut) {
  Pair p;
  CRspLink l(NoLog);
  l.Adopt(p.a);
  l.SetAckTimeout(80);
  auto t0 = Clock::now();
  EXPECT_FALSE(l.Send("?"));
  EXPECT_TRUE(l.Lost());
  EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count(), 1000);
}

// ---------------------------------------------------------------------------
// Fuzz: the whole back end against random and mutated server replies.
// ---------------------------------------------------------------------------

namespace {

std::string PlausibleReply(const std::string& p, std::mt19937& rng) {
  auto hex = [&](size_t n) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += "0123456789abcdef"[rng() % 16];
    return s;
  };
  if (p == "\x03") return "T02thread:01;";
  if (p.rfind("qSupported", 0) == 0)
    return "PacketSize=" + std::string(rng() % 2 ? "1000" : "40") +
           ";qXfer:features:read+;qXfer:memory-map:read+;QStartNoAckMode+;vContSupported+";
  if (p == "QStartNoAckMode") return rng() % 2 ? "OK" : "";
  if (p == "?") return "T05thread:01;";
  if (p.rfind("qXfer:features:read:target.xml", 0) == 0)
    return "l<target><xi:include href=\"a.xml\"/><xi:include href=\"target.xml\"/></target>";
  if (p.rfind("qXfer:features:read:a.xml", 0) == 0)
    return "l<feature><reg name=\"r0\" bitsize=\"32\"/><reg name=\"sp\" bitsize=\"32\" regnum=\"13\"/>"
           "<reg name=\"pc\" bitsize=\"32\" regnum=\"15\"/><reg name=\"xpsr\" bitsize=\"32\" regnum=\"25\"/>"
           "<reg name=\"d0\" bitsize=\"64\"/><reg name=\"q0\" bitsize=\"128\"/></feature>";
  if (p.rfind("qXfer:memory-map", 0) == 0)
    return "l<memory-map><memory type=\"flash\" start=\"0x0\" length=\"0x1000\"><property "
           "name=\"blocksize\">0x400</property></memory><memory type=\"ram\" start=\"0x20000000\" "
           "length=\"0x1000\"/></memory-map>";
  if (p == "vCont?") return "vCont;c;C;s;S";
  if (p == "g") return hex(8 * (rng() % 30));
  if (p[0] == 'p') return hex(8);
  if (p[0] == 'm') {
    size_t comma = p.find(',');
    size_t n = comma == std::string::npos ? 4 : strtoul(p.c_str() + comma + 1, nullptr, 16);
    return hex(2 * std::min<size_t>(n, 5000));
  }
  if (p[0] == 's' || p == "vCont;s") return rng() % 3 ? "T05thread:01;" : "T05watch:20000000;";
  if (p[0] == 'c' || p == "vCont;c") return rng() % 2 ? "" : "S05";
  if (p[0] == 'F') return rng() % 2 ? "T02" : "";
  if (p.rfind("qRcmd", 0) == 0) return rng() % 2 ? "O6869" : "OK";
  return "OK";
}

std::string Mutate(std::string s, std::mt19937& rng) {
  switch (rng() % 8) {
    case 0:  // flip bytes
      for (int i = 0; i < 3 && !s.empty(); ++i) s[rng() % s.size()] = (char)rng();
      break;
    case 1:  // truncate
      if (!s.empty()) s.resize(rng() % s.size());
      break;
    case 2:  // random stop replies, exits and File-I/O requests
      s = std::vector<std::string>{"W00", "X09", "Fwrite,2,20000000,5", "Fread,0,20000000,ffffffff", "F", "T",
                                   "S", "T05watch:", "E01", "O", "Ozz"}[rng() % 11];
      break;
    case 3:  // run-length markers
      s += "*" + std::string(1, (char)(rng() % 128));
      break;
    case 4:  // huge hex
      s = std::string(rng() % 70000, 'f');
      break;
    case 5:  // random bytes
      s.clear();
      for (int i = rng() % 40; i > 0; --i) s += (char)rng();
      break;
    default:
      break;
  }
  return s;
}

}  // namespace

TEST(GdbRspFuzz, RandomAndMutatedRepliesNeverCrashOrHang) {
  const int kSessions = 120;
  auto t0 = Clock::now();
  int connected = 0;
  int only = getenv("GDB_FUZZ_SEED") ? atoi(getenv("GDB_FUZZ_SEED")) : 0;
  for (int seed = 1; seed <= kSessions; ++seed) {
    if (only && seed != only) continue;
    auto s0 = Clock::now();
    std::mt19937 rng((unsigned)seed);
    std::mt19937 srng((unsigned)seed * 7919u);
    int mode = seed % 4;  // 0: clean, 1: mildly mutated, 2: heavily mutated, 3: raw garbage
    gdbtest::FakeServer srv([&srng, mode](const std::string& p) -> std::string {
      std::string reply = PlausibleReply(p, srng);
      unsigned roll = srng() % 100;
      int pct = mode == 0 ? 0 : mode == 1 ? 10 : 40;
      if ((int)roll < pct) reply = Mutate(reply, srng);
      std::string ack = p == "\x03" ? "" : (srng() % 50 == 0 ? "-" : "+");
      if (mode >= 2 && srng() % 60 == 0) return "<close>";
      if (mode >= 2 && srng() % 40 == 0) return ack;  // silence
      std::string frame = Framed(reply);
      if (mode >= 1 && srng() % 20 == 0) frame[frame.size() - 1] ^= 1;  // checksum error
      if (mode == 3 && srng() % 4 == 0) {
        frame.clear();
        for (int i = srng() % 64; i > 0; --i) frame += (char)srng();
      }
      return ack + frame;
    });
    std::string err;
    auto b = CreateGdbBackendOnSocket(srv.ClientFd(), 0, NoLog, err, 40);
    if (!b) {
      EXPECT_FALSE(err.empty());
      continue;
    }
    ++connected;
    for (int op = 0; op < 60; ++op) {
      U8 buf[3000];
      U64 v;
      int which = (int)(rng() % 14);
      switch (which) {
        case 0: b->IsHalted(); break;
        case 1: b->Halt(); break;
        case 2: b->Go(rng() % 2); break;
        case 3: b->Step(); break;
        case 4: b->ReadReg(rng() % 60, v); break;
        case 5: b->WriteReg(rng() % 60, rng()); break;
        case 6: {
          U32 n = rng() % sizeof buf;
          int r = b->ReadMem(rng() % 2 ? 0x20000000 : 0xFFFFFF00u, n, buf);
          EXPECT_LE(r, (int)n);
          break;
        }
        case 7: b->WriteMem(rng() % 2 ? 0x20000000 : 0x100, rng() % sizeof buf, buf); break;
        case 8: b->SetBP(rng() % 0x1000, rng() % 2 ? 0xFFFFFFF0 : 0xF0); break;
        case 9: b->ClrBP(rng() % 2 ? -1 : (int)(rng() % 4)); break;
        case 10: {
          VORDENARM_DATA_EVENT ev{};
          ev.SizeOfStruct = sizeof ev;
          ev.Type = 1;
          ev.Addr = 0x20000000 + rng() % 64;
          ev.AddrMask = rng() % 2 ? 0 : 3;
          ev.DataMask = 0xFFFFFFFF;
          ev.Access = (U8)(rng() % 8);
          ev.AccessMask = (U8)(rng() % 2 ? 0x10 : 0x11);
          U32 h;
          b->SetDataEvent(ev, &h);
          break;
        }
        case 11: b->ClrDataEvent(rng() % 2 ? 0xFFFFFFFF : rng() % 3); break;
        case 12: b->Reset(); break;
        case 13: {
          std::string e;
          b->ExecCommand("gdbmonitor", "help", e);
          break;
        }
      }
    }
    b.reset();
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - s0).count();
    EXPECT_LT(ms, 5000) << "session " << seed;
  }
  EXPECT_GT(connected, kSessions / 4);
  // A hang would show here long before the test's own time-out.
  EXPECT_LT(std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - t0).count(), 60);
}
