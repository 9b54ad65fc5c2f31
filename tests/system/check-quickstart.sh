#!/usr/bin/env bash
# Runs the README's quick start as a newcomer types it: each command indented
# under "## Quick start" in README.md, in order, from the checkout's top. Fails
# when one fails, or when the demo's screenshot is missing or blank.
set -euo pipefail
cd "$(dirname "$0")/../.."
# shellcheck source=../../packaging/tavelin-lib.sh
. "$(dirname "$0")/../../packaging/tavelin-lib.sh"
# As on CI and a fresh server: no display, so the demo leaves a screenshot.
unset DISPLAY WAYLAND_DISPLAY

# The indented lines of the section, up to the next heading.
mapfile -t commands < <(awk '/^## /{ inside = ($0 ~ /^## Quick start/) } inside && /^    [^ ]/ { sub(/^    /, ""); print }' README.md)
[ ${#commands[@]} -ge 2 ] || die "README.md's Quick start shows ${#commands[@]} commands, not two"

log=$(mktemp)
trap 'rm -f "$log"' EXIT
for command in "${commands[@]}"; do
    echo "check-quickstart: \$ $command"
    started=$SECONDS
    bash -c "$command" 2>&1 | tee "$log" || die "\"$command\" failed (exit ${PIPESTATUS[0]})"
    echo "check-quickstart: \"$command\" passed in $((SECONDS - started)) s"
    # The demo says where its screenshot went when there is no display.
    shot=$(sed -n 's/.*Screenshot saved to //p' "$log" | tail -n 1)
    [ -z "$shot" ] || check_shot=$shot
done

[ -n "${check_shot:-}" ] || die "no command of the quick start saved a screenshot"
[ -s "$check_shot" ] || die "the screenshot $check_shot is missing or empty"
colours=$(identify -format '%k' "$check_shot")
size=$(identify -format '%wx%h' "$check_shot")
[ "$colours" -gt 1 ] || die "the screenshot $check_shot is blank: one colour, $size"
echo "check-quickstart: the screenshot $check_shot is $size with $colours colours"
