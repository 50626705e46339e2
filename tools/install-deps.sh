#!/usr/bin/env bash
# Installs the Debian packages the project needs; does nothing when all are present.
# Usage: tools/install-deps.sh [--bench] [--regen]
#   --bench  also the peers the benchmarks compare against (never linked into the library)
#   --regen  also what regenerating the Unicode tables needs
set -euo pipefail

packages=(cmake ninja-build g++ clang libclang-rt-14-dev pkg-config git
  libpcre2-dev libdouble-conversion-dev libgtest-dev libgmock-dev libbenchmark-dev tzdata)
for arg in "$@"; do
  case "$arg" in
    --bench) packages+=(libabsl-dev libfmt-dev libspdlog-dev libutf8proc-dev liblog4cpp5-dev) ;;
    --regen) packages+=(unicode-data python3) ;;
    *) echo "unknown option: $arg" >&2; exit 2 ;;
  esac
done

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then sudo=(); else sudo=(sudo); fi
"${sudo[@]}" apt-get update -qq
DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
