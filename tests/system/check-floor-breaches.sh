#!/usr/bin/env bash
# Each breach that packaging/check-floor.sh reports, on tiny ELF files built
# here with gcc against made-up libraries and a host list of our own: a needed
# library neither carried nor on the list, a symbol version newer than the
# floor; and what is no breach: a carried library, a version at the floor, a
# version family the list sets no floor for, files that are no ELF, the
# payload when it is named. Then its usage errors. Needs gcc and readelf;
# neither root nor a display.
#   tests/system/check-floor-breaches.sh [CHECK_FLOOR]
# CHECK_FLOOR: the script under test, packaging/check-floor.sh by default.
set -euo pipefail
top=$(cd "$(dirname "$0")/../.." && pwd)
check=$(readlink -f "${1:-$top/packaging/check-floor.sh}")
fail() { echo "check-floor-breaches: FAIL: $*" >&2; exit 1; }
for tool in gcc readelf; do
    command -v "$tool" >/dev/null || fail "$tool not installed (Debian packages gcc, binutils)"
done
scratch=$(mktemp -d /tmp/tavelin-floor.XXXXXX)
trap 'rm -rf "$scratch"' EXIT
cd "$scratch"

# The host's libtavfake has three versions in one family and one of another.
cat > tavfake.map <<'EOF'
TAVFAKE_1.0 { global: tav_old; local: *; };
TAVFAKE_1.5 { global: tav_mid; } TAVFAKE_1.0;
TAVFAKE_1.10 { global: tav_new; } TAVFAKE_1.5;
TAVOTHER_9.0 { global: tav_other; };
EOF
printf 'int tav_old(void){return 1;}\nint tav_mid(void){return 2;}\nint tav_new(void){return 3;}\nint tav_other(void){return 4;}\n' > tavfake.c
gcc -shared -fPIC -Wl,-soname,libtavfake.so.1 -Wl,--version-script=tavfake.map -o libtavfake.so.1 tavfake.c
for lib in notthere carried; do
    echo "int tav_$lib(void){return 5;}" > "$lib.c"
    gcc -shared -fPIC -Wl,-soname,"lib$lib.so.1" -o "lib$lib.so.1" "$lib.c"
done
program() { # NAME CALLS LIBRARIES...: a program that calls each of CALLS
    local name=$1 calls=$2 call body=""
    shift 2
    for call in $calls; do body+="int $call(void); "; done
    body+="int main(void){return 0"
    for call in $calls; do body+="+$call()"; done
    echo "$body;}" > "$name.c"
    gcc -o "$name" "$name.c" "$@"
}
# At the floor, a family without a floor, a carried library: all fine.
program app-ok "tav_old tav_mid tav_other tav_carried" ./libtavfake.so.1 ./libcarried.so.1
program app-missing "tav_notthere" ./libnotthere.so.1
# 1.10 comes after 1.5 in version order, though not as text.
program app-new "tav_new" ./libtavfake.so.1
readelf -V -W app-new | grep -q 'Name: TAVFAKE_1.10 ' || fail "gcc made no need for TAVFAKE_1.10 in app-new"

# No GLIBC floor here, so the host's C library counts as it is, whatever its age.
cat > hosts.txt <<'EOF'
# The floor
@TAVFAKE_1.5

libc\.so\..*
libtavfake\.so\.1
# Only a prefix of libnotthere.so.1: a line matches the whole soname or nothing.
libnotthere
EOF

appdir() { # NAME PROGRAM...: an AppDir with a script AppRun, libcarried carried, the programs in usr/bin
    local dir=$scratch/$1
    shift
    mkdir -p "$dir/usr/bin" "$dir/usr/lib"
    printf '#!/bin/sh\nexec usr/bin/app-ok\n' > "$dir/AppRun"
    cp libcarried.so.1 "$dir/usr/lib/"
    cp "$@" "$dir/usr/bin/"
}
appdir clean app-ok
appdir missing app-ok app-missing
appdir newer app-ok app-new
appdir payload app-ok
mkdir -p payload/soft/app/bin
cp app-missing app-new payload/soft/app/bin/

# what | arguments, "@" the scratch directory | exit status | what standard error says, "|" between lines
rows=(
    "clean AppDir|@/clean @/hosts.txt|0|"
    "library neither carried nor on the list|@/missing/ @/hosts.txt|1|check-floor: usr/bin/app-missing needs libnotthere.so.1, which is neither carried nor on the host list|check-floor: 1 breaches in 3 ELF files of @/missing"
    "symbol version newer than the floor|@/newer @/hosts.txt|1|check-floor: usr/bin/app-new asks for TAVFAKE_1.10, newer than the floor's TAVFAKE_1.5|check-floor: 1 breaches in 3 ELF files of @/newer"
    "the payload, named, is not looked at|@/payload @/hosts.txt soft/|0|"
    "the payload, not named, is|@/payload @/hosts.txt|1|check-floor: soft/app/bin/app-missing needs libnotthere.so.1|check-floor: soft/app/bin/app-new asks for TAVFAKE_1.10|check-floor: 2 breaches in 4 ELF files of @/payload"
    "no arguments||2|usage: check-floor.sh APPDIR HOST_LIBRARIES [PAYLOAD_DIR]"
    "four arguments|@/clean @/hosts.txt soft extra|2|usage: check-floor.sh APPDIR HOST_LIBRARIES [PAYLOAD_DIR]"
    "AppDir missing|@/gone @/hosts.txt|2|check-floor: @/gone or @/hosts.txt missing"
    "host list missing|@/clean @/gone.txt|2|check-floor: @/clean or @/gone.txt missing"
    "host list a directory|@/clean @/clean|2|check-floor: @/clean or @/clean missing"
)
for row in "${rows[@]}"; do
    row=${row//@/$scratch}
    IFS='|' read -r what args expected says <<<"$row"
    read -ra words <<<"$args"
    status=0
    bash "$check" "${words[@]}" >out 2>err || status=$?
    [ "$status" = "$expected" ] || fail "$what: exit $status, not $expected; said: $(cat out err)"
    IFS='|' read -ra lines <<<"$says"
    for line in "${lines[@]}"; do
        grep -qF "$line" err || fail "$what: standard error does not say \"$line\": $(cat err)"
    done
    # One line a breach, and no more than the row names.
    reported=$(grep -c ' needs \| asks for ' err || true)
    named=$(grep -o ' needs \| asks for ' <<<"$says" | wc -l || true)
    [ "$reported" = "$named" ] || fail "$what: $reported breaches reported, not $named: $(cat err)"
    if [ "$expected" = 0 ]; then
        [ ! -s err ] || fail "$what: said on standard error: $(cat err)"
        grep -qxF "check-floor: 2 ELF files of ${words[0]} need only carried libraries and the host list's, at most TAVFAKE_1.5" out \
            || fail "$what: no all-clear line: $(cat out)"
    fi
    echo "check-floor-breaches: $what: exit $status"
done

# Without readelf nothing can be judged: a PATH of every other program.
mkdir no-readelf
ln -s /usr/bin/* no-readelf/
rm -f no-readelf/readelf
! PATH=$scratch/no-readelf command -v readelf >/dev/null || fail "readelf still found without it"
status=0
PATH=$scratch/no-readelf bash "$check" "$scratch/clean" "$scratch/hosts.txt" >out 2>err || status=$?
{ [ "$status" = 2 ] && grep -qF "check-floor: readelf not found" err; } || fail "readelf missing: exit $status; said: $(cat out err)"
echo "check-floor-breaches: readelf missing: exit 2"
echo "check-floor-breaches: PASS"
