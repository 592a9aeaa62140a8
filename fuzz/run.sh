#!/bin/bash
# Runs each fuzz target of a build for some seconds, from its corpus. Usage: run.sh BUILD_DIR SECONDS [JOBS]
# New inputs and whatever made a target fail stay in the build directory; fuzz/corpus is only read.
set -euo pipefail

build_dir=$1
seconds=$2
jobs=${3:-1}
top=$(cd "$(dirname "$0")/.." && pwd)

run_one() {
    local target=$1 name found
    name=$(basename "$target")
    found=$build_dir/found/$name
    mkdir -p "$found" "$top/fuzz/corpus/$name"
    if ! "$target" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=2048 -print_final_stats=1 \
        -artifact_prefix="$found-failed-" "$found" "$top/fuzz/corpus/$name" >"$found.log" 2>&1; then
        tail -n 60 "$found.log"
        echo "$name: FAILED, the input is $(ls -t "$found"-failed-* 2>/dev/null | head -n 1)"
        return 1
    fi
    echo "$name: $(sed -n 's/^stat::number_of_executed_units: *//p' "$found.log") runs, no failure"
}
export -f run_one
export build_dir seconds top

# A missing target must not look like one that found nothing.
mapfile -t targets < <(find "$build_dir/fuzz" -maxdepth 1 -name '*_fuzz' -type f -perm -u+x 2>/dev/null | sort)
[ ${#targets[@]} -gt 0 ] || {
    echo "There are no fuzz targets in $build_dir." >&2
    exit 1
}
export ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
printf '%s\0' "${targets[@]}" | xargs -0 -P "$jobs" -I{} bash -c 'run_one "$1"' _ {}
