// Program for the frame tests: locals and parameters in registers and on the
// stack, a local that shadows a global, and a static whose name another file
// uses too. Runs on the emulator's MPS2 machine (startup and linker script of
// firmware/gdb).
#include <stdint.h>

struct pair {
  int a;
  short b;
};

volatile uint32_t g_tick;
int shade = 7;           // shadowed by the local of Leaf
static int twin = 11;    // frames_other.c has a static of this name too
struct pair g_pair = {5, 6};

int OtherTwin(void);

__attribute__((noinline)) int Leaf(int x, int y, struct pair* p) {
  int shade = x * 3 + y;
  long long big = (long long)x * 100000007LL + y;
  int arr[4] = {x, y, shade, twin};
  p->a += shade;
  g_tick += (uint32_t)arr[(x + y) & 3] + (uint32_t)(big >> 32);
  __asm volatile("nop" ::: "memory");  // STOP_IN_LEAF
  g_tick ^= (uint32_t)(big >> 32);
  return shade + p->b + arr[1] + (int)big + (int)x;
}

__attribute__((noinline)) int Middle(int n) {
  int total = 0;
  struct pair local = {n, (short)(n + 1)};
  for (int i = 0; i < n; ++i) total += Leaf(i + 40, n - i, i & 1 ? &local : &g_pair);
  return total + twin + OtherTwin() + local.a;
}

int main(void) {
  int round = 3;
  for (;;) {
    g_tick = g_tick + (uint32_t)Middle(round);
    ++round;
  }
}
