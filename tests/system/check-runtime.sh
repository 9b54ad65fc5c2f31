#!/usr/bin/env bash
# Checks the AppImage runtime as a whole program on little images of its own:
# the in-process FUSE mount as root and, through fusermount3 or fuse 2's
# fusermount, as uid 65534, extraction as uid 65534, APPIMAGE as a path a
# shell takes unquoted, nothing left behind however AppRun or the runtime
# ends, every --appimage-* option, links that must not lead extraction out of
# squashfs-root, and files that are no AppImage.
# Needs root. Prints one summary line; the failures, if any, before it.
#   tests/system/check-runtime.sh RUNTIME
set -uo pipefail
[ $# -eq 1 ] && [ "$(id -u)" = 0 ] || { echo "usage: check-runtime.sh RUNTIME (as root)" >&2; exit 2; }
command -v mksquashfs >/dev/null || { echo "check-runtime: mksquashfs not found (squashfs-tools)" >&2; exit 2; }
runtime=$(readlink -f "$1")
# shellcheck source=../../packaging/tavelin-lib.sh
. "$(dirname "$0")/../../packaging/tavelin-lib.sh"
scratch=$(mktemp -d)
unmount_strays() { awk -v s="$scratch/" 'index($5, s) == 1 { print $5 }' /proc/self/mountinfo | xargs -r -n1 umount -l; }
trap 'cd /; unmount_strays; rm -rf "$scratch"' EXIT
chmod 755 "$scratch"
export HOME=$scratch/home
mkdir -p "$HOME" "$scratch/outside" "$scratch/decoy" "$scratch/fifo" "$scratch/run" && chmod 777 "$scratch/fifo"
passed=0 failed=0
# Failures go to fd 3, so that the shell's notices of killed jobs can be silenced.
exec 3>&2
check() { # NAME COMMAND...: one result, and the command's success as the status
    if "${@:2}"; then passed=$((passed + 1)); return 0; fi
    failed=$((failed + 1))
    echo "check-runtime: FAIL: $1" >&3
    return 1
}
# Polls up to 20 s for COMMAND to succeed.
wait_for() { for _ in $(seq 200); do "$@" && return 0; sleep 0.1; done; return 1; }
# A child that has ended stays a zombie until waited for.
ended() { [ ! -e "/proc/$1" ] || [ "$(sed 's/.*) //' "/proc/$1/stat" 2>/dev/null | cut -d' ' -f1)" = Z ]; }
has() { grep -qxF -- "$2" "$1"; }
# A TMPDIR of its own, owned by the user under test, so leftovers are plain to see.
fresh_tmp() { rm -rf "$scratch/tmp"; mkdir "$scratch/tmp"; chown "$1" "$scratch/tmp"; }
# [PID]: mounts as the process PID sees them, for one in a private mount namespace.
unmounted() { ! grep -q " $scratch/tmp/" "/proc/${1:-self}/mountinfo"; }
clean_tmp() { [ -z "$(ls -A "$scratch/tmp")" ] && unmounted "${1:-self}"; }
# The runtime's guard: the other process running the runtime PID's file.
guard_of() {
    local exe proc
    exe=$(readlink "/proc/$1/exe")
    for proc in /proc/[0-9]*; do
        [ "${proc#/proc/}" = "$1" ] || [ "$(readlink "$proc/exe")" != "$exe" ] || echo "${proc#/proc/}"
    done
}

# The AppDir: AppRun tells what it was handed, then waits on the FIFO $HOLD if set.
# APPIMAGE goes into the installer's shell line unquoted, as it is run here.
app=$scratch/AppDir
mkdir -p "$app/sub"
echo "from the image" > "$app/sub/data"
cat > "$app/AppRun" <<'EOF'
#!/bin/sh
echo "appdir=$APPDIR"; echo "appimage=$APPIMAGE"; echo "argv0=$ARGV0"; echo "owd=$OWD"
echo "data=$(cat "$APPDIR/sub/data")"
echo "fs=$(awk -v d="$APPDIR" '$5 == d { for (i = 7; $i != "-"; i++); print $(i + 1) }' /proc/self/mountinfo)"
echo "leaks=$(for f in /proc/$$/fd/*; do readlink "$f"; done | grep -c -e fuse -e AppImage)"
echo "link=$(readlink -f "$APPIMAGE")"; echo "linkdir=$(stat -c '%a %u' "${APPIMAGE%/*}")"
echo "linkdirs=$(ls -A "$TMPDIR" | grep -c '^\.tavelin-appimage-link-')"
echo "ran=$(bash -c "$APPIMAGE --appimage-version" 2>&1)"
for a in "$@"; do echo "[$a]"; done
[ -z "${HOLD:-}" ] || { echo $$ > "$HOLD.pid"; read -r _ < "$HOLD"; }
exit 7
EOF
chmod 755 "$app/AppRun"
make_appimage() { # RUNTIME DIR OUTPUT [COMPRESSION]
    mksquashfs "$2" "$scratch/image" -noappend -quiet -comp "${4:-zstd}" >/dev/null && cat "$1" "$scratch/image" > "$3" \
        && chmod 755 "$3" && rm "$scratch/image"
}
make_appimage "$runtime" "$app" "$scratch/test.AppImage"
make_appimage "$runtime" "$app" "$scratch/gzip.AppImage" gzip
# Names a shell splits or expands, a browser's second download among them;
# and names it takes as they are, but for '=', which env takes for an assignment.
odd="$scratch/with blanks/Demo (1).AppImage" chinese="$scratch/with blanks/演示 \$x'q.AppImage"
equals=$scratch/with=sign/test.AppImage inert=$scratch/in+ert,:@%-dir/test_1.2.AppImage
mkdir "$scratch/with blanks" "${equals%/*}" "${inert%/*}"
for copy in "$odd" "$chinese" "$equals" "$inert"; do cp "$scratch/test.AppImage" "$copy"; done
cp "$runtime" "$scratch/bare"
# A host squashfuse is never needed: these decoys tell if one is run.
for decoy in squashfuse squashfuse_ll; do
    printf '#!/bin/sh\ntouch %s/decoy-used\nexit 1\n' "$scratch" > "$scratch/decoy/$decoy"
    chmod 755 "$scratch/decoy/$decoy"
done
# Runs a command where /dev/fuse is open to every user, as on most desktops, so
# uid 65534 mounts through the setuid fusermount3; a private mount namespace
# keeps the host's /dev/fuse as it is.
open_fuse=$scratch/open-fuse
cat > "$open_fuse" <<EOF
#!/bin/sh
exec unshare -m sh -c 'mount -t tmpfs none "$scratch/dev" && mknod -m 666 "$scratch/dev/fuse" c $(stat -c '%Hr %Lr' /dev/fuse) &&
    mount --bind "$scratch/dev/fuse" /dev/fuse && exec "\$@"' - "\$@"
EOF
chmod 755 "$open_fuse" && mkdir "$scratch/dev"
# The same on a host whose only helper is fuse 2's fusermount (Debian 11,
# Ubuntu 20.04): fusermount3 is hidden and the fusermount of Debian's fuse
# package, setuid on a tmpfs of its own, is first on PATH. The rows that
# need it are left out where that package cannot be downloaded.
fuse2_only=
if (cd "$scratch" && apt-get download fuse) >/dev/null 2>&1 && dpkg-deb -x "$scratch"/fuse_*.deb "$scratch/fuse2"; then
    fuse2_only=$scratch/fuse2-only
    cat > "$fuse2_only" <<EOF
#!/bin/sh
exec unshare -m sh -c 'mount -t tmpfs -o suid,mode=755 none "$scratch/fuse2/suid" &&
    install -m 4755 "$scratch/fuse2/bin/fusermount" "$scratch/fuse2/suid/fusermount" &&
    for helper in /usr/bin/fusermount3 /bin/fusermount3 \$(which -a fusermount3 fusermount); do
        [ ! -e "\$helper" ] || mount --bind /dev/null "\$helper" || exit 1
    done && PATH="$scratch/fuse2/suid:\$PATH" exec "$open_fuse" "\$@"' - "\$@"
EOF
    chmod 755 "$fuse2_only" && mkdir "$scratch/fuse2/suid"
else
    echo "check-runtime: the fuse package (fuse 2) cannot be downloaded: the mounts through its fusermount are not checked" >&2
fi
args=(one "two words" "it's \"quoted\"" "" "--appimage-not-ours" '$HOME *')

# Running AppRun: NAME;USER;MOUNTED(1/0);STDERR-LINES;PROGRAM;LINK;FIRST-ARGUMENT;VAR=VALUE;WRAPPER
# LINK is the name of the link APPIMAGE names, empty where it is the real path.
while IFS=';' read -r name user mounted errlines program link first vars wrapper; do
    [ -n "$name" ] || continue
    fresh_tmp "$user"
    mkdir -p "$scratch/run/$name" && cd "$scratch/run/$name" || exit 1
    env PATH="$scratch/decoy:$PATH" TMPDIR="$scratch/tmp" ${vars:+"$vars"} timeout 60 $wrapper \
        setpriv --reuid="$user" --regid="$user" --clear-groups "$program" ${first:+"$first"} "${args[@]}" > out 2> err
    check "$name: exit status of AppRun" [ $? = 7 ]
    appdir=$(sed -n 's/^appdir=//p' out)
    if [ "$mounted" = 1 ]; then prefix=.mount_tavelin fs=fuse.tavelin; else prefix=.tavelin-appimage- fs=; fi
    check "$name: APPDIR $appdir" [ "${appdir#"$scratch/tmp/$prefix"}" != "$appdir" ]
    check "$name: file system '$fs'" has out "fs=$fs"
    target=$program
    [[ $vars != TARGET_APPIMAGE=* ]] || target=${vars#*=}
    real=$(readlink -f "$target") appimage=$(sed -n 's/^appimage=//p' out)
    if [ -z "$link" ]; then
        check "$name: APPIMAGE the real path, no link made" bash -c '[ "$1" = "$2" ] && grep -qx linkdirs=0 out' - \
            "$appimage" "$real"
    else
        check "$name: APPIMAGE $appimage, a link to the file" bash -c '[[ $1 == "$2"/.tavelin-appimage-link-??????/"$3" ]] \
            && grep -qxF "link=$4" out' - "$appimage" "$scratch/tmp" "$link" "$real"
        check "$name: the link's directory 700 and the user's" has out "linkdir=700 $user"
    fi
    check "$name: \$APPIMAGE unquoted runs" grep -q '^ran=tavelin-runtime [0-9]' out
    check "$name: ARGV0, OWD, data" bash -c 'grep -qxF "argv0=$1" out && grep -qxF "owd=$PWD" out &&
        grep -qxF "data=from the image" out' - "$program"
    check "$name: arguments" diff <(printf '[%s]\n' "${args[@]}") <(grep '^\[' out)
    check "$name: no FUSE or image descriptor in AppRun" has out leaks=0
    check "$name: $errlines line(s) on stderr" [ "$(wc -l < err)" = "$errlines" ]
    check "$name: nothing left in TMPDIR" clean_tmp
done <<EOF
mount-as-root;0;1;0;$scratch/test.AppImage;;;
gzip-image;0;1;0;$scratch/gzip.AppImage;;;
blanks-in-path;0;1;0;$odd;Demo__1_.AppImage;;
equals-in-path;0;1;0;$equals;test.AppImage;;
inert-punctuation;0;1;0;$inert;;;
extract-as-nobody;65534;0;1;$scratch/test.AppImage;;;
chinese-extract-as-nobody;65534;0;1;$chinese;________x_q.AppImage;;
mount-as-nobody;65534;1;0;$scratch/test.AppImage;;;;$open_fuse
blanks-mount-as-nobody;65534;1;0;$odd;Demo__1_.AppImage;;;$open_fuse
chinese-mount-as-nobody;65534;1;0;$chinese;________x_q.AppImage;;;$open_fuse
${fuse2_only:+mount-as-nobody-helper2;65534;1;0;$scratch/test.AppImage;;;;$fuse2_only}
extract-and-run-env;0;0;0;$scratch/test.AppImage;;;APPIMAGE_EXTRACT_AND_RUN=1
extract-and-run-option;0;0;0;$scratch/test.AppImage;;--appimage-extract-and-run;
blanks-extract-and-run-as-nobody;65534;0;0;$odd;Demo__1_.AppImage;--appimage-extract-and-run;
target-appimage;0;1;0;$scratch/bare;;;TARGET_APPIMAGE=$scratch/test.AppImage
EOF
check "extract-as-nobody: the one line says why" grep -q "/dev/fuse.*extracting" "$scratch/run/extract-as-nobody/err"
check "no host squashfuse was run" [ ! -e "$scratch/decoy-used" ]

# A TMPDIR a shell would split is no place for the link: /tmp is, and the link goes all the same.
fresh_tmp 65534 && mkdir "$scratch/tmp/a dir" && chown 65534 "$scratch/tmp/a dir"
env TMPDIR="$scratch/tmp/a dir" setpriv --reuid=65534 --regid=65534 --clear-groups "$odd" --appimage-extract-and-run \
    > "$scratch/run/odd-tmpdir.out" 2>&1
appimage=$(sed -n 's/^appimage=//p' "$scratch/run/odd-tmpdir.out")
check "TMPDIR with a blank: the link $appimage below /tmp" bash -c '
    [[ $1 == /tmp/.tavelin-appimage-link-??????/Demo__1_.AppImage ]] && grep -qxF "link=$2" "$3" &&
    grep -qx "linkdir=700 65534" "$3"' - "$appimage" "$(readlink -f "$odd")" "$scratch/run/odd-tmpdir.out"
check "TMPDIR with a blank: the link gone after" bash -c '[ -n "$1" ] && [ ! -e "${1%/*}" ]' - "$appimage"

# Stopping: MODE USER SIGNAL WHOM IMAGE [WRAPPER]; the runtime's status must be 128 + SIGNAL and nothing left.
# IMAGE is plain, or odd for the one whose APPIMAGE is a link.
hold=$scratch/fifo/hold
declare -A image_of=([plain]=$scratch/test.AppImage [odd]=$odd)
while read -r mode user signal whom image wrapper; do
    [ -n "$mode" ] || continue
    fresh_tmp "$user"
    rm -f "$hold" "$hold.pid" && mkfifo -m 666 "$hold"
    # Background jobs of a script ignore SIGINT; the runtime must get it as from a terminal.
    env --default-signal HOLD="$hold" TMPDIR="$scratch/tmp" $wrapper setpriv --reuid="$user" --regid="$user" --clear-groups "${image_of[$image]}" >/dev/null 2>&1 &
    pid=$!
    check "$mode $signal $whom $image: AppRun started" wait_for test -s "$hold.pid"
    apprun=$(cat "$hold.pid")
    case $whom in
        AppRun) kill -s "$signal" "$apprun" ;;
        runtime) kill -s "$signal" "$pid" ;;
        runtime+guard) kill -s "$signal" "$pid" $(guard_of "$pid") ;;
    esac
    # A runtime that kept AppRun from the signal leaves both to be killed here.
    check "$mode $signal $whom $image: the runtime ends" wait_for ended "$pid" || kill -9 "$pid" "$apprun"
    wait "$pid"
    check "$mode $signal $whom $image: status 128 + $signal" [ $? = $((128 + $(kill -l "$signal"))) ]
    # A killed runtime cleans nothing up itself: its guard process takes the
    # mount down through the helper and removes the directory; with the guard
    # killed too, the helper's auto_unmount still takes the mount down. Seen
    # from AppRun, which still runs in the mount namespace it was made in.
    case "$signal $whom" in
        "KILL runtime") check "$mode $signal $whom $image: nothing left, AppRun running" wait_for clean_tmp "$apprun" ;;
        "KILL runtime+guard") check "$mode $signal $whom $image: unmounted, AppRun running" wait_for unmounted "$apprun" ;;
        *) check "$mode $signal $whom $image: nothing left" clean_tmp ;;
    esac
    [[ "$signal $whom" != "KILL runtime"* ]] || kill "$apprun"
done 2>/dev/null <<EOF
mount 0 TERM runtime plain
mount 0 INT runtime plain
mount 0 HUP runtime plain
mount 0 KILL AppRun plain
mount 0 INT runtime odd
mount-nobody 65534 TERM runtime plain $open_fuse
mount-nobody 65534 KILL AppRun plain $open_fuse
mount-nobody 65534 KILL runtime plain $open_fuse
mount-nobody 65534 HUP runtime odd $open_fuse
mount-nobody 65534 KILL AppRun odd $open_fuse
mount-nobody 65534 KILL runtime odd $open_fuse
${fuse2_only:+mount-nobody-helper2 65534 TERM runtime plain $fuse2_only}
${fuse2_only:+mount-nobody-helper2 65534 KILL runtime plain $fuse2_only}
${fuse2_only:+mount-nobody-helper2 65534 KILL runtime odd $fuse2_only}
${fuse2_only:+mount-nobody-helper2 65534 KILL runtime+guard plain $fuse2_only}
extract 65534 TERM runtime plain
extract 65534 KILL AppRun plain
extract 65534 TERM runtime odd
EOF

# --appimage-mount serves others until SIGINT.
fresh_tmp 0
env --default-signal TMPDIR="$scratch/tmp" "$scratch/test.AppImage" --appimage-mount > "$scratch/mount.out" &
pid=$!
check "--appimage-mount: prints the mount point" wait_for test -s "$scratch/mount.out"
point=$(head -n 1 "$scratch/mount.out")
check "--appimage-mount: a FUSE mount at $point" bash -c 'awk -v d="$1" '\''$5 == d && / - fuse.tavelin /'\'' \
    /proc/self/mountinfo | grep -q .' - "$point"
check "--appimage-mount: readable from outside" [ "$(cat "$point/sub/data")" = "from the image" ]
kill -INT "$pid"
check "--appimage-mount: ends on SIGINT" wait_for ended "$pid" || kill -9 "$pid"
wait "$pid"
check "--appimage-mount: status 0" [ $? = 0 ]
check "--appimage-mount: unmounted and removed" clean_tmp

# Read-ahead: files decompressed ahead of the reader and stored in the page
# cache read back as they went in, however their blocks are kept: stored
# plain, compressed, as holes, with a fragment tail, past the size read
# ahead. Each is opened before any is read, and read twice, so that pages
# come both from reads and from the store. .tavelin-preload names them with
# lines that must be passed over.
ahead=$scratch/ahead
mkdir -p "$ahead/files"
cp "$app/AppRun" "$ahead/"
head -c $((1024 * 1024 + 4097)) /dev/urandom > "$ahead/files/random"
seq 1 150000 > "$ahead/files/text"
{ head -c 262144 /dev/urandom; head -c 262144 /dev/zero; head -c 100000 /dev/urandom; } > "$ahead/files/holes"
{ head -c 65536 /dev/urandom; head -c $((17 * 1024 * 1024)) /dev/zero; head -c 65536 /dev/urandom; } > "$ahead/files/big"
echo tiny > "$ahead/files/tiny"
mkfifo "$ahead/files/pipe"
printf '%s\n' files/holes ../outside/x /etc/hostname files/pipe files/missing files/big files/random > "$ahead/.tavelin-preload"
reads_back() { # MOUNT POINT
    local name fds=()
    for name in random text holes big tiny; do exec {fd}< "$1/files/$name" && fds+=("$fd"); done
    for name in holes big text random tiny holes big text random tiny; do
        cmp -s "$1/files/$name" "$ahead/files/$name" || return 1
    done
    for fd in "${fds[@]}"; do exec {fd}<&-; done
}
# Blocks of 128 KiB, as long as a read, and of 1 MiB, so that a read leaves
# some of its blocks for the store.
for block in 128K 1M; do
    mksquashfs "$ahead" "$scratch/image" -noappend -quiet -b "$block" >/dev/null && cat "$runtime" "$scratch/image" \
        > "$scratch/ahead.AppImage" && chmod 755 "$scratch/ahead.AppImage" && rm "$scratch/image"
    fresh_tmp 0
    env --default-signal TMPDIR="$scratch/tmp" "$scratch/ahead.AppImage" --appimage-mount > "$scratch/ahead.out" &
    pid=$!
    wait_for test -s "$scratch/ahead.out"
    check "read-ahead, $block blocks: every file reads back as it went in" reads_back "$(head -n 1 "$scratch/ahead.out")"
    kill -INT "$pid"
    check "read-ahead, $block blocks: ends on SIGINT" wait_for ended "$pid" || kill -9 "$pid"
    wait "$pid"
    check "read-ahead, $block blocks: unmounted and removed" clean_tmp
done

# The sections the packer fills, read from the file by name.
section() { elf_section "$1" "$2" | awk '$1 == "PROGBITS" { print $2, $3 }'; }
sizes=$(for name in upd_info sha256_sig sig_key; do section "$runtime" ".$name" | cut -d' ' -f2; done | tr '\n' ' ')
check "sections: .upd_info, .sha256_sig, .sig_key, PROGBITS, full size" [ "$sizes" = "000400 000400 002000 " ]
cp "$runtime" "$scratch/signed"
for pair in "upd_info:zsync|https://example.invalid/x.zsync" "sha256_sig:-----BEGIN PGP SIGNATURE-----"; do
    read -r offset _ < <(section "$scratch/signed" ".${pair%%:*}")
    printf %s "${pair#*:}" | dd of="$scratch/signed" bs=1 seek=$((16#$offset)) conv=notrunc status=none
done
make_appimage "$scratch/signed" "$app" "$scratch/signed.AppImage"

# Options: NAME;STATUS;PATTERN IN STDOUT AND STDERR;COMMAND (words without blanks)
size=$(stat -c %s "$runtime")
cd "$scratch/run" && fresh_tmp 65534 || exit 1
while IFS=';' read -r name status pattern command; do
    # shellcheck disable=SC2086 # the command's words
    timeout 20 $command > "$scratch/option.out" 2>&1
    check "$name: status $status" [ $? = "$status" ]
    check "$name: says $pattern" grep -q -- "$pattern" "$scratch/option.out"
done <<EOF
--appimage-offset;0;^$size\$;$scratch/test.AppImage --appimage-offset
--appimage-help;0;--appimage-updateinformation;$scratch/test.AppImage --appimage-help
--appimage-version;0;^tavelin-runtime [0-9];$scratch/test.AppImage --appimage-version
--appimage-updateinformation;0;^zsync|https://example.invalid/x.zsync\$;$scratch/signed.AppImage --appimage-updateinformation
--appimage-signature;0;^-----BEGIN PGP SIGNATURE-----\$;$scratch/signed.AppImage --appimage-signature
empty update information;0;^\$;$scratch/test.AppImage --appimage-updateinformation
unknown option;1;unknown option --appimage-frobnicate;$scratch/test.AppImage --appimage-frobnicate
--appimage-mount without FUSE;1;cannot mount the image: /dev/fuse;env TMPDIR=$scratch/tmp setpriv --reuid=65534 --regid=65534 --clear-groups $scratch/test.AppImage --appimage-mount
TARGET_APPIMAGE offset;0;^$size\$;env TARGET_APPIMAGE=$scratch/test.AppImage $scratch/bare --appimage-offset
TARGET_APPIMAGE signature;0;^-----BEGIN PGP;env TARGET_APPIMAGE=$scratch/signed.AppImage $scratch/bare --appimage-signature
TARGET_APPIMAGE extract;0;^squashfs-root\$;env TARGET_APPIMAGE=$scratch/test.AppImage $scratch/bare --appimage-extract
EOF
check "options: nothing left in TMPDIR" clean_tmp
check "--appimage-extract: the image's files" diff -r "$app" squashfs-root
check "--appimage-extract: AppRun executable" test -x squashfs-root/AppRun
mkdir "$scratch/run/pattern" && cd "$scratch/run/pattern" && "$scratch/test.AppImage" --appimage-extract 'sub/*' >/dev/null
check "--appimage-extract PATTERN: only what matches" \
    [ "$(find squashfs-root | sort | tr '\n' ' ')" = "squashfs-root squashfs-root/sub squashfs-root/sub/data " ]

# Links are written as links and never followed, whether in the image or already in ./squashfs-root.
links=$scratch/links
mkdir -p "$links"
ln -s "$scratch/outside/victim" "$links/AppRun"
ln -s "$scratch/outside" "$links/sub"
ln -s ../../../outside/up "$links/up"
make_appimage "$runtime" "$links" "$scratch/links.AppImage"
mkdir "$scratch/run/links" && cd "$scratch/run/links" || exit 1
"$scratch/links.AppImage" --appimage-extract >/dev/null
check "links: kept as links with their targets" \
    [ "$(readlink squashfs-root/AppRun) $(readlink squashfs-root/up)" = "$scratch/outside/victim ../../../outside/up" ]
# Then a file where a link is, and a directory with a file where a link to a directory is.
"$scratch/test.AppImage" --appimage-extract >/dev/null
check "links: replaced by the image's file and directory" bash -c '[ -f squashfs-root/AppRun ] && [ ! -L squashfs-root/AppRun ] &&
    [ -d squashfs-root/sub ] && [ ! -L squashfs-root/sub ] && [ -f squashfs-root/sub/data ]'
mkdir "$scratch/run/linked-root" && cd "$scratch/run/linked-root" && ln -s "$scratch/outside" squashfs-root
"$scratch/test.AppImage" --appimage-extract >/dev/null
check "links: ./squashfs-root as a link is replaced" bash -c '[ -d squashfs-root ] && [ ! -L squashfs-root ]'
check "links: nothing written outside squashfs-root" [ -z "$(ls -A "$scratch/outside")" ]

# Bad files: NAME;USER;EXPECTED WORDS;PROGRAM;TARGET_APPIMAGE. One clear line, status 1, nothing left.
# mksquashfs pads to 4 KiB: cut inside the bytes the superblock says are used.
used=$(od -An -t u8 -j $((size + 40)) -N 8 "$scratch/test.AppImage")
cut_at=$((size + used / 2))
head -c "$cut_at" "$scratch/test.AppImage" > "$scratch/truncated.AppImage"
cp "$runtime" "$scratch/garbage.AppImage" && head -c 8192 /dev/urandom >> "$scratch/garbage.AppImage"
cp "$scratch/test.AppImage" "$scratch/unreadable.AppImage"
chmod 755 "$scratch/truncated.AppImage" "$scratch/garbage.AppImage" && chmod 111 "$scratch/unreadable.AppImage"
echo "just text" > "$scratch/text"
cp "$(type -P true)" "$scratch/plain-elf"
cd "$scratch/run" || exit 1
while IFS=';' read -r name user words program target; do
    fresh_tmp "$user"
    env ${target:+TARGET_APPIMAGE="$target"} TMPDIR="$scratch/tmp" timeout 20 setpriv --reuid="$user" --regid="$user" --clear-groups "$program" >/dev/null 2> "$scratch/bad.err"
    check "$name: status 1" [ $? = 1 ]
    check "$name: one line saying '$words'" bash -c 'grep -q "$1" "$2" && [ "$(wc -l < "$2")" = 1 ]' - "$words" "$scratch/bad.err"
    check "$name: nothing left" clean_tmp
done <<EOF
truncated;0;is truncated;$scratch/truncated.AppImage;
no-image;0;no squashfs image appended;$scratch/bare;
garbage-appended;0;no squashfs image where;$scratch/garbage.AppImage;
unreadable;65534;Permission denied;$scratch/unreadable.AppImage;
target-unreadable;65534;Permission denied;$scratch/bare;$scratch/unreadable.AppImage
target-text;0;no 64-bit ELF;$scratch/bare;$scratch/text
target-no-mark;0;no type 2 mark;$scratch/bare;$scratch/plain-elf
target-garbage;0;no squashfs image where;$scratch/bare;$scratch/garbage.AppImage
target-directory;0;not a regular file;$scratch/bare;$scratch/outside
target-missing;0;No such file;$scratch/bare;$scratch/missing
EOF
check "extracting a truncated file fails" bash -c '! "$1" --appimage-extract >/dev/null 2>&1' - "$scratch/truncated.AppImage"

echo "check-runtime: $passed passed, $failed failed"
[ "$failed" = 0 ]
