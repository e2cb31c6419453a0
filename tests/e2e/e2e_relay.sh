#!/usr/bin/env bash
# Layer-3 relay with real servers: a subscriber in VLAN 100 behind vlanif100
# (two addresses) and two servers reached by routing through vlanif200,
# isc-dhcpd on 192.0.2.10 and dnsmasq on 192.0.2.11. dnsmasq hears every
# DISCOVER but has no range for the relay's subnets: the relay sends a
# REQUEST to the first server in its list that made an offer, whichever offer
# the client took, so with two offering servers a client that took the other
# offer would go unanswered until it tried again.
source "$(dirname "$0")/e2e_env.sh"
NS_SRV2=$E-srv2
HOST_NS+=("$NS_SRV2")
quiet_ns "$NS_SRV2"
wire e2e-srv2 "$NS_SRV2"
cat >>"$RUN/topo.ini" <<'EOT'

[port ge1/1/3]
linux = e2e-srv2
pvid = 200

[vlanif 100]
address = 10.100.0.1/24
EOT
start_oltsim
in_ns "$NS_OLT" ip addr add 10.101.0.1/24 dev vlanif100
for s in "$NS_V200 192.0.2.10" "$NS_SRV2 192.0.2.11"; do
  set -- $s
  in_ns "$1" ip addr add "$2/24" dev eth0
  in_ns "$1" ip route add 10.100.0.0/15 via 192.0.2.1
done
start_dhcp

cat >"$RUN/relay-dhcpd.conf" <<'EOT'
authoritative;
ping-check false;
default-lease-time 600;
subnet 192.0.2.0 netmask 255.255.255.0 { }
subnet 10.100.0.0 netmask 255.255.255.0 { range 10.100.0.100 10.100.0.150; option routers 10.100.0.1; }
subnet 10.101.0.0 netmask 255.255.255.0 { range 10.101.0.100 10.101.0.150; option routers 10.101.0.1; }
EOT
touch "$RUN/relay-dhcpd.leases"
in_ns "$NS_V200" dhcpd -4 -q -cf "$RUN/relay-dhcpd.conf" -lf "$RUN/relay-dhcpd.leases" -pf "$RUN/dhcpd.pid" eth0 \
  </dev/null >>"$RUN/dhcpd.out" 2>&1 || fail "dhcpd did not start"
ip netns exec "$NS_SRV2" dnsmasq --no-daemon --conf-file=/dev/null --port=0 --interface=eth0 --bind-interfaces --no-ping \
  --dhcp-range=10.200.0.50,10.200.0.60,255.255.255.0,1h --dhcp-authoritative >"$RUN/dnsmasq.out" 2>&1 &
echo $! >"$RUN/dnsmasq.pid"
wait_for 5 grep -q "DHCP, IP range" "$RUN/dnsmasq.out" || fail "dnsmasq did not start: $(cat "$RUN/dnsmasq.out")"

dhcpsh_ -c "configure terminal" -c "ip dhcp-relay" -c "interface vlanif100" -c "ip dhcp relay-agent" \
  -c "ip dhcp relay-server-address 192.0.2.10" -c "ip dhcp relay-server-address 192.0.2.11" -c "exit" \
  -c "interface ge1/1/2" -c "ip dhcp trust" -c "exit" -c "interface ge1/1/3" -c "ip dhcp trust" >"$RUN/relay.out" \
  || fail "relay configuration refused: $(cat "$RUN/relay.out")"
oltctl_ show traps | grep -q "^trap vid=100 v4=1" || fail "relay did not trap VLAN 100: $(oltctl_ show traps)"

# One line per client message a server saw: "<type> <giaddr>".
requests_at() {
  tcpdump -r "$RUN/$1.pcap" -vvn 2>/dev/null | awk '
    /^[0-9][0-9]:/ { if (t != "") print t, g; t = ""; g = "-" }
    /Gateway-IP/ { g = $2 }
    /DHCP-Message \(53\)/ && req { t = $NF }
    /\.67 > .*\.67: .*Request/ { req = 1; next }
    /^[0-9][0-9]:/ { req = 0 }
    END { if (t != "") print t, g }'
}
dhclient_() { in_ns "$NS_SUB1" timeout "$1" dhclient -4 -1 -pf "$RUN/dhclient.pid" -lf "$RUN/dhclient.leases" \
  -sf /bin/true "${@:2}" eth0 >/dev/null 2>&1; }

