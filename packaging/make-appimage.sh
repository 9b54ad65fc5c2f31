#!/usr/bin/env bash
# Makes one AppImage file: the runtime, then a squashfs image of the AppDir
# beginning exactly where the runtime's ELF ends.
#   packaging/make-appimage.sh RUNTIME APPDIR OUTPUT
set -euo pipefail
die() { echo "make-appimage: $*" >&2; exit 1; }
[ $# -eq 3 ] || die "usage: make-appimage.sh RUNTIME APPDIR OUTPUT"
runtime=$1 appdir=$2 output=$3
command -v mksquashfs >/dev/null || die "mksquashfs not found (Debian package squashfs-tools)"
[ -x "$appdir/AppRun" ] || die "$appdir/AppRun is missing: make the AppDir with make-appdir.sh"
[ "$(dd if="$runtime" bs=1 skip=8 count=3 status=none | od -An -c | tr -d ' ')" = 'AI002' ] \
    || die "$runtime carries no AppImage type 2 mark"

image=$(mktemp)
trap 'rm -f "$image"' EXIT
# Reproducible: owned by root, no extended attributes, every time stamp
# SOURCE_DATE_EPOCH or else a fixed 2000-01-01 00:00 UTC. mksquashfs refuses
# its time options while SOURCE_DATE_EPOCH is set, so it does not see it.
epoch=${SOURCE_DATE_EPOCH:-946684800}
env -u SOURCE_DATE_EPOCH mksquashfs "$appdir" "$image" -noappend -all-root -no-xattrs \
    -mkfs-time "$epoch" -all-time "$epoch" -comp gzip -quiet >/dev/null \
    || die "mksquashfs failed on $appdir"
cat "$runtime" "$image" > "$output"
chmod 0755 "$output"
offset=$("$(readlink -f "$output")" --appimage-offset) || die "the runtime in $output does not start"
[ "$offset" -eq "$(stat -c %s "$runtime")" ] || die "the runtime's ELF ends at $offset, not at its size"
echo "make-appimage: $output ($(stat -c %s "$output") bytes, image at offset $offset)"
