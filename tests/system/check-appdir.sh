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

# Starts AppRun with the environment given (env's words), waits until each
# plugin named is mapped, and checks that every Qt library mapped comes from
# the AppDir. The wizard is left running as $pid.
start_wizard() { # label "env words" plugin...
    local label=$1 words=$2 maps= plugin
    shift 2
    # shellcheck disable=SC2086
    (cd "$scratch" && exec env -u QT_QPA_PLATFORM $words HOME="$scratch" "$appdir/AppRun") >"$scratch/out.log" 2>&1 &
    pid=$!
    for _ in $(seq 100); do
        maps=$(cat "/proc/$pid/maps" 2>/dev/null || true)
        all_mapped "$maps" "$@" || ! kill -0 "$pid" 2>/dev/null && break
        sleep 0.1
    done
    if ! kill -0 "$pid" 2>/dev/null; then
        echo "check-appdir: FAIL: $label: the wizard ended by itself:" >&2
        cat "$scratch/out.log" >&2
        return 1
    fi
    for plugin in "$@"; do
        grep -q "$appdir/usr/plugins/$plugin" <<<"$maps" \
            || { echo "check-appdir: FAIL: $label: $plugin not loaded:" >&2; cat "$scratch/out.log" >&2; return 1; }
    done
    local foreign
    foreign=$(grep -o '/[^ ]*libQt5[^ ]*' <<<"$maps" | sort -u | grep -v "^$appdir/" || true)
    [ -z "$foreign" ] || { echo "check-appdir: FAIL: $label: Qt mapped from outside the AppDir: $foreign" >&2; return 1; }
    echo "check-appdir: $label: $* loaded, Qt mapped from the AppDir only"
}
all_mapped() { # maps plugin...
    local maps=$1 plugin
    shift
    for plugin in "$@"; do grep -q "$appdir/usr/plugins/$plugin" <<<"$maps" || return 1; done
}
stop_wizard() { kill "$pid" 2>/dev/null; wait "$pid" 2>/dev/null || true; }
check_start() { # as start_wizard, then stops it
    start_wizard "$@" && stop_wizard
}

# The gtk3 theme plugin ends the process without a display, whatever the
# platform: the X runs get an Xvfb server, large enough for the window at 200 %.
command -v Xvfb >/dev/null || { echo "check-appdir: Xvfb not installed (Debian package xvfb)" >&2; exit 1; }
display=:$((90 + RANDOM % 100))
Xvfb "$display" -nolisten tcp -noreset -screen 0 3840x2160x24 >/dev/null 2>&1 &
xvfb=$!
trap 'kill "$xvfb" ${weston:-} 2>/dev/null; rm -rf "$scratch"' EXIT
for _ in $(seq 50); do [ -e "/tmp/.X11-unix/X${display#:}" ] && break; sleep 0.1; done
export DISPLAY=$display
unset WAYLAND_DISPLAY WAYLAND_SOCKET QT_QPA_PLATFORM QT_IM_MODULE
check_start xcb "QT_QPA_PLATFORM=xcb" platforms/libqxcb.so platformthemes/libqgtk3.so
check_start offscreen "QT_QPA_PLATFORM=offscreen" platforms/libqoffscreen.so platformthemes/libqgtk3.so
check_start "DISPLAY only: X" "" platforms/libqxcb.so
# The input methods Chinese users type with: each plugin loads with what it needs.
# fcitx5's plugin answers to "fcitx" too and comes first, as on a system with
# both: fcitx 4's is loaded here with fcitx5's hidden.
inputs=$appdir/usr/plugins/platforminputcontexts
for im in fcitx5:libfcitx5 fcitx:libfcitx5 ibus:libibus compose:libcompose "fcitx:libfcitx:fcitx5 hidden"; do
    IFS=: read -r key file hidden <<<"$im"
    [ -z "$hidden" ] || mount --bind "$scratch/empty-file" "$inputs/libfcitx5platforminputcontextplugin.so"
    check_start "input method $key${hidden:+, $hidden}" "QT_IM_MODULE=$key" "platforminputcontexts/${file}platforminputcontextplugin.so"
    [ -z "$hidden" ] || umount "$inputs/libfcitx5platforminputcontextplugin.so"
done

# No display at all: one line that says so, not Qt's abort.
status=0
(cd "$scratch" && exec env -u WAYLAND_DISPLAY DISPLAY=:4999 HOME="$scratch" "$appdir/AppRun") >"$scratch/out.log" 2>&1 || status=$?
if [ "$status" != 1 ] || [ "$(wc -l < "$scratch/out.log")" != 1 ] || ! grep -q '^tavelin: no display' "$scratch/out.log"; then
    echo "check-appdir: FAIL: without a display AppRun ended with $status and said:" >&2
    cat "$scratch/out.log" >&2
    exit 1
