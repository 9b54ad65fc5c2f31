#!/usr/bin/env bash
# End to end on a real X server: the demo AppImage, started by an
# unprivileged user with a temporary HOME, installs into a location typed
# into the wizard; the installed program starts through its desktop entry;
# uninstall.sh, answered y, removes everything. Last, the switch to root,
# through a stand-in pkexec, has a new wizard replace the old one. The
# AppImage is named as a browser names a second download, in a folder with a
# blank. Needs root (to become uid 65534), Xvfb, xdotool, setpriv, gio and
# desktop-file-validate.
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
mkdir -m 0755 "$scratch/down loads"
appimage="$scratch/down loads/Tavelin Demo (1).AppImage"
install -m 0755 "$1" "$appimage"
xvfb= wizard=
# Whether process $1 has ended; a zombie has, though nobody reaped it yet.
ended() { [ "$(awk '/^State:/ { print $2 }' "/proc/$1/status" 2>/dev/null)" = Z ] || [ ! -d "/proc/$1" ]; }
# What a runtime of uid 65534 may leave in /tmp. Entries of others come and
# go meanwhile, which find reports as errors.
runtime_dirs() {
    { find /tmp -maxdepth 1 -user $nobody \( -name '.mount_tavelin*' -o -name '.tavelin-appimage-link-*' \
        -o -name '.tavelin-appimage-*' \) 2>/dev/null || true; } | sort
}
# Other tests may run wizards as uid 65534 meanwhile: what was there before
# this test, or still is APPDIR or APPIMAGE of a running program, is theirs.
runtime_dirs > "$scratch/tmp-before"
leftovers() {
    local dir environ
    runtime_dirs | comm -13 "$scratch/tmp-before" - | while IFS= read -r dir; do
        for environ in /proc/[0-9]*/environ; do
            grep -qszE "^APP(DIR|IMAGE)=${dir//./\\.}(/|\$)" "$environ" && continue 2
        done
        echo "$dir"
    done
}
# Runtimes of uid 65534 running the AppImage, other than $wizard.
other_runtimes() {
    local proc
    for proc in /proc/[0-9]*; do
        [ "${proc#/proc/}" != "$wizard" ] && [ "$proc/exe" -ef "$appimage" ] \
            && [ "$(stat -c %u "$proc" 2>/dev/null)" = $nobody ] && echo "${proc#/proc/}"
    done
    return 0
}
cleanup() {
    if [ -n "$wizard" ]; then kill "$wizard" 2>/dev/null || true; wait "$wizard" 2>/dev/null || true; fi
    # Those the switch started are not our children: each gets time to remove
    # what it made in /tmp.
    local pid
    for pid in $(other_runtimes); do
        kill "$pid" 2>/dev/null || true
        for _ in $(seq 50); do ended "$pid" && break; sleep 0.1; done
    done
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
(cd "$home" && set -- "$appimage" && exec setpriv --reuid=$nobody --regid=$nobody --clear-groups \
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
leftover=$(leftovers)
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

# The switch to root. The stand-in pkexec notes its arguments, one a line,
# and runs them as this same user: the wizard's unquoted shell line has to
# hand over APPIMAGE as one word that still leads to this file, and the new
# wizard has to end the one that started it. The link APPIMAGE names goes
# with the old runtime, so the stand-in resolves it while it still exists.
mkdir -m 0755 "$scratch/pkexec-bin"
calls=$scratch/marker/pkexec-args
cat > "$scratch/pkexec-bin/pkexec" <<EOF
#!/bin/sh
for last; do :; done
readlink -f "\$last" > '$calls.resolved'
printf '%s\\n' "\$@" > '$calls.part' && mv '$calls.part' '$calls'
exec "\$@"
EOF
chmod 0755 "$scratch/pkexec-bin/pkexec"
(cd "$home" && set -- "$appimage" && exec setpriv --reuid=$nobody --regid=$nobody --clear-groups \
    env -i HOME="$home" USER=nobody DISPLAY="$DISPLAY" PATH="$scratch/pkexec-bin:/usr/local/bin:/usr/bin:/bin" \
    XDG_RUNTIME_DIR="$scratch/runtime" LANG=C.UTF-8 "$@") >"$scratch/wizard.log" 2>&1 &
wizard=$!
window=$(timeout 30 xdotool search --sync --onlyvisible --name 'TavelinDemo' | head -n 1) \
    || fail "no wizard window appeared for the switch to root"
gui=$(pgrep -P "$wizard" | head -n 1)
[ -n "$gui" ] && [ "$(xdotool getwindowpid "$window")" = "$gui" ] || fail "window $window is not that of wizard $gui"
# /opt/tavelin-demo, proposed, is not writable for this user: the focus sits
# in the location, and the switch comes after the other-location button.
xdotool windowactivate --sync "$window" 2>/dev/null || xdotool windowfocus --sync "$window"
xdotool key --window "$window" Tab Tab space
for _ in $(seq 100); do [ -s "$calls" ] && break; sleep 0.1; done
[ -s "$calls" ] || fail "the switch to root did not call pkexec"
[ "$(head -n 1 "$calls")" = env ] || fail "pkexec was not asked to run env: $(cat "$calls")"
grep -qx "FORKPID=$gui" "$calls" || fail "pkexec got no FORKPID=$gui: $(cat "$calls")"
handed=$(tail -n 1 "$calls")
[ "$(cat "$calls.resolved")" -ef "$appimage" ] \
    || fail "pkexec was not handed the AppImage as one word: $(cat "$calls") (resolved: $(cat "$calls.resolved"))"
step "pkexec ran env ... FORKPID=$gui $handed"

newwizard=
for _ in $(seq 300); do
    newwizard=$(other_runtimes)
    newwizard=${newwizard%%$'\n'*}
    [ -n "$newwizard" ] && break
    sleep 0.1
done
[ -n "$newwizard" ] || fail "no new runtime of $appimage started"
newwindow=
for _ in $(seq 300); do
    for w in $(xdotool search --onlyvisible --name 'TavelinDemo' 2>/dev/null); do
        owner=$(xdotool getwindowpid "$w" 2>/dev/null) || continue
        [ "$(awk '/^PPid:/ { print $2 }' "/proc/$owner/status" 2>/dev/null)" = "$newwizard" ] \
            && { newwindow=$w newgui=$owner; break; }
    done
    [ -n "$newwindow" ] && break
    ended "$newwizard" && fail "the new runtime $newwizard ended without a window"
    sleep 0.1
done
[ -n "$newwindow" ] || fail "the new runtime $newwizard mapped no window in 30 s"
for _ in $(seq 100); do ended "$wizard" && break; sleep 0.1; done
ended "$wizard" || fail "the old wizard $gui still runs beside the new one"
code=0
wait "$wizard" || code=$?
wizard=
[ "$code" = 137 ] || fail "the old wizard ended with $code, not killed (137)"
ended "$gui" || fail "the old wizard's program $gui outlived its runtime"
step "the new wizard (runtime $newwizard, window $newwindow) killed the old one"

kill "$newwizard"
for _ in $(seq 100); do ended "$newwizard" && break; sleep 0.1; done
ended "$newwizard" || fail "the new runtime $newwizard did not stop on SIGTERM"
ended "$newgui" || fail "the new wizard's program $newgui outlived its runtime"
leftover=$(leftovers)
[ -z "$leftover" ] || fail "the runtimes left $leftover behind"
step "both wizards stopped, no temporary directory or link left"
echo "e2e-demo: PASS"
