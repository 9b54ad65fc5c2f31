#!/usr/bin/env bash
# Makes one AppImage file: the runtime, then a squashfs image of the AppDir
# beginning exactly where the runtime's ELF ends; optionally fills the
# runtime's reserved sections with update information and a signature, and
# writes OUTPUT.zsync for zsync updates.
#   packaging/make-appimage.sh [--update-information TEXT] [--sign-key KEY] [--zsync] RUNTIME APPDIR OUTPUT
# The update information goes in first, so that the signature covers it: the
# signature is gpg's ASCII-armoured detached signature of the 64 lowercase hex
# characters, without a newline, of the SHA-256 of the whole file with only
# .sha256_sig and .sig_key zero, as the AppImage tools check it; .sig_key
# holds the armoured public key. gpg runs with the caller's GNUPGHOME.
# --zsync: zsyncmake's OUTPUT.zsync of the finished file, naming it by its file name.
# TAVELIN_MKSQUASHFS names the mksquashfs to use (tavelin-pack passes the
# one its toolchain carries); else the one on PATH.
set -euo pipefail
# shellcheck source=tavelin-lib.sh
. "$(dirname "$0")/tavelin-lib.sh"
usage="usage: make-appimage.sh [--update-information TEXT] [--sign-key KEY] [--zsync] RUNTIME APPDIR OUTPUT"
update_information= sign_key= zsync=
while [ $# -gt 0 ]; do
    case $1 in
        --update-information) [ $# -ge 2 ] || die "$usage"; update_information=$2; shift 2 ;;
        --sign-key) [ $# -ge 2 ] && [ -n "$2" ] || die "$usage"; sign_key=$2; shift 2 ;;
        --zsync) zsync=1; shift ;;
        --*) die "unknown option $1; $usage" ;;
        *) break ;;
    esac
