#!/usr/bin/env bash
# Installs what is missing, builds Tavelin, packs the demo package into one
# AppImage file and starts it. Without a display the wizard runs under Xvfb
# and a screenshot is saved instead (to the path given as the first argument,
# or out/demo-wizard.png). Run by root, the Xvfb wizard runs as user 65534,
# so that the picture shows what a normal user sees: /opt is not writable,
# and the switch-to-root row is red.
set -euo pipefail
cd "$(dirname "$0")/.."
appimage=$(tools/demo-appimage.sh | tail -n 1)
echo "Demo AppImage: $appimage"
if [ -n "${DISPLAY:-}" ]; then
    exec "$appimage"
fi
shot=$(realpath -m "${1:-out/demo-wizard.png}")
mkdir -p "$(dirname "$shot")"

asuser=()
if [ "$(id -u)" -eq 0 ]; then
    # User 65534 may not reach the build tree (under /root, say): it gets a copy.
    stage=$(mktemp -d)
    trap 'rm -rf "$stage"' EXIT
    cp "$appimage" "$stage/"
    appimage=$stage/$(basename "$appimage")
    chmod -R a+rX "$stage"
    mkdir -m 700 "$stage/home"
    chown 65534:65534 "$stage/home"
    asuser=(setpriv --reuid=65534 --regid=65534 --clear-groups
            env HOME="$stage/home" XDG_RUNTIME_DIR="$stage/home" TMPDIR="$stage/home")
fi

# -ac: the wizard may run as another user than the X server.
xvfb-run -a -s "-ac -br -screen 0 1024x800x24" sh -c '
    shot=$1; shift
    "$@" & pid=$!
    sleep 5
    xwd -root -silent | convert xwd:- -trim +repage "$shot"
    kill $pid; wait $pid 2>/dev/null || true' sh "$shot" "${asuser[@]}" "$appimage"
echo "No display: the wizard ran under Xvfb. Screenshot saved to $shot"
