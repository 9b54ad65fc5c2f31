#!/usr/bin/env bash
# Builds Tavelin and its portable wizard bundle (the first time, as root: a
# Debian 11 root in build/debian, about 200 MB from Debian's archive),
# installs the toolchain into build/toolchain as a packager would have it,
# packs the demo package into one AppImage file with the installed
# tavelin-pack and its description file, and prints the file's path on its
# last line. tools/demo.sh builds with it and starts the result.
#   tools/demo-appimage.sh [MACHINE]   for another machine than this one,
#                                      e.g. aarch64 (bundle/machines.txt)
set -euo pipefail
cd "$(dirname "$0")/.."
source bundle/root.sh
machine=${1:-$(uname -m)}
# Refused before anything is built: an option or a typo is not a machine.
[ $# -le 1 ] && [ -n "$(debian_arch "$machine")" ] || {
    echo "demo-appimage: \"$*\" is not a machine: the machines are $(machines) (bundle/machines.txt)" >&2
    exit 1
}
tools/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)" --target tavelin-pack tavelin-runtime >/dev/null
cmake --build build --target "tavelin-bundle-$machine" >/dev/null
rm -rf build/toolchain
cmake --install build --prefix build/toolchain >/dev/null

# The description file writes out/TavelinDemo-x86_64.AppImage; the machine
# and its name in the file's are given here.
appimage=$PWD/out/TavelinDemo-$machine.AppImage
rm -f "$appimage"
build/toolchain/bin/tavelin-pack --config examples/demo/tavelin-pack.json --arch "$machine" --appimage "$appimage"
echo "$appimage"
