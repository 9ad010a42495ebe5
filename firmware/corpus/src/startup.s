/*
 * Start-up code: vector table in its own section, reset handler that calls
 * SystemInit, copies the initialised data from flash to RAM, clears .bss
 * and calls main.
 */
    .syntax unified
    .thumb

    .section .vectors, "a", %progbits
    .align 2
    .global g_vectors
    .type g_vectors, %object
g_vectors:
    .word _estack
    .word Reset_Handler
    .word NMI_Handler
    .word HardFault_Handler
    .word MemManage_Handler
    .word BusFault_Handler
    .word UsageFault_Handler
    .word 0, 0, 0, 0
    .word SVC_Handler
    .word DebugMon_Handler
    .word 0
    .word PendSV_Handler
    .word SysTick_Handler
    .rept 82
    .word Default_Handler
    .endr
    .size g_vectors, . - g_vectors

    .text
    .align 1
    .global Reset_Handler
    .type Reset_Handler, %function
    .thumb_func
Reset_Handler:
    bl    SystemInit
    ldr   r0, =_sidata
    ldr   r1, =_sdata
    ldr   r2, =_edata
1:  cmp   r1, r2
    bhs   2f
    ldr   r3, [r0], #4
    str   r3, [r1], #4
    b     1b
2:  ldr   r1, =_sbss
    ldr   r2, =_ebss
    movs  r3, #0
3:  cmp   r1, r2
    bhs   4f
    str   r3, [r1], #4
    b     3b
4:  bl    main
5:  b     5b
    .pool
    .size Reset_Handler, . - Reset_Handler

    .align 1
    .weak Default_Handler
    .type Default_Handler, %function
    .thumb_func
Default_Handler:
    b     Default_Handler
    .size Default_Handler, . - Default_Handler

    .macro weak_handler name
    .weak \name
    .thumb_set \name, Default_Handler
    .endm

    weak_handler NMI_Handler
    weak_handler HardFault_Handler
    weak_handler MemManage_Handler
    weak_handler BusFault_Handler
    weak_handler UsageFault_Handler
    weak_handler SVC_Handler
    weak_handler DebugMon_Handler
    weak_handler PendSV_Handler
