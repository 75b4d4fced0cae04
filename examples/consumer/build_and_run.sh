#!/usr/bin/env bash
# Builds the consumer against an installed vonet at PREFIX, once through the
# CMake package and once through pkg-config, and runs both.
set -euo pipefail
prefix=$(realpath "$1")
here=$(cd "$(dirname "$0")" && pwd)
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

cmake -S "$here" -B "$out/cmake" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$out/cmake" >/dev/null
(cd "$out" && "$out/cmake/consumer")

export PKG_CONFIG_PATH="$prefix/lib/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$here/main.cpp" -o "$out/consumer_pc" $(pkg-config --cflags --libs vonet) -Wl,-rpath,"$prefix/lib"
(cd "$out" && "$out/consumer_pc")
