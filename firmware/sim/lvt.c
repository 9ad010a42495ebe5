#include "lvt.h"

static char s_acUp0[512], s_acUp1[128], s_acDown0[64], s_acDown1[64];

LVT_CB _MARLEK_LVT;

void LVT_Init(void) {
  LVT_CB* p = &_MARLEK_LVT;
  p->MaxNumUpBuffers = LVT_NUM_UP;
  p->MaxNumDownBuffers = LVT_NUM_DOWN;
  p->aUp[0] = (LVT_BUFFER){"Terminal", s_acUp0, sizeof s_acUp0, 0, 0, 0};
  p->aUp[1] = (LVT_BUFFER){"Log", s_acUp1, sizeof s_acUp1, 0, 0, 0};
  p->aDown[0] = (LVT_BUFFER){"Terminal", s_acDown0, sizeof s_acDown0, 0, 0, 0};
  p->aDown[1] = (LVT_BUFFER){"Command", s_acDown1, sizeof s_acDown1, 0, 0, 0};
  /* The id goes in last, built at run time so that no other copy of it
   * stands in RAM: the probe must not find a half-initialised block. */
  static const char id[] = "MARLEK LVT";
  for (unsigned i = 0; i < sizeof p->acID; ++i) p->acID[i] = 0;
  for (int i = (int)sizeof id - 2; i >= 0; --i) ((volatile char*)p->acID)[i] = id[i];
}

unsigned LVT_Write(unsigned BufferIndex, const void* pData, unsigned NumBytes) {
  if (BufferIndex >= LVT_NUM_UP) return 0;
  LVT_BUFFER* b = &_MARLEK_LVT.aUp[BufferIndex];
  const char* s = (const char*)pData;
  unsigned n = 0;
  uint32_t wr = b->WrOff;
  while (n < NumBytes) {
    uint32_t next = wr + 1 == b->SizeOfBuffer ? 0 : wr + 1;
    if (next == b->RdOff) break; /* full: the rest is dropped */
    b->pBuffer[wr] = s[n++];
    wr = next;
  }
  b->WrOff = wr;
  return n;
}

unsigned LVT_WriteString(unsigned BufferIndex, const char* s) {
  unsigned n = 0;
  while (s[n]) ++n;
  return LVT_Write(BufferIndex, s, n);
}

unsigned LVT_Read(unsigned BufferIndex, void* pData, unsigned BufferSize) {
  if (BufferIndex >= LVT_NUM_DOWN) return 0;
  LVT_BUFFER* b = &_MARLEK_LVT.aDown[BufferIndex];
  char* d = (char*)pData;
  unsigned n = 0;
  uint32_t rd = b->RdOff;
  while (n < BufferSize && rd != b->WrOff) {
    d[n++] = b->pBuffer[rd];
    rd = rd + 1 == b->SizeOfBuffer ? 0 : rd + 1;
  }
  b->RdOff = rd;
  return n;
}
