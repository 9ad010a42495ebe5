// The call stack's frame store made reachable through the installed target
// access: a wrapper that answers GetFrameStore with the store and passes
// everything else on to the access it wraps.
#pragma once

class ICallFrameStore;

// Wraps the installed target access once, unless that one already hands out
// a frame store.
void STACK_InstallTargetAccess(ICallFrameStore* pStore);
