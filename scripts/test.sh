#!/usr/bin/env bash
# Installs what is missing, builds, starts the services the tests talk to (private D-Bus, keyring,
# audio, speech, MCP server), runs every test and stops those services again by their PIDs.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/build.sh
build_dir=${KELO_BUILD_DIR:-build}

# shellcheck source=scripts/test-services.sh
source scripts/test-services.sh
trap kelo_stop_services EXIT
kelo_start_services

ctest --test-dir "$build_dir" --output-on-failure -j"$(nproc)" "$@"
