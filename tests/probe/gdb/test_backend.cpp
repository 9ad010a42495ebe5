// Protocol features of the back end that the emulator's server does not
// offer, checked against a scripted server: acknowledgement-free mode, 'X'
// writes, flash programming from the memory map, register numbers taken from
// the description, monitor output, exit replies and a server that goes quiet.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <algorithm>
#include <map>
#include <set>
#include <thread>

#include "fake_gdb_server.h"
#include "gdb/gdb_backend.h"
#include "gdb/rsp.h"
#include "testsupport/tools.h"

using namespace vorden;
using gdbtest::FakeServer;
using gdbtest::Framed;
using Clock = std::chrono::steady_clock;

namespace {

// A small target model behind a scripted server.
struct Model {
  bool NoAck = true, HasX = true, FlashMap = true, Features = true, Monitor = true;
  bool AckOff = false;
  bool ReloadImage = false;
  std::string Xml =
      "<target><feature name=\"core\">"
      "<reg name=\"r0\" bitsize=\"32\" regnum=\"4\"/><reg name=\"r1\" bitsize=\"32\"/>"
      "<reg name=\"sp\" bitsize=\"32\" regnum=\"20\"/><reg name=\"lr\" bitsize=\"32\"/><reg name=\"pc\" bitsize=\"32\"/>"
      "<reg name=\"xpsr\" bitsize=\"32\"/><reg name=\"msp\" bitsize=\"32\"/>"
      "<reg name=\"d1\" bitsize=\"64\" regnum=\"40\"/></feature></target>";
  std::map<int, U64> Regs;
  std::vector<U8> Ram = std::vector<U8>(0x1000), Flash = std::vector<U8>(0x1000, 0xFF);
  std::vector<std::string> FlashOps;
  // File-I/O requests (operation in R0, request) sent when the target runs
  // on, and the answers seen.
  std::vector<std::pair<U32, std::string>> FioQueue;
  std::vector<std::string> FioReplies;
  std::string NextFio() {
    if (FioQueue.empty()) return "<none>";
    auto [op, call] = FioQueue.front();
    FioQueue.erase(FioQueue.begin());
    Regs[4] = op;
    Regs[22] = 0x102;  // behind the BKPT at 0x100
    return call;
  }
  bool FlashErased[4] = {};

  std::string Reply(const std::string& p) {
    std::string ack = AckOff ? "" : "+";
    std::string r = Answer(p);
    if (r == "<none>") return ack;
    if (p == "QStartNoAckMode" && r == "OK") AckOff = true;
    // '\n' separates several packets sent in a row.
    std::string out = ack;
    size_t start = 0;
    for (;;) {
      size_t nl = r.find('\n', start);
      out += Framed(r.substr(start, nl == std::string::npos ? std::string::npos : nl - start));
      if (nl == std::string::npos) return out;
      start = nl + 1;
    }
  }

  U8* Mem(U32 a) {
    if (a < 0x1000) return &Flash[a];
    if (a >= 0x20000000 && a < 0x20001000) return &Ram[a - 0x20000000];
    return nullptr;
  }

