/* Drivers for the simulated target: the simulator peripheral block (UART,
 * LED, cycle counter), the system registers used by the test programs, the
 * ITM writer and semihosting calls. */
#ifndef SIM_H
#define SIM_H

#include <stdint.h>

#define REG32(a) (*(volatile uint32_t*)(a))

/* Simulator peripheral block. */
#define SIM_BASE        0x4FFF0000u
#define SIM_ID          REG32(SIM_BASE + 0x00) /* reads 0x4D495354 */
#define SIM_UART_DATA   REG32(SIM_BASE + 0x04) /* write: send a byte; read: next received byte */
#define SIM_UART_STATUS REG32(SIM_BASE + 0x08) /* bit 0 TX ready, bit 1 RX data available */
#define SIM_LED         REG32(SIM_BASE + 0x0C) /* bit 0: LED on */
#define SIM_CYCLES_LO   REG32(SIM_BASE + 0x10)
#define SIM_CYCLES_HI   REG32(SIM_BASE + 0x14)
#define SIM_CLOCK_HZ    REG32(SIM_BASE + 0x18)

/* System control space. */
#define SYST_CSR   REG32(0xE000E010)
#define SYST_RVR   REG32(0xE000E014)
#define SYST_CVR   REG32(0xE000E018)
#define NVIC_ISER0 REG32(0xE000E100)
#define NVIC_ISPR0 REG32(0xE000E200)
#define NVIC_IPR(n) (*(volatile uint8_t*)(0xE000E400u + (n)))
#define SCB_ICSR   REG32(0xE000ED04)
#define SCB_VTOR   REG32(0xE000ED08)
#define SCB_SHPR3  REG32(0xE000ED20)
#define SCB_CPACR_REG REG32(0xE000ED88)
#define NVIC_STIR  REG32(0xE000EF00)
#define DWT_CTRL   REG32(0xE0001000)
#define DWT_CYCCNT REG32(0xE0001004)
#define ITM_PORT(n) REG32(0xE0000000u + 4u * (n))
#define ITM_PORT8(n) (*(volatile uint8_t*)(0xE0000000u + 4u * (n)))
#define ITM_TER    REG32(0xE0000E00)
#define ITM_TCR    REG32(0xE0000E80)

static inline uint64_t SimCycles(void) {
  uint32_t hi, lo;
  do {
    hi = SIM_CYCLES_HI;
    lo = SIM_CYCLES_LO;
  } while (hi != SIM_CYCLES_HI);
  return ((uint64_t)hi << 32) | lo;
}

static inline void UartPutc(char c) {
  while (!(SIM_UART_STATUS & 1)) {
  }
  SIM_UART_DATA = (uint8_t)c;
}

static inline void UartPuts(const char* s) {
  while (*s) UartPutc(*s++);
}

static inline void LedSet(int on) { SIM_LED = on ? 1u : 0u; }

/* ITM stimulus port writer: drops the text while the port is disabled. */
static inline void ItmPutc(unsigned port, char c) {
  if (!(ITM_TCR & 1) || !(ITM_TER & (1u << port))) return;
  while (ITM_PORT(port) == 0) {
  }
  ITM_PORT8(port) = (uint8_t)c;
}

static inline void ItmPuts(unsigned port, const char* s) {
  while (*s) ItmPutc(port, *s++);
}

/* SysTick at Hz interrupts per second from the core clock. */
static inline void SysTickStart(uint32_t hz) {
  SYST_RVR = SIM_CLOCK_HZ / hz - 1;
  SYST_CVR = 0;
  SYST_CSR = 7;
}

static inline void SysTickStop(void) { SYST_CSR = 0; }

/* Semihosting: BKPT 0xAB with the operation in r0 and the argument in r1. */
static inline int Semihost(int op, const void* arg) {
  register int r0 __asm__("r0") = op;
  register const void* r1 __asm__("r1") = arg;
  __asm__ volatile("bkpt 0xAB" : "+r"(r0) : "r"(r1) : "memory");
  return r0;
}
#define SYS_WRITE0 0x04
static inline void SemihostWrite0(const char* s) { Semihost(SYS_WRITE0, s); }

static inline void Wfi(void) { __asm__ volatile("wfi"); }

#endif
