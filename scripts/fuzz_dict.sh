#!/usr/bin/env bash
# Prints the dictionary of a fuzz target: its own when it has one, else the
# tokens of the wire bodies.
set -euo pipefail
fuzz="$(cd "$(dirname "${BASH_SOURCE[0]}")/../tests/fuzz" && pwd)"
name="${1%_fuzz}"
if [ -f "$fuzz/$name.dict" ]; then
    echo "$fuzz/$name.dict"
else
    echo "$fuzz/wire.dict"
fi
