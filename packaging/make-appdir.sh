#!/usr/bin/env bash
# Builds an AppDir around a payload: the wizard bundle (the wizard with its Qt
# libraries and plugins, as bundle/collect.sh gathered them) in usr, and
# AppRun, a desktop entry and the icon at the root; then checks that nothing
# in it asks the host for more than the host list grants.
#   packaging/make-appdir.sh PAYLOAD_DIR WIZARD_BUNDLE APPDIR
# PAYLOAD_DIR holds the payload as tavelin-pack writes it; APPDIR must not
# exist. The payload's layout comes from tavelin-pack: from the environment
# when it runs this script, else from TAVELIN_PACK, the tavelin-pack beside
# an installed toolchain or the one on PATH. The package's English name and
# its icon's file name come in TAVELIN_APP_NAME and TAVELIN_APP_ICON, which
# tavelin-pack sets from what it packed.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
# shellcheck source=tavelin-lib.sh
. "$here/tavelin-lib.sh"

[ $# -eq 3 ] || die "usage: make-appdir.sh PAYLOAD_DIR WIZARD_BUNDLE APPDIR"
payload=$1 bundle=$2 appdir=$3
if [ -z "${TAVELIN_PAYLOAD_LAYOUT:-}" ]; then
    pack=${TAVELIN_PACK:-$here/../../bin/tavelin-pack}
    [ -x "$pack" ] || pack=$(command -v tavelin-pack) \
        || die "tavelin-pack not found, which knows the payload's layout: set TAVELIN_PACK"
    TAVELIN_PAYLOAD_LAYOUT=$("$pack" --payload-layout) || die "$pack --payload-layout failed"
fi
layout() { # key
    sed -n "s/^$1=//p" <<<"$TAVELIN_PAYLOAD_LAYOUT"
}
payload_dir=$(layout payload) images=$(layout images)
manifest=$payload/$(layout manifest)
[ -n "$payload_dir" ] && [ -n "$images" ] || die "no payload layout in TAVELIN_PAYLOAD_LAYOUT"
[ -f "$manifest" ] || die "$manifest not found: pack the application with tavelin-pack first"
[ -x "$bundle/usr/bin/tavelin-gui" ] && [ -f "$bundle/.tavelin-preload" ] \
    || die "$bundle is no wizard bundle (usr/bin/tavelin-gui, .tavelin-preload)"
[ ! -e "$appdir" ] || die "$appdir exists already"

# The package's name and icon as tavelin-pack wrote them into the manifest.
name=${TAVELIN_APP_NAME:-} app_icon=${TAVELIN_APP_ICON:-}
[ -n "$name" ] && [ -n "$app_icon" ] \
    || die "TAVELIN_APP_NAME and TAVELIN_APP_ICON are not set: tavelin-pack sets them, with the name and icon it packed"
[ -f "$payload/$images/$app_icon" ] || die "icon $images/$app_icon missing from the payload"

# The wizard and its Qt as built for the oldest distributions we start on.
mkdir -p "$appdir"
cp -a "$bundle/usr" "$bundle/.tavelin-preload" "$appdir/"
cp -a "$payload/$payload_dir" "$appdir/$payload_dir"

# The AppImage's own entry and icon: the installer, not the application.
icon_name=tavelin-installer-$(basename "${app_icon%.*}")
case $app_icon in
    *.*) icon_ext=${app_icon##*.} ;;
    *) icon_ext=png ;;
esac
cp "$payload/$images/$app_icon" "$appdir/$icon_name.$icon_ext"
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

# AppRun: beside this script in a checkout and in an installed toolchain.
install -m 0755 "$here/AppRun" "$appdir/AppRun"
# The image stores modes as found: make them the same whatever the umask.
find "$appdir" -type d -exec chmod 0755 {} +
find "$appdir" -type f -perm /0111 -exec chmod 0755 {} +
find "$appdir" -type f ! -perm /0111 -exec chmod 0644 {} +
# The host list: tavelin-pack names it; else beside this script in a checkout,
# or in share/tavelin of an installed toolchain.
hosts=${TAVELIN_HOST_LIBRARIES:-$here/host-libraries.txt}
[ -f "$hosts" ] || hosts=$here/../../share/tavelin/host-libraries.txt
[ -f "$hosts" ] || die "host-libraries.txt not found: set TAVELIN_HOST_LIBRARIES"
"$here/check-floor.sh" "$appdir" "$hosts" "$payload_dir" || die "$appdir asks the host for more than it grants"
echo "make-appdir: $appdir ready ($(ls "$appdir/usr/lib" | wc -l) libraries, $(ls "$appdir"/usr/plugins/*/*.so | wc -l) plugins," \
     "$(du -sb "$appdir" | cut -f1) bytes)"
