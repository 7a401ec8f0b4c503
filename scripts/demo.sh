#!/usr/bin/env bash
# scripts/demo.sh: builds libVload and the vload tool, then describes the
# example files and converts each to PNG in build/examples-out/.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh
need_packages "${BUILD_PACKAGES[@]}"

cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DVLOAD_TESTS=OFF >/dev/null
cmake --build build/release -j "$(jobs)"

out=build/examples-out
mkdir -p "$out"
for f in examples/files/*; do
  png="$out/$(basename "${f%.*}").png"
  build/release/vload info "$f"
  build/release/vload convert --quiet "$f" "$png"
  echo "  converted:  $png"
  echo
done
