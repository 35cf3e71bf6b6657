#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: unit and end-to-end
# tests through ctest, then the bounded fuzz runs under the sanitizers.
set -euo pipefail
cd "$(dirname "$0")/.."
./scripts/bootstrap.sh
./scripts/build.sh
(cd build && ctest --output-on-failure -j2 --timeout 300)
./scripts/run_fuzz.sh
