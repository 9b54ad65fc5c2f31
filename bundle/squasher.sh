#!/usr/bin/env bash
# Takes Debian 11's mksquashfs, with the compressor libraries it loads, from
# the host's bundle root into BUILD_DIR/squasher, where every pack finds it:
# zstd writes other bytes from one version to the next, so packing with the
# host's squashfs-tools would make an AppImage's bytes depend on where it was
# packed. The installed toolchain and the one-file toolchain carry this one.
#   bundle/squasher.sh BUILD_DIR   writes BUILD_DIR/squasher/usr/bin/mksquashfs
set -euo pipefail
tool=squasher
# shellcheck source=root.sh
. "$(dirname "$0")/root.sh"
[ $# -eq 1 ] || die "usage: bundle/squasher.sh BUILD_DIR"
top=$bundle_top
mkdir -p "$1"
build=$(cd "$1" && pwd)
machine=$(uname -m)
arch=$(debian_arch "$machine")
[ -n "$arch" ] || die "no squasher for $machine: the machines are $(machines)"
suite=bullseye
root=$build/debian/$suite-$arch
squasher=$build/squasher

"$top/tools/debian-root.sh" "$suite" "$arch" "$root" "${host_root_packages[@]}" \
    || die "no $suite root to take mksquashfs from; the squasher is not made"
work=/tavelin-squasher
rm -rf "$root$work"
mkdir -p "$root$work/src"
cp -a "$top/toolchain" "$top/packaging" "$root$work/src/"
in_root "$root" "$work/src/toolchain/collect.sh" "$work/src/toolchain/host-libraries.txt" "$work/squasher" /usr/bin/mksquashfs \
    >/dev/null || die "mksquashfs cannot be gathered in the $suite root"
"$top/packaging/check-floor.sh" "$root$work/squasher" "$top/toolchain/host-libraries.txt" >/dev/null \
    || die "the squasher asks the host for more than glibc"

# Into place whole, so that no half a squasher is ever found there.
rm -rf "$squasher.new"
cp -a "$root$work/squasher" "$squasher.new"
rm -rf "$squasher" "$root$work"
mv "$squasher.new" "$squasher"
echo "squasher: $squasher ready: $("$squasher/usr/bin/mksquashfs" -version 2>/dev/null | head -n 1), from Debian $suite"
