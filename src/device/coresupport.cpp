#include "device/coresupport.h"

#include <atomic>

namespace {
std::atomic<ICoreSupport*> g_pSupport{nullptr};
std::atomic<U32> g_Generation{0};
}  // namespace

void DEV_SetCoreSupport(ICoreSupport* pSupport) {
  g_pSupport.store(pSupport);
  g_Generation.fetch_add(1);
}

ICoreSupport* DEV_GetCoreSupport() { return g_pSupport.load(); }

U32 DEV_CoreSupportGeneration() { return g_Generation.load(); }
