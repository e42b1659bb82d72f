#!/usr/bin/env bash
# The README's ztsdctl session, as it stands there, against ztsd-sim: the
# block after the marker line is read from README.md; its ztsd-sim line is
# started with ephemeral ports in place of the ones it names (a test cannot
# count on 8080 being free), and every ztsdctl line then runs with the ports
# ztsd-sim reports put in place of the README's (web 8080 + c, daemon
# 9090 + c, control 8000). Each must exit 0 and print something.
# Arguments: ztsd-sim, ztsdctl, README.md.
set -euo pipefail
sim_program=$1
ztsdctl=$2
readme=$3
work=$(mktemp -d)
sim=""
trap '[ -z "$sim" ] || kill $sim 2>/dev/null || true; rm -rf "$work"' EXIT

# The block, with continuation lines joined and comments dropped.
awk '/<!-- the tests run the next block against ztsd-sim -->/{marked=1; next}
     marked && /^```sh$/{code=1; next}
     code && /^```$/{exit}
     code{print}' "$readme" |
  sed -e ':join' -e '/\\$/{N; s/\\\n *//; b join}' -e 's/ *#.*$//' >"$work/session.sh"
grep -q '^ztsd-sim ' "$work/session.sh" || { echo "no ztsd-sim line in the README's session block"; exit 1; }
test "$(grep -c '^ztsdctl ' "$work/session.sh")" -ge 5 || { cat "$work/session.sh"; echo "too few ztsdctl lines"; exit 1; }

# ztsd-sim as the README starts it, on ports of its own choosing.
read -r -a sim_args < <(sed -n 's/^ztsd-sim //p' "$work/session.sh" | sed -e 's/ *&$//' \
  -e 's/--port [0-9]*/--port 0/' -e 's/--daemon-port [0-9]*/--daemon-port 0/' -e 's/--control-port [0-9]*/--control-port 0/')
"$sim_program" "${sim_args[@]}" >"$work/sim.out" 2>&1 &
sim=$!
for _ in $(seq 100); do grep -q '^ready$' "$work/sim.out" && break; sleep 0.05; done
grep -q '^ready$' "$work/sim.out" || { cat "$work/sim.out"; echo "ztsd-sim did not get ready"; exit 1; }
mapfile -t addresses < <(sed -n 's/^  ztsdctl address: //p' "$work/sim.out")
control=$(sed -n 's/^control http:\/\/127.0.0.1:\([0-9]*\)\/$/\1/p' "$work/sim.out")
test ${#addresses[@]} -ge 1 && test -n "$control" || { cat "$work/sim.out"; echo "no addresses"; exit 1; }

# README port -> the port ztsd-sim chose, as sed expressions on whole numbers.
substitutions=(-e "s/\\b8000\\b/$control/g")
for c in "${!addresses[@]}"; do
  web=${addresses[$c]%@*}
  substitutions+=(-e "s/127\\.0\\.0\\.1:$((8080 + c))\\b/$web/g" -e "s/\\b$((9090 + c))\\b/${addresses[$c]##*@}/g")
done

count=0
while IFS= read -r line; do
  case "$line" in
    ztsdctl\ *) ;;
    *) continue ;;
  esac
  command=$(printf '%s\n' "$line" | sed "${substitutions[@]}")
  read -r -a words <<<"${command#ztsdctl }"
  status=0
  timeout 60 "$ztsdctl" "${words[@]}" >"$work/out" 2>"$work/err" </dev/null || status=$?
  if [ $status -ne 0 ] || [ ! -s "$work/out" ]; then
    echo "README line failed (exit $status): $line"
    echo "ran: $command"
    cat "$work/out" "$work/err"
    exit 1
  fi
  count=$((count + 1))
done <"$work/session.sh"
echo "README session: $count ztsdctl lines passed"
