// The data cache against the fake probe, which counts its read calls: shared
// reads, the hole search, page borders and the end of the address space,
// failed parts, invalidation, cancelling, registers and symbol data.
#include "device/coresupport.h"
#include "device/datamanager.h"
#include "device/device.h"
#include "device/events.h"
#include "fake_probe.h"
#include "log/log.h"
#include "log/logcapture.h"
#include "testsupport/testapp.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace {

using fakeprobe::kRAM;
constexpr U32 kRegs = 32;

// Probe registers 0..31, core register n is probe register n.
struct CFakeCore : ICoreSupport {
  U32 NumProbeRegs() const override { return kRegs; }
  int GetRegIndex(U32 r) const override { return r < kRegs ? int(r) : -1; }
  U32 GetBPFlags(U32) const override { return 0; }
  int ReadReg(U32 Idx, U64* p) override {
    U8 St = 1;
    return ReadRegs(1, &Idx, p, &St) == 0 && St == 0 ? 0 : -1;
  }
  int ReadRegs(U32 n, const U32* pIdx, U64* pVal, U8* pSt) override {
    return Device()->Probe().VORDENARM_ReadRegs(pIdx, pVal, pSt, n) < 0 ? -1 : 0;
  }
  int WriteReg(U32, U64) override { return 0; }
  int ReadCPReg(const char*, U64*) override { return -1; }
  int WriteCPReg(const char*, U64) override { return -1; }
};

struct CAsker : CDeviceEventListener {
  int MemDone = 0, RegDone = 0, RegsDone = 0, LocDone = 0;
  std::vector<U8> Data, Status;
  U64 Value = 0;
  void OnDeviceReadMemDone(U32, U32 n, const char*, U8* d, U8* s) override {
    ++MemDone;
    Data.assign(d, d + n);
    Status.assign(s, s + n);
  }
  void OnDeviceReadRegDone(U32, U64 v) override { ++RegDone, Value = v; }
  void OnDeviceReadRegsDone(U32 n, U32*, U64* v, U8*) override { ++RegsDone, Value = v[n - 1]; }
  void OnDeviceReadLocDone(ELF_SYM_LOC, U32 n, const char*, U8* d) override {
    ++LocDone;
    Data.assign(d, d + n);
  }
};

ELF_SYM_LOC Loc(U32 Kind, U32 AddrOrReg, U32 Kind2 = 0, U32 AddrOrReg2 = 0, U32 Size = 4) {
  ELF_SYM_LOC l{};
  l.count = Kind2 ? 2 : 1;
  const U32 k[2] = {Kind, Kind2}, a[2] = {AddrOrReg, AddrOrReg2};
  for (int i = 0; i < 2; ++i) {
    l.parts[i].kind = k[i];
    l.parts[i].size = Size;
    (k[i] == ELF_LOC_REG ? l.parts[i].reg : l.parts[i].address) = a[i];
  }
  return l;
}

class DataCache : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    NewTestApp<QCoreApplication>();
    SetDeviceGuiThread();
  }
  void SetUp() override {
    fakeprobe::S().Halted = 1;
    fakeprobe::OpenGate();
    for (U32 i = 0; i < sizeof fakeprobe::S().aRAM; ++i) fakeprobe::S().aRAM[i] = U8(i * 7 + 1);
    DEV_SetCoreSupport(&m_Core);
    d = CDevice::CreateWithProbe(fakeprobe::Table());
    dm = &CDeviceDataManager::Instance();
    ASSERT_EQ(d->PostConnect(CM_ATTACH), 0);
    ASSERT_EQ(d->WaitIdle(5000), 0);
    ASSERT_TRUE(d->HaltReported());
  }
  void TearDown() override {
    fakeprobe::OpenGate();
    CDevice::Destroy();
    while (DeliverDeviceEvents(1000) > 0) {
    }
    DEV_SetCoreSupport(nullptr);
  }
  int Reads() const { return fakeprobe::S().ReadCalls.load(); }
  void Idle() { ASSERT_EQ(d->WaitIdle(5000), 0); }
  int Ask(CDeviceEventListener& a, U32 Addr, U32 n, U32 Chunk = 0, U32 Flags = 0) {
    return dm->ReadMemAsync(&a, Addr, n, nullptr, Chunk, AW_ANY, Flags);
  }
  // Holds the worker so that what is scheduled stays pending.
  void HoldWorker() {
    fakeprobe::CloseGate();
    ASSERT_EQ(d->PostExecVordenCmd("Gate"), 0);
    QElapsedTimer t;
    t.start();
    while (fakeprobe::S().InGate.load() == 0 && t.elapsed() < 5000) QThread::msleep(1);
  }
  CFakeCore m_Core;
  CDevice* d = nullptr;
  CDeviceDataManager* dm = nullptr;
};

