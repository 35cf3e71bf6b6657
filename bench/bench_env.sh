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

# Sandboxes live on a tmpfs, as /run and its endpoints do on a real host: on
# a disk file system every service's endpoint (a socket file its child makes
# before exec) can cost a millisecond of inode search, which no host pays.
# BENCH_TMPDIR chooses another place.
sandbox_parent="${BENCH_TMPDIR:-/dev/shm}"
[ -d "$sandbox_parent" ] && [ -w "$sandbox_parent" ] || sandbox_parent=/tmp

# new_sandbox NAME: prints the path of a fresh sandbox root.
new_sandbox() {
  local root
  root="$(mktemp -d "$sandbox_parent/stavik-$1.XXXXXX")"
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
