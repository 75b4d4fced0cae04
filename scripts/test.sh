#!/usr/bin/env bash
# Installs what a fresh Debian 12 machine lacks, builds vonet (optimised) and
# runs every test, printing the output of any that fail.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-deps.sh
jobs=$(nproc)
cmake -S . -B build -DCMAKE_BUILD_TYPE=Release
cmake --build build -j"$jobs"
ctest --test-dir build --output-on-failure -j"$jobs"
