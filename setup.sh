#!/bin/sh
# Installs the Debian packages that the build needs, and only those that are missing. Needs root or sudo; without
# either it prints the one command to run.
set -eu

packages="
cmake ninja-build g++ pkg-config binutils git patch
gcc-arm-none-eabi libnewlib-arm-none-eabi libstdc++-arm-none-eabi-newlib
libunicorn-dev libelf-dev libdw-dev libcli11-dev libfmt-dev nlohmann-json3-dev
libpng-dev libgif-dev libchafa-dev libglib2.0-dev
libgtest-dev libgmock-dev sigrok-cli spin z3 python3-jsonschema
"
# Only what CI, `make test`, `make lint`, `make fuzz`, `make mcdc`, `make deb` and `make cluster-test` use beyond that.
case "${1:-}" in
--lint) packages="$packages clang-format clang-tidy python3" ;;
--test) packages="$packages gdb gdb-multiarch chromium python3-clang" ;;
--package) packages="$packages dpkg-dev file zsh fish groff-base" ;;
--cluster) packages="$packages slurm-wlm munge" ;;
--fuzz) packages="$packages clang libclang-rt-14-dev" ;;
--cover) packages="$packages clang-19 llvm-19 libclang-rt-19-dev" ;;
esac

missing=
for package in $packages; do
    state=$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null || true)
    case "$state" in "install ok installed") ;; *) missing="$missing $package" ;; esac
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" = 0 ]; then
    run=
elif command -v sudo >/dev/null 2>&1 && { sudo -n true 2>/dev/null || [ -t 0 ]; }; then
    run=sudo
else
    echo "Packages are missing. As root, run:" >&2
    echo "    apt-get update && apt-get install -y --no-install-recommends$missing" >&2
    exit 1
fi
echo "installing:$missing"
$run apt-get update -qq
$run env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $missing
