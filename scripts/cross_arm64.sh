#!/usr/bin/env bash
# Builds the whole tree for 64-bit Arm in build-arm64/ with Debian's cross
# toolchain, runs the unit tests under qemu user emulation (the end-to-end tests
# too with STAVIK_ARM64_E2E=1), then a smoke run of the daemon under qemu in a
# throw-away sandbox root. Prints every check it makes and exits non-zero on the
# first that fails. Run as root on Debian 12.
set -euo pipefail
cd "$(dirname "$0")/.."
source_dir="$PWD"
build="$source_dir/build-arm64"
# The programs load with the loader of libc6:arm64, as on a Debian arm64 system.
qemu=(qemu-aarch64-static)

say() { echo "cross_arm64: $*"; }
fail() {
  echo "cross_arm64: FAILED: $*" >&2
  if [ -n "${root:-}" ]; then
    echo "--- last lines of the daemon's log and kmsg records:" >&2
    tail -n 20 "$root/daemon.log" >&2 2>/dev/null || true
    tr '<' '\n' <"$root/dev/kmsg" 2>/dev/null | tail -n 10 >&2 || true
  fi
  exit 1
}

HOST_PACKAGES=(cmake ninja-build g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user-static
               googletest libcli11-dev nlohmann-json3-dev python3 procps util-linux)
ARM64_PACKAGES=(libc6:arm64 libstdc++6:arm64 libgtest-dev:arm64 libgmock-dev:arm64
                libbenchmark-dev:arm64 libyaml-cpp0.7:arm64)

install_missing() {
  local missing=() package
  for package in "${HOST_PACKAGES[@]}" "${ARM64_PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
      missing+=("$package")
    fi
  done
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    [ "$(id -u)" -eq 0 ] || fail "the arm64 architecture is not added; run as root"
    dpkg --add-architecture arm64
    say "added the arm64 architecture"
  fi
  if [ "${#missing[@]}" -eq 0 ]; then
    say "all packages present"
    return
  fi
  [ "$(id -u)" -eq 0 ] || fail "missing packages (${missing[*]}); run as root to install them"
  say "installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
}

