#!/usr/bin/env bash
# Puts the AppImage runtime for a machine in BUILD_DIR/runtime/MACHINE. For
# the host's machine that is the runtime the build made (the tavelin-runtime
# target). For another it is cross-built from the same sources with the same
# options in a Debian 12 root with that machine's packages beside the
# host's: Debian 12's squashfuse and libfuse3, as in the host's build, and
# static, so the root's glibc does not bound where it starts. The root is
# kept in BUILD_DIR/debian, so only the first run downloads; making it needs
# root and Debian's archive.
#   bundle/build-runtime.sh BUILD_DIR MACHINE    MACHINE is one of bundle/machines.txt
set -euo pipefail
# shellcheck source=root.sh
. "$(dirname "$0")/root.sh"
[ $# -eq 2 ] || die "usage: bundle/build-runtime.sh BUILD_DIR MACHINE"
machine=$2
arch=$(debian_arch "$machine")
[ -n "$arch" ] || die "no runtime for $machine: the machines are $(machines)"
top=$bundle_top
mkdir -p "$1"
build=$(cd "$1" && pwd)
out=$build/runtime/$machine

# "AI" 2 at offset 8, the reserved sections, an ELF for this machine and no
# interpreter: what make-appimage.sh and the hosts it starts on take for granted.
check_runtime() { # file
    local header
    [ "$(dd if="$1" bs=1 skip=8 count=3 status=none | od -An -c | tr -d ' ')" = 'AI002' ] \
        || die "$1 carries no AppImage type 2 mark"
    header=$(readelf -hlW "$1") || die "$1 is not an ELF file"
    grep -q "Machine: .*$(elf_machine "$machine")\$" <<<"$header" || die "$1 is not a $machine program"
    ! grep -q 'INTERP' <<<"$header" || die "$1 is not static"
    for section in .upd_info .sha256_sig .sig_key; do
        elf_section "$1" "$section" >/dev/null || die "$1 has no section $section"
    done
}
install_runtime() { # file
    check_runtime "$1"
    mkdir -p "$out"
    install -m 0755 "$1" "$out/tavelin-runtime.new"
    mv "$out/tavelin-runtime.new" "$out/tavelin-runtime"
    echo "build-runtime: $out/tavelin-runtime ready ($(stat -c %s "$out/tavelin-runtime") bytes)"
}

if [ "$machine" = "$(uname -m)" ]; then
    [ -f "$build/runtime/tavelin-runtime" ] \
        || die "$build has no tavelin-runtime: build it first (cmake --build $build --target tavelin-runtime)"
    install_runtime "$build/runtime/tavelin-runtime"
    exit 0
fi

suite=bookworm
root_arch=$(dpkg --print-architecture)
root=$build/debian/$suite-$root_arch-cross-$arch
packages=("$(cross_package gcc "$machine")" make cmake)
for package in libc6-dev libsquashfuse-dev libfuse3-dev zlib1g-dev liblzma-dev liblzo2-dev liblz4-dev libzstd-dev; do
    packages+=("$package:$arch")
done
"$top/tools/debian-root.sh" "$suite" "$root_arch" "$root" "${packages[@]}" \
    || die "no $suite root to build the $machine runtime in"

# The runtime's own CMakeLists under a top level that gives it what the
# project's does (its version, Threads, the default build type) without Qt.
work=/tavelin-runtime
version=$(sed -n 's/^project(Tavelin VERSION \([0-9.]*\).*/\1/p' "$top/CMakeLists.txt")
[ -n "$version" ] || die "no project version in $top/CMakeLists.txt"
rm -rf "$root$work/src"
mkdir -p "$root$work/src"
cp -a "$top/runtime" "$root$work/src/runtime"
cat > "$root$work/src/CMakeLists.txt" <<EOF
cmake_minimum_required(VERSION 3.16)
project(Tavelin VERSION $version LANGUAGES C)
if(NOT CMAKE_BUILD_TYPE)
    set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()
find_package(Threads REQUIRED)
add_subdirectory(runtime)
EOF
write_toolchain "$root$work/toolchain.cmake" "$machine"
started=$SECONDS
in_root "$root" sh -c "cmake -S $work/src -B $work/build -DCMAKE_TOOLCHAIN_FILE=$work/toolchain.cmake >$work/build.log 2>&1 \
               && cmake --build $work/build -j $(nproc) >>$work/build.log 2>&1" \
    || { tail -n 20 "$root$work/build.log" >&2; die "tavelin-runtime does not build in the $suite root for $machine"; }
echo "build-runtime: cross-built in the $suite root for $machine in $((SECONDS - started)) s"
install_runtime "$root$work/build/runtime/tavelin-runtime"
