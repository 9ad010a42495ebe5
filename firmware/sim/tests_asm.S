/* Assembler parts of the test program: instruction sequences whose effect on
 * the registers the host checks, and the exception self-check. */
  .syntax unified
  .thumb
  .text

/* Single-step probe: a fixed mix of 16- and 32-bit instructions. */
  .global StepProbe
  .type StepProbe, %function
  .thumb_func
StepProbe:
  movs r0, #5             /* 16-bit */
#if __ARM_ARCH >= 7
  movw r1, #0x1234        /* 32-bit */
  movt r1, #0xABCD        /* 32-bit */
#else
  ldr r1, =0xABCD1234     /* 16-bit literal load */
  nop
#endif
  adds r2, r0, r1         /* 16-bit */
  lsls r3, r0, #4         /* 16-bit */
  bl StepCallee           /* 32-bit */
  bx lr
  .ltorg
  .size StepProbe, .-StepProbe

  .global StepCallee
  .type StepCallee, %function
  .thumb_func
StepCallee:
  adds r0, r0, #1
  bx lr
  .size StepCallee, .-StepCallee

/* One store to g_Watched; WatchStoreDone is the next instruction. */
  .global WatchWrite
  .type WatchWrite, %function
  .thumb_func
WatchWrite:
  ldr r0, =g_Watched
  ldr r1, =0x12345678
  str r1, [r0]
  .global WatchStoreDone
WatchStoreDone:
  nop
  bx lr
  .ltorg
  .size WatchWrite, .-WatchWrite

/* uint32_t ExcRegCheck(uint32_t Irq): fill the registers with patterns,
 * trigger IRQ Irq by NVIC_STIR (taken right after the store), and check that
 * every register comes back. Result 0 or the number of the first bad register
 * plus 1. The stack pointer is left 4-byte aligned (not 8) on purpose, so the
 * exception frame needs its alignment word. */
  .global ExcRegCheck
  .type ExcRegCheck, %function
  .thumb_func
ExcRegCheck:
  push {r4-r7, lr}
  mov r4, r8
  mov r5, r9
  mov r6, r10
  mov r7, r11
  push {r4-r7}
  mov r1, r0              /* IRQ number */
  ldr r0, =s_SavedSP
  mov r2, sp
  subs r2, r2, #4
  str r2, [r0]            /* the SP expected after the exception */
  sub sp, sp, #4          /* SP = 4 mod 8 */
  ldr r0, =0x8888
  mov r8, r0
  ldr r0, =0x9999
  mov r9, r0
  ldr r0, =0xAAAA
  mov r10, r0
  ldr r0, =0xBBBB
  mov r11, r0
  ldr r0, =0xCCCC
  mov r12, r0
  ldr r0, =0xEEEE
  mov lr, r0
  ldr r2, =0x2222
  ldr r3, =0x3333
  ldr r4, =0x4444
  ldr r5, =0x5555
  ldr r6, =0x6666
  ldr r7, =0x7777
  ldr r0, =0xE000EF00
  str r1, [r0]            /* the exception is taken here */
  .global ExcTaken
ExcTaken:
  nop
  nop
  /* Check. r0 and r1 stay as they were: STIR address and IRQ number. */
  ldr r0, =0x2222
  cmp r2, r0
  bne 2f
  ldr r0, =0x3333
  cmp r3, r0
  bne 3f
  ldr r0, =0x4444
  cmp r4, r0
  bne 4f
  ldr r0, =0x5555
  cmp r5, r0
  bne 5f
  ldr r0, =0x6666
  cmp r6, r0
  bne 6f
  ldr r0, =0x7777
  cmp r7, r0
  bne 7f
  ldr r0, =0x8888
  cmp r8, r0
  bne 8f
  ldr r0, =0x9999
  cmp r9, r0
  bne 9f
  ldr r0, =0xAAAA
  cmp r10, r0
  bne 10f
  ldr r0, =0xBBBB
  cmp r11, r0
  bne 11f
  ldr r0, =0xCCCC
  cmp r12, r0
  bne 12f
  ldr r0, =0xEEEE
  cmp lr, r0
  bne 14f
  ldr r0, =s_SavedSP
  ldr r0, [r0]
  mov r1, sp
  cmp r0, r1
  bne 13f
  movs r0, #0
  b 99f
2: movs r0, #3
  b 99f
3: movs r0, #4
  b 99f
4: movs r0, #5
  b 99f
5: movs r0, #6
  b 99f
6: movs r0, #7
  b 99f
7: movs r0, #8
  b 99f
8: movs r0, #9
  b 99f
9: movs r0, #10
  b 99f
10: movs r0, #11
  b 99f
11: movs r0, #12
  b 99f
12: movs r0, #13
  b 99f
13: movs r0, #14
  b 99f
14: movs r0, #15
99:
  add sp, sp, #4
  pop {r4-r7}
  mov r8, r4
  mov r9, r5
  mov r10, r6
  mov r11, r7
  pop {r4-r7, pc}
  .ltorg
  .size ExcRegCheck, .-ExcRegCheck

