#!/usr/bin/env bash
# Frames per second oltsim switches between two ports and traps to a null
# module, beside the same sender and receiver over a plain veth pair, all in
# one run. Usage: bench_oltsim.sh [BUILD_DIR] [COUNT] [SIZE]
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "${1:-$ROOT/build-bench}" && pwd)
COUNT=${2:-200000}
SIZE=${3:-128}
B=$BUILD/bench/bench_oltsim
P=bo$$
RUN=$(mktemp -d /tmp/bench-oltsim.XXXXXX)
pids=()

cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  for ns in a b olt ra rb; do ip netns del "$P-$ns" 2>/dev/null || true; done
  rm -rf "$RUN"
}
trap cleanup EXIT

for ns in a b olt ra rb; do ip netns add "$P-$ns"; ip -n "$P-$ns" link set lo up; done
ip link add bo-a0 netns "$P-olt" type veth peer name eth0 netns "$P-a"
ip link add bo-b0 netns "$P-olt" type veth peer name eth0 netns "$P-b"
ip link add eth0 netns "$P-ra" type veth peer name eth0 netns "$P-rb"
for ns in a b ra rb; do ip -n "$P-$ns" link set eth0 up; done

cat >"$RUN/topo.ini" <<EOF
[system]
mac = 02:00:5e:10:00:01
vlans = 1,100
[port ge1/1/1]
linux = bo-a0
pvid = 100
[port ge1/1/2]
linux = bo-b0
pvid = 100
EOF
ip netns exec "$P-olt" "$BUILD/sim/oltsim" -t "$RUN/topo.ini" --fp-socket "$RUN/fp.sock" \
  --ctl-socket "$RUN/ctl" --client-port 0 --devmgr-port 31900 --devmgr-async-port 31908 \
  --log-file "$RUN/oltsim.log" </dev/null >/dev/null 2>&1 &
pids+=($!)
for _ in $(seq 50); do [ -S "$RUN/ctl" ] && break; sleep 0.1; done
ctl() { "$BUILD/sim/oltctl" -s "$RUN/ctl" "$@"; }
sleep 1  # ports open and up

field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p" "$2"; }

# One measurement: receiver command, sender namespace, extra sender argument.
measure() {  # measure KEY LABEL RECV-NS RECV-CMD... -- SEND-NS [dhcp]
  local name=$1 label=$2 rns=$3; shift 3
  local rcmd=()
  while [ "$1" != "--" ]; do rcmd+=("$1"); shift; done
  shift
  local sns=$1 kind=${2:-}
  ip netns exec "$rns" "${rcmd[@]}" >"$RUN/$name.recv" &
  local rpid=$!
  pids+=($rpid)
  sleep 0.5
  ip netns exec "$sns" "$B" send eth0 "$COUNT" "$SIZE" $kind >"$RUN/$name.send"
  wait "$rpid" || true
  printf '%-34s %9s %9s %12s\n' "$label" "$(field sent "$RUN/$name.send")" \
    "$(field received "$RUN/$name.recv")" "$(field rate "$RUN/$name.recv")"
  echo "$(field rate "$RUN/$name.recv")" >"$RUN/$name.rate"
}

printf '%-34s %9s %9s %12s\n' path sent received frames/s
measure ref "veth pair (reference)" "$P-rb" "$B" recv eth0 30 -- "$P-ra"
measure switch "oltsim switching ge1/1/1->ge1/1/2" "$P-b" "$B" recv eth0 30 -- "$P-a"
ctl trap 100 v4 on >/dev/null
measure trap "oltsim trap to a null module" "$P-olt" "$B" module "$RUN/fp.sock" 30 -- "$P-a" dhcp
ref=$(cat "$RUN/ref.rate")
for n in switch trap; do
  awk -v r="$(cat "$RUN/$n.rate")" -v ref="$ref" -v n="$n" \
    'BEGIN { if (ref > 0) printf "%-34s %.2f of the reference\n", n, r / ref }'
done
ctl show counters | grep -E 'port=ge1/1/(1|2)' | cut -c1-160
