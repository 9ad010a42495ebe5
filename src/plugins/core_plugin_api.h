/*
 * Binary contract between Tavit and a target core plug-in.
 *
 * A core plug-in is a shared library with four C exports:
 *   int  CORE_PLUGIN_GetAPI(void* pAPI, U32 Size);        fills CORE_PLUGIN_API, Size 320
 *   int  CORE_PLUGIN_SetAPI(const void* pHostAPI, U32 Size); takes CORE_HOST_API, Size 56
 *   U32  CORE_PLUGIN_GetVersion(void);                     e.g. 10000 for 1.00.00
 *   const char* CORE_PLUGIN_GetName(void);
 * A non-zero result of GetAPI/SetAPI means "incompatible".
 *
 * Everything here is plain C with fixed layouts (checked by static asserts on
 * 64-bit hosts); both the application and the plug-ins include this file.
 *
 * ---------------------------------------------------------------------------
 * Instruction text format (GetInstText / GetInstDisplayText)
 *
 *   "<mnemonic>\t<operands>"                 or just "<mnemonic>" without operands
 *   "<mnemonic>\t<operands>\t; [0xAAAAAAAA] = 0xVVVVVVVV"   for a literal load
 *                                            (CORE_INST_LITERAL): literal address
 *                                            and the 32-bit word read there in
 *                                            the data byte order (value
 *                                            "????????" when unreadable)
 *   - mnemonic in lower case, including condition and width suffixes
 *     ("bne.w", "ldr.w", "moveq", "vadd.f32");
 *   - core registers as R0..R12, SP, LR, PC (upper case); other register
 *     names (s0, d1, primask, apsr_nzcvq, ...) in lower case;
 *   - immediates as "#<n>" with n decimal when below 10, else "#0x<hex>"
 *     in lower case; negative offsets as "#-<n>"/"#-0x<hex>"; a modified
 *     immediate of all ones reads "#-1"; branch and address targets (b, bl,
 *     cbz, cbnz, and adr for every PC-relative address form) as an absolute
 *     "0x%08X" without "#";
 *   - mov r8, r8 (the ARMv6-M padding) reads "nop";
 *   - the display text is the same text; callers expand the tabs.
 *   The result of both functions is the number of instruction bytes that the
 *   text covers (the instruction size), below 1 on failure.
 *
 * Data text format (GetDataText / GetDataDisplayText):
 *   "DC8\t0xNN", "DC16\t0xNNNN", "DC32\t0xNNNNNNNN", "DC64\t0xNNNNNNNNNNNNNNNN"
 *   in the data byte order; other sizes up to 8 give "DC8\t0xNN, 0xNN, ...".
 *   Result: the item's size in bytes.
 * ---------------------------------------------------------------------------
 */
#ifndef TAVIT_CORE_PLUGIN_API_H
#define TAVIT_CORE_PLUGIN_API_H

#include "common/types.h"
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Configuration handed to Init and Reconfigure; 2060 bytes. */
typedef struct CORE_CONFIG {
  U32  Core;              /* core id of the device; top 8 bits: core family */
  U32  InstEndian;        /* 0 little, 1 big */
  U32  DataEndian;        /* 0 little, 1 big */
  char acFilePath[2048];  /* path of the plug-in file, zero-terminated */
} CORE_CONFIG;

/* Static description of the core; 104 bytes. */
typedef struct CORE_STATIC_INFO {
  U32 AddrSize;          /*  0 */
  U32 NumRegs;           /*  4 */
  U32 RegSize;           /*  8 */
  U32 PCSize;            /* 12 */
  U32 SPSize;            /* 16 */
  U8  aReserved0[36];    /* 20..55, not used by the host */
  U32 InstAlign;         /* 56 */
  U32 MinInstLen;        /* 60 */
  U32 MaxInstLen;        /* 64 */
  U32 MaxMnemonicLen;    /* 68 */
  U32 NumProbeRegs;      /* 72 */
  U32 MaxUnwindRegIdx;   /* 76 */
  U32 SPIdx;             /* 80 */
  U32 LRIdx;             /* 84 */
  U32 PCIdx;             /* 88 */
  U32 RAIdx;             /* 92 */
  U32 CFAIdx;            /* 96 */
  U8  aReserved1[4];     /* 100 */
} CORE_STATIC_INFO;

