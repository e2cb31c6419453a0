#!/usr/bin/env bash
# Snooping with real peers: busybox udhcpc and dhclient take leases from
# isc-dhcpd through the daemon; the server sees one option 82 with the
# configured ids; the bindings drive IP source guard; RELEASE unbinds.
source "$(dirname "$0")/e2e_env.sh"
start_oltsim
start_dhcp
start_dhcpd
snoop_on "ip dhcp information circuit-id string e2e-circuit" "ip dhcp information remote-id string e2e-remote" \
  "ip verify source ip-address dynamic"
oltctl_ show traps | grep -q "^trap vid=100 v4=1" || fail "snooping did not trap VLAN 100: $(oltctl_ show traps)"

capture_start
discover_from "$NS_SUB1" 3 || fail "udhcpc got no lease through the daemon"
in_ns "$NS_SUB2" timeout 30 dhclient -4 -1 -pf "$RUN/dhclient.pid" -lf "$RUN/dhclient.leases" -sf /bin/true eth0 \
  >/dev/null 2>&1 || fail "dhclient got no lease through the daemon"
capture_stop
op82_of_requests >"$RUN/op82"
[ "$(grep -c . "$RUN/op82")" -ge 4 ] || fail "the server saw fewer than 4 requests: $(cat "$RUN/op82")"
[ "$(sort -u "$RUN/op82")" = "1|e2e-circuit|e2e-remote" ] \
  || fail "requests at the server without exactly one option 82 as configured: $(sort "$RUN/op82" | uniq -c)"
for id in 'agent.circuit-id "e2e-circuit"' 'agent.remote-id "e2e-remote"'; do
  [ "$(grep -c "option $id;" "$RUN/dhcpd.leases")" -ge 2 ] || fail "the leases file lacks $id"
done
pass "two real clients bound; every request reached the server with one option 82 as configured"

mac1=$(mac_of "$NS_SUB1") mac2=$(mac_of "$NS_SUB2")
row1=$(binding_of "$mac1") row2=$(binding_of "$mac2")
echo "$row1" | grep -Eq " 100 +snoop +gonu1/1/1:1 +192\.168\.100\.1[0-9]{2} +600 " || fail "binding of udhcpc: '$row1'"
echo "$row2" | grep -Eq " 100 +snoop +gonu1/1/1:2 +192\.168\.100\.1[0-9]{2} +600 " || fail "binding of dhclient: '$row2'"
dhcpsh_ -c "show ip dhcp-snooping binding" | grep -q "^Total binding entries: 2$" || fail "binding count"
ip1=$(echo "$row1" | awk '{print $5}') ip2=$(echo "$row2" | awk '{print $5}')
oltctl_ show guard | grep -q "^rule vid=100 port=gonu1/1/1:1 mac=$mac1 ip=$ip1$" || fail "no guard rule for udhcpc"
oltctl_ show guard | grep -q "^rule vid=100 port=gonu1/1/1:2 mac=$mac2 ip=$ip2$" || fail "no guard rule for dhclient"
pass "bindings with port, address and lease; one guard rule each"

in_ns "$NS_SUB1" ip addr add "$ip1/24" dev eth0
in_ns "$NS_SUB1" ip addr add 192.168.100.77/24 dev eth0
ping_from "$NS_SUB1" 192.168.100.1 "$ip1" || fail "the bound source was dropped"
before=$(counter gonu1/1/1:1 rx_drop_guard)
! ping_from "$NS_SUB1" 192.168.100.1 192.168.100.77 || fail "a spoofed source passed"
[ "$(counter gonu1/1/1:1 rx_drop_guard)" -gt "$before" ] || fail "spoofed frames not counted as guard drops"
pass "source guard passes the bound address and drops a spoofed one"

in_ns "$NS_SUB2" ip addr add "$ip2/24" dev eth0
in_ns "$NS_SUB2" timeout 20 dhclient -4 -r -pf "$RUN/dhclient.pid" -lf "$RUN/dhclient.leases" -sf /bin/true eth0 \
  >/dev/null 2>&1 || fail "dhclient could not release"
wait_for 5 no_binding_of "$mac2" || fail "RELEASE left the binding"
! oltctl_ show guard | grep -q "mac=$mac2" || fail "RELEASE left the guard rule"
[ -n "$(binding_of "$mac1")" ] || fail "RELEASE of one client removed the other"
pass "RELEASE removes the binding and its guard rule"
