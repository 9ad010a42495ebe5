// Test program for the GDB remote protocol back end: a deterministic
// computation worth single-stepping (16- and 32-bit instructions, IT blocks,
// multiply/divide, bit-field and saturating operations), a global that a
// write watchpoint can catch, and semihosting output when asked for.
#include <stdint.h>

volatile uint32_t g_counter;      // incremented once per loop
volatile uint32_t g_watched;      // written once per loop (watchpoint target)
volatile uint32_t g_semihost;     // set by a test: print through semihosting
volatile uint32_t g_result;
volatile uint32_t g_break;        // set by a test: stop once at a compiled-in break
volatile uint32_t g_breaks;       // counts the passes over that break
uint32_t g_table[32] = {1, 2, 3, 5, 8, 13, 21, 34};

static int Semihost(int Op, const void* pArg) {
  register int r0 __asm("r0") = Op;
  register const void* r1 __asm("r1") = pArg;
  __asm volatile("bkpt 0xAB" : "+r"(r0) : "r"(r1) : "memory");
  return r0;
}

static void Print(const char* s) {
  Semihost(0x04, s);  // SYS_WRITE0: a zero-terminated text to the console
}

__attribute__((noinline)) uint32_t Mix(uint32_t a, uint32_t b) {
  uint32_t r = a * 2654435761u + (b >> 3);
  if (r & 1) r ^= b << 5; else r += a;           // IT block
  r = (r << 7) | (r >> 25);
  r += (uint32_t)__builtin_clz(r | 1) * 17u;
  if (b) r += a / b;                              // UDIV (not on M0)
  r -= (uint32_t)((int32_t)a >> 4);
  return r;
}

__attribute__((noinline)) uint32_t Work(uint32_t Seed) {
  uint32_t acc = Seed;
  for (int i = 0; i < 32; ++i) {
    acc = Mix(acc, g_table[i & 31] + (uint32_t)i);
    g_table[(acc >> 3) & 31] ^= acc;
    int32_t s = (int32_t)acc;
    if (s < 0) acc = ~acc;
    uint64_t wide = (uint64_t)acc * (g_table[i & 31] | 1u);   // UMULL
    acc ^= (uint32_t)(wide >> 32);
  }
  return acc;
}

__attribute__((noinline)) void BreakHere(void) {
  __asm volatile("bkpt #0");
  g_breaks = g_breaks + 1;
}

int main(void) {
  if (g_semihost) Print("hello from the target\n");
  uint32_t seed = 12345;
  for (;;) {
    g_counter = g_counter + 1;
    if (g_break) {
      g_break = 0;
      BreakHere();
    }
    seed = Work(seed);
    g_watched = seed;
    g_result = seed ^ g_counter;
    if (g_semihost && (g_counter & 0xFF) == 0) Print("tick\n");
  }
}
