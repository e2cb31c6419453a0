#!/usr/bin/env bash
# DORA per second of raw clients (bench/dhcp_loadgen) through the snooping
# OLT, beside the same clients on a veth pair straight to the same kind of
# server, in one run. Needs root (network namespaces).
#
#   snooped: subscriber ns -> ONU gonu1/1/1:1 -> oltsim -> dhcp (snooping on
#            VLAN 100, ge1/1/1 trusted, option 82 with a circuit-id profile)
#            -> ge1/1/1 -> upstream ns with the server
#   direct:  client ns -> veth -> server ns (same server configuration)
#
# Usage: bench_snoop_dora.sh [BUILD_DIR] [CLIENTS=2000] [ROUNDS=5] [SERVER=dnsmasq|dhcpd]
# Environment: WINDOW (outstanding clients, 64), TIMEOUT (seconds per run, 120),
# RELEASE_RATE (RELEASEs per second at the end of each run; 2000, dhcpd 300),
# KEEP_RUN=1 keeps the run directory (logs) in /tmp.
# Each leg's figure is the median of ROUNDS runs; the legs alternate, each run
# with fresh MACs, and every client releases its lease at the end of its run.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=$(cd "${1:-$ROOT/build-bench}" && pwd)
CLIENTS=${2:-2000}
ROUNDS=${3:-5}
SERVER=${4:-dnsmasq}
WINDOW=${WINDOW:-64}
TIMEOUT=${TIMEOUT:-120}
# RELEASEs get no answer, so they are paced to what the server's socket takes:
# dhcpd writes its lease file on every change.
RELEASE_RATE=${RELEASE_RATE:-$([ "$SERVER" = dhcpd ] && echo 300 || echo 2000)}
P=bdora$$
NS_OLT=$P-olt NS_UP=$P-up NS_SUB=$P-sub NS_DC=$P-dc NS_DS=$P-ds
NSS=("$NS_OLT" "$NS_UP" "$NS_SUB" "$NS_DC" "$NS_DS")
RUN=$(mktemp -d /tmp/bench-dora.XXXXXX)
NAME=bench_snoop_dora
case "$SERVER" in dnsmasq | dhcpd) ;; *) echo "$NAME: SERVER is dnsmasq or dhcpd" >&2; exit 1 ;; esac
source "$ROOT/bench/bench_env.sh"
command -v "$SERVER" >/dev/null || die "$SERVER is not installed"

# ---- wires ------------------------------------------------------------------------
ip link add bd-up0 netns "$NS_OLT" type veth peer name eth0 netns "$NS_UP"
ip link add bd-onu1 netns "$NS_OLT" type veth peer name eth0 netns "$NS_SUB"
ip link add eth0 netns "$NS_DC" type veth peer name eth0 netns "$NS_DS"
for ns in "$NS_UP" "$NS_SUB" "$NS_DC" "$NS_DS"; do in_ns "$ns" ip link set eth0 up; done
for ns in "$NS_UP" "$NS_DS"; do in_ns "$ns" ip addr add 10.100.0.1/20 dev eth0; done

# ---- the servers: one per leg, the same configuration ---------------------------
# A /20 pool holds 4000 addresses; every run releases what it took.
start_server() {  # start_server NS NAME
  local ns=$1 name=$2
  if [ "$SERVER" = dnsmasq ]; then
    # No lease file and no ping check: the server's own figure without disk waits.
    ip netns exec "$ns" dnsmasq --keep-in-foreground --conf-file=/dev/null --port=0 --user=root \
      --interface=eth0 --bind-interfaces --dhcp-authoritative --no-ping --leasefile-ro \
      --dhcp-range=10.100.0.10,10.100.15.250,255.255.240.0,1h --dhcp-lease-max=10000 \
      --log-facility="$RUN/$name.log" --quiet-dhcp --pid-file="$RUN/$name.pid" \
      </dev/null >>"$RUN/$name.out" 2>&1 &
    pids+=($!)
  else
    cat >"$RUN/$name.conf" <<EOF
authoritative;
ping-check false;
default-lease-time 3600;
max-lease-time 3600;
subnet 10.100.0.0 netmask 255.255.240.0 { range 10.100.0.10 10.100.15.250; }
EOF
    touch "$RUN/$name.leases"
    ip netns exec "$ns" dhcpd -4 -f -q -cf "$RUN/$name.conf" -lf "$RUN/$name.leases" -pf "$RUN/$name.pid" eth0 \
      </dev/null >>"$RUN/$name.out" 2>&1 &
    pids+=($!)
  fi
}
start_server "$NS_UP" server-up
SRV_UP_PID=${pids[-1]}
start_server "$NS_DS" server-direct
SRV_DS_PID=${pids[-1]}

