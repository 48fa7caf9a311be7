#!/usr/bin/env bash
# Installs the Debian package as a user would, uses the installed programs, then removes it and what it
# pulled in. It changes /usr, so it runs only as root and when asked: CI=true or KELO_TEST_INSTALL=1.
# Usage: package_install_test.sh BUILD_DIR FAKE_MODEL_SERVICE
set -euo pipefail
build=$1
fake_service=$2

if [ "$(id -u)" -ne 0 ] || { [ "${CI:-}" != true ] && [ "${KELO_TEST_INSTALL:-}" != 1 ]; }; then
  echo "SKIP: installs into /usr; runs only as root with CI=true or KELO_TEST_INSTALL=1"
  exit 77
fi
if dpkg-query -W -f='${Status}' kelo 2>/dev/null | grep -q 'install ok installed'; then
  echo "SKIP: a kelo package is already installed here; it is left alone"
  exit 77
fi

cmake --build "$build" --target package >/dev/null
deb=$(ls -t "$build"/kelo_*_amd64.deb | head -n1)

work=$(mktemp -d)
installed_packages() { dpkg-query -W -f='${db:Status-Abbrev} ${Package}\n' | awk '$1 == "ii" { print $2 }' | sort; }
installed_packages >"$work/before"
: >"$work/pulled-in"
# Other programs may use apt meanwhile: wait for its lock instead of failing.
apt=(env DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=600 -y -qq)
service_pid=
cleanup() {
  [ -z "$service_pid" ] || kill "$service_pid" 2>/dev/null || true
  "${apt[@]}" remove kelo >/dev/null 2>&1 || dpkg -r kelo >/dev/null 2>&1 || true
  # What the installation pulled in goes too; never a package someone else installed meanwhile.
  [ ! -s "$work/pulled-in" ] || "${apt[@]}" purge $(cat "$work/pulled-in") >/dev/null 2>&1 || true
  rm -rf "$work"
}
trap cleanup EXIT

fail() { echo "FAIL: $*" >&2; exit 1; }

"${apt[@]}" install "$deb" >/dev/null 2>"$work/apt.err" || { cat "$work/apt.err" >&2; fail "apt-get install $deb"; }
installed_packages | comm -13 "$work/before" - | grep -vx kelo | grep -Fxf <(apt-mark showauto) >"$work/pulled-in" || true
dpkg-query -W -f='${db:Status-Abbrev}' kelo | grep -q '^ii' || fail "kelo is not installed"

# A user of its own: fresh XDG directories, keys in the protected file.
export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_DATA_HOME=$work/home/.local/share
export XDG_CACHE_HOME=$work/home/.cache XDG_RUNTIME_DIR=$work/runtime KELO_SECRET_STORE=file
mkdir -p "$HOME" "$XDG_RUNTIME_DIR" && chmod 700 "$XDG_RUNTIME_DIR"

[ "$(/usr/bin/kelo --version)" = "kelo $(dpkg-query -W -f='${Version}' kelo)" ] || fail "kelo --version"

"$fake_service" "Bună, sunt Kelo cel instalat." >"$work/service.url" &
service_pid=$!
for _ in $(seq 50); do [ -s "$work/service.url" ] && break; sleep 0.1; done
export KELO_ZEN_BASE_URL=$(cat "$work/service.url") KELO_ZEN_API_KEY=cheie-de-test

answer=$(/usr/bin/kelo ask "Salut" 2>"$work/ask.err") || { cat "$work/ask.err" >&2; fail "kelo ask"; }
[ "$answer" = "Bună, sunt Kelo cel instalat." ] || fail "kelo ask answered: $answer"

# The voice turn may lack a microphone on this machine; what the package brings must be there.
/usr/bin/kelo doctor --live >"$work/doctor.out" 2>/dev/null || true
cat "$work/doctor.out"
grep -q '^OK  Cheia OpenCode Zen: Conectat' "$work/doctor.out" || fail "doctor: the key"
grep -q '^OK  Adresele kelo://' "$work/doctor.out" || fail "doctor: the kelo:// handler of the installed desktop entry"
grep -q '^OK  speech-dispatcher și vocea română' "$work/doctor.out" || fail "doctor: the local voice"
! grep -v -e '^OK  ' -e '^!!  ' -e '^$' -e '^O tură vocală' -e '^Kelo are tot' "$work/doctor.out" || fail "doctor: a line that is neither OK nor !!"

desktop=/usr/share/applications/ro.kelo.KeloCompanion.desktop
desktop-file-validate "$desktop" || fail "desktop-file-validate"
appstreamcli validate --no-net /usr/share/metainfo/ro.kelo.KeloCompanion.metainfo.xml >/dev/null \
  || fail "appstreamcli validate"
[ -f /usr/share/icons/hicolor/scalable/apps/ro.kelo.KeloCompanion.svg ] || fail "the icon"

# Their content is checked against the build (shell_integration_test.sh); here, that they are installed.
man -w kelo kelo-companion >/dev/null 2>&1 || fail "the manual pages"
[ -f /usr/share/bash-completion/completions/kelo ] || fail "the bash completion"

# The app as the menu starts it: the desktop entry's Exec line, without a display. It must still be
# running after a few seconds, with no QML module missing.
exec_line=$(sed -n 's/^Exec=//p' "$desktop" | sed 's/ %[uUfF]//')
set +e
QT_QPA_PLATFORM=offscreen timeout 6 dbus-run-session -- $exec_line >"$work/app.log" 2>&1
status=$?
set -e
[ "$status" = 124 ] || { cat "$work/app.log" >&2; fail "$exec_line ended by itself ($status)"; }
! grep -E 'is not installed|module .* not found|failed to load|QQmlApplicationEngine failed' "$work/app.log" \
  || fail "$exec_line: QML import errors"
echo "the installed package works"
cleanup
trap - EXIT
! dpkg-query -W -f='${db:Status-Abbrev}' kelo 2>/dev/null | grep -q '^ii' || fail "kelo is still installed"
[ ! -e /usr/bin/kelo ] || fail "/usr/bin/kelo is left behind"
