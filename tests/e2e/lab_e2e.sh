#!/usr/bin/env bash
# End to end on the lab: oltsim, the daemon, a real DHCP server and real
# clients in network namespaces. Needs BUILD_DIR (the build with dhcp, dhcpsh,
# oltsim, oltctl) and FP_MODULE (tests/e2e/fp_module). Exit 77: skipped.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/../.." && pwd)
: "${BUILD_DIR:?}" "${FP_MODULE:?}"
export LAB_NAME=e2e$$ LAB_RUN=/run/e2e$$

if ! ip netns add "$LAB_NAME-probe" 2>/dev/null; then
  echo "SKIP: network namespaces are not available here"
  exit 77
fi
ip netns del "$LAB_NAME-probe"

source "$ROOT/scripts/lab.sh"
trap 'down; [ -n "${KEEP_RUN:-}" ] || rm -rf "$RUN"' EXIT

fail() {
  echo "FAIL: $*"
  echo "---- $RUN/dhcp.log (end)"; tail -15 "$RUN/dhcp.log" 2>/dev/null || true
  echo "---- $RUN/oltsim.log (end)"; tail -15 "$RUN/oltsim.log" 2>/dev/null || true
  exit 1
}
pass() { echo "ok: $*"; }
count() { grep -c -- "$1" "$RUN/dhcp.log" 2>/dev/null || true; }
debug_on() { dhcpsh_ -c "configure terminal" -c "debug dhcp packet" >/dev/null; }
discover_from() {  # one DISCOVER round of busybox udhcpc in namespace $1
  in_ns "$1" timeout 10 busybox udhcpc -i eth0 -f -q -n -t 1 -T 1 -s /bin/true >/dev/null 2>&1 || true
}
more_than() { [ "$(count "$1")" -gt "$2" ]; }
traced_again() {  # a new trace line "$1" after sending from namespace $2
  local before
  before=$(count "$1")
  discover_from "$2"
  wait_for 5 more_than "$1" "$before"
}
sub_ping() {  # sub_ping NS DEST [SOURCE]
  in_ns "$1" ping -c 1 -W 1 ${3:+-I "$3"} "$2" >/dev/null 2>&1
}

up >/dev/null

# 1. A real client's DISCOVER reaches the daemon through the trap, with its
# receive port, service port and VLANs; an uplink frame carries no gem pair.
debug_on
oltctl_ trap 100 v4 on >/dev/null
traced_again "recieve packet on port gonu1/1/1:1 gem \[100:100\] vlan 100 len 346" "${NS_SUBS[0]}" \
  || fail "DISCOVER from ONU 1 not traced with its service port"
grep -q "\[vid: 100\]service port servport1" "$RUN/dhcp.log" || fail "service port not traced"
traced_again "recieve packet on port gonu1/1/1:2 gem \[100:100\] vlan 100" "${NS_SUBS[1]}" \
  || fail "DISCOVER from ONU 2 not traced"
traced_again "recieve packet on port ge1/1/1 vlan 100 len" "$NS_UP" || fail "uplink DISCOVER not traced"
grep -q "discovery from .* on port ge1/1/1 dispatched" "$RUN/dhcp.log" || fail "uplink DISCOVER not dispatched"
pass "trapped DISCOVERs traced with port, service port and VLAN"

# 2. Untrapped, oltsim switches: a real client takes a lease, hosts in VLAN 100
# reach each other; the routed VLAN 200 cannot be reached from VLAN 100.
oltctl_ trap 100 v4 off >/dev/null
client_dhclient >/dev/null 2>&1 || fail "dhclient got no lease through the switch"
grep -q "binding state active" "$RUN/dhcpd.leases" || fail "the server recorded no lease"
in_ns "${NS_SUBS[0]}" ip addr add 192.168.100.21/24 dev eth0
in_ns "${NS_SUBS[1]}" ip addr add 192.168.100.22/24 dev eth0
sub_ping "${NS_SUBS[0]}" 192.168.100.1 || fail "subscriber 1 cannot reach the upstream host"
sub_ping "${NS_SUBS[0]}" 192.168.100.22 || fail "subscriber 1 cannot reach subscriber 2"
in_ns "${NS_SUBS[0]}" ip addr add 192.0.2.50/24 dev eth0
! sub_ping "${NS_SUBS[0]}" 192.0.2.1 || fail "VLAN 100 reached the routed interface of VLAN 200"
in_ns "${NS_SUBS[0]}" ip addr del 192.0.2.50/24 dev eth0
pass "switched within VLAN 100, isolated from VLAN 200"

# 3. Restarting oltsim: the daemon registers again and is replayed; traps reach it.
replayed=$(replays)
stop_pid "$RUN/oltsim.pid"
start_oltsim
wait_for 15 replayed_since "$replayed" || fail "daemon not replayed after oltsim restarted"
module_registered() { oltctl_ show fp | grep -q "module=1027"; }
wait_for 15 module_registered || fail "daemon did not register again"
oltctl_ trap 100 v4 on >/dev/null
traced_again "recieve packet on port gonu1/1/1:1 gem" "${NS_SUBS[0]}" || fail "no trace after oltsim restart"
pass "oltsim restart: re-registered, replayed, trapping"

# 4. Restarting the daemon after kill -9: oltsim serves the new one.
kill -9 "$(cat "$RUN/dhcp.pid")"
registrations() { oltctl_ show fp | sed -n 's/.* registrations=\([0-9]*\).*/\1/p'; }
registered_since() { [ "$(registrations)" -gt "$1" ]; }
before=$(registrations)
start_dhcp
wait_for 10 registered_since "$before" || fail "restarted daemon did not register"
debug_on
traced_again "recieve packet on port gonu1/1/1:1 gem" "${NS_SUBS[0]}" || fail "no trace after daemon restart"
pass "daemon restart: registered, replayed, trapping"

# 5. IP source guard installed through the channel by a module: the bound
# source passes, a spoofed one and a withdrawn rule are dropped.
oltctl_ trap 100 v4 off >/dev/null
mac1=$(in_ns "${NS_SUBS[0]}" cat /sys/class/net/eth0/address)
onu1=$(oltctl_ show ports | sed -n 's/^port name=gonu1\/1\/1:1 ifindex=\([^ ]*\).*/\1/p')
fp() { "$FP_MODULE" "$RUN/fp.sock" "$@" >/dev/null; }
fp switch 100 on || fail "guard switch refused"
! sub_ping "${NS_SUBS[0]}" 192.168.100.1 || fail "guarded VLAN passed a client without a rule"
fp rule 100 "$onu1" "$mac1" 192.168.100.21 add || fail "rule refused"
sub_ping "${NS_SUBS[0]}" 192.168.100.1 || fail "the bound source was dropped"
in_ns "${NS_SUBS[0]}" ip addr add 192.168.100.23/24 dev eth0
drops() { oltctl_ show counters | sed -n 's/^counters port=gonu1\/1\/1:1 .* rx_drop_guard=\([0-9]*\).*/\1/p'; }
before=$(drops)
! sub_ping "${NS_SUBS[0]}" 192.168.100.1 192.168.100.23 || fail "a spoofed source passed"
[ "$(drops)" -gt "$before" ] || fail "spoofed frames not counted as guard drops"
fp rule 100 "$onu1" "$mac1" 192.168.100.21 del || fail "withdrawal refused"
! sub_ping "${NS_SUBS[0]}" 192.168.100.1 || fail "a withdrawn rule still passes"
fp switch 100 off
sub_ping "${NS_SUBS[0]}" 192.168.100.1 || fail "guard switched off still drops"
pass "IP source guard: bound passes, spoofed and withdrawn dropped"
