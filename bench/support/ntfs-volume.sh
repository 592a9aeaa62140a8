# shellcheck shell=bash
# shellcheck disable=SC2154 # who sources this sets `script` and `runs`
# Shell functions for comparisons on a fresh NTFS volume: where it lies, the FUSE driver that fills it, and the timing of
# whole processes. To be sourced by a script that sets `script`, its own name, and `runs`, how often each is run.

# work_in GIB: makes the current directory a work folder `dir` in `base`, which goes when the script ends. Needs root and
# /dev/fuse; without them the script ends, and says so.
work_in() {
    if [ "$(id -u)" -ne 0 ] || [ ! -w /dev/fuse ]; then
        echo "$script: mounting needs root and /dev/fuse: left out"
        exit 0
    fi
    base=${DISKSTREAM_BENCH_DIR:-}
    if [ -z "$base" ]; then
        base=/tmp
        [ "$(df --output=avail -B1G /dev/shm | tail -n 1)" -ge "$1" ] && base=/dev/shm
    fi
    dir=$(mktemp -d "$base/diskstream-files.XXXXXX")
    trap 'cd /; unmount; rm -rf "$dir"' EXIT
    cd "$dir" || exit
    mkdir mount
}

driver=
unmount() {
    [ -n "$driver" ] || return 0
    fusermount -u "$dir/mount"
    wait "$driver" || true
    driver=
}

# mount_volume OPTIONS: in the foreground, so that the driver's end, and with it its last write, can be waited for.
mount_volume() {
    lowntfs-3g -o "no_detach,noatime,$1" volume.img mount >/dev/null 2>&1 &
    driver=$!
    until mountpoint -q mount; do
        kill -0 "$driver"
        sleep 0.05
    done
}

# make_files COUNT: a tenth of the files in a directory of its own, the others in a tree of 256 directories.
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
    ' "$1"
}

microseconds_of() {
    local start=${EPOCHREALTIME/./}
    if ! bash -c "$1" >/dev/null 2>errors; then
        echo "$script: $1 failed:" >&2
        cat errors >&2
        return 1
    fi
    echo $((${EPOCHREALTIME/./} - start))
}

median() { printf '%s\n' "$@" | sort -n | sed -n "$((($# + 1) / 2))p"; }

# race TITLE OURS PEER...: command lines, which alternate, `runs` times. `before` is run in front of each and `after`
# behind it. `shorten` makes a line ready to be shown.
before() { :; }
after() { :; }
shorten() { cat; }
race() {
    local title=$1 ours="" line taken times
    shift
    local -A all=()
    for _ in $(seq "$runs"); do
        for line in "$@"; do
            before
            all[$line]+=" $(microseconds_of "$line")"
            after
        done
    done
    echo "$title"
    for line in "$@"; do
        read -ra times <<<"${all[$line]}"
        taken=$(median "${times[@]}")
        ours=${ours:-$taken}
        awk -v line="$(shorten <<<"$line")" -v taken="$taken" -v ours="$ours" '
            BEGIN { printf "  %-72s %8.3f s %8.2f\n", line, taken / 1e6, taken / ours }'
    done
}
