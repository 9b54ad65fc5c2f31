#!/usr/bin/env bash
# Each refusal of packaging/make-appimage.sh, one row a refusal: it exits 1,
# names the problem, and leaves nothing where the AppImage was to be. Made
# from the built runtime, copies of it damaged here, and a one-script AppDir.
# Needs objcopy, objdump and gpg; neither root nor a display.
#   tests/system/check-make-appimage.sh RUNTIME
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
fail() { echo "check-make-appimage: FAIL: $*" >&2; exit 1; }
[ $# -eq 1 ] && [ -f "$1" ] || fail "usage: check-make-appimage.sh RUNTIME"
runtime=$(readlink -f "$1")
for needed in objcopy objdump gpg; do
    command -v "$needed" >/dev/null || fail "$needed not installed (Debian packages binutils, gnupg)"
done
scratch=$(mktemp -d /tmp/tavelin-make-appimage.XXXXXX)
trap 'gpgconf --homedir "$scratch/keys" --kill all 2>/dev/null; rm -rf "$scratch"' EXIT
cd "$scratch"
mkdir appdir bare out
printf '#!/bin/sh\n' > appdir/AppRun
chmod 0755 appdir/AppRun

# Damaged copies of the runtime, read with objdump, apart from the script's readelf.
mark() { printf 'AI\002' | dd of="$1" bs=1 seek=8 conv=notrunc status=none; } # objcopy drops it
upd_offset=$(objdump -h "$runtime" | awk '$2 == ".upd_info" { print $6 }')
[ -n "$upd_offset" ] || fail "$runtime has no .upd_info"
upd_offset=$((16#$upd_offset))
cp "$runtime" unmarked && printf '\0\0\0' | dd of=unmarked bs=1 seek=8 conv=notrunc status=none
cp "$runtime" dirty && printf 'x' | dd of=dirty bs=1 seek="$upd_offset" conv=notrunc status=none
objcopy --remove-section .upd_info "$runtime" unsectioned && mark unsectioned
# sh_type of .upd_info's header made SHT_NOBITS (8).
upd_header=$(($(od -An -tu8 -j 40 -N 8 "$runtime" | tr -d ' ') + 64 * $(objdump -h "$runtime" | awk '$2 == ".upd_info" { print $1 + 1 }')))
cp "$runtime" nobits && printf '\010' | dd of=nobits bs=1 seek=$((upd_header + 4)) conv=notrunc status=none
cp "$runtime" longer && printf 'tail' >> longer
# Two secret keys under one name.
mkdir -m 0700 keys
for _ in 1 2; do
    GNUPGHOME=$scratch/keys gpg --batch --yes --passphrase '' --quick-gen-key 'Twice <twice@example.invalid>' ed25519 sign never \
        2>/dev/null || fail "gpg cannot make a test key"
done

long=$(printf 'zsync|https://example.invalid/%01100d' 0)
# expected message | environment (NAME=VALUE or -) | arguments; R is the runtime.
rows=(
    "unknown option --frobnicate|-|--frobnicate R appdir out/A"
    "usage: make-appimage.sh|-|R appdir"
    "not found (Debian package squashfs-tools)|TAVELIN_MKSQUASHFS=/nonexistent/mksquashfs|R appdir out/A"
    "carries no AppImage type 2 mark|-|unmarked appdir out/A"
    "bare/AppRun is missing|-|R bare out/A"
    "takes 1130 bytes, more than the 1024 of .upd_info|-|--update-information $long R appdir out/A"
    "section .upd_info is not zero-filled|-|--update-information x dirty appdir out/A"
    "has no section .upd_info|-|--update-information x unsectioned appdir out/A"
    "section .upd_info is NOBITS, not PROGBITS|-|--update-information x nobits appdir out/A"
    "no secret key nobody@example.invalid|GNUPGHOME=$scratch/bare|--sign-key nobody@example.invalid R appdir out/A"
    "names several secret keys|GNUPGHOME=$scratch/keys|--sign-key twice@example.invalid R appdir out/A"
    "the runtime's ELF ends at|-|longer appdir out/A"
)
for row in "${rows[@]}"; do
    IFS='|' read -r message environment arguments <<<"$row"
    read -ra words <<<"${arguments//R/$runtime}"
    [ "$environment" != - ] || environment=UNUSED=
    status=0
    env "$environment" "$top/packaging/make-appimage.sh" "${words[@]}" >log 2>&1 || status=$?
    [ "$status" -eq 1 ] || fail "\"$message\": exit $status, not 1: $(cat log)"
    grep -qF -- "$message" log || fail "\"$message\" not said: $(cat log)"
    [ -z "$(ls -A out)" ] || fail "\"$message\": left in the output's place: $(ls -A out)"
done
echo "check-make-appimage: ${#rows[@]} refusals, each exit 1 with its message and nothing written"
