// Minimal start-up for the MPS2 test program: vector table, data/bss set-up,
// interrupts off, then main. Faults park in a loop the tests can recognise.
extern unsigned _data_load[], _data_start[], _data_end[], _bss_start[], _bss_end[], _stack_top[];
int main(void);

void Reset_Handler(void);
void Fault_Handler(void);

__attribute__((section(".vectors"), used)) void (*const g_vectors[16])(void) = {
    (void (*)(void))_stack_top, Reset_Handler, Fault_Handler, Fault_Handler, Fault_Handler, Fault_Handler,
    Fault_Handler, 0, 0, 0, 0, Fault_Handler, Fault_Handler, 0, Fault_Handler, Fault_Handler,
};

void Fault_Handler(void) {
  for (;;) __asm volatile("nop");
}

void Reset_Handler(void) {
  __asm volatile("cpsid i");
  unsigned* s = _data_load;
  for (unsigned* d = _data_start; d < _data_end;) *d++ = *s++;
  for (unsigned* d = _bss_start; d < _bss_end;) *d++ = 0;
  main();
  for (;;) __asm volatile("nop");
}
