#!/bin/sh
# Installs, uses, packs and removes what `make install` and `make deb` make, without touching this machine:
#
#   cmake/package_test.sh BUILD_DIRECTORY      one of `make fixture`
set -eu
build=$(cd "$1" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
step() { echo "package: $*"; }

step "install below a prefix, use from another directory and by a link"
cmake --install "$build" --prefix "$work/prefix" >"$work/log"
ln -s "$work/prefix/bin/fixture" "$work/linked"
cd /
"$work/prefix/bin/fixture" --version
"$work/linked" boot --demo --json 2>"$work/console" | grep -q '"launched"'
grep -q "Hello from the demo application" "$work/console"
grep -q 'app.-version' "$work/prefix/share/man/man1/fixture-bank-build.1"

step "a program without its images says where it looked"
cp "$work/prefix/bin/fixture" "$work/copied"
status=0
"$work/copied" boot 2>"$work/refused" || status=$?
[ "$status" = 2 ] && grep -q "FIXTURE_DATA" "$work/refused"
FIXTURE_DATA="$work/prefix/share/fixture" "$work/copied" boot >"$work/console" 2>&1

step "completion"
bash -c ". '$work/prefix/share/bash-completion/completions/fixture'
    COMP_WORDS=(fixture boot --straps 1) COMP_CWORD=3; _fixture; [ \"\${COMPREPLY[*]}\" = '12-13 14-18' ] || exit 1
    COMP_WORDS=(fixture bank b) COMP_CWORD=2; _fixture; [ \"\${COMPREPLY[*]}\" = build ] || exit 1"
! command -v zsh >/dev/null || zsh -n "$work/prefix/share/zsh/vendor-completions/_fixture"
! command -v fish >/dev/null ||
    [ "$(fish -c "source '$work/prefix/share/fish/vendor_completions.d/fixture.fish'
        complete -C 'fixture boot --straps 1'" | cut -f 1 | tr '\n' ' ')" \
        = "12-13 14-18 " ]
for page in "$work"/prefix/share/man/man1/*; do
    [ -z "$(! command -v groff >/dev/null || groff -man -Tascii -ww "$page" 2>&1 >/dev/null)" ]
done

step "another project's program on the libraries"
mkdir "$work/other"
cat >"$work/other/CMakeLists.txt" <<'PROJECT'
cmake_minimum_required(VERSION 3.25)
project(other CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(Fixture REQUIRED)
add_executable(other main.cpp)
target_link_libraries(other Fixture::board Fixture::formats)
PROJECT
cat >"$work/other/main.cpp" <<'PROGRAM'
#include "fixture/board.h"
#include "formats/stored_image.h"

int main() {
    const fixture::NandContents nand(fixture::FindNandPart(fixture::kDefaultNand));
    return fixture::HasMaker(fixture::Wrap(fixture::Bytes(9, 1))) ? 0 : 1;
}
PROGRAM
cmake -S "$work/other" -B "$work/other/build" -DCMAKE_PREFIX_PATH="$work/prefix" >>"$work/log"
cmake --build "$work/other/build" >>"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
"$work/other/build/other"

step "Debian packages: built, installed, used, removed"
(cd "$build" && cpack -B "$work/packages" >>"$work/log") || { cat "$work/log"; exit 1; }
mkdir -p "$work/root/var/lib/dpkg/updates" "$work/root/var/lib/dpkg/info"
: >"$work/root/var/lib/dpkg/status"
debian() { dpkg --root="$work/root" --force-depends --force-not-root "$@" >>"$work/log" 2>&1; }
debian -i "$work"/packages/*.deb || { cat "$work/log"; exit 1; }
"$work/root/usr/bin/fixture" boot >"$work/console" 2>&1
debian -P fixture-dev fixture
left=$(find "$work/root" -path "$work/root/var" -prune -o -type f -print)
[ -z "$left" ] || { echo "left after the removal: $left" >&2; exit 1; }
dpkg-deb -f "$work"/packages/fixture_*.deb Depends
step "good"