fi
echo "check-appdir: no display: exit 1, one line: $(cat "$scratch/out.log")"

# The desktop's scale: at Xft.dpi 144 and 192 the window is 1.5 and 2 times
# its size at 96 in device pixels, and a scaling variable of the user's wins.
window_size() { # the wizard's window as WIDTHxHEIGHT, once mapped
    local window
    window=$(xdotool search --sync --onlyvisible --pid "$pid" 2>/dev/null | head -n 1)
    xdotool getwindowgeometry "$window" | sed -n 's/.*Geometry: //p'
}
sized() { # dpi "env words": WIDTHxHEIGHT of the window
    echo "Xft.dpi: $1" | xrdb -override
    start_wizard "Xft.dpi $1${2:+ $2}" "$2" platforms/libqxcb.so >/dev/null || exit 1
    window_size
    stop_wizard
}
within() { # size base factor: each side within 5 % of base times factor
    awk -v s="$1" -v b="$2" -v f="$3" 'BEGIN { split(s, a, "x"); split(b, c, "x");
        for (i = 1; i <= 2; i++) if (a[i] < 0.95 * f * c[i] || a[i] > 1.05 * f * c[i]) exit 1 }'
}
base=$(sized 96 "")
for row in "144 1.5" "192 2" "192 1.25 QT_SCALE_FACTOR=1.25" "192 1 QT_AUTO_SCREEN_SCALE_FACTOR=0"; do
    read -r dpi factor words <<<"$row"
    size=$(sized "$dpi" "${words:-}")
    within "$size" "$base" "$factor" || { echo "check-appdir: FAIL: Xft.dpi $dpi ${words:-}: $size, not $factor x $base" >&2; exit 1; }
    echo "check-appdir: Xft.dpi $dpi${words:+ with $words}: $size, $factor x $base"
done
xrdb -remove </dev/null 2>/dev/null || true

# A Wayland session without X: the wizard goes native and its window shows
# on the compositor's output, in the middle where the desktop was before.
if command -v weston >/dev/null; then
    xdg=$scratch/xdg
    mkdir -m 700 "$xdg"
    (cd "$xdg" && exec env -u DISPLAY XDG_RUNTIME_DIR="$xdg" weston --backend=headless-backend.so \
        --socket=wayland-tavelin --idle-time=0 --use-pixman --width=1024 --height=768 --debug) >"$scratch/weston.log" 2>&1 &
    weston=$!
    for _ in $(seq 50); do [ -S "$xdg/wayland-tavelin" ] && break; sleep 0.1; done
    shoot() { # FILE: the middle of the output, below the panel and its clock
        rm -f "$xdg"/wayland-screenshot-*.png
        (cd "$xdg" && env -u DISPLAY XDG_RUNTIME_DIR="$xdg" WAYLAND_DISPLAY=wayland-tavelin weston-screenshooter) >/dev/null 2>&1
        convert "$xdg"/wayland-screenshot-*.png -crop 400x300+312+234 +repage "$1"
    }
    changed() { # pixels that differ between the two shots
        compare -metric AE "$scratch/desktop.png" "$scratch/wizard.png" null: 2>&1 || true
    }
    shoot "$scratch/desktop.png"
    start_wizard "WAYLAND_DISPLAY only: Wayland" "-u DISPLAY XDG_RUNTIME_DIR=$xdg WAYLAND_DISPLAY=wayland-tavelin" \
        platforms/libqwayland- wayland-shell-integration/libxdg-shell.so
    for _ in $(seq 50); do shoot "$scratch/wizard.png"; [ "$(changed)" -gt 60000 ] && break; sleep 0.2; done
    stop_wizard
    # The session's own choice stands; with XWayland beside, X is taken.
    check_start "QT_QPA_PLATFORM=wayland from the session" \
        "XDG_RUNTIME_DIR=$xdg WAYLAND_DISPLAY=wayland-tavelin QT_QPA_PLATFORM=wayland" platforms/libqwayland-
    check_start "DISPLAY and WAYLAND_DISPLAY: X" "XDG_RUNTIME_DIR=$xdg WAYLAND_DISPLAY=wayland-tavelin" platforms/libqxcb.so
    kill "$weston"
    [ "$(changed)" -gt 60000 ] \
        || { echo "check-appdir: FAIL: Wayland: the window did not show: $(changed) of 120000 pixels changed" >&2; exit 1; }
    echo "check-appdir: Wayland: the window shows on the output, $(changed) of 120000 pixels changed"
else
    echo "check-appdir: SKIP: Wayland: weston not installed (Debian package weston)"
fi
