// The one table of probe library entry points through which CDevice reaches
// the probe. Filled from libVorden.so by name at run time; tests fill it with
// their own functions.
#pragma once
#include "device/vorden_api.h"

#include <QString>

#define VORDEN_FUNC_LIST(X)                                                                                 \
  X(VORDENARM_GetDLLVersion) X(VORDENARM_Open) X(VORDENARM_Close) X(VORDENARM_IsOpen)                       \
  X(VORDENARM_IsConnected) X(VORDENARM_Connect) X(VORDENARM_SelectUSB) X(VORDENARM_EMU_SelectByUSBSN)       \
  X(VORDENARM_SelectIP) X(VORDENARM_ExecCommand) X(VORDENARM_SetEndian) X(VORDENARM_SetCoreIndex)           \
  X(VORDENARM_TIF_Select) X(VORDENARM_ConfigJTAG) X(VORDENARM_SetSpeed) X(VORDENARM_GetSpeed)               \
  X(VORDENARM_EnableLog) X(VORDENARM_SetErrorOutHandler) X(VORDENARM_SetWarnOutHandler)                     \
  X(VORDENARM_SetLogFile) X(VORDENARM_GetSN) X(VORDENARM_GetFirmwareString) X(VORDENARM_DEVICE_GetIndex)    \
  X(VORDENARM_DEVICE_GetInfo) X(VORDENARM_Core2CoreName) X(VORDEN_GetMemZones) X(VORDEN_GetpFunc)           \
  X(VORDENARM_EMU_HasCapEx) X(VORDENARM_RAWTRACE_Control) X(VORDENARM_EnableSoftBPs)                        \
  X(VORDENARM_IsHalted) X(VORDENARM_Halt) X(VORDENARM_GoEx) X(VORDENARM_Step) X(VORDENARM_Reset)            \
  X(VORDENARM_ReadRegs) X(VORDENARM_WriteReg) X(VORDENARM_ReadReg)                                          \
  X(VORDENARM_ReadMemEx) X(VORDENARM_ReadMemU8) X(VORDENARM_ReadMemU16) X(VORDENARM_ReadMemU32)             \
  X(VORDENARM_ReadMemU64) X(VORDEN_ReadMemZonedEx) X(VORDEN_ReadMemZonedU16) X(VORDEN_ReadMemZonedU32)      \
  X(VORDENARM_WriteU8) X(VORDENARM_WriteU16) X(VORDENARM_WriteU32) X(VORDENARM_WriteU64)                    \
  X(VORDENARM_WriteMemEx) X(VORDEN_WriteZonedU16) X(VORDEN_WriteZonedU32) X(VORDEN_WriteMemZonedEx)         \
  X(VORDENARM_BeginDownload) X(VORDENARM_EndDownload) X(VORDENARM_ClrBPEx) X(VORDENARM_ClrDataEvent)         \
  X(VORDENARM_SetBPEx) X(VORDENARM_FindBP) X(VORDENARM_GetBPInfoEx) X(VORDENARM_SetDataEvent)               \
  X(VORDENARM_GetWPInfoEx) X(VORDEN_STRACE_Control) X(VORDENARM_SetResetType) X(VORDENARM_SetResetDelay)

struct VORDEN_FUNCS {
#define VORDEN_FUNC_FIELD(n) decltype(&::n) n = nullptr;
  VORDEN_FUNC_LIST(VORDEN_FUNC_FIELD)
#undef VORDEN_FUNC_FIELD
};

// Loads the probe library file and resolves every entry of the table. On
// failure returns false with the reason in *psError and leaves *pFuncs empty.
bool VORDEN_LoadLibrary(const QString& sPath, VORDEN_FUNCS* pFuncs, QString* psError);
// The probe library of the install tree: libVorden.so beside the program.
QString VORDEN_DefaultLibraryPath();
