#!/bin/sh
# Prints an assembler source that holds every file below a directory, as volume vol0 of drive i:  pack.sh DIRECTORY
set -eu
cd "$1"
here=$(pwd)
echo '    .section .rodata'
echo '    .global port_files'
echo '    .balign 4'
echo 'port_files:'
find . -type f | sort >"${TMPDIR:-/tmp}/port-files.$$"
trap 'rm -f "${TMPDIR:-/tmp}/port-files.$$"' EXIT
number=0
while read -r file; do
    number=$((number + 1))
    echo "    .word name$number, begin$number, end$number"
done <"${TMPDIR:-/tmp}/port-files.$$"
echo '    .word 0, 0, 0'
number=0
while read -r file; do
    number=$((number + 1))
    echo "name$number: .asciz \"i:/vol0/${file#./}\""
    echo "begin$number: .incbin \"$here/${file#./}\""
    echo "end$number:"
done <"${TMPDIR:-/tmp}/port-files.$$"
echo '    .section .note.GNU-stack, "", %progbits'
