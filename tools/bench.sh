#!/usr/bin/env bash
# Benchmarks of Tavelin side by side with the alternatives; prints one table.
#   tools/bench.sh                        default sizes (about five minutes)
#   tools/bench.sh --small 300 --large-mib 64 --runs 3    a quick look
# Flags go to tavelin-bench (see bench/gentree.cpp and bench/bench_main.cpp).
# Builds in Release in build-bench, works below ${TMPDIR:-/tmp} and removes
# what it wrote. As root the installs run in a private mount namespace with a
# tmpfs over /usr/share/applications; HOME is always a throw-away directory.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${BENCH_BUILD_DIR:-build-bench}
startup_runs=${BENCH_STARTUP_RUNS:-11}

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DTAVELIN_BENCH=ON -DBUILD_TESTING=OFF >/dev/null
cmake --build "$build" -j2 --target tavelin-gui tavelin-bench tavelin-bench-wizard tavelin-bench-startup >/dev/null
bin=$PWD/$build

large_mib=512
args=("$@")
for ((i = 0; i + 1 < ${#args[@]}; i++)); do
    [ "${args[i]}" = --large-mib ] && large_mib=${args[i + 1]}
done
tmp_root=${TMPDIR:-/tmp}
free_mib=$(df -Pm "$tmp_root" | awk 'NR == 2 { print $4 }')
need_mib=$((3 * large_mib + 1024))
if [ "$free_mib" -lt "$need_mib" ]; then
    echo "bench: $tmp_root has $free_mib MiB free, needs about $need_mib" >&2
    exit 1
fi

work=$(mktemp -d "$tmp_root/tavelin-bench.XXXXXX")
xvfb_pid=
cleanup() {
    if [ -n "$xvfb_pid" ]; then kill "$xvfb_pid" 2>/dev/null || true; fi
    rm -rf "$work"
}
trap cleanup EXIT
mkdir -p "$work/home"
chmod 0700 "$work/home"
export HOME=$work/home XDG_RUNTIME_DIR=$work/home

echo "Machine: $(nproc) cores, $(free -g | awk '/^Mem:/ { print $2 }') GiB RAM," \
     "$(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2- | sed 's/^ *//'), load average" \
     "$(cut -d' ' -f1-3 /proc/loadavg) at start, $(date -u '+%Y-%m-%d %H:%M UTC')"
echo
echo "| Measurement | Tavelin | Reference | Ratio | Goal | Met |"
echo "|---|---|---|---|---|---|"

# Start-up: one private X server, both programs under the same gtk3 theme.
Xvfb -displayfd 3 -screen 0 1280x1024x24 -nolisten tcp 3>"$work/display" 2>/dev/null &
xvfb_pid=$!
for _ in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.1; done
DISPLAY=:$(head -n1 "$work/display") APPDIR=$PWD/examples/demo \
    "$bin/bench/tavelin-bench-startup" "$startup_runs" 500 \
    -- "tavelin-gui (demo)" "$bin/lib/tavelin-gui/tavelin-gui" \
    -- "bare QWizard" "$bin/bench/tavelin-bench-wizard" \
    -- "bare QWizard without the gtk3 theme" "$bin/bench/tavelin-bench-wizard" --no-theme \
    2>"$work/startup.log" || { cat "$work/startup.log" >&2; exit 1; }
kill "$xvfb_pid"
wait "$xvfb_pid" 2>/dev/null || true
xvfb_pid=

# Installs: the desktop entry must land in a throw-away place.
run_installs=("$bin/bench/tavelin-bench" --workdir "$work" "$@")
if [ "$(id -u)" = 0 ]; then
    QT_QPA_PLATFORM=offscreen unshare -m sh -c \
        'mount --make-rprivate / && mount -t tmpfs tavelin-bench /usr/share/applications && exec "$@"' \
        sh "${run_installs[@]}"
else
    QT_QPA_PLATFORM=offscreen "${run_installs[@]}"
fi
echo
echo "Load average $(cut -d' ' -f1-3 /proc/loadavg) at the end, $(date -u '+%H:%M UTC')."
