# shellcheck shell=bash
# Sourced by Tavelin's shell scripts: what several of them need, in one place.
# A script may set tool to the name its messages begin with; else it is the
# script's file name without .sh.

die() { # message...: on stderr after the script's name; exit status 1
    echo "${tool:-$(basename "$0" .sh)}: $*" >&2
    exit 1
}

# The host list: one extended regular expression a line, matched against a
# whole soname, and "@" lines naming the newest symbol version granted.
host_list_load() { # file: the patterns into host_patterns
    mapfile -t host_patterns < <(grep -v -E '^\s*(#|$|@)' "$1")
}
host_list_floor() { # file: the versions granted, one a line (GLIBC_2.31)
    sed -n 's/^@//p' "$1"
}
on_host() { # soname: whether a pattern of the loaded host list matches it
    local pattern
    for pattern in "${host_patterns[@]}"; do
        [[ $1 =~ ^${pattern}$ ]] && return 0
    done
    return 1
}

# Copies into LIBDIR each library ELF needs, and each that those need, except
# what the loaded host list grants: nothing only a host library needs goes
# along either. LOADER --list tells where the root has them (for another
# machine's ELF, its loader under qemu). Declare gathered (declare -A) first;
# it remembers the sonames done.
gather_needed() { # loader libdir elf
    local loader=$1 libdir=$2 elf=$3 soname path
    local -A where=()
    while read -r soname _ path _; do
        [ -n "$path" ] && where[$soname]=$path
    done < <("$loader" --list "$elf" | grep '=> /')
    for soname in $(readelf -d "$elf" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
        [ -n "${gathered[$soname]:-}" ] && continue
        gathered[$soname]=1
        on_host "$soname" && continue
        path=${where[$soname]:-}
        [ -n "$path" ] || die "$elf needs $soname, which is not found"
        install -m 0644 "$(readlink -f "$path")" "$libdir/$soname"
        gather_needed "$loader" "$libdir" "$libdir/$soname"
    done
}

# An ELF file's sections, one a line: INDEX NAME TYPE ADDRESS OFFSET SIZE,
# the last three in hexadecimal as readelf prints them.
elf_sections() { # file
    readelf -SW "$1" 2>/dev/null \
        | sed -n 's/^ *\[ *\([0-9]*\)\] \([^ ][^ ]*\)  *\([A-Za-z0-9_]*\)  *\([0-9a-f]*\) \([0-9a-f]*\) \([0-9a-f]*\) .*/\1 \2 \3 \4 \5 \6/p'
}
elf_section() { # file name: TYPE OFFSET SIZE of the section; fails without it
    elf_sections "$1" | awk -v name="$2" '$2 == name { print $3, $5, $6; found = 1; exit } END { exit !found }'
}
