// The request layer of the GDB remote protocol, packet by packet against the
// scripted server: the exact packet each method sends, how it reads the
// answer, the return codes, and stop replies the server sends unasked. Also
// the target description and memory map readers, with a random-input run.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <random>

#include "fake_gdb_server.h"
#include "gdb/gdb_client.h"
#include "gdb/gdb_targetdesc.h"

using namespace vorden;
using gdbtest::FakeServer;
using gdbtest::Framed;

namespace {

// A server answering from a table (packet -> reply payload, "<none>" for no
// reply at all), acknowledging until no-ack mode starts. Unlisted packets get
// the empty reply of an unknown packet.
struct Table {
  std::map<std::string, std::string> Replies;
  bool AckOff = false;
  std::string Prefix;  // sent before the first reply (an unasked stop reply)
  std::string operator()(const std::string& p) {
    std::string out = AckOff || p == "\x03" ? "" : "+";
    out += Prefix;
    Prefix.clear();
    auto it = Replies.find(p);
    std::string r = it == Replies.end() ? "" : it->second;
    if (p == "QStartNoAckMode" && r == "OK") AckOff = true;
    if (r == "<none>") return out;
    // '\n' separates packets sent in a row.
    for (size_t start = 0;;) {
      size_t nl = r.find('\n', start);
      out += Framed(r.substr(start, nl == std::string::npos ? std::string::npos : nl - start));
      if (nl == std::string::npos) return out;
      start = nl + 1;
    }
  }
};

struct Fixture {
  Table T;
  std::vector<std::string> Log;
  std::unique_ptr<FakeServer> Srv;
  std::unique_ptr<CGdbClient> C;
  void Open(int TimeoutMs = 300) {
    Srv = std::make_unique<FakeServer>([this](const std::string& p) { return T(p); });
    C = std::make_unique<CGdbClient>([this](int, const std::string& s) { Log.push_back(s); });
    C->SetTimeout(TimeoutMs);
    C->Adopt(Srv->ClientFd());
  }
  std::string Last() {
    auto p = Srv->Packets();
    return p.empty() ? "" : p.back();
  }
};

const char* kSupported = "PacketSize=1000;qXfer:features:read+;qXfer:memory-map:read+;QStartNoAckMode+;vContSupported+";

}  // namespace

TEST(GdbClient, HandshakeReadsTheCapabilitiesAndSwitchesAcksOff) {
  Fixture f;
  f.T.Replies = {{"qSupported:swbreak+;hwbreak+;xmlRegisters=arm", kSupported},
                 {"QStartNoAckMode", "OK"},
                 {"vCont?", "vCont;c;C;s;S"}};
  f.Open();
  std::string err;
  ASSERT_TRUE(f.C->Handshake(err)) << err;
  EXPECT_EQ(f.Srv->Packets(), (std::vector<std::string>{"qSupported:swbreak+;hwbreak+;xmlRegisters=arm",
                                                       "QStartNoAckMode", "vCont?"}));
  const auto& c = f.C->Capabilities();
  EXPECT_EQ(c.PacketSize, 0x1000u);
  EXPECT_TRUE(c.Features && c.MemoryMap && c.NoAck && c.VCont);
  ASSERT_TRUE(f.C->Continue());
  ASSERT_TRUE(f.C->StepStart());
  ASSERT_TRUE(f.C->Interrupt());
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  auto p = f.Srv->Packets();
  EXPECT_EQ(std::vector<std::string>(p.end() - 3, p.end()), (std::vector<std::string>{"vCont;c", "vCont;s", "\x03"}));
  EXPECT_EQ(f.C->Link().Retransmissions(), 0);
}

