#!/usr/bin/env bash
# The lab: oltsim and the dhcp daemon in one namespace, an upstream network
# with a real DHCP server, and two subscribers behind ONUs, wired with veth
# pairs.
#
#   lab.sh demo    build, bring the lab up, configure snooping, and show real
#                  clients' leases, the bindings, option 82 at the server, IP
#                  source guard and a release; then a lease through the
#                  layer-3 relay; tear down (the main job)
#   lab.sh up      bring it up and leave it running (then: lab.sh shell ...)
#   lab.sh down    tear everything down (also after a failure)
#   lab.sh shell ARGS...   dhcpsh on the lab's daemon
#   lab.sh ctl ARGS...     oltctl on the lab's oltsim
#   lab.sh exec NS CMD...  run a command in a lab namespace (olt, up, srv, sub1, sub2)
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${BUILD_DIR:-$ROOT/build}
LAB=${LAB_NAME:-dhcplab}
RUN=${LAB_RUN:-/run/$LAB}
NS_OLT=$LAB-olt
NS_UP=$LAB-up
NS_SRV=$LAB-srv
NS_SUBS=($LAB-sub1 $LAB-sub2)
OLT_IFS=(lab-onu1 lab-onu2)

say() { printf '\n== %s\n' "$*"; }
die() { echo "lab: $*" >&2; exit 1; }

in_ns() { local ns=$1; shift; ip netns exec "$ns" "$@"; }
dhcpsh_() { "$BUILD/dhcpsh" -s "$RUN/dhcp.vty" "$@"; }
oltctl_() { "$BUILD/sim/oltctl" -s "$RUN/oltsim.ctl" "$@"; }

wait_for() {  # wait_for SECONDS TEST...
  local t=$(( $1 * 10 )); shift
  while ! "$@" 2>/dev/null; do
    t=$((t - 1)); [ $t -gt 0 ] || return 1
    sleep 0.1
  done
}

# Only the processes this lab started, by the pids it recorded.
stop_pid() {
  local f=$1 pid
  [ -f "$f" ] || return 0
  pid=$(cat "$f" 2>/dev/null || true)
  if [ -n "$pid" ] && kill -0 "$pid" 2>/dev/null; then
    kill "$pid" 2>/dev/null || true
    for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || break; sleep 0.1; done
    kill -9 "$pid" 2>/dev/null || true
  fi
  rm -f "$f"
}

