#!/usr/bin/env bash
# Checks the links of README.md and docs/*.md as GitHub shows them: every
# Markdown link or image (inline, reference definition, or an HTML src/href)
# to a relative file must lead to a file or directory of the checkout, and
# every #anchor, in the same file or in another .md file, to a heading there.
# Anchors are made from headings as GitHub makes them: lower case, spaces to
# '-', ASCII punctuation dropped, other characters kept, and a repeated
# heading's anchor given -1, -2, ... Code blocks and code spans are skipped;
# %-escapes in a link are decoded.
# External links (http:, https:, mailto: and any other scheme) are not checked.
# Reads only; prints one summary line, each broken link before it, and exits
# 1 when any is broken.
#   tests/system/check-links.sh [DIR]    DIR: the checkout's top, by default
#                                        this script's own checkout
set -euo pipefail
shopt -s nullglob
# Bash lower-cases and decodes in UTF-8; awk works on bytes.
export LC_ALL=C.UTF-8
cd "${1:-$(dirname "$0")/../..}"

# One awk for both jobs, plain POSIX awk (Debian's default is mawk).
#   mode=anchors: one line per heading's anchor, not yet lower-cased beyond
#                 ASCII nor numbered; "=" and the anchor for an HTML one
#   mode=links:   one line per link target, "LINE<TAB>TARGET"
read -r -d '' scan <<'AWK' || true
BEGIN { punct = "!\"#$%&'()*+,./:;<=>?@[\\]^`{|}~" }
function slug(s,    out, i, c, t) {
    # A link in a heading keeps its text only.
    while (match(s, /\[[^]]*\]\([^)]*\)/)) {
        t = substr(s, RSTART + 1, RLENGTH - 1)
        sub(/\]\(.*$/, "", t)
        s = substr(s, 1, RSTART - 1) t substr(s, RSTART + RLENGTH)
    }
    s = tolower(s)                          # ASCII only; bash does the rest
    out = ""
    for (i = 1; i <= length(s); i++) {
        c = substr(s, i, 1)
        if (c == " ") out = out "-"
        else if (index(punct, c) == 0) out = out c
    }
    return out
}
function target(t) {
    sub(/^[ \t]+/, "", t)
    if (t ~ /^</) { sub(/^</, "", t); sub(/>.*$/, "", t) }
    else sub(/[ \t].*$/, "", t)
    if (t != "") print FNR "\t" t
}
{
    line = $0
    # Fenced code blocks, closed by the same fence character.
    if (fence != "") {
        if ((fence == "`" && line ~ /^ ? ? ?```/) || (fence == "~" && line ~ /^ ? ? ?~~~/)) fence = ""
        blank = 0
        next
    }
    if (line ~ /^ ? ? ?```/) { fence = "`"; blank = 0; next }
    if (line ~ /^ ? ? ?~~~/) { fence = "~"; blank = 0; next }
    # Indented code blocks: four spaces or a tab after a blank line.
    if (line ~ /^(    |\t)/ && (blank || indented)) { indented = 1; next }
    indented = 0
    blank = (line ~ /^[ \t]*$/)

    if (mode == "anchors") {
        if (line ~ /^ ? ? ?#+([ \t]|$)/) {
            text = line
            sub(/^ *#+/, "", text)
            sub(/[ \t]+#+[ \t]*$/, "", text)
            sub(/^[ \t]+/, "", text)
            sub(/[ \t]+$/, "", text)
            print slug(text)
        }
        # Anchors written as HTML.
        rest = line
        while (match(rest, /(name|id)="[^"]*"/)) {
            a = substr(rest, RSTART, RLENGTH); sub(/^[a-z]*="/, "", a); sub(/"$/, "", a)
            print "=" a
            rest = substr(rest, RSTART + RLENGTH)
        }
        next
    }

    gsub(/`[^`]*`/, "", line)               # code spans
    if (line ~ /^ ? ? ?\[[^]]+\]:[ \t]/) {  # [label]: target
        t = line; sub(/^ *\[[^]]+\]:/, "", t); target(t)
        next
    }
    rest = line
    while (match(rest, /\]\([^)]*\)/)) {    # [text](target) and ![alt](target)
        target(substr(rest, RSTART + 2, RLENGTH - 3))
        rest = substr(rest, RSTART + RLENGTH)
    }
    rest = line
    while (match(rest, /(src|href)="[^"]*"/)) {
        t = substr(rest, RSTART, RLENGTH); sub(/^[a-z]*="/, "", t); sub(/"$/, "", t)
        target(t)
        rest = substr(rest, RSTART + RLENGTH)
    }
}
AWK

declare -A anchors=() scanned=()
load_anchors() {
    local file=$1 a n
    local -A seen=()
    [ -z "${scanned[$file]:-}" ] || return 0
    scanned[$file]=1
    while IFS= read -r a; do
        if [[ $a == =* ]]; then anchors["$file#${a#=}"]=1; continue; fi
        a=${a,,}
        # A heading met again gets -1, the next -2, and so on.
        if [ -n "${seen[$a]:-}" ]; then
            n=$((${seen[$a]} + 1))
            seen[$a]=$n
            anchors["$file#$a-$n"]=1
        else
            seen[$a]=0
            anchors["$file#$a"]=1
        fi
    done < <(LC_ALL=C awk -v mode=anchors "$scan" "$file")
}
# %-escapes decoded, as a browser does.
decode() { local s=${1//\\/\\\\}; printf '%b' "${s//%/\\x}"; }

files=(README.md docs/*.md)
checked=0 external=0 broken=0
bad() { echo "check-links: $1:$2: ($3) $4" >&2; broken=$((broken + 1)); }
for file in "${files[@]}"; do
    [ -f "$file" ] || { echo "check-links: $file is missing" >&2; exit 1; }
    while IFS=$'\t' read -r line link; do
        if [[ $link =~ ^[A-Za-z][A-Za-z0-9+.-]*: ]]; then external=$((external + 1)); continue; fi
        checked=$((checked + 1))
        path=${link%%#*}
        fragment=
        [[ $link != *'#'* ]] || fragment=${link#*#}
        path=$(decode "$path")
        fragment=$(decode "$fragment")
        if [ -z "$path" ]; then
            resolved=$file
        elif [[ $path == /* ]]; then
            resolved=${path#/}                      # GitHub: from the repository's top
        else
            resolved=$(dirname "$file")/$path
        fi
        resolved=$(realpath -ms --relative-to=. -- "$resolved")
        if [[ $resolved == .. || $resolved == ../* ]]; then
            bad "$file" "$line" "$link" "leads outside the checkout"; continue
        fi
        if [ ! -e "$resolved" ]; then
            bad "$file" "$line" "$link" "no such file: $resolved"; continue
        fi
        if [ -n "$fragment" ] && [[ $resolved == *.md ]] && [ -f "$resolved" ]; then
            load_anchors "$resolved"
            [ -n "${anchors[$resolved#$fragment]:-}" ] ||
                bad "$file" "$line" "$link" "no heading with anchor #$fragment in $resolved"
        elif [ -z "$path" ] && [ -z "$fragment" ]; then
            bad "$file" "$line" "$link" "empty link"
        fi
    done < <(LC_ALL=C awk -v mode=links "$scan" "$file")
done

note=
[ "$external" -eq 0 ] || note=" ($external external, not checked)"
if [ "$broken" -gt 0 ]; then
    echo "check-links: $broken of $checked links in ${#files[@]} files do not resolve$note" >&2
    exit 1
fi
[ "$checked" -gt 0 ] || { echo "check-links: no links found in ${#files[@]} files" >&2; exit 1; }
echo "check-links: $checked links in ${#files[@]} files, all resolve$note"
