#!/bin/sh
# The ledger of the image's bytes, by module and function:
#
#   size_ledger.sh NM MAP ELF                  prints it; the flat binary lies beside the ELF
#   size_ledger.sh NM MAP ELF docs/size.txt    compares with a recorded one; fails where a line has grown or is new
#
# A line may grow by 16 bytes or one part in a hundred, whichever is more, before the record has to be made again with
# `make size`. Lines that shrink or go are fine.
set -eu
nm=$1 map=$2 elf=$3 record=${4:-}
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# What each object brings to the loaded sections: address, bytes, object.
awk '
function decimal(hex,    i, value) {
    value = 0
    for (i = 3; i <= length(hex); ++i) value = 16 * value + index("0123456789abcdef", substr(hex, i, 1)) - 1
    return value
}
/^Linker script and memory map/ { started = 1 }
!started { next }
/^\.[A-Za-z]/ { loaded = $1 == ".text" || $1 == ".rodata" || $1 == ".ARM.extab" || $1 == ".ARM.exidx" || $1 == ".data" }
!loaded { next }
/^ [.*][^ ]+$/ { getline; $0 = " x " $0 }
/^ \*fill\*/ { print decimal($2), decimal($3), "(gaps)"; next }
/^ [^ ]+ +0x[0-9a-f]+ +0x[0-9a-f]+ [^ ]/ && decimal($3) > 0 {
    print decimal($2), decimal($3), $4 ($5 == "stubs" ? " stubs" : "")
}
' "$map" | sort -n > "$work/parts"

# Every routine and object with a size: address, bytes, name. Two names of one place count once.
"$nm" -S --defined-only -C "$elf" | awk '
function decimal(hex,    i, value) {
    value = 0
    for (i = 1; i <= length(hex); ++i) value = 16 * value + index("0123456789abcdef", substr(hex, i, 1)) - 1
    return value
}
NF >= 4 && $2 ~ /^[0-9a-f]+$/ && $3 ~ /^[tTrRdDwWvV]$/ {
    address = decimal($1)
    name = $4
    for (i = 5; i <= NF; ++i) name = name " " $i
    sub(/\(anonymous namespace\)::/, "", name)
    sub(/\(.*/, "", name)
    if (!(address in seen)) print address - address % 2, decimal($2), name
    seen[address] = 1
}' | sort -n > "$work/symbols"

# Sources by the names of their objects.
(cd "$root" && ls src/*.cpp src/driver/*.cpp bsp/*.cpp) > "$work/sources"

awk -v sources="$work/sources" -v symbols="$work/symbols" '
function name_of(object,    file) {
    if (object ~ /modules\.a\(/) {
        file = object
        sub(/.*\(/, "", file)
        sub(/\.obj\)$/, "", file)
        return file in source ? source[file] : file
    }
    if (object ~ /platform\.dir\//) {
        file = object
        sub(/.*platform\.dir\//, "", file)
        sub(/\.obj$/, "", file)
        return file
    }
    if (object ~ /lib(g|c)(_nano)?\.a/) return "C library"
    if (object ~ /libgcc\.a/) return "compiler library"
    if (object ~ /stubs/) return "calls between the instruction sets"
    return object == "(gaps)" ? "gaps" : object
}
BEGIN {
    while ((getline line < sources) > 0) {
        file = line
        sub(/.*\//, "", file)
        source[file] = line
    }
    while ((getline line < symbols) > 0) {
        split(line, part, " ")
        address[++count] = part[1]
        bytes[count] = part[2]
        called[count] = substr(line, length(part[1]) + length(part[2]) + 3)
    }
    next_symbol = 1
}
{
    place = name_of($3)
    if ($4 == "stubs") place = "calls between the instruction sets"
    module[place] += $2
    for (; next_symbol <= count && address[next_symbol] < $1 + $2; ++next_symbol)
        if (address[next_symbol] >= $1 && bytes[next_symbol] > 0)
            print place "\t1\t" bytes[next_symbol] "\t" called[next_symbol]
}
END {
    for (place in module) {
        print place "\t0\t" module[place] "\t"
        total += module[place]
        if (place ~ /^(src|bsp)\//) modules += module[place]
    }
    print "\t0\t" total "\timage"
    print "\t1\t" modules "\tmodules of src, src/driver, bsp"
}' "$work/parts" > "$work/lines"

picture=$(awk '$3 == "BootImageBitmap" { print $2 }' "$work/symbols")
image=$(wc -c < "${elf%.elf}.bin")
sort -t '	' -k1,1 -k2,2n -k3,3nr -k4,4 "$work/lines" | awk -F '\t' -v picture="$picture" -v image="$image" '
BEGIN {
    print "# Bytes of the image, by module and function. Made by `make size`; `make test` fails where a line grows."
    print "# The picture is left out of the first two lines. Strings without a name show in their module alone."
}
$4 == "image" { printf "%-58s %6d\n", "image without its picture (aim 49152)", image - picture; next }
$1 == "" { printf "%-58s %6d\n", "modules without the picture (aim 24576)", $3 - picture; next }
$2 == 0 { printf "\n%-58s %6d\n", $1, $3; next }
{ printf "    %-54s %6d\n", $4, $3 }' > "$work/ledger"

if [ -z "$record" ]; then
    cat "$work/ledger"
    exit 0
fi
awk '
function key(    name) {
    if ($0 !~ /^ /) module = substr($0, 1, 58)
    return ($0 ~ /^ /) ? module "/" substr($0, 1, 58) : module
}
/^#/ || NF == 0 { next }
FNR == NR { recorded[key()] += $NF; next }
{
    now[key()] += $NF
    label[key()] = $0
}
END {
    for (name in now) {
        allowed = recorded[name] / 100 > 16 ? recorded[name] * 1.01 : recorded[name] + 16
        if (now[name] <= allowed) continue
        gsub(/ +/, " ", label[name])
        printf "grown: %s, recorded %d\n", label[name], recorded[name] > "/dev/stderr"
        bad = 1
    }
    if (bad) print "if that is meant: make size, and commit docs/size.txt" > "/dev/stderr"
    exit bad
}' "$record" "$work/ledger"
