#!/bin/sh
# Format and lint, as CI checks them. `./lint.sh --fix` formats in place.
set -eu
cd "$(dirname "$0")"
sources=$(git ls-files '*.cpp' '*.h' | grep -v '^src/Images.cpp$' | grep -v '^tests/planted/')

if [ "${1:-}" = --fix ]; then
    clang-format -i $sources
    exit 0
fi
clang-format --dry-run -Werror $sources

# The bootloader reaches its platform by the include path alone, and hardware through the doors alone.
if git grep -nE '^[[:space:]]*#[[:space:]]*(if|ifdef|ifndef)\b' -- src bsp; then
    echo "src/ and bsp/ compile unchanged everywhere: no conditional compilation there" >&2
    exit 1
fi

[ -f build/host/compile_commands.json ] || { make --no-print-directory setup; cmake --preset host >/dev/null; }
echo "clang-tidy ..."
printf '%s\n' $sources | grep -E '^(src|bsp)/.*\.cpp$' |
    xargs -P 2 -n 4 clang-tidy --quiet -p build/host 2>/dev/null
echo "format and lint are clean"
