#!/usr/bin/env bash
# Installs the Debian packages Tavelin needs, when they are missing. As root it
# runs apt-get; otherwise it prints the one command to run and stops.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
mapfile -t wanted < <(grep -v -E '^\s*(#|$)' "$here/debian-packages.txt")
missing=()
for pkg in "${wanted[@]}"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
done
[ ${#missing[@]} -eq 0 ] && exit 0
if [ "$(id -u)" -ne 0 ]; then
    echo "Missing Debian packages. Install them with:"
    echo "  sudo apt-get install -y ${missing[*]}"
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
apt-get update
apt-get install -y --no-install-recommends "${missing[@]}"
