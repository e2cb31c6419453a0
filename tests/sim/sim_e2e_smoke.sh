#!/usr/bin/env bash
# oltsim smoke run: a host pings oltsim's VLAN interface through a wired port,
# then the port's veth vanishes and comes back and oltsim takes it up again.
# Exit 77 (skipped) when namespaces cannot be made here.
set -u
OLTSIM=${1:?oltsim binary} OLTCTL=${2:?oltctl binary}
NS_SW=os$$sw NS_A=os$$a
WORK=$(mktemp -d /tmp/oltsim-smoke.XXXXXX)
export OLTSIM_CTL=$WORK/ctl.sock
SIM_PID=

cleanup() {
    if [ -n "$SIM_PID" ]; then
        kill "$SIM_PID" 2>/dev/null
        for _ in $(seq 50); do kill -0 "$SIM_PID" 2>/dev/null || break; sleep 0.1; done
        kill -9 "$SIM_PID" 2>/dev/null
    fi
    ip netns del "$NS_A" 2>/dev/null
    ip netns del "$NS_SW" 2>/dev/null
    rm -rf "$WORK"
}
fail() { echo "FAIL: $*"; tail -20 "$WORK/oltsim.log"; "$OLTCTL" show counters; exit 1; }
wait_for() { for _ in $(seq 50); do "$@" && return 0; sleep 0.1; done; return 1; }
io_is() { "$OLTCTL" show ports 2>/dev/null | grep -q "linux=p1 io=$1 "; }
ping_vlanif() { ip netns exec "$NS_A" ping -c 3 -i 0.2 -W 1 10.77.0.254 >/dev/null; }
wire() {  # the switch end p1, the host end eth0 (with the MAC it had before, if given)
    ip link add p1 netns "$NS_SW" type veth peer name eth0 ${1:+address "$1"} netns "$NS_A" || fail "veth"
    ip -n "$NS_A" addr add 10.77.0.1/24 dev eth0 && ip -n "$NS_A" link set eth0 up || fail "host address"
}

ip netns add "$NS_SW" 2>/dev/null || { echo "SKIP: cannot create a network namespace here"; rm -rf "$WORK"; exit 77; }
trap cleanup EXIT
ip netns add "$NS_A" || fail "ip netns add $NS_A"
wire
printf '%s\n' '[system]' 'mac = 02:00:5e:77:00:01' 'vlans = 100' '[port ge1/1/1]' 'linux = p1' 'pvid = 100' \
    '[vlanif 100]' 'address = 10.77.0.254/24' >"$WORK/topo.ini"
ip netns exec "$NS_SW" "$OLTSIM" -t "$WORK/topo.ini" --fp-socket "$WORK/fp.sock" --ctl-socket "$OLTSIM_CTL" \
    --client-port 0 --log-file "$WORK/oltsim.log" &
SIM_PID=$!

wait_for io_is open || fail "oltsim did not open its port"
ping_vlanif || fail "no echo reply from the VLAN interface"
MAC_A=$(ip netns exec "$NS_A" cat /sys/class/net/eth0/address)
"$OLTCTL" show macs 100 | grep -q "mac=$MAC_A port=ge1/1/1 " || fail "host MAC not learnt on ge1/1/1"

ip -n "$NS_SW" link del p1 || fail "ip link del p1"
wait_for io_is waiting || fail "vanished interface not noticed"
kill -0 "$SIM_PID" || fail "oltsim died with its interface"
wire "$MAC_A"
wait_for io_is open || fail "interface back but not reopened"
ping_vlanif || fail "no echo reply after the interface came back"
echo "PASS: VLAN interface reached through ge1/1/1, interface loss survived"
