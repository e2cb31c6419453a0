#!/usr/bin/env bash
# oltsim with the daemon and real peers: trapped DISCOVERs reach the daemon with
# their receive port, service port and VLANs; untrapped traffic is switched
# within a VLAN and kept out of another.
source "$(dirname "$0")/e2e_env.sh"
start_oltsim
start_dhcp

# Trapped: each ONU's flow with its own GEM and user VLANs; the uplink without.
oltctl_ trap 100 v4 on >/dev/null
traced_after_discover "$NS_SUB1" "\[vid: 100\]<======= recieve packet on port gonu1/1/1:1 gem \[100:100\] vlan 100 len 346" \
  || fail "DISCOVER from ONU 1 not traced with its port and VLANs"
grep -A1 "recieve packet on port gonu1/1/1:1 " "$RUN/dhcp.log" | grep -q "\[vid: 100\]service port servport1$" \
  || fail "ONU 1's service port not traced"
traced_after_discover "$NS_SUB2" "recieve packet on port gonu1/1/1:2 gem \[1002:102\] vlan 100 len" \
  || fail "DISCOVER from ONU 2 not traced with its GEM and user VLANs"
grep -A1 "recieve packet on port gonu1/1/1:2 " "$RUN/dhcp.log" | grep -q "service port servport7$" \
  || fail "ONU 2's service port not traced"
traced_after_discover "$NS_UP" "\[vid: 100\]<======= recieve packet on port ge1/1/1 vlan 100 len" \
  || fail "uplink DISCOVER not traced on ge1/1/1"
! grep -A1 "recieve packet on port ge1/1/1 " "$RUN/dhcp.log" | grep -q "service port" \
  || fail "an uplink frame was given a service port"
[ "$(counter gonu1/1/1:1 rx_trapped)" -gt 0 ] || fail "oltsim did not count the trapped frames"
pass "trapped DISCOVERs traced with receive port, service port and VLANs"

# Untrapped, the whole exchange is switched: a real client takes a lease.
# (The server starts only now, so no OFFER was traced as the uplink DISCOVER.)
oltctl_ trap 100 v4 off >/dev/null
start_dhcpd
discover_from "$NS_SUB2" 3 || fail "no lease through the switch"
grep -q "binding state active" "$RUN/dhcpd.leases" || fail "the server recorded no lease"
in_ns "$NS_SUB1" ip addr add 192.168.100.21/24 dev eth0
in_ns "$NS_SUB2" ip addr add 192.168.100.22/24 dev eth0
ping_from "$NS_SUB1" 192.168.100.1 || fail "subscriber 1 cannot reach the upstream host"
ping_from "$NS_SUB1" 192.168.100.22 || fail "subscriber 1 cannot reach subscriber 2"
oltctl_ show macs 100 | grep -q "mac=$(mac_of "$NS_SUB2") port=gonu1/1/1:2 " || fail "subscriber 2 not learnt"

# A host in VLAN 200 with an address of VLAN 100's subnet: the ARP flood goes
# out of the uplink and never out of ge1/1/2.
in_ns "$NS_V200" ip addr add 192.168.100.23/24 dev eth0
in_ns "$NS_V200" ip addr add 192.0.2.2/24 dev eth0
tx200=$(counter ge1/1/2 tx_frames) tx1=$(counter ge1/1/1 tx_frames)
! ping_from "$NS_SUB1" 192.168.100.23 || fail "VLAN 100 reached a host in VLAN 200"
[ "$(counter ge1/1/1 tx_frames)" -gt "$tx1" ] || fail "the flood did not leave in VLAN 100"
[ "$(counter ge1/1/2 tx_frames)" -eq "$tx200" ] || fail "VLAN 100 frames were sent out of ge1/1/2"
! ping_from "$NS_V200" 192.168.100.21 || fail "VLAN 200 reached a host in VLAN 100"
ping_from "$NS_V200" 192.0.2.1 || fail "VLAN 200 does not reach its routed interface"
pass "switched within VLAN 100, isolated from VLAN 200"
