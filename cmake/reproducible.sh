#!/bin/sh
# Builds the firmware twice, in directories with other names and at other times, and compares every byte of what would
# be passed on. A modified working copy has the time of its build in its banner, so there both builds are given one.
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
[ -z "$(git -C "$root" status --porcelain --untracked-files=no 2>/dev/null)" ] || export SOURCE_DATE_EPOCH="$(date +%s)"

export GIT_OPTIONAL_LOCKS=0 # a copy may share its index with the tree

# A compiler launcher could answer the second build out of the first.
unset CMAKE_C_COMPILER_LAUNCHER CMAKE_CXX_COMPILER_LAUNCHER
mkdir -p "$work/one" "$work/the second in a deeper place"
(cd "$root" && tar -cf - --exclude=./build --exclude=./out .) | tar -xf - -C "$work/one"
for copy in one "the second in a deeper place"; do
    # The second is a copy of the first with all that was built: what was configured elsewhere must not be in the way.
    [ "$copy" = one ] || cp -R "$work/one/." "$work/$copy"
    rm -rf "$work/$copy/build/record"
    "$work/$copy/cmake/moved.sh"
    (cd "$work/$copy" && cmake --preset arm &&
        cmake --build build/arm --target libbootloader image-bill) >"$work/log" ||
        { cat "$work/log"; exit 1; }
done

status=0
for file in bootloader.elf bootloader.bin bootloader.map bootloader.spdx.json NOTICE libbootloader.a \
    libbootloader.needs; do
    if cmp "$work/one/build/arm/$file" "$work/the second in a deeper place/build/arm/$file"; then
        echo "$(sha256sum <"$work/one/build/arm/$file" | cut -c 1-16)  $file"
    else
        status=1
    fi
done
exit $status
