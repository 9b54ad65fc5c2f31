#!/usr/bin/env bash
# Builds the demo AppImage and checks it the way a user's machine sees it:
# libappimage and unsquashfs read it, the AppDir runs with the system's Qt
# hidden, and the whole install, launch and uninstall works on Xvfb as an
# unprivileged user. Needs root.
set -euo pipefail
cd "$(dirname "$0")/.."
appimage=$(tools/demo-appimage.sh | tail -n 1)
cmake --build build -j "$(nproc)" --target tavelin-appimage-inspect tavelin-x-wmstate >/dev/null
packaging/check-appimage.sh "$appimage" build/packaging/runtime/tavelin-runtime \
    build/packaging/check/tavelin-appimage-inspect
packaging/check-appdir.sh out/demo.AppDir build/lib/tavelin-gui/tavelin-gui
packaging/e2e-demo.sh "$appimage" build/packaging/check/tavelin-x-wmstate
