#!/usr/bin/env bash
# The main job in one command: installs what a fresh Debian 12 machine
# lacks, builds vonet (optimised) and boxes the faces of a photo with the
# bundled face detector, printing the boxes and writing an annotated PNG.
#   bash scripts/detect.sh [IMAGE] [OUT.png]
# Defaults: the bundled photo tests/data/photos/test1.jpg and
# build/faces.png. VONET_BUILD_DIR picks another build folder.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${VONET_BUILD_DIR:-build}
image=${1:-tests/data/photos/test1.jpg}
out=${2:-$build/faces.png}
bash scripts/install-deps.sh
echo "building vonet in $build/ (the first time takes a few minutes)" >&2
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$build" -j"$(nproc)" --target vonet_tool >/dev/null
mkdir -p "$(dirname "$out")"
"$build/tools/vonet" detect "$image" -o "$out"
echo "boxes drawn into $out" >&2
