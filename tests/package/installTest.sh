#!/usr/bin/env bash
# Installs the built library into a scratch prefix, then builds and runs a
# small C consumer against it twice: through find_package and through
# pkg-config. Arguments: the build tree, the source tree.
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
libdir=$(find "$prefix" -name 'libztsdlib.so.1' -printf '%h\n' | head -1)
test -n "$libdir" || { echo "libztsdlib.so.1 not installed"; exit 1; }
test -L "$libdir/libztsdlib.so" || { echo "libztsdlib.so link missing"; exit 1; }
test -f "$prefix/include/ztsdlib/ztsdlib.h" || { echo "header not installed"; exit 1; }

# Through CMake's package.
cmake -S "$source/tests/package" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake-build" >/dev/null
LD_LIBRARY_PATH=$libdir "$work/cmake-build/consumer"

# Through pkg-config.
export PKG_CONFIG_PATH=$libdir/pkgconfig
cc -std=c99 -Wall -Werror -o "$work/pc-consumer" "$source/tests/package/consumer.c" $(pkg-config --cflags --libs ztsdlib)
LD_LIBRARY_PATH=$libdir "$work/pc-consumer"

# The installed library needs nothing that a consumer must link itself.
if pkg-config --print-requires ztsdlib | grep -q .; then echo "pkg-config exposes dependencies"; exit 1; fi
echo "package test passed"
