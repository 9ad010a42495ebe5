#include "device/coresupport.h"

#include <atomic>

namespace {
std::atomic<ICoreSupport*> g_pSupport{nullptr};
std::atomic<U32> g_Generation{0};
std::atomic<DEV_INST_QUERY> g_pfInstQuery{nullptr};
}  // namespace

void DEV_SetCoreSupport(ICoreSupport* pSupport) {
  g_pSupport.store(pSupport);
  g_Generation.fetch_add(1);
}

ICoreSupport* DEV_GetCoreSupport() { return g_pSupport.load(); }

U32 DEV_CoreSupportGeneration() { return g_Generation.load(); }

void DEV_SetInstQuery(DEV_INST_QUERY pfQuery) { g_pfInstQuery.store(pfQuery); }

DEV_INST_QUERY DEV_GetInstQuery() { return g_pfInstQuery.load(); }
