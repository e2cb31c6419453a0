#!/usr/bin/env bash
# Option 82 policies against a client that brings its own (busybox udhcpc -x),
# a circuit-id profile, a rogue server behind an ONU, and the ageing of a
# binding whose client leaves without RELEASE.
source "$(dirname "$0")/e2e_env.sh"
start_oltsim
start_dhcp
start_dhcpd 10
# A rogue server behind ONU 2 (dnsmasq). Before snooping, the VLAN is
# switched and the rogue answers a subscriber; its OFFER is kept for later.
in_ns "$NS_SUB2" ip addr add 10.99.0.1/24 dev eth0
capture_start "$NS_SUB2" rogue "udp src port 67"
ip netns exec "$NS_SUB2" dnsmasq --no-daemon --conf-file=/dev/null --port=0 --interface=eth0 --bind-interfaces \
  --dhcp-range=10.99.0.50,10.99.0.60,1h --dhcp-authoritative --no-ping >"$RUN/dnsmasq.out" 2>&1 &
echo $! >"$RUN/rogue.pid"
wait_for 5 grep -q "DHCP, IP range" "$RUN/dnsmasq.out" || fail "dnsmasq did not start: $(cat "$RUN/dnsmasq.out")"
discover_from "$NS_SUB1" 2 || true
wait_for 5 grep -q "DHCPOFFER(eth0) 10.99.0" "$RUN/dnsmasq.out" || fail "the rogue server never offered"
sleep 0.3
capture_stop rogue
stop_pid "$RUN/rogue.pid"

# Profile: ONU serial, ":", ONU number, "/", VLAN.
dhcpsh_ -c "configure terminal" -c "ip dhcp-snooping" -c "ip dhcp information profile P1" \
  -c "circuit-id index 1 variable sn" -c "circuit-id index 2 delimiter :" -c "circuit-id index 3 variable onu" \
  -c "circuit-id index 4 delimiter /" -c "circuit-id index 5 variable uvlan" >/dev/null || fail "profile refused"
snoop_on "ip dhcp information circuit-id profile P1" "ip dhcp information remote-id sysname" \
  "ip verify source ip-address dynamic"
policy() { dhcpsh_ -c "configure terminal" -c "ip dhcp information client-info $1" >/dev/null || fail "policy $1"; }

# The client's own option 82: circuit-id "own", remote-id "rid".
OWN=0x52:01036f776e0203726964
requests_with() {  # requests_with [udhcpc -x option]: the upstream's view of one client's exchange
  capture_start
  in_ns "$NS_SUB1" timeout 10 busybox udhcpc -i eth0 -f -q -n -t 2 -T 1 -s /bin/true ${1:+-x "$1"} >/dev/null 2>&1
  local rc=$?
  capture_stop
  op82_of_requests | sort -u
  return $rc
}
ours="1|E2ES0001:1/100|OLT-E2E"
got=$(requests_with) || true
[ "$got" = "$ours" ] || fail "profile/sysname ids: $got"
[ "$(requests_with $OWN)" = "$ours" ] || fail "replace did not put our ids in place of the client's"
policy keep
[ "$(requests_with $OWN)" = "1|own|rid" ] || fail "keep did not pass the client's option 82 unchanged"
[ "$(requests_with)" = "$ours" ] || fail "keep: a client without option 82 did not get ours"
policy drop
! out=$(requests_with $OWN) || fail "drop: the client still got a lease"
[ -z "$out" ] || fail "drop: the server saw the client's requests: $out"
grep -q "drop the packets due to client option82" "$RUN/dhcp.log" || fail "drop not logged"
[ "$(requests_with)" = "$ours" ] || fail "drop: a client without option 82 was refused"
policy replace
pass "replace, keep and drop against a client's own option 82; profile and sysname ids"

# Snooped, the same OFFER from the rogue's port is dropped as untrusted and
# never reaches the subscriber.
capture_start "$NS_SUB1" victim "udp src port 67"
in_ns "$NS_SUB2" tcpreplay -q -t -i eth0 "$RUN/rogue.pcap" >/dev/null 2>&1 || fail "could not replay the rogue OFFER"
wait_for 5 grep -q "drop the offer packet from un-trust port gonu1/1/1:2" "$RUN/dhcp.log" \
  || fail "rogue OFFER not dropped as untrusted"
capture_stop victim
[ "$(frames_in victim)" = 0 ] || fail "the rogue OFFER reached the subscriber: $(tcpdump -r "$RUN/victim.pcap" -n 2>&1)"
pass "a rogue server's OFFER from an access port is dropped"

# No RELEASE: the 10 s lease runs out and ageing removes binding and rule.
mac1=$(mac_of "$NS_SUB1")
discover_from "$NS_SUB1" 3 || fail "no lease before ageing"
binding_of "$mac1" | grep -Eq " 192\.168\.100\.1[0-9]{2} +([1-9]|10) " || fail "binding before ageing: $(binding_of "$mac1")"
oltctl_ show guard | grep -q "mac=$mac1" || fail "no guard rule before ageing"
wait_for 20 no_binding_of "$mac1" || fail "the binding did not age out"
! oltctl_ show guard | grep -q "mac=$mac1" || fail "ageing left the guard rule"
pass "an expired binding ages out with its guard rule"