#if __ARM_ARCH >= 7
/* uint32_t ItLoop(uint32_t n): n passes over an IT block; the first
 * instruction of the block runs while i < n/2, the second otherwise, so each
 * of them is skipped n/2 times. Result: the two counts, packed. */
  .global ItLoop
  .type ItLoop, %function
  .thumb_func
ItLoop:
  push {r4, lr}
  movs r1, #0             /* i */
  movs r2, #0
  movs r3, #0
  lsrs r4, r0, #1
1:
  cmp r1, r4
  .global ItBlock
ItBlock:
  ite lt
  addlt r2, r2, #1
  addge r3, r3, #1
  adds r1, r1, #1
  cmp r1, r0
  bne 1b
  lsls r0, r2, #16
  orrs r0, r0, r3
  pop {r4, pc}
  .size ItLoop, .-ItLoop
#endif

#if defined(__ARM_ARCH_7EM__)
/* uint32_t FpExcCheck(void): S0-S15 hold patterns, IRQ3 comes, its handler
 * overwrites S0-S15; afterwards the patterns must be back (the exception
 * frame carries the FPU context). Result 0 or 1. */
  .fpu fpv4-sp-d16
  .global FpExcCheck
  .type FpExcCheck, %function
  .thumb_func
FpExcCheck:
  push {r4, lr}
  ldr r1, =0x3F800000
  vmov s0, r1
  ldr r1, =0x3F810001
  vmov s1, r1
  ldr r1, =0x3F820002
  vmov s2, r1
  ldr r1, =0x3F830003
  vmov s3, r1
  ldr r1, =0x3F840004
  vmov s4, r1
  ldr r1, =0x3F850005
  vmov s5, r1
  ldr r1, =0x3F860006
  vmov s6, r1
  ldr r1, =0x3F870007
  vmov s7, r1
  ldr r1, =0x3F880008
  vmov s8, r1
  ldr r1, =0x3F890009
  vmov s9, r1
  ldr r1, =0x3F8A000A
  vmov s10, r1
  ldr r1, =0x3F8B000B
  vmov s11, r1
  ldr r1, =0x3F8C000C
  vmov s12, r1
  ldr r1, =0x3F8D000D
  vmov s13, r1
  ldr r1, =0x3F8E000E
  vmov s14, r1
  ldr r1, =0x3F8F000F
  vmov s15, r1
  ldr r0, =0xE000EF00
  movs r1, #3
  str r1, [r0]
  nop
  nop
  vmov r1, s0
  ldr r2, =0x3F800000
  cmp r1, r2
  bne 1f
  vmov r1, s1
  ldr r2, =0x3F810001
  cmp r1, r2
  bne 1f
  vmov r1, s2
  ldr r2, =0x3F820002
  cmp r1, r2
  bne 1f
  vmov r1, s3
  ldr r2, =0x3F830003
  cmp r1, r2
  bne 1f
  vmov r1, s4
  ldr r2, =0x3F840004
  cmp r1, r2
  bne 1f
  vmov r1, s5
  ldr r2, =0x3F850005
  cmp r1, r2
  bne 1f
  vmov r1, s6
  ldr r2, =0x3F860006
  cmp r1, r2
  bne 1f
  vmov r1, s7
  ldr r2, =0x3F870007
  cmp r1, r2
  bne 1f
  vmov r1, s8
  ldr r2, =0x3F880008
  cmp r1, r2
  bne 1f
  vmov r1, s9
  ldr r2, =0x3F890009
  cmp r1, r2
  bne 1f
  vmov r1, s10
  ldr r2, =0x3F8A000A
  cmp r1, r2
  bne 1f
  vmov r1, s11
  ldr r2, =0x3F8B000B
  cmp r1, r2
  bne 1f
  vmov r1, s12
  ldr r2, =0x3F8C000C
  cmp r1, r2
  bne 1f
  vmov r1, s13
  ldr r2, =0x3F8D000D
  cmp r1, r2
  bne 1f
  vmov r1, s14
  ldr r2, =0x3F8E000E
  cmp r1, r2
  bne 1f
  vmov r1, s15
  ldr r2, =0x3F8F000F
  cmp r1, r2
  bne 1f
  movs r0, #0
  pop {r4, pc}
1:
  movs r0, #1
  pop {r4, pc}
  .ltorg
  .size FpExcCheck, .-FpExcCheck

  .global IRQ3_Handler
  .type IRQ3_Handler, %function
  .thumb_func
IRQ3_Handler:
  ldr r0, =g_ExcReturn
  str lr, [r0, #12]
  movs r0, #0
  vmov s0, r0
  vmov s1, r0
  vmov s2, r0
  vmov s3, r0
  vmov s4, r0
  vmov s5, r0
  vmov s6, r0
  vmov s7, r0
  vmov s8, r0
  vmov s9, r0
  vmov s10, r0
  vmov s11, r0
  vmov s12, r0
  vmov s13, r0
  vmov s14, r0
  vmov s15, r0
  bx lr
  .ltorg
  .size IRQ3_Handler, .-IRQ3_Handler
#endif

  .bss
  .align 2
s_SavedSP: .space 4
