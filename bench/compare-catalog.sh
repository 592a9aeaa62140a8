#!/bin/bash
# Times what a catalogue of an NTFS volume takes, and what it gives, and compares it with other programs as whole
# processes in the same run, page cache warm:
#   a directory tree of a million files                        files a second, the closing included
#   the scan alone, into a tree library that only counts       against dd of the MFT's extents
#   the core's collection from a volume of 100 000 files       against fls and tsk_loaddb
#   what a backup with a catalogue takes longer than without   against fls and tsk_loaddb
#   listing directories of 200 and of 5 000 files from a set   in milliseconds
#   restoring 10 000 small files and one of 256 MiB from it    against restic restore and borg extract
# A ratio above 1 says that diskstream is faster. Needs root and /dev/fuse.
#
# DISKSTREAM_BENCH_DIR takes some 7 GiB (else /dev/shm, or /tmp); DISKSTREAM_BENCH_FILES is the number of files in the
# tree (85000), beside those that are listed and restored, DISKSTREAM_BENCH_RUNS how often each is run (3).
set -euo pipefail

script=compare-catalog.sh
build=$(realpath "${1:?usage: bench/compare-catalog.sh BUILD_DIR}")
files=${DISKSTREAM_BENCH_FILES:-85000}
runs=${DISKSTREAM_BENCH_RUNS:-3}
tree_files=1000000
small_files=10000
wide_files=5000
large_mib=256
command=$build/tool/diskstream
real="LD_LIBRARY_PATH=$build/tool $build/bench/metadata_bench"
counting="LD_LIBRARY_PATH=$build/bench/counting $build/bench/metadata_bench"
export RESTIC_PASSWORD=bench BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK=yes BORG_RELOCATED_REPO_ACCESS_IS_OK=yes
# shellcheck source=bench/support/ntfs-volume.sh
. "$(dirname "$(realpath "$0")")/support/ntfs-volume.sh"

# A tree, a directory of 5 000 files, 50 directories of 200 files of 1 to 16 KiB, and a file that is half noise and half
# a ledger of numbers.
make_volume_files() {
    mkdir tree large
    (cd tree && make_files "$files")
    perl -e '
        my ($small, $wide, $mib) = @ARGV;
        my $text = join(" ", map { sprintf "line %05d", $_ * 7919 % 99991 } 1 .. 2000);
        sub put {
            my ($path, $start, $size) = @_;
            open my $file, ">:raw", $path or die "$path: $!";
            print $file substr($text, $start, $size) or die;
            close $file or die;
        }
        mkdir "wide" or die;
        put("wide/document $_.txt", $_ % 1000, 200 + $_ % 300) for 1 .. $wide;
        mkdir "small" or die;
        for my $folder (1 .. $small / 200) {
            mkdir "small/$folder" or die;
            put("small/$folder/document $_.txt", $_ * $folder % 1000, 1024 + $_ * $folder * 7919 % 15360) for 1 .. 200;
        }
        srand 7;
        open my $file, ">:raw", "large/file" or die "$!";
        for my $block (1 .. $mib * 16) {
            print $file pack("N*", map { int rand 4294967296 } 1 .. 8192),
                substr(join(";", map { $block * 7919 * $_ % 1000003 } 1 .. 6000), 0, 32768) or die;
        }
        close $file or die;
    ' "$small_files" "$wide_files" "$large_mib"
}

make_volume() {
    truncate -s 2G volume.img
    mkntfs -F -Q -q volume.img >/dev/null 2>&1
    mount_volume big_writes
    (cd mount && make_volume_files)
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
    [ "$seen" -ge $((files + small_files + wide_files)) ] || {
        echo "$script: only $seen files were collected" >&2
        return 1
    }
    od -An -v -tu8 -w32 -j136 out/information | while read -r _ length start _; do
        echo "dd if=volume.img of=/dev/null bs=1M iflag=skip_bytes,count_bytes status=none" \
            "skip=$((start * 4096)) count=$((length * 4096))"
    done >read-mft
}

