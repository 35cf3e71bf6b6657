#!/usr/bin/env bash
# Configures the default tree in build/ and builds all of it, or only the
# targets named as arguments (with what they need).
set -euo pipefail
cd "$(dirname "$0")/.."
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
targets=()
for target in "$@"; do
  targets+=(--target "$target")
done
cmake --build build -j"$(nproc)" "${targets[@]}"
