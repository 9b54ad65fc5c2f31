#!/usr/bin/env bash
# Checks what make-appimage.sh writes into the runtime's reserved sections,
# reading them back independently: with a throw-away GnuPG key it makes a
# signed AppImage with update information and an unsigned one of the same
# AppDir, then
# - the runtime and the .upd_info bytes give back the update information;
# - the signed file with .upd_info, .sha256_sig and .sig_key zeroed is the
#   unsigned file byte for byte;
# - one row a file: gpg, with a fresh keyring holding only the key from
#   .sig_key, judges the signature from .sha256_sig over the hex SHA-256 of
#   the file with only .sha256_sig and .sig_key zeroed (.upd_info counts, as
#   the AppImage tools have it), and tavelin-pack --verify judges the file:
#   the signed file is good, one changed byte of the payload or of .upd_info
#   makes it bad, an unsigned file or one that is no AppImage is refused;
# - the unsigned file's three sections are all zero.
#   tests/system/check-signature.sh RUNTIME APPDIR TAVELIN_PACK
set -euo pipefail
[ $# -eq 3 ] || { echo "usage: check-signature.sh RUNTIME APPDIR TAVELIN_PACK" >&2; exit 2; }
here=$(cd "$(dirname "$0")" && pwd)
runtime=$(readlink -f "$1") appdir=$2 pack=$(readlink -f "$3")
fail() { echo "check-signature: FAIL: $*" >&2; exit 1; }
for tool in gpg gpgconf objdump sha256sum; do
    command -v "$tool" >/dev/null || fail "$tool not found (Debian packages gnupg, binutils, coreutils)"
done
scratch=$(mktemp -d)
cleanup() {
    local home
    for home in "$scratch/signer" "$scratch/checker"; do
        if [ -d "$home" ]; then GNUPGHOME=$home gpgconf --kill gpg-agent 2>/dev/null || true; fi
    done
    rm -rf "$scratch"
}
trap cleanup EXIT
gpg_in() { # home gpg-arguments...
    local home=$1
    shift
    GNUPGHOME=$home gpg --batch --quiet "$@"
}

mkdir -m 0700 "$scratch/signer" "$scratch/checker"
gpg_in "$scratch/signer" --passphrase '' --quick-gen-key 'Tavelin Test <test@example.invalid>' ed25519 sign never \
    2>/dev/null || fail "gpg cannot make a test key"
fingerprint=$(gpg_in "$scratch/signer" --with-colons --list-secret-keys | awk -F: '$1 == "fpr" { print $10; exit }')
update='zsync|https://tavelin.example.invalid/TavelinDemo-x86_64.AppImage.zsync'
signed=$scratch/signed.AppImage unsigned=$scratch/unsigned.AppImage
GNUPGHOME=$scratch/signer "$here/../../packaging/make-appimage.sh" --update-information "$update" --sign-key test@example.invalid \
    "$runtime" "$appdir" "$signed" >/dev/null
"$here/../../packaging/make-appimage.sh" "$runtime" "$appdir" "$unsigned" >/dev/null

# objdump here, where make-appimage.sh reads readelf: "OFFSET SIZE", decimal.
section() { # name
    local size offset
    read -r size offset < <(objdump -h "$runtime" | awk -v name="$1" '$2 == name { print $3, $6 }') \
        || fail "$runtime has no section $1"
    echo "$((16#$offset)) $((16#$size))"
}
bytes_of() { # file section: the section's bytes up to the first zero
    local offset size
    read -r offset size <<<"$(section "$2")"
    dd if="$1" bs=4096 skip="$offset" count="$size" iflag=skip_bytes,count_bytes status=none | tr -d '\0'
}
zeroed() { # file copy sections...: the file with these sections zeroed
    local name offset size
    cp "$1" "$2"
    for name in "${@:3}"; do
        read -r offset size <<<"$(section "$name")"
        head -c "$size" /dev/zero | dd of="$2" bs=4096 seek="$offset" oflag=seek_bytes conv=notrunc status=none
    done
}
verify() { # file: gpg's status lines with a keyring of the embedded key alone
    local home
    home=$(mktemp -d "$scratch/checker/home.XXXXXX")
    bytes_of "$1" .sig_key > "$home/key.asc"
    bytes_of "$1" .sha256_sig > "$home/signature.asc"
    zeroed "$1" "$home/zeroed" .sha256_sig .sig_key
    sha256sum < "$home/zeroed" | cut -c1-64 | tr -d '\n' > "$home/digest"
    gpg_in "$home" --import "$home/key.asc" 2>/dev/null || fail "gpg cannot import the key in .sig_key"
    gpg_in "$home" --status-fd 1 --verify "$home/signature.asc" "$home/digest" 2>/dev/null || true
}

[ "$(bytes_of "$signed" .upd_info)" = "$update" ] || fail ".upd_info does not hold the update information"
runtime_says=section
if "$signed" --appimage-help | grep -q -- --appimage-updateinformation; then
    [ "$("$signed" --appimage-updateinformation)" = "$update" ] \
        || fail "--appimage-updateinformation prints something else than $update"
    runtime_says="--appimage-updateinformation and section"
fi
zeroed "$signed" "$scratch/signed-zeroed" .upd_info .sha256_sig .sig_key
cmp -s "$scratch/signed-zeroed" "$unsigned" || fail "the signed file differs from the unsigned one outside the sections"
for name in .upd_info .sha256_sig .sig_key; do
    [ -z "$(bytes_of "$unsigned" "$name")" ] || fail "the unsigned file's $name is not zero"
done

flip() { # file copy offset: the copy with one bit of the byte at offset changed
    local byte
    cp "$1" "$2"
    byte=$(od -An -tu1 -j "$3" -N1 "$1" | tr -d ' ')
    printf "\\$(printf %03o $((byte ^ 1)))" | dd of="$2" bs=1 seek="$3" conv=notrunc status=none
    ! cmp -s "$1" "$2" || fail "byte $3 of $2 did not change"
}
read -r upd_offset _ <<<"$(section .upd_info)"
flip "$signed" "$scratch/payload-changed.AppImage" $((($(stat -c %s "$signed") + $(stat -c %s "$runtime")) / 2))
flip "$signed" "$scratch/update-changed.AppImage" $((upd_offset + 3))
printf 'not an AppImage\n' > "$scratch/text"
# A damaged header: .sha256_sig's size such that offset + size wraps round to 1.
read -r sig_offset _ <<<"$(section .sha256_sig)"
sig_index=$(objdump -h "$runtime" | awk '$2 == ".sha256_sig" { print $1 + 1 }')
header_at=$(($(od -An -tu8 -j 40 -N 8 "$runtime" | tr -d ' ') + sig_index * 64 + 32))
cp "$signed" "$scratch/size-wraps.AppImage"
for i in 0 1 2 3 4 5 6 7; do printf "\\$(printf %03o $(((1 - sig_offset) >> (8 * i) & 255)))"; done \
    | dd of="$scratch/size-wraps.AppImage" bs=1 seek="$header_at" conv=notrunc status=none

# file | what gpg says (good, bad, -: not signed) | what --verify exits with and prints
rows=(
    "signed.AppImage|good|0|$fingerprint.*Tavelin Test <test@example.invalid>"
    "payload-changed.AppImage|bad|1|bad signature"
    "update-changed.AppImage|bad|1|bad signature"
    "unsigned.AppImage|-|1|not signed"
    "text|-|1|not an AppImage"
    "size-wraps.AppImage|-|1|not an AppImage with room for a signature"
)
for row in "${rows[@]}"; do
    IFS='|' read -r file gpg_says exits prints <<<"$row"
    if [ "$gpg_says" != - ]; then
        verify "$scratch/$file" > "$scratch/$file.status"
        case $gpg_says in
            good) grep -q "^\[GNUPG:\] VALIDSIG $fingerprint " "$scratch/$file.status" \
                      || fail "$file: gpg does not accept the embedded signature with the embedded key" ;;
            bad) grep -q '^\[GNUPG:\] BADSIG ' "$scratch/$file.status" \
                     && ! grep -q '^\[GNUPG:\] VALIDSIG ' "$scratch/$file.status" \
                     || fail "$file: gpg does not call the signature bad" ;;
        esac
    fi
    status=0
    GNUPGHOME=$scratch/untouched "$pack" --verify "$scratch/$file" > "$scratch/$file.out" 2>&1 || status=$?
    [ "$status" -eq "$exits" ] || fail "$file: tavelin-pack --verify exits $status, not $exits: $(cat "$scratch/$file.out")"
    grep -q -- "$prints" "$scratch/$file.out" \
        || fail "$file: tavelin-pack --verify does not say \"$prints\": $(cat "$scratch/$file.out")"
done
[ ! -e "$scratch/untouched" ] || fail "tavelin-pack --verify wrote into the user's GNUPGHOME"

echo "check-signature: update information read back ($runtime_says); signed = unsigned outside the sections;" \
     "the unsigned file's three sections are zero; gpg with the embedded key alone and tavelin-pack --verify" \
     "accept the signature by $fingerprint, refuse it after one byte of the payload or of .upd_info changed," \
     "and refuse an unsigned file, a text file and a section past the end"
