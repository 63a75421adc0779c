#!/usr/bin/env bash
# Builds the library and the corvanth tool, and runs the tool's demo.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
cmake -S . -B build-demo -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCORVANTH_BUILD_TESTS=OFF -DCORVANTH_BUILD_BENCH=OFF >/dev/null
cmake --build build-demo --target corvanth
./build-demo/tools/corvanth --version
./build-demo/tools/corvanth log-demo
