#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: unit and end-to-end
# tests through ctest, the same suites in the address and undefined-behaviour
# tree, then the bounded fuzz runs in that tree. Each step prints its time.
set -euo pipefail
cd "$(dirname "$0")/.."

step() {
    local start=$SECONDS
    "$@"
    echo "test.sh: '$*' took $((SECONDS - start)) s"
}

step ./scripts/bootstrap.sh
step ./scripts/build.sh
step bash -c 'cd build && ctest --output-on-failure -j2 --timeout 300'
step ./scripts/sanitize.sh address
step ./scripts/run_fuzz.sh
