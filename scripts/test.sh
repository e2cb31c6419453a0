#!/usr/bin/env bash
# Installs what is missing, builds everything with warnings as errors, and runs
# the whole test suite (unit, component, fuzz smoke).
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$(pwd)
BUILD=${BUILD_DIR:-$ROOT/build}
JOBS=${JOBS:-2}

bash scripts/setup.sh

cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DDHCP_WERROR=ON >/dev/null
cmake --build "$BUILD" -j"$JOBS"

cd "$BUILD"
ctest --output-on-failure --timeout 300 -j1
# Fuzz smoke: clang with the sanitizers, in its own build directory.
FUZZ=${FUZZ_BUILD_DIR:-$ROOT/build-fuzz}
cmake -S "$ROOT" -B "$FUZZ" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DDHCP_FUZZ=ON >/dev/null
cmake --build "$FUZZ" -j"$JOBS" --target fuzz_intake
ctest --test-dir "$FUZZ" -L fuzz --output-on-failure --timeout 120
