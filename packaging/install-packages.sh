#!/bin/bash
# Installs those of the Debian packages needed that are missing. Usage: install-packages.sh PURPOSE...
# Written for Debian 12; says nothing when everything is there.
set -euo pipefail

packages_for() {
    case $1 in
    build) echo cmake ninja-build g++ pkg-config libcli11-dev nlohmann-json3-dev libsqlite3-dev libzstd-dev libxxhash-dev libnbd-dev ;;
    test) echo libgtest-dev libgmock-dev qemu-utils qemu-system-common nbdkit xz-utils e2fsprogs fdisk gdisk ntfs-3g libvhdi-utils lvm2 ldmtool sleuthkit libxml2-utils ;;
    demo) echo qemu-utils xz-utils ;;
    bench) echo libbenchmark-dev libnbd-bin qemu-utils time fdisk ntfs-3g sleuthkit p7zip-full attr restic borgbackup ;;
    windows) echo cmake ninja-build g++-mingw-w64-x86-64-posix googletest ;;
    wine) echo wine wine64 ;;
    x86) echo cmake ninja-build g++ g++-multilib googletest ;;
    fuzz) echo clang-14 libclang-rt-14-dev ;;
    lint) echo git clang-tidy-14 clang-format-14 ;;
    coverage) echo gcovr ;;
    # Several presets compile the same sources one after the other, and CI again after every change.
    ci) echo git ccache ;;
    *)
        echo "install-packages.sh: no such purpose: $1" >&2
        return 2
        ;;
    esac
}

installed() {
    [ "$(dpkg-query -W -f='${db:Status-Status}' "$1" 2>/dev/null)" = installed ]
}

as_root() {
    if [ "$(id -u)" -eq 0 ]; then
        "$@"
    else
        sudo "$@"
    fi
}

wanted=""
for purpose in "$@"; do
    packages=$(packages_for "$purpose")
    wanted="$wanted $packages"
done

missing=()
for package in $(tr ' ' '\n' <<<"$wanted" | sort -u); do
    installed "$package" || missing+=("$package")
done
[ ${#missing[@]} -gt 0 ] || exit 0

if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
    echo "These packages are missing, and neither root nor sudo is at hand to install them:" >&2
    echo "    apt-get install ${missing[*]}" >&2
    exit 1
fi
echo "Installing ${missing[*]}"
as_root apt-get update -qq
as_root env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
