#!/usr/bin/env bash
# oltsim smoke run: two hosts in VLAN 100, one behind the uplink and one
# behind an ONU service port, in their own network namespaces. A ping between
# them must be switched, and oltctl must show both MACs on the right ports.
# Exit 77 (skipped) when namespaces cannot be made here.
set -u
OLTSIM=${1:?oltsim binary}
OLTCTL=${2:?oltctl binary}

TAG="os$$"
NS_SW="${TAG}sw"
NS_A="${TAG}a"
NS_B="${TAG}b"
WORK=$(mktemp -d /tmp/oltsim-e2e.XXXXXX)
SIM_PID=""
CREATED=()

cleanup() {
    if [ -n "$SIM_PID" ]; then
        kill "$SIM_PID" 2>/dev/null
        for _ in $(seq 50); do kill -0 "$SIM_PID" 2>/dev/null || break; sleep 0.1; done
        kill -9 "$SIM_PID" 2>/dev/null
        wait "$SIM_PID" 2>/dev/null
    fi
    for ns in "${CREATED[@]}"; do ip netns del "$ns" 2>/dev/null; done
    rm -rf "$WORK"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*"
    echo "--- oltsim log"
    cat "$WORK/oltsim.log" 2>/dev/null | tail -40
    echo "--- ports"
    OLTSIM_CTL="$WORK/ctl.sock" "$OLTCTL" show counters 2>&1
    exit 1
}

if ! ip netns add "$NS_SW" 2>/dev/null; then
    echo "SKIP: cannot create a network namespace here (ip netns add needs root)"
    exit 77
fi
CREATED+=("$NS_SW")
for ns in "$NS_A" "$NS_B"; do
    ip netns add "$ns" || fail "ip netns add $ns"
    CREATED+=("$ns")
done

# Switch-side ends in the switch namespace, host ends as eth0 in the hosts.
ip link add p1 netns "$NS_SW" type veth peer name eth0 netns "$NS_A" || fail "veth to $NS_A"
ip link add p2 netns "$NS_SW" type veth peer name eth0 netns "$NS_B" || fail "veth to $NS_B"
ip -n "$NS_SW" link set lo up
for ns in "$NS_A" "$NS_B"; do
    ip netns exec "$ns" sysctl -qw net.ipv6.conf.all.disable_ipv6=1
    ip -n "$ns" link set lo up
done
ip -n "$NS_A" addr add 10.77.0.1/24 dev eth0
ip -n "$NS_B" addr add 10.77.0.2/24 dev eth0
ip -n "$NS_A" link set eth0 up
ip -n "$NS_B" link set eth0 up

cat >"$WORK/topo.ini" <<'EOF'
[system]
mac = 02:00:5e:77:00:01
hostname = smoke
vlans = 100

[port ge1/1/1]
linux = p1
pvid = 100

[port gpon1/2/1]
tagged = 100

[onu gpon1/2/1 1]
sn = SMOKE001
linux = p2

[servport 1]
onu = gonu1/2/1:1
vlan = 100
user-tag = untagged
EOF

export OLTSIM_CTL="$WORK/ctl.sock"
ip netns exec "$NS_SW" "$OLTSIM" -t "$WORK/topo.ini" --fp-socket "$WORK/fp.sock" \
    --ctl-socket "$WORK/ctl.sock" --client-port 0 --log-file "$WORK/oltsim.log" &
SIM_PID=$!

ready=0
for _ in $(seq 100); do
    if "$OLTCTL" show ports 2>/dev/null | grep -q 'linux=p2 io=open'; then
        "$OLTCTL" show ports | grep -q 'linux=p1 io=open' && { ready=1; break; }
    fi
    kill -0 "$SIM_PID" 2>/dev/null || fail "oltsim exited early"
    sleep 0.1
done
[ "$ready" = 1 ] || fail "oltsim did not open its ports"

# ping if this box has it; otherwise ICMP echo from the Debian interpreter.
ping_b() {
    if command -v ping >/dev/null 2>&1; then
        ip netns exec "$NS_A" ping -c 3 -W 1 -i 0.2 10.77.0.2 >/dev/null 2>&1
        return
    fi
    ip netns exec "$NS_A" /usr/bin/python3 - 10.77.0.2 <<'PY'
import os, socket, struct, sys, time
dst = sys.argv[1]
def csum(b):
    if len(b) % 2: b += b"\0"
    s = sum(struct.unpack("!%dH" % (len(b) // 2), b))
    s = (s >> 16) + (s & 0xffff); s += s >> 16
    return ~s & 0xffff
s = socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_ICMP)
s.settimeout(0.5)
ident = os.getpid() & 0xffff
for seq in range(10):
    body = struct.pack("!BBHHH", 8, 0, 0, ident, seq) + b"oltsim-smoke"
    pkt = body[:2] + struct.pack("!H", csum(body)) + body[4:]
    s.sendto(pkt, (dst, 0))
    end = time.time() + 0.5
    while time.time() < end:
        try:
            data, addr = s.recvfrom(2048)
        except socket.timeout:
            break
        ihl = (data[0] & 15) * 4
        t, _, _, rid, rseq = struct.unpack("!BBHHH", data[ihl:ihl + 8])
        if addr[0] == dst and t == 0 and rid == ident:
            sys.exit(0)
sys.exit(1)
PY
}

ping_b || fail "no echo reply from 10.77.0.2 through oltsim"

MAC_A=$(ip -n "$NS_A" -o link show eth0 | grep -o 'link/ether [0-9a-f:]*' | awk '{print $2}')
MAC_B=$(ip -n "$NS_B" -o link show eth0 | grep -o 'link/ether [0-9a-f:]*' | awk '{print $2}')
MACS=$("$OLTCTL" show macs 100) || fail "oltctl show macs failed"
echo "$MACS"
echo "$MACS" | grep -q "mac vid=100 mac=$MAC_A port=ge1/1/1 " || fail "MAC $MAC_A not learnt on ge1/1/1"
echo "$MACS" | grep -q "mac vid=100 mac=$MAC_B port=gonu1/2/1:1 " || fail "MAC $MAC_B not learnt on gonu1/2/1:1"
# The subscriber's cable goes (the veth pair vanishes) and comes back.
ip -n "$NS_SW" link del p2 || fail "ip link del p2"
gone=0
for _ in $(seq 50); do
    "$OLTCTL" show ports | grep -q 'linux=p2 io=waiting' && { gone=1; break; }
    sleep 0.1
done
[ "$gone" = 1 ] || fail "vanished interface not noticed"
kill -0 "$SIM_PID" 2>/dev/null || fail "oltsim died with its interface"
# Same MAC as before, so the neighbour caches stay right.
ip link add p2 netns "$NS_SW" type veth peer name eth0 address "$MAC_B" netns "$NS_B" ||
    fail "veth to $NS_B again"
ip -n "$NS_B" addr add 10.77.0.2/24 dev eth0
ip -n "$NS_B" link set eth0 up
back=0
for _ in $(seq 50); do
    "$OLTCTL" show ports | grep -q 'linux=p2 io=open' && { back=1; break; }
    sleep 0.1
done
[ "$back" = 1 ] || fail "interface back but not reopened"
ping_b || fail "no echo reply after the interface came back"
echo "PASS: ping switched in VLAN 100, both MACs learnt, interface loss survived"
exit 0