# ---- the OLT: oltsim and the daemon ---------------------------------------------
cat >"$RUN/topo.ini" <<'EOF'
[system]
mac = 02:00:5e:10:00:01
hostname = OLT-BENCH
vlans = 1,100

[port ge1/1/1]
linux = bd-up0
pvid = 100

[port gpon1/1/1]
tagged = 100

[onu gpon1/1/1 1]
sn = BNCH0001
linux = bd-onu1

[servport 1]
onu = gonu1/1/1:1
vlan = 100
uservlan = 100
lltag = 100
user-tag = untagged
action = translate
EOF
printf '[product]\nslot = 1\nenterprise = 99999\nsys_mac = 02:00:5e:10:00:01\nhostname = OLT-BENCH\n' \
  >"$RUN/product.ini"
echo '!' >"$RUN/dhcp.conf"

ip netns exec "$NS_OLT" "$BUILD/sim/oltsim" -t "$RUN/topo.ini" --fp-socket "$RUN/fp.sock" \
  --ctl-socket "$RUN/oltsim.ctl" --pid-file "$RUN/oltsim.pid" --log-file "$RUN/oltsim.log" \
  --devmgr-port $PORT --devmgr-async-port $((PORT + 1)) --client-port $((PORT + 2)) \
  </dev/null >>"$RUN/oltsim.out" 2>&1 &
pids+=($!)
OLTSIM_PID=$!
ports_open() { [ "$(oltctl_ show ports | grep -c 'io=open')" -eq 2 ]; }
wait_for 10 ports_open || die "oltsim did not open its ports; see $RUN/oltsim.log (KEEP_RUN=1 keeps it)"

replayed() { grep -q "Device manager state replay done" "$RUN/dhcp.log" 2>/dev/null; }
in_ns "$NS_OLT" "$BUILD/dhcp" -d -f "$RUN/dhcp.conf" --hal-socket "$RUN/fp.sock" \
  --vty-socket "$RUN/dhcp.vty" --pid-file "$RUN/dhcp.pid" --log-file "$RUN/dhcp.log" \
  --product-file "$RUN/product.ini" --devmgr-port $PORT --devmgr-async-port $((PORT + 1)) \
  --devmgr-listen-port $((PORT + 2)) </dev/null >>"$RUN/dhcp.out" 2>&1
wait_for 10 replayed || die "the daemon was not replayed; see $RUN/dhcp.log"
DHCP_PID=$(cat "$RUN/dhcp.pid")

# Snooping as an operator sets it: option 82 whose circuit-id comes from a
# profile, "<access-node-id> <slot>/<port>:<onu>.<uvlan>".
dhcpsh_ -c "configure terminal" -c "ip dhcp-snooping" -c "ip dhcp information" \
  -c "ip dhcp information client-info replace" \
  -c "ip dhcp information profile BENCH" \
  -c "circuit-id index 1 variable access-node-id" -c "circuit-id index 2 delimiter space" \
  -c "circuit-id index 3 variable slot" -c "circuit-id index 4 delimiter /" \
  -c "circuit-id index 5 variable port" -c "circuit-id index 6 delimiter :" \
  -c "circuit-id index 7 variable onu" -c "circuit-id index 8 delimiter dot" \
  -c "circuit-id index 9 variable uvlan" -c "exit" \
  -c "vlan 100" -c "ip dhcp-snooping" -c "ip dhcp information" \
  -c "ip dhcp information circuit-id profile BENCH" -c "exit" \
  -c "interface ge1/1/1" -c "ip dhcp trust" >/dev/null || die "snooping configuration refused"
trapped() { oltctl_ show traps | grep -q 'vid=100'; }
wait_for 5 trapped || die "VLAN 100 is not trapped to the daemon"

