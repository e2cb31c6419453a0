#!/usr/bin/env bash
# Main job until the software OLT lands: build and run the suite, which drives the daemon's
# layers against the scripted forwarding plane and device manager.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build -DDHCP_WERROR=ON >/dev/null
cmake --build build -j2
cd build && ctest --output-on-failure --timeout 120
