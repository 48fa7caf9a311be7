#!/usr/bin/env bash
# Installs what is missing, builds, starts the services the tests talk to (private D-Bus, keyring,
# audio, speech, MCP server), runs every test, then runs them all again in the sanitizer build
# (AddressSanitizer + UndefinedBehaviorSanitizer; any report fails) followed by every fuzz target for a
# bounded time, and stops those services again by their PIDs.
# KELO_SKIP_SANITIZERS=1 runs only the first pass (quick local checks).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/build.sh
if [ "${KELO_SKIP_SANITIZERS:-0}" != 1 ]; then
  KELO_SANITIZE=1 bash scripts/build.sh
fi

# shellcheck source=scripts/test-services.sh
source scripts/test-services.sh
trap kelo_stop_services EXIT
kelo_start_services

ctest --test-dir "${KELO_BUILD_DIR:-build}" --output-on-failure -j"$(nproc)" "$@"
if [ "${KELO_SKIP_SANITIZERS:-0}" != 1 ]; then
  echo "kelo: din nou, sub AddressSanitizer și UndefinedBehaviorSanitizer" >&2
  ASAN_SYMBOLIZER_PATH=${ASAN_SYMBOLIZER_PATH:-/usr/lib/llvm-16/bin/llvm-symbolizer} \
  ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1} \
  LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$PWD/scripts/sanitizer/lsan.supp:print_suppressions=0} \
  UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1} \
    ctest --test-dir build-sanitize --output-on-failure -j"$(nproc)" "$@"
  bash scripts/run-fuzzers.sh build-sanitize
fi
