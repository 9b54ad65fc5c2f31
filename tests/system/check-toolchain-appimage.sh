#!/usr/bin/env bash
# The one-file toolchain where a packager has nothing else: in a Debian 11
# and a Debian 13 minimal root (debootstrap minbase, no package added: no
# Qt, no squashfs-tools, binutils, desktop-file-utils or zsync), as uid
# 65534, with no /dev/fuse, BUILD_DIR/tavelin-pack-MACHINE.AppImage packs
# the demo from its description file for every machine, started with
# --appimage-extract-and-run and with APPIMAGE_EXTRACT_AND_RUN=1. Each
# AppImage, and the .zsync the x86_64 one is packed with, must be
# cmp-identical to what this build's installed toolchain packs from the same
# input and SOURCE_DATE_EPOCH on the host; nothing may be left in /tmp. The
# first pack's time, extraction included, is printed. Each root is used
# through an overlay in a private mount namespace, so it stays as it was made.
# Needs root (debootstrap, chroot, mount namespaces), overlayfs and, the first
# time, Debian's archive: the roots are cached in BUILD_DIR/debian.
#   tests/system/check-toolchain-appimage.sh BUILD_DIR
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
# shellcheck source=../../bundle/root.sh
. "$top/bundle/root.sh"
die() { echo "check-toolchain-appimage: $*" >&2; exit 1; }
[ $# -eq 1 ] || die "usage: check-toolchain-appimage.sh BUILD_DIR"
build=$(cd "$1" && pwd)
machine=$(uname -m)
appimage=$build/tavelin-pack-$machine.AppImage
[ -f "$appimage" ] || die "no $appimage: build it with cmake --build $1 --target tavelin-pack-appimage"
[ "$(id -u)" = 0 ] || die "must run as root (debootstrap, chroot, mount namespaces)"
for program in unshare chroot mknod cmp timeout; do
    command -v "$program" >/dev/null || die "$program is not installed"
done
grep -qw overlay /proc/filesystems || modprobe overlay 2>/dev/null || die "the kernel has no overlayfs"
arch=$(debian_arch "$machine")
machines=$(awk '/^[a-z]/ { print $1 }' "$top/bundle/machines.txt")
epoch=1700000000
# A pack takes about a minute here; under load, and extracting the toolchain first, several.
patience=1200
update_information="zsync|https://tavelin.example.org/TavelinDemo-$machine.AppImage.zsync"

scratch=$(mktemp -d /tmp/tavelin-toolchain-appimage.XXXXXX)
trap 'rm -rf --one-file-system "$scratch"' EXIT
trap 'exit 130' INT TERM

# What the installed toolchain packs on the host: the bytes to match.
cmake --install "$build" --prefix "$scratch/installed" >/dev/null || die "cmake --install $build failed"
cp -a "$top/examples/demo" "$scratch/demo"
mkdir "$scratch/reference"
for each in $machines; do
    extra=()
    [ "$each" != "$machine" ] || extra=(--update-information "$update_information")
    SOURCE_DATE_EPOCH=$epoch timeout "$patience" "$scratch/installed/bin/tavelin-pack" --config "$scratch/demo/tavelin-pack.json" \
        --arch "$each" --appimage "$scratch/reference/TavelinDemo-$each.AppImage" "${extra[@]}" >"$scratch/reference.log" 2>&1 \
        || { cat "$scratch/reference.log" >&2; die "the installed toolchain cannot pack the demo for $each"; }
done
[ -f "$scratch/reference/TavelinDemo-$machine.AppImage.zsync" ] || die "the installed toolchain wrote no .zsync"
echo "check-toolchain-appimage: the installed toolchain packed the demo for ${machines//$'\n'/ }"

# Mounts the root's overlay, /proc and a /dev without fuse, then runs the
# command in the root as uid 65534 from /work, where the demo and the file
# are. LD_LIBRARY_PATH names the root's libraries, as a packager's setting
# might: Debian 13's libzstd, loaded instead of the carried one, writes other bytes.
# shellcheck disable=SC2016 # expanded by the sh in the namespace
inside='set -e
root=$1 upper=$2 work=$3 m=$4 epoch=$5 libraries=$6
shift 6
mount -t overlay overlay -o "lowerdir=$root,upperdir=$upper,workdir=$work" "$m"
mount -t proc proc "$m/proc"
mount -t tmpfs -o mode=0755,nosuid tmpfs "$m/dev"
for node in "null 1 3" "zero 1 5" "full 1 7" "random 1 8" "urandom 1 9" "tty 5 0"; do
    set -- $node "$@"
    mknod -m 0666 "$m/dev/$1" c "$2" "$3"
    shift 3
done
mkdir -m 1777 "$m/dev/shm"
ln -s /proc/self/fd "$m/dev/fd"
exec chroot --userspec=65534:65534 --groups=65534 "$m" env -i --chdir=/work HOME=/work LANG=C.UTF-8 \
    PATH=/usr/local/bin:/usr/bin:/bin LD_LIBRARY_PATH="$libraries" SOURCE_DATE_EPOCH="$epoch" "$@"'
in_minimal() { # dir command...
    local dir=$1
    shift
    timeout "$patience" unshare -m --propagation private -- sh -c "$inside" - "$root" "$dir/upper" "$dir/work" "$dir/merged" \
        "$epoch" "/usr/lib/$machine-linux-gnu" "$@"
}

failed=0 first=
for suite in bullseye trixie; do
    root=$build/debian/minbase-$suite-$arch
    "$top/tools/debian-root.sh" "$suite" "$arch" "$root" || die "no minimal $suite root in $root"
    root=$(readlink -f "$root")
    label="Debian $(cut -d. -f1 "$root/etc/debian_version" | sed 's,/.*,,') ($suite, $arch)"
    # What the file carries must not be there already, nor FUSE, or passing proves nothing.
    for path in usr/bin/mksquashfs usr/bin/unsquashfs usr/bin/readelf usr/bin/desktop-file-validate usr/bin/zsyncmake \
                usr/bin/gpg "usr/lib/$machine-linux-gnu/libQt5Core.so.5" "usr/lib/$machine-linux-gnu/liblzo2.so.2" \
                bin/fusermount bin/fusermount3; do
        [ ! -e "$root/$path" ] && [ ! -L "$root/$path" ] || die "$label has /$path: it is not the minimal root this check needs"
    done
    dir=$scratch/$suite
    mkdir -p "$dir/upper/work" "$dir/work" "$dir/merged"
    cp -a "$top/examples/demo" "$dir/upper/work/demo"
    install -m 0755 "$appimage" "$dir/upper/work/$(basename "$appimage")"
    chown -R 65534:65534 "$dir/upper/work"
    for each in $machines; do
        extra=() run=(env APPIMAGE_EXTRACT_AND_RUN=1 "./$(basename "$appimage")")
        if [ "$each" = "$machine" ]; then
            extra=(--update-information "$update_information") run=("./$(basename "$appimage")" --appimage-extract-and-run)
        fi
        name=TavelinDemo-$each.AppImage
        started=$(date +%s%N)
        if ! in_minimal "$dir" "${run[@]}" --config demo/tavelin-pack.json --arch "$each" --appimage "out/$name" "${extra[@]}" \
                >"$dir/$each.log" 2>&1; then
            failed=$((failed + 1))
            echo "check-toolchain-appimage: $label: FAIL: the pack for $each failed"
            sed 's/^/  pack: /' "$dir/$each.log" | tail -n 30
            continue
        fi
        took=$(( ($(date +%s%N) - started) / 1000000 ))
        took=$((took / 1000)).$(printf '%03d' $((took % 1000)))
        [ -n "$first" ] || { first=$took; echo "check-toolchain-appimage: first pack ($label, $each, extraction included): $took s"; }
        why=
        out=$dir/upper/work/out/$name
        if ! cmp -s "$out" "$scratch/reference/$name"; then
            why="$name differs from the installed toolchain's ($(stat -c %s "$out" 2>/dev/null || echo no) bytes, the installed toolchain's $(stat -c %s "$scratch/reference/$name"))"
        elif [ "$each" = "$machine" ] && ! cmp -s "$out.zsync" "$scratch/reference/$name.zsync"; then
            why="$name.zsync differs from the installed toolchain's"
        elif [ "$(stat -c %u "$out")" != 65534 ]; then
            why="$name is not owned by uid 65534: the pack did not run unprivileged"
        elif left=$(find "$dir/upper/tmp" -mindepth 1 -maxdepth 1 2>/dev/null) && [ -n "$left" ]; then
            why="left behind in /tmp: $(echo "${left//"$dir/upper"/}" | tr '\n' ' ')"
        fi
        if [ -n "$why" ]; then
            failed=$((failed + 1))
            echo "check-toolchain-appimage: $label: FAIL: $why"
            sed 's/^/  pack: /' "$dir/$each.log" | tail -n 30
        else
            echo "check-toolchain-appimage: $label: $each packed in $took s as uid 65534 without FUSE (${run[*]:0:2}), cmp-identical to the installed toolchain's"
        fi
    done
done
[ "$failed" = 0 ] || die "FAIL: $failed packs"
echo "check-toolchain-appimage: PASS ($(stat -c %s "$appimage") bytes, sha256 $(sha256sum < "$appimage" | cut -c1-64))"
