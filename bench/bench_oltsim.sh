#!/usr/bin/env bash
# Frames per second oltsim switches between two ports and traps to a null
# module, each beside the same sender and receiver over a direct veth pair
# measured in the same run. Needs root (network namespaces).
# Usage: bench_oltsim.sh [BUILD_DIR] [COUNT] [SIZE] [ROUNDS]
# Each row is the median (by frames/s) of ROUNDS runs.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "${1:-$ROOT/build-benchsim}" && pwd)
COUNT=${2:-200000}
SIZE=${3:-128}
ROUNDS=${4:-3}
B=$BUILD/bench/bench_oltsim
P=bsim$$
NSS=(a b olt ra rb)
RUN=$(mktemp -d /tmp/bench-oltsim.XXXXXX)
pids=()

cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  for ns in "${NSS[@]}"; do ip netns del "$P-$ns" 2>/dev/null || true; done
  rm -rf "$RUN"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

for x in "$B" "$BUILD/sim/oltsim" "$BUILD/sim/oltctl"; do
  [ -x "$x" ] || { echo "missing $x (build bench_oltsim oltsim oltctl)" >&2; exit 1; }
done

for ns in "${NSS[@]}"; do
  ip netns add "$P-$ns"
  # No IPv6 chatter (router solicitations, DAD) mixed into the counts.
  ip netns exec "$P-$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  ip -n "$P-$ns" link set lo up
done
ip link add olt-a netns "$P-olt" type veth peer name eth0 netns "$P-a"
ip link add olt-b netns "$P-olt" type veth peer name eth0 netns "$P-b"
ip link add eth0 netns "$P-ra" type veth peer name eth0 netns "$P-rb"
for ns in a b ra rb; do ip -n "$P-$ns" link set eth0 up; done

cat >"$RUN/topo.ini" <<EOF
[system]
mac = 02:00:5e:10:00:01
vlans = 1,100
[port ge1/1/1]
linux = olt-a
pvid = 100
[port ge1/1/2]
linux = olt-b
pvid = 100
EOF
# Its own namespace, so the default device-manager ports collide with nothing.
ip netns exec "$P-olt" "$BUILD/sim/oltsim" -t "$RUN/topo.ini" --fp-socket "$RUN/fp.sock" \
  --ctl-socket "$RUN/ctl.sock" --pid-file "$RUN/oltsim.pid" --log-file "$RUN/oltsim.log" \
  --client-port 0 </dev/null >/dev/null 2>&1 &
pids+=($!)
ctl() { timeout 5 "$BUILD/sim/oltctl" -s "$RUN/ctl.sock" "$@"; }
ports_open() { [ "$(ctl show ports 2>/dev/null | grep -c 'io=open')" -eq 2 ]; }
for _ in $(seq 100); do ports_open && break; sleep 0.1; done
ports_open || { echo "oltsim did not open its ports" >&2; cat "$RUN/oltsim.log" >&2 || true; exit 1; }
sleep 0.5

field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p" "$2" | head -1; }

# measure NAME RECV-NS RECV-CMD... -- SEND-NS [dhcp]: ROUNDS runs; writes
# "rate sent received" of the median run to $RUN/NAME.
measure() {
  local name=$1 rns=$2; shift 2
  local rcmd=()
  while [ "$1" != "--" ]; do rcmd+=("$1"); shift; done
  shift
  local sns=$1 kind=${2:-} rpid
  : >"$RUN/$name.runs"
  for _ in $(seq "$ROUNDS"); do
    ip netns exec "$rns" timeout 60 "${rcmd[@]}" >"$RUN/$name.recv" &
    rpid=$!
    pids+=("$rpid")
    sleep 0.5  # the counter is listening (the module registered)
    ip netns exec "$sns" timeout 60 "$B" send eth0 "$COUNT" "$SIZE" $kind >"$RUN/$name.send"
    wait "$rpid" || true
    echo "$(field rate "$RUN/$name.recv") $(field sent "$RUN/$name.send") $(field received "$RUN/$name.recv")" \
      | awk '{ print ($1 == "" ? 0 : $1), ($2 == "" ? 0 : $2), ($3 == "" ? 0 : $3) }' >>"$RUN/$name.runs"
  done
  sort -n "$RUN/$name.runs" | awk '{ r[NR] = $0 } END { print r[int((NR + 1) / 2)] }' >"$RUN/$name"
}

measure ref_udp "$P-rb" "$B" recv eth0 30 -- "$P-ra"
measure switch "$P-b" "$B" recv eth0 30 -- "$P-a"
measure ref_dhcp "$P-rb" "$B" recv eth0 30 -- "$P-ra" dhcp
ctl trap 100 v4 on >/dev/null
measure trap "$P-olt" "$B" module "$RUN/fp.sock" 30 -- "$P-a" dhcp

row() {  # row LABEL NAME REF
  read -r rate sent got <"$RUN/$2"
  read -r ref _ <"$RUN/$3"
  awk -v l="$1" -v s="$sent" -v g="$got" -v r="$rate" -v f="$ref" \
    'BEGIN { printf "%-34s %9d %9d %10d %6s\n", l, s, g, r, (f > 0 ? sprintf("%.2f", r / f) : "-") }'
}
echo "$COUNT frames per run (UDP ${SIZE} B; DHCP DISCOVER 286 B or larger), median of $ROUNDS runs"
printf '%-34s %9s %9s %10s %6s\n' path sent received frames/s ratio
row "veth pair, UDP (reference)" ref_udp ref_udp
row "oltsim switching ge1/1/1->ge1/1/2" switch ref_udp
row "veth pair, DHCP (reference)" ref_dhcp ref_dhcp
row "oltsim trap to a null module" trap ref_dhcp
ctl show counters | grep -E '^switch' | tr ' ' '\n' | grep -E 'trap_undelivered' | sed 's/^/oltsim /' || true
