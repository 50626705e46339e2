#!/usr/bin/env bash
# Installs what is missing, builds everything and runs the whole test suite.
# Extra arguments go to cmake's configure step (for example -DMORVEK_SANITIZE=address);
# BUILD_DIR selects the build directory; BUILD_TYPE the CMake build type (RelWithDebInfo); CTEST_ARGS narrows the run (for example "-R ^Thread").
set -euo pipefail
cd "$(dirname "$0")"
tools/install-deps.sh
build=${BUILD_DIR:-build}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" -DMORVEK_TESTS=ON \
  -DMORVEK_WERROR=ON "$@" >/dev/null
cmake --build "$build"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" ${CTEST_ARGS:-}