TEST(GdbClient, MinimalServerKeepsAcksAndPlainResumePackets) {
  Fixture f;
  f.T.Replies = {{"qSupported:swbreak+;hwbreak+;xmlRegisters=arm", "PacketSize=20;vContSupported+"},
                 {"vCont?", "vCont;c;C"}};  // no step through vCont
  f.Open();
  std::string err;
  ASSERT_TRUE(f.C->Handshake(err));
  EXPECT_EQ(f.C->Capabilities().PacketSize, 400u);  // below 64: the default stays
  EXPECT_FALSE(f.C->Capabilities().NoAck);
  EXPECT_FALSE(f.C->Capabilities().VCont);
  ASSERT_TRUE(f.C->Continue());
  ASSERT_TRUE(f.C->StepStart());
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  auto p = f.Srv->Packets();
  EXPECT_EQ(std::vector<std::string>(p.end() - 2, p.end()), (std::vector<std::string>{"c", "s"}));
  // Nothing answers at all: no GDB server.
  Fixture g;
  g.T.Replies = {{"qSupported:swbreak+;hwbreak+;xmlRegisters=arm", "<none>"}};
  g.Open(100);
  EXPECT_FALSE(g.C->Handshake(err));
  EXPECT_EQ(err, "no answer from the GDB server");
  EXPECT_TRUE(g.C->Lost());
}

// An emulator stops a running target when a debugger connects and says so
// with a stop reply before anything was asked: that is no answer to
// qSupported, and every later answer stays with its own request.
TEST(GdbClient, UnaskedStopRepliesAreKeptAsideNotTakenAsAnswers) {
  Fixture f;
  f.T.Replies = {{"qSupported:swbreak+;hwbreak+;xmlRegisters=arm", kSupported},
                 {"QStartNoAckMode", "OK"},
                 {"vCont?", "vCont;c;C;s;S"},
                 {"?", "T02thread:01;"},
                 {"vCont;c", "<none>"},
                 {"m20000000,4", "78563412"}};
  f.T.Prefix = Framed("T02thread:01;");
  f.Open();
  std::string err, stop;
  ASSERT_TRUE(f.C->Handshake(err)) << err;
  EXPECT_EQ(f.C->Capabilities().PacketSize, 0x1000u);
  EXPECT_TRUE(f.C->Capabilities().NoAck);
  EXPECT_TRUE(f.C->Capabilities().VCont);
  ASSERT_TRUE(f.C->TakeUnsolicitedStop(stop));
  EXPECT_EQ(stop, "T02thread:01;");
  EXPECT_FALSE(f.C->TakeUnsolicitedStop(stop));
  // One that crosses a request in the middle of a session.
  f.Srv->Push(Framed("T05thread:01;"));
  ASSERT_TRUE(f.Srv->WaitPushed());
  std::string bytes;
  ASSERT_EQ(f.C->ReadMemory(0x20000000, 4, bytes), 1);
  EXPECT_EQ(bytes, "\x78\x56\x34\x12");
  // Waiting for a stop takes it first; a resume drops it as stale.
  ASSERT_EQ(f.C->PollStop(stop, 0), 1);
  EXPECT_EQ(stop, "T05thread:01;");
  f.Srv->Push(Framed("T05thread:01;"));
  ASSERT_TRUE(f.Srv->WaitPushed());
  ASSERT_EQ(f.C->ReadMemory(0x20000000, 4, bytes), 1);
  ASSERT_TRUE(f.C->Continue());
  EXPECT_EQ(f.C->PollStop(stop, 0), 0);
  // '?' is the one request a stop reply answers.
  ASSERT_EQ(f.C->HaltReason(stop), 1);
  EXPECT_EQ(stop, "T02thread:01;");
}

