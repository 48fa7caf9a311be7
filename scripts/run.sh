#!/usr/bin/env bash
# Installs what is missing, builds, and starts Kelo: the desktop app where there is a display, the
# text chat in the terminal otherwise.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/build.sh >&2
build_dir=${KELO_BUILD_DIR:-build}
if [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] && [ -x "$build_dir/bin/kelo-companion" ]; then
  exec "$build_dir/bin/kelo-companion" "$@"
fi
exec "$build_dir/bin/kelo" chat "$@"
