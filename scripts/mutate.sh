#!/usr/bin/env bash
# Mutation testing: applies one simple mutant at a time to chosen source files
# (scripts/mutants.py makes them), rebuilds incrementally, runs the test
# programs that cover the file, and reports each mutant as killed, survived or
# stillborn (did not build). The source tree is changed in place while it runs
# and put back after each mutant, so run it in a tree nobody edits meanwhile.
#
#   scripts/mutate.sh [-s SEED] [-n COUNT] [-k K/N] [-b BUILD] [-l LIST] [-o REPORT] [-f REPORT]
#   scripts/mutate.sh -r REPORT...      sums up finished reports
#
# LIST (default scripts/mutate.list) names, a line each, a source file and the
# test programs to run against its mutants, fastest first; a program may carry
# a gtest filter after a colon. -k K/N runs every N-th mutant of the sample from
# the K-th, so that N trees can share one sample. -f runs only the mutants of
# the sample that survived in an earlier report, to see new tests kill them.
set -euo pipefail

root="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
seed=1
count=150
shard="1/1"
build="$root/build-mutate"
list="$root/scripts/mutate.list"
report=""
summary=0
previous=""
while getopts "s:n:k:b:l:o:f:r" opt; do
    case $opt in
        s) seed=$OPTARG ;;
        n) count=$OPTARG ;;
        k) shard=$OPTARG ;;
        b) build=$OPTARG ;;
        l) list=$OPTARG ;;
        o) report=$OPTARG ;;
        f) previous=$OPTARG ;;
        r) summary=1 ;;
        *) sed -n '2,17p' "$0"; exit 2 ;;
    esac
done
shift $((OPTIND - 1))

Summary() {
    cat "$@" | awk -F'\t' '
        { n[$1]++ }
        $1 == "SURVIVED" { print "survived: " $2 ":" $3 ":" $4 " " $7 " (" $5 " -> " $6 ")" }
        END {
            live = n["KILLED"] + n["SURVIVED"]
            printf "mutants %d: killed %d, survived %d, stillborn %d; kill rate %.1f%%\n",
                NR, n["KILLED"], n["SURVIVED"], n["STILLBORN"], live ? 100 * n["KILLED"] / live : 0
        }'
}

if [ "$summary" = 1 ]; then
    Summary "$@"
    exit 0
fi

shardIndex=${shard%/*}
shardCount=${shard#*/}
report="${report:-$build/mutants-$seed.tsv}"
declare -A programs
files=()
while read -r file tests; do
    case "$file" in ''|'#'*) continue ;; esac
    files+=("$file")
    programs[$file]="$tests"
done < "$list"

if [ ! -f "$build/build.ninja" ]; then
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
fi

Targets() {
    local p
    echo stavik-daemon
    for p in ${programs[$1]}; do echo "${p%%:*}"; done
}

Build() {
    # shellcheck disable=SC2046
    cmake --build "$build" --target $(Targets "$1" | sort -u) < /dev/null > "$build/mutant-build.log" 2>&1
}

# The first program that fails kills the mutant; a hang counts as a failure.
RunTests() {
    local p program filter
    for p in ${programs[$1]}; do
        program="${p%%:*}"
        filter="*"
        [ "$p" != "$program" ] && filter="${p#*:}"
        if ! STAVIK_BINARY_DIR="$build" timeout 300 "$build/tests/$program" --gtest_fail_fast \
            --gtest_filter="$filter" < /dev/null > "$build/mutant-test.log" 2>&1; then
            echo "$program"
            return 1
        fi
    done
}

# Without mutants everything must build and pass, or no verdict means anything.
# shellcheck disable=SC2048,SC2086 # each entry splits into its programs
programs[all]="$(printf '%s\n' ${programs[*]} | sort -u | tr '\n' ' ')"
Build all || { echo "mutate.sh: the tree does not build; see $build/mutant-build.log" >&2; exit 1; }
if failed=$(RunTests all); then :; else
    echo "mutate.sh: $failed fails without mutants; see $build/mutant-test.log" >&2
    exit 1
fi

declare -A survivors
if [ -n "$previous" ]; then
    while IFS=$'\t' read -r verdict file line col rest; do
        [ "$verdict" = SURVIVED ] && survivors["$file:$line:$col:$rest"]=1
    done < "$previous"
fi

backup="$(mktemp)"
current=""
Restore() {
    # A fresh mtime, so that the next build recompiles the original.
    if [ -n "$current" ]; then cat "$backup" > "$root/$current"; fi
    current=""
}
trap 'Restore; rm -f "$backup"' EXIT
trap 'exit 130' INT TERM

: > "$report"
index=0
cd "$root"
while IFS=$'\x1f' read -r file line col old new kind; do
    index=$((index + 1))
    [ $(((index - shardIndex) % shardCount)) -eq 0 ] || continue
    if [ -n "$previous" ] && [ -z "${survivors["$file:$line:$col:$old"$'\t'"$new"$'\t'"$kind"$'\t'-]:-}" ]; then
        continue
    fi
    cp "$file" "$backup"
    current="$file"
    python3 "$root/scripts/mutants.py" apply "$file" "$line" "$col" "$old" "$new"
    if ! Build "$file"; then
        verdict=STILLBORN
        by="-"
    elif by=$(RunTests "$file"); then
        verdict=SURVIVED
        by="-"
    else
        verdict=KILLED
    fi
    Restore
    printf '%s\t%s\t%s\t%s\t%s\t%s\t%s\t%s\n' "$verdict" "$file" "$line" "$col" "$old" "$new" "$kind" "$by" >> "$report"
    echo "$index $verdict $file:$line $kind ($old -> $new) $by"
done < <(python3 "$root/scripts/mutants.py" sample "$seed" "$count" "${files[@]}")
Summary "$report"
