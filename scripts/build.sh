#!/usr/bin/env bash
# Installs what is missing and builds Kelo into build/ (or $KELO_BUILD_DIR).
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
for step in scripts/prepare-*.sh; do
  [ -e "$step" ] && bash "$step"
done

build_dir=${KELO_BUILD_DIR:-build}
export CCACHE_DIR=${CCACHE_DIR:-$HOME/.cache/kelo/ccache}
# Paths relative to the checkout, so clones and worktrees share one cache.
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD} CCACHE_NOHASHDIR=1
if [ ! -f "$build_dir/build.ninja" ]; then
  cmake -S . -B "$build_dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_PREFIX_PATH="${KELO_PREFIX_PATH:-$HOME/.cache/kelo/prefix}" >/dev/null
fi
# AUTOMOC sometimes misses headers that arrive with a merge; dropping its stamp makes it look again
# (cheap: only changed headers are run through moc).
rm -f "$build_dir"/src/kelocore_autogen/timestamp
cmake --build "$build_dir" -- -j"$(nproc)"
