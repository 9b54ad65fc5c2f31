#!/usr/bin/env bash
# The AppImage on Debian desktops as users have them: a Debian 11 and a
# Debian 13 root with GTK 3, GL, EGL, a Chinese font and the release's FUSE,
# but no Qt and no xcb extension libraries chosen by us, of the AppImage's
# architecture; another machine's root runs under qemu through binfmt_misc
# (tools/debian-root.sh sets it up). In each, as root and as uid 65534, the
# rows say which, the AppImage is started under chroot on a host Xvfb,
# its window must map with the payload reached the way the row says, and an
# install typed into the window must complete. Every row runs in a private
# mount namespace over an overlay of the cached root, so the root stays as
# it was made and every mount goes with the namespace.
# Needs root, Xvfb, xdotool, overlayfs, /dev/fuse and, the first time,
# Debian's archive: the roots are cached in ROOTS_DIR, about 560 MB each,
# made in about a minute and a half each (an emulated one in about seven).
#   tests/system/check-distros.sh APPIMAGE WMSTATE ROOTS_DIR
# WMSTATE is the tavelin-x-wmstate program of the build. TAVELIN_DISTROS
# names the suites to try (default: all of them).
set -euo pipefail
# shellcheck source=../../packaging/tavelin-lib.sh
. "$(dirname "$0")/../../packaging/tavelin-lib.sh"
[ $# -eq 3 ] || die "usage: check-distros.sh APPIMAGE WMSTATE ROOTS_DIR"
top=$(cd "$(dirname "$0")/../.." && pwd)
appimage=$(readlink -f "$1") wmstate=$(readlink -f "$2") roots=$3
[ -f "$appimage" ] || die "no AppImage at $1"
[ -x "$wmstate" ] || die "no tavelin-x-wmstate at $2"
[ "$(id -u)" = 0 ] || die "must run as root (debootstrap, chroot, mount namespaces); cannot check the distributions"
for needed in Xvfb xdotool unshare chroot setsid mknod ps; do
    command -v "$needed" >/dev/null || die "$needed is not installed; cannot check the distributions"
done
grep -qw overlay /proc/filesystems || modprobe overlay 2>/dev/null || die "the kernel has no overlayfs; cannot check the distributions"
[ -c /dev/fuse ] || die "the host has no /dev/fuse to give the roots; cannot check the distributions"
fuse_dev=$(stat -c '%Hr %Lr' /dev/fuse)
# shellcheck source=../../bundle/root.sh
. "$top/bundle/root.sh"
for machine in $(awk '/^[a-z]/ { print $1 }' "$top/bundle/machines.txt"); do
    readelf -h "$appimage" 2>/dev/null | grep -q "Machine: .*$(elf_machine "$machine")\$" && break
    machine=
done
[ -n "$machine" ] || die "$appimage is not an AppImage for $(machines)"
arch=$(debian_arch "$machine")
# Started under qemu the wizard takes several times as long to map its window.
patience=60
[ "$machine" = "$(uname -m)" ] || patience=240

# suite | Debian version | packages beyond minbase: what a desktop has that
# the wizard may use, and the release's own FUSE (Debian 11's is fuse 2).
# Then | the input methods Chinese users type with: fcitx 4 on Debian 11,
# fcitx5 or ibus on 13; only where a row types through them, not emulated.
distros=(
    "bullseye|11|libgtk-3-0 libgl1 libegl1 fonts-wqy-microhei fuse|dbus fcitx fcitx-pinyin fcitx-module-dbus fcitx-ui-classic"
    "trixie|13|libgtk-3-0t64 libgl1 libegl1 fonts-wqy-microhei fuse3|dbus-daemon fcitx5 fcitx5-chinese-addons ibus ibus-libpinyin"
)
# suite | architecture | uid | how the payload must be reached | the input
# method running, through which the last part of the location is typed (in
# pinyin: nihao, then space). Emulated, one row: the floor, as root, where
# the input method's plugin must load.
rows=(
    "bullseye|amd64|0|mounted|"
    "bullseye|amd64|65534|mounted|"
    "bullseye|amd64|65534|mounted|fcitx"
    "trixie|amd64|0|mounted|"
    "trixie|amd64|65534|mounted|"
    "trixie|amd64|65534|mounted|fcitx5"
    "trixie|amd64|65534|mounted|ibus"
    "bullseye|arm64|0|mounted|QT_IM_MODULE=fcitx"
)
wanted=${TAVELIN_DISTROS:-bullseye trixie}

scratch=$(mktemp -d /tmp/tavelin-distros.XXXXXX)
xvfb='' running=''
alive() { local state; state=$(ps -o stat= -p "$1" 2>/dev/null) && [ "${state#Z}" = "$state" ]; }
# TERM first, so the runtime takes its mount down; then KILL to the group.
stop() {
    kill -TERM -- "-$1" 2>/dev/null || kill -TERM "$1" 2>/dev/null || true
    for _ in $(seq 50); do alive "$1" || break; sleep 0.1; done
    kill -KILL -- "-$1" 2>/dev/null || kill -KILL "$1" 2>/dev/null || true
    for _ in $(seq 50); do alive "$1" || break; sleep 0.1; done
    alive "$1" && { echo "check-distros: process $1 does not end" >&2; return 1; }
    wait "$1" 2>/dev/null || true
}
cleanup() {
    [ -z "$running" ] || stop "$running" || true
    [ -z "$xvfb" ] || stop "$xvfb" || true
    rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

started=$SECONDS
declare -A version
for distro in "${distros[@]}"; do
    IFS='|' read -r suite ver packages typing <<<"$distro"
    [[ " $wanted " == *" $suite "* ]] && printf '%s\n' "${rows[@]}" | grep -q "^$suite|$arch|" || continue
    ! printf '%s\n' "${rows[@]}" | grep -q "^$suite|$arch|.*|[a-z0-9]\+$" || packages="$packages $typing"
    version[$suite]=$ver
    t0=$SECONDS
    # shellcheck disable=SC2086 # one word a package
    "$top/tools/debian-root.sh" "$suite" "$arch" "$roots/desktop-$suite-$arch" $packages \
        || die "no Debian $ver ($suite, $arch) root in $roots; cannot check the distributions"
    echo "check-distros: Debian $ver ($suite, $arch) root ready in $((SECONDS - t0)) s"
done

Xvfb -displayfd 3 -ac -nolisten tcp -screen 0 1024x800x24 3>"$scratch/display" >/dev/null 2>&1 &
xvfb=$!
for _ in $(seq 100); do [ -s "$scratch/display" ] && break; sleep 0.1; done
[ -s "$scratch/display" ] || die "Xvfb did not start"
DISPLAY=:$(head -n 1 "$scratch/display")
export DISPLAY

# Run in the new mount namespace: the overlay as the root's file system,
# /proc, /sys, a /dev of our own whose fuse node is open to all as on a
# desktop, and the host's X sockets; then the AppImage, as a user would
# start it from Downloads, exec'd so that its pid is the row's.
# shellcheck disable=SC2016 # expanded by the sh in the namespace
inside='set -e
root=$1 upper=$2 work=$3 m=$4 uid=$5 home=$6 fuse=$7 appimage=$8 name=$9 session=${10} im=${11}
mount -t overlay overlay -o "lowerdir=$root,upperdir=$upper,workdir=$work" "$m"
mount -t proc proc "$m/proc"
mount -t sysfs sysfs "$m/sys"
mount -t tmpfs -o mode=0755,nosuid tmpfs "$m/dev"
for node in "null 1 3" "zero 1 5" "full 1 7" "random 1 8" "urandom 1 9" "tty 5 0" "fuse $fuse"; do
    set -- $node
    mknod -m 0666 "$m/dev/$1" c "$2" "$3"
done
mkdir -m 1777 "$m/dev/shm"
# A booted system has it (systemd-tmpfiles); fusermount3 -u reads it.
[ -e "$m/etc/mtab" ] || ln -s ../proc/self/mounts "$m/etc/mtab"
ln -s /proc/self/fd "$m/dev/fd"
mkdir -p "$m/tmp/.X11-unix" "$m$home/Downloads" "$m/run/user/$uid"
mount --bind /tmp/.X11-unix "$m/tmp/.X11-unix"
install -m 0755 "$appimage" "$m$home/Downloads/$name"
install -m 0755 "$session" "$m/usr/local/bin/im-session"
chown -R "$uid:$uid" "$m$home" "$m/run/user/$uid"
chmod 0700 "$m/run/user/$uid"
exec chroot --userspec="$uid:$uid" --groups="$uid" "$m" env -i --chdir="$home" HOME="$home" \
    USER="$(test "$uid" = 0 && echo root || echo nobody)" DISPLAY="$DISPLAY" LANG=C.UTF-8 \
    PATH=/usr/local/bin:/usr/bin:/bin XDG_RUNTIME_DIR="/run/user/$uid" im-session "$im" "$home/Downloads/$name"'

# Runs one row; on failure says why in $why.
row() {
    local suite=$1 uid=$2 path=$3 dir=$4 im=$5 home location entry window pid appdir mounts typed
    if [ "$uid" = 0 ]; then
        home=/root location=/opt/tavelin-check entry=/usr/share/applications/tavelin-demo.desktop
    else
        home=/home/nobody location=/home/nobody/apps/tavelin-demo
        entry=/home/nobody/.local/share/applications/tavelin-demo.desktop
    fi
    mkdir -p "$dir/upper" "$dir/work" "$dir/merged"
    setsid unshare -m -- sh -c "$inside" - "$(readlink -f "$roots/desktop-$suite-$arch")" "$dir/upper" \
        "$dir/work" "$dir/merged" "$uid" "$home" "$fuse_dev" "$appimage" "TavelinDemo-$machine.AppImage" \
        "$top/tests/system/im-session.sh" "$im" >"$dir/wizard.log" 2>&1 &
    running=$!
    for _ in $(seq $((patience * 10))); do
        window=$(xdotool search --onlyvisible --name TavelinDemo 2>/dev/null | head -n 1) && [ -n "$window" ] && break
        alive "$running" || { why="the wizard ended before its window mapped"; return 1; }
        sleep 0.1
    done
    [ -n "$window" ] || { why="no wizard window within $patience s"; return 1; }
    pid=$(xdotool getwindowpid "$window" 2>/dev/null) || { why="the window $window names no process"; return 1; }
    # What the wizard sees is the root, not the host.
    grep -q "^${version[$suite]}\." "/proc/$pid/root/etc/debian_version" 2>/dev/null \
        || { why="the wizard (pid $pid) does not run in the Debian ${version[$suite]} root"; return 1; }
    [ "$(stat -c %u "/proc/$pid")" = "$uid" ] || { why="the wizard does not run as uid $uid"; return 1; }
    appdir=$(tr '\0' '\n' <"/proc/$pid/environ" | sed -n 's/^APPDIR=//p')
    mounts=$(awk -v d="$appdir" '$2 == d { print $3 }' "/proc/$pid/mounts")
    case $path in
        mounted) [[ $appdir == /tmp/.mount_tavelin* && $mounts == fuse.tavelin ]] ;;
        extracted) [[ $appdir == /tmp/.tavelin-appimage-* && -z $mounts ]] ;;
    esac || { why="the payload is at $appdir (${mounts:-not a mount}), not $path as expected"; return 1; }

    # The input method's plugin, as Qt picks it for the key (fcitx5's answers to fcitx too).
    if [ -n "$im" ]; then
        local plugin=${im#QT_IM_MODULE=}
        grep -q "/usr/plugins/platforminputcontexts/lib$plugin" "/proc/$pid/maps" \
            || { why="no $plugin input-method plugin loaded"; return 1; }
    fi
    # Through an input method: a writable directory typed before it is on,
    # then a Chinese name in pinyin.
    typed=$location
    case $im in
        "" | QT_IM_MODULE=*) ;;
        *) location=$(dirname "$location")/你好 typed=$(dirname "$location")/ ;;
    esac
    # The wizard proposes /opt/tavelin-demo; another location is typed, and
    # minimising and restoring the window has it judged anew, as in e2e-demo.
    # Without a window manager a --sync could wait for ever: each step is bounded.
    timeout 10 xdotool windowactivate --sync "$window" 2>/dev/null \
        || timeout 10 xdotool windowfocus --sync "$window" 2>/dev/null || true
    timeout 10 xdotool key --window "$window" --clearmodifiers ctrl+a BackSpace
    timeout 20 xdotool type --window "$window" --delay 20 "$typed"
    if [ "$typed" != "$location" ]; then
        touch "/proc/$pid/root/tmp/tavelin-im-on"
        sleep 1
        timeout 20 xdotool type --window "$window" --delay 50 nihao
        sleep 0.5
        timeout 10 xdotool key --window "$window" space
        sleep 0.5
    fi
    timeout 10 "$wmstate" "$window" iconic
    sleep 0.5
    timeout 10 "$wmstate" "$window" normal
    sleep 0.5
    timeout 10 xdotool windowfocus --sync "$window" 2>/dev/null || true
    timeout 10 xdotool key --window "$window" Return
    # Whatever the wizard writes lands in the overlay's upper layer.
    for _ in $(seq $((patience * 10))); do
        [ -f "$dir/upper$location/uninstall.sh" ] && [ -f "$dir/upper$entry" ] && break
        alive "$running" || { why="the wizard ended before installing"; return 1; }
        sleep 0.1
    done
    [ -f "$dir/upper$location/uninstall.sh" ] || { why="no uninstall.sh in $location within $patience s"; return 1; }
    [ -f "$dir/upper$entry" ] || { why="no desktop entry at $entry"; return 1; }
    grep -q "^Exec=\"$location/" "$dir/upper$entry" || { why="the desktop entry $entry does not start $location"; return 1; }
    done_what="window mapped, payload $path at $appdir, installed into $location, entry at $entry"
    [ "$typed" != "$location" ] || return 0
    # uninstall.sh, answered y in the root, takes the tree with the Chinese name away.
    echo y | timeout 30 chroot --userspec="$uid:$uid" "/proc/$pid/root" env -i HOME="$home" PATH=/usr/bin:/bin \
        sh "$location/uninstall.sh" >"$dir/uninstall.log" 2>&1 || { why="uninstall.sh failed: $(cat "$dir/uninstall.log")"; return 1; }
    [ ! -e "/proc/$pid/root$location" ] || { why="$location is still there after uninstall.sh"; return 1; }
    done_what="$done_what through $im; uninstall.sh removed it"
}

