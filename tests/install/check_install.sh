#!/usr/bin/env bash
# SPDX-License-Identifier: MIT
#
# Install the build tree into a fresh prefix and build a C and a C++ program
# against what arrived there: by the CMake package, and by pkg-config.
#   check_install.sh BUILD_TREE SCRATCH TOOLCHAIN_FILE|- CC CXX [EMULATOR...]
set -euo pipefail
build=$1 scratch=$2 toolchain=$3 cc=$4 cxx=$5
shift 5
here=$(cd "$(dirname "$0")" && pwd)
prefix=$scratch/prefix

rm -rf "$scratch"
mkdir -p "$scratch"
cmake --install "$build" --prefix "$prefix" > "$scratch/install.log"

echo "-- a manual page for every function"
functions=$(sed -n 's/^[a-z].*[ *]\(\(Dev\|CARD_\|Calc\)[A-Za-z0-9]*\)(.*/\1/p' "$prefix/include/carddev.h")
[ "$(wc -w <<< "$functions")" -ge 28 ]
for page in $functions carddev; do
    # From the folder that pointers to other pages start at.
    (cd "$prefix/share/man" && mandoc -T html "man3/$page.3") > "$scratch/page.html"
    grep -qw "$page" "$scratch/page.html" || { echo "no page for $page"; exit 1; }
done

for language in C CXX; do
    echo "-- the CMake package, $language"
    tree=$scratch/$language
    options=(-G Ninja -S "$here/consumer" -B "$tree" "-DLANGUAGE=$language"
        "-DCMAKE_PREFIX_PATH=$prefix" "-DCMAKE_FIND_ROOT_PATH=$prefix")
    [ "$toolchain" = - ] || options+=("-DCMAKE_TOOLCHAIN_FILE=$toolchain")
    CC=$cc CXX=$cxx cmake "${options[@]}"
    cmake --build "$tree"
    "$@" "$tree/with_carddev"
    "$@" "$tree/with_carddev_static"
done
"$@" "$scratch/CXX/with_carddev_hpp"

echo "-- pkg-config"
PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name carddev.pc)")
export PKG_CONFIG_PATH
read -ra cflags <<< "$(pkg-config --cflags carddev)"
read -ra libs <<< "$(pkg-config --libs carddev)"
libdir=$(pkg-config --variable=libdir carddev)
"$cc" -std=c99 -Wall -Wextra -Wpedantic -Werror "${cflags[@]}" "$here/consumer/consumer.c" \
    -o "$scratch/c_program" "${libs[@]}" "-Wl,-rpath,$libdir"
"$cxx" -std=c++11 -Wall -Wextra -Wpedantic -Werror "${cflags[@]}" "$here/consumer/consumer.cpp" \
    -o "$scratch/cxx_program" "${libs[@]}" "-Wl,-rpath,$libdir"
for standard in 17 20; do
    "$cxx" "-std=c++$standard" -Wall -Wextra -Wpedantic -Werror -fno-exceptions -fno-rtti \
        "${cflags[@]}" "$here/consumer/consumer_hpp.cpp" -o "$scratch/hpp$standard" "${libs[@]}" \
        "-Wl,-rpath,$libdir"
    "$@" "$scratch/hpp$standard"
done
"$@" "$scratch/c_program"
"$@" "$scratch/cxx_program"
