#!/usr/bin/env bash
# The example programs against ztsd-sim: the watched domain holds over its
# checks and fails with the library's error once a chassis is down; the
# correlation finds the chassis' clock offset. Arguments: ztsd-sim, the
# domain-with-watch example, the correlation example.
set -euo pipefail
sim_program=$1
domain_watch=$2
correlation=$3
work=$(mktemp -d)
"$sim_program" --chassis 2 --clock-offset-ns 0,1500000000 >"$work/sim.out" 2>&1 &
sim=$!
trap 'kill $sim 2>/dev/null || true; rm -rf "$work"' EXIT
for _ in $(seq 100); do grep -q '^ready$' "$work/sim.out" && break; sleep 0.05; done
mapfile -t addresses < <(sed -n 's/^  ztsdctl address: //p' "$work/sim.out")
control=$(sed -n 's/^control //p' "$work/sim.out")
test ${#addresses[@]} = 2 || { cat "$work/sim.out"; echo "no addresses"; exit 1; }

timeout 20 "$domain_watch" 2 "${addresses[@]}" >"$work/watch.out"
test "$(grep -c 'coherent since the last check: yes' "$work/watch.out")" = 2 || { cat "$work/watch.out"; exit 1; }

timeout 20 "$correlation" "${addresses[1]%@*}" "${addresses[1]##*@}" >"$work/correlation.out"
offset=$(sed -n 's/^remote - host  //p' "$work/correlation.out" | cut -d' ' -f1)
awk -v ms="$offset" 'BEGIN { exit !(ms > 1450 && ms < 1550) }' || { cat "$work/correlation.out"; echo "offset $offset ms"; exit 1; }

# POST chassis/1/down to the control server (bash's /dev/tcp, no HTTP client needed).
port=${control##*:}
port=${port%/}
exec 3<>"/dev/tcp/127.0.0.1/$port"
printf 'POST /chassis/1/down HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\nConnection: close\r\n\r\n' >&3
timeout 5 cat <&3 | grep -q '"ok":true' || { echo "the control server did not take the chassis down"; exit 1; }
exec 3<&-
status=0
timeout 20 "$domain_watch" 1 "${addresses[@]}" >"$work/down.out" 2>"$work/down.err" || status=$?
test $status = 2 || { cat "$work/down.out" "$work/down.err"; echo "exit $status with a chassis down"; exit 1; }
grep -q '^error -52024: ' "$work/down.err" || { cat "$work/down.err"; exit 1; }
echo "examples test passed"
