#!/bin/bash
# Compares the command, as whole processes, with `qemu-img convert` doing the same work on the same image in the same
# run, page cache warm:
#   backup    sparse VMDK -> backup set         against  sparse VMDK -> qcow2
#   restore   backup set  -> sparse VMDK        against  qcow2 -> sparse VMDK
# uncompressed against uncompressed, zstd against zstd. A ratio above 1 says that the command is faster. The peer's
# caches are in writeback mode, so that both have their result on the medium before they end.
#
# DISKSTREAM_BENCH_DIR takes some 20 GiB (else /dev/shm, where no disk stands between the two, or /tmp);
# DISKSTREAM_BENCH_GIB is the disk's size (4), DISKSTREAM_BENCH_RUNS how often each is run (3).
set -euo pipefail

command=$(realpath "${1:?usage: bench/compare.sh COMMAND}")
gib=${DISKSTREAM_BENCH_GIB:-4}
runs=${DISKSTREAM_BENCH_RUNS:-3}

enough_room() { [ "$(df --output=avail -B1G "$1" | tail -n 1)" -ge $((gib * 5 / 2 + 1)) ]; }

base=${DISKSTREAM_BENCH_DIR:-}
if [ -z "$base" ]; then
    base=/tmp
    enough_room /dev/shm && base=/dev/shm
fi
dir=$(mktemp -d "$base/diskstream-compare.XXXXXX")
trap 'rm -rf "$dir"' EXIT
cd "$dir"

# Every second grain of 64 KiB holds data: one half of it noise, the other half text.
make_image() {
    perl -e '
        my ($gib) = @ARGV;
        open my $noise, "<:raw", "/dev/urandom" or die;
        read($noise, my $pool, 16 << 20) == 16 << 20 or die;
        my $text = substr(join(" ", map { sprintf "record %06d of the ledger;", $_ * 7919 % 999983 } 1 .. 2000), 0, 32768);
        open my $raw, ">:raw", "disk.raw" or die;
        truncate $raw, $gib << 30;
        for (my $grain = 0; $grain < $gib << 14; $grain += 2) {
            seek $raw, $grain << 16, 0;
            my $head = pack "Q", $grain;
            print $raw $head, substr($pool, int(rand((16 << 20) - 32768)), 32760), $text or die;
        }
        close $raw or die;
    ' "$gib"
    qemu-img convert -O vmdk -o subformat=monolithicSparse disk.raw disk.vmdk
    rm disk.raw
    cat disk.vmdk >/dev/null
}

# Runs a command line and leaves its seconds and its peak memory in KiB in `seconds` and `memory`.
measure() {
    local figures
    figures=$(/usr/bin/time -f '%e %M' "$@" 2>&1 >/dev/null | tail -n 1)
    read -r seconds memory <<<"$figures"
}

median() { printf '%s\n' "$@" | sort -n | sed -n "$((($# + 1) / 2))p"; }

# compare NAME OUTPUT OURS... -- PEER...: alternates the two, each onto a fresh OUTPUT.
compare() {
    local name=$1 output=$2 ours=() peer=() our_times=() peer_times=() our_memory=0
    shift 2
    while [ "$1" != -- ]; do ours+=("$1"); shift; done
    shift
    peer=("$@")
    for _ in $(seq "$runs"); do
        rm -f "$output"
        measure "${peer[@]}"
        peer_times+=("$seconds")
        rm -f "$output"
        measure "${ours[@]}"
        our_times+=("$seconds")
        [ "$memory" -gt "$our_memory" ] && our_memory=$memory
    done
    rm -f "$output"
    awk -v name="$name" -v ours="$(median "${our_times[@]}")" -v peer="$(median "${peer_times[@]}")" \
        -v memory="$our_memory" 'BEGIN {
            printf "%-24s %8.2f s %8.2f s   ratio %5.2f   peak memory %5.1f MiB\n", name, ours, peer, peer / ours, memory / 1024
        }'
}

make_image
printf 'a sparse VMDK of %s GiB, half full, in %s, median of %s runs on %s processors\n' "$gib" "$base" "$runs" "$(nproc)"
printf '%-24s %10s %10s\n' '' diskstream qemu-img

peer=(qemu-img convert -t writeback)
compare 'backup, uncompressed' out "$command" backup -q --compression none disk.vmdk out -- \
    "${peer[@]}" -O qcow2 disk.vmdk out
compare 'backup, zstd' out "$command" backup -q disk.vmdk out -- \
    "${peer[@]}" -c -O qcow2 -o compression_type=zstd disk.vmdk out

"$command" backup -q --compression none disk.vmdk plain.dset
qemu-img convert -O qcow2 disk.vmdk plain.qcow2
rm disk.vmdk
compare 'restore, uncompressed' out "$command" restore -q plain.dset out -- \
    "${peer[@]}" -O vmdk -o subformat=monolithicSparse plain.qcow2 out
"$command" restore -q plain.dset disk.vmdk
rm plain.dset plain.qcow2
"$command" backup -q disk.vmdk zstd.dset
qemu-img convert -c -O qcow2 -o compression_type=zstd disk.vmdk zstd.qcow2
rm disk.vmdk
compare 'restore, zstd' out "$command" restore -q zstd.dset out -- \
    "${peer[@]}" -O vmdk -o subformat=monolithicSparse zstd.qcow2 out
