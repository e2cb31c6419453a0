# Sourced by the end-to-end tests: a private copy of the lab in network
# namespaces named after the test's pid, torn down on exit however it ends.
#
#   $E-olt   oltsim and the daemon
#   $E-up    upstream host 192.168.100.1 with isc-dhcp-server   (ge1/1/1, VLAN 100)
#   $E-sub1  subscriber behind ONU gonu1/1/1:1, service port 1   (VLAN 100)
#   $E-sub2  subscriber behind ONU gonu1/1/1:2, service port 7   (VLAN 100)
#   $E-v200  host on ge1/1/2, VLAN 200, routed by vlanif200 192.0.2.1
#
# Needs BUILD_DIR (dhcp, dhcpsh, sim/oltsim, sim/oltctl); FP_MODULE for the
# channel tests. Exit 77 when namespaces cannot be made here.
set -euo pipefail
: "${BUILD_DIR:?}"
E=e2e$$
NS_OLT=$E-olt NS_UP=$E-up NS_SUB1=$E-sub1 NS_SUB2=$E-sub2 NS_V200=$E-v200
HOST_NS=("$NS_UP" "$NS_SUB1" "$NS_SUB2" "$NS_V200")
RUN=$(mktemp -d /tmp/e2e.XXXXXX)
# The manager's ports live in the private namespace; still off the defaults,
# so nothing started with default ports can pair with ours.
PORT=$((20000 + ($$ % 5000) * 4))

in_ns() { local ns=$1; shift; ip netns exec "$ns" "$@"; }
dhcpsh_() { "$BUILD_DIR/dhcpsh" -s "$RUN/dhcp.vty" "$@"; }
oltctl_() { "$BUILD_DIR/sim/oltctl" -s "$RUN/oltsim.ctl" "$@"; }
pass() { echo "ok: $*"; }
fail() {
  echo "FAIL: $*"
  for f in dhcp.log oltsim.log; do echo "---- $f (end)"; tail -20 "$RUN/$f" 2>/dev/null || true; done
  echo "---- counters"; oltctl_ show counters 2>&1 | cut -c1-200 || true
  exit 1
}

wait_for() {  # wait_for SECONDS TEST...
  local t=$(($1 * 10)); shift
  until "$@" 2>/dev/null; do
    t=$((t - 1)); [ $t -gt 0 ] || return 1
    sleep 0.1
  done
}

stop_pid() {  # stop_pid PIDFILE [SIGNAL]: only what we started, by its recorded pid
  local pid
  pid=$(cat "$1" 2>/dev/null) || return 0
  rm -f "$1"
  kill -0 "$pid" 2>/dev/null || return 0
  kill "-${2:-TERM}" "$pid" 2>/dev/null || true
  for _ in $(seq 50); do kill -0 "$pid" 2>/dev/null || return 0; sleep 0.1; done
  kill -9 "$pid" 2>/dev/null || true
}

e2e_cleanup() {
  for p in dhcp oltsim dhcpd; do stop_pid "$RUN/$p.pid"; done
  # Clients left behind by a failed step: they run only in our namespaces.
  for ns in "$NS_OLT" "${HOST_NS[@]}"; do
    for pid in $(ip netns pids "$ns" 2>/dev/null); do kill -9 "$pid" 2>/dev/null || true; done
    ip netns del "$ns" 2>/dev/null || true
  done
  [ -n "${KEEP_RUN:-}" ] || rm -rf "$RUN"
}

if ! ip netns add "$NS_OLT" 2>/dev/null; then
  echo "SKIP: cannot create network namespaces here (needs root)"
  rm -rf "$RUN"
  exit 77
fi
trap e2e_cleanup EXIT

# No IPv6 anywhere: router solicitations and MLD would blur the counters.
quiet_ns() {
  [ "$1" = "$NS_OLT" ] || ip netns add "$1"
  in_ns "$1" sysctl -qw net.ipv6.conf.all.disable_ipv6=1 net.ipv6.conf.default.disable_ipv6=1
  in_ns "$1" ip link set lo up
}
for ns in "$NS_OLT" "${HOST_NS[@]}"; do quiet_ns "$ns"; done
wire() {  # wire OLT-IF HOST-NS: a veth pair, the host end is eth0
  ip link add "$1" netns "$NS_OLT" type veth peer name eth0 netns "$2"
  in_ns "$2" ip link set eth0 up
}
wire e2e-up0 "$NS_UP"
wire e2e-onu1 "$NS_SUB1"
wire e2e-onu2 "$NS_SUB2"
wire e2e-v200 "$NS_V200"
in_ns "$NS_UP" ip addr add 192.168.100.1/24 dev eth0