TEST(GdbClient, RegisterAndMemoryPackets) {
  Fixture f;
  f.T.Replies = {{"g", "0100000002000000"},
                 {"pf", "00010000"},
                 {"p1a", "E45"},
                 {"Pf=02010000", "OK"},
                 {"P1=00", "E01"},
                 {"m1000,8", "0102030405060708"},
                 {"m2000,8", "0a0b"},     // short: the readable part
                 {"m3000,4", "E14"},
                 {"m4000,2", "0g"},       // not hex
                 {"m5000,2", "00112233"}};  // more than asked
  f.Open();
  std::string s;
  EXPECT_EQ(f.C->ReadRegisters(s), 1);
  EXPECT_EQ(s, "0100000002000000");
  EXPECT_EQ(f.C->ReadRegister(15, s), 1);
  EXPECT_EQ(s, "00010000");
  EXPECT_EQ(f.C->ReadRegister(26, s), 0);
  EXPECT_EQ(f.C->ReadRegister(27, s), 0);  // empty reply: unknown register
  EXPECT_EQ(f.C->WriteRegister(15, "02010000"), 1);
  EXPECT_EQ(f.C->WriteRegister(1, "00"), 0);
  EXPECT_EQ(f.C->ReadMemory(0x1000, 8, s), 1);
  EXPECT_EQ(s, std::string("\x01\x02\x03\x04\x05\x06\x07\x08"));
  EXPECT_EQ(f.C->ReadMemory(0x2000, 8, s), 1);
  EXPECT_EQ(s, "\x0a\x0b");
  EXPECT_EQ(f.C->ReadMemory(0x3000, 4, s), 0);
  EXPECT_EQ(f.C->ReadMemory(0x4000, 2, s), 0);
  EXPECT_EQ(f.C->ReadMemory(0x5000, 2, s), 0);
  EXPECT_TRUE(s.empty());
  EXPECT_FALSE(f.C->Lost());
}

TEST(GdbClient, BinaryWritesFallBackToHexAndFitThePacket) {
  Fixture f;
  f.T.Replies = {{"qSupported:swbreak+;hwbreak+;xmlRegisters=arm", "PacketSize=40"}};
  f.Open();
  std::string err;
  ASSERT_TRUE(f.C->Handshake(err));
  // Escaped bytes count twice against the packet size (64 here, the least
  // taken): 64 - 20 header characters.
  std::vector<U8> data(100, 0x55);
  data[0] = '$';
  data[1] = '}';
  EXPECT_EQ(f.C->FitBinary(data.data(), 100, 20), 42u);
  U32 done = 7;
  // The server knows no 'X': 2, and from then on 'X' is not tried again.
  EXPECT_EQ(f.C->WriteMemoryBinary(0x20000000, data.data(), 3, done), 2);
  EXPECT_EQ(done, 0u);
  EXPECT_EQ(f.Last(), std::string("X20000000,3:$}U"));
  EXPECT_EQ(f.C->Capabilities().BinaryWrite, 0);
  size_t before = f.Srv->Packets().size();
  EXPECT_EQ(f.C->WriteMemoryBinary(0x20000000, data.data(), 3, done), 2);
  EXPECT_EQ(f.Srv->Packets().size(), before);
  f.T.Replies["M20000000,3:247d55"] = "OK";
  EXPECT_EQ(f.C->WriteMemoryHex(0x20000000, data.data(), 3, done), 1);
  EXPECT_EQ(done, 3u);
  // 'M' carries (64 - 20) / 2 bytes at most.
  EXPECT_EQ(f.C->WriteMemoryHex(0x20000000, data.data(), 100, done), 0);
  EXPECT_EQ(f.Last().substr(0, 12), "M20000000,16");

  Fixture x;
  x.T.Replies = {{"X20000000,2:ab", "OK"}, {"X20000002,1:c", "E03"}};
  x.Open();
  const U8 ab[] = {'a', 'b', 'c'};
  EXPECT_EQ(x.C->WriteMemoryBinary(0x20000000, ab, 2, done), 1);
  EXPECT_EQ(done, 2u);
  EXPECT_EQ(x.C->Capabilities().BinaryWrite, 1);
  EXPECT_EQ(x.C->WriteMemoryBinary(0x20000002, ab + 2, 1, done), 0);
  EXPECT_EQ(done, 0u);
}

