#!/usr/bin/env bash
# Builds the demo package into one AppImage file with tavelin-pack, the
# AppDir and the runtime, and prints the file's path on its last line.
# tools/demo.sh builds with it and starts the result.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target tavelin-gui tavelin-pack tavelin-runtime >/dev/null

out=$PWD/out
demo=$PWD/examples/demo/soft
appimage=$out/TavelinDemo-x86_64.AppImage
rm -rf "$out/demo-payload" "$out/demo.AppDir"
mkdir -p "$out"
build/packaging/pack/tavelin-pack \
    --app "$demo/app" \
    --desktop "$demo/desktop/share/applications/tavelin-demo.desktop" \
    --icon "$demo/images/tavelin-demo.png" \
    --name-eng TavelinDemo --name-chs "Tavelin 演示程序" --app-version 1.0.2 \
    --publisher "Tavelin 项目" --website https://tavelin.example.org \
    --author "Tavelin developers" --email demo@tavelin.example.org \
    --parent-dir /opt --dir tavelin-demo \
    --local-dir /build/tavelin-demo/ --main-exe /build/tavelin-demo/bin/tavelin-demo \
    --output "$out/demo-payload"
packaging/make-appdir.sh "$out/demo-payload" build/lib/tavelin-gui/tavelin-gui "$out/demo.AppDir"
packaging/make-appimage.sh build/packaging/runtime/tavelin-runtime "$out/demo.AppDir" "$appimage"
echo "$appimage"
