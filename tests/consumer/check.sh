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
"$prefix/bin/morvek-tz" tzstring America/New_York 1732000000 | grep -qx "EST5EDT,M3.2.0,M11.1.0"
"$prefix/bin/morvek-tz" serialize Asia/Tokyo | "$prefix/bin/morvek-tz" deserialize - | grep -q "JST isdst=0"
# The installed timestamp tool and the pattern file beside it.
test -f "$prefix/share/morvek/timestamp-patterns.conf"
printf '2024-03-10 01:59:59 sshd[7]: started\n  detail\n' |
  "$prefix/bin/morvek-ts" --tz America/New_York --now 2024-03-10T12:00:00Z | cut -f1 |
  paste -sd' ' | grep -qx "2024-03-10T01:59:59-05:00 ~2024-03-10T01:59:59-05:00"
