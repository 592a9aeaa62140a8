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

script=compare-files.sh
command=$(realpath "${1:?usage: bench/compare-files.sh COMMAND}")
files=${DISKSTREAM_BENCH_FILES:-100000}
runs=${DISKSTREAM_BENCH_RUNS:-3}
file_mib=256
# shellcheck source=bench/support/ntfs-volume.sh
. "$(dirname "$(realpath "$0")")/support/ntfs-volume.sh"

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
    (cd mount && make_files "$files")
    unmount
}

shorten() { sed "s:$command:diskstream:g"; }

work_in 4
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
after() { rm -rf copy; }
race "copying $((files / 10)) small files" "$command cp -q -r $volume small copy" 'cp -r mount/small copy'
