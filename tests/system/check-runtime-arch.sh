#!/usr/bin/env bash
# The runtime built for another machine answers as the host's does: one small
# AppDir made into an AppImage with each runtime, each option run on both
# (the foreign one under qemu through binfmt_misc), and their output, exit
# status and extracted trees compared. --appimage-offset is each runtime's
# own size, so that row compares each to its runtime instead.
#   tests/system/check-runtime-arch.sh HOST_RUNTIME OTHER_RUNTIME
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
fail() { echo "check-runtime-arch: FAIL: $*" >&2; exit 1; }
[ $# -eq 2 ] || { echo "usage: check-runtime-arch.sh HOST_RUNTIME OTHER_RUNTIME" >&2; exit 2; }
host=$(readlink -f "$1") other=$(readlink -f "$2")
scratch=$(mktemp -d /tmp/tavelin-runtime-arch.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
"$other" --appimage-version >/dev/null 2>&1 \
    || fail "$other does not run here: is its qemu registered with binfmt_misc (tools/debian-root.sh sets it up)?"

# What a payload has: a script, a nested file, a symbolic link, an empty directory.
appdir=$scratch/AppDir
mkdir -p "$appdir/usr/share/demo" "$appdir/empty"
printf '#!/bin/sh\necho "AppRun: $*"\ncat "$(dirname "$0")/usr/share/demo/hello.txt"\nexit 3\n' > "$appdir/AppRun"
chmod 0755 "$appdir/AppRun"
echo "hello from the image" > "$appdir/usr/share/demo/hello.txt"
ln -s usr/share/demo/hello.txt "$appdir/hello"
for side in host other; do
    mkdir "$scratch/$side"
    runtime=$host
    [ "$side" = host ] || runtime=$other
    "$top/packaging/make-appimage.sh" "$runtime" "$appdir" "$scratch/$side/t.AppImage" >/dev/null \
        || fail "make-appimage.sh refuses the $side runtime $runtime"
done

# options | what must match
rows=(
    "--appimage-version|output"
    "--appimage-help|output"
    "--appimage-no-such-option|output"
    "--appimage-offset|own size"
    "--appimage-extract|output and tree"
    "--appimage-extract usr/share/*|output and tree"
    "--appimage-extract-and-run one two|output"
    "one two|output"
)
for row in "${rows[@]}"; do
    IFS='|' read -r options match <<<"$row"
    for side in host other; do
        rm -rf "$scratch/$side/squashfs-root"
        status=0
        # shellcheck disable=SC2086 # the options are words
        (cd "$scratch/$side" && ./t.AppImage $options) > "$scratch/$side.out" 2>&1 || status=$?
        echo "status $status" >> "$scratch/$side.out"
        if [ -d "$scratch/$side/squashfs-root" ]; then
            (cd "$scratch/$side/squashfs-root" && find . -printf '%p %y %m %s %l\n' | sort) > "$scratch/$side.tree"
        else
            echo "no tree" > "$scratch/$side.tree"
        fi
    done
    case $match in
        output | "output and tree")
            cmp -s "$scratch/host.out" "$scratch/other.out" \
                || fail "$options: the answers differ: $(diff "$scratch/host.out" "$scratch/other.out" | head -n 10)" ;;&
        "output and tree")
            grep -q 'usr/share/demo/hello.txt' "$scratch/host.tree" || fail "$options: the host runtime extracted nothing"
            cmp -s "$scratch/host.tree" "$scratch/other.tree" \
                || fail "$options: the trees differ: $(diff "$scratch/host.tree" "$scratch/other.tree" | head -n 10)" ;;
        "own size")
            for side in host other; do
                runtime=$host
                [ "$side" = host ] || runtime=$other
                [ "$(head -n 1 "$scratch/$side.out")" = "$(stat -c %s "$runtime")" ] \
                    || fail "$options: the $side runtime says $(head -n 1 "$scratch/$side.out"), its size is $(stat -c %s "$runtime")"
            done ;;
    esac
    echo "check-runtime-arch: $options: $match agree ($(tail -n 1 "$scratch/host.out"))"
done
echo "check-runtime-arch: PASS"
