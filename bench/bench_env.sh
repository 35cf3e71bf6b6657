# Sourced by the whole-system benchmarks: where the built programs are, and
# a throw-away sandbox root laid out as the daemon expects it.

build="${STAVIK_BUILD_DIR:-build}"
[[ $build = /* ]] || build="$PWD/$build"

# require_programs NAME PROGRAM...: stops when a program has not been built.
require_programs() {
  local name=$1 program
  shift
  for program in "$@"; do
    [ -x "$program" ] || { echo "$name: $program is missing; build first" >&2; exit 1; }
  done
}

# new_sandbox NAME: prints the path of a fresh sandbox root.
new_sandbox() {
  local root
  root="$(mktemp -d "/tmp/stavik-$1.XXXXXX")"
  mkdir -p "$root/dev" "$root/etc" "$root/sys/fs/cgroup" "$root/run/tubix" "$root/out"
  # Services of every user make their endpoints here, as in /run/tubix.
  chmod 1777 "$root/run/tubix"
  echo "$root"
}

# wait_for TIMEOUT_S COMMAND...: polls until the command succeeds.
wait_for() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    [ $SECONDS -lt $deadline ] || return 1
    sleep 0.01
  done
}
