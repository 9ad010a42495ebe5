// Source-level stepping on the device worker.
// (Placeholder until the steps land: every source step refuses.)
#include "device/device.h"

int CDevice::StepInto() { return -1; }
int CDevice::StepIntoSimple() { return -1; }
int CDevice::StepOver(U8) { return -1; }
int CDevice::StepOverSimple(int) { return -1; }
int CDevice::StepOut() { return -1; }
int CDevice::StepOutSimple() { return -1; }
int CDevice::CompleteSrcStepOnHiddenBP(U32) { return 0; }