capture_start "$NS_V200" srv1
capture_start "$NS_SRV2" srv2
dhclient_ 30 || fail "dhclient got no lease through the relay"
capture_stop srv1
capture_stop srv2
for srv in srv1 srv2; do
  for gi in 10.100.0.1 10.101.0.1; do
    requests_at $srv | grep -q "^Discover $gi$" || fail "$srv got no DISCOVER relayed from $gi: $(requests_at $srv)"
  done
done
pass "the DISCOVER reached both servers through both relay addresses"

ip=$(sed -n 's/^lease {//; s/^  fixed-address \(.*\);/\1/p' "$RUN/dhclient.leases" | tail -1)
server=$(sed -n 's/^  option dhcp-server-identifier \(.*\);/\1/p' "$RUN/dhclient.leases" | tail -1)
[ -n "$ip" ] && [ -n "$server" ] || fail "no lease recorded by dhclient"
chosen=srv1 other=srv2
[ "$server" = 192.0.2.11 ] && chosen=srv2 other=srv1
[ "$(requests_at $chosen | grep -c '^Request ')" -ge 1 ] || fail "the REQUEST did not reach $server"
! requests_at $other | grep -q '^Request ' || fail "the REQUEST also went to the server not chosen"
mac1=$(mac_of "$NS_SUB1")
binding_of "$mac1" | grep -Eq " 100 +relay +gonu1/1/1:1 +$ip " || fail "relay binding: '$(binding_of "$mac1")' for $ip"
pass "bound to $ip by $server, whose offer it took; the REQUEST went only there"

in_ns "$NS_SUB1" ip addr add "$ip/24" dev eth0
in_ns "$NS_SUB1" ip route add default via "${ip%.*}.1"
cp "$RUN/dhclient.leases" "$RUN/dhclient.bound"
dhclient_ 20 -r || fail "dhclient could not release"
wait_for 5 no_binding_of "$mac1" || fail "RELEASE left the relayed client"
pass "RELEASE removes the client"

# The lease from before the release makes dhclient start with a REQUEST for
# it, from a client the relay no longer knows.
in_ns "$NS_SUB1" ip addr flush dev eth0
cp "$RUN/dhclient.bound" "$RUN/dhclient.leases"
capture_start "$NS_SUB1" nak "udp src port 67"
dhclient_ 4 || true
capture_stop nak
tcpdump -r "$RUN/nak.pcap" -vvn 2>/dev/null | grep -A12 "Reply, length 250" | grep -q "DHCP-Message (53), length 1: NACK" \
  || fail "no 250-byte NAK for an unknown client's REQUEST: $(tcpdump -r "$RUN/nak.pcap" -vvn 2>&1 | head -30)"
pass "a REQUEST from an unknown client gets the NAK"

# A relay address goes away between exchanges: the next DISCOVER uses what is left.
in_ns "$NS_OLT" ip addr del 10.101.0.1/24 dev vlanif100
relay_show() { dhcpsh_ -c "show ip dhcp-relay interface vlanif100"; }
lost_second() { ! relay_show | grep -q "10.101.0.1"; }
wait_for 5 lost_second || fail "the deleted address is still a relay address: $(relay_show)"
capture_start "$NS_V200" srv1b
discover_from "$NS_SUB2" 6 || fail "no lease after a relay address went away"
capture_stop srv1b
[ "$(requests_at srv1b | grep '^Discover' | sort -u)" = "Discover 10.100.0.1" ] \
  || fail "DISCOVERs after the address loss: $(requests_at srv1b)"
pass "a deleted interface address stops being a relay address; relaying goes on"