  std::string Answer(const std::string& p) {
    if (p.rfind("qSupported", 0) == 0) {
      std::string s = "PacketSize=100";
      if (Features) s += ";qXfer:features:read+";
      if (FlashMap) s += ";qXfer:memory-map:read+";
      if (NoAck) s += ";QStartNoAckMode+";
      return s;
    }
    if (p == "QStartNoAckMode") return NoAck ? "OK" : "";
    if (p == "?") return "S05";
    if (p.rfind("qXfer:features:read:target.xml:", 0) == 0) return Chunk(Xml, p);
    if (p.rfind("qXfer:memory-map:read::", 0) == 0)
      return Chunk("<memory-map><memory type=\"flash\" start=\"0x0\" length=\"0x1000\"><property "
                   "name=\"blocksize\">0x400</property></memory><memory type=\"ram\" start=\"0x20000000\" "
                   "length=\"0x1000\"/></memory-map>",
                   p);
    if (p == "g") return "";  // not offered: registers one by one
    if (p[0] == 'p') {
      int n = (int)strtol(p.c_str() + 1, nullptr, 16);
      if (!Regs.count(n)) return "E01";
      int bytes = n == 40 ? 8 : 4;
      return CRspLink::ToHex((const U8*)&Regs[n], (size_t)bytes);
    }
    if (p[0] == 'P') {
      int n = (int)strtol(p.c_str() + 1, nullptr, 16);
      std::string bytes;
      if (!CRspLink::FromHex(p.substr(p.find('=') + 1), bytes)) return "E02";
      U64 v = 0;
      memcpy(&v, bytes.data(), std::min<size_t>(8, bytes.size()));
      Regs[n] = v;
      return "OK";
    }
    if (p[0] == 'm') {
      U32 a = (U32)strtoul(p.c_str() + 1, nullptr, 16);
      U32 n = (U32)strtoul(p.c_str() + p.find(',') + 1, nullptr, 16);
      std::string out;
      for (U32 i = 0; i < n; ++i) {
        U8* b = Mem(a + i);
        if (!b) return i ? out : "E14";  // a short reply at the end of memory
        out += CRspLink::ToHex(b, 1);
      }
      return out;
    }
    if (p[0] == 'X') {
      if (!HasX) return "";
      U32 a = (U32)strtoul(p.c_str() + 1, nullptr, 16);
      size_t colon = p.find(':');
      for (size_t i = colon + 1; i < p.size(); ++i) {
        U8* b = Mem(a + (U32)(i - colon - 1));
        if (!b) return "E14";
        *b = (U8)p[i];
      }
      return "OK";
    }
    if (p[0] == 'M') {
      U32 a = (U32)strtoul(p.c_str() + 1, nullptr, 16);
      std::string bytes;
      if (!CRspLink::FromHex(p.substr(p.find(':') + 1), bytes)) return "E02";
      for (size_t i = 0; i < bytes.size(); ++i) {
        U8* b = Mem(a + (U32)i);
        if (!b) return "E14";
        *b = (U8)bytes[i];
      }
      return "OK";
    }
    if (p.rfind("vFlashErase:", 0) == 0) {
      FlashOps.push_back(p);
      U32 a = (U32)strtoul(p.c_str() + 12, nullptr, 16);
      U32 n = (U32)strtoul(p.c_str() + p.find(',') + 1, nullptr, 16);
      if (a % 0x400 || n % 0x400 || a + n > 0x1000) return "E01";
      for (U32 i = a; i < a + n; ++i) Flash[i] = 0xFF;
      for (U32 blk = a / 0x400; blk < (a + n) / 0x400; ++blk) FlashErased[blk] = true;
      return "OK";
    }
    if (p.rfind("vFlashWrite:", 0) == 0) {
      FlashOps.push_back(p.substr(0, p.find(':', 12)));
      U32 a = (U32)strtoul(p.c_str() + 12, nullptr, 16);
      size_t colon = p.find(':', 12);
      for (size_t i = colon + 1; i < p.size(); ++i) {
        U32 at = a + (U32)(i - colon - 1);
        if (at >= 0x1000 || !FlashErased[at / 0x400]) return "E03";
        Flash[at] &= (U8)p[i];
      }
      return "OK";
    }
    if (p == "vFlashDone") {
      FlashOps.push_back(p);
      return "OK";
    }
    if (p.rfind("qRcmd,", 0) == 0) {
      if (!Monitor) return "";
      std::string cmd;
      CRspLink::FromHex(p.substr(6), cmd);
      FlashOps.push_back("monitor " + cmd);
      if (cmd == "reset halt") {
        if (ReloadImage) std::fill(Ram.begin(), Ram.begin() + 64, 0xEE);  // the server's own image
        Regs[20] = 0x20001000;
        Regs[22] = 0x100;
        return "O" + CRspLink::ToHex(std::string("resetting")) + "\nOK";
      }
      return "E01";
    }
    if (p[0] == 'Z' || p[0] == 'z') return "OK";
    if (p == "s" || p == "\x03") return "T05";
    if (p == "c") return NextFio();
    if (p[0] == 'F') {
      // The request is answered; the target runs on (or stays, with C).
      FioReplies.push_back(p);
      return p.find(",C") != std::string::npos ? "T02" : NextFio();
    }
    if (p == "D") return "OK";
    return "";
  }

