#!/bin/bash
# Compares a backup of an export of qemu-nbd over a Unix socket with `nbdcopy` of the same export, as whole processes in the
# same run, page cache warm: nbdcopy to a file and to nothing, the backup without and with compression. A ratio above 1 says
# that the backup is faster than nbdcopy to a file.
#
# The disk is a qcow2 image: a third of it noise, a third text, a third never written. DISKSTREAM_BENCH_DIR takes some 3
# times its size (else /dev/shm, or /tmp); DISKSTREAM_BENCH_NBD_MIB is the disk's size (1536), DISKSTREAM_BENCH_RUNS how often
# each is run (5).
set -euo pipefail

command=$(realpath "${1:?usage: bench/compare-nbd.sh COMMAND}")
mib=${DISKSTREAM_BENCH_NBD_MIB:-1536}
runs=${DISKSTREAM_BENCH_RUNS:-5}

base=${DISKSTREAM_BENCH_DIR:-}
if [ -z "$base" ]; then
    base=/tmp
    [ "$(df --output=avail -BM /dev/shm | tail -n 1 | tr -dc 0-9)" -ge $((mib * 3)) ] && base=/dev/shm
fi
dir=$(mktemp -d "$base/diskstream-nbd.XXXXXX")
server=
trap '[ -z "$server" ] || kill "$server"; rm -rf "$dir"' EXIT
cd "$dir"

make_disk() {
    local third=$((mib / 3))
    { head -c "${third}M" /dev/urandom; (seq 1 999999999 || true) | head -c "${third}M"; } >disk.raw
    truncate -s "${mib}M" disk.raw
    qemu-img convert -f raw -O qcow2 disk.raw disk.qcow2
    rm disk.raw
}

seconds_of() {
    local figures
    figures=$(/usr/bin/time -f '%e' "$@" 2>&1 >/dev/null | tail -n 1)
    echo "$figures"
}

median() { printf '%s\n' "$@" | sort -n | sed -n "$((($# + 1) / 2))p"; }

make_disk
qemu-nbd -r -t -e 8 -f qcow2 -k "$dir/socket" disk.qcow2 &
server=$!
for _ in $(seq 100); do [ -S socket ] && break; sleep 0.1; done
uri="nbd+unix:///?socket=$dir/socket"

nothing=() file=() plain=() packed=()
for _ in $(seq "$runs"); do
    nothing+=("$(seconds_of nbdcopy "$uri" null:)")
    file+=("$(seconds_of nbdcopy "$uri" copy.raw)")
    rm copy.raw
    plain+=("$(seconds_of "$command" backup -q --compression none "$uri" plain.dset)")
    rm plain.dset
    packed+=("$(seconds_of "$command" backup -q "$uri" packed.dset)")
    rm packed.dset
done
awk -v mib="$mib" -v nothing="$(median "${nothing[@]}")" -v file="$(median "${file[@]}")" \
    -v plain="$(median "${plain[@]}")" -v packed="$(median "${packed[@]}")" '
    BEGIN {
        printf "export of %d MiB, two thirds of it with data\n", mib
        printf "%-28s %6.2f s\n", "nbdcopy to nothing", nothing
        printf "%-28s %6.2f s\n", "nbdcopy to a file", file
        printf "%-28s %6.2f s   %5.2f of nbdcopy to a file\n", "backup --compression none", plain, file / plain
        printf "%-28s %6.2f s   %5.2f of nbdcopy to a file\n", "backup", packed, file / packed
    }'
