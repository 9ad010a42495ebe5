/* LVT terminal: a control block in RAM through which the debug probe reads
 * text from the target (up buffers) and writes text to it (down buffers)
 * while the target runs. The probe finds the block by its symbol
 * _MARLEK_LVT or by searching RAM for the id text "MARLEK LVT".
 *
 * Layout (little endian, 32-bit fields):
 *   char acID[16];            "MARLEK LVT", zero padded
 *   int  MaxNumUpBuffers;     LVT_NUM_UP
 *   int  MaxNumDownBuffers;   LVT_NUM_DOWN
 *   LVT_BUFFER aUp[LVT_NUM_UP];
 *   LVT_BUFFER aDown[LVT_NUM_DOWN];
 * LVT_BUFFER (24 bytes): sName, pBuffer, SizeOfBuffer, WrOff, RdOff, Flags.
 * The writer of a ring moves WrOff, the reader RdOff; WrOff == RdOff is
 * empty, and one byte always stays free. */
#ifndef LVT_H
#define LVT_H

#include <stdint.h>

#define LVT_NUM_UP 2
#define LVT_NUM_DOWN 2

typedef struct {
  const char* sName;
  char* pBuffer;
  uint32_t SizeOfBuffer;
  volatile uint32_t WrOff;
  volatile uint32_t RdOff;
  uint32_t Flags;
} LVT_BUFFER;

typedef struct {
  char acID[16];
  int32_t MaxNumUpBuffers;
  int32_t MaxNumDownBuffers;
  LVT_BUFFER aUp[LVT_NUM_UP];
  LVT_BUFFER aDown[LVT_NUM_DOWN];
} LVT_CB;

extern LVT_CB _MARLEK_LVT;

void LVT_Init(void);
unsigned LVT_Write(unsigned BufferIndex, const void* pData, unsigned NumBytes);
unsigned LVT_WriteString(unsigned BufferIndex, const char* s);
unsigned LVT_Read(unsigned BufferIndex, void* pData, unsigned BufferSize);

#endif
