// CDapAdapter: the Debug Adapter Protocol requests in terms of this
// program. Every request that acts ends in a console command (the same text
// a user would type, echoed the same way) or in a model the windows read:
// the call stack's, the symbol service, the instruction cache, the device's
// synchronous memory access. Halts come back as stopped events through the
// device's reports; console lines go out as output events.
#pragma once
#include "dap/dapdispatch.h"
#include "device/listener.h"

#include <QHash>
#include <QJsonArray>
#include <QObject>
#include <QSet>
#include <memory>

class CSymbol;

class CDapAdapter : public QObject, public CDeviceEventListener {
  Q_OBJECT
 public:
  // The run state as the client sees it.
  enum DAP_STATE : int {
    DAP_IDLE = 0,      // no session yet
    DAP_LAUNCHED = 1,  // program and target chosen, waiting for configurationDone
    DAP_STOPPED = 2,   // halted, stopped event sent
    DAP_RUNNING = 3,   // resumed, waiting for a halt
    DAP_ENDED = 4,     // terminated
  };
  explicit CDapAdapter(CDapDispatcher* pDispatcher, QObject* pParent = nullptr);
  ~CDapAdapter() override;
  DAP_STATE State() const { return m_State; }
  // Sends what the console ring holds as output events.
  void DrainConsole();
  // The client went away (end of input): the session ends as on disconnect.
  void OnClientGone();

 signals:
  // The adapter is done (disconnect, or the client went away).
  void Finished();

 public:
  void OnDeviceHaltDone(U32 NewPC, HALT_REASONS Reason) override;
  void OnDeviceStepped(U32 NewPC) override;
  void OnDeviceStepInstDone(U32 NewPC) override { OnDeviceStepped(NewPC); }
  void OnDeviceStepOverDone(U32 NewPC) override { OnDeviceStepped(NewPC); }
  void OnDeviceStepIntoDone(U32 NewPC) override { OnDeviceStepped(NewPC); }
  void OnDeviceStepOutDone(U32 NewPC) override { OnDeviceStepped(NewPC); }
  void OnDeviceResumeDone(RESUME_MODES Mode) override;
  void OnDeviceConnectionLost() override;

  // One console command as typed: its echo and output go to the client,
  // its error word becomes the failure text. Waits for the command's device
  // jobs, not for a halt. Public for the benchmark.
  DAP_REPLY RunCommand(const QString& sLine, I64* pResult = nullptr);

 private:
  // Handlers (dapadapter.cpp: session and run control).
  DAP_REPLY Initialize(const QJsonObject& a);
  DAP_REPLY Launch(const QJsonObject& a, bool Attach);
  DAP_REPLY ConfigurationDone(const QJsonObject& a);
  DAP_REPLY Threads(const QJsonObject& a);
  DAP_REPLY StackTrace(const QJsonObject& a);
  DAP_REPLY Resume(const QString& sCommand, const QString& sReason, const QJsonObject& a);
  DAP_REPLY Pause(const QJsonObject& a);
  DAP_REPLY Restart(const QJsonObject& a);
  DAP_REPLY Terminate(const QJsonObject& a);
  DAP_REPLY Disconnect(const QJsonObject& a);
  // Handlers (dapbreak.cpp: breakpoints of all kinds).
  DAP_REPLY SetBreakpoints(const QJsonObject& a);
  DAP_REPLY SetFunctionBreakpoints(const QJsonObject& a);
  DAP_REPLY SetInstructionBreakpoints(const QJsonObject& a);
  DAP_REPLY DataBreakpointInfo(const QJsonObject& a);
  DAP_REPLY SetDataBreakpoints(const QJsonObject& a);
  // Handlers (dapdata.cpp: values, memory, instructions).
  DAP_REPLY Scopes(const QJsonObject& a);
  DAP_REPLY Variables(const QJsonObject& a);
  DAP_REPLY SetVariable(const QJsonObject& a);
  DAP_REPLY Evaluate(const QJsonObject& a);
  DAP_REPLY Disassemble(const QJsonObject& a);
  DAP_REPLY ReadMemory(const QJsonObject& a);
  DAP_REPLY WriteMemory(const QJsonObject& a);

  // Start of the session after configuration: connect, download, reset and
  // the stop at entry or at the break symbol.
  DAP_REPLY StartSession();
  // Waits while the session still handles a resume, start or halt.
  bool WaitSessionIdle(int TimeoutMs);
  void AfterStart();
  void CheckStopped();
  void SendStopped(const QString& sReason);
  void EndSession(bool SendTerminated);
  // Checks common to requests that need a halted target.
  QString HaltedError() const;
  // A breakpoint of the given kind (its location text) with condition, hit
  // count and log message applied through Break.Edit.
  QJsonObject ApplyBreakpoint(const QString& sLocation, const QJsonObject& Bp, int Line);
  void ClearBreakpoints(QSet<QString>* pSet);
  bool IsLogPoint(U32 Pc) const;

  // Variables references: a scope of a frame or a symbol's children.
  struct VAR_REF {
    int Kind = 0;  // 1 locals, 2 registers, 3 globals, 4 children of a symbol
    int Frame = 0;
    std::shared_ptr<CSymbol> pRoot;  // keeps the tree alive
    CSymbol* pSym = nullptr;
  };
  int AddRef(const VAR_REF& r);
  QJsonObject VariableOf(const QString& sName, CSymbol* pSym, const std::shared_ptr<CSymbol>& pRoot);
  void ForgetRefs();

  CDapDispatcher* m_pDisp;
  DAP_STATE m_State = DAP_IDLE;
  QJsonObject m_LaunchArgs;
  bool m_bAttach = false;
  bool m_bLinesStartAt1 = true;
  QString m_sPendingReason;  // reason of the next stop, set by the request that resumed
  bool m_bCheckQueued = false;
  bool m_bStopReported = false;
  bool m_bAwaitRunTo = false;  // a restart waits for the halt of its run to the break symbol  // a halt or step report came since the client resumed
  bool m_bEnded = false;
  QHash<QString, QSet<QString>> m_SourceBps;  // file -> location texts set by setBreakpoints
  QSet<QString> m_FunctionBps, m_InstructionBps;
  QSet<QString> m_DataBps;                   // Break.SetOnData argument lists
  QSet<QString> m_LogMessages;               // messages of the client's log points
  QHash<int, VAR_REF> m_Refs;
  QList<std::shared_ptr<CSymbol>> m_Keep;
  int m_NextRef = 1;
};
