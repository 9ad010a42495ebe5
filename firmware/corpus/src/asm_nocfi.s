/*
 * Hand-written helpers without call frame information. asm_read_ipsr and
 * asm_table carry no .size, so their symbols have size 0; the table is also
 * followed by a local label of size 0. asm_delay_fast is a second, shorter
 * function symbol at the address of asm_delay, and "?asm_spin" a function
 * whose name a C compiler could never produce.
 */
    .syntax unified
    .thumb

    .text
    .align 1
    .global asm_delay
    .type asm_delay, %function
    .global asm_delay_fast
    .type asm_delay_fast, %function
    .thumb_func
asm_delay:
asm_delay_fast:
    cbz   r0, 2f
1:  subs  r0, r0, #1
    nop
    bne   1b
2:  bx    lr
    .size asm_delay, . - asm_delay
    .size asm_delay_fast, 2

    .align 1
    .global "?asm_spin"
    .type "?asm_spin", %function
    .thumb_func
"?asm_spin":
    b     "?asm_spin"
    .size "?asm_spin", . - "?asm_spin"

    .align 1
    .global asm_read_ipsr
    .type asm_read_ipsr, %function
    .thumb_func
asm_read_ipsr:
    mrs   r0, ipsr
    bx    lr

    .section .rodata.asm_table, "a", %progbits
    .align 2
    .global asm_table
    .type asm_table, %object
asm_table:
    .word 0x11111111, 0x22222222, 0x33333333, 0x44444444
asm_table_end:
    .word 0xCAFEF00D
