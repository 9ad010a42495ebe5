@ Thumb-2 forms that the core plug-in must classify: IT blocks, every kind
@ of return, table branches, literal loads, ADR, break and NOP.
.syntax unified
.thumb
.text
.global _start
.thumb_func
_start:
  b f
.thumb_func
f:
  push {r4, r7, lr}
  cmp r0, #0
  ite eq
  moveq r0, #1
  addne r0, r0, #2
  adds r0, #1
  cbz r0, 1f
  ldr r3, =0x12345678
  ldr.w r2, =0x20000000
  bl g
  bx lr
1: pop {r4, r7, pc}
  tbb [pc, r1]
  ldr pc, [sp], #4
  mov pc, lr
  ldm sp!, {r4, pc}
  adr r0, f
  vldr s0, =0x3f800000
  bkpt 0xab
  nop
  nop.w
  mrs r0, PRIMASK
  udf #1
  .ltorg
.thumb_func
g:
  cmp r0, r1
  itttt ne
  ldrne.w r2, [r1, #4]!
  addne r0, r0, r2
  movne r3, r0
  bxne lr
  itet gt
  popgt {r4, pc}
  movle r0, #0
  ldrgt pc, [sp], #4
  ldr.w r0, [pc, #-16]
  ldrd r2, r3, [pc, #8]
  add pc, r0
  blx r3
  bx r2
  beq.w f
  bne g
  cbnz r2, 2f
  vpush {d8}
  push.w {r4, r5, r6, r7, r8, lr}
  mov r9, r10
  mov r12, r11
  vpop {d8}
2: pop.w {r4, r5, r6, r7, r8, pc}
  .word 0xdeadbeef
  .align 2
  .thumb
.thumb_func
h:
  adr r2, 3f
  ldrd r0, r1, [r2]
  adr.w r3, 3f
  nop
  vldr d0, [r3, #8]
  adr r1, 3f
  movs r1, #0
  ldr r0, [r1]
  adr r2, 3f
  ldr r0, [r2, #4]
  ldr r1, [r2, #8]!
  b 4f
  .align 3
3: .word 0x11111111, 0x22222222, 0x33333333, 0x44444444
4:
  svc #0
  wfi
  bx lr
