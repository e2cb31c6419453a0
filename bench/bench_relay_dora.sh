#!/usr/bin/env bash
# DORA per second of raw clients (bench/dhcp_loadgen) relayed to a routed
# server by the daemon, beside the same clients relayed by isc-dhcp-relay
# (dhcrelay) in the same topology, in one run. Needs root.
#
#   subscriber ns -> ONU gonu1/1/1:1 (VLAN 100) -> oltsim -> relay on
#   vlanif100 (10.100.0.1/16) -> vlanif200 -> ge1/1/2 -> server ns
#   (dnsmasq on 192.0.2.10, route back to 10.100.0.0/16 via 192.0.2.1)
#
# The daemon leg: the daemon relays (ip dhcp-relay, relay agent and server on
# vlanif100, ge1/1/2 trusted); server replies reach it as frames trapped by
# oltsim. The dhcrelay leg: no daemon, VLAN 100 untrapped, dhcrelay in
# oltsim's namespace on the vlanif taps.
#
# Each leg's figure is the median of ROUNDS runs, the legs alternating, each
# run with fresh MACs and a fresh server.
#
# Usage: bench_relay_dora.sh [BUILD_DIR] [CLIENTS=2000] [ROUNDS=3]
# Environment: WINDOW (outstanding clients, 64), TIMEOUT (seconds per run, 120).
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "${1:-$ROOT/build-bench}" && pwd)
CLIENTS=${2:-2000}
ROUNDS=${3:-3}
WINDOW=${WINDOW:-64}
TIMEOUT=${TIMEOUT:-120}
P=brly$$
NS_OLT=$P-olt NS_SRV=$P-srv NS_SUB=$P-sub
NSS=("$NS_OLT" "$NS_SRV" "$NS_SUB")
RUN=$(mktemp -d /tmp/bench-relay.XXXXXX)
NAME=bench_relay_dora
source "$ROOT/bench/bench_env.sh"
command -v dhcrelay >/dev/null || die "dhcrelay (isc-dhcp-relay) is not installed"
command -v dnsmasq >/dev/null || die "dnsmasq is not installed"

ip link add br-srv0 netns "$NS_OLT" type veth peer name eth0 netns "$NS_SRV"
ip link add br-onu1 netns "$NS_OLT" type veth peer name eth0 netns "$NS_SUB"
for ns in "$NS_SRV" "$NS_SUB"; do in_ns "$ns" ip link set eth0 up; done
in_ns "$NS_SRV" ip addr add 192.0.2.10/24 dev eth0
in_ns "$NS_SRV" ip route add 10.100.0.0/16 via 192.0.2.1
in_ns "$NS_OLT" sysctl -qw net.ipv4.ip_forward=1

# No lease file and no ping check: the server's own figure without disk waits.
# A fresh server for every run, so that neither leg meets the other's leases.
start_server() {
  ip netns exec "$NS_SRV" dnsmasq --keep-in-foreground --conf-file=/dev/null --port=0 --user=root \
    --interface=eth0 --bind-interfaces --dhcp-authoritative --no-ping --leasefile-ro \
    --dhcp-range=10.100.0.10,10.100.255.250,255.255.0.0,1h --dhcp-lease-max=100000 \
    --log-facility="$RUN/server.log" --quiet-dhcp </dev/null >>"$RUN/server.out" 2>&1 &
  echo $! >"$RUN/server.pid"
  pids+=($!)
  sleep 0.5
}
stop_server() { stop_pid "$(cat "$RUN/server.pid")"; }

cat >"$RUN/topo.ini" <<'EOF'
[system]
mac = 02:00:5e:10:00:01
hostname = OLT-BENCH
vlans = 1,100,200

[port ge1/1/2]
linux = br-srv0
pvid = 200

[port gpon1/1/1]
tagged = 100

[onu gpon1/1/1 1]
sn = BNCH0001
linux = br-onu1

[servport 1]
onu = gonu1/1/1:1
vlan = 100
uservlan = 100
lltag = 100
user-tag = untagged
action = translate

[vlanif 100]
address = 10.100.0.1/16

[vlanif 200]
address = 192.0.2.1/24
EOF
printf '[product]\nslot = 1\nenterprise = 99999\nsys_mac = 02:00:5e:10:00:01\nhostname = OLT-BENCH\n' \
  >"$RUN/product.ini"
echo '!' >"$RUN/dhcp.conf"

ip netns exec "$NS_OLT" "$BUILD/sim/oltsim" -t "$RUN/topo.ini" --fp-socket "$RUN/fp.sock" \
  --ctl-socket "$RUN/oltsim.ctl" --pid-file "$RUN/oltsim.pid" --log-file "$RUN/oltsim.log" \
  --devmgr-port $PORT --devmgr-async-port $((PORT + 1)) --client-port $((PORT + 2)) \
  </dev/null >>"$RUN/oltsim.out" 2>&1 &
