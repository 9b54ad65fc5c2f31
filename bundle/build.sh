#!/usr/bin/env bash
# Builds the portable wizard bundle: tavelin-gui compiled in a Debian 11
# root against Debian 11's Qt, gathered there with the Qt libraries and
# plugins it loads (bundle/collect.sh), and checked against the host list's
# floor. What it makes runs on glibc 2.31 and GCC 10's C++ library and newer.
# The root is kept in BUILD_DIR/debian, so only the first run downloads
# (about 200 MB); making it needs root and Debian's archive. For another
# machine than the host's, the root is of that architecture and everything
# in it runs under qemu (tools/debian-root.sh sets that up): slower, the
# same result as a native build there.
#   bundle/build.sh BUILD_DIR [ARCH]   writes BUILD_DIR/wizard-bundle/ARCH
# ARCH is x86_64 or aarch64, by default the host's (uname -m).
set -euo pipefail
die() { echo "bundle: $*" >&2; exit 1; }
[ $# -eq 1 ] || [ $# -eq 2 ] || die "usage: bundle/build.sh BUILD_DIR [x86_64|aarch64]"
machine=${2:-$(uname -m)}
case $machine in
    x86_64) arch=amd64 ;;
    aarch64) arch=arm64 ;;
    *) die "no wizard bundle for $machine: the machines are x86_64 and aarch64" ;;
esac
top=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$1"
build=$(cd "$1" && pwd)
suite=bullseye
root=$build/debian/$suite-$arch
bundle=$build/wizard-bundle/$machine

# What building and gathering the wizard takes in the root.
packages=(g++ make cmake qtbase5-dev qtbase5-dev-tools qt5-gtk-platformtheme patchelf binutils icu-devtools)
"$top/tools/debian-root.sh" "$suite" "$arch" "$root" "${packages[@]}" \
    || die "no $suite root to build the wizard in; the wizard bundle is not made"

# The sources go in afresh each time; the build directory in the root stays,
# so a second run compiles only what changed.
work=/tavelin
rm -rf "$root$work/src" "$root$work/bundle"
mkdir -p "$root$work/src"
cp -a "$top/CMakeLists.txt" "$top/biz" "$top/lib" "$top/bundle" "$root$work/src/"
cp -a "$top/packaging/host-libraries.txt" "$root$work/src/bundle/"
# In a mount namespace of its own, so /proc and /dev leave with it.
in_root() {
    unshare -m -- sh -c 'mount -t proc proc "$0/proc" && mount --rbind /dev "$0/dev" && exec chroot "$0" "$@"' \
        "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 HOME=/root "$@"
}
started=$SECONDS
in_root sh -c "cmake -S $work/src -B $work/build -DTAVELIN_WIZARD_ONLY=ON -DCMAKE_BUILD_TYPE=Release >/dev/null \
               && cmake --build $work/build -j $(nproc) >/dev/null" || die "tavelin-gui does not build in the $suite root ($arch)"
echo "bundle: tavelin-gui built in the $suite root ($arch) in $((SECONDS - started)) s"
in_root "$work/src/bundle/collect.sh" "$work/build/lib/tavelin-gui/tavelin-gui" "$work/src/bundle/host-libraries.txt" \
    "$work/bundle" || die "the wizard's libraries cannot be gathered in the $suite root"
"$top/packaging/check-floor.sh" "$root$work/bundle" "$top/packaging/host-libraries.txt" >/dev/null \
    || die "the bundle built in the $suite root asks the host for more than the host list grants"

# Into place whole, so that no half a bundle is ever found there.
rm -rf "$bundle.new"
mkdir -p "$(dirname "$bundle")"
cp -a "$root$work/bundle" "$bundle.new"
rm -rf "$bundle"
mv "$bundle.new" "$bundle"
echo "bundle: $bundle ready, built in Debian $suite $arch ($(du -sm "$bundle" | cut -f1) MB)"
