#!/usr/bin/env bash
# Builds an AppDir around a payload: the wizard in usr/bin, the Qt libraries
# and plugins it needs in usr/lib and usr/plugins with an $ORIGIN rpath, and
# AppRun, a desktop entry and the icon at the root.
#   packaging/make-appdir.sh PAYLOAD_DIR TAVELIN_GUI APPDIR
# PAYLOAD_DIR holds soft/ as tavelin-pack writes it; APPDIR must not exist.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
die() { echo "make-appdir: $*" >&2; exit 1; }

[ $# -eq 3 ] || die "usage: make-appdir.sh PAYLOAD_DIR TAVELIN_GUI APPDIR"
payload=$1 gui=$2 appdir=$3
manifest=$payload/soft/mainifest.json
[ -f "$manifest" ] || die "$manifest not found: pack the application with tavelin-pack first"
[ -x "$gui" ] || die "$gui is not an executable"
[ ! -e "$appdir" ] || die "$appdir exists already"
for tool in patchelf readelf strip ldd; do
    command -v "$tool" >/dev/null || die "$tool not found (Debian packages patchelf, binutils, libc-bin)"
done
qmake=$(command -v qmake || command -v qmake-qt5 || echo /usr/lib/qt5/bin/qmake)
[ -x "$qmake" ] || die "qmake not found (Debian package qtbase5-dev-tools)"
qt_plugins=$("$qmake" -query QT_INSTALL_PLUGINS)

# tavelin-pack writes one key a line; the two names read here are unique keys.
manifest_value() { # key
    sed -n 's/^ *"'"$1"'": "\(.*\)",\{0,1\}$/\1/p' "$manifest" | head -n 1
}
name=$(manifest_value nameEng)
app_icon=$(manifest_value appIcon)
[ -n "$name" ] || die "the manifest names no base.nameEng"
[ -f "$payload/soft/images/$app_icon" ] || die "icon soft/images/$app_icon missing from the payload"

mkdir -p "$appdir/usr/bin" "$appdir/usr/lib" "$appdir/usr/plugins"
cp -a "$payload/soft" "$appdir/soft"
install -m 0755 "$gui" "$appdir/usr/bin/tavelin-gui"
printf '[Paths]\nPrefix = ..\nLibraries = lib\nPlugins = plugins\n' > "$appdir/usr/bin/qt.conf"

# Plugins the wizard loads: the X11 platform (offscreen and minimal for
# headless runs), its GL integrations, image formats and the gtk3 theme.
for plugin in platforms/libqxcb.so platforms/libqoffscreen.so platforms/libqminimal.so \
              xcbglintegrations/libqxcb-glx-integration.so xcbglintegrations/libqxcb-egl-integration.so \
              platformthemes/libqgtk3.so imageformats/*.so; do
    for file in "$qt_plugins"/$plugin; do
        [ -f "$file" ] || continue
        category=$(basename "$(dirname "$file")")
        mkdir -p "$appdir/usr/plugins/$category"
        install -m 0755 "$file" "$appdir/usr/plugins/$category/"
    done
done
[ -f "$appdir/usr/plugins/platforms/libqxcb.so" ] || die "xcb platform plugin not found in $qt_plugins"

mapfile -t excludes < <(grep -v -E '^\s*(#|$)' "$here/host-libraries.txt")
is_excluded() {
    local pattern
    for pattern in "${excludes[@]}"; do
        [[ $1 =~ ^${pattern}$ ]] && return 0
    done
    return 1
}

# Follows DT_NEEDED from each ELF, stopping at excluded libraries, so that
# nothing only an excluded library needs is carried either.
declare -A seen=()
bundle_needs() { # elf
    local elf=$1 soname path
    declare -A where=()
    while read -r soname _ path _; do
        [ -n "$path" ] && where[$soname]=$path
    done < <(ldd "$elf" | grep '=> /')
    for soname in $(readelf -d "$elf" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
        [ -n "${seen[$soname]:-}" ] && continue
        seen[$soname]=1
        is_excluded "$soname" && continue
        path=${where[$soname]:-}
        [ -n "$path" ] || die "$elf needs $soname, which is not found"
        install -m 0644 "$(readlink -f "$path")" "$appdir/usr/lib/$soname"
        bundle_needs "$appdir/usr/lib/$soname"
    done
}
bundle_needs "$appdir/usr/bin/tavelin-gui"
for plugin in "$appdir"/usr/plugins/*/*.so; do
    bundle_needs "$plugin"
done

# Symbols and debug information are dead weight in an installer; the dynamic
# symbol table stays, so linking and plugin loading work as before. strip
# goes first: rewriting a file patchelf has grown can break it.
for elf in "$appdir/usr/bin/tavelin-gui" "$appdir"/usr/lib/*.so* "$appdir"/usr/plugins/*/*.so; do
    strip --strip-unneeded "$elf" || die "strip failed on $elf"
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
    read -r addr offset < <(readelf -SW "$lib" | sed -n "s/^ *\[ *$ndx\] [^ ]* *[A-Z_]* *\([0-9a-f]*\) \([0-9a-f]*\) .*/\1 \2/p")
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
    echo "make-appdir: $(basename "$lib"): ICU data $size -> $thin bytes ($(wc -l < "$scratch/drop.txt") items dropped)"
    rm -rf "$scratch"
}
for lib in "$appdir"/usr/lib/libicudata.so.*; do
    [ -f "$lib" ] || continue
    if command -v icupkg >/dev/null; then
        thin_icu_data "$lib"
    else
        echo "make-appdir: icupkg not found (Debian package icu-devtools): ICU's data is carried whole" >&2
    fi
