#!/usr/bin/env bash
# Installs what is missing, builds Tavelin and opens the wizard on the demo
# package. Without a display the wizard runs under Xvfb and a screenshot is
# saved instead (to the path given as the first argument, or out/). Run by
# root, the Xvfb wizard runs as user 65534, so that the picture shows what a
# normal user sees: /opt is not writable, and the switch-to-root row is red.
set -euo pipefail
cd "$(dirname "$0")/.."
tools/install-deps.sh
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j "$(nproc)"
wizard=$PWD/build/lib/tavelin-gui/tavelin-gui
demo=$PWD/examples/demo
if [ -n "${DISPLAY:-}" ]; then
    APPDIR=$demo exec "$wizard"
fi
shot=$(realpath -m "${1:-out/demo-wizard.png}")
mkdir -p "$(dirname "$shot")"

asuser=()
if [ "$(id -u)" -eq 0 ]; then
    # User 65534 may not reach the build tree (under /root, say): it gets copies.
    stage=$(mktemp -d)
    trap 'rm -rf "$stage"' EXIT
    cp "$wizard" "$stage/tavelin-gui"
    cp -r "$demo" "$stage/demo"
    chmod -R a+rX "$stage"
    mkdir -m 700 "$stage/home"
    chown 65534:65534 "$stage/home"
    wizard=$stage/tavelin-gui
    demo=$stage/demo
    asuser=(setpriv --reuid=65534 --regid=65534 --clear-groups
            env HOME="$stage/home" XDG_RUNTIME_DIR="$stage/home")
fi

# -ac: the wizard may run as another user than the X server.
xvfb-run -a -s "-ac -br -screen 0 1024x800x24" sh -c '
    shot=$1; shift
    "$@" & pid=$!
    sleep 3
    xwd -root -silent | convert xwd:- -trim +repage "$shot"
    kill $pid' sh "$shot" "${asuser[@]}" env APPDIR="$demo" "$wizard"
echo "No display: the wizard ran under Xvfb. Screenshot saved to $shot"
