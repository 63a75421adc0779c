#!/usr/bin/env bash
# Builds the library, its tests and benchmarks, and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCORVANTH_WERROR="${CORVANTH_WERROR:-OFF}" >/dev/null
cmake --build build
ctest --test-dir build --output-on-failure -j2
