#!/usr/bin/env bash
# Gathers programs and every library they load into an AppDir: the programs
# in usr/bin, their libraries in usr/lib and, for a program linking Qt, its
# image format plugins (the packer reads icons with them) in usr/plugins,
# each with an $ORIGIN rpath, so nothing is looked for on the host but what
# the host list grants. Runs
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
for needed in patchelf readelf strip; do
    command -v "$needed" >/dev/null || die "$needed not found (Debian packages patchelf, binutils)"
done
host_list_load "$host_libraries"
loader=$(readelf -lW "$1" | sed -n 's/.*Requesting program interpreter: \(.*\)\]$/\1/p')
[ -x "$loader" ] || die "$1 names no loader that is here"

is_elf() { [ "$(head -c 4 "$1" | od -An -c | tr -d ' ')" = '177ELF' ]; }
links_qt() { readelf -d "$1" | grep -q 'NEEDED.*\[libQt5Core'; }

mkdir -p "$appdir/usr/bin" "$appdir/usr/lib"
qt=
for program in "$@"; do
    [ -x "$program" ] || die "$program is not an executable"
    install -m 0755 "$program" "$appdir/usr/bin/"
    if is_elf "$program" && links_qt "$program"; then qt=1; fi
done
if [ -n "$qt" ]; then
    qmake=$(command -v qmake || echo /usr/lib/qt5/bin/qmake)
    [ -x "$qmake" ] || die "qmake not found (Debian package qtbase5-dev-tools)"
    # Qt finds its plugins from the packer's directory, not where the root had them.
    printf '[Paths]\nPrefix = ..\nLibraries = lib\nPlugins = plugins\n' > "$appdir/usr/bin/qt.conf"
    mkdir -p "$appdir/usr/plugins/imageformats"
    for plugin in "$("$qmake" -query QT_INSTALL_PLUGINS)"/imageformats/*.so; do
        install -m 0755 "$plugin" "$appdir/usr/plugins/imageformats/"
    done
fi

declare -A gathered=()
for elf in "$appdir"/usr/bin/* "$appdir"/usr/plugins/*/*.so; do
    if [ -f "$elf" ] && is_elf "$elf"; then gather_needed "$loader" "$appdir/usr/lib" "$elf"; fi
done

# strip before patchelf: rewriting a file patchelf has grown can break it.
# DT_RPATH, not RUNPATH: it wins over LD_LIBRARY_PATH, so a packager's
# setting cannot swap in another libzstd (other bytes) or another Qt.
for elf in "$appdir"/usr/bin/* "$appdir"/usr/lib/*.so* "$appdir"/usr/plugins/*/*.so; do
    [ -f "$elf" ] && is_elf "$elf" || continue
    strip --strip-unneeded "$elf" || die "strip failed on $elf"
    case $elf in
        */usr/bin/*) rpath='$ORIGIN/../lib' ;;
        */usr/lib/*) rpath='$ORIGIN' ;;
        *) rpath='$ORIGIN/../../lib' ;;
    esac
    patchelf --force-rpath --set-rpath "$rpath" "$elf" || die "patchelf failed on $elf"
done
find "$appdir" -type d -exec chmod 0755 {} +
echo "toolchain-collect: $# programs, $(ls "$appdir/usr/lib" | wc -l) libraries, $(find "$appdir/usr" -path '*/plugins/*.so' | wc -l) plugins" \
     "($(du -sb "$appdir" | cut -f1) bytes)"
