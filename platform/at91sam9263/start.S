@ Where the processor comes in: the entry from the first-stage loader and the exception vectors, on one page.
@
@ The first-stage loader jumps to the image's first byte, in supervisor mode, with MMU and caches off. That byte is the
@ reset vector. MMU_Enable maps this page at 0xFFFF0000 too and switches to high vectors, so address 0 stays unmapped.

    .syntax unified
    .arm

    .section .vectors, "ax"
    .global _start
_start:
    b       start_up
    ldr     pc, =undefined_vector
    ldr     pc, =supervisor_call_vector
    ldr     pc, =prefetch_abort_vector
    ldr     pc, =data_abort_vector
    ldr     pc, =reserved_vector
    ldr     pc, =interrupt_vector
    ldr     pc, =fast_interrupt_vector
    .ltorg

    .text
    .type   start_up, %function         @ so that a call chain names it
start_up:
    msr     cpsr_c, #0xD3               @ supervisor mode, no interrupts
    ldr     sp, =__stack_end
    ldr     r0, =__bss_start            @ both multiples of 32
    ldr     r1, =__bss_end
    mov     r2, #0
    mov     r3, #0
    mov     r4, #0
    mov     r5, #0
    mov     r6, #0
    mov     r7, #0
    mov     r8, #0
    mov     r9, #0
1:  cmp     r0, r1
    stmialo r0!, {r2-r9}
    blo     1b
    bl      PLATFORM_Start
2:  b       2b                          @ idle until somebody resets the board

@ A vector hands on: which exception, the address of the instruction, the saved status. The link register lies
@ `distance` bytes after that instruction.
    .macro  vector name, number, distance
    .type   \name, %function
\name:
    ldr     sp, =__fault_stack_end
    mov     r0, #\number
    sub     r1, lr, #\distance
    mrs     r2, spsr
    bl      FAULT_Report
3:  b       3b
    .endm

    vector  undefined_vector, 1, 4
    vector  supervisor_call_vector, 2, 4
    vector  prefetch_abort_vector, 3, 4
    vector  data_abort_vector, 4, 8
    vector  reserved_vector, 5, 4
    vector  interrupt_vector, 6, 4
    vector  fast_interrupt_vector, 7, 4
    .ltorg

    .section .note.GNU-stack, "", %progbits