down() {
  for p in udhcpc-sub1 dhclient-sub2 dhcpd dnsmasq dhcp oltsim; do stop_pid "$RUN/$p.pid"; done
  for ns in "${NS_SUBS[@]}" "$NS_SRV" "$NS_UP" "$NS_OLT"; do
    # Whatever the lab left running in its own namespaces (a client of a failed step).
    for pid in $(ip netns pids "$ns" 2>/dev/null); do kill "$pid" 2>/dev/null || true; done
    ip netns del "$ns" 2>/dev/null || true
  done
  rm -f "$RUN"/*.sock "$RUN"/*.vty "$RUN"/*.ctl
}

build() {
  bash "$ROOT/scripts/setup.sh"
  cmake -S "$ROOT" -B "$BUILD" -DDHCP_WERROR=ON >/dev/null
  cmake --build "$BUILD" -j2 --target dhcp dhcpsh oltsim oltctl
}

start_oltsim() {
  rm -f "$RUN/oltsim.ctl"
  ip netns exec "$NS_OLT" "$BUILD/sim/oltsim" -t "$ROOT/lab/lab.ini" --fp-socket "$RUN/fp.sock" \
    --ctl-socket "$RUN/oltsim.ctl" --pid-file "$RUN/oltsim.pid" --log-file "$RUN/oltsim.log" \
    </dev/null >>"$RUN/oltsim.out" 2>&1 &
  wait_for 10 test -S "$RUN/oltsim.ctl" || die "oltsim did not start; see $RUN/oltsim.log"
}

replays() { grep -c "Device manager state replay done" "$RUN/dhcp.log" 2>/dev/null || true; }
replayed_since() { [ "$(replays)" -gt "$1" ]; }

start_dhcp() {
  local before
  before=$(replays)
  rm -f "$RUN/dhcp.vty"
  in_ns "$NS_OLT" "$BUILD/dhcp" -d -f "$RUN/dhcp.conf" --hal-socket "$RUN/fp.sock" \
    --vty-socket "$RUN/dhcp.vty" --pid-file "$RUN/dhcp.pid" --log-file "$RUN/dhcp.log" \
    --product-file "$ROOT/lab/product.ini" </dev/null >>"$RUN/dhcp.out" 2>&1
  wait_for 10 test -S "$RUN/dhcp.vty" || die "dhcp did not start; see $RUN/dhcp.log"
  wait_for 10 replayed_since "${before:-0}" || die "no device replay; see $RUN/dhcp.log"
}

up() {
  [ "$(id -u)" -eq 0 ] || die "run as root (namespaces, AF_PACKET)"
  ip netns add "$LAB-probe" 2>/dev/null || die "network namespaces are not available here"
  ip netns del "$LAB-probe"
  down
  mkdir -p "$RUN"
  chmod 750 "$RUN"
  rm -f "$RUN"/*.log "$RUN"/*.out "$RUN"/*.leases "$RUN"/*.leases~

  say "namespaces and veth pairs"
  ip netns add "$NS_OLT"
  ip netns add "$NS_UP"
  in_ns "$NS_OLT" ip link set lo up
  in_ns "$NS_UP" ip link set lo up
  ip link add lab-up0 netns "$NS_OLT" type veth peer name eth0 netns "$NS_UP"
  in_ns "$NS_UP" ip addr add 192.168.100.1/24 dev eth0
  in_ns "$NS_UP" ip link set eth0 up
  ip netns add "$NS_SRV"
  in_ns "$NS_SRV" ip link set lo up
  ip link add lab-srv0 netns "$NS_OLT" type veth peer name eth0 netns "$NS_SRV"
  in_ns "$NS_SRV" ip addr add 192.0.2.10/24 dev eth0
  in_ns "$NS_SRV" ip link set eth0 up
  in_ns "$NS_SRV" ip route add 10.100.0.0/24 via 192.0.2.1
  for i in 0 1; do
    ip netns add "${NS_SUBS[$i]}"
    in_ns "${NS_SUBS[$i]}" ip link set lo up
    ip link add "${OLT_IFS[$i]}" netns "$NS_OLT" type veth peer name eth0 netns "${NS_SUBS[$i]}"
    in_ns "${NS_SUBS[$i]}" ip link set eth0 up
  done
  ip -n "$NS_OLT" -br link

  say "oltsim (software OLT: device manager and forwarding plane)"
  start_oltsim
  oltctl_ show ports

  say "dhcp daemon"
  cp "$ROOT/lab/dhcp.conf" "$RUN/dhcp.conf"
  start_dhcp
  oltctl_ show fp

  say "upstream DHCP server (isc-dhcp-server) on 192.168.100.1"
  touch "$RUN/dhcpd.leases"
  in_ns "$NS_UP" dhcpd -4 -q -cf "$ROOT/lab/dhcpd.conf" -lf "$RUN/dhcpd.leases" -pf "$RUN/dhcpd.pid" eth0 \
    </dev/null >>"$RUN/dhcpd.out" 2>&1 || die "dhcpd did not start; see $RUN/dhcpd.out"

  say "routed DHCP server (dnsmasq) on 192.0.2.10, for the relay's subnet 10.100.0.0/24"
  ip netns exec "$NS_SRV" dnsmasq --no-daemon --conf-file=/dev/null --port=0 --interface=eth0 --bind-interfaces --no-ping \
    --dhcp-range=10.100.0.50,10.100.0.99,255.255.255.0,10m --dhcp-option=3,10.100.0.1 --log-dhcp \
    </dev/null >>"$RUN/dnsmasq.out" 2>&1 &
  echo $! >"$RUN/dnsmasq.pid"
  wait_for 10 grep -q "DHCP, IP range" "$RUN/dnsmasq.out" || die "dnsmasq did not start; see $RUN/dnsmasq.out"
}

# One DHCP attempt of a real client in a subscriber namespace; 0 when it got a lease.
client_udhcpc() {
  in_ns "${NS_SUBS[0]}" timeout 20 busybox udhcpc -i eth0 -f -q -n -t 3 -T 2 -s /bin/true
}
client_dhclient() {
  in_ns "${NS_SUBS[1]}" timeout 30 dhclient -4 -1 -v -pf "$RUN/dhclient-sub2.pid" \
    -lf "$RUN/dhclient-sub2.leases" -sf /bin/true eth0
}

# The operator's snooping configuration, one shell line each.
SNOOP_CONF=(
  "configure terminal"
  "ip dhcp-snooping"
  "ip dhcp information"
  "ip dhcp information access-node-id string OLT-LAB"
  "vlan 100"
  " ip dhcp-snooping"
  " ip dhcp information"
  " ip dhcp information remote-id sysname"
  " ip verify source ip-address dynamic"
  " exit"
  "interface ge1/1/1"
  " ip dhcp trust"
  " end"
)
transcript() {  # echo each line as typed at the prompt, then run them in one session
  local args=() l
  for l in "$@"; do echo "OLT-LAB# ${l# }"; args+=(-c "${l# }"); done
  dhcpsh_ "${args[@]}"
}
sub_ip() { binding_row "$1" | awk '{print $5}'; }
binding_row() { dhcpsh_ -c "show ip dhcp-snooping binding" | grep " gonu1/1/1:$1 " || true; }

demo() {
  build
  trap 'echo "lab: failed; tearing down" >&2; down' ERR
  up

  say "dhcpsh: DHCP snooping on VLAN 100 with option 82 and IP source guard; the uplink trusted"
  transcript "${SNOOP_CONF[@]}"
  transcript "show running-config"
  oltctl_ show traps

  say "two real clients take leases from isc-dhcpd through the daemon"
  client_udhcpc
  client_dhclient
  transcript "show ip dhcp-snooping binding"
  transcript "show ip source binding"

  say "the server got the relay-agent information (dhcpd.leases)"
  grep -E "^lease|hardware ethernet|agent\." "$RUN/dhcpd.leases"

  say "IP source guard: the forwarding plane's rules, a bound and a spoofed source"
  oltctl_ show guard
  local ip1
  ip1=$(sub_ip 1)
  in_ns "${NS_SUBS[0]}" ip addr add "$ip1/24" dev eth0
  in_ns "${NS_SUBS[0]}" ip addr add 192.168.100.99/24 dev eth0
  echo "ping from the bound $ip1: $(in_ns "${NS_SUBS[0]}" ping -c 1 -W 1 -I "$ip1" 192.168.100.1 | grep transmitted)"
  echo "ping from a spoofed 192.168.100.99: $(in_ns "${NS_SUBS[0]}" ping -c 1 -W 1 -I 192.168.100.99 192.168.100.1 \
    | grep transmitted)"
  oltctl_ show counters | grep -o "port=gonu1/1/1:1 .*rx_drop_guard=[0-9]*" | sed 's/rx_frames.*rx_trapped/... rx_trapped/'

  say "dhclient releases: the binding and its rule go"
  in_ns "${NS_SUBS[1]}" ip addr add "$(sub_ip 2)/24" dev eth0
  in_ns "${NS_SUBS[1]}" timeout 20 dhclient -4 -r -pf "$RUN/dhclient-sub2.pid" -lf "$RUN/dhclient-sub2.leases" \
    -sf /bin/true eth0
  sleep 0.5
  transcript "show ip dhcp-snooping binding"
  oltctl_ show guard

  say "layer-3 relay: vlanif100 relays VLAN 100 to the server on 192.0.2.10, reached through vlanif200"
  transcript "configure terminal" "ip dhcp-relay" "interface vlanif100" " ip dhcp relay-agent" \
    " ip dhcp relay-server-address 192.0.2.10" " exit" "interface ge1/1/2" " ip dhcp trust" " end"
  client_dhclient
  grep -E "DHCPOFFER|DHCPACK" "$RUN/dnsmasq.out" | tail -2
  transcript "show ip dhcp-relay interface vlanif100"
  transcript "show ip dhcp-snooping binding"

  trap - ERR
  say "done; tearing down (lab.sh up keeps it running)"
  down
}

# Sourced (by the end-to-end tests) it only defines the functions.
[[ "${BASH_SOURCE[0]}" == "$0" ]] || return 0

case "${1:-demo}" in
  demo) demo ;;
  up) build; up; echo "lab is up: lab.sh shell / lab.sh ctl / lab.sh down" ;;
  down) down ;;
  shell) shift; dhcpsh_ "$@" ;;
  ctl) shift; oltctl_ "$@" ;;
  exec) shift; ns=$1; shift; in_ns "$LAB-$ns" "$@" ;;
  *) sed -n '2,13p' "$0"; exit 2 ;;
esac
