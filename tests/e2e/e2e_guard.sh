#!/usr/bin/env bash
# IP source guard set through the channel by a module (fp_module, on the
# daemon's channel code): only the bound (port, MAC, address) passes. No
# daemon here, so the module is the only one registered.
source "$(dirname "$0")/e2e_env.sh"
: "${FP_MODULE:?}"
start_oltsim
start_dhcpd

fp() { "$FP_MODULE" "$RUN/fp.sock" "$@"; }
drops() { counter gonu1/1/1:1 rx_drop_guard; }
mac1=$(mac_of "$NS_SUB1")
onu1=$(port_ifindex gonu1/1/1:1) onu2=$(port_ifindex gonu1/1/1:2)
in_ns "$NS_SUB1" ip addr add 192.168.100.21/24 dev eth0
ping_from "$NS_SUB1" 192.168.100.1 || fail "no ping before the guard"

fp switch 100 on >/dev/null || fail "guard switch refused"
oltctl_ show guard | grep -q "^guard vid=100 on=1" || fail "guard not on for VLAN 100"
before=$(drops)
! ping_from "$NS_SUB1" 192.168.100.1 || fail "a guarded VLAN passed a source without a rule"
[ "$(drops)" -gt "$before" ] || fail "unbound frames not counted as guard drops"
discover_from "$NS_SUB2" 3 || fail "DHCP did not pass the guard"
fp rule 100 "$onu2" "$mac1" 192.168.100.21 add >/dev/null || fail "rule refused"
! ping_from "$NS_SUB1" 192.168.100.1 || fail "a rule for another port passed"
fp rule 100 "$onu1" "$mac1" 192.168.100.21 add >/dev/null || fail "rule refused"
oltctl_ show guard | grep -q "^rule vid=100 port=gonu1/1/1:1 mac=$mac1 ip=192.168.100.21" \
  || fail "rule not installed as sent"
ping_from "$NS_SUB1" 192.168.100.1 || fail "the bound source was dropped"
pass "guard on: unbound dropped and counted, DHCP passes, bound source passes"

in_ns "$NS_SUB1" ip addr add 192.168.100.23/24 dev eth0
before=$(drops)
! ping_from "$NS_SUB1" 192.168.100.1 192.168.100.23 || fail "a spoofed source passed"
[ "$(drops)" -gt "$before" ] || fail "spoofed frames not counted as guard drops"
fp rule 100 "$onu1" "$mac1" 192.168.100.21 del >/dev/null || fail "withdrawal refused"
! ping_from "$NS_SUB1" 192.168.100.1 || fail "a withdrawn rule still passes"
[ "$(fp rule 100 "$onu1" "$mac1" 192.168.100.21 del)" = "result=101007" ] \
  || fail "withdrawing an absent rule not answered as not found"
fp switch 100 off >/dev/null || fail "guard switch-off refused"
ping_from "$NS_SUB1" 192.168.100.1 192.168.100.23 || fail "the guard switched off still drops"
pass "spoofed source dropped, withdrawn rule blocks, switch-off releases"
