#!/usr/bin/env bash
# Installs what is missing, builds, and runs the program's main job (morvek-child --run).
set -euo pipefail
cd "$(dirname "$0")"
tools/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMORVEK_TESTS=OFF >/dev/null
cmake --build build --target morvek-child
exec build/morvek-child --run
