/* Demo program: blinks the LED once a second, prints on the UART, the LVT
 * terminal and ITM port 0, and computes primes and Fibonacci numbers worth
 * stepping through. Lines typed into the LVT terminal come back in capitals. */
#include <stdint.h>

#include "lvt.h"
#include "sim.h"

volatile uint32_t g_Seconds;
volatile uint32_t g_Ms;
uint32_t g_aPrimes[64];
uint32_t g_NumPrimes;
uint64_t g_Fib;

void SysTick_Handler(void) {
  if (++g_Ms == 1000) {
    g_Ms = 0;
    g_Seconds++;
  }
}

static void PutNumber(char* buf, uint32_t v) {
  char tmp[11];
  int n = 0;
  do {
    tmp[n++] = (char)('0' + v % 10);
    v /= 10;
  } while (v);
  while (n) *buf++ = tmp[--n];
  *buf = 0;
}

static void Print(const char* s) {
  UartPuts(s);
  LVT_WriteString(0, s);
  ItmPuts(0, s);
}

/* Sieve-free prime search: trial division by the primes found so far. */
static void FindPrimes(uint32_t limit) {
  g_NumPrimes = 0;
  for (uint32_t n = 2; n < limit && g_NumPrimes < 64; ++n) {
    int prime = 1;
    for (uint32_t i = 0; i < g_NumPrimes; ++i) {
      uint32_t p = g_aPrimes[i];
      if (p * p > n) break;
      if (n % p == 0) {
        prime = 0;
        break;
      }
    }
    if (prime) g_aPrimes[g_NumPrimes++] = n;
  }
}

static uint64_t Fibonacci(unsigned n) {
  uint64_t a = 0, b = 1;
  while (n--) {
    uint64_t t = a + b;
    a = b;
    b = t;
  }
  return a;
}

static void EchoInput(void) {
  char in[32];
  unsigned n = LVT_Read(0, in, sizeof in);
  for (unsigned i = 0; i < n; ++i)
    if (in[i] >= 'a' && in[i] <= 'z') in[i] = (char)(in[i] - 'a' + 'A');
  if (n) LVT_Write(0, in, n);
}

int main(void) {
  LVT_Init();
  Print("Tavit demo: blinking, counting, computing\n");
  FindPrimes(300);
  SysTickStart(1000);
  uint32_t last = 0;
  for (;;) {
    Wfi();
    EchoInput();
    uint32_t s = g_Seconds;
    if (s != last) {
      last = s;
      LedSet(s & 1);
      g_Fib = Fibonacci(s % 90);
      char line[48] = "second ";
      PutNumber(line + 7, s);
      unsigned len = 0;
      while (line[len]) ++len;
      line[len++] = s & 1 ? '*' : ' ';
      line[len++] = '\n';
      line[len] = 0;
      Print(line);
    }
  }
}
