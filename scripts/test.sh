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
