// What stands at an address of the program, without asking the target: code
// or data, the instruction's size, where it branches, and its text. A sparse
// cache of the core plug-in's analyses (one 786432-byte page per touched
// 64 KiB, entry (Addr >> 1) & 0x7FFF) filled from the program image and later
// from target memory; the mapping ranges of the program's mapping symbols.
//
// Return codes: 0 or -1 where stated; lengths and counts are >= 0.
// Lookups take no lock; the cache is rebuilt on the GUI thread only.
#pragma once
#include "common/types.h"
#include "plugins/core_plugin_api.h"

struct ELF_FILE;

struct CORE_ADDR_RANGE {
  U64 Start, End;
};

namespace Core {
// Analyses [Start, End) into the cache; the sum of the instruction sizes.
U64 AnalyzeAdd(U64 Start, U64 End, const U8* pData);
}  // namespace Core

int GetCachedInst(CORE_INST_INFO* pInfo, U32 Addr);
// The cache, else the plug-in, else a zeroed record.
void GetInstInfo(U64 Addr, CORE_INST_INFO* pInfo);
U32 GetInstSize(U64 Addr);
bool IsCallInst(U64 Addr);
int GetBranchTarget(U64 Addr, U64* pTarget);
bool IsConditionalInst(U64 Addr);
bool IsInstruction(U64 Addr);
U32 GetDataItemLen(U64 Addr);
int GetPrevInst(U64 Addr, U64* pOut);
int GetNextInst(U64 Addr, U64* pOut);
U32 GetItemLen(U64 Addr);
bool IsStraightCode(U64 Start, U64 End);
U32 ClipItemLen(U64 Addr, U32 Len);
int GetItemDisplayText(U64 Addr, char* pBuf, U32 BufSize);
int GetItemText(U64 Addr, char* pBuf);
U64 GetSafeDisasmStart(U64 PC, U8* pIsSafe);
int CountInsts(U64 Start, U64 End);
int CountInstsMulti(int Cnt, const CORE_ADDR_RANGE* paRanges);
int ListInsts(U64 Start, U64 End, int MaxItems, U64* paOut);
int AnalyzeRanges(int Cnt, const CORE_ADDR_RANGE* paRanges);
U32 GetInstTextAndLen(U64 Addr);
// The aligned display text stored by the walks; empty if none.
const char* GetCachedInstText(U64 Addr);

// Mapping range at Addr: 0 with its type (0 code, 1 data), start and end; -1 none.
int FindCodeRange(U64 Addr, U32* pType, U64* pStart = nullptr, U64* pEnd = nullptr);
void SetupCodeRanges(const ELF_FILE* hELF);
void ClearCodeRanges();
void FillInstCache();
void ClearInstCache();
// Number of pages allocated and of count-cache hits (for diagnostics).
int CORE_NumCachePages();
int CORE_NumCountHits();
// True once a branch or call of the cached code goes to Addr.
bool IsKnownBranchTarget(U32 Addr);
