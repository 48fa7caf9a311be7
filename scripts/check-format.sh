#!/usr/bin/env bash
# Fails when a C++ source differs from what clang-format makes of it; prints the files.
# `scripts/check-format.sh --fix` rewrites them instead.
set -euo pipefail
cd "$(dirname "$0")/.."
formatter=$(command -v clang-format-16 || command -v clang-format || true)
if [[ -z "$formatter" ]]; then
    echo "clang-format-16 lipsește (scripts/install-deps.sh îl instalează)" >&2
    exit 1
fi
# The coroutine checker's fixtures are deliberately odd code.
mapfile -t files < <(find src tests bench fuzz \( -path tests/coroutine-rules -o -name node_modules \) -prune -o \
    -type f \( -name '*.cpp' -o -name '*.h' \) -print | sort)
if [[ "${1:-}" == "--fix" ]]; then
    "$formatter" -i "${files[@]}"
    exit 0
fi
unformatted=()
for file in "${files[@]}"; do
    if ! "$formatter" --dry-run --Werror "$file" >/dev/null 2>&1; then
        unformatted+=("$file")
    fi
done
if ((${#unformatted[@]})); then
    printf 'needs clang-format: %s\n' "${unformatted[@]}" >&2
    echo "run scripts/check-format.sh --fix" >&2
    exit 1
fi
echo "clang-format: ${#files[@]} files clean"