/* Result of one instruction analysis; 24 bytes. */
typedef struct CORE_INST_INFO {
  U32 Addr;
  U32 Size;     /* bytes; 0 = nothing valid here */
  U64 Target;   /* branch/call destination, or literal address with CORE_INST_LITERAL */
  U64 Flags;    /* CORE_INST_* */
} CORE_INST_INFO;

/* Flag bits of CORE_INST_INFO.Flags. */
#define CORE_INST_CTRL_TRANSFER  (1ull << 0)   /* writes the PC (branch, call, return, table branch) */
#define CORE_INST_DIRECT         (1ull << 2)   /* direct target that the text names (b, bl, cbz, cbnz) */
#define CORE_INST_CALL           (1ull << 3)   /* a control transfer that returns (bl, blx) */
#define CORE_INST_RETURN         (1ull << 4)   /* a return (set together with CORE_INST_LEAVES) */
#define CORE_INST_LITERAL        (1ull << 5)   /* Target is the address of a literal: a PC-relative
                                                  load, or a load whose base register an ADR set in
                                                  the 8 bytes before it (moved literal) */
#define CORE_INST_TARGET_KNOWN   (1ull << 6)   /* Target holds a known destination */
#define CORE_INST_LEAVES         (1ull << 8)   /* leaves the function (return class) */
#define CORE_INST_NOP            (1ull << 9)   /* padding that a backward scan steps over */
#define CORE_INST_CONDITIONAL    (1ull << 10)  /* conditional, including members of an IT block */
#define CORE_INST_BREAK          (1ull << 63)  /* a break instruction (BKPT) */

/* ---------------------------------------------------------------------------
 * Frame unwinding for code without call frame information (slot 13).
 *
 * int UnwindFrame(const void* pFrameEntry, CORE_FRAME_RECORD* pRec)
 *   pFrameEntry: the host's frame table entry, opaque to the plug-in.
 *   The caller fills RAIdx, FrameIdx, paLocs (the host's own location rows,
 *   which this plug-in leaves untouched), PC, SP and, when it knows it,
 *   FuncStart (0 = unknown), and points paRules at NumRules entries (one per
 *   core register index 0..NumRules-1, at least CFAIdx + 1).
 *   Result convention (the stack unwinder's reading):
 *     CORE_UNWIND_FILLED  (0): the plug-in filled paRules itself and set RAIdx
 *                              to the register that holds the return address
 *                              rule; the host converts the rules to its rows;
 *     CORE_UNWIND_USE_CFI (1): the plug-in defers to call frame information;
 *     below 0:                no result (nothing could be found).
 *   GetFrameInfoText (slot 20) takes the same CORE_FRAME_RECORD after the
 *   call as its frame table entry and describes Method.
 *   Note that a host wrapper that supplies the fallback for a missing slot
 *   must therefore answer -1, not 0.
 *
 * Rules: the CFA row (CFAIdx) is CORE_RULE_REG_OFFSET (CFA = value of Reg +
 * Offset). Other rows: CORE_RULE_SAME (unchanged in the caller),
 * CORE_RULE_AT_CFA (saved at CFA + Offset), CORE_RULE_REG (caller's value is
 * the value of register Reg in this frame), CORE_RULE_UNDEFINED.
 * ------------------------------------------------------------------------- */
#define CORE_UNWIND_FILLED  0
#define CORE_UNWIND_USE_CFI 1

#define CORE_RULE_UNDEFINED  0
#define CORE_RULE_SAME       1
#define CORE_RULE_AT_CFA     2
#define CORE_RULE_REG        3
#define CORE_RULE_REG_OFFSET 4

typedef struct CORE_UNWIND_RULE {
  U32 Kind;    /* CORE_RULE_* */
  U32 Reg;     /* register for CORE_RULE_REG / CORE_RULE_REG_OFFSET */
  I64 Offset;
} CORE_UNWIND_RULE;

