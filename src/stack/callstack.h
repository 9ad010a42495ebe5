// CCallStack: the chain of call frames of the halted target, unwound one
// frame at a time as target reads complete. There is one public stack (index
// 0, the last complete result that windows show) and the working stack it
// owns (index 1, the one being unwound); the public one is only replaced when
// an unwind finishes. Register data of both lives in one CFrameStore, which
// the debug layer resolves locations against.
#pragma once
#include "common/srcloc.h"
#include "device/listener.h"
#include "stack/framestore.h"

#include <QList>
#include <QObject>
#include <QString>
#include <functional>

// What the unwinder needs to know of the core (from the core plug-in).
struct STACK_CORE_FACTS {
  U32 registerCount = 16;
  U32 pcRegister = 15;
  U32 spRegister = 13;
  U32 returnRegister = 14;  // return column when no rule source names one
  U32 wordSize = 4;
  U32 codePtrSize = 4;
  U32 instAlign = 2;
};

enum STACK_STOP_REASONS : int {
  STACK_STOP_NONE = 0,
  STACK_STOP_NO_CFA_RULE = 1,
  STACK_STOP_NO_RA_RULE = 2,
  STACK_STOP_BP_READ = 3,
  STACK_STOP_SP_READ = 4,
  STACK_STOP_RA_READ = 5,
  STACK_STOP_SP_UNSUPPORTED = 6,
  STACK_STOP_RA_UNSUPPORTED = 7,
  STACK_STOP_PC_RANGE = 8,
  STACK_STOP_RA_RANGE = 9,
  STACK_STOP_DEPTH = 10,
};

class CCallStack : public QObject, public CDeviceEventListener {
  Q_OBJECT
 public:
  // The public stack, made on first use together with its working stack.
  static CCallStack& Instance();
  static CCallStack* InstanceIfCreated();
  // The register table of both stacks.
  static CFrameStore& Store();
  // How a memory word is read: the default posts a device job
  // (PostReadLocs); the answer must come back through CompleteRead on the
  // working stack, at once or later. Loc is one resolved part of kind 2
  // (address). An empty function restores the default.
  using READER = std::function<void(const ELF_SYM_LOC& Loc, U32 nBytes)>;
  static void SetReader(const READER& Reader);

  // Core facts and depth limit (PREF_CALLSTACK_DEPTH_LIMIT); a change
  // empties both stacks.
  void Configure(const STACK_CORE_FACTS& Facts, int DepthLimit);
  const STACK_CORE_FACTS& Facts() const;
  int DepthLimit() const;

  int StackIndex() const { return m_StackIdx; }
  CCallStack* Working() const { return m_pPartner; }

  // ---- the unwind
  // Empties the frames, the pending read and the selection.
  void Reset();
  // Frame 0 from a register record (values and known flags by register
  // number), or from the halted target's registers when none is given. False
  // without registers.
  bool Init(const std::vector<U64>* pValues = nullptr, const std::vector<U8>* pKnown = nullptr);
  // Starts a new unwind of the working stack from the public stack's frame 0.
  void Unwind();
  // Goes on with the working stack by one frame.
  void UnwindNextFrame();
  // Starts an unwind and runs it to its stop reason or the depth limit,
  // waiting for the reads with event processing, at most TimeoutMs. True
  // when it completed.
  bool UnwindAll(int TimeoutMs);
  bool IsUnwinding() const { return m_bUnwinding; }
  // True while UnwindAll drives the working stack.
  bool IsDriven() const { return m_bDriven; }
  // While a window shows the stack, every frame is unwound as soon as the
  // one below it is; otherwise an unwind ends with the caller of frame 0.
  static void SetFollowFrames(bool On);
  // Copies the working stack to the public one.
  void Finish();
  // A read of the working stack came back (HaveData false: it failed).
  void CompleteRead(const ELF_SYM_LOC& Loc, bool HaveData, U64 Value);

