#!/usr/bin/env bash
# Installs the library from BUILD_DIR into a scratch prefix, then builds and runs the consumer
# project against it, once through CMake and once through pkg-config.
set -euo pipefail
root="$(cd "$(dirname "$0")/../.." && pwd)"
build="${1:-$root/build}"
prefix="$(mktemp -d)"
trap 'rm -rf "$prefix"' EXIT
cmake --install "$build" --prefix "$prefix" >/dev/null
cmake -S "$root/tests/consumer" -B "$prefix/consumer-build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$prefix/consumer-build" >/dev/null
"$prefix/consumer-build/consumer"
PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig" \
  c++ -std=c++20 "$root/tests/consumer/main.cpp" -o "$prefix/consumer-pc" \
  $(PKG_CONFIG_PATH="$prefix/lib/pkgconfig:$prefix/lib/x86_64-linux-gnu/pkgconfig" pkg-config --define-prefix --cflags --libs --static morvek)
LD_LIBRARY_PATH="$prefix/lib:$prefix/lib/x86_64-linux-gnu" "$prefix/consumer-pc"
"$prefix/bin/morvek-tz" at UTC 0 | grep -q "+00:00 UTC isdst=0"
