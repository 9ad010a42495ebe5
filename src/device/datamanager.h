// CDeviceDataManager: the symbol data cache between the windows (and the
// debug layer's synchronous readers) and the probe. Memory, registers and
// coprocessor registers are cached with a status per item; an asker gets the
// data at once when it is known, otherwise it is queued, one read is
// scheduled for what nobody has asked for yet, and the asker is called back
// through its ordinary device report when the data has come. While the
// target stays halted each byte and register is read at most once.
//
// Everything here runs on the GUI thread; completion arrives through the
// device event delivery (the read reports go to this object alone).
#pragma once
#include "common/types.h"
#include "device/listener.h"

#include <QByteArray>
#include <memory>
#include <vector>

// Status of a cached item.
enum CACHE_STATUS : U8 { CACHE_VALID = 0, CACHE_UNREADABLE = 1, CACHE_PENDING = 2, CACHE_INVALID = 3 };

// Read flag of ReadMemAsync beside the memory flags of the device: skip the cache.
constexpr U32 DM_FLAG_BYPASS_CACHE = 4;

constexpr int DM_MAX_ZONES = 16;
constexpr int DM_CP_RING_SIZE = 100;
constexpr U32 DM_MAX_DIRECT_READ = 5000;
constexpr U32 DM_MAX_SHARED_REG_IDXS = 255;  // a request counts them in a byte
constexpr int DM_REG_WAIT_MS = 150;

// Registers of a task other than the running one (thread awareness installs
// it). While OtherTaskSelected() holds, register pieces of symbol data are
// read from here instead of from the register cache.
class ITaskRegisterSource {
 public:
  virtual ~ITaskRegisterSource() = default;
  virtual bool OtherTaskSelected() const = 0;
  // The register (core number) in the selected task's top frame; false when unknown.
  virtual bool GetRegister(U32 CoreReg, U64& Value) const = 0;
};

class CDeviceDataManager : public CDeviceEventListener {
 public:
  // The process-wide object, made on first use.
  static CDeviceDataManager& Instance();
  static CDeviceDataManager* InstanceIfCreated();

  // Two statuses merged: equal stays, else the worse of 3 > 2 > 1 > 0.
  static U8 MergeStatus(U8 a, U8 b);
  // djb2 over a register name; 0 for none.
  static U32 NameHash(const char* sName);

  // ---- symbol data (at most 8 bytes; a location of one or two pieces)
  // Synchronous: -1 above 8 bytes, else 0 when all was read, 1 otherwise.
  int ReadSymData(const ELF_SYM_LOC& Loc, U32 nBytes, const char* sZone, U8* pOut);
  // 0 (called back already), 2 (callback follows) or 1 (refused).
  int ReadSymDataAsync(CDeviceEventListener* pListener, const ELF_SYM_LOC& Loc, U32 nBytes, const char* sZone);
  // 0 when every input byte was scheduled for writing, else -1.
  int WriteSymDataAsync(const ELF_SYM_LOC& Loc, U32 nBytes, const U8* pData, const char* sZone);

