#!/usr/bin/env bash
# Makes the .deb of a built tree, unpacks it into a scratch root and checks what
# an operator gets: the unit and what it names, the declared dependencies, the
# man pages, no test or benchmark, and request forms in the owner tool's help
# that the tool accepts.   check_package.sh BUILD_DIR
set -euo pipefail
build="$(cd "$1" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
failed=0
fail() { echo "package: $*" >&2; failed=1; }

(cd "$work" && cpack -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >cpack.log 2>&1) ||
  { cat "$work/cpack.log" >&2; exit 1; }
deb="$(ls "$work"/out/stavik_*.deb)"
root="$work/root"
dpkg-deb -x "$deb" "$root"
dpkg-deb -e "$deb" "$work/control"
depends="$(dpkg-deb -f "$deb" Depends)"
for library in libc6 libstdc++6 libyaml-cpp; do
  [[ "$depends" == *"$library"* ]] || fail "Depends lacks $library: $depends"
done

unit="$(find "$root" -path '*/lib/systemd/system/stavik.service')"
read -r daemon manifest < <(sed -n 's/^ExecStart=//p' "$unit")
grep -q '^Restart=always' "$unit" || fail "the unit doesn't restart the daemon"
[ -f "$root$manifest" ] || fail "the package lacks the unit's manifest $manifest"
grep -qx "$manifest" "$work/control/conffiles" || fail "$manifest is not a conffile"
usr="$(dirname "$(dirname "$daemon")")"
for program in "$daemon" $(sed -n 's/^ *bin_path: //p' "$root$manifest") "$usr"/bin/stavik-{upload,sysop}; do
  [ -x "$root$program" ] || fail "the package lacks $program"
done
for page in man8/stavik-daemon.8 man1/stavik-owner.1 man1/stavik-upload.1 man1/stavik-sysop.1; do
  [ -z "$(zcat "$root$usr/share/man/$page.gz" | groff -ww -man -z 2>&1)" ] || fail "man page $page is broken"
done
extra="$(find "$root" -type f \( -name '*test*' -o -name '*bench*' -o -name '*fuzz*' -o -name '*.a' \))"
[ -z "$extra" ] || fail "tests, benchmarks or libraries in the package: $extra"

# The stripped daemon runs and refuses a call without a manifest with 255.
status=0
"$root$daemon" >/dev/null 2>&1 || status=$?
[ "$status" -eq 255 ] || fail "the daemon without arguments exited $status, not 255"

# Every request form of the owner's help is one the tool accepts; without a
# daemon each fails only for want of a pipe.
owner="$root$usr/bin/stavik-owner"
args=()
while read -r _ request _; do
  args+=(--request "$request")
done < <("$owner" --help | grep -E '^  [a-z-]+ +\{')
[ "${#args[@]}" -eq 22 ] || fail "stavik-owner --help shows $((${#args[@]} / 2)) request forms, not 11"
mkdir "$work/tubix"
TUBIX_DIR="$work/tubix" "$owner" --name svc --wait-daemon-ms 0 --exit-after-ms 2000 "${args[@]}" >"$work/owner.out" || true
if grep '"event":"error"' "$work/owner.out" | grep -v 'no pipe'; then
  fail "stavik-owner --help shows a request that the tool refuses"
fi
exit "$failed"