TEST(GdbClient, BreakpointFlashMonitorAndQueryPackets) {
  Fixture f;
  f.T.Replies = {{"Z1,8000100,2", "OK"},
                 {"z1,8000100,2", "OK"},
                 {"Z0,8000100,2", "E01"},
                 {"Z2,20000000,4", "OK"},
                 {"vFlashErase:8000000,400", "OK"},
                 {"vFlashWrite:8000000:\x01\x02", "OK"},
                 {"vFlashDone", "E05"},
                 {"qRcmd,7265736574", "O72657365742e0a\nOK"},  // "reset", output "reset.\n"
                 {"qRcmd,68656c70", "68656c700a"},           // "help": output as hex, no OK
                 {"qRcmd,78", "E01"},
                 {"qqemu.sstepbits", "ENABLE=1,NOIRQ=2,NOTIMER=4"}};
  f.Open();
  EXPECT_EQ(f.C->InsertPoint('1', 0x8000100, 2), 1);
  EXPECT_EQ(f.C->RemovePoint('1', 0x8000100, 2), 1);
  EXPECT_EQ(f.C->InsertPoint('0', 0x8000100, 2), 0);
  EXPECT_EQ(f.C->InsertPoint('3', 0x20000000, 4), 0);  // unknown to the server
  EXPECT_EQ(f.C->InsertPoint('2', 0x20000000, 4), 1);
  EXPECT_EQ(f.C->FlashErase(0x8000000, 0x400), 1);
  const U8 two[] = {1, 2};
  U32 done = 0;
  EXPECT_EQ(f.C->FlashWrite(0x8000000, two, 2, done), 1);
  EXPECT_EQ(done, 2u);
  EXPECT_EQ(f.C->FlashDone(), 0);
  std::string out, err;
  EXPECT_EQ(f.C->Monitor("reset", out, err), 1);
  EXPECT_EQ(out, "reset.\n");
  out.clear();
  EXPECT_EQ(f.C->Monitor("help", out, err), 1);
  EXPECT_EQ(out, "help\n");
  EXPECT_EQ(f.C->Monitor("x", out, err), 0);
  EXPECT_EQ(err, "monitor command failed");
  EXPECT_EQ(f.C->Monitor("y", out, err), 0);
  EXPECT_EQ(err, "monitor commands not supported");
  std::string r;
  EXPECT_EQ(f.C->Query("qqemu.sstepbits", r), 1);
  EXPECT_EQ(r, "ENABLE=1,NOIRQ=2,NOTIMER=4");
  EXPECT_EQ(f.C->Query("Qqemu.sstep=7", r), 1);
  EXPECT_EQ(r, "");
  EXPECT_FALSE(f.C->Lost());
}

