#!/usr/bin/env bash
# Starts and stops the real services the tests use, in a private runtime directory so nothing of the
# developer's session is touched. Each service is a file in scripts/services/ defining
# start_<name> and stop_<name>; they start in file-name order and stop in reverse.
# Sourced by scripts/test.sh; exports what the tests need (DBUS_SESSION_BUS_ADDRESS, XDG_RUNTIME_DIR…).

kelo_services_dir="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)/services"
kelo_started_services=()

kelo_start_services() {
  KELO_SERVICE_RUNTIME=$(mktemp -d /tmp/kelo-services.XXXXXX)
  chmod 700 "$KELO_SERVICE_RUNTIME"
  export KELO_SERVICE_RUNTIME
  export XDG_RUNTIME_DIR="$KELO_SERVICE_RUNTIME/runtime"
  mkdir -m 700 -p "$XDG_RUNTIME_DIR"
  local file name
  for file in "$kelo_services_dir"/*.sh; do
    [ -e "$file" ] || continue
    # shellcheck disable=SC1090
    source "$file"
    name=$(basename "$file" .sh)
    name=${name#*-}
    if "start_$name"; then
      kelo_started_services+=("$name")
    else
      echo "kelo: serviciul de test '$name' nu a pornit; testele care au nevoie de el vor fi omise" >&2
    fi
  done
}

kelo_stop_services() {
  local i
  for ((i = ${#kelo_started_services[@]} - 1; i >= 0; i--)); do
    "stop_${kelo_started_services[i]}" || true
  done
  kelo_started_services=()
  [ -n "${KELO_SERVICE_RUNTIME:-}" ] && rm -rf "$KELO_SERVICE_RUNTIME"
}

# Stops a process by the PID kept in a file, waiting briefly for it to go.
kelo_kill_pidfile() {
  local pidfile=$1 pid
  [ -f "$pidfile" ] || return 0
  pid=$(cat "$pidfile")
  kill "$pid" 2>/dev/null || return 0
  for _ in $(seq 50); do
    kill -0 "$pid" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -9 "$pid" 2>/dev/null || true
}
