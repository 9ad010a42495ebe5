/* Test program for the simulated target. The host stops at main, writes
 * g_TestCase, and runs; each case ends in TestDone() with its outcome in
 * g_Result (0 = passed for the self-checking cases). */
#include <stdint.h>

#include "lvt.h"
#include "sim.h"

enum {
  TC_IDLE = 0,
  TC_STEP = 1,        /* calls StepProbe */
  TC_SYSTICK = 2,     /* SysTick at 1 kHz for one second of target time */
  TC_EXCEPTIONS = 3,  /* nested and tail-chained exceptions, self-checking */
  TC_WATCH = 4,       /* one write to g_Watched */
  TC_TRACE = 5,       /* IT loop and a long computation with SysTick on */
  TC_SWO = 6,         /* text on ITM ports 0 and 1 */
  TC_LVT = 7,         /* LVT text up, echo of a line sent down */
  TC_HSS = 8,         /* counting variable */
  TC_POWER = 9,       /* busy and WFI phases */
  TC_SEMIHOST = 10,   /* one semihosting call */
  TC_FAULT = 11,      /* write to flash: HardFault */
  TC_RUN = 12,        /* endless counting loop */
  TC_FPU = 13,        /* FPU context across an exception (Cortex-M4F) */
};

volatile uint32_t g_TestCase;
volatile uint32_t g_Result = 0xFFFFFFFF;
volatile uint32_t g_Watched;
volatile uint32_t g_Ticks;
volatile uint32_t g_Counter;
volatile uint32_t g_ItResult;
volatile uint32_t g_Order[16];
volatile uint32_t g_OrderCnt;
volatile uint32_t g_ExcReturn[4];
volatile uint32_t g_Faults;

extern void StepProbe(void);
extern void WatchWrite(void);
extern uint32_t ExcRegCheck(uint32_t Irq);
extern uint32_t ItLoop(uint32_t n);
extern uint32_t FpExcCheck(void);

__attribute__((noinline)) void TestDone(void) { __asm__ volatile("nop"); }

static void Order(uint32_t v) {
  if (g_OrderCnt < 16) g_Order[g_OrderCnt++] = v;
}

static inline uint32_t GetLR(void) {
  uint32_t v;
  __asm__ volatile("mov %0, lr" : "=r"(v));
  return v;
}

static inline uint32_t GetIPSR(void) {
  uint32_t v;
  __asm__ volatile("mrs %0, ipsr" : "=r"(v));
  return v;
}

void SysTick_Handler(void) { g_Ticks++; }

void HardFault_Handler(void) {
  g_Faults++;
  g_Result = 0xFA;
  TestDone();
  for (;;) {
  }
}

/* IRQ0 (priority 0x80): pends IRQ1 (0x40, preempts at once) and IRQ2
 * (0x80, tail-chains after IRQ0). */
void IRQ0_Handler(void) {
  g_ExcReturn[0] = GetLR();
  Order(0x10 | (GetIPSR() << 8));
  NVIC_STIR = 1;
  Order(0x11);
  NVIC_ISPR0 = 1u << 2;
  Order(0x12);
}

void IRQ1_Handler(void) {
  g_ExcReturn[1] = GetLR();
  Order(0x20 | (GetIPSR() << 8));
}

void IRQ2_Handler(void) {
  g_ExcReturn[2] = GetLR();
  Order(0x30 | (GetIPSR() << 8));
}

static uint32_t g_PspStack[64] __attribute__((aligned(8)));

