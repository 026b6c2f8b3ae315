#!/bin/sh
# Format and lint the whole tree, as CI checks it. `./lint.sh --fix` formats in place.
set -eu
cd "$(dirname "$0")"
sources=$(git ls-files '*.cpp' '*.h' | grep -v -e '^src/Images.cpp$' -e '^tests/planted/')

if [ "${1:-}" = --fix ]; then
    clang-format -i $sources
    exit 0
fi
clang-format --dry-run -Werror $sources
lint/check.py

# The bootloader reaches its platform by the include path alone, and hardware through the doors alone.
if git grep -nE '^[[:space:]]*#[[:space:]]*(if|ifdef|ifndef)\b' -- src bsp; then
    echo "src/ and bsp/ compile unchanged everywhere: no conditional compilation there" >&2
    exit 1
fi

echo "clang-tidy ..."
cmake --preset lint >/dev/null
cmake --build build/lint --target build-record >/dev/null
lint/tidy.py
echo "format and lint are clean"
