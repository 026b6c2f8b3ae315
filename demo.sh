#!/bin/sh
# What `make boot` shows: a board as it left production with bootloader 1.9.0 in its slot, and a bank on its volume that
# carries 1.9.1, a rescue image and the demo application. The board updates itself, resets, comes back as 1.9.1 and
# launches the application.
#
#   demo.sh [FIXTURE [OUT]]
set -eu
cd "$(dirname "$0")"
fixture=${1:-build/host/fixture}
out=${2:-out}
board=$out/board
rm -rf "$board"
mkdir -p "$board" "$out/volume/data"
rm -rf "$out/volume/data/app"

$fixture bank build "$out/volume/data/app" \
    --app build/arm/demo-application.bin --app-version 2.0 \
    --bootloader build/arm/bootloader-1.9.1.bin --bootloader-version 1.9.1 \
    --rescue build/arm/demo-rescue.bin --rescue-version 1.0
$fixture flash provision --medium nand --nand "$board/nand.bin" --bootloader build/arm/bootloader.bin

echo
echo "--- serial console ----------------------------------------------------------"
status=0
$fixture boot --straps 12-13 --volume "$out/volume" --nand "$board/nand.bin" --eeprom "$board/eeprom.bin" --create \
    --panel "$out/panel.png" --preview || status=$?
echo "--- the panel's picture is $out/panel.png"
exit $status
