#!/usr/bin/env bash
# Installs every Debian 12 package Kelo needs to build, run and test. Idempotent: packages already
# present are skipped, so a second run costs a dpkg query and nothing else.
set -euo pipefail

packages=(
  # build: clang 16 (g++ 12 miscompiles coroutines), its sanitizer and libFuzzer runtimes
  build-essential cmake ninja-build ccache pkg-config clang-16 libclang-rt-16-dev libfuzzer-16-dev llvm-16
  clang-format-16 git
  # the coroutine rules check (scripts/check-coroutines.py)
  python3
  # checks the sha512 of the whisper.cpp source tarball (scripts/prepare-whisper.sh)
  openssl
  # Qt core stack
  qt6-base-dev qt6-base-dev-tools qt6-declarative-dev qt6-declarative-dev-tools qt6-httpserver-dev
  qt6-websockets-dev qt6-multimedia-dev qt6-speech-dev qt6-speech-speechd-plugin qt6-5compat-dev
  qt6-svg-dev qt6-tools-dev-tools qcoro-qt6-dev qtkeychain-qt6-dev libedit-dev libmpg123-dev
  # QML modules the app and qmllint load
  qml6-module-qtquick qml6-module-qtquick-controls qml6-module-qtquick-layouts qml6-module-qtquick-shapes
  qml6-module-qtquick-window qml6-module-qtquick-templates qml6-module-qtquick-dialogs
  qml6-module-qt5compat-graphicaleffects qml6-module-qttest qml6-module-qtqml qml6-module-qtqml-models
  qml6-module-qtquick-tooling qml6-module-qtcore qml6-module-qt-labs-platform qml6-module-qtqml-workerscript
  qt6-qpa-plugins qt6-wayland libqt6svg6
  # the views' icons (freedesktop names, symbolic set)
  adwaita-icon-theme
  # runtime services: secrets, audio, local voice
  dbus dbus-x11 gnome-keyring libsecret-tools pulseaudio pulseaudio-utils speech-dispatcher
  speech-dispatcher-espeak-ng espeak-ng libespeak-ng-dev
  # test and benchmark tooling
  xvfb xauth xdotool lame sox appstream desktop-file-utils libbenchmark-dev
  # the Debian package (dpkg-shlibdeps), its install test and the scheme-handler check of kelo doctor
  dpkg-dev xdg-utils man-db
)
# npm fetches the whisper.cpp sources and the MCP test server; a machine that already has a Node.js
# with npm keeps it, since Debian's npm conflicts with the bundled one of other Node builds.
command -v npm >/dev/null 2>&1 || packages+=(nodejs npm)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "kelo: se instalează ${#missing[@]} pachete: ${missing[*]}" >&2
  export DEBIAN_FRONTEND=noninteractive
  sudo_cmd=()
  [ "$(id -u)" -eq 0 ] || sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
