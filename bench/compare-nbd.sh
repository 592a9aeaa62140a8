#!/bin/bash
# Compares backups of an export of qemu-nbd over a Unix socket, and restores into one, with `nbdcopy` of the same export, as
# whole processes in the same run, page cache warm: nbdcopy to a file, to nothing and back, the backup without and with
# compression, the restore of the one without. A ratio above 1 says that diskstream is faster.
#
# The disk is a qcow2 image: a third of it noise, a third text, a third never written. DISKSTREAM_BENCH_DIR takes some 4
# times its size (else /dev/shm, or /tmp); DISKSTREAM_BENCH_NBD_MIB is the disk's size (1536), DISKSTREAM_BENCH_RUNS how often
# each is run (5).
set -euo pipefail

command=$(realpath "${1:?usage: bench/compare-nbd.sh COMMAND}")
mib=${DISKSTREAM_BENCH_NBD_MIB:-1536}
runs=${DISKSTREAM_BENCH_RUNS:-5}

base=${DISKSTREAM_BENCH_DIR:-}
if [ -z "$base" ]; then
    base=/tmp
    [ "$(df --output=avail -BM /dev/shm | tail -n 1 | tr -dc 0-9)" -ge $((mib * 4)) ] && base=/dev/shm
fi
dir=$(mktemp -d "$base/diskstream-nbd.XXXXXX")
servers=()
trap '[ ${#servers[@]} -eq 0 ] || kill "${servers[@]}"; rm -rf "$dir"' EXIT
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

uri_of() { echo "nbd+unix:///?socket=$dir/$1"; }

# serve SOCKET ARGUMENT... has qemu-nbd export an image.
serve() {
    qemu-nbd -t -e 8 -k "$dir/$1" "${@:2}" &
    servers+=($!)
    for _ in $(seq 100); do [ -S "$1" ] && return; sleep 0.1; done
}

make_disk
serve source -r -f qcow2 disk.qcow2
truncate -s "${mib}M" target.raw
serve target -f raw target.raw
source=$(uri_of source) target=$(uri_of target)

nothing=() file=() plain=() packed=() back=() restored=()
for _ in $(seq "$runs"); do
    rm -f copy.raw plain.dset packed.dset
    nothing+=("$(seconds_of nbdcopy "$source" null:)")
    file+=("$(seconds_of nbdcopy "$source" copy.raw)")
    plain+=("$(seconds_of "$command" backup -q --compression none "$source" plain.dset)")
    packed+=("$(seconds_of "$command" backup -q "$source" packed.dset)")
    rm packed.dset
    back+=("$(seconds_of nbdcopy --flush copy.raw "$target")")
    restored+=("$(seconds_of "$command" restore -q --force plain.dset "$target")")
    cmp copy.raw target.raw
done

row() { awk -v name="$1" -v seconds="$2" 'BEGIN { printf "%-28s %6.2f s\n", name, seconds }'; }
row_against() {
    awk -v name="$1" -v seconds="$2" -v peer="$3" -v peer_name="$4" \
        'BEGIN { printf "%-28s %6.2f s   %5.2f of %s\n", name, seconds, peer / seconds, peer_name }'
}
echo "export of $mib MiB, two thirds of it with data"
row "nbdcopy to nothing" "$(median "${nothing[@]}")"
row "nbdcopy to a file" "$(median "${file[@]}")"
row_against "backup --compression none" "$(median "${plain[@]}")" "$(median "${file[@]}")" "nbdcopy to a file"
row_against "backup" "$(median "${packed[@]}")" "$(median "${file[@]}")" "nbdcopy to a file"
row "nbdcopy of a file" "$(median "${back[@]}")"
row_against "restore" "$(median "${restored[@]}")" "$(median "${back[@]}")" "nbdcopy of a file"
