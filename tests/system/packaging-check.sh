#!/usr/bin/env bash
# Builds the demo AppImage and checks it the way a user's machine sees it:
# libappimage and unsquashfs read it, nothing in it asks the host for more
# than the host list, its AppDir runs with the system's Qt hidden, the wizard
# it carries passes the real-binary test; then the installed toolchain packs
# it again, reproducibly, and the whole install, launch and uninstall works
# on Xvfb as an unprivileged user; the one-file toolchain packs the same
# bytes; then the same demo for the other machines (aarch64), run on an
# emulated Debian 11. Needs root.
set -euo pipefail
cd "$(dirname "$0")/../.."
appimage=$(tools/demo-appimage.sh | tail -n 1)
cmake --build build -j "$(nproc)" --target tavelin-appimage-inspect tavelin-x-wmstate >/dev/null
tests/system/check-appimage.sh "$appimage" build/runtime/tavelin-runtime \
    build/tests/system/tavelin-appimage-inspect
tests/system/check-runtime.sh build/runtime/tavelin-runtime

# The AppDir as shipped, unpacked from the AppImage.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
unsquashfs -q -n -o "$("$appimage" --appimage-offset)" -d "$scratch/AppDir" "$appimage" >/dev/null
packaging/check-floor.sh "$scratch/AppDir" packaging/host-libraries.txt \
    "$(build/pack/tavelin-pack --payload-layout | sed -n 's/^payload=//p')"
tests/system/check-appdir.sh "$scratch/AppDir" build/lib/tavelin-gui/tavelin-gui
tests/system/check-atspi.sh "$appimage"
# What ships is what is tested: the real-binary test again, on the portable wizard.
TAVELIN_GUI_UNDER_TEST=$PWD/build/wizard-bundle/$(uname -m)/usr/bin/tavelin-gui \
    ctest --test-dir build --output-on-failure -R '^tst_main$'
tests/system/check-signature.sh build/runtime/tavelin-runtime "$scratch/AppDir" build/pack/tavelin-pack
# For each other machine: its wizard and runtime cross-built, its runtime
# answering as the host's, the demo packed for it (the toolchain then
# carries both, for e2e-toolchain.sh).
others=()
for other in $(awk -v host="$(uname -m)" '/^[a-z]/ && $1 != host { print $1 }' bundle/machines.txt); do
    others+=("$(tools/demo-appimage.sh "$other" | tail -n 1)")
    tests/system/check-runtime-arch.sh build/runtime/tavelin-runtime "build/runtime/$other/tavelin-runtime"
done
tests/system/e2e-toolchain.sh build
tests/system/check-zsync.sh build
# The toolchain as one file, in bare Debian 11 and 13 roots without FUSE,
# packing what the installed toolchain packs.
cmake --build build --target tavelin-pack-appimage >/dev/null
tests/system/check-toolchain-appimage.sh build
tests/system/check-build-root.sh
# The demo AppImages on Debian 11 and 13 as a user's desktop has them; another
# machine's on its emulated Debian 11.
for each in "$appimage" "${others[@]}"; do
    tests/system/check-distros.sh "$each" build/tests/system/tavelin-x-wmstate build/debian
done
