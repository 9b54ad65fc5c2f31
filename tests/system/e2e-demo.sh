#!/usr/bin/env bash
# End to end on a real X server: the demo AppImage, started by an
# unprivileged user with a temporary HOME, installs into a location typed
# into the wizard; the installed program starts through its desktop entry;
# uninstall.sh, answered y, removes everything. Needs root (to become
# uid 65534), Xvfb, xdotool, setpriv, gio and desktop-file-validate.
#   tests/system/e2e-demo.sh APPIMAGE WMSTATE
# WMSTATE is the tavelin-x-wmstate program of the build.
set -euo pipefail
[ $# -eq 2 ] || { echo "usage: e2e-demo.sh APPIMAGE WMSTATE" >&2; exit 2; }
wmstate=$(readlink -f "$2")
fail() { echo "e2e-demo: FAIL: $*" >&2; [ -f "$scratch/wizard.log" ] && sed 's/^/  wizard: /' "$scratch/wizard.log" >&2; exit 1; }
step() { echo "e2e-demo: $*"; }
for tool in Xvfb xdotool setpriv gio desktop-file-validate; do
    command -v "$tool" >/dev/null || { echo "e2e-demo: $tool not installed" >&2; exit 1; }
done
[ "$(id -u)" = 0 ] || { echo "e2e-demo: must run as root, to start the wizard as uid 65534" >&2; exit 1; }

nobody=65534
scratch=$(mktemp -d /tmp/tavelin-e2e.XXXXXX)
chmod 0755 "$scratch"
home=$scratch/home
location=$home/apps/tavelin-demo
entry=$home/.local/share/applications/tavelin-demo.desktop
marker=$scratch/marker/launched
mkdir -p "$home" "$scratch/marker" "$scratch/runtime"
chown "$nobody:$nobody" "$home" "$scratch/marker" "$scratch/runtime"
chmod 0700 "$scratch/runtime"
install -m 0755 "$1" "$scratch/demo.AppImage"
xvfb= wizard=
cleanup() {
    if [ -n "$wizard" ]; then kill "$wizard" 2>/dev/null || true; wait "$wizard" 2>/dev/null || true; fi
    if [ -n "$xvfb" ]; then kill "$xvfb" 2>/dev/null || true; fi
    rm -rf "$scratch"
}
trap cleanup EXIT

display=:$((190 + RANDOM % 100))
Xvfb "$display" -ac -nolisten tcp -screen 0 1024x800x24 >/dev/null 2>&1 &
xvfb=$!
for _ in $(seq 50); do [ -e "/tmp/.X11-unix/X${display#:}" ] && break; sleep 0.1; done
export DISPLAY=$display

as_nobody() {
    setpriv --reuid=$nobody --regid=$nobody --clear-groups \
        env -i HOME="$home" USER=nobody DISPLAY="$DISPLAY" PATH=/usr/local/bin:/usr/bin:/bin \
        XDG_RUNTIME_DIR="$scratch/runtime" TAVELIN_DEMO_MARKER="$marker" LANG=C.UTF-8 "$@"
}

# The runtime itself is $wizard: setpriv and env exec into it.
(cd "$home" && set -- "$scratch/demo.AppImage" && exec setpriv --reuid=$nobody --regid=$nobody --clear-groups \
    env -i HOME="$home" USER=nobody DISPLAY="$DISPLAY" PATH=/usr/local/bin:/usr/bin:/bin \
    XDG_RUNTIME_DIR="$scratch/runtime" LANG=C.UTF-8 "$@") >"$scratch/wizard.log" 2>&1 &
wizard=$!
window=$(timeout 30 xdotool search --sync --onlyvisible --name 'TavelinDemo' | head -n 1) \
    || fail "no wizard window appeared"
appdir=$(tr '\0' '\n' < "/proc/$wizard/environ" 2>/dev/null | sed -n 's/^APPDIR=//p' || true)
[ -z "$appdir" ] && appdir=$(pgrep -P "$wizard" | head -n 1 | xargs -I{} sh -c "tr '\\0' '\\n' < /proc/{}/environ" | sed -n 's/^APPDIR=//p')
step "wizard window $window is up as uid $nobody, payload at $appdir ($(grep -qs " $appdir " /proc/mounts && echo mounted || echo extracted))"

# The proposed /opt/tavelin-demo is not writable for this user: type another
# location, then minimise and restore the window as a window manager would;
# the show event of the restore judges the location anew.
xdotool windowactivate --sync "$window" 2>/dev/null || xdotool windowfocus --sync "$window"
xdotool key --window "$window" --clearmodifiers ctrl+a BackSpace
xdotool type --window "$window" --delay 20 "$location"
# The pauses let the wizard take in each state change before the next.
"$wmstate" "$window" iconic
sleep 0.5
"$wmstate" "$window" normal
sleep 0.5
xdotool windowfocus --sync "$window" 2>/dev/null || true
xdotool key --window "$window" Return
for _ in $(seq 300); do
    [ -f "$location/uninstall.sh" ] && break
    kill -0 "$wizard" 2>/dev/null || fail "the wizard ended before installing"
    sleep 0.1
done
[ -f "$location/uninstall.sh" ] || fail "no uninstall.sh in $location after 30 s"
step "installed into $location"

diff -r --exclude=uninstall.sh "$(dirname "$0")/../../examples/demo/soft/app" "$location" >"$scratch/tree.diff" \
    || fail "the installed tree differs from the payload's: $(cat "$scratch/tree.diff")"
[ -f "$entry" ] || fail "no desktop entry at $entry"
desktop-file-validate "$entry" || fail "desktop-file-validate rejects $entry"
grep -q "^Exec=\"$location/bin/tavelin-demo\"" "$entry" || fail "Exec of $entry does not name the installed program"
step "tree, desktop entry (accepted by desktop-file-validate) and uninstall.sh in place"

kill "$wizard"; wait "$wizard" 2>/dev/null || true
wizard=
leftover=$(find /tmp -maxdepth 1 -user $nobody \( -name '.mount_tavelin*' -o -name '.tavelin-appimage-*' \) 2>/dev/null)
[ -z "$leftover" ] || fail "the runtime left $leftover behind"
step "wizard closed, the runtime left no temporary directory"

# The demo's entry asks for a terminal: a stand-in xterm runs what gio
# hands it behind -e, so that gio itself reads and expands Exec.
mkdir -p "$scratch/bin"
printf '#!/bin/sh\nwhile [ $# -gt 0 ] && [ "$1" != -e ]; do shift; done\nshift\nexec "$@"\n' > "$scratch/bin/xterm"
chmod 0755 "$scratch/bin" "$scratch/bin/xterm"
as_nobody env PATH="$scratch/bin:/usr/bin:/bin" gio launch "$entry" >"$scratch/launch.log" 2>&1 \
    || fail "gio launch $entry: $(cat "$scratch/launch.log")"
how="gio launch"
for _ in $(seq 100); do [ -s "$marker" ] && break; sleep 0.1; done
[ "$(cat "$marker" 2>/dev/null)" = "$location" ] || fail "the installed program did not run through $how"
step "the installed program ran through $how, from $(cat "$marker")"

echo y | as_nobody sh "$location/uninstall.sh" >"$scratch/uninstall.log" 2>&1 || fail "uninstall.sh failed"
[ ! -e "$location" ] || fail "$location still exists after uninstall.sh"
[ ! -e "$entry" ] || fail "$entry still exists after uninstall.sh"
step "uninstall.sh answered y removed the tree and the desktop entry"
echo "e2e-demo: PASS"
