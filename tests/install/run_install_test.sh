#!/bin/sh
# Installs the build into a scratch prefix, then builds and runs a host against it twice:
# through find_package(nvbdll) and through pkg-config.
set -eu
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$source" -B "$work/host" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/host" >/dev/null
LD_LIBRARY_PATH="$work/prefix/lib:${LD_LIBRARY_PATH:-}" "$work/host/host"
libdir=$(ls -d "$work"/prefix/lib*/pkgconfig | head -n 1)
PKG_CONFIG_PATH="$libdir" cc -std=c11 -Wall -Wextra -Werror "$source/host.c" -o "$work/pc-host" \
  $(PKG_CONFIG_PATH="$libdir" pkg-config --cflags --libs nvbdll)
LD_LIBRARY_PATH="$(dirname "$libdir"):${LD_LIBRARY_PATH:-}" "$work/pc-host"
