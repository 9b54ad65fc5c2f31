#!/usr/bin/env bash
# Gathers programs and every library they load into an AppDir: the programs
# in usr/bin, their libraries in usr/lib, Qt's image format plugins (the
# packer reads icons with them) in usr/plugins, each with an $ORIGIN rpath,
# so nothing is looked for on the host but what the host list grants. Runs
# in the root the programs come from, so that its loader finds what they load.
#   toolchain/collect.sh HOST_LIBRARIES APPDIR PROGRAM...
set -euo pipefail
tool=toolchain-collect
# shellcheck source=../packaging/tavelin-lib.sh
. "$(dirname "$0")/../packaging/tavelin-lib.sh"
[ $# -ge 3 ] || die "usage: collect.sh HOST_LIBRARIES APPDIR PROGRAM..."
host_libraries=$1 appdir=$2
shift 2
[ -f "$host_libraries" ] || die "no host list at $host_libraries"
[ ! -e "$appdir" ] || die "$appdir exists already"
for tool in patchelf readelf strip; do
    command -v "$tool" >/dev/null || die "$tool not found (Debian packages patchelf, binutils)"
done
qmake=$(command -v qmake || echo /usr/lib/qt5/bin/qmake)
[ -x "$qmake" ] || die "qmake not found (Debian package qtbase5-dev-tools)"
qt_plugins=$("$qmake" -query QT_INSTALL_PLUGINS)

host_list_load "$host_libraries"
loader=$(readelf -lW "$1" | sed -n 's/.*Requesting program interpreter: \(.*\)\]$/\1/p')
[ -x "$loader" ] || die "$1 names no loader that is here"

mkdir -p "$appdir/usr/bin" "$appdir/usr/lib" "$appdir/usr/plugins/imageformats"
for program in "$@"; do
    [ -x "$program" ] || die "$program is not an executable"
    install -m 0755 "$program" "$appdir/usr/bin/"
done
# Qt finds its plugins from the packer's directory, not where the root had them.
printf '[Paths]\nPrefix = ..\nLibraries = lib\nPlugins = plugins\n' > "$appdir/usr/bin/qt.conf"
for plugin in "$qt_plugins"/imageformats/*.so; do
    install -m 0755 "$plugin" "$appdir/usr/plugins/imageformats/"
done

is_elf() { [ "$(head -c 4 "$1" | od -An -c | tr -d ' ')" = '177ELF' ]; }

# Follows DT_NEEDED from each ELF, stopping at the host's libraries.
declare -A seen=()
needs() { # elf
    local elf=$1 soname path
    declare -A where=()
    while read -r soname _ path _; do
        [ -n "$path" ] && where[$soname]=$path
    done < <("$loader" --list "$elf" | grep '=> /')
    for soname in $(readelf -d "$elf" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
        [ -n "${seen[$soname]:-}" ] && continue
        seen[$soname]=1
        on_host "$soname" && continue
        path=${where[$soname]:-}
        [ -n "$path" ] || die "$elf needs $soname, which is not found"
        install -m 0644 "$(readlink -f "$path")" "$appdir/usr/lib/$soname"
        needs "$appdir/usr/lib/$soname"
    done
}
for elf in "$appdir"/usr/bin/* "$appdir"/usr/plugins/*/*.so; do
    if is_elf "$elf"; then needs "$elf"; fi
done

# strip before patchelf: rewriting a file patchelf has grown can break it.
# DT_RPATH, not RUNPATH: it wins over LD_LIBRARY_PATH, so a packager's
# setting cannot swap in another libzstd (other bytes) or another Qt.
for elf in "$appdir"/usr/bin/* "$appdir"/usr/lib/*.so* "$appdir"/usr/plugins/*/*.so; do
    is_elf "$elf" || continue
    strip --strip-unneeded "$elf" || die "strip failed on $elf"
    case $elf in
        */usr/bin/*) rpath='$ORIGIN/../lib' ;;
        */usr/lib/*) rpath='$ORIGIN' ;;
        *) rpath='$ORIGIN/../../lib' ;;
    esac
    patchelf --force-rpath --set-rpath "$rpath" "$elf" || die "patchelf failed on $elf"
done
find "$appdir" -type d -exec chmod 0755 {} +
echo "toolchain-collect: $# programs, $(ls "$appdir/usr/lib" | wc -l) libraries, $(ls "$appdir"/usr/plugins/*/*.so | wc -l) plugins" \
     "($(du -sb "$appdir" | cut -f1) bytes)"
