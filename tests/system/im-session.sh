#!/bin/sh
# Starts an AppImage in a desktop root as a user's session would with an
# input method: a session bus, the input method's daemon with pinyin, and the
# variables the desktop exports. The input method is switched on only once
# /tmp/tavelin-im-on appears, so that the directory part of a location can be
# typed first: pinyin makes a '/' into a '、'.
#   im-session IM APPIMAGE
# IM is fcitx5, fcitx (4) or ibus; "QT_IM_MODULE=KEY" only sets the variable,
# to see the plugin load without a daemon; empty runs the AppImage alone.
im=$1 appimage=$2
case $im in
    "") exec "$appimage" ;;
    QT_IM_MODULE=*) export "$im"; exec "$appimage" ;;
esac
[ -n "${DBUS_SESSION_BUS_ADDRESS:-}" ] || exec dbus-run-session -- "$0" "$@"

# As Debian's im-config sets them: fcitx5 answers to "fcitx" too.
case $im in
    fcitx5)
        mkdir -p "$HOME/.config/fcitx5"
        printf '%s\n' '[Groups/0]' 'Name=Default' 'Default Layout=us' 'DefaultIM=pinyin' \
            '[Groups/0/Items/0]' 'Name=keyboard-us' '[Groups/0/Items/1]' 'Name=pinyin' \
            '[GroupOrder]' '0=Default' > "$HOME/.config/fcitx5/profile"
        fcitx5 -d >/tmp/im.log 2>&1
        ready=fcitx5-remote on="fcitx5-remote -o" key=fcitx ;;
    fcitx)
        mkdir -p "$HOME/.config/fcitx"
        printf '[Profile]\nEnabledIMList=fcitx-keyboard-us:True,pinyin:True\n' > "$HOME/.config/fcitx/profile"
        fcitx -d >/tmp/im.log 2>&1
        ready=fcitx-remote on="fcitx-remote -o" key=fcitx ;;
    ibus)
        ibus-daemon -d -r -x >/tmp/im.log 2>&1
        ready="ibus engine" on="ibus engine libpinyin" key=ibus ;;
    *) echo "im-session: no input method $im" >&2; exit 2 ;;
esac
for _ in $(seq 300); do $ready >/dev/null 2>&1 && break; sleep 0.1; done
$ready >/dev/null 2>&1 || { echo "im-session: $im did not start:" >&2; cat /tmp/im.log >&2; exit 1; }
QT_IM_MODULE=$key XMODIFIERS=@im=$key GTK_IM_MODULE=$key
export QT_IM_MODULE XMODIFIERS GTK_IM_MODULE
(
    for _ in $(seq 3000); do [ -e /tmp/tavelin-im-on ] && exec $on; sleep 0.1; done
) &
exec "$appimage"
