#!/usr/bin/env bash
# Main job until the software OLT lands: build, then run the component tests that start
# the daemon against the scripted forwarding plane and device manager.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DDHCP_WERROR=ON >/dev/null
cmake --build build -j2
cd build && ctest --output-on-failure --timeout 120
