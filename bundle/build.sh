#!/usr/bin/env bash
# Builds the portable wizard bundle: tavelin-gui compiled in a Debian 11
# root against Debian 11's Qt, gathered there with the Qt libraries and
# plugins it loads (bundle/collect.sh), and checked against the host list's
# floor. What it makes runs on glibc 2.31 and GCC 10's C++ library and newer.
# The root is kept in BUILD_DIR/debian, so only the first run downloads
# (about 200 MB, 330 MB for another machine); making it needs root and
# Debian's archive. For another machine than the host's the wizard is
# cross-built there with Debian 11's cross compiler against that machine's
# Debian 11 Qt; gathering it runs its loader under qemu (tools/debian-root.sh
# sets that up).
#   bundle/build.sh BUILD_DIR [MACHINE]   writes BUILD_DIR/wizard-bundle/MACHINE
# MACHINE is one of bundle/machines.txt, by default the host's (uname -m).
set -euo pipefail
tool=bundle
# shellcheck source=root.sh
. "$(dirname "$0")/root.sh"
[ $# -eq 1 ] || [ $# -eq 2 ] || die "usage: bundle/build.sh BUILD_DIR [MACHINE]"
machine=${2:-$(uname -m)}
arch=$(debian_arch "$machine")
[ -n "$arch" ] || die "no wizard bundle for $machine: the machines are $(machines)"
top=$bundle_top
mkdir -p "$1"
build=$(cd "$1" && pwd)
suite=bullseye
bundle=$build/wizard-bundle/$machine

# What building and gathering the wizard takes in the root.
cross= root_arch=$arch
if [ "$machine" = "$(uname -m)" ]; then
    root=$build/debian/$suite-$arch
    packages=("${host_root_packages[@]}")
else
    cross=$(cross_triplet "$machine")
    root_arch=$(dpkg --print-architecture)
    root=$build/debian/$suite-$root_arch-cross-$arch
    packages=("$(cross_package g++ "$machine")" "$(cross_package binutils "$machine")" make cmake
              "qtbase5-dev:$arch" qtbase5-dev-tools patchelf binutils icu-devtools)
    packages+=("${wizard_plugin_packages[@]/%/:$arch}")
fi
"$top/tools/debian-root.sh" "$suite" "$root_arch" "$root" "${packages[@]}" \
    || die "no $suite root to build the wizard in; the wizard bundle is not made"

# The sources go in afresh each time; the build directory in the root stays,
# so a second run compiles only what changed.
work=/tavelin
rm -rf "$root$work/src" "$root$work/bundle"
mkdir -p "$root$work/src"
cp -a "$top/CMakeLists.txt" "$top/biz" "$top/lib" "$top/bundle" "$top/packaging" "$root$work/src/"
configure=(-DTAVELIN_WIZARD_ONLY=ON -DCMAKE_BUILD_TYPE=Release)
if [ -n "$cross" ]; then
    write_toolchain "$root$work/toolchain.cmake" "$machine"
    configure+=(-DCMAKE_TOOLCHAIN_FILE=$work/toolchain.cmake)
fi
started=$SECONDS
in_root "$root" sh -c "cmake -S $work/src -B $work/build ${configure[*]} >/dev/null \
               && cmake --build $work/build -j $(nproc) >/dev/null" || die "tavelin-gui does not build in the $suite root ($arch)"
echo "bundle: tavelin-gui built in the $suite root for $machine in $((SECONDS - started)) s"
in_root "$root" "$work/src/bundle/collect.sh" "$work/build/lib/tavelin-gui/tavelin-gui" \
    "$work/src/packaging/host-libraries.txt" "$work/bundle" $cross || die "the wizard's libraries cannot be gathered in the $suite root"
"$top/packaging/check-floor.sh" "$root$work/bundle" "$top/packaging/host-libraries.txt" >/dev/null \
    || die "the bundle built in the $suite root asks the host for more than the host list grants"

# Into place whole, so that no half a bundle is ever found there.
rm -rf "$bundle.new"
mkdir -p "$(dirname "$bundle")"
cp -a "$root$work/bundle" "$bundle.new"
rm -rf "$bundle"
mv "$bundle.new" "$bundle"
echo "bundle: $bundle ready, built in Debian $suite for $machine ($(du -sm "$bundle" | cut -f1) MB)"