typedef struct CORE_FRAME_RECORD {
  U32 RAIdx;                  /* in/out: return address register index */
  U32 FrameIdx;               /* in: frame number, 0 = innermost */
  void* paLocs;               /* in: host's location rows; not touched here */
  U64 PC;                     /* in: PC of the frame */
  U64 SP;                     /* in: SP of the frame */
  U64 FuncStart;              /* in: start of the function, 0 = unknown */
  U32 NumRules;               /* in: entries of paRules */
  U32 Method;                 /* out: CORE_UNWIND_METHOD_* */
  CORE_UNWIND_RULE* paRules;  /* out */
} CORE_FRAME_RECORD;

#define CORE_UNWIND_METHOD_NONE     0
#define CORE_UNWIND_METHOD_LEAF     1  /* no frame set up yet: return address in LR */
#define CORE_UNWIND_METHOD_PROLOGUE 2  /* found by scanning the prologue */

/* Plug-in table, 40 slots, 320 bytes on a 64-bit host. */
typedef struct CORE_PLUGIN_API {
  int  (*pfInit)(const CORE_CONFIG* pConfig);                                   /*  0 */
  void* pReserved1;                                                             /*  1 */
  int  (*pfReconfigure)(const CORE_CONFIG* pConfig);                            /*  2 */
  int  (*pfReadReg)(U32 Idx, U32 Size, U64* pValue);                            /*  3 */
  int  (*pfReadRegs)(U32 Cnt, const U32* paIdx, U32 Size, U64* paValues, U8* paStatus); /* 4 */
  int  (*pfWriteReg)(U32 Idx, U32 Size, const U64* pValue);                     /*  5 */
  int  (*pfReadCPReg)(const char* sName, U32 Size, U64* pValue);                /*  6 */
  int  (*pfWriteCPReg)(const char* sName, U32 Size, const U64* pValue);         /*  7 */
  void* pReserved8;                                                             /*  8 */
  int  (*pfGetStaticInfo)(CORE_STATIC_INFO* pInfo, U32 Size);                   /*  9 */
  int  (*pfGetCPUMode)(U32* pMode);                                             /* 10 */
  int  (*pfGetExecMode)(U32* pMode);                                            /* 11 */
  U32  (*pfGetBPFlags)(U32 Addr);                                               /* 12 */
  int  (*pfUnwindFrame)(const void* pFrameEntry, CORE_FRAME_RECORD* pRec); /* 13 */
  int  (*pfAnalyzeInst)(U64 Addr, CORE_INST_INFO* pInfo);                       /* 14 */
  int  (*pfGetRegIndex)(U32 CoreRegIdx);                                        /* 15 */
  int  (*pfGetModeName)(U32 Mode, char* acBuf, U32 Size);                       /* 16 */
  int  (*pfGetCoreName)(U32 Core, char* acBuf, U32 Size);                       /* 17 */
  int  (*pfGetRegisterFile)(U32 Core, char* acBuf, U32 Size);                   /* 18 */
  int  (*pfGetPeripheralFile)(U32 Core, char* acBuf, U32 Size);                 /* 19 */
  int  (*pfGetFrameInfoText)(const void* pFrameEntry, char* acBuf, U32 Size);   /* 20 */
  int  (*pfGetInstText)(U64 Addr, U32 Size, char* acBuf, U32 BufSize);          /* 21 */
  int  (*pfGetInstDisplayText)(U64 Addr, U32 Size, char* acBuf, U32 BufSize);   /* 22 */
  int  (*pfGetDataText)(U64 Addr, U32 Size, char* acBuf, U32 BufSize);          /* 23 */
  int  (*pfGetDataDisplayText)(U64 Addr, U32 Size, char* acBuf, U32 BufSize);   /* 24 */
  int  (*pfGetMappingSymPrefix)(char* acBuf, U32 Size);                         /* 25 */
  int  (*pfParseMappingSym)(const char* sName, U32* pType, char* acBuf, U32 Size); /* 26 */
  int  (*pfGetELFByteOrder)(U32 HdrSize, const void* pELFHeader, U32* pDataEndian, U32* pInstEndian); /* 27 */
  void* pReserved28;                                                            /* 28 */
  int  (*pfOnConnected)(void);                                                  /* 29 */
  int  (*pfOnAboutToDisconnect)(void);                                          /* 30 */
  int  (*pfSetDefaultExecState)(void);                                          /* 31 */
  int  (*pfOnTargetHalted)(void);                                               /* 32 */
  int  (*pfOnAboutToResume)(void);                                              /* 33 */
  int  (*pfInitSemihosting)(const char* sCmdLine);                              /* 34 */
  int  (*pfDeinitSemihosting)(void);                                            /* 35 */
  int  (*pfHandleSemihosting)(U32 PC, U32* pOpCode, U64* pOperandAddr);         /* 36 */
  int  (*pfCompleteSemihosting)(U64 Result);                                    /* 37 */
  int  (*pfGetDefaultScriptBody)(U32 FuncId, char* acBuf, U32 Size);            /* 38 */
  int  (*pfCheckELFFile)(U32 HdrSize, const void* pELFHeader);                  /* 39 */
} CORE_PLUGIN_API;

