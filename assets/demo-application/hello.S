@ What a board can launch: says hello on the serial console, reports success to a debugger, idles.
@
@ Runs wherever it is put, as the first stage leaves the processor: supervisor mode, MMU and caches off. The console is
@ set up already, since a processor reset keeps the peripherals' registers. Needs no memory beside itself.

#ifndef GREETING
#define GREETING "Hello from the demo application.\n"
#endif

#define DBGU_BASE 0xFFFFEE00
#define DBGU_SR   0x14
#define DBGU_THR  0x1C
#define TXRDY     2

    .syntax unified
    .arm
    .section .text.start, "ax"
    .global _start
_start:
    ldr     r1, =DBGU_BASE
    adr     r2, greeting
next:
    ldrb    r3, [r2], #1
    cmp     r3, #0
    beq     report
ready:
    ldr     r0, [r1, #DBGU_SR]
    tst     r0, #TXRDY
    beq     ready
    str     r3, [r1, #DBGU_THR]
    b       next

report:
    mov     r0, #0x20                   @ SYS_EXIT_EXTENDED
    adr     r1, success
    svc     0x123456
idle:
    b       idle

    .balign 4
success:
    .word   0x20026, 0                  @ the application's own end, result 0
greeting:
    .asciz  GREETING
    .balign 4
    .ltorg

    .section .note.GNU-stack, "", %progbits