TEST(GdbClient, StopRepliesConsoleOutputAndLosingTheServer) {
  Fixture f;
  f.T.Replies = {{"c", "<none>"}, {"?", "S05"}, {"D", "OK"}};
  f.Open(150);
  std::string stop;
  ASSERT_TRUE(f.C->Continue());
  EXPECT_EQ(f.C->PollStop(stop, 0), 0);
  f.Srv->Push(Framed("O68690a") + Framed("OK") + Framed("T05thread:01;hwbreak:;"));
  EXPECT_EQ(f.C->PollStop(stop, 500), 1);
  EXPECT_EQ(stop, "T05thread:01;hwbreak:;");
  EXPECT_NE(std::find(f.Log.begin(), f.Log.end(), "hi\n"), f.Log.end());  // console output
  EXPECT_EQ(CGdbClient::Signal(stop), 5);
  EXPECT_FALSE(CGdbClient::IsWatchStop(stop));
  EXPECT_TRUE(CGdbClient::IsWatchStop("T05watch:20000000;"));
  EXPECT_TRUE(CGdbClient::IsWatchStop("T05thread:01;awatch:20000000;"));
  EXPECT_FALSE(CGdbClient::IsWatchStop("T05thread:01;xwatch:2;"));
  EXPECT_FALSE(CGdbClient::IsStopReply("S5"));
  EXPECT_TRUE(CGdbClient::IsStopReply("S05"));
  EXPECT_FALSE(CGdbClient::IsStopReply("S05x"));
  EXPECT_EQ(CGdbClient::Signal("W"), -1);
  // An exit reply is a stop reply too.
  f.Srv->Push(Framed("W00"));
  EXPECT_EQ(f.C->PollStop(stop, 500), 1);
  EXPECT_EQ(stop, "W00");
  // No stop in time through WaitStop loses the connection; then everything
  // fails at once.
  ASSERT_TRUE(f.C->Continue());
  EXPECT_EQ(f.C->WaitStop(stop), -1);
  EXPECT_TRUE(f.C->Lost());
  std::string s;
  EXPECT_EQ(f.C->ReadMemory(0, 4, s), -1);
  EXPECT_EQ(f.C->HaltReason(s), -1);
  EXPECT_FALSE(f.C->Continue());

  // A server that closes: -1.
  Fixture g;
  g.Open(200);
  g.Srv->CloseNow();
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_EQ(g.C->ReadRegisters(s), -1);
  EXPECT_TRUE(g.C->Lost());
}

TEST(GdbClient, DocumentsComeInPiecesOfThePacketSize) {
  Fixture f;
  std::string doc(150, 'x');
  f.T.Replies = {{"qSupported:swbreak+;hwbreak+;xmlRegisters=arm", "PacketSize=48"},
                 {"qXfer:features:read:target.xml:0,40", "m" + doc.substr(0, 64)},
                 {"qXfer:features:read:target.xml:40,40", "m" + doc.substr(64, 64)},
                 {"qXfer:features:read:target.xml:80,40", "l" + doc.substr(128)},
                 {"qXfer:features:read:loop.xml:0,40", "m"},
                 {"qXfer:memory-map:read::0,40", "E00"}};
  f.Open();
  std::string err, out;
  ASSERT_TRUE(f.C->Handshake(err));
  EXPECT_EQ(f.C->ReadXfer("features", "target.xml", out), 1);
  EXPECT_EQ(out, doc);
  EXPECT_EQ(f.C->ReadXfer("features", "target.xml", out, 100), 0);  // longer than allowed
  EXPECT_EQ(f.C->ReadXfer("features", "loop.xml", out), 0);         // 'm' with nothing never ends
  EXPECT_EQ(f.C->ReadXfer("memory-map", "", out), 0);
  EXPECT_FALSE(f.C->Lost());
}