done
[ $# -eq 3 ] || die "$usage"
runtime=$1 appdir=$2 output=$3
mksquashfs=${TAVELIN_MKSQUASHFS:-mksquashfs}
command -v "$mksquashfs" >/dev/null || die "$mksquashfs not found (Debian package squashfs-tools)"
command -v readelf >/dev/null || die "readelf not found (Debian package binutils)"
[ -z "$sign_key" ] || command -v gpg >/dev/null || die "gpg not found (Debian package gnupg)"
[ -z "$zsync" ] || command -v zsyncmake >/dev/null || die "zsyncmake not found (Debian package zsync)"
[ -x "$appdir/AppRun" ] || die "$appdir/AppRun is missing: make the AppDir with make-appdir.sh"
[ "$(dd if="$runtime" bs=1 skip=8 count=3 status=none | od -An -c | tr -d ' ')" = 'AI002' ] \
    || die "$runtime carries no AppImage type 2 mark"

# The runtime starts the wizard: both must be for one machine (a script in
# the wizard's place, as in tests, has none).
machine_of() { readelf -h "$1" 2>/dev/null | sed -n 's/^ *Machine: *//p' || true; }
wizard_machine=$(machine_of "$appdir/usr/bin/tavelin-gui")
[ -z "$wizard_machine" ] || [ "$wizard_machine" = "$(machine_of "$runtime")" ] \
    || die "the wizard in $appdir is for $wizard_machine, the runtime $runtime for $(machine_of "$runtime")"

work=$(mktemp -d)
partial=() # the output and its .zsync while they are being written: a failure removes them
cleanup() {
    rm -rf "$work"
    if [ ${#partial[@]} -gt 0 ]; then rm -f "${partial[@]}"; fi
}
trap cleanup EXIT

# "OFFSET SIZE" in the file of one of the runtime's reserved sections, which
# must be there and still zero.
section() { # name
    local type offset size
    read -r type offset size < <(elf_section "$runtime" "$1") || die "$runtime has no section $1"
    [ "$type" = PROGBITS ] || die "$runtime's section $1 is $type, not PROGBITS"
    offset=$((16#$offset)) size=$((16#$size))
    [ -z "$(dd if="$runtime" bs=4096 skip="$offset" count="$size" iflag=skip_bytes,count_bytes status=none \
        | tr -d '\0')" ] || die "$runtime's section $1 is not zero-filled"
    echo "$offset $size"
}
declare -A place=()
url_segment() { # text: percent-encoded but for the unreserved bytes
    local LC_ALL=C text=$1 encoded= char i
    for ((i = 0; i < ${#text}; i++)); do
        char=${text:i:1}
        case $char in
            [A-Za-z0-9._~-]) encoded+=$char ;;
            *) encoded+=$(printf '%%%02X' "'$char") ;;
        esac
    done
    printf '%s' "$encoded"
}
fits() { # name file what
    local bytes=$(stat -c %s "$2") size=${place[$1]#* }
    [ "$bytes" -le "$size" ] || die "$3 takes $bytes bytes, more than the $size of $1"
}
fill() { # name file: the file's bytes at the start of the section in the output
    dd if="$2" of="$output" bs=4096 seek="${place[$1]% *}" oflag=seek_bytes conv=notrunc status=none \
        || die "cannot write $1 into $output"
}

# Refusals that need no image come before the long mksquashfs.
if [ -n "$update_information$sign_key" ]; then
    for name in .upd_info .sha256_sig .sig_key; do place[$name]=$(section "$name"); done
    printf '%s' "$update_information" > "$work/update-information"
    fits .upd_info "$work/update-information" "the update information"
fi
if [ -n "$sign_key" ]; then
    # Named by fingerprint, so that the key that signs is the key exported.
    fingerprint=$(gpg --batch --with-colons --list-secret-keys -- "$sign_key" 2>/dev/null \
        | awk -F: '$1 == "sec" { primary = 1 } primary && $1 == "fpr" { print $10; primary = 0 }') || true
    [ -n "$fingerprint" ] || die "no secret key $sign_key in ${GNUPGHOME:-~/.gnupg}"
    [ "$(wc -l <<<"$fingerprint")" -eq 1 ] || die "$sign_key names several secret keys; give a fingerprint"
fi

# Reproducible: owned by root, no extended attributes, every time stamp
# SOURCE_DATE_EPOCH or else a fixed 2000-01-01 00:00 UTC. mksquashfs refuses
# its time options while SOURCE_DATE_EPOCH is set, so it does not see it.
# zstd at level 19 (the levels above save 4 KB of the demo; levels 9 to 12
# decompress up to a quarter faster but add 1.7 MB and did not start the
# wizard any sooner), in 256 KiB blocks: each read from a mounted image costs
# whole blocks to decompress, so larger blocks, though smaller, start slower
# from the mount, and smaller ones extract slower (see the README).
epoch=${SOURCE_DATE_EPOCH:-946684800}
env -u SOURCE_DATE_EPOCH "$mksquashfs" "$appdir" "$work/image" -noappend -all-root -no-xattrs \
    -mkfs-time "$epoch" -all-time "$epoch" -comp zstd -Xcompression-level 19 -b 256K -quiet >/dev/null \
    || die "mksquashfs failed on $appdir"
partial=("$output")
cat "$runtime" "$work/image" > "$output"
chmod 0755 "$output"
# The image must begin where the runtime's ELF ends: its section headers come
# last. A runtime that can run here is asked as well; one for another
# machine, with no emulator, cannot be (the shell's 126).
offset=$(readelf -h "$runtime" | awk -F: '/Start of section headers/ { start = $2 + 0 }
    /Size of section headers/ { size = $2 + 0 } /Number of section headers/ { count = $2 + 0 }
    END { print start + size * count }')
[ "$offset" -eq "$(stat -c %s "$runtime")" ] || die "the runtime's ELF ends at $offset, not at its size"
status=0
reported=$("$(readlink -f "$output")" --appimage-offset 2>/dev/null) || status=$?
[ "$status" -eq 126 ] || [ "$status" -eq 0 ] || die "the runtime in $output does not start"
[ "$status" -eq 126 ] || [ "$reported" = "$offset" ] || die "the runtime in $output finds its image at $reported, not $offset"

notes=
if [ -n "$update_information" ]; then
    fill .upd_info "$work/update-information"
    notes+=", update information $(stat -c %s "$work/update-information") bytes"
fi
if [ -n "$sign_key" ]; then
    # The signature's own sections are still zero here, so the file as it is gives the digest.
    sha256sum < "$output" | cut -c1-64 | tr -d '\n' > "$work/digest"
    gpg --batch --yes --armor --local-user "$fingerprint" --output "$work/signature" \
        --detach-sign "$work/digest" 2>"$work/gpg.log" || die "gpg cannot sign with $sign_key: $(cat "$work/gpg.log")"
    # Minimal: without third-party signatures the key is smaller and checks the same.
    gpg --batch --armor --export-options export-minimal --export "$fingerprint" > "$work/key" 2>"$work/gpg.log" \
        && [ -s "$work/key" ] || die "gpg cannot export $fingerprint: $(cat "$work/gpg.log")"
    fits .sha256_sig "$work/signature" "the signature"
    fits .sig_key "$work/key" "the public key"
    fill .sha256_sig "$work/signature"
    fill .sig_key "$work/key"
    notes+=", signed by $fingerprint"
fi
if [ -n "$zsync" ]; then
    partial+=("$output.zsync")
    # zsyncmake's MTime is the file's: the image's epoch, so one AppImage gives one .zsync.
    touch -d "@$epoch" "$output"
    # A relative URL, one path segment: the client fetches the AppImage beside the .zsync.
    LC_ALL=C zsyncmake -u "$(url_segment "$(basename "$output")")" -o "$output.zsync" "$output" \
        >"$work/zsyncmake.log" 2>&1 || die "zsyncmake failed on $output: $(cat "$work/zsyncmake.log")"
    notes+=", $output.zsync $(stat -c %s "$output.zsync") bytes"
fi
partial=()
echo "make-appimage: $output ($(stat -c %s "$output") bytes, image at offset $offset$notes)"
