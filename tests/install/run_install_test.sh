#!/bin/sh
# Installs the build into a scratch prefix, then builds the example reader against it twice,
# through find_package(nvbdll) and through pkg-config, and reads a small log with each.
set -eu
build=$1
source=$2
host="$source/../../examples/read_log.c"
log="$source/../data/block_copy_three_frames.nvb"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$source" -B "$work/host" -DCMAKE_PREFIX_PATH="$work/prefix" -DHOST_SOURCE="$host" >/dev/null
cmake --build "$work/host" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib:${LD_LIBRARY_PATH:-}" "$work/host/host" "$log"
libdir=$(ls -d "$work"/prefix/lib*/pkgconfig | head -n 1)
PKG_CONFIG_PATH="$libdir" cc -std=c11 -Wall -Wextra -Werror "$host" -o "$work/pc-host" \
  $(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs nvbdll)
LD_LIBRARY_PATH="$(dirname "$libdir"):${LD_LIBRARY_PATH:-}" "$work/pc-host" "$log"
