#!/usr/bin/env bash
# Long fuzzing: runs every fuzz target (or those named) for a number of inputs
# each, with an optional time cap per target, then merges what it found into
# the target's corpus in the tree (tests/fuzz/corpus/<target>/), keeping only
# inputs that add coverage. Prints one line per target: executions, seconds,
# coverage (cov and ft of libFuzzer's last status line), corpus files and
# bytes, findings. Inputs that crash, leak, hang or break a property are kept
# in the findings folder and fail the script.
#
#   scripts/fuzz_long.sh [target ...]
#
#   STAVIK_FUZZ_RUNS      inputs per target (default 10000000)
#   STAVIK_FUZZ_SECONDS   time cap per target in seconds (default 0: none)
#   STAVIK_FUZZ_BUILD     build folder (default build-asan in the source tree)
#   STAVIK_FUZZ_FINDINGS  folder for failing inputs and logs (default <build>/fuzz-findings)
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${STAVIK_FUZZ_BUILD:-$root/build-asan}"
runs="${STAVIK_FUZZ_RUNS:-10000000}"
seconds="${STAVIK_FUZZ_SECONDS:-0}"
findings="${STAVIK_FUZZ_FINDINGS:-$build/fuzz-findings}"

"$root/scripts/sanitizer_tree.sh" address "$build" stavik_fuzz >/dev/null
mkdir -p "$findings"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT

targets=("$@")
if [ "${#targets[@]}" -eq 0 ]; then
    for path in "$build"/tests/fuzz/*_fuzz; do
        targets+=("$(basename "$path")")
    done
fi

# Last value of a "key: N" field on libFuzzer's status lines.
status_field() {
    grep -o "$2: [0-9]*" "$1" | tail -n 1 | awk '{print $2}'
}

printf '%-30s %10s %7s %6s %6s %6s %8s %s\n' target executions seconds cov ft files bytes findings
failed=0
for name in "${targets[@]}"; do
    target="$build/tests/fuzz/$name"
    tree="$root/tests/fuzz/corpus/$name"
    found="$work/$name"
    mkdir -p "$tree" "$found"
    log="$findings/$name.log"
    rm -f "$findings/$name"-*
    start=$SECONDS
    result=0
    "$target" -runs="$runs" -max_total_time="$seconds" -max_len=4096 -timeout=10 -rss_limit_mb=2048 \
        -malloc_limit_mb=64 -print_final_stats=1 -dict="$("$root/scripts/fuzz_dict.sh" "$name")" \
        -artifact_prefix="$findings/$name-" "$found" "$tree" >"$log" 2>&1 || result=$?
    elapsed=$((SECONDS - start))
    executions="$(grep -o 'number_of_executed_units: [0-9]*' "$log" | awk '{print $2}')"
    cov="$(status_field "$log" cov)"
    ft="$(status_field "$log" ft)"
    # Only inputs that add coverage reach the tree.
    merged="$work/$name.merged"
    mkdir -p "$merged"
    "$target" -merge=1 -max_len=4096 -timeout=10 "$merged" "$tree" "$found" >>"$log" 2>&1 || result=1
    if [ "$result" -eq 0 ]; then
        rm -rf "$tree"
        mv "$merged" "$tree"
    fi
    artifacts="$(find "$findings" -maxdepth 1 -name "$name-*" | wc -l)"
    printf '%-30s %10s %7s %6s %6s %6s %8s %s\n' "$name" "${executions:-?}" "$elapsed" "${cov:-?}" "${ft:-?}" \
        "$(find "$tree" -type f | wc -l)" "$(find "$tree" -type f -printf '%s\n' | awk '{ sum += $1 } END { print sum + 0 }')" "$artifacts"
    if [ "$result" -ne 0 ] || [ "$artifacts" -ne 0 ]; then
        echo "  $name failed (exit $result), log and inputs in $findings"
        failed=1
    fi
done
exit $failed
