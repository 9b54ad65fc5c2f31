# Sourced by the bundle scripts: which machines we build for, running a
# command in a build root, and cross-building there for another machine.
bundle_top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=../packaging/tavelin-lib.sh
. "$bundle_top/packaging/tavelin-lib.sh"

# Debian's architecture for a machine as uname -m names it; empty for one we
# make nothing for.
debian_arch() { # machine
    awk -v machine="$1" '$1 == machine { print $2 }' "$bundle_top/bundle/machines.txt"
}
# The end of the machine's name in readelf -h.
elf_machine() { # machine
    awk -v machine="$1" '$1 == machine { print $3 }' "$bundle_top/bundle/machines.txt"
}
# The host's Debian 11 root: the wizard is built and gathered there, with the
# plugins it carries beyond qtbase's (the desktop's look, the input methods
# Chinese users type with besides qtbase's ibus and compose, Wayland), and
# the squasher is taken from it. One list for both, so neither makes the
# root afresh for the other.
wizard_plugin_packages=(qt5-gtk-platformtheme fcitx5-frontend-qt5 fcitx-frontend-qt5 qtwayland5)
host_root_packages=(g++ make cmake qtbase5-dev qtbase5-dev-tools patchelf binutils icu-devtools squashfs-tools
                    "${wizard_plugin_packages[@]}")
machines() {
    awk '/^[a-z]/ { printf "%s%s", sep, $1; sep = " and " } END { print "" }' "$bundle_top/bundle/machines.txt"
}

# In a mount namespace of its own, so /proc and /dev leave with it.
in_root() { # root command...
    local root=$1
    shift
    unshare -m -- sh -c 'mount -t proc proc "$0/proc" && mount --rbind /dev "$0/dev" && exec chroot "$0" "$@"' \
        "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 HOME=/root "$@"
}

# Another machine's programs are cross-built in a root of the host's
# architecture, with Debian's cross compiler for the machine's GNU triplet
# and the machine's own packages beside the host's (multiarch): as fast as a
# native build, where compiling under qemu took ten times as long.
cross_triplet() { # machine
    echo "$1-linux-gnu"
}
# Debian names cross compilers with dashes: g++-aarch64-linux-gnu, gcc-x86-64-linux-gnu.
cross_package() { # tool machine
    local triplet
    triplet=$(cross_triplet "$2")
    echo "$1-${triplet//_/-}"
}
write_toolchain() { # file machine: the CMake toolchain file for the cross compiler
    local triplet
    triplet=$(cross_triplet "$2")
    cat > "$1" <<TOOLCHAIN
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR $2)
set(CMAKE_C_COMPILER $triplet-gcc)
set(CMAKE_CXX_COMPILER $triplet-g++)
TOOLCHAIN
}