  // ---- memory and registers
  // Results: 0 or 1 called back already (1 also: refused, target not
  // accessible), 2 callback follows.
  int ReadMemAsync(CDeviceEventListener* pListener, U32 Addr, U32 nBytes, const char* sZone, U32 ChunkSize, I8 AW,
                   U32 Flags);
  // The probe register indexes stand in SharedRegIdxs()[0..Cnt-1].
  int ReadRegsAsync(CDeviceEventListener* pListener, U32 Cnt);
  U32* SharedRegIdxs() { return m_aSharedRegIdxs; }
  int ReadCPRegAsync(CDeviceEventListener* pListener, const char* sReg);
  // Waits up to 150 ms for the register: 0 value valid, 1 unreadable, not
  // halted or timed out.
  int ReadRegSync(CDeviceEventListener* pListener, U32 RegIdx, U64* pValue);
  // For synchronous readers inside an evaluation (the debug layer): from the
  // cache, else read at once on this thread and kept; no events are
  // delivered meanwhile. 0 valid, 1 unreadable or not halted.
  int ReadRegNow(U32 RegIdx, U64* pValue);
  int WriteRegAsync(U32 RegIdx, U64 Value);
  int WriteMemAsync(U32 Addr, U32 nBytes, const U8* pData, U32 ChunkSize, I8 AW, U32 Flags, const char* sZone);
  int WriteMemMultipleAsync(U32 Cnt, const U32* paAddrRanges, U32 NumBytes, const U8* pData, U32 ChunkSize, I8 AW,
                            U32 Flags, const char* sZone);
  // Straight to the probe, no cache: 0 read, 1 failed or nBytes not 1..5000.
  int ReadMemDirect(U32 Addr, U32 nBytes, U8* pOut);
  // Synchronous read for the debug layer and scripts. Halted: from the cache,
  // the holes read at once (and kept); otherwise straight from the target.
  // Fills paData and paStatus (0 read, 1 failed); returns the merged status
  // (0 or 1), -1 when the target cannot be reached or the range wraps.
  int ReadMemSync(U32 Addr, U32 nBytes, const char* sZone, U8* paData, U8* paStatus);

  // A memory window scrolls: other listeners' memory requests are dropped
  // with their bytes made invalid, and queued memory reads are cancelled.
  void CancelMemReads();
  // A window closes: its requests go, what they had marked pending is invalid.
  void CancelRequests(CDeviceEventListener* pListener);

  // The hook of thread awareness (not owned; nullptr removes it).
  void SetTaskRegisterSource(ITaskRegisterSource* p) { m_pTaskRegs = p; }

  // ---- state, for readers and tests
  // Merged status of a range (3 when nothing is cached); copies the bytes
  // when pData is given. A zone beyond the sixteenth has no cache: 3.
  U8 MemStatus(U32 Addr, U32 nBytes, const char* sZone, U8* pData = nullptr);
  // Status of a probe register; 1 beyond the register cache.
  U8 RegStatus(U32 Idx, U64* pValue = nullptr);
  U8 CPRegStatus(const char* sReg, U64* pValue = nullptr) const;
  U32 NumCachedRegs();
  int NumPending() const { return int(m_Pending.size()); }
  int NumZones() const { return int(m_Zones.size()); }
  // Bytes of the memory reads scheduled so far.
  U64 BytesScheduled() const { return m_BytesScheduled; }
  // Forgets every cached item (memory pages stay, with status 3).
  void ClearCaches();
  // The zone a read goes to: a named zone stands; without one, the
  // running-state zone while connected and running; else the default ("").
  static QByteArray ResolveZone(const char* sZone);

  // ---- completion and invalidation
  void OnDeviceReadMemDone(U32 Addr, U32 nBytes, const char* sZone, U8* paData, U8* paStatus) override;
  void OnDeviceReadMemFailed(U32 Addr, U32 nBytes, const char* sZone) override;
  void OnDeviceReadRegDone(U32 Idx, U64 Value) override;
  void OnDeviceReadRegFailed(U32 Idx) override;
  void OnDeviceReadRegsDone(U32 Cnt, U32* paIdxs, U64* paVals, U8* paStatus) override;
  void OnDeviceReadRegsFailed(U32 Cnt, U32* paIdxs) override;
  void OnDeviceReadCPRegDone(const char* sReg, U64 Value) override;
  void OnDeviceReadCPRegFailed(const char* sReg) override;
  void OnDeviceSetTargetExecStateDone(U64 PC, U64 SP) override;
  void OnDeviceConnectDone(CONNECT_MODES) override;
  void OnDeviceDisconnectDone() override;
  void OnDeviceConnectionLost() override;
  void OnDeviceHaltDone(U32 NewPC, HALT_REASONS) override;
  void OnDeviceResumeDone(RESUME_MODES) override;
  void OnDeviceStepped(U32 NewPC) override;
  void OnDeviceResetDone(U32 NewPC, RESET_MODES) override;
  void OnDeviceWriteMemDone(U32 Addr, U32 nBytes, U8*) override;
  void OnDeviceWriteMemFailed(U32 Addr, U32 nBytes, U8*) override;
  void OnDeviceWriteMemMultipleDone(U32 Cnt, U32* paAddrRanges, U8*) override;
  void OnDeviceWriteRegDone(U32 Idx, U64) override;
  void OnDeviceWriteRegFailed(U32 Idx) override;
  void OnDeviceWriteCPRegDone(const char* sReg, U64) override;