static uint32_t TestExceptions(void) {
  NVIC_IPR(0) = 0x80;
  NVIC_IPR(1) = 0x40;
  NVIC_IPR(2) = 0x80;
  NVIC_ISER0 = 7;
  /* On the main stack. */
  uint32_t r = ExcRegCheck(0);
  if (r) return r;
  static const uint32_t expect[5] = {0x10 | (16 << 8), 0x20 | (17 << 8), 0x11, 0x12, 0x30 | (18 << 8)};
  if (g_OrderCnt != 5) return 0x100 + g_OrderCnt;
  for (int i = 0; i < 5; ++i)
    if (g_Order[i] != expect[i]) return 0x200 + i;
  if (g_ExcReturn[0] != 0xFFFFFFF9 || g_ExcReturn[1] != 0xFFFFFFF1 || g_ExcReturn[2] != 0xFFFFFFF9) return 0x300;
  /* On the process stack. */
  g_OrderCnt = 0;
  uint32_t psp = (uint32_t)(uintptr_t)&g_PspStack[64];
  __asm__ volatile(".syntax unified\n msr psp, %0\n mrs r0, control\n movs r1, #2\n orrs r0, r1\n msr control, r0\n isb" : : "r"(psp) : "r0", "r1", "memory");
  r = ExcRegCheck(0);
  __asm__ volatile(".syntax unified\n mrs r0, control\n movs r1, #2\n bics r0, r1\n msr control, r0\n isb" : : : "r0", "r1", "memory");
  if (r) return 0x400 + r;
  if (g_ExcReturn[0] != 0xFFFFFFFD || g_ExcReturn[2] != 0xFFFFFFFD) return 0x500;
  if (g_OrderCnt != 5) return 0x600 + g_OrderCnt;
  return 0;
}

static uint32_t Collatz(uint32_t limit) {
  uint32_t steps = 0;
  for (uint32_t n = 1; n < limit; ++n) {
    uint32_t x = n;
    while (x != 1) {
      x = (x & 1) ? 3 * x + 1 : x / 2;
      ++steps;
    }
  }
  return steps;
}

int main(void) {
  switch (g_TestCase) {
    case TC_STEP:
      StepProbe();
      g_Result = 0;
      break;
    case TC_SYSTICK: {
      uint32_t hz = SIM_CLOCK_HZ;
      SysTickStart(1000);
      uint64_t start = SimCycles();
      while (SimCycles() - start < hz) {
      }
      SysTickStop();
      g_Result = g_Ticks;
      break;
    }
    case TC_EXCEPTIONS:
      g_Result = TestExceptions();
      break;
    case TC_WATCH:
      WatchWrite();
      g_Result = g_Watched;
      break;
    case TC_TRACE:
#if __ARM_ARCH >= 7
      g_ItResult = ItLoop(100);
#endif
      SysTickStart(10000);
      g_Result = Collatz(2000);
      SysTickStop();
      break;
    case TC_SWO:
      ItmPuts(0, "SWO port 0: hello\n");
      ItmPuts(1, "P1");
      g_Result = 0;
      break;
    case TC_LVT: {
      LVT_Init();
      LVT_WriteString(0, "LVT up: hello\n");
      char line[32];
      unsigned n = 0;
      while (n == 0 || line[n - 1] != '\n') n += LVT_Read(0, line + n, sizeof line - 1 - n);
      line[n] = 0;
      LVT_WriteString(0, "echo:");
      LVT_WriteString(0, line);
      g_Result = n;
      break;
    }
    case TC_HSS:
      for (;;) {
        g_Counter++;
        if (g_Counter == 200000) break;
      }
      g_Result = g_Counter;
      break;
    case TC_POWER: {
      uint32_t cyc10ms = SIM_CLOCK_HZ / 100;
      SysTickStart(1000);
      for (int i = 0; i < 3; ++i) {
        uint64_t t0 = SimCycles();
        while (SimCycles() - t0 < cyc10ms) {
        }
        uint32_t t = g_Ticks;
        while (g_Ticks - t < 10) Wfi();
      }
      SysTickStop();
      g_Result = 0;
      break;
    }
    case TC_SEMIHOST:
      SemihostWrite0("semihosting\n");
      g_Result = 0;
      break;
    case TC_FAULT:
      *(volatile uint32_t*)(uintptr_t)0x100 = 1;  /* flash (STM32 alias / generic): not writable */
      g_Result = 1;
      break;
    case TC_RUN:
      for (;;) g_Counter++;
#if defined(__ARM_ARCH_7EM__)
    case TC_FPU:
      SCB_CPACR_REG = 0xF << 20;
      NVIC_IPR(3) = 0x80;
      NVIC_ISER0 = 1u << 3;
      g_Result = FpExcCheck();
      break;
#endif
    default:
      break;
  }
  TestDone();
  for (;;) {
  }
}
