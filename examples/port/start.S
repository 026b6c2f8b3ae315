@ The port's entry. Contract of the first stage: it has copied the image to its link address and jumps to the first byte
@ in supervisor mode, with MMU and caches off and clocks and SDRAM set up. Nothing is cleared yet, no stack is set.
    .syntax unified
    .arm
    .section .entry, "ax"
    .global _start
_start:
    b       start_up
    .rept 7                             @ no vector of this port returns: it stands still, for a watchdog or a person
    b       .
    .endr
start_up:
    msr     cpsr_c, #0xD3               @ supervisor mode, no interrupts: the bootloader uses none
    ldr     sp, =__stack_end
    ldr     r0, =__bss_start
    ldr     r1, =__bss_end
    mov     r2, #0
1:  cmp     r0, r1
    strlo   r2, [r0], #4
    blo     1b
    bl      PORT_Start
    b       .
    .ltorg
    .section .note.GNU-stack, "", %progbits