# Service port 7 differs from ONU 2's id and carries its own GEM and user
# VLANs, so a mixed-up field shows in the trace.
cat >"$RUN/topo.ini" <<'EOF'
[system]
mac = 02:00:5e:10:00:01
hostname = OLT-E2E
vlans = 1,100,200

[port ge1/1/1]
linux = e2e-up0
pvid = 100

[port ge1/1/2]
linux = e2e-v200
pvid = 200

[port gpon1/1/1]
tagged = 100

[onu gpon1/1/1 1]
sn = E2ES0001
linux = e2e-onu1

[onu gpon1/1/1 2]
sn = E2ES0002
linux = e2e-onu2

[servport 1]
onu = gonu1/1/1:1
vlan = 100
user-tag = untagged

[servport 7]
onu = gonu1/1/1:2
vlan = 100
lltag = 1002
uservlan = 102
user-tag = untagged

[vlanif 200]
address = 192.0.2.1/24
EOF
printf '[product]\nslot = 1\nenterprise = 99999\nsys_mac = 02:00:5e:10:00:01\nhostname = OLT-E2E\n' \
  >"$RUN/product.ini"
echo '!' >"$RUN/dhcp.conf"

ports_open() { [ "$(oltctl_ show ports | grep -c "io=open")" -eq "$(grep -c "^linux = " "$RUN/topo.ini")" ]; }
start_oltsim() {
  rm -f "$RUN/oltsim.ctl"
  ip netns exec "$NS_OLT" "$BUILD_DIR/sim/oltsim" -t "$RUN/topo.ini" --fp-socket "$RUN/fp.sock" \
    --ctl-socket "$RUN/oltsim.ctl" --pid-file "$RUN/oltsim.pid" --log-file "$RUN/oltsim.log" \
    --devmgr-port $PORT --devmgr-async-port $((PORT + 1)) --client-port $((PORT + 2)) \
    </dev/null >>"$RUN/oltsim.out" 2>&1 &
  wait_for 10 ports_open || fail "oltsim did not open its ports"
}

log_count() { cat "$RUN/dhcp.log" 2>/dev/null | grep -c -- "$1" || true; }
replays() { log_count "Device manager state replay done"; }
replayed_since() { [ "$(replays)" -gt "$1" ]; }

start_dhcp() {  # the daemon daemonizes itself; it is back once the manager replayed
  local before
  before=$(replays)
  rm -f "$RUN/dhcp.vty"
  in_ns "$NS_OLT" "$BUILD_DIR/dhcp" -d -f "$RUN/dhcp.conf" --hal-socket "$RUN/fp.sock" \
    --vty-socket "$RUN/dhcp.vty" --pid-file "$RUN/dhcp.pid" --log-file "$RUN/dhcp.log" \
    --product-file "$RUN/product.ini" --devmgr-port $PORT --devmgr-async-port $((PORT + 1)) \
    --devmgr-listen-port $((PORT + 2)) </dev/null >>"$RUN/dhcp.out" 2>&1
  wait_for 10 replayed_since "$before" || fail "the daemon was not replayed"
  dhcpsh_ -c "configure terminal" -c "debug dhcp packet" >/dev/null || fail "debugging not switched on"
}

start_dhcpd() {  # [LEASE seconds]
  cat >"$RUN/dhcpd.conf" <<EOF
authoritative;
ping-check false;
default-lease-time ${1:-600};
max-lease-time ${1:-600};
min-lease-time ${1:-600};
subnet 192.168.100.0 netmask 255.255.255.0 { range 192.168.100.100 192.168.100.150; }
EOF
  touch "$RUN/dhcpd.leases"
  in_ns "$NS_UP" dhcpd -4 -q -cf "$RUN/dhcpd.conf" -lf "$RUN/dhcpd.leases" -pf "$RUN/dhcpd.pid" eth0 \
    </dev/null >>"$RUN/dhcpd.out" 2>&1 || fail "dhcpd did not start"
}

