#!/usr/bin/env bash
# Start-up of an installer AppImage against the very AppDir it holds, and
# its size; prints one table. In one interleaved run of
# tavelin-bench-startup on a private Xvfb: the AppImage and the AppDir's own
# AppRun as root, where the runtime mounts the image, and both as uid 65534,
# for whom /dev/fuse is closed so that the runtime extracts it. The path the
# runtime takes for each user is checked first and named in the table.
#   tools/bench-appimage.sh [APPIMAGE]    default: the demo, from tools/demo-appimage.sh
# Needs root. Builds tavelin-bench-startup in Release in ${BENCH_BUILD_DIR:-build-bench};
# works in a directory below ${TMPDIR:-/tmp} that it removes afterwards.
set -euo pipefail
cd "$(dirname "$0")/.."
# shellcheck source=../packaging/tavelin-lib.sh
. "$(dirname "$0")/../packaging/tavelin-lib.sh"
[ "$(id -u)" = 0 ] || die "needs root: the mount path runs as root, the extraction path as uid 65534"
for needed in Xvfb setpriv unsquashfs mountpoint pgrep; do
    command -v "$needed" >/dev/null || die "$needed not found (Debian packages xvfb, util-linux, squashfs-tools, procps)"
done
build=${BENCH_BUILD_DIR:-build-bench}
case $build in /*) ;; *) build=$PWD/$build ;; esac
runs=${BENCH_STARTUP_RUNS:-11}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTAVELIN_BENCH=ON -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" -j2 --target tavelin-bench-startup >/dev/null
appimage=${1:-$(tools/demo-appimage.sh | tail -n 1)}
[ -f "$appimage" ] || die "$appimage not found"

work=$(mktemp -d "${TMPDIR:-/tmp}/tavelin-bench-appimage.XXXXXX")
xvfb_pid=
cleanup() {
    if [ -n "$xvfb_pid" ]; then kill "$xvfb_pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT
# Readable by uid 65534: the AppImage, the AppDir unpacked from it, and a
# home and temporary directory of its own; root's are its own too.
chmod 0755 "$work"
install -m 0755 "$appimage" "$work/app.AppImage"
offset=$("$work/app.AppImage" --appimage-offset)
unsquashfs -q -n -o "$offset" -d "$work/AppDir" "$work/app.AppImage" >/dev/null
mkdir -m 0700 "$work/root" "$work/nobody"
mkdir "$work/nobody/tmp"
chown -R 65534:65534 "$work/nobody"
export HOME=$work/root XDG_RUNTIME_DIR=$work/root TMPDIR=$work/root
as_nobody=(setpriv --reuid=65534 --regid=65534 --clear-groups
           env HOME="$work/nobody" XDG_RUNTIME_DIR="$work/nobody" TMPDIR="$work/nobody/tmp")

Xvfb -displayfd 3 -ac -screen 0 1280x1024x24 -nolisten tcp 3>"$work/display" 2>/dev/null &
xvfb_pid=$!
for _ in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.1; done
[ -s "$work/display" ] || die "Xvfb did not start"
export DISPLAY=:$(head -n1 "$work/display")

# "mount" or "extraction": what the runtime chose for the AppImage started
# with this command, told by whether AppRun's APPDIR is a mount point.
path_taken() { # command...
    local pid child appdir= path
    "$@" >/dev/null 2>&1 &
    pid=$!
    for _ in $(seq 300); do
        child=$(pgrep -P "$pid" | head -n 1) || true
        if [ -n "$child" ]; then
            appdir=$(tr '\0' '\n' < "/proc/$child/environ" 2>/dev/null | sed -n 's/^APPDIR=//p') || true
        fi
        [ -n "$appdir" ] && break
        sleep 0.1
    done
    [ -n "$appdir" ] || die "the AppImage started with $* ran no AppRun in 30 s"
    if mountpoint -q "$appdir"; then path=mount; else path=extraction; fi
    kill -TERM "$pid"
    wait "$pid" || true
    echo "$path"
}
root_path=$(path_taken "$work/app.AppImage")
nobody_path=$(path_taken "${as_nobody[@]}" "$work/app.AppImage")
[ "$root_path" = mount ] || echo "bench-appimage: root cannot mount here: the runtime extracts for root too" >&2
[ "$nobody_path" = extraction ] || die "uid 65534 can mount here: the extraction path would not be measured"

echo "Machine: $(nproc) cores, $(free -g | awk '/^Mem:/ { print $2 }') GiB RAM," \
     "$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), load average" \
     "$(cut -d' ' -f1-3 /proc/loadavg) at start, $(date -u '+%Y-%m-%d %H:%M UTC')"
echo
echo "| Measurement | AppImage | Reference | Ratio | Goal | Met |"
echo "|---|---|---|---|---|---|"
"$build/bench/tavelin-bench-startup" "$runs" 500 --pairs 1.3,2 \
    -- "AppImage as root ($root_path)" "$work/app.AppImage" \
    -- "its AppDir's AppRun as root" "$work/AppDir/AppRun" \
    -- "AppImage as uid 65534 ($nobody_path)" "${as_nobody[@]}" "$work/app.AppImage" \
    -- "its AppDir's AppRun as uid 65534" "${as_nobody[@]}" "$work/AppDir/AppRun" \
    2>"$work/startup.log" || { cat "$work/startup.log" >&2; exit 1; }
size=$(stat -c %s "$work/app.AppImage")
awk -v name="$(basename "$appimage")" -v size="$size" -v runtime="$offset" 'BEGIN {
    printf "| Size, %s | %.2f MB (runtime %.2f MB + squashfs %.2f MB) | — | — | ≤ 22 MB | %s |\n",
        name, size / 1e6, runtime / 1e6, (size - runtime) / 1e6, size <= 22e6 ? "yes" : "**no**"
}'
echo
echo "Load average $(cut -d' ' -f1-3 /proc/loadavg) at the end, $(date -u '+%H:%M UTC')."