before() {
    rm -rf out tsk.db made.dset
    mkdir out
}
shorten() {
    sed "s:LD_LIBRARY_PATH=$build/bench/counting :(counting) :; s:LD_LIBRARY_PATH=[^ ]* ::; s:$build/[a-z]*/::g
        s:^\. \./read-mft$:dd bs=1M, $(wc -l <read-mft) extents:; s:cd out && ::; s:$dir/::g"
}

time_tree() {
    local rates=()
    for _ in $(seq "$runs"); do
        before
        rates+=("$(eval "$real table $tree_files out/tree" | awk '{ print $(NF - 3) }')")
    done
    printf 'a directory tree of %s files\n  %s files a second\n' "$tree_files" "$(median "${rates[@]}")"
}

# The difference of two lines that alternate, each followed by the others.
time_catalog() {
    local with=() without=() fls=() loaddb=()
    for _ in $(seq "$runs"); do
        before
        without+=("$(microseconds_of "$command backup -q disk.vmdk made.dset")")
        before
        with+=("$(microseconds_of "$command backup -q --catalog disk.vmdk made.dset")")
        fls+=("$(microseconds_of 'fls -r -m / volume.img')")
        loaddb+=("$(microseconds_of 'tsk_loaddb -d tsk.db volume.img')")
    done
    awk -v with="$(median "${with[@]}")" -v without="$(median "${without[@]}")" -v fls="$(median "${fls[@]}")" \
        -v loaddb="$(median "${loaddb[@]}")" '
        BEGIN {
            printf "a backup with a catalogue takes %.3f s, without %.3f s\n", with / 1e6, without / 1e6
            taken = with - without
            printf "  %-72s %8.3f s\n", "the catalogue", taken / 1e6
            printf "  %-72s %8.3f s %8.2f\n", "fls -r -m / volume.img", fls / 1e6, fls / taken
            printf "  %-72s %8.3f s %8.2f\n", "tsk_loaddb -d tsk.db volume.img", loaddb / 1e6, loaddb / taken
        }'
}

# Repositories of the other programs, each directory by a name of its own.
make_repositories() {
    export RESTIC_REPOSITORY=$dir/restic RESTIC_CACHE_DIR=$dir/restic-cache BORG_REPO=$dir/borg BORG_BASE_DIR=$dir/borg-base
    local name
    mount_volume ro
    restic -q init
    borg init -e none
    for name in small large; do
        (cd mount && restic -q backup --tag "$name" "$name" && borg create "::$name" "$name")
    done
    unmount
}

# All of it has to be there.
check_restored() {
    mount_volume ro
    before
    eval "$command cp -q -r set.dset small out/small && $command cp -q -r set.dset large out/large"
    diff -r mount/small out/small
    cmp mount/large/file out/large/file
    unmount
}

work_in 8
make_volume
make_disk
cat volume.img >/dev/null
make_mft_reader
printf 'an NTFS volume of %s files in %s, median of %s runs on %s processors\n' \
    $((files + small_files + wide_files + 1)) "$base" "$runs" "$(nproc)"

time_tree
race 'the scan alone' "$counting collect disk.vmdk out" '. ./read-mft'
race 'the whole collection' "$real collect disk.vmdk out" 'fls -r -m / volume.img' 'tsk_loaddb -d tsk.db volume.img'
time_catalog

"$command" backup -q --catalog disk.vmdk set.dset
make_repositories
check_restored
race 'listing a directory of 200 files' "$command ls set.dset small/7"
race "listing a directory of $wide_files files" "$command ls set.dset wide"
race "restoring $small_files small files" "$command cp -q -r set.dset small out/small" \
    'restic -q restore latest --tag small --target out' 'cd out && borg extract ::small'
race "restoring a file of $large_mib MiB" "$command cp -q -r set.dset large out/large" \
    'restic -q restore latest --tag large --target out' 'cd out && borg extract ::large'
