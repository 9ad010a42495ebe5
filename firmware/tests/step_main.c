// Source-step scenarios on the MPS2 machine. The step tests find their lines
// by the tag comments, so lines may move; main runs every scenario once and
// ends in spin(), whose line jumps to itself.
#define SCB_ICSR (*(volatile unsigned*)0xE000ED04)
#define SCB_VTOR (*(volatile unsigned*)0xE000ED08)
#define ICSR_PENDSTSET (1u << 26)

extern unsigned _stack_top[];
void Reset_Handler(void);
void Fault_Handler(void);
void SysTick_Handler(void);
void nodebug_work(void);  // below, without line information

volatile unsigned g_sink, g_ticks;

// The start-up vectors with SysTick taken here; installed through VTOR.
__attribute__((aligned(128))) void (*const g_step_vectors[16])(void) = {
    (void (*)(void))_stack_top, Reset_Handler, Fault_Handler, Fault_Handler, Fault_Handler, Fault_Handler,
    Fault_Handler, 0, 0, 0, 0, Fault_Handler, Fault_Handler, 0, Fault_Handler, SysTick_Handler,
};

void SysTick_Handler(void) {
  g_ticks = g_ticks + 1;  /* IN_HANDLER */
  g_sink = g_ticks;
}

__attribute__((noinline)) void callee(void) {
  g_sink = g_sink + 1;  /* IN_CALLEE */
  g_sink = g_sink + 2;  /* CALLEE_2 */
}

static inline __attribute__((always_inline)) void bump(unsigned n) {
  g_sink = g_sink + n;  /* IN_INLINE */
  g_sink = g_sink ^ n;
}

__attribute__((noinline)) unsigned recurse(unsigned n) {
  if (n == 0) {
    g_sink = g_sink + 100;  /* RECURSE_BASE */
    return g_sink;
  }
  return recurse(n - 1) + 1;  /* RECURSE_CALL */
}

__attribute__((noinline)) void irq_scene(void) {
  SCB_VTOR = (unsigned)g_step_vectors;
  __asm volatile("cpsie i");
  SCB_ICSR = ICSR_PENDSTSET; __asm volatile("dsb\n isb");  /* IRQ_PEND */
  __asm volatile("cpsid i");  /* IRQ_AFTER */
}

// A function of the program that no line row covers: assembler text in a
// section of its own, outside the unit's code range.
__asm__(
    ".section .text.nodebug,\"ax\",%progbits\n"
    ".global nodebug_work\n"
    ".type nodebug_work, %function\n"
    ".thumb_func\n"
    "nodebug_work:\n"
    "  movs r0, #7\n"
    "  adds r0, r0, #1\n"
    "  bx lr\n"
    ".size nodebug_work, . - nodebug_work\n"
    ".text\n");

__attribute__((noinline, noreturn)) void spin(void) {
  for (;;);  /* SPIN */
}

int main(void) {
  __asm volatile("nop");  /* ONE_INST */
  g_sink = 1;  /* AFTER_ONE */
  g_sink = g_sink * 3 + 1;  /* MULTI */
  callee();  /* CALL_PLAIN */
  g_sink = 2;  /* AFTER_CALL */
  bump(3);  /* CALL_INLINE */
  g_sink = 4;  /* AFTER_INLINE */
  nodebug_work();  /* CALL_NODEBUG */
  g_sink = 5;  /* AFTER_NODEBUG */
  g_sink = recurse(3);  /* CALL_RECURSE */
  if (recurse(1) == 2) g_sink = 6;  /* CALL_BRANCH */
  irq_scene();  /* CALL_IRQ */
  spin();
}
