#!/usr/bin/env bash
# Builds Tavelin, installs its toolchain into build/toolchain as a packager
# would have it, packs the demo package into one AppImage file with the
# installed tavelin-pack and its description file, and prints the file's
# path on its last line. tools/demo.sh builds with it and starts the result.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target tavelin-gui tavelin-pack tavelin-runtime >/dev/null
cmake --install build --prefix build/toolchain >/dev/null

# The description file writes out/TavelinDemo-x86_64.AppImage.
appimage=$PWD/out/TavelinDemo-x86_64.AppImage
rm -f "$appimage"
build/toolchain/bin/tavelin-pack --config examples/demo/tavelin-pack.json
echo "$appimage"
