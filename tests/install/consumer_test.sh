#!/bin/bash
# Installs a build into a directory of its own and builds examples/consumer against it: through the CMake package,
# shared and static, and through pkg-config. Usage: consumer_test.sh SOURCE_DIR BUILD_DIR
set -euo pipefail

source_dir=$1
build_dir=$2
: "${CXX:=c++}" "${CMAKE:=cmake}"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
consumer=$source_dir/examples/consumer
prefix=$work/moved

fail() {
    echo "FAILED: $*" >&2
    exit 1
}

# Moved after the installation: nothing in the tree may remember where it was put first.
install_tree() {
    "$CMAKE" --install "$build_dir" --prefix "$work/installed" >"$work/install.log" || fail "$(cat "$work/install.log")"
    mv "$work/installed" "$prefix"
    libdir=$(dirname "$(find "$prefix" -name 'libdiskstream.so')")
    export LD_LIBRARY_PATH=$libdir PKG_CONFIG_PATH=$libdir/pkgconfig
}

# Three blocks of 128 sectors, the consumer's block size. The last byte of all is not zero.
make_disk() {
    disk=$work/disk-flat.vmdk
    truncate -s $((3 * 128 * 512 - 1)) "$disk"
    printf 'x' >>"$disk"
}

expect_output() {
    local how=$1 program=$2 output
    output=$("$program" "$disk") || fail "the consumer built with $how ended with $?"
    echo "$how: $output"
    [ "$output" = "3 blocks" ] || fail "$how: '$output' instead of '3 blocks'"
}

through_cmake() {
    local how=$1 static=$2 build=$work/cmake-$2
    "$CMAKE" -S "$consumer" -B "$build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$CXX" \
        -DCONSUMER_STATIC="$static" >"$build.log" 2>&1 || fail "$how: $(cat "$build.log")"
    "$CMAKE" --build "$build" >>"$build.log" 2>&1 || fail "$how: $(cat "$build.log")"
    expect_output "$how" "$build/consumer"
}

through_pkg_config() {
    # shellcheck disable=SC2046 # the flags are words of their own
    "$CXX" -std=c++20 "$consumer/main.cpp" -o "$work/pc" $(pkg-config --cflags --libs diskstream)
    expect_output "pkg-config" "$work/pc"
    # shellcheck disable=SC2046
    "$CXX" -std=c++20 -DDISKSTREAM_STATIC "$consumer/main.cpp" -o "$work/pc-static" \
        $(pkg-config --cflags diskstream) "$libdir/libdiskstream.a" -pthread
    expect_output "the static library by name" "$work/pc-static"
}

# The program that is said to be shared must really load the library, the other one must not.
check_linkage() {
    local shared static
    shared=$(ldd "$work/cmake-OFF/consumer")
    static=$(ldd "$work/cmake-ON/consumer")
    [[ $shared == *"$libdir/libdiskstream.so.0"* ]] || fail "the shared consumer doesn't load the library: $shared"
    [[ $static != *libdiskstream* ]] || fail "the static consumer loads the shared library"
}

# Each public header compiles by itself, with nothing but the installed tree to look in.
check_headers() {
    local header count=0
    while IFS= read -r header; do
        echo "#include \"$header\"" | "$CXX" -std=c++20 -Wall -Wextra -Werror -fsyntax-only \
            -I"$prefix/include/diskstream" -x c++ - || fail "$header doesn't compile by itself"
        count=$((count + 1))
    done < <(cd "$prefix/include/diskstream" && find . -name '*.h' -printf '%P\n' | sort)
    [ "$count" -ge 10 ] || fail "only $count headers are installed"
    [ -z "$(find "$prefix/include" -path '*/detail/*')" ] || fail "internal headers are installed"
    echo "$count headers compile by themselves"
}

# What the agent's pkg-config file promises can be found; the agent's own tests show that it works.
check_agent() {
    [ -e "$libdir/libdiskstream-agent.so" ] || return 0
    [ "$(pkg-config --modversion diskstream-agent)" = "$(pkg-config --modversion diskstream)" ] || fail "versions differ"
    echo 'int main() {}' | "$CXX" -x c++ - -o "$work/agent" -Wl,--no-as-needed \
        $(pkg-config --cflags --libs diskstream-agent)
    "$work/agent" || fail "a program linked with the agent doesn't start"
    printf '%s\n' 'cmake_minimum_required(VERSION 3.25)' 'project(p LANGUAGES C CXX)' \
        'find_package(diskstream REQUIRED COMPONENTS agent)' 'file(WRITE a.cpp "int main() {}")' \
        'add_executable(a a.cpp)' 'target_link_libraries(a diskstream::diskstream_agent_static)' >"$work/CMakeLists.txt"
    (cd "$work" && "$CMAKE" -S . -B a -DCMAKE_PREFIX_PATH="$prefix" && "$CMAKE" --build a) >"$work/a.log" 2>&1 ||
        fail "the agent through CMake: $(cat "$work/a.log")"
    echo "the agent links through pkg-config and CMake"
}

make_disk
install_tree
through_cmake "the CMake package, shared" OFF
through_cmake "the CMake package, static" ON
through_pkg_config
check_linkage
check_headers
check_agent
