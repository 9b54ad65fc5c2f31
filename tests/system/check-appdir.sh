#!/usr/bin/env bash
# Proves an AppDir self-contained: in a private mount namespace that hides
# the system's Qt (its plugin tree and every libQt5*.so), the wizard must
# start and map Qt and its platform plugin from the AppDir alone.
#   tests/system/check-appdir.sh APPDIR [SYSTEM_QT_BINARY]
# SYSTEM_QT_BINARY, a program linked to the system's Qt, must fail to start
# under the same hiding: that shows the hiding works. Needs root (unshare -m).
set -euo pipefail
[ $# -ge 1 ] || { echo "usage: check-appdir.sh APPDIR [SYSTEM_QT_BINARY]" >&2; exit 2; }
appdir=$(readlink -f "$1")
control=${2:-}
if [ "${TAVELIN_QT_HIDDEN:-}" != 1 ]; then
    if ! unshare -m --propagation private true 2>/dev/null; then
        echo "check-appdir: SKIP: no private mount namespace here (needs root and unshare -m)" >&2
        exit 0
    fi
    exec unshare -m --propagation private env TAVELIN_QT_HIDDEN=1 "$0" "$@"
fi

libdir=/usr/lib/x86_64-linux-gnu
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/empty"
: > "$scratch/empty-file"
mount --bind "$scratch/empty" "$libdir/qt5"
for lib in "$libdir"/libQt5*.so*; do
    [ -L "$lib" ] || mount --bind "$scratch/empty-file" "$lib"
done
echo "check-appdir: system Qt hidden ($(ls "$libdir/qt5" | wc -l) entries left in $libdir/qt5)"

if [ -n "$control" ]; then
    if QT_QPA_PLATFORM=offscreen timeout 10 "$control" >/dev/null 2>&1; then
        echo "check-appdir: FAIL: $control still starts, the system Qt is not hidden" >&2
        exit 1
    fi
    echo "check-appdir: $control, linked to the system Qt, no longer starts"
fi

# Starts AppRun on one platform, waits until the platform and theme plugins
# are mapped,
# and checks that every Qt library mapped comes from the AppDir.
check_platform() { # platform plugin-file
    local platform=$1 plugin=$2 pid maps=
    (cd "$scratch" && HOME=$scratch QT_QPA_PLATFORM=$platform exec "$appdir/AppRun") >"$scratch/out.log" 2>&1 &
    pid=$!
    for _ in $(seq 100); do
        maps=$(cat "/proc/$pid/maps" 2>/dev/null || true)
        grep -q "platforms/$plugin" <<<"$maps" && grep -q platformthemes/libqgtk3.so <<<"$maps" && break
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.1
    done
    maps=$(cat "/proc/$pid/maps" 2>/dev/null || true)
    if ! kill "$pid" 2>/dev/null; then
        echo "check-appdir: FAIL: the wizard ended by itself on $platform:" >&2
        cat "$scratch/out.log" >&2
        return 1
    fi
    wait "$pid" 2>/dev/null || true
    if ! grep -q "$appdir/usr/plugins/platforms/$plugin" <<<"$maps"; then
        echo "check-appdir: FAIL: the wizard did not start on $platform:" >&2
        cat "$scratch/out.log" >&2
        return 1
    fi
    local foreign
    foreign=$(grep -o '/[^ ]*libQt5[^ ]*' <<<"$maps" | sort -u | grep -v "^$appdir/" || true)
    if [ -n "$foreign" ]; then
        echo "check-appdir: FAIL: Qt mapped from outside the AppDir: $foreign" >&2
        return 1
    fi
    echo "check-appdir: started on $platform, Qt mapped from the AppDir only:"
    grep -o '/[^ ]*\(libQt5\|plugins/\)[^ ]*' <<<"$maps" | sort -u | sed "s|^$appdir/|  |"
}

# The gtk3 theme plugin ends the process without a display, whatever the
# platform: both runs get an Xvfb server.
command -v Xvfb >/dev/null || { echo "check-appdir: Xvfb not installed (Debian package xvfb)" >&2; exit 1; }
display=:$((90 + RANDOM % 100))
Xvfb "$display" -nolisten tcp >/dev/null 2>&1 &
xvfb=$!
trap 'kill "$xvfb" 2>/dev/null; rm -rf "$scratch"' EXIT
for _ in $(seq 50); do [ -e "/tmp/.X11-unix/X${display#:}" ] && break; sleep 0.1; done
export DISPLAY=$display
check_platform xcb libqxcb.so
check_platform offscreen libqoffscreen.so