  static std::string Chunk(const std::string& doc, const std::string& p) {
    size_t tail = p.rfind(':');
    U32 off = (U32)strtoul(p.c_str() + tail + 1, nullptr, 16);
    U32 len = (U32)strtoul(p.c_str() + p.find(',', tail) + 1, nullptr, 16);
    if (off >= doc.size()) return "l";
    std::string part = doc.substr(off, len);
    return (off + part.size() >= doc.size() ? "l" : "m") + part;
  }
};

std::string Serve(Model& m, const std::string& p) { return m.Reply(p); }

std::unique_ptr<CBackend> Open(FakeServer& srv, std::vector<std::string>* pLog = nullptr, int TimeoutMs = 500) {
  std::string err;
  auto b = CreateGdbBackendOnSocket(srv.ClientFd(), 0, [pLog](int, const std::string& s) {
    if (pLog) pLog->push_back(s);
  }, err, TimeoutMs);
  EXPECT_TRUE(b) << err;
  return b;
}

}  // namespace

TEST(GdbFakeServer, RegisterNumbersComeFromTheDescription) {
  Model m;
  m.Regs = {{4, 0x11111111}, {5, 0x22222222}, {20, 0x20000800}, {21, 0xFFFFFFF9}, {22, 0x101},
            {23, 0x01000000}, {24, 0x20000400}, {40, 0x4000000040800000ull}};
  FakeServer srv([&](const std::string& p) { return Serve(m, p); });
  auto b = Open(srv);
  ASSERT_TRUE(b);
  U64 v;
  ASSERT_EQ(b->ReadReg(0, v), 0);  // r0 is register 4 here
  EXPECT_EQ(v, 0x11111111u);
  ASSERT_EQ(b->ReadReg(1, v), 0);  // numbering continues after an explicit regnum
  EXPECT_EQ(v, 0x22222222u);
  ASSERT_EQ(b->ReadReg(13, v), 0);
  EXPECT_EQ(v, 0x20000800u);
  ASSERT_EQ(b->ReadReg(15, v), 0);
  EXPECT_EQ(v, 0x100u);  // the Thumb bit is not part of the PC
  ASSERT_EQ(b->ReadReg(17, v), 0);  // msp described
  EXPECT_EQ(v, 0x20000400u);
  EXPECT_NE(b->ReadReg(18, v), 0);  // psp is not: not readable
  EXPECT_NE(b->ReadReg(2, v), 0);   // r2 neither
  // Single-precision registers are halves of the described double ones.
  ASSERT_EQ(b->ReadReg(VORDENARM_REG_S0 + 2, v), 0);
  EXPECT_EQ(v, 0x40800000u);
  ASSERT_EQ(b->ReadReg(VORDENARM_REG_S0 + 3, v), 0);
  EXPECT_EQ(v, 0x40000000u);
  EXPECT_NE(b->ReadReg(VORDENARM_REG_S0, v), 0);
  ASSERT_EQ(b->WriteReg(VORDENARM_REG_S0 + 3, 0x3F800000), 0);
  EXPECT_EQ(m.Regs[40], 0x3F80000040800000ull);
  ASSERT_EQ(b->WriteReg(1, 0xCAFE), 0);
  EXPECT_EQ(m.Regs[5], 0xCAFEu);
  // The traffic: 'p' and 'P' with the described numbers only.
  std::set<long> described = {4, 5, 20, 21, 22, 23, 24, 0x28};
  for (const std::string& p : srv.Packets()) {
    if (p[0] == 'p' || p[0] == 'P') {
      EXPECT_TRUE(described.count(strtol(p.c_str() + 1, nullptr, 16))) << p;
    }
  }
}

