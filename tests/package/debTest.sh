#!/usr/bin/env bash
# Builds the Debian packages of the build tree with CPack, checks their
# names and dependencies, and (as root, on a machine that has no ztsdlib
# package installed) installs them with dpkg, runs the installed tools, a C
# consumer built against the installed headers, and ztsd-sim + ztsdctl list,
# then removes them. Arguments: the build tree, the source tree.
set -euo pipefail
build=$1
source=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

(cd "$build" && cpack -G DEB -B "$work/debs" >/dev/null)
shopt -s nullglob
runtime=("$work"/debs/libztsdlib1_*.deb)
dev=("$work"/debs/libztsdlib-dev_*.deb)
tools=("$work"/debs/ztsdlib-tools_*.deb)
test ${#runtime[@]} = 1 && test ${#dev[@]} = 1 && test ${#tools[@]} = 1 || { ls "$work/debs"; echo "missing packages"; exit 1; }
depends() { dpkg-deb -f "$1" Depends; }
depends "${runtime[0]}" | grep -q 'libcurl4' || { echo "runtime: no libcurl4 dependency"; exit 1; }
depends "${runtime[0]}" | grep -q 'libthrift' || { echo "runtime: no libthrift dependency"; exit 1; }
depends "${dev[0]}" | grep -q 'libztsdlib1 (= ' || { echo "dev: no dependency on the library"; exit 1; }
depends "${tools[0]}" | grep -q 'libztsdlib1 (= ' || { echo "tools: no dependency on the library"; exit 1; }
holds() { dpkg-deb -c "$1" >"$work/contents"; grep -q "$2" "$work/contents"; }
holds "${runtime[0]}" 'libztsdlib\.so\.1' || { echo "runtime: no library"; exit 1; }
holds "${dev[0]}" 'include/ztsdlib/ztsdlib\.h' || { echo "dev: no header"; exit 1; }
holds "${tools[0]}" 'man1/ztsdctl\.1' || { echo "tools: no man page"; exit 1; }
holds "${tools[0]}" 'bin/ztsd-sim' || { echo "tools: no ztsd-sim"; exit 1; }

if [ "$(id -u)" != 0 ] || dpkg-query -W -f='${Status}' libztsdlib1 2>/dev/null | grep -q "ok installed"; then
  echo "deb test: packages checked; not installed (needs root and no ztsdlib package present)"
  exit 0
fi
trap 'dpkg -P ztsdlib-tools libztsdlib-dev libztsdlib1 >/dev/null 2>&1 || true; rm -rf "$work"' EXIT
dpkg -i "${runtime[0]}" "${dev[0]}" "${tools[0]}" >/dev/null
ztsdctl --version | grep -q '^ztsdctl [0-9]'
cc -std=c99 -Wall -Werror -o "$work/consumer" "$source/tests/package/consumer.c" $(pkg-config --cflags --libs ztsdlib)
"$work/consumer"
ztsd-sim >"$work/sim.out" 2>&1 &
sim=$!
for _ in $(seq 100); do grep -q '^ready$' "$work/sim.out" && break; sleep 0.05; done
address=$(sed -n 's/^  ztsdctl address: //p' "$work/sim.out" | head -1)
ztsdctl list "$address" | grep -q 'coherent, 0 coherency losses' || { kill $sim; echo "installed list failed"; exit 1; }
kill $sim
wait $sim || true
dpkg -P ztsdlib-tools libztsdlib-dev libztsdlib1 >/dev/null
! dpkg-query -W -f='${Status}' libztsdlib1 2>/dev/null | grep -q "ok installed" || { echo "libztsdlib1 still installed"; exit 1; }
echo "deb test passed"
