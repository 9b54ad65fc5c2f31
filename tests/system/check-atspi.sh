#!/usr/bin/env bash
# What a screen reader reads of the demo wizard: started STARTS times (5 by
# default), each time on a new Xvfb, session bus and AT-SPI bus as uid 65534
# with a temporary HOME, its tree must hold the location field named by its
# label 安装位置 and proposing /opt/tavelin-demo, and the package icon as an
# image named after the package. Needs root (to become uid 65534).
#   tests/system/check-atspi.sh APPIMAGE [STARTS]
set -euo pipefail
usage() { echo "usage: check-atspi.sh APPIMAGE [STARTS]" >&2; exit 2; }
# shellcheck source=../../packaging/tavelin-lib.sh
. "$(dirname "$0")/../../packaging/tavelin-lib.sh"
skip() { echo "check-atspi: SKIP: $*" >&2; exit 77; }
{ [ $# -ge 1 ] && [ $# -le 2 ]; } || usage
starts=${2:-5}
[[ $starts =~ ^[1-9][0-9]*$ ]] || usage
[ -f "$1" ] || die "no file $1"
tree_py=$(readlink -f "$(dirname "$0")/atspi-tree.py")
label=安装位置 location=/opt/tavelin-demo package="Tavelin 演示程序"

[ "$(id -u)" = 0 ] || die "must run as root, to start the wizard as uid 65534"
command -v Xvfb >/dev/null || skip "Xvfb not installed (Debian package xvfb)"
command -v setpriv >/dev/null || skip "setpriv not installed (Debian package util-linux)"
command -v dbus-daemon >/dev/null || skip "dbus-daemon not installed (Debian package dbus)"
[ -x /usr/libexec/at-spi-bus-launcher ] || skip "at-spi-bus-launcher not installed (Debian package at-spi2-core)"
# Debian's python3, not another on PATH: pyatspi lives in its dist-packages.
/usr/bin/python3 -c 'import pyatspi' 2>/dev/null || skip "pyatspi not importable by /usr/bin/python3 (Debian package python3-pyatspi)"

nobody=65534
scratch=$(mktemp -d /tmp/tavelin-atspi.XXXXXX)
chmod 0755 "$scratch"
pids=() rundir=
alive() { local state; state=$(ps -o stat= -p "$1" 2>/dev/null) && [ "${state:0:1}" != Z ]; }
descendants() {
    local child
    for child in $(pgrep -P "$1" || true); do descendants "$child"; done
    echo "$1"
}
# Ends the processes of one start and what they started. D-Bus starts the
# AT-SPI bus and registry through a process that exits, so they are found
# by the runtime directory they were given.
stop() {
    local all=() pid live
    for pid in "${pids[@]}"; do mapfile -t -O "${#all[@]}" all < <(descendants "$pid"); done
    [ -z "$rundir" ] || mapfile -t -O "${#all[@]}" all < <(grep -lsxzF "XDG_RUNTIME_DIR=$rundir" /proc/[0-9]*/environ | cut -d/ -f3)
    for pid in "${all[@]}"; do kill "$pid" 2>/dev/null || true; done
    for _ in $(seq 50); do
        live=0
        for pid in "${all[@]}"; do alive "$pid" && live=1; done
        [ "$live" = 0 ] && break
        sleep 0.1
    done
    for pid in "${all[@]}"; do if alive "$pid"; then kill -KILL "$pid" 2>/dev/null || true; fi; done
    for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
    pids=() rundir=
}
cleanup() { stop; rm -rf "$scratch"; }
trap cleanup EXIT
# A copy uid 65534 can run, which a rebuild of the original cannot take away.
appimage=$scratch/demo.AppImage
install -m 0755 "$1" "$appimage"

# One start: returns 0 when the tree reads right, else says why.
start() {
    local n=$1 dir=$scratch/$1 display pid
    say() { echo "check-atspi: start $n: $*" >&2; }
    mkdir -p "$dir/home" "$dir/runtime"
    chown "$nobody:$nobody" "$dir/home" "$dir/runtime"
    chmod 0700 "$dir/runtime"
    rundir=$dir/runtime
    # A display no server has, in this /tmp or in a build root's: their
    # abstract sockets are shared, and a client tries those first.
    display=:$((300 + RANDOM % 600))
    while grep -q "/tmp/\.X11-unix/X${display#:}\$" /proc/net/unix || [ -e "/tmp/.X${display#:}-lock" ]; do
        display=:$((300 + RANDOM % 600))
    done
    # Xvfb names the display once it takes connections. -noreset: else it
    # resets whenever its last client leaves (libatspi and at-spi-bus-launcher
    # look the AT-SPI bus up there briefly) and turns the wizard away meanwhile.
    Xvfb "$display" -displayfd 3 -noreset -ac -nolisten tcp -screen 0 1024x800x24 3>"$dir/display" >"$dir/xvfb.log" 2>&1 &
    pids+=($!)
    for _ in $(seq 100); do [ "$(wc -l <"$dir/display" 2>/dev/null)" = 1 ] && break; sleep 0.1; done
    [ "$(wc -l <"$dir/display" 2>/dev/null)" = 1 ] || { say "Xvfb did not start on $display"; return 1; }
    local as=(setpriv --reuid="$nobody" --regid="$nobody" --clear-groups
        env -i HOME="$dir/home" USER=nobody DISPLAY="$display" PATH=/usr/local/bin:/usr/bin:/bin
        XDG_RUNTIME_DIR="$dir/runtime" LANG=C.UTF-8
        DBUS_SESSION_BUS_ADDRESS="unix:path=$dir/runtime/bus")
    # The session bus starts at-spi-bus-launcher when the wizard asks for the AT-SPI bus.
    "${as[@]}" dbus-daemon --session --nofork --nopidfile --address="unix:path=$dir/runtime/bus" \
        >"$dir/bus.log" 2>&1 &
    pids+=($!)
    for _ in $(seq 50); do [ -S "$dir/runtime/bus" ] && break; sleep 0.1; done
    [ -S "$dir/runtime/bus" ] || { say "the session bus did not start: $(cat "$dir/bus.log")"; return 1; }
    # No desktop setting turns accessibility on here: Qt is told to.
    (cd "$dir/home" && exec "${as[@]}" QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1 "$appimage") >"$dir/wizard.log" 2>&1 &
    pid=$!
    pids+=("$pid")
    if ! timeout 60 "${as[@]}" /usr/bin/python3 "$tree_py" "$pid" 30 >"$dir/tree" 2>"$dir/tree.err"; then
        say "no tree: $(cat "$dir/tree.err")"
        sed 's/^/  wizard: /' "$dir/wizard.log" >&2
        sed 's/^/  xvfb: /' "$dir/xvfb.log" >&2
        return 1
    fi
    nodes=$(wc -l <"$dir/tree")
    local field icon
    field=$(awk -F'\t' -v name="$label" -v text="$location" '($1 == "text" || $1 == "entry") &&
        $2 == name && $3 ~ /(^|,)editable(,|$)/ && $4 == text' "$dir/tree")
    # The name label shows the same words: only an image named so is the icon.
    icon=$(awk -F'\t' -v name="$package" '$1 == "image" && $2 == name' "$dir/tree")
    [ -n "$field" ] && [ -n "$icon" ] && return 0
    [ -n "$field" ] || say "no editable text node named \"$label\" holding $location; the text nodes:" \
        "$(awk -F'\t' '$1 == "text" || $1 == "entry" { printf "%s[%s: \"%s\" %s]", sep, $1, $2, $4; sep = " " }' "$dir/tree")"
    [ -n "$icon" ] || say "no image node named \"$package\"; the image nodes:" \
        "$(awk -F'\t' '$1 == "image" { printf "%s[\"%s\"]", sep, $2; sep = " " }' "$dir/tree")"
    return 1
}

passed=0 nodes=0
for n in $(seq "$starts"); do
    if start "$n"; then passed=$((passed + 1)); fi
    stop
done
[ "$passed" = "$starts" ] || die "FAIL: $passed of $starts starts read the location field as $label and the icon as $package"
echo "check-atspi: $starts of $starts starts: the location field is named $label, the icon $package ($nodes nodes)"
