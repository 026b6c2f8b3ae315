#!/bin/sh
# Builds the port from libbootloader.a, with a bank as its files, and runs it to the launch:
#
#   examples/port/build.sh [FIXTURE [OUT]]
#
# FIXTURE is the command to use, OUT the directory to build in. This is docs/porting.md, followed step by step.
set -eu
root=$(cd "$(dirname "$(readlink -f "$0")")/../.." && pwd)
fixture=${1:-$root/build/host/fixture}
out=${2:-$root/out/port}
arm=$root/build/arm
port=$root/examples/port
mkdir -p "$out/volume/data"

# The files that this platform has: a bank whose bootloader is the one that is linked, so that nothing is updated.
"$fixture" bank build "$out/volume/data/app" --app "$arm/demo-application.bin" --app-version 2.0 \
    --bootloader "$arm/bootloader.bin" --bootloader-version 1.9.0 >"$out/bank.txt"
"$port/pack.sh" "$out/volume" >"$out/files.S"

flags="-mcpu=arm926ej-s -marm -Os -g -ffile-prefix-map=$root=. -ffile-prefix-map=$out=./out"
strict="-std=c++20 -Wall -Wextra -Wshadow -Wconversion -Werror"
lean="-fno-exceptions -fno-rtti -fno-threadsafe-statics -fno-use-cxa-atexit"
for source in port library; do
    arm-none-eabi-g++ $flags $strict $lean "-I$root/platform/include" -c "$port/$source.cpp" -o "$out/$source.o"
done
for source in "$port/start.S" "$out/files.S"; do
    arm-none-eabi-gcc $flags -c "$source" -o "$out/$(basename "$source" .S).o"
done
arm-none-eabi-g++ -mcpu=arm926ej-s -mthumb --specs=nano.specs -nostartfiles -T "$port/linker.ld" \
    -Wl,--no-warn-rwx-segments -Wl,-z,noexecstack "$out/start.o" "$out/port.o" "$out/library.o" "$out/files.o" \
    "$arm/libbootloader.a" -o "$out/port.elf"

"$fixture" boot --firmware "$out/port.elf"