failed=0 count=0
for line in "${rows[@]}"; do
    IFS='|' read -r suite row_arch uid path im <<<"$line"
    [ "$row_arch" = "$arch" ] && [ -n "${version[$suite]:-}" ] || continue
    count=$((count + 1))
    dir=$scratch/row-$count why='' done_what='' t0=$SECONDS
    label="Debian ${version[$suite]} ($suite, $arch), uid $uid${im:+, $im}"
    if row "$suite" "$uid" "$path" "$dir" "$im"; then
        echo "check-distros: $label: ok in $((SECONDS - t0)) s: $done_what"
    else
        failed=$((failed + 1))
        echo "check-distros: $label: FAIL: $why"
        sed 's/^/  wizard: /' "$dir/wizard.log" | tail -n 30
    fi
    stop "$running"
    running=
    # The runtime took its mount or its copy of the payload away with it.
    left=$(find "$dir/upper/tmp" -maxdepth 1 \( -name '.mount_tavelin*' -o -name '.tavelin-appimage-*' \) 2>/dev/null)
    if [ -n "$left" ] && [ -z "$why" ]; then
        failed=$((failed + 1))
        echo "check-distros: $label: FAIL: the runtime left ${left#"$dir/upper"} behind"
        sed 's/^/  wizard: /' "$dir/wizard.log" | tail -n 30
    fi
done
[ "$count" -gt 0 ] || die "no $arch row for TAVELIN_DISTROS=$wanted"
[ "$failed" = 0 ] || die "FAIL: $failed of $count rows ($((SECONDS - started)) s)"
echo "check-distros: PASS ($count rows, $((SECONDS - started)) s)"
