#!/usr/bin/env bash
# The installed toolchain end to end: cmake --install into a temporary
# prefix, the prefix moved, the demo packed from its description file with
# one setting overridden on the command line, and the AppImage installed as
# uid 65534 on Xvfb by e2e-demo.sh. A second pack of a fresh copy of the
# demo, elsewhere and under another umask, must give the same bytes; a pack
# into a file system too small for the AppImage must leave nothing there.
# Needs root (setpriv, unshare -m, mount) and what e2e-demo.sh needs.
#   tests/system/e2e-toolchain.sh BUILD_DIR
set -euo pipefail
[ $# -eq 1 ] || { echo "usage: e2e-toolchain.sh BUILD_DIR" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)
build=$(readlink -f "$1")
fail() { echo "e2e-toolchain: FAIL: $*" >&2; exit 1; }
step() { echo "e2e-toolchain: $*"; }
[ "$(id -u)" = 0 ] || { echo "e2e-toolchain: must run as root" >&2; exit 1; }

scratch=$(mktemp -d /tmp/tavelin-toolchain.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build" --prefix "$scratch/prefix" >/dev/null
mv "$scratch/prefix" "$scratch/moved"
pack=$scratch/moved/bin/tavelin-pack
step "toolchain installed, prefix moved to $scratch/moved"

# Nothing installed names the trees it was built from, as 8-bit text or as
# the UTF-16 of Qt's string literals.
as_pattern() { # text encoding: a grep -P pattern of its bytes
    printf '%s' "$1" | iconv -t "$2" | od -An -tx1 -v | tr -s ' \n' ' ' | sed 's/ *$//; s/ /\\x/g'
}
for tree in "$build" "$(cd "$here/../.." && pwd)"; do
    for encoding in UTF-8 UTF-16LE; do
        # grep's 2 is an error, not "not found": a search that fails must not pass.
        if found=$(grep -rlaP "$(as_pattern "$tree" "$encoding")" "$scratch/moved"); then
            fail "installed files name $tree ($encoding): ${found//$'\n'/ }"
        elif [ $? -ne 1 ]; then
            fail "the installed files could not be searched for $tree"
        fi
    done
done
step "no installed file names the build or the source tree, in UTF-8 or UTF-16"

# The description file names ../../out/...; the command line overrides it.
# Both packs take the default time stamps.
name=TavelinDemo-x86_64.AppImage
mkdir "$scratch/one"
(cd "$scratch/one" && env -u SOURCE_DATE_EPOCH "$pack" --config "$here/../../examples/demo/tavelin-pack.json" \
    --appimage "out/$name") | tee "$scratch/one.log" || fail "the pack from the description file failed"
first=$scratch/one/out/$name
[ -x "$first" ] || fail "no AppImage at $first: the command line did not override the description file"
grep -q "^tavelin-pack: done: out/$name for $(uname -m), .*; installs 4 files and 3 directories; checks passed: " "$scratch/one.log" \
    || fail "the summary does not tell the demo's 4 files and 3 directories"
step "packed from the description file into $first"

"$here/e2e-demo.sh" "$first" "$build/tests/system/tavelin-x-wmstate" || fail "the packed AppImage does not install"

mkdir "$scratch/two"
(umask 077 && cp -r "$here/../../examples/demo" "$scratch/two/demo" && cd "$scratch/two" \
    && env -u SOURCE_DATE_EPOCH "$pack" --config demo/tavelin-pack.json --appimage "$name" >/dev/null) \
    || fail "the second pack failed"
cmp "$first" "$scratch/two/$name" || fail "two packs of the same demo differ"
step "a second pack of a fresh copy, elsewhere, under umask 077 gives the same $(stat -c %s "$first") bytes"

# An installer is one download: the demo's stays under 22 MB on each machine.
small_enough() { # appimage
    [ "$(stat -c %s "$1")" -le 22000000 ] || fail "$1 takes $(stat -c %s "$1") bytes, more than 22 MB"
}
small_enough "$first"

# The demo for each other machine whose toolchain is built
# (tavelin-bundle-MACHINE): named once in a description file and once on the
# command line, the two packs alike, and its image asks the host for nothing
# beyond the host list.
for other in $(awk -v host="$(uname -m)" '/^[a-z]/ && $1 != host { print $1 }' "$here/../../bundle/machines.txt"); do
if [ -d "$scratch/moved/libexec/tavelin/wizard-bundle/$other" ]; then
    # The manifest names the AppImage: the same name in two directories.
    mkdir -p "$scratch/$other/file" "$scratch/$other/line"
    cp -r "$here/../../examples/demo" "$scratch/$other/demo"
    sed -i "1a\\    \"arch\": \"$other\"," "$scratch/$other/demo/tavelin-pack.json"
    (cd "$scratch/$other" && "$pack" --config demo/tavelin-pack.json --appimage "file/TavelinDemo-$other.AppImage" >/dev/null \
        && "$pack" --config "$here/../../examples/demo/tavelin-pack.json" --arch "$other" --appimage "line/TavelinDemo-$other.AppImage" >/dev/null) \
        || fail "the $other packs failed"
    packed=$scratch/$other/file/TavelinDemo-$other.AppImage
    readelf -h "$packed" | grep -q "Machine: .*$(awk -v m="$other" '$1 == m { print $3 }' \
        "$here/../../bundle/machines.txt")\$" || fail "the AppImage packed for $other is not an $other program"
    cmp "$packed" "$scratch/$other/line/TavelinDemo-$other.AppImage" || fail "two $other packs of the demo differ"
    small_enough "$packed"
    runtime=$scratch/moved/libexec/tavelin/runtime/$other/tavelin-runtime
    unsquashfs -q -n -o "$(stat -c %s "$runtime")" -d "$scratch/$other/AppDir" "$packed" >/dev/null
    "$scratch/moved/libexec/tavelin/check-floor.sh" "$scratch/$other/AppDir" "$scratch/moved/share/tavelin/host-libraries.txt" \
        "$("$pack" --payload-layout | sed -n 's/^payload=//p')" \
        || fail "the $other AppImage asks the host for more than the host list"
    step "the demo packed for $other twice alike, $(stat -c %s "$packed") bytes, within the host list"
else
    echo "e2e-toolchain: SKIP: the toolchain has no $other bundle (cmake --build BUILD --target tavelin-bundle-$other)" >&2
fi
done

# Another application, one program built on this host: the pack's own floor
# check leaves the packager's soft/ alone and passes the wizard's part, and
# the installed check says the same of the image read back.
mkdir -p "$scratch/other/tree/bin"
cp "$(type -P true)" "$scratch/other/tree/bin/other-true"
printf '[Desktop Entry]\nType=Application\nName=Other\nExec=bin/other-true\n' > "$scratch/other/other.desktop"
"$pack" --app "$scratch/other/tree" --desktop "$scratch/other/other.desktop" \
    --icon "$here/../../examples/demo/soft/images/tavelin-demo.png" --name-eng Other \
    --appimage "$scratch/other/Other.AppImage" > "$scratch/other.log" 2>&1 \
    || fail "the pack of another application failed: $(cat "$scratch/other.log")"
unsquashfs -q -n -o "$("$scratch/other/Other.AppImage" --appimage-offset)" -d "$scratch/other/AppDir" \
    "$scratch/other/Other.AppImage" >/dev/null
"$scratch/moved/libexec/tavelin/check-floor.sh" "$scratch/other/AppDir" "$scratch/moved/share/tavelin/host-libraries.txt" \
    "$("$pack" --payload-layout | sed -n 's/^payload=//p')" \
    || fail "the AppImage of another application asks the host for more than the host list"
step "another application packed; its image asks the host for nothing beyond the host list"

# The AppImage does not fit in 1 MiB: the pack fails at its last step and
# takes back the payload it had written there.
if unshare -m --propagation private true 2>/dev/null; then
    mkdir "$scratch/full"
    if unshare -m --propagation private sh -c \
        'mount -t tmpfs -o size=1m tavelin-full "$1" && "$2" --config "$3" --output "$1/payload" --appimage "$1/$4"
         status=$?; ls -A "$1" > "$1.left"; exit $status' \
        sh "$scratch/full" "$pack" "$here/../../examples/demo/tavelin-pack.json" "$name" >"$scratch/full.log" 2>&1; then
        fail "the pack into a full file system succeeded"
    fi
    grep -q "tavelin-pack: error: cannot write $scratch/full/$name" "$scratch/full.log" \
        || fail "no clear message for the full file system: $(cat "$scratch/full.log")"
    [ ! -s "$scratch/full.left" ] || fail "a failed pack left $(tr '\n' ' ' < "$scratch/full.left")"
    step "a pack into a full file system fails and leaves nothing there"
else
    echo "e2e-toolchain: SKIP: the full file system case needs root and unshare -m" >&2
fi
echo "e2e-toolchain: PASS"
