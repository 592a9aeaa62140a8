#!/bin/bash
# Times what makes a volume's metadata for later listing, and compares it with other programs as whole processes in the
# same run, page cache warm:
#   a directory tree of a million files                        files a second, the closing included
#   the scan alone, into a tree library that only counts       against dd of the MFT's extents
#   the whole collection from a volume of 100 000 files        against fls and tsk_loaddb
# A ratio above 1 says that the collection is faster. Needs root and /dev/fuse.
#
# DISKSTREAM_BENCH_DIR takes some 2 GiB (else /dev/shm, or /tmp); DISKSTREAM_BENCH_FILES is the number of files
# (100000), DISKSTREAM_BENCH_RUNS how often each is run (3).
set -euo pipefail

script=compare-catalog.sh
build=$(realpath "${1:?usage: bench/compare-catalog.sh BUILD_DIR}")
files=${DISKSTREAM_BENCH_FILES:-100000}
runs=${DISKSTREAM_BENCH_RUNS:-3}
tree_files=1000000
real="LD_LIBRARY_PATH=$build/tool $build/bench/metadata_bench"
counting="LD_LIBRARY_PATH=$build/bench/counting $build/bench/metadata_bench"
# shellcheck source=bench/support/ntfs-volume.sh
. "$(dirname "$(realpath "$0")")/support/ntfs-volume.sh"

make_volume() {
    truncate -s 1G volume.img
    mkntfs -F -Q -q volume.img >/dev/null 2>&1
    mount_volume big_writes
    (cd mount && make_files "$files")
    unmount
}

# The volume as the first partition of a flat disk, whose first MiB is a file of its own.
make_disk() {
    truncate -s "$((1024 * 1024 + $(stat -c %s volume.img)))" head.img
    echo '2048,,7' | sfdisk -q head.img
    truncate -s 1M head.img
    cat >disk.vmdk <<END
# Disk DescriptorFile
version=1
CID=fffffffe
parentCID=ffffffff
createType="twoGbMaxExtentFlat"
RW 2048 FLAT "head.img" 0
RW $(($(stat -c %s volume.img) / 512)) FLAT "volume.img" 0
END
}

# Collects once: it tells where the MFT lies, and has to have seen all files.
make_mft_reader() {
    local length start seen
    before
    eval "$counting collect disk.vmdk out" >/dev/null
    read -r seen _ <out/tree
    [ "$seen" -ge "$files" ] || {
        echo "$script: $seen of $files files were collected" >&2
        return 1
    }
    od -An -v -tu8 -w32 -j136 out/information | while read -r _ length start _; do
        echo "dd if=volume.img of=/dev/null bs=1M iflag=skip_bytes,count_bytes status=none" \
            "skip=$((start * 4096)) count=$((length * 4096))"
    done >read-mft
}

before() {
    rm -rf out tsk.db
    mkdir out
}
shorten() {
    sed "s:LD_LIBRARY_PATH=$build/bench/counting :(counting) :; s:LD_LIBRARY_PATH=[^ ]* ::; s:$build/bench/::
        s:^\. \./read-mft$:dd bs=1M, $(wc -l <read-mft) extents:"
}

time_tree() {
    local rates=()
    for _ in $(seq "$runs"); do
        before
        rates+=("$(eval "$real table $tree_files out/tree" | awk '{ print $(NF - 3) }')")
    done
    printf 'a directory tree of %s files\n  %s files a second\n' "$tree_files" "$(median "${rates[@]}")"
}

work_in 3
make_volume
make_disk
cat volume.img >/dev/null
make_mft_reader
printf 'an NTFS volume of %s files in %s, median of %s runs on %s processors\n' "$files" "$base" "$runs" "$(nproc)"

time_tree
race 'the scan alone' "$counting collect disk.vmdk out" '. ./read-mft'
race 'the whole collection' "$real collect disk.vmdk out" 'fls -r -m / volume.img' 'tsk_loaddb -d tsk.db volume.img'
