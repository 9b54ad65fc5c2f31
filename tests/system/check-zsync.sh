#!/usr/bin/env bash
# An update by zsync, as a user's updater makes it: the installed toolchain
# packs the demo as 1.0.2 and, with one file changed, as 1.0.3, both with
# update information naming 1.0.3's .zsync on a server of ours on 127.0.0.1
# that answers byte ranges (range-server.py, stopped by this check or by
# itself). Debian's zsync client, seeded with 1.0.2, must rebuild 1.0.3 byte
# for byte, taking part of it from the seed and fetching only ranges. A
# second pack of 1.0.3, elsewhere and under umask 077, gives the same
# AppImage and .zsync; update information naming another .zsync is refused
# with nothing written. Needs the toolchain that tools/demo-appimage.sh
# installs into BUILD_DIR/toolchain, and zsync.
#   tests/system/check-zsync.sh BUILD_DIR
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: check-zsync.sh BUILD_DIR" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)
build=$(readlink -f "$1")
pack=$build/toolchain/bin/tavelin-pack demo=$here/../../examples/demo
fail() { echo "check-zsync: FAIL: $*" >&2; exit 1; }
step() { echo "check-zsync: $*"; }
for tool in zsync zsyncmake; do
    command -v "$tool" >/dev/null || fail "$tool not found (Debian package zsync)"
done
[ -x /usr/bin/python3 ] || fail "/usr/bin/python3 not found (Debian package python3)"
[ -x "$pack" ] || fail "no toolchain in $build/toolchain: tools/demo-appimage.sh installs it"

scratch=$(mktemp -d /tmp/tavelin-zsync.XXXXXX)
server=
cleanup() {
    if [ -n "$server" ]; then
        kill "$server" 2>/dev/null || true
        wait "$server" 2>/dev/null || true
    fi
    rm -rf "$scratch"
}
trap cleanup EXIT

# The server first: its port goes into the update information.
mkdir "$scratch/1.0.2" "$scratch/1.0.3"
/usr/bin/python3 "$here/range-server.py" "$scratch/1.0.3" "$scratch/port" "$scratch/server.log" 900 &
server=$!
for _ in $(seq 50); do [ -s "$scratch/port" ] && break; sleep 0.2; done
[ -s "$scratch/port" ] || fail "the range server did not start"
name=TavelinDemo-$(uname -m).AppImage
url=http://127.0.0.1:$(cat "$scratch/port")/$name.zsync

status=0
"$pack" --config "$demo/tavelin-pack.json" --appimage "$scratch/refused/$name" \
    --update-information "zsync|${url%/*}/Other.AppImage.zsync" >"$scratch/refused.log" 2>&1 || status=$?
[ "$status" -eq 1 ] || fail "update information naming another .zsync gave status $status, not 1"
grep -qF "error: the update information names \"Other.AppImage.zsync\", but the AppImage is \"$name\"" \
    "$scratch/refused.log" || fail "the refusal does not name both files: $(cat "$scratch/refused.log")"
[ ! -e "$scratch/refused" ] || fail "the refused pack left $(find "$scratch/refused" | tr '\n' ' ')"
step "update information naming Other.AppImage.zsync is refused, nothing written"

# 1.0.3: the version and one line of the payload changed.
cp -r "$demo" "$scratch/demo-1.0.3"
sed -i 's/"app-version": "1\.0\.2"/"app-version": "1.0.3"/' "$scratch/demo-1.0.3/tavelin-pack.json"
grep -q '"app-version": "1.0.3"' "$scratch/demo-1.0.3/tavelin-pack.json" || fail "the demo is no longer 1.0.2"
echo "New in 1.0.3." >> "$scratch/demo-1.0.3/soft/app/share/tavelin-demo/greeting.txt"
pack_into() { # description-file directory
    "$pack" --config "$1" --appimage "$2/$name" --update-information "zsync|$url" >"$2.log" 2>&1 \
        || fail "the pack into $2 failed: $(cat "$2.log")"
    [ "$(ls -A "$2" | tr '\n' ' ')" = "$name $name.zsync " ] || fail "$2 holds $(ls -A "$2" | tr '\n' ' ')"
}
pack_into "$demo/tavelin-pack.json" "$scratch/1.0.2"
pack_into "$scratch/demo-1.0.3/tavelin-pack.json" "$scratch/1.0.3"
! cmp -s "$scratch/1.0.2/$name" "$scratch/1.0.3/$name" || fail "1.0.2 and 1.0.3 are the same file"
[ "$(sed -n 's/^URL: //p; 9q' "$scratch/1.0.3/$name.zsync")" = "$name" ] || fail "the .zsync does not point at $name"
(umask 077 && mkdir "$scratch/again" && pack_into "$scratch/demo-1.0.3/tavelin-pack.json" "$scratch/again")
for file in "$name" "$name.zsync"; do
    cmp "$scratch/1.0.3/$file" "$scratch/again/$file" || fail "two packs of 1.0.3 give different $file"
done
step "1.0.2 and 1.0.3 packed with their .zsync; a second pack of 1.0.3 gives the same bytes"

mkdir "$scratch/client"
(cd "$scratch/client" && timeout 300 zsync -i "$scratch/1.0.2/$name" -o "$name" "$url") >"$scratch/zsync.log" 2>&1 \
    || fail "zsync failed: $(tr '\r' '\n' < "$scratch/zsync.log" | tail -n 5)"
cmp "$scratch/client/$name" "$scratch/1.0.3/$name" || fail "zsync did not rebuild 1.0.3"
# "Read SEED. Target 97.3% complete." and "used N local, fetched M".
from_seed=$(tr '\r' '\n' < "$scratch/zsync.log" | sed -n 's/^Read .*\. Target \([0-9.]*\)% complete\..*/\1/p' | tail -n 1)
fetched=$(tr '\r' '\n' < "$scratch/zsync.log" | sed -n 's/^used [0-9]* local, fetched \([0-9]*\)$/\1/p')
[ -n "$from_seed" ] && [ -n "$fetched" ] || fail "zsync's output has no figures: $(tr '\r' '\n' < "$scratch/zsync.log")"
awk -v p="$from_seed" 'BEGIN { exit !(p > 0) }' || fail "zsync took nothing from the 1.0.2 seed"
# Every request for the AppImage was answered with ranges, none with the whole file.
read -r requests ranged served < <(awk -v path="/$name" '$1 == path { n++; if ($3 == 206) { r++; b += $4 } }
    END { print n + 0, r + 0, b + 0 }' "$scratch/server.log")
[ "$requests" -gt 0 ] && [ "$ranged" -eq "$requests" ] \
    || fail "of $requests requests for $name, $ranged had ranges: $(cat "$scratch/server.log")"
[ "$fetched" -gt 0 ] && [ "$fetched" -lt "$(stat -c %s "$scratch/1.0.3/$name")" ] || fail "zsync fetched $fetched bytes"
echo "check-zsync: PASS: 1.0.3 ($(stat -c %s "$scratch/1.0.3/$name") bytes) rebuilt by zsync, $from_seed % from the" \
     "1.0.2 seed, $fetched bytes fetched ($served in $requests requests with ranges); .zsync $(stat -c %s "$scratch/1.0.3/$name.zsync")" \
     "bytes, the same from two packs; a mismatching .zsync name refused"