# Traffic from the hosts.
discover_from() {  # one DISCOVER of busybox udhcpc from namespace $1; 0 on a lease
  in_ns "$1" timeout $((${2:-1} * 2 + 5)) busybox udhcpc -i eth0 -f -q -n -t "${2:-1}" -T 1 -s /bin/true >/dev/null 2>&1
}
ping_from() {  # ping_from NS DEST [SOURCE]
  in_ns "$1" ping -c 1 -W 1 ${3:+-I "$3"} "$2" >/dev/null 2>&1
}
mac_of() { in_ns "$1" cat /sys/class/net/eth0/address; }

# Daemon log and oltsim state.
more_than() { [ "$(log_count "$1")" -gt "$2" ]; }
traced_after_discover() {  # traced_after_discover NS PATTERN: a new trace line
  local before
  before=$(log_count "$2")
  discover_from "$1" || true
  wait_for 5 more_than "$2" "$before"
}
counter() {  # counter PORT FIELD
  oltctl_ show counters | sed -n "s|^counters port=$1 .* $2=\([0-9]*\).*|\1|p"
}
fp_stat() { oltctl_ show fp | sed -n "s/.* $1=\([0-9]*\).*/\1/p"; }
port_ifindex() { oltctl_ show ports | sed -n "s|^port name=$1 ifindex=\([^ ]*\).*|\1|p"; }

# Snooping on VLAN 100 with option 82 and the uplink trusted; extra lines
# (VLAN node) go after the VLAN's own.
snoop_on() {
  local args=(-c "configure terminal" -c "ip dhcp-snooping" -c "ip dhcp information"
    -c "vlan 100" -c "ip dhcp-snooping" -c "ip dhcp information")
  for l in "$@"; do args+=(-c "$l"); done
  args+=(-c "exit" -c "interface ge1/1/1" -c "ip dhcp trust")
  dhcpsh_ "${args[@]}" >"$RUN/snoop_on.out" || fail "snooping configuration refused: $(cat "$RUN/snoop_on.out")"
}
binding_of() {  # binding_of MAC: its row of the binding show (the MAC as aabb-ccdd-eeff)
  local m
  m=$(echo "$1" | tr -d : | sed 's/\(....\)\(....\)\(....\)/\1-\2-\3/')
  dhcpsh_ -c "show ip dhcp-snooping binding" | grep "^$m " || true
}
no_binding_of() { [ -z "$(binding_of "$1")" ]; }

# DHCP frames seen by a host (default: the upstream host), kept in NAME.pcap.
capture_start() {  # [NS] [NAME] [FILTER]
  local ns=${1:-$NS_UP} name=${2:-up}
  ip netns exec "$ns" tcpdump -i eth0 --immediate-mode -U -n -w "$RUN/$name.pcap" ${3:-udp port 67} >/dev/null 2>&1 &
  echo $! >"$RUN/$name-tcpdump.pid"
  wait_for 5 test -s "$RUN/$name.pcap" || fail "tcpdump did not start"
}
capture_stop() { sleep 0.3; stop_pid "$RUN/${1:-up}-tcpdump.pid"; }  # TERM: a background job ignores INT
frames_in() { tcpdump -r "$RUN/$1.pcap" -n 2>/dev/null | grep -c . || true; }
# One line per request from a client (source port 68) the upstream host saw:
# "<option 82 count>|<circuit-id>|<remote-id>".
op82_of_requests() {
  tcpdump -r "$RUN/up.pcap" -vvn 2>/dev/null | awk '
    /^[0-9][0-9]:/ { if (req) print n, c, r; req = 0; n = 0; c = "-"; r = "-" }
    /\.68 > .*\.67: / { req = 1 }
    /Agent-Information \(82\)/ { n++ }
    /Circuit-ID SubOption 1/ { sub(/.*length [0-9]+: /, ""); c = $0 }
    /Remote-ID SubOption 2/ { sub(/.*length [0-9]+: /, ""); r = $0 }
    END { if (req) print n, c, r }' OFS='|'
}
