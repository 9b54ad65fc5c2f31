#!/usr/bin/env bash
# Builds the demo AppImage and checks it the way a user's machine sees it:
# libappimage and unsquashfs read it, nothing in it asks the host for more
# than the host list, its AppDir runs with the system's Qt hidden, the wizard
# it carries passes the real-binary test; then the installed toolchain packs
# it again, reproducibly, and the whole install, launch and uninstall works
# on Xvfb as an unprivileged user. Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."
appimage=$(tools/demo-appimage.sh | tail -n 1)
cmake --build build -j "$(nproc)" --target tavelin-appimage-inspect tavelin-x-wmstate >/dev/null
packaging/check-appimage.sh "$appimage" build/packaging/runtime/tavelin-runtime \
    build/packaging/check/tavelin-appimage-inspect
packaging/check-runtime.sh build/packaging/runtime/tavelin-runtime

# The AppDir as shipped, unpacked from the AppImage.
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
unsquashfs -q -n -o "$("$appimage" --appimage-offset)" -d "$scratch/AppDir" "$appimage" >/dev/null
packaging/check-floor.sh "$scratch/AppDir" packaging/host-libraries.txt
packaging/check-appdir.sh "$scratch/AppDir" build/lib/tavelin-gui/tavelin-gui
# What ships is what is tested: the real-binary test again, on the portable wizard.
TAVELIN_GUI_UNDER_TEST=$PWD/build/wizard-bundle/$(uname -m)/usr/bin/tavelin-gui \
    ctest --test-dir build --output-on-failure -R '^tst_main$'
packaging/check-signature.sh build/packaging/runtime/tavelin-runtime "$scratch/AppDir" build/packaging/pack/tavelin-pack
packaging/e2e-toolchain.sh build
tests/system/check-build-root.sh
# The demo AppImage on Debian 11 and 13 as a user's desktop has them.
tests/system/check-distros.sh "$appimage" build/packaging/check/tavelin-x-wmstate build/debian
