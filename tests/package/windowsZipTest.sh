#!/usr/bin/env bash
# The Windows ZIP as a user gets it: made with cpack, unpacked, its contents
# checked, then in a fresh Wine prefix (nothing of the build tree on the
# path) the README's C example is built against it with the cross compiler
# and run against the packaged ztsd-sim.exe, as are `ztsdctl.exe list` and
# `ztsdctl.exe demo`. Arguments: the build tree, the source tree, the C
# compiler.
set -euo pipefail
build=$1
source=$2
cc=$3
work=$(mktemp -d)
export WINEPREFIX=$work/wine-prefix WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY WINEPATH
wine=/usr/lib/wine/wine64
[ -x "$wine" ] || wine=$(command -v wine64 || command -v wine)
server=/usr/lib/wine/wineserver
[ -x "$server" ] || server=$(command -v wineserver)
trap '"$server" -k 2>/dev/null || true; rm -rf "$work"' EXIT

(cd "$build" && cpack -G ZIP -B "$work/cpack" >/dev/null)
zip=$(ls "$work"/cpack/*.zip)
unzip -q "$zip" -d "$work/unpacked"
root=$(ls -d "$work"/unpacked/*/)
for file in bin/libztsdlib.dll bin/libcurl.dll bin/ztsdctl.exe bin/ztsd-sim.exe include/ztsdlib/ztsdlib.h \
            lib/libztsdlib.dll.a lib/ztsdlib.def lib/cmake/ztsdlib/ztsdlibConfig.cmake; do
  test -f "$root/$file" || { echo "the ZIP lacks $file"; (cd "$root" && find . -type f); exit 1; }
done

# The README's example, as written there.
awk '/^## A short C example/ {on=1} on && /^```c$/ {code=1; next} code && /^```$/ {exit} code' \
  "$source/README.md" >"$work/example.c"
grep -q 'ztsdlib_loadProxyResources' "$work/example.c" || { echo "no C example found in README.md"; exit 1; }
"$cc" -std=c99 -Wall -Werror -I"$root/include" -o "$root/bin/example.exe" "$work/example.c" "$root/lib/libztsdlib.dll.a"

# Wine's services start with their streams away from ours (else they hold
# this script's output open); the programs find their DLLs beside them.
mkdir -p "$WINEPREFIX"
"$server" -p </dev/null >/dev/null 2>&1
"$wine" wineboot </dev/null >/dev/null 2>&1
"$wine" "$root/bin/ztsd-sim.exe" >"$work/sim.out" 2>&1 </dev/null &
for _ in $(seq 200); do grep -q '^ready' "$work/sim.out" && break; sleep 0.1; done
grep -q '^ready' "$work/sim.out" || { echo "ztsd-sim.exe did not start"; cat "$work/sim.out"; exit 1; }
address=$(sed -n 's/^  ztsdctl address: //p' "$work/sim.out" | tr -d '\r' | head -1)
host=${address%@*}
daemon=${address#*@}

out=$(timeout 120 "$wine" "$root/bin/example.exe" "$host" "$daemon" | tr -d '\r')
[ "$out" = "coherent: 1" ] || { echo "the README example printed: $out"; exit 1; }
timeout 60 "$wine" "$root/bin/ztsdctl.exe" list "$address" | tr -d '\r' | grep -q '/ztsdwebs/resources/ztsd/syncableDevices/' \
  || { echo "ztsdctl.exe list found no device"; exit 1; }
timeout 120 "$wine" "$root/bin/ztsdctl.exe" demo >"$work/demo.out" 2>&1 || { echo "ztsdctl.exe demo failed"; cat "$work/demo.out"; exit 1; }
grep -q 'all as expected' "$work/demo.out" || { echo "the demo's summary is missing"; cat "$work/demo.out"; exit 1; }
echo "ZIP $(basename "$zip"): contents, README example, ztsdctl.exe list and demo all good"
