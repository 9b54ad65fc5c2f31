#!/usr/bin/env bash
# Where the Debian root that the portable wizard is built in cannot be made,
# making it, and so building the wizard bundle, fails with a message that
# says why and leaves no half a root and no bundle behind. Needs root (to try
# as uid 65534 too); downloads nothing.
#   tests/system/check-build-root.sh
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
fail() { echo "check-build-root: FAIL: $*" >&2; exit 1; }
[ "$(id -u)" = 0 ] || fail "must run as root, to try as uid 65534 as well"
scratch=$(mktemp -d /tmp/tavelin-build-root.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
chmod 0755 "$scratch"

# who | archive | what the message must say
rows=(
    "65534|http://deb.debian.org/debian|needs root"
    "0|http://127.0.0.1:9/debian|is the archive reachable"
)
for row in "${rows[@]}"; do
    IFS='|' read -r uid mirror says <<<"$row"
    build=$scratch/build-$uid
    mkdir -m 0777 "$build"
    status=0
    setpriv --reuid="$uid" --regid="$uid" --clear-groups env TAVELIN_DEBIAN_MIRROR="$mirror" \
        "$top/bundle/build.sh" "$build" > "$scratch/out" 2>&1 || status=$?
    [ "$status" -ne 0 ] || fail "uid $uid, $mirror: the bundle was built"
    grep -q "$says" "$scratch/out" || fail "uid $uid, $mirror: the message does not say \"$says\": $(cat "$scratch/out")"
    left=$(find "$build" -mindepth 1 -not -path "$build/debian" | head -n 3)
    [ -z "$left" ] || fail "uid $uid, $mirror: left behind $left"
    echo "check-build-root: uid $uid, $mirror: refused ($(tail -n 1 "$scratch/out"))"
done
echo "check-build-root: PASS"