TEST(GdbFakeServer, NoAckModeBinaryWritesAndFlashProgramming) {
  Model m;
  m.Regs = {{22, 0x100}};
  FakeServer srv([&](const std::string& p) { return Serve(m, p); });
  auto b = Open(srv);
  ASSERT_TRUE(b);
  EXPECT_TRUE(m.AckOff);
  // RAM through 'X': bytes that need escaping arrive intact.
  U8 data[300];
  for (int i = 0; i < 300; ++i) data[i] = (U8)(i % 2 ? '#' + (i % 5) : '}' ^ (i % 3));
  ASSERT_EQ(b->WriteMem(0x20000010, sizeof data, data), (int)sizeof data);
  EXPECT_EQ(memcmp(&m.Ram[0x10], data, sizeof data), 0);
  bool sawX = false;
  for (const std::string& p : srv.Packets()) sawX |= p[0] == 'X';
  EXPECT_TRUE(sawX);
  // Nothing longer than the server's PacketSize (0x100), escapes included.
  for (const std::string& p : srv.Packets()) EXPECT_LE(CRspLink::Frame(p).size() - 4, 0x100u) << p.substr(0, 20);

  // Flash: erase the touched blocks once, write, and finish before running.
  std::vector<U8> img(0x500);
  for (size_t i = 0; i < img.size(); ++i) img[i] = i % 3 ? (U8)"$#}*"[i % 4] : (U8)(i * 13);
  ASSERT_EQ(b->WriteMem(0x300, (U32)img.size(), img.data()), (int)img.size());
  ASSERT_EQ(b->Step(), 0);  // anything that uses the target completes the programming first
  std::vector<std::string> ops = m.FlashOps;
  ASSERT_GE(ops.size(), 4u);
  EXPECT_EQ(ops[0], "vFlashErase:0,400");
  EXPECT_EQ(ops[1], "vFlashWrite:300");
  EXPECT_EQ(ops.back(), "vFlashDone");
  EXPECT_NE(std::find(ops.begin(), ops.end(), "vFlashErase:400,400"), ops.end());
  EXPECT_EQ(std::count_if(ops.begin(), ops.end(), [](const std::string& s) { return s.rfind("vFlashErase", 0) == 0; }), 2);
  EXPECT_EQ(memcmp(&m.Flash[0x300], img.data(), img.size()), 0);
  for (const std::string& p : srv.Packets()) EXPECT_LE(CRspLink::Frame(p).size() - 4, 0x100u) << p.substr(0, 20);
  // Breakpoints in flash report themselves as flash breakpoints.
  int h = b->SetBP(0x200, 0xF0);
  ASSERT_GT(h, 0);
  VORDENARM_BP_INFO bi{};
  bi.SizeOfStruct = sizeof bi;
  bi.Handle = (U32)h;
  ASSERT_EQ(b->GetBPInfo(-1, &bi), 1);
  EXPECT_EQ(bi.ImpFlags, VORDENARM_BP_IMP_SW_FLASH);
  // Reads stop at the end of memory with the readable prefix.
  U8 buf[32];
  EXPECT_EQ(b->ReadMem(0x20000FF0, 32, buf), 16);
  EXPECT_EQ(b->ReadMem(0x10000000, 4, buf), 0);
}

TEST(GdbFakeServer, ResetThroughTheMonitorOrByHand) {
  Model m;
  m.Regs = {{20, 0x0}, {22, 0x0}, {23, 0}};
  // A vector table in flash.
  U32 vec[2] = {0x20001000, 0x101};
  memcpy(m.Flash.data(), vec, 8);
  FakeServer srv([&](const std::string& p) { return Serve(m, p); });
  std::vector<std::string> log;
  auto b = Open(srv, &log);
  ASSERT_TRUE(b);
  std::string err;
  ASSERT_TRUE(b->ExecCommand("GdbResetCommand", "reset halt", err));
  EXPECT_TRUE(err.empty());
  ASSERT_EQ(b->Reset(), 0);
  EXPECT_NE(std::find(m.FlashOps.begin(), m.FlashOps.end(), "monitor reset halt"), m.FlashOps.end());
  bool sawOutput = false;
  for (const std::string& s : log) sawOutput |= s.find("resetting") != std::string::npos;
  EXPECT_TRUE(sawOutput);
  // A server without monitor commands: SP, PC and xPSR set from the table.
  m.Monitor = false;
  m.Regs = {{20, 0x0}, {22, 0x0}, {23, 0}};
  ASSERT_EQ(b->Reset(), 0);
  EXPECT_EQ(m.Regs[20], 0x20001000u);
  EXPECT_EQ(m.Regs[22], 0x100u);
  EXPECT_EQ(m.Regs[23], 0x01000000u);
  EXPECT_FALSE(b->ExecCommand("NoSuchKnob", "", err));
  EXPECT_TRUE(b->ExecCommand("GdbTimeout", "5", err));
  EXPECT_FALSE(err.empty());
}