# ---- the runs ---------------------------------------------------------------------
field() { sed -n "s/.*$1=\([0-9.]*\).*/\1/p" "$2" | head -1; }
cpu_ticks() { awk '{ print $14 + $15 }' "/proc/$1/stat" 2>/dev/null || echo 0; }
run_leg() {  # run_leg LEG NS ROUND
  local leg=$1 ns=$2 r=$3 out="$RUN/$1.$3"
  # Where the CPU goes: the leg's server, oltsim and the daemon (idle in the direct leg).
  local srv=$SRV_DS_PID
  [ "$leg" = snooped ] && srv=$SRV_UP_PID
  local s0 o0 d0
  s0=$(cpu_ticks "$srv") o0=$(cpu_ticks "$OLTSIM_PID") d0=$(cpu_ticks "$DHCP_PID")
  # Fresh MACs per run: a new crowd, not the last one renewing.
  local slot=0
  [ "$leg" = snooped ] && slot=1
  local base=$(( (r * 2 + slot) * 65536 + 1 ))
  in_ns "$ns" timeout $((TIMEOUT + 30)) "$LOADGEN" --iface eth0 --clients "$CLIENTS" --window "$WINDOW" \
    --timeout "$TIMEOUT" --mac-base "$base" --release --release-rate "$RELEASE_RATE" >"$out" 2>&1 || true
  echo "$leg round $r: $(cat "$out")"
  echo "$(field dora_per_s "$out") $(field completed "$out")" | awk '{ print ($1 == "" ? 0 : $1), ($2 == "" ? 0 : $2) }' \
    >>"$RUN/$leg.runs"
  echo "$(( $(cpu_ticks "$srv") - s0 )) $(( $(cpu_ticks "$OLTSIM_PID") - o0 )) $(( $(cpu_ticks "$DHCP_PID") - d0 ))" \
    "$(field cpu_s "$out") $(field completed "$out")" >>"$RUN/$leg.cpu"
  sleep 1  # the releases reach the server before the next crowd comes
}
: >"$RUN/direct.runs"
: >"$RUN/snooped.runs"
for r in $(seq "$ROUNDS"); do
  if [ $((r % 2)) -eq 1 ]; then run_leg direct "$NS_DC" "$r"; run_leg snooped "$NS_SUB" "$r"
  else run_leg snooped "$NS_SUB" "$r"; run_leg direct "$NS_DC" "$r"; fi
done

median() { sort -n "$1" | awk '{ r[NR] = $1 } END { print (NR ? r[int((NR + 1) / 2)] : 0) }'; }
min_done() { awk 'NR == 1 || $2 < m { m = $2 } END { print m + 0 }' "$1"; }
direct=$(median "$RUN/direct.runs")
snooped=$(median "$RUN/snooped.runs")
echo
echo "$CLIENTS clients per run, window $WINDOW, server $SERVER, median of $ROUNDS runs per leg"
printf '%-46s %10s %16s\n' leg DORA/s "fewest completed"
printf '%-46s %10s %16s\n' "direct veth to the server (reference)" "$direct" "$(min_done "$RUN/direct.runs")"
printf '%-46s %10s %16s\n' "through oltsim and the snooping daemon" "$snooped" "$(min_done "$RUN/snooped.runs")"
awk -v s="$snooped" -v d="$direct" 'BEGIN {
  r = d > 0 ? s / d : 0
  printf "ratio snooped/direct: %.2f (target >= 0.90: %s)\n", r, (r >= 0.9 ? "met" : "MISSED") }'
# CPU per client over each leg's runs (its DORA and its RELEASE), in microseconds.
HZ=$(getconf CLK_TCK)
for leg in direct snooped; do
  awk -v hz="$HZ" -v leg="$leg" '{ s += $1; o += $2; d += $3; l += $4; n += $5 }
    END { if (n) printf "CPU per client, %-8s server %4.0f us, oltsim %4.0f us, dhcp %4.0f us, loadgen %4.0f us\n",
          leg ":", s / hz / n * 1e6, o / hz / n * 1e6, d / hz / n * 1e6, l / n * 1e6 }' "$RUN/$leg.cpu"
done
# Requests a server's socket had no room for: retransmissions, not the path.
rcvbuf_errors() { in_ns "$1" awk '/^Udp:/ && n++ { print $6 }' /proc/net/snmp; }
echo "server socket overflows (UDP RcvbufErrors): upstream $(rcvbuf_errors "$NS_UP"), direct $(rcvbuf_errors "$NS_DS")"
# The snooped exchanges did go through the daemon: what oltsim handed it and
# what it sent back (DISCOVER, OFFER, REQUEST, ACK and RELEASE of every client).
oltctl_ show fp | awk '{ for (i = 1; i <= NF; i++) { split($i, kv, "="); v[kv[1]] = kv[2] } }
  END { printf "oltsim: %s frames trapped to the daemon (%s dropped), %s sent back by it\n",
        v["pkts_out"], v["pkts_out_drop"], v["pkts_in"] }' || true
