#!/usr/bin/env bash
# Makes a Debian root with debootstrap (minbase) and the named packages, for
# building the portable wizard in and for trying AppImages on. Kept as a
# cache: a root made before with the same suite, architecture and packages
# is used as it is, so a second run downloads nothing. Built beside its place
# and renamed into it, so a failed run leaves no half a root under DIR.
# Needs root (debootstrap and chroot) and Debian's archive.
#   tools/debian-root.sh SUITE ARCH DIR [PACKAGE...]
# TAVELIN_DEBIAN_MIRROR overrides the archive (default deb.debian.org).
set -euo pipefail
die() { echo "debian-root: $*" >&2; exit 1; }
[ $# -ge 3 ] || die "usage: debian-root.sh SUITE ARCH DIR [PACKAGE...]"
suite=$1 arch=$2 dir=${3%/}
shift 3
packages=$(printf '%s\n' "$@" | sort -u | tr '\n' ' ')
mirror=${TAVELIN_DEBIAN_MIRROR:-http://deb.debian.org/debian}
stamp="$suite $arch $packages"

if [ -f "$dir/.tavelin-root" ] && [ "$(cat "$dir/.tavelin-root")" = "$stamp" ]; then
    exit 0
fi
[ "$(id -u)" -eq 0 ] || die "making the $suite root in $dir needs root (debootstrap and chroot); run this as root once, later runs use it as it is"
if ! command -v debootstrap >/dev/null; then
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends debootstrap >/dev/null \
        || die "debootstrap is missing and cannot be installed (Debian package debootstrap)"
fi

partial=$dir.partial
rm -rf "$partial"
trap 'rm -rf "$partial"' EXIT
mkdir -p "$(dirname "$dir")"
echo "debian-root: making $suite ($arch) in $dir: debootstrap, then ${packages:-no more packages}" >&2
if ! debootstrap --variant=minbase --arch="$arch" "$suite" "$partial" "$mirror" >"$partial.log" 2>&1; then
    tail -n 5 "$partial.log" >&2
    rm -f "$partial.log"
    die "debootstrap could not make $suite ($arch) from $mirror: is the archive reachable?"
fi
rm -f "$partial.log"
echo "deb $mirror $suite main" > "$partial/etc/apt/sources.list"
in_root() { chroot "$partial" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin DEBIAN_FRONTEND=noninteractive LANG=C.UTF-8 "$@"; }
if [ -n "$packages" ]; then
    # shellcheck disable=SC2086 # one word a package
    if ! { in_root apt-get update -q && in_root apt-get install -y -q --no-install-recommends $packages; } \
            >"$partial/tmp/apt.log" 2>&1; then
        tail -n 5 "$partial/tmp/apt.log" >&2
        die "apt-get could not install into the $suite root: $packages"
    fi
    rm -f "$partial/tmp/apt.log"
    in_root apt-get clean
fi
echo "$stamp" > "$partial/.tavelin-root"
rm -rf "$dir"
mv "$partial" "$dir"
trap - EXIT
echo "debian-root: $dir ready ($(du -sm "$dir" | cut -f1) MB)" >&2