/* Host table, 7 slots, 56 bytes on a 64-bit host. */
typedef struct CORE_HOST_API {
  int (*pfGetCodeRange)(U64 Addr, const char** psName, U64* pStart, U64* pEnd); /* 0: -1 if none */
  int (*pfGetSymbolAt)(U64 Addr, const char** psName, U64* pStart, U64* pEnd);  /* 1 */
  int (*pfReadMem)(U64 Addr, U32 NumBytes, U8* pData);                          /* 2: 0 or -1 */
  int (*pfReadImage)(U64 Addr, U32 NumBytes, U8* pData);                        /* 3: NumBytes or -1 */
  int (*pfGetProgramInfo)(U64* paOut);                                          /* 4: [0],[1] lowest addresses, [2] entry */
  int (*pfGetFrameTable)(void** ppTable);                                       /* 5 */
  int (*pfLog)(const char* sMsg, U32 Level);                                    /* 6: 0 error, 1 debug, 2 info */
} CORE_HOST_API;

#define CORE_LOG_ERROR 0
#define CORE_LOG_DEBUG 1
#define CORE_LOG_INFO  2

/* Export signatures. */
typedef int (*CORE_PLUGIN_GETAPI_FUNC)(void* pAPI, U32 Size);
typedef int (*CORE_PLUGIN_SETAPI_FUNC)(const void* pHostAPI, U32 Size);
typedef U32 (*CORE_PLUGIN_GETVERSION_FUNC)(void);
typedef const char* (*CORE_PLUGIN_GETNAME_FUNC)(void);

#ifdef __cplusplus
}
#endif

#if defined(__cplusplus) && (__SIZEOF_POINTER__ == 8)
static_assert(sizeof(CORE_CONFIG) == 2060, "CORE_CONFIG layout");
static_assert(sizeof(CORE_STATIC_INFO) == 104, "CORE_STATIC_INFO layout");
static_assert(offsetof(CORE_STATIC_INFO, InstAlign) == 56, "CORE_STATIC_INFO layout");
static_assert(offsetof(CORE_STATIC_INFO, CFAIdx) == 96, "CORE_STATIC_INFO layout");
static_assert(sizeof(CORE_INST_INFO) == 24, "CORE_INST_INFO layout");
static_assert(sizeof(CORE_PLUGIN_API) == 320, "CORE_PLUGIN_API layout");
static_assert(offsetof(CORE_PLUGIN_API, pfAnalyzeInst) == 14 * 8, "CORE_PLUGIN_API layout");
static_assert(offsetof(CORE_PLUGIN_API, pfCheckELFFile) == 39 * 8, "CORE_PLUGIN_API layout");
static_assert(sizeof(CORE_HOST_API) == 56, "CORE_HOST_API layout");
#endif

#endif /* TAVIT_CORE_PLUGIN_API_H */
