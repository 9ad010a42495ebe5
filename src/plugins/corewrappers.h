// Thin wrappers over the slots of the loaded core plug-in. Each tests its
// slot and gives the fallback when there is no plug-in or no function:
// register index -1, modes and flags 0, texts empty, -1 for everything that
// would need the plug-in's answer. Text and analysis results live in static
// buffers, one set for the GUI thread and one for every other thread; they
// are for immediate use.
#pragma once
#include "common/types.h"
#include "plugins/core_plugin_api.h"

int CORE_ReadReg(U32 Idx, U64* pValue);
int CORE_ReadRegs(U32 Cnt, const U32* paIdx, U64* paValues, U8* paStatus);
int CORE_WriteReg(U32 Idx, U64 Value);
// Without the function: value 0 and success; a failure sets the value to -1.
int CORE_ReadCPReg(const char* sName, U64* pValue);
int CORE_WriteCPReg(const char* sName, U64 Value);
U32 CORE_GetCPUMode();
U32 CORE_GetExecMode();
U32 CORE_GetBPFlags(U32 Addr);
// CORE_UNWIND_FILLED / CORE_UNWIND_USE_CFI, below 0 none (also without it).
int CORE_UnwindFrame(const void* pFrameEntry, CORE_FRAME_RECORD* pRec);
// The analysis of one instruction; null when there is none (no plug-in,
// no instruction there, or failure). *pResult (optional) takes the result.
const CORE_INST_INFO* CORE_AnalyzeInst(U64 Addr, int* pResult = nullptr);
// While set, the plug-in's reads of [Start, End) see pData instead of the
// program image or the target (the bytes an analysis is asked to decode);
// a null pData clears it. GUI thread.
void CORE_SetReadOverlay(U64 Start, U64 End, const U8* pData);
int CORE_GetRegIndex(U32 CoreRegIdx);
const char* CORE_GetModeName(U32 Mode);
const char* CORE_GetCoreName(U32 Core);
const char* CORE_GetRegisterFile(U32 Core);
const char* CORE_GetPeripheralFile(U32 Core);
const char* CORE_GetFrameInfoText(const void* pFrameEntry);
// The four texts of an instruction or data item: the text, or null on failure;
// *pUsed (optional) the bytes it covers.
const char* CORE_GetInstText(U64 Addr, U32 Size, int* pUsed = nullptr);
const char* CORE_GetInstDisplayText(U64 Addr, U32 Size, int* pUsed = nullptr);
const char* CORE_GetDataText(U64 Addr, U32 Size, int* pUsed = nullptr);
const char* CORE_GetDataDisplayText(U64 Addr, U32 Size, int* pUsed = nullptr);
// Empty when mapping symbols do not exist for this core.
const char* CORE_GetMappingSymPrefix();
// 0 if sName is a mapping symbol; *pType 1 marks data. Description text in
// *psDesc (optional).
int CORE_ParseMappingSym(const char* sName, U32* pType, const char** psDesc = nullptr);
int CORE_GetELFByteOrder(const void* pHeader52, U32* pDataEndian, U32* pInstEndian);
// 0 fits, non-zero does not; 0 without the function.
int CORE_CheckELFFile(const void* pHeader52);
int CORE_OnConnected();
int CORE_OnAboutToDisconnect();
// -1 without the function (the caller then sets PC and SP itself).
int CORE_SetDefaultExecState();
int CORE_OnTargetHalted();
int CORE_OnAboutToResume();
int CORE_InitSemihosting(const char* sCmdLine);
int CORE_DeinitSemihosting();
// 0 no semihosting stop, 1 an operation is asked for, 2 handled; any other
// answer of the plug-in logs the invalid-result message and gives -1.
int CORE_HandleSemihosting(U32 PC, U32* pOpCode, U64* pOperandAddr);
int CORE_CompleteSemihosting(U64 Result);
// The plug-in's body text of a script function, or null.
const char* CORE_GetDefaultScriptBody(U32 FuncId);
