#!/usr/bin/env bash
# Makes the whole toolchain one file, BUILD_DIR/tavelin-pack-MACHINE.AppImage,
# that packs on any Linux with glibc 2.31 or newer: tavelin-pack built in a
# Debian 11 root against its Qt, with the Qt libraries it loads, the
# programs the packaging scripts run (readelf, desktop-file-validate,
# zsyncmake) taken from that root with theirs, and the scripts, host list,
# squasher, wizard bundles and runtimes of every machine laid out by cmake
# --install as an installed toolchain has them. Only gpg, to sign, is the
# host's. The file is made with this build's runtime and
# packaging/make-appimage.sh, using the squasher it carries.
# The root is kept in BUILD_DIR/debian, so only the first run downloads;
# making it needs root and Debian's archive. The bundles and runtimes must
# be built first (the tavelin-pack-appimage target does that).
#   toolchain/build.sh BUILD_DIR
set -euo pipefail
# shellcheck source=../bundle/root.sh
. "$(dirname "$0")/../bundle/root.sh"
tool=toolchain
[ $# -eq 1 ] || die "usage: toolchain/build.sh BUILD_DIR"
top=$bundle_top
build=$(cd "$1" && pwd)
machine=$(uname -m)
arch=$(debian_arch "$machine")
[ -n "$arch" ] || die "no toolchain AppImage for $machine: the machines are $(machines)"
suite=bullseye
root=$build/debian/$suite-$arch-toolchain
output=$build/tavelin-pack-$machine.AppImage
# Beside the file, apart from CMake's own directories.
appdir=$build/tavelin-pack-$machine.AppDir

# What the file carries for every machine, as cmake --install takes it.
[ -f "$build/runtime/tavelin-runtime" ] || die "no $build/runtime/tavelin-runtime: build the tavelin-runtime target first"
[ -x "$build/squasher/usr/bin/mksquashfs" ] || die "no squasher in $build/squasher: build the tavelin-squasher target first"
for each in $(awk '/^[a-z]/ { print $1 }' "$top/bundle/machines.txt"); do
    [ -x "$build/wizard-bundle/$each/usr/bin/tavelin-gui" ] \
        || die "no wizard bundle for $each: build the tavelin-bundle-$each target first"
    [ "$each" = "$machine" ] || [ -f "$build/runtime/$each/tavelin-runtime" ] \
        || die "no $each runtime: build the tavelin-bundle-$each target first"
done

# The programs the packer and its scripts run, from Debian 11 with their libraries.
packages=(g++ make cmake qtbase5-dev patchelf binutils desktop-file-utils zsync)
programs=(/usr/bin/readelf /usr/bin/desktop-file-validate /usr/bin/zsyncmake)
"$top/tools/debian-root.sh" "$suite" "$arch" "$root" "${packages[@]}" \
    || die "no $suite root to build tavelin-pack in; the toolchain AppImage is not made"

# The sources go in afresh; the build directory in the root stays, so a
# second run compiles only what changed.
inside=/tavelin
rm -rf "$root$inside/src" "$root$inside/AppDir"
mkdir -p "$root$inside/src"
cp -a "$top/CMakeLists.txt" "$top/biz" "$top/lib" "$top/pack" "$top/runtime" "$top/bundle" "$top/packaging" "$top/toolchain" "$root$inside/src/"
started=$SECONDS
in_root "$root" sh -c "cmake -S $inside/src -B $inside/build -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF >$inside/build.log 2>&1 \
               && cmake --build $inside/build -j $(nproc) --target tavelin-pack >>$inside/build.log 2>&1" \
    || { tail -n 20 "$root$inside/build.log" >&2; die "tavelin-pack does not build in the $suite root ($arch)"; }
echo "toolchain: tavelin-pack built in the $suite root for $machine in $((SECONDS - started)) s"
in_root "$root" "$inside/src/toolchain/collect.sh" "$inside/src/toolchain/host-libraries.txt" "$inside/AppDir" \
    "$inside/build/pack/tavelin-pack" "${programs[@]}" || die "the programs cannot be gathered in the $suite root"

# The installed layout under usr, then Debian 11's tavelin-pack in place of this build's.
rm -rf "$appdir"
cmake --install "$build" --prefix "$appdir/usr" >/dev/null || die "cmake --install $build failed"
cp -a "$root$inside/AppDir/usr/." "$appdir/usr/"
install -m 0755 "$top/toolchain/AppRun" "$appdir/AppRun"
cat > "$appdir/tavelin-pack.desktop" <<DESKTOP
[Desktop Entry]
Type=Application
Name=tavelin-pack
Comment=Packs an application into an installer AppImage
Exec=tavelin-pack
Terminal=true
NoDisplay=true
Categories=Development;
DESKTOP
for each in $(awk '/^[a-z]/ { print $1 }' "$top/bundle/machines.txt"); do
    [ -f "$appdir/usr/libexec/tavelin/runtime/$each/tavelin-runtime" ] && [ -d "$appdir/usr/libexec/tavelin/wizard-bundle/$each" ] \
        || die "cmake --install left out the $each runtime or wizard bundle"
done
find "$appdir" -type d -exec chmod 0755 {} +
find "$appdir" -type f -perm /0111 -exec chmod 0755 {} +
find "$appdir" -type f ! -perm /0111 -exec chmod 0644 {} +

# The packer's own files may take only glibc and the C++ runtime from the
# host; the wizard bundles and static runtimes under libexec were checked
# against the wizard's list when they were built.
"$top/packaging/check-floor.sh" "$appdir" "$top/toolchain/host-libraries.txt" usr/libexec/tavelin >/dev/null \
    || die "the toolchain AppDir asks the host for more than glibc and the C++ runtime"
# It starts from the AppDir, with its programs found first.
"$appdir/AppRun" --payload-layout | grep -q '^payload=' || die "tavelin-pack does not start from $appdir"
for carried in readelf desktop-file-validate zsyncmake; do
    [ "$(PATH=$appdir/usr/bin:$PATH command -v "$carried")" = "$appdir/usr/bin/$carried" ] || die "$carried is not carried"
done
squasher=$appdir/usr/libexec/tavelin/squasher/usr/bin/mksquashfs
[ -x "$squasher" ] || die "cmake --install left out the squasher"

# Made with the tools it carries, so the image is the same whatever the host's squashfs-tools.
rm -f "$output.new"
PATH=$appdir/usr/bin:$PATH TAVELIN_MKSQUASHFS=$squasher "$top/packaging/make-appimage.sh" "$build/runtime/tavelin-runtime" "$appdir" "$output.new" >/dev/null \
    || die "make-appimage.sh failed on $appdir"
mv "$output.new" "$output"
echo "toolchain: $output ready ($(stat -c %s "$output") bytes, $(du -sm "$appdir" | cut -f1) MB unpacked)"
# Its checksum, to publish beside it for sha256sum -c.
(cd "$(dirname "$output")" && sha256sum "$(basename "$output")" | tee "$(basename "$output").sha256")
