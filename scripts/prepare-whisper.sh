#!/usr/bin/env bash
# Builds whisper.cpp as static libraries into the prefix the build passes as CMAKE_PREFIX_PATH.
# The sources come from the npm package that carries them, pinned by its sha512; everything happens
# outside the checkout and is cached, so a second run only compares a stamp file.
set -euo pipefail

package=nodejs-whisper
version=0.3.1
integrity='sha512-ceoilUVraRuR5FnNyXpGQT2auAR48Oc3AQBEmkXnVpSn9iN6yVRzQBFCqVTGWbk6Wdi95NhvwXNzFvuR7erLWw=='

cache=${KELO_CACHE_DIR:-$HOME/.cache/kelo}
prefix=${KELO_PREFIX_PATH:-$cache/whisper-prefix}
stamp="$prefix/share/kelo/whisper.stamp"
# The build options belong to the stamp: a cache built with other options is rebuilt.
# ggml's own thread pool rather than OpenMP: no OpenMP runtime to install or ship. Measured on 2 cores
# (bench_whisper), libomp and the own pool are alike quiet and alike under a full load, and g++'s
# libgomp spin-waits. KELO_WHISPER_OPENMP=ON builds the other way, for comparison.
options=(-DGGML_OPENMP=${KELO_WHISPER_OPENMP:-OFF})
compilers=(-DCMAKE_C_COMPILER=clang-16 -DCMAKE_CXX_COMPILER=clang++-16)
wanted="$package@$version $integrity ${options[*]} ${compilers[*]}"

if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$wanted" ] && [ -f "$prefix/lib/cmake/whisper/whisper-config.cmake" ]; then
  exit 0
fi

work="$cache/whisper"
mkdir -p "$work"
tarball="$work/$package-$version.tgz"

verify() {
  local actual
  actual="sha512-$(openssl dgst -sha512 -binary "$1" | base64 -w0)"
  [ "$actual" = "$integrity" ]
}

if [ ! -f "$tarball" ] || ! verify "$tarball"; then
  rm -f "$tarball"
  echo "kelo: se descarcă sursele whisper.cpp ($package@$version)" >&2
  (cd "$work" && npm pack --silent "$package@$version" >/dev/null)
  if ! verify "$tarball"; then
    echo "kelo: arhiva $package@$version nu are suma sha512 așteptată; o șterg" >&2
    rm -f "$tarball"
    exit 1
  fi
fi

src="$work/src-$version"
rm -rf "$src"
mkdir -p "$src"
tar -xzf "$tarball" -C "$src" package/cpp/whisper.cpp

launcher=()
if command -v ccache >/dev/null 2>&1; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  export CCACHE_DIR=${CCACHE_DIR:-$cache/ccache}
fi
generator=()
command -v ninja >/dev/null 2>&1 && generator=(-G Ninja)

build="$work/build-$version"
rm -rf "$build"
echo "kelo: se compilează whisper.cpp (static) în $prefix" >&2
cmake -S "$src/package/cpp/whisper.cpp" -B "$build" "${generator[@]}" "${launcher[@]}" \
  -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_POSITION_INDEPENDENT_CODE=ON \
  -DBUILD_SHARED_LIBS=OFF -DWHISPER_BUILD_TESTS=OFF -DWHISPER_BUILD_EXAMPLES=OFF \
  -DWHISPER_BUILD_SERVER=OFF "${options[@]}" "${compilers[@]}" >/dev/null
cmake --build "$build" -j"$(nproc)" >/dev/null
cmake --install "$build" >/dev/null
# The installed package config checks that its bin directory exists.
mkdir -p "$prefix/bin" "$(dirname "$stamp")"
printf '%s' "$wanted" >"$stamp"
rm -rf "$build" "$src"
