// The data channels of the simulated target: the LVT terminal in target RAM,
// the SWO stimulus ports fed by the ITM, high speed sampling of memory
// blocks and the supply current model. Sampling and power are timed events
// of target time, serviced by the emulation thread.
#pragma once

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "backend.h"
#include "sim/sim_core.h"
#include "sim/sim_memory.h"
#include "sim/sim_system.h"

namespace vorden {

class CSimChannels : public ITerminalBackend, public ISamplingBackend, public IPowerBackend {
 public:
  CSimChannels(const DeviceDesc& Dev, const CSimMemory& Mem, CSimSystem& Sys, ISimCore& Core);
  ~CSimChannels() override;

  int LVTControl(U32 Cmd) override;
  int LVTRead(U32 BufIdx, U8* pData, U32 NumBytes) override;
  int LVTWrite(U32 BufIdx, const U8* pData, U32 NumBytes) override;
  int SWOEnable(U32 PortMask) override;
  int SWODisable(U32 PortMask) override;
  int SWORead(int Port, U8* pData, U32 NumBytes) override;
  int SWOFlush(U32 NumBytes) override;
  int SWOCount() override;
  int HSSStart(const VORDEN_HSS_MEM_BLOCK_DESC* paDesc, int NumBlocks, int PeriodUs) override;
  int HSSStop() override;
  int HSSRead(U8* pBuffer, U32 BufferSize) override;
  int PowerControl(int Cmd, void* pIn, void* pOut) override;
  int PowerRead(VORDEN_POWERTRACE_DATA_ITEM* paData, U32 NumItems) override;

  // A stimulus port write of the ITM (Size bytes of V).
  void SwoPut(U32 Port, U32 V, unsigned Size);
  bool SupplyOn() const { return m_supplyOn; }

  // Timed events: the next cycle that needs Service, and the service itself.
  U64 NextEvent();
  void Service(U64 Cycle);

  // "SupplyPower", "SetLVTAddr", "SetLVTSearchRanges", "SimPowerLog";
  // false if the name is not one of them.
  bool ExecCommand(const std::string& sName, const std::string& sValue, std::string& sError);

 private:
  struct HSSBlock {
    U32 Addr, NumBytes;
  };
  bool LVTFind();
  void HSSSample(U64 Cycle);
  U32 PowerValue();
  void PowerSample(U64 Cycle);

  const DeviceDesc& m_dev;
  const CSimMemory& m_mem;
  CSimSystem& m_sys;
  ISimCore& m_core;
  std::mutex m_dataMx;  // guards everything below (the on flags are also read without it)

  // SWO.
  U32 m_swoPortMask = 0;
  std::vector<std::vector<U8>> m_swo{32};
  int m_swoLastPort = 0;
  // LVT.
  bool m_lvtStarted = false;
  U32 m_lvtAddr = 0xFFFFFFFF;  // configured address
  U32 m_lvtFound = 0xFFFFFFFF;
  std::vector<std::pair<U32, U32>> m_lvtRanges;
  // HSS.
  std::atomic<bool> m_hssOn{false};
  std::vector<HSSBlock> m_hssBlocks;
  U64 m_hssPeriod = 0, m_hssNext = ~0ull;
  std::vector<U8> m_hssBuf;
  // Power.
  std::atomic<bool> m_powerOn{false};
  bool m_powerHighRes = false;
  std::atomic<bool> m_supplyOn{true};
  U32 m_powerFreq = 1000;
  U64 m_powerNext = ~0ull;
  double m_powerStep = 0, m_powerAcc = 0;
  std::vector<VORDEN_POWERTRACE_DATA_ITEM> m_powerBuf;
  U32 m_noise = 12345;
  FILE* m_powerLog = nullptr;
};

}  // namespace vorden
