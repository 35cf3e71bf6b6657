#!/usr/bin/env bash
# Builds a sanitizer tree and runs the unit and end-to-end suites in it (the
# long flood test and the package check stay in the plain build). Any
# sanitizer report fails the test it happened in.
#
#   scripts/sanitize.sh address|thread [ctest options, e.g. -R Pattern]
#
#   STAVIK_SANITIZE_BUILD  build folder (default build-asan or build-tsan in the source tree)
set -euo pipefail

mode="${1:?address or thread}"
shift
root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
case "$mode" in
    address) folder="${STAVIK_SANITIZE_BUILD:-$root/build-asan}" ;;
    thread) folder="${STAVIK_SANITIZE_BUILD:-$root/build-tsan}" ;;
    *) echo "sanitize: mode must be address or thread" >&2; exit 2 ;;
esac

start=$SECONDS
"$root/scripts/sanitizer_tree.sh" "$mode" "$folder" all
echo "sanitize $mode: built in $((SECONDS - start)) s"
start=$SECONDS
(cd "$folder" && ctest --output-on-failure -j2 --timeout 300 -LE "long|package" "$@")
echo "sanitize $mode: suites passed in $((SECONDS - start)) s"
