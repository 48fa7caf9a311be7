# GNOME Keyring's Secret Service on the private bus, with a throw-away keyring unlocked by a fixed
# password, so the keychain tests talk to the real thing and never to the developer's keyring.
start_keyring() {
  command -v gnome-keyring-daemon >/dev/null || return 1
  [ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ] || return 1
  local data="$KELO_SERVICE_RUNTIME/keyring-data"
  mkdir -m 700 -p "$data"
  # Only the daemon gets the fresh data dir; the tests keep their own XDG directories. It forks and
  # prints nothing useful about itself, so its PID is asked from the bus below.
  printf 'kelo-test' | XDG_DATA_HOME="$data" gnome-keyring-daemon --unlock --components=secrets \
    >/dev/null 2>"$KELO_SERVICE_RUNTIME/keyring.log" || return 1
  local _
  for _ in $(seq 100); do
    if keyring_bus_call NameHasOwner | grep -q true; then
      keyring_bus_call GetConnectionUnixProcessID | awk '{print $2}' >"$KELO_SERVICE_RUNTIME/keyring.pid"
      [ -s "$KELO_SERVICE_RUNTIME/keyring.pid" ] && return 0
    fi
    sleep 0.1
  done
  echo "kelo: gnome-keyring-daemon nu a preluat org.freedesktop.secrets" >&2
  return 1
}

stop_keyring() {
  kelo_kill_pidfile "$KELO_SERVICE_RUNTIME/keyring.pid"
}

keyring_bus_call() {
  dbus-send --session --print-reply=literal --dest=org.freedesktop.DBus /org/freedesktop/DBus \
    "org.freedesktop.DBus.$1" string:org.freedesktop.secrets 2>/dev/null
}
