#!/usr/bin/env bash
# Checks an AppImage file against the system's own readers: libappimage must
# see type 2 with its payload right behind the runtime and AppRun and the
# manifest in it, and unsquashfs at that offset must list the same tree.
#   tests/system/check-appimage.sh APPIMAGE RUNTIME INSPECT
# INSPECT is the tavelin-appimage-inspect program of the build.
set -euo pipefail
[ $# -eq 3 ] || { echo "usage: check-appimage.sh APPIMAGE RUNTIME INSPECT" >&2; exit 2; }
appimage=$1 runtime=$2 inspect=$3
fail() { echo "check-appimage: FAIL: $*" >&2; exit 1; }
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$inspect" "$appimage" > "$scratch/seen"
type=$(sed -n 's/^type //p' "$scratch/seen")
offset=$(sed -n 's/^offset //p' "$scratch/seen")
runtime_size=$(stat -c %s "$runtime")
[ "$type" = 2 ] || fail "libappimage reads type $type, not 2"
[ "$offset" = "$runtime_size" ] || fail "payload offset $offset is not the runtime's size $runtime_size"
sed -n 's/^file //p' "$scratch/seen" | sort -u > "$scratch/libappimage.list"
for wanted in AppRun soft/mainifest.json; do
    grep -qx "$wanted" "$scratch/libappimage.list" || fail "libappimage lists no $wanted"
done
unsquashfs -o "$offset" -l -d '' "$appimage" | sed -n 's|^/||p' | sort -u > "$scratch/unsquashfs.list"
diff -u "$scratch/unsquashfs.list" "$scratch/libappimage.list" > "$scratch/diff" \
    || fail "unsquashfs and libappimage list different trees: $(cat "$scratch/diff")"
echo "check-appimage: type 2, payload at $offset = runtime size, $(wc -l < "$scratch/libappimage.list") entries," \
     "AppRun and soft/mainifest.json present, unsquashfs -o $offset -l lists the same tree"
