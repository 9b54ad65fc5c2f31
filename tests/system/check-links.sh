#!/usr/bin/env bash
# Checks README.md's and docs/*.md's links as GitHub shows them: each link or image (Markdown inline or reference,
# HTML src/href) to a relative path must lead into the checkout, each #anchor into a .md file to a heading or HTML
# name/id there, named as GitHub does: lower case, spaces to '-', ASCII punctuation but '-_' dropped, a link reduced
# to its text, repeats given -1, -2, ... Code is skipped, %-escapes decoded, links with a scheme not checked.
# Prints each broken link and a summary; fails when one is broken or none is found.
#   tests/system/check-links.sh [DIR]    DIR: the checkout's top, by default this script's own checkout
set -euo pipefail; shopt -s nullglob
export LC_ALL=C.UTF-8 # bash lower-cases and decodes in UTF-8; awk works on bytes
cd "${1:-$(dirname "$0")/../..}"

# POSIX awk, as Debian's is mawk: anchors (ASCII lower-cased, not numbered; HTML's after "="), or "LINE<TAB>TARGET"s.
read -r -d '' scan <<'AWK' || true
function attr(v) { v = substr(v, RSTART, RLENGTH); sub(/^[a-z]*="/, "", v); sub(/"$/, "", v); return v }
function text(v) { v = substr(v, RSTART + 1, RLENGTH - 1); sub(/\]\(.*$/, "", v); return v } # a link's, in a heading
function target(t) { # <a path> may hold spaces; else a space ends it, before a title
    sub(/^[ \t]+/, "", t); if (t ~ /^</) { sub(/^</, "", t); sub(/>.*$/, "", t) } else sub(/[ \t].*$/, "", t)
    if (t != "") print FNR "\t" t
}
fence != "" { if ($0 ~ "^ ? ? ?" fence) fence = ""; blank = 0; next }
match($0, /^ ? ? ?(```|~~~)/) { fence = substr($0, RSTART + RLENGTH - 3, 3); blank = 0; next }
/^(    |\t)/ && (blank || indented) { indented = 1; next }
{ indented = 0; blank = $0 ~ /^[ \t]*$/; s = $0 }
mode == "anchors" && /^ ? ? ?#+([ \t]|$)/ {
    sub(/^ *#+/, "", s); sub(/[ \t]+#+[ \t]*$/, "", s); sub(/^[ \t]+/, "", s); sub(/[ \t]+$/, "", s)
    while (match(s, /\[[^]]*\]\([^)]*\)/)) s = substr(s, 1, RSTART - 1) text(s) substr(s, RSTART + RLENGTH)
    s = tolower(s); gsub(/[!-,.\/:-@[-^`{-~]/, "", s); gsub(/ /, "-", s); print s; s = $0
}
mode == "anchors" { for (; match(s, /(name|id)="[^"]*"/); s = substr(s, RSTART + RLENGTH)) print "=" attr(s); next }
{ gsub(/`[^`]*`/, "", s) }
s ~ /^ ? ? ?\[[^]]+\]:[ \t]/ { sub(/^ *\[[^]]+\]:/, "", s); target(s); next }
{ for (r = s; match(r, /\]\([^)]*\)/); r = substr(r, RSTART + RLENGTH)) target(substr(r, RSTART + 2, RLENGTH - 3)) }
{ for (r = s; match(r, /(src|href)="[^"]*"/); r = substr(r, RSTART + RLENGTH)) target(attr(r)) }
AWK

declare -A anchors=() # "FILE#ANCHOR", and "FILE" once its anchors are in
load_anchors() {
    local a n; local -A seen=()
    [ -z "${anchors[$1]:-}" ] || return 0; anchors[$1]=1
    while IFS= read -r a; do
        if [[ $a == =* ]]; then anchors["$1#${a#=}"]=1; continue; fi
        a=${a,,} n=${seen[":$a"]:-} # empty the first time; then -1, -2, ... (":": a heading of punctuation is "")
        seen[":$a"]=$((${n:--1} + 1))
        anchors["$1#$a${n:+-${seen[":$a"]}}"]=1
    done < <(LC_ALL=C awk -v mode=anchors "$scan" "$1")
}
decode() { local s=${1//\\/\\\\}; printf '%b' "${s//%/\\x}"; } # %-escapes, as a browser decodes them

files=(README.md docs/*.md)
checked=0 external=0 broken=0
bad() { echo "check-links: $file:$line: ($link) $1" >&2; broken=$((broken + 1)); }
for file in "${files[@]}"; do
    [ -f "$file" ] || { echo "check-links: $file is missing" >&2; exit 1; }
    while IFS=$'\t' read -r line link; do
        if [[ $link =~ ^[A-Za-z][A-Za-z0-9+.-]*: ]]; then external=$((external + 1)); continue; fi
        checked=$((checked + 1)) fragment= path=$(decode "${link%%#*}")
        [[ $link != *'#'* ]] || fragment=$(decode "${link#*#}")
        # GitHub takes /path from the repository's top.
        case $path in "") resolved=$file ;; /*) resolved=./${path#/} ;; *) resolved=$(dirname "$file")/$path ;; esac
        resolved=$(realpath -ms --relative-to=. -- "$resolved")
        if [[ $resolved == .. || $resolved == ../* ]]; then bad "leads outside the checkout"
        elif [ ! -e "$resolved" ]; then bad "no such file: $resolved"
        elif [ -n "$fragment" ] && [[ $resolved == *.md ]] && [ -f "$resolved" ]; then
            load_anchors "$resolved"
            [ -n "${anchors[$resolved#$fragment]:-}" ] || bad "no heading with anchor #$fragment in $resolved"
        elif [ -z "$path" ] && [ -z "$fragment" ]; then bad "empty link"
        fi
    done < <(LC_ALL=C awk -v mode=links "$scan" "$file")
done

note= in="in ${#files[@]} files"
[ "$external" -eq 0 ] || note=" ($external external, not checked)"
[ "$broken" -eq 0 ] || { echo "check-links: $broken of $checked links $in do not resolve$note" >&2; exit 1; }
[ "$checked" -gt 0 ] || { echo "check-links: no links found $in" >&2; exit 1; }
echo "check-links: $checked links $in, all resolve$note"
