#!/usr/bin/env bash
# Runs every libFuzzer target of BUILD_DIR (a tree built with KELO_SANITIZE=ON KELO_BUILD_FUZZERS=ON)
# for SECONDS each (default 15): first every input kept in fuzz/regressions/<target>/, then fuzzing on
# a copy of fuzz/corpus/<target>/, so the checkout is never modified. One summary line per target.
# Exits non-zero on any crash, leak, time-out or memory blow-up; the input that caused it is kept
# under $KELO_FUZZ_ARTIFACTS (default BUILD_DIR/fuzz-artifacts) and its path printed.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -lt 1 ] || [ $# -gt 2 ]; then
  echo "usage: $0 BUILD_DIR [SECONDS]" >&2
  exit 2
fi
build_dir=$(cd "$1" && pwd)
seconds=${2:-15}
artifacts=${KELO_FUZZ_ARTIFACTS:-$build_dir/fuzz-artifacts}
# Several targets go through files: in memory (/dev/shm) they run ten times as many inputs.
scratch=${KELO_FUZZ_TMPDIR:-${TMPDIR:-/tmp}}
[ -z "${KELO_FUZZ_TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ] && scratch=/dev/shm
work=$(mktemp -d "$scratch/kelo-fuzz.XXXXXX")
trap 'rm -rf "$work"' EXIT

# Reports with symbols, and the same leak suppressions as the sanitizer test run.
export ASAN_SYMBOLIZER_PATH=${ASAN_SYMBOLIZER_PATH:-/usr/lib/llvm-16/bin/llvm-symbolizer}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export LSAN_OPTIONS=${LSAN_OPTIONS:-suppressions=$PWD/scripts/sanitizer/lsan.supp:print_suppressions=0}
# The targets keep their private temporary files inside the work directory.
export TMPDIR=$work QT_QPA_PLATFORM=offscreen

base_asan_options=${ASAN_OPTIONS:-}
mapfile -t targets < <(cd fuzz/corpus && ls -d fuzz_* | sort)
failed=0
for target in "${targets[@]}"; do
  binary=$build_dir/fuzz/$target
  if [ ! -x "$binary" ]; then
    echo "$target: not built ($binary missing)"
    failed=1
    continue
  fi
  kept=$artifacts/$target
  # A target may need its own sanitizer options; the file says why.
  options=$(grep -v '^#' "fuzz/asan-options/$target" 2>/dev/null | tr -d '\n' || true)
  export ASAN_OPTIONS=${base_asan_options}${options:+${base_asan_options:+:}$options}
  mkdir -p "$kept" "$work/corpus/$target"
  log=$work/$target.log

  regressions=()
  if [ -d "fuzz/regressions/$target" ]; then
    mapfile -t regressions < <(find "fuzz/regressions/$target" -type f | sort)
  fi
  if [ ${#regressions[@]} -gt 0 ] \
    && ! "$binary" -rss_limit_mb=2048 -timeout=10 -artifact_prefix="$kept/" "${regressions[@]}" >"$log" 2>&1; then
    echo "$target: a regression input fails again"
    grep -E '^(==[0-9]+==ERROR|SUMMARY|Running: |fuzz expectation|qFatal)' "$log" | tail -n 6 | sed 's/^/    /' || true
    failed=1
    continue
  fi

  cp -r "fuzz/corpus/$target/." "$work/corpus/$target/"
  dictionary=()
  [ -f "fuzz/dictionaries/$target.dict" ] && dictionary=(-dict="fuzz/dictionaries/$target.dict")
  status=0
  "$binary" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 \
    -artifact_prefix="$kept/" "${dictionary[@]}" "$work/corpus/$target" >"$log" 2>&1 || status=$?

  runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
  added=$(sed -n 's/^stat::new_units_added: *//p' "$log" | tail -n 1)
  coverage=$(grep -oE 'cov: [0-9]+' "$log" | tail -n 1 | cut -d' ' -f2 || true)
  summary="$target: ${runs:-?} runs, ${added:-?} new inputs, coverage ${coverage:-?}"
  if [ "$status" -eq 0 ]; then
    echo "$summary, no crash"
  else
    input=$(grep -oE "(Test unit written to|written to) [^ ]+" "$log" | tail -n 1 | awk '{print $NF}' || true)
    echo "$summary, FAILED (exit $status); input kept at ${input:-$kept}"
    grep -E '^(==[0-9]+==ERROR|SUMMARY|fuzz expectation|qFatal|ALARM|==[0-9]+== ERROR)' "$log" | tail -n 6 | sed 's/^/    /' || true
    failed=1
  fi
done
exit $failed
