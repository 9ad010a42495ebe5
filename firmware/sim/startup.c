/* Start-up code: the vector table in .vectors, data and bss set-up, main. */
#include <stdint.h>

#include "sim.h"

extern uint32_t _sidata, _sdata, _edata, _sbss, _ebss, _estack;
extern int main(void);

void Reset_Handler(void);

void Default_Handler(void) {
  for (;;) {
  }
}

#define WEAK_HANDLER(name) void name(void) __attribute__((weak, alias("Default_Handler")))
WEAK_HANDLER(NMI_Handler);
WEAK_HANDLER(HardFault_Handler);
WEAK_HANDLER(MemManage_Handler);
WEAK_HANDLER(BusFault_Handler);
WEAK_HANDLER(UsageFault_Handler);
WEAK_HANDLER(SVC_Handler);
WEAK_HANDLER(DebugMon_Handler);
WEAK_HANDLER(PendSV_Handler);
WEAK_HANDLER(SysTick_Handler);
WEAK_HANDLER(IRQ0_Handler);
WEAK_HANDLER(IRQ1_Handler);
WEAK_HANDLER(IRQ2_Handler);
WEAK_HANDLER(IRQ3_Handler);

typedef void (*Vector)(void);

__attribute__((section(".vectors"), used)) const Vector g_aVectors[16 + 4] = {
    (Vector)(uintptr_t)&_estack, Reset_Handler, NMI_Handler, HardFault_Handler,
    MemManage_Handler, BusFault_Handler, UsageFault_Handler, 0,
    0, 0, 0, SVC_Handler,
    DebugMon_Handler, 0, PendSV_Handler, SysTick_Handler,
    IRQ0_Handler, IRQ1_Handler, IRQ2_Handler, IRQ3_Handler,
};

void Reset_Handler(void) {
  uint32_t* s = &_sidata;
  for (uint32_t* d = &_sdata; d < &_edata;) *d++ = *s++;
  for (uint32_t* d = &_sbss; d < &_ebss;) *d++ = 0;
  SCB_VTOR = (uint32_t)(uintptr_t)g_aVectors;
  main();
  for (;;) {
  }
}
