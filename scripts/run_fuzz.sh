#!/usr/bin/env bash
# Builds the libFuzzer targets in the address and undefined-behaviour tree
# (shared with the sanitizer suites), and runs each for a bounded number of
# inputs from its corpus in the tree. Any crash, leak, hang, oversized
# allocation or broken property fails the script.
#
#   STAVIK_FUZZ_RUNS   inputs per target (default 20000)
#   STAVIK_FUZZ_BUILD  build folder (default build-asan in the source tree)
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${STAVIK_FUZZ_BUILD:-$root/build-asan}"
runs="${STAVIK_FUZZ_RUNS:-20000}"

"$root/scripts/sanitizer_tree.sh" address "$build" stavik_fuzz

work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

failed=0
for target in "$build"/tests/fuzz/*_fuzz; do
    name="$(basename "$target")"
    # Inputs found on the way go to a scratch corpus, never into the tree.
    corpus="$work/$name"
    mkdir -p "$corpus"
    if [ -d "$root/tests/fuzz/corpus/$name" ]; then
        cp "$root/tests/fuzz/corpus/$name"/* "$corpus"/
    fi
    start=$SECONDS
    if "$target" -runs="$runs" -max_len=4096 -timeout=5 -rss_limit_mb=1024 -malloc_limit_mb=64 \
        -dict="$("$root/scripts/fuzz_dict.sh" "$name")" -artifact_prefix="$work/$name-" "$corpus" >"$work/$name.log" 2>&1; then
        echo "fuzz $name: $runs runs, $((SECONDS - start)) s, ok"
    else
        echo "fuzz $name: FAILED"
        tail -n 40 "$work/$name.log"
        for artifact in "$work/$name"-*; do
            if [ -e "$artifact" ]; then
                echo "input $(basename "$artifact"):"
                od -An -c "$artifact" | head -n 8
            fi
        done
        failed=1
    fi
done
exit $failed