# Debian 12's libyaml-cpp-dev is not co-installable for two architectures (the
# arm64 one would replace the host's), so it is unpacked into the build tree.
yaml_dir="$build/deps/usr/lib/aarch64-linux-gnu/cmake/yaml-cpp"
unpack_yaml_cpp() {
  [ -f "$yaml_dir/yaml-cpp-config.cmake" ] && return
  mkdir -p "$build/deps/debs"
  (cd "$build/deps/debs" && apt-get download -q -o APT::Sandbox::User=root libyaml-cpp-dev:arm64 libyaml-cpp0.7:arm64)
  local deb
  for deb in "$build"/deps/debs/*.deb; do
    dpkg-deb -x "$deb" "$build/deps"
  done
  [ -f "$yaml_dir/yaml-cpp-config.cmake" ] || fail "no yaml-cpp package files in $build/deps"
  say "unpacked the arm64 yaml-cpp development files into $build/deps"
}

# Tests and the daemon exec aarch64 programs by path, so the kernel must hand
# them to qemu. qemu-user-static ships that entry; where no systemd-binfmt
# loads it (a container, a minimal VM) it is loaded here.
enable_binfmt() {
  local entry=/proc/sys/fs/binfmt_misc/qemu-aarch64
  if [ ! -e "$entry" ]; then
    [ "$(id -u)" -eq 0 ] || fail "no binfmt_misc entry for aarch64 programs; run as root to load it"
    mountpoint -q /proc/sys/fs/binfmt_misc || mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc
    cat /usr/lib/binfmt.d/qemu-aarch64.conf >/proc/sys/fs/binfmt_misc/register
    say "loaded the binfmt_misc entry of qemu for aarch64 programs"
  fi
  grep -qx enabled "$entry" || fail "the binfmt_misc entry $entry is disabled"
}

build_tree() {
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_TOOLCHAIN_FILE="$source_dir/cmake/aarch64-linux-gnu.cmake" -Dyaml-cpp_DIR="$yaml_dir" >/dev/null
  cmake --build "$build" -j"$(nproc)"
  aarch64-linux-gnu-readelf -h "$build/stavik-daemon" | grep -q "Machine:.*AArch64" \
    || fail "stavik-daemon is not an AArch64 program"
  say "ok: whole tree built for aarch64 in $build"
}

# qemu 7.2 refuses prctl(PR_SET_CHILD_SUBREAPER), which these tests need.
QEMU_UNSUPPORTED='^FrsWorkers\.'

run_tests() {
  ctest --test-dir "$build" -L unit -E "$QEMU_UNSUPPORTED" -j2 --timeout 600 --output-on-failure >"$build/unit-tests.log" 2>&1 \
    || { tail -n 40 "$build/unit-tests.log"; fail "unit tests under qemu (log: $build/unit-tests.log)"; }
  say "ok: unit tests under qemu: $(grep -E "tests passed" "$build/unit-tests.log")"
  # The end-to-end suite takes many times its native length under emulation,
  # so it runs only on request.
  if [ "${STAVIK_ARM64_E2E:-0}" = 1 ]; then
    ctest --test-dir "$build" -L e2e -j2 --timeout 600 --output-on-failure >"$build/e2e-tests.log" 2>&1 \
      || { tail -n 40 "$build/e2e-tests.log"; fail "end-to-end tests under qemu (log: $build/e2e-tests.log)"; }
    say "ok: end-to-end tests under qemu: $(grep -E "tests passed" "$build/e2e-tests.log")"
  else
    say "skipped: end-to-end tests (STAVIK_ARM64_E2E=1 runs them)"
  fi
}

# Reads the virtual counter and its frequency with the instructions themselves,
# independently of the daemon's code: "<seconds> <frequency>".
build_counter_probe() {
  cat >"$build/counter_probe.c" <<'EOF'
#include <stdint.h>
#include <stdio.h>

int main(void)
{
    uint64_t counter;
    uint64_t frequency;
    __asm__ volatile("isb\n\tmrs %0, cntvct_el0" : "=r"(counter));
    __asm__ volatile("mrs %0, cntfrq_el0" : "=r"(frequency));
    if (frequency == 0) {
        return 1;
    }
    printf("%f %llu\n", (double)counter / (double)frequency, (unsigned long long)frequency);
    return 0;
}
EOF
  aarch64-linux-gnu-gcc -O2 -o "$build/counter_probe" "$build/counter_probe.c"
}
counter_now() { "${qemu[@]}" "$build/counter_probe" | cut -d' ' -f1; }

# Polls a condition for at most $1 seconds.
wait_for() {
  local deadline=$((SECONDS + $1))
  shift
  until "$@"; do
    [ "$SECONDS" -lt "$deadline" ] || return 1
    sleep 0.1
  done
}
has() { grep -q -- "$2" "$1" 2>/dev/null; }

# The figure of a "[<seconds>s][BOOT_TRACE][SK]<text>" stamp in a file.
stamp_before() { grep -o "\[[0-9.]*s\]\[BOOT_TRACE\]\[SK\]$2" "$1" | head -n 1 | sed 's/^\[\([0-9.]*\)s\].*/\1/'; }

# Fails unless low <= stamp <= high (all "%f" figures, so equal to the microsecond).
check_between() {
  awk -v low="$1" -v stamp="$2" -v high="$3" 'BEGIN { exit !(stamp + 0.000001 >= low && stamp <= high + 0.000001) }' \
    || fail "$4: stamp $2 s is not within the counter readings [$1, $3]"
  say "ok: $4: stamp $2 s within the counter readings [$1, $3]"
}

base_pid() {
  grep -o "Start baseApp success appName=$1, binPath=[^,]*, pid=[0-9]*" "$root/daemon.log" | sed -n "$2s/.*pid=//p"
}
alive_sleep() { [ -n "$1" ] && tr '\0' ' ' <"/proc/$1/cmdline" 2>/dev/null | grep -q "^/bin/sleep 600"; }
alive_sleep_of() { alive_sleep "$(base_pid "$1" "$2")"; }

smoke_run() {
  build_counter_probe
  root="$(mktemp -d /tmp/stavik-arm64.XXXXXX)"
  mkdir -p "$root/dev" "$root/etc" "$root/sys/fs/cgroup" "$root/run/tubix"
  chmod 1777 "$root/run/tubix"
  cat >"$root/base_services.yaml" <<'EOF'
apps:
  - name: sleeper_a
    bin_path: /bin/sleep
    args: ["600"]
  - name: sleeper_b
    bin_path: /bin/sleep
    args: ["600"]
    restart: on-forever
  - name: sleeper_c
    bin_path: /bin/sleep
    args: ["600"]
EOF
  local frequency before after stamp
  frequency="$("${qemu[@]}" "$build/counter_probe" | cut -d' ' -f2)"
  before="$(counter_now)"
  STAVIK_SYSROOT="$root" STAVIK_LOG_STDERR=1 TUBIX_DIR="$root/run/tubix" \
    setsid "${qemu[@]}" "$build/stavik-daemon" "$root/base_services.yaml" true 2>"$root/daemon.log" &
  daemon=$!
  wait_for 60 has "$root/dev/kmsg" "SK main begin" || fail "no \"SK main begin\" in the quick start's kmsg"
  after="$(counter_now)"
  say "ok: quick start logs to the sandbox's /dev/kmsg"
  check_between "$before" "$(stamp_before "$root/dev/kmsg" ", SK main begin")" "$after" "\"SK main begin\""

  wait_for 60 has "$root/dev/kmsg" "start priority apps finish" || fail "the daemon did not reach the continue point"
  has "$root/daemon.log" "Start baseApp" && fail "a base service started before the continue signal"
  before="$(counter_now)"
  kill -CONT "$daemon"
  after="$(counter_now)"
  wait_for 30 has "$root/dev/kmsg" "wait success for continue startup, catch continue signal time=\[" \
    || fail "SIGCONT did not release the quick start"
  say "ok: quick start held the base services until SIGCONT released it"
  stamp="$(grep -o "catch continue signal time=\[[0-9.]*s\]" "$root/dev/kmsg" | sed 's/.*=\[\([0-9.]*\)s\]/\1/')"
  check_between "$before" "$stamp" "$after" "time of the continue signal"
  # Under qemu the counter and the host's boot clock (what the daemon reads on
  # other machines) are far apart, so the stamps above cannot come from the latter.
  local uptime
  uptime="$(cut -d' ' -f1 /proc/uptime)"
  if awk -v a="$stamp" -v b="$uptime" 'BEGIN { d = a - b; exit !(d > 5 || d < -5) }'; then
    say "ok: the stamps come from the hardware counter (${frequency} Hz), not the boot clock (${uptime} s)"
  else
    say "note: the counter and the boot clock agree here; the stamp checks cannot tell them apart"
  fi

  local name pid
  for name in sleeper_a sleeper_b sleeper_c; do
    wait_for 60 alive_sleep_of "$name" 1 || fail "$name was not started"
  done
  say "ok: three /bin/sleep services started: a=$(base_pid sleeper_a 1) b=$(base_pid sleeper_b 1) c=$(base_pid sleeper_c 1)"
  pid="$(base_pid sleeper_b 1)"
  kill -KILL "$pid"
  wait_for 60 has "$root/daemon.log" "owner=sleeper_b, pid=$pid, state=.* will restart now" \
    || fail "the daemon did not restart sleeper_b after its kill"
  wait_for 60 alive_sleep_of sleeper_b 2 || fail "sleeper_b was not started again"
  say "ok: killed sleeper_b (pid $pid), restarted as pid $(base_pid sleeper_b 2)"
  { alive_sleep "$(base_pid sleeper_a 1)" && alive_sleep "$(base_pid sleeper_c 1)"; } \
    || fail "the other services did not survive the restart"
  kill -0 "$daemon" 2>/dev/null || fail "the daemon ended"
  say "ok: the other services and the daemon run on"
}

cleanup() {
  if [ -n "${daemon:-}" ]; then
    { kill -KILL -- "-$daemon" && wait "$daemon"; } 2>/dev/null || true
  fi
  if [ -n "${root:-}" ]; then
    rm -rf "$root"
  fi
}
trap cleanup EXIT

install_missing
enable_binfmt
unpack_yaml_cpp
build_tree
run_tests
smoke_run
say "all checks passed"