pids+=($!)
ports_open() { [ "$(oltctl_ show ports | grep -c 'io=open')" -eq 2 ]; }
wait_for 10 ports_open || die "oltsim did not open its ports; see $RUN/oltsim.log (KEEP_RUN=1 keeps it)"

replays() { grep -c "Device manager state replay done" "$RUN/dhcp.log" 2>/dev/null || true; }
start_daemon() {
  local before
  before=$(replays)
  in_ns "$NS_OLT" "$BUILD/dhcp" -d -f "$RUN/dhcp.conf" --hal-socket "$RUN/fp.sock" \
    --vty-socket "$RUN/dhcp.vty" --pid-file "$RUN/dhcp.pid" --log-file "$RUN/dhcp.log" \
    --product-file "$RUN/product.ini" --devmgr-port $PORT --devmgr-async-port $((PORT + 1)) \
    --devmgr-listen-port $((PORT + 2)) </dev/null >>"$RUN/dhcp.out" 2>&1
  wait_for 10 eval '[ "$(replays)" -gt "${before:-0}" ]' || die "the daemon was not replayed; see $RUN/dhcp.log"
  dhcpsh_ -c "configure terminal" -c "ip dhcp-relay" -c "interface vlanif100" -c "ip dhcp relay-agent" \
    -c "ip dhcp relay-server-address 192.0.2.10" -c "exit" -c "interface ge1/1/2" -c "ip dhcp trust" >/dev/null \
    || die "relay configuration refused"
  trapped() { oltctl_ show traps | grep -q '^trap vid=100 v4=1'; }
  wait_for 5 trapped || die "VLAN 100 is not trapped to the daemon"
}
stop_daemon() {
  stop_pid "$(cat "$RUN/dhcp.pid")"
  rm -f "$RUN/dhcp.pid"
  oltctl_ trap 100 v4 off >/dev/null  # what the daemon asked for outlives it
}
start_dhcrelay() {
  ip netns exec "$NS_OLT" dhcrelay -4 -d -q -id vlanif100 -iu vlanif200 192.0.2.10 </dev/null >>"$RUN/dhcrelay.out" 2>&1 &
  echo $! >"$RUN/dhcrelay.pid"
  pids+=($!)
  sleep 1
}
stop_dhcrelay() { stop_pid "$(cat "$RUN/dhcrelay.pid")"; }

field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p" "$2" | head -1; }
run_leg() {  # run_leg LEG ROUND
  local leg=$1 r=$2 out="$RUN/$1.$2" slot=0
  [ "$leg" = daemon ] && slot=1
  local base=$(( (r * 2 + slot) * 65536 + 1 ))
  in_ns "$NS_SUB" timeout $((TIMEOUT + 30)) "$LOADGEN" --iface eth0 --clients "$CLIENTS" --window "$WINDOW" \
    --timeout "$TIMEOUT" --mac-base "$base" >"$out" 2>&1 || true
  echo "$leg round $r: $(cat "$out")"
  echo "$(field dora_per_s "$out") $(field completed "$out")" | awk '{ print ($1 == "" ? 0 : $1), ($2 == "" ? 0 : $2) }' \
    >>"$RUN/$leg.runs"
}
: >"$RUN/daemon.runs"
: >"$RUN/dhcrelay.runs"
daemon_leg() { start_server; start_daemon; run_leg daemon "$1"; stop_daemon; stop_server; }
dhcrelay_leg() { start_server; start_dhcrelay; run_leg dhcrelay "$1"; stop_dhcrelay; stop_server; }
for r in $(seq "$ROUNDS"); do
  if [ $((r % 2)) -eq 1 ]; then daemon_leg "$r"; dhcrelay_leg "$r"
  else dhcrelay_leg "$r"; daemon_leg "$r"; fi
done

median() { sort -n "$1" | awk '{ r[NR] = $1 } END { print (NR ? r[int((NR + 1) / 2)] : 0) }'; }
min_done() { awk 'NR == 1 || $2 < m { m = $2 } END { print m + 0 }' "$1"; }
daemon=$(median "$RUN/daemon.runs")
ref=$(median "$RUN/dhcrelay.runs")
echo
echo "$CLIENTS clients per run, window $WINDOW, server dnsmasq, median of $ROUNDS runs per leg"
printf '%-46s %10s %16s\n' leg DORA/s "fewest completed"
printf '%-46s %10s %16s\n' "dhcrelay on the vlanif taps (reference)" "$ref" "$(min_done "$RUN/dhcrelay.runs")"
printf '%-46s %10s %16s\n' "the daemon's layer-3 relay" "$daemon" "$(min_done "$RUN/daemon.runs")"
awk -v s="$daemon" -v d="$ref" 'BEGIN { printf "ratio daemon/dhcrelay: %.2f\n", (d > 0 ? s / d : 0) }'