TEST_F(DataCache, ListenersAskingForTheSameBytesShareOneRead) {
  CAsker a, b;
  const int r0 = Reads();
  EXPECT_EQ(Ask(a, kRAM + 16, 4), 2);
  EXPECT_EQ(Ask(b, kRAM + 16, 4), 2);
  EXPECT_EQ(Ask(a, kRAM + 16, 4), 2);  // a duplicate: refused, still one callback
  EXPECT_EQ(dm->NumPending(), 2);
  Idle();
  EXPECT_EQ(Reads() - r0, 1);
  EXPECT_EQ(a.MemDone, 1);
  EXPECT_EQ(b.MemDone, 1);
  EXPECT_EQ(a.Data, std::vector<U8>(&fakeprobe::S().aRAM[16], &fakeprobe::S().aRAM[20]));
  // Now in the cache: answered before the call returns, no probe call.
  EXPECT_EQ(Ask(a, kRAM + 17, 2), 0);
  EXPECT_EQ(a.MemDone, 2);
  EXPECT_EQ(Reads() - r0, 1);
}

// Five holes are read one by one, then the rest of the range in one read.
TEST_F(DataCache, HoleSearchReadsFiveHolesThenTheRange) {
  CAsker a;
  for (U32 i = 0; i < 8; ++i) Ask(a, kRAM + 8 * i, 4);
  Idle();
  const int r0 = Reads();
  EXPECT_EQ(Ask(a, kRAM, 64), 2);
  Idle();
  EXPECT_EQ(Reads() - r0, 6);
  EXPECT_EQ(a.Data, std::vector<U8>(&fakeprobe::S().aRAM[0], &fakeprobe::S().aRAM[64]));
  EXPECT_EQ(a.Status, std::vector<U8>(64, 0));
}

