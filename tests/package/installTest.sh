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

# The installed tools find the library through their relative run path
# (no LD_LIBRARY_PATH), and their man pages are there.
"$prefix/bin/ztsdctl" --version | grep -q '^ztsdctl [0-9]' || { echo "installed ztsdctl does not run"; exit 1; }
for page in ztsdctl ztsd-sim; do
  test -f "$prefix/share/man/man1/$page.1" || { echo "man page $page(1) not installed"; exit 1; }
done
readelf -d "$prefix/bin/ztsdctl" | grep -q 'R.*PATH.*\$ORIGIN/\.\./' || { echo "ztsdctl has no relative run path"; exit 1; }
"$prefix/bin/ztsd-sim" >"$work/sim.out" 2>&1 &
sim=$!
trap 'kill $sim 2>/dev/null || true; rm -rf "$work"' EXIT
for _ in $(seq 100); do grep -q '^ready$' "$work/sim.out" && break; sleep 0.05; done
address=$(sed -n 's/^  ztsdctl address: //p' "$work/sim.out" | head -1)
test -n "$address" || { echo "ztsd-sim printed no address"; cat "$work/sim.out"; exit 1; }
"$prefix/bin/ztsdctl" list "$address" | grep -q 'coherent, 0 coherency losses' || { echo "installed list failed"; exit 1; }

# The README's C example, exactly as it stands there, built against the
# installed tree and run against the simulated chassis.
awk '/^## A short C example/{inside=1} inside && /^```c$/{code=1; next} code && /^```$/{exit} code{print}' \
  "$source/README.md" >"$work/readmeExample.c"
grep -q 'int main' "$work/readmeExample.c" || { echo "no C example found in README.md"; exit 1; }
cc -std=c99 -Wall -Werror -o "$work/readmeExample" "$work/readmeExample.c" $(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs ztsdlib)
LD_LIBRARY_PATH=$libdir "$work/readmeExample" "${address%@*}" "${address##*@}" >"$work/example.out" 2>&1 \
  || { cat "$work/example.out"; echo "the README's C example failed"; exit 1; }
grep -qx 'coherent: 1' "$work/example.out" || { cat "$work/example.out"; echo "the README's C example did not report coherency"; exit 1; }
kill $sim; wait $sim || true

# The installed library needs nothing that a consumer must link itself.
if pkg-config --print-requires ztsdlib | grep -q .; then echo "pkg-config exposes dependencies"; exit 1; fi
echo "package test passed"
