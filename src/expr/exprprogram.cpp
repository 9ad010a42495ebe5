#include "expr/exprprogram.h"

#include <atomic>

namespace {
std::atomic<const CExprProgramInfo*> g_pProgramInfo{nullptr};
}

void EXPR_SetProgramInfo(const CExprProgramInfo* pInfo) { g_pProgramInfo.store(pInfo); }

const CExprProgramInfo* EXPR_GetProgramInfo() { return g_pProgramInfo.load(); }