// Failed parts become unreadable with an error each; the range merges to 1
// and the callback comes. A page border and the end of the address space.
TEST_F(DataCache, FailedPartsPageBordersAndTheEndOfTheAddressSpace) {
  CAsker a;
  Ask(a, kRAM + 0xFF8, 8);
  Idle();
  CLogCapture Errors(MSG_ERROR);
  EXPECT_EQ(Ask(a, kRAM + 0xFF8, 16), 2);
  Idle();
  EXPECT_EQ(Errors.Texts(), QStringList{"Target memory readout of 8 bytes @ 0x20001000 failed."});
  EXPECT_EQ(a.MemDone, 2);
  EXPECT_EQ(a.Status, std::vector<U8>({0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1}));
  EXPECT_EQ(dm->MemStatus(kRAM + 0xFF8, 16, nullptr), CACHE_UNREADABLE);
  // 0x20000000 starts a page: chunk-wise the readable half is kept.
  EXPECT_EQ(Ask(a, kRAM - 8, 16, 4, MEM_FLAG_ITEM_RETRY), 2);
  Idle();
  EXPECT_EQ(a.Status, std::vector<U8>({1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(std::vector<U8>(a.Data.begin() + 8, a.Data.end()),
            std::vector<U8>(&fakeprobe::S().aRAM[0], &fakeprobe::S().aRAM[8]));
  EXPECT_EQ(Errors.Texts().size(), 2);
  Errors.Discard();
  // Over 4 GiB: refused at once, unreadable, no read.
  const int r0 = Reads();
  EXPECT_EQ(Ask(a, 0xFFFFFFF0u, 0x20), 0);
  EXPECT_EQ(a.Status, std::vector<U8>(0x20, 1));
  EXPECT_EQ(dm->ReadMemSync(0xFFFFFFF0u, 0x20, nullptr, a.Data.data(), a.Status.data()), -1);
  EXPECT_EQ(Reads(), r0);
}

TEST_F(DataCache, ResumeLeavesNothingValidAndRunningReadsGoToTheTarget) {
  CAsker a;
  Ask(a, kRAM, 32);
  U32 Idx[2] = {3, 4};
  memcpy(dm->SharedRegIdxs(), Idx, sizeof Idx);
  EXPECT_EQ(dm->ReadRegsAsync(&a, 2), 2);
  Idle();
  EXPECT_EQ(a.RegsDone, 1);
  EXPECT_EQ(a.Value, 4u);
  EXPECT_EQ(dm->MemStatus(kRAM, 32, nullptr), CACHE_VALID);
  ASSERT_EQ(d->PostContinue(), 0);
  Idle();
  ASSERT_FALSE(d->HaltReported());
  EXPECT_EQ(dm->MemStatus(kRAM, 32, nullptr), CACHE_INVALID);
  EXPECT_EQ(dm->RegStatus(3), CACHE_INVALID);
  // While running (background access): the target answers, a register
  // location is not read at all.
  const int r0 = Reads();
  EXPECT_EQ(Ask(a, kRAM, 32), 2);
  Idle();
  EXPECT_EQ(Reads() - r0, 1);
  EXPECT_EQ(dm->ReadSymDataAsync(&a, Loc(ELF_LOC_REG, 3), 4, nullptr), 0);
  Idle();
  EXPECT_EQ(Reads() - r0, 1);
  EXPECT_EQ(a.LocDone, 0);
  U64 v = 0;
  EXPECT_EQ(dm->ReadRegSync(nullptr, 3, &v), 1);
}

TEST_F(DataCache, RegistersSyncBeyondTheCacheAndCoprocessorRing) {
  U64 v = 0;
  EXPECT_EQ(dm->NumCachedRegs(), kRegs);
  EXPECT_EQ(dm->ReadRegSync(nullptr, 7, &v), 0);
  EXPECT_EQ(v, 7u);
  EXPECT_EQ(dm->RegStatus(7), CACHE_VALID);
  EXPECT_EQ(dm->RegStatus(kRegs), CACHE_UNREADABLE);
  EXPECT_EQ(dm->ReadRegSync(nullptr, kRegs + 5, &v), 1);
  EXPECT_EQ(dm->ReadRegNow(9, &v), 0);
  EXPECT_EQ(v, 9u);
  EXPECT_EQ(dm->RegStatus(9), CACHE_VALID);
  EXPECT_EQ(CDeviceDataManager::NameHash(nullptr), 0u);
  EXPECT_EQ(CDeviceDataManager::NameHash("a"), 5381u * 33 + 'a');
  // A coprocessor register the worker cannot read settles as unreadable.
  CAsker a;
  EXPECT_EQ(dm->ReadCPRegAsync(&a, "CP15.0.0.0.0"), 2);
  Idle();
  EXPECT_EQ(dm->CPRegStatus("CP15.0.0.0.0"), CACHE_UNREADABLE);
  EXPECT_EQ(dm->NumPending(), 0);
}

TEST_F(DataCache, CancellingMakesPendingBytesInvalid) {
  CAsker a, b;
  HoldWorker();
  EXPECT_EQ(Ask(a, kRAM, 8), 2);
  EXPECT_EQ(Ask(b, kRAM + 64, 8), 2);
  U32 Idx = 9;
  dm->SharedRegIdxs()[0] = Idx;
  EXPECT_EQ(dm->ReadRegsAsync(&a, 1), 2);
  EXPECT_EQ(dm->MemStatus(kRAM, 8, nullptr), CACHE_PENDING);
  dm->CancelRequests(&a);
  EXPECT_EQ(dm->MemStatus(kRAM, 8, nullptr), CACHE_INVALID);
  EXPECT_EQ(dm->RegStatus(Idx), CACHE_INVALID);
  EXPECT_EQ(dm->NumPending(), 1);
  dm->CancelMemReads();
  EXPECT_EQ(dm->MemStatus(kRAM + 64, 8, nullptr), CACHE_INVALID);
  // A register whose read cannot run: the wait ends after 150 ms.
  CLogCapture Errors(MSG_ERROR);
  U64 v = 1;
  EXPECT_EQ(dm->ReadRegSync(nullptr, 11, &v), 1);
  EXPECT_EQ(v, 0u);
  EXPECT_EQ(Errors.Texts(), QStringList{"Timeout while waiting for register data arrival. VordenRegIdx = 11"});
  Errors.Discard();
  EXPECT_EQ(dm->NumPending(), 0);
  fakeprobe::OpenGate();
  Idle();
  EXPECT_EQ(b.MemDone, 0);
}

TEST_F(DataCache, SymbolDataPiecesLimitsAndErrorTexts) {
  CAsker a;
  U8 Out[16] = {};
  const ELF_SYM_LOC Mem = Loc(ELF_LOC_ADDR, kRAM + 4);
  EXPECT_EQ(dm->ReadSymData(Mem, 9, nullptr, Out), -1);
  EXPECT_EQ(dm->ReadSymDataAsync(&a, Mem, 9, nullptr), 1);
  // Memory then register: one memory read, one register read, one callback.
  const ELF_SYM_LOC Mixed = Loc(ELF_LOC_ADDR, kRAM + 4, ELF_LOC_REG, 6);
  EXPECT_EQ(dm->ReadSymDataAsync(&a, Mixed, 8, nullptr), 2);
  Idle();
  ASSERT_EQ(a.LocDone, 1);
  std::vector<U8> Want(&fakeprobe::S().aRAM[4], &fakeprobe::S().aRAM[8]);
  Want.insert(Want.end(), {6, 0, 0, 0});
  EXPECT_EQ(a.Data, Want);
  EXPECT_EQ(dm->ReadSymDataAsync(&a, Mixed, 8, nullptr), 0);
  EXPECT_EQ(a.LocDone, 2);
  EXPECT_EQ(dm->ReadSymData(Mixed, 8, nullptr, Out), 0);
  EXPECT_EQ(std::vector<U8>(Out, Out + 8), Want);
  CLogCapture Errors(MSG_ERROR);
  EXPECT_EQ(dm->ReadSymData(Loc(ELF_LOC_ADDR, kRAM, ELF_LOC_ADDR, kRAM + 8, 9), 8, nullptr, Out), 1);
  EXPECT_EQ(dm->ReadSymData(Loc(ELF_LOC_AT_SP, 4), 4, nullptr, Out), 1);
  EXPECT_EQ(dm->WriteSymDataAsync(Loc(ELF_LOC_AT_SP, 4), 4, Out, nullptr), -1);
  EXPECT_EQ(dm->WriteSymDataAsync(Mixed, 6, Out, nullptr), -1);
  EXPECT_EQ(Errors.Texts().join('\n').toStdString(),
            QStringList({"CDeviceDataManager::_ReadSymDataFromCache: data location pieces of size > 8 bytes are not supported.",
                         "CDeviceDataManager::_ReadSymDataFromCache: data location pieces of size > 8 bytes are not supported.",
                         "CDeviceDataManager::_ReadSymDataFromCache: data location piece could not be evaluated.",
                         "CDeviceDataManager::WriteSymDataAsync: not all data location parts have been evaluated",
                         "CDeviceDataManager::WriteSymDataAsync: input buffer has insufficient byte size"}).join('\n').toStdString());
  Errors.Discard();
  // A write goes through its job; its report makes the bytes invalid.
  const U8 New[4] = {0xDE, 0xAD, 0xBE, 0xEF};
  EXPECT_EQ(dm->WriteSymDataAsync(Mem, 4, New, nullptr), 0);
  Idle();
  EXPECT_EQ(dm->MemStatus(kRAM + 4, 4, nullptr), CACHE_INVALID);
  EXPECT_EQ(dm->ReadSymData(Mem, 4, nullptr, Out), 0);
  EXPECT_EQ(memcmp(Out, New, 4), 0);
}

// Random requests near page borders, the end of RAM and the end of the
// address space, with cancelling between them: every answer that says valid
// holds the probe's bytes, nothing outside RAM says valid, and every request
// is answered or dropped. Built with ASan/UBSan as datacache_san.
TEST_F(DataCache, RandomRequestsAreAnsweredConsistently) {
  struct CChecker : CDeviceEventListener {
    int Bad = 0, Done = 0;
    void OnDeviceReadMemDone(U32 a, U32 n, const char*, U8* d, U8* s) override {
      ++Done;
      for (U32 i = 0; i < n; ++i) {
        const U64 x = U64(a) + i;
        const bool InRam = x >= kRAM && x < kRAM + sizeof fakeprobe::S().aRAM;
        if (s[i] > 1 || (s[i] == 0 && (!InRam || d[i] != fakeprobe::S().aRAM[x - kRAM]))) ++Bad;
      }
    }
  } Win[4];
  CLogCapture Quiet(MSG_ERROR);
  std::mt19937 Rng(1234);
  const U32 Bases[] = {kRAM - 0x40, kRAM + 0xFC0, 0xFFFFFF80u, 0x1FFFFFF0u, kRAM + 0x7F0};
  for (int Round = 0; Round < 40; ++Round) {
    for (int i = 0; i < 12; ++i) {
      const U32 Addr = Bases[Rng() % 5] + Rng() % 0x80, n = 1 + Rng() % 300;
      const int r = Ask(Win[Rng() % 4], Addr, n, Rng() % 2 ? 0 : 4, Rng() % 3 ? 0 : MEM_FLAG_ITEM_RETRY);
      EXPECT_TRUE(r == 0 || r == 1 || r == 2);
      ELF_SYM_LOC l = Loc(Rng() % 17, Addr, Rng() % 3 ? 0 : Rng() % 17, Addr + 4, Rng() % 12);
      l.count = Rng() % 3;
      dm->ReadSymDataAsync(&Win[0], l, Rng() % 10, nullptr);
    }
    if (Round % 5 == 1) dm->CancelRequests(&Win[Rng() % 4]);
    if (Round % 7 == 3) dm->CancelMemReads();
    Idle();
  }
  EXPECT_GT(Win[1].Done, 20);
  EXPECT_EQ(Win[0].Bad + Win[1].Bad + Win[2].Bad + Win[3].Bad, 0);
  EXPECT_EQ(dm->NumPending(), 0);
  Quiet.Discard();
}

}  // namespace
