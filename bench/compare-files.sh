#!/bin/bash
# Compares reading an NTFS volume by the command with other programs doing the same, as whole processes in the same run,
# page cache warm:
#   listing 100 000 files with whole paths, sizes and times    against fls, 7z, and find on the FUSE mount
#   a plain and a compressed file of 256 MiB                   against icat, ntfscat, cat on the mount, and dd of the same
#                                                              bytes in a file
#   copying 10 000 small files                                 against cp from the mount
# A ratio above 1 says that the command is faster. Needs root and /dev/fuse.
#
# DISKSTREAM_BENCH_DIR takes some 3 GiB (else /dev/shm, or /tmp); DISKSTREAM_BENCH_FILES is the number of files
# (100000), DISKSTREAM_BENCH_RUNS how often each is run (3).
set -euo pipefail

command=$(realpath "${1:?usage: bench/compare-files.sh COMMAND}")
files=${DISKSTREAM_BENCH_FILES:-100000}
runs=${DISKSTREAM_BENCH_RUNS:-3}
file_mib=256

if [ "$(id -u)" -ne 0 ] || [ ! -w /dev/fuse ]; then
    echo "compare-files.sh: mounting needs root and /dev/fuse: left out"
    exit 0
fi

base=${DISKSTREAM_BENCH_DIR:-}
if [ -z "$base" ]; then
    base=/tmp
    [ "$(df --output=avail -B1G /dev/shm | tail -n 1)" -ge 4 ] && base=/dev/shm
fi
dir=$(mktemp -d "$base/diskstream-files.XXXXXX")
driver=
unmount() {
    [ -n "$driver" ] || return 0
    fusermount -u "$dir/mount"
    wait "$driver" || true
    driver=
}
trap 'cd /; unmount; rm -rf "$dir"' EXIT
cd "$dir"
mkdir mount

# mount_volume OPTIONS: in the foreground, so that the driver's end, and with it its last write, can be waited for.
mount_volume() {
    lowntfs-3g -o "no_detach,noatime,$1" volume.img mount >/dev/null 2>&1 &
    driver=$!
    until mountpoint -q mount; do
        kill -0 "$driver"
        sleep 0.05
    done
}

# A tenth of the files in a directory of its own, the others in a tree of 256 directories.
make_files() {
    perl -e '
        my ($files) = @ARGV;
        my $text = join(" ", map { sprintf "line %05d", $_ * 7919 % 99991 } 1 .. 400);
        sub put {
            my ($path, $number) = @_;
            open my $file, ">:raw", $path or die "$path: $!";
            print $file substr($text, $number % 100, 200 + $number * 37 % 3500) or die;
            close $file or die;
        }
        mkdir "small" or die;
        mkdir "tree" or die;
        for my $folder (0 .. 255) {
            mkdir sprintf("tree/%x", $folder >> 4);
            mkdir sprintf("tree/%x/%x", $folder >> 4, $folder & 15) or die;
        }
        put(sprintf("small/document %d.txt", $_), $_) for 1 .. $files / 10;
        put(sprintf("tree/%x/%x/document %d.txt", $_ >> 4 & 15, $_ & 15, $_), $_) for 1 .. $files * 9 / 10;
    ' "$files"
}

make_volume() {
    truncate -s 2G volume.img
    mkntfs -F -Q -q volume.img >/dev/null 2>&1
    mount_volume compression,big_writes
    head -c "${file_mib}M" /dev/urandom >plain
    cp plain mount/plain
    mkdir mount/packed
    setfattr -n system.ntfs_attrib_be -v 0x00000800 mount/packed
    # Half of it repeats, half of it is a ledger of numbers.
    perl -e '
        my ($mib) = @ARGV;
        for my $block (1 .. $mib * 16) {
            print "a" x 32768, substr(join(";", map { $block * 7919 * $_ % 1000003 } 1 .. 6000), 0, 32768) or die;
        }
    ' "$file_mib" >mount/packed/file
    (cd mount && make_files)
    unmount
}

microseconds_of() {
    local start=${EPOCHREALTIME/./}
    if ! bash -c "$1" >/dev/null 2>errors; then
        echo "compare-files.sh: $1 failed:" >&2
        cat errors >&2
        return 1
    fi
    echo $((${EPOCHREALTIME/./} - start))
}

median() { printf '%s\n' "$@" | sort -n | sed -n "$((($# + 1) / 2))p"; }

# race TITLE OURS PEER...: command lines, which alternate. `after` is run behind each.
after=true
race() {
    local title=$1 ours="" line taken times
    shift
    local -A all=()
    for _ in $(seq "$runs"); do
        for line in "$@"; do
            all[$line]+=" $(microseconds_of "$line")"
            $after
        done
    done
    echo "$title"
    for line in "$@"; do
        read -ra times <<<"${all[$line]}"
        taken=$(median "${times[@]}")
        ours=${ours:-$taken}
        awk -v line="${line//$command/diskstream}" -v taken="$taken" -v ours="$ours" '
            BEGIN { printf "  %-72s %8.3f s %8.2f\n", line, taken / 1e6, taken / ours }'
    done
}

make_volume
mount_volume ro
cat volume.img >/dev/null
volume="volume.img --volume Volume1"
printf 'an NTFS volume of %s files in %s, median of %s runs on %s processors\n' "$files" "$base" "$runs" "$(nproc)"

race "listing $files files" "$command ls $volume -r -l" 'fls -r -m / volume.img' 'fls -r -p volume.img' \
    '7z l volume.img' 'find mount -ls'
race "a plain file of $file_mib MiB" "$command cat $volume plain" "dd if=plain bs=1M status=none" \
    "icat volume.img $(stat -c %i mount/plain)" 'ntfscat -f volume.img plain' 'cat mount/plain'
race "a compressed file of $file_mib MiB" "$command cat $volume packed/file" \
    "icat volume.img $(stat -c %i mount/packed/file)" 'ntfscat -f volume.img packed/file' 'cat mount/packed/file'
after='rm -rf copy'
race "copying $((files / 10)) small files" "$command cp -q -r $volume small copy" 'cp -r mount/small copy'
