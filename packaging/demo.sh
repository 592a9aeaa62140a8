#!/bin/bash
# Shows the main job on a real disk image: into a backup set, proved, and back. Usage: demo.sh COMMAND
# COMMAND is the built `diskstream`. Everything happens in a directory that is gone at the end.
set -euo pipefail

command=$(realpath -- "${1:?"Usage: demo.sh COMMAND"}")
top=$(realpath -- "$(dirname -- "$0")/..")
sample=${DISKSTREAM_SAMPLES_DIR:-$top/../shared/samples}/vmdk/vmware-sparse-ntfs.tar.xz
directory=$(mktemp -d)
trap 'rm -rf -- "$directory"' EXIT
cd "$directory"

say() {
    printf '\n# %s\n' "$*"
}

run() {
    printf '$ %s\n' "$*"
    "$@"
}

diskstream() {
    "$command" "$@"
}

# Text at the beginning, bytes that can't be compressed in the middle, and room that was never written.
make_image() {
    (yes "This line was on the disk." || true) | head -c 4M >disk.raw
    head -c 4M /dev/urandom | dd of=disk.raw bs=1M seek=24 conv=notrunc status=none
    truncate -s 64M disk.raw
    qemu-img convert -f raw -O vmdk disk.raw disk.vmdk
    rm disk.raw
}

flip_bit_in_the_middle() {
    local at byte
    at=$(($(stat -c %s "$1") / 2))
    byte=$(od -An -tu1 -j "$at" -N 1 "$1")
    # shellcheck disable=SC2059 # the format is the byte
    printf "\\$(printf %o $((byte ^ 1)))" | dd of="$1" bs=1 seek="$at" conv=notrunc status=none
}

if [ -r "$sample" ] && command -v xz >/dev/null; then
    tar -xJf "$sample" -O --wildcards '*.vmdk' >disk.vmdk
    say "disk.vmdk was made by a hypervisor and holds a Windows volume. What is it?"
else
    make_image
    say "disk.vmdk was made by qemu-img: some text, some random bytes, the rest empty. What is it?"
fi
run diskstream info disk.vmdk

say "Back it up: one file, compressed, with a digest of every block."
run diskstream backup disk.vmdk monday.dset
run diskstream list monday.dset

say "Prove the set, and that the disk still holds the same."
run diskstream verify monday.dset --against disk.vmdk

say "In a copy of the set, flip one bit. The damage is found, and nothing damaged is restored."
cp monday.dset damaged.dset
flip_bit_in_the_middle damaged.dset
if run diskstream verify damaged.dset 2>&1; then
    echo "demo.sh: the damage was not found" >&2
    exit 1
fi
if run diskstream restore damaged.dset damaged.vmdk 2>&1 || [ -e damaged.vmdk ]; then
    echo "demo.sh: a damaged set was restored" >&2
    exit 1
fi

say "Restore the disk, and let another program compare."
run diskstream restore monday.dset restored.vmdk
run qemu-img compare disk.vmdk restored.vmdk
run cmp disk.vmdk restored.vmdk
echo "The files are the same too, byte for byte."

say "Or as a raw image, holes and all."
run diskstream restore --as raw monday.dset disk.raw
run qemu-img compare -f vmdk -F raw disk.vmdk disk.raw
run du -h --apparent-size disk.raw
run du -h disk.raw

say "Volumes are seen without an operating system's help. What is on the disk, and what does its first sector end with?"
run diskstream partitions disk.vmdk
run diskstream volumes disk.vmdk
echo '$ diskstream read disk.vmdk --length 512 | od -A d -t x1 | tail -n 3'
diskstream read disk.vmdk --quiet --length 512 | od -A d -t x1 | tail -n 3

if diskstream volumes disk.vmdk | grep -q ntfs; then
    say "Files are read straight from its NTFS volume: nothing is mounted."
    run diskstream ls -r -l disk.vmdk --volume Volume1
    first=$(diskstream ls disk.vmdk --volume Volume1 | grep -v '/$' | head -n 1)
    run diskstream security disk.vmdk --volume Volume1 "$first"
    run diskstream cp disk.vmdk --volume Volume1 "$first" .
    run ls -l "$first"

    say "With a catalogue in the set, the disk isn't needed for any of that."
    run diskstream backup --catalog disk.vmdk tuesday.dset
    mv disk.vmdk elsewhere
    run diskstream find tuesday.dset --name '*' --kind file -l
    rm -f -- "$first"
    run diskstream cp tuesday.dset "$first" .
    run ls -l "$first"
    mv elsewhere disk.vmdk
fi

# serve ARGUMENTS...: qemu-nbd in the background, until it is stopped.
serve() {
    rm -f socket
    qemu-nbd -t -k "$directory/socket" "$@" &
    server=$!
    for _ in $(seq 100); do [ -S socket ] && break; sleep 0.1; done
}

stop_serving() {
    kill "$server"
    wait "$server" || true
}

say "A hypervisor serves a disk over NBD, with a bitmap of what changes from now on. First a backup of all that it holds."
uri="nbd+unix:///?socket=$directory/socket"
qemu-img convert -f vmdk -O qcow2 disk.vmdk live.qcow2
qemu-img bitmap --add live.qcow2 wednesday
serve -f qcow2 -B wednesday live.qcow2
run diskstream backup "$uri" wednesday.dset
stop_serving

say "The machine writes 100 KiB. The next backup holds just the blocks that changed, and builds on the one before."
run qemu-io -f qcow2 -c "write -P 7 1M 100k" live.qcow2
serve -f qcow2 -B wednesday live.qcow2
run diskstream backup --changed-since wednesday --base wednesday.dset "$uri" thursday.dset
run diskstream verify thursday.dset --against "$uri"
stop_serving

say "Restored through both sets, it is the disk as it is now."
run diskstream restore thursday.dset thursday.raw
run qemu-img compare -f raw -F qcow2 thursday.raw live.qcow2