done

patchelf --set-rpath '$ORIGIN/../lib' "$appdir/usr/bin/tavelin-gui"
for lib in "$appdir"/usr/lib/*.so*; do
    patchelf --set-rpath '$ORIGIN' "$lib"
done
for plugin in "$appdir"/usr/plugins/*/*.so; do
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
        ldd "$elf" | awk '$2 == "=>" { print $3 }' | while read -r path; do
            path=$(realpath -m --relative-to=. "$path")
            case $path in usr/*) echo "$path" ;; esac
        done
    done | awk '!seen[$0]++'
}
(cd "$appdir" && preload_list) > "$appdir/.tavelin-preload"

# The AppImage's own entry and icon: the installer, not the application.
icon_name=tavelin-installer-$(basename "${app_icon%.*}")
case $app_icon in
    *.*) icon_ext=${app_icon##*.} ;;
    *) icon_ext=png ;;
esac
cp "$payload/soft/images/$app_icon" "$appdir/$icon_name.$icon_ext"
ln -s "$icon_name.$icon_ext" "$appdir/.DirIcon"
cat > "$appdir/tavelin-installer.desktop" <<DESKTOP
[Desktop Entry]
Type=Application
Name=$name Installer
Name[zh_CN]=$name 安装程序
Exec=tavelin-gui
Icon=$icon_name
Categories=System;
Terminal=false
DESKTOP
if command -v desktop-file-validate >/dev/null; then
    desktop-file-validate "$appdir/tavelin-installer.desktop" || die "the AppDir's desktop entry is rejected"
fi

cat > "$appdir/AppRun" <<'APPRUN'
#!/bin/sh
# Starts the wizard on the payload beside this file; the working directory
# is left as the caller had it.
here=$(dirname "$(readlink -f "$0")")
APPDIR=$here
export APPDIR
exec "$here/usr/bin/tavelin-gui" "$@"
APPRUN
chmod 0755 "$appdir/AppRun"
# The image stores modes as found: make them the same whatever the umask.
find "$appdir" -type d -exec chmod 0755 {} +
find "$appdir" -type f -perm /0111 -exec chmod 0755 {} +
find "$appdir" -type f ! -perm /0111 -exec chmod 0644 {} +
echo "make-appdir: $appdir ready ($(ls "$appdir/usr/lib" | wc -l) libraries, $(ls "$appdir"/usr/plugins/*/*.so | wc -l) plugins," \
     "$(du -sb "$appdir" | cut -f1) bytes)"