TEST(GdbTargetDesc, RegisterNumbersIncludesAndMemoryMap) {
  std::map<std::string, std::string> files = {
      {"target.xml",
       "<target><xi:include href=\"core.xml\"/><reg name='CPSR' bitsize='32' regnum='25'/>"
       "<register name=\"no\"/><reg bitsize=\"32\"/><xi:include href=\"fpu.xml\"/></target>"},
      {"core.xml", "<feature><reg name=\"r0\" bitsize=\"32\"/><reg name=\"pc\" bitsize=\"32\" regnum=\"15\"/>"
                   "<reg name=\"sp\" bitsize=\"x\"/></feature>"},
      {"fpu.xml", "<feature><reg name=\"d0\" bitsize=\"64\"/></feature>"},
      {"self.xml", "<xi:include href=\"self.xml\"/>"}};
  std::vector<gdbdesc::Register> regs;
  int next = 0;
  std::function<bool(const std::string&)> inc = [&](const std::string& h) {
    return files.count(h) && gdbdesc::ParseRegisters(files[h], next, regs, inc, 1);
  };
  ASSERT_TRUE(gdbdesc::ParseRegisters(files["target.xml"], next, regs, inc));
  // r0 0, pc 15, sp 16 (bad size: 32), cpsr 25, an unnamed one takes 26, d0 27.
  ASSERT_EQ(regs.size(), 5u);
  EXPECT_EQ(regs[0].Name, "r0");
  EXPECT_EQ(regs[1].Num, 15);
  EXPECT_EQ(regs[2].Num, 16);
  EXPECT_EQ(regs[2].Bits, 32);
  EXPECT_EQ(regs[3].Name, "cpsr");
  EXPECT_EQ(regs[3].Num, 25);
  EXPECT_EQ(regs[4].Name, "d0");
  EXPECT_EQ(regs[4].Num, 27);
  EXPECT_EQ(regs[4].Bits, 64);
  // An include that includes itself ends at the depth bound.
  std::function<bool(const std::string&)> self;
  int depth = 0;
  self = [&](const std::string&) { return gdbdesc::ParseRegisters(files["self.xml"], next, regs, self, ++depth); };
  EXPECT_FALSE(gdbdesc::ParseRegisters(files["self.xml"], next, regs, self));

  auto flash = gdbdesc::ParseMemoryMap(
      "<memory-map><memory type=\"flash\" start=\"0x8000000\" length=\"0x20000\"><property name=\"blocksize\">"
      "0x800</property></memory><memory type=\"ram\" start=\"0x20000000\" length=\"0x1000\"/>"
      "<memory type=\"flash\" start=\"0xFFFFF000\" length=\"0x2000\"/>"      // past 4 GiB
      "<memory type=\"flash\" start=\"-1\" length=\"0x10\"/>"
      "<memory type=\"flash\" start=\"0x1000\" length=\"0x100\"></memory></memory-map>");
  ASSERT_EQ(flash.size(), 2u);
  EXPECT_EQ(flash[0].Addr, 0x8000000u);
  EXPECT_EQ(flash[0].Size, 0x20000u);
  EXPECT_EQ(flash[0].Block, 0x800u);
  EXPECT_EQ(flash[1].Addr, 0x1000u);
  EXPECT_EQ(flash[1].Block, 0u);
}

TEST(GdbTargetDescFuzz, RandomAndMutatedDocumentsNeverCrash) {
  const std::string seeds[] = {
      "<target><reg name=\"r0\" bitsize=\"32\" regnum=\"4\"/><xi:include href=\"a.xml\"/></target>",
      "<memory-map><memory type=\"flash\" start=\"0x0\" length=\"0x1000\"><property name=\"blocksize\">0x400"
      "</property></memory></memory-map>"};
  std::mt19937 rng(7);
  const char alphabet[] = "<>/=\"' regnamebitsizxi:includehrefmemorytypeflashstartlength0x19f\n";
  for (int i = 0; i < 20000; ++i) {
    std::string s = seeds[i % 2];
    int edits = 1 + (int)(rng() % 8);
    for (int e = 0; e < edits && !s.empty(); ++e) {
      size_t at = rng() % s.size();
      switch (rng() % 3) {
        case 0: s[at] = alphabet[rng() % (sizeof alphabet - 1)]; break;
        case 1: s.erase(at, rng() % 8); break;
        default: s.insert(at, std::string(1, (char)rng())); break;
      }
    }
    std::vector<gdbdesc::Register> regs;
    int next = (int)(rng() % 3) - 1, calls = 0;
    std::function<bool(const std::string&)> inc = [&](const std::string&) {
      return ++calls < 20 && gdbdesc::ParseRegisters(s, next, regs, inc, calls);
    };
    gdbdesc::ParseRegisters(s, next, regs, inc);
    for (const auto& r : regs) ASSERT_TRUE(r.Bits > 0 && r.Bits <= 1024);
    for (const auto& f : gdbdesc::ParseMemoryMap(s)) ASSERT_LE((U64)f.Addr + f.Size, 0x100000000ull);
  }
}
