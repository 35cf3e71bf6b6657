#!/usr/bin/env bash
# Configures a clang tree under a sanitizer and builds one target of it.
#
#   scripts/sanitizer_tree.sh address|thread FOLDER TARGET [cmake options]
#
# The address tree carries the fuzz targets too, so that the unit and
# end-to-end suites and the fuzz runs share one build. Sanitizer trees are
# built at -O1 with line tables only: enough for readable reports, and far
# quicker to build than full debug information.
set -euo pipefail

mode="$1"
folder="$2"
target="$3"
shift 3
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

extra=()
if [ "$mode" = address ]; then
    extra+=(-DSTAVIK_FUZZ=ON)
fi
CC=clang CXX=clang++ cmake -S "$root" -B "$folder" -G Ninja -DSTAVIK_SANITIZE="$mode" -DSTAVIK_BENCH=OFF \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only -DNDEBUG" \
    -DCMAKE_C_FLAGS_RELWITHDEBINFO="-O1 -gline-tables-only -DNDEBUG" "${extra[@]}" "$@" >/dev/null
cmake --build "$folder" --target "$target" -j"$(nproc)"
