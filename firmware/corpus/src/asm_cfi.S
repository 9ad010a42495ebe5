/*
 * Hand-written helpers with call frame information, so the unwinder can
 * step out of them.
 */
    .syntax unified
    .thumb
    .cfi_sections .debug_frame

    .text
    .align 1
    .global asm_sum_words
    .type asm_sum_words, %function
    .thumb_func
/* u32_t asm_sum_words(const u32_t *p, u32_t n) */
asm_sum_words:
    .cfi_startproc
    push  {r4, r5, lr}
    .cfi_def_cfa_offset 12
    .cfi_offset r4, -12
    .cfi_offset r5, -8
    .cfi_offset lr, -4
    movs  r4, #0
    cbz   r1, 2f
1:  ldr   r5, [r0], #4
    adds  r4, r4, r5
    subs  r1, r1, #1
    bne   1b
2:  mov   r0, r4
    pop   {r4, r5, pc}
    .cfi_endproc
    .size asm_sum_words, . - asm_sum_words

    .align 1
    .global asm_swap_halves
    .type asm_swap_halves, %function
    .thumb_func
/* u32_t asm_swap_halves(u32_t v): uses a frame pointer */
asm_swap_halves:
    .cfi_startproc
    push  {r7, lr}
    .cfi_def_cfa_offset 8
    .cfi_offset r7, -8
    .cfi_offset lr, -4
    sub   sp, sp, #8
    .cfi_def_cfa_offset 16
    add   r7, sp, #0
    .cfi_def_cfa_register r7
    str   r0, [r7, #4]
    ldr   r0, [r7, #4]
    ror   r0, r0, #16
    mov   sp, r7
    .cfi_def_cfa_register sp
    add   sp, sp, #8
    .cfi_def_cfa_offset 8
    pop   {r7, pc}
    .cfi_endproc
    .size asm_swap_halves, . - asm_swap_halves
