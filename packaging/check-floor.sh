#!/usr/bin/env bash
# Checks that the AppDir's own ELF files (the wizard, its libraries and
# plugins; the packaged application, in PAYLOAD_DIR, is the packager's
# business) ask the host for nothing beyond the host list: every library they
# need is carried in usr/lib or on the list, and no symbol version they need
# is newer than the list's floor. Prints each breach and exits 1 if there is one.
#   check-floor.sh APPDIR HOST_LIBRARIES [PAYLOAD_DIR]
# PAYLOAD_DIR is relative to APPDIR, as tavelin-pack --payload-layout names it.
set -euo pipefail
# shellcheck source=tavelin-lib.sh
. "$(dirname "$0")/tavelin-lib.sh"
[ $# -eq 2 ] || [ $# -eq 3 ] || { echo "usage: check-floor.sh APPDIR HOST_LIBRARIES [PAYLOAD_DIR]" >&2; exit 2; }
appdir=${1%/} host_libraries=$2 payload=${3:-}
command -v readelf >/dev/null || { echo "check-floor: readelf not found (Debian package binutils)" >&2; exit 2; }
[ -d "$appdir" ] && [ -f "$host_libraries" ] || { echo "check-floor: $appdir or $host_libraries missing" >&2; exit 2; }

skipped=()
[ -z "$payload" ] || skipped=(-path "$appdir/${payload%/}" -prune -o)

host_list_load "$host_libraries"
declare -A floor=() # version prefix (GLIBC_) -> newest version granted (2.31)
while read -r granted; do
    floor[${granted%_*}_]=${granted##*_}
done < <(host_list_floor "$host_libraries")

newer() { # version granted: whether version comes after granted
    [ "$1" != "$2" ] && [ "$(printf '%s\n%s\n' "$1" "$2" | sort -V | tail -n 1)" = "$1" ]
}

breaches=0 files=0
breach() { echo "check-floor: ${1#"$appdir"/} $2" >&2; breaches=$((breaches + 1)); }
while IFS= read -r -d '' file; do
    [ "$(head -c 4 "$file" | od -An -c | tr -d ' ')" = '177ELF' ] || continue
    files=$((files + 1))
    for soname in $(readelf -d "$file" 2>/dev/null | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
        [ -f "$appdir/usr/lib/$soname" ] || on_host "$soname" \
            || breach "$file" "needs $soname, which is neither carried nor on the host list"
    done
    for needed in $(readelf -V -W "$file" 2>/dev/null | sed -n 's/.*Name: \([A-Za-z]*_[0-9.]*\) .*/\1/p' | sort -u); do
        prefix=${needed%_*}_
        [ -n "${floor[$prefix]:-}" ] || continue
        ! newer "${needed##*_}" "${floor[$prefix]}" \
            || breach "$file" "asks for $needed, newer than the floor's ${prefix}${floor[$prefix]}"
    done
done < <(find "$appdir" "${skipped[@]}" -type f -print0 | sort -z)
[ "$breaches" -eq 0 ] || { echo "check-floor: $breaches breaches in $files ELF files of $appdir" >&2; exit 1; }
granted=$(for prefix in "${!floor[@]}"; do echo "$prefix${floor[$prefix]}"; done | sort | tr '\n' ' ')
echo "check-floor: $files ELF files of $appdir need only carried libraries and the host list's, at most ${granted% }"
