#!/usr/bin/env bash
# Gathers the wizard and what it loads into a bundle directory: the wizard in
# usr/bin, the Qt libraries and plugins it needs in usr/lib and usr/plugins
# with an $ORIGIN rpath, and .tavelin-preload. Libraries on the host list
# stay out, with everything only they need. Runs where the wizard was built,
# so that ldd and qmake see its Qt.
#   bundle/collect.sh TAVELIN_GUI HOST_LIBRARIES BUNDLE_DIR [TRIPLET]
# TRIPLET names the cross toolchain a wizard for another machine was built
# with (aarch64-linux-gnu): its strip and its Qt's qmake are used.
set -euo pipefail
# shellcheck source=../packaging/tavelin-lib.sh
. "$(dirname "$0")/../packaging/tavelin-lib.sh"
[ $# -eq 3 ] || [ $# -eq 4 ] || die "usage: collect.sh TAVELIN_GUI HOST_LIBRARIES BUNDLE_DIR [TRIPLET]"
gui=$1 host_libraries=$2 bundle=$3 cross=${4:+$4-}
[ -x "$gui" ] || die "$gui is not an executable"
[ ! -e "$bundle" ] || die "$bundle exists already"
for needed in patchelf readelf "${cross}strip"; do
    command -v "$needed" >/dev/null || die "$needed not found (Debian packages patchelf, binutils${cross:+, binutils-${cross%-}})"
done
qmake=$(command -v "${cross}qmake" || command -v qmake-qt5 || echo /usr/lib/qt5/bin/qmake)
[ -x "$qmake" ] || die "${cross}qmake not found (Debian package qtbase5-dev-tools)"
qt_plugins=$("$qmake" -query QT_INSTALL_PLUGINS)
# What an ELF loads, as ldd tells it: from the wizard's own loader, which for
# another machine runs under qemu.
loader=$(readelf -lW "$gui" | sed -n 's/.*Requesting program interpreter: \(.*\)\]$/\1/p')
[ -x "$loader" ] || die "$gui names no loader that is here"
loaded() { # elf
    "$loader" --list "$1"
}

mkdir -p "$bundle/usr/bin" "$bundle/usr/lib" "$bundle/usr/plugins"
install -m 0755 "$gui" "$bundle/usr/bin/tavelin-gui"
printf '[Paths]\nPrefix = ..\nLibraries = lib\nPlugins = plugins\n' > "$bundle/usr/bin/qt.conf"

# Plugins the wizard loads: the X11 platform (offscreen and minimal for
# headless runs), its GL integrations, image formats and the gtk3 theme;
# the input methods (fcitx5, fcitx, ibus, compose); Wayland with the shells
# compositors offer, its decorations and EGL.
for plugin in platforms/libqxcb.so platforms/libqoffscreen.so platforms/libqminimal.so \
              xcbglintegrations/libqxcb-glx-integration.so xcbglintegrations/libqxcb-egl-integration.so \
              platformthemes/libqgtk3.so imageformats/*.so platforminputcontexts/*.so \
              platforms/libqwayland-generic.so platforms/libqwayland-egl.so wayland-shell-integration/*.so \
              wayland-decoration-client/*.so wayland-graphics-integration-client/libqt-plugin-wayland-egl.so; do
    for file in "$qt_plugins"/$plugin; do
        [ -f "$file" ] || continue
        category=$(basename "$(dirname "$file")")
        mkdir -p "$bundle/usr/plugins/$category"
        install -m 0755 "$file" "$bundle/usr/plugins/$category/"
    done
done
for wanted in platforms/libqxcb.so platforms/libqwayland-generic.so platforminputcontexts/libfcitx5platforminputcontextplugin.so \
              platforminputcontexts/libfcitxplatforminputcontextplugin.so platforminputcontexts/libibusplatforminputcontextplugin.so \
              platforminputcontexts/libcomposeplatforminputcontextplugin.so; do
    [ -f "$bundle/usr/plugins/$wanted" ] || die "$wanted not found in $qt_plugins"
done

host_list_load "$host_libraries"

declare -A gathered=()
for elf in "$bundle/usr/bin/tavelin-gui" "$bundle"/usr/plugins/*/*.so; do
    gather_needed "$loader" "$bundle/usr/lib" "$elf"
done

# Symbols and debug information are dead weight in an installer; the dynamic
# symbol table stays, so linking and plugin loading work as before. strip
# goes first: rewriting a file patchelf has grown can break it.
for elf in "$bundle/usr/bin/tavelin-gui" "$bundle"/usr/lib/*.so* "$bundle"/usr/plugins/*/*.so; do
    "${cross}strip" --strip-unneeded "$elf" || die "strip failed on $elf"
done

# ICU's data is half the AppDir, most of it every language's names, units,
# calendars and collations. The wizard speaks Chinese and its file dialog sorts
# names, so the root data, the codecs, the dictionaries and the English and
# Chinese locales stay; the other locales are cut with icupkg and the freed
# tail zeroed in place, which squashfs stores as nothing. The library keeps its
# layout, so no compiler is needed.
thin_icu_data() { # library
    local lib=$1 value size ndx symbol addr offset start scratch thin
    read -r value size ndx symbol < <(readelf -sW "$lib" | awk '$8 ~ /^icudt[0-9]+_dat$/ { print $2, $3, $7, $8; exit }')
    [ -n "${value:-}" ] || die "$lib holds no icudt*_dat symbol"
    read -r addr offset < <(elf_sections "$lib" | awk -v n="$ndx" '$1 == n { print $4, $5 }')
    start=$((16#$value - 16#$addr + 16#$offset)) size=$((size))
    # icupkg takes the package's name (icudt72l) from the file's.
    scratch=$(mktemp -d)
    local full=$scratch/${symbol%_dat}l.dat thinned=$scratch/thin/${symbol%_dat}l.dat
    mkdir "$scratch/thin"
    dd if="$lib" of="$full" bs=1M iflag=skip_bytes,count_bytes skip="$start" count="$size" status=none
    # Locale bundles are named like de, de_AT or zh_Hant_HK; Cantonese stays for zh_Hant_HK.
    icupkg -l "$full" | grep -E '(^|/)[a-z]{2,3}(_[A-Za-z0-9_]*)?\.res$' \
        | grep -Ev '(^|/)(res_index|(en|zh|yue)(_[A-Za-z0-9_]+)?)\.res$' > "$scratch/drop.txt" || true
    icupkg -r "$scratch/drop.txt" "$full" "$thinned" >/dev/null || die "icupkg failed on $lib"
    thin=$(stat -c %s "$thinned")
    [ "$thin" -le "$size" ] || die "the thinned ICU data of $lib grew"
    { cat "$thinned"; head -c $((size - thin)) /dev/zero; } \
        | dd of="$lib" bs=1M seek="$start" oflag=seek_bytes conv=notrunc status=none
    echo "collect: $(basename "$lib"): ICU data $size -> $thin bytes ($(wc -l < "$scratch/drop.txt") items dropped)"
    rm -rf "$scratch"
}
for lib in "$bundle"/usr/lib/libicudata.so.*; do
    [ -f "$lib" ] || continue
    if command -v icupkg >/dev/null; then
        thin_icu_data "$lib"
    else
        echo "collect: icupkg not found (Debian package icu-devtools): ICU's data is carried whole" >&2
    fi
done

patchelf --set-rpath '$ORIGIN/../lib' "$bundle/usr/bin/tavelin-gui"
for lib in "$bundle"/usr/lib/*.so*; do
    patchelf --set-rpath '$ORIGIN' "$lib"
done
for plugin in "$bundle"/usr/plugins/*/*.so; do
    patchelf --set-rpath '$ORIGIN/../../lib' "$plugin"
done

# Read ahead by the runtime as soon as the image is mounted, in the order the
# wizard loads them: the wizard and its libraries as the loader finds them,
# then the plugins Qt loads at start, with theirs.
preload_list() {
    local elf path
    for elf in usr/bin/tavelin-gui usr/plugins/platforms/libqxcb.so usr/plugins/platformthemes/libqgtk3.so \
               usr/plugins/imageformats/*.so usr/plugins/xcbglintegrations/libqxcb-glx-integration.so; do
        [ -f "$elf" ] || continue
        echo "$elf"
        loaded "$elf" | awk '$2 == "=>" { print $3 }' | while read -r path; do
            path=$(realpath -m --relative-to=. "$path")
            case $path in usr/*) echo "$path" ;; esac
        done
    done | awk '!seen[$0]++'
}
(cd "$bundle" && preload_list) > "$bundle/.tavelin-preload"

# The image stores modes as found: make them the same whatever the umask.
find "$bundle" -type d -exec chmod 0755 {} +
find "$bundle" -type f -perm /0111 -exec chmod 0755 {} +
find "$bundle" -type f ! -perm /0111 -exec chmod 0644 {} +
echo "collect: $bundle ready ($(ls "$bundle/usr/lib" | wc -l) libraries, $(ls "$bundle"/usr/plugins/*/*.so | wc -l) plugins," \
     "$(du -sb "$bundle" | cut -f1) bytes)"
