#!/usr/bin/env bash
# Installs what is missing and builds Kelo into build/ (or $KELO_BUILD_DIR).
# With KELO_SANITIZE=1 it builds the sanitizer tree instead (build-sanitize/): AddressSanitizer and
# UndefinedBehaviorSanitizer everywhere, plus the libFuzzer targets; no benchmarks.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
for step in scripts/prepare-*.sh; do
  [ -e "$step" ] && bash "$step"
done

cmake_args=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
build_dir=${KELO_BUILD_DIR:-build}
if [ "${KELO_SANITIZE:-0}" = 1 ]; then
  build_dir=${KELO_BUILD_DIR:-build-sanitize}
  cmake_args=(-DCMAKE_BUILD_TYPE=Debug -DKELO_SANITIZE=ON -DKELO_BUILD_FUZZERS=ON -DKELO_BUILD_BENCHMARKS=OFF)
fi

prefix=${KELO_PREFIX_PATH:-$HOME/.cache/kelo/whisper-prefix}
export CCACHE_DIR=${CCACHE_DIR:-$HOME/.cache/kelo/ccache}
# Paths relative to the checkout, so clones and worktrees share one cache.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD} CCACHE_NOHASHDIR=1
# A tree configured with another compiler (older checkouts used g++) is configured again from scratch.
if [ -f "$build_dir/CMakeCache.txt" ] && ! grep -q '^CMAKE_CXX_COMPILER:[A-Z]*=.*clang++-16$' "$build_dir/CMakeCache.txt"; then
  rm -rf "$build_dir"
fi
# Configured anew when there is no tree yet, or when it looks for whisper.cpp somewhere else.
if [ ! -f "$build_dir/build.ninja" ] || ! grep -qx "CMAKE_PREFIX_PATH:[A-Z]*=$prefix" "$build_dir/CMakeCache.txt"; then
  # The packages found in the old prefix are forgotten, or CMake would keep using them.
  cmake -S . -B "$build_dir" -G Ninja -DCMAKE_CXX_COMPILER=clang++-16 "${cmake_args[@]}" \
    -DCMAKE_PREFIX_PATH="$prefix" -Uwhisper_DIR -Uggml_DIR >/dev/null
fi
# AUTOMOC sometimes misses headers that arrive with a merge; dropping its stamp makes it look again
# (cheap: only changed headers are run through moc).
rm -f "$build_dir"/src/kelocore_autogen/timestamp
cmake --build "$build_dir" -- -j"$(nproc)"
