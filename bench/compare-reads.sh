#!/bin/bash
# Compares reading whole disks by the command with `dd` of the raw disk and with `qemu-img convert` of the same image to
# nothing, as whole processes in the same run, page cache warm:
#   a dynamic VHD, a sparse VMDK, a chain of three VMDKs, and the one NTFS partition of the VMDK
# and, with `dd` alone, a striped and a RAID-5 volume on three dynamic disks, the latter with all disks and without one.
# A ratio above 1 says that the command is faster. And the processor time that the lists of partitions and volumes take.
#
# DISKSTREAM_BENCH_DIR takes some 5 times the disk's size (else /dev/shm, or /tmp); DISKSTREAM_BENCH_READ_GIB is the
# disk's size (2), DISKSTREAM_BENCH_RUNS how often each is run (5).
set -euo pipefail

command=$(realpath "${1:?usage: bench/compare-reads.sh COMMAND MAKE_DYNAMIC_DISKS}")
make_dynamic_disks=$(realpath "${2:?usage: bench/compare-reads.sh COMMAND MAKE_DYNAMIC_DISKS}")
gib=${DISKSTREAM_BENCH_READ_GIB:-2}
runs=${DISKSTREAM_BENCH_RUNS:-5}

base=${DISKSTREAM_BENCH_DIR:-}
if [ -z "$base" ]; then
    base=/tmp
    [ "$(df --output=avail -B1G /dev/shm | tail -n 1)" -ge $((gib * 5 + 1)) ] && base=/dev/shm
fi
dir=$(mktemp -d "$base/diskstream-reads.XXXXXX")
trap 'rm -rf "$dir"' EXIT
cd "$dir"

# add_link PARENT CHILD FIRST: every sixteenth MiB from FIRST on comes from the child. A parent that is written to is
# another disk to its children, so each link is made when the one below is done.
add_link() {
    local mib
    qemu-img create -q -f vmdk -b "$1" -F vmdk "$2"
    for mib in $(seq "$3" 16 $((gib * 1024 - 1))); do echo "write -P 77 ${mib}M 1M"; done | qemu-io -f vmdk "$2" >/dev/null
}

make_images() {
    head -c "${gib}G" /dev/urandom >disk.raw
    echo '2048,,7' | sfdisk -q disk.raw
    qemu-img convert -f raw -O vpc -o force_size=on disk.raw disk.vhd
    qemu-img convert -f raw -O vmdk -o subformat=monolithicSparse disk.raw base.vmdk
    add_link base.vmdk middle.vmdk 3
    add_link middle.vmdk newest.vmdk 9
}

seconds_of() {
    local figures
    figures=$(/usr/bin/time -f '%e' "$@" 2>&1 >/dev/null | tail -n 1)
    echo "$figures"
}

median() { printf '%s\n' "$@" | sort -n | sed -n "$((($# + 1) / 2))p"; }

# compare NAME FORMAT IMAGE ARGUMENTS...: the three alternate.
compare() {
    local name=$1 format=$2 image=$3 ours=() dd=() qemu=()
    shift 3
    for _ in $(seq "$runs"); do
        dd+=("$(seconds_of dd if=disk.raw of=/dev/null bs=1M status=none)")
        ours+=("$(seconds_of "$command" read -q "$image" "$@")")
        qemu+=("$(seconds_of qemu-img convert -n -f "$format" --target-image-opts "$image" "driver=null-co,size=${gib}G")")
    done
    awk -v name="$name" -v ours="$(median "${ours[@]}")" -v dd="$(median "${dd[@]}")" -v qemu="$(median "${qemu[@]}")" '
        BEGIN { printf "%-16s %8.2f s %8.2f s %8.2f s   %5.2f of dd, %5.2f of qemu-img\n", name, ours, dd, qemu, dd / ours, qemu / ours }'
}

# compare_with_dd NAME VOLUME DISKS...
compare_with_dd() {
    local name=$1 volume=$2 ours=() dd=()
    shift 2
    for _ in $(seq "$runs"); do
        dd+=("$(seconds_of dd if=disk.raw of=/dev/null bs=1M status=none)")
        ours+=("$(seconds_of "$command" read -q "$@" --volume "$volume")")
    done
    awk -v name="$name" -v ours="$(median "${ours[@]}")" -v dd="$(median "${dd[@]}")" '
        BEGIN { printf "%-16s %8.2f s %8.2f s %10s   %5.2f of dd\n", name, ours, dd, "", dd / ours }'
}

processor_time() {
    local figures
    figures=$(/usr/bin/time -f '%U %S' "$command" "$@" 2>&1 >/dev/null | tail -n 1)
    awk -v name="$*" '{ printf "%-28s %.0f ms of processor time\n", name, ($1 + $2) * 1000 }' <<<"$figures"
}

make_images
cat disk.raw disk.vhd ./*.vmdk >/dev/null
printf 'a disk of %s GiB in %s, median of %s runs on %s processors\n' "$gib" "$base" "$runs" "$(nproc)"
printf '%-16s %10s %10s %10s\n' '' diskstream dd qemu-img
compare 'dynamic VHD' vpc disk.vhd
compare 'sparse VMDK' vmdk base.vmdk
compare 'chain of three' vmdk newest.vmdk
compare 'NTFS partition' vmdk base.vmdk --volume Volume1
processor_time partitions base.vmdk
processor_time volumes newest.vmdk
processor_time volumes disk.vhd

rm disk.vhd ./*.vmdk
TMPDIR=$dir "$make_dynamic_disks" . $((gib * 1024))
cat disk1 disk2 disk3 >/dev/null
compare_with_dd 'striped' Volume1 disk1 disk2 disk3
compare_with_dd 'RAID-5' Volume2 disk1 disk2 disk3
compare_with_dd 'RAID-5 by parity' Volume2 disk1 disk3
processor_time volumes disk1 disk2 disk3
