# A private session bus; everything else that talks D-Bus (keyring, speech) attaches to it.
start_dbus() {
  local out
  out=$(dbus-daemon --session --fork --nopidfile --print-address=1 --print-pid=1) || return 1
  export DBUS_SESSION_BUS_ADDRESS=$(sed -n 1p <<<"$out")
  echo "$(sed -n 2p <<<"$out")" >"$KELO_SERVICE_RUNTIME/dbus.pid"
}

stop_dbus() {
  kelo_kill_pidfile "$KELO_SERVICE_RUNTIME/dbus.pid"
}