  ~CDeviceDataManager() override;

 private:
  CDeviceDataManager();
  struct ZONE_CACHE;
  struct REQUEST {
    U32 Kind;  // 0 memory, 1 registers, 2 coprocessor register, 3 symbol data
    QByteArray Payload;
    CDeviceEventListener* pListener;
  };
  struct CP_ENTRY {
    U64 Value;
    U32 Hash;
    U8 Status;
  };

  // Memory cache (datamanager.cpp).
  ZONE_CACHE* Zone(const QByteArray& sZone, bool Create);
  U8 RangeStatus(ZONE_CACHE* z, U32 Addr, U32 nBytes, U8* pData, U8* pStatus);
  void SetRangeStatus(ZONE_CACHE* z, U32 Addr, U32 nBytes, U8 Status);
  void StoreRange(ZONE_CACHE* z, U32 Addr, U32 nBytes, const U8* pData, const U8* pStatus);
  void StoreRead(ZONE_CACHE* z, U32 Addr, U32 nBytes, const U8* pData, const U8* pStatus);
  U8 ReadValue(ZONE_CACHE* z, U32 Addr, U32 nBytes, U8* pOut);
  int ReadUncached(U32 Addr, U32 nBytes, U32 ChunkSize, I8 AW, U32 Flags, const QByteArray& sZone);
  // Register caches.
  void EnsureRegCache();
  void SetRegStatus(U32 Idx, U8 Status);
  void StoreReg(U32 Idx, U64 Value, U8 Status);
  int ScheduleRegReads(U32 Cnt, const U32* paIdx);
  int WaitSettled(U32 RegIdx);
  int CPFind(U32 Hash) const;
  void CPStore(U32 Hash, U64 Value, U8 Status);
  // Pending requests.
  bool AddRequest(U32 Kind, const QByteArray& Payload, CDeviceEventListener* pListener);
  void Serve(U32 Kind);
  bool TryServe(const REQUEST& r);
  void DropPending();
  void InvalidateRequest(const REQUEST& r);
  // Symbol data (datamanager_sym.cpp).
  int ReadSymDataCached(CDeviceEventListener* pListener, const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone,
                        U8* pOut);
  U8 ReadSymDataFromCache(const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone, U8* pBuf, U32 BufSize);
  U8 ReadSymDataFromTarget(const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone, U8* pOut);
  void UpdateCache(U8 Status, const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone, const U8* pData);
  void InvalidateCache(const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone);
  int ReadUncachedSymDataAsync(const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone);
  static QByteArray SymPayload(const ELF_SYM_LOC& Loc, U32 nBytes, const QByteArray& sZone);
  // Straight from the probe on this thread, outside the job queues; status
  // bytes 0 read, 1 failed.
  static void DirectRead(U32 Addr, U32 nBytes, const QByteArray& sZone, U8* pData, U8* pStatus);

  std::vector<std::unique_ptr<ZONE_CACHE>> m_Zones;
  bool m_bBigEndian = false;
  std::vector<U64> m_aRegVal;
  std::vector<U8> m_aRegStatus;
  U32 m_RegGeneration = ~0u;
  CP_ENTRY m_aCP[DM_CP_RING_SIZE] = {};
  int m_CPFilled = 0, m_CPNext = 0;
  std::vector<REQUEST> m_Pending;
  // The lists being served (callbacks may serve again, nested): cancelling
  // and the duplicate check reach them too.
  std::vector<std::vector<REQUEST>*> m_Walks;
  U32 m_aSharedRegIdxs[DM_MAX_SHARED_REG_IDXS] = {};
  ITaskRegisterSource* m_pTaskRegs = nullptr;
  U64 m_BytesScheduled = 0;
};
