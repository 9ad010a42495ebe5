/* Program for the call stack tests on the MPS2 machine: a recursion 20
   deep, a handler entered by SVC that calls on, an always-inline helper and
   a tail call. The reset handler marks its return address undefined, as
   hand-written start-up code does, so every stack ends there (or at the
   exception entry). Stop places are marked STOP_*; tests find them by that
   mark. Own vector table; linker script of firmware/gdb. */
#include <stdint.h>

extern unsigned _data_load[], _data_start[], _data_end[], _bss_start[], _bss_end[], _stack_top[];
int main(void);
void Reset_Handler(void);
void Fault_Handler(void);
void SVC_Handler(void);

__attribute__((section(".vectors"), used)) void (*const g_vectors[16])(void) = {
    (void (*)(void))_stack_top, Reset_Handler, Fault_Handler, Fault_Handler, Fault_Handler, Fault_Handler,
    Fault_Handler, 0, 0, 0, 0, SVC_Handler, Fault_Handler, 0, Fault_Handler, Fault_Handler,
};

volatile uint32_t g_sink;
volatile uint32_t g_round;

__attribute__((noinline, noclone)) void Bottom(uint32_t v) {
  g_sink += v; /* STOP_BOTTOM */
}

__attribute__((noinline, noclone)) uint32_t Recurse(uint32_t n) {
  if (n == 0) {
    Bottom(g_round);
    return 1;
  }
  uint32_t r = Recurse(n - 1) + n;
  g_sink ^= r; /* STOP_RECURSE_BACK */
  return r;
}

static inline __attribute__((always_inline)) uint32_t Mix(uint32_t v) {
  g_sink = v * 3u; /* STOP_MIX */
  return v ^ (v >> 7);
}

__attribute__((noinline, noclone)) uint32_t Inner(uint32_t v) {
  uint32_t m = Mix(v);
  return m + g_sink; /* STOP_INNER */
}

__attribute__((noinline, noclone)) uint32_t Tail(uint32_t v) {
  g_sink += 1;
  return Inner(v + 1);
}

__attribute__((noinline, noclone)) void IrqWork(uint32_t v) {
  g_sink += v; /* STOP_IRQ */
}

void SVC_Handler(void) {
  IrqWork(g_round + 7u);
}

int main(void) {
  for (;;) {
    g_sink += Recurse(20);
    g_sink += Tail(g_round);
    __asm volatile("svc #0" ::: "memory");
    g_round = g_round + 1u; /* STOP_MAIN */
  }
}

void Fault_Handler(void) {
  for (;;) __asm volatile("nop");
}

void Reset_Handler(void) {
  __asm volatile(".cfi_undefined lr");
  unsigned* s = _data_load;
  for (unsigned* d = _data_start; d < _data_end;) *d++ = *s++;
  for (unsigned* d = _bss_start; d < _bss_end;) *d++ = 0;
  main();
  for (;;) __asm volatile("nop");
}
