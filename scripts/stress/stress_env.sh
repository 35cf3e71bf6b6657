# Sourced by the stress scripts: the build folder, a sandbox root, the daemon
# under watch and the checks every script shares. Each script counts its
# failed properties in `failures` and ends through `finish`.

STAVIK_BUILD_DIR="${STAVIK_BUILD:-build}"
. "$(dirname "${BASH_SOURCE[0]}")/../../bench/bench_env.sh"

daemon_bin="$build/stavik-daemon"
owner_bin="$build/client/stavik-owner"
load_owner_bin="$build/bench/load_owner"
probe_bin="$build/tests/probe_child"
stress_dir="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
failures=0
daemon_pid=""
started_s=$SECONDS

# stress_begin NAME: a sandbox root in $root, the environment of the daemon and
# the tools, and a clean-up that ends whatever the script started.
stress_begin() {
  script_name=$1
  require_programs "$script_name" "$daemon_bin" "$owner_bin" "$load_owner_bin" "$probe_bin"
  root="$(new_sandbox "$script_name")"
  export STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix"
  # The daemon is killed at the end, so leak checks can't run; a small
  # quarantine keeps the RSS figures near the memory really in use.
  export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=0:abort_on_error=1:quarantine_size_mb=16}"
  export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
  export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=0:second_deadlock_stack=1}"
  trap stress_cleanup EXIT
  trap 'exit 130' INT TERM
}

stress_cleanup() {
  exec 2>/dev/null  # no notices of the jobs killed here
  local job
  [ -z "$daemon_pid" ] || kill -KILL -- "-$daemon_pid" 2>/dev/null || true
  for job in $(jobs -p); do kill -KILL "$job" 2>/dev/null || true; done
  wait 2>/dev/null || true
  [ "${STRESS_KEEP:-0}" = 1 ] && echo "$script_name: sandbox kept in $root" || rm -rf "$root"
}

# start_daemon MANIFEST [RUNNER...]: the daemon in a session of its own, its
# log in $root/daemon.log; a runner (e.g. setpriv) goes in front.
start_daemon() {
  local manifest=$1
  shift
  setsid "$@" "$daemon_bin" "$manifest" 2> "$root/daemon.log" &
  daemon_pid=$!
}

booted() { grep -qs ' InitBaseApplication end' "$root/daemon.log"; }

# A zombie is a dead child that nobody reaps: still there a while later.
daemon_alive() { [ -d "/proc/$daemon_pid" ] && ! grep -qs '^State:.*Z' "/proc/$daemon_pid/status"; }
fd_count() { ls "/proc/$daemon_pid/fd" 2>/dev/null | wc -l; }
rss_kb() { awk '/^VmRSS:/ { print $2 }' "/proc/$daemon_pid/status" 2>/dev/null; }
zombie_pids() { ps -o pid=,stat= --ppid "$daemon_pid" 2>/dev/null | awk '$2 ~ /^Z/ { print $1 }' | sort; }
# lasting_zombies [GRACE_S]: the zombies that are still there GRACE_S (1) later.
lasting_zombies() {
  local first
  first=$(zombie_pids)
  [ -n "$first" ] || { echo 0; return; }
  sleep "${1:-1}"
  comm -12 <(echo "$first") <(zombie_pids) | grep -c . || true
}
# The manifest entry of "zulmgr", played by the owner tool, which every
# script's base manifest starts first.
zulmgr_entry() {
  cat <<YAML
  - name: zulmgr
    bin_path: "$owner_bin"
    args: [--name, zulmgr, --events, /dev/null, --request, '{"type":"state","state":"INIT"}',
           --request, '{"type":"state","state":"RUNNING"}']
    reporting: true
YAML
}

# The base manifest: zulmgr, then OWNERS owners played by load_owner, each
# with APPS probe applications in its own startup file. The script names the
# owners (owner_name I) and gives the rest of an owner's entry (owner_keys I
# NAME) and of each application's (app_keys).
write_owners_manifest() {
  local i k name
  {
    echo "apps:"
    zulmgr_entry
    for ((i = 0; i < owners; i++)); do
      name=$(owner_name "$i")
      printf '  - name: %s\n    bin_path: "%s"\n    reporting: true\n    startup_entry_path: "%s"\n' \
        "$name" "$load_owner_bin" "$root/etc/$name.yaml"
      owner_keys "$i" "$name"
      {
        echo "apps:"
        for ((k = 0; k < apps; k++)); do
          printf '  - name: %s_a%d\n    bin_path: "%s"\n' "$name" "$k" "$probe_bin"
          app_keys
        done
      } > "$root/etc/$name.yaml"
    done
  } > "$root/etc/base.yaml"
}

log_count() { grep -c -- "$1" "$root/daemon.log" || true; }

fail() {
  echo "$script_name: FAIL: $*"
  failures=$((failures + 1))
}

figure() { printf "  %-44s %s\n" "$1" "$2"; }

# The properties every script ends with: the daemon lives, no sanitizer spoke.
check_daemon_health() {
  daemon_alive || fail "the daemon is gone"
  if grep -qE 'ERROR: (Address|Leak)Sanitizer|runtime error:|WARNING: ThreadSanitizer|SUMMARY: (Address|Undefined|Thread)' "$root/daemon.log"; then
    fail "a sanitizer report in the daemon's log:"
    grep -m5 -E 'ERROR: (Address|Leak)Sanitizer|runtime error:|WARNING: ThreadSanitizer' "$root/daemon.log"
  fi
}

finish() {
  check_daemon_health
  figure "duration" "$((SECONDS - started_s)) s"
  if [ "$failures" -eq 0 ]; then
    echo "$script_name: PASS"
    exit 0
  fi
  echo "$script_name: FAIL ($failures properties)"
  exit 1
}