  // ---- frames (Stack 2 means this instance)
  CCallFrame GetFrame(int Index, int Stack = 2) const;
  CCallFrame GetTopFrame() const;
  int FrameCount() const;
  int FindFrame(ELF_SYM_HANDLE Function) const;
  bool HasFunctionFrame(U64 Pc) const;
  bool HasLocFrame(const CSrcLoc& Loc) const;
  int StopReason() const { return m_StopReason; }
  QString GetStopText() const;
  const QList<CSrcLoc>& GetFrameLocs() const { return m_Locs; }
  const QList<U64>& GetFrameAddresses() const { return m_Addresses; }
  CSrcLoc FrameSrcLoc(int Index) const;
  int SelectedFrame() const { return m_Selected; }
  void SetSelectedFrame(int Index);
  U32 LargestFrameSize() const { return m_LargestFrameSize; }
  // Memory reads of the working stack since the last call, and the time
  // from each read's start to its answer (for the benchmark).
  struct READ_STATS {
    U64 Reads = 0;
    qint64 WaitNs = 0;
  };
  READ_STATS TakeReadStats();

  // ---- frame helpers
  bool GetRegister(const CCallFrame& F, U32 Register, U64& Value) const;
  bool RegisterKnown(const CCallFrame& F, U32 Register) const;
  ELF_SYM_LOC GetRule(const CCallFrame& F, U32 Register) const;
  // Writing the PC re-derives function and inline state of the stored frame.
  void SetRegister(int Stack, int Index, U32 Register, U64 Value, U8 Status);

  // ---- texts of the window
  QString FrameFunctionText(const CCallFrame& F) const;
  QString FrameReturnText(const CCallFrame& F) const;
  QString FrameStackText(const CCallFrame& F) const;

  // ---- steps of the state machine (public for the frame-level checks)
  int Step(CCallFrame& F);
  CCallFrame CallerFrame(const CCallFrame& F);
  CCallFrame InlineCallerFrame(CCallFrame& F);
  void ComputeFrameBase(CCallFrame& F);
  bool FrameBaseValue(CCallFrame& F, U64 Fallback);

  // Device reports.
  void OnDeviceReadLocsDone(U32 Cnt, ELF_SYM_LOC* paDataLocs, U64* paVals, U8* paStatus, U64 Context) override;
  void OnDeviceReadLocsFailed(U32 Cnt, ELF_SYM_LOC* paDataLocs, U64 Context) override;
  void OnDeviceResumeDone(RESUME_MODES) override;
  void OnDeviceResetDone(U32 NewPC, RESET_MODES Mode) override;
  void OnDeviceDisconnectDone() override;
  void OnDeviceEvalBPCondition(U32 Addr) override;
  void OnDeviceHaltDone(U32 NewPC, HALT_REASONS Reason) override;
  void OnDeviceStepped(U32 NewPC) override;

 signals:
  void EvalFrameDone(int StackIdx);
  void EvalFrameFailed(int StackIdx);
  void UnwindNextFrameDone();
  void UnwindComplete();
  // The public stack's selected frame changed (a click, a halt).
  void SelectedFrameChanged(int Index);

 private:
  CCallStack(int StackIdx, CCallStack* pPartner);
  void SetReason(int Reason);
  void Keep(const CCallFrame& F);
  void DeriveFunction(CCallFrame& F) const;
  void ReadRules(CCallFrame& F);
  void StartRead(const ELF_SYM_LOC& Loc, int Kind, U32 nBytes);
  void NextFrame();
  U64 Sp(const CCallFrame& F) const;

  int m_StackIdx;
  CCallStack* m_pPartner;
  int m_Selected = 0;
  int m_StopReason = 0;
  U32 m_LargestFrameSize = 0;
  int m_PendingKind = 3;  // 0 BP, 1 CFA, 2 return address, 3 none
  ELF_SYM_LOC m_Pending{};
  I64 m_PendingAdd = 0;  // added to the value read
  U64 m_ReadSerial = 0;
  bool m_bUnwinding = false;
  bool m_bDriven = false;
  READ_STATS m_Stats;
  qint64 m_ReadStartNs = -1;
  QList<CSrcLoc> m_Locs;
  QList<U64> m_Addresses;
};

// Text of a source location, "file.c:line"; empty for the null location.
QString STACK_SrcLocText(const CSrcLoc& Loc);