// A server that puts its own image back on reset: what was downloaded is
// written again, and only where the reset changed it.
TEST(GdbFakeServer, ResetPutsBackWhatTheServerReloaded) {
  Model m;
  m.Regs = {{20, 0x0}, {22, 0x0}, {23, 0}};
  U32 vec[2] = {0x20001000, 0x101};
  memcpy(m.Flash.data(), vec, 8);
  m.ReloadImage = true;
  FakeServer srv([&](const std::string& p) { return Serve(m, p); });
  auto b = Open(srv);
  ASSERT_TRUE(b);
  std::string err;
  ASSERT_TRUE(b->ExecCommand("GdbResetCommand", "reset halt", err));
  U8 prog[32], far[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  for (int i = 0; i < 32; ++i) prog[i] = (U8)(0x30 + i);
  ASSERT_EQ(b->WriteMem(0x20000010, 32, prog), 32);
  ASSERT_EQ(b->WriteMem(0x20000800, 8, far), 8);
  ASSERT_EQ(b->Reset(), 0);
  EXPECT_EQ(0, memcmp(&m.Ram[0x10], prog, 32));
  EXPECT_EQ(0, memcmp(&m.Ram[0x800], far, 8));
  EXPECT_EQ(m.Ram[0x0F], 0xEE);  // never written by us: the reset's content stays
  // Only the changed range went back over the wire.
  int writes = 0;
  auto packets = srv.Packets();
  auto reset = std::find(packets.begin(), packets.end(), "qRcmd," + CRspLink::ToHex(std::string("reset halt")));
  for (auto it = reset; it != packets.end(); ++it) writes += (*it)[0] == 'X' || (*it)[0] == 'M';
  EXPECT_EQ(writes, 1);
}

// A server that stopped a running target for the connection says so first;
// the back end lets the target run on and never takes that stop reply for
// the answer to its first question.
TEST(GdbFakeServer, ConnectingToARunningTargetLeavesItRunning) {
  Model m;
  m.Regs = {{20, 0x20001000}, {22, 0x100}};
  FakeServer srv([&](const std::string& p) { return Serve(m, p); });
  srv.Push(Framed("T02thread:01;"));
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  auto b = Open(srv);
  ASSERT_TRUE(b);
  EXPECT_EQ(b->IsHalted(), 0);
  std::vector<std::string> p;
  for (int i = 0; i < 200 && (p.empty() || p.back() != "c"); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    p = srv.Packets();
  }
  ASSERT_FALSE(p.empty());
  EXPECT_EQ(p.back(), "c");
  // Halting and reading work as usual afterwards.
  ASSERT_EQ(b->Halt(), 0);
  U64 sp;
  ASSERT_EQ(b->ReadReg(13, sp), 0);
  EXPECT_EQ(sp, 0x20001000u);
  // Without that stop reply the target is taken as halted.
  Model m2;
  FakeServer srv2([&](const std::string& q) { return Serve(m2, q); });
  auto b2 = Open(srv2);
  ASSERT_TRUE(b2);
  EXPECT_EQ(b2->IsHalted(), 1);
}

TEST(GdbFakeServer, ExitRepliesAndSilenceLoseTheConnection) {
  {
    Model m;
    FakeServer srv([&](const std::string& p) { return Serve(m, p); });
    std::vector<std::string> log;
    auto b = Open(srv, &log);
    ASSERT_TRUE(b);
    ASSERT_EQ(b->Go(0), 0);
    EXPECT_EQ(b->IsHalted(), 0);
    srv.Push(Framed("W00"));
    int h = 0;
    for (int i = 0; i < 500 && h == 0; ++i) {
      h = b->IsHalted();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_LT(h, 0);
  }
  {
    // A server that stops answering: every wait ends at the time-out.
    Model m;
    bool quiet = false;
    FakeServer srv([&](const std::string& p) { return quiet ? std::string() : Serve(m, p); });
    auto b = Open(srv, nullptr, 150);
    ASSERT_TRUE(b);
    quiet = true;
    auto t0 = Clock::now();
    U64 v;
    EXPECT_NE(b->ReadReg(0, v), 0);
    U8 buf[4];
    EXPECT_EQ(b->ReadMem(0x20000000, 4, buf), 0);
    EXPECT_LT(b->IsHalted(), 0);
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count(), 1000);
  }
  {
    // Not a GDB server at all.
    FakeServer srv([](const std::string&) { return std::string("+HTTP/1.1 400\r\n"); });
    std::string err;
    EXPECT_FALSE(CreateGdbBackendOnSocket(srv.ClientFd(), 0, nullptr, err, 100));
    EXPECT_FALSE(err.empty());
  }
}

TEST(GdbFakeServer, HostAndPortParsing) {
  std::string err;
  EXPECT_FALSE(CreateGdbBackend("localhost:99999", 0, nullptr, err));
  EXPECT_NE(err.find("port"), std::string::npos);
  EXPECT_FALSE(CreateGdbBackend("localhost:abc", 0, nullptr, err));
  EXPECT_NE(err.find("port"), std::string::npos);
  EXPECT_FALSE(CreateGdbBackend("[::1", 0, nullptr, err));
  // Nothing listens on a port held closed.
  const CClosedPort Closed;
  const int port = Closed.Port();
  ASSERT_GT(port, 0);
  err.clear();
  EXPECT_FALSE(CreateGdbBackend("127.0.0.1:" + std::to_string(port), 0, nullptr, err));
  EXPECT_NE(err.find("cannot connect"), std::string::npos) << err;
}

TEST(GdbFakeServer, FileIoRequestsBecomeSemihostingHalts) {
  Model m;
  // BKPT 0xAB at 0x100; the server's PC is already behind it.
  m.Flash[0x100] = 0xAB;
  m.Flash[0x101] = 0xBE;
  auto request = [&](U32 Op, const std::string& sCall) { m.FioQueue.push_back({Op, sCall}); };
  // Three requests in a row: each sent when the target runs on.
  request(0x05, "Fwrite,1,20000100,6");
  request(0x0C, "Ffstat,3,20000200");
  request(0x01, "Fopen,20000300/5,0,0");
  FakeServer srv([&](const std::string& p) { return Serve(m, p); });
  auto b = Open(srv);
  ASSERT_TRUE(b);
  auto halted = [&] {
    for (int i = 0; i < 1000; ++i) {
      int h = b->IsHalted();
      if (h != 0) return h;
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return 0;
  };
  U64 pc, r0;
  // SYS_WRITE of 6 bytes, served with 2 bytes left over: 4 were written.
  ASSERT_EQ(b->Go(0), 0);
  ASSERT_EQ(halted(), 1);
  ASSERT_EQ(b->ReadReg(15, pc), 0);
  EXPECT_EQ(pc, 0x100u);  // at the BKPT being served
  ASSERT_EQ(b->ReadReg(0, r0), 0);
  EXPECT_EQ(r0, 5u);
  ASSERT_EQ(b->WriteReg(0, 2), 0);
  ASSERT_EQ(b->WriteReg(15, 0x102), 0);
  ASSERT_EQ(b->Go(0), 0);
  // SYS_FLEN: the length goes back as a stat record.
  for (int i = 0; i < 100 && b->IsHalted() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_EQ(b->IsHalted(), 1);
  ASSERT_EQ(b->WriteReg(0, 0x12345), 0);
  ASSERT_EQ(b->WriteReg(15, 0x102), 0);
  ASSERT_EQ(b->Go(0), 0);
  // A failure, and a step over the served request stays halted.
  for (int i = 0; i < 100 && b->IsHalted() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_EQ(b->IsHalted(), 1);
  ASSERT_EQ(b->WriteReg(0, 0xFFFFFFFF), 0);
  ASSERT_EQ(b->WriteReg(15, 0x102), 0);
  ASSERT_EQ(b->Step(), 0);
  EXPECT_EQ(b->IsHalted(), 1);
  ASSERT_EQ(b->ReadReg(15, pc), 0);
  EXPECT_EQ(pc, 0x102u);

  ASSERT_EQ(m.FioReplies.size(), 3u);
  EXPECT_EQ(m.FioReplies[0], "F4");
  EXPECT_EQ(m.FioReplies[1], "F0");
  EXPECT_EQ(m.FioReplies[2], "F-1,5,C");
  const U8* st = &m.Ram[0x200];
  EXPECT_EQ(st[28] | st[29] | st[30] | st[31], 0);
  EXPECT_EQ((U32)st[33] << 16 | (U32)st[34] << 8 | st[35], 0x12345u);
}
