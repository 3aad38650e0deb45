#!/usr/bin/env bash
# Builds and runs the consumer program against a Zel installed under PREFIX, once through the
# CMake package (find_package(Zel), Zel::zel) and once through pkg-config.
#
#   tests/install/check.sh PREFIX WORKDIR
set -euo pipefail

prefix=$(realpath "$1")
work=$2
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$work"

# Runs a consumer binary after making sure it loads the installed library, not a build tree's.
run_consumer() {
  local binary=$1 loaded
  loaded=$(ldd "$binary" | awk '$1 == "libzel.so.1" { print $3 }')
  if [[ "$(realpath "$loaded")" != "$(realpath "$prefix")"/* ]]; then
    echo "$binary loads libzel.so.1 from '$loaded', not from $prefix" >&2
    return 1
  fi
  "$binary"
}

echo "-- consumer through find_package(Zel)"
cmake -S "$here" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_BUILD_TYPE=Release
cmake --build "$work/cmake"
run_consumer "$work/cmake/zel_consumer"

echo "-- consumer through pkg-config"
export PKG_CONFIG_PATH="$prefix/lib/pkgconfig${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"
flags=$(pkg-config --cflags --libs zel)
echo "pkg-config --cflags --libs zel: $flags"
# shellcheck disable=SC2086 # the flags are words
cc -std=c11 -Wall -Wextra -Werror "$here/consumer.c" -o "$work/zel_consumer_pc" $flags
libdir=$(pkg-config --variable=libdir zel)
LD_LIBRARY_PATH="$libdir${LD_LIBRARY_PATH:+:$LD_LIBRARY_PATH}" run_consumer "$work/zel_consumer_pc"
