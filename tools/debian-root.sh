#!/usr/bin/env bash
# Makes a Debian root with debootstrap (minbase) and the named packages, for
# building the portable wizard in and for trying AppImages on. A package
# named PACKAGE:ARCH is of another architecture, installed beside the root's
# own for cross-building. Kept as a
# cache: a root made before with the same suite, architecture and packages
# is used as it is, so a second run downloads nothing. Built beside its place
# and renamed into it, so a failed run leaves no half a root under DIR.
# Needs root (debootstrap and chroot) and Debian's archive. A root of another
# architecture (arm64 on an amd64 host) runs under qemu-user-static through
# binfmt_misc, which this sets up when it is missing.
#   tools/debian-root.sh SUITE ARCH DIR [PACKAGE...]
# TAVELIN_DEBIAN_MIRROR overrides the archive (default deb.debian.org).
set -euo pipefail
# shellcheck source=../packaging/tavelin-lib.sh
. "$(dirname "$0")/../packaging/tavelin-lib.sh"
[ $# -ge 3 ] || die "usage: debian-root.sh SUITE ARCH DIR [PACKAGE...]"
args=("$@")
suite=$1 arch=$2 dir=${3%/}
shift 3
packages=$(printf '%s\n' "$@" | sort -u | tr '\n' ' ')
mirror=${TAVELIN_DEBIAN_MIRROR:-http://deb.debian.org/debian}
stamp="$suite $arch $packages"

# Lets the kernel run ARCH's programs through qemu, in chroots too: the F
# flag opens the emulator when it is registered, so the root needs no copy.
# Once set up, debootstrap runs both its stages itself (arch-test finds the
# architecture executable), and apt-get and dpkg in the root just work.
emulate() { # Debian architecture
    local qemu entry line
    case $1 in
        arm64) qemu=aarch64 ;;
        armhf | armel) qemu=arm ;;
        ppc64el) qemu=ppc64le ;;
        riscv64 | s390x) qemu=$1 ;;
        *) die "no emulator known for $1 on this $(dpkg --print-architecture) host" ;;
    esac
    if [ ! -f "/usr/lib/binfmt.d/qemu-$qemu.conf" ]; then
        DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends qemu-user-static binfmt-support \
            >/dev/null || die "qemu-user-static is missing and cannot be installed; it runs the $1 root"
    fi
    [ -f "/usr/lib/binfmt.d/qemu-$qemu.conf" ] || die "qemu-user-static has no binfmt entry for $qemu"
    if [ ! -e /proc/sys/fs/binfmt_misc/register ]; then
        mount -t binfmt_misc binfmt_misc /proc/sys/fs/binfmt_misc \
            || die "binfmt_misc cannot be mounted on /proc/sys/fs/binfmt_misc; $1 programs cannot run here"
    fi
    entry=/proc/sys/fs/binfmt_misc/qemu-$qemu
    # An entry without F (registered by hand, or from an older qemu) fails in a chroot: replace it.
    if [ -e "$entry" ] && ! grep -q '^flags:.*F' "$entry"; then
        echo -1 > "$entry"
    fi
    [ -e "$entry" ] || update-binfmts --enable "qemu-$qemu" >/dev/null 2>&1 || true
    # qemu-user-static's own line, with F among its flags.
    line=$(grep -v '^#' "/usr/lib/binfmt.d/qemu-$qemu.conf" | head -n 1)
    case ${line##*:} in *F*) ;; *) line=${line}F ;; esac
    register "qemu-$qemu" "$line"
    # An AppImage marks bytes 8 to 10 of its ELF header "AI" 2, where qemu's
    # magic asks for zeros: a second entry, the same but for those bytes,
    # runs this architecture's AppImages too.
    IFS=: read -r _ _ type offset magic rest <<<"$line"
    [ "$type:$offset:${magic:0:16}" = 'M::\x7f\x45\x4c\x46' ] \
        || die "qemu-$qemu's binfmt entry is not an ELF magic at offset 0"
    register "qemu-$qemu-appimage" ":qemu-$qemu-appimage:M::${magic:0:32}\x41\x49\x02${magic:44}:$rest"
}
register() { # name line
    local entry=/proc/sys/fs/binfmt_misc/$1
    if [ ! -e "$entry" ] || ! grep -q '^flags:.*F' "$entry"; then
        [ ! -e "$entry" ] || echo -1 > "$entry"
        printf '%s\n' "$2" > /proc/sys/fs/binfmt_misc/register || die "cannot register $1 with binfmt_misc"
    fi
    grep -q '^enabled' "$entry" || echo 1 > "$entry"
}
# A package named PACKAGE:ARCH is another architecture's, for cross-building.
foreign_arches=$(printf '%s\n' "$@" | sed -n 's/^[^:]*:\([a-z0-9]*\)$/\1/p' | sort -u)
# Also for a root made before: it is of no use without (a cross-built
# program is looked at with its own loader). Once set up this writes
# nothing, so it needs root only the first time after a boot.
host_arch=$(dpkg --print-architecture)
for emulated in $arch $foreign_arches; do
    case $host_arch:$emulated in
        "$emulated:$emulated" | amd64:i386) ;;
        *) emulate "$emulated" ;;
    esac
done

if [ -f "$dir/.tavelin-root" ] && [ "$(cat "$dir/.tavelin-root")" = "$stamp" ]; then
    exit 0
fi
[ "$(id -u)" -eq 0 ] || die "making the $suite root in $dir needs root (debootstrap and chroot); run this as root once, later runs use it as it is"
if ! command -v debootstrap >/dev/null; then
    DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends debootstrap >/dev/null \
        || die "debootstrap is missing and cannot be installed (Debian package debootstrap)"
fi

# In a mount namespace of its own: debootstrap mounts /proc in the root, and
# under qemu it was once found still mounted afterwards; a mount left in
# the root would go along with its rename, and with a later rm -rf.
if [ -z "${TAVELIN_DEBIAN_ROOT_PRIVATE:-}" ]; then
    exec unshare -m --propagation private -- env TAVELIN_DEBIAN_ROOT_PRIVATE=1 "$0" "${args[@]}"
fi

partial=$dir.partial
rm -rf --one-file-system "$partial"
trap 'rm -rf --one-file-system "$partial"' EXIT
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
for foreign in $foreign_arches; do
    in_root dpkg --add-architecture "$foreign"
done
if [ -n "$packages" ]; then
    # shellcheck disable=SC2086 # one word a package
    if ! { in_root apt-get update -q && in_root apt-get install -y -q --no-install-recommends $packages; } \
            >"$partial/tmp/apt.log" 2>&1; then
        tail -n 5 "$partial/tmp/apt.log" >&2
        die "apt-get could not install into the $suite root: $packages"
    fi
    rm -f "$partial/tmp/apt.log"
fi
# What came from the archive is still in apt's cache here.
downloaded=$(find "$partial/var/cache/apt/archives" -name '*.deb' -printf '%s\n' | awk '{ s += $1 } END { printf "%.0f", s / 1048576 }')
in_root apt-get clean
echo "$stamp" > "$partial/.tavelin-root"
rm -rf --one-file-system "$dir"
mv "$partial" "$dir"
trap - EXIT
echo "debian-root: $dir ready ($(du -smx "$dir" | cut -f1) MB, $downloaded MB downloaded)" >&2
